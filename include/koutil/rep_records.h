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
 * sending and after receiving.
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

/* Magics. The last two belong to records that the replication services build themselves. */
#define REP_HEADER_MAGIC    0xFACEBABEu
#define REP_CMD_MAGIC       0xBAADF00Du
#define REP_FILE_MAGIC      0xCAFEFEEDu
#define REP_SD_MAGIC        0xBAADDEEDu
#define REP_SERVICE_MAGIC_1 0xCAFEBEADu
#define REP_SERVICE_MAGIC_2 0xCAFEFACEu

/* Record types with a meaning of their own. */
#define REP_TYPE_IP         5  /* a file record that always keeps its data count */
#define REP_TYPE_NS_FILE    18 /* a namespace record */
#define REP_TYPE_SD_MAPPING 20 /* a security-descriptor mapping */

/* Lengths of the fixed parts on the wire. */
#define REP_HEADER_LEN     32
#define REP_CMD_LEN        8
#define REP_FILE_LEN       96
#define REP_FILE_INFO_LEN  112
#define REP_NS_FILE_LEN    48
#define REP_SD_MAPPING_LEN 20
#define REP_BLOB_LEN       40
#define REP_SMALL_BLOB_LEN 28

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
    uint32_t tv_sec;
    uint32_t tv_nsec;
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
    uint32_t rep_magic;
    uint16_t rep_flags;          /* caller's */
    uint16_t rep_stream_version; /* REP_STREAM_VERSION */
    dm_fsid_t rep_fsid;
    uint64_t rep_policy_key;
    uint64_t rep_stream_id;
} rep_header_t;

/* A command; the payload follows. */
typedef struct rep_cmd {
    uint32_t rep_magic;
    uint16_t rep_type;
    uint16_t rep_cmdlen; /* payload length in bytes */
} rep_cmd_t;

/* A file's attributes; the name follows. */
typedef struct rep_file {
    uint32_t rep_magic;
    uint16_t rep_type;
    uint16_t rep_namelen;
    uint32_t rep_data_cnt;
    uint16_t rep_status;
    uint8_t rep_attr_flags;
    uint8_t rep_pad;
    uint32_t rep_uid;
    uint32_t rep_gid;
    uint32_t rep_mode; /* permission bits */
    uint32_t rep_seqno;
    dm_ino_t rep_inode_inum;
    dm_ino_t rep_parent_inum;
    dm_igen_t rep_inode_igen;
    dm_igen_t rep_parent_igen;
    uint64_t rep_ntsd_key; /* rep_sd_key of its security descriptor */
    tmspec_t rep_ctime;
    tmspec_t rep_mtime;
    tmspec_t rep_etime; /* caller's, zero when none */
    uint64_t rep_size;
    KO_TAIL(char, rep_file_name);
} rep_file_t;

/* A file's attributes, extended: rep_file_t up to rep_size, then two fields; the name follows.
 * Nothing on the wire tells it from a rep_file_t. */
typedef struct file_info {
    uint32_t rep_magic;
    uint16_t rep_type;
    uint16_t rep_namelen;
    uint32_t rep_data_cnt;
    uint16_t rep_status;
    uint8_t rep_attr_flags;
    uint8_t rep_pad;
    uint32_t rep_uid;
    uint32_t rep_gid;
    uint32_t rep_mode;
    uint32_t rep_seqno;
    dm_ino_t rep_inode_inum;
    dm_ino_t rep_parent_inum;
    dm_igen_t rep_inode_igen;
    dm_igen_t rep_parent_igen;
    uint64_t rep_ntsd_key;
    tmspec_t rep_ctime;
    tmspec_t rep_mtime;
    tmspec_t rep_etime;
    uint64_t rep_size;
    uint64_t rep_ino_seqno;
    uint64_t rep_ino_epoch;
    KO_TAIL(char, rep_file_name);
} file_info_t;

/* A name and where it stands; the name follows. */
typedef struct rep_ns_file {
    uint32_t rep_magic;
    uint16_t rep_type; /* REP_TYPE_NS_FILE */
    uint16_t rep_namelen;
    dm_ino_t rep_inode_inum;
    dm_ino_t rep_parent_inum;
    dm_ino_t rep_local_inum;
    dm_igen_t rep_inode_igen;
    dm_igen_t rep_parent_igen;
    dm_igen_t rep_local_igen;
    uint32_t rep_ns_flags; /* caller's */
    KO_TAIL(char, rep_file_name);
} rep_ns_file_t;

