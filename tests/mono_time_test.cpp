// mono_time_test.cpp - the tick clock over a scripted wall clock.
#include "koutil/mono_time.h"
#include "koutil/msleep.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <pthread.h>
#include <string>

namespace
{

struct Round {
    int64_t step;        // of the wall clock, in microseconds
    uint32_t ticks;      // after the round
    const char *message; // that the handler reports
};

const Round script[] = {
    {100'000, 1, ""},
    {99'999, 1, ""},
    {1, 2, ""},
    {2'800'000, 30, ""},
    {3'000'000, 60, ""},
    {3'000'001, 61, "clock jumped forward 2.9s"},
    {100'000, 62, ""},
    {-3'600'000'000, 63, "clock jumped backward 3600.0s"},
    {100'000, 64, ""},
    {0, 64, ""},
    {10'000'000, 65, "clock jumped forward 9.9s"},
    {-1, 66, "clock jumped backward 0.0s"},
};

uint64_t wall_clock = 1'700'000'000'000'000;
size_t rounds;
std::string message;

void record(char *fmt, ...)
{
    char text[100];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    message += text;
}

} // namespace

extern "C" uint64_t MicroTime(void)
{
    return wall_clock;
}

// Stands between two rounds of the handler: looks at the one before and sets up the next.
extern "C" int Msleep(int usec)
{
    EXPECT_EQ(usec, 100'000);
    if (rounds > 0) {
        const Round &done = script[rounds - 1];
        EXPECT_EQ(GetMonoStamp().stamp, done.ticks) << "round " << rounds;
        EXPECT_EQ(message, done.message) << "round " << rounds;
    }
    message.clear();
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
    EXPECT_EQ(MonoIsValid(begun), 1);
    EXPECT_EQ(GetMonoElapsed(begun), 0u);
    mono_handler_param_t param = {record, nullptr};
    pthread_t thread;
    const auto run = [](void *arg) -> void * { mono_handler(arg); };
    ASSERT_EQ(pthread_create(&thread, nullptr, run, &param), 0);
    pthread_join(thread, nullptr);
    EXPECT_EQ(GetMonoElapsed(begun), 6'600'000u);
    EXPECT_EQ(GetMonoElapsed({1, 67}), UINT32_MAX * uint64_t{100'000}); // a wrapped count
}

TEST(MonoTime, ComparesStamps)
{
    EXPECT_EQ(GetMonoElapsed(InvalidMono()), 429'496'729'600'000u);
    EXPECT_EQ(MonoIsValid(InvalidMono()), 0);
    EXPECT_EQ(MonoCmp({1, 7}, {0, 7}), 0);
    EXPECT_EQ(MonoCmp({1, 7}, {1, 0x80000008}), -1);
    EXPECT_EQ(MonoCmp({1, 0x80000008}, {1, 7}), 1);
}
