// The system calls of the library, each of which fails on demand: the library under test is a copy whose
// calls go to failing_NAME (tests/system_calls.txt). An error of 0 is a short count, of one byte where bytes
// pass. Include it in the source of a test that is built with CALLS.
#ifndef QVLIB_TESTS_SYSTEM_CALLS_H
#define QVLIB_TESTS_SYSTEM_CALLS_H

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <netdb.h>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <set>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "failing_calls.h"
#include "listener_peers.h"
#include "log_lines.h"

namespace system_calls
{

using failing_calls::any;
using failing_calls::error_of;

inline std::mutex lists_mutex;
inline std::set<addrinfo *> lists;             // given out and not released
inline std::atomic<int> last_socket = -1;      // of socket()
inline std::atomic<void *> last_failed_buffer; // of a recv that failed
inline std::atomic<FILE *> broken_stream;      // on which reading failed
inline std::atomic<bool> terminals;            // whether every file is one

// How many address lists were kept, which this releases.
inline size_t release_lists()
{
    const std::lock_guard<std::mutex> lock(lists_mutex);
    const size_t count = lists.size();
    for (addrinfo *list : lists)
        freeaddrinfo(list);
    lists.clear();
    return count;
}

inline bool fails(const char *name, int detail, const void *place)
{
    const std::optional<int> error = error_of(name, detail, place);
    if (error)
        errno = *error;
    return error.has_value();
}

// Of the resolver: its own code, or EAI_SYSTEM with an error number.
inline int resolver_code(int error)
{
    if (error < 0)
        return error;
    errno = error;
    return EAI_SYSTEM;
}

// A message with no more than its first byte, if it has one.
class short_message
{
  public:
    explicit short_message(const msghdr *message) : message_(*message)
    {
        for (size_t i = 0; i < message->msg_iovlen && piece_.iov_len == 0; i++)
            piece_ = message->msg_iov[i];
        piece_.iov_len = piece_.iov_len > 0 ? 1 : 0;
        message_.msg_iov = &piece_;
        message_.msg_iovlen = 1;
    }
    msghdr *get()
    {
        return &message_;
    }

