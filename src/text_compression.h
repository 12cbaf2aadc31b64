/*
 * Texts of 7-bit characters, compressed by the compiler and unpacked at run time: characters and repeats of
 * what stands before, each bit of them coded by the probability that earlier bits of its kind have had. J. A.
 * Storer and T. G. Szymanski, "Data Compression via Textual Substitution", 1982; G. N. N. Martin, "Range
 * encoding: an algorithm for removing redundancy from a digitised message", 1979.
 */
#ifndef QV_TEXT_COMPRESSION_H
#define QV_TEXT_COMPRESSION_H

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace qv
{

constexpr size_t shortest_repeat = 3, longest_repeat = 255, farthest_repeat = 0xffff;

// How probable it is that a bit is set, in 4096ths.
class bit_model
{
  public:
    constexpr uint32_t probability() const
    {
        return static_cast<uint32_t>(2048 + beyond_half_);
    }
    constexpr void learn(bool bit)
    {
        const int known = 2048 + beyond_half_;
        beyond_half_ = static_cast<int16_t>(beyond_half_ + (bit ? (4096 - known) >> 4 : -(known >> 4)));
    }

  private:
    int16_t beyond_half_ = 0;
};

// A number from 1 on: how many bits it has, then those below its highest.
struct number_model {
    bit_model widths[16];
    bit_model bits[16][16];
};

// Writes bits into bytes, as parts of the range from low_ to high_.
class bit_writer
{
  public:
    constexpr explicit bit_writer(unsigned char *to) : to_(to)
    {
    }
    constexpr bool code(bit_model &model, bool bit)
    {
        const uint32_t middle = low_ + (high_ - low_) / 4096 * model.probability();
        if (bit)
            high_ = middle;
        else
            low_ = middle + 1;
        model.learn(bit);
        for (; (low_ ^ high_) >> 24 == 0; low_ <<= 8, high_ = high_ << 8 | 0xff)
            *to_++ = static_cast<unsigned char>(high_ >> 24);
        return bit;
    }
    // Writes as much as a reader reads ahead; returns the end.
    constexpr unsigned char *finish()
    {
        for (int i = 0; i < 4; i++, high_ <<= 8)
            *to_++ = static_cast<unsigned char>(high_ >> 24);
        return to_;
    }

  private:
    unsigned char *to_;
    uint32_t low_ = 0, high_ = UINT32_MAX;
};

// Reads the bits that a bit_writer has written.
class bit_reader
{
  public:
    constexpr explicit bit_reader(const unsigned char *from) : from_(from)
    {
        for (int i = 0; i < 4; i++)
            next_byte();
    }
    constexpr bool code(bit_model &model, bool = false)
    {
        const uint32_t middle = low_ + (high_ - low_) / 4096 * model.probability();
        const bool bit = value_ <= middle;
        if (bit)
            high_ = middle;
        else
            low_ = middle + 1;
        model.learn(bit);
        for (; (low_ ^ high_) >> 24 == 0; low_ <<= 8, high_ = high_ << 8 | 0xff)
            next_byte();
        return bit;
    }

  private:
    constexpr void next_byte()
    {
        value_ = value_ << 8 | *from_++;
    }

    const unsigned char *from_;
    uint32_t low_ = 0, high_ = UINT32_MAX, value_ = 0;
};

// What a text consists of, written or read: a reader gives what it has read for what it is called with.
template <class Bits> class text_coder
{
  public:
    constexpr explicit text_coder(Bits bits) : bits_(bits)
    {
    }
    // Whether a repeat comes next.
    constexpr bool code_repeats(bool repeats = false)
    {
        was_repeat_ = bits_.code(repeats_[was_repeat_], repeats);
        return was_repeat_;
    }
    constexpr unsigned code_character(unsigned character = 0)
    {
        return code_tree(characters_, 7, character);
    }
    constexpr unsigned code_length(unsigned length = 0)
    {
        return code_number(lengths_, length);
    }
    constexpr unsigned code_distance(unsigned distance = 0)
    {
        return code_number(distances_, distance);
    }
    constexpr Bits &bits()
    {
        return bits_;
    }

  private:
    constexpr unsigned code_tree(bit_model *models, unsigned bits, unsigned value)
    {
        unsigned node = 1;
        for (unsigned left = bits; left-- != 0;)
            node = node << 1 | bits_.code(models[node], value >> left & 1);
        return node - (1u << bits);
    }
    constexpr unsigned code_number(number_model &model, unsigned number)
    {
        const unsigned width = code_tree(model.widths, 4, static_cast<unsigned>(std::bit_width(number)) - 1);
        unsigned made = 1;
        for (unsigned left = width; left-- != 0;)
            made = made << 1 | bits_.code(model.bits[width][left], number >> left & 1);
        return made;
    }

    Bits bits_;
    bool was_repeat_ = false;
    bit_model repeats_[2] = {}, characters_[128] = {};
    number_model lengths_ = {}, distances_ = {};
};

// A repeat: its length, 0 for none, and how far back it begins.
struct repeat {
    size_t length = 0, distance = 0;

    // About how many bits it takes less than its characters.
    constexpr int gain() const
    {
        return length == 0 ? 0
                           : 4 * static_cast<int>(length) - static_cast<int>(std::bit_width(distance)) - 4;
    }
};

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
    // Returns the repeat that gains most of what stands at a place.
    constexpr repeat find(size_t at) const
    {
        repeat best;
        size_t longest = shortest_repeat - 1;
        for (size_t from = nearest_[hash(at)];
             from != nowhere && at - from <= farthest_repeat && longest < longest_repeat;
             from = earlier_[from]) {
            if (at + longest < Size && text_[from + longest] != text_[at + longest])
                continue; // not longer
            const repeat found = {count_same(from, at), at - from};
            if (found.length <= longest)
                continue;
            longest = found.length;
            if (found.gain() > best.gain())
                best = found;
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
    std::array<unsigned char, 2 * Size + 8> bytes;
    size_t size;
};

template <size_t Size> constexpr compressed_text<Size> compress(const std::array<char, Size> &text)
{
    compressed_text<Size> made = {};
    text_coder coder(bit_writer(made.bytes.data()));
    repeat_finder<Size> finder(text);
    for (size_t at = 0; at < Size;) {
        repeat found = finder.find(at);
        // A character comes cheaper when a better repeat follows it.
        if (found.length != 0 && at + 1 < Size && finder.find(at + 1).gain() > found.gain())
            found = {};
        if (coder.code_repeats(found.length != 0)) {
            coder.code_length(static_cast<unsigned>(found.length - shortest_repeat + 1));
            coder.code_distance(static_cast<unsigned>(found.distance));
        } else {
            coder.code_character(static_cast<unsigned char>(text[at]));
        }
        for (const size_t next = at + std::max<size_t>(found.length, 1); at < next; at++)
            finder.add(at);
    }
    made.size = static_cast<size_t>(coder.bits().finish() - made.bytes.data());
    return made;
}

// Unpacks a text of a size that compress has made bytes of.
inline void unpack(const unsigned char *bytes, char *to, size_t size)
{
    text_coder coder{bit_reader(bytes)};
    for (const char *end = to + size; to != end;) {
        if (!coder.code_repeats()) {
            *to++ = static_cast<char>(coder.code_character());
            continue;
        }
        size_t left = coder.code_length() + shortest_repeat - 1;
        for (const char *from = to - coder.code_distance(); left != 0; left--)
            *to++ = *from++;
    }
}

} // namespace qv
#endif
