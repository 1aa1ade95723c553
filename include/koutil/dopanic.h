/* dopanic.h - the end of a process that cannot go on.
 *
 * A panic formats one line, sends it to the system log and to standard error, and ends the process,
 * with a core dump where the caller asks for one. Hosts replace the handler by setting DoPanicFn,
 * once, before they start threads.
 *
 * A failed assertion of the library panics with str1 "ASSERT failed ", str2 the expression, core 1,
 * file "libutil/<module>" and the line.
 *
 * Thread safety:  any thread may panic, whatever locks it holds: the path takes none of the
 *                 library's locks and allocates nothing.
 */
#ifndef KOUTIL_DOPANIC_H
#define KOUTIL_DOPANIC_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* A panic handler. If it returns, the process ends with exit status 1. */
typedef void (*do_panic_fn_t)(char *str1, char *str2, int core, char *file, int line);

/* The handler that DoPanic calls. The default writes
 *     PANIC: caller str1"str2" file FILE, line LINE
 * to the system log (LOG_ALERT) and to standard error, cut at 2047 characters, and then aborts, or
 * exits with PanicNoCoreExitCode when `core` is 0. Null stands for the default. */
KO_API extern do_panic_fn_t DoPanicFn;

/* First word of every panic line; a host may overwrite it, to its last byte. */
KO_API extern char PanicNomenclature[2048];

/* Exit status of a panic that asks for no core dump. */
KO_API extern int PanicNoCoreExitCode;

/* A flag for host programs; the library neither reads nor writes it. */
KO_API extern int Panicked;

/* Name of the calling program, shown in panic lines and service events; "libutil" until it is set.
 * Null is allowed. */
KO_API extern char *CallerName;

/* Store `name`, the pointer and not a copy, in CallerName. The text must outlive its use. */
KO_API void set_caller_name(char *name);

/* End the process through DoPanicFn. `core` other than 0 asks for a core dump; `file` and `line`
 * name the place in the source. Never returns: if the handler does, the process ends at once with
 * status 1 and runs no exit handlers. */
KO_API void DoPanic(const char *str1, const char *str2, int core, const char *file,
                    int line) KO_NORETURN;

KO_END_DECLS

#endif
