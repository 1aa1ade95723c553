// koutil.hpp - owners, locks and views for hosts written in C++.
//
// Everything here is a thin name for the C functions: it calls nothing that the host could not call
// itself, allocates nothing, throws nothing, and decides nothing. Statuses, messages, limits and
// thread safety are those of the C headers. It wants C++17, with or without exceptions and RTTI;
// from C++20 on the views of arrays are there too, as std::span.
//
//     ko::Config config;
//     char message[128];
//     if (config.open("/etc/kova/hosts.cfg", KOVA_OPEN_READ, CFGTYPE_WORDS, message) != 0) {
//         fprintf(stderr, "%s\n", message);
//         return 1;                                 // nothing was opened, nothing is released
//     }
//     for (const CfgEnt_t &line : config) {
//         if (ko::view(line.KovaCfgName) == "primary") {
//             ...                                   // a return or a break releases all the same
//         }
//     }                                             // closed, without a save, where `config` ends
//
//     owner                        opened by                      released by
//     Descriptor                   voopen, SockConnect, Accept    close
//     File, Listing, Mapping       open, open, map                KovaClose, KovaDirEnumEnd, munmap
//     Config, FsmList              open                           ...Close, without a save
//     GlobalVars, GlobalValue      open, get                      gvar_close, gvar_release
//     MountArgs, MountArgsWalk     allocate, load, start          VoMntArgsFree, VoMntArgsEnumEnd
//     Cache, CacheBuffer           create, find                   cache_destroy, unlock
//     NameTable, NumberTable,      create                         ko_hash_destroy
//       ValueTable
//     WorkQueue, MessageBlock      create, take                   shutdown_queue, MsgQ_Put
//     PollSet                      init                           DPollFree
//     OutStream, StreamRef         create, hold                   cleanup_rep_stream, drop_stream
//     InStream                     create                         cleanup_rep_in_stream
//     Hash32, Hash64               create                         XXH.._freeState
//     Progress                     begin                          UtilTrackFailure
//     LogFile, Facility            open                           CloseLog, facility_at_exit
//     Allocated, Aligned           C functions                    free, MyFree
//     Lock, StreamLock             at once                        at the end of the scope
//     WakeupRegistration           at once                        at the end of the scope
//
// Owners:         hold one thing or nothing, as std::unique_ptr does: they move and do not copy,
//                 and convert to true while they hold something. get() is for calls of the C
//                 functions, release() gives the thing away, reset() releases it now. out()
//                 releases it and gives the place for a function that opens. A release keeps errno;
//                 a status that matters is had by calling close() where there is one.
// Order:          owners are released in the reverse order of their declaration. Declare a cache
//                 before its buffers, a mutex before its lock, an instance before its values.
// Views:          lend, never own. Each says how long it holds.
// Thread safety:  an owner belongs to one thread at a time; what it owns is as its header says.
// Hooks:          a frame with an owner must not be left by longjmp (from a panic handler, say):
//                 the release would be skipped. No callback may throw into the library.
#ifndef KOUTIL_KOUTIL_HPP
#define KOUTIL_KOUTIL_HPP

#include "koutil/koutil.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>
#include <type_traits>
#include <unistd.h>
#include <utility>
#if __cplusplus >= 202002L && __has_include(<span>)
#include <span>
#endif

