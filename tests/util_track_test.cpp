// util_track_test.cpp - the progress file, with a clock of the test's own.
#include "koutil/util_track.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <climits>
#include <unistd.h>

namespace
{

time_t now = 1000;

class Progress : public ::testing::Test
{
  protected:
    void expect(const std::string &text) const // below the line with the process id
    {
        EXPECT_EQ(support::read_file(path), "Pid: " + std::to_string(getpid()) + "\n" + text);
    }
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

extern "C" time_t time(time_t *)
{
    return now;
}

TEST_F(Progress, RewritesTheWholeFile)
{
    UtilTrackPhase(track, "A long name of a phase");
    expect("Phase: A long name of a phase\n");
    UtilTrackPhase(track, "B");
    const std::tuple<int, int, std::string> cases[] = {
        {0, 0, "Progress: 0\n"},
        {12345, 2, "Progress: 123.45\n"},
        {7, 3, "Progress: 0.007\n"},
        {INT_MAX, 9, "Progress: 2.147483647\n"},
        {INT_MAX, 10, "Progress: 0.2147483647\n"},
        {5, INT_MAX, "Progress: 0." + std::string(99, '0') + "5\n"},
        {5, -1, "Progress: 5\n"},
        {-5, 2, ""},
    };
    for (const auto &[figure, decimals, line] : cases) {
        UtilTrackProgressDecimals(track, decimals);
        UtilTrackProgress(track, figure);
        expect("Phase: B\n" + line);
    }
    UtilTrackFailure(track, "disk full");
    expect("Phase: B\nStatus: disk full\n");
}

TEST_F(Progress, BeatsAtMostAsOftenAsSet)
{
    EXPECT_TRUE(pulse_reports() && pulse_reports());
    UtilTrackHeartBeatLimit(track, 10);
    int reports = 0;
    for (int second = 0; second < 60; second++, now++) {
        UtilTrackPhase(track, "other reports do not count");
        reports += pulse_reports() ? 1 : 0;
    }
    EXPECT_EQ(reports, 6);
    now -= 3000; // a clock that goes back must not silence the utility
    EXPECT_TRUE(pulse_reports() && !pulse_reports());
    UtilTrackSuccess(track);
    expect("Phase: Complete\nStatus: Success\n");
}
