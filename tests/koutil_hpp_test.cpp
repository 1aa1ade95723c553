// koutil_hpp_test.cpp - the owners of C++ hosts: what they hold is released once, on every way out.
#include "koutil/koutil.hpp"

#include "support/support.h"

#include <gtest/gtest.h>
#include <string>

namespace
{

std::string events;

void give_back(const char *name)
{
    events += name;
    errno = EIO;
}
using Name = ko::Owned<const char, give_back>;

TEST(Owned, ReleasesOnceWhateverMoves)
{
    errno = 0;
    {
        Name a("a");
        Name b(std::move(a));
        Name c("c");
        c = std::move(b); // c goes
        events += b ? "?" : "-";
        *c.out() = "d"; // a goes
        Name given("g");
        EXPECT_STREQ(given.release(), "g");
        const Name e("e");
    }
    EXPECT_EQ(events, "c-aed");
    EXPECT_EQ(errno, 0);
}

TEST(Config, IsARangeOfEntriesAndClosesOnTheWayOut)
{
    const support::TempDir dir;
    support::write_file(dir / "cfg", "a 1 2\nb\n# note\n");
    const int before = support::open_descriptors();
    std::string text;
    [&] {
        ko::Config config;
        EXPECT_NE(config.open((dir / "none").c_str(), KOVA_OPEN_READ, CFGTYPE_WORDS), 0);
        EXPECT_EQ(config.begin(), config.end());
        EXPECT_EQ(config.open((dir / "cfg").c_str(), KOVA_OPEN_READ, CFGTYPE_WORDS), 0);
        for (const CfgEnt_t &entry : ko::Config(std::move(config))) {
            text += ko::view(entry.KovaCfgName);
            text += std::to_string(ko::values(entry).size()) + ";";
            if (ko::view(entry.KovaCfgName) == "b") {
                return;
            }
        }
    }();
    EXPECT_EQ(text, "a2;b0;");
    EXPECT_EQ(support::open_descriptors(), before);
}

TEST(Cache, UnlocksABufferWithItsContextAndBeforeTheCacheEnds)
{
    cache_fn_vec_t functions = {
        [](bufaddr_t) -> uint64_t { return 0; },
        [](bufaddr_t, bufaddr_t) { return 0; },
        [](void *, cache_buf_t *, bufaddr_t, int) { return (events += "evict ", 1); },
        [](void *, cache_buf_t *, bufaddr_t, int) { return 0; },
        [](void *, cache_handle_t, bufaddr_t) { return calloc(1, 4); },
        [](void *, cache_buf_t *buffer) { free(buffer); },
        [](void *, cache_buf_t *, cache_lock_t *) {},
        [](void *, cache_buf_t *, cache_lock_t *) { return 1; },
        [](void *context, cache_buf_t *, cache_lock_t *) {
            events += context != nullptr ? "unlock " : "";
        }};
    events.clear();
    uint64_t block = 7;
    {
        const ko::Cache cache = ko::Cache::create(2, nullptr, sizeof block, functions);
        ko::CacheBuffer first = cache.find(&block, &block);
        *first.data<int>() = 5;
        ko::CacheBuffer second(std::move(first));
        second.unlock();
        second = cache.find(&block, &block);
        EXPECT_EQ(*second.data<int>(), 5);
    }
    EXPECT_EQ(events, "unlock unlock evict ");
}

} // namespace
