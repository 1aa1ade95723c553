// voras_test.cpp - service events and their limit for each client, with a clock of the test's own.
#include "koutil/dopanic.h"
#include "koutil/voras.h"
#include "support/out_of_memory.h"
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
std::string event;

VoError_t record(char *name, char *text, uint32_t secs, uint32_t usecs)
{
    event = std::string(name) + "|" + text;
    return secs == 1000000 && usecs == 42 ? 77 : -1;
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
    const std::string pid = "[PID=" + std::to_string(getpid()) + "]: ";
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
        strncpy(FsName, fs.c_str(), sizeof FsName);
        EXPECT_EQ(RasEvent("SL_EVT", "%s", said.c_str()), 77);
        EXPECT_EQ(event, "SL_EVT|" + expected);
    }
    RasFn = nullptr; // the whole text goes to standard error
    EXPECT_EQ(support::capture(2, [&] { RasEvent("E", "%s%%", text.c_str()); }), text + "%\n");
}

TEST(ClientEvents, PassOnceAnHourForEachClientAndKind)
{
    const in46addr_t first = {};
    const in46addr_t second = {{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}};
    // seconds after the one before, kind, address, and whether the event passes
    const std::tuple<int, int, const in46addr_t *, int> steps[] = {
        {0, 0, &first, 1},        {10, 0, &first, 0}, {0, 1, &first, 1},    {0, 0, &second, 1},
        {3590, 0, &first, 0},     {1, 0, &first, 1},  {3600, 0, &first, 0}, {1, 0, &first, 1},
        {-9000, 0, &first, 0},    {0, 2, &first, 1},  {0, 2, &first, 1},    {0, -1, &first, 1},
        {-998197, 1, &second, 1}, // 5 seconds after 1970: a clock that was never set
    };
    for (const auto &[later, kind, addr, needed] : steps) {
        now.tv_sec += later;
        EXPECT_EQ(NeedPerClntRas(kind, addr), needed) << now.tv_sec;
    }
    EXPECT_EQ(static_cast<ras_clnt_t *>(LastRasClientEventTime[0].h_last->n_data)->r_time,
              1000010u);
}

TEST(ClientEvents, PassWhileTheClientCannotBeRememberedAndThenOnceAmongThreads)
{
    const in46addr_t addr = {{{9}}};
    support::out_of_memory = true;
    std::atomic<int> passed = NeedPerClntRas(0, &addr);
    support::out_of_memory = false;
    {
        std::jthread threads[4];
        for (auto &thread : threads) {
            thread = std::jthread([&] { passed += NeedPerClntRas(0, &addr); });
        }
    }
    EXPECT_EQ(passed, support::memory_can_fail ? 2 : 1);
}
