/* rep_records.h - the records of a replication stream and their byte order.
 *
 * The structures are laid out as the records travel: offsets and gaps are those of the wire. In
 * memory their numbers are in host order; on the wire every number is big-endian, with two
 * exceptions that stay little-endian: pol_cmd_t.polcmd_key and rep_stats_t.rep_stream_len (also
 * inside rep_src_state_t). Texts, tags, data, gaps and fields named pad are never converted, except
 * rep_tgt_pad1 and rep_tgt_pad2.
 *
 * A stream is a sequence of 4-byte units: each name, payload, descriptor and piece of data is
 * followed by zero bytes up to the next multiple of 4.
 *
 *     record              magic        type      length on the wire
 *     rep_header_t        0xFACEBABE   -         32
 *     rep_cmd_t           0xBAADF00D   caller's  8 + payload
 *     rep_file_t          0xCAFEFEED   caller's  96 + name
 *     file_info_t         0xCAFEFEED   caller's  112 + name
 *     rep_ns_file_t       0xCAFEFEED   18        48 + name
 *     rep_sd_mapping_t    0xBAADDEED   20        20 + descriptor
 *     rep_blob_t          -            -         40
 *     rep_small_blob_t    -            -         28
 *
 * Use the lengths above, which have names below, and not sizeof: rep_sd_mapping_t and
 * rep_copy_admin_t are longer in memory than their fixed part on the wire. Every other structure
 * here is a payload of commands; the replication services convert it with its swap function before
 * sending and after receiving. What they keep in a field marked "services'", and the units of ages,
 * rates and elapsed times, is theirs; here those fields are only laid out and converted.
 *
 * The swap functions work in place, return nothing and serve both directions: converting twice
 * changes nothing. A record may stand at any address.
 *
 * Thread safety:  no state; any thread.
 */
#ifndef KOUTIL_REP_RECORDS_H
#define KOUTIL_REP_RECORDS_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Size of a stream's buffer. */
#define REP_BUFFER_SIZE 65536

/* Largest security descriptor of one mapping. */
#define REP_MAX_SD_LEN 65536

/* Largest payload of a command. */
#define REP_MAX_CMD_LEN 8192

/* Longest name that the senders take. */
#define REP_MAX_NAME_LEN 255

/* Version in every stream header. */
#define REP_STREAM_VERSION 5

/* Magics: what a record begins with. */
#define REP_HEADER_MAGIC    0xFACEBABEu /* stream header */
#define REP_CMD_MAGIC       0xBAADF00Du /* command */
#define REP_FILE_MAGIC      0xCAFEFEEDu /* file, extended file and namespace record */
#define REP_SD_MAGIC        0xBAADDEEDu /* security-descriptor mapping */
#define REP_SERVICE_MAGIC_1 0xCAFEBEADu /* the replication services' own */
#define REP_SERVICE_MAGIC_2 0xCAFEFACEu /* the replication services' own */

/* Record types with a meaning of their own. */
#define REP_TYPE_IP         5  /* a file record that always keeps its data count */
#define REP_TYPE_NS_FILE    18 /* a namespace record */
#define REP_TYPE_SD_MAPPING 20 /* a security-descriptor mapping */

/* Lengths of the fixed parts on the wire. */
#define REP_HEADER_LEN     32  /* rep_header_t */
#define REP_CMD_LEN        8   /* rep_cmd_t, without payload */
#define REP_FILE_LEN       96  /* rep_file_t, without name */
#define REP_FILE_INFO_LEN  112 /* file_info_t, without name */
#define REP_NS_FILE_LEN    48  /* rep_ns_file_t, without name */
#define REP_SD_MAPPING_LEN 20  /* rep_sd_mapping_t, without descriptor */
#define REP_BLOB_LEN       40  /* rep_blob_t */
#define REP_SMALL_BLOB_LEN 28  /* rep_small_blob_t */

/* Trailing parts are flexible arrays, an extension in C++. */
#if defined(__cplusplus) && defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif
#ifdef __cplusplus
#define KO_TAIL(type, name) __extension__ type name[]
#else
#define KO_TAIL(type, name) type name[]
#endif

typedef uint64_t dm_fsid_t; /* file system */
typedef uint64_t dm_ino_t;  /* inode number */
typedef uint32_t dm_igen_t; /* inode generation */

/* A time. */
typedef struct tmspec {
    uint32_t tv_sec;  /* seconds since the epoch */
    uint32_t tv_nsec; /* nanoseconds */
} tmspec_t;

