// watcher_test.cpp - a real watcher over a real daemon, each in throw-away processes.
//
// The program starts itself again as "host ROLE ARGS": that process calls KeepRunning with a daemon
// that acts by its role. What goes to the system log, and each pause, becomes a line of a file. A
// second of pause lasts 50 ms.
#include "koutil/watcher.h"

#include "internal/core_series.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

static const char *log_identity = "none";

static void write_line(const std::string &line)
{
    const int fd = open("log", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const std::string text = line + "\n";
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
}

extern "C" void openlog(const char *ident, int, int)
{
    log_identity = ident;
}

extern "C" void closelog()
{
    log_identity = "none";
}

extern "C" void syslog(int priority, const char *format, ...)
{
    char text[500];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    write_line(std::to_string(priority) + " " + log_identity + ": " + text);
}

extern "C" unsigned sleep(unsigned seconds)
{
    write_line("sleep " + std::to_string(seconds));
    usleep(seconds * 50'000);
    return 0;
}

// A signal for process -1 or 0 would end much more than the daemon.
extern "C" int kill(pid_t pid, int signal) noexcept
{
    if (pid <= 0) {
        abort();
    }
    return static_cast<int>(syscall(SYS_kill, pid, signal));
}

namespace
{

volatile sig_atomic_t hangups;

// The daemon: "exit STATUS [FIRST_STATUS]", "dump", "wait" or "stubborn".
int daemon_main(int argc, char **argv)
{
    const std::string role = argc > 2 ? argv[2] : "";
    write_line("daemon " + std::to_string(getpid()) + " " + std::to_string(WatcherPid) + " " +
               log_identity);
    if (role == "exit") {
        const bool first = argc > 4 && access("ran", F_OK) != 0;
        close(open("ran", O_CREAT | O_CLOEXEC | O_WRONLY, 0600));
        return atoi(argv[first ? 4 : 3]);
    }
    if (role == "dump") {
        signal(SIGABRT, SIG_DFL);
        abort();
    }
    signal(SIGTERM, role == "stubborn" ? SIG_IGN : SIG_DFL);
    signal(SIGHUP, [](int) { hangups = 1; });
    write_line("ready " + std::string(argv[argc - 1]));
    for (;;) {
        usleep(5'000);
        if (hangups != 0) {
            hangups = 0;
            write_line("hung up");
        }
    }
}

class Watcher : public ::testing::Test
{
  protected:
    // Adopts what the watchers leave behind.
    Watcher() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    ~Watcher() override
    {
        end_child(watcher_pid());
        end_child(daemon_pid());
    }

    // Starts the host with the given environment; returns its process id.
    pid_t start(std::vector<std::string> args, const std::vector<const char *> &variables)
    {
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(60);
            rlimit core{RLIM_INFINITY, RLIM_INFINITY};
            getrlimit(RLIMIT_CORE, &core);
            core.rlim_cur = core.rlim_max;
            setrlimit(RLIMIT_CORE, &core);
            for (const char *variable : variables) {
                setenv(variable, "", 1);
            }
            char self[4096] = "";
            if (readlink("/proc/self/exe", self, sizeof self - 1) < 0 ||
                chdir(dir_.path().c_str()) != 0) {
                _exit(99);
            }
            args.insert(args.begin(), {"/some/where/fsd", "host"});
            std::vector<char *> argv;
            for (auto &arg : args) {
                argv.push_back(arg.data());
            }
            argv.push_back(nullptr);
            execv(self, argv.data());
            _exit(99);
        }
        return pid;
    }
    static int wait_for(pid_t pid)
    {
        int status = -1;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return status;
    }
    std::string log() const { return support::read_file(dir_ / "log"); }
    // The log as soon as it holds `text` `times` times; it fails after half a minute.
    std::string log_with(const std::string &text, int times = 1) const
    {
        for (int attempt = 0; attempt < 6000; attempt++) {
            const std::string now = log();
            int found = 0;
            for (size_t at = 0; (at = now.find(text, at)) != std::string::npos; at++) {
                found++;
            }
            if (found >= times) {
                return now;
            }
            usleep(5'000);
        }
        ADD_FAILURE() << "no \"" << text << "\" in:\n" << log();
        return log();
    }
    // The log without process ids, and with the seconds of a stop as one.
    std::string story() const
    {
        std::string text = log();
        const std::string twice = "sleep 1\nsleep 1\n";
        for (size_t at; (at = text.find(twice)) != std::string::npos;) {
            text.erase(at, twice.size() / 2);
        }
        for (size_t at = 0; (at = text.find("daemon ", at)) != std::string::npos; at++) {
            const size_t end = text.find_last_of(' ', text.find('\n', at));
            text.erase(at + 6, end - at - 6);
        }
        return text;
    }
    // Of the latest daemon, 0 if none has run: its process id, and its watcher's.
    pid_t daemon_pid(int field = 0) const
    {
        const std::string text = log();
        const size_t at = text.rfind("daemon ");
        int pids[2] = {0, 0};
        if (at != std::string::npos) {
            sscanf(text.c_str() + at, "daemon %d %d", &pids[0], &pids[1]);
        }
        return pids[field];
    }
    pid_t watcher_pid() const { return daemon_pid(1); }
    static void end_child(pid_t pid)
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            wait_for(pid);
        }
    }
    static std::string command_line(pid_t pid)
    {
        std::string text = support::read_file("/proc/" + std::to_string(pid) + "/cmdline");
        text.resize(text.find_last_not_of('\0') + 1);
        for (char &c : text) {
            c = c == '\0' ? ' ' : c;
        }
        return text;
    }

    support::TempDir dir_;
};

const char *const no_detach = "WATCHER_NODETACH";
const char *const no_restart = "WATCHER_NORESTART";

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1 && std::string(argv[1]) == "host") {
        return KeepRunning(daemon_main, argc, argv);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

TEST_F(Watcher, SwitchedOffRunsTheDaemonInPlace)
{
    const pid_t host = start({"exit", "7"}, {no_detach, no_restart});
    const int status = wait_for(host);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(daemon_pid(), host);
    EXPECT_EQ(story(), "daemon none\n");
}

TEST_F(Watcher, WithoutRestartsTheDetachedProcessIsTheDaemon)
{
    EXPECT_EQ(wait_for(start({"exit", "3"}, {no_restart})), 0);
    log_with("daemon");
    const int status = wait_for(daemon_pid());
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(story(), "daemon none\n"); // its log is closed
}

TEST_F(Watcher, RestartsADaemonThatFailsUntilItEndsWell)
{
    const int status = wait_for(start({"exit", "0", "3"}, {no_detach}));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(story(), "29 none: Starting fsd\ndaemon fsd\n"
                       "27 none: fsd exited with status 3\nsleep 5\n"
                       "29 none: Restarting fsd\ndaemon fsd\n"
                       "29 none: fsd normal termination\n");
}

TEST_F(Watcher, DetachedForwardsSignalsAndStops)
{
    EXPECT_EQ(wait_for(start({"wait", "an argument"}, {})), 0);
    log_with("ready an argument");
    const pid_t watcher = watcher_pid();
    const pid_t daemon = daemon_pid();
    EXPECT_EQ(command_line(watcher), "fsd-watcher");
    EXPECT_EQ(command_line(daemon), "/some/where/fsd host wait an argument");
    EXPECT_EQ(getsid(watcher), watcher);
    EXPECT_EQ(getsid(daemon), daemon);

    kill(daemon, SIGSTOP); // not an end: the watcher goes on listening
    usleep(20'000);
    kill(watcher, SIGHUP);
    log_with("forwarding");
    kill(daemon, SIGCONT);
    log_with("hung up");
    kill(daemon, SIGKILL);
    log_with("ready an argument", 2);
    EXPECT_NE(daemon_pid(), daemon);
    kill(watcher, SIGTERM);
    const int status = wait_for(watcher);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(story(), "29 fsd-watcher: Starting fsd\ndaemon fsd\nready an argument\n"
                       "29 fsd-watcher: Received signal 1, forwarding to fsd\nhung up\n"
                       "27 fsd-watcher: fsd killed by signal 9\nsleep 5\n"
                       "29 fsd-watcher: Restarting fsd\ndaemon fsd\nready an argument\n"
                       "29 fsd-watcher: Received signal 15, sending SIGTERM to fsd\nsleep 1\n");
}

TEST_F(Watcher, KillsADaemonThatIgnoresSigterm)
{
    const pid_t watcher = start({"stubborn"}, {no_detach});
    log_with("ready");
    kill(watcher, SIGTERM);
    EXPECT_EQ(wait_for(watcher), 0);
    EXPECT_NE(log().find("sending SIGTERM to fsd\nsleep 1\nsleep 1\nsleep 1\nsleep 1\nsleep 1\n"
                         "29 none: Sending SIGKILL to fsd\n"),
              std::string::npos)
        << log();
    const int status = wait_for(daemon_pid());
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST_F(Watcher, GivesUpADaemonThatKeepsDumpingCore)
{
    const pid_t watcher = start({"dump"}, {no_detach});
    if (log_with("killed by signal 6").find("signal 6\n") != std::string::npos) {
        end_child(watcher);
        GTEST_SKIP() << "this machine writes no core dumps";
    }
    const int status = wait_for(watcher);
    EXPECT_EQ(WEXITSTATUS(status), 1);
    std::string expected = "29 none: Starting fsd\n";
    for (int dump = 1; dump <= 5; dump++) {
        expected += "daemon fsd\n27 none: fsd killed by signal 6 with core dump\n";
        expected += dump < 5 ? "sleep 5\n29 none: Restarting fsd\n"
                             : "26 none: fsd dumped core too many times, giving up\n";
    }
    EXPECT_EQ(story(), expected);
}

TEST(CoreSeries, GivesUpAtTheFifthDumpWithinAnHourOfEachOther)
{
    const struct {
        std::vector<time_t> gaps;
        bool expected; // of the last one
    } cases[] = {
        {{1'000'000, 300, 300, 300, 300}, true},     {{1'000'000, 300, 300, 300}, false},
        {{1'000'000, 3599, 3599, 3599, 3599}, true}, {{1'000'000, 300, 300, 3600, 300}, false},
        {{1'000'000, 300, 300, 300, -1}, false}, // the clock went back
        {{1'000'000, 300, -5000, 0, 0, 0}, false},   {{1'000'000, 300, -5000, 0, 0, 0, 0}, true},
        {std::vector<time_t>(100, 7200), false},
    };
    for (const auto &c : cases) {
        koutil::CoreSeries series;
        time_t now = 0;
        for (size_t i = 0; i < c.gaps.size(); i++) {
            now += c.gaps[i];
            EXPECT_EQ(series.count(now), c.expected && i + 1 == c.gaps.size()) << i;
        }
    }
}
