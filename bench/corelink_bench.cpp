// The road text -> tree -> query -> text, over documents of growing size, with the same document as JSON in
// cJSON and jansson beside it.
//
// Every row reports the time per node. What every reading of a tree costs in caches and memory is shown by
// the rows walk_alone; scripts/growth counts instructions instead, which other work on the machine does not
// disturb. Peers that are not installed have no rows; json-c has a program of its own.

#include <cstdlib>
#include <cstring>
#include <string>

#include "documents.h"

#if HAVE_CJSON
#include <cjson/cJSON.h>
#endif
#if HAVE_JANSSON
#include <jansson.h>
#endif

namespace
{

using namespace bench;

// ---- Ours

template <shape make> void parse_and_free(benchmark::State &state)
{
    const std::string text = make(static_cast<int>(state.range(0)), 0, "");
    clparse_head *head = parse(text);
    const long nodes = count_nodes(clparse_get_head(head));
    clparse_stop(head);
    for (auto _ : state)
        clparse_stop(parse(text));
    report(state, nodes);
}

template <shape make> void free_alone(benchmark::State &state)
{
    const std::string text = make(static_cast<int>(state.range(0)), 0, "");
    long nodes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        clparse_head *head = parse(text);
        nodes = count_nodes(clparse_get_head(head));
        state.ResumeTiming();
        clparse_stop(head);
    }
    report(state, nodes);
}

// What every reading of a tree costs: each record, tag and string is looked at once. Its growth is the
// memory's.
template <shape make> void walk_alone(benchmark::State &state)
{
    clparse_head *head = parse(make(static_cast<int>(state.range(0)), 0, ""));
    const long nodes = count_nodes(clparse_get_head(head));
    for (auto _ : state) {
        size_t characters = 0;
        const clparse_node *root = clparse_get_head(head), *node = root;
        do {
            const bool container = node->type == CLPARSE_TYPE_STRUCT || node->type == CLPARSE_TYPE_ARRAY;
            characters += (node->tag ? strlen(node->tag) : 0) +
                          (node->type == CLPARSE_TYPE_STRING ? strlen(node->value.str) : 0);
            const clparse_node *end = container ? node->value.children : nullptr;
            if (container && end->next != end) {
                node = end->next;
                continue;
            }
            while (node != root && node->next == node->parent->value.children)
                node = node->parent;
            if (node != root)
                node = node->next;
        } while (node != root);
        benchmark::DoNotOptimize(characters);
    }
    report(state, nodes);
    clparse_stop(head);
}

char *write_json(clparse_head *head)
{
    return clparse_get_json(head);
}

char *write_corelink(clparse_head *head)
{
    char *text;
    clparse_get_corelink(head, &text, 0);
    return text;
}

char *write_paths(clparse_head *head)
{
    char *text;
    clparse_get_corelink(head, &text, 1);
    return text;
}

char *write_xml(clparse_head *head)
{
    char *text;
    clparse_get_xml(head, &text, 0, nullptr);
    return text;
}

char *write_pretty_xml(clparse_head *head)
{
    char *text;
    clparse_get_xml(head, &text, 1, nullptr);
    return text;
}

template <shape make, char *(*writer)(clparse_head *)> void write(benchmark::State &state)
{
    clparse_head *head = parse(make(static_cast<int>(state.range(0)), 0, ""));
    const long nodes = count_nodes(clparse_get_head(head));
    for (auto _ : state) {
        char *text = writer(head);
        if (!text)
            fail("a tree was not written");
        release(text);
    }
    report(state, nodes);
    clparse_stop(head);
}

// `source` is merged into a fresh copy of `target` each time; making and freeing the copy is not counted.
template <shape make_target, shape make_source, int (*merge)(clparse_head *, clparse_head *)>
void merge_trees(benchmark::State &state)
{
    const int items = static_cast<int>(state.range(0));
    const std::string target_text = make_target(items, 0, "");
    clparse_head *source = parse(make_source(items, items / 2, "x"));
    const long nodes = count_nodes(clparse_get_head(source));
    for (auto _ : state) {
        state.PauseTiming();
        clparse_head *target = parse(target_text);
        state.ResumeTiming();
        if (merge(target, source) != 0)
            fail("a merge was refused");
        state.PauseTiming();
        clparse_stop(target);
        state.ResumeTiming();
    }
    report(state, nodes);
    clparse_stop(source);
}

void path_query(benchmark::State &state)
{
    clparse_head *head = parse(ports(48, 0, ""));
    unsigned int port = 0;
    for (auto _ : state) {
        uint64_t value;
        if (clparse_get_number(head, &value, "port%u.counters.tx", port++ % 48) != 0)
            fail("a path was not found");
        benchmark::DoNotOptimize(value);
    }
    clparse_stop(head);
}

// ---- Peers

