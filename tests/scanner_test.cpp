#include <qvlib/memcheck.h>
#include <qvlib/scanner.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pty.h>
#include <string>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "failing_heap.h"
#include "log_lines.h"
#include "tracked_session.h"

static_assert(sizeof(union clparse_token) == 8);

namespace
{

// "KIND" or "KIND:value" of a token, whose text is released.
std::string describe(int kind, union clparse_token &token)
{
    switch (kind) {
    case CLPARSE_TOKEN_IDENTIFIER:
    case CLPARSE_TOKEN_STRING: {
        const std::string text = token.str;
        qv_memcheck_free(qv_free, token.str, "scanner_test");
        return (kind == CLPARSE_TOKEN_STRING ? "string:" : "identifier:") + text;
    }
    case CLPARSE_TOKEN_NUMBER:
        return "number:" + std::to_string(token.num);
    case CLPARSE_TOKEN_BOOLEAN:
        return "boolean:" + std::to_string(token.boolean);
    default:
        return kind > 32 && kind < 127 ? std::string(1, static_cast<char>(kind)) : std::to_string(kind);
    }
}

class Scanner : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(yylex_init(&scanner), 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(yylex_destroy(scanner), 0);
        if (stream)
            fclose(stream);
    }

    std::string next()
    {
        union clparse_token token = {};
        const int kind = yylex(&token, scanner);
        return describe(kind, token);
    }

    lines rest()
    {
        lines tokens;
        for (std::string token; (token = next()) != "0" && tokens.size() < 1000;)
            tokens.push_back(token);
        return tokens;
    }

    lines tokens_of(const char *text)
    {
        struct yy_buffer_state *buffer = yy_scan_string(text, scanner);
        EXPECT_NE(buffer, nullptr);
        lines tokens = rest();
        yy_delete_buffer(buffer, scanner);
        return tokens;
    }

    FILE *open_text(const std::string &text)
    {
        stream = tmpfile();
        fwrite(text.data(), 1, text.size(), stream);
        rewind(stream);
        return stream;
    }

    void *scanner = nullptr;
    FILE *stream = nullptr;
};

// ---- Tokens

TEST_F(Scanner, GivesKindsAndValues)
{
    EXPECT_EQ(tokens_of("a_1 \"x\\\"y\" 31 0x1F true false"),
              (lines{"identifier:a_1", "string:x\"y", "number:31", "number:31", "boolean:1", "boolean:0"}));
    EXPECT_EQ(tokens_of(",=.{}[]"), (lines{",", "=", ".", "{", "}", "[", "]"}));
}

TEST_F(Scanner, GivesStrayCharactersAsThemselves)
{
    EXPECT_EQ(tokens_of("-1+(2);:/#\x01\x80\xff\\'"), (lines{"-", "number:1", "+", "(", "number:2", ")", ";",
                                                             ":", "/", "#", "1", "128", "255", "\\", "'"}));
}

TEST_F(Scanner, GivesEveryByteAsDocumented)
{
    for (int byte = 1; byte < 256; byte++) {
        const char text[] = {static_cast<char>(byte), '\0'};
        if (strchr(" \t\r\n", byte))
            EXPECT_EQ(tokens_of(text), lines{});
        else if (isalpha(byte) || byte == '_')
            EXPECT_EQ(tokens_of(text), lines{std::string("identifier:") + text});
        else if (isdigit(byte))
            EXPECT_EQ(tokens_of(text), lines{std::string("number:") + text});
        else
            EXPECT_EQ(tokens_of(text), lines{byte > 32 && byte < 127 ? text : std::to_string(byte)});
    }
}

TEST_F(Scanner, SplitsAHexPrefixWithoutDigits)
{
    EXPECT_EQ(tokens_of("0x 0xg 0Xx 1x"), (lines{"number:0", "identifier:x", "number:0", "identifier:xg",
                                                 "number:0", "identifier:Xx", "number:1", "identifier:x"}));
}

TEST_F(Scanner, TakesTheLongestWord)
{
    EXPECT_EQ(tokens_of("trueness false_x true.false truefalse"),
              (lines{"identifier:trueness", "identifier:false_x", "boolean:1", ".", "boolean:0",
                     "identifier:truefalse"}));
}

