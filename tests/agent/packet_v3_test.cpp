// Version 3 reports and the stricter way of the features, on byte arrays.
#include <gtest/gtest.h>

#include <utility>

#include "frames_v3.h"
#include "log.h"
#include "running_agent.h"
#include "text.h"
#include "zent.h"

using support::igmp_frame;
using support::kV3Message;
using support::Lines;
using support::report_frame;
using support::v3_frame;
using support::V3Record;

namespace {

// With version 3 read.
class PacketV3 : public RunningAgent {
  protected:
    void SetUp() override
    {
        RunningAgent::SetUp();
        g_cfg.features = {.any = true, .exact = false, .immediate = false, .igmpv3 = true, .expire = 0};
    }

    static void feed(const std::vector<uint8_t>& frame) { RunningAgent::feed(frame, frame.size()); }

    // What was relayed since the last call, with the lines' common words left out: "J 239.1.1.1,L 239.1.1.1".
    std::string relayed()
    {
        std::string all = all_relayed();
        const size_t before = std::exchange(taken_, all.size());
        all.erase(0, before);
        std::string brief;
        for (size_t end = 0; !all.empty(); all.erase(0, end + 1)) {
            end = all.find('\n');
            brief += (brief.empty() ? "" : ",") + all.substr(0, 1) + " " +
                     all.substr(all.find("//") + 2, end - all.find("//") - 2);
        }
        return brief;
    }

    std::string after(const std::vector<V3Record>& records)
    {
        feed(v3_frame(records));
        return relayed();
    }

  private:
    size_t taken_ = 0;
};

constexpr const char* kGroup = "239.1.2.3";

std::string cut_line(unsigned record, unsigned count)
{
    return "(WRN)  on_pcap_pkt: IGMPv3 report ends within record " + std::to_string(record) + " of " +
           std::to_string(count);
}

} // namespace

TEST_F(PacketV3, records_that_ask_for_all_sources_are_reports)
{
    for (const uint8_t type : {IGMP3_MODE_IS_EXCLUDE, IGMP3_CHANGE_TO_EXCLUDE}) {
        for (const unsigned sources : {0U, 1U, 300U}) {
            EXPECT_EQ(after({{type, kGroup, sources}}), "J 239.1.2.3") << int{type} << " " << sources;
            EXPECT_EQ(after({{type, kGroup, sources}}), "") << "a repeat";
            feed(support::leave_frame(kGroup));
            EXPECT_EQ(relayed(), "L 239.1.2.3");
        }
    }
}

TEST_F(PacketV3, records_that_ask_for_some_sources_are_reports_where_they_name_any)
{
    for (const uint8_t type : {IGMP3_MODE_IS_INCLUDE, IGMP3_CHANGE_TO_INCLUDE, IGMP3_ALLOW_NEW_SOURCES}) {
        EXPECT_EQ(after({{type, kGroup, 0}}), "") << int{type};
        for (const unsigned sources : {1U, 2U, 300U}) {
            EXPECT_EQ(after({{type, kGroup, sources}}), "J 239.1.2.3") << int{type} << " " << sources;
            feed(support::leave_frame(kGroup));
            EXPECT_EQ(relayed(), "L 239.1.2.3");
        }
    }
}

TEST_F(PacketV3, change_to_no_sources_is_a_leave)
{
    feed(report_frame(kGroup));
    EXPECT_EQ(relayed(), "J 239.1.2.3");
    EXPECT_EQ(after({{IGMP3_CHANGE_TO_INCLUDE, kGroup, 0}}), "L 239.1.2.3");
    EXPECT_EQ(after({{IGMP3_CHANGE_TO_INCLUDE, kGroup, 0}}), "") << "it is not joined any more";
}

TEST_F(PacketV3, other_records_change_nothing)
{
    for (const bool joined : {false, true}) {
        if (joined) {
            feed(report_frame(kGroup));
            EXPECT_EQ(relayed(), "J 239.1.2.3");
        }
        for (const unsigned sources : {0U, 1U, 9U}) {
            for (const int type : {0, IGMP3_BLOCK_OLD_SOURCES + 0, 7, 34, 255}) {
                EXPECT_EQ(after({{static_cast<uint8_t>(type), kGroup, sources}}), "") << type;
            }
        }
        EXPECT_EQ(after({{IGMP3_MODE_IS_INCLUDE, kGroup, 0}}), "");
    }
}

