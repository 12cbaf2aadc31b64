// Keyed search trees. The root hangs on the head's `left` link. Keys are unique and ordered, which the walks
// rely on to find their way back up when they could not keep all of it. No function recurses over the height.
//
// AVL trees keep heights as their rebalancing last computed them: after a removal some are too great, and the
// shape depends on them. Red-black trees have a black root after every operation.
#include <qvlib/tree.h>

#include <algorithm>
#include <bit>
#include <errno.h>
#include <limits.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

namespace
{

static_assert(offsetof(tree_node, key_hi) == 0 && offsetof(tree_node, key_lo) == 4 &&
              offsetof(tree_node, data) == 8);
static_assert(offsetof(tree_node, left) == 8 + sizeof(void *));
static_assert(offsetof(tree_node, right) == 8 + 2 * sizeof(void *));
static_assert(offsetof(tree_node, word) == 8 + 3 * sizeof(void *));
static_assert(sizeof(tree_node) == 8 + 4 * sizeof(void *));

// ---- Nodes

// Both halves at once: the look-ups wait for it at every step.
uint64_t key_of(const tree_node *node)
{
    uint64_t key;
    memcpy(&key, node, sizeof key);
    return std::endian::native == std::endian::big ? key : std::rotl(key, 32);
}

void set_key(tree_node *node, uint64_t key)
{
    node->key_hi = static_cast<uint32_t>(key >> 32);
    node->key_lo = static_cast<uint32_t>(key);
}

enum side { LEFT = 0, RIGHT = 1 };

side other(side dir)
{
    return dir == LEFT ? RIGHT : LEFT;
}

// The side of a node where a key belongs, without a branch: compilers don't see what they would make one of.
side side_for(uint64_t key, uint64_t node_key)
{
    unsigned int right = key > node_key;
    __asm__("" : "+r"(right));
    return static_cast<side>(right);
}

// Indexed, not chosen by a branch: half of the branches on the way down would be predicted wrong.
tree_node *&child(tree_node *node, side dir)
{
    return *reinterpret_cast<tree_node **>(reinterpret_cast<char *>(node) + offsetof(tree_node, left) +
                                           dir * sizeof(tree_node *));
}

tree_node *allocate_node()
{
    return static_cast<tree_node *>(calloc(1, sizeof(tree_node)));
}

tree_node *allocate_node(uint64_t key, void *item)
{
    tree_node *node = allocate_node();
    if (node == nullptr)
        return nullptr;
    set_key(node, key);
    node->data = item;
    return node;
}

// One of two nodes without a branch, half of which would be predicted wrong: compilers don't see what they
// would make one of.
inline tree_node *choose(bool second, tree_node *a, tree_node *b)
{
    uintptr_t mask = 0 - uintptr_t{second};
    __asm__("" : "+r"(mask));
    const auto first = reinterpret_cast<uintptr_t>(a);
    return reinterpret_cast<tree_node *>(first ^ ((first ^ reinterpret_cast<uintptr_t>(b)) & mask));
}

// The node with the key, or NULL, and the node above its place. Both children are on their way while the keys
// are compared.
inline tree_node *find_node(tree_node *head, uint64_t key, tree_node **above)
{
    *above = head;
    for (tree_node *node = head->left; node != nullptr;) {
        const uint64_t node_key = key_of(node);
        tree_node *left = node->left, *right = node->right;
        __builtin_prefetch(left);
        __builtin_prefetch(right);
        if (node_key == key)
            return node;
        *above = node;
        node = choose(key > node_key, left, right);
    }
    return nullptr;
}

// The link that holds the node with the key, or the empty one where it belongs.
tree_node **find_link(tree_node *head, uint64_t key)
{
    tree_node *above;
    find_node(head, key, &above);
    return above == head || key < key_of(above) ? &above->left : &above->right;
}

void *report_end(const tree_node *node, uint64_t *key)
{
    if (node == nullptr) {
        errno = ENOENT;
        return nullptr;
    }
    if (key != nullptr)
        *key = key_of(node);
    return node->data;
}

// ---- Walking

// Visits a tree in post-order and only reads it. The ancestors of the node in hand are kept in a ring that
// grows; when it can't, the oldest are forgotten and found again from the root by the key.
class post_order
{
  public:
    explicit post_order(const tree_node *tree_root) : root(tree_root)
    {
    }
    ~post_order()
    {
        if (ring != first_ring)
            free(ring);
    }
    post_order(const post_order &) = delete;
    post_order &operator=(const post_order &) = delete;