TEST_F(Scanner, GivesTheQuoteOfAnUnclosedStringAsAStrayCharacter)
{
    EXPECT_EQ(tokens_of("\"ab 1"), (lines{"\"", "identifier:ab", "number:1"}));
    EXPECT_EQ(tokens_of("\"a\\\"b"), (lines{"\"", "identifier:a", "\\", "\"", "identifier:b"}));
    EXPECT_EQ(tokens_of("\"a\\\nb\""), (lines{"\"", "identifier:a", "\\", "identifier:b", "\""}));
    EXPECT_EQ(tokens_of("\""), (lines{"\""}));
    EXPECT_EQ(tokens_of("\"\\"), (lines{"\"", "\\"}));
}

TEST_F(Scanner, LooksOnceForTheEndOfAStringThatHasNone)
{
    constexpr int pairs = 500000; // as many looks would take minutes
    std::string text;
    for (int i = 0; i < pairs; i++)
        text += "\\\"";
    ASSERT_NE(yy_scan_string((text + "\\\n\"s\" \"").c_str(), scanner), nullptr);
    union clparse_token token;
    for (int i = 0; i < pairs; i++) {
        ASSERT_EQ(yylex(&token, scanner), '\\');
        ASSERT_EQ(yylex(&token, scanner), '"');
    }
    EXPECT_EQ(rest(), (lines{"\\", "string:s", "\""}));
}

TEST_F(Scanner, WritesOneByteOfABoolean)
{
    union clparse_token token;
    memset(&token, 0x55, sizeof token);
    ASSERT_NE(yy_scan_string("false", scanner), nullptr);
    EXPECT_EQ(yylex(&token, scanner), CLPARSE_TOKEN_BOOLEAN);
    unsigned char bytes[8];
    memcpy(bytes, &token, sizeof bytes);
    EXPECT_EQ(bytes[0], 0);
    EXPECT_EQ(bytes[1], 0x55);
}

TEST_F(Scanner, StaysAtTheEnd)
{
    EXPECT_EQ(tokens_of("a"), lines{"identifier:a"});
    ASSERT_NE(yy_scan_string("b", scanner), nullptr);
    EXPECT_EQ(rest(), lines{"identifier:b"});
    EXPECT_EQ(rest(), lines{});
    EXPECT_EQ(rest(), lines{});
}

TEST_F(Scanner, AllocatesTokensAsTrackedBlocksOfTheirSize)
{
    const tracked_session session;
    ASSERT_NE(yy_scan_string("word \"a\\\"b\" 12 true", scanner), nullptr);
    union clparse_token word, text, other;
    EXPECT_EQ(yylex(&word, scanner), CLPARSE_TOKEN_IDENTIFIER);
    EXPECT_EQ(yylex(&text, scanner), CLPARSE_TOKEN_STRING);
    EXPECT_EQ(yylex(&other, scanner), CLPARSE_TOKEN_NUMBER);
    EXPECT_EQ(yylex(&other, scanner), CLPARSE_TOKEN_BOOLEAN);
    EXPECT_EQ(session.counts(), (std::map<std::string, int>{{"yylex", 2}}));
    EXPECT_EQ(session.sizes("yylex"), (std::vector<size_t>{5, 4}));
    qv_memcheck_free(qv_free, word.str, "scanner_test");
    qv_memcheck_free(qv_free, text.str, "scanner_test");
    EXPECT_TRUE(session.counts().empty());
}

TEST_F(Scanner, GivesAnInvalidTokenWhenItsTextCannotBeAllocated)
{
    for (const char *text : {"word", "\"text\""}) {
        ASSERT_NE(yy_scan_string(text, scanner), nullptr);
        const failing_heap::after failure(0);
        EXPECT_EQ(next(), std::to_string(CLPARSE_TOKEN_INVALID));
        yypop_buffer_state(scanner);
    }
}

// ---- Buffers in memory

TEST_F(Scanner, ScansACopyOfAString)
{
    char text[] = "abc 12";
    ASSERT_NE(yy_scan_string(text, scanner), nullptr);
    memset(text, 'Z', sizeof text - 1);
    EXPECT_EQ(rest(), (lines{"identifier:abc", "number:12"}));
}

