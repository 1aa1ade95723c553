// block_reader.cpp - reads the blocks of files through the buffer cache, with several threads.
//
//     block_reader [-n CACHED] [-t THREADS] [-l LOOKUPS] [-b BYTES] [-w PERCENT] [-p PATTERN]
//     FILE...
//
// The blocks of the files are numbered from 0, one file after the other. PATTERN says which of them
// are looked up:
//
//     zipf        a few of them often, most of them rarely (this is what it does unless told)
//     scan        all of them in turn, again and again
//     mixed       three of zipf, one of scan, and so on
//     0,7,20      these
//     @TRACE      those in a file of text, one number or one "start count" a line
//
// With -w, one lookup in so many changes its block by adding 1 to its first byte; the cache writes
// the block back before it gives the buffer to another one. So give it copies of files then.
//
// Every block must have the checksum that it had when the program began or, if it was changed, that
// of its last change: in the buffer at each lookup, and in the file when the cache is gone. Printed
// are the cache's counters and how its target, the wanted number of blocks that were used only
// once, went over time.
//
// Exit status: 0, 1 when a block was wrong or could not be read or written, 2 for bad arguments.
#include "koutil/koutil.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <numeric>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

struct Settings {
    uint64_t cached = 256;
    uint64_t threads = 4;
    uint64_t lookups = 0; // 0: 200,000 of a pattern without an end, or the list or trace once
    uint64_t block_size = 4096;
    uint64_t write_percent = 0;
    std::string pattern = "zipf";
};

constexpr uint64_t default_lookups = 200000;
constexpr uint64_t max_lookups = 100000000;

bool complain(const std::string &text)
{
    fprintf(stderr, "block_reader: %s\n", text.c_str());
    return false;
}

// Reads a number and steps past it.
bool read_number(const char *&text, uint64_t &number)
{
    const auto result = std::from_chars(text, text + strlen(text), number);
    text = result.ptr;
    return result.ec == std::errc{};
}

// ---- The files -------------------------------------------------------------------------------

constexpr uint64_t no_block = UINT64_MAX;

// A buffer of the cache. The bytes of the block follow.
struct Buffer {
    uint64_t holds; // the number of a block
    bool dirty;

    unsigned char *bytes() { return reinterpret_cast<unsigned char *>(this + 1); }
};

class Files
{
  public:
    Files(uint64_t block_size, bool writable)
        : block_size_(block_size)
        , writable_(writable)
    {
    }
    ~Files()
    {
        for (const File &file : files_)
            close(file.fd);
    }
    Files(const Files &) = delete;
    Files &operator=(const Files &) = delete;

    bool add(const char *path)
    {
        const int fd = voopen(path, writable_ ? O_RDWR : O_RDONLY, 0);
        if (fd < 0)
            return complain(std::string(path) + ": " + strerror(errno));
        struct stat status;
        const bool regular = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
        files_.push_back({fd, path, regular ? static_cast<uint64_t>(status.st_size) : 0, count_});
        if (!regular)
            return complain(std::string(path) + ": no regular file");
        count_ += (files_.back().size + block_size_ - 1) / block_size_;
        return true;
    }

    uint64_t count() const { return count_; } // blocks of all files
    uint64_t block_size() const { return block_size_; }

    // Bytes of a block: the last one of a file may be short.
    size_t length(uint64_t number) const
    {
        const File &file = file_of(number);
        return std::min(block_size_, file.size - (number - file.first) * block_size_);
    }

    // Reads or writes a block.
    bool transfer(uint64_t number, unsigned char *bytes, bool write)
    {
        const File &file = file_of(number);
        const uint64_t start = (number - file.first) * block_size_;
        const size_t size = length(number);
        for (size_t done = 0; done < size;) {
            const auto at = static_cast<off_t>(start + done);
            const ssize_t part = write ? pwrite(file.fd, bytes + done, size - done, at)
                                       : pread(file.fd, bytes + done, size - done, at);
            if (part < 0 && errno == EINTR)
                continue;
            if (part <= 0) {
                errors++;
                return complain(file.path + ", at " + std::to_string(start) + ": " +
                                (part < 0 ? strerror(errno) : "the file has become shorter"));
            }
            done += static_cast<size_t>(part);
        }
        (write ? writes : reads)++;
        return true;
    }

    std::atomic<uint64_t> reads{0};
    std::atomic<uint64_t> writes{0};
    std::atomic<uint64_t> errors{0};

