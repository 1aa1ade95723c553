// mntargs_fuzz.cpp - mount-argument files: any file is loaded or refused, and what is loaded can be
// validated into any buffer, compared and copied.
#include "fuzz.h"
#include "koutil/mntargs.h"

namespace
{

void use(mntargs_t *args, size_t message_size)
{
    require(strnlen(args->ma_fsname, sizeof args->ma_fsname) < sizeof args->ma_fsname &&
            strnlen(args->ma_mntpoint, sizeof args->ma_mntpoint) < sizeof args->ma_mntpoint);
    const Text room = room_of(message_size + 1);
    char *const message = room.get();
    MntArgsMask_t failed = ~MntArgsMask_t{0};
    const unsigned int count = VoMntArgsValidate(args, &failed, message, message_size);
    require((count == 0) == (failed == 0) && message[message_size] == 'x');
    require(count == VoMntArgsValidate(args, nullptr, nullptr, 0));
    VoMntArgsValidateTovan(args, message_size, message);
    require(message[message_size] == 'x');

    mntargs_t *copy = VoMntArgsClone(args);
    MntArgsMask_t differing = ~MntArgsMask_t{0};
    const int differs = VoMntArgsCmp(args, copy, &differing);
    require(differs == 0 && differing == 0);
    VoMntArgsMntOptsAutoSet(copy);
    VoMntArgsFree(&copy);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Folder folder;
    const std::string path = folder.write("options", data, size);
    char message[128];
    MntArgsMask_t used = 0;
    mntargs_t *args = nullptr;
    const VoError_t status = VoMntArgsLoadFile(path.c_str(), sizeof message, message, &used, &args);
    require((status == 0) == (args != nullptr) && (status == 0) == (message[0] == '\0'));
    if (args != nullptr) {
        use(args, size % 700);
    } else {
        require(used == 0);
    }
    VoMntArgsFree(&args);
    return 0;
}
