// The system calls of the facilities that work in threads of their own: the relay and the memory debugger's
// console. Each call fails once, with each error that it may meet.

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
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
#include "memdebug.h"
#include "relay_ends.h"
#include "system_calls.h"

using failing_calls::any;
using failing_calls::failing;
using failing_calls::threads;
using peers::client;
using peers::eventually;
using relay::channel;
using relay::connect_to;
using relay::give;
using relay::gui_server;
using relay::passed;
using relay::stream;
using relay::usr1_handling;
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

lines errors_among(const lines &all)
{
    lines found;
    for (const std::string &line : all)
        if (line.rfind("ERROR: ", 0) == 0)
            found.push_back(line);
    return found;
}

// The same without what the console's listener logs when it is stopped: its accept is interrupted, or its
// socket shut down.
lines errors_beside_the_stop(const lines &all)
{
    lines found = errors_among(all);
    for (const int error : {EINTR, EINVAL})
        std::erase(found, with_error("ERROR: accept_thread: accept function failed: %E", error));
    return found;
}

passed opened(int id)
{
    return {RGUI_OPEN, id, ""};
}

passed closed(int id)
{
    return {RGUI_CLOSE, id, ""};
}

passed data(int id, const std::string &payload)
{
    return {RGUI_DATA, id, payload};
}

// ---- The ends of a relay

class local_end
{
  public:
    local_end() : port_(peers::free_port()), session_(start())
    {
    }
    ~local_end()
    {
        stop();
    }
    local_end(const local_end &) = delete;
    local_end &operator=(const local_end &) = delete;

    void stop()
    {
        if (session_)
            rgui_stop_local(std::exchange(session_, nullptr));
    }
    // A client whose OPEN has passed.
    stream take()
    {
        const size_t before = sent_.sent().size();
        stream made = connect_to(port_);
        sent_.wait_for(before + 1);
        return made;
    }
    unsigned int port() const
    {
        return port_;
    }
    rgui_session *session() const
    {
        return session_;
    }
    channel &sent()
    {
        return sent_;
    }

  private:
    rgui_session *start()
    {
        return rgui_start_local("127.0.0.1", std::to_string(port_).c_str(), nullptr, channel::send, &sent_);
    }

    const unsigned int port_;
    channel sent_;
    rgui_session *session_;
};

class remote_end
{
  public:
    remote_end() : session_(rgui_start_remote(channel::send, &sent_))
    {
    }
    ~remote_end()
    {
        stop();
    }
    remote_end(const remote_end &) = delete;
    remote_end &operator=(const remote_end &) = delete;

    void stop()
    {
        if (session_)
            rgui_stop_remote(std::exchange(session_, nullptr));
    }
    rgui_session *session() const
    {
        return session_;
    }
    channel &sent()
    {
        return sent_;
    }

  private:
    channel sent_;
    rgui_session *session_;
};

// ---- The local end

class SystemCallsOfTheRelay : public testing::Test
{
    const relay::server_port port_8008_;
    const usr1_handling handling_;
};

TEST_F(SystemCallsOfTheRelay, FailTheLocalStart)
{
    with_each_error("pthread_create", [](int error) {
        log_lines log;
        {
            const failing failing("pthread_create", error, any, 0, 1);
            channel sent;
            EXPECT_EQ(rgui_start_local("127.0.0.1", "0", nullptr, channel::send, &sent), nullptr);
            EXPECT_EQ(errno, error);
        }
        EXPECT_THAT(log.take(),
                    ElementsAre(with_error("ERROR: rgui_start_local: create pthread: %E", error)));
        local_end next;
        EXPECT_TRUE(next.take().is_open());
    });
}