namespace ko
{

// ---- Owners ----------------------------------------------------------------------------------

// Owns one object that `Release` takes back.
template <typename T, void (*Release)(T *)>
class Owned
{
  public:
    constexpr Owned() noexcept = default;
    explicit constexpr Owned(T *object) noexcept
        : object_(object)
    {
    }
    Owned(Owned &&other) noexcept
        : object_(other.release())
    {
    }
    Owned &operator=(Owned &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
    ~Owned() { reset(); }

    T *get() const noexcept { return object_; }
    T *operator->() const noexcept { return object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }

    [[nodiscard]] T *release() noexcept { return std::exchange(object_, nullptr); }
    void reset(T *object = nullptr) noexcept
    {
        if (T *const old = std::exchange(object_, object); old != nullptr) {
            const int saved = errno;
            Release(old);
            errno = saved;
        }
    }
    // The place for a function that opens; what was held is released first.
    T **out() noexcept
    {
        reset();
        return &object_;
    }

  private:
    T *object_ = nullptr;
};

namespace detail
{

template <typename T>
void free_memory(T *memory)
{
    std::free(const_cast<std::remove_const_t<T> *>(memory));
}
inline void free_aligned(void *memory)
{
    MyFree(memory, nullptr, 0);
}
inline void close_file(KovaHndl_t *file)
{
    KovaClose(&file);
}
inline void end_listing(KovaDirEnum_t *listing)
{
    KovaDirEnumEnd(&listing);
}
inline void close_config(KovaCfg_t *config)
{
    KovaCfgClose(&config, 0, nullptr, 0);
}
inline void close_fsm_list(FsmListHndl_t *list)
{
    FsmListClose(&list, 0);
}
inline void free_mount_args(mntargs_t *args)
{
    VoMntArgsFree(&args);
}
inline void end_walk(VoMntArgsEnum_t *walk)
{
    VoMntArgsEnumEnd(&walk);
}
inline void clean_up_stream(rep_stream_t *stream)
{
    cleanup_rep_stream(stream, 0);
}
inline void drop_reference(rep_stream_t *stream)
{
    drop_stream(stream);
}
inline void free_state(XXH32_state_t *state)
{
    XXH32_freeState(state);
}
inline void free_state(XXH64_state_t *state)
{
    XXH64_freeState(state);
}
inline void end_progress(util_track_ctx_t *track)
{
    UtilTrackFailure(track, nullptr);
}

} // namespace detail

// Memory that a function leaves to its caller, who frees it with free(3): DebugFlagsHexString,
// GetAllDebugStrings, AllocAndPinMemory, extract_rep_sd_mapping. For types without a destructor.
template <typename T>
using Allocated = Owned<T, detail::free_memory<T>>;

// A block of MyMemalign or of the hook AllocMemory while that is MyMemalign.
using Aligned = Owned<void, detail::free_aligned>;

// A file descriptor or socket; -1 is none.
class Descriptor
{
  public:
    constexpr Descriptor() noexcept = default;
    explicit constexpr Descriptor(int fd) noexcept
        : fd_(fd)
    {
    }
    Descriptor(Descriptor &&other) noexcept
        : fd_(other.release())
    {
    }
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept
    {
        if (const int old = std::exchange(fd_, fd); old >= 0) {
            const int saved = errno;
            ::close(old);
            errno = saved;
        }
    }
    // The place for a function that opens or replaces a descriptor (BindSame); what it held stays.
    int *place() noexcept { return &fd_; }

  private:
    int fd_ = -1;
};

// ---- Locks -----------------------------------------------------------------------------------

// Holds a mutex to the end of the scope.
class Lock
{
  public:
    explicit Lock(thread_mutex_t &mutex) noexcept
        : Lock(mutex.mutex)
    {
    }
    explicit Lock(pthread_mutex_t &mutex) noexcept
        : mutex_(&mutex)
    {
        pthread_mutex_lock(mutex_);
    }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
    ~Lock() { pthread_mutex_unlock(mutex_); }

  private:
    pthread_mutex_t *mutex_;
};

// Holds the writers' lock of an output stream to the end of the scope.
class StreamLock
{
  public:
    explicit StreamLock(rep_stream_t *stream) noexcept
        : stream_(stream)
    {
        lock_stream(stream_);
    }
    StreamLock(const StreamLock &) = delete;
    StreamLock &operator=(const StreamLock &) = delete;
    ~StreamLock() { unlock_stream(stream_); }

