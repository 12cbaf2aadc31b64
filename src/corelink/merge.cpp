// Merging one tree into another.
//
// A merge goes through the children of a source container and lets each be taken by a child of the target;
// pairs of containers with equal tags are merged level by level, on a stack of levels instead of by
// recursion. Callers may bring actions of their own, which are asked about every pair. For the library's own
// actions a level that has cost many comparisons looks children up in an index, and insertions that sort are
// sorted once at the end of the level, in the order that sorting after each insertion would give. Before a
// callback of a function node runs, every level is brought into the state that the plain steps would have
// reached, and its index dropped: the callback may look at the trees and change them. The same goes for a
// not-found action of the caller's.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>
#include <qvlib/queue.h>

#include "../where.h"
#include "tag_index.h"
#include "tree.h"

using namespace qv;

namespace
{

// ---- Sorting

bool begins_with_digit(const char *tag)
{
    return tag && *tag >= '0' && *tag <= '9';
}

// The number in a tag such as "12" or "p12"; 0 without one. Numbers are kept within int.
int64_t tag_number(const char *tag)
{
    if (!tag || *tag == '\0')
        return 0;
    const long number = strtol(begins_with_digit(tag) ? tag : tag + 1, nullptr, 10);
    return number > INT32_MAX ? INT32_MAX : number < INT32_MIN ? INT32_MIN : number;
}

// Positive when a goes first. A tag that begins with a digit always goes before what precedes it: daemons
// rely on the order that follows.
int compare_tags(q_elem *first, q_elem *second)
{
    const auto *a = reinterpret_cast<const clparse_node *>(first);
    const auto *b = reinterpret_cast<const clparse_node *>(second);
    const int64_t difference =
        begins_with_digit(b->tag) ? -tag_number(b->tag) : tag_number(b->tag) - tag_number(a->tag);
    return (difference > 0) - (difference < 0);
}

unsigned int count_children(const clparse_node *container)
{
    unsigned int count = 0;
    for (const clparse_node *child = first_child(container); child; child = next_child(container, child))
        count++;
    return count;
}

// Nodes begin with the links of a list element.
void sort_children(clparse_node *container)
{
    static_assert(offsetof(clparse_node, next) == offsetof(q_elem, next));
    static_assert(offsetof(clparse_node, prev) == offsetof(q_elem, prev));
    __list_sort(reinterpret_cast<q_elem *>(container->value.children), count_children(container),
                compare_tags);
}

void reverse_children(clparse_node *container)
{
    clparse_node *sentinel = container->value.children;
    clparse_node *node = sentinel;
    do {
        clparse_node *next = node->next;
        node->next = node->prev;
        node->prev = next;
        node = next;
    } while (node != sentinel);
}

void link_first(clparse_node *container, clparse_node *node)
{
    clparse_node *sentinel = container->value.children;
    node->prev = sentinel;
    node->next = sentinel->next;
    sentinel->next->prev = node;
    sentinel->next = node;
}

// A child and the number in its tag, biased so that unsigned order is the order of the numbers.
struct sort_entry {
    uint32_t key;
    clparse_node *node;
};

bool is_sorted(const sort_entry *entries, size_t count)
{
    for (size_t i = 1; i < count; i++)
        if (entries[i].key < entries[i - 1].key)
            return false;
    return true;
}

// One pass of a radix sort by the eight bits above `shift`; equal elements keep their order.
void sort_by_byte(const sort_entry *from, sort_entry *to, size_t count, int shift)
{
    size_t starts[257] = {};
    for (size_t i = 0; i < count; i++)
        starts[(from[i].key >> shift & 255) + 1]++;
    for (size_t byte = 0; byte < 256; byte++)
        starts[byte + 1] += starts[byte];
    for (size_t i = 0; i < count; i++)
        to[starts[from[i].key >> shift & 255]++] = from[i];
}

// Sorts children by the numbers in their tags, equal ones in the order that they have, in linear time. False
// when memory is short.
bool sort_stably(clparse_node *container)
{
    const size_t count = count_children(container);
    auto *entries = static_cast<sort_entry *>(calloc(count, 2 * sizeof(sort_entry)));
    if (!entries)
        return false;
    size_t i = 0;
    for (clparse_node *child = first_child(container); child; child = next_child(container, child))
        entries[i++] = {static_cast<uint32_t>(tag_number(child->tag)) ^ (UINT32_C(1) << 31), child};
    if (!is_sorted(entries, count)) {
        for (int shift = 0; shift < 32; shift += 16) {
            sort_by_byte(entries, entries + count, count, shift);
            sort_by_byte(entries + count, entries, count, shift + 8);
        }
        clparse_node *sentinel = container->value.children;
        sentinel->next = sentinel->prev = sentinel;
        for (i = 0; i < count; i++)
            link_last(container, entries[i].node);
    }
    free(entries);
    return true;
}

// Sorts once instead of after each of the last `count` insertions, of which `inserted` is the first. The tags
// of all children begin with a digit, or none does.
//
// The sort puts equal elements into the reverse of their order. So each sort reverses what was there before,
// and the element inserted last comes first: of the later sorts an even number leaves it in front of what it
// met, an odd number behind. With tags that begin with digits all elements are equal.
void sort_after_insertions(clparse_node *container, clparse_node *inserted, size_t count)
{
    clparse_node *sentinel = container->value.children;
    clparse_node *chain = inserted; // cut off, linked by next up to the sentinel
    clparse_node *before = inserted->prev;
    before->next = sentinel;
    sentinel->prev = before;
    if (count % 2 == 1)
        reverse_children(container);
    for (size_t later = count; later-- > 0;) {
        clparse_node *next = chain->next;
        if (later % 2 == 0)
            link_first(container, chain);
        else
            link_last(container, chain);
        chain = next;
    }
    if (begins_with_digit(first_child(container)->tag) || sort_stably(container))
        return;
    reverse_children(container);
    sort_children(container);
}

// ---- One level

// An index pays once a level has cost this many comparisons.
constexpr size_t first_index_cost = 64;

// The merge of one source container into one target container.
class merge_level
{
  public:
    merge_level(merge_level *outer_level, clparse_node *target_container, clparse_node *source_container)
        : outer(outer_level), target(target_container), source_end(source_container->value.children),
          next_source(source_end->next), sources_left(count_links(source_end))
    {
    }
    merge_level(const merge_level &) = delete;
    merge_level &operator=(const merge_level &) = delete;

