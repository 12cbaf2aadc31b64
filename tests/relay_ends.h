// What stands around a relay in a test: a GUI server on port 8008, clients, and a channel that records.
#ifndef QVLIB_TESTS_RELAY_ENDS_H
#define QVLIB_TESTS_RELAY_ENDS_H

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <qvlib/remote_gui.h>

namespace relay
{

// A PDU as it passed.
struct passed {
    int opcode = 0;
    int id = 0;
    std::string payload;
    size_t length = 0;
    int reserved = 0;

    bool operator==(const passed &other) const
    {
        return opcode == other.opcode && id == other.id && payload == other.payload;
    }
};

inline void PrintTo(const passed &pdu, std::ostream *out)
{
    *out << "{" << pdu.opcode << ", " << pdu.id << ", " << pdu.payload.size() << " bytes}";
}

inline passed describe(const rgui_pdu *pdu, size_t length)
{
    return {pdu->opcode, pdu->id, std::string(reinterpret_cast<const char *>(pdu->payload), pdu->size),
            length, pdu->reserved};
}

// A send callback that keeps what it is given.
class channel
{
  public:
    static int send(rgui_pdu *pdu, size_t length, void *cookie)
    {
        auto *self = static_cast<channel *>(cookie);
        const std::lock_guard<std::mutex> lock(self->mutex_);
        self->sent_.push_back(describe(pdu, length));
        self->opens_ += pdu->opcode == RGUI_OPEN;
        free(pdu);
        self->changed_.notify_all();
        return self->sent_.back().opcode == RGUI_DATA ? self->data_result_ : 0;
    }
    std::vector<passed> sent()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return sent_;
    }
    // Waits for a number of PDUs; what came, also when it is fewer.
    std::vector<passed> wait_for(size_t count)
    {
        return wait_until([count](const std::vector<passed> &sent) { return sent.size() >= count; });
    }
    std::vector<passed> wait_until(const std::function<bool(const std::vector<passed> &)> &holds)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(20), [&] { return holds(sent_); });
        return sent_;
    }
    bool wait_for_opens(size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return opens_ >= count; });
    }
    // The bytes of a connection, once there are so many.
    std::string bytes_of(int id, size_t size)
    {
        std::string bytes;
        wait_until([&](const std::vector<passed> &sent) {
            bytes.clear();
            for (const passed &pdu : sent)
                if (pdu.id == id)
                    bytes += pdu.payload;
            return bytes.size() >= size;
        });
        return bytes;
    }
    // What DATA is answered with.
    void answer_data_with(int result)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        data_result_ = result;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<passed> sent_;
    size_t opens_ = 0;
    int data_result_ = 0;
};

// Hands a PDU to a session.
inline int give(rgui_session *session, int opcode, int id, const std::string &payload = "")
{
    rgui_pdu header = {};
    header.opcode = static_cast<uint8_t>(opcode);
    header.id = static_cast<uint16_t>(id);
    header.size = static_cast<uint32_t>(payload.size());
    std::vector<char> bytes(sizeof header + payload.size());
    memcpy(bytes.data(), &header, sizeof header);
    memcpy(bytes.data() + sizeof header, payload.data(), payload.size());
    const void *pdu = bytes.data();
    return rgui_data_rx(session, static_cast<const rgui_pdu *>(pdu), bytes.size());
}

