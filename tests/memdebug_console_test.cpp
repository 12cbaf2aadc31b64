#include "memdebug.h"

#include <qvlib/log.h>
#include <qvlib/memcheck.h>
#include <qvlib/strings.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <memory>
#include <pthread.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captured_fd.h"
#include "failing_heap.h"
#include "listener_peers.h"
#include "machine.h"

using failing_calls::any;
using failing_calls::failing;
using failing_calls::fails;
using peers::client;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

extern "C" {

int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                          void *arg);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                          void *arg);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                          void *arg)
{
    return fails("pthread_create") ? errno : __real_pthread_create(thread, attributes, body, arg);
}
}

namespace
{

std::atomic<int> faults, last_code;
std::atomic<void (*)()> on_fault;

void noting_hook(int code)
{
    last_code = code;
    faults++;
    if (auto *also = on_fault.load())
        also();
}

// What a terminal shows of what was written to it; row 0 is the first.
class screen
{
  public:
    explicit screen(const std::string &text)
    {
        size_t row = 0, column = 0;
        for (size_t at = 0; at < text.size();) {
            if (text[at] == '\r') {
                column = 0;
                at++;
            } else if (text[at] != '\033') {
                std::string &line = rows_[std::min(row, rows_.size() - 1)];
                line.resize(std::max(line.size(), column + 1), ' ');
                line[column++] = text[at++];
            } else {
                size_t end = at + 2;
                while (end < text.size() && isdigit(static_cast<unsigned char>(text[end])))
                    end++;
                const std::string number = text.substr(at + 2, end - at - 2);
                const char command = end < text.size() ? text[end] : ' ';
                if (command == 'J')
                    rows_.fill("");
                else if (command == 'H')
                    row = column = 0;
                else if (command == 'B')
                    row += number.empty() ? 1 : std::stoul(number);
                else if (command == 'K')
                    rows_[std::min(row, rows_.size() - 1)].clear();
                at = end + 1;
            }
        }
    }
    const std::string &line(int number) const
    {
        return rows_[static_cast<size_t>(number + 3)];
    }

  private:
    std::array<std::string, 64> rows_;
};

void *block_of(size_t size, const char *func, unsigned int line = 1)
{
    return qv_memcheck_malloc(malloc, size, func, line);
}

void release(void *block)
{
    qv_memcheck_free(qv_free, block, "test:1");
}

// SIGUSR1 interrupts what blocks, as the library asks of its host.
void interrupt_calls(int flags = 0)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    action.sa_flags = flags;
    sigaction(SIGUSR1, &action, nullptr);
}

void start_console_log(int level)
{
    const captured_stderr unseen;
    qv_log_init("memdebug_console_test", level, 0x20, 0, 0);
}

class MemdebugConsole : public testing::Test
{
  protected:
    MemdebugConsole() : descriptors_(peers::descriptors()), port_(peers::free_port())
    {
        faults = 0;
        last_code = 0;
        on_fault = nullptr;
        interrupt_calls();
        start_console_log(QV_LOG_INFO);
        service_ = std::to_string(port_);
    }
    ~MemdebugConsole() override
    {
        {
            const captured_stderr unseen;
            qv_memcheck_stop();
        }
        qv_log_setlevel(-1);
        EXPECT_EQ(qv::running_session(), nullptr);
        peers::close_taken_at(port_); // the stop leaves them on purpose
        EXPECT_EQ(peers::descriptors(), descriptors_);
        EXPECT_TRUE(peers::eventually([] { return peers::threads_named("qvl-memdebug") == 0; }));
    }
    // A console that is a file in memory.
    void start()
    {
        const captured_stderr unseen;
        console_.clear();
        ASSERT_EQ(qv_memcheck_start(nullptr, console_.fd(), noting_hook), 0);
        ASSERT_TRUE(peers::eventually([&] { return console_.text().find("\033[2J") != std::string::npos; }));
    }
    // A console for clients.
    void listen()
    {
        const captured_stderr unseen;
        ASSERT_EQ(qv_memcheck_start(service_.c_str(), 0, noting_hook), 0);
    }
    static void stop()
    {
        const captured_stderr unseen;
        ASSERT_EQ(qv_memcheck_stop(), 0);
    }
    screen shown() const
    {
        return screen(console_.text());
    }
    bool line_becomes(int line, const std::string &text) const
    {
        return peers::eventually([&] { return shown().line(line) == text; });
    }

  private:
    const memory_file console_;
    const int descriptors_;

  protected:
    const unsigned int port_;
    std::string service_;
};

