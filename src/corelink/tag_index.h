// An index of a container's children by tag, for lookups in containers that texts from outside made large.
//
// It is a hash table with a secret seed, so that a sender can't choose tags that collide. Children are added
// in list order; for each tag it knows the first and the last child and the first one that is a container. An
// index that can't grow says so, and its user walks the list instead.
#pragma once

#include <cstddef>
#include <cstdint>
#include <qvlib/corelink.h>

#include "tag_hash.h"

namespace qv
{

class tag_index
{
  public:
    tag_index() = default;
    ~tag_index();
    tag_index(const tag_index &) = delete;
    tag_index &operator=(const tag_index &) = delete;

    void clear();

    // Adds the next child; one without a tag is left out. False when memory is short.
    bool add(clparse_node *child);

    // The first or last child with this tag, or null.
    clparse_node *first(const char *tag) const;
    clparse_node *last(const char *tag) const;

    // The first child with this tag that is a struct or array now. A child that was passed over because it
    // had ceased to be a container is not looked at again.
    clparse_node *first_container(const char *tag);

    // Whether several children have the same tag.
    bool has_duplicates() const
    {
        return entry_count_ < item_count_;
    }

  private:
    struct item {
        clparse_node *node;
        uint32_t next; // following child with the same tag, or none
    };
    struct entry {
        uint32_t hash;
        uint32_t first, last; // items
        uint32_t container;   // item at which the search for a container goes on, or none
    };

    struct slot {
        uint32_t hash;  // here too: most slots that a search passes are ruled out by it
        uint32_t entry; // index + 1, 0 for a free slot
    };

    entry *find(const char *tag, uint32_t hash) const;
    bool grow_items();
    bool grow_slots();
    void place(uint32_t entry_index);

    tag_hash hash_;
    item *items_ = nullptr;
    entry *entries_ = nullptr; // room for one entry per item
    slot *slots_ = nullptr;    // open addressing
    uint32_t item_count_ = 0, entry_count_ = 0, item_room_ = 0, slot_count_ = 0;
};

} // namespace qv
