// Each system call that the library makes fails once, with each error that it may meet.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qvlib.h>

#include "captured_fd.h"
#include "failing_calls.h"
#include "listener_peers.h"
#include "log_lines.h"
#include "relay_ends.h"
#include "socket.h"
#include "system_calls.h"

using failing_calls::any;
using failing_calls::failing;
using failing_calls::threads;
using peers::client;
using peers::eventually;
using system_calls::errors;
using system_calls::nothing_left;
using system_calls::short_count;
using system_calls::text_of;
using system_calls::trace_of;
using system_calls::with_each_error;
using system_calls::with_error;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

// ---- What a function returns and logs

enum kept : unsigned { nothing = 0, address_list = 1, descriptor = 2 };

struct step {
    const char *call;
    int detail;
    lines logged;
    unsigned left = nothing;
    bool goes_on = false;    // the failure is ignored
    int silent_for = -1;     // an error for which the first line is not logged
    int successes = 0;       // of the same call before
    bool keeps_errno = true; // the result has the call's error
};

std::string flags_text(long flags)
{
    char text[32];
    snprintf(text, sizeof text, "%#lx", static_cast<unsigned long>(flags));
    return text;
}

// Fails each step with each of its errors: `act` returns a descriptor, or 0 or more, or -1 with errno.
template <class Act> void fail_each(const std::vector<step> &steps, Act act)
{
    for (const step &one : steps) {
        for (const int error : errors.at(one.call)) {
            SCOPED_TRACE(trace_of(one.call, one.detail, error));
            nothing_left checked;
            long result;
            int number;
            log_lines log;
            {
                const failing failing(one.call, error, one.detail, one.successes, 1);
                errno = 0;
                result = act();
                number = errno;
                EXPECT_EQ(failing.failures(), 1);
            }
            lines expected = with_error(one.logged, error);
            if (error == one.silent_for)
                expected.erase(expected.begin());
            EXPECT_THAT(log.take(), ElementsAreArray(expected));
            if (one.goes_on) {
                EXPECT_GE(result, 0);
            } else {
                EXPECT_EQ(result, -1);
                if (error > 0 && one.keeps_errno) {
                    EXPECT_EQ(number, error) << strerror(number);
                }
            }
            if (result > 2)
                close(static_cast<int>(result));
            if (one.left & descriptor) {
                EXPECT_EQ(close(system_calls::last_socket), 0);
            }
            checked.but_lists(one.left & address_list ? 1 : 0);

            const long next = act();
            EXPECT_GE(next, 0);
            if (next > 2)
                close(static_cast<int>(next));
        }
    }
}

class SystemCallsOfSockets : public testing::Test
{
  protected:
    SystemCallsOfSockets()
    {
        stream_.ai_family = AF_INET;
        stream_.ai_socktype = SOCK_STREAM;
        datagram_ = stream_;
        datagram_.ai_socktype = SOCK_DGRAM;
        listener_ = qvsock_listen(&stream_, "127.0.0.1", "0", 0, 0, 0);
        sockaddr_in address = {};
        socklen_t size = sizeof address;
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size);
        port_ = ntohs(address.sin_port);
        service_ = std::to_string(port_);
    }
    ~SystemCallsOfSockets() override
    {
        close(listener_);
    }

    addrinfo stream_ = {}, datagram_ = {};
    int listener_ = -1;
    unsigned int port_ = 0;
    std::string service_;
};

TEST_F(SystemCallsOfSockets, FailInAConnect)
{
    const std::string flags = "ERROR: caller: addfl: " + flags_text(O_NONBLOCK) + ": %E";
    fail_each(
        {
            {"getaddrinfo", any, {"ERROR: caller: getaddrinfo: 127.0.0.1:" + service_ + ": %E"}},
            {"socket", any, {"ERROR: caller: socket: %E"}, address_list},
            {"setsockopt", SO_SNDBUF, {}, address_list | descriptor},
            {"setsockopt", SO_RCVBUF, {}, address_list | descriptor},
            {"setsockopt",
             SO_BINDTODEVICE,
             {"ERROR: __qvsock_connect: setsockopt: bind to lo: %E"},
             nothing,
             true},
            {"fcntl", F_GETFL, {flags}, address_list},
            {"fcntl", F_SETFL, {flags}, address_list},
            {"connect", any, {}},
        },
        [&] {
            return __qvsock_connect(&stream_, "127.0.0.1", service_.c_str(), "lo", O_NONBLOCK, 16384,
                                    "caller", 0);
        });
}

