// Tracked allocation and the memory debugger's console output.
//
// While a session runs, every tracked block has an alloc_record in the list of its function's func_record,
// and in an index by user pointer. The functions stand in ascending order of live blocks; a function without
// live blocks has no record. Records come from the plain allocator, never from the wrappers.
//
// Locks: table_lock guards the table, display_lock the console's output, message_lock the scrolling area.
// Order: table_lock before display_lock, message_lock before both. Nothing is logged or reported while
// table_lock or display_lock is held, because a report allocates and prints.

#include "memdebug.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qvlib/log.h>
#include <qvlib/memcheck.h>

#include "guard.h"

namespace qv
{
namespace
{

std::atomic<memdebug_session *> the_session;

constexpr uint32_t marker = 0xDEADBEEF;
constexpr size_t marker_size = sizeof marker;
constexpr int parking_row = 48;

// ---- Output

// A peer that has gone must not end the process, so sockets are written without SIGPIPE.
ssize_t write_quietly(int fd, const char *text, size_t length)
{
    const ssize_t sent = send(fd, text, length, MSG_NOSIGNAL);
    return sent < 0 && errno == ENOTSOCK ? write(fd, text, length) : sent;
}

void drop_client(memdebug_session *session, console_client *client)
{
    client->prev->next = client->next;
    client->next->prev = client->prev;
    close(client->socket);
    client->next = session->dropped.load();
    while (!session->dropped.compare_exchange_weak(client->next, client)) {
    }
}

// Writes a text to the console; what fails is noted for report_output_failures.
int put_text(memdebug_session *session, const char *text, int length)
{
    if (session->output_fd >= 1) {
        if (write_quietly(session->output_fd, text, static_cast<size_t>(length)) < 0)
            session->write_error = errno;
        return length;
    }
    for (console_client *client = session->clients.next; client != &session->clients;) {
        console_client *following = client->next;
        if (write_quietly(client->socket, text, static_cast<size_t>(length)) < 0)
            drop_client(session, client);
        client = following;
    }
    return length;
}

QV_PRINTF(2, 0) int put_formatted(memdebug_session *session, const char *format, va_list ap)
{
    char *text = nullptr;
    const int length = vasprintf(&text, format, ap);
    if (length < 0)
        return -1;
    const int result = put_text(session, text, length);
    free(text);
    return result;
}

QV_PRINTF(2, 3) int put(memdebug_session *session, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    const int length = put_formatted(session, format, ap);
    va_end(ap);
    return length;
}

// Reports failed output. The caller holds neither table_lock nor display_lock. A report prints too and may
// fail again: failures during a report are dropped, or it would never end.
void report_output_failures(memdebug_session *session)
{
    if (session->write_error == 0 && session->dropped.load() == nullptr)
        return;
    if (session->reporting.exchange(true))
        return;
    const int error = session->write_error.exchange(0);
    if (error != 0) {
        errno = error;
        qv_errno("%s: stdout failed", "mvprintf");
    }
    // Clients are made with the plain allocator, so their release is reported as not found; that line is how
    // a dropped client shows on the console.
    for (console_client *client = session->dropped.exchange(nullptr); client;) {
        console_client *following = client->next;
        qv_memcheck_free(qv_free, client, "../src/memdebug:186");
        client = following;
    }
    session->write_error = 0;
    session->reporting = false;
}

// The body of gotoline for callers that may hold table_lock: nothing is reported here.
QV_PRINTF(3, 0) int put_line(memdebug_session *session, int line, const char *format, va_list ap)
{
    mutex_guard lock(session->display_lock);
    if (line > session->max_line)
        session->max_line = line;
    session->current_line = line;
    int emitted = put(session, "\033[H\033[%dB", line + 3);
    if (format) {
        emitted += put(session, "\r\033[K");
        emitted += put_formatted(session, format, ap);
        fflush(stdout);
    }
    return emitted + put(session, "\033[%dB\r", parking_row - (line + 3));
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

void grow_index(memdebug_session *session)
{
    const size_t old_count = session->bucket_count;
    const size_t count = old_count ? old_count * 2 : 1024;
    auto **buckets = static_cast<alloc_record **>(calloc(count, sizeof(alloc_record *)));
    if (!buckets)
        return; // longer chains do as well
    alloc_record **old_buckets = session->buckets;
    session->buckets = buckets;
    session->bucket_count = count;
    for (size_t i = 0; i < old_count; i++) {
        for (alloc_record *record = old_buckets[i]; record;) {
            alloc_record *following = record->bucket_next;
            const size_t bucket = bucket_of(session, record->user);
            record->bucket_next = buckets[bucket];
            buckets[bucket] = record;
            record = following;
        }
    }
    free(old_buckets);
}

void index_block(memdebug_session *session, alloc_record *record)
{
    if (session->block_count >= session->bucket_count)
        grow_index(session);
    session->block_count++;
    if (session->bucket_count == 0)
        return; // no index could be had: find walks the lists
    alloc_record *&bucket = session->buckets[bucket_of(session, record->user)];
    record->bucket_next = bucket;
    bucket = record;
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
        unlink(func);
        free(func->name);
        free(func);
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

func_record *find_function(memdebug_session *session, const char *name)
{
    for (func_record *func = session->funcs.next; func != &session->funcs; func = func->next)
        if (strcmp(func->name, name) == 0)
            return func;
    return nullptr;
}

// A record for a function that has no live block yet, linked in front; null when memory is short.
func_record *add_function(memdebug_session *session, const char *name)
{
    auto *func = static_cast<func_record *>(calloc(1, sizeof(func_record)));
    if (!func)
        return nullptr;
    func->name = strdup(name);
    if (!func->name) {
        free(func);
        return nullptr;
    }
    init_list(func->blocks);
    link_before(func, session->funcs.next);
    return func;
}

// Enters a block under a function name. Returns the user pointer, or null when the block stays unknown to the
// table: no name was given, or memory is short.
void *register_block(memdebug_session *session, alloc_record *record, const char *name)
{
    if (!name)
        return nullptr;
    mutex_guard lock(session->table_lock);
    func_record *func = find_function(session, name);
    if (!func)
        func = add_function(session, name);
    if (!func)
        return nullptr;
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
    mutex_guard lock(session->table_lock);
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
    mutex_guard lock(session->table_lock);
    session->total_allocations += change;
    const int total = session->total_allocations;
    lock.unlock();
    return gotoline(-1, "Total Allocations: %.5d", total);
}

// ---- Blocks

void write_markers(alloc_record *record)
{
    auto *bytes = static_cast<unsigned char *>(record->block);
    record->user = bytes + marker_size;
    record->post_marker = bytes + marker_size + record->size;
    memcpy(bytes, &marker, marker_size);
    memcpy(record->post_marker, &marker, marker_size);
}

// Sizes that are a power of two, and 0, carry no markers: daemons hand such blocks to page-aligned consumers.
bool carries_markers(size_t size)
{
    return (size & (size - 1)) != 0;
}

bool allocate_block(alloc_record *record, void *(*allocator)(size_t))
{
    if (!carries_markers(record->size)) {
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
    mutex_guard lock(session->table_lock);
    alloc_record *record = find_block(session, user);
    if (record) {
        take_out(session, record);
        return record;
    }
    lock.unlock();
    report_fault(session, "Could not find the allocation to realloc (%s:%u)", func ? func : "(null)", line);
    return nullptr;
}

} // namespace

memdebug_session *running_session()
{
    memdebug_session *session = the_session.load(std::memory_order_acquire);
    return session && session->enabled.load(std::memory_order_relaxed) ? session : nullptr;
}

memdebug_session *open_session(const char *service, int output_fd, void (*error_hook)(int))
{
    auto *session = static_cast<memdebug_session *>(calloc(1, sizeof(memdebug_session)));
    if (!session)
        return nullptr;
    init_list(session->funcs);
    session->clients.next = session->clients.prev = &session->clients;
    pthread_mutex_init(&session->table_lock, nullptr);
    pthread_mutex_init(&session->display_lock, nullptr);
    pthread_mutex_init(&session->message_lock, nullptr);
    session->line_complete = 1;
    session->output_fd = output_fd;
    session->error_hook = error_hook;
    session->listen_service = service;
    session->enabled = 1;
    the_session.store(session, std::memory_order_release);
    return session;
}

void close_session()
{
    memdebug_session *session = the_session.exchange(nullptr);
    if (!session)
        return;
    session->enabled = 0;
    for (func_record *func = session->funcs.next; func != &session->funcs;) {
        func_record *following = func->next;
        for (alloc_record *record = func->blocks.next; record != &func->blocks;) {
            alloc_record *next_record = record->next;
            free(record);
            record = next_record;
        }
        free(func->name);
        free(func);
        func = following;
    }
    pthread_mutex_destroy(&session->table_lock);
    pthread_mutex_destroy(&session->display_lock);
    pthread_mutex_destroy(&session->message_lock);
    free(session->buckets);
    free(session);
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

void *qv_memcheck_malloc(void *(*allocator)(size_t), size_t size, const char *func, unsigned int line)
{
    memdebug_session *session = running_session();
    if (!session)
        return allocator(size);

    auto *record = static_cast<alloc_record *>(calloc(1, sizeof(alloc_record)));
    if (!record) {
        qv_errno("%s: malloc failed for %s size %zu", "qv_memcheck_malloc", func ? func : "(null)", size);
        return nullptr;
    }
    record->line = line;
    record->size = size;
    record->flags = flag_malloc;
    if (!allocate_block(record, allocator)) {
        const int error = errno;
        free(record);
        errno = error;
        qv_errno("%s: allocation", "qv_memcheck_malloc");
        return nullptr;
    }
    count_allocation(session, 1);
    return register_block(session, record, func);
}

void *qv_memcheck_realloc(void *ptr, size_t size, const char *func, unsigned int line)
{
    if (!ptr)
        return qv_memcheck_malloc(qv_malloc, size, func, line);
    if (size == 0) {
        qv_memcheck_free(qv_free, ptr, func);
        return nullptr;
    }
    memdebug_session *session = running_session();
    if (!session)
        return realloc(ptr, size);

    alloc_record *record = take_for_resize(session, ptr, func, line);
    if (!record)
        return nullptr;
    record->line = line;
    record->size = size;
    record->flags = flag_malloc | (record->flags & (flag_dma - 1));
    if (!resize_block(record)) {
        // The record was never a tracked block: the report "not found" that follows tells of the lost one.
        qv_memcheck_free(qv_free, record, "../src/memdebug.c:1126");
        return nullptr;
    }
    return register_block(session, record, func);
}

int qv_memcheck_free(void (*release)(void *), void *ptr, const char *where)
{
    memdebug_session *session = running_session();
    if (!session) {
        release(ptr);
        return 0;
    }
    void *block = unregister_block(session, ptr, where);
    if (!block)
        return 0;
    release(block);
    return count_allocation(session, -1);
}

void *qv_dmacheck_malloc(void *(*allocator)(size_t), size_t size, const char *func)
{
    memdebug_session *session = running_session();
    if (!session)
        return allocator(size);
    auto *record = static_cast<alloc_record *>(calloc(1, sizeof(alloc_record)));
    if (!record) {
        qv_errno("%s: malloc failed for %s size %zu", "qv_dmacheck_malloc", func ? func : "(null)", size);
        return nullptr;
    }
    void *block = allocator(size);
    record->block = record->user = block;
    record->size = size;
    record->flags = flag_dma;
    register_block(session, record, func);
    return block;
}

int qv_dma_free(int (*release)(void *ptr, size_t value), void *ptr, size_t value, const char *where)
{
    memdebug_session *session = running_session();
    if (session)
        ptr = unregister_block(session, ptr, where);
    return release(ptr, value);
}

int gotoline(int line, const char *format, ...)
{
    memdebug_session *session = running_session();
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
    memdebug_session *session = running_session();
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
    memdebug_session *session = running_session();
    if (!session)
        return mvprintf(format, ap);

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
        gotoline(34 + line, "%s", session->messages[line]);
    free(text);
    return 0;
}
