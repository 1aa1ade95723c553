// kovalog_test.cpp - log lines, rotation and debug flags, with a clock and a writer of the test's
// own.
#include "koutil/kovalog.h"
#include "support/out_of_memory.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using support::TempDir;

namespace
{

timeval now = {1767366245, 678}; // 20260102 15:04:05 UTC
bool local_time_fails = false;
int failing_writes = 0;
std::atomic<bool> slow_writes{false};

std::string stamp()
{
    return "[20260102 15:04:05.000678 " + std::to_string(syscall(SYS_gettid)) + "] ";
}

template <typename... Args>
void log(int level, const char *format, Args... args)
{
    LogToFile(level, const_cast<char *>(format), args...);
}

// A log file in a folder of its own, closed at the end.
class LogFile : public ::testing::Test
{
  protected:
    void TearDown() override { CloseLog(); }
    std::string name(int number = 0) const
    {
        return dir / (number == 0 ? "log" : "log_" + std::to_string(number));
    }
    std::string text(int number = 0) const { return support::read_file(name(number)); }
    bool exists(int number) const { return support::file_exists(name(number)); }

    TempDir dir;
};

} // namespace

extern "C" int gettimeofday(timeval *time, void *) noexcept
{
    *time = now;
    return 0;
}

extern "C" tm *localtime_r(const time_t *time, tm *result) noexcept
{
    errno = EOVERFLOW;
    return local_time_fails ? nullptr : gmtime_r(time, result);
}

extern "C" ssize_t write(int fd, const void *bytes, size_t size)
{
    if (failing_writes > 0) {
        failing_writes--;
        errno = ENOSPC;
        return -1;
    }
    if (slow_writes) {
        usleep(100);
    }
    pthread_testcancel(); // as the real one does
    return syscall(SYS_write, fd, bytes, size);
}

TEST(LogLine, GoesToStandardOutputBeforeAnySetup)
{
    const std::string printed = support::capture(1, [] {
        for (int level = -1; level <= 6; level++) {
            log(level, "m%d\n", level);
        }
    });
    const std::string s = stamp();
    EXPECT_EQ(printed, "(?)" + s + "m-1\n D " + s + "m0\n I " + s + "m1\n(W)" + s + "m2\n(E)" + s +
                           "m3\n(F)" + s + "m4\n(C)" + s + "m5\n(?)" + s + "m6\n");
}

TEST(LogLine, FormatsAsThePlatformDoes)
{
    const auto expect_same = [](const char *format, auto... args) {
        char expected[2000];
        snprintf(expected, sizeof expected, format, args...);
        const std::string printed = support::capture(1, [&] { log(1, format, args...); });
        EXPECT_EQ(printed, " I " + stamp() + expected) << format;
    };
    const char *volatile null_text = nullptr;
    expect_same("plain\n", 0);
    expect_same("%s|%s|%s|%%|", "a", "", null_text);
    expect_same("%d %d %u %u", INT_MIN, INT_MAX, 0U, UINT_MAX);
    expect_same("%ld %lld %lu %llu %zu %zd", LONG_MIN, LLONG_MAX, ULONG_MAX, ULLONG_MAX, SIZE_MAX,
                ssize_t{-1});
    expect_same("%s %d then %5d %-4s| %x %c %p %.2f %hd", "a", 1, 7, "b", 255U, 'c',
                static_cast<void *>(&now), 1.5, 9);
    expect_same("%m %s", "of the caller");
    const char *volatile no_format = nullptr;
    EXPECT_EQ(support::capture(1, [&] { log(1, no_format, 0); }), " I " + stamp());
}

TEST(LogLine, AtItsLimitIsKeptAndBeyondItReplaced)
{
    const size_t room = 1023 - 3 - stamp().size();
    const std::string overflow = "(E) [20260102 15:04:05] log message overflowed\n";
    for (const char *format : {"%s", "%5s"}) { // the short way and the platform's
        for (size_t extra : {0, 1, 5000}) {
            const std::string message(room + extra, 'x');
            const std::string printed =
                support::capture(1, [&] { log(2, format, message.c_str()); });
            EXPECT_EQ(printed, extra == 0 ? "(W)" + stamp() + message : overflow);
        }
    }
}

