/*
 * Queues and lists: one container for items that belong to its user.
 *
 * A q_queue keeps items in two kinds of storage: a fixed array of slots, each with room for one element and
 * addressed by a key modulo the slot count, and a fixed number of numbered lists, circular and doubly linked.
 * Items may move from a slot to a list and from list to list. What depends on the items is decided by
 * callbacks that are given once, to q_init.
 *
 * q     the container
 * item  the item; may be NULL
 * key   its value modulo S is the slot
 * list  index of a list, 0 to L - 1
 * arg   handed to the callback as it is
 *
 * Ownership: the container owns its elements, never the items; a callback that ends an item's stay must
 * release the item itself. An element that a function returns is valid until it is removed.
 *
 * Callbacks: a walk over a list takes the next element before it calls, so a list callback may remove the
 * element it was called for, but no other. The callbacks of q_init run inside the calls that are documented
 * to use them.
 *
 * Cost: S is the slot count, L the list count, n the number of elements in the lists that are looked at.
 *
 * Errors: a NULL queue, a NULL callback and a list index that is not below the list count give the ordinary
 * failure result. Nothing is logged, errno is the allocator's.
 *
 * Threads: no lock. Each call needs exclusive use of its queue, the calls that only look things up included
 * when another thread may change it.
 */
#ifndef QVLIB_QUEUE_H
#define QVLIB_QUEUE_H

#include <stddef.h>
#include <stdint.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* An element: the container's record of an item. */
typedef struct q_elem {
    struct q_elem *next, *prev; /* neighbours in a list; not used while the element is in a slot */
    void *data;                 /* the item; not used in a list head */
} q_elem;

/* A container. */
typedef struct q_queue q_queue;

/* Tells by a non-zero result whether an item has a key. */
typedef int (*q_compare_fn)(void *item, unsigned int key, unsigned int flags, ...);

/* Decides about an item, or tells whether it is meant; each function that takes one says which. */
typedef int (*q_item_fn)(void *item, void *arg);

/*
 * Works on an element or an item, see q_work_queue and q_work_list; the results of a walk are ORed together.
 */
typedef int (*q_work_fn)(q_queue *q, void *what, void *arg, int zero);

/* Tells by a non-zero result whether an element counts. */
typedef int (*q_count_fn)(q_elem *elem);

/* Shows an item under a label. */
typedef int (*q_dump_fn)(void *item, void *arg, const char *label);

/* A container. Its fields are read only; q_init sets the callbacks. */
struct q_queue {
    uint32_t list_count;          /* number of lists */
    q_elem *lists;                /* their heads; that of an empty list points to itself both ways */
    q_item_fn delete_fn;          /* decides for the delete functions */
    q_compare_fn compare;         /* finds items by keys */
    q_item_fn clean_fn;           /* decides for the clean functions */
    q_item_fn filter_fn;          /* refuses additions; may be NULL */
    uint32_t slot_count;          /* number of slots */
    QV_EXTENSION q_elem *slots[]; /* NULL for an empty slot */
};

/* Flags of q_refer_element and q_refer. */
enum {
    Q_SKIP_SLOT = 1,   /* search the lists only */
    Q_SLOT_ONLY = 2,   /* search the slot only */
    Q_ANY_OCCUPANT = 4 /* accept the slot's occupant without calling compare */
};

/* Results of the delete callback. Any other value keeps the item and stops with that value. */
enum {
    Q_DELETE_REMOVE = 1, /* remove this element and stop */
    Q_DELETE_NEXT = 3    /* keep it and go on */
};

/*
 * Results of the clean callback. A negative value stops with that value, 0 keeps a list's element, any other
 * positive value removes it and is added to the result.
 */
enum {
    Q_CLEAN_STOP = 2 /* stop, with the sum so far */
};

/*
 * Makes an empty container. O(S + L).
 *
 * slot_count  number of slots, at least 1
 * list_count  number of lists; may be 0
 * compare     (item, key, flags): non-zero when the item has that key; mandatory
 * delete_fn   (item, argument): decides for the delete functions and q_exit, see Q_DELETE_REMOVE
 * clean_fn    (item or element, argument): decides for the clean functions, see Q_CLEAN_STOP
 * filter_fn   (item, argument): non-zero refuses an addition; may be NULL
 *
 * Returns the container, or NULL when slot_count is 0, compare is NULL, delete_fn and clean_fn are both NULL,
 * or memory is short. When memory was short for the list heads the container's own block stays allocated.
 * Ownership: release it with q_exit.
 */
q_queue *q_init(unsigned int slot_count, unsigned int list_count, q_compare_fn compare, q_item_fn delete_fn,
                q_item_fn clean_fn, q_item_fn filter_fn);