using MemdebugChecker = MemdebugConsole;
using MemdebugTable = MemdebugConsole;
using MemdebugStart = MemdebugConsole;
using MemdebugStop = MemdebugConsole;
using MemdebugClients = MemdebugConsole;
using MemdebugThreads = MemdebugConsole;

// ---- Start and stop

TEST_F(MemdebugStart, LogsThatItStartsAndRunsTheChecker)
{
    const captured_stderr log;
    ASSERT_EQ(qv_memcheck_start(nullptr, STDERR_FILENO + 100, nullptr), 0);
    EXPECT_THAT(log.text(), HasSubstr("INFOR: Starting memory debug\r\n"));
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("qvl-memdebug") == 1; }));
    stop();
}

TEST_F(MemdebugStart, ClearsTheScreen)
{
    start();
    EXPECT_TRUE(line_becomes(-3, "=== Quaverlight Memory Debugger ==="));
    stop();
}

TEST_F(MemdebugStart, IgnoresEndedChildren)
{
    signal(SIGCHLD, SIG_DFL);
    start();
    EXPECT_TRUE(peers::eventually([] {
        struct sigaction action;
        sigaction(SIGCHLD, nullptr, &action);
        return action.sa_handler == SIG_IGN;
    }));
    stop();
    signal(SIGCHLD, SIG_DFL);
}

// The listener looks at it later.
TEST_F(MemdebugStart, NeedsItsServiceNoLongerOnceItHasReturned)
{
    const captured_stderr unseen;
    std::string service = service_;
    ASSERT_EQ(qv_memcheck_start(service.c_str(), 0, noting_hook), 0);
    service.assign(service.size(), '9');
    EXPECT_TRUE(peers::eventually([&] { return client(port_).is_connected(); }));
    EXPECT_EQ(qv_memcheck_stop(), 0);
}

TEST_F(MemdebugStart, FailsWhenMemoryIsShort)
{
    const failing_heap::after failing(0);
    EXPECT_EQ(qv_memcheck_start(nullptr, 0, noting_hook), -1);
    EXPECT_EQ(qv::running_session(), nullptr);
}

TEST_F(MemdebugStart, FailsWithoutAListenerThreadAndStillTracks)
{
    const captured_stderr log;
    const failing threads("pthread_create", EAGAIN);
    EXPECT_EQ(qv_memcheck_start(service_.c_str(), 0, noting_hook), -1);
    EXPECT_THAT(log.text(), HasSubstr("ERROR: qv_memcheck_start Unable to create listener thread: "
                                      "Resource temporarily unavailable (11)\r\n"));
    EXPECT_NE(qv::running_session(), nullptr);
    EXPECT_EQ(qv_memcheck_stop(), 0);
}

TEST_F(MemdebugStart, FailsWithoutACheckerThreadAndStillTracks)
{
    for (const char *service : {static_cast<const char *>(nullptr), service_.c_str()}) {
        const captured_stderr log;
        const failing threads("pthread_create", EAGAIN, any, service ? 1 : 0);
        errno = 0;
        EXPECT_EQ(qv_memcheck_start(service, 0, noting_hook), -1);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_THAT(log.text(), HasSubstr("ERROR: qv_memcheck_start Unable to create thread: Resource "
                                          "temporarily unavailable (11)\r\n"));
        EXPECT_NE(qv::running_session(), nullptr);
        EXPECT_EQ(qv_memcheck_stop(), 0);
    }
}

TEST_F(MemdebugStart, CanFollowAStop)
{
    for (int i = 0; i < 3; i++) {
        start();
        void *block = block_of(12, "again");
        EXPECT_TRUE(line_becomes(-1, "Total Allocations: 00001"));
        release(block);
        stop();
    }
    EXPECT_EQ(faults, 0);
}

TEST_F(MemdebugStop, FailsWithoutASession)
{
    EXPECT_EQ(qv_memcheck_stop(), -1);
}

TEST_F(MemdebugStop, LogsEachFunctionTheFullestFirst)
{
    start();
    void *blocks[] = {block_of(10, "one"), block_of(20, "two"), block_of(30, "two")};
    const captured_stderr log;
    EXPECT_EQ(qv_memcheck_stop(), 0);
    EXPECT_THAT(log.text(), MatchesRegex(".*INFOR: Total:   50 Ave:   25 Func:  two\r\n.*"
                                         "INFOR: Total:   10 Ave:   10 Func:  one\r\n"));
    for (void *block : blocks)
        free(static_cast<char *>(block) - 4);
}

TEST_F(MemdebugStop, DrawsTheTableALastTime)
{
    start();
    void *block = block_of(16, "maker");
    stop();
    const screen last = shown();
    EXPECT_EQ(last.line(-3), "=== Quaverlight Memory Debugger ===");
    EXPECT_EQ(last.line(0), "Count 1 \tAve Size:16\t:maker");
    EXPECT_EQ(last.line(28), "");
    EXPECT_EQ(last.line(29), "============= MemDebug Complete =============");
    EXPECT_EQ(last.line(33), "------------------------------------DEBUG-----------------------------------"
                             "-");
    free(block);
}

