// option_parse_test.cpp - option strings: values, failures and where they leave the caller, usage.
#include "koutil/option_parse.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

enum { threads = 1, size, interval, name, mode, debug, verbose, path, odd };

Option table[] = {
    {"threads=%d", threads, 1, 64, "worker threads", 0, KOOPT_UINT32, 0},
    {"size=%D", size, 0, 0, "size of the cache", 0, KOOPT_INVALID, 0},
    {"t=%t", interval, 0, (1ull << 32) + 7200, nullptr, 0, KOOPT_INVALID, 0},
    {"name=%s", name, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"mode=|fast,quick|slow", mode, 0, 0, "how", 0, KOOPT_INVALID, 0},
    {"debug=%b", debug, 0, 0, "say more", 0, KOOPT_INVALID, 0},
    {"verbose", verbose, 0, 0, "say much more", 0, KOOPT_INVALID, 0},
    {"path=FILE", path, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"odd=%x", odd, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"banned", OPTION_ERROR, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"hidden", OPTION_UNLISTED, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"silent=%D", 20, 1ull << 33, 0, nullptr, 1, KOOPT_INVALID, 0},
    {"wide=%t", 23, 0, 0, nullptr, 1, KOOPT_INVALID, 0},
    {"a_name_that_fills_its_column=%D", 21, 0, 0, "below", 0, KOOPT_INVALID, 0},
    {"another_name_that_fills_the_column", 22, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {nullptr, 0, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
};

constexpr uint64_t untouched = 0xDEAD;

// One call of parse_option on a text; what it left.
struct Step {
    explicit Step(std::string text, int err_len = 200, int str_len = 8)
    {
        char *at = text.data();
        char err[200];
        char str[8] = "";
        code = parse_option(&at, table, &number, str, str_len, err, err_len);
        rest = at;
        message = err;
        word = str;
    }
    uint32_t code;
    uint64_t number = untouched;
    std::string word, rest, message;
};

} // namespace

TEST(Options, AStringYieldsItsOptionsInOrder)
{
    std::string text = "\n,,threads=8,SIZE=4m,t=1h30m,name=abc,mode=SLOW,debug,verbose\n,# x=1";
    char *at = text.data();
    std::vector<std::pair<uint32_t, uint64_t>> seen;
    char word[8] = "";
    uint64_t number = 0;
    for (uint32_t code;
         (code = parse_option(&at, table, &number, word, sizeof word, nullptr, 0)) != OPTION_END;) {
        ASSERT_NE(code, uint32_t{OPTION_ERROR}) << at;
        seen.emplace_back(code, code == name ? 0 : number);
    }
    const std::vector<std::pair<uint32_t, uint64_t>> expected = {
        {threads, 8}, {size, 4194304}, {interval, 5400}, {name, 0},
        {mode, 1},    {debug, 1},      {verbose, 1}};
    EXPECT_EQ(seen, expected);
    EXPECT_STREQ(word, "abc");
    EXPECT_STREQ(at, "# x=1");
}

TEST(Options, Values)
{
    const struct {
        const char *text;
        uint32_t code;
        uint64_t number;
        const char *word, *rest;
    } cases[] = {
        {"size=0x10,", size, 16, "", ","},
        {"size=2G", size, 2147483648u, "", ""},
        {"size=010 ", size, 8, "", " "},
        {"size=99999999999999999999", size, UINT64_MAX, "", ""},
        {"size=-1K", size, uint64_t{} - 1024, "", ""},
        {"threads=64x", threads, 64, "", "x"},
        {"debug=none", debug, 0, "", "ne"},
        {"debug=10", debug, 1, "", "0"},
        {"debug=TRUE,", debug, 1, "", ","},
        {"debug\r", debug, 1, "", "\r"},
        {"mode=quick", mode, 0, "", ""},
        {"t= 1 h,", interval, 3600, "", ","},
        {"t=1w30m1h", interval, 610200, "", ""},
        {"t=1:02:03", interval, 3723, "", ""},
        {"t=0", interval, 0, "", ""},
        {"name=ab\nx,y", name, untouched, "ab\nx", ",y"},
        {"name=ab\nx", name, untouched, "ab", "\nx"},
        {"name=\"a, b\"c", name, untouched, "a, b", "c"},
        {"name=", name, untouched, "", ""},
        {"path=/x,", path, untouched, "", "/x,"},
        {"odd=1,", odd, untouched, "", "1,"},
        {"hidden", OPTION_UNLISTED, 1, "", ""},
        {"#verbose", OPTION_END, untouched, "", "#verbose"},
    };
    for (const auto &c : cases) {
        const Step step{c.text};
        EXPECT_EQ(step.code, c.code) << c.text << step.message;
        EXPECT_EQ(step.number, c.number) << c.text;
        EXPECT_EQ(step.word, c.word) << c.text;
        EXPECT_EQ(step.rest, c.rest) << c.text;
        EXPECT_EQ(step.message, "") << c.text;
    }
}

TEST(Options, FailuresTellWhyAndLeaveTheCallerAtTheirPlace)
{
    const auto expect = [](const std::string &text, const std::string &message,
                           const std::string &rest) {
        const Step step{text};
        EXPECT_EQ(step.code, uint32_t{OPTION_ERROR}) << text;
        EXPECT_EQ(step.message, message);
        EXPECT_EQ(step.rest, rest) << text;
        EXPECT_EQ(step.word, "") << text;
        EXPECT_EQ(step.number, 0u) << text;
        EXPECT_EQ(Step(text, 10).message, message.substr(0, 9));
    };
    const struct {
        const char *text, *message, *rest;
    } cases[] = {
        {",unknown=1,x", "Unrecognized option: 'unknown=1'\n", "unknown=1,x"},
        {"verbose=1", "Unrecognized option: 'verbose=1'\n", "verbose=1"},
        {"banned", "Unrecognized option: 'banned'\n", "banned"},
        {" verbose", "Unrecognized option: ' verbose'\n", " verbose"},
        {"\rverbose", "Unrecognized option: '\rverbose'\n", "\rverbose"},
        {"threads\nx,y", "Value missing for option 'threads\nx'\n", "\nx,y"},
        {"debug=maybe=1", "Unrecognized boolean value in 'debug=maybe'\n", "maybe=1"},
        {"threads=x,y", "Unrecognized decimal value in 'threads=x'\n", "x,y"},
        {"threads=0,y", "Parameter 'threads' (0) out of range, min 1 max 64\n", ",y"},
        {"threads=-1", "Parameter 'threads' (-1) out of range, min 1 max 64\n", ""},
        {"silent=1k", "Parameter 'silent' (1024) out of range, min 8589934592 max 0\n", ""},
        {"t=5000000000", "Parameter 't' (5000000000) out of range, min 0 max 7200\n", ""},
        {"size=k", "Unrecognized number () in 'size=k'\n", "k"},
        {"size=4x",
         "Unrecognized number (Invalid unit multiplier (k/K/m/M/g/G allowed)) in 'size=4x'\n",
         "4x"},
        {"size=08",
         "Unrecognized number (Invalid unit multiplier (k/K/m/M/g/G allowed)) in 'size=08'\n",
         "08"},
        {"mode=fas,x",
         "Unknown choice enumerated in option 'mode=fas'; Expected: {fast,quick|slow}\n", "fas,x"},
        {"name=12345678,x",
         "Parse error in string value (String option too long) 'name=12345678,x\n", "12345678,x"},
        {"name=\"1,x", "Parse error in string value (Unterminated string) 'name=\"1,x\n", "\"1,x"},
    };
    for (const auto &c : cases) {
        expect(c.text, c.message, c.rest);
    }
    const struct {
        std::string value, read;
        int offset;
        std::string reason;
    } times[] = {
        {"5 67,x", "5 6", 3, "unexpected digit(s)"},
        {"1:30m", "1:30m", 5, "unexpected w/d/h/m/s specifier"},
        {"1h5", "1h5", 4, "incomplete specification"},
        {"1h:", "1h:", 3, "unexpected ':'"},
        {"1:=", "1:", 3, "incomplete specification"},
        {"", "", 1, "incomplete specification"},
        {"1x", "1x", 2, "invalid character"},
        {"5\nverbose", "5\n", 2, "invalid character"},
    };
    for (const auto &c : times) {
        expect("t=" + c.value,
               "Bad time format: '" + c.read + "' (offset " + std::to_string(c.offset) +
                   "): " + c.reason + "\nOption: 't=" + c.value + "'\n",
               c.value);
    }
}

TEST(Options, AStringNeedsRoomForItsTerminator)
{
    EXPECT_EQ(Step("name=1234567").code, uint32_t{name});
    EXPECT_EQ(Step("name=", 99, 1).code, uint32_t{name});
    EXPECT_EQ(Step("name=", 99, 0).code, uint32_t{OPTION_ERROR});
}

TEST(Options, TheListingShowsEveryListedRow)
{
    EXPECT_EQ(support::capture(2, [] { parser_usage(table); }),
              "  threads=<value>               worker threads\n"
              "  size=<value>[k|m|g]           size of the cache\n"
              "  t=<interval>                  \n"
              "  name=<string>                 \n"
              "  mode=fast,quick|slow          how\n"
              "  debug=<boolean>               say more\n"
              "  verbose                       say much more\n"
              "  path=                         \n"
              "  odd=                          \n"
              "  banned                        \n"
              "  a_name_that_fills_its_column=<value>[k|m|g]\n"
              "                                below\n"
              "  another_name_that_fills_the_column\n");
}

TEST(Options, NumbersAndTimesReadBack)
{
    const struct {
        const char *option;
        void (*format)(uint64_t, char *);
        uint64_t number;
        const char *text;
    } cases[] = {
        {"size=", format_number, 0, "0G"},
        {"size=", format_number, 4096, "4K"},
        {"size=", format_number, 1536, "1536"},
        {"size=", format_number, 3145728, "3M"},
        {"size=", format_number, uint64_t{1} << 40, "1024G"},
        {"size=", format_number, uint64_t{1} << 63 | 1, "-9223372036854775807"},
        {"t=", format_interval, 0, "0s"},
        {"t=", format_interval, 45, "45s"},
        {"t=", format_interval, 120, "2m"},
        {"t=", format_interval, 90, "1:30"},
        {"t=", format_interval, 7200, "2h"},
        {"t=", format_interval, 172800, "2d"},
        {"t=", format_interval, 90000, "25h"},
        {"t=", format_interval, 3723, "1:02:03"},
        {"wide=", format_interval, UINT64_MAX, "5124095576030431:00:15"},
        {"wide=", format_interval, 3600ull * 2147483648u, "2147483648h"},
    };
    for (const auto &c : cases) {
        char text[32];
        c.format(c.number, text);
        EXPECT_STREQ(text, c.text);
        EXPECT_EQ(Step(c.option + std::string(text)).number, c.number);
    }
}
