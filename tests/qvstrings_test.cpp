#include <qvlib/memcheck.h>
#include <qvlib/strings.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <cwchar>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "captured_fd.h"
#include "failing_heap.h"
#include "qvstrings.h"

namespace
{

// An allocated string of the kind that the functions under test grow.
class grown
{
  public:
    explicit grown(const std::string &start)
    {
        text_ = static_cast<char *>(qv_memcheck_malloc(malloc, start.size() + 1, "grown", 1));
        memcpy(text_, start.c_str(), start.size() + 1);
    }
    ~grown()
    {
        qv_memcheck_free(qv_free, text_, "grown");
    }
    grown(const grown &) = delete;
    grown &operator=(const grown &) = delete;

    char **address()
    {
        return &text_;
    }
    const char *text() const
    {
        return text_;
    }

  private:
    char *text_;
};

std::string taken(char *text)
{
    const std::string result = text;
    qv_memcheck_free(qv_free, text, "taken");
    return result;
}

int format_by_list(char **out, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int length = __qv_vasprintf(out, "caller", 7, fmt, ap);
    va_end(ap);
    return length;
}

int append_by_list(char **text, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int length = qv_vaasprintf(text, fmt, ap);
    va_end(ap);
    return length;
}

const wint_t not_a_character = 0x7fffffff; // "%lc" fails on it

// ---- __qv_vasprintf, __qv_asprintf

TEST(Asprintf, FormatsIntoANewString)
{
    char *text = nullptr;
    EXPECT_EQ(__qv_asprintf(&text, "f", 1, "%s-%d", "a", 12), 4);
    EXPECT_EQ(taken(text), "a-12");
    EXPECT_EQ(format_by_list(&text, "%s-%d", "b", 34), 4);
    EXPECT_EQ(taken(text), "b-34");
}

TEST(Asprintf, YieldsAnEmptyStringThatCanGrow)
{
    char *text = nullptr;
    EXPECT_EQ(__qv_asprintf(&text, "f", 1, "%s", ""), 0);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(qv_aasprintf(&text, "abc"), 3);
    EXPECT_EQ(taken(text), "abc");
}

// Plain formats and others, around the length that is formatted once.
TEST(Asprintf, FormatsTextsOfAllLengths)
{
    for (const size_t length :
         std::initializer_list<size_t>{0, 1, 200, 254, 255, 256, 257, 258, 1000, 100000}) {
        const std::string wanted(length, 'x');
        for (const char *format : {"%s", "%1$s"}) {
            SCOPED_TRACE(format + (" " + std::to_string(length)));
            char *text = nullptr;
            EXPECT_EQ(format_by_list(&text, format, wanted.c_str()), static_cast<int>(length));
            EXPECT_EQ(append_by_list(&text, format, wanted.c_str()), static_cast<int>(length));
            EXPECT_EQ(taken(text), wanted + wanted);
        }
    }
}

TEST(Asprintf, OverwritesAnEarlierValueWithoutFreeingIt)
{
    char earlier[] = "static";
    char *text = earlier;
    EXPECT_EQ(__qv_asprintf(&text, "f", 1, "new"), 3);
    EXPECT_STREQ(earlier, "static");
    EXPECT_EQ(taken(text), "new");
}

TEST(Asprintf, AcceptsAMissingCallerName)
{
    char *text = nullptr;
    EXPECT_EQ(__qv_asprintf(&text, nullptr, -1, "x"), 1);
    EXPECT_EQ(taken(text), "x");
}

TEST(Asprintf, SetsTheStringToNullWhenItCannotBeFormatted)
{
    char earlier[] = "x";
    char *text = earlier;
    EXPECT_EQ(__qv_asprintf(&text, "f", 1, "%lc", not_a_character), -1);
    EXPECT_EQ(text, nullptr);
}

TEST(Asprintf, SetsTheStringToNullWhenTheTextIsLongerThanAnInt)
{
    char earlier[] = "x";
    char *text = earlier;
    const char *volatile too_wide = "%99999999999d";
    EXPECT_EQ(__qv_asprintf(&text, "f", 1, too_wide, 1), -1);
    EXPECT_EQ(text, nullptr);
}

TEST(Asprintf, SetsTheStringToNullWhenTheAllocationFails)
{
    char earlier[] = "x";
    char *text = earlier;
    int length = 0;
    {
        const failing_heap::after none(0);
        length = __qv_asprintf(&text, "f", 1, "%d", 5);
    }
    EXPECT_EQ(length, -1);
    EXPECT_EQ(text, nullptr);
}

TEST(Asprintf, RefusesMissingArguments)
{
    EXPECT_EQ(__qv_asprintf(nullptr, "f", 1, "x"), -1);
    char earlier[] = "x";
    char *text = earlier;
    const char *none = nullptr;
    EXPECT_EQ(__qv_asprintf(&text, "f", 1, none, 0), -1);
    EXPECT_EQ(text, nullptr);
}

TEST(Asprintf, MacroPassesItsCaller)
{
    char *text = nullptr;
    EXPECT_EQ(qv_asprintf(&text, "%s", "x"), 1);
    EXPECT_EQ(taken(text), "x");
}

// ---- qv_vaasprintf, qv_aasprintf

TEST(Append, ReturnsTheNumberOfCharactersAppended)
{
    grown text("ab");
    EXPECT_EQ(qv_aasprintf(text.address(), "%d", 123), 3);
    EXPECT_EQ(append_by_list(text.address(), "%s%s", "x", "yz"), 3);
    EXPECT_STREQ(text.text(), "ab123xyz");
}

TEST(Append, OfNothingReturnsZero)
{
    grown text("ab");
    EXPECT_EQ(qv_aasprintf(text.address(), "%s", ""), 0);
    EXPECT_STREQ(text.text(), "ab");
}

TEST(Append, NeverCreatesAString)
{
    char *text = nullptr;
    EXPECT_EQ(qv_aasprintf(&text, "%d", 5), -1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(qv_aasprintf(nullptr, "%d", 5), -1);
}

TEST(Append, LeavesTheStringAloneWhenTheTextCannotBeFormatted)
{
    grown text("ab");
    const char *none = nullptr;
    EXPECT_EQ(qv_aasprintf(text.address(), "%lc", not_a_character), -1);
    EXPECT_EQ(qv_aasprintf(text.address(), none, 0), -1);
    EXPECT_STREQ(text.text(), "ab");
}

TEST(Append, SetsTheStringToNullWhenItCannotGrow)
{
    grown start("ab");
    char *text = *start.address();
    int added = 0;
    {
        const failing_heap::after none(0);
        added = qv_aasprintf(&text, "%d", 5);
    }
    EXPECT_EQ(added, -1);
    EXPECT_EQ(text, nullptr);
    EXPECT_STREQ(start.text(), "ab"); // as realloc leaves it
}

TEST(Append, BuildsADocumentByManySteps)
{
    grown text("");
    std::string expected;
    for (int i = 0; i < 2000; i++) {
        qv_aasprintf(text.address(), "[%d]", i);
        expected.append("[").append(std::to_string(i)).append("]");
    }
    EXPECT_EQ(text.text(), expected);
}

// ---- qv_fdprintf

TEST(FdPrintf, WritesTheTextByOneCall)
{
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets), 0);
    EXPECT_EQ(qv_fdprintf(sockets[0], "%s-%d", "a", 12), 4);
    char packet[16];
    EXPECT_EQ(read(sockets[1], packet, sizeof packet), 4);
    EXPECT_EQ(std::string(packet, 4), "a-12");
    close(sockets[0]);
    close(sockets[1]);
}

