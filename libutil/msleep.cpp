// msleep.cpp - platform clocks, sleeps and deadlines.
#include "koutil/msleep.h"

#include <cerrno>
#include <sys/select.h>
#include <sys/time.h>

namespace
{

constexpr int64_t usec_per_sec = 1'000'000;
constexpr uint64_t nsec_per_sec = 1'000'000'000;
constexpr int cap_retries = 7;

// Sleeps until `remaining` units of `clock` have passed, `per_sec` of them to the second.
//
// The time asleep is taken from one reading of the clock to the next, so that what the readings
// round off is not lost again at every interruption.
int sleep_by(uint64_t (*clock)(), int64_t per_sec, int64_t remaining)
{
    uint64_t since = clock();
    for (;;) {
        timeval wait{remaining / per_sec, remaining % per_sec * (usec_per_sec / per_sec)};
        if (select(0, nullptr, nullptr, nullptr, &wait) == 0) {
            return 0;
        }
        if (errno != EINTR) {
            return errno;
        }
        const uint64_t now = clock();
        if (now < since || now - since >= static_cast<uint64_t>(remaining)) {
            return 0;
        }
        remaining -= static_cast<int64_t>(now - since);
        since = now;
    }
}

void set_to_wall_clock(timespec *tsp)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    tsp->tv_sec = now.tv_sec;
    tsp->tv_nsec = now.tv_usec * 1000;
}

} // namespace

uint64_t monotime(void)
{
    timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        return 0;
    }
    // Nanoseconds fit 32 bits, whose division is the shorter one.
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint32_t>(now.tv_nsec) / 1000000U;
}

int monotime_cmp(uint64_t time1, uint64_t time2)
{
    if (time1 == time2) {
        return 0;
    }
    return time1 > time2 ? 1 : -1;
}

int mono_msleep(int msec)
{
    return sleep_by(monotime, 1000, msec);
}

uint64_t MicroTime(void)
{
    timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * usec_per_sec + static_cast<uint64_t>(now.tv_usec);
}

int Msleep(int usec)
{
    return sleep_by(MicroTime, usec_per_sec, usec);
}

void set_timespec(struct timespec *tsp, uint64_t nan_incr)
{
    set_to_wall_clock(tsp);
    set_timespec_core(tsp, nan_incr, 0);
}

void set_timespec_cap(struct timespec *tsp, uint64_t nan_incr, int retries)
{
    set_to_wall_clock(tsp);
    if (retries >= cap_retries) {
        tsp->tv_sec += 1;
        return;
    }
    set_timespec_core(tsp, nan_incr, retries);
}

void set_timespec_core(struct timespec *tsp, uint64_t nan_incr, int retries)
{
    uint64_t incr = nan_incr;
    if (retries > 1 && __builtin_mul_overflow(nan_incr, static_cast<uint64_t>(retries), &incr)) {
        incr = UINT64_MAX;
    }
    const uint64_t nsec = static_cast<uint64_t>(tsp->tv_nsec) + incr % nsec_per_sec;
    tsp->tv_sec += static_cast<time_t>(incr / nsec_per_sec + nsec / nsec_per_sec);
    tsp->tv_nsec = static_cast<long>(nsec % nsec_per_sec);
}
