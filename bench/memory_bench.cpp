// What a read tree takes of the allocator, beside the limit: the same records, tags and texts by one malloc
// each. The program's own allocation functions count for both.
//
// live and limit_live are bytes per node that were asked for, peak_above the bytes that reading
// takes beside them, allocations what reading asks for. Nothing is timed.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>
#include <qvlib/corelink.h>

#include "limit_tree.h"
#include "seeded.h"

namespace
{

struct usage {
    size_t live, peak, allocations;
};
usage used;

// In front of each block, so that what was asked for is known when it is released.
struct alignas(16) block_header {
    size_t size;
};

__attribute__((noinline)) void *count(block_header *header, size_t size)
{
    if (!header)
        return nullptr;
    header->size = size;
    used.live += size;
    used.peak = used.live > used.peak ? used.live : used.peak;
    used.allocations++;
    return header + 1;
}

block_header *uncount(void *block)
{
    if (!block)
        return nullptr;
    block_header *header = static_cast<block_header *>(block) - 1;
    used.live -= header->size;
    return header;
}

size_t size_of(void *block)
{
    return (static_cast<block_header *>(block) - 1)->size;
}

} // namespace

extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);

void *malloc(size_t size)
{
    return count(static_cast<block_header *>(__libc_malloc(size + sizeof(block_header))), size);
}

void *calloc(size_t number, size_t size)
{
    size *= number;
    return count(static_cast<block_header *>(__libc_calloc(1, size + sizeof(block_header))), size);
}

void *realloc(void *block, size_t size)
{
    block_header *header = uncount(block);
    return count(static_cast<block_header *>(__libc_realloc(header, size + sizeof(block_header))), size);
}

void free(void *block)
{
    __libc_free(uncount(block));
}
}

namespace
{

using namespace bench;

void memory(benchmark::State &state, const std::string &text)
{
    for (auto _ : state) {
        used.peak = used.live;
        const usage before = used;
        clparse_head *head = clparse_start(text.c_str());
        if (!head) {
            fprintf(stderr, "memory_bench: a document was not read\n");
            exit(1);
        }
        const usage read = used;
        clparse_node *limit = copy_nodes(clparse_get_head(head), nullptr);
        const usage copied = used;
        const double nodes = count_nodes(limit);
        const auto live = static_cast<double>(read.live - before.live);
        // A tree's root is part of its head.
        const auto limit_live = static_cast<double>(copied.live - read.live + size_of(head) - size_of(limit));
        const auto allocations = static_cast<double>(read.allocations - before.allocations);
        const auto limit_allocations = static_cast<double>(copied.allocations - read.allocations);
        state.counters["live"] = live / nodes;
        state.counters["limit_live"] = limit_live / nodes;
        state.counters["live_ratio"] = live / limit_live;
        state.counters["peak_above"] = static_cast<double>(read.peak - read.live);
        state.counters["allocations"] = allocations / nodes;
        state.counters["limit_allocations"] = limit_allocations / nodes;
        state.counters["allocations_ratio"] = allocations / limit_allocations;
        free_nodes(limit);
        clparse_stop(head);
    }
}

void configuration_memory(benchmark::State &state)
{
    memory(state, configuration(48, false));
}
void flat_memory(benchmark::State &state)
{
    memory(state, flat_members(100000, false));
}
void strings_memory(benchmark::State &state)
{
    memory(state, long_strings(4000, false));
}
BENCHMARK(configuration_memory)->Iterations(1);
BENCHMARK(flat_memory)->Iterations(1);
BENCHMARK(strings_memory)->Iterations(1);

} // namespace
