// Tracked allocation as <qvlib/memcheck.h> has it, for blocks by the thousand: while no memory debugger runs
// they come from the C library without a call in between.
#pragma once

#include <atomic>
#include <cstdlib>
#include <cstring>

#include <qvlib/memcheck.h>

namespace qv
{

struct memdebug_session;

// The last session that was started, until it is stopped.
extern std::atomic<memdebug_session *> the_session;

// Firmware takes the call: it is the smaller code.
#if defined(QVLIB_FIRMWARE)
inline constexpr bool small_code = true;
#else
inline constexpr bool small_code = false;
#endif

inline bool needs_no_tracking()
{
    return !small_code && !the_session.load(std::memory_order_relaxed);
}

using allocator = void *(*)(size_t);

// `plain` is what the block comes from while nothing is tracked.
inline void *allocate_tracked(size_t size, const char *func, unsigned int line, allocator plain = malloc)
{
    if (needs_no_tracking()) [[likely]]
        return plain(size);
    return qv_memcheck_malloc(malloc, size, func, line);
}

// A zeroed record.
template <class record>
record *allocate_record_tracked(const char *func, unsigned int line, allocator plain = malloc)
{
    if (!needs_no_tracking()) [[unlikely]]
        return static_cast<record *>(qv_memcheck_malloc(qv_malloc, sizeof(record), func, line));
    void *memory = plain(sizeof(record));
    __asm__("" : "+r"(memory)); // of malloc and the line below the compiler would make a calloc
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the caller's
    return memory ? static_cast<record *>(memset(memory, 0, sizeof(record))) : nullptr;
}

// For trees of nodes by the ten thousand. The GNU C library's malloc has the last few freed blocks of each
// size at hand, which its calloc passes by: it takes longer. But where these few come to an end malloc gets
// the next ones in reverse, and what no cache of the processor holds should lie in the order of its use.
inline void *allocate_in_order(size_t size)
{
    constexpr size_t little_to_clear = 80;
    return size <= little_to_clear ? calloc(1, size) : malloc(size);
}

inline void release_tracked(void *block, const char *where)
{
    if (needs_no_tracking()) [[likely]]
        free(block);
    else
        qv_memcheck_free(free, block, where); // all that qv_free does
}

} // namespace qv
