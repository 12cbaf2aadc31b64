// Tags by words: eight characters at a time, as words.h has them.
//
// A tag that begins at a word's boundary, as an allocator's blocks do, is read in whole words. What stands
// behind its end is on the same page, so that it can be read; it is not looked at. Other tags are read
// character by character.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "words.h"

namespace qv
{

constexpr size_t word_size = sizeof(uint64_t);

inline bool begins_a_word(const char *tag)
{
    return reinterpret_cast<uintptr_t>(tag) % word_size == 0;
}

// The word at a boundary.
__attribute__((no_sanitize("address"))) inline uint64_t aligned_word(const char *tag)
{
    uint64_t word;
    memcpy(&word, __builtin_assume_aligned(tag, word_size), word_size);
    return std::endian::native == std::endian::big ? __builtin_bswap64(word) : word;
}

// The highest bit of the first NUL in a word; negative when there is none.
inline int end_in_word(uint64_t word)
{
    const uint64_t nul = places_of(word, '\0');
    return nul ? std::countr_zero(nul) : -1;
}

inline bool equal_tags(const char *a, const char *b)
{
    if (!by_words || !begins_a_word(a) || !begins_a_word(b))
        return strcmp(a, b) == 0;
    for (;; a += word_size, b += word_size) {
        const uint64_t word = aligned_word(a), differences = word ^ aligned_word(b);
        const int end = end_in_word(word);
        if (end >= 0)
            return differences << (63 - end) == 0;
        if (differences != 0)
            return false;
    }
}

// A set of tags that knows for certain only what it does not hold.
class tag_filter
{
  public:
    // What a tag is known by.
    static unsigned int mark_of(const char *tag)
    {
        uint64_t mark = 0;
        if (!begins_a_word(tag)) {
            uint64_t word = 0;
            int bit = 0;
            for (; *tag; tag++) {
                word |= static_cast<uint64_t>(static_cast<unsigned char>(*tag)) << bit;
                bit = (bit + 8) % 64;
                if (bit == 0) {
                    mark = mixed(mark, word);
                    word = 0;
                }
            }
            return last_mixed(mark, word << (56 - bit));
        }
        for (;; tag += word_size) {
            const uint64_t word = aligned_word(tag);
            const int end = end_in_word(word);
            if (end >= 0)
                return last_mixed(mark, word << (63 - end));
            mark = mixed(mark, word);
        }
    }

    bool can_hold(unsigned int mark) const
    {
        return words_[mark / 64] >> mark % 64 & 1;
    }
    void add(unsigned int mark)
    {
        words_[mark / 64] |= UINT64_C(1) << mark % 64;
    }
    void clear()
    {
        memset(words_, 0, sizeof words_);
    }

  private:
    static uint64_t mixed(uint64_t mark, uint64_t word)
    {
        mark = (mark ^ word) * UINT64_C(0x9e3779b97f4a7c15);
        return mark ^ mark >> 32;
    }
    static unsigned int last_mixed(uint64_t mark, uint64_t word)
    {
        return static_cast<unsigned int>(mixed(mark, word) >> 23 & 511);
    }

    uint64_t words_[8] = {};
};

} // namespace qv
