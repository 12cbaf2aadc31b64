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
// Every call fails from then on, not just one.
inline bool for_good = false;
// Called before every calloc, when set.
inline void (*on_calloc)() = nullptr;
// What calloc returned last.
inline void *last_block = nullptr;

// The call after `successes` further ones fails (with `all_from_then`, the later ones too); all succeed again
// when this ends.
class after
{
  public:
    explicit after(int successes, bool all_from_then = false)
    {
        successes_left = successes;
        for_good = all_from_then;
    }
    ~after()
    {
        successes_left = -1;
        for_good = false;
    }
    after(const after &) = delete;
    after &operator=(const after &) = delete;
};

inline bool fails()
{
    if (successes_left == 0) {
        successes_left = for_good ? 0 : -1;
        errno = ENOMEM;
        return true;
    }
    if (successes_left > 0)
        successes_left--;
    return false;
}

} // namespace failing_calloc

extern "C" {
void *__real_calloc(size_t count, size_t size);

inline __attribute__((used)) void *__wrap_calloc(size_t count, size_t size)
{
    if (failing_calloc::on_calloc != nullptr)
        failing_calloc::on_calloc();
    if (failing_calloc::fails())
        return nullptr;
    return failing_calloc::last_block = __real_calloc(count, size);
}
}

#endif
