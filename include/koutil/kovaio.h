/* kovaio.h - files and directories.
 *
 * The library's configuration modules reach the file system through these calls only. Each wraps
 * one system call, or does one small job (make a path, remove a tree, copy a file, list a
 * directory), and returns a status; nothing is logged.
 *
 *     KovaHndl_t *file;
 *     if (KovaOpen(path, KOVA_OPEN_READ, &file) == 0) {
 *         char text[512];
 *         KovaSz_t size = sizeof text;
 *         status = KovaRead(file, text, &size);
 *         KovaClose(&file);
 *     }
 *
 * Status:         0, the errno of the system call that failed, or one of the module's own codes:
 *                     2   no more entries (KovaDirEnumNext)
 *                     4   no handle (KovaClose)
 *                     7   exists already (KovaMkdir)
 *                     11  no place for a handle (KovaOpen); null or empty path (KovaMkPath)
 *                     16  path too long (KovaRmPath)
 *                     20  out of memory (KovaOpen, KovaMkPath, KovaDirEnumStart)
 *                 These share the numbers of errno: 2 from KovaDirEnumNext is also what a dangling
 *                 link gives when a status is asked for, and 20 from KovaMkPath is also ENOTDIR.
 * Life:           KovaOpen -> read, write, seek, map -> KovaClose;
 *                 KovaDirEnumStart -> KovaDirEnumNext ... -> KovaDirEnumEnd.
 * Thread safety:  no shared state; a handle or listing belongs to one thread at a time.
 * Units:          sizes and offsets are bytes, times are seconds since the epoch.
 *
 * Every descriptor is close-on-exec. One read or write is made per call and a short count is
 * returned as it is: callers that need the rest call again.
 */
#ifndef KOUTIL_KOVAIO_H
#define KOUTIL_KOVAIO_H

#include "koutil/types.h"

#include <sys/types.h>
#include <time.h>

KO_BEGIN_DECLS

/* A size, offset or count of bytes. */
typedef size_t KovaSz_t;

/* How to open a file: an OR of the bits below. Without KOVA_OPEN_RDWR the file is read-only. */
typedef uint32_t KovaFlgs_t;
#define KOVA_OPEN_READ   1u /* accepted; reading is always allowed */
#define KOVA_OPEN_RDWR   2u /* reading and writing */
#define KOVA_OPEN_CREATE 4u /* make a missing file, mode 0664 less the umask */
#define KOVA_OPEN_EXCL   8u /* with KOVA_OPEN_CREATE: fail if the file exists */

/* What a path names: one of the values below. */
typedef unsigned int KovaFiType_t;
#define KOVA_FITYPE_OTHER   0u /* anything else */
#define KOVA_FITYPE_REGULAR 1u /* a regular file */
#define KOVA_FITYPE_DIR     2u /* a directory */

/* An open file. */
typedef struct KovaHndl_s {
    int _KovaHndl;           /* descriptor, -1 when closed */
    int _KovaHndlMmap;       /* -1 */
    int _KovaHndlMmapRefCnt; /* 0 */
} KovaHndl_t;

/* What a path names, as KovaStat reports it. */
typedef struct KovaStat_s {
    KovaSz_t KovaSz;         /* size in bytes */
    KovaFiType_t KovaFiType; /* KOVA_FITYPE_... */
    time_t KovaAtime;        /* last access */
    time_t KovaMtime;        /* last modification */
    time_t KovaCtime;        /* last status change */
} KovaStat_t;

/* The sizes of a file system. */
typedef struct KovaStatFS_s {
    KovaSz_t KovaBSize;  /* block size of the file system */
    uint64_t KovaBlocks; /* blocks in all */
    uint64_t KovaBAvail; /* blocks that unprivileged users may still take */
} KovaStatFS_t;

/* An open directory listing. */
typedef struct KovaDirEnum_s {
    char *KovaPath; /* own copy of the directory's path */
    void *FindHndl; /* the platform's directory stream */
} KovaDirEnum_t;

/* Put a handle into its initial state: no descriptor, no mapping. */
KO_API void _KovaInitHndl(KovaHndl_t *KovaHndl);

/* Open a file. An existing file keeps its contents: only KovaFTruncate cuts it.
 *
 * Ownership: the handle goes back through KovaClose.
 * Returns 0; 11 when `KovaHndlOut` is null; 20 when memory runs out; or the errno of the open.
 * On failure *KovaHndlOut is null. */
KO_API VoError_t KovaOpen(const char *KovaPath, KovaFlgs_t KovaFlgs, KovaHndl_t **KovaHndlOut);

/* Close and free a handle and set the caller's pointer to null.
 *
 * Returns 0; 4 when there is no handle; or the errno of the close, the handle then being gone as
 * well. */
KO_API VoError_t KovaClose(KovaHndl_t **KovaHndlIn);

/* Read up to *BuffSz bytes; *BuffSz becomes the count read, 0 at the end of the file.
 *
 * Returns 0, or the errno of the read, *BuffSz then being 0. */
KO_API VoError_t KovaRead(KovaHndl_t *KovaHndl, char *Buff, KovaSz_t *BuffSz);

/* Write up to *BuffSz bytes; *BuffSz becomes the count written, which may be short.
 *
 * Returns 0, or the errno of the write, *BuffSz then being 0. */
KO_API VoError_t KovaWrite(KovaHndl_t *KovaHndl, const char *Buff, KovaSz_t *BuffSz);

