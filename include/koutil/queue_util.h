/* queue_util.h - work queues with worker threads, and the process-wide pool of message blocks.
 *
 * A work queue is bounded and served by a fixed number of detached threads. An item is a routine
 * with a communication block as its argument; the queue's node lives in the block, so adding and
 * taking work allocate nothing. Items are served by falling priority, and those of one priority in
 * the order of their arrival. For work whose owner waits for it, call it directly.
 *
 *     state                 how it is reached          additions    workers
 *     open                  queue_create               accepted     serve or wait
 *     closed, draining      shutdown_queue             -2           run what was accepted
 *     shut down             the last item has run      -2           clean up and leave
 *     finished              shutdown_queue returns     -2           none
 *
 * The message queue is one pool of blocks for the whole process: MsgQ_Get hands one out and waits
 * while there is none, MsgQ_Put takes it back. When all NumBufs blocks are back, a thread that
 * waits on MsgQ_empty (under MsgQ_lock) is woken.
 *
 * Life:           kova_thread_init first; queue_create -> queue_add_work ... -> shutdown_queue.
 *                 A queue's memory and locks stay: there is no destroy. MsgQ_Init once, then the
 *                 host sets NumBufs and puts its blocks in.
 * Ownership:      blocks belong to the host. A block is the queue's from a successful addition
 *                 until its routine begins; from then on the routine may put, free or queue it
 *                 again. A refused block stays the caller's.
 * Thread safety:  any thread may call everything. Routines run without a lock; the idle and
 *                 clean-up routines run with the queue's lock held and must not call the queue's
 *                 own operations.
 *
 *     msgqueue_t *queue = queue_create(4, 128, 0, NULL);
 *     commblk_t *block = MsgQ_Get();
 *     block->buffer = request;
 *     if (queue_add_work(queue, serve, block) != 0)   // serve(block) ends with MsgQ_Put(block)
 *         MsgQ_Put(block);
 *     ...
 *     shutdown_queue(queue);
 */
#ifndef KOUTIL_QUEUE_UTIL_H
#define KOUTIL_QUEUE_UTIL_H

#include "koutil/mutex.h"
#include "koutil/types.h"

#include <pthread.h>

KO_BEGIN_DECLS

/* What a work item runs; `arg` is its communication block. */
typedef void (*queue_routine_t)(void *arg);

/* An idle or clean-up routine; `queue` is the msgqueue_t. */
typedef void (*queue_hook_t)(void *queue);

struct queue_item;

/* Links of a list of items: the next item, and the pointer that points to this one. */
typedef struct queue_link {
    struct queue_item *next;  /* the next item */
    struct queue_item **prev; /* the pointer that points to this one */
} queue_link_t;

/* The node of a queued item. The work queue sets routine, arg and next; the other fields are
 * carried for hosts. */
typedef struct queue_item {
    uint32_t wp_sane;                  /* the host's */
    uint32_t wp_queue_active_start;    /* the host's */
    queue_routine_t routine;           /* what to run */
    void *arg;                         /* the block that holds this node */
    queue_link_t q_next;               /* the host's */
    struct queue_item *next;           /* the item served after this one */
    void *wp_threadp;                  /* the host's */
    queue_link_t wp_queue_active_link; /* the host's */
    void *wp_pqueue;                   /* the host's */
} queue_item_t;

/* A communication block: the argument of a work item and the unit of the message queue. */
typedef struct commblk {
    struct commblk *next; /* link in the message queue; null while the block is out */
    queue_item_t qitem;   /* the node while the block is a work item */
    uint32_t lkey1;       /* the host's key */
    uint32_t lkey2;       /* the host's key */
    uint64_t qkey1;       /* the host's key */
    uint64_t qkey2;       /* the host's key */
    uint32_t priority;    /* 0 is ordinary, higher is served first; fixed while queued */
    char *buffer;         /* the host's data */
    int buffer_size;      /* bytes */
    int line;             /* where the block was last taken; for hosts */
    char *file;           /* the host's: the file of `line` */
} commblk_t;

