/*
 * Telnet log: a live feed of log messages over TCP.
 *
 * Every client that connects to the feed's port receives each message that is logged from then on, of every
 * level, as a line "Sat Nov 14 22:51:07 2026 ERROR: text" in local time, ended by one line feed. Nothing is
 * read from clients, there is no authentication and no history.
 *
 * qv_log_init starts the feed that logging writes to and qv_log_exit stops it; these functions serve programs
 * that want a feed of their own.
 *
 * handle  a feed of tellog_start
 *
 * Errors: nothing is logged here, since a log that logs would call itself.
 * Ownership: a feed owns its descriptors and threads.
 * Threads: any thread may call.
 */
#ifndef QVLIB_TELNET_LOG_H
#define QVLIB_TELNET_LOG_H

#include <stdarg.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/*
 * Starts a feed and its listener thread, named "qvl-tellog".
 *
 * port  TCP port in host order, on every IPv4 address of the host
 *
 * Returns the feed's handle, or NULL when memory or a thread cannot be had; after a failure to start the
 * thread the handle stays allocated. The port is opened by the thread: one that is in use, or above 65535,
 * leaves the feed without a listener and is not reported. The listener ends at the first failure of accept.
 * Ownership: tellog_finish releases the handle.
 */
void *tellog_start(unsigned int port);

/*
 * Stops a feed: closes the port and every client, ends the thread and releases the handle. It does not wait
 * for a client.
 *
 * Returns 0, or -1 for NULL.
 * Threads: no other thread may be using the handle.
 */
int tellog_finish(void *handle);

/*
 * Sends one message to every client of a feed.
 *
 * handle  a feed; with NULL, or while no client is connected, nothing is formatted or allocated
 * level   shown as its label, see log_level
 * fmt     printf format without a line end; texts of more than 1021 bytes are cut. NULL sends nothing
 * ap      what the format asks for; spent afterwards
 *
 * A client whose connection has failed is dropped. So is one that has made no room for the message two
 * seconds after it was logged; those two seconds are for all clients together, and the caller waits for them.
 * While qv_memcheck_stop runs they are a quarter of a second.
 * Errors: a message that memory is short for is dropped. errno stays as it was.
 * Threads: any; the messages of several threads reach each client whole and in one order.
 */
void qv_vtellog(void *handle, int level, const char *fmt, va_list ap) QV_PRINTF(3, 0);

QV_END_DECLS

#endif
