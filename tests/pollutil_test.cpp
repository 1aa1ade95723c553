// pollutil_test.cpp - poll sets over real descriptors.
#include "koutil/pollutil.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>
#include <vector>

namespace
{

bool out_of_memory = false;

std::vector<int> descriptors(const dpoll_t &d)
{
    std::vector<int> fds;
    for (unsigned int i = 0; i < d.nfds; i++) {
        fds.push_back(d.fds[i].fd);
    }
    return fds;
}

} // namespace

extern "C" void *__libc_calloc(size_t, size_t) __attribute__((weak));

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define CAN_FAIL_MEMORY 1
extern "C" void *calloc(size_t count, size_t size) noexcept
{
    return out_of_memory ? nullptr : __libc_calloc(count, size);
}
#else
#define CAN_FAIL_MEMORY 0
#endif

TEST(PollSet, GrowsBy64AndKeepsTheEntries)
{
    dpoll_t d;
    ASSERT_EQ(DPollInit(&d), 0);
    EXPECT_EQ(d.maxfds, 64u);
    for (int fd = 0; fd < 65; fd++) {
        ASSERT_EQ(DPollSet(fd + 1000, static_cast<short>(fd + 1), &d), 0);
    }
    EXPECT_EQ(d.maxfds, 128u);
    EXPECT_EQ(d.nfds, 65u);
    for (int fd = 0; fd < 65; fd++) {
        EXPECT_EQ(DPollFind(fd + 1000, &d), d.fds + fd);
        EXPECT_EQ(d.fds[fd].events, fd + 1);
    }
    EXPECT_EQ(DPollFind(0, &d), nullptr) << "entries that are not in use are not found";
    for (int fd = 65; fd < 129; fd++) {
        ASSERT_EQ(DPollSet(fd + 1000, 1, &d), 0);
    }
    EXPECT_EQ(d.maxfds, 192u);
    DPollFree(&d);
    EXPECT_EQ(d.fds, nullptr);
    EXPECT_EQ(d.nfds + d.maxfds, 0u);
}

TEST(PollSet, ChangesAndRemovesInPlace)
{
    dpoll_t d;
    ASSERT_EQ(DPollInit(&d), 0);
    for (int fd : {7, 8, 9}) {
        DPollSet(fd, POLLIN, &d);
    }
    d.fds[1].revents = POLLERR;
    EXPECT_EQ(DPollSet(8, POLLOUT, &d), 0);
    EXPECT_EQ(d.nfds, 3u);
    EXPECT_EQ(d.fds[1].events, POLLOUT);
    EXPECT_EQ(DPollQRevents(8, &d), 0);

    d.fds[2].revents = POLLHUP;
    DPollClr(8, &d);
    DPollClr(100, &d);
    EXPECT_EQ(descriptors(d), (std::vector<int>{7, 9}));
    EXPECT_EQ(d.fds[2].events | d.fds[2].revents, 0);
    EXPECT_EQ(DPollQRevents(9, &d), POLLHUP) << "an entry moves with what poll returned";
    EXPECT_EQ(DPollXRevents(9, &d), POLLHUP);
    EXPECT_EQ(DPollXRevents(9, &d), 0);
    EXPECT_EQ(DPollXRevents(8, &d), 0);

    d.fds[0].revents = POLLIN;
    DPollSetAll(POLLPRI, &d);
    EXPECT_EQ(d.fds[0].events, POLLPRI);
    EXPECT_EQ(d.fds[0].revents, 0);
    EXPECT_EQ(d.fds[1].events, POLLPRI);
    DPollClr(7, &d);
    DPollClr(9, &d);
    EXPECT_EQ(d.nfds, 0u);
    DPollFree(&d);
}

TEST(PollSet, TellsWhatIsReady)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    qpoll_t q = qpoll0;
    q.d.fds = q.qfds;
    QPollSet(ends[0], POLLIN, &q);
    EXPECT_EQ(DPoll(&q.d, 0), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(DPoll(&q.d, -1), 1);
    EXPECT_EQ(DPollXRevents(ends[0], &q.d), POLLIN);
    close(ends[1]);
    close(ends[0]);
    EXPECT_EQ(DPoll(&q.d, 0), 1);
    EXPECT_EQ(DPollXRevents(ends[0], &q.d), POLLNVAL);
    DPollFree(&q.d);
    EXPECT_EQ(q.d.nfds, 0u);
}

TEST(PollSet, FullFixedSetsPanic)
{
    const auto fill = [](qpoll_t &q) {
        q.d.fds = q.qfds;
        for (int fd : {1, 2, 3, 4, 4, 1}) {
            QPollSet(fd, POLLIN, &q);
        }
    };
    const support::Outcome quick = support::run_in_child([&] {
        fill(qpoll0);
        QPollSet(5, POLLIN, &qpoll0);
        return 0;
    });
    EXPECT_TRUE(quick.crashed());
    EXPECT_NE(quick.err.find("ASSERT failed \"q->d.nfds < q->d.maxfds\" file libutil/pollutil,"),
              std::string::npos);
    const support::Outcome fixed = support::run_in_child([&] {
        fill(qpoll0);
        return DPollSet(5, POLLIN, &qpoll0.d);
    });
    EXPECT_NE(fixed.err.find("\"d->polltype == POLL_DYNAMIC\" file libutil/pollutil,"),
              std::string::npos);
}

TEST(PollSet, RunningOutOfMemoryLeavesTheSetAsItWas)
{
    if (CAN_FAIL_MEMORY == 0) {
        GTEST_SKIP() << "the sanitizer owns calloc";
    }
    dpoll_t d;
    out_of_memory = true;
    EXPECT_EQ(DPollInit(&d), -1);
    out_of_memory = false;
    EXPECT_EQ(d.fds, nullptr);
    EXPECT_EQ(d.maxfds, 0u);
    DPollFree(&d);

    ASSERT_EQ(DPollInit(&d), 0);
    for (int fd = 0; fd < 64; fd++) {
        DPollSet(fd, POLLIN, &d);
    }
    const std::vector<int> before = descriptors(d);
    out_of_memory = true;
    EXPECT_EQ(DPollSet(64, POLLIN, &d), -1);
    EXPECT_EQ(DPollSet(63, POLLOUT, &d), 0);
    out_of_memory = false;
    EXPECT_EQ(descriptors(d), before);
    EXPECT_EQ(d.maxfds, 64u);
    DPollFree(&d);
}
