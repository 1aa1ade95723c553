/* subr2.h - the host's own addresses, MAC addresses and network cards, and host-name lookup.
 *
 * The module keeps three lists: the host's addresses, its MAC addresses and its network cards, the
 * primary interface's first. They are built from what the kernel reports at the first question,
 * dropped after 5 seconds, later after up to 60 as long as nothing changes, and built anew by the
 * next question.
 *
 * The primary interface is, among those that are no alias and have a MAC and an IPv4 address: with
 * hostname preference (enumerate_auth_ids) the first whose address the host's name resolves to;
 * otherwise the first named "em1" or "eth0"; otherwise the first.
 *
 * Limits:         48 addresses, 48 MACs, 48 cards with 5 addresses each; what is beyond is left
 *                 out. What cannot be read contributes nothing and is not reported.
 * Units:          all addresses are in network byte order; a MAC text is "0x" and 12 lower-case
 *                 hexadecimal digits.
 * Thread safety:  any thread may call every function but md_reset_addr_lists. A question holds
 *                 ipaddrs_lock while it builds and copies; enumerate_auth_ids also asks the
 *                 resolver under it, so a slow resolver delays other questions meanwhile.
 */
#ifndef KOUTIL_SUBR2_H
#define KOUTIL_SUBR2_H

#include "koutil/mutex.h"
#include "koutil/netif.h"
#include "koutil/types.h"

KO_BEGIN_DECLS

#define HOST_ADDRS_MAX     48 /* addresses that are kept */
#define HOST_MACS_MAX      48 /* MAC addresses that are kept */
#define HOST_NICS_MAX      48 /* network cards that are kept */
#define HOST_NIC_ADDRS_MAX 5  /* addresses of one card that are kept */

/* The host's MAC addresses. */
typedef struct mac_addrs {
    uint8_t mac_addr_count;               /* entries in use */
    uint8_t mac_addr_padding;             /* 0 */
    char mac_addr_str[HOST_MACS_MAX][16]; /* "0x" and 12 digits each, terminated */
} mac_addrs_t;

/* One network card with its addresses, those of its aliases included. */
typedef struct _nicinfo {
    uint8_t ni_name[256];                     /* terminated */
    uint8_t ni_mac[16];                       /* 12 hexadecimal digits, without "0x" */
    uint8_t ni_desc[256];                     /* empty */
    uint8_t ni_machdep[256];                  /* empty */
    uint32_t ni_ifindex;                      /* 0 */
    uint32_t ni_ipaddr_count;                 /* addresses in use */
    int ni_flags;                             /* IFF_... */
    in46addr_t ni_ipaddr[HOST_NIC_ADDRS_MAX]; /* unused slots are zero */
} NicInfo_t;

/* The host's network cards. */
typedef struct _sysnics {
    uint32_t si_count;               /* cards in use */
    uint32_t si_pad;                 /* 0 */
    NicInfo_t si_nic[HOST_NICS_MAX]; /* the primary interface's card first */
} SysNics_t;

/* Guards saved_ipaddrs, saved_macaddrs, saved_nics and saved_ipaddrs_backoff. */
KO_API extern thread_mutex_t ipaddrs_lock;

/* The addresses as they were listed last; they keep their contents when the lists are dropped.
 * Unused slots are all zero. Ask through enumerate_ip_addrs instead. */
KO_API extern in46addr_t saved_ipaddrs[HOST_ADDRS_MAX];

/* The MAC addresses as they were listed last; see saved_ipaddrs. */
KO_API extern mac_addrs_t saved_macaddrs;

/* The network cards as they were listed last; see saved_ipaddrs. */
KO_API extern SysNics_t saved_nics;

/* How long the lists are kept: an index from 0 (5 s) to 15 (60 s). */
KO_API extern int saved_ipaddrs_backoff;

/* Copy the host's addresses into `ipaddrs`, 48 slots, the primary address first. Unused slots are
 * all zero. */
KO_API void enumerate_ip_addrs(in46addr_t *ipaddrs);

/* Copy the host's MAC addresses, the primary interface's first. */
KO_API void enumerate_mac_addrs(mac_addrs_t *macs);

/* Build the lists anew, preferring the interface whose address the host's name resolves to, and
 * copy the MAC addresses. The other functions use these lists until they are dropped again. Asks
 * the resolver. */
KO_API void enumerate_auth_ids(mac_addrs_t *macs);

/* Find the interface with a MAC, given as 12 hexadecimal digits of any case, and write its name
 * into `ifname`: at most 63 characters and the terminator.
 *
 * Returns 0, or -1 when no interface has it, `ifname` then being untouched. */
KO_API int get_ifname_by_macaddr(const char *macaddr, char *ifname);

/* Copy the host's network cards.
 *
 * Returns 0. */
KO_API int GetAllNicBindings(SysNics_t *f_nics);

/* Returns how many addresses the host has, from 0 to 48. */
KO_API int GetLocalAddrCount(void);

/* Returns 1 for ::1, every 127.x.x.x and every address of the host, else 0. */
KO_API int IsLocalAddr(const in46addr_t *ipaddr);

/* Returns 1 for an address of the host that other hosts can use, else 0. */
KO_API int IsLocalExtAddr(const in46addr_t *ipaddr);

/* Replace an address of the host by the loopback address of its family, 127.0.0.1 or ::1. Other
 * addresses, loopback ones included, stay; :: becomes ::1 unless the host has 48 addresses. */
KO_API void RemapLocalHost(in46addr_t *ipaddr);

/* Set the IPv4 loopback address, 127.0.0.1. */
KO_API void GetLoopbackAddr(in46addr_t *ipaddr);

/* Recognise the names of the loopback address: "localhost", names that begin with "localhost." or
 * "127.", and, for ::1, "localhost6", names that begin with "localhost6." and "::1". Case does not
 * matter.
 *
 * Returns 1, *ret then being the loopback address of the family, or 0 with *ret untouched. */
KO_API int IsLoopbackHostname(const char *name, in46addr_t *ret);

/* Drop the lists: the next question builds them anew. */
KO_API void ResetAddrLists(void);

/* ResetAddrLists for a caller that holds ipaddrs_lock. */
KO_API void md_reset_addr_lists(void);

/* Write "system release version machine" into `version`, of `len` bytes, or "??" when the platform
 * does not say. Null is allowed. */
KO_API void GetOsVersion(char *version, size_t len);

/* Look a host name or a numeric text up.
 *
 * Loopback names give the loopback address without asking the resolver. With `force_public` other
 * than 0 the answer is an address that other hosts can reach, as far as there is one: the host's
 * own name gives an address of the host, the first listed one where the resolver knows no better,
 * and a loopback, link-local, multicast or IPv4-compatible answer is replaced by an address of the
 * host. Without it such an answer is a failure.
 *
 * Requires: with `force_public`, ipaddrs_lock is not held.
 * Returns 0, *ret then holding the address; 2 when the name is unknown or gives no usable address;
 * 11 when the resolver asks to try again; 22 for any other failure. On failure *ret is all zero. */
KO_API int _HostLookupR(const char *name, in46addr_t *ret, int force_public);

/* Look a host name or a numeric text up for an address that other hosts can reach, as _HostLookupR
 * does with `force_public`.
 *
 * Returns 0, or -1 with errno set to the result of _HostLookupR. */
KO_API int GetHostByName(const char *name, in46addr_t *ret);

KO_END_DECLS

#endif
