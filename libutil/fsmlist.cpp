// fsmlist.cpp - the list of file systems whose managers this host may run.
#include "koutil/fsmlist.h"

#include "internal/guards.h"
#include "internal/literal.h"
#include "koutil/getroot.h"
#include "koutil/snprintf.h"

#include <algorithm>
#include <cstring>

namespace
{

constexpr VoError_t status_none = 2;     // no such entry
constexpr VoError_t status_edited = 6;   // unsaved edits
constexpr VoError_t status_invalid = 11; // null argument, priority out of range, no list
constexpr VoError_t status_memory = 20;  // out of memory

constexpr size_t name_max = sizeof(FsmListEnt_t::FsmName) - 1;
constexpr size_t message_size = 128;

// A value by which older releases mark an entry.
constexpr auto compatibility_marker = static_cast<uint32_t>(-470);

// Long enough to tell that a path is too long for a keyword file.
struct Path {
    char text[sizeof(KovaCfg_t::KovaCfgPath) + 1];

    Path() { VoSnprintf(text, sizeof text, "%s/fsmlist", GetVornConfigDir()); }
};

bool has_list(const FsmListHndl_t *list)
{
    return list != nullptr && list->KovaCfg != nullptr;
}

// Copies at most `size` - 1 characters of a text that may lack its terminator within them.
void copy_text(char *to, size_t size, const char *from)
{
    const size_t length = strnlen(from, size - 1);
    memcpy(to, from, length);
    to[length] = '\0';
}

void close_lists(FsmListHndl_t *list)
{
    KovaCfgClose(&list->KovaCfg, 0, nullptr, 0);
    KovaCfgClose(&list->KovaCfgOrig, 0, nullptr, 0);
}

struct HndlFree {
    void operator()(FsmListHndl_t *list) const
    {
        close_lists(list);
        free(list);
    }
};
using HndlPtr = std::unique_ptr<FsmListHndl_t, HndlFree>;

// Takes a new copy of the list for the detection of changes.
VoError_t remember(FsmListHndl_t *list)
{
    char message[message_size];
    KovaCfgClose(&list->KovaCfgOrig, 0, nullptr, 0);
    return KovaCfgCopy(&list->KovaCfgOrig, list->KovaCfg, message, sizeof message);
}

VoError_t load(FsmListHndl_t *list, const char *path, KovaFlgs_t flags)
{
    char message[message_size];
    VoError_t status =
        KovaCfgOpen(path, flags, CFGTYPE_WORDS, &list->KovaCfg, message, sizeof message);
    if (status == 0) {
        status = remember(list);
    }
    if (status != 0) { // a list without its copy would seem edited for ever
        close_lists(list);
    }
    return status;
}

// Takes priority or marker from the first value that is either.
void read_values(const CfgEnt_t *ent, FsmListEnt_t *out)
{
    for (size_t i = 0; i < KOVACFG_MAX_VALS && ent->KovaCfgVals[i] != nullptr; i++) {
        const auto number = static_cast<uint32_t>(ent->KovaCfgInts[i]);
        if (ent->KovaCfgIntsValid[i] == 0) {
            continue;
        }
        if (number <= FSMLIST_MAX_PRIORITY) {
            out->Priority = static_cast<int>(number);
            return;
        }
        if (number == compatibility_marker) {
            out->Compatibility = 1;
            return;
        }
    }
}

void read_entry(const CfgEnt_t *ent, int index, FsmListEnt_t *out)
{
    *out = {};
    out->Index = index;
    if (ent->KovaCfgName != nullptr) {
        copy_text(out->FsmName, sizeof out->FsmName, ent->KovaCfgName);
    }
    read_values(ent, out);
    if (ent->KovaCfgComment != nullptr) {
        copy_text(out->Comment, sizeof out->Comment, ent->KovaCfgComment);
    }
}

bool has_name(const CfgEnt_t *ent, const char *name)
{
    return strncmp(ent->KovaCfgName != nullptr ? ent->KovaCfgName : "", name, name_max) == 0;
}

} // namespace

VoError_t FsmListOpen(FsmListHndl_t **FsmListHndlOut, KovaFlgs_t OpenFlags)
{
    if (FsmListHndlOut == nullptr) {
        return status_invalid;
    }
    *FsmListHndlOut = nullptr;
    HndlPtr list(koutil::callocate<FsmListHndl_t>().release());
    if (list == nullptr) {
        return status_memory;
    }
    const Path path;
    list->MtimeOrig = _FsmListGetFileModTime(path.text);
    const VoError_t status = load(list.get(), path.text, OpenFlags);
    if (status == 0) {
        *FsmListHndlOut = list.release();
    }
    return status;
}

VoError_t FsmListClose(FsmListHndl_t **FsmListHndl, int SaveChanges)
{
    if (FsmListHndl == nullptr || *FsmListHndl == nullptr) {
        return 0;
    }
    const HndlPtr list(*FsmListHndl);
    *FsmListHndl = nullptr;
    char message[message_size];
    return KovaCfgClose(&list->KovaCfg, SaveChanges, message, sizeof message);
}

