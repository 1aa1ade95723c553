// rep_stream.cpp - replication records, output streams and input streams.
//
// Three parts, each with its own design comment: records and conversions, output, input.
#include "koutil/rep_stream.h"

#include "internal/assert.h"
#include "internal/literal.h"
#include "internal/rep_convert.h"
#include "koutil/dopanic.h"
#include "koutil/kovalog.h"
#include "koutil/logger.h"
#include "koutil/msleep.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sys/socket.h>
#include <type_traits>
#include <unistd.h>
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
[[gnu::always_inline]] inline void move_field(unsigned char *to, const unsigned char *from)
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

template <typename Layout, bool in_place, size_t... i>
[[gnu::always_inline]] inline void move_fields(unsigned char *to, const unsigned char *from,
                                               std::index_sequence<i...>)
{
    (move_field<Layout::fields[i], in_place>(to, from), ...);
}

// Always inlined: the fields of a record that is built on the spot then stay in registers.
template <typename Layout, bool in_place>
[[gnu::always_inline]] inline void move_record(void *to, const void *from)
{
    move_fields<Layout, in_place>(static_cast<unsigned char *>(to),
                                  static_cast<const unsigned char *>(from),
                                  std::make_index_sequence<std::size(Layout::fields)>());
}

// Converts a record where it stands.
template <typename Layout>
inline void convert(void *record)
{
    move_record<Layout, true>(record, record);
}

// Writes a record in its wire form. Records with gaps are only converted in place.
template <typename Layout>
[[gnu::always_inline]] inline void store(unsigned char *wire, const typename Layout::Record &record)
{
    move_record<Layout, false>(wire, &record);
}

// File records are read 16 bytes at a time: the bytes of each 16-bit word change places, then the
// words of each field.
using Words [[gnu::vector_size(16)]] = uint16_t;

struct WordOrder {
    size_t from[8] = {0, 1, 2, 3, 4, 5, 6, 7};
};

// Where the words of the 16 bytes from `start` on come from. Does not compile for a field that
// crosses their ends.
template <typename Layout>
consteval WordOrder word_order(size_t start)
{
    WordOrder order;
    for (const Field &field : Layout::fields) {
        for (size_t i = 0; i < field.count && field.width > 1; i++) {
            const size_t at = field.offset + i * field.width;
            const size_t end = at + field.width;
            for (size_t word = 0; word < field.width / 2 && at < start + 16 && end > start;
                 word++) {
                order.from[(at - start) / 2 + word] = (end - start) / 2 - 1 - word;
            }
        }
    }
    return order;
}

template <typename Layout, size_t block>
[[gnu::always_inline]] inline void load_block(unsigned char *record, const unsigned char *wire)
{
    constexpr WordOrder order = word_order<Layout>(block * 16);
    Words words;
    memcpy(&words, wire + block * 16, sizeof words);
    words = words << 8 | words >> 8;
    words = __builtin_shufflevector(words, words, order.from[0], order.from[1], order.from[2],
                                    order.from[3], order.from[4], order.from[5], order.from[6],
                                    order.from[7]);
    memcpy(record + block * 16, &words, sizeof words);
}

template <Field field>
[[gnu::always_inline]] inline void load_bytes(unsigned char *record, const unsigned char *wire)
{
    if constexpr (field.width == 1) {
        memcpy(record + field.offset, wire + field.offset, field.count);
    }
}

template <typename Layout, size_t... block, size_t... i>
[[gnu::always_inline]] inline void load_blocks(unsigned char *record, const unsigned char *wire,
                                               std::index_sequence<block...>,
                                               std::index_sequence<i...>)
{
    (load_block<Layout, block>(record, wire), ...);
    (load_bytes<Layout::fields[i]>(record, wire), ...);
}

template <typename Layout>
[[gnu::always_inline]] inline void load_large(void *record, const unsigned char *wire)
{
    load_blocks<Layout>(static_cast<unsigned char *>(record), wire,
                        std::make_index_sequence<sizeof(typename Layout::Record) / 16>(),
                        std::make_index_sequence<std::size(Layout::fields)>());
}

// Reads a record from its wire form. The record may stand at any address.
template <typename Layout>
[[gnu::always_inline]] inline void load(void *record, const unsigned char *wire)
{
    move_record<Layout, false>(record, wire);
}

template <typename Word>
inline void copy_overlapping(unsigned char *to, const unsigned char *from, size_t length)
{
    Word first, last;
    memcpy(&first, from, sizeof first);
    memcpy(&last, from + length - sizeof last, sizeof last);
    memcpy(to, &first, sizeof first);
    memcpy(to + length - sizeof last, &last, sizeof last);
}

// Out of line, or the compiler, knowing how short a name is, copies it with a string instruction
// that takes longer than the rest of the record.
[[gnu::noinline]] void copy_long(void *to, const void *from, size_t length)
{
    memcpy(to, from, length);
}

