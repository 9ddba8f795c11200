/*
 * mpegts.h: recognition of an MPEG transport stream (ISO/IEC 13818-1) in a raw buffer: packet size, first
 * packet, programme clock references (PCR); and the accessors of the fields of a packet.
 *
 * Every question is about one buffer; nothing is decided about a stream as a whole. State: none, pure
 * functions but for the log (slot MLL_DGRAM). Any thread that may log may call.
 *
 * A packet begins with MPEG_TS_SYNC and is 188 bytes long; behind a time stamp of four bytes (m2ts), or with
 * 16 or 20 bytes of check symbols, packets stand 192, 204 or 208 bytes apart. Multi-byte fields are
 * big-endian on the wire; the accessors return host order. Clock values count ticks of the 90 kHz base unless
 * said otherwise.
 */
#ifndef MORVANE_MPEGTS_H
#define MORVANE_MPEGTS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/* MPEG_TS_SYNC: first byte of each packet (ISO/IEC 13818-1, 2.4.3.3). TS_MIN_PKTSIZE, TS_MAX_PKTSIZE: least
 * and greatest packet size that is recognised, bytes. */
enum { MPEG_TS_SYNC = 0x47, TS_MIN_PKTSIZE = 188, TS_MAX_PKTSIZE = 208 };

/* PCR_ONE_SEC: ticks in a second. MAX_PCR_GAP: greatest distance of two clock values that ts_pcr_delta
 * believes, half a second. */
enum { PCR_ONE_SEC = 90000, MAX_PCR_GAP = 45000 };

/* P2_33: 2 to the power of 33, the period of the base of a PCR, in ticks. */
#define P2_33 ((uint64_t)0x200000000)

/*
 * Accessors of the packet header (ISO/IEC 13818-1, 2.4.3.2), on the packet's first byte. The caller answers
 * for four readable bytes. Flags are zero or non-zero.
 */

/* ts_has_sync: whether the packet begins with the sync byte. */
static inline bool ts_has_sync(const uint8_t* b)
{
    return b[0] == MPEG_TS_SYNC;
}

/* ts_transp_err: the transport error indicator, 0x80 or 0. */
static inline unsigned ts_transp_err(const uint8_t* b)
{
    return b[1] & 0x80U;
}

/* ts_payload_start: the payload unit start indicator, 0x40 or 0. */
static inline unsigned ts_payload_start(const uint8_t* b)
{
    return b[1] & 0x40U;
}

/* ts_transp_pri: the transport priority, 0x20 or 0. */
static inline unsigned ts_transp_pri(const uint8_t* b)
{
    return b[1] & 0x20U;
}

/* ts_pid: the packet identifier, 13 bits. */
static inline unsigned ts_pid(const uint8_t* b)
{
    return ((b[1] & 0x1FU) << 8) | b[2];
}

/* ts_scrambling: the scrambling control, 0 to 3. */
static inline unsigned ts_scrambling(const uint8_t* b)
{
    return (unsigned)b[3] >> 6;
}

/* ts_adaptation: the adaptation field control: 1 payload alone, 2 adaptation field alone, 3 both. */
static inline unsigned ts_adaptation(const uint8_t* b)
{
    return (b[3] & 0x30U) >> 4;
}

/* ts_continuity: the continuity counter, 0 to 15. */
static inline unsigned ts_continuity(const uint8_t* b)
{
    return b[3] & 0x0fU;
}

/* ts_payload: whether there is a payload, 0x10 or 0. */
static inline unsigned ts_payload(const uint8_t* b)
{
    return b[3] & 0x10U;
}

/*
 * Accessors of the adaptation field (ISO/IEC 13818-1, 2.4.3.4), on the packet's first byte, which mean
 * something only where ts_adaptation is 2 or 3, and beyond the length only where ts_adapt_len is not 0. The
 * caller answers for 6 readable bytes, 12 for the two clock values.
 */

/* ts_adapt_len: bytes of the adaptation field behind its length, as sent: up to 255. */
static inline unsigned ts_adapt_len(const uint8_t* b)
{
    return b[4];
}

/* ts_adapt_discn: the discontinuity indicator, 0x80 or 0. */
static inline unsigned ts_adapt_discn(const uint8_t* b)
{
    return b[5] & 0x80U;
}

/* ts_adapt_rand: the random access indicator, 0x40 or 0. */
static inline unsigned ts_adapt_rand(const uint8_t* b)
{
    return b[5] & 0x40U;
}

/* ts_adapt_espri: the elementary stream priority indicator, 0x20 or 0. */
static inline unsigned ts_adapt_espri(const uint8_t* b)
{
    return b[5] & 0x20U;
}

/* ts_adapt_pcr: whether a PCR follows, 0x10 or 0. */
static inline unsigned ts_adapt_pcr(const uint8_t* b)
{
    return b[5] & 0x10U;
}

/* ts_adapt_opcr: whether an original PCR follows, 0x08 or 0. */
static inline unsigned ts_adapt_opcr(const uint8_t* b)
{
    return b[5] & 0x08U;
}

