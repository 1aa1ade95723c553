// checked_build_test.cpp - the mode and what it does, each case in a process of its own.
#include "koutil/checked_build.h"
#include "koutil/logger.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sys/stat.h>

namespace
{

mode_t touch_file_mode = 0; // 0: there is no such file

void print(int type, char *text)
{
    printf("%d:%s", type, text);
    fflush(stdout); // before a panic
}

} // namespace

extern "C" int stat(const char *path, struct stat *st)
{
    st->st_mode = touch_file_mode;
    return strcmp(path, "/usr/burn/test/checked_build/ENABLED") == 0 && touch_file_mode != 0 ? 0
                                                                                             : -1;
}

TEST(CheckedBuild, DecidesInOrderAndLogsTheFirstDecision)
{
    const char variable_off[] = "1:Checked Build disabled - 'KOVA_CHECKED_BUILD' env var.\n";
    const char variable_on[] = "0:Checked Build enabled - 'KOVA_CHECKED_BUILD' env var.\n";
    const char appliance[] = "1:Checked Build disabled - Vantor.\n";
    const char by_file[] = "0:Checked Build enabled - '/usr/burn/test/checked_build/ENABLED' touch "
                           "file found.\n";
    const char by_default[] = "1:Checked Build disabled - default.\n";
    // KOVA_CHECKED_BUILD, APPLIANCE_TYPE, the touch file, and what is logged
    const std::tuple<const char *, const char *, mode_t, const char *> cases[] = {
        {"0", nullptr, S_IFREG, variable_off},    {"0yes", "vantor", 0, variable_off},
        {"", "mirelle", 0, variable_on},          {"1", nullptr, 0, variable_on},
        {nullptr, "mirelle", S_IFREG, appliance}, {nullptr, "vantor", S_IFREG, appliance},
        {nullptr, "vantor2", S_IFREG, by_file},   {nullptr, "Vantor", S_IFREG, by_file},
        {nullptr, "", S_IFDIR, by_default},       {nullptr, nullptr, 0, by_default},
    };
    for (const auto &[variable, type, file, expected] : cases) {
        const auto child = support::run_in_child([&, v = variable, t = type, f = file] {
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
    const auto child = support::run_in_child([] {
        setenv("KOVA_CHECKED_BUILD", "0", 1);
        PanicCheckedBuild("f.c", 7, "bad %d", 3); // the first decision, and no hook to hear of it
        PanicCheckedWriteLog("");
        PanicCheckedWriteLog("line\n");
        WriteLog = print;
        PanicCheckedBuild("f.c", 7, "own newline\n");
        PanicCheckedBuild("f.c", 7, "%s", std::string(2000, 'x').c_str());
        PanicCheckedWriteLog("");
        WriteLog = nullptr;
        setenv("KOVA_CHECKED_BUILD", "1", 1);
        PanicCheckedBuild("f.c", 7, "worse");
        return 0;
    });
    EXPECT_TRUE(child.crashed());
    EXPECT_EQ(child.err,
              "ERROR (f.c:7) bad 3\n\nline\nPANIC: libutil \"worse\" file f.c, line 7\n");
    EXPECT_EQ(child.out, "3:ERROR (f.c:7) own newline\n\n3:ERROR (f.c:7) " +
                             std::string(1023 - 14, 'x') + "\n3:\n");
}
