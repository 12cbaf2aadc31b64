// What text builders share with the formatting functions.
#pragma once

#include <cstddef>

namespace qv
{

// Resizes a growing text to `size` bytes; null on failure. Grown texts are recorded under "qv_vaasprintf".
char *grow_text(char *text, size_t size);

} // namespace qv
