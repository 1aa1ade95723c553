// strint_test.cpp - integers with unit letters, and minutes as text.
#include "koutil/strint.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>

namespace
{

std::string read(const char *text)
{
    int64_t value = 77;
    const int result = StrToInt64(text, &value);
    EXPECT_TRUE(result == 1 || (result == 0 && value == 0)) << text;
    return result == 1 ? std::to_string(value) : "fails";
}

} // namespace

TEST(StrToInt64, ReadsEveryForm)
{
    std::istringstream cases(
        "12=12; \t\n5=5;12 =12;12 \v\f=12;5 \nx=5;5\rx=5;  =0;-=0;- =0;,=0;1,000=1000;,017=17;"
        "-1k=-1024;1g=1073741824;1k2=10242;3Kk=3145728;2P=2251799813685248;3t=3298534883328;"
        "017=15;08=8;019=25;018k=24576;0k=0;-017=-15;0x=0;0xk=0;0X1Fk=31744;0xabc=2748;0x019=25;"
        "18446744073709551615=-1;9223372036854775808=-9223372036854775808;"
        "-9223372036854775808=-9223372036854775808;8192p=-9223372036854775808;16384P=0;=fails;"
        "12 3=fails;1 ,=fails;- 5=fails;+5=fails;--5=fails;,-5=fails;k=fails;,k=fails;-k=fails;"
        "abc=fails;12a=fails;012a=fails;,0x1=fails;00x1=fails;1.5=fails;0xg1z=fails;5\xa0=fails");
    for (std::string c; std::getline(cases, c, ';');) {
        const size_t equals = c.find('=');
        EXPECT_EQ(read(c.substr(0, equals).c_str()), c.substr(equals + 1)) << c;
    }
}

TEST(IntToStr64, ChoosesTheLargestUnitAndNeverCuts)
{
    std::istringstream cases(
        "0=0;-5=-5;1023=1023;1536=1536;3072=3K;-2048=-2K;1048576=1M;1049600=1025K;1073741824=1G;"
        "5497558138880=5T;1125899906842624=1P;1152921504606846976=1024P;"
        "9223372036854775807=9223372036854775807;-9223372036854775808=-8192P");
    for (std::string c; std::getline(cases, c, ';');) {
        const int64_t value = std::stoll(c);
        const std::string expected = c.substr(c.find('=') + 1);
        for (size_t size = 0; size <= 40; size++) {
            char text[48] = "untouched";
            const bool fits = expected.size() < size;
            EXPECT_EQ(IntToStr64(value, text, size), fits ? 1 : 0) << expected << " in " << size;
            EXPECT_EQ(text, fits ? expected : size == 0 ? "untouched" : "");
        }
    }
}

TEST(KoMinutesToDHM, SplitsMinutesOfEitherSign)
{
    const auto text_of = [](int32_t minutes, size_t size = 32) {
        char text[32] = "";
        EXPECT_EQ(KoMinutesToDHM(minutes, text, size), 0);
        return std::string(text);
    };
    EXPECT_EQ(text_of(1500), "   1d- 1h- 0m");
    EXPECT_EQ(text_of(-61), "-  0d- 1h- 1m");
    EXPECT_EQ(text_of(INT32_MIN), "-1491308d- 2h- 8m");
    EXPECT_EQ(text_of(1500, 6), "   1d");
}
