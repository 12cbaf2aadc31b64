#include "tag_index.h"

#include <cstdlib>
#include <cstring>
#include <sys/auxv.h>

#include "tree.h"

namespace qv
{
namespace
{

constexpr uint32_t none = UINT32_MAX;

// SipHash-1-3 (Aumasson and Bernstein), seeded by the random bytes that the kernel gives each process.
class tag_hash
{
  public:
    uint32_t operator()(const char *text) const
    {
        size_t length = strlen(text);
        uint64_t seed[2] = {0x0706050403020100, 0x0f0e0d0c0b0a0908};
        if (const void *random = reinterpret_cast<const void *>(getauxval(AT_RANDOM)))
            memcpy(seed, random, sizeof seed);
        state s = {seed[0] ^ 0x736f6d6570736575, seed[1] ^ 0x646f72616e646f6d, seed[0] ^ 0x6c7967656e657261,
                   seed[1] ^ 0x7465646279746573};
        uint64_t tail = static_cast<uint64_t>(length) << 56;
        for (; length >= 8; length -= 8, text += 8) {
            uint64_t word;
            memcpy(&word, text, 8);
            s.absorb(word);
        }
        memcpy(&tail, text, length);
        s.absorb(tail ^ (static_cast<uint64_t>(length) << 56));
        s.v2 ^= 0xff;
        for (int round = 0; round < 3; round++)
            s.mix();
        const uint64_t hash = s.v0 ^ s.v1 ^ s.v2 ^ s.v3;
        return static_cast<uint32_t>(hash ^ (hash >> 32));
    }

  private:
    struct state {
        uint64_t v0, v1, v2, v3;

        static uint64_t rotate(uint64_t x, int bits)
        {
            return (x << bits) | (x >> (64 - bits));
        }
        void mix()
        {
            v0 += v1, v1 = rotate(v1, 13), v1 ^= v0, v0 = rotate(v0, 32);
            v2 += v3, v3 = rotate(v3, 16), v3 ^= v2;
            v0 += v3, v3 = rotate(v3, 21), v3 ^= v0;
            v2 += v1, v1 = rotate(v1, 17), v1 ^= v2, v2 = rotate(v2, 32);
        }
        void absorb(uint64_t word)
        {
            v3 ^= word;
            mix();
            v0 ^= word;
        }
    };
};

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
    const uint32_t hash = tag_hash()(child->tag);
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
    const entry *found = find(tag, tag_hash()(tag));
    return found ? items_[found->first].node : nullptr;
}

clparse_node *tag_index::last(const char *tag) const
{
    const entry *found = find(tag, tag_hash()(tag));
    return found ? items_[found->last].node : nullptr;
}

clparse_node *tag_index::first_container(const char *tag)
{
    entry *found = find(tag, tag_hash()(tag));
    if (!found)
        return nullptr;
    while (found->container != none && !is_container(items_[found->container].node))
        found->container = items_[found->container].next;
    return found->container == none ? nullptr : items_[found->container].node;
}

} // namespace qv
