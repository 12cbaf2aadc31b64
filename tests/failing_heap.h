// The C library's allocator under a test's control. The test binary's own malloc, calloc, realloc, free,
// strdup and strndup take precedence over the C library's, in the shared library under test and in the C
// library itself, and pass on to those that come next. Include it in one source of a test.
//
// Calls fail on demand: those of one thread (`after`), or, under `everywhere`, those of every thread, which
// also keeps account of the blocks that were allocated. The C++ runtime's and a sanitizer's own calls don't
// count, but a thread's plan does count what its test makes: keep the armed scope to the one call under test.
#ifndef QVLIB_TESTS_FAILING_HEAP_H
#define QVLIB_TESTS_FAILING_HEAP_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>

// Runs before and beneath the sanitizers.
#define FAILING_HEAP_PLAIN __attribute__((no_sanitize("thread", "address", "undefined")))

namespace failing_heap
{

enum calls : unsigned {
    malloc_calls = 1,
    calloc_calls = 2,
    realloc_calls = 4,
    strdup_calls = 8, // strndup too
    all_calls = 15,
    other_calls = 16, // that need memory and that a test answers for, such as pthread_create
};

// ---- Who calls

enum class caller_kind {
    library, // the library under test, or the test itself, to which a tail call returns
    c_library,
    runtime, // of C++, of the sanitizers
};

struct code_range {
    uintptr_t begin, end;
    caller_kind kind;
};

struct code_ranges {
    static constexpr int most = 64;
    code_range ranges[most];
    int count;
};

inline constinit code_ranges all_code = {};

FAILING_HEAP_PLAIN inline int add_code(dl_phdr_info *object, size_t, void *)
{
    caller_kind kind = caller_kind::runtime;
    const char *name = object->dlpi_name;
    if (name == nullptr || *name == '\0' || strstr(name, "libqvlib"))
        kind = caller_kind::library;
    else if (strstr(name, "/libc.") || strstr(name, "/libc-") || strstr(name, "/ld"))
        kind = caller_kind::c_library;
    for (int i = 0; i < object->dlpi_phnum; i++) {
        const auto &segment = object->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || !(segment.p_flags & PF_X) || all_code.count == code_ranges::most)
            continue;
        const uintptr_t begin = object->dlpi_addr + segment.p_vaddr;
        all_code.ranges[all_code.count++] = {begin, begin + segment.p_memsz, kind};
    }
    return 0;
}

// The objects that are loaded at the first question are those that count.
FAILING_HEAP_PLAIN inline caller_kind kind_of(const void *caller)
{
    if (all_code.count == 0)
        dl_iterate_phdr(add_code, nullptr);
    const auto address = reinterpret_cast<uintptr_t>(caller);
    for (int i = 0; i < all_code.count; i++)
        if (all_code.ranges[i].begin <= address && address < all_code.ranges[i].end)
            return all_code.ranges[i].kind;
    return caller_kind::runtime;
}

// ---- Plans

struct plan {
    unsigned which = 0; // kinds of calls that count and fail
    long successes = 0; // calls of them that still succeed; negative for all
    bool for_good = false;
    long seen = 0;
    unsigned failed = 0; // kinds that have failed
};

inline thread_local constinit plan current = {};
inline thread_local constinit int paused = 0;          // calls of this thread neither count nor fail
inline thread_local constinit bool takes_part = false; // in the plan for all threads, and its account
inline thread_local constinit long counted_here = 0;   // by the plan for all threads, of this one

FAILING_HEAP_PLAIN inline bool fails_by(plan &made, calls kind)
{
    if ((made.which & kind) == 0)
        return false;
    made.seen++;
    if (made.successes < 0)
        return false;
    if (made.successes > 0) {
        made.successes--;
        return false;
    }
    if (!made.for_good)
        made.successes = -1;
    made.failed |= kind;
    errno = ENOMEM;
    return true;
}

