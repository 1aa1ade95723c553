// What a lookup in the buffer cache costs, and how often it hits.
//
// Hits: random lookups of cached addresses. Beside the cache stand the three lock-unlock pairs that
// a hit cannot do without (chain, record, lists; the record's is tried), and what most programs
// have instead, a textbook LRU cache over std::unordered_map and std::list with one mutex, which
// hands its buffers out unlocked.
//
// Evicting: 10,000 buffers for Zipf-distributed addresses, the same mixed with scans, and a loop
// that is a quarter larger than the cache. Filling a buffer costs nothing here.
//
// First the hit ratios of both, and of the published adaptive replacement policy with integer
// steps of its target, are printed for these sequences.
#include "koutil/cache.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace
{

struct Buffer {
    uint64_t address;
};

uint64_t number(bufaddr_t addr)
{
    uint64_t number;
    memcpy(&number, addr, sizeof number);
    return number;
}

cache_fn_vec_t functions = {
    [](bufaddr_t addr) { return number(addr) * 0x9E3779B97F4A7C15; },
    [](bufaddr_t a, bufaddr_t b) { return number(a) == number(b) ? 0 : 1; },
    [](void *, cache_buf_t *, bufaddr_t, int) { return 1; },
    [](void *, cache_buf_t *buf, bufaddr_t addr, int) {
        auto *buffer = static_cast<Buffer *>(buf);
        if (buffer->address != number(addr))
            buffer->address = number(addr);
        return 0;
    },
    [](void *, cache_handle_t, bufaddr_t) -> cache_buf_t * { return calloc(1, sizeof(Buffer)); },
    [](void *, cache_buf_t *buf) { free(buf); },
    [](void *, cache_buf_t *, cache_lock_t *lock) { pthread_mutex_lock(&lock->mutex); },
    [](void *, cache_buf_t *, cache_lock_t *lock) {
        return pthread_mutex_trylock(&lock->mutex) == 0 ? 1 : 0;
    },
    [](void *, cache_buf_t *, cache_lock_t *lock) { pthread_mutex_unlock(&lock->mutex); },
};

class Koutil
{
  public:
    explicit Koutil(int capacity)
        : cache_(cache_init(capacity, nullptr, sizeof(uint64_t), &functions))
    {
    }
    ~Koutil() { cache_destroy(cache_); }
    void lookup(uint64_t address)
    {
        const cache_handle_t handle = cache_buffer_find(cache_, &address, nullptr, 0, 0);
        benchmark::DoNotOptimize(cache_data_ptr(handle));
        cache_buffer_unlock(cache_, handle, nullptr);
    }
    uint64_t hits() const { return static_cast<uint64_t>(cache_->c_cache_hit); }

  private:
    cache_t *cache_;
};

class Lru
{
  public:
    explicit Lru(int capacity)
        : capacity_(static_cast<size_t>(capacity))
    {
    }
    void lookup(uint64_t address)
    {
        const std::lock_guard guard(mutex_);
        if (const auto known = where_.find(address); known != where_.end()) {
            hits_++;
            order_.splice(order_.begin(), order_, known->second);
        } else {
            if (order_.size() == capacity_) {
                where_.erase(order_.back().address);
                order_.pop_back();
            }
            order_.push_front({address});
            where_[address] = order_.begin();
        }
        benchmark::DoNotOptimize(order_.front());
    }
    uint64_t hits() const { return hits_; }

  private:
    size_t capacity_;
    std::mutex mutex_;
    std::list<Buffer> order_;
    std::unordered_map<uint64_t, std::list<Buffer>::iterator> where_;
    uint64_t hits_ = 0;
};

// The published policy, for one thread and without buffers. Lists: t1, t2, then their ghosts.
class Published
{
  public:
    explicit Published(int capacity)
        : c_(capacity)
    {
    }
    void lookup(uint64_t address)
    {
        const auto known = where_.find(address);
        const int list = known == where_.end() ? -1 : known->second.first;
        if (list == 0 || list == 1) {
            hits_++;
        } else if (list == 2) {
            target_ = std::min(c_, target_ + std::max(size(3) / size(2), 1));
            replace(false);
        } else if (list == 3) {
            target_ = std::max(0, target_ - std::max(size(2) / size(3), 1));
            replace(true);
        } else if (size(0) + size(2) == c_) {
            if (size(0) < c_) {
                drop(2);
                replace(false);
            } else {
                drop(0);
            }
        } else if (where_.size() >= static_cast<size_t>(c_)) {
            if (where_.size() == 2 * static_cast<size_t>(c_))
                drop(3);
            replace(false);
        }
        move(address, list < 0 ? 0 : 1);
    }
    uint64_t hits() const { return hits_; }

  private:
    int size(int list) const { return static_cast<int>(lists_[list].size()); }
    void replace(bool frequent_ghost)
    {
        const bool recent =
            size(0) > 0 && (size(0) > target_ || (frequent_ghost && size(0) == target_));
        const int from = recent ? 0 : 1;
        move(lists_[from].back(), from + 2);
    }
    void drop(int list)
    {
        where_.erase(lists_[list].back());
        lists_[list].pop_back();
    }
    void move(uint64_t address, int list)
    {
        if (const auto known = where_.find(address); known != where_.end())
            lists_[known->second.first].erase(known->second.second);
        lists_[list].push_front(address);
        where_[address] = {list, lists_[list].begin()};
    }

    int c_;
    int target_ = 0;
    uint64_t hits_ = 0;
    std::list<uint64_t> lists_[4];
    std::unordered_map<uint64_t, std::pair<int, std::list<uint64_t>::iterator>> where_;
};

// ---- The lookups -----------------------------------------------------------------------------

enum Sequence { kUniform, kZipf, kMixed, kLoop };
constexpr const char *kNames[] = {"uniform", "zipf", "zipf and scans", "loop"};
constexpr size_t kLookups = 1 << 20;
constexpr int kEvicting = 10000;

// Zipf's law over ten times as many addresses as there are buffers.
std::vector<uint64_t> make_zipf(int capacity, std::mt19937_64 &random)
{
    std::vector<double> below(10 * static_cast<size_t>(capacity));
    double sum = 0;
    for (size_t rank = 0; rank < below.size(); rank++)
        below[rank] = sum += 1 / static_cast<double>(rank + 1);
    std::uniform_real_distribution<> share(0, sum);
    std::vector<uint64_t> result(kLookups);
    for (uint64_t &address : result)
        address = static_cast<uint64_t>(
            std::lower_bound(below.begin(), below.end(), share(random)) - below.begin());
    return result;
}

std::vector<uint64_t> make_lookups(Sequence sequence, int capacity)
{
    std::mt19937_64 random(static_cast<uint64_t>(capacity));
    const auto c = static_cast<uint64_t>(capacity);
    std::vector<uint64_t> result(kLookups);
    if (sequence == kZipf || sequence == kMixed)
        result = make_zipf(capacity, random);
    for (size_t i = 0; i < kLookups; i++) {
        if (sequence == kUniform)
            result[i] = random() % c;
        else if (sequence == kLoop)
            result[i] = i % (c + c / 4);
        else if (sequence == kMixed && i / c % 4 == 3) // a scan of as many new addresses
            result[i] = 100 * c + i;
    }
    return result;
}

// Made once for all threads and repetitions.
const std::vector<uint64_t> &lookups(Sequence sequence, int capacity)
{
    static std::mutex mutex;
    static std::map<std::pair<Sequence, int>, std::vector<uint64_t>> made;
    const std::lock_guard guard(mutex);
    std::vector<uint64_t> &result = made[{sequence, capacity}];
    if (result.empty())
        result = make_lookups(sequence, capacity);
    return result;
}

template <typename Cache>
Cache &warm_cache(Sequence sequence, int capacity)
{
    static std::mutex mutex;
    static std::map<std::pair<Sequence, int>, std::unique_ptr<Cache>> made;
    const std::vector<uint64_t> &addresses = lookups(sequence, capacity);
    const std::lock_guard guard(mutex);
    std::unique_ptr<Cache> &cache = made[{sequence, capacity}];
    if (!cache) {
        cache = std::make_unique<Cache>(capacity);
        if (sequence == kUniform) { // so that every lookup hits
            for (int i = 0; i < capacity; i++)
                cache->lookup(static_cast<uint64_t>(i));
        }
        for (const uint64_t address : addresses)
            cache->lookup(address);
    }
    return *cache;
}

template <typename Cache>
void run(benchmark::State &state, Sequence sequence)
{
    const auto capacity = static_cast<int>(state.range(0));
    Cache &cache = warm_cache<Cache>(sequence, capacity);
    const std::vector<uint64_t> &addresses = lookups(sequence, capacity);
    // The threads are in different places of the sequence.
    size_t i = static_cast<size_t>(state.thread_index()) * kLookups / 2;
    for (auto _ : state)
        cache.lookup(addresses[i++ % kLookups]);
    state.SetItemsProcessed(state.iterations());
}

// Three mutexes as far apart as the cache's are.
void BM_ThreeLockPairs(benchmark::State &state)
{
    struct alignas(64) Line {
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    };
    static Line lines[3];
    for (auto _ : state) {
        pthread_mutex_lock(&lines[0].mutex);
        benchmark::DoNotOptimize(pthread_mutex_trylock(&lines[1].mutex));
        pthread_mutex_unlock(&lines[0].mutex);
        pthread_mutex_lock(&lines[2].mutex);
        pthread_mutex_unlock(&lines[2].mutex);
        pthread_mutex_unlock(&lines[1].mutex);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ThreeLockPairs);

void compare(const char *name, Sequence sequence, const std::vector<int64_t> &capacities)
{
    const std::string title(name);
    for (const int64_t capacity : capacities) {
        for (const int threads : {1, 2}) {
            const auto add = [&](const std::string &peer,
                                 void (*body)(benchmark::State &, Sequence)) {
                benchmark::RegisterBenchmark((title + "/" + peer).c_str(), body, sequence)
                    ->Arg(capacity)
                    ->Threads(threads)
                    ->UseRealTime();
            };
            add("koutil", run<Koutil>);
            add("lru", run<Lru>);
        }
    }
}

template <typename Cache>
double hit_ratio(Sequence sequence, int capacity)
{
    Cache cache(capacity);
    const std::vector<uint64_t> &addresses = lookups(sequence, capacity);
    for (const uint64_t address : addresses)
        cache.lookup(address);
    return 100.0 * static_cast<double>(cache.hits()) / static_cast<double>(kLookups);
}

void print_hit_ratios()
{
    printf("Hits of %zu lookups, in percent\n%-16s %8s %10s %10s %10s\n", kLookups, "sequence",
           "buffers", "koutil", "published", "lru");
    for (const Sequence sequence : {kZipf, kMixed, kLoop}) {
        for (const int capacity : {100, 1000, kEvicting})
            printf("%-16s %8d %10.2f %10.2f %10.2f\n", kNames[sequence], capacity,
                   hit_ratio<Koutil>(sequence, capacity), hit_ratio<Published>(sequence, capacity),
                   hit_ratio<Lru>(sequence, capacity));
    }
    fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    print_hit_ratios();
    printf("Memory of a record: %zu bytes and the address\n", offsetof(lru_rec_t, rec_addr));
    compare("Hits", kUniform, {1000, 10000, 100000});
    compare("Zipf", kZipf, {kEvicting});
    compare("ZipfAndScans", kMixed, {kEvicting});
    compare("Loop", kLoop, {kEvicting});
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