/* State of one replication. Structures of the wire hold it as uint32_t. */
typedef enum rep_state {
    rep_state_new = 0,
    rep_state_sending = 1,
    rep_state_pend = 2,
    rep_state_ack = 3,
    rep_state_reject = 4,
    rep_state_done = 5,
    rep_state_failed = 6,
    rep_state_receive = 7,
    rep_state_ingest = 8,
    rep_state_pull = 9,
    rep_state_namespace = 10,
    rep_state_cleanup = 11,
    rep_state_requeued = 12,
    rep_state_cancelled = 13,
    rep_state_rebuild = 14
} rep_state_t;

/* Which end of a replication. */
typedef enum rep_type { pend_rep_src = 1, pend_rep_tgt = 2 } rep_type_t;

/* State of a file at a target. */
typedef enum tgt_state {
    rep_tgt_queued = 1,
    rep_tgt_pending = 2,
    rep_tgt_target = 3,
    rep_tgt_done = 4
} tgt_state_t;

/* Counter that a target is part of. */
typedef enum tgt_cnt_type {
    rep_cnt_active = 1,
    rep_cnt_requeued = 2,
    rep_cnt_failed = 3
} tgt_cnt_type_t;

/* The first record of a stream. */
typedef struct rep_header {
    uint32_t rep_magic;          /* REP_HEADER_MAGIC */
    uint16_t rep_flags;          /* caller's */
    uint16_t rep_stream_version; /* REP_STREAM_VERSION */
    dm_fsid_t rep_fsid;          /* file system */
    uint64_t rep_policy_key;     /* key of the replication policy */
    uint64_t rep_stream_id;      /* identifier of this stream */
} rep_header_t;

/* A command; the payload follows. */
typedef struct rep_cmd {
    uint32_t rep_magic;  /* REP_CMD_MAGIC */
    uint16_t rep_type;   /* caller's */
    uint16_t rep_cmdlen; /* payload length in bytes */
} rep_cmd_t;

/* A file's attributes; the name follows. */
typedef struct rep_file {
    uint32_t rep_magic;           /* REP_FILE_MAGIC */
    uint16_t rep_type;            /* caller's */
    uint16_t rep_namelen;         /* bytes of the name; 0 when there is none */
    uint32_t rep_data_cnt;        /* caller's */
    uint16_t rep_status;          /* replication state of the file; caller's */
    uint8_t rep_attr_flags;       /* attribute bits of the file */
    uint8_t rep_pad;              /* 0 */
    uint32_t rep_uid;             /* owner */
    uint32_t rep_gid;             /* group */
    uint32_t rep_mode;            /* permission bits */
    uint32_t rep_seqno;           /* sequence number; caller's */
    dm_ino_t rep_inode_inum;      /* inode number */
    dm_ino_t rep_parent_inum;     /* inode number of the parent directory */
    dm_igen_t rep_inode_igen;     /* inode generation */
    dm_igen_t rep_parent_igen;    /* generation of the parent directory */
    uint64_t rep_ntsd_key;        /* rep_sd_key of its security descriptor */
    tmspec_t rep_ctime;           /* last change of the inode */
    tmspec_t rep_mtime;           /* last change of the data */
    tmspec_t rep_etime;           /* caller's, zero when none */
    uint64_t rep_size;            /* size in bytes */
    KO_TAIL(char, rep_file_name); /* not terminated on the wire */
} rep_file_t;

/* A file's attributes, extended: rep_file_t up to rep_size, then two fields; the name follows.
 * Nothing on the wire tells it from a rep_file_t. */
