// kovaio.cpp - files and directories.
#include "koutil/kovaio.h"

#include "internal/guards.h"
#include "koutil/snprintf.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

namespace
{

using koutil::Fd;

constexpr VoError_t kNoMoreEntries = 2;
constexpr VoError_t kNoHandle = 4;
constexpr VoError_t kExists = 7;
constexpr VoError_t kInvalid = 11;
constexpr VoError_t kTooLong = 16;
constexpr VoError_t kNoMemory = 20;
constexpr VoError_t kStreamError = 1;

constexpr size_t kTreePathMax = 1024; // longest path of an entry that KovaRmPath removes
constexpr size_t kStatPathMax = 510;  // longest path that KovaDirEnumNext takes the status of
constexpr size_t kTail = 4096;        // what KovaFileCopy keeps back for the close

VoError_t status_of(int result)
{
    return result < 0 ? errno : 0;
}

VoError_t transferred(ssize_t count, KovaSz_t *size)
{
    *size = count < 0 ? 0 : static_cast<KovaSz_t>(count);
    return count < 0 ? errno : 0;
}

int open_flags(KovaFlgs_t flags)
{
    int result = (flags & KOVA_OPEN_RDWR) != 0 ? O_RDWR : O_RDONLY;
    if ((flags & KOVA_OPEN_CREATE) != 0) {
        result |= (flags & KOVA_OPEN_EXCL) != 0 ? O_CREAT | O_EXCL : O_CREAT;
    }
    return result | O_LARGEFILE;
}

KovaFiType_t file_type(mode_t mode)
{
    if (S_ISDIR(mode)) {
        return KOVA_FITYPE_DIR;
    }
    return S_ISREG(mode) ? KOVA_FITYPE_REGULAR : KOVA_FITYPE_OTHER;
}

// KovaMkdir, taking a name that exists for success.
VoError_t make_missing_dir(const char *path)
{
    const VoError_t status = KovaMkdir(path);
    return status == kExists ? 0 : status;
}

// What the levels of a tree removal share, so that a deep tree needs little stack: the path of the
// entry at hand, which each level extends and cuts again, and the name read last.
struct TreeWalk {
    char path[kTreePathMax + 1];
    char name[256];
};

VoError_t remove_tree(TreeWalk &walk, const char *path);

// Removes the entry `walk.name` of the directory `dir`, which is the caller's own path or the first
// `dir_len` bytes of walk.path.
VoError_t remove_entry(TreeWalk &walk, const char *dir, size_t dir_len)
{
    if (strcmp(walk.name, ".") == 0 || strcmp(walk.name, "..") == 0) {
        return 0;
    }
    const size_t name_len = strlen(walk.name);
    if (dir_len + 1 + name_len > kTreePathMax) {
        return kTooLong;
    }
    if (dir != walk.path) {
        memcpy(walk.path, dir, dir_len);
    }
    walk.path[dir_len] = '/';
    memcpy(walk.path + dir_len + 1, walk.name, name_len + 1);
    const VoError_t status = remove_tree(walk, walk.path);
    walk.path[dir_len] = '\0';
    return status;
}

VoError_t remove_tree(TreeWalk &walk, const char *path)
{
    KovaStat_t stat;
    VoError_t status = KovaLStat(path, &stat);
    if (status != 0) {
        return status;
    }
    if (stat.KovaFiType != KOVA_FITYPE_DIR) {
        return KovaDelete(path);
    }
    const size_t len = strlen(path);
    KovaDirEnum_t *listing;
    status = KovaDirEnumStart(path, sizeof walk.name, walk.name, nullptr, &listing);
    if (status != 0) {
        return status;
    }
    while (status == 0) {
        const VoError_t removed = remove_entry(walk, path, len);
        if (removed != 0) {
            KovaDirEnumEnd(&listing);
            return removed;
        }
        status = KovaDirEnumNext(listing, sizeof walk.name, walk.name, nullptr);
    }
    KovaDirEnumEnd(&listing);
    return status == kNoMoreEntries ? KovaDeleteDir(path) : status;
}

// Has the kernel copy `count` bytes. Stops quietly at whatever it cannot do: the caller goes on
// byte by byte from there and meets the reason.
void copy_in_kernel(int in, int out, off_t count)
{
    constexpr off_t kStep = off_t{1} << 30;
    bool same_kind = true; // until copy_file_range declines
    while (count > 0) {
        const size_t step = static_cast<size_t>(count < kStep ? count : kStep);
        const ssize_t moved = same_kind ? copy_file_range(in, nullptr, out, nullptr, step, 0)
                                        : sendfile(out, in, nullptr, step);
        if (moved > 0) {
            count -= moved;
        } else if (same_kind) {
            same_kind = false;
        } else {
            return;
        }
    }
}

// False, with errno set, at a failure; a write that takes nothing is one, so that no device can
// keep a copy for ever.
bool write_all(int fd, const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written > 0) {
            data += written;
            size -= static_cast<size_t>(written);
        } else if (written == 0) {
            errno = EIO;
            return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

// Copies through a buffer that always keeps the last 1 to kTail bytes back: they count as written
// by the close of the destination, whose failures are told apart from those on the way.
class TailCopy
{
  public:
    // Copies up to the tail. Returns 0 at the end of the source.
    VoError_t run(int in, int out)
    {
        for (;;) {
            const ssize_t got = read(in, buffer_ + used_, sizeof buffer_ - used_);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got < 0) {
                (void)write_tail(out); // what was read belongs to the copy; the status is set
                return kStreamError;
            }
            if (got == 0) {
                return 0;
            }
            used_ += static_cast<size_t>(got);
            if (used_ > kTail && !flush_blocks(out)) {
                return kStreamError;
            }
        }
    }

    bool write_tail(int out) { return write_all(out, buffer_, used_); }

  private:
    bool flush_blocks(int out)
    {
        const size_t whole = (used_ - 1) / kTail * kTail;
        if (!write_all(out, buffer_, whole)) {
            return false;
        }
        used_ -= whole;
        memmove(buffer_, buffer_ + whole, used_);
        return true;
    }

    size_t used_ = 0;
    char buffer_[8 * kTail];
};

VoError_t copy_contents(Fd &in, Fd &out)
{
    struct stat source;
    if (fstat(in.get(), &source) == 0 && S_ISREG(source.st_mode) && source.st_size > 0) {
        constexpr off_t tail = kTail;
        copy_in_kernel(in.get(), out.get(), (source.st_size - 1) / tail * tail);
    }
    TailCopy copy;
    const VoError_t stopped = copy.run(in.get(), out.get());
    if (stopped != 0) {
        return stopped;
    }
    if (close(in.release()) != 0) {
        const VoError_t status = errno;
        (void)copy.write_tail(out.get()); // the first failure is the one to report
        return status;
    }
    if (!copy.write_tail(out.get())) {
        return errno;
    }
    return status_of(close(out.release()));
}

} // namespace