TEST_F(SystemCallsOfTheRelay, LeaveTheLocalEndWithoutAListener)
{
    const struct {
        const char *call;
        lines logged;
    } steps[] = {
        {"getaddrinfo", {"ERROR: qvsock_listen: getaddrinfo: %E"}},
        {"socket", {"ERROR: __qvsock_listen: socket: %E"}},
        {"bind", {}},
        {"listen", {}},
        {"getsockname", {}},
        {"getnameinfo", {"ERROR: __qvsock_listen: getnameinfo: %E"}},
    };
    for (const auto &one : steps) {
        with_each_error(one.call, [&](int error) {
            log_lines log;
            const int before = threads();
            const failing failing(one.call, error, any, 0, 1);
            local_end local;
            EXPECT_TRUE(eventually([&] { return failing.failures() == 1 && threads() == before; }));
            EXPECT_EQ(give(local.session(), RGUI_DATA, 1, "x"), -1);
            local.stop();
            EXPECT_THAT(local.sent().sent(), IsEmpty());
            lines expected = with_error(one.logged, error);
            if (one.call == std::string("socket") && error == EAFNOSUPPORT)
                expected.clear();
            if (one.call != std::string("getaddrinfo"))
                expected.push_back(with_error("ERROR: qvsock_listen: unable to bind to port " +
                                                  std::to_string(local.port()) + " %e",
                                              error));
            EXPECT_THAT(log.take(), ElementsAreArray(expected));
        });
    }
}

TEST_F(SystemCallsOfTheRelay, EndTheListenerAndItsConnectionsAtAnAccept)
{
    with_each_error("accept", [](int error) {
        log_lines log;
        const failing failing("accept", error, any, 1, 1);
        local_end local;
        const stream peer = connect_to(local.port());
        EXPECT_TRUE(peer.ends());
        EXPECT_THAT(local.sent().wait_for(2), ElementsAre(opened(1), closed(1)));
        EXPECT_EQ(failing.failures(), 1);
        local.stop();
        EXPECT_THAT(log.take(), ElementsAre(with_error("ERROR: listener_thread: accept: %E", error)));
    });
}

TEST_F(SystemCallsOfTheRelay, LeaveAConnectionWithItsDelay)
{
    with_each_error("setsockopt", TCP_NODELAY, [](int error) {
        log_lines log;
        const failing failing("setsockopt", error, TCP_NODELAY, 0, 1);
        local_end local;
        const stream peer = local.take();
        peer.write("x");
        EXPECT_EQ(local.sent().bytes_of(1, 1), "x");
        local.stop();
        EXPECT_THAT(log.take(), ElementsAre(with_error("ERROR: RGUI: setsockopt: TCP_NODELAY: %E", error)));
    });
}

TEST_F(SystemCallsOfTheRelay, LeaveAClientWithoutAThread)
{
    with_each_error("pthread_create", [](int error) {
        log_lines log;
        const failing failing("pthread_create", error, any, 1, 1);
        local_end local;
        const stream without = local.take(), next = local.take();
        EXPECT_EQ(failing.failures(), 1);
        EXPECT_EQ(give(local.session(), RGUI_DATA, 1, "x"), 0);
        EXPECT_EQ(without.read(1), "x");
        next.write("y");
        EXPECT_EQ(local.sent().bytes_of(2, 1), "y");
        local.stop();
        EXPECT_TRUE(without.ends());
        EXPECT_THAT(log.take(), IsEmpty());
    });
}

TEST_F(SystemCallsOfTheRelay, LeaveItsThreadsUnnamed)
{
    for (const int successes : {0, 1}) {
        with_each_error("prctl", [&](int error) {
            log_lines log;
            const failing failing("prctl", error, any, successes, 1);
            local_end local;
            const stream peer = local.take();
            peer.write("x");
            EXPECT_EQ(local.sent().bytes_of(1, 1), "x");
            EXPECT_EQ(failing.failures(), 1);
            local.stop();
            EXPECT_THAT(log.take(), IsEmpty());
        });
    }
}

