#include "mpegts.h"

#include <array>
#include <csignal>
#include <random>

#include <gtest/gtest.h>

#include "child.h"
#include "fixtures.h"
#include "logcap.h"
#include "text.h"
#include "ts_packets.h"

using support::Buffer;
using support::format;
using support::join;
using support::Lines;
using support::LogCapture;
using support::packet;
using support::part;
using support::pcr_packet;
using support::plain_packet;
using support::repeat;

namespace {

ssize_t probe(const Buffer& bytes, bool full)
{
    return ts_probe(bytes.data(), bytes.size(), full);
}

// What ts_probe is said to do, in the plainest words.
ssize_t model_probe(const Buffer& bytes, bool full)
{
    if (bytes.empty() || bytes[0] != 0x47) {
        return -22;
    }
    for (const size_t size : {188, 192, 204, 208}) {
        if (size > bytes.size()) {
            return -1;
        }
        if (size == bytes.size()) {
            return static_cast<ssize_t>(size);
        }
        bool fits = !full || bytes.size() % size == 0;
        for (size_t i = 0; i < bytes.size(); i += size) {
            fits = fits && bytes[i] == 0x47;
        }
        if (fits) {
            return static_cast<ssize_t>(size);
        }
    }
    return -3;
}

off_t model_find_head(const Buffer& bytes, size_t* pkt_len)
{
    const auto len = static_cast<ssize_t>(bytes.size());
    ssize_t head = -1;
    while (head < 207) {
        ssize_t next = -1;
        for (ssize_t i = head + 1; i < len - (head + 1) && next < 0; ++i) {
            next = bytes[static_cast<size_t>(i)] == 0x47 ? i : -1;
        }
        if (next < 0) {
            return -1;
        }
        head = next;
        const auto at = static_cast<size_t>(head);
        const ssize_t size = model_probe(part(bytes, at, bytes.size() - at), false);
        if (size > 0 && pkt_len != nullptr) {
            *pkt_len = static_cast<size_t>(size);
            return head;
        }
    }
    return head;
}

int first_pcr(const Buffer& bytes, size_t pkt_len, uint64_t* pcr)
{
    return find_first_pcr(reinterpret_cast<const char*>(bytes.data()), bytes.size(), pkt_len, pcr);
}

int last_pcr(const Buffer& bytes, size_t pkt_len, uint64_t* pcr)
{
    return find_last_pcr(reinterpret_cast<const char*>(bytes.data()), bytes.size(), pkt_len, pcr);
}

constexpr uint64_t kUntouched = 4711;

} // namespace

TEST(TsAccessors, read_the_fields_of_the_header)
{
    const Buffer all = packet({0x47, 0xff, 0xff, 0xff, 0xff, 0xff});
    EXPECT_TRUE(ts_has_sync(all.data()));
    EXPECT_EQ(ts_transp_err(all.data()), 0x80U);
    EXPECT_EQ(ts_payload_start(all.data()), 0x40U);
    EXPECT_EQ(ts_transp_pri(all.data()), 0x20U);
    EXPECT_EQ(ts_pid(all.data()), 0x1fffU);
    EXPECT_EQ(ts_scrambling(all.data()), 3U);
    EXPECT_EQ(ts_adaptation(all.data()), 3U);
    EXPECT_EQ(ts_continuity(all.data()), 15U);
    EXPECT_EQ(ts_payload(all.data()), 0x10U);
    EXPECT_EQ(ts_adapt_len(all.data()), 255U);
    EXPECT_EQ(ts_adapt_discn(all.data()), 0x80U);
    EXPECT_EQ(ts_adapt_rand(all.data()), 0x40U);
    EXPECT_EQ(ts_adapt_espri(all.data()), 0x20U);
    EXPECT_EQ(ts_adapt_pcr(all.data()), 0x10U);
    EXPECT_EQ(ts_adapt_opcr(all.data()), 0x08U);
    EXPECT_EQ(ts_adapt_ext(all.data()), 0x01U);
    EXPECT_EQ(ts_get_pcr(all.data()), P2_33 - 1);
    EXPECT_EQ(ts_get_xpcr(all.data()), 511U);
}

