// Merging one tree into another.
//
// A merge goes through the children of a source container and lets each be taken by a child of the target;
// pairs of containers with equal tags are merged level by level, on a stack of levels instead of by
// recursion. Callers may bring actions of their own, which are asked about every pair. For the library's own
// actions a search begins behind the child that took the last node, as long as a filter of the tags before it
// rules them out: trees are mostly in the same order, so that the next child is the one. A level that has
// cost many comparisons nevertheless looks children up in an index. Insertions that sort are sorted once at
// the end of the level, in the order that sorting after each insertion would give. Before a callback of a
// function node runs, every level is brought into the state that the plain steps would have reached, and its
// filter and index dropped: the callback may look at the trees and change them. The same goes for a not-found
// action of the caller's.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>
#include <qvlib/queue.h>

#include "../where.h"
#include "tag_index.h"
#include "tag_words.h"
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
    const char *digits = begins_with_digit(tag) ? tag : tag + 1;
    if (by_words && *digits >= 'A' && *digits <= 'z')
        return 0;
    if (by_words && begins_with_digit(digits)) {
        int64_t number = 0;
        for (; begins_with_digit(digits) && number <= INT32_MAX; digits++)
            number = 10 * number + (*digits - '0');
        return number > INT32_MAX ? INT32_MAX : number;
    }
    const long number = strtol(digits, nullptr, 10); // blanks and signs too
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

// Whether all children compare as equal: their tags begin with a digit, or have the same number.
bool are_equal(const clparse_node *container)
{
    const clparse_node *first = first_child(container);
    const bool digits = first && begins_with_digit(first->tag);
    const int64_t number = first ? tag_number(first->tag) : 0;
    for (const clparse_node *child = first; child; child = next_child(container, child))
        if (begins_with_digit(child->tag) != digits || (!digits && tag_number(child->tag) != number))
            return false;
    return true;
}

