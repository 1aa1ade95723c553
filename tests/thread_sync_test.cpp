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

struct Case {
    int count, failing; // how many threads; the one that reports a failure
    size_t text_size;   // of its error text
    size_t more_stack;  // than there is: no thread can be created
    int expected, expected_started, expected_text_size; // -1: nothing is logged
    std::atomic<int> started{0};
};
std::string logged;

void *start(void *arg)
{
    auto *sync = static_cast<thread_sync_t *>(arg);
    auto *c = static_cast<Case *>(sync->context);
    const std::string text(c->text_size, '%');
    const bool fails = sync->index == c->failing;
    const bool in_order = sync->index == c->started++ && sync->error[0] == '\0' &&
                          std::string(sync->identity) == "disk";
    kova_thread_sync(sync, !in_order ? 99 : fails ? 5 : 0, fails ? text.c_str() : nullptr);
    return nullptr;
}

} // namespace

TEST(ThreadSync, StartsThreadsOneAfterAnotherUntilOneFails)
{
    Case cases[] = {{20, -1, 0, 0, 0, 20, -1}, {3, 1, 20, 0, 5, 2, 20},
                    {1, 0, 300, 0, 5, 1, 255}, {2, -1, 0, size_t{1} << 46, EAGAIN, 0, 0},
                    {0, -1, 0, 0, 0, 0, -1},   {-3, -1, 0, 0, 0, 0, -1}};
    WriteLog = [](int type, char *str) { logged += std::to_string(type) + str; };
    for (auto &c : cases) {
        logged.clear();
        kova_thread_init();
        pthread_attr_setstacksize(&Thread_create_attr, ThreadStackSize + c.more_stack);
        EXPECT_EQ(kova_thread_create(start, "worker", "disk", &c, c.count), c.expected);
        EXPECT_EQ(c.started, c.expected_started);
        std::string expected;
        if (c.expected_text_size >= 0) {
            expected.assign(static_cast<size_t>(c.expected_text_size), '%');
            expected = "3Failed to start worker thread: " + expected + "\n";
        }
        EXPECT_EQ(logged, expected);
    }
}
