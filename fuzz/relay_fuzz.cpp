// The remote end of the GUI relay with connections to a server:
//
//   scripts/fuzz 60 relay
//
// An input is what the other unit and the server do in turn: connections are opened, bytes go both ways,
// either side closes. What arrives is what was sent, or where a side has closed, its beginning.

#include <qvlib/remote_gui.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
#include <vector>

#include "fuzz_input.h"

namespace
{

using fuzz::require;

constexpr size_t most_connections = 6; // each is a thread
constexpr int patience_ms = 20000;

int server_end = -1; // of the connection that was made last

} // namespace

struct addrinfo;

extern "C" int __wrap___qvsock_connect(const addrinfo *, const char *, const char *, const char *, int, int,
                                       const char *, int)
{
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0, "no sockets");
    server_end = ends[1];
    return ends[0];
}

namespace
{

// What the other unit was sent, by any thread.
class other_unit
{
  public:
    static int take(rgui_pdu *pdu, size_t length, void *cookie)
    {
        auto *self = static_cast<other_unit *>(cookie);
        require(length == sizeof *pdu + pdu->size, "a PDU's length");
        require(pdu->opcode == RGUI_DATA || (pdu->opcode == RGUI_CLOSE && pdu->size == 0), "a PDU's opcode");
        const std::lock_guard lock(self->mutex_);
        self->bytes_[pdu->id].append(reinterpret_cast<const char *>(pdu->payload), pdu->size);
        free(pdu);
        return 0;
    }

    std::string bytes(uint16_t id)
    {
        const std::lock_guard lock(mutex_);
        return bytes_[id];
    }

  private:
    std::mutex mutex_;
    std::map<uint16_t, std::string> bytes_;
};

struct connection {
    uint16_t id;
    int server;
    bool is_live = true; // neither side has closed it
    std::string sent_by_server, sent_to_server, seen_by_server;
};

class world
{
  public:
    world() : session_(rgui_start_remote(other_unit::take, &unit_))
    {
        require(session_ != nullptr, "no session");
    }
    world(const world &) = delete;
    world &operator=(const world &) = delete;
    ~world()
    {
        for (const connection &conn : connections_)
            if (conn.is_live)
                await(conn);
        rgui_stop_remote(session_);
        for (connection &conn : connections_) {
            require(conn.sent_by_server.starts_with(unit_.bytes(conn.id)),
                    "bytes that the server did not send");
            if (conn.server != -1)
                close(conn.server);
        }
    }

    void step(fuzz::input &in)
    {
        const unsigned what = in.below(8);
        if (what < 2 || connections_.empty())
            return open(static_cast<uint16_t>(in.number(2)));
        connection &conn = connections_[in.below(static_cast<unsigned>(connections_.size()))];
        const std::string bytes = in.text(what < 6 ? in.byte() * 9u : 0u);
        if (what < 4)
            send_to_server(conn, bytes);
        else if (what < 6)
            send_by_server(conn, bytes);
        else if (what == 6)
            close_by_unit(conn);
        else
            close_by_server(conn);
    }

  private:
    int hand_over(uint8_t opcode, uint16_t id, const std::string &payload)
    {
        const rgui_pdu header = {opcode, 0, id, static_cast<uint32_t>(payload.size())};
        std::vector<char> bytes(sizeof header + payload.size());
        memcpy(bytes.data(), &header, sizeof header);
        memcpy(bytes.data() + sizeof header, payload.data(), payload.size());
        const void *pdu = bytes.data();
        require(rgui_data_rx(session_, static_cast<const rgui_pdu *>(pdu), bytes.size() + 1) == -1,
                "a PDU of another length was taken");
        return rgui_data_rx(session_, static_cast<const rgui_pdu *>(pdu), bytes.size());
    }

    void open(uint16_t id)
    {
        for (const connection &conn : connections_)
            if (conn.id == id)
                return; // references of a second OPEN are kept for good
        if (connections_.size() == most_connections)
            return;
        require(hand_over(RGUI_DATA, id, "x") == -1, "bytes for a connection that is not there were taken");
        require(hand_over(RGUI_OPEN, id, "") == 0, "a connection could not be opened");
        connections_.push_back({id, server_end, true, "", "", ""});
    }

    void send_to_server(connection &conn, const std::string &bytes)
    {
        const int result = hand_over(RGUI_DATA, conn.id, bytes);
        if (!conn.is_live)
            return;
        require(result == 0, "bytes for a connection were refused");
        conn.sent_to_server += bytes;
        char seen[4096];
        for (ssize_t count; (count = read(conn.server, seen, sizeof seen)) > 0;)
            conn.seen_by_server.append(seen, static_cast<size_t>(count));
        require(conn.seen_by_server == conn.sent_to_server, "the server sees other bytes");
    }

    void send_by_server(connection &conn, const std::string &bytes)
    {
        if (!conn.is_live)
            return;
        const ssize_t count = send(conn.server, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count > 0)
            conn.sent_by_server.append(bytes, 0, static_cast<size_t>(count));
    }

    void close_by_unit(connection &conn)
    {
        require(hand_over(RGUI_CLOSE, conn.id, "") == 0, "a CLOSE was refused");
        conn.is_live = false;
    }

    static void close_by_server(connection &conn)
    {
        if (conn.server != -1)
            close(conn.server);
        conn.server = -1;
        conn.is_live = false;
    }

    void await(const connection &conn)
    {
        const timespec millisecond = {0, 1000000};
        for (int i = 0; unit_.bytes(conn.id).size() < conn.sent_by_server.size() && i < patience_ms; i++)
            nanosleep(&millisecond, nullptr);
        require(unit_.bytes(conn.id) == conn.sent_by_server, "the other unit gets other bytes");
    }

    other_unit unit_;
    rgui_session *session_;
    std::vector<connection> connections_;
};

// Wakes the threads that receive.
bool handle_wake_up()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    return sigaction(SIGUSR1, &action, nullptr) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool wakes = handle_wake_up();
    require(wakes, "no handler");
    fuzz::input in(data, size);
    world both;
    while (!in.is_empty())
        both.step(in);
    return 0;
}
