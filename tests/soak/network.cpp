// The loads that go over sockets: messages, the telnet feed, the console, the relay.

#include "soak.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <qvlib/encoding.h>
#include <qvlib/log.h>
#include <qvlib/remote_gui.h>
#include <qvlib/transport.h>

namespace soak
{

// ---- Sockets

namespace
{

sockaddr_in loopback(unsigned int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

unsigned int port_of(int fd)
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

void give_patience(int fd, int seconds)
{
    const timeval patience = {seconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

// The connection ends by a reset, as that of a client that crashed.
void end_abruptly(int fd)
{
    const linger at_once = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

using clock = std::chrono::steady_clock;

void rest(random_source &random, unsigned int milliseconds)
{
    std::this_thread::sleep_for(std::chrono::microseconds(below(random, milliseconds * 1000)));
}

constexpr int patience_s = 30;

} // namespace

descriptor::~descriptor()
{
    if (fd_ >= 0)
        close(fd_);
}

int connect_to(unsigned int port)
{
    const sockaddr_in address = loopback(port);
    for (int attempts = 0; attempts < 500; attempts++) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        give_patience(fd, patience_s);
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return fd;
        close(fd);
        usleep(10000);
    }
    return -1;
}

unsigned int free_port()
{
    const descriptor probe(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = loopback(0);
    if (bind(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        abort();
    return port_of(probe.get());
}

bool send_all(int fd, const void *bytes, size_t size)
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

bool receive_all(int fd, void *bytes, size_t size)
{
    return size == 0 || recv(fd, bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

bool has_input(int fd, int timeout_ms)
{
    pollfd input = {fd, POLLIN, 0};
    return poll(&input, 1, timeout_ms) > 0;
}

namespace
{

// ---- Bytes that are wrong when any of them is

std::string body(random_source &random, size_t longest)
{
    // Most are short, and a few as long as they may be.
    const size_t size = below(random, 8) == 0 ? below(random, longest + 1) : below(random, 600);
    std::string bytes(size, '\0');
    uint64_t state = random();
    for (char &byte : bytes) {
        state = state * 6364136223846793005 + 1442695040888963407;
        byte = static_cast<char>(state >> 56);
    }
    return bytes;
}

// What every server here answers: the bytes inverted.
void invert(char *bytes, size_t size)
{
    for (size_t i = 0; i < size; i++)
        bytes[i] = static_cast<char>(~bytes[i]);
}

// ---- Messages

constexpr size_t longest_message = 80000; // 20 fragments, which every receive buffer holds

// Answers each message to its sender, until its socket is shut down.
void answer_messages(int fd)
{
    corelink_msgbuf message;
    sockaddr_in source;
    while (corelink_receive_msg_block(fd, &source, &message) == 0) {
        corelink_msghdr header;
        memcpy(&header, message.data, sizeof header);
        char *bytes = static_cast<char *>(message.data) + sizeof header;
        const auto size = static_cast<uint32_t>(message.length - sizeof header);
        invert(bytes, size);
        corelink_sendmsg(fd, ntohs(source.sin_port), &header, bytes, size);
        free(message.data);
    }
}

// Sends one message; whether the answer is the right one.
bool ask(int fd, unsigned int port, std::string bytes, uint32_t number)
{
    const auto size = static_cast<uint32_t>(bytes.size());
    if (corelink_sendmsg_parts(fd, static_cast<uint16_t>(port), 7, number, "soak", size, bytes.data(),
                               size) != 0)
        return false;
    corelink_msgbuf answer;
    if (corelink_receive_msg_block(fd, nullptr, &answer) != 0)
        return false;
    corelink_msghdr header;
    memcpy(&header, answer.data, sizeof header);
    invert(bytes.data(), bytes.size());
    const bool right = answer.length == sizeof header + size && header.param1 == number &&
                       header.param2 == size && strcmp(header.name, "soak") == 0 &&
                       memcmp(static_cast<char *>(answer.data) + sizeof header, bytes.data(), size) == 0;
    free(answer.data);
    return right;
}

// ---- The telnet feed

// The text of one line of one logging load, which tells all that it should be.
std::string log_text(unsigned int load, unsigned long number)
{
    std::string text(number * 7919 % 300, static_cast<char>('a' + number % 26));
    return "soak " + std::to_string(load) + " " + std::to_string(number) + " " + text;
}

std::atomic<unsigned int> logging_loads;

// Whether a line is what its load logged, and follows the one of that load before it.
bool is_expected(const std::string &line, std::map<unsigned int, unsigned long> &last)
{
    const size_t label = line.find(" TELNT: ");
    if (label == std::string::npos)
        return false;
    const std::string text = line.substr(label + 8);
    if (text == settling_text)
        return true;
    unsigned int load = 0;
    unsigned long number = 0;
    if (sscanf(text.c_str(), "soak %u %lu ", &load, &number) != 2 || text != log_text(load, number))
        return false;
    const auto [before, is_first] = last.emplace(load, number);
    const bool follows = is_first || number == before->second + 1;
    before->second = number;
    return follows;
}

// Takes the whole lines out of what was received.
void check_lines(std::string &received, std::map<unsigned int, unsigned long> &last)
{
    size_t begin = 0;
    for (size_t end; (end = received.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string line = received.substr(begin, end - begin);
        feed.add(is_expected(line, last), "line", line);
    }
    received.erase(0, begin);
}

void watch_feed(gate &gate, random_source &random, unsigned int port)
{
    const descriptor client(connect_to(port));
    if (client.get() < 0)
        return feed.add(false, "no connection");
    const auto end = clock::now() + std::chrono::milliseconds(50 + below(random, 300));
    std::map<unsigned int, unsigned long> last;
    std::string received;
    char buffer[16384];
    while (gate.is_open() && clock::now() < end) {
        if (!has_input(client.get(), 20))
            continue;
        const ssize_t length = recv(client.get(), buffer, sizeof buffer, 0);
        if (length <= 0)
            return feed.add(false, "connection ended by the feed");
        received.append(buffer, static_cast<size_t>(length));
        check_lines(received, last);
    }
    if (below(random, 3) == 0)
        end_abruptly(client.get());
}

// ---- The console

// A damaged block, or a release of an unknown one. A client that left counts as such: "../src/memdebug:186".
bool tells_of_a_fault(const std::string &text)
{
    static const std::string unknown = "Could not find the allocation to ",
                             dropped = "free (../src/memdebug:186)";
    if (text.find("Marker:") != std::string::npos)
        return true;
    for (size_t at = 0; (at = text.find(unknown, at)) != std::string::npos;) {
        at += unknown.size();
        const std::string which = text.substr(at, dropped.size());
        if (dropped.compare(0, which.size(), which) != 0)
            return true;
    }
    return false;
}

void watch_console(gate &gate, random_source &random, unsigned int port)
{
    const descriptor client(connect_to(port));
    if (client.get() < 0)
        return console.add(false, "no connection");
    const auto end = clock::now() + std::chrono::milliseconds(50 + below(random, 300));
    std::string received;
    char buffer[16384];
    while (clock::now() < end || received.empty()) {
        if (!has_input(client.get(), received.empty() ? patience_s * 1000 : 20)) {
            if (received.empty())
                return console.add(false, "silence");
            continue;
        }
        const ssize_t length = recv(client.get(), buffer, sizeof buffer, 0);
        if (length <= 0)
            return console.add(false, "connection ended by the console");
        received.append(buffer, static_cast<size_t>(length));
        if (!gate.is_open())
            break;
    }
    console.add(!tells_of_a_fault(received), "fault");
    if (below(random, 3) == 0)
        end_abruptly(client.get());
}

// ---- The relay

constexpr size_t longest_request = 200000;

// A request and an answer: this, then the bytes.
struct request {
    uint32_t size;
    uint32_t checksum; // of the bytes as they follow
    uint32_t server_ends;
};

// The GUI server's part of a connection.
void serve(int fd)
{
    request head;
    while (receive_all(fd, &head, sizeof head)) {
        std::string bytes(head.size, '\0');
        if (!receive_all(fd, bytes.data(), bytes.size()))
            return;
        relay.add(crc32c(bytes.data(), bytes.size()) == head.checksum, "request");
        invert(bytes.data(), bytes.size());
        head.checksum = crc32c(bytes.data(), bytes.size());
        if (!send_all(fd, &head, sizeof head) || !send_all(fd, bytes.data(), bytes.size()) ||
            head.server_ends)
            return;
    }
}

void serve_connections(int listener)
{
    for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0;) {
        const descriptor connection(fd);
        give_patience(fd, patience_s);
        serve(fd);
    }
}

bool exchange(int fd, std::string bytes, bool server_ends)
{
    request head = {static_cast<uint32_t>(bytes.size()), crc32c(bytes.data(), bytes.size()), server_ends};
    if (!send_all(fd, &head, sizeof head) || !send_all(fd, bytes.data(), bytes.size()))
        return false;
    invert(bytes.data(), bytes.size());
    std::string answer(bytes.size(), '\0');
    if (!receive_all(fd, &head, sizeof head) || head.size != bytes.size() ||
        !receive_all(fd, answer.data(), answer.size()))
        return false;
    char more;
    return answer == bytes && (!server_ends || recv(fd, &more, 1, 0) == 0);
}

void use_relay(random_source &random, unsigned int port)
{
    const descriptor client(connect_to(port));
    if (client.get() < 0)
        return relay.add(false, "no connection");
    bool ended = false;
    for (unsigned int more = 1 + below(random, 4); more > 0 && !ended; more--) {
        ended = more == 1 && below(random, 2) == 0;
        relay.add(exchange(client.get(), body(random, longest_request), ended), "answer", strerror(errno));
    }
}

// One direction of the channel: what a callback was given, until the pump hands it to the other end.
class lane
{
  public:
    ~lane()
    {
        for (const auto &[pdu, length] : pdus_)
            free(pdu);
    }

    void put(rgui_pdu *pdu, size_t length)
    {
        const std::lock_guard lock(mutex_);
        pdus_.emplace_back(pdu, length);
        changed_.notify_one();
    }

    void end()
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        changed_.notify_one();
    }

    // The pump, with a thread of its own.
    void carry_to(rgui_session *session)
    {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return ended_ || !pdus_.empty(); });
            if (ended_)
                return;
            const auto [pdu, length] = pdus_.front();
            pdus_.pop_front();
            lock.unlock();
            rgui_data_rx(session, pdu, length); // -1 for a connection that the other end has closed
            free(pdu);
            lock.lock();
        }
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::pair<rgui_pdu *, size_t>> pdus_;
    bool ended_ = false;
};

int put_on_lane(rgui_pdu *pdu, size_t length, void *cookie)
{
    static_cast<lane *>(cookie)->put(pdu, length);
    return 0;
}

int listen_for_gui()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    const sockaddr_in address = loopback(8008);
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 && listen(fd, 16) == 0)
        return fd;
    fprintf(stderr, "soak: port 8008: %s\n", strerror(errno));
    close(fd);
    return -1;
}

} // namespace

struct relay_ends::parts {
    std::string service;
    int listener;
    lane to_remote, to_local;
    rgui_session *local, *remote;
    std::vector<std::thread> threads;
};

relay_ends::relay_ends(unsigned int port) : parts_(new parts)
{
    parts_->service = std::to_string(port);
    parts_->listener = listen_for_gui();
    parts_->local =
        rgui_start_local("127.0.0.1", parts_->service.c_str(), nullptr, put_on_lane, &parts_->to_remote);
    parts_->remote = rgui_start_remote(put_on_lane, &parts_->to_local);
    for (int count = 0; count < 4; count++) // more than there are clients
        parts_->threads.emplace_back(serve_connections, parts_->listener);
    parts_->threads.emplace_back([this] { parts_->to_remote.carry_to(parts_->remote); });
    parts_->threads.emplace_back([this] { parts_->to_local.carry_to(parts_->local); });
}

relay_ends::~relay_ends()
{
    rgui_stop_local(parts_->local);
    rgui_stop_remote(parts_->remote);
    parts_->to_remote.end();
    parts_->to_local.end();
    shutdown(parts_->listener, SHUT_RDWR);
    for (std::thread &thread : parts_->threads)
        thread.join();
    close(parts_->listener);
    delete parts_;
}

bool relay_ends::is_running() const
{
    return parts_->listener >= 0 && parts_->local && parts_->remote;
}

void run_messages(gate &gate, uint64_t seed)
{
    random_source random(seed);
    const descriptor server(corelink_setup_socket(nullptr)), client(corelink_setup_socket(nullptr));
    give_patience(client.get(), patience_s);
    std::thread answering(answer_messages, server.get());
    const unsigned int port = port_of(server.get());
    for (uint32_t number = 1; gate.pass(); number++) {
        messages.add(ask(client.get(), port, body(random, longest_message), number), "answer",
                     strerror(errno));
        rest(random, 2);
    }
    shutdown(server.get(), SHUT_RD);
    answering.join();
}

void run_log_lines(gate &gate, uint64_t seed)
{
    random_source random(seed);
    const unsigned int load = logging_loads++;
    for (unsigned long number = 0; gate.pass(); rest(random, 4))
        for (int lines = 0; lines < 10; lines++)
            qv_log(QV_LOG_TELNET, "%s", log_text(load, number++).c_str());
}

void run_feed_clients(gate &gate, uint64_t seed, unsigned int port)
{
    for (random_source random(seed); gate.pass(); rest(random, 20))
        watch_feed(gate, random, port);
}

void run_console_clients(gate &gate, uint64_t seed, unsigned int port)
{
    for (random_source random(seed); gate.pass(); rest(random, 20))
        watch_console(gate, random, port);
}

void run_relay_clients(gate &gate, uint64_t seed, unsigned int port)
{
    for (random_source random(seed); gate.pass(); rest(random, 20))
        use_relay(random, port);
}

} // namespace soak
