/*
 * Corelink messages between the daemons of one host, as UDP datagrams over 127.0.0.1.
 *
 * A message is cut into fragments of at most 4096 bytes. Each is one datagram: a 48-byte header, then the
 * bytes. All fragments of a message carry the same header but for the fragment's number and length, and the
 * last one carries the last-fragment flag. Numbers in the header are in the host's byte order. type, param1,
 * name and param2 belong to the daemons: they are carried and not looked at.
 *
 * What can be lost: every send succeeds as soon as the kernel has taken the datagram, and a datagram that
 * finds the receiver's buffer full is dropped without a word. The default receive buffer
 * (net.core.rmem_default, 212992 bytes) holds 25 full fragments, about 100 KB; corelink_setup_socket asks for
 * 4 MiB, which hold about 990, close to 4 MB, unless the kernel caps it at net.core.rmem_max. So keep unread
 * no more than that: answer a message before the next one is sent, or raise net.core.rmem_max. A lost
 * fragment is not noticed either: the message comes out shorter, and when the last fragment is the one that
 * is lost, the next message is joined to it, under the first one's header. Where that matters, carry the
 * body's length in param1 or param2 and compare.
 *
 * fd      an IPv4 UDP socket
 * port    destination port, host order
 * data    the body; may be NULL when length is 0
 * length  bytes in data
 *
 * Errors: -1 with errno of the failing system call or as each function says; nothing is logged.
 *
 * Ownership: nothing is kept of a message that is sent; one that is received is the caller's.
 * Threads: no lock. Several threads may send through one socket, but fragments of messages sent to one port
 * at the same time interleave and cannot be told apart: one reader and one sender at a time per receiving
 * socket.
 */
#ifndef QVLIB_TRANSPORT_H
#define QVLIB_TRANSPORT_H

#include <netinet/in.h>
#include <stdint.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

struct sockaddr_in; /* <netinet/in.h> */

/* The header of a datagram: 48 bytes. */
typedef struct {
    uint32_t type_flags;   /* type in the most significant byte, last-fragment flag in bit 0, else 0 */
    uint32_t param1;       /* the daemons' */
    char name[32];         /* NUL-padded; not terminated when it has 32 characters */
    uint32_t param2;       /* the daemons' */
    uint16_t fragment;     /* counts up from 0, modulo 65536; set by the sending functions */
    uint16_t fragment_len; /* bytes that follow in this datagram, 0 to 4096; set by the sending functions */
} corelink_msghdr;

/* A message that was received. */
typedef struct {
    void *data;      /* the header of the first fragment, 48 bytes, then the message's body */
    uint32_t length; /* bytes in data, header included */
} corelink_msgbuf;

/*
 * Opens a UDP socket on 127.0.0.1 for receiving; it may send too.
 *
 * service  port number in text; NULL for a free one
 *
 * Returns the socket, or -1: qvsock_listen's failures, logged as it says (this one function does log).
 * A port that another such socket has is not refused: SO_REUSEADDR lets both have it, and the newer one gets
 * the messages.
 * Ownership: the descriptor is the caller's to close.
 */
int corelink_setup_socket(const char *service);

/*
 * Sends one message to a port of 127.0.0.1. A message of length 0 is one datagram, the header alone.
 *
 * header  left as it is; its last-fragment flag, fragment and fragment_len do not count
 *
 * Returns 0 when the kernel has taken all fragments, or -1 with errno of the first sendmsg that failed; what
 * was sent before stays sent, and its receiver will join it with what arrives next. EINVAL for a NULL header,
 * EFAULT for a NULL body. No signal is raised, whatever the socket.
 * Ownership: nothing is kept. The body is not copied.
 */
int corelink_sendmsg(int fd, uint16_t port, const corelink_msghdr *header, const void *data, uint32_t length);

/*
 * As corelink_sendmsg, with the header's fields as arguments.
 *
 * type            its low 8 bits count
 * param1, param2  the daemons'
 * name            its first 32 characters are sent; NULL is sent as an empty one
 *
 * Returns 0, or -1 as corelink_sendmsg.
 */
int corelink_sendmsg_parts(int fd, uint16_t port, unsigned int type, uint32_t param1, const char *name,
                           uint32_t param2, const void *data, uint32_t length);

/*
 * Receives one whole message; blocks until its last fragment has come.
 *
 * fd      a socket of corelink_setup_socket
 * source  zeroed, then set to the sender of the last fragment; may be NULL
 * result  set on success
 *
 * Fragments are joined in arrival order, whoever sent them: neither number, type, name nor sender is
 * compared. Nothing that arrives does harm: what a datagram lacks of its 48 bytes of header, or of the length
 * that its header claims, is taken as zero bytes, and what it has beyond that length is dropped. A claimed
 * length may be up to 65535.
 *
 * Returns 0, or -1, *result untouched and what was collected discarded: errno of recv, recvmsg or the
 * allocator; EAGAIN on a non-blocking socket also in the middle of a message; EMSGSIZE for a message of 4 GiB
 * or more; ESHUTDOWN when the socket was shut down for reading; EINVAL for a NULL result.
 * Ownership: result->data is the caller's; release it with free(). The block may be up to twice as long as
 * the message: copy what is to be kept for long. When the block cannot grow, what it held is lost without
 * being freed: a daemon that runs out of memory here should restart.
 * Cost: linear in what arrives; the block doubles, so that what was collected is seldom moved.
 */
int corelink_receive_msg_block(int fd, struct sockaddr_in *source, corelink_msgbuf *result);

QV_END_DECLS

#endif
