// Builds the tree while the parser reads.
//
// The head's cursor is the record that the next value or member fills; its parent is the container that is
// being filled. A node is linked into its container only when it is complete. One record that the reader has
// finished with is kept for the next cursor.
#pragma once

#include <cstdint>
#include <qvlib/corelink.h>

#include "tree.h"

namespace qv
{

enum class build_result { done, syntax_error, out_of_memory };

// Frees a record that the reader made; null too.
void free_cursor(clparse_node *cursor);

class tree_builder
{
  public:
    explicit tree_builder(clparse_head *head) : head_(head)
    {
    }
    ~tree_builder();
    tree_builder(const tree_builder &) = delete;
    tree_builder &operator=(const tree_builder &) = delete;

    // The cursor takes a value. A string is handed over.
    void set_string(char *text)
    {
        head_->cursor->type = CLPARSE_TYPE_STRING;
        head_->cursor->value.str = text;
    }
    void set_number(uint64_t number)
    {
        head_->cursor->type = CLPARSE_TYPE_NUMBER;
        head_->cursor->value.num = number;
    }
    void set_boolean(unsigned char boolean)
    {
        head_->cursor->type = CLPARSE_TYPE_BOOLEAN;
        head_->cursor->value.boolean = boolean;
    }

    // "{" or "[": the cursor gets an empty children list, and a new cursor fills it.
    build_result open()
    {
        clparse_node *container = head_->cursor;
        container->value.children = make_record(nullptr);
        return container->value.children ? next_cursor(container) : build_result::out_of_memory;
    }

    // "}" or "]": the container is the cursor again.
    void close(int type)
    {
        clparse_node *done = head_->cursor;
        head_->cursor = done->parent;
        head_->cursor->type = type;
        free_cursor(spare_);
        spare_ = done;
    }

    // The cursor is complete: it is linked into its container and a new cursor follows it. A tag is handed
    // over; without one the cursor is an element.
    build_result add(char *tag)
    {
        clparse_node *complete = head_->cursor;
        complete->tag = tag;
        link_last(complete->parent, complete);
        return next_cursor(complete->parent);
    }
    build_result add_null(char *tag)
    {
        head_->cursor->type = CLPARSE_TYPE_NULL;
        return add(tag);
    }

    // "prefix.": the last child with this tag, or a new struct, is the container until leave_prefix.
    build_result enter_prefix(char *tag);
    void leave_prefix()
    {
        head_->cursor->parent = head_->cursor->parent->parent;
    }

    // For records and texts.
    allocator plain_allocator() const
    {
        return plain_;
    }

  private:
    class container_index;

    clparse_node *make_record(clparse_node *spare)
    {
        constexpr unsigned int many = 8192;
        if (!small_code && ++records_ == many)
            plain_ = allocate_in_order;
        return create_node(spare, plain_);
    }

    build_result next_cursor(clparse_node *parent)
    {
        clparse_node *cursor = make_record(spare_);
        spare_ = nullptr;
        if (!cursor)
            return build_result::out_of_memory;
        cursor->parent = parent;
        head_->cursor = cursor;
        return build_result::done;
    }
    static container_index *existing_index(const clparse_node *sentinel)
    {
        return static_cast<container_index *>(sentinel->value.func.priv);
    }
    clparse_node *find_last_child(clparse_node *container, const char *tag);
    container_index *index_of(clparse_node *sentinel);

    clparse_head *head_;
    clparse_node *spare_ = nullptr;
    container_index *indexes_ = nullptr;
    unsigned int records_ = 0; // made or used again
    allocator plain_ = malloc;
};

} // namespace qv
