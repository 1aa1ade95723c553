// small_test.cpp - the small system queries and formatters, dumps, and the hooks of a leak tracker.
#include "koutil/console.h"
#include "koutil/fmt_syserror.h"
#include "koutil/fprintf_indent.h"
#include "koutil/memleak_dbg.h"
#include "koutil/memsize.h"
#include "koutil/payload.h"
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
    const std::tuple<const char *, uint64_t, uint64_t> cases[] = {
        {"100000 2662 9 8\n", 10, 391}, // 10.4 MiB
        {"100000 2714 9 8\n", 11, 391}, // 10.6 MiB
        {"5368717974 2 1\n", 0, 20971555}, {"12", 0, 0}, {"", 0, 0}, {"5 x", 0, 0},
    };
    uint64_t rss;
    uint64_t virt;
    for (const auto &[text, expected_rss, expected_virt] : cases) {
        statm = text;
        get_rss_virt(&rss, nullptr);
        get_rss_virt(nullptr, &virt);
        statm = nullptr;
        EXPECT_TRUE(rss == expected_rss && virt == expected_virt) << text;
    }
    get_rss_virt(&rss, nullptr);
    EXPECT_TRUE(rss > 0 && get_ram_size_in_bytes() > rss << 20);
}

TEST(Payload, LaysOutLinesAndCollapsesRunsOfZeroLines)
{
    const auto dump = [](const std::string &bytes, int space, int do_skip, unsigned offset) {
        return support::capture(1, [&] {
            dump_payload(stdout, space, do_skip,
                         reinterpret_cast<const unsigned char *>(bytes.data()),
                         static_cast<unsigned>(bytes.size()), offset);
        });
    };
    EXPECT_EQ(dump("", 4, 0, 0), "");
    EXPECT_EQ(dump("a", 0, 0, 256), " 0100:  61 |a\n");
    EXPECT_EQ(dump("ab\n", 35, 0, 0x10000), std::string(35, ' ') + "10000:  6162 0a |ab.\n");
    EXPECT_EQ(dump("0123456789 ~\x7f\x1f\x80\xff" + std::string("abcd"), 1, 1, 0xfffffff0),
              " fffffff0:  3031 3233 3435 3637 3839 207e 7f1f 80ff  |0123456789 ~....\n"
              " 0000:  6162 6364  |abcd\n");
    const std::string text = "################";
    const std::string hash = "2323 2323 2323 2323 2323 2323 2323 2323  |################\n";
    const std::string nil(16, '\0');
    const std::string zero = "0000 0000 0000 0000 0000 0000 0000 0000  |................\n";
    EXPECT_EQ(dump(text + nil + text, 2, 1, 0),
              "  0000:  " + hash + "  0010:  " + zero + "  0020:  " + hash);
    EXPECT_EQ(dump(nil + nil + nil + "x", 2, 1, 0),
              "  0000:  " + zero + "         .........\n  0030:  78 |x\n");
    EXPECT_EQ(dump(nil + nil.substr(3), 2, 1, 0), "  0000:  " + zero);
    EXPECT_EQ(dump(nil + nil, 2, 0, 0), "  0000:  " + zero + "  0010:  " + zero);
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
