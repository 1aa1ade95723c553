// hash_table.cpp - chained hash tables.
//
// Entries are cut from slabs of the table, a name beside its entry, because an allocation per entry
// and one per name would cost more than everything else together, in time and in cache lines. Slabs
// begin small and grow with the table. A deleted entry goes to the table's list of free entries of
// its size. Entries that are large enough to make malloc cheap by comparison are malloc'd, and
// freed when they are deleted.
//
// The operations of each kind of key are a constant table of functions. What works on one kind
// takes that constant as a template argument, so that nothing is called through a pointer on the
// way to an entry; what works on any kind goes through the table's key_funcs.
#include "koutil/hash_table.h"

#include "internal/hash_table.h"
#include "internal/literal.h"
#include "internal/pages.h"
#include "koutil/logger.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace koutil
{
namespace
{

// Offset of the value, and of the value area in tables of the third kind.
constexpr size_t kValueOffset = offsetof(bucket_t, h_value);
static_assert(kValueOffset == 16 && sizeof(bucket_t) == 24);

// Memory

constexpr size_t kSlabHeader = 16; // the link to the next slab; keeps entries aligned as by malloc
constexpr size_t kSlabSmallest = 264;
constexpr size_t kSlabLargest = 65520;

constexpr size_t round_up(size_t size, size_t unit)
{
    return (size + unit - 1) / unit * unit;
}

// The size of the next slab: a share of what the table has, in whole huge pages for a large table.
size_t next_slab_size(const hash_t *table)
{
    if (table->slab_bytes >= 4 * kHugePage)
        return kHugePage;
    return std::clamp(table->slab_bytes / 2, kSlabSmallest, kSlabLargest);
}

bool add_slab(hash_t *table, size_t entry_size)
{
    const size_t size = std::max(next_slab_size(table), kSlabHeader + entry_size);
    auto *slab =
        static_cast<char *>(size < kHugePage ? malloc(size) : aligned_alloc(kHugePage, size));
    if (!slab)
        return false;
    prefer_huge_pages(slab, size);
    memcpy(slab, &table->slabs, sizeof table->slabs);
    table->slabs = slab;
    table->slab_at = slab + kSlabHeader;
    table->slab_end = slab + size;
    table->slab_bytes += size;
    return true;
}

// Links the entries that wait in `freed` to their free lists.
template <typename FreeList>
void link_freed(hash_t *table, FreeList free_list_of)
{
    while (table->freed_count > 0) {
        bucket_t *entry = table->freed[--table->freed_count];
        bucket_t **free_list = free_list_of(table, entry);
        entry->h_next = *free_list;
        *free_list = entry;
    }
}

// Keeps an entry for later. Entries are linked some at a time: written at once, each write would
// hold up the reads of the deletion after it.
template <typename FreeList>
void give(hash_t *table, bucket_t *entry, FreeList free_list_of)
{
    if (table->freed_count == kFreedAtOnce)
        link_freed(table, free_list_of);
    table->freed[table->freed_count++] = entry;
}

// An entry of `size` bytes from its free list or a slab.
template <typename FreeList>
bucket_t *take(hash_t *table, bucket_t **free_list, size_t size, FreeList free_list_of)
{
    if (table->freed_count > 0)
        link_freed(table, free_list_of);
    if (bucket_t *entry = *free_list) {
        *free_list = entry->h_next;
        return entry;
    }
    if (static_cast<size_t>(table->slab_end - table->slab_at) < size && !add_slab(table, size))
        return nullptr;
    auto *entry = reinterpret_cast<bucket_t *>(table->slab_at);
    table->slab_at += size;
    return entry;
}

// Hashes

constexpr uint32_t kFactor = 65599;

constexpr uint32_t power(int exponent)
{
    uint32_t result = 1;
    while (exponent-- > 0)
        result *= kFactor;
    return result;
}

// The term of the byte that `exponent` bytes follow. Bytes count as signed.
template <int exponent>
uint32_t term(signed char byte)
{
    return static_cast<uint32_t>(int32_t{byte}) * power(exponent);
}

// Steps of eight bytes and of four: the multiplications of one step do not wait for each other.
uint32_t hash_bytes(const char *name, size_t length)
{
    const auto *p = reinterpret_cast<const signed char *>(name);
    uint32_t hash = 0;
    for (; length >= 8; length -= 8, p += 8) {
        hash = hash * power(8) +
               ((term<7>(p[0]) + term<6>(p[1])) + (term<5>(p[2]) + term<4>(p[3]))) +
               ((term<3>(p[4]) + term<2>(p[5])) + (term<1>(p[6]) + term<0>(p[7])));
    }
    if (length >= 4) {
        hash =
            hash * power(4) + ((term<3>(p[0]) + term<2>(p[1])) + (term<1>(p[2]) + term<0>(p[3])));
        length -= 4;
        p += 4;
    }
    for (; length > 0; length--, p++)
        hash = hash * kFactor + term<0>(*p);
    return hash;
}

uint64_t number(const void *key)
{
    uint64_t value;
    memcpy(&value, key, sizeof value);
    return value;
}

// The chain of a hash: the remainder by the number of chains, as two multiplications.
bucket_chain_t &chain_of(const hash_t *table, uint32_t hash)
{
    __extension__ using uint128 = unsigned __int128;
    const uint64_t fraction = table->reciprocal * hash;
    return table->buckets[static_cast<size_t>(uint128{fraction} * table->hash_buckets >> 64)];
}

// Names: an entry is followed by its name. Names up to 127 bytes stand in slabs.

constexpr size_t kNameEntrySmallest = 32;
constexpr size_t kNameEntryLargest = kNameEntrySmallest + 8 * (kFreeLists - 1);

size_t name_entry_size(const char *name)
{
    return round_up(sizeof(bucket_t) + strlen(name) + 1, 8);
}

bucket_t **name_free_list(hash_t *table, size_t size)
{
    return &table->free_list[(size - kNameEntrySmallest) / 8];
}

bucket_t **name_free_list_of(hash_t *table, const bucket_t *entry)
{
    return name_free_list(table, name_entry_size(entry->h_u.hu_name_key));
}

uint32_t name_hash(const void *key)
{
    const auto *name = static_cast<const char *>(key);
    return hash_bytes(name, strlen(name));
}

bucket_t *name_set_key(hash_t *table, const void *key)
{
    const auto *name = static_cast<const char *>(key);
    const size_t size = name_entry_size(name);
    bucket_t *entry = size <= kNameEntryLargest
                          ? take(table, name_free_list(table, size), size, name_free_list_of)
                          : static_cast<bucket_t *>(malloc(size));
    if (entry) {
        entry->h_u.hu_name_key = reinterpret_cast<char *>(entry + 1);
        memcpy(entry->h_u.hu_name_key, name, strlen(name) + 1);
    }
    return entry;
}

bool name_is_key(const bucket_t *entry, const void *key)
{
    return strcmp(entry->h_u.hu_name_key, static_cast<const char *>(key)) == 0;
}

void name_destroy_key(hash_t *table, bucket_t *entry)
{
    const size_t size = name_entry_size(entry->h_u.hu_name_key);
    if (size <= kNameEntryLargest) {
        give(table, entry, name_free_list_of);
    } else {
        free(entry);
    }
}

// Numbers: all entries of a table have one size. Those above the limit are malloc'd.

constexpr size_t kNumberEntryLargest = 1024;

uint32_t uint64_hash(const void *key)
{
    const uint64_t value = number(key);
    return static_cast<uint32_t>(value ^ value >> 32);
}

// The value area is aligned as malloc would align it: no object below 16 bytes needs more than 8.
size_t number_entry_size(const hash_t *table)
{
    return round_up(table->bucket_size, table->bucket_size < kValueOffset + 16 ? 8 : 16);
}

bucket_t **number_free_list(hash_t *table, const bucket_t *)
{
    return &table->free_list[0];
}

bucket_t *uint64_set_key(hash_t *table, const void *key)
{
    const size_t size = number_entry_size(table);
    bucket_t *entry = size <= kNumberEntryLargest
                          ? take(table, &table->free_list[0], size, number_free_list)
                          : static_cast<bucket_t *>(malloc(size));
    if (entry)
        entry->h_u.hu_uint64_key = number(key);
    return entry;
}

bool uint64_is_key(const bucket_t *entry, const void *key)
{
    return entry->h_u.hu_uint64_key == number(key);
}

void uint64_val_destroy_key(hash_t *table, bucket_t *entry)
{
    if (number_entry_size(table) <= kNumberEntryLargest) {
        give(table, entry, number_free_list);
    } else {
        free(entry);
    }
}

void uint64_destroy_key(hash_t *table, bucket_t *entry)
{
    free(entry->h_value.pvalue);
    uint64_val_destroy_key(table, entry);
}

constexpr key_funcs_t name_funcs = {name_hash, name_set_key, name_is_key, name_destroy_key};
constexpr key_funcs_t uint64_funcs = {uint64_hash, uint64_set_key, uint64_is_key,
                                      uint64_destroy_key};
constexpr key_funcs_t uint64_val_funcs = {uint64_hash, uint64_set_key, uint64_is_key,
                                          uint64_val_destroy_key};

// By key_type.
constexpr const key_funcs_t *key_funcs[] = {nullptr, &name_funcs, &uint64_funcs, &uint64_val_funcs};

// Operations

hash_t *create(uint16_t key_type, uint32_t buckets, size_t bucket_size)
{
    const uint32_t chains = buckets > 0 ? buckets : 1;
    const size_t size = sizeof(hash_t) + sizeof(bucket_chain_t) * chains;
    auto *table = static_cast<hash_t *>(calloc(1, size));
    if (!table) {
        __vorn_logfn(3, literal("hash_create: failed to malloc space for %d buckets.\n"),
                     static_cast<int>(buckets));
        return nullptr;
    }
    prefer_huge_pages(table, size);
    table->key_type = key_type;
    table->hash_buckets = chains;
    table->bucket_size = static_cast<uint32_t>(bucket_size);
    table->key_funcs = key_funcs[key_type];
    table->buckets = reinterpret_cast<bucket_chain_t *>(table + 1);
    table->reciprocal = UINT64_MAX / chains + 1; // 0 for one chain, which gives the remainder 0
    return table;
}

hash_t *table_of(void *hash)
{
    return static_cast<hash_t *>(hash);
}

void *value_area(bucket_t *entry)
{
    return reinterpret_cast<char *>(entry) + kValueOffset;
}

// Returns the new entry, whose value is not set, or null.
template <const key_funcs_t &funcs>
bucket_t *insert(hash_t *table, const void *key)
{
    bucket_chain_t &chain = chain_of(table, funcs.hash(key));
    bucket_t *entry = funcs.set_key(table, key);
    if (!entry) {
        __vorn_logfn(3, literal("Failed to malloc memory for hash bucket.\n"));
        return nullptr;
    }
    entry->h_next = chain.bucket;
    chain.bucket = entry;
    chain.depth++;
    table->entry_count++;
    return entry;
}

// Returns the link that leads to the newest entry with the key; it holds null when there is none.
template <const key_funcs_t &funcs>
bucket_t **find(bucket_chain_t &chain, const void *key)
{
    bucket_t **link = &chain.bucket;
    while (*link && !funcs.is_key(*link, key))
        link = &(*link)->h_next;
    return link;
}

template <const key_funcs_t &funcs>
bucket_t *search(hash_t *table, const void *key)
{
    bucket_chain_t &chain = chain_of(table, funcs.hash(key));
    bucket_t **link = find<funcs>(chain, key);
    bucket_t *entry = *link;
    if (entry && (table->hash_flags & kMoveToFront) && link != &chain.bucket) {
        *link = entry->h_next;
        entry->h_next = chain.bucket;
        chain.bucket = entry;
    }
    return entry;
}

template <const key_funcs_t &funcs>
int32_t remove(hash_t *table, const void *key)
{
    bucket_chain_t &chain = chain_of(table, funcs.hash(key));
    bucket_t **link = find<funcs>(chain, key);
    bucket_t *entry = *link;
    if (!entry)
        return 1;
    *link = entry->h_next;
    chain.depth--;
    table->entry_count--;
    funcs.destroy_key(table, entry);
    return 0;
}

// Calls `visit` for every entry, which it may free.
template <typename Visit>
void for_each_entry(hash_t *table, Visit visit)
{
    for (uint32_t i = 0; i < table->hash_buckets; i++) {
        for (bucket_t *entry = table->buckets[i].bucket, *next; entry; entry = next) {
            next = entry->h_next;
            visit(entry);
        }
    }
}

hash_val_t *insert_pointer(bucket_t *entry, void *value)
{
    if (!entry)
        return nullptr;
    entry->h_value.pvalue = value;
    return &entry->h_value;
}

} // namespace
} // namespace koutil

