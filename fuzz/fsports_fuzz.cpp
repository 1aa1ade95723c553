// fsports_fuzz.cpp - the port ranges file: whatever it holds, every output is a port or 0, and a
// range that was asked for whole is one.
#include "koutil/fsports.h"
#include "koutil/logger.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

void require(bool condition)
{
    if (!condition) {
        abort();
    }
}

void check_message(int type, char *text)
{
    require(type == 0 || type == 2);
    require(strncmp(text, "fsports: ", 9) == 0 && strlen(text) < 512);
}

std::string config;

void remove_config()
{
    unlink((config + "/fsports").c_str());
    rmdir(config.c_str());
}

// The descriptor of the file that the library reads.
int ports_file()
{
    const int file = memfd_create("fsports", MFD_CLOEXEC);
    char name[] = "/tmp/fsports_fuzz.XXXXXX";
    require(mkdtemp(name) != nullptr);
    config = name;
    const std::string target = "/proc/self/fd/" + std::to_string(file);
    require(symlink(target.c_str(), (config + "/fsports").c_str()) == 0);
    atexit(remove_config);
    setenv("VORNCONF", name, 1);
    WriteLog = check_message;
    return file;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const int file = ports_file();
    require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
    uint16_t low = 1;
    uint16_t high = 1;
    uint16_t mapper = 1;
    genportrange(&low, &high, &mapper, static_cast<int>(size % 2));
    require((low == 0 && high == 0) || (low > 0 && low <= high));
    uint16_t alone = 1;
    genportrange(nullptr, nullptr, &alone, 1);
    require(alone == mapper);
    return 0;
}