TEST_F(Scanner, ScansBytesWithNuls)
{
    const char bytes[] = "a\0b \"c\0d\" 1";
    ASSERT_NE(yy_scan_bytes(bytes, sizeof bytes - 1, scanner), nullptr);
    union clparse_token token;
    EXPECT_EQ(next(), "identifier:a");
    EXPECT_EQ(yylex(&token, scanner), CLPARSE_TOKEN_INVALID);
    EXPECT_EQ(next(), "identifier:b");
    EXPECT_EQ(yylex(&token, scanner), CLPARSE_TOKEN_STRING);
    EXPECT_EQ(memcmp(token.str, "c\0d", 4), 0);
    qv_memcheck_free(qv_free, token.str, "scanner_test");
    EXPECT_EQ(next(), "number:1");
    EXPECT_EQ(next(), "0");
}

TEST_F(Scanner, ScansNoBytes)
{
    EXPECT_NE(yy_scan_bytes("x", 0, scanner), nullptr);
    EXPECT_EQ(rest(), lines{});
    yypop_buffer_state(scanner);
    EXPECT_NE(yy_scan_bytes(nullptr, 0, scanner), nullptr);
    EXPECT_EQ(rest(), lines{});
    yypop_buffer_state(scanner);
    EXPECT_NE(yy_scan_string("", scanner), nullptr);
    EXPECT_EQ(rest(), lines{});
}

TEST_F(Scanner, ScansACallersBufferInPlaceAndLeavesItUnchanged)
{
    char base[] = "ab=0x1f,\"q\\\"\"\0";
    const std::string before(base, sizeof base);
    struct yy_buffer_state *buffer = yy_scan_buffer(base, sizeof base, scanner);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(next(), "identifier:ab");
    EXPECT_EQ(yyget_text(scanner), base);
    EXPECT_EQ(rest(), (lines{"=", "number:31", ",", "string:q\""}));
    yy_delete_buffer(buffer, scanner);
    EXPECT_EQ(std::string(base, sizeof base), before);
}

TEST_F(Scanner, LeavesACallersBufferAloneWhenItIsReleased)
{
    char base[] = "ab cd ef\0";
    const std::string gone(sizeof base, 'Z'); // what may be in its place
    struct yy_buffer_state *buffer = yy_scan_buffer(base, sizeof base, scanner);
    EXPECT_EQ(next(), "identifier:ab");
    memset(base, 'Z', sizeof base);
    yy_delete_buffer(buffer, scanner);
    EXPECT_EQ(std::string(base, sizeof base), gone);
}

TEST_F(Scanner, LeavesACallersBufferAloneWhenItIsDestroyed)
{
    char base[] = "ab cd ef\0";
    const std::string gone(sizeof base, 'Z');
    void *other = nullptr;
    ASSERT_EQ(yylex_init(&other), 0);
    ASSERT_NE(yy_scan_buffer(base, sizeof base, other), nullptr);
    union clparse_token token;
    EXPECT_EQ(yylex(&token, other), CLPARSE_TOKEN_IDENTIFIER);
    describe(CLPARSE_TOKEN_IDENTIFIER, token);
    memset(base, 'Z', sizeof base);
    yylex_destroy(other);
    EXPECT_EQ(std::string(base, sizeof base), gone);
}

TEST_F(Scanner, RefusesACallersBufferWithoutTwoNuls)
{
    char base[] = "ab\0";
    EXPECT_EQ(yy_scan_buffer(base, 3, scanner), nullptr);
    EXPECT_EQ(yy_scan_buffer(base, 1, scanner), nullptr);
    EXPECT_EQ(yy_scan_buffer(base, 0, scanner), nullptr);
    EXPECT_EQ(yy_scan_buffer(nullptr, 4, scanner), nullptr);
    base[2] = 'c';
    EXPECT_EQ(yy_scan_buffer(base, 4, scanner), nullptr);
    base[2] = '\0';
    EXPECT_NE(yy_scan_buffer(base, 4, scanner), nullptr);
    EXPECT_EQ(rest(), lines{"identifier:ab"});
}

