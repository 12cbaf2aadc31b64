// The lock checker. Sites and holdings are in a list each, newest first, and in a hash table each, for
// finding one without a walk. A site's count is at least the number of its holdings: a repeated id raises it
// without one. The context's mutex guards all of it.
#include <qvlib/lock_check.h>

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qvlib/encoding.h>
#include <qvlib/memcheck.h>
#include <qvlib/strings.h>

#include "guard.h"
#include "where.h"

namespace
{

struct list_link {
    list_link *next, *prev;
};

struct lock_site {
    char *file;
    size_t line;
    void *extra;
    uint64_t hash; // of "FILE:LINE"; tells sites apart
    size_t count;
    list_link links;
    lock_site *chain; // the next one of its bucket
};

struct lock_holder {
    int id;
    lock_site *site;
    list_link links;
    lock_holder *chain;
};

uint64_t key_of(const lock_site *site)
{
    return site->hash;
}

uint64_t key_of(const lock_holder *holder)
{
    return static_cast<uint32_t>(holder->id);
}

// Chained entries by key. Grows to at least as many buckets as entries; where memory is short chains get
// longer.
template <class Entry> class table
{
  public:
    Entry *find(uint64_t key) const
    {
        if (buckets == nullptr)
            return nullptr;
        Entry *entry = buckets[bucket_of(key)];
        while (entry != nullptr && key_of(entry) != key)
            entry = entry->chain;
        return entry;
    }

    // Returns false when there is no memory for a first bucket.
    bool add(Entry *entry)
    {
        if (count >= size())
            grow();
        if (buckets == nullptr)
            return false;
        chain(buckets, bits, entry);
        count++;
        return true;
    }

    void remove(const Entry *entry)
    {
        Entry **place = &buckets[bucket_of(key_of(entry))];
        while (*place != entry)
            place = &(*place)->chain;
        *place = entry->chain;
        count--;
    }

    void release()
    {
        free(buckets);
        *this = table();
    }

  private:
    static constexpr unsigned int first_bits = 6;

    size_t size() const
    {
        return buckets != nullptr ? size_t{1} << bits : 0;
    }

    // The upper bits of a product with the golden ratio: neighbouring ids spread over the buckets.
    static size_t bucket_of(uint64_t key, unsigned int of_bits)
    {
        return static_cast<size_t>((key * 0x9e3779b97f4a7c15) >> (64 - of_bits));
    }

    size_t bucket_of(uint64_t key) const
    {
        return bucket_of(key, bits);
    }

    static void chain(Entry **into, unsigned int of_bits, Entry *entry)
    {
        Entry **bucket = &into[bucket_of(key_of(entry), of_bits)];
        entry->chain = *bucket;
        *bucket = entry;
    }

    void grow()
    {
        const unsigned int grown_bits = buckets != nullptr ? bits + 1 : first_bits;
        auto **grown = static_cast<Entry **>(calloc(size_t{1} << grown_bits, sizeof *buckets));
        if (grown == nullptr)
            return;
        for (size_t i = 0; i < size(); i++)
            for (Entry *entry = buckets[i], *next; entry != nullptr; entry = next) {
                next = entry->chain;
                chain(grown, grown_bits, entry);
            }
        free(buckets);
        buckets = grown;
        bits = grown_bits;
    }

    Entry **buckets = nullptr;
    size_t count = 0;
    unsigned int bits = 0;
};

struct checker {
    list_link sites, holders; // list heads
    pthread_mutex_t mutex;
    table<lock_site> sites_by_hash;
    table<lock_holder> holders_by_id;
};

checker *context;

void make_empty(list_link *head)
{
    head->next = head->prev = head;
}

void put_in_front(list_link *head, list_link *added)
{
    added->next = head->next;
    added->prev = head;
    head->next->prev = added;
    head->next = added;
}

void unlink(list_link *removed)
{
    removed->prev->next = removed->next;
    removed->next->prev = removed->prev;
}

template <class Entry> Entry *entry_of(list_link *links)
{
    return reinterpret_cast<Entry *>(reinterpret_cast<char *>(links) - offsetof(Entry, links));
}

// The hash of "FILE:LINE"; false when the text could not be had.
bool hash_site(const char *file, size_t line, uint64_t *hash)
{
    char *text = nullptr;
    if (__qv_asprintf(&text, "check_lock_add", __LINE__, "%s:%zu", file, line) < 0)
        return false;
    *hash = hash_str_64(text);
    qv_memcheck_free(qv_free, text, QV_WHERE);
    return true;
}

void free_site(lock_site *site)
{
    free(site->file);
    free(site);
}

lock_site *make_site(const char *file, size_t line, void *extra, uint64_t hash)
{
    auto *site = static_cast<lock_site *>(calloc(1, sizeof(lock_site)));
    if (site == nullptr)
        return nullptr;
    site->file = strdup(file);
    site->line = line;
    site->extra = extra;
    site->hash = hash;
    if (site->file == nullptr || !context->sites_by_hash.add(site)) {
        free_site(site);
        return nullptr;
    }
    put_in_front(&context->sites, &site->links);
    return site;
}

bool make_holder(int id, lock_site *site)
{
    auto *holder = static_cast<lock_holder *>(calloc(1, sizeof(lock_holder)));
    if (holder == nullptr)
        return false;
    holder->id = id;
    holder->site = site;
    if (!context->holders_by_id.add(holder)) {
        free(holder);
        return false;
    }
    put_in_front(&context->holders, &holder->links);
    return true;
}

void lower_count(lock_site *site)
{
    if (--site->count > 0)
        return;
    context->sites_by_hash.remove(site);
    unlink(&site->links);
    free_site(site);
}

void remove_holder(lock_holder *holder)
{
    lower_count(holder->site);
    context->holders_by_id.remove(holder);
    unlink(&holder->links);
    free(holder);
}

} // namespace

