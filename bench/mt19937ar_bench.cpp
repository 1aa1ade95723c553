// What a random number costs: genrand_int32 beside std::mt19937, the same algorithm inlined into
// its caller, and beside GLib's GRand, the same algorithm in a library.
#include "koutil/mt19937ar.h"

#include <benchmark/benchmark.h>
#include <random>
#if HAVE_GLIB_2_0
#include <glib.h>
#endif

namespace
{

constexpr int kDraws = 100000;

template <typename Draw>
void measure(benchmark::State &state, Draw draw)
{
    for (auto _ : state) {
        uint32_t sum = 0;
        for (int i = 0; i < kDraws; i++)
            sum += static_cast<uint32_t>(draw());
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kDraws);
}

void koutil(benchmark::State &state)
{
    init_genrand(1);
    measure(state, genrand_int32);
}
BENCHMARK(koutil);

void std_mt19937(benchmark::State &state)
{
    std::mt19937 peer(1);
    measure(state, [&] { return peer(); });
}
BENCHMARK(std_mt19937);

#if HAVE_GLIB_2_0
void glib_grand(benchmark::State &state)
{
    GRand *peer = g_rand_new_with_seed(1);
    measure(state, [=] { return g_rand_int(peer); });
    g_rand_free(peer);
}
BENCHMARK(glib_grand);
#endif

} // namespace

BENCHMARK_MAIN();
