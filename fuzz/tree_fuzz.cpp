// Keyed trees beside std::map, and node by node beside the models of their steps:
//
//   scripts/fuzz 60 tree
//
// An input is a kind of tree, then insertions, removals and look-ups of keys.

#include <qvlib/tree.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "failing_alloc.h"
#include "fuzz_input.h"
#include "models/tree_models.h"

namespace
{

using fuzz::require;

constexpr size_t most_keys = 100; // an AVL tree of more in ascending order takes too long

using items = std::map<uint64_t, void *>;

uint64_t key_of(const tree_node *node)
{
    return uint64_t{node->key_hi} << 32 | node->key_lo;
}

void require_same(const tree_node *got, const tree_models::node *expected, bool has_words)
{
    require((got == nullptr) == (expected == nullptr), "another shape than the model's");
    if (got == nullptr)
        return;
    require(key_of(got) == expected->key && got->data == expected->item, "another node than the model's");
    require(!has_words || got->word == expected->word, "another height or colour than the model's");
    require_same(got->left, expected->left, has_words);
    require_same(got->right, expected->right, has_words);
}

void list_post_order(const tree_models::node *from, std::vector<uint64_t> &keys)
{
    if (from == nullptr)
        return;
    list_post_order(from->left, keys);
    list_post_order(from->right, keys);
    keys.push_back(from->key);
}

int count_calls(tree_node **, void *, void *arg)
{
    ++*static_cast<size_t *>(arg);
    return 0;
}

// What only reads works on each kind.
void look(tree_node *head, const tree_models::node *root, const items &expected, uint64_t key)
{
    const auto found = expected.find(key);
    require(search_tree(head, key) == (found == expected.end() ? nullptr : found->second), "an item");
    tree_node **link = head ? generic_find_node(head, key) : nullptr;
    require((link != nullptr) == (found != expected.end()), "whether a key is there");
    require(link == nullptr || key_of(*link) == key, "another key's link");
    require(count_nodes(head) == static_cast<int>(expected.size()), "the number of nodes");
    uint64_t least = 7, greatest = 7;
    tree_min(head, &least);
    tree_max(head, &greatest);
    require(least == (expected.empty() ? 7 : expected.begin()->first), "the least key");
    require(greatest == (expected.empty() ? 7 : expected.rbegin()->first), "the greatest key");

    std::vector<uint64_t> order;
    list_post_order(root, order);
    const auto capacity = static_cast<size_t>(key % 40 + 1);
    std::vector<uint64_t> keys(capacity + 1);
    const int listed = get_node_list(head, keys.data(), static_cast<int>(capacity));
    require(listed == static_cast<int>(std::min(order.size(), capacity + 1)), "the number of listed keys");
    require(std::equal(keys.begin(), keys.begin() + listed, order.begin()), "the order of listed keys");
    size_t calls = 0;
    work_treenode(&head, count_calls, &calls);
    require(calls == expected.size(), "the number of calls of a walk");
}

class avl_tree
{
  public:
    tree_models::avl model;

    void insert(uint64_t key, void *item)
    {
        model.insert(key, item);
        head_ = avl_create_node(head_, key, item);
    }
    void remove(uint64_t key)
    {
        model.remove(key);
        head_ = avl_delete_node(head_, key);
    }
    tree_node *head() const
    {
        return head_;
    }
    static constexpr bool has_words = true;

  private:
    tree_node *head_ = nullptr;
};

class red_black_tree
{
  public:
    tree_models::red_black model;

    void insert(uint64_t key, void *item)
    {
        model.insert(key, item);
        head_ = rb_create_node(head_, key, item);
    }
    void remove(uint64_t key)
    {
        model.remove(key);
        head_ = rb_delete_node(head_, key);
    }
    tree_node *head() const
    {
        return head_;
    }
    static constexpr bool has_words = true;

  private:
    tree_node *head_ = nullptr;
};

class plain_tree
{
  public:
    tree_models::plain model;

    void insert(uint64_t key, void *item)
    {
        auto node = std::make_unique<tree_node>();
        node->key_hi = static_cast<uint32_t>(key >> 32);
        node->key_lo = static_cast<uint32_t>(key);
        node->data = item;
        errno = 0;
        const bool is_new = model.insert(key, item);
        require(generic_insert_node(&head_, node.get()) == (is_new ? 0 : -1), "an insertion's result");
        require(is_new || errno == EEXIST, "errno of a key that is there");
        if (is_new)
            nodes_.push_back(std::move(node));
    }
    void remove(uint64_t key)
    {
        tree_node **link = generic_find_node(&head_, key);
        require((link != nullptr) == model.remove(key), "whether a key is there");
        if (link != nullptr)
            generic_remove_node(link);
    }
    tree_node *head()
    {
        return &head_;
    }
    static constexpr bool has_words = false;

  private:
    tree_node head_ = {};
    std::vector<std::unique_ptr<tree_node>> nodes_;
};

template <class Tree> void run(fuzz::input in)
{
    static char item[256];
    const unsigned width = in.below(9);
    failing_alloc::live_blocks account;
    items expected;
    Tree tree;
    while (!in.is_empty()) {
        const unsigned what = in.byte();
        const uint64_t key = in.number(width);
        if (what % 4 < 2 && expected.size() < most_keys) {
            expected.emplace(key, &item[what]);
            tree.insert(key, &item[what]);
        } else if (what % 4 == 2) {
            expected.erase(key);
            tree.remove(key);
        } else {
            look(tree.head(), tree.model.root, expected, key);
        }
        require_same(tree.head() ? tree.head()->left : nullptr, tree.model.root, Tree::has_words);
    }
    look(tree.head(), tree.model.root, expected, 0);
    while (!expected.empty()) {
        tree.remove(expected.begin()->first);
        expected.erase(expected.begin());
        require_same(tree.head() ? tree.head()->left : nullptr, tree.model.root, Tree::has_words);
    }
    require(account.count() == 0, "blocks of an empty tree are left");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    switch (in.below(3)) {
    case 0:
        run<avl_tree>(in);
        break;
    case 1:
        run<red_black_tree>(in);
        break;
    default:
        run<plain_tree>(in);
        break;
    }
    return 0;
}
