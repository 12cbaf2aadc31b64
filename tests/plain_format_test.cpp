// Plain formatting against the C library's, over random formats, arguments and rooms.

#include "plain_format.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <sys/types.h>

#include <gtest/gtest.h>

#include "guarded_bytes.h"

namespace
{

constexpr int rounds = 20000 * QVLIB_TEST_PERCENT / 100;

std::mt19937_64 generator(7);

size_t random_below(size_t limit)
{
    return static_cast<size_t>(generator() % limit);
}

// Formats plainly and by the C library into the same room. `plain` tells whether the format is one that
// needs nothing of the C library.
void compare(bool plain, const char *format, ...)
{
    va_list ap;
    char expected[4096];
    va_start(ap, format);
    const int length = vsnprintf(expected, sizeof expected, format, ap);
    va_end(ap);
    ASSERT_TRUE(length >= 0 || !plain) << format;

    const size_t around = static_cast<size_t>(length < 0 ? 20 : length) + random_below(4);
    const size_t room = random_below(4) == 0 ? random_below(around + 2) : around;
    guarded_bytes bytes(std::string(room, '#')); // an overrun is a fault
    va_start(ap, format);
    const int written = qv::format_plainly(bytes.text(), room, format, ap);
    va_end(ap);
    const bool fits = static_cast<size_t>(length) < room;
    ASSERT_EQ(written, plain && fits ? length : -1) << format << " into " << room;
    if (written >= 0) {
        ASSERT_EQ(memcmp(bytes.text(), expected, static_cast<size_t>(length) + 1), 0) << format;
    }
}

// What a format consists of, and whether it is plain so far.
struct random_format {
    std::string text;
    bool plain = true;

    void add_literal()
    {
        for (size_t left = random_below(12); left > 0; left--) {
            const char c = static_cast<char>(1 + random_below(255));
            text += c == '%' || random_below(20) == 0 ? "%%" : std::string(1, c);
        }
    }
    void add_conversion(const char *letters, const char *size)
    {
        text += '%';
        if (random_below(50) == 0) {
            const char *const more[] = {"5", "-", "0", "+", " ", "#", ".2", "-9.3"};
            text += more[random_below(8)];
            plain = false;
        }
        text += size;
        text += letters[random_below(strlen(letters))];
    }
};

uint64_t random_number()
{
    switch (random_below(4)) {
    case 0:
        return random_below(20);
    case 1:
        return -random_below(20);
    case 2:
        return uint64_t{1} << random_below(64);
    default:
        return generator() >> random_below(64);
    }
}

// Adds conversions with arguments of random types behind those that there are, then compares.
template <int more, class... taken> void extend(random_format format, taken... args)
{
    format.add_literal();
    if constexpr (more == 0) {
        compare(format.plain, format.text.c_str(), args...);
    } else {
        const uint64_t number = random_number();
        static const std::string texts[] = {"",
                                            "a",
                                            "counters",
                                            "fifteen letters",
                                            "sixteen letters.",
                                            "seventeen letters",
                                            std::string(300, 'x')};
        switch (random_below(10)) {
        case 0:
            format.add_conversion("di", "");
            return extend<more - 1>(format, args..., static_cast<int>(number));
        case 1:
            format.add_conversion("u", "");
            return extend<more - 1>(format, args..., static_cast<unsigned int>(number));
        case 2:
            format.add_conversion("di", "l");
            return extend<more - 1>(format, args..., static_cast<long>(number));
        case 3:
            format.add_conversion("u", "l");
            return extend<more - 1>(format, args..., static_cast<unsigned long>(number));
        case 4:
            format.add_conversion("di", "ll");
            return extend<more - 1>(format, args..., static_cast<long long>(number));
        case 5:
            format.add_conversion("u", "ll");
            return extend<more - 1>(format, args..., static_cast<unsigned long long>(number));
        case 6:
            format.add_conversion("di", "z");
            return extend<more - 1>(format, args..., static_cast<ssize_t>(number));
        case 7:
            format.add_conversion("u", "z");
            return extend<more - 1>(format, args..., static_cast<size_t>(number));
        case 8: {
            format.text += "%c";
            return extend<more - 1>(format, args..., static_cast<int>(number));
        }
        default:
            format.text += "%s";
            return extend<more - 1>(format, args..., texts[random_below(std::size(texts))].c_str());
        }
    }
}

TEST(PlainFormat, WritesWhatTheCLibraryWrites)
{
    for (int i = 0; i < rounds && !testing::Test::HasFailure(); i++) {
        extend<0>({});
        extend<1>({});
        extend<2>({});
        extend<3>({});
    }
}

TEST(PlainFormat, TakesTheExtremesOfEachSize)
{
    compare(true, "%d,%d,%u", INT_MIN, INT_MAX, UINT_MAX);
    compare(true, "%ld,%li,%lu", LONG_MIN, LONG_MAX, ULONG_MAX);
    compare(true, "%lld,%lli,%llu", LLONG_MIN, LLONG_MAX, ULLONG_MAX);
    compare(true, "%zd,%zu", ssize_t{-1}, SIZE_MAX);
    compare(true, "%c%c%c", 0, 255, 'x');
}

TEST(PlainFormat, LeavesOtherConversionsToTheCLibrary)
{
    compare(false, "%x", 5u);
    compare(false, "%5d", 5);
    compare(false, "%-5s", "a");
    compare(false, "%.1s", "abc");
    compare(false, "%hhd", 5);
    compare(false, "%jd", intmax_t{5});
    compare(false, "%td", ptrdiff_t{5});
    compare(false, "%f", 1.5);
    compare(false, "%p", static_cast<void *>(nullptr));
    compare(false, "%s", static_cast<char *>(nullptr));
    compare(false, "%ls", L"wide");
    compare(false, "%lc", L'w');
    compare(false, "%*d", 5, 5);
    compare(false, "%1$d", 5);
    compare(false, "text %");
}

// The arguments are still there for the C library.
int format_twice(char *to, size_t room, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int length = qv::format_plainly(to, room, format, ap);
    if (length < 0)
        length = vsnprintf(to, room, format, ap);
    va_end(ap);
    return length;
}

TEST(PlainFormat, LeavesTheArgumentsAsTheyWere)
{
    char text[40];
    const char *format = "%s %d %c %5u";
    EXPECT_EQ(format_twice(text, sizeof text, format, "a", -1, 'c', 7u), 12);
    EXPECT_STREQ(text, "a -1 c     7");
}

} // namespace
