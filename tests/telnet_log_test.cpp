#include <qvlib/log.h>
#include <qvlib/telnet_log.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <list>
#include <pthread.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <sys/uio.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captured_fd.h"
#include "failing_heap.h"
#include "listener_peers.h"
#include "machine.h"
#include "send_whole.h"
#include "telnet_log.h"

using failing_calls::failing;
using failing_calls::fails;
using peers::client;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

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

void send(void *feed, int level, const char *fmt, ...) QV_PRINTF(3, 4);
void send(void *feed, int level, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    qv_vtellog(feed, level, fmt, ap);
    va_end(ap);
}

// A text that the compiler does not look into.
void send_text(void *feed, const char *text, ...)
{
    va_list ap;
    va_start(ap, text);
    qv_vtellog(feed, 7, text, ap);
    va_end(ap);
}

// Sends until the client gets what is sent, and takes that off it.
void await(void *feed, client &peer)
{
    ASSERT_TRUE(peer.is_connected());
    ASSERT_TRUE(peers::eventually([&] {
        send(feed, 7, "awaited");
        return peer.has_input(5);
    }));
    send(feed, 7, "arrived");
    peer.read_until("arrived\n");
    peer.text().clear();
}

// The lines without their time.
std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(end >= at + 25 ? text.substr(at + 25, end - at - 25) : text.substr(at, end - at));
    return lines;
}

class TelnetLog : public testing::Test
{
  protected:
    TelnetLog() : descriptors_(peers::descriptors()), port_(peers::free_port()), feed_(tellog_start(port_))
    {
    }
    ~TelnetLog() override
    {
        if (feed_) {
            EXPECT_EQ(tellog_finish(feed_), 0);
        }
        EXPECT_EQ(peers::descriptors(), descriptors_);
        EXPECT_TRUE(peers::eventually([] { return peers::threads_named("qvl-tellog") == 0; }));
    }

    const int descriptors_;
    const unsigned int port_;
    void *feed_;
};

TEST_F(TelnetLog, SendsTimeLabelAndTextEndedByALineFeed)
{
    client peer(port_);
    await(feed_, peer);
    send(feed_, QV_LOG_ERROR, "%s: socket (%d)", "f", 24);
    EXPECT_THAT(peer.read_until("(24)\n"),
                MatchesRegex("[A-Z][a-z][a-z] [A-Z][a-z][a-z] [ 0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] "
                             "[0-9]* ERROR: f: socket \\(24\\)\n"));
}

TEST_F(TelnetLog, ShowsLocalTime)
{
    client peer(port_);
    await(feed_, peer);
    const time_t before = time(nullptr);
    send(feed_, QV_LOG_INFO, "x");
    const std::string text = peer.read_until("x\n").substr(0, 24);
    const time_t after = time(nullptr);
    bool found = false;
    for (time_t t = before; t <= after; t++) {
        char shown[26];
        found = found || text == std::string(ctime_r(&t, shown)).substr(0, 24);
    }
    EXPECT_TRUE(found) << text;
}

// A socket that takes little at a time: sends end within a piece, and a piece may be empty.
TEST(SendWhole, SendsEachByteOfEachPieceOnce)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const int small = 4096;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::mt19937 random(8);
    std::string texts[6];
    iovec pieces[6];
    std::string expected;
    for (int i = 0; i < 6; i++) {
        texts[i].resize(i % 3 == 0 ? 0 : random() % 50000);
        for (char &byte : texts[i])
            byte = static_cast<char>(random());
        pieces[i] = {texts[i].data(), texts[i].size()};
        expected += texts[i];
    }
    std::string received;
    std::thread reading([&] {
        char bytes[1000];
        for (ssize_t length; (length = read(ends[1], bytes, sizeof bytes)) > 0;)
            received.append(bytes, static_cast<size_t>(length));
    });
    const std::atomic<uint32_t> no_stop = 0;
    qv::send_patience patience(no_stop, 60000);
    EXPECT_TRUE(qv::send_whole(ends[0], pieces, 6, patience));
    close(ends[0]);
    reading.join();
    close(ends[1]);
    EXPECT_EQ(received.size(), expected.size());
    EXPECT_TRUE(received == expected);
}

