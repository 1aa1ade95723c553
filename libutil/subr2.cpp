// subr2.cpp - the host's own addresses, MAC addresses and cards, and host-name lookup.
//
// Everything between what the kernel reported (netif) and the three lists is pure functions over
// the records; the module's state is behind ipaddrs_lock. A list that was dropped keeps its
// contents, which the next build compares with its own: a change makes the lists short-lived again.
//
// The lookup of names and the lists need each other: a public lookup asks for the host's addresses,
// and lists with hostname preference ask for an address of the host's name. They meet in one
// direction at a time: the build looks up without force_public, which never touches the lists.
#include "koutil/subr2.h"

#include "internal/guards.h"
#include "internal/hostaddrs.h"
#include "internal/in46addr.h"
#include "internal/netif.h"
#include "koutil/msleep.h"
#include "koutil/snprintf.h"

#include <algorithm>
#include <cstring>
#include <net/if.h>
#include <netdb.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace
{

using koutil::is_ipv4;
using koutil::map_ipv4;
using koutil::usable_ipv4;
using koutil::usable_ipv6;

constexpr int kNoName = 2;    // ENOENT
constexpr int kTryAgain = 11; // EAGAIN
constexpr int kFailed = 22;   // EINVAL

constexpr uint64_t kSecond = 1000000;
constexpr uint64_t rescan_intervals[16] = {5 * kSecond,  5 * kSecond,  5 * kSecond,  5 * kSecond,
                                           5 * kSecond,  5 * kSecond,  10 * kSecond, 10 * kSecond,
                                           10 * kSecond, 15 * kSecond, 15 * kSecond, 15 * kSecond,
                                           15 * kSecond, 30 * kSecond, 30 * kSecond, 60 * kSecond};
constexpr int kBackoffMax = 15;

// Guarded by ipaddrs_lock, as are the exported lists.
ifname_list_t iflist;
int saved_ipaddrs_valid;
uint64_t last_flush;

bool same(const in46addr_t &a, const in46addr_t &b)
{
    return memcmp(&a, &b, sizeof a) == 0;
}

bool is_unset(const in46addr_t &address)
{
    return IN6_IS_ADDR_UNSPECIFIED(&address);
}

char ascii_lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Length of the lower-case text `lower` if `text` begins with it, in any case, else 0.
size_t match_prefix(const char *text, const char *lower)
{
    size_t len = 0;
    while (lower[len] != '\0') {
        if (ascii_lower(text[len]) != lower[len]) {
            return 0;
        }
        len++;
    }
    return len;
}

// Whether `text` is the lower-case text `lower` in any case; `lower` is not empty.
bool same_digits(const char *text, const char *lower)
{
    const size_t len = match_prefix(text, lower);
    return len != 0 && text[len] == '\0';
}

in46addr_t loopback_ipv4()
{
    return map_ipv4(in_addr{htonl(INADDR_LOOPBACK)});
}

bool has_mac(const il_info &record)
{
    return record.macaddr[0] != '\0';
}

// Appends to the address list, which holds `count` entries, unless the first is the same.
void append_addr(in46addr_t (&addrs)[HOST_ADDRS_MAX], int &count, const in46addr_t &address)
{
    const bool repeats_first = count > 0 && same(addrs[0], address);
    if (count < HOST_ADDRS_MAX && !repeats_first) {
        addrs[count++] = address;
    }
}

void append_record_addrs(in46addr_t (&addrs)[HOST_ADDRS_MAX], int &count, const il_info &record)
{
    if (usable_ipv4(record.ipaddr)) {
        append_addr(addrs, count, map_ipv4(record.ipaddr));
    }
    if (usable_ipv6(record.ip6addr)) {
        append_addr(addrs, count, record.ip6addr);
    }
}

void append_mac(mac_addrs_t &macs, const il_info &record)
{
    if (!has_mac(record) || macs.mac_addr_count >= HOST_MACS_MAX) {
        return;
    }
    for (int i = 0; i < macs.mac_addr_count; i++) {
        if (strcmp(macs.mac_addr_str[i], record.macaddr) == 0) {
            return;
        }
    }
    memcpy(macs.mac_addr_str[macs.mac_addr_count++], record.macaddr, sizeof record.macaddr);
}

void append_nic_addr(NicInfo_t &nic, const in46addr_t &address)
{
    if (nic.ni_ipaddr_count < HOST_NIC_ADDRS_MAX) {
        nic.ni_ipaddr[nic.ni_ipaddr_count++] = address;
    }
}

void append_nic_addrs(NicInfo_t &nic, const il_info &record)
{
    if (record.ipaddr.s_addr != 0) {
        append_nic_addr(nic, map_ipv4(record.ipaddr));
    }
    if (!is_unset(record.ip6addr)) {
        append_nic_addr(nic, record.ip6addr);
    }
}

const char *mac_digits(const il_info &record)
{
    return has_mac(record) ? record.macaddr + 2 : "";
}

void append_nic(SysNics_t &nics, const il_info &record)
{
    if (nics.si_count >= HOST_NICS_MAX) {
        return;
    }
    NicInfo_t &nic = nics.si_nic[nics.si_count++];
    memcpy(nic.ni_name, record.ifname, strnlen(record.ifname, sizeof record.ifname));
    memcpy(nic.ni_mac, mac_digits(record), strlen(mac_digits(record)));
    nic.ni_flags = record.il_flags;
    append_nic_addrs(nic, record);
}

// Whether an alias or further address belongs to a card.
bool belongs_to(const il_info &record, const NicInfo_t &nic)
{
    return has_mac(record) &&
           strcmp(mac_digits(record), reinterpret_cast<const char *>(nic.ni_mac)) == 0 &&
           strstr(record.ifname, reinterpret_cast<const char *>(nic.ni_name)) != nullptr;
}

// A bonded slave without an address is part of another card.
void remove_bare_slaves(SysNics_t &nics)
{
    NicInfo_t *end = nics.si_nic + nics.si_count;
    NicInfo_t *kept = std::remove_if(nics.si_nic, end, [](const NicInfo_t &nic) {
        return nic.ni_ipaddr_count == 0 && (nic.ni_flags & IFF_SLAVE) != 0;
    });
    std::fill(kept, end, NicInfo_t{});
    nics.si_count = static_cast<uint32_t>(kept - nics.si_nic);
}

koutil::PreferredAddrs addrs_of_hostname()
{
    koutil::PreferredAddrs preferred = {};
    char name[255] = "";
    in46addr_t address = {};
    const bool named = gethostname(name, sizeof name) == 0;
    name[sizeof name - 1] = '\0';
    if (!named || _HostLookupR(name, &address, 0) != 0) {
        return preferred;
    }
    if (is_ipv4(address)) {
        in_addr ipv4;
        memcpy(&ipv4, address.s6_addr + 12, sizeof ipv4);
        preferred.ipv4 = usable_ipv4(ipv4) ? ipv4 : in_addr{};
    } else if (usable_ipv6(address)) {
        preferred.ipv6 = address;
    }
    return preferred;
}

// Takes over new lists; if they differ from the last, the next ones are looked for soon.
void store_lists(const mac_addrs_t &macs, const in46addr_t (&addrs)[HOST_ADDRS_MAX])
{
    if (memcmp(macs.mac_addr_str, saved_macaddrs.mac_addr_str, sizeof macs.mac_addr_str) != 0 ||
        memcmp(addrs, saved_ipaddrs, sizeof addrs) != 0) {
        saved_ipaddrs_backoff = 0;
    }
    saved_macaddrs = macs;
    memcpy(saved_ipaddrs, addrs, sizeof saved_ipaddrs);
    saved_ipaddrs_valid = is_unset(saved_ipaddrs[0]) ? 0 : 1;
}

// Builds the lists unless they are current. The caller holds ipaddrs_lock.
void BuildAddrLists(bool hostname_first)
{
    if (saved_macaddrs.mac_addr_count != 0) {
        return;
    }
    iflist = {};
    GetNetIFs(&iflist);
    koutil::append_configured_interfaces(iflist);
    if (iflist.count == 0) {
        return;
    }
    const koutil::PreferredAddrs preferred =
        hostname_first ? addrs_of_hostname() : koutil::PreferredAddrs{};
    const int primary = koutil::choose_primary(iflist, preferred);
    mac_addrs_t macs;
    in46addr_t addrs[HOST_ADDRS_MAX];
    koutil::make_mac_list(iflist, primary, macs);
    koutil::make_addr_list(iflist, primary, addrs);
    store_lists(macs, addrs);
    koutil::make_nic_list(iflist, saved_nics);
}

// Drops lists that have stood long enough. The caller holds ipaddrs_lock.
void drop_stale_lists()
{
    koutil::Staleness state = {last_flush, saved_ipaddrs_backoff};
    if (koutil::is_stale(state, MicroTime())) {
        md_reset_addr_lists();
    }
    last_flush = state.last_flush;
    saved_ipaddrs_backoff = state.backoff;
}

void copy_macs(mac_addrs_t *macs)
{
    *macs = saved_macaddrs.mac_addr_count != 0 ? saved_macaddrs : mac_addrs_t{};
}

// A private copy of the host's addresses.
struct LocalAddrs {
    LocalAddrs() { enumerate_ip_addrs(slots); }
    // Whether an address is in the list, which ends at the first empty slot.
    bool contains(const in46addr_t &address) const
    {
        const in46addr_t *last = end();
        return std::find_if(slots, last,
                            [&](const in46addr_t &slot) { return same(slot, address); }) != last;
    }
    const in46addr_t *end() const { return std::find_if(slots, slots + HOST_ADDRS_MAX, is_unset); }
    // The first address of the list that `wanted` takes, or null.
    template <typename Wanted>
    const in46addr_t *first(Wanted wanted) const
    {
        const in46addr_t *found = std::find_if(slots, end(), wanted);
        return found != end() ? found : nullptr;
    }

    in46addr_t slots[HOST_ADDRS_MAX];
};

bool is_usable_ipv6(const in46addr_t &address)
{
    return usable_ipv6(address);
}

// An IPv6 answer of the resolver that other hosts cannot use.
bool is_private_ipv6(const in46addr_t &address)
{
    return !is_ipv4(address) && !usable_ipv6(address);
}

bool is_host_itself(const char *name)
{
    char host[256] = "";
    const bool named = gethostname(host, sizeof host) == 0;
    host[sizeof host - 1] = '\0';
    return named && strcmp(host, name) == 0;
}

struct AddrInfoFree {
    void operator()(addrinfo *answers) const { freeaddrinfo(answers); }
};
using Answers = std::unique_ptr<addrinfo, AddrInfoFree>;

// Asks the resolver for every address of a name.
int resolve(const char *name, Answers &answers)
{
    const addrinfo hints = {};
    addrinfo *found = nullptr;
    const int result = getaddrinfo(name, nullptr, &hints, &found);
    if (result == 0) {
        answers.reset(found);
        return 0;
    }
    switch (result) {
    case EAI_NONAME:
        return kNoName;
    case EAI_AGAIN:
        return kTryAgain;
    default:
        return kFailed;
    }
}

// The address of one answer, where it is IPv4 or IPv6.
bool address_of(const addrinfo &answer, in46addr_t &address)
{
    if (answer.ai_family == AF_INET) {
        sockaddr_in in4;
        memcpy(&in4, answer.ai_addr, sizeof in4);
        address = map_ipv4(in4.sin_addr);
        return true;
    }
    if (answer.ai_family == AF_INET6) {
        sockaddr_in6 in6;
        memcpy(&in6, answer.ai_addr, sizeof in6);
        address = in6.sin6_addr;
        return true;
    }
    return false;
}

// Takes the first answer, or, given the host's addresses, the first that is one of them.
int pick_answer(const Answers &answers, const LocalAddrs *local, in46addr_t &picked)
{
    for (const addrinfo *each = answers.get(); each != nullptr; each = each->ai_next) {
        in46addr_t address;
        if (address_of(*each, address) && (local == nullptr || local->contains(address))) {
            picked = address;
            return 0;
        }
    }
    return kNoName;
}

// Replaces an answer that other hosts cannot use by an address of the host; without `may_replace`
// there is none.
int make_public(in46addr_t &address, bool may_replace)
{
    const bool loopback = same(address, loopback_ipv4());
    if (!loopback && !is_private_ipv6(address)) {
        return 0;
    }
    if (!may_replace) {
        return kNoName;
    }
    const LocalAddrs local;
    const in46addr_t *found = loopback ? nullptr : local.first(is_usable_ipv6);
    if (found == nullptr) {
        found = local.first(is_ipv4);
    }
    if (found == nullptr) {
        return kNoName;
    }
    address = *found;
    return 0;
}

// The lookup of the host's own name: an answer that is an address of the host, or else its first
// address.
int lookup_host_itself(const char *name, in46addr_t &address)
{
    const LocalAddrs local;
    Answers answers;
    int result = resolve(name, answers);
    if (result == 0) {
        result = pick_answer(answers, &local, address);
    }
    if (result != 0 && !is_unset(local.slots[0])) {
        address = local.slots[0];
        result = 0;
    }
    return result;
}

int lookup_other(const char *name, in46addr_t &address, bool force_public)
{
    Answers answers;
    int result = resolve(name, answers);
    if (result == 0) {
        result = pick_answer(answers, nullptr, address);
    }
    return result == 0 ? make_public(address, force_public) : result;
}

} // namespace

