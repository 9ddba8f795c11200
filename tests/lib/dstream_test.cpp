#include "dstream.h"

#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "fixtures.h"
#include "mpegts.h"
#include "text.h"
#include "ts_packets.h"

using support::Buffer;
using support::entry_packet;
using support::format;
using support::join;
using support::Lines;
using support::mpeg2_packet;
using support::packet;
using support::part;
using support::pat_packet;
using support::pcr_packet;
using support::plain_packet;
using support::repeat;

namespace {

constexpr size_t kUntouched = 4711;

int32_t probe(const Buffer& bytes, int32_t type = 0, size_t* plen = nullptr, size_t* pcount = nullptr,
              sseg_ctx* sseg = nullptr)
{
    return probe_segment(bytes.data(), bytes.size(), type, plen, pcount, sseg);
}

// Searches known transport packets for everything.
sseg_ctx find_all(const Buffer& bytes, size_t size = 188)
{
    sseg_ctx sseg = {1, 1, kUntouched, 1};
    EXPECT_EQ(probe(bytes, STY_MPEGTS.num, &size, nullptr, &sseg), STY_MPEGTS.num);
    return sseg;
}

uint32_t find_pat(const Buffer& one)
{
    return find_all(one).pat_idx;
}

uint32_t find_frame(const Buffer& one)
{
    return find_all(one).iframe_idx;
}

Buffer with_byte(Buffer bytes, size_t at, uint8_t value)
{
    bytes.at(at) = value;
    return bytes;
}

// RTP of the payload given, with that many bytes of padding.
Buffer rtp(const Buffer& payload, uint8_t padding = 0)
{
    Buffer bytes(12, 0);
    bytes[0] = padding > 0 ? 0xa0 : 0x80;
    bytes[1] = 33;
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    if (padding > 0) {
        bytes.resize(bytes.size() + padding, 0);
        bytes.back() = padding;
    }
    bytes.shrink_to_fit();
    return bytes;
}

struct Extracted {
    int rc;
    ssize_t outlen = kUntouched;
    int32_t stype = 0;
};

Extracted extract(Buffer& bytes, uint32_t hints = 0)
{
    Extracted result;
    result.rc = xtract_ts_payload(bytes.data(), bytes.size(), &result.outlen, &result.stype, hints);
    return result;
}

} // namespace

TEST(StreamType, texts_and_numbers)
{
    EXPECT_STREQ(STY_RAW.sym, "RAW");
    EXPECT_STREQ(STY_MPEGTS.sym, "TS");
    EXPECT_STREQ(STY_RTP.sym, "RTP");
    EXPECT_TRUE(is_raw(0));
    EXPECT_TRUE(is_raw(STY_RAW.num));
    EXPECT_FALSE(is_raw(STY_MPEGTS.num));
    EXPECT_FALSE(is_raw(STY_RTP.num));
    EXPECT_EQ(XF_NO_RTP, 1);
}

class ProbeSegment : public support::GuardedTest {};

TEST_F(ProbeSegment, a_transport_stream_of_each_size)
{
    for (const size_t size : {188, 192, 204, 208}) {
        size_t plen = 0;
        size_t pcount = 0;
        EXPECT_EQ(probe(repeat(plain_packet(), 7, size), 0, &plen, &pcount), STY_MPEGTS.num);
        EXPECT_EQ(plen, size);
        EXPECT_EQ(pcount, 7U);
    }
}

TEST_F(ProbeSegment, a_raw_segment_is_one_packet_as_long_as_itself)
{
    for (const size_t len : {1, 187, 700, 1316}) {
        size_t plen = 0;
        size_t pcount = 0;
        EXPECT_EQ(probe(Buffer(len, 0), 0, &plen, &pcount), STY_RAW.num);
        EXPECT_EQ(plen, len);
        EXPECT_EQ(pcount, 1U);
    }
}

TEST_F(ProbeSegment, a_segment_without_bytes_is_raw)
{
    size_t plen = kUntouched;
    size_t pcount = 0;
    EXPECT_EQ(probe_segment(nullptr, 0, 0, &plen, &pcount, nullptr), STY_RAW.num);
    EXPECT_EQ(plen, 0U);
    EXPECT_EQ(pcount, 1U);
}

