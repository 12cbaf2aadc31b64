// Makes calloc fail on demand: for tests that link the static library with -Wl,--wrap=calloc.
#ifndef QVLIB_TESTS_FAILING_CALLOC_H
#define QVLIB_TESTS_FAILING_CALLOC_H

#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace failing_calloc
{

// Calls that still succeed before one fails; negative for no failure.
inline int successes_left = -1;
// What the wrapped calls returned last; a failed call counts as nothing.
inline void *last_block = nullptr;

// The call after `successes` further ones fails; all succeed again when this ends.
class after
{
  public:
    explicit after(int successes)
    {
        successes_left = successes;
    }
    ~after()
    {
        successes_left = -1;
    }
    after(const after &) = delete;
    after &operator=(const after &) = delete;
};

} // namespace failing_calloc

extern "C" {
void *__real_calloc(size_t count, size_t size);

inline __attribute__((used)) void *__wrap_calloc(size_t count, size_t size)
{
    using namespace failing_calloc;
    if (successes_left == 0) {
        successes_left = -1;
        errno = ENOMEM;
        return nullptr;
    }
    if (successes_left > 0)
        successes_left--;
    return last_block = __real_calloc(count, size);
}
}

#endif
