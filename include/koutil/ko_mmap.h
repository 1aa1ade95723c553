/* ko_mmap.h - mapping of a file region by path, for tools.
 *
 * Failures are described in the caller's text buffer rather than by a status.
 *
 *     char why[KO_MMAP_ERR_SIZE];
 *     void *map = my_mmap("/var/lib/table", 0, 65536, why);
 *     if (map == NULL) fputs(why, stderr);
 *
 * Ownership:      a mapping goes back through my_munmap with the size that it was made with.
 * Thread safety:  no state; any thread.
 */
#ifndef KOUTIL_KO_MMAP_H
#define KOUTIL_KO_MMAP_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* What `err_str` must have room for: every text is cut to it. */
#define KO_MMAP_ERR_SIZE 256

/* Map `mapsize` bytes of an existing file from offset `mapstart`, a multiple of the page size,
 * shared, readable and writable.
 *
 * Returns the address, `err_str` then being empty. On failure returns null and `err_str` says what
 * failed. */
KO_API void *my_mmap(const char *filename, uint64_t mapstart, uint64_t mapsize, char *err_str);

/* Take a mapping down. `last_time` must not be negative; it has no other effect.
 *
 * Returns 0, `err_str` then being empty; 22 for a negative `last_time`, which is also reported
 * through PanicCheckedBuild and panics in checked-build mode; or -1 when the platform refuses.
 * On failure `err_str` says what failed. */
KO_API int my_munmap(void *mapaddr, uint64_t mapsize, int last_time, char *err_str);

KO_END_DECLS

#endif
