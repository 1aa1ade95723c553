// faults_calls.cpp - the calls of the C library that can be made to fail.
#include "torture/faults.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

extern "C" int __asan_address_is_poisoned(const void *) __attribute__((weak));

Plan plan;
Record *record;
std::atomic<bool> armed;

namespace
{

// Blocks handed to the library. Freed ones are poisoned until the sanitizer's quarantine is full,
// which no run is long enough for.
constexpr size_t kBlocks = 1 << 17;
const void *blocks[kBlocks];
const void *sorted[kBlocks];
std::atomic<size_t> block_count;

template <typename T>
T track(T result)
{
    if constexpr (std::is_pointer_v<T>) {
        if (result != nullptr && armed) {
            blocks[block_count++ % kBlocks] = result;
        }
    }
    return result;
}

// The error with which this call is to fail, or 0.
int fault(const Call &call)
{
    if (!armed || (call.kinds & plan.kinds) == 0) {
        return 0;
    }
    const long number = ++record->seen;
    if (plan.nth == 0) {
        if (number <= static_cast<long>(kTraceMax)) {
            record->trace[number - 1] = &call;
        }
        return 0;
    }
    if (number == plan.nth) {
        record->failed = &call;
    }
    const bool again =
        plan.forever && number > plan.nth && (plan.kinds == kMemory || record->failed == &call);
    if (number != plan.nth && !again) {
        return 0;
    }
    unsigned errors = 0;
    while (call.errors[errors] != 0) {
        errors++;
    }
    return call.errors[plan.error % errors];
}

size_t cut(size_t size)
{
    if (!armed || plan.divisor == 0 || size == 0) {
        return size;
    }
    return plan.divisor == 1 || size < plan.divisor ? 1 : size / plan.divisor;
}

#define CALL(name, kinds, ...)                                                                     \
    namespace                                                                                      \
    {                                                                                              \
    constexpr int name##_errors[] = {__VA_ARGS__, 0};                                              \
    constexpr Call name##_call = {#name, kinds, name##_errors};                                    \
    }

#define WRAP(type, name, params, args, failed, kinds, ...)                                         \
    CALL(name, kinds, __VA_ARGS__)                                                                 \
    extern "C" type torture_##name params                                                          \
    {                                                                                              \
        if (const int error = fault(name##_call)) {                                                \
            errno = error;                                                                         \
            return failed;                                                                         \
        }                                                                                          \
        return track(name args);                                                                   \
    }

} // namespace

int live_blocks()
{
    if (__asan_address_is_poisoned == nullptr) {
        return 0;
    }
    const void **const end = std::copy(blocks, blocks + block_count, sorted);
    std::sort(sorted, end); // an address may have been handed out twice
    return static_cast<int>(std::count_if(sorted, std::unique(sorted, end), [](const void *block) {
        return __asan_address_is_poisoned(block) == 0;
    }));
}

// ---- memory ----
WRAP(void *, malloc, (size_t n), (n), nullptr, kMemory, ENOMEM)
WRAP(void *, calloc, (size_t n, size_t size), (n, size), nullptr, kMemory, ENOMEM)
WRAP(void *, realloc, (void *p, size_t n), (p, n), nullptr, kMemory, ENOMEM)
WRAP(char *, strdup, (const char *text), (text), nullptr, kMemory, ENOMEM)
WRAP(void *, aligned_alloc, (size_t a, size_t n), (a, n), nullptr, kMemory, ENOMEM)
CALL(posix_memalign, kMemory, ENOMEM)
extern "C" int torture_posix_memalign(void **out, size_t alignment, size_t size)
{
    const int error = fault(posix_memalign_call);
    const int result = error != 0 ? error : posix_memalign(out, alignment, size);
    if (result == 0) {
        track(*out);
    }
    return result;
}
WRAP(void *, mmap, (void *a, size_t n, int p, int f, int fd, off_t at), (a, n, p, f, fd, at),
     MAP_FAILED, kMemory | kSystem, ENOMEM, EACCES, ENODEV)
WRAP(int, munmap, (void *a, size_t n), (a, n), -1, kSystem, EINVAL)
WRAP(int, madvise, (void *a, size_t n, int advice), (a, n, advice), -1, kMemory | kSystem, ENOMEM)

// ---- threads: the error is the result ----
WRAP(int, pthread_create,
     (pthread_t * thread, const pthread_attr_t *attr, void *(*body)(void *), void *arg),
     (thread, attr, body, arg), error, kMemory, EAGAIN)
WRAP(int, pthread_mutex_init, (pthread_mutex_t * m, const pthread_mutexattr_t *a), (m, a), error,
     kMemory, ENOMEM)
WRAP(int, pthread_cond_init, (pthread_cond_t * c, const pthread_condattr_t *a), (c, a), error,
     kMemory, ENOMEM)

// ---- files ----
CALL(open, kSystem, EACCES, EMFILE, EINTR, EIO, ENOSPC, ENOENT)
extern "C" int torture_open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (const int error = fault(open_call)) {
        errno = error;
        return -1;
    }
    return open(path, flags, mode);
}
CALL(close, kSystem, EIO, EINTR, ENOSPC)
extern "C" int torture_close(int fd)
{
    const int error = fault(close_call);
    const int result = close(fd); // the descriptor is gone in any case
    errno = error != 0 ? error : errno;
    return error != 0 ? -1 : result;
}
WRAP(ssize_t, read, (int fd, void *data, size_t n), (fd, data, cut(n)), -1, kSystem, EIO, EINTR,
     EAGAIN, ECONNRESET)
