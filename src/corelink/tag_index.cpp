#include "tag_index.h"

#include <cstdlib>
#include <cstring>

#include "tree.h"

namespace qv
{
namespace
{

constexpr uint32_t none = UINT32_MAX;

template <class T> bool resize(T *&array, size_t count)
{
    void *moved = count <= SIZE_MAX / sizeof(T) ? realloc(array, count * sizeof(T)) : nullptr;
    if (moved)
        array = static_cast<T *>(moved);
    return moved != nullptr;
}

} // namespace

tag_index::~tag_index()
{
    clear();
}

void tag_index::clear()
{
    free(items_);
    free(entries_);
    free(slots_);
    items_ = nullptr;
    entries_ = nullptr;
    slots_ = nullptr;
    item_count_ = entry_count_ = item_room_ = slot_count_ = 0;
}

tag_index::entry *tag_index::find(const char *tag, uint32_t hash) const
{
    if (slot_count_ == 0)
        return nullptr;
    for (uint32_t at = hash;; at++) {
        const slot &here = slots_[at & (slot_count_ - 1)];
        if (here.entry == 0)
            return nullptr;
        if (here.hash != hash)
            continue;
        entry *found = &entries_[here.entry - 1];
        if (strcmp(items_[found->first].node->tag, tag) == 0)
            return found;
    }
}

bool tag_index::grow_items()
{
    const uint32_t room = item_room_ ? item_room_ * 2 : 64;
    if (room <= item_room_ || !resize(items_, room) || !resize(entries_, room))
        return false;
    item_room_ = room;
    return true;
}

void tag_index::place(uint32_t entry_index)
{
    const uint32_t hash = entries_[entry_index].hash;
    uint32_t at = hash;
    while (slots_[at & (slot_count_ - 1)].entry != 0)
        at++;
    slots_[at & (slot_count_ - 1)] = {hash, entry_index + 1};
}

bool tag_index::grow_slots()
{
    const uint32_t count = slot_count_ ? slot_count_ * 2 : 128;
    auto *slots = static_cast<slot *>(count > slot_count_ ? calloc(count, sizeof(slot)) : nullptr);
    if (!slots)
        return false;
    free(slots_);
    slots_ = slots;
    slot_count_ = count;
    for (uint32_t i = 0; i < entry_count_; i++)
        place(i);
    return true;
}

bool tag_index::add(clparse_node *child)
{
    if (!child->tag)
        return true;
    if (item_count_ == item_room_ && !grow_items())
        return false;
    if (entry_count_ * 2 >= slot_count_ && !grow_slots())
        return false;
    const uint32_t added = item_count_++;
    items_[added] = {child, none};
    const uint32_t hash = hash_(child->tag);
    if (entry *same = find(child->tag, hash)) {
        items_[same->last].next = added;
        same->last = added;
        if (same->container == none)
            same->container = added;
        return true;
    }
    entries_[entry_count_] = {hash, added, added, added};
    place(entry_count_++);
    return true;
}

clparse_node *tag_index::first(const char *tag) const
{
    const entry *found = find(tag, hash_(tag));
    return found ? items_[found->first].node : nullptr;
}

clparse_node *tag_index::last(const char *tag) const
{
    const entry *found = find(tag, hash_(tag));
    return found ? items_[found->last].node : nullptr;
}

clparse_node *tag_index::first_container(const char *tag)
{
    entry *found = find(tag, hash_(tag));
    if (!found)
        return nullptr;
    while (found->container != none && !is_container(items_[found->container].node))
        found->container = items_[found->container].next;
    return found->container == none ? nullptr : items_[found->container].node;
}

} // namespace qv
