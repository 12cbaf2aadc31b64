// The memory debugger's records, shared by tracked allocation and the console.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <pthread.h>

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
    alloc_record blocks; // list head
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
    pthread_mutex_t table_lock;   // funcs, their blocks, the index and total_allocations
    pthread_mutex_t display_lock; // what is written to the console
    int current_line, max_line;
    int total_allocations;
    char messages[message_lines][message_width];
    pthread_mutex_t message_lock; // messages and line_complete
    int output_fd;
    void (*error_hook)(int);
    unsigned char line_complete;
    const char *listen_service;
    console_client clients; // list head

    // Index of the live blocks by user pointer, so that finding one does not walk the lists.
    alloc_record **buckets;
    size_t bucket_count, block_count;

    // Failed output is reported once the locks are free: the report allocates and prints itself.
    std::atomic<int> write_error; // errno of a failed write, 0 for none
    std::atomic<console_client *> dropped;
    std::atomic<bool> reporting;
};

// The running session, or null when there is none or it is disabled.
memdebug_session *running_session();

// Makes a session and lets the wrappers use it; null when memory is short.
memdebug_session *open_session(const char *service, int output_fd, void (*error_hook)(int));

// Ends the session: wrappers forward to the plain allocator again, the records are freed. Blocks stay alive.
void close_session();

} // namespace qv