TEST_F(SystemCallsOfTheRelay, EndAConnectionAtAReceive)
{
    std::vector<int> all = errors.at("recv");
    all.push_back(short_count);
    for (const int error : all) {
        SCOPED_TRACE(trace_of("recv", MSG_WAITALL, error));
        const nothing_left checked;
        log_lines log;
        const failing failing("recv", error, MSG_WAITALL, 0, 1);
        local_end local;
        const stream peer = local.take();
        EXPECT_TRUE(peer.ends());
        EXPECT_THAT(local.sent().wait_for(2), ElementsAre(opened(1), closed(1)));
        const stream next = local.take();
        next.write("y");
        EXPECT_EQ(local.sent().bytes_of(2, 1), "y");
        local.stop();
        if (error == ECONNRESET || error == short_count)
            EXPECT_THAT(log.take(), IsEmpty());
        else
            EXPECT_THAT(log.take(), ElementsAre(with_error("ERROR: read(): %E", error)));
    }
}

TEST_F(SystemCallsOfTheRelay, EndAConnectionBehindTheFirstByteOfAReceive)
{
    std::vector<int> all = errors.at("recv");
    all.push_back(short_count);
    for (const int error : all) {
        SCOPED_TRACE(trace_of("recv", MSG_DONTWAIT, error));
        const nothing_left checked;
        log_lines log;
        const failing failing("recv", error, MSG_DONTWAIT, 0, 1);
        local_end local;
        const stream peer = local.take();
        peer.write("xyz");
        if (error == EAGAIN || error == short_count) {
            EXPECT_EQ(local.sent().bytes_of(1, 3), "xyz");
            EXPECT_THAT(local.sent().sent(), Contains(data(1, "x")));
            local.stop();
            EXPECT_THAT(log.take(), IsEmpty());
            continue;
        }
        EXPECT_TRUE(peer.ends());
        EXPECT_THAT(local.sent().wait_for(2), ElementsAre(opened(1), closed(1)));
        local.stop();
        free(static_cast<char *>(system_calls::last_failed_buffer.load()) - 1 - sizeof(rgui_pdu)); // kept
        if (error == ECONNRESET)
            EXPECT_THAT(log.take(), IsEmpty());
        else
            EXPECT_THAT(log.take(), ElementsAre(with_error("ERROR: read(): %E", error)));
    }
}

TEST_F(SystemCallsOfTheRelay, EndAConnectionAtASend)
{
    with_each_error("send", [](int error) {
        log_lines log;
        const failing failing("send", error, any, 0, 1);
        local_end local;
        const stream peer = local.take();
        EXPECT_EQ(give(local.session(), RGUI_DATA, 1, "abc"), 0);
        EXPECT_EQ(failing.failures(), 1);
        if (error == short_count) {
            EXPECT_EQ(peer.read(3), "abc");
            EXPECT_EQ(give(local.session(), RGUI_DATA, 1, "def"), 0);
            EXPECT_EQ(peer.read(3), "def");
        } else {
            EXPECT_TRUE(peer.ends());
            EXPECT_THAT(local.sent().wait_for(2), ElementsAre(opened(1), closed(1)));
        }
        local.stop();
        EXPECT_THAT(log.take(), IsEmpty());
    });
}

TEST_F(SystemCallsOfTheRelay, LeaveAConnectionThatCannotBeEndedToItsClose)
{
    with_each_error("shutdown", SHUT_RDWR, [](int error) {
        local_end local;
        const stream peer = local.take();
        const failing gone("send", EPIPE, any, 0, 1), failing("shutdown", error, SHUT_RDWR, 0, 1);
        EXPECT_EQ(give(local.session(), RGUI_DATA, 1, "abc"), 0);
        EXPECT_EQ(failing.failures(), 1);
        EXPECT_EQ(give(local.session(), RGUI_CLOSE, 1), 0);
        EXPECT_TRUE(peer.ends());
    });
}

TEST_F(SystemCallsOfTheRelay, EndTheListenerWhereTheSignalWouldEndTheProcess)
{
    const usr1_handling fatal(SIG_DFL);
    with_each_error("shutdown", SHUT_RDWR, [](int error) {
        local_end local;
        {
            const stream peer = local.take();
        }
        EXPECT_THAT(local.sent().wait_for(2), ElementsAre(opened(1), closed(1)));
        const failing failing("shutdown", error, SHUT_RDWR, 0, 1);
        local.stop();
        EXPECT_EQ(failing.failures(), 1);
    });
}