  private:
    rep_stream_t *stream_;
};

// Has the watchdog wake a waiter to the end of the scope. The mutex must not be held where the
// scope begins and ends.
class WakeupRegistration
{
  public:
    WakeupRegistration(thread_mutex_t &mutex, thread_cond_t &cond, int seconds) noexcept
        : mutex_(&mutex)
        , cond_(&cond)
    {
        register_spurious_wakeup(mutex_, cond_, seconds);
    }
    WakeupRegistration(const WakeupRegistration &) = delete;
    WakeupRegistration &operator=(const WakeupRegistration &) = delete;
    ~WakeupRegistration() { unregister_spurious_wakeup(mutex_, cond_); }

  private:
    thread_mutex_t *mutex_;
    thread_cond_t *cond_;
};

// ---- Files and configuration -----------------------------------------------------------------

class File : public Owned<KovaHndl_t, detail::close_file>
{
  public:
    VoError_t open(const char *path, KovaFlgs_t flags) { return KovaOpen(path, flags, out()); }
    // The status of the close, which says whether what was written is safe; 4 when nothing is open.
    VoError_t close()
    {
        KovaHndl_t *file = release();
        return KovaClose(&file);
    }
};

class Listing : public Owned<KovaDirEnum_t, detail::end_listing>
{
  public:
    // Opens a listing and fetches the first entry into `name`; `stat` is optional.
    template <size_t Size>
    VoError_t open(const char *path, char (&name)[Size], KovaStat_t *stat = nullptr)
    {
        return KovaDirEnumStart(path, static_cast<int>(Size), name, stat, out());
    }
    template <size_t Size>
    VoError_t next(char (&name)[Size], KovaStat_t *stat = nullptr)
    {
        return KovaDirEnumNext(get(), static_cast<int>(Size), name, stat);
    }
};

// A mapped region of a file; it outlives the file's handle.
class Mapping
{
  public:
    constexpr Mapping() noexcept = default;
    Mapping(Mapping &&other) noexcept
        : address_(std::exchange(other.address_, nullptr))
        , size_(std::exchange(other.size_, 0))
    {
    }
    Mapping &operator=(Mapping &&other) noexcept
    {
        std::swap(address_, other.address_); // also when it moves to itself
        std::swap(size_, other.size_);
        if (this != &other) {
            other.reset();
        }
        return *this;
    }
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;
    ~Mapping() { reset(); }

    VoError_t map(const File &file, KovaSz_t start, KovaSz_t size)
    {
        reset();
        size_ = size;
        return KovaMmap(file.get(), start, size, &address_);
    }
    void reset() noexcept
    {
        if (address_ != nullptr) {
            const int saved = errno;
            KovaMunmap(nullptr, size_, &address_);
            errno = saved;
        }
    }
    void *get() const noexcept { return address_; }
    explicit operator bool() const noexcept { return address_ != nullptr; }
    KovaSz_t size() const noexcept { return address_ != nullptr ? size_ : 0; }
    // Good until the mapping is released.
    std::string_view text() const noexcept { return {static_cast<const char *>(address_), size()}; }

  private:
    void *address_ = nullptr;
    KovaSz_t size_ = 0;
};

// A keyword configuration file. It is a range of its entries, in the order of the file; an entry
// holds until it is removed.
class Config : public Owned<KovaCfg_t, detail::close_config>
{
  public:
    class Iterator
    {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = CfgEnt_t;
        using difference_type = std::ptrdiff_t;
        using pointer = CfgEnt_t *;
        using reference = CfgEnt_t &;

        constexpr Iterator() noexcept = default;
        explicit Iterator(CfgEnt_t *entry) noexcept
            : entry_(entry)
        {
        }
        reference operator*() const noexcept { return *entry_; }
        pointer operator->() const noexcept { return entry_; }
        Iterator &operator++() noexcept
        {
            entry_ = TAILQ_NEXT(entry_, CfgEntLink);
            return *this;
        }
        Iterator operator++(int) noexcept { return std::exchange(*this, std::next(*this)); }
        bool operator==(const Iterator &other) const noexcept { return entry_ == other.entry_; }
        bool operator!=(const Iterator &other) const noexcept { return entry_ != other.entry_; }

