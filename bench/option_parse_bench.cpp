// option_parse_bench.cpp - a string of ten options, parsed beside getsubopt(3) with strtoull(3),
// and what either allocates.
#include <benchmark/benchmark.h>
#include <koutil/koutil.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace
{

std::atomic<size_t> allocations{0};

constexpr char ten_options[] = "threads=8,size=4m,interval=1h30m,mode=fast,verbose,debug=yes,"
                               "name=data1,retries=5,cache=256k,limit=90";

Option table[] = {
    {"threads=%d", 1, 1, 64, nullptr, 0, KOOPT_INVALID, 0},
    {"size=%D", 2, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"interval=%t", 3, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"mode=|slow|fast", 4, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"verbose", 5, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"debug=%b", 6, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"name=%s", 7, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"retries=%d", 8, 0, 100, nullptr, 0, KOOPT_INVALID, 0},
    {"cache=%D", 9, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {"limit=%t", 10, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
    {nullptr, 0, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
};

void count_allocations(benchmark::State &state, size_t before)
{
    state.counters["allocations"] = benchmark::Counter(static_cast<double>(allocations - before) /
                                                       static_cast<double>(state.iterations()));
}

void options(benchmark::State &state)
{
    char text[sizeof ten_options];
    memcpy(text, ten_options, sizeof text);
    const size_t before = allocations;
    for (auto _ : state) {
        char *rest = text;
        uint64_t number = 0;
        char word[64];
        char message[256];
        uint32_t code = 0;
        while ((code = parse_option(&rest, table, &number, word, sizeof word, message,
                                    sizeof message)) != OPTION_END) {
            benchmark::DoNotOptimize(number);
        }
    }
    count_allocations(state, before);
}

// The peer only takes names and values apart and reads numbers: no units, ranges or messages.
void options_getsubopt(benchmark::State &state)
{
    char threads[] = "threads", size[] = "size", interval[] = "interval", mode[] = "mode",
         verbose[] = "verbose", debug[] = "debug", name[] = "name", retries[] = "retries",
         cache[] = "cache", limit[] = "limit";
    char *const names[] = {threads, size,    interval, mode,  verbose, debug,
                           name,    retries, cache,    limit, nullptr};
    const size_t before = allocations;
    for (auto _ : state) {
        char text[sizeof ten_options];
        memcpy(text, ten_options, sizeof text); // getsubopt writes into it
        char *rest = text;
        while (*rest != '\0') {
            char *value = nullptr;
            benchmark::DoNotOptimize(getsubopt(&rest, names, &value));
            if (value != nullptr) {
                benchmark::DoNotOptimize(strtoull(value, nullptr, 0));
            }
        }
    }
    count_allocations(state, before);
}

BENCHMARK(options);
BENCHMARK(options_getsubopt);

} // namespace

// Every allocation of the program passes here.
extern "C" void *__libc_malloc(size_t size);
extern "C" void *malloc(size_t size)
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

BENCHMARK_MAIN();
