// The queue and list container. A slot holds one element or NULL; every list is circular through its head in
// q->lists, and an element is in one slot or in one list. Callbacks may remove the element they were called
// for, so a walk takes its neighbour before the call, and a slot is read again after one. No lock.
#include <qvlib/queue.h>

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

namespace
{

constexpr size_t label_size = sizeof "List ffffffff";

static_assert(offsetof(q_elem, data) == 2 * sizeof(void *) && sizeof(q_elem) == 3 * sizeof(void *));
static_assert(offsetof(q_queue, lists) == sizeof(void *));
static_assert(offsetof(q_queue, delete_fn) == 2 * sizeof(void *));
static_assert(offsetof(q_queue, compare) == 3 * sizeof(void *));
static_assert(offsetof(q_queue, clean_fn) == 4 * sizeof(void *));
static_assert(offsetof(q_queue, filter_fn) == 5 * sizeof(void *));
static_assert(offsetof(q_queue, slot_count) == 6 * sizeof(void *));
static_assert(offsetof(q_queue, slots) == 7 * sizeof(void *));

// Sums of callback results wrap instead of overflowing.
int add(int sum, int result)
{
    return static_cast<int>(static_cast<unsigned int>(sum) + static_cast<unsigned int>(result));
}

q_elem **slot_of(q_queue *q, unsigned int key)
{
    return &q->slots[key % q->slot_count];
}

// The head of a list, or NULL for a NULL queue or an index out of range.
q_elem *list_head(q_queue *q, unsigned int list)
{
    if (q == nullptr || list >= q->list_count)
        return nullptr;
    return &q->lists[list];
}

void append(q_elem *head, q_elem *elem)
{
    elem->next = head;
    elem->prev = head->prev;
    head->prev->next = elem;
    head->prev = elem;
}

void unlink(q_elem *elem)
{
    elem->prev->next = elem->next;
    elem->next->prev = elem->prev;
}

void remove(q_elem *elem)
{
    unlink(elem);
    free(elem);
}

void empty_slot(q_elem **slot)
{
    free(*slot);
    *slot = nullptr;
}

q_elem *make_element(q_queue *q, void *item, void *arg)
{
    if (q->filter_fn != nullptr && q->filter_fn(item, arg) != 0)
        return nullptr;
    auto *elem = static_cast<q_elem *>(calloc(1, sizeof(q_elem)));
    if (elem != nullptr)
        elem->data = item;
    return elem;
}

q_elem *find_in_list(q_queue *q, q_elem *head, unsigned int key)
{
    for (q_elem *elem = head->next; elem != head; elem = elem->next)
        if (q->compare(elem->data, key, 0) != 0)
            return elem;
    return nullptr;
}

__attribute__((noinline)) q_elem *find_by_flags(q_queue *q, unsigned int key, unsigned int flags)
{
    if (q == nullptr)
        return nullptr;
    if ((flags & Q_SKIP_SLOT) == 0) {
        q_elem *elem = *slot_of(q, key);
        if (elem != nullptr && ((flags & Q_ANY_OCCUPANT) != 0 || q->compare(elem->data, key, flags) != 0))
            return elem;
    }
    if ((flags & Q_SLOT_ONLY) == 0)
        for (unsigned int i = 0; i < q->list_count; i++)
            if (q_elem *elem = find_in_list(q, &q->lists[i], key))
                return elem;
    return nullptr;
}

__attribute__((noinline)) void *refer_by_flags(q_queue *q, unsigned int key, unsigned int flags)
{
    q_elem *elem = find_by_flags(q, key, flags);
    return elem != nullptr ? elem->data : nullptr;
}

// What a look-up without flags finds in the key's slot; what it does not find there is looked for by
// Q_SKIP_SLOT. A look-up is so short that registers kept for flags and lists would show.
inline q_elem *find_in_slot(q_queue *q, unsigned int key)
{
    q_elem *elem = *slot_of(q, key);
    return elem != nullptr && q->compare(elem->data, key, 0) != 0 ? elem : nullptr;
}

q_queue *allocate_queue(unsigned int slot_count)
{
    constexpr size_t most = (SIZE_MAX - sizeof(q_queue)) / sizeof(q_elem *);
    const size_t slots = slot_count;
    if (slots > most)
        return nullptr;
    return static_cast<q_queue *>(calloc(1, sizeof(q_queue) + slots * sizeof(q_elem *)));
}

q_elem *allocate_heads(unsigned int list_count)
{
    // One head at least: calloc may answer NULL to a size of 0.
    auto *heads = static_cast<q_elem *>(calloc(list_count > 0 ? list_count : 1, sizeof(q_elem)));
    if (heads == nullptr)
        return nullptr;
    for (unsigned int i = 0; i < list_count; i++)
        heads[i].next = heads[i].prev = &heads[i];
    return heads;
}

using sort_compare = int (*)(q_elem *a, q_elem *b);

// While sorting, a part is a chain through `next` that ends in NULL; `prev` leads back, and from the first
// element to the last. Links are complete after every merge, so no pass over the list is left for the end.
q_elem *merge(q_elem *first, q_elem *second, sort_compare compare)
{
    if (second == nullptr)
        return first;
    q_elem *const last_of_first = first->prev;
    q_elem *const last_of_second = second->prev;
    q_elem before{};
    q_elem *tail = &before;
    while (first != nullptr && second != nullptr) {
        // Chosen by values, without a branch, which would be mispredicted every other time.
        const bool takes_first = compare(first, second) > 0;
        q_elem *const front = takes_first ? first : second;
        q_elem *const following = front->next;
        tail->next = front;
        front->prev = tail;
        tail = front;
        first = takes_first ? following : first;
        second = takes_first ? second : following;
        if (following != nullptr)
            __builtin_prefetch(following->next);
    }
    q_elem *rest = first != nullptr ? first : second;
    tail->next = rest;
    rest->prev = tail;
    before.next->prev = first != nullptr ? last_of_first : last_of_second;
    return before.next;
}

// Takes one element off the chain at *rest, or with `all` the whole chain: a wrong count loses no element.
q_elem *take_part(q_elem **rest, bool all, q_elem *last)
{
    q_elem *part = *rest;
    *rest = all ? nullptr : part->next;
    if (*rest == nullptr) {
        part->prev = last;
    } else {
        part->next = nullptr;
        part->prev = part;
    }
    return part;
}

// Sorts the next `count` elements of the chain at *rest and takes them off it; the `final` part takes what is
// left. The chain's last element is `last`. Calls itself once for each halving of the count.
q_elem *sort_part(q_elem **rest, unsigned int count, bool final, q_elem *last, sort_compare compare)
{
    if (*rest == nullptr)
        return nullptr;
    if (count < 2)
        return take_part(rest, final, last);
    q_elem *first = sort_part(rest, count / 2, false, last, compare);
    q_elem *second = sort_part(rest, count - count / 2, final, last, compare);
    return merge(first, second, compare);
}

} // namespace

