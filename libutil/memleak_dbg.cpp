// memleak_dbg.cpp - the calls of a leak tracker, with no tracker behind them.
#include "koutil/memleak_dbg.h"

#include "internal/assert.h"

#include <atomic>
#include <cstring>

namespace
{

std::atomic<bool> size_checked{false};

void empty_message(char *errmsg, int errmsg_sz)
{
    if (errmsg != nullptr && errmsg_sz > 0) {
        errmsg[0] = '\0';
    }
}

} // namespace

char g_zelmemdbg_progname[512];
zelmemdbg_snap_t g_zelmemdbg_snap_all;
int g_zelmemdbg_alloc_nbr = 0;

__attribute__((weak)) int _zelmemdbg_size_check(void)
{
    return -1;
}

void zelmemdbg_chkpnt(zelmemdbg_snap_t *) {}

int zelmemdbg_mem_check(char *errmsg, int errmsg_sz)
{
    empty_message(errmsg, errmsg_sz);
    return 0;
}

int zelmemdbg_diff_rpt(zelmemdbg_snap_t *, zelmemdbg_snap_t *, char *errmsg, int errmsg_sz)
{
    empty_message(errmsg, errmsg_sz);
    return zelmemdbg_mem_check(errmsg, errmsg_sz) == 0 ? 0 : -1;
}

void zelmemdbg_prog_init(const char *progname)
{
    const size_t length = strnlen(progname, sizeof g_zelmemdbg_progname);
    memcpy(g_zelmemdbg_progname, progname, length);
    memset(g_zelmemdbg_progname + length, 0, sizeof g_zelmemdbg_progname - length);
    if (!size_checked.exchange(true)) {
        const int sz_check = _zelmemdbg_size_check();
        KO_ASSERT(sz_check == 0);
    }
    zelmemdbg_chkpnt(&g_zelmemdbg_snap_all);
}

int zelmemdbg_prog_exit(char *errmsg, int errmsg_sz)
{
    zelmemdbg_snap_t now = {};
    zelmemdbg_chkpnt(&now);
    return zelmemdbg_diff_rpt(&g_zelmemdbg_snap_all, &now, errmsg, errmsg_sz);
}
