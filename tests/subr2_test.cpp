// subr2_test.cpp - the host's addresses, MACs, cards and names: the rules on given sets of
// interfaces, the kernel's and the resolver's side in a private network.
#include "koutil/subr2.h"

#include "internal/hostaddrs.h"
#include "internal/in46addr.h"
#include "internal/netif.h"
#include "support/addresses.h"
#include "support/private_host.h"

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <net/if.h>
#include <netdb.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

std::atomic<uint64_t> now{1'000'000'000};
std::atomic<int> rebuilds{0};

} // namespace

// These take the place of the originals for the library too.
extern "C" uint64_t MicroTime()
{
    return now++; // a clock that stands still counts as set back
}

// An alias eth0:1 has no MAC of its own, and br0 is a bonding slave.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    auto *named = va_arg(args, ifreq *);
    va_end(args);
    const long result = syscall(SYS_ioctl, fd, request, named);
    rebuilds += request == SIOCGIFCONF;
    if (request == SIOCGIFFLAGS && strcmp(named->ifr_name, "br0") == 0) {
        named->ifr_flags = static_cast<short>(named->ifr_flags | IFF_SLAVE);
    }
    const bool refused = request == SIOCGIFHWADDR && strcmp(named->ifr_name, "eth0:1") == 0;
    return refused ? -1 : static_cast<int>(result);
}

// The name "nodata" exists without an address, "fail" is asked of a server that does not answer.
extern "C" int getaddrinfo(const char *name, const char *service, const addrinfo *hints,
                           addrinfo **found)
{
    static const auto next =
        reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return strcmp(name, "nodata") == 0 ? EAI_NODATA
           : strcmp(name, "fail") == 0 ? EAI_AGAIN
                                       : next(name, service, hints, found);
}

namespace
{

using support::address;
using support::text_of;

constexpr uint64_t kSecond = 1'000'000;
constexpr const char *kMac0 = "0x001122334455";
constexpr const char *kMac1 = "0x00112233445a";
constexpr const char *kMac2 = "0x0011223344ff";

il_info record(const std::string &name, const char *mac, const std::string &ipv4,
               const char *ipv6 = "::", int is_virtual = 0, int flags = IFF_UP)
{
    il_info info = {};
    name.copy(info.ifname, sizeof info.ifname - 1);
    strcpy(info.macaddr, mac);
    inet_pton(AF_INET, ipv4.c_str(), &info.ipaddr);
    inet_pton(AF_INET6, ipv6, &info.ip6addr);
    info.is_virtual = is_virtual;
    info.il_flags = flags;
    return info;
}

ifname_list_t list_of(const std::vector<il_info> &records)
{
    ifname_list_t list = {};
    for (const il_info &each : records) {
        list.info[list.count++] = each;
    }
    return list;
}

std::string join(const in46addr_t *addrs, size_t count)
{
    std::string text;
    for (size_t i = 0; i < count && !IN6_IS_ADDR_UNSPECIFIED(&addrs[i]); i++) {
        text += " " + text_of(addrs[i]);
    }
    return text + "\n";
}

std::string join(const mac_addrs_t &macs)
{
    std::string text;
    for (int i = 0; i < macs.mac_addr_count; i++) {
        text += " " + std::string(macs.mac_addr_str[i]);
    }
    return text + "\n";
}

std::string join(const SysNics_t &nics)
{
    std::string text;
    for (const NicInfo_t *nic = nics.si_nic; nic < nics.si_nic + nics.si_count; nic++) {
        text += std::string(reinterpret_cast<const char *>(nic->ni_name)) + "=" +
                reinterpret_cast<const char *>(nic->ni_mac) +
                join(nic->ni_ipaddr, nic->ni_ipaddr_count);
    }
    return text;
}

// The lists that follow from given records, and those that the library gives out.
struct Lists {
    in46addr_t addrs[HOST_ADDRS_MAX];
    mac_addrs_t macs;
    SysNics_t nics;

