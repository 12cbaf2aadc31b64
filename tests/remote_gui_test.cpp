#include <qvlib/remote_gui.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <netinet/tcp.h>
#include <optional>
#include <pthread.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failing_heap.h"
#include "listener_peers.h"
#include "log_lines.h"
#include "machine.h"
#include "pdu_input.h"
#include "relay_ends.h"
#include "remote_gui.h"

using failing_calls::any;
using failing_calls::failing;
using failing_calls::fails;
using relay::channel;
using relay::connect_to;
using relay::give;
using relay::gui_server;
using relay::passed;
using relay::pattern;
using relay::stream;
using relay::usr1_handling;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;

// ---- The C library's calls, which fail on demand in any thread

namespace
{

// Calls that still succeed before the next one fails; negative for no failure.
std::atomic<int> callocs_left = -1, first_receives_left = -1, rests_left = -1;
std::atomic<int> receive_error, option_error;
std::atomic<int> receive_delay_us;  // in front of each blocking receive
std::atomic<int> nodelay_calls;     // that succeeded
std::atomic<int> signals_sent;      // by pthread_kill
std::atomic<uint8_t *> kept_buffer; // of the receive that failed last
std::mutex rooms_mutex;
std::vector<size_t> rooms; // of the receives that don't wait

bool fails_now(std::atomic<int> &left)
{
    if (left < 0)
        return false;
    return left-- == 0;
}

// Sets a number for a scope.
class during
{
  public:
    during(std::atomic<int> &number, int value) : number_(number)
    {
        number_ = value;
    }
    ~during()
    {
        number_ = &number_ == &receive_error || &number_ == &option_error || &number_ == &receive_delay_us ||
                          &number_ == &peers::delay_us
                      ? 0
                      : -1;
    }
    during(const during &) = delete;
    during &operator=(const during &) = delete;

  private:
    std::atomic<int> &number_;
};

} // namespace

extern "C" {
void *__real_calloc(size_t count, size_t size);
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                          void *argument);
int __real_pthread_kill(pthread_t thread, int number);
ssize_t __real_recv(int fd, void *buffer, size_t size, int flags);
int __real_setsockopt(int fd, int level, int option, const void *value, socklen_t size);

void *__wrap_calloc(size_t count, size_t size);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                          void *argument);
int __wrap_pthread_kill(pthread_t thread, int number);
ssize_t __wrap_recv(int fd, void *buffer, size_t size, int flags);
int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t size);

void *__wrap_calloc(size_t count, size_t size)
{
    if (fails_now(callocs_left)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, size);
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                          void *argument)
{
    return fails("pthread_create") ? errno : __real_pthread_create(thread, attributes, body, argument);
}

int __wrap_pthread_kill(pthread_t thread, int number)
{
    signals_sent++;
    return __real_pthread_kill(thread, number);
}

ssize_t __wrap_recv(int fd, void *buffer, size_t size, int flags)
{
    if (flags == MSG_DONTWAIT) {
        const std::lock_guard<std::mutex> lock(rooms_mutex);
        rooms.push_back(size);
    } else if (flags == MSG_WAITALL && receive_delay_us != 0) {
        peers::sleep_us(receive_delay_us);
    }
    if (fails_now(flags == MSG_DONTWAIT ? rests_left : first_receives_left)) {
        kept_buffer = static_cast<uint8_t *>(buffer);
        errno = receive_error;
        return -1;
    }
    return __real_recv(fd, buffer, size, flags);
}

int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t size)
{
    if (option == TCP_NODELAY && option_error != 0) {
        errno = option_error;
        return -1;
    }
    const int result = __real_setsockopt(fd, level, option, value, size);
    nodelay_calls += level == IPPROTO_TCP && option == TCP_NODELAY && result == 0;
    return result;
}
}

namespace
{

passed data(int id, const std::string &payload)
{
    return {RGUI_DATA, id, payload};
}

passed opened(int id)
{
    return {RGUI_OPEN, id, ""};
}

passed closed(int id)
{
    return {RGUI_CLOSE, id, ""};
}

// Nothing of a test stays behind.
class Rgui : public testing::Test
{
  protected:
    Rgui() : descriptors_(peers::descriptors())
    {
        const std::lock_guard<std::mutex> lock(rooms_mutex);
        rooms.clear();
    }
    void TearDown() override
    {
        EXPECT_TRUE(peers::eventually(
            [] { return peers::threads_named("rgui-listen") + peers::threads_named("rgui-recv") == 0; }));
        EXPECT_EQ(peers::descriptors(), descriptors_ + kept_descriptors_);
    }

    const relay::server_port port_8008_;
    const usr1_handling handling_;
    const int descriptors_;
    int kept_descriptors_ = 0; // that stay on purpose
    channel channel_;
};

class RguiLocal : public Rgui
{
  protected:
    RguiLocal() : port_(peers::free_port())
    {
    }
    void start()
    {
        session_ =
            rgui_start_local("127.0.0.1", std::to_string(port_).c_str(), nullptr, channel::send, &channel_);
        ASSERT_NE(session_, nullptr);
    }
    void stop()
    {
        rgui_stop_local(std::exchange(session_, nullptr));
    }
    void TearDown() override
    {
        if (session_)
            stop();
        Rgui::TearDown();
    }
    // Waits until the listener waits for a client.
    static void await_accept(int accepts)
    {
        EXPECT_TRUE(peers::eventually([&] { return peers::accepts >= accepts; }));
        peers::sleep_us(20000);
    }
    // A client whose OPEN has passed.
    stream client(int receive_buffer = 0)
    {
        const size_t before = channel_.sent().size();
        stream made = connect_to(port_, receive_buffer);
        channel_.wait_for(before + 1);
        return made;
    }

    const unsigned int port_;
    rgui_session *session_ = nullptr;
};

class RguiRemote : public Rgui
{
  protected:
    RguiRemote() : session_(rgui_start_remote(channel::send, &channel_))
    {
    }
    void stop()
    {
        rgui_stop_remote(std::exchange(session_, nullptr));
    }
    void TearDown() override
    {
        if (session_)
            stop();
        Rgui::TearDown();
    }
    // The server's side of a connection that is opened.
    stream open(const gui_server &server, int id)
    {
        EXPECT_EQ(give(session_, RGUI_OPEN, id), 0);
        return server.take();
    }

    rgui_session *session_;
};

// ---- PDUs

static_assert(offsetof(rgui_pdu, opcode) == 0 && offsetof(rgui_pdu, reserved) == 1);
static_assert(offsetof(rgui_pdu, id) == 2 && offsetof(rgui_pdu, size) == 4);
static_assert(offsetof(rgui_pdu, payload) == 8 && sizeof(rgui_pdu) == 8);

TEST(RguiPdu, IsMadeOfZeroesWithItsCapacityAsSize)
{
    rgui_pdu *pdu = create_pdu(nullptr, RGUI_CLOSE, 100);
    ASSERT_NE(pdu, nullptr);
    EXPECT_EQ(pdu->opcode, 3);
    EXPECT_EQ(pdu->reserved, 0);
    EXPECT_EQ(pdu->id, 0);
    EXPECT_EQ(pdu->size, 100u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(pdu->payload), 100), std::string(100, '\0'));
    free(pdu);
}