// Among the calls of the given kinds the one after `successes` further ones fails, or all from then on; all
// succeed again when this ends.
class after
{
  public:
    explicit after(long successes, unsigned which = all_calls, bool for_good = false)
    {
        current = {which, successes, for_good, 0, 0};
    }
    after(long successes, bool for_good) : after(successes, all_calls, for_good)
    {
    }
    ~after()
    {
        current = {};
    }
    after(const after &) = delete;
    after &operator=(const after &) = delete;

    // Whether a call has failed.
    bool failed() const
    {
        return current.failed != 0;
    }
};

// Counts the calls of its scope and fails none.
class counted
{
  public:
    counted()
    {
        current = {all_calls, -1, false, 0, 0};
    }
    ~counted()
    {
        current = {};
    }
    counted(const counted &) = delete;
    counted &operator=(const counted &) = delete;

    long calls() const
    {
        return current.seen;
    }
};

// While it lives, this thread's calls neither count nor fail.
class uncounted
{
  public:
    FAILING_HEAP_PLAIN uncounted()
    {
        paused++;
    }
    FAILING_HEAP_PLAIN ~uncounted()
    {
        paused--;
    }
    uncounted(const uncounted &) = delete;
    uncounted &operator=(const uncounted &) = delete;
};

// ---- The whole process

// A plan for all threads that take part, and the blocks that were allocated since an account is kept and are
// still alive.
struct process_plan {
    static constexpr size_t room = size_t{1} << 16;

    plan made;
    long direct;       // calls that were seen which the library made itself
    int armed;         // scopes in which calls count
    bool accounts;     // whether an account is kept
    void (*on_call)(); // told of each call that counts, when set
    void *blocks[room];
    size_t live;
    bool lock;
};

inline constinit process_plan everywhere = {};

class process_lock
{
  public:
    FAILING_HEAP_PLAIN process_lock()
    {
        while (__atomic_test_and_set(&everywhere.lock, __ATOMIC_ACQUIRE)) {
        }
    }
    FAILING_HEAP_PLAIN ~process_lock()
    {
        __atomic_clear(&everywhere.lock, __ATOMIC_RELEASE);
    }
    process_lock(const process_lock &) = delete;
    process_lock &operator=(const process_lock &) = delete;
};

FAILING_HEAP_PLAIN inline size_t slot_of(const void *block)
{
    return static_cast<size_t>((reinterpret_cast<uintptr_t>(block) >> 4) * 2654435761u) &
           (process_plan::room - 1);
}

// Linear probing; a removal moves up what it would cut off.
FAILING_HEAP_PLAIN inline void enter(void *block)
{
    size_t at = slot_of(block);
    while (everywhere.blocks[at] != nullptr)
        at = (at + 1) & (process_plan::room - 1);
    everywhere.blocks[at] = block;
    if (++everywhere.live > process_plan::room / 2)
        abort();
}

FAILING_HEAP_PLAIN inline bool strike(const void *block)
{
    size_t at = slot_of(block);
    while (everywhere.blocks[at] != block) {
        if (everywhere.blocks[at] == nullptr)
            return false;
        at = (at + 1) & (process_plan::room - 1);
    }
    everywhere.live--;
    for (size_t next = at;;) {
        everywhere.blocks[at] = nullptr;
        do {
            next = (next + 1) & (process_plan::room - 1);
            if (everywhere.blocks[next] == nullptr)
                return true;
        } while (((next - slot_of(everywhere.blocks[next])) & (process_plan::room - 1)) <
                 ((next - at) & (process_plan::room - 1)));
        everywhere.blocks[at] = everywhere.blocks[next];
        at = next;
    }
}

// How one call goes.
struct verdict {
    bool fails;
    bool counts; // its block is entered into the account
};

