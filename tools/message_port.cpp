// The transport joins what arrives and tells nobody: a message's length is held against its param2. Sockets
// of the transport share a port, and the newer one gets what is sent: so the port is tried without sharing
// first, and sharing ends when it is ours.
#include "message_port.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include "failure.h"

namespace qvl
{

namespace
{

failure port_failure(std::uint16_t port, const std::string &text)
{
    return plain_failure("port " + std::to_string(port) + ": " + text);
}

sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

void check_unshared(std::uint16_t port)
{
    const sockaddr_in address = loopback(port);
    const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe == -1)
        throw port_failure(port, strerror(errno));
    const int result = bind(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const int cause = errno;
    close(probe);
    if (result != 0)
        throw port_failure(port, strerror(cause));
}

int open_port(std::uint16_t port)
{
    check_unshared(port);
    const int fd = corelink_setup_socket(std::to_string(port).c_str());
    if (fd == -1)
        throw port_failure(port, strerror(errno));
    const int off = 0;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &off, sizeof off) != 0) {
        const int cause = errno;
        close(fd);
        throw port_failure(port, strerror(cause));
    }
    return fd;
}

} // namespace

std::string_view message::name() const
{
    return {header.name, strnlen(header.name, sizeof header.name)};
}

bool message::is_cut() const
{
    return body.size() < header.param2;
}

bool message::is_joined() const
{
    return body.size() > header.param2;
}

std::string message::damage() const
{
    const std::string came = std::to_string(body.size()), sent = std::to_string(header.param2);
    if (is_cut())
        return "cut, " + came + " of " + sent + " bytes came";
    if (is_joined())
        return "joined with the next, " + came + " bytes came and " + sent + " were sent";
    return "";
}

message_port::message_port(std::uint16_t port) : fd_(open_port(port))
{
}

message_port::~message_port()
{
    close(fd_);
}

std::uint16_t message_port::number() const
{
    sockaddr_in self{};
    socklen_t size = sizeof self;
    if (getsockname(fd_, reinterpret_cast<sockaddr *>(&self), &size) != 0)
        throw plain_failure(std::string("socket: ") + strerror(errno));
    return ntohs(self.sin_port);
}

void message_port::connect_to(std::uint16_t peer)
{
    const sockaddr_in address = loopback(peer);
    if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        throw port_failure(peer, strerror(errno));
    peer_ = peer;
}

void message_port::send(std::uint16_t to, unsigned type, std::uint32_t param1, const std::string &name,
                        std::string_view body)
{
    const auto length = static_cast<std::uint32_t>(body.size());
    if (corelink_sendmsg_parts(fd_, to, type, param1, name.c_str(), length, body.data(), length) != 0)
        throw port_failure(to, strerror(errno));
}

message message_port::receive()
{
    corelink_msgbuf received;
    sockaddr_in source;
    if (corelink_receive_msg_block(fd_, &source, &received) != 0) {
        if (errno == EAGAIN)
            throw port_failure(peer_, "a message came without its end");
        throw port_failure(peer_ != 0 ? peer_ : number(), strerror(errno));
    }
    const std::unique_ptr<void, void (*)(void *)> owner(received.data, free);
    message read;
    memcpy(&read.header, received.data, sizeof read.header);
    read.body.assign(static_cast<const char *>(received.data) + sizeof read.header,
                     received.length - sizeof read.header);
    read.from = ntohs(source.sin_port);
    return read;
}

std::optional<message> message_port::receive_until(clock::time_point deadline)
{
    using std::chrono::microseconds;
    const auto left = std::chrono::duration_cast<microseconds>(deadline - clock::now()).count();
    // Rounded up, so that the last millisecond is slept through and not spun through.
    const auto milliseconds = std::clamp<long long>((left + 999) / 1000, 0, std::numeric_limits<int>::max());
    pollfd wanted{fd_, POLLIN, 0};
    const int ready = poll(&wanted, 1, static_cast<int>(milliseconds));
    if (ready == -1)
        throw plain_failure(std::string("poll: ") + strerror(errno));
    if (ready == 0)
        return std::nullopt;
    // A message that has begun may go on for as long as is left, for each of its fragments.
    const long long patience = std::max<long long>(left, 1000);
    const timeval limit{static_cast<time_t>(patience / 1000000),
                        static_cast<suseconds_t>(patience % 1000000)};
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0)
        throw plain_failure(std::string("socket: ") + strerror(errno));
    return receive();
}

} // namespace qvl