TEST_F(Scanner, SwitchesBetweenBuffersInMidText)
{
    struct yy_buffer_state *one = yy_scan_string("a b c", scanner);
    EXPECT_EQ(next(), "identifier:a");
    struct yy_buffer_state *two = yy_scan_string("x y z", scanner);
    EXPECT_EQ(next(), "identifier:x");
    yy_switch_to_buffer(one, scanner);
    EXPECT_EQ(next(), "identifier:b");
    yy_switch_to_buffer(two, scanner);
    EXPECT_EQ(rest(), (lines{"identifier:y", "identifier:z"}));
    yy_switch_to_buffer(one, scanner);
    EXPECT_EQ(rest(), lines{"identifier:c"});
    yy_delete_buffer(two, scanner);
}

TEST_F(Scanner, StacksBuffers)
{
    ASSERT_NE(yy_scan_string("a b", scanner), nullptr);
    EXPECT_EQ(next(), "identifier:a");
    std::vector<FILE *> streams;
    for (int depth = 0; depth < 40; depth++) {
        streams.push_back(open_text("in stack"));
        yypush_buffer_state(yy_create_buffer(streams.back(), 64, scanner), scanner);
        EXPECT_EQ(next(), "identifier:in");
    }
    stream = nullptr;
    for (; !streams.empty(); streams.pop_back()) {
        EXPECT_EQ(rest(), lines{"identifier:stack"});
        yypop_buffer_state(scanner);
        fclose(streams.back());
    }
    EXPECT_EQ(rest(), lines{"identifier:b"});
}

TEST_F(Scanner, DestroysTheBuffersOnItsStack)
{
    ASSERT_NE(yy_scan_string("a", scanner), nullptr);
    for (int depth = 0; depth < 20; depth++)
        yypush_buffer_state(yy_create_buffer(nullptr, 64, scanner), scanner); // a leak would be seen
}

TEST_F(Scanner, DestroysABufferOnceThatIsOnItsStackTwice)
{
    struct yy_buffer_state *one = yy_scan_string("a b", scanner);
    struct yy_buffer_state *two = yy_create_buffer(open_text("x"), 16, scanner);
    yypush_buffer_state(two, scanner);
    yypush_buffer_state(one, scanner);
    EXPECT_EQ(rest(), (lines{"identifier:a", "identifier:b"})); // a second release would be seen
}

TEST_F(Scanner, FlushesABufferToItsEnd)
{
    struct yy_buffer_state *buffer = yy_scan_string("a b c", scanner);
    EXPECT_EQ(next(), "identifier:a");
    yy_flush_buffer(buffer, scanner);
    EXPECT_EQ(rest(), lines{});
    yy_flush_buffer(nullptr, scanner);
}

TEST_F(Scanner, IgnoresMissingBuffers)
{
    yypop_buffer_state(scanner);
    yypush_buffer_state(nullptr, scanner);
    yy_switch_to_buffer(nullptr, scanner);
    yy_delete_buffer(nullptr, scanner);
    ASSERT_NE(yy_scan_string("a", scanner), nullptr);
    yypush_buffer_state(nullptr, scanner);
    yy_switch_to_buffer(nullptr, scanner);
    yy_delete_buffer(nullptr, scanner);
    EXPECT_EQ(rest(), lines{"identifier:a"});
}

// ---- Streams

TEST_F(Scanner, ReadsTheStreamItIsGiven)
{
    yyset_in(open_text("a=1,\nb=\"x\ny\"\n"), scanner);
    EXPECT_EQ(rest(), (lines{"identifier:a", "=", "number:1", ",", "identifier:b", "=", "string:x\ny"}));
    EXPECT_EQ(yyget_in(scanner), stream);
}

TEST_F(Scanner, ReadsTokensLongerThanItsBuffer)
{
    const std::string word(100000, 'w');
    for (const int size : {-1, 0, 1, 2, 15, 16, 17, 100, 16384, 200000}) {
        SCOPED_TRACE(size);
        struct yy_buffer_state *buffer =
            yy_create_buffer(open_text("a " + word + " \"" + word + "\" 12"), size, scanner);
        ASSERT_NE(buffer, nullptr);
        yy_switch_to_buffer(buffer, scanner);
        EXPECT_EQ(rest(), (lines{"identifier:a", "identifier:" + word, "string:" + word, "number:12"}));
        yy_delete_buffer(buffer, scanner);
        fclose(stream);
        stream = nullptr;
    }
}

