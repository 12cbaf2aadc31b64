// The scanner's interface against the one that flex generates: both are driven with the same random calls,
// and whatever can be seen of them afterwards is compared. Only calls that flex allows are made.

#include <qvlib/memcheck.h>
#include <qvlib/scanner.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log_lines.h"
#include "machine.h"
#include "reference/reference_reader.h"

// What flex makes of tests/reference/corelink.l.
struct reference_buffer_state;
using reference_buffer = reference_buffer_state *;
int reference_lex(union reference::token *value, void *scanner);
int reference_lex_init_extra(reference::document *document, void **scanner);
int reference_lex_destroy(void *scanner);
reference_buffer reference__scan_string(const char *text, void *scanner);
reference_buffer reference__scan_bytes(const char *bytes, int length, void *scanner);
reference_buffer reference__scan_buffer(char *base, size_t size, void *scanner);
reference_buffer reference__create_buffer(FILE *stream, int size, void *scanner);
void reference__delete_buffer(reference_buffer buffer, void *scanner);
void reference__flush_buffer(reference_buffer buffer, void *scanner);
void reference__switch_to_buffer(reference_buffer buffer, void *scanner);
void reference_push_buffer_state(reference_buffer buffer, void *scanner);
void reference_pop_buffer_state(void *scanner);
void reference_restart(FILE *stream, void *scanner);
FILE *reference_get_in(void *scanner);
FILE *reference_get_out(void *scanner);
int reference_get_lineno(void *scanner);
int reference_get_column(void *scanner);
int reference_get_leng(void *scanner);
char *reference_get_text(void *scanner);
void reference_set_in(FILE *stream, void *scanner);
void reference_set_out(FILE *stream, void *scanner);
void reference_set_lineno(int line, void *scanner);
void reference_set_column(int column, void *scanner);
reference_buffer reference_current_buffer(void *scanner);

namespace
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned int run_count = scaled(20000u);
#else
constexpr unsigned int run_count = scaled(100000u);
#endif

// ---- Streams

std::set<FILE *> terminals;
constexpr int terminal = 100000;

// A text that is read piece by piece; the position says how far.
struct source {
    std::string text;
    size_t at = 0;
    size_t piece = 1;     // bytes that come at a time
    size_t interrupt = 0; // a read from here on is interrupted once

    static ssize_t read(void *cookie, char *to, size_t room)
    {
        auto *self = static_cast<source *>(cookie);
        if (self->interrupt && self->at >= self->interrupt) {
            self->interrupt = 0;
            errno = EINTR;
            return -1;
        }
        const size_t count = std::min({room, self->piece, self->text.size() - self->at});
        memcpy(to, self->text.data() + self->at, count);
        self->at += count;
        return static_cast<ssize_t>(count);
    }

    FILE *open()
    {
        cookie_io_functions_t functions = {};
        functions.read = read;
        FILE *stream = fopencookie(this, "r", functions);
        setvbuf(stream, nullptr, _IONBF, 0);
        return stream;
    }
};

} // namespace

extern "C" {
int __real_fileno(FILE *stream);
int __real_isatty(int fd);
int __wrap_fileno(FILE *stream);
int __wrap_isatty(int fd);

int __wrap_fileno(FILE *stream)
{
    return terminals.count(stream) ? terminal : __real_fileno(stream);
}

int __wrap_isatty(int fd)
{
    return fd == terminal || __real_isatty(fd);
}
}

namespace
{

// ---- Both scanners

struct stream_pair {
    source mine, its;
    FILE *my_stream = nullptr;
    FILE *its_stream = nullptr;
};

struct buffer_pair {
    yy_buffer_state *mine; // null when the scanner made it on its own
    reference_buffer its;
    std::unique_ptr<char[]> my_base = nullptr, its_base = nullptr; // a caller's
    size_t size = 0;                                               // of a text, with its two NULs
    bool streams = false;                                          // it holds what was read of a stream
    bool has_line = false; // a text's line is undefined until it is set
};

class scanner_pair
{
  public:
    explicit scanner_pair(unsigned int seed) : random_(seed)
    {
        EXPECT_EQ(yylex_init(&my_), 0);
        EXPECT_EQ(reference_lex_init_extra(&document_, &its_), 0);
        for (stream_pair &pair : streams_)
            open(pair);
    }

