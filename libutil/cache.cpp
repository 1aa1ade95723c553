// cache.cpp - the adaptive block buffer cache.
//
// Every record is on one of five lists. Lists 0 and 2 hold buffers, lists 1 and 3 remember the
// addresses that were evicted from them, list 4 has the free records:
//
//                  miss              second use
//         4 free --------> 0 recent ------------> 2 frequent <---+
//            ^                 |                       |  ^      |
//            |           evict |                 evict |  +------+
//            |                 v                       v     use
//            +----- drop -- 1 ghosts                3 ghosts
//            |                                         |
//            +----- drop ------------------------------+
//
//         1 -> 2   hit, the target goes up       any -> 4   discard
//         3 -> 2   hit, the target goes down
//
// A hit on a ghost of list 1 says that the recent part is too small and raises its target length, a
// hit on a ghost of list 3 lowers it; the list that is longer than its share gives up the next
// buffer.
//
// Locks, in the order in which they are taken: a record's lock, c_lru_lock, a bucket's h_lock.
//
//     the record's lock    the buffer, rec_buffer, rec_addr and rec_place. Every move in the
//                          drawing is made by a thread that has this lock; only a discard gives
//                          it back first, under c_lru_lock and with the record in no chain.
//     c_lru_lock           the lists, rec_list, the target and the counters. All moves, and all
//                          changes of chains.
//     h_lock               the chain with its places in the index, rec_place and h_gen: lookups
//                          without c_lru_lock.
//     rec_ref              atomic: changed under h_lock, read under c_lru_lock.
//
// Under c_lru_lock and h_lock records are tried and never waited for. A lookup that waits for a
// record holds rec_ref and no lock; the record may be discarded and used again meanwhile, so that
// the lookup looks at it anew: it must still be in its place of the chain (rec_place) and have the
// address. A lookup that has to wait for somebody to release a victim holds nothing either; it
// begins again afterwards.
//
// A chain is one list in which the records with the same place in the chain's index (more bits of
// the hash) stand together; the index leads to the first of them, so that a chain of a hundred
// records is searched in a step or two.
//
// A hit takes no h_lock: it follows the index as it is at the moment, tries the record that it
// comes to, and looks whether that is the right one when it has its lock. Records are never freed,
// so that nothing else can go wrong. What it reads on the way is atomic: the index, rec_hash.next,
// rec_hashval, rec_place, and the links of the lists, whose neighbours it fetches. Only where that
// leads to nothing does a lookup take h_lock, or, for a miss, search again under c_lru_lock.
//
// A record is made whole, hashed and on its list, while it is locked and before a new buffer for it
// is allocated and filled; whoever finds it waits. So nothing is allocated under a lock that others
// need.
//
// No frame here has a destructor: the caller's functions are called from most of them, and may
// leave the thread for good.
#include "koutil/cache.h"

#include "internal/assert.h"
#include "internal/cache.h"
#include "internal/pages.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#define CACHE_COMPARE(cache, a, b) ((cache)->c_functions->c_compare_fn((a), (b)))

using koutil::prefer_huge_pages;

