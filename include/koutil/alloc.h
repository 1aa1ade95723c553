/* alloc.h - aligned memory with a record of failures.
 *
 * MyMemalign counts the allocations that fail and reports them as a service event, at most once in
 * 300 seconds, so that a daemon short of memory tells its operator once and not a million times.
 * Modules and hosts that only need plain memory use malloc.
 *
 * Life:           MyMemalign -> MyFree; AllocAndPinMemory -> free. LibraryInit points the hooks
 *                 AllocMemory and FreeMemory at MyMemalign and MyFree; until then they are null.
 * Thread safety:  any thread may call every function. A report is raised through RasEvent with no
 *                 lock held.
 * Units:          sizes and alignments are bytes.
 */
#ifndef KOUTIL_ALLOC_H
#define KOUTIL_ALLOC_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* A signed integer wide enough for a pointer. */
typedef int64_t sys_ptr_t;

/* The smallest alignment that MyMemalign accepts. */
#define MY_MINALIGN 8

/* Allocation and release hooks of host programs; `file` and `lineno` name the caller's place. */
typedef void *(*malloc_fn_t)(size_t alignsize, size_t allocsize, char *file, int lineno);
typedef void (*free_fn_t)(void *ptr, char *file, int lineno);

/* Null until LibraryInit sets them to MyMemalign and MyFree. */
KO_API extern malloc_fn_t AllocMemory;
KO_API extern free_fn_t FreeMemory;

/* Allocate `allocsize` bytes that start at a multiple of `alignsize`, a power of two of at least
 * MY_MINALIGN; a smaller alignment is a failed assertion. The word just below the block holds the
 * address that the platform gave. `file` is kept, not copied, until the next failure.
 *
 * Returns the block, which is not cleared, or null when memory runs out. A failure to allocate more
 * than 0 bytes is counted. While failures are unreported, the first call more than 300 seconds
 * after the last report raises the event "SL_EVT_SYS_RES_FAIL", which names the latest failure and
 * the number of all. */
KO_API void *MyMemalign(size_t alignsize, size_t allocsize, char *file, int lineno);

/* Release a block of MyMemalign. `ptr` must not be null; `file` and `lineno` are not used. */
KO_API void MyFree(void *ptr, char *file, int lineno);

/* Allocate `len` zeroed bytes aligned to the system's page size. Nothing is locked into memory.
 *
 * Returns the bytes, to be released with free(3), or null when memory runs out. */
KO_API void *AllocAndPinMemory(size_t len);

KO_END_DECLS

#endif