  private:
    iovec piece_ = {};
    msghdr message_;
};

#define PLACE __builtin_return_address(0)

extern "C" {

int failing_socket(int domain, int type, int protocol)
{
    const int fd = fails("socket", domain, PLACE) ? -1 : socket(domain, type, protocol);
    last_socket = fd;
    return fd;
}

int failing_bind(int fd, const sockaddr *address, socklen_t size)
{
    return fails("bind", any, PLACE) ? -1 : bind(fd, address, size);
}

int failing_listen(int fd, int backlog)
{
    return fails("listen", any, PLACE) ? -1 : listen(fd, backlog);
}

int failing_accept(int fd, sockaddr *address, socklen_t *size)
{
    return fails("accept", any, PLACE) ? -1 : accept(fd, address, size);
}

int failing_connect(int fd, const sockaddr *address, socklen_t size)
{
    return fails("connect", any, PLACE) ? -1 : connect(fd, address, size);
}

int failing_getsockname(int fd, sockaddr *address, socklen_t *size)
{
    return fails("getsockname", any, PLACE) ? -1 : getsockname(fd, address, size);
}

int failing_getpeername(int fd, sockaddr *address, socklen_t *size)
{
    return fails("getpeername", any, PLACE) ? -1 : getpeername(fd, address, size);
}

int failing_setsockopt(int fd, int level, int option, const void *value, socklen_t size)
{
    return fails("setsockopt", option, PLACE) ? -1 : setsockopt(fd, level, option, value, size);
}

int failing_getsockopt(int fd, int level, int option, void *value, socklen_t *size)
{
    return fails("getsockopt", option, PLACE) ? -1 : getsockopt(fd, level, option, value, size);
}

int failing_fcntl(int fd, int command, ...)
{
    va_list ap;
    va_start(ap, command);
    const long argument = va_arg(ap, long);
    va_end(ap);
    return fails("fcntl", command, PLACE) ? -1 : fcntl(fd, command, argument);
}

// A shutdown of the kernel's that fails does nothing.
int failing_shutdown(int fd, int how)
{
    return fails("shutdown", how, PLACE) ? -1 : shutdown(fd, how);
}

// The kernel has closed the descriptor also when close fails.
int failing_close(int fd)
{
    const int result = close(fd);
    return fails("close", any, PLACE) ? -1 : result;
}

int failing_poll(pollfd *files, nfds_t count, int timeout)
{
    return fails("poll", any, PLACE) ? -1 : poll(files, count, timeout);
}

int failing_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **list)
{
    if (const std::optional<int> error = error_of("getaddrinfo", any, PLACE))
        return resolver_code(*error);
    const int code = getaddrinfo(node, service, hints, list);
    if (code == 0) {
        const std::lock_guard<std::mutex> lock(lists_mutex);
        lists.insert(*list);
    }
    return code;
}

void failing_freeaddrinfo(addrinfo *list)
{
    const std::lock_guard<std::mutex> lock(lists_mutex);
    lists.erase(list);
    freeaddrinfo(list);
}

int failing_getnameinfo(const sockaddr *address, socklen_t size, char *host, socklen_t hostlen, char *service,
                        socklen_t servicelen, int flags)
{
    if (const std::optional<int> error = error_of("getnameinfo", any, PLACE))
        return resolver_code(*error);
    return getnameinfo(address, size, host, hostlen, service, servicelen, flags);
}

ssize_t failing_send(int fd, const void *data, size_t size, int flags)
{
    const bool fail = fails("send", any, PLACE);
    if (fail && errno != 0)
        return -1;
    return send(fd, data, fail && size > 1 ? 1 : size, flags);
}

ssize_t failing_sendmsg(int fd, const msghdr *message, int flags)
{
    const bool fail = fails("sendmsg", any, PLACE);
    if (fail && errno != 0)
        return -1;
    return sendmsg(fd, fail ? short_message(message).get() : message, flags);
}

// A short count is the stream's end.
ssize_t failing_recv(int fd, void *data, size_t size, int flags)
{
    if (fails("recv", flags, PLACE)) {
        last_failed_buffer = data;
        return errno == 0 ? 0 : -1;
    }
    return recv(fd, data, size, flags);
}

ssize_t failing_recvmsg(int fd, msghdr *message, int flags)
{
    const bool fail = fails("recvmsg", any, PLACE);
    if (fail && errno != 0)
        return -1;
    if (!fail)
        return recvmsg(fd, message, flags);
    short_message cut(message);
    return recvmsg(fd, cut.get(), flags);
}

ssize_t failing_write(int fd, const void *data, size_t size)
{
    const bool fail = fails("write", any, PLACE);
    if (fail && errno != 0)
        return -1;
    return write(fd, data, fail && size > 1 ? 1 : size);
}

FILE *failing_fopen(const char *path, const char *mode)
{
    return fails("fopen", any, PLACE) ? nullptr : fopen(path, mode);
}

int failing_fclose(FILE *stream)
{
    FILE *expected = stream;
    broken_stream.compare_exchange_strong(expected, nullptr);
    const int result = fclose(stream);
    return fails("fclose", any, PLACE) ? EOF : result;
}

int failing_fscanf(FILE *stream, const char *format, ...)
{
    if (fails("fscanf", any, PLACE)) {
        broken_stream = errno != 0 ? stream : nullptr;
        return EOF;
    }
    va_list ap;
    va_start(ap, format);
    const int converted = vfscanf(stream, format, ap);
    va_end(ap);
    return converted;
}

// Its other names, by the C library's version.
int failing_isoc99_fscanf(FILE *stream, const char *format, ...) __attribute__((alias("failing_fscanf")));
int failing_isoc23_fscanf(FILE *stream, const char *format, ...) __attribute__((alias("failing_fscanf")));

size_t failing_fread(void *data, size_t size, size_t count, FILE *stream)
{
    if (fails("fread", any, PLACE)) {
        broken_stream = stream;
        return 0;
    }
    return fread(data, size, count, stream);
}

int failing_getc(FILE *stream)
{
    if (fails("getc", any, PLACE)) {
        broken_stream = stream;
        return EOF;
    }
    return getc(stream);
}

int failing_ferror(FILE *stream)
{
    return broken_stream == stream || ferror(stream);
}

void failing_clearerr(FILE *stream)
{
    if (broken_stream == stream)
        broken_stream = nullptr;
    clearerr(stream);
}

int failing_isatty(int fd)
{
    if (fails("isatty", any, PLACE))
        return 0;
    return terminals || isatty(fd);
}

size_t failing_fwrite(const void *data, size_t size, size_t count, FILE *stream)
{
    return fails("fwrite", any, PLACE) ? 0 : fwrite(data, size, count, stream);
}

int failing_fflush(FILE *stream)
{
    return fails("fflush", any, PLACE) ? EOF : fflush(stream);
}

int failing_vfprintf(FILE *stream, const char *format, va_list ap)
{
    return fails("vfprintf", any, PLACE) ? -1 : vfprintf(stream, format, ap);
}

int failing_printf(const char *format, ...)
{
    if (fails("printf", any, PLACE))
        return -1;
    va_list ap;
    va_start(ap, format);
    const int length = vprintf(format, ap);
    va_end(ap);
    return length;
}

int failing_puts(const char *text)
{
    return fails("puts", any, PLACE) ? EOF : puts(text);
}

int failing_stat(const char *path, struct stat *status)
{
    return fails("stat", any, PLACE) ? -1 : stat(path, status);
}

int failing_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                           void *argument)
{
    const std::optional<int> error = error_of("pthread_create", any, PLACE);
    return error ? *error : pthread_create(thread, attributes, body, argument);
}

