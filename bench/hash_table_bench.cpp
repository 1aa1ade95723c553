// What insert, search and delete of a hash table cost, beside std::unordered_map and, where it is
// installed, Abseil's flat_hash_map. Names have about 20 bytes; numbers are random. The tables have
// as many chains as keys (the peers may grow as they like), keys are searched and deleted in
// another order than they were inserted in. Each figure is the time of all keys, per key.
//
// First the memory of a table with ten chains and ten entries is printed.
#include "koutil/hash_table.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>
#if HAVE_ABSL_FLAT_HASH_MAP
#include <absl/container/flat_hash_map.h>
#endif

namespace
{

template <typename Key>
struct Keys {
    std::vector<Key> inserted;
    std::vector<Key> shuffled;
};

template <typename Key>
Key make_key(std::mt19937_64 &random, size_t i)
{
    if constexpr (std::is_same_v<Key, uint64_t>)
        return random();
    else
        return "file-" + std::to_string(random() % 90000000 + 10000000) + "-" + std::to_string(i);
}

template <typename Key>
const Keys<Key> &keys(size_t count)
{
    static std::unordered_map<size_t, Keys<Key>> made;
    auto &keys = made[count];
    std::mt19937_64 random(count);
    while (keys.inserted.size() < count)
        keys.inserted.push_back(make_key<Key>(random, keys.inserted.size()));
    keys.shuffled = keys.inserted;
    std::shuffle(keys.shuffled.begin(), keys.shuffled.end(), random);
    return keys;
}

void *const kValue = const_cast<char *>("value");

// The table under test, for either kind of key. Number tables own their values, so these are null,
// and a search is for the value area of a table with inline values.
template <typename Key>
class Koutil;

template <>
class Koutil<std::string>
{
  public:
    explicit Koutil(size_t count)
        : table_(ko_hash_create(static_cast<uint32_t>(count)))
    {
    }
    ~Koutil() { ko_hash_destroy(table_); }
    void insert(const std::string &key) { ko_hash_insert(table_, key.c_str(), kValue); }
    bool search(const std::string &key) { return ko_hash_search(table_, key.c_str()); }
    bool remove(const std::string &key) { return ko_hash_delete(table_, key.c_str()) == 0; }

  private:
    void *table_;
};

template <>
class Koutil<uint64_t>
{
  public:
    explicit Koutil(size_t count)
        : table_(ko_hash_create_uint64_val(static_cast<uint32_t>(count), 8))
    {
    }
    ~Koutil() { ko_hash_destroy(table_); }
    void insert(uint64_t key)
    {
        *static_cast<void **>(ko_hash_insert_uint64_val(table_, key)) = kValue;
    }
    bool search(uint64_t key) { return ko_hash_search_uint64_val(table_, key); }
    bool remove(uint64_t key) { return ko_hash_delete_uint64_val(table_, key) == 0; }

  private:
    void *table_;
};

template <typename Map>
class Peer
{
  public:
    explicit Peer(size_t) {}
    template <typename Key>
    void insert(const Key &key)
    {
        map_.emplace(key, kValue);
    }
    template <typename Key>
    bool search(const Key &key)
    {
        return map_.find(key) != map_.end();
    }
    template <typename Key>
    bool remove(const Key &key)
    {
        return map_.erase(key) == 1;
    }

  private:
    Map map_;
};

enum class Step { Insert, Search, Delete };

template <typename Table, typename Key, Step step>
void measure(benchmark::State &state)
{
    const auto &all = keys<Key>(static_cast<size_t>(state.range(0)));
    size_t good = 0;
    for (auto _ : state) {
        state.PauseTiming();
        {
            Table table(all.inserted.size());
            if (step == Step::Insert)
                state.ResumeTiming();
            for (const Key &key : all.inserted)
                table.insert(key);
            if (step != Step::Insert)
                state.ResumeTiming();
            if (step == Step::Search) {
                for (const Key &key : all.shuffled)
                    good += table.search(key);
            }
            if (step == Step::Delete) {
                for (const Key &key : all.shuffled)
                    good += table.remove(key);
            }
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    if (step != Step::Insert && good != all.inserted.size() * state.iterations())
        state.SkipWithError("keys were missing");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Table, typename Key>
void add(const std::string &name)
{
    const auto add_step = [&](const char *step, void (*function)(benchmark::State &)) {
        benchmark::RegisterBenchmark((step + name).c_str(), function)
            ->Arg(100000)
            ->Arg(1000000)
            ->Unit(benchmark::kMillisecond);
    };
    add_step("insert/", measure<Table, Key, Step::Insert>);
    add_step("search/", measure<Table, Key, Step::Search>);
    add_step("delete/", measure<Table, Key, Step::Delete>);
}

template <typename Key>
void add_key(const std::string &key)
{
    add<Koutil<Key>, Key>(key + "/koutil");
    add<Peer<std::unordered_map<Key, void *>>, Key>(key + "/unordered_map");
#if HAVE_ABSL_FLAT_HASH_MAP
    add<Peer<absl::flat_hash_map<Key, void *>>, Key>(key + "/flat_hash_map");
#endif
}

void print_small_table()
{
    const size_t before = mallinfo2().uordblks;
    void *table = ko_hash_create(10);
    for (int i = 0; i < 10; i++)
        ko_hash_insert(table, ("file-12345678-" + std::to_string(i)).c_str(), kValue);
    const size_t after = mallinfo2().uordblks;
    printf("ten names in ten chains: %zu bytes\n", after - before);
    ko_hash_destroy(table);
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    add_key<std::string>("names");
    add_key<uint64_t>("numbers");
    print_small_table();
    benchmark::RunSpecifiedBenchmarks();
}
