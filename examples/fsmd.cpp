// fsmd.cpp - a small but whole file-system manager: a daemon that serves the blocks of one file
// system and answers questions about itself.
//
// Shows how a daemon uses the library: a watcher that keeps it running, the start-up calls in their
// order, the install roots, a rotating log with debug flags, the FSM list and global variables that
// SIGHUP reads again, the port range, a pair of listeners on one port, a poll loop, work items in
// message blocks with priorities and an idle routine, the buffer cache, rates, service events for
// each client, and an orderly stop on SIGTERM.
//
//     fsmd [-o OPTIONS] FSNAME          fsmd --help
//
// A request is one line, an answer "OK LENGTH\n" and LENGTH bytes, or "ERR reason\n". Try fsmctl.
//
//     STATE      what the daemon is and does       LIST       the file systems of the installation
//     STATS      its counters and rates            GET n      block number n
//     QUIT       ends the connection
//
// The main thread owns the connections: it polls, reads lines, and hands a connection with a
// request to a worker, which answers and hands it back. A connection is with one thread at a time,
// so only the way back and the counters need a lock.
#include <koutil/koutil.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <netinet/tcp.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr size_t block_size = 4096;
constexpr size_t longest_request = 256;
constexpr size_t most_connections = 200;
constexpr uint64_t second = 1'000'000; // in microseconds
constexpr int stop_patience = 1000;    // milliseconds for the last answers to leave

// ---- Settings --------------------------------------------------------------------------------

struct Settings {
    std::string file_system;
    int workers = 2;
    int blocks = 1024; // of the file system
    int cached = 256;  // of them, in memory
    int log_size = 1 << 20;
    int log_files = 3;
    std::string debug_flags;
};

// The code of an option is its place in the members below; 6 is the debug flags.
constexpr uint32_t set_debug = 6;
constexpr int Settings::*numbers[set_debug] = {
    nullptr,           &Settings::workers,  &Settings::blocks,
    &Settings::cached, &Settings::log_size, &Settings::log_files};
Option option_table[] = {
    {"workers=%d", 1, 1, 64, "threads that answer requests", 0, KOOPT_INVALID, 0},
    {"blocks=%D", 2, 1, 1 << 20, "size of a new file system", 0, KOOPT_INVALID, 0},
    {"cached=%D", 3, 1, 1 << 20, "blocks held in memory", 0, KOOPT_INVALID, 0},
    {"logsize=%D", 4, 1024, 1 << 30, "bytes of a log file", 0, KOOPT_INVALID, 0},
    {"logfiles=%d", 5, 1, 99, "older log files kept", 0, KOOPT_INVALID, 0},
    {"debug=%s", set_debug, 0, 0, "\"connect,request,cache\"", 0, KOOPT_INVALID, 0},
    {nullptr, 0, 0, 0, nullptr, 0, KOOPT_INVALID, 0}};

int usage(const char *problem)
{
    fprintf(stderr, "%s%susage: fsmd [-o OPTIONS] FSNAME\n\noptions, with commas between them:\n",
            problem, *problem != '\0' ? "\n" : "");
    parser_usage(option_table);
    return *problem != '\0' ? 2 : 0;
}

bool parse_options(char *text, Settings &settings, char *problem, int size)
{
    for (;;) {
        uint64_t number = 0;
        char word[128] = "";
        const uint32_t code =
            parse_option(&text, option_table, &number, word, sizeof word, problem, size);
        if (code == OPTION_END || code == OPTION_ERROR) {
            return code == OPTION_END;
        }
        if (code == set_debug) {
            settings.debug_flags = word;
        } else {
            settings.*numbers[code] = static_cast<int>(number);
        }
    }
}

// Reads the command line. Returns -1 to go on, or the exit status.
int parse_command_line(int argc, char **argv, Settings &settings)
{
    for (int i = 1; i < argc; i++) {
        char problem[256] = "";
        const std::string arg = argv[i];
        if (arg == "--help") {
            return usage("");
        }
        if (arg == "-o" && i + 1 < argc) {
            std::string options = argv[++i];
            if (!parse_options(options.data(), settings, problem, sizeof problem)) {
                return usage(problem);
            }
        } else if (arg[0] == '-' || arg.find('/') != std::string::npos ||
                   !settings.file_system.empty()) {
            return usage(("what is " + arg + "?").c_str());
        } else {
            settings.file_system = arg;
        }
    }
    return settings.file_system.empty() ? usage("which file system?") : -1;
}

