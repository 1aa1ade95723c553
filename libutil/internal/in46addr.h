// in46addr.h - the one address form of both families, and the platform's socket addresses.
#ifndef KOUTIL_INTERNAL_IN46ADDR_H
#define KOUTIL_INTERNAL_IN46ADDR_H

#include "internal/testable.h"
#include "koutil/types.h"

#include <cstring>
#include <sys/socket.h>

namespace koutil
{

inline constexpr uint8_t ipv4_prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

// Whether the address is an IPv4 address, held as ::ffff:a.b.c.d.
inline bool is_ipv4(const in46addr_t &address)
{
    return std::memcmp(address.s6_addr, ipv4_prefix, sizeof ipv4_prefix) == 0;
}

inline in46addr_t map_ipv4(const in_addr &ipv4)
{
    in46addr_t address;
    std::memcpy(address.s6_addr, ipv4_prefix, sizeof ipv4_prefix);
    std::memcpy(address.s6_addr + sizeof ipv4_prefix, &ipv4, sizeof ipv4);
    return address;
}

// A socket address of either family with the length that the socket calls want. The port is given
// in host order.
class SocketAddress
{
  public:
    static SocketAddress ipv4(const in46addr_t &address, uint16_t port)
    {
        SocketAddress result;
        result.in4_.sin_family = AF_INET;
        result.in4_.sin_port = htons(port);
        std::memcpy(&result.in4_.sin_addr, address.s6_addr + sizeof ipv4_prefix,
                    sizeof result.in4_.sin_addr);
        result.length_ = sizeof result.in4_;
        return result;
    }
    static SocketAddress ipv6(const in46addr_t &address, uint16_t port)
    {
        SocketAddress result;
        result.in6_.sin6_family = AF_INET6;
        result.in6_.sin6_port = htons(port);
        result.in6_.sin6_addr = address;
        result.length_ = sizeof result.in6_;
        return result;
    }
    // Of the address's own family.
    static SocketAddress of(const in46addr_t &address, uint16_t port)
    {
        return is_ipv4(address) ? ipv4(address, port) : ipv6(address, port);
    }

    int family() const { return any_.ss_family; }
    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&any_); }
    socklen_t length() const { return length_; }

  private:
    union {
        sockaddr_storage any_ = {};
        sockaddr_in in4_;
        sockaddr_in6 in6_;
    };
    socklen_t length_ = 0;
};

// Writes the eight 16-bit groups of an address in hexadecimal: what RawIp falls back on where the
// platform has no text for an address. `name` has 256 bytes.
KO_TESTABLE char *raw_ip_groups(const in46addr_t &address, char *name);

} // namespace koutil

#endif
