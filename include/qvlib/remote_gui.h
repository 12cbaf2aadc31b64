/*
 * Remote GUI relay: carries the TCP connections of a graphical management client to the GUI server of another
 * unit, over a message channel between the two units that the daemons own.
 *
 *   client --TCP--> local end ==PDUs, the daemons' channel==> remote end --TCP--> 127.0.0.1:8008
 *
 * The local end listens; each client that it accepts becomes a numbered connection (1, 2, 3 ...), announced
 * to the other end by OPEN. The remote end answers OPEN by connecting to the GUI server of its own unit. From
 * then on both ends hand what they receive to the channel as DATA, and CLOSE when their side of it has ended.
 * The relay never touches the channel: every PDU that is to leave is handed to the send callback, and the
 * daemon hands every PDU that arrives to rgui_data_rx.
 *
 * A PDU is handed over with its total length, size + 8. Its numbers are in the host's byte order: a channel
 * between units of different byte order converts id and size.
 *
 * There is no flow control but that of TCP: rgui_data_rx waits until a connection has taken its bytes, so a
 * client that reads slowly slows the thread that serves the channel. What one connection sends is carried in
 * order if the daemon keeps the order in which the callback is called, and in which PDUs of one connection
 * are handed to rgui_data_rx.
 *
 * A connection has no half-closed state: when one side ends its stream, it is closed in both directions,
 * after what the relay had received before was delivered.
 *
 * session  the end; after its stop it may still be handed over, to no effect
 * send     takes each PDU that is to leave
 * cookie   handed to send as it is
 *
 * Errors: failures are logged at level 3, with the texts below. Nothing is retried. errno is not set on
 * purpose.
 * Threads: of the local end "rgui-listen", at both ends one "rgui-recv" per connection. They take no signal
 * but SIGUSR1 and those of faults (SIGSEGV and the like). The callback runs on these threads and on those
 * that call rgui_data_rx, on several at once. The relay wakes its threads with SIGUSR1 and installs no
 * handler: the host has one that does nothing, installed without SA_RESTART. Where the signal is ignored, or
 * would end the process (it is not sent then), stopping wakes them by shutting their sockets down, which is
 * as good for all but a callback that blocks.
 * Ownership: a session is released by its stop function.
 */
#ifndef QVLIB_REMOTE_GUI_H
#define QVLIB_REMOTE_GUI_H

#include <stddef.h>
#include <stdint.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* Opcodes of PDUs. */
enum {
    RGUI_DATA = 1, /* bytes of a connection */
    RGUI_OPEN = 2, /* to the remote end: a new connection; no payload */
    RGUI_CLOSE = 3 /* a connection has ended; no payload */
};

/* A local or a remote end. */
typedef struct rgui_session rgui_session;

/* A PDU: 8 bytes and the payload. */
typedef struct {
    uint8_t opcode;                 /* RGUI_* */
    uint8_t reserved;               /* 0 */
    uint16_t id;                    /* the connection */
    uint32_t size;                  /* bytes of payload */
    QV_EXTENSION uint8_t payload[]; /* bytes of the connection */
} rgui_pdu;

/*
 * Sends a PDU to the other end.
 *
 * pdu     the callback's own from now on: it releases it with free(), also when it fails
 * length  size + 8
 * cookie  as given to the start function
 *
 * Returns a negative number for failure: at DATA the connection then ends, without a CLOSE; at OPEN and CLOSE
 * it makes no difference.
 *
 * May block; a connection is not read meanwhile, which is what slows a fast client down. While its session is
 * stopped, or when a CLOSE comes for its connection, SIGUSR1 may interrupt what it waits for: it repeats the
 * call, or gives up where it would be in the way of the stop.
 */
typedef int (*rgui_send_fn)(rgui_pdu *pdu, size_t length, void *cookie);

