// Logging and its feed, sockets, the transport, the relay.

#include "scenario.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "other_ends.h"

using namespace allocations;

namespace
{

addrinfo stream_hints()
{
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    return hints;
}

std::string port_text(unsigned int port)
{
    return std::to_string(port);
}

// A listening socket of the scenario's own, on a port that nobody uses.
class own_listener
{
  public:
    own_listener() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = relay::loopback(0);
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(listen(fd_, 8), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
    }
    ~own_listener()
    {
        close(fd_);
    }
    own_listener(const own_listener &) = delete;
    own_listener &operator=(const own_listener &) = delete;

    int fd() const
    {
        return fd_;
    }
    unsigned int port() const
    {
        return port_;
    }

  private:
    int fd_;
    unsigned int port_ = 0;
};

QV_PRINTF(3, 4) void give_to_feed(void *feed, int level, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    CALL(qv_vtellog, feed, level, fmt, ap);
    va_end(ap);
}

} // namespace

// ---- Logging

SCENARIO(log_messages)
{
    CALL(qv_log_init, "scenario", 7, LOG_PERROR, LOG_USER, 0);
    CALL(__qv_log, QV_LOG_ERROR, "%s", "message");
    CALL(__qv_log, QV_LOG_ERROR, "%2000s", "a message that is longer than a line");
    CALL(qv_log_setlevel, 3);
    errno = ENOENT;
    CALL(qv_errno, "%s: step", "scenario");
    CALL(qv_gaierror, EAI_NONAME, "%s: step", "scenario");
    CALL(__qv_loghex_line, QV_LOG_ERROR, "0123456789abcdef0123", 20, 16, 0);
    EXPECT_STREQ(CALL(log_level, 3), "ERROR");
    CALL(qv_log_exit);
    CALL(qv_logc, "%s", "to the console");
}

// A message that memory is short for is dropped; the next ones come.
SCENARIO(feed_client)
{
    const armed all_threads;
    const unsigned int port = peers::free_port();
    void *feed = CALL(tellog_start, port);
    if (!feed) {
        EXPECT_TRUE(failed());
        may_stay("the handle of a feed whose thread could not be started");
        EXPECT_EQ(CALL(tellog_finish, feed), -1);
        return;
    }
    const relay::stream client = connect_to_opening(port);
    comes_about([&] {
        give_to_feed(feed, QV_LOG_ERROR, "%s", "first");
        return has_input(client);
    });
    give_to_feed(feed, QV_LOG_ERROR, "%s", "last");
    EXPECT_EQ(CALL(tellog_finish, feed), 0);
    const std::string text = what_came(client);
    EXPECT_TRUE(text.find(" ERROR: first\n") != std::string::npos || failed());
    EXPECT_TRUE(text.find(" ERROR: last\n") != std::string::npos || failed());
}

SCENARIO(log_to_feed)
{
    const armed all_threads;
    const unsigned int port = peers::free_port();
    CALL(qv_log_init, "scenario", 3, 0, LOG_USER, port);
    if (failed())
        may_stay("the handle of a feed whose thread could not be started");
    const relay::stream client = connect_to_opening(port);
    comes_about([&] {
        CALL(__qv_log, QV_LOG_TELNET, "%s", "heard");
        return has_input(client);
    });
    CALL(qv_log_exit);
    EXPECT_TRUE(what_came(client).find(" TELNT: heard\n") != std::string::npos || failed());
}

// ---- Sockets