TEST_F(MemdebugStop, PutsItsHeaderInFrontOfTheTable)
{
    const memory_file console;
    const captured_stderr unseen;
    ASSERT_EQ(qv_memcheck_start(nullptr, console.fd(), noting_hook), 0);
    ASSERT_EQ(qv_memcheck_stop(), 0);
    EXPECT_THAT(console.text(),
                HasSubstr("\033[H\033[3B\r\033[K=============== MemDebug  Top ===============\033[45B\r"
                          "\033[H\033[H\033[0B\r\033[K=== Quaverlight Memory Debugger ===\033[48B\r"));
}

TEST_F(MemdebugStop, LeavesPlainAllocation)
{
    start();
    stop();
    void *block = qv_memcheck_malloc(malloc, 12, "plain", 1);
    block = qv_memcheck_realloc(block, 100, "plain", 1);
    EXPECT_EQ(qv_memcheck_free(qv_free, block, "w"), 0);
    EXPECT_EQ(gotoline(1, "x"), -1);
    EXPECT_EQ(faults, 0);
}

TEST_F(MemdebugStop, LeavesTheTextOfAThreadThatLogsMeanwhile)
{
    start();
    char *text = nullptr;
    EXPECT_EQ(__qv_asprintf(&text, qv::log_text_owner, 262, "%s", "a text of the log"), 17);
    stop();
    EXPECT_STREQ(text, "a text of the log");
    EXPECT_EQ(qv_memcheck_free(qv_free, text, "log"), 0);
}

TEST_F(MemdebugStop, NeedsNoHandlerForTheSignal)
{
    signal(SIGUSR1, SIG_DFL);
    listen();
    stop();
    signal(SIGUSR1, SIG_IGN);
    listen();
    stop();
    interrupt_calls(SA_RESTART);
    listen();
    client peer(port_);
    stop();
    interrupt_calls();
}

// The log's feed, for as long as it lives.
class log_feed
{
  public:
    log_feed()
    {
        const captured_stderr unseen;
        qv_log_init("memdebug_console_test", QV_LOG_INFO, 0x20, 0, port_);
    }
    ~log_feed()
    {
        qv_log_exit();
        start_console_log(QV_LOG_INFO);
    }
    log_feed(const log_feed &) = delete;
    log_feed &operator=(const log_feed &) = delete;

    unsigned int port() const
    {
        return port_;
    }
    static bool reaches(const client &peer)
    {
        return peers::eventually([&] {
            qv_log(QV_LOG_TELNET, "awaited");
            return peer.has_input(5);
        });
    }

  private:
    const unsigned int port_ = peers::free_port();
};

TEST_F(MemdebugStop, IsNotDelayedByAFeedClientThatNeverReads)
{
    const log_feed feed;
    client stuck(feed.port(), 1024), reader(feed.port());
    ASSERT_TRUE(feed.reaches(stuck));
    ASSERT_TRUE(feed.reaches(reader));
    for (const bool with_clients : {false, true}) {
        with_clients ? listen() : start();
        void *blocks[] = {block_of(16, "one"), block_of(16, "two"), block_of(32, "two")};
        if (!with_clients)
            peers::fill_up(stuck);
        const auto began = std::chrono::steady_clock::now();
        stop();
        EXPECT_LT(peers::seconds_since(began), 1);
        const std::string &text = reader.read_until("Func:  one\n");
        EXPECT_THAT(text, AllOf(HasSubstr("INFOR: Total:   48 Ave:   24 Func:  two\n"),
                                HasSubstr("INFOR: Total:   16 Ave:   16 Func:  one\n")));
        reader.text().clear();
        for (void *block : blocks)
            free(block);
    }
    EXPECT_EQ(peers::other_end(stuck), -1); // dropped
}

TEST_F(MemdebugStop, IsNotDelayedByAThreadThatWaitsForAFeedClient)
{
    const log_feed feed;
    client stuck(feed.port(), 1024), reader(feed.port());
    ASSERT_TRUE(feed.reaches(stuck));
    ASSERT_TRUE(feed.reaches(reader));
    start();
    void *block = block_of(16, "one");
    peers::fill_up(stuck);
    std::thread waiting([] { qv_log(QV_LOG_TELNET, "waited"); });
    peers::sleep_us(50000);
    const auto began = std::chrono::steady_clock::now();
    stop();
    EXPECT_LT(peers::seconds_since(began), 1);
    waiting.join();
    EXPECT_THAT(reader.read_until("Func:  one\n"), HasSubstr("TELNT: waited\n"));
    EXPECT_THAT(reader.text(), EndsWith("Func:  one\n"));
    free(block);
}

