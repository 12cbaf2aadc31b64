#include <qvlib/log.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <netdb.h>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captured_fd.h"
#include "failing_heap.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

namespace
{

// What the library did to the system log, in order.
std::vector<std::string> steps;
std::atomic<int> threaded_messages;
bool counts_only = false;
bool dev_log_exists = true;
const char *opened_ident;

std::string format(const char *fmt, va_list ap)
{
    char text[8192];
    va_list copy;
    va_copy(copy, ap);
    vsnprintf(text, sizeof text, fmt, copy);
    va_end(copy);
    return text;
}

} // namespace

// The test binary's own system log takes precedence over the C library's.
extern "C" {

void openlog(const char *ident, int options, int facility)
{
    opened_ident = ident;
    steps.push_back("openlog " + std::string(ident ? ident : "NULL") + " " + std::to_string(options) + " " +
                    std::to_string(facility));
}

void closelog(void)
{
    steps.push_back("closelog");
}

void vsyslog(int priority, const char *fmt, va_list ap)
{
    if (counts_only) {
        threaded_messages++;
        return;
    }
    steps.push_back("vsyslog " + std::to_string(priority) + " " + format(fmt, ap));
}

int stat(const char *path, struct stat *result)
{
    if (strcmp(path, "/dev/log") != 0)
        return fstatat(AT_FDCWD, path, result, 0);
    steps.push_back("stat /dev/log");
    if (dev_log_exists) {
        memset(result, 0, sizeof *result);
        return 0;
    }
    errno = ENOENT;
    return -1;
}
}

