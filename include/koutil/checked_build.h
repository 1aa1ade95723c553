/* checked_build.h - soft consistency errors that panic only where somebody wants them to.
 *
 * A soft error is one that the program survives. In checked-build mode, which test systems switch
 * on, PanicCheckedBuild turns it into a panic with a core dump; elsewhere it is logged and the
 * caller goes on. Errors that the program cannot survive go to DoPanic.
 *
 * The mode is decided by the first of these that applies:
 *
 *     KOVA_CHECKED_BUILD is set and begins with '0'                          off
 *     KOVA_CHECKED_BUILD is set to anything else, also to nothing            on
 *     the host is an appliance (IsZelkorAppliance)                           off
 *     /usr/burn/test/checked_build/ENABLED is a regular file or leads to one on
 *     otherwise                                                              off
 *
 * Thread safety:  any thread may call every function; no lock is taken.
 */
#ifndef KOUTIL_CHECKED_BUILD_H
#define KOUTIL_CHECKED_BUILD_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Returns 1 if the environment variable APPLIANCE_TYPE is exactly "mirelle" or "vantor", else 0. */
KO_API int IsZelkorAppliance(void);

/* Decide the mode afresh. The very first call in the process, and no other, also writes the
 * decision to WriteLog, if that is set at that moment.
 *
 * Returns 1 in checked-build mode, else 0. */
KO_API int IsKovaCheckedBuild(void);

/* Report a soft consistency error at `filename` and `linenum`; the message is cut at 1023
 * characters. In checked-build mode this panics and does not return. Otherwise the line
 * "ERROR (FILE:LINE) message", cut at 1023 characters, goes to PanicCheckedWriteLog. */
KO_API void PanicCheckedBuild(const char *filename, int linenum, const char *fmt, ...)
    KO_PRINTF(3, 4);

/* Write `str` to the WriteLog hook as an error (log type 3), or to standard error when there is no
 * hook, with a newline added unless it ends in one. */
KO_API void PanicCheckedWriteLog(const char *str);

KO_END_DECLS

#endif
