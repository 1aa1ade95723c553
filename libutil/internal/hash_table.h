// hash_table.h - the layout behind a hash table's handle.
#ifndef KOUTIL_INTERNAL_HASH_TABLE_H
#define KOUTIL_INTERNAL_HASH_TABLE_H

#include "koutil/hash_table.h"

namespace koutil
{

// One entry. In a table of the third kind the value area begins at h_value and has the table's own
// length, so the entry may be smaller than this structure.
struct bucket_t {
    union {
        char *hu_name_key;
        uint64_t hu_uint64_key;
    } h_u;
    bucket_t *h_next;
    hash_val_t h_value;
};

struct bucket_chain_t {
    bucket_t *bucket; // newest entry first
    uint32_t depth;   // entries on this chain
};

struct hash_t;

// The operations of one kind of key. `key` points to the name, or to the number.
struct key_funcs_t {
    uint32_t (*hash)(const void *key);
    bucket_t *(*set_key)(hash_t *table,
                         const void *key); // makes an entry that holds the key, or null
    bool (*is_key)(const bucket_t *entry, const void *key);
    void (*destroy_key)(hash_t *table, bucket_t *entry); // frees an entry and what it owns
};

// Move a found entry to the head of its chain.
constexpr uint16_t kMoveToFront = 1;

constexpr uint32_t kFreeLists = 16;
constexpr uint32_t kFreedAtOnce = 8;

// The header; the chains follow it in the same allocation.
struct hash_t {
    uint16_t key_type; // 1 name, 2 number, 3 number with inline value
    uint16_t hash_flags;
    uint32_t hash_buckets;
    uint32_t entry_count;
    uint32_t bucket_size; // bytes of one entry without its name
    const key_funcs_t *key_funcs;
    bucket_chain_t *buckets;

    uint64_t reciprocal;             // of hash_buckets, for the remainder
    void *slabs;                     // blocks that entries are cut from, each linked to the next
    char *slab_at;                   // the unused rest of the newest block
    char *slab_end;                  //
    size_t slab_bytes;               // all blocks together
    bucket_t *free_list[kFreeLists]; // deleted entries, by size
    bucket_t *freed[kFreedAtOnce];   // deleted entries that are not on a free list yet
    uint32_t freed_count;
};

} // namespace koutil

#endif
