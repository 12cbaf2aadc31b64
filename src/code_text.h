/* Short tables of codes and texts: each text stands in its row, so that a table needs no relocation. */
#ifndef QV_CODE_TEXT_H
#define QV_CODE_TEXT_H

#include <cstddef>

namespace qv
{

template <size_t Size> struct code_text {
    unsigned char code;
    char text[Size];
};

// Returns the text of the first row with the code, or `absent`.
template <size_t Size, size_t Rows>
const char *find_text(const code_text<Size> (&table)[Rows], unsigned int code, const char *absent)
{
    for (const code_text<Size> &row : table) {
        if (row.code == code)
            return row.text;
    }
    return absent;
}

} // namespace qv

#endif
