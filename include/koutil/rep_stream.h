/* rep_stream.h - streams of replication records from host to host.
 *
 * A namespace, file attributes, security descriptors and file data flow over a stream socket as the
 * records of rep_records.h. An output stream gathers records in a 64 KiB buffer, which goes to a
 * target's socket, to a backing file that targets served later read, or to both. An input stream
 * takes the records off a descriptor one at a time. The protocol - which record follows which - is
 * the caller's. To move bytes that are not such records, use the descriptor itself.
 *
 * Output
 *   Life:           create_rep_out_stream (one reference) -> assign a socket, a backing file or
 *                   both -> lock_stream, send_..., flush_rep_stream, unlock_stream ...
 *                   -> cleanup_rep_stream. hold_stream and drop_stream share the stream; the last
 *                   reference frees it.
 *   Ownership:      the stream closes its descriptors in close_rep_stream and cleanup_rep_stream,
 *                   not in drop_stream. Data, names and records that are sent are copied.
 *   Results:        0, or -1 when a flush failed; what failed is logged (__vorn_logfn, level 3).
 *                   Bytes that were already out are not taken back: close the stream.
 *   Names:          up to 255 bytes. A longer one is refused with -1 and nothing is sent.
 *   Thread safety:  one writer at a time: hold the writers' lock (lock_stream) around each record
 *                   or sequence of records. hold, drop, close and cleanup may run in any thread;
 *                   let no thread write to a stream that another closes. Lock order: rep_in_mutex,
 *                   then rep_mutex.
 *
 * Input
 *   Life:           create_rep_in_stream -> extract_... -> cleanup_rep_in_stream.
 *   Ownership:      the stream owns its descriptor, which must be in blocking mode. Descriptor 0 is
 *                   never closed: do not give a stream descriptor 0.
 *   Results:        0 or what the function names; -1 when the stream ends first, a read times out
 *                   or the next record is another. After a record that was refused or cut short,
 *                   part of it may be gone: abandon the stream. After a time-out (bit 2 of
 *                   rep_stream_flags) a call that consumed nothing may be repeated.
 *   Signals:        an interrupted wait ends the stream: block signals or handle them in other
 *                   threads.
 *   Thread safety:  an input stream belongs to one thread.
 *
 *     rep_stream_t *out = create_rep_out_stream();
 *     assign_rep_target_sync(out, sock);
 *     lock_stream(out);
 *     int failed = send_rep_header(out, NULL, fsid, 0, key, id) != 0 ||
 *                  send_file_data(out, data, length) != 0 || flush_rep_stream(out) != 0;
 *     unlock_stream(out);
 *     cleanup_rep_stream(out, 0);
 */
#ifndef KOUTIL_REP_STREAM_H
#define KOUTIL_REP_STREAM_H

#include "koutil/mutex.h"
#include "koutil/pollutil.h"
#include "koutil/rep_records.h"
#include "koutil/types.h"

KO_BEGIN_DECLS

/* A stream's buffer. Output: the first `rep_used` bytes wait for a flush. Input: the bytes from
 * `rep_used` to `rep_buf_offset` have been read and not yet taken. */
typedef struct rep_buffer {
    uint32_t rep_buf_offset;           /* input: end of the bytes read */
    uint32_t rep_used;                 /* end of the bytes that wait, or that were taken */
    uint8_t rep_data[REP_BUFFER_SIZE]; /* the bytes */
} rep_buffer_t;

/* An output stream. */
typedef struct rep_stream {
    int32_t rep_sock;            /* target's socket, -1 when none */
    int32_t rep_queued_fd;       /* backing file, -1 when none */
    uint64_t wait_time;          /* owner's */
    uint64_t start_time;         /* creation, microseconds of the wall clock */
    uint32_t rep_stream_flags;   /* caller's bits, set on close; guarded by rep_mutex */
    uint32_t rep_padding;        /* 0 */
    uint64_t rep_stream_offset;  /* bytes flushed so far; guarded by rep_mutex */
    thread_mutex_t rep_in_mutex; /* the writers' lock */
    thread_mutex_t rep_mutex;    /* guards count, offset, flags, close, rep_targ_waiting */
    thread_cond_t rep_cond;      /* broadcast when the offset advances and on close */
    uint32_t rep_ref_cnt;        /* guarded by rep_mutex */
    uint32_t rep_targ_waiting;   /* threads waiting on rep_cond, kept by them under rep_mutex */
    rep_buffer_t rep_buffer;     /* guarded by the writers' lock */
    void *rep_input;             /* owner's */
    void (*stream_complete)(struct rep_stream *stream); /* may be null; see drop_stream */
} rep_stream_t;

