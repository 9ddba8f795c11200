/*
 * dstream.h: what one segment of a multicast stream holds, as it came in one datagram or one read: raw bytes,
 * a transport stream of some packet size, or RTP around a transport stream; and where in a transport segment
 * a programme association table (PAT), a clock reference (PCR) or the start of an intra-coded picture stands.
 *
 * State: none; the caller owns every buffer. Lines go to slot MLL_DGRAM.
 */
#ifndef MORVANE_DSTREAM_H
#define MORVANE_DSTREAM_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/* STY_RAW, STY_MPEGTS, STY_RTP: types of a stream, "RAW", "TS" and "RTP". The number 0 is an unknown type. */
extern const union n32_tag STY_RAW;
extern const union n32_tag STY_MPEGTS;
extern const union n32_tag STY_RTP;

/* is_raw: whether the number of a type is that of STY_RAW, or 0. */
static inline bool is_raw(int32_t n)
{
    return n == 0 || n == STY_RAW.num;
}

/*
 * sseg_ctx: what a transport segment holds. The three indices go in as requests, non-zero to look for the
 * thing, and come out as answers: the first packet that has it, counted from 1, or 0.
 */
struct sseg_ctx {
    uint32_t pat_idx; /* packet with a PAT */
    uint32_t pcr_idx; /* packet with a PCR */
    uint64_t pcr;     /* its base, ticks of 90 kHz; left alone if there is none */
    uint32_t
        iframe_idx; /* packet at which an intra-coded picture starts, or that is marked as an entry point */
};

/* XF_NO_RTP: hint of xtract_ts_payload: do not try RTP. */
enum { XF_NO_RTP = 1 };

/*
 * probe_segment: the type of the segment of buflen bytes at buf: STY_MPEGTS for a whole number of packets by
 * ts_probe, else STY_RAW; as its number.
 *
 * stype_id is the type known so far, or 0. plen (may be NULL) brings the packet size known so far, or 0, and
 * receives the size found. pcount (may be NULL) receives the number of packets. A raw segment is one packet
 * as long as itself. Where stype_id and *plen are both known nothing is probed: the type is stype_id, and
 * unless that is STY_RAW neither *plen nor *pcount is written.
 *
 * sseg (may be NULL) asks for positions as said at sseg_ctx. The search takes the bytes as transport packets,
 * whatever they are, and stops when all requests are answered. A field that lies beyond the buffer reads as
 * zero; one beyond its packet but inside the buffer counts. On any other type all indices come back 0, with a
 * line at WARN_level.
 *
 * A change of a known type to STY_RAW is a line at WARN_level. There is no failure.
 */
int32_t probe_segment(const uint8_t* buf, size_t buflen, int32_t stype_id, size_t* plen, size_t* pcount,
                      struct sseg_ctx* sseg);

/*
 * xtract_ts_payload: removes an RTP wrapper in place: header and padding go, the payload moves to the start
 * of buf, *outlen is its length and *stype (may be NULL) STY_RTP. A segment that begins with a sync byte, or
 * is not RTP (or hints has XF_NO_RTP), stays as it is, with *stype STY_MPEGTS or STY_RAW and *outlen left
 * alone.
 *
 * Returns 0; -1 with a line at ERR_level for a wrapper whose padding leaves no more than one transport
 * packet: then nothing is changed. Nothing is read beyond inlen bytes.
 */
int xtract_ts_payload(void* buf, size_t inlen, ssize_t* outlen, int32_t* stype, uint32_t hints);

MV_END_DECLS

#endif
