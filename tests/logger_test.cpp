// logger_test.cpp - the output functions, their hooks and the route to the log file.
#include "koutil/logger.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdarg>
#include <vector>

namespace
{

using Messages = std::vector<std::pair<int, std::string>>;
Messages received;

void record_type(int type, char *text)
{
    received.emplace_back(type, text);
}

void record_level(int level, char *fmt, ...)
{
    char text[4096];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    received.emplace_back(level, text);
}

void speak_in_every_voice()
{
    received.clear();
    Info_Output("i%d", 1);
    Debug_Output("d%d%.1f", 2, 0.5);
    Warn_Output("w%d", 3);
    Error_Output("e%d\n", 4);
    Critical_Output("c%d", 5);
}

} // namespace

TEST(Logger, WithoutAHookOnlyWarningsAndWorseReachStandardError)
{
    WriteLog = nullptr;
    EXPECT_EQ(support::capture(2, speak_in_every_voice), "w3e4\nc5");
}

TEST(Logger, TheHookGetsTypesAndTextsCutAt2047)
{
    WriteLog = record_type;
    kova_log_init_defaults(); // leaves a hook that is set
    speak_in_every_voice();
    Info_Output("%s", std::string(3000, 'x').c_str());
    const char *volatile no_format = nullptr;
    Error_Output(no_format, 0);
    const Messages expected = {{0, "i1"},   {1, "d20.5"}, {2, "w3"},
                               {3, "e4\n"}, {7, "c5"},    {0, std::string(2047, 'x')},
                               {3, ""}};
    EXPECT_EQ(received, expected);
}

TEST(Logger, TheRouteMapsTypesToLevelsAndKeepsPercentSigns)
{
    WriteLog = nullptr;
    kova_log_init_defaults();
    EXPECT_EQ(support::capture(2, speak_in_every_voice), ""); // the default entry does nothing
    __vorn_logfn = record_level;
    speak_in_every_voice();
    Warn_Output("100%% %s", "%n");
    for (int type : {4, 5, 6, 8, -1, 1000}) {
        WriteLog(type, std::string("t").data());
    }
    const Messages expected = {{1, "i1"}, {0, "d20.5"},   {2, "w3"}, {3, "e4\n"},
                               {5, "c5"}, {2, "100% %n"}, {4, "t"}};
    EXPECT_EQ(received, expected);
}

TEST(Logger, PrintsOnStandardOutput)
{
    WriteLog = common_WriteLog;
    EXPECT_EQ(support::capture(1, speak_in_every_voice), "i1d20.5w3e4\nc5");
    const std::pair<int, const char *> cases[] = {{0, "*Fatal*: m5\n"},
                                                  {3, "*Error*: m5\n"},
                                                  {6, "m5\n"},
                                                  {7, "(Debug): m5\n"},
                                                  {9, "UNKNOWN MSG TYPE-> : m5\n"},
                                                  {-1, "UNKNOWN MSG TYPE-> : m5\n"}};
    char format[] = "m%d";
    for (auto [priority, expected] : cases) {
        EXPECT_EQ(support::capture(1, [&] { mylog(priority, format, 5); }), expected);
    }
}

TEST(Logger, PanicOutputPanicsWithTheMessage)
{
    const auto child =
        support::run_in_child([]() -> int { _Panic_Output("here", 7, "bad %d", 9); });
    EXPECT_TRUE(child.signalled(SIGABRT));
    EXPECT_EQ(child.err, "PANIC: libutil \"bad 9\" file here, line 7\n");
}
