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

// As memcpy, of what is mostly short: as its first and its last part, which may overlap.
inline void copy_short(char *to, const char *text, size_t length)
{
    if (!by_words || length > 16) {
        memcpy(to, text, length);
    } else if (length >= 8) {
        memcpy(to, text, 8);
        memcpy(to + length - 8, text + length - 8, 8);
    } else if (length >= 4) {
        memcpy(to, text, 4);
        memcpy(to + length - 4, text + length - 4, 4);
    } else if (length > 0) {
        to[0] = text[0];
        to[length / 2] = text[length / 2];
        to[length - 1] = text[length - 1];
    }
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

// Marks what is neither letter nor digit.
inline uint64_t places_behind_word(uint64_t word)
{
    const uint64_t low = word & ~every_place;
    const uint64_t lower_case =
        low | eight_of(0x20); // makes 0x7f of the underline, too, and nothing a letter
    const uint64_t members =
        places_between(lower_case, 'a', 'z') | places_between(low, '0', '9') | places_between(low, '_', '_');
    return (~members | word) & every_place;
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
    // Those that are neither letter nor digit.
    places places_behind_word() const
    {
        return qv::places_behind_word(word);
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
    places places_behind_word() const
    {
        const __m128i letters = count_from(_mm_or_si128(vector, _mm_set1_epi8(0x20)), 'a');
        const __m128i members =
            _mm_or_si128(_mm_or_si128(at_most(letters, 'z' - 'a'), at_most(count_from(vector, '0'), 9)),
                         _mm_cmpeq_epi8(vector, _mm_set1_epi8('_')));
        return static_cast<places>(_mm_movemask_epi8(members)) ^ 0xffff;
    }
    // How many of the first ones are decimal digits.
    int leading_digits() const
    {
        return std::countr_one(static_cast<places>(_mm_movemask_epi8(at_most(count_from(vector, '0'), 9))));
    }
    void store(char *to) const
    {
        _mm_storeu_si128(reinterpret_cast<__m128i *>(to), vector);
    }

    __m128i vector;

  private:
    static __m128i count_from(__m128i characters, char first)
    {
        return _mm_sub_epi8(characters, _mm_set1_epi8(first));
    }
    static __m128i at_most(__m128i numbers, char limit)
    {
        return _mm_cmpeq_epi8(_mm_min_epu8(numbers, _mm_set1_epi8(limit)), numbers);
    }
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
