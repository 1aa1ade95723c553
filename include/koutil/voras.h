/* voras.h - service events, the messages for the operator's attention.
 *
 * A daemon raises an event for what its operator must know: an allocation failure, a lost client, a
 * full file system. RasEvent stamps it with the time, the calling program's name and process id
 * and, in a daemon that serves a file system, the file system's name, and hands it to the sink that
 * the daemon installs. Messages for the log go through logger.h.
 *
 * Events about single clients are asked about first: NeedPerClntRas lets the first event of a kind
 * through for each client address, and after that one an hour.
 *
 * Life:           a host sets RasFn and FsName once, before it starts threads.
 *                 The records of clients are never removed.
 * Thread safety:  any thread may call every function; RasEvent takes no lock and allocates nothing,
 *                 and the sink must allow calls from any thread. NeedPerClntRas takes
 *                 ras_clnt_lock.
 */
#ifndef KOUTIL_VORAS_H
#define KOUTIL_VORAS_H

#include "common/list.h"
#include "koutil/mutex.h"
#include "koutil/types.h"

KO_BEGIN_DECLS

/* An event sink: the event's identifier, the finished message, and the wall clock in seconds and
 * microseconds. Both texts are valid during the call only. */
typedef VoError_t (*ras_fn_t)(char *event, char *text, uint32_t secs, uint32_t usecs);

/* The event sink; null at start: events then go to standard error. */
KO_API extern ras_fn_t RasFn;

/* Name of the file system that the calling daemon serves; "none" in programs that serve none. */
KO_API extern char FsName[256];

/* Kinds of events that hosts rate-limit globally; the numbers not listed are reserved. */
typedef enum ras_time_types {
    RAS_TIME_DISK_ALLOC_FAIL = 0,
    RAS_TIME_FS_META_ERR = 1,
    RAS_TIME_EVT_NO_RESPONSE = 12,
    RAS_TIME_COMM_LUN_FAIL = 13,
    RAS_TIME_FS_CAPACITY_THRESHOLD = 14,
    RAS_TIME_BFST_TARGET = 15,
    RAS_TIME_BFST_STOPPED = 16,
    RAS_TIME_BFST_NOT_MOUNTED = 17,
    RAS_TIME_BFST_NOT_CONFIG = 18,
    RAS_TIME_BFST_REPLICATION = 19,
    RAS_TIME_BFST_NO_BLOCKPOOL_BINARY = 20,
    RAS_TIME_BFST_VIP_LOCALHOST = 21,
    RAS_TIME_RVIO_CONFIG = 22,
    RAS_TIME_BFST_LOWSPACE_THROTTLE = 23,
    RAS_TIME_BFST_LOWSPACE_STOP = 24,
    RAS_TIME_WAS_CONFIG = 25,
    RAS_TIME_WAS_COMM = 26,
    RAS_TIME_DISK_CAP_ERR = 27,
    RAS_TIME_BAD_DISK_CAT_ERR = 28,
    RAS_TIME_MAX = 31
} ras_time_types;

/* Wall-clock seconds of the last report of each kind, for host programs; the library neither reads
 * nor writes it. Zero at start. */
KO_API extern uint32_t LastRasEventTime[RAS_TIME_MAX];

/* Raise the event `f_event` (an identifier such as "SL_EVT_SYS_RES_FAIL") with the text that
 * `f_format` and its arguments give. The sink receives
 *
 *     NAME[PID=n]: text                  when FsName is "none"
 *     NAME[PID=n]: fs 'FSNAME': text     otherwise
 *
 * where NAME is the part of CallerName after its last '/'. The text is cut at 511 characters, and
 * so is the whole message. Without a sink the text alone goes to standard error, uncut, with a
 * newline behind it. A null `f_format` gives an empty text.
 *
 * Returns the sink's result unchanged, or 0 without a sink. */
KO_API VoError_t RasEvent(const char *f_event, const char *f_format, ...) KO_PRINTF(2, 3);

/* Kinds of events about one client. */
typedef enum ras_clnt_time_types {
    RAS_CLTIME_COMM_FAIL = 0,
    RAS_CLTIME_CONNECTION_FAIL = 1,
    RAS_CLTIME_MAX = 2
} ras_clnt_time_types;

/* What is remembered of one client and kind. */
typedef struct ras_clnt {
    in46addr_t r_addr; /* compared as 16 raw bytes */
    uint32_t r_time;   /* wall-clock seconds of the last report; 0 for none yet */
    Link_t r_link;     /* on the list of its kind; the data pointer is the record */
} ras_clnt_t;

/* The records of all clients, one list for each kind; empty at start. */
KO_API extern ListHdr_t LastRasClientEventTime[RAS_CLTIME_MAX];

/* Guards both lists. */
KO_API extern thread_mutex_t ras_clnt_lock;

/* Decide whether an event of the kind `f_eventtype` (a ras_clnt_time_types value) about the client
 * at `f_addr` should be raised now, and remember that it is. The time is linear in the number of
 * clients ever asked about.
 *
 * Returns 1 for a client's first event of the kind, when more than 3600 seconds have passed since
 * the last one that was let through, when memory for the client's record runs out, and for any
 * other `f_eventtype`; else 0. */
KO_API int NeedPerClntRas(int f_eventtype, const in46addr_t *f_addr);

KO_END_DECLS

#endif