// Of a terminal, nobody reads the other end.
TEST_F(MemdebugStop, IsNotDelayedByATerminalThatTakesNothing)
{
    const int other_end = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_TRUE(other_end >= 0 && grantpt(other_end) == 0 && unlockpt(other_end) == 0);
    const int terminal = open(ptsname(other_end), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal, 0);
    std::atomic<bool> done = false;
    std::thread stuck([&] {
        const captured_stderr unseen;
        EXPECT_EQ(qv_memcheck_start(nullptr, terminal, noting_hook), 0);
        for (int i = 0; i < 3000; i++)
            release(block_of(12, "f"));
        const auto began = std::chrono::steady_clock::now();
        EXPECT_EQ(qv_memcheck_stop(), 0);
        EXPECT_LT(peers::seconds_since(began), 1);
        done = true;
    });
    EXPECT_TRUE(peers::eventually([&] { return done.load(); }));
    close(other_end); // ends a write that waits for ever
    stuck.join();
    close(terminal);
}

// The allocator of a thread that is inside the session for long.
TEST_F(MemdebugStop, ReleasesTheSession)
{
    const size_t rounds = 16;
    size_t in_use[2]; // the first rounds fill what the C library keeps of threads
    for (size_t &after : in_use) {
        for (size_t i = 0; i < rounds; i++) {
            start();
            release(block_of(12, "f"));
            stop();
        }
        after = mallinfo2().uordblks;
    }
    EXPECT_LT(in_use[1], in_use[0] + rounds * 16);
}

std::atomic<int> inside; // 1 while the allocator waits, 2 lets it go on

void *slow_malloc(size_t size)
{
    inside = 1;
    peers::eventually([] { return inside == 2; });
    return malloc(size);
}

TEST_F(MemdebugStop, DoesNotWaitForAThreadThatStaysInside)
{
    start();
    inside = 0;
    void *block = nullptr;
    std::thread slow([&] { block = qv_memcheck_malloc(slow_malloc, 16, "slow", 1); });
    ASSERT_TRUE(peers::eventually([] { return inside == 1; }));
    const auto began = std::chrono::steady_clock::now();
    stop();
    EXPECT_LT(peers::seconds_since(began), slowness);
    inside = 2;
    slow.join(); // uses the session's table, which must still be there
    EXPECT_NE(block, nullptr);
    free(block);
    start(); // a later stop releases it
    stop();
}

TEST_F(MemdebugStop, KeepsEverySessionThatAThreadMayBeInside)
{
    start();
    inside = 0;
    void *block = nullptr;
    std::thread slow([&] { block = qv_memcheck_malloc(slow_malloc, 16, "slow", 1); });
    ASSERT_TRUE(peers::eventually([] { return inside == 1; }));
    stop();
    start();
    stop();
    inside = 2;
    slow.join();
    EXPECT_NE(block, nullptr);
    free(block);
    start(); // a later stop releases both
    stop();
}

std::atomic<int> stop_result, stop_error;

void stop_in_hook()
{
    errno = 0;
    stop_result = qv_memcheck_stop();
    stop_error = errno;
}

TEST_F(MemdebugStop, IsRefusedInTheCheckersOwnThread)
{
    on_fault = stop_in_hook;
    stop_result = 1;
    start();
    auto *block = static_cast<unsigned char *>(block_of(12, "f"));
    block[12] ^= 1;
    EXPECT_TRUE(peers::eventually([] { return stop_result != 1; }));
    EXPECT_EQ(stop_result, -1);
    EXPECT_EQ(stop_error, EDEADLK);
    release(block);
    stop();
}

TEST_F(MemdebugStop, MayComeFromTheHookOfARelease)
{
    start();
    on_fault = stop_in_hook;
    stop_result = 1;
    const captured_stderr unseen;
    EXPECT_EQ(qv_memcheck_free(qv_free, nullptr, "w"), 0);
    EXPECT_EQ(stop_result, 0);
    EXPECT_EQ(qv::running_session(), nullptr);
    on_fault = nullptr;
    start(); // a later stop releases the session
    stop();
}

// ---- The checker

