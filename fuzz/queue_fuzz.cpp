// Queues and lists beside their model:
//
//   scripts/fuzz 60 queue
//
// An input is the numbers of slots and lists, then calls with their arguments. What the callbacks say is made
// of the item and a seed.

#include <qvlib/queue.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "failing_alloc.h"
#include "fuzz_input.h"

namespace
{

using fuzz::require;

struct item {
    unsigned key;
};

// One of five results for an item, or for an empty slot.
int decide(const item *of, unsigned seed, const int (&results)[5])
{
    return results[(of ? of->key * 7 + seed : seed) % 5];
}

// What the callbacks were called with, in turn.
struct call {
    unsigned seed;
    bool slots; // a clean callback gets elements of slots
    std::vector<const item *> asked;
};

int compare(void *of, unsigned int key, unsigned int, ...)
{
    return static_cast<item *>(of)->key == key;
}

constexpr int delete_results[5] = {Q_DELETE_REMOVE, Q_DELETE_NEXT, 0, -1, 2};
constexpr int clean_results[5] = {0, 1, Q_CLEAN_STOP, -1, 5};

int delete_item(void *of, void *arg)
{
    auto *made = static_cast<call *>(arg);
    made->asked.push_back(static_cast<item *>(of));
    return decide(static_cast<item *>(of), made->seed, delete_results);
}

int clean(void *what, void *arg)
{
    auto *made = static_cast<call *>(arg);
    const item *of = static_cast<item *>(what);
    if (made->slots)
        of = what ? static_cast<item *>(static_cast<q_elem *>(what)->data) : nullptr;
    made->asked.push_back(of);
    return decide(of, made->seed, clean_results);
}

int refuse(void *of, void *arg)
{
    return static_cast<item *>(of)->key % 16 == *static_cast<unsigned *>(arg);
}

int match(void *of, void *arg)
{
    return static_cast<item *>(of)->key % 4 == *static_cast<unsigned *>(arg) % 4;
}

int work_queue(q_queue *, void *what, void *arg, int)
{
    const auto *elem = static_cast<q_elem *>(what);
    static_cast<call *>(arg)->asked.push_back(elem ? static_cast<item *>(elem->data) : nullptr);
    return elem ? static_cast<int>(static_cast<item *>(elem->data)->key) : 0;
}

int work_list(q_queue *, void *what, void *arg, int)
{
    static_cast<call *>(arg)->asked.push_back(static_cast<item *>(what));
    return static_cast<int>(static_cast<item *>(what)->key);
}

int count_odd(q_elem *elem)
{
    return static_cast<item *>(elem->data)->key % 2 != 0;
}

int dump(void *of, void *arg, const char *label)
{
    *static_cast<std::string *>(arg) += label + std::to_string(static_cast<item *>(of)->key) + " ";
    return static_cast<int>(static_cast<item *>(of)->key);
}

int compare_keys(q_elem *a, q_elem *b)
{
    return static_cast<int>(static_cast<item *>(a->data)->key / 4) -
           static_cast<int>(static_cast<item *>(b->data)->key / 4);
}

// ---- The model

using list = std::vector<item *>;

std::string hex(size_t number, int digits)
{
    char text[32];
    snprintf(text, sizeof text, "%0*zx", digits, number);
    return text;
}

struct model {
    std::vector<item *> slots;
    std::vector<list> lists;

    item *&slot(unsigned key)
    {
        return slots[key % slots.size()];
    }

    static list::iterator find(list &in, unsigned key)
    {
        auto at = in.begin();
        while (at != in.end() && (*at)->key != key)
            ++at;
        return at;
    }

    item *refer_list(unsigned from, unsigned key)
    {
        if (from >= lists.size())
            return nullptr;
        const auto found = find(lists[from], key);
        return found == lists[from].end() ? nullptr : *found;
    }

    item *refer(unsigned key, unsigned flags)
    {
        item *there = slot(key);
        if (!(flags & Q_SKIP_SLOT) && there && (there->key == key || flags & Q_ANY_OCCUPANT))
            return there;
        for (unsigned i = 0; i < lists.size() && !(flags & Q_SLOT_ONLY); i++)
            if (item *found = refer_list(i, key))
                return found;
        return nullptr;
    }

    int move_slot(unsigned to, unsigned key)
    {
        if (to >= lists.size() || !slot(key))
            return -1;
        lists[to].push_back(slot(key));
        slot(key) = nullptr;
        return 0;
    }

    int move(unsigned from, unsigned to, unsigned key)
    {
        if (from >= lists.size() || to >= lists.size() || !refer_list(from, key))
            return -1;
        const auto found = find(lists[from], key);
        item *moved = *found;
        lists[from].erase(found);
        lists[to].push_back(moved);
        return 0;
    }