q_queue *q_init(unsigned int slot_count, unsigned int list_count, q_compare_fn compare, q_item_fn delete_fn,
                q_item_fn clean_fn, q_item_fn filter_fn)
{
    if (slot_count == 0 || compare == nullptr || (delete_fn == nullptr && clean_fn == nullptr))
        return nullptr;
    q_queue *q = allocate_queue(slot_count);
    if (q == nullptr)
        return nullptr;
    q->lists = allocate_heads(list_count);
    if (q->lists == nullptr)
        return nullptr; // NOLINT(clang-analyzer-unix.Malloc): without freeing q, part of the contract
    q->list_count = list_count;
    q->slot_count = slot_count;
    q->compare = compare;
    q->delete_fn = delete_fn;
    q->clean_fn = clean_fn;
    q->filter_fn = filter_fn;
    return q;
}

q_elem *q_add_queue(q_queue *q, void *item, unsigned int key, void *arg)
{
    if (q == nullptr)
        return nullptr;
    q_elem **slot = slot_of(q, key);
    if (*slot != nullptr)
        return nullptr;
    return *slot = make_element(q, item, arg);
}

q_elem *q_add_list(q_queue *q, void *item, unsigned int list, void *arg)
{
    q_elem *head = list_head(q, list);
    if (head == nullptr)
        return nullptr;
    q_elem *elem = make_element(q, item, arg);
    if (elem != nullptr)
        append(head, elem);
    return elem;
}

q_elem *q_refer_element(q_queue *q, unsigned int key, unsigned int flags)
{
    if (q == nullptr || flags != 0)
        return find_by_flags(q, key, flags);
    q_elem *elem = find_in_slot(q, key);
    return elem != nullptr ? elem : find_by_flags(q, key, Q_SKIP_SLOT);
}

