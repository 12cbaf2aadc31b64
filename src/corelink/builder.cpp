// What the reader does to the tree.

#include "builder.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include <qvlib/memcheck.h>

#include "../where.h"
#include "tag_index.h"
#include "tree.h"

namespace qv
{

// The index of a large container. The container's sentinel points to it while the text is read, through a
// word that sentinels do not use otherwise.
struct tree_builder::container_index {
    tag_index index;
    clparse_node *sentinel;
    clparse_node *last; // the last child that was added
    container_index *next;
};

namespace
{

// Dotted members mostly continue one of the last members, so the tail is looked at before an index is made.
constexpr int tail_walk = 8;

// Children that follow `from` towards the head of the list; null when there is none with this tag.
clparse_node *walk_back(clparse_node *from, const clparse_node *sentinel, const char *tag)
{
    for (; from != sentinel; from = from->prev)
        if (from->tag && strcmp(from->tag, tag) == 0)
            return from;
    return nullptr;
}

} // namespace

void free_cursor(clparse_node *cursor)
{
    if (cursor)
        qv_memcheck_free(qv_free, cursor, QV_WHERE);
}

tree_builder::~tree_builder()
{
    free_cursor(spare_);
    while (container_index *index = indexes_) {
        indexes_ = index->next;
        index->sentinel->value.func.priv = nullptr;
        index->~container_index();
        free(index);
    }
}

build_result tree_builder::enter_prefix(char *tag)
{
    clparse_node *container = head_->cursor->parent;
    if (clparse_node *present = find_last_child(container, tag)) {
        free_text(tag, QV_WHERE);
        if (!has_children_list(present))
            return build_result::syntax_error;
        head_->cursor->parent = present;
        return build_result::done;
    }
    clparse_node *prefix = head_->cursor;
    prefix->tag = tag;
    prefix->type = CLPARSE_TYPE_STRUCT;
    prefix->value.children = clparse_create_node(nullptr);
    if (!prefix->value.children)
        return build_result::out_of_memory;
    link_last(container, prefix);
    return next_cursor(prefix);
}

clparse_node *tree_builder::find_last_child(clparse_node *container, const char *tag)
{
    clparse_node *sentinel = container->value.children;
    clparse_node *child = sentinel->prev;
    for (int step = 0; step < tail_walk; step++, child = child->prev) {
        if (child == sentinel)
            return nullptr;
        if (child->tag && strcmp(child->tag, tag) == 0)
            return child;
    }
    container_index *index = index_of(sentinel);
    if (!index)
        return walk_back(child, sentinel, tag);
    for (clparse_node *next = index->last->next; next != sentinel; next = next->next) {
        if (!index->index.add(next))
            return walk_back(child, sentinel, tag);
        index->last = next;
    }
    return index->index.last(tag);
}

tree_builder::container_index *tree_builder::index_of(clparse_node *sentinel)
{
    if (sentinel->value.func.priv)
        return static_cast<container_index *>(sentinel->value.func.priv);
    void *memory = malloc(sizeof(container_index));
    if (!memory)
        return nullptr;
    auto *index = new (memory) container_index{{}, sentinel, sentinel, indexes_};
    indexes_ = index;
    sentinel->value.func.priv = index;
    return index;
}

} // namespace qv
