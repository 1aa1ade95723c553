/* thread_sync.h - start threads one after another, each confirming that it has started.
 *
 * A daemon learns at once whether its threads came up: kova_thread_create starts a thread, waits
 * for its report, and goes on to the next only after a good one.
 *
 *     void *worker(void *arg)
 *     {
 *         thread_sync_t *sync = arg;
 *         struct host *host = sync->context;         // read first ...
 *         int number = sync->index;
 *         kova_thread_sync(sync, 0, NULL);           // ... then report, once
 *         ...                                        // sync is gone from here on
 *     }
 *     status = kova_thread_create(worker, "worker", "disk", &host, 4);
 *
 * Life:           the thread_sync_t lives during one kova_thread_create call; a thread must not
 *                 touch it after its report.
 * Thread safety:  any thread may call; calls do not disturb each other.
 */
#ifndef KOUTIL_THREAD_SYNC_H
#define KOUTIL_THREAD_SYNC_H

#include "koutil/types.h"

#include <pthread.h>

KO_BEGIN_DECLS

/* The hand-shake between the creator and the thread that it starts. */
typedef struct thread_sync {
    pthread_cond_t thread_wait;  /* signalled when a thread reports */
    pthread_mutex_t thread_lock; /* guards the report */
    void *context;               /* the caller's, for the threads */
    const char *identity;        /* the caller's, for the threads */
    int index;                   /* number of the thread being started, from 0 */
    int status;                  /* its report: 0 is a good start */
    int started;                 /* 1 when it has reported */
    char error[256];             /* its error text */
} thread_sync_t;

/* Start `count` detached threads (Thread_create_attr) that run `start_func` with a thread_sync_t,
 * one at a time, each after the report of the one before. kova_thread_init must have been called.
 * `identity` and `context` are handed on. Blocks until the last report; a thread that neither
 * reports nor ends the process blocks it for ever.
 *
 * Returns 0 when all have started, and for a `count` of 0 or less
 * Returns -1 when memory or a lock could not be had: nothing was started
 * Returns the error number of the platform when a thread could not be created
 * Returns the status of the first thread that reported one other than 0.
 *
 * In the last two cases "Failed to start %s thread: %s\n" goes to Error_Output with `thread_name`
 * and the thread's error text; the threads before it run on, those after it are not started. */
KO_API int kova_thread_create(void *(*start_func)(void *), const char *thread_name,
                              const char *identity, void *context, int count);

/* Report from a started thread: `syncp` is the thread's argument, `status` 0 for a good start,
 * `error` a text of which at most 255 characters are taken, or null. Exactly once per thread. */
KO_API void kova_thread_sync(void *syncp, int status, const char *error);

KO_END_DECLS

#endif
