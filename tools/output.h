// Where results go: standard output, or a file that is either replaced whole or left as it was.
#ifndef QVL_OUTPUT_H
#define QVL_OUTPUT_H

#include <string>

namespace qvl
{

// Writes `text` to the file `path`, to standard output for "" and "-". Throws failure.
//
// A regular file is written aside in its directory, brought to the disk and renamed into place; it keeps its
// permissions, a new one has those of the umask. Devices and pipes are written in place.
void write_output(const std::string &path, const std::string &text);

} // namespace qvl

#endif