  private:
    struct File {
        int fd;
        std::string path;
        uint64_t size;
        uint64_t first; // number of its first block
    };

    const File &file_of(uint64_t number) const
    {
        size_t i = files_.size() - 1;
        while (number < files_[i].first)
            i--;
        return files_[i];
    }

    uint64_t block_size_;
    bool writable_;
    uint64_t count_ = 0;
    std::vector<File> files_;
};

// ---- What the cache calls --------------------------------------------------------------------

// A block that cannot be written stays in the cache, to be tried again.
int evict(void *handle, cache_buf_t *buf, bufaddr_t, int)
{
    auto *buffer = static_cast<Buffer *>(buf);
    if (buffer->dirty &&
        !static_cast<Files *>(handle)->transfer(buffer->holds, buffer->bytes(), true))
        return 0;
    buffer->dirty = false;
    buffer->holds = no_block;
    return 1;
}

// Called at every lookup: a buffer that holds its block already stays as it is.
int populate(void *handle, cache_buf_t *buf, bufaddr_t addr, int)
{
    auto *buffer = static_cast<Buffer *>(buf);
    uint64_t number;
    memcpy(&number, addr, sizeof number);
    if (buffer->holds == number)
        return 0;
    // One that could not be read holds nothing.
    buffer->holds = no_block;
    if (!static_cast<Files *>(handle)->transfer(number, buffer->bytes(), false))
        return -1;
    buffer->holds = number;
    return 0;
}

cache_buf_t *allocate(void *handle, cache_handle_t, bufaddr_t)
{
    void *memory = malloc(sizeof(Buffer) + static_cast<Files *>(handle)->block_size());
    return memory != nullptr ? new (memory) Buffer{no_block, false} : nullptr;
}

cache_fn_vec_t callbacks = {
    [](bufaddr_t addr) -> uint64_t { return XXH64(addr, sizeof(uint64_t), 0); },
    [](bufaddr_t a, bufaddr_t b) { return memcmp(a, b, sizeof(uint64_t)); },
    evict,
    populate,
    allocate,
    [](void *, cache_buf_t *buf) { free(buf); },
    [](void *, cache_buf_t *, cache_lock_t *lock) { pthread_mutex_lock(&lock->mutex); },
    [](void *, cache_buf_t *, cache_lock_t *lock) {
        return pthread_mutex_trylock(&lock->mutex) == 0 ? 1 : 0;
    },
    [](void *, cache_buf_t *, cache_lock_t *lock) { pthread_mutex_unlock(&lock->mutex); }};

// ---- Which blocks ----------------------------------------------------------------------------

// Numbers of blocks by Zipf's law: the block of rank n is looked up 1/n as often as the first one.
class Zipf
{
  public:
    explicit Zipf(uint64_t count)
        : below_(count)
        , block_(count)
    {
        double sum = 0;
        for (uint64_t rank = 0; rank < count; rank++)
            below_[rank] = sum += 1 / static_cast<double>(rank + 1);
        std::iota(block_.begin(), block_.end(), 0);
        for (uint64_t rank = count; rank > 1; rank--) { // the popular ones lie anywhere
            std::swap(block_[rank - 1], block_[genrand_int32() % rank]);
        }
    }
    uint64_t next() const
    {
        const auto rank =
            std::upper_bound(below_.begin(), below_.end() - 1, genrand_real2() * below_.back());
        return block_[static_cast<size_t>(rank - below_.begin())];
    }

  private:
    std::vector<double> below_; // sum of the shares up to a rank
    std::vector<uint64_t> block_;
};

// Appends `count` blocks from `start` on, if there are so many.
bool append(std::vector<uint64_t> &sequence, uint64_t start, uint64_t count, uint64_t blocks)
{
    if (start >= blocks || count > blocks - start || count > max_lookups - sequence.size())
        return false;
    while (count-- > 0)
        sequence.push_back(start++);
    return true;
}

bool read_trace(const std::string &path, uint64_t blocks, std::vector<uint64_t> &sequence)
{
    FILE *file = fopen(path.c_str(), "re");
    if (file == nullptr)
        return complain(path + ": " + strerror(errno));
    char line[128];
    int number = 0;
    bool good = true;
    while (good && fgets(line, sizeof line, file) != nullptr) {
        number++;
        const char *text = line;
        uint64_t start;
        uint64_t count = 1;
        good = read_number(text, start);
        if (good && *text == ' ')
            good = read_number(++text, count);
        good = good && (*text == '\n' || *text == '\0') && append(sequence, start, count, blocks);
    }
    fclose(file);
    return good || complain(path + ": line " + std::to_string(number) +
                            " is no block of the files, or too much");
}

