// utf8_test.cpp - the conversions against their plain rules, on buffers of the exact size so that
// the address sanitizer sees a byte too many; the case tables, case conversion and comparison.
#include "internal/utf8_vectors.h"
#include "koutil/utf8.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned slowness = 16; // the exhaustive loops take every sixteenth step
#else
constexpr unsigned slowness = 1;
#endif

using Bytes = std::vector<UTF8>;
using Units = std::vector<UTF16>;

Bytes bytes(const std::string &text)
{
    return {text.begin(), text.end()};
}

// What a conversion came to: its result, how far it read, and the target as it left it.
template <typename To>
struct Outcome {
    ConversionResult result;
    size_t consumed;
    size_t produced;
    std::vector<To> target;
    bool operator==(const Outcome &) const = default;
};

constexpr int background = 0x5A; // what a target holds before

int trailing(UTF8 lead)
{
    return lead < 0xC0   ? 0
           : lead < 0xE0 ? 1
           : lead < 0xF0 ? 2
           : lead < 0xF8 ? 3
           : lead < 0xFC ? 4
                         : 5;
}

bool legal(const UTF8 *s, size_t left, size_t length)
{
    const auto byte = [&](size_t i) { return i < left ? s[i] : UTF8{0}; };
    const auto tail = [&](size_t i) { return byte(i) >= 0x80 && byte(i) <= 0xBF; };
    const UTF8 lead = byte(0);
    if (length > 4 || (length == 4 && !tail(3)) || (length >= 3 && !tail(2)) ||
        (length >= 2 && !tail(1)) || (lead == 0xE0 && byte(1) < 0xA0) ||
        (lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) > 0x8F)) {
        return false;
    }
    return !(lead >= 0x80 && lead <= 0xC1) && lead <= 0xF4;
}

// The plain rules. A terminated source is given without its terminator. Moves *source and *target
// as the conversion does.
ConversionResult plain_decode(const UTF8 **source, const UTF8 *end, UTF16 **target,
                              const UTF16 *target_end, unsigned flags, bool terminated)
{
    const auto size = end - *source;
    const bool dots = size > 0 && size <= 2 && memcmp(*source, "..", size_t(size)) == 0;
    for (; *source < end; ++*source) {
        const UTF8 *s = *source;
        const int extra = trailing(*s);
        if (!terminated && extra >= end - s) {
            return sourceExhausted;
        }
        if (!legal(s, size_t(end - s), size_t(extra) + 1)) {
            return sourceIllegal;
        }
        UTF32 ch = extra == 0 ? *s : *s & (0x3Fu >> extra);
        for (int i = 1; i <= extra; ++i) {
            ch = ch << 6 | (s[i] & 0x3Fu);
        }
        if (*target == target_end) {
            return targetExhausted;
        }
        if (ch > 0xFFFF) {
            if (target_end - *target < 2) {
                return targetExhausted;
            }
            *(*target)++ = static_cast<UTF16>(0xD800 + ((ch - 0x10000) >> 10));
            ch = 0xDC00 + ((ch - 0x10000) & 0x3FF);
        } else if ((flags & strictConversion) != 0 && ch >= 0xD800 && ch <= 0xDFFF) {
            return sourceIllegal;
        } else if ((flags & sfmConversion) != 0 && ch < 0x80) {
            const bool last = !terminated && s + 1 == end && !dots;
            ch = (ch == ' ' || ch == '.') && !last ? ch : sfm_A2U[ch];
        }
        *(*target)++ = static_cast<UTF16>(ch);
        *source += extra;
    }
    if (terminated) {
        if (*target == target_end) {
            return targetExhausted;
        }
        ++*source;
        *(*target)++ = 0;
    }
    return conversionOK;
}

Outcome<UTF16> plain_decode(const Bytes &s, size_t room, unsigned flags, bool terminated)
{
    Outcome<UTF16> out = {conversionOK, 0, 0, Units(room, background)};
    const UTF8 *from = s.data();
    UTF16 *to = out.target.data();
    out.result = plain_decode(&from, from + s.size(), &to, to + room, flags, terminated);
    out.consumed = static_cast<size_t>(from - s.data());
    out.produced = static_cast<size_t>(to - out.target.data());
    return out;
}

