// The index from the offsets of a store to the arrival times of the datagrams that fed it.
#include "dgram.h"

#include <cstdint>

#include "clk.h"
#include "detail/owned.h"
#include "dstream.h"
#include "ktime.h"
#include "log.h"
#include "rqs.h"
#include "syswrap.h"
#include "timeop.h"

DECLARE_MLL(MLL_DGRAM);

namespace {

constexpr size_t kMaxSequences = 10000;
constexpr size_t kFewPackets = 8; // a sequence that ends with fewer is worth a warning

static_assert(sizeof(size_t) == sizeof(off_t), "lengths and offsets are added modulo 2^64");

using ulong = unsigned long;

const void* address(const struct dgram_idx* di)
{
    return di;
}

struct dgram_seq* seq_at(const struct dgram_idx* di, size_t index)
{
    return static_cast<struct dgram_seq*>(di->seq.data) + index;
}

long last_index(const struct dgram_idx* di)
{
    return static_cast<long>(di->seq.len) - 1;
}

// Where packet number packets of the sequence begins, counted from 0; for count that is its end.
off_t offset_of(const struct dgram_seq* seq, size_t packets)
{
    return static_cast<off_t>(static_cast<size_t>(seq->offset) + packets * seq->pkt_size);
}

// -1 second stands for no time, and stays -1.
long tms2ms(const struct timespec* tms)
{
    return tms->tv_sec == -1 ? -1 : tms->tv_sec * 1000 + tms->tv_nsec / 1000000;
}

void ms2timespec(long ms, struct timespec* tms)
{
    tms->tv_sec = ms < 0 ? -1 : ms / 1000;
    tms->tv_nsec = ms < 1 ? 0 : ms % 1000 * 1000000;
}

// The distance of two times, never negative; NULL is the present, read from the clock.
void tspec_diff(const struct timespec* a, const struct timespec* b, struct timespec* delta)
{
    struct timespec now = {};
    if (a == nullptr || b == nullptr) {
        set_clk_now(&now, FAST_MONOTONIC_CLOCK);
    }
    a = a != nullptr ? a : &now;
    b = b != nullptr ? b : &now;
    const bool forward = timespeccmp(a, b, >=);
    const struct timespec* earlier = forward ? b : a;
    *delta = forward ? *a : *b;
    timespecsub(delta, earlier);
}

long diff_ms(const struct timespec* a, const struct timespec* b)
{
    struct timespec delta;
    tspec_diff(a, b, &delta);
    return tms2ms(&delta);
}

// Slots grow with the time-out, in steps, so that a fixed number of them always covers it. MAX_TSLOTS is that
// number: whatever the time-out, that many slots are as long or longer.
u_long slot_width(u_long tmout_ms)
{
    if (tmout_ms < 1000) {
        return 10;
    }
    return tmout_ms < 10000 ? 100 : ((tmout_ms - 1) / 100000 + 1) * 1000;
}

// Notes the packet with a PAT of a segment before which the sequence had so many packets. A number that does
// not fit its field is not noted. Packets count from 1 here, so that 0 says "none".
void note_pat(struct dgram_seq* seq, size_t before, const struct sseg_ctx& sseg)
{
    const size_t packet = before + sseg.pat_idx;
    if (sseg.pat_idx == 0 || packet > UINT32_MAX) {
        return;
    }
    ASSERT(packet > seq->first_pat && packet > seq->last_pat);
    seq->last_pat = static_cast<uint32_t>(packet);
    if (seq->first_pat == 0) {
        seq->first_pat = seq->last_pat;
    }
}

ssize_t add_seq(struct dgram_idx* di, size_t pkt_len, size_t pkt_count, off_t offset, size_t max_dseq,
                const struct sseg_ctx& sseg)
{
    // Kept: the limit itself may be exceeded, by one.
    if (di->seq.len > max_dseq) {
        log_err("%s: DI(%p) record limit=%lu exceeded, won't add\n", __func__, address(di),
                static_cast<ulong>(max_dseq));
        return -1;
    }
    const ssize_t index = xvec_add(&di->seq, sizeof(struct dgram_seq), DGRAM_INCR);
    if (index < 0) {
        log_panic("%s: failed to expand sequence\n", __func__);
    }
    ASSERT(pkt_count != 0);
    struct dgram_seq* seq = seq_at(di, static_cast<size_t>(index));
    *seq = {};
    seq->pkt_size = pkt_len;
    // The loop's time: all datagrams of one cycle arrived, as far as anybody can tell, at once.
    seq->first_io = seq->last_io = *rqs_now_ref();
    seq->offset = offset;
    seq->count = pkt_count;
    seq->tslot_count[0] = static_cast<uint32_t>(pkt_count);
    note_pat(seq, 0, sseg);
    log_dbg("%s: DI(%p) added SEQ[%ld]: pkt size/count=%lu/%lu, dgram[0]: offset=%ld, PAT=%u/%u\n", __func__,
            address(di), static_cast<long>(index), static_cast<ulong>(pkt_len), static_cast<ulong>(pkt_count),
            static_cast<long>(offset), seq->first_pat, seq->last_pat);
    return index;
}

// What one call of dgram_add is about.
struct Segment {
    size_t len;
    off_t offset;
    size_t pkt_len;
    size_t pkt_count;
    struct sseg_ctx sseg;
};

ssize_t add_initial(const char* caller, struct dgram_idx* di, Segment& seg, const uint8_t* buf)
{
    log_dbg("%s: DI(%p) adding initial segment: offset=%ld len=%lu\n", caller, address(di),
            static_cast<long>(seg.offset), static_cast<ulong>(seg.len));
    const size_t given = seg.pkt_count;
    seg.sseg.pat_idx = 1;
    di->stype.num = probe_segment(buf + seg.offset, seg.len, 0, &seg.pkt_len, &seg.pkt_count, &seg.sseg);
    if (given != 0 && !is_raw(di->stype.num)) {
        seg.pkt_count = given;
    }
    return add_seq(di, seg.pkt_len, seg.pkt_count, seg.offset, kMaxSequences, seg.sseg);
}

// Says what the segment's packets are, for an index whose type is known.
void measure(struct dgram_idx* di, const struct dgram_seq* seq, Segment& seg, const uint8_t* buf)
{
    if (is_raw(di->stype.num)) {
        seg.pkt_len = seg.len;
        seg.pkt_count = 1;
        return;
    }
    seg.pkt_len = seq->pkt_size;
    seg.sseg.pat_idx = 1;
    // Kept: with type and size known nothing is probed, so that a count of 0 stays 0.
    di->stype.num =
        probe_segment(buf + seg.offset, seg.len, di->stype.num, &seg.pkt_len, &seg.pkt_count, &seg.sseg);
}

ssize_t stay(const char* caller, struct dgram_idx* di, struct dgram_seq* seq, const Segment& seg)
{
    ASSERT(seg.pkt_count != 0);
    const size_t before = seq->count;
    seq->count += seg.pkt_count;
    // Kept: the slot is of the clock, while the sequence's age is of the loop's time, which lags it.
    const long slot = diff_ms(nullptr, &seq->first_io) / static_cast<long>(di->tslot_ms);
    ASSERT(slot >= 0 && slot < MAX_TSLOTS);
    const auto index = static_cast<size_t>(slot);
    seq->tslot_count[index] += static_cast<uint32_t>(seg.pkt_count);
    if (index > seq->max_tslot) {
        seq->max_tslot = index;
    }
    // The packets of a sequence lie side by side in the store: every offset is reckoned from that, and a hole
    // would make them all wrong.
    const off_t expected = offset_of(seq, before);
    if (seg.offset != expected) {
        log_panic("%s: offset=%ld mismatch: expected=%ld\n", caller, static_cast<long>(seg.offset),
                  static_cast<long>(expected));
    }
    note_pat(seq, before, seg.sseg);
    log_dbg("%s: DI(%p) staying on SEQ[%ld]: pkt size/count=%lu/%lu, offset=%ld, tslot=%ld\n", caller,
            address(di), last_index(di), static_cast<ulong>(seq->pkt_size), static_cast<ulong>(seq->count),
            static_cast<long>(seg.offset), slot);
    return last_index(di);
}

void say_closing(const char* caller, const struct dgram_idx* di, const struct dgram_seq* seq,
                 const Segment& seg, bool expired)
{
    if (seg.pkt_len != seq->pkt_size && seq->count < kFewPackets) {
        log_warn("%s: seq[%lu] is only %lu elements long seq.pkt_size=%lu, d.pkt_size=%lu, seg_len=%lu %s\n",
                 caller, static_cast<ulong>(last_index(di)), static_cast<ulong>(seq->count),
                 static_cast<ulong>(seq->pkt_size), static_cast<ulong>(seg.pkt_len),
                 static_cast<ulong>(seg.len), expired ? "TIME-OUT" : "");
    }
    log_dbg("%s: closing seq[%ld]: pkt_size/count=%lu/%lu duration=%ld ms\n", caller, last_index(di),
            static_cast<ulong>(seq->pkt_size), static_cast<ulong>(seq->count),
            diff_ms(&seq->last_io, &seq->first_io));
}

ssize_t add_segment(const char* caller, struct dgram_idx* di, size_t seg_len, size_t pkt_count,
                    const uint8_t* buf, off_t offset)
{
    Segment seg = {seg_len, offset, 0, pkt_count, {}};
    if (di->seq.len == 0) {
        return add_initial(caller, di, seg, buf);
    }
    // Not to be used behind add_seq(), which may move the storage.
    struct dgram_seq* seq = seq_at(di, di->seq.len - 1);
    ASSERT(seq->count != 0 && seq->pkt_size != 0);
    // Kept: a segment that is about to close the sequence still gives it its time.
    seq->last_io = *rqs_now_ref();
    const bool expired = timed_out(&seq->first_io, &di->seq_tmout) != 0;
    if (expired) {
        log_info("%s: DI(%p) SEQ[%ld] timeout after %ld ms\n", caller, address(di), last_index(di),
                 diff_ms(&seq->last_io, &seq->first_io));
    }
    measure(di, seq, seg, buf);
    if (seg.pkt_len == seq->pkt_size && !expired) {
        return stay(caller, di, seq, seg);
    }
    if (seg.pkt_len != seq->pkt_size) {
        log_dbg("%s: DI(%p) SEQ[%ld] pkt_len=%lu != seq.pkt_size=%lu\n", caller, address(di), last_index(di),
                static_cast<ulong>(seg.pkt_len), static_cast<ulong>(seq->pkt_size));
    }
    say_closing(caller, di, seq, seg, expired);
    return add_seq(di, seg.pkt_len, seg.pkt_count, offset, kMaxSequences, seg.sseg);
}

// Milliseconds from the sequence's start at which packet k arrived, packets within a slot evenly spread.
uint32_t spread(const struct dgram_idx* di, const struct dgram_seq* seq, size_t k)
{
    size_t left = k;
    uint32_t delta = 0;
    for (size_t slot = 0; slot <= seq->max_tslot; ++slot) {
        const size_t n = seq->tslot_count[slot];
        // An empty slot never gets in here, so that nothing is divided by 0.
        if (left < n) {
            return delta + static_cast<uint32_t>(left * di->tslot_ms / n);
        }
        left -= n;
        delta += static_cast<uint32_t>(di->tslot_ms);
        if (left == 0) {
            break;
        }
    }
    return delta;
}

struct timespec later(struct timespec time, uint32_t delta_ms)
{
    struct timespec delta;
    ms2timespec(delta_ms, &delta);
    timespecadd(&time, &delta);
    return time;
}

// The sequence that an asker means by dseq, sequence 0 for a number that is not positive. Held against the
// storage, not the count: what is not in use yet is zeros, which read as an empty sequence.
const struct dgram_seq* asked_seq(const struct dgram_idx* di, ssize_t dseq)
{
    const size_t index = dseq > 0 ? static_cast<size_t>(dseq) : 0;
    ASSERT(index < di->seq.max_len);
    return seq_at(di, index);
}

} // namespace

