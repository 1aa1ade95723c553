// voras_bench.cpp - what it costs to ask whether an event about a client should be raised: the
// client that was added first and the one that was added last, of 1, 100 and 10,000. There is no
// peer to stand beside.
#include "koutil/voras.h"

#include <benchmark/benchmark.h>

#include <cstring>

namespace
{

in46addr_t client(uint32_t number)
{
    in46addr_t addr = {};
    memcpy(&addr, &number, sizeof number);
    return addr;
}

void ask(benchmark::State &state, bool last)
{
    const auto clients = static_cast<uint32_t>(state.range(0));
    static uint32_t known = 0;
    for (; known < clients; known++) {
        const in46addr_t addr = client(known);
        NeedPerClntRas(RAS_CLTIME_COMM_FAIL, &addr);
    }
    const in46addr_t addr = client(last ? clients - 1 : 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(NeedPerClntRas(RAS_CLTIME_COMM_FAIL, &addr));
    }
}

BENCHMARK_CAPTURE(ask, first, false)->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK_CAPTURE(ask, last, true)->Arg(1)->Arg(100)->Arg(10000);

} // namespace

BENCHMARK_MAIN();