TEST_F(ProbeSegment, nothing_needs_to_be_asked)
{
    EXPECT_EQ(probe(repeat(plain_packet(), 7)), STY_MPEGTS.num);
    EXPECT_EQ(probe(Buffer(100, 1)), STY_RAW.num);
    EXPECT_EQ(probe(repeat(plain_packet(), 7), STY_MPEGTS.num), STY_MPEGTS.num);
    sseg_ctx sseg = {0, 1, 0, 0};
    EXPECT_EQ(probe(join({plain_packet(), pcr_packet(9)}, 192), 0, nullptr, nullptr, &sseg), STY_MPEGTS.num);
    EXPECT_EQ(sseg.pcr_idx, 2U) << "the size that was probed serves the search";
}

TEST_F(ProbeSegment, a_part_of_a_packet_makes_it_raw)
{
    const Buffer cut = part(repeat(plain_packet(), 7), 0, 1000);
    size_t plen = 0;
    size_t pcount = 0;
    EXPECT_EQ(probe(cut, STY_MPEGTS.num, &plen, &pcount), STY_RAW.num);
    EXPECT_EQ(plen, 1000U);
    EXPECT_EQ(pcount, 1U);
    EXPECT_EQ(log.lines(), Lines{"(WRN)  probe_segment: stream type switch: [TS]->[RAW]"});
    log.clear();
    plen = 0;
    EXPECT_EQ(probe(cut, 0, &plen, &pcount), STY_RAW.num);
    EXPECT_EQ(log.text(), "") << "from an unknown type it is no switch";
}

TEST_F(ProbeSegment, the_type_follows_what_a_segment_holds)
{
    size_t plen = 0;
    EXPECT_EQ(probe(repeat(plain_packet(), 2), STY_RAW.num, &plen), STY_MPEGTS.num);
    plen = 0;
    EXPECT_EQ(probe(Buffer(50, 0), STY_RAW.num, &plen), STY_RAW.num);
    plen = 0;
    EXPECT_EQ(probe(Buffer(50, 0), -5, &plen), STY_RAW.num);
    EXPECT_EQ(log.text(), "");
    plen = 0;
    EXPECT_EQ(probe(Buffer(50, 0), STY_RTP.num, &plen), STY_RAW.num);
    n32_tag four = {{'a', 'b', 'c', 'd'}};
    plen = 0;
    EXPECT_EQ(probe(Buffer(50, 0), four.num, &plen), STY_RAW.num);
    EXPECT_EQ(log.lines(), (Lines{"(WRN)  probe_segment: stream type switch: [RTP]->[RAW]",
                                  "(WRN)  probe_segment: stream type switch: [abcd]->[RAW]"}));
}

TEST_F(ProbeSegment, kept_known_type_and_size_stand_even_on_garbage)
{
    Buffer garbage(1000, 0xab);
    size_t plen = 188;
    size_t pcount = kUntouched;
    EXPECT_EQ(probe(garbage, STY_MPEGTS.num, &plen, &pcount), STY_MPEGTS.num);
    EXPECT_EQ(plen, 188U);
    EXPECT_EQ(pcount, kUntouched) << "not written";
    // It is walked as packets: a clock in the third one counts without any sync byte.
    const Buffer clock = with_byte(pcr_packet(77), 0, 0);
    std::copy(clock.begin(), clock.begin() + 20, garbage.begin() + 376);
    sseg_ctx sseg = {0, 1, 0, 0};
    garbage[3] = garbage[188 + 3] = 0x10;
    EXPECT_EQ(probe(garbage, STY_MPEGTS.num, &plen, &pcount, &sseg), STY_MPEGTS.num);
    EXPECT_EQ(sseg.pcr_idx, 3U);
    EXPECT_EQ(sseg.pcr, 77U);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ProbeSegment, a_known_size_alone_or_a_known_type_alone_is_probed)
{
    const Buffer bytes = repeat(plain_packet(), 4, 204);
    size_t plen = 188;
    size_t pcount = 0;
    EXPECT_EQ(probe(bytes, 0, &plen, &pcount), STY_MPEGTS.num);
    EXPECT_EQ(plen, 204U);
    EXPECT_EQ(pcount, 4U);
    plen = 0;
    EXPECT_EQ(probe(bytes, STY_MPEGTS.num, &plen, &pcount), STY_MPEGTS.num);
    EXPECT_EQ(plen, 204U);
}

