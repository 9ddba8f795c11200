// The packet's way from the frame to the relay line, on byte arrays.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <malloc.h>
#include <memory>

#include "child.h"
#include "frames.h"
#include "log.h"
#include "running_agent.h"
#include "text.h"
#include "util.h"
#include "zent.h"

using support::expect_abort;
using support::FrameSpec;
using support::igmp_frame;
using support::leave_frame;
using support::Lines;
using support::report_frame;

namespace {

class Packet : public RunningAgent {
  protected:
    static void feed(const std::vector<uint8_t>& frame) { RunningAgent::feed(frame, 60); }

    static void feed_spec(const FrameSpec& spec) { feed(igmp_frame(spec)); }

    std::string relayed() { return all_relayed(); }

    static size_t joined() { return nkht_count(g_ctx.wgrp_ht); }
};

// A stream that notes each line written to it by one letter.
FILE* noting_stream(const char* letter, cookie_write_function_t* note)
{
    FILE* fp = fopencookie(const_cast<char*>(letter), "w", {nullptr, note, nullptr, nullptr});
    setvbuf(fp, nullptr, _IOLBF, 0);
    return fp;
}

std::string g_noted;

ssize_t note(void* letter, const char*, size_t size)
{
    g_noted += static_cast<const char*>(letter);
    return static_cast<ssize_t>(size);
}

const std::string kBegin = "(DBG)  on_pcap_pkt: BEGIN";
const std::string kEnd = "(DBG)  on_pcap_pkt: END";

} // namespace

TEST_F(Packet, first_report_of_a_group_is_a_join)
{
    feed(report_frame("239.1.2.3"));
    EXPECT_EQ(relayed(), "JOIN UDP://239.1.2.3\n");
    EXPECT_EQ(joined(), 1U);
}

TEST_F(Packet, version_1_report_is_a_join_too)
{
    feed_spec({.type = IGMP1_RPT});
    EXPECT_EQ(relayed(), "JOIN UDP://239.1.2.3\n");
}

TEST_F(Packet, second_report_from_any_host_prints_nothing)
{
    feed(report_frame("239.1.2.3"));
    const std::string before = log.text();
    feed(report_frame("239.1.2.3"));
    auto from_another = report_frame("239.1.2.3");
    from_another[14 + 15] = 77;
    feed(from_another);
    feed_spec({.type = IGMP1_RPT});
    EXPECT_EQ(relayed(), "JOIN UDP://239.1.2.3\n");
    EXPECT_EQ(log.text(), before);
    EXPECT_EQ(joined(), 1U);
}

TEST_F(Packet, with_expire_a_group_that_was_left_keeps_no_memory)
{
    g_cfg.features.any = true;
    g_cfg.features.expire = 260;
    log.set_level(ERR_level);
    FILE* const lines = g_ctx.rep.fp;
    g_ctx.rep.fp = fopen("/dev/null", "w");
    const auto join_and_leave = [] {
        feed(report_frame("239.1.2.3"));
        feed(leave_frame("239.1.2.3"));
    };
    join_and_leave(); // the stream's buffer is made here
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i) {
        join_and_leave();
    }
    EXPECT_EQ(mallinfo2().uordblks, before);
    fclose(g_ctx.rep.fp);
    g_ctx.rep.fp = lines;
}

TEST_F(Packet, leave_of_a_group_not_joined_passes_in_silence)
{
    feed(leave_frame("239.1.2.3"));
    EXPECT_EQ(relayed(), "");
    EXPECT_EQ(log.text(), "");
}

TEST_F(Packet, kept_leave_ends_a_group_with_the_first_host_that_leaves)
{
    feed(report_frame("239.1.2.3"));
    feed(report_frame("239.1.2.3"));
    feed(leave_frame("239.1.2.3"));
    feed(leave_frame("239.1.2.3"));
    EXPECT_EQ(relayed(), "JOIN UDP://239.1.2.3\nLEAVE UDP://239.1.2.3\n");
    EXPECT_EQ(joined(), 0U);
}

