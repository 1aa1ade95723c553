// slidingbucket_test.cpp - rates at the exact borders of slices, under a pretended clock.
#include "koutil/slidingbucket.h"

#include "koutil/msleep.h"
#include "support/support.h"

#include <gtest/gtest.h>

static uint64_t wall_clock;

extern "C" uint64_t MicroTime(void)
{
    return wall_clock;
}

TEST(SlidingBucket, AveragesTheCompletedSlicesFromTheFirstBusyOne)
{
    constexpr uint64_t begin = 1'700'000'000'000'000, slice = 500'000, after = begin + 1;
    // Time, quantity to put or 0 to read, rate expected. Time 0: a new bucket, of that slice.
    const uint64_t events[][3] = {
        // A slice ends with its last microsecond, and counts until it is the twenty-first.
        {0, slice, 0},
        {begin, 0, 0},
        {begin, 600, 0},
        {begin + slice, 400, 0},
        {begin + slice, 0, 0},
        {after + slice, 0, 2000},
        {begin + 2 * slice, 0, 2000},
        {after + 2 * slice, 0, 1000},
        {begin + 20 * slice, 0, 2000 / 19},
        {after + 20 * slice, 0, 100},
        {begin + 21 * slice, 0, 100},
        {after + 21 * slice, 0, 0},
        // A pause of 21 slices begins anew, a shorter one does not.
        {0, slice, 0},
        {begin, 1000, 0},
        {begin + 21 * slice - 1, 0, 100},
        {0, slice, 0},
        {begin, 1000, 0},
        {begin + 21 * slice, 50, 0},
        {begin + 21 * slice, 0, 0},
        {after + 22 * slice, 0, 100},
        // A gap counts, the time before does not; a clock that goes back moves nothing.
        {0, slice, 0},
        {begin, 0, 0},
        {after + 5 * slice, 300, 0},
        {after + 7 * slice, 200, 0},
        {begin, 100, 0},
        {after + 8 * slice, 0, 400},
        // Large numbers, and no slice length.
        {0, 0, 0},
        {begin, 1UL << 60, 0},
        {after + slice, 0, 1UL << 61},
        {0, UINT64_MAX / 2, 0},
        {begin, 5, 0},
        {begin + 100 * slice, 0, 0}};
    SlidingBucket_t bucket;
    for (const auto &[time, quantity, expected] : events) {
        wall_clock = time;
        if (time == 0) {
            InitBucketScale(&bucket, quantity);
        } else if (quantity != 0) {
            PutBucket(&bucket, quantity);
        } else {
            EXPECT_EQ(GetBucket(&bucket), expected) << time - begin;
        }
    }
}

TEST(SlidingBucket, ReadsASteadyRateAsItIsWithoutAnInit)
{
    SlidingBucket_t bucket = {};
    for (uint64_t ms = 10; ms <= 60'000; ms += 10) {
        wall_clock += 10'000;
        PutBucket(&bucket, 10);
        ASSERT_NEAR(static_cast<double>(GetBucket(&bucket)), ms > 510 ? 1000 : 0, 20) << ms;
    }
    bucket.curr = SB_SETSIZE + 1;
    const auto outcome = support::run_in_child([&] { return GetBucket(&bucket), 0; });
    EXPECT_NE(outcome.err.find("f_bucket->curr <= SB_SETSIZE"), std::string::npos);
}
