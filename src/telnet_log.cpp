// Telnet log. A feed has one listener thread, which puts clients into a list; whoever logs sends to them and
// takes out those that failed.
//
// The lock guards the list and the listening socket's number. The socket is closed once the thread has ended,
// so that the number can't come to mean another file while the thread still accepts on it; a socket that was
// shut down accepts no more, also when the thread comes to accept only later.

#include "telnet_log.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <qvlib/log.h>
#include <qvlib/reference.h>
#include <qvlib/telnet_log.h>

#include "guard.h"
#include "send_whole.h"
#include "threads.h"

namespace
{

constexpr int feed_backlog = 2;
constexpr int shutdown_attempts = 3;
constexpr size_t time_size = 26;                     // of ctime_r
constexpr size_t text_limit = 1022;                  // a text of 1021 bytes and its terminator
constexpr size_t feed_message_size = 2 + text_limit; // ": ", the text and a line feed

struct feed_client {
    int socket;
    feed_client *next, *prev;
};

struct feed {
    feed_client clients; // list head, its socket unused
    std::atomic<int> running;
    pthread_mutex_t lock;
    int listener; // -1 until it listens
    unsigned int port;
    pthread_t thread;
    std::atomic<uint32_t> stop_at; // see send_patience
};

// Holds an allocated block.
class block_guard
{
  public:
    explicit block_guard(void *block) : block_(block)
    {
    }
    ~block_guard()
    {
        free(block_);
    }
    block_guard(const block_guard &) = delete;
    block_guard &operator=(const block_guard &) = delete;

    char *text() const
    {
        return static_cast<char *>(block_);
    }

  private:
    void *block_;
};

int open_listener(unsigned int port)
{
    if (port > UINT16_MAX)
        return -1;
    qv::fd_guard fd(socket(AF_INET, SOCK_STREAM, 0));
    if (fd.get() < 0)
        return -1;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd.get(), feed_backlog) != 0)
        return -1;
    return fd.release();
}

// Hands the listening socket to the feed; false when it is being stopped already, and nobody would wake the
// thread.
bool publish_listener(feed *log, qv::fd_guard &fd)
{
    qv::mutex_guard lock(log->lock);
    if (!log->running)
        return false;
    log->listener = fd.release();
    return true;
}

// Whether nobody listens is looked at without the lock.
void set_next(feed_client *client, feed_client *next)
{
    __atomic_store_n(&client->next, next, __ATOMIC_RELAXED);
}

bool has_clients(feed *log)
{
    return __atomic_load_n(&log->clients.next, __ATOMIC_RELAXED) != &log->clients;
}

// Takes one client; false at a failure, which is how stopping ends the thread.
bool take_client(feed *log, int listener)
{
    qv::fd_guard conn(accept(listener, nullptr, nullptr));
    if (conn.get() < 0)
        return false;
    auto *client = static_cast<feed_client *>(calloc(1, sizeof(feed_client)));
    if (!client)
        return false;
    client->socket = conn.release();

    qv::mutex_guard lock(log->lock);
    client->next = log->clients.next;
    client->prev = &log->clients;
    client->next->prev = client;
    set_next(&log->clients, client);
    return true;
}

void *listen_for_clients(void *handle)
{
    auto *log = static_cast<feed *>(handle);
    qvthread_setname("qvl-tellog");
    qv::fd_guard fd(open_listener(log->port));
    const int listener = fd.get();
    if (listener < 0 || !publish_listener(log, fd))
        return nullptr;
    while (log->running && take_client(log, listener)) {
    }
    return nullptr;
}

// Closes and frees a client, with the lock held.
void drop_client(feed_client *client)
{
    set_next(client->prev, client->next);
    client->next->prev = client->prev;
    close(client->socket);
    free(client);
}

// Sends a line, of the time, the label and the message, to every client, in list order.
void send_line(feed *log, const std::array<iovec, 3> &line)
{
    qv::mutex_guard lock(log->lock);
    qv::send_patience patience(log->stop_at);
    for (feed_client *client = log->clients.next; client != &log->clients;) {
        feed_client *following = client->next;
        std::array<iovec, 3> pieces = line;
        if (!qv::send_whole(client->socket, pieces.data(), pieces.size(), patience))
            drop_client(client);
        client = following;
    }
}