TEST_F(SystemCallsOfTheRelay, DoNotKeepTheLocalEndFromEnding)
{
    const struct {
        const char *call;
        int detail;
    } steps[] = {{"pthread_kill", any},
                 {"shutdown", SHUT_RDWR},
                 {"close", any},
                 {"sigaction", any},
                 {"nanosleep", any}};
    for (const auto &one : steps) {
        for (const int successes : {0, 1}) {
            with_each_error(one.call, one.detail, [&](int error) {
                log_lines log;
                local_end local;
                const stream peer = local.take();
                peer.write("x");
                EXPECT_EQ(local.sent().bytes_of(1, 1), "x");
                const failing failing(one.call, error, one.detail, successes, 1);
                local.stop();
                EXPECT_TRUE(peer.ends());
                EXPECT_EQ(local.sent().sent().back(), closed(1));
                EXPECT_THAT(log.take(), IsEmpty());
            });
        }
    }
}

TEST_F(SystemCallsOfTheRelay, DoNotKeepALocalEndWithoutClientsFromEnding)
{
    for (const char *call : {"close", "pthread_kill"}) {
        with_each_error(call, [&](int error) {
            log_lines log;
            local_end local;
            {
                const stream peer = local.take();
            }
            EXPECT_TRUE(eventually([&] { return give(local.session(), RGUI_DATA, 1) == -1; }));
            const failing failing(call, error, any, 0, 1);
            local.stop();
            EXPECT_EQ(failing.failures(), 1);
            EXPECT_THAT(log.take(), IsEmpty());
        });
    }
}

TEST_F(SystemCallsOfTheRelay, DoNotKeepAConnectionFromEnding)
{
    const struct {
        const char *call;
        int detail;
    } steps[] = {{"pthread_kill", any}, {"shutdown", SHUT_RD}, {"close", any}, {"sigaction", any}};
    for (const auto &one : steps) {
        with_each_error(one.call, one.detail, [&](int error) {
            log_lines log;
            local_end local;
            const stream peer = local.take();
            peer.write("x");
            EXPECT_EQ(local.sent().bytes_of(1, 1), "x");
            peers::sleep_us(2000); // its thread waits again
            const failing failing(one.call, error, one.detail, 0, 1);
            EXPECT_EQ(give(local.session(), RGUI_CLOSE, 1), 0);
            EXPECT_TRUE(peer.ends());
            EXPECT_TRUE(eventually([&] { return failing.failures() == 1; }));
            local.stop();
            EXPECT_THAT(log.take(), IsEmpty());
        });
    }
}

TEST_F(SystemCallsOfTheRelay, EndNoProcessWhoseSignalCannotBeAskedFor)
{
    const usr1_handling fatal(SIG_DFL);
    for (int successes = 0; successes < 4; successes++) {
        const nothing_left checked;
        local_end local;
        const stream peer = local.take();
        const failing failing("sigaction", EINVAL, any, successes, 1);
        EXPECT_EQ(give(local.session(), RGUI_CLOSE, 1), 0);
        EXPECT_TRUE(peer.ends());
        local.stop();
    }
}

// ---- The remote end

