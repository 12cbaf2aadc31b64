// Makes malloc, calloc and realloc fail on demand: for tests that link the static library with
// -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc.
#ifndef QVLIB_TESTS_FAILING_HEAP_H
#define QVLIB_TESTS_FAILING_HEAP_H

#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace failing_heap
{

// Calls that still succeed before one fails; negative for no failure.
inline int successes_left = -1;
// Whether all calls fail from then on.
inline bool for_good = false;
// Whether a call has failed.
inline bool failed = false;

// The call after `successes` further ones fails; all succeed again when this ends.
class after
{
  public:
    explicit after(int successes, bool all = false)
    {
        successes_left = successes;
        for_good = all;
        failed = false;
    }
    ~after()
    {
        successes_left = -1;
    }
    after(const after &) = delete;
    after &operator=(const after &) = delete;

    // Whether a call has failed.
    bool happened() const
    {
        return failed;
    }
};

inline bool fails()
{
    if (successes_left < 0)
        return false;
    if (successes_left > 0) {
        successes_left--;
        return false;
    }
    if (!for_good)
        successes_left = -1;
    failed = true;
    errno = ENOMEM;
    return true;
}

} // namespace failing_heap

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);

inline __attribute__((used)) void *__wrap_malloc(size_t size)
{
    return failing_heap::fails() ? nullptr : __real_malloc(size);
}

inline __attribute__((used)) void *__wrap_calloc(size_t count, size_t size)
{
    return failing_heap::fails() ? nullptr : __real_calloc(count, size);
}

inline __attribute__((used)) void *__wrap_realloc(void *block, size_t size)
{
    return failing_heap::fails() ? nullptr : __real_realloc(block, size);
}
}

#endif
