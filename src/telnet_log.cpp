// Telnet log. A feed has one listener thread, which puts clients into a list; whoever logs sends to them and
// takes out those that failed.
//
// The lock guards the list and the listening socket's number. The socket is closed once the thread has ended,
// so that the number can't come to mean another file while the thread still accepts on it; a socket that was
// shut down accepts no more, also when the thread comes to accept only later.

#include "telnet_log.h"

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
constexpr size_t time_size = 26;           // of ctime_r
constexpr size_t text_limit = 1022;        // a text of 1021 bytes and its terminator
constexpr size_t feed_message_size = 1025; // ": ", the text, a line feed and a terminator

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
    std::atomic<unsigned int> client_count; // of the list, to be read without the lock
    std::atomic<uint32_t> stop_at;          // see send_patience
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
    log->clients.next = client;
    log->client_count++;
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
void drop_client(feed *log, feed_client *client)
{
    client->prev->next = client->next;
    client->next->prev = client->prev;
    log->client_count--;
    close(client->socket);
    free(client);
}

// Sends a line to every client, in list order.
void send_line(feed *log, const char *when, const char *label, const char *message)
{
    qv::mutex_guard lock(log->lock);
    qv::send_patience patience(log->stop_at);
    for (feed_client *client = log->clients.next; client != &log->clients;) {
        feed_client *following = client->next;
        iovec pieces[] = {{const_cast<char *>(when), strlen(when)},
                          {const_cast<char *>(label), strlen(label)},
                          {const_cast<char *>(message), strlen(message)}};
        if (!qv::send_whole(client->socket, pieces, 3, patience))
            drop_client(log, client);
        client = following;
    }
}

// "Sat Nov 14 22:51:07 2026 ", in local time.
void write_time(char *text)
{
    const time_t now = time(nullptr);
    if (!ctime_r(&now, text))
        text[0] = '\0';
    if (char *end = strchr(text, '\n'))
        *end = ' ';
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
        while (log->clients.next != &log->clients)
            drop_client(log, log->clients.next);
    }
    pthread_mutex_destroy(&log->lock);
    free(log);
    return 0;
}

void qv_vtellog(void *handle, int level, const char *fmt, va_list ap)
{
    auto *log = static_cast<feed *>(handle);
    if (!log || !fmt || !log->running || log->client_count == 0)
        return;
    const qv::errno_guard unchanged;
    const int error = errno; // the text may contain %m
    const block_guard message(calloc(1, feed_message_size));
    const block_guard when(calloc(1, time_size));
    const block_guard label(strdup(log_level(level)));
    if (!message.text() || !when.text() || !label.text())
        return;

    memcpy(message.text(), ": ", 2);
    errno = error;
    vsnprintf(message.text() + 2, text_limit, fmt, ap);
    memcpy(message.text() + strlen(message.text()), "\n", 2);
    write_time(when.text());
    send_line(log, when.text(), label.text(), message.text());
}
