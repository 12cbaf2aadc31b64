// What the interface itself forces on reading and freeing: the same records, tags and texts by one malloc
// each.
#pragma once

#include <cstdlib>
#include <cstring>

#include <qvlib/corelink.h>

namespace bench
{

inline double count_nodes(const clparse_node *node)
{
    double count = 1;
    if (node->type == CLPARSE_TYPE_STRUCT || node->type == CLPARSE_TYPE_ARRAY)
        for (const clparse_node *child = node->value.children->next; child != node->value.children;
             child = child->next)
            count += count_nodes(child);
    return count;
}

inline char *copy_text(const char *text)
{
    if (!text)
        return nullptr;
    const size_t size = strlen(text) + 1;
    return static_cast<char *>(memcpy(malloc(size), text, size));
}

inline clparse_node *new_node()
{
    auto *node = static_cast<clparse_node *>(malloc(sizeof(clparse_node)));
    memset(node, 0, sizeof *node);
    return node->next = node->prev = node;
}

inline clparse_node *copy_nodes(const clparse_node *source, clparse_node *parent)
{
    clparse_node *copy = new_node();
    copy->parent = parent;
    copy->type = source->type;
    copy->tag = copy_text(source->tag);
    if (source->type == CLPARSE_TYPE_STRING) {
        copy->value.str = copy_text(source->value.str);
    } else if (source->type == CLPARSE_TYPE_STRUCT || source->type == CLPARSE_TYPE_ARRAY) {
        clparse_node *end = copy->value.children = new_node();
        for (const clparse_node *child = source->value.children->next; child != source->value.children;
             child = child->next) {
            clparse_node *made = copy_nodes(child, copy);
            made->next = end;
            made->prev = end->prev;
            end->prev->next = made;
            end->prev = made;
        }
    } else {
        copy->value.num = source->value.num;
    }
    return copy;
}

inline void free_nodes(clparse_node *node)
{
    if (node->type == CLPARSE_TYPE_STRING) {
        free(node->value.str);
    } else if (node->type == CLPARSE_TYPE_STRUCT || node->type == CLPARSE_TYPE_ARRAY) {
        clparse_node *end = node->value.children;
        for (clparse_node *child = end->next, *next; child != end; child = next) {
            next = child->next;
            free_nodes(child);
        }
        free(end);
    }
    free(node->tag);
    free(node);
}

} // namespace bench
