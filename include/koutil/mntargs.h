/* mntargs.h - the mount arguments of a file system: the record, the table of tunables, files.
 *
 * A record holds what one mount is made with: thread counts, cache sizes, time-outs, names, option
 * flags, and the settings of the TOVAN proxy transfer. The table g_MntArgsInf describes every
 * tunable of it, and everything here works from that table:
 *
 *     MntArgsMask_t used;
 *     mntargs_t *args = NULL;
 *     char message[4096];
 *     if (VoMntArgsLoadFile("/etc/vorn/data1.opts", sizeof message, message, &used, &args) == 0) {
 *         VoMntArgsMntOptsAutoSet(args);
 *         if (VoMntArgsValidate(args, NULL, message, sizeof message) != 0) { puts(message); }
 *         VoMntArgsFree(&args);
 *     }
 *
 * A record is always one block: the mntargs_t, directly followed by 49 ProxyNicArgs_t. The first of
 * those holds the global TOVAN settings, the next ma_numnicargs those of the selected interfaces:
 *
 *     0              1048                       1112                                      4184
 *     | mntargs_t    | global ProxyNicArgs_t    | interface 0 | interface 1 | ... | 47    |
 *
 * Functions that look at TOVAN settings read behind the record: never hand them a mntargs_t that
 * stands alone.
 *
 * Life:           VoMntArgsAlloc, VoMntArgsClone or VoMntArgsLoadFile -> VoMntArgsFree.
 * Status values:  0; 11 unknown key or invalid value in a file; 12 out of memory; 22 and 36 where a
 *                 check says so; 38 the store of records does not exist on this platform; 95 not
 *                 supported on this platform; others are passed on from kovacfg.h.
 * Thread safety:  the table is only read; a record belongs to one thread at a time.
 */
#ifndef KOUTIL_MNTARGS_H
#define KOUTIL_MNTARGS_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Interface records behind the global one. */
#define MNTARGS_MAX_NICS 48

/* The TOVAN settings of a mount, or of one interface. */
typedef struct _proxynicargs {
    char pn_macaddr[16];        /* hardware address as text */
    in46addr_t pn_nicip;        /* the interface's address */
    uint32_t pn_windowsize;     /* TCP window size, K */
    uint32_t pn_flags;          /* proxy flags, 0 to 3 */
    uint32_t pn_sbsize;         /* transfer buffer size, K */
    uint32_t pn_sbcount;        /* transfer buffer count */
    uint32_t pn_lbcount;        /* buffer count */
    uint32_t pn_ndmons;         /* thread count */
    uint32_t pn_xfertimeout;    /* transfer time-out, seconds */
    uint32_t pn_connecttimeout; /* connection time-out, seconds */
} ProxyNicArgs_t;