TEST(FeedTime, IsThatOfTheCLibraryInAnyZone)
{
    const char *const zone = getenv("TZ");
    const std::string kept = zone ? zone : "";
    std::mt19937 random(6);
    for (const char *name : {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "NST3:30NDT,M3.2.0,M11.1.0"}) {
        setenv("TZ", name, 1);
        tzset();
        for (int round = 0; round < 2000; round++) {
            const auto time = static_cast<time_t>(random() % INT32_MAX);
            char shown[26], expected[26];
            const std::string text(shown, qv::feed_time(time, shown));
            ctime_r(&time, expected);
            ASSERT_EQ(text, std::string(expected, 24) + ' ') << name;
        }
    }
    if (zone)
        setenv("TZ", kept.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

TEST(FeedTime, IsEmptyForATimeThatNoCalendarHolds)
{
    char text[26];
    const size_t length = sizeof(time_t) < 8 ? sizeof "Tue Jan 19 03:14:07 2038" : 0; // that has a date
    EXPECT_EQ(qv::feed_time(std::numeric_limits<time_t>::max(), text), length);
    constexpr int64_t year_10000 = INT64_C(253402387200); // its second day
    if constexpr (sizeof(time_t) >= sizeof year_10000) {
        EXPECT_EQ(qv::feed_time(year_10000, text), 0u);
    }
}

TEST_F(TelnetLog, LabelsEveryLevel)
{
    client peer(port_);
    await(feed_, peer);
    for (int level : {0, 3, 8, 23, -1})
        send(feed_, level, "%d", level);
    EXPECT_THAT(lines_of(peer.read_until("-1\n")),
                ElementsAre("EMERG: 0", "ERROR: 3", "TELNT: 8", "-----: 23", "-----: -1"));
}

TEST_F(TelnetLog, CutsATextTo1021Bytes)
{
    client peer(port_);
    await(feed_, peer);
    for (size_t length : {1020u, 1021u, 1022u, 5000u})
        send(feed_, 7, "%s", std::string(length, 'x').c_str());
    send(feed_, 7, "end");
    std::vector<size_t> lengths;
    for (const std::string &line : lines_of(peer.read_until("end\n")))
        lengths.push_back(line.size() - strlen("DEBUG: "));
    EXPECT_THAT(lengths, ElementsAre(1020u, 1021u, 1021u, 1021u, 3u));
}

TEST_F(TelnetLog, AllocatesNothingWithoutAClient)
{
    send(feed_, 7, "warm");
    const failing_heap::counted heap;
    send(feed_, 7, "%s", "nobody");
    EXPECT_EQ(heap.calls(), 0);
}

// The handle's clients are a list whose layout is settled: what counts is who is in it.
TEST_F(TelnetLog, SendsToWhoeverIsInTheListOfItsHandle)
{
    struct node {
        int socket;
        node *next, *prev;
    };
    client peer(port_);
    await(feed_, peer);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    auto *head = static_cast<node *>(feed_);
    for (const int socket : {ends[0], -1}) {
        auto *added = static_cast<node *>(calloc(1, sizeof(node)));
        *added = {socket, head->next, head};
        head->next->prev = added;
        head->next = added;
    }
    send(feed_, 7, "to all"); // which drops the one without a socket
    EXPECT_EQ(head->next->socket, ends[0]);
    EXPECT_THAT(lines_of(peer.read_until("\n")), ElementsAre("DEBUG: to all"));
    char text[64] = "";
    EXPECT_GT(read(ends[1], text, sizeof text - 1), 0);
    EXPECT_THAT(text, EndsWith("DEBUG: to all\n"));
    peer.text().clear();
    send(feed_, 7, "again");
    EXPECT_THAT(lines_of(peer.read_until("\n")), ElementsAre("DEBUG: again"));
    close(ends[1]);
}

TEST_F(TelnetLog, SendsNothingWithoutAFeedOrAText)
{
    send(nullptr, 7, "%s", "nobody");
    client peer(port_);
    await(feed_, peer);
    const char *volatile no_text = nullptr;
    send_text(feed_, no_text);
    send(feed_, 7, "next");
    EXPECT_THAT(lines_of(peer.read_until("next\n")), ElementsAre("DEBUG: next"));
}

TEST_F(TelnetLog, KeepsErrnoForTheTextAndTheCaller)
{
    client peer(port_);
    await(feed_, peer);
    errno = ENOSPC;
    send(feed_, 7, "%m");
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_THAT(lines_of(peer.read_until("device\n")), ElementsAre("DEBUG: No space left on device"));
}

TEST_F(TelnetLog, GivesASecondClientTheSameLinesFromItsArrival)
{
    client first(port_);
    await(feed_, first);
    send(feed_, 7, "early");
    first.read_until("early\n");
    client second(port_);
    await(feed_, second);
    first.read_until("arrived\n");
    first.text().clear();
    send(feed_, 7, "one");
    send(feed_, 8, "two");
    EXPECT_EQ(first.read_until("two\n"), second.read_until("two\n"));
    EXPECT_THAT(lines_of(second.text()), ElementsAre("DEBUG: one", "TELNT: two"));
}

TEST_F(TelnetLog, IsOpenOnEveryAddressOfTheHost)
{
    EXPECT_TRUE(peers::eventually([&] { return peers::listens_at("127.0.0.2", port_); }));
    EXPECT_TRUE(peers::listens_at("127.0.0.1", port_));
}

TEST_F(TelnetLog, AsksForNothingAndReadsNothing)
{
    client peer(port_);
    await(feed_, peer);
    EXPECT_TRUE(peer.write(std::string(100000, 'x') + "\nquit\n"));
    send(feed_, 7, "still there");
    EXPECT_THAT(lines_of(peer.read_until("still there\n")), testing::Contains("DEBUG: still there"));
}

TEST_F(TelnetLog, TakesAsManyClientsAsCome)
{
    std::list<client> crowd;
    for (int i = 0; i < 100; i++)
        await(feed_, crowd.emplace_back(port_));
    send(feed_, 7, "for all");
    for (client &peer : crowd)
        EXPECT_THAT(lines_of(peer.read_until("for all\n")), testing::Contains("DEBUG: for all"));
}

TEST_F(TelnetLog, DropsAClientThatVanished)
{
    client staying(port_);
    await(feed_, staying);
    const int before = peers::descriptors();
    client closing(port_), resetting(port_);
    await(feed_, closing);
    await(feed_, resetting);
    closing.hang_up();
    resetting.reset();
    EXPECT_TRUE(peers::eventually([&] {
        send(feed_, 7, "still here");
        return peers::descriptors() == before;
    }));
    send(feed_, 7, "last");
    EXPECT_THAT(staying.read_until("last\n"), EndsWith("last\n"));
}

TEST_F(TelnetLog, ClosesEveryClientAndThePortAtTheEnd)
{
    client first(port_), second(port_);
    await(feed_, first);
    await(feed_, second);
    EXPECT_EQ(peers::threads_named("qvl-tellog"), 1);
    EXPECT_EQ(tellog_finish(feed_), 0);
    feed_ = nullptr;
    EXPECT_TRUE(first.read_to_end());
    EXPECT_TRUE(second.read_to_end());
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port_));
    EXPECT_NE(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    close(fd);
}

TEST_F(TelnetLog, DropsAMessageThatMemoryIsShortFor)
{
    client peer(port_);
    await(feed_, peer);
    for (long successes : {0, 1, 2}) {
        const failing_heap::after failing(successes);
        send(feed_, 7, "lost");
        EXPECT_TRUE(failing.failed());
    }
    send(feed_, 7, "kept");
    EXPECT_THAT(lines_of(peer.read_until("kept\n")), ElementsAre("DEBUG: kept"));
}

TEST_F(TelnetLog, StaysWithoutAListenerWhenThePortIsInUse)
{
    client peer(port_); // the first feed listens
    void *other = tellog_start(port_);
    ASSERT_NE(other, nullptr);
    send(other, 7, "nobody");
    EXPECT_EQ(tellog_finish(other), 0);
}

TEST_F(TelnetLog, StaysWithoutAListenerForAPortBeyondTheLast)
{
    void *other = tellog_start(65536 + port_);
    ASSERT_NE(other, nullptr);
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("qvl-tellog") == 1; }));
    EXPECT_EQ(tellog_finish(other), 0);
}

