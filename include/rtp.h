/*
 * rtp.h: whether a datagram is RTP (RFC 3550) that carries an MPEG transport stream (RFC 2250), and how long
 * its header and its padding are. Sequence numbers and time stamps are not looked at.
 *
 * State: none, pure functions but for the log (slot MLL_BUFD). Multi-byte fields are big-endian on the wire;
 * the accessors return host order.
 */
#ifndef MORVANE_RTP_H
#define MORVANE_RTP_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/* Sizes in bytes, and the version (RFC 3550, 5.1). */
enum {
    RTP_MIN_SIZE = 4,      /* for applications; nothing here uses it */
    RTP_HDR_SIZE = 12,     /* the fixed header */
    RTP_HDR_MAX_SIZE = 72, /* the fixed header with 15 contributing sources */
    RTP_V2 = 2,            /* the protocol version */
    XTLEN_OFFSET =
        14,        /* of the length of a header extension, where no contributing source stands before it */
    XTSIZE = 4,    /* unit of that length */
    CSRC_SIZE = 4, /* one contributing source */
    RTP_XTHDRLEN = XTLEN_OFFSET + XTSIZE /* bytes that an extended header needs to be read */
};

/* P_MPGA, P_MPGV, P_MPGTS: payload types of MPEG audio, MPEG video and transport streams (RFC 3551, 6). */
enum { P_MPGA = 14, P_MPGV = 32, P_MPGTS = 33 };

/*
 * Accessors on the first byte of a packet. The caller answers for the bytes that they read: the 2 at i for
 * rtp_u16, l for rtp_pad_length, the first 2 for the others. Flags are zero or non-zero.
 */

/* rtp_version: the protocol version, 0 to 3. */
static inline unsigned rtp_version(const uint8_t* p)
{
    return (p[0] & 0xC0U) >> 6;
}

/* rtp_payload_type: the payload type, 7 bits. */
static inline unsigned rtp_payload_type(const uint8_t* p)
{
    return p[1] & 0x7fU;
}

/* rtp_ext: whether a header extension follows, 0x10 or 0. */
static inline unsigned rtp_ext(const uint8_t* p)
{
    return p[0] & 0x10U;
}

/* rtp_CSRC: number of contributing sources, 0 to 15. */
static inline unsigned rtp_CSRC(const uint8_t* p)
{
    return p[0] & 0x0fU;
}

/* rtp_u16: the 16-bit number at offset i. */
static inline unsigned rtp_u16(const uint8_t* p, size_t i)
{
    return ((unsigned)p[i] << 8) + p[i + 1];
}

/* rtp_padding: whether padding ends the packet, 0x20 or 0. */
static inline unsigned rtp_padding(const uint8_t* p)
{
    return p[0] & 0x20U;
}

/* rtp_pad_length: bytes of padding of a packet of l bytes (l not 0), by its last byte: up to 255. */
static inline unsigned rtp_pad_length(const uint8_t* p, size_t l)
{
    return p[l - 1];
}

/*
 * is_rtp_pkt: whether a packet is RTP with the plain header of 12 bytes and a transport stream behind it. The
 * caller answers for 13 readable bytes, 16 where the extension bit is set; a datagram that may hold a
 * transport packet has more. false writes one line, at WARN_level, or at ERR_level for a header that is not
 * of 12 bytes: with contributing sources, with an extension, or with the payload types P_MPGA and P_MPGV,
 * whose headers have four bytes more.
 */
bool is_rtp_pkt(const uint8_t* pkt);

/*
 * rtp_header_len: bytes before the payload, by the header's own fields; it may exceed len. Nothing is read
 * beyond len. The length of an extension is read at XTLEN_OFFSET also where contributing sources stand before
 * it. Returns the length, or -12 with a line at ERR_level for an extended header in less than RTP_XTHDRLEN
 * bytes. REQUIRES: len >= RTP_HDR_SIZE.
 */
ssize_t rtp_header_len(const uint8_t* pkt, size_t len);

/*
 * rtp_footer_len: bytes of padding at the end of a packet of len bytes, by its last byte if the padding bit
 * is set, else 0; it may exceed len. A packet of no bytes has no padding.
 */
size_t rtp_footer_len(const uint8_t* pkt, size_t len);

MV_END_DECLS

#endif
