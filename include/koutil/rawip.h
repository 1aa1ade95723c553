/* rawip.h - the numeric text of an address.
 *
 * Thread safety:  no state; any thread may call it. The platform's resolver is not asked.
 */
#ifndef KOUTIL_RAWIP_H
#define KOUTIL_RAWIP_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Write the numeric text of an address, "10.0.0.1" or "fe80::1", into `name`, a buffer of 256
 * bytes.
 *
 * Returns `name`. */
KO_API char *RawIp(const in46addr_t *a, char *name);

KO_END_DECLS

#endif