/* One set of mount arguments. Consumers share its layout: 1048 bytes without hidden padding. */
typedef struct _mntargs {
    uint16_t ma_ndmons;                /* file-system threads for asynchronous events */
    uint16_t ma_naiodmons;             /* asynchronous I/O threads */
    int16_t ma_dmonprio;               /* priority of those threads */
    uint16_t ma_retrans;               /* attempts to send a message to the FSM */
    uint16_t ma_sysloglevel;           /* logging level */
    uint16_t ma_timeout;               /* message time-out in tenths of a second */
    uint16_t ma_mntretrans;            /* retransmissions to the mount system */
    uint16_t ma_mntretry;              /* retries of a failed mount */
    uint64_t ma_mountoptions;          /* MNTOPT_... and the bits of others */
    uint32_t ma_cachelow;              /* cache low water */
    uint32_t ma_cachehigh;             /* cache high water */
    uint32_t ma_cachemax;              /* maximum cached entries */
    uint32_t ma_cacheholdsecs;         /* seconds to hold dirty cache entries */
    uint32_t ma_cachebufsize;          /* size of one cache buffer */
    uint32_t ma_buffercachecap;        /* buffer cache size in MB */
    uint32_t ma_bufferhighdirty;       /* high watermark of background flushing in MB */
    uint32_t ma_bufferlowdirty;        /* low watermark of background flushing in MB */
    uint32_t ma_buffercache_iods;      /* buffer cache I/O threads */
    uint32_t ma_buffercache_readahead; /* read-ahead window in cache buffers */
    uint32_t ma_max_dma_ios;           /* DMA I/Os that may be queued */
    uint32_t ma_stripeclusters;        /* concurrent stripe clusters */
    uint32_t ma_attrflushsecs;         /* seconds between attribute updates */
    uint32_t ma_shattrflushsecs;       /* seconds between shared attribute updates */
    uint32_t ma_memalign;              /* memory alignment */
    uint32_t ma_blkbufsize;            /* largest buffer for unaligned I/O, bytes */
    uint32_t ma_nrtiotokenhold;        /* seconds to hold non-realtime I/O tokens */
    uint32_t ma_dircachesize;          /* directory cache size, bytes */
    uint64_t ma_auto_dma_read_length;  /* smallest read done as direct DMA, bytes */
    uint64_t ma_auto_dma_write_length; /* smallest write done as direct DMA, bytes */
    uint32_t ma_iso8859;               /* name conversion selector */
    uint32_t pad_2;                    /* 0 */
    uint64_t ma_ingest_max_seg_size;   /* largest distance between ingest fences, bytes */
    uint32_t ma_ingest_max_seg_age;    /* seconds before ingest segments are sent */
    uint32_t pad_3;                    /* 0 */
    char ma_fsdispname[256];           /* display name */
    char ma_fsname[256];               /* file-system name */
    char ma_mntpoint[256];             /* mount point */
    uint32_t ma_rtreqtimeout;          /* realtime request time-out */
    uint32_t ma_rtreqretry;            /* token and realtime I/O retries */
    uint32_t ma_pxpath;                /* TOVAN load-balancing mode */
    uint32_t ma_rescantimeout;         /* TOVAN rescan time-out in tenths of a second */
    uint64_t ma_max_dma;               /* largest DMA a process may issue */
    uint64_t ma_max_dev;               /* largest I/O issued to the disk driver */
    uint32_t ma_nnfsdmons;             /* NFS server worker threads */
    uint32_t pad_4;                    /* 0 */
    char ma_winregkeynm[33];           /* registry key; not used by the library */
    char pad_5[7];                     /* 0 */
    uint64_t ma_maxnppoolmb;           /* non-paged memory limit in MB */
    uint32_t ma_px_read_timeout;       /* TOVAN read time-out, seconds */
    uint32_t ma_px_write_timeout;      /* TOVAN write time-out, seconds */
    uint32_t ma_numnicargs;            /* interface records that follow, at most 48 */
    uint32_t ma_io_retry_time;         /* seconds for the I/O retry decision */
    uint32_t ma_io_penalty_time;       /* seconds an I/O path is penalised */
    uint32_t pad_6;                    /* 0 */
    uint8_t ma_guid_win_cli[16];       /* not used by the library */
    uint64_t ma_optbuf;                /* not used by the library */
    uint64_t ma_proxynicargs;          /* address of the first interface record; set by a copy */
} mntargs_t;

/* Bits of ma_mountoptions. VoMntArgsMntOptsAutoSet derives the ..._CHANGED ones: each says that
 * its tunables are not at their defaults. */
#define MNTOPT_MAXDMAIOS_CHANGED    UINT64_C(0x1000)       /* ma_max_dma_ios */
#define MNTOPT_MEMALIGN_CHANGED     UINT64_C(0x8000)       /* ma_memalign */
#define MNTOPT_BLKBUFSIZE_CHANGED   UINT64_C(0x10000)      /* ma_blkbufsize */
#define MNTOPT_DIRCACHESIZE_CHANGED UINT64_C(0x100000)     /* ma_dircachesize */
#define MNTOPT_AUTODMARD_CHANGED    UINT64_C(0x200000)     /* ma_auto_dma_read_length */
#define MNTOPT_AUTODMAWR_CHANGED    UINT64_C(0x400000)     /* ma_auto_dma_write_length */
#define MNTOPT_READAHEAD_CHANGED    UINT64_C(0x800000)     /* ma_buffercache_readahead */
#define MNTOPT_CACHE_CHANGED        UINT64_C(0x2000000)    /* cachemax, cachelow or cachehigh */
#define MNTOPT_TOVAN_CLIENT         UINT64_C(0x80000000)   /* the mount uses the TOVAN proxy */
#define MNTOPT_TOVAN_SERVER         UINT64_C(0x100000000)  /* the host serves as TOVAN proxy */
#define MNTOPT_IOPENALTY_CHANGED    UINT64_C(0x1000000000) /* ma_io_penalty_time */
#define MNTOPT_IORETRY_CHANGED      UINT64_C(0x2000000000) /* ma_io_retry_time */

/* The kind of a field. Signed and unsigned kinds of one width are handled alike: as unsigned. */
typedef enum {
    MNTARGS_TYPE_INVAL = 0, /* ends the table */
    MNTARGS_TYPE_CHAR = 1,
    MNTARGS_TYPE_UCHAR = 2,
    MNTARGS_TYPE_INT16 = 3,
    MNTARGS_TYPE_UINT16 = 4,
    MNTARGS_TYPE_INT32 = 5,
    MNTARGS_TYPE_UINT32 = 6,
    MNTARGS_TYPE_INT64 = 7,
    MNTARGS_TYPE_UINT64 = 8,
    MNTARGS_TYPE_CHARP = 9 /* a text field of 256 characters */
} MntArgsType_t;