namespace
{

const char time_pattern[] = "[A-Z][a-z][a-z] [0-9 ][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] ";
constexpr size_t time_length = 16;

// Each console line without its time and line end.
std::vector<std::string> messages(const std::string &console)
{
    std::vector<std::string> result;
    for (size_t at = 0; at < console.size();) {
        const size_t end = console.find("\r\n", at);
        if (end == std::string::npos || end < at + time_length) {
            ADD_FAILURE() << "not a console line: " << console.substr(at);
            break;
        }
        result.push_back(console.substr(at + time_length, end - at - time_length));
        at = end + 2;
    }
    return result;
}

class Log : public testing::Test
{
  protected:
    Log()
    {
        forget();
    }
    ~Log() override
    {
        dev_log_exists = false;
        captured_stderr unseen;
        qv_log_init("log_test", 0, 0, 0, 0);
        forget();
    }
    static void forget()
    {
        steps.clear();
        dev_log_exists = true;
        counts_only = false;
    }
    // A console only, or the system log only, for messages up to `level`.
    static void start_console(int level)
    {
        dev_log_exists = false;
        captured_stderr unseen;
        qv_log_init("log_test", level, LOG_PERROR, LOG_USER, 0);
        steps.clear();
    }
    static void start_syslog(int level)
    {
        qv_log_init("log_test", level, 0, LOG_USER, 0);
        steps.clear();
    }
};

using LogLevel = Log;
using LogInit = Log;
using LogExit = Log;
using LogMessage = Log;
using LogConsole = Log;
using LogSyslog = Log;
using LogErrno = Log;
using LogGaiError = Log;
using LogHexDump = Log;
using LogUnformatted = Log;

// ---- Before qv_log_init

using LogBeforeItsStart = Log;

TEST_F(LogBeforeItsStart, SendsEveryMessageNowhere)
{
    captured_stderr console;
    for (int level = -1; level <= 8; level++)
        __qv_log(level, "text");
    EXPECT_EQ(console.text(), "");
    EXPECT_THAT(steps, IsEmpty());
}

// ---- Labels

TEST_F(LogLevel, LabelsTheSyslogPrioritiesAndTheTelnetLevel)
{
    const char *labels[] = {"EMERG", "ALERT", "CRITL", "ERROR", "WARNG", "NOTIC", "INFOR", "DEBUG", "TELNT"};
    for (int level = 0; level <= 8; level++)
        EXPECT_STREQ(log_level(level), labels[level]);
}

TEST_F(LogLevel, LabelsAnyOtherValueWithDashes)
{
    for (int level : {-1, 9, 23, 1000, -2147483647 - 1, 2147483647})
        EXPECT_STREQ(log_level(level), "-----");
}

// ---- qv_log_init, qv_log_exit, qv_log_setlevel

TEST_F(LogInit, LooksForTheSystemLogThenOpensItWithoutTheConsoleBit)
{
    qv_log_init("ident", 3, 0x3f, LOG_LOCAL3, 0);
    EXPECT_THAT(steps, ElementsAre("stat /dev/log", "openlog ident " + std::to_string(0x1f) + " " +
                                                        std::to_string(LOG_LOCAL3)));
}

TEST_F(LogInit, HandsTheCallersIdentToOpenlog)
{
    static const char ident[] = "kept";
    qv_log_init(ident, 3, LOG_PID, LOG_DAEMON, 0);
    EXPECT_EQ(opened_ident, ident);
}

TEST_F(LogInit, ReportsAMissingSystemLogByPerror)
{
    dev_log_exists = false;
    captured_stderr console;
    qv_log_init("ident", 3, 0, LOG_USER, 0);
    EXPECT_EQ(console.text(), "stat(\"/dev/log\"): No such file or directory\n");
    EXPECT_THAT(steps, ElementsAre("stat /dev/log"));
}

TEST_F(LogInit, LeavesTheSystemLogOffWhenItIsMissing)
{
    start_console(7);
    captured_stderr console;
    __qv_log(3, "text");
    EXPECT_THAT(steps, IsEmpty());
    EXPECT_THAT(messages(console.text()), ElementsAre("ERROR: text"));
}

TEST_F(LogInit, TurnsTheSystemLogOffWhenASecondCallFindsNone)
{
    start_syslog(7);
    start_console(7);
    captured_stderr console;
    __qv_log(3, "text");
    EXPECT_THAT(steps, IsEmpty());
}

TEST_F(LogInit, PassesANullIdentOn)
{
    qv_log_init(nullptr, 3, 0, LOG_USER, 0);
    EXPECT_THAT(steps, ElementsAre("stat /dev/log", "openlog NULL 0 8"));
}

TEST_F(LogExit, ClosesTheSystemLog)
{
    start_syslog(7);
    qv_log_exit();
    EXPECT_THAT(steps, ElementsAre("closelog"));
}

TEST_F(LogExit, LeavesEmergenciesToTheSystemLogAlone)
{
    qv_log_init("ident", 7, LOG_PERROR, LOG_USER, 0);
    qv_log_exit();
    steps.clear();
    captured_stderr console;
    __qv_log(0, "emergency %d", 1);
    __qv_log(1, "alert");
    __qv_log(7, "debug");
    EXPECT_THAT(steps, ElementsAre("vsyslog 0 emergency 1"));
    EXPECT_EQ(console.text(), "");
}

TEST_F(LogExit, SilencesEverythingWhenThereWasNoSystemLog)
{
    start_console(7);
    qv_log_exit();
    steps.clear();
    captured_stderr console;
    __qv_log(0, "emergency");
    EXPECT_THAT(steps, IsEmpty());
    EXPECT_EQ(console.text(), "");
}

TEST_F(LogExit, ClearsTheConsoleBitSoThatUnformattedTextIsShownAgain)
{
    start_console(7);
    qv_log_exit();
    captured_stderr console;
    qv_logc("shown");
    EXPECT_EQ(console.text(), "shown");
}

TEST_F(LogExit, MayBeCalledTwice)
{
    qv_log_exit();
    qv_log_exit();
    EXPECT_THAT(steps, ElementsAre("closelog", "closelog"));
}

TEST_F(LogLevel, CanBeChangedAtAnyTimeWithoutARangeCheck)
{
    start_syslog(3);
    qv_log_setlevel(7);
    __qv_log(7, "debug");
    qv_log_setlevel(1000);
    __qv_log(999, "beyond");
    qv_log_setlevel(-5);
    __qv_log(-5, "below");
    __qv_log(-4, "dropped");
    EXPECT_THAT(steps, ElementsAre("vsyslog 7 debug", "vsyslog 999 beyond", "vsyslog -5 below"));
}

TEST_F(LogLevel, IsTheOnlyThingThatSetlevelChanges)
{
    start_syslog(3);
    qv_log_setlevel(7);
    captured_stderr console;
    __qv_log(7, "debug");
    EXPECT_EQ(console.text(), "");
    EXPECT_THAT(steps, ElementsAre("vsyslog 7 debug"));
}

// ---- __qv_log

TEST_F(LogMessage, IsEmittedUpToTheConfiguredLevel)
{
    start_syslog(3);
    for (int level = 0; level <= 7; level++)
        __qv_log(level, "m%d", level);
    EXPECT_THAT(steps, ElementsAre("vsyslog 0 m0", "vsyslog 1 m1", "vsyslog 2 m2", "vsyslog 3 m3"));
}

TEST_F(LogMessage, AtTheTelnetLevelReachesNeitherConsoleNorSystemLog)
{
    qv_log_init("ident", 1000, LOG_PERROR, LOG_USER, 0);
    steps.clear();
    captured_stderr console;
    __qv_log(8, "text");
    EXPECT_THAT(steps, IsEmpty());
    EXPECT_EQ(console.text(), "");
}

TEST_F(LogMessage, WithANegativeLevelPassesTheLevelTest)
{
    qv_log_init("ident", 0, LOG_PERROR, LOG_USER, 0);
    steps.clear();
    captured_stderr console;
    __qv_log(-7, "text");
    EXPECT_THAT(steps, ElementsAre("vsyslog -7 text"));
    EXPECT_THAT(messages(console.text()), ElementsAre("-----: text"));
}

TEST_F(LogMessage, GoesToBothSinksFromItsOwnCopyOfTheArguments)
{
    qv_log_init("ident", 7, LOG_PERROR, LOG_USER, 0);
    steps.clear();
    captured_stderr console;
    __qv_log(4, "%s %d %s %g", "a", 1, "b", 2.5);
    EXPECT_THAT(messages(console.text()), ElementsAre("WARNG: a 1 b 2.5"));
    EXPECT_THAT(steps, ElementsAre("vsyslog 4 a 1 b 2.5"));
}

TEST_F(LogMessage, LongerThanTheLineBufferKeepsItsArgumentsForTheSystemLog)
{
    qv_log_init("ident", 7, LOG_PERROR, LOG_USER, 0);
    steps.clear();
    captured_stderr console;
    const std::string text(3000, 'x');
    __qv_log(4, "%s %d", text.c_str(), 77);
    EXPECT_THAT(messages(console.text()), ElementsAre("WARNG: " + text + " 77"));
    EXPECT_THAT(steps, ElementsAre("vsyslog 4 " + text + " 77"));
}

// Standard error fails with ENOSPC until this ends.
class full_stderr
{
  public:
    full_stderr() : kept_(dup(STDERR_FILENO))
    {
        const int full = open("/dev/full", O_WRONLY);
        dup2(full, STDERR_FILENO);
        close(full);
    }
    ~full_stderr()
    {
        dup2(kept_, STDERR_FILENO);
        clearerr(stderr);
        close(kept_);
    }
    full_stderr(const full_stderr &) = delete;
    full_stderr &operator=(const full_stderr &) = delete;

