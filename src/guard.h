// Scope guards: each holds one resource, can't be copied and leaves errno as it found it.
#pragma once

#include <cerrno>
#include <pthread.h>
#include <unistd.h>
#include <utility>
#include <qvlib/memcheck.h>

namespace qv
{

// Gives errno its value back.
class errno_guard
{
  public:
    errno_guard() : kept_(errno)
    {
    }
    ~errno_guard()
    {
        errno = kept_;
    }
    errno_guard(const errno_guard &) = delete;
    errno_guard &operator=(const errno_guard &) = delete;

  private:
    int kept_;
};

// Holds a mutex.
class mutex_guard
{
  public:
    explicit mutex_guard(pthread_mutex_t &mutex) : mutex_(&mutex)
    {
        pthread_mutex_lock(mutex_);
    }
    ~mutex_guard()
    {
        unlock();
    }
    mutex_guard(const mutex_guard &) = delete;
    mutex_guard &operator=(const mutex_guard &) = delete;

    void unlock()
    {
        if (mutex_) {
            pthread_mutex_unlock(mutex_);
            mutex_ = nullptr;
        }
    }

  private:
    pthread_mutex_t *mutex_;
};

// Holds a descriptor; negative means none.
class fd_guard
{
  public:
    explicit fd_guard(int fd) : fd_(fd)
    {
    }
    ~fd_guard()
    {
        if (fd_ >= 0) {
            const int kept = errno;
            close(fd_);
            errno = kept;
        }
    }
    fd_guard(const fd_guard &) = delete;
    fd_guard &operator=(const fd_guard &) = delete;

    int get() const
    {
        return fd_;
    }
    int release()
    {
        return std::exchange(fd_, -1);
    }

  private:
    int fd_;
};

// Holds a tracked block; `where` is the call site that its release is reported under.
template <class T> class tracked_guard
{
  public:
    tracked_guard(T *block, const char *where) : block_(block), where_(where)
    {
    }
    ~tracked_guard()
    {
        if (block_) {
            const int kept = errno;
            qv_memcheck_free(qv_free, block_, where_);
            errno = kept;
        }
    }
    tracked_guard(const tracked_guard &) = delete;
    tracked_guard &operator=(const tracked_guard &) = delete;

    T *get() const
    {
        return block_;
    }
    T *release()
    {
        return std::exchange(block_, nullptr);
    }
    // Takes a block; the guard must be empty.
    void reset(T *block)
    {
        block_ = block;
    }

  private:
    T *block_;
    const char *where_;
};

} // namespace qv
