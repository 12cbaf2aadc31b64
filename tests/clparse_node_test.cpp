#include <qvlib/corelink.h>
#include <qvlib/log.h>
#include <qvlib/memcheck.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "corelink/tree.h"
#include "failing_alloc.h"
#include "memdebug.h"

namespace
{

// ---- Helpers
// -----------------------------------------------------------------------------------------------

class tree : public testing::Test
{
  protected:
    tree()
    {
        clparse_init_head(&head);
    }
    ~tree() override
    {
        clparse_stop(head);
    }
    clparse_node *root()
    {
        return &head->root;
    }
    clparse_node *add(clparse_node *parent, clparse_node *node)
    {
        clparse_append_child(parent, node);
        return node;
    }
    static std::string tags(const clparse_node *container)
    {
        std::string all;
        const clparse_node *end = container->value.children;
        for (const clparse_node *n = end->next; n != end; n = n->next)
            all += n->tag ? n->tag : "-";
        return all;
    }

    clparse_head *head = nullptr;
};

// What `run` writes to the log on the console, without time stamps.
std::string logged(const std::function<void()> &run)
{
    testing::internal::CaptureStderr();
    qv_log_init("test", 3, 0x20, 0, 0);
    run();
    qv_log_exit();
    std::string lines, all = testing::internal::GetCapturedStderr();
    for (size_t at = 0; (at = all.find("ERROR: ", at)) != std::string::npos; at++)
        lines += all.substr(at + 7, all.find("\r\n", at) - at - 7) + "\n";
    return lines;
}

clparse_node *expand_nothing(clparse_node *, void *)
{
    return nullptr;
}
int apply_nothing(clparse_node *, clparse_node *, void *)
{
    return 0;
}
int release_nothing(clparse_node *, void *)
{
    return 0;
}

clparse_node *make_function(const char *tag, void *priv)
{
    return clparse_create_function_node(tag, expand_nothing, apply_nothing, release_nothing, priv);
}

// ---- Creation
// ----------------------------------------------------------------------------------------------

struct creator {
    const char *name;
    int type;
    int allocations;
    clparse_node *(*create)(const char *tag);
};

const creator creators[] = {
    {"null", CLPARSE_TYPE_NULL, 2, [](const char *tag) { return clparse_create_null_node(tag); }},
    {"string", CLPARSE_TYPE_STRING, 3, [](const char *tag) { return clparse_create_string_node(tag, "v"); }},
    {"number", CLPARSE_TYPE_NUMBER, 2, [](const char *tag) { return clparse_create_number_node(tag, 7); }},
    {"boolean", CLPARSE_TYPE_BOOLEAN, 2, [](const char *tag) { return clparse_create_boolean_node(tag, 1); }},
    {"struct", CLPARSE_TYPE_STRUCT, 3, [](const char *tag) { return clparse_create_struct_node(tag); }},
    {"array", CLPARSE_TYPE_ARRAY, 3, [](const char *tag) { return clparse_create_array_node(tag); }},
    {"function", CLPARSE_TYPE_FUNCTION, 2, [](const char *tag) { return make_function(tag, nullptr); }},
};

TEST(ClparseCreate, GivesADetachedNodeWithACopyOfTheTag)
{
    for (const creator &row : creators) {
        SCOPED_TRACE(row.name);
        char tag[] = "tag";
        clparse_node *node = row.create(tag);
        ASSERT_NE(node, nullptr);
        tag[0] = 'x';
        EXPECT_STREQ(clparse_get_node_tag(node), "tag");
        EXPECT_EQ(clparse_get_node_type(node), row.type);
        EXPECT_EQ(node->next, node);
        EXPECT_EQ(node->prev, node);
        EXPECT_EQ(clparse_get_parent(node), nullptr);
        if (qv::is_container(node)) {
            EXPECT_EQ(node->value.children->next, node->value.children);
            EXPECT_EQ(node->value.children->prev, node->value.children);
        }
        EXPECT_EQ(clparse_delete_node(node), 0);
    }
}

TEST(ClparseCreate, FailsWithoutATag)
{
    failing_alloc::live_blocks blocks;
    for (const creator &row : creators)
        EXPECT_EQ(row.create(nullptr), nullptr) << row.name;
    EXPECT_EQ(blocks.count(), 0u);
}

TEST(ClparseCreate, FailsAtEachAllocationAndReleasesTheRest)
{
    for (const creator &row : creators) {
        SCOPED_TRACE(row.name);
        failing_alloc::live_blocks blocks;
        for (int successes = 0; successes < row.allocations; successes++) {
            failing_alloc::after failure(successes);
            EXPECT_EQ(row.create("tag"), nullptr);
            EXPECT_TRUE(failing_alloc::failed);
            EXPECT_EQ(blocks.count(), 0u);
        }
        failing_alloc::after failure(row.allocations);
        clparse_node *node = row.create("tag");
        EXPECT_NE(node, nullptr);
        EXPECT_FALSE(failing_alloc::failed);
        EXPECT_EQ(blocks.count(), static_cast<size_t>(row.allocations));
        clparse_delete_node(node);
        EXPECT_EQ(blocks.count(), 0u);
    }
}

TEST(ClparseCreate, OfAStringFailsWithoutAValueAndCopiesIt)
{
    failing_alloc::live_blocks blocks;
    EXPECT_EQ(clparse_create_string_node("a", nullptr), nullptr);
    EXPECT_EQ(blocks.count(), 0u);
    char value[] = "value";
    clparse_node *node = clparse_create_string_node("a", value);
    value[0] = 'x';
    EXPECT_STREQ(clparse_get_node_value_s(node), "value");
    clparse_delete_node(node);
}

TEST(ClparseCreate, OfABooleanStoresTheLowByte)
{
    for (const auto &[value, stored] : {std::pair{0x100, 0}, {0x1ff, 0xff}, {-1, 0xff}, {2, 2}}) {
        clparse_node *node = clparse_create_boolean_node("b", value);
        EXPECT_EQ(clparse_get_node_value_b(node), stored);
        clparse_delete_node(node);
    }
}

TEST(ClparseCreate, OfANumberStoresAll64Bits)
{
    clparse_node *node = clparse_create_number_node("n", UINT64_C(0xfedcba9876543210));
    EXPECT_EQ(clparse_get_node_value_n(node), UINT64_C(0xfedcba9876543210));
    clparse_delete_node(node);
}

TEST(ClparseCreate, OfAFunctionHoldsTheFourWords)
{
    int word;
    clparse_node *node = make_function("f", &word);
    EXPECT_EQ(node->value.func.expand, expand_nothing);
    EXPECT_EQ(node->value.func.apply, apply_nothing);
    EXPECT_EQ(node->value.func.release, release_nothing);
    EXPECT_EQ(clparse_get_func_priv(node), &word);
    clparse_delete_node(node);
}

// ---- Linking
// -----------------------------------------------------------------------------------------------

using ClparseAppendChild = tree;

TEST_F(ClparseAppendChild, LinksTheLastChild)
{
    clparse_node *a = add(root(), clparse_create_null_node("a"));
    clparse_node *b = clparse_create_null_node("b");
    EXPECT_EQ(clparse_append_child(root(), b), 0);
    EXPECT_EQ(a->next, b);
    EXPECT_EQ(b->prev, a);
    EXPECT_EQ(b->next, root()->value.children);
    EXPECT_EQ(root()->value.children->prev, b);
    EXPECT_EQ(clparse_get_parent(b), root());
}

TEST_F(ClparseAppendChild, SetsEinvalForNull)
{
    clparse_node *node = add(root(), clparse_create_null_node("a"));
    for (auto [parent, child] : {std::pair<clparse_node *, clparse_node *>{nullptr, node},
                                 {root(), nullptr},
                                 {node, nullptr},
                                 {nullptr, nullptr}}) {
        errno = 0;
        EXPECT_EQ(clparse_append_child(parent, child), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(ClparseAppendChild, SetsEnotdirForAnyOtherTypeThanContainers)
{
    for (const creator &row : creators) {
        clparse_node *parent = row.create("p"), *child = clparse_create_null_node("c");
        errno = 0;
        const bool container = row.type == CLPARSE_TYPE_STRUCT || row.type == CLPARSE_TYPE_ARRAY;
        EXPECT_EQ(clparse_append_child(parent, child), container ? 0 : -1) << row.name;
        EXPECT_EQ(errno, container ? 0 : ENOTDIR) << row.name;
        if (!container)
            clparse_delete_node(child);
        clparse_delete_node(parent);
    }
}

using ClparseRemoveChild = tree;

TEST_F(ClparseRemoveChild, UnlinksAndKeepsTheParentField)
{
    clparse_node *a = add(root(), clparse_create_null_node("a"));
    add(root(), clparse_create_null_node("b"));
    for (int time = 0; time < 2; time++) { // a detached one too
        EXPECT_EQ(clparse_remove_child(a), 0);
        EXPECT_EQ(a->next, a);
        EXPECT_EQ(a->prev, a);
        EXPECT_EQ(a->parent, root());
        EXPECT_EQ(tags(root()), "b");
    }
    clparse_delete_node(a);
}

TEST_F(ClparseRemoveChild, SetsEinvalForNull)
{
    errno = 0;
    EXPECT_EQ(clparse_remove_child(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

using ClparseAddChildAfter = tree;

TEST_F(ClparseAddChildAfter, ReplacesAndDestroysTheOldNodeWithItsSubtree)
{
    failing_alloc::live_blocks blocks;
    clparse_node *s = add(root(), clparse_create_struct_node("s"));
    add(s, clparse_create_null_node("x"));
    clparse_node *old_node = add(s, clparse_create_struct_node("o"));
    add(s, clparse_create_null_node("y"));
    const size_t before = blocks.count();
    add(old_node, clparse_create_string_node("c", "v"));
    clparse_node *new_node = clparse_create_struct_node("n");
    EXPECT_EQ(clparse_add_child_after(new_node, old_node), 0);
    EXPECT_EQ(tags(s), "xny");
    EXPECT_EQ(clparse_get_parent(new_node), s);
    EXPECT_EQ(new_node->next->prev, new_node);
    EXPECT_EQ(new_node->prev->next, new_node);
    EXPECT_EQ(blocks.count(), before);
    clparse_delete_node(s);
    EXPECT_EQ(blocks.count(), 0u);
}

TEST_F(ClparseAddChildAfter, FailsForNullWithoutErrno)
{
    clparse_node *node = add(root(), clparse_create_null_node("a"));
    errno = 0;
    EXPECT_EQ(clparse_add_child_after(nullptr, node), -1);
    EXPECT_EQ(clparse_add_child_after(node, nullptr), -1);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(tags(root()), "a");
}

TEST_F(ClparseAddChildAfter, LeavesANodeThatIsToReplaceItself)
{
    add(root(), clparse_create_null_node("a"));
    clparse_node *node = add(root(), clparse_create_null_node("b"));
    EXPECT_EQ(clparse_add_child_after(node, node), 0);
    EXPECT_EQ(tags(root()), "ab");
    EXPECT_EQ(node->parent, root());
}

TEST_F(ClparseAddChildAfter, ReplacesADetachedNode)
{
    clparse_node *old_node = clparse_create_null_node("o"), *new_node = clparse_create_null_node("n");
    EXPECT_EQ(clparse_add_child_after(new_node, old_node), 0);
    EXPECT_EQ(new_node->next, new_node);
    EXPECT_EQ(new_node->prev, new_node);
    clparse_delete_node(new_node);
}

using ClparseGetChild = tree;

TEST_F(ClparseGetChild, PopsTheChildrenInOrder)
{
    clparse_node *list = add(root(), clparse_create_array_node("l"));
    clparse_node *a = add(list, clparse_create_number_node("A", 1));
    clparse_node *b = add(list, clparse_create_number_node("B", 2));
    for (clparse_node *expected : {a, b}) {
        clparse_node *child = clparse_get_child(list);
        EXPECT_EQ(child, expected);
        EXPECT_EQ(child->next, child);
        EXPECT_EQ(child->parent, list);
        clparse_delete_node(child);
    }
    EXPECT_EQ(clparse_get_child(list), nullptr);
    EXPECT_EQ(tags(list), "");
}

TEST_F(ClparseGetChild, GivesNullForOtherNodes)
{
    for (const creator &row : creators) {
        clparse_node *node = row.create("x");
        EXPECT_EQ(clparse_get_child(node), nullptr) << row.name;
        clparse_delete_node(node);
    }
    EXPECT_EQ(clparse_get_child(nullptr), nullptr);
}

// ---- Reading and changing
// ----------------------------------------------------------------------------------

TEST(ClparseValue, GettersOfAnotherTypeGiveTheirFailureValue)
{
    for (const creator &row : creators) {
        SCOPED_TRACE(row.name);
        clparse_node *node = row.create("x");
        if (row.type != CLPARSE_TYPE_STRING) {
            EXPECT_EQ(clparse_get_node_value_s(node), nullptr);
        }
        if (row.type != CLPARSE_TYPE_NUMBER) {
            EXPECT_EQ(clparse_get_node_value_n(node), UINT64_MAX);
        }
        if (row.type != CLPARSE_TYPE_BOOLEAN) {
            EXPECT_EQ(clparse_get_node_value_b(node), 0);
        }
        clparse_delete_node(node);
    }
}

TEST(ClparseValue, SettersOfAnotherTypeFailAndChangeNothing)
{
    for (const creator &row : creators) {
        SCOPED_TRACE(row.name);
        clparse_node *node = row.create("x");
        const clparse_node before = *node;
        errno = 0;
        if (row.type != CLPARSE_TYPE_STRING) {
            EXPECT_EQ(clparse_set_node_value_s(node, "w"), -1);
        }
        if (row.type != CLPARSE_TYPE_NUMBER) {
            EXPECT_EQ(clparse_set_node_value_n(node, 3), -1);
        }
        if (row.type != CLPARSE_TYPE_BOOLEAN) {
            EXPECT_EQ(clparse_set_node_value_b(node, 3), -1);
        }
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(memcmp(&before, node, sizeof before), 0);
        clparse_delete_node(node);
    }
}

TEST(ClparseValue, OfANumberIsSetSignExtendedFrom32Bits)
{
    clparse_node *node = clparse_create_number_node("n", UINT64_MAX);
    EXPECT_EQ(clparse_set_node_value_n(node, 2147483647), 0);
    EXPECT_EQ(clparse_get_node_value_n(node), UINT64_C(0x7fffffff));
    EXPECT_EQ(clparse_set_node_value_n(node, -5), 0);
    EXPECT_EQ(clparse_get_node_value_n(node), UINT64_C(0xfffffffffffffffb));
    clparse_delete_node(node);
}

TEST(ClparseValue, OfABooleanIsSetToTheLowByte)
{
    clparse_node *node = clparse_create_boolean_node("b", 1);
    EXPECT_EQ(clparse_set_node_value_b(node, 0x100), 0);
    EXPECT_EQ(clparse_get_node_value_b(node), 0);
    EXPECT_EQ(clparse_set_node_value_b(node, 0x17f), 0);
    EXPECT_EQ(clparse_get_node_value_b(node), 0x7f);
    clparse_delete_node(node);
}

TEST(ClparseValue, OfAStringIsReplacedByACopyOrNull)
{
    failing_alloc::live_blocks blocks;
    clparse_node *node = clparse_create_string_node("s", "old");
    char value[] = "new";
    EXPECT_EQ(clparse_set_node_value_s(node, value), 0);
    value[0] = 'x';
    EXPECT_STREQ(clparse_get_node_value_s(node), "new");
    EXPECT_EQ(clparse_set_node_value_s(node, clparse_get_node_value_s(node) + 1), 0); // a part of itself
    EXPECT_STREQ(clparse_get_node_value_s(node), "ew");
    EXPECT_EQ(clparse_set_node_value_s(node, nullptr), 0);
    EXPECT_EQ(clparse_get_node_value_s(node), nullptr);
    EXPECT_EQ(blocks.count(), 2u);
    clparse_delete_node(node);
    EXPECT_EQ(blocks.count(), 0u);
}

TEST(ClparseValue, OfAStringIsNullAfterAFailedCopy)
{
    clparse_node *node = clparse_create_string_node("s", "old");
    failing_alloc::after failure(0);
    EXPECT_EQ(clparse_set_node_value_s(node, "new"), 0);
    EXPECT_TRUE(failing_alloc::failed);
    EXPECT_EQ(clparse_get_node_value_s(node), nullptr);
    clparse_delete_node(node);
}

TEST(ClparseTag, IsReplacedByACopyOrNull)
{
    failing_alloc::live_blocks blocks;
    clparse_node *node = clparse_create_null_node("old");
    EXPECT_EQ(clparse_set_node_tag(node, "new"), 0);
    EXPECT_STREQ(clparse_get_node_tag(node), "new");
    EXPECT_EQ(clparse_set_node_tag(node, clparse_get_node_tag(node)), 0);
    EXPECT_STREQ(clparse_get_node_tag(node), "new");
    EXPECT_EQ(clparse_set_node_tag(node, nullptr), 0);
    EXPECT_EQ(clparse_get_node_tag(node), nullptr);
    EXPECT_EQ(blocks.count(), 1u);
    EXPECT_EQ(clparse_set_node_tag(nullptr, "x"), -1);
    clparse_delete_node(node);
}

TEST(ClparseTag, IsNullAfterAFailedCopy)
{
    clparse_node *node = clparse_create_null_node("old");
    failing_alloc::after failure(0);
    EXPECT_EQ(clparse_set_node_tag(node, "new"), 0);
    EXPECT_TRUE(failing_alloc::failed);
    EXPECT_EQ(clparse_get_node_tag(node), nullptr);
    clparse_delete_node(node);
}

TEST(ClparseSoftAssert, LogsConditionFileAndLineForANullNode)
{
    const std::string tag = logged([] { EXPECT_EQ(clparse_get_node_tag(nullptr), nullptr); });
    const std::string priv = logged([] { EXPECT_EQ(clparse_get_func_priv(nullptr), nullptr); });
    for (const std::string &line : {tag, priv})
        EXPECT_TRUE(testing::internal::RE::PartialMatch(
            line, "^assert node != \\(\\(void \\*\\)0\\) [^ ]*corelink[^ ]*:[0-9]+\n$"))
            << line;
}

TEST(ClparseSoftAssert, GivesZeroInSilenceWhenTheConditionHolds)
{
    EXPECT_EQ(logged([] { EXPECT_EQ(clparse_soft_assert(1, "c", "f", 1), 0); }), "");
    EXPECT_EQ(logged([] { EXPECT_EQ(clparse_soft_assert(0, "c", "f", 17), -1); }), "assert c f:17\n");
}

TEST(ClparseNode, AccessorsTakeNull)
{
    EXPECT_EQ(clparse_get_node_type(nullptr), -1);
    EXPECT_EQ(clparse_get_parent(nullptr), nullptr);
    EXPECT_EQ(clparse_get_node_value_s(nullptr), nullptr);
    EXPECT_EQ(clparse_get_node_value_n(nullptr), UINT64_MAX);
    EXPECT_EQ(clparse_get_node_value_b(nullptr), 0);
    EXPECT_EQ(clparse_set_node_value_s(nullptr, "x"), -1);
    EXPECT_EQ(clparse_set_node_value_n(nullptr, 1), -1);
    EXPECT_EQ(clparse_set_node_value_b(nullptr, 1), -1);
    EXPECT_EQ(clparse_delete_node(nullptr), -1);
    EXPECT_EQ(clparse_drop(nullptr, nullptr), -1);
    EXPECT_EQ(clparse_get_head(nullptr), nullptr);
}

// ---- Heads
// -------------------------------------------------------------------------------------------------

TEST(ClparseInitHead, MakesAnEmptyTree)
{
    failing_alloc::live_blocks blocks;
    clparse_head *head = nullptr;
    ASSERT_EQ(clparse_init_head(&head), 0);
    EXPECT_EQ(clparse_get_head(head), &head->root);
    EXPECT_STREQ(head->root.tag, "head");
    EXPECT_EQ(head->root.type, CLPARSE_TYPE_STRUCT);
    EXPECT_EQ(head->root.parent, nullptr);
    EXPECT_EQ(head->scanner, nullptr);
    EXPECT_EQ(head->cursor, nullptr);
    EXPECT_EQ(head->root.value.children->next, head->root.value.children);
    EXPECT_EQ(blocks.count(), 3u);
    clparse_stop(head);
    EXPECT_EQ(blocks.count(), 0u);
}

TEST(ClparseInitHead, FailsAtEachAllocationAndReleasesTheRest)
{
    failing_alloc::live_blocks blocks;
    for (int successes = 0; successes < 3; successes++) {
        failing_alloc::after failure(successes);
        clparse_head *head = reinterpret_cast<clparse_head *>(&blocks);
        EXPECT_EQ(clparse_init_head(&head), -1);
        EXPECT_TRUE(failing_alloc::failed);
        EXPECT_EQ(head, nullptr);
        EXPECT_EQ(blocks.count(), 0u);
    }
    EXPECT_EQ(clparse_init_head(nullptr), -1);
}

TEST(ClparseStop, FreesEverything)
{
    failing_alloc::live_blocks blocks;
    clparse_head *head = nullptr;
    ASSERT_EQ(clparse_init_head(&head), 0);
    clparse_node *s = &head->root;
    for (int level = 0; level < 4; level++) {
        for (const creator &row : creators)
            clparse_append_child(s, row.create("t"));
        s = s->value.children->next->next->next->next->next; // the struct
    }
    clparse_stop(head);
    EXPECT_EQ(blocks.count(), 0u);
    clparse_stop(nullptr);
}

TEST(ClparseFreeChildren, LeavesAnEmptySentinel)
{
    failing_alloc::live_blocks blocks;
    clparse_node *s = clparse_create_struct_node("s");
    for (const creator &row : creators)
        clparse_append_child(s, row.create("t"));
    clparse_free_children(s);
    EXPECT_EQ(blocks.count(), 3u);
    EXPECT_EQ(s->value.children->next, s->value.children);
    EXPECT_EQ(s->value.children->prev, s->value.children);
    clparse_delete_node(s);
}

// ---- Convenience constructors
// ------------------------------------------------------------------------------

struct appender {
    const char *name;
    const char *append_failed;
    int type;
    int allocations;
    clparse_node *(*append)(const char *tag, clparse_node *parent);
};

const appender appenders[] = {
    {"clparse_append_new_struct", "failed to append child", CLPARSE_TYPE_STRUCT, 3,
     clparse_append_new_struct},
    {"clparse_append_new_array", "failed to append child node", CLPARSE_TYPE_ARRAY, 3,
     [](const char *tag, clparse_node *parent) { return clparse_append_new_array(nullptr, tag, parent); }},
    {"clparse_append_new_number_child", "failed to append child node", CLPARSE_TYPE_NUMBER, 2,
     [](const char *tag, clparse_node *parent) { return clparse_append_new_number_child(9, tag, parent); }},
    {"clparse_append_new_string_child", "failed to append child node", CLPARSE_TYPE_STRING, 3,
     [](const char *tag, clparse_node *parent) { return clparse_append_new_string_child("v", tag, parent); }},
};

using ClparseAppendNew = tree;

TEST_F(ClparseAppendNew, AppendsANewChildOrGivesThePresentOneUnchanged)
{
    add(root(), clparse_create_null_node("other"));
    for (const appender &row : appenders) {
        clparse_node *made = row.append(row.name, root());
        ASSERT_NE(made, nullptr) << row.name;
        EXPECT_EQ(made->type, row.type);
        EXPECT_EQ(made->parent, root());
        EXPECT_EQ(root()->value.children->prev, made);
        for (const appender &again : appenders)
            EXPECT_EQ(again.append(row.name, root()), made);
        EXPECT_EQ(made->type, row.type);
    }
    EXPECT_EQ(clparse_get_node_value_n(clparse_append_new_number_child(1, appenders[2].name, root())), 9u);
    EXPECT_STREQ(clparse_get_node_value_s(clparse_append_new_string_child("w", appenders[3].name, root())),
                 "v");
}

TEST_F(ClparseAppendNew, GivesTheFirstOfSeveralAndPassesOverUntaggedElements)
{
    clparse_set_node_tag(add(root(), clparse_create_null_node("u")), nullptr);
    clparse_node *first = add(root(), clparse_create_string_node("a", "text"));
    add(root(), clparse_create_number_node("a", 1));
    EXPECT_EQ(clparse_append_new_number_child(5, "a", root()), first);
    EXPECT_STREQ(first->value.str, "text");
    EXPECT_EQ(clparse_find_child(root(), "a"), first);
    EXPECT_EQ(clparse_find_child(root(), "b"), nullptr);
    EXPECT_EQ(clparse_find_child(root(), nullptr), nullptr);
}

TEST_F(ClparseAppendNew, LogsThatANumberNodeFailedForAnyTypeThatCantBeCreated)
{
    failing_alloc::live_blocks blocks;
    for (const appender &row : appenders) {
        const std::string expected = std::string(row.name) + ": failed to create number node\n";
        EXPECT_EQ(logged([&] { EXPECT_EQ(row.append(nullptr, root()), nullptr); }), expected);
        for (int successes = 0; successes < row.allocations; successes++) {
            EXPECT_EQ(logged([&] {
                          failing_alloc::after failure(successes);
                          EXPECT_EQ(row.append("a", root()), nullptr);
                      }),
                      expected);
        }
    }
    EXPECT_EQ(logged([&] { EXPECT_EQ(clparse_append_new_string_child(nullptr, "s", root()), nullptr); }),
              "clparse_append_new_string_child: failed to create number node\n");
    EXPECT_EQ(tags(root()), "");
    EXPECT_EQ(blocks.count(), 0u);
}

TEST_F(ClparseAppendNew, LogsAndDeletesAChildThatCantBeAppended)
{
    clparse_node *number = add(root(), clparse_create_number_node("n", 1));
    failing_alloc::live_blocks blocks;
    for (const appender &row : appenders)
        for (clparse_node *parent : {number, static_cast<clparse_node *>(nullptr)})
            EXPECT_EQ(logged([&] { EXPECT_EQ(row.append("a", parent), nullptr); }),
                      std::string(row.name) + ": " + row.append_failed + "\n");
    EXPECT_EQ(blocks.count(), 0u);
}

// ---- Deep copy
// ---------------------------------------------------------------------------------------------

clparse_node *make_all_types()
{
    clparse_node *s = clparse_create_struct_node("s");
    for (clparse_node *level :
         {s, clparse_append_new_struct("t", s), clparse_append_new_array(nullptr, "l", s)}) {
        clparse_append_child(level, clparse_create_string_node("str", "text"));
        clparse_append_child(level, clparse_create_number_node("num", UINT64_C(0xfedcba9876543210)));
        clparse_append_child(level, clparse_create_boolean_node("bool", 0x80));
        clparse_append_child(level, clparse_create_null_node("null"));
        clparse_append_child(level, make_function("func", level));
    }
    clparse_node *untagged = clparse_create_string_node("x", "y");
    clparse_set_node_tag(untagged, nullptr);
    clparse_set_node_value_s(untagged, nullptr);
    clparse_append_child(s, untagged);
    return s;
}

void expect_copy(const clparse_node *copy, const clparse_node *source, const clparse_node *parent)
{
    ASSERT_NE(copy, source);
    EXPECT_EQ(copy->parent, parent);
    EXPECT_EQ(copy->type, source->type);
    EXPECT_STREQ(copy->tag, source->tag);
    if (source->tag) {
        EXPECT_NE(copy->tag, source->tag);
    }
    if (source->type == CLPARSE_TYPE_STRING) {
        EXPECT_STREQ(copy->value.str, source->value.str);
        if (source->value.str) {
            EXPECT_NE(copy->value.str, source->value.str);
        }
    } else if (source->type == CLPARSE_TYPE_NUMBER) {
        EXPECT_EQ(copy->value.num, source->value.num);
    } else if (source->type == CLPARSE_TYPE_BOOLEAN) {
        EXPECT_EQ(copy->value.boolean, source->value.boolean);
    } else if (source->type == CLPARSE_TYPE_FUNCTION) {
        EXPECT_EQ(copy->value.func.expand, nullptr);
        EXPECT_EQ(copy->value.func.apply, nullptr);
        EXPECT_EQ(copy->value.func.release, nullptr);
        EXPECT_EQ(copy->value.func.priv, nullptr);
    }
    if (!qv::is_container(source))
        return;
    const clparse_node *to = copy->value.children->next, *from = source->value.children->next;
    while (to != copy->value.children && from != source->value.children) {
        expect_copy(to, from, copy);
        to = to->next;
        from = from->next;
    }
    EXPECT_EQ(to, copy->value.children);
    EXPECT_EQ(from, source->value.children);
}

using ClparseInsertNew = tree;

TEST_F(ClparseInsertNew, AppendsADeepCopy)
{
    clparse_node *source = make_all_types();
    add(root(), clparse_create_null_node("a"));
    EXPECT_EQ(clparse_insert_new(root(), source), 0);
    EXPECT_EQ(tags(root()), "as");
    expect_copy(root()->value.children->prev, source, root());
    EXPECT_EQ(source->next, source);
    clparse_delete_node(source);
}

// Whoever expands function nodes gives nodes a parent other than the container that they stand in.
TEST_F(ClparseInsertNew, DoesNotRelyOnTheParentFieldsOfTheSource)
{
    clparse_node *source = make_all_types();
    clparse_node elsewhere = {};
    source->value.children->next->parent = nullptr;
    clparse_find_child(source, "t")->parent = &elsewhere;
    clparse_find_child(source, "l")->parent = nullptr;
    EXPECT_EQ(clparse_insert_new(root(), source), 0);
    expect_copy(root()->value.children->prev, source, root());
    clparse_delete_node(source);
}

TEST_F(ClparseInsertNew, LinksNothingWhenAnAllocationFails)
{
    failing_alloc::live_blocks blocks; // children in containers that failed stay allocated
    clparse_node *source = make_all_types();
    for (int successes = 0;; successes++) {
        failing_alloc::after failure(successes);
        const int result = clparse_insert_new(root(), source);
        if (!failing_alloc::failed) {
            EXPECT_EQ(result, 0);
            EXPECT_GT(successes, 40);
            break;
        }
        ASSERT_EQ(result, -1);
        ASSERT_EQ(tags(root()), "");
    }
    clparse_delete_node(source);
    clparse_delete_node(clparse_get_child(root()));
}

TEST_F(ClparseInsertNew, ReleasesALeafThatFails)
{
    clparse_node *leaf = clparse_create_string_node("tag", "value");
    failing_alloc::live_blocks blocks;
    for (int successes = 0; successes < 3; successes++) {
        failing_alloc::after failure(successes);
        EXPECT_EQ(clparse_insert_new(root(), leaf), -1);
        EXPECT_EQ(blocks.count(), 0u);
    }
    clparse_delete_node(leaf);
}

TEST_F(ClparseInsertNew, KeepsChildrenOfAContainerThatFails)
{
    clparse_node *s = clparse_create_struct_node("s");
    add(s, clparse_create_number_node("a", 1));
    add(s, clparse_create_number_node("b", 1));
    failing_alloc::live_blocks blocks;
    failing_alloc::after failure(5); // record, tag, sentinel, and a whole first child
    EXPECT_EQ(clparse_insert_new(root(), s), -1);
    EXPECT_TRUE(failing_alloc::failed);
    EXPECT_EQ(blocks.count(), 3u); // the sentinel, and the first child's record and tag
    clparse_delete_node(s);
}

// ---- Dropping
// ----------------------------------------------------------------------------------------------

using ClparseDrop = tree;

TEST_F(ClparseDrop, RemovesEmptyContainersUpToTheRoot)
{
    failing_alloc::live_blocks blocks; // the sentinels
    clparse_node *keep = add(root(), clparse_create_null_node("k"));
    clparse_node *outer = add(root(), clparse_create_struct_node("o"));
    clparse_node *middle = add(outer, clparse_create_array_node("m"));
    clparse_node *inner = add(middle, clparse_create_struct_node("i"));
    EXPECT_EQ(clparse_drop(head, inner), 0);
    EXPECT_EQ(tags(root()), "k");
    EXPECT_EQ(blocks.count(), 2u + 3u);
    clparse_delete_node(keep);
    EXPECT_EQ(clparse_drop(nullptr, inner = add(root(), clparse_create_struct_node("i"))), 0);
    EXPECT_EQ(tags(root()), "");
    EXPECT_STREQ(root()->tag, "head");
}

TEST_F(ClparseDrop, LeavesAStructWithChildrenAndPrunesItsEmptyParentsNot)
{
    clparse_node *outer = add(root(), clparse_create_struct_node("o"));
    clparse_node *inner = add(outer, clparse_create_struct_node("i"));
    add(inner, clparse_create_null_node("x"));
    EXPECT_EQ(clparse_drop(head, inner), 0);
    EXPECT_EQ(tags(root()), "o");
    EXPECT_EQ(tags(outer), "i");
    EXPECT_EQ(tags(inner), "x");
}

TEST_F(ClparseDrop, StopsRemovingAtAParentThatHasOtherChildren)
{
    failing_alloc::live_blocks blocks;
    clparse_node *outer = add(root(), clparse_create_struct_node("o"));
    add(outer, clparse_create_null_node("x"));
    clparse_node *inner = add(outer, clparse_create_struct_node("i"));
    EXPECT_EQ(clparse_drop(head, inner), 0);
    EXPECT_EQ(tags(outer), "x");
    clparse_delete_node(outer);
    EXPECT_EQ(blocks.count(), 1u);
}

TEST_F(ClparseDrop, RemovesLeavesWithAZeroValue)
{
    clparse_node *s = add(root(), clparse_create_struct_node("s"));
    add(s, clparse_create_null_node("k"));
    for (clparse_node *leaf : {clparse_create_null_node("a"), clparse_create_number_node("b", 0),
                               clparse_create_boolean_node("c", 0)})
        EXPECT_EQ(clparse_drop(head, add(s, leaf)), 0);
    clparse_node *text = add(s, clparse_create_string_node("d", "x"));
    clparse_set_node_value_s(text, nullptr);
    EXPECT_EQ(clparse_drop(head, text), 0);
    EXPECT_EQ(tags(s), "k");
}

// A leaf with a value is not meant to be passed; it stays.
TEST_F(ClparseDrop, LeavesLeavesWithAValue)
{
    clparse_node *number = add(root(), clparse_create_number_node("b", UINT64_MAX));
    clparse_node *text = add(root(), clparse_create_string_node("d", "x"));
    EXPECT_EQ(clparse_drop(head, number), 0);
    EXPECT_EQ(clparse_drop(head, text), 0);
    EXPECT_EQ(tags(root()), "bd");
}

// A pointer may have half the bits of a number.
TEST_F(ClparseDrop, LeavesANumberOfWhichOneHalfIsZero)
{
    clparse_node *low = add(root(), clparse_create_number_node("l", 5));
    clparse_node *high = add(root(), clparse_create_number_node("h", uint64_t{5} << 32));
    EXPECT_EQ(clparse_drop(head, low), 0);
    EXPECT_EQ(clparse_drop(head, high), 0);
    EXPECT_EQ(tags(root()), "lh");
}

TEST_F(ClparseDrop, NeverDropsTheRoot)
{
    EXPECT_EQ(clparse_drop(head, root()), 0);
    EXPECT_STREQ(root()->tag, "head");
}

// ---- Depth
// -------------------------------------------------------------------------------------------------

void on_small_stack(void (*run)())
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 128 * 1024);
    pthread_t thread;
    auto start = [](void *what) -> void * {
        reinterpret_cast<void (*)()>(what)();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, start, reinterpret_cast<void *>(run)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

clparse_node *make_deep(int levels)
{
    clparse_node *top = clparse_create_struct_node("a"), *at = top;
    for (int level = 1; level < levels; level++) {
        clparse_node *next = clparse_create_struct_node("a");
        clparse_append_child(at, next);
        at = next;
    }
    clparse_append_child(at, clparse_create_number_node("n", 1));
    return top;
}

TEST(DeepTrees, AreFreedOnASmallStack)
{
    on_small_stack([] {
        clparse_head *head = nullptr;
        clparse_init_head(&head);
        clparse_append_child(&head->root, make_deep(1000000));
        clparse_stop(head);
        clparse_delete_node(make_deep(100000));
    });
}

TEST(DeepTrees, AreCopiedMergedAndQueriedOnASmallStack)
{
    on_small_stack([] {
        failing_alloc::live_blocks blocks; // clparse_drop does not release sentinels
        constexpr int levels = 10000;
        clparse_head *target = nullptr, *source = nullptr;
        clparse_init_head(&target);
        clparse_init_head(&source);
        clparse_append_child(&source->root, make_deep(levels));
        EXPECT_EQ(clparse_insert(target, source), 0);
        EXPECT_EQ(clparse_insert_sort(target, source), 0);
        EXPECT_EQ(clparse_update(target, source), 0);
        EXPECT_EQ(clparse_select(target, source), 0);
        std::string path;
        for (int level = 0; level < levels; level++)
            path += "a.";
        uint64_t number = 0;
        EXPECT_EQ(clparse_get_number(target, &number, "%sn", path.c_str()), 0);
        EXPECT_EQ(number, 1u);
        clparse_node *deepest = &target->root;
        while (qv::has_children_list(deepest))
            deepest = deepest->value.children->next;
        clparse_node *last = deepest->parent;
        clparse_delete_node(deepest);
        EXPECT_EQ(clparse_drop(target, last), 0);
        EXPECT_EQ(target->root.value.children->next, target->root.value.children);
        clparse_stop(target);
        clparse_stop(source);
    });
}

} // namespace
