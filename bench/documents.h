// Documents of growing size, what the benches of the corelink road share, and how they report.
#pragma once

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>
#include <qvlib.h>

namespace bench
{

// Keeps freed memory in the process, as in a daemon that has run for a while: without it, each round over a
// large document would measure how the kernel hands out pages.
inline const int memory_kept = mallopt(M_TRIM_THRESHOLD, INT_MAX) & mallopt(M_MMAP_MAX, 0);

inline void release(char *text)
{
    qv_memcheck_free(qv_free, text, "bench");
}

[[noreturn]] inline void fail(const char *what)
{
    fprintf(stderr, "corelink_bench: %s\n", what);
    exit(1);
}

inline clparse_head *parse(const std::string &text)
{
    clparse_head *head = clparse_start(text.c_str());
    if (!head)
        fail("a document was not read");
    return head;
}

inline long count_nodes(const clparse_node *node)
{
    long count = 1;
    if (node->type != CLPARSE_TYPE_STRUCT && node->type != CLPARSE_TYPE_ARRAY)
        return count;
    const clparse_node *end = node->value.children;
    for (const clparse_node *child = end->next; child != end; child = child->next)
        count += count_nodes(child);
    return count;
}

// ---- Documents

// `items` ports of an appliance, each with a struct, an array and values of all types.
inline std::string ports(int items, int, const char *change)
{
    std::string text = "version=\"3.2.1\",unit={name=\"left\",serial=\"QB-0042\",slot=1}";
    for (int i = 0; i < items; i++) {
        char port[512];
        snprintf(port, sizeof port,
                 ",port%d={wwn=\"50:01:43:80:%02x:%02x:%02x:%02x\",speed=8,enabled=%s,link=\"up%s\",counters="
                 "{rx=%d,"
                 "tx=%d,crc=0,lip=3,los=0},sfp={vendor=\"ACME "
                 "OPTICS\",part=\"SFP-8G-SW\",wavelength=850,copper=false},"
                 "targets=[1,2,3,{lun=0,rev=\"1.0\"}],note=\"row %d\"}",
                 i, i >> 24 & 255, i >> 16 & 255, i >> 8 & 255, i & 255, i % 2 ? "true" : "false", change,
                 i * 17, i * 31, i);
        text += port;
    }
    return text;
}

// The same with tags everywhere: an update refuses array elements, which have none.
inline std::string tagged_ports(int items, int, const char *change)
{
    std::string text = ports(items, 0, change);
    for (size_t at = text.find("[1,2,3,{"); at != std::string::npos; at = text.find("[1,2,3,{", at))
        text.replace(at, strlen("[1,2,3,{"), "{a=1,b=2,c={");
    for (size_t at = text.find("}],"); at != std::string::npos; at = text.find("}],", at))
        text.replace(at, strlen("}],"), "}},");
    return text;
}

inline std::string flat(int items, int first, const char *change)
{
    std::string text = "first=1";
    for (int i = 0; i < items; i++)
        text +=
            ",member_" + std::to_string((i + first) % items) + "=" + std::to_string(i) + (*change ? "1" : "");
    return text;
}

inline std::string reversed(int items, int, const char *)
{
    std::string text = "first=1";
    for (int i = items; i-- > 0;)
        text += ",member_" + std::to_string(i) + "=" + std::to_string(i);
    return text;
}

inline std::string other_tags(int items, int, const char *)
{
    std::string text = "second=1";
    for (int i = 0; i < items; i++)
        text += ",other_" + std::to_string(i) + "=" + std::to_string(i);
    return text;
}

inline std::string dotted(int items, int, const char *)
{
    std::string text = "first=1";
    for (int i = 0; i < items; i++)
        text += ",prefix_" + std::to_string(i) + ".value=" + std::to_string(i);
    return text;
}

// As dotted, then a second member for each prefix in another order.
inline std::string dotted_twice(int items, int, const char *)
{
    std::string text = dotted(items, 0, "");
    for (int i = 0; i < items; i++)
        text += ",prefix_" + std::to_string((i * 7L + 3) % items) + ".other=" + std::to_string(i);
    return text;
}

inline std::string strings(int items, int, const char *)
{
    std::string text = "first=1";
    for (int i = 0; i < items; i++) {
        text += ",text_" + std::to_string(i) + "=\"";
        for (int k = 0; k < 10; k++)
            text += "a line of text with \\\"";
        text += "\"";
    }
    return text;
}

// One string of `items` bytes, a quote in every tenth place.
inline std::string one_string(int items, int, const char *)
{
    std::string text = "text=\"";
    for (int i = 0; i < items / 10; i++)
        text += "ninebytes\\\"";
    return text + "\"";
}

inline std::string numbers(int items, int, const char *)
{
    std::string text = "list=[0";
    for (int i = 1; i < items; i++)
        text += "," + std::to_string(i * 7919L % 1000003);
    return text + "]";
}

using shape = std::string (*)(int items, int first, const char *change);

inline void report(benchmark::State &state, long nodes)
{
    state.SetItemsProcessed(state.iterations() * nodes);
    state.counters["per_node"] =
        benchmark::Counter(static_cast<double>(state.iterations() * nodes),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The same document as JSON.
template <shape make> std::string json(int items)
{
    clparse_head *head = parse(make(items, 0, ""));
    char *members = clparse_get_json(head);
    std::string text = std::string("{") + members + "}";
    release(members);
    clparse_stop(head);
    return text;
}

template <shape make> long nodes_of(int items)
{
    clparse_head *head = parse(make(items, 0, ""));
    const long nodes = count_nodes(clparse_get_head(head));
    clparse_stop(head);
    return nodes;
}

// 16-fold steps: the cost per node grows at most 1.5-fold at each, but for what memory costs. The smallest
// documents fit the second-level cache, the others do not: compare with walk_alone.
inline void growing(benchmark::internal::Benchmark *rows)
{
    rows->ArgName("items")->Arg(6250)->Arg(100000)->Arg(1600000)->Unit(benchmark::kMillisecond);
}

inline void configurations(benchmark::internal::Benchmark *rows)
{
    rows->ArgName("ports")->Arg(48)->Arg(768)->Arg(12288)->Unit(benchmark::kMicrosecond);
}

inline void bytes(benchmark::internal::Benchmark *rows)
{
    rows->ArgName("bytes")->Arg(655360)->Arg(10485760)->Unit(benchmark::kMillisecond);
}

} // namespace bench
