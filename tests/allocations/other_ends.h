// What threads of the library and their peers do while allocations fail.
#ifndef QVLIB_TESTS_ALLOCATIONS_OTHER_ENDS_H
#define QVLIB_TESTS_ALLOCATIONS_OTHER_ENDS_H

#include "scenario.h"

#include <poll.h>
#include <sys/socket.h>

#include "listener_peers.h"
#include "relay_ends.h"

namespace allocations
{

// Waits for what other threads do. In a run in which an allocation has failed it may not come.
template <class Condition> bool comes_about(Condition condition)
{
    for (int round = 0; round < (failed() ? 60 : 40000); round++) {
        if (condition())
            return true;
        peers::sleep_us(500);
    }
    EXPECT_TRUE(failed());
    return false;
}

// A connection to a port, as soon as it is open; none when it does not open.
inline relay::stream connect_to_opening(unsigned int port)
{
    const sockaddr_in address = relay::loopback(port);
    relay::stream client;
    comes_about([&] {
        client = relay::stream(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connect(client.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return true;
        client.end();
        return false;
    });
    return client;
}

inline bool has_input(const relay::stream &client)
{
    pollfd input = {client.fd(), POLLIN, 0};
    return poll(&input, 1, 0) > 0;
}

// All that a connection brought, once the other side has ended it.
inline std::string what_came(const relay::stream &client)
{
    const unarmed own;
    return client.is_open() ? client.read(10000) : "";
}

} // namespace allocations

#endif
