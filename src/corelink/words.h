// Eight characters at a time.
#pragma once

#include <bit>
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

// Where `c` stands in a word: marks its first place exactly, in the order of memory from the lowest bit on,
// and places behind it perhaps wrongly. 0 when it stands nowhere.
inline uint64_t places_of(uint64_t word, char c)
{
    constexpr uint64_t ones = UINT64_C(0x0101010101010101);
    if constexpr (std::endian::native == std::endian::big)
        word = __builtin_bswap64(word);
    const uint64_t differences = word ^ ones * static_cast<unsigned char>(c);
    return (differences - ones) & ~differences & ones << 7;
}

inline int first_place(uint64_t places)
{
    return __builtin_ctzll(places) / 8;
}

} // namespace qv
