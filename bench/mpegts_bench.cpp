// The packet size of a transport stream, in one datagram and in 256 MiB: against a plain loop of seven
// comparisons, one touched byte per packet (what memory allows), and the format probe of libavformat.
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include "mpegts.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

constexpr size_t kDatagram = size_t{7} * 188;
constexpr size_t kLarge = (size_t{256} << 20) / 188 * 188;

std::vector<uint8_t> packets(size_t len)
{
    std::vector<uint8_t> bytes(len + AVPROBE_PADDING_SIZE, 0);
    for (size_t pos = 0; pos < len; pos += 188) {
        const uint8_t head[] = {0x47, 0x01, 0x00, 0x10};
        memcpy(bytes.data() + pos, head, sizeof(head));
    }
    return bytes;
}

const uint8_t* datagram()
{
    static const std::vector<uint8_t> bytes = packets(kDatagram);
    return bytes.data();
}

const uint8_t* large()
{
    static const std::vector<uint8_t> bytes = packets(kLarge);
    return bytes.data();
}

void finish(benchmark::State& state, size_t len)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(len));
}

void run_ours(benchmark::State& state, const uint8_t* bytes, size_t len)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(bytes);
        benchmark::DoNotOptimize(ts_probe(bytes, len, true));
    }
    finish(state, len);
}

// What a user writes who knows that packets are 188 bytes long.
__attribute__((noinline)) bool plain_loop(const uint8_t* bytes, size_t len)
{
    for (size_t pos = 0; pos < len; pos += 188) {
        if (bytes[pos] != 0x47) {
            return false;
        }
    }
    return true;
}

// One byte of each packet read, nothing decided.
__attribute__((noinline)) unsigned touch(const uint8_t* bytes, size_t len)
{
    unsigned sum = 0;
    for (size_t pos = 0; pos < len; pos += 188) {
        sum += bytes[pos];
    }
    return sum;
}

template <auto call>
void run(benchmark::State& state, const uint8_t* bytes, size_t len)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(bytes);
        benchmark::DoNotOptimize(call(bytes, len));
    }
    finish(state, len);
}

void datagram_ours(benchmark::State& state)
{
    run_ours(state, datagram(), kDatagram);
}

void datagram_compares(benchmark::State& state)
{
    run<plain_loop>(state, datagram(), kDatagram);
}

void datagram_avformat(benchmark::State& state)
{
    AVProbeData data = {};
    data.filename = "";
    data.buf = const_cast<uint8_t*>(datagram());
    data.buf_size = kDatagram;
    for (auto _ : state) {
        int score = 0;
        benchmark::DoNotOptimize(av_probe_input_format2(&data, 1, &score));
    }
    finish(state, kDatagram);
}

void large_ours(benchmark::State& state)
{
    run_ours(state, large(), kLarge);
}

void large_touch(benchmark::State& state)
{
    run<touch>(state, large(), kLarge);
}

void large_compares(benchmark::State& state)
{
    run<plain_loop>(state, large(), kLarge);
}

} // namespace

BENCHMARK(datagram_ours)->Name("TsSizeDatagram/ours");
BENCHMARK(datagram_compares)->Name("TsSizeDatagram/seven_compares");
BENCHMARK(datagram_avformat)->Name("TsSizeDatagram/libavformat_any_format");
BENCHMARK(large_ours)->Name("TsSize256MiB/ours");
BENCHMARK(large_touch)->Name("TsSize256MiB/one_byte_per_packet");
BENCHMARK(large_compares)->Name("TsSize256MiB/compares");

BENCHMARK_MAIN();
