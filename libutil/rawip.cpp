// rawip.cpp - the numeric text of an address.
#include "koutil/rawip.h"

#include "internal/in46addr.h"
#include "koutil/snprintf.h"

#include <arpa/inet.h>

namespace
{

constexpr size_t name_size = 256;

} // namespace

char *koutil::raw_ip_groups(const in46addr_t &address, char *name)
{
    const auto group = [&](int i) {
        return address.s6_addr[2 * i] << 8 | address.s6_addr[2 * i + 1];
    };
    VoSnprintf(name, name_size, "%x:%x:%x:%x:%x:%x:%x:%x", group(0), group(1), group(2), group(3),
               group(4), group(5), group(6), group(7));
    return name;
}

char *RawIp(const in46addr_t *a, char *name)
{
    if (koutil::is_ipv4(*a)) {
        const uint8_t *bytes = a->s6_addr + sizeof koutil::ipv4_prefix;
        VoSnprintf(name, name_size, "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2], bytes[3]);
    } else if (inet_ntop(AF_INET6, a, name, name_size) == nullptr) {
        koutil::raw_ip_groups(*a, name);
    }
    return name;
}