/*
 * Puts an item into the slot of its key. O(1). An occupied slot refuses it, before filter is asked.
 *
 * arg  handed to the filter callback
 *
 * Returns the new element, or NULL when the slot is occupied, filter refuses the item or memory is short.
 */
q_elem *q_add_queue(q_queue *q, void *item, unsigned int key, void *arg);

/*
 * Appends an item at the tail of a list. O(1).
 *
 * arg  handed to the filter callback
 *
 * Returns the new element, or NULL when filter refuses the item, memory is short or the index is bad.
 */
q_elem *q_add_list(q_queue *q, void *item, unsigned int list, void *arg);

/*
 * Finds the first element that matches a key: in the key's slot, then in the lists 0, 1, ... from head to
 * tail. O(1) when the slot matches or Q_SLOT_ONLY is given, else O(L + n) calls of compare.
 *
 * flags  Q_SKIP_SLOT, Q_SLOT_ONLY, Q_ANY_OCCUPANT; handed to compare for the slot, which gets 0 for lists
 *
 * A caller that is compiled for speed looks into the slot in place and calls the library for the rest. That
 * saves a third of the time; with QV_NO_INLINE defined before the header is included it calls for both.
 *
 * Returns the element, or its item from q_refer; NULL when nothing matches.
 */
q_elem *q_refer_element(q_queue *q, unsigned int key, unsigned int flags) QV_CALLED_OFTEN;
void *q_refer(q_queue *q, unsigned int key, unsigned int flags) QV_CALLED_OFTEN;

#ifdef QV_INLINE
q_elem *q_refer_element_by_call(q_queue *q, unsigned int key, unsigned int flags)
    QV_BY_CALL(q_refer_element) QV_CALLED_OFTEN;

QV_INLINE q_elem *q_refer_element(q_queue *q, unsigned int key, unsigned int flags)
{
    if (q != NULL && flags == 0) {
        q_elem *elem = q->slots[key % q->slot_count];
        if (elem != NULL && q->compare(elem->data, key, 0) != 0)
            return elem;
        flags = Q_SKIP_SLOT;
    }
    return q_refer_element_by_call(q, key, flags);
}

QV_INLINE void *q_refer(q_queue *q, unsigned int key, unsigned int flags)
{
    q_elem *elem = q_refer_element(q, key, flags);
    return elem != NULL ? elem->data : NULL;
}
#endif

/*
 * Finds the first match in one list. O(n).
 *
 * key  handed to compare
 *
 * Returns the element, or its item from q_refer_list; NULL when nothing matches.
 */
q_elem *q_refer_list_element(q_queue *q, unsigned int list, unsigned int key);
void *q_refer_list(q_queue *q, unsigned int list, unsigned int key);

/*
 * Moves the occupant of the key's slot to the tail of a list, without calling compare. O(1).
 *
 * Returns 0, or -1 when the slot is empty.
 */
int q_q2l(q_queue *q, unsigned int list, unsigned int key);

/*
 * Moves the first match of one list to the tail of another, or of the same one. O(n).
 *
 * from, to  indexes of lists, 0 to L - 1
 * key       handed to compare
 *
 * Returns 0, or -1 when nothing matches.
 */
int q_l2l(q_queue *q, unsigned int from, unsigned int to, unsigned int key);

/*
 * Calls fn(q, element, arg, 0) for every slot in order, with a NULL element for an empty one. O(S). Note that
 * the callback gets the element here and the item from q_work_list.
 *
 * fn  the callback
 *
 * Returns the bitwise OR of the results, or -1 for a NULL queue or callback.
 */
int q_work_queue(q_queue *q, q_work_fn fn, void *arg);

/*
 * Calls fn(q, item, arg, 0) for every element of a list from head to tail. O(n).
 *
 * fn  the callback
 *
 * Returns the bitwise OR of the results, or -1 for a NULL queue or callback and a bad index.
 */
int q_work_list(q_queue *q, unsigned int list, q_work_fn fn, void *arg);

/*
 * Does q_work_queue, then q_work_list for each list in order. O(S + L + n).
 *
 * fn  gets the elements of slots and the items of lists
 *
 * Returns the bitwise OR over all, or -1 for a NULL queue or callback.
 */
int q_work_all(q_queue *q, q_work_fn fn, void *arg);

/* Returns the number of occupied slots. O(S). */
unsigned int q_queuecount(q_queue *q);

/* Returns the number of elements in a list. O(n). */
unsigned int q_listcount(q_queue *q, unsigned int list);

/*
 * Counts the elements of a list for which fn(element) is non-zero. O(n).
 *
 * fn  the callback
 *
 * Returns their number, 0 for a NULL queue or callback and a bad index.
 */
