// strint.cpp - integers with unit letters as text.
#include "koutil/strint.h"

#include "koutil/snprintf.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace
{

constexpr int minutes_per_day = 24 * 60;
constexpr int minutes_per_hour = 60;

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
        const auto upper = static_cast<unsigned char>(units[unit]);
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

// The digit pairs "00" to "99", and the powers of ten from 10^0.
constexpr std::array<char, 200> make_pairs()
{
    std::array<char, 200> pairs{};
    for (size_t i = 0; i < 100; i++) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}

constexpr std::array<uint64_t, 20> make_powers()
{
    std::array<uint64_t, 20> powers{1};
    for (size_t i = 1; i < powers.size(); i++) {
        powers[i] = powers[i - 1] * 10;
    }
    return powers;
}

constexpr std::array<char, 200> digit_pairs = make_pairs();
constexpr std::array<uint64_t, 20> powers_of_ten = make_powers();

// 1233 / 4096 is log10(2), near enough for 64 bits: the guess is right or one too small.
unsigned decimal_digits(uint64_t number)
{
    const auto guess = static_cast<unsigned>(std::bit_width(number | 1)) * 1233 / 4096;
    return guess + (number >= powers_of_ten[guess] ? 1 : 0) + (number == 0 ? 1 : 0);
}

// Writes exactly `digits` characters, from the last one backwards.
void write_decimal(char *text, unsigned digits, uint64_t number)
{
    while (number >= 100) {
        digits -= 2;
        memcpy(text + digits, &digit_pairs[number % 100 * 2], 2);
        number /= 100;
    }
    if (number >= 10) {
        memcpy(text, &digit_pairs[number * 2], 2);
    } else {
        *text = static_cast<char>('0' + number);
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
    const bool negative = ValIn < 0;
    uint64_t number = negative ? 0 - static_cast<uint64_t>(ValIn) : static_cast<uint64_t>(ValIn);
    unsigned unit = 0;
    if (number != 0 && number % 1024 == 0) {
        unit = std::min(static_cast<unsigned>(std::countr_zero(number)) / bits_per_unit, max_unit);
        number >>= unit * bits_per_unit;
    }
    const unsigned digits = decimal_digits(number);
    const size_t length = digits + (negative ? 1 : 0) + (unit != 0 ? 1 : 0);
    if (length >= NumberStrSz) {
        if (NumberStrSz != 0) {
            *NumberStr = '\0';
        }
        return 0;
    }
    char *at = NumberStr;
    if (negative) {
        *at++ = '-';
    }
    write_decimal(at, digits, number);
    at[digits] = units[unit];
    NumberStr[length] = '\0';
    return 1;
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