    // The next node, or NULL after the root.
    const tree_node *next()
    {
        if (node == nullptr)
            return root != nullptr ? node = descend(root) : nullptr;
        if (count == 0 && forgotten)
            find_ancestors();
        if (count == 0)
            return nullptr;
        const tree_node *parent = pop();
        if (node == parent->left && parent->right != nullptr) {
            push(parent);
            return node = descend(parent->right);
        }
        return node = parent;
    }

  private:
    const tree_node *descend(const tree_node *from)
    {
        for (;;) {
            const tree_node *child = from->left != nullptr ? from->left : from->right;
            if (child == nullptr)
                return from;
            push(from);
            from = child;
        }
    }

    void push(const tree_node *ancestor)
    {
        if (count == capacity && !grow()) {
            forgotten = true;
            count--;
        }
        ring[top] = ancestor;
        top = (top + 1) % capacity;
        count++;
    }

    const tree_node *pop()
    {
        top = (top + capacity - 1) % capacity;
        count--;
        return ring[top];
    }

    bool grow()
    {
        if (cannot_grow)
            return false;
        auto *grown = static_cast<const tree_node **>(malloc(2 * capacity * sizeof *ring));
        if (grown == nullptr) {
            cannot_grow = true;
            return false;
        }
        // The ring is full, so its oldest entry is at `top`.
        std::copy(ring + top, ring + capacity, grown);
        std::copy(ring, ring + top, grown + (capacity - top));
        if (ring != first_ring)
            free(ring);
        ring = grown;
        top = capacity;
        capacity *= 2;
        return true;
    }

    void find_ancestors()
    {
        forgotten = false;
        const uint64_t key = key_of(node);
        const tree_node *from = root;
        while (from != nullptr && from != node) {
            push(from);
            from = key > key_of(from) ? from->right : from->left;
        }
    }

    static constexpr size_t first_capacity = 1024;

