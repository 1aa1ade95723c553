// rep_stream.cpp - replication records, output streams and input streams.
//
// Three parts, each with its own design comment: records and conversions, output, input.
#include "koutil/rep_records.h"

#include "internal/rep_convert.h"

#include <bit>
#include <cstring>
#include <iterator>
#include <type_traits>
#include <utility>

// Records and conversions
//
// Each record has one table, its layout: every field with its offset, its width and whether it is
// converted. The compiler holds the table against the structure of the header, and every conversion
// is made from it: in place (swap_...), from a record in memory to the wire and back. The tables
// are walked at compile time, so a conversion is a run of loads, byte reversals and stores; bytes
// are moved with memcpy because records in a stream's buffer stand on multiples of 4 only.

namespace
{

static_assert(std::endian::native == std::endian::little,
              "the records are laid out for little-endian hosts");

// `count` elements of `width` bytes each, from `offset` on; elements of more than one byte are
// reversed. The template checks what the table says against the structure.
struct Field {
    uint16_t offset;
    uint16_t width;
    uint16_t count;
};

template <size_t stated, size_t actual, size_t size, size_t width, size_t elements>
consteval Field checked_field()
{
    static_assert(stated == actual, "a field stands at another offset than on the wire");
    static_assert(size == width * elements, "a field has another size than on the wire");
    return {stated, width, elements};
}

#define KO_FIELD(at, name, width, elements)                                                        \
    checked_field<at, offsetof(Record, name), sizeof(Record::name), width, elements>()
#define U16(at, name)        KO_FIELD(at, name, 2, 1)
#define U32(at, name)        KO_FIELD(at, name, 4, 1)
#define U64(at, name)        KO_FIELD(at, name, 8, 1)
#define TIME(at, name)       KO_FIELD(at, name, 4, 2)
#define BYTES(at, name, len) KO_FIELD(at, name, 1, len) // not converted
#define TAIL(at, name)       static_assert(offsetof(Record, name) == (at))
#define SIZE(bytes)          static_assert(sizeof(Record) == (bytes))

struct TimeLayout {
    using Record = tmspec_t;
    static constexpr Field fields[] = {U32(0, tv_sec), U32(4, tv_nsec)};
    SIZE(8);
};

struct HeaderLayout {
    using Record = rep_header_t;
    static constexpr Field fields[] = {U32(0, rep_magic),          U16(4, rep_flags),
                                       U16(6, rep_stream_version), U64(8, rep_fsid),
                                       U64(16, rep_policy_key),    U64(24, rep_stream_id)};
    SIZE(REP_HEADER_LEN);
};

struct CmdLayout {
    using Record = rep_cmd_t;
    static constexpr Field fields[] = {U32(0, rep_magic), U16(4, rep_type), U16(6, rep_cmdlen)};
    SIZE(REP_CMD_LEN);
};

// The 96 bytes that both file records begin with.
#define FILE_FIELDS                                                                                \
    U32(0, rep_magic), U16(4, rep_type), U16(6, rep_namelen), U32(8, rep_data_cnt),                \
        U16(12, rep_status), BYTES(14, rep_attr_flags, 1), BYTES(15, rep_pad, 1),                  \
        U32(16, rep_uid), U32(20, rep_gid), U32(24, rep_mode), U32(28, rep_seqno),                 \
        U64(32, rep_inode_inum), U64(40, rep_parent_inum), U32(48, rep_inode_igen),                \
        U32(52, rep_parent_igen), U64(56, rep_ntsd_key), TIME(64, rep_ctime), TIME(72, rep_mtime), \
        TIME(80, rep_etime), U64(88, rep_size)

struct FileLayout {
    using Record = rep_file_t;
    static constexpr Field fields[] = {FILE_FIELDS};
    TAIL(96, rep_file_name);
    SIZE(REP_FILE_LEN);
};

struct FileInfoLayout {
    using Record = file_info_t;
    static constexpr Field fields[] = {FILE_FIELDS, U64(96, rep_ino_seqno),
                                       U64(104, rep_ino_epoch)};
    TAIL(112, rep_file_name);
    SIZE(REP_FILE_INFO_LEN);
};

struct NsFileLayout {
    using Record = rep_ns_file_t;
    static constexpr Field fields[] = {U32(0, rep_magic),        U16(4, rep_type),
                                       U16(6, rep_namelen),      U64(8, rep_inode_inum),
                                       U64(16, rep_parent_inum), U64(24, rep_local_inum),
                                       U32(32, rep_inode_igen),  U32(36, rep_parent_igen),
                                       U32(40, rep_local_igen),  U32(44, rep_ns_flags)};
    TAIL(48, rep_file_name);
    SIZE(REP_NS_FILE_LEN);
};

struct SdMappingLayout {
    using Record = rep_sd_mapping_t;
    static constexpr Field fields[] = {U32(0, rep_magic), U16(4, rep_type), BYTES(6, rep_pad, 2),
                                       U64(8, rep_sd_key), U32(16, rep_sd_data_len)};
    TAIL(REP_SD_MAPPING_LEN, rep_sd_data);
    SIZE(24); // in memory; 20 on the wire
};

struct BlobLayout {
    using Record = rep_blob_t;
    static constexpr Field fields[] = {U64(0, rep_offset), U64(8, rep_length), U64(16, rep_bloboff),
                                       BYTES(24, rep_tag, 16)};
    SIZE(REP_BLOB_LEN);
};

struct SmallBlobLayout {
    using Record = rep_small_blob_t;
    static constexpr Field fields[] = {U32(0, rep_offset), U32(4, rep_length), U32(8, rep_bloboff),
                                       BYTES(12, rep_tag, 16)};
    SIZE(REP_SMALL_BLOB_LEN);
};

struct ReplyLayout {
    using Record = rep_reply_t;
    static constexpr Field fields[] = {U32(0, rep_result_code),      U32(4, rep_files_moved),
                                       U32(8, rep_metadata_updated), U64(16, rep_data_moved),
                                       U64(24, rep_data_sent),       U64(32, rep_data_read),
                                       U32(40, rep_secs_elapsed),    U32(44, rep_usecs_elapsed)};
    SIZE(48);
};

struct DeltaLayout {
    using Record = rep_delta_t;
    static constexpr Field fields[] = {U32(0, rep_files), BYTES(4, rep_pad, 4), U64(8, rep_space)};
    SIZE(16);
};

struct MissLayout {
    using Record = rep_miss_t;
    static constexpr Field fields[] = {U64(0, missing_inum), U32(8, missing_igen),
                                       U32(12, missed_reason)};
    TAIL(16, missing_file);
    SIZE(16);
};

struct PolQueryLayout {
    using Record = pol_query_t;
    static constexpr Field fields[] = {U64(0, polqry_fsid), U64(8, polqry_key)};
    SIZE(16);
};

struct PolCmdLayout {
    using Record = pol_cmd_t;
    static constexpr Field fields[] = {
        U64(0, polcmd_fsid),  BYTES(8, polcmd_key, 8), // little-endian on the wire
        U64(16, polcmd_inum), U32(24, polcmd_igen),        U16(28, polcmd_flags),
        U16(30, polcmd_opts), U64(32, polcmd_space_param), U64(40, polcmd_age_param)};
    SIZE(48);
};

struct TgtQueryLayout {
    using Record = tgt_query_t;
    static constexpr Field fields[] = {U64(0, qry_key), U32(8, qry_type), U32(12, qry_flags),
                                       BYTES(16, tgt_location, 256)};
    SIZE(272);
};

struct CopyAdminLayout {
    using Record = rep_copy_admin_t;
    static constexpr Field fields[] = {U64(0, rep_copy_fsid), U64(8, rep_copy_key),
                                       U32(16, rep_copy_num)};
    TAIL(20, rep_copy_path);
    SIZE(24); // in memory; 20 on the wire
};

struct PendingLayout {
    using Record = pending_info_t;
    static constexpr Field fields[] = {U64(0, pending_fsid),       U64(8, pending_key),
                                       TIME(16, pending_start),    U64(24, pending_elapsed),
                                       U64(32, pending_stream_id), U32(40, pending_state),
                                       U32(44, pending_type),      BYTES(48, pending_target, 256)};
    TAIL(304, pending_source);
    SIZE(304);
};

struct ProgressStatsLayout {
    using Record = progress_stats_t;
    static constexpr Field fields[] = {
        TIME(0, start_time),   U64(8, elapsed_time), U32(16, file_count), U32(20, dir_count),
        U32(24, failed_files), BYTES(28, pad, 4),    U64(32, data_size)};
    SIZE(40);
};

struct ProgressLayout {
    using Record = progress_info_t;
    static constexpr Field fields[] = {
        U64(0, prog_pending_fsid),       U64(8, prog_pending_key),
        U32(16, prog_retcode),           U32(20, prog_flags),
        TIME(24, prog_pending_start),    U64(32, prog_pending_elapsed),
        U64(40, prog_pending_stream_id), U32(48, prog_pending_state),
        U32(52, prog_pending_type),      BYTES(56, prog_src_tgt, 256),
        BYTES(312, prog_stats, 280), // 7 x ProgressStatsLayout
        U64(592, prog_total_metadata),   U32(600, prog_total_files),
        U32(604, prog_total_dirs),       U32(608, prog_missing_files),
        U32(612, prog_pulling_files),    U64(616, prog_pulling_space),
        U32(624, prog_tag_cnt),          BYTES(628, prog_pad, 4)};
    SIZE(632);
};

struct PolSummaryLayout {
    using Record = pol_summary_t;
    static constexpr Field fields[] = {U64(0, polsum_fsid),          U64(8, polsum_key),
                                       U32(16, polsum_flags),        U32(20, polsum_rep_flags),
                                       U32(24, polsum_md_gen),       U32(28, polsum_data_gen),
                                       BYTES(32, polsum_inherit, 32)};
    TAIL(64, polsum_mount);
    SIZE(64);
};

struct PolInfoLayout {
    using Record = pol_info_t;
    static constexpr Field fields[] = {U64(0, polinfo_fsid),
                                       U64(8, polinfo_key),
                                       U32(16, polinfo_flags),
                                       U32(20, polinfo_rep_flags),
                                       U32(24, polinfo_md_gen),
                                       U32(28, polinfo_data_gen),
                                       U32(32, polinfo_total_files),
                                       U32(36, polinfo_total_dirs),
                                       U64(40, polinfo_deduped_files),
                                       U64(48, polinfo_deduped_space),
                                       U64(56, polinfo_cloud_files),
                                       U64(64, polinfo_cloud_space),
                                       U32(72, polinfo_ingest_pend_files),
                                       U64(80, polinfo_ingest_pend_space),
                                       U32(88, polinfo_truncate_pend_files),
                                       U64(96, polinfo_truncate_pend_space),
                                       U32(104, polinfo_replicate_pend_files),
                                       U64(112, polinfo_replicate_pend_space),
                                       U32(120, polinfo_ingested_files),
                                       U64(128, polinfo_ingested_space),
                                       U32(136, polinfo_retrieved_files),
                                       U64(144, polinfo_retrieved_space),
                                       U32(152, polinfo_truncated_files),
                                       U64(160, polinfo_truncated_space),
                                       U32(168, polinfo_replicated_files),
                                       U64(176, polinfo_replicated_space),
                                       U64(184, polinfo_virtual_tx),
                                       U64(192, polinfo_actual_tx),
                                       U64(200, polinfo_actual_rx),
                                       U64(208, polinfo_metadata_tx),
                                       U64(216, polinfo_rep_rate)};
    TAIL(224, polinfo_mount);
    SIZE(224);
};

struct FsStateLayout {
    using Record = fs_state_t;
    static constexpr Field fields[] = {U64(0, fs_fsid),        U16(8, fs_flags),
                                       U16(10, fs_bfst_state), U64(16, fs_age),
                                       U64(24, fs_bfst_age),   BYTES(32, fs_name, 64)};
    TAIL(96, fs_mount);
    SIZE(96);
};

struct BfstLayout {
    using Record = bfst_stats_t;
    static constexpr Field fields[] = {
        U64(0, input_blobs),     U64(8, data_blobs),    U64(16, input_blocklets),
        U64(24, data_blocklets), U64(32, input_bytes),  U64(40, data_bytes),
        U64(48, disk),           U64(56, deleted_bytes)};
    SIZE(64);
};

struct PolTargetLayout {
    using Record = pol_target_state_t;
    static constexpr Field fields[] = {U32(0, pts_magic),
                                       U32(4, pts_version),
                                       U64(8, src_fsid),
                                       U64(16, src_key),
                                       U64(24, tgt_key),
                                       U64(32, rep_flags),
                                       BYTES(40, src_location, 256),
                                       BYTES(296, dst_location, 256),
                                       BYTES(552, src_path, 1024),
                                       BYTES(1576, rep_name, 1024)};
    SIZE(2600);
};

struct StatsLayout {
    using Record = rep_stats_t;
    static constexpr Field fields[] = {
        U64(0, rep_data_size),      U32(8, rep_file_cnt),
        U32(12, rep_files_skipped), U32(16, rep_dir_cnt),
        U32(20, rep_tag_cnt),       BYTES(24, rep_stream_len, 8)}; // little-endian on the wire
    SIZE(32);
};

struct SrcStateLayout {
    using Record = rep_src_state_t;
    static constexpr Field fields[] = {U32(0, rep_file_magic),    U32(4, rep_file_version),
                                       U64(8, rep_key),           TIME(16, rep_scan_time),
                                       U32(24, rep_target_count), BYTES(32, rep_stats, 32)};
    SIZE(64);
};

struct TargetStatsLayout {
    using Record = rep_target_stats_t;
    static constexpr Field fields[] = {U32(0, rep_files_moved),    U32(4, rep_metadata_updated),
                                       U64(8, rep_data_moved),     U64(16, rep_data_sent),
                                       U64(24, rep_metadata_sent), U64(32, rep_data_read)};
    SIZE(40);
};

struct TargetStateLayout {
    using Record = rep_target_state_t;
    static constexpr Field fields[] = {BYTES(0, rep_tgt, 256),
                                       BYTES(256, rep_tgt_path, 512),
                                       U16(768, rep_tgt_version),
                                       U16(770, rep_tgt_pad1),
                                       U32(772, rep_tgt_pad2),
                                       U16(776, rep_tgt_state),
                                       U16(778, rep_tgt_uptodate),
                                       TIME(780, rep_tgt_success_time),
                                       TIME(788, rep_tgt_failure_time),
                                       U32(796, rep_tgt_metadata_gen),
                                       U32(800, rep_tgt_data_gen),
                                       U64(808, rep_last_report_id),
                                       U64(816, rep_last_fail_report_id),
                                       BYTES(824, rep_target_stats, 40)}; // TargetStatsLayout
    SIZE(864);
};

#undef KO_FIELD
#undef U16
#undef U32
#undef U64
#undef TIME
#undef BYTES
#undef TAIL
#undef SIZE
#undef FILE_FIELDS

inline uint16_t reversed(uint16_t value)
{
    return __builtin_bswap16(value);
}

inline uint32_t reversed(uint32_t value)
{
    return __builtin_bswap32(value);
}

inline uint64_t reversed(uint64_t value)
{
    return __builtin_bswap64(value);
}

template <typename Number>
inline void move_reversed(void *to, const void *from)
{
    Number value;
    memcpy(&value, from, sizeof value);
    value = reversed(value);
    memcpy(to, &value, sizeof value);
}

// Moves one field between a record and its wire form, which are the same address in place.
template <Field field, bool in_place>
inline void move_field(unsigned char *to, const unsigned char *from)
{
    if constexpr (field.width == 1) {
        if constexpr (!in_place) {
            memcpy(to + field.offset, from + field.offset, field.count);
        }
    } else {
        for (size_t i = 0; i < field.count; i++) {
            const size_t at = field.offset + i * field.width;
            if constexpr (field.width == 2) {
                move_reversed<uint16_t>(to + at, from + at);
            } else if constexpr (field.width == 4) {
                move_reversed<uint32_t>(to + at, from + at);
            } else {
                move_reversed<uint64_t>(to + at, from + at);
            }
        }
    }
}

template <typename Layout, bool in_place>
inline void move_record(void *to, const void *from)
{
    [&]<size_t... i>(std::index_sequence<i...>)
    {
        (move_field<Layout::fields[i], in_place>(static_cast<unsigned char *>(to),
                                                 static_cast<const unsigned char *>(from)),
         ...);
    }
    (std::make_index_sequence<std::size(Layout::fields)>());
}

// Converts a record where it stands.
template <typename Layout>
inline void convert(void *record)
{
    move_record<Layout, true>(record, record);
}

// Writes a record in its wire form. Records with gaps are only converted in place.
template <typename Layout>
inline void store(unsigned char *wire, const typename Layout::Record &record)
{
    move_record<Layout, false>(wire, &record);
}

// Reads a record from its wire form. The record may stand at any address.
template <typename Layout>
inline void load(void *record, const unsigned char *wire)
{
    move_record<Layout, false>(record, wire);
}

inline unsigned char *byte_at(void *record, size_t offset)
{
    return static_cast<unsigned char *>(record) + offset;
}

} // namespace

