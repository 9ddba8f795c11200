// What a checked call costs over the bare one, on success: a kernel call that does next to nothing, and the
// gate of a success line.
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "syswrap.h"

namespace {

int null_device()
{
    static const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    return fd;
}

void write_ours(benchmark::State& state)
{
    const int fd = null_device();
    for (auto _ : state) {
        benchmark::DoNotOptimize(Write_f(fd, "x", 1, 0));
    }
}

void write_bare(benchmark::State& state)
{
    const int fd = null_device();
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd, "x", 1));
    }
}

void lseek_ours(benchmark::State& state)
{
    const int fd = null_device();
    for (auto _ : state) {
        benchmark::DoNotOptimize(Lseek(fd, 0, SEEK_SET));
    }
}

void lseek_bare(benchmark::State& state)
{
    const int fd = null_device();
    for (auto _ : state) {
        benchmark::DoNotOptimize(lseek(fd, 0, SEEK_SET));
    }
}

void calloc_ours(benchmark::State& state)
{
    for (auto _ : state) {
        void* block = Calloc(1, 64);
        benchmark::DoNotOptimize(block);
        free(block);
    }
}

void calloc_bare(benchmark::State& state)
{
    for (auto _ : state) {
        void* block = calloc(1, 64);
        benchmark::DoNotOptimize(block);
        free(block);
    }
}

void close_ours(benchmark::State& state)
{
    const int fd = null_device();
    for (auto _ : state) {
        benchmark::DoNotOptimize(Close(dup(fd)));
    }
}

void close_bare(benchmark::State& state)
{
    const int fd = null_device();
    for (auto _ : state) {
        benchmark::DoNotOptimize(close(dup(fd)));
    }
}

} // namespace

BENCHMARK(write_ours)->Name("checked_write/ours");
BENCHMARK(write_bare)->Name("checked_write/bare");
BENCHMARK(lseek_ours)->Name("checked_lseek/ours");
BENCHMARK(lseek_bare)->Name("checked_lseek/bare");
BENCHMARK(calloc_ours)->Name("checked_calloc/ours");
BENCHMARK(calloc_bare)->Name("checked_calloc/bare");
BENCHMARK(close_ours)->Name("checked_close/ours");
BENCHMARK(close_bare)->Name("checked_close/bare");
BENCHMARK_MAIN();