/* A target host, owned by the replication services. This library reads only rep_tgt_sock. */
typedef struct rep_target {
    SOCKET_T rep_tgt_sock;                    /* its socket */
    int32_t rep_tgt_fd;                       /* its file */
    rep_stream_t *rep_tgt_stream;             /* the stream that serves it */
    uint32_t rep_tgt_ref;                     /* references */
    tgt_cnt_type_t rep_tgt_counter;           /* the counter that it is part of */
    uint64_t rep_tgt_stream_id;               /* rep_stream_id of its stream */
    rep_state_t rep_tgt_state;                /* state of its replication */
    rep_target_stats_t rep_tgt_stats;         /* of this replication */
    tmspec_t rep_tgt_lasttm;                  /* last activity */
    char rep_target[256];                     /* terminated name */
    char rep_source[256];                     /* terminated name of the source */
    char rep_tgt_host[256];                   /* terminated host name */
    char rep_hdr_file[1024];                  /* terminated path of the header file */
    char rep_tgt_path[512];                   /* terminated path at the target */
    uint16_t rep_tgt_port;                    /* port in host order */
    uint16_t rep_tgt_version;                 /* its version */
    tgt_state_t rep_tgt_file_state;           /* state of the present file */
    uint64_t rep_tgt_offset;                  /* bytes of the stream that it has */
    void *rep_pending;                        /* the replication that it belongs to */
    rep_progress_stats_t rep_tgt_progress[2]; /* two sets of statistics */
    uint8_t rep_tgt_buffer[65536];            /* the services' work area */
} rep_target_t;

/* A directory's identity. */
typedef struct inode_id {
    dm_ino_t inum;  /* inode number */
    dm_igen_t igen; /* its generation */
    uint32_t _pad;  /* 0 */
} inode_id_t;

/* A file's attributes, as send_file_header reads them. */
typedef struct extended_stat {
    uint64_t sr_ino;       /* inode number */
    uint32_t sr_gen;       /* its generation */
    uint32_t sr_uid;       /* owner */
    uint32_t sr_gid;       /* group */
    uint32_t sr_mode;      /* type and permission bits */
    uint64_t sr_size;      /* size in bytes */
    uint64_t sr_nt_sd_key; /* rep_sd_key of its security descriptor */
    tmspec_t sr_ctim;      /* last change of the inode */
    tmspec_t sr_mtim;      /* last change of the data */
    uint8_t sr_attr_flags; /* attribute bits */
} ExtendedStat_t;

/* The on-disk part of an inode, as send_ip_header reads it. */
typedef struct idinode {
    uint64_t idi_size;      /* size in bytes */
    uint64_t idi_ntsec_key; /* rep_sd_key of its security descriptor */
    uint64_t idi_seqno;     /* sequence number */
    uint32_t idi_gen;       /* inode generation */
    uint32_t idi_uid;       /* owner */
    uint32_t idi_gid;       /* group */
    uint32_t idi_mode;      /* type and permission bits */
    union {
        tmspec_t ts;  /* as a time */
        uint64_t raw; /* as a number */
    } u_ctime;        /* last change of the inode */
    union {
        tmspec_t ts;        /* as a time */
        uint64_t raw;       /* as a number */
    } u_mtime;              /* last change of the data */
    uint8_t idi_attr_flags; /* attribute bits */
} idinode_t;

/* An inode in memory. */
typedef struct inode {
    uint64_t i_inode_number; /* inode number */
    idinode_t i_idinode;     /* the part on disk */
} inode_t;

/* Bits of an input stream's rep_stream_flags; set, never cleared. */
#define REP_IN_ENDED     1u /* no further reads; only buffered bytes remain */
#define REP_IN_TIMED_OUT 4u /* a read timed out; later reads are tried */

