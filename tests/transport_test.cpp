#include <qvlib/transport.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qvlib/socket.h>

#include "failing_calls.h"
#include "log_lines.h"

using failing_calls::descriptors;
using failing_calls::failing;
using failing_calls::fails;
using testing::ElementsAre;
using testing::IsEmpty;

using bytes = std::vector<unsigned char>;

namespace
{

// What a sendmsg looked like.
struct sent_datagram {
    int flags, family;
    uint16_t port;
    uint32_t address;
    std::vector<size_t> pieces;
    const void *payload; // where the second piece lies
    corelink_msghdr header;
    bool has_control;
};

// What a recv or recvmsg looked like: sizes and places of its pieces.
struct read_call {
    int flags;
    std::vector<size_t> pieces;
    std::vector<const void *> places;
};

// What stands in for, or watches, the wrapped calls.
struct call_hooks {
    std::function<ssize_t(const msghdr *)> sendmsg; // -2: do the real call
    std::function<ssize_t(msghdr *)> recvmsg;       // -2: do the real call
    std::function<ssize_t(void *)> recv;            // -2: do the real call
    std::function<void *(void *, size_t)> realloc;
    std::function<void(int)> after_peek;
    std::vector<sent_datagram> sent;
    std::vector<read_call> peeked, read;
    std::vector<size_t> grown;  // sizes asked of realloc
    void *last_block = nullptr; // given to the last realloc that failed
    bool watch = false;         // fill new memory with a pattern, note what is asked for
    size_t known = 0;           // bytes of the block that hold something
    size_t first_block = 0;     // the size last asked of malloc before the first peek
};
call_hooks hooks;

constexpr unsigned char stale = 0xa5;

} // namespace

extern "C" {
ssize_t __real_sendmsg(int fd, const msghdr *message, int flags);
ssize_t __real_recvmsg(int fd, msghdr *message, int flags);
ssize_t __real_recv(int fd, void *data, size_t size, int flags);
void *__real_malloc(size_t size);
void *__real_realloc(void *block, size_t size);

ssize_t __wrap_sendmsg(int fd, const msghdr *message, int flags)
{
    if (hooks.watch) {
        const auto *to = static_cast<const sockaddr_in *>(message->msg_name);
        sent_datagram seen = {flags,
                              to->sin_family,
                              ntohs(to->sin_port),
                              ntohl(to->sin_addr.s_addr),
                              {},
                              nullptr,
                              {},
                              message->msg_control || message->msg_controllen || message->msg_flags};
        for (size_t i = 0; i < message->msg_iovlen; i++)
            seen.pieces.push_back(message->msg_iov[i].iov_len);
        memcpy(&seen.header, message->msg_iov[0].iov_base, sizeof seen.header);
        seen.payload = message->msg_iov[1].iov_base;
        hooks.sent.push_back(seen);
    }
    if (fails("sendmsg"))
        return -1;
    const ssize_t result = hooks.sendmsg ? hooks.sendmsg(message) : -2;
    return result == -2 ? __real_sendmsg(fd, message, flags) : result;
}

ssize_t __wrap_recvmsg(int fd, msghdr *message, int flags)
{
    if (hooks.watch) {
        read_call seen = {flags, {}, {}};
        for (size_t i = 0; i < message->msg_iovlen; i++) {
            seen.pieces.push_back(message->msg_iov[i].iov_len);
            seen.places.push_back(message->msg_iov[i].iov_base);
        }
        hooks.read.push_back(seen);
    }
    if (fails("recvmsg"))
        return -1;
    const ssize_t result = hooks.recvmsg ? hooks.recvmsg(message) : -2;
    return result == -2 ? __real_recvmsg(fd, message, flags) : result;
}

ssize_t __wrap_recv(int fd, void *data, size_t size, int flags)
{
    if (hooks.watch)
        hooks.peeked.push_back({flags, {size}, {data}});
    if (fails("recv"))
        return -1;
    ssize_t result = hooks.recv ? hooks.recv(data) : -2;
    if (result == -2)
        result = __real_recv(fd, data, size, flags);
    if (hooks.after_peek)
        hooks.after_peek(fd);
    return result;
}

void *__wrap_malloc(size_t size)
{
    if (fails("malloc"))
        return nullptr;
    void *block = __real_malloc(size);
    if (hooks.peeked.empty())
        hooks.first_block = size;
    if (hooks.watch && block)
        memset(block, stale, size);
    hooks.known = size;
    return block;
}

void *__wrap_realloc(void *block, size_t size)
{
    if (hooks.watch)
        hooks.grown.push_back(size);
    if (fails("realloc")) {
        hooks.last_block = block;
        return nullptr;
    }
    if (hooks.realloc)
        return hooks.realloc(block, size);
    if (!hooks.watch)
        return __real_realloc(block, size);
    const size_t before = hooks.known;
    auto *grown = static_cast<unsigned char *>(__real_realloc(block, size));
    if (grown && size > before)
        memset(grown + before, stale, size - before);
    hooks.known = size;
    return grown;
}
}

