// One segment of a raw stream entered into the index, against the one clock reading that it needs.
#include <ctime>

#include <benchmark/benchmark.h>

#include "dgram.h"

namespace {

// Without a loop its time stays at zero: the slots are wide enough for any clock.
constexpr u_long kLongLife = 100'000'000'000;

void add_ours(benchmark::State& state)
{
    static const uint8_t store[1316] = {};
    dgram_idx* di = mk_dgram_idx(8, kLongLife);
    off_t offset = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(dgram_add(di, sizeof(store), store, offset));
        offset += sizeof(store);
    }
    free_dgram_idx(di);
}

void read_clock(benchmark::State& state)
{
    for (auto _ : state) {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        benchmark::DoNotOptimize(now);
    }
}

} // namespace

BENCHMARK(add_ours)->Name("DgramAddRaw/ours");
BENCHMARK(read_clock)->Name("DgramAddRaw/one_clock_reading");

BENCHMARK_MAIN();
