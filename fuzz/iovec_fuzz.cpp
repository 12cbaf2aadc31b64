// I/O vectors beside their flat model:
//
//   scripts/fuzz 60 iovec
//
// An input is a number of entries and their lengths, ranges and cursors; the entries' bytes are made up.

#include <qvlib/iovec.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_input.h"

namespace
{

using fuzz::require;

constexpr size_t most_entries = 16;

// Entries with blocks of their own, and the bytes in one piece.
struct vector {
    std::vector<std::vector<char>> blocks;
    std::vector<iovec> entries;
    std::string flat;

    int count() const
    {
        return static_cast<int>(entries.size());
    }
};

vector make(fuzz::input &in)
{
    vector made;
    const size_t count = in.below(most_entries + 1);
    for (size_t i = 0; i < count; i++) {
        std::vector<char> block(in.below(40));
        for (char &byte : block) {
            byte = static_cast<char>('a' + made.flat.size() % 97);
            made.flat += byte;
        }
        made.blocks.push_back(std::move(block));
    }
    for (std::vector<char> &block : made.blocks)
        made.entries.push_back({block.data(), block.size()});
    return made;
}

std::string bytes_of(const iovec *entries, int count)
{
    std::string flat;
    for (int i = 0; i < count; i++)
        flat.append(static_cast<const char *>(entries[i].iov_base), entries[i].iov_len);
    return flat;
}

void cut_out(const vector &from, size_t length, size_t offset, int scratch_count)
{
    std::vector<iovec> scratch(static_cast<size_t>(scratch_count));
    iovec *out = nullptr;
    int count = -7;
    const int result = fill_iovec_subset(&out, &count, length, offset, scratch.data(), scratch_count,
                                         from.entries.data(), from.count());
    const bool is_covered =
        offset <= from.flat.size() && length <= from.flat.size() - offset && from.count() > 0;
    require(result == (is_covered ? 0 : -1), "whether a range is covered");
    if (result != 0)
        return require(out == nullptr && count == -7, "a failure changed the result");
    require(count >= 1, "a result without an entry");
    require(bytes_of(out, count) == from.flat.substr(offset, length), "other bytes than the range's");
    require(out == scratch.data() ? count <= scratch_count : count > scratch_count,
            "where the result stands");
    if (out != scratch.data())
        free(out);
}

void move_cursor(const vector &of, size_t offset, int index)
{
    size_t expected = offset;
    int at = index;
    while (at >= 0 && at < of.count() && expected >= of.entries[static_cast<size_t>(at)].iov_len)
        expected -= of.entries[static_cast<size_t>(at++)].iov_len;
    check_end_of_iov(of.entries.data(), of.count(), &offset, &index);
    require(offset == expected && index == at, "where a cursor goes");
}

void gather(const vector &from, size_t room)
{
    std::vector<char> buffer(room);
    const size_t copied = std::min(room, from.flat.size());
    const void *end = linearise_iovec(from.entries.data(), from.count(), buffer.data(), room);
    require(end == buffer.data() + copied, "the place behind the gathered bytes");
    require(std::equal(buffer.begin(), buffer.begin() + static_cast<ptrdiff_t>(copied), from.flat.begin()),
            "gathered bytes");
}

void scatter(vector to, size_t length)
{
    for (size_t i = 0; i < to.entries.size(); i++)
        to.entries[i].iov_base = to.blocks[i].data(); // of this copy
    std::vector<char> bytes(length);
    for (size_t i = 0; i < length; i++)
        bytes[i] = static_cast<char>(i);
    delinearise_to_iovec(to.entries.data(), to.count(), bytes.data(), length);
    std::copy_n(bytes.begin(), std::min(length, to.flat.size()), to.flat.begin());
    require(bytes_of(to.entries.data(), to.count()) == to.flat, "scattered bytes");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const vector of = make(in);
    require(size_iovec(of.entries.data(), of.count()) == of.flat.size(), "the size");
    while (!in.is_empty()) {
        const unsigned what = in.byte();
        // Mostly near the data's end, now and then far behind it.
        const size_t first = what & 0x80 ? in.size(8) : in.size(2) % 700;
        const size_t second = what & 0x40 ? in.size(8) : in.size(2) % 700;
        switch (what % 4) {
        case 0:
            cut_out(of, first, second, static_cast<int>(in.below(20)));
            break;
        case 1:
            move_cursor(of, first, static_cast<int>(second % 20) - 2);
            break;
        case 2:
            gather(of, first % 1024);
            break;
        default:
            scatter(of, first % 1024);
            break;
        }
    }
    return 0;
}
