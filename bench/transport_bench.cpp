// Corelink messages over loopback datagrams, beside a bare loop of sendmsg and recvmsg over the same
// datagrams.
//
// Both are measured in the same run, burst by burst in turn, so that what else the machine does meets both
// alike. A burst fits into the receiver's buffer: a send burst is timed while nobody reads, a receive burst
// while nobody sends. msgs/s and MB/s are the library's, bare_msgs/s the bare loop's; `ratio` is the median
// over the bursts of the library's rate divided by the bare loop's. Every message is checked before the clock
// starts for the first time.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <qvlib/transport.h>

namespace
{

constexpr size_t slice_max = 4096;
constexpr size_t burst_fragments = 512; // of about 990 that the buffer holds

[[noreturn]] void give_up(const char *what)
{
    perror(what);
    exit(1);
}

// Two sockets and the datagrams of one message.
class road
{
  public:
    explicit road(size_t length) : body_(length, 'q'), sink_(slice_max)
    {
        for (size_t i = 0; i < length; i++)
            body_[i] = static_cast<char>(i * 31);
        receiver_ = corelink_setup_socket(nullptr);
        sender_ = socket(AF_INET, SOCK_DGRAM, 0);
        if (receiver_ < 0 || sender_ < 0)
            give_up("socket");
        socklen_t size = sizeof to_;
        getsockname(receiver_, reinterpret_cast<sockaddr *>(&to_), &size);

        memcpy(header_.name, "bench", 5);
        const size_t fragments = length == 0 ? 1 : (length + slice_max - 1) / slice_max;
        for (size_t i = 0; i < fragments; i++) {
            corelink_msghdr header = header_;
            header.type_flags |= i + 1 == fragments;
            header.fragment = static_cast<uint16_t>(i);
            header.fragment_len = static_cast<uint16_t>(std::min(length - i * slice_max, slice_max));
            headers_.push_back(header);
        }
        burst_ = std::max<size_t>(1, burst_fragments / fragments);
        check();
    }
    ~road()
    {
        close(sender_);
        close(receiver_);
    }

    size_t burst() const
    {
        return burst_;
    }
    size_t length() const
    {
        return body_.size();
    }

    void send_ours()
    {
        for (size_t i = 0; i < burst_; i++)
            if (corelink_sendmsg(sender_, ntohs(to_.sin_port), &header_, body_.data(),
                                 static_cast<uint32_t>(body_.size())) != 0)
                give_up("corelink_sendmsg");
    }
    void send_and_receive_ours()
    {
        send_ours();
        receive_ours();
    }
    void send_and_receive_bare()
    {
        send_bare();
        receive_bare();
    }
    void send_bare()
    {
        for (size_t i = 0; i < burst_; i++)
            for (corelink_msghdr &header : headers_) {
                iovec pieces[] = {{&header, sizeof header},
                                  {body_.data() + header.fragment * slice_max, header.fragment_len}};
                msghdr datagram = {};
                datagram.msg_name = &to_;
                datagram.msg_namelen = sizeof to_;
                datagram.msg_iov = pieces;
                datagram.msg_iovlen = 2;
                if (sendmsg(sender_, &datagram, 0) < 0)
                    give_up("sendmsg");
            }
    }
    void receive_ours()
    {
        for (size_t i = 0; i < burst_; i++) {
            corelink_msgbuf message;
            if (corelink_receive_msg_block(receiver_, nullptr, &message) != 0)
                give_up("corelink_receive_msg_block");
            free(message.data);
        }
    }
    void receive_bare()
    {
        for (size_t i = 0; i < burst_ * headers_.size(); i++) {
            corelink_msghdr header;
            sockaddr_in from;
            iovec pieces[] = {{&header, sizeof header}, {sink_.data(), sink_.size()}};
            msghdr datagram = {};
            datagram.msg_name = &from;
            datagram.msg_namelen = sizeof from;
            datagram.msg_iov = pieces;
            datagram.msg_iovlen = 2;
            if (recvmsg(receiver_, &datagram, MSG_DONTWAIT) < 0)
                give_up("a burst did not fit into the receive buffer (raise net.core.rmem_max): recvmsg");
        }
    }

  private:
    void check()
    {
        for (const bool ours : {true, false}) {
            ours ? send_ours() : send_bare();
            for (size_t i = 0; i < burst_; i++) {
                corelink_msgbuf message;
                if (corelink_receive_msg_block(receiver_, nullptr, &message) != 0 ||
                    message.length != sizeof header_ + body_.size() ||
                    memcmp(static_cast<char *>(message.data) + sizeof header_, body_.data(), body_.size()) !=
                        0)
                    give_up("a message did not arrive whole");
                free(message.data);
            }
        }
    }

    int receiver_ = -1, sender_ = -1;
    sockaddr_in to_ = {};
    corelink_msghdr header_ = {};
    std::vector<char> body_, sink_;
    std::vector<corelink_msghdr> headers_;
    size_t burst_ = 1;
};

using step = void (road::*)();

double seconds(road &over, step what)
{
    const auto start = std::chrono::steady_clock::now();
    (over.*what)();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct pair_of_steps {
    step ours, bare, before, after; // before and after each burst, off the clock
};

void measure(benchmark::State &state, const pair_of_steps &steps)
{
    road over(static_cast<size_t>(state.range(0)));
    auto burst = [&](step what) {
        if (steps.before)
            (over.*steps.before)();
        const double spent = seconds(over, what);
        if (steps.after)
            (over.*steps.after)();
        return spent;
    };
    double ours = 0, bare = 0;
    std::vector<double> ratios;
    bool ours_first = true;
    for (auto _ : state) {
        double one[2]; // ours, bare
        for (const bool second : {false, true}) {
            const bool is_ours = ours_first != second;
            one[is_ours ? 0 : 1] = burst(is_ours ? steps.ours : steps.bare);
        }
        ours_first = !ours_first;
        ours += one[0];
        bare += one[1];
        ratios.push_back(one[1] / one[0]);
        state.SetIterationTime(one[0]);
    }
    const auto middle = ratios.begin() + static_cast<long>(ratios.size() / 2);
    std::nth_element(ratios.begin(), middle, ratios.end());
    const double messages = static_cast<double>(over.burst() * ratios.size());
    const double megabytes = messages * static_cast<double>(over.length()) / 1e6;
    state.counters["msgs/s"] = messages / ours;
    state.counters["MB/s"] = megabytes / ours;
    state.counters["bare_msgs/s"] = messages / bare;
    state.counters["bare_MB/s"] = megabytes / bare;
    state.counters["ratio"] = *middle;
}

void send(benchmark::State &state)
{
    measure(state, {&road::send_ours, &road::send_bare, nullptr, &road::receive_bare});
}

void receive(benchmark::State &state)
{
    measure(state, {&road::receive_ours, &road::receive_bare, &road::send_bare, nullptr});
}

void both_sides(benchmark::State &state)
{
    measure(state, {&road::send_and_receive_ours, &road::send_and_receive_bare, nullptr, nullptr});
}

BENCHMARK(send)->UseManualTime()->Arg(100)->Arg(4 << 10)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(receive)->UseManualTime()->Arg(100)->Arg(4 << 10)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(both_sides)->UseManualTime()->Arg(100)->Arg(4 << 10)->Arg(64 << 10)->Arg(1 << 20);

} // namespace
