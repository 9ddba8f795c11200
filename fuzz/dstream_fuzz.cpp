// The segment probe with any type and size. Input: a byte of switches, the type (4 bytes), the packet size (8
// bytes, of which a switch may leave one), then the segment.
#include "dstream.h"

#include "stream_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const auto switches = input.take<uint8_t>();
    auto type = input.take<int32_t>();
    auto known = static_cast<size_t>(input.take<uint64_t>());
    fuzz::hide_log((switches & 1) != 0);
    if ((switches & 2) != 0) {
        constexpr int kTypes = 4;
        const int32_t types[kTypes] = {0, STY_RAW.num, STY_MPEGTS.num, STY_RTP.num};
        type = types[static_cast<uint32_t>(type) % kTypes];
    }
    if ((switches & 4) != 0) {
        known &= 0xff;
    }
    sseg_ctx sseg = {switches & 8U, switches & 16U, UINT64_MAX, switches & 32U};
    size_t len = 0;
    const auto buf = input.rest(len);
    size_t plen = known;
    size_t pcount = 0;
    const bool with_size = (switches & 64) == 0;
    const int32_t found = probe_segment(buf.get(), len, type, with_size ? &plen : nullptr, &pcount,
                                        (switches & 128) != 0 ? nullptr : &sseg);
    // Asked for the type alone it finds the same.
    size_t again = known;
    fuzz::demand(probe_segment(buf.get(), len, type, with_size ? &again : nullptr, nullptr, nullptr) ==
                 found);

    const bool probed = type == 0 || !with_size || known == 0;
    fuzz::demand(probed ? found == STY_RAW.num || found == STY_MPEGTS.num : found == type);
    if (found == STY_RAW.num) {
        fuzz::demand(pcount == 1 && (!with_size || plen == len));
    } else if (probed) {
        fuzz::demand(len % pcount == 0 && (!with_size || pcount * plen == len));
    } else {
        fuzz::demand(pcount == 0 && plen == known);
    }
    if ((switches & 128) == 0 && (switches & (8 | 16 | 32)) != 0) {
        const size_t step = found != STY_MPEGTS.num ? 0 : probed ? len / pcount : plen;
        const size_t most = step == 0 ? 0 : (len + step - 1 < len ? 1 : (len + step - 1) / step);
        fuzz::demand(sseg.pat_idx <= most && sseg.pcr_idx <= most && sseg.iframe_idx <= most);
        fuzz::demand((switches & 8) != 0 || sseg.pat_idx == 0);
        fuzz::demand((switches & 16) != 0 || sseg.pcr_idx == 0);
        fuzz::demand((switches & 32) != 0 || sseg.iframe_idx == 0);
        fuzz::demand((sseg.pcr_idx != 0) == (sseg.pcr != UINT64_MAX));
    }
    return 0;
}
