// kovalog_test.cpp - log lines, rotation and debug flags, with a clock and a writer of the test's
// own.
#include "koutil/kovalog.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <map>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace
{

const int utc = setenv("TZ", "UTC0", 1);
timeval now = {1767366245, 678}; // 20260102 15:04:05 UTC
bool disk_full = false;
std::atomic<bool> slow_writes{false};

std::string stamp(const char *time = "20260102 15:04:05.000678")
{
    return std::string("[") + time + " " + std::to_string(syscall(SYS_gettid)) + "] ";
}

template <typename... Args>
void log(int level, const char *format, Args... args)
{
    LogToFile(level, const_cast<char *>(format), args...);
}

// What standard output gets.
template <typename... Args>
std::string printed(int level, const char *format, Args... args)
{
    return support::capture(1, [&] { log(level, format, args...); });
}

// A host's fork handlers, which stand before the library's own and log.
bool host_logs = false;
void log_fork()
{
    host_logs ? log(1, "h") : void();
}
const int handlers = pthread_atfork(log_fork, log_fork, log_fork);

// A log file in a folder of its own, closed at the end.
class LogFile : public ::testing::Test
{
  protected:
    void TearDown() override { CloseLog(); }
    std::string text(int number) const { return support::read_file(names[number]); }

    support::TempDir dir;
    std::string names[4] = {dir / "log", dir / "log_1", dir / "log_2", dir / "log_3"};
    const char *name = names[0].c_str();
};

} // namespace

extern "C" int gettimeofday(timeval *time, void *) noexcept
{
    *time = now;
    return 0;
}

extern "C" ssize_t write(int fd, const void *bytes, size_t size)
{
    if (slow_writes) {
        usleep(100); // and a point of cancellation, as the real one is
    }
    return syscall(SYS_write, disk_full ? -1 : fd, bytes, size);
}

TEST(LogLine, FormatsAsThePlatformDoesAndFollowsClockThreadAndProcess)
{
    const char *begins[] = {"(?)", " D ", " I ", "(W)", "(E)", "(F)", "(C)", "(?)"};
    for (int level = -1; level <= 6; level++) {
        EXPECT_EQ(printed(level, "m\n"), begins[level + 1] + stamp() + "m\n");
    }
    const auto expect_same = [](const char *format, auto... args) {
        char text[2000];
        snprintf(text, sizeof text, format, args...);
        EXPECT_EQ(printed(1, format, args...), " I " + stamp() + text) << format;
    };
    const char *volatile null_text = nullptr;
    expect_same("%s|%s|%s|%%|", "a", "", null_text);
    expect_same("%d %d %u %u", INT_MIN, INT_MAX, 0U, UINT_MAX);
    expect_same("%ld %lld %lu %llu %zu %zd", LONG_MIN, LLONG_MAX, ULONG_MAX, ULLONG_MAX, SIZE_MAX,
                ssize_t{-1});
    expect_same("%s %d then %5d %-4s| %x %c %p %.2f %hd", "a", 1, 7, "b", 255U, 'c',
                static_cast<void *>(&now), 1.5, 9);
    expect_same("%m %s", "of the caller");
    EXPECT_EQ(printed(1, null_text, 0), " I " + stamp());
    const size_t room = 1023 - 3 - stamp().size();
    for (const char *format : {"%s", "%5s"}) { // the short way and the platform's
        for (size_t extra : {0, 1, 5000}) {
            const std::string message(room + extra, 'x');
            EXPECT_EQ(printed(2, format, message.c_str()),
                      extra == 0 ? "(W)" + stamp() + message
                                 : "(E) [20260102 15:04:05] log message overflowed\n");
        }
    }
    now = {now.tv_sec + 86399, 999999};
    const auto right = [] {
        return printed(2, "x") == "(W)" + stamp("20260103 15:04:04.999999") + "x";
    };
    EXPECT_TRUE(right());
    std::thread([&] { EXPECT_TRUE(right()); }).join();
    EXPECT_TRUE(support::run_in_child([&] { return right(); }).exited(1));
    host_logs = true;
    pid_t child = 0;
    const std::string text = support::capture(1, [&] {
        child = fork();
        child == 0 ? _exit(0) : static_cast<void>(waitpid(child, nullptr, 0));
    });
    host_logs = false;
    EXPECT_EQ(std::count(text.begin(), text.end(), 'h'), 3) << text;
    EXPECT_NE(text.find(" " + std::to_string(child) + "] h"), std::string::npos) << text;
    now.tv_sec = INT64_MAX; // no year of the calendar
    EXPECT_EQ(printed(2, "x"), "(W)" + stamp("????.999999") + "x");
    now = {1767366245, 678};
}

