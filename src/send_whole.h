// Sends to clients that may not read, or may be gone: no wait without an end, no SIGPIPE.
#pragma once

#include <atomic>
#include <cstdint>
#include <sys/uio.h>

namespace qv
{

// Milliseconds of the monotonic clock, which wrap; compare by difference. Never 0.
uint32_t clock_ms();

// While one lives, nobody in the process waits long for a client: a quarter of a second for each message, and
// half a second from its beginning for all of them. For a stop, which prints and logs, and which waits for
// threads that do.
class short_waits
{
  public:
    short_waits();
    ~short_waits();
    short_waits(const short_waits &) = delete;
    short_waits &operator=(const short_waits &) = delete;
};

// How long the sends of one message may wait, all clients together: each of them had that time to read. While
// one thread waits another may set *stop_at, a time of clock_ms, to end the wait earlier; 0 sets none. See
// also short_waits.
class send_patience
{
  public:
    explicit send_patience(const std::atomic<uint32_t> &stop_at, uint32_t limit_ms = 2000)
        : stop_at_(stop_at), limit_ms_(limit_ms)
    {
    }
    send_patience(const send_patience &) = delete;
    send_patience &operator=(const send_patience &) = delete;

    // Waits until a write to the descriptor does not block, or fails; false with errno EAGAIN when the time
    // is up, or with that of a wait that failed.
    bool wait_for_room(int fd);

    // The same for a socket, on which a send does no harm that comes too early: for a slice of the time at
    // most.
    bool wait_shortly(int fd);

  private:
    enum class outcome { ready, not_yet, failed };
    outcome wait_slice(int fd);

    const std::atomic<uint32_t> &stop_at_;
    uint32_t limit_ms_;
    uint32_t started_ = 0; // 0: nothing was waited for yet
};

// Sends all bytes of the pieces, which it uses up. Returns false with errno of the failure, EAGAIN when the
// patience ended; part of the bytes may have gone.
bool send_whole(int fd, iovec *pieces, size_t count, send_patience &patience);

} // namespace qv