// A text that ends where its memory ends and begins `offset` elements behind where that begins.
template <typename T>
std::vector<T> placed(const std::vector<T> &text, size_t offset, bool terminated)
{
    std::vector<T> memory(offset + text.size() + (terminated ? 1 : 0));
    std::copy(text.begin(), text.end(), memory.begin() + ptrdiff_t(offset));
    return memory;
}

auto converter(const UTF8 *, const UTF16 *)
{
    return ConvertUTF8toUTF16;
}
auto converter(const UTF16 *, const UTF8 *)
{
    return ConvertUTF16toUTF8;
}

template <typename To, typename From>
Outcome<To> run(const std::vector<From> &s, size_t room, unsigned flags, bool terminated,
                size_t offset)
{
    ++offset; // an empty source has an address too
    const std::vector<From> memory = placed(s, offset, terminated);
    std::vector<To> target(offset + room, background);
    const From *const source = memory.data() + offset;
    const From *from = source;
    To *const start = target.data() + offset;
    To *to = start;
    const ConversionResult result = converter(from, to)(
        &from, terminated ? nullptr : source + s.size(), &to, start + room, flags);
    return {result, size_t(from - source), size_t(to - start), {start, start + room}};
}

// Holds the conversion against the plain rules, with the processor's wide steps and without.
template <typename To, typename From>
void check(const Outcome<To> &expected, const std::vector<From> &s, unsigned flags, bool terminated,
           size_t offset)
{
    for (bool wide : {true, false}) {
        koutil::utf8_allow_wide_steps(wide);
        ASSERT_EQ(run<To>(s, expected.target.size(), flags, terminated, offset), expected)
            << "flags " << flags << " terminated " << terminated << " wide " << wide << " source "
            << testing::PrintToString(s);
    }
    koutil::utf8_allow_wide_steps(true);
}

void check_decode(const Bytes &s, size_t room, unsigned flags, bool terminated, size_t offset = 0)
{
    check(plain_decode(s, room, flags, terminated), s, flags, terminated, offset);
}

void append(Bytes &text, UTF32 ch)
{
    const int extra = ch < 0x80 ? 0 : ch < 0x800 ? 1 : ch < 0x10000 ? 2 : 3;
    constexpr UTF32 marks[] = {0, 0xC0, 0xE0, 0xF0};
    text.push_back(static_cast<UTF8>(marks[extra] | ch >> 6 * extra));
    for (int i = extra; i-- > 0;) {
        text.push_back(static_cast<UTF8>(0x80 | (ch >> 6 * i & 0x3F)));
    }
}

// The encoding, held against the decoding of what it wrote.
void check_encode(const Units &s, size_t room, unsigned flags, bool terminated, size_t offset = 0)
{
    const Outcome<UTF8> out = run<UTF8>(s, room, flags, terminated, offset);
    check(out, s, flags, terminated, offset);
    const auto behind = out.target.begin() + static_cast<ptrdiff_t>(out.produced);
    ASSERT_EQ(std::count(behind, out.target.end(), background), out.target.end() - behind);
    Units units = s;
    units.resize(s.size() + (terminated ? 1 : 0));
    for (UTF16 &unit : units) {
        const bool mapped = (flags & sfmConversion) != 0 && unit >= 0xF000 && unit <= 0xF029;
        unit = !mapped ? unit : unit < 0xF020 ? unit & 0x1F : sfm_U2A[unit & 0xF];
    }
    const Units taken(units.begin(), units.begin() + static_cast<ptrdiff_t>(out.consumed));
    ASSERT_EQ(plain_decode({out.target.begin(), behind}, taken.size(), 0, false),
              (Outcome<UTF16>{conversionOK, out.produced, taken.size(), taken}));
    ASSERT_EQ(out.result == conversionOK, taken == units);
    if (out.result != conversionOK) {
        const UTF16 next = units[out.consumed];
        Bytes alone;
        append(alone, next);
        const size_t length = alone.size() + (next >> 10 == 0xD800 >> 10 ? 1 : 0); // of a pair
        ASSERT_TRUE(out.result == targetExhausted
                        ? room - out.produced < length
                        : (flags & strictConversion) != 0 && next >> 11 == 0xD800 >> 11);
    }
}

