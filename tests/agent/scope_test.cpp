// Which groups are in scope: the range, the list, and the list's file.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

#include "agent_test.h"
#include "child.h"
#include "fds.h"
#include "frames.h"
#include "log.h"
#include "oom.h"
#include "tempdir.h"
#include "text.h"

using support::expect_abort;
using support::FailAllocation;
using support::FdGuard;
using support::Lines;

namespace {

int32_t net(const std::string& text)
{
    in_addr addr;
    inet_aton(text.c_str(), &addr);
    return static_cast<int32_t>(addr.s_addr);
}

uint32_t host(const std::string& text)
{
    return ntohl(static_cast<uint32_t>(net(text)));
}

class Scope : public support::AgentTest {
  protected:
    void TearDown() override
    {
        if (g_ctx.scope_ht != 0) {
            nkht_destroy(g_ctx.scope_ht, nullptr);
        }
    }

    int load(const std::string& text)
    {
        dir_.write("list", text);
        const FdGuard fds;
        return load_group_list(path_.c_str());
    }

    // Loads a list that must be refused with one line, and leave the scope as it was.
    void expect_refused(const std::string& text, const std::string& line)
    {
        const nkht_t before = g_ctx.scope_ht;
        log.clear();
        EXPECT_EQ(load(text), -1) << text;
        EXPECT_EQ(log.lines(), Lines{"(ERR)  load_group_list: [" + path_ + "]" + line});
        EXPECT_EQ(g_ctx.scope_ht, before);
    }

    const support::TempDir dir_;
    const std::string path_ = dir_.path("list");
};

} // namespace

TEST_F(Scope, without_range_and_list_everything_is_in_scope)
{
    for (const char* group : {"0.0.0.0", "10.1.1.1", "224.0.0.1", "239.255.255.255", "255.255.255.255"}) {
        EXPECT_TRUE(in_scope(net(group))) << group;
    }
}

TEST_F(Scope, lower_bound_alone_cuts_below)
{
    g_cfg.min_group = host("239.0.0.0");
    EXPECT_TRUE(in_scope(net("239.0.0.0")));
    EXPECT_TRUE(in_scope(net("239.255.255.255")));
    EXPECT_TRUE(in_scope(net("255.255.255.255")));
    EXPECT_FALSE(in_scope(net("238.255.255.255")));
    EXPECT_FALSE(in_scope(net("224.0.0.1")));
    EXPECT_FALSE(in_scope(net("0.0.0.0")));
}

TEST_F(Scope, kept_upper_bound_alone_reaches_below_multicast)
{
    g_cfg.max_group = host("239.0.0.0");
    EXPECT_TRUE(in_scope(net("239.0.0.0")));
    EXPECT_TRUE(in_scope(net("10.0.0.1")));
    EXPECT_TRUE(in_scope(net("0.0.0.0")));
    EXPECT_FALSE(in_scope(net("239.0.0.1")));
}

TEST_F(Scope, both_bounds_are_inclusive)
{
    g_cfg.min_group = host("239.1.0.0");
    g_cfg.max_group = host("239.2.0.0");
    EXPECT_FALSE(in_scope(net("239.0.255.255")));
    EXPECT_TRUE(in_scope(net("239.1.0.0")));
    EXPECT_TRUE(in_scope(net("239.2.0.0")));
    EXPECT_FALSE(in_scope(net("239.2.0.1")));
    EXPECT_FALSE(in_scope(net("0.0.0.0")));
}

TEST_F(Scope, equal_bounds_hold_one_group)
{
    g_cfg.min_group = g_cfg.max_group = host("239.1.2.3");
    EXPECT_TRUE(in_scope(net("239.1.2.3")));
    EXPECT_FALSE(in_scope(net("239.1.2.2")));
    EXPECT_FALSE(in_scope(net("239.1.2.4")));
}

TEST_F(Scope, group_outside_the_range_but_in_the_list_is_in_scope)
{
    g_cfg.min_group = host("239.1.0.0");
    g_cfg.max_group = host("239.2.0.0");
    ASSERT_EQ(load("224.5.6.7\n"), 0);
    EXPECT_TRUE(in_scope(net("239.1.5.5")));
    EXPECT_TRUE(in_scope(net("224.5.6.7")));
    EXPECT_FALSE(in_scope(net("224.5.6.8")));
}

TEST_F(Scope, list_alone_decides)
{
    ASSERT_EQ(load("239.1.1.1\n239.1.1.2\n"), 0);
    EXPECT_TRUE(in_scope(net("239.1.1.1")));
    EXPECT_TRUE(in_scope(net("239.1.1.2")));
    EXPECT_FALSE(in_scope(net("239.1.1.3")));
    EXPECT_FALSE(in_scope(net("0.0.0.0")));
}

