// rep_stream_test.cpp - output and input streams over real sockets, pipes and files.
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
    size_t cap = SIZE_MAX;
    size_t left = SIZE_MAX;
    bool deliver = true;
    std::vector<size_t> calls;
} rules;

} // namespace

extern "C" ssize_t send(int fd, const void *data, size_t length, int flags)
{
    EXPECT_EQ(flags, MSG_NOSIGNAL);
    rules.calls.push_back(length);
    if (rules.left == 0) {
        errno = EPIPE;
        return -1;
    }
    const size_t taken = std::min({length, rules.cap, rules.left});
    rules.left -= taken;
    return rules.deliver ? syscall(SYS_sendto, fd, data, taken, flags, nullptr, 0)
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

const uint8_t *bytes_of(const std::string &text)
{
    return reinterpret_cast<const uint8_t *>(text.data());
}

class RepStream : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        descriptors = support::open_descriptors();
        logged.clear();
        __vorn_logfn = record_log;
        rules = {};
        out = create_rep_out_stream();
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
    // Lets the output write to a file, and returns what has been flushed to it so far.
    void start_recording()
    {
        assign_rep_backing_file(out, open((dir / "stream").c_str(), O_RDWR | O_CREAT, 0600));
    }
    std::string recorded() { return support::read_file(dir / "stream"); }

    std::string taken_data(uint32_t length)
    {
        std::string bytes(length, '\0');
        return extract_rep_data(in, reinterpret_cast<uint8_t *>(bytes.data()), length) == 0 ? bytes
                                                                                            : "";
    }

    support::TempDir dir;
    rep_stream_t *out = nullptr;
    rep_in_stream_t *in = nullptr;
    int feeder = -1, descriptors = 0;
};

// Every field with bytes of its own.
const inode_id_t parent = {0x5152535455565758, 0x61626364, 0};
const tmspec_t ctime_sent = {0xC1C2C3C4, 0xC5C6C7C8}, mtime_sent = {0xD1D2D3D4, 0xD5D6D7D8},
               etime = {0xE1E2E3E4, 0xE5E6E7E8};
const char tag[] = "0123456789abcdef";
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
                  packed_end = zero + zero + zero + "E1E2E3E4E5E6E7E8 000000000000000A";

// One record of each kind: how it is sent, its bytes, how it is taken.
struct Record {
    const char *name;
    std::function<int(rep_stream_t *)> send;
    std::string hex;
    std::function<bool(rep_in_stream_t *)> take;
};

char name_taken[256];
uint8_t payload_taken[8192];
uint32_t length_taken;

rep_header_t header;
rep_file_t got;
file_info_t info;
rep_ns_file_t ns;
rep_blob_t blob;

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

#define SENT(call)  [](rep_stream_t *s) -> int { return call; }
#define TAKEN(test) [](rep_in_stream_t *s) -> bool { return test; }