TEST_F(SystemCallsOfSockets, FailInAQuietConnectWithoutAWord)
{
    fail_each(
        {
            {"getaddrinfo", any, {}},
            {"socket", any, {}, address_list},
            {"setsockopt", SO_SNDBUF, {}, address_list | descriptor},
            {"setsockopt", SO_RCVBUF, {}, address_list | descriptor},
            {"setsockopt", SO_BINDTODEVICE, {}, nothing, true},
            {"fcntl", F_GETFL, {}, address_list},
            {"fcntl", F_SETFL, {}, address_list},
            {"connect", any, {}},
        },
        [&] {
            return __qvsock_connect(&stream_, "127.0.0.1", service_.c_str(), "lo", O_NONBLOCK, 16384,
                                    "caller", 1);
        });
}

TEST_F(SystemCallsOfSockets, FailAConnectionInProgressOnlyWhereItMayWait)
{
    for (const int flags : {O_NONBLOCK, 0}) {
        const nothing_left checked;
        const failing progress("connect", EINPROGRESS, any, 0, 1);
        const int fd =
            __qvsock_connect(&stream_, "127.0.0.1", service_.c_str(), nullptr, flags, 0, "caller", 0);
        EXPECT_EQ(fd >= 0, flags == O_NONBLOCK);
        if (fd >= 0)
            close(fd);
        else
            EXPECT_EQ(errno, EINPROGRESS);
    }
}

