/* kovacfg.h - the keyword configuration file: a text file of lines, held as a list of entries.
 *
 * Most small configuration files share one format: a name, up to 64 values and a comment to a line.
 * KovaCfgOpen loads a whole file into a list; the caller walks, searches and edits the list, and
 * KovaCfgSave writes it back. Three forms differ in what separates:
 *
 *     form              a line is             separates      blanks
 *     CFGTYPE_ASSIGN    name=value            =              belong to the text
 *     CFGTYPE_WORDS     name value value ...  blanks and =   separate outside quotes
 *     CFGTYPE_VALUES    value=value ...       =              belong to the text
 *
 *     KovaCfg_t *cfg;
 *     CfgEnt_t *ent = NULL;
 *     char msg[128];
 *     if (KovaCfgOpen(path, KOVA_OPEN_READ, CFGTYPE_ASSIGN, &cfg, msg, sizeof msg) != 0) {
 *         fprintf(stderr, "%s\n", msg);
 *     } else {
 *         while (KovaCfgNext(cfg, &ent) == 0) { ... ent->KovaCfgName, ent->KovaCfgVals[0] ... }
 *         KovaCfgClose(&cfg, 0, NULL, 0);
 *     }
 *
 * Lines:          at most 1024 bytes with the line end. A run of carriage returns and line feeds is
 *                 one line end, so empty lines vanish, except for one at the start of the file,
 *                 which is an entry without anything. A NUL byte anywhere refuses the file.
 * Quotes:         the bytes 0x22, 0x93 and 0x94 open and close quoted text, in which blanks, '='
 *                 and '#' mean themselves from its second character on.
 * Comments:       from a '#' outside quotes to the line end. In a name or value a '#' ends nothing:
 *                 "key=v # c" has the value "v # c" and the comment "# c".
 * Metadata:       "# @Name=value" is no comment: the entry has the name "@Name" and is marked. No
 *                 blank separates in such a line.
 * Messages:       a failing operation that takes ErrMsg and ErrMsgSz writes one line into it, cut
 *                 to the size, when ErrMsg is not null.
 * Status:         0; 2 no such entry, end of the list; 11 a required argument is null, an index is
 *                 negative, a NUL byte in the file; 20 out of memory; 22 a text is too long or
 *                 there are too many; otherwise the status of a file operation (kovaio.h).
 * Life:           KovaCfgOpen or KovaCfgCopy -> ... -> KovaCfgClose. The file stays open meanwhile,
 *                 but is not read again; changes reach it only through a save.
 * Thread safety:  no shared state; an object belongs to one thread at a time. Processes that save
 *                 one file at once are not coordinated: the last one wins, each with a whole text.
 */
#ifndef KOUTIL_KOVACFG_H
#define KOUTIL_KOVACFG_H

#include "koutil/kovaio.h"
#include "koutil/types.h"

#include <sys/queue.h>

KO_BEGIN_DECLS

/* The form of a file; every value other than the first two means CFGTYPE_VALUES. */
typedef uint32_t KovaCfgType_t;
#define CFGTYPE_ASSIGN 2u /* name=value */
#define CFGTYPE_WORDS  3u /* name value value ... */
#define CFGTYPE_VALUES 0u /* value=value ... */

/* The most values of an entry. */
#define KOVACFG_MAX_VALS 64

/* One line. Callers read the fields and change the values only through KovaCfgEntValInsert and
 * KovaCfgEntValDelete. The texts lie in the entry's work area and last until the entry is removed
 * or gets another value. */
typedef struct CfgEnt_s {
    char *KovaCfgName;                      /* null: none */
    char *KovaCfgVals[KOVACFG_MAX_VALS];    /* in order; the first null ends them */
    char *KovaCfgComment;                   /* null: none; one read from a file begins with '#' */
    int KovaCfgIntsValid[KOVACFG_MAX_VALS]; /* 1: the value is a number (StrToInt64), else 0 */
    int IsMetaData;                         /* 1: from a metadata line */
    int64_t KovaCfgInts[KOVACFG_MAX_VALS];  /* the value's number, 0 where it is none */
    TAILQ_ENTRY(CfgEnt_s) CfgEntLink;       /* link of the list */
    char *_WorkBuff;                        /* private: holds the texts */
    size_t _WorkBuffSz;                     /* bytes */
} CfgEnt_t;

TAILQ_HEAD(CfgEntHead_s, CfgEnt_s);

/* A loaded file. */
typedef struct KovaCfg_s {
    char KovaCfgPath[256];          /* as given to KovaCfgOpen */
    KovaFlgs_t KovaFlgs;            /* as given to KovaCfgOpen */
    KovaHndl_t *KovaHndl;           /* null in a copy, and after a save that failed halfway */
    KovaCfgType_t KovaCfgType;      /* as given to KovaCfgOpen */
    struct CfgEntHead_s CfgEntHead; /* the entries in the order of the file */
} KovaCfg_t;

/* An answer of yes or no. */
typedef enum { THREEST_UNKNOWN = 0, THREEST_YES = 1, THREEST_NO = 2 } ThreeState_t;

/* Open and load a file; `KovaFlgs` are those of KovaOpen.
 *
 * Ownership: the object goes back through KovaCfgClose.
 * Returns 0; 22 for a path of 256 characters or more, a line of more than 1024 bytes or of more
 * than 64 values; 11 for a NUL byte in the file; 20; or the status of the open, seek or read.
 * On failure *KovaCfgOut is null. */
KO_API VoError_t KovaCfgOpen(const char *KovaCfgPath, KovaFlgs_t KovaFlgs,
                             KovaCfgType_t KovaCfgType, KovaCfg_t **KovaCfgOut, char *ErrMsg,
                             size_t ErrMsgSz);

