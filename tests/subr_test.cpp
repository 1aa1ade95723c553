// subr_test.cpp - texts of codes and sizes, partition-group flags, the directory opener.
#include "koutil/subr.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

TEST(Subr, CodesHaveTheirTexts)
{
    EXPECT_STREQ(decode_state(FSM_RELAUNCH), "RELAUNCH");
    EXPECT_STREQ(decode_state(6), "(unknown state)");
    EXPECT_STREQ(decode_substate(FSM_NO_SUBSTATE), "(no substate)");
    EXPECT_STREQ(decode_substate(FSM_BLOCKED_HA), "(waiting for MDC to become HA primary)");
    EXPECT_STREQ(decode_substate(10), "(unknown substate)");
    EXPECT_STREQ(ktxt(ivkey, 0x20A), "5.0 small inode + NamedStreams (0x20a)");
    EXPECT_STREQ(ktxt(ivkey, -1), "unknown inode version");
    key_txt_t table[] = {{7, "first"}, {7, "second"}, {KEY_TXT_END, "none"}};
    EXPECT_STREQ(ktxt(table, 7), "first");
}

TEST(Subr, PartitionGroupFlags)
{
    const struct {
        uint32_t flags;
        int metadata, shared, exclusive;
    } cases[] = {{0x404, 1, 0, 1}, {0x408, 0, 0, 1}, {0x4, 1, 1, 0},
                 {0x400, 0, 0, 0}, {0x8, 0, 0, 0},   {0xC, 1, 1, 0}};
    for (const auto &c : cases) {
        partgroup_t group{c.flags};
        EXPECT_EQ(pgroup_has_metadata(&group), c.metadata) << c.flags;
        EXPECT_EQ(non_exclusive_metadata(&group), c.shared) << c.flags;
        EXPECT_EQ(exclusive_metadata(&group), c.exclusive) << c.flags;
    }
}

TEST(Subr, OpensOnlyDirectories)
{
    support::TempDir dir;
    int fd = 77;
    EXPECT_EQ(OpenDir((dir / "missing").c_str(), &fd), ENOENT);
    EXPECT_EQ(fd, -1);
    support::write_file(dir / "file", "");
    EXPECT_EQ(OpenDir((dir / "file").c_str(), &fd), ENOTDIR);
    ASSERT_EQ(OpenDir(dir.path().c_str(), &fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    close(fd);
}

TEST(Subr, SizesChangeTheirUnitJustAboveIt)
{
    const std::pair<uint64_t, const char *> cases[] = {
        {0, "0.00 B"},
        {1024, "1024.00 B"},
        {1025, "1.00 KB"},
        {1572864, "1.50 MB"},
        {1ull << 20, "1024.00 KB"},
        {(1ull << 60) + 1, "1.00 EB"},
        {1ull << 60, "1024.00 PB"},
        {UINT64_MAX, "16.00 EB"},
    };
    for (const auto &[size, expected] : cases) {
        char text[11];
        SizeStr(size, text);
        EXPECT_STREQ(text, expected);
    }
    EXPECT_EQ(BlockShift(6), 1);
    EXPECT_EQ(BlockShift(0), 0);
    EXPECT_EQ(BlockShift(1ull << 63), 63);
}
