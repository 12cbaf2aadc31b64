/*
 * Logging: one process-wide facility for every diagnostic.
 *
 * A message has a level and a printf-style text without a line end. It goes to up to three sinks: the telnet
 * feed (every message of every level, see telnet_log.h), the console (standard error, when the LOG_PERROR
 * option was given) and the system log (when "/dev/log" existed at qv_log_init). Before qv_log_init no sink
 * is enabled.
 *
 * Levels 0 to 7 are the syslog priorities; 8 reaches the telnet feed only. A message is emitted when its
 * level, compared as a signed number, is not above the configured level.
 *
 * level  0 to 7, QV_LOG_TELNET or QV_LOG_HEX_SILENT; the range is not checked
 * fmt    printf format, without a line end; NULL does nothing
 * ...    what the format asks for
 *
 * Errors: nothing is reported: a message that a sink can't take is lost.
 * Ownership: texts are not kept.
 * Threads: all functions may be called from any thread; qv_log_init and qv_log_exit must not run while
 * another thread logs. A console line is written whole. Logging leaves errno as it was.
 */
#ifndef QVLIB_LOG_H
#define QVLIB_LOG_H

#include <stddef.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* Levels. */
enum {
    QV_LOG_EMERG = 0,        /* the system is unusable */
    QV_LOG_ALERT = 1,        /* somebody must act at once */
    QV_LOG_CRIT = 2,         /* critical conditions */
    QV_LOG_ERROR = 3,        /* a failure */
    QV_LOG_WARNING = 4,      /* something that may lead to one */
    QV_LOG_NOTICE = 5,       /* normal, but worth a line */
    QV_LOG_INFO = 6,         /* what goes on */
    QV_LOG_DEBUG = 7,        /* for developers */
    QV_LOG_TELNET = 8,       /* the telnet feed only, whatever the configured level */
    QV_LOG_HEX_SILENT = 23   /* __qv_loghex_line builds its lines and logs nothing */
};

/*
 * Starts logging, or changes its settings.
 *
 * ident        program name for the system log; kept by openlog, so it must outlive the logging
 * level        the highest level that reaches the console and the system log
 * options      openlog's LOG_* bits; LOG_PERROR (0x20) makes the library echo each message on standard error
 *              and is not handed to openlog
 * facility     syslog facility
 * telnet_port  TCP port of the telnet feed in host order, or 0 for none
 *
 * Calling it again does not stop an earlier telnet feed: call qv_log_exit first.
 *
 * Errors: logging goes on without a feed that cannot be started. A missing "/dev/log" is reported by perror
 * on standard error, and the system log stays off.
 */
void qv_log_init(const char *ident, int level, int options, int facility, unsigned int telnet_port);

/*
 * Stops logging: ends the telnet feed, closes the system log, sets level and options to 0. Whether the system
 * log was opened is remembered, so a level 0 message still reaches it afterwards.
 */
void qv_log_exit(void);

/* Sets the highest level that reaches the console and the system log. The range is not checked. */
void qv_log_setlevel(int level);

/*
 * Gives the label of a level for a line of text.
 *
 * level  any number
 *
 * Returns five characters, "EMERG" to "DEBUG" or "TELNT", "-----" for any other value.
 * Ownership: the text is constant; nobody releases it.
 */
const char *log_level(int level);

/*
 * Logs one message.
 *
 * level  see above; negative levels pass every threshold and are labelled "-----"
 *
 * The console line is "Mon DD HH:MM:SS LABEL: text" in UTC, ended by CR LF and flushed.
 */
void __qv_log(int level, const char *fmt, ...) QV_PRINTF(2, 3);
#define qv_log(...) __qv_log(__VA_ARGS__)

/*
 * Writes the formatted text as it stands to standard error and flushes it, but only while the library does
 * not echo messages there itself (option bit 0x20 clear). Ignores the level; reaches no other sink.
 *
 * fmt  printf format, with its line end
 */
void qv_logc(const char *fmt, ...) QV_PRINTF(1, 2);

/*
 * Logs at level 3 "TEXT: ERROR (NUMBER)": the formatted text, then errno's text and number. By convention the
 * text begins with the failing function's name. Nothing is logged when the text cannot be allocated.
 */
void qv_errno(const char *fmt, ...) QV_PRINTF(1, 2);

/*
 * As qv_errno, for a result of getaddrinfo or getnameinfo.
 *
 * gai_code  -11 (EAI_SYSTEM) reports errno, any other code its gai_strerror text and the code itself
 */
void qv_gaierror(int gai_code, const char *fmt, ...) QV_PRINTF(2, 3);

/*
 * Logs a hex dump: a header line, then one line per `width` bytes ("0020: 41 42 ...  AB...").
 *
 * level  level of each line; QV_LOG_HEX_SILENT logs nothing
 * buf    the bytes; NULL logs the header alone
 * len    number of bytes
 * width  bytes to a line, 1 to 30; 0 logs the header alone, lines of more bytes are cut short
 * flip   non-zero shows the bytes of each line in reverse order. The index counts down from width - 1 on a
 *        short last line too, so pass whole lines only: the bytes after buf + len are read otherwise (never
 *        with a width above 30).
 */
void __qv_loghex_line(int level, const void *buf, size_t len, size_t width, int flip);
#define qv_loghex(level, buf, len) __qv_loghex_line((level), (buf), (len), 16, 0)

QV_END_DECLS

#endif
