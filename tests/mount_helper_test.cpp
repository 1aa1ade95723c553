// mount_helper_test.cpp - the mount helper of examples/ on a copy of its installation, and on files
// that are no option files.
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr int cap_dac_override = 1;
constexpr int cap_dac_read_search = 2;

class MountHelper : public ::testing::Test
{
  protected:
    MountHelper()
        : root_(dir_ / "vorn")
        , log_(root_ + "/mount_helper.log")
    {
        std::filesystem::copy(INSTALLATION, root_, std::filesystem::copy_options::recursive);
    }
    std::string config(const std::string &name) const { return root_ + "/config/" + name; }

    // Runs the program as a user whom permissions bind.
    support::Outcome run(std::vector<std::string> words) const
    {
        return support::run_in_child([&] {
            setenv("VORNROOT", root_.c_str(), 1);
            unsetenv("VORNLOGS");
            setenv("TSAN_OPTIONS", "atexit_sleep_ms=0", 1); // it waits for the clock thread
            prctl(PR_CAPBSET_DROP, cap_dac_override);
            prctl(PR_CAPBSET_DROP, cap_dac_read_search);
            std::vector<char *> argv = {const_cast<char *>("mount_helper")};
            for (std::string &word : words) {
                argv.push_back(word.data());
            }
            argv.push_back(nullptr);
            execv(MOUNT_HELPER, argv.data());
            return 127;
        });
    }
    // Runs it and checks the status, and that each text is in what it prints.
    support::Outcome expect(int status, const std::vector<std::string> &words,
                            const std::vector<std::string> &texts) const
    {
        SCOPED_TRACE(words.back());
        support::Outcome outcome = run(words);
        EXPECT_TRUE(outcome.exited(status)) << outcome.status << outcome.out << outcome.err;
        for (const std::string &text : texts) {
            EXPECT_NE((outcome.out + outcome.err).find(text), std::string::npos)
                << text << " is not in\n"
                << outcome.out << outcome.err;
        }
        return outcome;
    }

    support::TempDir dir_;
    std::string root_;
    std::string log_;
};

} // namespace