TEST_F(SystemCallsOfSockets, KeepTheFirstErrorWhenAlsoTheCloseFails)
{
    with_each_error("close", [&](int error) {
        const failing refused("connect", ECONNREFUSED, any, 0, 1), closing("close", error, any, 0, 1);
        EXPECT_EQ(__qvsock_connect(&stream_, "127.0.0.1", service_.c_str(), nullptr, 0, 0, "caller", 0), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(closing.failures(), 1);
    });
}

// The steps of one candidate, which all end in the message of qvsock_listen.
std::vector<step> listening_steps(const std::string &service, bool datagram)
{
    const std::string unable = "ERROR: qvsock_listen: unable to bind to port " + service + " %e";
    const std::string flags = "ERROR: __qvsock_listen: addfl: " + flags_text(O_NONBLOCK) + ": %E";
    std::vector<step> steps = {
        {"getaddrinfo", any, {"ERROR: qvsock_listen: getaddrinfo: %E"}},
        {"socket", any, {"ERROR: __qvsock_listen: socket: %E", unable}, nothing, false, EAFNOSUPPORT},
        {"setsockopt", SO_SNDBUF, {unable}, descriptor},
        {"setsockopt", SO_RCVBUF, {unable}, descriptor},
        {"setsockopt", SO_REUSEADDR, {"ERROR: __qvsock_listen: setsockopt: reuse: %E"}, nothing, true},
        {"bind", any, {unable}},
        {"fcntl", F_GETFL, {flags, unable}},
        {"fcntl", F_SETFL, {flags, unable}},
        {"getsockname", any, {unable}},
        {"getnameinfo", any, {"ERROR: __qvsock_listen: getnameinfo: %E", unable}},
    };
    if (datagram)
        steps.push_back({"setsockopt",
                         SO_BROADCAST,
                         {"ERROR: __qvsock_listen: setsockopt SO_BROADCAST: %E", unable},
                         descriptor});
    else
        steps.push_back({"listen", any, {unable}});
    return steps;
}

TEST_F(SystemCallsOfSockets, FailInAListenOnAStream)
{
    fail_each(listening_steps("0", false),
              [&] { return qvsock_listen(&stream_, "127.0.0.1", "0", 0, O_NONBLOCK, 16384); });
}

TEST_F(SystemCallsOfSockets, FailInAListenForBroadcasts)
{
    fail_each(listening_steps("0", true),
              [&] { return qvsock_listen(&datagram_, "127.0.0.1", "0", 1, O_NONBLOCK, 16384); });
}

TEST_F(SystemCallsOfSockets, FailOnOneCandidateAndTheNextIsTaken)
{
    for (const step &one : listening_steps("0", false)) {
        if (one.call == std::string("getaddrinfo") || one.goes_on || one.left != nothing)
            continue;
        with_each_error(one.call, one.detail, [&](int error) {
            addrinfo hints = stream_;
            hints.ai_socktype = 0; // a stream, then datagrams
            const failing failing(one.call, error, one.detail, 0, 1);
            const int fd = qvsock_listen(&hints, "127.0.0.1", "0", 0, O_NONBLOCK, 16384);
            EXPECT_GE(fd, 0);
            EXPECT_EQ(failing.failures(), 1);
            close(fd);
        });
    }
}

TEST_F(SystemCallsOfSockets, FailInAnAccept)
{
    fail_each(
        {
            {"accept", any, {"ERROR: caller: accept: %E"}, nothing, false, EAGAIN},
            {"getnameinfo", any, {"ERROR: caller: getnameinfo: %E"}},
        },
        [&] {
            const client peer(port_);
            char host[64];
            const int fd = qvsock_accept(listener_, host, sizeof host, "caller");
            const int number = errno;
            pollfd waiting = {listener_, POLLIN, 0}; // whom a failed accept has left there
            if (fd < 0 && poll(&waiting, 1, 0) > 0)
                close(accept(listener_, nullptr, nullptr));
            errno = number;
            return fd;
        });
}

TEST_F(SystemCallsOfSockets, FailInTheirSmallHelpers)
{
    const client peer(port_);
    const int conn = accept(listener_, nullptr, nullptr);
    char host[64];
    struct tcp_info info;
    fail_each(
        {
            {"getpeername", any, {"ERROR: qvsock_getpeername: %E"}},
            {"getnameinfo", any, {"ERROR: qvsock_getpeername: %E"}},
        },
        [&] { return qvsock_getpeername(conn, host, sizeof host) ? 0 : -1; });
    fail_each({{"setsockopt", SO_BINDTODEVICE, {}}}, [&] { return qvsock_bind_iface(conn, "lo"); });
    fail_each({{"setsockopt", SO_SNDBUF, {}}, {"setsockopt", SO_RCVBUF, {}}},
              [&] { return qvsock_set_sockbuffers(conn, 16384, 16384); });
    fail_each({{"getsockopt", TCP_INFO, {"ERROR: read_tcp_info: getsockopt: %E"}}},
              [&] { return read_tcp_info(conn, &info); });
    fail_each({{"fcntl", F_GETFL, {}}, {"fcntl", F_SETFL, {}}}, [&] { return addfl(conn, O_NONBLOCK); });
    close(conn);
}

TEST(SystemCallsOfGetmac, Fail)
{
    uint8_t mac[6];
    fail_each({{"fopen", any, {}}, {"fscanf", any, {}}, {"fclose", any, {}, nothing, true}},
              [&] { return qv_getmac("lo", mac); });
    with_each_error("fopen", [](int error) {
        const failing failing("fopen", error, any, 0, 1);
        EXPECT_EQ(qv_getmac64("lo"), 0u);
        EXPECT_EQ(errno, error);
    });
}

// ---- Messages

class SystemCallsOfTheTransport : public testing::Test
{
  protected:
    SystemCallsOfTheTransport() : fd_(corelink_setup_socket("0"))
    {
        sockaddr_in address = {};
        socklen_t size = sizeof address;
        getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size);
        port_ = ntohs(address.sin_port);
    }
    ~SystemCallsOfTheTransport() override
    {
        close(fd_);
    }
    int send(const std::string &body) const
    {
        return corelink_sendmsg_parts(fd_, port_, 1, 2, "name", 3, body.data(),
                                      static_cast<uint32_t>(body.size()));
    }
    int receive(std::string &body) const
    {
        corelink_msgbuf message = {};
        const int result = corelink_receive_msg_block(fd_, nullptr, &message);
        if (result == 0) {
            body.assign(static_cast<const char *>(static_cast<const void *>(message.data)) +
                            sizeof(corelink_msghdr),
                        message.length - sizeof(corelink_msghdr));
            free(message.data);
        }
        return result;
    }
    void drain() const
    {
        char byte;
        while (recv(fd_, &byte, 1, MSG_DONTWAIT) >= 0)
            ;
    }

    const int fd_;
    uint16_t port_ = 0;
};

