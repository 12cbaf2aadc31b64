// The containers beside what a C++ or C program would take instead: std::map and the red-black tree of BSD's
// <sys/tree.h> for keyed trees, std::list::sort for __list_sort, and slots looked up by inline code for q_*.
//
// Tree rows take random 64-bit keys and report the time per key; each inserts N keys into an empty tree,
// finds all of them in another order, or deletes all of them in a third. Without libbsd-dev there are no
// tree.h rows.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <map>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <qvlib/queue.h>
#include <qvlib/tree.h>

#include "queue_limit.h"

#if HAVE_BSD_TREE
#include <bsd/sys/tree.h>
#endif

namespace
{

[[noreturn]] void fail(const char *what)
{
    fprintf(stderr, "containers_bench: %s\n", what);
    exit(1);
}

struct key_sets {
    std::vector<uint64_t> insertion, search, deletion;

    explicit key_sets(size_t count)
    {
        std::mt19937_64 random(count);
        insertion.resize(count);
        for (uint64_t &key : insertion)
            key = random();
        search = deletion = insertion;
        std::shuffle(search.begin(), search.end(), random);
        std::shuffle(deletion.begin(), deletion.end(), random);
    }
};

void *item_of(uint64_t key)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(key | 1));
}

// ---- Trees of one interface

struct red_black {
    tree_node *head = nullptr;
    void insert(uint64_t key)
    {
        head = rb_create_node(head, key, item_of(key));
    }
    void *find(uint64_t key) const
    {
        return search_tree(head, key);
    }
    void remove(uint64_t key)
    {
        head = rb_delete_node(head, key);
    }
    bool empty() const
    {
        return head == nullptr;
    }
};

struct avl {
    tree_node *head = nullptr;
    void insert(uint64_t key)
    {
        head = avl_create_node(head, key, item_of(key));
    }
    void *find(uint64_t key) const
    {
        return search_tree(head, key);
    }
    void remove(uint64_t key)
    {
        head = avl_delete_node(head, key);
    }
    bool empty() const
    {
        return head == nullptr;
    }
};

struct std_map {
    std::map<uint64_t, void *> map;
    void insert(uint64_t key)
    {
        map.emplace(key, item_of(key));
    }
    void *find(uint64_t key) const
    {
        const auto found = map.find(key);
        return found != map.end() ? found->second : nullptr;
    }
    void remove(uint64_t key)
    {
        map.erase(key);
    }
    bool empty() const
    {
        return map.empty();
    }
};

#if HAVE_BSD_TREE
struct bsd_node {
    RB_ENTRY(bsd_node) entry;
    uint64_t key;
    void *item;
};

int compare_nodes(const bsd_node *a, const bsd_node *b)
{
    return a->key < b->key ? -1 : a->key > b->key;
}

RB_HEAD(bsd_head, bsd_node);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
RB_GENERATE_INTERNAL(bsd_head, bsd_node, entry, compare_nodes, static)
#pragma GCC diagnostic pop

struct bsd_tree {
    bsd_head head = RB_INITIALIZER(&head);
    void insert(uint64_t key)
    {
        auto *node = static_cast<bsd_node *>(calloc(1, sizeof(bsd_node)));
        node->key = key;
        node->item = item_of(key);
        if (RB_INSERT(bsd_head, &head, node) != nullptr)
            free(node);
    }
    void *find(uint64_t key)
    {
        bsd_node wanted{};
        wanted.key = key;
        const bsd_node *found = RB_FIND(bsd_head, &head, &wanted);
        return found != nullptr ? found->item : nullptr;
    }
    void remove(uint64_t key)
    {
        bsd_node wanted{};
        wanted.key = key;
        free(RB_REMOVE(bsd_head, &head, RB_FIND(bsd_head, &head, &wanted)));
    }
    bool empty() const
    {
        return RB_EMPTY(&head);
    }
};
#endif