/* Free an object and set the caller's pointer to null; a null object is allowed. The list is saved
 * first when `SaveChanges` is exactly 1.
 *
 * Returns 0, or the status of the save; the object is gone in either case. */
KO_API VoError_t KovaCfgClose(KovaCfg_t **KovaCfgIn, int SaveChanges, char *ErrMsg,
                              size_t ErrMsgSz);

/* Write the list back to its file.
 *
 * The text goes to a temporary file beside the old one (the path with "~", or "~a" to "~z" where
 * those exist), is synced, and replaces the old file in one step, so that the name always leads to
 * a whole text, old or new, also after a power cut; the folder is synced, too, so that it is the
 * new one once the save has returned 0. What ends a process in a save leaves its temporary file;
 * these do not disturb, and there are never more than 27. Mode and owner of the old file are kept
 * as far as the process may set them. Only on file systems that refuse to rename over a file is the
 * old one moved aside first, to the path with "~~" or "~~" and a letter, and back should the rename
 * fail again. The file is then opened again with the object's flags.
 *
 * A comment is written as a line of its own before its entry, with "# " in front where it does not
 * begin with '#'. In the assignment form only the first value is written. Nothing is
 * quoted: a value with a blank, saved in the word form, is read back as several.
 *
 * Returns 0; 22 for a line that is too long, or has too many values, to be read back; or the status
 * of what failed. Until the new text is complete a failure leaves the old file and the object as
 * they were; later ones, when the new text may be in place already, leave the object without a
 * handle, and it can be saved again. The temporary file of a failed save stays. */
KO_API VoError_t KovaCfgSave(KovaCfg_t *KovaCfg, char *ErrMsg, size_t ErrMsgSz);

/* Copy an object with all entries, but without a file handle and without the metadata marks.
 *
 * Ownership: the copy goes back through KovaCfgClose.
 * Returns 0; 20; or 22 for an entry whose texts, copied apart, exceed 1024 bytes with their
 * terminators. On failure *KovaCfgTrg is null. */
KO_API VoError_t KovaCfgCopy(KovaCfg_t **KovaCfgTrg, KovaCfg_t *KovaCfgSrc, char *ErrMsg,
                             size_t ErrMsgSz);

/* Compare two objects: paths, forms, flags, and entries in order, by CfgEntCmp with the parts of
 * B's entry, so that a name or comment that B lacks is not compared.
 *
 * Returns 0 when alike (two null objects are); the sign of the comparison of the paths where they
 * differ; otherwise 1. */
KO_API int KovaCfgCmp(KovaCfg_t *KovaCfgA, KovaCfg_t *KovaCfgB);

/* Find the first entry that CfgEntCmp finds equal to `KovaCfgName`, `Vals` and `Comment`. Both
 * outputs are optional.
 *
 * Returns 0; 2 with a null entry and index -1; or 11. */
KO_API VoError_t KovaCfgFind(KovaCfg_t *KovaCfg, const char *KovaCfgName, char **Vals,
                             const char *Comment, CfgEnt_t **CfgEntOut, int *IndexOut);

/* The entry at position `Index`, counted from 0. A loop over all entries uses KovaCfgNext.
 *
 * Returns 0; 2 with a null entry past the end; or 11. */
KO_API VoError_t KovaCfgEnum(KovaCfg_t *KovaCfg, int Index, CfgEnt_t **CfgEntOut);

/* Step from *CfgEntOut to the entry after it, or to the first one when it is null.
 *
 * Returns 0; 2 with a null entry at the end; or 11. */
KO_API VoError_t KovaCfgNext(KovaCfg_t *KovaCfg, CfgEnt_t **CfgEntOut);

/* Insert a new entry before position `Index`, or at the end when the index is negative or past it.
 * Name, values and comment may each be null; `Vals` ends at its first null or after 64. The texts
 * are copied as they stand.
 *
 * Returns 0; 11 without an object; 20; or 22 when the texts with their terminators exceed 1024
 * bytes. On failure the list is unchanged. */
KO_API VoError_t KovaCfgInsert(KovaCfg_t *KovaCfg, int Index, const char *ValName, char **Vals,
                               const char *Comment, char *ErrMsg, size_t ErrMsgSz);

/* Remove and free the entry at position `Index`.
 *
 * Returns 0; 2 past the end; or 11. */
KO_API VoError_t KovaCfgRemove(KovaCfg_t *KovaCfg, int Index);

/* Insert a value into an entry before position `Index`, or behind the last value for -1. The texts
 * of the entry move: pointers to them are no longer valid.
 *
 * Returns 0; 11 for a null argument or an index that is not -1 and lies outside the values; 22 when
 * there are 64 values; or 20. On failure the entry is unchanged. */
KO_API VoError_t KovaCfgEntValInsert(CfgEnt_t *CfgEnt, int Index, const char *ValString);

/* Remove the value at position `Index` of an entry; an index without a value changes nothing. */
KO_API void KovaCfgEntValDelete(CfgEnt_t *CfgEnt, int Index);

/* Compare an entry with the criteria that are not null: its name, its comment, and its values with
 * `Vals`, an array of 64 that is null behind the last value. Case counts.
 *
 * Returns 0 when every given criterion holds, otherwise 1. */
KO_API int CfgEntCmp(CfgEnt_t *CfgEnt, const char *KovaCfgName, char **Vals, const char *Comment);

/* Read "yes" or "no" in any case, or "1" or "0"; anything else, and null, is THREEST_UNKNOWN. */
KO_API ThreeState_t ThreeStateFmStr(const char *InStr);

KO_END_DECLS

#endif