SCENARIO(listen_and_connect)
{
    const unsigned int port = peers::free_port();
    const std::string service = port_text(port);
    const addrinfo hints = stream_hints();
    const int listener = CALL(qvsock_listen, &hints, "127.0.0.1", service.c_str(), 0, 0, 0);
    if (listener < 0) {
        EXPECT_TRUE(failed());
        return;
    }
    const int client =
        CALL(__qvsock_connect, &hints, "127.0.0.1", service.c_str(), nullptr, 0, 0, "scenario", 0);
    if (client >= 0) {
        char host[NI_MAXHOST] = "";
        const int taken = CALL(qvsock_accept, listener, host, sizeof host, "scenario");
        EXPECT_TRUE(taken >= 0 || failed());
        if (taken >= 0) {
            EXPECT_STREQ(host, "127.0.0.1");
        }
        EXPECT_TRUE(CALL(qvsock_getpeername, client, host, sizeof host) || failed());
        close(taken);
    } else {
        EXPECT_TRUE(failed());
    }
    close(client);
    // The port can be had again.
    const int again = __qvsock_connect(&hints, "127.0.0.1", service.c_str(), nullptr, 0, 0, "scenario", 0);
    EXPECT_GE(again, 0);
    close(again);
    close(listener);
}

SCENARIO(fail_to_connect)
{
    const addrinfo hints = stream_hints();
    const std::string service = port_text(peers::free_port());
    EXPECT_EQ(CALL(__qvsock_connect, &hints, "not an address", service.c_str(), nullptr, 0, 0, "scenario", 0),
              -1);
    EXPECT_EQ(CALL(__qvsock_connect, &hints, "127.0.0.1", service.c_str(), "none", 0, 0, "scenario", 0), -1);
    EXPECT_EQ(CALL(qvsock_accept, -1, nullptr, 0, "scenario"), -1);
    char host[NI_MAXHOST] = "";
    EXPECT_EQ(CALL(qvsock_getpeername, -1, host, sizeof host), nullptr);
    tcp_info info = {};
    EXPECT_EQ(CALL(read_tcp_info, -1, &info), -1);
    EXPECT_EQ(CALL(qvsock_listen, &hints, "not an address", service.c_str(), 0, 0, 0), -1);
}

SCENARIO(configure_socket)
{
    const own_listener listener;
    EXPECT_EQ(CALL(qvsock_set_sockbuffers, listener.fd(), 65536, 65536), 0);
    CALL(qvsock_bind_iface, listener.fd(), "lo");
    tcp_info info = {};
    EXPECT_EQ(CALL(read_tcp_info, listener.fd(), &info), 0);
    CALL(display_tcp_info, QV_LOG_DEBUG, &info);
    CALL(display_tcp_info, QV_LOG_HEX_SILENT, &info);
}

SCENARIO(read_hardware_address)
{
    uint8_t mac[6] = {1, 1, 1, 1, 1, 1};
    if (CALL(qv_getmac, "lo", mac) == 0) {
        EXPECT_EQ(mac[0], 0);
    } else {
        EXPECT_TRUE(failed() || access("/sys/class/net/lo/address", R_OK) != 0);
    }
    EXPECT_EQ(CALL(qv_getmac64, "lo"), 0U);
}

// ---- The transport

SCENARIO(send_and_receive)
{
    const unsigned int port = peers::free_port();
    const int receiver = CALL(corelink_setup_socket, port_text(port).c_str());
    if (receiver < 0) {
        EXPECT_TRUE(failed());
        return;
    }
    const std::string body(20000, 'b');
    const int sender = socket(AF_INET, SOCK_DGRAM, 0);
    const auto destination = static_cast<uint16_t>(port);
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(CALL(corelink_sendmsg_parts, sender, destination, 1, 2, "name", 3, body.data(), 20000), 0);
        corelink_msgbuf message = {nullptr, 7};
        if (CALL(corelink_receive_msg_block, receiver, nullptr, &message) == 0) {
            EXPECT_EQ(message.length, 48U + 20000U);
            EXPECT_EQ(memcmp(static_cast<char *>(message.data) + 48, body.data(), body.size()), 0);
            free(message.data);
        } else {
            EXPECT_TRUE(failed());
            EXPECT_EQ(errno, ENOMEM);
            EXPECT_EQ(message.data, nullptr);
            EXPECT_EQ(message.length, 7U);
            may_stay("what was collected of a message when its buffer could not grow");
            char rest[5000];
            while (recv(receiver, rest, sizeof rest, MSG_DONTWAIT) > 0) {
            }
        }
    }
    corelink_msghdr header = {};
    EXPECT_EQ(CALL(corelink_sendmsg, sender, destination, &header, nullptr, 0), 0);
    corelink_msgbuf empty = {};
    EXPECT_EQ(corelink_receive_msg_block(receiver, nullptr, &empty), 0);
    EXPECT_EQ(empty.length, 48U);
    free(empty.data);
    close(sender);
    close(receiver);
}

