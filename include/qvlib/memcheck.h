/*
 * Tracked allocation, and output to the memory debugger's console.
 *
 * The corelink functions, the allocating text functions and logging take their memory here. Without a memory
 * debugger session the functions forward to the allocator or release function that the caller names. With one,
 * each block is recorded under the name of the function that asked for it, blocks whose size is not a power of
 * two get a guard marker in front and behind, and a release or resize of an unknown block is reported on the
 * console and to the session's error hook (called with -1).
 *
 * A block must be released in the same state: one that was made before a session started is unknown to it, and
 * one that was made while a session ran must not be handed to free() afterwards.
 *
 * Threads: any thread may call any function.
 */
#ifndef QVLIB_MEMCHECK_H
#define QVLIB_MEMCHECK_H

#include <stdarg.h>
#include <stddef.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* malloc(size), filled with zero bytes; NULL on failure. */
void *qv_malloc(size_t size);

/* free(ptr). */
void qv_free(void *ptr);

/*
 * Allocates a block.
 *
 * allocator  qv_malloc for zeroed memory, malloc for a block that is overwritten at once
 * size       bytes; 0 is allowed
 * func       name under which the block is recorded; with NULL a running session returns NULL, and the block and
 *            its record stay allocated
 * line       source line recorded with it
 *
 * Returns the block, or NULL; with a session the failure is logged. Release it with qv_memcheck_free.
 */
void *qv_memcheck_malloc(void *(*allocator)(size_t), size_t size, const char *func, unsigned int line);

/*
 * Resizes a block; it is then recorded under the resizing function.
 *
 * ptr   a tracked block; NULL allocates as qv_memcheck_malloc(qv_malloc, ...)
 * size  new size; 0 releases the block and returns NULL
 *
 * Returns the block, or NULL. Without a session the old block is kept on failure, as by realloc. With a session a
 * failed resize is logged and the block is no longer known to the table; when there is no memory for the record
 * of its new function the block stays known as it was; an unknown block is reported and left alone. Bytes beyond
 * the old size are not cleared.
 */
void *qv_memcheck_realloc(void *ptr, size_t size, const char *func, unsigned int line);

/*
 * Releases a block.
 *
 * release  called on the underlying block, usually qv_free
 * ptr      the block; a running session reports an unknown pointer, NULL too, and releases nothing
 * where    call site, as "../src/corelink/tree.cpp:120"
 *
 * Returns 0 without a session and for an unknown pointer, else the number of characters put on the console.
 */
int qv_memcheck_free(void (*release)(void *), void *ptr, const char *where);

/*
 * Allocates a DMA block: recorded when a session runs, never marked, not counted among the total allocations.
 *
 * Returns the allocator's pointer.
 */
void *qv_dmacheck_malloc(void *(*allocator)(size_t), size_t size, const char *func);

/*
 * Releases a DMA block. A running session hands NULL to the release function when the pointer is unknown.
 *
 * Returns the release function's result on (ptr, value).
 */
int qv_dma_free(int (*release)(void *ptr, size_t value), void *ptr, size_t value, const char *where);

/*
 * Puts text on a line of the debugger's console; line L is terminal row L + 3.
 *
 * format  may be NULL to move the cursor only
 *
 * Returns the number of characters emitted, or -1 without a session.
 */
int gotoline(int line, const char *format, ...) QV_PRINTF(2, 3);

/*
 * Writes text to the debugger's console: the session's descriptor, else every connected client. Takes no lock.
 *
 * Returns the number of characters formatted, or -1 without a session or when formatting fails.
 */
int mvprintf(const char *format, va_list ap) QV_PRINTF(1, 0);

/*
 * Prints into the console's scrolling area of 11 lines. A text without a newline at the end of its format stays
 * open, and the next text continues it.
 *
 * Returns 0, or -1 when formatting fails. Without a session the result is that of mvprintf, -1.
 */
int memdbg_printf(const char *format, ...) QV_PRINTF(1, 2);
int memdbg_vprintf(const char *format, va_list ap) QV_PRINTF(1, 0);

QV_END_DECLS

#endif
