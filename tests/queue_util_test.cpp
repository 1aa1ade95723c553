// queue_util_test.cpp - order, limits, idling and shutdown of work queues; the block pool.
#include "koutil/queue_util.h"

#include "koutil/dopanic.h"
#include "koutil/msleep.h"
#include "koutil/thread_common.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <dlfcn.h>
#include <semaphore.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

static std::string failing_call; // the library's call that fails

// Makes an idle period of a second last 20 ms.
extern "C" void set_timespec(struct timespec *tsp, uint64_t nan_incr)
{
    clock_gettime(CLOCK_REALTIME, tsp);
    set_timespec_core(tsp, nan_incr / 50, 0);
}

extern "C" int vo_thread_cond_init(thread_cond_t *cond, const pthread_condattr_t *attr)
{
    return failing_call == "cond" ? ENOMEM : pthread_cond_init(&cond->cond, attr);
}

extern "C" int THREAD_CREATE(pthread_t *thread, const pthread_attr_t *attr,
                             void *(*start_routine)(void *), void *arg)
{
    using create_fn = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const auto create = reinterpret_cast<create_fn>(dlsym(RTLD_NEXT, "THREAD_CREATE"));
    return failing_call == "thread" ? EAGAIN : create(thread, attr, start_routine, arg);
}

namespace
{

std::atomic<int> ran;
std::atomic<int> hooks;
std::vector<uint64_t> order; // by the single worker

void count(void *)
{
    ran++;
}

void note(void *arg)
{
    order.push_back(static_cast<commblk_t *>(arg)->qkey1);
}

void hook(void *)
{
    hooks++;
}

// A work item that holds a worker until it is let go.
class Gate
{
  public:
    Gate()
    {
        sem_init(&entered_, 0, 0);
        sem_init(&open_, 0, 0);
        block_.buffer = reinterpret_cast<char *>(this);
    }
    void occupy(msgqueue_t *queue)
    {
        EXPECT_EQ(queue_add_work(queue, pass, &block_), 0);
        sem_wait(&entered_);
    }
    void open() { sem_post(&open_); }

  private:
    static void pass(void *arg)
    {
        auto *self = reinterpret_cast<Gate *>(static_cast<commblk_t *>(arg)->buffer);
        sem_post(&self->entered_);
        sem_wait(&self->open_);
        ran++;
    }

    commblk_t block_{};
    sem_t entered_;
    sem_t open_;
};

class WorkQueue : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        kova_thread_init();
        ran = 0;
        hooks = 0;
        order.clear();
    }
    msgqueue_t *create(int workers, int capacity, int refuse, queue_hook_t cleanup = nullptr,
                       int idle_time = 0, queue_hook_t idle = nullptr)
    {
        queue_ = queue_create_with_idle(workers, capacity, refuse, cleanup, idle_time, idle);
        return queue_;
    }
    void destroy() // after shutdown_queue
    {
        pthread_mutex_lock(&queue_->queue_lock.mutex); // the last worker is out of it
        pthread_mutex_unlock(&queue_->queue_lock.mutex);
        free(queue_->threads);
        free(queue_);
    }

  private:
    msgqueue_t *queue_ = nullptr;
};

} // namespace

TEST_F(WorkQueue, ServesByPriorityThenByArrival)
{
    msgqueue_t *queue = create(1, 100, 0);
    Gate gate;
    gate.occupy(queue);
    // The first add of each pair is by priority, or ordinary whatever its block says.
    const struct {
        uint32_t priority;
        bool by_priority;
    } adds[] = {{0, true}, {5, true},  {3, true}, {5, true},
                {0, true}, {9, false}, {4, true}, {9, true}};
    commblk_t blocks[std::size(adds)] = {};
    for (size_t i = 0; i < std::size(adds); i++) {
        blocks[i].qkey1 = i;
        blocks[i].priority = adds[i].priority;
        const auto add = adds[i].by_priority ? queue_add_work_pri : queue_add_work;
        EXPECT_EQ(add(queue, note, &blocks[i]), 0);
    }
    gate.open();
    wait_queue_empty(queue);
    // The ordinary block 5 stands at the tail with a 9 in it, so 6 goes behind it.
    EXPECT_EQ(order, (std::vector<uint64_t>{7, 1, 3, 2, 0, 4, 5, 6}));
    EXPECT_EQ(blocks[5].priority, 9u);
    shutdown_queue(queue);
    destroy();
}

