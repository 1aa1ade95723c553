// The buffer cache: the policy against a plain model of it, waiting, discards and failures one by
// one, and all of it at once in eight threads.
#include "koutil/cache.h"

#include "internal/cache.h"

#include <atomic>
#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <random>
#include <thread>
#include <unordered_map>
#include <vector>

namespace
{

struct Buffer {
    uint64_t addr;
    uint64_t value;
    bool dirty;
};

constexpr uint64_t kNowhere = ~uint64_t{0};
constexpr int kRefill = 1; // populate flag: let it fail where the buffer has to be filled

// A host with a store of one number per address.
struct Host {
    explicit Host(size_t addresses)
        : store(addresses)
    {
    }
    std::vector<std::atomic<uint64_t>> store;
    std::atomic<int> allocated{0};
    std::atomic<int> freed{0};
    std::atomic<int> waits{0};
    std::atomic<uint32_t> refusals{0}; // of 16 evictions; 16 refuses all
    std::atomic<bool> no_memory{false};
    std::atomic<int> lost{0};
};

std::atomic<Host *> waited_host; // the lock functions have no handle
bool one_chain;

uint64_t as_number(bufaddr_t addr)
{
    uint64_t number;
    memcpy(&number, addr, sizeof number);
    return number;
}

int evict(void *handle, cache_buf_t *buf, bufaddr_t addr, int flags)
{
    auto *host = static_cast<Host *>(handle);
    auto *buffer = static_cast<Buffer *>(buf);
    thread_local std::minstd_rand random;
    if (flags == 3 && random() % 16 < host->refusals)
        return 0;
    if (buffer->dirty && (flags == 0 || as_number(addr) != buffer->addr))
        host->lost++;
    if (buffer->dirty)
        host->store[buffer->addr] = buffer->value;
    buffer->dirty = false;
    buffer->addr = kNowhere;
    return 1;
}

int populate(void *handle, cache_buf_t *buf, bufaddr_t addr, int flags)
{
    auto *host = static_cast<Host *>(handle);
    auto *buffer = static_cast<Buffer *>(buf);
    if (buffer->addr == as_number(addr))
        return 0;
    if (buffer->addr != kNowhere)
        host->lost++;
    if (flags & kRefill)
        return -1;
    *buffer = {as_number(addr), host->store[as_number(addr)], false};
    return 0;
}

cache_buf_t *allocate(void *handle, cache_handle_t, bufaddr_t)
{
    auto *host = static_cast<Host *>(handle);
    if (host->no_memory)
        return nullptr;
    host->allocated++;
    return new Buffer{kNowhere, 0, false};
}

cache_fn_vec_t functions = {
    [](bufaddr_t addr) { return one_chain ? 5 : as_number(addr) * 0x9E3779B97F4A7C15; },
    [](bufaddr_t a, bufaddr_t b) { return memcmp(a, b, 8); },
    evict,
    populate,
    allocate,
    [](void *handle, cache_buf_t *buf) {
        static_cast<Host *>(handle)->freed++;
        delete static_cast<Buffer *>(buf);
    },
    [](void *, cache_buf_t *, cache_lock_t *lock) {
        waited_host.load()->waits++;
        pthread_mutex_lock(&lock->mutex);
    },
    [](void *, cache_buf_t *, cache_lock_t *lock) {
        return static_cast<int>(pthread_mutex_trylock(&lock->mutex) == 0);
    },
    [](void *, cache_buf_t *, cache_lock_t *lock) { pthread_mutex_unlock(&lock->mutex); },
};

class Cache : public testing::Test
{
  protected:
    void SetUp() override
    {
        waited_host = &host;
        one_chain = false;
    }
    void TearDown() override
    {
        if (cache) {
            EXPECT_STREQ(koutil::cache_check(cache), nullptr);
            cache_destroy(cache);
        }
        EXPECT_EQ(host.allocated, host.freed);
        EXPECT_EQ(host.lost, 0);
    }
    void make(int entries) { cache = cache_init(entries, &host, 8, &functions); }
    cache_handle_t find(uint64_t addr, int trylock = 0, int flags = 0)
    {
        return cache_buffer_find(cache, &addr, nullptr, trylock, flags);
    }
    void release(cache_handle_t handle) { cache_buffer_unlock(cache, handle, nullptr); }
    bool touch(uint64_t addr, int flags = 0)
    {
        const cache_handle_t handle = find(addr, 0, flags);
        if (handle)
            release(handle);
        EXPECT_STREQ(koutil::cache_check(cache), nullptr);
        return handle;
    }
    void discard(uint64_t addr, int flush) { cache_buffer_discard(cache, &addr, flush); }
    std::vector<int> lengths() const
    {
        std::vector<int> result;
        for (const lru_list_t &list : cache->c_lists)
            result.push_back(list.lru_len);
        return result;
    }
    // Returns when a thread waits for a record.
    void await_waiter() const
    {
        while (host.waits == 0)
            std::this_thread::yield();
    }