  private:
    int kept_;
};

TEST_F(LogMessage, LeavesErrnoAloneEvenWhenTheConsoleFails)
{
    start_console(7);
    int seen[3] = {};
    {
        const full_stderr console;
        errno = EXDEV;
        __qv_log(3, "text");
        seen[0] = errno;
        qv_errno("text");
        seen[1] = errno;
        qv_gaierror(EAI_AGAIN, "text");
        seen[2] = errno;
    }
    EXPECT_THAT(seen, ElementsAre(EXDEV, EXDEV, EXDEV));
}

TEST_F(LogMessage, ShowsTheCallersErrnoInTheSystemLogAfterAFailedConsole)
{
    qv_log_init("ident", 7, LOG_PERROR, LOG_USER, 0);
    steps.clear();
    {
        const full_stderr console;
        errno = EXDEV;
        __qv_log(3, "%m");
    }
    EXPECT_THAT(steps, ElementsAre("vsyslog 3 Invalid cross-device link"));
}

TEST_F(LogMessage, ShowsTheCallersErrnoInEverySink)
{
    qv_log_init("ident", 7, LOG_PERROR, LOG_USER, 0);
    steps.clear();
    captured_stderr console;
    errno = EXDEV;
    __qv_log(3, "%m");
    EXPECT_THAT(messages(console.text()), ElementsAre("ERROR: Invalid cross-device link"));
    EXPECT_THAT(steps, ElementsAre("vsyslog 3 Invalid cross-device link"));
}

TEST_F(LogMessage, WithoutAFormatIsDropped)
{
    qv_log_init("ident", 7, LOG_PERROR, LOG_USER, 0);
    steps.clear();
    captured_stderr console;
    const char *none = nullptr;
    __qv_log(3, none, 0);
    qv_errno(none, 0);
    EXPECT_EQ(console.text(), "");
    EXPECT_THAT(steps, IsEmpty());
}

// ---- Console

TEST_F(LogConsole, WritesTimeLabelTextAndCrLf)
{
    start_console(7);
    captured_stderr console;
    __qv_log(6, "%s", "text");
    EXPECT_THAT(console.text(), MatchesRegex(std::string(time_pattern) + "INFOR: text\r\n"));
}

TEST_F(LogConsole, ShowsTheTimeAsUtcWhateverTheLocalTimeZone)
{
    const std::string kept = getenv("TZ") ? getenv("TZ") : "";
    setenv("TZ", "ABC-11:30", 1);
    tzset();
    start_console(7);
    std::string line, expected;
    time_t before;
    do { // until the second did not change in between
        captured_stderr console;
        before = time(nullptr);
        __qv_log(3, "text");
        line = console.text();
    } while (time(nullptr) != before);
    char text[32];
    tm utc = {};
    gmtime_r(&before, &utc);
    strftime(text, sizeof text, "%b %d %T", &utc);
    EXPECT_THAT(line, StartsWith(text));
    if (kept.empty())
        unsetenv("TZ");
    else
        setenv("TZ", kept.c_str(), 1);
    tzset();
}

TEST_F(LogConsole, StaysSilentWithoutItsOptionBit)
{
    start_syslog(7);
    captured_stderr console;
    __qv_log(3, "text");
    EXPECT_EQ(console.text(), "");
}

TEST_F(LogConsole, WritesMessagesOfAnyLengthWhole)
{
    start_console(7);
    for (size_t length = 990; length < 1030; length++) {
        captured_stderr console;
        const std::string text(length, 'x');
        __qv_log(3, "%s", text.c_str());
        ASSERT_THAT(messages(console.text()), ElementsAre("ERROR: " + text));
    }
    captured_stderr console;
    const std::string text(1000000, 'x');
    __qv_log(3, "%s", text.c_str());
    ASSERT_THAT(messages(console.text()), ElementsAre("ERROR: " + text));
}

TEST_F(LogConsole, StillEndsTheLineOfATextThatCannotBeFormatted)
{
    start_console(7);
    captured_stderr console;
    __qv_log(3, "%lc", static_cast<wint_t>(0x7fffffff));
    EXPECT_THAT(console.text(), EndsWith("ERROR: \r\n"));
}

TEST_F(LogConsole, IgnoresItsWriteErrors)
{
    start_console(7);
    {
        const full_stderr full;
        __qv_log(3, "lost");
    }
    captured_stderr console;
    __qv_log(3, "shown");
    EXPECT_THAT(messages(console.text()), ElementsAre("ERROR: shown"));
}

TEST_F(LogConsole, KeepsLinesOfDifferentThreadsApart)
{
    start_console(7);
    captured_stderr console;
    const std::string short_text(100, 's'), long_text(2000, 'l');
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&] {
            for (int k = 0; k < 50; k++)
                __qv_log(3, "%s", k % 2 ? short_text.c_str() : long_text.c_str());
        });
    for (std::thread &thread : threads)
        thread.join();
    const auto lines = messages(console.text());
    EXPECT_EQ(lines.size(), 400u);
    for (const std::string &line : lines)
        ASSERT_TRUE(line == "ERROR: " + short_text || line == "ERROR: " + long_text) << line;
}