TEST_F(Scanner, GivesTheSameTokensForEverySplitOfAStream)
{
    std::string text;
    for (int i = 0; i < 60; i++)
        text += "word" + std::string(static_cast<size_t>(i), 'x') + " 0x" + std::to_string(i) +
                " 0xz \"q\\\"\\n\" ";
    const lines expected = tokens_of(text.c_str());
    for (int size = 16; size < 80; size++) {
        struct yy_buffer_state *buffer = yy_create_buffer(open_text(text), size, scanner);
        yy_switch_to_buffer(buffer, scanner);
        EXPECT_EQ(rest(), expected) << size;
        yy_delete_buffer(buffer, scanner);
        fclose(stream);
        stream = nullptr;
    }
}

TEST_F(Scanner, ReadsStandardInputWhenItIsGivenNothing)
{
    char name[] = "/tmp/qvlib_scanner_XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_EQ(write(fd, "from_stdin", 10), 10);
    lseek(fd, 0, SEEK_SET);
    const int kept = dup(0);
    dup2(fd, 0);
    EXPECT_EQ(rest(), lines{"identifier:from_stdin"});
    EXPECT_EQ(yyget_in(scanner), stdin);
    EXPECT_EQ(yyget_out(scanner), stdout);
    dup2(kept, 0);
    close(kept);
    close(fd);
    remove(name);
}

TEST_F(Scanner, BeginsWithTheStreamOfItsBuffer)
{
    FILE *other = tmpfile();
    fputs("other", other);
    rewind(other);
    struct yy_buffer_state *buffer = yy_create_buffer(open_text("buffer's"), 100, scanner);
    yy_switch_to_buffer(buffer, scanner);
    yyset_in(other, scanner); // taken from the second token on
    EXPECT_EQ(next(), "identifier:buffer");
    EXPECT_EQ(yyget_in(scanner), stream);
    yyset_in(other, scanner);
    EXPECT_EQ(rest(), (lines{"'", "identifier:sother"}));
    fclose(other);
}

TEST_F(Scanner, TakesStandardOutputWithTheFirstTokenOnly)
{
    yyrestart(open_text("a b"), scanner);
    EXPECT_EQ(yyget_out(scanner), nullptr);
    EXPECT_EQ(next(), "identifier:a");
    EXPECT_EQ(yyget_out(scanner), stdout);
    yyset_out(nullptr, scanner);
    EXPECT_EQ(next(), "identifier:b");
    EXPECT_EQ(yyget_out(scanner), nullptr);
}

TEST_F(Scanner, ReadsOneByteLessOfAStreamThanItsBufferHolds)
{
    struct yy_buffer_state *buffer = yy_create_buffer(open_text("a," + std::string(100, ' ')), 32, scanner);
    yy_switch_to_buffer(buffer, scanner);
    EXPECT_EQ(next(), "identifier:a");
    EXPECT_EQ(ftell(stream), 31);
    yy_delete_buffer(buffer, scanner);
}

TEST_F(Scanner, RestartsOnAnotherStream)
{
    FILE *first = tmpfile();
    fputs("one two", first);
    rewind(first);
    yyset_in(first, scanner);
    EXPECT_EQ(next(), "identifier:one");
    yyrestart(open_text("three"), scanner);
    EXPECT_EQ(rest(), lines{"identifier:three"});
    EXPECT_EQ(yyget_in(scanner), stream);
    rewind(first);
    yyrestart(first, scanner);
    EXPECT_EQ(rest(), (lines{"identifier:one", "identifier:two"}));
    fclose(first);
}

TEST_F(Scanner, RestartsBeforeTheFirstToken)
{
    yyrestart(open_text("a"), scanner);
    EXPECT_EQ(rest(), lines{"identifier:a"});
}

TEST_F(Scanner, ReadsNothingFromAMissingStream)
{
    yyrestart(nullptr, scanner);
    EXPECT_EQ(rest(), lines{});
    struct yy_buffer_state *buffer = yy_create_buffer(nullptr, 100, scanner);
    yypush_buffer_state(buffer, scanner);
    EXPECT_EQ(rest(), lines{});
}

