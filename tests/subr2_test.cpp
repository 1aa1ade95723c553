// subr2_test.cpp - the host's addresses, MACs, cards and names: the rules on given sets of
// interfaces, the kernel's and the resolver's side in a private network.
#include "internal/hostaddrs.h"
#include "internal/in46addr.h"
#include "internal/netif.h"
#include "koutil/rawip.h"
#include "support/private_host.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

std::atomic<uint64_t> now{1'000'000'000};
std::atomic<int> rebuilds{0};
const char *slave = "none"; // the interface that reports IFF_SLAVE
const char *no_mac = "none";

} // namespace

// Both take the place of the originals for the library too.
extern "C" uint64_t MicroTime()
{
    return now++; // a clock that stands still counts as set back
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);
    const long result = syscall(SYS_ioctl, fd, request, argument);
    auto *named = static_cast<ifreq *>(argument);
    if (request == SIOCGIFCONF) {
        rebuilds++;
    } else if (request == SIOCGIFFLAGS && strcmp(named->ifr_name, slave) == 0) {
        named->ifr_flags = static_cast<short>(named->ifr_flags | IFF_SLAVE);
    } else if (request == SIOCGIFHWADDR && strcmp(named->ifr_name, no_mac) == 0) {
        return -1;
    }
    return static_cast<int>(result);
}

namespace
{

constexpr uint64_t kSecond = 1'000'000;

in46addr_t address(const std::string &text)
{
    in46addr_t result = {};
    const bool ipv6 = text.find(':') != std::string::npos;
    EXPECT_EQ(inet_pton(AF_INET6, (ipv6 ? text : "::ffff:" + text).c_str(), &result), 1) << text;
    return result;
}

std::string text_of(const in46addr_t &a)
{
    char name[256];
    return RawIp(&a, name);
}

il_info record(const char *name, const char *mac, const char *ipv4,
               const char *ipv6 = "::", int is_virtual = 0, int flags = IFF_UP)
{
    il_info info = {};
    strcpy(info.ifname, name);
    strcpy(info.macaddr, mac);
    inet_pton(AF_INET, ipv4, &info.ipaddr);
    inet_pton(AF_INET6, ipv6, &info.ip6addr);
    info.is_virtual = is_virtual;
    info.il_flags = flags;
    return info;
}

std::string join(const in46addr_t *addrs, size_t count)
{
    std::string text;
    for (size_t i = 0; i < count && !IN6_IS_ADDR_UNSPECIFIED(&addrs[i]); i++) {
        text += (i > 0 ? " " : "") + text_of(addrs[i]);
    }
    return text;
}

std::string join(const mac_addrs_t &macs)
{
    std::string text;
    for (int i = 0; i < macs.mac_addr_count; i++) {
        text += (i > 0 ? " " : "") + std::string(macs.mac_addr_str[i]);
    }
    return text;
}

std::string join(const SysNics_t &nics)
{
    std::string text;
    for (uint32_t i = 0; i < nics.si_count; i++) {
        const NicInfo_t &nic = nics.si_nic[i];
        text += (i > 0 ? ", " : "") + std::string(reinterpret_cast<const char *>(nic.ni_name)) +
                "=" + reinterpret_cast<const char *>(nic.ni_mac) + ": " +
                join(nic.ni_ipaddr, nic.ni_ipaddr_count);
    }
    return text;
}

ifname_list_t list_of(const std::vector<il_info> &records)
{
    ifname_list_t list = {};
    for (const il_info &each : records) {
        list.info[list.count++] = each;
    }
    return list;
}

std::string addrs_of(const ifname_list_t &list, int primary)
{
    in46addr_t addrs[HOST_ADDRS_MAX];
    koutil::make_addr_list(list, primary, addrs);
    return join(addrs, HOST_ADDRS_MAX);
}

// The host's lists as the library gives them out, one a line.
void print_lists()
{
    static SysNics_t nics;
    in46addr_t addrs[HOST_ADDRS_MAX];
    mac_addrs_t macs;
    enumerate_ip_addrs(addrs);
    enumerate_mac_addrs(&macs);
    GetAllNicBindings(&nics);
    printf("%s\n%s\n%s\n", join(addrs, HOST_ADDRS_MAX).c_str(), join(macs).c_str(),
           join(nics).c_str());
}

constexpr const char *kMac0 = "0x001122334455";
constexpr const char *kMac1 = "0x00112233445a";
constexpr const char *kMac2 = "0x0011223344ff";

} // namespace

