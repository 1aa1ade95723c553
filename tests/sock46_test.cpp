// sock46_test.cpp - addresses of both families on real loopback sockets.
#include "koutil/sock46.h"

#include "internal/guards.h"
#include "internal/in46addr.h"
#include "support/addresses.h"
#include "support/support.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace
{

using koutil::Fd;
using support::address;
using support::text_of;

// One end of a connection as the calls report it.
struct End {
    in46addr_t at = address("1.2.3.4");
    uint16_t port = 7;
    std::string text() const { return text_of(at) + " " + std::to_string(port); }
};

End own_end(int fd)
{
    End own;
    EXPECT_EQ(GetSockName(fd, &own.at, &own.port), 0);
    return own;
}

// A socket bound to a port of its own on loopback.
Fd bound_socket(int type, const char *host)
{
    const koutil::SocketAddress local = koutil::SocketAddress::of(address(host), 0);
    Fd fd(socket(local.family(), type, 0));
    EXPECT_EQ(bind(fd.get(), local.get(), local.length()), 0);
    EXPECT_EQ(text_of(own_end(fd.get()).at), host);
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

} // namespace

TEST(Sock46, ConnectAndAcceptAgreeOnBothEnds)
{
    for (const char *host : {"127.0.0.1", "::1"}) {
        const Fd listener = bound_socket(SOCK_STREAM, host);
        const End server = own_end(listener.get());
        ASSERT_EQ(listen(listener.get(), 1), 0);
        int error = -1;
        const Fd client(SockConnect(&server.at, server.port, &error));
        EXPECT_EQ(error, 0);
        End seen;
        const Fd accepted(Accept(listener.get(), &seen.at, &seen.port));
        EXPECT_EQ(seen.text(), own_end(client.get()).text());
        EXPECT_EQ(GetPeerName(client.get(), &seen.at, &seen.port), 0);
        EXPECT_EQ(seen.text(), server.text());
        ASSERT_EQ(send(client.get(), "x", 1, 0), 1);
        char byte;
        EXPECT_EQ(RecvFrom(accepted.get(), &byte, 1, 0, &seen.at, &seen.port), 1);
        EXPECT_EQ(seen.text(), ":: 0") << "a stream names no sender";
    }
}

TEST(Sock46, FailuresKeepErrnoDescriptorsAndOutputs)
{
    const Fd fd = bound_socket(SOCK_STREAM, "127.0.0.1"); // not listening
    const End deaf = own_end(fd.get());
    const int descriptors = support::open_descriptors();
    int error = 0;
    EXPECT_EQ(SockConnect(&deaf.at, deaf.port, &error), -1);
    EXPECT_EQ(error, ECONNREFUSED);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(support::open_descriptors(), descriptors);
    End seen;
    EXPECT_EQ(GetPeerName(fd.get(), &seen.at, &seen.port), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(seen.text(), End().text());
}

TEST(Sock46, DatagramsTakeTheSocketOfTheirFamilyAndNameTheSender)
{
    const Fd to4 = bound_socket(SOCK_DGRAM, "127.0.0.1");
    const Fd to6 = bound_socket(SOCK_DGRAM, "::1");
    const Fd v4(socket(AF_INET, SOCK_DGRAM, 0));
    const Fd dual(socket(AF_INET6, SOCK_DGRAM, 0));
    const Fd only6 = ipv6_only(SOCK_DGRAM);
    const struct {
        int fd4, fd6;
        const Fd &to;
        int error;
        const Fd &sender;
    } cases[] = {
        {v4.get(), -1, to6, EAFNOSUPPORT, v4},
        {-1, -1, to4, EAFNOSUPPORT, v4},
        {-1, only6.get(), to4, ENETUNREACH, v4}, // the platform's own answer
        {-1, dual.get(), to4, 0, dual},          // as a mapped address
        {v4.get(), 9999, to4, 0, v4},
        {9999, only6.get(), to6, 0, only6},
    };
    char byte[] = "x";
    for (const auto &c : cases) {
        const End to = own_end(c.to.get());
        errno = 0;
        EXPECT_EQ(SendTo(c.fd4, c.fd6, byte, 1, 0, &to.at, to.port), c.error == 0 ? 1 : -1);
        EXPECT_EQ(errno, c.error);
        End seen;
        const End from = {to.at, own_end(c.sender.get()).port};
        const ssize_t got = RecvFrom(c.to.get(), byte, 1, MSG_DONTWAIT, &seen.at, &seen.port);
        EXPECT_EQ(got, c.error == 0 ? 1 : -1);
        EXPECT_EQ(seen.text(), c.error == 0 ? from.text() : ":: 0");
    }
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
        EXPECT_EQ(own_end(fd.get()).port, port);
        EXPECT_EQ(reuses_address(fd.get()), 0);
        EXPECT_EQ(BindSame(&s4, &s6, 0, 9), 0) << "it cannot be bound twice";
        EXPECT_EQ(reuses_address(fd.get()), 1);
    }
    const Fd file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    SOCKET_T s4 = file.get();
    EXPECT_EQ(BindSame(&s4, &none, 1, 2), -1);
}

TEST(BindSame, ReplacesTheIpv4SocketWhenTheIpv6PortIsTaken)
{
    for (int type : {SOCK_STREAM, SOCK_DGRAM}) {
        const Fd holder = ipv6_only(type);
        SOCKET_T s4 = -1;
        SOCKET_T s6 = holder.get();
        const int taken = BindSame(&s4, &s6, 0, 0);
        ASSERT_GT(taken, 0);
        ASSERT_TRUE(type == SOCK_DGRAM || listen(s6, 1) == 0);
        const Fd mine6 = ipv6_only(type);
        s4 = socket(AF_INET, type, 0);
        s6 = mine6.get();
        const ino_t before = identity(s4);
        EXPECT_EQ(BindSame(&s4, &s6, taken, taken), 0);
        EXPECT_NE(identity(s4), before);
        EXPECT_EQ(reuses_address(s4), type == SOCK_STREAM);
        const int port = BindSame(&s4, &s6, taken, taken + 50);
        EXPECT_GT(port, taken);
        EXPECT_EQ(own_end(s4).port, port);
        EXPECT_EQ(own_end(s6).port, port);
        close(s4);
    }
}

TEST(BindSame, RangesStayWithinThePorts)
{
    const Fd fd4(socket(AF_INET, SOCK_DGRAM, 0));
    const Fd fd6 = ipv6_only(SOCK_DGRAM);
    const struct {
        SOCKET_T s4, s6;
        int low, high;
    } empty[] = {{fd4.get(), fd6.get(), 5000, 4000},
                 {fd4.get(), fd6.get(), 0, 5000},
                 {fd4.get(), fd6.get(), 65536, 70000},
                 {fd4.get(), -1, 65536, 65536},
                 {fd4.get(), -1, -3, -1},
                 {-1, fd6.get(), 5000, 0}};
    for (auto each : empty) {
        EXPECT_EQ(BindSame(&each.s4, &each.s6, each.low, each.high), 0) << each.low;
    }
    SOCKET_T s4 = fd4.get();
    SOCKET_T s6 = fd6.get();
    EXPECT_EQ(own_end(s4).port + own_end(s6).port, 0) << "nothing was bound on the way";
    EXPECT_GE(BindSame(&s4, &s6, 0, 0), 49152);
    const Fd late(socket(AF_INET, SOCK_DGRAM, 0));
    s4 = late.get();
    s6 = -1;
    const int last = BindSame(&s4, &s6, 65535, 70000);
    EXPECT_TRUE(last == 65535 || last == 0) << last;
}

TEST(Sock46, SplitsAddressAndPort)
{
    const struct {
        const char *input, *addr; // null: none
        int port;
    } cases[] = {{"host 80", "host", 0},
                 {"]", "]", 0},
                 {"", nullptr, 0},
                 {" \t", nullptr, 0},
                 {"10.1.2.3:8080", "10.1.2.3", 8080},
                 {"host: 80", "host", 80},
                 {"host :80", "host", 0},
                 {":8080", "8080", 0},
                 {"host:80x", "host", 80},
                 {"host:65537", "host", 1},
                 {"host:-1", "host", 65535},
                 {"[10.0.0.1]:80", "[10.0.0.1]", 80},
                 {"[]:80", "[]", 80},
                 {" fe80::1 80", "fe80::1", 0},
                 {"[fe80::1]:8080", "fe80::1", 8080},
                 {"[::1] 80", "::1", 0},
                 {"[::1]: ", "::1", 0},
                 {"]::[::1]:5", "::1", 5},
                 {"::1]", nullptr, 0},
                 {"[]:80:1", nullptr, 80}};
    for (const auto &c : cases) {
        for (const bool with_port : {true, false}) {
            std::string text = c.input;
            char *addr = text.data();
            unsigned short port = 1;
            ExtractAddrPort(text.data(), &addr, with_port ? &port : nullptr);
            EXPECT_STREQ(addr, c.addr) << c.input;
            EXPECT_EQ(port, with_port ? c.port : 1) << c.input;
        }
    }
}

TEST(Sock46, ComparesByWrappingDifferenceAndPrints)
{
    const struct {
        const char *left, *right;
        int result;
    } cases[] = {{"::1", "::2", -1},    {"::1:0:0", "::1", 1},        {"1::", "::ffff", 1},
                 {"::7", "::7", 0},     {"ffff::", "::", -1},         {"8000::", "::", -1},
                 {"::", "8000::", -1},  {"fe80::", "fe80::", 0},      {"::1.2.3.4", "::1", 1},
                 {"1.2.3.4", "::1", 1}, {"1::ffff:102:304", "1::", 1}};
    for (const auto &c : cases) {
        const in46addr_t a = address(c.left);
        const in46addr_t b = address(c.right);
        EXPECT_EQ(IN6_CMP(&a, &b), c.result) << c.left;
        EXPECT_EQ(text_of(a), c.left);
    }
    in46addr_t a = address("ff00::1");
    const in46addr_t b = address("f0f0::3");
    IN6_XOR(&a, &a, &b);
    EXPECT_EQ(text_of(a), "ff0::2");
    char name[256];
    EXPECT_STREQ(koutil::raw_ip_groups(address("2001:db8::ff01"), name), "2001:db8:0:0:0:0:0:ff01");
}