    Host host{100000};
    cache_t *cache = nullptr;
};

// The policy alone, from its description: adaptive replacement between a recency list (0) and a
// frequency list (2) with their ghosts (1, 3).
class Model
{
  public:
    explicit Model(int capacity)
        : c(capacity)
    {
    }
    void access(uint64_t addr)
    {
        const auto known = place.find(addr);
        const int where = known == place.end() ? -1 : known->second.first;
        if (where < 0) {
            misses++;
            make_room();
        } else if (where == 1) {
            ghost_hits++;
            target = std::min(c, target + std::max(size(3) / size(1), 1));
            replace(target >= size(0));
        } else if (where == 3) {
            ghost_hits++;
            target = std::max(0, target - std::max(size(1) / size(3), 1));
            replace(target > size(0));
        } else {
            hits++;
        }
        put(addr, where < 0 ? 0 : 2);
    }
    int size(int list) const { return static_cast<int>(lists[list].size()); }

    int hits = 0, ghost_hits = 0, misses = 0, target = 0;

  private:
    void make_room()
    {
        const int recent = size(0) + size(1);
        const int all = recent + size(2) + size(3);
        if (recent >= c) {
            if (size(1) > 0)
                drop(1);
            if (size(0) < c)
                replace(target >= size(0));
            else
                demote(0);
        } else if (all >= c) {
            if (all == 2 * c)
                drop(3);
            replace(target >= size(0));
        }
        if (size(0) + size(1) + size(2) + size(3) == 2 * c)
            drop(size(3) > 0 ? 3 : 1);
    }
    void replace(bool keep_recent)
    {
        int from = size(0) == 0 || keep_recent ? 2 : 0;
        if (size(from) == 0 && size(0) + size(2) >= c)
            from = 2 - from;
        if (size(from) > 0)
            demote(from);
    }
    void demote(int list) { put(lists[list].back(), list + 1); }
    void drop(int list)
    {
        place.erase(lists[list].back());
        lists[list].pop_back();
    }
    void put(uint64_t addr, int list)
    {
        if (const auto at = place.find(addr); at != place.end())
            lists[at->second.first].erase(at->second.second);
        lists[list].push_front(addr);
        place[addr] = {list, lists[list].begin()};
    }