TEST_F(Scanner, GoesOnWhenAStreamHasGrown)
{
    yyset_in(open_text("a"), scanner);
    EXPECT_EQ(rest(), lines{"identifier:a"});
    fputs(" b", stream);
    fseek(stream, 1, SEEK_SET);
    EXPECT_EQ(rest(), lines{"identifier:b"});
}

TEST_F(Scanner, ReadsATerminalLineByLine)
{
    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    struct termios mode;
    tcgetattr(slave, &mode);
    cfmakeraw(&mode);
    tcsetattr(slave, TCSANOW, &mode);
    stream = fdopen(slave, "r");
    setvbuf(stream, nullptr, _IONBF, 0);
    yyset_in(stream, scanner);
    // Only one line is there when its tokens are asked for: reading further would block for ever.
    ASSERT_EQ(write(master, "a=1,\n", 5), 5);
    EXPECT_EQ(next(), "identifier:a");
    EXPECT_EQ(next(), "=");
    EXPECT_EQ(next(), "number:1");
    EXPECT_EQ(next(), ",");
    ASSERT_EQ(write(master, "bcd\n", 4), 4);
    EXPECT_EQ(next(), "identifier:bcd");
    close(master);
}

TEST_F(Scanner, LogsAFailedRead)
{
    const int directory = open("/", O_RDONLY | O_DIRECTORY);
    stream = fdopen(directory, "r");
    ASSERT_NE(stream, nullptr);
    yyset_in(stream, scanner);
    log_lines log;
    EXPECT_EQ(next(), "0");
    EXPECT_EQ(log.take(), lines{"ERROR: panic: input in flex scanner failed"});
}

// ---- Panics

TEST_F(Scanner, LogsABufferThatCannotBeAllocated)
{
    log_lines log;
    {
        const failing_heap::after failure(0);
        EXPECT_EQ(yy_create_buffer(stdin, 100, scanner), nullptr);
    }
    {
        const failing_heap::after failure(1);
        EXPECT_EQ(yy_create_buffer(stdin, 100, scanner), nullptr);
    }
    EXPECT_EQ(yy_create_buffer(stdin, INT_MAX, scanner), nullptr);
    const std::string line = "ERROR: panic: out of dynamic memory in yy_create_buffer()";
    EXPECT_EQ(log.take(), (lines{line, line, line}));
}

TEST_F(Scanner, LogsAStringThatCannotBeCopied)
{
    log_lines log;
    {
        const failing_heap::after failure(0);
        EXPECT_EQ(yy_scan_string("a", scanner), nullptr);
    }
    EXPECT_EQ(log.take(), lines{"ERROR: panic: out of dynamic memory in yy_scan_bytes()"});
}

TEST_F(Scanner, LogsAStackThatCannotBeAllocated)
{
    log_lines log;
    {
        const failing_heap::after failure(1);
        EXPECT_EQ(yy_scan_string("a", scanner), nullptr);
    }
    EXPECT_EQ(log.take(), lines{"ERROR: panic: out of dynamic memory in yyensure_buffer_stack()"});
    EXPECT_EQ(tokens_of("a"), lines{"identifier:a"});
}

TEST_F(Scanner, LogsACallersBufferThatCannotBeTaken)
{
    char base[] = "a\0";
    log_lines log;
    {
        const failing_heap::after failure(1);
        EXPECT_EQ(yy_scan_buffer(base, sizeof base, scanner), nullptr);
    }
    EXPECT_EQ(log.take(), lines{"ERROR: panic: out of dynamic memory in yy_scan_buffer()"});
}

TEST_F(Scanner, LogsBadBytes)
{
    log_lines log;
    EXPECT_EQ(yy_scan_bytes("a", -1, scanner), nullptr);
    EXPECT_EQ(yy_scan_bytes(nullptr, 1, scanner), nullptr);
    EXPECT_EQ(yy_scan_bytes("a", 1, nullptr), nullptr);
    const std::string line = "ERROR: panic: bad buffer in yy_scan_bytes()";
    EXPECT_EQ(log.take(), (lines{line, line, line}));
}

