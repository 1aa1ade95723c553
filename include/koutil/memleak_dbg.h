/* memleak_dbg.h - the calls of a leak tracker, with no tracker behind them.
 *
 * Host programs call these functions unconditionally; here they report that there is nothing to
 * report. A tracker takes their place by defining functions of the same names. The first call of
 * zelmemdbg_prog_init needs a tracker, or a host, that supplies a _zelmemdbg_size_check of its own
 * which returns 0; with this library's own it ends in a panic.
 *
 * A message buffer `errmsg` of `errmsg_sz` bytes may be null; with a size of 0 or less nothing is
 * written.
 *
 * Thread safety:  zelmemdbg_prog_init belongs to the start of a program; the rest has no state.
 */
#ifndef KOUTIL_MEMLEAK_DBG_H
#define KOUTIL_MEMLEAK_DBG_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* A snapshot of the memory in use. */
typedef struct zelmemdbg_snap {
    char md_mem_state[1]; /* a tracker's */
} zelmemdbg_snap_t;

/* The name given to zelmemdbg_prog_init: not terminated when it fills the array. */
KO_API extern char g_zelmemdbg_progname[512];

/* The snapshot that zelmemdbg_prog_init takes. */
KO_API extern zelmemdbg_snap_t g_zelmemdbg_snap_all;

/* For trackers; the library neither reads nor writes it. */
KO_API extern int g_zelmemdbg_alloc_nbr;

/* Keep `progname`, cut at 512 bytes and padded with zeros, and take the first snapshot. The first
 * call panics with the assertion "sz_check == 0" unless _zelmemdbg_size_check returns 0. */
KO_API void zelmemdbg_prog_init(const char *progname);

/* Compare the memory now in use with the first snapshot. Empties `errmsg`.
 *
 * Returns 0: no leak found. */
KO_API int zelmemdbg_prog_exit(char *errmsg, int errmsg_sz);

/* Take a snapshot. Does nothing. */
KO_API void zelmemdbg_chkpnt(zelmemdbg_snap_t *snap);

/* Check the memory in use. Empties `errmsg`.
 *
 * Returns 0: nothing found. */
KO_API int zelmemdbg_mem_check(char *errmsg, int errmsg_sz);

/* Report what was allocated between two snapshots. Empties `errmsg`.
 *
 * Returns 0, or -1 when zelmemdbg_mem_check found something. */
KO_API int zelmemdbg_diff_rpt(zelmemdbg_snap_t *snap1, zelmemdbg_snap_t *snap2, char *errmsg,
                              int errmsg_sz);

/* Compare the tracker's idea of its structures with the caller's. A weak symbol: a program's own
 * definition takes its place, also in a static link.
 *
 * Returns -1: there is no tracker. */
KO_API int _zelmemdbg_size_check(void);

KO_END_DECLS

#endif
