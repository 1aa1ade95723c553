// clock_bench.cpp - what a reading of each clock costs beside the bare call behind it.
//
// A stamp of the tick clock is one load behind one call, so its peer is an exported function that
// does next to nothing. monotime and MicroTime stand beside the system calls that they wrap.
#include "koutil/mono_time.h"
#include "koutil/msleep.h"

#include <benchmark/benchmark.h>

#include <sys/time.h>

static void BM_SmallestCall(benchmark::State &state)
{
    uint64_t reading = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(reading);
        benchmark::DoNotOptimize(monotime_cmp(reading, reading));
    }
}
BENCHMARK(BM_SmallestCall);

static void BM_GetMonoStamp(benchmark::State &state)
{
    mono_init();
    for (auto _ : state) {
        benchmark::DoNotOptimize(GetMonoStamp());
    }
}
BENCHMARK(BM_GetMonoStamp);

static void BM_GetMonoElapsed(benchmark::State &state)
{
    mono_init();
    const monotime_t begun = GetMonoStamp();
    for (auto _ : state) {
        benchmark::DoNotOptimize(GetMonoElapsed(begun));
    }
}
BENCHMARK(BM_GetMonoElapsed);

static void BM_clock_gettime(benchmark::State &state)
{
    timespec now;
    for (auto _ : state) {
        clock_gettime(CLOCK_MONOTONIC, &now);
        benchmark::DoNotOptimize(now);
    }
}
BENCHMARK(BM_clock_gettime);

static void BM_monotime(benchmark::State &state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(monotime());
    }
}
BENCHMARK(BM_monotime);

static void BM_gettimeofday(benchmark::State &state)
{
    timeval now;
    for (auto _ : state) {
        gettimeofday(&now, nullptr);
        benchmark::DoNotOptimize(now);
    }
}
BENCHMARK(BM_gettimeofday);

static void BM_MicroTime(benchmark::State &state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(MicroTime());
    }
}
BENCHMARK(BM_MicroTime);

BENCHMARK_MAIN();
