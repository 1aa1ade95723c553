// faults_services.cpp - scenarios of memory, containers, threads, sockets, hosts and streams.
#include "torture/faults.h"

#include "koutil/koutil.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

// ---- memory and containers ----

int aligned_memory()
{
    char file[] = "f";
    RasFn = [](char *, char *, unsigned, unsigned) { return 0; };
    LibraryInit();
    void *block = AllocMemory(64, 100, file, 1);
    EXPECT(reinterpret_cast<uintptr_t>(block) % 64 == 0);
    if (block != nullptr) {
        memset(block, 1, 100);
        FreeMemory(block, file, 1);
    }
    void *page = AllocAndPinMemory(5000);
    EXPECT(page == nullptr || static_cast<char *>(page)[4999] == 0);
    free(page);
    return block != nullptr && page != nullptr ? 0 : -1;
}

constexpr uint32_t kEntries = 200;

// Inserts until memory runs out; what went in is found, and goes again.
template <typename Insert, typename Search, typename Delete>
int fill_table(void *table, Insert insert, Search search, Delete remove)
{
    if (table == nullptr) {
        return -1;
    }
    uint32_t count = 0;
    while (count < kEntries && insert(table, count)) {
        count++;
    }
    EXPECT(ko_hash_count(table) == count);
    for (uint32_t i = 0; i < kEntries; i++) {
        EXPECT(search(table, i) == (i < count));
    }
    for (uint32_t i = 0; i < count; i += 2) {
        EXPECT(remove(table, i) == 0);
    }
    EXPECT(ko_hash_count(table) == count / 2);
    ko_hash_destroy(table);
    return count == kEntries ? 0 : -1;
}

std::string name_of(uint32_t i)
{
    return "name " + std::to_string(i);
}

int table_of_names()
{
    return fill_table(
        ko_hash_create(16),
        [](void *t, uint32_t i) { return ko_hash_insert(t, name_of(i).c_str(), t) != nullptr; },
        [](void *t, uint32_t i) { return ko_hash_search(t, name_of(i).c_str()) == t; },
        [](void *t, uint32_t i) { return ko_hash_delete(t, name_of(i).c_str()); });
}

int table_of_numbers()
{
    return fill_table(
        ko_hash_create_uint64(1),
        [](void *t, uint32_t i) {
            void *mine = malloc(8);
            const bool in = ko_hash_insert_uint64(t, i, mine) != nullptr;
            if (!in) {
                free(mine);
            }
            return in;
        },
        [](void *t, uint32_t i) { return ko_hash_search_uint64(t, i) != nullptr; },
        [](void *t, uint32_t i) { return ko_hash_delete_uint64(t, i); });
}

// Large ones lie in huge pages.
int table_of_values(uint32_t buckets, size_t length)
{
    return fill_table(
        ko_hash_create_uint64_val(buckets, length),
        [](void *t, uint32_t i) { return ko_hash_insert_uint64_val(t, i) != nullptr; },
        [](void *t, uint32_t i) { return ko_hash_search_uint64_val(t, i) != nullptr; },
        [](void *t, uint32_t i) { return ko_hash_delete_uint64_val(t, i); });
}

struct BigAddress {
    int number;
    char rest[400]; // more than the stack takes
};

// Lookups until each of `addresses` was asked for twice, half of them for good.
template <typename Address>
int use_cache()
{
    static cache_fn_vec_t functions = {
        [](bufaddr_t a) { return static_cast<uint64_t>(static_cast<Address *>(a)->number); },
        [](bufaddr_t a, bufaddr_t b) { return memcmp(a, b, sizeof(Address)); },
        [](void *, cache_buf_t *, bufaddr_t, int) { return 1; },
        [](void *, cache_buf_t *buf, bufaddr_t a, int) {
            memcpy(buf, a, sizeof(int));
            return 0;
        },
        [](void *, cache_handle_t, bufaddr_t) { return AllocAndPinMemory(64); },
        [](void *, cache_buf_t *buf) { free(buf); },
        [](void *, cache_buf_t *, cache_lock_t *lock) { pthread_mutex_lock(&lock->mutex); },
        [](void *, cache_buf_t *, cache_lock_t *lock) {
            return pthread_mutex_trylock(&lock->mutex) == 0 ? 1 : 0;
        },
        [](void *, cache_buf_t *, cache_lock_t *lock) { pthread_mutex_unlock(&lock->mutex); }};
    cache_t *cache = cache_init(4, nullptr, sizeof(Address), &functions);
    if (cache == nullptr) {
        return -1;
    }
    int missed = 0;
    for (int i = 0; i < 24; i++) {
        Address address = {};
        address.number = i * 7 % 8;
        cache_handle_t record = cache_buffer_find(cache, &address, nullptr, 0, 0);
        if (record == nullptr) {
            missed++;
            continue;
        }
        EXPECT(memcmp(cache_data_ptr(record), &address, sizeof(int)) == 0);
        i % 5 == 0 ? discard_cache_entry(cache, record, 1)
                   : cache_buffer_unlock(cache, record, nullptr);
    }
    cache_destroy(cache);
    return missed == 0 ? 0 : -1;
}
struct SmallAddress {
    int number;
};

