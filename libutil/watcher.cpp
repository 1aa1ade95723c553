// watcher.cpp - the supervisor of a daemon.
//
//     KeepRunning --fork--> watcher --fork--> daemon: inner_main
//          |                   ^ |
//      returns 0      sigwait: signals of signal_set, one at a time
//
// The watcher is single-threaded and blocks its signals, so no handler does real work. Its frames
// own nothing: the host's main function runs on top of them and may end the process or its thread.
// Names given to openlog live on the heap for as long as the log is open, because it keeps the
// pointer, and argv is overwritten.
#include "koutil/watcher.h"

#include "internal/core_series.h"
#include "internal/guards.h"
#include "koutil/snprintf.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

constexpr unsigned restart_pause = 5; // seconds
constexpr int stop_patience = 5;      // seconds until SIGKILL

char *daemon_name;
pid_t daemon_pid = -1; // 0 between the daemon's end and its restart, -1 when it is gone for good
koutil::CoreSeries cores;
sigset_t signal_set;
char *argv0addr;
size_t argv0len;
char *argv0save;
char **saved_argv;
int do_detach = 1;
int do_restarts = 1;

// Whatever log identity the process has, these are a daemon's messages.
constexpr int log_error = LOG_DAEMON | LOG_ERR;
constexpr int log_notice = LOG_DAEMON | LOG_NOTICE;
constexpr int log_critical = LOG_DAEMON | LOG_CRIT;

void sigchld_handler(int) {}

// daemon_pid is not a process while it is 0 or -1, which kill would take for many.
void send_to_daemon(int signal)
{
    if (daemon_pid > 0) {
        kill(daemon_pid, signal);
    }
}

void new_session()
{
    if (setsid() < 0) {
        syslog(log_error, "failed to set session id: %s", strerror(errno));
        exit(1);
    }
}

int start_daemon(main_f inner_main, int argc, char **argv)
{
    const pid_t watcher = getpid();
    daemon_pid = fork();
    if (daemon_pid < 0) {
        syslog(log_error, "Cannot fork %s: %s", daemon_name, strerror(errno));
        return -1;
    }
    if (daemon_pid > 0) {
        return 0;
    }
    new_session();
    signal(SIGCHLD, SIG_DFL);
    sigprocmask(SIG_UNBLOCK, &signal_set, nullptr);
    closelog();
    openlog(daemon_name, LOG_PID, LOG_DAEMON);
    if (argv0save != nullptr) {
        memcpy(argv0addr, argv0save, argv0len);
    }
    WatcherPid = watcher;
    exit(inner_main(argc, argv));
}

// Waits for the daemon, in vain if `options` has WNOHANG and it still runs.
pid_t collect(int &status, int options)
{
    pid_t pid;
    do {
        pid = waitpid(daemon_pid, &status, options);
    } while (pid < 0 && errno == EINTR);
    return pid;
}

[[noreturn]] void stop(int signal)
{
    syslog(log_notice, "Received signal %d, sending SIGTERM to %s", signal, daemon_name);
    send_to_daemon(SIGTERM);
    for (int second = 0; second < stop_patience && daemon_pid > 0; second++) {
        sleep(1);
        int status;
        const pid_t pid = collect(status, WNOHANG);
        if (pid == daemon_pid || (pid < 0 && errno == ECHILD)) {
            daemon_pid = -1;
        }
    }
    if (daemon_pid != -1) {
        syslog(log_notice, "Sending SIGKILL to %s", daemon_name);
        send_to_daemon(SIGKILL);
    }
    exit(0);
}

// Reports how the daemon ended; exits where it is not to be started again.
void judge(int status)
{
    if (WIFEXITED(status)) {
        if (WEXITSTATUS(status) == 0) {
            syslog(log_notice, "%s normal termination", daemon_name);
            exit(0);
        }
        syslog(log_error, "%s exited with status %d", daemon_name, WEXITSTATUS(status));
    } else if (WIFSIGNALED(status)) {
        const bool dumped = WCOREDUMP(status);
        syslog(log_error, "%s killed by signal %d%s", daemon_name, WTERMSIG(status),
               dumped ? " with core dump" : "");
        if (dumped && cores.count(time(nullptr))) {
            syslog(log_critical, "%s dumped core too many times, giving up", daemon_name);
            exit(1);
        }
    } else {
        syslog(log_error, "Unexpected %s exit status %d", daemon_name, status);
    }
}

void restart(main_f inner_main, int argc, char **argv)
{
    int status = 0;
    if (collect(status, 0) < 0) {
        syslog(log_error, "waitpid(%s) failed: %s", daemon_name, strerror(errno));
        exit(1);
    }
    daemon_pid = 0;
    judge(status);
    sleep(restart_pause);
    syslog(log_notice, "Restarting %s", daemon_name);
    if (start_daemon(inner_main, argc, argv) != 0) {
        exit(1);
    }
}

// The process's own argument area, from fields 48 and 49 of its stat line.
bool argument_area(uintptr_t &start, uintptr_t &end)
{
    constexpr int field_of_start = 48;
    const koutil::Fd fd(open("/proc/self/stat", O_RDONLY | O_CLOEXEC));
    char text[2048];
    const ssize_t got = fd ? read(fd.get(), text, sizeof text - 1) : -1;
    if (got <= 0) {
        return false;
    }
    text[got] = '\0';
    const char *at = strrchr(text, ')'); // ends field 2, a name that may hold anything
    for (int field = 2; at != nullptr && field < field_of_start; field++) {
        at = strchr(at + 1, ' ');
    }
    if (at == nullptr) {
        return false;
    }
    char *rest;
    start = strtoull(at, &rest, 10);
    end = strtoull(rest, nullptr, 10);
    return start != 0 && start < end;
}

