#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <qvlib/corelink.h>
#include <qvlib/log.h>
#include <qvlib/memcheck.h>

#include "failing_alloc.h"

namespace
{

using texts = std::vector<std::string>;

std::string taken(char *text)
{
    if (text == nullptr)
        return "(null)";
    std::string copy = text;
    qv_memcheck_free(qv_free, text, "test");
    return copy;
}

std::string next_leaf(clparse_node *node)
{
    return taken(build_path_next_leaf(node));
}

class SnmpTree : public testing::Test
{
  protected:
    void SetUp() override
    {
        qv_log_init("snmp_test", 7, 0x20, 0, 0);
        ASSERT_EQ(clparse_init_head(&head), 0);
    }

    void TearDown() override
    {
        clparse_stop(head);
        qv_log_exit();
    }

    void read(const char *text)
    {
        clparse_stop(head);
        head = clparse_start(text);
        ASSERT_NE(head, nullptr);
    }

    clparse_node *at(const std::string &path) const
    {
        return __clparse_get_node(head, path.c_str(), verify_tag);
    }

    std::string written() const
    {
        char *text = nullptr;
        EXPECT_EQ(clparse_get_corelink(head, &text, 0), 0);
        return taken(text);
    }

    // What was logged, without time and level.
    template <typename Work> static std::string logged(Work work)
    {
        testing::internal::CaptureStderr();
        work();
        const std::string text = testing::internal::GetCapturedStderr();
        const size_t level = text.find("ERROR: ");
        return level == std::string::npos ? text : text.substr(level + 7, text.find('\r') - level - 7);
    }

    clparse_head *head = nullptr;
};

// ---- Making nodes

TEST_F(SnmpTree, PutsAStructInPlaceOfANode)
{
    read("s={a=1,b={x=1,y=2},c=3}");
    clparse_node *made = make_struct_node(at("s.b"), "1b");
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->type, CLPARSE_TYPE_STRUCT);
    EXPECT_EQ(made->parent, at("s"));
    EXPECT_EQ(at("s.1"), made);
    EXPECT_EQ(written(), "s={a=1,1b={},c=3}");
}

TEST_F(SnmpTree, PutsAStringInPlaceOfANode)
{
    read("s={a=1,b=2}");
    EXPECT_EQ(make_string_node(at("s.a"), "1a", "text"), 0);
    EXPECT_EQ(written(), "s={1a=\"text\",b=2}");
}

clparse_node *expand_to_priv(clparse_node *, void *priv)
{
    return static_cast<clparse_node *>(priv);
}

int apply_nothing(clparse_node *, clparse_node *, void *)
{
    return 0;
}

int release_nothing(clparse_node *, void *)
{
    return 0;
}

TEST_F(SnmpTree, PutsAFunctionNodeWithTheOldTagInPlaceOfANode)
{
    read("s={a=1,x=2,c=3}");
    int priv = 0;
    EXPECT_EQ(make_function_node(at("s.x"), expand_to_priv, apply_nothing, release_nothing, &priv), 0);
    const clparse_node *made = at("s.x");
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->type, CLPARSE_TYPE_FUNCTION);
    EXPECT_EQ(made->value.func.expand, expand_to_priv);
    EXPECT_EQ(made->value.func.apply, apply_nothing);
    EXPECT_EQ(made->value.func.release, release_nothing);
    EXPECT_EQ(made->value.func.priv, &priv);
    EXPECT_EQ(made->parent, at("s"));
    EXPECT_EQ(at("s.1"), made);
    EXPECT_STREQ(at("s.2")->tag, "c");
}

TEST_F(SnmpTree, MayReuseTheTagOfTheNodeThatIsReplaced)
{
    read("s={a=1}");
    clparse_node *node = at("s.a");
    clparse_node *made = make_struct_node(node, node->tag);
    ASSERT_NE(made, nullptr);
    EXPECT_STREQ(made->tag, "a");
}

