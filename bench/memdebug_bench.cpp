// What tracked allocation costs: without a memory debugger beside the C library's allocator, and with one,
// whose console is a descriptor in memory, over trees of growing size.
//
// `ratio` is the median over rounds that are measured in turn, so that what else the machine does meets both
// sides alike.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
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

constexpr size_t blocks_per_burst = 12800;

// Sizes of a tree's records, tags and values, and of what programs keep beside it.
constexpr size_t mixed_sizes[] = {72, 12, 72, 9, 72, 16, 40, 200, 72, 24, 72, 2000};

size_t size_of(size_t fixed, size_t i)
{
    return fixed != 0 ? fixed : mixed_sizes[i % std::size(mixed_sizes)];
}

template <class Allocate, class Release>
double burst(size_t size, std::vector<void *> &blocks, Allocate allocate, Release release)
{
    const double start = now();
    for (size_t done = 0; done < blocks_per_burst; done += blocks.size()) {
        for (size_t i = 0; i < blocks.size(); i++) {
            blocks[i] = allocate(size_of(size, i));
            benchmark::DoNotOptimize(blocks[i]);
        }
        for (void *block : blocks)
            release(block);
    }
    return now() - start;
}

// bytes 0 is the mixture; live is the number of blocks that are made before the first is released.
void WithoutSession(benchmark::State &state)
{
    const auto size = static_cast<size_t>(state.range(0));
    std::vector<void *> blocks(static_cast<size_t>(state.range(1)));
    std::vector<double> ratios, plain_times, tracked_times;
    for (auto _ : state) {
        const double plain = burst(size, blocks, malloc, free);
        const double tracked = burst(
            size, blocks, [](size_t bytes) { return qv_memcheck_malloc(malloc, bytes, "burst", 1); },
            [](void *block) { qv_memcheck_free(free, block, "bench"); });
        state.SetIterationTime(tracked);
        ratios.push_back(tracked / plain);
        plain_times.push_back(plain);
        tracked_times.push_back(tracked);
    }
    const double pairs = std::ceil(double{blocks_per_burst} / static_cast<double>(blocks.size())) *
                         static_cast<double>(blocks.size());
    state.counters["plain_ns"] = median(plain_times) / pairs * 1e9;
    state.counters["tracked_ns"] = median(tracked_times) / pairs * 1e9;
    state.counters["ratio"] = median(ratios);
}
BENCHMARK(WithoutSession)
    ->ArgNames({"bytes", "live"})
    ->Args({24, 64})
    ->Args({200, 64})
    ->Args({2000, 64})
    ->Args({0, 64})
    ->Args({0, 6400})
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

// Blocks that are made and freed while so many others live, beside the same with 1,000 others; per free,
// where the session has more to look through.
void FreeAmongLive(benchmark::State &state)
{
    constexpr size_t few = 1000, freed = 20000;
    const auto many = static_cast<size_t>(state.range(0));
    const int console = open("/dev/null", O_WRONLY);
    if (console < 0 || qv_memcheck_start(nullptr, console, [](int) { give_up("a fault"); }) != 0)
        give_up("qv_memcheck_start");
    std::vector<void *> live, blocks(freed);
    const auto fill_up_to = [&](size_t count) {
        while (live.size() < count)
            live.push_back(qv_memcheck_malloc(malloc, 72, "live", 1));
        for (; live.size() > count; live.pop_back())
            qv_memcheck_free(free, live.back(), "bench");
    };
    const auto free_among = [&](size_t count) {
        fill_up_to(count);
        for (void *&block : blocks)
            block = qv_memcheck_malloc(malloc, 72, "freed", 1);
        const double start = now();
        for (void *block : blocks)
            qv_memcheck_free(free, block, "bench");
        return now() - start;
    };
    std::vector<double> ratios, times;
    for (auto _ : state) {
        const double among_few = free_among(few), among_many = free_among(many);
        state.SetIterationTime(among_many);
        ratios.push_back(among_many / among_few);
        times.push_back(among_many);
    }
    fill_up_to(0);
    qv_memcheck_stop();
    close(console);
    state.counters["ns_per_free"] = median(times) / freed * 1e9;
    state.counters["ratio"] = median(ratios);
}
BENCHMARK(FreeAmongLive)->ArgName("live")->Arg(100000)->UseManualTime()->Iterations(3);

} // namespace
