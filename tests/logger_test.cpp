// logger_test.cpp - the output functions, their hooks and the route to the log file, panics and the
// checked-build mode.
#include "koutil/checked_build.h"
#include "koutil/dopanic.h"
#include "koutil/logger.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdarg>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

using support::capture;
using support::run_in_child;

namespace
{

mode_t touch_file_mode = 0; // 0: there is no such file

void print(int type, char *text)
{
    printf("%d:%s;", type, text);
    fflush(stdout); // before a panic
}

void print_level(int level, char *format, ...)
{
    char text[4096];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    print(level, text);
}

void speak_in_every_voice()
{
    Info_Output("i%d", 1);
    Debug_Output("d%d%.1f", 2, 0.5);
    Warn_Output("w%d", 3);
    Error_Output("e%d\n", 4);
    Critical_Output("c%d", 5);
}

} // namespace

extern "C" int stat(const char *path, struct stat *st)
{
    st->st_mode = touch_file_mode;
    return touch_file_mode != 0 ? strcmp(path, "/usr/burn/test/checked_build/ENABLED") : -1;
}

TEST(Logger, SpeaksToStandardErrorOrToTheHook)
{
    const char *volatile no_format = nullptr;
    WriteLog = nullptr;
    EXPECT_EQ(capture(2, speak_in_every_voice), "w3e4\nc5");
    WriteLog = print;
    kova_log_init_defaults(); // leaves a hook that is set
    EXPECT_EQ(capture(1, speak_in_every_voice), "0:i1;1:d20.5;2:w3;3:e4\n;7:c5;");
    EXPECT_EQ(capture(1, [] { Info_Output("%s", std::string(3000, 'x').c_str()); }),
              "0:" + std::string(2047, 'x') + ";");
    EXPECT_EQ(capture(1, [&] { Error_Output(no_format, 0); }), "3:;");
    WriteLog = common_WriteLog;
    EXPECT_EQ(capture(1, speak_in_every_voice), "i1d20.5w3e4\nc5");
}

TEST(Logger, TheRouteMapsTypesToLevelsAndKeepsPercentSigns)
{
    WriteLog = nullptr;
    kova_log_init_defaults();
    EXPECT_EQ(capture(2, speak_in_every_voice), ""); // the default entry does nothing
    __vorn_logfn = print_level;
    EXPECT_EQ(capture(1, speak_in_every_voice), "1:i1;0:d20.5;2:w3;3:e4\n;5:c5;");
    char text[] = "100%n";
    for (int type : {4, 5, 6, 8, -1, 1000}) {
        EXPECT_EQ(capture(1, [&] { WriteLog(type, text); }), type == 4 ? "4:100%n;" : "");
    }
}

TEST(Logger, PrintsBehindTheWordOfAPriority)
{
    const std::pair<int, const char *> cases[] = {{0, "*Fatal*: m5\n"},
                                                  {3, "*Error*: m5\n"},
                                                  {6, "m5\n"},
                                                  {7, "(Debug): m5\n"},
                                                  {9, "UNKNOWN MSG TYPE-> : m5\n"},
                                                  {-1, "UNKNOWN MSG TYPE-> : m5\n"}};
    char format[] = "m%d";
    for (auto [priority, expected] : cases) {
        EXPECT_EQ(capture(1, [&] { mylog(priority, format, 5); }), expected);
    }
}

TEST(Panic, WritesOneLineAndEndsTheProcess)
{
    const auto aborted = run_in_child([]() -> int {
        set_caller_name(const_cast<char *>("/bin/prog"));
        DoPanic("ASSERT failed ", "a == b", 1, "libutil/x", 12);
    });
    EXPECT_TRUE(aborted.signalled(SIGABRT));
    EXPECT_EQ(aborted.err, "PANIC: /bin/prog ASSERT failed \"a == b\" file libutil/x, line 12\n");
    const auto without_core = run_in_child([]() -> int {
        DoPanicFn = nullptr; // stands for the default
        PanicNoCoreExitCode = 9;
        memset(PanicNomenclature, 'H', sizeof PanicNomenclature); // and no terminator
        CallerName = nullptr;
        DoPanic(nullptr, nullptr, 0, nullptr, 1);
    });
    EXPECT_TRUE(without_core.exited(9));
    EXPECT_EQ(without_core.err, std::string(2047, 'H') + "\n");
    const auto by_handler = run_in_child([]() -> int { // which returns
        atexit([] { (void)!write(2, "exit handler", 12); });
        DoPanicFn = [](char *str1, char *str2, int core, char *file, int line) {
            fprintf(stderr, "%s|%s|%d|%s|%d", str1, str2, core, file, line);
        };
        _Panic_Output("here", 7, "bad %d", 9);
    });
    EXPECT_TRUE(by_handler.exited(1));
    EXPECT_EQ(by_handler.err, "|bad 9|1|here|7");
}

