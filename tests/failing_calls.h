// Lets one call of the C library fail on demand. A test file wraps the calls it wants (with -Wl,--wrap=NAME)
// and asks `fails` in each wrapper.
#ifndef QVLIB_TESTS_FAILING_CALLS_H
#define QVLIB_TESTS_FAILING_CALLS_H

#include <cerrno>
#include <dirent.h>
#include <string>

namespace failing_calls
{

constexpr int any = -1;

struct plan {
    std::string name;  // empty for none
    int detail = any;  // an option or a command that the call must carry
    int error = 0;     // for errno
    int successes = 0; // before it fails
};

inline plan armed;

// While it lives, each call `name` after the first `successes` fails with `error`.
class failing
{
  public:
    failing(const char *name, int error, int detail = any, int successes = 0)
    {
        armed = {name, detail, error, successes};
    }
    ~failing()
    {
        armed = {};
    }
    failing(const failing &) = delete;
    failing &operator=(const failing &) = delete;
};

inline bool fails(const char *name, int detail = any)
{
    if (armed.name != name || (armed.detail != any && armed.detail != detail))
        return false;
    if (armed.successes > 0) {
        armed.successes--;
        return false;
    }
    errno = armed.error;
    return true;
}

// Open descriptors of the process.
inline int descriptors()
{
    int count = 0;
    DIR *directory = opendir("/proc/self/fd");
    while (directory && readdir(directory))
        count++;
    if (directory)
        closedir(directory);
    return count;
}

} // namespace failing_calls

#endif
