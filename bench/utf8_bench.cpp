// utf8_bench.cpp - conversion of a megabyte between UTF-8 and UTF-16 beside ICU's u_strFromUTF8 and
// u_strToUTF8, and case-insensitive comparison of names beside strcasecmp and u_strCaseCompare.
//
// Texts: ASCII; Latin (letters with accents now and then); Chinese; emoji; mixed (runs of a few
// words of each). Names are equal apart from the case of each second letter, or byte for byte.
#include <benchmark/benchmark.h>
#include <koutil/koutil.h>

#include <cstring>
#include <string>
#include <strings.h>
#include <vector>

#if HAVE_ICU_UC
#include <unicode/uchar.h>
#include <unicode/ustring.h>
#endif

namespace
{

constexpr size_t text_size = 1 << 20;

enum Kind { ascii, latin, chinese, emoji, mixed };

const char *sample_of(Kind kind)
{
    switch (kind) {
    case ascii:
        return "The quick brown fox jumps over the lazy dog, and then it jumps back again. ";
    case latin:
        return "Le cœur déçu mais l'âme plutôt naïve, Louÿs rêva de crapaüter en canoë au delà des "
               "îles, près du mälström où brûlent les novæ. ";
    case chinese:
        return "天地玄黃宇宙洪荒日月盈昃辰宿列張寒來暑往秋收冬藏閏餘成歲律呂調陽雲騰致雨露結為霜";
    case emoji:
        return "😀😁😂🤣😃😄😅😆😉😊😋😎😍😘🥰😗😙😚"
               "🙂🤗🤩🤔🤨😐😑😶🙄😏😣😥";
    default:
        return "plain words, ça et là, привет мир, 天地玄黃宇宙, 😀😁 and again plain words. ";
    }
}

std::string text_of(Kind kind)
{
    const std::string sample = sample_of(kind);
    std::string text;
    while (text.size() + sample.size() <= text_size) {
        text += sample;
    }
    return text;
}

std::vector<UTF16> units_of(const std::string &text)
{
    std::vector<UTF16> units(text.size());
    const UTF8 *from = reinterpret_cast<const UTF8 *>(text.data());
    UTF16 *to = units.data();
    ConvertUTF8toUTF16(&from, from + text.size(), &to, to + units.size(), strictConversion);
    units.resize(static_cast<size_t>(to - units.data()));
    return units;
}

void decode(benchmark::State &state, Kind kind)
{
    const std::string text = text_of(kind);
    std::vector<UTF16> units(text.size() + 1);
    for (auto _ : state) {
        const UTF8 *from = reinterpret_cast<const UTF8 *>(text.data());
        UTF16 *to = units.data();
        ConvertUTF8toUTF16(&from, from + text.size(), &to, to + units.size(), strictConversion);
        benchmark::DoNotOptimize(to);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void encode(benchmark::State &state, Kind kind)
{
    const std::vector<UTF16> units = units_of(text_of(kind));
    std::vector<UTF8> bytes(text_size + 1);
    for (auto _ : state) {
        const UTF16 *from = units.data();
        UTF8 *to = bytes.data();
        ConvertUTF16toUTF8(&from, from + units.size(), &to, to + bytes.size(), strictConversion);
        benchmark::DoNotOptimize(to);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(units.size() * 2));
}

// Names of 20 letters (40 ASCII letters) and the same in the other case.
struct Names {
    const char *first, *second;
};

constexpr Names ascii_equal = {"a_file_name_of_forty_bytes_in_plain_text",
                               "a_file_name_of_forty_bytes_in_plain_text"};
constexpr Names ascii_case = {"a_file_name_of_forty_bytes_in_plain_text",
                              "A_File_Name_Of_Forty_Bytes_In_Plain_Text"};
constexpr Names latin_case = {"éàüöñçêâîôûëïøåæãõýð", "ÉàÜöÑçÊâÎôÛëÏøÅæÃõÝð"};
constexpr Names cyrillic_case = {"абвгдежзиклмнопрстуф", "АбВгДеЖзИкЛмНоПрСтУф"};
constexpr Names cyrillic_equal = {"абвгдежзиклмнопрстуф", "абвгдежзиклмнопрстуф"};
constexpr Names chinese_equal = {"天地玄黃宇宙洪荒日月盈昃辰宿列張寒來暑往",
                                 "天地玄黃宇宙洪荒日月盈昃辰宿列張寒來暑往"};

void compare(benchmark::State &state, Names names)
{
    const std::string first = names.first;
    const std::string second = names.second;
    for (auto _ : state) {
        const char *a = first.c_str();
        const char *b = second.c_str();
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        benchmark::DoNotOptimize(
            utf8casecmp(reinterpret_cast<const UTF8 *>(a), reinterpret_cast<const UTF8 *>(b)));
    }
}

void compare_strcasecmp(benchmark::State &state, Names names)
{
    const std::string first = names.first;
    const std::string second = names.second;
    for (auto _ : state) {
        const char *a = first.c_str();
        const char *b = second.c_str();
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        benchmark::DoNotOptimize(strcasecmp(a, b));
    }
}

#if HAVE_ICU_UC
void decode_icu(benchmark::State &state, Kind kind)
{
    const std::string text = text_of(kind);
    std::vector<UChar> units(text.size() + 1);
    for (auto _ : state) {
        UErrorCode error = U_ZERO_ERROR;
        int32_t length = 0;
        u_strFromUTF8(units.data(), static_cast<int32_t>(units.size()), &length, text.data(),
                      static_cast<int32_t>(text.size()), &error);
        benchmark::DoNotOptimize(length);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void encode_icu(benchmark::State &state, Kind kind)
{
    const std::vector<UTF16> units = units_of(text_of(kind));
    const std::vector<UChar> source(units.begin(), units.end());
    std::vector<char> bytes(text_size + 1);
    for (auto _ : state) {
        UErrorCode error = U_ZERO_ERROR;
        int32_t length = 0;
        u_strToUTF8(bytes.data(), static_cast<int32_t>(bytes.size()), &length, source.data(),
                    static_cast<int32_t>(source.size()), &error);
        benchmark::DoNotOptimize(length);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(units.size() * 2));
}

void compare_icu(benchmark::State &state, Names names)
{
    const auto convert = [](const char *text) {
        const std::vector<UTF16> units = units_of(text);
        return std::vector<UChar>(units.begin(), units.end());
    };
    const std::vector<UChar> first = convert(names.first);
    const std::vector<UChar> second = convert(names.second);
    for (auto _ : state) {
        UErrorCode error = U_ZERO_ERROR;
        benchmark::DoNotOptimize(
            u_strCaseCompare(first.data(), static_cast<int32_t>(first.size()), second.data(),
                             static_cast<int32_t>(second.size()), U_FOLD_CASE_DEFAULT, &error));
    }
}

#define KO_BESIDE(name, peer, argument)                                                            \
    BENCHMARK_CAPTURE(name, argument, argument);                                                   \
    BENCHMARK_CAPTURE(peer, argument, argument)
#else
#define KO_BESIDE(name, peer, argument) BENCHMARK_CAPTURE(name, argument, argument)
#endif

KO_BESIDE(decode, decode_icu, ascii);
KO_BESIDE(decode, decode_icu, latin);
KO_BESIDE(decode, decode_icu, chinese);
KO_BESIDE(decode, decode_icu, emoji);
KO_BESIDE(decode, decode_icu, mixed);
KO_BESIDE(encode, encode_icu, ascii);
KO_BESIDE(encode, encode_icu, latin);
KO_BESIDE(encode, encode_icu, chinese);
KO_BESIDE(encode, encode_icu, emoji);
KO_BESIDE(encode, encode_icu, mixed);
BENCHMARK_CAPTURE(compare_strcasecmp, ascii_equal, ascii_equal);
BENCHMARK_CAPTURE(compare, ascii_equal, ascii_equal);
BENCHMARK_CAPTURE(compare_strcasecmp, ascii_case, ascii_case);
BENCHMARK_CAPTURE(compare, ascii_case, ascii_case);
KO_BESIDE(compare, compare_icu, latin_case);
KO_BESIDE(compare, compare_icu, cyrillic_case);
KO_BESIDE(compare, compare_icu, cyrillic_equal);
KO_BESIDE(compare, compare_icu, chinese_equal);

} // namespace

BENCHMARK_MAIN();
