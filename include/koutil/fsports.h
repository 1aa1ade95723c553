/* fsports.h - the port ranges file.
 *
 * An installation may confine the ports of its daemons to a range and move the port mapper. The
 * file "fsports" in the configuration directory says so:
 *
 *     # directive  value
 *     minport      20000
 *     maxport      0x4eff
 *     altpmap      5164
 *
 * Directives are read without regard to case; values in decimal, hexadecimal (0x) or octal (leading
 * 0), from 1 to 65535, up to the first character that is no digit. Words after the value, empty
 * lines and lines whose first word begins with "#" are passed over. A later line replaces an
 * earlier one. Lines are read up to 254 characters; what is longer counts as a further line.
 *
 * Thread safety:  no state; any thread.
 */
#ifndef KOUTIL_FSPORTS_H
#define KOUTIL_FSPORTS_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Read the port ranges file. Each output may be null; the others become the port that the file
 * gives, or 0 where it gives none or cannot be opened. Where both ends of the range are asked for
 * and one at least is configured, a missing lowest port becomes 1, and a highest port that is
 * missing or below the lowest becomes 65535, with a warning.
 *
 * A faulty line is ignored with a warning; `verbose` other than 0 reports every accepted value as
 * information; a file that cannot be opened is a debug message when an end of the range is asked
 * for. Reports go to WriteLog (types 2, 0 and 1); without that hook, warnings and information go to
 * the system log and debug messages are dropped. */
KO_API void genportrange(uint16_t *minport, uint16_t *maxport, uint16_t *altpmapport, int verbose);

KO_END_DECLS

#endif
