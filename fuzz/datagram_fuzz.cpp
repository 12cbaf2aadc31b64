// Datagrams into the transport's receiver, beside a model of what it joins:
//
//   scripts/fuzz 60 datagram
//
// An input is datagrams, each behind two bytes of length. They are waiting in a socket when they are
// received, up to a bound on their number that any socket takes.

#include <qvlib/transport.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "failing_alloc.h"
#include "fuzz_input.h"

namespace
{

using fuzz::require;

constexpr size_t header_size = sizeof(corelink_msghdr);
constexpr size_t most_datagrams = 8;
constexpr size_t longest_datagram = 5000;

struct socket_pair {
    int sender = -1, receiver = -1;

    socket_pair()
    {
        int ends[2];
        require(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, ends) == 0, "no sockets");
        sender = ends[0];
        receiver = ends[1];
    }
    socket_pair(const socket_pair &) = delete;
    socket_pair &operator=(const socket_pair &) = delete;
    ~socket_pair()
    {
        close(sender);
        close(receiver);
    }
};

// Whether a message is whole, and what it is then.
bool join(std::deque<std::string> &waiting, std::string &message)
{
    message.clear();
    while (!waiting.empty()) {
        std::string datagram = waiting.front();
        waiting.pop_front();
        datagram.resize(std::max(datagram.size(), header_size));
        corelink_msghdr header;
        memcpy(&header, datagram.data(), header_size);
        datagram.resize(header_size + header.fragment_len);
        message += message.empty() ? datagram : datagram.substr(header_size);
        if (header.type_flags & 1)
            return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const unsigned successes = in.byte();
    const socket_pair sockets;
    std::deque<std::string> waiting;
    while (!in.is_empty() && waiting.size() < most_datagrams) {
        const std::string datagram = in.text(in.size(2) % longest_datagram);
        // An empty one without a sender's address would pass for the end of the stream.
        if (datagram.empty())
            continue;
        if (send(sockets.sender, datagram.data(), datagram.size(), 0) < 0)
            break;
        waiting.push_back(datagram);
    }

    failing_alloc::live_blocks account;
    corelink_msgbuf result{nullptr, 0};
    sockaddr_in source;
    std::string expected;
    while (join(waiting, expected)) {
        const failing_alloc::after failure(successes > 0 ? static_cast<int>(successes) - 1 : -1);
        if (corelink_receive_msg_block(sockets.receiver, &source, &result) != 0) {
            require(failing_alloc::failed, "a message could not be received");
            return 0;
        }
        require(result.length == expected.size(), "another length than the model's");
        require(memcmp(result.data, expected.data(), expected.size()) == 0, "other bytes than the model's");
        free(result.data);
        require(account.count() == 0, "blocks are left");
    }
    result = {nullptr, 7};
    require(corelink_receive_msg_block(sockets.receiver, nullptr, &result) == -1 && errno == EAGAIN,
            "a message without an end was received");
    require(result.data == nullptr && result.length == 7, "a failure changed the result");
    require(account.count() == 0, "blocks are left after a failure");
    return 0;
}