TEST(FdPrintf, WritesNothingForAnEmptyText)
{
    errno = 0;
    EXPECT_EQ(qv_fdprintf(-1, "%s", ""), 0);
    EXPECT_EQ(errno, 0);
}

TEST(FdPrintf, ReturnsZeroWhenTheTextCannotBeFormatted)
{
    const memory_file file;
    const char *none = nullptr;
    EXPECT_EQ(qv_fdprintf(file.fd(), "%lc", not_a_character), 0);
    EXPECT_EQ(qv_fdprintf(file.fd(), none, 0), 0);
    EXPECT_EQ(file.text(), "");
}

TEST(FdPrintf, ReturnsZeroWhenTheTextCannotBeAllocated)
{
    const memory_file file;
    int written = 0;
    {
        const failing_heap::after none(0);
        written = qv_fdprintf(file.fd(), "text");
    }
    EXPECT_EQ(written, 0);
    EXPECT_EQ(file.text(), "");
}

TEST(FdPrintf, PassesOnTheFailureOfWriteWithItsErrno)
{
    errno = 0;
    EXPECT_EQ(qv_fdprintf(-1, "x"), -1);
    EXPECT_EQ(errno, EBADF);
    const int full = open("/dev/full", O_WRONLY);
    EXPECT_EQ(qv_fdprintf(full, "x"), -1);
    EXPECT_EQ(errno, ENOSPC);
    close(full);
}

