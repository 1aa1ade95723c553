/* util_track.h - the progress file of a long-running utility.
 *
 * Another program can read the file while the utility runs. Each report rewrites it from the start:
 *
 *     Pid: 4711
 *     Phase: Copying              if a phase is set
 *     Progress: 123.45            if the figure is 0 or above
 *     Status: Success             in the last report
 *
 * Heartbeats rewrite it too, at most once in a set number of seconds, so that a reader can tell a
 * live utility from a dead one by the time of the file's last change.
 *
 *     util_track_ctx_t *track = UtilTrackInit("/tmp/copy.progress");
 *     UtilTrackPhase(track, "Copying");
 *     UtilTrackProgress(track, 50);
 *     UtilTrackSuccess(track);
 *
 * A null context is allowed everywhere and does nothing: a utility whose progress file cannot be
 * created goes on without one. A report that cannot be written is skipped without a word.
 *
 * Life:           UtilTrackInit -> reports -> UtilTrackSuccess or UtilTrackFailure, which free the
 *                 context; the file stays behind.
 * Ownership:      texts are not copied; each must live until another takes its place or the context
 *                 ends.
 * Thread safety:  a context belongs to one thread.
 */
#ifndef KOUTIL_UTIL_TRACK_H
#define KOUTIL_UTIL_TRACK_H

#include "koutil/types.h"

#include <stdio.h>
#include <sys/types.h>
#include <time.h>

KO_BEGIN_DECLS

/* The state of a utility's reports; use the functions below. */
typedef struct util_track_ctx {
    FILE *fp;              /* the progress file, open for reading and writing */
    pid_t pid;             /* of the utility */
    const char *phase;     /* or null */
    const char *status;    /* or null */
    int progress;          /* negative: none */
    int progress_decimals; /* how many of the figure's last digits are decimals */
    int hb_limit;          /* least seconds between heartbeat reports; 0: each heartbeat reports */
    time_t hb_lastpulse;   /* wall-clock seconds of the last heartbeat report */
} util_track_ctx_t;

/* Create or empty the file; nothing is written yet.
 *
 * Returns the context, or null when memory runs out or the file cannot be created. */
KO_API util_track_ctx_t *UtilTrackInit(const char *filename);

/* Set the phase, or none with null, and report. */
KO_API void UtilTrackPhase(util_track_ctx_t *ctx, const char *phase);

/* Set the figure, or none with a negative one, and report. */
KO_API void UtilTrackProgress(util_track_ctx_t *ctx, int amount);

/* Set how many of the figure's last digits are decimals: with 2, the figure 12345 is shown as
 * 123.45. More than 100 are shown as 100. Does not report. */
KO_API void UtilTrackProgressDecimals(util_track_ctx_t *ctx, int decimals);

/* Set the least number of seconds between heartbeat reports. Does not report. */
KO_API void UtilTrackHeartBeatLimit(util_track_ctx_t *ctx, int limit);

/* Report, unless the last heartbeat report is too recent. A clock that went back reports. */
KO_API void UtilTrackHeartBeatPulse(util_track_ctx_t *ctx);

/* Report the phase "Complete" and the status "Success", close the file and free the context. */
KO_API void UtilTrackSuccess(util_track_ctx_t *ctx);

/* Report the status `msg`, or none with null, close the file and free the context. */
KO_API void UtilTrackFailure(util_track_ctx_t *ctx, const char *msg);

KO_END_DECLS

#endif
