// Nodes and trees: making, changing, querying, merging, writing, editing for SNMP.

#include "scenario.h"

#include <cstring>

using namespace allocations;

namespace
{

// A tree that is there, whatever fails.
class tree
{
  public:
    explicit tree(const std::string &text) : head_(clparse_start(text.c_str()))
    {
    }
    ~tree()
    {
        CALL(clparse_stop, head_);
    }
    tree(const tree &) = delete;
    tree &operator=(const tree &) = delete;

    operator clparse_head *() const
    {
        return head_;
    }
    clparse_node *root() const
    {
        return clparse_get_head(head_);
    }
    clparse_node *node(const char *path) const
    {
        return __clparse_get_node(head_, path, verify_tag);
    }
    // What it holds, read without failures.
    std::string json() const
    {
        char *text = clparse_get_json(head_);
        const std::string json = text ? text : "";
        if (text)
            qv_memcheck_free(qv_free, text, "scenario");
        return json;
    }

  private:
    clparse_head *head_;
};

std::string members(const char *prefix, int count, const std::string &value)
{
    std::string text;
    for (int i = 0; i < count; i++)
        text += (i > 0 ? "," : "") + std::string(prefix) + std::to_string(i) + "=" + value;
    return text;
}

void delete_node(clparse_node *node)
{
    if (node) {
        EXPECT_EQ(CALL(clparse_delete_node, node), 0);
    } else {
        EXPECT_TRUE(failed());
    }
}

} // namespace

// ---- Making and changing nodes

SCENARIO(create_nodes)
{
    delete_node(CALL(clparse_create_null_node, "tag"));
    delete_node(CALL(clparse_create_number_node, "tag", 5));
    delete_node(CALL(clparse_create_boolean_node, "tag", 1));
    delete_node(CALL(clparse_create_string_node, "tag", "value"));
    delete_node(CALL(clparse_create_struct_node, "tag"));
    delete_node(CALL(clparse_create_array_node, "tag"));
    clparse_node *function = CALL(clparse_create_function_node, "tag", nullptr, nullptr, nullptr, &function);
    if (function) {
        EXPECT_EQ(CALL(clparse_get_func_priv, function), &function);
    }
    delete_node(function);
}

SCENARIO(make_empty_tree)
{
    clparse_head *head = nullptr;
    if (CALL(clparse_init_head, &head) == 0) {
        EXPECT_EQ(CALL(clparse_get_node_type, CALL(clparse_get_head, head)), CLPARSE_TYPE_STRUCT);
    } else {
        EXPECT_TRUE(failed());
        EXPECT_EQ(head, nullptr);
    }
    CALL(clparse_stop, head);
}

SCENARIO(append_new_children)
{
    const tree head("s={},a=1");
    clparse_node *const s = head.node("s");
    std::string expected;
    const auto check = [&](const clparse_node *made, const char *json) {
        EXPECT_TRUE(made || failed());
        if (made)
            expected += (expected.empty() ? "" : ",") + std::string(json);
        EXPECT_EQ(head.json(), "\"s\":{" + expected + "},\"a\":1");
    };
    check(CALL(clparse_append_new_struct, "one", s), "\"one\":{}");
    check(CALL(clparse_append_new_array, head, "two", s), "\"two\":[]");
    check(CALL(clparse_append_new_number_child, 3, "three", s), "\"three\":3");
    check(CALL(clparse_append_new_string_child, "4", "four", s), "\"four\":\"4\"");
    // Present already, and refused: nothing is left behind by either.
    EXPECT_EQ(CALL(clparse_append_new_struct, "s", head.root()), s);
    EXPECT_EQ(CALL(clparse_append_new_number_child, 3, "b", head.node("a")), nullptr);
}

SCENARIO(link_nodes)
{
    const tree head("s={x=1,y=2},l=[1,2]");
    clparse_node *first = CALL(clparse_get_child, head.node("l"));
    EXPECT_EQ(CALL(clparse_get_node_value_n, first), 1U);
    EXPECT_EQ(CALL(clparse_get_parent, first), head.node("l"));
    EXPECT_EQ(CALL(clparse_append_child, head.node("l"), first), 0);
    EXPECT_EQ(CALL(clparse_remove_child, first), 0);
    EXPECT_EQ(CALL(clparse_add_child_after, first, head.node("s.x")), 0);
    EXPECT_EQ(CALL(clparse_get_node_tag, first), nullptr);
    EXPECT_EQ(head.json(), "\"s\":{\"(null)\":1,\"y\":2},\"l\":[2]");
}