TEST(Primary, FollowsPreferenceThenNameThenOrder)
{
    const il_info other = record("p1", kMac2, "10.2.0.5");
    const il_info alias = record("eth0:1", kMac0, "10.0.0.6", "::", 1);
    const il_info only6 = record("em1", kMac1, "0.0.0.0", "2001:db8::1");
    const il_info eth0 = record("eth0", kMac0, "10.0.0.5");
    const il_info eth1 = record("eth1", kMac1, "10.1.0.5", "2001:db8::2");
    const struct {
        std::vector<il_info> records;
        const char *ipv4, *ipv6;
        int primary;
    } cases[] = {
        {{}, "0.0.0.0", "::", -1},
        {{alias, only6, record("tun0", "", "10.3.0.5", "::", 1)}, "0.0.0.0", "::", -1},
        {{only6}, "0.0.0.0", "2001:db8::1", -1},
        {{other, eth1}, "0.0.0.0", "::", 0},
        {{other, alias, eth1, eth0}, "0.0.0.0", "::", 3},
        {{other, eth1, eth0}, "10.1.0.5", "::", 1},
        {{other, eth0, eth1}, "0.0.0.0", "2001:db8::2", 2},
        {{other, eth0, eth1}, "10.0.0.6", "2001:db8::3", 1},
        {{other, alias, eth1}, "10.0.0.6", "::", 0},
    };
    for (const auto &each : cases) {
        koutil::PreferredAddrs preferred = {};
        inet_pton(AF_INET, each.ipv4, &preferred.ipv4);
        inet_pton(AF_INET6, each.ipv6, &preferred.ipv6);
        EXPECT_EQ(koutil::choose_primary(list_of(each.records), preferred), each.primary)
            << &each - cases;
    }
}

TEST(Lists, PutThePrimaryFirstAndRealInterfacesBeforeVirtualOnes)
{
    const ifname_list_t list = list_of({record("eth0:1", kMac0, "10.0.0.6", "::", 1),
                                        record("eth1", kMac1, "10.1.0.5", "2001:db8::2"),
                                        record("eth1", kMac1, "0.0.0.0", "2001:db8::3", 1),
                                        record("eth0", kMac0, "10.0.0.5"),
                                        record("twin", kMac2, "10.1.0.5", "2001:db8::2"),
                                        record("nomac", "", "10.4.0.1", "::", 1)});
    mac_addrs_t macs;
    SysNics_t nics;
    koutil::make_mac_list(list, 3, macs);
    EXPECT_EQ(join(macs), std::string(kMac0) + " " + kMac1 + " " + kMac2);
    koutil::make_mac_list(list, -1, macs);
    EXPECT_EQ(join(macs), std::string(kMac0) + " " + kMac1 + " " + kMac2);
    // Only what equals the first entry is left out.
    EXPECT_EQ(addrs_of(list, 3), "10.0.0.5 10.1.0.5 2001:db8::2 10.1.0.5 2001:db8::2 10.0.0.6 "
                                 "2001:db8::3 10.4.0.1");
    EXPECT_EQ(addrs_of(list, -1), "10.1.0.5 2001:db8::2 10.0.0.5 2001:db8::2 10.0.0.6 "
                                  "2001:db8::3 10.4.0.1");
    koutil::make_nic_list(list, nics);
    EXPECT_EQ(join(nics), "eth1=00112233445a: 10.1.0.5 2001:db8::2 2001:db8::3, "
                          "eth0=001122334455: 10.0.0.5 10.0.0.6, "
                          "twin=0011223344ff: 10.1.0.5 2001:db8::2");
}

