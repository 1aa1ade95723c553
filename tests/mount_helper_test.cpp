// mount_helper_test.cpp - the mount helper of examples/ on a copy of its installation, and on files
// that are no option files.
#include "support/support.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <vector>

namespace
{

constexpr int cap_dac_override = 1;
constexpr int cap_dac_read_search = 2;

class MountHelper : public ::testing::Test
{
  protected:
    MountHelper()
    {
        std::filesystem::copy(INSTALLATION, root_, std::filesystem::copy_options::recursive);
    }

    // Runs the program in the installation's configuration directory, as a user whom permissions
    // bind. Checks the status, and that each text is in what it prints, which it returns.
    std::string expect(int status, std::vector<std::string> words,
                       const std::vector<std::string> &texts) const
    {
        const support::Outcome outcome = support::run_in_child([&] {
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
            return chdir(config_.c_str()) == 0 ? execv(MOUNT_HELPER, argv.data()) : 127;
        });
        const std::string printed = outcome.out + outcome.err;
        EXPECT_TRUE(outcome.exited(status)) << outcome.status << printed;
        for (const std::string &text : texts) {
            EXPECT_NE(printed.find(text), std::string::npos) << text << " is not in\n" << printed;
        }
        return printed;
    }
    void expect_logged(const std::vector<std::string> &texts) const
    {
        const std::string log = support::read_file(log_);
        for (const std::string &text : texts) {
            EXPECT_NE(log.find(text), std::string::npos) << text << " is not in\n" << log;
        }
    }

    support::TempDir dir_;
    std::string root_ = dir_ / "vorn";
    std::string config_ = root_ + "/config";
    std::string log_ = root_ + "/mount_helper.log";
};

} // namespace

TEST_F(MountHelper, JudgesTheShippedFilesAndLogs)
{
    expect(0, {"data1.opts", "home.opts"},
           {"\nSystem Threads             Threads                       32 changed 12-128\n",
            "\nMount Retries              mnt_retry                    100 default 0-65535\n",
            "\nMount Point                mntpoint          /cluster/data1 changed 1-255 chars\n"});
    const std::pair<const char *, std::vector<std::string>> faulty[] = {
        {"archive.opts",
         {"System Threads             Threads                      200 INVALID 12-128\n",
          "  1 problem in ", "    Number of file system threads for async event handling.\n",
          "    VALID RANGE: 12 to 128\n"}},
        {"media.opts", {"ERROR: Low Water Mark is not less than the High Water Mark\n"}},
        {"scratch.opts", {"Parameter 'buffer_size' is unknown in scratch.opts.\n"}},
        {"backup.opts",
         {"may have been cut off", "Mount point for this file system.\n",
          "ERROR: No Mount Point specified.\n"}},
    };
    for (const auto &[file, texts] : faulty) {
        const std::string printed = expect(1, {file}, texts);
        for (size_t start = 0, end; start < printed.size(); start = end + 1) {
            end = printed.find('\n', start);
            EXPECT_LE(end - start, 80u) << printed.substr(start, end - start);
        }
    }
    expect_logged({" data1.opts: valid\n", " archive.opts: Threads=200 is not valid\n", "\n(E)[",
                   " scratch.opts: Parameter 'buffer_size' is unknown in "});
}

TEST_F(MountHelper, RotatesItsLogAndWritesDebugMessages)
{
    const std::string file = "data1.opts";
    expect(0, {"--log-size", "120", "-d", "load,check", file, file, file}, {});
    EXPECT_TRUE(support::file_exists(log_ + "_1"));
    expect(0, {"--log-size", "100K", "-d", "load", file}, {});
    expect_logged({" D ["});
    expect(1, {"-d", "nothing", file}, {"unknown debug flag"});
    std::filesystem::remove(log_);
    std::filesystem::create_directory(log_);
    expect(0, {file}, {"nothing is logged"});
}

TEST_F(MountHelper, AppliesOptionsAfterTheFile)
{
    const std::string bad = "archive.opts";
    const std::string mended = expect(0, {"-o", "threads=64,BufferCacheCap=1K", "-c", bad},
                                      {" 64 changed", " 1K changed"});
    EXPECT_EQ(mended.find("default"), std::string::npos);
    const std::pair<std::string, const char *> cases[] = {
        {"Threads=0", "VALID RANGE: 12 to 128"},
        {"mntoptions=0x180000000", "At least 1 NIC must be selected"},
        {"nothing=1", "nothing"},
        {"Threads=65536", "'65536' does not fit Threads"},
        {"Threads=many", "'many' does not fit Threads"},
        {"mntpoint=" + std::string(256, 'm'), "does not fit mntpoint"}};
    for (const auto &[settings, text] : cases) {
        expect(1, {"-o", settings, "data1.opts"}, {text});
    }
}

TEST_F(MountHelper, ComparesTwoFiles)
{
    const std::string file = "data1.opts";
    expect(0, {"--diff", file, file}, {"are alike"});
    expect(0, {"--diff", file, "home.opts"},
           {"System Threads             Threads                            32              12\n",
            "  > Home directories\n"});
    expect(1, {"--diff", file, "media.opts"}, {"1 problem in "});
    expect(2, {"--diff", "none", "scratch.opts"}, {"not accepted", "(2)"});
    expect(1, {"--diff", file}, {"--diff wants two files"});
    expect(1, {"-c"}, {"no file given"});
    expect(0, {"--help"}, {"Example Cluster mount helper", "exit status: 0 all valid"});
}

TEST_F(MountHelper, SurvivesWhatIsNoOptionFile)
{
    support::write_file(config_ + "/odd", "mntpoint=/x\n\033[2J=1");
    expect(1, {"odd"}, {"Parameter '?[2J' is unknown"});
    support::write_file(config_ + "/odd", "mntpoint=/x\nthreads=x");
    expect(1, {"odd"}, {"    Number of file system threads for async event handling.\n"});
    expect(2, {"."}, {"Internal error reading cfg file (21)"});
    expect(2, {"none", "data1.opts"}, {"Error(2) opening", "Mount Point"});
    expect(2, {std::string(300, 'n')}, {"KOVA Cfg: Error("});
    expect_logged({"(C)[", "SL_EVT_SYS_RES_FAIL: mount_helper[PID="});
    chmod((config_ + "/odd").c_str(), 0);
    expect(2, {"odd"}, {"Error(13) opening"});
}
