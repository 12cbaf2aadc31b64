// Two sides of one row, measured burst by burst in turn, so that what else the machine does meets both alike.
#pragma once

#include <algorithm>
#include <ctime>
#include <vector>

#include <benchmark/benchmark.h>

namespace bench
{

inline double thread_time()
{
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// The time of its own that the thread needs for something, the kernel's work for it included.
template <class Work> double time_of(Work work)
{
    const double start = thread_time();
    work();
    benchmark::ClobberMemory();
    return thread_time() - start;
}

inline double median_of(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<long>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// Each side is called for a burst and returns the seconds that count. Reports the medians of both in
// nanoseconds per unit, and of the ratio of ours to theirs.
template <class Ours, class Theirs>
void measure_pairs(benchmark::State &state, double our_units, Ours ours, double their_units, Theirs theirs)
{
    std::vector<double> our_times, their_times, ratios;
    bool ours_first = true;
    ours();
    theirs();
    for (auto _ : state) {
        double our_time, their_time;
        if (ours_first) {
            our_time = ours();
            their_time = theirs();
        } else {
            their_time = theirs();
            our_time = ours();
        }
        ours_first = !ours_first;
        state.SetIterationTime(our_time);
        our_times.push_back(our_time / our_units * 1e9);
        their_times.push_back(their_time / their_units * 1e9);
        ratios.push_back(our_times.back() / their_times.back());
    }
    state.counters["ours_ns"] = median_of(our_times);
    state.counters["theirs_ns"] = median_of(their_times);
    state.counters["ratio"] = median_of(ratios);
}

template <class Ours, class Theirs>
void measure_pairs(benchmark::State &state, double units, Ours ours, Theirs theirs)
{
    measure_pairs(state, units, ours, units, theirs);
}

} // namespace bench