TEST(TsAccessors, give_zero_where_only_the_other_bits_are_set)
{
    const Buffer none = packet({0x46, 0x00, 0x00, 0x00, 0x00, 0x00, 0, 0, 0, 0, 0x7e, 0});
    EXPECT_FALSE(ts_has_sync(none.data()));
    EXPECT_EQ(ts_pid(none.data()), 0U);
    EXPECT_EQ(ts_get_pcr(none.data()), 0U);
    EXPECT_EQ(ts_get_xpcr(none.data()), 0U);
    const Buffer flags = packet({0x47, 0x1f, 0x00, 0x00, 0x00, 0x06});
    EXPECT_EQ(ts_transp_err(flags.data()) + ts_payload_start(flags.data()) + ts_transp_pri(flags.data()), 0U);
    EXPECT_EQ(ts_pid(flags.data()), 0x1f00U);
    EXPECT_EQ(ts_adapt_discn(flags.data()) + ts_adapt_rand(flags.data()) + ts_adapt_espri(flags.data()) +
                  ts_adapt_pcr(flags.data()) + ts_adapt_opcr(flags.data()) + ts_adapt_ext(flags.data()),
              0U);
    EXPECT_EQ(ts_scrambling(packet({0x47, 0, 0, 0x80}).data()), 2U);
    EXPECT_EQ(ts_adaptation(packet({0x47, 0, 0, 0x2f}).data()), 2U);
    EXPECT_EQ(ts_continuity(packet({0x47, 0, 0, 0xf9}).data()), 9U);
    EXPECT_EQ(ts_payload(packet({0x47, 0, 0, 0xef}).data()), 0U);
}

TEST(TsAccessors, clock_values_keep_every_bit)
{
    for (const uint64_t base :
         {uint64_t{0}, uint64_t{1}, uint64_t{0x155555555}, uint64_t{0xaaaaaaaa}, P2_33 - 1}) {
        const Buffer bytes = pcr_packet(base, 299);
        EXPECT_EQ(ts_get_pcr(bytes.data()), base);
        EXPECT_EQ(ts_get_xpcr(bytes.data()), 299U);
    }
}

TEST(TsAccessors, units_of_the_clock)
{
    EXPECT_EQ(PCR_ONE_SEC, 90000);
    EXPECT_EQ(MAX_PCR_GAP, 45000);
    EXPECT_EQ(P2_33, 8589934592U);
    EXPECT_EQ(pcr2ms(PCR_ONE_SEC), 1000U);
    EXPECT_EQ(pcr2ms(89), 0U);
    EXPECT_EQ(ms2pcr(500), 45000U);
    EXPECT_EQ(pcr2usc(9), 100U);
    EXPECT_EQ(pcr2usc(1), 11U);
    EXPECT_EQ(pcr2usc(P2_33 - 1), 95443717677U);
}

TEST(TsAccessors, elementary_streams)
{
    const Buffer pes = {0, 0, 1, 0xe0, 0, 0, 0x80, 0xc0, 10};
    EXPECT_EQ(pes_stream_id(pes.data()), unsigned{PES_STREAM_ID_VIDEO_MPEG});
    EXPECT_EQ(pes_hdr_len(pes.data()), 10U);
    EXPECT_TRUE(match_start(pes.data(), 0xe0));
    EXPECT_FALSE(match_start(pes.data(), 0xe1));
    for (size_t i = 0; i < 3; ++i) {
        Buffer wrong = pes;
        wrong[i] ^= 2;
        EXPECT_FALSE(match_start(wrong.data(), 0xe0)) << i;
    }
    EXPECT_EQ(PES_STREAM_ID_MIN, 0xbc);
    EXPECT_EQ(PES_STREAM_ID_PRIVATE_1, 0xbd);
    EXPECT_EQ(PES_STREAM_ID_PRIVATE_2, 0xbf);
    EXPECT_EQ(PES_STREAM_ID_AUDIO_MPEG, 0xc0);
}

TEST(TsProbe, nothing_is_read_of_a_buffer_without_bytes)
{
    EXPECT_EQ(ts_probe(nullptr, 0, false), -22);
    EXPECT_EQ(ts_probe(nullptr, 0, true), -22);
}

TEST(TsProbe, no_sync_byte_at_the_start)
{
    EXPECT_EQ(probe(Buffer(1316, 0x48), false), -22);
    EXPECT_EQ(probe(Buffer{0x46}, true), -22);
}

TEST(TsProbe, one_packet_is_accepted_on_its_first_byte_alone)
{
    for (const size_t size : {188, 192, 204, 208}) {
        Buffer bytes(size, 0);
        bytes[0] = 0x47;
        EXPECT_EQ(probe(bytes, false), static_cast<ssize_t>(size));
        EXPECT_EQ(probe(bytes, true), static_cast<ssize_t>(size));
    }
}