FAILING_HEAP_PLAIN inline verdict judge(calls kind, const void *caller)
{
    const bool armed = takes_part && __atomic_load_n(&everywhere.armed, __ATOMIC_RELAXED) != 0;
    const bool accounts = takes_part && __atomic_load_n(&everywhere.accounts, __ATOMIC_RELAXED);
    if (paused != 0 || (current.which == 0 && !armed && !accounts))
        return {false, false};
    const caller_kind by = kind_of(caller);
    if (by == caller_kind::runtime)
        return {false, false};
    if (fails_by(current, kind))
        return {true, false};
    if (!armed)
        return {false, accounts};
    if (everywhere.on_call) {
        const uncounted own;
        everywhere.on_call();
    }
    counted_here++;
    const process_lock lock;
    everywhere.direct += by == caller_kind::library;
    return {fails_by(everywhere.made, kind), true};
}

FAILING_HEAP_PLAIN inline void *account(const verdict &call, void *block)
{
    if (call.counts && block != nullptr && __atomic_load_n(&everywhere.accounts, __ATOMIC_RELAXED)) {
        const process_lock lock;
        enter(block);
    }
    return block;
}

// Whether the block was in the account.
FAILING_HEAP_PLAIN inline bool forget(const void *block)
{
    if (block == nullptr || !__atomic_load_n(&everywhere.accounts, __ATOMIC_RELAXED))
        return false;
    const process_lock lock;
    return strike(block);
}

template <class Function> FAILING_HEAP_PLAIN inline Function *next_of(const char *name, Function *&cached)
{
    if (cached == nullptr)
        cached = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
    return cached;
}

inline void *(*next_malloc)(size_t) = nullptr;
inline void *(*next_calloc)(size_t, size_t) = nullptr;
inline void *(*next_realloc)(void *, size_t) = nullptr;
inline void (*next_free)(void *) = nullptr;
inline char *(*next_strdup)(const char *) = nullptr;
inline char *(*next_strndup)(const char *, size_t) = nullptr;

} // namespace failing_heap

extern "C" {

__attribute__((used, noinline)) FAILING_HEAP_PLAIN inline void *malloc(size_t size)
{
    using namespace failing_heap;
    const verdict call = judge(malloc_calls, __builtin_return_address(0));
    return call.fails ? nullptr : account(call, next_of("malloc", next_malloc)(size));
}

__attribute__((used, noinline)) FAILING_HEAP_PLAIN inline void *calloc(size_t count, size_t size)
{
    using namespace failing_heap;
    const verdict call = judge(calloc_calls, __builtin_return_address(0));
    return call.fails ? nullptr : account(call, next_of("calloc", next_calloc)(count, size));
}

__attribute__((used, noinline)) FAILING_HEAP_PLAIN inline void *realloc(void *block, size_t size)
{
    using namespace failing_heap;
    verdict call = judge(realloc_calls, __builtin_return_address(0));
    if (call.fails)
        return nullptr;
    if (forget(block))
        call.counts = true;
    return account(call, next_of("realloc", next_realloc)(block, size));
}

__attribute__((used, noinline)) FAILING_HEAP_PLAIN inline void free(void *block)
{
    using namespace failing_heap;
    forget(block);
    // dlsym itself may release the text of an earlier error, which is lost then.
    static bool looking;
    if (next_free == nullptr && looking)
        return;
    looking = true;
    next_of("free", next_free)(block);
}

// What these allocate themselves is their own.

__attribute__((used, noinline)) FAILING_HEAP_PLAIN inline char *strdup(const char *text)
{
    using namespace failing_heap;
    const verdict call = judge(strdup_calls, __builtin_return_address(0));
    const uncounted own;
    return call.fails ? nullptr : static_cast<char *>(account(call, next_of("strdup", next_strdup)(text)));
}

__attribute__((used, noinline)) FAILING_HEAP_PLAIN inline char *strndup(const char *text, size_t size)
{
    using namespace failing_heap;
    const verdict call = judge(strdup_calls, __builtin_return_address(0));
    const uncounted own;
    return call.fails ? nullptr
                      : static_cast<char *>(account(call, next_of("strndup", next_strndup)(text, size)));
}
}

#endif