    merge_level *const outer;
    clparse_node *const target;
    clparse_node *const source_end;
    clparse_node *next_source;
    size_t sources_left; // what a merge of a tree with itself appends is not merged again

    // The pair that is being merged: the source node or its expansion, and the function nodes that were
    // expanded.
    clparse_node *source = nullptr;
    clparse_node *source_function = nullptr;
    clparse_node *target_function = nullptr;

    // Of the last comparison. It is not reset from one source child to the next: that is relied on.
    int result = -1;

    void add_cost(size_t comparisons)
    {
        cost_ += comparisons;
        if (cost_ >= index_cost_ && indexable_ && !indexed_)
            build_index();
    }

    bool is_indexed() const
    {
        return indexed_;
    }

    // The child that takes a source node with this tag, by the index; null when there is none.
    clparse_node *find(const char *tag, bool as_container)
    {
        // Trees are mostly in the same order, so the child behind the last one found is tried first. Where
        // tags are distinct there is no other.
        clparse_node *next = last_found_ ? last_found_->next : target->value.children->next;
        if (next->tag && strcmp(next->tag, tag) == 0 && !index_.has_duplicates())
            last_found_ = next;
        else if (clparse_node *found = as_container ? index_.first_container(tag) : index_.first(tag))
            last_found_ = found;
        else
            return nullptr;
        return !as_container || is_container(last_found_) ? last_found_ : nullptr;
    }

