// What stops the tool with status 1, and how it is put before the user.
#ifndef QVL_FAILURE_H
#define QVL_FAILURE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace qvl
{

// A fault of the input or the output. `place` is "FILE:LINE:COLUMN", "FILE:LINE", or empty for a fault
// without a position.
struct failure {
    std::string place;
    std::string text;
    std::string source_line; // as it is shown, and the blanks that bring a caret under the offending byte
    std::string caret_blanks;
    bool has_source_line = false;
};

// A fault without a position, shown as "qvl: TEXT".
failure plain_failure(std::string text);

// A fault at a byte offset of a file's text, shown as "FILE:LINE:COLUMN: TEXT" with the line and a caret.
failure failure_at(std::string_view file, std::string_view content, std::size_t offset, std::string text);

// A fault somewhere in a line, which counts from 1, shown as "FILE:LINE: TEXT".
failure failure_in_line(std::string_view file, std::size_t line, std::string text);

// Returns "line L, column C" of an offset, for a second place that a text mentions.
std::string place_in_words(std::string_view content, std::size_t offset);

// Returns `bytes` fit for a message: control characters and bytes that are no UTF-8 escaped, the end of a
// long text left out.
std::string shown(std::string_view bytes);

// Returns the whole of `bytes` in one line, fit for a terminal and for double quotes around it: as above, and
// double quotes and backslashes escaped.
std::string escaped(std::string_view bytes);

// Returns the whole of `bytes` fit for a terminal, its line feeds and tabs as they are.
std::string printable(std::string_view bytes);

// Writes the fault to standard error, in colour when that is a terminal that wants it.
void report(const failure &fault);

} // namespace qvl

#endif
