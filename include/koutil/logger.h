/* logger.h - leveled messages and the hooks that receive them.
 *
 * The output functions format a message and hand the finished text to one hook, WriteLog, together
 * with a log type. What the hook does is the host's choice: common_WriteLog prints; the hook that
 * kova_log_init_defaults installs passes the text on to __vorn_logfn, the entry of the log file,
 * with a log level. Modules that write to the log file directly call __vorn_logfn themselves.
 *
 *     function          log type   level of __vorn_logfn   without a WriteLog hook
 *     Info_Output       0          1 (I)                   dropped, not even formatted
 *     Debug_Output      1          0 (D)                   dropped, not even formatted
 *     Warn_Output       2          2 (W)                   standard error
 *     Error_Output      3          3 (E)                   standard error
 *     (fatal)           4          4 (F)
 *     Critical_Output   7          5 (C)                   standard error
 *
 * Messages carry their own newline where the destination needs one; only mylog adds one. A message
 * is cut at 2047 characters. A null format gives an empty message.
 *
 * Life:           a host sets the hooks once, before it starts threads; a later change takes effect
 *                 at the next message.
 * Thread safety:  any thread may call every function; no lock is taken and nothing is allocated.
 *                 Serialising the destination is the hook's business.
 */
#ifndef KOUTIL_LOGGER_H
#define KOUTIL_LOGGER_H

#include "koutil/types.h"

#include <stdarg.h>

KO_BEGIN_DECLS

/* Receives a finished message; `str` is valid during the call only. */
typedef void (*write_log_fn_t)(int logtype, char *str);

/* A host's log shutdown. */
typedef void (*shutdown_log_fn_t)(void);

/* Entry of the log file: a level from 0 to 5 and a printf format with its arguments. */
typedef void (*vorn_logfunc_t)(int level, char *fmt, ...);
typedef void (*vorn_debugfunc_t)(int level, char *fmt, ...);

/* The hook of the output functions; null at start. */
KO_API extern write_log_fn_t WriteLog;

/* For host programs; the library never calls it. Null at start. */
KO_API extern shutdown_log_fn_t ShutDownLog;

/* Where messages for the log file go. A host that wants a log file sets it to LogToFile; the
 * default does nothing. */
KO_API extern vorn_logfunc_t __vorn_logfn;

/* Where debug messages that a facility flag switches on go; the default does nothing. */
KO_API extern vorn_debugfunc_t __vorn_debugfn;

/* The initial values of __vorn_logfn and __vorn_debugfn: they do nothing. */
KO_API void __vorn_logfn_default(int level, char *fmt, ...);
KO_API void __vorn_debugfn_default(int level, char *fmt, ...);

/* Report information: log type 0. Costs one pointer test while WriteLog is null. */
KO_API void Info_Output(const char *format, ...) KO_PRINTF(1, 2);

/* Report a debug message: log type 1. Costs one pointer test while WriteLog is null. */
KO_API void Debug_Output(const char *format, ...) KO_PRINTF(1, 2);

/* Report a warning: log type 2. */
KO_API void Warn_Output(const char *format, ...) KO_PRINTF(1, 2);

/* Report an error: log type 3. */
KO_API void Error_Output(const char *format, ...) KO_PRINTF(1, 2);

/* Report a critical condition: log type 7. */
KO_API void Critical_Output(const char *format, ...) KO_PRINTF(1, 2);

/* Format a message and panic with it, asking for a core dump; `file` and `line` name the caller's
 * place in the source. Never returns. */
KO_API void _Panic_Output(const char *file, int line, const char *format, ...)
    KO_PRINTF(3, 4) KO_NORETURN;

/* A WriteLog hook that writes `str` to standard output, unchanged, whatever the type. */
KO_API void common_WriteLog(int logtype, char *str);

/* Route WriteLog to __vorn_logfn by setting it to _writelog_wrapper, unless it is already set. */
KO_API void kova_log_init_defaults(void);

/* The WriteLog hook that leads to __vorn_logfn. `level` is a log type; types without a level (see
 * the table at the top of logger.h) are dropped. The text reaches __vorn_logfn as the argument of a
 * "%s" format, so a percent sign in it stays what it is. */
KO_API void _writelog_wrapper(int level, char *msg);

/* Map a log type to a log level and hand the finished message `fmt` to __vorn_logfn, as the
 * argument of a "%s" format. `ap` is not used. */
KO_API void _mylog_wrapper(int level, char *fmt, va_list ap);

/* Print a message on standard output behind the word for `error`, a system-log priority, and ": ",
 * followed by a newline, and flush: a stand-alone printer for tools without a log file.
 *
 *     0 "*Fatal*"   1 "*Alert*"   2 "*Critical*"   3 "*Error*"   4 "*Warning*"   5 "*Notice*"
 *     6 nothing     7 "(Debug)"   anything else "UNKNOWN MSG TYPE-> "
 *
 * The message is cut at 1023 characters. */
KO_API void mylog(int error, char *message, ...) KO_PRINTF(2, 3);

KO_END_DECLS

#endif
