// strint_fuzz.cpp - numbers with unit letters: any text is read or refused, white space and commas
// around it change nothing, and what is written reads back as the same value.
#include "fuzz.h"
#include "koutil/strint.h"

#include <cstdio>

namespace
{

// A text that differs in what does not count has the same number.
void same_number(const std::string &text, int read, int64_t value)
{
    const bool blank = text.find_first_not_of(" \t\n\v\f\r") == text.npos;
    const std::string variants[] = {" \t" + text, text + " ", text + (blank ? "" : "\nK9")};
    for (const std::string &each : variants) {
        int64_t again = ~value;
        const Text variant = text_of(each.data(), each.size());
        require(StrToInt64(variant.get(), &again) == read && again == value);
    }
    if (!text.empty() && text.find_first_of("\n\r") == text.npos && text.back() >= '0' &&
        text.back() <= '9') {
        int64_t thousand = 0;
        require(StrToInt64((text + ",k").c_str(), &thousand) == read);
        require(static_cast<uint64_t>(thousand) == static_cast<uint64_t>(value) * 1024);
    }
}

void days(int32_t minutes)
{
    char text[32];
    KoMinutesToDHM(minutes, text, sizeof text);
    const bool negative = text[0] == '-';
    long long d = -1;
    long long h = -1;
    long long m = -1;
    require(sscanf(text + (negative ? 1 : 0), "%lldd-%lldh-%lldm", &d, &h, &m) == 3);
    require(((d * 24 + h) * 60 + m) * (negative ? -1 : 1) == minutes);
    for (size_t room = 0; room < sizeof text; room++) {
        const Text exact = room_of(room);
        KoMinutesToDHM(minutes, exact.get(), room);
        require(room == 0 || strncmp(exact.get(), text, room - 1) == 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const Text text = text_of(data, size);
    int64_t value = -1;
    const int read = StrToInt64(text.get(), &value);
    require(read == 1 || value == 0);
    if (read == 1) {
        same_number(text.get(), read, value);
    }
    uint64_t number = 0;
    memcpy(&number, data, size < sizeof number ? size : sizeof number);
    for (const int64_t each : {value, static_cast<int64_t>(number)}) {
        char written[32];
        int64_t again = ~each;
        require(IntToStr64(each, written, sizeof written) == 1 &&
                StrToInt64(written, &again) == 1 && again == each);
        for (size_t room = 0; room < sizeof written; room++) {
            const Text exact = room_of(room);
            require((IntToStr64(each, exact.get(), room) == 1) == (strlen(written) < room));
        }
        days(static_cast<int32_t>(each));
    }
    return 0;
}
