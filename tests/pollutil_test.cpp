// pollutil_test.cpp - poll sets over real descriptors.
#include "koutil/pollutil.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <unistd.h>

TEST(PollSet, GrowsBy64AndKeepsTheEntries)
{
    dpoll_t d;
    ASSERT_EQ(DPollInit(&d), 0);
    EXPECT_EQ(DPollFind(0, &d), nullptr); // though the free entries have fd 0
    for (int fd = 0; fd < 129; fd++) {
        EXPECT_EQ(d.maxfds, fd <= 64 ? 64u : 128u) << fd;
        ASSERT_EQ(DPollSet(fd, static_cast<short>(fd), &d), 0);
    }
    EXPECT_EQ(d.maxfds, 192u);
    for (int fd = 0; fd < 129; fd++) {
        EXPECT_EQ(DPollFind(fd, &d), d.fds + fd);
        EXPECT_EQ(d.fds[fd].events, fd);
    }
    DPollFree(&d);
    EXPECT_EQ(d.fds, nullptr);
}

TEST(PollSet, ChangesTakesAndRemovesInPlace)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    qpoll_t q = qpoll0;
    dpoll_t *d = &q.d;
    d->fds = q.qfds;
    QPollSet(900, POLLIN, &q);
    QPollSet(ends[1], POLLIN, &q);
    QPollSet(ends[0], POLLIN, &q);
    q.qfds[1].revents = POLLERR;
    EXPECT_EQ(DPollSet(ends[1], POLLOUT, d), 0);
    EXPECT_EQ(DPollQRevents(ends[1], d), 0);
    EXPECT_EQ(DPoll(d, -1), 2); // 900 is not open, and the pipe can be written
    EXPECT_EQ(q.qfds[1].revents, POLLOUT);
    DPollClr(900, d);
    DPollClr(901, d);
    EXPECT_EQ(d->nfds, 2u);
    EXPECT_EQ(DPollFind(ends[0], d), &q.qfds[1]);
    EXPECT_EQ(q.qfds[2].events | q.qfds[2].revents, 0);
    EXPECT_EQ(DPollXRevents(ends[1], d), POLLOUT); // it moved with its entry, and is taken once
    EXPECT_EQ(DPollXRevents(ends[1], d) | DPollXRevents(900, d), 0);
    DPollSetAll(POLLIN, d);
    EXPECT_EQ(DPoll(d, 0), 0);
    close(ends[0]);
    close(ends[1]);
    DPollFree(d); // its storage is not the heap's
}

TEST(PollSet, FullFixedSetsPanic)
{
    qpoll0.d.fds = qpoll0.qfds;
    for (int fd : {1, 2, 3, 4, 4, 1}) {
        QPollSet(fd, POLLIN, &qpoll0);
    }
    const auto quick = support::run_in_child([] { return QPollSet(5, POLLIN, &qpoll0), 0; });
    const auto fixed = support::run_in_child([] { return DPollSet(5, POLLIN, &qpoll0.d); });
    EXPECT_TRUE(quick.crashed() && fixed.crashed());
    EXPECT_NE(quick.err.find("\"q->d.nfds < q->d.maxfds\""), std::string::npos) << quick.err;
    EXPECT_NE(fixed.err.find("\"d->polltype == POLL_DYNAMIC\""), std::string::npos) << fixed.err;
}
