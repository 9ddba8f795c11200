// Table, clock and entry point in one datagram (none there, in the first packets, in the middle, in the last)
// and in 256 MiB: against the packet accessors of bitstream, the
// table decoder of libdvbpsi (which looks for the table alone), and one touched byte per packet.
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>
#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/ts.h>

#include "dstream.h"

extern "C" {
#include <dvbpsi/dvbpsi.h>
// The table's header needs the one above.
#include <dvbpsi/descriptor.h>
#include <dvbpsi/pat.h>
}

namespace {

constexpr size_t kPacket = 188;
constexpr size_t kDatagram = 7 * kPacket;
constexpr size_t kLarge = (size_t{256} << 20) / kPacket * kPacket;

void put(std::vector<uint8_t>& bytes, size_t packet, std::initializer_list<uint8_t> head)
{
    std::copy(head.begin(), head.end(), bytes.begin() + static_cast<ptrdiff_t>(packet * kPacket));
}

// Packets of which nothing is found: video, and audio that begins a unit in one packet of 40.
std::vector<uint8_t> packets(size_t len)
{
    std::vector<uint8_t> bytes(len, 0xff);
    for (size_t i = 0; i < len / kPacket; ++i) {
        const auto counter = static_cast<uint8_t>(0x10 | (i & 15));
        if (i % 40 == 39) {
            put(bytes, i, {0x47, 0x41, 0x01, counter, 0x00, 0x00, 0x01, 0xc0, 0x00, 0x00, 0x80});
        } else {
            put(bytes, i, {0x47, 0x01, 0x00, counter});
        }
    }
    return bytes;
}

// A datagram with a table in one packet, and clock and entry point in another.
std::vector<uint8_t> marked_datagram(size_t table, size_t entry)
{
    std::vector<uint8_t> bytes = packets(kDatagram);
    put(bytes, table, {0x47, 0x40, 0x00, 0x10, 0x00, 0x00, 0xb0, 0x0d, 0x00, 0x01, 0xc1,
                       0x00, 0x00, 0x00, 0x01, 0xf0, 0x00, 0x2a, 0xb1, 0x04, 0xb2});
    put(bytes, entry, {0x47, 0x41, 0x00, 0x30, 7, 0x50, 0, 0, 0x10, 0, 0x7e, 0, 0x00, 0x00, 0x01, 0xe0});
    return bytes;
}

uint8_t* datagram()
{
    static std::vector<uint8_t> bytes = packets(kDatagram);
    return bytes.data();
}

template <size_t table, size_t entry>
uint8_t* marked()
{
    static std::vector<uint8_t> bytes = marked_datagram(table, entry);
    return bytes.data();
}

constexpr auto entry = marked<1, 4>;
constexpr auto marks_first = marked<0, 1>;
constexpr auto marks_last = marked<5, 6>;

uint8_t* large()
{
    static std::vector<uint8_t> bytes = packets(kLarge);
    return bytes.data();
}

size_t ours(uint8_t* bytes, size_t len)
{
    size_t size = kPacket;
    sseg_ctx sseg = {1, 1, 0, 1};
    probe_segment(bytes, len, STY_MPEGTS.num, &size, nullptr, &sseg);
    return sseg.pat_idx + sseg.pcr_idx + sseg.iframe_idx;
}

bool bitstream_pat(const uint8_t* b)
{
    return ts_get_unitstart(b) && ts_get_pid(b) == 0 && b[5] == 0 && (b[6] & 0xfc) == 0xb0 &&
           (b[10] & 1) != 0;
}

bool bitstream_pcr(const uint8_t* b)
{
    return ts_has_adaptation(b) && ts_get_adaptation(b) != 0 && tsaf_has_pcr(b);
}

bool bitstream_entry(uint8_t* b)
{
    if (!ts_get_unitstart(b) || !ts_has_payload(b) || !bitstream_pcr(b) || !tsaf_has_randomaccess(b)) {
        return false;
    }
    const uint8_t* pes = ts_payload(b);
    return pes_validate(pes) && pes_get_streamid(pes) == PES_STREAM_ID_VIDEO_MPEG;
}

// The same questions by the accessors of bitstream, each until its first answer.
__attribute__((noinline)) size_t by_bitstream(uint8_t* bytes, size_t len)
{
    size_t pat = 0;
    size_t pcr = 0;
    size_t frame = 0;
    size_t number = 1;
    for (size_t pos = 0; pos < len && (pat == 0 || pcr == 0 || frame == 0); pos += kPacket, ++number) {
        uint8_t* b = bytes + pos;
        if (pat == 0 && bitstream_pat(b)) {
            pat = number;
        }
        if (pcr == 0 && bitstream_pcr(b)) {
            pcr = number;
            benchmark::DoNotOptimize(tsaf_get_pcr(b));
        }
        if (frame == 0 && bitstream_entry(b)) {
            frame = number;
        }
    }
    return pat + pcr + frame;
}

__attribute__((noinline)) size_t touch(uint8_t* bytes, size_t len)
{
    size_t sum = 0;
    for (size_t pos = 0; pos < len; pos += kPacket) {
        sum += bytes[pos];
    }
    return sum;
}

template <auto call, auto bytes, size_t len>
void run(benchmark::State& state)
{
    uint8_t* const block = bytes();
    for (auto _ : state) {
        benchmark::DoNotOptimize(call(block, len));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}

void on_pat(void* count, dvbpsi_pat_t* pat)
{
    ++*static_cast<size_t*>(count);
    dvbpsi_pat_delete(pat);
}

// The decoder gets the packets of PID 0, as its users do it.
template <auto bytes, size_t len>
void run_dvbpsi(benchmark::State& state)
{
    uint8_t* const block = bytes();
    size_t tables = 0;
    dvbpsi_t* decoder = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
    dvbpsi_pat_attach(decoder, on_pat, &tables);
    for (auto _ : state) {
        for (size_t pos = 0; pos < len; pos += kPacket) {
            if (ts_get_pid(block + pos) == 0) {
                dvbpsi_packet_push(decoder, block + pos);
            }
        }
        benchmark::DoNotOptimize(tables);
    }
    dvbpsi_pat_detach(decoder);
    dvbpsi_delete(decoder);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}

} // namespace

BENCHMARK(run<ours, datagram, kDatagram>)->Name("FindNothingDatagram/ours");
BENCHMARK(run<by_bitstream, datagram, kDatagram>)->Name("FindNothingDatagram/bitstream");
BENCHMARK(run<touch, datagram, kDatagram>)->Name("FindNothingDatagram/one_byte_per_packet");
BENCHMARK(run<ours, entry, kDatagram>)->Name("FindAllDatagram/ours");
BENCHMARK(run<by_bitstream, entry, kDatagram>)->Name("FindAllDatagram/bitstream");
BENCHMARK(run_dvbpsi<entry, kDatagram>)->Name("FindAllDatagram/libdvbpsi_table_alone");
BENCHMARK(run<ours, marks_first, kDatagram>)->Name("FindMarksFirst/ours");
BENCHMARK(run<by_bitstream, marks_first, kDatagram>)->Name("FindMarksFirst/bitstream");
BENCHMARK(run<ours, marks_last, kDatagram>)->Name("FindMarksLast/ours");
BENCHMARK(run<by_bitstream, marks_last, kDatagram>)->Name("FindMarksLast/bitstream");
BENCHMARK(run<ours, large, kLarge>)->Name("Find256MiB/ours");
BENCHMARK(run<by_bitstream, large, kLarge>)->Name("Find256MiB/bitstream");
BENCHMARK(run<touch, large, kLarge>)->Name("Find256MiB/one_byte_per_packet");

BENCHMARK_MAIN();