TEST_F(SystemCallsOfTheTransport, FailWhenItsSocketIsSetUp)
{
    const std::string unable = "ERROR: qvsock_listen: unable to bind to port 0 %e";
    fail_each(
        {
            {"getaddrinfo", any, {"ERROR: qvsock_listen: getaddrinfo: %E"}},
            {"socket", any, {"ERROR: __qvsock_listen: socket: %E", unable}, nothing, false, EAFNOSUPPORT},
            {"setsockopt", SO_SNDBUF, {unable}, descriptor},
            {"setsockopt", SO_RCVBUF, {unable}, descriptor},
            {"bind", any, {unable}},
        },
        [] { return corelink_setup_socket("0"); });
}

TEST_F(SystemCallsOfTheTransport, FailInASendAtAnyFragment)
{
    const std::string body(3 * 4096, 'x');
    for (const int successes : {0, 1, 2}) {
        fail_each({{"sendmsg", any, {}, nothing, false, -1, successes}}, [&] {
            const int result = send(body);
            const int number = errno;
            drain();
            errno = number;
            return result;
        });
    }
}

TEST_F(SystemCallsOfTheTransport, FailInAReceiveAtAnyFragment)
{
    const std::string body(3 * 4096, 'x');
    for (const int successes : {0, 1, 2}) {
        const std::vector<step> steps = {{"recv", MSG_PEEK, {}, nothing, false, -1, successes},
                                         {"recvmsg", any, {}, nothing, false, -1, successes}};
        fail_each(steps, [&] {
            EXPECT_EQ(send(body), 0);
            std::string got;
            const int result = receive(got);
            const int number = errno;
            drain();
            EXPECT_EQ(got, result == 0 ? body : "");
            errno = number;
            return result;
        });
    }
}

TEST_F(SystemCallsOfTheTransport, ZeroWhatAShortReceiveLacks)
{
    const nothing_left checked;
    const failing failing("recvmsg", short_count, any, 0, 1);
    ASSERT_EQ(send(std::string(4096, 'x') + std::string(100, 'y')), 0);
    std::string got;
    EXPECT_EQ(receive(got), 0); // the first header lacks its length
    EXPECT_EQ(failing.failures(), 1);
    EXPECT_EQ(got, std::string(100, 'y'));
}

// ---- Texts and names

TEST(SystemCallsOfTexts, FailInAWrite)
{
    const memory_file file;
    fail_each({{"write", any, {}}}, [&] { return qv_fdprintf(file.fd(), "%s", "ab"); });
    const failing failing("write", short_count, any, 0, 1);
    file.clear();
    EXPECT_EQ(qv_fdprintf(file.fd(), "%s", "ab"), 1);
    EXPECT_EQ(file.text(), "a");
}

TEST(SystemCallsOfThreadNames, Fail)
{
    fail_each({{"prctl", any, {}}}, [] { return qvthread_setname("%s", "system-calls"); });
}

TEST(SystemCallsOfTheLockChecker, FailWithoutHarm)
{
    const auto use = [](const char *call, int successes, int error) {
        ASSERT_EQ(check_lock_init(), 0);
        testing::internal::CaptureStdout();
        {
            const failing failing(call, error, any, successes, 1);
            EXPECT_EQ(check_lock_add("a.c", 1, 7, nullptr), 1u);
            EXPECT_EQ(check_lock_add("a.c", 1, 7, nullptr), 2u); // says that it is held
            check_lock_dump();
            check_lock_remove(8); // says that it is unknown
            EXPECT_EQ(failing.failures(), 1);
        }
        check_lock_dump();
        EXPECT_THAT(testing::internal::GetCapturedStdout(), EndsWith("a.c:1 count=2\n"));
        check_lock_remove(7);
        check_lock_exit();
    };
    with_each_error("printf", [&](int error) { use("printf", 0, error); });
    with_each_error("printf", [&](int error) { use("printf", 1, error); });
    with_each_error("puts", [&](int error) { use("puts", 0, error); });
}

// ---- Streams that are read

class input_stream
{
  public:
    explicit input_stream(const std::string &text) : stream_(tmpfile())
    {
        fputs(text.c_str(), stream_);
        rewind(stream_);
    }
    ~input_stream()
    {
        fclose(stream_);
    }
    input_stream(const input_stream &) = delete;
    input_stream &operator=(const input_stream &) = delete;

    FILE *get() const
    {
        return stream_;
    }

  private:
    FILE *stream_;
};

// How many tokens a scanner finds in a stream.
int tokens_of(FILE *stream)
{
    void *scanner = nullptr;
    if (yylex_init(&scanner) != 0)
        return -1;
    yyset_in(stream, scanner);
    union clparse_token token = {};
    int count = 0;
    while (yylex(&token, scanner) != 0)
        count++;
    yylex_destroy(scanner);
    return count;
}