// ---- Log, events, clock ----------------------------------------------------------------------

enum DebugFlag { debug_connect, debug_request, debug_cache };
vornlog_legend_t debug_legend[] = {{debug_connect, "connect", "connections coming and going"},
                                   {debug_request, "request", "every request"},
                                   {debug_cache, "cache", "every block read from disk"},
                                   {0, nullptr, nullptr}};

bool debugging(DebugFlag flag)
{
    return (facilities[DBG_FAC_FSMPM].debug_flags[flag / 8] >> flag % 8 & 1) != 0;
}

VoError_t log_event(char *event, char *text, uint32_t, uint32_t)
{
    Critical_Output("event %s: %s\n", event, text);
    return 0;
}

void report_clock_jump(char *format, ...)
{
    char text[128] = "";
    va_list args;
    va_start(args, format);
    VoVsnprintf(text, sizeof text, format, args);
    va_end(args);
    Warn_Output("%s\n", text);
}

void *run_clock(void *sync)
{
    static mono_handler_param_t param = {report_clock_jump, nullptr};
    kova_thread_sync(sync, 0, nullptr);
    mono_handler(&param);
}

// What the main thread takes from a descriptor, and every thread blocks.
sigset_t signals_to_take()
{
    sigset_t set;
    sigemptyset(&set);
    for (int signal : {SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE}) {
        sigaddset(&set, signal);
    }
    return set;
}

// What a program needs of the library is started here, in this order, before there are threads.
// Returns an exit status, 0 to go on.
int start_up(const Settings &settings)
{
    static char name[] = "fsmd";
    const sigset_t set = signals_to_take();
    pthread_sigmask(SIG_BLOCK, &set, nullptr); // threads inherit it
    set_caller_name(name);
    VoSnprintf(FsName, sizeof FsName, "%s", settings.file_system.c_str());
    LibraryInit();
    kova_thread_init();
    mono_init();
    MsgQ_Init();
    const std::string log =
        std::string(GetVornLogRoot()) + "/fsmd-" + settings.file_system + ".log";
    if (SetupLogFile(log.c_str(), settings.log_size, settings.log_files) == 0 ||
        init_facility(DBG_FAC_FSMPM, name, debug_legend) != 0) {
        fprintf(stderr, "fsmd: %s cannot be opened\n", log.c_str());
        return 1;
    }
    __vorn_logfn = LogToFile;
    __vorn_debugfn = LogToFile;
    kova_log_init_defaults();
    RasFn = log_event;
    std::string flags = settings.debug_flags;
    if (ParseAllDebugParams(flags.data()) != 0) {
        Warn_Output("unknown debug flags in \"%s\"\n", settings.debug_flags.c_str());
    }
    return kova_thread_create(run_clock, "clock", "fsmd", nullptr, 1) == 0 ? 0 : 1;
}

// ---- Blocks ----------------------------------------------------------------------------------

// A block begins with its number and the hash of what follows, so that everybody can check it.
struct Block {
    uint64_t number;
    uint64_t hash;
    char text[block_size - 16];

    uint64_t hash_now() const { return XXH64(text, sizeof text, number); }
};
static_assert(sizeof(Block) == block_size);
constexpr uint64_t no_block = UINT64_MAX; // the number in a buffer that holds none

// The file system: a file of blocks behind a cache.
class BlockStore
{
  public:
    ~BlockStore()
    {
        if (cache_ != nullptr) {
            cache_destroy(cache_);
        }
        KovaClose(&file_);
    }

    // Opens the file and makes it first where there is none. Returns a status.
    VoError_t open(const std::string &path, int blocks, int cached)
    {
        KovaStat_t stat;
        VoError_t status = KovaStat(path.c_str(), &stat);
        if (status == ENOENT) {
            status = format(path, static_cast<uint64_t>(blocks));
            stat.KovaSz = static_cast<size_t>(blocks) * block_size;
        }
        if (status == 0) {
            status = KovaOpen(path.c_str(), KOVA_OPEN_READ, &file_);
        }
        if (status == 0) {
            count_ = stat.KovaSz / block_size;
            cache_ = cache_init(cached, this, sizeof(uint64_t), &callbacks);
            status = cache_ != nullptr ? 0 : ENOMEM;
        }
        return status;
    }
    uint64_t count() const { return count_; }

