// kovalog_fuzz.cpp - lists of debug flags against a plain model, and log lines of any text and
// number against the platform's formatter.
#include "fuzz.h"
#include "koutil/kovalog.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <sys/mman.h>

namespace
{

vornlog_legend_t legend[] = {{0, "io", ""},   {1, "lock", ""}, {9, "net", ""},
                             {17, "far", ""}, {2, "io", ""},   {0, nullptr, nullptr}};

void parse_flags(const std::string &options)
{
    unsigned expected = 0;
    int result = 0;
    std::string text = std::string(options.c_str()) + ",";
    for (size_t end; result == 0 && (end = text.find(',')) != text.npos; text.erase(0, end + 1)) {
        const std::string item = text.substr(0, end);
        const auto *entry = std::find_if(legend, legend + 5, [&](const vornlog_legend_t &e) {
            return e.vornlog_legend_key == item;
        });
        result = item.empty() || entry != legend + 5 ? 0 : -1;
        if (!item.empty() && entry != legend + 5) {
            expected |= 1U << entry->vornlog_legend_value;
        }
    }
    uint8_t flags[2] = {0xaa, 0xaa};
    const Text writable = text_of(options.data(), options.size());
    require(_ParseDebugParams(writable.get(), legend, flags, sizeof flags) == result);
    require(flags[0] == (expected & 0xff) && flags[1] == (expected >> 8 & 0xff));
}

// The line that a message gives.
template <typename... Args>
std::string line_of(const char *format, Args... args)
{
    char line[2048] = "";
    require(ftruncate(__vorn_log_file_fd, 0) == 0 && lseek(__vorn_log_file_fd, 0, SEEK_SET) == 0);
    LogToFile(1, const_cast<char *>(format), args...);
    const ssize_t length = pread(__vorn_log_file_fd, line, sizeof line, 0);
    require(length > 0);
    return {line, static_cast<size_t>(length)};
}

// Holds a line's length and what follows its prefix against the platform.
template <typename... Args>
void write_line(const char *format, Args... args)
{
    const size_t prefix = line_of("%s", "").size();
    const std::string line = line_of(format, args...);
    const auto needed = static_cast<size_t>(snprintf(nullptr, 0, format, args...));
    std::string expected(needed + 1, '\0');
    snprintf(expected.data(), expected.size(), format, args...);
    expected.pop_back();
    require(prefix + needed < 1024 ? line.substr(prefix) == expected : line[0] == '(');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (__vorn_log_file_fd == 1) {
        __vorn_log_file_fd = memfd_create("log", MFD_CLOEXEC);
    }
    const std::string text(reinterpret_cast<const char *>(data), size);
    int64_t number = 0;
    memcpy(&number, data, std::min(size, sizeof number));
    parse_flags(text);
    write_line("%s", text.c_str());
    write_line("a %ld %s|%u%%\n", number, text.c_str(), static_cast<unsigned>(number));
    write_line("%d %zu %llu%3d", static_cast<int>(number), size,
               static_cast<unsigned long long>(number), 7);
    return 0;
}
