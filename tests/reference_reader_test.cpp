// The reader against its reference, which flex and bison generate: results, trees, messages and what a failed
// parse leaves allocated, for a great many random and damaged texts.

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>
#include <qvlib/scanner.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "machine.h"
#include "memdebug.h"
#include "reference/reference_reader.h"
#include "tracked.h"

namespace
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int text_count = scaled(100000);
#else
constexpr int text_count = scaled(1000000);
#endif

// ---- What the library does besides returning a tree

struct watched {
    bool on = false;
    std::unordered_map<void *, const char *> blocks; // live, by the name they are recorded under
    std::string printed, logged;
};

watched watch;

// Without a session blocks would come straight from the C library. This one is not enabled, so that the
// wrappers are called and do nothing more.
qv::memdebug_session idle_session;

} // namespace

extern "C" {

void *__real_qv_memcheck_malloc(void *(*allocator)(size_t), size_t size, const char *func, unsigned int line);
int __real_qv_memcheck_free(void (*release)(void *), void *ptr, const char *where);
void *__wrap_qv_memcheck_malloc(void *(*allocator)(size_t), size_t size, const char *func, unsigned int line);
int __wrap_qv_memcheck_free(void (*release)(void *), void *ptr, const char *where);
int __wrap_memdbg_printf(const char *format, ...);
void __wrap___qv_log(int level, const char *format, ...);

void *__wrap_qv_memcheck_malloc(void *(*allocator)(size_t), size_t size, const char *func, unsigned int line)
{
    void *block = __real_qv_memcheck_malloc(allocator, size, func, line);
    if (watch.on)
        watch.blocks[block] = func;
    return block;
}

int __wrap_qv_memcheck_free(void (*release)(void *), void *ptr, const char *where)
{
    if (watch.on)
        watch.blocks.erase(ptr);
    return __real_qv_memcheck_free(release, ptr, where);
}

int __wrap_memdbg_printf(const char *format, ...)
{
    char line[256];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    watch.printed += line;
    return length;
}

void __wrap___qv_log(int level, const char *format, ...)
{
    char line[256];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    watch.logged += std::to_string(level) + ": " + line;
}
}

namespace
{

void start_watching()
{
    watch = {};
    watch.on = true;
    qv::the_session = &idle_session;
}

void stop_watching()
{
    watch.on = false;
    qv::the_session = nullptr;
}

// ---- Comparison

void expect_equal_node(const clparse_node *got, const reference::node &expected)
{
    ASSERT_EQ(got->type, expected.type);
    ASSERT_STREQ(got->tag, expected.tag ? expected.tag->c_str() : nullptr);
    switch (got->type) {
    case CLPARSE_TYPE_STRING:
        ASSERT_STREQ(got->value.str, expected.text->c_str());
        break;
    case CLPARSE_TYPE_NUMBER:
        ASSERT_EQ(got->value.num, expected.number);
        break;
    case CLPARSE_TYPE_BOOLEAN:
        ASSERT_EQ(got->value.boolean, expected.boolean);
        break;
    case CLPARSE_TYPE_STRUCT:
    case CLPARSE_TYPE_ARRAY:
        break;
    default:
        ASSERT_EQ(got->type, CLPARSE_TYPE_NULL);
    }
}

void expect_equal(const clparse_node *root, const reference::node &expected_root)
{
    std::vector<std::pair<const clparse_node *, const reference::node *>> open{{root, &expected_root}};
    while (!open.empty()) {
        const auto [got, expected] = open.back();
        open.pop_back();
        ASSERT_NO_FATAL_FAILURE(expect_equal_node(got, *expected));
        if (got->type != CLPARSE_TYPE_STRUCT && got->type != CLPARSE_TYPE_ARRAY)
            continue;
        const clparse_node *child = got->value.children->next;
        for (const reference::node *wanted : expected->children) {
            ASSERT_NE(child, got->value.children);
            ASSERT_EQ(child->parent, got);
            open.emplace_back(child, wanted);
            child = child->next;
        }
        ASSERT_EQ(child, got->value.children);
    }
}

// "MESSAGE, parent TAG, near TAG" of the three lines that the library prints.
std::string error_of(const std::string &printed)
{
    char message[64], parent[64], near[64];
    if (sscanf(printed.c_str(), "(null): %63[^\n]\nParent was %63[^\n]\nnear: %63[^\n]\n", message, parent,
               near) != 3)
        return "unexpected: " + printed;
    return std::string(message) + ", parent " + parent + ", near " + near;
}

class tally
{
  public:
    // Reads a text in both ways.
    void compare(std::string text)
    {
        if (text.empty())
            text = " "; // nothing at all is no document for clparse_start, and no error
        SCOPED_TRACE(text.size() < 500 ? text : text.substr(0, 500) + "...");
        reference::document expected;
        const int result = reference::read(text.c_str(), expected);
        results_[result]++;
        start_watching();
        clparse_head *head = clparse_start(text.c_str());
        stop_watching();
        if (result == 0) {
            ASSERT_NE(head, nullptr);
            ASSERT_EQ(head->cursor, nullptr);
            ASSERT_EQ(watch.printed + watch.logged, "");
            ASSERT_NO_FATAL_FAILURE(expect_equal(clparse_get_head(head), expected.root));
            clparse_stop(head);
            return;
        }
        ASSERT_EQ(head, nullptr);
        ASSERT_EQ(error_of(watch.printed), expected.error);
        ASSERT_EQ(watch.logged, "3: clparse_start: parsing failed: " + std::to_string(result) + "\n");
        std::map<std::string, int> kept;
        for (const auto &[block, func] : watch.blocks) {
            kept[func]++;
            free(block);
        }
        std::map<std::string, int> expected_kept = {{"clparse_start", 1},
                                                    {"clparse_create_node", expected.live_nodes}};
        if (expected.live_texts > 0)
            expected_kept["yylex"] = expected.live_texts;
        ASSERT_EQ(kept, expected_kept);
    }

