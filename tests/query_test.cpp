#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "failing_alloc.h"
#include "guarded_bytes.h"
#include "memdebug.h"

namespace
{

using text_pairs = std::vector<std::pair<std::string, std::string>>;

clparse_node *add(clparse_node *parent, clparse_node *node)
{
    clparse_append_child(parent, node);
    return node;
}

clparse_node *untag(clparse_node *node)
{
    clparse_set_node_tag(node, nullptr);
    return node;
}

// A number a, a struct s with a boolean b and a string c, and an array p of 5 and 6.
class sample_tree : public testing::Test
{
  protected:
    sample_tree()
    {
        clparse_init_head(&head);
        a = add(&head->root, clparse_create_number_node("a", 1));
        s = add(&head->root, clparse_create_struct_node("s"));
        b = add(s, clparse_create_boolean_node("b", 1));
        c = add(s, clparse_create_string_node("c", "text"));
        p = add(&head->root, clparse_create_array_node("p"));
        five = add(p, untag(clparse_create_number_node("x", 5)));
        six = add(p, untag(clparse_create_number_node("x", 6)));
    }
    ~sample_tree() override
    {
        clparse_stop(head);
    }
    clparse_node *find(const char *path, int type = -1)
    {
        return clparse_get_tagtype(&head->root, path, type, verify_tag);
    }

