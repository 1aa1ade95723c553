// queue_util_test.cpp - order, limits, idling and shutdown of work queues; the block pool.
#include "koutil/queue_util.h"

#include "koutil/msleep.h"
#include "koutil/thread_common.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <semaphore.h>
#include <thread>
#include <unistd.h>

// Makes an idle period of a second last 20 ms.
extern "C" void set_timespec(struct timespec *tsp, uint64_t nan_incr)
{
    clock_gettime(CLOCK_REALTIME, tsp);
    set_timespec_core(tsp, nan_incr / 50, 0);
}

namespace
{

std::atomic<int> ran;
std::atomic<int> hooks;

void count(void *)
{
    ran++;
}

void hook(void *)
{
    hooks++;
}

msgqueue_t *create(int workers, int capacity, int refuse)
{
    kova_thread_init();
    ran = hooks = 0;
    return queue_create(workers, capacity, refuse, hook);
}

void destroy(msgqueue_t *queue)
{
    shutdown_queue(queue);
    EXPECT_EQ(queue->num_threads, 0);
    free(queue->threads);
    free(queue);
}

} // namespace

TEST(WorkQueue, ServesByPriorityThenByArrival)
{
    static std::vector<long> order;
    static commblk_t blocks[10];
    static sem_t entered, open;
    sem_init(&entered, 0, 0);
    sem_init(&open, 0, 0);
    const auto hold = [](void *) { sem_post(&entered), sem_wait(&open); };
    const auto note = [](void *arg) { order.push_back(static_cast<commblk_t *>(arg) - blocks); };
    msgqueue_t *queue = create(1, 9, 1);
    EXPECT_EQ(queue_add_work(queue, hold, &blocks[8]), 0);
    sem_wait(&entered);
    const uint32_t priorities[] = {0, 5, 3, 5, 0, 9, 4, 9};
    for (size_t i = 0; i < std::size(priorities); i++) {
        blocks[i].priority = priorities[i];
        // Block 5 is ordinary whatever it says.
        EXPECT_EQ((i == 5 ? queue_add_work : queue_add_work_pri)(queue, note, &blocks[i]), 0);
    }
    EXPECT_EQ(queue_add_work(queue, note, &blocks[9]), -1); // the running item counts
    sem_post(&open);
    wait_queue_empty(queue);
    // Block 5 stands at the tail with a 9 in it, so 6 goes behind it.
    EXPECT_EQ(order, (std::vector<long>{7, 1, 3, 2, 0, 4, 5, 6}));
    destroy(queue);
}

