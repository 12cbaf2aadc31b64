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
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <pthread.h>
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

// What pack_texts makes of the same rows, with its pool compressed. The first call for a text unpacks it, by
// whichever thread comes first.
template <auto make_rows, sharing Shared> class compressed_texts
{
  public:
    const char *text(size_t row)
    {
        if (!unpacked_.load(std::memory_order_acquire))
            unpack_all();
        return pool_.data() + starts_[number_of(row)];
    }
    const char *find(uint16_t code)
    {
        const auto found = std::lower_bound(codes.begin(), codes.end(), code);
        return found != codes.end() && *found == code ? text(static_cast<size_t>(found - codes.begin()))
                                                      : nullptr;
    }

  private:
    static constexpr auto packed = pack_texts<make_rows, Shared>(); // the compiler's alone
    static constexpr auto codes = packed.codes;
    static constexpr size_t text_count =
        static_cast<size_t>(std::count(packed.pool.begin(), packed.pool.end(), '\0'));
    static constexpr auto compressed = [] {
        constexpr auto loose = compress(packed.pool);
        std::array<unsigned char, loose.size> exact = {};
        std::copy_n(loose.bytes.begin(), loose.size, exact.begin());
        return exact;
    }();

    // Which text a row has: its own, or a number among the texts that are shared.
    static size_t number_of(size_t row)
    {
        if constexpr (Shared == sharing::none) {
            return row;
        } else {
            static_assert(text_count <= 256);
            static constexpr auto numbers = [] {
                std::array<uint8_t, packed.size()> made = {};
                for (size_t i = 0; i < made.size(); i++)
                    made[i] = static_cast<uint8_t>(
                        std::count(packed.pool.begin(), packed.pool.begin() + packed.offsets[i], '\0'));
                return made;
            }();
            return numbers[row];
        }
    }
    void unpack_all()
    {
        pthread_mutex_lock(&lock_);
        if (!unpacked_.load(std::memory_order_relaxed)) {
            unpack(compressed.data(), compressed.size(), pool_.data());
            size_t start = 0;
            for (uint16_t &of_text : starts_) {
                of_text = static_cast<uint16_t>(start);
                start += strlen(&pool_[start]) + 1;
            }
            unpacked_.store(true, std::memory_order_release);
        }
        pthread_mutex_unlock(&lock_);
    }

    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<bool> unpacked_ = false;
    std::array<uint16_t, text_count> starts_ = {};
    std::array<char, packed.pool.size()> pool_ = {};
};

} // namespace qv

#endif
