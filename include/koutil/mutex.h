/* mutex.h - the library's mutex and condition variable.
 *
 * One-field wrappers of the platform's objects, so that structures of the library can name them
 * without naming the platform. Lock, wait and signal on the wrapped field.
 *
 * Life:           initialise statically (THREAD_MUTEX_INITIALIZER) or with vo_thread_mutex_init.
 * Thread safety:  as the platform's objects; initialise before other threads see the object.
 */
#ifndef KOUTIL_MUTEX_H
#define KOUTIL_MUTEX_H

#include "koutil/types.h"

#include <pthread.h>

KO_BEGIN_DECLS

/* A mutex. */
typedef struct _mutex {
    pthread_mutex_t mutex; /* the platform's */
} thread_mutex_t;

/* A condition variable. */
typedef struct _cond {
    pthread_cond_t cond; /* the platform's */
} thread_cond_t;

/* Initialiser for a mutex with static storage. */
#define THREAD_MUTEX_INITIALIZER                                                                   \
    {                                                                                              \
        PTHREAD_MUTEX_INITIALIZER                                                                  \
    }

/* Initialiser for a condition variable with static storage. */
#define THREAD_COND_INITIALIZER                                                                    \
    {                                                                                              \
        PTHREAD_COND_INITIALIZER                                                                   \
    }

/* Initialise a mutex with the given attributes, or the default ones when `attr` is null.
 *
 * Returns 0, whatever the platform says. */
KO_API int vo_thread_mutex_init(thread_mutex_t *mutex, const pthread_mutexattr_t *attr);

/* Initialise a condition variable with the given attributes, or the default ones when `attr` is
 * null.
 *
 * Returns 0, or the platform's error number. */
KO_API int vo_thread_cond_init(thread_cond_t *cond, const pthread_condattr_t *attr);

KO_END_DECLS

#endif
