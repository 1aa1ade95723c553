// kovacfg_fuzz.cpp - keyword files: any file is loaded or refused in every form, and what is loaded
// can be edited, copied and compared; the same file as shared variables expands within bounds.
#include "koutil/kovacfg.h"
#include "koutil/kovagvar.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
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

void use(KovaCfg_t *cfg)
{
    char message[128] = "";
    KovaCfg_t *copy = nullptr;
    if (KovaCfgCopy(&copy, cfg, message, sizeof message) == 0) {
        require(KovaCfgCmp(cfg, copy) == 0);
    }
    KovaCfgClose(&copy, 0, nullptr, 0);
    int count = 0;
    CfgEnt_t *ent = nullptr;
    while (KovaCfgNext(cfg, &ent) == 0) {
        CfgEnt_t *found = nullptr;
        int index = -1;
        require(KovaCfgFind(cfg, ent->KovaCfgName, ent->KovaCfgVals, ent->KovaCfgComment, &found,
                            &index) == 0 &&
                index <= count);
        const VoError_t status = KovaCfgEntValInsert(ent, 0, "12K");
        require(status == 22 || (status == 0 && ent->KovaCfgInts[0] == 12288));
        KovaCfgEntValDelete(ent, static_cast<int>(strlen(ent->KovaCfgVals[0]) % 70));
        ++count;
    }
    while (KovaCfgRemove(cfg, count / 2) == 0) {
        --count;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const int file = memfd_create("keywords", MFD_CLOEXEC);
    static char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", file);
    require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
    for (const KovaCfgType_t type : {CFGTYPE_ASSIGN, CFGTYPE_WORDS, CFGTYPE_VALUES}) {
        char message[128] = "";
        KovaCfg_t *cfg = nullptr;
        const VoError_t status =
            KovaCfgOpen(path, KOVA_OPEN_READ, type, &cfg, message, sizeof message);
        require((status == 0) == (cfg != nullptr) && (status == 0) == (message[0] == '\0'));
        if (cfg != nullptr) {
            use(cfg);
        }
        KovaCfgClose(&cfg, 0, nullptr, 0);
    }
    void *vars = gvar_open(path, 0);
    require(vars != nullptr);
    void *position = nullptr;
    char *name = nullptr;
    while (gvar_next(vars, &position, &name) != nullptr) {
        char *value = gvar_get(vars, name);
        require(*name == '\0' || value != nullptr);
        gvar_release(vars, value);
    }
    gvar_close(vars);
    return 0;
}