TEST(FdPrintf, DoesNotCompleteAShortWrite)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    const int room = fcntl(ends[1], F_GETPIPE_SZ);
    const std::string text(static_cast<size_t>(room) + 1000, 'x');
    EXPECT_EQ(qv_fdprintf(ends[1], "%s", text.c_str()), room);
    close(ends[0]);
    close(ends[1]);
}

// ---- replace_char, replace_quotes, replace_xml_entities

TEST(ReplaceChar, PutsAStringInTheCharactersPlace)
{
    const struct {
        const char *before, *replacement;
        size_t pos;
        const char *after;
    } rows[] = {{"a\"b", "\\\"", 1, "a\\\"b"},
                {"abc", "xyz", 0, "xyzbc"},
                {"abc", "", 2, "ab"},
                {"%d%s", "%n", 1, "%%n%s"}};
    for (const auto &row : rows) {
        grown text(row.before);
        EXPECT_EQ(replace_char(text.address(), row.replacement, row.pos),
                  static_cast<int>(strlen(row.replacement)));
        EXPECT_STREQ(text.text(), row.after);
    }
}

TEST(ReplaceChar, RefusesWhatIsNotThere)
{
    grown text("abc");
    char *none = nullptr;
    EXPECT_EQ(replace_char(text.address(), "x", 3), -1);
    EXPECT_EQ(replace_char(text.address(), nullptr, 0), -1);
    EXPECT_EQ(replace_char(&none, "x", 0), -1);
    EXPECT_EQ(replace_char(nullptr, "x", 0), -1);
    EXPECT_STREQ(text.text(), "abc");
}

TEST(ReplaceChar, LosesTheTailWithoutMemoryForItsCopy)
{
    grown text("abc");
    int result = 0;
    {
        const failing_heap::after none(0);
        result = replace_char(text.address(), "xy", 1);
    }
    EXPECT_EQ(result, 2);
    EXPECT_STREQ(text.text(), "axy(null)");
}