namespace
{

uint16_t port_of(int fd)
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

int option_of(int fd, int option)
{
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(fd, SOL_SOCKET, option, &value, &size);
    return value;
}

bytes pattern(size_t length, unsigned long seed = 1)
{
    std::minstd_rand random(seed);
    bytes made(length);
    for (unsigned char &byte : made)
        byte = static_cast<unsigned char>(random() >> 7);
    return made;
}

corelink_msghdr header_of(const char *name)
{
    corelink_msghdr header = {};
    header.type_flags = 7u << 24;
    header.param1 = 0x01020304;
    memcpy(header.name, name, std::min(strlen(name), sizeof header.name));
    header.param2 = 0xfffefdfc;
    return header;
}

// A received message that is released by itself.
struct received {
    received() = default;
    ~received()
    {
        free(buffer.data);
    }
    received(const received &) = delete;
    received &operator=(const received &) = delete;

    int from(int fd, sockaddr_in *source = nullptr)
    {
        free(std::exchange(buffer.data, nullptr));
        return corelink_receive_msg_block(fd, source, &buffer);
    }
    corelink_msghdr header() const
    {
        corelink_msghdr found;
        memcpy(&found, buffer.data, sizeof found);
        return found;
    }
    bytes whole() const
    {
        const auto *data = static_cast<const unsigned char *>(buffer.data);
        return bytes(data, data + buffer.length);
    }
    bytes body() const
    {
        const bytes all = whole();
        return bytes(all.begin() + 48, all.end());
    }
    corelink_msgbuf buffer = {};
};

class Transport : public testing::Test
{
  protected:
    void SetUp() override
    {
        hooks = {};
        before_ = descriptors();
        receiver = corelink_setup_socket("0");
        ASSERT_GE(receiver, 0);
        port = port_of(receiver);
        const timeval patience = {60, 0}; // a message that does not come is a failure, not a hang
        setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        sender = socket(AF_INET, SOCK_DGRAM, 0);
    }
    void TearDown() override
    {
        hooks = {};
        close(sender);
        close(receiver);
        EXPECT_EQ(descriptors(), before_);
    }