    int clean_queue(unsigned seed)
    {
        int sum = 0;
        for (item *&there : slots) {
            const int result = decide(there, seed, clean_results);
            if (result == Q_CLEAN_STOP)
                return sum;
            sum += result;
            if (result < 0)
                return result;
            there = nullptr;
        }
        return sum;
    }

    int clean_list(unsigned of, unsigned seed)
    {
        if (of >= lists.size())
            return -1;
        int sum = 0;
        for (size_t i = lists[of].size(); i-- > 0;) {
            const int result = decide(lists[of][i], seed, clean_results);
            if (result < 0)
                return result;
            if (result == Q_CLEAN_STOP)
                return sum;
            if (result > 0)
                lists[of].erase(lists[of].begin() + static_cast<ptrdiff_t>(i));
            sum += result;
        }
        return 0;
    }

    int delete_queue(unsigned key, unsigned seed)
    {
        for (item *&there : slots) {
            if (!there || !match(there, &key))
                continue;
            const int result = decide(there, seed, delete_results);
            if (result == Q_DELETE_REMOVE)
                there = nullptr;
            if (result != Q_DELETE_NEXT)
                return result;
        }
        return 0;
    }

    int delete_list(unsigned of, unsigned key, unsigned seed)
    {
        if (of >= lists.size())
            return -1;
        int result = 0;
        for (size_t i = 0; i < lists[of].size(); i++) {
            if (!match(lists[of][i], &key))
                continue;
            result = decide(lists[of][i], seed, delete_results);
            if (result == Q_DELETE_REMOVE)
                lists[of].erase(lists[of].begin() + static_cast<ptrdiff_t>(i));
            if (result != Q_DELETE_NEXT)
                return result;
        }
        return result;
    }

    int delete_any(unsigned key, unsigned seed)
    {
        int result = delete_queue(key, seed);
        for (unsigned i = 0; i < lists.size() && result == 0; i++)
            result = delete_list(i, key, seed);
        return result;
    }

    static void sort(list &of)
    {
        if (of.size() < 2)
            return;
        const auto middle = of.begin() + static_cast<ptrdiff_t>(of.size() / 2);
        list first(of.begin(), middle), second(middle, of.end());
        sort(first);
        sort(second);
        of.clear();
        size_t a = 0, b = 0;
        while (a < first.size() && b < second.size())
            of.push_back(first[a]->key / 4 > second[b]->key / 4 ? first[a++] : second[b++]);
        of.insert(of.end(), first.begin() + static_cast<ptrdiff_t>(a), first.end());
        of.insert(of.end(), second.begin() + static_cast<ptrdiff_t>(b), second.end());
    }
};

// ---- Both

class world
{
  public:
    world(unsigned slots, unsigned lists)
        : queue_(q_init(slots, lists, compare, delete_item, clean, refuse)), model_{
                                                                                 std::vector<item *>(slots),
                                                                                 std::vector<list>(lists)}
    {
        require(queue_ != nullptr, "no queue");
    }

    void step(fuzz::input &in)
    {
        const unsigned what = in.below(17), key = in.below(64), seed = in.byte();
        const unsigned from = in.below(6), to = in.below(6);
        call made{seed, true, {}};
        switch (what) {
        case 0:
        case 1:
            add_to_slot(key, seed);
            break;
        case 2:
        case 3:
            add_to_list(key, from, seed);
            break;
        case 4: {
            const q_elem *found = q_refer_element(queue_, key, seed % 8);
            require((found ? found->data : nullptr) == model_.refer(key, seed % 8), "a found element");
            require(q_refer(queue_, key, seed % 8) == model_.refer(key, seed % 8), "a found item");
            break;
        }
        case 5: {
            const q_elem *found = q_refer_list_element(queue_, from, key);
            require((found ? found->data : nullptr) == model_.refer_list(from, key), "an element of a list");
            require(q_refer_list(queue_, from, key) == model_.refer_list(from, key), "an item of a list");
            break;
        }
        case 6:
            require(q_q2l(queue_, to, key) == model_.move_slot(to, key), "q_q2l's result");
            break;
        case 7:
            require(q_l2l(queue_, from, to, key) == model_.move(from, to, key), "q_l2l's result");
            break;
        case 8:
            look();
            break;
        case 9:
            dump_all();
            break;
        case 10:
            require(q_clean_queue(queue_, &made) == model_.clean_queue(seed), "q_clean_queue's result");
            break;
        case 11:
            made.slots = false;
            require(q_clean_list(queue_, from, &made) == model_.clean_list(from, seed),
                    "q_clean_list's result");
            break;
        case 12: {
            unsigned matched = key;
            require(q_delete_queue(queue_, match, &matched, &made) == model_.delete_queue(key, seed),
                    "q_delete_queue's result");
            break;
        }
        case 13: {
            unsigned matched = key;
            require(q_delete_list(queue_, from, match, &matched, &made) ==
                        model_.delete_list(from, key, seed),
                    "q_delete_list's result");
            break;
        }
        case 14: {
            unsigned matched = key;
            require(q_delete(queue_, match, &matched, &made) == model_.delete_any(key, seed),
                    "q_delete's result");
            break;
        }
        default:
            sort(from);
            break;
        }
        compare_contents();
    }

