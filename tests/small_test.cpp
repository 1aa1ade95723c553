// small_test.cpp - the small system queries and formatters, and the hooks of a leak tracker.
#include "koutil/console.h"
#include "koutil/fmt_syserror.h"
#include "koutil/fprintf_indent.h"
#include "koutil/memleak_dbg.h"
#include "koutil/memsize.h"
#include "koutil/priv_check.h"
#include "koutil/rss.h"
#include "koutil/snprintf.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

const char *statm = nullptr; // what a read gives in place of the file's text
int size_check_result = -1;
const char *volatile no_format = nullptr;

} // namespace

extern "C" ssize_t read(int fd, void *buffer, size_t size)
{
    if (statm == nullptr) {
        return syscall(SYS_read, fd, buffer, size);
    }
    return static_cast<ssize_t>(strlen(strncpy(static_cast<char *>(buffer), statm, size)));
}

extern "C" int _zelmemdbg_size_check(void)
{
    return size_check_result;
}

TEST(Snprintf, CutsTerminatesAndReturnsTheNeededLength)
{
    char buffer[] = "#######";
    char *volatile no_buffer = nullptr;
    EXPECT_EQ(VoSnprintf(buffer, 8, no_format, 1), -1);
    EXPECT_EQ(VoSnprintf(buffer, 0, "%d", 12), 2);
    EXPECT_STREQ(buffer, "#######");
    EXPECT_EQ(VoSnprintf(nullptr, 0, "%d", 12345), 5);
    EXPECT_EQ(VoSnprintf(no_buffer, 10, "%d", 1), -1);
    EXPECT_EQ(VoSnprintf(buffer, 8, "%s", "12345678901234567890"), 20);
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_LT(VoSnprintf(buffer, 4, "%ls", L"\xdfff"), 0); // not a character
    EXPECT_EQ(buffer[3], '\0');
}

TEST(SysError, NamesTheNumberAndCuts)
{
    const std::pair<size_t, const char *> cases[] = {{0, "#"},
                                                     {1, ""},
                                                     {4, "[er"},
                                                     {12, "[errno 2]:"},
                                                     {15, "[errno 2]: No"},
                                                     {50, "[errno 2]: No such file or directory"}};
    for (auto [size, expected] : cases) {
        char text[] = "##################################################";
        text[1] = size == 0 ? '\0' : '#';
        errno = ENOENT;
        EXPECT_STREQ(size % 2 == 0 ? FormatSysError(text, size) : _FormatSysError(2, text, size),
                     expected);
    }
}

TEST(Print, IndentsAndLeavesTextsUnchanged)
{
    const std::string printed = support::capture(1, [&] {
        EXPECT_EQ(fprintf_indent(stdout, 4, "a%d\n", 1), 3);
        EXPECT_EQ(fprintf_indent(stdout, 0, "b\n"), 2);
        EXPECT_EQ(fprintf_indent(stdout, 3, no_format, 0), -1);
    });
    EXPECT_EQ(printed, "    a1\nb\n");
    EXPECT_EQ(support::capture(2, [] { ConsoleMessage("100%d\n"); }), "100%d\n");
}

TEST(Memory, RoundsToMebibytesAndSurvivesWhatTheSystemSays)
{
    const struct {
        const char *text;
        uint64_t rss;
        uint64_t virt;
    } cases[] = {
        {"100000 2662 9 8\n", 10, 391}, // 10.4 MiB
        {"100000 2714 9 8\n", 11, 391}, // 10.6 MiB
        {"5368717974 2 1\n", 0, 20971555}, {"12", 0, 0}, {"", 0, 0}, {"5 x", 0, 0},
    };
    uint64_t rss;
    uint64_t virt;
    for (const auto &c : cases) {
        statm = c.text;
        get_rss_virt(&rss, nullptr);
        get_rss_virt(nullptr, &virt);
        statm = nullptr;
        EXPECT_EQ(rss, c.rss) << c.text;
        EXPECT_EQ(virt, c.virt) << c.text;
    }
    get_rss_virt(&rss, nullptr);
    EXPECT_GT(rss, 0u);
    EXPECT_GT(get_ram_size_in_bytes(), rss << 20);
}

TEST(LeakHooks, CheckSizesOnceAndReportNothing)
{
    const auto child = support::run_in_child([] {
        zelmemdbg_prog_init("p");
        return 0;
    });
    EXPECT_NE(child.err.find("\"sz_check == 0\" file libutil/memleak_dbg,"), std::string::npos);
    size_check_result = 0;
    zelmemdbg_prog_init(std::string(600, 'p').c_str());
    EXPECT_EQ(std::string(g_zelmemdbg_progname, 512), std::string(512, 'p'));
    size_check_result = -1; // not asked again
    zelmemdbg_prog_init("short");
    EXPECT_EQ(std::string(g_zelmemdbg_progname, 512), "short" + std::string(507, '\0'));
    char message[4] = "abc";
    EXPECT_EQ(zelmemdbg_prog_exit(message, sizeof message), 0);
    EXPECT_STREQ(message, "");
}
