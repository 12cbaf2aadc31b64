// Queues and lists, trees, references, the lock checker.

#include "scenario.h"

#include <cerrno>
#include <pthread.h>

using namespace allocations;

namespace
{

int items[20];

int same_number(void *item, unsigned int key, unsigned int, ...)
{
    return static_cast<int *>(item) - items == static_cast<int>(key);
}

int remove_always(void *, void *)
{
    return 1;
}

int keep_all(void *, void *)
{
    return 0;
}

} // namespace

SCENARIO(fill_queue)
{
    q_queue *q = CALL(q_init, 8, 2, same_number, remove_always, remove_always, keep_all);
    if (!q) {
        EXPECT_TRUE(failed());
        may_stay("the object of a queue whose list heads could not be had");
        return;
    }
    unsigned int in_slots = 0, in_list = 0;
    for (unsigned int i = 0; i < 4; i++) {
        const q_elem *element = CALL(q_add_queue, q, &items[i], i, nullptr);
        EXPECT_TRUE(element || failed());
        in_slots += element != nullptr;
    }
    for (unsigned int i = 10; i < 13; i++) {
        const q_elem *element = CALL(q_add_list, q, &items[i], 1, nullptr);
        EXPECT_TRUE(element || failed());
        in_list += element != nullptr;
    }
    EXPECT_EQ(CALL(q_queuecount, q), in_slots);
    EXPECT_EQ(CALL(q_listcount, q, 1), in_list);
    // A refused addition can be made again.
    for (unsigned int i = 0; i < 4; i++) {
        EXPECT_TRUE(q_refer(q, i, 0) || q_add_queue(q, &items[i], i, nullptr));
    }
    for (unsigned int i = 10; i < 13; i++) {
        EXPECT_TRUE(q_refer(q, i, 0) || q_add_list(q, &items[i], 1, nullptr));
    }
    EXPECT_EQ(CALL(q_refer, q, 2, 0), &items[2]);
    EXPECT_EQ(CALL(q_refer_list, q, 1, 12), &items[12]);
    EXPECT_EQ(CALL(q_exit, q, nullptr), 0);
}

SCENARIO(use_queue)
{
    q_queue *q = q_init(8, 2, same_number, remove_always, remove_always, nullptr);
    for (unsigned int i = 0; i < 8; i++)
        q_add_queue(q, &items[i], i, nullptr);
    EXPECT_TRUE(CALL(q_refer_element, q, 3, Q_ANY_OCCUPANT));
    EXPECT_EQ(CALL(q_q2l, q, 0, 3), 0);
    EXPECT_EQ(CALL(q_q2l, q, 0, 4), 0);
    EXPECT_EQ(CALL(q_q2l, q, 0, 5), 0);
    EXPECT_EQ(CALL(q_l2l, q, 0, 1, 4), 0);
    EXPECT_TRUE(CALL(q_refer_list_element, q, 1, 4));
    const q_work_fn work = [](q_queue *, void *, void *, int) { return 1; };
    EXPECT_EQ(CALL(q_work_queue, q, work, nullptr), 1);
    EXPECT_EQ(CALL(q_work_list, q, 0, work, nullptr), 1);
    EXPECT_EQ(CALL(q_work_all, q, work, nullptr), 1);
    EXPECT_EQ(CALL(q_listcount_filter, q, 0, [](q_elem *) { return 1; }), 2U);
    const q_dump_fn dump = [](void *, void *, const char *) { return 5; };
    EXPECT_EQ(CALL(q_dump_queue, q, dump, nullptr), 5);
    CALL(q_dump_list, q, 0, dump, nullptr);
    EXPECT_EQ(CALL(q_delete_queue, q, remove_always, nullptr, nullptr), 1);
    EXPECT_EQ(CALL(q_delete_list, q, 0, remove_always, nullptr, nullptr), 1);
    EXPECT_EQ(CALL(q_delete, q, remove_always, nullptr, nullptr), 1);
    EXPECT_EQ(CALL(q_clean_list, q, 0, nullptr), 0);
    CALL(q_clean_queue, q, nullptr);
    CALL(q_clean, q, nullptr);
    EXPECT_EQ(CALL(q_exit, q, nullptr), 0);
}

SCENARIO(sort_list)
{
    q_elem head = {&head, &head, nullptr}, elements[5];
    for (q_elem &each : elements) {
        each = {&head, head.prev, &each};
        head.prev->next = &each;
        head.prev = &each;
    }
    CALL(__list_sort, &head, 5, [](q_elem *a, q_elem *b) { return a < b ? -1 : 1; });
    EXPECT_EQ(head.next, &elements[4]);
}

// ---- Trees

namespace
{

using create_fn = tree_node *(*)(tree_node *head, uint64_t key, void *item);
using delete_fn = tree_node *(*)(tree_node *head, uint64_t key);

// Without memory a tree stays as it was, or is a head alone, or none.
void fill_and_empty(const char *create_name, create_fn create, const char *delete_name, delete_fn remove)
{
    tree_node *head = nullptr;
    for (uint64_t key = 1; key <= 6; key++) {
        const int before = count_nodes(head);
        head = call(create_name, [&] { return create(head, key * 5 % 7, &items[key]); });
        EXPECT_TRUE(head || failed());
        EXPECT_TRUE(count_nodes(head) == before + 1 || failed());
    }
    for (uint64_t key = 1; key <= 6; key++)
        if (!head || !search_tree(head, key * 5 % 7))
            head = create(head, key * 5 % 7, &items[key]);
    EXPECT_EQ(count_nodes(head), 6);
    for (uint64_t key = 1; key <= 6; key++) {
        EXPECT_TRUE(search_tree(head, key));
        head = call(delete_name, [&] { return remove(head, key); });
    }
    EXPECT_EQ(head, nullptr);
}

} // namespace