struct dgram_idx* mk_dgram_idx(size_t rec_count, u_long tmout_ms)
{
    ASSERT(rec_count != 0 && tmout_ms != 0);
    mv::OwnedBlock<struct dgram_idx> di(Calloc(1, sizeof(struct dgram_idx)));
    if (!di) {
        return nullptr;
    }
    if (xvec_reserve(&di->seq, rec_count, sizeof(struct dgram_seq), DGRAM_INCR) != 0) {
        log_err("%s: failed to reserve %lu elements\n", __func__, static_cast<ulong>(rec_count));
        return nullptr;
    }
    ASSERT(tmout_ms >= 100);
    di->tslot_ms = slot_width(tmout_ms);
    ASSERT(di->tslot_ms >= 10);
    ms2timespec(static_cast<long>(tmout_ms), &di->seq_tmout);
    log_dbg("%s: DI(%p) tmout_ms=%lu, tslot_ms=%lu\n", __func__, address(di.get()),
            static_cast<ulong>(tmout_ms), static_cast<ulong>(di->tslot_ms));
    return di.release();
}

void free_dgram_idx(struct dgram_idx* di)
{
    ASSERT(di != nullptr);
    log_dbg("%s: DI(%p): %lu dgram sequences\n", __func__, address(di), static_cast<ulong>(di->seq.len));
    xvec_reset(&di->seq);
    free(di);
}