using namespace koutil;

void *ko_hash_create(uint32_t buckets)
{
    return create(1, buckets, sizeof(bucket_t));
}

void *ko_hash_create_uint64(uint32_t buckets)
{
    return create(2, buckets, sizeof(bucket_t));
}

void *ko_hash_create_uint64_val(uint32_t buckets, size_t len)
{
    return len <= UINT32_MAX - kValueOffset ? create(3, buckets, kValueOffset + len) : nullptr;
}

hash_val_t *ko_hash_insert(void *hash, const char *name, void *value)
{
    return insert_pointer(insert<name_funcs>(table_of(hash), name), value);
}

hash_val_t *ko_hash_insert_uint64(void *hash, uint64_t key, void *value)
{
    return insert_pointer(insert<uint64_funcs>(table_of(hash), &key), value);
}

void *ko_hash_insert_uint64_val(void *hash, uint64_t key)
{
    hash_t *table = table_of(hash);
    bucket_t *entry = insert<uint64_val_funcs>(table, &key);
    return entry ? memset(value_area(entry), 0, table->bucket_size - kValueOffset) : nullptr;
}

void *ko_hash_search(void *hash, const char *name)
{
    const bucket_t *entry = search<name_funcs>(table_of(hash), name);
    return entry ? entry->h_value.pvalue : nullptr;
}