TEST(Lists, LeaveBareBondingSlavesOutOfTheCards)
{
    SysNics_t nics;
    koutil::make_nic_list(list_of({record("s1", kMac0, "0.0.0.0", "::", 0, IFF_UP | IFF_SLAVE),
                                   record("s2", kMac0, "0.0.0.0", "::", 0, IFF_SLAVE),
                                   record("bond0", kMac0, "10.0.0.5"),
                                   record("s3", kMac1, "10.0.0.6", "::", 0, IFF_SLAVE),
                                   record("bare", kMac2, "0.0.0.0")}),
                          nics);
    EXPECT_EQ(join(nics),
              "bond0=001122334455: 10.0.0.5, s3=00112233445a: 10.0.0.6, bare=0011223344ff: ");
    EXPECT_EQ(nics.si_nic[3].ni_name[0], 0) << "vacated cards are cleared";
}

TEST(Lists, LeaveOutWhatIsBeyondTheirRoom)
{
    ifname_list_t list = {};
    char mac[16];
    for (int i = 0; i < 130; i++) {
        snprintf(mac, sizeof mac, "0x0000000000%2.2x", static_cast<unsigned>(i + 1));
        const std::string name = "if" + std::to_string(i);
        koutil::append_records(
            list, record(name.c_str(), mac, ("10.0.1." + std::to_string(i)).c_str()), nullptr);
    }
    EXPECT_EQ(list.count, IFNAME_LIST_MAX);
    GetIfInfo(-1, -1, "more", &list, 1);
    EXPECT_EQ(list.count, IFNAME_LIST_MAX);
    for (int i = 60; i < 66; i++) {
        list.info[i] =
            record("if0", "0x000000000001", ("10.0.1." + std::to_string(i)).c_str(), "::", 1);
    }
    mac_addrs_t macs;
    SysNics_t nics;
    in46addr_t addrs[HOST_ADDRS_MAX];
    koutil::make_mac_list(list, 100, macs);
    EXPECT_EQ(macs.mac_addr_count, HOST_MACS_MAX);
    EXPECT_STREQ(macs.mac_addr_str[47], "0x00000000002f");
    koutil::make_addr_list(list, 100, addrs);
    EXPECT_EQ(text_of(addrs[0]) + " " + text_of(addrs[47]), "10.0.1.100 10.0.1.46");
    koutil::make_nic_list(list, nics);
    EXPECT_EQ(nics.si_count, static_cast<uint32_t>(HOST_NICS_MAX));
    EXPECT_EQ(join(nics.si_nic[0].ni_ipaddr, nics.si_nic[0].ni_ipaddr_count),
              "10.0.1.0 10.0.1.60 10.0.1.61 10.0.1.62 10.0.1.63");
}

TEST(Records, TakeEveryUsableIpv6AddressOfTheirInterface)
{
    char lines[] = "fe800000000000000000000000000001 02 40 20 80     eth0\n"
                   "20010db8000000000000000000000001 03 40 00 80     eth1\n"
                   "20010db8000000000000000000000002 02 40 00 80     eth0\n"
                   "ff020000000000000000000000000001 02 40 00 80     eth0\n"
                   "20010db80000000000000000000000zz 02 40 00 80     eth0\n"
                   "20010db8\n"
                   "20010db8000000000000000000000003 02 40 00 80     eth0\n"
                   "fc00000000000000000000000000000f 02 40 00 80     eth0";
    const struct {
        il_info first;
        std::string records;
    } cases[] = {
        {record("eth0", kMac0, "10.0.0.5"),
         "0 10.0.0.5 2001:db8::2; 1 0.0.0.0 2001:db8::3; 1 0.0.0.0 fc00::f; "},
        {record("eth1", kMac0, "0.0.0.0"), "0 0.0.0.0 2001:db8::1; "},
        {record("eth2", kMac0, "0.0.0.0"), "0 0.0.0.0 ::; "},
        {record("eth0", "", "10.0.0.5"), ""},
        {record("eth0", "", "0.0.0.0", "::", 1),
         "1 0.0.0.0 2001:db8::2; 1 0.0.0.0 2001:db8::3; 1 0.0.0.0 fc00::f; "},
        {record("eth2:1", "", "0.0.0.0", "::", 1), ""},
        {record("eth2:1", "", "10.0.0.6", "::", 1), "1 10.0.0.6 ::; "},
        {record("lookup0", kMac0, "10.0.0.5"), ""},
        {record("dummy7", kMac0, "10.0.0.5"), ""},
        {record("eth0", kMac0, "10.0.0.5", "::", 0, IFF_LOOPBACK), ""},
    };
    for (const auto &each : cases) {
        FILE *inet6 = fmemopen(lines, sizeof lines - 1, "r");
        ifname_list_t list = {};
        koutil::append_records(list, each.first, inet6);
        fclose(inet6);
        std::string records;
        for (int i = 0; i < list.count; i++) {
            const il_info &info = list.info[i];
            EXPECT_STREQ(info.macaddr, each.first.macaddr);
            char ipv4[32];
            inet_ntop(AF_INET, &info.ipaddr, ipv4, sizeof ipv4);
            records +=
                std::to_string(info.is_virtual) + " " + ipv4 + " " + text_of(info.ip6addr) + "; ";
        }
        EXPECT_EQ(records, each.records) << each.first.ifname;
    }
}