const Record records[] = {
    {"stream header",
     SENT(send_rep_header(s, nullptr, 0x0102030405060708, 0x12345, 0x1112131415161718,
                          0x2122232425262728)),
     "FACEBABE 2345 0005 0102030405060708 1112131415161718 2122232425262728",
     TAKEN(peek_rep_stream(s) == 1 && extract_rep_header(s, &header) == 0 &&
           header.rep_flags == 0x2345 && header.rep_fsid == 0x0102030405060708 &&
           s->stream_id == 0x2122232425262728)},
    {"command", SENT(send_rep_command(s, nullptr, 0x0708, bytes_of("abcde"), 5)),
     "BAADF00D 0708 0005 6162636465 000000",
     TAKEN(peek_rep_stream(s) == 0x0708 &&
           extract_rep_cmd_sync(s, payload_taken, 8, &length_taken) == 0x0708 &&
           length_taken == 5 && memcmp(payload_taken, "abcde\0\0", 8) == 0)},
    {"command without payload", SENT(send_rep_command(s, nullptr, 0xFFFF, nullptr, 0)),
     "BAADF00D FFFF 0000", TAKEN(extract_rep_cmd(s, nullptr, 0, nullptr) == 0xFFFF)},
    {"file header",
     SENT(send_file_header(s, 6, "hello", &parent, 0x0102, &attributes, &etime, 0x0B0C0D0E,
                           0x29303132)),
     "CAFEFEED 0006 0005 0B0C0D0E 0102 9A 00" + owner + "100001A4 29303132" + ids + key_and_times +
         "E1E2E3E4E5E6E7E8 7172737475767778 68656C6C6F 000000",
     TAKEN(peek_rep_stream(s) == 6 && extract_rep_file(s, &got, name_taken, 6) == 5 &&
           strcmp(name_taken, "hello") == 0 && got.rep_size == attributes.sr_size &&
           got.rep_etime.tv_nsec == etime.tv_nsec && got.rep_attr_flags == 0x9A)},
    {"file header without state, time and name",
     SENT(send_file_header(s, 6, nullptr, &parent, 0, &attributes, nullptr, 99, 0)),
     "CAFEFEED 0006 0000 00000000 0000 9A 00" + owner + "100001A4 00000000" + ids + key_and_times +
         zero + "7172737475767778",
     TAKEN((name_taken[0] = '?') && extract_rep_file(s, &got, name_taken, 1) == 0 &&
           name_taken[0] == '?')},
    {"inode header, empty file",
     SENT(send_ip_header(s, 6, "nine char", &parent, 1, &ip, &etime, 99, 2)),
     "CAFEFEED 0006 0009 00000000 0001 9A 00" + owner + "FFFF0FFF 00000002" + ip_ids +
         key_and_times + "E1E2E3E4E5E6E7E8" + zero + "A1A2A3A4A5A6A7A8" + zero +
         "6E696E652063686172 000000",
     TAKEN(extract_file_info(s, &info, name_taken, 256) == 9 &&
           strcmp(name_taken, "nine char") == 0 && info.rep_ino_seqno == 0xA1A2A3A4A5A6A7A8 &&
           info.rep_ino_epoch == 0 && info.rep_inode_inum == 0x7F807FFFFFFFFFFF)},
    {"inode header of type 5", SENT(send_ip_header(s, 5, "", &parent, 0, &ip, nullptr, 99, 2)),
     "CAFEFEED 0005 0000 00000063 0000 9A 00" + owner + "FFFF0FFF 00000002" + ip_ids +
         key_and_times + zero + zero + "A1A2A3A4A5A6A7A8" + zero,
     TAKEN(_extract_rep_file(s, &info, 112, name_taken, 1) == 0)},
    {"packed file header", SENT(send_packed_file_header(s, 0x1234, &file, "8 bytes!")),
     "CAFEFEED 1234 0008 00000009 0003 00 55" + zero + "FFFFFFFF 00000000" + ids + packed_end +
         "3820627974657321",
     TAKEN(extract_rep_file(s, &got, name_taken, 9) == 8 && got.rep_mode == UINT32_MAX &&
           strcmp(name_taken, "8 bytes!") == 0)},
    {"namespace record", SENT(send_file_ns(s, 18, "ns", &file, 0xB1B2B3B4B5B6B7B8, 0xB9, 0xBA)),
     "CAFEFEED 0012 0002 4142434445464748 5152535455565758 B1B2B3B4B5B6B7B8 31323334 61626364 "
     "000000B9 000000BA 6E73 0000",
     TAKEN(extract_rep_ns_file(s, &ns, name_taken, 3) == 2 && ns.rep_local_igen == 0xB9 &&
           ns.rep_local_inum == 0xB1B2B3B4B5B6B7B8 && ns.rep_ns_flags == 0xBA)},
    {"file record for the namespace", SENT(send_file_ns(s, 17, "n", &file, 1, 2, 3)),
     "CAFEFEED 0011 0001 00000009 0000 00 00" + zero + "FFFFFFFF 00000000" + ids + packed_end +
         "6E 000000",
     TAKEN(extract_rep_file(s, &got, name_taken, 2) == 1)},
    {"data", SENT(send_file_data(s, bytes_of("12345"), 5)), "3132333435 000000",
     TAKEN(extract_rep_data(s, payload_taken, 5) == 0 && memcmp(payload_taken, "12345", 5) == 0)},
    {"blob record", SENT(send_blob_record(s, 0x100000001, 2, 0x0304050607080910, tag)),
     "0000000100000001 0000000000000002 0304050607080910 30313233343536373839616263646566",
     TAKEN(extract_rep_blob(s, &blob) == 0 && blob.rep_offset == 0x100000001 &&
           memcmp(blob.rep_tag, tag, 16) == 0)},
    {"small blob record", SENT(send_small_blob_record(s, 0x100000001, 2, 0x0304050607080910, tag)),
     "00000001 00000002 07080910 30313233343536373839616263646566",
     TAKEN(extract_rep_small_blob(s, &blob) == 0 && blob.rep_offset == 1 &&
           blob.rep_bloboff == 0x07080910 && memcmp(blob.rep_tag, tag, 16) == 0)},
    {"security descriptor mapping", SENT(send_sd_mapping(s, 0x0102030405060708, bytes_of("D"), 1)),
     "BAADDEED 0014 0000 0102030405060708 00000001 44 000000",
     TAKEN(took_mapping(s, 0x0102030405060708, "D"))},
};