namespace
{

// Records that a lookup without a lock looks at: more than it meets unless others move them.
constexpr int kPeekSteps = 8;

// How often a thread that waits for the lists pauses before it looks again, first and at most. All
// together it takes some thirty microseconds; going to sleep and being woken takes several.
constexpr int kFirstPauses = 16;
constexpr int kMostPauses = 256;

constexpr size_t kFixedPart = offsetof(lru_rec_t, rec_addr);
static_assert(kFixedPart <= 128 && kFixedPart % 8 == 0);

// The numbers of chains that a cache may have.
constexpr int16_t kPrimes[] = {
    2,   3,   5,   7,   11,  13,  17,  19,  23,  29,  31,   37,   41,   43,   47,  53,  59,
    61,  67,  71,  73,  79,  83,  89,  97,  101, 103, 107,  109,  113,  127,  131, 137, 139,
    149, 151, 157, 163, 167, 173, 179, 181, 191, 193, 197,  199,  211,  223,  227, 241, 251,
    293, 397, 499, 509, 599, 691, 743, 797, 887, 997, 1021, 1097, 1499, 1999, 2039};

// The largest of them that is not above `entries`, and at least 2.
int32_t bucket_count(int entries)
{
    const auto *above = std::upper_bound(std::begin(kPrimes), std::end(kPrimes), entries);
    return above == std::begin(kPrimes) ? kPrimes[0] : above[-1];
}

void lock(cache_lock_t &mutex)
{
    pthread_mutex_lock(&mutex.mutex);
}

void unlock(cache_lock_t &mutex)
{
    pthread_mutex_unlock(&mutex.mutex);
}

// Takes c_lru_lock. Who finds it taken stays away for a while, longer each time, and only then
// sleeps: the other thread can go on with the lists in its processor's memory meanwhile, where
// threads that take turns would fetch them from each other at each lookup.
void lock_lists(cache_t *cache)
{
    pthread_mutex_t *mutex = &cache->c_lru_lock.mutex;
    for (int pauses = kFirstPauses; pthread_mutex_trylock(mutex) != 0; pauses *= 2) {
        if (pauses > kMostPauses) {
            pthread_mutex_lock(mutex);
            return;
        }
        for (int i = 0; i < pauses; i++)
            __builtin_ia32_pause();
    }
}

// Counters run for years; they wrap.
void add(int32_t &counter, int32_t number)
{
    counter = static_cast<int32_t>(static_cast<uint32_t>(counter) + static_cast<uint32_t>(number));
}

std::atomic_ref<int32_t> references(lru_rec_t *rec)
{
    return std::atomic_ref(rec->rec_ref);
}

// Reads and writes what lookups read without its lock.
template <typename T>
T get(T &field)
{
    return std::atomic_ref(field).load(std::memory_order_relaxed);
}

template <typename T>
void set(T &field, std::type_identity_t<T> value)
{
    std::atomic_ref(field).store(value, std::memory_order_relaxed);
}

cache_buf_t *buffer_of(lru_rec_t *rec)
{
    return get(rec->rec_buffer);
}

void set_buffer(lru_rec_t *rec, cache_buf_t *buffer)
{
    set(rec->rec_buffer, buffer);
}

bool try_record(cache_t *cache, lru_rec_t *rec, void *ptr)
{
    return cache->c_functions->c_trylock_fn(ptr, buffer_of(rec), &rec->rec_mutex) != 0;
}

void lock_record(cache_t *cache, lru_rec_t *rec, void *ptr)
{
    cache->c_functions->c_lock_fn(ptr, buffer_of(rec), &rec->rec_mutex);
}

void unlock_record(cache_t *cache, lru_rec_t *rec, void *ptr)
{
    cache->c_functions->c_unlock_fn(ptr, buffer_of(rec), &rec->rec_mutex);
}

// The address hash. What a hit goes through is inlined into it, so that keys stay in registers.

// An address with its hash and its place in the index, counted from 1, which tells its chain.
struct Key {
    bufaddr_t addr;
    uint64_t hash;
    uint32_t place;
};

[[gnu::always_inline]] inline Key make_key(cache_t *cache, bufaddr_t addr)
{
    __extension__ using uint128 = unsigned __int128;
    const uint64_t hash = cache->c_functions->c_hash_fn(addr);
    const auto count = static_cast<uint64_t>(cache->c_chains);
    // Division by multiplication; the quotient comes out right or one too small.
    const auto quotient = static_cast<uint64_t>(uint128{hash} * cache->c_reciprocal >> 64);
    uint64_t number = hash - quotient * count;
    if (number >= count)
        number -= count;
    // Mixed anew, so that a hash that is poor in its upper bits does for the index, too.
    const uint64_t further = hash * 0x9E3779B97F4A7C15 >> (64 - cache->c_index_bits);
    return {addr, hash, static_cast<uint32_t>((number << cache->c_index_bits) + further + 1)};
}

hbucket_t *bucket_of(cache_t *cache, uint32_t place)
{
    return &cache->c_buckets[(place - 1) >> cache->c_index_bits];
}

lru_rec_t *record_at(cache_t *cache, size_t number)
{
    return reinterpret_cast<lru_rec_t *>(reinterpret_cast<char *>(cache->lru_records) +
                                         number * cache->c_record_bytes);
}

// The first record of a place, or null.
lru_rec_t *first_at(cache_t *cache, uint32_t place)
{
    const uint32_t number = get(cache->c_index[place]);
    return number > 0 ? record_at(cache, number - 1) : nullptr;
}

void set_first(cache_t *cache, uint32_t place, lru_rec_t *rec)
{
    set(cache->c_index[place], rec ? rec->rec_number : 0);
}

bool has_address(cache_t *cache, lru_rec_t *rec, const Key &key)
{
    return rec->rec_hashval == key.hash && CACHE_COMPARE(cache, key.addr, rec->rec_addr) == 0;
}

// Under the bucket's lock or c_lru_lock. Returns the record of the address, or null.
lru_rec_t *find_in_chain(cache_t *cache, const Key &key)
{
    lru_rec_t *rec = first_at(cache, key.place);
    for (; rec && rec->rec_place == key.place; rec = rec->rec_hash.next) {
        if (has_address(cache, rec, key))
            return rec;
    }
    return nullptr;
}

// Under c_lru_lock and the record's lock.
void link_to_chain(cache_t *cache, const Key &key, lru_rec_t *rec)
{
    hbucket_t *bucket = bucket_of(cache, key.place);
    lock(bucket->h_lock);
    lru_rec_t *first = first_at(cache, key.place);
    lru_rec_t *next = first ? first : bucket->h_list;
    lru_rec_t *prev = next ? next->rec_hash.prev : nullptr;
    set(rec->rec_hashval, key.hash);
    set(rec->rec_place, key.place);
    set(rec->rec_hash.next, next);
    rec->rec_hash.prev = prev;
    set(prev ? prev->rec_hash.next : bucket->h_list, rec);
    if (next)
        next->rec_hash.prev = rec;
    set_first(cache, key.place, rec);
    add(bucket->h_gen, 1);
    bucket->h_depth++;
    unlock(bucket->h_lock);
}

// Under c_lru_lock and the record's lock.
void remove_from_chain(cache_t *cache, lru_rec_t *rec)
{
    const uint32_t place = rec->rec_place;
    if (place == 0)
        return;
    hbucket_t *bucket = bucket_of(cache, place);
    lock(bucket->h_lock);
    lru_rec_t *next = rec->rec_hash.next;
    lru_rec_t *prev = rec->rec_hash.prev;
    if (first_at(cache, place) == rec)
        set_first(cache, place, next && next->rec_place == place ? next : nullptr);
    set(prev ? prev->rec_hash.next : bucket->h_list, next);
    if (next)
        next->rec_hash.prev = prev;
    set(rec->rec_hash.next, nullptr);
    rec->rec_hash.prev = nullptr;
    set(rec->rec_place, 0);
    bucket->h_depth--;
    unlock(bucket->h_lock);
}

enum class Found { Absent, Busy, Locked };

struct Lookup {
    Found found;
    lru_rec_t *rec; // locked, when found
};

// Waits for a record that was found under the bucket's lock, which is held on entry and released.
// Returns whether the record is locked and still the address's.
[[gnu::noinline]] bool wait_for_record(cache_t *cache, const Key &key, lru_rec_t *match, void *ptr)
{
    hbucket_t *bucket = bucket_of(cache, key.place);
    references(match).fetch_add(1);
    unlock(bucket->h_lock);
    lock_record(cache, match, ptr);
    lock(bucket->h_lock);
    const bool same = match->rec_place == key.place && has_address(cache, match, key);
    references(match).fetch_sub(1);
    unlock(bucket->h_lock);
    if (!same) {
        unlock_record(cache, match, ptr);
        return false;
    }
    [[maybe_unused]] const bufaddr_t addr = key.addr;
    KO_ASSERT(CACHE_COMPARE(cache, addr, match->rec_addr) == 0);
    return true;
}

// Looks an address up and locks its record.
[[gnu::noinline]] Lookup hash_buffer_find(cache_t *cache, const Key &key, void *ptr, bool trylock)
{
    hbucket_t *bucket = bucket_of(cache, key.place);
    for (;;) {
        lock(bucket->h_lock);
        lru_rec_t *rec = find_in_chain(cache, key);
        if (!rec || try_record(cache, rec, ptr)) {
            unlock(bucket->h_lock);
            return {rec ? Found::Locked : Found::Absent, rec};
        }
        if (trylock) {
            unlock(bucket->h_lock);
            return {Found::Busy, nullptr};
        }
        if (wait_for_record(cache, key, rec, ptr))
            return {Found::Locked, rec};
    }
}

// Looks an address up without the bucket's lock. What it reads of a record on the way may change
// at any time; but records are never freed, so that at worst it locks a wrong one, and sees that
// when it has the lock. Returns the locked record, or null: the address may be known nevertheless,
// and is likely to be where *met is set.
[[gnu::always_inline]] inline lru_rec_t *peek(cache_t *cache, const Key &key, void *ptr, bool *met)
{
    lru_rec_t *rec = first_at(cache, key.place);
    for (int steps = 0; rec && steps < kPeekSteps; steps++) {
        __builtin_prefetch(&rec->rec_mutex);
        if (get(rec->rec_hashval) == key.hash) {
            *met = true;
            // What moving the record to another place in its list will write.
            __builtin_prefetch(get(rec->rec_lru.next));
            __builtin_prefetch(get(rec->rec_lru.prev));
            cache_buf_t *buffer = buffer_of(rec);
            __builtin_prefetch(buffer);
            if (!cache->c_functions->c_trylock_fn(ptr, buffer, &rec->rec_mutex))
                return nullptr;
            if (rec->rec_place == key.place && has_address(cache, rec, key))
                return rec;
            unlock_record(cache, rec, ptr);
            return nullptr;
        }
        if (get(rec->rec_place) != key.place)
            return nullptr;
        rec = get(rec->rec_hash.next);
    }
    return nullptr;
}

// The lists, all under c_lru_lock

int32_t length(const cache_t *cache, int list)
{
    return cache->c_lists[list].lru_len;
}

int32_t buffers_held(const cache_t *cache)
{
    return length(cache, CACHE_LIST_RU) + length(cache, CACHE_LIST_MU);
}

void unlink_from_list(lru_list_t &list, lru_rec_t *rec)
{
    lru_rec_t *next = rec->rec_lru.next;
    lru_rec_t *prev = rec->rec_lru.prev;
    set(prev ? prev->rec_lru.next : list.lru_queue.head, next);
    set(next ? next->rec_lru.prev : list.lru_queue.tail, prev);
}

void link_to_list(lru_list_t &list, lru_rec_t *rec)
{
    lru_rec_t *first = list.lru_queue.head;
    set(rec->rec_lru.next, first);
    set(rec->rec_lru.prev, nullptr);
    set(first ? first->rec_lru.prev : list.lru_queue.tail, rec);
    list.lru_queue.head = rec;
}

void remove_from_list(cache_t *cache, lru_rec_t *rec)
{
    lru_list_t &list = cache->c_lists[rec->rec_list];
    unlink_from_list(list, rec);
    list.lru_len--;
    add(list.lru_removes, 1);
    rec->rec_list = CACHE_LISTS;
}

void insert_in_list(cache_t *cache, int index, lru_rec_t *rec)
{
    lru_list_t &list = cache->c_lists[index];
    link_to_list(list, rec);
    list.lru_len++;
    add(list.lru_inserts, 1);
    rec->rec_list = static_cast<uint32_t>(index);
}

// Puts a record at the head of a list; the list's counters move only when it was on another.
[[gnu::always_inline]] inline void move_to_head(cache_t *cache, int index, lru_rec_t *rec)
{
    lru_list_t &list = cache->c_lists[index];
    if (list.lru_queue.head == rec)
        return;
    if (rec->rec_list == static_cast<uint32_t>(index)) {
        unlink_from_list(list, rec);
        link_to_list(list, rec);
        return;
    }
    remove_from_list(cache, rec);
    insert_in_list(cache, index, rec);
}

// Eviction

// With the record locked: whether it may be evicted.
bool may_evict(cache_t *cache, lru_rec_t *rec)
{
    cache_buf_t *buffer = buffer_of(rec);
    return !buffer || cache->c_functions->c_evict_fn(cache->c_handle, buffer, rec->rec_addr,
                                                     CACHE_EVICT_REUSE | CACHE_EVICT_FLUSH) != 0;
}

// Moves a locked victim to its list's successor and releases it. Returns its buffer.
cache_buf_t *evict_record(cache_t *cache, lru_rec_t *rec)
{
    const int next_list = cache->c_lists[rec->rec_list].lru_next_list;
    cache_buf_t *buffer = buffer_of(rec);
    remove_from_list(cache, rec);
    set_buffer(rec, nullptr);
    insert_in_list(cache, next_list, rec);
    if (next_list == CACHE_LIST_FREE)
        remove_from_chain(cache, rec);
    // With the buffer that the lock was taken with.
    cache->c_functions->c_unlock_fn(nullptr, buffer, &rec->rec_mutex);
    return buffer;
}

// Locks the least recently used record of a list that nobody uses and that may be evicted. Returns
// null when there is none.
lru_rec_t *find_victim(cache_t *cache, int list)
{
    for (lru_rec_t *rec = cache->c_lists[list].lru_queue.tail; rec; rec = rec->rec_lru.prev) {
        if (references(rec).load() != 0 || !try_record(cache, rec, nullptr))
            continue;
        if (may_evict(cache, rec))
            return rec;
        unlock_record(cache, rec, nullptr);
    }
    return nullptr;
}

// Frees the record of the oldest ghost of a list. Returns whether there was one.
bool drop_ghost(cache_t *cache, int list)
{
    lru_rec_t *rec = find_victim(cache, list);
    if (!rec) {
        add(cache->c_lists[list].lru_evict_fail, 1);
        return false;
    }
    evict_record(cache, rec);
    return true;
}

// Takes a victim from a list whose records were all in use, waiting for each in turn from the least
// recently used on, as often as the list is long at first. The caller holds no lock and no record.
// `addr` has room for an address. Returns the victim's buffer, or null.
cache_buf_t *wait_for_victim(cache_t *cache, int list, void *addr)
{
    cache_buf_t *buffer = nullptr;
    lock_lists(cache);
    lru_rec_t *rec = cache->c_lists[list].lru_queue.tail;
    for (int32_t left = length(cache, list); rec && left > 0 && !buffer; left--) {
        memcpy(addr, rec->rec_addr, static_cast<size_t>(cache->c_addr_size));
        unlock(cache->c_lru_lock);
        const Lookup lookup = hash_buffer_find(cache, make_key(cache, addr), nullptr, false);
        lock_lists(cache);
        if (lookup.found == Found::Locked) {
            lru_rec_t *locked = lookup.rec;
            if (locked->rec_list == static_cast<uint32_t>(list) && references(locked).load() == 0 &&
                may_evict(cache, locked)) {
                buffer = evict_record(cache, locked);
                break;
            }
            unlock_record(cache, locked, nullptr);
        }
        // A record that left the list meanwhile leads nowhere, nor does one that went to its head.
        const bool stays = rec->rec_list == static_cast<uint32_t>(list) && rec->rec_lru.prev;
        rec = stays ? rec->rec_lru.prev : cache->c_lists[list].lru_queue.tail;
    }
    if (!buffer)
        add(cache->c_lists[list].lru_evict_fail, 1);
    unlock(cache->c_lru_lock);
    return buffer;
}

// Finding a buffer

enum class Kind { None, Hit, GhostHit, Miss };

enum class Next {
    Done,         // the record is locked and on its list
    Again,        // look the address up again
    WaitVictim,   // wait for a victim on wait_list, then look again
    WaitRecord,   // wait for rec to be released, then look again
    NoFreeRecord, // and no ghost that one could be taken from
};

// One call of cache_buffer_find, which may take several attempts.
struct Request {
    void *ptr;
    bool trylock;
    cache_buf_t *spare = nullptr;   // a buffer from an eviction, for the record that needs one
    cache_buf_t *surplus = nullptr; // one more, where the cache had grown above its capacity
    Kind seen = Kind::None;         // what the attempt before a wait came upon
    bool waited = false;            // for a victim: the cache grows rather than waiting again
    int wait_list = 0;
    lru_rec_t *rec = nullptr; // the result, or the record to wait for
};

// A lookup counts once, however many attempts it takes. Returns whether this is its first attempt
// that came upon `kind`.
bool count(Request &request, Kind kind, int32_t &counter)
{
    const bool first = request.seen != kind;
    if (request.seen == Kind::None)
        add(counter, 1);
    request.seen = kind;
    return first;
}

// The list that is longer than its share.
int cache_balance(const cache_t *cache, bool frequency_ghost)
{
    const int32_t recent = length(cache, CACHE_LIST_RU);
    const bool keep = frequency_ghost ? cache->c_target > recent : cache->c_target >= recent;
    return recent == 0 || keep ? CACHE_LIST_MU : CACHE_LIST_RU;
}

bool full(const cache_t *cache)
{
    return buffers_held(cache) >= cache->c_entries;
}

// The list itself, or its counterpart where it has no buffer to give and one is needed.
int list_with_buffers(const cache_t *cache, int list)
{
    if (length(cache, list) > 0 || !full(cache))
        return list;
    return list == CACHE_LIST_RU ? CACHE_LIST_MU : CACHE_LIST_RU;
}

// Evicts from `list`, so that the request has a spare buffer, where that is needed and possible.
// Returns false when a victim must be waited for first.
bool evict_for(cache_t *cache, Request &request, int list)
{
    if (request.spare)
        return true;
    list = list_with_buffers(cache, list);
    if (lru_rec_t *victim = find_victim(cache, list)) {
        request.spare = evict_record(cache, victim);
        if (full(cache) && !request.surplus) {
            victim = find_victim(cache, list_with_buffers(cache, cache_balance(cache, false)));
            request.surplus = victim ? evict_record(cache, victim) : nullptr;
        }
        return true;
    }
    if (full(cache) && length(cache, list) > 0 && !request.trylock && !request.waited) {
        request.wait_list = list;
        return false;
    }
    add(cache->c_lists[list].lru_evict_fail, 1);
    return true;
}

// The list to evict from so that a new record has its place, or -1 while there is room. Ghosts make
// room for the ghost to come.
int victim_list_of_miss(cache_t *cache, bool drop)
{
    const int64_t entries = cache->c_entries;
    const int64_t recent = length(cache, CACHE_LIST_RU);
    const int64_t recent_ghosts = length(cache, CACHE_LIST_RU_GHOST);
    const int64_t known =
        recent + recent_ghosts + length(cache, CACHE_LIST_MU) + length(cache, CACHE_LIST_MU_GHOST);
    if (recent + recent_ghosts >= entries) {
        if (drop && recent_ghosts > 0)
            drop_ghost(cache, CACHE_LIST_RU_GHOST);
        return recent < entries ? cache_balance(cache, false) : int{CACHE_LIST_RU};
    }
    if (known < entries)
        return -1;
    if (drop && known >= 2 * entries)
        drop_ghost(cache, CACHE_LIST_MU_GHOST);
    return cache_balance(cache, false);
}

// Locks a free record that no lookup waits for, or, where `any` is set, any that is not locked.
// Only a lookup that found a record before it was discarded waits for a free one or, for a moment,
// has its lock.
bool try_free_record(cache_t *cache, Request &request, bool any)
{
    lru_rec_t *rec = cache->c_lists[CACHE_LIST_FREE].lru_queue.head;
    for (; rec; rec = rec->rec_lru.next) {
        if ((any || references(rec).load() == 0) && try_record(cache, rec, nullptr)) {
            request.rec = rec;
            return true;
        }
    }
    return false;
}

// Locks a free record, or that of a ghost where there is none.
Next take_free_record(cache_t *cache, Request &request)
{
    if (try_free_record(cache, request, false))
        return Next::Done;
    if ((drop_ghost(cache, CACHE_LIST_MU_GHOST) || drop_ghost(cache, CACHE_LIST_RU_GHOST)) &&
        try_free_record(cache, request, false))
        return Next::Done;
    if (try_free_record(cache, request, true))
        return Next::Done;
    request.rec = cache->c_lists[CACHE_LIST_FREE].lru_queue.head;
    for (const int ghosts : {CACHE_LIST_MU_GHOST, CACHE_LIST_RU_GHOST}) {
        if (!request.rec)
            request.rec = cache->c_lists[ghosts].lru_queue.tail;
    }
    return request.rec && !request.trylock ? Next::WaitRecord : Next::NoFreeRecord;
}

Next place_miss(cache_t *cache, Request &request, const Key &key)
{
    // Chains change under c_lru_lock, so this is the last word.
    if (find_in_chain(cache, key))
        return Next::Again;
    const bool first = count(request, Kind::Miss, cache->c_cache_miss);
    const int victim_list = victim_list_of_miss(cache, first);
    if (victim_list >= 0 && !evict_for(cache, request, victim_list))
        return Next::WaitVictim;
    const Next next = take_free_record(cache, request);
    if (next != Next::Done)
        return next;

    lru_rec_t *rec = request.rec;
    memcpy(rec->rec_addr, key.addr, static_cast<size_t>(cache->c_addr_size));
    set_buffer(rec, request.spare);
    request.spare = nullptr;
    link_to_chain(cache, key, rec);
    move_to_head(cache, CACHE_LIST_RU, rec);
    return Next::Done;
}

// A ghost shows which part is too small by more than one where its own list is the shorter one.
void adapt(cache_t *cache, bool frequency_ghost)
{
    const int32_t recent = length(cache, CACHE_LIST_RU_GHOST);
    const int32_t frequent = length(cache, CACHE_LIST_MU_GHOST);
    int64_t target = cache->c_target;
    target += frequency_ghost ? -std::max(recent / frequent, 1) : std::max(frequent / recent, 1);
    cache->c_target = static_cast<int32_t>(std::clamp<int64_t>(target, 0, cache->c_entries));
}

// The record is locked. It is released where the request has to wait.
Next place_ghost_hit(cache_t *cache, Request &request, lru_rec_t *rec)
{
    const bool frequency_ghost = rec->rec_list == CACHE_LIST_MU_GHOST;
    if (count(request, Kind::GhostHit, cache->c_ghost_hit))
        adapt(cache, frequency_ghost);
    if (!evict_for(cache, request, cache_balance(cache, frequency_ghost))) {
        unlock_record(cache, rec, request.ptr);
        return Next::WaitVictim;
    }
    set_buffer(rec, request.spare);
    request.spare = nullptr;
    move_to_head(cache, CACHE_LIST_MU, rec);
    return Next::Done;
}

Next place_hit(cache_t *cache, Request &request, lru_rec_t *rec)
{
    request.rec = rec;
    if (rec->rec_list == CACHE_LIST_RU_GHOST || rec->rec_list == CACHE_LIST_MU_GHOST)
        return place_ghost_hit(cache, request, rec);
    if (rec->rec_list == CACHE_LIST_RU || rec->rec_list == CACHE_LIST_MU)
        count(request, Kind::Hit, cache->c_cache_hit);
    move_to_head(cache, CACHE_LIST_MU, rec);
    return Next::Done;
}

// Waits, without a lock, until another attempt may get further.
void wait_for(cache_t *cache, Request &request, Next what)
{
    if (what == Next::WaitRecord) {
        lock_record(cache, request.rec, nullptr);
        unlock_record(cache, request.rec, nullptr);
        return;
    }
    alignas(8) unsigned char small[256];
    const auto size = static_cast<size_t>(cache->c_addr_size);
    void *addr = size <= sizeof small ? small : malloc(size);
    if (addr)
        request.spare = wait_for_victim(cache, request.wait_list, addr);
    if (addr != small)
        free(addr);
    request.waited = true;
}

// Finds or makes the record of an address and locks it, from its first lookup on. Returns null when
// it is busy or none is free.
lru_rec_t *find_record(cache_t *cache, Request &request, const Key &key, Lookup lookup)
{
    while (lookup.found != Found::Busy) {
        lock_lists(cache);
        const Next next = lookup.found == Found::Absent ? place_miss(cache, request, key)
                                                        : place_hit(cache, request, lookup.rec);
        unlock(cache->c_lru_lock);
        if (next == Next::Done)
            return request.rec;
        if (next == Next::NoFreeRecord)
            return nullptr;
        if (next != Next::Again)
            wait_for(cache, request, next);
        lookup = hash_buffer_find(cache, key, request.ptr, request.trylock);
    }
    return nullptr;
}

// All that is no plain hit. Apart, so that a hit does not pay for its frame.
[[gnu::noinline]] lru_rec_t *find_or_make(cache_t *cache, const Key &key, lru_rec_t *peeked,
                                          bool met, void *ptr, bool trylock)
{
    Request request{ptr, trylock};
    Lookup lookup = {peeked ? Found::Locked : Found::Absent, peeked};
    if (met && !peeked) // it is busy, or not the first with its hash
        lookup = hash_buffer_find(cache, key, ptr, trylock);
    lru_rec_t *rec = find_record(cache, request, key, lookup);
    // A record that was found with its buffer, or none at all, has no use for the spare one.
    for (cache_buf_t *buffer : {request.spare, request.surplus}) {
        if (buffer)
            cache->c_functions->c_free_fn(cache->c_handle, buffer);
    }
    return rec;
}

// A locked record with a buffer is on list 0 or 2.
void touch_cached(cache_t *cache, lru_rec_t *rec)
{
    lock_lists(cache);
    add(cache->c_cache_hit, 1);
    move_to_head(cache, CACHE_LIST_MU, rec);
    unlock(cache->c_lru_lock);
}

// Gives a record that was found without one a buffer, and fills the buffer.
bool fill(cache_t *cache, lru_rec_t *rec, bufaddr_t addr, int flags)
{
    const cache_fn_vec_t *functions = cache->c_functions;
    cache_buf_t *buffer = buffer_of(rec);
    if (!buffer) {
        buffer = functions->c_allocate_fn(cache->c_handle, rec, addr);
        if (!buffer)
            return false;
        set_buffer(rec, buffer);
    }
    return functions->c_populate_fn(cache->c_handle, buffer, addr, flags) >= 0;
}

// Creation and destruction

size_t record_count(const cache_t *cache)
{
    return 2 * static_cast<size_t>(cache->c_entries);
}

void free_cache(cache_t *cache, int32_t buckets, size_t records)
{
    for (int32_t i = 0; i < buckets; i++)
        pthread_mutex_destroy(&cache->c_buckets[i].h_lock.mutex);
    for (size_t i = 0; i < records; i++)
        pthread_mutex_destroy(&record_at(cache, i)->rec_mutex.mutex);
    pthread_mutex_destroy(&cache->c_lru_lock.mutex);
    free(cache->c_buckets);
    free(cache->c_index);
    free(cache->lru_records);
    free(cache);
}

bool init_buckets(cache_t *cache, int32_t *ready)
{
    cache->c_bucket_cnt = bucket_count(cache->c_entries);
    const auto count = static_cast<size_t>(cache->c_bucket_cnt);
    cache->c_chains = cache->c_bucket_cnt;
    cache->c_reciprocal = UINT64_MAX / count;
    cache->c_index_bits =
        std::max(1, static_cast<int32_t>(std::bit_width((record_count(cache) - 1) / count)));
    cache->c_buckets = static_cast<hbucket_t *>(calloc(count, sizeof(hbucket_t)));
    cache->c_index =
        static_cast<uint32_t *>(calloc((count << cache->c_index_bits) + 1, sizeof(uint32_t)));
    if (!cache->c_buckets || !cache->c_index)
        return false;
    for (; *ready < cache->c_bucket_cnt; ++*ready) {
        if (vo_thread_mutex_init(&cache->c_buckets[*ready].h_lock, nullptr) != 0)
            return false;
    }
    return true;
}

bool init_records(cache_t *cache, size_t *ready)
{
    const size_t count = record_count(cache);
    cache->c_record_bytes = (kFixedPart + static_cast<size_t>(cache->c_addr_size) + 7) / 8 * 8;
    cache->lru_records = static_cast<lru_rec_t *>(calloc(count, cache->c_record_bytes));
    if (!cache->lru_records)
        return false;
    prefer_huge_pages(cache->lru_records, count * cache->c_record_bytes);
    cache->lru_record_size =
        static_cast<int32_t>(std::min<size_t>(count * cache->c_record_bytes, INT32_MAX));
    for (; *ready < count; ++*ready) {
        lru_rec_t *rec = record_at(cache, *ready);
        if (vo_thread_mutex_init(&rec->rec_mutex, nullptr) != 0)
            return false;
        rec->rec_number = static_cast<uint32_t>(*ready + 1);
        insert_in_list(cache, CACHE_LIST_FREE, rec);
    }
    return true;
}

} // namespace