TEST_F(SnmpTree, LogsAFailedCreationAndLeavesTheNode)
{
    read("s={a=1}");
    clparse_node *node = at("s.a");
    EXPECT_EQ(logged([&] { EXPECT_EQ(make_struct_node(node, nullptr), nullptr); }),
              "make_struct_node: SNMP, failed to create structure node");
    EXPECT_EQ(logged([&] { EXPECT_EQ(make_string_node(node, nullptr, "x"), -1); }),
              "make_string_node: SNMP, failed to create string node");
    EXPECT_EQ(logged([&] { EXPECT_EQ(make_string_node(node, "a", nullptr), -1); }),
              "make_string_node: SNMP, failed to create string node");
    EXPECT_EQ(logged([] { EXPECT_EQ(make_function_node(nullptr, nullptr, nullptr, nullptr, nullptr), -1); }),
              "make_function_node: SNMP, failed to create function node");
    EXPECT_EQ(written(), "s={a=1}");
}

TEST_F(SnmpTree, CannotMakeAFunctionNodeOfAnElementWithoutATag)
{
    read("p=[5,6]");
    EXPECT_EQ(logged([&] {
                  EXPECT_EQ(make_function_node(at("p.0"), expand_to_priv, nullptr, nullptr, nullptr), -1);
              }),
              "make_function_node: SNMP, failed to create function node");
    EXPECT_EQ(written(), "p=[5,6]");
}

TEST_F(SnmpTree, LogsAFailedReplacement)
{
    EXPECT_EQ(logged([] { EXPECT_EQ(make_struct_node(nullptr, "a"), nullptr); }),
              "make_struct_node: SNMP, failed to change node to string node");
    EXPECT_EQ(logged([] { EXPECT_EQ(make_string_node(nullptr, "a", "x"), -1); }),
              "make_string_node: SNMP, failed to change node to string node");
}

TEST_F(SnmpTree, IsLeftAloneWhenMemoryForANewNodeIsShort)
{
    read("s={a=1}");
    const std::pair<const char *, std::function<bool()>> makers[] = {
        {"make_struct_node: SNMP, failed to create structure node",
         [this] { return make_struct_node(at("s.0"), "a") != nullptr; }},
        {"make_string_node: SNMP, failed to create string node",
         [this] { return make_string_node(at("s.0"), "a", "x") == 0; }},
        {"make_function_node: SNMP, failed to create function node",
         [this] { return make_function_node(at("s.0"), expand_to_priv, nullptr, nullptr, nullptr) == 0; }},
    };
    for (const auto &[message, make] : makers) {
        SCOPED_TRACE(message);
        int failures = 0;
        for (;; failures++) {
            clparse_node *before = clparse_get_head(head)->value.children->next->value.children->next;
            bool made = false;
            const std::string log = logged([&] {
                // The lookup of the path takes two allocations of its own.
                failing_alloc::after some(2 + failures);
                made = make();
            });
            if (made)
                break;
            EXPECT_EQ(log, message);
            EXPECT_EQ(clparse_get_head(head)->value.children->next->value.children->next, before);
            ASSERT_LT(failures, 10);
        }
        EXPECT_GE(failures, 2);
    }
}

TEST_F(SnmpTree, LetsAnExpansionClimbWithoutLinkingIt)
{
    read("s={a=1}");
    clparse_node *expansion = clparse_create_number_node("f", 1);
    clparse_snmp_edit_fn_node(expansion, at("s"));
    EXPECT_EQ(expansion->parent, at("s"));
    EXPECT_EQ(expansion->next, expansion);
    EXPECT_EQ(written(), "s={a=1}");
    clparse_snmp_edit_fn_node(nullptr, at("s"));
    clparse_delete_node(expansion);
}

// ---- Tags and merging

TEST(CheckTagSnmp, SkipsTheFirstCharacters)
{
    EXPECT_EQ(check_tag_snmp("1abc", "2abc"), 0);
    EXPECT_NE(check_tag_snmp("1abc", "1abd"), 0);
    EXPECT_LT(check_tag_snmp("9abc", "1abd"), 0);
    EXPECT_GT(check_tag_snmp("1b", "2a"), 0);
    EXPECT_EQ(check_tag_snmp("1", "2"), 0);
}

TEST(CheckTagSnmp, TakesATagOfNoCharactersAsOneOfOne)
{
    EXPECT_EQ(check_tag_snmp("", "1"), 0);
    EXPECT_EQ(check_tag_snmp(nullptr, "1"), 0);
    EXPECT_NE(check_tag_snmp("", "1a"), 0);
}