TEST_F(LogFile, CountsWhatIsThereAndRotatesThroughItsNumberedFiles)
{
    support::write_file(name, std::string(90, 'o'));
    ASSERT_EQ(SetupLogFile(name, 100, 2), 1);
    disk_full = true; // what is not written does not count
    errno = EXDEV;
    log(1, "lost\n");
    EXPECT_EQ(errno, EXDEV);
    disk_full = false;
    EXPECT_EQ(text(0).size(), 90u);
    log(1, "x");
    EXPECT_EQ(text(1), std::string(90, 'o') + " I " + stamp() + "xRotating Log File\n");
    for (char letter = 'a'; letter <= 'c'; letter++) { // two lines pass the limit, one does not
        const std::string first = " I " + stamp() + letter + "\n";
        log(1, "%c\n", letter);
        EXPECT_EQ(text(0), first);
        log(1, "%s", std::string(60, letter).c_str());
        EXPECT_EQ(text(1),
                  first + " I " + stamp() + std::string(60, letter) + "Rotating Log File\n");
    }
    EXPECT_NE(text(2).find("bbb"), std::string::npos);
    EXPECT_FALSE(support::file_exists(names[3]));
}

TEST_F(LogFile, RotatesAroundWhatIsInTheFolder)
{
    // the count, the numbered files before, and what each number afterwards was
    const std::tuple<int, std::vector<int>, std::map<int, int>> cases[] = {
        {-1, {1}, {{0, 0}, {1, 1}}},
        {0, {}, {{0, 0}}},
        {0, {1}, {{1, 0}}}, // of an earlier count of 1
        {2, {2, 3, 4, 6}, {{1, 0}, {3, 2}, {4, 3}, {6, 6}}},
        {9, {5}, {{1, 0}, {6, 5}}},
        {1000000000, {1, 70}, {{1, 0}, {2, 1}, {71, 70}}},
        {INT_MAX, {1}, {{1, 0}, {2, 1}}},
    };
    for (const auto &[count, before, after] : cases) {
        const support::TempDir folder;
        support::write_file(folder / "x_7more", "not ours");
        const auto path = [&](int n) { return folder / (n == 0 ? "x" : "x_" + std::to_string(n)); };
        support::write_file(path(0), "0");
        for (int number : before) {
            support::write_file(path(number), std::to_string(number));
        }
        __vorn_log_file_fd = -1;
        EXPECT_EQ(RotateLogs(count, path(0).c_str()), 0);
        for (int number : {0, 1, 2, 3, 4, 5, 6, 7, 70, 71}) {
            const auto was = after.find(number);
            EXPECT_EQ(support::read_file(path(number)),
                      was != after.end() ? std::to_string(was->second) : "")
                << count << "/" << number;
        }
    }
}

TEST_F(LogFile, TriesAgainAfterAFailedOpenButNotAfterAFailedRename)
{
    mkdir(names[1].c_str(), 0700);
    support::write_file(names[1] + "/in the way", "");
    ASSERT_EQ(SetupLogFile(name, 10, 1), 1);
    log(1, "first\n");
    rename(names[1].c_str(), names[3].c_str());
    log(1, "lost, and no new attempt\n");
    EXPECT_EQ(__vorn_log_file_fd, -1);
    CloseLog();
    const std::string late = dir / "late/log";
    ASSERT_EQ(SetupLogFile(late.c_str(), 100, 1), 0);
    log(1, "%s", std::string(100, 'x').c_str());
    mkdir((dir / "late").c_str(), 0700);
    log(1, "%s", std::string(100, 'x').c_str());
    log(1, "kept\n");
    EXPECT_EQ(support::read_file(late), " I " + stamp() + "kept\n");
}

TEST_F(LogFile, SetupsNestAndReport)
{
    int isset;
    int fd;
    int count;
    uint64_t size;
    char *file;
    ASSERT_EQ(SetupLogFile(name, -1, 3), 1);
    GetLogFileInfo(&isset, &fd, &file, &size, &count);
    EXPECT_TRUE(isset == 1 && fd == __vorn_log_file_fd && size == UINT64_MAX && count == 3);
    EXPECT_STREQ(file, name);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    CloseLog();
    EXPECT_LT(fcntl(fd, F_GETFD), 0);
    GetLogFileInfo(&isset, &fd, &file, &size, &count);
    EXPECT_TRUE(isset == 0 && fd == -1 && size == 0 && count == 0 && file == nullptr);
    const auto child = support::run_in_child([] {
        SetupLogFile("-", 1, 3);
        SetupLogFile("-", 1, 3);
        CloseLog();
        log(2, "%80s", "b");
        int set = 0;
        GetLogFileInfo(&set, nullptr, nullptr, nullptr, nullptr);
        CloseLog();
        return set * 10 + __vorn_log_file_fd;
    });
    EXPECT_TRUE(child.exited(12));
    EXPECT_EQ(child.err.back(), 'b'); // and no rotation
}