    // Appends block `number` to `out`; false when it cannot be read.
    bool read(uint64_t number, std::string &out)
    {
        cache_handle_t handle = cache_buffer_find(cache_, &number, nullptr, 0, 0);
        if (handle == nullptr) {
            return false;
        }
        out.append(static_cast<const char *>(static_cast<void *>(cache_data_ptr(handle))),
                   block_size);
        cache_buffer_unlock(cache_, handle, nullptr);
        return true;
    }

    std::string counters() const
    {
        pthread_mutex_lock(&cache_->c_lru_lock.mutex);
        const int hits = cache_->c_cache_hit;
        const int ghosts = cache_->c_ghost_hit;
        const int misses = cache_->c_cache_miss;
        pthread_mutex_unlock(&cache_->c_lru_lock.mutex);
        return "cache_hits " + std::to_string(hits) + "\ncache_ghost_hits " +
               std::to_string(ghosts) + "\ncache_misses " + std::to_string(misses) + "\n";
    }

  private:
    static VoError_t write_all(KovaHndl_t *file, const char *bytes, size_t size)
    {
        while (size > 0) {
            KovaSz_t part = size;
            const VoError_t status = KovaWrite(file, bytes, &part);
            if (status != 0) {
                return status;
            }
            bytes += part;
            size -= part;
        }
        return 0;
    }

    // A new file gets its name when it is complete.
    static VoError_t format(const std::string &path, uint64_t blocks)
    {
        const std::string unfinished = path + "~";
        KovaHndl_t *file = nullptr;
        VoError_t status = KovaOpen(unfinished.c_str(), KOVA_OPEN_RDWR | KOVA_OPEN_CREATE, &file);
        if (status == 0) {
            status = KovaFTruncate(file, 0);
        }
        const auto block = std::make_unique<Block>();
        for (uint64_t number = 0; status == 0 && number < blocks; number++) {
            block->number = number;
            VoSnprintf(block->text, sizeof block->text, "This is block %llu of %s.\n",
                       static_cast<unsigned long long>(number), path.c_str());
            block->hash = block->hash_now();
            status = write_all(file, reinterpret_cast<const char *>(block.get()), sizeof *block);
        }
        if (status == 0 && fsync(file->_KovaHndl) != 0) {
            status = errno;
        }
        const VoError_t closed = KovaClose(&file);
        status = status != 0 ? status : closed;
        return status != 0 ? status : KovaRename(unfinished.c_str(), path.c_str());
    }

    // Reads a block from disk and checks it.
    bool load(Block &block, uint64_t number)
    {
        char *bytes = reinterpret_cast<char *>(&block);
        size_t have = 0;
        const std::lock_guard guard(file_mutex_); // the file has one position
        VoError_t status = KovaSeek(file_, number * block_size);
        for (KovaSz_t part = 1; status == 0 && have < block_size && part > 0; have += part) {
            part = block_size - have;
            status = KovaRead(file_, bytes + have, &part);
        }
        return have == block_size && block.number == number && block.hash == block.hash_now();
    }

    // Called at every look-up: a buffer that holds its block already stays as it is. A buffer may
    // have held another block before.
    int populate(Block *block, uint64_t number)
    {
        if (block == nullptr || block->number == number) {
            return block == nullptr ? -1 : 0;
        }
        if (!load(*block, number)) {
            block->number = no_block;
            Error_Output("block %llu cannot be read\n", static_cast<unsigned long long>(number));
            return -1;
        }
        if (debugging(debug_cache)) {
            __vorn_debugfn(0, const_cast<char *>("read block %llu\n"),
                           static_cast<unsigned long long>(number));
        }
        return 0;
    }

    static cache_buf_t *allocate()
    {
        auto *block = static_cast<Block *>(
            AllocMemory(block_size, block_size, const_cast<char *>(__FILE__), __LINE__));
        if (block != nullptr) {
            block->number = no_block;
        }
        return block;
    }

    static uint64_t number_at(bufaddr_t addr)
    {
        uint64_t number;
        memcpy(&number, addr, sizeof number);
        return number;
    }

    static cache_fn_vec_t callbacks;

    KovaHndl_t *file_ = nullptr;
    std::mutex file_mutex_;
    cache_t *cache_ = nullptr;
    uint64_t count_ = 0;
};