      private:
        CfgEnt_t *entry_ = nullptr;
    };

    VoError_t open(const char *path, KovaFlgs_t flags, KovaCfgType_t form)
    {
        return KovaCfgOpen(path, flags, form, out(), nullptr, 0);
    }
    template <size_t Size>
    VoError_t open(const char *path, KovaFlgs_t flags, KovaCfgType_t form, char (&message)[Size])
    {
        return KovaCfgOpen(path, flags, form, out(), message, Size);
    }
    // Releases the object, saved first where `save` says so: the status of the save.
    VoError_t close(bool save = false)
    {
        KovaCfg_t *config = release();
        return KovaCfgClose(&config, save ? 1 : 0, nullptr, 0);
    }
    // Nothing held is an empty range.
    Iterator begin() const noexcept
    {
        return Iterator(get() != nullptr ? TAILQ_FIRST(&get()->CfgEntHead) : nullptr);
    }
    Iterator end() const noexcept { return Iterator(); }
};

class FsmList : public Owned<FsmListHndl_t, detail::close_fsm_list>
{
  public:
    VoError_t open(KovaFlgs_t flags) { return FsmListOpen(out(), flags); }
    // Releases the list, saved first where `save` says so: the status of the save.
    VoError_t close(bool save = false)
    {
        FsmListHndl_t *list = release();
        return FsmListClose(&list, save ? 1 : 0);
    }
};

// A value of a global variable, given back where it ends.
class GlobalValue
{
  public:
    constexpr GlobalValue() noexcept = default;
    GlobalValue(void *instance, const char *name)
        : instance_(instance)
        , value_(gvar_get(instance, name))
    {
    }
    GlobalValue(GlobalValue &&other) noexcept
        : instance_(other.instance_)
        , value_(std::exchange(other.value_, nullptr))
    {
    }
    GlobalValue &operator=(GlobalValue &&other) noexcept
    {
        std::swap(instance_, other.instance_); // the old value goes where `other` ends
        std::swap(value_, other.value_);
        return *this;
    }
    GlobalValue(const GlobalValue &) = delete;
    GlobalValue &operator=(const GlobalValue &) = delete;
    ~GlobalValue()
    {
        if (value_ != nullptr) {
            gvar_release(instance_, value_);
        }
    }
    // The text, or null when there is no such variable. Good as long as this value and the
    // instance.
    const char *get() const noexcept { return value_; }
    explicit operator bool() const noexcept { return value_ != nullptr; }

  private:
    void *instance_ = nullptr;
    char *value_ = nullptr;
};

class GlobalVars : public Owned<void, gvar_close>
{
  public:
    bool open(const char *name, bool use_environment)
    {
        reset(gvar_open(name, use_environment ? 1 : 0));
        return get() != nullptr;
    }
    GlobalValue value(const char *name) const { return {get(), name}; }
};

class MountArgs : public Owned<mntargs_t, detail::free_mount_args>
{
  public:
    using Owned::Owned;
    // A record with every default set, or nothing when memory runs out.
    static MountArgs allocate() { return MountArgs(VoMntArgsAlloc()); }
    MountArgs clone() const { return MountArgs(VoMntArgsClone(get())); }
    template <size_t Size>
    VoError_t load(const char *path, char (&message)[Size], MntArgsMask_t &used)
    {
        return VoMntArgsLoadFile(path, static_cast<int>(Size), message, &used, out());
    }
};

// A walk over the store of mount arguments.
class MountArgsWalk : public Owned<VoMntArgsEnum_t, detail::end_walk>
{
  public:
    VoError_t start(MountArgs &first) { return VoMntArgsEnumStart(out(), first.out()); }
    VoError_t next(MountArgs &args) { return VoMntArgsEnumNext(get(), args.out()); }
};

// ---- Cache, tables, queues, poll sets --------------------------------------------------------

// A locked record of a cache: unlocked where it ends, with the context that locked it. A thread
// holds one at a time.
class CacheBuffer
{
  public:
    constexpr CacheBuffer() noexcept = default;
    CacheBuffer(cache_t *cache, cache_handle_t handle, void *context) noexcept
        : cache_(cache)
        , handle_(handle)
        , context_(context)
    {
    }
    CacheBuffer(CacheBuffer &&other) noexcept
        : cache_(other.cache_)
        , handle_(other.release())
        , context_(other.context_)
    {
    }
    CacheBuffer &operator=(CacheBuffer &&other) noexcept
    {
        if (this != &other) {
            unlock();
            cache_ = other.cache_;
            handle_ = other.release();
            context_ = other.context_;
        }
        return *this;
    }
    CacheBuffer(const CacheBuffer &) = delete;
    CacheBuffer &operator=(const CacheBuffer &) = delete;
    ~CacheBuffer() { unlock(); }