TEST_F(Scope, kept_entry_with_a_last_octet_from_128_on_is_not_found)
{
    ASSERT_EQ(load("239.1.1.1\n239.1.1.200\n239.1.1.127\n"), 0);
    EXPECT_TRUE(in_scope(net("239.1.1.1")));
    EXPECT_TRUE(in_scope(net("239.1.1.127")));
    EXPECT_FALSE(in_scope(net("239.1.1.200")));
    EXPECT_EQ(nkht_count(g_ctx.scope_ht), 3U);
}

TEST_F(Scope, empty_file_is_a_success_and_then_nothing_is_in_scope)
{
    ASSERT_EQ(load(""), 0);
    ASSERT_NE(g_ctx.scope_ht, 0);
    EXPECT_EQ(nkht_count(g_ctx.scope_ht), 0U);
    EXPECT_FALSE(in_scope(net("239.1.1.1")));
}

TEST_F(Scope, directory_as_list_is_an_empty_list)
{
    ASSERT_EQ(load_group_list("/tmp"), 0);
    EXPECT_EQ(nkht_count(g_ctx.scope_ht), 0U);
}

TEST_F(Scope, file_without_a_newline_at_its_end_is_read_normally)
{
    ASSERT_EQ(load("239.1.1.1\n239.1.1.2"), 0);
    EXPECT_TRUE(in_scope(net("239.1.1.2")));
}

TEST_F(Scope, extra_empty_line_fails_at_that_line)
{
    expect_refused("239.1.1.1\n\n", " error parsing entry at line 2: ");
}

TEST_F(Scope, comments_are_not_known)
{
    expect_refused("# groups\n239.1.1.1\n", " error parsing entry at line 1: # groups");
}

TEST_F(Scope, cr_lf_line_ends_are_accepted)
{
    ASSERT_EQ(load("239.1.1.1\r\n239.1.1.2\n\r239.1.1.3\r\n"), -1);
    ASSERT_EQ(load("239.1.1.1\r\n239.1.1.2\r\n"), 0);
    EXPECT_TRUE(in_scope(net("239.1.1.1")));
    EXPECT_TRUE(in_scope(net("239.1.1.2")));
}

TEST_F(Scope, blank_behind_the_address_passes)
{
    ASSERT_EQ(load("239.1.1.1 \n239.1.1.2\tsecond\n"), 0);
    EXPECT_TRUE(in_scope(net("239.1.1.1")));
    EXPECT_TRUE(in_scope(net("239.1.1.2")));
}

TEST_F(Scope, repeated_address_fails_the_load)
{
    expect_refused("239.1.1.1\n239.1.1.2\n239.1.1.1\n",
                   " duplicate at line 3: (" + std::to_string(static_cast<uint32_t>(net("239.1.1.1"))) +
                       ") 239.1.1.1");
}

TEST_F(Scope, repeated_address_in_another_notation_fails_the_load)
{
    expect_refused("239.1.1.1\n0xef010101\n", " duplicate at line 2: (" +
                                                  std::to_string(static_cast<uint32_t>(net("239.1.1.1"))) +
                                                  ") 0xef010101");
}

TEST_F(Scope, non_multicast_entry_fails_the_load)
{
    expect_refused("239.1.1.1\n192.168.1.2\n239.1.1.3\n",
                   ":2 non-multicast address: (0x201a8c0) 192.168.1.2");
    expect_refused("240.0.0.0\n", ":1 non-multicast address: (0x00f0) 240.0.0.0");
}

TEST_F(Scope, failed_load_keeps_the_list_that_was_there)
{
    ASSERT_EQ(load("239.1.1.1\n"), 0);
    expect_refused("239.1.1.2\nnonsense\n", " error parsing entry at line 2: nonsense");
    EXPECT_TRUE(in_scope(net("239.1.1.1")));
    EXPECT_FALSE(in_scope(net("239.1.1.2")));
}

TEST_F(Scope, second_load_replaces_the_first)
{
    ASSERT_EQ(load("239.1.1.1\n"), 0);
    ASSERT_EQ(load("239.1.1.2\n"), 0);
    EXPECT_FALSE(in_scope(net("239.1.1.1")));
    EXPECT_TRUE(in_scope(net("239.1.1.2")));
}

TEST_F(Scope, line_of_62_characters_is_one_entry)
{
    std::string line = "239.1.1.1" + std::string(52, ' ');
    ASSERT_EQ(line.size(), 61U);
    ASSERT_EQ(load(line + "\n239.1.1.2\n"), 0);
    EXPECT_EQ(nkht_count(g_ctx.scope_ht), 2U);
}