// The blocks are only read, so a buffer may always be given up.
cache_fn_vec_t BlockStore::callbacks = {
    [](bufaddr_t addr) -> uint64_t { return XXH64(addr, sizeof(uint64_t), 0); },
    [](bufaddr_t a, bufaddr_t b) { return memcmp(a, b, sizeof(uint64_t)); },
    [](void *, cache_buf_t *, bufaddr_t, int) { return 1; },
    [](void *store, cache_buf_t *buffer, bufaddr_t addr, int) {
        return static_cast<BlockStore *>(store)->populate(static_cast<Block *>(buffer),
                                                          number_at(addr));
    },
    [](void *, cache_handle_t, bufaddr_t) { return allocate(); },
    [](void *, cache_buf_t *buffer) {
        if (buffer != nullptr) {
            FreeMemory(buffer, const_cast<char *>(__FILE__), __LINE__);
        }
    },
    [](void *, cache_buf_t *, cache_lock_t *lock) { pthread_mutex_lock(&lock->mutex); },
    [](void *, cache_buf_t *, cache_lock_t *lock) {
        return pthread_mutex_trylock(&lock->mutex) == 0 ? 1 : 0;
    },
    [](void *, cache_buf_t *, cache_lock_t *lock) { pthread_mutex_unlock(&lock->mutex); }};

// ---- Connections -----------------------------------------------------------------------------

// With the main thread, or, while `busy`, with one worker.
struct Connection {
    SOCKET_T fd = -1;
    in46addr_t address = {};
    monotime_t active = {}; // when its request began to be awaited, came, or was answered
    bool busy = false;
    bool closing = false; // when the answer has left
    bool failed = false;
    std::string in;      // read, not yet understood
    std::string request; // the line being answered
    std::string out;     // of the answer, not yet sent

    ~Connection() { close(fd); }

    std::string peer() const
    {
        char text[256] = "";
        return RawIp(&address, text);
    }

    // Sends what the peer takes at once.
    void send_some()
    {
        const ssize_t sent = send(fd, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) {
            out.erase(0, static_cast<size_t>(sent));
        } else if (sent < 0 && errno != EAGAIN && errno != EINTR) {
            failed = true;
        }
    }
};

// ---- The daemon ------------------------------------------------------------------------------

class Daemon
{
  public:
    explicit Daemon(const Settings &settings)
        : settings_(settings)
    {
    }
    int run();

  private:
    bool open_everything();
    bool open_configuration();
    bool open_listeners();
    bool add_listener(SOCKET_T fd);
    bool publish_port();
    void poll_loop();
    void take_signals();
    void accept_from(SOCKET_T listener);
    void on_ready(SOCKET_T fd, short events);
    void read_from(Connection &connection);
    void next_request(Connection &connection);
    void dispatch(Connection &connection, std::string line);
    void take_back();
    void after_answer(Connection &connection);
    void reject(Connection &connection, const char *reason);
    void drop(SOCKET_T fd, const char *reason);
    void reload();
    void apply_configuration();
    void housekeeping();
    void stop();

    // By workers.
    static void serve(void *block);
    void answer(Connection &connection);
    std::string state();
    std::string stats();
    bool get(const std::string &argument, std::string &body);
    static void on_idle(void *queue);

    const Settings settings_;
    BlockStore store_;
    dpoll_t poll_ = {};
    SOCKET_T listeners_[2] = {-1, -1};
    int port_ = 0;
    int signals_ = -1;
    int wake_ = -1; // an event: connections to take back, or idle work
    bool stopping_ = false;
    std::vector<commblk_t> blocks_;
    std::map<SOCKET_T, std::unique_ptr<Connection>> connections_;
    monotime_t started_ = {};
    monotime_t kept_house_ = {};
    FsmListHndl_t *fsm_list_ = nullptr;
    void *variables_ = nullptr;
    uint64_t patience_ = 0; // for a request to come, and for its answer to leave; microseconds
    std::atomic<int> open_connections_{0};
    std::atomic<bool> idle_{false};

    std::mutex shared_; // guards the rest
    std::vector<Connection *> done_;
    std::string list_text_;
    SlidingBucket_t request_rate_;
    SlidingBucket_t byte_rate_;
    uint64_t requests_ = 0;
    uint64_t bad_requests_ = 0;
};

Daemon *the_daemon;     // for the idle routine, which is given nothing else
msgqueue_t *work_queue; // lives to the end of the process: queues are not destroyed

// Requests about the daemon go before requests for blocks.
uint32_t priority_of(const std::string &request)
{
    return request.rfind("GET", 0) == 0 ? 0 : 5;
}