int failing_pthread_kill(pthread_t thread, int number)
{
    const std::optional<int> error = error_of("pthread_kill", any, PLACE);
    return error ? *error : pthread_kill(thread, number);
}

int failing_pthread_tryjoin_np(pthread_t thread, void **result)
{
    const std::optional<int> error = error_of("pthread_tryjoin_np", any, PLACE);
    return error ? *error : pthread_tryjoin_np(thread, result);
}

// The library names threads alone, which needs one argument.
int failing_prctl(int option, ...)
{
    va_list ap;
    va_start(ap, option);
    const char *argument = va_arg(ap, const char *);
    va_end(ap);
    return fails("prctl", option, PLACE) ? -1 : prctl(option, argument);
}

int failing_sigaction(int number, const struct sigaction *action, struct sigaction *before)
{
    return fails("sigaction", any, PLACE) ? -1 : sigaction(number, action, before);
}

int failing_sigtimedwait(const sigset_t *set, siginfo_t *info, const timespec *timeout)
{
    return fails("sigtimedwait", any, PLACE) ? -1 : sigtimedwait(set, info, timeout);
}

int failing_nanosleep(const timespec *time, timespec *left)
{
    return fails("nanosleep", any, PLACE) ? -1 : nanosleep(time, left);
}

int failing_clock_gettime(clockid_t clock, timespec *time)
{
    return fails("clock_gettime", any, PLACE) ? -1 : clock_gettime(clock, time);
}
}

#undef PLACE

// ---- Failures

constexpr int short_count = 0;

// What each call may fail with.
inline const std::map<std::string, std::vector<int>> errors = {
    {"socket", {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTONOSUPPORT}},
    {"bind", {EACCES, EADDRINUSE, EADDRNOTAVAIL, EINVAL, ENOBUFS, ENOMEM, EPERM}},
    {"listen", {EADDRINUSE, ENOBUFS, ENOMEM, EOPNOTSUPP, EPERM}},
    {"accept",
     {EAGAIN, ECONNABORTED, EINTR, EINVAL, EMFILE, ENETDOWN, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO}},
    {"connect",
     {EACCES, EADDRINUSE, EADDRNOTAVAIL, EAGAIN, ECONNREFUSED, ECONNRESET, EHOSTUNREACH, EINTR, ENETUNREACH,
      ENOBUFS, ENOMEM, EPERM, ETIMEDOUT}},
    {"getsockname", {ENOBUFS, ENOMEM}},
    {"getpeername", {ENOBUFS, ENOMEM, ENOTCONN}},
    {"setsockopt", {EINVAL, ENOBUFS, ENODEV, ENOMEM, ENOPROTOOPT, EPERM}},
    {"getsockopt", {EINVAL, ENOBUFS, ENOMEM, ENOPROTOOPT}},
    {"fcntl", {EAGAIN, EINTR, EINVAL, ENOMEM, EPERM}},
    {"shutdown", {EINTR, ENOBUFS, ENOMEM, ENOTCONN}},
    {"close", {EINTR, EIO, ENOSPC}},
    {"poll", {EINTR, EINVAL, ENOMEM}},
    {"getaddrinfo", {EAI_AGAIN, EAI_FAIL, EAI_FAMILY, EAI_MEMORY, EAI_NONAME, EAI_SERVICE, EMFILE, ENOMEM}},
    {"getnameinfo", {EAI_AGAIN, EAI_FAIL, EAI_FAMILY, EAI_MEMORY, EAI_OVERFLOW, EMFILE, ENOMEM}},
    {"send",
     {EAGAIN, ECONNRESET, EHOSTUNREACH, EINTR, ENETUNREACH, ENOBUFS, ENOMEM, EPERM, EPIPE, ETIMEDOUT,
      short_count}},
    {"sendmsg",
     {EAGAIN, ECONNREFUSED, ECONNRESET, EHOSTUNREACH, EINTR, EMSGSIZE, ENETUNREACH, ENOBUFS, ENOMEM, EPERM,
      EPIPE, ETIMEDOUT}},
    {"recv", {EAGAIN, ECONNREFUSED, ECONNRESET, EHOSTUNREACH, EINTR, EIO, ENOBUFS, ENOMEM, ETIMEDOUT}},
    {"recvmsg", {EAGAIN, ECONNREFUSED, EINTR, ENOBUFS, ENOMEM, ETIMEDOUT}},
    {"write", {EAGAIN, ECONNRESET, EDQUOT, EFBIG, EINTR, EIO, ENOBUFS, ENOMEM, ENOSPC, EPIPE}},
    {"fopen", {EACCES, EINTR, EMFILE, ENFILE, ENOENT, ENOMEM}},
    {"fscanf", {EAGAIN, EINTR, EIO, ENODEV, ENOMEM}},
    {"fclose", {EINTR, EIO}},
    {"fread", {EAGAIN, ECONNRESET, EIO, ENOMEM}},
    {"getc", {EAGAIN, ECONNRESET, EIO, ENOMEM}},
    {"isatty", {EBADF, EINVAL, ENOTTY}},
    {"fwrite", {EAGAIN, EINTR, EIO, ENOSPC, EPIPE}},
    {"fflush", {EAGAIN, EINTR, EIO, ENOSPC, EPIPE}},
    {"vfprintf", {EAGAIN, EINTR, EIO, ENOMEM, ENOSPC, EPIPE}},
    {"printf", {EAGAIN, EINTR, EIO, ENOMEM, ENOSPC, EPIPE}},
    {"puts", {EAGAIN, EINTR, EIO, ENOSPC, EPIPE}},
    {"stat", {EACCES, EINTR, ELOOP, ENOENT, ENOMEM, ENOTDIR}},
    {"pthread_create", {EAGAIN, ENOMEM, EPERM}},
    {"pthread_kill", {EAGAIN, ESRCH}},
    {"pthread_tryjoin_np", {EBUSY}},
    {"prctl", {EINVAL, EPERM}},
    {"sigaction", {EINVAL}},
    {"sigtimedwait", {EAGAIN, EINTR}},
    {"nanosleep", {EINTR}},
    {"clock_gettime", {EINVAL}},
};

