// watcher_test.cpp - a real watcher over a real daemon, each in throw-away processes.
//
// What goes to the system log, and each pause, becomes a line on the standard error that all of
// them share. The daemon itself sends the watcher its signals.
#include "koutil/watcher.h"

#include "internal/core_series.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdarg>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

static const char *log_identity = "none";
static int restarts; // pauses that the watcher has made before it started this daemon

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
    va_list args;
    va_start(args, format);
    dprintf(2, "%d %s: ", priority, log_identity);
    vdprintf(2, format, args);
    dprintf(2, "\n");
    va_end(args);
}

// Ends early when a child does, or where there is none.
extern "C" unsigned sleep(unsigned seconds)
{
    dprintf(2, "sleep %u\n", seconds);
    restarts += seconds == 5;
    siginfo_t ended{};
    constexpr int options = WEXITED | WNOHANG | WNOWAIT;
    for (int i = 0; waitid(P_ALL, 0, &ended, options) == 0 && ended.si_pid == 0 && i < 50; i++) {
        usleep(2'000);
    }
    return 0;
}

namespace
{

char name[] = "/some/where/fsd";
int host_argc;
char **host_argv;
volatile sig_atomic_t hangups;

std::string command_line(pid_t pid)
{
    return support::read_file("/proc/" + std::to_string(pid) + "/cmdline");
}

int returns_7(int, char **)
{
    syslog(LOG_INFO, "session %s", getsid(0) == getpid() ? "of its own" : "of the caller");
    return 7;
}

// Fails, is killed, and has the watcher stopped.
int eventful(int argc, char **argv)
{
    const pid_t self = getpid();
    if (restarts == 0) {
        syslog(LOG_INFO, "%s watches %s", command_line(WatcherPid).c_str(), argv[0]);
        EXPECT_EQ(command_line(self).find(argv[argc - 1]), argv[argc - 1] - argv[0]);
        EXPECT_EQ(getsid(0), self);
        signal(SIGHUP, [](int) { hangups = 1; });
        if (fork() == 0) { // a stop is no end: the watcher goes on listening
            kill(self, SIGSTOP);
            usleep(20'000);
            kill(self, SIGCONT);
            kill(WatcherPid, SIGHUP);
            _exit(0);
        }
        for (int i = 0; hangups == 0 && i < 20'000; i++) {
            usleep(1'000);
        }
        return testing::Test::HasFailure() ? 99 : 3;
    }
    restarts == 1 ? kill(self, SIGKILL) : kill(WatcherPid, SIGTERM);
    return usleep(20'000'000);
}

int stubborn(int, char **)
{
    signal(SIGTERM, SIG_IGN);
    kill(WatcherPid, SIGTERM);
    return usleep(20'000'000);
}

int dumps(int, char **)
{
    return restarts > 5 ? 0 : (abort(), 0);
}

// What all the processes of a run have reported, and the status of the first.
std::string story(bool detach, bool restart, main_f daemon)
{
    const support::TempDir folder; // for core dumps
    const auto outcome = support::run_in_child([&] {
        rlimit core;
        getrlimit(RLIMIT_CORE, &core);
        core.rlim_cur = core.rlim_max;
        setrlimit(RLIMIT_CORE, &core);
        EXPECT_EQ(chdir(folder.path().c_str()), 0);
        detach ? 0 : setenv("WATCHER_NODETACH", "", 1);
        restart ? 0 : setenv("WATCHER_NORESTART", "", 1);
        return KeepRunning(daemon, host_argc, host_argv);
    });
    return outcome.err + "exit " + std::to_string(WEXITSTATUS(outcome.status));
}

} // namespace

// The command line must be this process's own, and long enough for the watcher's name.
int main(int argc, char **argv)
{
    if (argv[0] != std::string(name)) {
        argv[0] = name;
        execv("/proc/self/exe", argv);
    }
    host_argc = argc;
    host_argv = argv;
    std::vector<char *> args(argv, argv + argc + 1);
    testing::InitGoogleTest(&argc, args.data());
    return RUN_ALL_TESTS();
}

TEST(Watcher, RunsOnlyWhatIsNotSwitchedOff)
{
    EXPECT_EQ(story(false, false, returns_7), "6 none: session of the caller\nexit 7");
    EXPECT_EQ(story(true, false, returns_7), "6 none: session of its own\nexit 0");
}

TEST(Watcher, ForwardsSignalsRestartsAndStops)
{
    EXPECT_EQ(story(true, true, eventful),
              "29 fsd-watcher: Starting fsd\n"
              "6 fsd: fsd-watcher watches /some/where/fsd\n"
              "29 fsd-watcher: Received signal 1, forwarding to fsd\n"
              "27 fsd-watcher: fsd exited with status 3\nsleep 5\n"
              "29 fsd-watcher: Restarting fsd\n"
              "27 fsd-watcher: fsd killed by signal 9\nsleep 5\n"
              "29 fsd-watcher: Restarting fsd\n"
              "29 fsd-watcher: Received signal 15, sending SIGTERM to fsd\nsleep 1\nexit 0");
    EXPECT_EQ(story(false, true, stubborn), "29 none: Starting fsd\n"
                                            "29 none: Received signal 15, sending SIGTERM to fsd\n"
                                            "sleep 1\nsleep 1\nsleep 1\nsleep 1\nsleep 1\n"
                                            "29 none: Sending SIGKILL to fsd\nexit 0");
}

TEST(Watcher, GivesUpADaemonThatKeepsDumpingCore)
{
    const std::string text = story(false, true, dumps);
    if (text.find("signal 6\n") != std::string::npos) {
        GTEST_SKIP() << "this machine writes no core dumps";
    }
    std::string expected = "29 none: Starting fsd\n";
    for (int dump = 1; dump < 5; dump++) {
        expected += "27 none: fsd killed by signal 6 with core dump\nsleep 5\n"
                    "29 none: Restarting fsd\n";
    }
    expected += "27 none: fsd killed by signal 6 with core dump\n"
                "26 none: fsd dumped core too many times, giving up\nexit 1";
    EXPECT_EQ(text, expected);
}

TEST(CoreSeries, GivesUpAtTheFifthDumpWithinAnHourOfEachOther)
{
    // From each dump to the next; the last one is the fifth of a series.
    const std::vector<time_t> cases[] = {{1'000'000, 3599, 0, 300, 3599},
                                         {1'000'000, 300, 300, 3600, 300, 300, 300, 300},
                                         {1'000'000, 300, 300, 300, -1, 0, 0, 0, 0}};
    for (const auto &gaps : cases) {
        koutil::CoreSeries series;
        time_t now = 0;
        for (size_t i = 0; i < gaps.size(); i++) {
            now += gaps[i];
            EXPECT_EQ(series.count(now), i + 1 == gaps.size()) << i;
        }
    }
}
