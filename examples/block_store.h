// block_store.h - a file of checked blocks behind the library's buffer cache.
//
// A block begins with its number and the hash of what follows, so that everybody can check it: the
// daemon when it reads one (fsmd), a client when it gets one (fsmctl).
#ifndef KOUTIL_EXAMPLES_BLOCK_STORE_H
#define KOUTIL_EXAMPLES_BLOCK_STORE_H

#include <koutil/koutil.hpp>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

constexpr size_t block_size = 4096;

struct Block {
    uint64_t number;
    uint64_t hash;
    char text[block_size - 16];

    uint64_t hash_now() const { return XXH64(text, sizeof text, number); }
    bool is(uint64_t wanted) const { return number == wanted && hash == hash_now(); }
};
static_assert(sizeof(Block) == block_size);
constexpr uint64_t no_block = UINT64_MAX; // the number in a buffer that holds none

// The file system: a file of blocks behind a cache.
class BlockStore
{
  public:
    struct Counters {
        int hits;
        int ghost_hits;
        int misses;
    };

    // `on_read` is told of every block that is read from disk, by the thread that wants it.
    explicit BlockStore(void (*on_read)(uint64_t number))
        : on_read_(on_read)
    {
    }

    // Opens the file and makes it first where there is none. Returns a status.
    VoError_t open(const std::string &path, int blocks, int cached)
    {
        KovaStat_t stat;
        VoError_t status = KovaStat(path.c_str(), &stat);
        if (status == ENOENT) {
            status = format(path, static_cast<uint64_t>(blocks));
            stat.KovaSz = static_cast<size_t>(blocks) * block_size;
        }
        if (status == 0) {
            status = file_.open(path.c_str(), KOVA_OPEN_READ);
        }
        if (status == 0) {
            count_ = stat.KovaSz / block_size;
            cache_ = ko::Cache::create(cached, this, sizeof(uint64_t), callbacks);
            status = cache_ ? 0 : ENOMEM;
        }
        return status;
    }
    uint64_t count() const { return count_; }

    // Appends block `number` to `out`; false when it cannot be read.
    bool read(uint64_t number, std::string &out)
    {
        const ko::CacheBuffer buffer = cache_.find(&number);
        if (buffer) {
            out.append(buffer.data<char>(), block_size);
        }
        return static_cast<bool>(buffer);
    }

    Counters counters() const
    {
        const ko::Lock lock(cache_->c_lru_lock);
        return {cache_->c_cache_hit, cache_->c_ghost_hit, cache_->c_cache_miss};
    }

  private:
    static VoError_t write_all(const ko::File &file, const char *bytes, size_t size)
    {
        while (size > 0) {
            KovaSz_t part = size;
            const VoError_t status = KovaWrite(file.get(), bytes, &part);
            if (status != 0 || part == 0) {
                return status != 0 ? status : EIO;
            }
            bytes += part;
            size -= part;
        }
        return 0;
    }

    // A new file gets its name when it is complete.
    static VoError_t format(const std::string &path, uint64_t blocks)
    {
        const std::string unfinished = path + "~";
        ko::File file;
        VoError_t status = file.open(unfinished.c_str(), KOVA_OPEN_RDWR | KOVA_OPEN_CREATE);
        if (status == 0) {
            status = KovaFTruncate(file.get(), 0);
        }
        const auto block = std::make_unique<Block>();
        for (uint64_t number = 0; status == 0 && number < blocks; number++) {
            block->number = number;
            VoSnprintf(block->text, sizeof block->text, "This is block %llu of %s.\n",
                       static_cast<unsigned long long>(number), path.c_str());
            block->hash = block->hash_now();
            status = write_all(file, reinterpret_cast<const char *>(block.get()), sizeof *block);
        }
        if (status == 0 && fsync(file->_KovaHndl) != 0) {
            status = errno;
        }
        const VoError_t closed = file.close();
        status = status != 0 ? status : closed;
        return status != 0 ? status : KovaRename(unfinished.c_str(), path.c_str());
    }

    // Reads a block from disk and checks it.
    bool load(Block &block, uint64_t number)
    {
        char *bytes = reinterpret_cast<char *>(&block);
        size_t have = 0;
        const ko::Lock lock(file_mutex_); // the file has one position
        VoError_t status = KovaSeek(file_.get(), number * block_size);
        for (KovaSz_t part = 1; status == 0 && have < block_size && part > 0; have += part) {
            part = block_size - have;
            status = KovaRead(file_.get(), bytes + have, &part);
        }
        return have == block_size && block.is(number);
    }

    // Called at every look-up: a buffer that holds its block already stays as it is. A buffer may
    // have held another block before.
    int populate(Block *block, uint64_t number)
    {
        if (block == nullptr || block->number == number) {
            return block == nullptr ? -1 : 0;
        }
        if (!load(*block, number)) {
            block->number = no_block;
            Error_Output("block %llu cannot be read\n", static_cast<unsigned long long>(number));
            return -1;
        }
        on_read_(number);
        return 0;
    }

    static cache_buf_t *allocate()
    {
        auto *block = static_cast<Block *>(
            AllocMemory(block_size, block_size, const_cast<char *>(__FILE__), __LINE__));
        if (block != nullptr) {
            block->number = no_block;
        }
        return block;
    }

    static uint64_t number_at(bufaddr_t addr)
    {
        uint64_t number;
        memcpy(&number, addr, sizeof number);
        return number;
    }

    static cache_fn_vec_t callbacks;

    void (*on_read_)(uint64_t number);
    ko::File file_;
    thread_mutex_t file_mutex_ = THREAD_MUTEX_INITIALIZER;
    ko::Cache cache_;
    uint64_t count_ = 0;
};

// The blocks are only read, so a buffer may always be given up.
inline cache_fn_vec_t BlockStore::callbacks = {
    [](bufaddr_t addr) -> uint64_t { return XXH64(addr, sizeof(uint64_t), 0); },
    [](bufaddr_t a, bufaddr_t b) { return memcmp(a, b, sizeof(uint64_t)); },
    [](void *, cache_buf_t *, bufaddr_t, int) { return 1; },
    [](void *store, cache_buf_t *buffer, bufaddr_t addr, int) {
        return static_cast<BlockStore *>(store)->populate(static_cast<Block *>(buffer),
                                                          number_at(addr));
    },
    [](void *, cache_handle_t, bufaddr_t) { return allocate(); },
    [](void *, cache_buf_t *buffer) {
        if (buffer != nullptr) {
            FreeMemory(buffer, const_cast<char *>(__FILE__), __LINE__);
        }
    },
    [](void *, cache_buf_t *, cache_lock_t *lock) { pthread_mutex_lock(&lock->mutex); },
    [](void *, cache_buf_t *, cache_lock_t *lock) {
        return pthread_mutex_trylock(&lock->mutex) == 0 ? 1 : 0;
    },
    [](void *, cache_buf_t *, cache_lock_t *lock) { pthread_mutex_unlock(&lock->mutex); }};

#endif