void *q_refer(q_queue *q, unsigned int key, unsigned int flags)
{
    if (q == nullptr || flags != 0)
        return refer_by_flags(q, key, flags);
    q_elem *elem = find_in_slot(q, key);
    return elem != nullptr ? elem->data : refer_by_flags(q, key, Q_SKIP_SLOT);
}

q_elem *q_refer_list_element(q_queue *q, unsigned int list, unsigned int key)
{
    q_elem *head = list_head(q, list);
    return head != nullptr ? find_in_list(q, head, key) : nullptr;
}

void *q_refer_list(q_queue *q, unsigned int list, unsigned int key)
{
    q_elem *elem = q_refer_list_element(q, list, key);
    return elem != nullptr ? elem->data : nullptr;
}

int q_q2l(q_queue *q, unsigned int list, unsigned int key)
{
    q_elem *head = list_head(q, list);
    if (head == nullptr)
        return -1;
    q_elem **slot = slot_of(q, key);
    if (*slot == nullptr)
        return -1;
    append(head, *slot);
    *slot = nullptr;
    return 0;
}

int q_l2l(q_queue *q, unsigned int from, unsigned int to, unsigned int key)
{
    q_elem *source = list_head(q, from);
    q_elem *destination = list_head(q, to);
    if (source == nullptr || destination == nullptr)
        return -1;
    q_elem *elem = find_in_list(q, source, key);
    if (elem == nullptr)
        return -1;
    unlink(elem);
    append(destination, elem);
    return 0;
}

int q_work_queue(q_queue *q, q_work_fn fn, void *arg)
{
    if (q == nullptr || fn == nullptr)
        return -1;
    int result = 0;
    // The element goes to the callback here, the item in q_work_list: daemons rely on both.
    for (unsigned int i = 0; i < q->slot_count; i++)
        result |= fn(q, q->slots[i], arg, 0);
    return result;
}

int q_work_list(q_queue *q, unsigned int list, q_work_fn fn, void *arg)
{
    q_elem *head = list_head(q, list);
    if (head == nullptr || fn == nullptr)
        return -1;
    int result = 0;
    for (q_elem *elem = head->next, *next; elem != head; elem = next) {
        next = elem->next;
        result |= fn(q, elem->data, arg, 0);
    }
    return result;
}

int q_work_all(q_queue *q, q_work_fn fn, void *arg)
{
    if (q == nullptr || fn == nullptr)
        return -1;
    int result = q_work_queue(q, fn, arg);
    for (unsigned int i = 0; i < q->list_count; i++)
        result |= q_work_list(q, i, fn, arg);
    return result;
}

unsigned int q_queuecount(q_queue *q)
{
    if (q == nullptr)
        return 0;
    unsigned int count = 0;
    for (unsigned int i = 0; i < q->slot_count; i++)
        count += q->slots[i] != nullptr ? 1 : 0;
    return count;
}

unsigned int q_listcount(q_queue *q, unsigned int list)
{
    q_elem *head = list_head(q, list);
    if (head == nullptr)
        return 0;
    unsigned int count = 0;
    for (q_elem *elem = head->next; elem != head; elem = elem->next)
        count++;
    return count;
}

unsigned int q_listcount_filter(q_queue *q, unsigned int list, q_count_fn fn)
{
    q_elem *head = list_head(q, list);
    if (head == nullptr || fn == nullptr)
        return 0;
    unsigned int count = 0;
    for (q_elem *elem = head->next, *next; elem != head; elem = next) {
        next = elem->next;
        count += fn(elem) != 0 ? 1 : 0;
    }
    return count;
}

int q_dump_queue(q_queue *q, q_dump_fn fn, void *arg)
{
    if (q == nullptr || fn == nullptr)
        return 0;
    int result = 0;
    for (unsigned int i = 0; i < q->slot_count; i++) {
        if (q->slots[i] == nullptr)
            continue;
        char label[label_size];
        snprintf(label, sizeof label, "Elm:%.4x", i);
        result = fn(q->slots[i]->data, arg, label);
    }
    return result;
}

int q_dump_list(q_queue *q, unsigned int list, q_dump_fn fn, void *arg)
{
    q_elem *head = list_head(q, list);
    if (head == nullptr || fn == nullptr)
        return 0;
    char label[label_size];
    snprintf(label, sizeof label, "List %x", list);
    int result = 0;
    for (q_elem *elem = head->next, *next; elem != head; elem = next) {
        next = elem->next;
        result = fn(elem->data, arg, label);
    }
    return result;
}

