/* kovalog.h - the rotating log file and the debug flags.
 *
 * LogToFile writes one stamped line for each call and rotates the file when it passes its size
 * limit. A host makes it the destination of all logging:
 *
 *     SetupLogFile("/var/log/daemon.log", 10 << 20, 4);
 *     __vorn_logfn = LogToFile;
 *     kova_log_init_defaults();
 *     ...
 *     CloseLog();
 *
 * A line, for levels 0 (D) and 1 (I), and for levels 2 (W), 3 (E), 4 (F) and 5 (C):
 *
 *      I [20260102 15:04:05.000678 4711] message
 *     (E)[20260102 15:04:05.000678 4711] message
 *        local date and time, microseconds, thread id
 *
 * A message carries its own newline. A line that needs 1024 characters or more is replaced by
 * "(E) [date time] log message overflowed".
 *
 * Rotation keeps `count` older files, NAME_1 (the newest) to NAME_count; with a count of 0 the same
 * file goes on growing. Numbered files that an earlier, larger count left behind stay, but for the
 * last of an unbroken run that begins at count + 1.
 *
 * A debug facility is a part of a daemon whose debug messages are switched on one by one: a legend
 * of named flags, and an array of bits, one for each entry. ParseAllDebugParams sets the bits from
 * a list of names; modules test a bit before they call __vorn_debugfn.
 *
 * Life:           before SetupLogFile lines go to standard output and nothing rotates;
 *                 SetupLogFile -> LogToFile ... -> CloseLog. Setups nest: the last CloseLog closes.
 *                 init_facility -> facility_at_exit, which may be followed by init_facility again.
 * Thread safety:  LogToFile may be called from any thread and from a forked child; lines are never
 *                 torn, and one thread rotates. It keeps errno. It is not for signal handlers. All
 *                 other functions take no lock: call them while nobody logs. Flags are read without
 *                 a lock.
 * Processes:      the lock is one process's. A forked child that stays closes the log and sets up
 *                 its own: where two rotate the same file at once, an older one may be lost.
 */
#ifndef KOUTIL_KOVALOG_H
#define KOUTIL_KOVALOG_H

#include "koutil/types.h"

#include <unistd.h>

KO_BEGIN_DECLS

/* The descriptor that LogToFile writes to: 1 at start, -1 for none. */
KO_API extern int __vorn_log_file_fd;

/* Write one line. `level` is 0 to 5, one of the letters "DIWEFC"; any other number is shown as '?'.
 * One write call, under the process-wide log lock; nothing is allocated. A line that cannot be
 * written is lost; while the log file could not be opened, lines are counted, and each time that
 * they pass the size limit the open is tried again. */
KO_API void LogToFile(int level, char *fmt, ...) KO_PRINTF(2, 3);

/* Append to the log file `filename`, created with permission bits 0644 less the umask, and rotate
 * it when it passes `filesize` bytes; 0 or less means never. `filecount` older files are kept. The
 * name "-" means standard error, which never rotates. What was set up before stays open and is
 * replaced.
 *
 * Returns 1, or 0 when the file cannot be opened; lines are then dropped but counted, and the setup
 * still needs its CloseLog. Also 0, with nothing changed, when memory for the name runs out. */
KO_API int SetupLogFile(const char *filename, int filesize, int filecount);

/* End one setup. The last one flushes the file to disk and closes it; standard error stays the
 * destination after "-". Does nothing when no file is set up. */
KO_API void CloseLog(void);

/* Close the current descriptor, shift the numbered files up and the log file `filename` to number
 * 1, and open `filename` afresh. LogToFile calls this under the log lock; so a host calls it only
 * while nobody logs.
 *
 * Returns 0, also when the open fails: the descriptor is then -1. Returns -1 when a file cannot be
 * renamed or its name passes 4095 characters; the log is then closed until the next SetupLogFile.
 */
KO_API int RotateLogs(int count, const char *filename);

/* Report the settings; each pointer may be null. `isset` tells whether a file is set up. `filename`
 * gets the log's own text, valid until CloseLog, or null. */
KO_API void GetLogFileInfo(int *isset, int *fd, char **filename, uint64_t *filesize,
                           int *filecount);

