// The probes of transport streams with any packet length. Input: a byte of switches, the packet length (2
// bytes), two clock values (8 bytes each), then the buffer.
#include "mpegts.h"
#include "stream_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const auto switches = input.take<uint8_t>();
    const auto length = input.take<uint16_t>();
    const auto first = input.take<uint64_t>();
    const auto last = input.take<uint64_t>();
    fuzz::hide_log((switches & 1) != 0);
    const uint64_t delta = ts_pcr_delta(first, last);
    fuzz::demand(delta <= MAX_PCR_GAP || first == 0);

    size_t len = 0;
    const auto buf = input.rest(len);
    const ssize_t probed = ts_probe(buf.get(), len, (switches & 2) != 0);
    fuzz::demand(probed == -22 || probed == -1 || probed == -3 || (probed >= 188 && probed <= 208));
    fuzz::demand(probed < 0 || static_cast<size_t>(probed) <= len);
    size_t found = 0;
    const off_t head = ts_find_head(buf.get(), len, (switches & 4) != 0 ? nullptr : &found);
    fuzz::demand(head >= -1 && head < static_cast<off_t>(len));
    fuzz::demand(head < 0 || buf[static_cast<size_t>(head)] == MPEG_TS_SYNC);
    fuzz::demand(found == 0 || ts_probe(buf.get() + head, len - static_cast<size_t>(head), false) ==
                                   static_cast<ssize_t>(found));
    const size_t pkt_len = length % (len + 1);
    const auto* text = reinterpret_cast<const char*>(buf.get());
    uint64_t pcr = 0;
    const bool in_front = find_first_pcr(text, len, pkt_len, &pcr) == 0;
    fuzz::demand(pcr < P2_33);
    const bool at_end = find_last_pcr(text, len, pkt_len, &pcr) == 0;
    fuzz::demand(pcr < P2_33);
    fuzz::demand(!at_end || in_front || pkt_len == 0 || len % pkt_len != 0);
    return 0;
}
