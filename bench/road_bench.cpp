// The rows of scripts/bench for the language: reading, freeing, writing, querying and merging, beside peers
// and beside the limit, which is what the interface itself forces.
//
// A row is named WORK/DOCUMENT/WHO and reports nanoseconds per unit (a node, a message, a query). The limit
// of reading and freeing is the same records, tags and texts by one malloc each, with nothing scanned; of
// writing a walk of the tree into a buffer that is large enough.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <malloc.h>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <qvlib.h>

#include "limit_tree.h"
#include "seeded.h"

#if HAVE_CJSON
#include <cjson/cJSON.h>
#endif
#if HAVE_JANSSON
#include <jansson.h>
#endif
#if HAVE_PUGIXML
#include <pugixml.hpp>
#endif
#if HAVE_RAPIDJSON
// Its own allocator keeps one block for all nodes; with malloc each text is a block, as in the other peers.
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#endif

namespace
{

using namespace bench;

// Freed memory stays in the process, as in a daemon that has run for a while.
const int memory_kept = mallopt(M_TRIM_THRESHOLD, 1 << 30) & mallopt(M_MMAP_MAX, 0);

[[noreturn]] void fail(const char *what)
{
    fprintf(stderr, "road_bench: %s\n", what);
    exit(1);
}

// ---- Timing

// The thread's own time: what else the machine does is counted by nobody.
double now()
{
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void report(benchmark::State &state, double units)
{
    state.counters["ns"] = benchmark::Counter(static_cast<double>(state.iterations()) * units * 1e-9,
                                              benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

enum class timed { making, freeing, both };

// Makes one thing of each text, and frees all of them; counts the time of one of the two. For both, each is
// freed before the next is made.
template <class thing>
void run(benchmark::State &state, timed which, const std::vector<std::string> &texts, double units,
         thing (*make)(const std::string &), void (*release)(thing))
{
    std::vector<thing> things(texts.size());
    for (auto _ : state) {
        const double start = now();
        if (which == timed::both) {
            for (const std::string &text : texts)
                release(make(text));
            state.SetIterationTime(now() - start);
            continue;
        }
        for (size_t i = 0; i < texts.size(); i++) {
            things[i] = make(texts[i]);
            if (!things[i])
                fail("a document was not read");
        }
        const double made = now();
        for (thing made_thing : things)
            release(made_thing);
        const double freed = now();
        state.SetIterationTime(which == timed::making ? made - start : freed - made);
    }
    report(state, units);
}

// ---- Documents

struct seeded {
    const char *name;
    std::vector<std::string> texts, json;
    double nodes = 0; // of all texts together
};

clparse_head *parse(const std::string &text)
{
    return clparse_start(text.c_str());
}

seeded make_document(const char *name, std::string (*make)(int, bool), int items, int documents = 0)
{
    seeded made{name, {}, {}};
    for (int i = 0; i < (documents ? documents : 1); i++) {
        made.texts.push_back(make(documents ? i : items, false));
        made.json.push_back(make(documents ? i : items, true));
    }
    for (const std::string &text : made.texts) {
        clparse_head *head = parse(text);
        if (!head)
            fail("a document was not read");
        made.nodes += count_nodes(clparse_get_head(head));
        clparse_stop(head);
    }
    return made;
}

const seeded &document_named(const std::string &name)
{
    static std::vector<seeded> made;
    for (const seeded &known : made)
        if (name == known.name)
            return known;
    if (name == "configuration")
        made.push_back(make_document("configuration", configuration, 48));
    else if (name == "5MB")
        made.push_back(make_document("5MB", configuration, 4200));
    else if (name == "flat")
        made.push_back(make_document("flat", flat_members, 100000));
    else if (name == "strings")
        made.push_back(make_document("strings", long_strings, 4000));
    else if (name == "numbers")
        made.push_back(make_document("numbers", number_lists, 100000));
    else
        made.push_back(make_document("message", status_message, 0, 1000));
    return made.back();
}

// ---- The limit of reading and freeing

// The trees that the limit copies, made before anything is measured.
std::vector<clparse_head *> limit_sources;
size_t limit_next;

clparse_node *copy_next(const std::string &)
{
    return copy_nodes(clparse_get_head(limit_sources[limit_next++ % limit_sources.size()]), nullptr);
}

void run_limit(benchmark::State &state, timed which, const seeded &document, double units)
{
    limit_next = 0;
    for (const std::string &text : document.texts)
        limit_sources.push_back(parse(text));
    run<clparse_node *>(state, which, document.texts, units, copy_next, free_nodes);
    for (clparse_head *head : limit_sources)
        clparse_stop(head);
    limit_sources.clear();
}

// ---- Peers that read JSON

#if HAVE_CJSON
cJSON *read_cjson(const std::string &text)
{
    return cJSON_Parse(text.c_str());
}
#endif

#if HAVE_JANSSON
json_t *read_jansson(const std::string &text)
{
    return json_loadb(text.data(), text.size(), 0, nullptr);
}
void free_jansson(json_t *tree)
{
    json_decref(tree);
}
#endif

#if HAVE_RAPIDJSON
using rapid = rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::CrtAllocator>;

rapid *read_rapidjson(const std::string &text)
{
    auto *tree = new rapid;
    tree->Parse(text.c_str());
    if (tree->HasParseError())
        fail("RapidJSON did not read a document");
    return tree;
}
void free_rapidjson(rapid *tree)
{
    delete tree;
}
#endif

void run_reading(benchmark::State &state, timed which, const std::string &name, const std::string &who)
{
    const seeded &document = document_named(name);
    const double units = which == timed::both ? static_cast<double>(document.texts.size()) : document.nodes;
    if (who == "ours")
        run<clparse_head *>(state, which, document.texts, units, parse, clparse_stop);
    else if (who == "limit")
        run_limit(state, which, document, units);
#if HAVE_CJSON
    else if (who == "cJSON")
        run<cJSON *>(state, which, document.json, units, read_cjson, cJSON_Delete);
#endif
#if HAVE_JANSSON
    else if (who == "jansson")
        run<json_t *>(state, which, document.json, units, read_jansson, free_jansson);
#endif
#if HAVE_RAPIDJSON
    else if (who == "RapidJSON")
        run<rapid *>(state, which, document.json, units, read_rapidjson, free_rapidjson);
#endif
}

// ---- Writing

// Copies what a writer must write of a tree: tags, texts and numbers with their punctuation.
class limit_writer
{
  public:
    explicit limit_writer(char *buffer) : at_(buffer)
    {
    }
    size_t length(const char *buffer) const
    {
        return static_cast<size_t>(at_ - buffer);
    }

    void text(const char *text, size_t length)
    {
        at_ = static_cast<char *>(memcpy(at_, text, length)) + length;
    }
    void text(const char *value)
    {
        text(value, strlen(value));
    }
    void number(uint64_t number)
    {
        char digits[20], *first = digits + sizeof digits;
        do
            *--first = static_cast<char>('0' + number % 10);
        while (number /= 10);
        text(first, static_cast<size_t>(digits + sizeof digits - first));
    }
    void scalar(const clparse_node *node)
    {
        switch (node->type) {
        case CLPARSE_TYPE_STRING:
            text("\"", 1);
            text(node->value.str);
            text("\"", 1);
            break;
        case CLPARSE_TYPE_NUMBER:
            number(node->value.num);
            break;
        case CLPARSE_TYPE_BOOLEAN:
            node->value.boolean ? text("true", 4) : text("false", 5);
            break;
        default:
            text("null", 4);
            break;
        }
    }
    void json(const clparse_node *node, bool quoted)
    {
        if (node->tag) {
            text("\"", quoted ? 1 : 0);
            text(node->tag);
            text(quoted ? "\":" : "=", quoted ? 2 : 1);
        }
        if (node->type == CLPARSE_TYPE_STRUCT || node->type == CLPARSE_TYPE_ARRAY) {
            text(node->type == CLPARSE_TYPE_STRUCT ? "{" : "[", 1);
            members(node, quoted);
            text(node->type == CLPARSE_TYPE_STRUCT ? "}" : "]", 1);
        } else {
            scalar(node);
        }
    }
    void members(const clparse_node *container, bool quoted)
    {
        const clparse_node *end = container->value.children;
        for (const clparse_node *child = end->next; child != end; child = child->next) {
            json(child, quoted);
            if (child->next != end)
                text(",", 1);
        }
    }
    // The list of paths: each leaf with the path of the structs that it stands in.
    void paths(const clparse_node *container, char *prefix, size_t prefix_length)
    {
        const clparse_node *end = container->value.children;
        for (const clparse_node *child = end->next; child != end; child = child->next) {
            const size_t tag_length = strlen(child->tag);
            if (child->type == CLPARSE_TYPE_STRUCT) {
                memcpy(prefix + prefix_length, child->tag, tag_length);
                prefix[prefix_length + tag_length] = '.';
                paths(child, prefix, prefix_length + tag_length + 1);
            } else {
                text(prefix, prefix_length);
                json(child, false);
            }
            if (child->next != end)
                text(",", 1);
        }
    }

  private:
    char *at_;
};

char *write_json(clparse_head *head)
{
    return clparse_get_json(head);
}
char *write_corelink(clparse_head *head)
{
    char *text;
    return clparse_get_corelink(head, &text, 0) == 0 ? text : nullptr;
}
char *write_paths(clparse_head *head)
{
    char *text;
    return clparse_get_corelink(head, &text, 1) == 0 ? text : nullptr;
}
char *write_xml(clparse_head *head)
{
    char *text;
    return clparse_get_xml(head, &text, 0, nullptr) == 0 ? text : nullptr;
}
char *write_pretty_xml(clparse_head *head)
{
    char *text;
    return clparse_get_xml(head, &text, 1, nullptr) == 0 ? text : nullptr;
}

void run_writing(benchmark::State &state, const std::string &form, const std::string &name,
                 const std::string &who)
{
    const seeded &document = document_named(name);
    clparse_head *head = parse(document.texts[0]);
    if (who == "ours") {
        char *(*const write)(clparse_head *) = form == "JSON"       ? write_json
                                               : form == "corelink" ? write_corelink
                                               : form == "paths"    ? write_paths
                                               : form == "XML"      ? write_xml
                                                                    : write_pretty_xml;
        for (auto _ : state) {
            const double start = now();
            char *text = write(head);
            state.SetIterationTime(now() - start);
            if (!text)
                fail("a tree was not written");
            qv_memcheck_free(qv_free, text, "bench");
        }
    } else if (who == "limit") {
        const clparse_node *root = clparse_get_head(head);
        std::vector<char> buffer(4 * document.texts[0].size());
        char prefix[1000];
        for (auto _ : state) {
            const double start = now();
            limit_writer writer(buffer.data());
            if (form == "paths")
                writer.paths(root, prefix, 0);
            else
                writer.members(root, form == "JSON");
            benchmark::DoNotOptimize(writer.length(buffer.data()));
            benchmark::ClobberMemory();
            state.SetIterationTime(now() - start);
        }
    }
#if HAVE_CJSON
    else if (who == "cJSON") {
        cJSON *tree = read_cjson(document.json[0]);
        for (auto _ : state) {
            const double start = now();
            char *text = cJSON_PrintUnformatted(tree);
            state.SetIterationTime(now() - start);
            free(text);
        }
        cJSON_Delete(tree);
    }
#endif
#if HAVE_JANSSON
    else if (who == "jansson") {
        json_t *tree = read_jansson(document.json[0]);
        for (auto _ : state) {
            const double start = now();
            char *text = json_dumps(tree, JSON_COMPACT);
            state.SetIterationTime(now() - start);
            free(text);
        }
        json_decref(tree);
    }
#endif
#if HAVE_RAPIDJSON
    else if (who == "RapidJSON") {
        rapid *tree = read_rapidjson(document.json[0]);
        for (auto _ : state) {
            const double start = now();
            rapidjson::StringBuffer buffer;
            rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
            tree->Accept(writer);
            benchmark::DoNotOptimize(buffer.GetString());
            state.SetIterationTime(now() - start);
        }
        delete tree;
    }
#endif
#if HAVE_PUGIXML
    else if (who == "pugixml") {
        struct text_writer : pugi::xml_writer {
            std::string text;
            void write(const void *data, size_t size) override
            {
                text.append(static_cast<const char *>(data), size);
            }
        };
        char *text = write_xml(head);
        pugi::xml_document tree;
        if (!tree.load_string(text))
            fail("pugixml did not read a document");
        qv_memcheck_free(qv_free, text, "bench");
        for (auto _ : state) {
            const double start = now();
            text_writer writer;
            tree.save(writer, "  ", form == "XML" ? pugi::format_raw : pugi::format_indent);
            benchmark::DoNotOptimize(writer.text.data());
            state.SetIterationTime(now() - start);
        }
    }
#endif
    report(state, document.nodes);
    clparse_stop(head);
}

// ---- Querying

// Walks to a path's node as the interface forces it: the path is formatted, then looked up segment by
// segment.
__attribute__((format(printf, 2, 3))) const clparse_node *limit_find(clparse_head *head, const char *format,
                                                                     ...)
{
    char path[256];
    va_list args;
    va_start(args, format);
    vsnprintf(path, sizeof path, format, args);
    va_end(args);
    const clparse_node *node = clparse_get_head(head);
    for (char *segment = path, *next; node && segment; segment = next) {
        next = strchr(segment, '.');
        if (next)
            *next++ = '\0';
        const clparse_node *end = node->value.children, *child = end->next;
        while (child != end && strcmp(child->tag, segment) != 0)
            child = child->next;
        node = child == end ? nullptr : child;
    }
    return node;
}

void run_query(benchmark::State &state, const std::string &who)
{
    constexpr unsigned int queries = 4800;
    const bool ours = who == "ours"; // peers have nothing else in their loops
    const seeded &document = document_named("configuration");
    clparse_head *head = parse(document.texts[0]);
    for (auto _ : state) {
        const double start = now();
        for (unsigned int port = 0; port < queries; port++) {
            uint64_t value = 0;
            if (ours) {
                if (clparse_get_number(head, &value, "port%u.counters.%s", port % 48, "lip") != 0)
                    fail("a path was not found");
            } else {
                const clparse_node *node = limit_find(head, "port%u.counters.%s", port % 48, "lip");
                value = node->value.num;
            }
            benchmark::DoNotOptimize(value);
        }
        state.SetIterationTime(now() - start);
    }
    report(state, queries);
    clparse_stop(head);
}

// ---- Merging

// A merge of a source into a fresh target each time.
template <class tree>
void run_merge(benchmark::State &state, double units, const std::string &target_text,
               const std::string &source_text, tree (*read)(const std::string &), void (*release)(tree),
               int (*merge)(tree, tree))
{
    tree source = read(source_text);
    for (auto _ : state) {
        tree target = read(target_text);
        const double start = now();
        if (merge(target, source) != 0)
            fail("a merge was refused");
        state.SetIterationTime(now() - start);
        release(target);
    }
    release(source);
    report(state, units);
}

#if HAVE_JANSSON
// As json_object_update_recursive, but the target gets copies of its own, as ours does.
int update_by_copies(json_t *target, json_t *source)
{
    const char *key;
    json_t *value;
    json_object_foreach(source, key, value)
    {
        json_t *present = json_object_get(target, key);
        const bool both = json_is_object(present) && json_is_object(value);
        if (both ? update_by_copies(present, value) : json_object_set_new(target, key, json_deep_copy(value)))
            return -1;
    }
    return 0;
}
#endif

void run_merge(benchmark::State &state, const std::string &work, const std::string &name,
               const std::string &who)
{
    // update and select find every member, insert and insert_sort half of the ports.
    const int target_ports = work == "insert" || work == "insert_sort" ? 24 : 48;
    const auto target = [&](bool json) {
        return name == "turned" ? flat_members(10000, json) : configuration(target_ports, json, false, 7);
    };
    const auto source = [&](bool json) {
        return name == "turned" ? turned_members(10000, json) : configuration(48, json, false, 8);
    };
    clparse_head *counted = parse(source(false));
    const double units = count_nodes(clparse_get_head(counted));
    clparse_stop(counted);
    if (who == "ours")
        run_merge<clparse_head *>(state, units, target(false), source(false), parse, clparse_stop,
                                  work == "update"        ? clparse_update
                                  : work == "insert"      ? clparse_insert
                                  : work == "insert_sort" ? clparse_insert_sort
                                                          : clparse_select);
#if HAVE_JANSSON
    else
        run_merge<json_t *>(state, units, target(true), source(true), read_jansson, free_jansson,
                            update_by_copies);
#endif
}

// ---- Rows

std::vector<std::string> readers = {
    "ours",      "limit",
#if HAVE_CJSON
    "cJSON",
#endif
#if HAVE_JANSSON
    "jansson",
#endif
#if HAVE_RAPIDJSON
    "RapidJSON",
#endif
};

template <class function> void add(const std::string &name, function body)
{
    benchmark::RegisterBenchmark(name.c_str(), body)->UseManualTime()->Unit(benchmark::kMicrosecond);
}

const bool registered = [] {
    for (const std::string &who : readers) {
        for (const char *name : {"configuration", "5MB", "flat", "strings", "numbers"}) {
            const std::string document = name;
            add("parse/" + document + "/" + who, [document, who](benchmark::State &state) {
                run_reading(state, timed::making, document, who);
            });
            add("free/" + document + "/" + who, [document, who](benchmark::State &state) {
                run_reading(state, timed::freeing, document, who);
            });
        }
        add("parse_and_free/message/" + who,
            [who](benchmark::State &state) { run_reading(state, timed::both, "message", who); });
        for (const char *name : {"configuration", "strings"}) {
            const std::string document = name;
            add("write_JSON/" + document + "/" + who,
                [document, who](benchmark::State &state) { run_writing(state, "JSON", document, who); });
        }
    }
    for (const char *form : {"corelink", "paths"})
        for (const char *who : {"ours", "limit"})
            add(std::string("write_") + form + "/configuration/" + who,
                [form, who](benchmark::State &state) { run_writing(state, form, "configuration", who); });
    for (const char *form : {"XML", "pretty_XML"})
        for (const char *who : {
                 "ours",
#if HAVE_PUGIXML
                     "pugixml"
#endif
             })
            add(std::string("write_") + form + "/configuration/" + who,
                [form, who](benchmark::State &state) { run_writing(state, form, "configuration", who); });
    for (const char *who : {"ours", "limit"})
        add(std::string("query/configuration/") + who,
            [who](benchmark::State &state) { run_query(state, who); });
    for (const char *who : {
             "ours",
#if HAVE_JANSSON
                 "jansson"
#endif
         }) {
        for (const char *work : {"update", "insert", "insert_sort", "select"})
            add(std::string(work) + "/configuration/" + who,
                [work, who](benchmark::State &state) { run_merge(state, work, "configuration", who); });
        add(std::string("update/turned/") + who,
            [who](benchmark::State &state) { run_merge(state, "update", "turned", who); });
    }
    return true;
}();

} // namespace
