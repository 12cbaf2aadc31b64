/*
 * Tables of codes and texts that need no relocation when the library is loaded: the texts of a table stand in
 * one pool, and rows hold offsets into it, so that every process shares the pages. A firmware build keeps the
 * pool compressed, in a third of the room, and unpacks it in the process that asks for a text.
 */
#ifndef QV_SCSI_TABLES_H
#define QV_SCSI_TABLES_H

#include "text_compression.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace qv
{

// A row as it is written down; used by the compiler only.
struct text_row {
    uint16_t code;
    std::string_view text;
};

template <size_t Rows, size_t PoolSize> struct packed_texts {
    std::array<uint16_t, Rows> codes, offsets;
    std::array<char, PoolSize> pool;

    constexpr size_t size() const
    {
        return Rows;
    }
    constexpr const char *text(size_t row) const
    {
        return pool.data() + offsets[row];
    }
    // Codes ascend. Returns nullptr for a code without a row.
    constexpr const char *find(uint16_t code) const
    {
        const auto found = std::lower_bound(codes.begin(), codes.end(), code);
        return found != codes.end() && *found == code ? text(static_cast<size_t>(found - codes.begin()))
                                                      : nullptr;
    }
};

// Whether a table has texts that many rows share, which are kept once then. Looking for them costs the
// compiler more steps than a long table without any is worth.
enum class sharing { none, many };

// The first row with the text of a row.
template <size_t Rows>
constexpr size_t first_with_text(const std::array<text_row, Rows> &rows, size_t row, sharing shared)
{
    size_t first = shared == sharing::many ? 0 : row;
    while (rows[first].text != rows[row].text)
        first++;
    return first;
}

// Packs the rows that make_rows returns.
template <auto make_rows, sharing Shared> consteval auto pack_texts()
{
    constexpr auto rows = make_rows();
    constexpr size_t pool_size = [] {
        const auto all = make_rows();
        size_t size = 0;
        for (size_t i = 0; i < all.size(); i++) {
            if (first_with_text(all, i, Shared) == i)
                size += all[i].text.size() + 1;
        }
        return size;
    }();
    static_assert(pool_size <= 0xffff);

    packed_texts<rows.size(), pool_size> packed = {};
    size_t end = 0;
    for (size_t i = 0; i < rows.size(); i++) {
        packed.codes[i] = rows[i].code;
        const size_t first = first_with_text(rows, i, Shared);
        if (first != i) {
            packed.offsets[i] = packed.offsets[first];
            continue;
        }
        packed.offsets[i] = static_cast<uint16_t>(end);
        std::copy(rows[i].text.begin(), rows[i].text.end(), packed.pool.begin() + end);
        end += rows[i].text.size() + 1;
    }
    return packed;
}

// A row's text as it is compressed: how many codes stand between those of the row before and its own, in
// digits of four bits from 1 up and without leading zeros, the text and a terminator.
template <size_t Rows> constexpr size_t write_rows(const std::array<text_row, Rows> &rows, char *to)
{
    size_t size = 0;
    const auto put = [&](char c) {
        if (to != nullptr)
            to[size] = c;
        size++;
    };
    uint16_t expected = 0;
    for (const text_row &row : rows) {
        const unsigned skipped = static_cast<uint16_t>(row.code - expected);
        for (int shift = 12; shift >= 0; shift -= 4) {
            if (skipped >> shift != 0)
                put(static_cast<char>(1 + (skipped >> shift & 15)));
        }
        for (const char c : row.text)
            put(c);
        put('\0');
        expected = static_cast<uint16_t>(row.code + 1);
    }
    return size;
}

// Texts that were compressed.
template <size_t Rows, size_t PoolSize> struct unpacked_texts {
    std::array<uint16_t, Rows> codes, starts;
    std::array<char, PoolSize> pool;

    const char *text(size_t row) const
    {
        return pool.data() + starts[row];
    }
    // Looks a code up among the first rows, whose codes ascend. Returns nullptr for a code without a row.
    const char *find(uint16_t code, size_t rows) const
    {
        const uint16_t *begin = codes.data(), *end = begin + rows;
        const uint16_t *found = std::lower_bound(begin, end, code);
        return found != end && *found == code ? text(static_cast<size_t>(found - begin)) : nullptr;
    }
};

// The rows that make_rows returns, compressed by the compiler.
template <auto make_rows> struct compressed_texts {
    static constexpr auto written = [] { // the compiler's alone
        std::array<char, write_rows(make_rows(), nullptr)> made = {};
        write_rows(make_rows(), made.data());
        return made;
    }();
    static constexpr auto bytes = [] {
        constexpr auto loose = compress(written);
        std::array<unsigned char, loose.size> exact = {};
        std::copy_n(loose.bytes.begin(), loose.size, exact.begin());
        return exact;
    }();
    static_assert(written.size() <= 0xffff);
    static_assert(std::ranges::all_of(make_rows(), [](const text_row &row) {
        return std::ranges::all_of(row.text, [](char c) { return c >= ' ' && c <= '~'; }) &&
               !row.text.empty();
    }));

    using unpacked = unpacked_texts<make_rows().size(), written.size()>;

    static void unpack_all(unpacked &texts)
    {
        unpack(bytes.data(), texts.pool.data(), texts.pool.size());
        const char *at = texts.pool.data();
        uint16_t code = 0;
        for (size_t row = 0; row < texts.codes.size(); row++) {
            unsigned skipped = 0;
            for (; *at < ' '; at++)
                skipped = skipped << 4 | static_cast<unsigned>(*at - 1);
            code = static_cast<uint16_t>(code + skipped);
            texts.codes[row] = code++;
            texts.starts[row] = static_cast<uint16_t>(at - texts.pool.data());
            at += strlen(at) + 1;
        }
    }
};

} // namespace qv

#endif