TEST(LogLine, FollowsClockThreadProcessAndFailure)
{
    const auto print = [] { return support::capture(1, [] { log(0, "x"); }); };
    now.tv_sec += 86399;
    now.tv_usec = 999999;
    EXPECT_EQ(print().substr(0, 30), " D [20260103 15:04:04.999999 " + stamp().substr(26, 1));
    std::thread([&] { EXPECT_EQ(print().find(stamp().substr(25)), 28u); }).join();
    const auto child = support::run_in_child([] {
        log(0, "x");
        return 0;
    });
    EXPECT_EQ(child.out.find(stamp().substr(25)), std::string::npos);
    local_time_fails = true;
    now.tv_sec++;
    EXPECT_EQ(print().substr(0, 15), " D [????.999999");
    local_time_fails = false;
    now = {1767366245, 678};
    errno = EXDEV;
    failing_writes = 1;
    log(0, "x");
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(gettid(), syscall(SYS_gettid));
}

TEST_F(LogFile, RotatesThroughItsNumberedFiles)
{
    support::write_file(name(), "");
    ASSERT_EQ(SetupLogFile(name().c_str(), 100, 2), 1);
    const auto fill = [&](char letter) { // two lines pass the limit, one does not
        log(1, "%c\n", letter);
        log(1, "%s\n", std::string(50, letter).c_str());
    };
    for (char letter = 'a'; letter <= 'e'; letter++) {
        fill(letter);
        EXPECT_EQ(text(), "");
        const std::string newest = text(1);
        EXPECT_EQ(newest, " I " + stamp() + letter + "\n I " + stamp() + std::string(50, letter) +
                              "\nRotating Log File\n");
    }
    EXPECT_NE(text(2).find("dddd"), std::string::npos);
    EXPECT_FALSE(exists(3));
}

TEST_F(LogFile, CountsWhatTheFileHoldsAndOnlyWhatIsWritten)
{
    support::write_file(name(), std::string(90, 'o'));
    chmod(name().c_str(), 0600);
    ASSERT_EQ(SetupLogFile(name().c_str(), 100, 1), 1);
    failing_writes = 20;
    while (failing_writes > 0) {
        log(1, "lost\n");
    }
    EXPECT_EQ(text().size(), 90u);
    log(1, "\n");
    EXPECT_EQ(text(1).substr(0, 93), std::string(90, 'o') + " I ");
    struct stat st = {};
    stat(name().c_str(), &st);
    EXPECT_EQ(st.st_size, 0);
}

TEST_F(LogFile, RotatesAroundWhatIsInTheFolder)
{
    const struct {
        int count;
        std::map<int, int> before; // number of a file, and its content
        std::map<int, int> after;
    } cases[] = {
        {0, {{0, 0}}, {{0, 0}}},
        {-1, {{0, 0}, {1, 1}}, {{0, 0}, {1, 1}}},
        {0, {{0, 0}, {1, 1}}, {{1, 0}}}, // of an earlier count of 1
        {2, {{0, 0}, {1, 1}, {2, 2}}, {{1, 0}, {2, 1}}},
        {2, {{0, 0}, {2, 2}, {3, 3}, {4, 4}, {6, 6}}, {{1, 0}, {3, 2}, {4, 3}, {6, 6}}},
        {9, {{0, 0}, {5, 5}}, {{1, 0}, {6, 5}}},
        {1000000000, {{0, 0}, {1, 1}, {70, 7}}, {{1, 0}, {2, 1}, {71, 7}}},
        {INT_MAX, {{0, 0}, {1, 1}}, {{1, 0}, {2, 1}}},
    };
    for (const auto &c : cases) {
        const TempDir folder;
        const std::string base = folder / "x";
        const auto path = [&](int n) { return n == 0 ? base : base + "_" + std::to_string(n); };
        support::write_file(folder / "x_7more", "not ours");
        for (auto [number, content] : c.before) {
            support::write_file(path(number), std::to_string(content));
        }
        __vorn_log_file_fd = -1;
        EXPECT_EQ(RotateLogs(c.count, base.c_str()), 0);
        for (int number : {0, 1, 2, 3, 4, 5, 6, 7, 70, 71}) {
            const auto found = c.after.find(number);
            const std::string expected =
                found != c.after.end() ? std::to_string(found->second) : "";
            EXPECT_EQ(support::read_file(path(number)), expected) << c.count << "/" << number;
        }
    }
}

