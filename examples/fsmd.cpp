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
#include "block_store.h"
#include "host.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <netinet/tcp.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace
{

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

// ---- Start-up --------------------------------------------------------------------------------

enum DebugFlag { debug_connect, debug_request, debug_cache };
vornlog_legend_t debug_legend[] = {{debug_connect, "connect", "connections coming and going"},
                                   {debug_request, "request", "every request"},
                                   {debug_cache, "cache", "every block read from disk"},
                                   {0, nullptr, nullptr}};

host::Host program; // the log and its flags

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

// Returns an exit status, 0 to go on.
int start_up(const Settings &settings)
{
    static char name[] = "fsmd";
    const sigset_t set = signals_to_take();
    pthread_sigmask(SIG_BLOCK, &set, nullptr); // threads inherit it
    VoSnprintf(FsName, sizeof FsName, "%s", settings.file_system.c_str());
    program.start(name, DBG_FAC_FSMPM, debug_legend, "fsmd-" + settings.file_system + ".log",
                  settings.log_size, settings.log_files, settings.debug_flags);
    if (!program.log_opened) {
        fprintf(stderr, "fsmd: %s cannot be opened\n", program.log_path.c_str());
        return 1;
    }
    if (!program.flags_known) {
        Warn_Output("unknown debug flags in \"%s\"\n", settings.debug_flags.c_str());
    }
    MsgQ_Init();
    return program.clock_runs ? 0 : 1;
}

// ---- Connections -----------------------------------------------------------------------------

// With the main thread, or, while `busy`, with one worker.
struct Connection {
    ko::Descriptor socket;
    in46addr_t address = {};
    monotime_t active = {}; // when its request began to be awaited, came, or was answered
    bool busy = false;
    bool closing = false; // when the answer has left
    bool failed = false;
    std::string in;      // read, not yet understood
    std::string request; // the line being answered
    std::string out;     // of the answer, not yet sent

    int fd() const { return socket.get(); }
    std::string peer() const
    {
        char text[256] = "";
        return RawIp(&address, text);
    }

    // Sends what the peer takes at once.
    void send_some()
    {
        const ssize_t sent = send(fd(), out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
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
        , files_(std::string(GetVornDataDir()) + "/" + settings.file_system)
    {
    }
    int run()
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

  private:
    bool open_everything()
    {
        KovaMkPath(GetVornDataDir());
        const std::string data = files_ + ".img";
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
        signals_.reset(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
        wake_.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
        if (!signals_ || !wake_ || !poll_.init() || !poll_.watch(signals_.get(), POLLIN) ||
            !poll_.watch(wake_.get(), POLLIN)) {
            Error_Output("no descriptors: %s\n", strerror(errno));
            return false;
        }
        // One block for each connection, so the main thread never waits for one.
        NumBufs = static_cast<int>(blocks_.size());
        for (auto &block : blocks_) {
            MsgQ_Put(&block);
        }
        queue_ = ko::WorkQueue::create(settings_.workers, NumBufs, false, nullptr, 1, on_idle);
        the_queue = queue_.get();
        if (!open_listeners() || !publish_port()) {
            Error_Output("no port to listen on: %s\n", strerror(errno));
            return false;
        }
        return true;
    }

    bool open_configuration()
    {
        const VoError_t status = fsm_list_.open(KOVA_OPEN_READ);
        FsmListEnt_t entry;
        if (status != 0 ||
            FsmListFind(fsm_list_.get(), settings_.file_system.c_str(), &entry) != 0) {
            Error_Output("%s is not in the FSM list of %s (%d)\n", settings_.file_system.c_str(),
                         GetVornConfigDir(), status);
            return false;
        }
        return variables_.open("vars", true);
    }

    // Takes what the configuration says now.
    void apply_configuration()
    {
        std::string text;
        FsmListEnt_t entry;
        for (int i = 0; FsmListRead(fsm_list_.get(), i, &entry) == 0; i++) {
            if (entry.FsmName[0] != '\0') {
                text += std::string(entry.FsmName) + " " + std::to_string(entry.Priority) + "\n";
            }
        }
        int64_t seconds = 0;
        const ko::GlobalValue value = variables_.value("FSMD_PATIENCE");
        if (!value || StrToInt64(value.get(), &seconds) == 0 || seconds < 1 || seconds > 86400) {
            seconds = 30;
        }
        patience_ = static_cast<uint64_t>(seconds) * second;
        const ko::Lock lock(shared_);
        list_text_ = text;
    }

    void reload()
    {
        const VoError_t status = FsmListRefresh(fsm_list_.get());
        gvar_refresh(variables_.get());
        if (status == 0) {
            apply_configuration();
            Info_Output("configuration read again\n");
        } else {
            Error_Output("the FSM list cannot be read again (%d)\n", status);
        }
    }

    bool add_listener(int fd)
    {
        if (fd == -1) {
            return true;
        }
        fcntl(fd, F_SETFD, FD_CLOEXEC);
        fcntl(fd, F_SETFL, O_NONBLOCK);
        return listen(fd, 128) == 0 && poll_.watch(fd, POLLIN);
    }

    bool open_listeners()
    {
        uint16_t lowest = 0;
        uint16_t highest = 0;
        genportrange(&lowest, &highest, nullptr, 0);
        auto &[four, six] = listeners_;
        four.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        six.reset(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)); // -1 on a host without IPv6
        const int on = 1;
        if ((six && setsockopt(six.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) ||
            BindSameSockOpts(four.place(), six.place(), lowest, highest, SOCK_STREAM) != 0) {
            return false;
        }
        port_ = BindSame(four.place(), six.place(), lowest, highest);
        in46addr_t any;
        uint16_t port = 0;
        if (port_ > 0 && GetSockName(four.get(), &any, &port) == 0) {
            port_ = port;
        }
        return port_ > 0 && add_listener(four.get()) && add_listener(six.get());
    }

    // Clients find the daemon by this file.
    bool publish_port()
    {
        const std::string path = files_ + ".port";
        const std::string unfinished = path + "~";
        FILE *file = fopen(unfinished.c_str(), "we");
        if (file == nullptr) {
            return false;
        }
        const bool written = fprintf(file, "%d\n", port_) > 0;
        published_ =
            fclose(file) == 0 && written && KovaRename(unfinished.c_str(), path.c_str()) == 0;
        return published_;
    }

    void poll_loop()
    {
        while (!stopping_) {
            if (poll_.wait(1000) < 0 && errno != EINTR) {
                Error_Output("poll: %s\n", strerror(errno));
                return;
            }
            if (poll_.take_events(signals_.get()) != 0) {
                take_signals();
            }
            if (poll_.take_events(wake_.get()) != 0) {
                take_back();
            }
            for (const auto &listener : listeners_) {
                if (poll_.take_events(listener.get()) != 0) {
                    accept_from(listener.get());
                }
            }
            std::vector<pollfd> ready;
            std::copy_if(poll_.begin(), poll_.end(), std::back_inserter(ready),
                         [](const pollfd &entry) { return entry.revents != 0; });
            for (const pollfd &entry : ready) {
                on_ready(entry.fd, entry.revents);
            }
            if (idle_.exchange(false) || GetMonoElapsed(kept_house_) >= second) {
                keep_house();
            }
        }
    }

    void take_signals()
    {
        signalfd_siginfo info;
        while (read(signals_.get(), &info, sizeof info) == sizeof info) {
            if (info.ssi_signo == SIGHUP) {
                reload();
            } else if (info.ssi_signo == SIGTERM || info.ssi_signo == SIGINT ||
                       info.ssi_signo == SIGQUIT) {
                Info_Output("signal %u: stopping\n", info.ssi_signo);
                stopping_ = true;
            }
        }
    }

    void accept_from(int listener)
    {
        for (;;) {
            auto connection = std::make_unique<Connection>();
            uint16_t port = 0;
            connection->socket.reset(Accept(listener, &connection->address, &port));
            const int fd = connection->fd();
            if (fd == -1) {
                if (errno == EMFILE || errno == ENFILE) { // asking again at once would be in vain
                    poll_.forget(listener);
                }
                return;
            }
            fcntl(fd, F_SETFD, FD_CLOEXEC);
            fcntl(fd, F_SETFL, O_NONBLOCK);
            const int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            connection->active = GetMonoStamp();
            if (connections_.size() == most_connections || !poll_.watch(fd, POLLIN)) {
                connection->out = "ERR busy\n";
                connection->send_some();
                if (NeedPerClntRas(RAS_CLTIME_CONNECTION_FAIL, &connection->address) != 0) {
                    RasEvent("SL_EVT_CONNECTION_FAIL", "no room for client %s",
                             connection->peer().c_str());
                }
                continue;
            }
            program.debug(debug_connect, "%s port %u connected\n", connection->peer().c_str(),
                          static_cast<unsigned>(port));
            connections_[fd] = std::move(connection);
            open_connections_++;
        }
    }

    void drop(int fd, const char *reason)
    {
        const auto found = connections_.find(fd);
        program.debug(debug_connect, "%s dropped: %s\n", found->second->peer().c_str(), reason);
        poll_.forget(fd);
        connections_.erase(found);
        open_connections_--;
    }

    void on_ready(int fd, short events)
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

    // Waits for the connection, which goes when there is no memory for that.
    void watch(Connection &connection, short events)
    {
        if (!poll_.watch(connection.fd(), events)) {
            drop(connection.fd(), "out of memory");
        }
    }

    void read_from(Connection &connection)
    {
        char bytes[4096];
        const ssize_t got = recv(connection.fd(), bytes, sizeof bytes, 0);
        if (got > 0) {
            connection.in.append(bytes, static_cast<size_t>(got));
            next_request(connection);
        } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            drop(connection.fd(), got == 0 ? "end" : "error");
        }
    }

    // Takes the next whole line, if there is one.
    void next_request(Connection &connection)
    {
        const size_t end = connection.in.find('\n');
        if (end == std::string::npos && connection.in.size() <= longest_request) {
            watch(connection, POLLIN);
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

    // Gives the connection to a worker. Requests about the daemon go before those for blocks.
    void dispatch(Connection &connection, std::string line)
    {
        poll_.forget(connection.fd());
        connection.active = GetMonoStamp();
        connection.request = std::move(line);
        connection.busy = true;
        auto block = ko::MessageBlock::take();
        block->priority = connection.request.rfind("GET", 0) == 0 ? 0 : 5;
        block->buffer = reinterpret_cast<char *>(&connection);
        block->buffer_size = sizeof connection;
        if (block.queue(the_queue, serve) != 0) {
            connection.busy = false;
            drop(connection.fd(), "stopping");
        }
    }

    // Reports a client that asks for what there is not.
    static void report(const Connection &connection, const char *reason)
    {
        if (NeedPerClntRas(RAS_CLTIME_COMM_FAIL, &connection.address) != 0) {
            RasEvent("SL_EVT_COMM_FAIL", "client %s: %s", connection.peer().c_str(), reason);
        }
    }

    // Answers what cannot be a request, and ends the connection.
    void reject(Connection &connection, const char *reason)
    {
        report(connection, reason);
        {
            const ko::Lock lock(shared_);
            bad_requests_++;
        }
        connection.in.clear();
        connection.closing = true;
        connection.out = std::string("ERR ") + reason + "\n";
        connection.send_some();
        after_answer(connection);
    }

    // Goes on with a connection whose answer has been made, or sent in part.
    void after_answer(Connection &connection)
    {
        if (connection.failed || (connection.closing && connection.out.empty())) {
            drop(connection.fd(), connection.failed ? "error" : "closed");
        } else if (!connection.out.empty()) {
            watch(connection, POLLOUT);
        } else {
            connection.active = GetMonoStamp();
            next_request(connection);
        }
    }

    void take_back()
    {
        uint64_t events;
        (void)!read(wake_.get(), &events, sizeof events);
        std::vector<Connection *> done;
        {
            const ko::Lock lock(shared_);
            done.swap(done_);
        }
        for (Connection *connection : done) {
            connection->busy = false;
            after_answer(*connection);
        }
    }

    void keep_house()
    {
        kept_house_ = GetMonoStamp();
        for (auto next = connections_.begin(); next != connections_.end();) {
            const Connection &connection = *(next++)->second;
            if (!connection.busy && GetMonoElapsed(connection.active) > patience_) {
                drop(connection.fd(), "too slow");
            }
        }
        for (const auto &listener : listeners_) { // one of them may have been put aside
            if (listener) {
                poll_.watch(listener.get(), POLLIN);
            }
        }
    }

    // Runs what was accepted and lets the answers leave; the rest ends with the daemon.
    void stop()
    {
        for (auto &listener : listeners_) {
            poll_.forget(listener.get());
            listener.reset();
        }
        if (published_) {
            KovaDelete((files_ + ".port").c_str());
        }
        if (queue_) {
            queue_.reset();
            take_back();
        }
        const uint64_t begun = monotime();
        for (auto next = connections_.begin(); next != connections_.end();) {
            Connection &connection = *(next++)->second;
            while (!connection.out.empty() && !connection.failed &&
                   monotime() - begun < stop_patience) {
                pollfd writable = {connection.fd(), POLLOUT, 0};
                poll(&writable, 1, 50);
                connection.send_some();
            }
            drop(connection.fd(), "stopping");
        }
        Info_Output("stopped after %llu requests\n", static_cast<unsigned long long>(requests_));
    }

    // ---- What workers do

    void wake()
    {
        const uint64_t one = 1;
        (void)!write(wake_.get(), &one, sizeof one);
    }

    static void on_idle(void *)
    {
        the_daemon->idle_ = true;
        the_daemon->wake();
    }

    static void serve(void *arg)
    {
        auto *block = static_cast<commblk_t *>(arg);
        auto *connection = reinterpret_cast<Connection *>(block->buffer);
        MsgQ_Put(block);
        the_daemon->answer(*connection);
    }

    void answer(Connection &connection)
    {
        const std::string &request = connection.request;
        std::string body;
        bool known = true;
        if (request == "STATE") {
            body = state();
        } else if (request == "STATS") {
            body = stats();
        } else if (request == "LIST") {
            const ko::Lock lock(shared_);
            body = list_text_;
        } else if (request == "QUIT") {
            connection.closing = true;
        } else {
            known = request.rfind("GET ", 0) == 0 && get(request.substr(4), body);
        }
        std::string shown = request; // it may hold anything
        std::replace_if(
            shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
        program.debug(debug_request, "%s: \"%s\" %s\n", connection.peer().c_str(), shown.c_str(),
                      known ? "answered" : "refused");
        if (known) {
            connection.out = "OK " + std::to_string(body.size()) + "\n" + body;
        } else {
            connection.out = "ERR what is that?\n";
            report(connection, "unknown request");
        }
        connection.send_some();
        {
            const ko::Lock lock(shared_);
            requests_++;
            bad_requests_ += known ? 0 : 1;
            PutBucket(&request_rate_, 1);
            PutBucket(&byte_rate_, body.size());
            done_.push_back(&connection);
        }
        wake();
    }

    bool get(const std::string &argument, std::string &body)
    {
        const bool digits = !argument.empty() && argument.size() < 19 &&
                            argument.find_first_not_of("0123456789") == std::string::npos;
        const uint64_t number = digits ? strtoull(argument.c_str(), nullptr, 10) : UINT64_MAX;
        return number < store_.count() && store_.read(number, body);
    }

    std::string state()
    {
        return "file_system " + settings_.file_system + line("blocks", store_.count()) +
               line("pid", getpid()) + line("watcher", WatcherPid) + line("port", port_) +
               line("uptime", GetMonoElapsed(started_) / second) +
               line("connections", open_connections_.load()) + "\n";
    }

    static std::string line(const char *name, auto number)
    {
        return std::string("\n") + name + " " + std::to_string(number);
    }

    std::string stats()
    {
        const BlockStore::Counters cache = store_.counters();
        uint64_t resident = 0;
        uint64_t address_space = 0;
        get_rss_virt(&resident, &address_space);
        const ko::Lock lock(shared_);
        return "requests " + std::to_string(requests_) + line("bad_requests", bad_requests_) +
               line("requests_per_second", GetBucket(&request_rate_)) +
               line("bytes_per_second", GetBucket(&byte_rate_)) + line("cache_hits", cache.hits) +
               line("cache_ghost_hits", cache.ghost_hits) + line("cache_misses", cache.misses) +
               line("resident_mib", resident) + "\n";
    }

    static inline Daemon *the_daemon;    // for the idle routine, which is given nothing else
    static inline msgqueue_t *the_queue; // queues are not destroyed; a leak checker sees it here

    const Settings settings_;
    const std::string files_; // below the data folder, named by the file system
    BlockStore store_{[](uint64_t number) {
        program.debug(debug_cache, "read block %llu\n", static_cast<unsigned long long>(number));
    }};
    std::array<commblk_t, most_connections> blocks_ = {};
    ko::FsmList fsm_list_;
    ko::GlobalVars variables_;
    uint64_t patience_ = 0; // for a request to come, and for its answer to leave; microseconds
    ko::Descriptor signals_;
    ko::Descriptor wake_; // an event: connections to take back, or idle work
    std::array<ko::Descriptor, 2> listeners_;
    int port_ = 0;
    ko::PollSet poll_;
    bool stopping_ = false;
    std::map<int, std::unique_ptr<Connection>> connections_;
    monotime_t started_ = {};
    monotime_t kept_house_ = {};
    std::atomic<int> open_connections_{0};
    std::atomic<bool> idle_{false};

    thread_mutex_t shared_ = THREAD_MUTEX_INITIALIZER; // guards the rest
    std::vector<Connection *> done_;
    std::string list_text_;
    SlidingBucket_t request_rate_;
    SlidingBucket_t byte_rate_;
    bool published_ = false;
    uint64_t requests_ = 0;
    uint64_t bad_requests_ = 0;

    ko::WorkQueue queue_; // goes first: its workers use all of this
};

// Whoever started the daemon must not wait for its descriptors.
void let_go(int first, int last)
{
    ko::Descriptor null(voopen("/dev/null", O_RDWR, 0));
    for (int fd = first; fd <= last && null; fd++) {
        dup2(null.get(), fd);
    }
    if (null.get() <= last) {
        (void)null.release(); // it took the place of one of them
    }
}

Settings settings; // from the command line

// The daemon proper, run by the watcher.
int fsmd_main(int, char **)
{
    const int status = start_up(settings);
    if (status != 0) {
        return status;
    }
    let_go(2, 2);
    return Daemon(settings).run();
}

} // namespace

int main(int argc, char **argv)
{
    const int status = parse_command_line(argc, argv, settings);
    if (status >= 0) {
        return status;
    }
    let_go(0, 1); // complaints of the start-up still have standard error
    return KeepRunning(fsmd_main, argc, argv);
}