TEST(WorkQueue, WithoutWorkersRefusesAndReleasesWhenFullOrClosed)
{
    // Capacity, refusal when full; the results of two additions, and of more after the end.
    constexpr int cases[][5] = {{1, 1, 0, -1, -1},   {2, 1, 0, 0, -1}, {3, 1, 0, 0, -2},
                                {-1, 1, -1, -1, -1}, {2, 0, 0, 0, -2}, {0, 0, -2, -2, -2}};
    for (const auto &[capacity, refuse, first, second, late] : cases) {
        msgqueue_t *queue = create(-1, capacity, refuse);
        commblk_t blocks[4] = {};
        std::vector<std::thread> blocked;
        std::atomic<int> status{0};
        if (capacity > 0 || refuse != 0) {
            EXPECT_EQ(queue_add_work(queue, count, &blocks[0]), first);
            EXPECT_EQ(queue_add_work(queue, count, &blocks[1]), second);
        }
        for (int i = 2; i < 4 && refuse == 0; i++) {
            blocked.emplace_back([&, i] { status += queue_add_work(queue, count, &blocks[i]); });
        }
        usleep(refuse != 0 ? 0 : 20'000);
        shutdown_queue(queue);
        for (auto &thread : blocked) {
            thread.join();
        }
        EXPECT_EQ(status, refuse != 0 ? 0 : 2 * late);
        EXPECT_EQ(queue_add_work(queue, count, &blocks[2]), late) << capacity;
        wait_queue_empty(queue); // shut down, so nobody waits
        destroy(queue);
        EXPECT_EQ(ran + hooks, 0);
    }
}

TEST(WorkQueue, CallsTheIdleRoutineEachPeriodWithoutWork)
{
    kova_thread_init();
    const uint64_t begun = monotime();
    hooks = 0;
    msgqueue_t *queue = queue_create_with_idle(1, 2, 0, nullptr, 1, hook);
    EXPECT_EQ(MyThreadSleep(10), 0); // of 20 ms
    const uint64_t slept = monotime() - begun;
    destroy(queue);
    EXPECT_GE(slept, 199u);
    EXPECT_GE(hooks, 2);
    EXPECT_LE(static_cast<uint64_t>(hooks), (monotime() - begun) / 20 + 1);
}

// Items must neither be lost nor run twice, and nobody may stay asleep, whenever the queue closes.
TEST(WorkQueue, RunsExactlyWhatItAcceptedUnderStress)
{
    for (int round = 0; round < 40; round++) {
        const int workers = 1 + round % 3;
        msgqueue_t *queue = create(workers, 1 + round % 5, round % 4 == 3);
        std::atomic<int> accepted{0};
        std::vector<std::thread> threads;
        for (const auto add : {queue_add_work, queue_add_work_pri, queue_add_work}) {
            threads.emplace_back([&, add] {
                std::vector<commblk_t> blocks(6'000);
                for (auto &block : blocks) {
                    block.priority = static_cast<uint32_t>(&block - blocks.data()) % 3;
                    accepted += add(queue, count, &block) == 0;
                }
                wait_queue_empty(queue); // the blocks go away
            });
        }
        usleep(static_cast<useconds_t>(round * 1'500));
        threads.emplace_back([&] { shutdown_queue(queue); });
        shutdown_queue(queue);
        for (auto &thread : threads) {
            thread.join();
        }
        destroy(queue);
        ASSERT_EQ(ran, accepted);
        ASSERT_EQ(hooks, workers);
    }
}

TEST(MsgQ, LosesNoWakeUpHoweverSmallThePool)
{
    MsgQ_Init();
    for (int pool : {1, 2, 5}) {
        NumBufs = pool;
        std::vector<commblk_t> blocks(static_cast<size_t>(pool));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; t++) {
            threads.emplace_back([] {
                for (int i = 0; i < 5'000; i++) {
                    commblk_t *block = MsgQ_Get();
                    EXPECT_EQ(block->priority++, 0u);
                    MsgQ_Put(block); // panics if it is still linked
                }
            });
        }
        for (auto &block : blocks) {
            MsgQ_Put(&block);
        }
        for (auto &thread : threads) {
            thread.join();
        }
        std::thread last([block = MsgQ_Get()] { usleep(5'000), MsgQ_Put(block); });
        pthread_mutex_lock(&MsgQ_lock.mutex);
        while (MsgQ_cnt != pool) {
            pthread_cond_wait(&MsgQ_empty.cond, &MsgQ_lock.mutex);
        }
        pthread_mutex_unlock(&MsgQ_lock.mutex);
        last.join();
        while (MsgQ_cnt > 0) {
            MsgQ_Get();
        }
    }
}

TEST(QueueUtil, PanicsOnCorruptionAndWithoutThreads)
{
    kova_thread_init();
    static commblk_t blocks[2];
    const struct {
        void (*act)();
        const char *text;
    } cases[] = {
        {[] { MsgQ_Put(&blocks[0]); }, "MsgQ_Put pmsgq->next is not NULL"}, // not the last one
        {[] { MsgQ_Put(&blocks[1]); }, "MsgQ_Put pmsgq->next is not NULL"}, // the last one
        {[] { MsgQ_cnt = 0, MsgQ_Get(); }, "MsgQ_Get went negative on buffers!"},
        {[] { queue_create(1, 1, 0, nullptr); }, "queue_create THREAD_CREATE"},
    };
    for (const auto &c : cases) {
        const auto outcome = support::run_in_child([&] {
            pthread_attr_setstacksize(&Thread_create_attr, size_t{1} << 46);
            MsgQ_Put(&blocks[0]);
            MsgQ_Put(&blocks[1]);
            c.act();
            return 0;
        });
        EXPECT_TRUE(outcome.crashed());
        EXPECT_NE(outcome.err.find(c.text), std::string::npos) << outcome.err;
    }
}