TEST_F(LogFile, StaysClosedAfterAFailedRename)
{
    mkdir(name(1).c_str(), 0700);
    support::write_file(name(1) + "/in the way", "");
    ASSERT_EQ(SetupLogFile(name().c_str(), 10, 1), 1);
    log(1, "first\n");
    EXPECT_EQ(__vorn_log_file_fd, -1);
    unlink((name(1) + "/in the way").c_str());
    rmdir(name(1).c_str());
    log(1, "lost, and no new attempt\n");
    EXPECT_EQ(__vorn_log_file_fd, -1);
    EXPECT_FALSE(exists(1));
    const auto again = support::run_in_child([&] { // the earlier name is not freed, by rule
        const int result = SetupLogFile(name().c_str(), 1000, 1);
        log(1, "second\n");
        return result;
    });
    EXPECT_TRUE(again.exited(1));
    EXPECT_NE(text().find("second"), std::string::npos);
}

TEST_F(LogFile, TriesAgainToOpenAfterAFailedOpen)
{
    const std::string late = dir / "late/log";
    ASSERT_EQ(SetupLogFile(late.c_str(), 100, 1), 0);
    for (int i = 0; i < 9; i++) {
        log(1, "lost\n");
    }
    EXPECT_EQ(__vorn_log_file_fd, -1);
    mkdir((dir / "late").c_str(), 0700);
    while (__vorn_log_file_fd == -1) {
        log(1, "lost\n");
    }
    log(1, "kept\n");
    EXPECT_EQ(support::read_file(late), " I " + stamp() + "kept\n");
}

TEST_F(LogFile, SetupsNestAndReport)
{
    int isset = 9;
    int fd = 9;
    int count = 9;
    uint64_t size = 9;
    char *file = nullptr;
    ASSERT_EQ(SetupLogFile(name().c_str(), -1, 3), 1);
    GetLogFileInfo(&isset, &fd, &file, &size, &count);
    EXPECT_TRUE(isset == 1 && fd == __vorn_log_file_fd && size == UINT64_MAX && count == 3);
    EXPECT_EQ(file, name());
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    CloseLog();
    CloseLog();
    EXPECT_LT(fcntl(fd, F_GETFD), 0);
    GetLogFileInfo(&isset, &fd, &file, &size, &count);
    EXPECT_TRUE(isset == 0 && fd == -1 && size == 0 && count == 0 && file == nullptr);
    const auto child = support::run_in_child([] {
        SetupLogFile("-", 1, 3);
        SetupLogFile("-", 1, 3);
        CloseLog();
        log(2, "a\n");
        log(2, "b\n");
        CloseLog();
        int set = 1;
        GetLogFileInfo(&set, nullptr, nullptr, nullptr, nullptr);
        return set * 10 + __vorn_log_file_fd;
    });
    EXPECT_TRUE(child.exited(2));
    EXPECT_EQ(std::count(child.err.begin(), child.err.end(), '\n'), 2);
}