int poll_set()
{
    int ends[2];
    EXPECT(pipe2(ends, O_CLOEXEC) == 0 && write(ends[1], "x", 1) == 1);
    dpoll_t set;
    int status = DPollInit(&set);
    unsigned int in = 0;
    for (int fd = 1000; status == 0 && fd < 1200; fd++, in += status == 0 ? 1 : 0) {
        status = DPollSet(fd, 0, &set);
    }
    EXPECT(set.nfds == in &&
           (in == 0 || DPollFind(1000 + static_cast<int>(in) - 1, &set) != nullptr));
    for (int fd = 1000; fd < 1200; fd++) {
        DPollClr(fd, &set);
    }
    if (status == 0) {
        EXPECT(DPollSet(ends[0], POLLIN, &set) == 0);
        const int ready = DPoll(&set, 1000);
        EXPECT(ready == 1 ? DPollXRevents(ends[0], &set) == POLLIN : ready == -1);
        status = ready == 1 ? 0 : -1;
    }
    DPollFree(&set);
    close(ends[0]);
    close(ends[1]);
    return status;
}

// ---- threads ----

std::atomic<int> served;

int work_queue()
{
    kova_thread_init();
    msgqueue_t *queue = queue_create(2, 4, 0, nullptr);
    commblk_t blocks[20] = {};
    for (commblk_t &block : blocks) {
        EXPECT(queue_add_work(
                   queue, [](void *) { served++; }, &block) == 0);
    }
    wait_queue_empty(queue);
    shutdown_queue(queue);
    EXPECT(served == 20);
    return 0;
}

int message_pool()
{
    static commblk_t blocks[3];
    NumBufs = 3;
    MsgQ_Init();
    for (commblk_t &block : blocks) {
        MsgQ_Put(&block);
    }
    MsgQ_Put(MsgQ_Get());
    EXPECT(MsgQ_cnt == 3);
    return 0;
}

int thread_start()
{
    pthread_t thread;
    const int status = THREAD_CREATE(
        &thread, nullptr, [](void *arg) { return arg; }, &thread);
    void *result = &thread;
    EXPECT(status != 0 || pthread_join(thread, &result) == 0);
    EXPECT(result == &thread);
    return status == EAGAIN ? ENOMEM : status;
}

int threads_confirmed()
{
    kova_thread_init();
    const int status = kova_thread_create(
        [](void *sync) -> void * {
            served++;
            kova_thread_sync(sync, 0, nullptr);
            return nullptr;
        },
        "test", "id", nullptr, 3);
    EXPECT(status != 0 ? served < 3 : served == 3);
    return status == EAGAIN ? -1 : status;
}

int watchdog()
{
    static thread_mutex_t lock = THREAD_MUTEX_INITIALIZER;
    static thread_cond_t condition = {PTHREAD_COND_INITIALIZER};
    register_spurious_wakeup(&lock, &condition, 1);
    unregister_spurious_wakeup(&lock, &condition);
    unregister_spurious_wakeup(&lock, &condition);
    return 0;
}

int client_events()
{
    in46addr_t address = {};
    EXPECT(NeedPerClntRas(RAS_CLTIME_COMM_FAIL, &address) == 1);
    const int again = NeedPerClntRas(RAS_CLTIME_COMM_FAIL, &address);
    EXPECT(again == 0 || (again == 1 && plan.nth != 0));
    return 0;
}