cache_t *cache_init(int entries, void *handle, int addr_size, cache_fn_vec_t *functions)
{
    static constexpr int32_t kNextList[CACHE_LISTS] = {
        CACHE_LIST_RU_GHOST, CACHE_LIST_FREE, CACHE_LIST_MU_GHOST, CACHE_LIST_FREE, CACHE_LISTS};
    // More entries would overflow the counts of records.
    if (entries < 1 || entries > INT32_MAX / 2 || addr_size < 1)
        return nullptr;
    auto *cache = static_cast<cache_t *>(calloc(1, sizeof(cache_t)));
    if (!cache)
        return nullptr;
    if (vo_thread_mutex_init(&cache->c_lru_lock, nullptr) != 0) {
        free(cache);
        return nullptr;
    }
    cache->c_entries = entries;
    cache->c_addr_size = addr_size;
    cache->c_functions = functions;
    cache->c_handle = handle;
    for (int i = 0; i < CACHE_LISTS; i++)
        cache->c_lists[i].lru_next_list = kNextList[i];
    int32_t buckets = 0;
    size_t records = 0;
    if (!init_buckets(cache, &buckets) || !init_records(cache, &records)) {
        free_cache(cache, buckets, records);
        return nullptr;
    }
    return cache;
}

cache_handle_t cache_buffer_find(cache_t *cache, bufaddr_t addr, void *ptr, int trylock,
                                 int populate_flags)
{
    const Key key = make_key(cache, addr);
    bool met = false;
    lru_rec_t *rec = peek(cache, key, ptr, &met);
    if (rec && buffer_of(rec)) {
        touch_cached(cache, rec);
    } else {
        rec = find_or_make(cache, key, rec, met, ptr, trylock != 0);
    }
    if (!rec)
        return nullptr;
    if (!fill(cache, rec, addr, populate_flags)) {
        discard_cache_entry(cache, rec, 0);
        return nullptr;
    }
    return rec;
}

