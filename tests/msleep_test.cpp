// msleep_test.cpp - sleeps under signals and clock steps, deadlines, the stopwatch.
#include "koutil/msleep.h"
#include "koutil/timer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <sys/syscall.h>
#include <unistd.h>

// The wall clock under test: one that stands still, or the real one, moved by a step per reading.
static timeval frozen_clock;
static time_t clock_step, clock_offset;

extern "C" int gettimeofday(struct timeval *tv, void *) noexcept
{
    *tv = frozen_clock;
    if (frozen_clock.tv_sec == 0) {
        syscall(SYS_gettimeofday, tv, nullptr);
        tv->tv_sec += clock_offset += clock_step;
    }
    return 0;
}

TEST(Sleep, OutlastsAStormOfSignalsUnlessTheWallClockJumps)
{
    signal(SIGALRM, [](int) {});
    const itimerval storm{{0, 400}, {0, 400}};
    setitimer(ITIMER_REAL, &storm, nullptr);
    const struct {
        int (*nap)(int);
        int time, step, expected;
        uint64_t expected_msec;
    } cases[] = {{Msleep, 60'000, 0, 0, 58},
                 {mono_msleep, 60, 0, 0, 58},
                 {Msleep, 30'000'000, -3600, 0, 0},
                 {Msleep, 30'000'000, 3600, 0, 0},
                 {Msleep, 0, 0, 0, 0},
                 {mono_msleep, 0, 0, 0, 0},
                 {Msleep, -1, 0, EINVAL, 0},
                 {mono_msleep, -1, 0, EINVAL, 0}};
    for (const auto &c : cases) {
        clock_step = c.step;
        const uint64_t begun = monotime();
        EXPECT_EQ(c.nap(c.time), c.expected) << c.time;
        const uint64_t took = monotime() - begun;
        EXPECT_TRUE(took >= c.expected_msec && took < 10'000) << c.time << ": " << took;
    }
    signal(SIGALRM, SIG_IGN);
    EXPECT_TRUE(monotime_cmp(7, 7) == 0 && monotime_cmp(0, UINT64_MAX) < 0 &&
                monotime_cmp(UINT64_MAX, 0) > 0);
}

TEST(Deadline, AddsTheIncrementWithItsCarryAndBacksOff)
{
    const struct {
        void (*set)(timespec *, uint64_t, int);
        uint64_t incr;
        int retries;
        timespec expected; // from 10.9 s
    } cases[] = {{set_timespec_core, 200'000'000, 0, {11, 100'000'000}},
                 {set_timespec_core, 99'999'999, 1, {10, 999'999'999}},
                 {set_timespec_core, 100'000'000, -5, {11, 0}},
                 {set_timespec_core, 5'000'000'001, 3, {25, 900'000'003}},
                 {set_timespec_core, UINT64_MAX, 2, {10 + 18446744074, 609551615}},
                 {set_timespec_cap, 2'000'000'000, 6, {22, 900'000'000}},
                 {set_timespec_cap, 2'000'000'000, 7, {11, 900'000'000}}};
    frozen_clock = {10, 900'000};
    for (const auto &c : cases) {
        timespec ts{10, 900'000'000};
        c.set(&ts, c.incr, c.retries);
        EXPECT_EQ(ts.tv_sec, c.expected.tv_sec) << c.incr << " x " << c.retries;
        EXPECT_EQ(ts.tv_nsec, c.expected.tv_nsec) << c.incr << " x " << c.retries;
    }
    frozen_clock = {};
}

TEST(Stopwatch, MeasuresBothWaysRoundTheSecond)
{
    double between, since;
    frozen_clock = {1000, 900'000};
    start_timer();
    frozen_clock = {1002, 150'000};
    end_timer();
    frozen_clock = {999, 900'000};
    get_timer(&between);
    get_elapsed_time(&since);
    EXPECT_DOUBLE_EQ(between, 1.25);
    EXPECT_DOUBLE_EQ(since, -1.0);
}
