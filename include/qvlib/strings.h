/*
 * Strings and formatting: printf into allocated strings, appending, escaping, and small text helpers.
 *
 * Strings that these functions return or grow are tracked allocations (qvlib/memcheck.h): the caller owns them
 * and releases them with qv_memcheck_free(qv_free, text, where). A growing string is passed by the address of
 * the caller's pointer, which is updated when the block moves.
 *
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

/* The same, recorded under the calling function. */
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
 * Returns write's result (a short count is not completed; -1 with errno of write), or 0 without a write when the
 * text is empty or cannot be formatted.
 */
int qv_fdprintf(int fd, const char *fmt, ...) QV_PRINTF(2, 3);

/*
 * Puts a backslash before every double quote, in place. Linear in the length.
 *
 * Returns the final length, or -1 when str or *str is NULL or the string cannot grow (*str is then NULL).
 * A string without quotes is left as it is and nothing is allocated.
 */
int replace_quotes(char **str);

/*
 * Replaces < > & " and, when keep_apostrophe is 0, ' by XML's entities, in place. Linear in the length.
 *
 * Returns the final length, or -1 as replace_quotes.
 */
int replace_xml_entities(char **str, int keep_apostrophe);

/*
 * Trims everything before the first and after the last ASCII letter or digit. The buffer is changed in place.
 *
 * Returns a pointer into s, to an empty string when there is no letter or digit; NULL for NULL.
 */
char *trim_alnum(char *s);

/*
 * Finds the bytes of a NUL-terminated string in a buffer of len bytes.
 *
 * Returns the offset of the first match (0 for an empty needle), or -1 with errno ENOENT.
 */
ssize_t qv_memstr(const void *buf, size_t len, const char *needle);

/* Returns 1 for "true", "yes" and "y" in any case and for "1", else 0; 0 for NULL. */
int str2bool(const char *s);

QV_END_DECLS

#endif