TEST_F(LogSyslog, TakesMessagesFromAnyThreadWhileTheLevelChanges)
{
    start_syslog(3);
    counts_only = true;
    threaded_messages = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([] {
            for (int k = 0; k < 200; k++) {
                errno = ENOENT;
                qv_errno("thread");
            }
        });
    threads.emplace_back([] {
        for (int k = 0; k < 200; k++)
            qv_log_setlevel(3 + k % 5);
    });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(threaded_messages, 800);
}

// ---- qv_logc

TEST_F(LogUnformatted, TextIsWrittenAsItStandsWhenTheLibraryDoesNotEcho)
{
    start_syslog(-100);
    captured_stderr console;
    qv_logc("a%db", 1);
    EXPECT_EQ(console.text(), "a1b");
    EXPECT_THAT(steps, IsEmpty());
}

TEST_F(LogUnformatted, TextIsSuppressedWhileTheLibraryEchoes)
{
    start_console(7);
    captured_stderr console;
    qv_logc("text");
    EXPECT_EQ(console.text(), "");
}

TEST_F(LogUnformatted, TextIsWrittenWithoutAnySink)
{
    dev_log_exists = false;
    {
        captured_stderr unseen;
        qv_log_init("ident", 0, LOG_PID | LOG_CONS | LOG_ODELAY | LOG_NDELAY | LOG_NOWAIT, 0, 0);
    }
    captured_stderr console;
    qv_logc("%s", "text\n");
    EXPECT_EQ(console.text(), "text\n");
}

