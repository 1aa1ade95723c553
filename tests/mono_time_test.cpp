// mono_time_test.cpp - the tick clock over a scripted wall clock.
#include "koutil/mono_time.h"
#include "koutil/msleep.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <pthread.h>

namespace
{

const struct {
    int64_t step;        // of the wall clock, in microseconds
    uint32_t ticks;      // after the round
    const char *message; // that the handler reports
} script[] = {{100'000, 1, ""},
              {99'999, 1, ""},
              {1, 2, ""},
              {3'000'000, 32, ""},
              {3'000'001, 33, "clock jumped forward 2.9s"},
              {100'000, 34, ""},
              {-3'600'000'000, 35, "clock jumped backward 3600.0s"},
              {100'000, 36, ""},
              {0, 36, ""},
              {-1, 37, "clock jumped backward 0.0s"}};

uint64_t wall_clock = 1'700'000'000'000'000;
size_t rounds;
char message[100];

void record(char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    vsnprintf(message, sizeof message, fmt, args);
    va_end(args);
}

} // namespace

extern "C" uint64_t MicroTime(void)
{
    return wall_clock;
}

// Stands between two rounds of the handler: looks at the one before and sets up the next.
extern "C" int Msleep(int)
{
    if (rounds > 0) {
        EXPECT_EQ(GetMonoStamp().stamp, script[rounds - 1].ticks) << "round " << rounds;
        EXPECT_STREQ(message, script[rounds - 1].message) << "round " << rounds;
    }
    message[0] = '\0';
    if (rounds == std::size(script)) {
        pthread_exit(nullptr);
    }
    wall_clock += static_cast<uint64_t>(script[rounds++].step);
    return 0;
}

TEST(MonoTime, FollowsTheWallClockButNotItsJumps)
{
    mono_init();
    const monotime_t begun = GetMonoStamp();
    mono_handler_param_t param = {record, nullptr};
    pthread_t thread;
    const auto run = [](void *arg) -> void * { mono_handler(arg); };
    ASSERT_EQ(pthread_create(&thread, nullptr, run, &param), 0);
    pthread_join(thread, nullptr);
    EXPECT_EQ(MonoIsValid(begun), 1);
    EXPECT_EQ(GetMonoElapsed(begun), 3'700'000u);
    EXPECT_EQ(GetMonoElapsed({1, 38}), UINT32_MAX * uint64_t{100'000}); // a wrapped count
    EXPECT_EQ(GetMonoElapsed(InvalidMono()), 429'496'729'600'000u);
    EXPECT_EQ(MonoCmp({1, 7}, {0, 7}), 0);
    EXPECT_EQ(MonoCmp({1, 7}, {1, 0x80000008}), -1);
}
