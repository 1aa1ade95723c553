// replicate.cpp - copies a directory tree to other hosts as a replication stream.
//
// Shows both ends of a stream: records gathered in an output stream that goes straight to one
// target, or to a backing file that several targets follow at their own pace; an input stream that
// distrusts what it takes; commands with a reply; time-outs, a progress file and a bar.
//
//     replicate receive DIR PORT                  (port 0: any; serves one whole stream, then ends)
//     replicate send DIR HOST:PORT [HOST:PORT...]
//         -t SECONDS   longest wait for a peer (30)      -p FILE   progress file of the sender
//
// The stream: a header; a namespace record for each directory, parents first, the root with an
// empty name; for each distinct mode a security-descriptor mapping before it is used; a file record
// for each file and link, followed by its data in pieces: a blob record with offset, length and
// checksum, then the data, a length of 0 ending the file; an end command with the sender's counts.
// The receiver answers with a rep_reply_t. A file gets its name only when it is whole and synced,
// and a good reply means that all is on disk. Names that would leave the directory end the stream.
// Owners and set-id bits are not copied. There is no authentication: for networks that are trusted.
#include <koutil/koutil.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <fts.h>
#include <map>
#include <memory>
#include <netdb.h>
#include <set>
#include <string>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

enum : uint16_t { record_file = 1, record_link = 2, command_end = 100, command_reply = 101 };
enum : uint32_t { stream_done = 1, stream_broken = 2 }; // bits of rep_stream_flags

constexpr uint32_t piece_size = 1 << 20;     // of a file's data
constexpr char unfinished[] = ".replicate~"; // the name of a file until it is whole
constexpr uint64_t mode_key = 0x10000;       // key of a mode's descriptor: the mode and this

// What a receiver remembers of a stream, whatever its sender says.
constexpr size_t most_path_bytes = 256 << 20;
constexpr size_t most_modes = 4096;

struct Options {
    uint32_t timeout = 30;
    const char *progress = nullptr;
} options;

class Descriptor
{
  public:
    explicit Descriptor(int fd = -1)
        : fd_(fd)
    {
    }
    Descriptor(Descriptor &&other) noexcept
        : fd_(other.fd_)
    {
        other.fd_ = -1;
    }
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor()
    {
        if (fd_ != -1) {
            close(fd_);
        }
    }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ != -1; }

  private:
    int fd_;
};

void log_to_stderr(int, char *format, ...)
{
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
}

std::string size_text(uint64_t bytes)
{
    char text[16];
    pretty_print_space(text, sizeof text, PRETTY_BINARY, bytes);
    return text;
}

