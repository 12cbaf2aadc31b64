// Remote GUI relay. A session keeps its connections in a list and by their ID. A connection's receive thread
// forwards what its socket receives; what comes for it from the other end is written by the thread that
// brings it.
//
// The session's lock guards the list, every reference count and the life of the threads: a thread is
// signalled under the lock, and leaves under it. Callbacks and writes run without it. A connection's socket
// is open as long as the connection is in the list.
//
// Stopping takes the session out of the list of live sessions, so that no call finds it any more, and waits
// until the threads and the calls inside have left (`busy`). They are woken by a signal that is repeated,
// since one that comes just before a call blocks is lost, and by shutting their sockets down. The reference
// that stopping gives back is thus the last, unless some are kept for good. A callback may not return, for
// instance since it waits for the thread that stops: after a while the session is left to the last one
// inside.

#include "remote_gui.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <qvlib/log.h>
#include <qvlib/reference.h>
#include <qvlib/socket.h>

#include "guard.h"
#include "threads.h"

static_assert(offsetof(rgui_pdu, opcode) == 0);
static_assert(offsetof(rgui_pdu, reserved) == 1);
static_assert(offsetof(rgui_pdu, id) == 2);
static_assert(offsetof(rgui_pdu, size) == 4);
static_assert(offsetof(rgui_pdu, payload) == 8);
static_assert(sizeof(rgui_pdu) == 8);

#define SOFT_ASSERT(condition, text) soft_assert((condition), (text), __LINE__)

namespace
{

constexpr size_t pdu_header_size = sizeof(rgui_pdu);
constexpr uint32_t smallest_payload = 64;
constexpr uint32_t largest_payload = 65536;
constexpr size_t dumped_payload = 64;
constexpr size_t dump_width = 16;
constexpr size_t id_slots = 256; // of the connections by ID, which count up
constexpr int connect_slice_ms = 10;
constexpr int rounds_per_signal = 25; // of stopping, 200 microseconds each
constexpr int most_rounds = 4000;
// What the relay's threads get: the signal that wakes them and those of faults.
constexpr int relay_signals[] = {SIGUSR1, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGPROF};

enum session_mode { mode_local = 1, mode_remote = 2 };

enum thread_state {
    thread_none,    // not yet started
    thread_running, // may be signalled
    thread_failed,  // could not be started: nobody holds the connection's first reference
    thread_ended
};

} // namespace

struct rgui_conn {
    uint32_t refs; // beyond the first
    uint16_t id;
    int socket;
    pthread_t thread; // while it is running
    thread_state state;
    std::atomic<bool> stop;
    bool notify;
    rgui_session *session;
    rgui_conn *next, *prev;
    rgui_conn *next_in_slot;
};

struct rgui_session {
    session_mode mode;
    uint32_t refs;         // beyond the first
    rgui_conn connections; // list head
    rgui_conn *by_id[id_slots];
    pthread_mutex_t lock;
    std::atomic<bool> ready; // lock and list are initialised
    char *service, *node;
    rgui_send_fn send;
    void *cookie;
    pthread_t listener;
    bool listener_running;
    int listen_socket; // -1 for none
    std::atomic<bool> stop;
    std::atomic<unsigned int> busy; // threads, calls of rgui_data_rx, and 1 until the stop is through
    rgui_session *next_live;
};

namespace
{

// ---- Live sessions

constinit pthread_mutex_t live_lock = PTHREAD_MUTEX_INITIALIZER;
constinit rgui_session *live_sessions = nullptr;

rgui_session **find_live(const rgui_session *session)
{
    rgui_session **link = &live_sessions;
    while (*link && *link != session)
        link = &(*link)->next_live;
    return link;
}

void add_live(rgui_session *session)
{
    const qv::mutex_guard lock(live_lock);
    session->next_live = live_sessions;
    live_sessions = session;
}

bool remove_live(const rgui_session *session)
{
    const qv::mutex_guard lock(live_lock);
    rgui_session **link = find_live(session);
    if (!*link)
        return false;
    *link = (*link)->next_live;
    return true;
}

void leave(rgui_session *session);

// Keeps a session from being released while a call is inside.
class session_call
{
  public:
    explicit session_call(rgui_session *session)
    {
        const qv::mutex_guard lock(live_lock);
        session_ = *find_live(session);
        if (session_)
            session_->busy++;
    }
    ~session_call()
    {
        if (session_)
            leave(session_);
    }
    session_call(const session_call &) = delete;
    session_call &operator=(const session_call &) = delete;

