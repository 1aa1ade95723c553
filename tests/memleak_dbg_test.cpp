// memleak_dbg_test.cpp - the hooks without a tracker, and a program that brings its own size check.
#include "koutil/memleak_dbg.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

int size_check_result = 0;
int size_checks = 0;

} // namespace

extern "C" int _zelmemdbg_size_check(void)
{
    size_checks++;
    return size_check_result;
}

TEST(LeakHooks, TheFirstStartChecksSizes)
{
    const auto outcome = support::run_in_child([] {
        size_check_result = -1;
        zelmemdbg_prog_init("p");
        return 0;
    });
    EXPECT_TRUE(outcome.crashed());
    EXPECT_NE(outcome.err.find("\"sz_check == 0\" file libutil/memleak_dbg,"), std::string::npos);

    zelmemdbg_prog_init(std::string(600, 'p').c_str());
    EXPECT_EQ(std::string(g_zelmemdbg_progname, 512), std::string(512, 'p'));
    zelmemdbg_prog_init("short");
    EXPECT_EQ(std::string(g_zelmemdbg_progname, 512), "short" + std::string(507, '\0'));
    EXPECT_EQ(size_checks, 1);
}

TEST(LeakHooks, ReportNothing)
{
    char message[4] = "abc";
    EXPECT_EQ(zelmemdbg_prog_exit(message, 0), 0);
    EXPECT_STREQ(message, "abc");
    EXPECT_EQ(zelmemdbg_prog_exit(message, sizeof message), 0);
    EXPECT_STREQ(message, "");
}
