// thread_common_test.cpp - attributes, the starter, the watchdog with its seconds under control.
#include "koutil/thread_common.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <semaphore.h>
#include <string>
#include <unistd.h>

namespace
{

struct Waiter {
    thread_mutex_t lock = THREAD_MUTEX_INITIALIZER;
    thread_cond_t cond = THREAD_COND_INITIALIZER;
    int signals = 0;
};

Waiter third;
Waiter every;
sem_t last_second;
std::string logged;

void set_default_stack(size_t size)
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, size);
    EXPECT_EQ(pthread_setattr_default_np(&attr), 0);
}

} // namespace

extern "C" int pthread_cond_signal(pthread_cond_t *cond) noexcept
{
    Waiter &waiter = cond == &third.cond.cond ? third : every;
    EXPECT_EQ(pthread_mutex_trylock(&waiter.lock.mutex), EBUSY); // else a wake-up can be missed
    waiter.signals++;
    return 0;
}

// The watchdog's sleep, at the end of each second; the first one passes at once.
extern "C" int Msleep(int usec)
{
    static int second;
    second++;
    EXPECT_EQ(usec, 1'000'000);
    EXPECT_EQ(third.signals, std::min(second, 9) / 3) << second;
    EXPECT_EQ(every.signals, std::min(second, 9) - 1) << second;
    if (second == 1) {
        register_spurious_wakeup(&every.lock, &every.cond, 1);
    } else if (second == 9) {
        unregister_spurious_wakeup(&every.lock, &every.cond);
        unregister_spurious_wakeup(&every.lock, &every.cond); // none is left
        unregister_spurious_wakeup(&third.lock, &third.cond);
    } else if (second == 12) {
        sem_post(&last_second);
        pause();
    }
    return 0;
}

extern "C" void syslog(int priority, const char *format, ...)
{
    logged += std::to_string(priority) + format;
}

TEST(ThreadCommon, SizesStacksByThePlatformsDefault)
{
    // The platform's default and ThreadStackSize; the size expected, and that of the large stack.
    constexpr size_t cases[][4] = {{128 << 10, 128 << 10, 256 << 10, 4 << 20},
                                   {64 << 10, 128 << 10, 128 << 10, 4 << 20},
                                   {8 << 20, 3 << 20, 6 << 20, 6 << 20},
                                   {8 << 20, 128 << 10, 256 << 10, 4 << 20}};
    for (const auto &[platform, base, expected, expected_large] : cases) {
        set_default_stack(platform);
        ThreadStackSize = base;
        kova_thread_init();
        for (const auto *attr :
             {&Thread_create_attr, &Thread_create_attr_joinable, &Thread_create_attr_4m}) {
            size_t size = 0;
            int detached = -1;
            pthread_attr_getstacksize(attr, &size);
            pthread_attr_getdetachstate(attr, &detached);
            EXPECT_EQ(size, attr == &Thread_create_attr_4m ? expected_large : expected);
            EXPECT_EQ(detached, attr == &Thread_create_attr_joinable ? PTHREAD_CREATE_JOINABLE
                                                                     : PTHREAD_CREATE_DETACHED);
        }
    }
}

TEST(ThreadCommon, TheWatchdogSignalsEveryPeriodUntilItIsTakenBack)
{
    register_spurious_wakeup(&third.lock, &third.cond, 0); // never comes, so starts nothing
    set_default_stack(size_t{1} << 46);
    register_spurious_wakeup(&third.lock, &third.cond, 1);
    set_default_stack(8 << 20);
    EXPECT_EQ(logged, "3register_spurious_wakeup: Can't create thread.\n");
    sem_init(&last_second, 0, 0);
    register_spurious_wakeup(&third.lock, &third.cond, 3);
    sem_wait(&last_second);
}
