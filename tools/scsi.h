// SCSI codes and sense data in words.
#ifndef QVL_SCSI_H
#define QVL_SCSI_H

#include <string>
#include <vector>

namespace qvl
{

// The key's and the additional code's lines of sense data.
std::string describe_sense(unsigned int key, unsigned char asc, unsigned char ascq);

// Explains sense data in fixed or descriptor format. `name` is what messages call it. Throws failure for data
// that is too short or of another format.
std::string explain_sense_data(const std::string &name, const std::vector<unsigned char> &data);

} // namespace qvl

#endif
