// sock46_test.cpp - addresses of both families on real loopback sockets.
#include "koutil/sock46.h"

#include "internal/guards.h"
#include "internal/in46addr.h"
#include "koutil/rawip.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <string>
#include <sys/stat.h>

namespace
{

using koutil::Fd;

in46addr_t address(const char *text)
{
    in46addr_t result = {};
    in_addr ipv4 = {};
    if (inet_pton(AF_INET, text, &ipv4) == 1) {
        return koutil::map_ipv4(ipv4);
    }
    EXPECT_EQ(inet_pton(AF_INET6, text, &result), 1) << text;
    return result;
}

std::string text_of(const in46addr_t &a)
{
    char name[256];
    return RawIp(&a, name);
}

// A socket bound to a port of its own on loopback.
Fd bound_socket(int type, const char *host, uint16_t *port)
{
    const koutil::SocketAddress local = koutil::SocketAddress::of(address(host), 0);
    Fd fd(socket(local.family(), type, 0));
    in46addr_t own;
    EXPECT_EQ(bind(fd.get(), local.get(), local.length()), 0);
    EXPECT_EQ(GetSockName(fd.get(), &own, port), 0);
    EXPECT_EQ(text_of(own), host);
    return fd;
}

// An IPv6 socket that leaves the port's IPv4 half to others.
Fd ipv6_only(int type)
{
    Fd fd(socket(AF_INET6, type, 0));
    const int on = 1;
    EXPECT_EQ(setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on), 0);
    return fd;
}

ino_t identity(int fd)
{
    struct stat st = {};
    fstat(fd, &st);
    return st.st_ino;
}

int reuses_address(int fd)
{
    int on = -1;
    socklen_t length = sizeof on;
    getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, &length);
    return on;
}

class BothFamilies : public ::testing::TestWithParam<const char *>
{
};

} // namespace

TEST_P(BothFamilies, ConnectAndAcceptAgreeOnBothEnds)
{
    uint16_t port = 0;
    const Fd listener = bound_socket(SOCK_STREAM, GetParam(), &port);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    const in46addr_t server = address(GetParam());
    int error = -1;
    const Fd client(SockConnect(&server, port, &error));
    EXPECT_EQ(error, 0);
    in46addr_t peer = {};
    in46addr_t own = {};
    uint16_t peer_port = 0;
    uint16_t own_port = 0;
    const Fd accepted(Accept(listener.get(), &peer, &peer_port));
    EXPECT_EQ(GetSockName(client.get(), &own, &own_port), 0);
    EXPECT_EQ(IN6_CMP(&own, &peer), 0);
    EXPECT_EQ(own_port, peer_port);
    EXPECT_EQ(GetPeerName(client.get(), &peer, &peer_port), 0);
    EXPECT_EQ(text_of(peer), GetParam());
    EXPECT_EQ(peer_port, port);
    // A stream names no sender.
    ASSERT_EQ(send(client.get(), "x", 1, 0), 1);
    char byte;
    EXPECT_EQ(RecvFrom(accepted.get(), &byte, 1, 0, &peer, &peer_port), 1);
    EXPECT_EQ(text_of(peer), "::");
    EXPECT_EQ(peer_port, 0);
}