    const tree_node *root;
    const tree_node *node = nullptr;
    const tree_node *first_ring[first_capacity];
    const tree_node **ring = first_ring;
    size_t capacity = first_capacity, count = 0, top = 0;
    bool forgotten = false, cannot_grow = false;
};

size_t count_all(const tree_node *head)
{
    post_order walk(head->left);
    size_t count = 0;
    while (walk.next() != nullptr)
        count++;
    return count;
}

// Copies up to `room` nodes; those that the tree lacks stay as they are.
void copy_nodes(const tree_node *head, tree_node *copies, size_t room)
{
    post_order walk(head->left);
    for (size_t i = 0; i < room; i++) {
        const tree_node *node = walk.next();
        if (node == nullptr)
            return;
        copies[i] = *node;
    }
}

// Writes one entry more than the capacity: callers size their arrays for it.
template <typename Entry, typename Read>
int list_entries(const tree_node *head, Entry *entries, int capacity, Read read)
{
    if (head == nullptr || entries == nullptr || capacity <= 0)
        return 0;
    post_order walk(head->left);
    int count = 0;
    while (count <= capacity && count < INT_MAX) {
        const tree_node *node = walk.next();
        if (node == nullptr)
            break;
        entries[count++] = read(node);
    }
    return count;
}

// A mutex whose owner died is held although an error is told. What it guards may be half changed: no walk.
bool lock(pthread_mutex_t *mutex)
{
    const int error = pthread_mutex_lock(mutex);
    if (error == EOWNERDEAD)
        pthread_mutex_unlock(mutex);
    return error == 0;
}

struct destroyer {
    void (*item_fn)(void *item);
    tree_node *(*tree_fn)(tree_node *head, void *item);
};

int destroy_item(tree_node **handle, void *item, void *arg)
{
    const auto *callbacks = static_cast<const destroyer *>(arg);
    if (callbacks->item_fn != nullptr) {
        callbacks->item_fn(item);
        item = nullptr;
    }
    if (callbacks->tree_fn != nullptr)
        *handle = callbacks->tree_fn(*handle, item);
    return 0;
}

// ---- AVL

unsigned int height(const tree_node *node)
{
    return node != nullptr ? node->word : 0;
}

// Computes the height of a node from those of its children. Returns how much the right one is higher; in 64
// bits, for the word of a node may have been anything.
int64_t update(tree_node *node)
{
    if (node == nullptr)
        return 0;
    const unsigned int left = height(node->left), right = height(node->right);
    node->word = std::max(left, right) + 1;
    return int64_t{right} - int64_t{left};
}

// Puts the in-order neighbour of *link from the subtree on the given side in its place, and the old node on
// the other side of it.
void promote(tree_node **link, side dir)
{
    tree_node *node = *link;
    tree_node **from = &child(node, dir);
    while (child(*from, other(dir)) != nullptr)
        from = &child(*from, other(dir));
    tree_node *promoted = *from;
    if (promoted != child(node, dir)) {
        *from = child(promoted, dir);
        child(promoted, dir) = child(node, dir);
    }
    child(promoted, other(dir)) = node;
    child(node, dir) = nullptr;
    *link = promoted;
}

// Turns a tree into a chain through the right links, in order. O(n).
tree_node *to_chain(tree_node *rest, size_t *count)
{
    tree_node *first = nullptr;
    tree_node **end = &first;
    *count = 0;
    while (rest != nullptr) {
        if (tree_node *left = rest->left) {
            rest->left = left->right;
            left->right = rest;
            rest = left;
            continue;
        }
        *end = rest;
        end = &rest->right;
        rest = rest->right;
        ++*count;
    }
    return first;
}

// Takes `count` nodes off the chain and returns them as a balanced tree. Calls itself log2(count) deep.
tree_node *from_chain(tree_node **chain, size_t count)
{
    if (count == 0)
        return nullptr;
    tree_node *left = from_chain(chain, count / 2);
    tree_node *node = *chain;
    *chain = node->right;
    node->left = left;
    node->right = from_chain(chain, count - count / 2 - 1);
    update(node);
    return node;
}

void balance_perfectly(tree_node *head)
{
    size_t count;
    tree_node *chain = to_chain(head->left, &count);
    head->left = from_chain(&chain, count);
}

/*
 * The rebalancing, in four steps that call each other:
 *
 *   update   computes a node's height
 *   fix      updates the node in a link; when its sides differ by more than 1, promotes its in-order
 *            neighbour from the higher side, retraces to the neighbour of that one and refreshes the link
 *   refresh  fixes the right link, the left link and then the link itself
 *   retrace  fixes every link on the way down to a key, from the last one to the first
 *
 * Calls that are still to be made are kept on a stack of links, each with a mark for refresh; without a mark
 * it is a fix. What a finished refresh leaves has nothing to fix in its link or in the links below, so a fix
 * or refresh of the same link right after it changes nothing: pushing a refresh merges it with such a one on
 * top. This keeps the stack about as low as the tree.
 */
class avl_rebalancing
{
  public:
    explicit avl_rebalancing(tree_node *tree_head) : head(tree_head)
    {
    }

    void retrace_from_root(uint64_t key)
    {
        if (given_up)
            return;
        retrace(&head->left, key);
        while (depth > 0 && !given_up) {
            const uintptr_t call = stack[--depth];
            auto **link = reinterpret_cast<tree_node **>(call & ~refresh_mark);
            if ((call & refresh_mark) != 0)
                refresh(link);
            else
                fix(link);
        }
        if (given_up)
            balance_perfectly(head);
    }

  private:
    void push(tree_node **link, bool refresh)
    {
        if (depth == most_pending) {
            given_up = true;
            return;
        }
        stack[depth++] = reinterpret_cast<uintptr_t>(link) | (refresh ? refresh_mark : 0);
    }