    // The same from a buffer in memory and from a stream in pieces, which must show the same last token, too.
    void compare_scanners(std::string text)
    {
        if (text.empty())
            text = " ";
        SCOPED_TRACE(text);
        reference::document expected;
        const int result = reference::read(text.c_str(), expected);
        results_[result]++;
        FILE *stream = fmemopen(text.data(), text.size(), "r");
        ASSERT_NE(stream, nullptr);
        std::string last_tokens[2];
        for (const bool streamed : {false, true}) {
            clparse_head *head = nullptr;
            void *scanner = nullptr;
            ASSERT_EQ(yylex_init(&scanner), 0);
            if (streamed)
                yy_switch_to_buffer(yy_create_buffer(stream, 16, scanner), scanner);
            else
                yy_scan_string(text.c_str(), scanner);
            start_watching();
            ASSERT_EQ(clparse_init_head(&head), 0);
            ASSERT_EQ(yyparse(scanner, head), result);
            stop_watching();
            last_tokens[streamed] = yyget_text(scanner);
            ASSERT_EQ(static_cast<size_t>(yyget_leng(scanner)), last_tokens[streamed].size());
            yylex_destroy(scanner);
            if (result == 0) {
                ASSERT_NO_FATAL_FAILURE(expect_equal(clparse_get_head(head), expected.root));
                clparse_stop(head);
            } else {
                for (const auto &[block, func] : watch.blocks)
                    free(block);
            }
        }
        ASSERT_EQ(last_tokens[0], last_tokens[1]);
        fclose(stream);
    }

    int operator[](int result) const
    {
        return results_[result];
    }

  private:
    int results_[3] = {};
};

// ---- Texts

class text_maker
{
  public:
    explicit text_maker(unsigned int seed) : random_(seed)
    {
    }

    unsigned int below(unsigned int count)
    {
        return static_cast<unsigned int>(random_() % count);
    }

    // A document that is read, mostly small.
    std::string valid()
    {
        text_.clear();
        budget_ = 1 + below(12);
        if (below(200) == 0)
            budget_ = 300; // containers that get an index
        members();
        if (below(2))
            text_.append(below(80), ' '); // whole blocks of characters behind all tokens
        return text_;
    }

    // The same with a few bytes or stretches changed.
    std::string damaged()
    {
        static const std::string alphabet = "ab_x019 \n\t\"\\,=.{}[];-0xtruefals\x80";
        std::string text = valid();
        for (unsigned int changes = 1 + below(3); changes > 0; changes--) {
            const size_t at = below(static_cast<unsigned int>(text.size()) + 1);
            switch (below(4)) {
            case 0:
                text.insert(at, 1, alphabet[below(static_cast<unsigned int>(alphabet.size()))]);
                break;
            case 1:
                if (at < text.size())
                    text[at] = alphabet[below(static_cast<unsigned int>(alphabet.size()))];
                break;
            case 2:
                text.erase(at, 1 + below(3));
                break;
            default:
                text.insert(at, text.substr(below(static_cast<unsigned int>(text.size()) + 1), below(6)));
                break;
            }
        }
        return text;
    }

    // Tokens in any order.
    std::string any()
    {
        static const char *const tokens[] = {"a",  "b", "true", "false", "12", "0x", "0x1F", "\"s\"", "\"",
                                             "\\", ",", "=",    ".",     "{",  "}",  "[",    "]",     " "};
        std::string text;
        for (unsigned int count = below(14); count > 0; count--)
            text += tokens[below(std::size(tokens))];
        return text;
    }

