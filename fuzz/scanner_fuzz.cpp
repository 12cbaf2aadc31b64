// The scanner's exported interface beside the reference that flex generates:
//
//   scripts/fuzz 60 scanner
//
// An input is calls with their arguments: buffers over bytes, a caller's memory and streams are made,
// stacked, switched, flushed and released in any order that is allowed, and tokens are read in between. At
// the end what is left may be parsed.

#include <qvlib/memcheck.h>
#include <qvlib/scanner.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "corelink.tab.hpp"
#include "failing_alloc.h"
#include "fuzz_input.h"
#include "reference_reader.h"

#define YYSTYPE union reference::token
#define yy_buffer_state reference_buffer_state // as tests/reference/corelink.l has it
#include "corelink.lex.h"
#undef yy_buffer_state
#undef YYSTYPE

namespace
{

using fuzz::require;

// A buffer on both sides. Streams and memory outlive the scanners.
struct buffer_pair {
    yy_buffer_state *got;
    reference_buffer_state *expected;
    bool is_stream;
};

// A stream over a copy of a text.
class stream
{
  public:
    explicit stream(const std::string &text) : text_(text), file_(fmemopen(text_.data(), text_.size(), "r"))
    {
        require(file_ != nullptr, "no stream");
    }
    stream(const stream &) = delete;
    stream &operator=(const stream &) = delete;
    ~stream()
    {
        fclose(file_);
    }
    FILE *file() const
    {
        return file_;
    }

  private:
    std::string text_;
    FILE *file_;
};

class world
{
  public:
    world()
    {
        require(yylex_init_extra(this, &got_) == 0, "yylex_init_extra");
        require(reference_lex_init_extra(&document_, &expected_) == 0, "the reference's scanner");
        require(yyget_extra(got_) == this, "the user data");
    }
    world(const world &) = delete;
    world &operator=(const world &) = delete;
    ~world()
    {
        for (const buffer_pair &loose : loose_) {
            yy_delete_buffer(loose.got, got_);
            reference__delete_buffer(loose.expected, expected_);
        }
        require(yylex_destroy(got_) == 0, "yylex_destroy");
        release_reference_stack();
        reference_lex_destroy(expected_);
        for (size_t i = 0; i < memory_.size(); i += 2)
            require(memory_[i] == memory_[i + 1], "a caller's memory is left in another state");
    }

    void step(fuzz::input &in)
    {
        switch (in.below(14)) {
        case 0:
            scan_bytes(in.text(in.byte()));
            break;
        case 1:
            scan_memory(in.text(in.byte()));
            break;
        case 2:
            push(stream_buffer(in.text(1 + in.byte()), in.below(80)));
            break;
        case 3:
            if (!loose_.empty())
                push(take_loose(in.below(8)));
            break;
        case 4:
            if (!loose_.empty())
                switch_to(take_loose(in.below(8)));
            break;
        case 5:
            pop();
            break;
        case 6:
            flush();
            break;
        case 7:
            delete_current();
            break;
        case 8:
            restart(in.text(1 + in.byte()));
            break;
        case 9:
            loose_.push_back(stream_buffer(in.text(1 + in.byte()), in.below(80)));
            break;
        case 10:
            place(static_cast<int>(in.number(2)));
            break;
        default:
            read_tokens(1 + in.below(8));
            break;
        }
    }

    // Returns whether the rest was a document; blocks stay allocated when it was none.
    bool parse()
    {
        if (!has_current())
            return true;
        clparse_head *head = nullptr;
        require(clparse_init_head(&head) == 0, "no head");
        const int result = reference_parse(expected_, &document_);
        require(yyparse(got_, head) == result, "another result of the parser");
        if (result != 0)
            return false;
        clparse_stop(head);
        return true;
    }

  private:
    bool has_current() const
    {
        return !stack_.empty() && stack_.back().got != nullptr;
    }

    // As the scanners do: a buffer that is made becomes the current one, the one before it is the caller's.
    void replace_current(buffer_pair made)
    {
        require((made.got != nullptr) == (made.expected != nullptr), "whether a buffer was made");
        if (made.got == nullptr)
            return;
        if (stack_.empty())
            stack_.push_back({});
        if (has_current())
            loose_.push_back(stack_.back());
        stack_.back() = made;
    }

    // Flex's own destruction leaves what stands below the top of the stack.
    void release_reference_stack()
    {
        for (; stack_.size() > 1; stack_.pop_back()) {
            if (!stack_.back().expected) // an empty slot is not popped
                reference_push_buffer_state(reference__create_buffer(nullptr, 16, expected_), expected_);
            reference_pop_buffer_state(expected_);
        }
    }

    void scan_bytes(const std::string &bytes)
    {
        const std::vector<char> exact(bytes.begin(), bytes.end());
        const int length = static_cast<int>(exact.size());
        replace_current({yy_scan_bytes(exact.data(), length, got_),
                         reference__scan_bytes(exact.data(), length, expected_), false});
    }

