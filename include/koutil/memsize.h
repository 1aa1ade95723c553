/* memsize.h - physical memory of the host.
 *
 * Thread safety:  any thread; the size is computed once, by the first call.
 */
#ifndef KOUTIL_MEMSIZE_H
#define KOUTIL_MEMSIZE_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Returns the bytes of physical memory, or 0 if the system does not say. */
KO_API uint64_t get_ram_size_in_bytes(void);

KO_END_DECLS

#endif