TEST(RguiPdu, IsNullWithoutMemory)
{
    const during failing(callocs_left, 0);
    EXPECT_EQ(create_pdu(nullptr, RGUI_CLOSE, 0), nullptr);
}

TEST(RguiPdu, IsDumpedWithItsFirst64Bytes)
{
    rgui_pdu *pdu = create_pdu(nullptr, RGUI_DATA, 80);
    memset(pdu->payload, 'A', 80);
    pdu->id = 5;
    log_lines log;
    rgui_dump_pdu(QV_LOG_DEBUG, "f", pdu, 88);
    const std::string row = ": 41 41 41 41 41 41 41 41 41 41 41 41 41 41 41 41  AAAAAAAA AAAAAAAA";
    EXPECT_THAT(log.take(), ElementsAre("DEBUG: Remote GUI PDU Dump: 'f'", "DEBUG: \tOpcode:\t0x00000001",
                                        "DEBUG: \tSize:\t80", "DEBUG: \tID:\t5",
                                        "DEBUG: **Hex Dump**********************************************",
                                        "DEBUG: 0000" + row, "DEBUG: 0010" + row, "DEBUG: 0020" + row,
                                        "DEBUG: 0030" + row));
    free(pdu);
}

TEST(RguiPdu, IsNotDumpedAtTheSilentLevel)
{
    rgui_pdu *pdu = create_pdu(nullptr, RGUI_DATA, 80);
    log_lines log;
    rgui_dump_pdu(QV_LOG_HEX_SILENT, "f", pdu, 88);
    EXPECT_THAT(log.take(), IsEmpty());
    free(pdu);
}

// ---- What arrives

TEST_F(RguiRemote, RefusesAPduWhoseSizeIsNotItsLengthAndDumpsIt)
{
    rgui_pdu *pdu = create_pdu(nullptr, RGUI_DATA, 4);
    memcpy(pdu->payload, "abcd", 4);
    pdu->id = 9;
    for (const size_t length : {11u, 10u}) {
        log_lines log;
        EXPECT_EQ(rgui_data_rx(session_, pdu, length), -1);
        const std::vector<std::string> logged = log.take();
        EXPECT_THAT(std::vector(logged.begin(), logged.begin() + 5),
                    ElementsAre("ERROR: RGUI: Invalid PDU length or partial buffer",
                                "ERROR: Remote GUI PDU Dump: 'rgui_data_rx'", "ERROR: \tOpcode:\t0x00000001",
                                "ERROR: \tSize:\t4", "ERROR: \tID:\t9"));
        EXPECT_THAT(logged.back(), HasSubstr(length == 11 ? " abc" : " ab"));
    }
    free(pdu);
}

TEST_F(RguiRemote, RefusesAPduShorterThanItsHeader)
{
    for (size_t length = 0; length < sizeof(rgui_pdu); length++) {
        SCOPED_TRACE(length);
        const std::vector<uint8_t> bytes(length, 3);
        log_lines log;
        EXPECT_EQ(take_pdu_bytes(session_, bytes), -1);
        EXPECT_THAT(log.take(), Contains("ERROR: RGUI: Invalid PDU length or partial buffer"));
    }
}

TEST_F(RguiLocal, TakesAnyBytesAsAPdu)
{
    start();
    stream peer = client();
    std::mt19937 random(7);
    for (int i = 0; i < 20000; i++) {
        std::vector<uint8_t> bytes(random() % 24);
        for (uint8_t &byte : bytes)
            byte = static_cast<uint8_t>(random());
        const size_t length = bytes.size();
        if (length >= 8 && i % 2 == 0) { // one that is taken
            const auto size = static_cast<uint32_t>(length - 8);
            const auto id = static_cast<uint16_t>(2 + random() % 4);
            memcpy(bytes.data() + 2, &id, 2);
            memcpy(bytes.data() + 4, &size, 4);
        }
        uint32_t size = 0;
        if (length >= 8)
            memcpy(&size, bytes.data() + 4, 4);
        const int result = take_pdu_bytes(session_, bytes);
        if (length < 8 || size != length - 8) {
            ASSERT_EQ(result, -1);
        } else {
            ASSERT_EQ(result, bytes[0] == RGUI_DATA ? -1 : 0);
        }
    }
    EXPECT_EQ(give(session_, RGUI_DATA, 1, "still there"), 0);
    EXPECT_EQ(peer.read(11), "still there");
}

TEST_F(RguiRemote, TakesAnyBytesAsAPdu)
{
    std::mt19937 random(8);
    for (int i = 0; i < 3000; i++) {
        std::vector<uint8_t> bytes(random() % 24);
        for (uint8_t &byte : bytes)
            byte = static_cast<uint8_t>(random());
        const auto size = static_cast<uint32_t>(bytes.size() - 8);
        if (bytes.size() >= 8 && i % 2 == 0)
            memcpy(bytes.data() + 4, &size, 4);
        take_pdu_bytes(session_, bytes);
    }
}

TEST_F(RguiRemote, RefusesDataForAnUnknownConnection)
{
    EXPECT_EQ(give(session_, RGUI_DATA, 1, "lost"), -1);
    EXPECT_THAT(channel_.sent(), IsEmpty());
}

TEST_F(RguiRemote, SaysThatAnOpcodeIsUnknown)
{
    log_lines log;
    EXPECT_EQ(give(session_, 7, 1), 0);
    EXPECT_EQ(give(session_, 0, 1), 0);
    EXPECT_EQ(give(session_, 255, 1), 0);
    EXPECT_THAT(log.take(), ElementsAre("ERROR: RGUI: Unknown or Illegal Opcode 0x07",
                                        "ERROR: RGUI: Unknown or Illegal Opcode 00",
                                        "ERROR: RGUI: Unknown or Illegal Opcode 0xff"));
}

TEST_F(RguiRemote, ClosesTheConnectionOfAnUnknownOpcode)
{
    const gui_server server;
    const stream peer = open(server, 3);
    EXPECT_EQ(give(session_, 7, 3), 0);
    EXPECT_TRUE(peer.ends());
    stop();
    EXPECT_THAT(channel_.sent(), IsEmpty());
}