namespace koutil
{

int choose_primary(const ifname_list_t &list, const PreferredAddrs &preferred)
{
    int named = -1;
    int first = -1;
    for (int i = 0; i < list.count; i++) {
        const il_info &record = list.info[i];
        if (record.is_virtual != 0 || !has_mac(record) || record.ipaddr.s_addr == 0) {
            continue;
        }
        if ((preferred.ipv4.s_addr != 0 && record.ipaddr.s_addr == preferred.ipv4.s_addr) ||
            (!is_unset(preferred.ipv6) && same(record.ip6addr, preferred.ipv6))) {
            return i;
        }
        if (first < 0) {
            first = i;
        }
        if (named < 0 &&
            (strcmp(record.ifname, "em1") == 0 || strcmp(record.ifname, "eth0") == 0)) {
            named = i;
        }
    }
    return named >= 0 ? named : first;
}

void make_mac_list(const ifname_list_t &list, int primary, mac_addrs_t &macs)
{
    macs = {};
    if (primary >= 0) {
        append_mac(macs, list.info[primary]);
    }
    for (int i = 0; i < list.count; i++) {
        append_mac(macs, list.info[i]);
    }
}

void make_addr_list(const ifname_list_t &list, int primary, in46addr_t (&addrs)[HOST_ADDRS_MAX])
{
    memset(addrs, 0, sizeof addrs);
    int count = 0;
    if (primary >= 0) {
        append_addr(addrs, count, map_ipv4(list.info[primary].ipaddr));
    }
    for (const bool aliases : {false, true}) {
        for (int i = 0; i < list.count; i++) {
            if ((list.info[i].is_virtual != 0) == aliases) {
                append_record_addrs(addrs, count, list.info[i]);
            }
        }
    }
}

void make_nic_list(const ifname_list_t &list, SysNics_t &nics)
{
    nics = {};
    for (int i = 0; i < list.count; i++) {
        if (list.info[i].is_virtual == 0) {
            append_nic(nics, list.info[i]);
        }
    }
    for (int i = 0; i < list.count; i++) {
        for (uint32_t n = 0; n < nics.si_count && list.info[i].is_virtual != 0; n++) {
            if (belongs_to(list.info[i], nics.si_nic[n])) {
                append_nic_addrs(nics.si_nic[n], list.info[i]);
            }
        }
    }
    remove_bare_slaves(nics);
}

bool is_stale(Staleness &state, uint64_t now)
{
    const int index = std::clamp(state.backoff, 0, kBackoffMax);
    if (now > state.last_flush && now - state.last_flush < rescan_intervals[index]) {
        return false;
    }
    state.last_flush = now;
    state.backoff = index < kBackoffMax ? index + 1 : index;
    return true;
}

} // namespace koutil

