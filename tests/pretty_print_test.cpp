// pretty_print_test.cpp - times and sizes in a few characters, and back.
#include "koutil/pretty_print.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>

namespace
{

template <auto print, typename Value>
std::string printed(Value value, int flags = 0, unsigned len = 32)
{
    char text[40] = "untouched";
    print(text, len, flags, value);
    return text;
}
constexpr auto time_text = printed<pretty_print_time, uint32_t>;
constexpr auto space_text = printed<pretty_print_space, uint64_t>;

template <auto scan, typename Value>
std::string scanned(const std::string &text, int flags)
{
    Value value = 77;
    const int result = scan(text.c_str(), flags, &value);
    EXPECT_TRUE(result == 0 || (result == -1 && value == 0)) << text;
    return result == 0 ? std::to_string(value) : "fails";
}
constexpr auto scanned_time = scanned<pretty_scan_time, uint32_t>;
constexpr auto scanned_space = scanned<pretty_scan_space, uint64_t>;

// Scans texts, each given as "text=value;".
void expect_scans(decltype(scanned_time) scan, int flags, const std::string &all)
{
    std::istringstream cases(all);
    for (std::string c; std::getline(cases, c, ';');) {
        const size_t equals = c.find('=');
        EXPECT_EQ(scan(c.substr(0, equals), flags), c.substr(equals + 1)) << c;
    }
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
        EXPECT_EQ(time_text(c.value, 0, 32), c.text) << c.value;
        EXPECT_EQ(time_text(c.value, PRETTY_INTEGER, 32), c.whole) << c.value;
    }
    EXPECT_EQ(time_text(90, PRETTY_RAW, 32), "90");
    EXPECT_EQ(time_text(600000, 0, 4), "100"); // a cut text counts as short
    EXPECT_EQ(time_text(90, 0, 1), "");
    EXPECT_EQ(time_text(90, 0, 0), "untouched");
}

TEST(PrettyPrint, Spaces)
{
    const struct {
        uint64_t value;
        const char *decimal, *binary;
        const char *whole; // decimal with PRETTY_INTEGER
    } cases[] = {
        {0, "0", "0", "0"},
        {999, "999", "999", "999"},
        {1000, "1.0K", "1.0K", "1K"},
        {1536, "1.5K", "1.5K", "2K"},
        {99949, "100K", "98K", "100K"},
        {999999, "1.0M", "977K", "1M"},
        {UINT64_MAX, "18447P", "16384P", "18447P"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(space_text(c.value, 0, 32), c.decimal) << c.value;
        EXPECT_EQ(space_text(c.value, PRETTY_BINARY, 32), c.binary) << c.value;
        EXPECT_EQ(space_text(c.value, PRETTY_INTEGER, 32), c.whole) << c.value;
    }
    EXPECT_EQ(space_text(123456789, PRETTY_RAW, 32), "123456789");
    EXPECT_EQ(space_text(123456789, 0, 3), "12");
    EXPECT_EQ(space_text(5000, 0, 0), "untouched");
}

TEST(PrettyScan, ReadsANumberAndAUnit)
{
    expect_scans(scanned_time, 0,
                 "90=90;1.5h=90; \t2d=2880;1w rest=10080;3m=129600;3M=129600;1Y=525600;.5h=30;"
                 "5.=5;1.2.3=1;0.0001=0;5 x=5;2147483647=2147483647;2147483648=fails;5000y=fails;"
                 "=fails;  =fails;h=fails;-5=fails;+5=fails;5hx=fails;5%=fails;.=fails;5s=fails;"
                 "1e3=fails;0x10=fails");
    expect_scans(scanned_time, PRETTY_INTEGER, "1.5h=fails;15 a.b=fails;15 a=15");
    // The number of twenty digits is 2^64 as a double.
    expect_scans(scanned_space, 0,
                 "1.5K=1500;4g=4000000000;5k x=5000;5kx=fails;18446744073709551615=fails;" +
                     std::string(400, '9') + "=fails;0." + std::string(400, '0') + "1=0");
    expect_scans(scanned_space, PRETTY_BINARY,
                 "1.5k=1536;16383P=18445618173802708992;16384P=fails");
}