    // Returns how many elements stay allocated.
    size_t end(unsigned seed)
    {
        size_t kept = 0;
        for (const list &of : model_.lists)
            for (const item *there : of)
                kept += decide(there, seed, delete_results) != Q_DELETE_REMOVE;
        call made{seed, false, {}};
        require(q_exit(queue_, &made) == 0, "q_exit's result");
        return kept;
    }

  private:
    item *make(unsigned key)
    {
        return items_.emplace_back(std::make_unique<item>(item{key})).get();
    }

    void add_to_slot(unsigned key, unsigned seed)
    {
        unsigned refused = seed % 32;
        item *added = make(key);
        const bool fits = model_.slot(key) == nullptr && !refuse(added, &refused);
        const q_elem *elem = q_add_queue(queue_, added, key, &refused);
        require((elem != nullptr) == fits, "q_add_queue's result");
        if (fits)
            model_.slot(key) = added;
    }

    void add_to_list(unsigned key, unsigned to, unsigned seed)
    {
        unsigned refused = seed % 32;
        item *added = make(key);
        const bool fits = to < model_.lists.size() && !refuse(added, &refused);
        require((q_add_list(queue_, added, to, &refused) != nullptr) == fits, "q_add_list's result");
        if (fits)
            model_.lists[to].push_back(added);
    }

    void look()
    {
        call made{0, true, {}};
        unsigned keys = 0, occupied = 0;
        for (const item *there : model_.slots) {
            keys |= there ? there->key : 0;
            occupied += there != nullptr;
        }
        require(q_work_queue(queue_, work_queue, &made) == static_cast<int>(keys), "q_work_queue's result");
        require(std::vector<const item *>(model_.slots.begin(), model_.slots.end()) == made.asked,
                "what q_work_queue visits");
        require(q_queuecount(queue_) == occupied, "the number of occupied slots");
        for (unsigned i = 0; i < model_.lists.size(); i++) {
            made.asked.clear();
            keys = 0;
            unsigned odd = 0;
            for (const item *there : model_.lists[i]) {
                keys |= there->key;
                odd += there->key % 2;
            }
            require(q_work_list(queue_, i, work_list, &made) == static_cast<int>(keys),
                    "q_work_list's result");
            require(std::vector<const item *>(model_.lists[i].begin(), model_.lists[i].end()) == made.asked,
                    "what q_work_list visits");
            require(q_listcount(queue_, i) == model_.lists[i].size(), "the length of a list");
            require(q_listcount_filter(queue_, i, count_odd) == odd, "the number of odd keys");
        }
    }

    void dump_all()
    {
        std::string got, expected;
        int last = 0;
        for (size_t i = 0; i < model_.slots.size(); i++)
            if (const item *there = model_.slots[i]) {
                expected += "Elm:" + hex(i, 4) + std::to_string(there->key) + " ";
                last = static_cast<int>(there->key);
            }
        require(q_dump_queue(queue_, dump, &got) == last, "q_dump_queue's result");
        for (unsigned i = 0; i < model_.lists.size(); i++) {
            for (const item *there : model_.lists[i])
                expected += "List " + hex(i, 1) + std::to_string(there->key) + " ";
            q_dump_list(queue_, i, dump, &got);
        }
        require(got == expected, "labels and items of a dump");
    }

    void sort(unsigned which)
    {
        if (which >= model_.lists.size())
            return;
        __list_sort(&queue_->lists[which], static_cast<unsigned>(model_.lists[which].size()), compare_keys);
        model::sort(model_.lists[which]);
    }

    void compare_contents() const
    {
        for (size_t i = 0; i < model_.slots.size(); i++)
            require((queue_->slots[i] ? queue_->slots[i]->data : nullptr) == model_.slots[i], "a slot");
        for (size_t i = 0; i < model_.lists.size(); i++) {
            const q_elem *head = &queue_->lists[i];
            const q_elem *at = head->next;
            for (const item *there : model_.lists[i]) {
                require(at != head && at->data == there, "an element of a list");
                require(at->prev->next == at && at->next->prev == at, "the links of a list");
                at = at->next;
            }
            require(at == head, "a list is too long");
        }
    }

    q_queue *queue_;
    model model_;
    std::vector<std::unique_ptr<item>> items_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    failing_alloc::live_blocks account;
    const unsigned slots = 1 + in.below(20), lists = in.below(5), seed = in.byte();
    world both(slots, lists);
    while (!in.is_empty())
        both.step(in);
    require(both.end(seed) == account.count(), "other blocks are left than the kept elements");
    return 0;
}
