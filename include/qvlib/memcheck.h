/*
 * Tracked allocation, and the memory debugger with its console.
 *
 * The corelink functions, the allocating text functions and logging take their memory here. Without a memory
 * debugger session the functions forward to the allocator or release function that the caller names. With
 * one, each block is recorded under the name of the function that asked for it, blocks whose size is not a
 * power of two get a guard marker in front and behind, and a release or resize of an unknown block is
 * reported on the console and to the session's error hook (called with -1).
 *
 * A block must be released in the same state: one that was made before a session started is unknown to it,
 * and one that was made while a session ran must not be handed to free() afterwards.
 *
 * The console is a screen of text drawn with ANSI cursor sequences: a banner, the last fault and the number
 * of allocations on top, the 30 functions with the most live blocks below, then 11 lines for the program's
 * own texts. It is written to one descriptor, or to every client that connects to the console's port. A
 * client that has made no room two seconds after a text was written is dropped; a descriptor that has not is
 * reported, and not waited for again until it takes text.
 *
 * size    bytes
 * func    name under which the block is recorded; kept, so it must outlive the session
 * line    source line recorded with it
 * format  printf format
 * ap      what the format asks for; spent afterwards
 * ...     what the format asks for
 *
 * Errors: errno is the failing call's. With a session, failures are logged and shown on the console.
 * Ownership: blocks are the caller's.
 * Threads: any thread may call any function.
 */
#ifndef QVLIB_MEMCHECK_H
#define QVLIB_MEMCHECK_H

#include <stdarg.h>
#include <stddef.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/*
 * Allocates zeroed memory: the allocator for qv_memcheck_malloc.
 *
 * Returns the block, or NULL with errno ENOMEM.
 * Ownership: release it with qv_free, or as the function that called it says.
 */
void *qv_malloc(size_t size);

/*
 * Releases memory, as free: the release function for qv_memcheck_free.
 *
 * ptr  a block of malloc or qv_malloc; NULL is allowed
 */
void qv_free(void *ptr);

/*
 * Allocates a block.
 *
 * allocator  qv_malloc for zeroed memory, malloc for a block that is overwritten at once
 * size       bytes; 0 is allowed
 * func       see above. With NULL a running session returns NULL, and the block and its record stay
 *            allocated.
 *
 * Returns the block, or NULL; with a session the failure is logged.
 * Ownership: release the block with qv_memcheck_free.
 */
void *qv_memcheck_malloc(void *(*allocator)(size_t), size_t size, const char *func, unsigned int line)
    QV_CALLED_OFTEN;

/*
 * Resizes a block; it is then recorded under the resizing function.
 *
 * ptr   a tracked block; NULL allocates as qv_memcheck_malloc(qv_malloc, ...)
 * size  new size; 0 releases the block and returns NULL
 *
 * Returns the block, or NULL. Without a session the old block is kept on failure, as by realloc. With a
 * session a failed resize is logged and the block is no longer known to the table; when there is no memory
 * for the record of its new function the block stays known as it was; an unknown block is reported and left
 * alone. Bytes beyond the old size are not cleared.
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
int qv_memcheck_free(void (*release)(void *), void *ptr, const char *where) QV_CALLED_OFTEN;

/*
 * Allocates a DMA block: recorded when a session runs, never marked, not counted among the total allocations.
 *
 * allocator  the driver's
 *
 * Returns the allocator's pointer, or NULL after a log line when there is no memory for the record.
 * Ownership: release the block with qv_dma_free.
 */
void *qv_dmacheck_malloc(void *(*allocator)(size_t), size_t size, const char *func);

/*
 * Releases a DMA block. A running session hands NULL to the release function when the pointer is unknown.
 *
 * release  the driver's
 * ptr      the block
 * value    handed to release
 * where    call site, as for qv_memcheck_free
 *
 * Returns the release function's result on (ptr, value).
 */
int qv_dma_free(int (*release)(void *ptr, size_t value), void *ptr, size_t value, const char *where);

/*
 * Starts the memory debugger: tracking, a checker thread "qvl-memdebug" that reports damaged guard markers,
 * each block once, and redraws the table, and with a service a listener thread for console clients.
 *
 * service     port of the console as a service name or number, on every IPv4 address. NULL for no clients
 * output_fd   1 or greater: the console is written there and clients get nothing; otherwise to the clients
 * error_hook  called with -1 after each fault, in the thread that found it; NULL for none
 *
 * Both threads set SIGCHLD to be ignored, for the whole process. Starting again without a stop replaces the
 * session: the earlier one's threads and records are never released.
 *
 * Returns 0, or -1 with errno of the allocator, or of starting a thread: that is logged, and the session
 * tracks all the same until qv_memcheck_stop. A listener that fails is logged and ends.
 * Threads: qv_memcheck_start and qv_memcheck_stop must not run at the same time.
 */
int qv_memcheck_start(const char *service, int output_fd, void (*error_hook)(int));

/*
 * Stops the memory debugger: logs and draws the table a last time, ends both threads, closes the console's
 * port, and forgets the blocks. The functions here are plain allocation afterwards. The sockets of the
 * console's clients stay open, until the process ends.
 *
 * The listener is woken by SIGUSR1, so the host has a handler for it that lets a blocked accept return;
 * without one the port is shut down instead. Until it returns no client of the console or of the telnet log
 * is waited for longer than a quarter of a second, all together half a second; one that made no room by then
 * is dropped. For threads that are inside a function of this header it waits only for a moment; what they use
 * is then released by a later stop.
 *
 * Returns 0, or -1: without a session, while another thread stops it, and with errno EDEADLK when the error
 * hook calls it in one of the session's own threads.
 */
int qv_memcheck_stop(void);

/*
 * The bodies of the two threads, for qv_memcheck_start.
 *
 * session  the session; NULL ends them at once
 *
 * Returns NULL.
 */
void *qv_memory_debug(void *session);
void *accept_thread(void *session);

/*
 * Puts text on a line of the debugger's console.
 *
 * line    line L is terminal row L + 3
 * format  printf format; NULL moves the cursor only
 *
 * Returns the number of characters emitted, or -1 without a session.
 */
int gotoline(int line, const char *format, ...) QV_PRINTF(2, 3);

/*
 * Writes text to the debugger's console: the session's descriptor, else every connected client.
 *
 * format  printf format; -1 for NULL
 *
 * Returns the number of characters formatted, or -1 without a session or when formatting fails.
 */
int mvprintf(const char *format, va_list ap) QV_PRINTF(1, 0);

/*
 * Prints into the console's scrolling area of 11 lines. A text without a newline at the end of its format
 * stays open, and the next text continues it.
 *
 * format  printf format; -1 for NULL
 *
 * Returns 0, or -1 when formatting fails. Without a session the result is that of mvprintf, -1.
 */
int memdbg_printf(const char *format, ...) QV_PRINTF(1, 2);
int memdbg_vprintf(const char *format, va_list ap) QV_PRINTF(1, 0);

QV_END_DECLS

#endif
