// pretty_print_test.cpp - times and sizes in a few characters, and back.
#include "koutil/pretty_print.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace
{

std::string time_text(uint32_t value, int flags = 0, unsigned len = 32)
{
    char text[40] = "untouched";
    pretty_print_time(text, len, flags, value);
    return text;
}

std::string space_text(uint64_t value, int flags = 0, unsigned len = 32)
{
    char text[40] = "untouched";
    pretty_print_space(text, len, flags, value);
    return text;
}

std::string scanned_time(const char *text, int flags = 0)
{
    uint32_t value = 77;
    const int result = pretty_scan_time(text, flags, &value);
    EXPECT_TRUE(result == 0 || (result == -1 && value == 0)) << text;
    return result == 0 ? std::to_string(value) : "fails";
}

std::string scanned_space(const char *text, int flags = 0)
{
    uint64_t value = 77;
    const int result = pretty_scan_space(text, flags, &value);
    EXPECT_TRUE(result == 0 || (result == -1 && value == 0)) << text;
    return result == 0 ? std::to_string(value) : "fails";
}

} // namespace

TEST(PrettyPrint, Times)
{
    const struct {
        uint32_t value;
        const char *text;
        const char *whole; // with PRETTY_INTEGER
    } cases[] = {
        {0, "0m", "0m"},        {45, "45m", "45m"},      {59, "59m", "59m"},
        {60, "1h", "1h"},       {90, "1.5h", "2h"},      {120, "2h", "2h"},
        {1000, "17h", "17h"},   {1440, "1d", "1d"},      {43200, "1M", "1M"},
        {100000, "69d", "69d"}, {525600, "1y", "1y"},    {600000, "60w", "60w"},
        {5995, "4.2d", "4d"},   {59940, "999h", "999h"}, {4294967295, "8172y", "8172y"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(time_text(c.value), c.text) << c.value;
        EXPECT_EQ(time_text(c.value, PRETTY_INTEGER), c.whole) << c.value;
    }
    EXPECT_EQ(time_text(90, PRETTY_RAW), "90");
    EXPECT_EQ(time_text(600000, 0, 4), "100"); // a cut text counts as short
    EXPECT_EQ(time_text(90, 0, 1), "");
    EXPECT_EQ(time_text(90, 0, 0), "untouched");
}

TEST(PrettyPrint, Spaces)
{
    const struct {
        uint64_t value;
        const char *decimal;
        const char *binary;
        const char *whole; // decimal with PRETTY_INTEGER
    } cases[] = {
        {0, "0", "0", "0"},
        {999, "999", "999", "999"},
        {1000, "1.0K", "1.0K", "1K"},
        {1500, "1.5K", "1.5K", "2K"},
        {1536, "1.5K", "1.5K", "2K"},
        {99949, "100K", "98K", "100K"},
        {123456789, "123M", "118M", "123M"},
        {999999, "1.0M", "977K", "1M"},
        {UINT64_MAX, "18447P", "16384P", "18447P"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(space_text(c.value), c.decimal) << c.value;
        EXPECT_EQ(space_text(c.value, PRETTY_BINARY), c.binary) << c.value;
        EXPECT_EQ(space_text(c.value, PRETTY_INTEGER), c.whole) << c.value;
    }
    EXPECT_EQ(space_text(123456789, PRETTY_RAW), "123456789");
    EXPECT_EQ(space_text(123456789, 0, 3), "12");
    EXPECT_EQ(space_text(5000, 0, 0), "untouched");
}

TEST(PrettyScan, Times)
{
    const struct {
        const char *text;
        const char *value;
    } cases[] = {
        {"90", "90"},
        {"1.5h", "90"},
        {" \t2d", "2880"},
        {"1w rest", "10080"},
        {"3m", "129600"},
        {"3M", "129600"},
        {"1Y", "525600"},
        {".5h", "30"},
        {"5.", "5"},
        {"1.2.3", "1"},
        {"0.0001", "0"},
        {"2147483647", "2147483647"},
        {"2147483648", "fails"},
        {"5000y", "fails"},
        {"", "fails"},
        {"  ", "fails"},
        {"h", "fails"},
        {"-5", "fails"},
        {"+5", "fails"},
        {"5kx", "fails"},
        {"5hx", "fails"},
        {"5%", "fails"},
        {"5 x", "5"},
        {".", "fails"},
        {"5s", "fails"},
        {"1e3", "fails"},
        {"0x10", "fails"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(scanned_time(c.text), c.value) << c.text;
    }
    EXPECT_EQ(scanned_time(nullptr), "fails");
    EXPECT_EQ(scanned_time("1.5h", PRETTY_INTEGER), "fails");
    EXPECT_EQ(scanned_time("15 a.b", PRETTY_INTEGER), "fails");
    EXPECT_EQ(scanned_time("15 a", PRETTY_INTEGER), "15");
}

TEST(PrettyScan, Spaces)
{
    EXPECT_EQ(scanned_space("1.5K"), "1500");
    EXPECT_EQ(scanned_space("1.5k", PRETTY_BINARY), "1536");
    EXPECT_EQ(scanned_space("4g"), "4000000000");
    EXPECT_EQ(scanned_space("5k x"), "5000");
    EXPECT_EQ(scanned_space("5kx"), "fails");
    EXPECT_EQ(scanned_space("16383P", PRETTY_BINARY), std::to_string(UINT64_C(16383) << 50));
    EXPECT_EQ(scanned_space("16384P", PRETTY_BINARY), "fails");
    EXPECT_EQ(scanned_space("18446744073709551615"), "fails"); // the nearest double is 2^64
    EXPECT_EQ(scanned_space(std::string(400, '9').c_str()), "fails");
    EXPECT_EQ(scanned_space(("0." + std::string(400, '0') + "1").c_str()), "0");
}