template <typename Tree> void fill(Tree &tree, const key_sets &keys)
{
    for (uint64_t key : keys.insertion)
        tree.insert(key);
}

template <typename Tree> void drain(Tree &tree, const key_sets &keys)
{
    for (uint64_t key : keys.deletion)
        tree.remove(key);
}

template <typename Tree> void check(const key_sets &keys)
{
    Tree tree;
    fill(tree, keys);
    for (uint64_t key : keys.search)
        if (tree.find(key) != item_of(key))
            fail("a key is missing");
    drain(tree, keys);
    if (!tree.empty())
        fail("a key is left");
}

void report(benchmark::State &state)
{
    state.counters["per_key"] = benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

template <typename Tree> void insert(benchmark::State &state)
{
    const key_sets keys(static_cast<size_t>(state.range(0)));
    check<Tree>(keys);
    for (auto _ : state) {
        Tree tree;
        fill(tree, keys);
        state.PauseTiming();
        drain(tree, keys);
        state.ResumeTiming();
    }
    report(state);
}

template <typename Tree> void find(benchmark::State &state)
{
    const key_sets keys(static_cast<size_t>(state.range(0)));
    check<Tree>(keys);
    Tree tree;
    fill(tree, keys);
    for (auto _ : state)
        for (uint64_t key : keys.search)
            benchmark::DoNotOptimize(tree.find(key));
    drain(tree, keys);
    report(state);
}

template <typename Tree> void remove(benchmark::State &state)
{
    const key_sets keys(static_cast<size_t>(state.range(0)));
    check<Tree>(keys);
    for (auto _ : state) {
        state.PauseTiming();
        Tree tree;
        fill(tree, keys);
        state.ResumeTiming();
        drain(tree, keys);
    }
    report(state);
}

void sizes(benchmark::internal::Benchmark *bench)
{
    bench->RangeMultiplier(10)->Range(1000, 1000000)->Unit(benchmark::kMillisecond);
}

void small_sizes(benchmark::internal::Benchmark *bench)
{
    bench->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);
}

BENCHMARK(insert<red_black>)->Apply(sizes);
BENCHMARK(insert<std_map>)->Apply(sizes);
#if HAVE_BSD_TREE
BENCHMARK(insert<bsd_tree>)->Apply(sizes);
#endif
BENCHMARK(insert<avl>)->Apply(small_sizes);
BENCHMARK(find<red_black>)->Apply(sizes);
BENCHMARK(find<std_map>)->Apply(sizes);
#if HAVE_BSD_TREE
BENCHMARK(find<bsd_tree>)->Apply(sizes);
#endif
BENCHMARK(find<avl>)->Apply(small_sizes);
BENCHMARK(remove<red_black>)->Apply(sizes);
BENCHMARK(remove<std_map>)->Apply(sizes);
#if HAVE_BSD_TREE
BENCHMARK(remove<bsd_tree>)->Apply(sizes);
#endif
BENCHMARK(remove<avl>)->Apply(small_sizes);

// ---- Sorting

int compare_elements(q_elem *a, q_elem *b)
{
    const auto x = reinterpret_cast<uintptr_t>(a->data), y = reinterpret_cast<uintptr_t>(b->data);
    return x < y ? -1 : x > y;
}

struct linked_list {
    q_elem head{&head, &head, nullptr};

    explicit linked_list(const std::vector<uint64_t> &values)
    {
        for (uint64_t value : values) {
            auto *elem = static_cast<q_elem *>(malloc(sizeof(q_elem)));
            *elem = {&head, head.prev, reinterpret_cast<void *>(static_cast<uintptr_t>(value))};
            head.prev->next = elem;
            head.prev = elem;
        }
    }
    ~linked_list()
    {
        clear();
    }
    void clear()
    {
        for (q_elem *elem = head.next, *next; elem != &head; elem = next) {
            next = elem->next;
            free(elem);
        }
        head.next = head.prev = &head;
    }
};