    // Makes of the list what the plain steps would have made of it, and forgets the index.
    void settle()
    {
        if (unsorted_ > 0)
            sort_after_insertions(target, first_unsorted_, unsorted_);
        unsorted_ = 0;
        if (!indexed_)
            return;
        index_.clear();
        indexed_ = false;
        last_found_ = nullptr;
        cost_ = 0;
        index_cost_ *= 2;
    }

    // Whether a lookup depends on the order of children that are not sorted yet.
    bool needs_order(const char *tag) const
    {
        return unsorted_ > 0 && index_.has_duplicates() && index_.first(tag) != index_.last(tag);
    }

    void insert(clparse_node *child)
    {
        link_last(target, child);
        if (indexed_ && !add_to_index(child))
            give_up_index();
    }

    // Inserts a child and sorts the children; a container's own children, one level, are sorted too.
    void insert_sorted(clparse_node *child)
    {
        if (is_container(child))
            sort_children(child);
        if (indexed_ && sorts_later(child)) {
            if (unsorted_++ == 0)
                first_unsorted_ = child;
            insert(child);
            return;
        }
        if (indexed_)
            give_up_index();
        link_last(target, child);
        sort_children(target);
        add_cost(count_children(target));
    }

  private:
    // The steps from the sentinel to the end of its list, or to where the list is broken.
    static size_t count_links(const clparse_node *end)
    {
        size_t count = 0;
        for (const clparse_node *node = end->next; node != end; node = node->next) {
            count++;
            if (!node)
                break;
        }
        return count;
    }

    enum class tag_order { none, letters, digits, mixed };

    tag_order order_with(const clparse_node *child) const
    {
        const tag_order own = begins_with_digit(child->tag) ? tag_order::digits : tag_order::letters;
        return order_ == tag_order::none || order_ == own ? own : tag_order::mixed;
    }

    // Whether one sort at the end of the level gives what sorting after each insertion gives: the comparison
    // must order all tags.
    bool sorts_later(const clparse_node *child) const
    {
        return order_with(child) != tag_order::mixed;
    }

    // Function nodes are asked one by one, so a level that has them is walked.
    bool add_to_index(clparse_node *child)
    {
        order_ = order_with(child);
        return child->type != CLPARSE_TYPE_FUNCTION && index_.add(child);
    }

    void build_index()
    {
        indexed_ = true;
        order_ = tag_order::none;
        const clparse_node *end = target->value.children;
        for (clparse_node *child = end->next; child != end; child = child->next) {
            if (!child || !add_to_index(child)) {
                give_up_index();
                return;
            }
        }
    }

    void give_up_index()
    {
        settle();
        indexable_ = false;
    }

    tag_index index_;
    clparse_node *last_found_ = nullptr;
    bool indexed_ = false;
    bool indexable_ = true;
    size_t cost_ = 0;
    size_t index_cost_ = first_index_cost;
    tag_order order_ = tag_order::none; // of all indexed children

    clparse_node *first_unsorted_ = nullptr;
    size_t unsorted_ = 0; // insertions that wait for being sorted
};

// ---- The walk over levels

bool have_equal_tags(const clparse_node *a, const clparse_node *b)
{
    return a->tag && b->tag && strcmp(a->tag, b->tag) == 0;
}

bool are_containers(const clparse_node *a, const clparse_node *b)
{
    return is_container(a) && is_container(b);
}

// Tells a merge that its insertions sort, which the merge does itself: it is compared, and never called.
int clparse_insert_sorted(clparse_node *, clparse_node *)
{
    return -1;
}

// One merge of two containers with all that they hold. Functions return whether the merge goes on.
class tree_merge
{
  public:
    tree_merge(clparse_found_fn found, clparse_not_found_fn not_found) : found_(found), not_found_(not_found)
    {
    }
    ~tree_merge()
    {
        while (top_)
            leave();
        free(spare_);
    }
    tree_merge(const tree_merge &) = delete;
    tree_merge &operator=(const tree_merge &) = delete;

