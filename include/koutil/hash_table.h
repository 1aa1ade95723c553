/* hash_table.h - chained hash tables, keyed by a name or by a 64-bit number.
 *
 * A table has a fixed number of chains, given at creation; with about as many chains as entries an
 * operation costs a step or two. There are three kinds, and the functions of one kind must be used
 * with tables of that kind only, which is not checked:
 *
 *     created by                  key              value                       owner of the value
 *     ko_hash_create              name, copied     the caller's pointer        the caller
 *     ko_hash_create_uint64       64-bit number    pointer from malloc         the table: free(3)
 *     ko_hash_create_uint64_val   64-bit number    `len` bytes in the entry    the table
 *
 * A key may be inserted more than once: the newest entry is the one found and the one deleted,
 * which exposes the one before it. A stored null pointer cannot be told from an absent key by a
 * search.
 *
 * Life:           create -> insert, search, delete ... -> ko_hash_destroy. Handles are opaque.
 * Ownership:      keys are copied. Pointers into an entry hold until the entry is deleted. The
 *                 memory of deleted entries is used again for new ones; all of it goes back to the
 *                 system with the table.
 * On failure:     a null pointer; the table is unchanged, and lack of memory is logged through
 *                 __vorn_logfn at level 3 (error).
 * Thread safety:  none; the caller serialises all operations on one table, searches included.
 *
 *     void *mounts = ko_hash_create(64);
 *     ko_hash_insert(mounts, "/data", fs);
 *     fs = ko_hash_search(mounts, "/data");
 *     ko_hash_destroy(mounts);
 */
#ifndef KOUTIL_HASH_TABLE_H
#define KOUTIL_HASH_TABLE_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* What an insert returns: the slot that holds an entry's value. */
typedef union {
    uint64_t value; /* the same bits as a number */
    void *pvalue;   /* the value */
} hash_val_t;

/* Create a table keyed by names, with `buckets` chains; 0 is taken as 1.
 *
 * Returns its handle, or null when memory ran out. */
KO_API void *ko_hash_create(uint32_t buckets);

/* Create a table keyed by numbers that owns its values, with `buckets` chains; 0 is taken as 1.
 *
 * Returns its handle, or null when memory ran out. */
KO_API void *ko_hash_create_uint64(uint32_t buckets);

/* Create a table keyed by numbers whose entries carry `len` bytes of value each, with `buckets`
 * chains; 0 is taken as 1.
 *
 * Returns its handle, or null when memory ran out or `len` is above 4,294,967,279. */
KO_API void *ko_hash_create_uint64_val(uint32_t buckets, size_t len);

/* Add an entry for a copy of `name`.
 *
 * Returns the slot that holds `value`, which the caller may change, or null when memory ran out. */
KO_API hash_val_t *ko_hash_insert(void *hash, const char *name, void *value);

/* Add an entry for `key`. `value` is null or comes from malloc, and belongs to the table
 * afterwards.
 *
 * Returns the slot that holds `value`, which the caller may change, or null when memory ran out;
 * the value is the caller's then. */
KO_API hash_val_t *ko_hash_insert_uint64(void *hash, uint64_t key, void *value);

/* Add an entry for `key` with a value area of zeros.
 *
 * Returns the value area, of exactly the table's `len` bytes and aligned for any type of that size,
 * or null when memory ran out. */
KO_API void *ko_hash_insert_uint64_val(void *hash, uint64_t key);

/* Returns the value stored for `name`, or null when there is none. */
KO_API void *ko_hash_search(void *hash, const char *name);

/* Returns the value stored for `key`, or null when there is none. */
KO_API void *ko_hash_search_uint64(void *hash, uint64_t key);

/* Returns the value area stored for `key`, or null when there is none. */
KO_API void *ko_hash_search_uint64_val(void *hash, uint64_t key);

/* Remove the newest entry for `name`; its value is left alone.
 *
 * Returns 0, or 1 when there is none. */
KO_API int32_t ko_hash_delete(void *hash, const char *name);

/* Remove the newest entry for `key` and free its value.
 *
 * Returns 0, or 1 when there is none. */
KO_API int32_t ko_hash_delete_uint64(void *hash, uint64_t key);

/* Remove the newest entry for `key`.
 *
 * Returns 0, or 1 when there is none. */
KO_API int32_t ko_hash_delete_uint64_val(void *hash, uint64_t key);

/* Call `candidate` once for every entry with the caller's handle, the entry's key and its value
 * area, in no useful order. The callback may delete the entry that it is given, and no other. */
KO_API void ko_hash_iterate_uint64_val(void *hash, void *handle,
                                       void (*candidate)(void *handle, uint64_t key,
                                                         void *value_area));

/* Returns the number of entries; any kind of table. */
KO_API uint32_t ko_hash_count(void *hash);

/* Log how the entries are spread, through __vorn_logfn at level 1 (info): the number of chains and
 * the smallest, largest and average number of entries on one. Any kind of table. */
KO_API void ko_hash_info(void *hash);

/* Destroy every entry, with what it owns, and the table. Any kind of table; null is allowed. */
KO_API void ko_hash_destroy(void *hash);

/* Hash a terminated name.
 *
 * Returns what comes of 0 by hash * 65599 + byte for each byte, taken as signed. */
KO_API uint32_t ko_name_hash(const void *key);

KO_END_DECLS

#endif