VoError_t FsmListRead(FsmListHndl_t *FsmListHndl, int Index, FsmListEnt_t *FsmListEnt)
{
    if (FsmListEnt == nullptr) {
        return status_invalid;
    }
    *FsmListEnt = {};
    FsmListEnt->Index = Index;
    if (!has_list(FsmListHndl)) {
        return status_invalid;
    }
    CfgEnt_t *ent = nullptr;
    const VoError_t status = KovaCfgEnum(FsmListHndl->KovaCfg, Index, &ent);
    if (status == 0) {
        read_entry(ent, Index, FsmListEnt);
    }
    return status;
}

VoError_t FsmListFind(FsmListHndl_t *FsmListHndl, const char *FsName, FsmListEnt_t *FsmListEnt)
{
    if (FsmListEnt == nullptr) {
        return status_invalid;
    }
    *FsmListEnt = {};
    FsmListEnt->Index = -1;
    if (!has_list(FsmListHndl) || FsName == nullptr) {
        return status_invalid;
    }
    CfgEnt_t *ent = nullptr;
    for (int index = 0; KovaCfgNext(FsmListHndl->KovaCfg, &ent) == 0; index++) {
        if (has_name(ent, FsName)) {
            read_entry(ent, index, FsmListEnt);
            return 0;
        }
    }
    return status_none;
}

VoError_t FsmListInsert(FsmListHndl_t *FsmListHndl, int Index, const FsmListEnt_t *FsmListEnt)
{
    if (!has_list(FsmListHndl) || FsmListEnt == nullptr || FsmListEnt->Priority < 0 ||
        FsmListEnt->Priority > FSMLIST_MAX_PRIORITY) {
        return status_invalid;
    }
    FsmListEnt_t ent;
    copy_text(ent.FsmName, sizeof ent.FsmName, FsmListEnt->FsmName);
    copy_text(ent.Comment, sizeof ent.Comment, FsmListEnt->Comment);
    char priority[16];
    VoSnprintf(priority, sizeof priority, "%d", FsmListEnt->Priority);
    char *values[] = {koutil::literal("."), priority, nullptr};
    char message[message_size];
    return KovaCfgInsert(FsmListHndl->KovaCfg, Index, ent.FsmName,
                         FsmListEnt->Priority != 0 ? values : nullptr,
                         ent.Comment[0] != '\0' ? ent.Comment : nullptr, message, sizeof message);
}

VoError_t FsmListModify(FsmListHndl_t *FsmListHndl, int Index, const FsmListEnt_t *FsmListEnt)
{
    if (!has_list(FsmListHndl)) {
        return status_invalid;
    }
    CfgEnt_t *old_ent = nullptr;
    VoError_t status = KovaCfgEnum(FsmListHndl->KovaCfg, Index, &old_ent);
    if (status == 0) {
        status = FsmListInsert(FsmListHndl, Index, FsmListEnt);
    }
    return status == 0 ? KovaCfgRemove(FsmListHndl->KovaCfg, Index + 1) : status;
}

VoError_t FsmListDelete(FsmListHndl_t *FsmListHndl, int Index)
{
    return has_list(FsmListHndl) ? KovaCfgRemove(FsmListHndl->KovaCfg, Index) : status_invalid;
}

int FsmListIsModified(FsmListHndl_t *FsmListHndl)
{
    return has_list(FsmListHndl) && KovaCfgCmp(FsmListHndl->KovaCfg, FsmListHndl->KovaCfgOrig) != 0;
}

VoError_t FsmListSave(FsmListHndl_t *FsmListHndl)
{
    if (!has_list(FsmListHndl)) {
        return status_invalid;
    }
    char message[message_size];
    const VoError_t status = KovaCfgSave(FsmListHndl->KovaCfg, message, sizeof message);
    return status == 0 ? remember(FsmListHndl) : status;
}

VoError_t FsmListRefresh(FsmListHndl_t *FsmListHndl)
{
    if (FsmListHndl == nullptr) {
        return status_invalid;
    }
    const Path path;
    const uint32_t mtime = _FsmListGetFileModTime(path.text);
    if (has_list(FsmListHndl)) {
        if (mtime == FsmListHndl->MtimeOrig) {
            return 0;
        }
        if (FsmListIsModified(FsmListHndl) != 0) {
            return status_edited;
        }
    }
    close_lists(FsmListHndl);
    FsmListHndl->MtimeOrig = mtime;
    return load(FsmListHndl, path.text, KOVA_OPEN_READ | KOVA_OPEN_RDWR | KOVA_OPEN_CREATE);
}

VoError_t FsmListAddName(const char *FsName)
{
    FsmListHndl_t *list = nullptr;
    const KovaFlgs_t flags = KOVA_OPEN_READ | KOVA_OPEN_RDWR | KOVA_OPEN_CREATE;
    if (FsName == nullptr || FsmListOpen(&list, flags) != 0) {
        return -1;
    }
    FsmListEnt_t ent;
    VoError_t status = 0;
    if (FsmListFind(list, FsName, &ent) == status_none) {
        copy_text(ent.FsmName, sizeof ent.FsmName, FsName);
        status = FsmListInsert(list, -1, &ent);
    }
    FsmListClose(&list, status == 0 ? 1 : 0);
    return status == 0 ? 0 : -1;
}

uint32_t _FsmListGetFileModTime(const char *FilePath)
{
    KovaStat_t info;
    return KovaStat(FilePath, &info) == 0 ? static_cast<uint32_t>(info.KovaMtime) : 0;
}