    int run(clparse_node *target, clparse_node *source)
    {
        if (!enter(target, source))
            return -1;
        while (top_) {
            const bool goes_on = top_->next_source == top_->source_end ? finish_level() : merge_next();
            if (!goes_on)
                return -1;
        }
        return 0;
    }

  private:
    bool enter(clparse_node *target, clparse_node *source)
    {
        if (!has_children_list(target) || !has_children_list(source))
            return false;
        void *memory = spare_ ? spare_ : malloc(sizeof(merge_level));
        spare_ = nullptr;
        if (!memory)
            return false;
        top_ = new (memory) merge_level(top_, target, source);
        return true;
    }

    void leave()
    {
        merge_level *done = top_;
        top_ = done->outer;
        done->settle();
        done->~merge_level();
        free(spare_);
        spare_ = done;
    }

    void settle_all()
    {
        for (merge_level *level = top_; level; level = level->outer)
            level->settle();
    }

    // The children of a pair of containers are merged: the pair below it is done.
    bool finish_level()
    {
        leave();
        if (!top_)
            return true;
        top_->result = 0;
        return release_target() && finish_source();
    }

    bool merge_next()
    {
        merge_level &level = *top_;
        level.source = level.next_source;
        level.source_function = nullptr;
        if (!level.source) {
            errno = EFAULT;
            return false;
        }
        level.next_source = --level.sources_left == 0 ? level.source_end : level.source->next;
        if (level.source->type == CLPARSE_TYPE_FUNCTION) {
            if (!level.source->value.func.expand)
                return true;
            settle_all();
            level.source_function = level.source;
            level.source = expand_function(level.source);
            if (!level.source)
                return false;
        }
        return level.is_indexed() ? look_up() : walk();
    }

    // Finds the partner among the children at once; the comparisons that are left out would change nothing.
    bool look_up()
    {
        merge_level &level = *top_;
        clparse_node *source = level.source;
        level.result = -1;
        level.target_function = nullptr;
        if (!source->tag)
            return finish_source();
        if (level.needs_order(source->tag)) {
            level.settle();
            return walk();
        }
        clparse_node *target = level.find(source->tag, is_container(source));
        if (target && is_container(source))
            return enter(target, source);
        if (target)
            level.result = clparse_dfl_found_action(target, source);
        return finish_source();
    }

    // Asks the target's children one by one.
    bool walk()
    {
        merge_level &level = *top_;
        const clparse_node *end = level.target->value.children;
        size_t comparisons = 0;
        for (clparse_node *next, *target = end->next; target != end; target = next) {
            if (!target) {
                errno = EFAULT;
                return false;
            }
            next = target->next;
            comparisons++;
            level.target_function = nullptr;
            if (target->type == CLPARSE_TYPE_FUNCTION) {
                const auto &callbacks = target->value.func;
                if (callbacks.apply) {
                    settle_all();
                    callbacks.apply(target, level.source, callbacks.priv);
                    level.result = 1;
                    break;
                }
                if (!callbacks.release || !callbacks.expand)
                    continue;
                settle_all();
                level.target_function = target;
                target = expand_function(target);
                if (!target)
                    return false;
            }
            if (are_containers(target, level.source) && have_equal_tags(target, level.source)) {
                add_cost(comparisons);
                return enter(target, level.source);
            }
            level.result = found_(target, level.source);
            if (!release_target())
                return false;
            if (level.result != -1)
                break;
        }
        add_cost(comparisons);
        return finish_source();
    }

    // Callers' actions must be asked about every pair, so that an index is of no use to them.
    void add_cost(size_t comparisons)
    {
        if (found_ == clparse_dfl_found_action)
            top_->add_cost(comparisons);
    }

