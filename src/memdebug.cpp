// Tracked allocation and the memory debugger's console output.
//
// While a session runs, every tracked block has an alloc_record in the list of its function's func_record,
// and in an index by user pointer. The functions stand in ascending order of live blocks; a function without
// live blocks has no record. Records come from the plain allocator, never from the wrappers.
//
// Locks: table_lock guards the table, display_lock the console's lines, message_lock the scrolling area,
// client_lock what they are written to. Order: message_lock, table_lock, display_lock, client_lock. Nothing
// is logged or reported while one of them is held, because a report allocates and prints.
//
// Every thread that works on a session is counted from before it reads the session's pointer. Whoever closes
// the session empties the pointer first and frees nothing until the count has been 0.

#include "memdebug.h"

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <limits.h>
#include <sys/socket.h>
#include <unistd.h>

#include <qvlib/log.h>
#include <qvlib/memcheck.h>

#include "guard.h"
#include "send_whole.h"
#include "threads.h"
#include "tracked.h"

namespace qv
{

std::atomic<memdebug_session *> the_session;

namespace
{

std::atomic<unsigned int> threads_inside;
std::atomic<memdebug_session *> closed_sessions; // not freed yet

constexpr uint32_t leaving_limit_ms = 300;
constexpr uint32_t client_patience_ms = 2000;
constexpr int spins = 200;
constexpr int parking_row = 48;
constexpr int first_message_line = 34;

void *unregister_block(memdebug_session *session, void *user, const char *where);

// ---- Output

// As write, but the SIGPIPE of a pipe without a reader is held back and taken.
ssize_t write_without_signal(int fd, const char *text, size_t length)
{
    sigset_t broken_pipe, mask, pending;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, &mask);
    const ssize_t written = write(fd, text, length);
    const errno_guard unchanged;
    if (written < 0 && errno == EPIPE && !sigismember(&pending, SIGPIPE)) {
        const timespec at_once = {};
        while (sigtimedwait(&broken_pipe, nullptr, &at_once) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    return written;
}

// Writes all of a text to a pipe, terminal or file. What poll calls writable takes PIPE_BUF bytes at once.
bool write_whole(int fd, const char *text, size_t length, send_patience &patience)
{
    while (length > 0) {
        if (!patience.wait_for_room(fd))
            return false;
        const ssize_t written = write_without_signal(fd, text, length < PIPE_BUF ? length : PIPE_BUF);
        if (written < 0 && errno != EINTR && errno != EAGAIN)
            return false;
        if (written > 0) {
            text += written;
            length -= static_cast<size_t>(written);
            patience.allow_late_attempt();
        }
    }
    return true;
}

// A peer that has gone must not end the process, nor one that does not read stop it.
bool write_quietly(int fd, const char *text, size_t length, send_patience &patience)
{
    iovec piece = {const_cast<char *>(text), length};
    return send_whole(fd, &piece, 1, patience) ||
           (errno == ENOTSOCK && write_whole(fd, text, length, patience));
}

void write_to_descriptor(memdebug_session *session, const char *text, size_t length)
{
    send_patience patience(session->stop_at, session->output_stuck ? 0 : client_patience_ms);
    session->output_stuck = false;
    if (!write_quietly(session->output_fd, text, length, patience)) {
        session->output_stuck = errno == EAGAIN;
        session->write_error = errno;
    }
}

void unlink_client(console_client *client)
{
    client->prev->next = client->next;
    client->next->prev = client->prev;
}

void drop_client(memdebug_session *session, console_client *client)
{
    unlink_client(client);
    close(client->socket);
    client->socket = -1;
    client->next = session->dropped.load();
    while (!session->dropped.compare_exchange_weak(client->next, client)) {
    }
}

// Writes a text to the console; what fails is noted for report_output_failures.
int put_text(memdebug_session *session, const char *text, int length)
{
    const errno_guard unchanged;
    mutex_guard lock(session->client_lock);
    if (!session->enabled)
        return length; // the descriptor is the caller's again
    if (session->output_fd >= 1) {
        write_to_descriptor(session, text, static_cast<size_t>(length));
        return length;
    }
    send_patience patience(session->stop_at);
    for (console_client *client = session->clients.next; client != &session->clients;) {
        console_client *following = client->next;
        if (!write_quietly(client->socket, text, static_cast<size_t>(length), patience))
            drop_client(session, client);
        client = following;
    }
    return length;
}

QV_PRINTF(2, 0) int put_formatted(memdebug_session *session, const char *format, va_list ap)
{
    char *text = nullptr;
    const int length = format ? vasprintf(&text, format, ap) : -1;
    if (length < 0)
        return -1;
    const int result = put_text(session, text, length);
    free(text);
    return result;
}

// A dropped client's record is told of as one that is not in the table. It serves the next
// client, or stays until the session is freed.
void report_dropped(memdebug_session *session, console_client *client)
{
    unregister_block(session, client, "../src/memdebug:186");
    mutex_guard lock(session->client_lock);
    client->next = session->retired;
    session->retired = client;
}

// A line of the console, which leaves in one piece unless it is very long.
class line_text
{
  public:
    explicit line_text(memdebug_session *session) : session_(session)
    {
    }
    QV_PRINTF(2, 3) int add(const char *format, ...)
    {
        va_list ap;
        va_start(ap, format);
        const int length = add_list(format, ap);
        va_end(ap);
        return length;
    }
    // Returns the number of characters, or -1 when they can't be formatted.
    QV_PRINTF(2, 0) int add_list(const char *format, va_list ap)
    {
        va_list copy;
        va_copy(copy, ap);
        const size_t room = sizeof text_ - used_;
        int length = vsnprintf(text_ + used_, room, format, copy);
        va_end(copy);
        if (length >= 0 && static_cast<size_t>(length) < room) {
            used_ += static_cast<size_t>(length);
            return length;
        }
        flush();
        return put_formatted(session_, format, ap);
    }
    void flush()
    {
        if (used_ > 0)
            put_text(session_, text_, static_cast<int>(used_));
        used_ = 0;
    }

  private:
    memdebug_session *session_;
    size_t used_ = 0;
    char text_[512];
};

// The body of gotoline; nothing is reported here.
QV_PRINTF(3, 0) int put_line(memdebug_session *session, int line, const char *format, va_list ap)
{
    mutex_guard lock(session->display_lock);
    if (line > session->max_line)
        session->max_line = line;
    session->current_line = line;
    const int64_t row = int64_t{line} + 3;
    line_text text(session);
    int emitted = text.add("\033[H\033[%" PRId64 "B", row);
    if (format) {
        emitted += text.add("\r\033[K");
        emitted += text.add_list(format, ap);
        fflush(stdout);
    }
    emitted += text.add("\033[%" PRId64 "B\r", parking_row - row);
    text.flush();
    return emitted;
}

// ---- The table

void init_list(func_record &head)
{
    head.next = head.prev = &head;
}

void init_list(alloc_record &head)
{
    head.next = head.prev = &head;
}

template <class T> void unlink(T *record)
{
    record->prev->next = record->next;
    record->next->prev = record->prev;
}

template <class T> void link_before(T *record, T *position)
{
    record->next = position;
    record->prev = position->prev;
    position->prev->next = record;
    position->prev = record;
}

size_t bucket_of(const memdebug_session *session, const void *user)
{
    const uint64_t mixed =
        static_cast<uint64_t>(reinterpret_cast<uintptr_t>(user) >> 4) * 0x9E3779B97F4A7C15u;
    return static_cast<size_t>(mixed >> 32) & (session->bucket_count - 1);
}

void enter_in_bucket(memdebug_session *session, alloc_record *record)
{
    alloc_record *&bucket = session->buckets[bucket_of(session, record->user)];
    record->bucket_next = bucket;
    bucket = record;
}

// Makes a larger index of all blocks in the lists; false when memory is short.
bool rebuild_index(memdebug_session *session)
{
    const size_t count = session->bucket_count ? session->bucket_count * 2 : 1024;
    auto **buckets = static_cast<alloc_record **>(calloc(count, sizeof(alloc_record *)));
    if (!buckets)
        return false;
    free(session->buckets);
    session->buckets = buckets;
    session->bucket_count = count;
    for (func_record *func = session->funcs.next; func != &session->funcs; func = func->next)
        for (alloc_record *record = func->blocks.next; record != &func->blocks; record = record->next)
            enter_in_bucket(session, record);
    return true;
}

// Enters a block that is in its function's list. While no larger index can be had longer chains do as well,
// and without any find walks the lists.
void index_block(memdebug_session *session, alloc_record *record)
{
    session->block_count++;
    if (session->block_count > session->bucket_count && rebuild_index(session))
        return;
    if (session->bucket_count != 0)
        enter_in_bucket(session, record);
}

void unindex_block(memdebug_session *session, const alloc_record *record)
{
    session->block_count--;
    if (session->bucket_count == 0)
        return;
    for (alloc_record **link = &session->buckets[bucket_of(session, record->user)]; *link;
         link = &(*link)->bucket_next) {
        if (*link == record) {
            *link = record->bucket_next;
            return;
        }
    }
}

// The first record with this user pointer, functions and blocks in list order.
alloc_record *find_in_lists(memdebug_session *session, const void *user)
{
    for (func_record *func = session->funcs.next; func != &session->funcs; func = func->next)
        for (alloc_record *record = func->blocks.next; record != &func->blocks; record = record->next)
            if (record->user == user)
                return record;
    return nullptr;
}

alloc_record *find_block(memdebug_session *session, const void *user)
{
    if (session->bucket_count == 0)
        return find_in_lists(session, user);
    alloc_record *found = nullptr;
    for (alloc_record *record = session->buckets[bucket_of(session, user)]; record;
         record = record->bucket_next) {
        if (record->user != user)
            continue;
        if (found)
            return find_in_lists(session, user); // several blocks with one address: the lists' order decides
        found = record;
    }
    return found;
}

// FNV-1a.
uint32_t hash_of(const char *name)
{
    uint32_t hash = 2166136261u;
    for (; *name; name++)
        hash = (hash ^ static_cast<unsigned char>(*name)) * 16777619u;
    return hash;
}

// A record for a function name, not in the table yet; null when memory is short.
func_record *make_function(const char *name)
{
    auto *func = static_cast<func_record *>(calloc(1, sizeof(func_record)));
    if (!func)
        return nullptr;
    func->name = strdup(name);
    if (!func->name) {
        free(func);
        return nullptr;
    }
    func->hash = hash_of(name);
    init_list(func->blocks);
    return func;
}

void free_function(func_record *func)
{
    if (func) {
        free(func->name);
        free(func);
    }
}

func_record *&name_bucket(const memdebug_session *session, uint32_t hash)
{
    return session->name_buckets[(hash ^ hash >> 16) & (session->name_bucket_count - 1)];
}

void enter_in_name_bucket(memdebug_session *session, func_record *func)
{
    func_record *&bucket = name_bucket(session, func->hash);
    func->bucket_next = bucket;
    bucket = func;
}

// Enters a function that is in the list. While no larger index can be had longer chains do as well, and
// without any the list is walked.
void index_function(memdebug_session *session, func_record *func)
{
    constexpr size_t few = 64;
    if (++session->func_count > (session->name_bucket_count ? session->name_bucket_count : few)) {
        const size_t count = session->name_bucket_count ? session->name_bucket_count * 2 : 2 * few;
        if (auto **buckets = static_cast<func_record **>(calloc(count, sizeof(func_record *)))) {
            free(session->name_buckets);
            session->name_buckets = buckets;
            session->name_bucket_count = count;
            for (func_record *each = session->funcs.next; each != &session->funcs; each = each->next)
                enter_in_name_bucket(session, each);
            return;
        }
    }
    if (session->name_bucket_count != 0)
        enter_in_name_bucket(session, func);
}

void unindex_function(memdebug_session *session, const func_record *func)
{
    session->func_count--;
    if (session->name_bucket_count == 0)
        return;
    func_record **link = &name_bucket(session, func->hash);
    while (*link != func)
        link = &(*link)->bucket_next;
    *link = func->bucket_next;
}

// Restores the ascending order of counts around a record whose count went up.
void move_towards_tail(memdebug_session *session, func_record *func)
{
    func_record *position = func->next;
    while (position != &session->funcs && position->count < func->count)
        position = position->next;
    if (position != func->next) {
        unlink(func);
        link_before(func, position);
    }
}

// The same for a record whose count went down; without live blocks it goes.
void move_towards_head(memdebug_session *session, func_record *func)
{
    if (func->count == 0) {
        if (session->scan_func == func) {
            session->scan_func = func->next == &session->funcs ? nullptr : func->next;
            session->scan_block = nullptr;
        }
        unlink(func);
        unindex_function(session, func);
        free_function(func);
        return;
    }
    func_record *position = func;
    while (position->prev != &session->funcs && position->prev->count > func->count)
        position = position->prev;
    if (position != func) {
        unlink(func);
        link_before(func, position);
    }
}

func_record *find_function(memdebug_session *session, const char *name, uint32_t hash)
{
    const bool indexed = session->name_bucket_count != 0;
    func_record *func = indexed ? name_bucket(session, hash) : session->funcs.next;
    while (func && func != &session->funcs) {
        if (func->hash == hash && strcmp(func->name, name) == 0)
            return func;
        func = indexed ? func->bucket_next : func->next;
    }
    return nullptr;
}

// Enters a block under the name of the function record that it brings along, which becomes the table's when
// the name is new there. Returns the user pointer, or null when no name was given: the block stays unknown.
void *register_block(memdebug_session *session, alloc_record *record)
{
    if (!record->owner)
        return nullptr;
    table_guard lock(session);
    func_record *func = find_function(session, record->owner->name, record->owner->hash);
    if (func) {
        free_function(record->owner);
    } else {
        func = record->owner;
        link_before(func, session->funcs.next);
        index_function(session, func);
    }
    link_before(record, &func->blocks);
    record->owner = func;
    func->count++;
    func->total += record->size;
    index_block(session, record);
    if (func->count > 1)
        move_towards_tail(session, func);
    return record->user;
}

// Takes a block out of the table, with table_lock held; its record is the caller's.
void take_out(memdebug_session *session, alloc_record *record)
{
    func_record *func = record->owner;
    if (session->scan_block == record)
        session->scan_block = record->next;
    unlink(record);
    unindex_block(session, record);
    func->count--;
    func->total -= record->size;
    move_towards_head(session, func);
}

QV_PRINTF(2, 3) void report_fault(memdebug_session *session, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    put_line(session, -2, format, ap);
    va_end(ap);
    report_output_failures(session);
    session->error_hook(-1);
}

// Takes a block out of the table and returns what the underlying allocator gave; null after a report.
void *unregister_block(memdebug_session *session, void *user, const char *where)
{
    table_guard lock(session);
    alloc_record *record = find_block(session, user);
    if (!record) {
        lock.unlock();
        report_fault(session, "Could not find the allocation to free (%s)", where ? where : "(null)");
        return nullptr;
    }
    take_out(session, record);
    void *block = record->block;
    free(record);
    return block;
}

int count_allocation(memdebug_session *session, int change)
{
    table_guard lock(session);
    session->total_allocations += change;
    const int total = session->total_allocations;
    lock.unlock();
    const int emitted = print_line(session, -1, "Total Allocations: %.5d", total);
    report_output_failures(session);
    return emitted;
}

// ---- Blocks

// Whether a block is to be the text of a logged error. A failure of that is not logged, or the log would call
// itself until the stack ends.
bool is_log_text(const char *func)
{
    return func == log_text_owner;
}

void log_no_record(const char *wrapper, const char *func, size_t size)
{
    if (!is_log_text(func))
        qv_errno("%s: malloc failed for %s size %zu", wrapper, func ? func : "(null)", size);
}

// A record for a block to be made, with one for its function, so that what was allocated can always be
// entered; without a name it has none. Null when memory is short.
alloc_record *make_record(const char *func, size_t size, uint32_t flags)
{
    auto *record = static_cast<alloc_record *>(calloc(1, sizeof(alloc_record)));
    if (!record)
        return nullptr;
    record->owner = func ? make_function(func) : nullptr;
    if (func && !record->owner) {
        free(record);
        return nullptr;
    }
    record->size = size;
    record->flags = flags;
    return record;
}

// Frees a record that is not in the table.
void free_record(alloc_record *record)
{
    free_function(record->owner);
    free(record);
}

void write_markers(alloc_record *record)
{
    auto *bytes = static_cast<unsigned char *>(record->block);
    record->user = bytes + marker_size;
    record->post_marker = bytes + marker_size + record->size;
    memcpy(bytes, &marker, marker_size);
    memcpy(record->post_marker, &marker, marker_size);
}

// Sizes that are a power of two, and 0, carry no markers: daemons hand such blocks to page-aligned consumers.
// Nor does a log's text: threads log while the session is stopped, and then release as it stands what they
// got.
bool carries_markers(size_t size, const char *func)
{
    return (size & (size - 1)) != 0 && !is_log_text(func);
}

bool allocate_block(alloc_record *record, void *(*allocator)(size_t), const char *func)
{
    if (!carries_markers(record->size, func)) {
        record->block = record->user = allocator(record->size);
        return record->block != nullptr;
    }
    if (record->size > SIZE_MAX - 2 * marker_size) {
        errno = ENOMEM;
        return false;
    }
    record->block = allocator(record->size + 2 * marker_size);
    if (!record->block)
        return false;
    write_markers(record);
    record->flags |= flag_marked;
    return true;
}

bool resize_block(alloc_record *record)
{
    if (!(record->flags & flag_marked)) {
        void *block = realloc(record->block, record->size);
        record->block = record->user = block;
        if (!block)
            qv_errno("%s: realloc without marker", "qv_memcheck_realloc");
        return block != nullptr;
    }
    void *block = nullptr;
    errno = ENOMEM;
    if (record->size <= SIZE_MAX - 2 * marker_size)
        block = realloc(record->block, record->size + 2 * marker_size);
    record->block = block;
    if (!block) {
        qv_errno("%s: realloc with marker", "qv_memcheck_realloc");
        return false;
    }
    write_markers(record);
    return true;
}

// Takes the record of a block that is to be resized out of the table; null after a report.
alloc_record *take_for_resize(memdebug_session *session, void *user, const char *func, unsigned int line)
{
    table_guard lock(session);
    alloc_record *record = find_block(session, user);
    if (record) {
        take_out(session, record);
        return record;
    }
    lock.unlock();
    report_fault(session, "Could not find the allocation to realloc (%s:%u)", func ? func : "(null)", line);
    return nullptr;
}

void free_clients(console_client *client)
{
    while (client) {
        console_client *following = client->next;
        free(client);
        client = following;
    }
}

void free_table(memdebug_session *session)
{
    for (func_record *func = session->funcs.next; func != &session->funcs;) {
        func_record *following = func->next;
        for (alloc_record *record = func->blocks.next; record != &func->blocks;) {
            alloc_record *next_record = record->next;
            free(record);
            record = next_record;
        }
        free_function(func);
        func = following;
    }
    free(session->buckets);
    free(session->name_buckets);
}

void free_session(memdebug_session *session)
{
    free_table(session);
    free_clients(session->retired);
    free_clients(session->dropped);
    for (pthread_mutex_t *mutex : {&session->table_lock, &session->display_lock, &session->message_lock,
                                   &session->client_lock, &session->listener_lock})
        pthread_mutex_destroy(mutex);
    free(session);
}

// Waits a while until no thread is inside a session. The caller may itself be inside, when it closes the
// session from the error hook.
bool threads_have_left()
{
    const uint32_t start = clock_ms();
    while (threads_inside != 0) {
        if (clock_ms() - start > leaving_limit_ms)
            return false;
        pause_shortly(50);
    }
    return true;
}

// Frees the sessions that were closed, unless a thread is still inside one of them.
void free_closed_sessions()
{
    memdebug_session *session = closed_sessions.exchange(nullptr);
    if (session && !threads_have_left()) {
        memdebug_session *last = session;
        while (last->next_closed)
            last = last->next_closed;
        last->next_closed = closed_sessions;
        while (!closed_sessions.compare_exchange_weak(last->next_closed, session)) {
        }
        return;
    }
    while (session) {
        memdebug_session *following = session->next_closed;
        free_session(session);
        session = following;
    }
}

} // namespace

table_guard::table_guard(memdebug_session *session) : session_(session)
{
    if (pthread_mutex_trylock(&session->table_lock) == 0)
        return;
    session->waiting++;
    // The checker lets go within a few blocks, sooner than a sleep would end.
    int error = EBUSY;
    for (int i = 0; i < spins && error != 0; i++)
        error = pthread_mutex_trylock(&session->table_lock);
    if (error != 0)
        pthread_mutex_lock(&session->table_lock);
    session->waiting--;
}

memdebug_session *running_session()
{
    memdebug_session *session = the_session.load(std::memory_order_acquire);
    return session && session->enabled.load(std::memory_order_relaxed) ? session : nullptr;
}

session_use::session_use() : session_(nullptr)
{
    if (!the_session.load(std::memory_order_relaxed))
        return;
    threads_inside++;
    session_ = the_session;
    if (session_ && session_->enabled)
        return;
    session_ = nullptr;
    threads_inside--;
}

session_use::~session_use()
{
    if (session_)
        threads_inside--;
}

memdebug_session *open_session(const char *service, int output_fd, void (*error_hook)(int))
{
    auto *session = static_cast<memdebug_session *>(calloc(1, sizeof(memdebug_session)));
    if (!session)
        return nullptr;
    init_list(session->funcs);
    session->clients.next = session->clients.prev = &session->clients;
    for (pthread_mutex_t *mutex : {&session->table_lock, &session->display_lock, &session->message_lock,
                                   &session->client_lock, &session->listener_lock})
        pthread_mutex_init(mutex, nullptr);
    session->line_complete = 1;
    session->output_fd = output_fd;
    session->error_hook = error_hook ? error_hook : [](int) {};
    session->listen_service = service;
    if (service)
        strncpy(session->service, service, sizeof session->service - 1);
    session->listener = -1;
    session->enabled = 1;
    the_session = session;
    return session;
}

void close_session()
{
    if (memdebug_session *session = the_session)
        close_session(session);
}

void close_session(memdebug_session *session)
{
    memdebug_session *expected = session;
    the_session.compare_exchange_strong(expected, nullptr);
    session->enabled = 0;
    session->stop_at = clock_ms();
    retire_clients(session);
    session->next_closed = closed_sessions;
    while (!closed_sessions.compare_exchange_weak(session->next_closed, session)) {
    }
    free_closed_sessions();
}

void print_text(memdebug_session *session, const char *text)
{
    mutex_guard lock(session->display_lock);
    put_text(session, text, static_cast<int>(strlen(text)));
}

int print_line(memdebug_session *session, int line, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    const int emitted = put_line(session, line, format, ap);
    va_end(ap);
    return emitted;
}

// A report prints too and may fail again: failures during a report are dropped, or it would never end.
void report_output_failures(memdebug_session *session)
{
    if (session->write_error == 0 && session->dropped.load() == nullptr)
        return;
    if (session->reporting.exchange(true))
        return;
    const errno_guard unchanged;
    const int error = session->write_error.exchange(0);
    if (error != 0) {
        errno = error;
        qv_errno("%s: stdout failed", "mvprintf");
    }
    for (console_client *client = session->dropped.exchange(nullptr); client;) {
        console_client *following = client->next;
        report_dropped(session, client);
        client = following;
    }
    session->write_error = 0;
    session->reporting = false;
}

void retire_clients(memdebug_session *session)
{
    const mutex_guard lock(session->client_lock);
    while (session->clients.next != &session->clients) {
        console_client *client = session->clients.next;
        unlink_client(client);
        client->next = session->retired;
        session->retired = client;
    }
}

} // namespace qv

using namespace qv;

void *qv_malloc(size_t size)
{
    void *block = malloc(size);
    return block ? memset(block, 0, size) : nullptr;
}

void qv_free(void *ptr)
{
    free(ptr);
}

// Without a session a call is one test and a jump; what a session needs is apart.

namespace
{

__attribute__((noinline)) void *malloc_tracked(void *(*allocator)(size_t), size_t size, const char *func,
                                               unsigned int line)
{
    const session_use session;
    if (!session.get())
        return allocator(size);

    alloc_record *record = make_record(func, size, flag_malloc);
    if (!record) {
        log_no_record("qv_memcheck_malloc", func, size);
        return nullptr;
    }
    record->line = line;
    if (!allocate_block(record, allocator, func)) {
        const int error = errno;
        free_record(record);
        errno = error;
        if (!is_log_text(func))
            qv_errno("%s: allocation", "qv_memcheck_malloc");
        return nullptr;
    }
    count_allocation(session.get(), 1);
    // Without a name the record stays, by contract.
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc)
    return register_block(session.get(), record);
}

__attribute__((noinline)) void *realloc_tracked(void *ptr, size_t size, const char *func, unsigned int line)
{
    const session_use session;
    if (!session.get())
        return realloc(ptr, size);

    func_record *new_owner = func ? make_function(func) : nullptr;
    if (func && !new_owner) {
        log_no_record("qv_memcheck_realloc", func, size);
        return nullptr; // the block stays as it was
    }
    alloc_record *record = take_for_resize(session.get(), ptr, func, line);
    if (!record) {
        free_function(new_owner);
        return nullptr;
    }
    record->owner = new_owner;
    record->line = line;
    record->size = size;
    record->flags = flag_malloc | (record->flags & (flag_dma - 1));
    if (!resize_block(record)) {
        free_function(new_owner);
        // The record was never a tracked block: the report "not found" that follows tells of the lost one.
        qv_memcheck_free(qv_free, record, "../src/memdebug.c:1126");
        return nullptr;
    }
    return register_block(session.get(), record);
}

__attribute__((noinline)) int free_tracked(void (*release)(void *), void *ptr, const char *where)
{
    const session_use session;
    if (!session.get()) {
        release(ptr);
        return 0;
    }
    void *block = unregister_block(session.get(), ptr, where);
    if (!block)
        return 0;
    release(block);
    return count_allocation(session.get(), -1);
}

} // namespace