TEST(TsProbe, too_short_to_tell)
{
    for (const size_t len : {1, 187, 189, 190, 191, 193, 203, 205, 207}) {
        Buffer bytes(len, 0);
        bytes[0] = 0x47;
        EXPECT_EQ(probe(bytes, false), -1) << len;
    }
    Buffer longer(209, 0);
    longer[0] = 0x47;
    EXPECT_EQ(probe(longer, false), -3);
}

TEST(TsProbe, a_buffer_may_end_inside_a_packet)
{
    for (const size_t len : {189, 300, 375, 377}) {
        EXPECT_EQ(probe(part(repeat(plain_packet(), 3), 0, len), false), 188) << len;
    }
}

TEST(TsProbe, seven_packets_of_a_datagram)
{
    const Buffer bytes = repeat(plain_packet(), 7);
    ASSERT_EQ(bytes.size(), 1316U);
    EXPECT_EQ(probe(bytes, true), 188);
    EXPECT_EQ(probe(bytes, false), 188);
}

TEST(TsProbe, whole_packets_on_request)
{
    const Buffer bytes = part(repeat(plain_packet(), 7), 0, 1000);
    EXPECT_EQ(probe(bytes, false), 188);
    EXPECT_EQ(probe(bytes, true), -3);
}

TEST(TsProbe, sizes_are_tried_in_their_order)
{
    for (const size_t size : {188, 192, 204, 208}) {
        for (const bool full : {false, true}) {
            EXPECT_EQ(probe(repeat(plain_packet(), 9, size), full), static_cast<ssize_t>(size));
        }
    }
    // Sync bytes of two sizes: the smaller wins, unless it leaves a part of a packet.
    Buffer both = repeat(plain_packet(), 3, 192);
    for (size_t i = 0; i < both.size(); i += 188) {
        both[i] = 0x47;
    }
    EXPECT_EQ(probe(both, false), 188);
    EXPECT_EQ(probe(both, true), 192);
}

TEST(TsProbe, one_missing_sync_byte_rejects_a_size)
{
    for (size_t count = 2; count < 14; ++count) {
        for (size_t broken = 1; broken < count; ++broken) {
            Buffer bytes = repeat(plain_packet(), count);
            bytes[broken * 188] = 0x46;
            EXPECT_EQ(probe(bytes, false), -3) << broken << " of " << count;
        }
    }
}

TEST(TsProbe, says_what_it_found)
{
    LogCapture log(DEBUG_level);
    const Buffer bytes = repeat(plain_packet(), 7);
    probe(bytes, true);
    EXPECT_EQ(log.lines(), Lines{format("(DBG)  ts_probe: in-sync pkt_size[188]/F for buf=%p, len=1316",
                                        static_cast<const void*>(bytes.data()))});
    log.clear();
    const Buffer cut = part(bytes, 0, 1000);
    probe(cut, true);
    EXPECT_EQ(log.lines(), Lines{format("(DBG)  ts_probe: NO-SYNC pkt_size[208]/F for buf=%p, len=1000",
                                        static_cast<const void*>(cut.data()))});
    log.clear();
    probe(cut, false);
    EXPECT_EQ(log.lines(), Lines{format("(DBG)  ts_probe: in-sync pkt_size[188]/- for buf=%p, len=1000",
                                        static_cast<const void*>(cut.data()))});
    log.clear();
    probe(plain_packet(), false);
    probe(Buffer(190, 0x47), false); // in step at 188
    EXPECT_EQ(log.lines().size(), 1U);
    log.clear();
    probe(Buffer(100, 0x47), false);
    probe(Buffer(100, 0), false);
    EXPECT_EQ(log.text(), "");
}

TEST(TsProbe, agrees_with_its_description_on_random_buffers)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int i = 0; i < 20000; ++i) {
        Buffer bytes(random() % 1500, 0);
        for (uint8_t& byte : bytes) {
            byte = random() % 4 != 0 ? 0x47 : 0x48;
        }
        const size_t size = std::array<size_t, 5>{188, 192, 204, 208, 1500}[random() % 5];
        for (size_t pos = 0; pos < bytes.size() && random() % 30 != 0; pos += size) {
            bytes[pos] = 0x47;
        }
        const bool full = random() % 2 != 0;
        ASSERT_EQ(probe(bytes, full), model_probe(bytes, full)) << bytes.size();
    }
}

