/*
 * Short tables of codes and texts: each text stands in its row, so that a table needs no relocation. A
 * firmware build has the rows without what fills them up.
 */
#ifndef QV_CODE_TEXT_H
#define QV_CODE_TEXT_H

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace qv
{

template <size_t Size> struct code_text {
    unsigned char code;
    char text[Size];
};

#if defined(QVLIB_FIRMWARE)
// The rows of a table one behind the other: a code, a text and its terminator each.
template <const auto &table>
constexpr auto dense_rows = [] {
    constexpr size_t size = [] {
        size_t sum = 0;
        for (const auto &row : table)
            sum += std::string_view(row.text).size() + 2;
        return sum;
    }();
    std::array<char, size> made = {};
    char *to = made.data();
    for (const auto &row : table) {
        *to++ = static_cast<char>(row.code);
        for (const char c : std::string_view(row.text))
            *to++ = c;
        *to++ = '\0';
    }
    return made;
}();

[[gnu::noinline]] inline const char *find_in_dense_rows(const char *row, const char *end, unsigned int code,
                                                        const char *absent)
{
    for (; row != end; row += strlen(row + 1) + 2) {
        if (static_cast<unsigned char>(*row) == code)
            return row + 1;
    }
    return absent;
}
#endif

// Returns the text of the first row with the code, or `absent`.
template <const auto &table> const char *find_text(unsigned int code, const char *absent)
{
#if defined(QVLIB_FIRMWARE)
    return find_in_dense_rows(dense_rows<table>.data(), dense_rows<table>.data() + dense_rows<table>.size(),
                              code, absent);
#else
    for (const auto &row : table) {
        if (row.code == code)
            return row.text;
    }
    return absent;
#endif
}

} // namespace qv

#endif
