// The memory debugger's console: the checker, which looks for damaged markers and draws the table, and the
// listener, which takes clients.
//
// A pass of the checker goes over all marked blocks in list order. It lets go of the table whenever another
// thread wants it; where it goes on is kept in the session, and whoever takes a block out of the table moves
// that place along. The hook is called without a lock, so that it may allocate.
//
// Stopping ends the checker, then the listener. A signal that comes just before the listener blocks is lost,
// so it is sent again until the thread has ended; where the host's handler restarts calls, or the signal
// would end the process, shutting the listening socket down ends the wait.

#include "memdebug.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <qvlib/log.h>
#include <qvlib/memcheck.h>
#include <qvlib/reference.h>
#include <qvlib/socket.h>

#include "guard.h"
#include "send_whole.h"
#include "threads.h"

using namespace qv;

namespace
{

constexpr int passes_per_table = 1000;
constexpr int table_lines = 30;
constexpr int separator_line = 33;
constexpr int blocks_per_turn = 32; // that are looked at before another thread gets the table

// ---- The checker

bool is_marker(const void *bytes)
{
    return memcmp(bytes, &marker, marker_size) == 0;
}

bool is_damaged(const alloc_record *record)
{
    return (record->flags & flag_marked) != 0 &&
           !(is_marker(record->block) && is_marker(record->post_marker));
}

// Tells of a damaged block, once. The bytes shown are the leading ones, whichever marker is damaged.
void report_damage(memdebug_session *session, alloc_record *record)
{
    const auto *bytes = static_cast<const unsigned char *>(record->block);
    const char *which = is_marker(bytes) ? "PostMarker" : "PreMarker";
    print_line(session, -2, "%s LINE:%d, Size:%zu %s:%#.2x%.2x%.2x%.2x", record->owner->name,
               static_cast<int>(record->line), record->size, which, bytes[0], bytes[1], bytes[2], bytes[3]);
    record->flags &= ~flag_marked;
}

// The block at which the pass is; null at its end.
alloc_record *block_of_pass(memdebug_session *session)
{
    while (session->scan_func) {
        func_record *func = session->scan_func;
        if (!session->scan_block)
            session->scan_block = func->blocks.next;
        if (session->scan_block != &func->blocks)
            return session->scan_block;
        session->scan_func = func->next == &session->funcs ? nullptr : func->next;
        session->scan_block = nullptr;
    }
    return nullptr;
}

enum class pause_reason { none, wanted, damage };

// Goes on with the pass until it is at its end, somebody waits for the table, or a damaged block was found.
// The pass of a stop waits for nobody.
pause_reason check_blocks(memdebug_session *session)
{
    for (int looked_at = 1; alloc_record *record = block_of_pass(session); looked_at++) {
        session->scan_block = record->next;
        if (is_damaged(record)) {
            report_damage(session, record);
            return pause_reason::damage;
        }
        if (looked_at >= blocks_per_turn && session->waiting.load(std::memory_order_relaxed) != 0 &&
            !session->stopping)
            return pause_reason::wanted;
    }
    return pause_reason::none;
}

void check_all_blocks(memdebug_session *session)
{
    bool starts = true;
    for (pause_reason reason = pause_reason::damage; reason != pause_reason::none; starts = false) {
        {
            table_guard lock(session);
            if (starts) {
                session->scan_func = session->funcs.next == &session->funcs ? nullptr : session->funcs.next;
                session->scan_block = nullptr;
            }
            reason = check_blocks(session);
        }
        if (reason == pause_reason::damage) {
            report_output_failures(session);
            session->error_hook(-1);
        } else if (reason == pause_reason::wanted) {
            pause_shortly(1);
        }
    }
}

// Draws the functions with the most live blocks, the fullest first; returns the number of lines.
int draw_functions(memdebug_session *session)
{
    const table_guard lock(session);
    print_line(session, -3, "=== Quaverlight Memory Debugger ===");
    int line = 0;
    for (func_record *func = session->funcs.prev; func != &session->funcs && line < table_lines;
         func = func->prev) {
        if (func->count != 0)
            print_line(session, line++, "Count %d \tAve Size:%zu\t:%s", func->count,
                       func->total / static_cast<size_t>(func->count), func->name);
    }
    return line;
}

void draw_table(memdebug_session *session)
{
    print_text(session, "\033[H");
    for (int line = draw_functions(session); line < table_lines; line++)
        print_line(session, line, "%s", "");
    print_line(session, separator_line, "%s",
               "------------------------------------DEBUG------------------------------------");
    report_output_failures(session);
}

// ---- The listener

int open_listener(memdebug_session *session)
{
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    const int fd = qvsock_listen(&hints, nullptr, session->service, 0, 0, 0);
    if (fd < 0)
        qv_errno("%s: failed to create socket", "accept_thread");
    const mutex_guard lock(session->listener_lock);
    session->listener = fd;
    return fd;
}

void close_listener(memdebug_session *session)
{
    const mutex_guard lock(session->listener_lock);
    if (session->listener >= 0)
        close(session->listener);
    session->listener = -1;
}

// A record for the next client: that of one that left, where there is one, so that they don't add up.
console_client *make_client(memdebug_session *session)
{
    {
        const mutex_guard lock(session->client_lock);
        if (console_client *used = session->retired) {
            session->retired = used->next;
            return used;
        }
    }
    return static_cast<console_client *>(calloc(1, sizeof(console_client)));
}

// Takes one client; false at a failure, which is how stopping ends the thread.
bool take_client(memdebug_session *session, int listener)
{
    console_client *client = make_client(session);
    if (!client) {
        qv_errno("%s: new sock function", "accept_thread");
        return false;
    }
    client->socket = accept(listener, nullptr, nullptr);
    if (client->socket < 0) {
        qv_errno("%s: accept function failed", "accept_thread");
        free(client);
        return false;
    }
    const mutex_guard lock(session->client_lock);
    client->next = session->clients.next;
    client->prev = &session->clients;
    client->next->prev = client;
    session->clients.next = client;
    return true;
}

// ---- Start and stop

// The library's threads get no signal but the one that wakes the listener.
int start_console_thread(pthread_t *thread, void *(*body)(void *), memdebug_session *session)
{
    constexpr int wanted[] = {SIGUSR1};
    return start_thread(thread, false, body, session, wanted);
}

void shut_listener_down(memdebug_session *session)
{
    const mutex_guard lock(session->listener_lock);
    if (session->listener >= 0)
        shutdown(session->listener, SHUT_RDWR);
}

void end_listener(memdebug_session *session)
{
    if (!session->has_listener)
        return;
    int attempts = usr1_ends_process() ? signals_before_shutdown : 0;
    do {
        if (attempts++ < signals_before_shutdown)
            pthread_kill(session->listener_thread, SIGUSR1);
        else
            shut_listener_down(session);
        pause_shortly(200);
    } while (pthread_tryjoin_np(session->listener_thread, nullptr) == EBUSY);
}

struct function_row {
    char *name;
    int count;
    size_t total;
};

// Copies the table's functions, those with the most live blocks first; returns the number of rows, which are
// the caller's to free.
size_t copy_functions(memdebug_session *session, function_row *&rows)
{
    const table_guard lock(session);
    size_t count = 0;
    for (func_record *func = session->funcs.next; func != &session->funcs; func = func->next)
        count++;
    rows = static_cast<function_row *>(calloc(count + 1, sizeof(function_row)));
    if (!rows)
        return 0;
    size_t copied = 0;
    for (func_record *func = session->funcs.prev; func != &session->funcs; func = func->prev)
        rows[copied++] = {strdup(func->name), func->count, func->total};
    return copied;
}

void log_functions(memdebug_session *session)
{
    function_row *rows = nullptr;
    const size_t count = copy_functions(session, rows);
    for (size_t i = 0; i < count; i++) {
        __qv_log(QV_LOG_INFO, "Total:%5zu Ave:%5zu Func:%5s", rows[i].total,
                 rows[i].total / static_cast<size_t>(rows[i].count), rows[i].name ? rows[i].name : "(null)");
        free(rows[i].name);
    }
    free(rows);
}

bool is_own_thread(const memdebug_session *session)
{
    const pid_t self = gettid();
    return self == session->checker_id || self == session->listener_id;
}

// The session, claimed for stopping: one thread alone stops it, and none that stopping waits for.
memdebug_session *claim_session()
{
    const session_use use;
    memdebug_session *session = use.get();
    if (!session)
        return nullptr;
    if (is_own_thread(session)) {
        errno = EDEADLK;
        return nullptr;
    }
    return session->stopping.exchange(true) ? nullptr : session;
}

} // namespace

