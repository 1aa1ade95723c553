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
 * 0), from 1 to 65535. Words after the value, empty lines and lines that begin with "#" are passed
 * over. A later line replaces an earlier one. Lines are read up to 254 characters; what is longer
 * counts as a further line.
 *
 * Thread safety:  no state; any thread.
 */
#ifndef KOUTIL_FSPORTS_H
#define KOUTIL_FSPORTS_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Read the port ranges file. Each output may be null; the others become 0 (not configured) or the
 * port that the file gives. Where both ends of the range are asked for and only one is configured,
 * the other becomes 1 or 65535; so does a highest port below the lowest.
 *
 * Problems are reported and the line ignored; `verbose` other than 0 reports every accepted value
 * as well. Reports go to WriteLog (types 0, 1 and 2); without that hook, warnings and information
 * go to the system log and debug messages are dropped. */
KO_API void genportrange(uint16_t *minport, uint16_t *maxport, uint16_t *altpmapport, int verbose);

KO_END_DECLS

#endif