void *ko_hash_search_uint64(void *hash, uint64_t key)
{
    const bucket_t *entry = search<uint64_funcs>(table_of(hash), &key);
    return entry ? entry->h_value.pvalue : nullptr;
}

void *ko_hash_search_uint64_val(void *hash, uint64_t key)
{
    bucket_t *entry = search<uint64_val_funcs>(table_of(hash), &key);
    return entry ? value_area(entry) : nullptr;
}

int32_t ko_hash_delete(void *hash, const char *name)
{
    return remove<name_funcs>(table_of(hash), name);
}

int32_t ko_hash_delete_uint64(void *hash, uint64_t key)
{
    return remove<uint64_funcs>(table_of(hash), &key);
}

int32_t ko_hash_delete_uint64_val(void *hash, uint64_t key)
{
    return remove<uint64_val_funcs>(table_of(hash), &key);
}

void ko_hash_iterate_uint64_val(void *hash, void *handle,
                                void (*candidate)(void *handle, uint64_t key, void *value_area))
{
    for_each_entry(table_of(hash), [=](bucket_t *entry) {
        candidate(handle, entry->h_u.hu_uint64_key, value_area(entry));
    });
}

uint32_t ko_hash_count(void *hash)
{
    return table_of(hash)->entry_count;
}

void ko_hash_info(void *hash)
{
    const hash_t *table = table_of(hash);
    uint32_t most = 0;
    uint32_t fewest = 0x7FFFFFF;
    uint32_t sum = 0;
    for (uint32_t i = 0; i < table->hash_buckets; i++) {
        const uint32_t depth = table->buckets[i].depth;
        most = std::max(most, depth);
        fewest = std::min(fewest, depth);
        sum += depth;
    }
    __vorn_logfn(1, literal("%d buckets, min %d, max %d, avg %d\n"),
                 static_cast<int>(table->hash_buckets), static_cast<int>(fewest),
                 static_cast<int>(most), static_cast<int>(sum / table->hash_buckets));
}

void ko_hash_destroy(void *hash)
{
    hash_t *table = table_of(hash);
    if (!table)
        return;
    for_each_entry(table, [=](bucket_t *entry) { table->key_funcs->destroy_key(table, entry); });
    for (void *slab = table->slabs, *next; slab; slab = next) {
        memcpy(&next, slab, sizeof next);
        free(slab);
    }
    free(table);
}

uint32_t ko_name_hash(const void *key)
{
    return name_hash(key);
}