TEST_F(LogUnformatted, TextWithoutAFormatIsNothing)
{
    start_syslog(7);
    captured_stderr console;
    const char *none = nullptr;
    qv_logc(none, 0);
    EXPECT_EQ(console.text(), "");
}

// ---- qv_errno, qv_gaierror

TEST_F(LogErrno, AddsTextAndNumberOfErrnoAtTheErrorLevel)
{
    start_syslog(3);
    errno = EMFILE;
    qv_errno("%s: socket", "__qvsock_listen");
    EXPECT_THAT(steps, ElementsAre("vsyslog 3 __qvsock_listen: socket: Too many open files (24)"));
}

TEST_F(LogErrno, TakesPercentSignsOfTheTextAsTheyStand)
{
    start_syslog(3);
    errno = ENOENT;
    qv_errno("%s", "100%s%n");
    EXPECT_THAT(steps, ElementsAre("vsyslog 3 100%s%n: No such file or directory (2)"));
}

TEST_F(LogErrno, ReportsErrnoZeroToo)
{
    start_syslog(3);
    errno = 0;
    qv_errno("x");
    EXPECT_THAT(steps, ElementsAre("vsyslog 3 x: Success (0)"));
}

TEST_F(LogErrno, IsDroppedBelowTheErrorLevel)
{
    start_syslog(2);
    qv_errno("x");
    EXPECT_THAT(steps, IsEmpty());
}

TEST_F(LogErrno, LogsNothingWhenTheTextCannotBeAllocated)
{
    start_syslog(7);
    errno = ENOENT;
    {
        const failing_heap::after none(0, failing_heap::all_calls, true);
        qv_errno("text");
        qv_gaierror(EAI_AGAIN, "text");
    }
    EXPECT_THAT(steps, IsEmpty());
}

TEST_F(LogErrno, LogsNothingWhenTheTextCannotBeFormatted)
{
    start_syslog(7);
    qv_errno("%lc", static_cast<wint_t>(0x7fffffff));
    EXPECT_THAT(steps, IsEmpty());
}