/* Set the position to `SeekPnt` bytes from the start.
 *
 * Returns 0, or the errno of the seek. */
KO_API VoError_t KovaSeek(KovaHndl_t *KovaHndl, KovaSz_t SeekPnt);

/* Set the file's length; the position stays.
 *
 * Returns 0, or the errno of the call. */
KO_API VoError_t KovaFTruncate(KovaHndl_t *KovaHndl, KovaSz_t KovaSz);

/* Map `KovaSz` bytes from offset `KovaSzStart`, a multiple of the page size, shared, readable and
 * writable. The mapping outlives the handle.
 *
 * Returns 0, or the errno of the call, *BuffOut then being null. */
KO_API VoError_t KovaMmap(KovaHndl_t *KovaHndl, KovaSz_t KovaSzStart, KovaSz_t KovaSz,
                          void **BuffOut);

/* Take a mapping of `BuffSz` bytes down. *BuffIn becomes null whatever the outcome. The handle is
 * not looked at and may be null.
 *
 * Returns 0, or the errno of the call. */
KO_API VoError_t KovaMunmap(KovaHndl_t *KovaHndl, KovaSz_t BuffSz, void **BuffIn);

/* Report what a path names, symbolic links followed.
 *
 * Returns 0, or the errno of the call, the record then being zero. */
KO_API VoError_t KovaStat(const char *KovaPath, KovaStat_t *Stat);

/* Report the path itself, symbolic links not followed.
 *
 * Returns 0, or the errno of the call, the record then being zero. */
KO_API VoError_t KovaLStat(const char *KovaPath, KovaStat_t *Stat);

/* Report as KovaStat does with `FollowLinks` other than 0, as KovaLStat does with 0. */
KO_API VoError_t KovaStatInternal(const char *KovaPath, int FollowLinks, KovaStat_t *Stat);

/* Report the sizes of the file system that `Path` lies on.
 *
 * Returns 0, or the errno of the call, the record then being zero. */
KO_API VoError_t KovaStatFS(const char *Path, KovaStatFS_t *Stat);

/* Make one directory, mode 0755 less the umask.
 *
 * Returns 0; 7 when the name exists, as a directory or as anything else; or the errno. */
KO_API VoError_t KovaMkdir(const char *KovaPath);

/* Make every missing directory along a path. A backslash separates as a slash does. A last
 * component that exists as a file is taken for success, an earlier one gives the platform's error.
 *
 * Returns 0; 11 for a null or empty path; 20 when memory runs out; or the errno of the first
 * directory that could not be made. */
KO_API VoError_t KovaMkPath(const char *KovaPath);

/* Remove a file, or a directory with everything below it. Symbolic links are removed, never
 * followed. One descriptor is open for each level below the path.
 *
 * Returns 0; 16 when the path of something below is longer than 1024 characters; or the first
 * error, what was removed until then being gone. */
KO_API VoError_t KovaRmPath(const char *KovaPath);

/* Remove a file.
 *
 * Returns 0, or the errno of the call. */
KO_API VoError_t KovaDelete(const char *KovaPath);

/* Remove an empty directory.
 *
 * Returns 0, or the errno of the call. */
KO_API VoError_t KovaDeleteDir(const char *KovaPath);

/* Rename a file or directory, replacing a file of the new name.
 *
 * Returns 0, or the errno of the call, both names then being as they were. */
KO_API VoError_t KovaRename(const char *KovaPathOld, const char *KovaPathNew);

/* Copy a file's bytes; `DstPath` is made, mode 0666 less the umask, or emptied first. The kernel
 * copies where it can.
 *
 * Returns 0; the errno of an open or a close; or 1 when reading or writing failed on the way. The
 * last 4096 bytes or less are written at the close, so a failure there gives an errno.
 * On failure `DstPath` holds what was written until then. A file copied onto itself is emptied. */
KO_API VoError_t KovaFileCopy(const char *SrcPath, const char *DstPath);

/* Open a directory listing and fetch its first entry, as KovaDirEnumNext does.
 *
 * Ownership: the listing goes back through KovaDirEnumEnd.
 * Returns 0; 20 when memory runs out; the errno of the open; or the status of the first fetch.
 * On failure *KovaDirEnumOut is null. */
KO_API VoError_t KovaDirEnumStart(const char *KovaPath, int ObjNameSz, char *ObjName,
                                  KovaStat_t *Stat, KovaDirEnum_t **KovaDirEnumOut);

/* Fetch the next entry, in the order of the directory; "." and ".." are entries. `ObjName`, of
 * `ObjNameSz` bytes, gets the name, cut to fit and padded with zeros. `Stat` is optional; given, it
 * gets the entry's status, links followed, from a path that is cut at 510 characters.
 *
 * Returns 0; 2 after the last entry and when the directory cannot be read; or the status of the
 * entry's KovaStat. */
KO_API VoError_t KovaDirEnumNext(KovaDirEnum_t *KovaDirEnum, int ObjNameSz, char *ObjName,
                                 KovaStat_t *Stat);

/* Close and free a listing and set the caller's pointer to null. A null listing is allowed. */
KO_API void KovaDirEnumEnd(KovaDirEnum_t **KovaDirEnumIn);

/* Open a file as open(2) does, with close-on-exec set. `mode` counts where `flags` make a file.
 *
 * Returns the descriptor, or -1 with errno set. */
KO_API int voopen(const char *pathname, int flags, mode_t mode);

KO_END_DECLS

#endif