    void scan_memory(const std::string &text)
    {
        std::vector<char> bytes(text.begin(), text.end());
        bytes.insert(bytes.end(), 2, '\0');
        const size_t size = bytes.size();
        char *of[2];
        for (char *&base : of)
            base = memory_.emplace_back(bytes).data();
        replace_current(
            {yy_scan_buffer(of[0], size, got_), reference__scan_buffer(of[1], size, expected_), false});
    }

    FILE *open(const std::string &text)
    {
        return streams_.emplace_back(std::make_unique<stream>(text))->file();
    }

    buffer_pair stream_buffer(const std::string &text, unsigned size)
    {
        const std::string content = text.empty() ? " " : text;
        // Flex takes any size; the library's smallest is 16.
        const int room = static_cast<int>(size) + 16;
        const buffer_pair made{yy_create_buffer(open(content), room, got_),
                               reference__create_buffer(open(content), room, expected_), true};
        require(made.got != nullptr, "no buffer over a stream");
        return made;
    }

    buffer_pair take_loose(size_t index)
    {
        const auto at = loose_.begin() + static_cast<ptrdiff_t>(index % loose_.size());
        const buffer_pair taken = *at;
        loose_.erase(at);
        return taken;
    }

    void push(buffer_pair pushed)
    {
        yypush_buffer_state(pushed.got, got_);
        reference_push_buffer_state(pushed.expected, expected_);
        if (has_current() || stack_.empty())
            stack_.push_back(pushed);
        else
            stack_.back() = pushed;
    }

    void switch_to(buffer_pair to)
    {
        yy_switch_to_buffer(to.got, got_);
        reference__switch_to_buffer(to.expected, expected_);
        replace_current(to);
    }

    void pop()
    {
        yypop_buffer_state(got_);
        reference_pop_buffer_state(expected_);
        if (!has_current())
            return;
        if (stack_.size() == 1)
            stack_.back() = {};
        else
            stack_.pop_back();
    }

    void flush()
    {
        if (!has_current())
            return;
        yy_flush_buffer(stack_.back().got, got_);
        reference__flush_buffer(stack_.back().expected, expected_);
    }

    void delete_current()
    {
        if (!has_current())
            return;
        yy_delete_buffer(stack_.back().got, got_);
        reference__delete_buffer(stack_.back().expected, expected_);
        stack_.back() = {};
    }

    void restart(const std::string &text)
    {
        // In a buffer that can't grow, flex ends the process where a token doesn't fit.
        if (!has_current() || !stack_.back().is_stream)
            return;
        const std::string content = text.empty() ? " " : text;
        yyrestart(open(content), got_);
        reference_restart(open(content), expected_);
    }

    void place(int number)
    {
        if (!has_current())
            return;
        yyset_lineno(number, got_);
        yyset_column(number + 1, got_);
        require(yyget_lineno(got_) == number && yyget_column(got_) == number + 1, "line and column");
    }

    void read_tokens(unsigned count)
    {
        while (has_current() && count-- > 0 && read_token())
            continue;
    }

    bool read_token()
    {
        clparse_token value{};
        reference::token wanted{};
        const int kind = yylex(&value, got_);
        const int expected = reference_lex(&wanted, expected_);
        const auto length = static_cast<size_t>(reference_get_leng(expected_));
        const char *text = reference_get_text(expected_);
        require(kind == expected, "another kind of token");
        if (kind == CLPARSE_TOKEN_END)
            return false;
        require(static_cast<size_t>(yyget_leng(got_)) == length, "another length of a token");
        require(memcmp(yyget_text(got_), text, length + 1) == 0, "another text of a token");
        require(yyget_lval(got_) == &value, "where the value stands");
        if (kind == CLPARSE_TOKEN_IDENTIFIER || kind == CLPARSE_TOKEN_STRING) {
            require(memcmp(value.str, wanted.text->c_str(), wanted.text->size() + 1) == 0, "another value");
            qv_memcheck_free(qv_free, value.str, "scanner_fuzz");
        }
        if (kind == CLPARSE_TOKEN_NUMBER)
            require(value.num == wanted.number, "another number");
        if (kind == CLPARSE_TOKEN_BOOLEAN)
            require(value.boolean == wanted.boolean, "another truth value");
        return true;
    }

    void *got_ = nullptr, *expected_ = nullptr;
    reference::document document_;
    std::vector<buffer_pair> stack_, loose_;
    std::vector<std::unique_ptr<stream>> streams_;
    std::vector<std::vector<char>> memory_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    failing_alloc::live_blocks account;
    bool parsed = true;
    {
        world both;
        const bool parses = in.below(2);
        while (!in.is_empty())
            both.step(in);
        if (parses)
            parsed = both.parse();
    }
    require(!parsed || account.count() == 0, "blocks are left");
    return 0;
}
