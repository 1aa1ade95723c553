// hostaddrs.h - how the host's lists follow from what the kernel reported: pure functions, for
// tests on given sets of interfaces.
#ifndef KOUTIL_INTERNAL_HOSTADDRS_H
#define KOUTIL_INTERNAL_HOSTADDRS_H

#include "internal/testable.h"
#include "koutil/subr2.h"

namespace koutil
{

// The addresses that the host's name stands for; zero where there is none.
struct PreferredAddrs {
    in_addr ipv4;
    in6_addr ipv6;
};

// Index of the primary interface's record, or -1.
KO_TESTABLE int choose_primary(const ifname_list_t &list, const PreferredAddrs &preferred);

// The lists from the records, with `primary` from choose_primary; each output is cleared first.
KO_TESTABLE void make_mac_list(const ifname_list_t &list, int primary, mac_addrs_t &macs);
KO_TESTABLE void make_addr_list(const ifname_list_t &list, int primary,
                                in46addr_t (&addrs)[HOST_ADDRS_MAX]);
KO_TESTABLE void make_nic_list(const ifname_list_t &list, SysNics_t &nics);

// When the lists were dropped last and how long they may stand.
struct Staleness {
    uint64_t last_flush; // microseconds; 0 before the first
    int backoff;         // 0 to 15
};

// Whether the lists are to be dropped at the time `now`; notes the drop.
KO_TESTABLE bool is_stale(Staleness &state, uint64_t now);

} // namespace koutil

#endif