SCENARIO(fill_avl_tree)
{
    fill_and_empty("avl_create_node", avl_create_node, "avl_delete_node", avl_delete_node);
}

SCENARIO(fill_red_black_tree)
{
    fill_and_empty("rb_create_node", rb_create_node, "rb_delete_node", rb_delete_node);
}

// A chain, so long that a walk over it needs memory, or finds its way back without.
SCENARIO(walk_deep_tree)
{
    constexpr int depth = 3000;
    static tree_node nodes[depth];
    tree_node head = {};
    tree_node **link = &head.left;
    for (int i = 0; i < depth; i++) {
        nodes[i] = {0, static_cast<uint32_t>(i), &nodes[i], nullptr, nullptr, 0};
        *link = &nodes[i];
        link = &nodes[i].right;
    }
    static uint64_t keys[depth + 1];
    static void *data[depth + 1];
    EXPECT_EQ(CALL(count_nodes, &head), depth);
    EXPECT_EQ(CALL(get_node_list, &head, keys, depth), depth);
    EXPECT_EQ(keys[0], static_cast<uint64_t>(depth - 1));
    EXPECT_EQ(CALL(get_node_list_data, &head, data, depth), depth);
    tree_node *handle = &head;
    int visits = 0;
    const tree_work_fn visit = [](tree_node **, void *, void *count) {
        ++*static_cast<int *>(count);
        return 4;
    };
    const int result = CALL(work_treenode, &handle, visit, &visits);
    EXPECT_TRUE((result == 4 && visits == depth) || (result == 0 && visits == 0 && failed()));
}

SCENARIO(work_on_tree)
{
    static tree_node nodes[3];
    tree_node head = {};
    for (uint32_t i = 0; i < 3; i++) {
        nodes[i] = {0, i, &nodes[i], nullptr, nullptr, 0};
        EXPECT_EQ(CALL(generic_insert_node, &head, &nodes[i]), 0);
    }
    uint64_t key = 9;
    EXPECT_EQ(CALL(tree_min, &head, &key), &nodes[0]);
    EXPECT_EQ(CALL(tree_max, &head, &key), &nodes[2]);
    EXPECT_EQ(CALL(search_tree, &head, 1), &nodes[1]);
    tree_node *handle = &head;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    const tree_work_fn visit = [](tree_node **, void *, void *) { return 4; };
    int result = CALL(work_treenode_locked, &handle, visit, nullptr, &mutex);
    EXPECT_TRUE(result == 4 || (result == 0 && failed()));
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
    pthread_mutex_unlock(&mutex);
    int destroyed = 0;
    static int *counter;
    counter = &destroyed;
    CALL(
        tree_destroy, &handle, [](void *) { ++*counter; }, nullptr);
    EXPECT_TRUE(destroyed == 3 || (destroyed == 0 && failed()));
    CALL(generic_remove_node, CALL(generic_find_node, &head, 1));
    EXPECT_EQ(count_nodes(&head), 2);
}

// ---- References, the lock checker

SCENARIO(hold_reference)
{
    qv_reference reference;
    int released = 0;
    if (CALL(
            qv_reference_prep, &reference, [](void *count) { ++*static_cast<int *>(count); }, &released) !=
        0) {
        EXPECT_TRUE(failed());
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(qv_reference_release(&reference), -1);
        return;
    }
    EXPECT_EQ(CALL(qv_reference_acquire, &reference), 0);
    EXPECT_EQ(CALL(qv_reference_release, &reference), 0);
    EXPECT_EQ(released, 1);
}

SCENARIO(name_thread)
{
    EXPECT_EQ(CALL(qvthread_setname, "%s-%d", "scenario", 1), 0);
}

namespace
{

size_t add_lock(size_t line, int id)
{
    const silenced output(stdout);
    return CALL(check_lock_add, "scenario.c", line, id, nullptr);
}

} // namespace

// A holding that memory is short for is not counted. So many that both tables grow, or their chains do.
SCENARIO(check_locks)
{
    if (CALL(check_lock_init) != 0) {
        EXPECT_TRUE(failed());
        EXPECT_EQ(add_lock(1, 1), 0U);
        return;
    }
    constexpr int count = 70;
    for (int id = 0; id < count; id++) {
        EXPECT_TRUE(add_lock(static_cast<size_t>(id), id) == 1 || failed());
    }
    const size_t second = add_lock(0, count);
    EXPECT_TRUE(second == 2 || failed());
    const silenced output(stdout);
    CALL(check_lock_dump);
    for (int id = 0; id < count; id++)
        CALL(check_lock_remove, id);
    EXPECT_TRUE(check_lock_add("scenario.c", 7, 7, nullptr) == 1);
    CALL(check_lock_exit);
}