TEST_F(ProbeSegment, a_known_raw_type_still_counts)
{
    size_t plen = 5;
    size_t pcount = 0;
    EXPECT_EQ(probe(repeat(plain_packet(), 7), STY_RAW.num, &plen, &pcount), STY_RAW.num);
    EXPECT_EQ(plen, 1316U);
    EXPECT_EQ(pcount, 1U);
}

TEST_F(ProbeSegment, a_known_type_of_another_kind_is_left_alone)
{
    size_t plen = 188;
    size_t pcount = kUntouched;
    sseg_ctx sseg = {1, 1, 5, 1};
    EXPECT_EQ(probe(repeat(plain_packet(), 7), STY_RTP.num, &plen, &pcount, &sseg), STY_RTP.num);
    EXPECT_EQ(pcount, kUntouched);
    EXPECT_EQ(sseg.pat_idx + sseg.pcr_idx + sseg.iframe_idx, 0U);
    EXPECT_EQ(log.lines(), Lines{"(WRN)  probe_segment: no processing for [RTP] stream supported"});
}

TEST_F(ProbeSegment, requests_on_a_raw_segment)
{
    sseg_ctx sseg = {1, 7, 99, 1};
    EXPECT_EQ(probe(Buffer(100, 0), 0, nullptr, nullptr, &sseg), STY_RAW.num);
    EXPECT_EQ(sseg.pat_idx, 0U);
    EXPECT_EQ(sseg.pcr_idx, 0U);
    EXPECT_EQ(sseg.iframe_idx, 0U);
    EXPECT_EQ(sseg.pcr, 99U);
    EXPECT_EQ(log.lines(), Lines{"(WRN)  probe_segment: no processing for [RAW] stream supported"});
    log.clear();
    sseg = {};
    EXPECT_EQ(probe(Buffer(100, 0), 0, nullptr, nullptr, &sseg), STY_RAW.num);
    EXPECT_EQ(log.text(), "") << "nothing was asked";
}

TEST_F(ProbeSegment, one_request_leaves_the_others_at_zero)
{
    const Buffer bytes = join({pat_packet(), plain_packet(), pcr_packet(123456789), entry_packet(5)});
    sseg_ctx sseg = {0, 1, 0, 0};
    probe(bytes, 0, nullptr, nullptr, &sseg);
    EXPECT_EQ(sseg.pcr_idx, 3U);
    EXPECT_EQ(sseg.pcr, 123456789U);
    EXPECT_EQ(sseg.pat_idx, 0U);
    EXPECT_EQ(sseg.iframe_idx, 0U);
    sseg = {9, 0, 42, 0};
    probe(bytes, 0, nullptr, nullptr, &sseg);
    EXPECT_EQ(sseg.pat_idx, 1U);
    EXPECT_EQ(sseg.pcr_idx + sseg.iframe_idx, 0U);
    EXPECT_EQ(sseg.pcr, 42U) << "kept where no clock was asked for";
    sseg = {0, 0, 42, 9};
    probe(bytes, 0, nullptr, nullptr, &sseg);
    EXPECT_EQ(sseg.iframe_idx, 4U);
    EXPECT_EQ(sseg.pcr, 42U);
}

TEST_F(ProbeSegment, the_first_of_each_counts)
{
    const Buffer bytes = join({plain_packet(), entry_packet(100), pat_packet(), pcr_packet(200), pat_packet(),
                               mpeg2_packet(1), entry_packet(300)});
    const sseg_ctx found = find_all(bytes);
    EXPECT_EQ(found.iframe_idx, 2U);
    EXPECT_EQ(found.pcr_idx, 2U) << "an entry point has a clock too";
    EXPECT_EQ(found.pcr, 100U);
    EXPECT_EQ(found.pat_idx, 3U);
}

TEST_F(ProbeSegment, nothing_to_be_found)
{
    const sseg_ctx found = find_all(repeat(plain_packet(), 100));
    EXPECT_EQ(found.pat_idx + found.pcr_idx + found.iframe_idx, 0U);
    EXPECT_EQ(found.pcr, kUntouched);
}

TEST_F(ProbeSegment, positions_by_the_packet_size)
{
    for (const size_t size : {188, 192, 204, 208}) {
        const Buffer bytes = join({plain_packet(), pat_packet(), pcr_packet(7), mpeg2_packet(1)}, size);
        const sseg_ctx found = find_all(bytes, size);
        EXPECT_EQ(found.pat_idx, 2U);
        EXPECT_EQ(found.pcr_idx, 3U);
        EXPECT_EQ(found.iframe_idx, 4U);
    }
}

