// out_of_memory.h - lets the zeroed allocations of the code under test fail. For one source file of
// a test program. The sanitizers bring an allocator of their own; tests skip there.
#ifndef KOUTIL_TESTS_OUT_OF_MEMORY_H
#define KOUTIL_TESTS_OUT_OF_MEMORY_H

#include <cstddef>

namespace support
{

inline bool out_of_memory = false;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool memory_can_fail = false;
#else
constexpr bool memory_can_fail = true;
#endif

} // namespace support

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *calloc(size_t count, size_t size) noexcept
{
    return support::out_of_memory ? nullptr : __libc_calloc(count, size);
}
#endif

#endif
