// strint_test.cpp - integers with unit letters, and minutes as text.
#include "koutil/strint.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>

namespace
{

struct Reading {
    const char *text;
    int result;
    int64_t value;
};

int64_t read(const char *text)
{
    int64_t value = 77;
    EXPECT_EQ(StrToInt64(text, &value), 1) << text;
    return value;
}

} // namespace

TEST(StrToInt64, ReadsEveryForm)
{
    constexpr Reading readings[] = {
        {"12", 1, 12},
        {" \t\n5", 1, 5},
        {"12 ", 1, 12},
        {"12 \v\f", 1, 12},
        {"5 \nx", 1, 5},
        {"5\rx", 1, 5},
        {"  ", 1, 0},
        {"-", 1, 0},
        {"- ", 1, 0},
        {",", 1, 0},
        {"1,000", 1, 1000},
        {",017", 1, 17},
        {"-1k", 1, -1024},
        {"1g", 1, 1073741824},
        {"1k2", 1, 10242},
        {"3Kk", 1, 3 << 20},
        {"2P", 1, INT64_C(2) << 50},
        {"3t", 1, INT64_C(3) << 40},
        {"017", 1, 15},
        {"08", 1, 8},
        {"019", 1, 25},
        {"018k", 1, 24576},
        {"0k", 1, 0},
        {"-017", 1, -15},
        {"0x", 1, 0},
        {"0xk", 1, 0},
        {"0X1Fk", 1, 31744},
        {"0xabc", 1, 2748},
        {"0x019", 1, 25},
        {"18446744073709551615", 1, -1},
        {"9223372036854775808", 1, INT64_MIN},
        {"-9223372036854775808", 1, INT64_MIN},
        {"8192p", 1, INT64_MIN},
        {"16384P", 1, 0},
        {"", 0, 0},
        {"12 3", 0, 0},
        {"1 ,", 0, 0},
        {"- 5", 0, 0},
        {"+5", 0, 0},
        {"--5", 0, 0},
        {",-5", 0, 0},
        {"k", 0, 0},
        {",k", 0, 0},
        {"-k", 0, 0},
        {"abc", 0, 0},
        {"12a", 0, 0},
        {"012a", 0, 0},
        {",0x1", 0, 0},
        {"00x1", 0, 0},
        {"1.5", 0, 0},
        {"0xg1z", 0, 0},
        {"5\xa0", 0, 0},
    };
    for (const Reading &reading : readings) {
        int64_t value = 77;
        EXPECT_EQ(StrToInt64(reading.text, &value), reading.result) << '"' << reading.text << '"';
        EXPECT_EQ(value, reading.value) << '"' << reading.text << '"';
    }
    int64_t value = 77;
    EXPECT_EQ(StrToInt64(nullptr, &value), 0);
    EXPECT_EQ(value, 0);
}

TEST(IntToStr64, ChoosesTheLargestUnitAndNeverCuts)
{
    const struct {
        int64_t value;
        const char *text;
    } cases[] = {
        {0, "0"},
        {-5, "-5"},
        {1023, "1023"},
        {1536, "1536"},
        {3072, "3K"},
        {-2048, "-2K"},
        {1048576, "1M"},
        {1049600, "1025K"},
        {INT64_C(1) << 30, "1G"},
        {INT64_C(5) << 40, "5T"},
        {INT64_C(1) << 50, "1P"},
        {INT64_C(1) << 60, "1024P"},
        {INT64_MAX, "9223372036854775807"},
        {INT64_MIN, "-8192P"},
        {INT64_MIN + 1, "-9223372036854775807"},
    };
    for (const auto &c : cases) {
        const std::string expected = c.text;
        for (size_t size = 0; size <= 40; size++) {
            char text[48] = "untouched";
            const bool fits = expected.size() < size;
            EXPECT_EQ(IntToStr64(c.value, text, size), fits ? 1 : 0) << expected << " in " << size;
            EXPECT_STREQ(text, fits ? c.text : size == 0 ? "untouched" : "");
        }
        EXPECT_EQ(read(c.text), c.value);
    }
}

TEST(IntToStr64, TextsReadBackAsTheSameNumber)
{
    const auto check = [](int64_t value) {
        char text[32];
        ASSERT_EQ(IntToStr64(value, text, sizeof text), 1);
        ASSERT_EQ(read(text), value) << text;
    };
    for (int64_t power = 1; power <= INT64_MAX / 10; power *= 10) {
        check(power - 1);
        check(power);
        check(-power - 1);
    }
    std::mt19937_64 random(1);
    for (int round = 0; round < 20000; round++) {
        check(static_cast<int64_t>(random() >> (random() % 64) << (random() % 64)));
    }
}

TEST(KoMinutesToDHM, SplitsMinutesOfEitherSign)
{
    const auto text_of = [](int32_t minutes, size_t size) {
        char text[32] = "";
        EXPECT_EQ(KoMinutesToDHM(minutes, text, size), 0);
        return std::string(text);
    };
    EXPECT_EQ(text_of(1500, 32), "   1d- 1h- 0m");
    EXPECT_EQ(text_of(-61, 32), "-  0d- 1h- 1m");
    EXPECT_EQ(text_of(0, 32), "   0d- 0h- 0m");
    EXPECT_EQ(text_of(INT32_MIN, 32), "-1491308d- 2h- 8m");
    EXPECT_EQ(text_of(1500, 6), "   1d");
}