void _KovaInitHndl(KovaHndl_t *KovaHndl)
{
    KovaHndl->_KovaHndl = -1;
    KovaHndl->_KovaHndlMmap = -1;
    KovaHndl->_KovaHndlMmapRefCnt = 0;
}

VoError_t KovaOpen(const char *KovaPath, KovaFlgs_t KovaFlgs, KovaHndl_t **KovaHndlOut)
{
    if (KovaHndlOut == nullptr) {
        return kInvalid;
    }
    *KovaHndlOut = nullptr;
    koutil::MallocPtr<KovaHndl_t> handle = koutil::callocate<KovaHndl_t>();
    if (handle == nullptr) {
        return kNoMemory;
    }
    _KovaInitHndl(handle.get());
    handle->_KovaHndl = voopen(KovaPath, open_flags(KovaFlgs), 0664);
    if (handle->_KovaHndl < 0) {
        return errno;
    }
    *KovaHndlOut = handle.release();
    return 0;
}

VoError_t KovaClose(KovaHndl_t **KovaHndlIn)
{
    if (KovaHndlIn == nullptr || *KovaHndlIn == nullptr) {
        return kNoHandle;
    }
    const koutil::MallocPtr<KovaHndl_t> handle(*KovaHndlIn);
    *KovaHndlIn = nullptr;
    const int fd = handle->_KovaHndl;
    _KovaInitHndl(handle.get());
    return fd != -1 ? status_of(close(fd)) : 0;
}

