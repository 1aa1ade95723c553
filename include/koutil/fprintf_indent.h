/* fprintf_indent.h - print behind an indent.
 *
 * Thread safety:  any thread; the indent and the message reach the stream in one piece.
 */
#ifndef KOUTIL_FPRINTF_INDENT_H
#define KOUTIL_FPRINTF_INDENT_H

#include "koutil/types.h"

#include <stdio.h>

KO_BEGIN_DECLS

/* Print `indent` blanks and then the message to `fp`. A negative `indent` counts as its absolute
 * value.
 *
 * Returns what printing the message returned: its length without the blanks, or a negative value on
 * failure; -1, with nothing printed, for a null `fmt`. */
KO_API int fprintf_indent(FILE *fp, int indent, const char *fmt, ...) KO_PRINTF(3, 4);

KO_END_DECLS

#endif