// One side of a TCP connection.
class stream
{
  public:
    explicit stream(int fd = -1) : fd_(fd)
    {
    }
    stream(stream &&other) noexcept : fd_(std::exchange(other.fd_, -1))
    {
    }
    stream &operator=(stream &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~stream()
    {
        end();
    }

    int fd() const
    {
        return fd_;
    }
    bool is_open() const
    {
        return fd_ >= 0;
    }
    void end()
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }
    // Ends without the usual goodbye.
    void reset()
    {
        const linger at_once = {1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        end();
    }
    bool write(const std::string &bytes) const
    {
        for (size_t done = 0; done < bytes.size();) {
            const ssize_t sent = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (sent < 0 && errno != EINTR)
                return false;
            done += static_cast<size_t>(std::max<ssize_t>(sent, 0));
        }
        return true;
    }
    // Reads so many bytes, or what comes before the end.
    std::string read(size_t size) const
    {
        std::string bytes;
        char buffer[65536];
        while (bytes.size() < size) {
            pollfd input = {fd_, POLLIN, 0};
            if (poll(&input, 1, 20000) <= 0)
                break;
            const ssize_t length = ::read(fd_, buffer, std::min(sizeof buffer, size - bytes.size()));
            if (length <= 0)
                break;
            bytes.append(buffer, static_cast<size_t>(length));
        }
        return bytes;
    }
    // What has come already.
    std::string read_at_once() const
    {
        char buffer[4096];
        pollfd input = {fd_, POLLIN, 0};
        const ssize_t length = poll(&input, 1, 0) > 0 ? ::read(fd_, buffer, sizeof buffer) : 0;
        return std::string(buffer, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    }
    // Whether the other side ends the connection; what comes before is dropped.
    bool ends() const
    {
        char buffer[65536];
        for (;;) {
            pollfd input = {fd_, POLLIN, 0};
            if (poll(&input, 1, 20000) <= 0)
                return false;
            if (::read(fd_, buffer, sizeof buffer) <= 0)
                return true;
        }
    }

  private:
    int fd_;
};

inline sockaddr_in loopback(unsigned int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A client of a port of this host; tries until the port is open. A small receive buffer makes a reader that
// is soon full.
inline stream connect_to(unsigned int port, int receive_buffer = 0)
{
    const sockaddr_in address = loopback(port);
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::seconds(20)) {
        stream client(socket(AF_INET, SOCK_STREAM, 0));
        if (receive_buffer != 0)
            setsockopt(client.fd(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
        if (connect(client.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return client;
        usleep(500);
    }
    return stream();
}

// Port 8008 is one for all test programs of the machine: held while it lives.
class server_port
{
  public:
    server_port() : fd_(open("/tmp/qvlib-port-8008", O_RDWR | O_CREAT | O_CLOEXEC, 0666))
    {
        if (fd_ < 0 || flock(fd_, LOCK_EX) != 0)
            ADD_FAILURE() << "lock of port 8008: " << strerror(errno);
    }
    ~server_port()
    {
        close(fd_);
    }
    server_port(const server_port &) = delete;
    server_port &operator=(const server_port &) = delete;

  private:
    int fd_;
};

// The listening side of the GUI server.
class gui_server
{
  public:
    explicit gui_server(int backlog = 64) : listener_(socket(AF_INET, SOCK_STREAM, 0))
    {
        const int on = 1;
        setsockopt(listener_.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const sockaddr_in address = loopback(8008);
        if (bind(listener_.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            listen(listener_.fd(), backlog) != 0)
            ADD_FAILURE() << "port 8008: " << strerror(errno);
    }
    // A connection to the server; none when none comes in time.
    stream take(int patience_ms = 20000) const
    {
        pollfd waiting = {listener_.fd(), POLLIN, 0};
        return stream(poll(&waiting, 1, patience_ms) > 0 ? accept4(listener_.fd(), nullptr, nullptr, 0) : -1);
    }
    int fd() const
    {
        return listener_.fd();
    }

  private:
    stream listener_;
};

// While it lives, SIGUSR1 is handled so; by default by nothing, and interrupted calls are not restarted.
class usr1_handling
{
  public:
    explicit usr1_handling(
        void (*handler)(int) = [](int) {}, int flags = 0)
    {
        struct sigaction action = {};
        action.sa_handler = handler;
        action.sa_flags = flags;
        sigaction(SIGUSR1, &action, &before_);
    }
    ~usr1_handling()
    {
        sigaction(SIGUSR1, &before_, nullptr);
    }
    usr1_handling(const usr1_handling &) = delete;
    usr1_handling &operator=(const usr1_handling &) = delete;

  private:
    struct sigaction before_;
};

inline std::string pattern(size_t size, unsigned int seed = 1)
{
    std::string bytes(size, '\0');
    uint32_t state = seed * 2654435761u + 1;
    for (char &byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

} // namespace relay

#endif