// Starts a daemon that ends at once; the status is how its watcher ends.
int watch(const char *variable)
{
    const pid_t pid = fork();
    if (pid == 0) {
        setenv(variable, "1", 1);
        char name[] = "torture-daemon";
        char *arguments[] = {name, nullptr};
        const pid_t self = getpid();
        const int status =
            KeepRunning([](int, char **argv) { return argv[0] != nullptr ? 0 : 9; }, 1, arguments);
        _exit(getpid() == self && status < 0 ? 1 : status);
    }
    int status = 0;
    EXPECT(waitpid(pid, &status, 0) == pid && WIFEXITED(status));
    return WEXITSTATUS(status);
}

// ---- sockets and hosts ----

in46addr_t address_of(const char *text)
{
    in46addr_t address = {};
    EXPECT(inet_pton(AF_INET6, text, &address) == 1);
    return address;
}
const in46addr_t &loopback()
{
    static const in46addr_t address = address_of("::ffff:127.0.0.1");
    return address;
}

int bound_socket(int type, uint16_t &port)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof any;
    auto *address = reinterpret_cast<sockaddr *>(&any);
    EXPECT(bind(fd, address, size) == 0 && getsockname(fd, address, &size) == 0);
    port = ntohs(any.sin_port);
    return fd;
}

int connection()
{
    uint16_t port = 0;
    const int listener = bound_socket(SOCK_STREAM, port);
    EXPECT(listen(listener, 4) == 0);
    int error = 0;
    const int client = SockConnect(&loopback(), port, &error);
    EXPECT((client < 0) == (error != 0));
    int status = error;
    if (client >= 0) {
        in46addr_t a = {};
        uint16_t its_port = 0;
        const int server = Accept(listener, &a, &its_port);
        EXPECT(server < 0 || IN6_CMP(&a, &loopback()) == 0);
        status = server < 0 || GetPeerName(client, &a, &its_port) != 0 ||
                 GetSockName(client, &a, &its_port) != 0;
        close(server);
    }
    close(client);
    close(listener);
    return status;
}