TEST_F(SystemCallsOfTheRelay, AnswerAnOpenWithAClose)
{
    char flags[32];
    snprintf(flags, sizeof flags, "%#x", static_cast<unsigned int>(O_NONBLOCK));
    const std::string addfl = std::string("ERROR: RGUI: Connect: addfl: ") + flags + ": %E";
    const struct {
        const char *call;
        int detail;
        int successes;
        lines logged;
        size_t lists;
    } steps[] = {
        {"getaddrinfo", any, 0, {"ERROR: RGUI: Connect: getaddrinfo: 127.0.0.1:8008: %E"}, 0},
        {"socket", any, 0, {"ERROR: RGUI: Connect: socket: %E"}, 1},
        {"fcntl", F_GETFL, 0, {addfl}, 1},
        {"fcntl", F_SETFL, 0, {addfl}, 1},
        {"connect", any, 0, {}, 0},
        {"poll", any, 0, {}, 0},
        {"getsockopt", SO_ERROR, 0, {}, 0},
        {"fcntl", F_GETFL, 1, {}, 0},
        {"fcntl", F_SETFL, 1, {}, 0},
        {"pthread_create", any, 0, {"ERROR: create_connection: create pthread: %E"}, 0},
    };
    const gui_server server;
    for (const auto &one : steps) {
        for (const int error : errors.at(one.call)) {
            SCOPED_TRACE(trace_of(one.call, one.detail, error));
            nothing_left checked;
            checked.but_lists(one.lists);
            remote_end remote;
            log_lines log;
            {
                const failing failing(one.call, error, one.detail, one.successes, 1);
                EXPECT_EQ(give(remote.session(), RGUI_OPEN, 9), -1);
                EXPECT_EQ(failing.failures(), 1);
            }
            EXPECT_THAT(remote.sent().sent(), ElementsAre(closed(9)));
            EXPECT_THAT(log.take(), ElementsAreArray(with_error(one.logged, error)));
            EXPECT_EQ(give(remote.session(), RGUI_DATA, 9, "x"), -1);

            EXPECT_EQ(give(remote.session(), RGUI_OPEN, 9), 0);
            EXPECT_EQ(give(remote.session(), RGUI_DATA, 9, "works again"), 0);
            std::string got;
            while (got.empty()) { // behind the connections that were given up
                const stream peer = server.take();
                ASSERT_TRUE(peer.is_open());
                got = peer.read(11);
            }
            EXPECT_EQ(got, "works again");
        }
    }
}

TEST_F(SystemCallsOfTheRelay, LeaveAServersConnectionWithItsDelay)
{
    const gui_server server;
    with_each_error("setsockopt", TCP_NODELAY, [&](int error) {
        remote_end remote;
        log_lines log;
        const failing failing("setsockopt", error, TCP_NODELAY, 0, 1);
        EXPECT_EQ(give(remote.session(), RGUI_OPEN, 9), 0);
        const stream peer = server.take();
        peer.write("x");
        EXPECT_EQ(remote.sent().bytes_of(9, 1), "x");
        EXPECT_THAT(log.take(), ElementsAre(with_error("ERROR: RGUI: setsockopt: TCP_NODELAY: %E", error)));
    });
}

TEST_F(SystemCallsOfTheRelay, DoNotKeepTheRemoteEndFromEnding)
{
    const gui_server server;
    for (const char *call : {"pthread_kill", "shutdown", "close", "sigaction", "nanosleep"}) {
        with_each_error(call, [&](int error) {
            remote_end remote;
            EXPECT_EQ(give(remote.session(), RGUI_OPEN, 9), 0);
            const stream peer = server.take();
            peer.write("x");
            EXPECT_EQ(remote.sent().bytes_of(9, 1), "x");
            const failing failing(call, error, any, 0, 1);
            remote.stop();
            EXPECT_TRUE(peer.ends());
            EXPECT_THAT(remote.sent().sent().back(), closed(9));
        });
    }
}

// ---- The memory debugger's console

std::atomic<int> faults;

class SystemCallsOfTheConsole : public testing::Test
{
  protected:
    SystemCallsOfTheConsole()
    {
        faults = 0;
    }
    static int start(const char *service, int fd)
    {
        return qv_memcheck_start(service, fd, [](int) { faults++; });
    }
    // A client that sees what is printed.
    static void await(client &peer)
    {
        ASSERT_TRUE(peer.is_connected());
        ASSERT_TRUE(eventually([&] {
            gotoline(20, "%s", "awaited");
            return peer.has_input(5);
        }));
        gotoline(20, "%s", "arrived");
        peer.read_until("arrived");
    }

  private:
    const usr1_handling handling_;
};

