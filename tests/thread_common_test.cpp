// thread_common_test.cpp - attributes, the starter, the watchdog with its seconds under control.
#include "koutil/thread_common.h"

#include "koutil/msleep.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <dlfcn.h>
#include <semaphore.h>
#include <string>
#include <syslog.h>

namespace
{

sem_t second_over;
sem_t second_begins;
bool refuse_threads;
std::string logged;

// A thread that waits on a condition and reports each wake-up.
struct Waiter {
    thread_mutex_t lock = THREAD_MUTEX_INITIALIZER;
    thread_cond_t cond = THREAD_COND_INITIALIZER;
    sem_t woken;

    void start()
    {
        sem_init(&woken, 0, 0);
        pthread_t thread;
        pthread_create(&thread, nullptr, run, this);
        sem_wait(&woken);
        pthread_mutex_lock(&lock.mutex); // free only while the thread waits
        pthread_mutex_unlock(&lock.mutex);
    }
    bool wakes() // within reason
    {
        timespec deadline;
        set_timespec(&deadline, 20'000'000'000);
        return sem_timedwait(&woken, &deadline) == 0;
    }
    bool sleeps() { return sem_trywait(&woken) != 0; }

  private:
    static void *run(void *arg)
    {
        auto *self = static_cast<Waiter *>(arg);
        pthread_mutex_lock(&self->lock.mutex);
        for (;;) {
            sem_post(&self->woken);
            pthread_cond_wait(&self->cond.cond, &self->lock.mutex);
        }
    }
};

} // namespace

// The watchdog's sleep: the test lets each second begin and end.
extern "C" int Msleep(int usec)
{
    EXPECT_EQ(usec, 1'000'000);
    sem_post(&second_over);
    while (sem_wait(&second_begins) != 0) {
    }
    return 0;
}

extern "C" int THREAD_CREATE(pthread_t *thread, const pthread_attr_t *attr,
                             void *(*start_routine)(void *), void *arg)
{
    using create_fn = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const auto create = reinterpret_cast<create_fn>(dlsym(RTLD_NEXT, "THREAD_CREATE"));
    return refuse_threads ? EAGAIN : create(thread, attr, start_routine, arg);
}

extern "C" void syslog(int priority, const char *format, ...)
{
    logged += std::to_string(priority) + format;
}

TEST(ThreadCommon, SizesStacksByThePlatformsDefault)
{
    const struct {
        size_t platform;
        size_t base;
        size_t expected;
        size_t expected_large;
    } cases[] = {
        {8 << 20, 128 << 10, 256 << 10, 4 << 20},
        {128 << 10, 128 << 10, 256 << 10, 4 << 20},
        {64 << 10, 128 << 10, 128 << 10, 4 << 20},
        {8 << 20, 3 << 20, 6 << 20, 6 << 20},
    };
    pthread_attr_t saved;
    pthread_getattr_default_np(&saved);
    for (const auto &c : cases) {
        pthread_attr_t platform;
        pthread_attr_init(&platform);
        pthread_attr_setstacksize(&platform, c.platform);
        pthread_setattr_default_np(&platform);
        ThreadStackSize = c.base;
        kova_thread_init();
        const struct {
            const pthread_attr_t &attr;
            size_t size;
            int detached;
        } expected[] = {{Thread_create_attr, c.expected, PTHREAD_CREATE_DETACHED},
                        {Thread_create_attr_joinable, c.expected, PTHREAD_CREATE_JOINABLE},
                        {Thread_create_attr_4m, c.expected_large, PTHREAD_CREATE_DETACHED}};
        for (const auto &e : expected) {
            size_t size = 0;
            int detached = -1;
            pthread_attr_getstacksize(&e.attr, &size);
            pthread_attr_getdetachstate(&e.attr, &detached);
            EXPECT_EQ(size, e.size) << c.platform;
            EXPECT_EQ(detached, e.detached);
        }
    }
    pthread_setattr_default_np(&saved);
    ThreadStackSize = 131072;
}

TEST(ThreadCommon, TheStarterHandsOnArgumentAndResult)
{
    int value = 5;
    pthread_t thread;
    void *result = nullptr;
    ASSERT_EQ(THREAD_CREATE(
                  &thread, nullptr, [](void *arg) { return arg; }, &value),
              0);
    pthread_join(thread, &result);
    EXPECT_EQ(result, &value);
    EXPECT_TRUE(pthread_equal(StarterLast, thread));
}

TEST(ThreadCommon, TheWatchdogSignalsEveryPeriodUntilItIsTakenBack)
{
    const auto outcome = support::run_in_child([] {
        static Waiter third;
        static Waiter every;
        sem_init(&second_over, 0, 0);
        sem_init(&second_begins, 0, 0);
        third.start();
        every.start();
        register_spurious_wakeup(&third.lock, &third.cond, 0); // never comes
        refuse_threads = true;
        register_spurious_wakeup(&third.lock, &third.cond, 1);
        refuse_threads = false;
        EXPECT_EQ(logged, "3register_spurious_wakeup: Can't create thread.\n");
        register_spurious_wakeup(&third.lock, &third.cond, 3); // the first second passes at once
        for (int second = 1; second <= 12; second++) {
            sem_wait(&second_over);
            EXPECT_TRUE(second % 3 == 0 && second < 10 ? third.wakes() : third.sleeps()) << second;
            EXPECT_TRUE(second > 1 && second <= 9 ? every.wakes() : every.sleeps()) << second;
            if (second == 1) {
                register_spurious_wakeup(&every.lock, &every.cond, 1);
            } else if (second == 9) {
                unregister_spurious_wakeup(&every.lock, &every.cond);
                unregister_spurious_wakeup(&every.lock, &every.cond); // none is left
                unregister_spurious_wakeup(&third.lock, &third.cond);
            }
            sem_post(&second_begins);
        }
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_TRUE(outcome.exited(0)) << outcome.status << outcome.out << outcome.err;
}
