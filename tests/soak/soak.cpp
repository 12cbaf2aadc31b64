// soak SECONDS: all of the library under load in one process, composed as docs/hosting.md says. Every answer
// is compared with what it must be. Now and then all loads stand still, and what the process holds is
// counted: nothing may have grown. Prints a line for each sample and two tables; ends with status 1 when
// something grew or any answer was wrong.

#include "soak.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <malloc.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <qvlib/log.h>
#include <qvlib/memcheck.h>

namespace soak
{

void tally::add(bool right, std::string_view what, std::string_view details)
{
    answers++;
    if (right)
        return;
    if (wrong++ < 5)
        fprintf(stderr, "soak: %s: wrong %.*s: %.*s\n", name, static_cast<int>(what.size()), what.data(),
                static_cast<int>(std::min<size_t>(details.size(), 2000)), details.data());
}

namespace
{

// The sanitizers keep released memory, and have an allocator of their own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool is_instrumented = true;
#else
constexpr bool is_instrumented = false;
#endif

// How far memory may move after the warm-up. The heap's free lists and the stacks of threads that come and go
// settle within some hundred KiB; a leak of 8 bytes in a thousandth of the answers would pass it in ten
// minutes.
constexpr long heap_bound_kib = 64, resident_bound_kib = 2048;
// The pages that the C library's arenas hold settle within three minutes: before that they say nothing.
constexpr double resident_settles_s = 300;

using clock = std::chrono::steady_clock;

double seconds_since(clock::time_point start)
{
    return std::chrono::duration<double>(clock::now() - start).count();
}

// ---- What the process holds

long entries(const char *path)
{
    long count = -2; // "." and ".."
    DIR *directory = opendir(path);
    while (directory && readdir(directory))
        count++;
    if (directory)
        closedir(directory);
    return count;
}

long descriptors()
{
    return entries("/proc/self/fd") - 1; // the directory itself
}

long threads()
{
    return entries("/proc/self/task");
}

long resident_kib()
{
    long pages = 0;
    FILE *file = fopen("/proc/self/statm", "r");
    if (!file || fscanf(file, "%*d %ld", &pages) != 1)
        abort();
    fclose(file);
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

// In use, of all arenas.
long heap_kib()
{
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

// A tracked block comes and goes: the console's clients are written to, and those that left are noticed.
void touch_console()
{
    void *block = qv_memcheck_malloc(malloc, 12, "settle", 0);
    if (block)
        qv_memcheck_free(free, block, "soak");
}

// The number of live tracked blocks, by the console: -1 when it doesn't tell.
long live_blocks(unsigned int port)
{
    static const std::string label = "Total Allocations: ";
    const descriptor client(connect_to(port));
    std::string text;
    char buffer[4096];
    for (int turns = 0; turns < 200; turns++) {
        touch_console();
        while (client.get() >= 0 && has_input(client.get(), 20)) {
            const ssize_t length = recv(client.get(), buffer, sizeof buffer, 0);
            if (length <= 0)
                return -1;
            text.append(buffer, static_cast<size_t>(length));
        }
        const size_t at = text.rfind(label);
        if (at != std::string::npos && at + label.size() + 5 <= text.size())
            return strtol(text.c_str() + at + label.size(), nullptr, 10);
    }
    return -1;
}

struct sample {
    double at = 0;
    long descriptors = 0, threads = 0, blocks = 0, heap = 0, resident = 0;
};

// Clients that left are noticed when something is written to them, and the relay's threads end a moment after
// their connections.
void settle(const sample &expected)
{
    for (const auto start = clock::now(); seconds_since(start) < 30;) {
        if (descriptors() == expected.descriptors && threads() == expected.threads)
            return;
        qv_log(QV_LOG_TELNET, "%s", settling_text);
        touch_console();
        usleep(10000);
    }
}

// ---- The composition

void do_nothing(int)
{
}

void count_fault(int)
{
    faults++;
}

// The order of docs/hosting.md: signals before threads, logging, the memory debugger, everything else.
void arrange_signals()
{
    struct sigaction action = {};
    action.sa_handler = do_nothing;
    sigaction(SIGUSR1, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

struct ports {
    unsigned int feed, console, relay;
};

std::vector<std::function<void(gate &)>> make_loads(const ports &ports)
{
    return {
        [](gate &gate) { run_texts(gate, 1); },
        [](gate &gate) { run_texts(gate, 2); },
        [](gate &gate) { run_documents(gate, 3); },
        [](gate &gate) { run_containers(gate, 4); },
        [](gate &gate) { run_messages(gate, 5); },
        [](gate &gate) { run_messages(gate, 6); },
        [](gate &gate) { run_log_lines(gate, 7); },
        [](gate &gate) { run_log_lines(gate, 8); },
        [=](gate &gate) { run_feed_clients(gate, 9, ports.feed); },
        [=](gate &gate) { run_feed_clients(gate, 10, ports.feed); },
        [=](gate &gate) { run_console_clients(gate, 11, ports.console); },
        [=](gate &gate) { run_relay_clients(gate, 12, ports.relay); },
        [=](gate &gate) { run_relay_clients(gate, 13, ports.relay); },
    };
}

// ---- Samples

uint64_t sum_of(std::atomic<uint64_t> tally::*count)
{
    uint64_t sum = 0;
    for (const tally *each : tallies)
        sum += each->*count;
    return sum;
}

sample take_sample(clock::time_point start, const sample &expected, unsigned int console_port)
{
    sample taken;
    settle(expected);
    taken.blocks = live_blocks(console_port);
    settle(expected);
    taken.descriptors = descriptors();
    taken.threads = threads();
    taken.heap = heap_kib();
    taken.resident = resident_kib();
    taken.at = seconds_since(start);
    printf(
        "%6.0f s: %10lu answers, %lu wrong; %ld blocks, %ld descriptors, %ld threads, heap %ld KiB, resident "
        "%ld KiB\n",
        taken.at, static_cast<unsigned long>(sum_of(&tally::answers)),
        static_cast<unsigned long>(sum_of(&tally::wrong)), taken.blocks, taken.descriptors, taken.threads,
        taken.heap, taken.resident);
    fflush(stdout);
    return taken;
}

// What is open and runs before the first round: waits until every listener is there and its first client
// gone.
sample first_sample(clock::time_point start, const ports &ports)
{
    for (const unsigned int port : {ports.feed, ports.console, ports.relay}) {
        const descriptor client(connect_to(port));
        if (client.get() < 0)
            fprintf(stderr, "soak: nobody listens on port %u\n", port);
    }
    sample expected;
    for (int steady = 0; steady < 50; usleep(10000)) {
        qv_log(QV_LOG_TELNET, "%s", settling_text);
        touch_console();
        const long open = descriptors(), running = threads();
        steady = open == expected.descriptors && running == expected.threads ? steady + 1 : 0;
        expected.descriptors = open;
        expected.threads = running;
    }
    return take_sample(start, expected, ports.console);
}

// ---- The verdict

bool judged = true;

void judge(bool holds)
{
    judged = judged && holds;
}

long highest(const std::vector<sample> &samples, size_t from, size_t to, long sample::*measure)
{
    long most = 0;
    for (size_t i = from; i < to; i++)
        most = std::max(most, samples[i].*measure);
    return most;
}

// Counts: every sample is as the first one.
void print_count(const std::vector<sample> &samples, const char *name, long sample::*measure)
{
    const long first = samples.front().*measure;
    bool same = first >= 0;
    for (const sample &each : samples)
        same = same && each.*measure == first;
    judge(same);
    printf("| %s | %ld | %ld | %ld | none | %s |\n", name, first, samples.back().*measure,
           highest(samples, 0, samples.size(), measure), same ? "yes" : "**no**");
}

// Sizes: after the warm-up, the first quarter, the highest of the last half is close to the highest of the
// one before it.
void print_size(const std::vector<sample> &samples, const char *name, long sample::*measure, long bound,
                bool is_judged)
{
    const size_t count = samples.size(), warm = count / 4, middle = warm + (count - warm) / 2;
    const long before = highest(samples, warm, middle, measure),
               after = highest(samples, middle, count, measure);
    const bool flat = after - before <= bound;
    if (is_judged)
        judge(flat);
    printf("| %s | %ld KiB | %ld KiB | %ld KiB | %ld KiB | %s |\n", name, before, samples.back().*measure,
           after, bound,
           !is_judged ? "not judged"
           : flat     ? "yes"
                      : "**no**");
}

void print_tables(const std::vector<sample> &samples)
{
    printf("\n| Load | Answers | Wrong |\n|---|---|---|\n");
    for (const tally *each : tallies) {
        judge(each->answers > 0 && each->wrong == 0);
        printf("| %s | %lu | %lu |\n", each->name, static_cast<unsigned long>(each->answers),
               static_cast<unsigned long>(each->wrong));
    }
    printf("\n| Measure, loads standing still | Before | At the end | Highest | May grow by | Flat |\n"
           "|---|---|---|---|---|---|\n");
    print_count(samples, "live tracked blocks", &sample::blocks);
    print_count(samples, "descriptors", &sample::descriptors);
    print_count(samples, "threads", &sample::threads);
    print_size(samples, "heap in use", &sample::heap, heap_bound_kib, !is_instrumented);
    print_size(samples, "resident memory", &sample::resident, resident_bound_kib,
               !is_instrumented && samples.back().at >= resident_settles_s);
}

std::vector<sample> sample_loads(double seconds, gate &gate, const ports &ports)
{
    const double interval = std::max(1.0, seconds / 60);
    const auto start = clock::now();
    std::vector<sample> samples;
    samples.reserve(128);
    gate.close();
    samples.push_back(first_sample(start, ports));
    const auto loaded = clock::now();
    while (seconds_since(loaded) < seconds) {
        gate.open();
        usleep(static_cast<useconds_t>(interval * 1e6));
        gate.close();
        samples.push_back(take_sample(start, samples.front(), ports.console));
    }
    gate.end();
    return samples;
}

std::vector<sample> run_loads(double seconds, const ports &ports)
{
    const relay_ends relay(ports.relay);
    if (!relay.is_running())
        exit(1);
    const auto loads = make_loads(ports);
    gate gate(static_cast<int>(loads.size()));
    std::vector<std::thread> running;
    running.reserve(loads.size());
    for (const auto &load : loads)
        running.emplace_back(load, std::ref(gate));
    std::vector<sample> samples = sample_loads(seconds, gate, ports);
    for (std::thread &thread : running)
        thread.join();
    return samples;
}

// Port 8008 is one for all test programs of the machine.
int lock_gui_port()
{
    const int fd = open("/tmp/qvlib-port-8008", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0)
        flock(fd, LOCK_EX);
    return fd;
}

} // namespace
} // namespace soak

int main(int argc, char **argv)
{
    using namespace soak;
    const double seconds = argc > 1 ? strtod(argv[1], nullptr) : 0;
    if (seconds <= 0) {
        fputs("Usage: soak SECONDS\n", stderr);
        return 2;
    }
    const descriptor port_lock(lock_gui_port());
    std::thread([] {}).join(); // a sanitizer may start one of its own with the first
    const long open_before = descriptors(), running_before = threads();
    const ports ports = {free_port(), free_port(), free_port()};
    const std::string console_service = std::to_string(ports.console);

    arrange_signals();
    qv_log_init("soak", QV_LOG_ERROR, 0, LOG_DAEMON, ports.feed);
    if (qv_memcheck_start(console_service.c_str(), 0, count_fault) != 0)
        return 1;
    const std::vector<sample> samples = run_loads(seconds, ports);
    const int stopped = qv_memcheck_stop();
    qv_log_exit();

    print_tables(samples);
    const long open_after = descriptors(), running_after = threads();
    judge(stopped == 0 && open_after == open_before && running_after == running_before);
    printf("\nAfter the stop: %ld descriptors and %ld threads; before the start %ld and %ld.\n", open_after,
           running_after, open_before, running_before);
    return judged ? 0 : 1;
}