    Lists(const ifname_list_t &list, int primary)
    {
        koutil::make_addr_list(list, primary, addrs);
        koutil::make_mac_list(list, primary, macs);
        koutil::make_nic_list(list, nics);
    }
    Lists()
    {
        enumerate_ip_addrs(addrs);
        enumerate_mac_addrs(&macs);
        GetAllNicBindings(&nics);
    }
    std::string text() const { return join(addrs, HOST_ADDRS_MAX) + join(macs) + join(nics); }
};

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
        {{alias, only6, record("tun0", "", "10.3.0.5", "::", 1)}, "10.0.0.6", "2001:db8::1", -1},
        {{other, eth1}, "0.0.0.0", "::", 0},
        {{other, alias, eth1, eth0}, "0.0.0.0", "::", 3},
        {{other, eth1, eth0}, "10.1.0.5", "::", 1},
        {{other, eth0, eth1}, "0.0.0.0", "2001:db8::2", 2},
        {{other, eth0, eth1}, "10.0.0.6", "2001:db8::3", 1},
    };
    for (const auto &each : cases) {
        const il_info preferred = record("", "", each.ipv4, each.ipv6);
        const ifname_list_t list = list_of(each.records);
        EXPECT_EQ(koutil::choose_primary(list, {preferred.ipaddr, preferred.ip6addr}), each.primary)
            << &each - cases;
    }
}

TEST(Lists, PutThePrimaryFirstAndRealInterfacesBeforeVirtualOnes)
{
    const ifname_list_t list = list_of({record("eth0:1", kMac0, "10.0.0.6", "::", 1),
                                        record("eth1", kMac1, "10.1.0.5", "2001:db8::2"),
                                        record("s1", kMac0, "0.0.0.0", "::", 0, IFF_SLAVE),
                                        record("s2", kMac0, "0.0.0.0", "::", 0, IFF_SLAVE),
                                        record("eth1", kMac1, "0.0.0.0", "2001:db8::3", 1),
                                        record("eth0", kMac0, "10.0.0.5"),
                                        record("twin", kMac2, "10.1.0.5", "::", 0, IFF_SLAVE),
                                        record("nomac", "", "10.4.0.1", "::", 1)});
    const std::string rest = " 0x001122334455 0x00112233445a 0x0011223344ff\n"
                             "eth1=00112233445a 10.1.0.5 2001:db8::2 2001:db8::3\n"
                             "eth0=001122334455 10.0.0.5 10.0.0.6\n"
                             "twin=0011223344ff 10.1.0.5\n";
    // Only what equals the first entry is left out.
    EXPECT_EQ(Lists(list, 5).text(), " 10.0.0.5 10.1.0.5 2001:db8::2 10.1.0.5 10.0.0.6 2001:db8::3 "
                                     "10.4.0.1\n" +
                                         rest);
    EXPECT_EQ(Lists(list, -1).text(),
              " 10.1.0.5 2001:db8::2 10.0.0.5 10.0.0.6 2001:db8::3 10.4.0.1\n" + rest);
    EXPECT_EQ(Lists(list, 5).nics.si_nic[3].ni_name[0], 0) << "vacated cards are cleared";
}

TEST(Lists, LeaveOutWhatIsBeyondTheirRoom)
{
    ifname_list_t list = {};
    char mac[16];
    for (int i = 0; i < 130; i++) {
        const std::string n = std::to_string(i);
        snprintf(mac, sizeof mac, "0x0000000000%2.2x", static_cast<unsigned>(i + 1));
        koutil::append_records(list, record("if" + n, mac, "10.0.1." + n), nullptr);
    }
    GetIfInfo(-1, -1, "more", &list, 1);
    EXPECT_EQ(list.count, IFNAME_LIST_MAX);
    for (int i = 60; i < 66; i++) {
        list.info[i] = record("if0", "0x000000000001", "10.0.1." + std::to_string(i), "::", 1);
    }
    const Lists lists(list, 100);
    EXPECT_EQ(lists.macs.mac_addr_count, HOST_MACS_MAX);
    EXPECT_STREQ(lists.macs.mac_addr_str[47], "0x00000000002f");
    EXPECT_EQ(text_of(lists.addrs[0]) + " " + text_of(lists.addrs[47]), "10.0.1.100 10.0.1.46");
    EXPECT_EQ(lists.nics.si_count, static_cast<uint32_t>(HOST_NICS_MAX));
    EXPECT_EQ(join(lists.nics.si_nic[0].ni_ipaddr, lists.nics.si_nic[0].ni_ipaddr_count),
              " 10.0.1.0 10.0.1.60 10.0.1.61 10.0.1.62 10.0.1.63\n");
}

TEST(Records, TakeEveryUsableIpv6AddressOfTheirInterface)
{
    char lines[] = "fe800000000000000000000000000001 02 40 20 80     eth0\n"
                   "20010db8000000000000000000000001 03 40 00 80     eth1\n"
                   "20010db8000000000000000000000002 02 40 00 80     eth0\n"
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
        {record("eth1", "", "0.0.0.0", "::", 1), "1 0.0.0.0 2001:db8::1; "},
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
            records += std::to_string(info.is_virtual) + " " +
                       text_of(koutil::map_ipv4(info.ipaddr)) + " " + text_of(info.ip6addr) + "; ";
        }
        EXPECT_EQ(records, each.records) << each.first.ifname;
    }
}

