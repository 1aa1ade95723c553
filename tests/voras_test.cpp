// voras_test.cpp - service events.
#include "koutil/dopanic.h"
#include "koutil/voras.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>
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

char path[] = "/usr/sbin/daemon";
char slash[] = "/";
char plain[] = "tool";

} // namespace

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
