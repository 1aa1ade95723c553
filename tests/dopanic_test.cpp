// dopanic_test.cpp - the panic path, each end of it in a process of its own.
#include "koutil/dopanic.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <unistd.h>

using support::run_in_child;

TEST(Panic, WritesOneLineAndAborts)
{
    const auto child = run_in_child([]() -> int {
        set_caller_name(const_cast<char *>("/bin/prog"));
        DoPanic("ASSERT failed ", "a == b", 1, "libutil/x", 12);
    });
    EXPECT_TRUE(child.signalled(SIGABRT));
    EXPECT_EQ(child.err, "PANIC: /bin/prog ASSERT failed \"a == b\" file libutil/x, line 12\n");
}

TEST(Panic, WithoutACoreExitsWithTheCodeOfTheHost)
{
    const auto child = run_in_child([]() -> int {
        DoPanicFn = nullptr; // stands for the default
        PanicNoCoreExitCode = 9;
        memset(PanicNomenclature, 'H', sizeof PanicNomenclature); // and no terminator
        CallerName = nullptr;
        DoPanic(nullptr, nullptr, 0, nullptr, 1);
    });
    EXPECT_TRUE(child.exited(9));
    EXPECT_EQ(child.err, std::string(2047, 'H') + "\n");
}

TEST(Panic, AHandlerThatReturnsEndsTheProcessWithOne)
{
    const auto child = run_in_child([]() -> int {
        atexit([] { (void)!write(2, "exit handler", 12); });
        DoPanicFn = [](char *str1, char *str2, int core, char *file, int line) {
            fprintf(stderr, "%s|%s|%d|%s|%d", str1, str2, core, file, line);
        };
        DoPanic("a", "b", 0, "c", 3);
    });
    EXPECT_TRUE(child.exited(1));
    EXPECT_EQ(child.err, "a|b|0|c|3");
}
