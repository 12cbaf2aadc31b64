// What tracked allocation costs: without a memory debugger beside the C library's allocator, and with one,
// whose console is a descriptor in memory, over trees of growing size.
//
// `ratio` is the median over rounds that are measured in turn, so that what else the machine does meets both
// sides alike.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>
#include <qvlib.h>

namespace
{

[[noreturn]] void give_up(const char *what)
{
    perror(what);
    exit(1);
}

double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

// ---- Without a memory debugger

constexpr size_t live = 64;
constexpr int rounds_per_burst = 200;

// What both sides call, so that the compiler knows neither.
void *(*volatile plain_malloc)(size_t) = malloc;
void (*volatile plain_free)(void *) = free;

double plain_burst(size_t size)
{
    std::array<void *, live> blocks;
    const double start = now();
    for (int round = 0; round < rounds_per_burst; round++) {
        for (void *&block : blocks)
            block = plain_malloc(size);
        for (void *block : blocks)
            plain_free(block);
    }
    return now() - start;
}

double tracked_burst(size_t size)
{
    std::array<void *, live> blocks;
    const double start = now();
    for (int round = 0; round < rounds_per_burst; round++) {
        for (void *&block : blocks)
            block = qv_memcheck_malloc(plain_malloc, size, "tracked_burst", 1);
        for (void *block : blocks)
            qv_memcheck_free(plain_free, block, "bench");
    }
    return now() - start;
}

void WithoutSession(benchmark::State &state)
{
    const auto size = static_cast<size_t>(state.range(0));
    std::vector<double> ratios, plain_times, tracked_times;
    for (auto _ : state) {
        const double plain = plain_burst(size), tracked = tracked_burst(size);
        state.SetIterationTime(tracked);
        ratios.push_back(tracked / plain);
        plain_times.push_back(plain);
        tracked_times.push_back(tracked);
    }
    constexpr double pairs = double{rounds_per_burst} * live;
    state.counters["plain_ns"] = median(plain_times) / pairs * 1e9;
    state.counters["tracked_ns"] = median(tracked_times) / pairs * 1e9;
    state.counters["ratio"] = median(ratios);
}
BENCHMARK(WithoutSession)
    ->ArgName("bytes")
    ->Arg(24)
    ->Arg(200)
    ->Arg(2000)
    ->Arg(20000)
    ->UseManualTime()
    ->Iterations(500);

// ---- With one

std::string tree_text(long nodes)
{
    std::string text = "first=1";
    for (long i = 1; i < nodes; i++)
        text += ",member_" + std::to_string(i) + "=" + std::to_string(i);
    return text;
}

double read_and_release(const std::string &text)
{
    const double start = now();
    clparse_head *head = clparse_start(text.c_str());
    clparse_stop(head);
    const double elapsed = now() - start;
    if (!head)
        give_up("clparse_start");
    return elapsed;
}

// Small trees are read as many times as make up a large one.
void WithSession(benchmark::State &state)
{
    constexpr long small_nodes = 1000;
    const long large_nodes = state.range(0);
    const std::string small = tree_text(small_nodes), large = tree_text(large_nodes);
    const int console = memfd_create("console", MFD_CLOEXEC);
    if (console < 0 || qv_memcheck_start(nullptr, console, [](int) { give_up("a fault"); }) != 0)
        give_up("qv_memcheck_start");
    auto rewind = [&] {
        if (ftruncate(console, 0) != 0 || lseek(console, 0, SEEK_SET) != 0)
            give_up("console");
    };
    std::vector<double> ratios, large_times, small_times;
    for (auto _ : state) {
        rewind();
        double of_small = 0;
        for (long i = 0; i < large_nodes / small_nodes; i++)
            of_small += read_and_release(small);
        rewind();
        const double of_large = read_and_release(large);
        state.SetIterationTime(of_large);
        ratios.push_back(of_large / of_small);
        large_times.push_back(of_large);
        small_times.push_back(of_small);
    }
    qv_memcheck_stop();
    close(console);
    state.counters["small_ns_per_node"] = median(small_times) / static_cast<double>(large_nodes) * 1e9;
    state.counters["large_ns_per_node"] = median(large_times) / static_cast<double>(large_nodes) * 1e9;
    state.counters["ratio"] = median(ratios);
}
BENCHMARK(WithSession)
    ->ArgName("nodes")
    ->Arg(10000)
    ->Arg(100000)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

} // namespace