bool Daemon::open_configuration()
{
    const VoError_t status = FsmListOpen(&fsm_list_, KOVA_OPEN_READ);
    FsmListEnt_t entry;
    if (status != 0 || FsmListFind(fsm_list_, settings_.file_system.c_str(), &entry) != 0) {
        Error_Output("%s is not in the FSM list of %s (%d)\n", settings_.file_system.c_str(),
                     GetVornConfigDir(), status);
        return false;
    }
    variables_ = gvar_open("vars", 1);
    return variables_ != nullptr;
}

// Takes what the configuration says now.
void Daemon::apply_configuration()
{
    std::string text;
    FsmListEnt_t entry;
    for (int i = 0; FsmListRead(fsm_list_, i, &entry) == 0; i++) {
        if (entry.FsmName[0] != '\0') {
            text += std::string(entry.FsmName) + " " + std::to_string(entry.Priority) + "\n";
        }
    }
    int64_t seconds = 0;
    char *value = gvar_get(variables_, "FSMD_PATIENCE");
    if (value == nullptr || StrToInt64(value, &seconds) == 0 || seconds < 1 || seconds > 86400) {
        seconds = 30;
    }
    gvar_release(variables_, value);
    patience_ = static_cast<uint64_t>(seconds) * second;
    const std::lock_guard guard(shared_);
    list_text_ = text;
}

void Daemon::reload()
{
    const VoError_t status = FsmListRefresh(fsm_list_);
    gvar_refresh(variables_);
    if (status == 0) {
        apply_configuration();
        Info_Output("configuration read again\n");
    } else {
        Error_Output("the FSM list cannot be read again (%d)\n", status);
    }
}

