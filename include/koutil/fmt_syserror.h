/* fmt_syserror.h - the text of a system error number.
 *
 *     char text[64];
 *     Error_Output("open: %s\n", FormatSysError(text, sizeof text));
 *
 *     open: [errno 2]: No such file or directory
 *
 * Thread safety:  no state; any thread.
 */
#ifndef KOUTIL_FMT_SYSERROR_H
#define KOUTIL_FMT_SYSERROR_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Write "[errno N]: TEXT" for the error number `code`, or for the current errno when `code` is -1,
 * cut to `buflen` bytes with the terminator and without trailing blanks. With a `buflen` of 0
 * nothing is written.
 *
 * Returns `buf`. */
KO_API char *_FormatSysError(int code, char *buf, size_t buflen);

/* Write the text of the current errno, as _FormatSysError does with -1.
 *
 * Returns `buf`. */
KO_API char *FormatSysError(char *buf, size_t buflen);

KO_END_DECLS

#endif
