// The node tree's internal operations, shared by the reader, queries, merges and writers.
#pragma once

#include <cstddef>
#include <qvlib/corelink.h>

#include "../tracked.h"

extern "C" {

// Returns `record`, or a new zeroed one when it is null, linked to itself; null when memory is short.
clparse_node *clparse_create_node(clparse_node *record);

// A tracked copy recorded under `caller`; null for null and when memory is short.
char *clparse_strdup(const char *text, const char *caller, unsigned int line);

// The first child with this tag, or null; children without a tag are passed over.
clparse_node *clparse_find_child(const clparse_node *container, const char *tag);

// Frees all descendants; the container keeps its empty sentinel.
void clparse_free_children(clparse_node *container);

// Appends a deep copy of `source` to `parent`. 0, or -1.
int clparse_insert_new(clparse_node *parent, clparse_node *source);

// Logs "assert CONDITION FILE:LINE" at level 3 when the condition does not hold; -1 then, else 0.
int clparse_soft_assert(int condition, const char *text, const char *file, size_t line);

// The not-found action that refuses every node.
int clparse_not_found(clparse_node *container, clparse_node *source);
}

namespace qv
{

inline bool is_container(const clparse_node *node)
{
    return node->type == CLPARSE_TYPE_STRUCT || node->type == CLPARSE_TYPE_ARRAY;
}

// Containers that were built by hand may lack a sentinel; they count as empty.
inline bool has_children_list(const clparse_node *node)
{
    return node && is_container(node) && node->value.children;
}

inline clparse_node *first_child(const clparse_node *container)
{
    clparse_node *sentinel = container->value.children;
    return sentinel->next == sentinel ? nullptr : sentinel->next;
}

// The sibling after `node` in the list of `container`, or null.
inline clparse_node *next_child(const clparse_node *container, const clparse_node *node)
{
    return node->next == container->value.children ? nullptr : node->next;
}

inline void unlink_node(clparse_node *node)
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = node->prev = node;
}

inline void link_last(clparse_node *container, clparse_node *node)
{
    clparse_node *sentinel = container->value.children;
    node->next = sentinel; // NOLINT(clang-analyzer-core.NullDereference): merges link what they counted
    node->prev = sentinel->prev;
    sentinel->prev->next = node;
    sentinel->prev = node;
    node->parent = container;
}

// A node's expansion; null also when there is no callback.
inline clparse_node *expand_function(clparse_node *node)
{
    return node->value.func.expand ? node->value.func.expand(node, node->value.func.priv) : nullptr;
}

// What clparse_create_node does, with the allocator that nodes come from while nothing is tracked.
inline clparse_node *create_node(clparse_node *record, allocator plain)
{
    if (small_code)
        return clparse_create_node(record);
    if (!record)
        record = allocate_record_tracked<clparse_node>("clparse_create_node", __LINE__, plain);
    if (record)
        record->next = record->prev = record;
    return record;
}

// A deep copy of `source`, to be linked into `parent`; null when memory is short.
clparse_node *copy_subtree(clparse_node *source, clparse_node *parent);

// Ends the use of an expansion: the owner's release, or deletion. Returns release's result, or 0.
int release_expansion(clparse_node *function, clparse_node *expansion);

// Frees a text of the tree, null included.
void free_text(char *text, const char *where);

} // namespace qv
