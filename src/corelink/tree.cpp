// The corelink node tree.
//
// Children hang in a circular list through a sentinel, a record of node size that the container owns; a
// detached node is linked to itself. A tree may be as deep as memory allows, so walks over it are loops that
// climb by the nodes' parents. Every record, tag and value is a tracked allocation.

#include "tree.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <qvlib/log.h>
#include <qvlib/memcheck.h>

#include "../tracked.h"
#include "../where.h"

using namespace qv;

// Daemons are compiled against these records.
static_assert(offsetof(clparse_node, prev) == sizeof(void *));
static_assert(offsetof(clparse_node, tag) == 2 * sizeof(void *));
static_assert(offsetof(clparse_node, type) == 3 * sizeof(void *));
static_assert(offsetof(clparse_node, value) == (sizeof(void *) == 8 ? 32 : 16));
static_assert(offsetof(clparse_node, parent) == offsetof(clparse_node, value) + 4 * sizeof(void *));
static_assert(sizeof(clparse_node) == (sizeof(void *) == 8 ? 72 : offsetof(clparse_node, parent) + 8) ||
              (sizeof(void *) == 4 && alignof(uint64_t) == 4));
static_assert(offsetof(clparse_head, root) == (sizeof(void *) == 8 ? 8 : alignof(clparse_node)));
static_assert(offsetof(clparse_head, cursor) == offsetof(clparse_head, root) + sizeof(clparse_node));

#define ASSERT_NODE(node) clparse_soft_assert((node) != nullptr, "node != ((void *)0)", __FILE__, __LINE__)

namespace
{

void free_record(clparse_node *record)
{
    release_tracked(record, QV_WHERE);
}

// Frees an unlinked node that has no children any more.
void free_node(clparse_node *node)
{
    if (node->type == CLPARSE_TYPE_STRING)
        free_text(node->value.str, QV_WHERE);
    else if (is_container(node) && node->value.children)
        free_record(node->value.children);
    free_text(node->tag, QV_WHERE);
    free_record(node);
}

// A detached node with a copy of `tag`; null when the tag is null or memory is short.
clparse_node *create_tagged(const char *tag, int type, const char *caller, unsigned int line)
{
    clparse_node *node = clparse_create_node(nullptr);
    if (!node)
        return nullptr;
    node->type = type;
    node->tag = clparse_strdup(tag, caller, line);
    if (!node->tag) {
        free_record(node);
        return nullptr;
    }
    return node;
}

clparse_node *create_container(const char *tag, int type, const char *caller, unsigned int line)
{
    clparse_node *node = create_tagged(tag, type, caller, line);
    if (!node)
        return nullptr;
    node->value.children = clparse_create_node(nullptr);
    if (!node->value.children) {
        free_node(node);
        return nullptr;
    }
    return node;
}

clparse_node *find_in_container(const clparse_node *parent, const char *tag)
{
    return has_children_list(parent) ? clparse_find_child(parent, tag) : nullptr;
}

// Appends the new child of a convenience constructor; `append_failed` is what is logged otherwise.
clparse_node *append_created(clparse_node *child, clparse_node *parent, const char *caller,
                             const char *append_failed)
{
    if (!child) {
        __qv_log(QV_LOG_ERROR, "%s: failed to create number node", caller);
        return nullptr;
    }
    if (clparse_append_child(parent, child) != 0) {
        __qv_log(QV_LOG_ERROR, "%s: %s", caller, append_failed);
        clparse_delete_node(child);
        return nullptr;
    }
    return child;
}

// Only the record, tag, value or empty children list of a copy; null when memory is short.
clparse_node *copy_one(const clparse_node *source, clparse_node *parent)
{
    clparse_node *copy = clparse_create_node(nullptr);
    if (!copy)
        return nullptr;
    copy->parent = parent;
    copy->type = source->type;
    copy->tag = clparse_strdup(source->tag, "clparse_insert_new", __LINE__);
    bool complete = copy->tag || !source->tag;
    switch (source->type) {
    case CLPARSE_TYPE_STRING:
        copy->value.str = clparse_strdup(source->value.str, "clparse_insert_new", __LINE__);
        complete = complete && (copy->value.str || !source->value.str);
        break;
    case CLPARSE_TYPE_NUMBER:
        copy->value.num = source->value.num;
        break;
    case CLPARSE_TYPE_BOOLEAN:
        copy->value.boolean = source->value.boolean;
        break;
    case CLPARSE_TYPE_STRUCT:
    case CLPARSE_TYPE_ARRAY:
        copy->value.children = clparse_create_node(nullptr);
        complete = complete && copy->value.children;
        break;
    default:
        break; // a copied function node has no callbacks: they belong to their creator
    }
    if (!complete) {
        free_node(copy);
        return nullptr;
    }
    return copy;
}

// Copies the descendants of `source` into its copy. On failure returns the container that could not be
// filled.
//
// A source's parent fields need not lead back to where it was met, so the sentinel of each copy that is being
// filled points to the container it copies, through a word that sentinels do not use otherwise.
clparse_node *copy_descendants(clparse_node *source, clparse_node *copy)
{
    clparse_node *from = source; // the container whose children are being copied
    clparse_node *to = copy;
    clparse_node *child = has_children_list(from) ? first_child(from) : nullptr;
    for (;;) {
        if (!child) {
            if (to == copy)
                return nullptr;
            const clparse_node *done = from;
            to->value.children->parent = nullptr;
            to = to->parent;
            from = to == copy ? source : to->value.children->parent;
            child = next_child(from, done);
            continue;
        }
        clparse_node *made = copy_one(child, to);
        if (!made)
            return to;
        link_last(to, made);
        if (has_children_list(child) && first_child(child)) {
            made->value.children->parent = child;
            from = child;
            to = made;
            child = first_child(child);
        } else {
            child = next_child(from, child);
        }
    }
}

// Of containers that could not be filled only tag and record go; what was copied into them stays allocated.
void abandon_copies(clparse_node *failed, clparse_node *top)
{
    for (bool last = false; !last;) {
        clparse_node *parent = failed->parent;
        last = failed == top;
        free_text(failed->tag, QV_WHERE);
        free_record(failed);
        failed = parent;
    }
}

// Whether clparse_drop takes a node away: its value word is zero, or it is a container without children. Of a
// number all bits count, which a pointer may not cover.
bool is_droppable(const clparse_node *node)
{
    if (node->type == CLPARSE_TYPE_NUMBER)
        return node->value.num == 0;
    const clparse_node *sentinel = node->value.children;
    return !sentinel || (is_container(node) && sentinel->next == sentinel);
}

} // namespace

