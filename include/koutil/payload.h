/* payload.h - hexadecimal dumps of messages and blocks.
 *
 *     dump_payload(stdout, 2, 0, (const unsigned char *)"hello, payload of 20", 20, 256);
 *
 *       0100:  6865 6c6c 6f2c 2070 6179 6c6f 6164 206f  |hello, payload o
 *       0110:  6620 3230  |f 20
 *
 * Thread safety:  any thread; each line reaches the stream in one piece.
 */
#ifndef KOUTIL_PAYLOAD_H
#define KOUTIL_PAYLOAD_H

#include "koutil/types.h"

#include <stdio.h>

KO_BEGIN_DECLS

/* Print `op_len` bytes at `op_data` to `fp`, sixteen to a line: `space` blanks (one at least), the
 * position plus `offset` in four hexadecimal digits or more, the bytes in pairs, and the bytes as
 * characters, with '.' for all but printable ASCII. The last line may be shorter; its characters
 * follow directly behind its last byte. Positions wrap at 32 bits.
 *
 * With a `do_skip` other than 0 only the first line of a run of zero lines is printed; a line of
 * dots stands for the others when a line that is not zero follows. */
KO_API void dump_payload(FILE *fp, int space, int do_skip, const unsigned char *op_data,
                         unsigned int op_len, unsigned int offset);

KO_END_DECLS

#endif
