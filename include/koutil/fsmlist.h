/* fsmlist.h - the list of file systems whose managers this host may run.
 *
 * The list is the file "fsmlist" in the configuration directory, a keyword file of words, one file
 * system to a line: its name, and ". PRIORITY" where it has one; a comment may follow.
 *
 *     data1 . 5
 *     data2              # spare
 *
 * A handle holds the list in memory. Positions count from 0; edits reach the file by FsmListSave or
 * by a close that saves. A comment is saved as a line of its own before its entry, and read back as
 * an entry of its own with an empty name: positions are those of the list in memory, and a list
 * that is loaded again may have more entries than the one that was saved. Look names up with
 * FsmListFind.
 *
 * Names:          255 characters; longer ones are cut, in the file and in what callers pass.
 * Status:         0; 2 no such entry; 6 unsaved edits stand in the way; 11 a null argument, a
 *                 priority out of range, or a handle whose list was lost in a failed refresh;
 *                 20 out of memory; otherwise the status of the keyword file (kovacfg.h).
 * Life:           FsmListOpen -> ... -> FsmListClose.
 * Thread safety:  no locks; a handle belongs to one thread at a time. What other processes change
 *                 is seen through FsmListRefresh only; two that save at once overwrite each other.
 */
#ifndef KOUTIL_FSMLIST_H
#define KOUTIL_FSMLIST_H

#include "koutil/kovacfg.h"
#include "koutil/types.h"

KO_BEGIN_DECLS

/* The highest priority; 0 stands for none. */
#define FSMLIST_MAX_PRIORITY 32767

/* An open list. */
typedef struct FsmListHndl_s {
    uint32_t MtimeOrig;     /* the file's modification time when loaded, low 32 bits; 0 unknown */
    KovaCfg_t *KovaCfg;     /* the list with all edits; null after a failed refresh */
    KovaCfg_t *KovaCfgOrig; /* the list as loaded or last saved */
} FsmListHndl_t;

/* One entry as callers see it. */
typedef struct FsmListEnt_s {
    int Index;         /* position; -1 when not found */
    char FsmName[256]; /* the file system; empty for a line that has no name */
    int Priority;      /* 0 to FSMLIST_MAX_PRIORITY; 0 for none */
    int Compatibility; /* 1: the line holds the compatibility marker -470; never written */
    char Comment[80];  /* cut at 79 characters */
} FsmListEnt_t;

/* Open and load the list; `OpenFlags` are those of KovaOpen, and only those that create make a
 * missing file.
 *
 * Ownership: the handle goes back through FsmListClose.
 * Returns 0; 20; or the status of KovaCfgOpen or, for a line that cannot be copied, KovaCfgCopy.
 * On failure *FsmListHndlOut is null. */
KO_API VoError_t FsmListOpen(FsmListHndl_t **FsmListHndlOut, KovaFlgs_t OpenFlags);

/* Free a handle and set the caller's pointer to null; a null handle is allowed. The list is saved
 * first when `SaveChanges` is exactly 1.
 *
 * Returns 0, or the status of the save; the handle is gone in either case. */
KO_API VoError_t FsmListClose(FsmListHndl_t **FsmListHndl, int SaveChanges);

/* Read the entry at a position.
 *
 * Returns 0; 2 past the end; or 11. On failure the entry is empty but for its Index. */
KO_API VoError_t FsmListRead(FsmListHndl_t *FsmListHndl, int Index, FsmListEnt_t *FsmListEnt);

/* Find the first entry with that name; case counts.
 *
 * Returns 0; 2; or 11. On failure the entry is empty, with the Index -1. */
KO_API VoError_t FsmListFind(FsmListHndl_t *FsmListHndl, const char *FsName,
                             FsmListEnt_t *FsmListEnt);

/* Insert an entry before position `Index`, or at the end when it is -1 or past the end. Name,
 * priority and comment are taken from `FsmListEnt`, its Index and Compatibility are not.
 *
 * Returns 0; 11 for a priority out of range; or the status of KovaCfgInsert. */
KO_API VoError_t FsmListInsert(FsmListHndl_t *FsmListHndl, int Index,
                               const FsmListEnt_t *FsmListEnt);

/* Replace the entry at a position, as FsmListInsert makes it.
 *
 * Returns 0; 2 past the end; or as FsmListInsert. On failure the list is unchanged. */
KO_API VoError_t FsmListModify(FsmListHndl_t *FsmListHndl, int Index,
                               const FsmListEnt_t *FsmListEnt);

/* Remove the entry at a position.
 *
 * Returns 0; 2 past the end; or 11. */
KO_API VoError_t FsmListDelete(FsmListHndl_t *FsmListHndl, int Index);

/* Tell whether the list differs from what was loaded or last saved.
 *
 * Returns 1 if it does, else 0. */
KO_API int FsmListIsModified(FsmListHndl_t *FsmListHndl);

/* Write the list back, as KovaCfgSave does; unsaved edits are counted from here.
 *
 * Returns 0; 11; or the status of the save, or of the copy taken for the detection of changes. */
KO_API VoError_t FsmListSave(FsmListHndl_t *FsmListHndl);

/* Load the list again when the file's modification time has changed, or when an earlier refresh
 * lost the list. A missing file is made. The list then has the open flags read, write, create.
 *
 * Returns 0; 6, with nothing changed, when there are unsaved edits; or the status of the load, the
 * handle then holding no list until a refresh succeeds. */
KO_API VoError_t FsmListRefresh(FsmListHndl_t *FsmListHndl);

/* Add a name to the end of the list on disk unless it is there; a missing list is made.
 *
 * Returns 0, or -1 when the list could not be opened or the name not inserted. The status of the
 * save is not reported: whoever must know opens the list. */
KO_API VoError_t FsmListAddName(const char *FsName);

/* Read the modification time of a file.
 *
 * Returns the low 32 bits of the seconds, or 0 when it cannot be read. */
KO_API uint32_t _FsmListGetFileModTime(const char *FilePath);

KO_END_DECLS

#endif
