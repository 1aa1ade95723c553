// rep_stream_test.cpp - output and input streams over real sockets, pipes and files.
#include "internal/rep_convert.h"
#include "koutil/kovalog.h"
#include "koutil/logger.h"
#include "koutil/rep_stream.h"
#include "support/failing_malloc.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <numeric>
#include <random>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace
{

std::string logged; // "level:text" of each message

void record_log(int level, char *format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    logged.append(1, static_cast<char>('0' + level)).append(":").append(text); // no allocation
}

// What send(2) does: it takes at most `cap` bytes a call, and fails once `left` bytes have gone.
struct SendRules {
    size_t cap = SIZE_MAX, left = SIZE_MAX;
    bool deliver = true;
    std::vector<size_t> calls;
} rules;

} // namespace

extern "C" ssize_t send(int fd, const void *data, size_t length, int flags)
{
    EXPECT_EQ(flags, MSG_NOSIGNAL);
    rules.calls.push_back(length);
    const size_t taken = std::min({length, rules.cap, rules.left});
    rules.left -= taken;
    errno = EPIPE;
    return taken == 0      ? -1
           : rules.deliver ? syscall(SYS_sendto, fd, data, taken, flags, nullptr, 0)
                           : static_cast<ssize_t>(taken);
}

namespace
{

std::string from_hex(std::string hex)
{
    hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

std::string random_bytes(size_t length)
{
    static std::minstd_rand random(7);
    std::string bytes(length, '\0');
    std::generate(bytes.begin(), bytes.end(), [] { return static_cast<char>(random()); });
    return bytes;
}

uint8_t *bytes_of(const std::string &text)
{
    return reinterpret_cast<uint8_t *>(const_cast<char *>(text.data()));
}

class RepStream : public ::testing::Test
{
  protected:
    RepStream()
    {
        logged.clear();
        __vorn_logfn = record_log;
        rules = {};
    }
    void TearDown() override
    {
        if (out != nullptr) {
            EXPECT_EQ(cleanup_rep_stream(out, 0), 0);
        }
        if (in != nullptr) {
            cleanup_rep_in_stream(in);
        }
        __vorn_logfn = __vorn_logfn_default;
        EXPECT_EQ(support::open_descriptors(), descriptors);
    }

    void open_input(int fd)
    {
        if (in != nullptr) {
            cleanup_rep_in_stream(in);
        }
        in = create_rep_in_stream(fd);
        ASSERT_NE(in, nullptr);
    }
    void open_input() { open_input(open(path.c_str(), O_RDONLY)); }
    // Opens an input on one end of a socket pair and returns the other.
    int other_end()
    {
        int ends[2] = {-1, -1}, size = 1 << 20;
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        open_input(ends[1]);
        return ends[0];
    }
    // Joins the two streams.
    void connect() { assign_rep_target_sync(out, other_end()); }
    // Opens an input that delivers `bytes` and then ends, or stays silent until hang_up.
    void deliver(const std::string &bytes, bool end = true)
    {
        feeder = other_end();
        ASSERT_EQ(write(feeder, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        if (end) {
            hang_up();
        }
    }
    void hang_up() const { ::close(feeder); }
    // Lets the output write to a new file; `recorded` is what has been flushed to it so far.
    void start_recording()
    {
        assign_rep_backing_file(out, open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600));
    }
    std::string recorded() { return support::read_file(path); }

    // The state after a call on the output: its status, what is buffered and what has been flushed
    // since the last call that was checked, and the messages.
    void after(int status, int expected, uint32_t buffered, uint64_t flushed = 0,
               const std::string &messages = "")
    {
        EXPECT_EQ(status, expected);
        EXPECT_EQ(out->rep_buffer.rep_used, buffered);
        EXPECT_EQ(out->rep_stream_offset - std::exchange(offset, out->rep_stream_offset), flushed);
        EXPECT_EQ(std::exchange(logged, ""), messages);
    }
    int append(const std::string &data) { return send_to_stream(out, data.data(), size(data)); }
    int flush() { return flush_rep_stream(out); }
    static uint32_t size(const std::string &data) { return static_cast<uint32_t>(data.size()); }

    std::string taken_data(uint32_t length)
    {
        std::string bytes(length, '\0');
        return extract_rep_data(in, bytes_of(bytes), length) == 0 ? bytes : "";
    }

    support::TempDir dir;
    const std::string path = dir / "stream";
    const int descriptors = support::open_descriptors();
    rep_stream_t *out = create_rep_out_stream();
    rep_in_stream_t *in = nullptr;
    uint64_t offset = 0;
    int feeder = -1;
};

// Every field with bytes of its own.
const inode_id_t parent = {0x5152535455565758, 0x61626364, 0};
const tmspec_t ctime_sent = {0xC1C2C3C4, 0xC5C6C7C8}, mtime_sent = {0xD1D2D3D4, 0xD5D6D7D8},
               etime = {0xE1E2E3E4, 0xE5E6E7E8};
const ExtendedStat_t attributes = {
    0x4142434445464748, 0x31323334,         0x21222324, 0x25262728, 0x1000F1A4,
    0x7172737475767778, 0x8182838485868788, ctime_sent, mtime_sent, 0x9A};
const idinode_t disk = {
    0,          0x8182838485868788, 0xA1A2A3A4A5A6A7A8, 0x31323334,   0x21222324,
    0x25262728, UINT32_MAX,         {ctime_sent},       {mtime_sent}, 0x9A};
const inode_t ip = {UINT64_MAX, disk};
const rep_file_t file = [] {
    rep_file_t record = {};
    record.rep_magic = REP_FILE_MAGIC, record.rep_type = 77, record.rep_namelen = 8;
    record.rep_data_cnt = 9, record.rep_status = 3, record.rep_pad = 0x55;
    record.rep_mode = UINT32_MAX;
    record.rep_inode_inum = 0x4142434445464748, record.rep_inode_igen = 0x31323334;
    record.rep_parent_inum = parent.inum, record.rep_parent_igen = parent.igen;
    record.rep_etime = etime, record.rep_size = 10;
    return record;
}();
const std::string owner = "21222324 25262728",
                  ids = "4142434445464748 5152535455565758 31323334 61626364",
                  ip_ids = "7F807FFFFFFFFFFF 5152535455565758 31323334 61626364",
                  key_and_times = "8182838485868788 C1C2C3C4C5C6C7C8 D1D2D3D4D5D6D7D8",
                  zero = "0000000000000000",
                  packed_end = zero + zero + zero + "E1E2E3E4E5E6E7E8 000000000000000A",
                  tag = "30313233343536373839616263646566";

std::string payload(65536, '\0');
char name[256];
uint32_t length_taken;
rep_header_t header;
rep_file_t got;
file_info_t info;
rep_ns_file_t ns;
rep_blob_t blob;

void swap_info(file_info_t *record)
{
    swap_rep_file(reinterpret_cast<rep_file_t *>(record));
    record->rep_ino_seqno = __builtin_bswap64(record->rep_ino_seqno);
    record->rep_ino_epoch = __builtin_bswap64(record->rep_ino_epoch);
}

// Whether a record and the name behind it, if any, were taken from these bytes.
template <typename Fixed>
bool holds(const std::string &wire, size_t fixed, Fixed record, void (*swap)(Fixed *), int length)
{
    swap(&record);
    return memcmp(&record, wire.data(), fixed) == 0 &&
           (length == 0 || name == wire.substr(fixed, static_cast<size_t>(length)));
}

bool took_mapping(rep_in_stream_t *in, uint64_t key_sent, const std::string &sent)
{
    uint64_t key = 0;
    uint8_t *data = nullptr;
    uint32_t length = REP_MAX_SD_LEN;
    const bool good = peek_rep_stream(in) == 20 &&
                      extract_rep_sd_mapping(in, &key, &data, &length) == 0 && key == key_sent &&
                      std::string(reinterpret_cast<char *>(data), length) == sent;
    free(data);
    return good;
}

// One record of each kind: how it is sent, its bytes, how it is taken.
struct Record {
    const char *what;
    std::function<int(rep_stream_t *)> send;
    std::string wire;
    std::function<bool(rep_in_stream_t *, const std::string &)> take;
};

#define SENT(call) [](rep_stream_t *s) -> int { return call; }
#define TAKEN(test)                                                                                \
    []([[maybe_unused]] rep_in_stream_t *s, [[maybe_unused]] const std::string &wire) -> bool {    \
        return test;                                                                               \
    }
#define TAKEN_NAMED(function, length, fixed, record, swap)                                         \
    TAKEN(function(s, &record, name, length + 1) == length &&                                      \
          holds(wire, fixed, record, swap, length))
#define TAKEN_FILE(length) TAKEN_NAMED(extract_rep_file, length, 96, got, swap_rep_file)

const Record records[] = {
    {"stream header",
     SENT(send_rep_header(s, nullptr, 0x0102030405060708, 0x12345, 0x1112131415161718,
                          0x2122232425262728)),
     from_hex("FACEBABE 2345 0005 0102030405060708 1112131415161718 2122232425262728"),
     TAKEN(peek_rep_stream(s) == 1 && extract_rep_header(s, &header) == 0 &&
           holds(wire, 32, header, swap_rep_header, 0) && s->stream_id == header.rep_stream_id)},
    {"command", SENT(send_rep_command(s, nullptr, 0x0708, bytes_of("abcde"), 5)),
     from_hex("BAADF00D 0708 0005 6162636465 000000"),
     TAKEN(peek_rep_stream(s) == 0x0708 &&
           extract_rep_cmd_sync(s, bytes_of(payload), 8, &length_taken) == 0x0708 &&
           length_taken == 5 && payload.substr(0, 8) == wire.substr(8))},
    {"command without payload", SENT(send_rep_command(s, nullptr, 0xFFFF, nullptr, 0)),
     from_hex("BAADF00D FFFF 0000"), TAKEN(extract_rep_cmd(s, nullptr, 0, nullptr) == 0xFFFF)},
    {"file header",
     SENT(send_file_header(s, 6, "hello", &parent, 0x0102, &attributes, &etime, 0x0B0C0D0E,
                           0x29303132)),
     from_hex("CAFEFEED 0006 0005 0B0C0D0E 0102 9A 00" + owner + "100001A4 29303132" + ids +
              key_and_times + "E1E2E3E4E5E6E7E8 7172737475767778 68656C6C6F 000000"),
     TAKEN_FILE(5)},
    {"file header without state, time and name",
     SENT(send_file_header(s, 6, nullptr, &parent, 0, &attributes, nullptr, 99, 0)),
     from_hex("CAFEFEED 0006 0000 00000000 0000 9A 00" + owner + "100001A4 00000000" + ids +
              key_and_times + zero + "7172737475767778"),
     TAKEN((name[0] = '?') && extract_rep_file(s, &got, name, 1) == 0 && name[0] == '?' &&
           holds(wire, 96, got, swap_rep_file, 0))},
    {"inode header, empty file",
     SENT(send_ip_header(s, 6, "nine char", &parent, 1, &ip, &etime, 99, 2)),
     from_hex("CAFEFEED 0006 0009 00000000 0001 9A 00" + owner + "FFFF0FFF 00000002" + ip_ids +
              key_and_times + "E1E2E3E4E5E6E7E8" + zero + "A1A2A3A4A5A6A7A8" + zero +
              "6E696E652063686172 000000"),
     TAKEN_NAMED(extract_file_info, 9, 112, info, swap_info)},
    {"inode header of type 5", SENT(send_ip_header(s, 5, "", &parent, 0, &ip, nullptr, 99, 2)),
     from_hex("CAFEFEED 0005 0000 00000063 0000 9A 00" + owner + "FFFF0FFF 00000002" + ip_ids +
              key_and_times + zero + zero + "A1A2A3A4A5A6A7A8" + zero),
     TAKEN(_extract_rep_file(s, &info, 112, name, 1) == 0 && holds(wire, 112, info, swap_info, 0))},
    {"packed file header", SENT(send_packed_file_header(s, 0x1234, &file, "8 bytes!")),
     from_hex("CAFEFEED 1234 0008 00000009 0003 00 55" + zero + "FFFFFFFF 00000000" + ids +
              packed_end + "3820627974657321"),
     TAKEN_FILE(8)},
    {"namespace record", SENT(send_file_ns(s, 18, "ns", &file, 0xB1B2B3B4B5B6B7B8, 0xB9, 0xBA)),
     from_hex("CAFEFEED 0012 0002 4142434445464748 5152535455565758 B1B2B3B4B5B6B7B8 31323334"
              "61626364 000000B9 000000BA 6E73 0000"),
     TAKEN_NAMED(extract_rep_ns_file, 2, 48, ns, swap_rep_ns_file)},
    {"file record for the namespace", SENT(send_file_ns(s, 17, "n", &file, 1, 2, 3)),
     from_hex("CAFEFEED 0011 0001 00000009 0000 00 00" + zero + "FFFFFFFF 00000000" + ids +
              packed_end + "6E 000000"),
     TAKEN_FILE(1)},
    {"long name", SENT(send_file_ns(s, 17, "seventeen bytes..", &file, 0, 0, 0)),
     from_hex("CAFEFEED 0011 0011 00000009 0000 00 00" + zero + "FFFFFFFF 00000000" + ids +
              packed_end + "736576656E7465656E2062797465732E2E 000000"),
     TAKEN_FILE(17)},
    {"data", SENT(send_file_data(s, bytes_of("12345"), 5)), from_hex("3132333435 000000"),
     TAKEN(extract_rep_data(s, bytes_of(payload), 5) == 0 &&
           payload.substr(0, 5) == wire.substr(0, 5))},
    {"blob record",
     SENT(send_blob_record(s, 0x100000001, 2, 0x0304050607080910, "0123456789abcdef")),
     from_hex("0000000100000001 0000000000000002 0304050607080910" + tag),
     TAKEN(extract_rep_blob(s, &blob) == 0 && holds(wire, 40, blob, swap_rep_blob, 0))},
    {"small blob record",
     SENT(send_small_blob_record(s, 0x100000001, 2, 0x0304050607080910, "0123456789abcdef")),
     from_hex("00000001 00000002 07080910" + tag),
     TAKEN(extract_rep_small_blob(s, &blob) == 0 && blob.rep_offset == 1 && blob.rep_length == 2 &&
           blob.rep_bloboff == 0x07080910 && wire.substr(12) == std::string(blob.rep_tag, 16))},
    {"security descriptor mapping", SENT(send_sd_mapping(s, 0x0102030405060708, bytes_of("D"), 1)),
     from_hex("BAADDEED 0014 0000 0102030405060708 00000001 44 000000"),
     TAKEN(took_mapping(s, 0x0102030405060708, "D"))},
};

const std::string whole_stream =
    std::accumulate(std::begin(records), std::end(records), std::string(),
                    [](const std::string &all, const Record &next) { return all + next.wire; });

// Takes the records in turn. Returns how many came whole.
size_t take_records(rep_in_stream_t *in)
{
    const auto taken = [in](const Record &next) { return next.take(in, next.wire); };
    return static_cast<size_t>(std::find_if_not(std::begin(records), std::end(records), taken) -
                               records);
}

} // namespace

TEST_F(RepStream, EveryRecordHasItsBytesWhereverTheBufferEnds)
{
    for (const Record &record : records) {
        SCOPED_TRACE(record.what);
        for (uint32_t before = 0; before <= record.wire.size(); before += 4) {
            // it stands where the record's padding will: that must be written
            const std::string filler(REP_BUFFER_SIZE - before, 'f');
            close_rep_stream(out, 0);
            start_recording();
            ASSERT_EQ(append(filler), 0);
            ASSERT_EQ(record.send(out), 0);
            ASSERT_EQ(flush(), 0);
            ASSERT_EQ(recorded(), filler + record.wire);
            open_input();
            ASSERT_EQ(extract_rep_data(in, nullptr, REP_BUFFER_SIZE - before), 0);
            ASSERT_TRUE(record.take(in, record.wire)) << before;
            ASSERT_EQ(in->rep_stream_offset, filler.size() + record.wire.size());
        }
    }
    EXPECT_EQ(logged, "");
}

TEST_F(RepStream, TakesRecordsHoweverTheyArrive)
{
    for (size_t most : {1u, 7u, 300u, UINT32_MAX}) {
        feeder = other_end();
        std::thread writer([&] {
            for (size_t at = 0; at < whole_stream.size(); at += most) {
                const std::string piece = whole_stream.substr(at, most);
                EXPECT_GT(write(feeder, piece.data(), piece.size()), 0);
            }
            hang_up();
        });
        EXPECT_EQ(take_records(in), std::size(records));
        writer.join();
        EXPECT_EQ(in->rep_stream_offset, whole_stream.size());
        uint32_t length = 99;
        EXPECT_EQ(extract_rep_cmd(in, bytes_of(payload), 8, &length), -1);
        EXPECT_EQ(length, 0u) << "a clean end";
        EXPECT_EQ(in->rep_stream_flags, REP_IN_ENDED);
    }
}

TEST_F(RepStream, EndsAtEveryByteWithoutHarm)
{
    size_t whole = 0, end = records[0].wire.size();
    for (size_t cut = 0; cut < whole_stream.size(); cut++) {
        if (cut == end) {
            end += records[++whole].wire.size();
        }
        deliver(whole_stream.substr(0, cut));
        in->read_timeout = cut % 2 != 0 ? 20000 : 0; // polling must see the end as well
        ASSERT_EQ(take_records(in), whole) << cut;
        ASSERT_EQ(in->rep_stream_flags, REP_IN_ENDED);
        ASSERT_EQ(extract_rep_data(in, nullptr, 1000), -1);
        ASSERT_EQ(in->rep_stream_offset, cut) << "what came is handed out in the end";
    }
}

TEST_F(RepStream, FlushesWhenTheBufferIsFullAndMoreComes)
{
    struct Case {
        std::vector<uint32_t> appends;
        std::vector<size_t> sends;
        uint32_t buffered;
    };
    const size_t full = REP_BUFFER_SIZE;
    const Case cases[] = {{{0}, {}, 0},
                          {{65536}, {}, 65536},
                          {{65536, 1}, {full}, 1},
                          {{65536, 0}, {full}, 0},
                          {{65536, 65536}, {full}, 65536},
                          {{100000}, {full}, 34464},
                          {{131072}, {full}, 65536},
                          {{131073}, {2 * full}, 1},
                          {{10, 200000}, {full, 2 * full}, 3402},
                          {{10, 65526, 65537}, {full, full}, 1}};
    const std::string data = random_bytes(200000);
    connect();
    for (const Case &c : cases) {
        rules = {SIZE_MAX, SIZE_MAX, false, {}};
        int status = 0;
        for (uint32_t length : c.appends) {
            status |= send_to_stream(out, data.data(), length);
        }
        EXPECT_EQ(rules.calls, c.sends);
        after(status, 0, c.buffered, std::accumulate(c.sends.begin(), c.sends.end(), size_t{0}));
        after(flush(), 0, 0, c.buffered);
    }
}

TEST_F(RepStream, TheBackingFileGetsWhatTheSocketTakes)
{
    connect();
    start_recording();
    const std::string data = random_bytes(150000);
    rules.cap = 7000;
    after(append("head"), 0, 4);
    after(append(data), 0, 150004 % REP_BUFFER_SIZE, 150004 / REP_BUFFER_SIZE * REP_BUFFER_SIZE);
    after(flush(), 0, 0, 150004 % REP_BUFFER_SIZE);
    EXPECT_TRUE(taken_data(150004) == "head" + data);
    EXPECT_TRUE(recorded() == "head" + data);
    EXPECT_EQ(rewind_rep_backing_file(out), 0);
    EXPECT_EQ(lseek(out->rep_queued_fd, 0, SEEK_CUR), 0);
}

TEST_F(RepStream, AFailedSendKeepsTheBufferForARetry)
{
    const std::string data = random_bytes(200000), failure = "3:Failed to send data. Broken pipe\n";
    const uint32_t full = REP_BUFFER_SIZE;
    for (bool backed : {true, false}) {
        connect();
        if (backed) {
            start_recording();
        }
        // 10 bytes into the second full buffer of an object that leaves from the caller's memory
        rules = {SIZE_MAX, full + 10, true, {}};
        after(append(data), -1, full, full + 10, failure);
        EXPECT_EQ(memcmp(out->rep_buffer.rep_data, data.data() + full, full), 0);
        EXPECT_EQ(recorded(), backed ? data.substr(0, full + 10) : "");
        after(append(""), -1, full, 0, failure); // a full buffer is flushed first
        after(send_rep_command_sync(out, 1, nullptr, 0), -1, full, 0, failure);
        rules.left = SIZE_MAX;
        after(flush(), 0, 0, full);
        EXPECT_EQ(recorded().size(), backed ? 2 * full + 10 : 0);
        close_rep_stream(out, 0);
        support::write_file(path, "");
    }
}

TEST_F(RepStream, BackingFileFailuresAreToldApartFromShortWrites)
{
    assign_rep_backing_file(out, open("/dev/full", O_WRONLY));
    after(append("abcd"), 0, 4);
    after(flush(), -1, 4, 0, "3:Failed to write queued stream No space left on device\n");
    connect();
    after(flush(), -1, 4, 0, "3:Failed to write queued stream. No space left on device\n");
    close_rep_stream(out, 0);

    // A pipe takes a part: no failure, and the offset tells.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    ASSERT_EQ(write(ends[1], std::string(20000, 'p').data(), 20000), 20000);
    assign_rep_backing_file(out, ends[1]);
    after(append(random_bytes(65532)), 0, 65536);
    EXPECT_EQ(flush(), 0);
    EXPECT_GT(out->rep_stream_offset, 0u);
    EXPECT_LT(out->rep_stream_offset, 65536u);
    after(0, 0, 0, out->rep_stream_offset);
    close(ends[0]);

    // With neither, bytes are dropped and not counted.
    close_rep_stream(out, 0);
    after(append(random_bytes(70000)), 0, 70000 - 65536);
    after(flush(), 0, 0);
}

TEST_F(RepStream, HeadersAndCommandsGoStraightToATarget)
{
    connect();
    const auto target = std::make_unique<rep_target_t>();
    target->rep_tgt_sock = out->rep_sock;
    const auto command = [&] {
        return send_rep_command(nullptr, target.get(), 0x708, bytes_of("abcde"), 5);
    };
    rules.cap = 5;
    after(send_rep_header(nullptr, target.get(), 1, 0x12345, 2, 3), 0, 0);
    after(command(), 0, 0);
    EXPECT_EQ(extract_rep_header_sync(in, &header), 0);
    EXPECT_EQ(header.rep_stream_version, 5);
    EXPECT_TRUE(records[1].take(in, records[1].wire));
    rules = {SIZE_MAX, 12, true, {}};
    after(command(), -1, 0, 0, "3:Error sending 4 bytes to target. Error=32\n");
}

TEST_F(RepStream, RefusesWhatCannotBeSent)
{
    const std::string big(65537, 'd');
    for (const bool good : {false, true}) {
        const std::string text(good ? 255 : 256, 'n');
        const int status = good ? 0 : -1;
        const char *n = text.c_str();
        out->rep_buffer.rep_used = 0;
        after(send_file_header(out, 6, n, &parent, 1, &attributes, nullptr, 0, 0), status,
              good * 352u);
        after(send_ip_header(out, 6, n, &parent, 1, &ip, nullptr, 0, 0), status, good * 720u);
        after(send_packed_file_header(out, 6, &file, n), status, good * 1072u);
        after(send_file_ns(out, 18, n, &file, 0, 0, 0), status, good * 1376u);
        after(send_file_ns(out, 6, n, &file, 0, 0, 0), status, good * 1728u);
    }
    after(send_file_ns(out, 18, nullptr, &file, 0, 0, 0), -1, 1728);
    after(send_sd_mapping(out, 1, bytes_of(big), 65537), -3, 1728);
    after(send_rep_command(out, nullptr, 4, bytes_of(big), 8193), -1, 1728, 0,
          "3:Tried to send a command 4 of size 8193, max size 8192.\n");
    after(send_rep_command(out, nullptr, 4, bytes_of(big), 8192), 0, 1728 + 8200);
    after(send_sd_mapping(out, 1, nullptr, 0), 0, 1728 + 8220);
    after(send_sd_mapping(out, 1, bytes_of(big), 65536), 0, 1728 + 8240);
}

TEST_F(RepStream, RunningOutOfMemoryIsAStatus)
{
    const auto without_memory = [](const auto &call, int allocations = 0) {
        const support::FailingMalloc none(allocations);
        return call();
    };
    logged.reserve(4096);
    EXPECT_EQ(without_memory([] { return create_rep_out_stream(); }), nullptr);
    EXPECT_EQ(without_memory([] { return create_rep_in_stream(1); }), nullptr);
    EXPECT_EQ(without_memory([] { return create_rep_in_stream(1); }, 1), nullptr);
    EXPECT_EQ(without_memory([&] { return send_sd_mapping(out, 1, bytes_of("12345"), 5); }), -2);
    out->rep_buffer.rep_used = REP_BUFFER_SIZE - 8;
    EXPECT_EQ(without_memory([&] { return send_rep_command(out, nullptr, 1, bytes_of("1"), 1); }),
              -1);
    deliver(records[std::size(records) - 1].wire);
    uint64_t key = 0;
    uint8_t *data = nullptr;
    uint32_t length = REP_MAX_SD_LEN;
    EXPECT_EQ(without_memory([&] { return extract_rep_sd_mapping(in, &key, &data, &length); }), -2);
    after(0, 0, REP_BUFFER_SIZE - 8, 0,
          "3:Cannot allocate 28 bytes for rep_sd_mapping. \n"
          "3:Memory allocation for sending rep command.\n"
          "3:Cannot allocate space for SD data from replication stream\n");
}

TEST_F(RepStream, TheLastReferenceEndsTheStream)
{
    static int completed = 0;
    EXPECT_GT(out->start_time, 1700000000000000u);
    out->stream_complete = [](rep_stream_t *) { completed++; };
    hold_stream(out);
    hold_stream(out);
    connect();
    const int sock = out->rep_sock;
    EXPECT_EQ(drop_stream(out), 1);
    EXPECT_EQ(cleanup_rep_stream(out, 4), 1);
    EXPECT_EQ(fcntl(sock, F_GETFD), -1);
    EXPECT_EQ(out->rep_sock, -1);
    close_rep_stream(out, 3);
    EXPECT_EQ(out->rep_stream_flags, 7u);
    EXPECT_EQ(completed, 0);
    EXPECT_EQ(drop_stream(std::exchange(out, nullptr)), 0);
    EXPECT_EQ(completed, 1);
    const support::Outcome outcome = support::run_in_child([] {
        rep_stream_t *stream = create_rep_out_stream();
        stream->rep_ref_cnt = 0;
        return drop_stream(stream);
    });
    EXPECT_TRUE(outcome.crashed());
    EXPECT_NE(outcome.err.find("\"stream->rep_ref_cnt > 0\" file libutil/rep_stream,"),
              std::string::npos);
}

TEST_F(RepStream, WritersAndFollowersMeet)
{
    start_recording();
    constexpr int per_writer = 4000;
    const auto write_commands = [&](uint16_t type) {
        for (int i = 0; i < per_writer; i++) {
            lock_stream(out);
            EXPECT_EQ(send_rep_command(out, nullptr, type, bytes_of("0123456789"), 10), 0);
            EXPECT_EQ(i % 512 == 0 ? flush() : 0, 0);
            unlock_stream(out);
        }
    };
    const auto follow = [&] {
        pthread_mutex_lock(&out->rep_mutex.mutex);
        while ((out->rep_stream_flags & 1) == 0) {
            EXPECT_GE(recorded().size(), out->rep_stream_offset);
            out->rep_targ_waiting++;
            pthread_cond_wait(&out->rep_cond.cond, &out->rep_mutex.mutex);
            out->rep_targ_waiting--;
        }
        EXPECT_EQ(out->rep_stream_offset, 2u * per_writer * 20);
        pthread_mutex_unlock(&out->rep_mutex.mutex);
        EXPECT_EQ(drop_stream(out), 1);
    };
    hold_stream(out);
    std::thread follower(follow), first(write_commands, 1), second(write_commands, 2);
    first.join();
    second.join();
    EXPECT_EQ(flush(), 0);
    close_rep_stream(out, 1);
    follower.join();
}

TEST_F(RepStream, HostileLengthsAndMagicsAreRefused)
{
    struct Case {
        const char *what;
        std::string hex;
        std::function<int()> take;
        uint64_t consumed;
        std::string log;
    };
    uint64_t key = 5;
    uint8_t *data = nullptr;
    uint32_t length = 0;
    const auto sd = [&] {
        length = REP_MAX_SD_LEN;
        return extract_rep_sd_mapping(in, &key, &data, &length);
    };
    const auto command = [&](uint32_t room, uint32_t *taken) {
        return [=, this] { return extract_rep_cmd(in, bytes_of(payload), room, taken); };
    };
    const auto file_of = [&](char *name, uint32_t room, uint32_t size = 96) {
        return [=, this] { return _extract_rep_file(in, &info, size, name, room); };
    };
    const auto ns_file = [&] { return extract_rep_ns_file(in, &ns, name, 256); };
    const auto peek = [&] { return peek_rep_stream(in); };
    const std::string zeros(320, '0'), mapping = "BAADDEED 0014 0000 0000000000000001";
    const std::string cut = "3:SD data not in replication stream\n";
    const std::string bad = "3:Bad SD mapping in replication stream: magic 0xbaaddeed type ";
    const Case cases[] = {
        {"header", "CAFEFEED" + zeros, [&] { return extract_rep_header(in, &header); }, 32, ""},
        {"file magic", "FACEBABE" + zeros, file_of(name, 256), 96, ""},
        {"info magic", "FACEBABE" + zeros, file_of(name, 256, 112), 112, ""},
        {"name without room", "CAFEFEED 0006 0005" + zeros, file_of(name, 5), 96, ""},
        {"no name, no room", "CAFEFEED 0006 0000" + zeros, file_of(nullptr, 0), 96, ""},
        {"longest name", "CAFEFEED 0006 FFFF" + zeros, file_of(name, UINT32_MAX), 96, ""},
        {"size", "CAFEFEED 0006 0000" + zeros, file_of(name, 256, 95), 0, ""},
        {"namespace magic", "BAADF00D 0006 0000" + zeros, ns_file, 48, ""},
        {"namespace name", "CAFEFEED 0012 0100" + zeros, ns_file, 48, ""},
        {"command magic", "CAFEFEED 0006 0000", command(8, &length), 8, ""},
        {"command room", "BAADF00D 0006 0005 3132333435 000000", command(7, &length), 8, ""},
        {"command cut", "BAADF00D 0006 FFFF 3132333435", command(65536, &length), 8 + 5, ""},
        {"no length", "BAADF00D 0006 0005 3132333435 000000", command(8, nullptr), 16, ""},
        {"mapping cut", "BAADDEED 0014 0000 0000000000000001 000000", sd, 0,
         "3:Expected SD mapping header not in replication stream\n"},
        {"mapping of 0", mapping + "00000000", sd, 20, bad + "20 data_len 0 max_sd_len 65536\n"},
        {"mapping too long", mapping + "00010001", sd, 20,
         bad + "20 data_len 65537 max_sd_len 65536\n"},
        {"mapping type", "BAADDEED 0015 0000 0000000000000001 00000001", sd, 20,
         bad + "21 data_len 1 max_sd_len 65536\n"},
        {"mapping data cut", mapping + "00010000 31", sd, 21, cut},
        {"mapping padding cut", mapping + "00000001 31 0000", sd, 21, cut},
        {"peek", "BAADBAAD 0014 0000", peek, 0,
         "3:peek_rep_stream: magic (baadbaad) doesn't match, rep_stream_flags: 0x0.\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        deliver(from_hex(c.hex));
        EXPECT_EQ(c.take(), -1);
        EXPECT_EQ(in->rep_stream_offset, c.consumed);
        EXPECT_EQ(std::exchange(logged, ""), c.log);
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(key, 5u);
    }
    for (const char *magic : {"CAFEBEAD", "CAFEFACE", "CAFEFEED", "BAADF00D"}) {
        deliver(from_hex(magic + std::string("FFFE 0000")));
        EXPECT_EQ(peek_rep_stream(in), 0xFFFE);
    }
}

TEST_F(RepStream, ACommandsLengthTellsWhatWasThere)
{
    deliver(from_hex("BAADF00D 0006 0000 BAADF00D 0007 0002 31320000 313233"));
    const std::pair<int, uint32_t> expected[] = {{6, 23}, {7, 2}, {-1, 3}};
    for (const auto &[type, length] : expected) {
        uint32_t there = 99;
        EXPECT_EQ(extract_rep_cmd(in, bytes_of(payload), 4, &there), type);
        EXPECT_EQ(there, length);
    }
}

TEST_F(RepStream, OnlyTheSyncFormsLeaveTheirBytesInPlace)
{
    for (const bool sync : {false, true}) {
        const auto take = sync ? extract_rep_cmd_sync : extract_rep_cmd;
        deliver(std::string(65528, '0') + from_hex("BAADF00D 0006 0000"));
        EXPECT_EQ(extract_rep_data(in, nullptr, 65528), 0); // no room behind the command
        EXPECT_EQ(take(in, nullptr, 0, nullptr), 6);
        EXPECT_EQ(memcmp(in->rep_buffer.rep_data, "0000", 4) == 0, sync);
    }
}

TEST_F(RepStream, TakesTheLongestNameAndDescriptor)
{
    const std::string longest = random_bytes(65535),
                      bytes = from_hex("CAFEFEED 0006 FFFF") + std::string(88, '\0') + longest +
                              '\0' + from_hex("BAADDEED 0014 0000 0000000000000007 00010000") +
                              longest + "!" +
                              from_hex("BAADDEED 0014 0000 0000000000000008 00000002 31320000");
    deliver(bytes);
    EXPECT_EQ(extract_rep_file(in, &got, payload.data(), 65536), 65535);
    EXPECT_TRUE(payload == longest + '\0');
    EXPECT_TRUE(took_mapping(in, 7, longest + "!"));
    uint64_t key = 0;
    uint32_t length = REP_MAX_SD_LEN;
    EXPECT_EQ(extract_rep_sd_mapping(in, &key, nullptr, &length), 0) << "skipped";
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(in->rep_stream_offset, bytes.size());
}

TEST_F(RepStream, LargeDataComesWholeThroughAnyMixOfSmallReads)
{
    connect();
    const std::string data = random_bytes(400001);
    std::thread sender([&] {
        for (uint32_t length : {1u, 65536u, 65537u, 400001u, 3u}) {
            EXPECT_EQ(send_file_data(out, bytes_of(data), length), 0);
        }
        EXPECT_EQ(flush(), 0);
        close_rep_stream(out, 0);
    });
    for (uint32_t length : {1u, 65536u, 65537u, 400001u}) {
        EXPECT_TRUE(taken_data(length) == data.substr(0, length)) << length;
    }
    EXPECT_EQ(in->rep_stream_offset, 4 + 65536 + 65540 + 400004u);
    std::string rest(200000, '\0');
    EXPECT_EQ(extract_rep_data(in, bytes_of(rest), 200000), -1);
    EXPECT_EQ(rest.substr(0, 4), data.substr(0, 3) + '\0') << "bytes before the end are taken";
    EXPECT_EQ(in->rep_stream_offset, 8 + 65536 + 65540 + 400004u);
    sender.join();
}

TEST_F(RepStream, ATimeOutMayBeRepeated)
{
    for (uint32_t seconds : {2u, 5000000u}) { // the second is longer than a poll can wait
        deliver("abc", false);
        in->read_timeout = 30;
        EXPECT_EQ(extract_rep_header(in, &header), -1);
        EXPECT_EQ(in->rep_stream_flags, REP_IN_TIMED_OUT);
        EXPECT_GE(in->wait_time, 25000u);
        EXPECT_EQ(in->rep_stream_offset, 0u);
        ASSERT_EQ(write(feeder, "defgh", 5), 5);
        set_stream_in_timeout(in, seconds);
        EXPECT_EQ(in->read_timeout, seconds == 2 ? 2000u : UINT32_MAX);
        EXPECT_EQ(taken_data(8), "abcdefgh");
        hang_up();
        EXPECT_EQ(extract_rep_data(in, nullptr, 1), -1);
        EXPECT_EQ(in->rep_stream_flags, REP_IN_TIMED_OUT | REP_IN_ENDED);
    }
}

TEST_F(RepStream, AnInterruptedWaitAndAReadErrorEndTheStreamButKeepWhatCame)
{
    struct sigaction action = {}, saved;
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &saved);
    for (const bool interrupted : {true, false}) {
        deliver("abcd", false);
        const itimerval soon = {{0, 0}, {0, interrupted ? 30000 : 0}};
        setitimer(ITIMER_REAL, &soon, nullptr);
        in->read_timeout = interrupted ? 20000 : 0;
        fcntl(in->rep_sock, F_SETFL, interrupted ? 0 : O_NONBLOCK);
        payload.assign(65536, '?');
        EXPECT_EQ(extract_rep_data(in, bytes_of(payload), 8), -1);
        EXPECT_EQ(in->rep_stream_flags, REP_IN_ENDED);
        EXPECT_EQ(payload.substr(0, 5), "abcd?");
        EXPECT_EQ(in->rep_stream_offset, 4u);
        hang_up();
    }
    sigaction(SIGALRM, &saved, nullptr);
}

TEST_F(RepStream, PeekSpeaksWhenItsDebugFlagIsOn)
{
    uint8_t flags[2] = {0xFF, 1};
    const debug_facility saved = facilities[DBG_FAC_KOPOL];
    __vorn_debugfn = record_log;
    facilities[DBG_FAC_KOPOL].debug_flags = flags;
    for (const uint8_t size : {1, 2}) { // the flag is in the second byte
        facilities[DBG_FAC_KOPOL].debug_flag_size = size;
        deliver("abc");
        EXPECT_EQ(peek_rep_stream(in), -1);
        EXPECT_EQ(logged, size == 1 ? ""
                                    : "0:peek_rep_stream: Available data: 3 is less than the "
                                      "requested data: 8, rep_stream_flags: 0x1.\n");
    }
    facilities[DBG_FAC_KOPOL] = saved;
    __vorn_debugfn = __vorn_debugfn_default;
}

TEST_F(RepStream, ForwardsAStreamVerbatim)
{
    const std::string data = random_bytes(300001);
    support::write_file(path, data);
    open_input();
    EXPECT_EQ(taken_data(5), data.substr(0, 5));
    unlink(path.c_str());
    start_recording();
    EXPECT_EQ(copy_rep_stream(in, out), 0);
    EXPECT_LT(recorded().size(), data.size() - 8) << "the caller flushes";
    EXPECT_EQ(flush(), 0);
    EXPECT_EQ(recorded(), data.substr(8));
    EXPECT_EQ(in->rep_stream_offset, data.size());

    open_input();
    close_rep_stream(out, 0);
    assign_rep_backing_file(out, open("/dev/full", O_WRONLY));
    EXPECT_EQ(copy_rep_stream(in, out), -1);
    deliver("abcd", false);
    in->read_timeout = 10;
    out->rep_buffer.rep_used = 0;
    EXPECT_EQ(copy_rep_stream(in, out), 0) << "a time-out ends it, what came is passed on";
    EXPECT_EQ(std::exchange(out->rep_buffer.rep_used, 0), 4u);
    hang_up();
}
