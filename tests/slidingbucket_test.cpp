// slidingbucket_test.cpp - rates at the exact borders of slices, under a pretended clock.
#include "koutil/slidingbucket.h"

#include "koutil/dopanic.h"
#include "koutil/msleep.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstdio>

static uint64_t wall_clock;

extern "C" uint64_t MicroTime(void)
{
    return wall_clock;
}

namespace
{

constexpr uint64_t begin = 1'700'000'000'000'000;
constexpr uint64_t slice = 500'000;

class SlidingBucket : public ::testing::Test
{
  protected:
    void SetUp() override { reset(); }
    void reset(uint64_t scale = slice)
    {
        wall_clock = begin;
        InitBucketScale(&bucket, scale);
    }
    void put(uint64_t offset, uint64_t quantity)
    {
        wall_clock = begin + offset;
        PutBucket(&bucket, quantity);
    }
    uint64_t get(uint64_t offset)
    {
        wall_clock = begin + offset;
        return GetBucket(&bucket);
    }

    SlidingBucket_t bucket;
};

} // namespace

TEST_F(SlidingBucket, CountsASliceFromItsEndUntilItIsTheTwentyFirst)
{
    InitBucket(&bucket);
    EXPECT_EQ(get(0), 0u);
    put(0, 600);
    put(slice, 400); // the last moment of the slice
    const struct {
        uint64_t offset;
        uint64_t expected;
    } cases[] = {{slice, 0},
                 {slice + 1, 2000},
                 {slice + slice / 2, 2000},
                 {2 * slice, 2000},
                 {2 * slice + 1, 1000},
                 {20 * slice, 2000 / 19},
                 {20 * slice + 1, 100},
                 {21 * slice, 100},
                 {21 * slice + 1, 0}};
    for (const auto &c : cases) {
        EXPECT_EQ(get(c.offset), c.expected) << c.offset;
    }
}

TEST_F(SlidingBucket, ResetsAfterAPauseOfTwentyOneSlices)
{
    for (uint64_t pause : {21 * slice - 1, 21 * slice}) {
        reset();
        put(0, 1000);
        put(pause, 50);
        EXPECT_EQ(bucket.base, begin + (pause == 21 * slice ? pause : 20 * slice));
        EXPECT_EQ(get(pause), pause == 21 * slice ? 0u : 100u);
    }
}

TEST_F(SlidingBucket, AveragesGapsButNotTheTimeBefore)
{
    put(0, 0);
    put(5 * slice + 1, 300);
    put(7 * slice + 1, 300);
    EXPECT_EQ(get(8 * slice + 1), 400u); // 300, nothing, 300 in three slices
}

TEST_F(SlidingBucket, ReadsASteadyRateAsItIs)
{
    for (uint64_t ms = 10; ms <= 60'000; ms += 10) {
        put(ms * 1000, 10);
        if (ms > 1000) {
            ASSERT_NEAR(static_cast<double>(get(ms * 1000)), 1000, 21) << ms;
        }
    }
}

TEST_F(SlidingBucket, HoldsStillWhenTheClockGoesBack)
{
    put(slice * 3, 100);
    wall_clock = begin - 1000 * slice;
    PutBucket(&bucket, 100);
    EXPECT_EQ(get(slice * 4 + 1), 400u);
}

TEST_F(SlidingBucket, SurvivesLargeNumbersAndNoScale)
{
    for (uint64_t scale : {slice, uint64_t{0}}) {
        reset(scale);
        put(0, uint64_t{1} << 60);
        EXPECT_EQ(get(slice + 1), uint64_t{1} << 61);
    }
    reset(UINT64_MAX / 2);
    put(0, 5);
    EXPECT_EQ(get(100 * slice), 0u);
    bucket = {};
    PutBucket(&bucket, 1);
    EXPECT_EQ(bucket.scale, slice);
}

TEST_F(SlidingBucket, PanicsOnACorruptedIndex)
{
    bucket.curr = SB_SETSIZE + 1;
    const auto outcome = support::run_in_child([&] {
        DoPanicFn = [](char *str1, char *str2, int, char *, int) {
            fprintf(stderr, "%s%s", str1, str2);
        };
        PutBucket(&bucket, 1);
        return 9;
    });
    EXPECT_TRUE(outcome.exited(1));
    EXPECT_EQ(outcome.err, "ASSERT failed f_bucket->curr <= SB_SETSIZE");
}