// "Too many open files"; of the resolver when the error is negative.
inline std::string text_of(int error)
{
    return error < 0 ? gai_strerror(error) : strerror(error);
}

// Puts an error's text and number in the place of "%E" and an error number's text in the place of "%e".
inline std::string with_error(std::string line, int error)
{
    if (const size_t at = line.find("%E"); at != std::string::npos)
        line.replace(at, 2, text_of(error) + " (" + std::to_string(error) + ")");
    else if (const size_t place = line.find("%e"); place != std::string::npos)
        line.replace(place, 2, error < 0 ? "" : text_of(error));
    return line;
}

inline lines with_error(lines all, int error)
{
    for (std::string &line : all)
        line = with_error(line, error);
    return all;
}

inline std::string trace_of(const char *call, int detail, int error)
{
    return std::string(call) + (detail == any ? "" : " " + std::to_string(detail)) + ": " +
           (error == short_count ? "short" : text_of(error));
}

// Nothing stays behind of what is done while it lives, but so many descriptors and resolved address lists.
class nothing_left
{
  public:
    nothing_left() : descriptors_(failing_calls::descriptors()), threads_(peers::threads_by_now())
    {
    }
    ~nothing_left()
    {
        EXPECT_TRUE(peers::eventually([&] { return failing_calls::threads() == threads_; }))
            << failing_calls::threads() << " threads, " << threads_ << " before";
        EXPECT_TRUE(peers::eventually([&] { return failing_calls::descriptors() == descriptors_ + kept_; }))
            << failing_calls::descriptors() << " descriptors, " << descriptors_ << " before";
        EXPECT_EQ(release_lists(), lists_);
    }
    nothing_left(const nothing_left &) = delete;
    nothing_left &operator=(const nothing_left &) = delete;

    void but_descriptors(int count)
    {
        kept_ = count;
    }
    void but_lists(size_t count)
    {
        lists_ = count;
    }

  private:
    const int descriptors_, threads_;
    int kept_ = 0;
    size_t lists_ = 0;
};

// A failure of a call whatever happens besides.
template <class Body> void with_each_error(const char *call, int detail, Body body)
{
    for (const int error : errors.at(call)) {
        SCOPED_TRACE(trace_of(call, detail, error));
        const nothing_left checked;
        body(error);
    }
}

template <class Body> void with_each_error(const char *call, Body body)
{
    with_each_error(call, any, body);
}

} // namespace system_calls

#endif