    int c;
    std::list<uint64_t> lists[4];
    std::unordered_map<uint64_t, std::pair<int, std::list<uint64_t>::iterator>> place;
};

// Phases of uniform, skewed, looping and scanning lookups.
uint64_t next_address(std::mt19937_64 &random, int step, uint64_t capacity)
{
    const uint64_t uniform = random();
    switch (step / 5000 % 5) {
    case 0:
        return uniform % (3 * capacity);
    case 1: {
        const double skewed = std::generate_canonical<double, 53>(random);
        return static_cast<uint64_t>(static_cast<double>(8 * capacity) * skewed * skewed * skewed);
    }
    case 2:
        return static_cast<uint64_t>(step) % (capacity + capacity / 4 + 1);
    case 3:
        return uniform % 4 ? uniform % capacity : 20000 + static_cast<uint64_t>(step % 5000);
    default:
        return 10 * capacity + uniform % (capacity + 2);
    }
}

TEST_F(Cache, AgreesWithTheModelAtEveryStep)
{
    for (const int capacity : {1, 2, 3, 7, 50, 400, 2500}) {
        one_chain = capacity == 7;
        make(capacity);
        Model model(capacity);
        std::mt19937_64 random(static_cast<uint64_t>(capacity));
        const int check_every = capacity < 10 ? 1 : 10 * capacity + 1;
        for (int step = 0; step < 200000; step++) {
            const uint64_t addr = next_address(random, step, static_cast<uint64_t>(capacity));
            const cache_handle_t handle = find(addr, step % 2);
            ASSERT_NE(handle, nullptr);
            ASSERT_EQ(static_cast<Buffer *>(cache_data_ptr(handle))->addr, addr);
            release(handle);
            model.access(addr);
            ASSERT_EQ(cache->c_cache_hit, model.hits)
                << "capacity " << capacity << " step " << step;
            ASSERT_EQ(cache->c_ghost_hit, model.ghost_hits);
            ASSERT_EQ(cache->c_cache_miss, model.misses);
            ASSERT_EQ(cache->c_target, model.target);
            if (step % check_every == 0) {
                ASSERT_STREQ(koutil::cache_check(cache), nullptr) << "step " << step;
            }
            ASSERT_LE(host.allocated - host.freed, capacity);
        }
        for (int list = 0; list < 4; list++)
            EXPECT_EQ(cache->c_lists[list].lru_len, model.size(list));
        cache_destroy(cache);
        cache = nullptr;
    }
}

TEST_F(Cache, GhostIsFoundWhenTheListsOfBuffersAreEmpty)
{
    make(2);
    EXPECT_TRUE(touch(1) && touch(2) && touch(3));
    discard(2, 0);
    discard(3, 1);
    EXPECT_EQ(lengths(), (std::vector<int>{0, 1, 0, 0, 3}));
    EXPECT_TRUE(touch(1));
    EXPECT_EQ(lengths(), (std::vector<int>{0, 0, 1, 0, 3}));
}

TEST_F(Cache, ChoosesItsNumberOfChainsAndRefusesWhatCannotWork)
{
    const int counts[][2] = {{1, 2},      {2, 2},       {3, 3},       {230, 227},  {252, 251},
                             {1000, 997}, {2038, 1999}, {2039, 2039}, {3000, 2039}};
    for (const auto &[entries, buckets] : counts) {
        make(entries);
        EXPECT_EQ(cache->c_bucket_cnt, buckets);
        EXPECT_EQ(cache->c_lists[CACHE_LIST_FREE].lru_len, 2 * entries);
        cache_destroy(cache);
    }
    for (const auto &[entries, addr_size] : {std::pair{0, 8}, {-1, 8}, {8, 0}, {8, -8}})
        EXPECT_EQ(cache_init(entries, &host, addr_size, &functions), nullptr);
    cache = nullptr;
}

TEST_F(Cache, TrylockDoesNotWait)
{
    make(1);
    const cache_handle_t held = find(1);
    EXPECT_EQ(find(1, 1), nullptr);
    const cache_handle_t other = find(2, 1); // above the capacity rather than waiting for a victim
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(host.allocated, 2);
    EXPECT_EQ(cache->c_lists[CACHE_LIST_RU].lru_evict_fail, 1);
    release(held);
    release(other);
    EXPECT_EQ(host.waits, 0);
}

TEST_F(Cache, FailuresLeaveTheAddressUncached)
{
    make(2);
    EXPECT_FALSE(touch(1, kRefill));
    host.no_memory = true;
    EXPECT_FALSE(touch(2));
    EXPECT_EQ(lengths(), (std::vector<int>{0, 0, 0, 0, 4}));
    host.no_memory = false;

    host.refusals = 16;
    for (uint64_t addr = 1; addr <= 4; addr++)
        EXPECT_TRUE(touch(addr)); // grows, as no buffer may be given up
    EXPECT_GT(cache->c_lists[CACHE_LIST_RU].lru_evict_fail, 0);
    EXPECT_FALSE(touch(5));
    EXPECT_TRUE(touch(1));
    EXPECT_EQ(host.allocated - host.freed, 4);
    host.refusals = 0;
    EXPECT_TRUE(touch(5) && touch(6) && touch(7)); // and shrinks again
    EXPECT_EQ(host.allocated - host.freed, 2);
}

TEST_F(Cache, WaiterOutlivesADiscard)
{
    make(4);
    const cache_handle_t held = find(1);
    std::thread waiter([&] { release(find(1)); });
    await_waiter();
    discard_cache_entry(cache, held, 1);
    const cache_handle_t reused = find(2); // while the waiter waits for the old record
    ASSERT_NE(reused, nullptr);
    release(reused);
    waiter.join();
    EXPECT_EQ(cache->c_cache_miss, 3);
}

TEST_F(Cache, MissAndGhostHitWaitForAVictim)
{
    make(1);
    for (const uint64_t next : {2, 1, 3}) { // a miss, a ghost's hit, a miss
        host.waits = 0;
        const cache_handle_t held = find(next == 2 ? 1 : next == 1 ? 2 : 1);
        static_cast<Buffer *>(cache_data_ptr(held))->dirty = true;
        host.waits = 0;
        std::thread waiter([&] { release(find(next)); });
        await_waiter();
        release(held);
        waiter.join();
        EXPECT_EQ(host.allocated - host.freed, 1);
        EXPECT_STREQ(koutil::cache_check(cache), nullptr);
    }
    EXPECT_EQ(cache->c_cache_hit + cache->c_ghost_hit + cache->c_cache_miss, 6);
}

TEST_F(Cache, EightThreadsLoseNothing)
{
    constexpr uint64_t kAddresses = 96;
    std::vector<std::atomic<uint64_t>> expected(kAddresses);
    std::atomic<int> found{0};
    for (const int capacity : {4, 40}) {
        make(capacity);
        host.refusals = 2;
        std::vector<std::thread> threads;
        for (unsigned seed = 0; seed < 8; seed++) {
            threads.emplace_back([&, seed] {
                std::mt19937 random(seed);
                for (int i = 0; i < 5000; i++) {
                    uint64_t addr = random() % (random() % 2 ? kAddresses : 12);
                    const unsigned dice = random() % 32;
                    if (dice == 0) {
                        discard(addr, 1);
                        continue;
                    }
                    const cache_handle_t handle = find(addr, dice < 10, dice == 11 ? kRefill : 0);
                    if (!handle)
                        continue;
                    auto *buffer = static_cast<Buffer *>(cache_data_ptr(handle));
                    if (buffer->addr != addr)
                        host.lost++;
                    buffer->value++;
                    buffer->dirty = true;
                    expected[addr]++;
                    found++;
                    if (dice == 12)
                        discard_cache_entry(cache, handle, 1);
                    else
                        release(handle);
                }
            });
        }
        for (auto &thread : threads)
            thread.join();
        ASSERT_STREQ(koutil::cache_check(cache), nullptr);
        cache_destroy(cache);
        cache = nullptr;
        for (uint64_t addr = 0; addr < kAddresses; addr++)
            EXPECT_EQ(host.store[addr], expected[addr]) << addr;
    }
    EXPECT_GT(found, 20000);
}

} // namespace
