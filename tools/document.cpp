// Reading with positions. The library's reader says no more than that a text is wrong; here its parser runs
// over a buffer of the tool's own, in which the scanner's last token is the offending one. The tokens before
// it are then scanned again to see whether a string, brace or bracket is what was left open.
#include "document.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string_view>
#include <unistd.h>
#include <vector>
#include <qvlib/memcheck.h>
#include <qvlib/scanner.h>
#include "failure.h"
#include "input.h"

namespace qvl
{

namespace
{

constexpr std::size_t longest_text = INT_MAX - 2; // the scanner counts in int

// A scanner over a copy of the text; the copy, since a scanner marks the end of each token in its buffer.
class scanner
{
  public:
    explicit scanner(std::string_view text) : buffer_(text.size() + 2)
    {
        std::copy(text.begin(), text.end(), buffer_.begin());
        if (yylex_init(&handle_) != 0)
            throw std::bad_alloc();
        if (yy_scan_buffer(buffer_.data(), buffer_.size(), handle_) == nullptr) {
            yylex_destroy(handle_);
            throw std::bad_alloc();
        }
    }
    scanner(const scanner &) = delete;
    scanner &operator=(const scanner &) = delete;
    ~scanner()
    {
        yylex_destroy(handle_);
    }

    void *handle()
    {
        return handle_;
    }

    // Where the last token stands; the end of the text when there is none.
    std::size_t offset()
    {
        const char *token = yyget_text(handle_);
        const std::size_t end = buffer_.size() - 2;
        if (token == nullptr)
            return end;
        return std::min(static_cast<std::size_t>(token - buffer_.data()), end);
    }

  private:
    std::vector<char> buffer_;
    void *handle_ = nullptr;
};

struct token {
    int kind = CLPARSE_TOKEN_END;
    std::size_t offset = 0;
    std::size_t length = 0;

    std::size_t end() const
    {
        return offset + length;
    }
};

token next_token(scanner &source)
{
    clparse_token value{};
    token read;
    read.kind = yylex(&value, source.handle());
    if (read.kind == CLPARSE_TOKEN_IDENTIFIER || read.kind == CLPARSE_TOKEN_STRING)
        qv_memcheck_free(qv_free, value.str, "qvl");
    read.offset = source.offset();
    if (read.kind != CLPARSE_TOKEN_END)
        read.length = static_cast<std::size_t>(yyget_leng(source.handle()));
    return read;
}

// The tokens around an error: the offending one, the two before it, and the braces and brackets open there.
struct surroundings {
    token offending, previous, before_previous;
    std::vector<token> open;
};

surroundings scan_to(std::string_view text, std::size_t offset)
{
    scanner source(text);
    surroundings found;
    for (;;) {
        const token read = next_token(source);
        if (read.kind == CLPARSE_TOKEN_END || read.offset >= offset) {
            found.offending = read;
            return found;
        }
        if (read.kind == '{' || read.kind == '[')
            found.open.push_back(read);
        // Up to the offending token, each brace and bracket closes the one opened last.
        if ((read.kind == '}' || read.kind == ']') && !found.open.empty())
            found.open.pop_back();
        found.before_previous = found.previous;
        found.previous = read;
    }
}

class diagnosis
{
  public:
    diagnosis(const std::string &name, std::string_view text, std::size_t offset)
        : name_(name), text_(text), at_(scan_to(text, offset))
    {
    }

    failure too_deep() const
    {
        return failure_at(name_, text_, at_.offending.offset, "nesting too deep");
    }

    failure syntax_error() const
    {
        const token &bad = at_.offending;
        if (bad.kind == '"')
            return near(bad, unclosed_string());
        if (bad.kind == CLPARSE_TOKEN_END)
            return at_end();
        if ((bad.kind == '}' || bad.kind == ']') && closes_outer(bad.kind))
            return near(at_.open.back(), std::string(": not closed before \"") + static_cast<char>(bad.kind) +
                                             "\" at " + place_in_words(text_, bad.offset));
        // An identifier is always well placed before a dot, so the parser refused the prefix itself.
        if (at_.previous.kind == CLPARSE_TOKEN_IDENTIFIER && bad.kind == '.')
            return prefix_of_a_value(at_.previous);
        if (at_.previous.kind == '.' && at_.before_previous.kind == CLPARSE_TOKEN_IDENTIFIER &&
            bad.kind == CLPARSE_TOKEN_IDENTIFIER)
            return prefix_of_a_value(at_.before_previous);
        return near(bad, swallowed_line());
    }