/* An input stream. */
typedef struct rep_in_stream {
    int32_t rep_sock;           /* the descriptor, -1 for none */
    uint32_t rep_stream_flags;  /* REP_IN_ENDED, REP_IN_TIMED_OUT */
    uint64_t rep_stream_offset; /* bytes consumed so far */
    uint32_t rep_padding;       /* 0 */
    uint32_t read_timeout;      /* milliseconds; 0 reads without polling */
    uint64_t stream_id;         /* rep_stream_id of the last stream header */
    uint64_t wait_time;         /* microseconds spent waiting for data */
    uint64_t start_time;        /* creation, microseconds of the wall clock */
    dpoll_t stream_poll;        /* the set that holds the descriptor */
    rep_buffer_t rep_buffer;    /* bytes read and not yet taken */
} rep_in_stream_t;

/* ---- output: life and locks ---- */

/* Create an output stream with one reference and neither socket nor backing file; what is flushed
 * without either is dropped.
 *
 * Returns the stream, or null when memory runs out. Panics when a lock cannot be made. */
KO_API rep_stream_t *create_rep_out_stream(void);

/* Send what is flushed to `sock`, a connected stream socket that the stream owns from now on; -1
 * for none. */
KO_API void assign_rep_target_sync(rep_stream_t *stream, int sock);

/* Write what is flushed to the file `fd`, which the stream owns from now on; -1 for none. With a
 * socket too, the file gets exactly the bytes that the socket took. */
KO_API void assign_rep_backing_file(rep_stream_t *stream, int fd);

/* Move the backing file to its beginning.
 *
 * Returns 0, or -1 with errno set. */
KO_API int rewind_rep_backing_file(rep_stream_t *stream);

/* Take the writers' lock (rep_in_mutex). */
KO_API void lock_stream(rep_stream_t *stream);

/* Give the writers' lock back. */
KO_API void unlock_stream(rep_stream_t *stream);

/* Add a reference. Panics when the stream has none left. */
KO_API void hold_stream(rep_stream_t *stream);

/* Give a reference back. The last one calls stream_complete, if set, without any lock, and frees
 * the stream; its descriptors stay open. Panics when no reference is left.
 *
 * Returns 1 when references remain, 0 when the stream is gone. */
KO_API int drop_stream(rep_stream_t *stream);

/* Close both descriptors, set the bits `flags` in rep_stream_flags and wake who waits on rep_cond
 * and is counted in rep_targ_waiting. What is flushed later is dropped. */
KO_API void close_rep_stream(rep_stream_t *stream, int flags);

/* close_rep_stream and drop_stream in one step.
 *
 * Returns 1 when references remain, 0 when the stream is gone. */
KO_API int cleanup_rep_stream(rep_stream_t *stream, int flags);

/* ---- output: sending ---- */

/* Append `len` bytes, flushing whenever the buffer is full and more is to come: a buffer that has
 * just become full waits for the next append. A large object goes out from where it stands, in
 * multiples of 64 KiB.
 *
 * Returns 0, or -1 when a flush failed; the part of the object before the failed flush is then
 * buffered or out. */
KO_API int send_to_stream(rep_stream_t *stream, const void *object, uint32_t len);

/* Write the buffered bytes out. Each piece that the socket (or, without one, the file) takes
 * advances rep_stream_offset and wakes the followers. A file that takes only a part is no error:
 * the rest of the buffer is lost to it, and only rep_stream_offset tells.
 *
 * Returns 0, the buffer is then empty; or -1 and the buffer is as it was, pieces that are out
 * included, and the failure is logged. */
KO_API int flush_rep_stream(rep_stream_t *stream);

/* Send a stream header. `rep_flags` is the low 16 bits of `flags`. Goes into the buffer, or, when
 * `target` is not null, straight to the target's socket; `stream` is then not used and may be null.
 *
 * Returns 0, -1, or the negative result of the send to the target, which is logged. */
KO_API int send_rep_header(rep_stream_t *stream, rep_target_t *target, dm_fsid_t fsid,
                           uint32_t flags, uint64_t key, uint64_t stream_id);

/* Send a command with a payload of up to 8192 bytes, already in wire order; `data` may be null when
 * `data_len` is 0. `stream` and `target` as in send_rep_header.
 *
 * Returns 0; -1 when a flush failed, memory ran out or the payload is too long (logged, nothing is
 * sent); or the negative result of the send to the target. */
KO_API int send_rep_command(rep_stream_t *stream, rep_target_t *target, uint16_t cmd_type,
                            const uint8_t *data, size_t data_len);