int check_lock_init(void)
{
    check_lock_exit();
    auto *made = static_cast<checker *>(calloc(1, sizeof(checker)));
    if (made == nullptr)
        return ENOMEM;
    make_empty(&made->sites);
    make_empty(&made->holders);
    const int result = pthread_mutex_init(&made->mutex, nullptr);
    if (result != 0) {
        free(made);
        return result;
    }
    context = made;
    return 0;
}

size_t check_lock_add(const char *file, size_t line, int id, void *extra)
{
    uint64_t hash;
    if (context == nullptr || file == nullptr || !hash_site(file, line, &hash))
        return 0;
    qv::mutex_guard lock(context->mutex);
    lock_site *site = context->sites_by_hash.find(hash);
    if (site == nullptr)
        site = make_site(file, line, extra, hash);
    if (site == nullptr)
        return 0;
    const size_t count = ++site->count;
    if (context->holders_by_id.find(static_cast<uint32_t>(id)) != nullptr) {
        printf("Multiple references found %s:%zu\n", file, line);
        return count;
    }
    if (!make_holder(id, site)) {
        lower_count(site);
        return 0;
    }
    lock.unlock();
    if (count % 10 != 0)
        return count;
    check_lock_dump();
    return 0;
}

void check_lock_remove(int id)
{
    if (context == nullptr)
        return;
    qv::mutex_guard lock(context->mutex);
    lock_holder *holder = context->holders_by_id.find(static_cast<uint32_t>(id));
    if (holder == nullptr) {
        lock.unlock();
        puts("Could not find reference to remove");
        return;
    }
    remove_holder(holder);
}

void check_lock_dump(void)
{
    if (context == nullptr)
        return;
    qv::mutex_guard lock(context->mutex);
    for (list_link *each = context->sites.next; each != &context->sites; each = each->next) {
        const auto *site = entry_of<lock_site>(each);
        printf("%s:%zu count=%zu\n", site->file, site->line, site->count);
    }
}

void check_lock_exit(void)
{
    if (context == nullptr)
        return;
    while (context->holders.next != &context->holders)
        remove_holder(entry_of<lock_holder>(context->holders.next));
    for (list_link *each = context->sites.next, *next; each != &context->sites; each = next) {
        next = each->next;
        free_site(entry_of<lock_site>(each));
    }
    context->holders_by_id.release();
    context->sites_by_hash.release();
    pthread_mutex_destroy(&context->mutex);
    free(context);
    context = nullptr;
}