TEST_F(TelnetLog, ListensNoMoreAfterAFailedAccept)
{
    client first(port_);
    await(feed_, first);
    const failing accepts("accept", EMFILE);
    client second(port_); // ends the accept that waits already
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("qvl-tellog") == 0; }));
    send(feed_, 7, "go on");
    EXPECT_THAT(first.read_until("go on\n"), EndsWith("go on\n"));
}

TEST(TelnetLogHandle, IsNullWhenMemoryIsShort)
{
    const failing_heap::after failing(0);
    EXPECT_EQ(tellog_start(0), nullptr);
    EXPECT_TRUE(failing.failed());
}

// The handle stays allocated on purpose.
__attribute__((noinline)) void *start_without_a_thread()
{
    const failing failing("pthread_create", EAGAIN);
    void *volatile feed = tellog_start(0); // no tail call
    return feed;
}

TEST(TelnetLogHandle, IsNullWhenNoThreadCanBeHad)
{
    EXPECT_EQ(start_without_a_thread(), nullptr);
}

TEST(TelnetLogHandle, CannotBeFinishedWhenNull)
{
    EXPECT_EQ(tellog_finish(nullptr), -1);
}

TEST_F(TelnetLog, IsNotStoppedByAClientThatNeverReads)
{
    client stuck(port_, 1024), reader(port_);
    await(feed_, stuck);
    await(feed_, reader);
    const int before = peers::descriptors();
    constexpr int count = running_emulated() ? 5000 : 10000; // more than the stuck one's buffers take
    const std::string last = "line " + std::to_string(count - 1) + "\n";
    std::thread reading([&] { reader.read_until(last); });
    const std::string filler(900, '.');
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < count; i++)
        send(feed_, 7, "%s line %d", filler.c_str(), i);
    const double elapsed = peers::seconds_since(start);
    reading.join();
    EXPECT_LT(elapsed, 5 * slowness);
    EXPECT_EQ(peers::descriptors(), before - 1); // the stuck one is gone
    const std::vector<std::string> lines = lines_of(reader.text());
    ASSERT_EQ(lines.size(), static_cast<size_t>(count));
    for (size_t i = 0; i < lines.size(); i++)
        ASSERT_THAT(lines[i], EndsWith(" line " + std::to_string(i)));
    RecordProperty("milliseconds", static_cast<int>(elapsed * 1000));
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr double longest_stop = 1.0;
#else
constexpr double longest_stop = 0.1;
#endif