TEST_F(LogGaiError, ReportsErrnoForASystemError)
{
    start_syslog(3);
    errno = ECONNREFUSED;
    qv_gaierror(-11, "%s: lookup", "f");
    EXPECT_THAT(steps, ElementsAre("vsyslog 3 f: lookup: Connection refused (111)"));
}

TEST_F(LogGaiError, ReportsTheResolversTextAndTheCodeItself)
{
    start_syslog(3);
    errno = ECONNREFUSED;
    qv_gaierror(EAI_NONAME, "f");
    qv_gaierror(-12345, "f");
    EXPECT_THAT(steps, ElementsAre("vsyslog 3 f: " + std::string(gai_strerror(-2)) + " (-2)",
                                   "vsyslog 3 f: " + std::string(gai_strerror(-12345)) + " (-12345)"));
}

// ---- __qv_loghex_line

const char hex_header[] = "vsyslog 5 **Hex Dump******"
                          "****************************************";
const char flipped_header[] = "vsyslog 5 **Endian Flipped"
                              "****************************************";

std::string bytes_from(unsigned char first, size_t count)
{
    std::string bytes(count, '\0');
    for (size_t i = 0; i < count; i++)
        bytes[i] = static_cast<char>(first + i);
    return bytes;
}

TEST_F(LogHexDump, ShowsOffsetBytesAndCharacters)
{
    start_syslog(7);
    const std::string bytes = std::string(32, '\0') + bytes_from(0x41, 16);
    __qv_loghex_line(5, bytes.data(), bytes.size(), 16, 0);
    EXPECT_THAT(
        steps,
        ElementsAre(hex_header,
                    "vsyslog 5 0000: 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00  ........ ........",
                    "vsyslog 5 0010: 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00  ........ ........",
                    "vsyslog 5 0020: 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50  ABCDEFGH IJKLMNOP"));
}

TEST_F(LogHexDump, OfNothingLogsTheHeaderOnly)
{
    start_syslog(7);
    __qv_loghex_line(5, "x", 0, 16, 0);
    __qv_loghex_line(5, nullptr, 0, 16, 1);
    EXPECT_THAT(steps, ElementsAre(hex_header, flipped_header));
}

TEST_F(LogHexDump, AlignsTheTextOfAShortLastLine)
{
    start_syslog(7);
    const std::string bytes = bytes_from(0x41, 20);
    __qv_loghex_line(5, bytes.data(), bytes.size(), 16, 0);
    EXPECT_THAT(
        steps,
        ElementsAre(hex_header,
                    "vsyslog 5 0000: 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50  ABCDEFGH IJKLMNOP",
                    "vsyslog 5 0010: 51 52 53 54 " + std::string(36, ' ') + " QRST"));
}

TEST_F(LogHexDump, ReversesTheBytesOfEachLineWhenFlipping)
{
    start_syslog(7);
    const std::string bytes = bytes_from(0x41, 16);
    __qv_loghex_line(5, bytes.data(), bytes.size(), 8, 7);
    EXPECT_THAT(steps, ElementsAre(flipped_header, "vsyslog 5 0000: 48 47 46 45 44 43 42 41  HGFEDCBA ",
                                   "vsyslog 5 0008: 50 4f 4e 4d 4c 4b 4a 49  PONMLKJI "));
}

TEST_F(LogHexDump, CountsDownFromTheWidthOnAShortFlippedLineToo)
{
    start_syslog(7);
    const std::string bytes = bytes_from(0x41, 16);
    __qv_loghex_line(5, bytes.data(), 10, 8, 1);
    EXPECT_THAT(steps, ElementsAre(flipped_header, "vsyslog 5 0000: 48 47 46 45 44 43 42 41  HGFEDCBA ",
                                   "vsyslog 5 0008: 50 4f " + std::string(18, ' ') + " PO"));
}

TEST_F(LogHexDump, ShowsADotForWhatAsciiCannotPrint)
{
    start_syslog(7);
    const unsigned char bytes[] = {0x1f, 0x20, 0x7e, 0x7f, 0x80, 0xff, '%', '\n'};
    __qv_loghex_line(5, bytes, sizeof bytes, 8, 0);
    EXPECT_THAT(steps, ElementsAre(hex_header, "vsyslog 5 0000: 1f 20 7e 7f 80 ff 25 0a  . ~...%. "));
}

