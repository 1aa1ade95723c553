// hostlookup_test.cpp - the name behind an address and the failure cache, with a resolver and a
// clock of the test's own.
#include "koutil/hostlookup.h"

#include "internal/guards.h"
#include "internal/hostlookup.h"
#include "support/addresses.h"

#include <atomic>
#include <netdb.h>

namespace
{

std::atomic<uint64_t> now{1'000'000'000};
std::atomic<int> asked{0};

} // namespace

// Both take the place of the originals for the library too.
extern "C" uint64_t MicroTime()
{
    return now;
}

extern "C" int getnameinfo(const sockaddr *address, socklen_t length, char *host,
                           socklen_t host_size, char *, socklen_t, int flags)
{
    asked++;
    EXPECT_EQ(flags, NI_NAMEREQD);
    const bool named = length == sizeof(sockaddr_in6) &&
                       reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr.s6_addr[15] == 1;
    return named && snprintf(host, host_size, "named.example") > 0 ? 0 : EAI_NONAME;
}

namespace
{

constexpr uint64_t kMinute = 60'000'000;

std::string lookup(const std::string &text, decltype(&GetHostFromIp) function)
{
    char name[256];
    const in46addr_t a = support::address(text);
    return function(&a, name);
}

// Looks an address up through the cache and says how often the resolver was asked.
int questions(const std::string &text, const std::string &expected)
{
    const int before = asked;
    EXPECT_EQ(lookup(text, GetHostFromIpFailCache), expected);
    return asked - before;
}

int remembered(const char *text, int refresh)
{
    const in46addr_t a = support::address(text);
    const koutil::LockGuard guard(koutil::fail_cache_lock);
    return koutil::CheckFailCacheNoLock(&a, refresh);
}

} // namespace

TEST(FailureCache, RemembersAFailureForThirtyMinutes)
{
    EXPECT_EQ(remembered("10.1.0.1", 1), 0);
    const int expected[] = {1, 0, 1, 0}; // the last moment counts, the second failure counts anew
    const uint64_t later[] = {0, 30 * kMinute, 1, 30 * kMinute};
    for (int i = 0; i < 4; i++) {
        now += later[i];
        EXPECT_EQ(questions("10.1.0.1", "10.1.0.1"), expected[i]) << i;
    }
    now += 30 * kMinute;
    EXPECT_EQ(remembered("10.1.0.1", 1), 1) << "a refresh revives what has expired";
    EXPECT_EQ(remembered("10.1.0.1", 0), 1);
    now += 31 * kMinute;
    EXPECT_EQ(remembered("10.1.0.1", 0), 0);
    EXPECT_EQ(remembered("10.1.0.1", 1), 0) << "a check forgets what has expired";
}

TEST(FailureCache, KeepsAddressesApartAndNamesOut)
{
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(questions("2001:db8::1", "named.example"), 1);
        EXPECT_EQ(lookup("2001:db8::3", GetHostFromIp), "2001:db8::3");
    }
    // The same bucket: only the words that the hash does not see differ.
    EXPECT_EQ(questions("2001:db8:1::5", "2001:db8:1::5"), 1);
    EXPECT_EQ(questions("2001:db8:2::5", "2001:db8:2::5"), 1);
    EXPECT_EQ(questions("2001:db8::3", "2001:db8::3"), 1) << "the plain lookup feeds no cache";
}