    explicit operator bool() const noexcept { return handle_ != nullptr; }
    // The buffer, as what the host keeps in it; good until the unlock or the discard.
    template <typename T = void>
    T *data() const
    {
        return static_cast<T *>(cache_data_ptr(handle_));
    }
    cache_handle_t get() const noexcept { return handle_; }
    [[nodiscard]] cache_handle_t release() noexcept { return std::exchange(handle_, nullptr); }
    void unlock() noexcept
    {
        if (cache_handle_t handle = release(); handle != nullptr) {
            cache_buffer_unlock(cache_, handle, context_);
        }
    }
    // Gives the buffer up in place of the unlock, written back first where `flush` says so.
    void discard(bool flush)
    {
        if (cache_handle_t handle = release(); handle != nullptr) {
            discard_cache_entry(cache_, handle, flush ? 1 : 0);
        }
    }

  private:
    cache_t *cache_ = nullptr;
    cache_handle_t handle_ = nullptr;
    void *context_ = nullptr;
};

class Cache : public Owned<cache_t, cache_destroy>
{
  public:
    using Owned::Owned;
    // `functions` must outlive the cache.
    static Cache create(int entries, void *handle, int address_size, cache_fn_vec_t &functions)
    {
        return Cache(cache_init(entries, handle, address_size, &functions));
    }
    // Finds and locks; the result converts to false when there is no buffer.
    CacheBuffer find(bufaddr_t address, void *context = nullptr, int populate_flags = 0) const
    {
        return {get(), cache_buffer_find(get(), address, context, 0, populate_flags), context};
    }
    // The same, but not when somebody else has the record locked.
    CacheBuffer try_find(bufaddr_t address, void *context = nullptr, int populate_flags = 0) const
    {
        return {get(), cache_buffer_find(get(), address, context, 1, populate_flags), context};
    }
};

// A table keyed by names; the values stay the caller's. Values that insert returned, and those
// found, hold until their entry is erased.
template <typename T>
class NameTable : public Owned<void, ko_hash_destroy>
{
  public:
    using Owned::Owned;
    static NameTable create(uint32_t chains) { return NameTable(ko_hash_create(chains)); }
    // False when memory ran out.
    bool insert(const char *name, T *value)
    {
        return ko_hash_insert(get(), name, value) != nullptr;
    }
    T *find(const char *name) const { return static_cast<T *>(ko_hash_search(get(), name)); }
    bool erase(const char *name) { return ko_hash_delete(get(), name) == 0; }
    uint32_t size() const { return ko_hash_count(get()); }
};

// A table keyed by numbers that owns its values.
template <typename T>
class NumberTable : public Owned<void, ko_hash_destroy>
{
  public:
    using Owned::Owned;
    static NumberTable create(uint32_t chains)
    {
        return NumberTable(ko_hash_create_uint64(chains));
    }
    // False when memory ran out; `value` is still the caller's then.
    bool insert(uint64_t key, Allocated<T> &value)
    {
        const bool inserted = ko_hash_insert_uint64(get(), key, value.get()) != nullptr;
        if (inserted) {
            (void)value.release();
        }
        return inserted;
    }
    T *find(uint64_t key) const { return static_cast<T *>(ko_hash_search_uint64(get(), key)); }
    bool erase(uint64_t key) { return ko_hash_delete_uint64(get(), key) == 0; }
    uint32_t size() const { return ko_hash_count(get()); }
};

// A table keyed by numbers whose entries hold a T each, zero at first.
template <typename T>
class ValueTable : public Owned<void, ko_hash_destroy>
{
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);
    static_assert(alignof(T) <= alignof(std::max_align_t));

