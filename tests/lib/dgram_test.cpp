#include "dgram.h"

#include <climits>
#include <csignal>
#include <ctime>
#include <memory>
#include <random>

#include <gtest/gtest.h>

#include "child.h"
#include "dstream.h"
#include "fixtures.h"
#include "oom.h"
#include "rqs.h"
#include "text.h"
#include "ts_packets.h"
#include "wrap.h"

using support::Buffer;
using support::expect_abort;
using support::FailAllocation;
using support::format;
using support::join;
using support::Lines;
using support::pat_packet;
using support::plain_packet;
using support::repeat;

namespace {

// The two clocks of the index, in the hand of the test: the loop's time and the monotonic clock.
timespec& loop_time = *const_cast<timespec*>(rqs_now_ref());
timespec clock_time;

} // namespace

WRAPPED(int, clock_gettime, (clockid_t id, timespec* tms));

extern "C" {
int __wrap_clock_gettime(clockid_t id, timespec* tms)
{
    if (id != CLOCK_MONOTONIC) {
        return __real_clock_gettime(id, tms);
    }
    *tms = clock_time;
    return 0;
}
}

namespace {

constexpr long kStart = 5'000'000; // milliseconds on the clock at which each test begins

struct Free {
    void operator()(dgram_idx* di) const { free_dgram_idx(di); }
};

using Index = std::unique_ptr<dgram_idx, Free>;

Index make(u_long tmout_ms, size_t rec_count = 4)
{
    return Index(mk_dgram_idx(rec_count, tmout_ms));
}

timespec at(long ms)
{
    const long total = kStart + ms;
    return {total / 1000, total % 1000 * 1'000'000};
}

// Sets both clocks to a time in milliseconds from the start of the test.
void go(long ms)
{
    loop_time = clock_time = at(ms);
}

long ms_of(const timespec& tms)
{
    return tms.tv_sec * 1000 + tms.tv_nsec / 1'000'000 - kStart;
}

dgram_seq& seq(const Index& di, size_t index)
{
    return static_cast<dgram_seq*>(di->seq.data)[index];
}

// Bytes that are no transport stream, as many as a test's store needs.
const uint8_t* raw_store()
{
    static const Buffer store(1 << 20, 0x11);
    return store.data();
}

// Appends segments of one length behind what the newest sequence holds. Returns the last result.
ssize_t feed(const Index& di, off_t& offset, size_t seg_len, size_t count)
{
    ssize_t dseq = -1;
    for (size_t i = 0; i < count; ++i) {
        dseq = dgram_add(di.get(), seg_len, raw_store(), offset);
        offset += static_cast<off_t>(seg_len);
    }
    return dseq;
}

class Dgram : public support::GuardedTest {
  protected:
    void SetUp() override { go(0); }
};

} // namespace

TEST_F(Dgram, constants_have_their_values)
{
    EXPECT_EQ(MAX_TSLOTS, 100);
    EXPECT_EQ(DGRAM_INCR, 8);
}

TEST_F(Dgram, slot_widths_by_the_time_out)
{
    const std::pair<u_long, u_long> table[] = {{100, 10},      {999, 10},     {1000, 100},    {9999, 100},
                                               {10000, 1000},  {99999, 1000}, {100000, 1000}, {100001, 2000},
                                               {200000, 2000}, {200001, 3000}};
    for (const auto& [tmout_ms, tslot_ms] : table) {
        const Index di = make(tmout_ms);
        ASSERT_TRUE(di);
        EXPECT_EQ(di->tslot_ms, tslot_ms) << tmout_ms;
        EXPECT_EQ(di->seq_tmout.tv_sec, static_cast<time_t>(tmout_ms / 1000));
        EXPECT_EQ(di->seq_tmout.tv_nsec, static_cast<long>(tmout_ms % 1000 * 1'000'000));
        EXPECT_EQ(di->stype.num, 0);
        EXPECT_EQ(di->seq.len, 0U);
    }
}

TEST_F(Dgram, a_time_out_beyond_the_range_of_milliseconds_has_always_passed)
{
    const Index di = make(ULONG_MAX);
    EXPECT_EQ(di->seq_tmout.tv_sec, -1);
    EXPECT_EQ(di->seq_tmout.tv_nsec, 0);
    off_t offset = 0;
    EXPECT_EQ(feed(di, offset, 100, 1), 0);
    EXPECT_EQ(feed(di, offset, 100, 1), 1);
}

TEST_F(Dgram, storage_is_reserved_at_once)
{
    EXPECT_GE(make(1000, 1)->seq.max_len, 1U);
    EXPECT_GE(make(1000, 100)->seq.max_len, 100U);
}