TEST(Addresses, AreUsableOrNot)
{
    for (const char *text :
         {"::", "::1", "::2", "::1.2.3.4", "::ffff:10.0.0.1", "ff02::1", "fe80::1", "febf::1"}) {
        EXPECT_FALSE(koutil::usable_ipv6(address(text))) << text;
    }
    for (const char *text : {"fec0::1", "2001:db8::1", "fd00::1", "1::", "::1:0:0:1"}) {
        EXPECT_TRUE(koutil::usable_ipv6(address(text))) << text;
    }
    for (const uint32_t bad : {INADDR_ANY, INADDR_LOOPBACK}) {
        EXPECT_FALSE(koutil::usable_ipv4(in_addr{htonl(bad)})) << bad;
        EXPECT_TRUE(koutil::usable_ipv4(in_addr{htonl(bad + 256)})) << bad;
    }
}

TEST(Staleness, GrowsFromFiveSecondsToAMinute)
{
    koutil::Staleness state = {0, 0};
    uint64_t at = 100 * kSecond;
    EXPECT_TRUE(koutil::is_stale(state, at));
    state.backoff = 0; // as the first build leaves it
    for (const uint64_t interval : {5, 5, 5, 5, 5, 5, 10, 10, 10, 15, 15, 15, 15, 30, 30, 60, 60}) {
        EXPECT_FALSE(koutil::is_stale(state, at + interval * kSecond - 1)) << interval;
        at += interval * kSecond;
        EXPECT_TRUE(koutil::is_stale(state, at)) << interval;
    }
    EXPECT_TRUE(koutil::is_stale(state, at)) << "the clock stands still";
    EXPECT_TRUE(koutil::is_stale(state, at - 50 * kSecond)) << "the clock was set back";
    EXPECT_EQ(state.backoff, 15);
    state.backoff = 1000;
    EXPECT_FALSE(koutil::is_stale(state, state.last_flush + 1));
}

namespace
{

constexpr const char *kTwoCards =
    "ip link add eth1 address 00:11:22:33:44:5a type veth peer name lopx1\n"
    "ip link add eth0 address 00:11:22:33:44:55 type veth peer name lopx0\n"
    "ip addr add 10.0.0.5/24 dev eth0\n"
    "ip addr add 10.1.0.5/24 dev eth1\n"
    "ip link set eth0 up\n"
    "ip link set eth1 up\n";

} // namespace

TEST(PrivateNetwork, ListsItsCardsAndNoticesChanges)
{
    const auto outcome = support::run_in_private_host([] {
        print_lists();
        support::run_commands(kTwoCards);
        now += 5 * kSecond;
        print_lists();
        support::run_commands("ip addr add 10.0.0.6/24 dev eth0 label eth0:1\n"
                              "ip -6 addr add 2001:db8::5/64 dev eth0 nodad\n"
                              "ip link add dummy0 type veth peer name br0\n"
                              "ip addr add 10.7.0.1/24 dev dummy0\n"
                              "ip link set br0 address 00:11:22:33:44:66\n"
                              "ip tuntap add tun0 mode tun\n"
                              "ip addr add 10.8.0.1/24 dev tun0\n");
        slave = "br0";
        no_mac = "eth0:1";
        print_lists(); // still the old lists
        now += 5 * kSecond;
        print_lists();
        support::run_commands("ip link del eth0\nip link del eth1\nip link del dummy0");
        now += 5 * kSecond;
        print_lists();
        return GetLocalAddrCount();
    });
    SKIP_IF_REFUSED(outcome);
    EXPECT_TRUE(outcome.exited(0)) << outcome.err;
    const std::string two = "10.0.0.5 10.1.0.5\n0x001122334455 0x00112233445a\n"
                            "eth1=00112233445a: 10.1.0.5, eth0=001122334455: 10.0.0.5\n";
    EXPECT_EQ(outcome.out, "\n\n\n" + two + two +
                               "10.0.0.5 10.1.0.5 2001:db8::5 10.0.0.6\n"
                               "0x001122334455 0x00112233445a 0x001122334466\n"
                               "eth1=00112233445a: 10.1.0.5, "
                               "eth0=001122334455: 10.0.0.5 2001:db8::5 10.0.0.6\n"
                               "\n\n\n");
}

