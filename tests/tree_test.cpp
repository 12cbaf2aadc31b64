#include <qvlib/tree.h>

#include <algorithm>
#include <climits>
#include <errno.h>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "failing_alloc.h"
#include "machine.h"
#include "models/tree_models.h"

// The walker's locking is watched: a test may act just before the mutex is taken and just before it is given
// back.
namespace
{
std::function<void()> before_lock, before_unlock;
pthread_mutex_t *watched;
} // namespace

extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex)
{
    if (mutex == watched && before_lock)
        before_lock();
    return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex)
{
    if (mutex == watched && before_unlock)
        before_unlock();
    return __real_pthread_mutex_unlock(mutex);
}
}

namespace
{

using keys = std::vector<uint64_t>;

void *item_of(uint64_t key)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(key * 2 + 1));
}

uint64_t key_of(const tree_node *node)
{
    return uint64_t{node->key_hi} << 32 | node->key_lo;
}

// A plain tree whose nodes the test owns.
struct plain_tree {
    tree_node head{};
    tree_node *handle = &head;
    std::vector<std::unique_ptr<tree_node>> nodes;

    tree_node *add(uint64_t key)
    {
        auto node = std::make_unique<tree_node>();
        *node = {
            static_cast<uint32_t>(key >> 32), static_cast<uint32_t>(key), item_of(key), nullptr, nullptr, 7};
        if (generic_insert_node(&head, node.get()) != 0)
            return nullptr;
        nodes.push_back(std::move(node));
        return nodes.back().get();
    }

    explicit plain_tree(const keys &list = {})
    {
        for (uint64_t key : list)
            EXPECT_NE(add(key), nullptr);
    }
};

keys listed(tree_node *head)
{
    keys list(static_cast<size_t>(count_nodes(head)) + 1);
    list.resize(static_cast<size_t>(get_node_list(head, list.data(), static_cast<int>(list.size() - 1))));
    return list;
}

// Compares two trees node by node; trees of a test are low enough for recursion.
testing::AssertionResult same_tree(const tree_node *tree, const tree_models::node *model, bool words)
{
    if (tree == nullptr || model == nullptr) {
        if (tree == nullptr && model == nullptr)
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "a node is on one side only";
    }
    if (key_of(tree) != model->key || tree->data != model->item || (words && tree->word != model->word))
        return testing::AssertionFailure() << "key " << key_of(tree) << " word " << tree->word
                                           << ", expected key " << model->key << " word " << model->word;
    testing::AssertionResult left = same_tree(tree->left, model->left, words);
    return left ? same_tree(tree->right, model->right, words) : left;
}

// ---- Key patterns

struct pattern {
    const char *name;
    uint64_t (*next)(std::mt19937_64 &random, uint64_t step);
    size_t most_keys; // deletions keep the trees about so large
};

uint64_t random_key(std::mt19937_64 &random, uint64_t)
{
    return random();
}

uint64_t ascending_key(std::mt19937_64 &, uint64_t step)
{
    return step;
}

uint64_t descending_key(std::mt19937_64 &, uint64_t step)
{
    return ~step;
}

uint64_t clustered_key(std::mt19937_64 &random, uint64_t)
{
    return (random() % 4 << 40) + random() % 300;
}

uint64_t duplicate_key(std::mt19937_64 &random, uint64_t)
{
    return random() % 50;
}

uint64_t key_in_high_word(std::mt19937_64 &random, uint64_t)
{
    return (random() % 1000 << 32) | 0x80000000;
}

uint64_t key_in_low_word(std::mt19937_64 &random, uint64_t)
{
    return 0x7fffffff00000000 | (0x7fffff00 + random() % 1000);
}

const pattern patterns[] = {
    {"random", random_key, 300},        {"ascending", ascending_key, 60},
    {"descending", descending_key, 60}, {"clustered", clustered_key, 300},
    {"duplicates", duplicate_key, 50},  {"high word", key_in_high_word, 300},
    {"low word", key_in_low_word, 300},
};

// Drives insertions and deletions, 100,000 of each pattern, and calls check after each. Trees grow to the
// pattern's size, shrink to nothing and grow again.
void drive(const std::function<void(uint64_t key)> &insert, const std::function<void(uint64_t key)> &remove,
           const std::function<void()> &check)
{
    for (const pattern &each : patterns) {
        SCOPED_TRACE(each.name);
        std::mt19937_64 random(22);
        std::vector<uint64_t> present;
        bool growing = true;
        for (uint64_t step = 0; step < scaled(100000u); step++) {
            if (present.empty() || present.size() >= each.most_keys)
                growing = present.empty();
            if (random() % 100 < (growing ? 70u : 30u)) {
                const uint64_t key = each.next(random, step);
                insert(key);
                if (std::find(present.begin(), present.end(), key) == present.end())
                    present.push_back(key);
            } else if (random() % 20 == 0 || present.empty()) {
                const uint64_t key = each.next(random, step); // most of them absent
                remove(key);
                std::erase(present, key);
            } else {
                const auto at = static_cast<size_t>(random() % present.size());
                remove(present[at]);
                present[at] = present.back();
                present.pop_back();
            }
            check();
            if (testing::Test::HasFatalFailure() || testing::Test::HasNonfatalFailure())
                FAIL() << "step " << step;
        }
        while (!present.empty()) {
            remove(present.back());
            present.pop_back();
            check();
        }
    }
}