TEST_F(MemdebugChecker, ReportsADamagedTrailingMarkerOnceWithTheLeadingBytes)
{
    start();
    auto *block = static_cast<unsigned char *>(block_of(12, "writer", 77));
    block[12] ^= 1;
    ASSERT_TRUE(peers::eventually([] { return faults == 1; }));
    EXPECT_EQ(last_code, -1);
    const uint16_t order = 1;
    const bool big_endian = *reinterpret_cast<const unsigned char *>(&order) == 0;
    EXPECT_EQ(shown().line(-2), std::string("writer LINE:77, Size:12 PostMarker:") +
                                    (big_endian ? "0xdeadbeef" : "0xefbeadde"));
    peers::sleep_us(50000);
    EXPECT_EQ(faults, 1);
    release(block);
    stop();
}

TEST_F(MemdebugChecker, ReportsADamagedLeadingMarkerFirst)
{
    start();
    auto *block = static_cast<unsigned char *>(block_of(12, "writer", 77));
    {
        const qv::table_guard unchecked(qv::running_session());
        memcpy(block - 4, "\x01\x02\x03\x04", 4);
        block[12] ^= 1;
    }
    ASSERT_TRUE(peers::eventually([] { return faults == 1; }));
    EXPECT_EQ(shown().line(-2), "writer LINE:77, Size:12 PreMarker:0x01020304");
    release(block);
    stop();
}

TEST_F(MemdebugChecker, ReportsEveryDamagedBlock)
{
    start();
    std::vector<unsigned char *> blocks;
    for (int i = 0; i < 3000; i++) {
        blocks.push_back(static_cast<unsigned char *>(block_of(12, i % 2 ? "odd" : "even")));
        if (i % 100 == 0)
            blocks.back()[12] ^= 1;
    }
    EXPECT_TRUE(peers::eventually([] { return faults == 30; }));
    for (unsigned char *block : blocks)
        release(block);
    stop();
    EXPECT_EQ(faults, 30);
}

TEST_F(MemdebugChecker, SeesDamageThatWasDoneJustBeforeTheStop)
{
    start();
    auto *block = static_cast<unsigned char *>(block_of(12, "late"));
    block[12] ^= 1;
    stop();
    EXPECT_EQ(faults, 1);
    free(block - 4);
}

void allocate_in_hook()
{
    release(block_of(24, "hook"));
}

TEST_F(MemdebugChecker, HoldsNoLockWhileTheHookRuns)
{
    start();
    on_fault = allocate_in_hook;
    auto *block = static_cast<unsigned char *>(block_of(12, "f"));
    block[12] ^= 1;
    EXPECT_TRUE(peers::eventually([] { return faults == 1; }));
    release(block);
    stop();
}

std::atomic<void *> block_of_hook;

void release_in_hook()
{
    if (void *block = block_of_hook.exchange(nullptr))
        release(block);
}

TEST_F(MemdebugChecker, GoesOnBehindAFunctionWhoseLastBlockTheHookReleases)
{
    start();
    auto *later = static_cast<unsigned char *>(block_of(12, "later"));
    auto *first = static_cast<unsigned char *>(block_of(12, "first"));
    block_of_hook = first;
    on_fault = release_in_hook;
    {
        const qv::table_guard unchecked(qv::running_session());
        first[12] ^= 1;
        later[12] ^= 1;
    }
    EXPECT_TRUE(peers::eventually([] { return faults == 2; }));
    EXPECT_THAT(shown().line(-2), StartsWith("later LINE:1, Size:12 PostMarker:"));
    release(later);
    stop();
}

TEST_F(MemdebugChecker, LogsItsOwnFailedOutput)
{
    const captured_stderr log;
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(qv_memcheck_start(nullptr, full, noting_hook), 0);
    EXPECT_TRUE(
        peers::eventually([&] { return log.text().find("mvprintf: stdout failed") != std::string::npos; }));
    EXPECT_EQ(qv_memcheck_stop(), 0);
    close(full);
}