TEST_F(Scope, longer_line_is_read_in_pieces_that_count_as_lines)
{
    // The first 62 characters are an entry, what is left of the line is the next piece.
    expect_refused("239.1.1.1" + std::string(53, ' ') + "x\n", " error parsing entry at line 2: x");
    // A line of exactly 62 characters leaves its line end for the next read.
    expect_refused("239.1.1.1" + std::string(53, ' ') + "\n", " error parsing entry at line 2: ");
    ASSERT_EQ(load("239.1.1.1" + std::string(53, ' ') + "239.1.1.2\n"), 0);
    EXPECT_EQ(nkht_count(g_ctx.scope_ht), 2U);
}

TEST_F(Scope, line_that_opens_with_a_nul_byte_is_an_empty_line)
{
    expect_refused(std::string("\0\n", 2) + "239.1.1.1\n", " error parsing entry at line 1: ");
}

TEST_F(Scope, missing_file_is_one_line)
{
    EXPECT_EQ(load_group_list("/nonexistent/list"), -1);
    EXPECT_EQ(log.lines(), Lines{"(ERR)  load_group_list: failed to open [/nonexistent/list]"});
}

TEST_F(Scope, lines_of_a_success_at_debug_level)
{
    log.set_level(DEBUG_level);
    ASSERT_EQ(load("239.1.1.1\n"), 0);
    EXPECT_EQ(log.lines(), (Lines{"(DBG)  load_group_list: [" + path_ + "]:1 added (0x10101ef) 239.1.1.1",
                                  "(DBG)  load_group_list: 1 enties added"}));
}

TEST_F(Scope, allocation_failure_at_every_point_leaves_the_scope_as_it_was)
{
    ASSERT_EQ(load("239.1.1.9\n"), 0);
    const nkht_t before = g_ctx.scope_ht;
    dir_.write("list", "239.1.1.1\n239.1.1.2\n");
    bool failed = true;
    for (size_t n = 1; failed && n < 20; ++n) {
        log.clear();
        FailAllocation fail(n);
        const int rc = load_group_list(path_.c_str());
        failed = fail.happened();
        if (!failed) {
            EXPECT_EQ(rc, 0);
            break;
        }
        EXPECT_EQ(g_ctx.scope_ht, before);
        EXPECT_EQ(rc, n <= 2 ? ENOMEM : -1) << n << log.text();
        const std::string entry = n == 3 ? "239.1.1.1" : "239.1.1.2";
        EXPECT_EQ(log.lines(), Lines{n <= 2 ? "(ERR)  load_group_list: failed to create group-scope hastable"
                                            : "(ERR)  load_group_list: [" + path_ + "] error at line " +
                                                  std::to_string(n - 2) + ": (" +
                                                  std::to_string(static_cast<uint32_t>(net(entry.c_str()))) +
                                                  ") " + entry});
    }
    EXPECT_FALSE(failed);
    EXPECT_TRUE(in_scope(net("239.1.1.2")));
}

TEST_F(Scope, large_list_is_read_whole)
{
    std::string text;
    for (int i = 0; i < 100; ++i) {
        for (int k = 0; k < 100; ++k) {
            text += "239.1." + std::to_string(i) + "." + std::to_string(k) + "\n";
        }
    }
    ASSERT_EQ(load(text), 0);
    EXPECT_EQ(nkht_count(g_ctx.scope_ht), 10000U);
    EXPECT_TRUE(in_scope(net("239.1.99.99")));
    EXPECT_FALSE(in_scope(net("239.1.99.100")));
}

TEST_F(Scope, wrong_mark_in_the_table_ends_the_process)
{
    const char* line = "(PNC)  in_scope: corrupt scope HT, got 0xcccc for key=16843247\n";
    const std::string text = expect_abort(line, [] {
        nkht_create(&g_ctx.scope_ht, 16, tw_shift);
        void* value = reinterpret_cast<void*>(0xcccc);
        nkht_add(g_ctx.scope_ht, static_cast<long>(net("239.1.1.1")), &value);
        in_scope(net("239.1.1.1"));
    });
    EXPECT_NE(text.find("Aborting at:\n#0: "), std::string::npos);
}

TEST_F(Scope, unusable_table_ends_the_process)
{
    expect_abort("(PNC)  in_scope: error(22) getting key=16843247 from scope HT\n", [] {
        nkht_create(&g_ctx.scope_ht, 16, tw_shift);
        reinterpret_cast<size_t*>(g_ctx.scope_ht)[2] = 0; // no slots
        in_scope(net("239.1.1.1"));
    });
}