thread_mutex_t ipaddrs_lock = THREAD_MUTEX_INITIALIZER;
in46addr_t saved_ipaddrs[HOST_ADDRS_MAX];
mac_addrs_t saved_macaddrs;
SysNics_t saved_nics;
int saved_ipaddrs_backoff;

void enumerate_ip_addrs(in46addr_t *ipaddrs)
{
    const koutil::LockGuard guard(ipaddrs_lock);
    drop_stale_lists();
    if (saved_ipaddrs_valid == 0) {
        BuildAddrLists(false);
    }
    if (saved_ipaddrs_valid != 0) {
        memcpy(ipaddrs, saved_ipaddrs, sizeof saved_ipaddrs);
    } else {
        memset(ipaddrs, 0, sizeof saved_ipaddrs);
    }
}

void enumerate_mac_addrs(mac_addrs_t *macs)
{
    const koutil::LockGuard guard(ipaddrs_lock);
    drop_stale_lists();
    BuildAddrLists(false);
    copy_macs(macs);
}

void enumerate_auth_ids(mac_addrs_t *macs)
{
    const koutil::LockGuard guard(ipaddrs_lock);
    drop_stale_lists();
    md_reset_addr_lists();
    BuildAddrLists(true);
    copy_macs(macs);
}

int get_ifname_by_macaddr(const char *macaddr, char *ifname)
{
    const koutil::LockGuard guard(ipaddrs_lock);
    drop_stale_lists();
    BuildAddrLists(false);
    for (int i = 0; i < iflist.count; i++) {
        const il_info &record = iflist.info[i];
        if (has_mac(record) && same_digits(macaddr, mac_digits(record))) {
            memcpy(ifname, record.ifname, strlen(record.ifname) + 1);
            return 0;
        }
    }
    return -1;
}