TEST(PrivateNetwork, AnswersQuestionsAboutItsAddresses)
{
    const auto outcome = support::run_in_private_host([] {
        support::run_commands(kTwoCards);
        support::set_resolver("10.1.0.5 mynode\n", "files");
        printf("%d", GetLocalAddrCount());
        for (const char *text : {"10.0.0.5", "10.1.0.5", "10.2.0.5", "127.8.9.10", "128.0.0.1",
                                 "::1", "::7f00:1", "::"}) {
            in46addr_t a = address(text);
            printf(" %d%d", IsLocalAddr(&a), IsLocalExtAddr(&a));
            RemapLocalHost(&a);
            printf("=%s", text_of(a).c_str());
        }
        char name[64] = "untouched";
        for (const char *mac :
             {"001122334455", "00112233445A", "0011223344", "", "0011223344550"}) {
            const int found = get_ifname_by_macaddr(mac, name);
            printf("\n%d %s", found, found == 0 ? name : "-");
        }
        mac_addrs_t macs;
        enumerate_auth_ids(&macs);
        puts("");
        puts(join(macs).c_str());
        print_lists();
        ResetAddrLists();
        print_lists();
        return 0;
    });
    SKIP_IF_REFUSED(outcome);
    const std::string cards = "eth1=00112233445a: 10.1.0.5, eth0=001122334455: 10.0.0.5\n";
    EXPECT_EQ(outcome.out,
              "2 11=127.0.0.1 11=127.0.0.1 00=10.2.0.5 10=127.8.9.10 00=128.0.0.1 10=::1 "
              "00=::127.0.0.1 00=::1\n"
              "0 eth0\n0 eth1\n-1 -\n-1 -\n-1 -\n"
              "0x00112233445a 0x001122334455\n"
              "10.1.0.5 10.0.0.5\n0x00112233445a 0x001122334455\n" +
                  cards + "10.0.0.5 10.1.0.5\n0x001122334455 0x00112233445a\n" + cards)
        << outcome.err;
}

TEST(PrivateNetwork, RebuildsNoMoreOftenThanTheInterval)
{
    const auto outcome = support::run_in_private_host([] {
        support::run_commands(kTwoCards);
        std::atomic<int> local{0};
        const auto ask = [&local] {
            const in46addr_t a = address("10.0.0.5");
            for (int i = 0; i < 50; i++) {
                local += IsLocalAddr(&a);
            }
        };
        std::thread other(ask);
        ask();
        other.join();
        printf("%d %d", local.load(), rebuilds.load());
        now += 4 * kSecond;
        GetLocalAddrCount();
        printf(" %d", rebuilds.load());
        for (int i = 0; i < 6; i++) {
            now += 5 * kSecond;
            GetLocalAddrCount();
        }
        printf(" %d:%d", rebuilds.load(), saved_ipaddrs_backoff);
        now += 5 * kSecond;
        GetLocalAddrCount();
        printf(" %d", rebuilds.load());
        support::run_commands("ip addr add 10.5.0.1/24 dev eth1 label eth1:x");
        now += 5 * kSecond;
        GetLocalAddrCount();
        printf(" %d:%d", rebuilds.load(), saved_ipaddrs_backoff);
        return 0;
    });
    SKIP_IF_REFUSED(outcome);
    EXPECT_EQ(outcome.out, "100 1 1 7:6 7 8:0") << outcome.err;
}