    ~scanner_pair()
    {
        std::set<buffer_pair *> stacked;
        for (buffer_pair *slot : slots_)
            if (slot)
                stacked.insert(slot);
        for (const auto &buffer : buffers_)
            if (!stacked.count(buffer.get())) {
                yy_delete_buffer(buffer->mine, my_);
                reference__delete_buffer(buffer->its, its_);
            }
        for (const auto &buffer : buffers_)
            release_base(buffer.get());
        EXPECT_EQ(yylex_destroy(my_), 0);
        reference_lex_destroy(its_);
        // The generated function releases the buffer on top of the stack only.
        void *other = nullptr;
        reference_lex_init_extra(&document_, &other);
        stacked.erase(slots_.back());
        for (const buffer_pair *buffer : stacked)
            reference__delete_buffer(buffer->its, other);
        reference_lex_destroy(other);
        for (stream_pair &pair : streams_)
            for (FILE *stream : {pair.my_stream, pair.its_stream}) {
                terminals.erase(stream);
                fclose(stream);
            }
    }
    scanner_pair(const scanner_pair &) = delete;
    scanner_pair &operator=(const scanner_pair &) = delete;

    // One call of each. False when the generated scanner would have ended the process.
    bool step()
    {
        token_length_ = -1;
        try {
            call(below(20));
        } catch (const std::runtime_error &) {
            return false;
        }
        compare();
        return true;
    }

    std::string trace;

  private:
    unsigned int below(unsigned int count)
    {
        return static_cast<unsigned int>(random_() % count);
    }

    std::string text()
    {
        static const std::string parts[] = {"a",
                                            "word_9",
                                            "\"s\"",
                                            "\"\\\"x\\\\\\n\"",
                                            "12",
                                            "0x1F",
                                            "0x",
                                            "true",
                                            "false",
                                            "truefalse",
                                            " ",
                                            "\n",
                                            ",",
                                            "=",
                                            "{",
                                            "]",
                                            "\"",
                                            "\\",
                                            "-",
                                            "\x80",
                                            "\\\n",
                                            std::string(1, '\0'),
                                            "0",
                                            "0X",
                                            "longer_than_sixteen_bytes",
                                            "\"as long \\\" as\nthat\"",
                                            "\\\"",
                                            "99999999999999999999999"};
        std::string text;
        for (unsigned int count = below(30); count > 0; count--)
            text += parts[below(std::size(parts))];
        return text;
    }

    void open(stream_pair &pair)
    {
        pair.mine.text = text();
        pair.mine.piece = below(2) ? 1 + below(9) : 10000;
        const bool by_line = below(3) == 0;
        pair.mine.interrupt = by_line || below(2) ? 0 : below(40);
        pair.its = pair.mine;
        pair.my_stream = pair.mine.open();
        pair.its_stream = pair.its.open();
        if (by_line)
            terminals.insert({pair.my_stream, pair.its_stream});
    }

    stream_pair &any_stream()
    {
        return streams_[below(3)];
    }

    // One that has a handle.
    buffer_pair *any_buffer()
    {
        if (buffers_.empty())
            return nullptr;
        buffer_pair *buffer = buffers_[below(static_cast<unsigned int>(buffers_.size()))].get();
        return buffer->mine ? buffer : nullptr;
    }

    // A buffer that the scanners made on their own would be lost.
    bool may_switch()
    {
        return !current() || current()->mine;
    }

    buffer_pair *&current()
    {
        return slots_.back();
    }

    bool is_alone(const buffer_pair *buffer)
    {
        return std::count(slots_.begin(), slots_.end(), buffer) == 1;
    }

    buffer_pair *add(yy_buffer_state *mine, reference_buffer its)
    {
        buffers_.push_back(std::make_unique<buffer_pair>(buffer_pair{mine, its}));
        return buffers_.back().get();
    }

    void add_own_buffer()
    {
        current() = add(nullptr, reference_current_buffer(its_));
        current()->streams = current()->has_line = true;
    }

    void forget(buffer_pair *buffer)
    {
        buffers_.erase(std::find_if(buffers_.begin(), buffers_.end(),
                                    [&](const auto &one) { return one.get() == buffer; }));
    }

    void call(unsigned int which)
    {
        switch (which) {
        case 0:
            scan_text();
            break;
        case 1:
            scan_callers_buffer();
            break;
        case 2:
            create_buffer();
            break;
        case 3:
            switch_to(any_buffer());
            break;
        case 4:
            push(any_buffer());
            break;
        case 5:
            pop();
            break;
        case 6:
            delete_buffer(any_buffer());
            break;
        case 7:
            flush(any_buffer());
            break;
        case 8:
            restart();
            break;
        case 9:
            set_stream();
            break;
        case 10:
            set_place();
            break;
        default:
            read_token();
        }
    }

