// queue_util.cpp - work queues and the pool of message blocks.
//
// A worker holds the lock from the end of one item to the start of the next, so an item costs it
// one turn of the lock, and fetches the node that will be next while it runs an item. State is
// always changed under the lock, which is what keeps a wake-up from being lost; a producer wakes
// workers after its unlock, so that they do not run into the lock at once.
//
// Whoever would have to sleep, because the lock is taken or the queue is empty or full, gives up
// the processor once before. Where items are tiny, what it waits for has nearly always happened by
// then, and two context switches and a wake-up are saved; where they are not, it costs one call.
//
//     condition          waiters                             woken
//     queue_not_empty    workers without work                all: an item enters an empty list, a
//                                                            producer meets a full queue, shutdown
//     queue_not_full     producers                           one: an item has finished;
//                                                            all: the queue closes
//     queue_empty        wait_queue_empty, shutdown_queue    all: size 0, a worker leaves, shutdown
//
// Frames that call a routine or a hook own nothing: either may end its thread.
#include "koutil/queue_util.h"

#include "internal/assert.h"
#include "internal/guards.h"
#include "koutil/dopanic.h"
#include "koutil/msleep.h"
#include "koutil/thread_common.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sched.h>

static_assert(sizeof(queue_item_t) == 80);
static_assert(sizeof(commblk_t) == 144);

