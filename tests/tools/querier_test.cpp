// The querier's machine on a stepped clock, and the reading of frames.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frames.h"
#include "group.h"
#include "querier.h"
#include "segment.h"
#include "sender.h"
#include "text.h"

using namespace support;

namespace {

using zentctl::Kind;
using zentctl::Message;
using zentctl::Querier;
using zentctl::Query;

uint32_t address(const char* text)
{
    return *zentctl::parse_address(text);
}

Message query_from(const char* source, int version = 2)
{
    Message message;
    message.kind = Kind::query;
    message.version = version;
    message.source = address(source);
    return message;
}

Message leave_of(const char* group, const char* source = "10.0.0.7")
{
    Message message;
    message.kind = Kind::leave;
    message.version = 2;
    message.source = address(source);
    message.sayings.push_back({Kind::leave, address(group)});
    return message;
}

// A querier with 10.0.0.5 and an interval of 100 s, started at 1000 ms.
class QuerierTest : public testing::Test {
  protected:
    // Everything sent up to a time, as "TIME GROUP RESPONSE", asked exactly when the machine wants to be
    // asked.
    std::vector<std::string> sent_until(int64_t ms)
    {
        std::vector<std::string> result;
        while (querier_.next_ms() <= ms) {
            const int64_t now = std::max(querier_.next_ms(), now_);
            now_ = now;
            for (const Query& query : querier_.due(now)) {
                result.push_back(std::to_string(now) + " " + zentctl::address_text(query.group) + " " +
                                 std::to_string(query.response));
            }
        }
        now_ = ms;
        return result;
    }

