// checked_build_test.cpp - the mode and what it does, each case in a process of its own.
#include "koutil/checked_build.h"
#include "koutil/logger.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

using support::run_in_child;

namespace
{

mode_t touch_file_mode = 0; // 0: there is no such file

void print(int type, char *text)
{
    printf("%d:%s", type, text);
}

void set(const char *name, const char *value)
{
    value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}

} // namespace

extern "C" int stat(const char *path, struct stat *st)
{
    EXPECT_STREQ(path, "/usr/burn/test/checked_build/ENABLED");
    st->st_mode = touch_file_mode;
    return touch_file_mode != 0 ? 0 : -1;
}

TEST(CheckedBuild, DecidesInOrderAndLogsTheFirstDecision)
{
    const char by_variable_off[] = "1:Checked Build disabled - 'KOVA_CHECKED_BUILD' env var.\n";
    const char by_variable_on[] = "0:Checked Build enabled - 'KOVA_CHECKED_BUILD' env var.\n";
    const char appliance[] = "1:Checked Build disabled - Vantor.\n";
    const char by_file[] = "0:Checked Build enabled - "
                           "'/usr/burn/test/checked_build/ENABLED' touch file found.\n";
    const char by_default[] = "1:Checked Build disabled - default.\n";
    const struct {
        const char *variable;
        const char *type;
        mode_t file;
        int checked;
        const char *log;
    } cases[] = {
        {"0", nullptr, S_IFREG, 0, by_variable_off}, {"0yes", "vantor", 0, 0, by_variable_off},
        {"", "mirelle", 0, 1, by_variable_on},       {"1", nullptr, 0, 1, by_variable_on},
        {nullptr, "mirelle", S_IFREG, 0, appliance}, {nullptr, "vantor", S_IFREG, 0, appliance},
        {nullptr, "vantor2", S_IFREG, 1, by_file},   {nullptr, "Vantor", S_IFREG, 1, by_file},
        {nullptr, "", S_IFDIR, 0, by_default},       {nullptr, nullptr, 0, 0, by_default},
    };
    for (const auto &c : cases) {
        const auto outcome = run_in_child([&] {
            set("KOVA_CHECKED_BUILD", c.variable);
            set("APPLIANCE_TYPE", c.type);
            touch_file_mode = c.file;
            WriteLog = print;
            const int first = IsKovaCheckedBuild();
            set("KOVA_CHECKED_BUILD", "0"); // decided afresh, but logged no more
            return first * 10 + IsKovaCheckedBuild();
        });
        EXPECT_TRUE(outcome.exited(c.checked * 10)) << c.log;
        EXPECT_EQ(outcome.out, c.log);
    }
}

TEST(CheckedBuild, TheFirstCallWithoutAHookIsStillTheFirst)
{
    const auto outcome = run_in_child([] {
        IsKovaCheckedBuild();
        WriteLog = print;
        IsKovaCheckedBuild();
        return 0;
    });
    EXPECT_EQ(outcome.out, "");
}

TEST(CheckedBuild, SoftErrorsAreLoggedOrPanic)
{
    const auto panicked = run_in_child([] {
        setenv("KOVA_CHECKED_BUILD", "1", 1);
        PanicCheckedBuild("f.c", 7, "bad %d", 3);
        return 0;
    });
    EXPECT_TRUE(panicked.crashed());
    EXPECT_NE(panicked.err.find(": libutil \"bad 3\" file f.c, line 7\n"), std::string::npos);
    const auto logged = run_in_child([] {
        setenv("KOVA_CHECKED_BUILD", "0", 1);
        PanicCheckedBuild("f.c", 7, "bad %d", 3);
        PanicCheckedWriteLog("");
        PanicCheckedWriteLog("line\n");
        WriteLog = print;
        PanicCheckedBuild("f.c", 7, "own newline\n");
        PanicCheckedBuild("f.c", 7, "%s", std::string(2000, 'x').c_str());
        PanicCheckedWriteLog("");
        return 0;
    });
    EXPECT_TRUE(logged.exited(0));
    EXPECT_EQ(logged.err, "ERROR (f.c:7) bad 3\n\nline\n");
    EXPECT_EQ(logged.out, "3:ERROR (f.c:7) own newline\n\n3:ERROR (f.c:7) " +
                              std::string(1023 - 14, 'x') + "\n3:\n");
}