TEST_F(ProbeSegment, says_what_it_does)
{
    log.set_level(DEBUG_level);
    const Buffer bytes = join({plain_packet(), pat_packet(), entry_packet(9)});
    size_t plen = 188;
    sseg_ctx sseg = {1, 1, 0, 1};
    probe(bytes, STY_MPEGTS.num, &plen, nullptr, &sseg);
    const auto* at = static_cast<const void*>(bytes.data());
    EXPECT_EQ(log.lines(), (Lines{"(DBG)  probe_segment: START buffer len=564, pkt_len=188",
                                  "(DBG)  probe_segment: TS len=188, count=3",
                                  format("(DBG)  probe_segment: i-Frame at pkt[2]/3 buf=%p, len=564", at),
                                  format("(DBG)  probe_segment: PAT at pkt[1]/3 buf=%p, len=564", at),
                                  format("(DBG)  probe_segment: PCR=9 at pkt[2]/3 buf=%p, len=564", at)}));
    log.clear();
    probe(Buffer(10, 0));
    EXPECT_EQ(log.lines(), (Lines{"(DBG)  probe_segment: START buffer len=10, pkt_len=0",
                                  "(DBG)  probe_segment: RAW len=10, count=1"}));
}

TEST(ProbePat, each_field_of_the_table_counts)
{
    EXPECT_EQ(find_pat(pat_packet()), 1U);
    EXPECT_EQ(find_pat(with_byte(pat_packet(), 1, 0x00)), 0U) << "no payload start";
    EXPECT_EQ(find_pat(with_byte(pat_packet(), 1, 0x41)), 0U) << "another PID";
    EXPECT_EQ(find_pat(with_byte(pat_packet(), 2, 0x01)), 0U) << "another PID";
    EXPECT_EQ(find_pat(with_byte(pat_packet(), 5, 0x01)), 0U) << "another table";
    EXPECT_EQ(find_pat(with_byte(pat_packet(), 6, 0x30)), 0U) << "no section syntax";
    EXPECT_EQ(find_pat(with_byte(pat_packet(), 6, 0xf0)), 0U) << "the zero bit";
    EXPECT_EQ(find_pat(with_byte(pat_packet(), 6, 0xb3)), 1U) << "a length below 1024 does not matter";
    for (const uint8_t reserved : {0x90, 0xa0, 0xb4, 0xb8}) {
        EXPECT_EQ(find_pat(with_byte(pat_packet(), 6, reserved)), 0U) << unsigned{reserved};
    }
    EXPECT_EQ(find_pat(with_byte(pat_packet(), 10, 0xc0)), 0U) << "not yet current";
    EXPECT_EQ(find_pat(with_byte(pat_packet(), 1, 0xe0)), 1U) << "error and priority do not matter";
}

TEST(ProbePat, kept_the_pointer_field_is_not_read)
{
    EXPECT_EQ(find_pat(with_byte(pat_packet(), 4, 3)), 1U);
}

TEST(ProbePat, kept_no_adaptation_field_is_allowed_for)
{
    Buffer shifted = packet({0x47, 0x40, 0x00, 0x30, 0x01, 0x00});
    const Buffer table = pat_packet();
    std::copy(table.begin() + 4, table.begin() + 40, shifted.begin() + 6);
    EXPECT_EQ(find_pat(shifted), 0U);
    EXPECT_EQ(find_pat(with_byte(pat_packet(), 3, 0x20)), 1U) << "nor is one seen";
}

TEST(ProbeFrame, kept_a_marked_packet_of_the_first_video_id)
{
    EXPECT_EQ(find_frame(entry_packet(1)), 1U);
    EXPECT_EQ(find_frame(with_byte(entry_packet(1), 1, 0x01)), 0U) << "no payload start";
    EXPECT_EQ(find_frame(with_byte(entry_packet(1), 3, 0x20)), 0U) << "no payload";
    EXPECT_EQ(find_frame(with_byte(entry_packet(1), 5, 0x40)), 0U) << "no clock";
    EXPECT_EQ(find_frame(with_byte(entry_packet(1), 5, 0x10)), 0U) << "no random access";
    EXPECT_EQ(find_frame(with_byte(entry_packet(1), 15, 0xc0)), 0U) << "no video";
    EXPECT_EQ(find_frame(with_byte(entry_packet(1), 15, 0xe1)), 0U) << "kept to the first video id";
}

