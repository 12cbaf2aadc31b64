// The corelink reader: clparse_start, the parser's entry point and what its actions do to the tree.

#include "builder.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include <qvlib/log.h>
#include <qvlib/memcheck.h>

#include "../where.h"
#include "corelink.tab.h"
#include "tag_index.h"
#include "tree.h"

using namespace qv;

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

void free_cursor(clparse_node *cursor)
{
    if (cursor)
        qv_memcheck_free(qv_free, cursor, QV_WHERE);
}

} // namespace

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

build_result tree_builder::next_cursor(clparse_node *parent)
{
    clparse_node *cursor = clparse_create_node(spare_);
    spare_ = nullptr;
    if (!cursor)
        return build_result::out_of_memory;
    cursor->parent = parent;
    head_->cursor = cursor;
    return build_result::done;
}

void tree_builder::set_string(char *text)
{
    head_->cursor->type = CLPARSE_TYPE_STRING;
    head_->cursor->value.str = text;
}

void tree_builder::set_number(uint64_t number)
{
    head_->cursor->type = CLPARSE_TYPE_NUMBER;
    head_->cursor->value.num = number;
}

void tree_builder::set_boolean(unsigned char boolean)
{
    head_->cursor->type = CLPARSE_TYPE_BOOLEAN;
    head_->cursor->value.boolean = boolean;
}

build_result tree_builder::open()
{
    clparse_node *container = head_->cursor;
    container->value.children = clparse_create_node(nullptr);
    if (!container->value.children)
        return build_result::out_of_memory;
    return next_cursor(container);
}

void tree_builder::close(int type)
{
    clparse_node *done = head_->cursor;
    head_->cursor = done->parent;
    head_->cursor->type = type;
    if (spare_)
        free_cursor(done);
    else
        spare_ = done;
}

build_result tree_builder::add_null(char *tag)
{
    head_->cursor->type = CLPARSE_TYPE_NULL;
    return add_member(tag);
}

build_result tree_builder::add_member(char *tag)
{
    head_->cursor->tag = tag;
    return add_element();
}

build_result tree_builder::add_element()
{
    clparse_node *complete = head_->cursor;
    link_last(complete->parent, complete);
    return next_cursor(complete->parent);
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

void tree_builder::leave_prefix()
{
    head_->cursor->parent = head_->cursor->parent->parent;
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

namespace
{

// A head with an empty root, a cursor and a scanner over a copy of the text; null when memory is short.
clparse_head *open_document(const char *text)
{
    auto *head = static_cast<clparse_head *>(
        qv_memcheck_malloc(qv_malloc, sizeof(clparse_head), "clparse_start", __LINE__));
    if (!head)
        return nullptr;
    clparse_create_node(&head->root);
    head->root.type = CLPARSE_TYPE_STRUCT;
    head->root.tag = clparse_strdup("head", "clparse_start", __LINE__);
    head->root.value.children = clparse_create_node(nullptr);
    head->cursor = clparse_create_node(nullptr);
    const bool complete = head->root.tag && head->root.value.children && head->cursor;
    if (complete)
        head->cursor->parent = &head->root;
    if (complete && yylex_init(&head->scanner) == 0) {
        if (yy_scan_string(text, head->scanner))
            return head;
        yylex_destroy(head->scanner);
    }
    free_cursor(head->cursor);
    if (head->root.value.children)
        free_cursor(head->root.value.children);
    free_text(head->root.tag, QV_WHERE);
    qv_memcheck_free(qv_free, head, QV_WHERE);
    return nullptr;
}

const char *text_or(const char *text, const char *otherwise)
{
    return text ? text : otherwise;
}

} // namespace

int grammar_lex(union clparse_token *value, void *scanner)
{
    return yylex(value, scanner);
}

void grammar_error(void *scanner, clparse_head *head, tree_builder *, const char *message)
{
    yyerror(scanner, head, message);
}

void yyerror(void *scanner, clparse_head *head, const char *message)
{
    const auto *user_data = static_cast<const char *>(yyget_extra(scanner));
    memdbg_printf("%s: %s\n", text_or(user_data, "(null)"), message);
    const clparse_node *cursor = head ? head->cursor : nullptr;
    if (!cursor)
        return;
    if (cursor->parent)
        memdbg_printf("Parent was %s\n", text_or(cursor->parent->tag, "NULL"));
    memdbg_printf("near: %s\n", text_or(cursor->tag, "NULL"));
}

int yyparse(void *scanner, clparse_head *head)
{
    if (!scanner || !head || !head->root.value.children)
        return 1;
    const bool own_cursor = !head->cursor;
    if (own_cursor) {
        head->cursor = clparse_create_node(nullptr);
        if (!head->cursor)
            return 2;
        head->cursor->parent = &head->root;
    }
    tree_builder builder(head);
    const int result = grammar_parse(scanner, head, &builder);
    if (own_cursor) {
        free_cursor(head->cursor);
        head->cursor = nullptr;
    }
    return result;
}

clparse_head *clparse_start(const char *text)
{
    if (!text || *text == '\0')
        return nullptr;
    clparse_head *head = open_document(text);
    if (!head)
        return nullptr;
    const int result = yyparse(head->scanner, head);
    yylex_destroy(head->scanner);
    head->scanner = nullptr;
    if (result != 0) {
        __qv_log(QV_LOG_ERROR, "%s: parsing failed: %d\n", "clparse_start", result);
        // What was read so far stays allocated, the head alone is released.
        qv_memcheck_free(qv_free, head, QV_WHERE);
        return nullptr;
    }
    free_cursor(head->cursor);
    head->cursor = nullptr;
    return head;
}