TEST_F(MemdebugChecker, IsNotStoppedByAPipeThatNobodyReads)
{
    const captured_stderr log;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string filler(65536, 'x');
    ASSERT_EQ(write(ends[1], filler.data(), filler.size()), 65536);
    ASSERT_EQ(qv_memcheck_start(nullptr, ends[1], noting_hook), 0);
    for (int i = 0; i < 1000; i++)
        release(block_of(12, "f"));
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(qv_memcheck_stop(), 0);
    EXPECT_LT(peers::seconds_since(began), slowness);
    EXPECT_THAT(log.text(), HasSubstr("mvprintf: stdout failed: Resource temporarily unavailable (11)"));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(MemdebugChecker, EndsWithoutASession)
{
    const captured_stderr log;
    EXPECT_EQ(accept_thread(nullptr), nullptr);
    EXPECT_EQ(log.text(), "");
    std::thread([] { EXPECT_EQ(qv_memory_debug(nullptr), nullptr); }).join();
    EXPECT_THAT(log.text(), EndsWith("ERROR: qv_memory_debug:Session is NULL\r\n"));
}

// ---- The table

TEST_F(MemdebugTable, ShowsTheFunctionsWithTheMostBlocksFirst)
{
    start();
    std::vector<void *> blocks;
    for (int i = 0; i < 3; i++)
        blocks.push_back(block_of(static_cast<size_t>(i) + 10, "three"));
    blocks.push_back(block_of(100, "one"));
    EXPECT_TRUE(line_becomes(0, "Count 3 \tAve Size:11\t:three"));
    EXPECT_TRUE(line_becomes(1, "Count 1 \tAve Size:100\t:one"));
    EXPECT_EQ(shown().line(2), "");
    for (void *block : blocks)
        release(block);
    EXPECT_TRUE(line_becomes(0, "")); // drawn again without them
    EXPECT_TRUE(line_becomes(1, ""));
    stop();
}

TEST_F(MemdebugTable, ShowsThirtyFunctionsOfMore)
{
    std::vector<std::string> names;
    for (int i = 0; i < 40; i++)
        names.push_back("function" + std::to_string(i));
    start();
    std::vector<void *> blocks;
    for (int i = 0; i < 40; i++)
        for (int k = 0; k <= i; k++)
            blocks.push_back(block_of(16, names[static_cast<size_t>(i)].c_str()));
    EXPECT_TRUE(line_becomes(29, "Count 11 \tAve Size:16\t:function10"));
    EXPECT_EQ(shown().line(0), "Count 40 \tAve Size:16\t:function39");
    EXPECT_EQ(shown().line(30), "");
    for (void *block : blocks)
        release(block);
    stop();
}

TEST_F(MemdebugTable, StandsAboveTheProgramsOwnLines)
{
    start();
    memdbg_printf("abc");
    memdbg_printf("def\n");
    EXPECT_EQ(shown().line(44), "abcdef");
    EXPECT_TRUE(line_becomes(33, std::string(36, '-') + "DEBUG" + std::string(36, '-')));
    EXPECT_EQ(shown().line(44), "abcdef");
    stop();
}

// ---- Clients

TEST_F(MemdebugClients, SeeTheConsole)
{
    listen();
    client first(port_), second(port_);
    EXPECT_THAT(first.read_until("DEBUG---"), HasSubstr("=== Quaverlight Memory Debugger ==="));
    EXPECT_THAT(second.read_until("DEBUG---"), HasSubstr("=== Quaverlight Memory Debugger ==="));
    stop();
    EXPECT_THAT(first.read_until("MemDebug Complete"), HasSubstr("MemDebug Complete"));
}

TEST_F(MemdebugClients, StayConnectedAfterTheStop)
{
    listen();
    client peer(port_);
    peer.read_until("DEBUG---");
    stop();
    peer.read_until("MemDebug Complete");
    while (peer.has_input(100)) { // the rest of the line
        const size_t before = peer.text().size();
        peer.read_until(" =");
        ASSERT_GT(peer.text().size(), before) << "the connection ended";
    }
    EXPECT_EQ(peers::close_taken_at(port_), 1);
    EXPECT_TRUE(peer.read_to_end());
}

TEST_F(MemdebugClients, MayComeByEveryAddressOfTheHost)
{
    listen();
    EXPECT_TRUE(peers::eventually([&] { return peers::listens_at("127.0.0.2", port_); }));
    EXPECT_TRUE(peers::listens_at("127.0.0.1", port_));
    stop();
}

TEST_F(MemdebugClients, AreNotRead)
{
    listen();
    client peer(port_);
    peer.read_until("DEBUG---");
    EXPECT_TRUE(peer.write(std::string(100000, 'x')));
    gotoline(20, "still there");
    EXPECT_THAT(peer.read_until("still there"), HasSubstr("still there"));
    stop();
}

TEST_F(MemdebugClients, GetNothingWhileADescriptorIsGiven)
{
    const memory_file console;
    const captured_stderr unseen;
    ASSERT_EQ(qv_memcheck_start(service_.c_str(), console.fd(), noting_hook), 0);
    client peer(port_);
    EXPECT_TRUE(peers::eventually([&] { return console.text().find("DEBUG---") != std::string::npos; }));
    ASSERT_EQ(qv_memcheck_stop(), 0);
    EXPECT_EQ(peers::close_taken_at(port_), 1);
    EXPECT_TRUE(peer.read_to_end());
    EXPECT_EQ(peer.text(), "");
}

TEST_F(MemdebugClients, AreReportedWhenTheCheckersPrintingDropsThem)
{
    listen();
    client staying(port_), vanishing(port_);
    staying.read_until("DEBUG---");
    vanishing.read_until("DEBUG---");
    vanishing.reset();
    // Nobody allocates: the checker alone prints, and must not wait for itself.
    EXPECT_THAT(staying.read_until("memdebug:186)"),
                HasSubstr("Could not find the allocation to free (../src/memdebug:186)"));
    EXPECT_TRUE(peers::eventually([] { return faults == 1; }));
    stop();
}

TEST_F(MemdebugClients, LeaveARecordForTheNextOnes)
{
    listen();
    for (int i = 1; i <= 10; i++) {
        client vanishing(port_);
        vanishing.read_until("DEBUG---");
        vanishing.reset();
        EXPECT_TRUE(peers::eventually([i] { return faults == i; }));
    }
    qv::memdebug_session *session = qv::running_session();
    int records = 0;
    pthread_mutex_lock(&session->client_lock);
    for (const qv::console_client *left = session->retired; left; left = left->next)
        records++;
    pthread_mutex_unlock(&session->client_lock);
    EXPECT_LE(records, 2); // one is in the listener's hands
    stop();
}

TEST_F(MemdebugClients, ThatNeverReadDoNotStopTheProgram)
{
    listen();
    client stuck(port_, 1024), reader(port_);
    ASSERT_TRUE(stuck.has_input(20000));
    reader.read_until("DEBUG---");
    std::thread reading([&] { reader.read_until("MemDebug Complete"); });
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 10000; i++)
        gotoline(20, "%s line %d", std::string(900, '.').c_str(), i);
    EXPECT_LT(peers::seconds_since(began), 5 * slowness);
    EXPECT_EQ(faults, 1); // the stuck one was dropped and reported
    stop();
    reading.join();
    size_t at = 0;
    for (int i = 0; i < 10000 && at != std::string::npos; i++)
        at = reader.text().find(" line " + std::to_string(i) + "\033", at);
    EXPECT_NE(at, std::string::npos);
}

