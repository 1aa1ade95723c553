// thrpri.cpp - thread priorities relative to the process's own.
#include "koutil/thrpri.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <pthread.h>
#include <sched.h>
#include <syslog.h>

namespace
{

constexpr int levels = 5;
constexpr int offset_of_level[levels + 1] = {0, -2, -1, 0, 1, 2};

// The policy, -1 until it has been read. Threads that change their priority refresh it.
constinit std::atomic<int> policy{-1};

// Fixed after thrpri_init.
int thrpri_min;
int thrpri_max;

// Reads the calling thread's policy, which is also published, and its parameters.
int read_schedule(int &current, sched_param &param)
{
    const int error = pthread_getschedparam(pthread_self(), &current, &param);
    if (error == 0) {
        policy.store(current, std::memory_order_relaxed);
    }
    return error;
}

} // namespace

void thrpri_init(void)
{
    int current = -1;
    sched_param param;
    const int error = read_schedule(current, param);
    if (error != 0) {
        syslog(LOG_WARNING, "thrpri_init: THREAD_GETSCHEDPARAM Failed/%d\n", error);
        return;
    }
    thrpri_min = sched_get_priority_min(current);
    if (thrpri_min == -1) {
        if (errno != ENOSYS) {
            syslog(LOG_WARNING, "thrpri_init: sched_get_priority_min Failed/%d\n", errno);
        }
        return;
    }
    thrpri_max = sched_get_priority_max(current);
    if (thrpri_max == -1 && errno != ENOSYS) {
        syslog(LOG_WARNING, "thrpri_init: sched_get_priority_max Failed/%d\n", errno);
    }
}

void ThreadPriority(int pri)
{
    if (policy.load(std::memory_order_relaxed) < 0 || pri < 1 || pri > levels) {
        return;
    }
    int current = -1;
    sched_param param;
    int error = read_schedule(current, param);
    if (error != 0) {
        syslog(LOG_WARNING, "ThreadPriority: THREAD_GETSCHEDPARAM Failed/%d\n", error);
        return;
    }
    param.sched_priority =
        std::max(thrpri_min, std::min(param.sched_priority + offset_of_level[pri], thrpri_max));
    error = pthread_setschedparam(pthread_self(), current, &param);
    if (error != 0) {
        syslog(LOG_WARNING, "ThreadPriority: THREAD_SETSCHEDPARAM Failed/%d\n", error);
    }
}