/* A work queue; every field is guarded by queue_lock. */
typedef struct msgqueue {
    int num_threads;               /* workers still running */
    int max_queue_size;            /* full at this size; below 1 always full */
    int do_not_block_when_full;    /* not 0: adding to a full queue fails at once */
    pthread_t *threads;            /* one per worker, in creation order */
    int cur_queue_size;            /* items queued and items being run */
    queue_item_t *queue_head;      /* served first */
    queue_item_t *queue_tail;      /* served last */
    int queue_closed;              /* no item is accepted any more */
    int shutdown;                  /* drained: workers leave */
    int thread_idle_time;          /* seconds without work before thread_idle; 0 is no limit */
    queue_hook_t thread_idle;      /* may be null */
    queue_hook_t thread_cleanup;   /* called by each worker as it leaves; may be null */
    thread_mutex_t queue_lock;     /* guards the queue */
    thread_cond_t queue_not_empty; /* workers wait for work */
    thread_cond_t queue_not_full;  /* producers wait for room */
    thread_cond_t queue_empty;     /* size 0, a worker left, or shutdown was set */
} msgqueue_t;

/* The message queue, guarded by MsgQ_lock. */
KO_API extern thread_mutex_t MsgQ_lock;
KO_API extern commblk_t *MsgQ_head;
KO_API extern commblk_t *MsgQ_tail;
KO_API extern int MsgQ_cnt; /* blocks now in it */

/* The pool's size; the host sets it before it uses the pool. */
KO_API extern int NumBufs;

/* Signalled when the whole pool is back, and when a block is free. */
KO_API extern thread_cond_t MsgQ_empty;
KO_API extern thread_cond_t MsgQ_not_empty;

/* Create a queue of capacity `max_queue_size` and start its workers (detached,
 * Thread_create_attr). A full queue blocks the producer, or refuses the item when
 * `do_not_block_when_full` is not 0. Each worker calls `queue_cleanup` as it leaves, and
 * `queue_idle` after every `idle_time` seconds without work; both may be null, and an `idle_time`
 * of 0 or less waits without limit. Without workers (0 or less) nothing is ever run.
 *
 * Returns the queue; panics when memory, a lock or a thread cannot be had. */
KO_API msgqueue_t *queue_create_with_idle(int num_worker_threads, int max_queue_size,
                                          int do_not_block_when_full, queue_hook_t queue_cleanup,
                                          int idle_time, queue_hook_t queue_idle);

/* Create a queue as queue_create_with_idle does, without an idle routine.
 *
 * Returns the queue; panics when memory, a lock or a thread cannot be had. */
KO_API msgqueue_t *queue_create(int num_worker_threads, int max_queue_size,
                                int do_not_block_when_full, queue_hook_t queue_cleanup);

/* Queue `routine(arg)` as ordinary work, behind everything that is queued. `arg` must be a
 * commblk_t, whose `qitem` is written.
 * Blocks while the queue is full, unless the queue was created not to; a routine that adds to its
 * own full queue can block it for good.
 *
 * Returns 0
 * Returns -1 when the queue is full and does not block
 * Returns -2 when the queue is closed, or was closed while the caller waited for room. */
KO_API int queue_add_work(msgqueue_t *pqueue, queue_routine_t routine, void *arg);

/* Queue `routine(arg)` by the block's `priority`: before the first queued item whose block has a
 * lower one. Otherwise as queue_add_work, the results included. */
KO_API int queue_add_work_pri(msgqueue_t *pqueue, queue_routine_t routine, void *arg);

/* Wake every waiting worker. Takes no lock: it may be called with queue_lock held or not. */
KO_API void queue_awaken(msgqueue_t *pqueue);

/* Block until no item is queued or running, or the queue is shut down. Producers may add more
 * afterwards. Must not be called by one of the queue's own items. */
KO_API void wait_queue_empty(msgqueue_t *pqueue);

/* Close the queue, run every item that was accepted, and send the workers away. Blocks until the
 * last worker has left; producers blocked on the full queue return -2. Must not be called by one
 * of the queue's own items. */
KO_API void shutdown_queue(msgqueue_t *pqueue);

/* Initialise the lock and the condition variables of the message queue; panics on failure. */
KO_API void MsgQ_Init(void);

/* Take a free block, waiting while there is none. Panics when the count of blocks is corrupted.
 *
 * Returns the block, with a null `next` and the `priority` 0. */
KO_API commblk_t *MsgQ_Get(void);

/* Give a block back. Panics when the block is in the message queue already. */
KO_API void MsgQ_Put(commblk_t *pmsgq);

/* Sleep for `sleep_seconds` whole seconds of the wall clock, in a timed condition wait, which a
 * step of the clock or a spurious wake-up may cut short. 0 or less does not sleep.
 *
 * Returns 0. */
KO_API int MyThreadSleep(int sleep_seconds);

KO_END_DECLS

#endif
