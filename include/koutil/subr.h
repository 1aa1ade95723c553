/* subr.h - short texts for codes and sizes that administrators see, and a few small tests.
 *
 * The texts are part of what the product prints; tools may rely on them letter by letter. A text
 * that is returned is constant and lives as long as the library.
 *
 * Thread safety:  no state; any thread may call every function.
 */
#ifndef KOUTIL_SUBR_H
#define KOUTIL_SUBR_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* States of a file-system manager (FSM) process. */
enum {
    FSM_STOPPED = 0,
    FSM_LAUNCHED = 1,
    FSM_REGISTERED = 2,
    FSM_DYING = 3,
    FSM_BLOCKED = 4,
    FSM_RELAUNCH = 5
};

/* Substates, which say why a process is stopped or blocked. */
enum {
    FSM_NO_SUBSTATE = 0,
    FSM_STOPPED_IDLE = 1,
    FSM_STOPPED_EXPLICIT = 2,
    FSM_STOPPED_CORELIMIT = 3,
    FSM_STOPPED_INTVNREQD = 4,
    FSM_STOPPED_FSSHELD = 5,
    FSM_BLOCKED_CONFIG = 6,
    FSM_BLOCKED_DISKS = 7,
    FSM_BLOCKED_HA = 8,
    FSM_BLOCKED_BADTIMER = 9
};

/* One row of a table of texts. The table ends with a row whose key is KEY_TXT_END; the text of that
 * row is the answer for every key that the table lacks. */
typedef struct key_txt {
    uint32_t key;    /* the code; KEY_TXT_END in the last row */
    const char *txt; /* its text */
} key_txt_t;

#define KEY_TXT_END 0xFFFFFFFFu /* the key of the last row */

/* The inode format versions, 0x203 to 0x20C, with their texts. */
KO_API extern key_txt_t ivkey[11];

/* Bits of a partition group's flags. */
#define PGROUP_METADATA     0x4u   /* holds metadata */
#define PGROUP_OTHERCONTENT 0x8u   /* holds content of a further kind */
#define PGROUP_EXCLUSIVE    0x400u /* reserved to what it holds */

/* A partition group, as far as this module looks at it. */
typedef struct partgroup {
    uint32_t flags; /* PGROUP_... */
} partgroup_t;

/* Returns the text of an FSM state, such as "BLOCKED"; "(unknown state)" for any other code. */
KO_API const char *decode_state(uint16_t state);

/* Returns the text of an FSM substate in parentheses; "(unknown substate)" for any other code. */
KO_API const char *decode_substate(uint16_t substate);

/* Look `key` up in the table that begins at `ktp`.
 *
 * Returns the text of the first row with that key, or else of the row that ends the table. The key
 * is taken as an unsigned number, so -1 asks for the ending row. */
KO_API const char *ktxt(key_txt_t *ktp, int key);

/* Returns 1 if the group holds metadata, else 0. */
KO_API int pgroup_has_metadata(partgroup_t *pgroup);

/* Returns 1 if the group holds metadata and may hold other things too, else 0. */
KO_API int non_exclusive_metadata(partgroup_t *pgroup);

/* Returns 1 if the group is exclusive, to metadata or to the further kind of content, else 0. */
KO_API int exclusive_metadata(partgroup_t *pgroup);

/* Open the directory `f_dirname` for reading, close-on-exec.
 *
 * Returns 0 with the descriptor in *f_fd, which the caller closes; or the error number, ENOTDIR for
 * a file of another kind, with -1 in *f_fd. */
KO_API int OpenDir(const char *f_dirname, int *f_fd);

/* Write `size`, a count of bytes, with two decimals and its unit: "1.50 MB".
 *
 * The units go from B to EB by powers of 1024; a unit begins just above its own size, so 1024 is
 * "1024.00 B" and 1025 is "1.00 KB". `strng` must hold at least 11 bytes. */
KO_API void SizeStr(uint64_t size, char *strng);

/* Returns the number of trailing zero bits of `val`, which is the shift of a power-of-two block
 * size; 0 for 0. */
KO_API int BlockShift(uint64_t val);

KO_END_DECLS

#endif