/* A security descriptor and its key; the descriptor follows at offset REP_SD_MAPPING_LEN. */
typedef struct rep_sd_mapping {
    uint32_t rep_magic;
    uint16_t rep_type; /* REP_TYPE_SD_MAPPING */
    uint16_t rep_pad;
    uint64_t rep_sd_key;
    uint32_t rep_sd_data_len;
    KO_TAIL(uint8_t, rep_sd_data);
} rep_sd_mapping_t;

/* A piece of a file's data: where it stands in the file and in the blob named by the tag. */
typedef struct rep_blob {
    uint64_t rep_offset;
    uint64_t rep_length;
    uint64_t rep_bloboff;
    char rep_tag[16];
} rep_blob_t;

/* The same for pieces below 4 GiB. */
typedef struct rep_small_blob {
    uint32_t rep_offset;
    uint32_t rep_length;
    uint32_t rep_bloboff;
    char rep_tag[16];
} rep_small_blob_t;

/* Outcome of a replication. */
typedef struct rep_reply {
    uint32_t rep_result_code;
    uint32_t rep_files_moved;
    uint32_t rep_metadata_updated;
    uint64_t rep_data_moved;
    uint64_t rep_data_sent;
    uint64_t rep_data_read;
    uint32_t rep_secs_elapsed;
    uint32_t rep_usecs_elapsed;
} rep_reply_t;

typedef struct rep_delta {
    int32_t rep_files;
    int32_t rep_pad;
    int64_t rep_space;
} rep_delta_t;

typedef struct rep_miss {
    uint64_t missing_inum;
    uint32_t missing_igen;
    uint32_t missed_reason;
    KO_TAIL(char, missing_file);
} rep_miss_t;

typedef struct pol_query {
    uint64_t polqry_fsid;
    uint64_t polqry_key;
} pol_query_t;

typedef struct pol_cmd {
    uint64_t polcmd_fsid;
    uint64_t polcmd_key; /* little-endian on the wire */
    uint64_t polcmd_inum;
    uint32_t polcmd_igen;
    uint16_t polcmd_flags;
    uint16_t polcmd_opts;
    uint64_t polcmd_space_param;
    uint64_t polcmd_age_param;
} pol_cmd_t;

typedef struct tgt_query {
    uint64_t qry_key;
    uint32_t qry_type;
    uint32_t qry_flags;
    char tgt_location[256];
} tgt_query_t;

/* The path starts at offset 20, inside sizeof. */
typedef struct rep_copy_admin {
    uint64_t rep_copy_fsid;
    uint64_t rep_copy_key;
    int32_t rep_copy_num;
    KO_TAIL(char, rep_copy_path);
} rep_copy_admin_t;

typedef struct pending_info {
    uint64_t pending_fsid;
    uint64_t pending_key;
    tmspec_t pending_start;
    uint64_t pending_elapsed;
    uint64_t pending_stream_id;
    uint32_t pending_state; /* a rep_state_t */
    uint32_t pending_type;  /* a rep_type_t */
    char pending_target[256];
    KO_TAIL(char, pending_source);
} pending_info_t;

typedef struct progress_stats {
    tmspec_t start_time;
    uint64_t elapsed_time;
    uint32_t file_count;
    uint32_t dir_count;
    uint32_t failed_files;
    uint32_t pad;
    uint64_t data_size;
} progress_stats_t;
typedef progress_stats_t rep_progress_stats_t;

typedef struct progress_info {
    uint64_t prog_pending_fsid;
    uint64_t prog_pending_key;
    uint32_t prog_retcode;
    uint32_t prog_flags;
    tmspec_t prog_pending_start;
    uint64_t prog_pending_elapsed;
    uint64_t prog_pending_stream_id;
    uint32_t prog_pending_state; /* a rep_state_t */
    uint32_t prog_pending_type;  /* a rep_type_t */
    char prog_src_tgt[256];
    progress_stats_t prog_stats[7];
    uint64_t prog_total_metadata;
    uint32_t prog_total_files;
    uint32_t prog_total_dirs;
    uint32_t prog_missing_files;
    uint32_t prog_pulling_files;
    uint64_t prog_pulling_space;
    uint32_t prog_tag_cnt;
    uint32_t prog_pad;
} progress_info_t;