TEST_F(Scanner, LogsABufferThatCannotGrowAndEndsTheInput)
{
    struct yy_buffer_state *buffer =
        yy_create_buffer(open_text("ab " + std::string(100, 'w') + " c"), 16, scanner);
    yy_switch_to_buffer(buffer, scanner);
    EXPECT_EQ(next(), "identifier:ab");
    log_lines log;
    {
        const failing_heap::after failure(0);
        // As much of the word as the buffer holds; the rest follows when memory is there again.
        EXPECT_EQ(next(), "identifier:" + std::string(15, 'w'));
    }
    EXPECT_EQ(log.take(), lines{"ERROR: panic: fatal error - scanner input buffer overflow"});
    for (int i = 0; i < 100 && next() != "0"; i++) {
    }
}

TEST_F(Scanner, SurvivesEveryFailingAllocationOverAStream)
{
    log_lines log;
    for (const bool all : {false, true})
        for (int successes = 0;; successes++) {
            void *failing = nullptr;
            FILE *input = tmpfile();
            fputs(("a \"" + std::string(40000, 'x') + "\" b").c_str(), input);
            rewind(input);
            bool happened = false;
            {
                const failing_heap::after failure(successes, all);
                if (yylex_init(&failing) == 0) {
                    yyset_in(input, failing);
                    union clparse_token token = {};
                    for (int i = 0, kind; i < 100 && (kind = yylex(&token, failing)) != 0; i++)
                        describe(kind, token);
                    yylex_destroy(failing);
                }
                happened = failure.failed();
            }
            fclose(input);
            if (!happened)
                break;
            ASSERT_LT(successes, 500);
        }
}

using ScannerDeath = Scanner;

TEST_F(ScannerDeath, EndsTheProcessWhenALineIsSetWithoutBuffer)
{
    EXPECT_EXIT(yyset_lineno(1, scanner), testing::ExitedWithCode(2),
                "^yyset_lineno called with no buffer\n$");
}

TEST_F(ScannerDeath, EndsTheProcessWhenAColumnIsSetWithoutBuffer)
{
    EXPECT_EXIT(yyset_column(1, scanner), testing::ExitedWithCode(2),
                "^yyset_column called with no buffer\n$");
}

// ---- What a scanner holds

TEST_F(Scanner, KeepsUserData)
{
    int data = 0;
    EXPECT_EQ(yyget_extra(scanner), nullptr);
    yyset_extra(&data, scanner);
    EXPECT_EQ(yyget_extra(scanner), &data);
    EXPECT_EQ(tokens_of("a"), lines{"identifier:a"});
    EXPECT_EQ(yyget_extra(scanner), &data);
}

TEST_F(Scanner, IsMadeWithUserData)
{
    int data = 0;
    void *other = nullptr;
    ASSERT_EQ(yylex_init_extra(&data, &other), 0);
    EXPECT_EQ(yyget_extra(other), &data);
    EXPECT_EQ(yylex_destroy(other), 0);
}

TEST_F(Scanner, KeepsStreams)
{
    EXPECT_EQ(yyget_in(scanner), nullptr);
    EXPECT_EQ(yyget_out(scanner), nullptr);
    yyset_in(stdin, scanner);
    yyset_out(stderr, scanner);
    EXPECT_EQ(yyget_in(scanner), stdin);
    EXPECT_EQ(yyget_out(scanner), stderr);
}

TEST_F(Scanner, KeepsLineAndColumnOfABuffer)
{
    EXPECT_EQ(yyget_lineno(scanner), 0);
    EXPECT_EQ(yyget_column(scanner), 0);
    struct yy_buffer_state *one = yy_scan_string("a\nb", scanner);
    yyset_lineno(7, scanner);
    yyset_column(9, scanner);
    EXPECT_EQ(rest(), (lines{"identifier:a", "identifier:b"}));
    EXPECT_EQ(yyget_lineno(scanner), 7); // lines are not counted
    EXPECT_EQ(yyget_column(scanner), 9);
    struct yy_buffer_state *two = yy_scan_string("c", scanner);
    yyset_lineno(1, scanner);
    yy_switch_to_buffer(one, scanner);
    EXPECT_EQ(yyget_lineno(scanner), 7);
    yy_delete_buffer(two, scanner);
}

TEST_F(Scanner, KeepsDebugFlag)
{
    EXPECT_EQ(yyget_debug(scanner), 0);
    yyset_debug(1, scanner);
    EXPECT_EQ(yyget_debug(scanner), 1);
}

