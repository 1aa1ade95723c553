/* cache.h - an adaptive cache of buffers, such as the blocks of a disk.
 *
 * The cache keeps up to a fixed number of buffers, each for one address of a fixed size, and
 * divides that room between what was used lately and what is used often by watching which of the
 * addresses that it gave up lately are asked for again. It owns the records and the index of
 * addresses; the caller says through a vector of functions how addresses hash and compare, and how
 * buffers are allocated, filled, written back, freed and locked.
 *
 * A lookup returns the record of an address locked, its buffer filled. It stays locked, and its
 * buffer in place, until the caller releases it.
 *
 * Life:           cache_init -> cache_buffer_find, cache_data_ptr, cache_buffer_unlock, or
 *                 discard_cache_entry in place of the unlock ... -> cache_destroy.
 * Ownership:      buffers come from c_allocate_fn and go back through c_free_fn; a handle is the
 *                 caller's from the lookup to the unlock or the discard.
 * On failure:     a null pointer; nothing is held or leaked then.
 * Thread safety:  any thread may call everything but cache_destroy at any time. A thread holds one
 *                 buffer at a time: a lookup may wait for a record that is locked, so a thread that
 *                 holds one and wants another asks with `trylock`, or it may wait for itself.
 * Callbacks:      c_trylock_fn, c_unlock_fn, c_evict_fn, c_hash_fn and c_compare_fn run while locks
 *                 of the cache are held; they must not call the cache. The others run without.
 *
 *     block = 17;
 *     handle = cache_buffer_find(cache, &block, NULL, 0, 0);
 *     if (handle) {
 *         use(cache_data_ptr(handle));
 *         cache_buffer_unlock(cache, handle, NULL);
 *     }
 */
#ifndef KOUTIL_CACHE_H
#define KOUTIL_CACHE_H

#include "koutil/mutex.h"
#include "koutil/types.h"

KO_BEGIN_DECLS

/* Points to the bytes of an address. */
typedef void *bufaddr_t;

/* What the caller keeps in a buffer is its own business. */
typedef void cache_buf_t;

/* A lock of the cache or of one record. */
typedef thread_mutex_t cache_lock_t;

/* A locked record. */
typedef struct lru_rec *cache_handle_t;

/* The lists of a cache. */
enum {
    CACHE_LIST_RU = 0,       /* recently used, with buffers */
    CACHE_LIST_RU_GHOST = 1, /* addresses evicted from CACHE_LIST_RU */
    CACHE_LIST_MU = 2,       /* used more than once, with buffers */
    CACHE_LIST_MU_GHOST = 3, /* addresses evicted from CACHE_LIST_MU */
    CACHE_LIST_FREE = 4,     /* free records */
    CACHE_LISTS = 5          /* on no list */
};

/* Flags of c_evict_fn. */
#define CACHE_EVICT_REUSE 1 /* the cache wants the buffer for another address */
#define CACHE_EVICT_FLUSH 2 /* what the buffer holds is to be written back */

/* The caller's functions. `handle` is that of cache_init; `ptr` is that of the lookup or of the
 * unlock, and null where the cache locks a record for its own work. `buf` is the record's buffer,
 * null where it has none. c_lock_fn and c_trylock_fn must not look into it: until they have the
 * lock it may be freed or become another address's, and the unlock may get another. */
typedef struct cache_fn_vec {
    /* Returns a hash of an address; equal addresses have equal hashes. */
    uint64_t (*c_hash_fn)(bufaddr_t addr);
    /* Returns 0 when two addresses are equal. */
    int (*c_compare_fn)(bufaddr_t a, bufaddr_t b);
    /* Gives a buffer up, writing it back where `flags` says so and it needs to be. `flags` is 3
     * when the cache wants the buffer for reuse, 2 for a discard with flush and at cache_destroy, 0
     * for a discard without. Returns non-zero when the buffer may be given up, which is asked only
     * with the flags 3. */
    int (*c_evict_fn)(void *handle, cache_buf_t *buf, bufaddr_t addr, int flags);
    /* Fills a buffer for an address, or sees that it still holds it: called by every lookup, with
     * the lookup's `populate_flags`. Returns a negative number on failure. */
    int (*c_populate_fn)(void *handle, cache_buf_t *buf, bufaddr_t addr, int flags);
    /* Returns a new buffer, or null. */
    cache_buf_t *(*c_allocate_fn)(void *handle, cache_handle_t rec, bufaddr_t addr);
    /* Frees a buffer. */
    void (*c_free_fn)(void *handle, cache_buf_t *buf);
    /* Waits for a record's lock. */
    void (*c_lock_fn)(void *ptr, cache_buf_t *buf, cache_lock_t *lock);
    /* Takes a record's lock if that needs no waiting. Returns non-zero when it was taken. */
    int (*c_trylock_fn)(void *ptr, cache_buf_t *buf, cache_lock_t *lock);
    /* Releases a record's lock. */
    void (*c_unlock_fn)(void *ptr, cache_buf_t *buf, cache_lock_t *lock);
} cache_fn_vec_t;