TEST(CheckedBuild, DecidesInOrderAndLogsTheFirstDecision)
{
    const char variable_off[] = "1:Checked Build disabled - 'KOVA_CHECKED_BUILD' env var.\n;";
    const char variable_on[] = "0:Checked Build enabled - 'KOVA_CHECKED_BUILD' env var.\n;";
    const char appliance[] = "1:Checked Build disabled - Vantor.\n;";
    const char by_file[] = "0:Checked Build enabled - '/usr/burn/test/checked_build/ENABLED' touch "
                           "file found.\n;";
    const char by_default[] = "1:Checked Build disabled - default.\n;";
    // KOVA_CHECKED_BUILD, APPLIANCE_TYPE, the touch file, and what is logged
    const std::tuple<const char *, const char *, mode_t, const char *> cases[] = {
        {"0", nullptr, S_IFREG, variable_off},    {"0yes", "vantor", 0, variable_off},
        {"", "mirelle", 0, variable_on},          {"1", nullptr, 0, variable_on},
        {nullptr, "mirelle", S_IFREG, appliance}, {nullptr, "vantor", S_IFREG, appliance},
        {nullptr, "vantor2", S_IFREG, by_file},   {nullptr, "Vantor", S_IFREG, by_file},
        {nullptr, "", S_IFDIR, by_default},       {nullptr, nullptr, 0, by_default},
    };
    for (const auto &[variable, type, file, expected] : cases) {
        const auto child = run_in_child([&, v = variable, t = type, f = file] {
            v != nullptr ? setenv("KOVA_CHECKED_BUILD", v, 1) : unsetenv("KOVA_CHECKED_BUILD");
            t != nullptr ? setenv("APPLIANCE_TYPE", t, 1) : unsetenv("APPLIANCE_TYPE");
            touch_file_mode = f;
            WriteLog = print;
            const int first = IsKovaCheckedBuild();
            setenv("KOVA_CHECKED_BUILD", "0", 1); // decided afresh, but logged no more
            return first * 10 + IsKovaCheckedBuild();
        });
        EXPECT_TRUE(child.exited(expected[0] == '0' ? 10 : 0)) << expected;
        EXPECT_EQ(child.out, expected);
    }
}

TEST(CheckedBuild, SoftErrorsAreLoggedOrPanic)
{
    const auto child = run_in_child([] {
        setenv("KOVA_CHECKED_BUILD", "0", 1);
        WriteLog = nullptr;
        PanicCheckedBuild("f.c", 7, "bad %d", 3); // the first decision, and no hook to hear of it
        PanicCheckedWriteLog("");
        PanicCheckedWriteLog("line\n");
        WriteLog = print;
        PanicCheckedBuild("f.c", 7, "own newline\n");
        PanicCheckedBuild("f.c", 7, "%s", std::string(2000, 'x').c_str());
        PanicCheckedWriteLog("");
        setenv("KOVA_CHECKED_BUILD", "1", 1);
        PanicCheckedBuild("f.c", 7, "worse");
        return 0;
    });
    EXPECT_TRUE(child.signalled(SIGABRT));
    EXPECT_EQ(child.err,
              "ERROR (f.c:7) bad 3\n\nline\nPANIC: libutil \"worse\" file f.c, line 7\n");
    EXPECT_EQ(child.out, "3:ERROR (f.c:7) own newline\n\n;3:ERROR (f.c:7) " +
                             std::string(1023 - 14, 'x') + "\n;3:\n;");
}