    void push_refresh(tree_node **link)
    {
        if (depth > 0 && (stack[depth - 1] & ~refresh_mark) == reinterpret_cast<uintptr_t>(link))
            stack[depth - 1] |= refresh_mark;
        else
            push(link, true);
    }

    void retrace(tree_node **link, uint64_t key)
    {
        while (*link != nullptr && !given_up) {
            push(link, false);
            const uint64_t node_key = key_of(*link);
            if (key == node_key)
                return;
            link = key > node_key ? &(*link)->right : &(*link)->left;
        }
    }

    void fix(tree_node **link)
    {
        settle(link, update(*link));
    }

    void refresh(tree_node **link)
    {
        tree_node *node = *link;
        if (const int64_t difference = update(node->right); !balanced(difference)) {
            push(link, false);
            push(&node->left, false);
            settle(&node->right, difference);
        } else if (const int64_t left_difference = update(node->left); !balanced(left_difference)) {
            push(link, false);
            settle(&node->left, left_difference);
        } else {
            fix(link);
        }
    }

    void settle(tree_node **link, int64_t difference)
    {
        if (balanced(difference) || given_up)
            return;
        if (promotions++ == most_promotions) {
            given_up = true;
            return;
        }
        tree_node *node = *link;
        const side dir = difference < 0 ? LEFT : RIGHT;
        promote(link, dir);
        push_refresh(link);
        tree_node **way = &child(*link, dir);
        if (*way == nullptr)
            return;
        update(node);
        // The way to the new neighbour is known: down that side, then along the other.
        push(link, false);
        for (; *way != nullptr && !given_up; way = &child(*way, other(dir)))
            push(way, false);
    }

    static bool balanced(int64_t difference)
    {
        return difference >= -1 && difference <= 1;
    }

    static constexpr unsigned int most_promotions = 1000000;
    static constexpr size_t most_pending = 1024;
    static constexpr uintptr_t refresh_mark = 1; // links are aligned

