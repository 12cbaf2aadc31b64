// The documents of corelink_bench in json-c, which shares names with jansson and so needs a process of its
// own.

#include <string>

#include <json-c/json.h>

#include "documents.h"

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