  public:
    using Owned::Owned;
    static ValueTable create(uint32_t chains)
    {
        return ValueTable(ko_hash_create_uint64_val(chains, sizeof(T)));
    }
    // The new entry's value, or null when memory ran out.
    T *insert(uint64_t key) { return static_cast<T *>(ko_hash_insert_uint64_val(get(), key)); }
    T *find(uint64_t key) const { return static_cast<T *>(ko_hash_search_uint64_val(get(), key)); }
    bool erase(uint64_t key) { return ko_hash_delete_uint64_val(get(), key) == 0; }
    uint32_t size() const { return ko_hash_count(get()); }
    // Calls visit(key, value) for every entry; it may erase the entry that it is given.
    template <typename Visit>
    void for_each(Visit &&visit)
    {
        using Function = std::remove_reference_t<Visit>;
        ko_hash_iterate_uint64_val(get(), const_cast<void *>(static_cast<const void *>(&visit)),
                                   [](void *handle, uint64_t key, void *value) {
                                       (*static_cast<Function *>(handle))(key,
                                                                          *static_cast<T *>(value));
                                   });
    }
};

// A work queue. The library has no destroy: the release shuts the queue down, which runs what was
// accepted and waits for the workers, and the memory stays: a host that looks for leaks keeps a
// pointer to it. A queue whose blocks or workers outlive the owner's scope is kept by release().
class WorkQueue : public Owned<msgqueue_t, shutdown_queue>
{
  public:
    using Owned::Owned;
    static WorkQueue create(int workers, int most_items, bool refuse_when_full = false,
                            queue_hook_t clean_up = nullptr, int idle_seconds = 0,
                            queue_hook_t idle = nullptr)
    {
        return WorkQueue(queue_create_with_idle(workers, most_items, refuse_when_full ? 1 : 0,
                                                clean_up, idle_seconds, idle));
    }
};

// A block out of the message queue. Release it to the work queue that accepts it.
class MessageBlock : public Owned<commblk_t, MsgQ_Put>
{
  public:
    using Owned::Owned;
    // Waits while there is none.
    static MessageBlock take() { return MessageBlock(MsgQ_Get()); }
    // Queues the block by its priority; it is the queue's when the result is 0.
    int queue(msgqueue_t *queue, queue_routine_t routine)
    {
        const int refused = queue_add_work_pri(queue, routine, get());
        if (refused == 0) {
            (void)release();
        }
        return refused;
    }
};

// A poll set on the heap. It never closes a descriptor.
class PollSet
{
  public:
    constexpr PollSet() noexcept = default;
    PollSet(PollSet &&other) noexcept
        : set_(std::exchange(other.set_, empty()))
    {
    }
    PollSet &operator=(PollSet &&other) noexcept
    {
        std::swap(set_, other.set_); // the old set goes where `other` ends
        return *this;
    }
    PollSet(const PollSet &) = delete;
    PollSet &operator=(const PollSet &) = delete;
    ~PollSet() { DPollFree(&set_); }