TEST_F(WorkQueue, RefusesWhenFullOrClosed)
{
    msgqueue_t *queue = create(1, 2, 1, hook);
    Gate gate;
    commblk_t blocks[2] = {};
    gate.occupy(queue); // a running item counts
    EXPECT_EQ(queue_add_work(queue, count, &blocks[0]), 0);
    EXPECT_EQ(queue_add_work(queue, count, &blocks[1]), -1);
    std::thread closer([&] { shutdown_queue(queue); });
    for (int closed = 0; closed == 0; usleep(1000)) {
        pthread_mutex_lock(&queue->queue_lock.mutex);
        closed = queue->queue_closed;
        pthread_mutex_unlock(&queue->queue_lock.mutex);
    }
    EXPECT_EQ(queue_add_work(queue, count, &blocks[1]), -1); // full comes first
    gate.open();
    closer.join();
    EXPECT_EQ(ran, 2);
    EXPECT_EQ(hooks, 1);
    EXPECT_EQ(queue->num_threads, 0);
    EXPECT_EQ(queue_add_work(queue, count, &blocks[1]), -2);
    destroy();
}

TEST_F(WorkQueue, ShutdownReleasesEveryBlockedProducer)
{
    for (int capacity : {-1, 0, 1}) {
        msgqueue_t *queue = create(1, capacity, 0);
        Gate gate;
        if (capacity > 0) {
            gate.occupy(queue);
        }
        std::atomic<int> refused{0};
        commblk_t blocks[4] = {};
        std::vector<std::thread> threads;
        for (auto &block : blocks) {
            threads.emplace_back([&] { refused += queue_add_work(queue, count, &block) == -2; });
        }
        usleep(20'000);
        threads.emplace_back([&] { shutdown_queue(queue); });
        for (int i = 0; i < 4; i++) {
            threads[static_cast<size_t>(i)].join();
        }
        EXPECT_EQ(refused, 4);
        gate.open();
        threads.back().join();
        destroy();
    }
}

TEST_F(WorkQueue, WithoutWorkersNothingRunsAndShutdownReturns)
{
    commblk_t block = {};
    msgqueue_t *queue = create(-1, 2, 0, hook);
    EXPECT_EQ(queue_add_work(queue, count, &block), 0);
    shutdown_queue(queue);
    wait_queue_empty(queue);
    EXPECT_EQ(ran + hooks, 0);
    destroy();
}

TEST_F(WorkQueue, CallsTheIdleRoutineEachPeriodWithoutWork)
{
    const uint64_t begun = monotime();
    msgqueue_t *queue = create(1, 2, 0, nullptr, 1, hook);
    usleep(210'000); // ten periods
    shutdown_queue(queue);
    EXPECT_GE(hooks, 2);
    EXPECT_LE(static_cast<uint64_t>(hooks), (monotime() - begun) / 20 + 1);
    destroy();
}

// Items must neither be lost nor run twice, and nobody may stay asleep, whenever the queue closes.
TEST_F(WorkQueue, RunsExactlyWhatItAcceptedUnderStress)
{
    constexpr int producers = 4;
    constexpr int per_producer = 6'000;
    int accepted_in_all = 0;
    for (int round = 0; round < 40; round++) {
        ran = 0;
        msgqueue_t *queue = create(1 + round % 3, 1 + round % 5, round % 4 == 3, hook);
        std::atomic<int> accepted{0};
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; p++) {
            threads.emplace_back([&, p] {
                std::vector<commblk_t> blocks(per_producer);
                for (auto &block : blocks) {
                    block.priority = static_cast<uint32_t>(&block - blocks.data()) % 3;
                    const auto add = p % 2 == 0 ? queue_add_work : queue_add_work_pri;
                    const int status = add(queue, count, &block);
                    accepted += status == 0;
                    if (status == -2) {
                        break;
                    }
                }
                wait_queue_empty(queue); // the blocks go away
            });
        }
        usleep(static_cast<useconds_t>(round * 1'500));
        std::thread second([&] { shutdown_queue(queue); });
        shutdown_queue(queue);
        second.join();
        for (auto &thread : threads) {
            thread.join();
        }
        ASSERT_EQ(ran, accepted);
        ASSERT_EQ(queue->num_threads + queue->cur_queue_size, 0);
        accepted_in_all += accepted;
        destroy();
    }
    EXPECT_GT(accepted_in_all, 40);
}

TEST_F(WorkQueue, PanicsWithoutItsResources)
{
    const struct {
        const char *call;
        const char *text;
    } cases[] = {{"cond", "queue_create THREAD_COND_INIT"},
                 {"thread", "queue_create THREAD_CREATE"}};
    for (const auto &c : cases) {
        const auto outcome = support::run_in_child([&] {
            failing_call = c.call;
            DoPanicFn = [](char *str1, char *str2, int core, char *file, int) {
                fprintf(stderr, "%s%s %d %s", str1, str2, core, file);
            };
            queue_create(1, 1, 0, nullptr);
            return 9;
        });
        EXPECT_TRUE(outcome.exited(1));
        EXPECT_EQ(outcome.err, std::string(c.text) + " 1 libutil/queue_util");
    }
}

TEST(MsgQ, LosesNoWakeUpHoweverSmallThePool)
{
    for (int pool : {1, 2, 5}) {
        MsgQ_Init();
        MsgQ_head = MsgQ_tail = nullptr;
        MsgQ_cnt = 0;
        NumBufs = pool;
        std::vector<commblk_t> blocks(static_cast<size_t>(pool));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; t++) {
            threads.emplace_back([] {
                for (int i = 0; i < 5'000; i++) {
                    commblk_t *block = MsgQ_Get();
                    EXPECT_EQ(block->next, nullptr);
                    EXPECT_EQ(block->priority, 0u);
                    block->priority = 7;
                    MsgQ_Put(block);
                }
            });
        }
        for (auto &block : blocks) {
            MsgQ_Put(&block);
        }
        for (auto &thread : threads) {
            thread.join();
        }
        EXPECT_EQ(MsgQ_cnt, pool);

        commblk_t *last = MsgQ_Get();
        std::thread waiter([&] {
            pthread_mutex_lock(&MsgQ_lock.mutex);
            while (MsgQ_cnt != NumBufs) {
                pthread_cond_wait(&MsgQ_empty.cond, &MsgQ_lock.mutex);
            }
            pthread_mutex_unlock(&MsgQ_lock.mutex);
        });
        usleep(5'000);
        MsgQ_Put(last);
        waiter.join();
    }
}

TEST(MsgQ, PanicsOnCorruption)
{
    static commblk_t blocks[2];
    const struct {
        void (*corrupt)();
        const char *text;
    } cases[] = {
        {[] { MsgQ_Put(&blocks[0]); }, "MsgQ_Put pmsgq->next is not NULL"}, // not the last one
        {[] { MsgQ_Put(&blocks[1]); }, "MsgQ_Put pmsgq->next is not NULL"}, // the last one
        {[] { MsgQ_cnt = 0, MsgQ_Get(); }, "MsgQ_Get went negative on buffers!"},
    };
    for (const auto &c : cases) {
        const auto outcome = support::run_in_child([&] {
            DoPanicFn = [](char *, char *str2, int, char *, int) { fputs(str2, stderr); };
            MsgQ_head = MsgQ_tail = nullptr;
            MsgQ_Put(&blocks[0]);
            MsgQ_Put(&blocks[1]);
            c.corrupt();
            return 9;
        });
        EXPECT_TRUE(outcome.exited(1));
        EXPECT_EQ(outcome.err, c.text);
    }
}

TEST(MyThreadSleep, SleepsTheWholeTime)
{
    const uint64_t begun = monotime();
    EXPECT_EQ(MyThreadSleep(-1), 0);
    EXPECT_EQ(MyThreadSleep(3), 0); // of 20 ms
    EXPECT_GE(monotime() - begun, 59u);
}
