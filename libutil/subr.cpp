// subr.cpp - texts of codes and sizes, tests of partition-group flags, the directory opener.
#include "koutil/subr.h"

#include "koutil/snprintf.h"

#include <bit>
#include <cerrno>
#include <fcntl.h>
#include <iterator>

namespace
{

// Room that a caller of SizeStr gives; the longest text is "1024.00 KB".
constexpr size_t size_text_size = 11;

constexpr const char *state_texts[] = {"STOPPED", "LAUNCHED", "REGISTERED",
                                       "DYING",   "BLOCKED",  "RELAUNCH"};

constexpr const char *substate_texts[] = {
    "(no substate)",
    "(no automatic relaunch)",
    "(explicit 'stop' command)",
    "(generated too many core files)",
    "(manual intervention required)",
    "(another service or utility is running)",
    "(configuration file problem)",
    "(required disk(s) missing)",
    "(waiting for MDC to become HA primary)",
    "(misconfigured HA timer-interval override)",
};

static_assert(std::size(state_texts) == FSM_RELAUNCH + 1);
static_assert(std::size(substate_texts) == FSM_BLOCKED_BADTIMER + 1);

bool has(const partgroup_t *pgroup, uint32_t bits)
{
    return (pgroup->flags & bits) != 0;
}

} // namespace

key_txt_t ivkey[11] = {
    {0x203, "very old inode version (0x203)"},
    {0x204, "pre-4.0 inode version (0x204)"},
    {0x205, "Praxa 2.2 named streams inode version (0x205)"},
    {0x206, "4.0 inode version with big inodes (0x206)"},
    {0x207, "4.0 big inodes + NamedStreams (0x207)"},
    {0x208, "5.0 small inode pre-31 bit directory hash (0x208)"},
    {0x209, "5.0 small inode (0x209)"},
    {0x20A, "5.0 small inode + NamedStreams (0x20a)"},
    {0x20B, "5.0 big inode (0x20b)"},
    {0x20C, "5.0 big inode + NamedStreams (0x20c)"},
    {KEY_TXT_END, "unknown inode version"},
};

const char *decode_state(uint16_t state)
{
    return state < std::size(state_texts) ? state_texts[state] : "(unknown state)";
}

const char *decode_substate(uint16_t substate)
{
    return substate < std::size(substate_texts) ? substate_texts[substate] : "(unknown substate)";
}

const char *ktxt(key_txt_t *ktp, int key)
{
    const uint32_t wanted = static_cast<uint32_t>(key);
    const key_txt_t *row = ktp;
    while (row->key != wanted && row->key != KEY_TXT_END) {
        ++row;
    }
    return row->txt;
}

int pgroup_has_metadata(partgroup_t *pgroup)
{
    return has(pgroup, PGROUP_METADATA) ? 1 : 0;
}

int non_exclusive_metadata(partgroup_t *pgroup)
{
    return has(pgroup, PGROUP_METADATA) && !has(pgroup, PGROUP_EXCLUSIVE) ? 1 : 0;
}

int exclusive_metadata(partgroup_t *pgroup)
{
    return has(pgroup, PGROUP_EXCLUSIVE) && has(pgroup, PGROUP_METADATA | PGROUP_OTHERCONTENT) ? 1
                                                                                               : 0;
}

int OpenDir(const char *f_dirname, int *f_fd)
{
    *f_fd = open(f_dirname, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return *f_fd >= 0 ? 0 : errno;
}

void SizeStr(uint64_t size, char *strng)
{
    struct Unit {
        int shift;
        const char *name;
    };
    constexpr Unit units[] = {{60, "EB"}, {50, "PB"}, {40, "TB"}, {30, "GB"},
                              {20, "MB"}, {10, "KB"}, {0, "B"}};
    const Unit *unit = units;
    while (unit->shift != 0 && size <= uint64_t{1} << unit->shift) {
        ++unit;
    }
    const double divisor = static_cast<double>(uint64_t{1} << unit->shift);
    const float quotient = static_cast<float>(static_cast<double>(size) / divisor);
    VoSnprintf(strng, size_text_size, "%2.2f %s", static_cast<double>(quotient), unit->name);
}

int BlockShift(uint64_t val)
{
    return val != 0 ? std::countr_zero(val) : 0;
}