    bool release_target()
    {
        clparse_node *function = top_->target_function;
        top_->target_function = nullptr;
        if (function)
            settle_all();
        return !function || function->value.func.release(function, function->value.func.priv) == 0;
    }

    // A caller's action may look at the trees and change them, as callbacks may.
    bool report_missing()
    {
        if (not_found_ != clparse_not_found)
            settle_all();
        return not_found_(top_->target, top_->source) != -1;
    }

    // Releases the source's expansion and inserts or reports a node that nobody took.
    bool finish_source()
    {
        merge_level &level = *top_;
        const bool missing = not_found_ && level.result == -1;
        if (missing && (not_found_ == clparse_insert_new || not_found_ == clparse_insert_sorted))
            return insert_source();
        clparse_node *function = level.source_function;
        if (!function)
            return !missing || report_missing();
        settle_all();
        // An expansion that the merge has to delete lives until the action has seen it.
        const bool deletes = !function->value.func.release;
        if (!deletes && release_expansion(function, level.source) != 0)
            return false;
        const bool goes_on = !missing || report_missing();
        if (deletes)
            release_expansion(function, level.source);
        return goes_on;
    }

    // Copies first: an expansion may be gone once it is released.
    bool insert_source()
    {
        merge_level &level = *top_;
        clparse_node *copy = copy_subtree(level.source, level.target);
        clparse_node *function = level.source_function;
        if (function)
            settle_all();
        if (function && release_expansion(function, level.source) != 0) {
            clparse_delete_node(copy);
            return false;
        }
        if (!copy)
            return false;
        if (not_found_ == clparse_insert_sorted)
            level.insert_sorted(copy);
        else
            level.insert(copy);
        return true;
    }

    clparse_found_fn found_;
    clparse_not_found_fn not_found_;
    merge_level *top_ = nullptr;
    merge_level *spare_ = nullptr; // memory of a level that is done
};

int merge_heads(clparse_head *target, clparse_head *source, clparse_not_found_fn not_found)
{
    if (!target || !source)
        return -1;
    return clparse_search_tree(&target->root, &source->root, clparse_dfl_found_action, not_found);
}

} // namespace

int clparse_search_tree(clparse_node *target, clparse_node *source, clparse_found_fn found,
                        clparse_not_found_fn not_found)
{
    if (!found)
        return -1;
    return tree_merge(found, not_found).run(target, source);
}

int clparse_dfl_found_action(clparse_node *target, clparse_node *source)
{
    if (!target || !source || !have_equal_tags(target, source) || is_container(source))
        return -1;
    if (target == source)
        return 0;
    if (target->type == CLPARSE_TYPE_STRING) {
        free_text(target->value.str, QV_WHERE);
        target->value.str = nullptr;
    }
    // What the target's value was must not be taken for callbacks.
    if (source->type == CLPARSE_TYPE_FUNCTION && target->type != CLPARSE_TYPE_FUNCTION)
        target->value.func = {};
    target->type = source->type;
    switch (source->type) {
    case CLPARSE_TYPE_NUMBER:
        target->value.num = source->value.num;
        break;
    case CLPARSE_TYPE_BOOLEAN:
        target->value.boolean = source->value.boolean;
        break;
    case CLPARSE_TYPE_STRING:
        target->value.str = clparse_strdup(source->value.str, "clparse_dfl_found_action", __LINE__);
        break;
    default:
        break; // the target keeps what its value was
    }
    return 0;
}

int clparse_update(clparse_head *target, clparse_head *source)
{
    return merge_heads(target, source, clparse_not_found);
}

int clparse_select(clparse_head *target, clparse_head *source)
{
    return merge_heads(target, source, nullptr);
}

int clparse_insert(clparse_head *target, clparse_head *source)
{
    return merge_heads(target, source, clparse_insert_new);
}

int clparse_insert_sort(clparse_head *target, clparse_head *source)
{
    return merge_heads(target, source, clparse_insert_sorted);
}