int GetAllNicBindings(SysNics_t *f_nics)
{
    const koutil::LockGuard guard(ipaddrs_lock);
    drop_stale_lists();
    if (saved_nics.si_count == 0) {
        BuildAddrLists(false);
    }
    if (saved_nics.si_count != 0) {
        *f_nics = saved_nics;
    } else {
        memset(f_nics, 0, sizeof *f_nics);
    }
    return 0;
}

int GetLocalAddrCount()
{
    const LocalAddrs local;
    return static_cast<int>(local.end() - local.slots);
}

int IsLocalAddr(const in46addr_t *ipaddr)
{
    const bool loopback =
        is_ipv4(*ipaddr) ? ipaddr->s6_addr[12] == IN_LOOPBACKNET : IN6_IS_ADDR_LOOPBACK(ipaddr);
    return loopback || IsLocalExtAddr(ipaddr) != 0;
}

int IsLocalExtAddr(const in46addr_t *ipaddr)
{
    const LocalAddrs local;
    return local.contains(*ipaddr);
}

void RemapLocalHost(in46addr_t *ipaddr)
{
    const LocalAddrs local;
    for (const in46addr_t &slot : local.slots) {
        if (same(slot, *ipaddr)) {
            *ipaddr = is_ipv4(*ipaddr) ? loopback_ipv4() : in6addr_loopback;
            return;
        }
    }
}

