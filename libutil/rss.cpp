// rss.cpp - memory use of the calling process, from /proc/self/statm.
#include "koutil/rss.h"

#include "internal/guards.h"

#include <charconv>
#include <fcntl.h>

namespace
{

constexpr uint64_t mebibyte = 1024 * 1024;

// Pages of the whole address space and resident pages: the file's first two numbers, in its order.
struct Pages {
    uint64_t total = 0;
    uint64_t resident = 0;
};

// Both numbers, or zeros when there are not two.
Pages parse(const char *text, const char *end)
{
    Pages pages;
    const auto first = std::from_chars(text, end, pages.total);
    const char *second = first.ptr;
    while (second != end && *second == ' ') {
        second++;
    }
    if (first.ec != std::errc() || second == first.ptr ||
        std::from_chars(second, end, pages.resident).ec != std::errc()) {
        return {};
    }
    return pages;
}

Pages read_pages()
{
    const koutil::Fd file(open("/proc/self/statm", O_RDONLY | O_CLOEXEC));
    char text[255];
    const ssize_t length = file ? read(file.get(), text, sizeof text) : -1;
    return length > 0 ? parse(text, text + length) : Pages{};
}

uint64_t to_mebibytes(uint64_t pages)
{
    return (pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) + mebibyte / 2) / mebibyte;
}

} // namespace

void get_rss_virt(uint64_t *rss, uint64_t *virt)
{
    const Pages pages = read_pages();
    if (rss != nullptr) {
        *rss = to_mebibytes(pages.resident);
    }
    if (virt != nullptr) {
        *virt = to_mebibytes(pages.total);
    }
}
