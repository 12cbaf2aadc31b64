// What a line of logging costs beside what it can't do without: a test of the level when it is filtered out,
// one write of the finished line to the console, a pseudo-terminal, or to each client of the feed.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>

#include <qvlib/log.h>

#include "log_limit.h"
#include "pairs.h"

namespace
{

using namespace bench;

[[noreturn]] void give_up(const char *what)
{
    perror(what);
    exit(1);
}

void log_line(int level, unsigned int port)
{
    __qv_log(level, "port %u: link %s, speed %d", port % 48, "up", 16);
}

// ---- Filtered out

void filtered(benchmark::State &state)
{
    constexpr unsigned int lines = 20000;
    qv_log_init("bench", QV_LOG_ERROR, 0, LOG_USER, 0);
    measure_pairs(
        state, lines,
        [] {
            return time_of([] {
                for (unsigned int i = 0; i < lines; i++)
                    log_line(QV_LOG_DEBUG, i);
            });
        },
        [] {
            return time_of([] {
                for (unsigned int i = 0; i < lines; i++)
                    log_limit(QV_LOG_DEBUG, "port %u: link %s, speed %d", i % 48, "up", 16);
            });
        });
    qv_log_exit();
}
BENCHMARK(filtered)->UseManualTime()->Iterations(200);

// ---- What was written

// All that can be read now.
std::string drain(int fd)
{
    std::string text;
    char piece[65536];
    for (ssize_t got; (got = read(fd, piece, sizeof piece)) > 0;)
        text.append(piece, static_cast<size_t>(got));
    return text;
}

void make_nonblocking(int fd)
{
    if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) != 0)
        give_up("fcntl");
}

// ---- The console

void console(benchmark::State &state)
{
    constexpr unsigned int lines = 40; // a terminal holds no more than 4096 bytes
    int screen, terminal;
    if (openpty(&screen, &terminal, nullptr, nullptr, nullptr) != 0)
        give_up("openpty");
    termios raw;
    tcgetattr(terminal, &raw);
    cfmakeraw(&raw);
    tcsetattr(terminal, TCSANOW, &raw);
    make_nonblocking(screen);
    const int error_output = dup(STDERR_FILENO);
    if (access("/dev/log", F_OK) == 0)
        fprintf(stderr, "log_bench: each line goes to the system log, too\n");
    qv_log_init("bench", QV_LOG_INFO, LOG_PERROR, LOG_USER, 0);
    dup2(terminal, STDERR_FILENO);
    log_line(QV_LOG_INFO, 7);
    const std::string line = drain(screen);
    measure_pairs(
        state, lines,
        [&] {
            const double time = time_of([] {
                for (unsigned int i = 0; i < lines; i++)
                    log_line(QV_LOG_INFO, i);
            });
            drain(screen);
            return time;
        },
        [&] {
            const double time = time_of([&] {
                for (unsigned int i = 0; i < lines; i++)
                    if (write(STDERR_FILENO, line.data(), line.size()) < 0)
                        give_up("write");
            });
            drain(screen);
            return time;
        });
    dup2(error_output, STDERR_FILENO);
    qv_log_exit();
    close(error_output);
    close(terminal);
    close(screen);
    if (line.find("link up") == std::string::npos)
        give_up("no line came to the console");
}
BENCHMARK(console)->UseManualTime()->Iterations(300);

// ---- The feed

sockaddr_in local(unsigned int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A listening socket at a port that is free, which is set.
int listen_somewhere(unsigned int *port)
{
    sockaddr_in address = local(0);
    socklen_t size = sizeof address;
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), size) != 0 || listen(listener, 16) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size) != 0)
        give_up("listen");
    *port = ntohs(address.sin_port);
    return listener;
}

int connect_to(unsigned int port)
{
    const sockaddr_in address = local(port);
    for (int attempt = 0; attempt < 100; attempt++) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return fd;
        close(fd);
        usleep(10000);
    }
    give_up("connect");
}

void feed(benchmark::State &state)
{
    constexpr unsigned int lines = 100;
    const auto count = static_cast<size_t>(state.range(0));
    unsigned int port, bare_port;
    close(listen_somewhere(&port));
    const int bare_listener = listen_somewhere(&bare_port);
    qv_log_init("bench", QV_LOG_EMERG, 0, LOG_USER, port);
    std::vector<int> clients, bare_clients, bare_servers;
    for (size_t i = 0; i < count; i++) {
        clients.push_back(connect_to(port));
        bare_clients.push_back(connect_to(bare_port));
        bare_servers.push_back(accept(bare_listener, nullptr, nullptr));
    }
    // Clients have come when they get lines.
    for (const int client : clients) {
        pollfd input = {client, POLLIN, 0};
        for (int attempt = 0; attempt < 500 && poll(&input, 1, 10) == 0; attempt++)
            log_line(QV_LOG_TELNET, 7);
        if (input.revents == 0)
            give_up("no line came to a client");
        make_nonblocking(client);
    }
    for (const int client : bare_clients)
        make_nonblocking(client);
    usleep(50000);
    for (const int client : clients)
        drain(client);
    log_line(QV_LOG_TELNET, 7);
    usleep(50000);
    const std::string line = drain(clients[0]);
    if (line.find("link up") == std::string::npos)
        give_up("a line did not come");
    // Line by line, as they come: the clients have read the last one.
    const auto burst = [](const std::vector<int> &readers, auto send) {
        double time = 0;
        for (unsigned int i = 0; i < lines; i++) {
            time += time_of([&] { send(i); });
            for (const int reader : readers)
                drain(reader);
        }
        return time;
    };
    measure_pairs(
        state, lines, [&] { return burst(clients, [](unsigned int i) { log_line(QV_LOG_TELNET, i); }); },
        [&] {
            return burst(bare_clients, [&](unsigned int) {
                for (const int server : bare_servers)
                    if (write(server, line.data(), line.size()) < 0)
                        give_up("write");
            });
        });
    for (const std::vector<int> *fds : {&clients, &bare_clients, &bare_servers})
        for (const int fd : *fds)
            close(fd);
    close(bare_listener);
    qv_log_exit();
}
BENCHMARK(feed)->UseManualTime()->Arg(1)->Arg(8)->Iterations(60);

} // namespace
