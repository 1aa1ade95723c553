// sock46.cpp - socket calls that take an address of either family.
#include "koutil/sock46.h"

#include "internal/guards.h"
#include "internal/in46addr.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <endian.h>
#include <sys/socket.h>

namespace
{

using koutil::SocketAddress;

constexpr SOCKET_T no_socket = -1;
constexpr int first_dynamic_port = 49152;
constexpr int last_port = 65535;

// A zeroed socket address for the platform to fill, read back as either family.
struct PeerAddress {
    union {
        sockaddr_storage any = {};
        sockaddr_in in4;
        sockaddr_in6 in6;
    };
    socklen_t length = sizeof(sockaddr_storage);

    sockaddr *get() { return reinterpret_cast<sockaddr *>(&any); }
};

// The address of a connected or bound socket: whatever is not IPv4 is read as IPv6.
void store_name(const PeerAddress &name, in46addr_t *a, uint16_t *port)
{
    *a = name.any.ss_family == AF_INET ? koutil::map_ipv4(name.in4.sin_addr) : name.in6.sin6_addr;
    *port = ntohs(name.in6.sin6_port);
}

int bind_wildcard(SOCKET_T fd, int family, int port)
{
    constexpr in46addr_t any = IN6ADDR_ANY_INIT;
    const auto number = static_cast<uint16_t>(port);
    const SocketAddress address =
        family == AF_INET ? SocketAddress::ipv4(any, number) : SocketAddress::ipv6(any, number);
    return bind(fd, address.get(), address.length());
}

int set_reuse_address(SOCKET_T fd)
{
    const int on = 1;
    return fd == no_socket ? 0 : setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

// The port that the system chose for a socket bound to port 0, or -1.
int chosen_port(SOCKET_T s4, SOCKET_T s6)
{
    in46addr_t address;
    uint16_t port = 0;
    return GetSockName(s4 != no_socket ? s4 : s6, &address, &port) == 0 ? port : -1;
}

enum class Attempt { bound, taken, failed };

// One port of BindSame's search. The options of a replaced socket depend on the caller's own range.
Attempt try_port(SOCKET_T *s4, SOCKET_T *s6, int port, int minport, int maxport, int type)
{
    if (*s4 == no_socket) {
        return bind_wildcard(*s6, AF_INET6, port) == 0 ? Attempt::bound : Attempt::taken;
    }
    if (bind_wildcard(*s4, AF_INET, port) != 0) {
        return Attempt::taken;
    }
    if (*s6 == no_socket || bind_wildcard(*s6, AF_INET6, port) == 0) {
        return Attempt::bound;
    }
    close(*s4); // a bound socket cannot be bound again
    *s4 = socket(AF_INET, type, 0);
    if (*s4 == no_socket || BindSameSockOpts(s4, s6, minport, maxport, type) != 0) {
        return Attempt::failed;
    }
    return Attempt::taken;
}

unsigned short parse_port(const char *text)
{
    return text == nullptr ? static_cast<unsigned short>(0)
                           : static_cast<unsigned short>(strtol(text, nullptr, 10));
}

// The text between the first '[' and the next ']'; `*rest` is what follows. Null for an empty pair.
char *bracketed(char *open, char **rest)
{
    char *text = open + 1;
    char *close_bracket = strchr(text, ']');
    if (close_bracket != nullptr) {
        *close_bracket = '\0';
        *rest = close_bracket + 1;
    } else {
        *rest = text + strlen(text);
    }
    return *text != '\0' ? text : nullptr;
}

uint64_t half(const in46addr_t &address, int index)
{
    uint64_t value;
    memcpy(&value, address.s6_addr + 8 * index, sizeof value);
    return be64toh(value);
}

int ask_name(int (*ask)(int, sockaddr *, socklen_t *), SOCKET_T fd, in46addr_t *a, uint16_t *port)
{
    PeerAddress name;
    if (ask(fd, name.get(), &name.length) != 0) {
        return -1;
    }
    store_name(name, a, port);
    return 0;
}

} // namespace

SOCKET_T SockConnect(const in46addr_t *a, uint16_t port, int *error)
{
    *error = 0;
    const SocketAddress address = SocketAddress::of(*a, port);
    koutil::Fd fd(socket(address.family(), SOCK_STREAM, 0));
    if (!fd || connect(fd.get(), address.get(), address.length()) != 0) {
        *error = errno;
        return no_socket;
    }
    return fd.release();
}

ssize_t SendTo(SOCKET_T fd4, SOCKET_T fd6, void *buf, size_t len, int flags, const in46addr_t *a,
               uint16_t port)
{
    if (fd4 != no_socket && koutil::is_ipv4(*a)) {
        const SocketAddress address = SocketAddress::ipv4(*a, port);
        return sendto(fd4, buf, len, flags, address.get(), address.length());
    }
    if (fd6 != no_socket) {
        const SocketAddress address = SocketAddress::ipv6(*a, port);
        return sendto(fd6, buf, len, flags, address.get(), address.length());
    }
    errno = EAFNOSUPPORT;
    return -1;
}

ssize_t RecvFrom(SOCKET_T fd, void *buf, size_t len, int flags, in46addr_t *a, uint16_t *port)
{
    PeerAddress sender;
    const ssize_t result = recvfrom(fd, buf, len, flags, sender.get(), &sender.length);
    if (sender.any.ss_family == AF_INET || sender.any.ss_family == AF_INET6) {
        store_name(sender, a, port);
    } else {
        *a = {};
        *port = 0;
    }
    return result;
}

SOCKET_T Accept(SOCKET_T ls, in46addr_t *a, uint16_t *port)
{
    PeerAddress peer;
    const SOCKET_T fd = accept(ls, peer.get(), &peer.length);
    if (fd != no_socket) {
        store_name(peer, a, port);
    }
    return fd;
}

int GetPeerName(SOCKET_T ls, in46addr_t *a, uint16_t *port)
{
    return ask_name(getpeername, ls, a, port);
}

int GetSockName(SOCKET_T ls, in46addr_t *a, uint16_t *port)
{
    return ask_name(getsockname, ls, a, port);
}

int BindSame(SOCKET_T *s4, SOCKET_T *s6, int minport, int maxport)
{
    if (*s4 == no_socket && *s6 == no_socket) {
        return 0;
    }
    int type = 0;
    socklen_t length = sizeof type;
    if (getsockopt(*s4 != no_socket ? *s4 : *s6, SOL_SOCKET, SO_TYPE, &type, &length) != 0 ||
        BindSameSockOpts(s4, s6, minport, maxport, type) != 0) {
        return -1;
    }
    int first = minport;
    int last = maxport;
    if (*s4 != no_socket && *s6 != no_socket) {
        first = minport == 0 ? first_dynamic_port : minport;
        last = maxport == 0 ? last_port : maxport;
    } else if (minport == 0) {
        last = 0; // one attempt, and the system chooses
    }
    if (first != 0) {
        first = std::max(first, 1);
        last = std::min(last, last_port);
    }
    for (int port = first; port <= last; ++port) {
        const Attempt attempt = try_port(s4, s6, port, minport, maxport, type);
        if (attempt == Attempt::failed) {
            return -1;
        }
        if (attempt == Attempt::bound) {
            return port != 0 ? port : chosen_port(*s4, *s6);
        }
    }
    return 0;
}

int BindSameSockOpts(SOCKET_T *s4, SOCKET_T *s6, int minport, int maxport, int sockettype)
{
    if (sockettype != SOCK_STREAM || (minport == 0 && maxport == 0)) {
        return 0;
    }
    return set_reuse_address(*s4) == 0 && set_reuse_address(*s6) == 0 ? 0 : -1;
}

void ExtractAddrPort(char *input_str, char **addr, unsigned short *port)
{
    *addr = nullptr;
    unsigned short number = 0;
    char *rest = nullptr;
    const auto colons = std::count(input_str, input_str + strlen(input_str), ':');
    char *first_close = strchr(input_str, ']');
    char *first_open = strchr(input_str, '[');
    if (colons < 2) {
        *addr = strtok_r(input_str, " \t:", &rest);
        if (colons == 1) {
            number = parse_port(strtok_r(nullptr, " \t", &rest));
        }
    } else if (first_close == nullptr) {
        *addr = strtok_r(input_str, " \t", &rest);
    } else if (first_open != nullptr) {
        const bool has_port = first_close[1] == ':';
        *addr = bracketed(first_open, &rest);
        if (has_port) {
            number = parse_port(strtok_r(nullptr, ":", &rest));
        }
    }
    if (port != nullptr) {
        *port = number;
    }
}

void IN6_XOR(const in46addr_t *x, const in46addr_t *a, const in46addr_t *b)
{
    in46addr_t result;
    for (size_t i = 0; i < sizeof result.s6_addr; ++i) {
        result.s6_addr[i] = a->s6_addr[i] ^ b->s6_addr[i];
    }
    *const_cast<in46addr_t *>(x) = result;
}

int IN6_CMP(const in46addr_t *a, const in46addr_t *b)
{
    for (int i : {0, 1}) {
        const auto difference = static_cast<int64_t>(half(*a, i) - half(*b, i));
        if (difference != 0) {
            return difference < 0 ? -1 : 1;
        }
    }
    return 0;
}