SCENARIO(drop_nodes)
{
    may_stay("the sentinels of the containers that are dropped");
    const tree head("s={t={}},a=1");
    EXPECT_EQ(CALL(clparse_drop, head, head.node("s.t")), 0);
    EXPECT_EQ(head.json(), "\"a\":1");
}

// A text that could not be copied is NULL, and the result 0.
SCENARIO(set_values)
{
    const tree head("s=\"text\",n=1,b=true");
    clparse_node *const s = head.node("s");
    EXPECT_EQ(CALL(clparse_set_node_value_s, s, "other"), 0);
    expect_text(CALL(clparse_get_node_value_s, s), "other");
    EXPECT_EQ(CALL(clparse_set_node_tag, s, "tag"), 0);
    expect_text(CALL(clparse_get_node_tag, s), "tag");
    EXPECT_EQ(CALL(clparse_set_node_value_n, head.node("n"), -1), 0);
    EXPECT_EQ(CALL(clparse_set_node_value_b, head.node("b"), 0), 0);
    EXPECT_EQ(CALL(clparse_get_node_value_b, head.node("b")), 0);
    EXPECT_EQ(clparse_set_node_tag(s, "tag"), 0);
    EXPECT_EQ(clparse_set_node_value_s(s, "other"), 0);
    EXPECT_EQ(head.json(), "\"tag\":\"other\",\"n\":18446744073709551615,\"b\":false");
}

// ---- Queries

SCENARIO(query_values)
{
    const tree head("port=[{speed=4},{speed=8,name=\"left\",up=true}]");
    uint64_t number = 77;
    if (CALL(clparse_get_number, head, &number, "port.%u.speed", 1U) == 0) {
        EXPECT_EQ(number, 8U);
    } else {
        EXPECT_TRUE(failed());
        EXPECT_EQ(number, 77U);
    }
    unsigned char boolean = 7;
    if (CALL(clparse_get_bool, head, &boolean, "port.%d.%s", 1, "up") == 0) {
        EXPECT_EQ(boolean, 1);
    } else {
        EXPECT_TRUE(failed());
        EXPECT_EQ(boolean, 7);
    }
    char untouched = 0;
    char *string = &untouched;
    if (CALL(clparse_get_string, head, &string, "port.1.name") != 0) {
        EXPECT_EQ(string, nullptr);
    }
    expect_text(string, "left");
    release(string);
    const char *tag = nullptr;
    if (CALL(clparse_get_tag, head, &tag, "port.0.0") != 0) {
        EXPECT_EQ(tag, nullptr);
    }
    expect_text(tag, "speed");
    const int type = CALL(clparse_get_type, head, "port");
    EXPECT_TRUE(type == CLPARSE_TYPE_ARRAY || (type == -1 && failed()));
}

// A comparison of the caller's gets copies of the segments.
SCENARIO(query_nodes)
{
    const tree head("port=[{speed=4},{speed=8}]");
    const auto compare = [](const char *segment, const char *tag) { return strcmp(segment, tag); };
    const clparse_node *wanted = head.node("port.1.speed");
    EXPECT_EQ(CALL(__clparse_get_node, head, "port.1.speed", verify_tag), wanted);
    const clparse_node *found =
        CALL(clparse_get_tagtype, head.root(), "port.1.speed", CLPARSE_TYPE_NUMBER, compare);
    EXPECT_TRUE(found == wanted || (!found && failed()));
    found = CALL(__clparse_get_node, head, "port.1.speed", compare);
    EXPECT_TRUE(found == wanted || (!found && failed()));
    EXPECT_EQ(CALL(verify_tag, "a", "a"), 0);
}

// ---- Merges

SCENARIO(update_tree)
{
    const tree target("s=\"old\",n=1,d={x=\"y\"}");
    const tree source("d={x=\"new\"},s=\"changed\",n=5");
    const int result = CALL(clparse_update, target, source);
    EXPECT_TRUE(result == 0 || failed());
    if (!failed()) {
        EXPECT_EQ(target.json(), "\"s\":\"changed\",\"n\":5,\"d\":{\"x\":\"new\"}");
    }
    // A text that could not be copied is NULL, and the merge goes on; it can be set again.
    EXPECT_EQ(clparse_update(target, source), 0);
    EXPECT_EQ(target.json(), "\"s\":\"changed\",\"n\":5,\"d\":{\"x\":\"new\"}");
}