ssize_t dgram_add(struct dgram_idx* di, size_t seg_len, const uint8_t* buf, off_t offset)
{
    return add_segment(__func__, di, seg_len, 0, buf, offset);
}

ssize_t dgram_add_count(struct dgram_idx* di, size_t seg_len, size_t pkt_count, const uint8_t* buf,
                        off_t offset)
{
    return add_segment(__func__, di, seg_len, pkt_count, buf, offset);
}

void dgram_reset(struct dgram_idx* di)
{
    xvec_reset(&di->seq);
}

ssize_t dgram_find_seq(struct dgram_idx* di, ssize_t dseq, off_t offset)
{
    // Kept: the end belongs to the sequence, although the next one begins there.
    for (size_t i = dseq < 0 ? 0 : static_cast<size_t>(dseq); i < di->seq.len; ++i) {
        const struct dgram_seq* seq = seq_at(di, i);
        if (offset >= seq->offset && offset <= offset_of(seq, seq->count)) {
            return static_cast<ssize_t>(i);
        }
    }
    return -1;
}

struct timespec dgram_calc_time(struct dgram_idx* di, ssize_t dseq, off_t offset)
{
    // Between two arrivals the time is reckoned from the packet that the offset lies in: a store has no other
    // clock.
    const ssize_t index = dseq >= 1 ? dseq : dgram_find_seq(di, dseq, offset);
    ASSERT(index >= 0);
    const struct dgram_seq* seq = asked_seq(di, index);
    const off_t end = offset_of(seq, seq->count);
    if (offset >= end) {
        log_dbg("%s: DI(%p) dseq=%ld: offset=%ld >= max_offset=%ld, time=now\n", __func__, address(di),
                static_cast<long>(dseq), static_cast<long>(offset), static_cast<long>(end));
        return *rqs_now_ref();
    }
    ASSERT(offset >= seq->offset);
    // Behind both tests the sequence has bytes, so its packets have a size.
    const size_t distance = static_cast<size_t>(offset) - static_cast<size_t>(seq->offset);
    const auto k = static_cast<ssize_t>(distance / seq->pkt_size);
    ASSERT(k >= 0);
    const auto packet = static_cast<size_t>(k);
    const char* method = "approx";
    struct timespec time;
    if (packet == 0) {
        method = "first_io";
        time = seq->first_io;
    } else if (packet + 1 == seq->count) {
        method = "last_io";
        time = seq->last_io;
    } else {
        time = later(seq->first_io, spread(di, seq, packet));
    }
    log_dbg("%s: DI(%p) dseq=%ld SEQ[%ld] offset=%ld, dgram[%ld], method=%s, delta_ms=%ld\n", __func__,
            address(di), static_cast<long>(dseq), static_cast<long>(index), static_cast<long>(offset),
            static_cast<long>(k), method, diff_ms(&time, &seq->first_io));
    return time;
}

off_t last_dseq_offset(struct dgram_idx* di, ssize_t dseq)
{
    if (di->seq.data == nullptr) {
        return 0;
    }
    const struct dgram_seq* seq = asked_seq(di, dseq);
    size_t packet = seq->count;
    if (seq->last_pat != 0) {
        ASSERT(seq->last_pat <= seq->count);
        log_dbg("%s: using last_pat=%u\n", __func__, seq->last_pat);
        packet = seq->last_pat;
    }
    return packet == 0 ? seq->offset : offset_of(seq, packet - 1);
}

off_t first_dseq_offset(struct dgram_idx* di, ssize_t dseq)
{
    if (di->seq.data == nullptr) {
        return 0;
    }
    const struct dgram_seq* seq = asked_seq(di, dseq);
    if (seq->first_pat == 0) {
        return seq->offset;
    }
    ASSERT(seq->first_pat <= seq->count);
    log_dbg("%s: using first_pat=%u\n", __func__, seq->first_pat);
    return offset_of(seq, seq->first_pat - 1);
}