int q_clean_queue(q_queue *q, void *arg)
{
    if (q == nullptr || q->clean_fn == nullptr)
        return -1;
    int sum = 0;
    for (unsigned int i = 0; i < q->slot_count; i++) {
        int result = q->clean_fn(q->slots[i], arg);
        if (result == Q_CLEAN_STOP)
            return sum;
        if (result < 0)
            return result;
        sum = add(sum, result);
        empty_slot(&q->slots[i]); // after a 0 too: daemons rely on it
    }
    return sum;
}

int q_clean_list(q_queue *q, unsigned int list, void *arg)
{
    q_elem *head = list_head(q, list);
    if (head == nullptr || q->clean_fn == nullptr)
        return -1;
    int sum = 0;
    for (q_elem *elem = head->prev, *prev; elem != head; elem = prev) {
        prev = elem->prev;
        int result = q->clean_fn(elem->data, arg);
        if (result == Q_CLEAN_STOP)
            return sum;
        if (result < 0)
            return result;
        if (result > 0) {
            remove(elem);
            sum = add(sum, result);
        }
    }
    return 0; // not the sum: daemons rely on it
}

int q_clean(q_queue *q, void *arg)
{
    int sum = q_clean_queue(q, arg);
    if (sum < 0 || sum == Q_CLEAN_STOP)
        return sum;
    for (unsigned int i = 0; i < q->list_count; i++) {
        int result = q_clean_list(q, i, arg);
        if (result == Q_CLEAN_STOP)
            return sum;
        if (result < 0)
            return result;
        sum = add(sum, result);
    }
    return sum;
}

int q_delete_queue(q_queue *q, q_item_fn match, void *match_arg, void *delete_arg)
{
    if (q == nullptr || q->delete_fn == nullptr || match == nullptr)
        return -1;
    for (unsigned int i = 0; i < q->slot_count; i++) {
        if (q->slots[i] == nullptr || match(q->slots[i]->data, match_arg) == 0)
            continue;
        int result = q->delete_fn(q->slots[i]->data, delete_arg);
        if (result == Q_DELETE_REMOVE)
            empty_slot(&q->slots[i]);
        if (result != Q_DELETE_NEXT)
            return result;
    }
    return 0;
}

int q_delete_list(q_queue *q, unsigned int list, q_item_fn match, void *match_arg, void *delete_arg)
{
    q_elem *head = list_head(q, list);
    if (head == nullptr || q->delete_fn == nullptr || match == nullptr)
        return -1;
    int result = 0;
    for (q_elem *elem = head->next, *next; elem != head; elem = next) {
        next = elem->next;
        if (match(elem->data, match_arg) == 0)
            continue;
        result = q->delete_fn(elem->data, delete_arg);
        if (result == Q_DELETE_REMOVE)
            remove(elem);
        if (result != Q_DELETE_NEXT)
            return result;
    }
    return result;
}

int q_delete(q_queue *q, q_item_fn match, void *match_arg, void *delete_arg)
{
    int result = q_delete_queue(q, match, match_arg, delete_arg);
    for (unsigned int i = 0; result == 0 && i < q->list_count; i++)
        result = q_delete_list(q, i, match, match_arg, delete_arg);
    return result;
}

int q_exit(q_queue *q, void *arg)
{
    if (q == nullptr)
        return -1;
    for (unsigned int i = 0; i < q->slot_count; i++) {
        if (q->slots[i] == nullptr)
            continue;
        if (q->delete_fn != nullptr)
            q->delete_fn(q->slots[i]->data, arg);
        empty_slot(&q->slots[i]);
    }
    for (unsigned int i = 0; i < q->list_count; i++) {
        q_elem *head = &q->lists[i];
        for (q_elem *elem = head->next, *next; elem != head; elem = next) {
            next = elem->next;
            if (q->delete_fn == nullptr || q->delete_fn(elem->data, arg) == Q_DELETE_REMOVE)
                remove(elem);
        }
    }
    free(q->lists);
    free(q);
    return 0;
}

void __list_sort(q_elem *head, unsigned int count, sort_compare compare)
{
    if (head == nullptr || compare == nullptr || count < 2 || head->next == nullptr || head->next == head)
        return;
    q_elem *rest = head->next;
    q_elem *last = head->prev;
    last->next = nullptr;
    q_elem *first = sort_part(&rest, count, true, last, compare);
    last = first->prev;
    head->next = first;
    first->prev = head;
    head->prev = last;
    last->next = head;
}
