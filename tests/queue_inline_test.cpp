// Look-ups in a slot, compiled in place of a call, do what the library's functions do: same result, and the
// same calls of compare with the same arguments.
#include <qvlib/queue.h>

#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "machine.h"

#ifndef QV_INLINE
#error "compile it optimised: there is nothing to be tested otherwise"
#endif

namespace
{

struct compared {
    void *item;
    unsigned int key, flags;
    bool operator==(const compared &) const = default;
};

std::vector<compared> calls;

int compare_key(void *item, unsigned int key, unsigned int flags, ...)
{
    calls.push_back({item, key, flags});
    return item != nullptr && *static_cast<unsigned int *>(item) == key;
}

int remove_item(void *, void *)
{
    return Q_DELETE_REMOVE;
}

// A pointer to a function is the library's.
q_elem *(*volatile const refer_element)(q_queue *, unsigned int, unsigned int) = q_refer_element;
void *(*volatile const refer)(q_queue *, unsigned int, unsigned int) = q_refer;

std::vector<compared> calls_since()
{
    return std::exchange(calls, {});
}

class QueueInline : public testing::Test
{
  protected:
    void TearDown() override
    {
        q_exit(q, nullptr);
    }

    void expect_same(unsigned int key, unsigned int flags)
    {
        calls.clear();
        q_elem *const elem = q_refer_element(q, key, flags);
        const std::vector<compared> in_place = calls_since();
        EXPECT_EQ(refer_element(q, key, flags), elem);
        EXPECT_EQ(calls_since(), in_place);
        void *const item = q_refer(q, key, flags);
        EXPECT_EQ(calls_since(), in_place);
        EXPECT_EQ(refer(q, key, flags), item);
        EXPECT_EQ(calls_since(), in_place);
        EXPECT_EQ(item, elem != nullptr ? elem->data : nullptr);
    }

    // The flags known where it is compiled, as most callers have them.
    void expect_same_without_flags(unsigned int key)
    {
        calls.clear();
        void *const item = q_refer(q, key, 0);
        const std::vector<compared> in_place = calls_since();
        EXPECT_EQ(refer(q, key, 0), item);
        EXPECT_EQ(calls_since(), in_place);
        EXPECT_EQ(q_refer_element(q, key, 0), refer_element(q, key, 0));
    }

    q_queue *q = q_init(7, 3, compare_key, remove_item, nullptr, nullptr);
};

TEST_F(QueueInline, FindsInSlotsAndListsWhatACallFinds)
{
    std::mt19937 random(31);
    auto below = [&random](unsigned int limit) { return static_cast<unsigned int>(random() % limit); };
    std::vector<unsigned int> keys(12);
    for (int round = 0; round < scaled(2000); round++) {
        for (unsigned int &key : keys) {
            key = below(30);
            if (below(2) == 0)
                q_add_queue(q, &key, key, nullptr);
            else
                q_add_list(q, &key, below(3), nullptr);
        }
        for (unsigned int key = 0; key < 30; key++) {
            expect_same(key, below(8));
            expect_same_without_flags(key);
        }
        ASSERT_FALSE(HasFailure()) << "round " << round;
        q_exit(q, nullptr);
        q = q_init(7, 3, compare_key, remove_item, nullptr, nullptr);
    }
}

TEST_F(QueueInline, HandsUnknownFlagsToCompare)
{
    unsigned int key = 3;
    q_add_queue(q, &key, key, nullptr);
    expect_same(3, 0x80000000);
    EXPECT_EQ(q_refer(q, 3, 0x80000000), &key);
    EXPECT_EQ(calls_since(), (std::vector<compared>{{&key, 3, 0x80000000}}));
}

TEST_F(QueueInline, TakesAnItemThatIsNull)
{
    q_add_queue(q, nullptr, 4, nullptr);
    expect_same(4, 0);
    expect_same(4, Q_ANY_OCCUPANT);
}

TEST_F(QueueInline, FindsNothingWithoutAContainer)
{
    EXPECT_EQ(q_refer_element(nullptr, 1, 0), nullptr);
    EXPECT_EQ(q_refer(nullptr, 1, 0), nullptr);
}

} // namespace
