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
    constexpr uint64_t slice = 500'000, fresh = UINT64_MAX;
    // Slices and microseconds since the start; a quantity to put, or 0 to read and the rate that is
    // expected. Or fresh: a new bucket, with the slice length that follows. In this order: a slice
    // ends with its last microsecond and counts until it is the twenty-first; a pause of 21 slices
    // begins anew, a shorter one does not; a gap counts, the time before does not, and a clock that
    // goes back moves nothing; large numbers; no slice length; the longest.
    const uint64_t events[][4] = {{fresh, slice},    {0, 0, 0, 0},         {0, 0, 600},
                                  {1, 0, 400},       {1, 0, 0, 0},         {1, 1, 0, 2000},
                                  {2, 0, 0, 2000},   {2, 1, 0, 1000},      {20, 0, 0, 105},
                                  {20, 1, 0, 100},   {21, 0, 0, 100},      {21, 1, 0, 0},
                                  {fresh, slice},    {0, 0, 1000},         {20, slice - 1, 0, 100},
                                  {fresh, slice},    {0, 0, 1000},         {21, 0, 50},
                                  {21, 0, 0, 0},     {22, 1, 0, 100},      {fresh, slice},
                                  {0, 0, 0, 0},      {5, 1, 300},          {7, 1, 200},
                                  {0, 0, 100},       {8, 1, 0, 400},       {fresh, 0},
                                  {0, 0, 1UL << 60}, {1, 1, 0, 1UL << 61}, {fresh, UINT64_MAX / 2},
                                  {0, 0, 5},         {100, 0, 0, 0}};
    SlidingBucket_t bucket;
    for (const auto &[slices, usec, quantity, expected] : events) {
        wall_clock = 1'700'000'000'000'000 + slices * slice + usec;
        if (slices == fresh) {
            InitBucketScale(&bucket, usec);
        } else if (quantity != 0) {
            PutBucket(&bucket, quantity);
        } else {
            EXPECT_EQ(GetBucket(&bucket), expected) << slices << " " << usec;
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