typedef struct pol_summary_s {
    uint64_t polsum_fsid;
    uint64_t polsum_key;
    uint32_t polsum_flags;
    uint32_t polsum_rep_flags;
    uint32_t polsum_md_gen;
    uint32_t polsum_data_gen;
    char polsum_inherit[32];
    KO_TAIL(char, polsum_mount);
} pol_summary_t;

typedef struct pol_info {
    uint64_t polinfo_fsid;
    uint64_t polinfo_key;
    uint32_t polinfo_flags;
    uint32_t polinfo_rep_flags;
    uint32_t polinfo_md_gen;
    uint32_t polinfo_data_gen;
    uint32_t polinfo_total_files;
    uint32_t polinfo_total_dirs;
    uint64_t polinfo_deduped_files;
    uint64_t polinfo_deduped_space;
    uint64_t polinfo_cloud_files;
    uint64_t polinfo_cloud_space;
    uint32_t polinfo_ingest_pend_files;
    uint64_t polinfo_ingest_pend_space;
    uint32_t polinfo_truncate_pend_files;
    uint64_t polinfo_truncate_pend_space;
    uint32_t polinfo_replicate_pend_files;
    uint64_t polinfo_replicate_pend_space;
    uint32_t polinfo_ingested_files;
    uint64_t polinfo_ingested_space;
    uint32_t polinfo_retrieved_files;
    uint64_t polinfo_retrieved_space;
    uint32_t polinfo_truncated_files;
    uint64_t polinfo_truncated_space;
    uint32_t polinfo_replicated_files;
    uint64_t polinfo_replicated_space;
    uint64_t polinfo_virtual_tx;
    uint64_t polinfo_actual_tx;
    uint64_t polinfo_actual_rx;
    uint64_t polinfo_metadata_tx;
    uint64_t polinfo_rep_rate;
    KO_TAIL(char, polinfo_mount);
} pol_info_t;

typedef struct fs_state_s {
    uint64_t fs_fsid;
    uint16_t fs_flags;
    uint16_t fs_bfst_state;
    uint64_t fs_age;
    uint64_t fs_bfst_age;
    char fs_name[64];
    KO_TAIL(char, fs_mount);
} fs_state_t;

typedef struct bfst_stats {
    uint64_t input_blobs;
    uint64_t data_blobs;
    uint64_t input_blocklets;
    uint64_t data_blocklets;
    uint64_t input_bytes;
    uint64_t data_bytes;
    uint64_t disk;
    uint64_t deleted_bytes;
} bfst_stats_t;

typedef struct pol_target_state {
    uint32_t pts_magic;
    uint32_t pts_version;
    uint64_t src_fsid;
    uint64_t src_key;
    uint64_t tgt_key;
    uint64_t rep_flags;
    char src_location[256];
    char dst_location[256];
    char src_path[1024];
    char rep_name[1024];
} pol_target_state_t;

typedef struct rep_stats {
    uint64_t rep_data_size;
    uint32_t rep_file_cnt;
    uint32_t rep_files_skipped;
    uint32_t rep_dir_cnt;
    uint32_t rep_tag_cnt;
    uint64_t rep_stream_len; /* little-endian on the wire */
} rep_stats_t;

typedef struct rep_target_stats {
    uint32_t rep_files_moved;
    uint32_t rep_metadata_updated;
    uint64_t rep_data_moved;
    uint64_t rep_data_sent;
    uint64_t rep_metadata_sent;
    uint64_t rep_data_read;
} rep_target_stats_t;

/* State of a source; its target states (rep_target_state_t) follow directly. */
typedef struct rep_src_state {
    uint32_t rep_file_magic;
    uint32_t rep_file_version;
    uint64_t rep_key;
    tmspec_t rep_scan_time;
    uint32_t rep_target_count;
    rep_stats_t rep_stats;
} rep_src_state_t;

typedef struct rep_target_state {
    char rep_tgt[256];
    char rep_tgt_path[512];
    uint16_t rep_tgt_version;
    uint16_t rep_tgt_pad1; /* converted */
    uint32_t rep_tgt_pad2; /* converted */
    uint16_t rep_tgt_state;
    uint16_t rep_tgt_uptodate;
    tmspec_t rep_tgt_success_time;
    tmspec_t rep_tgt_failure_time;
    uint32_t rep_tgt_metadata_gen;
    uint32_t rep_tgt_data_gen;
    uint64_t rep_last_report_id;
    uint64_t rep_last_fail_report_id;
    rep_target_stats_t rep_target_stats;
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