TEST_F(LogHexDump, PrintsLargeOffsetsWithMoreDigits)
{
    start_syslog(7);
    const std::string bytes(0x10001, 'a');
    __qv_loghex_line(5, bytes.data(), bytes.size(), 16, 0);
    EXPECT_EQ(steps.size(), 1u + 0x1001u);
    EXPECT_THAT(steps.at(0x1000), StartsWith("vsyslog 5 fff0: 61 "));
    EXPECT_THAT(steps.back(), StartsWith("vsyslog 5 10000: 61 "));
}

TEST_F(LogHexDump, RunsSilentlyAtLevel23)
{
    start_syslog(1000);
    const std::string bytes = bytes_from(0, 64);
    __qv_loghex_line(23, bytes.data(), bytes.size(), 16, 0);
    EXPECT_THAT(steps, IsEmpty());
    __qv_loghex_line(22, bytes.data(), bytes.size(), 16, 0);
    EXPECT_EQ(steps.size(), 5u);
}

TEST_F(LogHexDump, TakesAWidthOfThirtyWhole)
{
    start_syslog(7);
    const std::string bytes(30, 'a');
    __qv_loghex_line(5, bytes.data(), bytes.size(), 30, 0);
    std::string hex, text;
    for (int i = 0; i < 30; i++) {
        hex += "61 ";
        text += i == 7 ? "a " : "a";
    }
    EXPECT_THAT(steps, ElementsAre(hex_header, "vsyslog 5 0000: " + hex + " " + text));
}

TEST_F(LogHexDump, TakesAWidthOfOne)
{
    start_syslog(7);
    __qv_loghex_line(5, "ab", 2, 1, 1);
    EXPECT_THAT(steps, ElementsAre(flipped_header, "vsyslog 5 0000: 61  a", "vsyslog 5 0001: 62  b"));
}

TEST_F(LogHexDump, LogsTheHeaderAloneForAWidthOfZeroOrAMissingBuffer)
{
    start_syslog(7);
    __qv_loghex_line(5, "ab", 2, 0, 0);
    __qv_loghex_line(5, nullptr, 2, 16, 0);
    EXPECT_THAT(steps, ElementsAre(hex_header, hex_header));
}

TEST_F(LogHexDump, CountsDownFromTheWidthUpToThirty)
{
    start_syslog(7);
    const std::string bytes = bytes_from(0x41, 60);
    for (const size_t width : {size_t{29}, size_t{30}}) {
        steps.clear();
        __qv_loghex_line(5, bytes.data(), width + 1, width, 1);
        EXPECT_THAT(steps, ElementsAre(flipped_header, testing::_,
                                       testing::EndsWith(std::string("  ") + bytes[2 * width - 1])));
    }
}

TEST_F(LogHexDump, CutsLinesOfAnExcessiveWidth)
{
    start_syslog(7);
    const std::string bytes(5000, 'a');
    for (size_t width : {size_t{31}, size_t{64}, size_t{4096}, SIZE_MAX / 2 + 1, SIZE_MAX}) {
        for (int flip : {0, 1}) {
            steps.clear();
            __qv_loghex_line(5, bytes.data(), bytes.size(), width, flip);
            const size_t lines = width > bytes.size() ? 1 : (bytes.size() + width - 1) / width;
            EXPECT_EQ(steps.size(), 1 + lines);
            for (const std::string &line : steps)
                EXPECT_LE(line.size(), 160 + strlen("vsyslog 5 "));
        }
    }
}

TEST_F(LogHexDump, MacroPassesAWidthOfSixteen)
{
    start_syslog(7);
    qv_loghex(5, "ABCDEFGHIJKLMNOPQ", 17);
    EXPECT_EQ(steps.size(), 3u);
    EXPECT_THAT(steps.back(), StartsWith("vsyslog 5 0010: 51 "));
}

} // namespace