TEST_F(Dgram, preconditions_of_an_index)
{
    expect_abort("mk_dgram_idx", [] { mk_dgram_idx(0, 1000); });
    expect_abort("mk_dgram_idx", [] { mk_dgram_idx(1, 0); });
    expect_abort("mk_dgram_idx", [] { mk_dgram_idx(1, 99); });
    expect_abort("free_dgram_idx", [] { free_dgram_idx(nullptr); });
}

TEST_F(Dgram, an_index_without_memory_is_null_and_told)
{
    {
        const FailAllocation fail(1);
        EXPECT_EQ(mk_dgram_idx(4, 1000), nullptr);
    }
    EXPECT_EQ(log.lines(),
              Lines{format("(ERR)  mk_dgram_idx: calloc(1, %zu) ERROR(12): Cannot allocate memory",
                           sizeof(dgram_idx))});
    log.clear();
    {
        const FailAllocation fail(2);
        EXPECT_EQ(mk_dgram_idx(4, 1000), nullptr);
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_EQ(log.lines(), Lines{"(ERR)  mk_dgram_idx: failed to reserve 4 elements"});
}

TEST_F(Dgram, debug_lines_tell_of_an_index_from_its_making_to_its_end)
{
    log.set_level(DEBUG_level);
    dgram_idx* di = mk_dgram_idx(4, 2500);
    const auto* where = static_cast<const void*>(di);
    EXPECT_EQ(log.lines(), Lines{format("(DBG)  mk_dgram_idx: DI(%p) tmout_ms=2500, tslot_ms=100", where)});
    log.clear();
    dgram_add(di, 500, raw_store(), 0);
    EXPECT_EQ(log.lines().front(),
              format("(DBG)  dgram_add: DI(%p) adding initial segment: offset=0 len=500", where));
    EXPECT_EQ(log.lines().back(),
              format("(DBG)  add_seq: DI(%p) added SEQ[0]: pkt size/count=500/1, dgram[0]: offset=0, PAT=0/0",
                     where));
    log.clear();
    go(70);
    dgram_add(di, 500, raw_store(), 500);
    EXPECT_EQ(log.lines().size(), 1U);
    log.clear();
    dgram_add(di, 400, raw_store(), 1000);
    EXPECT_EQ(log.lines(),
              (Lines{format("(DBG)  dgram_add: DI(%p) SEQ[0] pkt_len=400 != seq.pkt_size=500", where),
                     "(WRN)  dgram_add: seq[0] is only 2 elements long seq.pkt_size=500, d.pkt_size=400, "
                     "seg_len=400 ",
                     "(DBG)  dgram_add: closing seq[0]: pkt_size/count=500/2 duration=70 ms",
                     format("(DBG)  add_seq: DI(%p) added SEQ[1]: pkt size/count=400/1, dgram[0]: "
                            "offset=1000, PAT=0/0",
                            where)}));
    log.clear();
    free_dgram_idx(di);
    EXPECT_EQ(log.lines(), Lines{format("(DBG)  free_dgram_idx: DI(%p): 2 dgram sequences", where)});
}

TEST_F(Dgram, raw_datagrams_of_one_length_are_one_sequence)
{
    const Index di = make(1000);
    for (const off_t offset : {0, 1316, 2632}) {
        EXPECT_EQ(dgram_add(di.get(), 1316, raw_store(), offset), 0);
    }
    EXPECT_EQ(di->stype.num, STY_RAW.num);
    EXPECT_EQ(di->seq.len, 1U);
    EXPECT_EQ(seq(di, 0).count, 3U);
    EXPECT_EQ(seq(di, 0).pkt_size, 1316U);
    EXPECT_EQ(log.lines(), Lines{"(WRN)  probe_segment: no processing for [RAW] stream supported"})
        << "the initial segment was probed for a table";
    log.clear();
    EXPECT_EQ(dgram_add(di.get(), 700, raw_store(), 3948), 1);
    EXPECT_EQ(log.lines(), Lines{"(WRN)  dgram_add: seq[0] is only 3 elements long seq.pkt_size=1316, "
                                 "d.pkt_size=700, seg_len=700 "});
    EXPECT_EQ(seq(di, 1).offset, 3948);
    EXPECT_EQ(seq(di, 1).count, 1U);
    EXPECT_EQ(seq(di, 1).pkt_size, 700U);
    EXPECT_EQ(seq(di, 1).first_pat + seq(di, 1).last_pat, 0U);
}

TEST_F(Dgram, a_sequence_of_eight_or_more_closes_silently)
{
    for (const size_t count : {7, 8, 10}) {
        const Index di = make(1000);
        off_t offset = 0;
        feed(di, offset, 1316, count);
        log.clear();
        EXPECT_EQ(feed(di, offset, 700, 1), 1);
        EXPECT_EQ(log.lines().size(), count < 8 ? 1U : 0U) << count;
    }
}

TEST_F(Dgram, no_byte_of_a_raw_stream_is_looked_at_once_it_is_known)
{
    const Index di = make(1000);
    off_t offset = 0;
    feed(di, offset, 100, 1);
    EXPECT_EQ(dgram_add(di.get(), 100, nullptr, offset), 0);
    // Not even what would pass for a transport stream.
    EXPECT_EQ(dgram_add(di.get(), 188, nullptr, offset + 100), 1);
    EXPECT_EQ(di->stype.num, STY_RAW.num);
}

TEST_F(Dgram, arrivals_are_counted_by_slots)
{
    const Index di = make(5000);
    off_t offset = 0;
    for (const long ms : {0, 10, 99, 100, 250, 299, 4999}) {
        go(ms);
        EXPECT_EQ(feed(di, offset, 100, 1), 0) << ms;
    }
    const dgram_seq& only = seq(di, 0);
    EXPECT_EQ(only.tslot_count[0], 3U);
    EXPECT_EQ(only.tslot_count[1], 1U);
    EXPECT_EQ(only.tslot_count[2], 2U);
    EXPECT_EQ(only.tslot_count[49], 1U);
    EXPECT_EQ(only.max_tslot, 49U);
    EXPECT_EQ(ms_of(only.first_io), 0);
    EXPECT_EQ(ms_of(only.last_io), 4999);
}

TEST_F(Dgram, a_sequence_ends_with_its_time)
{
    const Index di = make(1000);
    off_t offset = 0;
    feed(di, offset, 100, 1);
    go(1000);
    EXPECT_EQ(feed(di, offset, 100, 1), 0) << "at its last moment it still takes one";
    EXPECT_EQ(seq(di, 0).tslot_count[10], 1U);
    log.clear();
    log.set_level(INFO_level);
    loop_time.tv_nsec += 1;
    clock_time = loop_time;
    EXPECT_EQ(feed(di, offset, 100, 1), 1);
    EXPECT_EQ(log.lines(), Lines{format("(INF)  dgram_add: DI(%p) SEQ[0] timeout after 1000 ms",
                                        static_cast<const void*>(di.get()))})
        << "no warning, though it is short: the length has not changed";
    EXPECT_EQ(seq(di, 1).offset, 200);
}

TEST_F(Dgram, the_age_counts_and_not_the_gap)
{
    const Index di = make(1000);
    off_t offset = 0;
    for (long ms = 0; ms <= 1000; ms += 100) {
        go(ms);
        EXPECT_EQ(feed(di, offset, 100, 1), 0);
    }
    go(1100);
    EXPECT_EQ(feed(di, offset, 100, 1), 1);
}

TEST_F(Dgram, time_out_and_change_of_length_at_once)
{
    const Index di = make(1000);
    off_t offset = 0;
    feed(di, offset, 100, 2);
    go(3000);
    log.clear();
    EXPECT_EQ(feed(di, offset, 200, 1), 1);
    EXPECT_EQ(log.lines(), Lines{"(WRN)  dgram_add: seq[0] is only 2 elements long seq.pkt_size=100, "
                                 "d.pkt_size=200, seg_len=200 TIME-OUT"});
}

TEST_F(Dgram, kept_the_closing_segment_gives_its_time_to_the_sequence_it_closes)
{
    const Index di = make(1000);
    off_t offset = 0;
    feed(di, offset, 100, 2);
    go(300);
    feed(di, offset, 200, 1);
    EXPECT_EQ(ms_of(seq(di, 0).last_io), 300);
    EXPECT_EQ(ms_of(seq(di, 1).first_io), 300);
    EXPECT_EQ(ms_of(seq(di, 1).last_io), 300);
    go(600);
    feed(di, offset, 200, 1);
    EXPECT_EQ(ms_of(seq(di, 0).last_io), 300) << "older sequences are frozen";
}

TEST_F(Dgram, kept_the_slot_is_of_the_clock_and_the_age_of_the_loop)
{
    const Index di = make(999);
    off_t offset = 0;
    feed(di, offset, 100, 1);
    loop_time = at(990);
    clock_time = at(999);
    EXPECT_EQ(feed(di, offset, 100, 1), 0);
    EXPECT_EQ(seq(di, 0).max_tslot, 99U);
    EXPECT_EQ(ms_of(seq(di, 0).last_io), 990);
    clock_time = at(1000);
    expect_abort([&] { feed(di, offset, 100, 1); }); // slot 100
}

TEST_F(Dgram, kept_the_last_moment_of_a_round_time_out_is_beyond_the_slots)
{
    const Index di = make(100000);
    off_t offset = 0;
    feed(di, offset, 100, 1);
    go(99999);
    EXPECT_EQ(feed(di, offset, 100, 1), 0);
    go(100000);
    expect_abort([&] { feed(di, offset, 100, 1); });
    go(100001);
    EXPECT_EQ(feed(di, offset, 100, 1), 1);
}

TEST_F(Dgram, a_hole_inside_a_sequence_ends_the_process)
{
    const Index di = make(1000);
    off_t offset = 0;
    feed(di, offset, 100, 3);
    expect_abort("dgram_add: offset=301 mismatch: expected=300",
                 [&] { dgram_add(di.get(), 100, raw_store(), 301); });
    expect_abort("dgram_add: offset=299 mismatch: expected=300",
                 [&] { dgram_add(di.get(), 100, raw_store(), 299); });
    // Between sequences there may be one.
    EXPECT_EQ(dgram_add(di.get(), 99, raw_store(), 4000), 1);
    EXPECT_EQ(seq(di, 1).offset, 4000);
}

TEST_F(Dgram, a_segment_without_bytes_ends_the_process_at_the_next_one)
{
    const Index di = make(1000);
    EXPECT_EQ(dgram_add(di.get(), 0, raw_store(), 0), 0);
    EXPECT_EQ(seq(di, 0).pkt_size, 0U);
    expect_abort([&] { dgram_add(di.get(), 100, raw_store(), 0); });
    // It can be asked all the same: it has no byte before its end.
    go(50);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, 0)), 50);
    EXPECT_EQ(last_dseq_offset(di.get(), 0), 0);
}

