// Reader and writers against a slow and plain model of the language: random documents, valid and damaged, and
// random trees. Python's json and Expat judge what the JSON and XML writers produce.

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "machine.h"
#include "models/document_model.h"

#include <gtest/gtest.h>

namespace
{

using namespace document_model;

// ---- The model of the reader: a scanner and a recursive descent parser

enum class token { end, identifier, string, number, boolean, punctuation, stray };

bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

int hex_digit(char c)
{
    if (is_digit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

class model_reader
{
  public:
    explicit model_reader(const std::string &text) : text_(text)
    {
        next();
    }

    // The document's root, or nothing for a syntax error.
    std::optional<value> read()
    {
        value root = container(CLPARSE_TYPE_STRUCT);
        root.tag = "head";
        if (!members(root) || kind_ != token::end)
            return std::nullopt;
        return root;
    }

  private:
    char at(size_t where) const
    {
        return where < text_.size() ? text_[where] : '\0';
    }

    void next()
    {
        while (at(pos_) == ' ' || at(pos_) == '\t' || at(pos_) == '\r' || at(pos_) == '\n')
            pos_++;
        if (pos_ >= text_.size()) {
            kind_ = token::end;
            return;
        }
        const char c = at(pos_);
        if (is_letter(c))
            word();
        else if (is_digit(c))
            number();
        else if (c == '"')
            string();
        else {
            kind_ = strchr(",=.{}[]", c) && c ? token::punctuation : token::stray;
            lexeme_ = c;
            pos_++;
        }
    }

    void word()
    {
        lexeme_.clear();
        while (is_letter(at(pos_)) || is_digit(at(pos_)))
            lexeme_ += text_[pos_++];
        kind_ = lexeme_ == "true" || lexeme_ == "false" ? token::boolean : token::identifier;
    }

    void number()
    {
        kind_ = token::number;
        number_ = 0;
        const bool hex =
            at(pos_) == '0' && (at(pos_ + 1) == 'x' || at(pos_ + 1) == 'X') && hex_digit(at(pos_ + 2)) >= 0;
        const unsigned base = hex ? 16 : 10;
        if (hex)
            pos_ += 2;
        bool overflow = false;
        for (; hex ? hex_digit(at(pos_)) >= 0 : is_digit(at(pos_)); pos_++) {
            const auto digit = static_cast<unsigned>(hex_digit(at(pos_)));
            overflow = overflow || number_ > (UINT64_MAX - digit) / base;
            number_ = number_ * base + digit;
        }
        if (overflow)
            number_ = UINT64_MAX;
    }

    void string()
    {
        std::string contents;
        for (size_t i = pos_ + 1; i < text_.size(); i++) {
            if (text_[i] == '"') {
                kind_ = token::string;
                lexeme_ = contents;
                pos_ = i + 1;
                return;
            }
            if (text_[i] != '\\') {
                contents += text_[i];
                continue;
            }
            i++;
            if (at(i) == '\n' || i >= text_.size())
                break;
            if (text_[i] != '"' && text_[i] != '\\')
                contents += '\\';
            contents += text_[i];
        }
        kind_ = token::stray;
        pos_++;
    }

    bool is(char c) const
    {
        return kind_ == token::punctuation && lexeme_[0] == c;
    }
    bool take(char c)
    {
        if (!is(c))
            return false;
        next();
        return true;
    }

    bool members(value &into)
    {
        do {
            if (!member(into))
                return false;
        } while (take(','));
        return true;
    }

    bool member(value &into)
    {
        if (kind_ != token::identifier)
            return false;
        const std::string name = lexeme_;
        next();
        if (take('.')) {
            value *prefix = nullptr;
            for (value &child : into.children)
                if (child.tag == name)
                    prefix = &child; // the last one
            if (!prefix) {
                prefix = &into.children.emplace_back(container(CLPARSE_TYPE_STRUCT));
                prefix->tag = name;
            }
            return prefix->is_container() && member(*prefix);
        }
        value made;
        if (take('=') && !read_value(made))
            return false;
        made.tag = name;
        into.children.push_back(made);
        return true;
    }

    bool read_value(value &made)
    {
        const token kind = kind_;
        if (kind == token::string || kind == token::number || kind == token::boolean) {
            made.type = kind == token::string   ? CLPARSE_TYPE_STRING
                        : kind == token::number ? CLPARSE_TYPE_NUMBER
                                                : CLPARSE_TYPE_BOOLEAN;
            if (kind == token::string)
                made.text = lexeme_;
            if (kind == token::number)
                made.number = number_;
            if (kind == token::boolean)
                made.boolean = lexeme_ != "false";
            next();
            return true;
        }
        if (take('{')) {
            made = container(CLPARSE_TYPE_STRUCT);
            return take('}') || (members(made) && take('}'));
        }
        if (!take('['))
            return false;
        made = container(CLPARSE_TYPE_ARRAY);
        if (take(']'))
            return true;
        do {
            if (!read_value(made.children.emplace_back()))
                return false;
        } while (take(','));
        return take(']');
    }

    const std::string &text_;
    size_t pos_ = 0;
    token kind_ = token::end;
    std::string lexeme_;
    uint64_t number_ = 0;
};

// ---- Library trees

value to_model(const clparse_node *node)
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

void append_model(clparse_node *parent, const value &from)
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

head_ptr to_tree(const value &root)
{
    clparse_head *head = nullptr;
    EXPECT_EQ(clparse_init_head(&head), 0);
    for (const value &child : root.children)
        append_model(clparse_get_head(head), child);
    return head_ptr(head);
}

std::string take_text(char *text)
{
    EXPECT_NE(text, nullptr);
    std::string copy = text ? text : "";
    qv_memcheck_free(qv_free, text, "document_model_test");
    return copy;
}

std::string corelink_of(clparse_head *head, int paths)
{
    char *text = nullptr;
    EXPECT_EQ(clparse_get_corelink(head, &text, paths), 0);
    return take_text(text);
}

// A failed parse leaves what it had read allocated: leaks.supp knows this function.
[[gnu::noinline]] void read_rejected_document(const char *text)
{
    EXPECT_EQ(clparse_start(text), nullptr);
}

void expect_as_model(const std::string &text)
{
    SCOPED_TRACE(text);
    const std::optional<value> expected = model_reader(text).read();
    if (!expected) {
        read_rejected_document(text.c_str());
        return;
    }
    const head_ptr head(clparse_start(text.c_str()));
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->cursor, nullptr);
    EXPECT_EQ(to_model(clparse_get_head(head.get())), *expected);
}

// ---- Random documents

TEST(Reader, AgreesWithTheModelOnRandomDocuments)
{
    generator random(1);
    for (int i = 0; i < scaled(4000) && !HasFailure(); i++)
        expect_as_model(random.space() + random.members(3) + random.space());
}

TEST(Reader, AgreesWithTheModelOnDamagedDocuments)
{
    generator random(2);
    int accepted = 0;
    for (int i = 0; i < scaled(20000) && !HasFailure(); i++) {
        const std::string text = random.damage(random.members(2));
        accepted += model_reader(text).read().has_value();
        expect_as_model(text);
    }
    EXPECT_GT(accepted, scaled(1000));
    EXPECT_LT(accepted, scaled(19000));
}

TEST(Reader, AgreesWithTheModelOnEveryTruncation)
{
    const std::string text = "a = {x.y = [1, \"q\\\"\\\\\", {z}, []], w = {}}, b.c.d = 0x1f, b.c.e = true, t";
    for (size_t length = 0; length <= text.size(); length++)
        expect_as_model(text.substr(0, length));
}

TEST(Reader, AgreesWithTheModelOnEveryByteAtEveryPlace)
{
    const std::string text = "a=[1,\"s\"],b.c={d}";
    for (size_t where = 0; where < text.size() && !HasFailure(); where++)
        for (int byte = 1; byte < 256; byte++) {
            std::string changed = text;
            changed[where] = static_cast<char>(byte);
            expect_as_model(changed);
        }
}

TEST(Reader, AgreesWithTheModelOnEveryShortTokenSequence)
{
    static const char *const tokens[] = {"a", "b", "=", ".", ",", "{", "}", "[", "]", "1", "true", "\"s\""};
    constexpr size_t kinds = std::size(tokens);
    for (size_t length = 1; length <= 4; length++) {
        size_t count = 1;
        for (size_t i = 0; i < length; i++)
            count *= kinds;
        for (size_t code = 0; code < count && !HasFailure(); code++) {
            std::string text;
            for (size_t i = 0, rest = code; i < length; i++, rest /= kinds)
                text += std::string(tokens[rest % kinds]) + " ";
            expect_as_model(text);
        }
    }
}

// ---- Round trips

TEST(CorelinkText, IsReadBackIntoAnEqualTree)
{
    generator random(3);
    int readable = 0;
    for (int i = 0; i < scaled(3000) && !HasFailure(); i++) {
        const value root = random.tree(3, i % 2);
        const std::string text = corelink_of(to_tree(root).get(), 0);
        SCOPED_TRACE(text);
        if (root.children.empty()) {
            EXPECT_EQ(text, "");
        } else if (is_readable(root)) {
            readable++;
            const head_ptr again(clparse_start(text.c_str()));
            ASSERT_NE(again, nullptr);
            EXPECT_EQ(to_model(clparse_get_head(again.get())), root);
        } else {
            expect_as_model(text);
        }
    }
    EXPECT_GT(readable, scaled(1000));
}

TEST(PathsText, IsReadBackIntoAnEqualTree)
{
    generator random(4);
    int readable = 0;
    for (int i = 0; i < scaled(6000) && !HasFailure(); i++) {
        const value root = random.tree(3, i % 2);
        const std::string text = corelink_of(to_tree(root).get(), 1);
        SCOPED_TRACE(text);
        if (root.children.empty()) {
            EXPECT_EQ(text, "");
        } else if (is_readable(root) && is_readable_as_paths(root)) {
            readable++;
            const head_ptr again(clparse_start(text.c_str()));
            ASSERT_NE(again, nullptr);
            EXPECT_EQ(to_model(clparse_get_head(again.get())), root);
        } else {
            expect_as_model(text);
        }
    }
    EXPECT_GT(readable, scaled(300));
}

// ---- JSON before Python, XML before Expat

std::string in_hex(const std::string &text)
{
    std::string hex;
    for (const char c : text) {
        char two[3];
        snprintf(two, sizeof two, "%02x", static_cast<unsigned char>(c));
        hex += two;
    }
    return hex;
}

// One line per value, in the notation of json_notation.py.
std::string notation(const value &node)
{
    std::string text;
    switch (node.type) {
    case CLPARSE_TYPE_STRING:
        return "s" + in_hex(node.text);
    case CLPARSE_TYPE_NUMBER:
        return "n" + std::to_string(node.number);
    case CLPARSE_TYPE_BOOLEAN:
        return node.boolean ? "t" : "f";
    case CLPARSE_TYPE_STRUCT:
        for (const value &child : node.children)
            text += (text.empty() ? "" : ",") + in_hex(*child.tag) + ":" + notation(child);
        return "{" + text + "}";
    case CLPARSE_TYPE_ARRAY:
        for (const value &child : node.children)
            text += (text.empty() ? "" : ",") + notation(child);
        return "[" + text + "]";
    default:
        return "z";
    }
}

// What a script of this directory prints for documents on its standard input.
std::string read_by(const char *script, const std::string &documents)
{
    char input[] = "/tmp/qvlib_documents_XXXXXX";
    const int fd = mkstemp(input);
    EXPECT_NE(fd, -1);
    FILE *file = fdopen(fd, "w");
    EXPECT_EQ(fwrite(documents.data(), 1, documents.size(), file), documents.size());
    fclose(file);
    FILE *python = popen((std::string("python3 -B " TEST_SCRIPTS "/") + script + " <" + input).c_str(), "r");
    std::string seen;
    char part[4096];
    for (size_t count; (count = fread(part, 1, sizeof part, python)) > 0;)
        seen.append(part, count);
    EXPECT_EQ(pclose(python), 0);
    remove(input);
    return seen;
}

TEST(Json, IsReadByPythonAsTheSameValues)
{
    generator random(5);
    std::string documents, expected;
    for (int i = 0; i < scaled(1000); i++) {
        const value root = random.tree(4, true);
        documents += "{" + take_text(clparse_get_json(to_tree(root).get())) + "}\n";
        expected += notation(root) + "\n";
    }
    EXPECT_EQ(read_by("json_notation.py", documents), expected);
}

TEST(Xml, IsReadByExpatAsTheSameValues)
{
    generator random(6);
    std::string documents, expected;
    for (int i = 0; i < scaled(2000) && !HasFailure(); i++) {
        const value root = random.tree(4, true);
        const int pretty = i & 1;
        const char *name = i & 2 ? "status" : nullptr;
        char *out = nullptr;
        ASSERT_EQ(clparse_get_xml(to_tree(root).get(), &out, pretty, name), 0);
        documents += take_text(out) + '\0';
        expected += std::string(name ? name : "corelink") + ":" + notation(root) + "\n";
    }
    EXPECT_EQ(read_by("xml_notation.py", documents), expected);
}

} // namespace
