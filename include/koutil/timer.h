/* timer.h - a stopwatch for tools, on the wall clock.
 *
 * Either the process-wide stopwatch (start_timer, end_timer, get_timer, get_elapsed_time), or one
 * whose start the caller keeps (get_start_timer, get_end_timer). To measure intervals that a step
 * of the wall clock must not falsify, use monotime (msleep.h).
 *
 * Units:          seconds, with microseconds as the fraction; negative when the clock went back.
 * Thread safety:  the process-wide stopwatch is unguarded: one thread. A caller's own stopwatch
 *                 belongs to whoever has it.
 */
#ifndef KOUTIL_TIMER_H
#define KOUTIL_TIMER_H

#include "koutil/types.h"

#include <sys/time.h>

KO_BEGIN_DECLS

/* Note the start of the process-wide stopwatch. */
KO_API void start_timer(void);

/* Note its end. */
KO_API void end_timer(void);

/* Store the time between the noted start and the noted end in `*time`. */
KO_API void get_timer(double *time);

/* Store the time since the noted start in `*time`; the noted end stays. */
KO_API void get_elapsed_time(double *time);

/* Note now in `*startp`. */
KO_API void get_start_timer(struct timeval *startp);

/* Store the time since `*startp` in `*time`. */
KO_API void get_end_timer(struct timeval *startp, double *time);

KO_END_DECLS

#endif