WRAP(ssize_t, write, (int fd, const void *data, size_t n), (fd, data, cut(n)), -1, kSystem, EIO,
     ENOSPC, EINTR, EAGAIN, EDQUOT)
WRAP(off_t, lseek, (int fd, off_t at, int whence), (fd, at, whence), -1, kSystem, EIO, ESPIPE)
WRAP(int, ftruncate, (int fd, off_t size), (fd, size), -1, kSystem, EIO, EINTR)
WRAP(int, fsync, (int fd), (fd), -1, kSystem, EIO, ENOSPC, EINTR)
WRAP(int, fchmod, (int fd, mode_t mode), (fd, mode), -1, kSystem, EPERM, EIO)
WRAP(int, fchown, (int fd, uid_t u, gid_t g), (fd, u, g), -1, kSystem, EPERM, EIO)
WRAP(int, stat, (const char *path, struct stat *s), (path, s), -1, kSystem, EACCES, EIO, ENOENT)
WRAP(int, lstat, (const char *path, struct stat *s), (path, s), -1, kSystem, EACCES, EIO)
WRAP(int, fstat, (int fd, struct stat *s), (fd, s), -1, kSystem, EIO)
WRAP(int, statfs, (const char *path, struct statfs *s), (path, s), -1, kSystem, EIO, EINTR)
WRAP(int, mkdir, (const char *path, mode_t mode), (path, mode), -1, kSystem, EACCES, ENOSPC)
WRAP(int, rmdir, (const char *path), (path), -1, kSystem, EBUSY, ENOTEMPTY)
WRAP(int, unlink, (const char *path), (path), -1, kSystem, EACCES, EBUSY, EIO)
WRAP(int, rename, (const char *from, const char *to), (from, to), -1, kSystem, EACCES, ENOSPC, EIO,
     EXDEV, EBUSY)
WRAP(DIR *, opendir, (const char *path), (path), nullptr, kMemory | kSystem, ENOMEM, EMFILE, EACCES)
WRAP(struct dirent *, readdir, (DIR * listing), (listing), nullptr, kSystem, EIO, EBADF)
WRAP(ssize_t, sendfile, (int out, int in, off_t *at, size_t n), (out, in, at, cut(n)), -1, kSystem,
     EIO, ENOSPC, EINVAL, EINTR)
WRAP(ssize_t, copy_file_range,
     (int in, off_t *in_at, int out, off_t *out_at, size_t n, unsigned flags),
     (in, in_at, out, out_at, cut(n), flags), -1, kSystem, EIO, ENOSPC, EXDEV, EINTR)

// Streams are opened over the calls above, so that their transfers fail too.
namespace
{

struct Stream {
    FILE *file;
    int fd;
};
Stream streams[16];

int fd_of(void *cookie)
{
    return static_cast<Stream *>(cookie)->fd;
}

} // namespace
CALL(fopen, kMemory, ENOMEM)
extern "C" FILE *torture_fopen(const char *path, const char *mode)
{
    if (const int error = fault(fopen_call)) {
        errno = error;
        return nullptr;
    }
    const bool writes = mode[0] == 'w';
    const int fd =
        torture_open(path, (writes ? O_RDWR | O_CREAT | O_TRUNC : O_RDONLY) | O_CLOEXEC, 0666);
    if (fd < 0) {
        return nullptr;
    }
    Stream *slot = streams;
    while (slot->file != nullptr) {
        slot++;
    }
    const cookie_io_functions_t calls = {
        [](void *c, char *data, size_t n) { return torture_read(fd_of(c), data, n); },
        [](void *c, const char *data, size_t n) {
            for (size_t done = 0; done < n;) { // as the platform's own streams do
                const ssize_t part = torture_write(fd_of(c), data + done, n - done);
                if (part < 0) {
                    return static_cast<ssize_t>(done);
                }
                done += static_cast<size_t>(part);
            }
            return static_cast<ssize_t>(n);
        },
        [](void *c, off64_t *at, int whence) {
            *at = torture_lseek(fd_of(c), *at, whence);
            return *at < 0 ? -1 : 0;
        },
        [](void *c) {
            static_cast<Stream *>(c)->file = nullptr;
            return torture_close(fd_of(c));
        }};
    slot->fd = fd;
    slot->file = fopencookie(slot, writes ? "w+" : "r", calls);
    return track(slot->file);
}
extern "C" int torture_fileno(FILE *file)
{
    for (const Stream &stream : streams) {
        if (stream.file == file) {
            return stream.fd;
        }
    }
    return fileno(file);
}