SCENARIO(select_from_tree)
{
    const tree query("a,d={x}");
    const tree data("a=\"value\",b=2,d={x=\"deep\",y=1}");
    EXPECT_TRUE(CALL(clparse_select, query, data) == 0 || failed());
    if (!failed()) {
        EXPECT_EQ(query.json(), "\"a\":\"value\",\"d\":{\"x\":\"deep\"}");
    }
    EXPECT_EQ(clparse_select(query, data), 0);
    EXPECT_EQ(query.json(), "\"a\":\"value\",\"d\":{\"x\":\"deep\"}");
}

// So many that both trees are indexed, or walked where memory is short for that.
SCENARIO(insert_tree)
{
    const tree target(members("m", 60, "1"));
    const tree source("m59=2,m3=3,new={a=\"text\",l=[1,\"x\"]},more=true," + members("m", 50, "5") + "," +
                      members("n", 10, "5"));
    const int result = CALL(clparse_insert, target, source);
    if (result != 0) {
        EXPECT_TRUE(failed());
        may_stay("children that were copied into a container whose copy failed");
        EXPECT_EQ(clparse_insert(target, source), 0); // the rest
    }
    uint64_t number = 0;
    EXPECT_EQ(clparse_get_number(target, &number, "n9"), 0);
    EXPECT_EQ(clparse_get_number(target, &number, "m59"), 0);
    EXPECT_EQ(number, 2U);
    EXPECT_EQ(clparse_get_type(target, "new.l.1"), CLPARSE_TYPE_STRING);
    EXPECT_EQ(clparse_get_node_value_n(target.node("new.l.0")), 1U);
    // Each member stands there once.
    int count = 0;
    const clparse_node *sentinel = target.root()->value.children;
    for (const clparse_node *child = sentinel->next; child != sentinel; child = child->next)
        count++;
    EXPECT_EQ(count, 72);
}

// Sorted once at the end, by an array for which memory may be short.
SCENARIO(insert_sorted)
{
    const tree target(members("p", 30, "1"));
    std::string added;
    for (int i = 79; i >= 30; i--)
        added += (added.empty() ? "p" : ",p") + std::to_string(i) + "=2";
    const tree source(added + ",p200={p3=1,p1=1}");
    if (CALL(clparse_insert_sort, target, source) != 0) {
        EXPECT_TRUE(failed());
        may_stay("children that were copied into a container whose copy failed");
        EXPECT_EQ(clparse_insert_sort(target, source), 0);
    }
    std::string expected =
        members("p", 30, "1") + "," + members("p", 80, "2").substr(members("p", 30, "2").size() + 1);
    char *text = nullptr;
    EXPECT_EQ(clparse_get_corelink(target, &text, 0), 0);
    EXPECT_EQ(std::string(text), expected + ",p200={p1=1,p3=1}");
    qv_memcheck_free(qv_free, text, "scenario");
}

namespace
{

int insert_copy(clparse_node *container, clparse_node *source)
{
    clparse_node *copy = clparse_create_string_node(clparse_get_node_tag(source), "inserted");
    return copy ? clparse_append_child(container, copy) : -1;
}

clparse_node *expand_to_struct(clparse_node *node, void *)
{
    clparse_node *made = clparse_create_struct_node(node->tag);
    if (made && !clparse_append_new_string_child("expanded", "x", made)) {
        clparse_delete_node(made);
        return nullptr;
    }
    return made;
}

clparse_node *last_expansion;

clparse_node *expand_and_keep(clparse_node *node, void *)
{
    return last_expansion = expand_to_struct(node, nullptr);
}

int release_last(clparse_node *, void *)
{
    if (last_expansion)
        clparse_delete_node(last_expansion);
    last_expansion = nullptr;
    return 0;
}

// Replaces a node by a function node.
void make_function(const tree &head, const char *path, clparse_expand_fn expand, clparse_release_fn release)
{
    EXPECT_EQ(make_function_node(head.node(path), expand, nullptr, release, nullptr), 0);
}

} // namespace

