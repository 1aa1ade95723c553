/* utf8.h - conversion between UTF-8 and UTF-16, and case-insensitive work on UTF-8.
 *
 * The conversions run in buffers of the caller and stop at the first character that cannot be
 * converted, with both pointers at it, so that a caller can report it, or make room and go on. The
 * case routines cover a fixed repertoire of characters outside ASCII, all of whose pairs have the
 * same length in UTF-8, so that they work in place; a character without a pair stays as it is.
 *
 * sfm mapping: names from systems that allow them may hold control characters, the characters
 * " * : < > ? \ | and a space or period at the end. In UTF-16 the mapping carries these as the
 * private-use units U+F000 to U+F029:
 *
 *     UTF-8    00-1F        "     *     :     <     >     ?     \     |     space  .
 *     UTF-16   F000-F01F    F020  F021  F022  F023  F024  F025  F026  F027  F028   F029
 *
 * Text:           no function here validates more than it says; the case routines take any bytes.
 * Memory:         nothing is allocated. Nothing is read past an end. Behind a terminator nothing
 *                 counts, though the comparisons may load what follows it in its page of memory.
 * Thread safety:  no state; any thread may call every function.
 *
 *     const UTF8 *from = name;
 *     UTF16 *to = units;
 *     if (ConvertUTF8toUTF16(&from, name + length, &to, units + 256, strictConversion)
 *         != conversionOK) {
 *         return EILSEQ; // `from` stands at the character that failed
 *     }
 */
#ifndef KOUTIL_UTF8_H
#define KOUTIL_UTF8_H

#include "koutil/types.h"

KO_BEGIN_DECLS

typedef unsigned long UTF32; /* a code point, or a UTF-8 sequence packed into a number */
typedef uint16_t UTF16;      /* a code unit of UTF-16, in the host's byte order */
typedef uint8_t UTF8;        /* a byte of UTF-8 */
typedef uint8_t VoBoolean;   /* 0 false, 1 true */

/* Outcome of a conversion. */
typedef enum {
    conversionOK = 0,    /* the whole source was converted */
    sourceExhausted = 1, /* the source ends inside a sequence */
    targetExhausted = 2, /* the next character does not fit */
    sourceIllegal = 3    /* an illegal sequence, or in strict mode a lone surrogate */
} ConversionResult;

/* How to convert: a set of the bits below. */
typedef unsigned int ConversionFlags;
enum {
    strictConversion = 1, /* refuse lone surrogates */
    sfmConversion = 2,    /* apply the sfm mapping */
    lenientConversion = 4 /* for readers: strictConversion is absent; it has no effect of its own */
};

/* One bucket of a case table: the packed sequence of a character and of its counterpart. A sequence
 * is packed with its first byte most significant: C3 80 is 0xC380. Both are 0 in an empty bucket.
 */
typedef struct utf8hashbkt {
    UTF32 hkey; /* the character */
    UTF32 hval; /* its counterpart */
} utf8hashbkt_t;

#define UTF8HASH_BUCKETS 1949 /* of a case table */
#define UTF8HASH_STEP    39   /* from a bucket to the next one of a search */

/* The case tables: 647 pairs each, the one the inverse of the other. A search begins at bucket
 * hkey % UTF8HASH_BUCKETS and goes on at (bucket + UTF8HASH_STEP) % UTF8HASH_BUCKETS; it ends at an
 * empty bucket or after the third, in which every key is found. ASCII is not in them. */
KO_API extern const utf8hashbkt_t utf8hash_tolower[UTF8HASH_BUCKETS];
KO_API extern const utf8hashbkt_t utf8hash_toupper[UTF8HASH_BUCKETS];

/* The sfm mapping of each ASCII byte, and back from U+F020 to U+F029 by the low four bits. */
KO_API extern const UTF16 sfm_A2U[128];
KO_API extern const UTF16 sfm_U2A[16];

/* Convert UTF-16 from *sourceStart to UTF-8 at *targetStart.
 *
 * The source ends at `sourceEnd`; with a null `sourceEnd` it ends at its first zero unit, which is
 * converted too and stepped over on both sides. `targetEnd` is the end of the target's room.
 * Without strictConversion a lone surrogate is encoded as three bytes; so is, in every mode, a high
 * surrogate that is the last unit before `sourceEnd`. With sfmConversion U+F000 to U+F029 become
 * the ASCII characters that they stand for, U+F000 a byte 0.
 *
 * Returns conversionOK, targetExhausted, or sourceIllegal with strictConversion. *sourceStart and
 * *targetStart stand behind the last character converted; of a character that failed nothing is
 * written, and a pair is taken or left whole. */
KO_API ConversionResult ConvertUTF16toUTF8(const UTF16 **sourceStart, const UTF16 *sourceEnd,
                                           UTF8 **targetStart, UTF8 *targetEnd,
                                           ConversionFlags flags);

/* Convert UTF-8 from *sourceStart to UTF-16 at *targetStart; ends, modes and pointers are those
 * of ConvertUTF16toUTF8.
 *
 * Illegal are sequences that are cut, too long for their character or past U+10FFFF, stray
 * continuation bytes and leads of five and six bytes; encoded surrogates only with
 * strictConversion. With sfmConversion a space or period is mapped only as the last character
 * before `sourceEnd`, and not when the source of this call is "." or "..".
 *
 * Returns conversionOK, targetExhausted, sourceIllegal, or sourceExhausted when `sourceEnd` cuts
 * the last sequence; a terminator inside a sequence is sourceIllegal. */
KO_API ConversionResult ConvertUTF8toUTF16(const UTF8 **sourceStart, const UTF8 *sourceEnd,
                                           UTF16 **targetStart, UTF16 *targetEnd,
                                           ConversionFlags flags);

/* Returns 1 if the sequence at `source` is legal and ends at or before `sourceEnd`, else 0. Encoded
 * surrogates are legal here. */
KO_API VoBoolean isLegalUTF8Sequence(const UTF8 *source, const UTF8 *sourceEnd);

/* Turn the capitals of the terminated text `source` into small letters, in place. A sequence that
 * the terminator cuts stays as it is. */
KO_API void utf8tolower(UTF8 *source);

/* Turn the small letters of the terminated text `source` into capitals, in place. */
KO_API void utf8toupper(UTF8 *source);

/* Compare two terminated texts without regard to case: by the bytes of their small letters, and a
 * shorter sequence before a longer one.
 *
 * Returns a negative number, 0 or a positive number as `s1` sorts before, with or after `s2`. */
KO_API int utf8casecmp(const UTF8 *s1, const UTF8 *s2);

/* Compare at most the first `n` bytes of two texts without regard to case; 0 for `n` below 1.
 *
 * When a sequence goes past `n`, or begins with a byte from 0xF8 on, the result is -1, 0 or 1 from
 * the comparison of the bare bytes of both texts from their beginnings, up to `n` or to the end of
 * both. Returns as utf8casecmp does. */
KO_API int utf8ncasecmp(const UTF8 *s1, const UTF8 *s2, int n);

KO_END_DECLS

#endif