const std::string whole_stream = std::accumulate(
    std::begin(records), std::end(records), std::string(),
    [](const std::string &all, const Record &next) { return all + from_hex(next.hex); });

// Takes the records in turn. Returns how many came whole.
size_t take_records(rep_in_stream_t *in)
{
    const auto taken = [in](const Record &record) { return record.take(in); };
    return static_cast<size_t>(std::find_if_not(std::begin(records), std::end(records), taken) -
                               records);
}

} // namespace

TEST_F(RepStream, EveryRecordHasItsBytesWhereverTheBufferEnds)
{
    for (const Record &record : records) {
        SCOPED_TRACE(record.name);
        const std::string expected = from_hex(record.hex);
        for (uint32_t before = 0; before <= expected.size(); before += 4) {
            // it stands where the record's padding will: that must be written
            const std::string filler(REP_BUFFER_SIZE - before, 'f');
            unlink((dir / "stream").c_str());
            close_rep_stream(out, 0);
            start_recording();
            ASSERT_EQ(send_file_data(out, bytes_of(filler), REP_BUFFER_SIZE - before), 0);
            ASSERT_EQ(record.send(out), 0);
            ASSERT_EQ(flush_rep_stream(out), 0);
            ASSERT_EQ(recorded(), filler + expected);
            open_input(open((dir / "stream").c_str(), O_RDONLY));
            ASSERT_EQ(extract_rep_data(in, nullptr, REP_BUFFER_SIZE - before), 0);
            ASSERT_TRUE(record.take(in)) << before;
            ASSERT_EQ(in->rep_stream_offset, filler.size() + expected.size());
        }
    }
    EXPECT_EQ(logged, "");
}

TEST_F(RepStream, TakesRecordsHoweverTheyArrive)
{
    const std::string &bytes = whole_stream;
    for (size_t most : {size_t{1}, size_t{7}, size_t{300}}) {
        feeder = other_end();
        std::thread writer([&] {
            std::minstd_rand random(3);
            for (size_t at = 0; at < bytes.size();) {
                const size_t piece = std::min(1 + random() % most, bytes.size() - at);
                EXPECT_EQ(write(feeder, bytes.data() + at, piece), static_cast<ssize_t>(piece));
                at += piece;
            }
            hang_up();
        });
        EXPECT_EQ(take_records(in), std::size(records));
        writer.join();
        EXPECT_EQ(in->rep_stream_offset, bytes.size());
        uint32_t length = 99;
        EXPECT_EQ(extract_rep_cmd(in, payload_taken, 8, &length), -1);
        EXPECT_EQ(length, 0u) << "a clean end";
        EXPECT_EQ(in->rep_stream_flags, REP_IN_ENDED);
    }
}

