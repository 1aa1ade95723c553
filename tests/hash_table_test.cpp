// Hash tables: every kind against a plain model, hashes, ownership, statistics and lack of memory.
#include "koutil/hash_table.h"

#include "internal/hash_table.h"
#include "koutil/logger.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace
{

// No string: the hook also runs while allocations fail.
char logged[256];

void record_log(int level, char *format, ...)
{
    const int at = snprintf(logged, sizeof logged, "%d ", level);
    va_list ap;
    va_start(ap, format);
    vsnprintf(logged + at, sizeof logged - static_cast<size_t>(at), format, ap);
    va_end(ap);
}

class HashTable : public testing::Test
{
  protected:
    void SetUp() override
    {
        logged[0] = '\0';
        __vorn_logfn = record_log;
    }
    void TearDown() override
    {
        __vorn_logfn = __vorn_logfn_default;
        ko_hash_destroy(table);
    }
    void *table = nullptr;
};

void *as_value(uintptr_t number)
{
    return reinterpret_cast<void *>(number);
}

// Names of 0 to 300 bytes, of which short, long and non-ASCII ones recur.
std::string name_of(uint64_t id)
{
    std::string name(id % 7 == 0 ? id % 300 : id % 12, static_cast<char>('\x80' + id % 128));
    return name + (id ? std::to_string(id) : "");
}

// Random inserts, searches and deletes; the newest duplicate stands at the back of the model's
// list.
template <typename Insert, typename Search, typename Delete>
void agree_with_a_model(void *table, Insert insert, Search search, Delete remove)
{
    std::mt19937 random(7);
    std::map<uint64_t, std::vector<uintptr_t>> model;
    uint32_t count = 0;
    for (uintptr_t round = 1; round <= 8000; round++) {
        const uint64_t id = random() % 300;
        auto &values = model[id];
        if (random() % 2) {
            insert(id, round);
            values.push_back(round);
            count++;
        } else {
            ASSERT_EQ(remove(id), values.empty() ? 1 : 0);
            if (!values.empty()) {
                values.pop_back();
                count--;
            }
        }
        const uint64_t other = random() % 300;
        ASSERT_EQ(search(other), model[other].empty() ? 0 : model[other].back());
        ASSERT_EQ(ko_hash_count(table), count);
    }
}

TEST_F(HashTable, NamesAgreeWithAModel)
{
    for (uint32_t chains : {1U, 97U, 4096U}) {
        for (uint16_t flags : {uint16_t{0}, koutil::kMoveToFront}) {
            table = ko_hash_create(chains);
            static_cast<koutil::hash_t *>(table)->hash_flags = flags;
            agree_with_a_model(
                table,
                [&](uint64_t id, uintptr_t value) {
                    const hash_val_t *slot =
                        ko_hash_insert(table, name_of(id).c_str(), as_value(value));
                    EXPECT_EQ(slot->pvalue, as_value(value));
                },
                [&](uint64_t id) {
                    return reinterpret_cast<uintptr_t>(ko_hash_search(table, name_of(id).c_str()));
                },
                [&](uint64_t id) { return ko_hash_delete(table, name_of(id).c_str()); });
            ko_hash_destroy(table);
            table = nullptr;
        }
    }
}

TEST_F(HashTable, NumbersAgreeWithAModelAndOwnTheirValues)
{
    table = ko_hash_create_uint64(61);
    const auto key = [](uint64_t id) { return id * 0x100000001; }; // a quarter hashes to 0
    agree_with_a_model(
        table,
        [&](uint64_t id, uintptr_t value) {
            auto *owned = static_cast<uintptr_t *>(malloc(sizeof value));
            *owned = value;
            EXPECT_EQ(ko_hash_insert_uint64(table, key(id), owned)->pvalue, owned);
        },
        [&](uint64_t id) {
            const void *value = ko_hash_search_uint64(table, key(id));
            return value ? *static_cast<const uintptr_t *>(value) : 0;
        },
        [&](uint64_t id) { return ko_hash_delete_uint64(table, key(id)); });
}

TEST_F(HashTable, InlineValuesAreZeroedAlignedAndOfTheGivenLength)
{
    for (size_t len : {0, 1, 7, 8, 24, 1008, 1009, 5000}) {
        table = ko_hash_create_uint64_val(10, len);
        EXPECT_EQ(static_cast<koutil::hash_t *>(table)->bucket_size, len + 16);
        std::vector<unsigned char *> areas;
        for (int round = 0; round < 3; round++) {
            for (uint64_t i = 0; i < 40; i++) {
                auto *area = static_cast<unsigned char *>(ko_hash_insert_uint64_val(table, i));
                ASSERT_EQ(reinterpret_cast<uintptr_t>(area) % (len < 16 ? 8 : 16), 0U);
                ASSERT_EQ(std::count(area, area + len, 0), static_cast<ptrdiff_t>(len));
                memset(area, static_cast<int>(i + 1), len);
                areas.push_back(area);
            }
            for (uint64_t i = 0; i < 40; i++) {
                ASSERT_EQ(ko_hash_search_uint64_val(table, i), areas[i]);
                ASSERT_EQ(std::count(areas[i], areas[i] + len, i + 1), static_cast<ptrdiff_t>(len));
            }
            areas.clear();
            // A callback that deletes what it is given empties the table.
            ko_hash_iterate_uint64_val(table, table, [](void *handle, uint64_t key, void *area) {
                EXPECT_EQ(ko_hash_search_uint64_val(handle, key), area);
                EXPECT_EQ(ko_hash_delete_uint64_val(handle, key), 0);
            });
            EXPECT_EQ(ko_hash_count(table), 0U);
            EXPECT_EQ(ko_hash_delete_uint64_val(table, 1), 1);
        }
        ko_hash_destroy(table);
        table = nullptr;
    }
}

TEST_F(HashTable, HashesAreThePublishedSums)
{
    EXPECT_EQ(ko_name_hash(""), 0U);
    EXPECT_EQ(ko_name_hash("a"), 97U);
    EXPECT_EQ(ko_name_hash("ab"), 6363201U);
    EXPECT_EQ(ko_name_hash("\xE9"), 0xFFFFFFE9U);
    for (uint64_t id = 0; id < 600; id++) {
        const std::string name = name_of(id);
        uint32_t expected = 0;
        for (char c : name)
            expected = expected * 65599 + static_cast<uint32_t>(static_cast<signed char>(c));
        ASSERT_EQ(ko_name_hash(name.c_str()), expected) << name;
    }
    // The chain is the remainder of the hash, here uint64_hash, by any number of chains.
    for (uint32_t chains : {1U, 3U, 1000U, 65536U, 99991U}) {
        void *numbers = ko_hash_create_uint64(chains);
        const auto *heads = static_cast<koutil::hash_t *>(numbers)->buckets;
        for (uint64_t key : {uint64_t{0x123456789ABCDEF0}, UINT64_MAX << 32}) {
            const auto sum = static_cast<uint32_t>(key ^ key >> 32);
            ko_hash_insert_uint64(numbers, key, nullptr);
            EXPECT_GT(heads[sum % chains].depth, 0U);
        }
        ko_hash_destroy(numbers);
    }
}

TEST_F(HashTable, MovesAFoundEntryToTheFrontOnlyWhenAsked)
{
    table = ko_hash_create_uint64(1);
    auto *layout = static_cast<koutil::hash_t *>(table);
    for (uint64_t key : {1, 2, 3})
        ko_hash_insert_uint64(table, key, nullptr);
    ko_hash_search_uint64(table, 1);
    EXPECT_EQ(layout->buckets->bucket->h_u.hu_uint64_key, 3U);
    layout->hash_flags = 1;
    ko_hash_search_uint64(table, 1);
    std::vector<uint64_t> order;
    for (const auto *entry = layout->buckets->bucket; entry; entry = entry->h_next)
        order.push_back(entry->h_u.hu_uint64_key);
    EXPECT_EQ(order, (std::vector<uint64_t>{1, 3, 2}));
}

TEST_F(HashTable, LogsItsStatistics)
{
    table = ko_hash_create(0); // taken as 1
    ko_hash_info(table);
    EXPECT_STREQ(logged, "1 1 buckets, min 0, max 0, avg 0\n");
    for (int i = 0; i < 5; i++)
        ko_hash_insert(table, "same", nullptr);
    ko_hash_info(table);
    EXPECT_STREQ(logged, "1 1 buckets, min 5, max 5, avg 5\n");
    ko_hash_destroy(table);

    table = ko_hash_create(2);
    for (const char *name : {"a", "c", "e", "b", "g"}) // a, c, e and g are odd
        ko_hash_insert(table, name, nullptr);
    ko_hash_info(table);
    EXPECT_STREQ(logged, "1 2 buckets, min 1, max 4, avg 2\n");
}

TEST_F(HashTable, RefusesValuesThatNoEntryHolds)
{
    EXPECT_EQ(ko_hash_create_uint64_val(1, SIZE_MAX), nullptr);
    EXPECT_EQ(ko_hash_create_uint64_val(1, size_t{UINT32_MAX} - 15), nullptr);
}

} // namespace