TEST_F(SystemCallsOfTheConsole, FailItsStart)
{
    const std::string service = std::to_string(peers::free_port());
    const struct {
        const char *service;
        int successes;
        const char *logged;
    } steps[] = {
        {service.c_str(), 0, "ERROR: qv_memcheck_start Unable to create listener thread: %E"},
        {service.c_str(), 1, "ERROR: qv_memcheck_start Unable to create thread: %E"},
        {nullptr, 0, "ERROR: qv_memcheck_start Unable to create thread: %E"},
    };
    for (const auto &one : steps) {
        with_each_error("pthread_create", [&](int error) {
            log_lines log;
            {
                const failing failing("pthread_create", error, any, one.successes, 1);
                EXPECT_EQ(start(one.service, 0), -1);
                EXPECT_EQ(errno, error);
            }
            EXPECT_NE(qv::running_session(), nullptr); // which is the stop's to release
            EXPECT_EQ(qv_memcheck_stop(), 0);
            EXPECT_THAT(errors_beside_the_stop(log.take()), ElementsAre(with_error(one.logged, error)));
        });
    }
}

TEST_F(SystemCallsOfTheConsole, LeaveItWithoutAListener)
{
    const struct {
        const char *call;
        lines logged;
    } steps[] = {
        {"socket", {"ERROR: __qvsock_listen: socket: %E"}},
        {"bind", {}},
        {"listen", {}},
        {"getsockname", {}},
    };
    const std::string service = std::to_string(peers::free_port());
    for (const auto &one : steps) {
        with_each_error(one.call, [&](int error) {
            log_lines log;
            const int before = threads();
            const failing failing(one.call, error, any, 0, 1);
            EXPECT_EQ(start(service.c_str(), 0), 0);
            EXPECT_TRUE(eventually([&] { return failing.failures() == 1 && threads() == before + 1; }));
            EXPECT_EQ(qv_memcheck_stop(), 0);
            lines expected = one.logged;
            if (error == EAFNOSUPPORT)
                expected.clear();
            expected.push_back("ERROR: qvsock_listen: unable to bind to port " + service + " %e");
            expected.push_back("ERROR: accept_thread: failed to create socket: %E");
            expected.push_back("ERROR: accept_thread: accept function failed: Bad file descriptor (9)");
            EXPECT_THAT(errors_among(log.take()), ElementsAreArray(with_error(expected, error)));
        });
    }
}

TEST_F(SystemCallsOfTheConsole, EndItsListener)
{
    with_each_error("accept", [](int error) {
        const std::string service = std::to_string(peers::free_port());
        log_lines log;
        const int before = threads();
        const failing failing("accept", error, any, 0, 1);
        EXPECT_EQ(start(service.c_str(), 0), 0);
        EXPECT_TRUE(eventually([&] { return failing.failures() == 1 && threads() == before + 1; }));
        EXPECT_EQ(qv_memcheck_stop(), 0);
        EXPECT_THAT(errors_among(log.take()),
                    ElementsAre(with_error("ERROR: accept_thread: accept function failed: %E", error)));
    });
}

TEST_F(SystemCallsOfTheConsole, DropAClientOrAreRepeated)
{
    std::vector<int> all = errors.at("sendmsg");
    all.push_back(short_count);
    for (const int error : all) {
        SCOPED_TRACE(trace_of("sendmsg", any, error));
        const nothing_left checked;
        const bool repeated = error == EAGAIN || error == EINTR || error == short_count;
        const unsigned int port = peers::free_port();
        const std::string service = std::to_string(port);
        log_lines log;
        faults = 0;
        EXPECT_EQ(start(service.c_str(), 0), 0);
        client older(port);
        await(older);
        client newer(port);
        await(newer);
        older.text().clear();
        {
            const failing failing("sendmsg", error, any, 0, 1);
            gotoline(20, "%s", "the text");
            EXPECT_TRUE(eventually([&] { return failing.failures() == 1; }));
        }
        gotoline(20, "%s", "next");
        EXPECT_THAT(older.read_until("next"), HasSubstr("the text"));
        if (repeated) {
            EXPECT_THAT(newer.read_until("next"), HasSubstr("the text"));
            EXPECT_EQ(faults, 0);
        } else {
            EXPECT_TRUE(newer.read_to_end());
            EXPECT_THAT(older.read_until("186)"),
                        HasSubstr("Could not find the allocation to free (../src/memdebug:186)"));
            EXPECT_TRUE(eventually([] { return faults == 1; }));
        }
        EXPECT_EQ(qv_memcheck_stop(), 0);
        EXPECT_EQ(peers::close_taken_at(port), repeated ? 2 : 1); // kept on purpose
        EXPECT_THAT(errors_beside_the_stop(log.take()), IsEmpty());
    }
}