TEST_F(Dgram, kept_the_limit_of_sequences_may_be_exceeded_by_one)
{
    log.set_level(ERR_level);
    const Index di = make(1000, 10001);
    off_t offset = 0;
    for (ssize_t i = 0; i <= 10000; ++i) {
        ASSERT_EQ(feed(di, offset, static_cast<size_t>(10 + i % 2), 1), i);
    }
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(feed(di, offset, 50, 1), -1);
    EXPECT_EQ(feed(di, offset, 50, 1), -1);
    EXPECT_EQ(log.lines(), Lines(2, format("(ERR)  add_seq: DI(%p) record limit=10000 exceeded, won't add",
                                           static_cast<const void*>(di.get()))));
    EXPECT_EQ(di->seq.len, 10001U);
    EXPECT_EQ(seq(di, 10000).count, 1U);
    // The newest one still grows.
    EXPECT_EQ(dgram_add(di.get(), 10, raw_store(), seq(di, 10000).offset + 10), 10000);
}

TEST_F(Dgram, memory_for_a_sequence_runs_out)
{
    const Index di = make(1000, 1);
    expect_abort("add_seq: failed to expand sequence", [&] {
        const FailAllocation fail(1);
        off_t offset = 0;
        for (size_t i = 0; i < 100 && !fail.happened(); ++i) {
            feed(di, offset, 10 + i % 2, 1);
        }
    });
}

