// Formatting without the C library, for the formats that most texts have.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace qv
{

// Writes what vsnprintf writes and returns its length, for formats with no conversions but %s, %c, %% and
// %d, %i, %u with or without l, ll and z, none of them with flags, width or precision. -1 for any other
// format, for a text that does not fit into `room` bytes with its NUL, and for a null string: those are
// vsnprintf's.
int format_plainly(char *to, size_t room, const char *fmt, va_list ap);

} // namespace qv
