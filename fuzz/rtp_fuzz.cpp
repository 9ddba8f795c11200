// RTP headers, paddings and extraction. Input: a byte of switches, then the packet.
#include "rtp.h"

#include "dstream.h"
#include "mpegts.h"
#include "stream_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const auto switches = input.take<uint8_t>();
    fuzz::hide_log((switches & 1) != 0);
    size_t len = 0;
    const auto buf = input.rest(len);
    fuzz::demand(rtp_footer_len(buf.get(), len) <= 255);
    if (len >= RTP_HDR_SIZE) {
        const ssize_t header = rtp_header_len(buf.get(), len);
        fuzz::demand(header == -12 || (header >= RTP_HDR_SIZE && header % 4 == 0));
    }
    const bool is_rtp = len >= 16 && is_rtp_pkt(buf.get());
    const bool is_ts = len > 0 && buf[0] == MPEG_TS_SYNC;
    ssize_t outlen = -1;
    int32_t type = 0;
    const int rc = xtract_ts_payload(buf.get(), len, &outlen, (switches & 2) != 0 ? nullptr : &type,
                                     (switches & 4) != 0 ? XF_NO_RTP : 0);
    fuzz::demand(rc == 0 || (rc == -1 && (switches & 4) == 0 && !is_ts));
    if (outlen >= 0) {
        fuzz::demand(rc == 0 && outlen > TS_MIN_PKTSIZE &&
                     outlen <= static_cast<ssize_t>(len) - RTP_HDR_SIZE);
        fuzz::demand(is_rtp && buf[0] == MPEG_TS_SYNC);
    }
    return 0;
}
