/* thrpri.h - thread priorities relative to the process's own.
 *
 * Five levels shift the calling thread's scheduling priority by -2, -1, 0, +1 and +2 within the
 * range of its policy. Under a policy whose range is one value, the ordinary time-sharing one,
 * nothing changes. Failures go to the system log at LOG_WARNING.
 *
 * Life:           thrpri_init once, by LibraryInit; before it ThreadPriority does nothing.
 * Thread safety:  any thread may call ThreadPriority, for itself.
 */
#ifndef KOUTIL_THRPRI_H
#define KOUTIL_THRPRI_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Take the baseline: the calling thread's policy and the policy's range of priorities. */
KO_API void thrpri_init(void);

/* Shift the calling thread's priority by level `pri`, 1 to 5; other values do nothing. The shift is
 * relative to the present priority, so calls accumulate until the end of the range. */
KO_API void ThreadPriority(int pri);

KO_END_DECLS

#endif
