// strint.cpp - integers with unit letters as text.
#include "koutil/strint.h"

#include "koutil/snprintf.h"

#include <array>
#include <bit>
#include <charconv>
#include <cstring>

namespace
{

constexpr int minutes_per_day = 24 * 60;
constexpr int minutes_per_hour = 60;
constexpr size_t number_size = 32;

// Unit letters by the number of tens of bits that they shift.
constexpr char units[] = {'\0', 'K', 'M', 'G', 'T', 'P'};
constexpr unsigned bits_per_unit = 10;
constexpr unsigned max_unit = 5;

// What a character means behind the sign and the prefix of a number.
enum Kind : uint8_t {
    kind_bad,
    kind_digit,
    kind_letter,
    kind_unit,
    kind_comma,
    kind_space,
    kind_end
};

struct Meaning {
    Kind kind = kind_bad;
    uint8_t amount = 0; // value of a digit or letter, shift of a unit
};

constexpr std::array<Meaning, 256> make_meanings()
{
    std::array<Meaning, 256> table{};
    for (uint8_t digit = 0; digit < 10; digit++) {
        table[static_cast<size_t>('0' + digit)] = {kind_digit, digit};
    }
    for (uint8_t letter = 0; letter < 6; letter++) {
        const Meaning meaning = {kind_letter, static_cast<uint8_t>(10 + letter)};
        table[static_cast<size_t>('a' + letter)] = table[static_cast<size_t>('A' + letter)] =
            meaning;
    }
    for (unsigned unit = 1; unit <= max_unit; unit++) {
        const Meaning meaning = {kind_unit, static_cast<uint8_t>(unit * bits_per_unit)};
        const auto upper = static_cast<size_t>(units[unit]);
        table[upper] = table[upper - 'A' + 'a'] = meaning;
    }
    table[','] = {kind_comma};
    table[' '] = table['\t'] = table['\v'] = table['\f'] = {kind_space};
    table['\n'] = table['\r'] = table['\0'] = {kind_end};
    return table;
}

constexpr std::array<Meaning, 256> meanings = make_meanings();

Meaning meaning_of(char c)
{
    return meanings[static_cast<unsigned char>(c)];
}

bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Whether only white space stands from `text` to its end.
bool only_space(const char *text)
{
    while (meaning_of(*text).kind == kind_space) {
        text++;
    }
    return meaning_of(*text).kind == kind_end;
}

int give(int64_t *out, bool negative, uint64_t magnitude)
{
    *out = static_cast<int64_t>(negative ? 0 - magnitude : magnitude);
    return 1;
}

int refuse(int64_t *out)
{
    *out = 0;
    return 0;
}

// The digits behind the prefix. A number in base 8 also runs in base 16, which is what counts once
// an 8 or 9 has shown that it cannot be octal.
int read_digits(const char *text, unsigned base, bool negative, int64_t *out)
{
    uint64_t value = 0;
    uint64_t as_hex = 0;
    bool octal = base == 8;
    bool seen_digit = base != 10;
    for (;; text++) {
        const Meaning meaning = meaning_of(*text);
        switch (meaning.kind) {
        case kind_letter:
            if (base != 16) {
                return refuse(out);
            }
            [[fallthrough]];
        case kind_digit:
            octal = octal && meaning.amount < 8;
            value = value * base + meaning.amount;
            as_hex = as_hex * 16 + meaning.amount;
            seen_digit = true;
            break;
        case kind_unit:
            if (!seen_digit) {
                return refuse(out);
            }
            value <<= meaning.amount;
            as_hex <<= meaning.amount;
            break;
        case kind_comma:
            break;
        case kind_space:
            if (!only_space(text)) {
                return refuse(out);
            }
            [[fallthrough]];
        case kind_end:
            return give(out, negative, base == 8 && !octal ? as_hex : value);
        case kind_bad:
            return refuse(out);
        }
    }
}

} // namespace

int KoMinutesToDHM(int32_t Minutes, char *StrOut, size_t StrOutSz)
{
    const int64_t minutes = Minutes < 0 ? -static_cast<int64_t>(Minutes) : Minutes;
    const int days = static_cast<int>(minutes / minutes_per_day);
    const int rest = static_cast<int>(minutes % minutes_per_day);
    VoSnprintf(StrOut, StrOutSz, "%s%3dd-%2dh-%2dm", Minutes < 0 ? "-" : " ", days,
               rest / minutes_per_hour, rest % minutes_per_hour);
    return 0;
}

int IntToStr64(int64_t ValIn, char *NumberStr, size_t NumberStrSz)
{
    const uint64_t magnitude =
        ValIn < 0 ? 0 - static_cast<uint64_t>(ValIn) : static_cast<uint64_t>(ValIn);
    unsigned unit = 0;
    if (magnitude != 0 && (magnitude & 1023) == 0) {
        unit = static_cast<unsigned>(std::countr_zero(magnitude)) / bits_per_unit;
        unit = unit < max_unit ? unit : max_unit;
    }
    // Every text fits into number_size: a buffer as large as that is written directly.
    char local[number_size];
    char *const begin = NumberStrSz >= number_size ? NumberStr : local;
    char *at = begin;
    if (ValIn < 0) {
        *at++ = '-';
    }
    at = std::to_chars(at, begin + number_size, magnitude >> (unit * bits_per_unit)).ptr;
    if (unit != 0) {
        *at++ = units[unit];
    }
    *at = '\0';
    if (begin == NumberStr) {
        return 1;
    }
    const auto length = static_cast<size_t>(at - begin);
    if (length < NumberStrSz) {
        memcpy(NumberStr, begin, length + 1);
        return 1;
    }
    if (NumberStrSz != 0) {
        *NumberStr = '\0';
    }
    return 0;
}

int StrToInt64(const char *NumberStr, int64_t *ValOut)
{
    if (NumberStr == nullptr || *NumberStr == '\0') {
        return refuse(ValOut);
    }
    const char *text = NumberStr;
    while (is_space(*text)) {
        text++;
    }
    const bool negative = *text == '-';
    text += negative;

    // Nearly every number is plain decimal with at most one unit.
    if (*text >= '1' && *text <= '9') {
        const char *at = text;
        uint64_t value = 0;
        for (unsigned digit; (digit = static_cast<unsigned char>(*at) - unsigned{'0'}) < 10; at++) {
            value = value * 10 + digit;
        }
        Meaning next = meaning_of(*at);
        if (next.kind == kind_unit) {
            value <<= next.amount;
            next = meaning_of(at[1]);
        }
        if (next.kind == kind_end) {
            return give(ValOut, negative, value);
        }
        return read_digits(text, 10, negative, ValOut);
    }
    if (*text != '0') {
        return read_digits(text, 10, negative, ValOut);
    }
    if (text[1] == 'x' || text[1] == 'X') {
        return read_digits(text + 2, 16, negative, ValOut);
    }
    return read_digits(text + 1, 8, negative, ValOut);
}
