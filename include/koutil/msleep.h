/* msleep.h - platform clocks, sleeps that survive signals, and deadlines for timed waits.
 *
 * Measure intervals with monotime, take time stamps for people with MicroTime, and use the tick
 * clock of mono_time.h where a million stamps a second must cost nothing.
 *
 *     Msleep        sleeps by the wall clock, in microseconds
 *     mono_msleep   sleeps by the monotonic clock, in milliseconds
 *     set_timespec  and its kin compute the absolute wall-clock deadline of a timed condition wait
 *
 * A sleep that a signal interrupts goes on for the rest of its time, so a handler may run while one
 * is under way.
 *
 * Units:          each function names its own; MicroTime counts from the epoch, monotime from an
 *                 arbitrary point (usually the boot of the host).
 * Thread safety:  no state; any thread may call everything.
 */
#ifndef KOUTIL_MSLEEP_H
#define KOUTIL_MSLEEP_H

#include "koutil/types.h"

#include <time.h>

KO_BEGIN_DECLS

/* Read the platform's monotonic clock.
 *
 * Returns milliseconds, or 0 when the clock cannot be read. */
KO_API uint64_t monotime(void);

/* Order two readings of monotime.
 *
 * Returns 0 when they are equal, 1 when `time1` is greater, -1 otherwise. */
KO_API int monotime_cmp(uint64_t time1, uint64_t time2);

/* Sleep for `msec` milliseconds of the monotonic clock; 0 returns at once.
 *
 * Returns 0, or the errno of the wait: EINVAL for a negative `msec`. */
KO_API int mono_msleep(int msec);

/* Read the wall clock.
 *
 * Returns microseconds since the epoch. */
KO_API uint64_t MicroTime(void);

/* Sleep for `usec` microseconds of the wall clock; 0 returns at once. When a signal interrupts the
 * sleep and the wall clock has meanwhile gone back, the sleep ends.
 *
 * Returns 0, or the errno of the wait: EINVAL for a negative `usec`. */
KO_API int Msleep(int usec);

/* Set `*tsp` to the wall clock plus `nan_incr` nanoseconds. */
KO_API void set_timespec(struct timespec *tsp, uint64_t nan_incr);

/* Set `*tsp` to the deadline of attempt number `retries` of a wait that is tried again and again:
 * the wall clock plus `nan_incr` nanoseconds up to attempt 1, plus `retries` times `nan_incr`
 * up to attempt 6, and plus exactly one second from attempt 7 on. */
KO_API void set_timespec_cap(struct timespec *tsp, uint64_t nan_incr, int retries);

/* Move `*tsp` forward by `nan_incr` nanoseconds, or by `retries` times as much when `retries` is
 * above 1. A product that passes 64 bits counts as the largest one. */
KO_API void set_timespec_core(struct timespec *tsp, uint64_t nan_incr, int retries);

KO_END_DECLS

#endif
