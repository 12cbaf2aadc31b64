// Eight characters at a time.
#pragma once

#include <cstdint>
#include <cstring>

namespace qv
{

inline uint64_t load_word(const char *text)
{
    uint64_t word;
    memcpy(&word, text, sizeof word);
    return word;
}

inline void store_word(char *to, uint64_t word)
{
    memcpy(to, &word, sizeof word);
}

// Whether one of the eight is `c`.
inline bool word_has(uint64_t word, char c)
{
    constexpr uint64_t ones = UINT64_C(0x0101010101010101);
    const uint64_t differences = word ^ ones * static_cast<unsigned char>(c);
    return (differences - ones) & ~differences & ones << 7;
}

} // namespace qv