TEST(TsFindHead, first_packet_of_a_stream_that_was_cut)
{
    const Buffer stream = repeat(plain_packet(), 12);
    for (const size_t skipped : {0, 1, 100, 187}) {
        size_t size = 0;
        const Buffer bytes = part(stream, skipped, stream.size() - skipped);
        EXPECT_EQ(ts_find_head(bytes.data(), bytes.size(), &size), static_cast<off_t>((188 - skipped) % 188));
        EXPECT_EQ(size, 188U);
    }
}

TEST(TsFindHead, time_stamps_stand_before_the_first_packet)
{
    Buffer bytes(4, 0);
    const Buffer stream = repeat(plain_packet(), 12, 192);
    bytes.insert(bytes.end(), stream.begin(), stream.end() - 4);
    size_t size = 0;
    EXPECT_EQ(ts_find_head(bytes.data(), bytes.size(), &size), 4);
    EXPECT_EQ(size, 192U);
}

TEST(TsFindHead, bytes_without_a_sync_byte_have_no_head)
{
    size_t size = kUntouched;
    EXPECT_EQ(ts_find_head(nullptr, 0, &size), -1);
    const Buffer bytes(1000, 0);
    EXPECT_EQ(ts_find_head(bytes.data(), bytes.size(), &size), -1);
    EXPECT_EQ(size, kUntouched);
}

TEST(TsFindHead, a_refused_candidate_without_a_successor_ends_the_search)
{
    Buffer bytes(1000, 0);
    bytes[10] = 0x47;
    size_t size = kUntouched;
    EXPECT_EQ(ts_find_head(bytes.data(), bytes.size(), &size), -1);
    EXPECT_EQ(ts_find_head(bytes.data(), bytes.size(), nullptr), -1);
    EXPECT_EQ(size, kUntouched);
}

TEST(TsFindHead, a_false_sync_byte_is_passed_over)
{
    Buffer bytes(100, 0);
    bytes[40] = 0x47;
    const Buffer stream = repeat(plain_packet(), 12);
    bytes.insert(bytes.end(), stream.begin(), stream.end());
    size_t size = 0;
    EXPECT_EQ(ts_find_head(bytes.data(), bytes.size(), &size), 100);
    EXPECT_EQ(size, 188U);
}

TEST(TsFindHead, kept_the_search_ends_ever_earlier)
{
    Buffer bytes(300, 0);
    bytes[150] = 0x47;
    bytes[149] = 0x47;
    size_t size = kUntouched;
    // From 150 on only what lies below 300 - 151 would be looked at.
    EXPECT_EQ(ts_find_head(bytes.data(), bytes.size(), &size), -1);
    Buffer at_bound(400, 0);
    at_bound[100] = 0x47;
    at_bound[298] = 0x47; // the last place below 400 - 101
    EXPECT_EQ(ts_find_head(at_bound.data(), at_bound.size(), &size), 298);
    at_bound[298] = 0;
    at_bound[299] = 0x47;
    EXPECT_EQ(ts_find_head(at_bound.data(), at_bound.size(), &size), -1);
    EXPECT_EQ(size, kUntouched);
}

TEST(TsFindHead, kept_past_the_greatest_size_nothing_is_confirmed)
{
    Buffer bytes(2000, 0);
    bytes[206] = 0x47; // goes on
    bytes[700] = 0x47;
    size_t size = kUntouched;
    EXPECT_EQ(ts_find_head(bytes.data(), bytes.size(), &size), 700);
    bytes[207] = 0x47; // does not
    EXPECT_EQ(ts_find_head(bytes.data(), bytes.size(), &size), 207);
    EXPECT_EQ(size, kUntouched);
}

TEST(TsFindHead, kept_without_a_place_for_the_size_no_head_is_good_enough)
{
    const Buffer stream = repeat(plain_packet(), 12);
    EXPECT_EQ(ts_find_head(stream.data(), stream.size(), nullptr), 376);
    const Buffer shorter = repeat(plain_packet(), 2);
    EXPECT_EQ(ts_find_head(shorter.data(), shorter.size(), nullptr), -1);
}

TEST(TsFindHead, agrees_with_its_description_on_random_buffers)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int i = 0; i < 3000; ++i) {
        Buffer bytes(random() % 900, 0);
        for (uint8_t& byte : bytes) {
            byte = random() % 64 == 0 ? 0x47 : 0;
        }
        const size_t start = random() % 300;
        for (size_t pos = start; pos < bytes.size(); pos += 188) {
            bytes[pos] = 0x47;
        }
        size_t size = kUntouched;
        size_t expected_size = kUntouched;
        const bool with_size = random() % 4 != 0;
        const off_t expected = model_find_head(bytes, with_size ? &expected_size : nullptr);
        ASSERT_EQ(ts_find_head(bytes.data(), bytes.size(), with_size ? &size : nullptr), expected);
        ASSERT_EQ(size, expected_size);
    }
}

