// voras_test.cpp - service events, those of failed allocations, and the limit for each client, with
// a clock of the test's own.
#include "koutil/alloc.h"
#include "koutil/dopanic.h"
#include "koutil/voras.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace
{

timeval now = {1000000, 42};
std::string events;
char file[] = "caller.cpp";
const std::string pid = "[PID=" + std::to_string(getpid()) + "]: ";

VoError_t record(char *name, char *text, uint32_t secs, uint32_t usecs)
{
    events += std::string(name) + "|" + text + "\n";
    return secs == static_cast<uint32_t>(now.tv_sec) && usecs == 42 ? 77 : -1;
}

} // namespace

extern "C" time_t time(time_t *)
{
    return now.tv_sec;
}

extern "C" int gettimeofday(timeval *time, void *) noexcept
{
    *time = now;
    return 0;
}

TEST(RasEvent, NamesCallerProcessAndFileSystem)
{
    RasFn = record;
    const std::string full(256, 'f'); // leaves no terminator
    const std::string text(700, 'x');
    // CallerName, FsName, the event's text, and the message
    const std::tuple<const char *, std::string, std::string, std::string> cases[] = {
        {"/usr/sbin/daemon", "none", "lost", "daemon" + pid + "lost"},
        {"tool", "None", "lost", "tool" + pid + "fs 'None': lost"},
        {"/", "", "lost", pid + "fs '': lost"},
        {nullptr, full, "lost", pid + "fs '" + full + "': lost"},
        {"tool", "none", text, ("tool" + pid + text).substr(0, 511)},
    };
    for (const auto &[caller, fs, said, expected] : cases) {
        CallerName = const_cast<char *>(caller);
        memset(FsName, 0, sizeof FsName);
        fs.copy(FsName, sizeof FsName);
        events = "";
        EXPECT_EQ(RasEvent("SL_EVT", "%s", said.c_str()), 77);
        EXPECT_EQ(events, "SL_EVT|" + expected + "\n");
    }
    RasFn = nullptr; // the whole text goes to standard error
    EXPECT_EQ(support::capture(2, [&] { RasEvent("E", "%s%%", text.c_str()); }), text + "%\n");
}

TEST(Memalign, ReportsFailuresAtMostOnceInThreeHundredSeconds)
{
    events = "";
    RasFn = [](char *name, char *text, uint32_t secs, uint32_t usecs) {
        EXPECT_EQ(MyMemalign(8, SIZE_MAX, file, 99), nullptr); // a sink may run out of memory, too
        return record(name, text, secs, usecs);
    };
    CallerName = nullptr;
    const auto report = [](int line, int count) {
        return "SL_EVT_SYS_RES_FAIL|" + pid +
               "Memory allocation of -1 bytes failed: file "
               "'caller.cpp' line " +
               std::to_string(line) + " total memory failure count " + std::to_string(count) + "\n";
    };
    EXPECT_EQ(MyMemalign(16, SIZE_MAX, file, 12), nullptr);
    now.tv_sec += 300; // still quiet: the sink's own failure waits for the next second
    MyFree(MyMemalign(8, 1, file, 1), file, 1);
    EXPECT_EQ(events, report(12, 1));
    now.tv_sec += 1;
    MyFree(MyMemalign(8, 1, file, 1), file, 1); // any call reports, also one that succeeds
    EXPECT_EQ(events, report(12, 1) + report(99, 2));
    EXPECT_EQ(MyMemalign(SIZE_MAX - 7, 0, file, 56), nullptr); // of 0 bytes: not counted
    now.tv_sec += 301;
    MyFree(MyMemalign(8, 1, file, 1), file, 1);
    EXPECT_EQ(events, report(12, 1) + report(99, 2) + report(99, 3));
    RasFn = nullptr;
}

TEST(Memalign, AlignsZeroesPagesAndRefusesASmallAlignment)
{
    void *block = MyMemalign(4096, 0, file, 1);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 4096, 0u);
    MyFree(block, nullptr, 0);
    auto *pages = static_cast<char *>(AllocAndPinMemory(70000));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(pages) % 4096, 0u);
    EXPECT_EQ(std::string(pages, 70000), std::string(70000, '\0'));
    free(pages);
    const auto child = support::run_in_child([] { return MyMemalign(4, 1, file, 1) == nullptr; });
    EXPECT_NE(child.err.find("\"alignsize >= MY_MINALIGN\" file libutil/alloc,"),
              std::string::npos);
}

TEST(ClientEvents, PassOnceAnHourForEachClientAndKind)
{
    const in46addr_t first = {};
    const in46addr_t second = {{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}};
    // seconds after the one before, kind, address, and whether the event passes
    const std::tuple<int, int, const in46addr_t *, int> steps[] = {
        {0, 0, &first, 1},     {10, 0, &first, 0}, {0, 1, &first, 1},    {0, 0, &second, 1},
        {3590, 0, &first, 0},  {1, 0, &first, 1},  {3600, 0, &first, 0}, {1, 0, &first, 1},
        {-9000, 0, &first, 0}, {0, 2, &first, 1},  {0, 2, &first, 1},    {0, -1, &first, 1},
    };
    for (const auto &[later, kind, addr, needed] : steps) {
        now.tv_sec += later;
        EXPECT_EQ(NeedPerClntRas(kind, addr), needed) << now.tv_sec;
    }
    now.tv_sec = 5; // a clock that was never set
    EXPECT_EQ(NeedPerClntRas(1, &second), 1);
    now.tv_sec = 1000000;
}

TEST(ClientEvents, PassOnceAmongThreads)
{
    const in46addr_t addr = {{{9}}};
    std::atomic<int> passed = 0;
    {
        std::jthread threads[4];
        for (auto &thread : threads) {
            thread = std::jthread([&] { passed += NeedPerClntRas(0, &addr); });
        }
    }
    EXPECT_EQ(passed, 1);
}