    // False when memory runs out.
    bool init()
    {
        DPollFree(&set_);
        return DPollInit(&set_) == 0;
    }
    dpoll_t *get() noexcept { return &set_; }
    bool watch(int fd, short events) { return DPollSet(fd, events, &set_) == 0; }
    void forget(int fd) { DPollClr(fd, &set_); }
    short take_events(int fd) { return DPollXRevents(fd, &set_); }
    int wait(int milliseconds) { return DPoll(&set_, milliseconds); }
    // The entries; good until the set changes.
    const pollfd *begin() const noexcept { return set_.fds; }
    const pollfd *end() const noexcept { return set_.nfds != 0 ? set_.fds + set_.nfds : set_.fds; }

  private:
    static constexpr dpoll_t empty() noexcept { return {POLL_DYNAMIC, 0, 0, nullptr}; }

    dpoll_t set_ = empty();
};

// ---- Streams, hashes, reports ----------------------------------------------------------------

class OutStream : public Owned<rep_stream_t, detail::clean_up_stream>
{
  public:
    using Owned::Owned;
    static OutStream create() { return OutStream(create_rep_out_stream()); }
    // Closes the stream with the caller's `flags` and gives the reference back: 1 when others have
    // one still, 0 when the stream is gone or none is held.
    int close(int flags)
    {
        rep_stream_t *stream = release();
        return stream != nullptr ? cleanup_rep_stream(stream, flags) : 0;
    }
};

// A further reference to an output stream, which stays open when this one ends.
class StreamRef : public Owned<rep_stream_t, detail::drop_reference>
{
  public:
    using Owned::Owned;
    static StreamRef hold(rep_stream_t *stream)
    {
        hold_stream(stream);
        return StreamRef(stream);
    }
};

class InStream : public Owned<rep_in_stream_t, cleanup_rep_in_stream>
{
  public:
    using Owned::Owned;
    // The stream owns the descriptor from then on; when memory ran out it is still the caller's.
    static InStream create(Descriptor &source)
    {
        InStream stream(create_rep_in_stream(source.get()));
        if (stream) {
            (void)source.release();
        }
        return stream;
    }
};

using Hash32 = Owned<XXH32_state_t, detail::free_state>;
using Hash64 = Owned<XXH64_state_t, detail::free_state>;

// The progress file of a utility. Left without a word it ends as a failure without a status; a file
// that could not be made takes every report and writes none.
class Progress : public Owned<util_track_ctx_t, detail::end_progress>
{
  public:
    using Owned::Owned;
    static Progress begin(const char *path) { return Progress(UtilTrackInit(path)); }
    void success() { UtilTrackSuccess(release()); }
    void failure(const char *status) { UtilTrackFailure(release(), status); }
};

namespace detail
{

// Something of the whole process, held once or not.
template <void (*Release)(int)>
class Held
{
  public:
    constexpr Held() noexcept = default;
    Held(Held &&other) noexcept
        : what_(std::exchange(other.what_, -1))
    {
    }
    Held &operator=(Held &&other) noexcept
    {
        std::swap(what_, other.what_); // the old one goes where `other` ends
        return *this;
    }
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;
    ~Held()
    {
        if (what_ >= 0) {
            Release(what_);
        }
    }
    explicit operator bool() const noexcept { return what_ >= 0; }