TEST(PrivateNetwork, LooksNamesUpForOtherHosts)
{
    const auto outcome = support::run_in_private_host([] {
        support::run_commands(kTwoCards);
        support::set_resolver("127.0.1.1 mynode\n127.0.0.1 looped\n::1 looped6\nfe80::9 link\n"
                              "10.3.0.1 far\n2001:db8::9 far6\n10.1.0.5 second\n",
                              "files dns");
        const support::NameServer server;
        for (const char *name :
             {"localhost", "LocalHost.example", "127.",      "LOCALHOST6", "localhost6.x",
              "::1",       "localhosts",        "127",       "mynode",     "MYNODE",
              "looped",    "looped6",           "link",      "far",        "far6",
              "second",    "127.0.0.9",         "127.0.1.1", "::2",        "2130706433",
              "ff02::1",   "0.0.0.0",           "unknown",   "nodata",     "fail"}) {
            in46addr_t plain = address("9.9.9.9");
            in46addr_t found = plain;
            const int result = GetHostByName(name, &found);
            printf("%s %d %d %s", name, result, result < 0 ? errno : 0, text_of(found).c_str());
            const int code = _HostLookupR(name, &plain, 0);
            printf(" | %d %s\n", code, text_of(plain).c_str());
        }
        support::run_commands("ip -6 addr add 2001:db8::5/64 dev eth0 nodad");
        support::set_resolver("10.3.0.1 mynode\n10.1.0.5 mynode\n::1 looped6\n", "files");
        now += 5 * kSecond;
        for (const char *name : {"mynode", "looped6"}) {
            in46addr_t found;
            printf("%d ", GetHostByName(name, &found));
            puts(text_of(found).c_str());
        }
        support::run_commands("ip link del eth0; ip link del eth1");
        support::set_resolver("127.0.0.1 looped\n", "files");
        now += 5 * kSecond;
        for (const char *name : {"mynode", "looped"}) {
            in46addr_t found;
            printf("%d ", GetHostByName(name, &found));
            printf("%d %s\n", errno, text_of(found).c_str());
        }
        return 0;
    });
    SKIP_IF_REFUSED(outcome);
    EXPECT_EQ(outcome.out, "localhost 0 0 127.0.0.1 | 0 127.0.0.1\n"
                           "LocalHost.example 0 0 127.0.0.1 | 0 127.0.0.1\n"
                           "127. 0 0 127.0.0.1 | 0 127.0.0.1\n"
                           "LOCALHOST6 0 0 ::1 | 0 ::1\n"
                           "localhost6.x 0 0 ::1 | 0 ::1\n"
                           "::1 0 0 ::1 | 0 ::1\n"
                           "localhosts -1 2 :: | 2 ::\n"
                           "127 0 0 0.0.0.127 | 0 0.0.0.127\n"
                           "mynode 0 0 10.0.0.5 | 0 127.0.1.1\n"
                           "MYNODE 0 0 127.0.1.1 | 0 127.0.1.1\n"
                           "looped 0 0 10.0.0.5 | 2 ::\n"
                           "looped6 0 0 10.0.0.5 | 2 ::\n"
                           "link 0 0 10.0.0.5 | 2 ::\n"
                           "far 0 0 10.3.0.1 | 0 10.3.0.1\n"
                           "far6 0 0 2001:db8::9 | 0 2001:db8::9\n"
                           "second 0 0 10.1.0.5 | 0 10.1.0.5\n"
                           "127.0.0.9 0 0 127.0.0.1 | 0 127.0.0.1\n"
                           "127.0.1.1 0 0 127.0.0.1 | 0 127.0.0.1\n"
                           "::2 0 0 10.0.0.5 | 2 ::\n"
                           "2130706433 0 0 10.0.0.5 | 2 ::\n"
                           "ff02::1 0 0 10.0.0.5 | 2 ::\n"
                           "0.0.0.0 0 0 0.0.0.0 | 0 0.0.0.0\n"
                           "unknown -1 2 :: | 2 ::\n"
                           "nodata -1 22 :: | 22 ::\n"
                           "fail -1 11 :: | 11 ::\n"
                           "0 10.1.0.5\n"
                           "0 2001:db8::5\n"
                           "-1 2 ::\n"
                           "-1 2 ::\n")
        << outcome.err;
}
