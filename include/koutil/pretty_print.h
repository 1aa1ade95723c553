/* pretty_print.h - times and sizes in at most four characters, and back.
 *
 * Times are whole minutes, sizes whole bytes. A unit is one letter behind the number:
 *
 *     time    h hour   d day   w week   M month of 30 days   y year of 365 days
 *     size    K M G T P: powers of 1000, or of 1024 with PRETTY_BINARY
 *
 * The printers choose the unit in which the value stays short, and round: read their texts back
 * only where that does not matter. "45m" is printed for 45 minutes, but a scanned "m" is a month:
 * minutes are scanned without a letter.
 *
 * Results:        the scanners return 0 for success and -1 for failure.
 * Thread safety:  no state; any thread may call every function.
 */
#ifndef KOUTIL_PRETTY_PRINT_H
#define KOUTIL_PRETTY_PRINT_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Flags, to be combined with |. */
#define PRETTY_RAW     1 /* print the bare number, without a unit */
#define PRETTY_BINARY  2 /* sizes in powers of 1024 instead of 1000 */
#define PRETTY_INTEGER 8 /* print without a fraction; refuse a scanned text that holds a period */

/* Write `value` minutes into `str`, at most `len` bytes with the terminator: "45m", "1.5h", "2h",
 * "1M", "69d". Five characters only where no unit is short enough ("8172y"). A `len` of 0 writes
 * nothing; with a `len` below 6 the choice of the unit goes by the cut text. */
KO_API void pretty_print_time(char *str, unsigned int len, int flags, uint32_t value);

/* Write `value` bytes into `str`, at most `len` bytes with the terminator: "999", "1.5K", "123M".
 * As pretty_print_time otherwise; the largest sizes take six characters ("18447P"). */
KO_API void pretty_print_space(char *str, unsigned int len, int flags, uint64_t value);

/* Read a number of minutes: digits with an optional period, and a unit letter in either case right
 * behind them or none. White space before the number and whatever follows white space behind it are
 * passed over: "1.5h" is 90, "5d x" is 7200.
 *
 * Returns 0 with `*value_out` truncated toward zero; or -1 with `*value_out` 0 for any other text,
 * for 2^31 minutes and more, and for a period under PRETTY_INTEGER. */
KO_API int pretty_scan_time(const char *f_str, int flags, uint32_t *value_out);

/* Read a number of bytes, as pretty_scan_time does; sizes of 2^64 and more fail. */
KO_API int pretty_scan_space(const char *f_str, int flags, uint64_t *value_out);

KO_END_DECLS

#endif