TEST_F(RepStream, EndsAtEveryByteWithoutHarm)
{
    size_t whole = 0, end = from_hex(records[0].hex).size();
    for (size_t cut = 0; cut < whole_stream.size(); cut++) {
        if (cut == end) {
            end += from_hex(records[++whole].hex).size();
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
        const uint64_t before = out->rep_stream_offset;
        for (uint32_t length : c.appends) {
            EXPECT_EQ(send_to_stream(out, data.data(), length), 0);
        }
        EXPECT_EQ(rules.calls, c.sends);
        EXPECT_EQ(out->rep_buffer.rep_used, c.buffered);
        EXPECT_EQ(out->rep_stream_offset - before,
                  std::accumulate(c.sends.begin(), c.sends.end(), size_t{0}));
        EXPECT_EQ(flush_rep_stream(out), 0);
        EXPECT_EQ(out->rep_buffer.rep_used, 0u);
    }
}

TEST_F(RepStream, TheBackingFileGetsWhatTheSocketTakes)
{
    connect();
    start_recording();
    const std::string data = random_bytes(150000);
    rules.cap = 7000;
    EXPECT_EQ(send_to_stream(out, "head", 4), 0);
    EXPECT_EQ(send_to_stream(out, data.data(), 150000), 0);
    EXPECT_EQ(flush_rep_stream(out), 0);
    EXPECT_TRUE(taken_data(150004) == "head" + data);
    EXPECT_TRUE(recorded() == "head" + data);
    EXPECT_EQ(out->rep_stream_offset, 150004u);
    EXPECT_EQ(rewind_rep_backing_file(out), 0);
    EXPECT_EQ(lseek(out->rep_queued_fd, 0, SEEK_CUR), 0);
}

TEST_F(RepStream, AFailedSendKeepsTheBufferForARetry)
{
    const std::string data = random_bytes(200000);
    for (bool backed : {true, false}) {
        logged.clear();
        out->rep_stream_offset = 0;
        connect();
        if (backed) {
            start_recording();
        }
        // 10 bytes into the second full buffer of an object that leaves from the caller's memory
        rules = {SIZE_MAX, REP_BUFFER_SIZE + 10, true, {}};
        EXPECT_EQ(send_to_stream(out, data.data(), 200000), -1);
        EXPECT_EQ(logged, "3:Failed to send data. Broken pipe\n");
        EXPECT_EQ(out->rep_stream_offset, REP_BUFFER_SIZE + 10u);
        EXPECT_EQ(out->rep_buffer.rep_used, 65536u);
        EXPECT_EQ(memcmp(out->rep_buffer.rep_data, data.data() + REP_BUFFER_SIZE, REP_BUFFER_SIZE),
                  0);
        EXPECT_EQ(recorded(), data.substr(0, REP_BUFFER_SIZE + 10));
        EXPECT_EQ(send_to_stream(out, data.data(), 0), -1) << "a full buffer is flushed first";
        EXPECT_EQ(send_rep_command_sync(out, 1, nullptr, 0), -1);
        rules.left = SIZE_MAX;
        EXPECT_EQ(flush_rep_stream(out), 0);
        EXPECT_EQ(out->rep_stream_offset, 2 * REP_BUFFER_SIZE + 10u);
        if (backed) {
            EXPECT_EQ(recorded().size(), out->rep_stream_offset);
            ASSERT_EQ(truncate((dir / "stream").c_str(), REP_BUFFER_SIZE + 10), 0);
        }
        close_rep_stream(out, 0);
    }
}

TEST_F(RepStream, BackingFileFailuresAreToldApartFromShortWrites)
{
    assign_rep_backing_file(out, open("/dev/full", O_WRONLY));
    EXPECT_EQ(send_to_stream(out, "abcd", 4), 0);
    EXPECT_EQ(flush_rep_stream(out), -1);
    EXPECT_EQ(logged, "3:Failed to write queued stream No space left on device\n");
    EXPECT_EQ(out->rep_buffer.rep_used, 4u);
    logged.clear();
    connect();
    EXPECT_EQ(flush_rep_stream(out), -1);
    EXPECT_EQ(logged, "3:Failed to write queued stream. No space left on device\n");
    EXPECT_EQ(out->rep_stream_offset, 0u);
    close_rep_stream(out, 0);

    // A pipe takes a part: no failure, and the offset tells.
    logged.clear();
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    ASSERT_EQ(write(ends[1], std::string(20000, 'p').data(), 20000), 20000);
    assign_rep_backing_file(out, ends[1]);
    out->rep_buffer.rep_used = 0;
    EXPECT_EQ(send_to_stream(out, random_bytes(65536).data(), 65536), 0);
    EXPECT_EQ(flush_rep_stream(out), 0);
    EXPECT_GT(out->rep_stream_offset, 0u);
    EXPECT_LT(out->rep_stream_offset, 65536u);
    EXPECT_EQ(logged, "");
    close(ends[0]);

    // With neither, bytes are dropped and not counted.
    close_rep_stream(out, 0);
    const uint64_t before = out->rep_stream_offset;
    EXPECT_EQ(send_to_stream(out, random_bytes(70000).data(), 70000), 0);
    EXPECT_EQ(flush_rep_stream(out), 0);
    EXPECT_EQ(out->rep_buffer.rep_used, 0u);
    EXPECT_EQ(out->rep_stream_offset, before);
}

TEST_F(RepStream, HeadersAndCommandsGoStraightToATarget)
{
    connect();
    auto target = std::make_unique<rep_target_t>();
    target->rep_tgt_sock = out->rep_sock;
    rules.cap = 5;
    EXPECT_EQ(send_rep_header(nullptr, target.get(), 1, 0x12345, 2, 3), 0);
    EXPECT_EQ(send_rep_command(nullptr, target.get(), 9, bytes_of("abcde"), 5), 0);
    EXPECT_EQ(out->rep_buffer.rep_used + out->rep_stream_offset, 0u);
    EXPECT_EQ(extract_rep_header_sync(in, &header), 0);
    EXPECT_EQ(header.rep_stream_version, 5);
    EXPECT_EQ(extract_rep_cmd(in, payload_taken, 8, &length_taken), 9);
    rules = {SIZE_MAX, 12, true, {}};
    EXPECT_EQ(send_rep_command(nullptr, target.get(), 9, bytes_of("abcde"), 5), -1);
    EXPECT_EQ(logged, "3:Error sending 4 bytes to target. Error=32\n");
}

TEST_F(RepStream, RefusesWhatCannotBeSent)
{
    const auto send_all = [&](const char *name) {
        return std::vector<int>{
            send_file_header(out, 6, name, &parent, 1, &attributes, nullptr, 0, 0),
            send_ip_header(out, 6, name, &parent, 1, &ip, nullptr, 0, 0),
            send_packed_file_header(out, 6, &file, name),
            send_file_ns(out, 18, name, &file, 0, 0, 0),
            send_file_ns(out, 6, name, &file, 0, 0, 0)};
    };
    EXPECT_EQ(send_all(std::string(256, 'n').c_str()), (std::vector<int>{-1, -1, -1, -1, -1}));
    EXPECT_EQ(send_file_ns(out, 18, nullptr, &file, 0, 0, 0), -1);
    const std::string big(65537, 'd');
    EXPECT_EQ(send_sd_mapping(out, 1, bytes_of(big), 65537), -3);
    EXPECT_EQ(send_rep_command(out, nullptr, 4, bytes_of(big), 8193), -1);
    EXPECT_EQ(logged, "3:Tried to send a command 4 of size 8193, max size 8192.\n");
    EXPECT_EQ(out->rep_buffer.rep_used, 0u);
    EXPECT_EQ(send_all(std::string(255, 'n').c_str()), (std::vector<int>{0, 0, 0, 0, 0}));
    EXPECT_EQ(out->rep_buffer.rep_used, 3 * 96 + 112 + 48 + 5 * 256u);
    EXPECT_EQ(send_sd_mapping(out, 1, bytes_of(big), 65536), 0);
    EXPECT_EQ(send_rep_command(out, nullptr, 4, bytes_of(big), 8192), 0);
    out->rep_buffer.rep_used = 0;
    EXPECT_EQ(send_sd_mapping(out, 1, nullptr, 0), 0);
    EXPECT_EQ(out->rep_buffer.rep_used, 20u);
}

TEST_F(RepStream, RunningOutOfMemoryIsAStatus)
{
    const auto without_memory = [](const auto &call) {
        const support::FailingMalloc none(0);
        return call();
    };
    logged.reserve(4096);
    EXPECT_EQ(without_memory([] { return create_rep_out_stream(); }), nullptr);
    for (int good : {0, 1}) {
        const support::FailingMalloc after(good);
        EXPECT_EQ(create_rep_in_stream(1), nullptr) << good;
    }
    EXPECT_EQ(without_memory([&] { return send_sd_mapping(out, 1, bytes_of("12345"), 5); }), -2);
    out->rep_buffer.rep_used = REP_BUFFER_SIZE - 8;
    EXPECT_EQ(without_memory([&] { return send_rep_command(out, nullptr, 1, bytes_of("1"), 1); }),
              -1);
    EXPECT_EQ(out->rep_buffer.rep_used, REP_BUFFER_SIZE - 8u);
    deliver(from_hex("BAADDEED 0014 0000 0000000000000007 00000001 31000000"));
    uint64_t key = 0;
    uint8_t *data = nullptr;
    uint32_t length = REP_MAX_SD_LEN;
    EXPECT_EQ(without_memory([&] { return extract_rep_sd_mapping(in, &key, &data, &length); }), -2);
    EXPECT_EQ(logged, "3:Cannot allocate 28 bytes for rep_sd_mapping. \n"
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
    EXPECT_EQ(drop_stream(out), 0);
    EXPECT_EQ(completed, 1);
    out = nullptr;
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
            EXPECT_EQ(i % 512 == 0 ? flush_rep_stream(out) : 0, 0);
            unlock_stream(out);
        }
    };
    const auto follow = [&] {
        uint64_t there = 0;
        for (bool closed = false; !closed;) {
            pthread_mutex_lock(&out->rep_mutex.mutex);
            while (out->rep_stream_offset == there && (out->rep_stream_flags & 1) == 0) {
                out->rep_targ_waiting++;
                pthread_cond_wait(&out->rep_cond.cond, &out->rep_mutex.mutex);
                out->rep_targ_waiting--;
            }
            there = out->rep_stream_offset;
            closed = (out->rep_stream_flags & 1) != 0;
            pthread_mutex_unlock(&out->rep_mutex.mutex);
            EXPECT_GE(recorded().size(), there);
        }
        EXPECT_EQ(there, 2u * per_writer * 20);
        EXPECT_EQ(drop_stream(out), 1);
    };
    hold_stream(out);
    std::thread follower(follow);
    std::thread first(write_commands, 1), second(write_commands, 2);
    first.join();
    second.join();
    EXPECT_EQ(flush_rep_stream(out), 0);
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
        return [=, this] { return extract_rep_cmd(in, payload_taken, room, taken); };
    };
    const auto file_of = [&](char *name, uint32_t room, uint32_t size = 96) {
        return [=, this] { return _extract_rep_file(in, &got, size, name, room); };
    };
    const auto ns_file = [&] { return extract_rep_ns_file(in, &ns, name_taken, 256); };
    const auto peek = [&] { return peek_rep_stream(in); };
    const std::string zeros(320, '0'), mapping = "BAADDEED 0014 0000 0000000000000001";
    const std::string cut = "3:SD data not in replication stream\n";
    const std::string bad = "3:Bad SD mapping in replication stream: magic 0xbaaddeed type ";
    const Case cases[] = {
        {"header", "CAFEFEED" + zeros, [&] { return extract_rep_header(in, &header); }, 32, ""},
        {"file magic", "FACEBABE" + zeros, file_of(name_taken, 256), 96, ""},
        {"name without room", "CAFEFEED 0006 0005" + zeros, file_of(name_taken, 5), 96, ""},
        {"no name, no room", "CAFEFEED 0006 0000" + zeros, file_of(nullptr, 0), 96, ""},
        {"longest name", "CAFEFEED 0006 FFFF" + zeros, file_of(name_taken, UINT32_MAX), 96, ""},
        {"size", "CAFEFEED 0006 0000" + zeros, file_of(name_taken, 256, 95), 0, ""},
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
        logged.clear();
        deliver(from_hex(c.hex));
        EXPECT_EQ(c.take(), -1);
        EXPECT_EQ(in->rep_stream_offset, c.consumed);
        EXPECT_EQ(logged, c.log);
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(key, 5u);
    }
    for (const char *service : {"CAFEBEAD FFFE 0000", "CAFEFACE FFFE 0000"}) {
        deliver(from_hex(service));
        EXPECT_EQ(peek_rep_stream(in), 0xFFFE);
    }
}