void sort_list(benchmark::State &state)
{
    const key_sets keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        linked_list list(keys.insertion);
        state.ResumeTiming();
        __list_sort(&list.head, static_cast<unsigned int>(state.range(0)), compare_elements);
        state.PauseTiming();
        for (q_elem *elem = list.head.next; elem->next != &list.head; elem = elem->next)
            if (compare_elements(elem, elem->next) < 0)
                fail("a list is not sorted");
        list.clear();
        state.ResumeTiming();
    }
    report(state);
}

// A bottom-up merge sort over the same links: part i holds 2^i elements, as the bits of the number that were
// taken.
q_elem *merge_parts(q_elem *a, q_elem *b, int (*compare)(q_elem *, q_elem *))
{
    q_elem *first = nullptr, **end = &first;
    while (a && b) {
        q_elem *&taken = compare(a, b) >= 0 ? a : b;
        *end = taken;
        end = &taken->next;
        taken = taken->next;
    }
    *end = a ? a : b;
    return first;
}

void sort_bottom_up(q_elem *head, int (*compare)(q_elem *, q_elem *))
{
    q_elem *parts[32] = {};
    head->prev->next = nullptr;
    for (q_elem *next = head->next; next;) {
        q_elem *part = next;
        next = next->next;
        part->next = nullptr;
        size_t i = 0;
        for (; parts[i]; i++) {
            part = merge_parts(parts[i], part, compare);
            parts[i] = nullptr;
        }
        parts[i] = part;
    }
    q_elem *all = nullptr;
    for (q_elem *part : parts)
        all = merge_parts(part, all, compare);
    q_elem *last = head;
    for (q_elem *elem = all; elem; elem = elem->next) {
        last->next = elem;
        elem->prev = last;
        last = elem;
    }
    last->next = head;
    head->prev = last;
}

void sort_list_bottom_up(benchmark::State &state)
{
    const key_sets keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        linked_list list(keys.insertion);
        state.ResumeTiming();
        sort_bottom_up(&list.head, compare_elements);
        state.PauseTiming();
        for (q_elem *elem = list.head.next; elem->next != &list.head; elem = elem->next)
            if (compare_elements(elem, elem->next) < 0)
                fail("a list is not sorted");
        list.clear();
        state.ResumeTiming();
    }
    report(state);
}

void sort_std_list(benchmark::State &state)
{
    const key_sets keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        std::list<uint64_t> list(keys.insertion.begin(), keys.insertion.end());
        state.ResumeTiming();
        list.sort(std::greater<>());
        state.PauseTiming();
        if (!std::is_sorted(list.begin(), list.end(), std::greater<>()))
            fail("a list is not sorted");
        list.clear();
        state.ResumeTiming();
    }
    report(state);
}

BENCHMARK(sort_list)->Apply(sizes);
BENCHMARK(sort_list_bottom_up)->Apply(sizes);
BENCHMARK(sort_std_list)->Apply(sizes);

// ---- Slots

constexpr unsigned int slot_count = 1021;

struct port {
    unsigned int key;
};

int compare_port(void *item, unsigned int key, unsigned int, ...)
{
    return static_cast<port *>(item)->key == key;
}

int keep(void *, void *)
{
    return 0;
}

struct filled_queue {
    std::vector<port> ports{slot_count};
    q_queue *q = q_init(slot_count, 4, compare_port, keep, nullptr, nullptr);
    std::vector<unsigned int> keys;

    filled_queue()
    {
        std::mt19937 random(3);
        for (unsigned int i = 0; i < slot_count; i++) {
            ports[i].key = i + slot_count * static_cast<unsigned int>(random() % 1000);
            if (q_add_queue(q, &ports[i], ports[i].key, nullptr) == nullptr)
                fail("a slot is taken");
            keys.push_back(ports[i].key);
        }
        std::shuffle(keys.begin(), keys.end(), random);
    }
    ~filled_queue()
    {
        q_exit(q, nullptr);
    }
};