cache_buf_t *cache_data_ptr(cache_handle_t handle)
{
    return buffer_of(handle);
}

void cache_buffer_unlock(cache_t *cache, cache_handle_t handle, void *ptr)
{
    unlock_record(cache, handle, ptr);
}

void cache_buffer_discard(cache_t *cache, bufaddr_t addr, int flush)
{
    const Lookup lookup = hash_buffer_find(cache, make_key(cache, addr), nullptr, false);
    if (lookup.found == Found::Locked)
        discard_cache_entry(cache, lookup.rec, flush);
}

void discard_cache_entry(cache_t *cache, cache_handle_t handle, int flush)
{
    const cache_fn_vec_t *functions = cache->c_functions;
    if (cache_buf_t *buffer = buffer_of(handle)) {
        functions->c_evict_fn(cache->c_handle, buffer, handle->rec_addr,
                              flush ? CACHE_EVICT_FLUSH : 0);
        set_buffer(handle, nullptr);
        functions->c_free_fn(cache->c_handle, buffer);
    }
    lock_lists(cache);
    remove_from_chain(cache, handle);
    unlock_record(cache, handle, nullptr);
    move_to_head(cache, CACHE_LIST_FREE, handle);
    unlock(cache->c_lru_lock);
}

void cache_destroy(cache_t *cache)
{
    if (!cache)
        return;
    for (const int list : {CACHE_LIST_RU, CACHE_LIST_MU}) {
        for (lru_rec_t *rec = cache->c_lists[list].lru_queue.head; rec; rec = rec->rec_lru.next) {
            if (cache_buf_t *buffer = buffer_of(rec)) {
                cache->c_functions->c_evict_fn(cache->c_handle, buffer, rec->rec_addr,
                                               CACHE_EVICT_FLUSH);
                cache->c_functions->c_free_fn(cache->c_handle, buffer);
            }
        }
    }
    free_cache(cache, cache->c_bucket_cnt, record_count(cache));
}

