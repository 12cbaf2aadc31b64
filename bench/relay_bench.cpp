// The relay, beside a plain copy of TCP streams over as many hops: socat twice, or where that is not
// installed (the label says so) a read and write loop with a thread per direction, twice.
//
//   client -- local end == channel, one TCP connection == remote end -- server on port 8008
//   client -- copy ------- TCP connection per client ---- copy -------- server on port 8008
//
// Each end, each copy and the server is a process. Both roads are measured in the same run, burst by burst in
// turn, so that what else the machine does meets both alike. MB/s and us are the relay's, peer_MB/s and
// peer_us the copy's; `ratio` is the median over the bursts of the relay's rate divided by the copy's, or for
// round trips of its time divided by the copy's. What arrives is checked before the clock starts for the
// first time.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>
#include <qvlib/remote_gui.h>

namespace
{

constexpr int server_port = 8008;
constexpr size_t burst_bytes = 128 << 20;
constexpr size_t chunk = 64 << 10;
constexpr size_t message_size = 32;
constexpr int trips_per_burst = 1000;

[[noreturn]] void give_up(const char *what)
{
    perror(what);
    exit(1);
}

double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// ---- Sockets

sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int listen_on(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0), on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = loopback(port);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 || listen(fd, 512) != 0)
        give_up("port");
    return fd;
}

int connect_to(int port)
{
    const sockaddr_in address = loopback(port);
    for (int tries = 0; tries < 1000; tries++) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0), on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return fd;
        close(fd);
        usleep(10000);
    }
    give_up("connect");
}