// Random text without zeros: runs of characters of one kind, now and then a bad byte or surrogate.
Bytes random_text(std::mt19937 &random, size_t characters, bool clean)
{
    constexpr struct {
        UTF32 first, last;
    } kinds[] = {{1, 0x7F},        {0x61, 0x7A},        {0x80, 0x7FF},   {0x800, 0xD7FF},
                 {0xE000, 0xFFFF}, {0x10000, 0x10FFFF}, {0xD800, 0xDFFF}};
    Bytes text;
    while (characters > 0) {
        const auto &kind = kinds[random() % (clean ? 6 : std::size(kinds))];
        for (size_t run = 1 + random() % 12; run > 0 && characters > 0; --run, --characters) {
            append(text, kind.first + random() % (kind.last - kind.first + 1));
        }
        if (!clean && random() % 16 == 0) {
            text[random() % text.size()] = static_cast<UTF8>(1 + random() % 255);
        }
    }
    return text;
}

int sign(int value)
{
    return (value > 0) - (value < 0);
}

} // namespace

TEST(Utf8, EverySequenceOfThreeBytesAloneAndInsideAText)
{
    const auto same = [](const UTF8 *s, size_t size, unsigned flags) {
        UTF16 target[64];
        UTF16 expected[64];
        const UTF8 *from = s;
        const UTF8 *expected_from = s;
        UTF16 *to = target;
        UTF16 *expected_to = expected;
        return ConvertUTF8toUTF16(&from, s + size, &to, target + 64, flags) ==
                   plain_decode(&expected_from, s + size, &expected_to, expected + 64, flags,
                                false) &&
               from == expected_from && std::equal(target, to, expected, expected_to);
    };
    UTF8 text[40];
    for (unsigned value = 0; value < 1u << 24; value += slowness) {
        const UTF8 s[3] = {static_cast<UTF8>(value >> 16), static_cast<UTF8>(value >> 8),
                           static_cast<UTF8>(value)};
        const unsigned flags = value >> 4 & 3;
        const size_t length = static_cast<size_t>(trailing(s[0])) + 1;
        ASSERT_TRUE(same(s, 3, flags)) << value;
        ASSERT_EQ(isLegalUTF8Sequence(s, s + 3), length <= 3 && legal(s, 3, length)) << value;
        if (s[0] >= 0x80 && value / 3 % 4 == 0) { // wide steps see it at any place of a block
            const size_t place = value / 12 % 35;
            memset(text, 'x', sizeof text);
            memcpy(text + place, s, sizeof s);
            ASSERT_TRUE(same(text, sizeof text, flags & 1)) << value;
        }
    }
}

TEST(Utf8, RandomTextAtEveryAlignmentAndLimit)
{
    std::mt19937 random(7);
    for (unsigned round = 0; round < 4000 / slowness; ++round) {
        const Bytes text = random_text(random, random() % 130, round % 2 == 0);
        const Units units = plain_decode(text, text.size(), 0, false).target;
        const unsigned flags = random() % 4;
        const bool terminated = random() % 2 == 0;
        const size_t offset = random() % 33;
        check_decode(text, random() % (text.size() + 60), flags, terminated, offset);
        check_decode(text, text.size() + 60, flags, terminated, offset);
        check_encode(units, random() % (text.size() + 70), flags, terminated, offset);
        check_encode(units, 3 * units.size() + 70, flags, terminated, offset);
    }
    const Bytes text = random_text(random, 70, true);
    const Units units = plain_decode(text, text.size(), 0, false).target;
    for (size_t limit = 0; limit < text.size() + 2; ++limit) {
        check_decode(Bytes(text.begin(), text.begin() + std::min<ptrdiff_t>(limit, text.size())),
                     text.size(), 0, false);
        check_decode(text, limit, 0, limit % 2 == 0);
        check_encode(units, limit, 0, limit % 2 == 0);
    }
}

