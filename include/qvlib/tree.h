/*
 * Search trees of caller-owned items, keyed by unsigned 64-bit numbers: plain, AVL and red-black.
 *
 * All three share one node and one head: the head is a node whose `left` link holds the root and whose other
 * fields are not used. What only reads a tree works on each of them. A tree is changed by one family only,
 * from its first node to its last:
 *
 *   generic_*  nodes and head are the caller's; the shape follows the order of insertion
 *   avl_*      nodes and head are the functions'; for small sets in random order, see avl_create_node
 *   rb_*       nodes and head are the functions'; for all else, sorted keys and large sets included
 *
 * Keys are ordered by key_hi, then key_lo. Equal keys never coexist. In arguments and outputs a key is one
 * number in host order: (uint64_t)key_hi << 32 | key_lo.
 *
 * Handles: the walkers and tree_destroy take the address of the caller's pointer to the head, so that
 * callbacks can follow a head that changes.
 *
 * Cost: n is the number of nodes, h the height of the tree: O(log n) for a red-black tree, up to n for a
 * plain one that was filled with sorted keys. No function recurses over the height; the walks keep the way
 * back in 8 KiB of stack and take more from the heap when h passes 1024 (without memory they go on, at a cost
 * of O(n * h / 1024)).
 *
 * head    the tree's head
 * node    a node of the caller's
 * key     (uint64_t)key_hi << 32 | key_lo
 * handle  address of the caller's pointer to the head
 * item    the item; may be NULL, but the walks pass over it then
 * fn      the callback
 * arg     handed to the callback as it is
 *
 * Errors: a NULL head, node, link, handle or callback gives the ordinary failure result. errno is set where a
 * function says so. Nothing is logged.
 * Ownership: items always remain the caller's.
 * Threads: no lock is taken but the one handed to work_treenode_locked. Functions that only read may run at
 * the same time on one tree; a change needs exclusive use of it. Each function says what it needs.
 */
#ifndef QVLIB_TREE_H
#define QVLIB_TREE_H

#include <pthread.h>
#include <stdint.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* A node, or a tree's head. */
typedef struct tree_node {
    uint32_t key_hi, key_lo;        /* the key's upper and lower half */
    void *data;                     /* the item */
    struct tree_node *left, *right; /* smaller and greater keys; NULL for none */
    uint32_t word;                  /* AVL: height, red-black: 1 for red; the caller's in a plain tree */
} tree_node;

/*
 * Called with the walk's handle, a non-NULL item and the walk's argument; the results of a walk are ORed
 * together.
 */
typedef int (*tree_work_fn)(tree_node **handle, void *item, void *arg);

/* ---- Reading: any tree --------------------------------------------------------------------------------- */

/* Threads: no change by others meanwhile. */

/*
 * Finds a node. O(h).
 *
 * Returns the address of the link that points at it, for generic_remove_node, or NULL with errno ENOENT. The
 * address is good until the tree changes.
 */
tree_node **generic_find_node(tree_node *head, uint64_t key);

/* Finds an item. O(h). Returns it, or NULL with errno ENOENT. */
void *search_tree(tree_node *head, uint64_t key);

/*
 * Finds the node with the least, or the greatest, key. O(h).
 *
 * key  takes the node's key on success; may be NULL
 *
 * Returns its item, or NULL with errno ENOENT for an empty tree.
 */
void *tree_min(tree_node *head, uint64_t *key);
void *tree_max(tree_node *head, uint64_t *key);

/* Returns the number of nodes, 0 for NULL. O(n). */
int count_nodes(tree_node *head);

/*
 * Lists the keys, or the items, in post-order: left subtree, right subtree, node. O(n).
 *
 * keys, items  room for capacity + 1 entries: one more than the capacity is written when the tree has it
 * capacity     0 or less writes nothing
 *
 * Returns the number of entries written.
 */
int get_node_list(tree_node *head, uint64_t *keys, int capacity);
int get_node_list_data(tree_node *head, void **items, int capacity);

/* ---- Plain trees --------------------------------------------------------------------------------------- */

/* Threads: exclusive use. */

/*
 * Links a node whose key and item are set and whose links are NULL. O(h).
 *
 * Returns 0, or -1 with errno EEXIST when the key is present or EINVAL for NULL; nothing is changed then.
 * Ownership: the node stays the caller's and must live until it is removed.
 */
int generic_insert_node(tree_node *head, tree_node *node);

