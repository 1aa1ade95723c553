// races_torture.cpp - what the library's threads share, used by many threads at once, where no unit
// test does so (caches, logs, queues and streams have theirs): each stress runs for the SECONDS of
// the first argument, or those that the further arguments name do; without arguments their names
// are printed. Run it under the thread sanitizer. What must hold is checked too; the first that
// does not ends the process.
#include "../../fuzz/fuzz.h"
#include "koutil/koutil.h"

#include <algorithm>
#include <atomic>
#include <netdb.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace
{

std::atomic<int> failed_lookups;
std::atomic<int64_t> skew; // seconds that the wall clock is ahead

unsigned dice(unsigned sides)
{
    thread_local auto state = static_cast<unsigned>(gettid()) * 2654435761U;
    state = state * 1664525U + 1013904223U;
    return (state >> 8) % sides;
}

// Runs body(0) to body(count - 1) in threads of their own.
template <typename Body>
void crowd(int count, Body body)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < count; i++) {
        threads.emplace_back([=] { body(i); });
    }
    for (std::thread &each : threads) {
        each.join();
    }
}

// Names and failures of 64 addresses, an hour after the last: each thread asks for a failure once.
void failures()
{
    failed_lookups = 0;
    skew += 3600;
    crowd(6, [](int) {
        for (int n = 0; n < 400; n++) {
            in46addr_t address = {};
            address.s6_addr[0] = 0x20;
            address.s6_addr[15] = static_cast<uint8_t>(dice(64));
            char name[256];
            GetHostFromIpFailCache(&address, name);
            const std::string host = "host" + std::to_string(address.s6_addr[15]);
            require(address.s6_addr[15] % 2 == 0 ? host == name : strncmp(name, "2000:", 5) == 0);
        }
    });
    require(failed_lookups <= 32 * 6);
}

// Questions about the host's addresses while the lists are dropped again and again.
void addresses()
{
    crowd(5, [](int i) {
        const auto nics = std::make_unique<SysNics_t>();
        for (int n = 0; n < 50; n++) {
            in46addr_t all[HOST_ADDRS_MAX];
            mac_addrs_t macs;
            enumerate_ip_addrs(all);
            i == 1 && n % 10 == 0 ? enumerate_auth_ids(&macs) : enumerate_mac_addrs(&macs);
            require(macs.mac_addr_count == 0 || strlen(macs.mac_addr_str[0]) == 14);
            require(GetAllNicBindings(nics.get()) == 0 && nics->si_count <= HOST_NICS_MAX);
            RemapLocalHost(&all[0]);
            GetLoopbackAddr(&all[1]);
            require(IsLocalAddr(&all[1]) == 1 && GetLocalAddrCount() <= HOST_ADDRS_MAX);
            i == 0 ? ResetAddrLists() : (void)0;
        }
    });
}

// Starters of threads side by side: each gets the report of its own first bad thread.
void starts()
{
    struct Start {
        int bad; // number of the thread that reports a failure
        std::atomic<int> started;
    };
    crowd(4, [](int) {
        Start start = {static_cast<int>(dice(6)), {0}};
        const auto body = [](void *arg) -> void * {
            auto *sync = static_cast<thread_sync_t *>(arg);
            auto *mine = static_cast<Start *>(sync->context);
            mine->started++;
            kova_thread_sync(sync, mine->bad == sync->index ? 7 : 0, "no luck");
            return nullptr;
        };
        const int status = kova_thread_create(body, "worker", "race", &start, 5);
        require(status == (start.bad < 5 ? 7 : 0));
        require(start.started == std::min(start.bad + 1, 5));
    });
}

// Waiters come and go: who waits is woken, and who has left is not touched: its memory is gone.
void watchdog()
{
    struct Waiter {
        thread_mutex_t lock = THREAD_MUTEX_INITIALIZER;
        thread_cond_t cond = THREAD_COND_INITIALIZER;
    };
    crowd(6, [](int i) {
        for (int n = 0; n < 40; n++) {
            const auto waiter = std::make_unique<Waiter>();
            register_spurious_wakeup(&waiter->lock, &waiter->cond, 1);
            pthread_mutex_lock(&waiter->lock.mutex);
            if (i < 2 && n == 0) {
                pthread_cond_wait(&waiter->cond.cond, &waiter->lock.mutex);
            }
            pthread_mutex_unlock(&waiter->lock.mutex);
            usleep(dice(30000));
            unregister_spurious_wakeup(&waiter->lock, &waiter->cond);
            pthread_cond_destroy(&waiter->cond.cond);
            pthread_mutex_destroy(&waiter->lock.mutex);
        }
    });
}

constexpr std::pair<const char *, void (*)()> stresses[] = {
    {"failures", failures}, {"addresses", addresses}, {"starts", starts}, {"watchdog", watchdog}};

} // namespace

extern "C" int gettimeofday(timeval *time, void *) noexcept
{
    timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    *time = {real.tv_sec + skew, real.tv_nsec / 1000};
    return 0;
}

// Knows the addresses with an even last byte.
extern "C" int getnameinfo(const sockaddr *address, socklen_t, char *host, socklen_t size, char *,
                           socklen_t, int)
{
    const int last = reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr.s6_addr[15];
    failed_lookups += last % 2;
    snprintf(host, size, "host%d", last);
    return last % 2 != 0 ? EAI_NONAME : 0;
}

int main(int argc, char **argv)
{
    kova_thread_init();
    WriteLog = [](int, char *) {};
    for (const auto &[name, round] : stresses) {
        const auto named = [&](const char *each) { return strcmp(each, name) == 0; };
        const time_t end = time(nullptr) + (argc > 1 ? atoi(argv[1]) : 0);
        long rounds = 0;
        while (time(nullptr) < end && (argc == 2 || std::any_of(argv + 2, argv + argc, named))) {
            round();
            rounds++;
        }
        if (argc == 1 || rounds != 0) {
            argc == 1 ? puts(name) : printf("%s: %ld rounds\n", name, rounds);
        }
        fflush(stdout);
    }
    return 0;
}
