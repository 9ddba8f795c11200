// Hexadecimal text of 1 KiB: against the escaping calls of Abseil, and a table of digit pairs.
#include <array>
#include <cstring>
#include <random>
#include <string>

#include <absl/strings/escaping.h>
#include <benchmark/benchmark.h>

#include "strops.h"

namespace {

constexpr size_t kSize = 1024;

std::array<uint8_t, kSize> random_bytes()
{
    std::array<uint8_t, kSize> bytes;
    std::mt19937 random(1);
    for (uint8_t& byte : bytes) {
        byte = static_cast<uint8_t>(random());
    }
    return bytes;
}

const auto g_bytes = random_bytes();

std::string hex_text()
{
    std::string text(2 * kSize, 0);
    for (size_t i = 0; i < kSize; ++i) {
        text[2 * i] = "0123456789abcdef"[g_bytes[i] >> 4];
        text[2 * i + 1] = "0123456789abcdef"[g_bytes[i] & 15];
    }
    return text;
}

const std::string g_text = hex_text();

// Two digits of each byte.
const auto g_pairs = [] {
    std::array<char, 512> pairs;
    for (size_t i = 0; i < 256; ++i) {
        pairs[2 * i] = "0123456789abcdef"[i >> 4];
        pairs[2 * i + 1] = "0123456789abcdef"[i & 15];
    }
    return pairs;
}();

void finish(benchmark::State& state)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSize));
}

void encode_ours(benchmark::State& state)
{
    char text[2 * kSize + 1];
    for (auto _ : state) {
        benchmark::DoNotOptimize(bin_to_hex(g_bytes.data(), kSize, text, sizeof text));
        benchmark::ClobberMemory();
    }
    finish(state);
}

void encode_absl(benchmark::State& state)
{
    const absl::string_view bytes(reinterpret_cast<const char*>(g_bytes.data()), kSize);
    for (auto _ : state) {
        benchmark::DoNotOptimize(absl::BytesToHexString(bytes));
    }
    finish(state);
}

void encode_pairs(benchmark::State& state)
{
    char text[2 * kSize + 1];
    for (auto _ : state) {
        for (size_t i = 0; i < kSize; ++i) {
            memcpy(text + 2 * i, &g_pairs[size_t{2} * g_bytes[i]], 2);
        }
        text[2 * kSize] = 0;
        benchmark::DoNotOptimize(text);
        benchmark::ClobberMemory();
    }
    finish(state);
}

void decode_ours(benchmark::State& state)
{
    uint8_t bytes[kSize];
    for (auto _ : state) {
        benchmark::DoNotOptimize(hex_to_bin(g_text.c_str(), bytes, sizeof bytes));
        benchmark::ClobberMemory();
    }
    finish(state);
}

void decode_absl(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(absl::HexStringToBytes(g_text));
    }
    finish(state);
}

} // namespace

BENCHMARK(encode_ours)->Name("hex_encode_1KiB/ours");
BENCHMARK(encode_absl)->Name("hex_encode_1KiB/absl");
BENCHMARK(encode_pairs)->Name("hex_encode_1KiB/pair_table");
BENCHMARK(decode_ours)->Name("hex_decode_1KiB/ours");
BENCHMARK(decode_absl)->Name("hex_decode_1KiB/absl");
BENCHMARK_MAIN();