TEST_F(Dgram, reset_forgets_all_but_the_type)
{
    const Index di = make(1000);
    off_t offset = 0;
    feed(di, offset, 100, 3);
    dgram_reset(di.get());
    EXPECT_EQ(di->seq.len, 0U);
    EXPECT_EQ(di->seq.data, nullptr);
    EXPECT_EQ(di->stype.num, STY_RAW.num);
    EXPECT_EQ(dgram_find_seq(di.get(), 0, 0), -1);
    EXPECT_EQ(first_dseq_offset(di.get(), 0), 0);
    EXPECT_EQ(last_dseq_offset(di.get(), 7), 0);
    // What comes next is probed anew.
    const Buffer store = repeat(plain_packet(), 7);
    log.clear();
    EXPECT_EQ(dgram_add(di.get(), store.size(), store.data(), 0), 0);
    EXPECT_EQ(di->stype.num, STY_MPEGTS.num);
    EXPECT_EQ(log.text(), "") << "from an unknown type";
}

TEST_F(Dgram, first_sequence_that_holds_an_offset)
{
    const Index di = make(1000);
    off_t offset = 1000;
    feed(di, offset, 100, 3); // 1000 to 1300
    feed(di, offset, 50, 2);  // 1300 to 1400
    offset = 2000;
    feed(di, offset, 70, 1); // 2000 to 2070
    EXPECT_EQ(dgram_find_seq(di.get(), 0, 999), -1);
    EXPECT_EQ(dgram_find_seq(di.get(), 0, 1000), 0);
    EXPECT_EQ(dgram_find_seq(di.get(), -5, 1299), 0);
    EXPECT_EQ(dgram_find_seq(di.get(), 0, 1400), 1);
    EXPECT_EQ(dgram_find_seq(di.get(), 0, 1401), -1);
    EXPECT_EQ(dgram_find_seq(di.get(), 0, 1999), -1);
    EXPECT_EQ(dgram_find_seq(di.get(), 0, 2070), 2);
    EXPECT_EQ(dgram_find_seq(di.get(), 0, 2071), -1);
    EXPECT_EQ(dgram_find_seq(di.get(), 1, 1000), -1) << "forward only";
    EXPECT_EQ(dgram_find_seq(di.get(), 3, 2000), -1);
    EXPECT_EQ(dgram_find_seq(di.get(), 1'000'000, 2000), -1);
}

