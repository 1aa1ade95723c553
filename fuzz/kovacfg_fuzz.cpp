// kovacfg_fuzz.cpp - keyword files: any file is loaded or refused in every form; what is loaded can
// be edited, copied and compared; what is saved loads again and has the same names and values.
#include "fuzz.h"
#include "koutil/kovacfg.h"

#include <vector>

namespace
{

using Entries = std::vector<std::vector<std::string>>;

// Names and values of the entries that have any, as the next load sees them: comments become lines
// of their own. The assignment form keeps one value.
Entries contents(KovaCfg_t *cfg)
{
    Entries entries;
    CfgEnt_t *ent = nullptr;
    while (KovaCfgNext(cfg, &ent) == 0) {
        std::vector<std::string> texts;
        texts.emplace_back(ent->KovaCfgName != nullptr ? ent->KovaCfgName : "");
        const int most = cfg->KovaCfgType == CFGTYPE_ASSIGN ? 1 : KOVACFG_MAX_VALS;
        for (int i = 0; i < most && ent->KovaCfgVals[i] != nullptr; i++) {
            texts.emplace_back(ent->KovaCfgVals[i]);
        }
        if (texts.size() > 1 || !texts[0].empty()) {
            entries.push_back(texts);
        }
    }
    return entries;
}

KovaCfg_t *load(const std::string &path, KovaCfgType_t type)
{
    char message[128] = "";
    KovaCfg_t *cfg = nullptr;
    const VoError_t status =
        KovaCfgOpen(path.c_str(), KOVA_OPEN_READ, type, &cfg, message, sizeof message);
    require((status == 0) == (cfg != nullptr) && (status == 0) == (message[0] == '\0'));
    return cfg;
}

// Whether a load takes the texts of a save for what they were: nothing is quoted in a save, the
// value form's values become one, a name in front of words is not kept apart, and so on.
bool plain(KovaCfg_t *cfg)
{
    CfgEnt_t *ent = nullptr;
    while (KovaCfgNext(cfg, &ent) == 0) {
        const bool assign = cfg->KovaCfgType == CFGTYPE_ASSIGN;
        if (cfg->KovaCfgType == CFGTYPE_VALUES || ent->IsMetaData != 0 ||
            (ent->KovaCfgName == nullptr && ent->KovaCfgVals[0] != nullptr && !assign)) {
            return false;
        }
    }
    return true;
}

// Saves twice: the first save keeps what the form can, the second changes nothing any more.
void save(const std::string &path, KovaCfgType_t type, bool quotes)
{
    KovaCfg_t *cfg = load(path, type);
    char message[128] = "";
    const VoError_t status = KovaCfgSave(cfg, message, sizeof message);
    require(status == 0 || (status == 22 && message[0] != '\0'));
    if (status == 0) {
        KovaCfg_t *again = load(path, type);
        require(again != nullptr);
        require(quotes || !plain(cfg) || contents(again) == contents(cfg));
        const bool settled = !quotes && plain(again);
        const Entries before = contents(again);
        require(KovaCfgClose(&again, settled ? 1 : 0, message, sizeof message) == 0);
        again = load(path, type);
        require(!settled || contents(again) == before);
        KovaCfgClose(&again, 0, nullptr, 0);
    }
    KovaCfgClose(&cfg, 0, nullptr, 0);
    if (status != 0) {
        unlink((path + "~").c_str()); // of the save that failed
    }
}

void use(KovaCfg_t *cfg)
{
    char message[128] = "";
    KovaCfg_t *copy = nullptr;
    if (KovaCfgCopy(&copy, cfg, message, sizeof message) == 0) {
        require(KovaCfgCmp(cfg, copy) == 0 && contents(copy) == contents(cfg));
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
    static const Folder folder;
    const std::string text(reinterpret_cast<const char *>(data), size);
    const bool quotes = text.find_first_of("\"\x93\x94\v\f") != text.npos;
    for (const KovaCfgType_t type : {CFGTYPE_ASSIGN, CFGTYPE_WORDS, CFGTYPE_VALUES}) {
        const std::string path = folder.write("keywords", data, size);
        KovaCfg_t *cfg = load(path, type);
        if (cfg != nullptr) {
            use(cfg);
            KovaCfgClose(&cfg, 0, nullptr, 0);
            save(path, type, quotes);
        }
    }
    return 0;
}