/*
 * Unlinks the node that a link of generic_find_node points at. O(h). A node with two children is replaced by
 * the one with the next smaller key.
 *
 * link  a result of generic_find_node
 *
 * Ownership: the node keeps its fields and belongs to the caller.
 */
void generic_remove_node(tree_node **link);

/* ---- Walks --------------------------------------------------------------------------------------------- */

/*
 * Calls fn for every non-NULL item of a tree, in post-order, on a copy: callbacks may insert, remove and free
 * nodes, and replace the head. O(n), and one allocation of n nodes.
 *
 * mutex  the lock that guards the tree; locked for the copy alone, not while nodes are counted or callbacks
 *        run. NULL for no lock.
 *
 * The nodes are counted before the lock is taken. When the tree has grown until the copy is made, only as
 * many items as were counted are visited; when it has shrunk, all that are left. Nodes must not be freed
 * while the count runs: let their memory outlive the walk, or hold off what frees them.
 *
 * Returns the bitwise OR of the results; 0 for an empty tree, and when the copy cannot be allocated or the
 * mutex not be locked. A robust mutex whose owner has died counts as not locked; it is given back as it is,
 * which makes it unusable for good. Threads: the caller must not hold the mutex.
 */
int work_treenode_locked(tree_node **handle, tree_work_fn fn, void *arg, pthread_mutex_t *mutex);

/*
 * As work_treenode_locked without a mutex.
 *
 * Returns the bitwise OR of the results; 0 for an empty tree, and when the copy cannot be allocated.
 * Threads: no change by others until the copy is made.
 */
int work_treenode(tree_node **handle, tree_work_fn fn, void *arg);

/*
 * Empties a tree by its owner's means: for every item that work_treenode visits, calls item_fn(item), then
 * stores the result of tree_fn(*handle, item) in *handle. O(n) and the cost of the callbacks.
 *
 * item_fn  disposes of the item; may be NULL. With it, tree_fn gets NULL in place of the item.
 * tree_fn  removes the item's node and returns the new head; with NULL the tree is left as it is
 *
 * Returns 0.
 * Threads: exclusive use.
 */
int tree_destroy(tree_node **handle, void (*item_fn)(void *item),
                 tree_node *(*tree_fn)(tree_node *head, void *item));

/* ---- AVL trees ----------------------------------------------------------------------------------------- */

/* Threads: exclusive use. */

/*
 * Adds an item. The nodes' `word` is their height as last computed, 1 for a leaf.
 *
 * head  NULL makes a new tree
 *
 * Cost: the rebalancing moves in-order neighbours up instead of rotating, and settles by trial. A random key
 * of a set of some hundred takes about as long as in a red-black tree; 1,000 ascending keys take about a
 * second, and single keys of larger sets need millions of moves. A call that has made 1,000,000 moves (tens
 * of milliseconds), or meets a way of more than 1,000 nodes, balances the whole tree perfectly in one pass,
 * O(n), without allocating. Use rb_create_node for sorted keys and for sets of more than some hundred.
 *
 * Returns the head: unchanged with errno EEXIST when the key is present, and unchanged when memory is short
 * (the new, empty head when that could be had), NULL when there is no head. Ownership: nodes and head belong
 * to the tree and are freed by avl_delete_node.
 */
tree_node *avl_create_node(tree_node *head, uint64_t key, void *item);

/*
 * Removes a key and frees its node.
 *
 * Cost: as avl_create_node.
 *
 * Returns the head, with errno ENOENT when the key is absent, or NULL when the tree has become empty; the
 * head is then freed.
 */
tree_node *avl_delete_node(tree_node *head, uint64_t key);

/* ---- Red-black trees ----------------------------------------------------------------------------------- */

/* Threads: exclusive use. */

/*
 * Adds an item. O(log n). A present key keeps its first item.
 *
 * head  NULL makes a new tree
 *
 * Returns the head: with the tree's items unchanged when memory is short (the new, empty head when that could
 * be had), NULL when there is no head. Ownership: nodes and head belong to the tree and are freed by
 * rb_delete_node.
 */
tree_node *rb_create_node(tree_node *head, uint64_t key, void *item);

/*
 * Removes a key and frees a node: the one that held the key, or its neighbour, whose key and item then move.
 * So a node's address does not stand for its key. O(log n). An absent key may change shape and colours.
 *
 * Returns the head, errno untouched when the key is absent; NULL when the tree has become empty, its head
 * then freed; NULL with errno ENOENT for a NULL head and for an empty tree, whose head is freed.
 */
tree_node *rb_delete_node(tree_node *head, uint64_t key);

QV_END_DECLS

#endif