/* Platforms on which a row applies, 0xFFFFFFFF for all. The library does not test it. */
typedef uint32_t MntArgsPlat_t;

/* One bit for each row of the table, bit number mai_Index. */
typedef uint64_t MntArgsMask_t;

/* One row of the table. */
typedef struct {
    uintptr_t mai_MntArgsOff; /* byte position of the field in mntargs_t */
    char *mai_Title;          /* title shown to users */
    char *mai_Name;           /* keyword */
    char *mai_Help;           /* help text, of one or more lines; not always ended by a newline */
    uint64_t mai_ValMin;      /* smallest valid value; for a text its smallest length, not tested */
    uint64_t mai_ValMax;      /* largest valid value; for a text its largest length */
    uint64_t mai_ValDflt;     /* default; 0 for a text */
    MntArgsPlat_t mai_MntArgsPlat; /* platforms */
    MntArgsType_t mai_MntArgsType; /* kind of the field */
    int mai_Index;                 /* bit number */
    char *mai_RegValName;          /* second key under which a value may be stored, or null */
} MntArgsInf_t;

/* The tunables: 48 rows, row n with bit n, and a last row of zeroes that ends every walk. */
KO_API extern MntArgsInf_t g_MntArgsInf[49];

/* Check a record against the table.
 *
 * With `MntArgsMask`, only the rows whose bits are set in it are checked; null checks all. Each row
 * is held against its range, each text against its length; then, where their rows are among those
 * to check, the low watermark must be below the high one, the high one must be 2 or more and fit in
 * the buffer cache (unless it is 0, which switches both off), and there must be a mount point.
 *
 * Each problem appends a paragraph for users to `MsgBuff`, as far as there is room: at most
 * `MsgBuffSz` - 2 characters in all. The last byte of the buffer is always set to NUL; a valid
 * record changes nothing else in it. `MsgBuff` may be null, and `MsgBuffSz` 0.
 *
 * Returns the number of problems, 0 for a valid record. `*MntArgsMask` is replaced by the rows that
 * failed. */
KO_API unsigned int VoMntArgsValidate(mntargs_t *Mntargs, MntArgsMask_t *MntArgsMask, char *MsgBuff,
                                      size_t MsgBuffSz);

/* Check the TOVAN settings: the option bits and the global record, not the interfaces' own records.
 * Mind the order of the arguments: the size comes before the buffer.
 *
 * Returns 0, the buffer then being terminated in its last byte and otherwise untouched; or 22 with
 * the message of the first check that failed, at most `MsgBuffSz` - 2 characters of it. */
KO_API VoError_t VoMntArgsValidateTovan(mntargs_t *Mntargs, size_t MsgBuffSz, char *MsgBuff);

/* Check the mount point alone. The last byte of the buffer, when it has one, is set to NUL.
 *
 * Returns 0; 22 with a message when it is empty; 36 with a message when it fills its field. */
KO_API VoError_t _Validate_MntPnt(mntargs_t *Mntargs, char *MsgBuff, size_t MsgBuffSz);

/* Compare two records row by row, texts with case, and their TOVAN records.
 *
 * Returns 1 if anything differs, else 0. `*MntArgsDiff` receives one bit per differing row; TOVAN
 * records that differ show as the row "numnicargs". */
KO_API int VoMntArgsCmp(mntargs_t *MntargsSrc, mntargs_t *MntargsTarg, MntArgsMask_t *MntArgsDiff);

/* Compare the TOVAN records: their number, the global one and those of the interfaces, at most 48.
 *
 * Returns 0 if they are alike; else 1, with the bit of the row "numnicargs" added to
 * `*MntArgsDiff`. */
KO_API int _VoMntArgsCmp_Tovan(mntargs_t *MntargsSrc, mntargs_t *MntargsTarg,
                               MntArgsMask_t *MntArgsDiff);

/* Derive the ..._CHANGED bits of ma_mountoptions from the tunables; the other bits stay. Run it
 * after changing tunables: neither loading a file nor validating does. */
KO_API void VoMntArgsMntOptsAutoSet(mntargs_t *Mntargs);

/* Find the row with the keyword `MaiName`, with case.
 *
 * Returns the row, or the last row of the table, whose mai_Name is null: never null. */
KO_API MntArgsInf_t *MntArgsInfFindByName(const char *MaiName);

/* Number the rows whose mai_Index is -1, from 0 in the order of the table. The rows come numbered,
 * so there is nothing to do and no need to call it. */
KO_API void _MntArgsInfInit(void);

/* Put the defaults into a global TOVAN record; pn_flags, pn_macaddr and pn_nicip stay. */
KO_API void _VoMntArgsInit_Tovan(ProxyNicArgs_t *NicArgsGlobal);

