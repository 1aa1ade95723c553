// ko_mmap.cpp - mapping of a file region by path.
#include "koutil/ko_mmap.h"

#include "internal/guards.h"
#include "koutil/checked_build.h"
#include "koutil/snprintf.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>

namespace
{

constexpr int kBadLastTime = 22;

} // namespace

void *my_mmap(const char *filename, uint64_t mapstart, uint64_t mapsize, char *err_str)
{
    *err_str = '\0';
    const koutil::Fd file(open(filename, O_RDWR | O_CLOEXEC));
    if (!file) {
        VoSnprintf(err_str, KO_MMAP_ERR_SIZE, "my_mmap: cannot open '%s' - error %d", filename,
                   errno);
        return nullptr;
    }
    void *address = mmap(nullptr, mapsize, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(),
                         static_cast<off_t>(mapstart));
    if (address == MAP_FAILED) {
        VoSnprintf(err_str, KO_MMAP_ERR_SIZE,
                   "my_mmap: cannot map file '%s' - error %d start %ld size %ld!\n", filename,
                   errno, static_cast<long>(mapstart), static_cast<long>(mapsize));
        return nullptr;
    }
    return address;
}

int my_munmap(void *mapaddr, uint64_t mapsize, int last_time, char *err_str)
{
    *err_str = '\0';
    if (last_time < 0) {
        PanicCheckedBuild(KO_MODULE, __LINE__, "my_munmap: unexpected value for last_time: %d",
                          last_time);
        VoSnprintf(err_str, KO_MMAP_ERR_SIZE, "my_munmap: unexpected value for last_time: %d",
                   last_time);
        return kBadLastTime;
    }
    const int result = munmap(mapaddr, mapsize);
    if (result != 0) {
        VoSnprintf(err_str, KO_MMAP_ERR_SIZE, "my_munmap: munmap returned %d", result);
    }
    return result;
}
