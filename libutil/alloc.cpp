// alloc.cpp - aligned memory with a record of failures.
//
// A block of MyMemalign, made from one malloc block:
//
//     |<- slack ->| start of the malloc block, 8 bytes | the caller's bytes ...
//                                                      ^ a multiple of the alignment
//
// The record of failures is guarded by its lock, which is taken only after a failure. The path that
// succeeds while nothing is unreported costs one malloc, one store and one relaxed load.
#include "koutil/alloc.h"

#include "internal/assert.h"
#include "koutil/mutex.h"
#include "koutil/voras.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace
{

constexpr uint32_t quiet_seconds = 300;

struct FailureRecord {
    uint32_t failures; // since start; a counter that may wrap
    uint32_t reported; // value of `failures` at the last report
    uint32_t size;     // of the latest failure, with its place
    char *file;
    int line;
    uint32_t stamp; // wall-clock seconds of the last report
};

thread_mutex_t record_lock = THREAD_MUTEX_INITIALIZER;
FailureRecord record;                // guarded by record_lock
std::atomic<bool> unreported{false}; // record.failures != record.reported, read without the lock

void record_failure(size_t size, char *file, int line)
{
    pthread_mutex_lock(&record_lock.mutex);
    record.size = static_cast<uint32_t>(size);
    record.file = file;
    record.line = line;
    record.failures++;
    unreported.store(record.failures != record.reported, std::memory_order_relaxed);
    pthread_mutex_unlock(&record_lock.mutex);
}

// True when a report is due; `latest` is then what it has to say. The report counts as made from
// here on, because the sink may itself allocate and fail.
bool claim_report(FailureRecord &latest)
{
    const auto now = static_cast<uint32_t>(time(nullptr));
    pthread_mutex_lock(&record_lock.mutex);
    const bool due = record.failures != record.reported && record.stamp + quiet_seconds < now;
    if (due) {
        record.stamp = now;
        record.reported = record.failures;
        unreported.store(false, std::memory_order_relaxed);
        latest = record;
    }
    pthread_mutex_unlock(&record_lock.mutex);
    return due;
}

void report_failures()
{
    FailureRecord latest;
    if (claim_report(latest)) {
        RasEvent("SL_EVT_SYS_RES_FAIL",
                 "Memory allocation of %d bytes failed: file '%s' line %d total memory failure "
                 "count %d",
                 static_cast<int>(latest.size), latest.file != nullptr ? latest.file : "(null)",
                 latest.line, static_cast<int>(latest.failures));
    }
}

// The malloc block behind an aligned block, or null also when the sum of the sizes wraps.
char *allocate_raw(size_t alignsize, size_t allocsize)
{
    size_t total;
    if (__builtin_add_overflow(alignsize, sizeof(sys_ptr_t), &total) ||
        __builtin_add_overflow(total, allocsize, &total)) {
        errno = ENOMEM;
        return nullptr;
    }
    return static_cast<char *>(malloc(total));
}

} // namespace

malloc_fn_t AllocMemory = nullptr;
free_fn_t FreeMemory = nullptr;

void *MyMemalign(size_t alignsize, size_t allocsize, char *file, int lineno)
{
    KO_ASSERT(alignsize >= MY_MINALIGN);
    char *block = nullptr;
    char *const sptr = allocate_raw(alignsize, allocsize);
    if (sptr != nullptr) {
        const auto above = reinterpret_cast<uintptr_t>(sptr) + alignsize + 7;
        const auto slack = (above & (0 - alignsize)) - reinterpret_cast<uintptr_t>(sptr);
        block = sptr + slack;
        char *const ptr = block - sizeof(sys_ptr_t);
        KO_ASSERT(ptr >= sptr);
        const auto start = reinterpret_cast<sys_ptr_t>(sptr);
        memcpy(ptr, &start, sizeof start);
    } else if (allocsize != 0) {
        record_failure(allocsize, file, lineno);
    }
    if (__builtin_expect(unreported.load(std::memory_order_relaxed), 0)) {
        report_failures();
    }
    return block;
}

void MyFree(void *ptr, char *, int)
{
    sys_ptr_t start;
    memcpy(&start, static_cast<char *>(ptr) - sizeof start, sizeof start);
    free(reinterpret_cast<void *>(start));
}

void *AllocAndPinMemory(size_t len)
{
    void *memory = nullptr;
    if (posix_memalign(&memory, static_cast<size_t>(sysconf(_SC_PAGESIZE)), len) != 0) {
        return nullptr;
    }
    return memory != nullptr ? memset(memory, 0, len) : nullptr;
}
