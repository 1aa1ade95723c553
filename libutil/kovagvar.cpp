// kovagvar.cpp - variables that several programs share.
//
// A variable is on one of two lists: gvi_head while it is what the file says, gvi_used after a
// refresh replaced it while callers still held its value. It is freed when it is retired unheld, or
// when its last holder releases it.
#include "koutil/kovagvar.h"

#include "internal/guards.h"
#include "koutil/getroot.h"
#include "koutil/kovacfg.h"
#include "koutil/kovaio.h"
#include "koutil/snprintf.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <string_view>

// One variable, in one block with its texts: behind the fields the expanded value, then the name.
struct gvar_list {
    TAILQ_ENTRY(gvar_list) gvar_link;
    int gvar_ref; // results of gvar_get that are not released
    char *gvar_name;

    char *gvar_value() { return reinterpret_cast<char *>(this + 1); }
};

TAILQ_HEAD(gvar_head, gvar_list);
using gvar_head_t = gvar_head;

// One loaded file, in one block with its path, which stands behind the fields.
struct gvar_instance {
    time_t gvi_mtime;     // of the file when it was loaded; 0 missing
    gvar_head_t gvi_head; // the current variables in file order
    gvar_head_t gvi_used; // earlier ones that callers still hold
    int gvi_use_getenv;

    char *gvi_path() { return reinterpret_cast<char *>(this + 1); }
};

namespace
{

// Lines that double the line before grow fast: what all values together may take.
constexpr size_t values_max = size_t{64} << 20;

// The latest variable of a name, or null.
gvar_list *gvar_find(gvar_instance *gvip, std::string_view name)
{
    gvar_list *var;
    TAILQ_FOREACH_REVERSE (var, &gvip->gvi_head, gvar_head, gvar_link) {
        if (name == var->gvar_name) {
            return var;
        }
    }
    return nullptr;
}

// Takes a value apart, from left to right, and hands every piece of the expanded text to `emit`.
template <typename Emit>
void for_each_piece(gvar_instance *gvip, std::string_view value, Emit emit)
{
    for (;;) {
        const size_t start = value.find("${");
        emit(value.substr(0, start));
        if (start == std::string_view::npos) {
            return;
        }
        value.remove_prefix(start + 2);
        const size_t end = value.find('}');
        if (end == std::string_view::npos) {
            return; // unfinished: the value ends here
        }
        if (gvar_list *var = gvar_find(gvip, value.substr(0, end))) {
            emit(std::string_view(var->gvar_value()));
        }
        value.remove_prefix(end + 1);
    }
}

// The length of a value once its references are replaced.
size_t gvar_length(gvar_instance *gvip, std::string_view value)
{
    size_t length = 0;
    for_each_piece(gvip, value, [&](std::string_view piece) { length += piece.size(); });
    return length;
}

// Writes the expanded value, terminated, to memory apart from it.
void expand_to(gvar_instance *gvip, std::string_view value, char *out)
{
    for_each_piece(gvip, value, [&](std::string_view piece) {
        out = std::copy(piece.begin(), piece.end(), out);
    });
    *out = '\0';
}

// Makes a variable and appends it; `*room` is what values may still take. False when that, or
// memory, runs out.
bool gvar_add(gvar_instance *gvip, const char *name, const char *value, size_t *room)
{
    const size_t value_size = gvar_length(gvip, value) + 1;
    const size_t name_size = strlen(name) + 1;
    if (value_size > *room) {
        return false;
    }
    *room -= value_size;
    koutil::MallocPtr<gvar_list> block(
        static_cast<gvar_list *>(malloc(sizeof(gvar_list) + value_size + name_size)));
    if (block == nullptr) {
        return false;
    }
    gvar_list *const var = block.release();
    var->gvar_ref = 0;
    expand_to(gvip, value, var->gvar_value());
    var->gvar_name = var->gvar_value() + value_size;
    memcpy(var->gvar_name, name, name_size);
    TAILQ_INSERT_TAIL(&gvip->gvi_head, var, gvar_link);
    return true;
}

// Retires every current variable.
void gvar_flush(gvar_instance *gvip)
{
    while (gvar_list *var = TAILQ_FIRST(&gvip->gvi_head)) {
        TAILQ_REMOVE(&gvip->gvi_head, var, gvar_link);
        if (var->gvar_ref == 0) {
            free(var);
        } else {
            TAILQ_INSERT_TAIL(&gvip->gvi_used, var, gvar_link);
        }
    }
}

void load(gvar_instance *gvip, KovaCfg_t *cfg)
{
    size_t room = values_max;
    CfgEnt_t *ent = nullptr;
    while (KovaCfgNext(cfg, &ent) == 0) {
        const char *value = ent->KovaCfgVals[0] != nullptr ? ent->KovaCfgVals[0] : "";
        if (ent->KovaCfgName != nullptr && !gvar_add(gvip, ent->KovaCfgName, value, &room)) {
            return;
        }
    }
}

gvar_list *holder_of(const gvar_head_t *head, const char *value)
{
    gvar_list *var;
    TAILQ_FOREACH (var, head, gvar_link) {
        if (var->gvar_value() == value) {
            return var;
        }
    }
    return nullptr;
}

} // namespace