// Copies `length` bytes, which are few as a rule: up to 16 go in two moves that may overlap.
inline void copy(void *to, const void *from, size_t length)
{
    auto *out = static_cast<unsigned char *>(to);
    auto *in = static_cast<const unsigned char *>(from);
    if (length > 16) {
        copy_long(to, from, length);
    } else if (length >= 8) {
        copy_overlapping<uint64_t>(out, in, length);
    } else if (length >= 4) {
        copy_overlapping<uint32_t>(out, in, length);
    } else {
        for (size_t i = 0; i < length; i++) {
            out[i] = in[i];
        }
    }
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

// Output
//
// The buffer gathers records; a flush hands it to the socket, to the backing file, or to both. The
// boundaries at which bytes leave are fixed: every 65536 bytes of the stream since the last flush,
// and only when more is to come. Two shortcuts keep them: records of known size are built in the
// buffer itself when it has room, and a large object leaves from the caller's memory in whole
// buffers, except its end, which stays buffered as it would have otherwise.
//
// Locks: the writers' lock (rep_in_mutex) is the callers' and covers the buffer. rep_mutex covers
// the reference count, the offset, the flags and the descriptors' closing; it is held over no
// system call but close. A flush reads the descriptors without it: they are atomic.
//
// Frames that assert or call stream_complete own nothing: a panic handler may leave by longjmp.

namespace
{

constexpr int error_level = 3;

// Most buffers of a large object in one call; followers of the stream hear of each call.
constexpr uint32_t most_buffers = 16;

static_assert(offsetof(rep_stream_t, rep_buffer) + offsetof(rep_buffer_t, rep_data) == 184);
static_assert(offsetof(rep_target_t, rep_tgt_sock) == 0);

constexpr uint32_t padded(uint32_t length)
{
    return (length + 3) & ~uint32_t{3};
}

int descriptor(int32_t &field)
{
    return std::atomic_ref<int32_t>(field).load(std::memory_order_relaxed);
}

// The platform's text for an error number, which may be in `text`.
const char *error_text(int error, char (&text)[128])
{
    return strerror_r(error, text, sizeof text);
}

void log_errno(const char *format)
{
    char text[128];
    __vorn_logfn(error_level, koutil::literal(format), error_text(errno, text));
}

// send(2) without a signal; a socket that takes nothing at all counts as broken.
ssize_t send_piece(int sock, const void *data, size_t length)
{
    const ssize_t sent = send(sock, data, length, MSG_NOSIGNAL);
    if (sent == 0) {
        errno = EIO;
        return -1;
    }
    return sent;
}

// Hands one piece to whatever takes it. Returns what the flush counts: the bytes that the socket,
// or else the file, took; 0 without either; -1 for a failure, which is logged.
ssize_t write_piece(rep_stream_t *stream, const uint8_t *data, size_t length, bool &last)
{
    const int sock = descriptor(stream->rep_sock);
    const int file = descriptor(stream->rep_queued_fd);
    last = sock == -1;
    if (sock != -1) {
        const ssize_t sent = send_piece(sock, data, length);
        if (sent < 0) {
            log_errno("Failed to send data. %s\n");
            return -1;
        }
        if (file != -1 && write(file, data, static_cast<size_t>(sent)) < 0) {
            log_errno("Failed to write queued stream. %s\n");
            return -1;
        }
        return sent;
    }
    if (file == -1) {
        return 0;
    }
    const ssize_t written = write(file, data, length);
    if (written < 0) {
        log_errno("Failed to write queued stream %s\n");
    }
    return written;
}

void advance(rep_stream_t *stream, size_t length)
{
    pthread_mutex_lock(&stream->rep_mutex.mutex);
    stream->rep_stream_offset += length;
    if (stream->rep_targ_waiting != 0) {
        pthread_cond_broadcast(&stream->rep_cond.cond);
    }
    pthread_mutex_unlock(&stream->rep_mutex.mutex);
}

// Writes `length` bytes out, in pieces as the socket accepts them. Without a socket there is one
// piece: what a file leaves of it, or what nobody takes, is gone. Returns `length`, or the bytes
// that were out before a piece failed.
size_t write_out(rep_stream_t *stream, const uint8_t *data, size_t length)
{
    for (size_t out = 0; out < length;) {
        bool last = false;
        const ssize_t taken = write_piece(stream, data + out, length - out, last);
        if (taken < 0) {
            return out;
        }
        if (taken > 0) {
            advance(stream, static_cast<size_t>(taken));
        }
        if (last) {
            break;
        }
        out += static_cast<size_t>(taken);
    }
    return length;
}

void put(rep_buffer_t *buffer, const uint8_t *data, uint32_t length)
{
    memcpy(buffer->rep_data + buffer->rep_used, data, length);
    buffer->rep_used += length;
}

// How much of a large object leaves in one go: whole buffers, fewer bytes than there are. A file
// gets them one by one, because a piece that it takes only a part of is lost.
uint32_t whole_buffers(rep_stream_t *stream, uint32_t length)
{
    const bool socket_only =
        descriptor(stream->rep_sock) != -1 && descriptor(stream->rep_queued_fd) == -1;
    const uint32_t buffers =
        socket_only ? std::min((length - 1) / REP_BUFFER_SIZE, most_buffers) : 1;
    return buffers * REP_BUFFER_SIZE;
}

// Sends whole buffers from the caller's memory while more is to come behind them. One that fails is
// left in the buffer, where a repeated flush finds it.
int send_from_memory(rep_stream_t *stream, const uint8_t *&data, uint32_t &length)
{
    while (length > REP_BUFFER_SIZE) {
        const uint32_t run = whole_buffers(stream, length);
        const size_t out = write_out(stream, data, run);
        if (out != run) {
            put(&stream->rep_buffer, data + out / REP_BUFFER_SIZE * REP_BUFFER_SIZE,
                REP_BUFFER_SIZE);
            return -1;
        }
        data += run;
        length -= run;
    }
    return 0;
}

// Where a record of `length` bytes is built: in the buffer when it has room, else in `spare`.
unsigned char *place(rep_stream_t *stream, uint32_t length, unsigned char *spare)
{
    rep_buffer_t *buffer = &stream->rep_buffer;
    return buffer->rep_used <= REP_BUFFER_SIZE - length ? buffer->rep_data + buffer->rep_used
                                                        : spare;
}

// Appends the record that was built at its place.
int append(rep_stream_t *stream, const unsigned char *record, uint32_t length,
           const unsigned char *spare)
{
    if (record == spare) {
        return send_to_stream(stream, record, length);
    }
    stream->rep_buffer.rep_used += length;
    return 0;
}

// Appends a record in host order that nothing follows.
template <typename Layout>
int append_record(rep_stream_t *stream, const typename Layout::Record &record)
{
    unsigned char spare[sizeof record];
    unsigned char *wire = place(stream, sizeof spare, spare);
    store<Layout>(wire, record);
    return append(stream, wire, sizeof spare, spare);
}

// Copies data and zeroes its padding.
void put_padded(unsigned char *to, const void *data, uint32_t length)
{
    if (length > 0) {
        memset(to + padded(length) - 4, 0, 4);
        copy(to, data, length);
    }
}

struct Name {
    const char *text;
    uint16_t length;
};

// Measures a name, null being one of length 0. Returns false when it is too long to be sent.
bool measure(const char *filename, Name &name)
{
    const size_t length = filename != nullptr ? strnlen(filename, REP_MAX_NAME_LEN + 1) : 0;
    name = {filename, static_cast<uint16_t>(length)};
    return length <= REP_MAX_NAME_LEN;
}

// Appends a record in host order and the name behind it.
template <typename Layout>
[[gnu::always_inline]] inline int
append_named(rep_stream_t *stream, const typename Layout::Record &record, const Name &name)
{
    unsigned char spare[sizeof record + padded(REP_MAX_NAME_LEN)];
    const uint32_t length = sizeof record + padded(name.length);
    unsigned char *wire = place(stream, length, spare);
    store<Layout>(wire, record);
    put_padded(wire + sizeof record, name.text, name.length);
    return append(stream, wire, length, spare);
}

constexpr uint32_t permission_bits(uint32_t mode)
{
    return mode & ~uint32_t{0xF000};
}

// Fills what both file records take from the sender's arguments.
template <typename File>
void set_arguments(File &file, uint16_t type, const Name &name, const inode_id_t *parent,
                   uint16_t status, const tmspec_t *etime, uint32_t seqno)
{
    file.rep_magic = REP_FILE_MAGIC;
    file.rep_type = type;
    file.rep_namelen = name.length;
    file.rep_status = status;
    file.rep_pad = 0;
    file.rep_seqno = seqno;
    file.rep_parent_inum = parent->inum;
    file.rep_parent_igen = parent->igen;
    file.rep_etime = etime != nullptr ? *etime : tmspec_t{0, 0};
}

// Sends a whole record to one target.
int send_direct(const rep_target_t *target, const unsigned char *record, size_t length)
{
    while (length > 0) {
        const ssize_t sent = send_piece(target->rep_tgt_sock, record, length);
        if (sent < 0) {
            __vorn_logfn(error_level,
                         koutil::literal("Error sending %d bytes to target. Error=%d\n"),
                         static_cast<int>(length), errno);
            return static_cast<int>(sent);
        }
        record += sent;
        length -= static_cast<size_t>(sent);
    }
    return 0;
}

void build_command(unsigned char *wire, uint16_t type, const uint8_t *data, uint32_t length)
{
    store<CmdLayout>(wire, {REP_CMD_MAGIC, type, static_cast<uint16_t>(length)});
    put_padded(wire + REP_CMD_LEN, data, length);
}

// The caller holds rep_mutex.
void close_descriptor(int32_t &field)
{
    const std::atomic_ref<int32_t> shared(field);
    const int fd = shared.load(std::memory_order_relaxed);
    if (fd != -1) {
        shared.store(-1, std::memory_order_relaxed);
        close(fd);
    }
}

// The caller holds rep_mutex.
void close_locked(rep_stream_t *stream, int flags)
{
    close_descriptor(stream->rep_sock);
    close_descriptor(stream->rep_queued_fd);
    stream->rep_stream_flags |= static_cast<uint32_t>(flags);
    if (stream->rep_targ_waiting != 0) {
        pthread_cond_broadcast(&stream->rep_cond.cond);
    }
}

// Gives a reference back and the caller's hold of rep_mutex with it.
int drop_locked(rep_stream_t *stream)
{
    KO_ASSERT(stream->rep_ref_cnt > 0);
    const bool remains = --stream->rep_ref_cnt > 0;
    pthread_mutex_unlock(&stream->rep_mutex.mutex);
    if (remains) {
        return 1;
    }
    if (stream->stream_complete != nullptr) {
        stream->stream_complete(stream);
    }
    free(stream);
    return 0;
}

void panic_unless_made(int status, const char *what, int line)
{
    if (status != 0) {
        DoPanic("", what, 1, KO_MODULE, line);
    }
}

} // namespace

rep_stream_t *create_rep_out_stream(void)
{
    auto *stream = static_cast<rep_stream_t *>(calloc(1, sizeof(rep_stream_t)));
    if (stream == nullptr) {
        return nullptr;
    }
    stream->rep_sock = -1;
    stream->rep_queued_fd = -1;
    panic_unless_made(vo_thread_mutex_init(&stream->rep_in_mutex, nullptr),
                      "out stream rep_in_mutex THREAD_MUTEX_INIT", __LINE__);
    panic_unless_made(vo_thread_mutex_init(&stream->rep_mutex, nullptr),
                      "out stream rep_mutex THREAD_MUTEX_INIT", __LINE__);
    panic_unless_made(vo_thread_cond_init(&stream->rep_cond, nullptr),
                      "out stream rep_cond THREAD_COND_INIT", __LINE__);
    stream->rep_ref_cnt = 1;
    stream->start_time = MicroTime();
    return stream;
}

void assign_rep_target_sync(rep_stream_t *stream, int sock)
{
    std::atomic_ref<int32_t>(stream->rep_sock).store(sock, std::memory_order_relaxed);
}

void assign_rep_backing_file(rep_stream_t *stream, int fd)
{
    std::atomic_ref<int32_t>(stream->rep_queued_fd).store(fd, std::memory_order_relaxed);
}

int rewind_rep_backing_file(rep_stream_t *stream)
{
    return static_cast<int>(lseek(descriptor(stream->rep_queued_fd), 0, SEEK_SET));
}

void lock_stream(rep_stream_t *stream)
{
    pthread_mutex_lock(&stream->rep_in_mutex.mutex);
}

void unlock_stream(rep_stream_t *stream)
{
    pthread_mutex_unlock(&stream->rep_in_mutex.mutex);
}

void hold_stream(rep_stream_t *stream)
{
    pthread_mutex_lock(&stream->rep_mutex.mutex);
    KO_ASSERT(stream->rep_ref_cnt > 0);
    stream->rep_ref_cnt++;
    pthread_mutex_unlock(&stream->rep_mutex.mutex);
}

int drop_stream(rep_stream_t *stream)
{
    pthread_mutex_lock(&stream->rep_mutex.mutex);
    return drop_locked(stream);
}

void close_rep_stream(rep_stream_t *stream, int flags)
{
    pthread_mutex_lock(&stream->rep_mutex.mutex);
    close_locked(stream, flags);
    pthread_mutex_unlock(&stream->rep_mutex.mutex);
}

int cleanup_rep_stream(rep_stream_t *stream, int flags)
{
    pthread_mutex_lock(&stream->rep_mutex.mutex);
    close_locked(stream, flags);
    return drop_locked(stream);
}

int send_to_stream(rep_stream_t *stream, const void *object, uint32_t len)
{
    rep_buffer_t *buffer = &stream->rep_buffer;
    auto *data = static_cast<const uint8_t *>(object);
    if (buffer->rep_used == REP_BUFFER_SIZE && flush_rep_stream(stream) != 0) {
        return -1;
    }
    while (len > 0) {
        if (buffer->rep_used == 0 && send_from_memory(stream, data, len) != 0) {
            return -1;
        }
        KO_ASSERT(buffer->rep_used <= REP_BUFFER_SIZE);
        const uint32_t piece = std::min(len, REP_BUFFER_SIZE - buffer->rep_used);
        put(buffer, data, piece);
        data += piece;
        len -= piece;
        if (len > 0 && flush_rep_stream(stream) != 0) {
            return -1;
        }
    }
    return 0;
}

int flush_rep_stream(rep_stream_t *stream)
{
    rep_buffer_t *buffer = &stream->rep_buffer;
    KO_ASSERT(buffer->rep_used <= REP_BUFFER_SIZE);
    if (write_out(stream, buffer->rep_data, buffer->rep_used) != buffer->rep_used) {
        return -1;
    }
    buffer->rep_used = 0;
    return 0;
}

int send_rep_header(rep_stream_t *stream, rep_target_t *target, dm_fsid_t fsid, uint32_t flags,
                    uint64_t key, uint64_t stream_id)
{
    const rep_header_t header = {
        REP_HEADER_MAGIC, static_cast<uint16_t>(flags), REP_STREAM_VERSION, fsid, key, stream_id};
    if (target == nullptr) {
        return append_record<HeaderLayout>(stream, header);
    }
    unsigned char record[REP_HEADER_LEN];
    store<HeaderLayout>(record, header);
    return send_direct(target, record, sizeof record);
}

int send_rep_command(rep_stream_t *stream, rep_target_t *target, uint16_t cmd_type,
                     const uint8_t *data, size_t data_len)
{
    if (data_len > REP_MAX_CMD_LEN) {
        __vorn_logfn(error_level,
                     koutil::literal("Tried to send a command %d of size %d, max size %d.\n"),
                     static_cast<int>(cmd_type), static_cast<int>(data_len), REP_MAX_CMD_LEN);
        return -1;
    }
    const auto payload = static_cast<uint32_t>(data_len);
    const uint32_t length = REP_CMD_LEN + padded(payload);
    unsigned char *wire = target == nullptr ? place(stream, length, nullptr) : nullptr;
    if (wire != nullptr) {
        build_command(wire, cmd_type, data, payload);
        return append(stream, wire, length, nullptr);
    }
    auto *record = static_cast<unsigned char *>(malloc(REP_CMD_LEN + REP_MAX_CMD_LEN));
    if (record == nullptr) {
        __vorn_logfn(error_level, koutil::literal("Memory allocation for sending rep command.\n"));
        return -1;
    }
    build_command(record, cmd_type, data, payload);
    const int status = target != nullptr ? send_direct(target, record, length)
                                         : send_to_stream(stream, record, length);
    free(record);
    return status;
}

int send_rep_command_sync(rep_stream_t *stream, uint16_t cmd_type, const uint8_t *data,
                          size_t data_len)
{
    const int status = send_rep_command(stream, nullptr, cmd_type, data, data_len);
    return status != -1 ? flush_rep_stream(stream) : status;
}

int send_file_header(rep_stream_t *stream, uint16_t type, const char *filename,
                     const inode_id_t *parent, uint16_t rep_state, const ExtendedStat_t *stat,
                     const tmspec_t *etime, uint32_t data_cnt, uint32_t seqno)
{
    Name name;
    if (!measure(filename, name)) {
        return -1;
    }
    rep_file_t file;
    set_arguments(file, type, name, parent, rep_state, etime, seqno);
    file.rep_data_cnt = rep_state != 0 && stat->sr_size != 0 ? data_cnt : 0;
    file.rep_attr_flags = stat->sr_attr_flags;
    file.rep_uid = stat->sr_uid;
    file.rep_gid = stat->sr_gid;
    file.rep_mode = permission_bits(stat->sr_mode);
    file.rep_inode_inum = stat->sr_ino;
    file.rep_inode_igen = stat->sr_gen;
    file.rep_ntsd_key = stat->sr_nt_sd_key;
    file.rep_ctime = stat->sr_ctim;
    file.rep_mtime = stat->sr_mtim;
    file.rep_size = stat->sr_size;
    return append_named<FileLayout>(stream, file, name);
}

int send_ip_header(rep_stream_t *stream, uint16_t type, const char *filename,
                   const inode_id_t *parent, uint16_t rep_state, const inode_t *ip,
                   const tmspec_t *etime, uint32_t data_cnt, uint32_t seqno)
{
    constexpr uint64_t inode_number_bits = 0x7F807FFFFFFFFFFF;
    Name name;
    if (!measure(filename, name)) {
        return -1;
    }
    const idinode_t &disk = ip->i_idinode;
    const bool counts = type == REP_TYPE_IP || (rep_state != 0 && disk.idi_size != 0);
    file_info_t file;
    set_arguments(file, type, name, parent, rep_state, etime, seqno);
    file.rep_data_cnt = counts ? data_cnt : 0;
    file.rep_attr_flags = disk.idi_attr_flags;
    file.rep_uid = disk.idi_uid;
    file.rep_gid = disk.idi_gid;
    file.rep_mode = permission_bits(disk.idi_mode);
    file.rep_inode_inum = ip->i_inode_number & inode_number_bits;
    file.rep_inode_igen = disk.idi_gen;
    file.rep_ntsd_key = disk.idi_ntsec_key;
    file.rep_ctime = disk.u_ctime.ts;
    file.rep_mtime = disk.u_mtime.ts;
    file.rep_size = disk.idi_size;
    file.rep_ino_seqno = disk.idi_seqno;
    file.rep_ino_epoch = 0;
    return append_named<FileInfoLayout>(stream, file, name);
}

int send_packed_file_header(rep_stream_t *stream, uint16_t type, const rep_file_t *in_file,
                            const char *filename)
{
    Name name;
    if (!measure(filename, name)) {
        return -1;
    }
    rep_file_t file = *in_file;
    file.rep_type = type;
    return append_named<FileLayout>(stream, file, name);
}

int send_file_ns(rep_stream_t *stream, uint16_t type, const char *filename,
                 const rep_file_t *rep_file, dm_ino_t inum, dm_igen_t igen, uint32_t ns_flags)
{
    Name name;
    if (filename == nullptr || !measure(filename, name)) {
        return -1;
    }
    if (type != REP_TYPE_NS_FILE) {
        rep_file_t file = *rep_file;
        file.rep_magic = REP_FILE_MAGIC;
        file.rep_type = type;
        file.rep_namelen = name.length;
        file.rep_status = 0;
        file.rep_pad = 0;
        return append_named<FileLayout>(stream, file, name);
    }
    rep_ns_file_t ns;
    ns.rep_magic = REP_FILE_MAGIC;
    ns.rep_type = type;
    ns.rep_namelen = name.length;
    ns.rep_inode_inum = rep_file->rep_inode_inum;
    ns.rep_parent_inum = rep_file->rep_parent_inum;
    ns.rep_local_inum = inum;
    ns.rep_inode_igen = rep_file->rep_inode_igen;
    ns.rep_parent_igen = rep_file->rep_parent_igen;
    ns.rep_local_igen = igen;
    ns.rep_ns_flags = ns_flags;
    return append_named<NsFileLayout>(stream, ns, name);
}

int send_file_data(rep_stream_t *stream, const uint8_t *buffer, uint32_t length)
{
    constexpr uint8_t zeros[4] = {};
    const int status = send_to_stream(stream, buffer, length);
    const uint32_t padding = -length & 3;
    return status == 0 && padding != 0 ? send_to_stream(stream, zeros, padding) : status;
}

int send_blob_record(rep_stream_t *stream, uint64_t offset, uint64_t length, uint64_t bloboff,
                     const char *blobtag)
{
    rep_blob_t blob = {offset, length, bloboff, {}};
    memcpy(blob.rep_tag, blobtag, sizeof blob.rep_tag);
    return append_record<BlobLayout>(stream, blob);
}

int send_small_blob_record(rep_stream_t *stream, uint64_t offset, uint64_t length, uint64_t bloboff,
                           const char *blobtag)
{
    rep_small_blob_t blob = {static_cast<uint32_t>(offset),
                             static_cast<uint32_t>(length),
                             static_cast<uint32_t>(bloboff),
                             {}};
    memcpy(blob.rep_tag, blobtag, sizeof blob.rep_tag);
    return append_record<SmallBlobLayout>(stream, blob);
}

int send_sd_mapping(rep_stream_t *stream, uint64_t sd_key, const uint8_t *sd_data,
                    uint32_t sd_data_len)
{
    if (sd_data_len > REP_MAX_SD_LEN) {
        return -3;
    }
    const uint32_t length = REP_SD_MAPPING_LEN + padded(sd_data_len);
    auto *record = static_cast<unsigned char *>(malloc(length));
    if (record == nullptr) {
        __vorn_logfn(error_level,
                     koutil::literal("Cannot allocate %d bytes for rep_sd_mapping. \n"),
                     static_cast<int>(length));
        return -2;
    }
    rep_sd_mapping_t mapping;
    mapping.rep_magic = REP_SD_MAGIC;
    mapping.rep_type = REP_TYPE_SD_MAPPING;
    mapping.rep_pad = 0;
    mapping.rep_sd_key = sd_key;
    mapping.rep_sd_data_len = sd_data_len;
    store<SdMappingLayout>(record, mapping);
    put_padded(record + REP_SD_MAPPING_LEN, sd_data, sd_data_len);
    const int status = send_to_stream(stream, record, length);
    free(record);
    return status;
}

// Input
//
// The buffer's unread bytes lie between rep_used and rep_buf_offset. A fill reads as much as the
// buffer has room for, so that small records cost one read per buffer; it moves the unread bytes to
// the front only when it needs the room. Every extraction makes its bytes ready, hands them out and
// checks what they say before they move or size anything: lengths from the wire are held against
// the caller's room first. Bytes handed out are valid to the next fill, so a fixed part is copied
// out before its name or data is asked for.
//
// Large data skips the buffer: when it is empty, a buffer's worth or more is read into the caller's
// memory by the same loop, under the same rules.

namespace
{

static_assert(offsetof(rep_in_stream_t, rep_buffer) + offsetof(rep_buffer_t, rep_data) == 80);

uint32_t buffered(const rep_in_stream_t *stream)
{
    return stream->rep_buffer.rep_buf_offset - stream->rep_buffer.rep_used;
}

bool ended(const rep_in_stream_t *stream)
{
    return (stream->rep_stream_flags & REP_IN_ENDED) != 0;
}

// Waits for data as long as the time-out allows. An interrupted wait reports no event, like a
// socket that has gone.
bool wait_for_data(rep_in_stream_t *stream)
{
    if (stream->read_timeout == 0) {
        return true;
    }
    const int timeout = static_cast<int>(std::min<uint32_t>(stream->read_timeout, INT_MAX));
    const int ready = DPoll(&stream->stream_poll, timeout);
    if (ready == 0) {
        stream->rep_stream_flags |= REP_IN_TIMED_OUT;
        return false;
    }
    const bool failed = ready < 0 && errno != EINTR;
    const short events = DPollXRevents(stream->rep_sock, &stream->stream_poll);
    if (failed || events == 0) {
        stream->rep_stream_flags |= REP_IN_ENDED;
        return false;
    }
    return true;
}

// Reads behind `have` bytes at `to`, a place for `room` bytes, until there are `needed`, the stream
// ends or a wait times out. Returns the bytes that are there.
uint32_t read_up_to(rep_in_stream_t *stream, uint8_t *to, uint32_t have, uint32_t needed,
                    uint32_t room)
{
    const uint64_t start = MicroTime();
    while (have < needed && have < room && wait_for_data(stream)) {
        const ssize_t got = read(stream->rep_sock, to + have, room - have);
        if (got <= 0) {
            stream->rep_stream_flags |= REP_IN_ENDED;
            break;
        }
        have += static_cast<uint32_t>(got);
    }
    const uint64_t end = MicroTime();
    stream->wait_time += end > start ? end - start : 0;
    return have;
}

// Fills the buffer to `needed` bytes, or as many as it holds.
void fill(rep_in_stream_t *stream, uint32_t needed)
{
    rep_buffer_t *buffer = &stream->rep_buffer;
    const uint32_t have = buffered(stream);
    if (REP_BUFFER_SIZE - buffer->rep_buf_offset < needed) {
        memmove(buffer->rep_data, buffer->rep_data + buffer->rep_used, have);
        buffer->rep_buf_offset = have;
        buffer->rep_used = 0;
    }
    if (have < needed) {
        const uint32_t room = REP_BUFFER_SIZE - buffer->rep_used;
        buffer->rep_buf_offset =
            buffer->rep_used +
            read_up_to(stream, buffer->rep_data + buffer->rep_used, have, needed, room);
    }
}

// Whether a fill is called for when exactly the wanted bytes are buffered; it would read nothing
// then, but may move them.
enum class Exact { fills, stays };

// Makes `length` bytes ready. Returns false, and has consumed nothing, when fewer arrive.
inline bool make_ready(rep_in_stream_t *stream, uint32_t length, Exact exact = Exact::fills)
{
    const uint32_t have = buffered(stream);
    if (have > length || (exact == Exact::stays && have == length)) {
        return true;
    }
    if (!ended(stream)) {
        fill(stream, length);
    }
    return buffered(stream) >= length;
}

// Hands out `length` buffered bytes, valid to the next fill.
const uint8_t *consume(rep_in_stream_t *stream, uint32_t length)
{
    rep_buffer_t *buffer = &stream->rep_buffer;
    const uint8_t *bytes = buffer->rep_data + buffer->rep_used;
    buffer->rep_used += length;
    KO_ASSERT(buffer->rep_used <= buffer->rep_buf_offset);
    if (buffer->rep_used == buffer->rep_buf_offset) {
        buffer->rep_used = 0;
        buffer->rep_buf_offset = 0;
    }
    stream->rep_stream_offset += length;
    return bytes;
}

// Takes the fixed part of a record, `wire_length` bytes.
template <typename Layout>
bool take(rep_in_stream_t *stream, uint32_t wire_length, void *record, Exact exact = Exact::fills)
{
    if (!make_ready(stream, wire_length, exact)) {
        return false;
    }
    load<Layout>(record, consume(stream, wire_length));
    return true;
}

// Takes the name behind a fixed part that said how long it is.
int take_name(rep_in_stream_t *stream, uint32_t magic, uint32_t length, char *filename,
              uint32_t room)
{
    if (magic != REP_FILE_MAGIC || length + 1 > room) {
        return -1;
    }
    if (length == 0) {
        return 0;
    }
    if (!make_ready(stream, padded(length))) {
        return -1;
    }
    memcpy(filename, consume(stream, padded(length)), length);
    filename[length] = '\0';
    return static_cast<int>(length);
}

// Takes a file record of either form and its name, piece by piece as they arrive.
template <typename Layout>
[[gnu::noinline]] int take_arriving_file(rep_in_stream_t *stream, void *record, char *filename,
                                         uint32_t room)
{
    constexpr uint32_t fixed = sizeof(typename Layout::Record);
    if (!make_ready(stream, fixed)) {
        return -1;
    }
    const uint8_t *wire = consume(stream, fixed);
    rep_cmd_t start; // a file record begins like a command: magic, type, length of what follows
    load<CmdLayout>(&start, wire);
    load<Layout>(record, wire);
    return take_name(stream, start.rep_magic, start.rep_cmdlen, filename, room);
}

// Takes a file record of either form and its name. What is buffered whole, with more behind it, and
// in order is taken in one step.
template <typename Layout>
int take_file(rep_in_stream_t *stream, void *record, char *filename, uint32_t room)
{
    rep_buffer_t *buffer = &stream->rep_buffer;
    const uint8_t *wire = buffer->rep_data + buffer->rep_used;
    const uint64_t fixed_end = uint64_t{buffer->rep_used} + sizeof(typename Layout::Record);
    if (fixed_end < buffer->rep_buf_offset) {
        rep_cmd_t start; // a file record begins like a command: magic, type, length of the rest
        load<CmdLayout>(&start, wire);
        const uint32_t length = start.rep_cmdlen;
        const uint64_t end = fixed_end + padded(length);
        if (start.rep_magic == REP_FILE_MAGIC && length < room && end < buffer->rep_buf_offset) {
            load_large<Layout>(record, wire);
            if (length > 0) {
                copy(filename, buffer->rep_data + fixed_end, length);
                filename[length] = '\0';
            }
            stream->rep_stream_offset += end - buffer->rep_used;
            buffer->rep_used = static_cast<uint32_t>(end);
            return static_cast<int>(length);
        }
    }
    return take_arriving_file<Layout>(stream, record, filename, room);
}

int take_header(rep_in_stream_t *stream, rep_header_t *header, Exact exact)
{
    if (!take<HeaderLayout>(stream, REP_HEADER_LEN, header, exact) ||
        header->rep_magic != REP_HEADER_MAGIC) {
        return -1;
    }
    stream->stream_id = header->rep_stream_id;
    return 0;
}

int _extract_rep_cmd(rep_in_stream_t *stream, uint8_t *data, uint32_t data_len, uint32_t *ret_len,
                     Exact exact)
{
    const bool whole = make_ready(stream, REP_CMD_LEN, exact);
    if (ret_len != nullptr) {
        *ret_len = buffered(stream);
    }
    if (!whole) {
        return -1;
    }
    rep_cmd_t cmd;
    load<CmdLayout>(&cmd, consume(stream, REP_CMD_LEN));
    if (cmd.rep_magic != REP_CMD_MAGIC) {
        return -1;
    }
    if (cmd.rep_cmdlen == 0) {
        return cmd.rep_type;
    }
    const uint32_t length = padded(cmd.rep_cmdlen);
    if (length > data_len || extract_rep_data(stream, data, length) != 0 || ret_len == nullptr) {
        return -1;
    }
    *ret_len = cmd.rep_cmdlen;
    return cmd.rep_type;
}

// Takes up to `length` bytes of data. Returns how many, 0 when none come any more.
uint32_t take_data(rep_in_stream_t *stream, uint8_t *to, uint32_t length)
{
    if (to != nullptr && length >= REP_BUFFER_SIZE && buffered(stream) == 0) {
        const uint32_t got = ended(stream) ? 0 : read_up_to(stream, to, 0, REP_BUFFER_SIZE, length);
        stream->rep_stream_offset += got;
        return got;
    }
    make_ready(stream, length);
    const uint32_t piece = std::min(length, buffered(stream));
    if (piece > 0) {
        const uint8_t *bytes = consume(stream, piece);
        if (to != nullptr) {
            memcpy(to, bytes, piece);
        }
    }
    return piece;
}

bool debug_peek()
{
    const debug_facility &facility = facilities[DBG_FAC_KOPOL];
    return facility.debug_flags != nullptr && facility.debug_flag_size > 1 &&
           (facility.debug_flags[1] & 1) != 0;
}

bool has_type(uint32_t magic)
{
    constexpr uint32_t typed[] = {REP_FILE_MAGIC, REP_CMD_MAGIC, REP_SD_MAGIC, REP_SERVICE_MAGIC_1,
                                  REP_SERVICE_MAGIC_2};
    return std::find(std::begin(typed), std::end(typed), magic) != std::end(typed);
}

} // namespace

rep_in_stream_t *create_rep_in_stream(int sock)
{
    auto *stream = static_cast<rep_in_stream_t *>(calloc(1, sizeof(rep_in_stream_t)));
    if (stream == nullptr) {
        return nullptr;
    }
    if (DPollInit(&stream->stream_poll) != 0 ||
        DPollSet(sock, POLLIN | POLLRDHUP, &stream->stream_poll) != 0) {
        DPollFree(&stream->stream_poll);
        free(stream);
        return nullptr;
    }
    stream->rep_sock = sock;
    stream->start_time = MicroTime();
    return stream;
}

void set_stream_in_timeout(rep_in_stream_t *stream, uint32_t timeout)
{
    stream->read_timeout = timeout <= UINT32_MAX / 1000 ? timeout * 1000 : UINT32_MAX;
}

void cleanup_rep_in_stream(rep_in_stream_t *stream)
{
    if (stream->rep_sock != 0 && stream->rep_sock != -1) {
        close(stream->rep_sock);
    }
    DPollFree(&stream->stream_poll);
    free(stream);
}

int peek_rep_stream(rep_in_stream_t *stream)
{
    if (!make_ready(stream, REP_CMD_LEN)) {
        if (debug_peek()) {
            __vorn_debugfn(0,
                           koutil::literal("peek_rep_stream: Available data: %d is less than the "
                                           "requested data: %d, rep_stream_flags: 0x%x.\n"),
                           static_cast<int>(buffered(stream)), REP_CMD_LEN,
                           stream->rep_stream_flags);
        }
        return -1;
    }
    rep_cmd_t start; // every record begins like a command: magic and type
    load<CmdLayout>(&start, stream->rep_buffer.rep_data + stream->rep_buffer.rep_used);
    if (start.rep_magic == REP_HEADER_MAGIC) {
        return 1;
    }
    if (has_type(start.rep_magic)) {
        return start.rep_type;
    }
    __vorn_logfn(
        error_level,
        koutil::literal("peek_rep_stream: magic (%x) doesn't match, rep_stream_flags: 0x%x.\n"),
        start.rep_magic, stream->rep_stream_flags);
    return -1;
}

int extract_rep_header(rep_in_stream_t *stream, rep_header_t *header)
{
    return take_header(stream, header, Exact::fills);
}

int extract_rep_header_sync(rep_in_stream_t *stream, rep_header_t *header)
{
    return take_header(stream, header, Exact::stays);
}

int extract_rep_file(rep_in_stream_t *stream, rep_file_t *file, char *filename, uint32_t namelen)
{
    return take_file<FileLayout>(stream, file, filename, namelen);
}

int extract_file_info(rep_in_stream_t *stream, file_info_t *file, char *filename, uint32_t namelen)
{
    return take_file<FileInfoLayout>(stream, file, filename, namelen);
}

int _extract_rep_file(rep_in_stream_t *stream, void *buff, uint32_t size, char *filename,
                      uint32_t namelen)
{
    switch (size) {
    case REP_FILE_LEN:
        return take_file<FileLayout>(stream, buff, filename, namelen);
    case REP_FILE_INFO_LEN:
        return take_file<FileInfoLayout>(stream, buff, filename, namelen);
    default:
        return -1;
    }
}

int extract_rep_ns_file(rep_in_stream_t *stream, rep_ns_file_t *file, char *filename,
                        uint32_t namelen)
{
    if (!take<NsFileLayout>(stream, REP_NS_FILE_LEN, file)) {
        return -1;
    }
    return take_name(stream, file->rep_magic, file->rep_namelen, filename, namelen);
}

int extract_rep_cmd(rep_in_stream_t *stream, uint8_t *data, uint32_t data_len, uint32_t *ret_len)
{
    return _extract_rep_cmd(stream, data, data_len, ret_len, Exact::fills);
}

int extract_rep_cmd_sync(rep_in_stream_t *stream, uint8_t *data, uint32_t data_len,
                         uint32_t *ret_len)
{
    return _extract_rep_cmd(stream, data, data_len, ret_len, Exact::stays);
}

int extract_rep_data(rep_in_stream_t *stream, uint8_t *buffer, uint32_t length)
{
    const uint32_t padding = -length & 3;
    while (length > 0) {
        const uint32_t piece = take_data(stream, buffer, length);
        if (piece == 0) {
            return -1;
        }
        buffer = buffer != nullptr ? buffer + piece : nullptr;
        length -= piece;
    }
    if (padding != 0) {
        if (!make_ready(stream, padding)) {
            return -1;
        }
        consume(stream, padding);
    }
    return 0;
}

int extract_rep_sd_mapping(rep_in_stream_t *stream, uint64_t *sd_key, uint8_t **sd_datap,
                           uint32_t *sd_data_len)
{
    KO_ASSERT(*sd_data_len >= REP_MAX_SD_LEN);
    if (sd_datap != nullptr) {
        *sd_datap = nullptr;
    }
    rep_sd_mapping_t mapping;
    if (!take<SdMappingLayout>(stream, REP_SD_MAPPING_LEN, &mapping)) {
        __vorn_logfn(error_level,
                     koutil::literal("Expected SD mapping header not in replication stream\n"));
        return -1;
    }
    const uint32_t length = mapping.rep_sd_data_len;
    if (mapping.rep_magic != REP_SD_MAGIC || mapping.rep_type != REP_TYPE_SD_MAPPING ||
        length == 0 || length > REP_MAX_SD_LEN) {
        __vorn_logfn(error_level,
                     koutil::literal("Bad SD mapping in replication stream: magic %#x type %d "
                                     "data_len %u max_sd_len %u\n"),
                     mapping.rep_magic, static_cast<int>(mapping.rep_type), length,
                     static_cast<unsigned int>(REP_MAX_SD_LEN));
        return -1;
    }
    uint8_t *data = nullptr;
    if (sd_datap != nullptr) {
        data = static_cast<uint8_t *>(malloc(length));
        if (data == nullptr) {
            __vorn_logfn(
                error_level,
                koutil::literal("Cannot allocate space for SD data from replication stream\n"));
            return -2;
        }
    }
    if (extract_rep_data(stream, data, length) != 0) {
        __vorn_logfn(error_level, koutil::literal("SD data not in replication stream\n"));
        free(data);
        return -1;
    }
    *sd_key = mapping.rep_sd_key;
    *sd_data_len = length;
    if (sd_datap != nullptr) {
        *sd_datap = data;
    }
    return 0;
}

int extract_rep_blob(rep_in_stream_t *stream, rep_blob_t *blob)
{
    return take<BlobLayout>(stream, REP_BLOB_LEN, blob) ? 0 : -1;
}

int extract_rep_small_blob(rep_in_stream_t *stream, rep_blob_t *blob)
{
    rep_small_blob_t small;
    if (!take<SmallBlobLayout>(stream, REP_SMALL_BLOB_LEN, &small)) {
        return -1;
    }
    *blob = {small.rep_offset, small.rep_length, small.rep_bloboff, {}};
    memcpy(blob->rep_tag, small.rep_tag, sizeof blob->rep_tag);
    return 0;
}

int copy_rep_stream(rep_in_stream_t *in, rep_stream_t *out)
{
    for (;;) {
        if (!ended(in)) {
            fill(in, REP_BUFFER_SIZE);
        }
        const uint32_t length = buffered(in);
        if (length == 0) {
            return 0;
        }
        if (send_to_stream(out, consume(in, length), length) != 0) {
            return -1;
        }
    }
}