TEST(SystemCallsOfTheScanner, FailAsTheEndOfItsInput)
{
    const auto scan = [](const char *call, int error) {
        const input_stream input("{ = }");
        const failing failing(call, error, any, 0, 1);
        log_lines log;
        EXPECT_EQ(tokens_of(input.get()), 0);
        EXPECT_EQ(failing.failures(), 1);
        EXPECT_THAT(log.take(), ElementsAre("ERROR: panic: input in flex scanner failed"));
        system_calls::broken_stream = nullptr;
        EXPECT_EQ(tokens_of(input.get()), 3); // nothing was read yet
    };
    with_each_error("fread", [&](int error) { scan("fread", error); });
    system_calls::terminals = true;
    with_each_error("getc", [&](int error) { scan("getc", error); });
    system_calls::terminals = false;
}

TEST(SystemCallsOfTheScanner, AreRepeatedWhenTheyWereInterrupted)
{
    for (const char *call : {"fread", "getc"}) {
        SCOPED_TRACE(call);
        const nothing_left checked;
        system_calls::terminals = call == std::string("getc");
        const input_stream input("{ = }");
        const failing failing(call, EINTR, any, 0, 3);
        log_lines log;
        EXPECT_EQ(tokens_of(input.get()), 3);
        EXPECT_EQ(failing.failures(), 3);
        EXPECT_THAT(log.take(), IsEmpty());
    }
    system_calls::terminals = false;
}

TEST(SystemCallsOfTheScanner, TellNoFileFromATerminalInVain)
{
    with_each_error("isatty", [](int error) {
        const input_stream input("{ = }");
        const failing failing("isatty", error, any, 0, 1);
        errno = 0;
        EXPECT_EQ(tokens_of(input.get()), 3);
        EXPECT_EQ(failing.failures(), 1);
    });
}

TEST(SystemCallsOfTheXmlReader, FailAsTheEndOfItsStream)
{
    const auto read = [](int error) {
        const input_stream input("<a/>");
        sax_callbacks callbacks = {};
        const failing failing("getc", error, any, 0, 1);
        EXPECT_EQ(sax_parse_file(input.get(), &callbacks, nullptr), 0);
        EXPECT_EQ(failing.failures(), 1);
        system_calls::broken_stream = nullptr;
    };
    with_each_error("getc", read);
    read(EINTR);
}

// ---- Logging

TEST(SystemCallsOfLogging, LeaveTheSystemLogClosed)
{
    with_each_error("stat", [](int error) {
        testing::internal::CaptureStderr();
        {
            const failing failing("stat", error, any, 0, 1);
            qv_log_init("test", 7, LOG_PERROR, LOG_USER, 0);
            EXPECT_EQ(failing.failures(), 1);
        }
        __qv_log(QV_LOG_ERROR, "%s", "goes on");
        qv_log_exit();
        const std::string text = testing::internal::GetCapturedStderr();
        EXPECT_THAT(text, StartsWith("stat(\"/dev/log\"): " + text_of(error) + "\n"));
        EXPECT_THAT(text, EndsWith(" ERROR: goes on\r\n"));
    });
}

TEST(SystemCallsOfLogging, LoseALineOfTheConsoleAndNoMore)
{
    const struct {
        const char *call;
        size_t size; // a long line is written in three parts
        int successes;
    } steps[] = {{"fwrite", 10, 0},
                 {"fflush", 10, 0},
                 {"fwrite", 2000, 0},
                 {"vfprintf", 2000, 0},
                 {"fwrite", 2000, 1}};
    for (const auto &one : steps) {
        with_each_error(one.call, [&](int error) {
            log_lines log;
            {
                const failing failing(one.call, error, any, one.successes, 1);
                errno = EBADMSG;
                __qv_log(QV_LOG_ERROR, "%s", std::string(one.size, 'x').c_str());
                EXPECT_EQ(errno, EBADMSG);
                EXPECT_EQ(failing.failures(), 1);
            }
            __qv_log(QV_LOG_ERROR, "%s", "next");
            EXPECT_THAT(log.take().back(), EndsWith("next"));
        });
    }
}