typedef struct file_info {
    uint32_t rep_magic;           /* REP_FILE_MAGIC */
    uint16_t rep_type;            /* caller's */
    uint16_t rep_namelen;         /* bytes of the name; 0 when there is none */
    uint32_t rep_data_cnt;        /* caller's */
    uint16_t rep_status;          /* replication state of the file; caller's */
    uint8_t rep_attr_flags;       /* attribute bits of the file */
    uint8_t rep_pad;              /* 0 */
    uint32_t rep_uid;             /* owner */
    uint32_t rep_gid;             /* group */
    uint32_t rep_mode;            /* permission bits */
    uint32_t rep_seqno;           /* sequence number; caller's */
    dm_ino_t rep_inode_inum;      /* inode number */
    dm_ino_t rep_parent_inum;     /* inode number of the parent directory */
    dm_igen_t rep_inode_igen;     /* inode generation */
    dm_igen_t rep_parent_igen;    /* generation of the parent directory */
    uint64_t rep_ntsd_key;        /* rep_sd_key of its security descriptor */
    tmspec_t rep_ctime;           /* last change of the inode */
    tmspec_t rep_mtime;           /* last change of the data */
    tmspec_t rep_etime;           /* caller's, zero when none */
    uint64_t rep_size;            /* size in bytes */
    uint64_t rep_ino_seqno;       /* sequence number of the inode */
    uint64_t rep_ino_epoch;       /* 0 as sent by this library */
    KO_TAIL(char, rep_file_name); /* not terminated on the wire */
} file_info_t;

/* A name and where it stands; the name follows. */
typedef struct rep_ns_file {
    uint32_t rep_magic;           /* REP_FILE_MAGIC */
    uint16_t rep_type;            /* REP_TYPE_NS_FILE */
    uint16_t rep_namelen;         /* bytes of the name; 0 when there is none */
    dm_ino_t rep_inode_inum;      /* inode number */
    dm_ino_t rep_parent_inum;     /* inode number of the parent directory */
    dm_ino_t rep_local_inum;      /* local inode number */
    dm_igen_t rep_inode_igen;     /* inode generation */
    dm_igen_t rep_parent_igen;    /* generation of the parent directory */
    dm_igen_t rep_local_igen;     /* local inode generation */
    uint32_t rep_ns_flags;        /* caller's */
    KO_TAIL(char, rep_file_name); /* not terminated on the wire */
} rep_ns_file_t;

/* A security descriptor and its key; the descriptor follows at offset REP_SD_MAPPING_LEN. */
typedef struct rep_sd_mapping {
    uint32_t rep_magic;            /* REP_SD_MAGIC */
    uint16_t rep_type;             /* REP_TYPE_SD_MAPPING */
    uint16_t rep_pad;              /* 0 */
    uint64_t rep_sd_key;           /* what file records name in rep_ntsd_key */
    uint32_t rep_sd_data_len;      /* 1 to REP_MAX_SD_LEN bytes */
    KO_TAIL(uint8_t, rep_sd_data); /* the descriptor */
} rep_sd_mapping_t;

/* A piece of a file's data: where it stands in the file and in the blob named by the tag. */
typedef struct rep_blob {
    uint64_t rep_offset;  /* where the piece stands in the file */
    uint64_t rep_length;  /* bytes of the piece */
    uint64_t rep_bloboff; /* where it stands in the blob */
    char rep_tag[16];     /* the blob's name, 16 raw bytes */
} rep_blob_t;

/* A piece of a file's data, as rep_blob_t, where all numbers are below 4 GiB. */
typedef struct rep_small_blob {
    uint32_t rep_offset;  /* where the piece stands in the file */
    uint32_t rep_length;  /* bytes of the piece */
    uint32_t rep_bloboff; /* where it stands in the blob */
    char rep_tag[16];     /* the blob's name, 16 raw bytes */
} rep_small_blob_t;

/* Outcome of a replication. */
typedef struct rep_reply {
    uint32_t rep_result_code;      /* 0 for success */
    uint32_t rep_files_moved;      /* files transferred */
    uint32_t rep_metadata_updated; /* files whose attributes were set */
    uint64_t rep_data_moved;       /* bytes of the files transferred */
    uint64_t rep_data_sent;        /* bytes that went over the wire */
    uint64_t rep_data_read;        /* bytes read at the source */
    uint32_t rep_secs_elapsed;     /* duration, whole seconds */
    uint32_t rep_usecs_elapsed;    /* and microseconds */
} rep_reply_t;

/* A change of a file system's contents. */
typedef struct rep_delta {
    int32_t rep_files; /* files more or less */
    int32_t rep_pad;   /* 0 */
    int64_t rep_space; /* bytes more or less */
} rep_delta_t;

/* A file that is missing. */
typedef struct rep_miss {
    uint64_t missing_inum;       /* inode number */
    uint32_t missing_igen;       /* its generation */
    uint32_t missed_reason;      /* services' code */
    KO_TAIL(char, missing_file); /* terminated path */
} rep_miss_t;

/* Asks about a policy. */
typedef struct pol_query {
    uint64_t polqry_fsid; /* file system */
    uint64_t polqry_key;  /* key of the policy */
} pol_query_t;

