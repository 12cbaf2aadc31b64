// Makes allocations of the library fail on demand and keeps account of its live blocks: for tests that link
// the static library with the options `failing_alloc` of tests/CMakeLists.txt. The C++ runtime's own
// blocks are not touched.
#ifndef QVLIB_TESTS_FAILING_ALLOC_H
#define QVLIB_TESTS_FAILING_ALLOC_H

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <unordered_set>

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
int __real_vasprintf(char **text, const char *fmt, va_list ap);
void __real_free(void *block);
}

namespace failing_alloc
{

// Calls that still succeed before one fails; negative for no failure.
inline int successes_left = -1;
inline bool for_good = false;                         // all calls after the one that fails do so too
inline bool failed = false;                           // whether the failure has come
inline std::unordered_set<void *> *account = nullptr; // live blocks, while an account is open
inline void (*on_calloc)() = nullptr;                 // called before every calloc, when set
inline void *last_calloc = nullptr;                   // what calloc returned last

inline bool fails_now()
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

inline void *enter(void *block)
{
    if (block && account)
        account->insert(block);
    return block;
}

inline void strike(void *block)
{
    if (block && account)
        account->erase(block);
}

// The call after `successes` further ones fails, with `all_from_then` the later ones too; all succeed again
// when this ends.
class after
{
  public:
    explicit after(int successes, bool all_from_then = false)
    {
        failed = false;
        for_good = all_from_then;
        successes_left = successes;
    }
    ~after()
    {
        for_good = false;
        successes_left = -1;
    }
    after(const after &) = delete;
    after &operator=(const after &) = delete;
};

// Knows the blocks that were allocated while it is open and are still alive; frees them at the end.
class live_blocks
{
  public:
    live_blocks()
    {
        account = &blocks_;
    }
    ~live_blocks()
    {
        account = nullptr;
        for (void *block : blocks_)
            __real_free(block);
    }
    live_blocks(const live_blocks &) = delete;
    live_blocks &operator=(const live_blocks &) = delete;

    size_t count() const
    {
        return blocks_.size();
    }

  private:
    std::unordered_set<void *> blocks_;
};

} // namespace failing_alloc

extern "C" {

inline __attribute__((used)) void *__wrap_malloc(size_t size)
{
    return failing_alloc::fails_now() ? nullptr : failing_alloc::enter(__real_malloc(size));
}

inline __attribute__((used)) void *__wrap_calloc(size_t count, size_t size)
{
    if (failing_alloc::on_calloc)
        failing_alloc::on_calloc();
    if (failing_alloc::fails_now())
        return nullptr;
    return failing_alloc::last_calloc = failing_alloc::enter(__real_calloc(count, size));
}

inline __attribute__((used)) void *__wrap_realloc(void *block, size_t size)
{
    if (failing_alloc::fails_now())
        return nullptr;
    failing_alloc::strike(block);
    return failing_alloc::enter(__real_realloc(block, size));
}

inline __attribute__((used)) int __wrap_vasprintf(char **text, const char *fmt, va_list ap)
{
    if (failing_alloc::fails_now())
        return -1;
    const int length = __real_vasprintf(text, fmt, ap);
    if (length >= 0)
        failing_alloc::enter(*text);
    return length;
}

inline __attribute__((used)) void __wrap_free(void *block)
{
    failing_alloc::strike(block);
    __real_free(block);
}
}

#endif