/* ts_adapt_ext: whether an extension of the adaptation field follows, 0x01 or 0. */
static inline unsigned ts_adapt_ext(const uint8_t* b)
{
    return b[5] & 0x01U;
}

/* ts_get_pcr: the 33-bit base of the PCR, ticks of 90 kHz (2.4.3.5). */
static inline uint64_t ts_get_pcr(const uint8_t* b)
{
    return ((uint64_t)b[6] << 25) | ((uint32_t)b[7] << 17) | ((uint32_t)b[8] << 9) | ((uint32_t)b[9] << 1) |
           ((uint32_t)b[10] >> 7);
}

/* ts_get_xpcr: the 9-bit extension of the PCR, ticks of 27 MHz, 0 to 299 in a valid stream. */
static inline unsigned ts_get_xpcr(const uint8_t* b)
{
    return ((b[10] & 1U) << 8) | b[11];
}

/* pcr2ms, ms2pcr, pcr2usc: ticks to milliseconds, milliseconds to ticks, ticks to microseconds; fractions are
 * dropped. */
static inline uint64_t pcr2ms(uint64_t v)
{
    return v / 90;
}

static inline uint64_t ms2pcr(uint64_t v)
{
    return v * 90;
}

static inline uint64_t pcr2usc(uint64_t v)
{
    return v * 100 / 9;
}

/* PES_STREAM_ID_MIN and the ids above it: stream ids of a PES packet (ISO/IEC 13818-1, table 2-22); those of
 * MPEG audio and video are the first of their ranges. */
enum {
    PES_STREAM_ID_MIN = 0xbc,
    PES_STREAM_ID_PRIVATE_1 = 0xbd,
    PES_STREAM_ID_PRIVATE_2 = 0xbf,
    PES_STREAM_ID_AUDIO_MPEG = 0xc0,
    PES_STREAM_ID_VIDEO_MPEG = 0xe0
};

/* pes_stream_id: the stream id of the PES packet at b; four readable bytes. */
static inline unsigned pes_stream_id(const uint8_t* b)
{
    return b[3];
}

/* pes_hdr_len: bytes of optional fields and stuffing in the header of the PES packet at b; nine readable
 * bytes.
 */
static inline unsigned pes_hdr_len(const uint8_t* b)
{
    return b[8];
}

/* match_start: whether the start code 0, 0, 1, i stands at p; four readable bytes. */
static inline bool match_start(const uint8_t* p, uint8_t i)
{
    return p[0] == 0 && p[1] == 0 && p[2] == 1 && p[3] == i;
}

/*
 * ts_probe: the packet size of the transport stream at buf, of len bytes: the first of 188, 192, 204 and 208
 * at which every packet that begins in the buffer begins with the sync byte. The last packet may be cut,
 * unless full_pkts asks for a whole number of packets. A buffer as long as one packet is taken for it by its
 * first byte alone.
 *
 * Returns the size; -22 without a sync byte at the start (nothing is read if len is 0); -1 if the buffer is
 * shorter than the size to be tried next; -3 if none fits. One line at DEBUG_level where sizes were compared
 * to their end.
 */
ssize_t ts_probe(const uint8_t* buf, size_t len, bool full_pkts);

/*
 * ts_find_head: the offset of the first packet in a buffer that may begin inside one: the first sync byte
 * from which ts_probe finds a size, which then goes to *pkt_len. The search for the next one, from offset k
 * on, leaves out the last k bytes of the buffer.
 *
 * Returns the offset, or -1 if there is none, which includes that no further sync byte follows one that was
 * not confirmed. The walk ends with the first sync byte behind offset TS_MAX_PKTSIZE - 2, which is returned
 * confirmed or not; only in the first case *pkt_len is written. A NULL pkt_len confirms nothing: the walk
 * then goes on to that end, or to -1.
 */
off_t ts_find_head(const uint8_t* buf, size_t len, size_t* pkt_len);

/*
 * ts_pcr_delta: ticks from first to last. A distance below MAX_PCR_GAP across the wrap of the 33-bit base is
 * believed, and so is one of up to MAX_PCR_GAP without a wrap, and any distance if first is 0. Otherwise 0,
 * with a line at WARN_level.
 */
uint64_t ts_pcr_delta(uint64_t first, uint64_t last);

/*
 * find_last_pcr: the PCR of the last packet of the buffer that has one, counted back from the end in steps of
 * pkt_len. The packet at the very start of the buffer is not looked at.
 *
 * find_first_pcr: the PCR of the first packet that has one, counted from the start. A packet that is cut by
 * the end of the buffer reads as if zeros followed.
 *
 * Both: 0 and the base in *pcr, or -1 with *pcr as it was. A pkt_len of 0 looks at one place alone: at the
 * start for the first, at the end, where there is nothing, for the last. No line. REQUIRES: buf, pcr, len >=
 * pkt_len.
 */
int find_last_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr);
int find_first_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr);

MV_END_DECLS

#endif
