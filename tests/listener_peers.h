// Peers of the library's listeners: the test's own accept, which may come late or fail, and clients.
// Link with -Wl,--wrap=accept.
#ifndef QVLIB_TESTS_LISTENER_PEERS_H
#define QVLIB_TESTS_LISTENER_PEERS_H

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <thread>
#include <time.h>
#include <unistd.h>

#include "failing_calls.h"

#if !QVLIB_TEST_CALLS
extern "C" int __real_accept(int fd, sockaddr *address, socklen_t *size);
#endif

namespace peers
{

inline std::atomic<int> delay_us; // in front of each accept
inline std::atomic<int> accepts;

using failing_calls::descriptors;

// Threads of the process by this name. One that was joined may be listed for a moment yet.
inline int threads_named(const char *name)
{
    int count = 0;
    DIR *directory = opendir("/proc/self/task");
    for (dirent *entry; directory && (entry = readdir(directory));) {
        const std::string path = std::string("/proc/self/task/") + entry->d_name + "/comm";
        char text[32] = "";
        FILE *file = fopen(path.c_str(), "r");
        if (file && fgets(text, sizeof text, file) && std::string(text) == std::string(name) + "\n")
            count++;
        if (file)
            fclose(file);
    }
    if (directory)
        closedir(directory);
    return count;
}

inline void sleep_us(long us)
{
    const timespec moment = {us / 1000000, us % 1000000 * 1000};
    nanosleep(&moment, nullptr);
}

inline double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Waits until something holds; false when it does not in time.
template <class Condition> bool eventually(Condition condition, double seconds = 20)
{
    const auto start = std::chrono::steady_clock::now();
    while (!condition()) {
        if (seconds_since(start) > seconds)
            return false;
        sleep_us(500);
    }
    return true;
}

// A TCP port that nobody uses.
inline unsigned int free_port()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    socklen_t size = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0)
        abort();
    close(fd);
    return ntohs(address.sin_port);
}

// Whether somebody listens on a port of this address. The loopback network has more addresses than 127.0.0.1:
// they tell a listener on all addresses from one on that alone.
inline bool listens_at(const char *address_text, unsigned int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address_text, &address.sin_addr);
    const bool connected = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return connected;
}

// How many threads there are, once ThreadSanitizer has started its own beside the first of the program's.
inline int threads_by_now()
{
    static const bool started = [] {
        std::thread([] { prctl(PR_SET_NAME, "first"); }).join();
        return eventually([] { return threads_named("first") == 0; });
    }();
    return started ? failing_calls::threads() : 0;
}

// Closes the connections that a listener at a port took and left open, in this process; returns how many.
inline int close_taken_at(unsigned int port)
{
    int closed = 0;
    for (int fd = 0; fd < FD_SETSIZE; fd++) {
        sockaddr_in own = {};
        socklen_t size = sizeof own;
        if (getsockname(fd, reinterpret_cast<sockaddr *>(&own), &size) == 0 && own.sin_family == AF_INET &&
            ntohs(own.sin_port) == port)
            closed += close(fd) == 0;
    }
    return closed;
}

// A connection to a port of this host.
class client
{
  public:
    explicit client(unsigned int port, int receive_buffer = 0, double patience = 20)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        eventually(
            [&] {
                fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
                if (receive_buffer)
                    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
                if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
                    return true;
                close(fd_);
                fd_ = -1;
                return false;
            },
            patience);
    }
    ~client()
    {
        hang_up();
    }
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    bool is_connected() const
    {
        return fd_ >= 0;
    }
    void hang_up()
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }
    // Ends the connection without the usual goodbye.
    void reset()
    {
        const linger at_once = {1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        hang_up();
    }
    // Whether all was taken at once.
    bool write(const std::string &bytes) const
    {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // Of its own end.
    unsigned int port() const
    {
        sockaddr_in address = {};
        socklen_t size = sizeof address;
        getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size);
        return ntohs(address.sin_port);
    }
    bool has_input(int timeout_ms) const
    {
        pollfd input = {fd_, POLLIN, 0};
        return poll(&input, 1, timeout_ms) > 0;
    }
    // Reads until the text so far contains `end`, or the connection ends; all that was read.
    const std::string &read_until(const std::string &end)
    {
        char buffer[4096];
        size_t seen = 0; // so far without `end`
        while (text_.find(end, seen) == std::string::npos && has_input(20000)) {
            seen = text_.size() < end.size() ? 0 : text_.size() - end.size();
            const ssize_t length = recv(fd_, buffer, sizeof buffer, 0);
            if (length <= 0)
                break;
            text_.append(buffer, static_cast<size_t>(length));
        }
        return text_;
    }
    // Reads so many bytes, or fewer when there are no more.
    void read_some(size_t size)
    {
        std::string buffer(size, '\0');
        const ssize_t length = recv(fd_, buffer.data(), size, MSG_DONTWAIT);
        if (length > 0)
            text_.append(buffer, 0, static_cast<size_t>(length));
    }
    // Reads what there is until the other side ends the connection; false when it does not.
    bool read_to_end()
    {
        char buffer[4096];
        while (has_input(20000)) {
            const ssize_t length = recv(fd_, buffer, sizeof buffer, 0);
            if (length <= 0)
                return true;
            text_.append(buffer, static_cast<size_t>(length));
        }
        return false;
    }
    std::string &text()
    {
        return text_;
    }

  private:
    int fd_ = -1;
    std::string text_;
};

// The library's end of a client's connection, -1 when there is none.
inline int other_end(const client &peer)
{
    for (int fd = 0; fd < 1024; fd++) {
        sockaddr_in address = {};
        socklen_t size = sizeof address;
        if (getpeername(fd, reinterpret_cast<sockaddr *>(&address), &size) == 0 &&
            address.sin_family == AF_INET && ntohs(address.sin_port) == peer.port())
            return fd;
    }
    return -1;
}

// Fills a connection until it takes nothing more: the next byte for that client must wait. The kernel still
// moves some of it to the client a while later, when it asks whether that has room.
inline void fill_up(const client &peer)
{
    const int fd = other_end(peer);
    const std::string filler(65536, '.');
    for (int refusals = 0; refusals < 50;) {
        if (::send(fd, filler.data(), filler.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0)
            refusals = 0;
        else {
            refusals++;
            sleep_us(20000);
        }
    }
}

} // namespace peers

#if !QVLIB_TEST_CALLS // where accept is a call as any other
extern "C" inline __attribute__((used)) int __wrap_accept(int fd, sockaddr *address, socklen_t *size)
{
    if (peers::delay_us != 0)
        peers::sleep_us(peers::delay_us);
    peers::accepts++;
    if (failing_calls::fails("accept"))
        return -1;
    return __real_accept(fd, address, size);
}
#endif

#endif