TEST_F(Packet, report_after_a_leave_is_a_new_join)
{
    feed(report_frame("239.1.2.3"));
    feed(leave_frame("239.1.2.3"));
    feed(report_frame("239.1.2.3"));
    EXPECT_EQ(relayed(), "JOIN UDP://239.1.2.3\nLEAVE UDP://239.1.2.3\nJOIN UDP://239.1.2.3\n");
}

TEST_F(Packet, groups_are_kept_apart)
{
    for (int i = 0; i < 100; ++i) {
        feed(report_frame("239.1." + std::to_string(i) + ".7"));
    }
    EXPECT_EQ(joined(), 100U);
    feed(leave_frame("239.1.50.7"));
    feed(report_frame("239.1.51.7"));
    EXPECT_EQ(joined(), 99U);
    EXPECT_EQ(relayed().substr(100 * std::string("JOIN UDP://239.1.xx.7\n").size() - 10),
              "LEAVE UDP://239.1.50.7\n");
}

TEST_F(Packet, every_octet_is_printed_as_inet_ntoa_does)
{
    for (const char* group :
         {"224.0.0.1", "239.255.255.250", "232.10.100.99", "225.9.19.109", "230.200.0.10"}) {
        in_addr addr;
        inet_aton(group, &addr);
        EXPECT_STREQ(group_text(static_cast<int32_t>(addr.s_addr)), group);
    }
    EXPECT_STREQ(group_text(0), "0.0.0.0");
    EXPECT_STREQ(group_text(-1), "255.255.255.255");
}

TEST_F(Packet, queries_and_unknown_types_are_ignored)
{
    for (const int type : {17, 34, 0, 19, 21, 24, 255}) {
        feed_spec({.type = static_cast<uint8_t>(type)});
    }
    EXPECT_EQ(relayed(), "");
    EXPECT_EQ(joined(), 0U);
}

TEST_F(Packet, igmp3_report_never_gives_a_line_and_its_dump_says_unknown)
{
    g_cfg.log_level = DEBUG_level;
    feed_spec({.type = 34});
    EXPECT_EQ(relayed(), "");
    EXPECT_EQ(log.text(), "02:00:00:00:00:02 -> 01:00:5e:01:02:03 [0800]\n?\?/22 239.1.2.3\n");
}

TEST_F(Packet, each_dump_goes_to_the_mirror_before_the_log)
{
    g_cfg.log_level = DEBUG_level;
    log.set_level(ERR_level);
    FILE* own = noting_stream("l", note);
    FILE* mirror = noting_stream("m", note);
    log_default(&g_log, own);
    log_mirror(&g_log, mirror);
    g_noted.clear();
    feed(report_frame("239.1.2.3"));
    EXPECT_EQ(g_noted, "mlml");
    fclose(mirror);
    fclose(own);
}

TEST_F(Packet, dumps_go_to_mirror_and_log_and_are_not_counted)
{
    g_cfg.log_level = DEBUG_level;
    log.set_level(ERR_level);
    char* mirrored = nullptr;
    size_t length = 0;
    FILE* mirror = open_memstream(&mirrored, &length);
    log_mirror(&g_log, mirror);
    feed(report_frame("239.1.2.3"));
    fclose(mirror);
    const std::string dumps = "02:00:00:00:00:02 -> 01:00:5e:01:02:03 [0800]\nv2-report/16 239.1.2.3\n";
    EXPECT_EQ(std::string(mirrored, length), dumps);
    EXPECT_EQ(log.text(), dumps);
    EXPECT_EQ(g_log.total_out, 0U);
    free(mirrored);
}

TEST_F(Packet, dump_shows_each_octet_of_both_addresses_in_its_place)
{
    g_cfg.log_level = DEBUG_level;
    log.set_level(ERR_level);
    auto frame = report_frame("239.1.2.3");
    const uint8_t addresses[] = {0x01, 0x00, 0x5e, 0x21, 0x32, 0x43, 0x52, 0x64, 0x75, 0x86, 0x97, 0xa8};
    std::copy(std::begin(addresses), std::end(addresses), frame.begin());
    feed(frame);
    EXPECT_EQ(log.lines()[0], "52:64:75:86:97:a8 -> 01:00:5e:21:32:43 [0800]");
}