TEST_F(LogFile, EightThreadsLoseTearAndDoubleNothing)
{
    constexpr int threads = 8;
    constexpr int lines = 400;
    ASSERT_EQ(SetupLogFile(name().c_str(), 4000, 100000), 1);
    slow_writes = true; // so that most forks meet a held lock
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; t++) {
        writers.emplace_back([t] {
            for (int i = 0; i < lines; i++) {
                log(t % 6, i % 2 == 0 ? "<%d %d>\n" : "<%d %02d>\n", t, i);
            }
        });
    }
    for (int i = 0; i < 20; i++) { // a child logs whatever its parent's threads are at
        const pid_t child = fork();
        if (child == 0) {
            __vorn_log_file_fd = -1;
            log(1, "child");
            syscall(SYS_exit_group, 0); // no look by a sanitizer at the threads left behind
        }
        int status = 1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    slow_writes = false;
    for (auto &writer : writers) {
        writer.join();
    }
    std::map<std::string, int> seen;
    int files = 0;
    for (int number = 0; number == 0 || exists(number); number++, files++) {
        std::string rest = text(number);
        for (size_t end; (end = rest.find('\n')) != std::string::npos; rest.erase(0, end + 1)) {
            const std::string line = rest.substr(0, end);
            if (line != "Rotating Log File") {
                ASSERT_EQ(line.find("[20260102 15:04:05.000678 "), 3u) << line;
                seen[line.substr(line.find("] ") + 2)]++;
            }
        }
        EXPECT_EQ(rest, "");
    }
    EXPECT_GT(files, 20);
    EXPECT_EQ(seen.size(), size_t{threads} * lines);
    for (const auto &[line, times] : seen) {
        EXPECT_EQ(times, 1) << line;
    }
}

TEST(Cancellation, LeavesTheLogUsable)
{
    const TempDir dir;
    const std::string path = dir / "log";
    ASSERT_EQ(SetupLogFile(path.c_str(), 500, 2), 1);
    for (int i = 0; i < 20; i++) {
        pthread_t thread;
        ASSERT_EQ(pthread_create(
                      &thread, nullptr,
                      [](void *) -> void * {
                          for (;;) {
                              log(1, "busy\n");
                              pthread_testcancel();
                          }
                      },
                      nullptr),
                  0);
        usleep(500);
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
        log(1, "alive\n");
    }
    CloseLog();
}

namespace
{

vornlog_legend_t nine[] = {{0, "zero", "d0"},    {1, "one", "d1"},   {2, "two", "d2"},
                           {3, "three", "d3"},   {4, "four", "d4"},  {5, "five", "d5"},
                           {6, "six", "d6"},     {7, "seven", "d7"}, {8, "eight", "d8"},
                           {0, nullptr, nullptr}};
vornlog_legend_t far_legend[] = {{0, "zero", "other"}, {900, "far", "d"}, {0, nullptr, nullptr}};

std::string flags(int facility)
{
    char *hex = nullptr;
    EXPECT_EQ(DebugFlagsHexString(&hex, facility), 0);
    std::string result = hex;
    free(hex);
    return result;
}

std::vector<std::string> listed(char **strings)
{
    std::vector<std::string> result;
    size_t i = 0;
    for (; strings[i] != nullptr; i++) {
        result.emplace_back(strings[i]);
    }
    EXPECT_EQ(strings[i + 1], nullptr);
    free(strings);
    return result;
}

} // namespace

