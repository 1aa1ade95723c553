// fsmlist_fuzz.cpp - the list of file systems: any file is loaded or refused; what is loaded is
// found by its names, can be edited, and an added name is in the saved list with all others.
#include "fuzz.h"
#include "koutil/fsmlist.h"

#include <algorithm>
#include <string>
#include <vector>

namespace
{

// The names of a list, each entry readable and the first of its name found by it.
std::vector<std::string> names_of(FsmListHndl_t *list)
{
    std::vector<std::string> names;
    FsmListEnt_t ent;
    for (int i = 0; FsmListRead(list, i, &ent) == 0; i++) {
        require(ent.Index == i && ent.Priority >= 0 && ent.Priority <= FSMLIST_MAX_PRIORITY);
        require(memchr(ent.FsmName, '\0', sizeof ent.FsmName) != nullptr &&
                memchr(ent.Comment, '\0', sizeof ent.Comment) != nullptr);
        FsmListEnt_t found;
        require(FsmListFind(list, ent.FsmName, &found) == 0 && found.Index <= i &&
                strcmp(found.FsmName, ent.FsmName) == 0);
        names.emplace_back(ent.FsmName);
    }
    return names;
}

void edit(FsmListHndl_t *list, const uint8_t *data, size_t size, int count)
{
    FsmListEnt_t ent = {};
    memcpy(ent.FsmName, data, std::min(size, sizeof ent.FsmName));
    memcpy(ent.Comment, data + size - std::min(size, sizeof ent.Comment),
           std::min(size, sizeof ent.Comment));
    ent.Priority = static_cast<int>(size * 100);
    const int at = static_cast<int>(size) % (count + 1);
    const int status = FsmListInsert(list, at, &ent);
    require(status == 0 ? FsmListIsModified(list) == 1 : status == 11);
    require(status == 0 || ent.Priority > FSMLIST_MAX_PRIORITY);
    if (status == 0) {
        FsmListEnt_t read;
        require(FsmListRead(list, at, &read) == 0 && read.Priority == ent.Priority);
        require(strncmp(read.FsmName, ent.FsmName, 255) == 0);
        require(FsmListModify(list, at, &ent) == 0 && FsmListDelete(list, at) == 0);
    }
    require(FsmListIsModified(list) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Folder folder;
    folder.write("fsmlist", data, size);
    FsmListHndl_t *list = nullptr;
    if (FsmListOpen(&list, KOVA_OPEN_READ) != 0) {
        require(list == nullptr && FsmListAddName("data1") == -1);
        return 0;
    }
    const std::vector<std::string> before = names_of(list);
    edit(list, data, size, static_cast<int>(before.size()));
    FsmListClose(&list, 0);

    // A save does not quote: texts that lay in one another may be too long to be copied afterwards.
    const bool odd = std::any_of(
        data, data + size, [](uint8_t byte) { return strchr("\"\x93\x94\v\f", byte) != nullptr; });
    require(FsmListAddName("data1") == 0);
    if (FsmListOpen(&list, KOVA_OPEN_READ) == 0) {
        const std::vector<std::string> after = names_of(list);
        require(FsmListRefresh(list) == 0 && names_of(list) == after);
        require(FsmListSave(list) == 0 || odd);
    } else {
        require(odd);
    }
    FsmListClose(&list, 0);
    return 0;
}