    void scan_text()
    {
        if (!may_switch())
            return;
        const std::string bytes = text();
        const int length = static_cast<int>(bytes.size());
        if (below(2)) {
            trace += "yy_scan_string\n";
            current() = add(yy_scan_string(bytes.c_str(), my_), reference__scan_string(bytes.c_str(), its_));
            current()->size = strlen(bytes.c_str()) + 2;
        } else {
            trace += "yy_scan_bytes\n";
            current() = add(yy_scan_bytes(bytes.data(), length, my_),
                            reference__scan_bytes(bytes.data(), length, its_));
            current()->size = bytes.size() + 2;
        }
    }

    void scan_callers_buffer()
    {
        if (!may_switch())
            return;
        trace += "yy_scan_buffer\n";
        const std::string bytes = text() + std::string(2, '\0');
        const size_t size = bytes.size();
        auto mine = std::make_unique<char[]>(size), its = std::make_unique<char[]>(size);
        memcpy(mine.get(), bytes.data(), size);
        memcpy(its.get(), bytes.data(), size);
        current() = add(yy_scan_buffer(mine.get(), size, my_), reference__scan_buffer(its.get(), size, its_));
        current()->my_base = std::move(mine);
        current()->its_base = std::move(its);
        current()->size = size;
    }

    void create_buffer()
    {
        trace += "yy_create_buffer\n";
        const stream_pair &stream = any_stream();
        const int size = static_cast<int>(below(8) ? 16 + below(20) : 16384);
        buffer_pair *buffer = add(yy_create_buffer(stream.my_stream, size, my_),
                                  reference__create_buffer(stream.its_stream, size, its_));
        buffer->streams = buffer->has_line = true;
    }

    void switch_to(buffer_pair *buffer)
    {
        if (!buffer || !may_switch())
            return;
        trace += "yy_switch_to_buffer\n";
        yy_switch_to_buffer(buffer->mine, my_);
        reference__switch_to_buffer(buffer->its, its_);
        current() = buffer;
    }

    void push(buffer_pair *buffer)
    {
        if (!buffer)
            return;
        trace += "yypush_buffer_state\n";
        yypush_buffer_state(buffer->mine, my_);
        reference_push_buffer_state(buffer->its, its_);
        if (current())
            slots_.push_back(buffer);
        else
            current() = buffer;
    }

    void pop()
    {
        if (current() && !is_alone(current()))
            return;
        trace += "yypop_buffer_state\n";
        release_base(current());
        yypop_buffer_state(my_);
        reference_pop_buffer_state(its_);
        if (!current())
            return;
        forget(current());
        current() = nullptr;
        if (slots_.size() > 1)
            slots_.pop_back();
    }

    void delete_buffer(buffer_pair *buffer)
    {
        if (!buffer || std::count(slots_.begin(), slots_.end(), buffer) > (buffer == current() ? 1 : 0))
            return;
        trace += buffer == current() ? "yy_delete_buffer of the current one\n" : "yy_delete_buffer\n";
        release_base(buffer);
        yy_delete_buffer(buffer->mine, my_);
        reference__delete_buffer(buffer->its, its_);
        if (buffer == current())
            current() = nullptr;
        forget(buffer);
    }

    // A caller may release the memory before the buffer over it.
    void release_base(buffer_pair *buffer)
    {
        if (!buffer || below(2))
            return;
        buffer->my_base.reset();
        buffer->its_base.reset();
    }

    void flush(buffer_pair *buffer)
    {
        if (!buffer)
            return;
        trace += "yy_flush_buffer\n";
        yy_flush_buffer(buffer->mine, my_);
        reference__flush_buffer(buffer->its, its_);
    }

    void restart()
    {
        if (current() && current()->size == 2) // flex would double its size for ever
            return;
        trace += "yyrestart\n";
        const stream_pair &stream = any_stream();
        yyrestart(stream.my_stream, my_);
        reference_restart(stream.its_stream, its_);
        if (!current())
            add_own_buffer();
        current()->streams = true;
    }