void *qv_memory_debug(void *argument)
{
    signal(SIGCHLD, SIG_IGN);
    qvthread_setname("qvl-memdebug");
    auto *session = static_cast<memdebug_session *>(argument);
    if (!session) {
        __qv_log(QV_LOG_ERROR, "%s:Session is NULL", "qv_memory_debug");
        return nullptr;
    }
    session->checker_id = gettid();
    print_text(session, "\033[2J\033[H");
    print_line(session, 0, nullptr);
    for (int passes = 0; session->enabled;) {
        const bool last =
            session->stopping; // read first: the last pass sees what was damaged before the stop
        check_all_blocks(session);
        if (last)
            break;
        if (passes == passes_per_table) {
            draw_table(session);
            passes = 0;
        } else {
            passes++;
        }
        report_output_failures(session);
        pause_shortly(1);
    }
    return nullptr;
}

void *accept_thread(void *argument)
{
    signal(SIGCHLD, SIG_IGN);
    auto *session = static_cast<memdebug_session *>(argument);
    if (!session)
        return nullptr;
    session->listener_id = gettid();
    const int listener = open_listener(session);
    while (session->enabled && take_client(session, listener)) {
    }
    retire_clients(session);
    close_listener(session);
    return nullptr;
}

int qv_memcheck_start(const char *service, int output_fd, void (*error_hook)(int))
{
    memdebug_session *session = open_session(service, output_fd, error_hook);
    if (!session)
        return -1;
    __qv_log(QV_LOG_INFO, "Starting memory debug");
    if (service) {
        const int error = start_console_thread(&session->listener_thread, accept_thread, session);
        if (error != 0) {
            errno = error;
            qv_errno("%s Unable to create listener thread", "qv_memcheck_start");
            return -1;
        }
        session->has_listener = true;
    }
    errno = start_console_thread(&session->display_thread, qv_memory_debug, session);
    if (errno != 0) {
        const errno_guard unchanged;
        qv_errno("%s Unable to create thread", "qv_memcheck_start");
        return -1;
    }
    session->has_checker = true;
    return 0;
}

int qv_memcheck_stop(void)
{
    memdebug_session *session = claim_session();
    if (!session)
        return -1;
    {
        const short_waits hurry;
        if (session->has_checker)
            pthread_join(session->display_thread, nullptr);
        log_functions(session);
        print_line(session, 0, "%s", "=============== MemDebug  Top ===============");
        draw_table(session);
        print_line(session, table_lines - 1, "%s", "============= MemDebug Complete =============");
        report_output_failures(session);
        session->enabled = 0;
        end_listener(session);
    }
    close_session(session);
    return 0;
}