TEST_F(Packet, no_dumps_below_debug_level)
{
    g_cfg.log_level = INFO_level;
    log.set_level(ERR_level);
    feed(report_frame("239.1.2.3"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(Packet, types_are_dumped_by_name)
{
    EXPECT_STREQ(igmp_type_str(IGMP_QRY), "query");
    EXPECT_STREQ(igmp_type_str(IGMP1_RPT), "v1-report");
    EXPECT_STREQ(igmp_type_str(IGMP2_RPT), "v2-report");
    EXPECT_STREQ(igmp_type_str(IGMP2_LEAVE), "leave");
    EXPECT_STREQ(igmp_type_str(34), "??");
    EXPECT_STREQ(igmp_type_str(0x0116), "??");
}

TEST_F(Packet, debug_lines_of_a_report_in_order)
{
    log.set_level(DEBUG_level);
    feed(report_frame("239.1.2.3"));
    EXPECT_EQ(
        log.lines(),
        (Lines{kBegin, "(DBG)  on_pcap_pkt: addr=[239.1.2.3]",
               "(DBG)  on_pcap_pkt: IGMP report msg caught on 239.1.2.3", "(DBG)  relay_msg: BEGIN",
               "(NRM)  relay_msg: 21 bytes output: JOIN UDP://239.1.2.3", "(DBG)  relay_msg: END", kEnd}));
}

TEST_F(Packet, debug_lines_of_a_leave_in_order)
{
    feed(report_frame("239.1.2.3"));
    log.clear();
    log.set_level(DEBUG_level);
    feed(leave_frame("239.1.2.3"));
    EXPECT_EQ(
        log.lines(),
        (Lines{kBegin, "(DBG)  on_pcap_pkt: addr=[239.1.2.3]",
               "(DBG)  on_pcap_pkt: IGMP LEAVE msg caught on 239.1.2.3", "(DBG)  relay_msg: BEGIN",
               "(NRM)  relay_msg: 22 bytes output: LEAVE UDP://239.1.2.3", "(DBG)  relay_msg: END", kEnd}));
}

TEST_F(Packet, frames_of_up_to_33_bytes_are_too_small)
{
    for (size_t length = 0; length <= 33; ++length) {
        log.clear();
        log.set_level(DEBUG_level);
        auto frame = report_frame("239.1.2.3");
        frame.resize(length);
        feed(frame);
        EXPECT_EQ(
            log.lines(),
            (Lines{kBegin, "(ERR)  on_pcap_pkt: packet is too small: " + std::to_string(length) + " bytes",
                   kEnd}));
    }
    EXPECT_EQ(relayed(), "");
}

TEST_F(Packet, every_captured_length_from_14_to_90)
{
    for (size_t length = 14; length <= 90; ++length) {
        log.clear();
        FrameSpec spec{.cut = length, .padded = length};
        const std::string before = relayed();
        // 34 to 38 bytes hold no group at all, 39 and 40 half a one: the rest reads as zero. A report of
        // 0.0.0.0 ends the process, so a leave stands for it.
        if (length < 42) {
            spec.type = IGMP2_LEAVE;
        }
        feed_spec(spec);
        if (length >= 42) {
            feed_spec({.type = IGMP2_LEAVE, .cut = length, .padded = length});
            EXPECT_EQ(relayed().substr(before.size()), "JOIN UDP://239.1.2.3\nLEAVE UDP://239.1.2.3\n")
                << length;
        } else {
            EXPECT_EQ(relayed(), before) << length;
        }
        EXPECT_EQ(log.text().find("too small") != std::string::npos, length < 34) << length;
    }
}

TEST_F(Packet, frame_of_34_to_41_bytes_is_still_parsed)
{
    feed_spec({.group = "239.0.0.0", .cut = 39});
    EXPECT_EQ(relayed(), "JOIN UDP://239.0.0.0\n");
    feed_spec({.group = "239.7.0.0", .cut = 40});
    feed_spec({.group = "239.7.8.0", .cut = 41});
    EXPECT_EQ(relayed(), "JOIN UDP://239.0.0.0\nJOIN UDP://239.7.0.0\nJOIN UDP://239.7.8.0\n");
    for (size_t length = 34; length <= 38; ++length) {
        log.clear();
        log.set_level(DEBUG_level);
        feed_spec({.type = IGMP2_LEAVE, .cut = length});
        EXPECT_EQ(log.lines()[1], "(DBG)  on_pcap_pkt: addr=[0.0.0.0]");
    }
}

TEST_F(Packet, ip_options_are_honoured)
{
    for (uint8_t ihl = 5; ihl <= 15; ++ihl) {
        const std::string group = "239.1.1." + std::to_string(ihl);
        const std::string before = relayed();
        feed_spec({.group = group, .ihl = ihl});
        EXPECT_EQ(relayed(), before + "JOIN UDP://" + group + "\n");
    }
}

TEST_F(Packet, kept_header_length_below_the_fixed_part_is_taken_as_it_is)
{
    // With a length of 0 the message is read from the IP header itself: its first byte 0x40 is no IGMP type.
    for (uint8_t ihl = 0; ihl < 5; ++ihl) {
        feed_spec({.ihl = ihl});
    }
    EXPECT_EQ(relayed(), "");
    // Length 4: the message would begin at byte 16 of the IP header, which is the destination address.
    auto frame = igmp_frame({.group = "22.0.0.0", .ihl = 4});
    frame[14 + 20] = 239;
    frame[14 + 21] = 9;
    frame[14 + 22] = 8;
    frame[14 + 23] = 7;
    feed(frame);
    EXPECT_EQ(relayed(), "JOIN UDP://239.9.8.7\n");
}

TEST_F(Packet, header_length_beyond_the_frame_reads_zeros)
{
    log.set_level(DEBUG_level);
    auto frame = report_frame("239.1.2.3");
    frame[14] = 0x4f;
    feed(frame);
    EXPECT_EQ(log.lines(), (Lines{kBegin, "(DBG)  on_pcap_pkt: addr=[0.0.0.0]", kEnd}));
    EXPECT_EQ(relayed(), "");
}

TEST_F(Packet, ether_type_other_than_ip_is_an_error_and_shown_as_it_stands_in_memory)
{
    log.set_level(DEBUG_level);
    feed_spec({.ether_type = 0x86dd});
    EXPECT_EQ(log.lines(), (Lines{kBegin, "(ERR)  on_pcap_pkt: got non-IP packet: type=dd86", kEnd}));
    log.clear();
    feed_spec({.ether_type = 0x0008});
    EXPECT_EQ(log.lines(), (Lines{kBegin, "(ERR)  on_pcap_pkt: got non-IP packet: type=800", kEnd}));
    EXPECT_EQ(relayed(), "");
}

TEST_F(Packet, ip_version_other_than_4_is_an_error)
{
    for (uint8_t version = 0; version < 16; ++version) {
        if (version == 4) {
            continue;
        }
        log.clear();
        feed_spec({.version = version});
        char line[64];
        snprintf(line, sizeof line, "(ERR)  on_pcap_pkt: non-IPv4: %x", version);
        EXPECT_EQ(log.lines(), Lines{line});
    }
    EXPECT_EQ(relayed(), "");
}

TEST_F(Packet, protocol_other_than_igmp_is_an_error)
{
    feed_spec({.protocol = 17});
    feed_spec({.protocol = 255});
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  on_pcap_pkt: proto=17 - non-IGMP packet",
                                  "(ERR)  on_pcap_pkt: proto=255 - non-IGMP packet"}));
}