TEST_F(Dgram, kept_the_end_of_a_sequence_is_its_own)
{
    const Index di = make(1000);
    off_t offset = 0;
    feed(di, offset, 100, 3);
    feed(di, offset, 50, 2);
    EXPECT_EQ(dgram_find_seq(di.get(), 0, 300), 0) << "where sequence 1 begins";
    EXPECT_EQ(dgram_find_seq(di.get(), 1, 300), 1);
    EXPECT_EQ(dgram_find_seq(di.get(), 0, 301), 1);
}

TEST_F(Dgram, times_of_the_first_and_the_last_packet_are_exact)
{
    const Index di = make(5000);
    off_t offset = 0;
    for (const long ms : {3, 50, 777}) {
        go(ms);
        feed(di, offset, 100, 1);
    }
    go(2000);
    log.clear();
    log.set_level(DEBUG_level);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, 0)), 3);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, 99)), 3);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, 200)), 777);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), -1, 299)), 777);
    const auto* where = static_cast<const void*>(di.get());
    EXPECT_EQ(log.lines(),
              (Lines{format("(DBG)  dgram_calc_time: DI(%p) dseq=0 SEQ[0] offset=0, dgram[0], "
                            "method=first_io, delta_ms=0",
                            where),
                     format("(DBG)  dgram_calc_time: DI(%p) dseq=0 SEQ[0] offset=99, dgram[0], "
                            "method=first_io, delta_ms=0",
                            where),
                     format("(DBG)  dgram_calc_time: DI(%p) dseq=0 SEQ[0] offset=200, dgram[2], "
                            "method=last_io, delta_ms=774",
                            where),
                     format("(DBG)  dgram_calc_time: DI(%p) dseq=-1 SEQ[0] offset=299, dgram[2], "
                            "method=last_io, delta_ms=774",
                            where)}));
}

TEST_F(Dgram, a_single_packet_has_the_first_time)
{
    const Index di = make(5000);
    off_t offset = 0;
    feed(di, offset, 100, 1);
    go(100);
    feed(di, offset, 200, 1);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, 50)), 0) << "and not that of the segment that closed it";
}

TEST_F(Dgram, times_between_are_spread_over_the_slots)
{
    const Index di = make(5000);
    off_t offset = 0;
    feed(di, offset, 100, 10);
    go(250);
    feed(di, offset, 100, 10);
    const dgram_seq& only = seq(di, 0);
    ASSERT_EQ(only.tslot_count[0], 10U);
    ASSERT_EQ(only.tslot_count[1], 0U);
    ASSERT_EQ(only.tslot_count[2], 10U);
    const std::pair<off_t, long> table[] = {{1, 10},   {5, 50},   {9, 90},  {10, 100},
                                            {11, 210}, {15, 250}, {18, 280}};
    log.clear();
    log.set_level(DEBUG_level);
    for (const auto& [k, ms] : table) {
        EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, k * 100)), ms) << k;
    }
    EXPECT_EQ(log.lines().at(1), format("(DBG)  dgram_calc_time: DI(%p) dseq=0 SEQ[0] offset=500, dgram[5], "
                                        "method=approx, delta_ms=50",
                                        static_cast<const void*>(di.get())));
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, 1900)), 250) << "the last one is exact";
}

TEST_F(Dgram, a_share_below_a_millisecond_adds_nothing)
{
    const Index di = make(500);
    off_t offset = 0;
    feed(di, offset, 100, 100);
    ASSERT_EQ(seq(di, 0).tslot_count[0], 100U);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, 100)), 0);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, off_t{9} * 100)), 0);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, off_t{10} * 100)), 1);
}

TEST_F(Dgram, times_carry_into_the_next_second)
{
    loop_time = clock_time = {6000, 999'999'999};
    const Index di = make(50000);
    off_t offset = 0;
    feed(di, offset, 100, 10);
    const timespec tms = dgram_calc_time(di.get(), 0, 500);
    EXPECT_EQ(tms.tv_sec, 6001);
    EXPECT_EQ(tms.tv_nsec, 499'999'999);
}