namespace qv
{

clparse_node *copy_subtree(clparse_node *source, clparse_node *parent)
{
    clparse_node *copy = copy_one(source, parent);
    if (!copy)
        return nullptr;
    if (clparse_node *failed = copy_descendants(source, copy)) {
        abandon_copies(failed, copy);
        return nullptr;
    }
    return copy;
}

int release_expansion(clparse_node *function, clparse_node *expansion)
{
    if (function->value.func.release)
        return function->value.func.release(function, function->value.func.priv);
    clparse_delete_node(expansion);
    return 0;
}

void free_text(char *text, const char *where)
{
    if (text)
        release_tracked(text, where);
}

} // namespace qv

clparse_node *clparse_create_node(clparse_node *record)
{
    if (!record)
        record = allocate_record_tracked<clparse_node>("clparse_create_node", __LINE__, allocate_in_order);
    if (record)
        record->next = record->prev = record;
    return record;
}

char *clparse_strdup(const char *text, const char *caller, unsigned int line)
{
    if (!text)
        return nullptr;
    const size_t size = strlen(text) + 1;
    void *copy = allocate_tracked(size, caller, line);
    return copy ? static_cast<char *>(memcpy(copy, text, size)) : nullptr;
}

clparse_node *clparse_find_child(const clparse_node *container, const char *tag)
{
    if (!tag)
        return nullptr;
    for (clparse_node *child = first_child(container); child; child = next_child(container, child))
        if (child->tag && strcmp(child->tag, tag) == 0)
            return child;
    return nullptr;
}

void clparse_free_children(clparse_node *container)
{
    // Freed in passing: no link is mended but the sentinel's at the end.
    clparse_node *level = container; // its children are being freed
    clparse_node *child = level->value.children ? level->value.children->next : nullptr;
    for (;;) {
        if (child == level->value.children) {
            if (child)
                child->next = child->prev = child;
            if (level == container)
                return;
            child = level;
            level = level->parent;
        } else if (is_container(child)) {
            child->parent = level; // the way back, whatever was stored there
            level = child;
            child = level->value.children ? level->value.children->next : nullptr;
            continue;
        }
        clparse_node *next = child->next;
        free_node(child);
        child = next;
    }
}

