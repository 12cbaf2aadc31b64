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
    // Whether as many more can be counted without a look at the room.
    bool has_room_for(unsigned int symbols) const
    {
        return used_ + symbols < room_;
    }
    void push_symbols(unsigned int symbols)
    {
        used_ += symbols;
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

    step quick_items();
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
    // Goes on behind a token that quick_items took from the text.
    void place_behind(const char *text, const char *after)
    {
        scanner_->text = const_cast<char *>(text);
        scanner_->length = static_cast<size_t>(after - text);
        scanner_->at = const_cast<char *>(after);
    }
    step read_from(const char *at, step next)
    {
        scanner_->at = const_cast<char *>(at);
        read_token();
        return next;
    }
    step read_value(const char *at, unsigned int symbols)
    {
        stack_.push_symbols(symbols);
        return read_from(at, step::item), value();
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
    bool open_list(int end)
    {
        if (!built(builder_.open()))
            return false;
        stack_.push_list(list_);
        list_ = {nullptr, 0, static_cast<unsigned short>(stack_.symbols()), static_cast<short>(end)};
        return true;
    }
    void close_list()
    {
        builder_.close(list_.end == '}' ? CLPARSE_TYPE_STRUCT : CLPARSE_TYPE_ARRAY);
        list_ = stack_.pop_list();
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
    for (step next = quick_items(); next != step::stop;) {
        if (next == step::item_end)
            next = item_end();
        else
            next = list_.end == ']' ? value() : member();
    }
    return result_;
}

// Items in their common shapes, TAG=VALUE and VALUE, whose tokens are taken from the text in one loop. What
// comes in another shape, touches the end of the text or does not fit the stack is left to the functions
// below, which go on where the loop ends, as if they had read what stands before it.
parser::step parser::quick_items()
{
    char unescaped[512]; // no more than a long string of a configuration has
    const char *at = scanner_->at;
    const char *const end = scanner_->end;
    if (!by_words || scanner_->lonely)
        return read_from(at, step::item);
    for (;;) {
        at = skip_blanks(at, end);
        // A tag, its sign, what opens a container and what closes it.
        if (!stack_.has_room_for(4))
            return read_from(at, step::item);
        unsigned int symbols = 0;
        if (list_.end != ']') {
            const char *const text = at;
            at = behind_word<text_block>(text, end);
            if (!is_class(*text, letter) || at >= end || is_boolean(text, at))
                return read_from(text, step::item);
            char *const tag = copy_word(text, static_cast<size_t>(at - text), builder_.plain_allocator());
            const char *const sign = *at == ' ' ? at + 1 : at;
            if (!tag || *sign != '=') {
                place_behind(text, at);
                token_ = tag ? CLPARSE_TOKEN_IDENTIFIER : CLPARSE_TOKEN_INVALID;
                value_.str = tag;
                return step::item;
            }
            list_.tag = tag;
            symbols = 2;
            at = sign[1] == ' ' ? sign + 2 : sign + 1;
        }
        const char *text = at;
        if (is_class(*text, digit)) {
            const lexeme number = number_lexeme(text, end);
            if (number.looked >= end)
                return read_value(text, symbols);
            builder_.set_number(number.number);
            at = number.after;
        } else if (*text == '"') {
            char *string = nullptr;
            if (const char *const quote = find_plain_end<text_block>(text + 1, end)) {
                at = quote + 1;
                string =
                    copy_word(text + 1, static_cast<size_t>(quote - text - 1), builder_.plain_allocator());
            } else {
                const read_contents contents =
                    read_string<text_block>(text + 1, end, unescaped, sizeof unescaped);
                if (!contents.found.closed)
                    return read_value(text, symbols);
                at = contents.found.at + 1;
                string = copy_string(text + 1, contents, unescaped, builder_.plain_allocator());
            }
            if (!string) {
                place_behind(text, at);
                return stop(syntax_error);
            }
            builder_.set_string(string);
        } else if (*text == '{' || *text == '[') {
            at = text + 1;
            stack_.push_symbols(symbols + 1);
            if (!open_list(*text == '{' ? '}' : ']')) {
                place_behind(text, at);
                return step::stop;
            }
            at = skip_blanks(at, end);
            if (at < end && *at != list_.end)
                continue;
            read_from(at, step::item);
            return token_ == list_.end ? close() : step::item;
        } else {
            at = behind_word<text_block>(text, end);
            if (at >= end || !is_boolean(text, at))
                return read_value(text, symbols);
            builder_.set_boolean(*text == 't');
        }
        for (;;) {
            if (!complete(builder_.add(list_.tag))) {
                place_behind(text, at);
                return step::stop;
            }
            if (*at == ',')
                break;
            at = skip_blanks(at, end);
            if (*at == ',')
                break;
            if (*at == '\0' || *at != list_.end)
                return read_from(at, step::item_end);
            text = at++;
            close_list();
        }
        at++;
        stack_.push_symbols(1);
    }
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
    if (!take() || !open_list(end))
        return step::stop;
    read_token();
    return token_ == end ? close() : step::item;
}

parser::step parser::item_end()
{
    if (token_ == list_.end)
        return close();
    if (token_ != ',')
        return stop(syntax_error);
    return take() ? quick_items() : step::stop;
}

// The end of a list, and with it the item that it is the value of.
parser::step parser::close()
{
    if (list_.end == CLPARSE_TOKEN_END || !take())
        return step::stop;
    close_list();
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
    auto *head = allocate_record_tracked<clparse_head>("clparse_start", __LINE__);
    if (!head)
        return nullptr;
    clparse_create_node(&head->root);
    head->root.type = CLPARSE_TYPE_STRUCT;
    head->root.tag = clparse_strdup("head", "clparse_start", __LINE__);
    head->root.value.children = create_node(nullptr, malloc);
    head->cursor = create_node(nullptr, malloc);
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
