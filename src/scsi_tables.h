/*
 * Tables of codes and texts that need no relocation when the library is loaded: the texts of a table stand in
 * one pool, and rows hold offsets into it, so that every process shares the pages.
 */
#ifndef QV_SCSI_TABLES_H
#define QV_SCSI_TABLES_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
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

} // namespace qv

#endif
