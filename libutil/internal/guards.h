// guards.h - owners of the resources that the library handles: locks, descriptors, malloc'd memory.
//
// Every release keeps errno, so that a failing function can let its owners go out of scope and
// return errno afterwards.
#ifndef KOUTIL_INTERNAL_GUARDS_H
#define KOUTIL_INTERNAL_GUARDS_H

#include "koutil/mutex.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace koutil
{

// Holds a mutex for a scope.
class LockGuard
{
  public:
    explicit LockGuard(thread_mutex_t &mutex)
        : mutex_(&mutex.mutex)
    {
        pthread_mutex_lock(mutex_);
    }
    explicit LockGuard(pthread_mutex_t &mutex)
        : mutex_(&mutex)
    {
        pthread_mutex_lock(mutex_);
    }
    ~LockGuard() { pthread_mutex_unlock(mutex_); }
    LockGuard(const LockGuard &) = delete;
    LockGuard &operator=(const LockGuard &) = delete;

  private:
    pthread_mutex_t *mutex_;
};

// Owns a file descriptor; -1 is none.
class Fd
{
  public:
    Fd() = default;
    explicit Fd(int fd)
        : fd_(fd)
    {
    }
    Fd(Fd &&other) noexcept
        : fd_(other.release())
    {
    }
    Fd &operator=(Fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~Fd() { reset(); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1)
    {
        if (fd_ >= 0) {
            const int saved = errno;
            ::close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

struct FreeDeleter {
    void operator()(void *ptr) const
    {
        const int saved = errno;
        std::free(ptr);
        errno = saved;
    }
};

// Owns one malloc'd object or array. Only for types without a destructor.
template <typename T>
using MallocPtr = std::unique_ptr<T, FreeDeleter>;

struct FileCloser {
    void operator()(FILE *file) const
    {
        const int saved = errno;
        std::fclose(file);
        errno = saved;
    }
};

// Owns a stdio stream that is only read, or whose close status does not matter.
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// Zeroed memory for `count` objects of a trivial type, or null.
template <typename T>
MallocPtr<T> callocate(size_t count = 1)
{
    return MallocPtr<T>(static_cast<T *>(std::calloc(count, sizeof(T))));
}

} // namespace koutil

#endif
