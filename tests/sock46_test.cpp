// sock46_test.cpp - addresses of both families on real loopback sockets.
#include "koutil/sock46.h"

#include "internal/guards.h"
#include "internal/in46addr.h"
#include "koutil/rawip.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
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

// One end of a connection as the calls report it.
struct End {
    in46addr_t at = address("1.2.3.4");
    uint16_t port = 7;
    bool operator==(const End &other) const
    {
        return IN6_CMP(&at, &other.at) == 0 && port == other.port;
    }
};
const End untouched;
const End nobody = {{}, 0};

// A socket bound to a port of its own on loopback.
Fd bound_socket(int type, const char *host, End *own)
{
    const koutil::SocketAddress local = koutil::SocketAddress::of(address(host), 0);
    Fd fd(socket(local.family(), type, 0));
    EXPECT_EQ(bind(fd.get(), local.get(), local.length()), 0);
    EXPECT_EQ(GetSockName(fd.get(), &own->at, &own->port), 0);
    EXPECT_EQ(text_of(own->at), host);
    EXPECT_GT(own->port, 0);
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

int port_of(int fd)
{
    End own;
    return GetSockName(fd, &own.at, &own.port) == 0 ? own.port : -1;
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
    End server;
    const Fd listener = bound_socket(SOCK_STREAM, GetParam(), &server);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    int error = -1;
    const Fd client(SockConnect(&server.at, server.port, &error));
    EXPECT_EQ(error, 0);
    End seen;
    End own;
    const Fd accepted(Accept(listener.get(), &seen.at, &seen.port));
    EXPECT_EQ(GetSockName(client.get(), &own.at, &own.port), 0);
    EXPECT_EQ(seen, own);
    EXPECT_EQ(GetPeerName(client.get(), &seen.at, &seen.port), 0);
    EXPECT_EQ(seen, server);
    ASSERT_EQ(send(client.get(), "x", 1, 0), 1);
    char byte;
    EXPECT_EQ(RecvFrom(accepted.get(), &byte, 1, 0, &seen.at, &seen.port), 1);
    EXPECT_EQ(seen, nobody); // a stream names no sender
}

TEST_P(BothFamilies, DatagramsCarryTheSender)
{
    End to;
    End from;
    End seen;
    const Fd receiver = bound_socket(SOCK_DGRAM, GetParam(), &to);
    const Fd sender = bound_socket(SOCK_DGRAM, GetParam(), &from);
    const int fd4 = koutil::is_ipv4(to.at) ? sender.get() : -1;
    const int fd6 = koutil::is_ipv4(to.at) ? -1 : sender.get();
    char text[16] = "hello";
    EXPECT_EQ(SendTo(fd4, fd6, text, 5, 0, &to.at, to.port), 5);
    EXPECT_EQ(RecvFrom(receiver.get(), text, sizeof text, 0, &seen.at, &seen.port), 5);
    EXPECT_EQ(seen, from);
    EXPECT_EQ(RecvFrom(receiver.get(), text, 1, MSG_DONTWAIT, &seen.at, &seen.port), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(seen, nobody);
}

INSTANTIATE_TEST_SUITE_P(Sock46, BothFamilies, ::testing::Values("127.0.0.1", "::1"));

TEST(Sock46, FailuresKeepErrnoDescriptorsAndOutputs)
{
    End deaf; // bound, but not listening
    const Fd fd = bound_socket(SOCK_STREAM, "127.0.0.1", &deaf);
    const int descriptors = support::open_descriptors();
    int error = 0;
    EXPECT_EQ(SockConnect(&deaf.at, deaf.port, &error), -1);
    EXPECT_EQ(error, ECONNREFUSED);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(support::open_descriptors(), descriptors);

    End seen;
    EXPECT_EQ(GetPeerName(fd.get(), &seen.at, &seen.port), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(Accept(fd.get(), &seen.at, &seen.port), -1);
    EXPECT_EQ(GetSockName(-1, &seen.at, &seen.port), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(seen, untouched);
}

TEST(Sock46, SendToChoosesTheSocketByAddress)
{
    End to;
    const Fd receiver = bound_socket(SOCK_DGRAM, "127.0.0.1", &to);
    const in46addr_t to6 = address("fe80::1");
    const Fd dual(socket(AF_INET6, SOCK_DGRAM, 0));
    const Fd v6 = ipv6_only(SOCK_DGRAM);
    const Fd v4(socket(AF_INET, SOCK_DGRAM, 0));
    const struct {
        int fd4, fd6;
        const in46addr_t *to;
        ssize_t result;
        int error;
    } cases[] = {
        {v4.get(), -1, &to6, -1, EAFNOSUPPORT},  {-1, -1, &to.at, -1, EAFNOSUPPORT},
        {-1, v6.get(), &to.at, -1, ENETUNREACH}, // the platform's own answer
        {-1, dual.get(), &to.at, 1, 0},          // as a mapped address
        {v4.get(), 9999, &to.at, 1, 0},          // the other one is not touched
    };
    char byte[] = "x";
    for (const auto &c : cases) {
        errno = 0;
        EXPECT_EQ(SendTo(c.fd4, c.fd6, byte, 1, 0, c.to, to.port), c.result);
        EXPECT_EQ(errno, c.error);
    }
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
        EXPECT_EQ(port_of(fd.get()), port);
        EXPECT_EQ(reuses_address(fd.get()), 0);
        EXPECT_EQ(BindSame(&s4, &s6, 0, 9), 0);    // it cannot be bound twice
        EXPECT_EQ(BindSame(&s4, &s6, 5000, 0), 0); // an empty range
        EXPECT_EQ(reuses_address(fd.get()), 1);
    }
    SOCKET_T file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(BindSame(&file, &none, 1, 2), -1);
    close(file);
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
        EXPECT_EQ(port_of(s4), port);
        EXPECT_EQ(port_of(s6), port);
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
    EXPECT_EQ(port_of(s4), 0); // nothing was bound on the way
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
