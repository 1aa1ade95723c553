// logger_test.cpp - the output functions, their hooks and the route to the log file.
#include "koutil/dopanic.h"
#include "koutil/logger.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <csetjmp>
#include <cstdarg>
#include <string>
#include <utility>
#include <vector>

namespace
{

std::vector<std::pair<int, std::string>> received;

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

class Logger : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        received.clear();
        WriteLog = nullptr;
        __vorn_logfn = __vorn_logfn_default;
    }
    void TearDown() override { SetUp(); }

    static void speak_in_every_voice()
    {
        Info_Output("i%d", 1);
        Debug_Output("d%d", 2);
        Warn_Output("w%d", 3);
        Error_Output("e%d\n", 4);
        Critical_Output("c%d", 5);
    }
};

jmp_buf panicked;

void leave_panic(char *str1, char *str2, int core, char *file, int line)
{
    EXPECT_STREQ(str1, "");
    EXPECT_EQ(core, 1);
    EXPECT_STREQ(file, "here");
    EXPECT_EQ(line, 7);
    received.emplace_back(core, str2);
    longjmp(panicked, 1);
}

} // namespace

TEST_F(Logger, WithoutAHookOnlyWarningsAndWorseReachStandardError)
{
    EXPECT_EQ(support::capture(2, speak_in_every_voice), "w3e4\nc5");
    EXPECT_EQ(support::capture(1, speak_in_every_voice), "");
}

TEST_F(Logger, TheHookGetsTypesAndTextsCutAt2047)
{
    WriteLog = record_type;
    speak_in_every_voice();
    Info_Output("%s", std::string(3000, 'x').c_str());
    const char *volatile no_format = nullptr;
    Error_Output(no_format, 0);
    const std::vector<std::pair<int, std::string>> expected = {
        {0, "i1"}, {1, "d2"}, {2, "w3"}, {3, "e4\n"}, {7, "c5"}, {0, std::string(2047, 'x')},
        {3, ""}};
    EXPECT_EQ(received, expected);
}

TEST_F(Logger, TheRouteMapsTypesToLevelsAndKeepsPercentSigns)
{
    kova_log_init_defaults();
    __vorn_logfn = record_level;
    speak_in_every_voice();
    Warn_Output("100%% %s", "%n");
    for (int type : {4, 5, 6, 8, -1, 1000}) {
        WriteLog(type, std::string("t").data());
    }
    const std::vector<std::pair<int, std::string>> expected = {
        {1, "i1"}, {0, "d2"}, {2, "w3"}, {3, "e4\n"}, {5, "c5"}, {2, "100% %n"}, {4, "t"}};
    EXPECT_EQ(received, expected);
}

TEST_F(Logger, DefaultsLeaveAHookThatIsSet)
{
    WriteLog = record_type;
    kova_log_init_defaults();
    EXPECT_EQ(WriteLog, record_type);
}

TEST_F(Logger, PrintsOnStandardOutput)
{
    WriteLog = common_WriteLog;
    EXPECT_EQ(support::capture(1, speak_in_every_voice), "i1d2w3e4\nc5");
    char format[] = "m%d";
    const auto print = [&](int priority) {
        return support::capture(1, [&] { mylog(priority, format, 5); });
    };
    EXPECT_EQ(print(0), "*Fatal*: m5\n");
    EXPECT_EQ(print(3), "*Error*: m5\n");
    EXPECT_EQ(print(6), "m5\n");
    EXPECT_EQ(print(7), "(Debug): m5\n");
    EXPECT_EQ(print(9), "UNKNOWN MSG TYPE-> : m5\n");
    EXPECT_EQ(print(-1), "UNKNOWN MSG TYPE-> : m5\n");
}

TEST_F(Logger, PanicOutputPanicsWithTheMessage)
{
    const do_panic_fn_t saved = DoPanicFn;
    DoPanicFn = leave_panic;
    if (setjmp(panicked) == 0) {
        _Panic_Output("here", 7, "bad %d", 9);
    }
    DoPanicFn = saved;
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].second, "bad 9");
}