TEST_F(SnmpTree, TakesValueAndTagOfAMatchingSource)
{
    read("1abc=1,1abd=2");
    clparse_head *source = clparse_start("2abc=\"new\",9none=5");
    EXPECT_EQ(clparse_select_snmp(head, source), 0);
    EXPECT_EQ(written(), "2abc=\"new\",1abd=2");
    clparse_stop(source);
}

TEST_F(SnmpTree, MergesContainersWithEqualTags)
{
    read("s={1a=1,t={1b=2}}");
    clparse_head *source = clparse_start("s={2a=10,t={3b=20}}");
    EXPECT_EQ(clparse_select_snmp(head, source), 0);
    EXPECT_EQ(written(), "s={2a=10,t={3b=20}}");
    clparse_stop(source);
}

TEST_F(SnmpTree, TakesTheTagOfAContainerThatDiffersInItsFirstCharacterOnly)
{
    read("1s={1a=1}");
    clparse_head *source = clparse_start("2s={1a=10}");
    EXPECT_EQ(clparse_select_snmp(head, source), 0);
    EXPECT_EQ(written(), "2s={1a=1}"); // but not its values: the pair did not match as a whole
    clparse_stop(source);
}

TEST_F(SnmpTree, LeavesElementsWithoutTagsToTheDefaultAction)
{
    read("p=[1,2]");
    clparse_head *source = clparse_start("p=[7,8]");
    char *expected = nullptr;
    clparse_head *twin = clparse_start("p=[1,2]");
    EXPECT_EQ(clparse_select(twin, source), clparse_select_snmp(head, source));
    EXPECT_EQ(clparse_get_corelink(twin, &expected, 0), 0);
    EXPECT_EQ(written(), taken(expected));
    clparse_stop(twin);
    clparse_stop(source);
}

TEST_F(SnmpTree, KeepsTagAndValueWhenTheNewTagCannotBeHad)
{
    read("1abc=1");
    clparse_head *source = clparse_start("2abc=2");
    {
        failing_alloc::after none(0);
        clparse_select_snmp(head, source);
    }
    EXPECT_EQ(written(), "1abc=1");
    clparse_stop(source);
}

TEST_F(SnmpTree, CannotMergeWithoutHeads)
{
    EXPECT_EQ(clparse_select_snmp(nullptr, head), -1);
    EXPECT_EQ(clparse_select_snmp(head, nullptr), -1);
}

// ---- Walking

TEST_F(SnmpTree, StepsToTheNextSibling)
{
    read("s={1a=1,1b=2}");
    EXPECT_EQ(next_leaf(at("s.1a")), "s.1b");
}

TEST_F(SnmpTree, StepsFromAContainerToItsFirstLeaf)
{
    read("s={t={u={1a=1}}}");
    EXPECT_EQ(next_leaf(at("s.t")), "s.t.u.1a");
}

TEST_F(SnmpTree, ClimbsToTheNextSiblingOfAStruct)
{
    read("s={1t={1a=1},1u={1b=2,1c=3}}");
    EXPECT_EQ(next_leaf(at("s.1t.1a")), "s.1u.1b");
}

TEST_F(SnmpTree, ClimbsSeveralLevels)
{
    read("s={1t={1u={1v={1a=1}}},1w=2}");
    EXPECT_EQ(next_leaf(at("s.1t.1u.1v.1a")), "s.1w");
}

TEST_F(SnmpTree, PassesOverEmptyContainers)
{
    read("s={1a=1,1t={},1u=[],1v={1w={}},1b=2}");
    EXPECT_EQ(next_leaf(at("s.1a")), "s.1b");
}

TEST_F(SnmpTree, PassesOverSiblingsWithEqualTagsTogether)
{
    read("s={1t={1a=1},2t={1b=2},3t={1c=3},1u={1d=4}}");
    EXPECT_EQ(next_leaf(at("s.0.1a")), "s.1u.1d");
    EXPECT_EQ(next_leaf(at("s.1.1b")), "s.1u.1d");
}

TEST_F(SnmpTree, TellsElementsWithoutTagsApart)
{
    read("s={p=[{1a=1},{1b=2},7]}");
    EXPECT_EQ(next_leaf(at("s.p.0.1a")), "s.p.1.1b");
    EXPECT_EQ(next_leaf(at("s.p.1.1b")), "s.p.2");
    EXPECT_EQ(next_leaf(at("s.p.2")), "(null)");
}

