// failing_malloc.h - lets the nth allocation of this thread fail, and counts them.
//
// It defines malloc and calloc for the whole program, so one source file of a test program includes
// it.
#ifndef KOUTIL_TESTS_FAILING_MALLOC_H
#define KOUTIL_TESTS_FAILING_MALLOC_H

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KO_REAL_ALLOCATOR(name) __interceptor_##name
#else
#define KO_REAL_ALLOCATOR(name) __libc_##name
#endif

extern "C" void *KO_REAL_ALLOCATOR(malloc)(size_t size);
extern "C" void *KO_REAL_ALLOCATOR(calloc)(size_t count, size_t size);

namespace support
{

inline thread_local int allocations_left = -1; // -1: no limit
inline thread_local int allocations_seen = 0;

// Runs before the sanitizers are ready for instrumented code.
__attribute__((no_sanitize("address", "thread", "undefined"))) inline bool allocation_fails()
{
    allocations_seen++;
    if (allocations_left < 0)
        return false;
    if (allocations_left > 0) {
        allocations_left--;
        return false;
    }
    errno = ENOMEM;
    return true;
}

// While it lives, this thread's allocations fail after the first `good` ones.
class FailingMalloc
{
  public:
    explicit FailingMalloc(int good) { allocations_left = good; }
    ~FailingMalloc() { allocations_left = -1; }
    FailingMalloc(const FailingMalloc &) = delete;
    FailingMalloc &operator=(const FailingMalloc &) = delete;
};

} // namespace support

extern "C" __attribute__((no_sanitize("address", "thread", "undefined"))) void *
malloc(size_t size) noexcept
{
    return support::allocation_fails() ? nullptr : KO_REAL_ALLOCATOR(malloc)(size);
}

extern "C" __attribute__((no_sanitize("address", "thread", "undefined"))) void *
calloc(size_t count, size_t size) noexcept
{
    return support::allocation_fails() ? nullptr : KO_REAL_ALLOCATOR(calloc)(count, size);
}

#endif
