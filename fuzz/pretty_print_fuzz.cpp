// pretty_print_fuzz.cpp - sizes and times: what is printed stays in its room and means the number
// within its rounding; any text is scanned as the platform reads its digits, or refused.
#include "fuzz.h"
#include "koutil/pretty_print.h"
#include "koutil/subr.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace
{

// What a unit letter is worth, 0 for none.
long double unit_of(char letter, bool time, int flags)
{
    const std::string letters = time ? "hdwmy" : "kmgtp";
    const size_t at = letters.find(static_cast<char>(letter | 0x20));
    if (at == letters.npos) {
        return 0;
    }
    constexpr long double minutes[] = {60, 1440, 10080, 43200, 525600};
    const long double step = (flags & PRETTY_BINARY) != 0 ? 1024 : 1000;
    return time ? minutes[at] : std::pow(step, static_cast<long double>(at + 1));
}

struct Scanned {
    bool good;
    long double value;
    bool near_limit; // where rounding may decide
};

// A plain reading of a text.
Scanned expected(const std::string &text, bool time, int flags)
{
    const char *spaces = " \t\n\v\f\r";
    const size_t start = std::min(text.find_first_not_of(spaces), text.size());
    const std::string body = text.substr(start);
    const size_t digits = std::min(body.find_first_not_of("0123456789."), body.size());
    const std::string number = body.substr(0, digits);
    const std::string rest = body.substr(digits);
    const bool bare = rest.empty() || strchr(spaces, rest[0]) != nullptr;
    const bool letter = !bare && (rest.size() == 1 || strchr(spaces, rest[1]) != nullptr);
    const long double unit = bare ? 1 : letter ? unit_of(rest[0], time, flags) : 0;
    const bool refused = (flags & PRETTY_INTEGER) != 0 && body.find('.') != body.npos;
    if (refused || unit == 0 || number.find_first_of("0123456789") > number.find('.') + 1) {
        return {false, 0, false};
    }
    const long double value = strtold(number.c_str(), nullptr) * unit;
    const long double limit = time ? 0x1p31L : 0x1p64L;
    return {value < limit, value, std::fabs(value - limit) < limit * 1e-12L};
}

template <typename Value>
void scan(int (*scanner)(const char *, int, Value *), const char *text, bool time, int flags)
{
    Value value = 1;
    const int status = scanner(text, flags, &value);
    const Scanned wanted = expected(text, time, flags);
    if (!wanted.near_limit) {
        require((status == 0) == wanted.good && (status == 0 || value == 0));
        require(status != 0 || std::fabs(static_cast<long double>(value) - wanted.value) <=
                                   1 + wanted.value * 0x1p-51L);
    }
}

template <typename Value>
void print(void (*printer)(char *, unsigned, int, Value), Value value, bool time, int flags)
{
    char whole[32];
    printer(whole, sizeof whole, flags, value);
    for (unsigned room = 0; room < 10; room++) {
        const Text exact = room_of(room);
        printer(exact.get(), room, flags, value);
        require(room == 0 || memchr(exact.get(), '\0', room) != nullptr);
        require(room < 6 || room <= strlen(whole) || strcmp(exact.get(), whole) == 0);
    }
    char *end = nullptr;
    const long double number = strtold(whole, &end);
    const bool minutes = time && *end == 'm';
    const long double unit = *end == '\0' || minutes ? 1 : unit_of(*end, time, flags);
    const bool fraction = strchr(whole, '.') != nullptr;
    const auto wanted = static_cast<long double>(value);
    require(unit != 0 && (*end == '\0' || end[1] == '\0'));
    require(std::fabs(number * unit - wanted) <=
            (unit == 1 ? 0 : unit * (fraction ? 0.0501L : 0.501L) + wanted * 0x1p-51L));
}

void show_size(uint64_t size)
{
    const Text exact = room_of(11);
    SizeStr(size, exact.get());
    char *end = nullptr;
    const long double number = strtold(exact.get(), &end);
    const std::string unit = end;
    const size_t at = unit == " B" ? 0 : 1 + std::string("KMGTPE").find(unit[1]);
    require(at <= 6 && (at == 0 || unit.substr(2) == "B"));
    const long double scale = std::pow(1024.0L, static_cast<long double>(at));
    require(std::fabs(number * scale - static_cast<long double>(size)) <=
            scale * 0.0051L + static_cast<long double>(size) * 0x1p-23L);
    const int shift = BlockShift(size);
    require(size == 0 ? shift == 0 : size >> shift << shift == size && (size >> shift) % 2 == 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    uint64_t number = 0;
    memcpy(&number, data, std::min(size, sizeof number));
    const Text text = text_of(data, size);
    for (int flags = 0; flags < 16; flags++) {
        scan(pretty_scan_time, text.get(), true, flags);
        scan(pretty_scan_space, text.get(), false, flags);
        print(pretty_print_time, static_cast<uint32_t>(number), true, flags);
        print(pretty_print_space, number, false, flags);
    }
    show_size(number);
    return 0;
}