TEST(Addresses, AreUsableOrNot)
{
    for (const char *bad :
         {"::", "::1", "::2", "::1.2.3.4", "::ffff:10.0.0.1", "ff02::1", "fe80::1", "febf::1"}) {
        EXPECT_FALSE(koutil::usable_ipv6(address(bad))) << bad;
    }
    for (const char *good : {"fec0::1", "2001:db8::1", "fd00::1", "1::", "::1:0:0:1"}) {
        EXPECT_TRUE(koutil::usable_ipv6(address(good))) << good;
    }
    for (const uint32_t bad : {INADDR_ANY, INADDR_LOOPBACK}) {
        EXPECT_FALSE(koutil::usable_ipv4(in_addr{htonl(bad)})) << bad;
        EXPECT_TRUE(koutil::usable_ipv4(in_addr{htonl(bad + 256)})) << bad;
    }
}

TEST(Staleness, GrowsFromFiveSecondsToAMinute)
{
    uint64_t at = 100 * kSecond;
    koutil::Staleness state = {at, 0};
    for (const uint64_t interval : {5, 5, 5, 5, 5, 5, 10, 10, 10, 15, 15, 15, 15, 30, 30, 60, 60}) {
        EXPECT_FALSE(koutil::is_stale(state, at + interval * kSecond - 1)) << interval;
        at += interval * kSecond;
        EXPECT_TRUE(koutil::is_stale(state, at)) << interval;
    }
    EXPECT_TRUE(koutil::is_stale(state, at)) << "the clock stands still";
    EXPECT_TRUE(koutil::is_stale(state, at - 50 * kSecond)) << "the clock was set back";
    EXPECT_EQ(state.backoff, 15);
}

namespace
{

// Runs `body` on a host with two cards; it prints or expects.
void on_private_host(const std::function<void()> &body, const std::string &out)
{
    const auto outcome = support::run_in_private_host([&body] {
        EXPECT_EQ(Lists().text(), "\n\n");
        support::run_commands(
            "ip link add eth1 address 00:11:22:33:44:5a type veth peer name lopx1\n"
            "ip link add eth0 address 00:11:22:33:44:55 type veth peer name lopx0\n"
            "ip addr add 10.0.0.5/24 dev eth0\n"
            "ip addr add 10.1.0.5/24 dev eth1\n"
            "ip link set eth0 up\n"
            "ip link set eth1 up\n");
        now += 5 * kSecond;
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    });
    SKIP_IF_REFUSED(outcome);
    EXPECT_TRUE(outcome.exited(0)) << outcome.err;
    EXPECT_EQ(outcome.out, out) << outcome.err;
}

const std::string two_cards = "eth1=00112233445a 10.1.0.5\neth0=001122334455 10.0.0.5\n";
const std::string two_lists = " 10.0.0.5 10.1.0.5\n 0x001122334455 0x00112233445a\n" + two_cards;

} // namespace

TEST(PrivateNetwork, NoticesChangesNoMoreOftenThanTheInterval)
{
    const auto look = [](uint64_t seconds) {
        now += seconds * kSecond;
        EXPECT_LE(GetLocalAddrCount(), 4);
        printf("%d:%d ", rebuilds.exchange(0), saved_ipaddrs_backoff);
    };
    on_private_host(
        [&look] {
            look(0);
            std::thread other([] { EXPECT_EQ(Lists().text(), two_lists); });
            EXPECT_EQ(Lists().text(), two_lists);
            other.join();
            for (const uint64_t seconds : {4, 1, 5, 5, 5, 5, 5, 5, 5}) {
                look(seconds);
            }
            support::run_commands("ip addr add 10.0.0.6/24 dev eth0 label eth0:1\n"
                                  "ip -6 addr add 2001:db8::5/64 dev eth0 nodad\n"
                                  "ip link add dummy0 type veth peer name br0\n"
                                  "ip addr add 10.7.0.1/24 dev dummy0\n"
                                  "ip link set br0 address 00:11:22:33:44:66\n"
                                  "[ ! -w /dev/net/tun ] || ip tuntap add tun0 mode tun\n"
                                  "[ ! -w /dev/net/tun ] || ip addr add 10.8.0.1/24 dev tun0\n");
            look(9);
            look(1);
            puts(("\n" + Lists().text()).c_str());
            support::run_commands("ip link del eth0\nip link del eth1\nip link del dummy0");
            now += 5 * kSecond;
            EXPECT_EQ(Lists().text(), "\n\n");
        },
        "4:0 0:0 1:1 1:2 1:3 1:4 1:5 1:6 0:6 1:7 0:7 1:0 \n"
        " 10.0.0.5 10.1.0.5 2001:db8::5 10.0.0.6\n"
        " 0x001122334455 0x00112233445a 0x001122334466\n"
        "eth1=00112233445a 10.1.0.5\neth0=001122334455 10.0.0.5 2001:db8::5 10.0.0.6\n\n");
}