/* How the platform declares gettid, so that both declarations agree. */
#ifdef __cplusplus
#define KO_NOTHROW noexcept
#else
#define KO_NOTHROW __attribute__((__nothrow__, __leaf__))
#endif

/* Returns the kernel's id of the calling thread. The platform may declare the same function. */
KO_API pid_t gettid(void) KO_NOTHROW; /* NOLINT(readability-redundant-declaration) */

/* Numbers of the debug facilities; 2 is not assigned by this library. */
enum {
    DBG_FAC_KOPOL = 0,
    DBG_FAC_KOPOLAPI = 1,
    DBG_FAC_KOADMIN = 3,
    DBG_FAC_FSMPM = 4,
    DBG_FAC_XCOMM = 5,
    DBG_FAC_KOVAWEBSVC = 6,
    DBG_FAC_RKOADMIND = 7,
    DBG_FAC_CFGSVR = 8,
    DBG_FAC_CACHED = 9,
    DBG_FAC_WBDRV = 10,
    DBG_FAC_END = 11
};

/* One named flag. A legend is an array of them, ended by an entry whose key is null; its values are
 * expected to run from 0 to the number of entries less one. */
typedef struct vornlog_legend_struct {
    uint32_t vornlog_legend_value;   /* bit (value mod 8) of byte (value / 8) of the flag array */
    const char *vornlog_legend_key;  /* the flag's name in option strings */
    const char *vornlog_legend_desc; /* one line about it */
} vornlog_legend_t;

/* One facility. It is valid while both pointers are set and the name is not empty. */
struct debug_facility {
    char name[64];                  /* as in log output, terminated */
    uint8_t debug_flag_size;        /* bytes of the flag array */
    uint8_t *debug_flags;           /* the bits, owned by the record */
    vornlog_legend_t *debug_legend; /* owned by the caller of init_facility */
};

/* All facilities, by number. */
KO_API extern struct debug_facility facilities[DBG_FAC_END];

/* Set a facility up, with all flags off. `name` is copied, cut at 63 characters; `legend` must
 * outlive the facility.
 *
 * Returns 0; 22 for a number outside 0 to 10, and, with the name already written, for an empty
 * legend and for one of more than 2040 entries; 16 when the facility is set up; 12 when memory runs
 * out. */
KO_API int init_facility(int facility, const char *name, vornlog_legend_t *legend);

/* Returns 1 if the facility is valid, else 0. */
KO_API int facility_valid(int facility);

/* Release a facility's flags; it may be set up again. Numbers outside 0 to 10 are ignored. */
KO_API void facility_at_exit(int facility);

/* Switch the flags of all valid facilities off, then those on that `options` names, a list split at
 * commas; empty items are skipped. A name switches its flag on in every facility that knows it. The
 * text is modified in place; null is an empty list.
 *
 * Returns 0, or -1 at the first name that no facility knows; flags set so far stay set. */
KO_API int ParseAllDebugParams(char *options);

/* Switch all flags off and those on that `options` names, as ParseAllDebugParams does, for one
 * legend and the `words` bytes at `debugflags`. A flag beyond them is known but has no bit to set.
 *
 * Returns 0, or -1 at the first name that the legend lacks. */
KO_API int _ParseDebugParams(char *options, const vornlog_legend_t *legend, uint8_t *debugflags,
                             uint32_t words);

/* Show the flags of a facility as a text: "0x", then two lower-case hexadecimal digits a byte, from
 * the last byte down to the first; "0x" alone for a facility that is not set up.
 *
 * Returns 0 and in `*hexstring` the text, to be released with free(3); else null there and 12 when
 * memory runs out, 5 when a digit cannot be formatted, 22 for a number outside 0 to 10. */
KO_API int DebugFlagsHexString(char **hexstring, int facility);

/* List a legend: the key and the description of each entry, in order, then two nulls.
 *
 * Returns the array, to be released with free(3), whose texts are the legend's own; or null when
 * memory runs out. */
KO_API char **_GetDebugStrings(const vornlog_legend_t *legend);

/* List the legends of all facilities, in order of their numbers, as _GetDebugStrings does.
 *
 * Returns the array, to be released with free(3), or null when memory runs out. */
KO_API char **GetAllDebugStrings(void);

KO_END_DECLS

#endif
