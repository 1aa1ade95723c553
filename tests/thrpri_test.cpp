// thrpri_test.cpp - relative priorities over a pretended scheduler, and the start-up call.
#include "koutil/thrpri.h"

#include "koutil/alloc.h"
#include "koutil/library_init.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <syslog.h>

namespace
{

int policy = SCHED_RR;
int priority = 50;
int sets;
int get_error;
int set_error;
int min_error;
std::string logged;

} // namespace

extern "C" int pthread_getschedparam(pthread_t, int *out, struct sched_param *param) noexcept
{
    if (get_error == 0) {
        *out = policy;
        param->sched_priority = priority;
    }
    return get_error;
}

extern "C" int pthread_setschedparam(pthread_t, int given, const struct sched_param *param) noexcept
{
    EXPECT_EQ(given, policy);
    priority = param->sched_priority;
    sets++;
    return set_error;
}

extern "C" int sched_get_priority_min(int given) noexcept
{
    errno = min_error;
    return min_error != 0 ? -1 : given == SCHED_RR ? 10 : 0;
}

extern "C" int sched_get_priority_max(int given) noexcept
{
    return given == SCHED_RR ? 52 : 0;
}

extern "C" void syslog(int level, const char *format, ...)
{
    char text[200];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    logged += std::to_string(level) + text;
}

TEST(Thrpri, ShiftsWithinTheRangeAndReportsFailures)
{
    const std::string got = "THREAD_GETSCHEDPARAM Failed/3\n";
    ThreadPriority(5); // before the baseline
    EXPECT_EQ(sets, 0);
    get_error = 3;
    LibraryInit();
    EXPECT_EQ(logged, "4thrpri_init: " + got);
    ThreadPriority(5);
    EXPECT_EQ(sets, 0);
    get_error = 0;
    LibraryInit();
    EXPECT_EQ(AllocMemory, MyMemalign);
    EXPECT_EQ(FreeMemory, MyFree);

    const struct {
        int level;
        int expected;
    } steps[] = {{1, 48}, {2, 47}, {3, 47}, {4, 48},  {5, 50}, {5, 52},
                 {5, 52}, {0, 52}, {6, 52}, {-1, 52}, {1, 50}};
    for (const auto &step : steps) {
        ThreadPriority(step.level);
        EXPECT_EQ(priority, step.expected);
    }
    EXPECT_EQ(sets, 8);

    logged.clear();
    get_error = 3;
    ThreadPriority(1);
    get_error = 0;
    set_error = 1;
    ThreadPriority(1);
    min_error = ENOSYS;
    thrpri_init();
    min_error = EINVAL;
    thrpri_init();
    EXPECT_EQ(logged, "4ThreadPriority: " + got +
                          "4ThreadPriority: THREAD_SETSCHEDPARAM Failed/1\n"
                          "4thrpri_init: sched_get_priority_min Failed/22\n");
}