TEST(PrivateNetwork, AnswersQuestionsAboutItsAddresses)
{
    on_private_host(
        [] {
            support::set_hosts("10.1.0.5 mynode\n");
            for (const char *text : {"10.0.0.5", "10.1.0.5", "10.2.0.5", "127.8.9.10", "128.0.0.1",
                                     "::1", "::7f00:1", "::"}) {
                in46addr_t a = address(text);
                printf(" %d%d", IsLocalAddr(&a), IsLocalExtAddr(&a));
                RemapLocalHost(&a);
                printf("=%s", text_of(a).c_str());
            }
            for (const char *mac :
                 {"001122334455", "00112233445A", "0011223344", "", "0011223344550"}) {
                char name[5] = "-";
                printf(" %d", get_ifname_by_macaddr(mac, name));
                printf(" %s", name);
            }
            mac_addrs_t macs;
            enumerate_auth_ids(&macs);
            puts(join(macs).c_str());
            EXPECT_EQ(Lists().text(),
                      " 10.1.0.5 10.0.0.5\n 0x00112233445a 0x001122334455\n" + two_cards);
            ResetAddrLists();
            EXPECT_EQ(Lists().text(), two_lists);
        },
        " 11=127.0.0.1 11=127.0.0.1 00=10.2.0.5 10=127.8.9.10 00=128.0.0.1 10=::1 "
        "00=::127.0.0.1 00=::1 0 eth0 0 eth1 -1 - -1 - -1 - 0x00112233445a 0x001122334455\n\n");
}

TEST(PrivateNetwork, LooksNamesUpForOtherHosts)
{
    // Triples: a name, its address for other hosts, any address of it; or the error.
    const auto expect = [](const std::string &cases) {
        std::istringstream words(cases);
        for (std::string name, found, plain; words >> name >> found >> plain;) {
            in46addr_t at = address("9.9.9.9");
            const int result = GetHostByName(name.c_str(), &at);
            EXPECT_EQ(result == 0 ? text_of(at) : std::to_string(errno), found) << name;
            EXPECT_TRUE(result == 0 || IN6_IS_ADDR_UNSPECIFIED(&at)) << name;
            const int error = _HostLookupR(name.c_str(), &at, 0);
            EXPECT_EQ(error == 0 ? text_of(at) : std::to_string(error), plain) << name;
        }
    };
    on_private_host(
        [&expect] {
            support::set_hosts("127.0.1.1 mynode\n127.0.0.1 looped\n::1 looped6\nfe80::9 link\n"
                               "2001:db8::9 far6\n");
            expect("LocalHost.example 127.0.0.1 127.0.0.1 LOCALHOST6 ::1 ::1 "
                   "localhost6.x ::1 ::1 ::1 ::1 ::1 localhosts 2 2 127 0.0.0.127 0.0.0.127 "
                   "127.0.0.9 127.0.0.1 127.0.0.1 mynode 10.0.0.5 127.0.1.1 "
                   "MYNODE 127.0.1.1 127.0.1.1 looped 10.0.0.5 2 looped6 10.0.0.5 2 "
                   "link 10.0.0.5 2 far6 2001:db8::9 2001:db8::9 ::2 10.0.0.5 2 "
                   "2130706433 10.0.0.5 2 0.0.0.0 0.0.0.0 0.0.0.0 nodata 22 22 fail 11 11 ");
            support::run_commands("ip -6 addr add 2001:db8::5/64 dev eth0 nodad");
            support::set_hosts("10.3.0.1 mynode\n10.1.0.5 mynode\n::1 looped6\n");
            now += 5 * kSecond;
            expect("mynode 10.1.0.5 10.1.0.5 looped6 2001:db8::5 2 ");
            support::run_commands("ip link del eth0; ip link del eth1");
            support::set_hosts("127.0.0.1 looped\n");
            now += 5 * kSecond;
            expect("mynode 2 2 looped 2 2 ");
        },
        "");
}