    // A NUL byte is stray wherever it stands, in strings too: a tag or value could not hold it.
    failure nul_byte(std::size_t offset) const
    {
        return near({CLPARSE_TOKEN_INVALID, offset, 1}, "");
    }

    const token &offending() const
    {
        return at_.offending;
    }

  private:
    failure near(const token &bad, const std::string &reason) const
    {
        return failure_at(name_, text_, bad.offset,
                          "syntax error near \"" + shown(text_.substr(bad.offset, bad.length)) + "\"" +
                              reason);
    }

    failure prefix_of_a_value(const token &prefix) const
    {
        return near(prefix, ": its value has no members");
    }

    // Points behind the last token, where what is missing belongs, not to the empty line that may follow.
    failure at_end() const
    {
        if (!at_.open.empty())
            return near(at_.open.back(), ": never closed");
        const bool empty = at_.previous.length == 0;
        return failure_at(name_, text_, at_.previous.end(),
                          empty ? "syntax error near end of file: a document has at least one member"
                                : "syntax error near end of file");
    }

    std::string unclosed_string() const
    {
        for (std::size_t i = at_.offending.offset + 1; i + 1 < text_.size(); ++i) {
            if (text_[i] == '\\' && text_[++i] == '\n')
                return ": never closed, a backslash stands before the line end at " +
                       place_in_words(text_, i - 1);
        }
        return ": never closed";
    }

    bool closes_outer(int kind) const
    {
        const auto opener = kind == '}' ? '{' : '[';
        if (at_.open.empty() || at_.open.back().kind == opener)
            return false;
        for (const token &open : at_.open) {
            if (open.kind == opener)
                return true;
        }
        return false;
    }

    // After a string without its closing quote, the next string's opening quote closes it, often lines below.
    std::string swallowed_line() const
    {
        const token &before = at_.previous;
        if (before.kind != CLPARSE_TOKEN_STRING ||
            text_.substr(before.offset, before.length).find('\n') == text_.npos)
            return "";
        return ": the string before it opens at " + place_in_words(text_, before.offset);
    }

    const std::string &name_;
    std::string_view text_;
    surroundings at_;
};

std::unique_ptr<clparse_head, stop_tree> make_head()
{
    clparse_head *head = nullptr;
    if (clparse_init_head(&head) != 0)
        throw std::bad_alloc();
    std::unique_ptr<clparse_head, stop_tree> owner(head);
    head->cursor =
        static_cast<clparse_node *>(qv_memcheck_malloc(qv_malloc, sizeof(clparse_node), __func__, __LINE__));
    if (head->cursor == nullptr)
        throw std::bad_alloc();
    head->cursor->next = head->cursor->prev = head->cursor;
    head->cursor->parent = clparse_get_head(head);
    return owner;
}

// Releases the node that the parser was filling and the containers around it that it had not linked yet.
void release_cursor(clparse_head *head)
{
    clparse_node *node = head->cursor;
    head->cursor = nullptr;
    while (node != nullptr && node != clparse_get_head(head)) {
        clparse_node *parent = node->parent;
        if (node->next == node)
            clparse_delete_node(node);
        // An open container has its children already, but is linked and given its type when it closes.
        if (parent != nullptr && parent->next == parent && parent->value.children != nullptr)
            parent->type = CLPARSE_TYPE_STRUCT;
        node = parent;
    }
}

[[noreturn]] void refuse(const std::string &name, std::string_view text, std::size_t offset, int result)
{
    const diagnosis found(name, text, offset);
    const std::size_t nul = text.find('\0');
    if (nul != text.npos && (found.offending().end() > nul || found.offending().kind == '"'))
        throw found.nul_byte(nul);
    throw result == 2 ? found.too_deep() : found.syntax_error();
}

} // namespace

document read_document(const std::string &path)
{
    document read;
    read.name = input_name(path);
    const std::string text = read_input(path, longest_text);
    scanner source(text);
    read.head = make_head();
    const int result = yyparse(source.handle(), read.head.get());
    release_cursor(read.head.get());
    if (result != 0)
        refuse(read.name, text, source.offset(), result);
    if (text.find('\0') != text.npos)
        refuse(read.name, text, text.size(), result);
    return read;
}

} // namespace qvl