TEST(ProbeFrame, the_adaptation_field_has_five_bytes_or_more)
{
    for (const uint8_t length : {4, 5}) {
        Buffer one = with_byte(entry_packet(1), 4, length);
        const uint8_t video[] = {0, 0, 1, 0xe0};
        std::copy(std::begin(video), std::end(video), one.begin() + length + 5);
        EXPECT_EQ(find_frame(one), length == 5 ? 1U : 0U);
    }
}

TEST(ProbeFrame, a_start_code_may_be_all_of_the_payload)
{
    Buffer one = with_byte(entry_packet(1), 4, 179);
    const uint8_t video[] = {0, 0, 1, 0xe0};
    std::copy(std::begin(video), std::end(video), one.end() - 4);
    EXPECT_EQ(find_frame(one), 1U);
}

TEST(ProbeFrame, types_of_mpeg2_pictures)
{
    for (unsigned type = 0; type < 8; ++type) {
        EXPECT_EQ(find_frame(mpeg2_packet(type)), type == 1 ? 1U : 0U) << type;
    }
}

TEST(ProbeFrame, an_mpeg2_picture_needs_its_headers)
{
    EXPECT_EQ(find_frame(with_byte(mpeg2_packet(1), 1, 0x01)), 0U) << "no payload start";
    EXPECT_EQ(find_frame(with_byte(mpeg2_packet(1), 3, 0x20)), 0U) << "no payload";
    EXPECT_EQ(find_frame(with_byte(mpeg2_packet(1), 7, 0xc0)), 0U) << "no video";
    EXPECT_EQ(find_frame(with_byte(mpeg2_packet(1), 16, 0xb2)), 0U) << "no sequence header";
    EXPECT_EQ(find_frame(with_byte(mpeg2_packet(1), 24, 0x01)), 0U) << "no picture header";
    const Buffer headless = with_byte(mpeg2_packet(1), 16, 0xb2);
    EXPECT_EQ(find_frame(with_byte(headless, 185, 1)), 0U) << "no start code where the search ends either";
}

TEST(ProbeFrame, a_picture_before_the_sequence_header_does_not_count)
{
    Buffer one = mpeg2_packet(1);
    std::swap_ranges(one.begin() + 13, one.begin() + 21, one.begin() + 21);
    EXPECT_EQ(find_frame(one), 0U);
}

TEST(ProbeFrame, an_adaptation_field_may_stand_before_the_picture)
{
    Buffer one = packet({0x47, 0x41, 0x00, 0x30, 0x09});
    std::fill(one.begin() + 5, one.begin() + 14, 0);
    const Buffer picture = mpeg2_packet(1);
    std::copy(picture.begin() + 4, picture.begin() + 60, one.begin() + 14);
    EXPECT_EQ(find_frame(one), 1U);
}

// Moves the picture header of an MPEG-2 packet so that it begins at that offset of the packet.
static Buffer picture_at(size_t at)
{
    Buffer one = mpeg2_packet(1);
    Buffer header(one.begin() + 21, one.begin() + 29);
    std::fill(one.begin() + 21, one.begin() + 29, 0xff);
    header.resize(std::min(header.size(), one.size() - at));
    std::copy(header.begin(), header.end(), one.begin() + static_cast<ptrdiff_t>(at));
    return one;
}

TEST(ProbeFrame, a_picture_header_at_the_end_of_the_packet)
{
    EXPECT_EQ(find_frame(picture_at(180)), 1U) << "its byte 7 is the packet's last";
    EXPECT_EQ(find_frame(picture_at(181)), 0U);
    EXPECT_EQ(find_frame(picture_at(182)), 0U);
    EXPECT_EQ(find_frame(picture_at(184)), 0U);
    // What follows in the buffer is no longer this packet.
    Buffer two = join({picture_at(181), plain_packet()});
    EXPECT_EQ(find_frame(two), 0U);
}