    clparse_head *head = nullptr;
    clparse_node *a, *s, *b, *c, *p, *five, *six;
};

// ---- Paths
// -------------------------------------------------------------------------------------------------

using ClparseGetTagtype = sample_tree;

TEST_F(ClparseGetTagtype, FollowsTagsAndPositions)
{
    const std::pair<const char *, clparse_node *> rows[] = {{"a", a},
                                                            {"s", s},
                                                            {"s.b", b},
                                                            {"s.c", c},
                                                            {"p.0", five},
                                                            {"p.1", six},
                                                            {"s.0", b},
                                                            {"s.1", c},
                                                            {"0", a},
                                                            {"1.1", c},
                                                            {"2.01", six},
                                                            {"p.1x", six},
                                                            {"p.2", nullptr},
                                                            {"x", nullptr},
                                                            {"a.x", nullptr},
                                                            {"a.0", nullptr},
                                                            {"", nullptr},
                                                            {"s.", nullptr},
                                                            {".a", nullptr},
                                                            {"a.", nullptr},
                                                            {"s..b", nullptr},
                                                            {"s.b.", nullptr},
                                                            {"S", nullptr},
                                                            {"sb", nullptr},
                                                            {"p.4294967296", nullptr},
                                                            {"p.18446744073709551616", nullptr},
                                                            {"p.99999999999999999999999", nullptr},
                                                            {"p.-1", nullptr}};
    for (const auto &[path, node] : rows)
        EXPECT_EQ(find(path), node) << path;
}

TEST_F(ClparseGetTagtype, FindsAnEmptyTagByAnEmptySegment)
{
    clparse_node *empty = add(s, clparse_create_number_node("", 3));
    clparse_node *outer = add(&head->root, clparse_create_struct_node(""));
    clparse_node *inner = add(outer, clparse_create_number_node("i", 3));
    EXPECT_EQ(find("s."), empty);
    EXPECT_EQ(find(""), outer);
    EXPECT_EQ(find(".i"), inner);
}

int compare_plainly(const char *segment, const char *tag)
{
    return strcmp(segment, tag);
}

// Tags of all lengths around a word's, at and beside its boundaries, up to the end of a page.
TEST_F(ClparseGetTagtype, FindsTagsWhereverTheyStand)
{
    std::mt19937 random(7);
    clparse_node *x = add(&head->root, clparse_create_number_node("x", 7));
    clparse_node *y = add(&head->root, clparse_create_number_node("y", 8));
    char *const tags[] = {x->tag, y->tag};
    const auto random_tag = [&] {
        std::string tag;
        for (size_t left = random() % 20; left > 0; left--)
            tag += random() % 8 ? 'a' : 'b';
        return tag;
    };
    for (int i = 0; i < 20000 * QVLIB_TEST_PERCENT / 100; i++) {
        const std::string own = random_tag(),
                          other = random() % 2 ? own.substr(0, random() % 20) : random_tag();
        const size_t behind = random() % 9; // bytes between a tag's NUL and the end of the page
        guarded_bytes own_bytes(own.size() + 1 + behind), other_bytes(other.size() + 1 + behind);
        x->tag = static_cast<char *>(memcpy(own_bytes.text(), own.c_str(), own.size() + 1));
        y->tag = static_cast<char *>(memcpy(other_bytes.text(), other.c_str(), other.size() + 1));
        for (const std::string &path : {own, other, random_tag()})
            ASSERT_EQ(find(path.c_str()), clparse_get_tagtype(&head->root, path.c_str(), -1, compare_plainly))
                << path << " among " << own << " and " << other;
    }
    x->tag = tags[0];
    y->tag = tags[1];
}

TEST_F(ClparseGetTagtype, PassesOverNodesOfAnotherType)
{
    add(&head->root, clparse_create_number_node("d", 1));
    clparse_node *text = add(&head->root, clparse_create_string_node("d", "x"));
    add(&head->root, clparse_create_string_node("d", "y"));
    EXPECT_EQ(find("d", CLPARSE_TYPE_STRING), text);
    EXPECT_EQ(find("d", CLPARSE_TYPE_BOOLEAN), nullptr);
    EXPECT_EQ(find("p.0", CLPARSE_TYPE_STRING), nullptr);
    EXPECT_EQ(find("0", CLPARSE_TYPE_STRING), nullptr); // no later child is at this position
}

TEST_F(ClparseGetTagtype, DoesNotGoBackToALaterSiblingOfAMiddleSegment)
{
    clparse_node *second = add(&head->root, clparse_create_struct_node("s"));
    add(second, clparse_create_number_node("z", 1));
    EXPECT_EQ(find("s.z"), nullptr);
    add(&head->root, clparse_create_struct_node("a"));
    EXPECT_EQ(find("a.z"), nullptr); // the number decides
}

TEST_F(ClparseGetTagtype, GivesNullForOtherNodesAndMissingArguments)
{
    clparse_node hand_made = {};
    hand_made.type = CLPARSE_TYPE_STRUCT;
    EXPECT_EQ(clparse_get_tagtype(a, "a", -1, verify_tag), nullptr);
    EXPECT_EQ(clparse_get_tagtype(&hand_made, "a", -1, verify_tag), nullptr);
    EXPECT_EQ(clparse_get_tagtype(nullptr, "a", -1, verify_tag), nullptr);
    EXPECT_EQ(clparse_get_tagtype(&head->root, nullptr, -1, verify_tag), nullptr);
    EXPECT_EQ(clparse_get_tagtype(&head->root, "a", -1, nullptr), nullptr);
}

// ---- A caller's comparison
// ---------------------------------------------------------------------------------

text_pairs compared;

int note_and_compare(const char *segment, const char *tag)
{
    compared.emplace_back(segment, tag);
    return strcmp(segment, tag);
}

int match_any(const char *segment, const char *tag)
{
    compared.emplace_back(segment, tag);
    return 0;
}

int match_number(const char *segment, const char *tag)
{
    compared.emplace_back(segment, tag);
    return 17;
}

TEST_F(ClparseGetTagtype, GivesTheComparisonOneSegmentAndEachTagUpToTheMatch)
{
    compared.clear();
    EXPECT_EQ(clparse_get_tagtype(&head->root, "s.c", -1, note_and_compare), c);
    EXPECT_EQ(compared, (text_pairs{{"s", "a"}, {"s", "s"}, {"c", "b"}, {"c", "c"}}));
}

TEST_F(ClparseGetTagtype, DoesNotCompareUntaggedElementsAndPositions)
{
    compared.clear();
    EXPECT_EQ(clparse_get_tagtype(&head->root, "p.x", -1, match_any), nullptr); // a is the first match
    EXPECT_EQ(clparse_get_tagtype(p, "x", -1, match_any), nullptr);
    EXPECT_EQ(clparse_get_tagtype(&head->root, "2.1", -1, match_any), six);
    EXPECT_EQ(compared, (text_pairs{{"p", "a"}}));
}

TEST_F(ClparseGetTagtype, TakesZeroAloneAsAMatch)
{
    compared.clear();
    EXPECT_EQ(clparse_get_tagtype(&head->root, "a", -1, match_number), nullptr);
    EXPECT_EQ(compared.size(), 3u);
    EXPECT_EQ(clparse_get_tagtype(&head->root, "zzz", CLPARSE_TYPE_STRUCT, match_any), s);
}

TEST_F(ClparseGetTagtype, FindsNothingWhenTheSegmentCantBeCopied)
{
    failing_alloc::after failure(0);
    EXPECT_EQ(clparse_get_tagtype(p, "x", -1, note_and_compare), nullptr);
    EXPECT_FALSE(failing_alloc::failed);
    EXPECT_EQ(clparse_get_tagtype(s, "b", -1, note_and_compare), nullptr);
    EXPECT_TRUE(failing_alloc::failed);
}

// ---- Function nodes in a path
// ------------------------------------------------------------------------------

struct function {
    clparse_node *expansion;
    int expands = 0, releases = 0;
};

clparse_node *expand(clparse_node *node, void *priv)
{
    EXPECT_EQ(node->value.func.priv, priv);
    static_cast<function *>(priv)->expands++;
    return static_cast<function *>(priv)->expansion;
}

int release(clparse_node *node, void *priv)
{
    EXPECT_EQ(node->value.func.priv, priv);
    static_cast<function *>(priv)->releases++;
    return 0;
}

class PathThroughAFunction : public sample_tree
{
  protected:
    ~PathThroughAFunction() override
    {
        clparse_delete_node(expansion);
    }
    void expect_calls(int expands, int releases)
    {
        EXPECT_EQ(priv.expands, expands);
        EXPECT_EQ(priv.releases, releases);
    }
    clparse_node *expansion = clparse_create_struct_node("f");
    clparse_node *inner = add(expansion, clparse_create_number_node("i", 9));
    function priv{expansion};
    clparse_node *f = add(&head->root, clparse_create_function_node("f", expand, nullptr, release, &priv));
};

TEST_F(PathThroughAFunction, KeepsAnExpansionInWhichTheRestWasFound)
{
    EXPECT_EQ(find("f.i"), inner);
    expect_calls(1, 0);
}

TEST_F(PathThroughAFunction, ReleasesAnExpansionWithoutTheRest)
{
    clparse_node *later =
        add(add(&head->root, clparse_create_struct_node("f")), clparse_create_null_node("j"));
    EXPECT_EQ(find("f.j"), later); // the walk goes on
    expect_calls(1, 1);
    EXPECT_EQ(find("f.i", CLPARSE_TYPE_STRING), nullptr);
    expect_calls(2, 2);
}

TEST_F(PathThroughAFunction, ReleasesAnExpansionWithAnotherTagOrNone)
{
    clparse_set_node_tag(expansion, "g");
    EXPECT_EQ(find("f.i"), nullptr);
    clparse_set_node_tag(expansion, nullptr);
    EXPECT_EQ(find("f.i"), nullptr);
    expect_calls(2, 2);
}

TEST_F(PathThroughAFunction, ReleasesAnExpansionThatIsNoContainer)
{
    priv.expansion = inner;
    EXPECT_EQ(find("f.i"), nullptr);
    expect_calls(1, 1);
}

TEST_F(PathThroughAFunction, ComparesAPositionWithTheTagOfTheExpansion)
{
    EXPECT_EQ(find("3.i"), nullptr);
    expect_calls(1, 1);
    clparse_set_node_tag(expansion, "3");
    EXPECT_EQ(find("3.i"), inner);
    expect_calls(2, 1);
}

TEST_F(PathThroughAFunction, GivesTheLastSegmentUnexpanded)
{
    EXPECT_EQ(find("f"), f);
    EXPECT_EQ(find("f", CLPARSE_TYPE_STRUCT), nullptr);
    EXPECT_EQ(find("3", CLPARSE_TYPE_FUNCTION), f);
    expect_calls(0, 0);
}

TEST_F(PathThroughAFunction, FindsNothingInAFailedExpansion)
{
    priv.expansion = nullptr;
    EXPECT_EQ(find("f.i"), nullptr);
    EXPECT_EQ(priv.expands, 1);
}

TEST_F(PathThroughAFunction, WithoutCallbacksFindsNothing)
{
    f->value.func.release = nullptr;
    EXPECT_EQ(find("f.j"), nullptr);
    f->value.func.expand = nullptr;
    EXPECT_EQ(find("f.i"), nullptr);
}

TEST_F(PathThroughAFunction, ComparesTheTagOfTheExpansionAfterTheFunctionsOwn)
{
    compared.clear();
    EXPECT_EQ(clparse_get_tagtype(&head->root, "f.i", -1, note_and_compare), inner);
    EXPECT_EQ(compared, (text_pairs{{"f", "a"}, {"f", "s"}, {"f", "p"}, {"f", "f"}, {"f", "f"}, {"i", "i"}}));
}

// ---- Typed getters
// -----------------------------------------------------------------------------------------

using TypedGetters = sample_tree;

TEST_F(TypedGetters, ReadValuesByPath)
{
    uint64_t number = 0;
    EXPECT_EQ(clparse_get_number(head, &number, "a"), 0);
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(clparse_get_number(head, &number, "%s.%u", "p", 1u), 0);
    EXPECT_EQ(number, 6u);
    unsigned char boolean = 0;
    EXPECT_EQ(clparse_get_bool(head, &boolean, "s.%d", 0), 0);
    EXPECT_EQ(boolean, 1);
    EXPECT_EQ(clparse_get_type(head, "%s", "s"), 4);
    EXPECT_EQ(clparse_get_type(head, "a"), 2);
    const char *tag = nullptr;
    EXPECT_EQ(clparse_get_tag(head, &tag, "s.1"), 0);
    EXPECT_EQ(tag, c->tag);
    char *text = nullptr;
    EXPECT_EQ(clparse_get_string(head, &text, "s.c"), 0);
    EXPECT_STREQ(text, "text");
    EXPECT_NE(text, c->value.str);
    qv_memcheck_free(qv_free, text, "query_test");
    EXPECT_EQ(clparse_get_string(head, nullptr, "s.c"), 0);
}

TEST_F(TypedGetters, LeaveOutUntouchedOnFailureButForStrings)
{
    for (clparse_head *of : {head, static_cast<clparse_head *>(nullptr)}) {
        uint64_t number = 77;
        EXPECT_EQ(clparse_get_number(of, &number, "s.0"), -1);
        EXPECT_EQ(number, 77u);
        unsigned char boolean = 77;
        EXPECT_EQ(clparse_get_bool(of, &boolean, "a.x"), -1);
        EXPECT_EQ(boolean, 77);
        EXPECT_EQ(clparse_get_type(of, "nothing"), -1);
        const char *tag = "kept";
        EXPECT_EQ(clparse_get_tag(of, &tag, "nothing"), -1);
        EXPECT_STREQ(tag, "kept");
        char *text = reinterpret_cast<char *>(this);
        EXPECT_EQ(clparse_get_string(of, &text, "a"), -1);
        EXPECT_EQ(text, nullptr);
        EXPECT_EQ(clparse_get_string(of, nullptr, "a"), -1);
    }
}

TEST_F(TypedGetters, FindTheFirstMemberOfTheirType)
{
    add(&head->root, clparse_create_number_node("d", 3));
    add(&head->root, clparse_create_string_node("d", "first"));
    add(&head->root, clparse_create_string_node("d", "second"));
    char *text = nullptr;
    EXPECT_EQ(clparse_get_string(head, &text, "d"), 0);
    EXPECT_STREQ(text, "first");
    qv_free(text);
}

TEST_F(TypedGetters, TakeNullInsteadOfAResult)
{
    EXPECT_EQ(clparse_get_number(head, nullptr, "a"), -1);
    EXPECT_EQ(clparse_get_bool(head, nullptr, "s.b"), -1);
    EXPECT_EQ(clparse_get_tag(head, nullptr, "a"), -1);
    EXPECT_EQ(clparse_get_type(head, static_cast<const char *>(nullptr)), -1);
    EXPECT_EQ(clparse_get_string(head, nullptr, static_cast<const char *>(nullptr)), -1);
}

TEST_F(TypedGetters, FailWhenThePathCantBeAllocated)
{
    uint64_t number = 77;
    unsigned char boolean = 77;
    const char *tag = "kept";
    char *text = nullptr;
    const auto failing = [](auto call) {
        failing_alloc::after failure(0);
        EXPECT_EQ(call(), -1);
        EXPECT_TRUE(failing_alloc::failed);
    };
    failing([&] { return clparse_get_number(head, &number, "a"); });
    failing([&] { return clparse_get_bool(head, &boolean, "s.b"); });
    failing([&] { return clparse_get_type(head, "a"); });
    failing([&] { return clparse_get_tag(head, &tag, "a"); });
    failing([&] { return clparse_get_string(head, &text, "s.c"); });
    failing_alloc::after copy_fails(1);
    EXPECT_EQ(clparse_get_string(head, &text, "s.c"), -1);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(number, 77u);
    EXPECT_EQ(boolean, 77);
    EXPECT_STREQ(tag, "kept");
}

TEST_F(TypedGetters, FreeThePathAndGiveTheStringToTheCaller)
{
    failing_alloc::live_blocks blocks;
    const std::string long_path(5000, 'x');
    uint64_t number;
    clparse_get_number(head, &number, "a");
    clparse_get_number(head, &number, "%s", long_path.c_str());
    clparse_get_type(head, "s");
    EXPECT_EQ(blocks.count(), 0u);
    char *text = nullptr;
    clparse_get_string(head, &text, "s.c");
    EXPECT_EQ(blocks.count(), 1u);
    qv_free(text);
}

// The number of tracked blocks that a session counted one after the other, as its console shows them.
TEST_F(TypedGetters, TrackThePath)
{
    FILE *console = tmpfile();
    ASSERT_NE(console, nullptr);
    ASSERT_NE(qv::open_session(nullptr, fileno(console), [](int) { ADD_FAILURE(); }), nullptr);
    uint64_t number = 0;
    EXPECT_EQ(clparse_get_number(head, &number, "a"), 0);
    qv::close_session();
    std::string shown(4096, '\0');
    const ssize_t length = pread(fileno(console), shown.data(), shown.size(), 0);
    fclose(console);
    shown.resize(length > 0 ? static_cast<size_t>(length) : 0);
    EXPECT_NE(shown.find("Total Allocations: 00001"), std::string::npos);
    EXPECT_GT(shown.rfind("Total Allocations: 00000"), shown.find("Total Allocations: 00001"));
}

TEST_F(TypedGetters, GetANodeOfAnyTypeByClparseGetNode)
{
    EXPECT_EQ(clparse_get_node(head, "s"), s);
    EXPECT_EQ(__clparse_get_node(head, "s.b", verify_tag), b);
    EXPECT_EQ(__clparse_get_node(nullptr, "s.b", verify_tag), nullptr);
    EXPECT_EQ(__clparse_get_node(head, nullptr, verify_tag), nullptr);
}

TEST(VerifyTag, ComparesAsStrcmp)
{
    EXPECT_EQ(verify_tag("a", "a"), 0);
    EXPECT_LT(verify_tag("a", "b"), 0);
    EXPECT_GT(verify_tag("b", "a"), 0);
    EXPECT_NE(verify_tag("a", "ab"), 0);
}

TEST(VerifyTag, MatchesNothingWithNull)
{
    EXPECT_NE(verify_tag(nullptr, "a"), 0);
    EXPECT_NE(verify_tag("a", nullptr), 0);
    EXPECT_NE(verify_tag(nullptr, nullptr), 0);
}

} // namespace
