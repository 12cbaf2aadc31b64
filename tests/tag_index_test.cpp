#include "corelink/tag_index.h"

#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "corelink/tag_words.h"
#include "failing_alloc.h"
#include "guarded_bytes.h"

namespace
{

// "p7"
std::string numbered(size_t number)
{
    return std::string("p").append(std::to_string(number));
}

struct child {
    std::string tag;
    clparse_node node = {};
};

class TagIndex : public testing::Test
{
  protected:
    clparse_node *make(const char *tag, int type = CLPARSE_TYPE_NULL)
    {
        child &made = children.emplace_back();
        if (tag)
            made.tag.assign(tag, strlen(tag));
        made.node.tag = tag ? made.tag.data() : nullptr;
        made.node.type = type;
        return &made.node;
    }
    clparse_node *add(const char *tag, int type = CLPARSE_TYPE_NULL)
    {
        clparse_node *node = make(tag, type);
        EXPECT_TRUE(index.add(node));
        return node;
    }

    std::deque<child> children;
    qv::tag_index index;
};

TEST_F(TagIndex, IsEmptyAtFirst)
{
    EXPECT_EQ(index.first("a"), nullptr);
    EXPECT_EQ(index.last("a"), nullptr);
    EXPECT_EQ(index.first_container("a"), nullptr);
}

TEST_F(TagIndex, LeavesNothingAllocated)
{
    for (size_t i = 0; i < 300; i++)
        make(numbered(i).c_str());
    const failing_alloc::live_blocks live;
    {
        qv::tag_index another;
        for (child &each : children)
            ASSERT_TRUE(another.add(&each.node));
        EXPECT_GT(live.count(), 0u);
    }
    EXPECT_EQ(live.count(), 0u);
}

TEST_F(TagIndex, KnowsTheFirstAndTheLastChildWithATag)
{
    clparse_node *a = add("a"), *empty = add("");
    clparse_node *middle = add("a"), *last = add("a");
    EXPECT_NE(middle, last);
    EXPECT_EQ(index.first("a"), a);
    EXPECT_EQ(index.last("a"), last);
    EXPECT_EQ(index.first(""), empty);
    EXPECT_EQ(index.first("b"), nullptr);
}

TEST_F(TagIndex, LeavesOutChildrenWithoutATag)
{
    EXPECT_TRUE(index.add(make(nullptr)));
    EXPECT_TRUE(index.add(make(nullptr)));
    EXPECT_EQ(index.first(""), nullptr);
}

TEST_F(TagIndex, FindsTheFirstChildThatIsAContainerNow)
{
    add("a");
    clparse_node *s = add("a", CLPARSE_TYPE_STRUCT);
    add("a");
    clparse_node *l = add("a", CLPARSE_TYPE_ARRAY);
    EXPECT_EQ(index.first_container("a"), s);
    s->type = CLPARSE_TYPE_NUMBER;
    EXPECT_EQ(index.first_container("a"), l);
    l->type = CLPARSE_TYPE_NUMBER;
    EXPECT_EQ(index.first_container("a"), nullptr);
    clparse_node *later = add("a", CLPARSE_TYPE_STRUCT);
    EXPECT_EQ(index.first_container("a"), later);
}

TEST_F(TagIndex, IsUsableAfterClear)
{
    add("a");
    index.clear();
    EXPECT_EQ(index.first("a"), nullptr);
    clparse_node *again = add("a");
    EXPECT_EQ(index.first("a"), again);
}

TEST_F(TagIndex, EqualsAWalkOverManyChildren)
{
    std::mt19937 random(1);
    for (int i = 0; i < 3000; i++)
        add(numbered(random() % 1000).c_str(), random() % 2 ? CLPARSE_TYPE_STRUCT : CLPARSE_TYPE_NULL);
    for (int i = 0; i < 1100; i++) {
        const std::string tag = numbered(static_cast<size_t>(i));
        clparse_node *first = nullptr, *last = nullptr, *container = nullptr;
        for (child &each : children) {
            if (each.tag != tag)
                continue;
            first = first ? first : &each.node;
            last = &each.node;
            if (!container && each.node.type == CLPARSE_TYPE_STRUCT)
                container = &each.node;
        }
        EXPECT_EQ(index.first(tag.c_str()), first);
        EXPECT_EQ(index.last(tag.c_str()), last);
        EXPECT_EQ(index.first_container(tag.c_str()), container);
    }
}

TEST_F(TagIndex, TellsTagsApartThatDifferInTheirTail)
{
    std::vector<clparse_node *> nodes;
    for (size_t length = 0; length < 40; length++)
        for (char last : {'a', 'b'})
            nodes.push_back(add((std::string(length, 'x') + last).c_str()));
    size_t at = 0;
    for (size_t length = 0; length < 40; length++)
        for (char last : {'a', 'b'})
            EXPECT_EQ(index.first((std::string(length, 'x') + last).c_str()), nodes[at++]);
}

TEST_F(TagIndex, RefusesAChildWhenMemoryIsShortAndKeepsTheOthers)
{
    failing_alloc::live_blocks blocks;
    for (int successes = 0; successes < 12; successes++) {
        index.clear();
        children.clear();
        failing_alloc::after failure(successes);
        int added = 0;
        for (; added < 1000; added++)
            if (!index.add(make(numbered(static_cast<size_t>(added)).c_str())))
                break;
        EXPECT_EQ(added < 1000, failing_alloc::failed);
        for (int i = 0; i < added; i++)
            EXPECT_NE(index.first(numbered(static_cast<size_t>(i)).c_str()), nullptr);
        EXPECT_EQ(index.first(numbered(static_cast<size_t>(added)).c_str()), nullptr);
    }
    index.clear();
    EXPECT_EQ(blocks.count(), 0u);
}

// ---- Tags by words

// A tag with some bytes behind it up to the end of a page: its beginning is at any place in a word.
class placed_tag
{
  public:
    placed_tag(const std::string &tag, size_t behind) : bytes_(tag.size() + 1 + behind)
    {
        memset(bytes_.text(), static_cast<int>(behind) - 4, bytes_.size());
        memcpy(bytes_.text(), tag.c_str(), tag.size() + 1);
    }
    const char *text()
    {
        return bytes_.text();
    }