bool Daemon::add_listener(SOCKET_T fd)
{
    if (fd == -1) {
        return true;
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    return listen(fd, 128) == 0 && DPollSet(fd, POLLIN, &poll_) == 0;
}

bool Daemon::open_listeners()
{
    uint16_t lowest = 0;
    uint16_t highest = 0;
    genportrange(&lowest, &highest, nullptr, 0);
    auto &[four, six] = listeners_;
    four = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    six = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0); // -1 on a host without IPv6
    const int on = 1;
    if (six != -1 && setsockopt(six, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) {
        return false;
    }
    if (BindSameSockOpts(&four, &six, lowest, highest, SOCK_STREAM) != 0) {
        return false;
    }
    port_ = BindSame(&four, &six, lowest, highest);
    in46addr_t any;
    uint16_t port = 0;
    if (port_ > 0 && GetSockName(four, &any, &port) == 0) {
        port_ = port;
    }
    return port_ > 0 && add_listener(four) && add_listener(six);
}

std::string port_file(const std::string &file_system)
{
    return std::string(GetVornDataDir()) + "/" + file_system + ".port";
}

// Clients find the daemon by this file.
bool Daemon::publish_port()
{
    const std::string path = port_file(settings_.file_system);
    const std::string unfinished = path + "~";
    FILE *file = fopen(unfinished.c_str(), "we");
    if (file == nullptr) {
        return false;
    }
    const bool written = fprintf(file, "%d\n", port_) > 0;
    return fclose(file) == 0 && written && KovaRename(unfinished.c_str(), path.c_str()) == 0;
}

bool Daemon::open_everything()
{
    KovaMkPath(GetVornDataDir());
    const std::string data = std::string(GetVornDataDir()) + "/" + settings_.file_system + ".img";
    const VoError_t status = store_.open(data, settings_.blocks, settings_.cached);
    if (status != 0) {
        Error_Output("%s cannot be opened (%d)\n", data.c_str(), status);
        return false;
    }
    if (!open_configuration()) {
        return false;
    }
    apply_configuration();
    InitBucket(&request_rate_);
    InitBucket(&byte_rate_);
    started_ = kept_house_ = GetMonoStamp();

    const sigset_t set = signals_to_take();
    signals_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    wake_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (signals_ < 0 || wake_ < 0 || DPollInit(&poll_) != 0 ||
        DPollSet(signals_, POLLIN, &poll_) != 0 || DPollSet(wake_, POLLIN, &poll_) != 0) {
        Error_Output("no descriptors: %s\n", strerror(errno));
        return false;
    }
    // One block for each connection, so the main thread never waits for one.
    blocks_.resize(most_connections);
    NumBufs = static_cast<int>(most_connections);
    for (auto &block : blocks_) {
        MsgQ_Put(&block);
    }
    work_queue = queue_create_with_idle(settings_.workers, NumBufs, 0, nullptr, 1, on_idle);
    if (!open_listeners() || !publish_port()) {
        Error_Output("no port to listen on: %s\n", strerror(errno));
        return false;
    }
    return true;
}

int Daemon::run()
{
    the_daemon = this;
    const bool opened = open_everything();
    if (opened) {
        Info_Output("serving %s: %llu blocks, port %d, %d workers\n", FsName,
                    static_cast<unsigned long long>(store_.count()), port_, settings_.workers);
        poll_loop();
    }
    stop();
    return opened ? 0 : 1;
}

void Daemon::poll_loop()
{
    while (!stopping_) {
        if (DPoll(&poll_, 1000) < 0 && errno != EINTR) {
            Error_Output("poll: %s\n", strerror(errno));
            return;
        }
        if (DPollXRevents(signals_, &poll_) != 0) {
            take_signals();
        }
        if (DPollXRevents(wake_, &poll_) != 0) {
            take_back();
        }
        for (SOCKET_T listener : listeners_) {
            if (DPollXRevents(listener, &poll_) != 0) {
                accept_from(listener);
            }
        }
        std::vector<pollfd> ready;
        std::copy_if(poll_.fds, poll_.fds + poll_.nfds, std::back_inserter(ready),
                     [](const pollfd &entry) { return entry.revents != 0; });
        for (const pollfd &entry : ready) {
            on_ready(entry.fd, entry.revents);
        }
        if (idle_.exchange(false) || GetMonoElapsed(kept_house_) >= second) {
            housekeeping();
        }
    }
}

void Daemon::take_signals()
{
    signalfd_siginfo info;
    while (read(signals_, &info, sizeof info) == sizeof info) {
        switch (info.ssi_signo) {
        case SIGTERM:
        case SIGINT:
        case SIGQUIT:
            Info_Output("signal %u: stopping\n", info.ssi_signo);
            stopping_ = true;
            break;
        case SIGHUP:
            reload();
            break;
        default:
            break;
        }
    }
}

void Daemon::accept_from(SOCKET_T listener)
{
    for (;;) {
        auto connection = std::make_unique<Connection>();
        uint16_t port = 0;
        const SOCKET_T fd = Accept(listener, &connection->address, &port);
        if (fd == -1) {
            if (errno == EMFILE || errno == ENFILE) { // asking again at once would be in vain
                DPollClr(listener, &poll_);
            }
            return;
        }
        connection->fd = fd;
        fcntl(fd, F_SETFD, FD_CLOEXEC);
        fcntl(fd, F_SETFL, O_NONBLOCK);
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        connection->active = GetMonoStamp();
        if (connections_.size() == most_connections || DPollSet(fd, POLLIN, &poll_) != 0) {
            connection->out = "ERR busy\n";
            connection->send_some();
            if (NeedPerClntRas(RAS_CLTIME_CONNECTION_FAIL, &connection->address) != 0) {
                RasEvent("SL_EVT_CONNECTION_FAIL", "no room for client %s",
                         connection->peer().c_str());
            }
            continue;
        }
        if (debugging(debug_connect)) {
            __vorn_debugfn(0, const_cast<char *>("%s port %u connected\n"),
                           connection->peer().c_str(), static_cast<unsigned>(port));
        }
        connections_[fd] = std::move(connection);
        open_connections_++;
    }
}

void Daemon::drop(SOCKET_T fd, const char *reason)
{
    const auto found = connections_.find(fd);
    if (debugging(debug_connect)) {
        __vorn_debugfn(0, const_cast<char *>("%s dropped: %s\n"), found->second->peer().c_str(),
                       reason);
    }
    DPollClr(fd, &poll_);
    connections_.erase(found);
    open_connections_--;
}

void Daemon::on_ready(SOCKET_T fd, short events)
{
    const auto found = connections_.find(fd);
    if (found == connections_.end()) {
        return; // dropped since the poll
    }
    Connection &connection = *found->second;
    if (!connection.out.empty()) {
        connection.send_some();
        after_answer(connection);
    } else if ((events & POLLIN) != 0) {
        read_from(connection);
    } else {
        drop(fd, "hung up");
    }
}

void Daemon::read_from(Connection &connection)
{
    char bytes[4096];
    const ssize_t got = recv(connection.fd, bytes, sizeof bytes, 0);
    if (got > 0) {
        connection.in.append(bytes, static_cast<size_t>(got));
        next_request(connection);
    } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
        drop(connection.fd, got == 0 ? "end" : "error");
    }
}

