/* mt19937ar.h - the Mersenne Twister MT19937, with seeding from a number or an array.
 *
 * The published generator with its published operation names and outputs: period 2^19937 - 1,
 * equidistributed in 623 dimensions, and not fit for anything secret. One generator per process.
 * A generator that was never seeded behaves as after init_genrand(5489).
 *
 * Life:           optionally init_genrand or init_by_array, at any time; then draw.
 * Thread safety:  none; callers that draw from several threads serialise all calls.
 *
 *     init_genrand((unsigned long)time(NULL));
 *     double jitter = genrand_real2();
 */
#ifndef KOUTIL_MT19937AR_H
#define KOUTIL_MT19937AR_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Seed the generator with the low 32 bits of `s`. */
KO_API void init_genrand(unsigned long s);

/* Seed the generator with the low 32 bits of each of the `key_length` numbers in `init_key`. With a
 * `key_length` of 0 or less nothing is read, and the call is init_genrand(19650218). */
KO_API void init_by_array(unsigned long init_key[], int key_length);

/* Returns the next number from 0 to 0xFFFFFFFF. */
KO_API unsigned long genrand_int32(void);

/* Returns a number from 0 to 0x7FFFFFFF. */
KO_API long genrand_int31(void);

/* Returns a number from 0 to 1, both included, in steps of 1/4294967295. */
KO_API double genrand_real1(void);

/* Returns a number from 0 up to but not including 1, in steps of 1/4294967296. */
KO_API double genrand_real2(void);

/* Returns a number between 0 and 1, both excluded, in steps of 1/4294967296. */
KO_API double genrand_real3(void);

/* Returns a number from 0 up to but not including 1 with 53 random bits; it draws twice. */
KO_API double genrand_res53(void);

KO_END_DECLS

#endif
