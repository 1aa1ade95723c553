/* snprintf.h - bounded formatting that always terminates.
 *
 * Every text of the library is formatted here. A buffer with room for anything is always
 * terminated, and the caller learns of a cut from a result of `size` or more: never advance a write
 * position by the result without comparing it with the room first.
 *
 * Thread safety:  no state; safe anywhere.
 */
#ifndef KOUTIL_SNPRINTF_H
#define KOUTIL_SNPRINTF_H

#include "koutil/types.h"

#include <stdarg.h>

KO_BEGIN_DECLS

/* Format into `str`, at most `size` bytes with the terminator.
 *
 * A null `str` with `size` 0 measures the text. With a non-null `str` and `size` 0 nothing is
 * written.
 *
 * Returns the length of the whole text without its terminator, so a result of `size` or more means
 * that the text was cut; or a negative value when the platform cannot format it, the buffer then
 * being terminated in its last byte; or -1, with the buffer untouched, for a null `format` and for
 * a null `str` with a `size` other than 0. */
KO_API int VoVsnprintf(char *str, size_t size, const char *format, va_list args) KO_PRINTF(3, 0);

/* Format as VoVsnprintf does, from the arguments that follow. */
KO_API int VoSnprintf(char *str, size_t size, const char *format, ...) KO_PRINTF(3, 4);

KO_END_DECLS

#endif
