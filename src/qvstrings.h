// Steps of the formatting functions that are not exported.
#pragma once

#include <cstddef>

namespace qv
{

// Resizes a growing text to `size` bytes; null on failure. Grown texts are recorded under "qv_vaasprintf".
char *grow_text(char *text, size_t size);

} // namespace qv

// Replaces the character at `pos` of a tracked string. Returns the replacement's length, or -1: when the
// string can't grow, and is then null, or when it has no such character. The functions that replace many
// characters go over their text once instead, as this one moves all that follows.
extern "C" int replace_char(char **str, const char *replacement, size_t pos);