TEST(ReplaceChar, FailsWhenTheStringCannotGrow)
{
    grown start("abc");
    char *text = *start.address();
    int result = 0;
    {
        const failing_heap::after tail(1);
        result = replace_char(&text, "xy", 1);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(text, nullptr);
}

TEST(ReplaceQuotes, PutsABackslashBeforeEveryDoubleQuote)
{
    grown text("a\"b\"");
    EXPECT_EQ(replace_quotes(text.address()), 6);
    EXPECT_STREQ(text.text(), "a\\\"b\\\"");
}

TEST(ReplaceQuotes, EscapesAQuoteAfterABackslashToo)
{
    grown text("\\\"\"");
    EXPECT_EQ(replace_quotes(text.address()), 5);
    EXPECT_STREQ(text.text(), "\\\\\"\\\"");
}

TEST(ReplaceQuotes, AllocatesNothingForATextWithoutQuotes)
{
    grown text("it's <plain> & simple");
    const char *before = text.text();
    long calls = 0;
    int length = 0;
    {
        const failing_heap::counted heap;
        length = replace_quotes(text.address());
        calls = heap.calls();
    }
    EXPECT_EQ(length, 21);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(text.text(), before);
    EXPECT_STREQ(text.text(), "it's <plain> & simple");
}

TEST(ReplaceQuotes, ReturnsZeroForAnEmptyText)
{
    grown text("");
    EXPECT_EQ(replace_quotes(text.address()), 0);
    EXPECT_STREQ(text.text(), "");
}

TEST(ReplaceQuotes, FailsWithoutAString)
{
    char *none = nullptr;
    EXPECT_EQ(replace_quotes(&none), -1);
    EXPECT_EQ(replace_quotes(nullptr), -1);
    EXPECT_EQ(replace_xml_entities(&none, 0), -1);
    EXPECT_EQ(replace_xml_entities(nullptr, 1), -1);
}

TEST(ReplaceQuotes, FailsWhenTheStringCannotGrow)
{
    grown start("a\"b");
    for (int entities : {0, 1}) {
        char *text = *start.address();
        int length = 0;
        {
            const failing_heap::after none(0, failing_heap::all_calls, true);
            length = entities ? replace_xml_entities(&text, 0) : replace_quotes(&text);
        }
        EXPECT_EQ(length, -1);
        EXPECT_EQ(text, nullptr);
        EXPECT_STREQ(start.text(), "a\"b"); // as realloc leaves it
    }
}

TEST(ReplaceQuotes, TakesTenMegabytesOfQuotes)
{
    grown text(std::string(10 << 20, '"'));
    EXPECT_EQ(replace_quotes(text.address()), 20 << 20);
    EXPECT_EQ(strncmp(text.text(), "\\\"\\\"\\\"", 6), 0);
    EXPECT_EQ(strlen(text.text()), size_t{20} << 20);
}

TEST(ReplaceXmlEntities, ReplacesTheFiveSpecialCharacters)
{
    grown text("<a href='x'>&");
    EXPECT_EQ(replace_xml_entities(text.address(), 0), 33);
    EXPECT_STREQ(text.text(), "&lt;a href=&apos;x&apos;&gt;&amp;");
}

TEST(ReplaceXmlEntities, KeepsApostrophesWhenAsked)
{
    for (int keep : {1, -1, 256}) {
        grown text("<a href='x'>&\"");
        EXPECT_EQ(replace_xml_entities(text.address(), keep), 29);
        EXPECT_STREQ(text.text(), "&lt;a href='x'&gt;&amp;&quot;");
    }
}

TEST(ReplaceXmlEntities, EscapesAnEntityOfTheTextOnce)
{
    grown text("&amp;\"&&");
    EXPECT_EQ(replace_xml_entities(text.address(), 0), 25);
    EXPECT_STREQ(text.text(), "&amp;amp;&quot;&amp;&amp;");
}

TEST(ReplaceXmlEntities, ReturnsZeroForAnEmptyText)
{
    grown text("");
    EXPECT_EQ(replace_xml_entities(text.address(), 0), 0);
    EXPECT_EQ(replace_xml_entities(text.address(), 1), 0);
}

TEST(ReplaceXmlEntities, AllocatesNothingForATextWithoutSpecialCharacters)
{
    grown text("it's plain");
    long calls = 0;
    int length = 0;
    {
        const failing_heap::counted heap;
        length = replace_xml_entities(text.address(), 1);
        calls = heap.calls();
    }
    EXPECT_EQ(length, 10);
    EXPECT_EQ(calls, 0);
}

TEST(ReplaceXmlEntities, TakesTenMegabytesOfAmpersands)
{
    grown text(std::string(10 << 20, '&'));
    EXPECT_EQ(replace_xml_entities(text.address(), 0), 50 << 20);
    EXPECT_EQ(strlen(text.text()), size_t{50} << 20);
}

// One replacement after the other, each moving the tail.
std::string replaced_slowly(std::string text, const std::string &set)
{
    for (size_t at = text.find_first_of(set); at != std::string::npos; at = text.find_first_of(set, at)) {
        const char c = text[at];
        const std::string instead = set == "\"" ? "\\\""
                                    : c == '<'  ? "&lt;"
                                    : c == '>'  ? "&gt;"
                                    : c == '&'  ? "&amp;"
                                    : c == '\'' ? "&apos;"
                                                : "&quot;";
        text.replace(at, 1, instead);
        at += instead.size();
    }
    return text;
}

TEST(ReplaceXmlEntities, AgreesWithReplacingOneCharacterAfterTheOther)
{
    std::mt19937 random(1);
    const std::string letters = "ab\\<>&'\"\x80\xff;";
    for (int i = 0; i < 2000; i++) {
        std::string start(random() % 40, ' ');
        for (char &c : start)
            c = letters[random() % letters.size()];
        const struct {
            const char *set;
            int (*replace)(char **);
        } rows[] = {
            {"\"", replace_quotes},
            {"<>&\"", [](char **text) { return replace_xml_entities(text, 1); }},
            {"<>&'\"", [](char **text) { return replace_xml_entities(text, 0); }},
        };
        for (const auto &row : rows) {
            grown text(start);
            const std::string expected = replaced_slowly(start, row.set);
            ASSERT_EQ(row.replace(text.address()), static_cast<int>(expected.size()));
            ASSERT_EQ(text.text(), expected);
        }
    }
}

// ---- trim_alnum

TEST(TrimAlnum, TrimsBothEndsInPlace)
{
    char text[] = "  --ab c!!";
    char *trimmed = trim_alnum(text);
    EXPECT_EQ(trimmed, text + 4);
    EXPECT_STREQ(trimmed, "ab c");
    EXPECT_EQ(memcmp(text, "  --ab c\0\0", sizeof text), 0);
}

TEST(TrimAlnum, ReturnsTheEndOfATextWithoutAlphanumerics)
{
    char marks[] = "!!!", empty[] = "";
    EXPECT_EQ(trim_alnum(marks), marks + 3);
    EXPECT_STREQ(marks, "!!!");
    EXPECT_EQ(trim_alnum(empty), empty);
}

TEST(TrimAlnum, LeavesATextWithNothingToTrim)
{
    char text[] = "a1 Z9";
    EXPECT_EQ(trim_alnum(text), text);
    EXPECT_STREQ(text, "a1 Z9");
}

TEST(TrimAlnum, TakesAsciiLettersAndDigitsOnly)
{
    char text[] = "\xe4@[`{/:Az09\xff";
    EXPECT_STREQ(trim_alnum(text), "Az09");
}

TEST(TrimAlnum, ReturnsNullForNull)
{
    EXPECT_EQ(trim_alnum(nullptr), nullptr);
}

// ---- qv_memstr

TEST(MemStr, FindsTheFirstMatch)
{
    EXPECT_EQ(qv_memstr("xabcabc", 7, "abc"), 1);
    EXPECT_EQ(qv_memstr("ab\0cd", 5, "cd"), 3);
    EXPECT_EQ(qv_memstr("abc", 3, "abc"), 0);
}

TEST(MemStr, FindsAnEmptyNeedleAtTheStart)
{
    EXPECT_EQ(qv_memstr("abc", 3, ""), 0);
    EXPECT_EQ(qv_memstr("abc", 0, ""), 0);
}

TEST(MemStr, SetsErrnoWithoutAMatch)
{
    const struct {
        const char *text;
        size_t length;
        const char *needle;
    } rows[] = {{"abc", 3, "d"}, {"abc", 2, "abc"}, {"abc", 0, "a"}, {nullptr, 3, "a"}, {"abc", 3, nullptr}};
    for (const auto &row : rows) {
        errno = 0;
        EXPECT_EQ(qv_memstr(row.text, row.length, row.needle), -1);
        EXPECT_EQ(errno, ENOENT);
    }
}

TEST(MemStr, LooksNoFurtherThanTheLength)
{
    const char text[] = {'x', 'a', 'b'};
    EXPECT_EQ(qv_memstr(text, sizeof text, "abc"), -1);
}

// ---- str2bool

TEST(Str2Bool, AcceptsTheWordsInAnyCaseAndOne)
{
    for (const char *word : {"true", "TRUE", "True", "yes", "YES", "yEs", "y", "Y", "1"})
        EXPECT_EQ(str2bool(word), 1) << word;
}

TEST(Str2Bool, RefusesEverythingElse)
{
    for (const char *word :
         {"", " 1", "1 ", "01", "2", "on", "enable", "t", "yess", "ye", "no", "false", "0"})
        EXPECT_EQ(str2bool(word), 0) << word;
    EXPECT_EQ(str2bool(nullptr), 0);
}

} // namespace