// ---- Plain trees

TEST(GenericInsertNode, SendsGreaterKeysRightAndOthersLeft)
{
    plain_tree tree({50, 30, 70, 60});
    const tree_node *root = tree.head.left;
    EXPECT_EQ(key_of(root), 50u);
    EXPECT_EQ(key_of(root->left), 30u);
    EXPECT_EQ(key_of(root->right), 70u);
    EXPECT_EQ(key_of(root->right->left), 60u);
    EXPECT_EQ(tree.head.right, nullptr);
}

TEST(GenericInsertNode, ComparesTheHighWordFirst)
{
    plain_tree tree({0x100000000, 0x0ffffffff});
    EXPECT_EQ(key_of(tree.head.left->left), 0xffffffffu);
    uint64_t least = 0;
    EXPECT_EQ(tree_min(&tree.head, &least), item_of(0xffffffff));
    EXPECT_EQ(least, 0xffffffffu);
}

TEST(GenericInsertNode, ComparesWordsWithoutSign)
{
    plain_tree tree({0x80000000, 0x7fffffff, 0x8000000000000000, 0x7fffffffffffffff});
    keys list = listed(&tree.head);
    std::sort(list.begin(), list.end());
    uint64_t greatest = 0;
    tree_max(&tree.head, &greatest);
    EXPECT_EQ(greatest, 0x8000000000000000u);
    EXPECT_EQ(list.front(), 0x7fffffffu);
}

