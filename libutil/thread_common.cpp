// thread_common.cpp - thread attributes, the starter and the spurious-wakeup watchdog.
#include "koutil/thread_common.h"

#include "internal/guards.h"
#include "koutil/msleep.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <syslog.h>

namespace
{

constexpr size_t large_stack_size = size_t{4} << 20;
constexpr int one_second = 1'000'000;

// One registration of the watchdog.
struct wakeup_list {
    wakeup_list *next;
    thread_mutex_t *lock;
    thread_cond_t *cond;
    int secs;
    int secs_left;
};

constinit thread_mutex_t wakeup_list_lock = THREAD_MUTEX_INITIALIZER;
wakeup_list *wakeup_list_head; // guarded by wakeup_list_lock
int wakeup_list_initialized;   // guarded by wakeup_list_lock: the thread runs

// Lets one second pass for every registration and signals those whose period is over.
void pass_second()
{
    const koutil::LockGuard guard(wakeup_list_lock);
    for (wakeup_list *entry = wakeup_list_head; entry != nullptr; entry = entry->next) {
        if (--entry->secs_left == 0) {
            const koutil::LockGuard waiter(*entry->lock);
            pthread_cond_signal(&entry->cond->cond);
            entry->secs_left = entry->secs;
        }
    }
}

void *wakeup_thread(void *)
{
    for (;;) {
        pass_second();
        (void)Msleep(one_second); // cannot fail: the time is in range
    }
}

// Starts the watchdog unless it runs. Called with wakeup_list_lock held.
bool ensure_watchdog()
{
    if (wakeup_list_initialized == 0) {
        if (THREAD_CREATE(nullptr, nullptr, wakeup_thread, nullptr) != 0) {
            return false;
        }
        wakeup_list_initialized = 1;
    }
    return true;
}

} // namespace

size_t ThreadStackSize = 131072;
pthread_attr_t Thread_create_attr;
pthread_attr_t Thread_create_attr_joinable;
pthread_attr_t Thread_create_attr_4m;
pthread_t StarterLast;
pthread_mutex_t errchkmutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
int Thread_checking_enabled = 0;

void kova_thread_init(void)
{
    pthread_attr_init(&Thread_create_attr);
    pthread_attr_init(&Thread_create_attr_joinable);
    size_t default_size = 0;
    pthread_attr_getstacksize(&Thread_create_attr, &default_size);
    const size_t size = default_size < ThreadStackSize ? ThreadStackSize : 2 * ThreadStackSize;
    pthread_attr_setstacksize(&Thread_create_attr, size);
    pthread_attr_setstacksize(&Thread_create_attr_joinable, size);
    pthread_attr_setdetachstate(&Thread_create_attr, PTHREAD_CREATE_DETACHED);

    pthread_attr_init(&Thread_create_attr_4m);
    pthread_attr_setstacksize(&Thread_create_attr_4m,
                              std::max(2 * ThreadStackSize, large_stack_size));
    pthread_attr_setdetachstate(&Thread_create_attr_4m, PTHREAD_CREATE_DETACHED);
}

int THREAD_CREATE(pthread_t *thread, const pthread_attr_t *attr, void *(*start_routine)(void *),
                  void *arg)
{
    auto start = koutil::callocate<ts_t>();
    if (start == nullptr) {
        return ENOMEM;
    }
    start->start_routine = start_routine;
    start->arg = arg;
    pthread_t ignored;
    const int error =
        pthread_create(thread != nullptr ? thread : &ignored, attr, __starter, start.get());
    if (error == 0) {
        (void)start.release(); // the starter frees it
    }
    return error;
}

// Owns nothing while the routine runs: a routine may leave by pthread_exit.
void *__starter(void *arg)
{
    const pthread_t self = pthread_self();
    const ts_t start = *static_cast<ts_t *>(arg);
    free(arg);
    void *result = start.start_routine(start.arg);
    std::atomic_ref<pthread_t>(StarterLast).store(self, std::memory_order_relaxed);
    return result;
}

void register_spurious_wakeup(void *lock, void *cond, int secs)
{
    if (secs <= 0) {
        return;
    }
    const koutil::LockGuard guard(wakeup_list_lock);
    if (!ensure_watchdog()) {
        syslog(LOG_ERR, "register_spurious_wakeup: Can't create thread.\n");
        return;
    }
    auto entry = koutil::callocate<wakeup_list>();
    if (entry == nullptr) {
        syslog(LOG_ERR, "register_spurious_wakeup: Can't allocate memory.\n");
        return;
    }
    *entry = {wakeup_list_head, static_cast<thread_mutex_t *>(lock),
              static_cast<thread_cond_t *>(cond), secs, secs};
    wakeup_list_head = entry.release();
}

void unregister_spurious_wakeup(void *lock, void *cond)
{
    const koutil::LockGuard guard(wakeup_list_lock);
    for (wakeup_list **link = &wakeup_list_head; *link != nullptr; link = &(*link)->next) {
        wakeup_list *entry = *link;
        if (entry->lock == lock && entry->cond == cond) {
            *link = entry->next;
            free(entry);
            return;
        }
    }
}