unsigned int q_listcount_filter(q_queue *q, unsigned int list, q_count_fn fn);

/*
 * Calls fn(item, arg, label) for every occupied slot in order; slot 10 has the label "Elm:000a". O(S).
 * The label is valid during the call only.
 *
 * fn  the callback
 *
 * Returns the last callback result, 0 when nothing was called.
 */
int q_dump_queue(q_queue *q, q_dump_fn fn, void *arg);

/*
 * Calls fn(item, arg, label) for every element of a list from head to tail; list 10 has the label "List a".
 * O(n).
 *
 * fn  the callback
 *
 * Returns the last callback result, 0 when nothing was called.
 */
int q_dump_list(q_queue *q, unsigned int list, q_dump_fn fn, void *arg);

/*
 * Calls clean(element, arg) for every slot in order, with a NULL element for an empty one, and empties the
 * slot whatever the callback returned, unless that stopped the walk: 0 keeps nothing here. O(S). Each element
 * is freed after its call.
 *
 * Returns the sum of the results, the sum so far after Q_CLEAN_STOP, a negative result as it is, or -1 for a
 * container without clean.
 */
int q_clean_queue(q_queue *q, void *arg);

/*
 * Calls clean(item, arg) for the elements of a list from tail to head; a positive result unlinks and frees
 * the element. O(n).
 *
 * Returns 0 once the head is reached, whatever was removed; the sum of the results so far after Q_CLEAN_STOP;
 * a negative result as it is; or -1 for a bad index or a container without clean.
 */
int q_clean_list(q_queue *q, unsigned int list, void *arg);

/*
 * Does q_clean_queue, then q_clean_list for each list in order, and adds up their results. O(S + L + n).
 *
 * Returns the sum. A negative or 2 from q_clean_queue and a negative from q_clean_list are returned at once;
 * a 2 from q_clean_list returns the sum so far.
 */
int q_clean(q_queue *q, void *arg);

/*
 * Offers the items that match to delete(item, delete_arg), slot after slot, until it decides for one. O(S).
 *
 * match                  (item, match_arg): non-zero when the item is meant
 * match_arg, delete_arg  handed to the callbacks as they are
 *
 * Returns 1 when an element was removed and freed, 0 when the slots are exhausted, any other result than
 * Q_DELETE_NEXT as it is, or -1 without a match or delete callback.
 */
int q_delete_queue(q_queue *q, q_item_fn match, void *match_arg, void *delete_arg);

/*
 * As q_delete_queue, for the elements of a list from head to tail. O(n).
 *
 * match                  (item, match_arg): non-zero when the item is meant
 * match_arg, delete_arg  handed to the callbacks as they are
 *
 * Returns as q_delete_queue, but Q_DELETE_NEXT when the list is exhausted and the last match was kept so.
 */
int q_delete_list(q_queue *q, unsigned int list, q_item_fn match, void *match_arg, void *delete_arg);

/*
 * Does q_delete_queue, then q_delete_list for each list in order, up to the first that returns non-zero: at
 * most one element is removed. O(S + L + n).
 *
 * match                  (item, match_arg): non-zero when the item is meant
 * match_arg, delete_arg  handed to the callbacks as they are
 *
 * Returns that result, or 0.
 */
int q_delete(q_queue *q, q_item_fn match, void *match_arg, void *delete_arg);

/*
 * Releases the container and its elements. O(S + L + n).
 *
 * Calls delete(item, arg) for every item, slots first, when the container has that callback. Elements of
 * slots are freed in any case; an element of a list for which delete returns anything but Q_DELETE_REMOVE
 * stays allocated and unreachable, so keep its address when it is still wanted.
 *
 * arg  handed to the delete callback
 *
 * Returns 0, or -1 for a NULL queue.
 */
int q_exit(q_queue *q, void *arg);

/*
 * Sorts a circular doubly linked list by merging. O(n log n) calls of compare, stack for log2(count) calls.
 *
 * head     its sentinel; any record that begins with next and prev has the layout
 * count    number of elements without the head. With a smaller or greater one than the list has, the elements
 *          beyond it are merged unsorted, or the missing ones are done without.
 * compare  gets two elements; greater than 0 puts the first one in front
 *
 * The element that compares greater comes first, and of equal elements the one from the later half of the
 * list: the sort is not stable. The pairs and their order are those of the recursive merge sort that cuts at
 * count / 2, sorts the first part before the second and compares the front of the first part with that of the
 * second. While it runs, only the data of the elements may be read, not their links.
 */
void __list_sort(q_elem *head, unsigned int count, int (*compare)(q_elem *a, q_elem *b));

QV_END_DECLS

#endif