TEST_F(PacketV3, sources_and_auxiliary_data_are_skipped)
{
    EXPECT_EQ(after({{IGMP3_MODE_IS_EXCLUDE, "239.1.1.1", 3, 2},
                     {IGMP3_MODE_IS_EXCLUDE, "239.1.1.2", 0, 255},
                     {IGMP3_BLOCK_OLD_SOURCES, "239.1.1.3", 1, 1},
                     {IGMP3_MODE_IS_EXCLUDE, "239.1.1.4", 1, 0}}),
              "J 239.1.1.1,J 239.1.1.2,J 239.1.1.4");
}

TEST_F(PacketV3, report_without_records_says_nothing)
{
    EXPECT_EQ(after({}), "");
    EXPECT_EQ(log.text(), "");
}

TEST_F(PacketV3, record_cut_at_any_byte_ends_the_walk_and_those_in_front_of_it_count)
{
    const std::vector<V3Record> records = {{IGMP3_MODE_IS_EXCLUDE, "239.1.1.1", 1, 1},
                                           {IGMP3_MODE_IS_EXCLUDE, "239.1.1.2", 2, 1}};
    const std::vector<uint8_t> whole = v3_frame(records);
    const size_t second = kV3Message + 8 + 16;
    for (size_t length = kV3Message + 8; length < whole.size(); ++length) {
        log.clear();
        feed({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)});
        EXPECT_EQ(relayed(), length < second ? "" : "J 239.1.1.1") << length;
        EXPECT_EQ(log.lines().front(), length < second
                                           ? cut_line(1, 2)
                                           : "(NRM)  relay_msg: 21 bytes output: JOIN UDP://239.1.1.1")
            << length;
        EXPECT_EQ(log.lines().back(), cut_line(length < second ? 1 : 2, 2)) << length;
        feed(support::leave_frame("239.1.1.1"));
        relayed();
    }
    feed(whole);
    EXPECT_EQ(relayed(), "J 239.1.1.1,J 239.1.1.2");
}

TEST_F(PacketV3, record_that_reaches_beyond_the_packet_is_not_believed_though_it_was_captured)
{
    std::vector<uint8_t> frame =
        v3_frame({{IGMP3_MODE_IS_EXCLUDE, "239.1.1.1"}, {IGMP3_MODE_IS_EXCLUDE, "239.1.1.2"}});
    support::put16(frame, 14 + 2, frame.size() - 14 - 1);
    log.set_level(WARN_level);
    feed(frame);
    EXPECT_EQ(relayed(), "J 239.1.1.1");
    EXPECT_EQ(log.lines(), Lines{cut_line(2, 2)});
}

TEST_F(PacketV3, header_cut_at_any_byte_is_told_and_nothing_is_read)
{
    const std::vector<uint8_t> whole = v3_frame({{IGMP3_MODE_IS_EXCLUDE, kGroup}});
    for (size_t length = 1; length < 8; ++length) {
        log.clear();
        feed({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(kV3Message + length)});
        EXPECT_EQ(log.lines(), Lines{"(WRN)  on_pcap_pkt: IGMPv3 report of " + std::to_string(length) +
                                     " bytes is too small"});
    }
    std::vector<uint8_t> none = whole;
    support::put16(none, 14 + 2, 0);
    log.clear();
    feed(none);
    EXPECT_EQ(log.lines(), Lines{"(WRN)  on_pcap_pkt: IGMPv3 report of 0 bytes is too small"});
    EXPECT_EQ(relayed(), "");
}

TEST_F(PacketV3, count_of_65535_reads_what_is_there)
{
    log.set_level(WARN_level);
    feed(v3_frame({{IGMP3_MODE_IS_EXCLUDE, "239.1.1.1"}, {IGMP3_MODE_IS_EXCLUDE, "239.1.1.2"}}, 65535));
    EXPECT_EQ(relayed(), "J 239.1.1.1,J 239.1.1.2");
    EXPECT_EQ(log.lines(), Lines{cut_line(3, 65535)});
}

