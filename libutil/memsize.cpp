// memsize.cpp - physical memory of the host.
#include "koutil/memsize.h"

#include "internal/guards.h"

#include <atomic>
#include <unistd.h>

namespace
{

constexpr uint64_t unknown = UINT64_MAX;

thread_mutex_t size_lock = THREAD_MUTEX_INITIALIZER;
std::atomic<uint64_t> ram_size{unknown}; // written once, under size_lock

uint64_t compute()
{
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long page_size = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || page_size <= 0) {
        return 0;
    }
    return static_cast<uint64_t>(pages) * static_cast<uint64_t>(page_size);
}

} // namespace

uint64_t get_ram_size_in_bytes(void)
{
    uint64_t size = ram_size.load(std::memory_order_relaxed);
    if (size == unknown) {
        const koutil::LockGuard guard(size_lock);
        size = ram_size.load(std::memory_order_relaxed);
        if (size == unknown) {
            size = compute();
            ram_size.store(size, std::memory_order_relaxed);
        }
    }
    return size;
}