TEST(ProbeFrame, kept_a_long_adaptation_field_reaches_into_the_next_packet)
{
    Buffer two = join({with_byte(entry_packet(1), 4, 255), plain_packet()});
    EXPECT_EQ(find_frame(two), 0U);
    const uint8_t video[] = {0, 0, 1, 0xe0};
    std::copy(std::begin(video), std::end(video), two.begin() + 260);
    EXPECT_EQ(find_frame(two), 1U);
    // Behind the end of the buffer there is nothing.
    EXPECT_EQ(find_frame(part(two, 0, 188)), 0U);
    EXPECT_EQ(find_frame(part(two, 0, 263)), 0U);
}

TEST(ProbeFrame, an_mpeg2_picture_behind_its_packet_does_not_count)
{
    Buffer two = join({packet({0x47, 0x41, 0x00, 0x30, 255, 0x00}), plain_packet()});
    const Buffer picture = mpeg2_packet(1);
    std::copy(picture.begin() + 4, picture.begin() + 60, two.begin() + 260);
    EXPECT_EQ(find_frame(two), 0U);
}

TEST_F(ProbeSegment, every_cut_of_a_segment_is_safe)
{
    const Buffer bytes =
        join({with_byte(entry_packet(1), 4, 200), mpeg2_packet(2), pat_packet(), pcr_packet(3)});
    for (size_t len = 0; len <= bytes.size(); ++len) {
        const Buffer cut = part(bytes, 0, len);
        for (const size_t size : {1, 3, 11, 188, 5000}) {
            size_t plen = size;
            sseg_ctx sseg = {1, 1, 0, 1};
            EXPECT_EQ(probe(cut, STY_MPEGTS.num, &plen, nullptr, &sseg), STY_MPEGTS.num);
            EXPECT_LE(sseg.pat_idx, len / size + 1);
        }
    }
    size_t plen = SIZE_MAX;
    sseg_ctx sseg = {1, 1, 0, 1};
    EXPECT_EQ(probe(bytes, STY_MPEGTS.num, &plen, nullptr, &sseg), STY_MPEGTS.num);
    EXPECT_EQ(sseg.pcr_idx, 1U);
}

TEST_F(ProbeSegment, finds_what_a_plain_search_finds)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const Buffer kinds[] = {plain_packet(),  pat_packet(),    pcr_packet(1),
                            entry_packet(1), mpeg2_packet(1), mpeg2_packet(2)};
    for (int i = 0; i < 3000; ++i) {
        Buffer bytes;
        sseg_ctx expected = {};
        const size_t count = 1 + random() % 40;
        for (uint32_t number = 1; number <= count; ++number) {
            const size_t kind = random() % 3 == 0 ? random() % 6 : 0;
            bytes.insert(bytes.end(), kinds[kind].begin(), kinds[kind].end());
            const auto note = [&](uint32_t& index, bool holds) {
                index = index == 0 && holds ? number : index;
            };
            note(expected.pat_idx, kind == 1);
            note(expected.pcr_idx, kind == 2 || kind == 3);
            note(expected.iframe_idx, kind == 3 || kind == 4);
        }
        const sseg_ctx found = find_all(bytes);
        ASSERT_EQ(found.pat_idx, expected.pat_idx);
        ASSERT_EQ(found.pcr_idx, expected.pcr_idx);
        ASSERT_EQ(found.iframe_idx, expected.iframe_idx);
    }
}

class ExtractPayload : public support::GuardedTest {};

TEST_F(ExtractPayload, a_transport_stream_stays_as_it_is)
{
    Buffer bytes = repeat(plain_packet(), 7);
    const Buffer before = bytes;
    const Extracted result = extract(bytes);
    EXPECT_EQ(result.rc, 0);
    EXPECT_EQ(result.stype, STY_MPEGTS.num);
    EXPECT_EQ(result.outlen, static_cast<ssize_t>(kUntouched));
    EXPECT_EQ(bytes, before);
}

TEST_F(ExtractPayload, other_bytes_stay_as_they_are)
{
    Buffer bytes(500, 0);
    const Extracted result = extract(bytes);
    EXPECT_EQ(result.rc, 0);
    EXPECT_EQ(result.stype, STY_RAW.num);
    EXPECT_EQ(result.outlen, static_cast<ssize_t>(kUntouched));
    EXPECT_EQ(log.lines(), Lines{"(WRN)  is_rtp_pkt: wrong RTP version: expected 0x2, got 0x0"});
}

