/* thread_common.h - thread attributes, the thread starter and the spurious-wakeup watchdog.
 *
 * The library's threads run on small stacks (256 KiB where the platform's default is larger than
 * ThreadStackSize); hosts may use the same attributes for their own. To start threads that confirm
 * their start, use kova_thread_create (thread_sync.h).
 *
 * The watchdog is one thread that signals registered condition variables once in a while, so that a
 * waiter that may have missed a wake-up looks again. A waiter must check its own condition after
 * every wake-up: these signals carry no meaning.
 *
 * Life:           kova_thread_init once, early, before any work queue or kova_thread_create. The
 *                 watchdog starts with the first registration and runs to the end of the process.
 * Thread safety:  any thread may call everything except kova_thread_init.
 * Lock order:     the watchdog's list lock, then a registered mutex. Never register or unregister
 *                 while holding a mutex that is registered.
 */
#ifndef KOUTIL_THREAD_COMMON_H
#define KOUTIL_THREAD_COMMON_H

#include "koutil/mutex.h"
#include "koutil/types.h"

#include <pthread.h>

KO_BEGIN_DECLS

/* What the starter runs. */
typedef struct ts {
    void *(*start_routine)(void *); /* what to run */
    void *arg;                      /* its argument */
} ts_t;

/* Base stack size of the library's threads in bytes; a host may change it before
 * kova_thread_init. */
KO_API extern size_t ThreadStackSize;

/* Attributes set up by kova_thread_init: detached threads, joinable ones with the same stack size,
 * and detached ones with a stack of at least 4 MiB. */
KO_API extern pthread_attr_t Thread_create_attr;
KO_API extern pthread_attr_t Thread_create_attr_joinable;
KO_API extern pthread_attr_t Thread_create_attr_4m;

/* The thread whose start routine, run through the starter, returned last. A debugging aid. */
KO_API extern pthread_t StarterLast;

/* For host programs; the library uses neither. */
KO_API extern pthread_mutex_t errchkmutex;
KO_API extern int Thread_checking_enabled;

/* Set up the three attribute objects. A platform default stack size below ThreadStackSize makes
 * ThreadStackSize the size of the first two, any other makes it twice ThreadStackSize; the third
 * has twice ThreadStackSize or 4 MiB, whichever is larger. */
KO_API void kova_thread_init(void);

/* Start a thread that runs `start_routine(arg)` through the starter. `thread` receives the id and
 * may be null; `attr` null stands for the platform's defaults.
 *
 * Returns 0, ENOMEM, or the platform's error number. */
KO_API int THREAD_CREATE(pthread_t *thread, const pthread_attr_t *attr,
                         void *(*start_routine)(void *), void *arg);

/* The starter, the body of such a thread: frees the ts_t that `arg` points to, runs its routine and
 * notes the thread in StarterLast when the routine returns. */
KO_API void *__starter(void *arg);

/* Have the watchdog lock the thread_mutex_t `lock`, signal the thread_cond_t `cond` and unlock,
 * every `secs` seconds. Both must stay valid until they are unregistered. A period of 0 or less
 * would never come and is ignored. Failures go to the system log, and nothing is registered. */
KO_API void register_spurious_wakeup(void *lock, void *cond, int secs);

/* Take back the latest registration of `lock` with `cond`; none is no error. When this returns, the
 * watchdog does not touch them any more. */
KO_API void unregister_spurious_wakeup(void *lock, void *cond);

KO_END_DECLS

#endif