TEST_F(Dgram, behind_the_end_it_is_now)
{
    const Index di = make(5000);
    off_t offset = 0;
    feed(di, offset, 100, 3);
    loop_time = at(1234);
    clock_time = at(9999);
    log.clear();
    log.set_level(DEBUG_level);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, 300)), 1234);
    EXPECT_EQ(log.lines(),
              Lines{format("(DBG)  dgram_calc_time: DI(%p) dseq=0: offset=300 >= max_offset=300, time=now",
                           static_cast<const void*>(di.get()))});
    // A sequence that is named is taken on trust.
    off_t next = 300;
    feed(di, next, 50, 2);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 1, 1'000'000)), 1234);
}

TEST_F(Dgram, times_of_a_named_sequence)
{
    const Index di = make(5000);
    off_t offset = 0;
    feed(di, offset, 100, 3);
    go(400);
    feed(di, offset, 50, 2);
    go(900);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 1, 300)), 400);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, 300)), 900) << "sequence 0 answers for its end";
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, 301)), 400);
}

TEST_F(Dgram, times_that_cannot_be_told_end_the_process)
{
    const Index di = make(5000);
    off_t offset = 1000;
    feed(di, offset, 100, 3);
    feed(di, offset, 50, 3);
    const auto ask = [&](ssize_t dseq, off_t where) {
        return [&di, dseq, where] { dgram_calc_time(di.get(), dseq, where); };
    };
    expect_abort("dgram_calc_time", ask(0, 999)); // no sequence holds it
    expect_abort("dgram_calc_time", ask(-1, 5000));
    expect_abort("dgram_calc_time", ask(1, 1299)); // before the start of the sequence
    expect_abort(ask(static_cast<ssize_t>(di->seq.max_len), 1300));
    expect_abort(ask(1'000'000'000, 1300));
    expect_abort([] {
        const Index empty = make(1000);
        dgram_reset(empty.get());
        dgram_calc_time(empty.get(), 1, 0);
    });
}

TEST_F(Dgram, entry_points_of_a_raw_stream)
{
    const Index di = make(1000);
    EXPECT_EQ(first_dseq_offset(di.get(), 0), 0) << "nothing there yet";
    EXPECT_EQ(last_dseq_offset(di.get(), 0), 0);
    off_t offset = 1000;
    feed(di, offset, 100, 3);
    feed(di, offset, 50, 4);
    EXPECT_EQ(first_dseq_offset(di.get(), 0), 1000);
    EXPECT_EQ(last_dseq_offset(di.get(), 0), 1200);
    EXPECT_EQ(first_dseq_offset(di.get(), -3), 1000);
    EXPECT_EQ(last_dseq_offset(di.get(), -3), 1200);
    EXPECT_EQ(first_dseq_offset(di.get(), 1), 1300);
    EXPECT_EQ(last_dseq_offset(di.get(), 1), 1450);
}

TEST_F(Dgram, entry_points_beyond_the_storage_end_the_process)
{
    const Index di = make(1000);
    off_t offset = 0;
    feed(di, offset, 100, 3);
    const auto beyond = static_cast<ssize_t>(di->seq.max_len);
    EXPECT_EQ(first_dseq_offset(di.get(), beyond - 1), 0) << "reserved and not yet in use";
    EXPECT_EQ(last_dseq_offset(di.get(), beyond - 1), 0);
    expect_abort([&] { first_dseq_offset(di.get(), beyond); });
    expect_abort([&] { last_dseq_offset(di.get(), beyond); });
}

TEST_F(Dgram, a_table_beyond_the_count_ends_the_process)
{
    const Index di = make(1000);
    off_t offset = 0;
    feed(di, offset, 100, 3);
    seq(di, 0).first_pat = seq(di, 0).last_pat = 4;
    expect_abort("first_dseq_offset", [&] { first_dseq_offset(di.get(), 0); });
    expect_abort("last_dseq_offset", [&] { last_dseq_offset(di.get(), 0); });
}

TEST_F(Dgram, a_transport_segment_is_counted_by_packets)
{
    const Index di = make(1000);
    const Buffer store = join({plain_packet(), plain_packet(), pat_packet(), plain_packet(), pat_packet()});
    EXPECT_EQ(dgram_add(di.get(), store.size(), store.data(), 0), 0);
    EXPECT_EQ(di->stype.num, STY_MPEGTS.num);
    EXPECT_EQ(seq(di, 0).pkt_size, 188U);
    EXPECT_EQ(seq(di, 0).count, 5U);
    EXPECT_EQ(seq(di, 0).tslot_count[0], 5U);
    EXPECT_EQ(seq(di, 0).first_pat, 3U);
    EXPECT_EQ(seq(di, 0).last_pat, 3U);
    log.set_level(DEBUG_level);
    EXPECT_EQ(first_dseq_offset(di.get(), 0), 376);
    EXPECT_EQ(last_dseq_offset(di.get(), 0), 376);
    EXPECT_EQ(log.lines(), (Lines{"(DBG)  first_dseq_offset: using first_pat=3",
                                  "(DBG)  last_dseq_offset: using last_pat=3"}));
}

TEST_F(Dgram, kept_a_second_transport_segment_without_a_count_ends_the_process)
{
    const Index di = make(1000);
    const Buffer store = repeat(plain_packet(), 14);
    EXPECT_EQ(dgram_add(di.get(), 1316, store.data(), 0), 0);
    expect_abort("stay", [&] { dgram_add(di.get(), 1316, store.data(), 1316); });
    expect_abort("stay", [&] { dgram_add_count(di.get(), 1316, 0, store.data(), 1316); });
    go(2000); // timed out: a new sequence has no count either
    expect_abort("add_seq", [&] { dgram_add(di.get(), 1316, store.data(), 1316); });
}

TEST_F(Dgram, a_transport_sequence_grows_by_the_count_given)
{
    const Index di = make(5000);
    const Buffer store = join({plain_packet(), pat_packet(), plain_packet(),   // 0
                               plain_packet(), plain_packet(), plain_packet(), // 564
                               plain_packet(), plain_packet(), pat_packet(),   // 1128
                               plain_packet(), plain_packet(), plain_packet()});
    for (off_t i = 0; i < 4; ++i) {
        go(300 * i);
        EXPECT_EQ(dgram_add_count(di.get(), 564, 3, store.data(), 564 * i), 0);
        EXPECT_EQ(seq(di, 0).count, static_cast<size_t>(3 * (i + 1)));
        EXPECT_EQ(seq(di, 0).first_pat, 2U);
        EXPECT_EQ(seq(di, 0).last_pat, i < 2 ? 2U : 9U) << i;
    }
    EXPECT_EQ(first_dseq_offset(di.get(), 0), 188);
    EXPECT_EQ(last_dseq_offset(di.get(), 0), 8 * 188);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, 0)), 0);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, off_t{4} * 188)), 333) << "the second of three in slot 3";
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, off_t{7} * 188 + 100)), 633);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, off_t{11} * 188)), 900);
    go(2000);
    EXPECT_EQ(ms_of(dgram_calc_time(di.get(), 0, off_t{12} * 188)), 2000);
}

