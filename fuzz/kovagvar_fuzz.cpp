// kovagvar_fuzz.cpp - shared variables: every value is what a plain expansion gives, and values
// that are held survive a refresh. The input is two files, parted by the first byte 0xFF.
#include "fuzz.h"
#include "koutil/kovacfg.h"
#include "koutil/kovagvar.h"

#include <algorithm>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace
{

using Vars = std::vector<std::pair<std::string, std::string>>;

// The value that a name has: that of the latest line.
const std::string *latest(const Vars &vars, const std::string &name)
{
    const auto found = std::find_if(vars.rbegin(), vars.rend(),
                                    [&](const auto &var) { return var.first == name; });
    return found != vars.rend() ? &found->second : nullptr;
}

std::string expand(const Vars &vars, std::string value)
{
    std::string result;
    for (size_t start; (start = value.find("${")) != value.npos;) {
        result += value.substr(0, start);
        const size_t end = value.find('}', start);
        if (end == value.npos) {
            return result;
        }
        if (const std::string *found = latest(vars, value.substr(start + 2, end - start - 2))) {
            result += *found;
        }
        value.erase(0, end + 1);
    }
    return result + value;
}

// The variables of a file, as far as 64 MiB of values go. False for a file that cannot be read.
bool expected(const std::string &path, Vars &vars)
{
    KovaCfg_t *cfg = nullptr;
    if (KovaCfgOpen(path.c_str(), KOVA_OPEN_READ, CFGTYPE_ASSIGN, &cfg, nullptr, 0) != 0) {
        return false;
    }
    vars.clear();
    size_t room = size_t{64} << 20;
    CfgEnt_t *ent = nullptr;
    while (KovaCfgNext(cfg, &ent) == 0) {
        const char *value = ent->KovaCfgVals[0] != nullptr ? ent->KovaCfgVals[0] : "";
        if (ent->KovaCfgName != nullptr) {
            std::string text = expand(vars, value);
            if (text.size() >= room) {
                break;
            }
            room -= text.size() + 1;
            vars.emplace_back(ent->KovaCfgName, std::move(text));
        }
    }
    KovaCfgClose(&cfg, 0, nullptr, 0);
    return true;
}

// Holds the instance against what is expected; the values that were got stay held.
std::vector<std::pair<char *, std::string>> check(void *instance, const Vars &vars)
{
    std::vector<std::pair<char *, std::string>> held;
    void *position = nullptr;
    char *name = nullptr;
    size_t count = 0;
    while (char *value = gvar_next(instance, &position, &name)) {
        require(count < vars.size() && vars[count].first == name && vars[count].second == value);
        char *got = gvar_get(instance, name);
        const std::string *wanted = *name != '\0' ? latest(vars, name) : nullptr;
        require((got != nullptr) == (wanted != nullptr) && (got == nullptr || *wanted == got));
        if (got != nullptr && held.size() < 8) {
            held.emplace_back(got, *wanted);
        } else {
            gvar_release(instance, got);
        }
        count++;
    }
    require(count == vars.size());
    return held;
}

// Gives the file a modification time of its own, so that a refresh sees the change.
std::string written(const Folder &folder, const uint8_t *data, size_t size, time_t when)
{
    std::string path = folder.write("vars", data, size);
    const timespec times[] = {{when, 0}, {when, 0}};
    require(utimensat(AT_FDCWD, path.c_str(), times, 0) == 0);
    return path;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Folder folder;
    const size_t first = static_cast<size_t>(std::find(data, data + size, 0xFF) - data);
    const size_t second = std::min(size, first + 1);
    Vars vars;
    expected(written(folder, data, first, 1000), vars);
    void *instance = gvar_open("vars", 0);
    const auto held = check(instance, vars);
    expected(written(folder, data + second, size - second, 2000), vars);
    gvar_refresh(instance);
    const auto held_too = check(instance, vars);
    for (const auto *each : {&held, &held_too}) {
        for (const auto &[value, text] : *each) {
            require(text == value);
            gvar_release(instance, value);
        }
    }
    gvar_close(instance);
    return 0;
}
