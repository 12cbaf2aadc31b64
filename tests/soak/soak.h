// What the loads of the soak share: the gate that they stop at while a sample is taken, the tally of their
// answers, and small steps over sockets.
#ifndef QVLIB_TESTS_SOAK_H
#define QVLIB_TESTS_SOAK_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <string_view>

namespace soak
{

// Where every load stands still while a sample is taken: nothing of a round is left allocated or open there.
class gate
{
  public:
    explicit gate(int loads) : loads_(loads)
    {
    }

    // A load, between two rounds; false when it is to end.
    bool pass()
    {
        std::unique_lock lock(mutex_);
        waiting_++;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_ || ended_; });
        waiting_--;
        return !ended_;
    }

    // The sampler: when this returns, all loads stand still.
    void close()
    {
        std::unique_lock lock(mutex_);
        open_ = false;
        changed_.wait(lock, [this] { return waiting_ == loads_; });
    }

    void open()
    {
        const std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

    void end()
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        changed_.notify_all();
    }

    bool is_open()
    {
        const std::lock_guard lock(mutex_);
        return open_ && !ended_;
    }

  private:
    const int loads_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int waiting_ = 0;
    bool open_ = false;
    bool ended_ = false;
};

// The answers of one kind of load.
class tally
{
  public:
    explicit tally(const char *title) : name(title)
    {
    }

    // One answer, which was right or not; the first wrong ones are told on standard error.
    void add(bool right, std::string_view what, std::string_view details = {});

    const char *const name;
    std::atomic<uint64_t> answers{0};
    std::atomic<uint64_t> wrong{0};
};

inline tally texts("texts parsed, changed, written"), documents("XML documents read"),
    containers("containers against models"), messages("messages answered"), feed("lines of the telnet feed"),
    console("console clients"), relay("connections through the relay");
inline tally *const tallies[] = {&texts, &documents, &containers, &messages, &feed, &console, &relay};

// Calls of the memory debugger's hook. Each client that left the console costs one.
inline std::atomic<uint64_t> faults{0};

// What the sampler logs so that clients of the feed that have left are noticed.
inline constexpr const char *settling_text = "settling";

using random_source = std::mt19937_64;

inline unsigned below(random_source &random, uint64_t count)
{
    return static_cast<unsigned>(random() % count);
}

// ---- Sockets

// A descriptor that is closed at the end.
class descriptor
{
  public:
    explicit descriptor(int fd) : fd_(fd)
    {
    }
    ~descriptor();
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    int get() const
    {
        return fd_;
    }

  private:
    int fd_;
};

// A connection to a port of 127.0.0.1, or -1 when there is none for some seconds.
int connect_to(unsigned int port);
// A TCP port that nobody uses.
unsigned int free_port();
bool send_all(int fd, const void *bytes, size_t size);
bool receive_all(int fd, void *bytes, size_t size);
// Whether there is something to read, within so many milliseconds.
bool has_input(int fd, int timeout_ms);

// ---- The loads: each goes round until the gate ends it

void run_texts(gate &gate, uint64_t seed);
void run_documents(gate &gate, uint64_t seed);
void run_containers(gate &gate, uint64_t seed);
void run_messages(gate &gate, uint64_t seed);
void run_log_lines(gate &gate, uint64_t seed);
void run_feed_clients(gate &gate, uint64_t seed, unsigned int port);
void run_console_clients(gate &gate, uint64_t seed, unsigned int port);
void run_relay_clients(gate &gate, uint64_t seed, unsigned int port);

// Both ends of a relay in this process, the channel between them, and the GUI server on port 8008.
class relay_ends
{
  public:
    explicit relay_ends(unsigned int port);
    ~relay_ends();
    relay_ends(const relay_ends &) = delete;
    relay_ends &operator=(const relay_ends &) = delete;
    bool is_running() const;

  private:
    struct parts;
    parts *parts_;
};

} // namespace soak

#endif
