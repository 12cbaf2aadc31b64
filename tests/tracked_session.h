// A session of the memory debugger for tests that link the static library: what is allocated under which
// name, and the lines that were printed to its console.
#ifndef QVLIB_TESTS_TRACKED_SESSION_H
#define QVLIB_TESTS_TRACKED_SESSION_H

#include <cstddef>
#include <fcntl.h>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

#include "memdebug.h"

class tracked_session
{
  public:
    tracked_session() : fd_(open("/dev/null", O_WRONLY | O_CLOEXEC))
    {
        faults = 0;
        session_ = qv::open_session(nullptr, fd_, [](int) { faults++; });
    }
    ~tracked_session()
    {
        if (session_)
            qv::close_session();
        close(fd_);
    }
    tracked_session(const tracked_session &) = delete;
    tracked_session &operator=(const tracked_session &) = delete;

    // Live blocks by the name that they are recorded under.
    std::map<std::string, int> counts() const
    {
        std::map<std::string, int> counts;
        for (const qv::func_record *func = session_->funcs.next; func != &session_->funcs; func = func->next)
            counts[func->name] = func->count;
        return counts;
    }

    // The sizes of the live blocks of a name, oldest first.
    std::vector<size_t> sizes(const std::string &name) const
    {
        std::vector<size_t> sizes;
        for (const qv::func_record *func = session_->funcs.next; func != &session_->funcs; func = func->next)
            if (name == func->name)
                for (const qv::alloc_record *block = func->blocks.next; block != &func->blocks;
                     block = block->next)
                    sizes.push_back(block->size);
        return sizes;
    }

    // The last lines of the console's scrolling area.
    std::vector<std::string> last_lines(int count) const
    {
        std::vector<std::string> printed;
        for (int line = qv::message_lines - count; line < qv::message_lines; line++)
            printed.emplace_back(session_->messages[line]);
        return printed;
    }

    static inline int faults = 0;

  private:
    int fd_;
    qv::memdebug_session *session_;
};

#endif
