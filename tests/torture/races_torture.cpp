// races_torture.cpp - what the library's threads share, used by many threads at once, where no unit
// test does so (cache, logs and queues have theirs): each stress runs for the SECONDS of the first
// argument, or those that the further arguments name do; without arguments their names are printed.
// Run it under the thread sanitizer. What must hold is checked too; the first that does not ends
// the process.
#include "../../fuzz/fuzz.h"
#include "koutil/koutil.h"

#include <algorithm>
#include <atomic>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace
{

std::atomic<int> failed_lookups, completed;
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

// The byte at offset n of a stream is n % 251.
constexpr size_t longest = 300000;
uint8_t pattern[longest];

// Follows the backing file behind the stream's offset, to the close.
uint64_t follow(rep_stream_t *stream, int file)
{
    std::vector<uint8_t> bytes(longest - 251);
    uint64_t seen = 0;
    for (bool closed = false; !closed;) {
        pthread_mutex_lock(&stream->rep_mutex.mutex);
        while (stream->rep_stream_offset == seen && stream->rep_stream_flags == 0) {
            stream->rep_targ_waiting++;
            pthread_cond_wait(&stream->rep_cond.cond, &stream->rep_mutex.mutex);
            stream->rep_targ_waiting--;
        }
        const uint64_t end = stream->rep_stream_offset;
        closed = stream->rep_stream_flags != 0;
        pthread_mutex_unlock(&stream->rep_mutex.mutex);
        while (seen < end) {
            const auto wanted = std::min<size_t>(bytes.size(), end - seen);
            const ssize_t got = pread(file, bytes.data(), wanted, static_cast<off_t>(seen));
            require(got == static_cast<ssize_t>(wanted) &&
                    memcmp(bytes.data(), pattern + seen % 251, wanted) == 0);
            seen += wanted;
        }
    }
    return seen;
}

// Two writers and three followers of the file: all see every byte, the last of them frees the
// stream. In turn there is a target too.
void stream()
{
    rep_stream_t *out = create_rep_out_stream();
    const int file = memfd_create("backing", MFD_CLOEXEC);
    const int own = dup(file);
    int socks[2] = {-1, -1};
    std::generate(pattern, pattern + longest, [n = 0]() mutable { return n++ % 251; });
    assign_rep_backing_file(out, file);
    if (dice(2) != 0) {
        require(socketpair(AF_UNIX, SOCK_STREAM, 0, socks) == 0);
        assign_rep_target_sync(out, socks[0]);
    }
    completed = 0;
    out->stream_complete = [](rep_stream_t *) { completed++; };
    uint64_t written = 0; // guarded by the writers' lock
    std::atomic<int> writers{2};
    for (int i = 0; i < 3; i++) {
        hold_stream(out);
    }
    crowd(6, [&, out, own](int i) {
        for (int n = 0; i < 2 && n < 40; n++) {
            const uint32_t length = dice(20) == 0 ? 200000 : dice(9000);
            lock_stream(out);
            require(send_to_stream(out, pattern + written % 251, length) == 0);
            written += length;
            require(dice(4) != 0 || flush_rep_stream(out) == 0);
            unlock_stream(out);
        }
        if (i < 2 && --writers == 0) {
            require(flush_rep_stream(out) == 0);
            cleanup_rep_stream(out, 1);
        } else if (i >= 2 && i < 5) {
            require(follow(out, own) == written);
            drop_stream(out);
        }
        uint8_t bytes[5000];
        uint64_t seen = 0;
        for (ssize_t got; i == 5 && (got = read(socks[1], bytes, sizeof bytes)) > 0;) {
            require(memcmp(bytes, pattern + seen % 251, static_cast<size_t>(got)) == 0);
            seen += static_cast<uint64_t>(got);
        }
        require(i != 5 || socks[1] == -1 || seen == written);
    });
    require(completed == 1);
    close(own);
    close(socks[1]);
}

constexpr std::pair<const char *, void (*)()> stresses[] = {{"failures", failures},
                                                            {"addresses", addresses},
                                                            {"starts", starts},
                                                            {"watchdog", watchdog},
                                                            {"stream", stream}};

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
