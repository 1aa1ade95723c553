// msleep_test.cpp - sleeps under signals and clock steps, deadlines, the stopwatch.
#include "koutil/msleep.h"
#include "koutil/timer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

// The clock under test: a reading that stands still, or the real one, moved by a step per reading.
static timeval frozen_clock;
static time_t clock_step;
static time_t clock_offset;

extern "C" int gettimeofday(struct timeval *tv, void *) noexcept
{
    if (frozen_clock.tv_sec != 0) {
        *tv = frozen_clock;
        return 0;
    }
    const long result = syscall(SYS_gettimeofday, tv, nullptr);
    tv->tv_sec += clock_offset;
    clock_offset += clock_step;
    return static_cast<int>(result);
}

namespace
{

// SIGALRM every `usec` for the life of the object.
class Storm
{
  public:
    explicit Storm(suseconds_t usec)
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        const itimerval every{{0, usec}, {0, usec}};
        setitimer(ITIMER_REAL, &every, nullptr);
    }
    ~Storm()
    {
        const itimerval never{};
        setitimer(ITIMER_REAL, &never, nullptr);
    }
    Storm(const Storm &) = delete;
    Storm &operator=(const Storm &) = delete;
};

} // namespace

TEST(Sleep, LastsItsTimeUnderAStormOfSignals)
{
    const Storm storm(400);
    for (const auto &nap : {+[] { return Msleep(60'000); }, +[] { return mono_msleep(60); }}) {
        const uint64_t begun = monotime();
        EXPECT_EQ(nap(), 0);
        const uint64_t took = monotime() - begun;
        EXPECT_GE(took, 58u);
        EXPECT_LT(took, 5000u);
    }
}

TEST(Sleep, EndsWhenTheWallClockGoesBackOrPassesTheEnd)
{
    const Storm storm(20'000);
    for (int step : {-3600, 3600}) {
        clock_step = step;
        const uint64_t begun = monotime();
        EXPECT_EQ(Msleep(30'000'000), 0);
        EXPECT_LT(monotime() - begun, 10'000u);
    }
    clock_step = 0;
}

TEST(Sleep, RefusesNegativeTimesAndReturnsAtOnceForZero)
{
    EXPECT_EQ(Msleep(-1), EINVAL);
    EXPECT_EQ(mono_msleep(-1), EINVAL);
    EXPECT_EQ(Msleep(0), 0);
    EXPECT_EQ(mono_msleep(0), 0);
}

TEST(Deadline, AddsTheIncrementWithItsCarry)
{
    constexpr uint64_t second = 1'000'000'000;
    const struct {
        long nsec;
        uint64_t incr;
        int retries;
        time_t expected_sec;
        long expected_nsec;
    } cases[] = {
        {900'000'000, 200'000'000, 0, 11, 100'000'000},
        {900'000'000, 99'999'999, 1, 10, 999'999'999},
        {900'000'000, 100'000'000, -5, 11, 0},
        {0, 5 * second + 1, 3, 25, 3},
        {999'999'999, UINT64_MAX, 2, 10 + 18446744074, 709551614},
    };
    for (const auto &c : cases) {
        timespec ts{10, c.nsec};
        set_timespec_core(&ts, c.incr, c.retries);
        EXPECT_EQ(ts.tv_sec, c.expected_sec) << c.incr << " x " << c.retries;
        EXPECT_EQ(ts.tv_nsec, c.expected_nsec) << c.incr << " x " << c.retries;
    }
}

TEST(Deadline, BacksOffFromNowAndCapsAtOneSecond)
{
    frozen_clock = {1000, 999'999};
    timespec ts;
    set_timespec(&ts, 2'000);
    EXPECT_EQ(ts.tv_sec, 1001);
    EXPECT_EQ(ts.tv_nsec, 1'000);
    set_timespec_cap(&ts, 400'000'000, 3);
    EXPECT_EQ(ts.tv_sec, 1002);
    EXPECT_EQ(ts.tv_nsec, 199'999'000);
    set_timespec_cap(&ts, 400'000'000, 7);
    EXPECT_EQ(ts.tv_sec, 1001);
    EXPECT_EQ(ts.tv_nsec, 999'999'000);
    EXPECT_EQ(MicroTime(), 1'000'999'999u);
    EXPECT_EQ(monotime_cmp(1, 2), -1);
    EXPECT_EQ(monotime_cmp(2, 2), 0);
    EXPECT_EQ(monotime_cmp(UINT64_MAX, 0), 1);
    frozen_clock = {};
}

TEST(Stopwatch, MeasuresBothWaysRoundTheSecond)
{
    double seconds = 0;
    timeval own;
    frozen_clock = {1000, 900'000};
    start_timer();
    get_start_timer(&own);
    frozen_clock = {1002, 150'000};
    end_timer();
    frozen_clock = {999, 900'000};
    get_timer(&seconds);
    EXPECT_DOUBLE_EQ(seconds, 1.25);
    get_elapsed_time(&seconds);
    EXPECT_DOUBLE_EQ(seconds, -1.0);
    get_end_timer(&own, &seconds);
    EXPECT_DOUBLE_EQ(seconds, -1.0);
    frozen_clock = {};
}
