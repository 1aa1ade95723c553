/* voras.h - service events, the messages for the operator's attention.
 *
 * A daemon raises an event for what its operator must know: an allocation failure, a lost client, a
 * full file system. RasEvent stamps it with the time, the calling program's name and process id
 * and, in a daemon that serves a file system, the file system's name, and hands it to the sink that
 * the daemon installs. Messages for the log go through logger.h.
 *
 * Life:           a host sets RasFn and FsName once, before it starts threads.
 * Thread safety:  any thread may call every function; RasEvent takes no lock and allocates nothing,
 *                 and the sink must allow calls from any thread.
 */
#ifndef KOUTIL_VORAS_H
#define KOUTIL_VORAS_H

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

KO_END_DECLS

#endif
