#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <qvlib/corelink.h>
#include <qvlib/log.h>
#include <qvlib/memcheck.h>

#include "failing_heap.h"

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
    clparse_node *made = make_struct_node(at("s.b"), "mb");
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->type, CLPARSE_TYPE_STRUCT);
    EXPECT_EQ(made->parent, at("s"));
    EXPECT_EQ(at("s.1"), made);
    EXPECT_EQ(written(), "s={a=1,mb={},c=3}");
}

TEST_F(SnmpTree, PutsAStringInPlaceOfANode)
{
    read("s={a=1,b=2}");
    EXPECT_EQ(make_string_node(at("s.a"), "ma", "text"), 0);
    EXPECT_EQ(written(), "s={ma=\"text\",b=2}");
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
    struct maker {
        const char *message;
        bool (*make)(clparse_node *node);
    };
    const maker makers[] = {
        {"make_struct_node: SNMP, failed to create structure node",
         [](clparse_node *node) { return make_struct_node(node, "a") != nullptr; }},
        {"make_string_node: SNMP, failed to create string node",
         [](clparse_node *node) { return make_string_node(node, "a", "x") == 0; }},
        {"make_function_node: SNMP, failed to create function node",
         [](clparse_node *node) {
             return make_function_node(node, expand_to_priv, nullptr, nullptr, nullptr) == 0;
         }},
    };
    for (const maker &row : makers) {
        SCOPED_TRACE(row.message);
        int failures = 0;
        for (;; failures++) {
            clparse_node *node = at("s.0");
            bool made = false;
            const std::string log = logged([&] {
                failing_heap::after some(failures);
                made = row.make(node);
            });
            if (made)
                break;
            EXPECT_EQ(log, row.message);
            EXPECT_EQ(at("s.0"), node);
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
    read("mabc=1,mabd=2");
    clparse_head *source = clparse_start("nabc=\"new\",unone=5");
    EXPECT_EQ(clparse_select_snmp(head, source), 0);
    EXPECT_EQ(written(), "nabc=\"new\",mabd=2");
    clparse_stop(source);
}

TEST_F(SnmpTree, TakesATagThatBeginsWithADigit)
{
    clparse_append_child(clparse_get_head(head), clparse_create_number_node("1abc", 1));
    clparse_head *source = nullptr;
    ASSERT_EQ(clparse_init_head(&source), 0);
    clparse_append_child(clparse_get_head(source), clparse_create_number_node("2abc", 5));
    EXPECT_EQ(clparse_select_snmp(head, source), 0);
    EXPECT_EQ(written(), "2abc=5");
    clparse_stop(source);
}

TEST_F(SnmpTree, MergesContainersWithEqualTags)
{
    read("s={ma=1,t={mb=2}}");
    clparse_head *source = clparse_start("s={na=10,t={ob=20}}");
    EXPECT_EQ(clparse_select_snmp(head, source), 0);
    EXPECT_EQ(written(), "s={na=10,t={ob=20}}");
    clparse_stop(source);
}

TEST_F(SnmpTree, TakesTheTagOfAContainerThatDiffersInItsFirstCharacterOnly)
{
    read("ms={ma=1}");
    clparse_head *source = clparse_start("ns={ma=10}");
    EXPECT_EQ(clparse_select_snmp(head, source), 0);
    EXPECT_EQ(written(), "ns={ma=1}"); // but not its values: the pair did not match as a whole
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
    read("mabc=1");
    clparse_head *source = clparse_start("nabc=2");
    {
        failing_heap::after none(0);
        clparse_select_snmp(head, source);
    }
    EXPECT_EQ(written(), "mabc=1");
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
    read("s={ma=1,mb=2}");
    EXPECT_EQ(next_leaf(at("s.ma")), "s.mb");
}

TEST_F(SnmpTree, StepsFromAContainerToItsFirstLeaf)
{
    read("s={t={u={ma=1}}}");
    EXPECT_EQ(next_leaf(at("s.t")), "s.t.u.ma");
}

TEST_F(SnmpTree, ClimbsToTheNextSiblingOfAStruct)
{
    read("s={mt={ma=1},mu={mb=2,mc=3}}");
    EXPECT_EQ(next_leaf(at("s.mt.ma")), "s.mu.mb");
}

TEST_F(SnmpTree, ClimbsSeveralLevels)
{
    read("s={mt={mu={mv={ma=1}}},mw=2}");
    EXPECT_EQ(next_leaf(at("s.mt.mu.mv.ma")), "s.mw");
}

TEST_F(SnmpTree, PassesOverEmptyContainers)
{
    read("s={ma=1,mt={},mu=[],mv={mw={}},mb=2}");
    EXPECT_EQ(next_leaf(at("s.ma")), "s.mb");
}

TEST_F(SnmpTree, PassesOverSiblingsWithEqualTagsTogether)
{
    read("s={mt={ma=1},nt={mb=2},ot={mc=3},mu={md=4}}");
    EXPECT_EQ(next_leaf(at("s.0.ma")), "s.mu.md");
    EXPECT_EQ(next_leaf(at("s.1.mb")), "s.mu.md");
}

TEST_F(SnmpTree, NeverGoesBackWhereTagsOccurAgainFurtherOn)
{
    read("s={Aa={x=1},c={},Ba={},d={y=2}}");
    EXPECT_EQ(next_leaf(at("s.Aa.x")), "s.d.y");
    read("s={Aa={x=1},c={z=1},Ba={y=2},d={z=3}}");
    EXPECT_EQ(next_leaf(at("s.Ba.y")), "s.d.z");
    read("s={Aa={x=1},c={},Ba={}}");
    EXPECT_EQ(next_leaf(at("s.Aa.x")), "(null)");
}

TEST_F(SnmpTree, TellsElementsWithoutTagsApart)
{
    read("s={p=[{ma=1},{mb=2},7]}");
    EXPECT_EQ(next_leaf(at("s.p.0.ma")), "s.p.1.mb");
    EXPECT_EQ(next_leaf(at("s.p.1.mb")), "s.p.2");
    EXPECT_EQ(next_leaf(at("s.p.2")), "(null)");
}

TEST_F(SnmpTree, EndsAtTheRoot)
{
    read("ma=1,s={mb=2},mc=3,t={md=4}");
    EXPECT_EQ(next_leaf(at("ma")), "(null)");
    EXPECT_EQ(next_leaf(at("s")), "(null)");
    EXPECT_EQ(next_leaf(at("s.mb")), "(null)");
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
    read("s={ma=1,mf=2,mb=3}");
    make_function_node(at("s.mf"), expand_to_priv, nullptr, nullptr, nullptr);
    EXPECT_EQ(next_leaf(at("s.ma")), "(null)");
    make_function_node(at("s.mf"), nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(next_leaf(at("s.ma")), "(null)");
}

TEST_F(SnmpTree, AnswersNullWhenThePathCannotBeHad)
{
    read("s={ma=1,mb=3}");
    clparse_node *node = at("s.ma");
    failing_heap::after none(0);
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
    read("s={ma=1,mf=2,mb=3}");
    expansion made("mf", at("s"), {"mx", "my"});
    make_function_node(at("s.mf"), expand_to_priv, nullptr, release_nothing, made.node);
    EXPECT_EQ(next_leaf(at("s.ma")), "s.mf.mx");
    EXPECT_EQ(next_leaf(at("s.mf.mx")), "s.mf.my");
    EXPECT_EQ(next_leaf(at("s.mf.my")), "s.mb");
    EXPECT_EQ(next_leaf(at("s.mf")), "s.mf.mx");
}

TEST_F(SnmpTree, ExpandsAFunctionNodeThatItClimbsTo)
{
    read("s={mt={ma=1},mf=2}");
    expansion made("mf", at("s"), {"mx"});
    make_function_node(at("s.mf"), expand_to_priv, nullptr, release_nothing, made.node);
    EXPECT_EQ(next_leaf(at("s.mt.ma")), "s.mf.mx");
    EXPECT_EQ(next_leaf(at("s.mf.mx")), "(null)");
}

TEST_F(SnmpTree, ReachesALeafThatAFunctionNodeStandsFor)
{
    read("s={mt={ma=1,mf=2},mb=3}");
    clparse_node *leaf = clparse_create_number_node("mf", 1);
    clparse_snmp_edit_fn_node(leaf, at("s.mt"));
    make_function_node(at("s.mt.mf"), expand_to_priv, nullptr, release_nothing, leaf);
    EXPECT_EQ(next_leaf(at("s.mt.ma")), "s.mt.mf");
    EXPECT_EQ(next_leaf(at("s.mt.mf")), "s.mb"); // an expansion has no siblings of its own
    clparse_delete_node(leaf);
}

TEST_F(SnmpTree, EndsInAnExpansionThatHasNoParent)
{
    read("s={ma=1,mf=2}");
    expansion made("mf", nullptr, {"mx"});
    make_function_node(at("s.mf"), expand_to_priv, nullptr, release_nothing, made.node);
    EXPECT_EQ(next_leaf(at("s.ma")), "(null)");
}

TEST_F(SnmpTree, ClimbsOnFromAnExpansionThatHangsOnItsFunctionNode)
{
    read("s={mf=2,mb=3}");
    make_function_node(at("s.mf"), expand_to_priv, nullptr, release_nothing, nullptr);
    clparse_node *function = at("s.mf");
    expansion made("mf", function, {"mx"});
    function->value.func.priv = made.node;
    EXPECT_EQ(next_leaf(made.node->value.children->next), "s.mb");
}

TEST_F(SnmpTree, ClimbsFromAnyDepth)
{
    clparse_node *level = clparse_append_new_struct("ms", clparse_get_head(head));
    clparse_node *top = level;
    for (int i = 0; i < 100000; i++) {
        clparse_node *child = clparse_create_struct_node("ms");
        ASSERT_EQ(clparse_append_child(level, child), 0);
        level = child;
    }
    clparse_append_child(top, clparse_create_number_node("mz", 1));
    EXPECT_EQ(next_leaf(level), "ms.mz");
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
        clparse_node *walked = clparse_create_struct_node("mwalk");
        clparse_append_child(top, walked);
        fill(walked, "mtop.mwalk", 0);
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
        clparse_node *at = __clparse_get_node(tree.head, "mtop.mwalk", verify_tag);
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
