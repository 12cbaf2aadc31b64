// Editing a tree of managed objects in place, and stepping from leaf to leaf as SNMP's get-next does.
//
// The first character of a tag is the agent's own mark here: comparisons skip it. A step is a loop over a
// position, a container and a node in it, that goes down into containers and expansions and climbs by the
// nodes' parents.

#include "tree.h"

#include <cstring>

#include <qvlib/log.h>

#include "../where.h"

using namespace qv;

namespace
{

// The tag behind its first character; empty where there is none.
const char *behind_mark(const char *tag)
{
    return tag && *tag ? tag + 1 : "";
}

bool marked_alike(const char *a, const char *b)
{
    return a && b && *a && *b && strcmp(a + 1, b + 1) == 0;
}

int log_failure(const char *caller, const char *what)
{
    qv_log(QV_LOG_ERROR, "%s: SNMP, failed to %s", caller, what);
    return -1;
}

// Puts a new node in the place of another, which is destroyed. A new node that could not be made or placed is
// logged; 0, or -1.
int replace(clparse_node *node, clparse_node *made, const char *caller, const char *create,
            const char *change)
{
    if (!made)
        return log_failure(caller, create);
    if (clparse_add_child_after(made, node) == 0)
        return 0;
    clparse_delete_node(made);
    return log_failure(caller, change);
}

// The target takes the source's mark along with its value.
int snmp_found_action(clparse_node *target, clparse_node *source)
{
    if (marked_alike(target->tag, source->tag)) {
        char *tag = clparse_strdup(source->tag, "snmp_found_action", __LINE__);
        if (!tag)
            return -1;
        free_text(target->tag, QV_WHERE);
        target->tag = tag;
    }
    return clparse_dfl_found_action(target, source);
}

// The child of a list that a walk leaves: `left` itself, or, as an expansion is in no list of its parent, the
// first child with its tag. Null when there is none.
clparse_node *child_left(const clparse_node *container, const clparse_node *left)
{
    clparse_node *first_alike = nullptr;
    for (clparse_node *child = first_child(container); child; child = next_child(container, child)) {
        if (child == left)
            return child;
        if (!first_alike && marked_alike(child->tag, left->tag))
            first_alike = child;
    }
    return first_alike;
}

// The first child behind the one that is left whose tag differs, or null. It never lies before `left`, also
// where tags occur again: a walk that goes back would not end.
clparse_node *child_after(const clparse_node *container, const clparse_node *left)
{
    if (!has_children_list(container))
        return nullptr;
    clparse_node *child = child_left(container, left);
    if (child)
        child = next_child(container, child);
    while (child && marked_alike(child->tag, left->tag))
        child = next_child(container, child);
    return child;
}

// The next node in a leaf's list, or null. An expansion is in no list or in one of its owner, not in that of
// its parent; a sentinel is known by having no parent.
clparse_node *sibling_after(const clparse_node *leaf)
{
    clparse_node *next = leaf->next;
    return next != leaf && next->parent ? next : nullptr;
}

// Climbs out of a container until a later sibling is found: returns it and sets *container to the one it is
// in. Null when the climb comes to the root, whose children are not visited.
clparse_node *climb(clparse_node **container)
{
    for (;;) {
        const clparse_node *left = *container;
        *container = left->parent;
        if (!*container || !(*container)->parent)
            return nullptr;
        if (clparse_node *next = child_after(*container, left))
            return next;
    }
}

} // namespace

clparse_node *make_struct_node(clparse_node *node, const char *tag)
{
    clparse_node *made = clparse_create_struct_node(tag);
    // "string" is what agents find in their logs: kept.
    if (replace(node, made, "make_struct_node", "create structure node", "change node to string node") != 0)
        return nullptr;
    return made;
}

int make_string_node(clparse_node *node, const char *tag, const char *value)
{
    return replace(node, clparse_create_string_node(tag, value), "make_string_node", "create string node",
                   "change node to string node");
}

int make_function_node(clparse_node *node, clparse_expand_fn expand, clparse_apply_fn apply,
                       clparse_release_fn release, void *priv)
{
    clparse_node *made =
        node ? clparse_create_function_node(node->tag, expand, apply, release, priv) : nullptr;
    return replace(node, made, "make_function_node", "create function node", "change node to function node");
}

void clparse_snmp_edit_fn_node(clparse_node *node, clparse_node *parent)
{
    if (node)
        node->parent = parent;
}

int check_tag_snmp(const char *a, const char *b)
{
    return strcmp(behind_mark(a), behind_mark(b));
}

int clparse_select_snmp(clparse_head *target, clparse_head *source)
{
    if (!target || !source)
        return -1;
    return clparse_search_tree(&target->root, &source->root, snmp_found_action, nullptr);
}

char *build_path_next_leaf(clparse_node *node)
{
    if (!node)
        return nullptr;
    clparse_node *container = node->parent;
    clparse_node *start = node;
    // The root's own children are not visited, and an expansion without a parent ends the walk: both on
    // purpose.
    while (container && container->parent) {
        if (node && node->type == CLPARSE_TYPE_FUNCTION) {
            clparse_node *expansion = expand_function(node);
            if (node == start)
                start = expansion;
            node = expansion;
            if (!node)
                return nullptr;
        }
        if (node && is_container(node)) {
            container = node;
            node = has_children_list(container) ? first_child(container) : nullptr;
        } else if (node && node != start) {
            return clparse_build_path(node);
        } else if (node) {
            node = sibling_after(node);
        }
        if (!node)
            node = climb(&container);
        if (!node)
            return nullptr;
    }
    return nullptr;
}
