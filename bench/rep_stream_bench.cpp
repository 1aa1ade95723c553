// rep_stream_bench.cpp - replication streams across a socket pair, from one thread to another.
//
// Bulk: 1 GiB of data in pieces of 1 MiB. Peers: a loop of send and recv of 64 KiB over the same
// memory, which is what the socket can do, and buffered stdio with buffers of 64 KiB.
//
// Records: a million file records with names of 8 bytes, 104 bytes each on the wire, built from a
// file's attributes and taken apart again. Peers: the bare loop over as many bytes, stdio moving
// the finished records (it converts nothing), and protobuf's coded streams with fixed-width fields
// over the same socket.
//
// Ratios are those of bytes_per_second.
#include "koutil/rep_stream.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#if HAVE_PROTOBUF_LITE
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#endif

namespace
{

constexpr size_t bulk_size = size_t{1} << 30;
constexpr size_t piece_size = size_t{1} << 20;
constexpr int record_count = 1000000;
constexpr size_t record_size = 104;

const char *const names[] = {"file.001", "readme.t", "a.out.12", "Makefile"};

void must(bool done)
{
    if (!done) {
        abort();
    }
}

// Runs a sender in a thread of its own and a receiver here; each closes its descriptor.
template <typename Sender, typename Receiver>
void transfer(benchmark::State &state, size_t bytes, Sender sender, Receiver receiver)
{
    for (auto _ : state) {
        int ends[2];
        must(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
        std::thread thread([&] { sender(ends[0]); });
        receiver(ends[1]);
        thread.join();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}

std::vector<uint8_t> &piece()
{
    static std::vector<uint8_t> memory(piece_size, 0x5A);
    return memory;
}

void send_loop(int fd, size_t bytes)
{
    for (size_t at = 0; at < bytes;) {
        const size_t length = std::min<size_t>(bytes - at, REP_BUFFER_SIZE);
        must(send(fd, piece().data() + at % piece_size, length, MSG_NOSIGNAL) ==
             static_cast<ssize_t>(length));
        at += length;
    }
    close(fd);
}

void receive_loop(int fd, size_t bytes)
{
    std::vector<uint8_t> memory(piece_size);
    for (size_t got = 0; got < bytes;) {
        const size_t at = got % piece_size;
        const ssize_t n =
            recv(fd, memory.data() + at, std::min<size_t>(piece_size - at, REP_BUFFER_SIZE), 0);
        must(n > 0);
        got += static_cast<size_t>(n);
    }
    close(fd);
}

void raw(benchmark::State &state, size_t bytes)
{
    transfer(
        state, bytes, [&](int fd) { send_loop(fd, bytes); },
        [&](int fd) { receive_loop(fd, bytes); });
}

void bulk_raw(benchmark::State &state)
{
    raw(state, bulk_size);
}

void bulk_koutil(benchmark::State &state)
{
    std::vector<uint8_t> memory(piece_size);
    transfer(
        state, bulk_size,
        [](int fd) {
            rep_stream_t *out = create_rep_out_stream();
            assign_rep_target_sync(out, fd);
            for (size_t sent = 0; sent < bulk_size; sent += piece_size) {
                must(send_file_data(out, piece().data(), piece_size) == 0);
            }
            must(flush_rep_stream(out) == 0);
            cleanup_rep_stream(out, 0);
        },
        [&](int fd) {
            rep_in_stream_t *in = create_rep_in_stream(fd);
            for (size_t got = 0; got < bulk_size; got += piece_size) {
                must(extract_rep_data(in, memory.data(), piece_size) == 0);
            }
            cleanup_rep_in_stream(in);
        });
}

void bulk_stdio(benchmark::State &state)
{
    std::vector<uint8_t> memory(piece_size);
    transfer(
        state, bulk_size,
        [](int fd) {
            FILE *file = fdopen(fd, "w");
            setvbuf(file, nullptr, _IOFBF, REP_BUFFER_SIZE);
            for (size_t sent = 0; sent < bulk_size; sent += piece_size) {
                must(fwrite(piece().data(), piece_size, 1, file) == 1);
            }
            must(fclose(file) == 0);
        },
        [&](int fd) {
            FILE *file = fdopen(fd, "r");
            setvbuf(file, nullptr, _IOFBF, REP_BUFFER_SIZE);
            for (size_t got = 0; got < bulk_size; got += piece_size) {
                must(fread(memory.data(), piece_size, 1, file) == 1);
            }
            fclose(file);
        });
}

// The attributes of a file, of which number, size and times differ from file to file. One object
// serves all files: its filling is no part of what is measured.
struct Attributes {
    ExtendedStat_t stat = {};

    Attributes()
    {
        stat.sr_gen = 1;
        stat.sr_uid = stat.sr_gid = 1000;
        stat.sr_mode = 0100644;
        stat.sr_ctim.tv_sec = stat.sr_mtim.tv_sec = 1700000000;
    }

    const ExtendedStat_t &of(int i)
    {
        stat.sr_ino = static_cast<uint64_t>(i) + 1000;
        stat.sr_size = static_cast<uint64_t>(i) * 4096;
        stat.sr_ctim.tv_nsec = stat.sr_mtim.tv_nsec = static_cast<uint32_t>(i);
        return stat;
    }
};

void records_raw(benchmark::State &state)
{
    raw(state, record_count * record_size);
}

void records_koutil(benchmark::State &state)
{
    transfer(
        state, record_count * record_size,
        [](int fd) {
            const inode_id_t parent = {2, 1, 0};
            rep_stream_t *out = create_rep_out_stream();
            assign_rep_target_sync(out, fd);
            Attributes attributes;
            for (int i = 0; i < record_count; i++) {
                const ExtendedStat_t &stat = attributes.of(i);
                must(send_file_header(out, 6, names[i % 4], &parent, 1, &stat, nullptr, 1,
                                      static_cast<uint32_t>(i)) == 0);
            }
            must(flush_rep_stream(out) == 0);
            cleanup_rep_stream(out, 0);
        },
        [](int fd) {
            rep_in_stream_t *in = create_rep_in_stream(fd);
            rep_file_t file;
            char name[256];
            uint64_t sum = 0;
            for (int i = 0; i < record_count; i++) {
                must(extract_rep_file(in, &file, name, sizeof name) == 8);
                sum += file.rep_inode_inum + static_cast<unsigned char>(name[0]);
            }
            benchmark::DoNotOptimize(sum);
            cleanup_rep_in_stream(in);
        });
}

void records_stdio(benchmark::State &state)
{
    transfer(
        state, record_count * record_size,
        [](int fd) {
            FILE *file = fdopen(fd, "w");
            setvbuf(file, nullptr, _IOFBF, REP_BUFFER_SIZE);
            Attributes attributes;
            for (int i = 0; i < record_count; i++) {
                const ExtendedStat_t &stat = attributes.of(i);
                rep_file_t record = {};
                record.rep_namelen = 8;
                record.rep_inode_inum = stat.sr_ino;
                record.rep_size = stat.sr_size;
                record.rep_mtime = stat.sr_mtim;
                must(fwrite(&record, REP_FILE_LEN, 1, file) == 1 &&
                     fwrite(names[i % 4], 8, 1, file) == 1);
            }
            must(fclose(file) == 0);
        },
        [](int fd) {
            FILE *file = fdopen(fd, "r");
            setvbuf(file, nullptr, _IOFBF, REP_BUFFER_SIZE);
            rep_file_t record;
            char name[256];
            uint64_t sum = 0;
            for (int i = 0; i < record_count; i++) {
                must(fread(&record, REP_FILE_LEN, 1, file) == 1 &&
                     fread(name, record.rep_namelen, 1, file) == 1);
                name[record.rep_namelen] = '\0';
                sum += record.rep_inode_inum + static_cast<unsigned char>(name[0]);
            }
            benchmark::DoNotOptimize(sum);
            fclose(file);
        });
}

#if HAVE_PROTOBUF_LITE
void records_protobuf(benchmark::State &state)
{
    using namespace google::protobuf::io;
    transfer(
        state, record_count * record_size,
        [](int fd) {
            FileOutputStream socket(fd, REP_BUFFER_SIZE);
            {
                CodedOutputStream out(&socket);
                Attributes attributes;
                for (int i = 0; i < record_count; i++) {
                    const ExtendedStat_t &stat = attributes.of(i);
                    for (uint32_t value :
                         {REP_FILE_MAGIC, 6u << 16 | 8, 1u, 1u << 16, stat.sr_uid, stat.sr_gid,
                          stat.sr_mode & 07777, static_cast<uint32_t>(i)}) {
                        out.WriteLittleEndian32(value);
                    }
                    out.WriteLittleEndian64(stat.sr_ino);
                    out.WriteLittleEndian64(2);
                    out.WriteLittleEndian32(stat.sr_gen);
                    out.WriteLittleEndian32(1);
                    out.WriteLittleEndian64(stat.sr_nt_sd_key);
                    for (const tmspec_t &time : {stat.sr_ctim, stat.sr_mtim, tmspec_t{0, 0}}) {
                        out.WriteLittleEndian32(time.tv_sec);
                        out.WriteLittleEndian32(time.tv_nsec);
                    }
                    out.WriteLittleEndian64(stat.sr_size);
                    out.WriteRaw(names[i % 4], static_cast<int>(strlen(names[i % 4])));
                }
            }
            must(socket.Close());
        },
        [](int fd) {
            FileInputStream socket(fd, REP_BUFFER_SIZE);
            CodedInputStream in(&socket);
            rep_file_t file = {};
            char name[256];
            uint64_t sum = 0;
            for (int i = 0; i < record_count; i++) {
                uint32_t type = 0, status = 0;
                must(in.ReadLittleEndian32(&file.rep_magic) && in.ReadLittleEndian32(&type) &&
                     in.ReadLittleEndian32(&file.rep_data_cnt) && in.ReadLittleEndian32(&status) &&
                     in.ReadLittleEndian32(&file.rep_uid) && in.ReadLittleEndian32(&file.rep_gid) &&
                     in.ReadLittleEndian32(&file.rep_mode) &&
                     in.ReadLittleEndian32(&file.rep_seqno) &&
                     in.ReadLittleEndian64(&file.rep_inode_inum) &&
                     in.ReadLittleEndian64(&file.rep_parent_inum) &&
                     in.ReadLittleEndian32(&file.rep_inode_igen) &&
                     in.ReadLittleEndian32(&file.rep_parent_igen) &&
                     in.ReadLittleEndian64(&file.rep_ntsd_key));
                for (tmspec_t *time : {&file.rep_ctime, &file.rep_mtime, &file.rep_etime}) {
                    must(in.ReadLittleEndian32(&time->tv_sec) &&
                         in.ReadLittleEndian32(&time->tv_nsec));
                }
                const auto length = static_cast<int>(type & 0xFF);
                must(in.ReadLittleEndian64(&file.rep_size) && in.ReadRaw(name, length));
                name[length] = '\0';
                benchmark::DoNotOptimize(file);
                sum += file.rep_inode_inum + static_cast<unsigned char>(name[0]);
            }
            benchmark::DoNotOptimize(sum);
            socket.Close();
        });
}
#endif

} // namespace

BENCHMARK(bulk_koutil)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(bulk_raw)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(bulk_stdio)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(records_koutil)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(records_raw)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(records_stdio)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);
#if HAVE_PROTOBUF_LITE
BENCHMARK(records_protobuf)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

BENCHMARK_MAIN();
