// The corelink reader: clparse_start and yyparse.
//
// The parser accepts the corelink grammar
//
//     document: members               member: IDENTIFIER
//     members:  member                      | IDENTIFIER '=' value
//             | members ',' member          | IDENTIFIER '.' member
//     elements: value                 value: STRING | NUMBER | BOOLEAN
//             | elements ',' value         | '{' '}' | '{' members '}' | '[' ']' | '[' elements ']'
//
// and uses the stack that an LALR(1) parser of it uses: which documents are too deep is part of the contract.

#include "builder.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include <qvlib/log.h>
#include <qvlib/memcheck.h>

#include "../where.h"
#include "scanner.h"

using namespace qv;

namespace
{

enum parse_result { accepted = 0, syntax_error = 1, memory_exhausted = 2 };

// What the parser knows of the list that it reads, kept on the stack while a container within it is read.
struct list_state {
    char *tag;             // of the member whose value is read; null for an element
    unsigned int prefixes; // of that member
    unsigned short bottom; // entries of the stack below the list
    short end;             // the token that ends the list
};

// The parser's stack. Its entries are counted as the grammar's symbols; since no list is opened by less than
// one of them, as many lists have room.
class parser_stack
{
  public:
    parser_stack() = default;
    ~parser_stack()
    {
        release();
    }
    parser_stack(const parser_stack &) = delete;
    parser_stack &operator=(const parser_stack &) = delete;

    // Counts one more symbol. False when there is no room and no memory for it.
    bool push_symbol()
    {
        return ++used_ < room_ || grow();
    }
    unsigned int symbols() const
    {
        return used_;
    }
    void reduce_to(unsigned int symbols)
    {
        used_ = symbols;
    }

    void push_list(const list_state &list)
    {
        lists_[count_++] = list;
    }
    list_state pop_list()
    {
        return lists_[--count_];
    }

  private:
    static constexpr unsigned int largest_room = 10000;

    bool grow();
    void release()
    {
        if (lists_ != first_)
            qv_memcheck_free(qv_free, lists_, QV_WHERE);
    }

    static constexpr unsigned int first_room = 64;
    list_state first_[first_room];
    list_state *lists_ = first_;
    unsigned int count_ = 0;
    unsigned int room_ = first_room;
    unsigned int used_ = 1; // the document
};

bool parser_stack::grow()
{
    if (room_ == largest_room)
        return false;
    const unsigned int room = room_ * 2 < largest_room ? room_ * 2 : largest_room;
    auto *moved =
        static_cast<list_state *>(qv_memcheck_malloc(malloc, room * sizeof(list_state), "yyparse", __LINE__));
    if (!moved)
        return false;
    memcpy(moved, lists_, count_ * sizeof(list_state));
    release();
    lists_ = moved;
    room_ = room;
    return true;
}

class parser
{
  public:
    parser(token_scanner *scanner, clparse_head *head) : scanner_(scanner), head_(head), builder_(head)
    {
    }
    parse_result run();

  private:
    // What comes next: an item of a list, the token behind an item, or the end of the parse.
    enum class step { item, item_end, stop };

    step member();
    step value();
    step open(int end);
    step item_end();
    step close();
    bool complete(build_result added);

    void read_token()
    {
        token_ = qv::read_token(scanner_, &value_);
    }
    // Takes the token that was read. False after an error, as all below.
    bool take()
    {
        return stack_.push_symbol() || fail(memory_exhausted);
    }
    bool take_and_read()
    {
        if (!take())
            return false;
        read_token();
        return true;
    }
    bool fail(parse_result result)
    {
        yyerror(scanner_, head_, result == syntax_error ? "syntax error" : "memory exhausted");
        result_ = result;
        return false;
    }
    bool built(build_result result)
    {
        return result == build_result::done ||
               fail(result == build_result::syntax_error ? syntax_error : memory_exhausted);
    }
    step stop(parse_result result)
    {
        fail(result);
        return step::stop;
    }