    void set_stream()
    {
        stream_pair &stream = any_stream();
        if (below(2)) {
            // With a text flex takes it or not, depending on what was read of the text.
            if (current() && !current()->streams)
                return;
            trace += "yyset_in\n";
            yyset_in(stream.my_stream, my_);
            reference_set_in(stream.its_stream, its_);
        } else {
            trace += "a stream begins again\n";
            stream.mine.at = stream.its.at = 0;
        }
    }

    void set_place()
    {
        if (!current())
            return;
        trace += "yyset_lineno, yyset_column\n";
        const int line = static_cast<int>(below(1000));
        yyset_lineno(line, my_);
        reference_set_lineno(line, its_);
        yyset_column(line + 1, my_);
        reference_set_column(line + 1, its_);
        current()->has_line = true;
    }

    void read_token()
    {
        if (!current() && (has_read_ || !reference_get_in(its_)))
            return;
        trace += "yylex\n";
        union clparse_token mine = {};
        union reference::token its = {};
        const int my_kind = yylex(&mine, my_);
        std::unique_ptr<char, void (*)(char *)> my_text(
            my_kind == CLPARSE_TOKEN_IDENTIFIER || my_kind == CLPARSE_TOKEN_STRING ? mine.str : nullptr,
            [](char *text) { qv_memcheck_free(qv_free, text, "reference_scanner_test"); });
        const int kind = reference_lex(&its, its_);
        has_read_ = true;
        token_length_ = kind == CLPARSE_TOKEN_END ? 0 : reference_get_leng(its_);
        ASSERT_EQ(my_kind, kind);
        if (!current())
            add_own_buffer();
        switch (kind) {
        case CLPARSE_TOKEN_IDENTIFIER:
        case CLPARSE_TOKEN_STRING:
            EXPECT_EQ(memcmp(my_text.get(), its.text->c_str(), its.text->size() + 1), 0) << *its.text;
            break;
        case CLPARSE_TOKEN_NUMBER:
            EXPECT_EQ(mine.num, its.number);
            break;
        case CLPARSE_TOKEN_BOOLEAN:
            EXPECT_EQ(mine.boolean, its.boolean);
            break;
        }
    }

    void compare()
    {
        for (const stream_pair &stream : streams_) {
            EXPECT_EQ(stream.mine.at, stream.its.at);
            EXPECT_EQ(stream.mine.interrupt, stream.its.interrupt);
            EXPECT_EQ(feof(stream.my_stream), feof(stream.its_stream));
            EXPECT_EQ(ferror(stream.my_stream), ferror(stream.its_stream));
            EXPECT_EQ(yyget_in(my_) == stream.my_stream, reference_get_in(its_) == stream.its_stream);
        }
        EXPECT_EQ(yyget_in(my_) == nullptr, reference_get_in(its_) == nullptr);
        EXPECT_EQ(yyget_out(my_), reference_get_out(its_));
        for (const auto &buffer : buffers_)
            if (buffer->my_base && !buffer->streams) {
                EXPECT_EQ(std::string(buffer->my_base.get(), buffer->size),
                          std::string(buffer->its_base.get(), buffer->size));
            }
        if (token_length_ >= 0) {
            EXPECT_EQ(yyget_leng(my_), token_length_);
            EXPECT_EQ(
                memcmp(yyget_text(my_), reference_get_text(its_), static_cast<size_t>(token_length_) + 1), 0);
        }
        if (!current())
            return;
        EXPECT_STREQ(yyget_text(my_), reference_get_text(its_));
        if (current()->has_line) {
            EXPECT_EQ(yyget_lineno(my_), reference_get_lineno(its_));
            EXPECT_EQ(yyget_column(my_), reference_get_column(its_));
        }
    }

    std::mt19937 random_;
    reference::document document_;
    void *my_ = nullptr, *its_ = nullptr;
    stream_pair streams_[3];
    std::vector<std::unique_ptr<buffer_pair>> buffers_; // that were not deleted
    std::vector<buffer_pair *> slots_{nullptr};         // the stack; null for none
    bool has_read_ = false;
    int token_length_ = -1; // when the last call read a token
};

TEST(Scanner, AgreesWithItsReferenceOnRandomCalls)
{
    log_lines log;
    for (unsigned int seed = 0; seed < run_count && !testing::Test::HasFailure(); seed++) {
        scanner_pair scanners(seed);
        int steps = 0;
        while (steps < 60 && scanners.step() && !testing::Test::HasFailure())
            steps++;
        if (testing::Test::HasFailure())
            ADD_FAILURE() << "seed " << seed << "\n" << scanners.trace;
    }
}

} // namespace