class TsPcrDelta : public support::GuardedTest {};

TEST_F(TsPcrDelta, a_clock_that_wraps_goes_on_counting)
{
    EXPECT_EQ(ts_pcr_delta(P2_33 - 100, 50), 150U);
    EXPECT_EQ(ts_pcr_delta(P2_33 - 44999, 0), 44999U);
    EXPECT_EQ(ts_pcr_delta(P2_33, 0), 0U);
    EXPECT_EQ(log.text(), "");
}

TEST_F(TsPcrDelta, kept_a_wrapped_gap_of_exactly_half_a_second_is_refused)
{
    EXPECT_EQ(ts_pcr_delta(P2_33 - 45000, 0), 0U);
    EXPECT_EQ(log.lines(),
              Lines{"(WRN)  ts_pcr_delta: PCR last=0 < first=8589889592 diff=18446744065119662024"});
    EXPECT_EQ(ts_pcr_delta(1000, 46000), 45000U) << "without a wrap it is accepted";
}

TEST_F(TsPcrDelta, kept_after_a_clock_of_zero_any_distance_is_believed)
{
    EXPECT_EQ(ts_pcr_delta(0, 90000), 90000U);
    EXPECT_EQ(ts_pcr_delta(0, P2_33 - 1), P2_33 - 1);
    EXPECT_EQ(ts_pcr_delta(0, 0), 0U);
    EXPECT_EQ(log.text(), "");
}

TEST_F(TsPcrDelta, a_clock_that_runs_backwards_is_a_warning_and_0)
{
    EXPECT_EQ(ts_pcr_delta(100, 99), 0U);
    EXPECT_EQ(log.lines(), Lines{"(WRN)  ts_pcr_delta: PCR last=99 < first=100 diff=18446744073709551615"});
}

TEST_F(TsPcrDelta, a_gap_of_more_than_half_a_second_is_a_warning_and_0)
{
    EXPECT_EQ(ts_pcr_delta(10, 45010), 45000U);
    EXPECT_EQ(ts_pcr_delta(10, 10), 0U);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(ts_pcr_delta(10, 45011), 0U);
    EXPECT_EQ(log.lines(),
              Lines{"(WRN)  ts_pcr_delta: PCR gap=45001 exceeds max=45000; last=45011, first=10"});
}

TEST(FindPcr, first_and_last_of_several)
{
    for (const size_t size : {188, 192, 204, 208}) {
        const Buffer bytes = join(
            {plain_packet(), pcr_packet(1000), plain_packet(), pcr_packet(P2_33 - 1), plain_packet()}, size);
        uint64_t pcr = 0;
        EXPECT_EQ(first_pcr(bytes, size, &pcr), 0);
        EXPECT_EQ(pcr, 1000U);
        EXPECT_EQ(last_pcr(bytes, size, &pcr), 0);
        EXPECT_EQ(pcr, P2_33 - 1);
    }
}

TEST(FindPcr, kept_the_packet_at_the_start_is_not_the_last_one)
{
    const Buffer bytes = join({pcr_packet(1000), plain_packet()});
    uint64_t pcr = kUntouched;
    EXPECT_EQ(last_pcr(bytes, 188, &pcr), -1);
    EXPECT_EQ(pcr, kUntouched);
    EXPECT_EQ(first_pcr(bytes, 188, &pcr), 0);
    EXPECT_EQ(pcr, 1000U);
    EXPECT_EQ(last_pcr(pcr_packet(1000), 188, &pcr), -1);
}

TEST(FindPcr, a_stream_without_a_clock_has_none_and_leaves_the_result_alone)
{
    uint64_t pcr = kUntouched;
    EXPECT_EQ(first_pcr(repeat(plain_packet(), 4), 188, &pcr), -1);
    EXPECT_EQ(last_pcr(repeat(plain_packet(), 4), 188, &pcr), -1);
    EXPECT_EQ(pcr, kUntouched);
}