    bool is_live() const
    {
        return session_ != nullptr;
    }

  private:
    rgui_session *session_;
};

// ---- Helpers

bool soft_assert(bool condition, const char *text, size_t line)
{
    if (!condition)
        __qv_log(QV_LOG_ERROR, "assert %s %s:%zu", text, __FILE__, line);
    return condition;
}

void pause_for_round()
{
    qv::pause_shortly(200);
}

addrinfo stream_hints(int flags)
{
    addrinfo hints = {};
    hints.ai_flags = flags;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    return hints;
}

void set_nodelay(int fd)
{
    const int on = 1;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
        qv_errno("RGUI: setsockopt: TCP_NODELAY");
}

// Hands a PDU without payload to the callback; false when it could not be made.
bool send_notice(const rgui_session *session, uint8_t opcode, uint16_t id)
{
    rgui_pdu *pdu = create_pdu(nullptr, opcode, 0);
    if (!pdu)
        return false;
    pdu->id = id;
    session->send(pdu, pdu_header_size, session->cookie);
    return true;
}

// ---- Connections. With the lock held:

rgui_conn *find_connection(const rgui_session *session, uint16_t id)
{
    rgui_conn *conn = session->by_id[id % id_slots];
    while (conn && conn->id != id)
        conn = conn->next_in_slot;
    return conn;
}

void link_connection(rgui_session *session, rgui_conn *conn)
{
    conn->session = session;
    conn->next = &session->connections;
    conn->prev = session->connections.prev;
    conn->prev->next = conn->next->prev = conn;
    rgui_conn **slot = &session->by_id[conn->id % id_slots];
    conn->next_in_slot = *slot;
    *slot = conn;
    session->refs++;
}

void unlink_connection(rgui_session *session, rgui_conn *conn)
{
    conn->prev->next = conn->next;
    conn->next->prev = conn->prev;
    rgui_conn **link = &session->by_id[conn->id % id_slots];
    while (*link != conn)
        link = &(*link)->next_in_slot;
    *link = conn->next_in_slot;
}

// Gives back references to the connection and as many to the session, which are not the session's last:
// stopping waits for whoever releases a connection.
void drop_connection(rgui_conn *conn, uint32_t references = 1)
{
    rgui_session *session = conn->session;
    if (conn->refs >= references) {
        conn->refs -= references;
    } else {
        unlink_connection(session, conn);
        if (conn->socket > 0)
            close(conn->socket);
        free(conn);
    }
    session->refs -= references;
}

void wake_thread(pthread_t thread)
{
    if (!qv::usr1_ends_process())
        pthread_kill(thread, SIGUSR1);
}

// Ends the connection's receive thread. `how` is SHUT_RD to have a write in progress completed, SHUT_RDWR to
// end that too. Returns how many references are left without an owner by that, for the caller to drop.
uint32_t stop_connection(rgui_conn *conn, int how)
{
    conn->stop = true;
    shutdown(conn->socket, how);
    if (conn->state == thread_running)
        wake_thread(conn->thread);
    if (conn->state != thread_failed)
        return 0; // the thread drops its reference
    conn->state = thread_ended;
    return 1;
}

// ---- Without the lock:

// The connection of an ID with a reference to it and to the session, or null.
rgui_conn *acquire_connection(rgui_session *session, uint16_t id)
{
    if (!session->ready)
        return nullptr;
    const qv::mutex_guard lock(session->lock);
    rgui_conn *conn = find_connection(session, id);
    if (conn) {
        conn->refs++;
        session->refs++;
    }
    return conn;
}

void release_connection(rgui_conn *conn)
{
    const qv::mutex_guard lock(conn->session->lock);
    drop_connection(conn);
}

// Stops a connection of which a reference is held, and gives that back; no CLOSE goes to the other end.
void close_connection(rgui_conn *conn)
{
    const qv::mutex_guard lock(conn->session->lock);
    conn->notify = false;
    const uint32_t ownerless = stop_connection(conn, SHUT_RD);
    drop_connection(conn, 1 + ownerless);
}

void stop_connections(rgui_session *session)
{
    const qv::mutex_guard lock(session->lock);
    for (rgui_conn *conn = session->connections.next; conn != &session->connections;) {
        rgui_conn *following = conn->next;
        if (const uint32_t ownerless = stop_connection(conn, SHUT_RDWR))
            drop_connection(conn, ownerless);
        conn = following;
    }
}

// ---- Receiving

uint32_t next_capacity(uint32_t received)
{
    return std::clamp(2 * received, smallest_payload, largest_payload);
}

enum class stream_end {
    closed,    // ended, failed or was stopped: the other end is told
    abandoned, // the other end can't be told
};

// Hands what the connection receives to the callback until its stream ends.
stream_end forward_stream(const rgui_conn *conn)
{
    const rgui_session *session = conn->session;
    uint32_t capacity = largest_payload;
    int error = 0;
    while (!conn->stop) {
        rgui_pdu *pdu = create_pdu(conn, RGUI_DATA, capacity);
        if (!pdu) {
            qv_errno("%s", "rgui_recv_data");
            return stream_end::abandoned;
        }
        const ssize_t first = recv(conn->socket, pdu->payload, 1, MSG_WAITALL);
        if (first < 1) {
            error = first < 0 ? errno : 0;
            free(pdu);
            break;
        }
        // What is left unread at a stop resets a peer that still sends, which might wait a minute otherwise.
        const ssize_t rest =
            conn->stop ? 0 : recv(conn->socket, pdu->payload + 1, capacity - 1, MSG_DONTWAIT);
        if (rest < 0 && errno != EAGAIN) {
            error = errno; // the PDU is not released, as docs/behaviours.md says
            break;
        }
        const uint32_t received = 1 + static_cast<uint32_t>(std::max<ssize_t>(rest, 0));
        pdu->size = received;
        capacity = next_capacity(received);
        if (session->send(pdu, pdu_header_size + received, session->cookie) < 0)
            return stream_end::abandoned;
    }
    if (error != 0 && error != ECONNRESET && !conn->stop) {
        errno = error;
        qv_errno("read()");
    }
    return stream_end::closed;
}

void begin_receiving(rgui_conn *conn)
{
    const qv::mutex_guard lock(conn->session->lock);
    conn->thread = pthread_self();
    conn->state = thread_running;
}

bool wants_notice(rgui_conn *conn)
{
    const qv::mutex_guard lock(conn->session->lock);
    return conn->notify;
}

void end_receiving(rgui_conn *conn)
{
    rgui_session *session = conn->session;
    {
        const qv::mutex_guard lock(session->lock);
        conn->state = thread_ended;
        drop_connection(conn);
    }
    leave(session);
}

void *rgui_recv_data(void *argument)
{
    auto *conn = static_cast<rgui_conn *>(argument);
    qvthread_setname("rgui-recv");
    begin_receiving(conn);
    if (forward_stream(conn) == stream_end::closed && wants_notice(conn))
        send_notice(conn->session, RGUI_CLOSE, conn->id);
    end_receiving(conn);
    return nullptr;
}

// Starts a connection's receive thread, to which the first reference then belongs. Returns pthread_create's
// error.
int start_receiving(rgui_conn *conn)
{
    rgui_session *session = conn->session;
    session->busy++;
    pthread_t thread; // the record may be gone when this is set
    const int error = qv::start_thread(&thread, true, rgui_recv_data, conn, relay_signals);
    if (error != 0)
        session->busy--;
    return error;
}

// ---- The local end's listener

// The ID for a new client, counted up from `next_id` over those in use; false when there is none.
bool choose_id(const rgui_session *session, uint16_t &next_id)
{
    for (uint32_t tried = 0; tried <= UINT16_MAX; tried++, next_id++) {
        if (!find_connection(session, next_id))
            return true;
    }
    return false;
}

bool add_client(rgui_session *session, rgui_conn *conn, uint16_t &next_id)
{
    const qv::mutex_guard lock(session->lock);
    if (!choose_id(session, next_id))
        return false;
    conn->id = next_id++;
    conn->notify = true;
    link_connection(session, conn);
    return true;
}

// The connection stays without a thread, until it is stopped.
void leave_without_thread(rgui_conn *conn)
{
    const qv::mutex_guard lock(conn->session->lock);
    conn->state = thread_failed;
    if (const uint32_t ownerless = conn->stop ? stop_connection(conn, SHUT_RD) : 0)
        drop_connection(conn, ownerless);
}

enum class client_step { taken, failed, unannounced };

client_step take_client(rgui_session *session, uint16_t &next_id)
{
    qv::fd_guard fd(accept(session->listen_socket, nullptr, nullptr));
    if (fd.get() < 0)
        return client_step::failed;
    auto *conn = static_cast<rgui_conn *>(calloc(1, sizeof(rgui_conn)));
    if (!conn) {
        qv_errno("%s", "listener_thread");
        return client_step::failed;
    }
    set_nodelay(fd.get());
    conn->socket = fd.get();
    if (!add_client(session, conn, next_id)) {
        free(conn);
        return client_step::taken; // there is no ID left: the client is refused
    }
    fd.release();
    if (!send_notice(session, RGUI_OPEN, conn->id)) {
        leave_without_thread(conn);
        return client_step::unannounced;
    }
    // A failure is not noticed here, on purpose: only the session's stop or a CLOSE ends such a connection.
    if (start_receiving(conn) != 0)
        leave_without_thread(conn);
    return client_step::taken;
}

void open_listener(rgui_session *session)
{
    const addrinfo hints = stream_hints(AI_PASSIVE);
    const int fd = qvsock_listen(&hints, session->node, session->service, 0, 0, 0);
    const qv::mutex_guard lock(session->lock);
    session->listen_socket = fd;
}

void close_listener(rgui_session *session)
{
    const qv::mutex_guard lock(session->lock);
    if (session->listen_socket >= 0)
        close(session->listen_socket);
    session->listen_socket = -1;
}

// Whether the last accept was ended by stopping: by the signal, or by the shutdown that follows signals in
// vain.
bool was_woken_to_stop(const rgui_session *session)
{
    return session->stop && (errno == EINTR || errno == EINVAL);
}

void serve_clients(rgui_session *session)
{
    open_listener(session);
    if (session->listen_socket < 0)
        return;
    uint16_t next_id = 1;
    client_step step = client_step::taken;
    while (step == client_step::taken && !session->stop)
        step = take_client(session, next_id);
    if (step == client_step::unannounced)
        return; // without any clean-up, which is left to the stop
    if (step == client_step::failed && !was_woken_to_stop(session))
        qv_errno("%s: accept", "listener_thread");
    stop_connections(session);
    close_listener(session);
}

void init_connections(rgui_session *session)
{
    pthread_mutex_init(&session->lock, nullptr);
    session->connections.next = session->connections.prev = &session->connections;
    session->listen_socket = -1;
    session->listener_running = session->mode == mode_local;
    session->ready = true;
}

void *listener_thread(void *argument)
{
    auto *session = static_cast<rgui_session *>(argument);
    qvthread_setname("rgui-listen");
    init_connections(session);
    serve_clients(session);
    {
        const qv::mutex_guard lock(session->lock);
        session->listener_running = false;
    }
    leave(session);
    return nullptr;
}

// ---- The remote end's connections

// Waits for a connection in progress; stopping the session ends the wait. So does a signal: the thread may be
// another session's, which is being stopped.
bool await_connection(const rgui_session *session, int fd)
{
    pollfd writable = {fd, POLLOUT, 0};
    int ready = 0;
    while (ready == 0 && !session->stop)
        ready = poll(&writable, 1, connect_slice_ms);
    int error = 0;
    socklen_t size = sizeof error;
    return ready > 0 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

bool make_blocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

// Connects to the unit's own GUI server; -1 for failure.
int connect_to_server(const rgui_session *session)
{
    const addrinfo hints = stream_hints(0);
    qv::fd_guard fd(
        __qvsock_connect(&hints, "127.0.0.1", "8008", nullptr, O_NONBLOCK, 0, "RGUI: Connect", 0));
    if (fd.get() < 0 || !await_connection(session, fd.get()) || !make_blocking(fd.get()))
        return -1;
    return fd.release();
}

bool add_server_connection(rgui_session *session, rgui_conn *conn)
{
    const qv::mutex_guard lock(session->lock);
    if (find_connection(session, conn->id))
        return false; // opened meanwhile, by another thread
    conn->stop = session->stop.load();
    link_connection(session, conn);
    return true;
}

int refuse_duplicate()
{
    __qv_log(QV_LOG_ERROR, "RGUI: Open Connection: Duplicate connection ID");
    return 0;
}

int create_connection(rgui_session *session, uint16_t id)
{
    auto *conn = static_cast<rgui_conn *>(calloc(1, sizeof(rgui_conn)));
    if (!conn) {
        qv_errno("RGUI: New connection");
        return -1;
    }
    qv::fd_guard fd(connect_to_server(session));
    if (fd.get() < 0) {
        free(conn);
        return -1;
    }
    set_nodelay(fd.get());
    conn->socket = fd.get();
    conn->notify = true;
    conn->id = id;
    if (!add_server_connection(session, conn)) {
        free(conn);
        return refuse_duplicate();
    }
    fd.release();
    const int error = start_receiving(conn);
    if (error != 0) {
        errno = error;
        qv_errno("%s: create pthread", "create_connection");
        release_connection(conn);
        return -1;
    }
    return 0;
}

// ---- PDUs from the other end

// The header of a PDU of `length` bytes; what it lacks is 0.
rgui_pdu read_header(const rgui_pdu *pdu, size_t length)
{
    rgui_pdu header = {};
    memcpy(&header, pdu, std::min(length, pdu_header_size));
    return header;
}

const uint8_t *payload_of(const rgui_pdu *pdu)
{
    return reinterpret_cast<const uint8_t *>(pdu) + pdu_header_size;
}

int take_open(rgui_session *session, uint16_t id)
{
    rgui_conn *conn = acquire_connection(session, id);
    if (session->mode == mode_local) {
        if (SOFT_ASSERT(conn != nullptr, "conn != ((void *)0)"))
            close_connection(conn);
        return 0;
    }
    if (conn)
        return refuse_duplicate(); // the references are kept, as the header says
    if (create_connection(session, id) == 0)
        return 0;
    send_notice(session, RGUI_CLOSE, id);
    return -1;
}

// Writes all bytes. After a failure the connection lacks some and is ended: nobody takes the rest for the
// whole.
void write_whole(int fd, const uint8_t *bytes, size_t size)
{
    while (size > 0) {
        const ssize_t written = send(fd, bytes, size, MSG_NOSIGNAL);
        if (written < 0) {
            shutdown(fd, SHUT_RDWR);
            return;
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
}

int send_data(rgui_session *session, uint16_t id, const uint8_t *bytes, size_t size)
{
    rgui_conn *conn = acquire_connection(session, id);
    if (!conn)
        return -1;
    write_whole(conn->socket, bytes, size);
    release_connection(conn);
    return 0;
}

int take_close(rgui_session *session, uint16_t id)
{
    if (rgui_conn *conn = acquire_connection(session, id))
        close_connection(conn);
    return 0;
}

// ---- Start and stop

rgui_session *create_session(session_mode mode, rgui_send_fn send, void *cookie)
{
    auto *session = send ? static_cast<rgui_session *>(calloc(1, sizeof(rgui_session))) : nullptr;
    if (session) {
        session->busy = 1;
        session->mode = mode;
        session->send = send;
        session->cookie = cookie;
    }
    return session;
}

void free_session(rgui_session *session)
{
    const qv::errno_guard unchanged;
    free(session->node);
    free(session->service);
    free(session);
}

// Copies a text that may be NULL; false without memory.
bool copy_text(char *&copy, const char *text)
{
    copy = text ? strdup(text) : nullptr;
    return copy || !text;
}

void wake_listener(rgui_session *session, int round)
{
    const qv::mutex_guard lock(session->lock);
    if (!session->listener_running)
        return;
    const bool signals_in_vain = round >= qv::signals_before_shutdown || qv::usr1_ends_process();
    if (signals_in_vain)
        shutdown(session->listen_socket, SHUT_RDWR);
    if (!signals_in_vain || round % rounds_per_signal == 0)
        wake_thread(session->listener);
}

// Ends the session's threads and the calls inside, but waits about a second at most.
void end_threads(rgui_session *session)
{
    while (!session->ready)
        pause_for_round();
    for (int round = 0; session->busy > 1 && round < most_rounds; round++) {
        wake_listener(session, round);
        if (round % rounds_per_signal == 0)
            stop_connections(session);
        pause_for_round();
    }
}

// Of those that `busy` counts the last one releases the session, unless references are kept for good.
void leave(rgui_session *session)
{
    if (--session->busy != 0)
        return;
    stop_connections(session);
    close_listener(session);
    if (session->refs > 0)
        return;
    pthread_mutex_destroy(&session->lock);
    free_session(session);
}

void stop_session(rgui_session *session)
{
    if (!SOFT_ASSERT(session != nullptr, "session != ((void *)0)") || !remove_live(session))
        return;
    session->stop = true;
    end_threads(session);
    if (session->mode == mode_local && session->busy == 1)
        pthread_join(session->listener, nullptr);
    else if (session->mode == mode_local)
        pthread_detach(session->listener);
    leave(session);
}

} // namespace

rgui_pdu *create_pdu(const rgui_conn *conn, uint8_t opcode, uint32_t capacity)
{
    auto *pdu = static_cast<rgui_pdu *>(calloc(1, capacity + pdu_header_size));
    if (!pdu)
        return nullptr;
    pdu->opcode = opcode;
    pdu->size = capacity;
    if (conn)
        pdu->id = conn->id;
    return pdu;
}

void rgui_dump_pdu(int level, const char *name, const rgui_pdu *pdu, size_t length)
{
    if (level == QV_LOG_HEX_SILENT)
        return;
    const rgui_pdu header = read_header(pdu, length);
    const size_t available = std::max(length, pdu_header_size) - pdu_header_size;
    __qv_log(level, "Remote GUI PDU Dump: '%s'", name);
    __qv_log(level, "\tOpcode:\t%#.8x", static_cast<unsigned int>(header.opcode));
    __qv_log(level, "\tSize:\t%u", static_cast<unsigned int>(header.size));
    __qv_log(level, "\tID:\t%u", static_cast<unsigned int>(header.id));
    __qv_loghex_line(level, payload_of(pdu), std::min({available, size_t{header.size}, dumped_payload}),
                     dump_width, 0);
}

rgui_session *rgui_start_local(const char *node, const char *service, void *, rgui_send_fn send, void *cookie)
{
    rgui_session *session = create_session(mode_local, send, cookie);
    if (!session)
        return nullptr;
    if (!copy_text(session->node, node) || !copy_text(session->service, service)) {
        free_session(session);
        return nullptr;
    }
    session->busy++; // the listener
    const int error = qv::start_thread(&session->listener, false, listener_thread, session, relay_signals);
    if (error != 0) {
        errno = error;
        qv_errno("%s: create pthread", "rgui_start_local");
        free_session(session);
        return nullptr;
    }
    add_live(session);
    return session;
}

rgui_session *rgui_start_remote(rgui_send_fn send, void *cookie)
{
    rgui_session *session = create_session(mode_remote, send, cookie);
    if (!session)
        return nullptr;
    init_connections(session);
    add_live(session);
    return session;
}

int rgui_data_rx(rgui_session *session, const rgui_pdu *data, size_t length)
{
    (void)SOFT_ASSERT(session != nullptr, "session != ((void *)0)"); // its PDU is looked at nevertheless
    if (!SOFT_ASSERT(data != nullptr, "data != ((void *)0)"))
        return -1;
    const rgui_pdu header = read_header(data, length);
    if (length < pdu_header_size || header.size != length - pdu_header_size) {
        __qv_log(QV_LOG_ERROR, "RGUI: Invalid PDU length or partial buffer");
        rgui_dump_pdu(QV_LOG_ERROR, "rgui_data_rx", data, length);
        return -1;
    }
    const session_call call(session);
    if (!call.is_live())
        return -1;
    switch (header.opcode) {
    case RGUI_DATA:
        return send_data(session, header.id, payload_of(data), header.size);
    case RGUI_OPEN:
        return take_open(session, header.id);
    case RGUI_CLOSE:
        return take_close(session, header.id);
    default:
        __qv_log(QV_LOG_ERROR, "RGUI: Unknown or Illegal Opcode %#.2x",
                 static_cast<unsigned int>(header.opcode));
        return take_close(session, header.id);
    }
}

void rgui_stop_local(rgui_session *session)
{
    stop_session(session);
}

void rgui_stop_remote(rgui_session *session)
{
    stop_session(session);
}