TEST(Facilities, AreSetUpOnceAndAgainAfterTheirEnd)
{
    vornlog_legend_t empty[] = {{0, nullptr, nullptr}};
    std::vector<vornlog_legend_t> huge(2042, {0, "k", "d"});
    huge[2041].vornlog_legend_key = nullptr;
    EXPECT_EQ(init_facility(-1, "x", nine), 22);
    EXPECT_EQ(init_facility(DBG_FAC_END, "x", nine), 22);
    EXPECT_EQ(init_facility(1, "named", empty), 22);
    EXPECT_STREQ(facilities[1].name, "named");
    EXPECT_EQ(init_facility(1, "x", huge.data()), 22);
    EXPECT_EQ(facility_valid(1) | facility_valid(-1) | facility_valid(11), 0);
    EXPECT_EQ(flags(1), "0x");
    EXPECT_EQ(init_facility(1, std::string(99, 'n').c_str(), nine), 0);
    EXPECT_EQ(facilities[1].name, std::string(63, 'n'));
    EXPECT_EQ(facilities[1].debug_flag_size, 2);
    EXPECT_EQ(init_facility(1, "x", nine), 16);
    EXPECT_EQ(facility_valid(1), 1);
    facility_at_exit(1);
    facility_at_exit(11);
    EXPECT_STREQ(facilities[1].name, "_facility_at_exit()_");
    EXPECT_EQ(facility_valid(1), 0);
    EXPECT_EQ(init_facility(1, "", nine), 0); // no name: set up, but not valid
    EXPECT_EQ(facility_valid(1), 0);
    EXPECT_EQ(listed(GetAllDebugStrings()).size(), 18u);
    facility_at_exit(1);
    EXPECT_TRUE(listed(GetAllDebugStrings()).empty());
    char *hex = nullptr;
    EXPECT_EQ(DebugFlagsHexString(&hex, 11), 22);
}

TEST(Facilities, FlagsFollowLists)
{
    ASSERT_EQ(init_facility(0, "a", nine), 0);
    ASSERT_EQ(init_facility(10, "b", far_legend), 0);
    const struct {
        const char *options;
        int result;
        const char *first;
        const char *second;
    } cases[] = {
        {",,one,,eight,", 0, "0x0102", "0x00"}, {"zero", 0, "0x0001", "0x01"},
        {"far", 0, "0x0000", "0x00"},           {"two,One,three", -1, "0x0004", "0x00"},
        {"one, two", -1, "0x0002", "0x00"},     {"", 0, "0x0000", "0x00"},
        {"seven", 0, "0x0080", "0x00"},         {nullptr, 0, "0x0000", "0x00"},
    };
    for (const auto &c : cases) {
        std::string options = c.options != nullptr ? c.options : "";
        EXPECT_EQ(ParseAllDebugParams(c.options != nullptr ? options.data() : nullptr), c.result);
        EXPECT_EQ(flags(0), c.first) << options;
        EXPECT_EQ(flags(10), c.second) << options;
        uint8_t own[2] = {0xff, 0xff};
        options = c.options != nullptr ? c.options : "";
        _ParseDebugParams(options.data(), nine, own, 1); // one byte only: the other is not touched
        EXPECT_EQ(own[0], strtol(c.first, nullptr, 16) & 0xff) << options;
        EXPECT_EQ(own[1], 0xff);
    }
    const std::vector<std::string> expected = {"zero", "other", "far", "d"};
    EXPECT_EQ(listed(_GetDebugStrings(far_legend)), expected);
    EXPECT_EQ(listed(GetAllDebugStrings()).size(), 22u);
    EXPECT_TRUE(listed(_GetDebugStrings(nine + 9)).empty());
    char options[] = "x";
    EXPECT_EQ(_ParseDebugParams(options, nine + 9, nullptr, 0), -1);
    facility_at_exit(0);
    facility_at_exit(10);
}

TEST(Facilities, StayUnusedWithoutMemory)
{
    if (!support::memory_can_fail) {
        GTEST_SKIP() << "the sanitizer owns the allocator";
    }
    char *hex = nullptr;
    support::out_of_memory = true;
    const int result = init_facility(5, "x", nine);
    const int hex_result = DebugFlagsHexString(&hex, 5);
    char **strings = _GetDebugStrings(nine);
    char **all = GetAllDebugStrings();
    support::out_of_memory = false;
    EXPECT_EQ(result, 12);
    EXPECT_EQ(hex_result, 12);
    EXPECT_TRUE(hex == nullptr && strings == nullptr && all == nullptr);
    EXPECT_EQ(facilities[5].debug_legend, nullptr);
    EXPECT_EQ(init_facility(5, "x", nine), 0);
    facility_at_exit(5);
}
