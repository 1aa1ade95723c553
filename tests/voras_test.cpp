// voras_test.cpp - service events.
#include "koutil/dopanic.h"
#include "koutil/voras.h"
#include "support/out_of_memory.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace
{

std::string event;
std::string message;
uint32_t seconds;

VoError_t record(char *name, char *text, uint32_t secs, uint32_t usecs)
{
    event = name;
    message = text;
    seconds = secs;
    EXPECT_LT(usecs, 1000000u);
    return 77;
}

time_t now = 0; // 0: the real clock

char path[] = "/usr/sbin/daemon";
char slash[] = "/";
char plain[] = "tool";

} // namespace

extern "C" time_t time(time_t *result)
{
    time_t seconds_now = now;
    if (now == 0) {
        syscall(SYS_time, &seconds_now);
    }
    return result != nullptr ? *result = seconds_now : seconds_now;
}

TEST(RasEvent, NamesCallerProcessAndFileSystem)
{
    RasFn = record;
    const std::string pid = "[PID=" + std::to_string(getpid()) + "]: ";
    const struct {
        char *caller;
        std::string fs;
        std::string expected;
    } cases[] = {
        {path, "none", "daemon" + pid + "lost 5"},
        {plain, "None", "tool" + pid + "fs 'None': lost 5"},
        {slash, "", pid + "fs '': lost 5"},
        {nullptr, std::string(256, 'f'), pid + "fs '" + std::string(256, 'f') + "': lost 5"},
    };
    for (const auto &c : cases) {
        CallerName = c.caller;
        memset(FsName, 0, sizeof FsName);
        memcpy(FsName, c.fs.data(), c.fs.size()); // 256 characters leave no terminator
        EXPECT_EQ(RasEvent("SL_EVT", "lost %d", 5), 77);
        EXPECT_EQ(event, "SL_EVT");
        EXPECT_EQ(message, c.expected);
        EXPECT_NEAR(seconds, time(nullptr), 2);
    }
    CallerName = plain;
    strcpy(FsName, "none");
    RasEvent("E", "%s", std::string(700, 'x').c_str());
    EXPECT_EQ(message, ("tool" + pid + std::string(700, 'x')).substr(0, 511));
    RasFn = nullptr;
}

TEST(RasEvent, WithoutASinkTheWholeTextGoesToStandardError)
{
    const std::string text(3000, 'y');
    const char *volatile no_format = nullptr;
    EXPECT_EQ(support::capture(2, [&] { EXPECT_EQ(RasEvent("E", "%s%%", text.c_str()), 0); }),
              text + "%\n");
    EXPECT_EQ(support::capture(2, [&] { RasEvent("E", no_format, 0); }), "\n");
}

TEST(ClientEvents, PassOnceAnHourForEachClientAndKind)
{
    in46addr_t first = {};
    in46addr_t second = {};
    second.s6_addr[15] = 1;
    now = 1000000;
    const struct {
        int later;
        int kind;
        const in46addr_t *addr;
        int needed;
    } steps[] = {
        {0, 0, &first, 1},     {10, 0, &first, 0}, {0, 1, &first, 1},    {0, 0, &second, 1},
        {3590, 0, &first, 0},  {1, 0, &first, 1},  {3600, 0, &first, 0}, {1, 0, &first, 1},
        {-9000, 0, &first, 0}, {0, 2, &first, 1},  {0, 2, &first, 1},    {0, -1, &first, 1},
    };
    for (const auto &s : steps) {
        now += s.later;
        EXPECT_EQ(NeedPerClntRas(s.kind, s.addr), s.needed) << &s - steps;
    }
    now = 5; // a clock that was never set
    EXPECT_EQ(NeedPerClntRas(1, &second), 1);
    auto *client = static_cast<ras_clnt_t *>(LastRasClientEventTime[0].h_last->n_data);
    EXPECT_EQ(client->r_addr.s6_addr[15], 1);
    EXPECT_EQ(client->r_time, 1000010u);
}

TEST(ClientEvents, OneOfManyThreadsPasses)
{
    now = 2000000;
    in46addr_t addr = {};
    addr.s6_addr[0] = 9;
    std::atomic<int> passed{0};
    std::thread threads[4];
    for (auto &thread : threads) {
        thread = std::thread([&] { passed += NeedPerClntRas(0, &addr); });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(passed, 1);
}

TEST(ClientEvents, PassWhileTheClientCannotBeRemembered)
{
    if (!support::memory_can_fail) {
        GTEST_SKIP() << "the sanitizer owns the allocator";
    }
    in46addr_t addr = {};
    addr.s6_addr[0] = 77;
    support::out_of_memory = true;
    const int first = NeedPerClntRas(1, &addr);
    const int second = NeedPerClntRas(1, &addr);
    support::out_of_memory = false;
    EXPECT_EQ(first + second, 2);
    EXPECT_EQ(NeedPerClntRas(1, &addr), 1); // the lock is free again
}