int clparse_insert_new(clparse_node *parent, clparse_node *source)
{
    clparse_node *copy = copy_subtree(source, parent);
    if (!copy)
        return -1;
    link_last(parent, copy);
    return 0;
}

int clparse_soft_assert(int condition, const char *text, const char *file, size_t line)
{
    if (condition)
        return 0;
    __qv_log(QV_LOG_ERROR, "assert %s %s:%zu", text, file, line);
    return -1;
}

int clparse_not_found(clparse_node *, clparse_node *)
{
    return -1;
}

int clparse_init_head(clparse_head **head)
{
    if (!head)
        return -1;
    *head = nullptr;
    auto *made = static_cast<clparse_head *>(
        qv_memcheck_malloc(qv_malloc, sizeof(clparse_head), "clparse_init_head", __LINE__));
    if (!made)
        return -1;
    made->root.type = CLPARSE_TYPE_STRUCT;
    made->root.next = made->root.prev = &made->root;
    made->root.tag = clparse_strdup("head", "clparse_init_head", __LINE__);
    made->root.value.children = made->root.tag ? clparse_create_node(nullptr) : nullptr;
    if (!made->root.value.children) {
        free_text(made->root.tag, QV_WHERE);
        qv_memcheck_free(qv_free, made, QV_WHERE);
        return -1;
    }
    *head = made;
    return 0;
}

clparse_node *clparse_get_head(clparse_head *head)
{
    return head ? &head->root : nullptr;
}

void clparse_stop(clparse_head *head)
{
    if (!head)
        return;
    clparse_free_children(&head->root);
    free_text(head->root.tag, QV_WHERE);
    if (head->root.value.children)
        free_record(head->root.value.children);
    qv_memcheck_free(qv_free, head, QV_WHERE);
}

clparse_node *clparse_create_null_node(const char *tag)
{
    return create_tagged(tag, CLPARSE_TYPE_NULL, "clparse_create_null_node", __LINE__);
}

clparse_node *clparse_create_string_node(const char *tag, const char *value)
{
    clparse_node *node = create_tagged(tag, CLPARSE_TYPE_STRING, "clparse_create_string_node", __LINE__);
    if (!node)
        return nullptr;
    node->value.str = clparse_strdup(value, "clparse_create_string_node", __LINE__);
    if (!node->value.str) {
        free_node(node);
        return nullptr;
    }
    return node;
}

clparse_node *clparse_create_number_node(const char *tag, uint64_t value)
{
    clparse_node *node = create_tagged(tag, CLPARSE_TYPE_NUMBER, "clparse_create_number_node", __LINE__);
    if (node)
        node->value.num = value;
    return node;
}

clparse_node *clparse_create_boolean_node(const char *tag, int value)
{
    clparse_node *node = create_tagged(tag, CLPARSE_TYPE_BOOLEAN, "clparse_create_boolean_node", __LINE__);
    if (node)
        node->value.boolean = static_cast<unsigned char>(value);
    return node;
}

clparse_node *clparse_create_struct_node(const char *tag)
{
    return create_container(tag, CLPARSE_TYPE_STRUCT, "clparse_create_struct_node", __LINE__);
}

clparse_node *clparse_create_array_node(const char *tag)
{
    return create_container(tag, CLPARSE_TYPE_ARRAY, "clparse_create_array_node", __LINE__);
}

clparse_node *clparse_create_function_node(const char *tag, clparse_expand_fn expand, clparse_apply_fn apply,
                                           clparse_release_fn release, void *priv)
{
    clparse_node *node = create_tagged(tag, CLPARSE_TYPE_FUNCTION, "clparse_create_function_node", __LINE__);
    if (node)
        node->value.func = {expand, apply, release, priv};
    return node;
}

clparse_node *clparse_append_new_struct(const char *tag, clparse_node *parent)
{
    if (clparse_node *present = find_in_container(parent, tag))
        return present;
    return append_created(clparse_create_struct_node(tag), parent, "clparse_append_new_struct",
                          "failed to append child");
}

clparse_node *clparse_append_new_array(clparse_head *, const char *tag, clparse_node *parent)
{
    if (clparse_node *present = find_in_container(parent, tag))
        return present;
    return append_created(clparse_create_array_node(tag), parent, "clparse_append_new_array",
                          "failed to append child node");
}