TEST(SystemCallsOfLogging, LoseTheHostsOwnLineAndNoMore)
{
    for (const char *call : {"fflush", "vfprintf"}) {
        with_each_error(call, [&](int error) {
            testing::internal::CaptureStderr();
            {
                const failing failing(call, error, any, 0, 1);
                qv_logc("%s", "lost");
                EXPECT_EQ(failing.failures(), 1);
            }
            qv_logc("%s", "next");
            EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith("next"));
        });
    }
}

// ---- The telnet feed

void send_line(void *feed, const char *fmt, ...) QV_PRINTF(2, 3);
void send_line(void *feed, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    qv_vtellog(feed, QV_LOG_INFO, fmt, ap);
    va_end(ap);
}

// Sends until the client gets what is sent.
void await(void *feed, client &peer)
{
    ASSERT_TRUE(peer.is_connected());
    ASSERT_TRUE(eventually([&] {
        send_line(feed, "%s", "awaited");
        return peer.has_input(5);
    }));
    send_line(feed, "%s", "arrived");
    peer.read_until("arrived\n");
    peer.text().clear();
}

// The handle stays allocated on purpose.
__attribute__((noinline)) void *start_without_a_thread(int error)
{
    const failing failing("pthread_create", error, any, 0, 1);
    void *volatile feed = tellog_start(0); // no tail call
    return feed;
}

__attribute__((noinline)) void log_and_start_without_a_thread(int error)
{
    const failing failing("pthread_create", error, any, 0, 1);
    qv_log_init("test", 7, LOG_PERROR, LOG_USER, 1);
    EXPECT_EQ(failing.failures(), 1);
}

TEST(SystemCallsOfTheFeed, FailItsStart)
{
    with_each_error("pthread_create", [](int error) {
        EXPECT_EQ(start_without_a_thread(error), nullptr);
        EXPECT_EQ(tellog_finish(nullptr), -1);
    });
}

TEST(SystemCallsOfTheFeed, LeaveItWithoutAListener)
{
    for (const char *call : {"socket", "bind", "listen"}) {
        with_each_error(call, [&](int error) {
            log_lines log;
            const int before = threads();
            const failing failing(call, error, any, 0, 1);
            const unsigned int port = peers::free_port();
            void *feed = tellog_start(port);
            ASSERT_NE(feed, nullptr);
            EXPECT_TRUE(eventually([&] { return failing.failures() == 1 && threads() == before; }));
            EXPECT_FALSE(client(port, 0, 0).is_connected());
            send_line(feed, "%s", "to nobody");
            EXPECT_EQ(tellog_finish(feed), 0);
            EXPECT_THAT(log.take(), IsEmpty());

            feed = tellog_start(port);
            client peer(port);
            await(feed, peer);
            EXPECT_EQ(tellog_finish(feed), 0);
        });
    }
}

TEST(SystemCallsOfTheFeed, LeaveItWithTheClientsThatItHas)
{
    with_each_error("accept", [&](int error) {
        log_lines log;
        const int before = threads();
        const failing failing("accept", error, any, 1, 1);
        const unsigned int port = peers::free_port();
        void *feed = tellog_start(port);
        client peer(port);
        await(feed, peer);
        EXPECT_TRUE(eventually([&] { return failing.failures() == 1 && threads() == before; }));
        send_line(feed, "%s", "last");
        EXPECT_THAT(peer.read_until("last\n"), EndsWith("INFOR: last\n"));
        EXPECT_EQ(tellog_finish(feed), 0);
        EXPECT_TRUE(peer.read_to_end());
        EXPECT_THAT(log.take(), IsEmpty());
    });
}

// A feed with two clients, the newer of which is sent to first.
class fed_clients
{
  public:
    fed_clients() : port_(peers::free_port()), feed_(tellog_start(port_)), older_(port_)
    {
        await(feed_, older_);
        newer_.emplace(port_);
        await(feed_, *newer_);
        older_.read_until("arrived\n");
        older_.text().clear();
    }
    ~fed_clients()
    {
        if (feed_) {
            finish();
        }
    }
    fed_clients(const fed_clients &) = delete;
    fed_clients &operator=(const fed_clients &) = delete;

    void finish()
    {
        EXPECT_EQ(tellog_finish(std::exchange(feed_, nullptr)), 0);
        EXPECT_TRUE(older_.read_to_end());
        EXPECT_TRUE(newer_->read_to_end());
    }
    void *feed() const
    {
        return feed_;
    }
    client &older()
    {
        return older_;
    }
    client &newer()
    {
        return *newer_;
    }

