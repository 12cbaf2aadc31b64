/*
 * I/O vectors: helpers for scatter-gather data in arrays of struct iovec, as readv, writev and sendmsg take
 * them.
 *
 * A vector is an array of entries with a count; a count of 0 or less, and a NULL array, is an empty vector. A
 * cursor is an entry's index and a byte offset within that entry. No function changes the caller's vector; an
 * entry without a base pointer is passed over when bytes are copied.
 *
 * iov     the entries
 * iovcnt  number of entries
 *
 * Errors: errno is left alone, unless a function says so. Nothing is logged.
 * Ownership: vectors and buffers stay the caller's; nothing is kept.
 * Threads: no state is kept; any thread may call any function.
 */
#ifndef QVLIB_IOVEC_H
#define QVLIB_IOVEC_H

#include <stddef.h>
#include <sys/uio.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* Returns the sum of the entries' lengths in bytes, 0 for an empty vector. */
size_t size_iovec(const struct iovec *iov, int iovcnt);

/*
 * Normalises a cursor: moves it forward over every entry that it has used up, empty ones too.
 *
 * offset  bytes into the entry, possibly beyond its end; updated
 * index   the entry; updated. A negative index is left alone, as is a cursor with a NULL pointer.
 *
 * The cursor then points inside an entry, or *index is iovcnt when the vector is used up and
 * *offset counts the bytes beyond its end.
 */
void check_end_of_iov(const struct iovec *iov, int iovcnt, size_t *offset, int *index);

/*
 * Gathers the first bytes of a vector into one buffer.
 *
 * buf  takes the bytes; must not overlap the entries. With NULL nothing is copied.
 * len  room in buf in bytes; the copy ends there or at the end of the vector
 *
 * Returns the place behind the last copied byte: buf when nothing was copied.
 */
void *linearise_iovec(const struct iovec *iov, int iovcnt, void *buf, size_t len);

/*
 * Scatters the first bytes of one buffer over a vector's entries, the reverse of linearise_iovec.
 *
 * buf  the bytes; must not overlap the entries. With NULL nothing is copied.
 * len  bytes in buf; the copy ends there or at the end of the vector
 */
void delinearise_to_iovec(const struct iovec *iov, int iovcnt, const void *buf, size_t len);

/*
 * Cuts out the vector that covers a range of bytes. Only entries are copied, never data.
 *
 * out         set to the new vector: scratch when it has enough entries, else an allocated array
 * outcnt      set to the number of its entries, at least 1; their lengths sum to len
 * len         length of the range in bytes; 0 gives one or more empty entries
 * offset      first byte of the range, counted from the vector's beginning. An offset at the end of an entry
 *             begins the result with the entry behind it, empty or not; offset 0 with the first entry.
 * scratch     entries for the result; may be NULL. They are undefined after a failure.
 * scratchcnt  number of those entries
 * iov         the source; the new entries point into its buffers
 *
 * Returns 0, or -1 with *out and *outcnt untouched: the range ends beyond the data, the vector is empty, out
 * or outcnt is NULL, or the array cannot be allocated (errno ENOMEM; otherwise errno is left alone).
 * Ownership: when *out is not scratch, the caller releases it with free().
 * Cost: linear in the number of entries up to the end of the range.
 */
int fill_iovec_subset(struct iovec **out, int *outcnt, size_t len, size_t offset, struct iovec *scratch,
                      int scratchcnt, const struct iovec *iov, int iovcnt);

QV_END_DECLS

#endif