bool read_list(const char *text, uint64_t blocks, std::vector<uint64_t> &sequence)
{
    const char *at = text;
    uint64_t number;
    bool good;
    do {
        good = read_number(at, number) && append(sequence, number, 1, blocks);
    } while (good && *at++ == ',');
    return (good && at[-1] == '\0') ||
           complain(std::string(text) +
                    ": no pattern, or not all of these blocks are in the files");
}

// Makes the numbers of all blocks that are looked up, in order.
bool make_sequence(const Settings &settings, uint64_t blocks, std::vector<uint64_t> &sequence)
{
    const std::string &pattern = settings.pattern;
    const bool mixed = pattern == "mixed";
    if (mixed || pattern == "zipf" || pattern == "scan") {
        const Zipf zipf(blocks);
        const uint64_t count = settings.lookups > 0 ? settings.lookups : default_lookups;
        uint64_t scanned = 0;
        for (uint64_t i = 0; i < count; i++) {
            const bool scan = mixed ? i % 4 == 3 : pattern == "scan";
            sequence.push_back(scan ? scanned++ % blocks : zipf.next());
        }
        return true;
    }
    const bool good = pattern[0] == '@' ? read_trace(pattern.substr(1), blocks, sequence)
                                        : read_list(pattern.c_str(), blocks, sequence);
    if (!good || sequence.empty())
        return good && complain("there is nothing to look up");
    const size_t once = sequence.size();
    for (uint64_t i = once; i < settings.lookups; i++)
        sequence.push_back(sequence[i - once]);
    return true;
}

// ---- Reading ---------------------------------------------------------------------------------

constexpr size_t columns = 64; // of the plot

class Reader
{
  public:
    Reader(const Settings &settings, Files &files, const std::vector<uint64_t> &sequence)
        : settings_(settings)
        , files_(files)
        , sequence_(sequence)
        , checksums_(files.count())
        , targets_(std::min(columns, sequence.size()))
    {
    }

    // Reads the blocks as they are in the files. With `keep` their checksums are remembered,
    // otherwise they are compared.
    bool check_files(bool keep)
    {
        std::vector<unsigned char> bytes(files_.block_size());
        for (uint64_t number = 0; number < files_.count(); number++) {
            if (!files_.transfer(number, bytes.data(), false))
                return false;
            const uint64_t checksum = XXH64(bytes.data(), files_.length(number), number);
            if (keep) {
                checksums_[number] = checksum;
            } else if (checksums_[number] != checksum) {
                wrong_++;
                complain("block " + std::to_string(number) + " is wrong in the file");
            }
        }
        return true;
    }

    // Looks all blocks up, and leaves the files as they are to be.
    bool run()
    {
        cache_ =
            cache_init(static_cast<int>(settings_.cached), &files_, sizeof(uint64_t), &callbacks);
        if (cache_ == nullptr)
            return complain("no memory for the cache");
        std::vector<std::thread> threads;
        for (uint64_t i = 0; i < settings_.threads; i++) {
            threads.emplace_back([this] { work(); });
        }
        for (std::thread &thread : threads)
            thread.join();
        report();
        cache_destroy(cache_);
        cache_ = nullptr;
        return true;
    }

    uint64_t wrong() const { return wrong_; }

  private:
    // The threads share the sequence.
    void work()
    {
        const size_t count = sequence_.size();
        for (size_t i = next_++; i < count; i = next_++) {
            const bool change =
                (i * settings_.write_percent) % 100 >= 100 - settings_.write_percent;
            visit(sequence_[i], change);
            const size_t column = i * targets_.size() / count;
            if (column != (i + 1) * targets_.size() / count) {
                pthread_mutex_lock(&cache_->c_lru_lock.mutex);
                targets_[column] = cache_->c_target;
                pthread_mutex_unlock(&cache_->c_lru_lock.mutex);
            }
        }
    }

