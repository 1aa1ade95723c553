// thread_sync.cpp - threads started one by one, each confirming.
#include "koutil/thread_sync.h"

#include "internal/guards.h"
#include "koutil/logger.h"
#include "koutil/thread_common.h"

#include <cstdlib>
#include <cstring>

namespace
{

thread_sync_t *make_sync(const char *identity, void *context)
{
    auto sync = koutil::callocate<thread_sync_t>();
    if (sync == nullptr || pthread_cond_init(&sync->thread_wait, nullptr) != 0 ||
        pthread_mutex_init(&sync->thread_lock, nullptr) != 0) {
        return nullptr;
    }
    sync->context = context;
    sync->identity = identity;
    return sync.release();
}

// Starts one thread and waits for its report.
int start_one(thread_sync_t &sync, void *(*start_func)(void *), int index)
{
    {
        const koutil::LockGuard guard(sync.thread_lock);
        sync.started = 0;
        sync.status = 0;
        sync.index = index;
        sync.error[0] = '\0';
    }
    pthread_t thread;
    const int error = pthread_create(&thread, &Thread_create_attr, start_func, &sync);
    if (error != 0) {
        return error;
    }
    const koutil::LockGuard guard(sync.thread_lock);
    while (sync.started == 0) {
        pthread_cond_wait(&sync.thread_wait, &sync.thread_lock);
    }
    return sync.status;
}

} // namespace

int kova_thread_create(void *(*start_func)(void *), const char *thread_name, const char *identity,
                       void *context, int count)
{
    thread_sync_t *sync = make_sync(identity, context);
    if (sync == nullptr) {
        return -1;
    }
    int status = 0;
    for (int index = 0; index < count && status == 0; index++) {
        status = start_one(*sync, start_func, index);
    }
    if (status != 0) {
        Error_Output("Failed to start %s thread: %s\n",
                     thread_name != nullptr ? thread_name : "(null)", sync->error);
    }
    free(sync); // by hand: no owner stands on a frame that calls a host's hook
    return status;
}

void kova_thread_sync(void *syncp, int status, const char *error)
{
    auto *sync = static_cast<thread_sync_t *>(syncp);
    // Signal before the unlock: the creator frees the block as soon as it holds the lock.
    const koutil::LockGuard guard(sync->thread_lock);
    sync->status = status;
    sync->started = 1;
    if (error != nullptr) {
        const size_t length = strnlen(error, sizeof sync->error - 1);
        memcpy(sync->error, error, length);
        sync->error[length] = '\0';
    }
    pthread_cond_signal(&sync->thread_wait);
}
