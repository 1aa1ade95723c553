// queue_util_bench.cpp - tiny items through a work queue with two workers, beside its peers.
//
// One producer hands 100,000 items to two workers and waits until the last one has run. "Bounded"
// queues hold 1,000 items and block the producer; "deep" ones hold them all. The peers are the
// queue that everybody writes once (one mutex, two conditions, std::deque of std::function),
// Boost.Asio's thread_pool and GLib's GThreadPool, which are not bounded.
#include "koutil/queue_util.h"
#include "koutil/thread_common.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#if __has_include(<boost/asio/thread_pool.hpp>)
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#define HAVE_ASIO 1
#else
#define HAVE_ASIO 0
#endif
#if HAVE_GLIB_2_0
#include <glib.h>
#endif

namespace
{

constexpr int items = 100'000;
constexpr int bounded = 1'000;

// Counts finished items, and lets the producer wait for the last one.
class Finish
{
  public:
    void one()
    {
        if (count_.fetch_add(1, std::memory_order_acq_rel) + 1 == items) {
            count_.notify_one();
        }
    }
    void wait()
    {
        for (int now = count_.load(); now != items; now = count_.load()) {
            count_.wait(now);
        }
        count_.store(0);
    }

  private:
    std::atomic<int> count_{0};
};

Finish finish;

void run_item(void *)
{
    finish.one();
}

// The textbook queue.
class Textbook
{
  public:
    explicit Textbook(size_t capacity)
        : capacity_(capacity)
    {
        for (auto &worker : workers_) {
            worker = std::thread([this] { serve(); });
        }
    }
    ~Textbook()
    {
        {
            const std::lock_guard guard(mutex_);
            stop_ = true;
        }
        not_empty_.notify_all();
        for (auto &worker : workers_) {
            worker.join();
        }
    }
    Textbook(const Textbook &) = delete;
    Textbook &operator=(const Textbook &) = delete;

    void add(std::function<void()> item)
    {
        {
            std::unique_lock lock(mutex_);
            not_full_.wait(lock, [this] { return queue_.size() < capacity_; });
            queue_.push_back(std::move(item));
        }
        not_empty_.notify_one();
    }

  private:
    void serve()
    {
        for (;;) {
            std::function<void()> item;
            {
                std::unique_lock lock(mutex_);
                not_empty_.wait(lock, [this] { return stop_ || !queue_.empty(); });
                if (queue_.empty()) {
                    return;
                }
                item = std::move(queue_.front());
                queue_.pop_front();
            }
            not_full_.notify_one();
            item();
        }
    }

    const size_t capacity_;
    std::mutex mutex_;
    std::condition_variable not_empty_;
    std::condition_variable not_full_;
    std::deque<std::function<void()>> queue_;
    bool stop_ = false;
    std::thread workers_[2];
};

void count_items(benchmark::State &state)
{
    state.SetItemsProcessed(state.iterations() * items);
}

} // namespace

static void BM_WorkQueue(benchmark::State &state)
{
    kova_thread_init();
    const int capacity = static_cast<int>(state.range(0));
    // One block more than fit: a block comes round again only after its item was taken.
    std::vector<commblk_t> blocks(static_cast<size_t>(capacity) + 1);
    msgqueue_t *queue = queue_create(2, capacity, 0, nullptr);
    size_t next = 0;
    for (auto _ : state) {
        for (int i = 0; i < items; i++) {
            queue_add_work(queue, run_item, &blocks[next]);
            next = next + 1 < blocks.size() ? next + 1 : 0;
        }
        finish.wait();
    }
    shutdown_queue(queue);
    count_items(state);
}
BENCHMARK(BM_WorkQueue)->Arg(bounded)->Arg(items)->UseRealTime()->MeasureProcessCPUTime();

static void BM_Textbook(benchmark::State &state)
{
    Textbook queue(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        for (int i = 0; i < items; i++) {
            queue.add([] { run_item(nullptr); });
        }
        finish.wait();
    }
    count_items(state);
}
BENCHMARK(BM_Textbook)->Arg(bounded)->Arg(items)->UseRealTime()->MeasureProcessCPUTime();

#if HAVE_ASIO
static void BM_AsioThreadPool(benchmark::State &state)
{
    boost::asio::thread_pool pool(2);
    for (auto _ : state) {
        for (int i = 0; i < items; i++) {
            boost::asio::post(pool, [] { run_item(nullptr); });
        }
        finish.wait();
    }
    pool.join();
    count_items(state);
}
BENCHMARK(BM_AsioThreadPool)->Arg(items)->UseRealTime()->MeasureProcessCPUTime();
#endif

#if HAVE_GLIB_2_0
static void BM_GThreadPool(benchmark::State &state)
{
    GThreadPool *pool =
        g_thread_pool_new([](gpointer, gpointer) { run_item(nullptr); }, nullptr, 2, TRUE, nullptr);
    for (auto _ : state) {
        for (int i = 0; i < items; i++) {
            g_thread_pool_push(pool, &finish, nullptr);
        }
        finish.wait();
    }
    g_thread_pool_free(pool, FALSE, TRUE);
    count_items(state);
}
BENCHMARK(BM_GThreadPool)->Arg(items)->UseRealTime()->MeasureProcessCPUTime();
#endif

BENCHMARK_MAIN();