  protected:
    int what_ = -1;
};

inline void close_log(int)
{
    CloseLog();
}

} // namespace detail

// The log file of the process. It ends after everything that logs: declare it first.
class LogFile : public detail::Held<detail::close_log>
{
  public:
    // False when the file cannot be opened now. It is set up all the same, unless memory ran out,
    // and tried again at rotations.
    bool open(const char *path, int most_bytes, int older_files)
    {
        *this = LogFile();
        char *before = nullptr;
        char *now = nullptr;
        GetLogFileInfo(nullptr, nullptr, &before, nullptr, nullptr);
        const bool opened = SetupLogFile(path, most_bytes, older_files) != 0;
        GetLogFileInfo(nullptr, nullptr, &now, nullptr, nullptr);
        what_ = now != before ? 0 : -1; // whether there is something to close
        return opened;
    }
};

// The debug flags of a facility. `legend` must outlive it.
class Facility : public detail::Held<facility_at_exit>
{
  public:
    int open(int facility, const char *name, vornlog_legend_t *legend)
    {
        *this = Facility();
        const int status = init_facility(facility, name, legend);
        what_ = status == 0 ? facility : -1;
        return status;
    }
    bool debugging(unsigned flag) const
    {
        return what_ >= 0 && flag / 8 < facilities[what_].debug_flag_size &&
               (facilities[what_].debug_flags[flag / 8] >> flag % 8 & 1) != 0;
    }
};

// ---- Views -----------------------------------------------------------------------------------

// A text that may be missing, as an empty one then; good as long as the text.
inline std::string_view view(const char *text) noexcept
{
    return text != nullptr ? std::string_view(text) : std::string_view();
}

// The text in a field, up to its end where it is not terminated; good as long as the record.
template <typename Char, size_t Size>
std::string_view field(const Char (&text)[Size]) noexcept
{
    static_assert(sizeof(Char) == 1);
    const char *const start = static_cast<const char *>(static_cast<const void *>(text));
    return {start, strnlen(start, Size)};
}

#ifdef __cpp_lib_span

// The values of an entry of a configuration file; good until the entry changes or goes.
inline std::span<char *const> values(const CfgEnt_t &entry) noexcept
{
    size_t count = 0;
    while (count < KOVACFG_MAX_VALS && entry.KovaCfgVals[count] != nullptr) {
        count++;
    }
    return {entry.KovaCfgVals, count};
}

// The tunables of a mount; good for ever.
inline std::span<MntArgsInf_t> tunables() noexcept
{
    return {g_MntArgsInf, std::size(g_MntArgsInf) - 1};
}

// The global TOVAN record and those of the interfaces; good as long as `args`, a record of the
// library.
inline std::span<ProxyNicArgs_t> tovan_records(mntargs_t &args) noexcept
{
    const size_t interfaces = std::min<size_t>(args.ma_numnicargs, MNTARGS_MAX_NICS);
    return {static_cast<ProxyNicArgs_t *>(static_cast<void *>(&args + 1)), 1 + interfaces};
}

// The host's addresses without the unused slots; like the next five, good as long as the record.
inline std::span<const in46addr_t> addresses(const in46addr_t (&list)[HOST_ADDRS_MAX]) noexcept
{
    size_t count = 0;
    while (count < HOST_ADDRS_MAX && !IN6_IS_ADDR_UNSPECIFIED(&list[count])) {
        count++;
    }
    return {list, count};
}
inline std::span<const in46addr_t> addresses(const NicInfo_t &card) noexcept
{
    return {card.ni_ipaddr, std::min<size_t>(card.ni_ipaddr_count, HOST_NIC_ADDRS_MAX)};
}
inline std::span<const NicInfo_t> cards(const SysNics_t &list) noexcept
{
    return {list.si_nic, std::min<size_t>(list.si_count, HOST_NICS_MAX)};
}
inline std::span<const char[16]> macs(const mac_addrs_t &list) noexcept
{
    return {list.mac_addr_str, std::min<size_t>(list.mac_addr_count, HOST_MACS_MAX)};
}
inline std::span<const il_info> interfaces(const ifname_list_t &list) noexcept
{
    const int count = std::clamp(list.count, 0, IFNAME_LIST_MAX);
    return {list.info, static_cast<size_t>(count)};
}

// What waits for a flush; good until the stream is written to or flushed.
inline std::span<const uint8_t> unsent(const rep_stream_t &stream) noexcept
{
    return {stream.rep_buffer.rep_data, stream.rep_buffer.rep_used};
}

#endif

} // namespace ko

#endif
