// subr2_bench.cpp - questions that a daemon asks for every message: is this address one of ours,
// and what is the name behind it?
//
// IsLocalAddr with warm lists stands beside getifaddrs(3), which a host would ask otherwise, and
// beside the least that the answer can cost: the clock, one lock and a copy of the list.
// GetHostFromIpFailCache on a remembered failure stands beside the numeric getnameinfo(3), which
// asks no resolver either. Both are to stay under one microsecond.
#include "koutil/koutil.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <dlfcn.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <pthread.h>

// The resolver of this program fails at once, so that nothing but the library is measured.
extern "C" int getnameinfo(const sockaddr *address, socklen_t length, char *host,
                           socklen_t host_size, char *service, socklen_t service_size, int flags)
{
    static const auto next =
        reinterpret_cast<decltype(&getnameinfo)>(dlsym(RTLD_NEXT, "getnameinfo"));
    if ((flags & NI_NAMEREQD) != 0) {
        return EAI_NONAME;
    }
    return next(address, length, host, host_size, service, service_size, flags);
}

namespace
{

sockaddr_in some_host()
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(0xC0000263); // 192.0.2.99
    return address;
}

in46addr_t mapped(const sockaddr_in &ipv4)
{
    in46addr_t address = {};
    memset(address.s6_addr + 10, 0xff, 2);
    memcpy(address.s6_addr + 12, &ipv4.sin_addr, 4);
    return address;
}

void is_local_addr(benchmark::State &state)
{
    const in46addr_t address = mapped(some_host());
    for (auto _ : state) {
        benchmark::DoNotOptimize(IsLocalAddr(&address));
    }
}

void get_if_addrs(benchmark::State &state)
{
    const sockaddr_in wanted = some_host();
    for (auto _ : state) {
        bool found = false;
        ifaddrs *all = nullptr;
        if (getifaddrs(&all) == 0) {
            for (const ifaddrs *each = all; each != nullptr; each = each->ifa_next) {
                const auto *ipv4 = reinterpret_cast<const sockaddr_in *>(each->ifa_addr);
                found = found || (ipv4 != nullptr && ipv4->sin_family == AF_INET &&
                                  ipv4->sin_addr.s_addr == wanted.sin_addr.s_addr);
            }
            freeifaddrs(all);
        }
        benchmark::DoNotOptimize(found);
    }
}

void clock_lock_and_copy(benchmark::State &state)
{
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    in46addr_t copy[HOST_ADDRS_MAX];
    for (auto _ : state) {
        pthread_mutex_lock(&lock);
        benchmark::DoNotOptimize(MicroTime());
        memcpy(copy, saved_ipaddrs, sizeof copy);
        pthread_mutex_unlock(&lock);
        benchmark::DoNotOptimize(copy);
    }
}

void remembered_failure(benchmark::State &state)
{
    const in46addr_t address = mapped(some_host());
    char name[256];
    for (auto _ : state) {
        benchmark::DoNotOptimize(GetHostFromIpFailCache(&address, name));
    }
}

void numeric_name_info(benchmark::State &state)
{
    const sockaddr_in address = some_host();
    char name[256];
    for (auto _ : state) {
        benchmark::DoNotOptimize(getnameinfo(reinterpret_cast<const sockaddr *>(&address),
                                             sizeof address, name, sizeof name, nullptr, 0,
                                             NI_NUMERICHOST));
    }
}

BENCHMARK(is_local_addr)->Name("IsLocalAddr");
BENCHMARK(get_if_addrs)->Name("IsLocalAddr/peer: getifaddrs");
BENCHMARK(clock_lock_and_copy)->Name("IsLocalAddr/least: clock, lock, copy");
BENCHMARK(remembered_failure)->Name("GetHostFromIpFailCache");
BENCHMARK(numeric_name_info)->Name("GetHostFromIpFailCache/peer: numeric getnameinfo");

} // namespace

BENCHMARK_MAIN();
