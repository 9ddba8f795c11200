/*
 * dgram.h: the index of a data store that is fed by a stream of datagrams: from byte offsets to arrival
 * times, and to places where a reader may start. It holds no record per datagram, but one per run of like
 * segments (a sequence), each with a small histogram of arrivals over time.
 *
 * A segment is what one call of dgram_add reports. A packet is the unit of counting: the whole segment of a
 * raw stream, one transport packet of a transport stream. A sequence is a run of segments of one packet size
 * that follow each other in the store, begun no longer than the time-out ago; it is named by its number
 * (dseq), counted from 0. Only the newest sequence grows.
 *
 * Offsets and lengths are bytes; times are CLOCK_MONOTONIC, those of first_io and last_io as the event loop
 * has them (rqs_now_ref). State: the records that mk_dgram_idx makes, each used by the loop's thread alone.
 * Lines go to slot MLL_DGRAM.
 */
#ifndef MORVANE_DGRAM_H
#define MORVANE_DGRAM_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include "mvtypes.h"
#include "xvdat.h"

MV_BEGIN_DECLS

/* MAX_TSLOTS: time slots of a sequence. DGRAM_INCR: sequences by which the index grows. */
enum { MAX_TSLOTS = 100, DGRAM_INCR = 8 };

/* dgram_seq: one sequence. To be read; only the calls below write it. */
struct dgram_seq {
    size_t pkt_size;          /* bytes of a packet */
    struct timespec first_io; /* arrival of the first segment */
    struct timespec last_io;  /* arrival of the last segment seen while this was the newest sequence */
    off_t offset;             /* of the first byte in the store */
    size_t count;             /* packets */
    uint32_t
        tslot_count[MAX_TSLOTS]; /* packets that arrived in each slot of tslot_ms, counted from first_io */
    size_t max_tslot;            /* the highest slot in use */
    uint32_t first_pat;          /* first packet that is known to hold a PAT, counted from 1; 0: none */
    uint32_t last_pat;           /* the first such packet of the newest segment that holds one; 0: none */
};

/* dgram_idx: one index. To be read; only the calls below write it. */
struct dgram_idx {
    union n32_tag stype;       /* the stream's type, as probe_segment answered last; 0 at first */
    struct xvec seq;           /* of struct dgram_seq */
    struct timespec seq_tmout; /* longest life of a sequence */
    unsigned long tslot_ms;    /* width of a time slot, milliseconds */
};

/*
 * mk_dgram_idx: makes an empty index, with room for rec_count sequences; a sequence lives for tmout_ms
 * milliseconds. The slots are 10 ms wide for a time-out below 1000, 100 below 10000, and whole seconds from
 * there on, so that a life fits in MAX_TSLOTS. Returns the index, which is the caller's until free_dgram_idx;
 * NULL with a line at ERR_level if memory is out. REQUIRES: rec_count not 0, tmout_ms at least 100.
 */
struct dgram_idx* mk_dgram_idx(size_t rec_count, unsigned long tmout_ms);

/* free_dgram_idx: frees the index and its sequences. */
void free_dgram_idx(struct dgram_idx* di);

/*
 * dgram_add: enters the segment of seg_len bytes that lies at offset in the store; buf is the start of the
 * store, of which a raw stream's segments are read only in an empty index. Returns the number of the sequence
 * that took the segment; -1 with a line at ERR_level if the index is full (10001 sequences): the segment is
 * then not recorded, nor is any later one that needs a new sequence.
 *
 * A segment stays on the newest sequence if its packets have the same size and the sequence is not older than
 * the time-out; otherwise it opens a new one. What ends the process: a staying segment that does not begin
 * where the one before ended; a slot beyond MAX_TSLOTS - 1, which a loop's time far behind the clock can
 * cause; memory for a new sequence running out; any segment on a sequence whose first segment had no bytes;
 * and the second segment of a transport stream, whose packets are not counted here: see dgram_add_count.
 */
ssize_t dgram_add(struct dgram_idx* di, size_t seg_len, const uint8_t* buf, off_t offset);

/*
 * dgram_add_count: dgram_add for a segment of pkt_count transport packets, normally seg_len divided by the
 * sequence's pkt_size. With it a transport sequence grows, and last_pat follows the newest segment that holds
 * a PAT. 0 leaves the count to the probe, which counts only a segment in an empty index, so dgram_add is this
 * with 0. A raw stream does not look at it: there each segment is one packet. A count that is not that of the
 * segment shows as a wrong offset of the next one.
 */
ssize_t dgram_add_count(struct dgram_idx* di, size_t seg_len, size_t pkt_count, const uint8_t* buf,
                        off_t offset);

/* dgram_reset: forgets all sequences; stype stays, and the next segment is probed anew. */
void dgram_reset(struct dgram_idx* di);

/*
 * dgram_find_seq: the first sequence, from dseq on (from 0 if that is negative), in which offset lies; its
 * end counts as inside. Returns the number, or -1.
 */
ssize_t dgram_find_seq(struct dgram_idx* di, ssize_t dseq, off_t offset);

/*
 * dgram_calc_time: when the packet at offset arrived: exact for the first and the last packet of a sequence,
 * otherwise by the histogram, as if the packets of a slot had come evenly spread. A dseq of 1 or more names
 * the sequence, on trust; with less it is found by dgram_find_seq. An offset at the end of the sequence or
 * behind gives the loop's present time. REQUIRES: a sequence that is found, or lies within the storage; an
 * offset not before its start.
 */
struct timespec dgram_calc_time(struct dgram_idx* di, ssize_t dseq, off_t offset);

/*
 * last_dseq_offset: where in the store the last entry point of sequence dseq begins (sequence 0 if dseq is
 * not positive): the packet last_pat, or the last packet if no PAT is known; for a sequence without packets,
 * its start.
 *
 * first_dseq_offset: where the first entry point begins: the packet first_pat, or the start of the sequence.
 *
 * Both: 0 for an index without storage. REQUIRES: dseq within the storage; first_pat, last_pat not above
 * count.
 */
off_t last_dseq_offset(struct dgram_idx* di, ssize_t dseq);
off_t first_dseq_offset(struct dgram_idx* di, ssize_t dseq);

MV_END_DECLS

#endif
