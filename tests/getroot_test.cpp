// getroot_test.cpp - the installation's directories, each case in a process of its own.
#include "koutil/getroot.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace
{

using Accessor = char *(*)();

constexpr Accessor kAccessors[] = {
    GetVornRoot,   GetVornConfigDir,   GetVornLogRoot, GetVornDataDir, GetVornDebugDir,
    GetVornRasDir, GetVornZelstatsDir, GetVornBinDir,  GetVornHelpDir, GetVornLibDir,
    GetVornOemDir, GetVornInstallDir,  GetVornLdapDir};

constexpr const char *kBelow[] = {"data", "debug", "ras", "zelstats", "bin",
                                  "help", "lib",   "oem", "install",  "ldap"};

void set(const char *name, const char *value)
{
    if (value != nullptr) {
        setenv(name, value, 1);
    } else {
        unsetenv(name);
    }
}

// One path a line, in the order of the accessors, worked out with the given variables.
support::Outcome paths(const char *root, const char *conf, const char *logs)
{
    return support::run_in_child([=] {
        set("VORNROOT", root);
        set("VORNCONF", conf);
        set("VORNLOGS", logs);
        for (const Accessor accessor : kAccessors) {
            puts(accessor());
        }
        return 0;
    });
}

std::string expected(const std::string &root, const std::string &conf, const std::string &logs)
{
    std::string text = root + "\n" + conf + "\n" + logs + "\n";
    for (const char *name : kBelow) {
        text += (root + "/" + name).substr(0, 255) + "\n";
    }
    return text;
}

} // namespace

TEST(GetRoot, FollowsTheVariables)
{
    const struct {
        const char *root, *conf, *logs;
        std::string paths;
    } cases[] = {
        {nullptr, nullptr, nullptr, expected("/usr/vorn", "/usr/vorn/config", "/usr/vorn")},
        {"/opt/x", "/etc/x", nullptr, expected("/opt/x", "/etc/x", "/opt/x")},
        {nullptr, nullptr, "/var/x", expected("/usr/vorn", "/usr/vorn/config", "/var/x")},
        {"", nullptr, nullptr, expected("", "/config", "")},
        {"/r", "", "", expected("/r", "", "")},
        {"/r/", nullptr, nullptr, expected("/r/", "/r//config", "/r/")},
    };
    for (const auto &each : cases) {
        const auto outcome = paths(each.root, each.conf, each.logs);
        EXPECT_EQ(outcome.out, each.paths);
        EXPECT_EQ(outcome.err, "");
    }
}

TEST(GetRoot, CutsLongPathsWithOneLineEach)
{
    const std::string root(250, 'r');
    const auto outcome = paths(root.c_str(), nullptr, nullptr);
    EXPECT_EQ(outcome.out, expected(root, root + "/conf", root));
    std::string lines;
    for (const std::string name : {"config", "debug", "zelstats", "install"}) {
        lines += "Pathname too long: " + root + "/" + name + ": truncated to " + root + "/" +
                 name.substr(0, 4) + "\n";
    }
    EXPECT_EQ(outcome.err, lines);
}

TEST(GetRoot, IsWorkedOutOnceForAllThreads)
{
    const auto outcome = support::run_in_child([] {
        setenv("VORNROOT", "/first", 1);
        std::vector<std::string> seen(8);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < seen.size(); i++) {
            threads.emplace_back([&seen, i] {
                for (size_t k = 0; k < 13; k++) {
                    const size_t row = (k + i) % 13;
                    seen[i].append(row == 0 ? "" : kAccessors[row]());
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        for (std::string &text : seen) {
            std::sort(text.begin(), text.end());
        }
        char *before = GetVornRoot();
        setenv("VORNROOT", "/second-and-longer-so-that-the-environment-moves", 1);
        const bool same =
            std::adjacent_find(seen.begin(), seen.end(), std::not_equal_to<>()) == seen.end();
        return same && GetVornRoot() == before && std::string(before) == "/first" ? 0 : 1;
    });
    EXPECT_TRUE(outcome.exited(0)) << outcome.err;
}