TEST(Utf8, ConversionsByExample)
{
    const struct {
        std::string source;
        unsigned flags;
        ConversionResult result;
        Units units;
    } decodes[] = {
        {"a:b.", sfmConversion, conversionOK, {'a', 0xF022, 'b', 0xF029}},
        {".", sfmConversion, conversionOK, {'.'}},
        {"..", sfmConversion, conversionOK, {'.', '.'}},
        {"...", sfmConversion, conversionOK, {'.', '.', 0xF029}},
        {"a b ", sfmConversion, conversionOK, {'a', ' ', 'b', 0xF028}},
        {std::string("\0\x01/\x7F", 4), sfmConversion, conversionOK, {0xF000, 0xF001, '/', 0x7F}},
        {"\xED\xA0\x80", strictConversion, sourceIllegal, {}},
        {"\xF4\x90\x80\x80", 0, sourceIllegal, {}},
        {"\xF8\x88\x80\x80\x80", 0, sourceIllegal, {}},
        {"\xF8\x88\x80\x80", 0, sourceExhausted, {}},
    };
    for (const auto &c : decodes) {
        const Outcome<UTF16> out = run<UTF16>(bytes(c.source), 8, c.flags, false, 0);
        EXPECT_EQ(out.result, c.result) << c.source;
        EXPECT_EQ(Units(out.target.begin(), out.target.begin() + ptrdiff_t(out.produced)), c.units);
        EXPECT_EQ(out.consumed, c.result == conversionOK ? c.source.size() : c.units.size());
    }
    const struct {
        Units source;
        unsigned flags, room;
        ConversionResult result;
        std::string text;
    } encodes[] = {
        {{0xF001, 0xF028, 0xF02A}, sfmConversion, 9, conversionOK, "\x01 \xEF\x80\xAA"},
        {{'a', 0xF000}, sfmConversion, 9, conversionOK, std::string("a\0", 2)},
        {{0xD800}, strictConversion, 9, conversionOK, "\xED\xA0\x80"},
        {{0xD800, 'x'}, strictConversion, 9, sourceIllegal, ""},
        {{0xD800, 'x'}, 0, 9, conversionOK, "\xED\xA0\x80x"},
        {{0xDC00}, strictConversion, 9, sourceIllegal, ""},
        {{0xD83D, 0xDE00}, 0, 4, conversionOK, "\xF0\x9F\x98\x80"},
        {{0xD83D, 0xDE00}, 0, 3, targetExhausted, ""},
    };
    for (const auto &c : encodes) {
        const Outcome<UTF8> out = run<UTF8>(c.source, c.room, c.flags, false, 0);
        EXPECT_EQ(out.result, c.result) << c.text;
        EXPECT_EQ(std::string(out.target.begin(), out.target.begin() + ptrdiff_t(out.produced)),
                  c.text);
        EXPECT_EQ(out.consumed, c.result == conversionOK ? c.source.size() : 0);
    }
    const Bytes cut = {0xC3};
    EXPECT_EQ(isLegalUTF8Sequence(cut.data() + 1, cut.data() + 1), 0);
    EXPECT_EQ(isLegalUTF8Sequence(cut.data(), cut.data() + 1), 0);
}

namespace
{

std::string changed(const std::string &text, void (*change)(UTF8 *))
{
    Bytes exact = placed(bytes(text), 0, true);
    change(exact.data());
    return reinterpret_cast<const char *>(exact.data());
}

UTF32 looked_up(const utf8hashbkt_t *table, UTF32 key)
{
    for (size_t bucket = key % 1949; table[bucket].hkey != 0; bucket = (bucket + 39) % 1949) {
        if (table[bucket].hkey == key) {
            return table[bucket].hval;
        }
    }
    return key;
}

// The sign of how well-formed texts compare: as their small letters do.
int plain_compare(const std::string &s1, const std::string &s2)
{
    const Bytes a = placed(bytes(changed(s1, utf8tolower)), 0, true);
    const Bytes b = placed(bytes(changed(s2, utf8tolower)), 0, true);
    auto [p, q] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    if (p == a.end()) {
        return 0;
    }
    for (; p != a.begin() && ((*p & 0xC0) == 0x80 || (*q & 0xC0) == 0x80); --p, --q) {
    }
    const int longer = trailing(*p) - trailing(*q);
    return longer != 0 ? sign(longer) : std::vector(p, a.end()) < std::vector(q, b.end()) ? -1 : 1;
}

int compare(const Bytes &s1, const Bytes &s2, int n, size_t offset)
{
    const Bytes memory1 = placed(s1, offset, true);
    const Bytes memory2 = placed(s2, offset / 2, true);
    const UTF8 *const a = memory1.data() + offset;
    const UTF8 *const b = memory2.data() + offset / 2;
    return n < 0 ? utf8casecmp(a, b) : utf8ncasecmp(a, b, n);
}

} // namespace

