/*
 * Socket helpers: connected and bound sockets from host and service names, peers' numeric addresses, the
 * kernel's TCP statistics, and an interface's MAC address.
 *
 * fd       a socket
 * hints    only ai_flags, ai_family, ai_socktype and ai_protocol count; copied, never changed; NULL means any
 * flags    file status flags for fcntl(F_SETFL), such as O_NONBLOCK, added to the socket's own; 0 for none
 * bufsize  socket buffer size in bytes for both directions; 0 leaves the system's default. The kernel doubles
 *          it for its own overhead, after a cut to net.core.rmem_max and wmem_max
 * caller   first field of every message that the function logs, normally the caller's function name
 * quiet    non-zero: the function logs nothing itself
 * host     receives the peer's numeric address, terminated
 * hostlen  size of host in bytes; INET6_ADDRSTRLEN and the length of an interface name is enough
 * ifname   name of a network interface
 *
 * Addresses are given in numeric form, never looked up backwards. An IPv4 client of a socket that serves both
 * families shows as "::ffff:192.0.2.1".
 *
 * Errors: failures are logged at level 3 as each function says, with the error's text and number at the end.
 * On failure errno is that of the failing call, and unspecified after a resolver's error (getaddrinfo,
 * getnameinfo). Names and labels that are NULL are logged as "(null)".
 *
 * Ownership: descriptors are the caller's to close. Sockets are made without close-on-exec; a daemon that
 * starts programs sets FD_CLOEXEC itself.
 *
 * Threads: no state; every function may be called from any thread.
 */
#ifndef QVLIB_SOCKET_H
#define QVLIB_SOCKET_H

#include <netdb.h>
#include <stddef.h>
#include <stdint.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

struct addrinfo; /* <netdb.h> */
struct tcp_info; /* <netinet/tcp.h> */

/*
 * Opens a TCP connection to the first address that node and service resolve to; further addresses are not
 * tried. qvsock_connect fills in the calling function's name as caller.
 *
 * hints    see above; ai_socktype is taken as SOCK_STREAM
 * node     host name or address; NULL for this host
 * service  service name or port number
 * iface    interface to bind to; NULL for any. A failure to bind is logged and the connection goes ahead
 *          unbound
 * flags    see above; with O_NONBLOCK a connection in progress counts as success: wait until it is writable
 *
 * Returns the connected socket, or -1. Logged, unless quiet: "CALLER: getaddrinfo: NODE:SERVICE",
 * "CALLER: socket", "__qvsock_connect: setsockopt: bind to IFACE", "CALLER: addfl: FLAGS". A failed connect
 * is not logged, so that a peer that is not up yet can be polled for; nor is a failure to set the buffers.
 * Ownership: the resolved addresses stay allocated after a failure of socket, of the buffers and of the
 * flags, and after a failure of the buffers the socket stays open too.
 */
int __qvsock_connect(const struct addrinfo *hints, const char *node, const char *service, const char *iface,
                     long flags, int bufsize, const char *caller, int quiet);
#define qvsock_connect(hints, node, service, iface, flags, bufsize, quiet) \
    __qvsock_connect((hints), (node), (service), (iface), (flags), (bufsize), __func__, (quiet))

/*
 * Opens a socket bound to node and service; a stream socket listens, with a backlog of 10. All IPv6 addresses
 * are tried before any other, each in the resolver's order; the first that binds is taken. SO_REUSEADDR is
 * set.
 *
 * hints      see above; AI_PASSIVE is added
 * node       address to bind to; NULL for all: on a host with both families that is one IPv6 socket, which
 *            serves IPv4 clients too
 * service    service name or port number
 * broadcast  non-zero sets SO_BROADCAST on a datagram socket; without effect on others
 *
 * Returns the socket, or -1. Logged: "qvsock_listen: getaddrinfo"; when no address could be bound, once,
 * "qvsock_listen: unable to bind to port SERVICE ERROR" with the last attempt's error; and of single attempts
 * "__qvsock_listen: " with "socket" (not for EAFNOSUPPORT), "setsockopt: reuse" (which is not fatal),
 * "setsockopt SO_BROADCAST", "addfl: FLAGS" and "getnameinfo".
 * Ownership: an attempt that fails at the buffers or at SO_BROADCAST leaves its socket open.
 */
int qvsock_listen(const struct addrinfo *hints, const char *node, const char *service, int broadcast,
                  long flags, int bufsize);

/*
 * Accepts a connection. Blocks, unless the listening socket was made with O_NONBLOCK.
 *
 * fd    listening socket
 * host  see above; NULL if it is not wanted
 *
 * Returns the connection, or -1. Logged: "CALLER: accept", but not for EAGAIN; "CALLER: getnameinfo", where
 * the connection is closed, also when host is too small.
 */
int qvsock_accept(int fd, char *host, size_t hostlen, const char *caller);

/*
 * Stores the numeric address of a connected socket's peer in host.
 *
 * Returns host, or NULL: logged as "qvsock_getpeername" with the error.
 */
char *qvsock_getpeername(int fd, char *host, size_t hostlen);

/*
 * Binds a socket to a network interface (SO_BINDTODEVICE).
 *
 * ifname  see above; more than 15 characters are cut to 15, an empty name ends a binding
 *
 * Returns 0, or -1 with errno of setsockopt (ENODEV, EPERM, ...), or EINVAL for a NULL ifname. Logs nothing.
 */
int qvsock_bind_iface(int fd, const char *ifname);

/*
 * Sets a socket's send buffer, then its receive buffer.
 *
 * rcvbuf, sndbuf  size in bytes; 0 leaves that one alone
 *
 * Returns 0, or -1 with errno of setsockopt; the receive buffer is then as it was. Logs nothing.
 */
int qvsock_set_sockbuffers(int fd, int rcvbuf, int sndbuf);

/*
 * Reads the kernel's statistics of a TCP socket: the first 104 bytes of struct tcp_info.
 *
 * info  takes those bytes; the rest is left alone
 *
 * Returns 0, or -1 with errno of getsockopt, logged as "read_tcp_info: getsockopt".
 */
int read_tcp_info(int fd, struct tcp_info *info);

/*
 * Logs every field of the statistics at a level, one hexadecimal number per line, between a header and a
 * trailer line.
 *
 * level  level of each line; QV_LOG_HEX_SILENT logs nothing
 * info   the statistics; NULL logs nothing
 */
void display_tcp_info(int level, const struct tcp_info *info);

/*
 * Reads an interface's MAC address from /sys/class/net.
 *
 * mac  takes the six bytes, in the order of transmission
 *
 * Returns 0, or -1: errno of the allocator or of opening or reading the file, EINVAL for NULL and for a file
 * that does not hold six bytes, of which mac then has those that could be read. Logs nothing.
 */
int qv_getmac(const char *ifname, uint8_t mac[6]);

/*
 * Reads an interface's MAC address as a 48-bit number whose most significant byte is the address's first.
 *
 * Returns the number, or 0 with errno as qv_getmac; the loopback interface's address is 0 too.
 */
uint64_t qv_getmac64(const char *ifname);

QV_END_DECLS

#endif
