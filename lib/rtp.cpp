// Recognition of RTP around a transport stream.
#include "rtp.h"

#include <cerrno>

#include "detail/assertions.h"
#include "log.h"
#include "mpegts.h"

DECLARE_MLL(MLL_BUFD);

namespace {

// Bytes of the header that RFC 2250 puts in front of MPEG audio and video.
constexpr ssize_t kMpegHeader = 4;

} // namespace

bool is_rtp_pkt(const uint8_t* pkt)
{
    if (rtp_version(pkt) != RTP_V2) {
        log_warn("%s: wrong RTP version: expected 0x%x, got 0x%x\n", __func__, static_cast<unsigned>(RTP_V2),
                 rtp_version(pkt));
        return false;
    }
    const unsigned type = rtp_payload_type(pkt);
    if (type != P_MPGA && type != P_MPGV && type != P_MPGTS) {
        log_warn("%s: wrong payload type: 0x%x\n", __func__, type);
        return false;
    }
    const ssize_t header = rtp_header_len(pkt, TS_MIN_PKTSIZE);
    // Kept: only the plain header gets through, and so never the payload types of audio and video.
    if (header != RTP_HDR_SIZE) {
        log_err("%s: invalid RTP header length: %ld\n", __func__, static_cast<long>(header));
        return false;
    }
    if (!ts_has_sync(pkt + RTP_HDR_SIZE)) {
        // Kept: the number shown is the first byte of the packet, not the one that was tested.
        log_warn("%s: non-TS content inside (allegedly) RTP container (0x%02x)\n", __func__,
                 static_cast<unsigned>(pkt[0]));
        return false;
    }
    return true;
}

ssize_t rtp_header_len(const uint8_t* pkt, size_t len)
{
    assert(len >= RTP_HDR_SIZE);
    ssize_t header = RTP_HDR_SIZE + static_cast<ssize_t>(rtp_CSRC(pkt)) * CSRC_SIZE;
    const unsigned type = rtp_payload_type(pkt);
    if (type == P_MPGA || type == P_MPGV) {
        header += kMpegHeader;
    }
    if (rtp_ext(pkt) == 0) {
        return header;
    }
    if (len < RTP_XTHDRLEN) {
        log_err("%s: insufficient length (%lu) for extended header\n", __func__,
                static_cast<unsigned long>(len));
        return -ENOMEM;
    }
    // Kept: the length is read at its place behind a plain header even if contributing sources stand there.
    return header + (static_cast<ssize_t>(rtp_u16(pkt, XTLEN_OFFSET)) + 1) * XTSIZE;
}

size_t rtp_footer_len(const uint8_t* pkt, size_t len)
{
    return len > 0 && rtp_padding(pkt) != 0 ? rtp_pad_length(pkt, len) : 0;
}
