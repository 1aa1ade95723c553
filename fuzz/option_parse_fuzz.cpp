// option_parse_fuzz.cpp - option strings: any text is walked to its end, each step goes forward or
// fails with a message, every value lies in its range, and times read back as they were.
#include "fuzz.h"
#include "koutil/option_parse.h"

#include <algorithm>

namespace
{

enum { threads = 1, size, interval, name, mode, debug, verbose, left };

Option table[] = {
    {"t=%d", threads, 1, 64, nullptr, 0, KOOPT_INVALID, 0},
    {"s=%D", size, 4096, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"i=%t", interval, 0, 7200, nullptr, 0, KOOPT_INVALID, 0},
    {"n=%s", name, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"m=|fast,quick|slow", mode, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"d=%b", debug, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"v", verbose, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"x=", left, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {nullptr, 0, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
};

void check_value(uint32_t code, uint64_t number)
{
    switch (code) {
    case threads:
        require(number >= 1 && number <= 64);
        break;
    case size:
        require(number >= 4096);
        break;
    case interval:
        require(number <= 7200);
        break;
    case mode:
    case debug:
        require(number <= 1);
        break;
    default:
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const Text text = text_of(data, size);
    const char *const end = text.get() + strlen(text.get());
    constexpr int word_size = 6;
    const Text word = room_of(word_size);
    const int message_size = static_cast<int>(size % 90);
    const Text message = room_of(size % 90);
    char *rest = text.get();
    for (;;) {
        char *const before = rest;
        uint64_t number = 0;
        const uint32_t code =
            parse_option(&rest, table, &number, word.get(), word_size, message.get(), message_size);
        require(rest >= before && rest <= end);
        if (code == OPTION_END) {
            break;
        }
        if (code == OPTION_ERROR) {
            require(number == 0);
            require(message_size == 0 || strnlen(message.get(), size % 90) < size % 90);
            require(message_size < 2 || *message != '\0');
            rest += strcspn(rest, ",");
            continue;
        }
        require(rest > before && (code != name || memchr(word.get(), '\0', word_size) != nullptr));
        check_value(code, number);
        if (code == left) {
            rest += strcspn(rest, ",");
        }
    }
    uint64_t seconds = 0;
    memcpy(&seconds, data, std::min(size, sizeof seconds));
    const Text written = room_of(24);
    format_interval(seconds, written.get());
    char *at = written.get();
    uint64_t again = ~seconds;
    require(parse_interval(&at, &again, nullptr, 0) == 1 && again == seconds && *at == '\0');
    const Text shown = room_of(21);
    format_number(seconds, shown.get());
    at = shown.get();
    char *reason = nullptr;
    require(parse_number(&at, &again, &reason) == 1 && again == seconds && *at == '\0');
    return 0;
}