// Length of all argument strings with their terminators.
size_t total_length(int argc, char *const *argv)
{
    size_t total = 0;
    for (int i = 0; i < argc; i++) {
        total += strlen(argv[i]) + 1;
    }
    return total;
}

// Whether the strings lie one behind the other in the process's argument area: only then may they
// be overwritten as a whole.
bool is_own_area(int argc, char *const *argv, size_t length)
{
    const char *expected = argv[0];
    for (int i = 0; i < argc; i++) {
        if (argv[i] != expected) {
            return false;
        }
        expected += strlen(argv[i]) + 1;
    }
    uintptr_t start;
    uintptr_t end;
    const auto first = reinterpret_cast<uintptr_t>(argv[0]);
    return argument_area(start, end) && first >= start && first < end && length <= end - first;
}

// Shows `name` in the process list instead of the arguments. Returns the vector that the daemon is
// to get: a copy, or `argv` itself when nothing was renamed.
char **rename_process(const char *name, int argc, char **argv)
{
    argv0len = total_length(argc, argv);
    const size_t name_size = strlen(name) + 1;
    if (argv0len < name_size || !is_own_area(argc, argv, argv0len)) {
        return argv;
    }
    auto vector = koutil::callocate<char *>(static_cast<size_t>(argc) + 1);
    auto strings = koutil::callocate<char>(argv0len);
    if (vector == nullptr || strings == nullptr) {
        return argv;
    }
    memcpy(strings.get(), argv0addr, argv0len);
    for (int i = 0; i < argc; i++) {
        vector.get()[i] = strings.get() + (argv[i] - argv0addr);
    }
    argv0save = strings.release();
    saved_argv = vector.release();
    memset(argv0addr, 0, argv0len);
    memcpy(argv0addr, name, name_size);
    return saved_argv;
}

// Notes the daemon's name. Returns the watcher's, to be freed, or null.
char *make_names(const char *argv0)
{
    const char *slash = strrchr(argv0, '/');
    free(daemon_name);
    daemon_name = strdup(slash != nullptr ? slash + 1 : argv0);
    if (daemon_name == nullptr) {
        return nullptr;
    }
    const size_t size = strlen(daemon_name) + sizeof "-watcher";
    char *watcher_name = static_cast<char *>(malloc(size));
    if (watcher_name != nullptr) {
        VoSnprintf(watcher_name, size, "%s-watcher", daemon_name);
    }
    return watcher_name;
}

// Signals must be on their way to sigwait before the first child can send one.
void take_signals()
{
    struct sigaction action = {};
    action.sa_handler = sigchld_handler;
    action.sa_flags = SA_NOCLDSTOP; // a stopped daemon has not ended
    sigaction(SIGCHLD, &action, nullptr);
    sigemptyset(&signal_set);
    for (int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD, SIGUSR1, SIGUSR2, SIGPIPE}) {
        sigaddset(&signal_set, signal);
    }
}

[[noreturn]] void watch(main_f inner_main, int argc, char **argv)
{
    sigprocmask(SIG_BLOCK, &signal_set, nullptr);
    syslog(log_notice, "Starting %s", daemon_name);
    if (start_daemon(inner_main, argc, argv) != 0) {
        exit(1);
    }
    for (;;) {
        int signal;
        if (sigwait(&signal_set, &signal) != 0) {
            continue;
        }
        if (signal == SIGTERM) {
            stop(signal);
        } else if (signal == SIGCHLD) {
            restart(inner_main, argc, argv);
        } else {
            syslog(log_notice, "Received signal %d, forwarding to %s", signal, daemon_name);
            send_to_daemon(signal);
        }
    }
}

} // namespace

pid_t WatcherPid;

int KeepRunning(main_f inner_main, int argc, char **argv)
{
    if (getenv("WATCHER_NODETACH") != nullptr) {
        do_detach = 0;
    }
    if (getenv("WATCHER_NORESTART") != nullptr) {
        do_restarts = 0;
    }
    if (do_detach == 0 && do_restarts == 0) {
        return inner_main(argc, argv);
    }
    argv0addr = argv[0];
    char *watcher_name = make_names(argv[0] != nullptr ? argv[0] : "");
    if (watcher_name == nullptr) {
        return -1;
    }
    if (do_detach != 0) {
        const pid_t pid = fork();
        if (pid != 0) {
            if (pid < 0) {
                syslog(log_error, "fork() failed: %s", strerror(errno));
            }
            free(watcher_name);
            return pid < 0 ? 1 : 0;
        }
        openlog(watcher_name, LOG_PID, LOG_DAEMON);
        new_session();
    }
    if (do_restarts == 0) {
        closelog();
        free(watcher_name);
        return inner_main(argc, argv);
    }
    take_signals();
    char **daemon_argv = rename_process(watcher_name, argc, argv);
    if (do_detach == 0) {
        free(watcher_name); // the log of a detached watcher keeps it
    }
    watch(inner_main, argc, daemon_argv);
}