TEST_F(LogFile, EightThreadsLoseTearAndDoubleNothing)
{
    constexpr int threads = 8;
    constexpr int lines = 400;
    ASSERT_EQ(SetupLogFile(name, 4000, 100000), 1);
    slow_writes = true; // so that most forks and cancellations meet a held lock
    std::thread writers[threads];
    for (auto &writer : writers) {
        writer = std::thread([t = &writer - writers] {
            for (int i = 0; i < lines; i++) {
                log(2, i % 2 == 0 ? "<%ld %d>\n" : "<%ld %02d>\n", t, i);
            }
        });
    }
    for (int n = 0; n < 20; n++) { // a child logs whatever its parent's threads are at
        std::thread victim([] {
            for (;; pthread_testcancel()) {
                log(1, "victim\n");
            }
        });
        const pid_t child = fork();
        if (child == 0) {
            CloseLog(); // or it might rotate its parent's files
            log(1, "child");
            syscall(SYS_exit_group, 0); // no look by a sanitizer at the threads left behind
        }
        int status = 1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        pthread_cancel(victim.native_handle());
        victim.join();
    }
    slow_writes = false;
    for (auto &writer : writers) {
        writer.join();
    }
    std::set<std::string> seen;
    int files = 0;
    for (std::string path = names[0]; support::file_exists(path);
         path = names[0] + "_" + std::to_string(++files)) {
        std::istringstream file(support::read_file(path));
        for (std::string line; std::getline(file, line);) {
            ASSERT_TRUE(line.find(stamp().substr(0, 26)) == 3 || line == "Rotating Log File");
            EXPECT_TRUE(line[0] != '(' || seen.insert(line.substr(line.find("] "))).second) << line;
        }
    }
    EXPECT_GT(files, 20);
    EXPECT_EQ(seen.size(), size_t{threads} * lines);
}

namespace
{

vornlog_legend_t nine[] = {{0, "zero", "d"}, {1, "one", "d"},      {2, "two", "d"}, {3, "3", "d"},
                           {4, "4", "d"},    {5, "5", "d"},        {6, "6", "d"},   {7, "7", "d"},
                           {8, "eight", ""}, {0, nullptr, nullptr}};
vornlog_legend_t far_legend[] = {{0, "zero", "other"}, {900, "far", "d"}, {0, nullptr, nullptr}};

std::string flags(int facility)
{
    char *hex = nullptr;
    EXPECT_EQ(DebugFlagsHexString(&hex, facility), 0);
    std::string result = hex;
    free(hex);
    return result;
}

// A list of strings, one blank behind each.
std::string joined(char **strings)
{
    std::string result;
    char **at = strings;
    for (; *at != nullptr; at++) {
        result += std::string(*at) + " ";
    }
    EXPECT_EQ(at[1], nullptr);
    free(strings);
    return result;
}

} // namespace

TEST(Facilities, AreSetUpOnceAndAgainAfterTheirEnd)
{
    std::vector<vornlog_legend_t> huge(2042, {0, "k", "d"});
    huge[2041].vornlog_legend_key = nullptr;
    EXPECT_EQ(init_facility(DBG_FAC_END, "x", nine), 22);
    EXPECT_EQ(init_facility(1, "x", huge.data()), 22);
    EXPECT_EQ(init_facility(1, "named", nine + 9), 22);
    EXPECT_STREQ(facilities[1].name, "named");
    EXPECT_EQ(flags(1), "0x");
    EXPECT_EQ(init_facility(1, std::string(99, 'n').c_str(), nine), 0);
    EXPECT_EQ(facilities[1].name, std::string(63, 'n'));
    EXPECT_EQ(init_facility(1, "x", nine), 16);
    facility_at_exit(1);
    EXPECT_STREQ(facilities[1].name, "_facility_at_exit()_");
    EXPECT_EQ(init_facility(1, "", far_legend), 0); // no name: listed, but not valid
    EXPECT_EQ(facility_valid(1), 0);
    EXPECT_EQ(joined(GetAllDebugStrings()), "zero other far d ");
    facility_at_exit(1);
}

TEST(Facilities, FlagsFollowLists)
{
    ASSERT_EQ(init_facility(0, "a", nine), 0);
    ASSERT_EQ(init_facility(10, "b", far_legend), 0);
    const std::tuple<const char *, int, const char *, const char *> cases[] = {
        {",,one,,eight,", 0, "0x0102", "0x00"}, {"zero", 0, "0x0001", "0x01"},
        {"far", 0, "0x0000", "0x00"},           {"two,One,three", -1, "0x0004", "0x00"},
        {"one, two", -1, "0x0002", "0x00"},     {"", 0, "0x0000", "0x00"},
    };
    for (const auto &[names, result, first, second] : cases) {
        EXPECT_EQ(ParseAllDebugParams(std::string(names).data()), result);
        EXPECT_EQ(flags(0), first) << names;
        EXPECT_EQ(flags(10), second) << names;
    }
    EXPECT_EQ(_ParseDebugParams(std::string("x").data(), nine + 9, nullptr, 0), -1);
    EXPECT_EQ(joined(GetAllDebugStrings()), joined(_GetDebugStrings(nine)) + "zero other far d ");
    facility_at_exit(0);
    facility_at_exit(10);
}
