/* mono_time.h - a tick clock that follows the wall clock but never jumps with it.
 *
 * A handler thread reads the wall clock every 100 ms and keeps a tick count; a stamp is one load of
 * that count. When the wall clock goes back, or leaps forward by more than three seconds in one
 * round, the count rises by one tick and the handler reports the jump; smaller steps forward are
 * followed. For finer resolution, or without the thread, use monotime (msleep.h).
 *
 * Life:           mono_init once, then a detached thread that runs mono_handler, for as long as the
 *                 process lives. Without the thread all stamps are equal and nothing ever elapses.
 * Units:          a tick is 100 ms; elapsed times are microseconds, with the tick's resolution.
 *                 The count wraps after 2^32 ticks (13 years).
 * Thread safety:  any thread may take and compare stamps while the handler runs. mono_init and
 *                 mono_handler belong to one thread at a time.
 *
 *     static mono_handler_param_t param = {log_error, NULL};
 *     mono_init();
 *     pthread_create(&id, &Thread_create_attr, clock_thread, &param); // runs mono_handler(&param)
 *     monotime_t begun = GetMonoStamp();
 *     ...
 *     if (GetMonoElapsed(begun) >= 5000000) ...
 */
#ifndef KOUTIL_MONO_TIME_H
#define KOUTIL_MONO_TIME_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* A stamp of the tick clock. */
typedef struct mono_stamp {
    uint32_t valid;          /* not 0 for a real stamp */
    volatile uint32_t stamp; /* ticks at the time of the stamp */
} monotime_t;

/* Receives the handler's messages: a printf format and its arguments. */
typedef void (*mono_log_fn_t)(char *fmt, ...);

/* The handler's argument; it must live as long as the handler runs. */
typedef struct mono_handler_param {
    mono_log_fn_t error_log; /* receives "clock jumped backward %.1fs" and "clock jumped forward
                                %.1fs", each with a double; null drops them */
    mono_log_fn_t debug_log; /* carried for hosts, never called */
} mono_handler_param_t;

/* Start the clock at tick 0 from the present wall clock. The offset that past jumps have left is
 * kept, so this is for the start of a process, not for a restart. */
KO_API void mono_init(void);

/* Keep the clock: the body of the clock thread. `arg` is a mono_handler_param_t. Never returns. */
KO_API void mono_handler(void *arg) KO_NORETURN;

/* Take a stamp: one load, no system call.
 *
 * Returns the stamp, which is valid. */
KO_API monotime_t GetMonoStamp(void);

/* The stamp that stands for no time: not valid, ticks 0. */
KO_API monotime_t InvalidMono(void);

/* Returns 1 for a valid stamp, 0 otherwise. */
KO_API int MonoIsValid(monotime_t m);

/* Order two stamps by their ticks, as unsigned numbers; validity and wrap-around are not looked at.
 *
 * Returns 0 when they are equal, -1 when `a` has fewer ticks, 1 otherwise. */
KO_API int MonoCmp(monotime_t a, monotime_t b);

/* Returns the microseconds since `m` was taken, a multiple of 100,000; for an invalid stamp
 * 429,496,729,600,000, which is longer than any real interval. */
KO_API uint64_t GetMonoElapsed(monotime_t m);

KO_END_DECLS

#endif
