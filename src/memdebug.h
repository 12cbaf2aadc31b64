// The memory debugger's records, shared by tracked allocation and the console.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <qvlib/compiler.h>

namespace qv
{

struct func_record;

// One live tracked block.
struct alloc_record {
    void *block;                // what the underlying allocator returned
    unsigned char *post_marker; // trailing marker of a marked block
    void *user;                 // what the caller got
    alloc_record *next, *prev;  // in the list of its function, newest last
    size_t size;                // bytes that the caller asked for
    uint32_t flags;
    unsigned int line;
    func_record *owner;
    alloc_record *bucket_next; // in the index by user pointer
};

inline constexpr uint32_t flag_malloc = UINT32_C(1) << 31;
inline constexpr uint32_t flag_dma = UINT32_C(1) << 30;
inline constexpr uint32_t flag_marked = UINT32_C(1) << 29;

// The live blocks of one function name.
struct func_record {
    func_record *next, *prev; // in ascending order of count
    char *name;
    int count;
    size_t total;
    alloc_record blocks;      // list head
    uint32_t hash;            // of the name
    func_record *bucket_next; // in the index by name
};

struct console_client {
    int socket;
    console_client *next, *prev;
};

inline constexpr int message_lines = 11;
inline constexpr int message_width = 256;

struct memdebug_session {
    std::atomic<unsigned char> enabled;
    pthread_t display_thread, listener_thread;
    func_record funcs;            // list head
    pthread_mutex_t table_lock;   // funcs, their blocks, the index, the cursor and total_allocations
    pthread_mutex_t display_lock; // the lines of the console, current_line and max_line
    int current_line, max_line;
    int total_allocations;
    char messages[message_lines][message_width];
    pthread_mutex_t message_lock; // messages and line_complete
    int output_fd;
    void (*error_hook)(int);
    unsigned char line_complete;
    const char *listen_service; // the caller's, who may release it: null or not is what counts
    console_client clients;     // list head

    // Index of the live blocks by user pointer, so that finding one does not walk the lists.
    alloc_record **buckets;
    size_t bucket_count, block_count;

    // Index of the functions by name.
    func_record **name_buckets;
    size_t name_bucket_count, func_count;

    // Failed output is reported once the locks are free: the report allocates and prints itself.
    std::atomic<int> write_error; // errno of a failed write, 0 for none
    std::atomic<console_client *> dropped;
    std::atomic<bool> reporting;

    pthread_mutex_t client_lock;   // clients, retired and the writing to both kinds of output
    console_client *retired;       // records of clients that are no longer written to: singly linked
    bool output_stuck;             // the descriptor took nothing in time, so it is not waited for again
    std::atomic<uint32_t> stop_at; // see send_patience

    // Where the checker goes on after it let others have the table. With scan_func null no pass is under way;
    // with scan_block null it goes on at the function's first block.
    func_record *scan_func;
    alloc_record *scan_block;
    std::atomic<int> waiting; // threads that want table_lock

    std::atomic<bool> stopping;
    bool has_checker, has_listener;           // of the thread that started the session
    std::atomic<int> checker_id, listener_id; // the threads' own numbers, once they run
    char service[32];                         // a copy of the listener's
    pthread_mutex_t listener_lock;            // listener
    int listener;                             // listening socket, -1 for none
    memdebug_session *next_closed;
};

// Holds the table. The checker lets go of it when others wait, so they wait openly.
class table_guard
{
  public:
    explicit table_guard(memdebug_session *session);
    ~table_guard()
    {
        unlock();
    }
    table_guard(const table_guard &) = delete;
    table_guard &operator=(const table_guard &) = delete;

    void unlock()
    {
        if (session_) {
            pthread_mutex_unlock(&session_->table_lock);
            session_ = nullptr;
        }
    }

  private:
    memdebug_session *session_;
};

// The name that the text of a logged error is recorded under. By where it stands such a block is told from a
// caller's whose function has the same name.
inline constexpr char log_text_owner[] = "qv_verrno";

// The running session, or null when there is none or it is disabled; it may be closed at any time.
memdebug_session *running_session();

// The running session, which is not freed while this lives.
class session_use
{
  public:
    session_use();
    ~session_use();
    session_use(const session_use &) = delete;
    session_use &operator=(const session_use &) = delete;

    memdebug_session *get() const
    {
        return session_;
    }

  private:
    memdebug_session *session_;
};

// Makes a session and lets the wrappers use it; null when memory is short. Without a hook faults are only
// shown.
memdebug_session *open_session(const char *service, int output_fd, void (*error_hook)(int));

// Ends the session: wrappers forward to the plain allocator again, clients are disconnected, the records are
// freed. Blocks stay alive. A thread that does not leave the session in time keeps it from being freed until
// a later session is opened or closed.
void close_session();
void close_session(memdebug_session *session);

// Writes to the console as it stands.
void print_text(memdebug_session *session, const char *text);

// As gotoline, for callers that may hold table_lock: they call report_output_failures once they don't.
int print_line(memdebug_session *session, int line, const char *format, ...) QV_PRINTF(3, 4);

// Reports failed output. The caller holds none of the session's locks.
void report_output_failures(memdebug_session *session);

// Writes to no client from now on. Their sockets stay open, on purpose: the connections end with the
// process.
void retire_clients(memdebug_session *session);

inline constexpr uint32_t marker = 0xDEADBEEF;
inline constexpr size_t marker_size = sizeof marker;

} // namespace qv