// The delay widens the gap between the thread's last look and its wait, in which a wake-up could be lost.
TEST(TelnetLogStop, IsPromptWheneverItComes)
{
    const int before = peers::descriptors();
    std::mt19937 random(1);
    double longest = 0;
    for (int i = 0; i < 1000; i++) {
        peers::delay_us = i % 4 == 3 ? 0 : 300;
        const unsigned int port = peers::free_port();
        void *feed = tellog_start(port);
        ASSERT_NE(feed, nullptr);
        client *peer = i % 5 == 0 ? new client(port) : nullptr;
        peers::sleep_us(static_cast<long>(random() % 1000));
        send(feed, 7, "x");
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(tellog_finish(feed), 0);
        longest = std::max(longest, peers::seconds_since(start));
        delete peer;
    }
    peers::delay_us = 0;
    EXPECT_LT(longest, longest_stop * slowness);
    EXPECT_EQ(peers::descriptors(), before);
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("qvl-tellog") == 0; }));
    RecordProperty("longest_microseconds", static_cast<int>(longest * 1e6));
}

// What it reads in two seconds is little of what is under way to it, so the connection is never half empty.
TEST_F(TelnetLog, KeepsAClientThatReadsSlowly)
{
    client slow(port_, 16384);
    await(feed_, slow);
    const int most = 1 << 20; // the system allows less
    setsockopt(peers::other_end(slow), SOL_SOCKET, SO_SNDBUF, &most, sizeof most);
    peers::fill_up(slow);
    std::atomic<bool> done = false;
    std::thread reading([&] {
        for (; !done; peers::sleep_us(10000))
            slow.read_some(512);
        slow.read_until("last\n");
    });
    for (const char *text : {"one", "two", "last"})
        send(feed_, 7, "%s", text);
    EXPECT_NE(peers::other_end(slow), -1);
    done = true;
    reading.join();
    const std::string &text = slow.text();
    EXPECT_THAT(lines_of(text.substr(text.find_last_of('.') + 1)),
                ElementsAre("DEBUG: one", "DEBUG: two", "DEBUG: last"));
}

TEST_F(TelnetLog, IsFinishedAtOnceBesideAClientThatNeverReads)
{
    client stuck(port_, 1024);
    await(feed_, stuck);
    peers::fill_up(stuck);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tellog_finish(feed_), 0);
    EXPECT_LT(peers::seconds_since(start), 1);
    feed_ = nullptr;
}

// ---- As logging's own feed

