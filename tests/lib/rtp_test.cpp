#include "rtp.h"

#include <csignal>

#include <gtest/gtest.h>

#include "child.h"
#include "fixtures.h"
#include "logcap.h"
#include "text.h"
#include "ts_packets.h"

using support::Buffer;
using support::expect_abort;
using support::Lines;
using support::LogCapture;

namespace {

// A packet of size bytes, all zero but for the first two and the sync byte behind a plain header.
Buffer rtp_packet(uint8_t first, uint8_t second, size_t size = 200)
{
    Buffer bytes(size, 0);
    bytes[0] = first;
    bytes[1] = second;
    if (size > 12) {
        bytes[12] = 0x47;
    }
    return bytes;
}

ssize_t header_len(const Buffer& bytes)
{
    return rtp_header_len(bytes.data(), bytes.size());
}

size_t footer_len(const Buffer& bytes)
{
    return rtp_footer_len(bytes.data(), bytes.size());
}

} // namespace

TEST(Rtp, sizes_and_types)
{
    EXPECT_EQ(RTP_MIN_SIZE, 4);
    EXPECT_EQ(RTP_HDR_SIZE, 12);
    EXPECT_EQ(RTP_HDR_MAX_SIZE, RTP_HDR_SIZE + 15 * CSRC_SIZE);
    EXPECT_EQ(RTP_XTHDRLEN, 18);
    EXPECT_EQ(P_MPGA, 14);
    EXPECT_EQ(P_MPGV, 32);
    EXPECT_EQ(P_MPGTS, 33);
}

TEST(Rtp, accessors_give_the_fields_of_the_header)
{
    const Buffer all = {0xff, 0xff, 0x12, 0x34, 7};
    EXPECT_EQ(rtp_version(all.data()), 3U);
    EXPECT_EQ(rtp_payload_type(all.data()), 127U);
    EXPECT_EQ(rtp_ext(all.data()), 0x10U);
    EXPECT_EQ(rtp_CSRC(all.data()), 15U);
    EXPECT_EQ(rtp_padding(all.data()), 0x20U);
    EXPECT_EQ(rtp_u16(all.data(), 2), 0x1234U);
    EXPECT_EQ(rtp_pad_length(all.data(), all.size()), 7U);
    const Buffer version_alone = {0x80, 0x80};
    EXPECT_EQ(rtp_version(version_alone.data()), unsigned{RTP_V2});
    EXPECT_EQ(rtp_payload_type(version_alone.data()), 0U);
    EXPECT_EQ(rtp_ext(version_alone.data()) + rtp_CSRC(version_alone.data()) +
                  rtp_padding(version_alone.data()),
              0U);
}

class IsRtp : public support::GuardedTest {};

TEST_F(IsRtp, a_transport_stream_behind_a_plain_header)
{
    log.set_level(DEBUG_level);
    EXPECT_TRUE(is_rtp_pkt(rtp_packet(0x80, 33).data()));
    EXPECT_TRUE(is_rtp_pkt(rtp_packet(0x80, 33 | 0x80).data())) << "the marker bit";
    EXPECT_TRUE(is_rtp_pkt(rtp_packet(0xa0, 33).data())) << "the padding bit";
    EXPECT_EQ(log.text(), "");
}

TEST_F(IsRtp, thirteen_bytes_are_enough)
{
    EXPECT_TRUE(is_rtp_pkt(rtp_packet(0x80, 33, 13).data()));
}

TEST_F(IsRtp, wrong_version)
{
    EXPECT_FALSE(is_rtp_pkt(rtp_packet(0x40, 33).data()));
    EXPECT_FALSE(is_rtp_pkt(rtp_packet(0xc0, 99).data()));
    EXPECT_EQ(log.lines(), (Lines{"(WRN)  is_rtp_pkt: wrong RTP version: expected 0x2, got 0x1",
                                  "(WRN)  is_rtp_pkt: wrong RTP version: expected 0x2, got 0x3"}));
}

TEST_F(IsRtp, wrong_payload_type)
{
    for (const uint8_t type : {0, 13, 15, 31, 34, 96}) {
        EXPECT_FALSE(is_rtp_pkt(rtp_packet(0x80, type).data()));
    }
    EXPECT_EQ(log.lines().size(), 6U);
    EXPECT_EQ(log.lines().back(), "(WRN)  is_rtp_pkt: wrong payload type: 0x60");
}

