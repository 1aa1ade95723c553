// netif.h - the parts of interface discovery that other modules and the tests share.
#ifndef KOUTIL_INTERNAL_NETIF_H
#define KOUTIL_INTERNAL_NETIF_H

#include "internal/testable.h"
#include "koutil/netif.h"

#include <cstdio>

namespace koutil
{

KO_TESTABLE bool usable_ipv4(const in_addr &address);
KO_TESTABLE bool usable_ipv6(const in6_addr &address);

// Appends `record` and its IPv6 addresses, read from `inet6`, a stream of the form of
// /proc/net/if_inet6, or null. The record has everything but its IPv6 address.
KO_TESTABLE void append_records(ifname_list_t &list, il_info record, FILE *inet6);

// Appends every interface that the kernel lists for sockets, aliases included, whose name is not in
// the list yet.
void append_configured_interfaces(ifname_list_t &list);

} // namespace koutil

#endif