TEST_F(Dgram, a_table_may_come_late)
{
    const Index di = make(5000);
    const Buffer store = join({plain_packet(), plain_packet(), plain_packet(), pat_packet()});
    dgram_add_count(di.get(), 376, 2, store.data(), 0);
    EXPECT_EQ(first_dseq_offset(di.get(), 0), 0);
    EXPECT_EQ(last_dseq_offset(di.get(), 0), 188);
    dgram_add_count(di.get(), 376, 2, store.data(), 376);
    EXPECT_EQ(seq(di, 0).first_pat, 4U);
    EXPECT_EQ(first_dseq_offset(di.get(), 0), 564);
    EXPECT_EQ(last_dseq_offset(di.get(), 0), 564);
}

TEST_F(Dgram, a_transport_sequence_times_out_into_the_next)
{
    const Index di = make(1000);
    const Buffer store = join({plain_packet(), plain_packet(), plain_packet(), pat_packet(), plain_packet()});
    dgram_add_count(di.get(), 376, 2, store.data(), 0);
    go(1001);
    EXPECT_EQ(dgram_add_count(di.get(), 564, 3, store.data(), 376), 1);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(seq(di, 1).count, 3U);
    EXPECT_EQ(seq(di, 1).offset, 376);
    EXPECT_EQ(seq(di, 1).first_pat, 2U);
    EXPECT_EQ(seq(di, 1).last_pat, 2U);
    EXPECT_EQ(first_dseq_offset(di.get(), 1), 564);
}

TEST_F(Dgram, the_count_given_counts_for_the_initial_segment_too)
{
    const Index di = make(1000);
    const Buffer store = repeat(plain_packet(), 7);
    dgram_add_count(di.get(), 1316, 0, store.data(), 0);
    EXPECT_EQ(seq(di, 0).count, 7U) << "as probed";
    dgram_reset(di.get());
    dgram_add_count(di.get(), 1316, 5, store.data(), 0);
    EXPECT_EQ(seq(di, 0).count, 5U) << "as given";
}