    int send(const corelink_msghdr &header, const bytes &body)
    {
        return corelink_sendmsg(sender, port, &header, body.data(), static_cast<uint32_t>(body.size()));
    }
    // A datagram as it stands.
    void send_raw(const bytes &datagram)
    {
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(
            sendto(sender, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
            static_cast<ssize_t>(datagram.size()));
    }
    // A datagram whose header claims a length.
    void send_claim(uint16_t claimed, const bytes &payload, bool last)
    {
        corelink_msghdr header = header_of("claim");
        header.type_flags |= last;
        header.fragment_len = claimed;
        bytes datagram(sizeof header);
        memcpy(datagram.data(), &header, sizeof header);
        datagram.insert(datagram.end(), payload.begin(), payload.end());
        send_raw(datagram);
    }
    // The next datagram as it stands; empty when there is none.
    bytes next_datagram()
    {
        bytes datagram(65536);
        const ssize_t got = __real_recv(receiver, datagram.data(), datagram.size(), MSG_DONTWAIT);
        datagram.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return datagram;
    }

    int receiver = -1, sender = -1;
    uint16_t port = 0;

  private:
    int before_ = 0;
};

// A number in the host's byte order.
template <class T> void append(bytes &to, T value)
{
    for (size_t i = 0; i < sizeof value; i++) {
        const size_t place = std::endian::native == std::endian::big ? sizeof value - 1 - i : i;
        to.push_back(static_cast<unsigned char>(value >> (8 * place)));
    }
}

bytes datagram_of(uint32_t type_flags, uint32_t param1, std::string name, uint32_t param2, uint16_t fragment,
                  const bytes &payload)
{
    bytes datagram;
    datagram.reserve(sizeof(corelink_msghdr) + payload.size());
    append(datagram, type_flags);
    append(datagram, param1);
    name.resize(32);
    datagram.insert(datagram.end(), name.begin(), name.end());
    append(datagram, param2);
    append(datagram, fragment);
    append(datagram, static_cast<uint16_t>(payload.size()));
    datagram.insert(datagram.end(), payload.begin(), payload.end());
    return datagram;
}

bytes slice(const bytes &of, size_t start, size_t length)
{
    return bytes(of.begin() + static_cast<long>(start), of.begin() + static_cast<long>(start + length));
}

// ---- The socket

using CorelinkSetupSocket = Transport;

TEST_F(CorelinkSetupSocket, IsAUdpSocketOnTheLoopbackAddress)
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(receiver, reinterpret_cast<sockaddr *>(&address), &size), 0);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohl(address.sin_addr.s_addr), INADDR_LOOPBACK);
    EXPECT_EQ(option_of(receiver, SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(option_of(receiver, SO_PROTOCOL), IPPROTO_UDP);
    EXPECT_EQ(option_of(receiver, SO_BROADCAST), 0);
    EXPECT_FALSE(fcntl(receiver, F_GETFL) & O_NONBLOCK);
}

TEST_F(CorelinkSetupSocket, TakesThePortThatItIsGiven)
{
    close(receiver);
    receiver = corelink_setup_socket(std::to_string(port).c_str());
    EXPECT_EQ(port_of(receiver), port);
}

TEST_F(CorelinkSetupSocket, AsksForFourMebibytesOfBuffer)
{
    const std::pair<int, const char *> buffers[] = {{SO_RCVBUF, "/proc/sys/net/core/rmem_max"},
                                                    {SO_SNDBUF, "/proc/sys/net/core/wmem_max"}};
    for (const auto &[option, cap] : buffers) {
        int most = 0;
        std::ifstream(cap) >> most;
        ASSERT_GT(most, 0);
        EXPECT_EQ(option_of(receiver, option), 2 * std::min(most, 4 << 20)); // the kernel doubles it
    }
}

TEST_F(CorelinkSetupSocket, FailsAsListeningDoes)
{
    log_lines log;
    EXPECT_EQ(corelink_setup_socket("no such service"), -1);
    EXPECT_THAT(
        log.take(),
        ElementsAre("ERROR: qvsock_listen: getaddrinfo: Servname not supported for ai_socktype (-8)"));
}

TEST_F(CorelinkSetupSocket, SharesAPortAndTheNewerSocketGetsTheMessages)
{
    const int newer = corelink_setup_socket(std::to_string(port).c_str());
    ASSERT_GE(newer, 0);
    ASSERT_EQ(send(header_of("shared"), {}), 0);
    received message;
    EXPECT_EQ(message.from(newer), 0);
    EXPECT_THAT(next_datagram(), IsEmpty());
    close(newer);
}

// ---- Sending

using CorelinkSendmsg = Transport;

TEST_F(CorelinkSendmsg, SendsAnEmptyBodyAsOneHeader)
{
    EXPECT_EQ(send(header_of("empty"), {}), 0);
    EXPECT_EQ(next_datagram(), datagram_of(0x07000001, 0x01020304, "empty", 0xfffefdfc, 0, {}));
    EXPECT_THAT(next_datagram(), IsEmpty());
}

TEST_F(CorelinkSendmsg, SendsAFullFragmentAsOneDatagram)
{
    const bytes body = pattern(4096);
    EXPECT_EQ(send(header_of("full"), body), 0);
    EXPECT_EQ(next_datagram(), datagram_of(0x07000001, 0x01020304, "full", 0xfffefdfc, 0, body));
    EXPECT_THAT(next_datagram(), IsEmpty());
}

TEST_F(CorelinkSendmsg, SendsOneByteMoreAsTwoDatagrams)
{
    const bytes body = pattern(4097);
    EXPECT_EQ(send(header_of("more"), body), 0);
    EXPECT_EQ(next_datagram(),
              datagram_of(0x07000000, 0x01020304, "more", 0xfffefdfc, 0, slice(body, 0, 4096)));
    EXPECT_EQ(next_datagram(),
              datagram_of(0x07000001, 0x01020304, "more", 0xfffefdfc, 1, slice(body, 4096, 1)));
    EXPECT_THAT(next_datagram(), IsEmpty());
}

TEST_F(CorelinkSendmsg, FlagsOnlyTheLastOfThree)
{
    const bytes body = pattern(8193);
    EXPECT_EQ(send(header_of("three"), body), 0);
    EXPECT_EQ(next_datagram(),
              datagram_of(0x07000000, 0x01020304, "three", 0xfffefdfc, 0, slice(body, 0, 4096)));
    EXPECT_EQ(next_datagram(),
              datagram_of(0x07000000, 0x01020304, "three", 0xfffefdfc, 1, slice(body, 4096, 4096)));
    EXPECT_EQ(next_datagram(),
              datagram_of(0x07000001, 0x01020304, "three", 0xfffefdfc, 2, slice(body, 8192, 1)));
    EXPECT_THAT(next_datagram(), IsEmpty());
}

TEST_F(CorelinkSendmsg, LeavesTheHeaderUnmodified)
{
    corelink_msghdr header = header_of("mine");
    header.fragment = 9;
    header.fragment_len = 99;
    const corelink_msghdr before = header;
    EXPECT_EQ(send(header, pattern(5000)), 0);
    EXPECT_EQ(memcmp(&header, &before, sizeof header), 0);
    EXPECT_EQ(next_datagram()[0] & 0xff, datagram_of(0x07000000, 0, "", 0, 0, {})[0]);
}

TEST_F(CorelinkSendmsg, MayUseTheHeaderOfAReceivedMessage)
{
    corelink_msghdr header = header_of("answer");
    header.type_flags |= 1; // as a message of one fragment has it
    EXPECT_EQ(send(header, pattern(5000)), 0);
    received message;
    ASSERT_EQ(message.from(receiver), 0);
    EXPECT_EQ(message.body(), pattern(5000));
}

TEST_F(CorelinkSendmsg, HandsHeaderAndSliceToTheKernelInPlace)
{
    hooks.watch = true;
    const bytes body = pattern(4097);
    EXPECT_EQ(send(header_of("pieces"), body), 0);
    ASSERT_EQ(hooks.sent.size(), 2u);
    for (size_t i = 0; i < 2; i++) {
        const sent_datagram &datagram = hooks.sent[i];
        EXPECT_EQ(datagram.flags, MSG_NOSIGNAL);
        EXPECT_EQ(datagram.family, 0);
        EXPECT_EQ(datagram.port, port);
        EXPECT_EQ(datagram.address, INADDR_LOOPBACK);
        EXPECT_THAT(datagram.pieces, ElementsAre(48, i == 0 ? 4096 : 1));
        EXPECT_EQ(datagram.payload, body.data() + i * 4096);
        EXPECT_FALSE(datagram.has_control);
    }
}

TEST_F(CorelinkSendmsg, CountsFragmentsTo16Bits)
{
    constexpr size_t length = 65537 * 4096u;
    void *body = mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(body, MAP_FAILED);
    uint32_t count = 0;
    hooks.sendmsg = [&](const msghdr *message) -> ssize_t {
        corelink_msghdr header;
        memcpy(&header, message->msg_iov[0].iov_base, sizeof header);
        EXPECT_EQ(header.fragment, count & 0xffff);
        EXPECT_EQ(header.type_flags & 1, count == 65536);
        count++;
        return static_cast<ssize_t>(48 + message->msg_iov[1].iov_len);
    };
    const corelink_msghdr header = header_of("long");
    EXPECT_EQ(corelink_sendmsg(sender, port, &header, body, static_cast<uint32_t>(length)), 0);
    EXPECT_EQ(count, 65537u);
    munmap(body, length);
}

TEST_F(CorelinkSendmsg, StopsAtTheFirstFailureAndTheReceiverJoinsTheRest)
{
    const bytes first = pattern(8193, 1);
    const bytes second = pattern(100, 2);
    log_lines log;
    {
        const failing later("sendmsg", ENOBUFS, failing_calls::any, 1);
        EXPECT_EQ(send(header_of("first"), first), -1);
        EXPECT_EQ(errno, ENOBUFS);
    }
    EXPECT_EQ(send(header_of("second"), second), 0);
    received message;
    ASSERT_EQ(message.from(receiver), 0);
    EXPECT_STREQ(message.header().name, "first");
    bytes joined = slice(first, 0, 4096);
    joined.insert(joined.end(), second.begin(), second.end());
    EXPECT_EQ(message.body(), joined);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(CorelinkSendmsg, RefusesWhatIsMissing)
{
    const corelink_msghdr header = header_of("none");
    EXPECT_EQ(corelink_sendmsg(sender, port, nullptr, "x", 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(corelink_sendmsg(sender, port, &header, nullptr, 1), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(corelink_sendmsg(-1, port, &header, nullptr, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_THAT(next_datagram(), IsEmpty());
}

TEST_F(CorelinkSendmsg, SurvivesAPeerThatVanished)
{
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    const int server = qvsock_listen(&hints, "127.0.0.1", "0", 0, 0, 0);
    const int client =
        qvsock_connect(&hints, "127.0.0.1", std::to_string(port_of(server)).c_str(), nullptr, 0, 0, 0);
    const int conn = qvsock_accept(server, nullptr, 0, "test");
    ASSERT_GE(conn, 0);
    close(conn);
    const corelink_msghdr header = header_of("gone");
    const auto before = signal(SIGPIPE, SIG_DFL);
    int result = 0;
    for (int i = 0; i < 1000 && result == 0; i++) {
        result = corelink_sendmsg(client, port, &header, "x", 1);
        usleep(1000);
    }
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << errno;
    result =
        corelink_sendmsg(client, port, &header, "x", 1); // a reset is told once, then it is a broken pipe
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, EPIPE);
    signal(SIGPIPE, before);
    close(client);
    close(server);
}

using CorelinkSendmsgParts = Transport;

TEST_F(CorelinkSendmsgParts, BuildsTheHeaderFromItsFields)
{
    EXPECT_EQ(corelink_sendmsg_parts(sender, port, 0x123, 5, "status", 6, "abc", 3), 0);
    EXPECT_EQ(next_datagram(), datagram_of(0x23000001, 5, "status", 6, 0, {'a', 'b', 'c'}));
}

TEST_F(CorelinkSendmsgParts, SendsThirtyTwoCharactersOfALongName)
{
    EXPECT_EQ(
        corelink_sendmsg_parts(sender, port, 1, 2, "0123456789012345678901234567890123456789", 3, nullptr, 0),
        0);
    const bytes datagram = next_datagram();
    ASSERT_EQ(datagram.size(), 48u);
    EXPECT_EQ(std::string(datagram.begin() + 8, datagram.begin() + 40), "01234567890123456789012345678901");
    EXPECT_EQ(datagram, datagram_of(0x01000001, 2, "01234567890123456789012345678901", 3, 0, {}));
}

TEST_F(CorelinkSendmsgParts, TakesNoNameAsAnEmptyOne)
{
    EXPECT_EQ(corelink_sendmsg_parts(sender, port, 1, 2, nullptr, 3, nullptr, 0), 0);
    EXPECT_EQ(next_datagram(), datagram_of(0x01000001, 2, "", 3, 0, {}));
}

TEST_F(CorelinkSendmsgParts, ReturnsTheFailureOfSending)
{
    const failing send("sendmsg", EPERM);
    EXPECT_EQ(corelink_sendmsg_parts(sender, port, 1, 2, "x", 3, nullptr, 0), -1);
    EXPECT_EQ(errno, EPERM);
}

// ---- Receiving

using CorelinkReceiveMsgBlock = Transport;

TEST_F(CorelinkReceiveMsgBlock, GivesTheHeaderAloneForAnEmptyMessage)
{
    ASSERT_EQ(send(header_of("empty"), {}), 0);
    received message;
    EXPECT_EQ(message.from(receiver), 0);
    EXPECT_EQ(message.whole(), datagram_of(0x07000001, 0x01020304, "empty", 0xfffefdfc, 0, {}));
}

TEST_F(CorelinkReceiveMsgBlock, JoinsThreeFragmentsBehindTheFirstHeader)
{
    const bytes body = pattern(8193);
    ASSERT_EQ(send(header_of("three"), body), 0);
    received message;
    EXPECT_EQ(message.from(receiver), 0);
    EXPECT_EQ(message.buffer.length, 8241u);
    const bytes head = datagram_of(0x07000000, 0x01020304, "three", 0xfffefdfc, 0, slice(body, 0, 4096));
    EXPECT_EQ(slice(message.whole(), 0, 48), slice(head, 0, 48));
    EXPECT_EQ(message.body(), body);
}

TEST_F(CorelinkReceiveMsgBlock, PeeksAtEachHeaderAndReadsThePayloadIntoItsPlace)
{
    ASSERT_EQ(send(header_of("two"), pattern(4099)), 0);
    hooks.watch = true;
    static unsigned char room[2 * (48 + 4099)]; // a block that stays where it is
    const void *first = nullptr;
    received message;
    hooks.realloc = [&first](void *block, size_t) -> void * {
        if (block == room)
            return block;
        first = block;
        memcpy(room, block, 48);
        free(block);
        return room;
    };
    EXPECT_EQ(message.from(receiver), 0);
    hooks.watch = false;
    EXPECT_EQ(message.buffer.data, room);
    EXPECT_EQ(message.body(), pattern(4099));
    message.buffer.data = nullptr;

    EXPECT_EQ(hooks.first_block, 48u);
    ASSERT_EQ(hooks.peeked.size(), 2u);
    ASSERT_EQ(hooks.read.size(), 2u);
    EXPECT_EQ(hooks.peeked[0].places[0], first);
    EXPECT_EQ(hooks.peeked[1].places[0], hooks.read[1].places[0]); // apart from what was collected
    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(hooks.peeked[i].flags, MSG_PEEK);
        EXPECT_THAT(hooks.peeked[i].pieces, ElementsAre(48));
        EXPECT_EQ(hooks.read[i].flags, MSG_WAITALL);
        EXPECT_THAT(hooks.read[i].pieces, ElementsAre(48, i == 0 ? 4096 : 3));
        EXPECT_EQ(hooks.read[i].places[1], room + 48 + i * 4096);
    }
}

TEST_F(CorelinkReceiveMsgBlock, ZeroesTheSourceAlsoWhenNothingComes)
{
    fcntl(receiver, F_SETFL, O_NONBLOCK);
    sockaddr_in source;
    memset(&source, 0xff, sizeof source);
    received message;
    EXPECT_EQ(message.from(receiver, &source), -1);
    const sockaddr_in zero = {};
    EXPECT_EQ(memcmp(&source, &zero, sizeof source), 0);
}

TEST_F(CorelinkReceiveMsgBlock, TellsTheSenderOfTheLastFragment)
{
    send_claim(1, {'a'}, false);
    const int other = corelink_setup_socket(nullptr);
    const corelink_msghdr header = header_of("other");
    ASSERT_EQ(corelink_sendmsg(other, port, &header, "b", 1), 0);
    sockaddr_in source;
    memset(&source, 0xff, sizeof source);
    received message;
    EXPECT_EQ(message.from(receiver, &source), 0);
    sockaddr_in expected = {};
    expected.sin_family = AF_INET;
    expected.sin_port = htons(port_of(other));
    expected.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(memcmp(&source, &expected, sizeof source), 0);
    EXPECT_EQ(message.body(), (bytes{'a', 'b'}));
    close(other);
}

TEST_F(CorelinkReceiveMsgBlock, LeavesMessagesApart)
{
    for (unsigned int i = 0; i < 3; i++)
        ASSERT_EQ(send(header_of("apart"), pattern(5000 + i, i)), 0);
    received message;
    for (unsigned int i = 0; i < 3; i++) {
        EXPECT_EQ(message.from(receiver), 0);
        EXPECT_EQ(message.body(), pattern(5000 + i, i));
    }
}

TEST_F(CorelinkReceiveMsgBlock, WaitsForTheRest)
{
    const bytes body = pattern(4097);
    std::thread late([&] {
        usleep(20000);
        send_raw(datagram_of(0, 1, "late", 2, 0, slice(body, 0, 4096)));
        usleep(20000);
        send_raw(datagram_of(1, 1, "late", 2, 1, slice(body, 4096, 1)));
    });
    received message;
    EXPECT_EQ(message.from(receiver), 0);
    EXPECT_EQ(message.body(), body);
    late.join();
}

TEST_F(CorelinkReceiveMsgBlock, RefusesANullResult)
{
    EXPECT_EQ(corelink_receive_msg_block(receiver, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(CorelinkReceiveMsgBlock, LeavesTheResultUntouchedOnFailure)
{
    corelink_msgbuf buffer = {&buffer, 77};
    log_lines log;
    EXPECT_EQ(corelink_receive_msg_block(-1, nullptr, &buffer), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(buffer.data, &buffer);
    EXPECT_EQ(buffer.length, 77u);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(CorelinkReceiveMsgBlock, ReturnsEachFailureWithItsError)
{
    // The calls of a message of three fragments; what was collected before is discarded.
    for (const char *call : {"malloc", "recv", "recvmsg"}) {
        for (int successes = 0; successes < (strcmp(call, "malloc") == 0 ? 1 : 3); successes++) {
            SCOPED_TRACE(call + std::to_string(successes));
            ASSERT_EQ(send(header_of("three"), pattern(8193)), 0);
            corelink_msgbuf buffer = {};
            {
                const failing injected(call, EIO, failing_calls::any, successes);
                EXPECT_EQ(corelink_receive_msg_block(receiver, nullptr, &buffer), -1);
                EXPECT_EQ(errno, EIO);
            }
            EXPECT_EQ(buffer.data, nullptr);
            while (!next_datagram().empty()) {
            }
        }
    }
}

TEST_F(CorelinkReceiveMsgBlock, LosesWhatItCollectedWhenTheBufferCannotGrow)
{
    for (int successes = 0; successes < 2; successes++) {
        SCOPED_TRACE(successes);
        ASSERT_EQ(send(header_of("big"), pattern(20000)), 0);
        corelink_msgbuf buffer = {};
        {
            const failing injected("realloc", ENOMEM, failing_calls::any, successes);
            EXPECT_EQ(corelink_receive_msg_block(receiver, nullptr, &buffer), -1);
            EXPECT_EQ(errno, ENOMEM);
        }
        ASSERT_NE(hooks.last_block, nullptr);
        corelink_msghdr first; // the block is still ours to read
        memcpy(&first, hooks.last_block, sizeof first);
        EXPECT_STREQ(first.name, "big");
        free(hooks.last_block); // and to free: the library did not
        while (!next_datagram().empty()) {
        }
    }
}

TEST_F(CorelinkReceiveMsgBlock, MovesWhatItCollectedAFewTimesInAll)
{
    hooks.watch = true;
    constexpr size_t length = 1 << 20; // 256 fragments
    std::atomic<int> sent = 0, read = 0;
    hooks.after_peek = [&](int) { read++; };
    hooks.sendmsg = [&](const msghdr *) -> ssize_t {
        while (sent - read > 20) // what the smallest buffer holds
            std::this_thread::yield();
        sent++;
        return -2;
    };
    std::thread other([&] { EXPECT_EQ(send(header_of("big"), pattern(length)), 0); });
    received message;
    EXPECT_EQ(message.from(receiver), 0);
    other.join();
    EXPECT_EQ(message.buffer.length, length + 48);
    EXPECT_LE(hooks.grown.size(), 10u);
    EXPECT_GE(hooks.grown.back(), length + 48);
    EXPECT_LE(hooks.grown.back(), 2 * (length + 48));
}

TEST_F(CorelinkReceiveMsgBlock, GivesABlockOfTheMessagesSizeForOneFragment)
{
    hooks.watch = true;
    ASSERT_EQ(send(header_of("one"), pattern(100)), 0);
    received message;
    EXPECT_EQ(message.from(receiver), 0);
    EXPECT_THAT(hooks.grown, ElementsAre(148));
}

TEST_F(CorelinkReceiveMsgBlock, FailsOnANonblockingSocketWithoutAMessage)
{
    fcntl(receiver, F_SETFL, O_NONBLOCK);
    received message;
    EXPECT_EQ(message.from(receiver), -1);
    EXPECT_EQ(errno, EAGAIN);
    send_claim(3, {'a', 'b', 'c'}, false);
    EXPECT_EQ(message.from(receiver), -1); // in the middle of a message, too
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(CorelinkReceiveMsgBlock, EndsWhenTheSocketIsShutDown)
{
    std::thread stop([&] {
        usleep(20000);
        shutdown(receiver, SHUT_RD); // wakes the reader, though it says ENOTCONN
    });
    received message;
    EXPECT_EQ(message.from(receiver), -1);
    EXPECT_EQ(errno, ESHUTDOWN);
    stop.join();
}

// ---- Whatever arrives. New memory is filled with a pattern that must never come out.

class CorelinkReceiveMsgBlockHostile : public Transport
{
  protected:
    void SetUp() override
    {
        Transport::SetUp();
        hooks.watch = true;
    }
};

TEST_F(CorelinkReceiveMsgBlockHostile, TakesAShortDatagramAsAHeaderOfZeros)
{
    const bytes real = datagram_of(0x05000000, 1, "short", 2, 3, {});
    for (size_t length = 0; length < 48; length++) {
        SCOPED_TRACE(length);
        send_raw(slice(real, 0, length));
        send_claim(4, {'b', 'o', 'd', 'y'}, true);
        received message;
        ASSERT_EQ(message.from(receiver), 0);
        bytes expected = slice(real, 0, length);
        expected.resize(48);
        expected.insert(expected.end(), {'b', 'o', 'd', 'y'});
        EXPECT_EQ(message.whole(), expected);
    }
}

TEST_F(CorelinkReceiveMsgBlockHostile, EndsAMessageAtAShortDatagramThatIsFlaggedLast)
{
    const bytes real = datagram_of(1, 1, "short", 2, 3, {});
    for (size_t length = 4; length < 48; length++) {
        SCOPED_TRACE(length);
        send_raw(slice(real, 0, length));
        received message;
        ASSERT_EQ(message.from(receiver), 0);
        bytes expected = slice(real, 0, length);
        expected.resize(48);
        EXPECT_EQ(message.whole(), expected);
    }
}

TEST_F(CorelinkReceiveMsgBlockHostile, ForgetsTheLastHeaderBeforeAShortOne)
{
    send_claim(4, {'a', 'b', 'c', 'd'}, false);
    send_raw({}); // must not count as four bytes again
    send_raw({0});
    send_claim(1, {'e'}, true);
    received message;
    ASSERT_EQ(message.from(receiver), 0);
    EXPECT_EQ(message.body(), (bytes{'a', 'b', 'c', 'd', 'e'}));
}

TEST_F(CorelinkReceiveMsgBlockHostile, ZeroesWhatAClaimedLengthLacks)
{
    for (const uint16_t claimed : {uint16_t{4}, uint16_t{4096}, uint16_t{65535}}) {
        SCOPED_TRACE(claimed);
        send_claim(claimed, {'a', 'b', 'c'}, false);
        send_claim(1, {'e'}, true);
        received message;
        ASSERT_EQ(message.from(receiver), 0);
        bytes expected = {'a', 'b', 'c'};
        expected.resize(claimed);
        expected.push_back('e');
        EXPECT_EQ(message.body(), expected);
    }
}

TEST_F(CorelinkReceiveMsgBlockHostile, DropsWhatIsBeyondTheClaimedLength)
{
    send_claim(2, pattern(60000), false);
    send_claim(0, pattern(10), false);
    send_claim(1, {'e'}, true);
    received message;
    ASSERT_EQ(message.from(receiver), 0);
    bytes expected = slice(pattern(60000), 0, 2);
    expected.push_back('e');
    EXPECT_EQ(message.body(), expected);
}

TEST_F(CorelinkReceiveMsgBlockHostile, StaysInItsRoomWhenAnotherReaderTakesTheDatagram)
{
    for (const auto &[peeked, read] : {std::pair<size_t, size_t>{2, 4000}, {4000, 2}}) {
        SCOPED_TRACE(peeked);
        send_claim(static_cast<uint16_t>(peeked), pattern(peeked, 1), false);
        send_claim(static_cast<uint16_t>(read), pattern(read, 2), true);
        hooks.after_peek = [](int fd) {
            char taken[48];
            __real_recv(fd, taken, sizeof taken, 0);
        };
        received message;
        ASSERT_EQ(message.from(receiver), 0);
        EXPECT_EQ(message.body(), slice(pattern(read, 2), 0, std::min(peeked, read)));
    }
}

TEST_F(CorelinkReceiveMsgBlockHostile, OutlastsAFloodOfUnrelatedFragments)
{
    std::minstd_rand random(42);
    constexpr int fragments = 20000;
    std::atomic<int> sent = 0, read = 0;
    hooks.after_peek = [&](int) { read++; };
    hooks.watch = false;
    std::thread flood([&] {
        for (; sent < fragments; sent++) {
            while (sent - read > 20) // what the smallest buffer holds
                std::this_thread::yield();
            send_claim(static_cast<uint16_t>(random() % 300), pattern(random() % 300, random()), false);
        }
        send_claim(0, {}, true);
    });
    received message;
    EXPECT_EQ(message.from(receiver), 0);
    flood.join();
    EXPECT_EQ(read, fragments + 1);
    hooks.after_peek = nullptr;
    ASSERT_EQ(send(header_of("after"), pattern(5000)), 0);
    EXPECT_EQ(message.from(receiver), 0);
    EXPECT_EQ(message.body(), pattern(5000));
}

// What the receiver should make of these datagrams, done the slow way.
std::vector<bytes> joined(const std::vector<bytes> &datagrams)
{
    std::vector<bytes> messages;
    bytes message;
    for (const bytes &datagram : datagrams) {
        bytes head = datagram;
        head.resize(48);
        corelink_msghdr header;
        memcpy(&header, head.data(), sizeof header);
        if (message.empty())
            message = head;
        bytes payload = datagram.size() > 48 ? slice(datagram, 48, datagram.size() - 48) : bytes();
        payload.resize(header.fragment_len);
        message.insert(message.end(), payload.begin(), payload.end());
        if (header.type_flags & 1)
            messages.push_back(std::exchange(message, {}));
    }
    return messages;
}

TEST_F(CorelinkReceiveMsgBlockHostile, MakesOfRandomDatagramsWhatASlowJoinMakes)
{
    fcntl(receiver, F_SETFL, O_NONBLOCK);
    std::minstd_rand random(7);
    for (int round = 0; round < 3000; round++) {
        SCOPED_TRACE(round);
        std::vector<bytes> datagrams;
        for (size_t i = random() % 6; i > 0; i--) {
            datagrams.push_back(pattern(random() % 200, random()));
            if (datagrams.back().size() >= 48 && random() % 2) // a believable length
                datagrams.back()[std::endian::native == std::endian::big ? 46 : 47] = 0;
        }
        datagrams.push_back(datagram_of(1, 0, "last", 0, 0, pattern(random() % 5000, random())));
        for (const bytes &datagram : datagrams)
            send_raw(datagram);
        for (const bytes &expected : joined(datagrams)) {
            received message;
            ASSERT_EQ(message.from(receiver), 0);
            ASSERT_EQ(message.whole(), expected);
        }
        ASSERT_THAT(next_datagram(), IsEmpty());
    }
}

TEST_F(CorelinkReceiveMsgBlockHostile, RefusesAMessageOfFourGibibytes)
{
    // Nothing is written to the payload, so a small block may stand for a large one.
    hooks.watch = false;
    size_t largest = 0;
    hooks.realloc = [&](void *block, size_t size) -> void * {
        if (size > PTRDIFF_MAX) {
            errno = ENOMEM; // as every allocator of a 32-bit machine says
            free(block);    // which the library leaves to nobody
            return nullptr;
        }
        largest = std::max(largest, size);
        return block;
    };
    corelink_msghdr endless = header_of("endless");
    endless.fragment_len = 65535;
    hooks.recv = [&](void *data) -> ssize_t {
        memcpy(data, &endless, sizeof endless);
        return sizeof endless;
    };
    uint64_t total = 48;
    hooks.recvmsg = [&](msghdr *message) -> ssize_t {
        memcpy(message->msg_iov[0].iov_base, &endless, sizeof endless);
        total += message->msg_iov[1].iov_len;
        return 48 + 65535; // as if it had been filled
    };
    received message;
    EXPECT_EQ(message.from(receiver), -1);
    if (PTRDIFF_MAX < UINT32_MAX) {
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_LE(total, uint64_t{PTRDIFF_MAX});
        return;
    }
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(largest, size_t{UINT32_MAX});
    EXPECT_LE(total, uint64_t{UINT32_MAX});
    EXPECT_GT(total + 65535, uint64_t{UINT32_MAX});
}

// ---- Big messages, and what is lost

TEST_F(Transport, DeliversAThousandMessagesOfEachSizeToAReader)
{
    constexpr int messages = 1000;
    constexpr int unread_most = 2; // 512 fragments at most: below what the buffer holds
    const size_t sizes[] = {0, 1, 4095, 4096, 4097, 8193, 64 << 10, 1 << 20};
    // 512 full fragments take 4.4 MB of the kernel's count. Where it caps the buffer, root may lift the cap.
    constexpr int needed = 6 << 20;
    if (option_of(receiver, SO_RCVBUF) < needed) {
        const int half = needed / 2;
        setsockopt(receiver, SOL_SOCKET, SO_RCVBUFFORCE, &half, sizeof half);
    }
    ASSERT_GE(option_of(receiver, SO_RCVBUF), needed) << "raise net.core.rmem_max to 4194304 for this test";

    for (const size_t size : sizes) {
        SCOPED_TRACE(size);
        const bytes body = pattern(size + messages, size);
        std::mutex mutex;
        std::condition_variable progress;
        int done = 0;
        std::thread other([&] {
            for (int i = 0; i < messages; i++) {
                std::unique_lock lock(mutex);
                progress.wait(lock, [&] { return i - done < unread_most; });
                lock.unlock();
                // Each message starts elsewhere in the pattern, so none can stand for another.
                ASSERT_EQ(corelink_sendmsg_parts(sender, port, 1, static_cast<uint32_t>(i), "big", 0,
                                                 body.data() + i, static_cast<uint32_t>(size)),
                          0);
            }
        });
        int whole = 0;
        for (int i = 0; i < messages; i++) {
            received message;
            const bool arrived = message.from(receiver) == 0;
            whole +=
                arrived && message.buffer.length == size + 48 &&
                message.header().param1 == static_cast<uint32_t>(i) &&
                memcmp(static_cast<unsigned char *>(message.buffer.data) + 48, body.data() + i, size) == 0;
            const std::lock_guard lock(mutex);
            done++;
            progress.notify_one();
        }
        other.join();
        EXPECT_EQ(whole, messages);
    }
}

TEST_F(Transport, IsDroppedInSilenceWhenTheBufferIsFull)
{
    const int usual = 212992 / 2; // the kernel doubles it to its usual default
    ASSERT_EQ(qvsock_set_sockbuffers(receiver, usual, 0), 0);
    EXPECT_EQ(send(header_of("burst"), pattern(100 * 4096)), 0);
    int arrived = 0;
    while (!next_datagram().empty())
        arrived++;
    EXPECT_GT(arrived, 0);
    EXPECT_LT(arrived, 50); // 25 on today's kernels
}

TEST_F(Transport, HoldsNineHundredFragmentsUnread)
{
    if (option_of(receiver, SO_RCVBUF) < 8 << 20)
        GTEST_SKIP() << "net.core.rmem_max caps the buffer";
    EXPECT_EQ(send(header_of("burst"), pattern(900 * 4096)), 0);
    int arrived = 0;
    while (!next_datagram().empty())
        arrived++;
    EXPECT_EQ(arrived, 900);
}

TEST_F(Transport, JoinsTwoMessagesWhenALastFragmentIsLost)
{
    hooks.sendmsg = [](const msghdr *message) -> ssize_t {
        corelink_msghdr header;
        memcpy(&header, message->msg_iov[0].iov_base, sizeof header);
        return header.fragment == 1 ? 48 + 1 : -2; // lost on the way
    };
    const bytes first = pattern(4097, 1);
    EXPECT_EQ(send(header_of("first"), first), 0);
    EXPECT_EQ(send(header_of("second"), pattern(10, 2)), 0);
    received message;
    ASSERT_EQ(message.from(receiver), 0);
    EXPECT_STREQ(message.header().name, "first");
    bytes joined = slice(first, 0, 4096);
    const bytes second = pattern(10, 2);
    joined.insert(joined.end(), second.begin(), second.end());
    EXPECT_EQ(message.body(), joined);
}

TEST_F(Transport, AnswersOverTheReceivingSocket)
{
    const int client = corelink_setup_socket(nullptr);
    const corelink_msghdr question = header_of("question");
    ASSERT_EQ(corelink_sendmsg(client, port, &question, "port.speed", 10), 0);
    sockaddr_in source;
    received message;
    ASSERT_EQ(message.from(receiver, &source), 0);
    const corelink_msghdr header = message.header();
    ASSERT_EQ(corelink_sendmsg(receiver, ntohs(source.sin_port), &header, "port.speed=8", 12), 0);
    received answer;
    ASSERT_EQ(answer.from(client), 0);
    EXPECT_EQ(answer.body().size(), 12u);
    close(client);
}

} // namespace
