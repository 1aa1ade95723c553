/* rss.h - memory use of the calling process.
 *
 * Thread safety:  no state; any thread.
 * Units:          mebibytes, rounded to the nearest.
 */
#ifndef KOUTIL_RSS_H
#define KOUTIL_RSS_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Store the resident size in `*rss` and the size of the whole address space in `*virt`; either
 * pointer may be null. Both are 0 when the system does not say. */
KO_API void get_rss_virt(uint64_t *rss, uint64_t *virt);

KO_END_DECLS

#endif
