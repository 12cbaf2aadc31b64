#include <qvlib/queue.h>

#include <algorithm>
#include <climits>
#include <list>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "failing_alloc.h"
#include "machine.h"

namespace
{

struct item {
    unsigned int key = 0;
    int verdict = 0; // what delete, clean, filter and match answer for it
    int calls = 0;
};

struct compare_call {
    void *item;
    unsigned int key, flags;
    bool operator==(const compare_call &) const = default;
};

std::vector<compare_call> compare_calls;
std::vector<void *> seen;
void *last_arg;

int compare_key(void *what, unsigned int key, unsigned int flags, ...)
{
    compare_calls.push_back({what, key, flags});
    return static_cast<item *>(what)->key == key;
}

int verdict(void *what, void *arg)
{
    seen.push_back(what);
    last_arg = arg;
    return what != nullptr ? static_cast<item *>(what)->verdict : 0;
}

int verdict_of_element(void *what, void *arg)
{
    seen.push_back(what);
    last_arg = arg;
    return what != nullptr ? static_cast<item *>(static_cast<q_elem *>(what)->data)->verdict : 0;
}

int always(void *, void *)
{
    return 1;
}

int never(void *, void *)
{
    return 0;
}

int same_item(void *what, void *arg)
{
    return what == arg;
}

class Queue : public testing::Test
{
  protected:
    void SetUp() override
    {
        compare_calls.clear();
        seen.clear();
        last_arg = nullptr;
    }

    void TearDown() override
    {
        if (q != nullptr) {
            q->delete_fn = nullptr; // frees every element
            q_exit(q, nullptr);
        }
    }

    void make(unsigned int slots, unsigned int lists, q_item_fn delete_fn = verdict,
              q_item_fn clean_fn = verdict, q_item_fn filter_fn = nullptr)
    {
        q = q_init(slots, lists, compare_key, delete_fn, clean_fn, filter_fn);
        ASSERT_NE(q, nullptr);
    }

    std::vector<void *> items_of(unsigned int list) const
    {
        std::vector<void *> items;
        const q_elem *head = &q->lists[list];
        const q_elem *prev = head;
        for (const q_elem *elem = head->next; elem != head; elem = elem->next) {
            EXPECT_EQ(elem->prev, prev);
            items.push_back(elem->data);
            prev = elem;
        }
        EXPECT_EQ(head->prev, prev);
        return items;
    }