TEST_F(ExtractPayload, the_hint_keeps_rtp_out)
{
    Buffer bytes = rtp(repeat(plain_packet(), 2));
    const Buffer before = bytes;
    const Extracted result = extract(bytes, XF_NO_RTP);
    EXPECT_EQ(result.rc, 0);
    EXPECT_EQ(result.stype, STY_RAW.num);
    EXPECT_EQ(bytes, before);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ExtractPayload, two_transport_packets_behind_an_rtp_header_are_given_alone)
{
    const Buffer payload = join({pat_packet(), plain_packet()});
    Buffer bytes = rtp(payload);
    ASSERT_EQ(bytes.size(), 388U);
    const Extracted result = extract(bytes);
    EXPECT_EQ(result.rc, 0);
    EXPECT_EQ(result.outlen, 376);
    EXPECT_EQ(result.stype, STY_RTP.num);
    EXPECT_EQ(part(bytes, 0, 376), payload);
}

TEST_F(ExtractPayload, kept_a_single_transport_packet_is_refused)
{
    Buffer bytes = rtp(plain_packet());
    const Buffer before = bytes;
    ASSERT_EQ(bytes.size(), 200U);
    const Extracted result = extract(bytes);
    EXPECT_EQ(result.rc, -1);
    EXPECT_EQ(result.outlen, static_cast<ssize_t>(kUntouched));
    EXPECT_EQ(result.stype, 0);
    EXPECT_EQ(bytes, before);
    EXPECT_EQ(log.lines(), Lines{"(ERR)  xtract_ts_payload: invalid RTP footer length: 0"});
    Buffer longer = rtp(plain_packet());
    longer.push_back(0);
    EXPECT_EQ(extract(longer).outlen, 189) << "one byte more is enough";
}

TEST_F(ExtractPayload, padding_goes)
{
    const Buffer payload = repeat(plain_packet(), 2);
    Buffer bytes = rtp(payload, 255);
    const Extracted result = extract(bytes);
    EXPECT_EQ(result.rc, 0);
    EXPECT_EQ(result.outlen, 376);
    EXPECT_EQ(part(bytes, 0, 376), payload);
}

TEST_F(ExtractPayload, padding_longer_than_the_packet)
{
    Buffer bytes = rtp(plain_packet(), 4);
    bytes.back() = 200;
    EXPECT_EQ(extract(bytes).rc, -1);
    Buffer enough = rtp(repeat(plain_packet(), 2), 1);
    enough.back() = 189; // leaves 188 bytes
    EXPECT_EQ(extract(enough).rc, -1);
    enough = rtp(repeat(plain_packet(), 2), 1);
    enough.back() = 188;
    EXPECT_EQ(extract(enough).outlen, 189);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  xtract_ts_payload: invalid RTP footer length: 200",
                                  "(ERR)  xtract_ts_payload: invalid RTP footer length: 189"}));
}

TEST_F(ExtractPayload, short_segments_are_safe)
{
    const Buffer whole = rtp(repeat(plain_packet(), 2));
    for (size_t len = 0; len < 200; ++len) {
        Buffer cut = part(whole, 0, len);
        const Extracted result = extract(cut);
        EXPECT_EQ(result.rc, len > 12 ? -1 : 0) << len;
        EXPECT_EQ(result.stype, len > 12 ? 0 : STY_RAW.num) << len;
        Buffer extended = cut;
        if (len > 0) {
            extended[0] = 0x90;
        }
        EXPECT_EQ(extract(extended).rc, 0) << len;
    }
    Extracted result;
    EXPECT_EQ(xtract_ts_payload(nullptr, 0, &result.outlen, &result.stype, 0), 0);
    EXPECT_EQ(result.stype, STY_RAW.num);
}

TEST_F(ExtractPayload, the_type_need_not_be_asked)
{
    ssize_t outlen = 0;
    Buffer bytes = rtp(repeat(plain_packet(), 3));
    EXPECT_EQ(xtract_ts_payload(bytes.data(), bytes.size(), &outlen, nullptr, 0), 0);
    EXPECT_EQ(outlen, 564);
    Buffer transport = plain_packet();
    EXPECT_EQ(xtract_ts_payload(transport.data(), transport.size(), nullptr, nullptr, 0), 0);
    Buffer raw(20, 0);
    EXPECT_EQ(xtract_ts_payload(raw.data(), raw.size(), nullptr, nullptr, 0), 0);
}