/*
 * Starts a local end: listens for clients, over IPv4.
 *
 * node     address to listen on; NULL for all. Copied
 * service  port, as text. Copied
 * ignored  anything
 *
 * Returns the session, or NULL: for a NULL send, without memory, or when no thread can be had, which is
 * logged as "rgui_start_local: create pthread".
 *
 * The listener opens the port after this has returned. When it can't, qvsock_listen logs why, and the session
 * stays without clients. It ends at the first failure of accept, "listener_thread: accept", and stops all
 * connections; when memory for a connection is short ("listener_thread") too. When memory for an OPEN is
 * short it ends and leaves the connections to go on. "RGUI: setsockopt: TCP_NODELAY" is logged and ignored. A
 * client for which no thread can be had is not noticed: the other end opens its connection, what the server
 * says reaches the client, and what the client says is not read. IDs begin again after 65535; those in use
 * are passed over.
 */
rgui_session *rgui_start_local(const char *node, const char *service, void *ignored, rgui_send_fn send,
                               void *cookie);

/*
 * Starts a remote end, which opens a connection to TCP port 8008 of 127.0.0.1 for each that the other end
 * announces. No thread is started.
 *
 * Returns the session, or NULL for a NULL send or without memory.
 */
rgui_session *rgui_start_remote(rgui_send_fn send, void *cookie);

/*
 * Takes a PDU from the other end.
 *
 * session  a session of this process; after its stop: -1
 * pdu      may stand at any address; not kept
 * length   bytes at pdu, exactly size + 8
 *
 * By opcode:
 *
 *   DATA   writes the payload to the connection. Waits until all is written or the write fails, which ends the
 *          connection; so does a signal that interrupts it: block signals in the threads that call this, or
 *          have handlers with SA_RESTART. Raises no SIGPIPE. Returns 0, also when the write failed, or -1 for
 *          an unknown connection.
 *   OPEN   at the remote end: connects to the server, and waits for that; a signal that is handled meanwhile
 *          ends the wait. Returns 0, or -1 when there is no connection ("RGUI: New connection" without memory,
 *          "RGUI: Connect: socket" and the like of qvsock_connect, which does not log a refused one,
 *          "create_connection: create pthread"); a CLOSE for the ID is then handed to the callback. For an ID
 *          that is known already it logs "RGUI: Open Connection: Duplicate connection ID" and returns 0; the
 *          session, and that connection with its socket, are then never released.
 *          At the local end, where none is expected: closes the connection as CLOSE does and returns 0; an
 *          unknown one is logged as "assert conn != ((void *)0) FILE:LINE".
 *   CLOSE  closes the connection, if there is one, without a CLOSE in answer. Returns 0.
 *   any other  logs "RGUI: Unknown or Illegal Opcode 0x07", then as CLOSE.
 *
 * A PDU whose size is not length - 8, one shorter than its header included, is logged as "RGUI: Invalid PDU
 * length or partial buffer", dumped at level 3, and refused with -1. A NULL session or pdu is logged as
 * "assert session != ((void *)0) FILE:LINE" or "assert data != ((void *)0) FILE:LINE", and refused with -1;
 * the length of a PDU without a session is looked at all the same.
 *
 * Returns 0, or -1 as said.
 * Cost: linear in the payload, which is not copied; finding the connection takes the same time among 1 and
 * 256.
 * Threads: any, several at once; PDUs of one connection from one thread, so that their order is kept.
 */
int rgui_data_rx(rgui_session *session, const rgui_pdu *pdu, size_t length);

/*
 * Stops a session: ends the listener and every connection, each of which hands a CLOSE to the callback first,
 * and releases the session. It waits for the session's threads and for calls of rgui_data_rx in progress,
 * whose waits it ends; that takes as long as the callback takes. When it has returned, no callback runs any
 * more, unless one has not returned for a second, since it waits for the thread that stops, or is that
 * thread: then the session is released when the last one returns, and until then the cookie has to stay.
 * Stopping a session that is stopped does nothing; NULL is logged as "assert session != ((void *)0)
 * FILE:LINE".
 *
 * Threads: any.
 */
void rgui_stop_local(rgui_session *session);
void rgui_stop_remote(rgui_session *session);

QV_END_DECLS

#endif