// ---- sockets and hosts; no name server is asked ----
WRAP(int, socket, (int family, int type, int protocol), (family, type, protocol), -1, kSystem,
     EMFILE, ENOBUFS, EAFNOSUPPORT, EACCES)
WRAP(int, connect, (int fd, const sockaddr *a, socklen_t n), (fd, a, n), -1, kSystem, ECONNREFUSED,
     ETIMEDOUT, EINTR, ENETUNREACH)
WRAP(int, bind, (int fd, const sockaddr *a, socklen_t n), (fd, a, n), -1, kSystem, EADDRINUSE,
     EACCES, EADDRNOTAVAIL)
WRAP(int, accept, (int fd, sockaddr *a, socklen_t *n), (fd, a, n), -1, kSystem, ECONNABORTED,
     EMFILE, EINTR, EAGAIN)
WRAP(ssize_t, send, (int fd, const void *data, size_t n, int flags), (fd, data, cut(n), flags), -1,
     kSystem, EPIPE, ECONNRESET, EINTR, EAGAIN, ENOBUFS)
WRAP(ssize_t, sendto,
     (int fd, const void *data, size_t n, int flags, const sockaddr *a, socklen_t size),
     (fd, data, n, flags, a, size), -1, kSystem, ENETUNREACH, EINTR, ENOBUFS)
WRAP(ssize_t, recvfrom, (int fd, void *data, size_t n, int flags, sockaddr *a, socklen_t *size),
     (fd, data, n, flags, a, size), -1, kSystem, ECONNREFUSED, EINTR, EAGAIN)
WRAP(int, poll, (struct pollfd * fds, nfds_t n, int timeout), (fds, n, timeout), -1,
     kMemory | kSystem, ENOMEM, EINTR)
WRAP(int, getsockopt, (int fd, int level, int name, void *value, socklen_t *n),
     (fd, level, name, value, n), -1, kSystem, ENOTCONN, ENOBUFS)
WRAP(int, setsockopt, (int fd, int level, int name, const void *value, socklen_t n),
     (fd, level, name, value, n), -1, kSystem, ENOPROTOOPT, ENOMEM)
WRAP(int, getsockname, (int fd, sockaddr *a, socklen_t *n), (fd, a, n), -1, kSystem, ENOBUFS)
WRAP(int, getpeername, (int fd, sockaddr *a, socklen_t *n), (fd, a, n), -1, kSystem, ENOTCONN)
WRAP(int, gethostname, (char *name, size_t n), (name, n), -1, kSystem, ENAMETOOLONG)
WRAP(int, uname, (utsname * name), (name), -1, kSystem, EFAULT)
CALL(ioctl, kSystem, ENODEV, EADDRNOTAVAIL, EPERM)
extern "C" int torture_ioctl(int fd, unsigned long request, void *arg)
{
    if (const int error = fault(ioctl_call)) {
        errno = error;
        return -1;
    }
    return ioctl(fd, request, arg);
}
CALL(getaddrinfo, kMemory | kSystem, EAI_MEMORY, EAI_AGAIN, EAI_FAIL, EAI_NONAME, EAI_SYSTEM)
extern "C" int torture_getaddrinfo(const char *name, const char *port, const addrinfo *hints,
                                   addrinfo **found)
{
    if (const int error = fault(getaddrinfo_call)) {
        errno = EMFILE;
        return error;
    }
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    const int result = getaddrinfo(name, port, &numeric, found);
    if (result == 0) {
        track(*found);
    }
    return result;
}
CALL(getnameinfo, kMemory | kSystem, EAI_MEMORY, EAI_AGAIN, EAI_FAIL, EAI_NONAME)
extern "C" int torture_getnameinfo(const sockaddr *, socklen_t, char *, socklen_t, char *,
                                   socklen_t, int)
{
    const int error = fault(getnameinfo_call);
    return error != 0 ? error : EAI_NONAME;
}

// ---- processes ----
WRAP(pid_t, fork, (), (), -1, kMemory | kSystem, EAGAIN, ENOMEM)
WRAP(pid_t, waitpid, (pid_t pid, int *status, int options), (pid, status, options), -1, kSystem,
     EINTR, ECHILD)
WRAP(pid_t, setsid, (), (), -1, kSystem, EPERM)
// A watcher whose daemon never starts would restart it for ever.
extern "C" unsigned torture_sleep(unsigned)
{
    static int naps = 0;
    return ++naps < 4 ? 0 : (_exit(1), 0);
}
// The host's log stays clean, and its descriptor is not counted.
extern "C" void torture_syslog(int, const char *, ...) {}
extern "C" void torture_openlog(const char *, int, int) {}
extern "C" void torture_closelog() {}
