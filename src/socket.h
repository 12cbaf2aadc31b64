// Steps of the socket helpers that are not exported.
#pragma once

#include <netdb.h>

extern "C" {

// Adds file status flags to a descriptor's own; 0 does nothing. Returns 0, or -1 with errno of fcntl.
int addfl(int fd, long flags);

// Opens a bound socket on one candidate address; a stream socket listens. Returns it, or -1 with errno of the
// failing call.
int __qvsock_listen(const addrinfo *ai, int broadcast, long flags, int bufsize);
}
