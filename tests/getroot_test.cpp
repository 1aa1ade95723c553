// getroot_test.cpp - the installation's directories, each case in a process of its own.
#include "koutil/getroot.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{

constexpr char *(*kAccessors[])() = {
    GetVornRoot,   GetVornConfigDir,   GetVornLogRoot, GetVornDataDir, GetVornDebugDir,
    GetVornRasDir, GetVornZelstatsDir, GetVornBinDir,  GetVornHelpDir, GetVornLibDir,
    GetVornOemDir, GetVornInstallDir,  GetVornLdapDir};

// What lies directly below the root whatever the variables are, in the order of the accessors.
constexpr const char *kBelow[] = {"data", "debug", "ras", "zelstats", "bin",
                                  "help", "lib",   "oem", "install",  "ldap"};

} // namespace

TEST(GetRoot, FollowsTheVariablesAndCutsLongPaths)
{
    const std::string r(250, 'r');
    const struct {
        std::vector<std::string> variables;
        std::string root, config, log;
    } cases[] = {
        {{}, "/usr/vorn", "/usr/vorn/config", "/usr/vorn"},
        {{"VORNROOT=/opt/x", "VORNCONF=/etc/x"}, "/opt/x", "/etc/x", "/opt/x"},
        {{"VORNLOGS=/var/x"}, "/usr/vorn", "/usr/vorn/config", "/var/x"},
        {{"VORNROOT="}, "", "/config", ""},
        {{"VORNROOT=/r", "VORNCONF=", "VORNLOGS="}, "/r", "", ""},
        {{"VORNROOT=/r/"}, "/r/", "/r//config", "/r/"},
        {{"VORNROOT=" + r, "VORNCONF=" + r + r}, r, r + r, r},
        {{"VORNROOT=" + r}, r, r + "/conf", r},
    };
    for (auto each : cases) {
        std::string out = each.root + "\n" + each.config + "\n" + each.log + "\n";
        std::string err;
        const auto expect_cut = [&](const std::string &path) {
            err += path.size() <= 255 ? ""
                                      : "Pathname too long: " + path + ": truncated to " +
                                            path.substr(0, 255) + "\n";
            return path.substr(0, 255) + "\n";
        };
        if (each.config == r + "/conf") {
            expect_cut(r + "/config");
        }
        for (const char *name : kBelow) {
            out += expect_cut(each.root + "/" + name);
        }
        const auto outcome = support::run_in_child([&] {
            for (const char *name : {"VORNROOT", "VORNCONF", "VORNLOGS"}) {
                unsetenv(name);
            }
            for (std::string &variable : each.variables) {
                putenv(variable.data());
            }
            for (const auto accessor : kAccessors) {
                puts(accessor());
            }
            return 0;
        });
        EXPECT_EQ(outcome.out, out);
        EXPECT_EQ(outcome.err, err);
    }
}

TEST(GetRoot, IsWorkedOutOnce)
{
    const auto outcome = support::run_in_child([] {
        setenv("VORNROOT", "/first", 1);
        const char *before = GetVornRoot();
        setenv("VORNROOT", "/second-and-longer-so-that-the-environment-moves", 1);
        return GetVornRoot() == before && before == std::string("/first") ? 0 : 1;
    });
    EXPECT_TRUE(outcome.exited(0)) << outcome.err;
}
