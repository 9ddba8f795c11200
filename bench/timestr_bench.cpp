// The time text of a log line: many in one second, and a new second each time; against strftime with the
// fraction printed behind it, and against what a careful user writes: the text of the second kept, the
// fraction renewed.
#include <cstdio>
#include <cstring>
#include <ctime>

#include <benchmark/benchmark.h>

#include "log.h"
#include "timeop.h"

namespace {

constexpr time_t kStart = 1700000000;

template <long kSecondsApart>
void ours(benchmark::State& state)
{
    struct timespec tms = {kStart, 0};
    char buf[128];
    for (auto _ : state) {
        tms.tv_nsec = (tms.tv_nsec + 12345) % 1'000'000'000;
        tms.tv_sec += kSecondsApart;
        benchmark::DoNotOptimize(mk_timestr(&tms, 0, buf, sizeof buf));
        benchmark::ClobberMemory();
    }
}

size_t by_strftime(const struct timespec& tms, char* buf, size_t size)
{
    struct tm parts;
    localtime_r(&tms.tv_sec, &parts);
    size_t n = strftime(buf, size, "%Y-%m-%d %H:%M:%S", &parts);
    n += static_cast<size_t>(snprintf(buf + n, size - n, ".%06ld", tms.tv_nsec / 1000));
    return n + strftime(buf + n, size - n, " %Z", &parts);
}

template <long kSecondsApart>
void strftime_peer(benchmark::State& state)
{
    struct timespec tms = {kStart, 0};
    char buf[128];
    for (auto _ : state) {
        tms.tv_nsec = (tms.tv_nsec + 12345) % 1'000'000'000;
        tms.tv_sec += kSecondsApart;
        benchmark::DoNotOptimize(by_strftime(tms, buf, sizeof buf));
        benchmark::ClobberMemory();
    }
}

template <long kSecondsApart>
void cached_second(benchmark::State& state)
{
    struct timespec tms = {kStart, 0};
    time_t second = 0;
    size_t length = 0;
    char cached[128];
    char buf[128];
    for (auto _ : state) {
        tms.tv_nsec = (tms.tv_nsec + 12345) % 1'000'000'000;
        tms.tv_sec += kSecondsApart;
        if (tms.tv_sec != second) {
            second = tms.tv_sec;
            length = by_strftime(tms, cached, sizeof cached);
        }
        long micros = tms.tv_nsec / 1000;
        for (size_t i = 25; i > 19; --i) {
            cached[i] = static_cast<char>('0' + micros % 10);
            micros /= 10;
        }
        memcpy(buf, cached, length + 1);
        benchmark::DoNotOptimize(length);
        benchmark::ClobberMemory();
    }
}

} // namespace

BENCHMARK(ours<0>)->Name("TimeTextSameSecond/ours");
BENCHMARK(strftime_peer<0>)->Name("TimeTextSameSecond/strftime");
BENCHMARK(cached_second<0>)->Name("TimeTextSameSecond/cached_second");
BENCHMARK(ours<1>)->Name("TimeTextNewSecond/ours");
BENCHMARK(strftime_peer<1>)->Name("TimeTextNewSecond/strftime");
BENCHMARK(cached_second<1>)->Name("TimeTextNewSecond/cached_second");

BENCHMARK_MAIN();