// Takes the next whole line, if there is one.
void Daemon::next_request(Connection &connection)
{
    const size_t end = connection.in.find('\n');
    if (end == std::string::npos && connection.in.size() <= longest_request) {
        if (DPollSet(connection.fd, POLLIN, &poll_) != 0) {
            drop(connection.fd, "out of memory");
        }
        return;
    }
    if (end == std::string::npos || end > longest_request) {
        reject(connection, "request too long");
        return;
    }
    std::string line = connection.in.substr(0, end);
    connection.in.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    dispatch(connection, std::move(line));
}

// Gives the connection to a worker.
void Daemon::dispatch(Connection &connection, std::string line)
{
    DPollClr(connection.fd, &poll_);
    connection.active = GetMonoStamp();
    connection.request = std::move(line);
    connection.busy = true;
    commblk_t *block = MsgQ_Get();
    block->priority = priority_of(connection.request);
    block->buffer = reinterpret_cast<char *>(&connection);
    block->buffer_size = sizeof connection;
    if (queue_add_work_pri(work_queue, serve, block) != 0) {
        connection.busy = false;
        MsgQ_Put(block);
        drop(connection.fd, "stopping");
    }
}

// Answers what cannot be a request, and ends the connection.
void Daemon::reject(Connection &connection, const char *reason)
{
    if (NeedPerClntRas(RAS_CLTIME_COMM_FAIL, &connection.address) != 0) {
        RasEvent("SL_EVT_COMM_FAIL", "client %s: %s", connection.peer().c_str(), reason);
    }
    {
        const std::lock_guard guard(shared_);
        bad_requests_++;
    }
    connection.in.clear();
    connection.closing = true;
    connection.out = std::string("ERR ") + reason + "\n";
    connection.send_some();
    after_answer(connection);
}

// Goes on with a connection whose answer has been made, or sent in part.
void Daemon::after_answer(Connection &connection)
{
    if (connection.failed || (connection.closing && connection.out.empty())) {
        drop(connection.fd, connection.failed ? "error" : "closed");
    } else if (!connection.out.empty()) {
        if (DPollSet(connection.fd, POLLOUT, &poll_) != 0) {
            drop(connection.fd, "out of memory");
        }
    } else {
        connection.active = GetMonoStamp();
        next_request(connection);
    }
}

void Daemon::take_back()
{
    uint64_t events;
    (void)!read(wake_, &events, sizeof events);
    std::vector<Connection *> done;
    {
        const std::lock_guard guard(shared_);
        done.swap(done_);
    }
    for (Connection *connection : done) {
        connection->busy = false;
        after_answer(*connection);
    }
}

void Daemon::housekeeping()
{
    kept_house_ = GetMonoStamp();
    std::vector<SOCKET_T> silent;
    for (const auto &[fd, connection] : connections_) {
        if (!connection->busy && GetMonoElapsed(connection->active) > patience_) {
            silent.push_back(fd);
        }
    }
    for (SOCKET_T fd : silent) {
        drop(fd, "too slow");
    }
    for (SOCKET_T listener : listeners_) { // one of them may have been put aside
        if (listener != -1) {
            DPollSet(listener, POLLIN, &poll_);
        }
    }
}

// Runs what was accepted, lets the answers leave, and closes everything in turn.
void Daemon::stop()
{
    for (SOCKET_T listener : listeners_) {
        if (listener != -1) {
            DPollClr(listener, &poll_);
            close(listener);
        }
    }
    KovaDelete(port_file(settings_.file_system).c_str());
    if (work_queue != nullptr) {
        shutdown_queue(work_queue);
        take_back();
    }
    const uint64_t begun = monotime();
    for (auto next = connections_.begin(); next != connections_.end();) {
        Connection &connection = *(next++)->second;
        while (!connection.out.empty() && !connection.failed &&
               monotime() - begun < stop_patience) {
            pollfd writable = {connection.fd, POLLOUT, 0};
            poll(&writable, 1, 50);
            connection.send_some();
        }
        drop(connection.fd, "stopping");
    }
    DPollFree(&poll_);
    FsmListClose(&fsm_list_, 0);
    gvar_close(variables_);
    for (int fd : {signals_, wake_}) {
        if (fd >= 0) {
            close(fd);
        }
    }
    Info_Output("stopped after %llu requests\n", static_cast<unsigned long long>(requests_));
}

