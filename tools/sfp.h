// Identification blocks of transceivers.
#ifndef QVL_SFP_H
#define QVL_SFP_H

#include <string>
#include <vector>

namespace qvl
{

enum class sfp_form { corelink, json, table };

// Describes an identification block. `name` is what messages call it. Throws failure for a short block.
std::string describe_sfp(const std::string &name, const std::vector<unsigned char> &block, sfp_form form);

} // namespace qvl

#endif