TEST_F(Packet, checksums_are_not_verified)
{
    auto frame = report_frame("239.1.2.3");
    frame[14 + 10] ^= 0xff;
    frame[14 + 22] ^= 0xff;
    feed(frame);
    EXPECT_EQ(relayed(), "JOIN UDP://239.1.2.3\n");
}

TEST_F(Packet, kept_report_of_the_zero_group_aborts_the_process)
{
    expect_abort("Assertion `tbl != nullptr && key != nullptr' failed",
                 [] { feed(report_frame("0.0.0.0")); });
}

TEST_F(Packet, leave_of_the_zero_group_is_just_not_found)
{
    feed(leave_frame("0.0.0.0"));
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(relayed(), "");
}

TEST_F(Packet, report_of_the_zero_group_out_of_scope_does_no_harm)
{
    g_cfg.min_group = 0xe0000001;
    feed(report_frame("0.0.0.0"));
    EXPECT_EQ(relayed(), "");
}

TEST_F(Packet, kept_general_query_is_asked_for_scope_before_its_type)
{
    g_cfg.min_group = 0xe0000001;
    log.set_level(DEBUG_level);
    feed_spec({.type = IGMP_QRY, .group = "0.0.0.0"});
    EXPECT_EQ(log.lines(), (Lines{kBegin, "(DBG)  on_pcap_pkt: addr=[0.0.0.0]",
                                  "(DBG)  on_pcap_pkt: address out of scope: 0.0.0.0", kEnd}));
}