void *qv_memcheck_malloc(void *(*allocator)(size_t), size_t size, const char *func, unsigned int line)
{
    if (!the_session.load(std::memory_order_relaxed))
        return allocator(size);
    return malloc_tracked(allocator, size, func, line);
}

void *qv_memcheck_realloc(void *ptr, size_t size, const char *func, unsigned int line)
{
    if (!ptr)
        return qv_memcheck_malloc(qv_malloc, size, func, line);
    if (size == 0) {
        qv_memcheck_free(qv_free, ptr, func);
        return nullptr;
    }
    return realloc_tracked(ptr, size, func, line);
}

int qv_memcheck_free(void (*release)(void *), void *ptr, const char *where)
{
    if (the_session.load(std::memory_order_relaxed))
        return free_tracked(release, ptr, where);
    release(ptr);
    return 0;
}

void *qv_dmacheck_malloc(void *(*allocator)(size_t), size_t size, const char *func)
{
    const session_use session;
    if (!session.get())
        return allocator(size);
    alloc_record *record = make_record(func, size, flag_dma);
    if (!record) {
        log_no_record("qv_dmacheck_malloc", func, size);
        return nullptr;
    }
    void *block = allocator(size);
    record->block = record->user = block;
    register_block(session.get(), record);
    return block; // NOLINT(clang-analyzer-unix.Malloc): as above
}

