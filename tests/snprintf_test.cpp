// snprintf_test.cpp - bounded formatting.
#include "koutil/snprintf.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(Snprintf, CutsTerminatesAndReturnsTheNeededLength)
{
    char buffer[8];
    EXPECT_EQ(VoSnprintf(buffer, sizeof buffer, "%s", "12345678901234567890"), 20);
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_EQ(VoSnprintf(buffer, sizeof buffer, "%d", 1234567), 7);
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_EQ(VoSnprintf(nullptr, 0, "%d", 12345), 5);
}

TEST(Snprintf, RefusesWhatItCannotDoAndLeavesTheBuffer)
{
    char buffer[4] = "abc";
    const char *volatile no_format = nullptr;
    char *volatile no_buffer = nullptr;
    EXPECT_EQ(VoSnprintf(no_buffer, 10, "%d", 1), -1);
    EXPECT_EQ(VoSnprintf(buffer, sizeof buffer, no_format, 1), -1);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(VoSnprintf(buffer, 0, "%d", 12), 2);
    EXPECT_STREQ(buffer, "abc");
}

TEST(Snprintf, TerminatesWhatThePlatformCannotFormat)
{
    char buffer[4] = {'a', 'b', 'c', 'd'};
    EXPECT_LT(VoSnprintf(buffer, sizeof buffer, "%ls", L"\xdfff"), 0);
    EXPECT_EQ(buffer[3], '\0');
}
