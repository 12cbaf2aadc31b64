/*
 * I/O vectors. Entries are only read; a vector that a caller hands over as NULL or with a count of 0 or less
 * is an empty span from the first line on, so no function below tests for it again.
 */
#include <qvlib/iovec.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

namespace
{

using entries = std::span<const struct iovec>;

entries entries_of(const struct iovec *iov, int iovcnt)
{
    return iov == nullptr || iovcnt <= 0 ? entries() : entries(iov, static_cast<size_t>(iovcnt));
}

// Where a range begins and ends in a vector: whole entries first to last, less `start` bytes in front of the
// range in the first and `excess` bytes behind it in the last.
struct extent {
    size_t first, last;
    size_t start, excess;
};

// Returns false when the vector ends before the range begins.
bool find_start(entries vector, size_t offset, extent &range)
{
    for (size_t i = 0; i < vector.size(); i++) {
        const size_t length = vector[i].iov_len;
        if (offset > length) {
            offset -= length;
            continue;
        }
        // The range begins with the entry behind a used-up one; an empty range at the very end has none.
        const bool used_up = offset == length && offset != 0 && i + 1 < vector.size();
        range.first = used_up ? i + 1 : i;
        range.start = used_up ? 0 : offset;
        return true;
    }
    return false;
}

// Returns false when the vector ends before the range does. Counts down what is left of the range instead of
// adding up where it ends, so that no sum can overflow.
bool find_end(entries vector, size_t len, extent &range)
{
    size_t before = range.start;
    for (size_t i = range.first; i < vector.size(); i++) {
        const size_t available = vector[i].iov_len - before;
        if (len <= available) {
            range.last = i;
            range.excess = available - len;
            return true;
        }
        len -= available;
        before = 0;
    }
    return false;
}

void cut_out(entries vector, const extent &range, struct iovec *result)
{
    const entries covered = vector.subspan(range.first, range.last - range.first + 1);
    std::copy(covered.begin(), covered.end(), result);
    if (range.start != 0) {
        // As a number: an entry without a base pointer is the caller's affair.
        const auto base = reinterpret_cast<uintptr_t>(result[0].iov_base);
        result[0].iov_base = reinterpret_cast<void *>(base + range.start);
        result[0].iov_len -= range.start;
    }
    result[covered.size() - 1].iov_len -= range.excess;
}

} // namespace

size_t size_iovec(const struct iovec *iov, int iovcnt)
{
    size_t total = 0;
    for (const struct iovec &entry : entries_of(iov, iovcnt))
        total += entry.iov_len;
    return total;
}

void check_end_of_iov(const struct iovec *iov, int iovcnt, size_t *offset, int *index)
{
    if (iov == nullptr || offset == nullptr || index == nullptr || *index < 0)
        return;
    while (*index < iovcnt && *offset >= iov[*index].iov_len) {
        *offset -= iov[*index].iov_len;
        ++*index;
    }
}

void *linearise_iovec(const struct iovec *iov, int iovcnt, void *buf, size_t len)
{
    if (buf == nullptr)
        return nullptr;
    auto *to = static_cast<uint8_t *>(buf);
    for (const struct iovec &entry : entries_of(iov, iovcnt)) {
        const size_t piece = entry.iov_base == nullptr ? 0 : std::min(len, entry.iov_len);
        if (piece != 0)
            memmove(to, entry.iov_base, piece);
        to += piece;
        len -= piece;
    }
    return to;
}

void delinearise_to_iovec(const struct iovec *iov, int iovcnt, const void *buf, size_t len)
{
    if (buf == nullptr)
        return;
    auto *from = static_cast<const uint8_t *>(buf);
    for (const struct iovec &entry : entries_of(iov, iovcnt)) {
        const size_t piece = entry.iov_base == nullptr ? 0 : std::min(len, entry.iov_len);
        if (piece != 0)
            memmove(entry.iov_base, from, piece);
        from += piece;
        len -= piece;
    }
}

int fill_iovec_subset(struct iovec **out, int *outcnt, size_t len, size_t offset, struct iovec *scratch,
                      int scratchcnt, const struct iovec *iov, int iovcnt)
{
    const entries vector = entries_of(iov, iovcnt);
    extent range = {};
    if (out == nullptr || outcnt == nullptr || !find_start(vector, offset, range) ||
        !find_end(vector, len, range))
        return -1;

    const auto count = static_cast<int>(range.last - range.first + 1);
    struct iovec *result = scratch;
    if (scratch == nullptr || count > scratchcnt) {
        result = static_cast<struct iovec *>(calloc(static_cast<size_t>(count), sizeof(*result)));
        if (result == nullptr)
            return -1;
    }
    cut_out(vector, range, result);
    *out = result;
    *outcnt = count;
    return 0;
}