VoError_t KovaRead(KovaHndl_t *KovaHndl, char *Buff, KovaSz_t *BuffSz)
{
    return transferred(read(KovaHndl->_KovaHndl, Buff, *BuffSz), BuffSz);
}

VoError_t KovaWrite(KovaHndl_t *KovaHndl, const char *Buff, KovaSz_t *BuffSz)
{
    return transferred(write(KovaHndl->_KovaHndl, Buff, *BuffSz), BuffSz);
}

VoError_t KovaSeek(KovaHndl_t *KovaHndl, KovaSz_t SeekPnt)
{
    return lseek(KovaHndl->_KovaHndl, static_cast<off_t>(SeekPnt), SEEK_SET) < 0 ? errno : 0;
}

VoError_t KovaFTruncate(KovaHndl_t *KovaHndl, KovaSz_t KovaSz)
{
    return status_of(ftruncate(KovaHndl->_KovaHndl, static_cast<off_t>(KovaSz)));
}

VoError_t KovaMmap(KovaHndl_t *KovaHndl, KovaSz_t KovaSzStart, KovaSz_t KovaSz, void **BuffOut)
{
    void *address = mmap(nullptr, KovaSz, PROT_READ | PROT_WRITE, MAP_SHARED, KovaHndl->_KovaHndl,
                         static_cast<off_t>(KovaSzStart));
    *BuffOut = address == MAP_FAILED ? nullptr : address;
    return address == MAP_FAILED ? errno : 0;
}

VoError_t KovaMunmap(KovaHndl_t *, KovaSz_t BuffSz, void **BuffIn)
{
    void *address = *BuffIn;
    *BuffIn = nullptr;
    return status_of(munmap(address, BuffSz));
}

VoError_t KovaStatInternal(const char *KovaPath, int FollowLinks, KovaStat_t *Stat)
{
    *Stat = KovaStat_t{};
    struct stat st;
    if ((FollowLinks != 0 ? stat(KovaPath, &st) : lstat(KovaPath, &st)) != 0) {
        return errno;
    }
    Stat->KovaSz = static_cast<KovaSz_t>(st.st_size);
    Stat->KovaFiType = file_type(st.st_mode);
    Stat->KovaAtime = st.st_atime;
    Stat->KovaMtime = st.st_mtime;
    Stat->KovaCtime = st.st_ctime;
    return 0;
}

VoError_t KovaStat(const char *KovaPath, KovaStat_t *Stat)
{
    return KovaStatInternal(KovaPath, 1, Stat);
}

VoError_t KovaLStat(const char *KovaPath, KovaStat_t *Stat)
{
    return KovaStatInternal(KovaPath, 0, Stat);
}

VoError_t KovaStatFS(const char *Path, KovaStatFS_t *Stat)
{
    *Stat = KovaStatFS_t{};
    struct statfs fs;
    if (statfs(Path, &fs) != 0) {
        return errno;
    }
    Stat->KovaBSize = static_cast<KovaSz_t>(fs.f_bsize);
    Stat->KovaBlocks = fs.f_blocks;
    Stat->KovaBAvail = fs.f_bavail;
    return 0;
}

VoError_t KovaMkdir(const char *KovaPath)
{
    if (mkdir(KovaPath, 0755) == 0) {
        return 0;
    }
    return errno == EEXIST ? kExists : errno;
}