/* A command to a policy. */
typedef struct pol_cmd {
    uint64_t polcmd_fsid;        /* file system */
    uint64_t polcmd_key;         /* little-endian on the wire */
    uint64_t polcmd_inum;        /* inode number */
    uint32_t polcmd_igen;        /* its generation */
    uint16_t polcmd_flags;       /* services' bits */
    uint16_t polcmd_opts;        /* services' bits */
    uint64_t polcmd_space_param; /* argument: space */
    uint64_t polcmd_age_param;   /* argument: age */
} pol_cmd_t;

/* Asks about a target. */
typedef struct tgt_query {
    uint64_t qry_key;       /* key of the policy */
    uint32_t qry_type;      /* services' code */
    uint32_t qry_flags;     /* services' bits */
    char tgt_location[256]; /* terminated name of the target */
} tgt_query_t;

/* A command about a copy. The path starts at offset 20, inside sizeof. */
typedef struct rep_copy_admin {
    uint64_t rep_copy_fsid;       /* file system */
    uint64_t rep_copy_key;        /* key of the policy */
    int32_t rep_copy_num;         /* number of the copy */
    KO_TAIL(char, rep_copy_path); /* terminated */
} rep_copy_admin_t;

/* A replication that is under way. */
typedef struct pending_info {
    uint64_t pending_fsid;         /* file system */
    uint64_t pending_key;          /* key of the policy */
    tmspec_t pending_start;        /* when it began */
    uint64_t pending_elapsed;      /* time since then */
    uint64_t pending_stream_id;    /* rep_stream_id of its stream */
    uint32_t pending_state;        /* a rep_state_t */
    uint32_t pending_type;         /* a rep_type_t */
    char pending_target[256];      /* terminated */
    KO_TAIL(char, pending_source); /* terminated */
} pending_info_t;

/* Statistics of one part of a replication. */
typedef struct progress_stats {
    tmspec_t start_time;   /* when they begin */
    uint64_t elapsed_time; /* time since then */
    uint32_t file_count;   /* files so far */
    uint32_t dir_count;    /* directories so far */
    uint32_t failed_files; /* files that failed */
    uint32_t pad;          /* not converted */
    uint64_t data_size;    /* bytes so far */
} progress_stats_t;

/* Another name of progress_stats_t. */
typedef progress_stats_t rep_progress_stats_t;

/* The progress of a replication. */
typedef struct progress_info {
    uint64_t prog_pending_fsid;      /* file system */
    uint64_t prog_pending_key;       /* key of the policy */
    uint32_t prog_retcode;           /* 0 for success */
    uint32_t prog_flags;             /* services' bits */
    tmspec_t prog_pending_start;     /* when it began */
    uint64_t prog_pending_elapsed;   /* time since then */
    uint64_t prog_pending_stream_id; /* rep_stream_id of its stream */
    uint32_t prog_pending_state;     /* a rep_state_t */
    uint32_t prog_pending_type;      /* a rep_type_t */
    char prog_src_tgt[256];          /* terminated */
    progress_stats_t prog_stats[7];  /* seven sets of statistics */
    uint64_t prog_total_metadata;    /* bytes of attributes in all */
    uint32_t prog_total_files;       /* files in all */
    uint32_t prog_total_dirs;        /* directories in all */
    uint32_t prog_missing_files;     /* missing files */
    uint32_t prog_pulling_files;     /* files being fetched */
    uint64_t prog_pulling_space;     /* their bytes */
    uint32_t prog_tag_cnt;           /* blob tags */
    uint32_t prog_pad;               /* not converted */
} progress_info_t;

/* A policy in brief. */
typedef struct pol_summary_s {
    uint64_t polsum_fsid;        /* file system */
    uint64_t polsum_key;         /* key of the policy */
    uint32_t polsum_flags;       /* services' bits */
    uint32_t polsum_rep_flags;   /* services' bits for replication */
    uint32_t polsum_md_gen;      /* generation of the attributes */
    uint32_t polsum_data_gen;    /* generation of the data */
    char polsum_inherit[32];     /* terminated */
    KO_TAIL(char, polsum_mount); /* terminated path of the directory */
} pol_summary_t;