// ---- What workers do -------------------------------------------------------------------------

void Daemon::on_idle(void *)
{
    const uint64_t one = 1;
    the_daemon->idle_ = true;
    (void)!write(the_daemon->wake_, &one, sizeof one);
}

void Daemon::serve(void *arg)
{
    auto *block = static_cast<commblk_t *>(arg);
    auto *connection = reinterpret_cast<Connection *>(block->buffer);
    MsgQ_Put(block);
    the_daemon->answer(*connection);
}

void Daemon::answer(Connection &connection)
{
    const std::string &request = connection.request;
    std::string body;
    bool known = true;
    if (request == "STATE") {
        body = state();
    } else if (request == "STATS") {
        body = stats();
    } else if (request == "LIST") {
        const std::lock_guard guard(shared_);
        body = list_text_;
    } else if (request == "QUIT") {
        connection.closing = true;
    } else {
        known = request.rfind("GET ", 0) == 0 && get(request.substr(4), body);
    }
    if (debugging(debug_request)) {
        std::string shown = request; // it may hold anything
        std::replace_if(
            shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
        __vorn_debugfn(0, const_cast<char *>("%s: \"%s\" %s\n"), connection.peer().c_str(),
                       shown.c_str(), known ? "answered" : "refused");
    }
    if (known) {
        connection.out = "OK " + std::to_string(body.size()) + "\n" + body;
    } else {
        connection.out = "ERR what is that?\n";
        if (NeedPerClntRas(RAS_CLTIME_COMM_FAIL, &connection.address) != 0) {
            RasEvent("SL_EVT_COMM_FAIL", "client %s: unknown request", connection.peer().c_str());
        }
    }
    connection.send_some();
    {
        const std::lock_guard guard(shared_);
        requests_++;
        bad_requests_ += known ? 0 : 1;
        PutBucket(&request_rate_, 1);
        PutBucket(&byte_rate_, body.size());
        done_.push_back(&connection);
    }
    const uint64_t one = 1;
    (void)!write(wake_, &one, sizeof one);
}

bool Daemon::get(const std::string &argument, std::string &body)
{
    const bool digits = !argument.empty() && argument.size() < 19 &&
                        argument.find_first_not_of("0123456789") == std::string::npos;
    const uint64_t number = digits ? strtoull(argument.c_str(), nullptr, 10) : UINT64_MAX;
    return number < store_.count() && store_.read(number, body);
}

std::string Daemon::state()
{
    return "file_system " + settings_.file_system + "\nblocks " + std::to_string(store_.count()) +
           "\npid " + std::to_string(getpid()) + "\nwatcher " + std::to_string(WatcherPid) +
           "\nport " + std::to_string(port_) + "\nuptime " +
           std::to_string(GetMonoElapsed(started_) / second) + "\nconnections " +
           std::to_string(open_connections_.load()) + "\n";
}

std::string Daemon::stats()
{
    uint64_t rss = 0;
    uint64_t virt = 0;
    get_rss_virt(&rss, &virt);
    const std::lock_guard guard(shared_);
    return "requests " + std::to_string(requests_) + "\nbad_requests " +
           std::to_string(bad_requests_) + "\nrequests_per_second " +
           std::to_string(GetBucket(&request_rate_)) + "\nbytes_per_second " +
           std::to_string(GetBucket(&byte_rate_)) + "\n" + store_.counters() + "resident_mib " +
           std::to_string(rss) + "\n";
}

// Whoever started the daemon must not wait for its descriptors.
void let_go(int first, int last)
{
    const int null = voopen("/dev/null", O_RDWR, 0);
    for (int fd = first; fd <= last && null >= 0; fd++) {
        dup2(null, fd);
    }
    if (null > last) {
        close(null);
    }
}

// The daemon proper, run by the watcher.
int fsmd_main(int argc, char **argv)
{
    Settings settings;
    int status = parse_command_line(argc, argv, settings);
    if (status >= 0) {
        return status;
    }
    status = start_up(settings);
    if (status != 0) {
        return status;
    }
    let_go(2, 2);
    {
        Daemon daemon(settings);
        status = daemon.run();
    }
    facility_at_exit(DBG_FAC_FSMPM);
    CloseLog();
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    Settings settings;
    const int status = parse_command_line(argc, argv, settings);
    if (status >= 0) {
        return status;
    }
    let_go(0, 1); // complaints of the start-up still have standard error
    return KeepRunning(fsmd_main, argc, argv);
}
