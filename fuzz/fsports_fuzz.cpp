// fsports_fuzz.cpp - the port ranges file: whatever it holds, every output is a port or 0, and a
// range that was asked for whole is one.
#include "fuzz.h"
#include "koutil/fsports.h"
#include "koutil/logger.h"

namespace
{

void check_message(int type, char *text)
{
    require(type == 0 || type == 2);
    require(strncmp(text, "fsports: ", 9) == 0 && strlen(text) < 512);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Folder folder;
    WriteLog = check_message;
    folder.write("fsports", data, size);
    uint16_t low = 1;
    uint16_t high = 1;
    uint16_t mapper = 1;
    genportrange(&low, &high, &mapper, static_cast<int>(size % 2));
    require((low == 0 && high == 0) || (low > 0 && low <= high));
    uint16_t alone = 1;
    genportrange(nullptr, nullptr, &alone, 1);
    require(alone == mapper);
    uint16_t bare = 1;
    genportrange(&bare, nullptr, nullptr, 0);
    require(bare == 0 || bare == low);
    return 0;
}