    int64_t now_ = 1000;
    Querier querier_{address("10.0.0.5"), 100'000, 1000};
};

} // namespace

TEST_F(QuerierTest, starts_with_two_queries_a_quarter_of_the_interval_apart)
{
    EXPECT_EQ(sent_until(300'000),
              (Lines{"1000 0.0.0.0 100", "26000 0.0.0.0 100", "126000 0.0.0.0 100", "226000 0.0.0.0 100"}));
}

TEST_F(QuerierTest, asks_twice_for_a_group_that_was_left)
{
    sent_until(2000);
    querier_.hear(leave_of("239.1.2.3"), 2500);
    EXPECT_EQ(sent_until(20'000), (Lines{"2500 239.1.2.3 10", "3500 239.1.2.3 10"}));
    EXPECT_EQ(querier_.news(), Lines{"10.0.0.7 leaves 239.1.2.3: asking for other members"});
}

TEST_F(QuerierTest, a_second_leave_meanwhile_starts_nothing_new)
{
    sent_until(2000);
    querier_.hear(leave_of("239.1.2.3"), 2500);
    EXPECT_EQ(sent_until(3000), Lines{"2500 239.1.2.3 10"});
    querier_.hear(leave_of("239.1.2.3"), 3000);
    EXPECT_EQ(sent_until(20'000), Lines{"3500 239.1.2.3 10"});
}

TEST_F(QuerierTest, never_asks_for_groups_of_the_link_or_what_is_no_group)
{
    sent_until(2000);
    for (const char* group : {"224.0.0.22", "0.0.0.0", "10.0.0.1", "255.255.255.255"}) {
        querier_.hear(leave_of(group), 2500);
    }
    EXPECT_EQ(sent_until(20'000), Lines{});
}

TEST_F(QuerierTest, a_flood_of_leaves_is_bounded)
{
    sent_until(2000);
    Message message = leave_of("239.0.0.1");
    for (uint32_t i = 0; i < 5000; ++i) {
        message.sayings[0].group = address("239.0.0.1") + i;
        querier_.hear(message, 2500);
    }
    EXPECT_EQ(sent_until(20'000).size(), 2000U);
}

TEST_F(QuerierTest, is_quiet_while_a_lower_address_queries)
{
    sent_until(2000);
    querier_.hear(query_from("10.0.0.4"), 10'000);
    EXPECT_FALSE(querier_.is_elected());
    EXPECT_EQ(querier_.news(), Lines{"quiet: 10.0.0.4 queries and has the lower address"});
    querier_.hear(leave_of("239.1.2.3"), 11'000);
    EXPECT_EQ(sent_until(200'000), Lines{});
    querier_.hear(query_from("10.0.0.4"), 200'000);
    EXPECT_EQ(querier_.news(), Lines{});
    EXPECT_EQ(sent_until(404'999), Lines{}); // 200 s and two intervals and 5 s
}

TEST_F(QuerierTest, is_back_after_two_intervals_and_5_s)
{
    sent_until(30'000);
    querier_.hear(query_from("10.0.0.4"), 40'000);
    querier_.news();
    EXPECT_EQ(sent_until(350'000), (Lines{"245000 0.0.0.0 100", "345000 0.0.0.0 100"}));
    EXPECT_EQ(querier_.news(), Lines{"querier again: nothing was heard of 10.0.0.4"});
    EXPECT_TRUE(querier_.is_elected());
}

TEST_F(QuerierTest, forgets_the_groups_that_it_asked_for_when_it_goes_quiet)
{
    sent_until(2000);
    querier_.hear(leave_of("239.1.2.3"), 2500);
    querier_.hear(query_from("10.0.0.4"), 2600);
    EXPECT_EQ(sent_until(100'000), Lines{});
}

TEST_F(QuerierTest, a_higher_address_its_own_and_none_change_nothing)
{
    for (const char* source : {"10.0.0.6", "10.0.0.5", "0.0.0.0"}) {
        querier_.hear(query_from(source), 1500);
        EXPECT_TRUE(querier_.is_elected()) << source;
    }
    EXPECT_EQ(querier_.news(), Lines{});
}

TEST_F(QuerierTest, tells_of_a_version_3_querier_once)
{
    querier_.hear(query_from("10.0.0.6", 3), 1500);
    querier_.hear(query_from("10.0.0.6", 3), 1600);
    EXPECT_EQ(querier_.news(), Lines{"10.0.0.6 queries with version 3: two versions on one segment"});
    EXPECT_TRUE(querier_.is_elected());
}

TEST_F(QuerierTest, does_not_hear_another_vlan)
{
    Message message = query_from("10.0.0.4");
    message.is_tagged = true;
    querier_.hear(message, 1500);
    EXPECT_TRUE(querier_.is_elected());
}

TEST(QueryBytes, are_those_of_rfc_2236)
{
    using Bytes = std::array<uint8_t, 8>;
    EXPECT_EQ(zentctl::query_bytes({0, 100}), (Bytes{0x11, 0x64, 0xee, 0x9b, 0, 0, 0, 0}));
    EXPECT_EQ(zentctl::query_bytes({address("239.1.2.3"), 10}),
              (Bytes{0x11, 0x0a, 0xfd, 0xf0, 0xef, 1, 2, 3}));
}

namespace {

// A version 3 message behind Ethernet and IPv4, with its checksum.
std::vector<uint8_t> frame_of(std::vector<uint8_t> igmp)
{
    const uint16_t sum = zentctl::checksum(igmp);
    igmp[2] = static_cast<uint8_t>(sum >> 8);
    igmp[3] = static_cast<uint8_t>(sum);
    std::vector<uint8_t> frame = igmp_frame({});
    frame.resize(14 + 20);
    frame[17] = static_cast<uint8_t>(20 + igmp.size());
    frame.insert(frame.end(), igmp.begin(), igmp.end());
    return frame;
}

// "KIND GROUP", one for each thing that the message says.
std::string said(const std::vector<uint8_t>& frame)
{
    const auto message = zentctl::read_frame(frame);
    if (!message) {
        return "nothing";
    }
    std::string text = "v" + std::to_string(message->version);
    for (const zentctl::Saying& saying : message->sayings) {
        text += (saying.kind == Kind::leave ? " leave " : " report ") + zentctl::address_text(saying.group);
    }
    return text;
}

std::vector<uint8_t> record(uint8_t type, uint8_t sources, uint8_t last_octet, uint8_t aux_words = 0)
{
    std::vector<uint8_t> bytes{type, aux_words, 0, sources, 239, 1, 1, last_octet};
    bytes.resize(bytes.size() + size_t{4} * sources + size_t{4} * aux_words, 0x0a);
    return bytes;
}

std::vector<uint8_t> report3(const std::vector<std::vector<uint8_t>>& records)
{
    std::vector<uint8_t> igmp{0x22, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(records.size())};
    for (const auto& one : records) {
        igmp.insert(igmp.end(), one.begin(), one.end());
    }
    return igmp;
}

} // namespace

TEST(Segment, reads_reports_and_leaves_of_versions_1_and_2)
{
    EXPECT_EQ(said(igmp_frame({.type = 18})), "v1 report 239.1.2.3");
    EXPECT_EQ(said(report_frame("239.1.2.3")), "v2 report 239.1.2.3");
    EXPECT_EQ(said(leave_frame("239.1.2.3")), "v2 leave 239.1.2.3");
    EXPECT_EQ(said(igmp_frame({.ihl = 6})), "v2 report 239.1.2.3");
}

TEST(Segment, tells_the_versions_of_queries)
{
    auto frame = igmp_frame({.type = 17, .group = "0.0.0.0"});
    EXPECT_EQ(zentctl::read_frame(frame)->version, 1);
    EXPECT_EQ(zentctl::read_frame(frame_of({0x11, 100, 0, 0, 0, 0, 0, 0}))->version, 2);
    const auto third = zentctl::read_frame(frame_of({0x11, 100, 0, 0, 0, 0, 0, 0, 2, 125, 0, 0}));
    EXPECT_EQ(third->version, 3);
    EXPECT_EQ(third->seconds, 125U);
    EXPECT_EQ(zentctl::address_text(third->source), "10.0.0.2");
    EXPECT_EQ(zentctl::read_frame(frame_of({0x11, 100, 0, 0, 0, 0, 0, 0, 2, 0x8f, 0, 0}))->seconds, 248U);
}

TEST(Segment, reads_version_3_record_by_record)
{
    EXPECT_EQ(said(frame_of(report3({record(1, 0, 1), record(1, 1, 2), record(2, 0, 3), record(2, 2, 4),
                                     record(3, 0, 5), record(3, 1, 6), record(4, 0, 7), record(5, 0, 8),
                                     record(5, 1, 9), record(6, 1, 10), record(7, 1, 11)}))),
              "v3 report 239.1.1.2 report 239.1.1.3 report 239.1.1.4 leave 239.1.1.5 report 239.1.1.6 report "
              "239.1.1.7 report 239.1.1.9");
    EXPECT_EQ(said(frame_of(report3({record(2, 0, 1, 3), record(2, 0, 2)}))),
              "v3 report 239.1.1.1 report 239.1.1.2");
}

TEST(Segment, a_record_that_does_not_fit_ends_the_walk)
{
    auto igmp = report3({record(2, 0, 1), record(2, 1, 2)});
    for (size_t cut = 1; cut <= 12; ++cut) {
        EXPECT_EQ(said(frame_of({igmp.begin(), igmp.end() - static_cast<ptrdiff_t>(cut)})),
                  "v3 report 239.1.1.1");
    }
    igmp[6] = igmp[7] = 0xff; // a count of 65535
    EXPECT_EQ(said(frame_of(igmp)), "v3 report 239.1.1.1 report 239.1.1.2");
}

TEST(Segment, sees_vlan_tags)
{
    auto frame = report_frame("239.1.2.3");
    frame.insert(frame.begin() + 12, {0x81, 0x00, 0x00, 0x05});
    EXPECT_TRUE(zentctl::read_frame(frame)->is_tagged);
    EXPECT_EQ(said(frame), "v2 report 239.1.2.3");
    frame.insert(frame.begin() + 12, {0x88, 0xa8, 0x00, 0x06});
    EXPECT_EQ(said(frame), "v2 report 239.1.2.3");
}

TEST(Segment, what_is_not_sound_says_nothing)
{
    const auto whole = report_frame("239.1.2.3");
    for (size_t length = 0; length < whole.size(); ++length) {
        EXPECT_EQ(said({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)}), "nothing") << length;
    }
    EXPECT_EQ(said(igmp_frame({.ether_type = 0x86dd})), "nothing");
    EXPECT_EQ(said(igmp_frame({.version = 6})), "nothing");
    EXPECT_EQ(said(igmp_frame({.ihl = 4})), "nothing");
    EXPECT_EQ(said(igmp_frame({.protocol = 17})), "nothing");
    EXPECT_EQ(said(igmp_frame({.type = 0x13})), "nothing");
    auto fragment = whole;
    fragment[21] = 1;
    EXPECT_EQ(said(fragment), "nothing");
    auto damaged = whole;
    damaged.back() ^= 1;
    EXPECT_EQ(said(damaged), "nothing");
}
