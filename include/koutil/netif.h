/* netif.h - what the kernel reports about the host's network interfaces.
 *
 * A record stands for one interface, one alias ("eth0:1") or one further IPv6 address of an
 * interface. The functions append the records of useful interfaces to a list; subr2.h builds the
 * host's address, MAC and card lists from it, and is what most callers want.
 *
 * Useless, and never appended, is a record whose name begins with "lo" or "dummy", whose flags have
 * IFF_LOOPBACK, that has no MAC address without being an alias or further address, or that has
 * neither MAC nor address.
 *
 * A usable IPv4 address is any but 0.0.0.0 and 127.0.0.1. A usable IPv6 address is none of: ::,
 * ::1, multicast, link-local, IPv4-mapped, IPv4-compatible.
 *
 * Failures add nothing and are not reported: the list holds what could be read.
 *
 * Thread safety:  no state; a list belongs to one thread at a time.
 */
#ifndef KOUTIL_NETIF_H
#define KOUTIL_NETIF_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Records that a list has room for. */
#define IFNAME_LIST_MAX 128

/* One interface, alias or further address. */
typedef struct il_info {
    char ifname[64];         /* "eth0", "eth0:1" */
    char macaddr[16];        /* "0x" and 12 lower-case hexadecimal digits, or empty */
    struct in_addr ipaddr;   /* a usable IPv4 address, or 0 */
    struct in6_addr ip6addr; /* a usable IPv6 address, or zero */
    int il_flags;            /* IFF_... */
    int is_virtual;          /* 1 for an alias or a further IPv6 address, else 0 */
} il_info;

/* A list of them. */
typedef struct ifname_list {
    int count;                     /* records in use */
    il_info info[IFNAME_LIST_MAX]; /* the records */
} ifname_list_t;

/* Append the records of one interface: the first with its MAC, flags, IPv4 address and first usable
 * IPv6 address, then one for each further usable IPv6 address. An alias without a MAC of its own
 * gets that of its interface. `is_virtual` is 1 for an alias. `sock4` and `sock6` are any sockets
 * of the two families, or -1; one is enough. Does nothing when the list is full. */
KO_API void GetIfInfo(int sock4, int sock6, const char *ifname, ifname_list_t *iflist,
                      int is_virtual);

/* Append the records of every interface of "/proc/net/dev" whose name is not in the list yet. */
KO_API void GetNetIFs(ifname_list_t *iflist);

KO_END_DECLS

#endif