SCENARIO(search_with_own_actions)
{
    const tree target("a=\"one\",f,d={x=\"y\"}");
    const tree source("a=\"two\",f={x=\"z\"},d={x=\"w\",new=1},g,h=\"i\"");
    make_function(target, "f", expand_and_keep, release_last);
    make_function(source, "g", expand_to_struct, nullptr);
    const int result =
        CALL(clparse_search_tree, target.root(), source.root(), clparse_dfl_found_action, insert_copy);
    if (result != 0) {
        EXPECT_TRUE(failed());
        may_stay("the expansions in which a search failed");
        release_last(nullptr, nullptr);
    }
    EXPECT_EQ(clparse_search_tree(target.root(), source.root(), clparse_dfl_found_action, insert_copy), 0);
    EXPECT_EQ(clparse_get_type(target, "h"), CLPARSE_TYPE_STRING);
}

SCENARIO(default_found_action)
{
    const tree target("a=1");
    const tree source("a=\"text\"");
    EXPECT_EQ(CALL(clparse_dfl_found_action, target.node("a"), source.node("a")), 0);
    expect_text(clparse_get_node_value_s(target.node("a")), "text");
}

// ---- Writers

namespace
{

constexpr char all_kinds[] = "s=\"x\\\"y<&\",n=5,b=false,e,d={l=[1,{z=2},[]],x={}}";

void expect_result(int result, char *const &text)
{
    EXPECT_EQ(result, text ? 0 : -1);
}

// A text that could not grow is lost under a session, which knows its block no more.
void lose_text()
{
    if (failed() && tracked())
        may_stay("the text of a writer that failed");
}

// Long enough to grow a few times.
std::string long_text()
{
    return "t=\"" + std::string(3000, 'q') + "\"," + all_kinds;
}

} // namespace

SCENARIO(write_json)
{
    const tree head(long_text());
    char *text = CALL(clparse_get_json, head);
    expect_text(text, "\"t\":\"" + std::string(3000, 'q') +
                          R"(","s":"x\"y<&","n":5,"b":false,"e":null,"d":{"l":[1,{"z":2},[]],"x":{}})");
    release(text);
    lose_text();
}

SCENARIO(write_corelink)
{
    const tree head(long_text());
    char *text = nullptr;
    expect_result(CALL(clparse_get_corelink, head, &text, 0), text);
    expect_text(text,
                "t=\"" + std::string(3000, 'q') + R"(",s="x\"y<&",n=5,b=false,e,d={l=[1,{z=2},[]],x={}})");
    release(text);
    lose_text();
}

// A list of paths within a container for which memory is short ends there, and the rest is written.
SCENARIO(write_paths)
{
    std::string nested = "1", path = "a";
    for (int i = 0; i < 70; i++) {
        nested = "{b=" + nested + ",c=2}";
        path += ".b";
    }
    const tree head("n=5,a=" + nested + ",l=[1,{x=3}]");
    char *text = nullptr;
    expect_result(CALL(clparse_get_corelink, head, &text, 1), text);
    if (text) {
        const std::string written = text;
        EXPECT_EQ(written.rfind("n=5,", 0), 0U);
        if (!failed()) {
            EXPECT_NE(written.find("," + path + "=1,"), std::string::npos);
            EXPECT_NE(written.find(",l.0=1,l.1.x=3"), std::string::npos);
        }
    } else {
        EXPECT_TRUE(failed());
    }
    release(text);
    lose_text();
}

SCENARIO(write_xml)
{
    const tree head(all_kinds);
    char *text = nullptr;
    expect_result(CALL(clparse_get_xml, head, &text, 1, nullptr), text);
    if (text) {
        EXPECT_NE(strstr(text, "\n\t<s type=\"string\">x&quot;y&lt;&amp;</s>\n"), nullptr);
    } else {
        EXPECT_TRUE(failed());
    }
    release(text);
    expect_result(CALL(clparse_get_xml, head, &text, 0, "root"), text);
    expect_text(
        text,
        R"(<root><s type="string">x&quot;y&lt;&amp;</s><n type="number">5</n><b type="boolean">false</b>)"
        R"(<e type="null" /><d type="struct"><l type="array"><li type="number">1</li><li type="struct">)"
        R"(<z type="number">2</z></li><li type="array"></li></l><x type="struct"></x></d></root>)");
    release(text);
    lose_text();
}