// ---- The relay

namespace
{

// What a session sent; read by the scenario while the session's threads write.
struct sent_counts {
    std::atomic<int> opens, data, closes;
};

int count_sent(rgui_pdu *pdu, size_t, void *cookie)
{
    auto *counts = static_cast<sent_counts *>(cookie);
    (pdu->opcode == RGUI_OPEN ? counts->opens : pdu->opcode == RGUI_DATA ? counts->data : counts->closes)++;
    free(pdu);
    return 0;
}

int give(rgui_session *session, uint8_t opcode, uint16_t id, const char *payload = "")
{
    alignas(rgui_pdu) char bytes[64] = {};
    rgui_pdu header = {};
    header.opcode = opcode;
    header.id = id;
    header.size = static_cast<uint32_t>(strlen(payload));
    memcpy(bytes, &header, sizeof header);
    memcpy(bytes + sizeof header, payload, header.size);
    const void *pdu = bytes;
    const size_t length = sizeof header + header.size;
    return CALL(rgui_data_rx, session, static_cast<const rgui_pdu *>(pdu), length);
}

} // namespace

SCENARIO(relay_client)
{
    const relay::usr1_handling handled;
    const armed all_threads;
    const unsigned int port = peers::free_port();
    sent_counts sent = {};
    rgui_session *session =
        CALL(rgui_start_local, "127.0.0.1", port_text(port).c_str(), nullptr, count_sent, &sent);
    if (!session) {
        EXPECT_TRUE(failed());
        return;
    }
    const relay::stream client = connect_to_opening(port);
    if (client.is_open()) {
        EXPECT_EQ(send(client.fd(), "hello", 5, MSG_NOSIGNAL), 5);
        comes_about([&] { return sent.data > 0 || has_input(client); });
        const int result = give(session, RGUI_DATA, 1, "answer");
        EXPECT_TRUE(result == 0 || failed());
        char answer[16];
        const bool came = comes_about([&] { return has_input(client); });
        EXPECT_TRUE((came && recv(client.fd(), answer, sizeof answer, 0) == 6) || failed());
        EXPECT_EQ(give(session, RGUI_CLOSE, 1), 0);
    }
    CALL(rgui_stop_local, session);
    EXPECT_TRUE((sent.opens == 1 && sent.data == 1 && sent.closes == 0) || failed());
}

SCENARIO(relay_to_server)
{
    const relay::usr1_handling handled;
    const relay::server_port mine;
    const relay::gui_server server;
    const armed all_threads;
    sent_counts sent = {};
    rgui_session *session = CALL(rgui_start_remote, count_sent, &sent);
    if (!session) {
        EXPECT_TRUE(failed());
        return;
    }
    const int opened = give(session, RGUI_OPEN, 5);
    EXPECT_TRUE(opened == 0 || failed());
    if (opened == 0) {
        const relay::stream taken = server.take();
        // Without memory for its first PDU the connection ends at once.
        const int given = give(session, RGUI_DATA, 5, "question");
        EXPECT_TRUE(given == 0 || (given == -1 && failed()));
        char question[16];
        EXPECT_TRUE(recv(taken.fd(), question, sizeof question, 0) == 8 || failed());
        EXPECT_TRUE(send(taken.fd(), "answer", 6, MSG_NOSIGNAL) == 6 || failed());
        comes_about([&] { return sent.data > 0; });
    }
    EXPECT_EQ(give(session, RGUI_DATA, 6), -1);
    CALL(rgui_stop_remote, session);
    EXPECT_TRUE((opened == 0 && sent.data == 1) || failed());
}
