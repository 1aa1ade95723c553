/* strint.h - 64-bit integers with binary unit letters, and minutes as days, hours and minutes.
 *
 * The number text of configuration files and tools: "64M", "0x1Fk", "1,000". The letters K, M, G, T
 * and P multiply by 2^10, 2^20, 2^30, 2^40 and 2^50.
 *
 * Results:        IntToStr64 and StrToInt64 return 1 for success and 0 for failure.
 * Thread safety:  no state; any thread may call every function.
 */
#ifndef KOUTIL_STRINT_H
#define KOUTIL_STRINT_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Write a number of minutes as days, hours and minutes into `StrOut`, at most `StrOutSz` bytes with
 * the terminator: "   1d- 1h- 0m" for 1500, "-  0d- 1h- 1m" for -61.
 *
 * Returns 0. */
KO_API int KoMinutesToDHM(int32_t Minutes, char *StrOut, size_t StrOutSz);

/* Write `ValIn` in decimal, in the largest unit that divides it: "3K" for 3072, "1536" for 1536,
 * "-2K" for -2048. At most 21 bytes with the terminator.
 *
 * Returns 1; or 0 when the text and its terminator do not fit into `NumberStrSz` bytes, `NumberStr`
 * then being the empty text (or untouched when `NumberStrSz` is 0). */
KO_API int IntToStr64(int64_t ValIn, char *NumberStr, size_t NumberStrSz);

/* Read an integer.
 *
 * White space, then one optional '-', then the digits, then white space up to the end. A '\n' or
 * '\r' behind the first character that is no white space ends the text like its terminator.
 *
 *     start     base      note
 *     0x, 0X    16
 *     0         8         with an 8 or 9 among them the digits are read as hexadecimal: "019" is 25
 *     other     10        letters a to f fail
 *
 * A unit letter in either case multiplies what stands before it, as often as it occurs, also
 * between digits ("1k2" is 10242); it needs a digit before it. Commas are skipped. A text of white
 * space, of commas or of a sign alone is 0. Values wrap modulo 2^64; there is no overflow test.
 *
 * Returns 1; or 0, with `*ValOut` 0, for an empty or null text and for any other character. */
KO_API int StrToInt64(const char *NumberStr, int64_t *ValOut);

KO_END_DECLS

#endif