    tree_node *head;
    uintptr_t stack[most_pending];
    size_t depth = 0;
    unsigned int promotions = 0;
    bool given_up = false;
};

// ---- Red-black

side side_of(const tree_node *parent, const tree_node *node)
{
    return parent->right == node ? RIGHT : LEFT;
}

bool is_red(const tree_node *node)
{
    return node != nullptr && node->word != 0;
}

// Whether one of two nodes is red, in one branch: colours are hard to predict.
bool any_red(const tree_node *a, const tree_node *b)
{
    return ((a != nullptr ? a->word : 0) | (b != nullptr ? b->word : 0)) != 0;
}

tree_node *rotate(tree_node *root, side dir)
{
    tree_node *top = child(root, other(dir));
    child(root, other(dir)) = child(top, dir);
    child(top, dir) = root;
    root->word = 1;
    top->word = 0;
    return top;
}

tree_node *rotate_twice(tree_node *root, side dir)
{
    child(root, other(dir)) = rotate(child(root, other(dir)), other(dir));
    return rotate(root, dir);
}

tree_node *allocate_red(uint64_t key, void *item)
{
    tree_node *node = allocate_node(key, item);
    if (node != nullptr)
        node->word = 1;
    return node;
}

void flip_colours(tree_node *node)
{
    node->word = 1;
    node->left->word = 0;
    node->right->word = 0;
}

// Inserts top-down, with a false root above the real one. Stops early when memory is short: the tree is whole
// then.
void rb_insert(tree_node *head, uint64_t key, void *item)
{
    tree_node false_root{};
    false_root.right = head->left;
    tree_node *above = &false_root; // the great-grandparent of node
    tree_node *grandparent = nullptr, *parent = nullptr, *node = head->left;
    side dir = LEFT, last = LEFT;
    for (;;) {
        const bool empty = node == nullptr;
        if (empty) {
            node = allocate_red(key, item);
            if (node == nullptr)
                break;
            child(parent, dir) = node;
        }
        if (empty || (is_red(node->left) && is_red(node->right))) {
            if (!empty)
                flip_colours(node);
            if (is_red(parent) && grandparent != nullptr) {
                tree_node *&link = child(above, side_of(above, grandparent));
                const bool straight = node == child(parent, last);
                link = straight ? rotate(grandparent, other(last)) : rotate_twice(grandparent, other(last));
            }
        }
        const uint64_t node_key = key_of(node);
        if (node_key == key)
            break;
        last = dir;
        dir = key > node_key ? RIGHT : LEFT;
        if (grandparent != nullptr)
            above = grandparent;
        grandparent = parent;
        parent = node;
        node = child(node, dir);
    }
    head->left = false_root.right;
    head->left->word = 0;
}

// Makes the black node red whose child in the direction is black too, so that a red node can be unlinked at
// the bottom. `last` is the side of node under its parent. Returns the node that is then the parent.
tree_node *push_red_down(tree_node *grandparent, tree_node *parent, tree_node *node, side last, side dir)
{
    if (is_red(child(node, other(dir))))
        return child(parent, last) = rotate(node, dir);
    tree_node *sibling = child(parent, other(last));
    if (sibling == nullptr)
        return parent;
    if (!any_red(sibling->left, sibling->right)) {
        parent->word = 0;
        sibling->word = 1;
        node->word = 1;
        return parent;
    }
    tree_node *&link = child(grandparent, side_of(grandparent, parent));
    link = is_red(child(sibling, last)) ? rotate_twice(parent, last) : rotate(parent, last);
    node->word = 1;
    link->word = 1;
    link->left->word = 0;
    link->right->word = 0;
    return parent;
}

// Deletes top-down, as rb_insert.
void rb_remove(tree_node *head, uint64_t key)
{
    tree_node false_root{};
    false_root.right = head->left;
    tree_node *grandparent = nullptr, *parent = nullptr, *node = &false_root;
    tree_node *found = nullptr;
    side dir = RIGHT;
    while (child(node, dir) != nullptr) {
        const side last = dir;
        grandparent = parent;
        parent = node;
        node = child(node, dir);
        const uint64_t node_key = key_of(node);
        __builtin_prefetch(node->left);
        __builtin_prefetch(node->right);
        dir = side_for(key, node_key);
        if (node_key == key)
            found = node;
        if (!any_red(node, child(node, dir)))
            parent = push_red_down(grandparent, parent, node, last, dir);
    }
    if (found != nullptr) {
        set_key(found, key_of(node));
        found->data = node->data;
        child(parent, side_of(parent, node)) = node->left != nullptr ? node->left : node->right;
        free(node);
    }
    head->left = false_root.right;
    if (head->left != nullptr)
        head->left->word = 0;
}

} // namespace

tree_node **generic_find_node(tree_node *head, uint64_t key)
{
    tree_node **link = head != nullptr ? find_link(head, key) : nullptr;
    if (link == nullptr || *link == nullptr) {
        errno = ENOENT;
        return nullptr;
    }
    return link;
}

void *search_tree(tree_node *head, uint64_t key)
{
    tree_node *above;
    tree_node *node = head != nullptr ? find_node(head, key, &above) : nullptr;
    if (node == nullptr) {
        errno = ENOENT;
        return nullptr;
    }
    return node->data;
}

void *tree_min(tree_node *head, uint64_t *key)
{
    const tree_node *node = head != nullptr ? head->left : nullptr;
    while (node != nullptr && node->left != nullptr)
        node = node->left;
    return report_end(node, key);
}

void *tree_max(tree_node *head, uint64_t *key)
{
    const tree_node *node = head != nullptr ? head->left : nullptr;
    while (node != nullptr && node->right != nullptr)
        node = node->right;
    return report_end(node, key);
}

int count_nodes(tree_node *head)
{
    if (head == nullptr)
        return 0;
    return static_cast<int>(std::min<size_t>(count_all(head), INT_MAX));
}

int get_node_list(tree_node *head, uint64_t *keys, int capacity)
{
    return list_entries(head, keys, capacity, [](const tree_node *node) { return key_of(node); });
}

int get_node_list_data(tree_node *head, void **items, int capacity)
{
    return list_entries(head, items, capacity, [](const tree_node *node) { return node->data; });
}