clparse_node *clparse_append_new_number_child(uint64_t value, const char *tag, clparse_node *parent)
{
    if (clparse_node *present = find_in_container(parent, tag))
        return present;
    return append_created(clparse_create_number_node(tag, value), parent, "clparse_append_new_number_child",
                          "failed to append child node");
}

clparse_node *clparse_append_new_string_child(const char *value, const char *tag, clparse_node *parent)
{
    if (clparse_node *present = find_in_container(parent, tag))
        return present;
    return append_created(clparse_create_string_node(tag, value), parent, "clparse_append_new_string_child",
                          "failed to append child node");
}

int clparse_append_child(clparse_node *parent, clparse_node *child)
{
    if (!parent || !child) {
        errno = EINVAL;
        return -1;
    }
    if (!has_children_list(parent)) {
        errno = ENOTDIR;
        return -1;
    }
    link_last(parent, child);
    return 0;
}

int clparse_remove_child(clparse_node *node)
{
    if (!node) {
        errno = EINVAL;
        return -1;
    }
    unlink_node(node);
    return 0;
}

int clparse_add_child_after(clparse_node *new_node, clparse_node *old_node)
{
    if (!new_node || !old_node)
        return -1;
    if (new_node == old_node)
        return 0;
    new_node->next = old_node->next;
    new_node->prev = old_node;
    old_node->next->prev = new_node;
    old_node->next = new_node;
    new_node->parent = old_node->parent;
    return clparse_delete_node(old_node);
}

clparse_node *clparse_get_child(clparse_node *container)
{
    clparse_node *child = has_children_list(container) ? first_child(container) : nullptr;
    if (child)
        unlink_node(child);
    return child;
}

clparse_node *clparse_get_parent(const clparse_node *node)
{
    return node ? node->parent : nullptr;
}

int clparse_delete_node(clparse_node *node)
{
    if (!node)
        return -1;
    unlink_node(node);
    if (is_container(node))
        clparse_free_children(node);
    free_node(node);
    return 0;
}

int clparse_drop(clparse_head *head, clparse_node *node)
{
    if (!node)
        return -1;
    if (head && node == &head->root)
        return 0;
    for (;;) {
        clparse_node *parent = node->parent;
        if (is_droppable(node)) {
            // The sentinel of an empty container stays allocated.
            unlink_node(node);
            free_text(node->tag, QV_WHERE);
            free_record(node);
        }
        if (!parent || !parent->parent)
            return 0;
        node = parent;
    }
}

int clparse_get_node_type(const clparse_node *node)
{
    return node ? node->type : -1;
}

const char *clparse_get_node_tag(const clparse_node *node)
{
    return ASSERT_NODE(node) == 0 ? node->tag : nullptr;
}

int clparse_set_node_tag(clparse_node *node, const char *tag)
{
    if (!node)
        return -1;
    char *copy =
        clparse_strdup(tag, "clparse_set_node_tag", __LINE__); // first: the tag may be the node's own
    free_text(node->tag, QV_WHERE);
    node->tag = copy;
    return 0;
}

const char *clparse_get_node_value_s(const clparse_node *node)
{
    return node && node->type == CLPARSE_TYPE_STRING ? node->value.str : nullptr;
}

int clparse_set_node_value_s(clparse_node *node, const char *value)
{
    if (!node || node->type != CLPARSE_TYPE_STRING)
        return -1;
    char *copy = clparse_strdup(value, "clparse_set_node_value_s", __LINE__);
    free_text(node->value.str, QV_WHERE);
    node->value.str = copy;
    return 0;
}

uint64_t clparse_get_node_value_n(const clparse_node *node)
{
    return node && node->type == CLPARSE_TYPE_NUMBER ? node->value.num : UINT64_MAX;
}

int clparse_set_node_value_n(clparse_node *node, int32_t value)
{
    if (!node || node->type != CLPARSE_TYPE_NUMBER)
        return -1;
    node->value.num = static_cast<uint64_t>(int64_t{value});
    return 0;
}

unsigned char clparse_get_node_value_b(const clparse_node *node)
{
    return node && node->type == CLPARSE_TYPE_BOOLEAN ? node->value.boolean : 0;
}

int clparse_set_node_value_b(clparse_node *node, int value)
{
    if (!node || node->type != CLPARSE_TYPE_BOOLEAN)
        return -1;
    node->value.boolean = static_cast<unsigned char>(value);
    return 0;
}

void *clparse_get_func_priv(const clparse_node *node)
{
    return ASSERT_NODE(node) == 0 ? node->value.func.priv : nullptr;
}
