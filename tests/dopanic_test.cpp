// dopanic_test.cpp - the panic path, each end of it in a process of its own.
#include "koutil/dopanic.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>
#include <unistd.h>

using support::run_in_child;

TEST(Panic, WritesOneLineAndAborts)
{
    const auto outcome = run_in_child([]() -> int {
        set_caller_name(const_cast<char *>("/bin/prog"));
        DoPanic("ASSERT failed ", "a == b", 1, "libutil/x", 12);
    });
    EXPECT_TRUE(outcome.signalled(SIGABRT));
    EXPECT_EQ(outcome.err, "PANIC: /bin/prog ASSERT failed \"a == b\" file libutil/x, line 12\n");
}

TEST(Panic, WithoutACoreExitsWithTheCodeOfTheHost)
{
    const auto outcome = run_in_child([]() -> int {
        PanicNoCoreExitCode = 9;
        strcpy(PanicNomenclature, "HALT");
        CallerName = nullptr;
        DoPanic("", std::string(3000, 'y').c_str(), 0, "f", 1);
    });
    EXPECT_TRUE(outcome.exited(9));
    EXPECT_EQ(outcome.err.size(), 2048u);
    EXPECT_EQ(outcome.err.substr(0, 20), "HALT: (null) \"yyyyyy");
}

TEST(Panic, AHandlerThatReturnsEndsTheProcessWithOne)
{
    const auto outcome = run_in_child([]() -> int {
        atexit([] { (void)!write(2, "exit handler", 12); });
        DoPanicFn = [](char *str1, char *str2, int core, char *file, int line) {
            fprintf(stderr, "%s|%s|%d|%s|%d", str1, str2, core, file, line);
            fflush(stderr);
        };
        DoPanic("a", "b", 0, "c", 3);
    });
    EXPECT_TRUE(outcome.exited(1));
    EXPECT_EQ(outcome.err, "a|b|0|c|3");
}

TEST(Panic, ANullHandlerStandsForTheDefault)
{
    const auto outcome = run_in_child([]() -> int {
        DoPanicFn = nullptr;
        DoPanic("", "gone", 0, "f", 1);
    });
    EXPECT_TRUE(outcome.exited(1));
    EXPECT_NE(outcome.err.find("\"gone\""), std::string::npos);
}