TEST_F(PacketV3, sources_beyond_any_packet_end_the_walk)
{
    std::vector<uint8_t> frame =
        v3_frame({{IGMP3_MODE_IS_EXCLUDE, "239.1.1.1"}, {IGMP3_MODE_IS_EXCLUDE, "239.1.1.2"}});
    support::put16(frame, kV3Message + 8 + 2, 65535);
    frame[kV3Message + 8 + 1] = 255;
    feed(frame);
    EXPECT_EQ(relayed(), "");
    EXPECT_EQ(log.lines(), Lines{cut_line(1, 2)});
}

TEST_F(PacketV3, records_behind_the_count_and_padding_are_not_read)
{
    std::vector<uint8_t> frame =
        v3_frame({{IGMP3_MODE_IS_EXCLUDE, "239.1.1.1"}, {IGMP3_MODE_IS_EXCLUDE, "239.1.1.2"}}, 1);
    frame.resize(frame.size() + 30, 0xff);
    log.set_level(WARN_level);
    feed(frame);
    EXPECT_EQ(relayed(), "J 239.1.1.1");
    EXPECT_EQ(log.text(), "");
}

TEST_F(PacketV3, record_of_no_group_is_dropped_with_a_line_and_the_next_one_counts)
{
    for (const char* none : {"0.0.0.0", "10.0.0.1", "223.255.255.255", "240.0.0.0", "255.255.255.255"}) {
        log.clear();
        log.set_level(DEBUG_level);
        feed(v3_frame({{IGMP3_MODE_IS_EXCLUDE, none},
                       {IGMP3_CHANGE_TO_INCLUDE, none},
                       {IGMP3_MODE_IS_EXCLUDE, kGroup}}));
        EXPECT_EQ(relayed(), "J 239.1.2.3");
        const Lines lines = log.lines();
        EXPECT_EQ(std::count(lines.begin(), lines.end(),
                             "(DBG)  on_pcap_pkt: not a multicast address: " + std::string(none)),
                  2);
        feed(support::leave_frame(kGroup));
        relayed();
    }
}

TEST_F(PacketV3, fragment_with_an_offset_is_not_read)
{
    for (const uint16_t offset : {0x0001, 0x1fff, 0x2001}) {
        std::vector<uint8_t> frame = v3_frame({{IGMP3_MODE_IS_EXCLUDE, kGroup}});
        support::put16(frame, 14 + 6, offset);
        log.clear();
        log.set_level(DEBUG_level);
        feed(frame);
        EXPECT_EQ(relayed(), "");
        EXPECT_EQ(log.lines()[1], "(DBG)  on_pcap_pkt: a later fragment of an IGMPv3 report is not read");
    }
}

TEST_F(PacketV3, first_fragment_is_read_as_far_as_it_goes)
{
    std::vector<uint8_t> frame = v3_frame({{IGMP3_MODE_IS_EXCLUDE, kGroup}}, 2);
    support::put16(frame, 14 + 6, 0x2000); // more fragments
    log.set_level(WARN_level);
    feed(frame);
    EXPECT_EQ(relayed(), "J 239.1.2.3");
    EXPECT_EQ(log.lines(), Lines{cut_line(2, 2)});
}

TEST_F(PacketV3, scope_is_asked_for_each_record)
{
    g_cfg.min_group = 0xef010102;
    g_cfg.max_group = 0xef010102;
    EXPECT_EQ(after({{IGMP3_MODE_IS_EXCLUDE, "239.1.1.1"},
                     {IGMP3_MODE_IS_EXCLUDE, "239.1.1.2"},
                     {IGMP3_MODE_IS_EXCLUDE, "239.1.1.3"}}),
              "J 239.1.1.2");
}

TEST_F(PacketV3, report_is_read_though_its_count_would_be_out_of_scope_as_a_group)
{
    g_cfg.min_group = 0xe0000100;
    EXPECT_EQ(after({{IGMP3_CHANGE_TO_EXCLUDE, kGroup}}), "J 239.1.2.3");
}

