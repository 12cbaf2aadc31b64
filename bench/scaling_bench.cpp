// How costs grow with the number of items, beside the same work on fewer: both sides are ours, measured in
// turn.
//
// Rows growth/OPERATION/SHAPE: nanoseconds per item of one document with 100,000 items (ours_ns) and of 100
// documents with 1,000 each (theirs_ns). The hundred are all there at once, each with its text and what is
// made of it: both sides have as much memory in use, and what differs is the work. Rows
// fourfold/OPERATION/SHAPE: the time of 4 n items by that of n, which is 4 where the cost is linear.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "documents.h"
#include "pairs.h"

#include <qvlib/lock_check.h>
#include <qvlib/memcheck.h>
#include <qvlib/sax.h>

namespace
{

using namespace bench;

// The seconds that one operation takes on so many documents of so many items, set-up left out.
using timed_work = double (*)(int items, int documents);

// What was freed is joined to large blocks when the allocator is asked for one the next time: not by the next
// work that happens to do so.
void settle_memory()
{
    free(malloc(1 << 20));
}

// The seconds that `run` takes on things that are made before and released afterwards.
template <class thing, class Run, class Release>
double time_of_all(std::vector<thing> &things, Run run, Release release)
{
    settle_memory();
    const double time = time_of([&] {
        for (thing &each : things)
            run(each);
    });
    for (thing &each : things)
        release(each);
    settle_memory();
    return time;
}

// ---- The language

template <shape make> const std::string &text_of(int items)
{
    static std::vector<std::pair<int, std::string>> made;
    for (const auto &[size, text] : made)
        if (size == items)
            return text;
    made.reserve(4);
    return made.emplace_back(items, make(items, items / 2, "x")).second;
}

// A string with so many quotes.
std::string quotes(int items, int, const char *)
{
    return one_string(10 * items, 0, "");
}

template <shape make> double read_text(int items, int documents)
{
    struct document {
        std::string text;
        clparse_head *head;
    };
    std::vector<document> all(static_cast<size_t>(documents), {text_of<make>(items), nullptr});
    return time_of_all(
        all, [](document &each) { each.head = clparse_start(each.text.c_str()); },
        [](document &each) {
            if (!each.head)
                fail("a document was not read");
            clparse_stop(each.head);
        });
}

char *json_text(clparse_head *head)
{
    return clparse_get_json(head);
}
char *corelink_text(clparse_head *head)
{
    char *text = nullptr;
    clparse_get_corelink(head, &text, 0);
    return text;
}
char *paths_text(clparse_head *head)
{
    char *text = nullptr;
    clparse_get_corelink(head, &text, 1);
    return text;
}
char *xml_text(clparse_head *head)
{
    char *text = nullptr;
    clparse_get_xml(head, &text, 1, nullptr);
    return text;
}

template <shape make, char *(*write)(clparse_head *)> double write_text(int items, int documents)
{
    struct document {
        clparse_head *head;
        char *text;
    };
    std::vector<document> all;
    for (int i = 0; i < documents; i++)
        all.push_back({parse(text_of<make>(items)), nullptr});
    return time_of_all(
        all, [](document &each) { each.text = write(each.head); },
        [](document &each) {
            if (!each.text)
                fail("a tree was not written");
            release(each.text);
            clparse_stop(each.head);
        });
}

template <shape make_target, shape make_source, int (*merge)(clparse_head *, clparse_head *)>
double merge_trees(int items, int documents)
{
    struct pair {
        clparse_head *target, *source;
        int result;
    };
    std::vector<pair> all;
    for (int i = 0; i < documents; i++)
        all.push_back({parse(text_of<make_target>(items)), parse(text_of<make_source>(items)), 0});
    return time_of_all(
        all, [](pair &each) { each.result = merge(each.target, each.source); },
        [](pair &each) {
            if (each.result != 0)
                fail("a merge was refused");
            clparse_stop(each.source);
            clparse_stop(each.target);
        });
}

// ---- What counts by name or site

std::vector<std::string> names(int items)
{
    std::vector<std::string> made;
    for (int i = 0; i < items; i++)
        made.push_back("function_" + std::to_string(i));
    return made;
}

// A block under each of so many names, then their release.
double many_names(int items, int)
{
    const std::vector<std::string> functions = names(items);
    std::vector<void *> blocks(functions.size());
    const int console = open("/dev/null", O_WRONLY);
    if (console < 0 || qv_memcheck_start(nullptr, console, [](int) { fail("a fault"); }) != 0)
        fail("qv_memcheck_start");
    const double time = time_of([&] {
        for (size_t i = 0; i < blocks.size(); i++)
            blocks[i] = qv_memcheck_malloc(malloc, 16, functions[i].c_str(), 1);
        for (void *block : blocks)
            qv_memcheck_free(free, block, "bench");
    });
    qv_memcheck_stop();
    close(console);
    return time;
}

// A holding at each of so many sites, then its end.
double many_sites(int items, int)
{
    const std::vector<std::string> files = names(items);
    if (check_lock_init() != 0)
        fail("check_lock_init");
    const double time = time_of([&] {
        for (int i = 0; i < items; i++)
            check_lock_add(files[static_cast<size_t>(i)].c_str(), 1, i + 1, nullptr);
        for (int i = 0; i < items; i++)
            check_lock_remove(i + 1);
    });
    check_lock_exit();
    return time;
}

double many_attributes(int items, int)
{
    std::string text = "<element";
    for (int i = 0; i < items; i++) {
        std::string name = std::to_string(i);
        for (char &digit : name)
            digit = static_cast<char>(digit - '0' + 'a');
        text += " name" + name + "=\"value\"";
    }
    text += "/>";
    FILE *stream = fmemopen(text.data(), text.size(), "r");
    int seen = 0;
    sax_callbacks callbacks = {};
    callbacks.error = [](const char *message, void *) { fail(message); };
    callbacks.start = [](void *, const sax_attribute *attributes, void *cookie) {
        for (; attributes; attributes = attributes->next)
            ++*static_cast<int *>(cookie);
    };
    const double time = time_of([&] { sax_parse_file(stream, &callbacks, &seen); });
    fclose(stream);
    if (seen != items)
        fail("attributes were lost");
    return time;
}

// ---- Rows

void growth(benchmark::State &state, timed_work work)
{
    constexpr int few = 1000, many = 100000;
    measure_pairs(
        state, many, [&] { return work(many, 1); }, [&] { return work(few, many / few); });
}

void fourfold(benchmark::State &state, timed_work work, int items)
{
    measure_pairs(
        state, 1, [&] { return work(4 * items, 1); }, [&] { return work(items, 1); });
}

struct row {
    const char *name;
    timed_work work;
    int items = 2500; // of a fourfold row
};

constexpr row growing[] = {
    {"read/flat", read_text<flat>},
    {"read/numbers", read_text<numbers>},
    {"read/strings", read_text<strings>},
    {"read/dotted", read_text<dotted>},
    {"JSON/flat", write_text<flat, json_text>},
    {"corelink/flat", write_text<flat, corelink_text>},
    {"paths/flat", write_text<flat, paths_text>},
    {"XML/flat", write_text<flat, xml_text>},
    {"JSON/strings", write_text<strings, json_text>},
    {"read/quotes", read_text<quotes>},
    {"JSON/quotes", write_text<quotes, json_text>},
    {"XML/quotes", write_text<quotes, xml_text>},
    {"update/equal", merge_trees<flat, flat, clparse_update>},
    {"select/equal", merge_trees<flat, flat, clparse_select>},
    {"insert/disjoint", merge_trees<flat, other_tags, clparse_insert>},
    {"insert_sort/disjoint", merge_trees<flat, other_tags, clparse_insert_sort>},
    {"update/reversed", merge_trees<flat, reversed, clparse_update>},
};

constexpr row fourfolds[] = {
    {"read/members", read_text<flat>},
    {"read/dotted_prefixes", read_text<dotted>},
    {"read/quotes", read_text<quotes>},
    {"JSON/quotes", write_text<quotes, json_text>},
    {"XML/quotes", write_text<quotes, xml_text>},
    {"insert/disjoint", merge_trees<flat, other_tags, clparse_insert>},
    {"update/equal", merge_trees<flat, flat, clparse_update>},
    {"update/reversed", merge_trees<flat, reversed, clparse_update>},
    {"tracked_blocks/names", many_names},
    {"lock_checker/sites", many_sites},
    {"SAX/attributes", many_attributes},
};

const bool registered = [] {
    const auto add = [](const std::string &name, auto body, int iterations) {
        benchmark::RegisterBenchmark(name.c_str(), body)->UseManualTime()->Iterations(iterations);
    };
    for (const row &row : growing)
        add(
            std::string("growth/") + row.name, [&row](benchmark::State &state) { growth(state, row.work); },
            7);
    for (const row &row : fourfolds)
        add(
            std::string("fourfold/") + row.name,
            [&row](benchmark::State &state) { fourfold(state, row.work, row.items); }, 5);
    return true;
}();

} // namespace
