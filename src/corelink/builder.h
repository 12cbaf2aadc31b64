// Builds the tree while the parser reads.
//
// The head's cursor is the record that the next value or member fills; its parent is the container that is
// being filled. A node is linked into its container only when it is complete. One record that the reader has
// finished with is kept for the next cursor.
#pragma once

#include <cstdint>
#include <qvlib/corelink.h>
#include <qvlib/scanner.h>

namespace qv
{

enum class build_result { done, syntax_error, out_of_memory };

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
    void set_string(char *text);
    void set_number(uint64_t number);
    void set_boolean(unsigned char boolean);

    // "{" or "[": the cursor gets an empty children list, and a new cursor fills it.
    build_result open();

    // "}" or "]": the container is the cursor again.
    void close(int type);

    // The cursor is complete: it is linked into its container and a new cursor follows it. A tag is handed
    // over.
    build_result add_null(char *tag);
    build_result add_member(char *tag);
    build_result add_element();

    // "prefix.": the last child with this tag, or a new struct, is the container until leave_prefix.
    build_result enter_prefix(char *tag);
    void leave_prefix();

  private:
    struct container_index;

    build_result next_cursor(clparse_node *parent);
    clparse_node *find_last_child(clparse_node *container, const char *tag);
    container_index *index_of(clparse_node *sentinel);

    clparse_head *head_;
    clparse_node *spare_ = nullptr;
    container_index *indexes_ = nullptr;
};

} // namespace qv

// What the generated parser calls: the exported scanner and error reporter.
int grammar_lex(union clparse_token *value, void *scanner);
void grammar_error(void *scanner, clparse_head *head, qv::tree_builder *builder, const char *message);
