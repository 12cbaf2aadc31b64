// What a process makes when it first needs it, by whichever thread comes first, instead of keeping it as a
// constant: of a firmware build, whose constants take room that its processes have.
#pragma once

#include <atomic>
#include <pthread.h>

namespace qv
{

template <class T, auto make> class made_at_first_use
{
  public:
    const T &get()
    {
        if (!made_.load(std::memory_order_acquire))
            make_it();
        return value_;
    }

  private:
    void make_it()
    {
        pthread_mutex_lock(&lock_);
        if (!made_.load(std::memory_order_relaxed)) {
            make(value_);
            made_.store(true, std::memory_order_release);
        }
        pthread_mutex_unlock(&lock_);
    }

    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<bool> made_ = false;
    T value_ = {};
};

} // namespace qv