void GetLoopbackAddr(in46addr_t *ipaddr)
{
    *ipaddr = loopback_ipv4();
}

int IsLoopbackHostname(const char *name, in46addr_t *ret)
{
    const auto is_or_is_below = [name](const char *host) {
        const char *rest = name + match_prefix(name, host);
        return rest != name && (*rest == '\0' || *rest == '.');
    };
    if (is_or_is_below("localhost") || match_prefix(name, "127.") != 0) {
        *ret = loopback_ipv4();
        return 1;
    }
    if (is_or_is_below("localhost6") || strcmp(name, "::1") == 0) {
        *ret = in6addr_loopback;
        return 1;
    }
    return 0;
}

void ResetAddrLists()
{
    const koutil::LockGuard guard(ipaddrs_lock);
    md_reset_addr_lists();
}

void md_reset_addr_lists()
{
    saved_ipaddrs_valid = 0;
    saved_nics.si_count = 0;
    saved_macaddrs.mac_addr_count = 0;
}

void GetOsVersion(char *version, size_t len)
{
    char text[256] = "??";
    utsname host;
    if (uname(&host) == 0) {
        VoSnprintf(text, sizeof text, "%s %s %s %s", host.sysname, host.release, host.version,
                   host.machine);
    }
    if (version != nullptr) {
        VoSnprintf(version, len, "%s", text);
    }
}

int _HostLookupR(const char *name, in46addr_t *ret, int force_public)
{
    if (IsLoopbackHostname(name, ret) != 0) {
        return 0;
    }
    in46addr_t address = {};
    const int result = force_public != 0 && is_host_itself(name)
                           ? lookup_host_itself(name, address)
                           : lookup_other(name, address, force_public != 0);
    *ret = result == 0 ? address : in46addr_t{};
    return result;
}

int GetHostByName(const char *name, in46addr_t *ret)
{
    const int result = _HostLookupR(name, ret, 1);
    if (result == 0) {
        return 0;
    }
    errno = result;
    return -1;
}
