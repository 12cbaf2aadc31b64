/*
 * Texts of 7-bit characters, compressed by the compiler and unpacked at run time. A byte below 80h is a
 * character; the bits 1llllddd dddddddd of two bytes repeat what stands before: l + 3 bytes from d + 1 bytes
 * back. J. A. Storer and T. G. Szymanski, "Data Compression via Textual Substitution", 1982.
 */
#ifndef QV_TEXT_COMPRESSION_H
#define QV_TEXT_COMPRESSION_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace qv
{

constexpr size_t shortest_repeat = 3, longest_repeat = 18, farthest_repeat = 2048;

// Finds repeats by chains of the places whose three bytes have the same hash, the nearest first.
template <size_t Size> class repeat_finder
{
  public:
    constexpr explicit repeat_finder(const std::array<char, Size> &text) : text_(text)
    {
        nearest_.fill(nowhere);
    }
    // Notes a place, after those before it.
    constexpr void add(size_t at)
    {
        earlier_[at] = nearest_[hash(at)];
        nearest_[hash(at)] = at;
    }
    // Returns where the longest repeat of what stands at a place begins, and its length, 0 without any.
    constexpr size_t find(size_t at, size_t &length) const
    {
        size_t best = nowhere;
        length = 0;
        for (size_t from = nearest_[hash(at)]; from != nowhere && at - from <= farthest_repeat;
             from = earlier_[from]) {
            const size_t same = count_same(from, at);
            if (same > length) {
                length = same;
                best = from;
            }
        }
        return best;
    }

  private:
    static constexpr size_t nowhere = SIZE_MAX;

    constexpr size_t hash(size_t at) const
    {
        size_t mixed = 0;
        for (size_t i = at; i < std::min(at + shortest_repeat, Size); i++)
            mixed = mixed * 37 + static_cast<unsigned char>(text_[i]);
        return mixed % nearest_.size();
    }
    constexpr size_t count_same(size_t from, size_t at) const
    {
        size_t same = 0;
        while (same < longest_repeat && at + same < Size && text_[from + same] == text_[at + same])
            same++;
        return same;
    }

    const std::array<char, Size> &text_;
    std::array<size_t, Size> earlier_ = {};
    std::array<size_t, 4096> nearest_ = {};
};

template <size_t Size> struct compressed_text {
    std::array<unsigned char, Size> bytes;
    size_t size;
};

template <size_t Size> constexpr compressed_text<Size> compress(const std::array<char, Size> &text)
{
    compressed_text<Size> made = {};
    repeat_finder<Size> finder(text);
    for (size_t at = 0; at < Size;) {
        size_t length = 0;
        const size_t back = at - finder.find(at, length) - 1;
        const size_t next = at + (length < shortest_repeat ? 1 : length);
        if (length < shortest_repeat) {
            made.bytes[made.size++] = static_cast<unsigned char>(text[at]);
        } else {
            made.bytes[made.size++] =
                static_cast<unsigned char>(0x80 | (length - shortest_repeat) << 3 | back >> 8);
            made.bytes[made.size++] = static_cast<unsigned char>(back);
        }
        for (; at < next; at++)
            finder.add(at);
    }
    return made;
}

// Unpacks what compress has made; there must be room for all of it at `to`.
inline void unpack(const unsigned char *bytes, size_t size, char *to)
{
    for (const unsigned char *at = bytes, *end = bytes + size; at != end;) {
        const unsigned first = *at++;
        if (first < 0x80) {
            *to++ = static_cast<char>(first);
            continue;
        }
        const char *from = to - ((first & 7) << 8 | *at++) - 1;
        for (unsigned left = (first >> 3 & 15) + shortest_repeat; left != 0; left--)
            *to++ = *from++;
    }
}

} // namespace qv

#endif