/* Allocate a record with every default set.
 *
 * Returns the record, or null when memory runs out. Ownership: the caller's, until
 * VoMntArgsFree. */
KO_API mntargs_t *VoMntArgsAlloc(void);

/* Free the record, if there is one, and set the caller's pointer to null. */
KO_API void VoMntArgsFree(mntargs_t **Mntargs);

/* Copy a record with its TOVAN records. Interface records of `MntargsDst` beyond the source's stay
 * as they were. Of a source that claims more than 48 interfaces no TOVAN record is copied, and the
 * copy's ma_proxynicargs is 0. */
KO_API void VoMntArgsCpy(mntargs_t *MntargsDst, mntargs_t *MntargsSrc);

/* A new record with the contents of another.
 *
 * Returns the record, or null when memory runs out. */
KO_API mntargs_t *VoMntArgsClone(mntargs_t *MntargsSrc);

/* Load a mount-argument file: lines `key=value` of the keyword configuration file. Mind the order
 * of the arguments: the size comes before the buffer.
 *
 *     key, in any case                         effect
 *     mntoptions, MountOptions64               ma_mountoptions is replaced
 *     MountOptions                             ma_mountoptions |= number
 *     MountOptions2                            ma_mountoptions |= number << 32
 *     a keyword or second key of the table     the row's field is set, and its bit in *MntArgsUsed
 *     LastErr, LastErrTm (in this case only)   the rest of the file is not read
 *
 * Blanks belong to the key and to the value. Lines without a value, and without a key, are passed
 * over. A number must fit its field; negative numbers pass and are stored at the field's width. A 0
 * is not stored where 0 is below the row's range: the default stays. A text is cut at 255
 * characters. Ranges are not checked (VoMntArgsValidate), and the derived option bits are not
 * computed (VoMntArgsMntOptsAutoSet).
 *
 * Returns 0 with the new record in `*MntargsNew` and the rows that the file set in `*MntArgsUsed`.
 * On failure returns the status with null and 0 there, and a line in `ErrBuff`, which is optional;
 * it ends in a newline, where the keyword file's own message does not. */
KO_API VoError_t VoMntArgsLoadFile(const char *CliFiPath, int ErrBuffSz, char *ErrBuff,
                                   MntArgsMask_t *MntArgsUsed, mntargs_t **MntargsNew);

/* Set every tunable to its default, empty the texts, and name the display name "KOVA". */
KO_API void _VoMntArgsInit(mntargs_t *Mntargs);

/* Copy the TOVAN records of a record, and point ma_proxynicargs at the copy's own.
 *
 * Returns 0, or 22 with nothing changed when the source claims more than 48 interfaces. */
KO_API VoError_t _VoMntArgsCpy_Tovan(mntargs_t *MntargsDst, mntargs_t *MntargsSrc);

/* A walk over the store of records. There is no store on this platform. */
typedef struct {
    void *md_Handle;       /* of the store; null at the start */
    unsigned int md_Index; /* position of the next record; 0 at the start */
} VoMntArgsEnum_t;

/* Open a walk over the store and fetch its first record.
 *
 * Returns 0, or the status of VoMntArgsEnumNext (38) or 12, with both outputs null. */
KO_API VoError_t VoMntArgsEnumStart(VoMntArgsEnum_t **VoMntArgsEnum, mntargs_t **MntargsNew);

/* Fetch the next record of the store.
 *
 * Returns 38 and sets `*MntargsNew` to null. */
KO_API VoError_t VoMntArgsEnumNext(VoMntArgsEnum_t *VoMntArgsEnum, mntargs_t **MntargsNew);

/* End a walk and set the caller's pointer to null. A null walk is accepted. */
KO_API void VoMntArgsEnumEnd(VoMntArgsEnum_t **VoMntArgsEnum);

/* Load the stored record of the file system `VoFsName`, compared without regard to case.
 *
 * Returns 0 with the record, or the status that ended the walk (38) with null. */
KO_API VoError_t VoMntArgsLoad(const char *VoFsName, mntargs_t **MntargsNew);

/* Save a record in the store, which does not exist on this platform.
 *
 * Returns 38; nothing changes. */
KO_API VoError_t VoMntArgsSave(mntargs_t *MntargsNew, MntArgsMask_t *MntArgsMask);

/* Delete a record from the store, which does not exist on this platform.
 *
 * Returns 38; nothing changes. */
KO_API VoError_t VoMntArgsDelete(mntargs_t *Mntargs);

/* Make the path that a mount needs; not supported on this platform.
 *
 * Returns 95; nothing changes. */
KO_API VoError_t VoMntArgsMkMntPath(mntargs_t *Mntargs, char *MsgBuff, size_t MsgBuffSz);

KO_END_DECLS

#endif
