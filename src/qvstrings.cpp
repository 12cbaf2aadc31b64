// Strings and formatting. A string grows by one qv_memcheck_realloc under the name "qv_vaasprintf", whichever
// function grows it, and the escaping functions count first and write once.

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <unistd.h>

#include <qvlib/memcheck.h>
#include <qvlib/strings.h>

#include "guard.h"
#include "plain_format.h"
#include "qvstrings.h"
#include "where.h"

namespace
{

// Returns what a character is replaced by, or null when it stays.
using replacement_fn = const char *(*)(char);

const char *escaped_quote(char c)
{
    return c == '"' ? "\\\"" : nullptr;
}

const char *entity_but_apostrophe(char c)
{
    switch (c) {
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '&':
        return "&amp;";
    case '"':
        return "&quot;";
    default:
        return nullptr;
    }
}

const char *any_entity(char c)
{
    return c == '\'' ? "&apos;" : entity_but_apostrophe(c);
}

size_t replaced_length(const char *text, replacement_fn replacement)
{
    size_t length = 0;
    for (; *text; text++) {
        const char *instead = replacement(*text);
        length += instead ? strlen(instead) : 1;
    }
    return length;
}

// Fills the longer text from its end, in the block that holds the shorter one at its start.
void replace_backwards(char *text, size_t length, size_t new_length, replacement_fn replacement)
{
    text[new_length] = '\0';
    for (size_t from = length, to = new_length; from < to;) {
        const char c = text[--from];
        const char *instead = replacement(c);
        if (!instead) {
            text[--to] = c;
            continue;
        }
        const size_t count = strlen(instead);
        to -= count;
        memcpy(text + to, instead, count);
    }
}

int replace_all(char **str, replacement_fn replacement)
{
    if (!str || !*str)
        return -1;
    const size_t length = strlen(*str);
    const size_t new_length = replaced_length(*str, replacement);
    if (new_length > INT_MAX)
        return -1;
    if (new_length == length)
        return static_cast<int>(length);
    *str = qv::grow_text(*str, new_length + 1);
    if (!*str)
        return -1;
    replace_backwards(*str, length, new_length, replacement);
    return static_cast<int>(new_length);
}

// A formatted text of known length. Short ones are kept, so that they are formatted once, and by
// format_plainly where it can. Others, and all in firmware, are formatted again where they go.
class formatted
{
  public:
    formatted(const char *fmt, va_list ap) : fmt_(fmt)
    {
        va_copy(ap_, ap);
        length_ = kept ? qv::format_plainly(text_, sizeof text_, fmt, ap) : -1;
        if (length_ < 0)
            length_ = vsnprintf(text_, sizeof text_, fmt, ap);
    }
    ~formatted()
    {
        va_end(ap_);
    }
    formatted(const formatted &) = delete;
    formatted &operator=(const formatted &) = delete;

    // Negative when the text can't be formatted.
    int length() const
    {
        return length_;
    }
    // Writes the text and its NUL, for which there is room. Returns the length.
    int write(char *to)
    {
        const size_t size = static_cast<size_t>(length_) + 1;
        if (!kept || size > sizeof text_)
            return vsnprintf(to, size, fmt_, ap_);
        memcpy(to, text_, size);
        return length_;
    }

  private:
#if defined(QVLIB_FIRMWARE)
    static constexpr bool kept = false;
#else
    static constexpr bool kept = true;
#endif

    const char *fmt_;
    va_list ap_;
    int length_;
    char text_[kept ? 256 : 1];
};

bool is_alnum(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

} // namespace

namespace qv
{

char *grow_text(char *text, size_t size)
{
    return static_cast<char *>(qv_memcheck_realloc(text, size, "qv_vaasprintf", 44));
}

} // namespace qv

int __qv_vasprintf(char **out, const char *func, int line, const char *fmt, va_list ap)
{
    if (!out)
        return -1;
    *out = nullptr;
    if (!fmt)
        return -1;
    formatted text(fmt, ap);
    if (text.length() < 0)
        return -1;
    const size_t size = static_cast<size_t>(text.length()) + 1;
    *out = static_cast<char *>(qv_memcheck_malloc(malloc, size, func, static_cast<unsigned int>(line)));
    return *out ? text.write(*out) : -1;
}

int __qv_asprintf(char **out, const char *func, int line, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int length = __qv_vasprintf(out, func, line, fmt, ap);
    va_end(ap);
    return length;
}

int qv_vaasprintf(char **str, const char *fmt, va_list ap)
{
    if (!str || !*str || !fmt)
        return -1;
    formatted added(fmt, ap);
    if (added.length() < 0)
        return -1;
    const size_t length = strlen(*str);
    *str = qv::grow_text(*str, length + static_cast<size_t>(added.length()) + 1);
    return *str ? added.write(*str + length) : -1;
}

int qv_aasprintf(char **str, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int added = qv_vaasprintf(str, fmt, ap);
    va_end(ap);
    return added;
}

int qv_fdprintf(int fd, const char *fmt, ...)
{
    char *text = nullptr;
    va_list ap;
    va_start(ap, fmt);
    const int length = __qv_vasprintf(&text, "qv_fdprintf", 311, fmt, ap);
    va_end(ap);
    qv::tracked_guard guard(text, QV_WHERE);
    return length > 0 ? static_cast<int>(write(fd, text, static_cast<size_t>(length))) : 0;
}

int replace_char(char **str, const char *replacement, size_t pos)
{
    if (!str || !*str || !replacement || pos >= strlen(*str))
        return -1;
    char *tail = nullptr;
    __qv_asprintf(&tail, "replace_char", 196, "%s", *str + pos + 1);
    qv::tracked_guard guard(tail, QV_WHERE);
    (*str)[pos] = '\0';
    // Without memory for the tail "(null)" stands in its place, as the function always had it.
    const int added = qv_aasprintf(str, "%s%s", replacement, tail ? tail : "(null)");
    return added < 0 ? -1 : static_cast<int>(strlen(replacement));
}

int replace_quotes(char **str)
{
    return replace_all(str, escaped_quote);
}

int replace_xml_entities(char **str, int keep_apostrophe)
{
    return replace_all(str, keep_apostrophe ? entity_but_apostrophe : any_entity);
}

char *trim_alnum(char *s)
{
    if (!s)
        return nullptr;
    while (*s && !is_alnum(*s))
        s++;
    for (size_t length = strlen(s); length > 0 && !is_alnum(s[length - 1]); length--)
        s[length - 1] = '\0';
    return s;
}

ssize_t qv_memstr(const void *buf, size_t len, const char *needle)
{
    const void *found = buf && needle ? memmem(buf, len, needle, strlen(needle)) : nullptr;
    if (!found) {
        errno = ENOENT;
        return -1;
    }
    return static_cast<const char *>(found) - static_cast<const char *>(buf);
}

int str2bool(const char *s)
{
    return s && (strcasecmp(s, "true") == 0 || strcasecmp(s, "yes") == 0 || strcasecmp(s, "y") == 0 ||
                 strcmp(s, "1") == 0);
}