VoError_t KovaMkPath(const char *KovaPath)
{
    if (KovaPath == nullptr || *KovaPath == '\0') {
        return kInvalid;
    }
    const koutil::MallocPtr<char> path(strdup(KovaPath));
    if (path == nullptr) {
        return kNoMemory;
    }
    char *at = path.get();
    at += *at == '/' ? 1 : 0;
    for (; *at != '\0'; at++) {
        if (*at != '/' && *at != '\\') {
            continue;
        }
        *at = '\0';
        const VoError_t status = make_missing_dir(path.get());
        if (status != 0) {
            return status;
        }
        *at = '/';
    }
    return make_missing_dir(path.get());
}

VoError_t KovaRmPath(const char *KovaPath)
{
    TreeWalk walk;
    return remove_tree(walk, KovaPath);
}

VoError_t KovaDelete(const char *KovaPath)
{
    return status_of(unlink(KovaPath));
}

VoError_t KovaDeleteDir(const char *KovaPath)
{
    return status_of(rmdir(KovaPath));
}

VoError_t KovaRename(const char *KovaPathOld, const char *KovaPathNew)
{
    return status_of(rename(KovaPathOld, KovaPathNew));
}

VoError_t KovaFileCopy(const char *SrcPath, const char *DstPath)
{
    Fd in(voopen(SrcPath, O_RDONLY, 0));
    if (!in) {
        return errno;
    }
    Fd out(voopen(DstPath, O_WRONLY | O_CREAT | O_TRUNC, 0666));
    if (!out) {
        return errno;
    }
    return copy_contents(in, out);
}

VoError_t KovaDirEnumStart(const char *KovaPath, int ObjNameSz, char *ObjName, KovaStat_t *Stat,
                           KovaDirEnum_t **KovaDirEnumOut)
{
    *KovaDirEnumOut = nullptr;
    KovaDirEnum_t *listing = koutil::callocate<KovaDirEnum_t>().release();
    if (listing == nullptr) {
        return kNoMemory;
    }
    VoError_t status = kNoMemory;
    listing->KovaPath = strdup(KovaPath);
    if (listing->KovaPath != nullptr) {
        listing->FindHndl = opendir(KovaPath);
        status = listing->FindHndl != nullptr ? KovaDirEnumNext(listing, ObjNameSz, ObjName, Stat)
                                              : errno;
    }
    if (status != 0) {
        KovaDirEnumEnd(&listing);
        return status;
    }
    *KovaDirEnumOut = listing;
    return 0;
}

VoError_t KovaDirEnumNext(KovaDirEnum_t *KovaDirEnum, int ObjNameSz, char *ObjName,
                          KovaStat_t *Stat)
{
    const dirent *entry = readdir(static_cast<DIR *>(KovaDirEnum->FindHndl));
    if (entry == nullptr) {
        return kNoMoreEntries;
    }
    if (ObjName != nullptr && ObjNameSz > 0) {
        const size_t room = static_cast<size_t>(ObjNameSz) - 1;
        const size_t len = strnlen(entry->d_name, room);
        memcpy(ObjName, entry->d_name, len);
        memset(ObjName + len, 0, room - len + 1);
    }
    if (Stat == nullptr) {
        return 0;
    }
    char path[kStatPathMax + 1] = "";
    VoSnprintf(path, sizeof path, "%s/%s", KovaDirEnum->KovaPath, entry->d_name);
    return KovaStat(path, Stat);
}

void KovaDirEnumEnd(KovaDirEnum_t **KovaDirEnumIn)
{
    if (KovaDirEnumIn == nullptr || *KovaDirEnumIn == nullptr) {
        return;
    }
    const koutil::MallocPtr<KovaDirEnum_t> listing(*KovaDirEnumIn);
    *KovaDirEnumIn = nullptr;
    if (listing->FindHndl != nullptr) {
        closedir(static_cast<DIR *>(listing->FindHndl));
    }
    free(listing->KovaPath);
}

int voopen(const char *pathname, int flags, mode_t mode)
{
    return open(pathname, flags | O_CLOEXEC, mode);
}
