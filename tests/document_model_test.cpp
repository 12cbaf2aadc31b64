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
#include "models/document_reader.h"
#include "models/document_tree.h"

#include <gtest/gtest.h>

namespace
{

using namespace document_model;

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

// Whether the model reads the tree out of the text again. What can't be read back by the rules is not, by
// either.
bool is_read_back(const std::string &text, const value &root)
{
    const std::optional<value> again = model_reader(text).read();
    return again && *again == root;
}

TEST(CorelinkText, IsReadBackIntoAnEqualTree)
{
    generator random(3);
    int readable = 0, compared = 0;
    for (int i = 0; i < scaled(3000) && !HasFailure(); i++) {
        const value root = random.tree(3, i % 2);
        const std::string text = corelink_of(to_tree(root).get(), 0);
        SCOPED_TRACE(text);
        compared++;
        if (root.children.empty()) {
            EXPECT_EQ(text, "");
        } else if (is_readable(root)) {
            readable++;
            const head_ptr again(clparse_start(text.c_str()));
            ASSERT_NE(again, nullptr);
            EXPECT_EQ(to_model(clparse_get_head(again.get())), root);
        } else {
            EXPECT_FALSE(is_read_back(text, root));
            expect_as_model(text);
        }
    }
    printf("differential: %d trees through corelink text and back, %d of them readable: %d differences\n",
           compared, readable, HasFailure() ? 1 : 0);
    EXPECT_GT(readable, scaled(1000));
}

TEST(PathsText, IsReadBackIntoAnEqualTree)
{
    generator random(4);
    int readable = 0, compared = 0;
    for (int i = 0; i < scaled(6000) && !HasFailure(); i++) {
        const value root = random.tree(3, i % 2);
        const std::string text = corelink_of(to_tree(root).get(), 1);
        SCOPED_TRACE(text);
        compared++;
        if (root.children.empty()) {
            EXPECT_EQ(text, "");
        } else if (is_readable(root) && is_readable_as_paths(root)) {
            readable++;
            const head_ptr again(clparse_start(text.c_str()));
            ASSERT_NE(again, nullptr);
            EXPECT_EQ(to_model(clparse_get_head(again.get())), root);
        } else {
            EXPECT_FALSE(is_read_back(text, root));
            expect_as_model(text);
        }
    }
    printf("differential: %d trees through paths and back, %d of them readable: %d differences\n", compared,
           readable, HasFailure() ? 1 : 0);
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
    printf("differential: %d trees through clparse_get_json, read by Python's json: %d differences\n",
           scaled(1000), HasFailure() ? 1 : 0);
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
    printf("differential: %d trees through clparse_get_xml, read by Expat: %d differences\n", scaled(2000),
           HasFailure() ? 1 : 0);
}

} // namespace