  private:
    const unsigned int port_;
    void *feed_;
    client older_;
    std::optional<client> newer_;
};

TEST(SystemCallsOfTheFeed, DropAClientOrAreRepeated)
{
    std::vector<int> all = errors.at("sendmsg");
    all.push_back(short_count);
    for (const int error : all) {
        SCOPED_TRACE(trace_of("sendmsg", any, error));
        const nothing_left checked;
        const bool repeated = error == EAGAIN || error == EINTR || error == short_count;
        fed_clients two;
        {
            const failing failing("sendmsg", error, any, 0, 1);
            errno = EBADMSG;
            send_line(two.feed(), "%s", "the text");
            EXPECT_EQ(errno, EBADMSG);
            EXPECT_EQ(failing.failures(), 1);
        }
        send_line(two.feed(), "%s", "next");
        EXPECT_THAT(two.older().read_until("next\n"), HasSubstr("INFOR: the text\n"));
        if (repeated) {
            EXPECT_THAT(two.newer().read_until("next\n"), HasSubstr("INFOR: the text\n"));
        } else {
            EXPECT_TRUE(two.newer().read_to_end());
            EXPECT_EQ(two.newer().text(), "");
        }
    }
}

TEST(SystemCallsOfTheFeed, DropAClientForWhichNobodyCanWait)
{
    with_each_error("poll", [](int error) {
        fed_clients two;
        const failing full("sendmsg", EAGAIN, any, 0, 1), waiting("poll", error, any, 0, 1);
        send_line(two.feed(), "%s", "the text");
        EXPECT_EQ(waiting.failures(), 1);
        EXPECT_THAT(two.older().read_until("text\n"), HasSubstr("INFOR: the text\n"));
        if (error == EINTR) {
            EXPECT_THAT(two.newer().read_until("text\n"), HasSubstr("INFOR: the text\n"));
        } else {
            EXPECT_TRUE(two.newer().read_to_end());
        }
    });
}

TEST(SystemCallsOfTheFeed, DoNotKeepItFromEnding)
{
    for (const char *call : {"shutdown", "close", "clock_gettime", "prctl"}) {
        with_each_error(call, [&](int error) {
            const failing name("prctl", error, any, 0, call == std::string("prctl") ? 1 : 0);
            fed_clients two;
            const failing failing(call, error, any, 0, 1);
            two.finish();
            EXPECT_EQ(failing.failures() + name.failures(), 1);
        });
    }
}

TEST(SystemCallsOfTheFeed, DoNotKeepOneWithoutItsClientsFromEnding)
{
    with_each_error("close", [](int error) {
        fed_clients two;
        {
            const failing gone("sendmsg", EPIPE, any, 0, 1), failing("close", error, any, 0, 1);
            send_line(two.feed(), "%s", "the text");
            EXPECT_EQ(failing.failures(), 1);
        }
        EXPECT_TRUE(two.newer().read_to_end());
        two.finish();
    });
}

TEST(SystemCallsOfTheFeed, DoNotKeepLoggingFromEndingBesideAThreadThatWaits)
{
    with_each_error("nanosleep", [](int error) {
        const unsigned int port = peers::free_port();
        testing::internal::CaptureStderr();
        qv_log_init("test", 7, LOG_PERROR, LOG_USER, port);
        client peer(port);
        EXPECT_TRUE(eventually([&] {
            __qv_log(QV_LOG_TELNET, "%s", "awaited");
            return peer.has_input(5);
        }));
        {
            const failing full("sendmsg", EAGAIN), failing("nanosleep", error, any, 0, 1);
            std::thread waiting([] { __qv_log(QV_LOG_TELNET, "%s", "nobody takes it"); });
            EXPECT_TRUE(eventually([&] { return full.failures() > 0; }));
            qv_log_exit();
            waiting.join();
            EXPECT_EQ(failing.failures(), 1);
        }
        EXPECT_TRUE(peer.read_to_end());
        testing::internal::GetCapturedStderr();
    });
}

TEST(SystemCallsOfTheFeed, DoNotKeepLoggingFromEnding)
{
    with_each_error("pthread_create", [](int error) {
        testing::internal::CaptureStderr();
        log_and_start_without_a_thread(error);
        __qv_log(QV_LOG_ERROR, "%s", "goes on");
        qv_log_exit();
        EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith(" ERROR: goes on\r\n"));
    });
}

} // namespace