TEST_P(BothFamilies, DatagramsCarryTheSender)
{
    uint16_t port = 0;
    uint16_t sender_port = 0;
    const Fd receiver = bound_socket(SOCK_DGRAM, GetParam(), &port);
    const Fd sender = bound_socket(SOCK_DGRAM, GetParam(), &sender_port);
    const in46addr_t to = address(GetParam());
    const bool v4 = koutil::is_ipv4(to);
    char out[] = "hello";
    EXPECT_EQ(SendTo(v4 ? sender.get() : -1, v4 ? -1 : sender.get(), out, 5, 0, &to, port), 5);
    char in[16];
    in46addr_t from = {};
    uint16_t from_port = 0;
    EXPECT_EQ(RecvFrom(receiver.get(), in, sizeof in, 0, &from, &from_port), 5);
    EXPECT_EQ(text_of(from), GetParam());
    EXPECT_EQ(from_port, sender_port);
    EXPECT_EQ(RecvFrom(receiver.get(), in, sizeof in, MSG_DONTWAIT, &from, &from_port), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(text_of(from), "::");
    EXPECT_EQ(from_port, 0);
}

INSTANTIATE_TEST_SUITE_P(Sock46, BothFamilies, ::testing::Values("127.0.0.1", "::1"));

TEST(Sock46, FailuresKeepErrnoDescriptorsAndOutputs)
{
    const int descriptors = support::open_descriptors();
    uint16_t port = 0;
    bound_socket(SOCK_STREAM, "127.0.0.1", &port);
    const in46addr_t nobody = address("127.0.0.1");
    int error = 0;
    EXPECT_EQ(SockConnect(&nobody, port, &error), -1);
    EXPECT_EQ(error, ECONNREFUSED);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(support::open_descriptors(), descriptors);

    const Fd unconnected(socket(AF_INET, SOCK_STREAM, 0));
    in46addr_t a = address("1.2.3.4");
    uint16_t kept = 7;
    EXPECT_EQ(GetPeerName(unconnected.get(), &a, &kept), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(Accept(unconnected.get(), &a, &kept), -1);
    EXPECT_EQ(GetSockName(-1, &a, &kept), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(text_of(a), "1.2.3.4");
    EXPECT_EQ(kept, 7);
}

TEST(Sock46, SendToChoosesTheSocketByAddress)
{
    uint16_t port = 0;
    const Fd receiver = bound_socket(SOCK_DGRAM, "127.0.0.1", &port);
    const in46addr_t to4 = address("127.0.0.1");
    const in46addr_t to6 = address("fe80::1");
    const Fd dual(socket(AF_INET6, SOCK_DGRAM, 0));
    const Fd v4(socket(AF_INET, SOCK_DGRAM, 0));
    char byte[] = "x";
    EXPECT_EQ(SendTo(v4.get(), -1, byte, 1, 0, &to6, port), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_EQ(SendTo(-1, -1, byte, 1, 0, &to4, port), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_EQ(SendTo(-1, dual.get(), byte, 1, 0, &to4, port), 1); // as a mapped address
    EXPECT_EQ(SendTo(v4.get(), 9999, byte, 1, 0, &to4, port), 1); // the other one is not touched
    EXPECT_EQ(SendTo(-1, ipv6_only(SOCK_DGRAM).get(), byte, 1, 0, &to4, port), -1);
    EXPECT_EQ(errno, ENETUNREACH);
    EXPECT_EQ(recv(receiver.get(), byte, 1, 0), 1);
    EXPECT_EQ(recv(receiver.get(), byte, 1, MSG_DONTWAIT), 1);
}

TEST(BindSame, LeavesTheChoiceOfOneSocketsPortToTheSystem)
{
    SOCKET_T none = -1;
    EXPECT_EQ(BindSame(&none, &none, 1, 2), 0);
    for (int family : {AF_INET, AF_INET6}) {
        const Fd fd(socket(family, SOCK_STREAM, 0));
        SOCKET_T s4 = family == AF_INET ? fd.get() : -1;
        SOCKET_T s6 = family == AF_INET6 ? fd.get() : -1;
        const int port = BindSame(&s4, &s6, 0, 0);
        EXPECT_GT(port, 0);
        in46addr_t own;
        uint16_t own_port = 0;
        EXPECT_EQ(GetSockName(fd.get(), &own, &own_port), 0);
        EXPECT_EQ(own_port, port);
        EXPECT_EQ(reuses_address(fd.get()), 0);
        EXPECT_EQ(BindSame(&s4, &s6, 0, 9), 0);    // it cannot be bound twice
        EXPECT_EQ(BindSame(&s4, &s6, 5000, 0), 0); // an empty range
        EXPECT_EQ(reuses_address(fd.get()), 1);
    }
    SOCKET_T file = 0;
    EXPECT_EQ(BindSame(&file, &none, 1, 2), -1);
}

TEST(BindSame, ReplacesTheIpv4SocketWhenTheIpv6PortIsTaken)
{
    for (int type : {SOCK_STREAM, SOCK_DGRAM}) {
        // Another's IPv6 socket takes a port whose IPv4 half is free.
        const Fd holder = ipv6_only(type);
        SOCKET_T s4 = -1;
        SOCKET_T s6 = holder.get();
        const int taken = BindSame(&s4, &s6, 0, 0);
        ASSERT_GT(taken, 0);
        ASSERT_LT(taken, 65535);
        if (type == SOCK_STREAM) {
            ASSERT_EQ(listen(holder.get(), 1), 0);
        }
        const Fd mine6 = ipv6_only(type);
        s4 = socket(AF_INET, type, 0);
        s6 = mine6.get();
        const ino_t before = identity(s4);
        EXPECT_EQ(BindSame(&s4, &s6, taken, taken), 0);
        EXPECT_NE(identity(s4), before);
        EXPECT_EQ(reuses_address(s4), type == SOCK_STREAM);
        const int port = BindSame(&s4, &s6, taken, taken + 50 > 65535 ? 65535 : taken + 50);
        EXPECT_GT(port, taken);
        in46addr_t own;
        uint16_t port4 = 0;
        uint16_t port6 = 0;
        EXPECT_EQ(GetSockName(s4, &own, &port4), 0);
        EXPECT_EQ(GetSockName(s6, &own, &port6), 0);
        EXPECT_EQ(port4, port);
        EXPECT_EQ(port6, port);
        close(s4);
    }
}

TEST(BindSame, RangesStayWithinThePorts)
{
    const Fd fd4(socket(AF_INET, SOCK_DGRAM, 0));
    const Fd fd6 = ipv6_only(SOCK_DGRAM);
    SOCKET_T s4 = fd4.get();
    SOCKET_T s6 = fd6.get();
    SOCKET_T none = -1;
    EXPECT_EQ(BindSame(&s4, &s6, 5000, 4000), 0);
    EXPECT_EQ(BindSame(&s4, &s6, 0, 5000), 0);
    EXPECT_EQ(BindSame(&s4, &s6, 65536, 70000), 0);
    EXPECT_EQ(BindSame(&s4, &none, 65536, 65536), 0);
    EXPECT_EQ(BindSame(&s4, &none, -3, -1), 0);
    in46addr_t own;
    uint16_t port = 1;
    EXPECT_EQ(GetSockName(s4, &own, &port), 0);
    EXPECT_EQ(port, 0); // nothing was bound on the way
    const int both = BindSame(&s4, &s6, 0, 0);
    EXPECT_GE(both, 49152);
    const Fd late(socket(AF_INET, SOCK_DGRAM, 0));
    s4 = late.get();
    EXPECT_EQ(BindSame(&s4, &none, both, both), 0);
    const int last = BindSame(&s4, &none, 65535, 70000);
    EXPECT_TRUE(last == 65535 || last == 0) << last;
}

TEST(Sock46, SplitsAddressAndPort)
{
    const struct {
        const char *input;
        const char *addr; // null: none
        int port;
    } cases[] = {
        {"host", "host", 0},
        {"host 80", "host", 0},
        {"]", "]", 0},
        {"", nullptr, 0},
        {" \t", nullptr, 0},
        {"10.1.2.3:8080", "10.1.2.3", 8080},
        {"host: 80", "host", 80},
        {"host :80", "host", 0},
        {":8080", "8080", 0},
        {"host:80x", "host", 80},
        {"host:abc", "host", 0},
        {"host:65537", "host", 1},
        {"host:-1", "host", 65535},
        {"[10.0.0.1]:80", "[10.0.0.1]", 80},
        {"[]:80", "[]", 80},
        {"fe80::1", "fe80::1", 0},
        {" fe80::1 80", "fe80::1", 0},
        {"[fe80::1]:8080", "fe80::1", 8080},
        {"[fe80::1]", "fe80::1", 0},
        {"[::1] 80", "::1", 0},
        {"[::1]: ", "::1", 0},
        {"]::[::1]:5", "::1", 5},
        {"::1]", nullptr, 0},
        {"[]:80:1", nullptr, 80},
    };
    for (const auto &c : cases) {
        std::string text = c.input;
        char *addr = text.data();
        unsigned short port = 1;
        ExtractAddrPort(text.data(), &addr, &port);
        EXPECT_EQ(addr == nullptr, c.addr == nullptr) << c.input;
        if (addr != nullptr && c.addr != nullptr) {
            EXPECT_STREQ(addr, c.addr) << c.input;
        }
        EXPECT_EQ(port, c.port) << c.input;
        text = c.input;
        ExtractAddrPort(text.data(), &addr, nullptr);
        EXPECT_EQ(addr == nullptr, c.addr == nullptr) << c.input;
    }
}

TEST(Sock46, ComparesByWrappingDifference)
{
    const auto compare = [](const char *left, const char *right) {
        const in46addr_t a = address(left);
        const in46addr_t b = address(right);
        return IN6_CMP(&a, &b);
    };
    EXPECT_EQ(compare("::1", "::2"), -1);
    EXPECT_EQ(compare("::1:0:0", "::1"), 1);
    EXPECT_EQ(compare("1::", "::ffff"), 1);
    EXPECT_EQ(compare("fe80::7", "fe80::7"), 0);
    EXPECT_EQ(compare("ffff::", "::"), -1);
    EXPECT_EQ(compare("8000::", "::"), -1);
    EXPECT_EQ(compare("::", "8000::"), -1);

    in46addr_t a = address("ff00::1");
    const in46addr_t b = address("f0f0::3");
    IN6_XOR(&a, &a, &b);
    EXPECT_EQ(text_of(a), "ff0::2");
}

TEST(RawIp, PrintsEitherFamily)
{
    EXPECT_EQ(text_of(address("192.168.1.20")), "192.168.1.20");
    EXPECT_EQ(text_of(address("2001:db8::1")), "2001:db8::1");
    EXPECT_EQ(text_of(address("::1.2.3.4")), "::1.2.3.4");
    EXPECT_EQ(text_of(address("1::ffff:1.2.3.4")), "1::ffff:102:304");
    char name[256];
    EXPECT_STREQ(koutil::raw_ip_groups(address("2001:db8::ff01"), name), "2001:db8:0:0:0:0:0:ff01");
}