TEST_F(Dgram, a_raw_stream_does_not_look_at_the_count)
{
    const Index di = make(1000);
    for (off_t i = 0; i < 3; ++i) {
        EXPECT_EQ(dgram_add_count(di.get(), 100, 55, raw_store(), i * 100), 0);
        EXPECT_EQ(seq(di, 0).count, static_cast<size_t>(i + 1));
    }
}

TEST_F(Dgram, a_wrong_count_shows_at_the_next_segment)
{
    const Index di = make(1000);
    const Buffer store = repeat(plain_packet(), 14);
    dgram_add_count(di.get(), 1316, 6, store.data(), 0);
    expect_abort("dgram_add_count: offset=1316 mismatch: expected=1128",
                 [&] { dgram_add_count(di.get(), 1316, 7, store.data(), 1316); });
}

TEST_F(Dgram, a_table_number_beyond_its_field_is_not_noted)
{
    const Index di = make(5000);
    const Buffer store = join({pat_packet(), pat_packet()});
    dgram_add_count(di.get(), 188, 1, store.data(), 0);
    seq(di, 0).count = UINT32_MAX - 1;
    seq(di, 0).offset = 188 - static_cast<off_t>(UINT32_MAX - 1) * 188;
    dgram_add_count(di.get(), 188, 1, store.data(), 188);
    EXPECT_EQ(seq(di, 0).last_pat, UINT32_MAX);
    seq(di, 0).offset -= 188;
    seq(di, 0).count = UINT32_MAX;
    seq(di, 0).offset = 188 - static_cast<off_t>(UINT32_MAX) * 188;
    dgram_add_count(di.get(), 188, 1, store.data(), 188);
    EXPECT_EQ(seq(di, 0).last_pat, UINT32_MAX);
    EXPECT_EQ(seq(di, 0).first_pat, 1U);
}

TEST_F(Dgram, random_raw_streams_beside_a_list_of_datagrams)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    log.set_level(ERR_level);

    struct Datagram {
        off_t offset;
        size_t len;
        long ms;
        size_t dseq;
    };

    for (int round = 0; round < 30; ++round) {
        const long tmout = static_cast<long>(1000 + random() % 4000);
        const Index di = make(static_cast<u_long>(tmout));
        std::vector<Datagram> list;
        std::vector<size_t> starts; // list index of each sequence's first datagram
        off_t offset = 0;
        long now = 0;
        size_t len = 100;
        for (int i = 0; i < 400; ++i) {
            now += static_cast<long>(random() % 50);
            go(now);
            len = random() % 20 == 0 ? 50 + random() % 3 : len;
            const bool opens = list.empty() || list.back().len != len || now - list[starts.back()].ms > tmout;
            if (opens) {
                starts.push_back(list.size());
            }
            list.push_back({offset, len, now, starts.size() - 1});
            ASSERT_EQ(dgram_add(di.get(), len, raw_store(), offset), static_cast<ssize_t>(starts.size() - 1));
            offset += static_cast<off_t>(len);
        }
        ASSERT_EQ(di->seq.len, starts.size());
        for (size_t i = 0; i < list.size(); ++i) {
            const Datagram& one = list[i];
            const size_t first = starts[one.dseq];
            const size_t end = one.dseq + 1 < starts.size() ? starts[one.dseq + 1] : list.size();
            const size_t k = i - first;
            long expected = one.ms;
            if (k == 0) {
                expected = list[first].ms;
            } else if (i + 1 == end) {
                expected = list[std::min(end, list.size() - 1)].ms; // the closing one, where there is one
            } else {
                // The slot that completes or holds the k datagrams before this one.
                const long slot = (list[i - 1].ms - list[first].ms) / 100;
                size_t before = 0;
                size_t inside = 0;
                for (size_t j = first; j < end; ++j) {
                    const long other = (list[j].ms - list[first].ms) / 100;
                    before += other < slot ? 1 : 0;
                    inside += other == slot ? 1 : 0;
                }
                expected = list[first].ms + slot * 100 + static_cast<long>((k - before) * 100 / inside);
            }
            const auto dseq = static_cast<ssize_t>(one.dseq);
            ASSERT_EQ(ms_of(dgram_calc_time(di.get(), dseq, one.offset + random() % one.len)),
                      dseq == 0 && i + 1 == end && end == list.size() ? now : expected)
                << "datagram " << i;
            ASSERT_EQ(dgram_find_seq(di.get(), -1, one.offset + 1), dseq);
            ASSERT_EQ(first_dseq_offset(di.get(), dseq), list[first].offset);
            ASSERT_EQ(last_dseq_offset(di.get(), dseq), list[end - 1].offset);
        }
    }
}