TEST_F(MemdebugClients, ThatNeverReadDoNotDelayTheStop)
{
    listen();
    std::vector<std::unique_ptr<client>> stuck;
    for (int i = 0; i < 4; i++) {
        stuck.push_back(std::make_unique<client>(port_, 1024));
        ASSERT_TRUE(stuck.back()->has_input(20000));
    }
    std::thread filling([] {
        while (gotoline(20, "%s", std::string(4000, '.').c_str()) >= 0) {
        }
    });
    peers::sleep_us(300000); // by now a thread waits for one of them
    const auto began = std::chrono::steady_clock::now();
    stop();
    EXPECT_LT(peers::seconds_since(began), slowness);
    filling.join();
}

TEST_F(MemdebugClients, ThatReadLateSeeTheEndBesideOneThatNeverReads)
{
    listen();
    client stuck(port_, 1024), late(port_, 65536); // which then reads all within the time that it has
    ASSERT_TRUE(stuck.has_input(20000));
    ASSERT_TRUE(late.has_input(20000));
    {
        const qv::table_guard unchecked(qv::running_session()); // the checker draws nothing meanwhile
        peers::fill_up(stuck);
        peers::fill_up(late);
    }
    std::thread reading([&] {
        peers::sleep_us(60000);
        late.read_until("MemDebug Complete");
    });
    const auto began = std::chrono::steady_clock::now();
    stop();
    EXPECT_LT(peers::seconds_since(began), 1);
    reading.join();
    EXPECT_NE(late.text().find("MemDebug Complete"), std::string::npos);
}

TEST_F(MemdebugClients, CannotComeToAPortInUse)
{
    const int other = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port_));
    ASSERT_EQ(bind(other, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(other, 1), 0);
    const captured_stderr log;
    ASSERT_EQ(qv_memcheck_start(service_.c_str(), 0, noting_hook), 0);
    EXPECT_TRUE(peers::eventually([&] {
        return log.text().find("accept_thread: accept function failed: Bad file descriptor (9)") !=
               std::string::npos;
    }));
    EXPECT_THAT(log.text(),
                HasSubstr("ERROR: accept_thread: failed to create socket: Address already in use"));
    EXPECT_EQ(qv_memcheck_stop(), 0);
    close(other);
}

TEST_F(MemdebugClients, AreTakenNoMoreAfterAFailedAccept)
{
    listen();
    client first(port_);
    first.read_until("DEBUG---");
    const captured_stderr log;
    const failing accepts("accept", EMFILE);
    client second(port_); // ends the accept that waits already
    EXPECT_TRUE(peers::eventually([&] {
        return log.text().find("ERROR: accept_thread: accept function failed: Too many open files (24)") !=
               std::string::npos;
    }));
    EXPECT_EQ(qv_memcheck_stop(), 0);
    EXPECT_EQ(peers::close_taken_at(port_), 2);
}