TEST(FindPcr, an_adaptation_field_without_bytes_has_no_clock)
{
    Buffer bytes = join({plain_packet(), pcr_packet(1000)});
    bytes[188 + 4] = 0;
    uint64_t pcr = kUntouched;
    EXPECT_EQ(first_pcr(bytes, 188, &pcr), -1);
    EXPECT_EQ(last_pcr(bytes, 188, &pcr), -1);
    EXPECT_EQ(pcr, kUntouched);
}

TEST(FindPcr, neither_has_a_packet_without_adaptation_field_nor_one_without_the_flag)
{
    uint64_t pcr = kUntouched;
    Buffer no_field = pcr_packet(1000);
    no_field[3] = 0x10;
    EXPECT_EQ(first_pcr(no_field, 188, &pcr), -1);
    Buffer no_flag = pcr_packet(1000);
    no_flag[5] = 0xef;
    EXPECT_EQ(first_pcr(no_flag, 188, &pcr), -1);
    EXPECT_EQ(pcr, kUntouched);
    Buffer both = pcr_packet(1000);
    both[3] = 0x30;
    EXPECT_EQ(first_pcr(both, 188, &pcr), 0);
}

TEST(FindPcr, behind_the_end_there_are_zeros)
{
    const Buffer bytes = join({plain_packet(), pcr_packet(P2_33 - 1)});
    for (size_t len = 188; len < 200; ++len) {
        uint64_t pcr = kUntouched;
        const Buffer cut = part(bytes, 0, len);
        if (len < 188 + 6) {
            EXPECT_EQ(first_pcr(cut, 188, &pcr), -1) << len;
            continue;
        }
        EXPECT_EQ(first_pcr(cut, 188, &pcr), 0) << len;
        Buffer padded = part(bytes, 188, len - 188);
        padded.resize(12, 0);
        EXPECT_EQ(pcr, ts_get_pcr(padded.data())) << len;
    }
}

TEST(FindPcr, the_last_is_counted_back_from_the_end)
{
    Buffer bytes(10, 0);
    const Buffer packets = join({pcr_packet(1), pcr_packet(2), plain_packet()});
    bytes.insert(bytes.end(), packets.begin(), packets.end());
    uint64_t pcr = 0;
    EXPECT_EQ(last_pcr(bytes, 188, &pcr), 0);
    EXPECT_EQ(pcr, 2U);
    // With the first packet at 10 it is reached, since it is not at the very start.
    std::copy_n(plain_packet().begin(), 188, bytes.begin() + 10 + 188);
    EXPECT_EQ(last_pcr(bytes, 188, &pcr), 0);
    EXPECT_EQ(pcr, 1U);
}

TEST(FindPcr, a_part_of_a_packet_in_front_ends_the_search_backwards)
{
    for (const size_t len : {189, 375, 377, 563}) {
        uint64_t pcr = kUntouched;
        EXPECT_EQ(last_pcr(Buffer(len, 0), 188, &pcr), -1) << len;
        EXPECT_EQ(pcr, kUntouched) << len;
    }
}

TEST(FindPcr, a_packet_length_of_zero_ends)
{
    uint64_t pcr = kUntouched;
    EXPECT_EQ(last_pcr(pcr_packet(1000), 0, &pcr), -1);
    EXPECT_EQ(first_pcr(plain_packet(), 0, &pcr), -1);
    EXPECT_EQ(pcr, kUntouched);
    EXPECT_EQ(first_pcr(pcr_packet(1000), 0, &pcr), 0);
    EXPECT_EQ(pcr, 1000U);
}

TEST(FindPcr, a_buffer_without_bytes)
{
    uint64_t pcr = kUntouched;
    const char nothing = 0;
    EXPECT_EQ(find_first_pcr(&nothing, 0, 0, &pcr), -1);
    EXPECT_EQ(find_last_pcr(&nothing, 0, 0, &pcr), -1);
    EXPECT_EQ(pcr, kUntouched);
}

TEST(FindPcr, preconditions_end_the_process)
{
    uint64_t pcr = 0;
    const char byte = 0;
    const char* expression = "buf && pcr && len >= pkt_len";
    for (const auto find : {find_first_pcr, find_last_pcr}) {
        const support::ChildResult results[] = {
            support::run_in_child([&] { return find(nullptr, 188, 188, &pcr); }),
            support::run_in_child([&] { return find(&byte, 1, 1, nullptr); }),
            support::run_in_child([&] { return find(&byte, 1, 2, &pcr); }),
        };
        for (const auto& result : results) {
            EXPECT_EQ(result.signal, SIGABRT);
            EXPECT_NE(result.err.find(expression), std::string::npos) << result.err;
        }
    }
}
