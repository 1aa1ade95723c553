// mutex.cpp - initialisers of the mutex and condition wrappers.
#include "koutil/mutex.h"

int vo_thread_mutex_init(thread_mutex_t *mutex, const pthread_mutexattr_t *attr)
{
    (void)pthread_mutex_init(&mutex->mutex, attr); // promised to be 0 for every caller
    return 0;
}

int vo_thread_cond_init(thread_cond_t *cond, const pthread_condattr_t *attr)
{
    return pthread_cond_init(&cond->cond, attr);
}