// Writes ": ", the text, as far as there is room for it, and a line feed. Returns the length of all.
QV_PRINTF(2, 0) size_t write_message(char *message, const char *fmt, va_list ap)
{
    char *text = static_cast<char *>(memcpy(message, ": ", 3)) + 2;
    const int length = vsnprintf(text, text_limit, fmt, ap);
    char *end = text + (length < 0 ? strnlen(text, text_limit - 1)
                                   : std::min(static_cast<size_t>(length), text_limit - 1));
    *end++ = '\n';
    return static_cast<size_t>(end - message);
}

// Ends the thread's accept, which nothing else does: hence several attempts.
void end_accept(feed *log)
{
    qv::mutex_guard lock(log->lock);
    for (int attempt = 0; log->listener >= 0 && attempt < shutdown_attempts; attempt++) {
        if (shutdown(log->listener, SHUT_RDWR) == 0)
            return;
    }
}

} // namespace

#if defined(QVLIB_FIRMWARE)

size_t qv::feed_time(time_t now, char *text)
{
    if (!ctime_r(&now, text))
        return 0;
    const size_t length = strlen(text);
    text[length - 1] = ' ';
    return length;
}

#else

// By hand: ctime_r would take a tenth of a line's time.
size_t qv::feed_time(time_t now, char *text)
{
    constexpr char days[] = "SunMonTueWedThuFriSat", months[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    tm local = {};
    if (!localtime_r(&now, &local) || local.tm_year < -1900 || local.tm_year > 9999 - 1900)
        return 0; // as ctime_r has no text for more digits
    char *at = text;
    const auto put_name = [&at](const char *name) {
        at = static_cast<char *>(memcpy(at, name, 3)) + 3;
        *at++ = ' ';
    };
    const auto put_two = [&at](int number, char zero = '0') {
        *at++ = number < 10 ? zero : static_cast<char>('0' + number / 10);
        *at++ = static_cast<char>('0' + number % 10);
    };
    put_name(days + 3 * local.tm_wday);
    put_name(months + 3 * local.tm_mon);
    put_two(local.tm_mday, ' ');
    char before = ' ';
    for (const int part : {local.tm_hour, local.tm_min, local.tm_sec}) {
        *at++ = std::exchange(before, ':');
        put_two(part);
    }
    *at++ = ' ';
    put_two((local.tm_year + 1900) / 100);
    put_two((local.tm_year + 1900) % 100);
    *at++ = ' ';
    return static_cast<size_t>(at - text);
}

#endif

void qv::silence_feed(void *handle)
{
    auto *log = static_cast<feed *>(handle);
    log->running = 0;
    log->stop_at = clock_ms();
}

void *tellog_start(unsigned int port)
{
    auto *log = static_cast<feed *>(calloc(1, sizeof(feed)));
    if (!log)
        return nullptr;
    log->port = port;
    log->running = 1;
    log->clients.next = log->clients.prev = &log->clients;
    log->listener = -1;
    pthread_mutex_init(&log->lock, nullptr);
    // Without a thread the handle is kept, as the header says.
    return qv::start_thread(&log->thread, false, listen_for_clients, log, {}) == 0 ? log : nullptr;
}

int tellog_finish(void *handle)
{
    if (!handle)
        return -1;
    auto *log = static_cast<feed *>(handle);
    qv::silence_feed(log);
    end_accept(log);
    pthread_join(log->thread, nullptr);
    if (log->listener >= 0)
        close(log->listener);
    {
        qv::mutex_guard lock(log->lock);
        while (has_clients(log))
            drop_client(log->clients.next);
    }
    pthread_mutex_destroy(&log->lock);
    free(log);
    return 0;
}

void qv_vtellog(void *handle, int level, const char *fmt, va_list ap)
{
    auto *log = static_cast<feed *>(handle);
    if (!log || !fmt || !log->running || !has_clients(log))
        return;
    const qv::errno_guard unchanged;
    const int error = errno; // the text may contain %m
    const block_guard message(malloc(feed_message_size));
    const block_guard when(malloc(time_size));
    const block_guard label(strdup(log_level(level)));
    if (!message.text() || !when.text() || !label.text())
        return;

    errno = error;
    const size_t message_length = write_message(message.text(), fmt, ap);
    send_line(log, {{{when.text(), qv::feed_time(time(nullptr), when.text())},
                     {label.text(), strlen(label.text())},
                     {message.text(), message_length}}});
}