// The check of the invariants

namespace
{

const char *check_record(lru_rec_t *rec, int list)
{
    const bool cached = list == CACHE_LIST_RU || list == CACHE_LIST_MU;
    if (rec->rec_list != static_cast<uint32_t>(list))
        return "a record is on another list than it says";
    if (references(rec).load() != 0)
        return "a record is waited for";
    if ((rec->rec_place != 0) != (list != CACHE_LIST_FREE))
        return "a record is hashed and free, or neither";
    if ((buffer_of(rec) != nullptr) != cached)
        return "a cached record has no buffer, or another one has";
    return nullptr;
}

const char *check_list(cache_t *cache, int index)
{
    const lru_list_t &list = cache->c_lists[index];
    int32_t count = 0;
    const lru_rec_t *prev = nullptr;
    for (lru_rec_t *rec = list.lru_queue.head; rec; prev = rec, rec = rec->rec_lru.next) {
        if (rec->rec_lru.prev != prev || ++count > list.lru_len)
            return "a list is not linked as it should be";
        if (const char *wrong = check_record(rec, index))
            return wrong;
    }
    if (list.lru_queue.tail != prev || count != list.lru_len)
        return "a list has another length than it says";
    if (static_cast<uint32_t>(list.lru_inserts) - static_cast<uint32_t>(list.lru_removes) !=
        static_cast<uint32_t>(count))
        return "a list's counters do not give its length";
    return nullptr;
}

const char *check_chain_record(cache_t *cache, hbucket_t *bucket, lru_rec_t *rec)
{
    const Key key = make_key(cache, rec->rec_addr);
    if (bucket_of(cache, key.place) != bucket || key.place != rec->rec_place ||
        key.hash != rec->rec_hashval)
        return "a record is in another chain than its address";
    // The newest record of an address is found first, so each must find itself.
    if (find_in_chain(cache, key) != rec)
        return "an address is hashed twice, or cannot be found";
    return nullptr;
}

const char *check_chain(cache_t *cache, hbucket_t *bucket)
{
    int32_t depth = 0;
    const lru_rec_t *prev = nullptr;
    for (lru_rec_t *rec = bucket->h_list; rec; prev = rec, rec = rec->rec_hash.next) {
        if (rec->rec_hash.prev != prev || ++depth > bucket->h_depth)
            return "a chain is not linked as it should be";
        if (const char *wrong = check_chain_record(cache, bucket, rec))
            return wrong;
    }
    return depth == bucket->h_depth ? nullptr : "a chain has another depth than it says";
}

const char *check_bounds(const cache_t *cache)
{
    int64_t records = 0;
    int64_t failed = 0;
    for (const lru_list_t &list : cache->c_lists)
        records += list.lru_len;
    for (const int list : {CACHE_LIST_RU, CACHE_LIST_MU})
        failed += cache->c_lists[list].lru_evict_fail;
    if (records != 2 * int64_t{cache->c_entries})
        return "records are lost";
    if (failed == 0 && buffers_held(cache) > cache->c_entries)
        return "there are more buffers than the cache may have";
    if (cache->c_target < 0 || cache->c_target > cache->c_entries)
        return "the target is out of its range";
    return nullptr;
}

const char *check_all(cache_t *cache)
{
    const char *wrong = check_bounds(cache);
    for (int i = 0; i < CACHE_LISTS && !wrong; i++)
        wrong = check_list(cache, i);
    int64_t hashed = 0;
    for (int32_t i = 0; i < cache->c_bucket_cnt && !wrong; i++) {
        wrong = check_chain(cache, &cache->c_buckets[i]);
        hashed += cache->c_buckets[i].h_depth;
    }
    if (!wrong && hashed != 2 * int64_t{cache->c_entries} - length(cache, CACHE_LIST_FREE))
        wrong = "the chains have another number of records than the lists";
    return wrong;
}

} // namespace

const char *koutil::cache_check(cache_t *cache)
{
    lock_lists(cache);
    const char *wrong = check_all(cache);
    unlock(cache->c_lru_lock);
    return wrong;
}
