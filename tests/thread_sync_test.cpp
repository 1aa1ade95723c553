// thread_sync_test.cpp - threads that confirm their start, or do not.
#include "koutil/thread_sync.h"

#include "koutil/logger.h"
#include "koutil/thread_common.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>

namespace
{

std::atomic<int> started;
int fail_at;
std::string error_text;
std::string logged;

void *start(void *arg)
{
    auto *sync = static_cast<thread_sync_t *>(arg);
    const bool in_order = sync->index == started++ && sync->context == &started &&
                          std::string(sync->identity) == "disk" && sync->error[0] == '\0';
    const bool fails = sync->index == fail_at;
    kova_thread_sync(sync, in_order ? (fails ? 5 : 0) : 99, fails ? error_text.c_str() : nullptr);
    return nullptr;
}

int create(int count, int failing, const std::string &text = "")
{
    logged.clear();
    started = 0;
    fail_at = failing;
    error_text = text;
    WriteLog = [](int type, char *str) { logged += std::to_string(type) + str; };
    return kova_thread_create(start, "worker", "disk", &started, count);
}

} // namespace

TEST(ThreadSync, StartsThreadsOneAfterAnotherUntilOneFails)
{
    kova_thread_init();
    const struct {
        int count;
        int failing;
        std::string text;
        int expected;
        int expected_started;
        std::string expected_log;
    } cases[] = {
        {20, -1, "", 0, 20, ""},
        {3, 1, "no disk %s", 5, 2, "3Failed to start worker thread: no disk %s\n"},
        {1, 0, std::string(300, 'x'), 5, 1,
         "3Failed to start worker thread: " + std::string(255, 'x') + "\n"},
        {0, -1, "", 0, 0, ""},
        {-3, -1, "", 0, 0, ""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(create(c.count, c.failing, c.text), c.expected);
        EXPECT_EQ(started, c.expected_started);
        EXPECT_EQ(logged, c.expected_log);
    }
}

TEST(ThreadSync, ReportsAThreadThatCannotBeCreated)
{
    const pthread_attr_t saved = Thread_create_attr;
    pthread_attr_setstacksize(&Thread_create_attr, size_t{1} << 46);
    const int status = create(2, -1);
    Thread_create_attr = saved;
    EXPECT_TRUE(status == EAGAIN || status == ENOMEM) << status;
    EXPECT_EQ(started, 0);
    EXPECT_EQ(logged, "3Failed to start worker thread: \n");
}