namespace
{

constexpr uint64_t nsec_per_sec = 1'000'000'000;

// A panic with the line of its caller.
[[noreturn]] void give_up(const char *text, int line = __builtin_LINE())
{
    DoPanic("", text, 1, KO_MODULE, line);
}

// Takes a lock that is held for a few instructions only.
void lock(thread_mutex_t &mutex)
{
    if (pthread_mutex_trylock(&mutex.mutex) == 0) {
        return;
    }
    sched_yield();
    pthread_mutex_lock(&mutex.mutex);
}

void unlock(thread_mutex_t &mutex)
{
    pthread_mutex_unlock(&mutex.mutex);
}

// Lets others run before the caller sleeps on a condition of the queue. Lock held.
void yield_once(msgqueue_t *pqueue)
{
    unlock(pqueue->queue_lock);
    sched_yield();
    lock(pqueue->queue_lock);
}

timespec seconds_from_now(int seconds)
{
    timespec deadline;
    set_timespec(&deadline, static_cast<uint64_t>(std::max(seconds, 0)) * nsec_per_sec);
    return deadline;
}

uint32_t priority_of(const queue_item_t *item)
{
    return static_cast<const commblk_t *>(item->arg)->priority;
}

// Places a node by priority behind its equals; true when the list was empty.
bool place(msgqueue_t *pqueue, queue_item_t *item, uint32_t priority)
{
    if (pqueue->queue_head == nullptr) {
        pqueue->queue_head = item;
        pqueue->queue_tail = item;
        return true;
    }
    if (priority == 0 || priority <= priority_of(pqueue->queue_tail)) {
        pqueue->queue_tail->next = item;
        pqueue->queue_tail = item;
        return false;
    }
    // The tail is lower, so the search ends at it at the latest.
    queue_item_t **link = &pqueue->queue_head;
    while (priority_of(*link) >= priority) {
        link = &(*link)->next;
    }
    item->next = *link;
    *link = item;
    return false;
}

bool is_full(const msgqueue_t *pqueue)
{
    return pqueue->cur_queue_size >= pqueue->max_queue_size;
}

// Makes room in a full queue by waiting for it; 0, or the status that refuses the item.
int wait_for_room(msgqueue_t *pqueue)
{
    if (pqueue->do_not_block_when_full != 0) {
        return -1;
    }
    if (pqueue->queue_closed == 0) {
        queue_awaken(pqueue);
        yield_once(pqueue);
    }
    while (pqueue->queue_closed == 0 && is_full(pqueue)) {
        queue_awaken(pqueue);
        pthread_cond_wait(&pqueue->queue_not_full.cond, &pqueue->queue_lock.mutex);
    }
    return 0;
}

// Adds an item under the lock; sets `was_empty` when it entered an empty list.
int add_locked(msgqueue_t *pqueue, uint32_t priority, queue_routine_t routine, void *arg,
               bool &was_empty)
{
    if (is_full(pqueue)) {
        const int status = wait_for_room(pqueue);
        if (status != 0) {
            return status;
        }
    }
    if (pqueue->queue_closed != 0) {
        return -2;
    }
    queue_item_t *item = &static_cast<commblk_t *>(arg)->qitem;
    item->routine = routine;
    item->arg = arg;
    item->next = nullptr;
    was_empty = place(pqueue, item, priority);
    pqueue->cur_queue_size++;
    return 0;
}

int _queue_add_work(msgqueue_t *pqueue, uint32_t priority, queue_routine_t routine, void *arg)
{
    bool was_empty = false;
    __builtin_prefetch(&static_cast<commblk_t *>(arg)->qitem, 1); // not while the lock is held
    lock(pqueue->queue_lock);
    const int status = add_locked(pqueue, priority, routine, arg, was_empty);
    unlock(pqueue->queue_lock);
    if (was_empty) {
        queue_awaken(pqueue);
    }
    return status;
}

// Waits until there is an item, or the worker must leave: false. Lock held.
bool wait_for_work(msgqueue_t *pqueue)
{
    if (pqueue->queue_head == nullptr && pqueue->shutdown == 0) {
        yield_once(pqueue);
    }
    while (pqueue->queue_head == nullptr && pqueue->shutdown == 0) {
        if (pqueue->thread_idle_time <= 0) {
            pthread_cond_wait(&pqueue->queue_not_empty.cond, &pqueue->queue_lock.mutex);
            continue;
        }
        const timespec deadline = seconds_from_now(pqueue->thread_idle_time);
        const int error = pthread_cond_timedwait(&pqueue->queue_not_empty.cond,
                                                 &pqueue->queue_lock.mutex, &deadline);
        if (error == ETIMEDOUT && pqueue->queue_head == nullptr && pqueue->thread_idle != nullptr) {
            pqueue->thread_idle(pqueue);
        }
    }
    return pqueue->shutdown == 0;
}

queue_item_t *take(msgqueue_t *pqueue)
{
    KO_ASSERT(pqueue->queue_head);
    queue_item_t *item = pqueue->queue_head;
    pqueue->queue_head = item->next;
    if (pqueue->queue_head == nullptr) {
        pqueue->queue_tail = nullptr;
    }
    return item;
}

// Accounts for a finished item and wakes who waits for that. Lock held.
void finish(msgqueue_t *pqueue)
{
    pqueue->cur_queue_size--;
    if (pqueue->do_not_block_when_full == 0) {
        pthread_cond_signal(&pqueue->queue_not_full.cond);
    }
    if (pqueue->cur_queue_size == 0) {
        pthread_cond_broadcast(&pqueue->queue_empty.cond);
    }
}

// Lock held.
void leave(msgqueue_t *pqueue)
{
    pqueue->num_threads--;
    if (pqueue->thread_cleanup != nullptr) {
        pqueue->thread_cleanup(pqueue);
    }
    pthread_cond_broadcast(&pqueue->queue_empty.cond);
}

void *queue_thread(void *arg)
{
    auto *pqueue = static_cast<msgqueue_t *>(arg);
    lock(pqueue->queue_lock);
    while (wait_for_work(pqueue)) {
        const queue_item_t *item = take(pqueue);
        const queue_routine_t routine = item->routine;
        void *const block = item->arg;
        const queue_item_t *following = pqueue->queue_head;
        unlock(pqueue->queue_lock); // from here on the node is the routine's
        __builtin_prefetch(following);
        routine(block);
        lock(pqueue->queue_lock);
        finish(pqueue);
    }
    leave(pqueue);
    unlock(pqueue->queue_lock);
    return nullptr;
}

void init_locks(msgqueue_t *pqueue)
{
    if (vo_thread_mutex_init(&pqueue->queue_lock, nullptr) != 0) {
        give_up("queue_create THREAD_MUTEX_INIT");
    }
    if (vo_thread_cond_init(&pqueue->queue_not_empty, nullptr) != 0 ||
        vo_thread_cond_init(&pqueue->queue_not_full, nullptr) != 0 ||
        vo_thread_cond_init(&pqueue->queue_empty, nullptr) != 0) {
        give_up("queue_create THREAD_COND_INIT");
    }
}

thread_mutex_t DummyLock; // guarded by dummy_guard until it is initialised
constinit thread_cond_t DummyCond = THREAD_COND_INITIALIZER;
constinit thread_mutex_t dummy_guard = THREAD_MUTEX_INITIALIZER;
int DummyLockInitted; // guarded by dummy_guard

bool ensure_dummy_lock()
{
    const koutil::LockGuard guard(dummy_guard);
    if (DummyLockInitted == 0 && vo_thread_mutex_init(&DummyLock, nullptr) == 0) {
        DummyLockInitted = 1;
    }
    return DummyLockInitted != 0;
}

} // namespace

thread_mutex_t MsgQ_lock = THREAD_MUTEX_INITIALIZER;
commblk_t *MsgQ_head = nullptr;
commblk_t *MsgQ_tail = nullptr;
int MsgQ_cnt = 0;
int NumBufs = 0;
thread_cond_t MsgQ_empty = THREAD_COND_INITIALIZER;
thread_cond_t MsgQ_not_empty = THREAD_COND_INITIALIZER;

msgqueue_t *queue_create_with_idle(int num_worker_threads, int max_queue_size,
                                   int do_not_block_when_full, queue_hook_t queue_cleanup,
                                   int idle_time, queue_hook_t queue_idle)
{
    const int workers = std::max(num_worker_threads, 0);
    auto *pqueue = static_cast<msgqueue_t *>(calloc(1, sizeof(msgqueue_t)));
    if (pqueue == nullptr) {
        give_up("queue_create queue_t GMalloc");
    }
    pqueue->num_threads = workers;
    pqueue->max_queue_size = max_queue_size;
    pqueue->do_not_block_when_full = do_not_block_when_full;
    pqueue->thread_cleanup = queue_cleanup;
    pqueue->threads = static_cast<pthread_t *>(
        calloc(static_cast<size_t>(std::max(workers, 1)), sizeof(pthread_t)));
    if (pqueue->threads == nullptr) {
        give_up("queue_create pthread GMalloc");
    }
    pqueue->thread_idle_time = idle_time;
    pqueue->thread_idle = queue_idle;
    init_locks(pqueue);
    for (int i = 0; i < workers; i++) {
        if (THREAD_CREATE(&pqueue->threads[i], &Thread_create_attr, queue_thread, pqueue) != 0) {
            give_up("queue_create THREAD_CREATE");
        }
    }
    return pqueue;
}

