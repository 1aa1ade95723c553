// util_track_test.cpp - the progress file, with a clock of the test's own.
#include "koutil/util_track.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <ctime>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace
{

time_t now = 1000;

class Progress : public ::testing::Test
{
  protected:
    // What the file holds below the line with the process id.
    std::string report() const
    {
        const std::string text = support::read_file(path);
        const std::string pid = "Pid: " + std::to_string(getpid()) + "\n";
        return text.substr(0, pid.size()) == pid ? text.substr(pid.size()) : "no report: " + text;
    }
    // True if a heartbeat rewrites the file.
    bool pulse_reports() const
    {
        support::write_file(path, "old");
        UtilTrackHeartBeatPulse(track);
        return support::read_file(path) != "old";
    }

    support::TempDir dir;
    std::string path = dir / "progress";
    util_track_ctx_t *track = UtilTrackInit(path.c_str());
};

} // namespace

extern "C" time_t time(time_t *result)
{
    return result != nullptr ? *result = now : now;
}

TEST_F(Progress, RewritesTheWholeFile)
{
    EXPECT_EQ(support::read_file(path), "");
    UtilTrackPhase(track, "A long name of a phase");
    EXPECT_EQ(report(), "Phase: A long name of a phase\n");
    const struct {
        int figure;
        int decimals;
        std::string line;
    } cases[] = {
        {0, 0, "Progress: 0\n"},
        {12345, 2, "Progress: 123.45\n"},
        {7, 3, "Progress: 0.007\n"},
        {INT_MAX, 9, "Progress: 2.147483647\n"},
        {INT_MAX, 10, "Progress: 0.2147483647\n"},
        {5, 12, "Progress: 0.000000000005\n"},
        {5, INT_MAX, "Progress: 0." + std::string(99, '0') + "5\n"},
        {5, -1, "Progress: 5\n"},
        {-5, 2, ""},
    };
    UtilTrackPhase(track, "B");
    for (const auto &c : cases) {
        UtilTrackProgressDecimals(track, c.decimals);
        UtilTrackProgress(track, c.figure);
        EXPECT_EQ(report(), "Phase: B\n" + c.line);
    }
    UtilTrackProgress(track, 9);
    UtilTrackFailure(track, "disk full");
    EXPECT_EQ(report(), "Phase: B\nProgress: 0.09\nStatus: disk full\n");
    track = UtilTrackInit(path.c_str());
    UtilTrackSuccess(track);
    EXPECT_EQ(report(), "Phase: Complete\nStatus: Success\n");
    UtilTrackFailure(UtilTrackInit(path.c_str()), nullptr);
    EXPECT_EQ(report(), "");
}

TEST_F(Progress, BeatsAtMostAsOftenAsSet)
{
    EXPECT_TRUE(pulse_reports() && pulse_reports());
    UtilTrackHeartBeatLimit(track, 10);
    EXPECT_TRUE(pulse_reports());
    int reports = 0;
    for (int second = 0; second < 60; second++) {
        now++;
        UtilTrackPhase(track, "other reports do not count");
        reports += pulse_reports() ? 1 : 0;
    }
    EXPECT_EQ(reports, 6);
    now -= 3000; // a clock that goes back must not silence the utility
    EXPECT_TRUE(pulse_reports());
    EXPECT_FALSE(pulse_reports());
    UtilTrackSuccess(track);
}

TEST_F(Progress, SurvivesAFullDiskAndAMissingFolder)
{
    signal(SIGXFSZ, SIG_IGN);
    rlimit old = {};
    getrlimit(RLIMIT_FSIZE, &old);
    const rlimit tight = {5, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &tight);
    UtilTrackPhase(track, "lost");
    UtilTrackPhase(track, "lost too");
    setrlimit(RLIMIT_FSIZE, &old);
    UtilTrackPhase(track, "kept");
    EXPECT_EQ(report(), "Phase: kept\n");
    UtilTrackSuccess(track);

    util_track_ctx_t *none = UtilTrackInit((dir / "missing/progress").c_str());
    EXPECT_EQ(none, nullptr);
    UtilTrackProgress(none, 1);
    UtilTrackHeartBeatPulse(none);
    UtilTrackSuccess(none);
}