// The descriptor is a file here: what is no socket is written to.
TEST_F(SystemCallsOfTheConsole, LoseATextOfTheDescriptorOrAreRepeated)
{
    for (const char *call : {"write", "poll", "sendmsg"}) {
        std::vector<int> all = errors.at(call);
        if (call == std::string("write"))
            all.push_back(short_count);
        for (const int error : all) {
            SCOPED_TRACE(trace_of(call, any, error));
            const nothing_left checked;
            const bool repeated =
                error == EINTR || error == short_count || (error == EAGAIN && call != std::string("poll"));
            const memory_file file;
            log_lines log;
            EXPECT_EQ(start(nullptr, file.fd()), 0);
            const int length = gotoline(20, "%s", "the text");
            {
                const failing failing(call, error, any, 0, 1);
                EXPECT_EQ(gotoline(20, "%s", "the text"), length);
                EXPECT_TRUE(eventually([&] { return failing.failures() == 1; }));
            }
            EXPECT_EQ(gotoline(20, "%s", "the next"), length);
            EXPECT_EQ(qv_memcheck_stop(), 0);
            EXPECT_THAT(file.text(), HasSubstr("the next"));
            if (repeated)
                EXPECT_THAT(errors_beside_the_stop(log.take()), IsEmpty());
            else
                EXPECT_THAT(errors_among(log.take()),
                            ElementsAre(with_error("ERROR: mvprintf: stdout failed: %E", error)));
        }
    }
}

TEST_F(SystemCallsOfTheConsole, DropAClientForWhichNobodyCanWait)
{
    with_each_error("poll", [](int error) {
        const unsigned int port = peers::free_port();
        const std::string service = std::to_string(port);
        log_lines log;
        EXPECT_EQ(start(service.c_str(), 0), 0);
        client peer(port);
        await(peer);
        {
            const failing full("sendmsg", EAGAIN, any, 0, 1), waiting("poll", error, any, 0, 1);
            gotoline(20, "%s", "the text");
            EXPECT_TRUE(eventually([&] { return waiting.failures() == 1; }));
        }
        if (error == EINTR)
            EXPECT_THAT(peer.read_until("the text"), HasSubstr("the text"));
        else
            EXPECT_TRUE(peer.read_to_end());
        EXPECT_EQ(qv_memcheck_stop(), 0);
        EXPECT_EQ(peers::close_taken_at(port), error == EINTR ? 1 : 0); // kept on purpose
        EXPECT_THAT(errors_beside_the_stop(log.take()), IsEmpty());
    });
}

TEST_F(SystemCallsOfTheConsole, DropAClientWhoseCloseFails)
{
    with_each_error("close", [](int error) {
        const unsigned int port = peers::free_port();
        const std::string service = std::to_string(port);
        log_lines log;
        EXPECT_EQ(start(service.c_str(), 0), 0);
        client peer(port);
        await(peer);
        {
            const failing gone("sendmsg", EPIPE, any, 0, 1), failing("close", error, any, 0, 1);
            gotoline(20, "%s", "the text");
            EXPECT_TRUE(eventually([&] { return failing.failures() == 1; }));
        }
        EXPECT_TRUE(peer.read_to_end());
        EXPECT_EQ(qv_memcheck_stop(), 0);
        EXPECT_THAT(errors_beside_the_stop(log.take()), IsEmpty());
    });
}