msgqueue_t *queue_create(int num_worker_threads, int max_queue_size, int do_not_block_when_full,
                         queue_hook_t queue_cleanup)
{
    return queue_create_with_idle(num_worker_threads, max_queue_size, do_not_block_when_full,
                                  queue_cleanup, 0, nullptr);
}

int queue_add_work(msgqueue_t *pqueue, queue_routine_t routine, void *arg)
{
    return _queue_add_work(pqueue, 0, routine, arg);
}

int queue_add_work_pri(msgqueue_t *pqueue, queue_routine_t routine, void *arg)
{
    return _queue_add_work(pqueue, static_cast<const commblk_t *>(arg)->priority, routine, arg);
}

void queue_awaken(msgqueue_t *pqueue)
{
    pthread_cond_broadcast(&pqueue->queue_not_empty.cond);
}

void wait_queue_empty(msgqueue_t *pqueue)
{
    const koutil::LockGuard guard(pqueue->queue_lock);
    while (pqueue->cur_queue_size > 0 && pqueue->shutdown == 0) {
        pthread_cond_wait(&pqueue->queue_empty.cond, &pqueue->queue_lock.mutex);
    }
}

void shutdown_queue(msgqueue_t *pqueue)
{
    const koutil::LockGuard guard(pqueue->queue_lock);
    pqueue->queue_closed = 1;
    pthread_cond_broadcast(&pqueue->queue_not_full.cond);
    // Without workers nothing would ever run what is queued, and the wait would never end.
    while (pqueue->cur_queue_size > 0 && pqueue->num_threads > 0) {
        pthread_cond_wait(&pqueue->queue_empty.cond, &pqueue->queue_lock.mutex);
    }
    pqueue->shutdown = 1;
    pthread_cond_broadcast(&pqueue->queue_empty.cond);
    while (pqueue->num_threads > 0) {
        queue_awaken(pqueue);
        pthread_cond_wait(&pqueue->queue_empty.cond, &pqueue->queue_lock.mutex);
    }
}

void MsgQ_Init(void)
{
    if (vo_thread_mutex_init(&MsgQ_lock, nullptr) != 0) {
        give_up("main MsgQ_lock THREAD_MUTEX_INIT");
    }
    if (vo_thread_cond_init(&MsgQ_not_empty, nullptr) != 0) {
        give_up("main MsgQ_not_empty THREAD_COND_INIT");
    }
    if (vo_thread_cond_init(&MsgQ_empty, nullptr) != 0) {
        give_up("main MsgQ_empty THREAD_COND_INIT");
    }
}

commblk_t *MsgQ_Get(void)
{
    lock(MsgQ_lock);
    while (MsgQ_head == nullptr) {
        pthread_cond_wait(&MsgQ_not_empty.cond, &MsgQ_lock.mutex);
    }
    commblk_t *block = MsgQ_head;
    MsgQ_head = block->next;
    if (MsgQ_head == nullptr) {
        MsgQ_tail = nullptr;
    }
    const bool corrupted = MsgQ_cnt == 0;
    if (!corrupted) {
        MsgQ_cnt--;
    }
    block->next = nullptr;
    block->priority = 0;
    unlock(MsgQ_lock);
    if (corrupted) {
        give_up("MsgQ_Get went negative on buffers!");
    }
    return block;
}

void MsgQ_Put(commblk_t *pmsgq)
{
    lock(MsgQ_lock);
    // The last block in the queue has no successor, and is in the queue all the same.
    const bool linked = pmsgq->next != nullptr || pmsgq == MsgQ_tail;
    bool all_back = false;
    if (!linked) {
        (MsgQ_tail != nullptr ? MsgQ_tail->next : MsgQ_head) = pmsgq;
        MsgQ_tail = pmsgq;
        all_back = ++MsgQ_cnt == NumBufs;
    }
    unlock(MsgQ_lock);
    if (linked) {
        give_up("MsgQ_Put pmsgq->next is not NULL");
    }
    pthread_cond_signal(&MsgQ_not_empty.cond);
    if (all_back) {
        pthread_cond_signal(&MsgQ_empty.cond);
    }
}

int MyThreadSleep(int sleep_seconds)
{
    if (!ensure_dummy_lock()) {
        give_up("MyThreadSleep failed to initialize DummyLock mutex");
    }
    const timespec deadline = seconds_from_now(sleep_seconds);
    const koutil::LockGuard guard(DummyLock);
    (void)pthread_cond_timedwait(&DummyCond.cond, &DummyLock.mutex, &deadline);
    return 0;
}