void *gvar_open(const char *name, int use_getenv)
{
    if (name == nullptr) {
        return nullptr;
    }
    const bool is_path = name[0] == '/' || (name[0] == '.' && name[1] == '/');
    const char *dir = is_path ? "" : GetVornConfigDir();
    const char *slash = is_path ? "" : "/";
    const size_t size = strlen(dir) + strlen(slash) + strlen(name) + 1;
    auto *gvip = static_cast<gvar_instance *>(malloc(sizeof(gvar_instance) + size));
    if (gvip == nullptr) {
        return nullptr;
    }
    gvip->gvi_mtime = 0;
    TAILQ_INIT(&gvip->gvi_head);
    TAILQ_INIT(&gvip->gvi_used);
    gvip->gvi_use_getenv = use_getenv;
    VoSnprintf(gvip->gvi_path(), size, "%s%s%s", dir, slash, name);
    gvar_refresh(gvip);
    return gvip;
}

void gvar_refresh(void *void_gvip)
{
    auto *gvip = static_cast<gvar_instance *>(void_gvip);
    if (gvip == nullptr) {
        return;
    }
    KovaStat_t info;
    const VoError_t status = KovaStat(gvip->gvi_path(), &info);
    if (status == ENOENT) {
        gvip->gvi_mtime = 0;
        gvar_flush(gvip);
    }
    if (status != 0 || info.KovaMtime == gvip->gvi_mtime) {
        return;
    }
    KovaCfg_t *cfg = nullptr;
    if (KovaCfgOpen(gvip->gvi_path(), KOVA_OPEN_READ, CFGTYPE_ASSIGN, &cfg, nullptr, 0) != 0) {
        return;
    }
    gvip->gvi_mtime = info.KovaMtime;
    gvar_flush(gvip);
    load(gvip, cfg);
    KovaCfgClose(&cfg, 0, nullptr, 0);
}

char *gvar_get(void *void_gvip, const char *name)
{
    auto *gvip = static_cast<gvar_instance *>(void_gvip);
    if (name == nullptr || *name == '\0') {
        return nullptr;
    }
    if (gvip == nullptr || gvip->gvi_use_getenv != 0) {
        char *value = getenv(name);
        if (value != nullptr || gvip == nullptr) {
            return value;
        }
    }
    gvar_list *var = gvar_find(gvip, name);
    if (var == nullptr) {
        return nullptr;
    }
    var->gvar_ref++;
    return var->gvar_value();
}

void gvar_release(void *void_gvip, char *value)
{
    auto *gvip = static_cast<gvar_instance *>(void_gvip);
    if (gvip == nullptr) {
        return;
    }
    if (gvar_list *var = holder_of(&gvip->gvi_head, value)) {
        var->gvar_ref = std::max(var->gvar_ref - 1, 0);
    } else if ((var = holder_of(&gvip->gvi_used, value)) != nullptr && --var->gvar_ref <= 0) {
        TAILQ_REMOVE(&gvip->gvi_used, var, gvar_link);
        free(var);
    }
}

char *gvar_next(void *void_gvip, void **void_gvpp, char **namep)
{
    auto *gvip = static_cast<gvar_instance *>(void_gvip);
    if (gvip == nullptr) {
        return nullptr;
    }
    auto *var = static_cast<gvar_list *>(*void_gvpp);
    var = var == nullptr ? TAILQ_FIRST(&gvip->gvi_head) : TAILQ_NEXT(var, gvar_link);
    *void_gvpp = var;
    if (var == nullptr) {
        return nullptr;
    }
    if (namep != nullptr) {
        *namep = var->gvar_name;
    }
    return var->gvar_value();
}

void gvar_expand(gvar_instance *gvip, char *valp)
{
    // Replacing from left to right in place could need more room, halfway, than the text in the
    // end.
    if (gvip == nullptr || strstr(valp, "${") == nullptr) {
        return;
    }
    const koutil::MallocPtr<char> source(strdup(valp));
    if (source != nullptr) {
        expand_to(gvip, source.get(), valp);
    }
}

void gvar_close(void *void_gvip)
{
    auto *gvip = static_cast<gvar_instance *>(void_gvip);
    if (gvip == nullptr) {
        return;
    }
    for (gvar_head_t *head : {&gvip->gvi_head, &gvip->gvi_used}) {
        while (gvar_list *var = TAILQ_FIRST(head)) {
            TAILQ_REMOVE(head, var, gvar_link);
            free(var);
        }
    }
    free(gvip);
}