TEST_F(Packet, out_of_scope_group_is_neither_reported_nor_dumped)
{
    g_cfg.min_group = 0xefffffff;
    g_cfg.log_level = DEBUG_level;
    log.set_level(ERR_level);
    feed(report_frame("239.1.2.3"));
    EXPECT_EQ(relayed(), "");
    EXPECT_EQ(log.text(), "02:00:00:00:00:02 -> 01:00:5e:01:02:03 [0800]\n");
}

TEST_F(Packet, failed_add_is_one_error_line_and_no_relay_line)
{
    nkht_t table = g_ctx.wgrp_ht;
    // A table without slots answers EINVAL to both.
    size_t* rlen = reinterpret_cast<size_t*>(table) + 2;
    const size_t saved = *rlen;
    *rlen = 0;
    feed(report_frame("239.1.2.3"));
    feed(leave_frame("239.1.2.3"));
    *rlen = saved;
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  on_pcap_pkt: error adding group 30201ef",
                                  "(ERR)  on_pcap_pkt: error removing group 30201ef"}));
    EXPECT_EQ(relayed(), "");
}

TEST_F(Packet, kept_descriptor_zero_counts_as_no_sink)
{
    FILE* sink = g_ctx.rep.fp;
    for (const int fd : {-1, 0}) {
        g_ctx.rep.fp = nullptr;
        g_ctx.rep.sockfd = fd;
        log.clear();
        log.set_level(DEBUG_level);
        relay_msg("JOIN UDP://%s\n", "239.1.2.3");
        EXPECT_EQ(log.lines(), Lines{"(DBG)  relay_msg: BEGIN"});
    }
    g_ctx.rep.fp = sink;
}

TEST_F(Packet, line_longer_than_its_buffer_is_refused)
{
    relay_msg("%s", std::string(128, 'x').c_str());
    relay_msg("%s", "");
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  relay_msg: not enough buffer space",
                                  "(ERR)  relay_msg: not enough buffer space"}));
    EXPECT_EQ(relayed(), "");
}

TEST_F(Packet, line_of_one_character_goes)
{
    relay_msg("%s", "x");
    EXPECT_EQ(relayed(), "x");
    EXPECT_EQ(log.lines(), Lines{"(NRM)  relay_msg: 1 bytes output: x"});
}

TEST_F(Packet, kept_line_of_127_characters_passes_cut_by_one)
{
    relay_msg("%s", std::string(127, 'x').c_str());
    EXPECT_EQ(relayed(), std::string(126, 'x'));
}

TEST_F(Packet, idle_turn_is_logged_at_most_every_five_seconds)
{
    log.set_level(DEBUG_level);
    EXPECT_EQ(on_idle(), 0);
    EXPECT_EQ(on_idle(), 0);
    EXPECT_EQ(log.lines(), Lines{"(DBG)  on_idle: doing nothing"});
}

TEST_F(Packet, quit_handler_writes_the_signal_and_keeps_errno)
{
    const auto result = support::run_in_child([] {
        g_ctx.handle = nullptr;
        errno = EXDEV;
        handle_qsig(SIGTERM);
        handle_qsig(SIGINT);
        return errno == EXDEV && g_quit == 1 && g_sigctx == 0 ? 0 : 1;
    });
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err, "\nSIG(15)\n\nSIG(2)\n");
}