TEST_F(SystemCallsOfTheConsole, EndItBesideAThreadThatIsInside)
{
    with_each_error("nanosleep", [](int error) {
        static std::atomic<bool> inside, leaves;
        inside = leaves = false;
        log_lines log;
        const memory_file file;
        EXPECT_EQ(qv_memcheck_start(nullptr, file.fd(),
                                    [](int) {
                                        inside = true;
                                        while (!leaves)
                                            peers::sleep_us(500);
                                    }),
                  0);
        std::thread faulty([] { qv_memcheck_free(qv_free, nullptr, "nowhere"); });
        EXPECT_TRUE(eventually([] { return inside.load(); }));
        {
            const failing failing("nanosleep", error);
            std::thread leaving([] {
                peers::sleep_us(20000);
                leaves = true;
            });
            EXPECT_EQ(qv_memcheck_stop(), 0);
            leaving.join();
            EXPECT_GT(failing.failures(), 0);
        }
        faulty.join();
        EXPECT_THAT(errors_among(log.take()), IsEmpty());
    });
}

TEST_F(SystemCallsOfTheConsole, EndNoProcessWhoseReaderWent)
{
    const usr1_handling handling;
    with_each_error("sigtimedwait", [](int error) {
        log_lines log;
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        close(ends[0]);
        {
            const failing failing("sigtimedwait", error, any, 0, error == EINTR ? 3 : 0);
            EXPECT_EQ(start(nullptr, ends[1]), 0);
            gotoline(20, "%s", "to nobody");
            EXPECT_EQ(qv_memcheck_stop(), 0);
        }
        close(ends[1]);
        EXPECT_THAT(errors_among(log.take()), Contains("ERROR: mvprintf: stdout failed: Broken pipe (32)"));
    });
}

TEST_F(SystemCallsOfTheConsole, DoNotKeepItFromEnding)
{
    const struct {
        const char *call;
        int successes;
    } steps[] = {{"pthread_kill", 0}, {"pthread_tryjoin_np", 0}, {"close", 0},
                 {"nanosleep", 0},    {"sigaction", 0},          {"fflush", 0},
                 {"clock_gettime", 0}};
    for (const auto &one : steps) {
        with_each_error(one.call, [&](int error) {
            const unsigned int port = peers::free_port();
            const std::string service = std::to_string(port);
            log_lines log;
            EXPECT_EQ(start(service.c_str(), 0), 0);
            client peer(port);
            await(peer);
            const failing failing(one.call, error, any, one.successes, 1);
            EXPECT_EQ(qv_memcheck_stop(), 0);
            EXPECT_EQ(failing.failures(), 1);
            EXPECT_EQ(peers::close_taken_at(port), 1); // kept on purpose
            EXPECT_THAT(errors_beside_the_stop(log.take()), IsEmpty());
        });
    }
}

TEST_F(SystemCallsOfTheConsole, LeaveItsThreadUnnamed)
{
    with_each_error("prctl", [](int error) {
        const memory_file file;
        log_lines log;
        const failing failing("prctl", error, any, 0, 1);
        EXPECT_EQ(start(nullptr, file.fd()), 0);
        EXPECT_TRUE(eventually([&] { return failing.failures() == 1; }));
        EXPECT_EQ(qv_memcheck_stop(), 0);
        EXPECT_THAT(errors_among(log.take()), IsEmpty());
    });
}

TEST_F(SystemCallsOfTheConsole, EndItWhereTheSignalWouldEndTheProcess)
{
    const usr1_handling fatal(SIG_DFL);
    for (const char *call : {"sigaction", "shutdown"}) {
        with_each_error(call, [&](int error) {
            const unsigned int port = peers::free_port();
            const std::string service = std::to_string(port);
            log_lines log;
            EXPECT_EQ(start(service.c_str(), 0), 0);
            client peer(port);
            await(peer);
            const failing failing(call, error, any, 0, 1);
            EXPECT_EQ(qv_memcheck_stop(), 0);
            EXPECT_EQ(failing.failures(), 1);
            EXPECT_EQ(peers::close_taken_at(port), 1); // kept on purpose
        });
    }
}

} // namespace
