// The library's trees from and to the model of documents.
#ifndef QVLIB_TESTS_MODELS_DOCUMENT_TREE_H
#define QVLIB_TESTS_MODELS_DOCUMENT_TREE_H

#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>

#include "models/document_model.h"

namespace document_model
{

inline value to_model(const clparse_node *node)
{
    value made;
    made.type = node->type;
    if (node->tag)
        made.tag = node->tag;
    switch (node->type) {
    case CLPARSE_TYPE_STRING:
        made.text = node->value.str;
        break;
    case CLPARSE_TYPE_NUMBER:
        made.number = node->value.num;
        break;
    case CLPARSE_TYPE_BOOLEAN:
        made.boolean = node->value.boolean != 0;
        EXPECT_LE(node->value.boolean, 1);
        break;
    case CLPARSE_TYPE_STRUCT:
    case CLPARSE_TYPE_ARRAY: {
        const clparse_node *sentinel = node->value.children;
        const clparse_node *prev = sentinel;
        for (const clparse_node *child = sentinel->next; child != sentinel; child = child->next) {
            EXPECT_EQ(child->prev, prev);
            EXPECT_EQ(child->parent, node);
            made.children.push_back(to_model(child));
            prev = child;
        }
        EXPECT_EQ(sentinel->prev, prev);
        break;
    }
    default:
        EXPECT_EQ(node->type, CLPARSE_TYPE_NULL);
        EXPECT_EQ(node->value.func.expand, nullptr);
        EXPECT_EQ(node->value.func.priv, nullptr);
    }
    return made;
}

inline void append_model(clparse_node *parent, const value &from)
{
    const char *tag = from.tag ? from.tag->c_str() : "dropped below";
    clparse_node *node = nullptr;
    switch (from.type) {
    case CLPARSE_TYPE_STRING:
        node = clparse_create_string_node(tag, from.text.c_str());
        break;
    case CLPARSE_TYPE_NUMBER:
        node = clparse_create_number_node(tag, from.number);
        break;
    case CLPARSE_TYPE_BOOLEAN:
        node = clparse_create_boolean_node(tag, from.boolean);
        break;
    case CLPARSE_TYPE_STRUCT:
        node = clparse_create_struct_node(tag);
        break;
    case CLPARSE_TYPE_ARRAY:
        node = clparse_create_array_node(tag);
        break;
    default:
        node = clparse_create_null_node(tag);
    }
    ASSERT_NE(node, nullptr);
    if (!from.tag)
        clparse_set_node_tag(node, nullptr);
    for (const value &child : from.children)
        append_model(node, child);
    ASSERT_EQ(clparse_append_child(parent, node), 0);
}

struct stop_head {
    void operator()(clparse_head *head) const
    {
        clparse_stop(head);
    }
};
using head_ptr = std::unique_ptr<clparse_head, stop_head>;

inline head_ptr to_tree(const value &root)
{
    clparse_head *head = nullptr;
    EXPECT_EQ(clparse_init_head(&head), 0);
    for (const value &child : root.children)
        append_model(clparse_get_head(head), child);
    return head_ptr(head);
}

inline std::string take_text(char *text)
{
    EXPECT_NE(text, nullptr);
    std::string copy = text ? text : "";
    qv_memcheck_free(qv_free, text, "document_tree.h");
    return copy;
}

inline std::string corelink_of(clparse_head *head, int paths)
{
    char *text = nullptr;
    EXPECT_EQ(clparse_get_corelink(head, &text, paths), 0);
    return take_text(text);
}

} // namespace document_model

#endif
