#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "failing_heap.h"
#include "tracked_session.h"

namespace
{

struct stop_head {
    void operator()(clparse_head *head) const
    {
        clparse_stop(head);
    }
};
using head_ptr = std::unique_ptr<clparse_head, stop_head>;

head_ptr read(const char *text)
{
    head_ptr head(clparse_start(text));
    EXPECT_NE(head, nullptr);
    return head;
}

head_ptr empty_tree()
{
    clparse_head *head = nullptr;
    EXPECT_EQ(clparse_init_head(&head), 0);
    return head_ptr(head);
}

using text = std::optional<std::string>;

text take(char *made)
{
    if (!made)
        return std::nullopt;
    const std::string copy = made;
    qv_memcheck_free(qv_free, made, "writer_test");
    return copy;
}

text json_of(const head_ptr &head)
{
    return take(clparse_get_json(head.get()));
}

text corelink_of(const head_ptr &head, int paths = 0)
{
    char untouched[] = "untouched";
    char *out = untouched;
    const int result = clparse_get_corelink(head.get(), &out, paths);
    EXPECT_EQ(result, out ? 0 : -1);
    return take(out);
}

text xml_of(const head_ptr &head, int pretty = 0, const char *root_name = nullptr)
{
    char untouched[] = "untouched";
    char *out = untouched;
    const int result = clparse_get_xml(head.get(), &out, pretty, root_name);
    EXPECT_EQ(result, out ? 0 : -1);
    return take(out);
}

const char prolog[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

// ---- The three forms

TEST(ClparseGetJson, WritesMembersWithoutOuterBraces)
{
    EXPECT_EQ(json_of(read("a=1,b={c=\"x\"}")), "\"a\":1,\"b\":{\"c\":\"x\"}");
    EXPECT_EQ(json_of(read("n,t=true,f=false,e=[],s={},l=[1,[2],{x}]")),
              "\"n\":null,\"t\":true,\"f\":false,\"e\":[],\"s\":{},\"l\":[1,[2],{\"x\":null}]");
    EXPECT_EQ(json_of(empty_tree()), "");
    EXPECT_EQ(json_of(read("say=\"a\\\"b\"")), "\"say\":\"a\\\"b\"");
    EXPECT_EQ(json_of(read("say=\"a\\nb\"")), "\"say\":\"a\\nb\"");
}

TEST(ClparseGetCorelink, WritesMembersWithoutOuterBraces)
{
    EXPECT_EQ(corelink_of(read("a=1,b={c=\"x\"}")), "a=1,b={c=\"x\"}");
    EXPECT_EQ(corelink_of(read("n,t=true,f=false,e=[],s={},l=[1,[2],{x}]")),
              "n,t=true,f=false,e=[],s={},l=[1,[2],{x}]");
    EXPECT_EQ(corelink_of(empty_tree()), "");
    EXPECT_EQ(corelink_of(read("say=\"a\\\"b\"")), "say=\"a\\\"b\"");
}

TEST(ClparseGetCorelink, WritesOneItemPerLeafInPathsMode)
{
    EXPECT_EQ(corelink_of(read("a=1,b.c=\"x\",e=[5,6]"), 1), "a=1,b.c=\"x\",e.0=5,e.1=6");
    EXPECT_EQ(corelink_of(read("x=1,s={},y=2"), 1), "x=1,,y=2");
    EXPECT_EQ(corelink_of(read("s={},l=[]"), 1), ",");
    EXPECT_EQ(corelink_of(read("n,s={m,p=[{c=1},[true]]}"), 1), "n,s.m,s.p.0.c=1,s.p.1.0=true");
    EXPECT_EQ(corelink_of(empty_tree(), 1), "");
}

TEST(Writers, WriteNumbersUnsigned)
{
    const head_ptr head = empty_tree();
    clparse_node *n = clparse_append_new_number_child(0, "n", clparse_get_head(head.get()));
    clparse_set_node_value_n(n, -2);
    EXPECT_EQ(json_of(head), "\"n\":18446744073709551614");
    EXPECT_EQ(corelink_of(head), "n=18446744073709551614");
    EXPECT_EQ(xml_of(head, 0, "r"), "<r><n type=\"number\">18446744073709551614</n></r>");
}

TEST(ClparseGetCorelink, LetsNullElementsCutTheTextBlindly)
{
    const head_ptr head = read("l=[1,2],e=[]");
    clparse_node *root = clparse_get_head(head.get());
    clparse_node *l = root->value.children->next, *e = l->next;
    clparse_node *two = clparse_create_number_node("t", 2);
    clparse_append_child(l, clparse_create_null_node("t"));
    clparse_append_child(l, two);
    EXPECT_EQ(corelink_of(head), "l=[1,2,2],e=[]");
    clparse_append_child(e, clparse_create_null_node("t"));
    EXPECT_EQ(corelink_of(head), "l=[1,2,2],e=]");
    EXPECT_EQ(json_of(head), "\"l\":[1,2,null,2],\"e\":[null]");
    EXPECT_EQ(corelink_of(head, 1), "l.0=1,l.1=2,l.2,l.3=2,e.0");
}

TEST(ClparseGetXml, WritesElementsWithTypes)
{
    EXPECT_EQ(xml_of(read("a=1,b={c=\"x<>&'\\\"\"},l=[true,[],{n}],f=false")),
              std::string(prolog) +
                  "<corelink><a type=\"number\">1</a><b type=\"struct\"><c "
                  "type=\"string\">x&lt;&gt;&amp;&apos;&quot;"
                  "</c></b><l type=\"array\"><li type=\"boolean\">true</li><li type=\"array\"></li><li "
                  "type=\"struct\"><n type=\"null\" /></li></l><f type=\"boolean\">false</f></corelink>");
    EXPECT_EQ(xml_of(empty_tree()), std::string(prolog) + "<corelink></corelink>");
    EXPECT_EQ(xml_of(empty_tree(), 0, "status"), "<status></status>");
}

TEST(ClparseGetXml, IndentsByTabsWhenPretty)
{
    EXPECT_EQ(xml_of(read("a=1,p=[7,8]"), 1),
              std::string(prolog) +
                  "\n<corelink>\n\t<a type=\"number\">1</a>\n\t<p type=\"array\">\n"
                  "\t\t<li type=\"number\">7</li>\n\t\t<li type=\"number\">8</li>\n\t</p>\n</corelink>");
    EXPECT_EQ(xml_of(empty_tree(), 1), std::string(prolog) + "\n<corelink>\n</corelink>");
    EXPECT_EQ(xml_of(read("s={n}"), 1, "status"),
              "<status>\n\t<s type=\"struct\">\n\t\t<n type=\"null\" />\n\t</s>\n</status>");
    EXPECT_EQ(xml_of(empty_tree(), 1, ""), "<>\n</>");
}

TEST(Writers, RefuseMissingArguments)
{
    EXPECT_EQ(clparse_get_json(nullptr), nullptr);
    char untouched[] = "untouched";
    char *out = untouched;
    EXPECT_EQ(clparse_get_corelink(nullptr, &out, 0), -1);
    EXPECT_EQ(out, nullptr);
    out = untouched;
    EXPECT_EQ(clparse_get_xml(nullptr, &out, 0, nullptr), -1);
    EXPECT_EQ(out, nullptr);
    const head_ptr head = read("a=1");
    EXPECT_EQ(clparse_get_corelink(head.get(), nullptr, 0), -1);
    EXPECT_EQ(clparse_get_xml(head.get(), nullptr, 0, nullptr), -1);
    EXPECT_EQ(clparse_build_path(nullptr), nullptr);
}

// ---- A model of the writers: recursive, appending step by step. A text that is missing can't be appended
// to.

std::vector<std::string> callbacks; // what the library or the model called

struct function_data {
    std::string name;
    clparse_node *expansion = nullptr;
    bool fresh = false; // a new number node for each expansion, deleted by the writer
};

clparse_node *expand(clparse_node *, void *priv)
{
    auto *data = static_cast<function_data *>(priv);
    callbacks.push_back("expand " + data->name);
    return data->fresh ? clparse_create_number_node("fresh", 77) : data->expansion;
}

int release(clparse_node *, void *priv)
{
    callbacks.push_back("release " + static_cast<function_data *>(priv)->name);
    return static_cast<int>(callbacks.size() % 2); // of no consequence here
}

class model_writer
{
  public:
    model_writer(bool paths, bool json) : paths_(paths), json_(json)
    {
    }

    text write(clparse_node *root)
    {
        out_ = "";
        return children(root, false) ? out_ : std::nullopt;
    }

  private:
    static std::string printed(const char *tag)
    {
        return tag ? tag : "(null)";
    }

    static text path_of(const clparse_node *node)
    {
        if (!node->parent || !node->parent->parent)
            return node->tag ? text(node->tag) : std::nullopt;
        text path = path_of(node->parent);
        if (!path)
            return path;
        if (node->parent->type != CLPARSE_TYPE_ARRAY)
            return *path + "." + printed(node->tag);
        unsigned position = 0;
        const clparse_node *sentinel = node->parent->value.children;
        for (const clparse_node *child = sentinel->next; child != sentinel && child != node;
             child = child->next)
            position++;
        return *path + "." + std::to_string(position);
    }

    bool children(clparse_node *container, bool in_array)
    {
        bool first = true;
        clparse_node *sentinel = container->value.children;
        for (clparse_node *child = sentinel->next; child != sentinel; child = child->next) {
            if (!first)
                *out_ += ",";
            first = false;
            const bool is_container = child->type == CLPARSE_TYPE_STRUCT || child->type == CLPARSE_TYPE_ARRAY;
            if (paths_ && !is_container) {
                const text path = path_of(child);
                if (!path)
                    return false;
                *out_ += *path + "=";
            } else if (!paths_ && !in_array) {
                *out_ += json_ ? "\"" + printed(child->tag) + "\":" : printed(child->tag) + "=";
            }
            if (!value(child))
                return false;
        }
        return true;
    }

    bool value(clparse_node *node)
    {
        switch (node->type) {
        case CLPARSE_TYPE_NULL:
            if (json_)
                *out_ += "null";
            else
                out_->pop_back();
            return true;
        case CLPARSE_TYPE_STRING: {
            if (!node->value.str)
                return false;
            *out_ += "\"";
            for (const char *c = node->value.str; *c; c++)
                *out_ += *c == '"' ? std::string("\\\"") : std::string(1, *c);
            *out_ += "\"";
            return true;
        }
        case CLPARSE_TYPE_NUMBER:
            *out_ += std::to_string(node->value.num);
            return true;
        case CLPARSE_TYPE_BOOLEAN:
            *out_ += node->value.boolean ? "true" : "false";
            return true;
        case CLPARSE_TYPE_STRUCT:
        case CLPARSE_TYPE_ARRAY: {
            const bool array = node->type == CLPARSE_TYPE_ARRAY;
            if (!paths_)
                *out_ += array ? "[" : "{";
            children(node, array);
            if (!paths_)
                *out_ += array ? "]" : "}";
            return true;
        }
        case CLPARSE_TYPE_FUNCTION: {
            clparse_node *made = node->value.func.expand ? expand(node, node->value.func.priv) : nullptr;
            if (made && !value(made))
                return false;
            if (node->value.func.release)
                release(node, node->value.func.priv);
            else if (made)
                clparse_delete_node(made);
            return true;
        }
        default:
            return true;
        }
    }

    const bool paths_, json_;
    text out_;
};

class model_xml
{
  public:
    text write(clparse_node *root, bool pretty, const char *name)
    {
        const std::string start = name ? "" : prolog;
        out_ = start + (pretty && !start.empty() ? "\n" : "") + "<" + (name ? name : "corelink") + ">" +
               (pretty ? "\n" : "");
        if (!children(root, pretty ? 0 : -1, false))
            return std::nullopt;
        return out_ + "</" + (name ? name : "corelink") + ">";
    }

  private:
    bool children(clparse_node *container, int depth, bool in_array)
    {
        const std::string indent = depth == -1 ? "" : std::string(static_cast<size_t>(depth) + 1, '\t');
        const std::string end = depth == -1 ? "" : "\n";
        clparse_node *sentinel = container->value.children;
        for (clparse_node *child = sentinel->next; child != sentinel; child = child->next) {
            const std::string name = in_array ? "li" : child->tag ? child->tag : "(null)";
            const auto leaf = [&](const char *type, const std::string &value) {
                out_ += indent + "<" + name + " type=\"" + type + "\">" + value + "</" + name + ">" + end;
            };
            const bool array = child->type == CLPARSE_TYPE_ARRAY;
            if (child->type == CLPARSE_TYPE_STRING) {
                if (!child->value.str)
                    return false;
                std::string value;
                for (const char *c = child->value.str; *c; c++)
                    value += *c == '<'    ? "&lt;"
                             : *c == '>'  ? "&gt;"
                             : *c == '&'  ? "&amp;"
                             : *c == '\'' ? "&apos;"
                             : *c == '"'  ? "&quot;"
                                          : std::string(1, *c);
                leaf("string", value);
            } else if (child->type == CLPARSE_TYPE_NUMBER) {
                leaf("number", std::to_string(child->value.num));
            } else if (child->type == CLPARSE_TYPE_BOOLEAN) {
                leaf("boolean", child->value.boolean ? "true" : "false");
            } else if (array || child->type == CLPARSE_TYPE_STRUCT) {
                out_ += indent + "<" + name + " type=\"" + (array ? "array" : "struct") + "\">" + end;
                if (!children(child, depth == -1 ? -1 : depth + 1, array))
                    return false;
                out_ += indent + "</" + name + ">" + end;
            } else {
                out_ += indent + "<" + name + " type=\"null\" />" + end;
            }
        }
        return true;
    }

    std::string out_;
};

// Random trees with everything that code can build.
class forest
{
  public:
    explicit forest(unsigned seed) : random_(seed)
    {
    }
    ~forest()
    {
        for (function_data &data : functions_)
            clparse_delete_node(data.expansion);
    }

    void fill(clparse_node *container, int depth)
    {
        for (unsigned more = below(5); more > 0; more--) {
            clparse_node *child = make(depth, container);
            if (below(12) == 0)
                clparse_set_node_tag(child, nullptr);
            clparse_append_child(container, child);
        }
    }

    // Gives some nodes another parent than the container that holds them: one that comes earlier, or none.
    void estrange(clparse_node *root)
    {
        std::vector<clparse_node *> containers = {root};
        for (size_t i = 0; i < containers.size(); i++) {
            clparse_node *const sentinel = containers[i]->value.children;
            const size_t earlier = containers.size();
            for (clparse_node *child = sentinel->next; child != sentinel; child = child->next) {
                if (child->type == CLPARSE_TYPE_STRUCT || child->type == CLPARSE_TYPE_ARRAY)
                    containers.push_back(child);
                if (below(6) == 0)
                    clparse_snmp_edit_fn_node(
                        child, below(5) == 0 ? nullptr : containers[below(static_cast<unsigned>(earlier))]);
            }
        }
    }

  private:
    unsigned below(unsigned count)
    {
        return static_cast<unsigned>(random_() % count);
    }

    clparse_node *make(int depth, clparse_node *owner)
    {
        static const char *const tags[] = {"a", "bb", "c1", "d"};
        static const char *const texts[] = {"", "x", "a\"b", "\"\"", "<&>'\"", "\\\"", "line\nfeed"};
        const char *tag = tags[below(4)];
        clparse_node *node = nullptr;
        switch (below(depth > 0 ? 10 : 5)) {
        case 0:
            return clparse_create_null_node(tag);
        case 1:
            return clparse_create_number_node(tag, below(2) ? below(100) : UINT64_MAX - below(100));
        case 2:
            return clparse_create_boolean_node(tag, static_cast<int>(below(3)));
        case 3:
            node = clparse_create_string_node(tag, texts[below(7)]);
            if (below(8) == 0)
                clparse_set_node_value_s(node, nullptr);
            return node;
        case 4:
            node = clparse_create_null_node(tag);
            if (below(3) == 0)
                node->type = 7 + static_cast<int>(below(3));
            return node;
        case 5:
        case 6:
            node = clparse_create_struct_node(tag);
            break;
        case 7:
        case 8:
            node = clparse_create_array_node(tag);
            break;
        default:
            return make_function(tag, depth, owner);
        }
        fill(node, depth - 1);
        return node;
    }

    clparse_node *make_function(const char *tag, int depth, clparse_node *owner)
    {
        function_data &data = functions_.emplace_back();
        data.name = std::to_string(functions_.size());
        clparse_release_fn on_release = release;
        if (below(4) == 0) {
            data.fresh = true;
            on_release = nullptr;
        } else if (below(4) != 0) {
            data.expansion = make(depth - 1, owner);
            if (below(2))
                data.expansion->parent = owner; // as the SNMP side gives it
            if (below(6) == 0)
                clparse_set_node_tag(data.expansion, nullptr);
        }
        return clparse_create_function_node(tag, below(12) ? expand : nullptr, nullptr, on_release, &data);
    }

    std::mt19937 random_;
    std::deque<function_data> functions_;
};

TEST(Writers, AgreeWithTheModelOnRandomTrees)
{
    int written = 0, failed = 0;
    for (unsigned seed = 0; seed < 6000 && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        forest trees(seed);
        const head_ptr head = empty_tree();
        clparse_node *root = clparse_get_head(head.get());
        trees.fill(root, 4);
        if (seed % 3 == 0)
            trees.estrange(root);
        for (const int form : {0, 1, 2}) {
            SCOPED_TRACE(form);
            callbacks.clear();
            const text expected = model_writer(form == 1, form == 2).write(root);
            const std::vector<std::string> expected_callbacks = callbacks;
            callbacks.clear();
            EXPECT_EQ(form == 2 ? json_of(head) : corelink_of(head, form), expected);
            EXPECT_EQ(callbacks, expected_callbacks);
            (expected ? written : failed)++;
        }
        callbacks.clear();
        EXPECT_EQ(xml_of(head, seed & 1, seed & 2 ? "r" : nullptr),
                  model_xml().write(root, seed & 1, seed & 2 ? "r" : nullptr));
        EXPECT_TRUE(callbacks.empty()); // XML does not expand
    }
    EXPECT_GT(written, 1000);
    EXPECT_GT(failed, 100);
}

// ---- Function nodes

class Functions : public testing::Test
{
  protected:
    void SetUp() override
    {
        callbacks.clear();
        root = clparse_get_head(head.get());
    }
    void TearDown() override
    {
        clparse_delete_node(data.expansion);
        clparse_delete_node(inner.expansion);
    }
    clparse_node *add(clparse_expand_fn on_expand, clparse_release_fn on_release)
    {
        clparse_node *function = clparse_create_function_node("f", on_expand, nullptr, on_release, &data);
        clparse_append_child(root, function);
        return function;
    }

    const head_ptr head = empty_tree();
    clparse_node *root = nullptr;
    function_data data{"outer"}, inner{"inner"};
};

TEST_F(Functions, AreWrittenAsTheirExpansionUnderTheirOwnTag)
{
    data.expansion = clparse_create_struct_node("other");
    clparse_append_new_number_child(1, "x", data.expansion);
    add(expand, release);
    EXPECT_EQ(json_of(head), "\"f\":{\"x\":1}");
    EXPECT_EQ(callbacks, (std::vector<std::string>{"expand outer", "release outer"}));
    EXPECT_EQ(corelink_of(head), "f={x=1}");
    EXPECT_EQ(xml_of(head, 0, "r"), "<r><f type=\"null\" /></r>");
}

TEST_F(Functions, WithoutReleaseHaveTheirExpansionDeleted)
{
    data.fresh = true;
    add(expand, nullptr);
    EXPECT_EQ(json_of(head), "\"f\":77"); // a leak would be seen
}

TEST_F(Functions, WithoutExpansionWriteNothingAndAreReleased)
{
    add(expand, release);
    EXPECT_EQ(corelink_of(head), "f=");
    EXPECT_EQ(callbacks, (std::vector<std::string>{"expand outer", "release outer"}));
    clparse_append_child(root, clparse_create_function_node("g", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(json_of(head), "\"f\":,\"g\":");
}

TEST_F(Functions, AreNotReleasedWhenTheirExpansionCannotBeWritten)
{
    data.expansion = clparse_create_string_node("s", "");
    clparse_set_node_value_s(data.expansion, nullptr);
    add(expand, release);
    EXPECT_EQ(json_of(head), std::nullopt);
    EXPECT_EQ(callbacks, std::vector<std::string>{"expand outer"});
}

TEST_F(Functions, AreReleasedInnermostFirst)
{
    inner.fresh = false;
    inner.expansion = clparse_create_null_node("n");
    data.expansion = clparse_create_function_node("g", expand, nullptr, release, &inner);
    add(expand, release);
    EXPECT_EQ(corelink_of(head), "f");
    EXPECT_EQ(callbacks,
              (std::vector<std::string>{"expand outer", "expand inner", "release inner", "release outer"}));
}

TEST_F(Functions, GiveTheLeavesOfAnExpansionTheirPathsByTheirParents)
{
    data.expansion = clparse_create_struct_node("other");
    clparse_append_child(data.expansion, clparse_create_struct_node("y"));
    clparse_append_new_number_child(1, "x", data.expansion->value.children->next);
    add(expand, release);
    EXPECT_EQ(corelink_of(head, 1), "f=y.x=1");
    data.expansion->parent = root;
    EXPECT_EQ(corelink_of(head, 1), "f=other.y.x=1");
}

// ---- Parents that do not lead back

TEST(Writers, WriteEachListAsItStandsWhateverTheParentsSay)
{
    const head_ptr head = read("a={x=1,y={z=2}},b={k=3},c=4");
    clparse_node *a = clparse_get_head(head.get())->value.children->next;
    clparse_node *x = a->value.children->next;
    clparse_node *y = x->next, *b = a->next;
    for (clparse_node *parent : {b, clparse_get_head(head.get()), static_cast<clparse_node *>(nullptr)}) {
        clparse_snmp_edit_fn_node(y, parent);
        EXPECT_EQ(json_of(head), "\"a\":{\"x\":1,\"y\":{\"z\":2}},\"b\":{\"k\":3},\"c\":4");
        EXPECT_EQ(corelink_of(head), "a={x=1,y={z=2}},b={k=3},c=4");
        EXPECT_EQ(xml_of(head, 1, "r"), "<r>\n"
                                        "\t<a type=\"struct\">\n"
                                        "\t\t<x type=\"number\">1</x>\n"
                                        "\t\t<y type=\"struct\">\n"
                                        "\t\t\t<z type=\"number\">2</z>\n"
                                        "\t\t</y>\n"
                                        "\t</a>\n"
                                        "\t<b type=\"struct\">\n"
                                        "\t\t<k type=\"number\">3</k>\n"
                                        "\t</b>\n"
                                        "\t<c type=\"number\">4</c>\n"
                                        "</r>");
        clparse_snmp_edit_fn_node(x, parent);
        EXPECT_EQ(corelink_of(head, 1), !parent       ? "x=1,z=2,b.k=3,c=4"
                                        : parent == b ? "b.x=1,b.y.z=2,b.k=3,c=4"
                                                      : "x=1,y.z=2,b.k=3,c=4");
    }
}

// A function node may stand for a part of its own tree.
TEST_F(Functions, MayExpandToWhatTheTreeHoldsElsewhere)
{
    const head_ptr tree = read("port={speed=1,stats},hidden={cur={up=true}}");
    clparse_node *port = clparse_get_head(tree.get())->value.children->next;
    data.expansion = port->next->value.children->next;
    make_function_node(
        port->value.children->prev,
        [](clparse_node *node, void *priv) {
            auto *cur = static_cast<function_data *>(priv)->expansion;
            clparse_snmp_edit_fn_node(cur, node->parent);
            return cur;
        },
        nullptr, release, &data);
    EXPECT_EQ(json_of(tree),
              "\"port\":{\"speed\":1,\"stats\":{\"up\":true}},\"hidden\":{\"cur\":{\"up\":true}}");
    EXPECT_EQ(corelink_of(tree), "port={speed=1,stats={up=true}},hidden={cur={up=true}}");
    EXPECT_EQ(corelink_of(tree, 1), "port.speed=1,port.stats=port.cur.up=true,port.cur.up=true");
    data.expansion = nullptr; // the tree's
}

// ---- Size

TEST(Writers, WriteTagsOfAnyLength)
{
    for (size_t length = 1; length < 50; length++) {
        const std::string tag(length, 't');
        const head_ptr head = read((tag + "=1").c_str());
        EXPECT_EQ(corelink_of(head), tag + "=1");
        EXPECT_EQ(corelink_of(head, 1), tag + "=1");
        EXPECT_EQ(json_of(head), "\"" + tag + "\":1");
    }
}

TEST(Writers, WriteTagsAndStringsOfAnyLengthsTogether)
{
    std::mt19937 random(3);
    for (int i = 0; i < 2000; i++) {
        const std::string tag(1 + random() % 90, 'a');
        std::string value(random() % 90, 'x'), escaped;
        if (random() % 2)
            for (char &c : value)
                c = random() % 4 ? 'x' : '"';
        for (const char c : value)
            escaped.append(c == '"' ? "\\" : "").append(1, c);
        const head_ptr head = empty_tree();
        clparse_node *root = clparse_get_head(head.get());
        clparse_node *inner = clparse_append_new_struct("s", root);
        for (clparse_node *parent : {root, inner, inner}) {
            ASSERT_EQ(clparse_append_child(parent, clparse_create_string_node(tag.c_str(), value.c_str())),
                      0);
            ASSERT_EQ(clparse_append_child(parent, clparse_create_number_node("n", random())), 0);
        }
        const auto written = [&](const std::string &quote, const std::string &sign, bool paths) {
            const auto members = [&](const clparse_node *parent, const std::string &prefix,
                                     std::string made) {
                for (const clparse_node *child = parent->value.children->next;
                     child != parent->value.children; child = child->next) {
                    if (child->type == CLPARSE_TYPE_STRUCT)
                        continue;
                    made += (made.empty() ? "" : ",") + prefix + quote + child->tag + quote + sign;
                    made += child->type == CLPARSE_TYPE_NUMBER ? std::to_string(child->value.num)
                                                               : '"' + escaped + '"';
                }
                return made;
            };
            const std::string below = members(inner, paths ? "s." : "", "");
            return members(root, "", paths ? below : quote + "s" + quote + sign + "{" + below + "}");
        };
        ASSERT_EQ(json_of(head), written("\"", ":", false));
        ASSERT_EQ(corelink_of(head), written("", "=", false));
        ASSERT_EQ(corelink_of(head, 1), written("", "=", true));
    }
}

TEST(ClparseGetXml, EscapesInAStringOfAnyLength)
{
    for (size_t length = 60; length < 70; length++) {
        const std::string plain(length, 'p');
        const head_ptr head = read(("s=\"" + plain + "<" + plain + plain + "\"").c_str());
        EXPECT_EQ(xml_of(head, 0, "r"),
                  "<r><s type=\"string\">" + plain + "&lt;" + plain + plain + "</s></r>");
    }
}

TEST(Writers, WriteManyElementsAndQuotes)
{
    std::string list = "l=[0", paths = "l.0=0";
    for (int i = 1; i < 100000; i++) {
        list += "," + std::to_string(i);
        paths += ",l." + std::to_string(i) + "=" + std::to_string(i);
    }
    EXPECT_EQ(corelink_of(read((list + "]").c_str()), 1), paths);

    const head_ptr head = empty_tree();
    const std::string quotes(5000000, '"');
    clparse_append_new_string_child(quotes.c_str(), "s", clparse_get_head(head.get()));
    EXPECT_EQ(json_of(head)->size(), quotes.size() * 2 + strlen("\"s\":\"\""));
    EXPECT_EQ(xml_of(head, 0, "r")->size(), quotes.size() * 6 + strlen("<r><s type=\"string\"></s></r>"));
}

// ---- Failures

TEST(Writers, IgnoreTheFailureOfANestedList)
{
    const head_ptr head = read("a={x=1,s=\"\",y=2},b=3,l=[\"\",4]");
    clparse_node *a = clparse_get_head(head.get())->value.children->next;
    clparse_set_node_value_s(a->value.children->next->next, nullptr);
    clparse_set_node_value_s(a->next->next->value.children->next, nullptr);
    EXPECT_EQ(json_of(head), "\"a\":{\"x\":1,\"s\":},\"b\":3,\"l\":[]");
    EXPECT_EQ(corelink_of(head), "a={x=1,s=},b=3,l=[]");
    EXPECT_EQ(corelink_of(head, 1), "a.x=1,a.s=,b=3,l.0=");
    EXPECT_EQ(xml_of(head), std::nullopt);
}

TEST(Writers, FailOnAStringWithoutValueAtTheTop)
{
    const head_ptr head = read("a=1,s=\"\"");
    clparse_set_node_value_s(clparse_get_head(head.get())->value.children->prev, nullptr);
    EXPECT_EQ(json_of(head), std::nullopt);
    EXPECT_EQ(corelink_of(head), std::nullopt);
    EXPECT_EQ(corelink_of(head, 1), std::nullopt);
    EXPECT_EQ(xml_of(head), std::nullopt);
}

// Every form with the n-th allocation failing: the text or nothing, and nothing left behind.
TEST(Writers, GiveTheTextOrNothingWhenAnAllocationFails)
{
    const head_ptr head =
        read("a=\"x\\\"y\",b={c=[1,{d=true}],e.f.g},h=\"long enough for the text to grow a few times\"");
    const std::vector<text (*)(const head_ptr &)> writers = {
        json_of, [](const head_ptr &h) { return corelink_of(h); },
        [](const head_ptr &h) { return corelink_of(h, 1); }, [](const head_ptr &h) { return xml_of(h); },
        [](const head_ptr &h) { return xml_of(h, 1, "r"); }};
    for (const auto writer : writers) {
        const text expected = writer(head);
        for (const bool all : {false, true}) {
            bool happened = true;
            for (int successes = 0; happened; successes++) {
                const failing_heap::after failure(successes, all);
                const text got = writer(head);
                happened = failure.failed();
                if (!happened || got) {
                    EXPECT_EQ(got, expected);
                }
                EXPECT_FALSE(all && happened && got);
                ASSERT_LT(successes, 1000);
            }
        }
    }
}

// ---- Tracked blocks

TEST(Writers, RecordTheirTextsUnderTheNameOfAppending)
{
    const tracked_session session;
    const head_ptr head = read("a=\"x\",b=[1]");
    struct form {
        char *(*write)(clparse_head *head);
    };
    const form forms[] = {{clparse_get_json},
                          {[](clparse_head *h) {
                              char *out = nullptr;
                              clparse_get_corelink(h, &out, 0);
                              return out;
                          }},
                          {[](clparse_head *h) {
                              char *out = nullptr;
                              clparse_get_corelink(h, &out, 1);
                              return out;
                          }},
                          {[](clparse_head *h) {
                              char *out = nullptr;
                              clparse_get_xml(h, &out, 1, nullptr);
                              return out;
                          }},
                          {[](clparse_head *h) { return clparse_get_path(h, "b"); }},
                          {[](clparse_head *h) {
                              clparse_node *b = h->root.value.children->prev;
                              return clparse_build_path(b->value.children->next);
                          }}};
    for (const form &form : forms) {
        const auto before = session.counts();
        char *out = form.write(head.get());
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(session.sizes("qv_vaasprintf"), std::vector<size_t>{strlen(out) + 1}) << out;
        qv_memcheck_free(qv_free, out, "writer_test");
        EXPECT_EQ(session.counts(), before);
    }
    EXPECT_EQ(tracked_session::faults, 0);
}

TEST(Writers, RecordAnEmptyTextUnderTheirOwnName)
{
    const tracked_session session;
    const head_ptr head = empty_tree();
    char *json = clparse_get_json(head.get());
    EXPECT_EQ(session.sizes("clparse_get_json"), std::vector<size_t>{1});
    qv_memcheck_free(qv_free, json, "writer_test");
}

// ---- Paths of nodes

TEST(ClparseBuildPath, GivesTagsAndPositions)
{
    const head_ptr head = read("t=1,s={p=[0,1,{c=[7]}]}");
    clparse_node *root = clparse_get_head(head.get());
    clparse_node *t = root->value.children->next, *p = t->next->value.children->next;
    clparse_node *third = p->value.children->prev, *c = third->value.children->next;
    EXPECT_EQ(take(clparse_build_path(t)), "t");
    EXPECT_EQ(take(clparse_build_path(root)), "head");
    EXPECT_EQ(take(clparse_build_path(p)), "s.p");
    EXPECT_EQ(take(clparse_build_path(third)), "s.p.2");
    EXPECT_EQ(take(clparse_build_path(c->value.children->next)), "s.p.2.c.0");
}

TEST(ClparseBuildPath, GivesPositionsOfAnyLength)
{
    std::string list_text = "a=[0";
    for (int i = 1; i <= 1000; i++)
        list_text += ",0";
    const head_ptr head = read((list_text + "]").c_str());
    unsigned int position = 0;
    const clparse_node *list = clparse_get_head(head.get())->value.children->next->value.children;
    for (clparse_node *child = list->next; child != list; child = child->next, position++) {
        if (position < 12 || position % 99 <= 1 || position == 1000) {
            EXPECT_EQ(take(clparse_build_path(child)), "a." + std::to_string(position));
        }
    }
    EXPECT_EQ(position, 1001u);
}

TEST(ClparseBuildPath, FailsWithoutAFirstTag)
{
    const head_ptr head = read("s={p=1}");
    clparse_node *s = clparse_get_head(head.get())->value.children->next;
    clparse_set_node_tag(s->value.children->next, nullptr);
    EXPECT_EQ(take(clparse_build_path(s->value.children->next)), "s.(null)");
    clparse_set_node_tag(s, nullptr);
    EXPECT_EQ(take(clparse_build_path(s)), std::nullopt);
    EXPECT_EQ(take(clparse_build_path(s->value.children->next)), std::nullopt);
}

TEST(ClparseBuildPath, FailsWhenAnAllocationFails)
{
    const head_ptr head = read("s={p=1}");
    for (const int successes : {0, 1}) {
        const failing_heap::after failure(successes, true);
        const clparse_node *s = clparse_get_head(head.get())->value.children->next;
        char *path = clparse_build_path(s->value.children->next);
        EXPECT_EQ(path, nullptr);
    }
}

TEST(ClparseGetPath, ListsThePathsUnderANode)
{
    const head_ptr head = read("s={a=1,b={c},l=[1,{d}]},n");
    EXPECT_EQ(take(clparse_get_path(head.get(), "s")), "s.a,s.b,s.l");
    EXPECT_EQ(take(clparse_get_path(head.get(), "0")), "0.a,0.b,0.l");
    EXPECT_EQ(take(clparse_get_path(head.get(), "s.l")), "s.l.(null),s.l.(null)");
    EXPECT_EQ(take(clparse_get_path(head.get(), "s.b.c")), "c");
    EXPECT_EQ(take(clparse_get_path(head.get(), "n")), "n");
    EXPECT_EQ(take(clparse_get_path(head.get(), "s.l.0")), "(null)");
    EXPECT_EQ(take(clparse_get_path(head.get(), "none")), "");
    EXPECT_EQ(take(clparse_get_path(head.get(), nullptr)), "");
    EXPECT_EQ(take(clparse_get_path(nullptr, "s")), "");
}

TEST(ClparseGetPath, PrintsThePathToTheDebugConsole)
{
    const tracked_session session;
    const head_ptr head = read("a");
    take(clparse_get_path(head.get(), "a"));
    EXPECT_EQ(session.last_lines(1), std::vector<std::string>{"Path: a"});
    take(clparse_get_path(head.get(), "b.c"));
    EXPECT_EQ(session.last_lines(2),
              (std::vector<std::string>{"Path: b.c", "clparse_get_node returned NULL for path : b.c"}));
}

TEST_F(Functions, AreExpandedAndReleasedByGetPath)
{
    data.expansion = clparse_create_struct_node("other");
    clparse_append_new_number_child(1, "x", data.expansion);
    clparse_append_new_number_child(2, "y", data.expansion);
    add(expand, release);
    EXPECT_EQ(take(clparse_get_path(head.get(), "f")), "f.x,f.y");
    EXPECT_EQ(callbacks, (std::vector<std::string>{"expand outer", "release outer"}));
}

TEST_F(Functions, GiveTheTagOfAScalarExpansionToGetPath)
{
    data.fresh = true;
    add(expand, nullptr);
    EXPECT_EQ(take(clparse_get_path(head.get(), "f")), "fresh");
}

// ---- cl_cat_array_element

char *tracked_text(const char *from)
{
    auto *copy = static_cast<char *>(qv_memcheck_malloc(qv_malloc, strlen(from) + 1, "writer_test", 0));
    return strcpy(copy, from);
}

TEST(ClCatArrayElement, GrowsATrackedText)
{
    char *list = tracked_text("[]");
    EXPECT_EQ(cl_cat_array_element(&list, 0, "%u", 5U), 0);
    EXPECT_STREQ(list, "[5]");
    EXPECT_EQ(cl_cat_array_element(&list, 0, "%u", 6U), 0);
    EXPECT_STREQ(list, "[5,6]");
    EXPECT_EQ(cl_cat_array_element(&list, 0, "%s", ""), 0);
    EXPECT_STREQ(list, "[5,6,]");
    take(list);
    list = tracked_text("a=[{}");
    EXPECT_EQ(cl_cat_array_element(&list, 0, "x"), -1);
    EXPECT_STREQ(list, "a=[{}");
    take(list);
    list = tracked_text("]");
    EXPECT_EQ(cl_cat_array_element(&list, 0, "x"), 0);
    EXPECT_STREQ(list, ",x]");
    take(list);
}

TEST(ClCatArrayElement, LeavesATextWithoutListUnchanged)
{
    char *list = tracked_text("x");
    EXPECT_EQ(cl_cat_array_element(&list, 0, "%u", 5U), -1);
    EXPECT_STREQ(list, "x");
    list[0] = '\0';
    EXPECT_EQ(cl_cat_array_element(&list, 0, "%u", 5U), -1);
    EXPECT_STREQ(list, "");
    take(list);
    list = nullptr;
    EXPECT_EQ(cl_cat_array_element(&list, 0, "%u", 5U), -1);
    EXPECT_EQ(cl_cat_array_element(nullptr, 0, "%u", 5U), -1);
}

TEST(ClCatArrayElement, FillsAFixedBufferWithoutTerminator)
{
    char buffer[] = "[]\0\0\0\0\0\0#";
    char *list = buffer;
    EXPECT_EQ(cl_cat_array_element(&list, 8, "%u", 12U), 0); // "[12]"
    EXPECT_STREQ(buffer, "[12]");
    buffer[5] = '!';
    EXPECT_EQ(cl_cat_array_element(&list, 8, "%u", 3U), 0);
    EXPECT_EQ(memcmp(buffer, "[12,3]", 6), 0);
    EXPECT_EQ(list, buffer);
    EXPECT_EQ(buffer[8], '#');
}

TEST(ClCatArrayElement, LeavesTheListOpenWhenTheFixedBufferIsTooSmall)
{
    char buffer[8] = "[]";
    char *list = buffer;
    EXPECT_EQ(cl_cat_array_element(&list, 8, "%s", "123456"), -1); // 1 + 6 + 2 > 8
    EXPECT_STREQ(buffer, "[");
    strcpy(buffer, "[]");
    EXPECT_EQ(cl_cat_array_element(&list, 8, "%s", "12345"), 0);
    EXPECT_STREQ(buffer, "[12345]");
    EXPECT_EQ(cl_cat_array_element(&list, 8, "1"), -1);
    EXPECT_STREQ(buffer, "[12345,");
    EXPECT_EQ(cl_cat_array_element(&list, 8, "1"), -1);
    strcpy(buffer, "[1]");
    EXPECT_EQ(cl_cat_array_element(&list, 1, "1"), -1); // shorter than the text
    EXPECT_STREQ(buffer, "[1,");
}

} // namespace