TEST_F(MountHelper, JudgesTheShippedFilesAndLogs)
{
    for (const char *good : {"data1.opts", "home.opts"}) {
        const auto outcome = expect(0, {config(good)}, {});
        EXPECT_EQ(outcome.out.find("INVALID"), std::string::npos);
        EXPECT_EQ(outcome.err, "");
    }
    expect(0, {config("data1.opts")},
           {"\nSystem Threads             Threads                       32 changed 12-128\n",
            "\nMount Retries              mnt_retry                    100 default 0-65535\n",
            "\nMount Point                mntpoint          /cluster/data1 changed 1-255 chars\n"});
    expect(1, {config("archive.opts")},
           {"System Threads             Threads                      200 INVALID 12-128\n",
            "  1 problem in ", "    Number of file system threads for async event handling.\n",
            "    VALID RANGE: 12 to 128\n"});
    expect(1, {config("media.opts")},
           {"ERROR: Low Water Mark is not less than the High Water Mark\n"});
    expect(1, {config("scratch.opts")},
           {"Parameter 'buffer_size' is unknown in " + config("scratch.opts") + ".\n"});
    expect(1, {config("backup.opts")},
           {"may have been cut off", "Mount point for this file system.\n",
            "ERROR: No Mount Point specified.\n"});
    const auto all = expect(1,
                            {config("archive.opts"), config("backup.opts"), config("data1.opts"),
                             config("home.opts"), config("media.opts"), config("scratch.opts")},
                            {});
    for (size_t start = 0; start < all.out.size(); start = all.out.find('\n', start) + 1) {
        const size_t length = all.out.find('\n', start) - start;
        if (all.out.compare(start, 1, "/") != 0 && all.out.find(root_, start) > start + length) {
            EXPECT_LE(length, 80u) << all.out.substr(start, length);
        }
    }
    const std::string log = support::read_file(log_);
    for (const std::string &line :
         {" " + config("data1.opts") + ": valid\n",
          " " + config("archive.opts") + ": Threads=200 is not valid\n", std::string("\n(E)["),
          " " + config("scratch.opts") + ": Parameter 'buffer_size' is unknown in "}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
}

TEST_F(MountHelper, RotatesItsLogAndWritesDebugMessages)
{
    const std::string file = config("data1.opts");
    expect(0, {"--log-size", "120", "-d", "load,check", file, file, file}, {});
    EXPECT_TRUE(support::file_exists(log_ + "_1"));
    expect(0, {"--log-size", "100K", "-d", "load", file}, {});
    EXPECT_NE(support::read_file(log_).find(" D ["), std::string::npos);
    expect(1, {"-d", "nothing", file}, {"unknown debug flag"});
    std::filesystem::remove(log_);
    std::filesystem::create_directory(log_);
    expect(0, {file}, {"nothing is logged"});
}

TEST_F(MountHelper, AppliesOptionsAfterTheFile)
{
    const std::string bad = config("archive.opts");
    const auto mended = expect(0, {"-o", "threads=64,BufferCacheCap=1K", "-c", bad},
                               {" 64 changed", " 1K changed"});
    EXPECT_EQ(mended.out.find("default"), std::string::npos);
    expect(1, {"-o", "Threads=0", config("data1.opts")}, {"VALID RANGE: 12 to 128"});
    expect(1, {"-o", "mntoptions=0x180000000", config("data1.opts")},
           {"At least 1 NIC must be selected"});
    expect(1, {"-o", "nothing=1", bad}, {"nothing"});
    expect(1, {"-o", "Threads=65536", bad}, {"'65536' does not fit Threads"});
    expect(1, {"-o", "Threads=many", bad}, {"'many' does not fit Threads"});
    expect(1, {"-o", "mntpoint=" + std::string(256, 'm'), bad}, {"does not fit mntpoint"});
}

TEST_F(MountHelper, ComparesTwoFiles)
{
    const std::string file = config("data1.opts");
    expect(0, {"--diff", file, file}, {"are alike"});
    expect(0, {"--diff", file, config("home.opts")},
           {"System Threads             Threads                            32              12\n",
            "  > Home directories\n"});
    expect(1, {"--diff", file, config("media.opts")}, {"1 problem in "});
    expect(2, {"--diff", config("none"), config("scratch.opts")}, {"not accepted", "(2)"});
    expect(1, {"--diff", file}, {"--diff wants two files"});
    expect(1, {"-c"}, {"no file given"});
    expect(0, {"--help"}, {"Example Cluster mount helper", "exit status: 0 all valid"});
}

TEST_F(MountHelper, SurvivesWhatIsNoOptionFile)
{
    const std::string path = config("odd");
    const std::string named = "mntpoint=/x\n";
    std::string values = "Threads";
    for (int i = 0; i < 65; ++i) {
        values += "=12";
    }
    const struct {
        std::string text;
        int status;
        std::string message;
    } cases[] = {
        {named + std::string("Thr\0eads=12\n", 12), 1, "Invalid character in file."},
        {named + "fsname=" + std::string(5000, 'x') + "\n", 1, "Line is too long."},
        {named + values, 1, "Line 'Threads' has too many fields."},
        {named + "threads=x", 1, "    Number of file system threads for async event handling.\n"},
        {named + "\033[2J=1", 1, "Parameter '?[2J' is unknown"},
        {named + "Threads=12", 0, "may have been cut off"},
        {"\"\"\"\"\"", 1, "Parameter '\"' is unknown"},
        {"\"\"\"", 1, "No Mount Point specified."},
        {"", 1, "No Mount Point specified."},
        {named + "mntpoint=" + std::string(900, '/') + "\n", 0, "  = //"},
    };
    for (const auto &c : cases) {
        support::write_file(path, c.text);
        expect(c.status, {path}, {c.message});
    }
    expect(2, {root_ + "/config"}, {"Internal error reading cfg file (21)"});
    expect(2, {config("none"), config("data1.opts")}, {"Error(2) opening", "Mount Point"});
    expect(2, {root_ + "/" + std::string(300, 'n')}, {"KOVA Cfg: Error("});
    EXPECT_NE(support::read_file(log_).find("(C)["), std::string::npos);
    EXPECT_NE(support::read_file(log_).find("SL_EVT_SYS_RES_FAIL: mount_helper[PID="),
              std::string::npos);
    chmod(path.c_str(), 0);
    expect(2, {path}, {"Error(13) opening"});
}