class LoggingFeed : public testing::Test
{
  protected:
    LoggingFeed() : port_(peers::free_port())
    {
        const captured_stderr unseen;
        qv_log_init("telnet_log_test", QV_LOG_ERROR, 0, 0, port_);
    }
    ~LoggingFeed() override
    {
        qv_log_exit();
        qv_log_setlevel(-1);
    }
    void await(client &peer)
    {
        ASSERT_TRUE(peers::eventually([&] {
            qv_log(QV_LOG_TELNET, "awaited");
            return peer.has_input(5);
        }));
        qv_log(QV_LOG_TELNET, "arrived");
        peer.read_until("arrived\n");
        peer.text().clear();
    }

    const unsigned int port_;
};

TEST_F(LoggingFeed, GetsMessagesOfEveryLevel)
{
    client peer(port_);
    await(peer);
    qv_log(QV_LOG_DEBUG, "above the level");
    qv_log(QV_LOG_TELNET, "feed only");
    qv_log(QV_LOG_ERROR, "error");
    EXPECT_THAT(lines_of(peer.read_until("error\n")),
                ElementsAre("DEBUG: above the level", "TELNT: feed only", "ERROR: error"));
}

TEST_F(LoggingFeed, AloneGetsTelnetMessages)
{
    qv_log_exit();
    captured_stderr console;
    qv_log_init("telnet_log_test", 100, 0x20, 0, port_);
    client peer(port_);
    await(peer);
    EXPECT_THAT(console.text(), Not(HasSubstr("arrived")));
}

TEST_F(LoggingFeed, LeavesTheArgumentsToTheOtherSinks)
{
    qv_log_exit();
    captured_stderr console;
    qv_log_init("telnet_log_test", QV_LOG_ERROR, 0x20, 0, port_);
    client peer(port_);
    await(peer);
    errno = ENOSPC;
    qv_errno("%s %d", "f", 7);
    const std::string text = "ERROR: f 7: No space left on device (28)";
    EXPECT_THAT(lines_of(peer.read_until("(28)\n")), ElementsAre(text));
    EXPECT_THAT(console.text(), EndsWith(text + "\r\n"));
}

TEST_F(LoggingFeed, EndsWithLogging)
{
    client peer(port_);
    await(peer);
    qv_log_exit();
    EXPECT_TRUE(peer.read_to_end());
    qv_log(QV_LOG_TELNET, "nobody");
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("qvl-tellog") == 0; }));
}

TEST_F(LoggingFeed, EndsAtOnceWhileAThreadWaitsForAClient)
{
    client stuck(port_, 1024), reader(port_);
    await(stuck);
    await(reader);
    peers::fill_up(stuck);
    std::thread waiting([] { qv_log(QV_LOG_TELNET, "waited"); });
    peers::sleep_us(50000);
    const auto start = std::chrono::steady_clock::now();
    qv_log_exit();
    EXPECT_LT(peers::seconds_since(start), 1);
    waiting.join();
    EXPECT_TRUE(reader.read_to_end());
    EXPECT_THAT(reader.text(), EndsWith("TELNT: waited\n"));
}

TEST_F(LoggingFeed, IsKeptWhenLoggingIsStartedAgainWithoutOne)
{
    client peer(port_);
    await(peer);
    {
        const captured_stderr unseen;
        qv_log_init("telnet_log_test", QV_LOG_ERROR, 0, 0, 0);
    }
    qv_log(QV_LOG_DEBUG, "kept");
    EXPECT_THAT(lines_of(peer.read_until("kept\n")), ElementsAre("DEBUG: kept"));
}

TEST_F(LoggingFeed, MayEndWhileThreadsLogAndClientsComeAndGo)
{
    std::atomic<bool> done = false;
    std::atomic<unsigned int> port = port_;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&, i] {
            while (!done)
                qv_log(QV_LOG_DEBUG, "thread %d", i);
        });
    threads.emplace_back([&] {
        while (!done) {
            client peer(port, 0, 0);
            if (peer.is_connected() && peer.has_input(10))
                peer.reset();
        }
    });
    for (int i = 0; i < 10; i++) {
        peers::sleep_us(20000);
        const auto start = std::chrono::steady_clock::now();
        qv_log_exit();
        EXPECT_LT(peers::seconds_since(start), slowness);
        port = peers::free_port(); // the last one rests for a while
        const captured_stderr unseen;
        qv_log_init("telnet_log_test", QV_LOG_ERROR, 0, 0, port);
    }
    done = true;
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