int generic_insert_node(tree_node *head, tree_node *node)
{
    if (head == nullptr || node == nullptr) {
        errno = EINVAL;
        return -1;
    }
    tree_node **link = find_link(head, key_of(node));
    if (*link != nullptr) {
        errno = EEXIST;
        return -1;
    }
    *link = node;
    return 0;
}

void generic_remove_node(tree_node **link)
{
    if (link == nullptr || *link == nullptr)
        return;
    tree_node *node = *link;
    if (node->left == nullptr || node->right == nullptr) {
        *link = node->left != nullptr ? node->left : node->right;
        return;
    }
    tree_node **from = &node->left;
    while ((*from)->right != nullptr)
        from = &(*from)->right;
    tree_node *successor = *from;
    successor->right = node->right;
    if (successor != node->left) {
        *from = successor->left;
        successor->left = node->left;
    }
    *link = successor;
}

int work_treenode_locked(tree_node **handle, tree_work_fn fn, void *arg, pthread_mutex_t *mutex)
{
    if (handle == nullptr || *handle == nullptr || (*handle)->left == nullptr || fn == nullptr)
        return 0;
    const size_t count = count_all(*handle);
    // NOLINTNEXTLINE(clang-analyzer-optin.portability.UnixAPI): there is a root, so one at least
    auto *copies = static_cast<tree_node *>(calloc(count, sizeof(tree_node)));
    if (copies == nullptr)
        return 0;
    if (mutex != nullptr && !lock(mutex)) {
        free(copies);
        return 0;
    }
    if (*handle != nullptr)
        copy_nodes(*handle, copies, count);
    if (mutex != nullptr)
        pthread_mutex_unlock(mutex);
    int result = 0;
    for (size_t i = 0; i < count; i++)
        if (copies[i].data != nullptr)
            result |= fn(handle, copies[i].data, arg);
    free(copies);
    return result;
}

int work_treenode(tree_node **handle, tree_work_fn fn, void *arg)
{
    return work_treenode_locked(handle, fn, arg, nullptr);
}

int tree_destroy(tree_node **handle, void (*item_fn)(void *item),
                 tree_node *(*tree_fn)(tree_node *head, void *item))
{
    destroyer callbacks{item_fn, tree_fn};
    return work_treenode(handle, destroy_item, &callbacks);
}

tree_node *avl_create_node(tree_node *head, uint64_t key, void *item)
{
    if (head == nullptr)
        head = allocate_node();
    if (head == nullptr)
        return nullptr;
    tree_node *node = allocate_node(key, item);
    if (node == nullptr)
        return head;
    if (generic_insert_node(head, node) != 0) {
        free(node);
        errno = EEXIST; // whatever free did to it
        return head;
    }
    avl_rebalancing(head).retrace_from_root(key);
    return head;
}

tree_node *avl_delete_node(tree_node *head, uint64_t key)
{
    tree_node **link = generic_find_node(head, key);
    if (link == nullptr)
        return head;
    tree_node *node = *link;
    generic_remove_node(link);
    avl_rebalancing rebalancing(head);
    if (node->right != nullptr)
        rebalancing.retrace_from_root(key_of(node->right));
    if (node->left != nullptr)
        rebalancing.retrace_from_root(key_of(node->left));
    free(node);
    if (head->left != nullptr)
        return head;
    free(head);
    return nullptr;
}

tree_node *rb_create_node(tree_node *head, uint64_t key, void *item)
{
    if (head == nullptr)
        head = allocate_node();
    if (head == nullptr)
        return nullptr;
    if (head->left != nullptr) {
        rb_insert(head, key, item);
        return head;
    }
    tree_node *root = allocate_node(key, item);
    if (root != nullptr)
        head->left = root; // black
    return head;
}

tree_node *rb_delete_node(tree_node *head, uint64_t key)
{
    if (head == nullptr || head->left == nullptr) {
        free(head);
        errno = ENOENT;
        return nullptr;
    }
    rb_remove(head, key);
    if (head->left != nullptr)
        return head;
    free(head);
    return nullptr;
}
