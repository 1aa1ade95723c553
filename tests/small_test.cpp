// small_test.cpp - the small system queries and formatters.
#include "koutil/console.h"
#include "koutil/fmt_syserror.h"
#include "koutil/fprintf_indent.h"
#include "koutil/memsize.h"
#include "koutil/priv_check.h"
#include "koutil/rss.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

const char *statm = nullptr; // what a read gives in place of the file's text

} // namespace

extern "C" ssize_t read(int fd, void *buffer, size_t size)
{
    if (statm == nullptr) {
        return syscall(SYS_read, fd, buffer, size);
    }
    const size_t length = std::min(size, strlen(statm));
    memcpy(buffer, statm, length);
    return static_cast<ssize_t>(length);
}

TEST(SysError, NamesTheNumberAndCuts)
{
    char text[64];
    EXPECT_EQ(_FormatSysError(2, text, sizeof text), text);
    EXPECT_STREQ(text, "[errno 2]: No such file or directory");
    errno = EACCES;
    EXPECT_STREQ(FormatSysError(text, sizeof text), "[errno 13]: Permission denied");
    const struct {
        size_t size;
        const char *expected;
    } cases[] = {{1, ""}, {4, "[er"}, {12, "[errno 2]:"}, {15, "[errno 2]: No"}};
    for (const auto &c : cases) {
        memset(text, '#', sizeof text);
        EXPECT_STREQ(_FormatSysError(2, text, c.size), c.expected);
        EXPECT_EQ(text[c.size], '#');
    }
    text[0] = '#';
    EXPECT_EQ(_FormatSysError(2, text, 0)[0], '#');
}

TEST(Indent, PrintsBlanksBeforeTheMessage)
{
    const char *volatile no_format = nullptr;
    const std::string printed = support::capture(1, [&] {
        EXPECT_EQ(fprintf_indent(stdout, 4, "a%d\n", 1), 3);
        EXPECT_EQ(fprintf_indent(stdout, 0, "b\n"), 2);
        EXPECT_EQ(fprintf_indent(stdout, -2, "c\n"), 2);
        EXPECT_EQ(fprintf_indent(stdout, 3, no_format, 0), -1);
    });
    EXPECT_EQ(printed, "    a1\nb\n  c\n");
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
        {"5368717974 2 1\n", 0, 20971555}, {"12", 0, 0}, {"", 0, 0}, {"x 4", 0, 0}, {"5 x", 0, 0},
    };
    for (const auto &c : cases) {
        uint64_t rss = 9;
        uint64_t virt = 9;
        statm = c.text;
        get_rss_virt(&rss, nullptr);
        get_rss_virt(nullptr, &virt);
        statm = nullptr;
        EXPECT_EQ(rss, c.rss) << c.text;
        EXPECT_EQ(virt, c.virt) << c.text;
    }
    uint64_t rss = 0;
    get_rss_virt(&rss, nullptr);
    EXPECT_GT(rss, 0u);
    EXPECT_GT(get_ram_size_in_bytes(), rss << 20);
    EXPECT_EQ(get_ram_size_in_bytes(), get_ram_size_in_bytes());
}

TEST(Console, WritesUnchanged)
{
    EXPECT_EQ(support::capture(2, [] { ConsoleMessage("100%d\n"); }), "100%d\n");
    EXPECT_EQ(PrivCheck(), geteuid() == 0 ? 1 : 0);
}
