// The documents of corelink_bench in json-c, which shares names with jansson and so needs a process of its
// own.

#include <ctime>
#include <string>

#include <json-c/json.h>
#include <json-c/json_pointer.h>

#include "documents.h"
#include "seeded.h"

namespace
{

using namespace bench;

template <shape make> void json_c_parse_and_free(benchmark::State &state)
{
    const int items = static_cast<int>(state.range(0));
    const std::string text = json<make>(items);
    for (auto _ : state) {
        json_object *tree = json_tokener_parse(text.c_str());
        if (!tree)
            fail("json-c did not read the document");
        json_object_put(tree);
    }
    report(state, nodes_of<make>(items));
}

template <shape make> void json_c_write(benchmark::State &state)
{
    const int items = static_cast<int>(state.range(0));
    json_object *tree = json_tokener_parse(json<make>(items).c_str());
    for (auto _ : state)
        benchmark::DoNotOptimize(json_object_to_json_string_ext(tree, JSON_C_TO_STRING_PLAIN));
    report(state, nodes_of<make>(items));
    json_object_put(tree);
}

double thread_time()
{
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// As road_bench's row: formatted paths of depth 3 into the configuration of 48 ports, by JSON pointers.
void query(benchmark::State &state)
{
    constexpr unsigned int queries = 4800;
    json_object *tree = json_tokener_parse(configuration(48, true).c_str());
    for (auto _ : state) {
        const double start = thread_time();
        for (unsigned int port = 0; port < queries; port++) {
            json_object *found = nullptr;
            if (json_pointer_getf(tree, &found, "/port%u/counters/%s", port % 48, "lip") != 0)
                fail("a path was not found");
            benchmark::DoNotOptimize(json_object_get_uint64(found));
        }
        state.SetIterationTime(thread_time() - start);
    }
    state.counters["ns"] = benchmark::Counter(static_cast<double>(state.iterations()) * queries * 1e-9,
                                              benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    json_object_put(tree);
}
BENCHMARK(query)->UseManualTime();

#define SHAPE_ROWS(make, sizes)                                                                              \
    BENCHMARK(json_c_parse_and_free<make>)->Apply(sizes);                                                    \
    BENCHMARK(json_c_write<make>)->Apply(sizes);

SHAPE_ROWS(ports, configurations)
SHAPE_ROWS(flat, growing)
SHAPE_ROWS(dotted, growing)
SHAPE_ROWS(strings, growing)
SHAPE_ROWS(numbers, growing)
SHAPE_ROWS(one_string, bytes)

} // namespace
