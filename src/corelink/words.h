// Eight characters at a time, or what the processor compares at once.
//
// A word holds the first of its characters in its lowest byte, whatever the machine's byte order is. What
// marks places in a word sets the highest bit of a character's byte.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qv
{

// Firmware goes character by character: its processors have little to win here, and its code is small.
#if defined(QVLIB_FIRMWARE)
inline constexpr bool by_words = false;
#else
inline constexpr bool by_words = true;
#endif

inline constexpr uint64_t every_one = UINT64_C(0x0101010101010101);
inline constexpr uint64_t every_place = every_one << 7;

constexpr uint64_t eight_of(char c)
{
    return every_one * static_cast<unsigned char>(c);
}

// The word of a text of up to eight characters, behind which zeros follow.
constexpr uint64_t word_of(const char *text)
{
    uint64_t word = 0;
    for (int bit = 0; *text; bit += 8)
        word |= static_cast<uint64_t>(static_cast<unsigned char>(*text++)) << bit;
    return word;
}

inline uint64_t load_word(const char *text)
{
    uint64_t word;
    memcpy(&word, text, sizeof word);
    return std::endian::native == std::endian::big ? __builtin_bswap64(word) : word;
}

inline void store_word(char *to, uint64_t word)
{
    if (std::endian::native == std::endian::big)
        word = __builtin_bswap64(word);
    memcpy(to, &word, sizeof word);
}

// Where `c` stands in a word: marks its first place exactly, and places behind it perhaps wrongly. 0 when it
// stands nowhere.
inline uint64_t places_of(uint64_t word, char c)
{
    const uint64_t differences = word ^ eight_of(c);
    return (differences - every_one) & ~differences & every_place;
}

// Marks the characters from `first` to `last` of a word whose bytes are below 0x80.
inline uint64_t places_between(uint64_t word, char first, char last)
{
    return (word + eight_of(static_cast<char>(0x80 - first))) &
           ~(word + eight_of(static_cast<char>(0x7f - last))) & every_place;
}

inline int first_place(uint64_t places)
{
    return __builtin_ctzll(places) / 8;
}

// Characters that are searched together. Places are marked by a bit each, the first character's lowest.
struct word_block {
    using places = uint64_t;
    static constexpr int size = 8, bits_per_place = 8;

    explicit word_block(const char *text) : word(load_word(text))
    {
    }
    // Exactly those that are `c`.
    places places_of(char c) const
    {
        const uint64_t differences = word ^ eight_of(c);
        return ~(((differences & ~every_place) + ~every_place) | differences) & every_place;
    }
    void store(char *to) const
    {
        store_word(to, word);
    }

    uint64_t word;
};

#if defined(__SSE2__)
struct vector_block {
    using places = uint32_t;
    static constexpr int size = 16, bits_per_place = 1;

    explicit vector_block(const char *text) : vector(_mm_loadu_si128(reinterpret_cast<const __m128i *>(text)))
    {
    }
    places places_of(char c) const
    {
        return static_cast<places>(_mm_movemask_epi8(_mm_cmpeq_epi8(vector, _mm_set1_epi8(c))));
    }
    void store(char *to) const
    {
        _mm_storeu_si128(reinterpret_cast<__m128i *>(to), vector);
    }

    __m128i vector;
};
using text_block = vector_block;
#else
using text_block = word_block;
#endif

template <class block> int first_place_in(typename block::places places)
{
    return std::countr_zero(places) / block::bits_per_place;
}

} // namespace qv
