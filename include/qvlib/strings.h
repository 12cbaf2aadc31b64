/*
 * Strings and formatting: printf into allocated strings, appending, escaping, and small text helpers.
 *
 * A growing string is passed by the address of the caller's pointer, which is updated when the block moves.
 *
 * str  address of the caller's pointer
 * fmt  printf format; with NULL the call fails
 * ap   what the format asks for; spent afterwards
 * ...  what the format asks for
 *
 * Errors: errno is the failing call's where memory is short or a text cannot be formatted; otherwise it is
 * set where a function says so only. Without a memory debugger nothing is logged.
 * Ownership: strings that these functions return or grow are tracked allocations (qvlib/memcheck.h): the
 * caller owns them and releases them with qv_memcheck_free(qv_free, text, where).
 * Threads: no state is kept; different strings may be worked on from any thread.
 */
#ifndef QVLIB_STRINGS_H
#define QVLIB_STRINGS_H

#include <stdarg.h>
#include <stddef.h>
#include <sys/types.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/*
 * Formats into a new string of exactly the needed size.
 *
 * out   receives the string, NULL on failure; an earlier value is overwritten, not freed
 * func  name under which the block is recorded by the memory debugger
 * line  source line recorded with it
 *
 * Returns the number of characters written, or -1 when the text cannot be formatted or allocated.
 */
int __qv_vasprintf(char **out, const char *func, int line, const char *fmt, va_list ap) QV_PRINTF(4, 0);
int __qv_asprintf(char **out, const char *func, int line, const char *fmt, ...) QV_PRINTF(4, 5);

/*
 * Formats into a new string, as __qv_asprintf, recorded under the calling function.
 *
 * out  receives the string, NULL on failure
 * ...  the printf format and what it asks for
 *
 * Returns the number of characters written, or -1.
 */
#define qv_vasprintf(out, fmt, ap) __qv_vasprintf((out), __func__, __LINE__, (fmt), (ap))
#define qv_asprintf(out, ...) __qv_asprintf((out), __func__, __LINE__, __VA_ARGS__)

/*
 * Appends formatted text to an allocated string. Never creates one: start with qv_asprintf(&text, "%s", "").
 *
 * str   address of the string; -1 is returned and nothing changed when it or the string is NULL
 * ...   must not point into the string: it may move before they are read
 *
 * Returns the number of characters appended, or -1. When the string cannot grow, *str is NULL.
 * The cost grows with the length of the string.
 */
int qv_vaasprintf(char **str, const char *fmt, va_list ap) QV_PRINTF(2, 0);
int qv_aasprintf(char **str, const char *fmt, ...) QV_PRINTF(2, 3);

/*
 * Formats text and writes it to a descriptor by one call of write.
 *
 * fd  the descriptor
 *
 * Returns write's result (a short count is not completed; -1 with errno of write), or 0 without a write when
 * the text is empty or cannot be formatted.
 */
int qv_fdprintf(int fd, const char *fmt, ...) QV_PRINTF(2, 3);

/*
 * Puts a backslash before every double quote, in place. Linear in the length.
 *
 * A string without quotes is left as it is and nothing is allocated.
 *
 * Returns the final length, or -1 when str or *str is NULL, the result would exceed INT_MAX bytes or the
 * string cannot grow (*str is then NULL).
 */
int replace_quotes(char **str);

/*
 * Replaces < > & " and, when keep_apostrophe is 0, ' by XML's entities, in place. Linear in the length.
 *
 * keep_apostrophe  non-zero leaves ' as it is
 *
 * Returns the final length, or -1 as replace_quotes.
 */
int replace_xml_entities(char **str, int keep_apostrophe);

/*
 * Trims everything before the first and after the last ASCII letter or digit. The buffer is changed in place.
 *
 * s  NUL-terminated
 *
 * Returns a pointer into s, to an empty string when there is no letter or digit; NULL for NULL.
 * Ownership: the buffer stays the caller's; the result is part of it.
 */
char *trim_alnum(char *s);

/*
 * Finds the bytes of a string in a buffer.
 *
 * buf     the bytes, which may hold NUL
 * len     bytes in buf
 * needle  NUL-terminated
 *
 * Returns the offset of the first match in bytes (0 for an empty needle), or -1 with errno ENOENT, for NULL
 * too.
 * Ownership: nothing is kept.
 */
ssize_t qv_memstr(const void *buf, size_t len, const char *needle);

/*
 * Tells whether a text means yes.
 *
 * s  NUL-terminated, or NULL
 *
 * Returns 1 for "true", "yes" and "y" in any case and for "1", else 0; 0 for NULL.
 * Ownership: nothing is kept.
 */
int str2bool(const char *s);

QV_END_DECLS

#endif