/* send_rep_command into the buffer, then flush_rep_stream.
 *
 * Returns 0 or -1. */
KO_API int send_rep_command_sync(rep_stream_t *stream, uint16_t cmd_type, const uint8_t *data,
                                 size_t data_len);

/* Send a rep_file_t made from a file's attributes. `filename` may be null for a record without a
 * name, `etime` for no further time. The file-type bits of the mode are cleared. The data count is
 * sent as 0 when `rep_state` or the file's size is 0.
 *
 * Returns 0 or -1. */
KO_API int send_file_header(rep_stream_t *stream, uint16_t type, const char *filename,
                            const inode_id_t *parent, uint16_t rep_state,
                            const ExtendedStat_t *stat, const tmspec_t *etime, uint32_t data_cnt,
                            uint32_t seqno);

/* Send a file_info_t made from an inode, as send_file_header does. Bits 47 to 54 and 63 of the
 * inode number are cleared. Type 5 keeps its data count always.
 *
 * Returns 0 or -1. */
KO_API int send_ip_header(rep_stream_t *stream, uint16_t type, const char *filename,
                          const inode_id_t *parent, uint16_t rep_state, const inode_t *ip,
                          const tmspec_t *etime, uint32_t data_cnt, uint32_t seqno);

/* Send the record `in_file`, which is in host order and stays so, with the type `type`. `filename`
 * may be null.
 *
 * Requires: in_file->rep_magic is set and in_file->rep_namelen is the length of `filename`.
 * Returns 0 or -1. */
KO_API int send_packed_file_header(rep_stream_t *stream, uint16_t type, const rep_file_t *in_file,
                                   const char *filename);

/* Send a namespace record (type 18) or a file record (any other type) made from `rep_file`, which
 * is in host order. `inum`, `igen` and `ns_flags` travel in namespace records only; a file record
 * has the status 0.
 *
 * Returns 0, or -1; a null `filename` is refused and sends nothing. */
KO_API int send_file_ns(rep_stream_t *stream, uint16_t type, const char *filename,
                        const rep_file_t *rep_file, dm_ino_t inum, dm_igen_t igen,
                        uint32_t ns_flags);

/* Send `length` bytes of a file and their padding. The receiver has to know the length.
 *
 * Returns 0 or -1. */
KO_API int send_file_data(rep_stream_t *stream, const uint8_t *buffer, uint32_t length);

/* Send a blob record; `blobtag` is 16 bytes.
 *
 * Returns 0 or -1. */
KO_API int send_blob_record(rep_stream_t *stream, uint64_t offset, uint64_t length,
                            uint64_t bloboff, const char *blobtag);

/* Send a small blob record; each number is cut to its low 32 bits.
 *
 * Returns 0 or -1. */
KO_API int send_small_blob_record(rep_stream_t *stream, uint64_t offset, uint64_t length,
                                  uint64_t bloboff, const char *blobtag);

/* Send a security descriptor and its key. Receivers refuse a descriptor of 0 bytes.
 *
 * Returns 0; -1 when a flush failed; -2 when memory ran out (logged); -3 when the descriptor is
 * longer than REP_MAX_SD_LEN. Nothing is sent in the last two cases. */
KO_API int send_sd_mapping(rep_stream_t *stream, uint64_t sd_key, const uint8_t *sd_data,
                           uint32_t sd_data_len);

/* ---- input ---- */

/* Create an input stream over `sock`, a socket or any other readable descriptor but 0.
 *
 * Ownership: the stream closes `sock` in cleanup_rep_in_stream; on failure it is the caller's.
 * Returns the stream, or null when memory runs out. */
KO_API rep_in_stream_t *create_rep_in_stream(int sock);

/* Let each wait for data last at most `timeout` seconds; 0, the initial value, waits for ever.
 * Time-outs above INT_MAX milliseconds are taken as that. */
KO_API void set_stream_in_timeout(rep_in_stream_t *stream, uint32_t timeout);

/* Close the descriptor, unless it is 0 or -1, and free the stream. */
KO_API void cleanup_rep_in_stream(rep_in_stream_t *stream);

/* Look at the next record without taking it.
 *
 * Returns 1 when it is a stream header; the type of another record with a magic; -1 when 8 bytes do
 * not arrive, or when the next bytes are no known magic (logged). */
KO_API int peek_rep_stream(rep_in_stream_t *stream);