TEST_F(RepStream, ACommandsLengthTellsWhatWasThere)
{
    uint32_t length = 99;
    deliver(from_hex("BAADF00D 0006 0000 BAADF00D 0007 0002 31320000 313233"));
    EXPECT_EQ(extract_rep_cmd(in, payload_taken, 8, &length), 6);
    EXPECT_EQ(length, 23u);
    EXPECT_EQ(extract_rep_cmd(in, payload_taken, 4, &length), 7);
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(extract_rep_cmd(in, payload_taken, 4, &length), -1);
    EXPECT_EQ(length, 3u);
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
    std::string name = random_bytes(65535);
    std::string bytes = from_hex("CAFEFEED 0006 FFFF") + std::string(88, '\0') + name + '\0' +
                        from_hex("BAADDEED 0014 0000 0000000000000007 00010000") + name + "!" +
                        from_hex("BAADDEED 0014 0000 0000000000000008 00000002 31320000");
    deliver(bytes);
    std::string taken(65536, '?');
    EXPECT_EQ(extract_rep_file(in, &got, taken.data(), 65536), 65535);
    EXPECT_EQ(taken, name + '\0');
    EXPECT_TRUE(took_mapping(in, 7, name + "!"));
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
        EXPECT_EQ(flush_rep_stream(out), 0);
        close_rep_stream(out, 0);
    });
    for (uint32_t length : {1u, 65536u, 65537u, 400001u}) {
        EXPECT_TRUE(taken_data(length) == data.substr(0, length)) << length;
    }
    EXPECT_EQ(in->rep_stream_offset, 4 + 65536 + 65540 + 400004u);
    std::string rest(200000, '\0');
    EXPECT_EQ(extract_rep_data(in, reinterpret_cast<uint8_t *>(rest.data()), 200000), -1);
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
        uint8_t bytes[8] = {};
        EXPECT_EQ(extract_rep_data(in, bytes, 8), -1);
        EXPECT_EQ(in->rep_stream_flags, REP_IN_ENDED);
        EXPECT_EQ(memcmp(bytes, "abcd", 4), 0);
        EXPECT_EQ(in->rep_stream_offset, 4u);
        hang_up();
    }
    sigaction(SIGALRM, &saved, nullptr);
}