// A failed writing leaves the expansion that it was in.
SCENARIO(write_function_nodes)
{
    const tree head("f,l=[1]");
    make_function(head, "f", expand_to_struct, nullptr);
    const tree kept("f");
    make_function(kept, "f", expand_and_keep, release_last);
    char *text = CALL(clparse_get_json, head);
    if (text) {
        EXPECT_TRUE(std::string(text) == "\"f\":{\"x\":\"expanded\"},\"l\":[1]" || failed());
    } else {
        EXPECT_TRUE(failed());
    }
    release(text);
    text = CALL(clparse_get_json, kept);
    EXPECT_TRUE(text || failed());
    release(text);
    release_last(nullptr, nullptr);
    if (failed())
        may_stay("an expansion that could not be written");
}

SCENARIO(build_paths)
{
    const tree head("s={p=[1,2,{x=3}]},top=1");
    char *path = CALL(clparse_build_path, head.node("s.p.2.x"));
    expect_text(path, "s.p.2.x");
    release(path);
    path = CALL(clparse_build_path, head.node("top"));
    expect_text(path, "top");
    release(path);
    char *list = CALL(clparse_get_path, head, "s.p.2");
    expect_text(list, "s.p.2.x");
    release(list);
    list = CALL(clparse_get_path, head, "nowhere");
    expect_text(list, "");
    release(list);
    lose_text();
}

SCENARIO(get_path_of_function_node)
{
    const tree head("f");
    make_function(head, "f", expand_to_struct, nullptr);
    char *list = CALL(clparse_get_path, head, "f");
    if (list) {
        EXPECT_TRUE(std::string(list) == "f.x" || failed());
    } else {
        EXPECT_TRUE(failed());
    }
    release(list);
    lose_text();
}

// ---- Editing for SNMP

SCENARIO(replace_nodes)
{
    const tree head("d={a=1,b=2,c=3}");
    const auto *made = CALL(make_struct_node, head.node("d.a"), "a");
    EXPECT_EQ(clparse_get_node_type(head.node("d.a")), made ? CLPARSE_TYPE_STRUCT : CLPARSE_TYPE_NUMBER);
    EXPECT_TRUE(made || failed());
    int result = CALL(make_string_node, head.node("d.b"), "b", "text");
    EXPECT_EQ(clparse_get_node_type(head.node("d.b")),
              result == 0 ? CLPARSE_TYPE_STRING : CLPARSE_TYPE_NUMBER);
    EXPECT_TRUE(result == 0 || failed());
    result = CALL(make_function_node, head.node("d.c"), expand_to_struct, nullptr, nullptr, nullptr);
    EXPECT_EQ(clparse_get_node_type(head.node("d.c")),
              result == 0 ? CLPARSE_TYPE_FUNCTION : CLPARSE_TYPE_NUMBER);
    EXPECT_TRUE(result == 0 || failed());
}

SCENARIO(select_for_snmp)
{
    const tree target("o={_1abc=\"old\",_1abd=1}");
    const tree source("o={x1abd=\"new\",x1abc=\"value\"}");
    const int result = CALL(clparse_select_snmp, target, source);
    EXPECT_TRUE(result == 0 || failed());
    EXPECT_EQ(clparse_select_snmp(target, source), 0);
    EXPECT_EQ(target.json(), R"("o":{"x1abc":"value","x1abd":"new"})");
    EXPECT_EQ(CALL(check_tag_snmp, "1abc", "2abc"), 0);
}

SCENARIO(step_to_next_leaf)
{
    const tree head("o={t={_a=1,_b=2},_l={_x=3}}");
    char *path = CALL(build_path_next_leaf, head.node("o.t._a"));
    expect_text(path, "o.t._b");
    release(path);
    path = CALL(build_path_next_leaf, head.node("o.t._b"));
    expect_text(path, "o._l._x");
    release(path);
    clparse_node *node = clparse_create_number_node("n", 1);
    CALL(clparse_snmp_edit_fn_node, node, head.node("o"));
    EXPECT_EQ(node->parent, head.node("o"));
    clparse_delete_node(node);
    lose_text();
}