/* Take a stream header and remember its stream id. The version is not checked.
 *
 * Returns 0 or -1. `header` is in host order; it holds what came even when the magic is wrong. */
KO_API int extract_rep_header(rep_in_stream_t *stream, rep_header_t *header);

/* Take a stream header, as extract_rep_header does; what is buffered does not move when it is
 * exactly the record. */
KO_API int extract_rep_header_sync(rep_in_stream_t *stream, rep_header_t *header);

/* Take a file record and its name, which is terminated in `filename`, a buffer of `namelen` bytes.
 * A record without a name leaves `filename` untouched.
 *
 * Returns the length of the name, 0 when there is none; -1 when the record is no file record, or
 * its name and a terminator do not fit in `namelen` bytes (so `namelen` is at least 1). */
KO_API int extract_rep_file(rep_in_stream_t *stream, rep_file_t *file, char *filename,
                            uint32_t namelen);

/* Take an extended file record and its name, as extract_rep_file does. Nothing on the wire tells
 * the two apart. */
KO_API int extract_file_info(rep_in_stream_t *stream, file_info_t *file, char *filename,
                             uint32_t namelen);

/* The general form of extract_rep_file and extract_file_info: `size` is 96 or 112, the room in
 * `buff`. Another size returns -1. */
KO_API int _extract_rep_file(rep_in_stream_t *stream, void *buff, uint32_t size, char *filename,
                             uint32_t namelen);

/* Take a namespace record and its name, as extract_rep_file does. The type is not checked. */
KO_API int extract_rep_ns_file(rep_in_stream_t *stream, rep_ns_file_t *file, char *filename,
                               uint32_t namelen);

/* Take a command; its payload, in wire order, goes to `data`, a buffer of `data_len` bytes. The
 * padding goes there too: leave room for the payload rounded up to 4.
 *
 * `ret_len` is optional for commands without a payload. It gets the payload's length. When the
 * result is -1, or the payload is empty, it holds the number of bytes that were buffered before the
 * command was taken: 0 when the stream ended cleanly.
 *
 * Returns the type; -1 when the next record is no command, the payload does not fit (it stays in
 * the stream), the stream ends, or a payload came without a `ret_len` (it is gone). */
KO_API int extract_rep_cmd(rep_in_stream_t *stream, uint8_t *data, uint32_t data_len,
                           uint32_t *ret_len);

/* Take a command, as extract_rep_cmd does; what is buffered does not move when it is exactly the
 * fixed part. */
KO_API int extract_rep_cmd_sync(rep_in_stream_t *stream, uint8_t *data, uint32_t data_len,
                                uint32_t *ret_len);

/* Take `length` bytes of data and their padding; a null `buffer` skips them.
 *
 * Returns 0, or -1 when the stream ends first; the bytes before the end are gone. */
KO_API int extract_rep_data(rep_in_stream_t *stream, uint8_t *buffer, uint32_t length);

/* Take a security-descriptor mapping. A null `sd_datap` skips the descriptor.
 *
 * Requires: *sd_data_len is at least REP_MAX_SD_LEN on entry; less panics.
 * Ownership: *sd_datap is the caller's, to be freed with free(3); null on failure.
 * Returns 0; -1 when the next record is no mapping of 1 to 65536 bytes or the stream ends (logged);
 * -2 when memory runs out (logged). On failure *sd_key and *sd_data_len stay as they were. */
KO_API int extract_rep_sd_mapping(rep_in_stream_t *stream, uint64_t *sd_key, uint8_t **sd_datap,
                                  uint32_t *sd_data_len);

/* Take a blob record.
 *
 * Returns 0 or -1. */
KO_API int extract_rep_blob(rep_in_stream_t *stream, rep_blob_t *blob);

/* Take a small blob record; its numbers are widened.
 *
 * Returns 0 or -1. */
KO_API int extract_rep_small_blob(rep_in_stream_t *stream, rep_blob_t *blob);

/* Forward everything that comes in, records uninterpreted, until the input ends or times out. Each
 * round waits for 64 KiB or the end. `out` is not flushed.
 *
 * Requires: the writers' lock of `out`.
 * Returns 0, or -1 when an append failed. */
KO_API int copy_rep_stream(rep_in_stream_t *in, rep_stream_t *out);

KO_END_DECLS

#endif