TEST_F(RepStream, PeekSpeaksWhenItsDebugFlagIsOn)
{
    uint8_t flags[2] = {0xFF, 1};
    debug_facility &facility = facilities[DBG_FAC_KOPOL];
    const debug_facility saved = facility;
    __vorn_debugfn = record_log;
    for (const uint8_t size : {1, 2}) { // the flag is in the second byte
        facility.debug_flags = flags;
        facility.debug_flag_size = size;
        deliver("abc");
        EXPECT_EQ(peek_rep_stream(in), -1);
        EXPECT_EQ(logged, size == 1 ? ""
                                    : "0:peek_rep_stream: Available data: 3 is less than the "
                                      "requested data: 8, rep_stream_flags: 0x1.\n");
    }
    facility = saved;
    __vorn_debugfn = __vorn_debugfn_default;
}

TEST_F(RepStream, ForwardsAStreamVerbatim)
{
    const std::string data = random_bytes(300001);
    support::write_file(dir / "source", data);
    open_input(open((dir / "source").c_str(), O_RDONLY));
    EXPECT_EQ(taken_data(5), data.substr(0, 5));
    start_recording();
    EXPECT_EQ(copy_rep_stream(in, out), 0);
    EXPECT_LT(recorded().size(), data.size() - 8) << "the caller flushes";
    EXPECT_EQ(flush_rep_stream(out), 0);
    EXPECT_EQ(recorded(), data.substr(8));
    EXPECT_EQ(in->rep_stream_offset, data.size());

    open_input(open((dir / "source").c_str(), O_RDONLY));
    close_rep_stream(out, 0);
    assign_rep_backing_file(out, open("/dev/full", O_WRONLY));
    EXPECT_EQ(copy_rep_stream(in, out), -1);
    deliver("abcd", false);
    in->read_timeout = 10;
    out->rep_buffer.rep_used = 0;
    EXPECT_EQ(copy_rep_stream(in, out), 0) << "a time-out ends it, what came is passed on";
    EXPECT_EQ(out->rep_buffer.rep_used, 4u);
    out->rep_buffer.rep_used = 0;
    hang_up();
}
