// netif.cpp - what the kernel reports about the host's network interfaces.
#include "koutil/netif.h"

#include "internal/guards.h"
#include "internal/netif.h"
#include "koutil/snprintf.h"

#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace
{

constexpr size_t kInet6Line = 1024;
constexpr size_t kDevLine = 512;
constexpr size_t kIfConfBytes = 8192;

bool starts_with(const char *text, const char *prefix)
{
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

bool is_zero(const in6_addr &address)
{
    return IN6_IS_ADDR_UNSPECIFIED(&address);
}

// Whether a record is worth keeping; netif.h says when it is not.
bool useful(const il_info &record)
{
    const bool has_mac = record.macaddr[0] != '\0';
    if (starts_with(record.ifname, "dummy") || starts_with(record.ifname, "lo") ||
        (record.il_flags & IFF_LOOPBACK) != 0 || (record.is_virtual == 0 && !has_mac)) {
        return false;
    }
    return has_mac || record.ipaddr.s_addr != 0 || !is_zero(record.ip6addr);
}

// A name that is too long for the kernel is cut.
ifreq request_for(const char *ifname)
{
    ifreq request = {};
    memcpy(request.ifr_name, ifname, strnlen(ifname, sizeof request.ifr_name - 1));
    return request;
}

// The hardware address of an interface as text; empty where it has none or a zero one.
void GetGoodMacAddr(int sock, const char *ifname, char (&macaddr)[16])
{
    macaddr[0] = '\0';
    ifreq request = request_for(ifname);
    if (ioctl(sock, SIOCGIFHWADDR, &request) != 0) {
        return;
    }
    unsigned char mac[6];
    memcpy(mac, request.ifr_hwaddr.sa_data, sizeof mac);
    VoSnprintf(macaddr, sizeof macaddr, "0x%2.2x%2.2x%2.2x%2.2x%2.2x%2.2x", mac[0], mac[1], mac[2],
               mac[3], mac[4], mac[5]);
    if (strcmp(macaddr, "0x000000000000") == 0) {
        macaddr[0] = '\0';
    }
}

// The MAC of the interface that an alias belongs to.
void get_parent_mac(int sock, const il_info &alias, char (&macaddr)[16])
{
    const char *colon = alias.ifname[0] != '\0' ? strchr(alias.ifname + 1, ':') : nullptr;
    if (colon != nullptr) {
        char parent[sizeof alias.ifname] = "";
        memcpy(parent, alias.ifname, static_cast<size_t>(colon - alias.ifname));
        GetGoodMacAddr(sock, parent, macaddr);
    }
}

int get_flags(int sock, const char *ifname)
{
    ifreq request = request_for(ifname);
    if (ioctl(sock, SIOCGIFFLAGS, &request) != 0) {
        return 0;
    }
    return static_cast<unsigned short>(request.ifr_flags);
}

// The usable IPv4 address of an interface, or 0.
in_addr get_ipv4(int sock, const char *ifname)
{
    ifreq request = request_for(ifname);
    sockaddr_in address = {};
    if (ioctl(sock, SIOCGIFADDR, &request) == 0) {
        memcpy(&address, &request.ifr_addr, sizeof address);
    }
    const bool good = address.sin_family == AF_INET && koutil::usable_ipv4(address.sin_addr);
    return good ? address.sin_addr : in_addr{};
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The 32 digits of an IPv6 address without colons.
bool parse_hex_address(const char *digits, in6_addr &address)
{
    if (strlen(digits) != 2 * sizeof address.s6_addr) {
        return false;
    }
    for (size_t i = 0; i < sizeof address.s6_addr; i++) {
        const int high = hex_digit(digits[2 * i]);
        const int low = hex_digit(digits[2 * i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        address.s6_addr[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

// Reads on to the next usable address of one interface.
bool next_ipv6(FILE *inet6, const char *ifname, in6_addr &address)
{
    char line[kInet6Line];
    while (fgets(line, sizeof line, inet6) != nullptr) {
        char digits[33];
        char name[65];
        if (sscanf(line, "%32s %*s %*s %*s %*s %64s", digits, name) == 2 &&
            strcmp(name, ifname) == 0 && parse_hex_address(digits, address) &&
            koutil::usable_ipv6(address)) {
            return true;
        }
    }
    return false;
}

bool full(const ifname_list_t &list)
{
    return list.count < 0 || list.count >= IFNAME_LIST_MAX;
}

bool listed(const ifname_list_t &list, const char *ifname)
{
    for (int i = 0; i < list.count; i++) {
        if (strcmp(list.info[i].ifname, ifname) == 0) {
            return true;
        }
    }
    return false;
}

// The interface name at the start of a line of /proc/net/dev.
void name_of_line(const char *line, char (&name)[64])
{
    const char *start = line + strspn(line, " \t\n\v\f\r");
    const size_t len = strcspn(start, ": \t\n");
    const size_t kept = len < sizeof name ? len : sizeof name - 1;
    memcpy(name, start, kept);
    name[kept] = '\0';
}

koutil::Fd datagram_socket(int family)
{
    return koutil::Fd(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

} // namespace

namespace koutil
{

bool usable_ipv4(const in_addr &address)
{
    return address.s_addr != htonl(INADDR_ANY) && address.s_addr != htonl(INADDR_LOOPBACK);
}

bool usable_ipv6(const in6_addr &address)
{
    return !IN6_IS_ADDR_UNSPECIFIED(&address) && !IN6_IS_ADDR_LOOPBACK(&address) &&
           !IN6_IS_ADDR_MULTICAST(&address) && !IN6_IS_ADDR_LINKLOCAL(&address) &&
           !IN6_IS_ADDR_V4MAPPED(&address) && !IN6_IS_ADDR_V4COMPAT(&address);
}

void append_records(ifname_list_t &list, il_info record, FILE *inet6)
{
    const int before = list.count;
    while (inet6 != nullptr && !full(list) && next_ipv6(inet6, record.ifname, record.ip6addr)) {
        if (useful(record)) {
            list.info[list.count++] = record;
            record.is_virtual = 1;
            record.ipaddr = {};
        }
    }
    record.ip6addr = {};
    if (list.count == before && !full(list) && useful(record)) {
        list.info[list.count++] = record;
    }
}

void append_configured_interfaces(ifname_list_t &list)
{
    const Fd sock4 = datagram_socket(AF_INET);
    const Fd sock6 = datagram_socket(AF_INET6);
    alignas(ifreq) char buffer[kIfConfBytes];
    ifconf config = {};
    config.ifc_len = sizeof buffer;
    config.ifc_buf = buffer;
    if ((!sock4 && !sock6) || ioctl(sock4 ? sock4.get() : sock6.get(), SIOCGIFCONF, &config) != 0) {
        return;
    }
    const size_t end = config.ifc_len > 0 ? static_cast<size_t>(config.ifc_len) : 0;
    for (size_t at = 0; at + sizeof(ifreq) <= end && at + sizeof(ifreq) <= sizeof buffer;
         at += sizeof(ifreq)) {
        char name[IFNAMSIZ + 1] = "";
        memcpy(name, buffer + at + offsetof(ifreq, ifr_name), IFNAMSIZ);
        if (!listed(list, name)) {
            GetIfInfo(sock4.get(), sock6.get(), name, &list, strchr(name, ':') != nullptr);
        }
    }
}

} // namespace koutil

void GetIfInfo(int sock4, int sock6, const char *ifname, ifname_list_t *iflist, int is_virtual)
{
    if (full(*iflist)) {
        return;
    }
    const int sock = sock4 != -1 ? sock4 : sock6;
    il_info record = {};
    memcpy(record.ifname, ifname, strnlen(ifname, sizeof record.ifname - 1));
    record.is_virtual = is_virtual;
    GetGoodMacAddr(sock, record.ifname, record.macaddr);
    if (record.macaddr[0] == '\0') {
        get_parent_mac(sock, record, record.macaddr);
    }
    record.il_flags = get_flags(sock, record.ifname);
    record.ipaddr = get_ipv4(sock, record.ifname);
    const koutil::FilePtr inet6(fopen("/proc/net/if_inet6", "re"));
    koutil::append_records(*iflist, record, inet6.get());
}

void GetNetIFs(ifname_list_t *iflist)
{
    const koutil::FilePtr file(fopen("/proc/net/dev", "re"));
    const koutil::Fd sock4 = datagram_socket(AF_INET);
    if (file == nullptr || !sock4) {
        return;
    }
    char line[kDevLine];
    for (int number = 1; !full(*iflist) && fgets(line, sizeof line, file.get()) != nullptr;
         number++) {
        char name[64];
        name_of_line(line, name);
        if (number > 2 && name[0] != '\0' && !listed(*iflist, name)) {
            GetIfInfo(sock4.get(), -1, name, iflist, 0);
        }
    }
}