/* A policy and its figures. */
typedef struct pol_info {
    uint64_t polinfo_fsid;                 /* file system */
    uint64_t polinfo_key;                  /* key of the policy */
    uint32_t polinfo_flags;                /* services' bits */
    uint32_t polinfo_rep_flags;            /* services' bits for replication */
    uint32_t polinfo_md_gen;               /* generation of the attributes */
    uint32_t polinfo_data_gen;             /* generation of the data */
    uint32_t polinfo_total_files;          /* files in all */
    uint32_t polinfo_total_dirs;           /* directories in all */
    uint64_t polinfo_deduped_files;        /* deduplicated files */
    uint64_t polinfo_deduped_space;        /* their bytes */
    uint64_t polinfo_cloud_files;          /* files in the cloud */
    uint64_t polinfo_cloud_space;          /* their bytes */
    uint32_t polinfo_ingest_pend_files;    /* files waiting to be ingested */
    uint64_t polinfo_ingest_pend_space;    /* their bytes */
    uint32_t polinfo_truncate_pend_files;  /* files waiting to be truncated */
    uint64_t polinfo_truncate_pend_space;  /* their bytes */
    uint32_t polinfo_replicate_pend_files; /* files waiting to be replicated */
    uint64_t polinfo_replicate_pend_space; /* their bytes */
    uint32_t polinfo_ingested_files;       /* files ingested */
    uint64_t polinfo_ingested_space;       /* their bytes */
    uint32_t polinfo_retrieved_files;      /* files retrieved */
    uint64_t polinfo_retrieved_space;      /* their bytes */
    uint32_t polinfo_truncated_files;      /* files truncated */
    uint64_t polinfo_truncated_space;      /* their bytes */
    uint32_t polinfo_replicated_files;     /* files replicated */
    uint64_t polinfo_replicated_space;     /* their bytes */
    uint64_t polinfo_virtual_tx;           /* virtual bytes sent */
    uint64_t polinfo_actual_tx;            /* actual bytes sent */
    uint64_t polinfo_actual_rx;            /* actual bytes received */
    uint64_t polinfo_metadata_tx;          /* bytes of attributes sent */
    uint64_t polinfo_rep_rate;             /* rate of replication */
    KO_TAIL(char, polinfo_mount);          /* terminated path of the directory */
} pol_info_t;

/* State of a file system. */
typedef struct fs_state_s {
    uint64_t fs_fsid;        /* file system */
    uint16_t fs_flags;       /* services' bits */
    uint16_t fs_bfst_state;  /* state of its blob store */
    uint64_t fs_age;         /* age of the file system */
    uint64_t fs_bfst_age;    /* age of the blob store */
    char fs_name[64];        /* terminated */
    KO_TAIL(char, fs_mount); /* terminated mount point */
} fs_state_t;

/* Statistics of a blob store. */
typedef struct bfst_stats {
    uint64_t input_blobs;     /* blobs offered */
    uint64_t data_blobs;      /* blobs stored */
    uint64_t input_blocklets; /* pieces offered */
    uint64_t data_blocklets;  /* pieces stored */
    uint64_t input_bytes;     /* bytes offered */
    uint64_t data_bytes;      /* bytes stored */
    uint64_t disk;            /* bytes of disk in use */
    uint64_t deleted_bytes;   /* bytes that deleted blobs held */
} bfst_stats_t;

/* State of a policy's target, as it is stored. */
typedef struct pol_target_state {
    uint32_t pts_magic;     /* services' */
    uint32_t pts_version;   /* services' */
    uint64_t src_fsid;      /* file system at the source */
    uint64_t src_key;       /* key of the policy at the source */
    uint64_t tgt_key;       /* key of the policy at the target */
    uint64_t rep_flags;     /* services' bits */
    char src_location[256]; /* terminated name of the source */
    char dst_location[256]; /* terminated name of the target */
    char src_path[1024];    /* terminated */
    char rep_name[1024];    /* terminated name of the replication */
} pol_target_state_t;

/* What a replication has to send. */
typedef struct rep_stats {
    uint64_t rep_data_size;     /* bytes of the files */
    uint32_t rep_file_cnt;      /* files */
    uint32_t rep_files_skipped; /* files left out */
    uint32_t rep_dir_cnt;       /* directories */
    uint32_t rep_tag_cnt;       /* blob tags */
    uint64_t rep_stream_len;    /* little-endian on the wire */
} rep_stats_t;