TEST(GenericInsertNode, RefusesAPresentKeyWithEexistAndChangesNothing)
{
    plain_tree tree({5, 3, 8});
    const keys before = listed(&tree.head);
    tree_node twin{};
    twin.key_lo = 3;
    errno = 0;
    EXPECT_EQ(generic_insert_node(&tree.head, &twin), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(listed(&tree.head), before);
}

TEST(GenericInsertNode, RefusesNullWithEinval)
{
    tree_node head{}, node{};
    errno = 0;
    EXPECT_EQ(generic_insert_node(nullptr, &node), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(generic_insert_node(&head, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(GenericFindNode, ReturnsTheLinkThatHoldsTheNode)
{
    plain_tree tree({5, 3, 8});
    EXPECT_EQ(generic_find_node(&tree.head, 5), &tree.head.left);
    EXPECT_EQ(generic_find_node(&tree.head, 3), &tree.head.left->left);
    EXPECT_EQ(generic_find_node(&tree.head, 8), &tree.head.left->right);
}

TEST(GenericFindNode, SetsEnoentForWhatIsNotThere)
{
    plain_tree tree({5});
    for (tree_node *head : {&tree.head, static_cast<tree_node *>(nullptr)}) {
        errno = 0;
        EXPECT_EQ(generic_find_node(head, 4), nullptr);
        EXPECT_EQ(errno, ENOENT);
    }
}

TEST(GenericRemoveNode, PutsTheRightChildInPlaceOfANodeWithoutALeftOne)
{
    plain_tree tree({5, 8, 7, 9});
    generic_remove_node(generic_find_node(&tree.head, 5));
    EXPECT_EQ(listed(&tree.head), (keys{7, 9, 8}));
}

TEST(GenericRemoveNode, PutsTheLeftChildInPlaceOfANodeWithoutARightOne)
{
    plain_tree tree({5, 3, 2, 4});
    generic_remove_node(generic_find_node(&tree.head, 5));
    EXPECT_EQ(listed(&tree.head), (keys{2, 4, 3}));
}

TEST(GenericRemoveNode, PutsALeftChildWithoutARightChildInPlaceOfItsParent)
{
    plain_tree tree({5, 3, 8, 2});
    generic_remove_node(generic_find_node(&tree.head, 5));
    EXPECT_EQ(key_of(tree.head.left), 3u);
    EXPECT_EQ(listed(&tree.head), (keys{2, 8, 3}));
}

TEST(GenericRemoveNode, PutsTheGreatestNodeOfTheLeftSubtreeInPlace)
{
    plain_tree tree({50, 20, 80, 10, 40, 30});
    tree_node *removed = tree.head.left;
    generic_remove_node(generic_find_node(&tree.head, 50));
    EXPECT_EQ(key_of(tree.head.left), 40u);
    EXPECT_EQ(listed(&tree.head), (keys{10, 30, 20, 80, 40}));
    EXPECT_EQ(removed->data, item_of(50));
}

TEST(GenericRemoveNode, DoesNothingWithoutANode)
{
    tree_node *empty = nullptr;
    generic_remove_node(nullptr);
    generic_remove_node(&empty);
    EXPECT_EQ(empty, nullptr);
}

TEST(PlainTree, HasTheShapeOfTheModelAfterEveryChange)
{
    std::unique_ptr<plain_tree> tree = std::make_unique<plain_tree>();
    auto model = std::make_unique<tree_models::plain>();
    drive([&](uint64_t key) { ASSERT_EQ(tree->add(key) != nullptr, model->insert(key, item_of(key))); },
          [&](uint64_t key) {
              tree_node **link = generic_find_node(&tree->head, key);
              ASSERT_EQ(link != nullptr, model->remove(key));
              generic_remove_node(link);
          },
          [&] { ASSERT_TRUE(same_tree(tree->head.left, model->root, false)); });
}

// ---- Reading

TEST(SearchTree, ReturnsTheItem)
{
    plain_tree tree({5, 3, 8});
    EXPECT_EQ(search_tree(&tree.head, 8), item_of(8));
}

TEST(SearchTree, ReturnsNullForAnAbsentKeyAndWithoutATree)
{
    plain_tree tree({5});
    errno = 0;
    EXPECT_EQ(search_tree(&tree.head, 6), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(search_tree(nullptr, 5), nullptr);
}

TEST(TreeMin, AndMaxReturnTheEndsWithTheirKeys)
{
    plain_tree tree({5, 3, 0x900000000, 4});
    uint64_t key = 0;
    EXPECT_EQ(tree_min(&tree.head, &key), item_of(3));
    EXPECT_EQ(key, 3u);
    EXPECT_EQ(tree_max(&tree.head, &key), item_of(0x900000000));
    EXPECT_EQ(key, 0x900000000u);
    EXPECT_EQ(tree_min(&tree.head, nullptr), item_of(3));
    EXPECT_EQ(tree_max(&tree.head, nullptr), item_of(0x900000000));
}

TEST(TreeMin, AndMaxSetEnoentWithoutNodesAndLeaveTheKeyAlone)
{
    tree_node empty{};
    for (tree_node *head : {&empty, static_cast<tree_node *>(nullptr)})
        for (auto end : {tree_min, tree_max}) {
            uint64_t key = 77;
            errno = 0;
            EXPECT_EQ(end(head, &key), nullptr);
            EXPECT_EQ(errno, ENOENT);
            EXPECT_EQ(key, 77u);
        }
}

TEST(CountNodes, CountsNoneOneAndMany)
{
    plain_tree tree;
    EXPECT_EQ(count_nodes(nullptr), 0);
    EXPECT_EQ(count_nodes(&tree.head), 0);
    tree.add(5);
    EXPECT_EQ(count_nodes(&tree.head), 1);
    for (uint64_t key : keys{2, 9, 4})
        tree.add(key);
    EXPECT_EQ(count_nodes(&tree.head), 4);
}

TEST(GetNodeList, WritesInPostOrder)
{
    plain_tree tree({50, 30, 70, 20, 40, 60});
    uint64_t list[7] = {};
    EXPECT_EQ(get_node_list(&tree.head, list, 6), 6);
    EXPECT_EQ(keys(list, list + 6), (keys{20, 40, 30, 60, 70, 50}));
    void *items[7] = {};
    EXPECT_EQ(get_node_list_data(&tree.head, items, 6), 6);
    for (size_t i = 0; i < 6; i++)
        EXPECT_EQ(items[i], item_of(list[i]));
}

TEST(GetNodeList, WritesOneEntryMoreThanItsCapacity)
{
    plain_tree tree({3, 1, 2, 5, 4});
    uint64_t list[5] = {99, 99, 99, 99, 99};
    EXPECT_EQ(get_node_list(&tree.head, list, 2), 3);
    EXPECT_EQ(list[2], 4u);
    EXPECT_EQ(list[3], 99u);
    void *items[5] = {};
    EXPECT_EQ(get_node_list_data(&tree.head, items, 2), 3);
    EXPECT_NE(items[2], nullptr);
    EXPECT_EQ(items[3], nullptr);
}

TEST(GetNodeList, WritesNothingForNullOrNoCapacity)
{
    plain_tree tree({1});
    uint64_t list[2] = {99, 99};
    void *items[2] = {};
    EXPECT_EQ(get_node_list(nullptr, list, 1), 0);
    EXPECT_EQ(get_node_list(&tree.head, nullptr, 1), 0);
    EXPECT_EQ(get_node_list(&tree.head, list, 0), 0);
    EXPECT_EQ(get_node_list(&tree.head, list, -1), 0);
    EXPECT_EQ(get_node_list_data(nullptr, items, 1), 0);
    EXPECT_EQ(get_node_list_data(&tree.head, nullptr, 1), 0);
    EXPECT_EQ(get_node_list_data(&tree.head, items, 0), 0);
    EXPECT_EQ(list[0], 99u);
}

// ---- Walks

std::vector<void *> visited;

int visit(tree_node **, void *item, void *)
{
    visited.push_back(item);
    return 1 << (visited.size() - 1);
}

class Walk : public testing::Test
{
  protected:
    void SetUp() override
    {
        visited.clear();
        watched = &mutex;
    }

    void TearDown() override
    {
        watched = nullptr;
        before_lock = nullptr;
        before_unlock = nullptr;
        failing_alloc::on_calloc = nullptr;
    }

    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

TEST_F(Walk, VisitsEveryItemInPostOrderAndOrsTheResults)
{
    plain_tree tree({2, 1, 3});
    EXPECT_EQ(work_treenode(&tree.handle, visit, nullptr), 7);
    EXPECT_EQ(visited, (std::vector<void *>{item_of(1), item_of(3), item_of(2)}));
}

TEST_F(Walk, HandsOnHandleAndArgument)
{
    static tree_node **handle;
    static int tag;
    plain_tree tree({2});
    handle = &tree.handle;
    auto check = [](tree_node **got, void *, void *arg) {
        EXPECT_EQ(got, handle);
        EXPECT_EQ(arg, &tag);
        return 4;
    };
    EXPECT_EQ(work_treenode_locked(&tree.handle, check, &tag, &mutex), 4);
}

TEST_F(Walk, SkipsNullItems)
{
    plain_tree tree({2, 1, 3});
    tree.nodes[1]->data = nullptr;
    EXPECT_EQ(work_treenode(&tree.handle, visit, nullptr), 3);
}

TEST_F(Walk, AnswersZeroWithoutATree)
{
    tree_node empty{};
    tree_node *handle = &empty, *none = nullptr;
    plain_tree tree({1});
    EXPECT_EQ(work_treenode(&handle, visit, nullptr), 0);
    EXPECT_EQ(work_treenode(&none, visit, nullptr), 0);
    EXPECT_EQ(work_treenode(nullptr, visit, nullptr), 0);
    EXPECT_EQ(work_treenode(&tree.handle, nullptr, nullptr), 0);
    EXPECT_TRUE(visited.empty());
}

TEST_F(Walk, AnswersZeroWhenTheCopyCannotBeHad)
{
    plain_tree tree({1});
    failing_alloc::after none(0);
    EXPECT_EQ(work_treenode(&tree.handle, visit, nullptr), 0);
    EXPECT_TRUE(visited.empty());
}

TEST_F(Walk, AnswersZeroWhenTheMutexCannotBeTaken)
{
    plain_tree tree({1});
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_t checked;
    pthread_mutex_init(&checked, &attributes);
    pthread_mutex_lock(&checked);
    EXPECT_EQ(work_treenode_locked(&tree.handle, visit, nullptr, &checked), 0);
    EXPECT_EQ(pthread_mutex_unlock(&checked), 0); // still ours
    pthread_mutex_destroy(&checked);
    pthread_mutexattr_destroy(&attributes);
}

TEST_F(Walk, GivesBackAMutexWhoseOwnerHasDied)
{
    plain_tree tree({1});
    void *list;
    size_t size;
    if (syscall(SYS_get_robust_list, 0, &list, &size) != 0)
        GTEST_SKIP() << "this kernel or emulator keeps no list of a thread's robust mutexes";
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_t orphaned;
    pthread_mutex_init(&orphaned, &attributes);
    pthread_t owner;
    auto take = [](void *taken) -> void * {
        pthread_mutex_lock(static_cast<pthread_mutex_t *>(taken));
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&owner, nullptr, take, &orphaned), 0);
    pthread_join(owner, nullptr);
    EXPECT_EQ(work_treenode_locked(&tree.handle, visit, nullptr, &orphaned), 0);
    EXPECT_TRUE(visited.empty());
    EXPECT_EQ(pthread_mutex_trylock(&orphaned), ENOTRECOVERABLE); // EBUSY were it still held
    pthread_mutex_destroy(&orphaned);
    pthread_mutexattr_destroy(&attributes);
}

TEST_F(Walk, HoldsTheMutexForTheCopyAlone)
{
    static pthread_mutex_t *held;
    static std::string order;
    held = &mutex;
    order.clear();
    failing_alloc::on_calloc = [] { order += "allocate "; };
    before_lock = [] { order += "lock "; };
    before_unlock = [] { order += "unlock "; };
    plain_tree tree({2, 1});
    auto take = [](tree_node **, void *, void *) {
        order += "item ";
        watched = nullptr; // these are the callback's own
        EXPECT_EQ(pthread_mutex_trylock(held), 0);
        EXPECT_EQ(pthread_mutex_unlock(held), 0);
        return 1;
    };
    EXPECT_EQ(work_treenode_locked(&tree.handle, take, nullptr, &mutex), 1);
    EXPECT_EQ(order, "allocate lock unlock item item ");
}

TEST_F(Walk, CopiesAfterTheMutexIsTakenAndBeforeItIsGivenBack)
{
    plain_tree tree({2, 1, 3});
    before_lock = [&tree] { tree.nodes[1]->data = item_of(100); };
    before_unlock = [&tree] { tree.nodes[1]->data = item_of(200); };
    work_treenode_locked(&tree.handle, visit, nullptr, &mutex);
    EXPECT_EQ(visited[0], item_of(100));
}

TEST_F(Walk, VisitsAsManyItemsAsWereCountedWhenTheTreeGrows)
{
    plain_tree tree({20, 10, 30});
    before_lock = [&tree] {
        for (uint64_t key = 1; key < 10; key++)
            tree.add(key);
    };
    work_treenode_locked(&tree.handle, visit, nullptr, &mutex);
    EXPECT_EQ(visited, (std::vector<void *>{item_of(9), item_of(8), item_of(7)}));
}

TEST_F(Walk, VisitsWhatIsLeftWhenTheTreeShrinks)
{
    plain_tree tree({20, 10, 30, 5, 40});
    before_lock = [&tree] {
        for (uint64_t key : keys{20, 10, 40})
            generic_remove_node(generic_find_node(&tree.head, key));
    };
    EXPECT_EQ(work_treenode_locked(&tree.handle, visit, nullptr, &mutex), 3);
    EXPECT_EQ(visited, (std::vector<void *>{item_of(30), item_of(5)}));
}

TEST_F(Walk, VisitsNothingWhenTheTreeIsGoneByThen)
{
    plain_tree tree({20, 10});
    before_lock = [&tree] { tree.handle = nullptr; };
    EXPECT_EQ(work_treenode_locked(&tree.handle, visit, nullptr, &mutex), 0);
}

TEST_F(Walk, LetsCallbacksInsertRemoveAndFree)
{
    tree_node *head = nullptr;
    for (uint64_t key = 1; key <= 100; key++)
        head = rb_create_node(head, key, item_of(key));
    auto replace = [](tree_node **handle, void *item, void *) {
        const uint64_t key = (reinterpret_cast<uintptr_t>(item) - 1) / 2;
        *handle = rb_delete_node(*handle, key);
        if (key > 50)
            *handle = rb_create_node(*handle, key + 1000, item_of(key + 1000));
        visited.push_back(item);
        return 0;
    };
    work_treenode(&head, replace, nullptr);
    EXPECT_EQ(visited.size(), 100u);
    EXPECT_EQ(count_nodes(head), 50);
    uint64_t least = 0;
    tree_min(head, &least);
    EXPECT_EQ(least, 1051u);
    while (head != nullptr) {
        tree_min(head, &least);
        head = rb_delete_node(head, least);
    }
}

std::vector<void *> disposed, passed_on;

void dispose(void *item)
{
    disposed.push_back(item);
}

tree_node *remove_least(tree_node *head, void *item)
{
    passed_on.push_back(item);
    uint64_t key = 0;
    if (tree_min(head, &key) == nullptr)
        return head;
    return rb_delete_node(head, key);
}

TEST(TreeDestroy, DisposesOfItemsAndPassesNullOn)
{
    disposed.clear();
    passed_on.clear();
    tree_node *head = nullptr;
    for (uint64_t key : keys{2, 1, 3})
        head = rb_create_node(head, key, item_of(key));
    EXPECT_EQ(tree_destroy(&head, dispose, remove_least), 0);
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(disposed, (std::vector<void *>{item_of(1), item_of(3), item_of(2)}));
    EXPECT_EQ(passed_on, (std::vector<void *>{nullptr, nullptr, nullptr}));
}

TEST(TreeDestroy, PassesTheItemOnWithoutAnItemCallback)
{
    passed_on.clear();
    tree_node *head = nullptr;
    for (uint64_t key : keys{2, 1, 3})
        head = rb_create_node(head, key, item_of(key));
    tree_destroy(&head, nullptr, remove_least);
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(passed_on, (std::vector<void *>{item_of(1), item_of(3), item_of(2)}));
}

TEST(TreeDestroy, LeavesTheTreeWithoutATreeCallback)
{
    disposed.clear();
    plain_tree tree({2, 1});
    EXPECT_EQ(tree_destroy(&tree.handle, dispose, nullptr), 0);
    EXPECT_EQ(disposed.size(), 2u);
    EXPECT_EQ(count_nodes(&tree.head), 2);
    EXPECT_EQ(tree_destroy(nullptr, dispose, remove_least), 0);
}

// ---- Trees as high as they are large

// A tree of `count` ascending keys: each node is the right child of the one before. With `branches`, each has
// a left child too, so that half of the nodes wait on the way back.
struct high_tree {
    tree_node head{};
    tree_node *handle = &head;
    std::vector<tree_node> nodes;

    high_tree(size_t count, bool branches) : nodes(count)
    {
        tree_node **link = &head.left;
        for (size_t i = 0; i < count; i++) {
            tree_node &node = nodes[i];
            node.key_lo = static_cast<uint32_t>(i);
            node.data = item_of(i);
            *link = &node;
            if (branches && i + 1 < count) {
                // Two nodes of a step: the greater one goes on, the smaller one hangs left of it.
                tree_node &upper = nodes[++i];
                upper.key_lo = static_cast<uint32_t>(i);
                upper.data = item_of(i);
                upper.left = &node;
                *link = &upper;
                link = &upper.right;
            } else {
                link = &node.right;
            }
        }
    }
};

void on_small_stack(const std::function<void()> &work)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 128 * 1024), 0);
    pthread_t thread;
    auto run = [](void *arg) -> void * {
        (*static_cast<const std::function<void()> *>(arg))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, run, const_cast<std::function<void()> *>(&work)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

keys post_order_of_high_tree(size_t count, bool branches)
{
    keys order, way_back;
    for (size_t i = 0; i < count; i++) {
        if (branches && i + 1 < count)
            order.push_back(i++);
        way_back.push_back(i);
    }
    order.insert(order.end(), way_back.rbegin(), way_back.rend());
    return order;
}

int sum_of_walk;

int count_call(tree_node **, void *, void *)
{
    sum_of_walk++;
    return 0;
}

tree_node *drop_root(tree_node *head, void *)
{
    generic_remove_node(&head->left);
    return head;
}

TEST(HighTree, IsListedCountedWalkedAndDestroyedOnASmallStack)
{
    constexpr int count = 1000000;
    for (bool branches : {false, true}) {
        SCOPED_TRACE(branches);
        high_tree tree(count, branches);
        keys list(count + 1);
        std::vector<void *> items(count + 1);
        on_small_stack([&] {
            EXPECT_EQ(count_nodes(&tree.head), count);
            EXPECT_EQ(get_node_list(&tree.head, list.data(), count), count);
            EXPECT_EQ(get_node_list_data(&tree.head, items.data(), count), count);
            sum_of_walk = 0;
            work_treenode(&tree.handle, count_call, nullptr);
            EXPECT_EQ(sum_of_walk, count);
        });
        list.pop_back();
        EXPECT_TRUE(list == post_order_of_high_tree(count, branches));
        EXPECT_EQ(items[count - 1], item_of(list.back()));
        on_small_stack([&] { tree_destroy(&tree.handle, nullptr, drop_root); });
        EXPECT_EQ(tree.head.left, nullptr);
    }
}

TEST(HighTree, IsWalkedInTheSameOrderWithoutMemoryForTheWayBack)
{
    constexpr size_t count = 20001;
    for (bool branches : {false, true}) {
        SCOPED_TRACE(branches);
        high_tree tree(count, branches);
        keys list(count + 1);
        for (int successes : {0, 1, 2}) {
            failing_alloc::after few(successes, true);
            EXPECT_EQ(get_node_list(&tree.head, list.data(), count), static_cast<int>(count));
            EXPECT_EQ(count_nodes(&tree.head), static_cast<int>(count));
        }
        list.pop_back();
        EXPECT_TRUE(list == post_order_of_high_tree(count, branches));
    }
}

// ---- AVL trees

struct avl_tree {
    tree_node *head = nullptr;
    ~avl_tree()
    {
        while (head != nullptr)
            head = avl_delete_node(head, key_of(head->left));
    }
    const tree_node *root() const
    {
        return head != nullptr ? head->left : nullptr;
    }
};

TEST(AvlCreateNode, MakesAHeadWithOneNodeOfHeightOne)
{
    avl_tree tree;
    tree.head = avl_create_node(nullptr, 0x500000006, item_of(1));
    ASSERT_NE(tree.head, nullptr);
    ASSERT_NE(tree.root(), nullptr);
    EXPECT_EQ(tree.head->right, nullptr);
    EXPECT_EQ(tree.root()->key_hi, 5u);
    EXPECT_EQ(tree.root()->key_lo, 6u);
    EXPECT_EQ(tree.root()->data, item_of(1));
    EXPECT_EQ(tree.root()->word, 1u);
    EXPECT_EQ(tree.root()->left, nullptr);
    EXPECT_EQ(tree.root()->right, nullptr);
}

TEST(AvlCreateNode, BalancesThreeAscendingKeys)
{
    avl_tree tree;
    for (uint64_t key : keys{1, 2, 3}) {
        tree_node *before = tree.head;
        tree.head = avl_create_node(tree.head, key, item_of(key));
        if (before != nullptr) {
            EXPECT_EQ(tree.head, before);
        }
    }
    EXPECT_EQ(key_of(tree.root()), 2u);
    EXPECT_EQ(key_of(tree.root()->left), 1u);
    EXPECT_EQ(key_of(tree.root()->right), 3u);
    EXPECT_EQ(tree.root()->word, 2u);
}

TEST(AvlCreateNode, KeepsTheFirstItemOfAKeyAndLeaksNothing)
{
    avl_tree tree;
    tree.head = avl_create_node(nullptr, 1, item_of(1));
    errno = 0;
    EXPECT_EQ(avl_create_node(tree.head, 1, item_of(2)), tree.head);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(search_tree(tree.head, 1), item_of(1));
    EXPECT_EQ(count_nodes(tree.head), 1);
}

TEST(AvlCreateNode, ReturnsWhatItHasWhenMemoryIsShort)
{
    avl_tree tree;
    {
        failing_alloc::after none(0);
        EXPECT_EQ(avl_create_node(nullptr, 1, item_of(1)), nullptr);
    }
    {
        failing_alloc::after one(1);
        tree.head = avl_create_node(nullptr, 1, item_of(1));
    }
    ASSERT_NE(tree.head, nullptr);
    EXPECT_EQ(tree.root(), nullptr);
    tree_node *head = avl_create_node(tree.head, 1, item_of(1));
    EXPECT_EQ(head, tree.head);
    failing_alloc::after none(0);
    EXPECT_EQ(avl_create_node(tree.head, 2, item_of(2)), tree.head);
    EXPECT_EQ(count_nodes(tree.head), 1);
}

TEST(AvlDeleteNode, FreesTheHeadWithTheLastNode)
{
    tree_node *head = avl_create_node(nullptr, 1, item_of(1));
    EXPECT_EQ(avl_delete_node(head, 1), nullptr);
}

TEST(AvlDeleteNode, SetsEnoentForAnAbsentKey)
{
    avl_tree tree;
    tree.head = avl_create_node(nullptr, 1, item_of(1));
    errno = 0;
    EXPECT_EQ(avl_delete_node(tree.head, 2), tree.head);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(avl_delete_node(nullptr, 2), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(AvlDeleteNode, KeepsAnEmptyHeadThatItDidNotEmpty)
{
    tree_node *head = static_cast<tree_node *>(calloc(1, sizeof(tree_node)));
    errno = 0;
    EXPECT_EQ(avl_delete_node(head, 2), head);
    EXPECT_EQ(errno, ENOENT);
    free(head);
}

TEST(AvlTree, HasShapeAndHeightsOfTheModelAfterEveryChange)
{
    auto model = std::make_unique<tree_models::avl>();
    avl_tree tree;
    drive(
        [&](uint64_t key) {
            tree.head = avl_create_node(tree.head, key, item_of(key));
            model->insert(key, item_of(key));
        },
        [&](uint64_t key) {
            tree.head = avl_delete_node(tree.head, key);
            model->remove(key);
        },
        [&] { ASSERT_TRUE(same_tree(tree.root(), model->root, true)); });
}

TEST(AvlTree, HasShapeAndHeightsOfTheModelForSomeHundredSortedKeys)
{
    for (bool ascending : {true, false}) {
        tree_models::avl model;
        avl_tree tree;
        for (uint64_t i = 0; i < 400; i++) {
            const uint64_t key = ascending ? i : ~i;
            tree.head = avl_create_node(tree.head, key, item_of(key));
            model.insert(key, item_of(key));
            ASSERT_TRUE(same_tree(tree.root(), model.root, true)) << key;
        }
    }
}

TEST(AvlTree, IsBalancedPerfectlyByACallThatHasPromotedAMillionTimes)
{
    std::mt19937_64 random(5);
    tree_models::avl model;
    avl_tree tree;
    int limited = 0;
    for (int i = 0; i < 2400; i++) {
        const uint64_t key = random();
        tree.head = avl_create_node(tree.head, key, item_of(key));
        model.insert(key, item_of(key));
        limited += model.promotions > model.most_promotions ? 1 : 0;
        if (limited == 1 && model.promotions > model.most_promotions) {
            EXPECT_EQ(tree.root()->word, 12u); // the height of 2,341 nodes
        }
        if (i > 2300 || i % 100 == 0) {
            ASSERT_TRUE(same_tree(tree.root(), model.root, true)) << i;
        }
    }
    EXPECT_GT(limited, 0);
}

uint32_t true_height(const tree_node *node)
{
    return node == nullptr ? 0 : std::max(true_height(node->left), true_height(node->right)) + 1;
}

TEST(AvlTree, IsBalancedPerfectlyWhenTheWayToAKeyIsTooLong)
{
    avl_tree tree;
    tree.head = avl_create_node(nullptr, 0, item_of(0));
    tree_node **link = &tree.head->left->right;
    for (uint32_t key = 1; key < 5000; key++) {
        *link = static_cast<tree_node *>(calloc(1, sizeof(tree_node)));
        (*link)->key_lo = key;
        (*link)->data = item_of(key);
        link = &(*link)->right;
    }
    tree.head = avl_create_node(tree.head, 5000, item_of(5000));
    EXPECT_EQ(count_nodes(tree.head), 5001);
    EXPECT_EQ(true_height(tree.root()), 13u);
    EXPECT_EQ(tree.root()->word, 13u);
    EXPECT_EQ(search_tree(tree.head, 5000), item_of(5000));
}

// ---- Red-black trees

struct rb_tree {
    tree_node *head = nullptr;
    ~rb_tree()
    {
        while (head != nullptr)
            head = rb_delete_node(head, head->left != nullptr ? key_of(head->left) : 0);
    }
    const tree_node *root() const
    {
        return head != nullptr ? head->left : nullptr;
    }
};

// Returns the number of black nodes on every way down, -1 where the rules of the colours are broken.
int black_height(const tree_node *node, bool parent_is_red)
{
    if (node == nullptr)
        return 0;
    const bool red = node->word == 1;
    const int left = black_height(node->left, red), right = black_height(node->right, red);
    if (left < 0 || left != right || (red && parent_is_red) || node->word > 1)
        return -1;
    return left + (red ? 0 : 1);
}

TEST(RbCreateNode, MakesAHeadWithOneBlackNode)
{
    rb_tree tree;
    tree.head = rb_create_node(nullptr, 0x500000006, item_of(1));
    ASSERT_NE(tree.root(), nullptr);
    EXPECT_EQ(tree.head->right, nullptr);
    EXPECT_EQ(key_of(tree.root()), 0x500000006u);
    EXPECT_EQ(tree.root()->data, item_of(1));
    EXPECT_EQ(tree.root()->word, 0u);
}

TEST(RbCreateNode, KeepsTheFirstItemOfAKey)
{
    rb_tree tree;
    for (int i = 0; i < 3; i++)
        tree.head = rb_create_node(tree.head, 7, item_of(static_cast<uint64_t>(i)));
    EXPECT_EQ(count_nodes(tree.head), 1);
    EXPECT_EQ(search_tree(tree.head, 7), item_of(0));
}

TEST(RbCreateNode, ReturnsWhatItHasWhenMemoryIsShort)
{
    rb_tree tree;
    {
        failing_alloc::after none(0);
        EXPECT_EQ(rb_create_node(nullptr, 1, item_of(1)), nullptr);
    }
    {
        failing_alloc::after one(1);
        tree.head = rb_create_node(nullptr, 1, item_of(1));
    }
    ASSERT_NE(tree.head, nullptr);
    EXPECT_EQ(tree.root(), nullptr);
}

TEST(RbCreateNode, LeavesAWholeTreeBehindWhenANodeCannotBeHad)
{
    rb_tree tree;
    for (uint64_t key = 0; key < 500; key++) {
        {
            // The way down may have rotated at the root by then.
            failing_alloc::after none(0);
            tree_node *head = rb_create_node(tree.head, key, item_of(key));
            ASSERT_EQ(head, tree.head);
        }
        ASSERT_EQ(count_nodes(tree.head), static_cast<int>(key));
        ASSERT_GE(black_height(tree.root(), true), 0);
        tree.head = rb_create_node(tree.head, key, item_of(key));
    }
}

TEST(RbDeleteNode, FreesTheHeadWithTheLastNode)
{
    tree_node *head = rb_create_node(nullptr, 1, item_of(1));
    EXPECT_EQ(rb_delete_node(head, 1), nullptr);
}

TEST(RbDeleteNode, LeavesErrnoAloneForAnAbsentKey)
{
    rb_tree tree;
    tree.head = rb_create_node(nullptr, 1, item_of(1));
    errno = 0;
    EXPECT_EQ(rb_delete_node(tree.head, 2), tree.head);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(count_nodes(tree.head), 1);
}

TEST(RbDeleteNode, SetsEnoentWithoutATreeAndFreesAnEmptyHead)
{
    errno = 0;
    EXPECT_EQ(rb_delete_node(nullptr, 1), nullptr);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(rb_delete_node(static_cast<tree_node *>(calloc(1, sizeof(tree_node))), 1), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(RbTree, HasShapeAndColoursOfTheModelAfterEveryChange)
{
    auto model = std::make_unique<tree_models::red_black>();
    rb_tree tree;
    std::map<uint64_t, void *> items;
    drive(
        [&](uint64_t key) {
            tree.head = rb_create_node(tree.head, key, item_of(key));
            model->insert(key, item_of(key));
            items.emplace(key, item_of(key));
        },
        [&](uint64_t key) {
            tree.head = rb_delete_node(tree.head, key);
            model->remove(key);
            items.erase(key);
        },
        [&] {
            ASSERT_TRUE(same_tree(tree.root(), model->root, true));
            ASSERT_GE(black_height(tree.root(), true), 0);
            ASSERT_EQ(count_nodes(tree.head), static_cast<int>(items.size()));
        });
}

TEST(RbTree, KeepsEveryItemUnderItsKey)
{
    std::mt19937_64 random(6);
    rb_tree tree;
    std::map<uint64_t, void *> items;
    for (uint64_t i = 0; i < 200000; i++) {
        const uint64_t key = random() % 20000;
        if (random() % 2 == 0) {
            tree.head = rb_create_node(tree.head, key, item_of(i));
            items.emplace(key, item_of(i));
        } else {
            tree.head = rb_delete_node(tree.head, key);
            items.erase(key);
        }
        const auto found = items.find(key);
        ASSERT_EQ(search_tree(tree.head, key), found != items.end() ? found->second : nullptr);
    }
    EXPECT_EQ(count_nodes(tree.head), static_cast<int>(items.size()));
    ASSERT_GE(black_height(tree.root(), true), 0);
}

} // namespace