    // Containers and prefixes nested about as deep as the parser's stack goes.
    std::string deep()
    {
        text_.clear();
        static constexpr unsigned int costs[] = {1, 3, 2};
        const unsigned int kind = below(4);
        unsigned int entries = 1;
        const unsigned int last = 9990 + below(20);
        std::string ends;
        bool in_array = false;
        while (entries < last) {
            unsigned int next = kind < 3 ? kind : below(3);
            if (in_array)
                next = 0;
            if (next == 2) {
                text_ += "a.";
            } else {
                text_ += in_array ? "" : "b=";
                entries += in_array ? 0 : 2;
                if (next == 0 && kind == 3 && below(2) && !in_array)
                    next = 1;
                text_ += next == 1 ? '{' : '[';
                ends.insert(ends.begin(), next == 1 ? '}' : ']');
                in_array = next == 0 && kind == 0;
                entries++;
                if (next == 0 && !in_array) {
                    text_ += '{'; // members go on within an element
                    ends.insert(ends.begin(), '}');
                    entries++;
                }
                continue;
            }
            entries += costs[next];
        }
        text_ += in_array ? "1" : "a=1";
        return below(4) ? text_ + ends : text_;
    }

  private:
    void blank()
    {
        if (below(4) == 0)
            text_ += " \n\t\r"[below(4)];
    }

    void tag()
    {
        static const char *const few[] = {"a",        "b",       "_c",       "D4",
                                          "trueness", "false_x", "counters", "longer_than_a_block"};
        text_ += few[below(std::size(few))];
        if (budget_ > 20)
            text_ += std::to_string(below(60));
    }

    void value()
    {
        switch (below(7)) {
        case 0:
            text_ += '"';
            for (unsigned int length = below(12); length > 0; length--) {
                static const char *const parts[] = {"a",   " ", "\n",       "\\\"", "\\\\",
                                                    "\\n", "{", "\xc3\xa9", ","};
                text_ += parts[below(std::size(parts))];
            }
            text_ += '"';
            break;
        case 1:
            text_ += below(2) ? "0x" + std::to_string(random_()) : std::to_string(random_());
            break;
        case 2:
            text_ += std::to_string(below(1000));
            break;
        case 3:
            text_ += below(2) ? "true" : "false";
            break;
        case 4:
        case 5:
            text_ += '{';
            if (budget_ > 0)
                members();
            text_ += '}';
            break;
        default:
            text_ += '[';
            for (bool more = budget_ > 0 && below(4); more; more = budget_ > 0 && below(3)) {
                budget_--;
                if (text_.back() != '[')
                    text_ += ',';
                blank();
                value();
            }
            text_ += ']';
            break;
        }
    }

    void members()
    {
        for (bool first = true; first || (budget_ > 0 && below(5)); first = false) {
            if (budget_ > 0)
                budget_--;
            if (!first)
                text_ += ',';
            blank();
            tag();
            while (below(3) == 0) {
                text_ += below(5) ? "." : " . ";
                tag();
            }
            blank();
            if (below(8)) {
                text_ += '=';
                blank();
                value();
            }
            blank();
        }
    }

    std::mt19937_64 random_;
    std::string text_;
    unsigned int budget_ = 0;
};

TEST(Reader, AgreesWithItsReferenceOnRandomTexts)
{
    text_maker maker(1);
    tally results;
    for (int i = 0; i < text_count && !HasFatalFailure(); i++)
        switch (i % 4) {
        case 0:
            results.compare(maker.valid());
            break;
        case 1:
            results.compare(maker.any());
            break;
        default:
            results.compare(maker.damaged());
            break;
        }
    RecordProperty("texts", text_count);
    EXPECT_GT(results[0], text_count / 4);
    EXPECT_GT(results[1], text_count / 4);
}

TEST(Reader, AgreesWithItsReferenceOnTextsThatComeInPieces)
{
    text_maker maker(3);
    tally results;
    for (int i = 0; i < text_count / 20 && !HasFatalFailure(); i++)
        results.compare_scanners(maker.below(2) ? maker.valid() : maker.damaged());
    EXPECT_GT(results[0], text_count / 80);
    EXPECT_GT(results[1], text_count / 80);
}

TEST(Reader, AgreesWithItsReferenceWhereTheStackEnds)
{
    text_maker maker(2);
    tally results;
    for (int i = 0; i < scaled(400) && !HasFatalFailure(); i++)
        results.compare(maker.deep());
    EXPECT_GE(results[0], scaled(20));
    EXPECT_GE(results[1], scaled(20));
    EXPECT_GE(results[2], scaled(20));
}

} // namespace
