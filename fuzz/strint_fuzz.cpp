// strint_fuzz.cpp - numbers with unit letters: any text is read or refused, and what is written
// reads back as the same value.
#include "koutil/strint.h"

#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    int64_t value = -1;
    const int read = StrToInt64(text.c_str(), &value);
    if (read == 0) {
        return value == 0 ? 0 : (abort(), 0);
    }
    char written[32];
    int64_t again = ~value;
    if (IntToStr64(value, written, sizeof written) != 1 || StrToInt64(written, &again) != 1 ||
        again != value) {
        abort();
    }
    for (size_t room = 0; room < sizeof written; room++) {
        char *exact = static_cast<char *>(malloc(room + 1));
        const bool fits = IntToStr64(value, exact, room) == 1;
        if (fits != (strlen(written) < room)) {
            abort();
        }
        free(exact);
    }
    char minutes[32];
    KoMinutesToDHM(static_cast<int32_t>(value), minutes, sizeof minutes);
    return 0;
}