/* What a replication has sent to one target. */
typedef struct rep_target_stats {
    uint32_t rep_files_moved;      /* files transferred */
    uint32_t rep_metadata_updated; /* files whose attributes were set */
    uint64_t rep_data_moved;       /* bytes of the files transferred */
    uint64_t rep_data_sent;        /* bytes that went over the wire */
    uint64_t rep_metadata_sent;    /* bytes of attributes that went over the wire */
    uint64_t rep_data_read;        /* bytes read at the source */
} rep_target_stats_t;

/* State of a source; its target states (rep_target_state_t) follow directly. */
typedef struct rep_src_state {
    uint32_t rep_file_magic;   /* services' */
    uint32_t rep_file_version; /* services' */
    uint64_t rep_key;          /* key of the policy */
    tmspec_t rep_scan_time;    /* when the source was scanned */
    uint32_t rep_target_count; /* target states that follow */
    rep_stats_t rep_stats;     /* of the scan */
} rep_src_state_t;

/* State of one target of a source. */
typedef struct rep_target_state {
    char rep_tgt[256];                   /* terminated name of the target */
    char rep_tgt_path[512];              /* terminated path at the target */
    uint16_t rep_tgt_version;            /* version of the target */
    uint16_t rep_tgt_pad1;               /* converted */
    uint32_t rep_tgt_pad2;               /* converted */
    uint16_t rep_tgt_state;              /* state of the target */
    uint16_t rep_tgt_uptodate;           /* whether it is up to date */
    tmspec_t rep_tgt_success_time;       /* last success */
    tmspec_t rep_tgt_failure_time;       /* last failure */
    uint32_t rep_tgt_metadata_gen;       /* generation of the attributes there */
    uint32_t rep_tgt_data_gen;           /* generation of the data there */
    uint64_t rep_last_report_id;         /* report of the last run */
    uint64_t rep_last_fail_report_id;    /* report of the last failure */
    rep_target_stats_t rep_target_stats; /* of the last run */
} rep_target_state_t;

#undef KO_TAIL
#if defined(__cplusplus) && defined(__clang__)
#pragma clang diagnostic pop
#endif

/* Convert the fixed part of a command. */
KO_API void swap_rep_cmd(rep_cmd_t *cmd);

/* Convert the fixed part of a mapping; rep_pad stays. */
KO_API void swap_rep_sd_mapping(rep_sd_mapping_t *mapping);

/* Convert every number of a reply. */
KO_API void swap_rep_reply(rep_reply_t *reply);

/* Convert both halves of a time, each on its own. */
KO_API void swap_tmspec(tmspec_t *time);

/* Convert a delta; rep_pad stays. */
KO_API void swap_rep_delta(rep_delta_t *delta);

/* Convert the numbers of a report of a missing file. */
KO_API void swap_rep_miss(rep_miss_t *miss);

/* Convert a policy query. */
KO_API void swap_pol_query(pol_query_t *query);

/* Convert a policy command; polcmd_key stays. */
KO_API void swap_pol_cmd(pol_cmd_t *cmd);

/* Convert the numbers of a target query. */
KO_API void swap_tgt_query(tgt_query_t *query);

/* Convert the numbers of a copy command. */
KO_API void swap_rep_copy_cmd(rep_copy_admin_t *cmd);

/* Convert the numbers of a pending replication. */
KO_API void swap_pending_info(pending_info_t *info);

/* Convert the numbers of a progress report, those of its 7 statistics included; pads stay. */
KO_API void swap_progress_info(progress_info_t *info);

/* Convert the numbers of a policy summary. */
KO_API void swap_pol_summary(pol_summary_t *summary);

/* Convert the numbers of a policy's details. */
KO_API void swap_pol_info(pol_info_t *info);

/* Convert the numbers of a file system's state. */
KO_API void swap_fs_state(fs_state_t *state);

/* Convert blob store statistics. */
KO_API void swap_bfst_stats(bfst_stats_t *stats);

/* Convert the numbers of a policy's target. A rep_target_state_t is converted by swap_rep_state. */
KO_API void swap_target_state(pol_target_state_t *state);

/* Convert replication statistics; rep_stream_len stays. */
KO_API void swap_rep_stats(rep_stats_t *stats);

/* Convert a source's state and the `tgt_count` target states that follow it in memory. The count is
 * the caller's, in host order: the record's own may be in either. 0 or less converts `state` alone.
 *
 * Requires: memory for `tgt_count` target states behind `state`. */
KO_API void swap_rep_state(rep_src_state_t *state, int tgt_count);

KO_END_DECLS

#endif
