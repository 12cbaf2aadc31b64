// Lets calls of the C library fail on demand, in any thread. A test file wraps the calls it wants (with
// -Wl,--wrap=NAME) and asks `fails` in each wrapper; system_calls.h has a wrapper for each system call of the
// library.
#ifndef QVLIB_TESTS_FAILING_CALLS_H
#define QVLIB_TESTS_FAILING_CALLS_H

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace failing_calls
{

constexpr int any = -1;
constexpr int for_good = -1;

struct plan {
    std::string name;
    int detail;    // an option or a command that the call must carry
    int error;     // for errno
    int successes; // before it fails
    int times;     // how often it fails then
    int failures;  // so far
};

inline std::mutex mutex;
inline std::vector<plan *> armed;

// While it lives, calls `name` fail with `error` after the first `successes`.
class failing
{
  public:
    failing(const char *name, int error, int detail = any, int successes = 0, int times = for_good)
        : plan_{name, detail, error, successes, times, 0}
    {
        const std::lock_guard<std::mutex> lock(mutex);
        armed.push_back(&plan_);
    }
    ~failing()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        armed.erase(std::find(armed.begin(), armed.end(), &plan_));
    }
    failing(const failing &) = delete;
    failing &operator=(const failing &) = delete;

    int failures() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return plan_.failures;
    }

  private:
    plan plan_;
};

// What happened at each place that a call came from, to be written to the file that QVLIB_SYSTEM_CALLS names:
// lines of the place (an address in the program), the call, its error ("called" for none) and how often.
class call_record
{
  public:
    ~call_record()
    {
        const char *path = getenv("QVLIB_SYSTEM_CALLS");
        FILE *file = path ? fopen(path, "a") : nullptr;
        if (!file)
            return;
        for (const auto &[what, count] : counts_) {
            const auto &[place, name, error] = what;
            fprintf(file, "%#lx %s %s %d\n", static_cast<unsigned long>(place), name.c_str(),
                    error ? std::to_string(*error).c_str() : "called", count);
        }
        fclose(file);
    }
    // One that goes on failing counts once.
    void add(uintptr_t place, const char *name, std::optional<int> error, bool goes_on)
    {
        int &count = counts_[{place, name, error}];
        if (count == 0 || !goes_on)
            count++;
    }

  private:
    std::map<std::tuple<uintptr_t, std::string, std::optional<int>>, int> counts_;
};

inline call_record record;
extern "C" const char __executable_start;

// The error that a call fails with this time, if it does. The place is where it came from, if that is wanted.
inline std::optional<int> error_of(const char *name, int detail = any, const void *place = nullptr)
{
    const std::lock_guard<std::mutex> lock(mutex);
    std::optional<int> error;
    bool goes_on = false;
    for (plan *one : armed) {
        if (one->name != name || (one->detail != any && one->detail != detail))
            continue;
        if (one->successes > 0) {
            one->successes--;
        } else if (!error && (one->times == for_good || one->failures < one->times)) {
            one->failures++;
            goes_on = one->times == for_good;
            error = one->error;
        }
    }
    if (place)
        record.add(reinterpret_cast<uintptr_t>(place) - reinterpret_cast<uintptr_t>(&__executable_start),
                   name, error, goes_on);
    return error;
}

inline bool fails(const char *name, int detail = any)
{
    const std::optional<int> error = error_of(name, detail);
    if (error)
        errno = *error;
    return error.has_value();
}

// Entries of a directory.
inline int entries(const char *path)
{
    int count = 0;
    DIR *directory = opendir(path);
    while (directory && readdir(directory))
        count++;
    if (directory)
        closedir(directory);
    return count;
}

// Open descriptors of the process.
inline int descriptors()
{
    return entries("/proc/self/fd");
}

inline int threads()
{
    return entries("/proc/self/task");
}

} // namespace failing_calls

#endif