  private:
    guarded_bytes bytes_;
};

std::string random_tag(std::mt19937 &random)
{
    const char letters[] = {'a', 'a', 'a', 'a', 'b', '\x01', '\x7f', '\x80', '\x81', '\xff'};
    std::string tag;
    for (size_t left = random() % 26; left > 0; left--)
        tag += letters[random() % sizeof letters];
    return tag;
}

TEST(TagWords, AreEqualWhenTheTextsAre)
{
    std::mt19937 random(7);
    for (int i = 0; i < 20000 * QVLIB_TEST_PERCENT / 100; i++) {
        const std::string tag = random_tag(random);
        std::string other = tag;
        if (random() % 4 == 0)
            other = random_tag(random);
        else if (!other.empty() && random() % 2)
            other[random() % other.size()] = 'c';
        else if (random() % 2)
            other.resize(random() % (other.size() + 1));
        placed_tag a(tag, random() % 9), b(other, random() % 9);
        ASSERT_EQ(qv::equal_tags(a.text(), b.text()), tag == other) << tag << " and " << other;
        if (tag == other) {
            ASSERT_EQ(qv::tag_filter::mark_of(a.text()), qv::tag_filter::mark_of(b.text())) << tag;
        }
    }
}

TEST(TagFilter, HoldsWhatWasAddedAndFewOthers)
{
    qv::tag_filter filter;
    const auto mark = [](size_t number) { return qv::tag_filter::mark_of(numbered(number).c_str()); };
    size_t held = 0;
    for (size_t i = 0; i < 50; i++) {
        held += filter.can_hold(mark(i));
        filter.add(mark(i));
    }
    for (size_t i = 0; i < 50; i++)
        EXPECT_TRUE(filter.can_hold(mark(i)));
    EXPECT_LT(held, 10u); // 2.4 are to be expected
    filter.clear();
    for (size_t i = 0; i < 50; i++)
        EXPECT_FALSE(filter.can_hold(mark(i)));
}

} // namespace