TEST_F(PacketV3, debug_lines_of_a_record_in_order)
{
    g_cfg.log_level = DEBUG_level;
    log.set_level(DEBUG_level);
    feed(v3_frame({{IGMP3_MODE_IS_EXCLUDE, kGroup, 2}}));
    EXPECT_EQ(log.lines(),
              (Lines{"(DBG)  on_pcap_pkt: BEGIN", "02:00:00:00:00:02 -> 01:00:5e:01:02:03 [0800]",
                     "(DBG)  on_pcap_pkt: IGMPv3 record 1 of 1: type=2 sources=2",
                     "(DBG)  on_pcap_pkt: addr=[239.1.2.3]", "?\?/22 239.1.2.3",
                     "(DBG)  on_pcap_pkt: IGMP report msg caught on 239.1.2.3", "(DBG)  relay_msg: BEGIN",
                     "(NRM)  relay_msg: 21 bytes output: JOIN UDP://239.1.2.3", "(DBG)  relay_msg: END",
                     "(DBG)  on_pcap_pkt: END"}));
}

TEST_F(PacketV3, older_messages_go_their_usual_way)
{
    feed(report_frame(kGroup));
    feed(igmp_frame({.type = IGMP1_RPT, .group = "239.1.2.4"}));
    feed(support::leave_frame(kGroup));
    feed(support::general_query_frame());
    EXPECT_EQ(relayed(), "J 239.1.2.3,J 239.1.2.4,L 239.1.2.3");
}

TEST_F(PacketV3, without_the_feature_other_features_leave_version_3_alone)
{
    g_cfg.features = {.any = true, .exact = true, .immediate = true, .igmpv3 = false, .expire = 0};
    log.set_level(DEBUG_level);
    EXPECT_EQ(after({{IGMP3_MODE_IS_EXCLUDE, kGroup}}), "");
    EXPECT_EQ(log.lines()[2], "(DBG)  on_pcap_pkt: not a multicast address: 0.0.0.1");
}

TEST_F(PacketV3, with_exact_a_message_of_no_group_is_dropped_before_the_tables)
{
    g_cfg.features = {.any = true, .exact = true, .immediate = false, .igmpv3 = false, .expire = 0};
    for (const char* none : {"0.0.0.0", "10.0.0.1", "223.255.255.255", "240.0.0.0"}) {
        for (const uint8_t type : {IGMP1_RPT, IGMP2_RPT, IGMP2_LEAVE, IGMP_QRY}) {
            log.clear();
            log.set_level(DEBUG_level);
            feed(igmp_frame({.type = type, .group = none}));
            EXPECT_EQ(log.lines(), (Lines{"(DBG)  on_pcap_pkt: BEGIN",
                                          std::string("(DBG)  on_pcap_pkt: addr=[") + none + "]",
                                          std::string("(DBG)  on_pcap_pkt: not a multicast address: ") + none,
                                          "(DBG)  on_pcap_pkt: END"}));
        }
    }
    EXPECT_EQ(relayed(), "");
    for (const char* group : {"224.0.0.0", "224.0.0.1", "239.255.255.255"}) {
        feed(report_frame(group));
        EXPECT_EQ(relayed(), std::string("J ") + group);
    }
}

// The same rounds lose groups without the feature: the chains' order is no total one for such keys.
TEST_F(PacketV3, exact_keeps_5000_groups_of_all_last_octets_apart_where_the_usual_tables_lose_some)
{
    const auto round = [&](uint8_t type) {
        for (unsigned n = 0; n < 5000; ++n) {
            feed(igmp_frame(
                {.type = type, .group = "239.7." + std::to_string(n / 250) + "." + std::to_string(n % 250)}));
        }
        const std::string lines = relayed();
        return lines.empty() ? 0 : std::count(lines.begin(), lines.end(), ',') + 1;
    };
    g_cfg.features = {.any = true, .exact = true, .immediate = false, .igmpv3 = false, .expire = 0};
    EXPECT_EQ(round(IGMP2_RPT), 5000);
    EXPECT_EQ(round(IGMP2_RPT), 0);
    EXPECT_EQ(round(IGMP2_LEAVE), 5000);
    EXPECT_EQ(nkht_count(g_ctx.wgrp_ht), 0U);
    g_cfg.features = {};
    EXPECT_EQ(round(IGMP2_RPT), 5000);
    EXPECT_GT(round(IGMP2_RPT), 0);
}