int qv_dma_free(int (*release)(void *ptr, size_t value), void *ptr, size_t value, const char *where)
{
    const session_use session;
    if (session.get())
        ptr = unregister_block(session.get(), ptr, where);
    return release(ptr, value);
}

int gotoline(int line, const char *format, ...)
{
    const session_use use;
    memdebug_session *session = use.get();
    if (!session)
        return -1;
    va_list ap;
    va_start(ap, format);
    const int emitted = put_line(session, line, format, ap);
    va_end(ap);
    report_output_failures(session);
    return emitted;
}

int mvprintf(const char *format, va_list ap)
{
    const session_use use;
    memdebug_session *session = use.get();
    if (!session)
        return -1;
    const int length = put_formatted(session, format, ap);
    report_output_failures(session);
    return length;
}

int memdbg_printf(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    const int result = memdbg_vprintf(format, ap);
    va_end(ap);
    return result;
}

namespace
{

bool ends_with_newline(const char *format)
{
    const size_t length = strlen(format);
    return length > 0 && format[length - 1] == '\n';
}

int count_newlines(const char *format)
{
    int count = 0;
    for (const char *newline = strchr(format, '\n'); newline; newline = strchr(newline + 1, '\n'))
        count++;
    return count;
}

// Old lines keep their text until they are overwritten.
void scroll(memdebug_session *session, int lines)
{
    for (int line = lines; line > 0 && line < message_lines; line++)
        memcpy(session->messages[line - lines], session->messages[line], message_width);
}

// Puts one piece of text on a message line, or appends it when the line is open; returns whether it was
// taken.
bool put_piece(memdebug_session *session, int line, const char *piece, size_t length)
{
    // More newlines in the arguments than in the format would lead past the last line.
    char *target = session->messages[line < 0 ? 0 : line >= message_lines ? message_lines - 1 : line];
    const size_t used = session->line_complete ? 0 : strlen(target);
    if (!session->line_complete && used + length >= message_width)
        return false;
    const size_t taken = length < message_width - used ? length : message_width - used - 1;
    memcpy(target + used, piece, taken);
    target[used + taken] = '\0';
    return true;
}

void put_pieces(memdebug_session *session, const char *text, int newlines)
{
    const char *piece = text + strspn(text, "\n");
    if (*piece == '\0') {
        put_piece(session, message_lines - 1 - newlines, text, strlen(text));
        return;
    }
    for (; *piece; piece += strspn(piece, "\n")) {
        const size_t length = strcspn(piece, "\n");
        if (put_piece(session, message_lines - 1 - newlines, piece, length))
            newlines--;
        session->line_complete = 1;
        piece += length;
    }
}

} // namespace

int memdbg_vprintf(const char *format, va_list ap)
{
    const session_use use;
    memdebug_session *session = use.get();
    if (!session)
        return mvprintf(format, ap);

    if (!format)
        return -1;
    const bool complete = ends_with_newline(format);
    const int newlines = count_newlines(format) - (complete ? 1 : 0);
    char *text = nullptr;
    mutex_guard lock(session->message_lock);
    if (vasprintf(&text, format, ap) < 0)
        return -1;
    scroll(session, newlines + session->line_complete);
    put_pieces(session, text, newlines);
    session->line_complete = complete;
    for (int line = 0; line < message_lines; line++)
        print_line(session, first_message_line + line, "%s", session->messages[line]);
    lock.unlock(); // the report may call the error hook, and the hook may print here
    free(text);
    report_output_failures(session);
    return 0;
}
