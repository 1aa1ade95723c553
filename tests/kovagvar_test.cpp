// kovagvar_test.cpp - shared variables: references, and values that outlive what the file says.
#include "koutil/kovagvar.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace
{

class Gvar : public ::testing::Test
{
  protected:
    ~Gvar() override { gvar_close(vars); }

    void open_with(const std::string &text, int use_getenv = 0)
    {
        gvar_close(vars);
        change(text);
        vars = gvar_open(path.c_str(), use_getenv);
    }

    void change(const std::string &text, int seconds_later = 2)
    {
        support::write_file(path, text);
        now += seconds_later;
        const timespec times[] = {{now, 0}, {now, 0}};
        utimensat(AT_FDCWD, path.c_str(), times, 0);
    }

    // The value of a variable, released again.
    std::string value(const char *name)
    {
        char *found = gvar_get(vars, name);
        const std::string text = found != nullptr ? found : "(none)";
        gvar_release(vars, found);
        return text;
    }

    std::string all()
    {
        std::string text;
        void *position = nullptr;
        char *name = nullptr;
        while (const char *found = gvar_next(vars, &position, &name)) {
            text += std::string(name) + "=" + found + ";";
        }
        return text;
    }

    support::TempDir dir;
    const std::string path = dir / "vars";
    void *vars = nullptr;
    time_t now = 1700000000;
};

} // namespace

TEST_F(Gvar, ExpandsReferencesWhenItLoads)
{
    open_with("BASE=/opt/x\nBIN=${BASE}/bin\nA=1\nA=${A}2\nP=${NOPE}/x\nQ=a${b\nR=cost $5\n"
              "S=${A}${BASE}${\nT=$${A}{B}$\nU=${LATER}${}\nLATER=1\n# comment\n\nE\nV=<${E}>\n"
              "W=${BIN}=rest\n# @M=x\nRAW=$${Q}{A}\n");
    EXPECT_EQ(all(),
              "BASE=/opt/x;BIN=/opt/x/bin;A=1;A=12;P=/x;Q=a;R=cost $5;S=12/opt/x;T=$12{B}$;U=;"
              "LATER=1;E=;V=<>;W=/opt/x/bin;@M=x;RAW=$a{A};");
    EXPECT_EQ(value("A"), "12");
    EXPECT_EQ(value("a"), "(none)");
    EXPECT_EQ(value(""), "(none)");
    EXPECT_EQ(gvar_get(vars, nullptr), nullptr);
}

// Known references before unknown ones: replaced one after the other, the text would be longest
// midway.
TEST_F(Gvar, ExpandsInPlaceWithinTheRoomOfTheLongerText)
{
    open_with("A=" + std::string(100, 'a') + "\n");
    const std::string a(100, 'a');
    const std::pair<std::string, std::string> cases[] = {{"${A}${" + std::string(60, 'N') + "}", a},
                                                         {"${A}${" + std::string(90, 'N'), a},
                                                         {"x${A}y${A}", "x" + a + "y" + a}};
    for (const auto &[text, expanded] : cases) {
        std::vector<char> room(std::max(text.size(), expanded.size()) + 1);
        memcpy(room.data(), text.c_str(), text.size() + 1);
        gvar_expand(static_cast<gvar_instance *>(vars), room.data());
        EXPECT_EQ(room.data(), expanded);
    }
}

TEST_F(Gvar, TheEnvironmentComesFirstWhereItIsAskedFor)
{
    setenv("KOUTIL_TEST_VAR", "outside", 1);
    open_with("KOUTIL_TEST_VAR=inside\nOWN=1\n", 1);
    char *found = gvar_get(vars, "KOUTIL_TEST_VAR");
    EXPECT_STREQ(found, "outside");
    gvar_release(vars, found);
    EXPECT_EQ(value("OWN"), "1");
    EXPECT_STREQ(gvar_get(nullptr, "KOUTIL_TEST_VAR"), "outside");
    EXPECT_EQ(gvar_get(nullptr, "KOUTIL_NO_SUCH_VAR"), nullptr);
    open_with("KOUTIL_TEST_VAR=inside\n");
    EXPECT_EQ(value("KOUTIL_TEST_VAR"), "inside");
}

TEST_F(Gvar, HeldValuesSurviveAStormOfReloads)
{
    open_with("A=0\nB=same\n");
    std::vector<char *> held;
    for (int round = 0; round < 200; round++) {
        held.push_back(gvar_get(vars, "A"));
        held.push_back(gvar_get(vars, "A"));
        change("A=" + std::to_string(round + 1) + "\nB=same\n");
        gvar_refresh(vars);
        if (round % 3 == 0) { // in the middle of what is held
            char *&given_back = held[held.size() / 2];
            gvar_release(vars, given_back);
            given_back = nullptr;
        }
    }
    for (size_t i = 0; i < held.size(); i++) {
        EXPECT_TRUE(held[i] == nullptr || held[i] == std::to_string(i / 2)) << i;
        gvar_release(vars, held[i]);
    }
    char *current = gvar_get(vars, "A");
    gvar_release(vars, current);
    gvar_release(vars, current); // once too often: it stays current
    EXPECT_EQ(value("A"), "200");
}

TEST_F(Gvar, RefreshFollowsTheFile)
{
    open_with("A=1\n");
    char *held = gvar_get(vars, "A");
    unlink(path.c_str());
    gvar_refresh(vars);
    EXPECT_EQ(all(), "");
    EXPECT_STREQ(held, "1");
    change("A=2\n");
    gvar_refresh(vars);
    EXPECT_EQ(value("A"), "2");
    change(std::string("A=3\n\0", 5)); // cannot be read: the old ones stay
    gvar_refresh(vars);
    EXPECT_EQ(value("A"), "2");
    change("A=4\n", 0);
    gvar_refresh(vars); // at the same time stamp: the failed load is tried again
    EXPECT_EQ(value("A"), "4");
    unlink(path.c_str());
    mkdir(path.c_str(), 0755);
    gvar_refresh(vars);
    EXPECT_EQ(value("A"), "4");
    gvar_release(vars, held);
}

TEST_F(Gvar, RunawayReferencesStayBounded)
{
    std::string text = "X=" + std::string(1000, 'x') + "\n";
    for (int i = 0; i < 60; i++) {
        text += "X=${X}${X}\n";
    }
    open_with(text + "LAST=1\n");
    EXPECT_GE(value("X").size(), size_t{1} << 24);
    EXPECT_EQ(value("LAST"), "(none)");
}

TEST_F(Gvar, NamesWithoutAPathLieInTheConfigurationDirectory)
{
    support::write_file(dir / "vars", "WHERE=config\n");
    mkdir((dir / "cwd").c_str(), 0755);
    support::write_file(dir / "cwd/vars", "WHERE=cwd\n");
    const support::Outcome outcome = support::run_in_child([&] {
        setenv("VORNCONF", dir.path().c_str(), 1);
        if (chdir((dir / "cwd").c_str()) != 0) {
            return 1;
        }
        for (const char *name : {"vars", "./vars", "cwd/vars"}) {
            vars = gvar_open(name, 0);
            puts(value("WHERE").c_str());
            gvar_close(vars);
        }
        fflush(stdout);
        return 0;
    });
    EXPECT_TRUE(outcome.exited(0));
    EXPECT_EQ(outcome.out, "config\ncwd\ncwd\n");
}