void swap_rep_header(rep_header_t *header)
{
    convert<HeaderLayout>(header);
}

void swap_rep_file(rep_file_t *file)
{
    convert<FileLayout>(file);
}

void swap_rep_ns_file(rep_ns_file_t *file)
{
    convert<NsFileLayout>(file);
}

void swap_rep_blob(rep_blob_t *blob)
{
    convert<BlobLayout>(blob);
}

void swap_rep_cmd(rep_cmd_t *cmd)
{
    convert<CmdLayout>(cmd);
}

void swap_rep_sd_mapping(rep_sd_mapping_t *mapping)
{
    convert<SdMappingLayout>(mapping);
}

void swap_rep_reply(rep_reply_t *reply)
{
    convert<ReplyLayout>(reply);
}

void swap_tmspec(tmspec_t *time)
{
    convert<TimeLayout>(time);
}

void swap_rep_delta(rep_delta_t *delta)
{
    convert<DeltaLayout>(delta);
}

void swap_rep_miss(rep_miss_t *miss)
{
    convert<MissLayout>(miss);
}

void swap_pol_query(pol_query_t *query)
{
    convert<PolQueryLayout>(query);
}

void swap_pol_cmd(pol_cmd_t *cmd)
{
    convert<PolCmdLayout>(cmd);
}

