// option_parse_fuzz.cpp - option strings: any text is walked to its end, each step goes forward or
// fails with a message, every value lies in its range, and times read back as they were.
#include "koutil/option_parse.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

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

void require(bool condition)
{
    if (!condition) {
        abort();
    }
}

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
    std::string text(reinterpret_cast<const char *>(data), size);
    text.resize(strlen(text.c_str()));
    constexpr int word_size = 6;
    const std::unique_ptr<char[]> word(new char[word_size]());
    const int message_size = 1 + static_cast<int>(size % 90);
    const std::unique_ptr<char[]> message(new char[static_cast<size_t>(message_size)]);
    char *rest = text.data();
    for (;;) {
        char *const before = rest;
        uint64_t number = 0;
        const uint32_t code =
            parse_option(&rest, table, &number, word.get(), word_size, message.get(), message_size);
        require(rest >= before && rest <= text.data() + text.size());
        if (code == OPTION_END) {
            break;
        }
        if (code == OPTION_ERROR) {
            require(number == 0 && (message_size == 1 || message[0] != '\0'));
            rest += strcspn(rest, ",");
            continue;
        }
        require(rest > before && memchr(word.get(), '\0', word_size) != nullptr);
        check_value(code, number);
        if (code == left) {
            rest += strcspn(rest, ",");
        }
    }
    uint64_t seconds = 0;
    memcpy(&seconds, data, std::min(size, sizeof seconds));
    char written[24];
    format_interval(seconds, written);
    char *at = written;
    uint64_t again = ~seconds;
    require(parse_interval(&at, &again, nullptr, 0) == 1 && again == seconds);
    return 0;
}
