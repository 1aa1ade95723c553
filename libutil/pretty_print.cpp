// pretty_print.cpp - times and sizes in a few characters.
#include "koutil/pretty_print.h"

#include "koutil/snprintf.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

namespace
{

struct time_pair_s {
    uint32_t divisor; // minutes per unit
    char suffix;
};
using time_pair_t = time_pair_s;

struct space_pair_s {
    uint64_t divisor; // bytes per unit
    char suffix;
};
using space_pair_t = space_pair_s;

constexpr time_pair_t time_arr[] = {{60, 'h'},    {1440, 'd'},   {10080, 'w'},
                                    {43200, 'M'}, {525600, 'y'}, {0, 0}};
constexpr size_t time_units = std::size(time_arr) - 1;

constexpr space_pair_t space10_arr[] = {
    {UINT64_C(1000), 'K'},          {UINT64_C(1000000), 'M'},          {UINT64_C(1000000000), 'G'},
    {UINT64_C(1000000000000), 'T'}, {UINT64_C(1000000000000000), 'P'}, {0, 0}};

constexpr space_pair_t space2_arr[] = {{UINT64_C(1) << 10, 'K'}, {UINT64_C(1) << 20, 'M'},
                                       {UINT64_C(1) << 30, 'G'}, {UINT64_C(1) << 40, 'T'},
                                       {UINT64_C(1) << 50, 'P'}, {0, 0}};

constexpr double time_limit = 2147483648.0;            // 2^31
constexpr double space_limit = 18446744073709551616.0; // 2^64

const space_pair_t *space_units(int flags)
{
    return (flags & PRETTY_BINARY) != 0 ? space2_arr : space10_arr;
}

// Length of what stands in a buffer of `len` bytes for a text of which VoSnprintf said `full`.
unsigned standing(int full, unsigned len)
{
    return full < 0 ? len - 1 : std::min(static_cast<unsigned>(full), len - 1);
}

// Writes `amount` with `decimals` places and a unit letter; returns the length that stands.
unsigned write_amount(char *str, unsigned len, int decimals, double amount, char suffix)
{
    return standing(VoSnprintf(str, len, "%.*lf%c", decimals, amount, suffix), len);
}

// Tries the units upwards until one gives a text shorter than its limit: 5 characters with a
// fraction, `whole_limit` without one. The last text stands in any case.
template <typename Pair>
void walk(char *str, unsigned len, int flags, double value, const Pair *units, unsigned whole_limit)
{
    for (const Pair *unit = units; unit->divisor != 0; unit++) {
        const double amount = value / static_cast<double>(unit->divisor);
        if ((flags & PRETTY_INTEGER) == 0 && write_amount(str, len, 1, amount, unit->suffix) < 5) {
            return;
        }
        if (write_amount(str, len, 0, amount, unit->suffix) < whole_limit) {
            return;
        }
    }
}

bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The value of a run of digits and periods, read as far as it makes a number.
bool read_run(std::string_view run, double *out)
{
    const char *const begin = run.data();
    const auto [end, error] =
        std::from_chars(begin, begin + run.size(), *out, std::chars_format::fixed);
    if (error == std::errc::result_out_of_range) {
        const bool large = run.find_first_of("123456789") < run.find('.');
        *out = large ? HUGE_VAL : 0;
        return true;
    }
    return error == std::errc{};
}

// The multiplier that follows the number; 0 where what follows is no unit.
template <typename Pair>
uint64_t read_unit(const char *text, const Pair *units)
{
    if (*text == '\0' || is_space(*text)) {
        return 1;
    }
    if (text[1] != '\0' && !is_space(text[1])) {
        return 0;
    }
    const Pair *unit = units;
    while (unit->divisor != 0 && lower(unit->suffix) != lower(*text)) {
        unit++;
    }
    return unit->divisor;
}

// Reads "<number>[unit]" and checks it against `limit`; false leaves `*out` as it was.
template <typename Pair, typename Value>
bool scan(const char *text, int flags, const Pair *units, double limit, Value *out)
{
    if (text == nullptr) {
        return false;
    }
    while (is_space(*text)) {
        text++;
    }
    if ((flags & PRETTY_INTEGER) != 0 && strchr(text, '.') != nullptr) {
        return false;
    }
    const std::string_view run(text, strspn(text, "0123456789."));
    const uint64_t multiplier = read_unit(text + run.size(), units);
    double number = 0;
    if (run.empty() || multiplier == 0 || !read_run(run, &number)) {
        return false;
    }
    const double product = number * static_cast<double>(multiplier);
    if (product >= limit) {
        return false;
    }
    *out = static_cast<Value>(product);
    return true;
}

} // namespace

void pretty_print_time(char *str, unsigned int len, int flags, uint32_t value)
{
    if (len == 0) {
        return;
    }
    if ((flags & PRETTY_RAW) != 0) {
        VoSnprintf(str, len, "%u", value);
        return;
    }
    if (value < time_arr[0].divisor) {
        VoSnprintf(str, len, "%um", value);
        return;
    }
    for (size_t i = time_units; i-- > 0;) {
        const time_pair_t &unit = time_arr[i];
        if (value % unit.divisor == 0 &&
            standing(VoSnprintf(str, len, "%u%c", value / unit.divisor, unit.suffix), len) < 5) {
            return;
        }
    }
    walk(str, len, flags, value, time_arr, 4);
}

void pretty_print_space(char *str, unsigned int len, int flags, uint64_t value)
{
    if (len == 0) {
        return;
    }
    if ((flags & PRETTY_RAW) != 0 || value < 1000) {
        VoSnprintf(str, len, "%lu", static_cast<unsigned long>(value));
        return;
    }
    walk(str, len, flags, static_cast<double>(value), space_units(flags), 5);
}

int pretty_scan_time(const char *f_str, int flags, uint32_t *value_out)
{
    *value_out = 0;
    return scan(f_str, flags, time_arr, time_limit, value_out) ? 0 : -1;
}

int pretty_scan_space(const char *f_str, int flags, uint64_t *value_out)
{
    *value_out = 0;
    return scan(f_str, flags, space_units(flags), space_limit, value_out) ? 0 : -1;
}