TEST_F(RguiRemote, TakesACloseOfAnUnknownConnection)
{
    log_lines log;
    EXPECT_EQ(give(session_, RGUI_CLOSE, 1), 0);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(RguiRemote, RefusesAMissingSessionOrPdu)
{
    log_lines log;
    EXPECT_EQ(give(nullptr, RGUI_CLOSE, 1), -1);
    EXPECT_EQ(rgui_data_rx(session_, nullptr, 8), -1);
    EXPECT_EQ(rgui_data_rx(nullptr, nullptr, 8), -1);
    rgui_stop_local(nullptr);
    rgui_stop_remote(nullptr);
    const char *session = "ERROR: assert session != \\(\\(void \\*\\)0\\) .*remote_gui.cpp:[0-9]+";
    const char *data = "ERROR: assert data != \\(\\(void \\*\\)0\\) .*remote_gui.cpp:[0-9]+";
    EXPECT_THAT(log.take(), ElementsAre(MatchesRegex(session), MatchesRegex(data), MatchesRegex(session),
                                        MatchesRegex(data), MatchesRegex(session), MatchesRegex(session)));
}

TEST_F(RguiRemote, LooksAtTheLengthAlsoWithoutASession)
{
    log_lines log;
    const rgui_pdu pdu = {RGUI_DATA, 0, 5, 3};
    EXPECT_EQ(rgui_data_rx(nullptr, &pdu, 8), -1);
    const auto logged = log.take();
    ASSERT_GE(logged.size(), 3u);
    EXPECT_THAT(logged[0], MatchesRegex("ERROR: assert session != .*"));
    EXPECT_EQ(logged[1], "ERROR: RGUI: Invalid PDU length or partial buffer");
    EXPECT_EQ(logged[2], "ERROR: Remote GUI PDU Dump: 'rgui_data_rx'");
}

TEST_F(RguiRemote, RefusesWhatComesAfterItsStop)
{
    rgui_session *stopped = session_;
    stop();
    EXPECT_EQ(give(stopped, RGUI_OPEN, 1), -1);
    rgui_stop_remote(stopped);
    rgui_stop_local(stopped);
    EXPECT_THAT(channel_.sent(), IsEmpty());
}

// ---- The local end

TEST_F(RguiLocal, AnnouncesClientsWithIdsFromOne)
{
    start();
    const stream first = client(), second = client(), third = client();
    const std::vector<passed> sent = channel_.wait_for(3);
    EXPECT_THAT(sent, ElementsAre(opened(1), opened(2), opened(3)));
    for (const passed &pdu : sent) {
        EXPECT_EQ(pdu.length, 8u);
        EXPECT_EQ(pdu.reserved, 0);
    }
}

TEST_F(RguiLocal, ForwardsWhatAClientSendsAndThatItEnded)
{
    start();
    stream peer = client();
    peer.write("hello");
    EXPECT_EQ(channel_.bytes_of(1, 5), "hello");
    peer.end();
    const std::vector<passed> sent =
        channel_.wait_until([](const auto &so_far) { return so_far.back() == closed(1); });
    EXPECT_EQ(sent.front(), opened(1));
    EXPECT_EQ(sent.back(), closed(1));
    EXPECT_EQ(sent.back().length, 8u);
    EXPECT_EQ(sent[1].length, 8 + sent[1].payload.size());
}

TEST_F(RguiLocal, WritesDataToItsClientAlone)
{
    start();
    const stream first = client(), second = client();
    const std::string long_text = pattern(3000000);
    std::thread writing([&] { EXPECT_EQ(give(session_, RGUI_DATA, 2, long_text), 0); });
    EXPECT_EQ(second.read(long_text.size()), long_text);
    writing.join();
    EXPECT_EQ(give(session_, RGUI_DATA, 2, ""), 0);
    EXPECT_EQ(give(session_, RGUI_DATA, 1, "x"), 0);
    EXPECT_EQ(first.read(1), "x");
}

TEST_F(RguiLocal, ClosesAClientWithoutACloseInAnswer)
{
    start();
    const stream peer = client();
    EXPECT_EQ(give(session_, RGUI_DATA, 1, "last words"), 0);
    EXPECT_EQ(give(session_, RGUI_CLOSE, 1), 0);
    EXPECT_EQ(peer.read(100), "last words");
    EXPECT_TRUE(peers::eventually([&] { return give(session_, RGUI_DATA, 1, "x") == -1; }));
    stop();
    EXPECT_THAT(channel_.sent(), ElementsAre(opened(1)));
}

TEST_F(RguiLocal, ClosesAClientByAnOpenThatIsNotExpected)
{
    start();
    const stream peer = client();
    EXPECT_EQ(give(session_, RGUI_OPEN, 1), 0);
    EXPECT_TRUE(peer.ends());
    stop();
    EXPECT_THAT(channel_.sent(), ElementsAre(opened(1)));
}

TEST_F(RguiLocal, ReportsAnOpenOfAnUnknownConnection)
{
    log_lines log;
    start();
    EXPECT_EQ(give(session_, RGUI_OPEN, 1), 0);
    stop();
    EXPECT_THAT(log.take(), ElementsAre(MatchesRegex(
                                "ERROR: assert conn != \\(\\(void \\*\\)0\\) .*remote_gui.cpp:[0-9]+")));
}

TEST_F(RguiLocal, CompletesAWriteThatACloseOvertakes)
{
    start();
    const stream peer = client(4096);
    const std::string text = pattern(8000000);
    std::thread writing([&] { EXPECT_EQ(give(session_, RGUI_DATA, 1, text), 0); });
    EXPECT_EQ(peer.read(1), text.substr(0, 1));
    peers::sleep_us(50000); // the write waits for room
    EXPECT_EQ(give(session_, RGUI_CLOSE, 1), 0);
    EXPECT_EQ(peer.read(text.size()), text.substr(1));
    writing.join();
    EXPECT_TRUE(peer.ends());
}

TEST_F(RguiLocal, EndsAConnectionWhoseWriteFailed)
{
    start();
    stream peer = client();
    peer.reset();
    for (int i = 0; i < 100; i++) // no signal ends the process
        give(session_, RGUI_DATA, 1, "nobody");
    EXPECT_EQ(channel_.wait_for(2), (std::vector{opened(1), closed(1)}));
}

TEST_F(RguiLocal, EndsAConnectionWhoseWriteWasInterrupted)
{
    start();
    const stream peer = client(4096);
    const std::string text = pattern(20000000);
    std::atomic<bool> done = false;
    std::thread writing([&] {
        EXPECT_EQ(give(session_, RGUI_DATA, 1, text), 0);
        done = true;
    });
    EXPECT_EQ(peer.read(1), text.substr(0, 1));
    peers::sleep_us(50000);
    while (!done) {
        __real_pthread_kill(writing.native_handle(), SIGUSR1);
        peers::sleep_us(1000);
    }
    writing.join();
    EXPECT_EQ(channel_.wait_for(2), (std::vector{opened(1), closed(1)}));
    EXPECT_TRUE(peer.ends());
}

TEST_F(RguiLocal, SizesItsPdusToTheTraffic)
{
    start();
    const stream peer = client();
    size_t sent = 0;
    for (const size_t size : {1u, 10u, 40u, 1u, 1u}) {
        peer.write(std::string(size, 'x'));
        sent += size;
        EXPECT_EQ(channel_.bytes_of(1, sent).size(), sent);
    }
    const std::lock_guard<std::mutex> lock(rooms_mutex);
    ASSERT_GE(rooms.size(), 5u);
    // First all, then twice what came, at least 64: the one byte is received before.
    EXPECT_THAT(std::vector(rooms.begin(), rooms.begin() + 5), ElementsAre(65535u, 63u, 63u, 79u, 63u));
}

TEST_F(RguiLocal, GrowsItsPdusTo64KiBInABurst)
{
    start();
    const stream peer = client();
    peer.write("x");
    channel_.bytes_of(1, 1);
    const std::string burst = pattern(4000000);
    peer.write(burst);
    EXPECT_EQ(channel_.bytes_of(1, 1 + burst.size()), "x" + burst);
    size_t largest = 0;
    for (const passed &pdu : channel_.sent())
        largest = std::max(largest, pdu.payload.size());
    EXPECT_EQ(largest, 65536u);
    const std::lock_guard<std::mutex> lock(rooms_mutex);
    for (const size_t room : rooms)
        EXPECT_LE(room, 65535u);
}

TEST_F(RguiLocal, NamesItsThreads)
{
    start();
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-listen") == 1; }));
    const stream first = client(), second = client();
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-recv") == 2; }));
}

TEST_F(RguiLocal, SendsWithoutDelay)
{
    nodelay_calls = 0;
    start();
    const stream peer = client();
    EXPECT_EQ(nodelay_calls, 1);
}

TEST_F(RguiLocal, GoesOnWhenDelayCannotBeSwitchedOff)
{
    log_lines log;
    const during failing(option_error, EPERM);
    start();
    const stream peer = client();
    peer.write("x");
    EXPECT_EQ(channel_.bytes_of(1, 1), "x");
    stop();
    EXPECT_THAT(log.take(), ElementsAre("ERROR: RGUI: setsockopt: TCP_NODELAY: Operation not permitted (1)"));
}

TEST_F(RguiLocal, KeepsConnectionsApartWhoseIdsAreFarApart)
{
    start();
    const stream first = client();
    std::optional<failing> threads(std::in_place, "pthread_create", EAGAIN); // which saves time
    for (int id = 2; id <= 256; id++) {
        connect_to(port_).reset();
        ASSERT_TRUE(channel_.wait_for_opens(static_cast<size_t>(id)));
        ASSERT_EQ(give(session_, RGUI_CLOSE, id), 0);
    }
    threads.reset();
    const stream second = connect_to(port_);
    ASSERT_TRUE(channel_.wait_for_opens(257));
    EXPECT_EQ(give(session_, RGUI_CLOSE, 1), 0);
    EXPECT_TRUE(peers::eventually([&] { return give(session_, RGUI_DATA, 1, "x") == -1; }));
    EXPECT_EQ(give(session_, RGUI_DATA, 257, "second"), 0);
    EXPECT_EQ(second.read(6), "second");
}

TEST_F(RguiLocal, BeginsAgainAfterTheLastIdAndPassesOverThoseInUse)
{
    start();
    const stream staying = client();
    std::optional<failing> threads(std::in_place, "pthread_create", EAGAIN); // which saves time
    for (int id = 2; id <= 65535; id++) {
        connect_to(port_).reset(); // without the usual goodbye, so that no port rests
        ASSERT_TRUE(channel_.wait_for_opens(static_cast<size_t>(id)));
        ASSERT_EQ(give(session_, RGUI_CLOSE, id), 0);
    }
    threads.reset();
    ASSERT_TRUE(channel_.wait_for_opens(65535));
    const stream zero = connect_to(port_);
    ASSERT_TRUE(channel_.wait_for_opens(65536));
    const stream two = connect_to(port_);
    ASSERT_TRUE(channel_.wait_for_opens(65537));
    EXPECT_EQ(give(session_, RGUI_DATA, 1, "one"), 0);
    EXPECT_EQ(give(session_, RGUI_DATA, 0, "zero"), 0);
    EXPECT_EQ(give(session_, RGUI_DATA, 2, "two"), 0);
    EXPECT_EQ(staying.read(3), "one");
    EXPECT_EQ(zero.read(4), "zero");
    EXPECT_EQ(two.read(3), "two");
}

TEST_F(RguiLocal, LivesOnWithoutAListenerWhenThePortIsInUse)
{
    const int taken = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = relay::loopback(port_);
    ASSERT_EQ(bind(taken, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    log_lines log;
    const int threads = peers::threads_by_now();
    start();
    EXPECT_TRUE(peers::eventually([&] { return failing_calls::threads() == threads; }));
    EXPECT_EQ(give(session_, RGUI_DATA, 1), -1);
    const int signals = signals_sent;
    stop();
    EXPECT_EQ(signals_sent, signals); // the thread had ended
    close(taken);
    EXPECT_THAT(log.take(), ElementsAre("ERROR: qvsock_listen: unable to bind to port " +
                                        std::to_string(port_) + " Address already in use"));
}

TEST_F(RguiLocal, LivesOnWithoutAListenerWithoutAService)
{
    log_lines log;
    session_ = rgui_start_local(nullptr, nullptr, nullptr, channel::send, &channel_);
    ASSERT_NE(session_, nullptr);
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-listen") == 0; }));
    stop();
    EXPECT_THAT(log.take(), ElementsAre(HasSubstr("qvsock_listen: getaddrinfo: ")));
}

TEST_F(RguiLocal, ListensOverIPv4Alone)
{
    log_lines log;
    session_ = rgui_start_local("::1", std::to_string(port_).c_str(), nullptr, channel::send, &channel_);
    ASSERT_NE(session_, nullptr);
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-listen") == 0; }));
    stop();
    EXPECT_THAT(log.take(), ElementsAre(HasSubstr("qvsock_listen: getaddrinfo: ")));
}

TEST_F(RguiLocal, ListensOnAllAddressesWithoutANode)
{
    session_ = rgui_start_local(nullptr, std::to_string(port_).c_str(), this, channel::send, &channel_);
    ASSERT_NE(session_, nullptr);
    const stream peer = client();
    EXPECT_EQ(channel_.wait_for(1), std::vector{opened(1)});
}

TEST_F(RguiLocal, ListensOnItsAddressAlone)
{
    start();
    EXPECT_TRUE(peers::eventually([&] { return peers::listens_at("127.0.0.1", port_); }));
    EXPECT_FALSE(peers::listens_at("127.0.0.2", port_));
}

TEST_F(RguiLocal, KeepsCopiesOfItsAddress)
{
    std::string node = "127.0.0.1", service = std::to_string(port_);
    session_ = rgui_start_local(node.c_str(), service.c_str(), nullptr, channel::send, &channel_);
    std::fill(node.begin(), node.end(), 'x');
    std::fill(service.begin(), service.end(), 'x');
    const stream peer = client();
    EXPECT_TRUE(peer.is_open());
}

// ---- What fails at the local end

TEST_F(RguiLocal, EndsItsListenerAndConnectionsAtAFailedAccept)
{
    log_lines log;
    peers::accepts = 0;
    start();
    const stream peer = client();
    await_accept(2);
    {
        const failing accepts("accept", EMFILE);
        const stream second = client(); // by the accept that waits already
        EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-listen") == 0; }));
        EXPECT_TRUE(peer.ends());
        EXPECT_THAT(channel_.wait_for(4), Contains(closed(1)));
    }
    EXPECT_THAT(channel_.sent(), Contains(closed(2)));
    stop();
    EXPECT_THAT(log.take(), ElementsAre("ERROR: listener_thread: accept: Too many open files (24)"));
}

TEST_F(RguiLocal, ReportsAnAcceptThatIsInterruptedWithoutAStop)
{
    log_lines log;
    peers::accepts = 0;
    start();
    await_accept(1);
    {
        const failing accepts("accept", EINTR);
        const stream peer = client();
        EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-listen") == 0; }));
    }
    stop();
    EXPECT_THAT(log.take(), ElementsAre("ERROR: listener_thread: accept: Interrupted system call (4)"));
}

TEST_F(RguiLocal, EndsItsListenerWithoutMemoryForAConnection)
{
    log_lines log;
    start();
    const stream first = client();
    first.write("x"); // its thread has its PDU
    channel_.wait_for(2);
    peers::sleep_us(20000);
    {
        const during failing(callocs_left, 0);
        const stream second = connect_to(port_);
        EXPECT_TRUE(second.ends());
    }
    EXPECT_TRUE(first.ends());
    stop();
    EXPECT_THAT(log.take(), ElementsAre("ERROR: listener_thread: Cannot allocate memory (12)",
                                        "ERROR: listener_thread: accept: Cannot allocate memory (12)"));
}

TEST_F(RguiLocal, LeavesItsConnectionsWithoutMemoryForAnOpen)
{
    log_lines log;
    start();
    const stream first = client();
    first.write("x");
    channel_.wait_for(2);
    peers::sleep_us(20000);
    const during failing(callocs_left, 1);
    const stream second = connect_to(port_);
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-listen") == 0; }));
    first.write("y");
    EXPECT_EQ(channel_.bytes_of(1, 2), "xy");
    EXPECT_EQ(give(session_, RGUI_DATA, 2, "unannounced"), 0);
    EXPECT_EQ(second.read(11), "unannounced");
    stop();
    EXPECT_TRUE(second.ends());
    EXPECT_THAT(channel_.sent(), ElementsAre(opened(1), data(1, "x"), data(1, "y"), closed(1)));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(RguiLocal, DoesNotNoticeAClientForWhichNoThreadCanBeHad)
{
    log_lines log;
    start();
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-listen") == 1; }));
    {
        const failing threads("pthread_create", EAGAIN, any, 0, 1);
        const stream without = client();
        const stream next = client();
        EXPECT_THAT(channel_.wait_for(2), ElementsAre(opened(1), opened(2)));
        EXPECT_EQ(give(session_, RGUI_DATA, 1, "x"), 0);
        EXPECT_EQ(without.read(1), "x");
        EXPECT_EQ(give(session_, RGUI_CLOSE, 1), 0);
        EXPECT_TRUE(without.ends());
        EXPECT_EQ(give(session_, RGUI_DATA, 1, "x"), -1);
    }
    const failing threads("pthread_create", EAGAIN, any, 0, 1);
    const stream kept = client();
    stop();
    EXPECT_TRUE(kept.ends());
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(RguiLocal, IsNotStartedWithoutAThread)
{
    log_lines log;
    const failing threads("pthread_create", EAGAIN, any, 0, 1);
    EXPECT_EQ(rgui_start_local("127.0.0.1", "0", nullptr, channel::send, &channel_), nullptr);
    EXPECT_THAT(
        log.take(),
        ElementsAre("ERROR: rgui_start_local: create pthread: Resource temporarily unavailable (11)"));
}

TEST_F(Rgui, IsNotStartedWithoutACallback)
{
    EXPECT_EQ(rgui_start_local("127.0.0.1", "0", nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(rgui_start_remote(nullptr, nullptr), nullptr);
}

TEST_F(Rgui, IsNotStartedWithoutMemory)
{
    {
        const during failing(callocs_left, 0);
        EXPECT_EQ(rgui_start_remote(channel::send, &channel_), nullptr);
    }
    {
        const during failing(callocs_left, 0);
        EXPECT_EQ(rgui_start_local("127.0.0.1", "0", nullptr, channel::send, &channel_), nullptr);
    }
    for (const int successes : {0, 1}) {
        const failing_heap::after failing(successes, failing_heap::strdup_calls);
        EXPECT_EQ(rgui_start_local("127.0.0.1", "0", nullptr, channel::send, &channel_), nullptr);
        EXPECT_TRUE(failing.failed());
    }
}

// ---- What fails while a connection is received from

TEST_F(RguiLocal, EndsAConnectionWithoutMemoryForItsData)
{
    log_lines log;
    start();
    const stream peer = client();
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-recv") == 1; }));
    peers::sleep_us(20000); // it has its first PDU
    const during failing(callocs_left, 0);
    peer.write("x");
    EXPECT_TRUE(peer.ends());
    stop();
    EXPECT_THAT(channel_.sent(), ElementsAre(opened(1), data(1, "x")));
    EXPECT_THAT(log.take(), ElementsAre("ERROR: rgui_recv_data: Cannot allocate memory (12)"));
}

TEST_F(RguiLocal, EndsAConnectionWhoseDataCannotBeSent)
{
    start();
    const stream peer = client();
    channel_.answer_data_with(-1);
    peer.write("x");
    EXPECT_TRUE(peer.ends());
    EXPECT_TRUE(peers::eventually([&] { return give(session_, RGUI_DATA, 1) == -1; }));
    stop();
    EXPECT_THAT(channel_.sent(), ElementsAre(opened(1), data(1, "x")));
}

TEST_F(RguiLocal, ReportsAReceiveThatFailed)
{
    log_lines log;
    const during error(receive_error, EIO);
    const during failing(first_receives_left, 0);
    start();
    const stream peer = client();
    EXPECT_THAT(channel_.wait_for(2), ElementsAre(opened(1), closed(1)));
    EXPECT_TRUE(peer.ends());
    stop();
    EXPECT_THAT(log.take(), ElementsAre("ERROR: read(): Input/output error (5)"));
}

TEST_F(RguiLocal, IsSilentAboutAResetConnection)
{
    log_lines log;
    start();
    stream peer = client();
    peer.reset();
    EXPECT_THAT(channel_.wait_for(2), ElementsAre(opened(1), closed(1)));
    stop();
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(RguiLocal, DoesNotReleaseThePduOfAFailureBehindItsFirstByte)
{
    log_lines log;
    const during error(receive_error, EIO);
    const during failing(rests_left, 0);
    start();
    const stream peer = client();
    peer.write("xyz");
    EXPECT_THAT(channel_.wait_for(2), ElementsAre(opened(1), closed(1)));
    stop();
    EXPECT_THAT(log.take(), ElementsAre("ERROR: read(): Input/output error (5)"));
    uint8_t *kept = kept_buffer.load() - 1 - sizeof(rgui_pdu);
    EXPECT_EQ(kept[0], RGUI_DATA);
    EXPECT_EQ(kept[8], 'x');
    free(kept);
}

TEST_F(RguiLocal, EndsWithoutACloseWhenMemoryForItIsShort)
{
    start();
    stream peer = client();
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-recv") == 1; }));
    peers::sleep_us(20000);
    const during failing(callocs_left, 0);
    peer.end();
    EXPECT_TRUE(peers::eventually([&] { return give(session_, RGUI_DATA, 1) == -1; }));
    EXPECT_THAT(channel_.sent(), ElementsAre(opened(1)));
}

TEST_F(RguiLocal, LeavesDescriptorZeroOpen)
{
    peers::accepts = 0;
    start();
    await_accept(1);
    const sockaddr_in address = relay::loopback(port_);
    const stream first(socket(AF_INET, SOCK_STREAM, 0)), second(socket(AF_INET, SOCK_STREAM, 0));
    const int input = dup(0);
    close(0);
    // The accept that waits has its number already; the next one gets 0.
    ASSERT_EQ(connect(first.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(connect(second.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    channel_.wait_for(2);
    EXPECT_EQ(give(session_, RGUI_DATA, 2, "x"), 0);
    EXPECT_EQ(second.read(1), "x");
    stop();
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    dup2(input, 0);
    close(input);
}

// ---- The remote end

TEST_F(RguiRemote, OpensAConnectionToTheServer)
{
    const gui_server server;
    nodelay_calls = 0;
    const stream peer = open(server, 77);
    ASSERT_TRUE(peer.is_open());
    EXPECT_EQ(nodelay_calls, 1);
    EXPECT_EQ(give(session_, RGUI_DATA, 77, "question"), 0);
    EXPECT_EQ(peer.read(8), "question");
    peer.write("answer");
    EXPECT_EQ(channel_.bytes_of(77, 6), "answer");
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-recv") == 1; }));
}

TEST_F(RguiRemote, TellsThatTheServerEnded)
{
    const gui_server server;
    stream peer = open(server, 65535);
    peer.write("bye");
    peer.end();
    const std::vector<passed> sent = channel_.wait_until(
        [](const auto &so_far) { return !so_far.empty() && so_far.back() == closed(65535); });
    EXPECT_EQ(sent.back(), closed(65535));
    EXPECT_EQ(channel_.bytes_of(65535, 3), "bye");
    EXPECT_TRUE(peers::eventually([&] { return give(session_, RGUI_DATA, 65535) == -1; }));
}

TEST_F(RguiRemote, ClosesTheServersConnectionWithoutACloseInAnswer)
{
    const gui_server server;
    const stream peer = open(server, 1);
    EXPECT_EQ(give(session_, RGUI_CLOSE, 1), 0);
    EXPECT_TRUE(peer.ends());
    stop();
    EXPECT_THAT(channel_.sent(), IsEmpty());
}

TEST_F(RguiRemote, AnswersWithACloseWhenTheServerIsDown)
{
    log_lines log;
    EXPECT_EQ(give(session_, RGUI_OPEN, 5), -1);
    EXPECT_THAT(channel_.sent(), ElementsAre(closed(5)));
    EXPECT_EQ(give(session_, RGUI_DATA, 5), -1);
    EXPECT_THAT(log.take(), IsEmpty());
    const gui_server server; // it is up again
    EXPECT_TRUE(open(server, 5).is_open());
}

// The session, its connection and the socket stay on purpose.
__attribute__((noinline)) void open_twice(channel &sent)
{
    const gui_server server;
    rgui_session *session = rgui_start_remote(channel::send, &sent);
    EXPECT_EQ(give(session, RGUI_OPEN, 4), 0);
    stream peer = server.take();
    EXPECT_EQ(give(session, RGUI_OPEN, 4), 0);
    EXPECT_FALSE(server.take(200).is_open());
    EXPECT_EQ(give(session, RGUI_DATA, 4, "goes on"), 0);
    EXPECT_EQ(peer.read(7), "goes on");

    peer.end();
    EXPECT_EQ(sent.wait_for(1), std::vector{closed(4)});
    EXPECT_TRUE(peers::eventually([] { return peers::threads_named("rgui-recv") == 0; }));
    EXPECT_EQ(give(session, RGUI_DATA, 4, "still known"), 0);
    const int signals = signals_sent;
    rgui_stop_remote(session);
    EXPECT_EQ(signals_sent, signals); // the thread had ended
    EXPECT_EQ(give(session, RGUI_DATA, 4), -1);
}

TEST_F(Rgui, RefusesASecondOpenAndKeepsTheConnectionForGood)
{
    log_lines log;
    open_twice(channel_);
    EXPECT_THAT(log.take(), ElementsAre("ERROR: RGUI: Open Connection: Duplicate connection ID"));
    kept_descriptors_ = 1;
}

TEST_F(RguiRemote, AnswersWithACloseWithoutMemory)
{
    log_lines log;
    const during failing(callocs_left, 0);
    EXPECT_EQ(give(session_, RGUI_OPEN, 5), -1);
    EXPECT_THAT(channel_.sent(), ElementsAre(closed(5)));
    EXPECT_THAT(log.take(), ElementsAre("ERROR: RGUI: New connection: Cannot allocate memory (12)"));
}

TEST_F(RguiRemote, AnswersNothingWithoutMemoryForTheClose)
{
    const during failing(callocs_left, 1);
    EXPECT_EQ(give(session_, RGUI_OPEN, 5), -1);
    EXPECT_THAT(channel_.sent(), IsEmpty());
}

TEST_F(RguiRemote, AnswersWithACloseWithoutAThread)
{
    log_lines log;
    const gui_server server;
    {
        const failing threads("pthread_create", EAGAIN, any, 0, 1);
        EXPECT_EQ(give(session_, RGUI_OPEN, 5), -1);
    }
    EXPECT_TRUE(server.take().ends());
    EXPECT_THAT(channel_.sent(), ElementsAre(closed(5)));
    EXPECT_EQ(give(session_, RGUI_DATA, 5), -1);
    EXPECT_THAT(
        log.take(),
        ElementsAre("ERROR: create_connection: create pthread: Resource temporarily unavailable (11)"));
}

TEST_F(RguiRemote, GoesOnWhenDelayCannotBeSwitchedOff)
{
    log_lines log;
    const during failing(option_error, EPERM);
    const gui_server server;
    const stream peer = open(server, 1);
    peer.write("x");
    EXPECT_EQ(channel_.bytes_of(1, 1), "x");
    EXPECT_THAT(log.take(), ElementsAre("ERROR: RGUI: setsockopt: TCP_NODELAY: Operation not permitted (1)"));
}

// A server whose queue of waiting connections is full.
class busy_server : public gui_server
{
  public:
    busy_server() : gui_server(0)
    {
        const sockaddr_in address = relay::loopback(8008);
        for (int i = 0; i < 3; i++) {
            waiting_.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            connect(waiting_.back().fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
        }
        peers::sleep_us(10000);
    }
    void dismiss()
    {
        waiting_.clear();
    }

  private:
    std::vector<stream> waiting_;
};

TEST_F(RguiRemote, OpensOneConnectionWhenTwoThreadsOpenOneId)
{
    log_lines log;
    busy_server server;
    std::atomic<int> failures = 0, ended = 0;
    auto open_one = [&] {
        failures += give(session_, RGUI_OPEN, 6) != 0;
        ended++;
    };
    std::thread first(open_one), second(open_one);
    peers::sleep_us(50000); // both find it unknown, and wait for the server
    server.dismiss();
    std::vector<stream> taken;
    std::string received;
    bool data_given = false;
    EXPECT_TRUE(peers::eventually([&] {
        if (stream peer = server.take(5); peer.is_open())
            taken.push_back(std::move(peer));
        if (ended == 2 && !std::exchange(data_given, true)) {
            EXPECT_EQ(give(session_, RGUI_DATA, 6, "once"), 0);
        }
        for (const stream &peer : taken)
            received += peer.read_at_once();
        return received.size() >= 4;
    }));
    first.join();
    second.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(received, "once");
    stop();
    EXPECT_THAT(log.take(), ElementsAre("ERROR: RGUI: Open Connection: Duplicate connection ID"));
    EXPECT_THAT(channel_.sent(), ElementsAre(closed(6)));
}

TEST_F(RguiRemote, AnswersWithACloseWhenItsWaitForTheServerIsInterrupted)
{
    const usr1_handling restarting([](int) {}, SA_RESTART);
    const busy_server server;
    std::atomic<bool> done = false;
    std::thread opening([&] {
        EXPECT_EQ(give(session_, RGUI_OPEN, 5), -1);
        done = true;
    });
    EXPECT_TRUE(peers::eventually([&] {
        __real_pthread_kill(opening.native_handle(), SIGUSR1);
        return done.load();
    }));
    opening.join();
    EXPECT_THAT(channel_.sent(), ElementsAre(closed(5)));
}

// ---- Stopping

TEST_F(RguiLocal, TellsOfEveryConnectionThatIsStopped)
{
    start();
    const stream first = client(), second = client();
    stop();
    EXPECT_TRUE(first.ends());
    EXPECT_TRUE(second.ends());
    EXPECT_THAT(channel_.sent(), testing::UnorderedElementsAre(opened(1), opened(2), closed(1), closed(2)));
    EXPECT_EQ(peers::threads_named("rgui-listen"), 0);
}

TEST_F(RguiRemote, TellsOfEveryConnectionThatIsStopped)
{
    const gui_server server;
    const stream first = open(server, 1), second = open(server, 2);
    stop();
    EXPECT_TRUE(first.ends());
    EXPECT_TRUE(second.ends());
    EXPECT_THAT(channel_.sent(), testing::UnorderedElementsAre(closed(1), closed(2)));
}

TEST_F(RguiLocal, StopsWhileAWriteWaitsForAClientThatNeverReads)
{
    start();
    const stream stuck = client(4096);
    const std::string text = pattern(20000000);
    std::thread writing([&] { EXPECT_EQ(give(session_, RGUI_DATA, 1, text), 0); });
    EXPECT_EQ(stuck.read(1), text.substr(0, 1));
    peers::sleep_us(50000); // the write waits for room
    rgui_stop_local(session_);
    writing.join();
    session_ = nullptr;
}

// Were it read after the stop, a client that still sends would not be reset, and wait for its window to open.
TEST_F(RguiLocal, LeavesUnreadWhatAStopOvertakes)
{
    start();
    const during late_receives(receive_delay_us, 1000000);
    const stream peer = client();
    peer.write("hello");
    peers::sleep_us(50000);
    stop();
    const std::lock_guard<std::mutex> lock(rooms_mutex);
    EXPECT_THAT(rooms, IsEmpty());
}

TEST_F(RguiRemote, StopsWhileAConnectionIsNotTaken)
{
    const busy_server server;
    std::atomic<int> result = 1;
    std::thread opening([&] { result = give(session_, RGUI_OPEN, 1); });
    peers::sleep_us(50000);
    EXPECT_EQ(result, 1);
    rgui_stop_remote(session_);
    opening.join();
    session_ = nullptr;
    EXPECT_EQ(result, -1);
    EXPECT_THAT(channel_.sent(), ElementsAre(closed(1)));
}

TEST_F(RguiLocal, StopsWhereTheSignalWouldEndTheProcess)
{
    const usr1_handling by_default(SIG_DFL);
    start();
    const stream peer = client();
    stop();
    EXPECT_TRUE(peer.ends());
}

TEST_F(RguiLocal, StopsWhereTheSignalIsIgnored)
{
    log_lines log;
    const usr1_handling ignoring(SIG_IGN);
    start();
    const stream peer = client();
    stop();
    EXPECT_TRUE(peer.ends());
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(RguiLocal, StopsWhereTheSignalRestartsCalls)
{
    const usr1_handling restarting([](int) {}, SA_RESTART);
    start();
    const stream peer = client();
    stop();
    EXPECT_TRUE(peer.ends());
}

TEST_F(RguiLocal, StopsWhereTheSignalIsBlocked)
{
    sigset_t usr1, before;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &before);
    start();
    const stream peer = client();
    stop();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_TRUE(peer.ends());
}

// A callback that waits until SIGUSR1 comes, with an own wait that the relay knows nothing of.
std::atomic<int> interruptions;

int wait_for_signal(rgui_pdu *pdu, size_t, void *)
{
    const int opcode = pdu->opcode;
    free(pdu);
    if (opcode == RGUI_DATA && poll(nullptr, 0, 20000) < 0)
        interruptions++;
    return 0;
}

TEST_F(RguiLocal, WakesACallbackThatWaits)
{
    interruptions = 0;
    session_ =
        rgui_start_local("127.0.0.1", std::to_string(port_).c_str(), nullptr, wait_for_signal, nullptr);
    const stream peer = connect_to(port_);
    peer.write("x");
    peers::sleep_us(50000);
    stop();
    EXPECT_EQ(interruptions, 1);
}

// A daemon's channel has a lock, which it also holds while it stops the relay. It outlives the callbacks: so
// do the ones below, which each test has of its own.
struct locked_channel {
    int opcode; // the callback waits at this one only
    std::mutex lock = {};
    std::atomic<int> waited = 0;

    static int send(rgui_pdu *pdu, size_t, void *cookie)
    {
        auto *channel = static_cast<locked_channel *>(cookie);
        if (pdu->opcode == channel->opcode) {
            const std::lock_guard<std::mutex> held(channel->lock);
            channel->waited++;
        }
        free(pdu);
        return 0;
    }
};

TEST_F(RguiLocal, StopsBesideACallbackThatWaitsForTheStopper)
{
    static locked_channel channels[] = {{RGUI_OPEN}, {RGUI_DATA}, {RGUI_CLOSE}};
    for (locked_channel &locked : channels) {
        SCOPED_TRACE(locked.opcode);
        session_ = rgui_start_local("127.0.0.1", std::to_string(port_).c_str(), nullptr, locked_channel::send,
                                    &locked);
        {
            const std::lock_guard<std::mutex> held(locked.lock);
            const stream peer = connect_to(port_);
            peer.write("x");
            peers::sleep_us(50000);
            const auto begin = std::chrono::steady_clock::now();
            stop();
            EXPECT_LT(peers::seconds_since(begin), 10 * slowness);
            EXPECT_EQ(locked.waited, 0);
        }
        EXPECT_TRUE(peers::eventually([&] {
            return locked.waited == 1 &&
                   peers::threads_named("rgui-listen") + peers::threads_named("rgui-recv") == 0;
        }));
    }
}

TEST_F(RguiRemote, StopsBesideACallbackThatWaitsForTheStopper)
{
    const gui_server server;
    static locked_channel locked = {RGUI_CLOSE};
    rgui_session *session = rgui_start_remote(locked_channel::send, &locked);
    EXPECT_EQ(give(session, RGUI_OPEN, 1), 0);
    const stream peer = server.take();
    {
        const std::lock_guard<std::mutex> held(locked.lock);
        const auto begin = std::chrono::steady_clock::now();
        rgui_stop_remote(session);
        EXPECT_LT(peers::seconds_since(begin), 10 * slowness);
        EXPECT_TRUE(peer.ends());
        EXPECT_EQ(locked.waited, 0);
    }
    EXPECT_TRUE(
        peers::eventually([&] { return locked.waited == 1 && peers::threads_named("rgui-recv") == 0; }));
}

// A callback that stops the session that called it, once.
struct own_stop {
    int opcode;
    std::atomic<rgui_session *> session = nullptr;
    std::atomic<int> stopped = 0;

    static int send(rgui_pdu *pdu, size_t, void *cookie)
    {
        auto *own = static_cast<own_stop *>(cookie);
        const int opcode = pdu->opcode;
        free(pdu);
        if (opcode == own->opcode) {
            while (!own->session)
                peers::sleep_us(1000);
            rgui_stop_local(own->session);
            own->stopped++;
        }
        return 0;
    }
};

TEST_F(RguiLocal, MayBeStoppedByItsOwnCallback)
{
    static own_stop each[] = {{RGUI_OPEN}, {RGUI_DATA}};
    for (own_stop &own : each) {
        SCOPED_TRACE(own.opcode);
        own.session =
            rgui_start_local("127.0.0.1", std::to_string(port_).c_str(), nullptr, own_stop::send, &own);
        const stream peer = connect_to(port_);
        peer.write("x");
        EXPECT_TRUE(peer.ends());
        EXPECT_TRUE(peers::eventually([&] {
            return own.stopped == 1 &&
                   peers::threads_named("rgui-listen") + peers::threads_named("rgui-recv") == 0;
        }));
    }
}

// The delay widens the gap between a thread's last look and its wait, in which a wake-up would be lost.
TEST_F(RguiLocal, StopsPromptlyWheneverItComes)
{
    std::mt19937 random(1);
    double longest = 0;
    const during late_accepts(peers::delay_us, 300);
    const during late_receives(receive_delay_us, 300);
    for (int i = 0; i < 300; i++) {
        session_ = rgui_start_local("127.0.0.1", "0", nullptr, channel::send, &channel_);
        ASSERT_NE(session_, nullptr);
        if (i % 3 != 0)
            peers::sleep_us(static_cast<long>(random() % 1000));
        const auto start = std::chrono::steady_clock::now();
        stop();
        longest = std::max(longest, peers::seconds_since(start));
    }
    RecordProperty("longest_microseconds", static_cast<int>(longest * 1e6));
}

// ---- Both ends, each other's channel

struct coupled {
    std::atomic<rgui_session *> other = nullptr;
    static int send(rgui_pdu *pdu, size_t length, void *cookie)
    {
        rgui_session *other = static_cast<coupled *>(cookie)->other;
        const int result = other ? rgui_data_rx(other, pdu, length) : -1;
        free(pdu);
        return result;
    }
};

class RguiBothEnds : public Rgui
{
  protected:
    RguiBothEnds() : port_(peers::free_port())
    {
    }
    void start()
    {
        to_local_.other = nullptr;
        to_remote_.other = remote_ = rgui_start_remote(coupled::send, &to_local_);
        to_local_.other = local_ =
            rgui_start_local("127.0.0.1", std::to_string(port_).c_str(), nullptr, coupled::send, &to_remote_);
        ASSERT_NE(remote_, nullptr);
        ASSERT_NE(local_, nullptr);
    }

    unsigned int port_;
    coupled to_local_, to_remote_; // cookies of the remote and of the local end
    rgui_session *local_ = nullptr, *remote_ = nullptr;
};

TEST_F(RguiBothEnds, CarryBytesBothWaysAtOnce)
{
    const gui_server server;
    start();
    const stream client = connect_to(port_);
    const stream peer = server.take();
    const std::string up = pattern(10000000, 1), down = pattern(10000000, 2);
    std::thread client_writes([&] { client.write(up); });
    std::thread server_writes([&] { peer.write(down); });
    std::thread client_reads([&] { EXPECT_EQ(client.read(down.size()), down); });
    EXPECT_EQ(peer.read(up.size()), up);
    client_writes.join();
    server_writes.join();
    client_reads.join();
    rgui_stop_local(local_);
    rgui_stop_remote(remote_);
}

// The listener waits inside the other end for a server that takes nobody.
TEST_F(RguiBothEnds, LetTheLocalEndStopFirstWhileAConnectionIsNotTaken)
{
    const busy_server server;
    start();
    const stream client = connect_to(port_);
    peers::sleep_us(50000);
    std::atomic<bool> stopped = false;
    std::thread stopping([&] {
        rgui_stop_local(local_);
        stopped = true;
    });
    EXPECT_TRUE(peers::eventually([&] { return stopped.load(); }));
    EXPECT_TRUE(client.ends());
    rgui_stop_remote(remote_);
    stopping.join();
}

// Echoes what comes in on every connection, until it is told to end.
class echo_server
{
  public:
    echo_server() : thread_([this] { serve(); })
    {
    }
    ~echo_server()
    {
        ended_ = true;
        thread_.join();
    }
    echo_server(const echo_server &) = delete;
    echo_server &operator=(const echo_server &) = delete;

  private:
    void serve()
    {
        std::vector<stream> peers;
        char buffer[65536];
        while (!ended_) {
            std::vector<pollfd> inputs = {{server_.fd(), POLLIN, 0}};
            for (const stream &peer : peers)
                inputs.push_back({peer.fd(), POLLIN, 0});
            poll(inputs.data(), inputs.size(), 20);
            for (size_t i = inputs.size() - 1; i > 0; i--) {
                if (inputs[i].revents == 0)
                    continue;
                const ssize_t length = ::recv(inputs[i].fd, buffer, sizeof buffer, 0);
                if (length <= 0)
                    peers.erase(peers.begin() + static_cast<long>(i) - 1);
                else
                    peers[i - 1].write(std::string(buffer, static_cast<size_t>(length)));
            }
            if (inputs[0].revents != 0)
                peers.push_back(server_.take());
        }
    }

    const gui_server server_;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

void sleep_at_random(std::mt19937 &random, unsigned int most_us)
{
    peers::sleep_us(static_cast<long>(random() % most_us));
}

// Starts and stops, in either order, with clients that send, stay, end and vanish meanwhile.
TEST_F(RguiBothEnds, MayStopWheneverTheyWantWithTraffic)
{
    std::mt19937 random(3);
    {
        const echo_server server;
        double longest = 0;
        for (int cycle = 0; cycle < scaled(1000); cycle++) {
            start();
            std::vector<stream> clients;
            for (unsigned int i = 0; i < 1 + random() % 3; i++) {
                clients.push_back(connect_to(port_));
                clients.back().write(pattern(1 + random() % 20000));
            }
            if (cycle % 2 == 0)
                clients[0].read(1);
            if (cycle % 3 == 0)
                clients[0].reset();
            if (cycle % 5 == 0)
                clients.pop_back();
            sleep_at_random(random, 300);
            const auto before = std::chrono::steady_clock::now();
            if (cycle % 4 < 2) {
                rgui_stop_local(local_);
                rgui_stop_remote(remote_);
            } else {
                rgui_stop_remote(remote_);
                rgui_stop_local(local_);
            }
            longest = std::max(longest, peers::seconds_since(before));
        }
        RecordProperty("longest_microseconds", static_cast<int>(longest * 1e6));
    }
}

// CLOSE from the other end, the client's end, errors and PDUs of no connection, all at once.
TEST_F(RguiBothEnds, MayBeClosedFromEverywhereAtOnce)
{
    const echo_server server;
    start();
    std::atomic<bool> done = false;
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < 2; i++)
        threads.emplace_back([&, i] {
            std::mt19937 random(i);
            while (!done) {
                rgui_session *end = random() % 2 ? local_ : remote_;
                const int id = static_cast<int>(1 + random() % 200);
                const int opcode = static_cast<int>(random() % 6);
                if (end == local_ || opcode != RGUI_OPEN) // a second one would stay for good
                    give(end, opcode, id, opcode == RGUI_DATA ? "x" : "");
                sleep_at_random(random, 200);
            }
        });
    std::mt19937 random(9);
    for (int i = 0; i < scaled(200); i++) {
        stream client = connect_to(port_);
        client.write(pattern(random() % 5000));
        if (i % 3 == 0)
            client.reset();
        sleep_at_random(random, 2000);
    }
    rgui_stop_local(local_);
    rgui_stop_remote(remote_);
    done = true;
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