    token_scanner *scanner_;
    clparse_head *head_;
    tree_builder builder_;
    parser_stack stack_;
    list_state list_{nullptr, 0, 1, CLPARSE_TOKEN_END};
    int token_ = CLPARSE_TOKEN_END; // read, but not taken yet
    clparse_token value_{};
    parse_result result_ = accepted;
};

parse_result parser::run()
{
    read_token();
    for (step next = step::item; next != step::stop;) {
        if (next == step::item_end)
            next = item_end();
        else
            next = list_.end == ']' ? value() : member();
    }
    return result_;
}

// A member, but of a container as value only what opens it.
parser::step parser::member()
{
    for (list_.prefixes = 0; token_ == CLPARSE_TOKEN_IDENTIFIER; list_.prefixes++) {
        char *tag = value_.str;
        if (!take_and_read())
            return step::stop;
        if (token_ == '=') {
            list_.tag = tag;
            return take_and_read() ? value() : step::stop;
        }
        if (token_ != '.')
            return complete(builder_.add_null(tag)) ? step::item_end : step::stop;
        if (!built(builder_.enter_prefix(tag)) || !take_and_read())
            return step::stop;
    }
    return stop(syntax_error);
}

parser::step parser::value()
{
    switch (token_) {
    case CLPARSE_TOKEN_STRING:
        if (!take())
            return step::stop;
        builder_.set_string(value_.str);
        break;
    case CLPARSE_TOKEN_NUMBER:
        if (!take())
            return step::stop;
        builder_.set_number(value_.num);
        break;
    case CLPARSE_TOKEN_BOOLEAN:
        if (!take())
            return step::stop;
        builder_.set_boolean(value_.boolean);
        break;
    case '{':
        return open('}');
    case '[':
        return open(']');
    default:
        return stop(syntax_error);
    }
    if (!complete(builder_.add(list_.tag)))
        return step::stop;
    read_token();
    return step::item_end;
}

// A container's first token; its list is the current one from here on.
parser::step parser::open(int end)
{
    if (!take() || !built(builder_.open()))
        return step::stop;
    stack_.push_list(list_);
    list_ = {nullptr, 0, static_cast<unsigned short>(stack_.symbols()), static_cast<short>(end)};
    read_token();
    return token_ == end ? close() : step::item;
}

parser::step parser::item_end()
{
    if (token_ == list_.end)
        return close();
    if (token_ != ',')
        return stop(syntax_error);
    return take_and_read() ? step::item : step::stop;
}

// The end of a list, and with it the item that it is the value of.
parser::step parser::close()
{
    if (list_.end == CLPARSE_TOKEN_END || !take())
        return step::stop;
    builder_.close(list_.end == '}' ? CLPARSE_TYPE_STRUCT : CLPARSE_TYPE_ARRAY);
    list_ = stack_.pop_list();
    if (!complete(builder_.add(list_.tag)))
        return step::stop;
    read_token();
    return step::item_end;
}

// An item was added: its list is one symbol now, whatever it took.
bool parser::complete(build_result added)
{
    if (!built(added))
        return false;
    for (; list_.prefixes > 0; list_.prefixes--)
        builder_.leave_prefix();
    stack_.reduce_to(list_.bottom + 1U);
    return true;
}

// A head with an empty root and a cursor; null when memory is short.
clparse_head *open_document()
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
    if (head->root.tag && head->root.value.children && head->cursor) {
        head->cursor->parent = &head->root;
        head->scanner = nullptr;
        return head;
    }
    free_cursor(head->cursor);
    free_cursor(head->root.value.children);
    free_text(head->root.tag, QV_WHERE);
    qv_memcheck_free(qv_free, head, QV_WHERE);
    return nullptr;
}

const char *text_or(const char *text, const char *otherwise)
{
    return text ? text : otherwise;
}

// Parses what is in a scanner's buffers, and shows the last token's text.
int parse_buffer(token_scanner *scanner, clparse_head *head)
{
    if (!has_buffer(scanner))
        return parser(scanner, head).run();
    unmark_token(scanner);
    const int result = parser(scanner, head).run();
    mark_token(scanner);
    return result;
}

} // namespace

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
    const int result = parse_buffer(static_cast<token_scanner *>(scanner), head);
    // When memory was short for the next cursor, this one is a node of the tree already.
    if (head->cursor->next && head->cursor->next != head->cursor)
        head->cursor = nullptr;
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
    clparse_head *head = open_document();
    if (!head)
        return nullptr;
    // Read in place: nothing is written to a text that is not marked by token.
    token_scanner reader;
    reader.at = const_cast<char *>(text);
    reader.end = reader.at + strlen(text);
    head->scanner = &reader;
    const int result = parser(&reader, head).run();
    head->scanner = nullptr;
    if (result != accepted) {
        __qv_log(QV_LOG_ERROR, "%s: parsing failed: %d\n", "clparse_start", result);
        // What was read so far stays allocated, the head alone is released.
        qv_memcheck_free(qv_free, head, QV_WHERE);
        return nullptr;
    }
    free_cursor(head->cursor);
    head->cursor = nullptr;
    return head;
}