/* One record: an address, with its buffer while it is cached. */
typedef struct lru_rec {
    uint32_t rec_list; /* the list it is on; CACHE_LISTS while it is between lists */
    int32_t rec_ref;   /* lookups that wait for its lock; such a record is not evicted */
    struct {
        struct lru_rec *next; /* less recently used */
        struct lru_rec *prev; /* more recently used */
    } rec_lru;                /* links of the list */
    struct {
        struct lru_rec *next;  /* in the chain */
        struct lru_rec *prev;  /* in the chain */
    } rec_hash;                /* links of the chain */
    cache_lock_t rec_mutex;    /* taken and released through the caller's functions only */
    cache_buf_t *rec_buffer;   /* null for ghosts and free records */
    uint64_t rec_hashval;      /* private: the hash of the address */
    uint32_t rec_number;       /* private: counted from 1 */
    uint32_t rec_place;        /* private: its place in the index of chains; 0 in no chain */
    unsigned char rec_addr[8]; /* the address; records are allocated with the cache's size of it */
} lru_rec_t;

/* One list of records. */
typedef struct lru_list {
    int32_t lru_len;        /* records now on it */
    int32_t lru_next_list;  /* where a record goes that is evicted from this list */
    int32_t lru_inserts;    /* records ever put on it */
    int32_t lru_removes;    /* records ever taken off it */
    int32_t lru_evict_fail; /* evictions that found no victim here */
    struct {
        struct lru_rec *head; /* most recently used */
        struct lru_rec *tail; /* least recently used */
    } lru_queue;              /* the records, by their last use */
} lru_list_t;

/* One chain of the address hash. */
typedef struct hbucket {
    struct lru_rec *h_list; /* its first record */
    int32_t h_depth;        /* records in it */
    int32_t h_gen;          /* raised by every insertion */
    cache_lock_t h_lock;    /* guards the chain */
} hbucket_t;

/* A cache. The fields are for reading, under c_lru_lock or while no other thread uses the cache;
 * the counters wrap. */
typedef struct cache {
    hbucket_t *c_buckets;            /* the hash chains */
    int32_t c_bucket_cnt;            /* their number */
    int32_t c_entries;               /* the most buffers held at once while evictions succeed */
    int32_t c_target;                /* wanted length of CACHE_LIST_RU, from 0 to c_entries */
    int32_t c_cache_hit;             /* lookups that found a buffer */
    int32_t c_ghost_hit;             /* lookups that found an address without a buffer */
    int32_t c_cache_miss;            /* lookups that found nothing */
    int32_t c_addr_size;             /* bytes of an address */
    cache_lock_t c_lru_lock;         /* guards the lists, the target and the counters */
    lru_list_t c_lists[CACHE_LISTS]; /* by CACHE_LIST_... */
    char c_apart[64];                /* parts what changes from what lookups only read */
    lru_rec_t *lru_records;          /* all records, in one block */
    int32_t lru_record_size;         /* bytes of all records; INT32_MAX where it is more */
    cache_fn_vec_t *c_functions;     /* the caller's functions */
    void *c_handle;                  /* as given to cache_init */
    uint32_t *c_index;               /* private */
    uint64_t c_reciprocal;           /* private */
    size_t c_record_bytes;           /* private */
    int32_t c_index_bits;            /* private */
    int32_t c_chains;                /* private: c_bucket_cnt */
} cache_t;

/* Create a cache of at most `entries` buffers for addresses of `addr_size` bytes. `functions` must
 * outlive the cache.
 *
 * Returns the cache, or null when memory ran out, a lock could not be initialised, `entries` or
 * `addr_size` is below 1, or `entries` is above 1,073,741,823. */
KO_API cache_t *cache_init(int entries, void *handle, int addr_size, cache_fn_vec_t *functions);

/* Find or make the record of an address, lock it with the context `ptr` and have its buffer filled.
 *
 * Returns the locked record, or null when c_populate_fn failed (the address is then no longer
 * cached), when c_allocate_fn gave no buffer, when no record was free, or when `trylock` is
 * non-zero and the record is locked by somebody else, if only by a lookup that looks at it for a
 * moment. A lookup may try a record that is not the address's, and unlock it again with `ptr`.
 *
 * Without `trylock` it waits for records that others have locked, both that of the address and,
 * where all buffers are in use, one that is to be evicted. */
KO_API cache_handle_t cache_buffer_find(cache_t *cache, bufaddr_t addr, void *ptr, int trylock,
                                        int populate_flags);

/* Returns the buffer of a record that the caller holds. */
KO_API cache_buf_t *cache_data_ptr(cache_handle_t handle);

/* Release a record that the caller holds, through c_unlock_fn with the context `ptr`. */
KO_API void cache_buffer_unlock(cache_t *cache, cache_handle_t handle, void *ptr);

/* Forget an address, waiting for its record, which the caller must not hold; nothing happens when
 * it is not known. See discard_cache_entry. */
KO_API void cache_buffer_discard(cache_t *cache, bufaddr_t addr, int flush);

/* Give up the buffer of a record that the caller holds, and the record itself: c_evict_fn is called
 * for the buffer with the flags 2 when `flush` is non-zero and 0 when not, whatever it returns, the
 * buffer is freed and the record released. The handle is no longer valid. */
KO_API void discard_cache_entry(cache_t *cache, cache_handle_t handle, int flush);

/* Write back every buffer (c_evict_fn with the flags 2) and free the cache. Null is allowed.
 *
 * Requires: no record is held and no thread uses the cache. */
KO_API void cache_destroy(cache_t *cache);

KO_END_DECLS

#endif