void swap_tgt_query(tgt_query_t *query)
{
    convert<TgtQueryLayout>(query);
}

void swap_rep_copy_cmd(rep_copy_admin_t *cmd)
{
    convert<CopyAdminLayout>(cmd);
}

void swap_pending_info(pending_info_t *info)
{
    convert<PendingLayout>(info);
}

void swap_progress_info(progress_info_t *info)
{
    convert<ProgressLayout>(info);
    for (size_t i = 0; i < std::extent_v<decltype(progress_info_t::prog_stats)>; i++) {
        convert<ProgressStatsLayout>(
            byte_at(info, offsetof(progress_info_t, prog_stats) + i * sizeof(progress_stats_t)));
    }
}

void swap_pol_summary(pol_summary_t *summary)
{
    convert<PolSummaryLayout>(summary);
}

void swap_pol_info(pol_info_t *info)
{
    convert<PolInfoLayout>(info);
}

void swap_fs_state(fs_state_t *state)
{
    convert<FsStateLayout>(state);
}

void swap_bfst_stats(bfst_stats_t *stats)
{
    convert<BfstLayout>(stats);
}

void swap_target_state(pol_target_state_t *state)
{
    convert<PolTargetLayout>(state);
}

void swap_rep_stats(rep_stats_t *stats)
{
    convert<StatsLayout>(stats);
}

void swap_rep_state(rep_src_state_t *state, int tgt_count)
{
    convert<SrcStateLayout>(state);
    convert<StatsLayout>(byte_at(state, offsetof(rep_src_state_t, rep_stats)));
    unsigned char *target = byte_at(state, sizeof *state);
    for (int i = 0; i < tgt_count; i++, target += sizeof(rep_target_state_t)) {
        convert<TargetStateLayout>(target);
        convert<TargetStatsLayout>(target + offsetof(rep_target_state_t, rep_target_stats));
    }
}