// ---- All at once

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr double longest_stop = 1.0;
#else
constexpr double longest_stop = 0.1;
#endif

// The delay widens the gap between the listener's last look and its wait, in which a signal could be lost.
TEST_F(MemdebugStop, IsPromptWheneverItComes)
{
    const captured_stderr unseen;
    std::mt19937 random(1);
    double longest = 0;
    for (int i = 0; i < 1000; i++) {
        peers::delay_us = i % 4 == 3 ? 0 : 300;
        const unsigned int port = peers::free_port();
        const std::string service = std::to_string(port);
        ASSERT_EQ(qv_memcheck_start(service.c_str(), 0, noting_hook), 0);
        const std::unique_ptr<client> peer(i % 5 == 0 ? new client(port) : nullptr);
        peers::sleep_us(static_cast<long>(random() % 1000));
        release(block_of(16, "f"));
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(qv_memcheck_stop(), 0);
        longest = std::max(longest, peers::seconds_since(start));
        peers::close_taken_at(port);
    }
    peers::delay_us = 0;
    EXPECT_LT(longest, longest_stop * slowness);
    RecordProperty("longest_microseconds", static_cast<int>(longest * 1e6));
}

TEST_F(MemdebugStop, IsPromptBesideManyBlocksAndBusyThreads)
{
    start();
    std::vector<void *> blocks;
    for (int i = 0; i < 50000; i++)
        blocks.push_back(block_of(12, "many"));
    std::atomic<bool> done = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&] {
            while (!done)
                free(block_of(16, "busy")); // never released to the session
        });
    peers::sleep_us(100000);
    const auto began = std::chrono::steady_clock::now();
    stop();
    const double elapsed = peers::seconds_since(began);
    done = true;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_LT(elapsed, slowness);
    RecordProperty("microseconds", static_cast<int>(elapsed * 1e6));
    for (void *block : blocks)
        free(static_cast<char *>(block) - 4);
}

// Sizes without markers: such a block may outlive its session.
void use_everything(std::atomic<bool> &done, int number)
{
    std::vector<void *> blocks(16);
    const std::string name = "thread" + std::to_string(number);
    for (unsigned int i = 0; !done; i++) {
        void *&block = blocks[i % blocks.size()];
        if (block && i % 3 == 0)
            block = qv_memcheck_realloc(block, 64, name.c_str(), i);
        else if (block)
            release(std::exchange(block, nullptr));
        else
            block = block_of(32, name.c_str(), i);
        if (i % 16 == 0)
            qv_log(QV_LOG_DEBUG, "thread %d", number);
        if (i % 32 == 0)
            memdbg_printf("thread %d round %u\n", number, i);
    }
    for (void *block : blocks)
        if (block)
            release(block);
}

TEST_F(MemdebugThreads, MayWorkWhileClientsComeAndGoAndTheConsoleDraws)
{
    const log_feed feed;
    listen();
    std::atomic<bool> done = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&, i] { use_everything(done, i); });
    threads.emplace_back([&] {
        for (int i = 0; !done; i++) {
            client peer(i % 4 < 2 ? port_ : feed.port(), 0, 1);
            if (peer.is_connected() && peer.has_input(100) && i % 2)
                peer.reset();
        }
    });
    client watching(port_);
    EXPECT_THAT(watching.read_until("DEBUG---"), HasSubstr("DEBUG---"));
    peers::sleep_us(700000);
    done = true;
    threads.back().join();
    threads.pop_back();
    watching.hang_up();
    for (std::thread &thread : threads)
        thread.join();
    stop();
}

thread_local bool was_released;

void noting_free(void *block)
{
    was_released = true;
    free(block);
}

// A block from before a session is unknown to it and stays allocated.
void use_across_sessions(std::atomic<bool> &done)
{
    while (!done) {
        void *block = block_of(32, "crossing");
        was_released = false;
        qv_memcheck_free(noting_free, block, "w");
        if (!was_released)
            free(block);
        gotoline(20, "%s", "x");
        memdbg_printf("y\n");
    }
}

TEST_F(MemdebugThreads, MayBeInsideWhenTheSessionStops)
{
    std::atomic<bool> done = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&] { use_across_sessions(done); });
    double longest = 0;
    for (int i = 0; i < scaled(100); i++) {
        listen();
        peers::sleep_us(i * 50);
        const auto began = std::chrono::steady_clock::now();
        stop();
        longest = std::max(longest, peers::seconds_since(began));
    }
    done = true;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_LT(longest, slowness);
    RecordProperty("longest_microseconds", static_cast<int>(longest * 1e6));
}

} // namespace