TEST_F(SnmpTree, EndsAtTheRoot)
{
    read("1a=1,s={1b=2},1c=3,t={1d=4}");
    EXPECT_EQ(next_leaf(at("1a")), "(null)");
    EXPECT_EQ(next_leaf(at("s")), "(null)");
    EXPECT_EQ(next_leaf(at("s.1b")), "(null)");
    EXPECT_EQ(next_leaf(clparse_get_head(head)), "(null)");
}

TEST_F(SnmpTree, EndsWithoutANodeOrAParent)
{
    EXPECT_EQ(next_leaf(nullptr), "(null)");
    clparse_node *detached = clparse_create_number_node("a", 1);
    EXPECT_EQ(next_leaf(detached), "(null)");
    clparse_delete_node(detached);
}

TEST_F(SnmpTree, EndsWhenAnExpansionFails)
{
    read("s={1a=1,1f=2,1b=3}");
    make_function_node(at("s.1f"), expand_to_priv, nullptr, nullptr, nullptr);
    EXPECT_EQ(next_leaf(at("s.1a")), "(null)");
    make_function_node(at("s.1f"), nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(next_leaf(at("s.1a")), "(null)");
}

TEST_F(SnmpTree, AnswersNullWhenThePathCannotBeHad)
{
    read("s={1a=1,1b=3}");
    clparse_node *node = at("s.1a");
    failing_alloc::after none(0);
    EXPECT_EQ(build_path_next_leaf(node), nullptr);
}

// A struct that a function node hands out, as an agent builds it.
struct expansion {
    clparse_node *node;

    expansion(const char *tag, clparse_node *parent, std::initializer_list<const char *> leaves)
        : node(clparse_create_struct_node(tag))
    {
        for (const char *leaf : leaves)
            clparse_append_child(node, clparse_create_number_node(leaf, 1));
        clparse_snmp_edit_fn_node(node, parent);
    }
    ~expansion()
    {
        clparse_delete_node(node);
    }
    expansion(const expansion &) = delete;
    expansion &operator=(const expansion &) = delete;
};

TEST_F(SnmpTree, WalksThroughTheExpansionOfAFunctionNode)
{
    read("s={1a=1,1f=2,1b=3}");
    expansion made("1f", at("s"), {"1x", "1y"});
    make_function_node(at("s.1f"), expand_to_priv, nullptr, release_nothing, made.node);
    EXPECT_EQ(next_leaf(at("s.1a")), "s.1f.1x");
    EXPECT_EQ(next_leaf(at("s.1f.1x")), "s.1f.1y");
    EXPECT_EQ(next_leaf(at("s.1f.1y")), "s.1b");
    EXPECT_EQ(next_leaf(at("s.1f")), "s.1f.1x");
}

TEST_F(SnmpTree, ExpandsAFunctionNodeThatItClimbsTo)
{
    read("s={1t={1a=1},1f=2}");
    expansion made("1f", at("s"), {"1x"});
    make_function_node(at("s.1f"), expand_to_priv, nullptr, release_nothing, made.node);
    EXPECT_EQ(next_leaf(at("s.1t.1a")), "s.1f.1x");
    EXPECT_EQ(next_leaf(at("s.1f.1x")), "(null)");
}

TEST_F(SnmpTree, ReachesALeafThatAFunctionNodeStandsFor)
{
    read("s={1t={1a=1,1f=2},1b=3}");
    clparse_node *leaf = clparse_create_number_node("1f", 1);
    clparse_snmp_edit_fn_node(leaf, at("s.1t"));
    make_function_node(at("s.1t.1f"), expand_to_priv, nullptr, release_nothing, leaf);
    EXPECT_EQ(next_leaf(at("s.1t.1a")), "s.1t.1f");
    EXPECT_EQ(next_leaf(at("s.1t.1f")), "s.1b"); // an expansion has no siblings of its own
    clparse_delete_node(leaf);
}

TEST_F(SnmpTree, EndsInAnExpansionThatHasNoParent)
{
    read("s={1a=1,1f=2}");
    expansion made("1f", nullptr, {"1x"});
    make_function_node(at("s.1f"), expand_to_priv, nullptr, release_nothing, made.node);
    EXPECT_EQ(next_leaf(at("s.1a")), "(null)");
}

TEST_F(SnmpTree, ClimbsOnFromAnExpansionThatHangsOnItsFunctionNode)
{
    read("s={1f=2,1b=3}");
    make_function_node(at("s.1f"), expand_to_priv, nullptr, release_nothing, nullptr);
    clparse_node *function = at("s.1f");
    expansion made("1f", function, {"1x"});
    function->value.func.priv = made.node;
    EXPECT_EQ(next_leaf(made.node->value.children->next), "s.1b");
}

TEST_F(SnmpTree, WalksADeepTreeOnASmallStack)
{
    clparse_node *level = clparse_append_new_struct("1s", clparse_get_head(head));
    clparse_node *top = level;
    for (int i = 0; i < 100000; i++) {
        clparse_node *child = clparse_create_struct_node("1s");
        ASSERT_EQ(clparse_append_child(level, child), 0);
        level = child;
    }
    clparse_append_child(top, clparse_create_number_node("1z", 1));
    EXPECT_EQ(next_leaf(level), "1s.1z");
}

// ---- Against a model

// A random tree under one struct. Function nodes expand to structs that the test owns. `leaves` lists what a
// reader of the document would see below it.
class random_tree
{
  public:
    explicit random_tree(unsigned int seed) : random(seed)
    {
        EXPECT_EQ(clparse_init_head(&head), 0);
        clparse_node *top = clparse_create_struct_node("mtop");
        clparse_append_child(clparse_get_head(head), top);
        fill(top, "mtop", 0);
    }
    ~random_tree()
    {
        clparse_stop(head);
        for (clparse_node *each : owned)
            clparse_delete_node(each);
    }
    random_tree(const random_tree &) = delete;
    random_tree &operator=(const random_tree &) = delete;

    clparse_head *head = nullptr;
    texts leaves;

  private:
    void fill(clparse_node *container, const std::string &path, int depth)
    {
        const unsigned int count = static_cast<unsigned int>(random() % 6);
        for (unsigned int i = 0; i < count; i++) {
            // The marks vary and the rest of a tag is unique among its siblings.
            const std::string tag = std::string(1, "abc"[random() % 3]) + "n" + std::to_string(i);
            const std::string below =
                path + "." + (container->type == CLPARSE_TYPE_ARRAY ? std::to_string(i) : tag);
            const auto kind = random() % (depth < 6 ? 8 : 4);
            if (kind < 4) {
                clparse_append_child(container, kind == 0 ? clparse_create_string_node(tag.c_str(), "x")
                                                          : clparse_create_number_node(tag.c_str(), i));
                leaves.push_back(below);
            } else if (kind < 6 || container->type == CLPARSE_TYPE_ARRAY) {
                clparse_node *child = kind == 4 ? clparse_create_array_node(tag.c_str())
                                                : clparse_create_struct_node(tag.c_str());
                clparse_append_child(container, child);
                fill(child, below, depth + 1);
            } else {
                clparse_node *made = clparse_create_struct_node(tag.c_str());
                owned.push_back(made);
                clparse_append_child(container, clparse_create_function_node(tag.c_str(), expand_to_priv,
                                                                             nullptr, release_nothing, made));
                clparse_snmp_edit_fn_node(made, container);
                fill(made, below, depth + 1);
            }
        }
    }

    std::mt19937 random;
    std::vector<clparse_node *> owned;
};

TEST(SnmpWalk, VisitsEveryLeafOnceInDocumentOrder)
{
    size_t leaves = 0;
    for (unsigned int seed = 0; seed < 500; seed++) {
        SCOPED_TRACE(seed);
        random_tree tree(seed);
        texts walked;
        clparse_node *at = __clparse_get_node(tree.head, "mtop", verify_tag);
        while (walked.size() <= tree.leaves.size()) {
            const std::string path = next_leaf(at);
            if (path == "(null)")
                break;
            walked.push_back(path);
            at = __clparse_get_node(tree.head, path.c_str(), verify_tag);
            ASSERT_NE(at, nullptr) << path;
        }
        ASSERT_EQ(walked, tree.leaves);
        leaves += walked.size();
    }
    EXPECT_GT(leaves, 2000u);
}

} // namespace
