// strint_bench.cpp - number texts with unit letters, read and written, beside std::from_chars with
// a switch over the unit and beside std::to_chars.
#include "koutil/strint.h"

#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdint>
#include <cstring>

namespace
{

// The numbers of an option file.
constexpr const char *texts[] = {"64M", "1500", "16",    "4K", "256k", "1G",      "0",    "32",
                                 "100", "2T",   "65536", "8g", "-1",   "1234567", "512K", "30"};
constexpr int64_t numbers[] = {67108864, 1500,  16,   4096, 262144,     1073741824, 0,      32,
                               100,      65537, 1536, -1,   1234567890, 524288,     999999, 30};

int from_chars_with_unit(const char *text, int64_t *out)
{
    const char *end = text + strlen(text);
    auto [at, error] = std::from_chars(text, end, *out);
    if (error != std::errc{}) {
        return 0;
    }
    if (at == end) {
        return 1;
    }
    switch (*at) {
    case 'k':
    case 'K':
        *out <<= 10;
        break;
    case 'm':
    case 'M':
        *out <<= 20;
        break;
    case 'g':
    case 'G':
        *out <<= 30;
        break;
    case 't':
    case 'T':
        *out <<= 40;
        break;
    case 'p':
    case 'P':
        *out <<= 50;
        break;
    default:
        return 0;
    }
    return at + 1 == end;
}

int plain_to_chars(int64_t value, char *text, size_t size)
{
    const auto [end, error] = std::to_chars(text, text + size - 1, value);
    *end = '\0';
    return error == std::errc{};
}

template <int (*read)(const char *, int64_t *)>
void reading(benchmark::State &state)
{
    for (auto _ : state) {
        for (const char *text : texts) {
            benchmark::DoNotOptimize(text);
            int64_t value = 0;
            benchmark::DoNotOptimize(read(text, &value));
            benchmark::DoNotOptimize(value);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(std::size(texts)));
}

template <int (*write)(int64_t, char *, size_t)>
void writing(benchmark::State &state)
{
    for (auto _ : state) {
        for (int64_t number : numbers) {
            benchmark::DoNotOptimize(number);
            char text[32];
            benchmark::DoNotOptimize(write(number, text, sizeof text));
            benchmark::DoNotOptimize(text);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(std::size(numbers)));
}

} // namespace

BENCHMARK(reading<StrToInt64>)->Name("read/StrToInt64");
BENCHMARK(reading<from_chars_with_unit>)->Name("read/from_chars_with_switch");
BENCHMARK(writing<IntToStr64>)->Name("write/IntToStr64");
BENCHMARK(writing<plain_to_chars>)->Name("write/to_chars");

BENCHMARK_MAIN();
