// What a scenario of the failing allocations needs. A scenario uses some functions of the library as a daemon
// does; it is played over and over, each time with other allocations failing.
//
// It checks that each call gives what its header says for that case, that what it had before is as it was or
// as the header says, goes on to use it, and releases everything. It runs through to its end in every case.
#ifndef QVLIB_TESTS_ALLOCATIONS_SCENARIO_H
#define QVLIB_TESTS_ALLOCATIONS_SCENARIO_H

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <qvlib.h>

namespace allocations
{

// Allocations fail while it lives, those of all threads, but for the scenario's own.
class armed
{
  public:
    armed();
    ~armed();
    armed(const armed &) = delete;
    armed &operator=(const armed &) = delete;
};

// What the scenario itself does meanwhile with the C library's help does not count.
class unarmed
{
  public:
    unarmed();
    ~unarmed();
    unarmed(const unarmed &) = delete;
    unarmed &operator=(const unarmed &) = delete;
};

// Takes down that a function is called, and what it allocates.
class called
{
  public:
    explicit called(const char *function);
    ~called();
    called(const called &) = delete;
    called &operator=(const called &) = delete;

  private:
    const char *function_;
    const armed armed_;
};

template <class Call> auto call(const char *function, Call made)
{
    const called taken_down(function);
    return made();
}

// Calls an exported function while allocations may fail.
#define CALL(function, ...) allocations::call(#function, [&] { return function(__VA_ARGS__); })

// Whether an allocation has failed in this run.
bool failed();

// Whether a session of the memory debugger runs.
bool tracked();

// From here on blocks may stay allocated when this run ends, as the function's header says.
void may_stay(const char *why);

// From here on the memory debugger may report a block that it does not know, as the header says.
void may_report(const char *why);

// Takes away what is written to stdout or stderr while it lives; a sanitizer's messages still come through.
class silenced
{
  public:
    explicit silenced(FILE *&stream) : stream_(stream), kept_(stream)
    {
        static FILE *nowhere = fopen("/dev/null", "w");
        setvbuf(nowhere, nullptr, _IONBF, 0);
        stream_ = nowhere;
    }
    ~silenced()
    {
        stream_ = kept_;
    }
    silenced(const silenced &) = delete;
    silenced &operator=(const silenced &) = delete;

  private:
    FILE *&stream_;
    FILE *kept_;
};

// Releases a text of the library; NULL too.
void release(char *text);

// A text that is NULL only when memory was short.
void expect_text(const char *text, const std::string &expected);

enum class modes { both, plain };

struct scenario {
    const char *name;
    void (*play)();
    modes played;
};

std::vector<scenario> &all_scenarios();

struct entered {
    entered(const char *name, void (*play)(), modes played)
    {
        all_scenarios().push_back({name, play, played});
    }
};

// SCENARIO(name) { ... }; PLAIN_SCENARIO is one that starts a session of its own.
#define SCENARIO_IN(name, played)                                                                            \
    static void play_##name();                                                                               \
    static const allocations::entered enter_##name(#name, play_##name, played);                              \
    static void play_##name()
#define SCENARIO(name) SCENARIO_IN(name, allocations::modes::both)
#define PLAIN_SCENARIO(name) SCENARIO_IN(name, allocations::modes::plain)

} // namespace allocations

#endif
