// What the reader does to the tree.

#include "builder.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "../tracked.h"
#include "../where.h"
#include "tag_hash.h"
#include "tree.h"

namespace qv
{

// The last child with each tag of a large container. The container's sentinel points to it while the text is
// read, through a word that sentinels do not use otherwise. Its slots hold little: of many prefixes each
// look-up meets memory that no cache holds.
class tree_builder::container_index
{
  public:
    container_index(clparse_node *sentinel, container_index *following)
        : next(following), sentinel_(sentinel), last_(sentinel)
    {
    }
    ~container_index()
    {
        sentinel_->value.func.priv = nullptr;
        free(slots_);
    }
    container_index(const container_index &) = delete;
    container_index &operator=(const container_index &) = delete;

    // Takes in the children that were linked since. False when memory is short.
    bool catch_up()
    {
        for (clparse_node *child = last_->next; child != sentinel_; child = child->next) {
            if (child->tag && !put(child, hash_(child->tag)))
                return false;
            last_ = child;
        }
        return true;
    }

    // The last child with this tag, or null; all children were taken in.
    clparse_node *find(const char *tag)
    {
        missed_hash_ = hash_(tag);
        return slot_count_ ? slot_of(tag, missed_hash_)->child : nullptr;
    }

    // Takes in the next child, whose tag was looked for in vain last.
    void add_missed(clparse_node *child)
    {
        if (last_->next == child && put(child, missed_hash_))
            last_ = child;
    }

    container_index *const next;

  private:
    struct slot {
        clparse_node *child; // null in a free slot
        uint32_t hash;
    };

    // Where a tag stands or would stand.
    slot *slot_of(const char *tag, uint32_t hash) const
    {
        for (uint32_t at = hash;; at++) {
            slot &here = slots_[at & (slot_count_ - 1)];
            if (!here.child || (here.hash == hash && strcmp(here.child->tag, tag) == 0))
                return &here;
        }
    }
    bool put(clparse_node *child, uint32_t hash)
    {
        if (used_ * 2 >= slot_count_ && !grow())
            return false;
        slot *here = slot_of(child->tag, hash);
        used_ += !here->child;
        *here = {child, hash};
        return true;
    }
    bool grow();

    const tag_hash hash_;
    clparse_node *const sentinel_;
    clparse_node *last_; // the last child that was taken in
    slot *slots_ = nullptr;
    uint32_t slot_count_ = 0, used_ = 0;
    uint32_t missed_hash_ = 0;
};

bool tree_builder::container_index::grow()
{
    const uint32_t count = slot_count_ ? slot_count_ * 2 : 64;
    auto *slots = static_cast<slot *>(count > slot_count_ ? calloc(count, sizeof(slot)) : nullptr);
    if (!slots)
        return false;
    for (uint32_t i = 0; i < slot_count_; i++) {
        if (!slots_[i].child)
            continue;
        uint32_t at = slots_[i].hash;
        while (slots[at & (count - 1)].child)
            at++;
        slots[at & (count - 1)] = slots_[i];
    }
    free(slots_);
    slots_ = slots;
    slot_count_ = count;
    return true;
}

namespace
{

// Dotted members mostly continue one of the last members, so the tail is looked at before an index is made.
constexpr int tail_walk = 8;

// Children that follow `from` towards the head of the list; null when there is none with this tag.
clparse_node *walk_back(clparse_node *from, const clparse_node *sentinel, const char *tag)
{
    for (; from != sentinel; from = from->prev)
        if (from->tag && strcmp(from->tag, tag) == 0)
            return from;
    return nullptr;
}

} // namespace

void free_cursor(clparse_node *cursor)
{
    if (cursor)
        release_tracked(cursor, QV_WHERE);
}

tree_builder::~tree_builder()
{
    free_cursor(spare_);
    while (container_index *index = indexes_) {
        indexes_ = index->next;
        index->~container_index();
        free(index);
    }
}

build_result tree_builder::enter_prefix(char *tag)
{
    clparse_node *container = head_->cursor->parent;
    if (clparse_node *present = find_last_child(container, tag)) {
        free_text(tag, QV_WHERE);
        if (!has_children_list(present))
            return build_result::syntax_error;
        head_->cursor->parent = present;
        return build_result::done;
    }
    clparse_node *prefix = head_->cursor;
    prefix->tag = tag;
    prefix->type = CLPARSE_TYPE_STRUCT;
    prefix->value.children = clparse_create_node(nullptr);
    if (!prefix->value.children)
        return build_result::out_of_memory;
    link_last(container, prefix);
    if (container_index *index = existing_index(container->value.children))
        index->add_missed(prefix);
    return next_cursor(prefix);
}

clparse_node *tree_builder::find_last_child(clparse_node *container, const char *tag)
{
    clparse_node *sentinel = container->value.children;
    clparse_node *child = sentinel->prev;
    const int steps = existing_index(sentinel) ? 1 : tail_walk;
    for (int step = 0; step < steps; step++, child = child->prev) {
        if (child == sentinel)
            return nullptr;
        if (child->tag && strcmp(child->tag, tag) == 0)
            return child;
    }
    container_index *index = index_of(sentinel);
    return index && index->catch_up() ? index->find(tag) : walk_back(child, sentinel, tag);
}

tree_builder::container_index *tree_builder::index_of(clparse_node *sentinel)
{
    if (container_index *index = existing_index(sentinel))
        return index;
    void *memory = malloc(sizeof(container_index));
    if (!memory)
        return nullptr;
    indexes_ = new (memory) container_index(sentinel, indexes_);
    sentinel->value.func.priv = indexes_;
    return indexes_;
}

} // namespace qv