    // The block belongs to this thread until it is unlocked, and its checksum with it.
    void visit(uint64_t number, bool change)
    {
        cache_handle_t handle = cache_buffer_find(cache_, &number, nullptr, 0, 0);
        if (handle == nullptr) {
            return; // counted as an error of the files
        }
        auto *buffer = static_cast<Buffer *>(cache_data_ptr(handle));
        const size_t length = files_.length(number);
        if (checksums_[number] != XXH64(buffer->bytes(), length, number))
            wrong_++;
        if (change) {
            buffer->bytes()[0]++;
            buffer->dirty = true;
            checksums_[number] = XXH64(buffer->bytes(), length, number);
            changed_++;
        }
        cache_buffer_unlock(cache_, handle, nullptr);
    }

    void report() const
    {
        const int hits = cache_->c_cache_hit;
        const int lookups = hits + cache_->c_ghost_hit + cache_->c_cache_miss;
        printf("%" PRIu64 " blocks of %" PRIu64 " bytes, %d cached, %" PRIu64
               " threads, pattern %s\n",
               files_.count(), files_.block_size(), cache_->c_entries, settings_.threads,
               settings_.pattern.c_str());
        printf("lookups     %9d\nhits        %9d\nghost hits  %9d\nmisses      %9d\n", lookups,
               hits, cache_->c_ghost_hit, cache_->c_cache_miss);
        printf("hit ratio   %8.2f%%\nchanged     %9" PRIu64 "\n",
               100.0 * hits / std::max(lookups, 1), changed_.load());
        plot();
    }

    // Time goes to the right; the highest row is the whole cache.
    void plot() const
    {
        constexpr int rows = 8;
        printf("\ntarget, from the first lookup to the last:\n");
        for (int row = rows; row > 0; row--) {
            std::string line;
            for (const int32_t target : targets_) {
                line += target > cache_->c_entries / double{rows} * (row - 1) ? '#' : ' ';
            }
            printf("%9d |%s\n", static_cast<int>(int64_t{cache_->c_entries} * row / rows),
                   line.c_str());
        }
        printf("%9d +%s\n\n", 0, std::string(targets_.size(), '-').c_str());
    }

    const Settings &settings_;
    Files &files_;
    const std::vector<uint64_t> &sequence_;
    cache_t *cache_ = nullptr;
    std::vector<uint64_t> checksums_; // by number of a block; guarded by the block's lock
    std::vector<int32_t> targets_;    // each set by one thread
    std::atomic<size_t> next_{0};
    std::atomic<uint64_t> wrong_{0};
    std::atomic<uint64_t> changed_{0};
};

// ---- The program -----------------------------------------------------------------------------

bool read_options(int argc, char **argv, Settings &settings)
{
    struct {
        int letter;
        uint64_t min, max;
        uint64_t *value;
    } const numbers[] = {{'n', 1, 1 << 24, &settings.cached},
                         {'t', 1, 256, &settings.threads},
                         {'l', 1, max_lookups, &settings.lookups},
                         {'b', 1, 1 << 24, &settings.block_size},
                         {'w', 0, 100, &settings.write_percent}};
    for (int letter; (letter = getopt(argc, argv, "n:t:l:b:w:p:")) != -1;) {
        if (letter == '?')
            return false;
        if (letter == 'p')
            settings.pattern = optarg;
        for (const auto &number : numbers) {
            const char *text = optarg;
            if (number.letter == letter &&
                (!read_number(text, *number.value) || *text != '\0' || *number.value < number.min ||
                 *number.value > number.max)) {
                return complain(std::string("-") + static_cast<char>(letter) +
                                " takes a number from " + std::to_string(number.min) + " to " +
                                std::to_string(number.max));
            }
        }
    }
    return optind < argc || complain("which files?");
}

} // namespace

int main(int argc, char **argv)
{
    Settings settings;
    if (!read_options(argc, argv, settings))
        return 2;
    Files files(settings.block_size, settings.write_percent > 0);
    for (int i = optind; i < argc; i++) {
        if (!files.add(argv[i]))
            return 2;
    }
    std::vector<uint64_t> sequence;
    if (files.count() == 0 || files.count() > max_lookups) {
        complain("the files have no blocks, or too many");
        return 2;
    }
    if (!make_sequence(settings, files.count(), sequence))
        return 2;
    Reader reader(settings, files, sequence);
    if (!reader.check_files(true) || !reader.run() || !reader.check_files(false))
        return 1;
    printf("%" PRIu64 " blocks read, %" PRIu64 " written back, %" PRIu64 " wrong, %" PRIu64
           " errors\n",
           files.reads - 2 * files.count(), files.writes.load(), reader.wrong(),
           files.errors.load());
    return reader.wrong() + files.errors > 0 ? 1 : 0;
}