int common_port()
{
    int four = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int six = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(six, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    const int port = BindSame(&four, &six, 0, 0);
    in46addr_t a = {};
    uint16_t bound = 0;
    EXPECT(port <= 0 || GetSockName(six, &a, &bound) != 0 || bound == port);
    close(four);
    close(six);
    return port > 0 ? 0 : -1;
}

int datagrams()
{
    uint16_t port = 0;
    uint16_t from = 0;
    const int to = bound_socket(SOCK_DGRAM, port);
    const int fd = bound_socket(SOCK_DGRAM, from);
    char text[8] = "hello";
    int status = SendTo(fd, -1, text, 5, 0, &loopback(), port) == 5 ? 0 : -1;
    if (status == 0) {
        in46addr_t a = {};
        uint16_t sender = 0;
        const ssize_t got = RecvFrom(to, text, sizeof text, 0, &a, &sender);
        EXPECT(got == 5 ? sender == from : got == -1 && sender == 0);
        status = got == 5 ? 0 : -1;
    }
    close(to);
    close(fd);
    return status;
}

int interfaces()
{
    static ifname_list_t list;
    GetNetIFs(&list);
    EXPECT(list.count >= 0 && list.count <= IFNAME_LIST_MAX);
    EXPECT(plan.nth != 0 || list.count > 0);
    return 0;
}

int host_addresses()
{
    static in46addr_t addresses[HOST_ADDRS_MAX];
    static mac_addrs_t macs;
    static SysNics_t cards;
    char text[256];
    enumerate_ip_addrs(addresses);
    enumerate_mac_addrs(&macs);
    EXPECT(GetAllNicBindings(&cards) == 0);
    EXPECT(IsLocalAddr(&loopback()) == 1);
    EXPECT(GetLocalAddrCount() >= 0);
    ResetAddrLists();
    enumerate_auth_ids(&macs);
    GetOsVersion(text, sizeof text);
    EXPECT(strlen(text) > 0);
    return 0;
}

int host_lookup()
{
    in46addr_t address = {};
    if (const int status = _HostLookupR("192.0.2.7", &address, 0)) {
        EXPECT(IN6_IS_ADDR_UNSPECIFIED(&address));
        return status;
    }
    const in46addr_t expected = address_of("::ffff:192.0.2.7");
    EXPECT(IN6_CMP(&address, &expected) == 0);
    errno = 0;
    const int status = GetHostByName("192.0.2.7", &address);
    return status == 0 ? 0 : errno;
}

int host_names()
{
    const in46addr_t unknown = address_of("::ffff:192.0.2.7");
    for (int i = 0; i < 3; i++) {
        char name[256] = "";
        EXPECT(GetHostFromIp(&loopback(), name) == name && name[0] != '\0');
        EXPECT(strcmp(GetHostFromIpFailCache(&unknown, name), "192.0.2.7") == 0);
    }
    return 0;
}

int system_sizes()
{
    uint64_t resident = 1;
    uint64_t total = 1;
    get_rss_virt(&resident, &total);
    EXPECT(resident <= total);
    return 0;
}

// ---- the replication stream ----

const std::string data(100000, 'd');
const char tag[17] = "0123456789abcdef";

int send_all(rep_stream_t *out)
{
    uint8_t payload[5000] = {1, 2, 3};
    inode_id_t parent = {};
    ExtendedStat_t stat = {};
    stat.sr_size = data.size();
    lock_stream(out);
    const auto *bytes = reinterpret_cast<const uint8_t *>(data.data());
    const auto length = static_cast<uint32_t>(data.size());
    int failed = send_rep_header(out, nullptr, dm_fsid_t{}, 0, 1, 2);
    failed = failed != 0 ? failed : send_rep_command(out, nullptr, 3, payload, sizeof payload);
    failed = failed != 0 ? failed
                         : send_file_header(out, 1, "name", &parent, 1, &stat, nullptr, length, 1);
    failed = failed != 0 ? failed : send_file_data(out, bytes, length);
    failed = failed != 0 ? failed : send_sd_mapping(out, 7, bytes, 3000);
    failed = failed != 0 ? failed : send_blob_record(out, 1, 2, 3, tag);
    failed = failed != 0 ? failed : flush_rep_stream(out);
    unlock_stream(out);
    return failed;
}

// The bytes of send_all.
const std::string &wire()
{
    static std::string bytes;
    if (bytes.empty()) {
        const Calm calm;
        rep_stream_t *out = create_rep_out_stream();
        assign_rep_backing_file(out, open("wire", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        EXPECT(send_all(out) == 0 && cleanup_rep_stream(out, 0) == 0);
        bytes = get("wire");
    }
    return bytes;
}

// Sends to a socket, a file or both; what arrived is all or, after a failure, a part.
int stream_out(bool to_socket, bool to_file)
{
    wire();
    int ends[2];
    EXPECT(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    std::string arrived;
    std::thread reader([&] {
        char part[4096];
        for (ssize_t n; (n = read(ends[1], part, sizeof part)) > 0;) {
            arrived.append(part, static_cast<size_t>(n));
        }
    });
    int status = -1;
    rep_stream_t *out = create_rep_out_stream();
    if (out != nullptr && to_socket) {
        assign_rep_target_sync(out, ends[0]);
    } else {
        close(ends[0]);
    }
    if (out != nullptr) {
        assign_rep_backing_file(out,
                                to_file ? open("copy", O_RDWR | O_CREAT | O_CLOEXEC, 0600) : -1);
        status = send_all(out);
        const uint64_t flushed = out->rep_stream_offset;
        EXPECT(cleanup_rep_stream(out, 0) == 0);
        EXPECT(status != 0 || flushed == wire().size() || (!to_socket && plan.divisor != 0));
    }
    reader.join();
    close(ends[1]);
    const std::string copy = to_file ? get("copy") : wire();
    EXPECT(!to_socket || (status == 0 ? arrived == wire() : wire().starts_with(arrived)));
    EXPECT(copy == "(none)" || plan.divisor != 0 ||
           (status == 0 ? copy == wire() : wire().starts_with(copy)));
    return status == -2 ? -1 : status;
}

// Bytes that a descriptor delivers, in a stream that waits or not.
rep_in_stream_t *stream_of_wire(uint32_t seconds)
{
    put("in", wire());
    const int fd = open("in", O_RDONLY | O_CLOEXEC);
    rep_in_stream_t *in = create_rep_in_stream(fd);
    in != nullptr ? set_stream_in_timeout(in, seconds) : static_cast<void>(close(fd));
    return in;
}

int take_all(rep_in_stream_t *in)
{
    static uint8_t bytes[200000];
    rep_header_t header = {};
    rep_file_t file = {};
    rep_blob_t blob = {};
    char name[256] = "";
    uint32_t length = 0;
    if (peek_rep_stream(in) != 1 || extract_rep_header(in, &header) != 0 ||
        extract_rep_cmd(in, bytes, 8192, &length) != 3) {
        return -1;
    }
    EXPECT(length == 5000 && bytes[2] == 3);
    if (extract_rep_file(in, &file, name, sizeof name) < 0 ||
        extract_rep_data(in, bytes, static_cast<uint32_t>(data.size())) != 0) {
        return -1;
    }
    EXPECT(strcmp(name, "name") == 0 && memcmp(bytes, data.data(), data.size()) == 0);
    uint64_t key = 0;
    uint8_t *descriptor = nullptr;
    length = REP_MAX_SD_LEN;
    const int status = extract_rep_sd_mapping(in, &key, &descriptor, &length);
    EXPECT(status == 0 ? key == 7 && length == 3000 : descriptor == nullptr && key == 0);
    free(descriptor);
    return status != 0 || extract_rep_blob(in, &blob) != 0 ? -1 : 0;
}

int stream_in(uint32_t seconds)
{
    rep_in_stream_t *in = stream_of_wire(seconds);
    if (in == nullptr) {
        return -1;
    }
    const int status = take_all(in);
    cleanup_rep_in_stream(in);
    return status;
}

int stream_copy()
{
    rep_in_stream_t *in = stream_of_wire(0);
    if (in == nullptr) {
        return -1;
    }
    int status = -1;
    rep_stream_t *out = create_rep_out_stream();
    if (out != nullptr) {
        assign_rep_backing_file(out, open("copy", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        lock_stream(out);
        status = copy_rep_stream(in, out) != 0 || flush_rep_stream(out) != 0 ? -1 : 0;
        unlock_stream(out);
        EXPECT(cleanup_rep_stream(out, 0) == 0);
        const std::string copy = get("copy");
        // A read error ends a stream as its end does.
        EXPECT(plan.divisor != 0 || wire().starts_with(copy));
        EXPECT(copy == wire() || plan.divisor != 0 || plan.nth != 0);
    }
    cleanup_rep_in_stream(in);
    return status;
}

constexpr Scenario scenarios[] = {
    {"aligned_memory", aligned_memory, -1, 0},
    {"table_of_names", table_of_names, -1, 0},
    {"table_of_numbers", table_of_numbers, -1, 0},
    {"table_of_small_values", [] { return table_of_values(100, 4); }, -1, 0},
    {"table_of_large_values", [] { return table_of_values(1 << 19, 2000); }, -1, 0},
    {"cache_of_small", [] { return use_cache<SmallAddress>(); }, -1, 0},
    {"cache_of_large", [] { return use_cache<BigAddress>(); }, -1, 0},
    {"poll_set", poll_set, -1, kFiles},
    {"work_queue", work_queue, 0, kMayPanic},
    {"message_pool", message_pool, 0, kMayPanic},
    {"thread_start", thread_start, ENOMEM, 0},
    {"threads_confirmed", threads_confirmed, -1, 0},
    {"watchdog", watchdog, 0, 0},
    {"client_events", client_events, 0, 0},
    {"watcher", [] { return watch("WATCHER_NODETACH"); }, 1, kFiles},
    {"detached_daemon", [] { return watch("WATCHER_NORESTART"); }, 1, kFiles},
    {"connection", connection, 0, kFiles},
    {"common_port", common_port, 0, kFiles},
    {"datagrams", datagrams, 0, kFiles},
    {"interfaces", interfaces, 0, kFiles},
    {"host_addresses", host_addresses, 0, kFiles},
    {"host_lookup", host_lookup, 22, kFiles},
    {"host_names", host_names, 0, kFiles},
    {"system_sizes", system_sizes, 0, kFiles},
    {"stream_to_socket", [] { return stream_out(true, false); }, -1, kFiles | kMayPanic},
    {"stream_to_file", [] { return stream_out(false, true); }, -1, kFiles | kMayPanic},
    {"stream_to_both", [] { return stream_out(true, true); }, -1, kFiles | kMayPanic},
    {"stream_from_file", [] { return stream_in(0); }, -1, kFiles},
    {"stream_with_timeout", [] { return stream_in(5); }, -1, kFiles},
    {"stream_copy", stream_copy, -1, kFiles | kMayPanic},
};

} // namespace

const std::span<const Scenario> service_scenarios = scenarios;