void refer_slot(benchmark::State &state)
{
    filled_queue filled;
    for (auto _ : state)
        for (unsigned int key : filled.keys)
            benchmark::DoNotOptimize(q_refer(filled.q, key, 0));
    state.SetItemsProcessed(state.iterations() * slot_count);
}

// As a caller that is compiled for size has it.
void refer_slot_by_call(benchmark::State &state)
{
    filled_queue filled;
    auto *refer = q_refer;
    benchmark::DoNotOptimize(refer);
    for (auto _ : state)
        for (unsigned int key : filled.keys)
            benchmark::DoNotOptimize(refer(filled.q, key, 0));
    state.SetItemsProcessed(state.iterations() * slot_count);
}

void refer_slot_limit(benchmark::State &state)
{
    filled_queue filled;
    for (auto _ : state)
        for (unsigned int key : filled.keys)
            benchmark::DoNotOptimize(queue_limit(filled.q, key));
    state.SetItemsProcessed(state.iterations() * slot_count);
}

// The same steps in the caller, through the same callback: it could not be inlined there either.
inline void *find_inline(q_queue *q, unsigned int key, unsigned int flags)
{
    if (q == nullptr)
        return nullptr;
    if ((flags & Q_SKIP_SLOT) == 0) {
        q_elem *elem = q->slots[key % q->slot_count];
        if (elem != nullptr && ((flags & Q_ANY_OCCUPANT) != 0 || q->compare(elem->data, key, flags) != 0))
            return elem->data;
    }
    if ((flags & Q_SLOT_ONLY) == 0)
        for (unsigned int i = 0; i < q->list_count; i++)
            for (q_elem *elem = q->lists[i].next; elem != &q->lists[i]; elem = elem->next)
                if (q->compare(elem->data, key, 0) != 0)
                    return elem->data;
    return nullptr;
}

void refer_slot_inline(benchmark::State &state)
{
    filled_queue filled;
    for (auto _ : state)
        for (unsigned int key : filled.keys)
            benchmark::DoNotOptimize(find_inline(filled.q, key, 0));
    state.SetItemsProcessed(state.iterations() * slot_count);
}

// Additions to empty slots; taking the elements out again is not counted.
template <q_elem *(*add)(q_queue *q, void *item, unsigned int key, void *arg)>
void add_slots(benchmark::State &state)
{
    filled_queue filled;
    for (auto _ : state) {
        state.PauseTiming();
        for (unsigned int i = 0; i < slot_count; i++) {
            free(filled.q->slots[i]);
            filled.q->slots[i] = nullptr;
        }
        state.ResumeTiming();
        for (port &item : filled.ports)
            benchmark::DoNotOptimize(add(filled.q, &item, item.key, nullptr));
    }
    state.SetItemsProcessed(state.iterations() * slot_count);
}

q_elem *add_inline(q_queue *q, void *item, unsigned int key, void *arg)
{
    if (q == nullptr)
        return nullptr;
    q_elem *&slot = q->slots[key % q->slot_count];
    if (slot != nullptr || (q->filter_fn != nullptr && q->filter_fn(item, arg) != 0))
        return nullptr;
    auto *elem = static_cast<q_elem *>(calloc(1, sizeof(q_elem)));
    if (elem == nullptr)
        return nullptr;
    elem->data = item;
    return slot = elem;
}

void add_slot(benchmark::State &state)
{
    add_slots<q_add_queue>(state);
}

void add_slot_inline(benchmark::State &state)
{
    add_slots<add_inline>(state);
}

BENCHMARK(add_slot);
BENCHMARK(add_slot_inline);
BENCHMARK(refer_slot);
BENCHMARK(refer_slot_by_call);
BENCHMARK(refer_slot_limit);
BENCHMARK(refer_slot_inline);

} // namespace
