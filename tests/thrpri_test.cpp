// thrpri_test.cpp - relative priorities over a pretended scheduler, and the start-up call.
#include "koutil/thrpri.h"

#include "koutil/alloc.h"
#include "koutil/library_init.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <sched.h>
#include <string>
#include <syslog.h>

static int priority = 97;
static int get_error = 3, set_error = 0, min_error = 0;
static std::string logged;

extern "C" int pthread_getschedparam(pthread_t, int *policy, struct sched_param *param) noexcept
{
    *policy = SCHED_RR;
    param->sched_priority = priority;
    return get_error;
}

extern "C" int pthread_setschedparam(pthread_t, int policy, const struct sched_param *p) noexcept
{
    EXPECT_EQ(policy, SCHED_RR);
    priority = p->sched_priority;
    return set_error;
}

extern "C" int sched_get_priority_min(int policy) noexcept
{
    errno = min_error;
    return min_error != 0 ? -1 : policy == SCHED_RR ? 94 : 0;
}

extern "C" void syslog(int level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    logged += std::to_string(level) + format + std::to_string(va_arg(args, int));
    va_end(args);
}

TEST(Thrpri, ShiftsWithinTheRangeAndReportsFailures)
{
    ThreadPriority(1); // before the baseline
    LibraryInit();
    ThreadPriority(1);
    EXPECT_EQ(AllocMemory, MyMemalign);
    EXPECT_EQ(FreeMemory, MyFree);
    get_error = 0;
    LibraryInit();
    const int steps[][2] = {{1, 95}, {2, 94}, {3, 94}, {1, 94}, {4, 95},  {5, 97},
                            {5, 99}, {5, 99}, {0, 99}, {6, 99}, {-1, 99}, {1, 97}};
    for (const auto &[level, expected] : steps) {
        ThreadPriority(level);
        EXPECT_EQ(priority, expected);
    }
    get_error = 4;
    ThreadPriority(1);
    get_error = 0;
    set_error = 1;
    ThreadPriority(1);
    min_error = ENOSYS; // goes unsaid
    thrpri_init();
    min_error = EINVAL;
    thrpri_init();
    EXPECT_EQ(logged, "4thrpri_init: THREAD_GETSCHEDPARAM Failed/%d\n3"
                      "4ThreadPriority: THREAD_GETSCHEDPARAM Failed/%d\n4"
                      "4ThreadPriority: THREAD_SETSCHEDPARAM Failed/%d\n1"
                      "4thrpri_init: sched_get_priority_min Failed/%d\n22");
}