#if HAVE_CJSON
template <shape make> void cjson_parse_and_free(benchmark::State &state)
{
    const int items = static_cast<int>(state.range(0));
    const std::string text = json<make>(items);
    for (auto _ : state) {
        cJSON *tree = cJSON_Parse(text.c_str());
        if (!tree)
            fail("cJSON did not read the document");
        cJSON_Delete(tree);
    }
    report(state, nodes_of<make>(items));
}

template <shape make> void cjson_write(benchmark::State &state)
{
    const int items = static_cast<int>(state.range(0));
    cJSON *tree = cJSON_Parse(json<make>(items).c_str());
    for (auto _ : state)
        free(cJSON_PrintUnformatted(tree));
    report(state, nodes_of<make>(items));
    cJSON_Delete(tree);
}
#endif

#if HAVE_JANSSON
template <shape make> void jansson_parse_and_free(benchmark::State &state)
{
    const int items = static_cast<int>(state.range(0));
    const std::string text = json<make>(items);
    for (auto _ : state) {
        json_t *tree = json_loadb(text.data(), text.size(), 0, nullptr);
        if (!tree)
            fail("jansson did not read the document");
        json_decref(tree);
    }
    report(state, nodes_of<make>(items));
}

template <shape make> void jansson_write(benchmark::State &state)
{
    const int items = static_cast<int>(state.range(0));
    const std::string text = json<make>(items);
    json_t *tree = json_loadb(text.data(), text.size(), 0, nullptr);
    for (auto _ : state)
        free(json_dumps(tree, JSON_COMPACT));
    report(state, nodes_of<make>(items));
    json_decref(tree);
}

template <shape make> void jansson_update(benchmark::State &state)
{
    const int items = static_cast<int>(state.range(0));
    const std::string text = json<make>(items);
    json_t *source = json_loadb(text.data(), text.size(), 0, nullptr);
    for (auto _ : state) {
        state.PauseTiming();
        json_t *target = json_deep_copy(source);
        state.ResumeTiming();
        json_object_update_recursive(target, source);
        state.PauseTiming();
        json_decref(target);
        state.ResumeTiming();
    }
    report(state, nodes_of<make>(items));
    json_decref(source);
}
#endif

// ---- Rows

#define ROWS(function, sizes) BENCHMARK(function)->Apply(sizes)

#if HAVE_CJSON
#define CJSON_ROWS(make, sizes)                                                                              \
    ROWS(cjson_parse_and_free<make>, sizes);                                                                 \
    ROWS(cjson_write<make>, sizes);
#else
#define CJSON_ROWS(make, sizes)
#endif
#if HAVE_JANSSON
#define JANSSON_ROWS(make, sizes)                                                                            \
    ROWS(jansson_parse_and_free<make>, sizes);                                                               \
    ROWS(jansson_write<make>, sizes);
#else
#define JANSSON_ROWS(make, sizes)
#endif

// One shape: reading, freeing and writing it, and the same in the peers.
#define SHAPE_ROWS(make, sizes)                                                                              \
    ROWS(parse_and_free<make>, sizes);                                                                       \
    ROWS(free_alone<make>, sizes);                                                                           \
    ROWS(walk_alone<make>, sizes);                                                                           \
    ROWS((write<make, write_json>), sizes);                                                                  \
    ROWS((write<make, write_corelink>), sizes);                                                              \
    ROWS((write<make, write_paths>), sizes);                                                                 \
    ROWS((write<make, write_xml>), sizes);                                                                   \
    ROWS((write<make, write_pretty_xml>), sizes);                                                            \
    CJSON_ROWS(make, sizes)                                                                                  \
    JANSSON_ROWS(make, sizes)

SHAPE_ROWS(ports, configurations)
SHAPE_ROWS(flat, growing)
SHAPE_ROWS(dotted, growing)
ROWS(parse_and_free<dotted_twice>, growing);
SHAPE_ROWS(strings, growing)
SHAPE_ROWS(numbers, growing)
SHAPE_ROWS(one_string, bytes)

ROWS((merge_trees<tagged_ports, tagged_ports, clparse_update>), configurations);
ROWS((merge_trees<tagged_ports, tagged_ports, clparse_select>), configurations);
ROWS((merge_trees<tagged_ports, tagged_ports, clparse_insert>), configurations);
ROWS((merge_trees<tagged_ports, tagged_ports, clparse_insert_sort>), configurations);
ROWS((merge_trees<flat, flat, clparse_update>), growing);
ROWS((merge_trees<flat, flat, clparse_select>), growing);
ROWS((merge_trees<flat, reversed, clparse_update>), growing);
ROWS((merge_trees<flat, other_tags, clparse_select>), growing);
ROWS((merge_trees<flat, other_tags, clparse_insert>), growing);
ROWS((merge_trees<flat, other_tags, clparse_insert_sort>), growing);
ROWS((merge_trees<numbers, numbers, clparse_insert>), growing);
ROWS((merge_trees<numbers, numbers, clparse_insert_sort>), growing);
#if HAVE_JANSSON
ROWS(jansson_update<ports>, configurations);
ROWS(jansson_update<flat>, growing);
#endif

BENCHMARK(path_query);

} // namespace