    q_queue *q = nullptr;
    item a{1}, b{2}, c{3}, d{4};
    int tag = 0; // its address is the argument handed through
};

using items = std::vector<void *>;

// ---- q_init

TEST_F(Queue, HasEmptySlotsAndListsAtFirst)
{
    make(4, 3, verdict, verdict_of_element, always);
    EXPECT_EQ(q->slot_count, 4u);
    EXPECT_EQ(q->list_count, 3u);
    EXPECT_EQ(q->compare, compare_key);
    EXPECT_EQ(q->delete_fn, verdict);
    EXPECT_EQ(q->clean_fn, verdict_of_element);
    EXPECT_EQ(q->filter_fn, always);
    for (unsigned int i = 0; i < 4; i++)
        EXPECT_EQ(q->slots[i], nullptr);
    for (unsigned int i = 0; i < 3; i++) {
        EXPECT_EQ(q->lists[i].next, &q->lists[i]);
        EXPECT_EQ(q->lists[i].prev, &q->lists[i]);
        EXPECT_EQ(q->lists[i].data, nullptr);
    }
}

TEST_F(Queue, IsRefusedWithoutSlots)
{
    EXPECT_EQ(q_init(0, 1, compare_key, verdict, verdict, nullptr), nullptr);
}

TEST_F(Queue, IsRefusedWithoutCompare)
{
    EXPECT_EQ(q_init(1, 1, nullptr, verdict, verdict, nullptr), nullptr);
}

TEST_F(Queue, IsRefusedWithoutDeleteAndClean)
{
    EXPECT_EQ(q_init(1, 1, compare_key, nullptr, nullptr, always), nullptr);
}

TEST_F(Queue, NeedsOnlyOneOfDeleteAndClean)
{
    q = q_init(1, 1, compare_key, nullptr, verdict, nullptr);
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(q_exit(q, nullptr), 0);
    make(1, 1, verdict, nullptr);
}

TEST_F(Queue, MayHaveNoLists)
{
    make(2, 0);
    EXPECT_EQ(q_add_list(q, &a, 0, nullptr), nullptr);
    EXPECT_EQ(q_refer_element(q, 1, 0), nullptr);
}

TEST_F(Queue, IsRefusedWhenItsBlockCannotBeHad)
{
    failing_alloc::after none(0);
    EXPECT_EQ(q_init(2, 2, compare_key, verdict, verdict, nullptr), nullptr);
}

TEST_F(Queue, IsRefusedAndKeepsItsBlockWhenTheHeadsCannotBeHad)
{
    failing_alloc::after one(1);
    EXPECT_EQ(q_init(2, 2, compare_key, verdict, verdict, nullptr), nullptr);
    // The block was not released: it can be read and freed here.
    auto *block = static_cast<q_queue *>(failing_alloc::last_calloc);
    EXPECT_EQ(block->lists, nullptr);
    free(block);
}

// ---- Adding

TEST_F(Queue, PutsAnItemIntoTheSlotOfItsKey)
{
    make(8, 1);
    q_elem *elem = q_add_queue(q, &a, 11, nullptr);
    ASSERT_NE(elem, nullptr);
    EXPECT_EQ(q->slots[3], elem);
    EXPECT_EQ(elem->data, &a);
    EXPECT_EQ(elem->next, nullptr);
    EXPECT_EQ(elem->prev, nullptr);
}

TEST_F(Queue, RefusesASecondItemInASlot)
{
    make(8, 1);
    q_elem *elem = q_add_queue(q, &a, 3, nullptr);
    EXPECT_EQ(q_add_queue(q, &b, 11, nullptr), nullptr);
    EXPECT_EQ(q->slots[3], elem);
}

TEST_F(Queue, UsesSlotZeroForKeyZero)
{
    make(5, 1);
    EXPECT_EQ(q_add_queue(q, &a, 0, nullptr), q->slots[0]);
    EXPECT_NE(q->slots[0], nullptr);
}

TEST_F(Queue, TakesTheGreatestKey)
{
    make(7, 1);
    EXPECT_EQ(q_add_queue(q, &a, UINT_MAX, nullptr), q->slots[UINT_MAX % 7]);
}

TEST_F(Queue, AppendsToAList)
{
    make(1, 2);
    q_elem *first = q_add_list(q, &a, 1, nullptr);
    q_elem *second = q_add_list(q, &b, 1, nullptr);
    EXPECT_EQ(q->lists[1].next, first);
    EXPECT_EQ(first->next, second);
    EXPECT_EQ(items_of(1), (items{&a, &b}));
    EXPECT_EQ(items_of(0), items{});
}

TEST_F(Queue, RefusesAListThatDoesNotExistBeforeTheFilterIsAsked)
{
    make(1, 2, verdict, verdict, verdict);
    EXPECT_EQ(q_add_list(q, &a, 2, nullptr), nullptr);
    EXPECT_EQ(q_add_list(q, &a, UINT_MAX, nullptr), nullptr);
    EXPECT_EQ(seen, items{});
}

TEST_F(Queue, AsksTheFilterWithItemAndArgument)
{
    make(2, 1, verdict, verdict, verdict);
    EXPECT_NE(q_add_queue(q, &a, 0, &tag), nullptr);
    EXPECT_EQ(seen, items{&a});
    EXPECT_EQ(last_arg, &tag);
    last_arg = nullptr;
    EXPECT_NE(q_add_list(q, &b, 0, &tag), nullptr);
    EXPECT_EQ(last_arg, &tag);
}

TEST_F(Queue, RefusesWhatTheFilterRefuses)
{
    make(2, 1, verdict, verdict, verdict);
    a.verdict = -5;
    EXPECT_EQ(q_add_queue(q, &a, 0, nullptr), nullptr);
    EXPECT_EQ(q_add_list(q, &a, 0, nullptr), nullptr);
    EXPECT_EQ(q->slots[0], nullptr);
    EXPECT_EQ(items_of(0), items{});
}

TEST_F(Queue, DoesNotAskTheFilterForAnOccupiedSlot)
{
    make(2, 1, verdict, verdict, verdict);
    q_add_queue(q, &a, 1, nullptr);
    seen.clear();
    EXPECT_EQ(q_add_queue(q, &b, 3, nullptr), nullptr);
    EXPECT_EQ(seen, items{});
}

TEST_F(Queue, IsUnchangedWhenAnElementCannotBeHad)
{
    make(2, 1);
    {
        failing_alloc::after none(0);
        EXPECT_EQ(q_add_queue(q, &a, 1, nullptr), nullptr);
    }
    {
        failing_alloc::after none(0);
        EXPECT_EQ(q_add_list(q, &a, 0, nullptr), nullptr);
    }
    EXPECT_EQ(q_queuecount(q), 0u);
    EXPECT_EQ(items_of(0), items{});
}

// ---- Finding

TEST_F(Queue, FindsTheSlotBeforeTheLists)
{
    make(4, 2);
    q_add_list(q, &a, 0, nullptr);
    item twin{1};
    q_elem *elem = q_add_queue(q, &twin, 1, nullptr);
    EXPECT_EQ(q_refer_element(q, 1, 0), elem);
    EXPECT_EQ(q_refer(q, 1, 0), &twin);
}

TEST_F(Queue, SearchesTheListsInOrderFromHeadToTail)
{
    make(4, 3);
    item first{9}, second{9}, third{9};
    q_add_list(q, &third, 2, nullptr);
    q_add_list(q, &a, 1, nullptr);
    q_elem *elem = q_add_list(q, &first, 1, nullptr);
    q_add_list(q, &second, 1, nullptr);
    EXPECT_EQ(q_refer_element(q, 9, 0), elem);
}

TEST_F(Queue, SearchesTheListsWhenTheSlotHoldsAnotherKey)
{
    make(4, 1);
    q_add_queue(q, &a, 1, nullptr);
    item five{5};
    q_add_list(q, &five, 0, nullptr);
    EXPECT_EQ(q_refer(q, 5, 0), &five);
}

TEST_F(Queue, HandsTheFlagsToCompareForTheSlotAndZeroForLists)
{
    make(4, 1);
    q_add_queue(q, &a, 1, nullptr);
    q_add_list(q, &b, 0, nullptr);
    EXPECT_EQ(q_refer_element(q, 9, 0x10), nullptr);
    EXPECT_EQ(compare_calls, (std::vector<compare_call>{{&a, 9, 0x10}, {&b, 9, 0}}));
}

TEST_F(Queue, SkipsTheSlotOnRequest)
{
    make(4, 1);
    q_add_queue(q, &a, 1, nullptr);
    EXPECT_EQ(q_refer_element(q, 1, Q_SKIP_SLOT), nullptr);
    item twin{1};
    q_add_list(q, &twin, 0, nullptr);
    EXPECT_EQ(q_refer(q, 1, Q_SKIP_SLOT), &twin);
}

TEST_F(Queue, SearchesTheSlotOnlyOnRequest)
{
    make(4, 1);
    q_add_list(q, &a, 0, nullptr);
    EXPECT_EQ(q_refer_element(q, 1, Q_SLOT_ONLY), nullptr);
    q_elem *elem = q_add_queue(q, &a, 1, nullptr);
    EXPECT_EQ(q_refer_element(q, 1, Q_SLOT_ONLY), elem);
    EXPECT_EQ(q_refer_element(q, 1, Q_SKIP_SLOT | Q_SLOT_ONLY), nullptr);
}

TEST_F(Queue, TakesAnyOccupantWithoutCompareOnRequest)
{
    make(8, 1);
    q_elem *elem = q_add_queue(q, &a, 3, nullptr);
    EXPECT_EQ(q_refer_element(q, 19, Q_ANY_OCCUPANT), elem);
    EXPECT_TRUE(compare_calls.empty());
    EXPECT_EQ(q_refer_element(q, 4, Q_ANY_OCCUPANT), nullptr);
}

TEST_F(Queue, FindsNothingInAnEmptyContainer)
{
    make(2, 2);
    EXPECT_EQ(q_refer_element(q, 0, 0), nullptr);
    EXPECT_EQ(q_refer(q, 0, 0), nullptr);
}

TEST_F(Queue, SearchesOneListOnly)
{
    make(2, 2);
    q_add_queue(q, &a, 1, nullptr);
    q_add_list(q, &b, 0, nullptr);
    item twin{2};
    q_elem *elem = q_add_list(q, &twin, 1, nullptr);
    EXPECT_EQ(q_refer_list_element(q, 1, 2), elem);
    EXPECT_EQ(q_refer_list(q, 1, 2), &twin);
    EXPECT_EQ(q_refer_list(q, 0, 1), nullptr);
    EXPECT_EQ(q_refer_list_element(q, 0, 7), nullptr);
    EXPECT_EQ(q_refer_list_element(q, 2, 2), nullptr);
    EXPECT_EQ(q_refer_list(q, 2, 2), nullptr);
}

// ---- Moving

TEST_F(Queue, MovesASlotsElementToATailWithoutCompare)
{
    make(4, 1);
    q_add_list(q, &a, 0, nullptr);
    q_elem *elem = q_add_queue(q, &b, 2, nullptr);
    EXPECT_EQ(q_q2l(q, 0, 6), 0);
    EXPECT_EQ(q->slots[2], nullptr);
    EXPECT_EQ(q->lists[0].prev, elem);
    EXPECT_EQ(items_of(0), (items{&a, &b}));
    EXPECT_TRUE(compare_calls.empty());
}

TEST_F(Queue, MovesNothingFromAnEmptySlotOrToABadList)
{
    make(4, 1);
    EXPECT_EQ(q_q2l(q, 0, 2), -1);
    q_elem *elem = q_add_queue(q, &b, 2, nullptr);
    EXPECT_EQ(q_q2l(q, 1, 2), -1);
    EXPECT_EQ(q->slots[2], elem);
}

TEST_F(Queue, MovesTheFirstMatchFromListToList)
{
    make(1, 2);
    item twin{1};
    q_add_list(q, &b, 0, nullptr);
    q_add_list(q, &a, 0, nullptr);
    q_add_list(q, &twin, 0, nullptr);
    q_add_list(q, &c, 1, nullptr);
    EXPECT_EQ(q_l2l(q, 0, 1, 1), 0);
    EXPECT_EQ(items_of(0), (items{&b, &twin}));
    EXPECT_EQ(items_of(1), (items{&c, &a}));
}

TEST_F(Queue, MovesAMatchToTheTailOfItsOwnList)
{
    make(1, 1);
    q_add_list(q, &a, 0, nullptr);
    q_add_list(q, &b, 0, nullptr);
    EXPECT_EQ(q_l2l(q, 0, 0, 1), 0);
    EXPECT_EQ(items_of(0), (items{&b, &a}));
}

TEST_F(Queue, MovesNothingBetweenListsWithoutAMatchOrWithABadIndex)
{
    make(1, 2);
    q_add_list(q, &a, 0, nullptr);
    EXPECT_EQ(q_l2l(q, 0, 1, 9), -1);
    EXPECT_EQ(q_l2l(q, 1, 0, 1), -1);
    EXPECT_EQ(q_l2l(q, 2, 0, 1), -1);
    EXPECT_EQ(q_l2l(q, 0, 2, 1), -1);
    EXPECT_EQ(items_of(0), items{&a});
}

// ---- Walks

struct work_call {
    q_queue *q;
    void *what, *arg;
    int zero;
    bool operator==(const work_call &) const = default;
};

std::vector<work_call> work_calls;

int record_work(q_queue *q, void *what, void *arg, int zero)
{
    work_calls.push_back({q, what, arg, zero});
    return 1 << (work_calls.size() - 1);
}

TEST_F(Queue, WorksOnEverySlotWithElements)
{
    make(3, 1);
    q_elem *elem = q_add_queue(q, &a, 1, nullptr);
    work_calls.clear();
    EXPECT_EQ(q_work_queue(q, record_work, &tag), 7);
    EXPECT_EQ(work_calls,
              (std::vector<work_call>{{q, nullptr, &tag, 0}, {q, elem, &tag, 0}, {q, nullptr, &tag, 0}}));
}

TEST_F(Queue, WorksOnAListWithItems)
{
    make(1, 2);
    q_add_list(q, &a, 1, nullptr);
    q_add_list(q, &b, 1, nullptr);
    work_calls.clear();
    EXPECT_EQ(q_work_list(q, 1, record_work, &tag), 3);
    EXPECT_EQ(work_calls, (std::vector<work_call>{{q, &a, &tag, 0}, {q, &b, &tag, 0}}));
    EXPECT_EQ(q_work_list(q, 0, record_work, &tag), 0);
    EXPECT_EQ(q_work_list(q, 2, record_work, &tag), -1);
}

TEST_F(Queue, WorksOnSlotsThenLists)
{
    make(1, 2);
    q_elem *elem = q_add_queue(q, &a, 0, nullptr);
    q_add_list(q, &c, 1, nullptr);
    q_add_list(q, &b, 0, nullptr);
    work_calls.clear();
    EXPECT_EQ(q_work_all(q, record_work, &tag), 7);
    EXPECT_EQ(work_calls, (std::vector<work_call>{{q, elem, &tag, 0}, {q, &b, &tag, 0}, {q, &c, &tag, 0}}));
}

int remove_from_first_list(q_queue *q, void *what, void *, int)
{
    return q_delete_list(q, 0, same_item, what, nullptr);
}

TEST_F(Queue, LetsAListCallbackRemoveItsElement)
{
    make(1, 1);
    for (item *each : {&a, &b, &c}) {
        each->verdict = Q_DELETE_REMOVE;
        q_add_list(q, each, 0, nullptr);
    }
    EXPECT_EQ(q_work_list(q, 0, remove_from_first_list, nullptr), 1);
    EXPECT_EQ(items_of(0), items{});
}

// ---- Counts

int counts_key_of_element(q_elem *elem)
{
    return static_cast<item *>(elem->data)->key > 1 ? -1 : 0;
}

TEST_F(Queue, CountsOccupiedSlots)
{
    make(4, 1);
    EXPECT_EQ(q_queuecount(q), 0u);
    q_add_queue(q, &a, 1, nullptr);
    q_add_queue(q, &b, 2, nullptr);
    EXPECT_EQ(q_queuecount(q), 2u);
}

TEST_F(Queue, CountsTheElementsOfAList)
{
    make(1, 2);
    q_add_list(q, &a, 1, nullptr);
    q_add_list(q, &b, 1, nullptr);
    q_add_list(q, &c, 1, nullptr);
    EXPECT_EQ(q_listcount(q, 0), 0u);
    EXPECT_EQ(q_listcount(q, 1), 3u);
    EXPECT_EQ(q_listcount_filter(q, 1, counts_key_of_element), 2u);
}

TEST_F(Queue, CountsNothingWhereNothingIs)
{
    make(1, 1);
    EXPECT_EQ(q_listcount(q, 1), 0u);
    EXPECT_EQ(q_listcount_filter(q, 1, counts_key_of_element), 0u);
    EXPECT_EQ(q_listcount_filter(q, 0, nullptr), 0u);
    EXPECT_EQ(q_queuecount(nullptr), 0u);
    EXPECT_EQ(q_listcount(nullptr, 0), 0u);
    EXPECT_EQ(q_listcount_filter(nullptr, 0, counts_key_of_element), 0u);
}

// ---- Dumps

struct dump_call {
    void *item, *arg;
    std::string label;
    bool operator==(const dump_call &) const = default;
};

std::vector<dump_call> dump_calls;

int record_dump(void *what, void *arg, const char *label)
{
    dump_calls.push_back({what, arg, label});
    return static_cast<item *>(what)->verdict;
}

TEST_F(Queue, DumpsOccupiedSlotsWithTheirNumber)
{
    make(0x12346, 1);
    a.verdict = 7;
    b.verdict = 5;
    q_add_queue(q, &a, 10, nullptr);
    q_add_queue(q, &b, 0x12345, nullptr);
    dump_calls.clear();
    EXPECT_EQ(q_dump_queue(q, record_dump, &tag), 5);
    EXPECT_EQ(dump_calls, (std::vector<dump_call>{{&a, &tag, "Elm:000a"}, {&b, &tag, "Elm:12345"}}));
}

TEST_F(Queue, DumpsAListWithItsIndex)
{
    make(1, 27);
    q_add_list(q, &b, 26, nullptr);
    q_add_list(q, &a, 26, nullptr);
    dump_calls.clear();
    q_dump_list(q, 26, record_dump, &tag);
    EXPECT_EQ(dump_calls, (std::vector<dump_call>{{&b, &tag, "List 1a"}, {&a, &tag, "List 1a"}}));
}

TEST_F(Queue, DumpsNothingWhereNothingIs)
{
    make(2, 1);
    dump_calls.clear();
    EXPECT_EQ(q_dump_queue(q, record_dump, nullptr), 0);
    q_dump_list(q, 0, record_dump, nullptr);
    q_dump_list(q, 1, record_dump, nullptr);
    q_dump_list(nullptr, 0, record_dump, nullptr);
    EXPECT_EQ(q_dump_queue(nullptr, record_dump, nullptr), 0);
    EXPECT_EQ(q_dump_queue(q, nullptr, nullptr), 0);
    q_dump_list(q, 0, nullptr, nullptr);
    EXPECT_TRUE(dump_calls.empty());
}

// ---- Clean

TEST_F(Queue, CleansEverySlotAndEmptiesItEvenOnZero)
{
    make(3, 1, nullptr, verdict_of_element);
    q_elem *elem = q_add_queue(q, &a, 1, nullptr);
    EXPECT_EQ(q_clean_queue(q, &tag), 0);
    EXPECT_EQ(seen, (items{nullptr, elem, nullptr}));
    EXPECT_EQ(last_arg, &tag);
    EXPECT_EQ(q_queuecount(q), 0u);
}

TEST_F(Queue, SumsUpTheResultsOfCleaningSlots)
{
    make(3, 1, nullptr, verdict_of_element);
    a.verdict = 1;
    b.verdict = 5;
    q_add_queue(q, &a, 1, nullptr);
    q_add_queue(q, &b, 2, nullptr);
    EXPECT_EQ(q_clean_queue(q, nullptr), 6);
    EXPECT_EQ(q_queuecount(q), 0u);
}

TEST_F(Queue, StopsCleaningSlotsOnTwoWithTheSumSoFar)
{
    make(4, 1, nullptr, verdict_of_element);
    a.verdict = 3;
    b.verdict = Q_CLEAN_STOP;
    q_add_queue(q, &a, 0, nullptr);
    q_add_queue(q, &b, 1, nullptr);
    q_add_queue(q, &c, 2, nullptr);
    EXPECT_EQ(q_clean_queue(q, nullptr), 3);
    EXPECT_EQ(q->slots[0], nullptr);
    EXPECT_NE(q->slots[1], nullptr);
    EXPECT_NE(q->slots[2], nullptr);
}

TEST_F(Queue, StopsCleaningSlotsOnANegativeResultAndKeepsThatElement)
{
    make(2, 1, nullptr, verdict_of_element);
    a.verdict = 3;
    b.verdict = -7;
    q_add_queue(q, &a, 0, nullptr);
    q_add_queue(q, &b, 1, nullptr);
    EXPECT_EQ(q_clean_queue(q, nullptr), -7);
    EXPECT_EQ(q->slots[0], nullptr);
    EXPECT_NE(q->slots[1], nullptr);
}

TEST_F(Queue, CleansAListFromTailToHeadAndReturnsZero)
{
    make(1, 1);
    a.verdict = 1;
    b.verdict = 0;
    c.verdict = 9;
    for (item *each : {&a, &b, &c})
        q_add_list(q, each, 0, nullptr);
    EXPECT_EQ(q_clean_list(q, 0, &tag), 0);
    EXPECT_EQ(seen, (items{&c, &b, &a}));
    EXPECT_EQ(last_arg, &tag);
    EXPECT_EQ(items_of(0), items{&b});
}

TEST_F(Queue, StopsCleaningAListOnTwoWithTheSumSoFar)
{
    make(1, 1);
    a.verdict = 1;
    b.verdict = Q_CLEAN_STOP;
    c.verdict = 9;
    for (item *each : {&a, &b, &c})
        q_add_list(q, each, 0, nullptr);
    EXPECT_EQ(q_clean_list(q, 0, nullptr), 9);
    EXPECT_EQ(items_of(0), (items{&a, &b}));
}

TEST_F(Queue, StopsCleaningAListOnANegativeResult)
{
    make(1, 1);
    a.verdict = 1;
    b.verdict = -3;
    c.verdict = 1;
    for (item *each : {&a, &b, &c})
        q_add_list(q, each, 0, nullptr);
    EXPECT_EQ(q_clean_list(q, 0, nullptr), -3);
    EXPECT_EQ(items_of(0), (items{&a, &b}));
}

TEST_F(Queue, CannotBeCleanedWithoutClean)
{
    make(1, 1, verdict, nullptr);
    EXPECT_EQ(q_clean_queue(q, nullptr), -1);
    EXPECT_EQ(q_clean_list(q, 0, nullptr), -1);
    EXPECT_EQ(q_clean(q, nullptr), -1);
}

TEST_F(Queue, CannotCleanAListThatDoesNotExist)
{
    make(1, 1);
    EXPECT_EQ(q_clean_list(q, 1, nullptr), -1);
}

// The slots' elements and the lists' items go to the same callback, so this one knows them by address.
std::map<void *, int> clean_results;

int clean_by_address(void *what, void *)
{
    seen.push_back(what);
    auto found = clean_results.find(what);
    return found != clean_results.end() ? found->second : 0;
}

TEST_F(Queue, AddsUpSlotsAndListsWhenCleanedWhole)
{
    make(2, 2, nullptr, clean_by_address);
    clean_results = {{q_add_queue(q, &a, 0, nullptr), 4}, {&b, 5}, {&c, 6}};
    q_add_list(q, &b, 0, nullptr);
    q_add_list(q, &c, 1, nullptr);
    // A list that was cleaned to its end counts 0.
    EXPECT_EQ(q_clean(q, nullptr), 4);
    EXPECT_EQ(items_of(0), items{});
    EXPECT_EQ(items_of(1), items{});
}

TEST_F(Queue, AddsTheSumOfAListThatStoppedAndGoesOn)
{
    make(1, 2, nullptr, clean_by_address);
    clean_results = {{q_add_queue(q, &a, 0, nullptr), 4}, {&b, Q_CLEAN_STOP}, {&c, 6}, {&d, 1}};
    q_add_list(q, &b, 0, nullptr);
    q_add_list(q, &c, 0, nullptr);
    q_add_list(q, &d, 1, nullptr);
    EXPECT_EQ(q_clean(q, nullptr), 10);
    EXPECT_EQ(items_of(0), items{&b});
    EXPECT_EQ(items_of(1), items{});
}

TEST_F(Queue, ReturnsTheSumSoFarWhenAListAddsUpToTwo)
{
    make(1, 2, nullptr, clean_by_address);
    item e{5};
    clean_results = {{q_add_queue(q, &a, 0, nullptr), 7}, {&b, Q_CLEAN_STOP}, {&c, 1}, {&e, 1}, {&d, 1}};
    for (item *each : {&b, &c, &e})
        q_add_list(q, each, 0, nullptr);
    q_add_list(q, &d, 1, nullptr);
    EXPECT_EQ(q_clean(q, nullptr), 7);
    EXPECT_EQ(items_of(1), items{&d});
}

TEST_F(Queue, ReturnsAtOnceWhenTheSlotsAddUpToTwoOrFail)
{
    make(2, 1, nullptr, clean_by_address);
    q_add_list(q, &d, 0, nullptr);
    clean_results = {{q_add_queue(q, &a, 0, nullptr), 1}, {q_add_queue(q, &b, 1, nullptr), 1}, {&d, 1}};
    EXPECT_EQ(q_clean(q, nullptr), 2);
    EXPECT_EQ(items_of(0), items{&d});
    clean_results = {{q_add_queue(q, &a, 0, nullptr), -9}, {&d, 1}};
    EXPECT_EQ(q_clean(q, nullptr), -9);
    EXPECT_EQ(items_of(0), items{&d});
}

TEST_F(Queue, ReturnsANegativeResultOfAListAtOnce)
{
    make(1, 2, nullptr, clean_by_address);
    clean_results = {{&b, -4}, {&d, 1}};
    q_add_list(q, &b, 0, nullptr);
    q_add_list(q, &d, 1, nullptr);
    EXPECT_EQ(q_clean(q, nullptr), -4);
    EXPECT_EQ(items_of(1), items{&d});
}

// ---- Delete

TEST_F(Queue, DeletesTheFirstMatchingSlotThatAnswersOne)
{
    make(4, 1);
    a.verdict = Q_DELETE_NEXT;
    b.verdict = Q_DELETE_REMOVE;
    c.verdict = Q_DELETE_REMOVE;
    q_add_queue(q, &a, 0, nullptr);
    q_add_queue(q, &b, 2, nullptr);
    q_add_queue(q, &c, 3, nullptr);
    EXPECT_EQ(q_delete_queue(q, always, nullptr, &tag), 1);
    EXPECT_EQ(seen, (items{&a, &b}));
    EXPECT_EQ(last_arg, &tag);
    EXPECT_NE(q->slots[0], nullptr);
    EXPECT_EQ(q->slots[2], nullptr);
    EXPECT_NE(q->slots[3], nullptr);
}

TEST_F(Queue, OffersOnlyMatchingItemsForDeletion)
{
    make(4, 1);
    a.verdict = b.verdict = c.verdict = Q_DELETE_REMOVE;
    q_add_queue(q, &a, 0, nullptr);
    q_add_queue(q, &b, 1, nullptr);
    EXPECT_EQ(q_delete_queue(q, same_item, &b, nullptr), 1);
    EXPECT_EQ(seen, items{&b});
    q_add_list(q, &a, 0, nullptr);
    q_add_list(q, &c, 0, nullptr);
    EXPECT_EQ(q_delete_list(q, 0, same_item, &c, nullptr), 1);
    EXPECT_EQ(items_of(0), items{&a});
}

TEST_F(Queue, StopsDeletingSlotsOnAnyOtherResult)
{
    make(2, 1);
    a.verdict = -6;
    b.verdict = Q_DELETE_REMOVE;
    q_add_queue(q, &a, 0, nullptr);
    q_add_queue(q, &b, 1, nullptr);
    EXPECT_EQ(q_delete_queue(q, always, nullptr, nullptr), -6);
    a.verdict = 0;
    EXPECT_EQ(q_delete_queue(q, always, nullptr, nullptr), 0);
    a.verdict = 2;
    EXPECT_EQ(q_delete_queue(q, always, nullptr, nullptr), 2);
    EXPECT_EQ(q_queuecount(q), 2u);
}

TEST_F(Queue, AnswersZeroWhenTheSlotsAreExhausted)
{
    make(2, 1);
    a.verdict = Q_DELETE_NEXT;
    q_add_queue(q, &a, 0, nullptr);
    EXPECT_EQ(q_delete_queue(q, always, nullptr, nullptr), 0);
    EXPECT_EQ(q_delete_queue(q, never, nullptr, nullptr), 0);
}

TEST_F(Queue, DeletesTheFirstMatchingElementOfAListThatAnswersOne)
{
    make(1, 1);
    a.verdict = Q_DELETE_NEXT;
    b.verdict = Q_DELETE_REMOVE;
    c.verdict = Q_DELETE_REMOVE;
    for (item *each : {&a, &b, &c})
        q_add_list(q, each, 0, nullptr);
    EXPECT_EQ(q_delete_list(q, 0, always, nullptr, &tag), 1);
    EXPECT_EQ(seen, (items{&a, &b}));
    EXPECT_EQ(last_arg, &tag);
    EXPECT_EQ(items_of(0), (items{&a, &c}));
}

TEST_F(Queue, StopsDeletingInAListOnAnyOtherResult)
{
    make(1, 1);
    a.verdict = -6;
    b.verdict = Q_DELETE_REMOVE;
    q_add_list(q, &a, 0, nullptr);
    q_add_list(q, &b, 0, nullptr);
    EXPECT_EQ(q_delete_list(q, 0, always, nullptr, nullptr), -6);
    a.verdict = 0;
    EXPECT_EQ(q_delete_list(q, 0, always, nullptr, nullptr), 0);
    EXPECT_EQ(items_of(0), (items{&a, &b}));
}

TEST_F(Queue, AnswersThreeWhenTheLastMatchOfAListSaidSo)
{
    make(1, 1);
    a.verdict = Q_DELETE_NEXT;
    q_add_list(q, &a, 0, nullptr);
    q_add_list(q, &b, 0, nullptr);
    EXPECT_EQ(q_delete_list(q, 0, same_item, &a, nullptr), 3);
    EXPECT_EQ(q_delete_list(q, 0, never, nullptr, nullptr), 0);
}

TEST_F(Queue, CannotDeleteWithoutDeleteOrMatch)
{
    make(1, 1, nullptr, verdict);
    q_add_queue(q, &a, 0, nullptr);
    EXPECT_EQ(q_delete_queue(q, always, nullptr, nullptr), -1);
    EXPECT_EQ(q_delete_list(q, 0, always, nullptr, nullptr), -1);
    EXPECT_EQ(q_delete(q, always, nullptr, nullptr), -1);
    q->delete_fn = verdict;
    EXPECT_EQ(q_delete_queue(q, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(q_delete_list(q, 0, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(q_delete_list(q, 1, always, nullptr, nullptr), -1);
    EXPECT_EQ(q_delete(q, nullptr, nullptr, nullptr), -1);
}

TEST_F(Queue, RemovesOnlyTheFirstElementThatAnswersOneOverAll)
{
    make(2, 2);
    a.verdict = b.verdict = c.verdict = Q_DELETE_REMOVE;
    q_add_queue(q, &a, 1, nullptr);
    q_add_list(q, &b, 0, nullptr);
    q_add_list(q, &c, 1, nullptr);
    EXPECT_EQ(q_delete(q, always, nullptr, &tag), 1);
    EXPECT_EQ(q_queuecount(q), 0u);
    EXPECT_EQ(q_delete(q, same_item, &c, &tag), 1);
    EXPECT_EQ(items_of(0), items{&b});
    EXPECT_EQ(items_of(1), items{});
    EXPECT_EQ(q_delete(q, never, nullptr, &tag), 0);
}

TEST_F(Queue, StopsOverAllAtAListThatAnswersThree)
{
    make(1, 2);
    a.verdict = Q_DELETE_NEXT;
    b.verdict = Q_DELETE_REMOVE;
    q_add_list(q, &a, 0, nullptr);
    q_add_list(q, &b, 1, nullptr);
    EXPECT_EQ(q_delete(q, always, nullptr, nullptr), 3);
    EXPECT_EQ(items_of(1), items{&b});
}

// ---- q_exit

TEST_F(Queue, CallsDeleteForEveryItemAtItsEnd)
{
    make(2, 2);
    a.verdict = 0; // a slot's element is freed whatever the answer
    b.verdict = c.verdict = d.verdict = Q_DELETE_REMOVE;
    q_add_queue(q, &a, 1, nullptr);
    q_add_list(q, &d, 1, nullptr);
    q_add_list(q, &b, 0, nullptr);
    q_add_list(q, &c, 0, nullptr);
    EXPECT_EQ(q_exit(q, &tag), 0);
    q = nullptr;
    EXPECT_EQ(seen, (items{&a, &b, &c, &d}));
    EXPECT_EQ(last_arg, &tag);
}

TEST_F(Queue, FreesEverythingAtItsEndWithoutDelete)
{
    make(2, 1, nullptr, verdict);
    q_add_queue(q, &a, 1, nullptr);
    q_add_list(q, &b, 0, nullptr);
    EXPECT_EQ(q_exit(q, nullptr), 0);
    q = nullptr;
}

TEST_F(Queue, LeavesListElementsThatDeleteKeepsAtItsEnd)
{
    make(1, 1);
    a.verdict = Q_DELETE_NEXT;
    b.verdict = Q_DELETE_REMOVE;
    q_elem *kept = q_add_list(q, &a, 0, nullptr);
    q_add_list(q, &b, 0, nullptr);
    EXPECT_EQ(q_exit(q, nullptr), 0);
    q = nullptr;
    EXPECT_EQ(kept->data, &a);
    free(kept);
}

q_queue *exiting;

int empty_own_slot(void *, void *)
{
    free(exiting->slots[0]);
    exiting->slots[0] = nullptr;
    return Q_DELETE_REMOVE;
}

TEST_F(Queue, LetsDeleteEmptyItsSlotItself)
{
    make(1, 0, empty_own_slot, nullptr);
    exiting = q;
    q_add_queue(q, &a, 0, nullptr);
    EXPECT_EQ(q_delete_queue(q, always, nullptr, nullptr), 1);
    q_add_queue(q, &a, 0, nullptr);
    EXPECT_EQ(q_exit(q, nullptr), 0);
    q = nullptr;
}

TEST_F(Queue, MayBeNullEverywhere)
{
    EXPECT_EQ(q_add_queue(nullptr, &a, 0, nullptr), nullptr);
    EXPECT_EQ(q_add_list(nullptr, &a, 0, nullptr), nullptr);
    EXPECT_EQ(q_refer_element(nullptr, 0, 0), nullptr);
    EXPECT_EQ(q_refer(nullptr, 0, 0), nullptr);
    EXPECT_EQ(q_refer_list_element(nullptr, 0, 0), nullptr);
    EXPECT_EQ(q_refer_list(nullptr, 0, 0), nullptr);
    EXPECT_EQ(q_q2l(nullptr, 0, 0), -1);
    EXPECT_EQ(q_l2l(nullptr, 0, 0, 0), -1);
    EXPECT_EQ(q_work_queue(nullptr, record_work, nullptr), -1);
    EXPECT_EQ(q_work_list(nullptr, 0, record_work, nullptr), -1);
    EXPECT_EQ(q_work_all(nullptr, record_work, nullptr), -1);
    EXPECT_EQ(q_clean_queue(nullptr, nullptr), -1);
    EXPECT_EQ(q_clean_list(nullptr, 0, nullptr), -1);
    EXPECT_EQ(q_clean(nullptr, nullptr), -1);
    EXPECT_EQ(q_delete_queue(nullptr, always, nullptr, nullptr), -1);
    EXPECT_EQ(q_delete_list(nullptr, 0, always, nullptr, nullptr), -1);
    EXPECT_EQ(q_delete(nullptr, always, nullptr, nullptr), -1);
    EXPECT_EQ(q_exit(nullptr, nullptr), -1);
}

TEST_F(Queue, CannotBeWalkedWithoutACallback)
{
    make(1, 1);
    EXPECT_EQ(q_work_queue(q, nullptr, nullptr), -1);
    EXPECT_EQ(q_work_list(q, 0, nullptr, nullptr), -1);
    EXPECT_EQ(q_work_all(q, nullptr, nullptr), -1);
}

// ---- Against a model

// Slots and lists of item numbers, with nothing clever about them.
struct model {
    std::vector<int> slots;
    std::vector<std::vector<int>> lists;

    explicit model(unsigned int slot_count, unsigned int list_count)
        : slots(slot_count, -1), lists(list_count)
    {
    }

    // List and position of the first item with the key.
    int find(std::vector<item> &all, unsigned int list, unsigned int key) const
    {
        for (size_t i = 0; i < lists[list].size(); i++)
            if (all[static_cast<size_t>(lists[list][i])].key == key)
                return static_cast<int>(i);
        return -1;
    }
};

TEST_F(Queue, BehavesAsAPlainModelOverRandomOperations)
{
    constexpr unsigned int slots = 7, lists = 3, keys = 40;
    std::mt19937 random(20);
    auto below = [&random](unsigned int limit) { return static_cast<unsigned int>(random() % limit); };
    std::vector<item> all(60);
    std::vector<bool> used(all.size());
    make(slots, lists, verdict, clean_by_address);
    model m(slots, lists);
    auto item_at = [&all](int number) -> void * {
        return number < 0 ? nullptr : &all[static_cast<size_t>(number)];
    };

    for (int step = 0; step < scaled(100000); step++) {
        const unsigned int key = below(keys), list = below(lists + 1), to = below(lists + 1);
        int &slot = m.slots[key % slots];
        const size_t number = below(static_cast<unsigned int>(all.size()));
        switch (below(7)) {
        case 0:
            if (used[number])
                break;
            all[number].key = key;
            ASSERT_EQ(q_add_queue(q, &all[number], key, nullptr) != nullptr, slot < 0);
            if (slot < 0) {
                slot = static_cast<int>(number);
                used[number] = true;
            }
            break;
        case 1:
            if (used[number])
                break;
            all[number].key = key;
            ASSERT_EQ(q_add_list(q, &all[number], list, nullptr) != nullptr, list < lists);
            if (list < lists) {
                m.lists[list].push_back(static_cast<int>(number));
                used[number] = true;
            }
            break;
        case 2: {
            const unsigned int flags = below(8);
            int expected = -1;
            if ((flags & 1) == 0 && slot >= 0 &&
                ((flags & 4) != 0 || all[static_cast<size_t>(slot)].key == key))
                expected = slot;
            for (unsigned int i = 0; expected < 0 && (flags & 2) == 0 && i < lists; i++)
                if (int at = m.find(all, i, key); at >= 0)
                    expected = m.lists[i][static_cast<size_t>(at)];
            ASSERT_EQ(q_refer(q, key, flags), item_at(expected));
            break;
        }
        case 3:
            ASSERT_EQ(q_q2l(q, list, key), slot >= 0 && list < lists ? 0 : -1);
            if (slot >= 0 && list < lists) {
                m.lists[list].push_back(slot);
                slot = -1;
            }
            break;
        case 4: {
            const int at = list < lists && to < lists ? m.find(all, list, key) : -1;
            ASSERT_EQ(q_l2l(q, list, to, key), at >= 0 ? 0 : -1);
            if (at >= 0) {
                const int moved = m.lists[list][static_cast<size_t>(at)];
                m.lists[list].erase(m.lists[list].begin() + at);
                m.lists[to].push_back(moved);
            }
            break;
        }
        case 5: {
            all[number].verdict = Q_DELETE_REMOVE;
            ASSERT_EQ(q_delete(q, same_item, &all[number], nullptr), used[number] ? 1 : 0);
            all[number].verdict = 0;
            used[number] = false;
            std::replace(m.slots.begin(), m.slots.end(), static_cast<int>(number), -1);
            for (auto &each : m.lists)
                std::erase(each, static_cast<int>(number));
            break;
        }
        case 6: {
            clean_results = {{&all[number], 1}};
            const bool stop = below(2) == 0; // at the tail, so that nothing is removed
            if (stop && list < lists && !m.lists[list].empty())
                clean_results[item_at(m.lists[list].back())] = Q_CLEAN_STOP;
            ASSERT_EQ(q_clean_list(q, list, nullptr), list < lists ? 0 : -1);
            if (list < lists && (!stop || m.lists[list].empty()))
                if (std::erase(m.lists[list], static_cast<int>(number)) > 0)
                    used[number] = false;
            break;
        }
        }
        for (unsigned int i = 0; i < slots; i++)
            ASSERT_EQ(q->slots[i] != nullptr ? q->slots[i]->data : nullptr, item_at(m.slots[i]));
        for (unsigned int i = 0; i < lists; i++) {
            items expected;
            for (int each : m.lists[i])
                expected.push_back(item_at(each));
            ASSERT_EQ(items_of(i), expected) << "step " << step;
        }
        compare_calls.clear();
        seen.clear();
    }
}

// ---- __list_sort

using sorted_pairs = std::vector<std::pair<const q_elem *, const q_elem *>>;

sorted_pairs pairs;

int compare_recorded(q_elem *first, q_elem *second)
{
    pairs.emplace_back(first, second);
    const auto x = static_cast<item *>(first->data)->key, y = static_cast<item *>(second->data)->key;
    return x < y ? -1 : x > y;
}

// The sort as its contract words it, over copies of the order.
std::vector<q_elem *> sort_plainly(const std::vector<q_elem *> &list, unsigned int count)
{
    if (count < 2)
        return list;
    const auto middle = list.begin() + std::min<long>(count / 2, static_cast<long>(list.size()));
    std::vector<q_elem *> first = sort_plainly({list.begin(), middle}, count / 2);
    std::vector<q_elem *> second = sort_plainly({middle, list.end()}, count - count / 2);
    std::vector<q_elem *> merged;
    size_t i = 0, j = 0;
    while (i < first.size() && j < second.size())
        merged.push_back(compare_recorded(first[i], second[j]) > 0 ? first[i++] : second[j++]);
    merged.insert(merged.end(), first.begin() + static_cast<long>(i), first.end());
    merged.insert(merged.end(), second.begin() + static_cast<long>(j), second.end());
    return merged;
}

struct sortable {
    q_elem head;
    std::vector<item> values;
    std::vector<q_elem> elements;

    explicit sortable(const std::vector<unsigned int> &keys) : elements(keys.size())
    {
        for (unsigned int key : keys)
            values.push_back({key});
        head.next = head.prev = &head;
        for (size_t i = 0; i < elements.size(); i++) {
            elements[i] = {&head, head.prev, &values[i]};
            head.prev->next = &elements[i];
            head.prev = &elements[i];
        }
    }

    std::vector<q_elem *> order() const
    {
        std::vector<q_elem *> list;
        const q_elem *prev = &head;
        for (q_elem *elem = head.next; elem != &head && list.size() <= elements.size(); elem = elem->next) {
            EXPECT_EQ(elem->prev, prev);
            prev = elem;
            list.push_back(elem);
        }
        EXPECT_EQ(head.prev, prev);
        return list;
    }

    std::vector<unsigned int> keys() const
    {
        std::vector<unsigned int> list;
        for (const q_elem *elem : order())
            list.push_back(static_cast<item *>(elem->data)->key);
        return list;
    }
};

void expect_sorted_as_worded(const std::vector<unsigned int> &keys, unsigned int count)
{
    sortable list(keys);
    pairs.clear();
    const std::vector<q_elem *> expected = sort_plainly(list.order(), count);
    const sorted_pairs expected_pairs = pairs;
    pairs.clear();
    __list_sort(&list.head, count, compare_recorded);
    EXPECT_EQ(list.order(), expected);
    EXPECT_EQ(pairs, expected_pairs);
}

TEST(ListSort, PutsWhatComparesGreaterFirst)
{
    sortable list({1, 3, 2});
    __list_sort(&list.head, 3, compare_recorded);
    EXPECT_EQ(list.keys(), (std::vector<unsigned int>{3, 2, 1}));
}

TEST(ListSort, PutsTheLaterOfTwoEqualElementsFirst)
{
    sortable list({5, 5});
    __list_sort(&list.head, 2, compare_recorded);
    EXPECT_EQ(list.order(), (std::vector<q_elem *>{&list.elements[1], &list.elements[0]}));
}

TEST(ListSort, LeavesCountsBelowTwoAlone)
{
    for (unsigned int count : {0u, 1u}) {
        sortable list({1, 2, 3});
        pairs.clear();
        __list_sort(&list.head, count, compare_recorded);
        EXPECT_EQ(list.keys(), (std::vector<unsigned int>{1, 2, 3}));
        EXPECT_TRUE(pairs.empty());
    }
}

TEST(ListSort, ComparesThePairsOfTheRecursiveSortInItsOrder)
{
    std::mt19937 random(7);
    for (unsigned int size = 0; size < 200; size++) {
        SCOPED_TRACE(size);
        std::vector<unsigned int> keys(size);
        for (unsigned int &key : keys)
            key = static_cast<unsigned int>(random() % (size + 1));
        expect_sorted_as_worded(keys, size);
    }
}

TEST(ListSort, LosesNoElementWhenTheCountIsWrong)
{
    std::mt19937 random(8);
    for (unsigned int size = 0; size < 40; size++)
        for (unsigned int count : {2u, 3u, 7u, 20u, 39u, 41u, 100u, 4097u, UINT_MAX}) {
            SCOPED_TRACE(testing::Message() << size << " elements, count " << count);
            std::vector<unsigned int> keys(size);
            for (unsigned int &key : keys)
                key = static_cast<unsigned int>(random() % 30);
            if (count < 5000) {
                expect_sorted_as_worded(keys, count);
            } else {
                sortable list(keys);
                __list_sort(&list.head, count, compare_recorded);
                EXPECT_EQ(list.order().size(), size);
            }
        }
}

TEST(ListSort, SortsALongList)
{
    std::mt19937 random(9);
    std::vector<unsigned int> keys(scaled(300000u));
    for (unsigned int &key : keys)
        key = static_cast<unsigned int>(random());
    sortable list(keys);
    pairs.clear();
    __list_sort(&list.head, static_cast<unsigned int>(keys.size()), compare_recorded);
    std::sort(keys.begin(), keys.end(), std::greater<>());
    EXPECT_EQ(list.keys(), keys);
}

TEST(ListSort, DoesNothingWithoutAListOrACompare)
{
    sortable list({1, 2});
    __list_sort(nullptr, 2, compare_recorded);
    __list_sort(&list.head, 2, nullptr);
    q_elem unset{};
    __list_sort(&unset, 2, compare_recorded);
    EXPECT_EQ(list.keys(), (std::vector<unsigned int>{1, 2}));
}

} // namespace
