// getroot.cpp - the installation's directories.
//
// The table is filled once, under get_vorn_root_mtx, and published by `computed` after all of its
// rows are set: an accessor that sees the mark sees every path.
#include "koutil/getroot.h"

#include "internal/assert.h"
#include "internal/guards.h"
#include "koutil/snprintf.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

struct root_info_t {
    char *ri_path;          // null until the table is computed
    const char *ri_env;     // variable that moves the directory, or null
    const char *ri_default; // path without the variable, or null
    root_info_t *ri_parent; // what the directory lies below
    const char *ri_my_dir;  // name below the parent, or null
    char ri_buf[256];       // storage of a composed path
};

enum Row {
    kRoot,
    kConfig,
    kLog,
    kData,
    kDebug,
    kRas,
    kZelstats,
    kBin,
    kHelp,
    kLib,
    kOem,
    kInstall,
    kLdap,
    kRows
};

constinit root_info_t root[kRows] = {
    {nullptr, "VORNROOT", "/usr/vorn", nullptr, nullptr, ""},
    {nullptr, "VORNCONF", nullptr, root, "config", ""},
    {nullptr, "VORNLOGS", nullptr, root, nullptr, ""},
    {nullptr, nullptr, nullptr, root, "data", ""},
    {nullptr, nullptr, nullptr, root, "debug", ""},
    {nullptr, nullptr, nullptr, root, "ras", ""},
    {nullptr, nullptr, nullptr, root, "zelstats", ""},
    {nullptr, nullptr, nullptr, root, "bin", ""},
    {nullptr, nullptr, nullptr, root, "help", ""},
    {nullptr, nullptr, nullptr, root, "lib", ""},
    {nullptr, nullptr, nullptr, root, "oem", ""},
    {nullptr, nullptr, nullptr, root, "install", ""},
    {nullptr, nullptr, nullptr, root, "ldap", ""},
};

constinit std::atomic<bool> computed{false};

// A text that stays what it is when the environment changes. The environment's own storage serves
// where memory has run out.
char *lasting_copy(char *value)
{
    char *copy = strdup(value);
    return copy != nullptr ? copy : value;
}

char *compose(root_info_t *rp)
{
    const char *parent = rp->ri_parent->ri_path;
    const int len = VoSnprintf(rp->ri_buf, sizeof rp->ri_buf, "%s/%s", parent, rp->ri_my_dir);
    if (len < 0 || static_cast<size_t>(len) >= sizeof rp->ri_buf) {
        rp->ri_buf[sizeof rp->ri_buf - 1] = '\0';
        fprintf(stderr, "Pathname too long: %s/%s: truncated to %s\n", parent, rp->ri_my_dir,
                rp->ri_buf);
    }
    return rp->ri_buf;
}

void resolve(root_info_t *rp)
{
    char *value = rp->ri_env != nullptr ? getenv(rp->ri_env) : nullptr;
    if (value != nullptr) {
        rp->ri_path = lasting_copy(value);
    } else if (rp->ri_default != nullptr) {
        rp->ri_path = const_cast<char *>(rp->ri_default);
    } else if (rp->ri_my_dir != nullptr) {
        rp->ri_path = compose(rp);
    } else {
        rp->ri_path = rp->ri_parent->ri_path;
        KO_ASSERT(rp->ri_path != NULL);
    }
}

void initialize_roots()
{
    const koutil::LockGuard guard(get_vorn_root_mtx);
    if (computed.load(std::memory_order_relaxed)) {
        return;
    }
    for (root_info_t &row : root) {
        if (row.ri_path == nullptr) {
            resolve(&row);
        }
    }
    computed.store(true, std::memory_order_release);
}

char *path_of(Row row)
{
    if (!computed.load(std::memory_order_acquire)) {
        initialize_roots();
    }
    return root[row].ri_path;
}

} // namespace

thread_mutex_t get_vorn_root_mtx = THREAD_MUTEX_INITIALIZER;

char *GetVornRoot()
{
    return path_of(kRoot);
}

char *GetVornConfigDir()
{
    return path_of(kConfig);
}

char *GetVornLogRoot()
{
    return path_of(kLog);
}

char *GetVornDataDir()
{
    return path_of(kData);
}

char *GetVornDebugDir()
{
    return path_of(kDebug);
}

char *GetVornRasDir()
{
    return path_of(kRas);
}

char *GetVornZelstatsDir()
{
    return path_of(kZelstats);
}

char *GetVornBinDir()
{
    return path_of(kBin);
}

char *GetVornHelpDir()
{
    return path_of(kHelp);
}

char *GetVornLibDir()
{
    return path_of(kLib);
}

char *GetVornOemDir()
{
    return path_of(kOem);
}

char *GetVornInstallDir()
{
    return path_of(kInstall);
}

char *GetVornLdapDir()
{
    return path_of(kLdap);
}