TEST_F(IsRtp, kept_audio_and_video_have_too_long_a_header)
{
    EXPECT_FALSE(is_rtp_pkt(rtp_packet(0x80, 14).data()));
    EXPECT_FALSE(is_rtp_pkt(rtp_packet(0x80, 32).data()));
    EXPECT_EQ(log.lines(), Lines(2, "(ERR)  is_rtp_pkt: invalid RTP header length: 16"));
}

TEST_F(IsRtp, kept_contributing_sources_and_extensions_are_refused)
{
    Buffer source = rtp_packet(0x81, 33);
    source[16] = 0x47;
    EXPECT_EQ(header_len(source), 16);
    EXPECT_FALSE(is_rtp_pkt(source.data()));
    EXPECT_FALSE(is_rtp_pkt(rtp_packet(0x90, 33, 16).data()));
    EXPECT_EQ(log.lines(), Lines(2, "(ERR)  is_rtp_pkt: invalid RTP header length: 16"));
}

TEST_F(IsRtp, kept_other_content_is_reported_by_the_first_byte)
{
    Buffer bytes = rtp_packet(0xa0, 33);
    bytes[12] = 0x48;
    EXPECT_FALSE(is_rtp_pkt(bytes.data()));
    EXPECT_EQ(log.lines(),
              Lines{"(WRN)  is_rtp_pkt: non-TS content inside (allegedly) RTP container (0xa0)"});
}

TEST(RtpHeader, sources_add_four_bytes_each)
{
    for (uint8_t sources = 0; sources < 16; ++sources) {
        EXPECT_EQ(header_len(rtp_packet(0x80 | sources, 33)), 12 + 4 * sources);
        EXPECT_EQ(header_len(rtp_packet(0x80 | sources, 14)), 16 + 4 * sources);
        EXPECT_EQ(header_len(rtp_packet(0x80 | sources, 32)), 16 + 4 * sources);
    }
}

TEST(RtpHeader, may_exceed_the_packet)
{
    EXPECT_EQ(header_len(rtp_packet(0x8f, 33, 12)), 72);
    Buffer bytes = rtp_packet(0x90, 33, 18);
    bytes[14] = bytes[15] = 0xff;
    EXPECT_EQ(header_len(bytes), 12 + 65536 * 4);
}

TEST(RtpHeader, an_extension_counts_by_its_length_field)
{
    Buffer bytes = rtp_packet(0x90, 33);
    bytes[15] = 2;
    EXPECT_EQ(header_len(bytes), 24);
    bytes[14] = 1;
    EXPECT_EQ(header_len(bytes), 12 + 4 * 259);
}

TEST(RtpHeader, extension_needs_eighteen_bytes)
{
    LogCapture log;
    Buffer bytes = rtp_packet(0x90, 33, 18);
    EXPECT_EQ(header_len(bytes), 16);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(rtp_header_len(bytes.data(), 17), -12);
    EXPECT_EQ(header_len(rtp_packet(0x90, 33, 12)), -12);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  rtp_header_len: insufficient length (17) for extended header",
                                  "(ERR)  rtp_header_len: insufficient length (12) for extended header"}));
}

TEST(RtpHeader, kept_the_extension_is_read_at_its_fixed_place)
{
    Buffer bytes = rtp_packet(0x91, 33);
    bytes[15] = 3; // inside the contributing source
    bytes[19] = 9; // where the length really stands
    EXPECT_EQ(header_len(bytes), 12 + 4 + 16);
}

TEST(RtpHeader, fewer_than_twelve_bytes_end_the_process)
{
    const Buffer bytes = rtp_packet(0x80, 33, 11);
    expect_abort("len >= RTP_HDR_SIZE", [&] { return static_cast<int>(header_len(bytes)); });
    EXPECT_EQ(header_len(rtp_packet(0x80, 33, 12)), 12);
}

TEST(RtpFooter, padding_by_its_last_byte)
{
    Buffer bytes = rtp_packet(0xa0, 33);
    bytes.back() = 7;
    EXPECT_EQ(footer_len(bytes), 7U);
    bytes.back() = 255;
    EXPECT_EQ(footer_len(bytes), 255U) << "more than the packet is long";
    bytes[0] = 0x80;
    EXPECT_EQ(footer_len(bytes), 0U);
}

TEST(RtpFooter, shortest_packets)
{
    EXPECT_EQ(footer_len(Buffer{0xa1}), 0xa1U);
    EXPECT_EQ(rtp_footer_len(nullptr, 0), 0U);
}
