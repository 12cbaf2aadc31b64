#include "plain_format.h"

#include <cstdint>
#include <cstring>
#include <sys/types.h>

namespace qv
{
namespace
{

// A text that grows to the end of its room and remembers when it did not fit.
class plain_text
{
  public:
    plain_text(char *to, size_t room) : begin_(to), at_(to), end_(to + room)
    {
    }

    bool put(char c)
    {
        if (at_ == end_)
            return false;
        *at_++ = c;
        return true;
    }
    bool put(const char *text)
    {
        // Most texts are short.
        for (int i = 0; i < 16; i++) {
            if (text[i] == '\0')
                return true;
            if (!put(text[i]))
                return false;
        }
        text += 16;
        const size_t length = strlen(text);
        return put(text, length);
    }
    bool put(uint64_t number)
    {
        char digits[20], *first = digits + sizeof digits;
        do
            *--first = static_cast<char>('0' + number % 10);
        while (number /= 10);
        while (first < digits + sizeof digits)
            if (!put(*first++))
                return false;
        return true;
    }
    bool put(int64_t number)
    {
        const auto bits = static_cast<uint64_t>(number);
        return number < 0 ? put('-') && put(-bits) : put(bits);
    }

    // The length, or -1 when there is no room for the NUL.
    int finish()
    {
        const auto length = at_ - begin_;
        return put('\0') ? static_cast<int>(length) : -1;
    }

  private:
    bool put(const char *text, size_t length)
    {
        if (length > static_cast<size_t>(end_ - at_))
            return false;
        at_ = static_cast<char *>(memcpy(at_, text, length)) + length;
        return true;
    }

    char *const begin_;
    char *at_;
    char *const end_;
};

enum class size_of { an_int, a_long, a_long_long, a_size };

// Takes the length modifier that `fmt` points to, if any.
size_of take_size(const char *&fmt)
{
    if (*fmt == 'z') {
        fmt++;
        return size_of::a_size;
    }
    if (*fmt != 'l')
        return size_of::an_int;
    if (*++fmt != 'l')
        return size_of::a_long;
    fmt++;
    return size_of::a_long_long;
}

// A list of arguments that functions hand on by reference, whatever va_list is.
struct arguments {
    va_list list;

    int64_t take_signed(size_of size)
    {
        switch (size) {
        case size_of::a_long:
            return va_arg(list, long);
        case size_of::a_long_long:
            return va_arg(list, long long);
        case size_of::a_size:
            return va_arg(list, ssize_t);
        default:
            return va_arg(list, int);
        }
    }
    uint64_t take_unsigned(size_of size)
    {
        switch (size) {
        case size_of::a_long:
            return va_arg(list, unsigned long);
        case size_of::a_long_long:
            return va_arg(list, unsigned long long);
        case size_of::a_size:
            return va_arg(list, size_t);
        default:
            return va_arg(list, unsigned int);
        }
    }
};

// Writes what the conversion behind a '%' stands for.
bool convert(plain_text &text, const char *&fmt, arguments &args)
{
    const size_of size = take_size(fmt);
    const char conversion = *fmt++;
    switch (conversion) {
    case 'd':
    case 'i':
        return text.put(args.take_signed(size));
    case 'u':
        return text.put(args.take_unsigned(size));
    case 's': {
        const char *string = size == size_of::an_int ? va_arg(args.list, const char *) : nullptr;
        return string && text.put(string);
    }
    case 'c':
        return size == size_of::an_int && text.put(static_cast<char>(va_arg(args.list, int)));
    case '%':
        return size == size_of::an_int && text.put('%');
    default:
        return false;
    }
}

} // namespace

int format_plainly(char *to, size_t room, const char *fmt, va_list ap)
{
    plain_text text(to, room);
    arguments args;
    va_copy(args.list, ap);
    bool plain = true;
    while (plain && *fmt) {
        const char c = *fmt++;
        plain = c == '%' ? convert(text, fmt, args) : text.put(c);
    }
    va_end(args.list);
    return plain ? text.finish() : -1;
}

} // namespace qv