TEST_F(Scanner, KeepsTheTokensPlace)
{
    union clparse_token token;
    EXPECT_EQ(yyget_lval(scanner), nullptr);
    yyset_lval(&token, scanner);
    EXPECT_EQ(yyget_lval(scanner), &token);
    union clparse_token other;
    ASSERT_NE(yy_scan_string("1", scanner), nullptr);
    yylex(&other, scanner);
    EXPECT_EQ(yyget_lval(scanner), &other);
}

TEST_F(Scanner, ShowsTheTokensText)
{
    EXPECT_EQ(yyget_text(scanner), nullptr);
    EXPECT_EQ(yyget_leng(scanner), 0);
    ASSERT_NE(yy_scan_string(" ab \"x\\\"\" 0x1F", scanner), nullptr);
    for (const char *text : {"ab", "\"x\\\"\"", "0x1F"}) {
        next();
        EXPECT_STREQ(yyget_text(scanner), text);
        EXPECT_EQ(yyget_leng(scanner), static_cast<int>(strlen(text)));
    }
}

// ---- Missing scanners

TEST(MissingScanner, GivesFailureResults)
{
    log_lines log;
    void *none = nullptr;
    union clparse_token token;
    char base[] = "a\0";
    errno = 0;
    EXPECT_EQ(yylex_init(nullptr), 1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(yylex_init_extra(base, nullptr), 1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_NE(yylex_destroy(none), 0);
    EXPECT_EQ(yylex(&token, none), 0);
    EXPECT_EQ(yy_scan_string("a", none), nullptr);
    EXPECT_EQ(yy_scan_buffer(base, sizeof base, none), nullptr);
    EXPECT_EQ(yy_create_buffer(stdin, 100, none), nullptr);
    yy_delete_buffer(nullptr, none);
    yy_flush_buffer(nullptr, none);
    yy_switch_to_buffer(nullptr, none);
    yypush_buffer_state(nullptr, none);
    yypop_buffer_state(none);
    yyrestart(stdin, none);
    EXPECT_EQ(yyget_extra(none), nullptr);
    EXPECT_EQ(yyget_in(none), nullptr);
    EXPECT_EQ(yyget_out(none), nullptr);
    EXPECT_EQ(yyget_lineno(none), 0);
    EXPECT_EQ(yyget_column(none), 0);
    EXPECT_EQ(yyget_debug(none), 0);
    EXPECT_EQ(yyget_lval(none), nullptr);
    EXPECT_EQ(yyget_leng(none), 0);
    EXPECT_EQ(yyget_text(none), nullptr);
    yyset_extra(base, none);
    yyset_in(stdin, none);
    yyset_out(stdout, none);
    yyset_debug(1, none);
    yyset_lval(&token, none);
}

TEST_F(Scanner, RefusesAMissingText)
{
    log_lines log;
    EXPECT_EQ(yy_scan_string(nullptr, scanner), nullptr);
    EXPECT_EQ(yylex(nullptr, scanner), 0);
}

TEST(YylexInit, GivesOneAndEnomemWhenMemoryIsShort)
{
    void *scanner = nullptr;
    const failing_heap::after failure(0);
    errno = 0;
    EXPECT_EQ(yylex_init(&scanner), 1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(YylexInitExtra, GivesOneAndEnomemWhenMemoryIsShort)
{
    void *scanner = nullptr;
    const failing_heap::after failure(0);
    errno = 0;
    EXPECT_EQ(yylex_init_extra(nullptr, &scanner), 1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(Yyalloc, UsesThePlainAllocator)
{
    const tracked_session session;
    void *block = yyalloc(10, nullptr);
    ASSERT_NE(block, nullptr);
    memset(block, 1, 10);
    block = yyrealloc(block, 1000, nullptr);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(static_cast<char *>(block)[9], 1);
    EXPECT_TRUE(session.counts().empty());
    yyfree(block, nullptr);
    yyfree(nullptr, nullptr);
    block = yyrealloc(nullptr, 5, nullptr);
    ASSERT_NE(block, nullptr);
    yyfree(block, nullptr);
    EXPECT_EQ(tracked_session::faults, 0);
}

} // namespace