// Nodes begin with the links of a list element.
void sort_children(clparse_node *container)
{
    static_assert(offsetof(clparse_node, next) == offsetof(q_elem, next));
    static_assert(offsetof(clparse_node, prev) == offsetof(q_elem, prev));
    if (by_words && are_equal(container)) {
        reverse_children(container); // as the sort does
        return;
    }
    __list_sort(reinterpret_cast<q_elem *>(container->value.children), count_children(container),
                compare_tags);
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

constexpr size_t few_entries = 64;

// Equal elements keep their order.
void sort_few(sort_entry *entries, size_t count)
{
    for (size_t i = 1; i < count; i++) {
        const sort_entry taken = entries[i];
        size_t at = i;
        for (; at > 0 && taken.key < entries[at - 1].key; at--)
            entries[at] = entries[at - 1];
        entries[at] = taken;
    }
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
    sort_entry few[few_entries];
    const bool are_few = by_words && count <= few_entries;
    auto *entries = are_few ? few : static_cast<sort_entry *>(calloc(count, 2 * sizeof(sort_entry)));
    if (!entries)
        return false;
    size_t i = 0;
    for (clparse_node *child = first_child(container); child; child = next_child(container, child))
        entries[i++] = {static_cast<uint32_t>(tag_number(child->tag)) ^ (UINT32_C(1) << 31), child};
    if (!is_sorted(entries, count)) {
        if (are_few)
            sort_few(entries, count);
        for (int shift = are_few ? 32 : 0; shift < 32; shift += 16) {
            sort_by_byte(entries, entries + count, count, shift);
            sort_by_byte(entries + count, entries, count, shift + 8);
        }
        clparse_node *sentinel = container->value.children;
        sentinel->next = sentinel->prev = sentinel;
        for (i = 0; i < count; i++)
            link_last(container, entries[i].node);
    }
    if (!are_few)
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

// A search that has gone on for longer leads to an index.
constexpr size_t most_passed = first_index_cost;

// The merge of one source container into one target container.
class merge_level
{
  public:
    merge_level(merge_level *outer_level, clparse_node *target_container, clparse_node *source_container)
        : outer(outer_level), target(target_container), source_end(source_container->value.children),
          next_source(source_end->next), sources_left(count_links(source_end)),
          passed_(target_container->value.children)
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
        if (cost_ >= index_cost_ && indexable_ && !index_)
            build_index();
    }

    bool is_indexed() const
    {
        return index_.has_value();
    }

    // The child with which the search for the one that takes a node with this tag begins. No child before it
    // has the tag or callbacks.
    clparse_node *first_candidate(const char *tag)
    {
        if (!tag || !passed_tags_.can_hold(tag_filter::mark_of(tag)))
            return behind_passed();
        if (unsorted_ > 0) {
            settle();
            cost_ += count_children(target);
        }
        return target->value.children->next;
    }

    clparse_node *behind_passed() const
    {
        return passed_->next;
    }

    // The search has passed the children up to this one.
    void pass_to(clparse_node *last)
    {
        while (passed_ != last) {
            clparse_node *next = passed_->next;
            if (next->tag)
                passed_tags_.add(tag_filter::mark_of(next->tag));
            order_ = order_with(next);
            passed_ = next;
        }
    }

    // The child that takes a source node with this tag, by the index; null when there is none.
    clparse_node *find(const char *tag, bool as_container)
    {
        // Trees are mostly in the same order, so the child behind the last one found is tried first. Where
        // tags are distinct there is no other.
        clparse_node *next = last_found_ ? last_found_->next : target->value.children->next;
        if (next->tag && equal_tags(next->tag, tag) && !index_->has_duplicates())
            last_found_ = next;
        else if (clparse_node *found = as_container ? index_->first_container(tag) : index_->first(tag))
            last_found_ = found;
        else
            return nullptr;
        return !as_container || is_container(last_found_) ? last_found_ : nullptr;
    }

    // Makes of the list what the plain steps would have made of it, and forgets the index.
    void settle()
    {
        forget_passed();
        if (unsorted_ > 0)
            sort_after_insertions(target, first_unsorted_, unsorted_);
        unsorted_ = 0;
        if (!index_)
            return;
        index_.reset();
        last_found_ = nullptr;
        cost_ = 0;
        index_cost_ *= 2;
    }

    // Whether a lookup depends on the order of children that are not sorted yet.
    bool needs_order(const char *tag) const
    {
        return unsorted_ > 0 && index_->has_duplicates() && index_->first(tag) != index_->last(tag);
    }

    void insert(clparse_node *child)
    {
        const bool all_passed = has_passed_all();
        link_last(target, child);
        if (all_passed)
            pass_to(child);
        if (index_ && !add_to_index(child))
            give_up_index();
    }

    // Inserts a child and sorts the children; a container's own children, one level, are sorted too.
    void insert_sorted(clparse_node *child)
    {
        if (is_container(child))
            sort_children(child);
        if (sorts_later(child)) {
            if (unsorted_++ == 0)
                first_unsorted_ = child;
            insert(child);
            return;
        }
        if (index_)
            give_up_index();
        settle();
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

    bool has_passed_all() const
    {
        return by_words && passed_ == target->value.children->prev;
    }

    void forget_passed()
    {
        if (by_words)
            passed_tags_.clear();
        passed_ = target->value.children;
        order_ = tag_order::none;
    }

    enum class tag_order { none, letters, digits, mixed };

    tag_order order_with(const clparse_node *child) const
    {
        const tag_order own = begins_with_digit(child->tag) ? tag_order::digits : tag_order::letters;
        return order_ == tag_order::none || order_ == own ? own : tag_order::mixed;
    }

    // Whether one sort at the end of the level gives what sorting after each insertion gives: all children
    // are known, and the comparison orders all tags.
    bool sorts_later(const clparse_node *child) const
    {
        return (index_ || has_passed_all()) && order_with(child) != tag_order::mixed;
    }

    // Function nodes are asked one by one, so a level that has them is walked.
    bool add_to_index(clparse_node *child)
    {
        order_ = order_with(child);
        return child->type != CLPARSE_TYPE_FUNCTION && index_->add(child);
    }

    void build_index()
    {
        index_.emplace();
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

    std::optional<tag_index> index_;
    clparse_node *last_found_ = nullptr;
    bool indexable_ = true;
    size_t cost_ = 0;
    size_t index_cost_ = first_index_cost;
    tag_order order_ = tag_order::none; // of all children that are passed or indexed

    clparse_node *passed_; // a child or the sentinel
    tag_filter passed_tags_;

    clparse_node *first_unsorted_ = nullptr;
    size_t unsorted_ = 0; // insertions that wait for being sorted
};

// ---- The walk over levels

bool have_equal_tags(const clparse_node *a, const clparse_node *b)
{
    return a->tag && b->tag && equal_tags(a->tag, b->tag);
}

bool are_containers(const clparse_node *a, const clparse_node *b)
{
    return is_container(a) && is_container(b);
}

// What the default found action does with a pair of equal tags.
void take_value(clparse_node *target, const clparse_node *source)
{
    if (target == source)
        return;
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
        release(spare_);
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

    void release(void *memory)
    {
        if (memory != first_)
            free(memory);
    }

    void leave()
    {
        merge_level *done = top_;
        top_ = done->outer;
        done->settle();
        done->~merge_level();
        release(spare_);
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
        const bool passes_some = by_words && !asks_all();
        clparse_node *const first = passes_some ? level.first_candidate(level.source->tag) : end->next;
        if (first != end->next)
            level.result = -1;
        size_t comparisons = 0;
        bool passes = passes_some && first == level.behind_passed(); // as long as no function node is met
        const auto pass_to = [&](clparse_node *child) {
            if (by_words && passes && comparisons <= most_passed)
                level.pass_to(child);
        };
        for (clparse_node *next, *target = first; target != end; target = next) {
            if (!target) {
                errno = EFAULT;
                return false;
            }
            next = target->next;
            comparisons++;
            level.target_function = nullptr;
            if (target->type == CLPARSE_TYPE_FUNCTION) {
                passes = false;
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
                pass_to(target);
                add_cost(comparisons);
                return enter(target, level.source);
            }
            level.result = ask(target, level.source);
            if (!release_target())
                return false;
            if (level.result == -1)
                continue;
            pass_to(target);
            break;
        }
        add_cost(comparisons);
        return finish_source();
    }

    // Callers' actions must be asked about every pair, so that an index is of no use to them.
    bool asks_all() const
    {
        return found_ != clparse_dfl_found_action;
    }

    int ask(clparse_node *target, clparse_node *source)
    {
        if (!by_words || asks_all())
            return found_(target, source);
        if (is_container(source) || !have_equal_tags(target, source))
            return -1;
        take_value(target, source);
        return 0;
    }

    void add_cost(size_t comparisons)
    {
        if (!asks_all())
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
    alignas(merge_level) unsigned char first_[sizeof(merge_level)]; // memory of the first level
    void *spare_ = first_;                                          // or of a level that is done
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
    take_value(target, source);
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
