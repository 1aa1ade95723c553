// pages.h - large blocks of memory.
#ifndef KOUTIL_INTERNAL_PAGES_H
#define KOUTIL_INTERNAL_PAGES_H

#include <cstddef>
#include <cstdint>
#include <sys/mman.h>

namespace koutil
{

constexpr size_t kHugePage = size_t{2} << 20;

// Asks for huge pages where a block covers some, before it is written: a large block that is read
// all over spends most of the time of a step in finding the page. It is a wish that may be refused.
inline void prefer_huge_pages(void *block, size_t size)
{
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(block) + kHugePage - 1) / kHugePage;
    const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + size) / kHugePage;
    if (end > begin)
        (void)madvise(reinterpret_cast<void *>(begin * kHugePage), (end - begin) * kHugePage,
                      MADV_HUGEPAGE);
}

} // namespace koutil

#endif