int accept_one(int listener)
{
    const int fd = accept(listener, nullptr, nullptr), on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

int free_port()
{
    const int fd = listen_on(0);
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    close(fd);
    return ntohs(address.sin_port);
}

bool send_whole(int fd, const void *bytes, size_t size)
{
    const char *at = static_cast<const char *>(bytes);
    while (size > 0) {
        const ssize_t sent = send(fd, at, size, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        at += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

bool receive_whole(int fd, void *bytes, size_t size)
{
    return recv(fd, bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

// Runs a body in a process that ends with this one.
template <class Body> void start_process(Body body)
{
    fflush(nullptr);
    if (fork() != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGUSR1, [](int) {});
    body();
    _exit(0);
}

// ---- The server: answers a number with so many bytes, 0 by echoing messages

char byte_at(uint64_t position)
{
    return static_cast<char>(position * 31 >> 3);
}

void serve(int fd)
{
    std::vector<char> bytes(chunk);
    for (size_t i = 0; i < chunk; i++)
        bytes[i] = byte_at(i);
    uint64_t wanted;
    while (receive_whole(fd, &wanted, sizeof wanted)) {
        char message[message_size];
        while (wanted == 0 && receive_whole(fd, message, message_size) &&
               send_whole(fd, message, message_size)) {
        }
        for (uint64_t sent = 0; sent < wanted; sent += chunk)
            if (!send_whole(fd, bytes.data(), std::min<uint64_t>(chunk, wanted - sent)))
                break;
    }
    close(fd);
}

void run_server()
{
    const int listener = listen_on(server_port);
    for (int fd; (fd = accept_one(listener)) >= 0;)
        std::thread(serve, fd).detach();
}

// ---- The relay's ends

struct relay_channel {
    int fd = -1;
    std::mutex sending;

    static int send(rgui_pdu *pdu, size_t length, void *cookie)
    {
        auto *self = static_cast<relay_channel *>(cookie);
        const std::lock_guard<std::mutex> lock(self->sending);
        const bool sent = send_whole(self->fd, pdu, length);
        free(pdu);
        return sent ? 0 : -1;
    }
    // Hands what arrives to the session, where it stands.
    void receive(rgui_session *session) const
    {
        std::vector<char> buffer(4 * chunk);
        size_t filled = 0;
        for (ssize_t got; (got = recv(fd, buffer.data() + filled, buffer.size() - filled, 0)) > 0;) {
            filled += static_cast<size_t>(got);
            size_t at = 0;
            for (uint32_t size; filled - at >= sizeof(rgui_pdu); at += sizeof(rgui_pdu) + size) {
                memcpy(&size, buffer.data() + at + offsetof(rgui_pdu, size), sizeof size);
                if (filled - at < sizeof(rgui_pdu) + size)
                    break;
                const void *pdu = buffer.data() + at;
                rgui_data_rx(session, static_cast<const rgui_pdu *>(pdu), sizeof(rgui_pdu) + size);
            }
            memmove(buffer.data(), buffer.data() + at, filled - at);
            filled -= at;
        }
    }
};

void run_remote_end(int channel_port)
{
    relay_channel channel;
    channel.fd = accept_one(listen_on(channel_port));
    channel.receive(rgui_start_remote(relay_channel::send, &channel));
}

void run_local_end(int channel_port, int port)
{
    relay_channel channel;
    channel.fd = connect_to(channel_port);
    channel.receive(
        rgui_start_local("127.0.0.1", std::to_string(port).c_str(), nullptr, relay_channel::send, &channel));
}

// ---- The copy

bool has_socat()
{
    return system("command -v socat >/dev/null") == 0;
}

void run_socat(int port, int next_port)
{
    const std::string from =
        "TCP4-LISTEN:" + std::to_string(port) + ",bind=127.0.0.1,reuseaddr,fork,nodelay,backlog=512";
    const std::string to = "TCP4:127.0.0.1:" + std::to_string(next_port) + ",nodelay";
    execlp("socat", "socat", from.c_str(), to.c_str(), nullptr);
    give_up("socat");
}

void copy_stream(int from, int to)
{
    std::vector<char> buffer(chunk);
    for (ssize_t got; (got = read(from, buffer.data(), buffer.size())) > 0;)
        if (!send_whole(to, buffer.data(), static_cast<size_t>(got)))
            break;
    shutdown(to, SHUT_WR);
}

void run_copy(int port, int next_port)
{
    const int listener = listen_on(port);
    for (int fd; (fd = accept_one(listener)) >= 0;)
        std::thread([fd, next_port] {
            const int next = connect_to(next_port);
            std::thread back(copy_stream, next, fd);
            copy_stream(fd, next);
            back.join();
            close(fd);
            close(next);
        }).detach();
}

// ---- Both roads, started once

struct roads {
    int relay_port = free_port(), copy_port = free_port();
    bool by_socat = has_socat();

    roads()
    {
        const int channel_port = free_port(), middle_port = free_port();
        start_process(run_server);
        start_process([&] { run_remote_end(channel_port); });
        start_process([&] { run_local_end(channel_port, relay_port); });
        const auto copy = by_socat ? run_socat : run_copy;
        start_process([&] { copy(middle_port, server_port); });
        start_process([&] { copy(copy_port, middle_port); });
        close(connect_to(server_port));
    }
};

const roads &both()
{
    static const roads started;
    return started;
}

// ---- Measuring

// Connections to the server over one road.
class clients
{
  public:
    clients(int port, size_t count)
    {
        for (size_t i = 0; i < count; i++)
            fds_.push_back(connect_to(port));
    }
    ~clients()
    {
        for (const int fd : fds_)
            close(fd);
    }
    clients(const clients &) = delete;
    clients &operator=(const clients &) = delete;

    // Downloads over all connections at once; the time it took.
    double download(bool checked)
    {
        const uint64_t each = burst_bytes / fds_.size();
        const double start = now();
        std::vector<pollfd> inputs;
        for (const int fd : fds_) {
            if (!send_whole(fd, &each, sizeof each))
                give_up("request");
            inputs.push_back({fd, POLLIN, 0});
        }
        std::vector<uint64_t> received(fds_.size());
        std::vector<char> buffer(4 * chunk);
        for (size_t left = fds_.size(); left > 0;) {
            poll(inputs.data(), inputs.size(), -1);
            for (size_t i = 0; i < inputs.size(); i++) {
                if (inputs[i].revents == 0)
                    continue;
                const ssize_t got = recv(inputs[i].fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
                if (got <= 0)
                    give_up("a download was cut");
                for (ssize_t k = 0; checked && k < got; k++)
                    if (buffer[static_cast<size_t>(k)] !=
                        byte_at((received[i] + static_cast<uint64_t>(k)) % chunk))
                        give_up("a download arrived damaged");
                received[i] += static_cast<uint64_t>(got);
                if (received[i] >= each) {
                    inputs[i].fd = -1;
                    left--;
                }
            }
        }
        return now() - start;
    }
    void begin_echo() const
    {
        const uint64_t echo = 0;
        send_whole(fds_[0], &echo, sizeof echo);
    }
    double trips(int count) const
    {
        char message[message_size] = "message", answer[message_size] = "";
        const double start = now();
        for (int i = 0; i < count; i++) {
            message[8] = static_cast<char>(i);
            if (!send_whole(fds_[0], message, message_size) ||
                !receive_whole(fds_[0], answer, message_size) || memcmp(message, answer, message_size) != 0)
                give_up("an answer is wrong");
        }
        return now() - start;
    }

  private:
    std::vector<int> fds_;
};

struct totals {
    double relay = 0, copy = 0;
    std::vector<double> ratios; // of the relay's time to the copy's

    double median_ratio()
    {
        const auto middle = ratios.begin() + static_cast<long>(ratios.size() / 2);
        std::nth_element(ratios.begin(), middle, ratios.end());
        return *middle;
    }
};

template <class Burst> totals measure(benchmark::State &state, clients &relay, clients &copy, Burst burst)
{
    totals total;
    bool relay_first = true;
    for (auto _ : state) {
        double spent[2]; // relay, copy
        for (const bool second : {false, true}) {
            const bool is_relay = relay_first != second;
            spent[is_relay ? 0 : 1] = burst(is_relay ? relay : copy);
        }
        relay_first = !relay_first;
        total.relay += spent[0];
        total.copy += spent[1];
        total.ratios.push_back(spent[0] / spent[1]);
        state.SetIterationTime(spent[0]);
    }
    state.SetLabel(both().by_socat ? "peer: socat, twice"
                                   : "peer: read and write loop, twice; socat is not installed");
    return total;
}

void download(benchmark::State &state)
{
    const auto count = static_cast<size_t>(state.range(0));
    clients relay(both().relay_port, count), copy(both().copy_port, count);
    relay.download(true);
    copy.download(true);
    totals total = measure(state, relay, copy, [](clients &over) { return over.download(false); });
    const double megabytes = static_cast<double>(burst_bytes * total.ratios.size()) / 1e6;
    state.counters["MB/s"] = megabytes / total.relay;
    state.counters["peer_MB/s"] = megabytes / total.copy;
    state.counters["ratio"] = 1 / total.median_ratio();
}

void round_trip(benchmark::State &state)
{
    clients relay(both().relay_port, 1), copy(both().copy_port, 1);
    for (const clients *over : {&relay, &copy}) {
        over->begin_echo();
        over->trips(100);
    }
    totals total =
        measure(state, relay, copy, [](const clients &over) { return over.trips(trips_per_burst); });
    const double trips = static_cast<double>(total.ratios.size()) * trips_per_burst;
    state.counters["us"] = total.relay / trips * 1e6;
    state.counters["peer_us"] = total.copy / trips * 1e6;
    state.counters["ratio"] = total.median_ratio();
}

BENCHMARK(download)->UseManualTime()->Unit(benchmark::kMillisecond)->Arg(1)->Arg(16)->Arg(256)->Iterations(4);
BENCHMARK(round_trip)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

} // namespace