// Peers that neither take nor send anything for this long have gone.
void limit_waits(int sock)
{
    const timeval limit = {options.timeout, 0};
    setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

void checksum(const uint8_t *data, size_t length, char (&tag)[16])
{
    const unsigned long long hash = XXH64(data, length, 0);
    memset(tag, 0, sizeof tag);
    for (int i = 0; i < 8; i++) {
        tag[i] = static_cast<char>(hash >> (56 - 8 * i));
    }
}

// ---- sending ----

// What has been sent of how much: a bar on a terminal, and the progress file.
class Progress
{
  public:
    explicit Progress(uint64_t total)
        : total_(total)
        , track_(options.progress != nullptr ? UtilTrackInit(options.progress) : nullptr)
    {
        UtilTrackProgressDecimals(track_, 2);
        UtilTrackPhase(track_, "Copying");
    }
    void add(uint64_t bytes)
    {
        done_ += bytes;
        const auto share = static_cast<int>(
            total_ == 0 ? 10000 : std::min<uint64_t>(done_ * 10000 / total_, 10000));
        if (share / 10 == shown_ / 10) {
            return;
        }
        shown_ = share;
        UtilTrackProgress(track_, share);
        if (isatty(STDERR_FILENO) != 0) {
            fprintf(stderr, "\r[%-40.*s] %3d%% %s ", share / 250,
                    "########################################", share / 100,
                    size_text(done_).c_str());
        }
    }
    void end(bool good)
    {
        if (shown_ >= 0 && isatty(STDERR_FILENO) != 0) {
            fputc('\n', stderr);
        }
        good ? UtilTrackSuccess(track_) : UtilTrackFailure(track_, "Failure");
    }

  private:
    uint64_t total_, done_ = 0;
    int shown_ = -1;
    util_track_ctx_t *track_;
};

FTS *walk(const char *root)
{
    char *const roots[] = {const_cast<char *>(root), nullptr};
    return fts_open(
        roots, FTS_PHYSICAL | FTS_COMFOLLOW | FTS_NOCHDIR | FTS_XDEV,
        [](const FTSENT **a, const FTSENT **b) { return strcmp((*a)->fts_name, (*b)->fts_name); });
}

uint64_t size_of_tree(const char *root)
{
    uint64_t bytes = 0;
    FTS *tree = walk(root);
    if (tree == nullptr) {
        return 0;
    }
    while (FTSENT *entry = fts_read(tree)) {
        bytes += entry->fts_info == FTS_F ? static_cast<uint64_t>(entry->fts_statp->st_size) : 0;
    }
    fts_close(tree);
    return bytes;
}

class Sender
{
  public:
    Sender(rep_stream_t *out, Progress &progress)
        : out_(out)
        , progress_(progress)
    {
    }

    // Sends a whole tree. Files that cannot be read are left out with a message.
    bool send_tree(const char *root)
    {
        FTS *tree = walk(root);
        bool good = tree != nullptr;
        while (good) {
            errno = 0;
            FTSENT *entry = fts_read(tree);
            if (entry == nullptr) {
                good = errno == 0;
                break;
            }
            lock_stream(out_);
            good = send_entry(entry);
            unlock_stream(out_);
        }
        if (tree != nullptr) {
            fts_close(tree);
        }
        return good && send_end();
    }
    uint32_t left_out() const { return stats_.rep_files_skipped; }

  private:
    bool send_entry(const FTSENT *entry)
    {
        switch (entry->fts_info) {
        case FTS_D:
            return send_directory(entry);
        case FTS_DP:
            return true;
        case FTS_F:
        case FTS_SL:
        case FTS_SLNONE:
            if (strcmp(entry->fts_name, unfinished) != 0) {
                return send_file(entry);
            }
            [[fallthrough]];
        default:
            fprintf(stderr, "%s: left out: %s\n", entry->fts_path,
                    entry->fts_errno != 0 ? strerror(entry->fts_errno)
                                          : "not a file, or not a whole one");
            stats_.rep_files_skipped++;
            return true;
        }
    }

    bool send_directory(const FTSENT *entry)
    {
        const bool root = entry->fts_level == FTS_ROOTLEVEL;
        if (root &&
            send_rep_header(out_, nullptr, entry->fts_statp->st_dev, 0, 0, MicroTime()) != 0) {
            return false;
        }
        rep_file_t place = {};
        place.rep_inode_inum = entry->fts_statp->st_ino;
        place.rep_parent_inum = root ? entry->fts_statp->st_ino : parent_of(entry).inum;
        stats_.rep_dir_cnt++;
        return send_file_ns(out_, REP_TYPE_NS_FILE, root ? "" : entry->fts_name, &place,
                            place.rep_inode_inum, 0, entry->fts_statp->st_mode & 07777) == 0;
    }

    bool send_file(const FTSENT *entry)
    {
        const struct stat &st = *entry->fts_statp;
        const bool link = S_ISLNK(st.st_mode);
        const Descriptor file(link ? -1
                                   : open(entry->fts_accpath, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        if (!link && !file) {
            fprintf(stderr, "%s: left out: %s\n", entry->fts_path, strerror(errno));
            stats_.rep_files_skipped++;
            return true;
        }
        ExtendedStat_t attributes = {};
        attributes.sr_ino = st.st_ino;
        attributes.sr_uid = st.st_uid;
        attributes.sr_gid = st.st_gid;
        attributes.sr_mode = st.st_mode;
        attributes.sr_size = static_cast<uint64_t>(st.st_size);
        attributes.sr_nt_sd_key = mode_key + (st.st_mode & 07777);
        attributes.sr_mtim = {static_cast<uint32_t>(st.st_mtim.tv_sec),
                              static_cast<uint32_t>(st.st_mtim.tv_nsec)};
        const inode_id_t parent = parent_of(entry);
        stats_.rep_file_cnt++;
        return send_mode(st.st_mode & 07777) &&
               send_file_header(out_, link ? record_link : record_file, entry->fts_name, &parent,
                                rep_state_sending, &attributes, nullptr, 1,
                                stats_.rep_file_cnt) == 0 &&
               (link ? send_link(entry) : send_data(file.get(), entry));
    }

    bool send_mode(uint32_t mode)
    {
        char text[8];
        const int length = snprintf(text, sizeof text, "%04o", mode);
        return !modes_.insert(mode).second ||
               send_sd_mapping(out_, mode_key + mode, reinterpret_cast<uint8_t *>(text),
                               static_cast<uint32_t>(length)) == 0;
    }

    bool send_piece(uint64_t offset, size_t length)
    {
        char tag[16];
        checksum(piece_.get(), length, tag);
        return send_blob_record(out_, offset, length, 0, tag) == 0 &&
               send_file_data(out_, piece_.get(), static_cast<uint32_t>(length)) == 0;
    }

    bool send_link(const FTSENT *entry)
    {
        const ssize_t length =
            readlink(entry->fts_accpath, reinterpret_cast<char *>(piece_.get()), PATH_MAX);
        return (length <= 0 || send_piece(0, static_cast<size_t>(length))) && send_piece(0, 0);
    }

    // A file that shrinks while it is read, or fails, ends there; one that grows is cut.
    bool send_data(int file, const FTSENT *entry)
    {
        const auto size = static_cast<uint64_t>(entry->fts_statp->st_size);
        for (uint64_t offset = 0; offset < size;) {
            const ssize_t got =
                read(file, piece_.get(), std::min<uint64_t>(piece_size, size - offset));
            if (got <= 0) {
                fprintf(stderr, "%s: ends early: %s\n", entry->fts_path,
                        got < 0 ? strerror(errno) : "it has shrunk");
                break;
            }
            if (!send_piece(offset, static_cast<size_t>(got))) {
                return false;
            }
            offset += static_cast<uint64_t>(got);
            stats_.rep_data_size += static_cast<uint64_t>(got);
            progress_.add(static_cast<uint64_t>(got));
        }
        return send_piece(size, 0);
    }

    bool send_end()
    {
        rep_stats_t wire = stats_;
        swap_rep_stats(&wire);
        const uint64_t all =
            out_->rep_stream_offset + out_->rep_buffer.rep_used + REP_CMD_LEN + sizeof wire;
        // A backing file on a full disk may take only a part: the offset tells.
        return send_rep_command_sync(out_, command_end, reinterpret_cast<uint8_t *>(&wire),
                                     sizeof wire) == 0 &&
               out_->rep_stream_offset == all;
    }

    static inode_id_t parent_of(const FTSENT *entry)
    {
        return {entry->fts_parent->fts_statp->st_ino, 0, 0};
    }

    rep_stream_t *out_;
    Progress &progress_;
    rep_stats_t stats_ = {};
    std::set<uint32_t> modes_;
    std::unique_ptr<uint8_t[]> piece_ = std::make_unique<uint8_t[]>(piece_size);
};

struct Target {
    std::string name;
    Descriptor sock;
    rep_reply_t reply = {};
    bool replied = false;
};

bool connect_to(Target &target)
{
    std::string text = target.name;
    char *host = nullptr;
    unsigned short port = 0;
    ExtractAddrPort(text.data(), &host, &port);
    addrinfo hints = {}, *found = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    const int failed = host == nullptr ? EAI_NONAME : getaddrinfo(host, nullptr, &hints, &found);
    if (failed != 0) {
        fprintf(stderr, "%s: %s\n", target.name.c_str(), gai_strerror(failed));
        return false;
    }
    int error = 0;
    for (addrinfo *info = found; info != nullptr && !target.sock; info = info->ai_next) {
        in46addr_t address = IN6ADDR_ANY_INIT;
        if (info->ai_family == AF_INET6) {
            address = reinterpret_cast<sockaddr_in6 *>(info->ai_addr)->sin6_addr;
        } else {
            address.s6_addr[10] = address.s6_addr[11] = 0xFF;
            memcpy(&address.s6_addr[12], &reinterpret_cast<sockaddr_in *>(info->ai_addr)->sin_addr,
                   4);
        }
        target.sock = Descriptor(SockConnect(&address, port, &error));
    }
    freeaddrinfo(found);
    if (!target.sock) {
        fprintf(stderr, "%s: %s\n", target.name.c_str(), strerror(error));
        return false;
    }
    limit_waits(target.sock.get());
    return true;
}

void take_reply(Target &target)
{
    rep_in_stream_t *in = create_rep_in_stream(dup(target.sock.get()));
    if (in == nullptr) {
        return;
    }
    set_stream_in_timeout(in, options.timeout);
    uint32_t length = 0;
    target.replied = extract_rep_cmd(in, reinterpret_cast<uint8_t *>(&target.reply),
                                     sizeof target.reply, &length) == command_reply &&
                     length == sizeof target.reply;
    swap_rep_reply(&target.reply);
    cleanup_rep_in_stream(in);
}

// Sends one target what the backing file holds, as it grows, and takes the reply.
void follow(rep_stream_t *stream, int file, Target &target)
{
    off_t sent = 0;
    for (uint32_t flags = 0; flags == 0;) {
        pthread_mutex_lock(&stream->rep_mutex.mutex);
        while (stream->rep_stream_offset == static_cast<uint64_t>(sent) &&
               stream->rep_stream_flags == 0) {
            stream->rep_targ_waiting++;
            pthread_cond_wait(&stream->rep_cond.cond, &stream->rep_mutex.mutex);
            stream->rep_targ_waiting--;
        }
        const auto there = static_cast<off_t>(stream->rep_stream_offset);
        flags = stream->rep_stream_flags;
        pthread_mutex_unlock(&stream->rep_mutex.mutex);
        while (sent < there && flags != stream_broken) {
            if (sendfile(target.sock.get(), file, &sent, static_cast<size_t>(there - sent)) <= 0) {
                flags = stream_broken;
            }
        }
    }
    shutdown(target.sock.get(), SHUT_WR);
    take_reply(target);
    drop_stream(stream);
}

bool report(const Target &target)
{
    const rep_reply_t &reply = target.reply;
    if (!target.replied) {
        printf("%s: no reply\n", target.name.c_str());
        return false;
    }
    printf("%s: %s; %u files, %u directories, %s in %u.%03u s\n", target.name.c_str(),
           reply.rep_result_code == 0 ? "done" : strerror(static_cast<int>(reply.rep_result_code)),
           reply.rep_files_moved, reply.rep_metadata_updated,
           size_text(reply.rep_data_moved).c_str(), reply.rep_secs_elapsed,
           reply.rep_usecs_elapsed / 1000);
    return reply.rep_result_code == 0;
}

// One target gets the stream directly; more than one follow a backing file.
int send(const char *root, std::deque<Target> &targets)
{
    if (!Descriptor(open(root, O_RDONLY | O_DIRECTORY | O_CLOEXEC))) {
        perror(root);
        return 1;
    }
    for (Target &target : targets) {
        if (!connect_to(target)) {
            return 1;
        }
    }
    rep_stream_t *out = create_rep_out_stream();
    if (out == nullptr) {
        perror("output stream");
        return 1;
    }
    Descriptor file;
    std::deque<std::thread> followers;
    if (targets.size() == 1) {
        assign_rep_target_sync(out, dup(targets[0].sock.get()));
    } else {
        file = Descriptor(open("/tmp", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
        if (!file) {
            perror("backing file");
            cleanup_rep_stream(out, stream_broken);
            return 1;
        }
        assign_rep_backing_file(out, dup(file.get()));
        for (Target &target : targets) {
            hold_stream(out);
            followers.emplace_back(follow, out, file.get(), std::ref(target));
        }
    }
    Progress progress(size_of_tree(root));
    Sender sender(out, progress);
    bool good = sender.send_tree(root);
    cleanup_rep_stream(out, good ? stream_done : stream_broken);
    if (targets.size() == 1) {
        shutdown(targets[0].sock.get(), SHUT_WR);
        take_reply(targets[0]); // a target that refused says why
    }
    for (std::thread &follower : followers) {
        follower.join();
    }
    for (const Target &target : targets) {
        good = report(target) && good;
    }
    if (sender.left_out() != 0) {
        printf("%u entries left out\n", sender.left_out());
    }
    progress.end(good);
    return good ? 0 : 1;
}

// ---- receiving ----

class Receiver
{
  public:
    Receiver(int root, int sock)
        : root_(root)
        , sock_(sock)
        , in_(create_rep_in_stream(dup(sock)))
        , start_(monotime())
    {
        if (in_ == nullptr) {
            perror("input stream");
            exit(1);
        }
        set_stream_in_timeout(in_, options.timeout);
    }
    ~Receiver() { cleanup_rep_in_stream(in_); }
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;

    enum Outcome { complete, failed, broken };

    // Takes a stream and answers it. A stream that breaks off gets no answer.
    Outcome take_stream()
    {
        rep_header_t header;
        Step step = extract_rep_header(in_, &header) == 0 ? Step::next : Step::broken;
        while (step == Step::next) {
            step = take_record();
        }
        if (step == Step::broken) {
            return broken;
        }
        finish_directories();
        send_reply();
        return reply_.rep_result_code == 0 ? complete : failed;
    }
    const rep_reply_t &reply() const { return reply_; }

  private:
    enum class Step { next, end, broken };

    Step take_record()
    {
        switch (peek_rep_stream(in_)) {
        case REP_TYPE_NS_FILE:
            return take_directory();
        case REP_TYPE_SD_MAPPING:
            return take_mode();
        case record_file:
        case record_link:
            return take_file();
        case command_end:
            return take_end();
        default:
            return Step::broken;
        }
    }

    // The stream is not to be followed any further.
    Step refuse(int error, const char *name)
    {
        fprintf(stderr, "refused: '%s'\n", name);
        reply_.rep_result_code = static_cast<uint32_t>(error);
        return Step::end;
    }

    // One entry could not be made; the others still can.
    void fail(const std::string &what)
    {
        const int error = errno;
        fprintf(stderr, "%s: %s\n", what.c_str(), strerror(error));
        if (reply_.rep_result_code == 0) {
            reply_.rep_result_code = static_cast<uint32_t>(error);
        }
    }

    static bool is_plain(const char *name, int length)
    {
        return length > 0 && strlen(name) == static_cast<size_t>(length) &&
               strchr(name, '/') == nullptr && strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
    }

    // Opens a directory below the root without following a link on the way.
    Descriptor open_directory(const std::string &path) const
    {
        Descriptor directory(dup(root_));
        for (size_t at = 0; directory && at < path.size();) {
            const size_t end = std::min(path.find('/', at), path.size());
            directory = Descriptor(openat(directory.get(), path.substr(at, end - at).c_str(),
                                          O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            at = end + 1;
        }
        return directory;
    }

    Step take_directory()
    {
        rep_ns_file_t record;
        char name[REP_MAX_NAME_LEN + 1] = "";
        const int length = extract_rep_ns_file(in_, &record, name, sizeof name);
        if (length < 0) {
            return Step::broken;
        }
        if (directories_.empty() && length == 0) {
            unlinkat(root_, unfinished, 0);
            directories_[record.rep_inode_inum] = {"", record.rep_ns_flags & 0777};
            return Step::next;
        }
        const auto parent = directories_.find(record.rep_parent_inum);
        if (!is_plain(name, length) || parent == directories_.end() ||
            directories_.count(record.rep_inode_inum) != 0) {
            return refuse(EPERM, name);
        }
        const std::string path =
            parent->second.path.empty() ? name : parent->second.path + "/" + name;
        path_bytes_ += path.size() + sizeof(Directory);
        if (path_bytes_ > most_path_bytes) {
            return refuse(ENOMEM, name);
        }
        const Descriptor above = open_directory(parent->second.path);
        const bool made = mkdirat(above.get(), name, 0700) == 0 || errno == EEXIST;
        const Descriptor directory = made ? open_directory(path) : Descriptor();
        if (!directory || fchmod(directory.get(), 0700) != 0) {
            fail(path);
        }
        unlinkat(directory.get(), unfinished, 0); // of a receiver that was killed
        directories_[record.rep_inode_inum] = {path, record.rep_ns_flags & 0777};
        order_.push_back(record.rep_inode_inum);
        reply_.rep_metadata_updated++;
        return Step::next;
    }

    Step take_mode()
    {
        uint64_t key = 0;
        uint8_t *data = nullptr;
        uint32_t length = REP_MAX_SD_LEN;
        if (extract_rep_sd_mapping(in_, &key, &data, &length) != 0) {
            return Step::broken;
        }
        const std::string text(reinterpret_cast<char *>(data), length);
        free(data);
        if (modes_.size() == most_modes) {
            return refuse(ENOMEM, text.c_str());
        }
        modes_[key] = static_cast<uint32_t>(strtoul(text.c_str(), nullptr, 8)) & 0777;
        return Step::next;
    }

    Step take_file()
    {
        rep_file_t record;
        char name[REP_MAX_NAME_LEN + 1] = "";
        const int length = extract_rep_file(in_, &record, name, sizeof name);
        if (length < 0) {
            return Step::broken;
        }
        const auto parent = directories_.find(record.rep_parent_inum);
        const auto mode = modes_.find(record.rep_ntsd_key);
        if (!is_plain(name, length) || strcmp(name, unfinished) == 0 ||
            parent == directories_.end() || mode == modes_.end()) {
            return refuse(EPERM, name);
        }
        const std::string path = parent->second.path + "/" + name;
        const Descriptor directory = open_directory(parent->second.path);
        const bool link = record.rep_type == record_link;
        Descriptor file;
        if (!link) {
            file = Descriptor(openat(directory.get(), unfinished,
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        }
        bool good = link || file;
        if (!good) {
            fail(path);
        }
        std::string target;
        Step step = take_data(file.get(), link ? &target : nullptr, path, good);
        if (step == Step::next && good) {
            good = link ? symlinkat(target.c_str(), directory.get(), unfinished) == 0
                        : seal(file.get(), record, mode->second);
            good = good && renameat(directory.get(), unfinished, directory.get(), name) == 0;
            if (good) {
                reply_.rep_files_moved++;
                return step;
            }
            fail(path);
        }
        unlinkat(directory.get(), unfinished, 0);
        return step;
    }

    // Takes a file's pieces into `file`, or a link's into `target`. `good` turns false when they
    // cannot be stored; they are then skipped.
    Step take_data(int file, std::string *target, const std::string &path, bool &good)
    {
        for (uint64_t offset = 0;;) {
            rep_blob_t blob;
            if (extract_rep_blob(in_, &blob) != 0) {
                return Step::broken;
            }
            if (blob.rep_length == 0) {
                return Step::next;
            }
            if (blob.rep_length > piece_size || blob.rep_offset != offset) {
                return refuse(EPROTO, path.c_str());
            }
            const auto length = static_cast<uint32_t>(blob.rep_length);
            char tag[16];
            if (extract_rep_data(in_, piece_.get(), length) != 0) {
                return Step::broken;
            }
            checksum(piece_.get(), length, tag);
            if (memcmp(tag, blob.rep_tag, sizeof tag) != 0) {
                return refuse(EBADMSG, path.c_str());
            }
            offset += length;
            reply_.rep_data_moved += length;
            if (target != nullptr) {
                good = good && target->size() + length < PATH_MAX;
                target->append(reinterpret_cast<char *>(piece_.get()), good ? length : 0);
            } else if (good && !write_whole(file, length)) {
                good = false;
                fail(path);
            }
        }
    }

    bool write_whole(int file, uint32_t length) const
    {
        for (uint32_t at = 0; at < length;) {
            const ssize_t written = write(file, piece_.get() + at, length - at);
            if (written < 0) {
                return false;
            }
            at += static_cast<uint32_t>(written);
        }
        return true;
    }

    static bool synced(int fd)
    {
        return fsync(fd) == 0 || errno == EINVAL; // EINVAL: a file system that cannot
    }

    static bool seal(int file, const rep_file_t &record, uint32_t mode)
    {
        const timespec times[2] = {{0, UTIME_OMIT},
                                   {record.rep_mtime.tv_sec, record.rep_mtime.tv_nsec}};
        return fchmod(file, mode) == 0 && futimens(file, times) == 0 && synced(file);
    }

    Step take_end()
    {
        rep_stats_t stats = {};
        uint32_t length = 0;
        if (extract_rep_cmd(in_, reinterpret_cast<uint8_t *>(&stats), sizeof stats, &length) !=
                command_end ||
            length != sizeof stats) {
            return Step::broken;
        }
        swap_rep_stats(&stats);
        if (reply_.rep_result_code == 0 && (stats.rep_file_cnt != reply_.rep_files_moved ||
                                            stats.rep_dir_cnt != directories_.size())) {
            reply_.rep_result_code = EBADMSG;
        }
        return Step::end;
    }

    // Directories get their modes last and children first: one may be read-only. Syncing them makes
    // the names in them last.
    void finish_directories()
    {
        for (auto inum = order_.rbegin(); inum != order_.rend(); ++inum) {
            const Directory &made = directories_[*inum];
            const Descriptor directory = open_directory(made.path);
            if (!directory || fchmod(directory.get(), made.mode) != 0 || !synced(directory.get())) {
                fail(made.path);
            }
        }
        if (!synced(root_)) {
            fail("the directory");
        }
    }

    void send_reply()
    {
        const uint64_t milliseconds = monotime() - start_;
        reply_.rep_secs_elapsed = static_cast<uint32_t>(milliseconds / 1000);
        reply_.rep_usecs_elapsed = static_cast<uint32_t>(milliseconds % 1000 * 1000);
        reply_.rep_data_read = in_->rep_stream_offset;
        rep_reply_t wire = reply_;
        swap_rep_reply(&wire);
        const auto target = std::make_unique<rep_target_t>();
        target->rep_tgt_sock = sock_;
        send_rep_command(nullptr, target.get(), command_reply, reinterpret_cast<uint8_t *>(&wire),
                         sizeof wire);
    }

    struct Directory {
        std::string path;
        uint32_t mode = 0;
    };

    const int root_, sock_;
    rep_in_stream_t *in_;
    const uint64_t start_;
    rep_reply_t reply_ = {};
    std::map<uint64_t, Directory> directories_; // by inode number at the source
    std::vector<uint64_t> order_;               // in which they were made
    size_t path_bytes_ = 0;                     // of directories_
    std::map<uint64_t, uint32_t> modes_;        // by key
    std::unique_ptr<uint8_t[]> piece_ = std::make_unique<uint8_t[]>(piece_size);
};

// An unbound socket. Where any port will do, a port is not shared: two receivers that start at once
// would both be given it, and only one could listen.
SOCKET_T listening(int family, int port)
{
    const int on = 1;
    const SOCKET_T sock = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock != -1) {
        if (port != 0) {
            setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        }
        if (family == AF_INET6) {
            setsockopt(sock, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        }
    }
    return sock;
}

// Waits for a connection on either family.
Descriptor next_connection(SOCKET_T s4, SOCKET_T s6)
{
    qpoll_t poll = qpoll0;
    poll.d.fds = poll.qfds;
    for (SOCKET_T sock : {s4, s6}) {
        if (sock != -1) {
            QPollSet(sock, POLLIN, &poll);
        }
    }
    for (;;) {
        if (DPoll(&poll.d, -1) <= 0) {
            continue;
        }
        for (SOCKET_T sock : {s4, s6}) {
            if (DPollXRevents(sock, &poll.d) != 0) {
                in46addr_t peer;
                uint16_t port;
                return Descriptor(Accept(sock, &peer, &port));
            }
        }
    }
}

int receive(const char *path, int port)
{
    const Descriptor root(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root) {
        perror(path);
        return 1;
    }
    if (flock(root.get(), LOCK_EX | LOCK_NB) != 0) { // until this process ends, however it does
        fprintf(stderr, "%s: another receiver fills it\n", path);
        return 1;
    }
    SOCKET_T s4 = listening(AF_INET, port), s6 = listening(AF_INET6, port);
    port = BindSame(&s4, &s6, port, port);
    const Descriptor closer4(s4), closer6(s6);
    if (port <= 0 || (s4 != -1 && listen(s4, 5) != 0) || (s6 != -1 && listen(s6, 5) != 0)) {
        fprintf(stderr, "cannot listen: %s\n", port == 0 ? "no port is free" : strerror(errno));
        return 1;
    }
    printf("listening on port %d\n", port);
    fflush(stdout);
    for (;;) {
        const Descriptor sock = next_connection(s4, s6);
        if (!sock) {
            continue;
        }
        limit_waits(sock.get());
        Receiver receiver(root.get(), sock.get());
        const Receiver::Outcome outcome = receiver.take_stream();
        const rep_reply_t &reply = receiver.reply();
        printf("%s: %u files, %u directories, %s\n",
               outcome == Receiver::complete ? "complete"
               : outcome == Receiver::failed ? "failed"
                                             : "broken off",
               reply.rep_files_moved, reply.rep_metadata_updated,
               size_text(reply.rep_data_moved).c_str());
        fflush(stdout);
        if (outcome != Receiver::broken) {
            return outcome == Receiver::complete ? 0 : 1;
        }
    }
}

int usage()
{
    fputs("usage: replicate receive [-t SECONDS] DIR PORT\n"
          "       replicate send [-t SECONDS] [-p PROGRESSFILE] DIR HOST:PORT...\n",
          stderr);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    set_caller_name(argv[0]);
    __vorn_logfn = log_to_stderr;
    signal(SIGPIPE, SIG_IGN);
    const std::string command = argc > 1 ? argv[1] : "";
    optind = 2;
    for (int option; (option = getopt(argc, argv, "t:p:")) != -1;) {
        if (option == 't') {
            options.timeout = static_cast<uint32_t>(strtoul(optarg, nullptr, 10));
        } else if (option == 'p') {
            options.progress = optarg;
        } else {
            return usage();
        }
    }
    const std::vector<char *> rest(argv + std::min(optind, argc), argv + argc);
    if (command == "receive" && rest.size() == 2) {
        return receive(rest[0], atoi(rest[1]));
    }
    if (command != "send" || rest.size() < 2) {
        return usage();
    }
    std::deque<Target> targets;
    for (size_t i = 1; i < rest.size(); i++) {
        targets.emplace_back().name = rest[i];
    }
    return send(rest[0], targets);
}