TEST(Utf8Case, TablesAreInverseAndKnowTheirRepertoire)
{
    size_t two = 0;
    size_t three = 0;
    for (size_t i = 0; i < 1949; ++i) {
        const utf8hashbkt_t &entry = utf8hash_tolower[i];
        two += entry.hkey > 0xFF && entry.hkey < 0x10000;
        three += entry.hkey > 0xFFFF;
        EXPECT_EQ(looked_up(utf8hash_toupper, entry.hval), entry.hkey);
    }
    EXPECT_EQ(two, 352u);
    EXPECT_EQ(three, 295u);
    EXPECT_EQ(utf8hash_tolower[1323].hkey, 0xC380u);
    const struct {
        const char *capital, *small;
    } pairs[] = {{"ÀÉÎ ABC", "àéî abc"},
                 {"Ÿ", "ÿ"},
                 {"ЀЁЂ", "Ѐёђ"},
                 {"Ⴀ", "ა"},
                 {"Ｚ", "ｚ"},
                 {"Ⅷ", "ⅷ"},
                 {"ῼ", "ῼ"},
                 {"Ὼ", "ὼ"},
                 {"@[`{é", "@[`{é"},
                 {"İǅ\u2126", "İǅ\u2126"},
                 {"ЁЖ a VERY long ASCII part, LONGER than one step Ж", "ёж a very long ascii part, "
                                                                       "longer than one step ж"}};
    for (const auto &c : pairs) {
        EXPECT_EQ(changed(c.capital, utf8tolower), c.small);
    }
    EXPECT_EQ(changed("àéî abc ÿ ა{", utf8toupper), "ÀÉÎ ABC Ÿ Ⴀ{");
    // Nothing is validated, and nothing is touched past a terminator.
    EXPECT_EQ(changed("\303AÀ", utf8tolower), "\303Aà");
    EXPECT_EQ(changed("\200A\370ABCDE", utf8tolower), "\200a\370ABCDe");
    for (const char *cut : {"\303", "\341\202", "\360\220\220", "\374AB"}) {
        EXPECT_EQ(changed(cut, utf8tolower), cut);
    }
}

TEST(Utf8Case, ComparisonsByExample)
{
    const struct {
        const char *s1, *s2;
        int n, expected;
    } cases[] = {
        {"Ünïcode", "üNÏCODE", -1, 0},
        {"a", "b", -1, -1},
        {"a", "é", -1, -1},
        {"", "é", -1, -195},
        {"", "é", 9, -1},
        {"\x80", "", -1, 128},
        {"\x80", "", 9, 1},
        {"Aé", "aé", 2, -1},
        {"Aé", "aa", 2, 1},
        {"Aé", "aÉ", 3, 0},
        {"é", "É", 0, 0},
        {"x", "y", -5, -1},
        {"\xF8\x81", "\xF8\x82", 9, -1},
        {"é", "ê", 2, -1},
        {"ЯА", "яб", -1, -1},
        {"\xC3", "\xC3", -1, 0},
        {"\xC3", "à", -1, -1},
        {"\xC3", "\xC3", 9, 0},
        {"abcdefghijklmnopqrstuvwX", "ABCDEFGHIJKLMNOPQRSTUVWx", -1, 0},
        {"a_report_of_2O24", "A_Report_of_2o23", -1, 1},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(compare(bytes(c.s1), bytes(c.s2), c.n, 0), c.expected) << c.s1 << " " << c.s2;
        EXPECT_EQ(sign(compare(bytes(c.s2), bytes(c.s1), c.n, 0)), -sign(c.expected));
    }
    EXPECT_EQ(utf8ncasecmp(bytes("a").data(), bytes("b").data(), -1), 0);
}

TEST(Utf8Case, RandomTextsCompareAsTheirSmallLetters)
{
    std::mt19937 random(11);
    for (unsigned round = 0; round < 30000 / slowness; ++round) {
        const Bytes text = random_text(random, random() % 60, true);
        const Bytes change = random_text(random, 1, true);
        std::string other(text.begin(), text.end());
        const std::string one = other;
        size_t place = random() % (one.size() + 1);
        while (place < one.size() && (one[place] & 0xC0) == 0x80) {
            ++place;
        }
        if (random() % 2 == 0) {
            other.replace(place, std::string::npos, {change.begin(), change.end()});
        }
        other = changed(other, random() % 2 == 0 ? utf8tolower : utf8toupper);
        const size_t offset = random() % 33;
        const int all = static_cast<int>(one.size() + other.size());
        for (const int n : {-1, all}) {
            ASSERT_EQ(sign(compare(text, bytes(other), n, offset)), plain_compare(one, other))
                << one;
        }
        ASSERT_EQ(compare(text, bytes(other), static_cast<int>(place), offset), 0) << one;
    }
}
