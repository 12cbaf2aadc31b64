// UTF-8 as the writers and the error messages need it: where a well-formed sequence ends.
#ifndef QVL_UTF8_H
#define QVL_UTF8_H

#include <cstddef>
#include <string_view>

namespace qvl
{

// Returns the length of the well-formed sequence that `text` begins with, 0 for any other byte (RFC 3629: no
// overlong forms, no surrogates, nothing above U+10FFFF).
inline std::size_t utf8_sequence(std::string_view text)
{
    if (text.empty())
        return 0;
    auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80)
        return 1;
    const std::size_t length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
    if (length == 0 || text.size() < length)
        return 0;
    const unsigned char lowest = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned char highest = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (byte(1) < lowest || byte(1) > highest)
        return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
    }
    return length;
}

} // namespace qvl

#endif
