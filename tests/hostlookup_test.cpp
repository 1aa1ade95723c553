// hostlookup_test.cpp - the name behind an address and the failure cache, with a resolver and a
// clock of the test's own, and against a real name server in a private network.
#include "internal/guards.h"
#include "internal/hostlookup.h"
#include "koutil/hostlookup.h"
#include "koutil/rawip.h"
#include "support/failing_malloc.h"
#include "support/private_host.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <dlfcn.h>
#include <netdb.h>
#include <string>
#include <thread>
#include <vector>

namespace
{

std::atomic<uint64_t> now{1'000'000'000};
std::atomic<int> asked{0};
bool ask_the_platform = false;

} // namespace

// Both take the place of the originals for the library too.
extern "C" uint64_t MicroTime()
{
    return now;
}

extern "C" int getnameinfo(const sockaddr *address, socklen_t length, char *host,
                           socklen_t host_size, char *service, socklen_t service_size, int flags)
{
    asked++;
    if (ask_the_platform) {
        const auto next = reinterpret_cast<decltype(&getnameinfo)>(dlsym(RTLD_NEXT, "getnameinfo"));
        return next(address, length, host, host_size, service, service_size, flags);
    }
    EXPECT_EQ(flags, NI_NAMEREQD);
    EXPECT_EQ(length, address->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
    const auto *in6 = reinterpret_cast<const sockaddr_in6 *>(address);
    if (address->sa_family == AF_INET6 && in6->sin6_addr.s6_addr[15] == 1) {
        snprintf(host, host_size, "%s", "named.example");
        return 0;
    }
    return EAI_NONAME;
}

namespace
{

constexpr uint64_t kMinute = 60'000'000;

in46addr_t address(const char *text)
{
    in46addr_t result = {};
    const std::string mapped = strchr(text, ':') != nullptr ? text : std::string("::ffff:") + text;
    EXPECT_EQ(inet_pton(AF_INET6, mapped.c_str(), &result), 1) << text;
    return result;
}

std::string cached_lookup(const char *text)
{
    char name[256];
    const in46addr_t a = address(text);
    return GetHostFromIpFailCache(&a, name);
}

int remembered(const char *text, int refresh)
{
    const in46addr_t a = address(text);
    const koutil::LockGuard guard(koutil::fail_cache_lock);
    return koutil::CheckFailCacheNoLock(&a, refresh);
}

} // namespace

TEST(HostLookup, YieldsTheNameOrTheNumericText)
{
    char name[256];
    for (const auto &[text, expected] : {std::pair{"2001:db8::1", "named.example"},
                                         {"2001:db8::2", "2001:db8::2"},
                                         {"10.0.0.1", "10.0.0.1"}}) {
        const in46addr_t a = address(text);
        asked = 0;
        EXPECT_STREQ(GetHostFromIp(&a, name), expected);
        EXPECT_STREQ(GetHostFromIp(&a, name), expected);
        EXPECT_EQ(asked, 2);
    }
}

TEST(FailureCache, AnswersWithoutMemoryAndRemembersLater)
{
    const in46addr_t a = address("10.4.0.1");
    char name[256];
    asked = 0;
    for (int good = 0; good < 3; good++) {
        const support::FailingMalloc failing(good);
        EXPECT_STREQ(GetHostFromIpFailCache(&a, name), "10.4.0.1");
    }
    EXPECT_EQ(remembered("10.4.0.1", 0), 1);
    EXPECT_STREQ(GetHostFromIpFailCache(&a, name), "10.4.0.1");
    EXPECT_EQ(asked, 3);
}

TEST(FailureCache, RemembersAFailureForThirtyMinutes)
{
    asked = 0;
    EXPECT_EQ(remembered("10.1.0.1", 1), 0);
    EXPECT_EQ(cached_lookup("10.1.0.1"), "10.1.0.1");
    EXPECT_EQ(cached_lookup("10.1.0.1"), "10.1.0.1");
    EXPECT_EQ(asked, 1);
    now += 30 * kMinute;
    cached_lookup("10.1.0.1");
    EXPECT_EQ(asked, 1) << "the last moment counts";
    now += 1;
    cached_lookup("10.1.0.1");
    EXPECT_EQ(asked, 2);
    now += 30 * kMinute;
    cached_lookup("10.1.0.1");
    EXPECT_EQ(asked, 2) << "the second failure counts anew";

    now += 30 * kMinute;
    EXPECT_EQ(remembered("10.1.0.1", 1), 1) << "a refresh revives what has expired";
    EXPECT_EQ(remembered("10.1.0.1", 0), 1);
    now += 31 * kMinute;
    EXPECT_EQ(remembered("10.1.0.1", 0), 0);
    EXPECT_EQ(remembered("10.1.0.1", 1), 0) << "a check forgets what has expired";
}

TEST(FailureCache, KeepsAddressesApartAndNamesOut)
{
    asked = 0;
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(cached_lookup("2001:db8::1"), "named.example");
    }
    EXPECT_EQ(asked, 2);
    // The same bucket: only the words that the hash does not see differ.
    const in46addr_t a = address("2001:db8:1::5");
    const in46addr_t b = address("2001:db8:2::5");
    ASSERT_EQ(koutil::fail_hash(&a), koutil::fail_hash(&b));
    EXPECT_EQ(cached_lookup("2001:db8:1::5"), "2001:db8:1::5");
    EXPECT_EQ(cached_lookup("2001:db8:2::5"), "2001:db8:2::5");
    EXPECT_EQ(asked, 4);
}

TEST(FailureCache, ServesManyThreads)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([] {
            for (int k = 0; k < 300; k++) {
                const std::string text = "10.2.0." + std::to_string(k % 50);
                EXPECT_EQ(cached_lookup(text.c_str()), text);
                now += kMinute;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

TEST(FailureCache, SparesTheNameServer)
{
    const auto outcome = support::run_in_private_host([] {
        ask_the_platform = true;
        support::set_resolver("10.9.0.1 known.example\n", "files dns");
        support::NameServer server;
        printf("%s\n", cached_lookup("10.9.0.1").c_str());
        printf("%s\n", cached_lookup("10.9.0.2").c_str());
        const int first = server.queries();
        printf("%s\n", cached_lookup("10.9.0.2").c_str());
        const int second = server.queries();
        now += 31 * kMinute;
        cached_lookup("10.9.0.2");
        return first > 0 && second == first && server.queries() == 2 * first ? 0 : 1;
    });
    SKIP_IF_REFUSED(outcome);
    EXPECT_TRUE(outcome.exited(0)) << outcome.err;
    EXPECT_EQ(outcome.out, "known.example\n10.9.0.2\n10.9.0.2\n");
}
