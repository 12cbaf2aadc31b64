// Makes the C library's allocator fail on demand: the test binary's own malloc, calloc, realloc and strdup
// take precedence over the C library's, in the shared library under test too, and pass on to those that come
// next. Include it in one source of a test. It counts the calls of the thread that asked for a failure, its
// own test framework's included: keep the armed scope to the one call under test.
#ifndef QVLIB_TESTS_FAILING_HEAP_H
#define QVLIB_TESTS_FAILING_HEAP_H

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

namespace failing_heap
{

enum calls : unsigned {
    malloc_calls = 1,
    calloc_calls = 2,
    realloc_calls = 4,
    strdup_calls = 8,
    all_calls = 15,
};

struct plan {
    unsigned which = 0; // kinds of calls that count and fail
    long successes = 0; // calls of them that still succeed
    bool for_good = false;
    long seen = 0;
    bool failed = false;
};

inline thread_local constinit plan current = {};

// Among the calls of the given kinds the one after `successes` further ones fails, or all from then on; all
// succeed again when this ends.
class after
{
  public:
    explicit after(long successes, unsigned which = all_calls, bool for_good = false)
    {
        current = {which, successes, for_good, 0, false};
    }
    ~after()
    {
        current = {};
    }
    after(const after &) = delete;
    after &operator=(const after &) = delete;

    bool failed() const
    {
        return current.failed;
    }
};

// Counts the calls of its scope and fails none.
class counted
{
  public:
    counted()
    {
        current = {all_calls, -1, false, 0, false};
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

__attribute__((no_sanitize("thread", "address"))) inline bool fails(calls kind)
{
    if ((current.which & kind) == 0)
        return false;
    current.seen++;
    if (current.successes < 0)
        return false;
    if (current.successes > 0) {
        current.successes--;
        return false;
    }
    if (!current.for_good)
        current.successes = -1;
    current.failed = true;
    errno = ENOMEM;
    return true;
}

template <class Function>
__attribute__((no_sanitize("thread", "address"))) inline Function *next_of(const char *name,
                                                                           Function *&cached)
{
    if (cached == nullptr)
        cached = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
    return cached;
}

inline void *(*next_malloc)(size_t) = nullptr;
inline void *(*next_calloc)(size_t, size_t) = nullptr;
inline void *(*next_realloc)(void *, size_t) = nullptr;
inline char *(*next_strdup)(const char *) = nullptr;

} // namespace failing_heap

extern "C" {

__attribute__((used, no_sanitize("thread", "address"))) inline void *malloc(size_t size)
{
    using namespace failing_heap;
    return fails(malloc_calls) ? nullptr : next_of("malloc", next_malloc)(size);
}

__attribute__((used, no_sanitize("thread", "address"))) inline void *calloc(size_t count, size_t size)
{
    using namespace failing_heap;
    return fails(calloc_calls) ? nullptr : next_of("calloc", next_calloc)(count, size);
}

__attribute__((used, no_sanitize("thread", "address"))) inline void *realloc(void *block, size_t size)
{
    using namespace failing_heap;
    return fails(realloc_calls) ? nullptr : next_of("realloc", next_realloc)(block, size);
}

__attribute__((used, no_sanitize("thread", "address"))) inline char *strdup(const char *text)
{
    using namespace failing_heap;
    return fails(strdup_calls) ? nullptr : next_of("strdup", next_strdup)(text);
}
}

#endif
