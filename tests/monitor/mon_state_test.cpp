// Who is who: the rules by which lines become agents, flows and groups.
#include "state.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <map>
#include <random>
#include <set>

using namespace zentmon;

namespace {

constexpr uint32_t A = 0xef010101;
constexpr uint32_t B = 0xef010102;
constexpr uint32_t C = 0xef010103;

struct Recorder : Sink {
    std::vector<std::string> lines;
    int renames = 0;

    void on_rename(uint64_t) override { ++renames; }

    void on_event(const Event& event) override
    {
        std::string line = event_name(event.kind);
        line += ' ' + event.who->agent + ' ';
        append_group(line, event.group);
        lines.push_back(line);
    }
};

struct MonState : testing::Test {
    StateOptions options;
    Counters counters;
    Recorder events;
    std::unique_ptr<State> state;
    Now at = {1'700'000'000'000, 5'000'000};

    State& s()
    {
        if (state == nullptr) {
            state = std::make_unique<State>(options, counters);
            state->add_sink(&events);
        }
        return *state;
    }

    void join(uint16_t port, uint32_t group, const std::string& address = "10.0.0.1",
              const std::string& listener = "lab")
    {
        s().apply(listener, address, port, LineKind::join, group, at);
    }

    void leave(uint16_t port, uint32_t group, const std::string& address = "10.0.0.1")
    {
        s().apply("lab", address, port, LineKind::leave, group, at);
    }

    void pass(int64_t seconds)
    {
        at.wall_ms += seconds * 1000;
        at.mono_ms += seconds * 1000;
        while (s().tick(at) == 0) {
        }
    }

    // "239.1.1.1 joined 239.1.1.2 stale"
    std::string groups()
    {
        std::string out;
        GroupCursor cursor;
        while (s().walk_groups(cursor, 3, [&](const GroupRow& row) {
            out += out.empty() ? "" : " ";
            append_group(out, row.group);
            out += std::string(" ") + group_state_name(row.state);
            return true;
        })) {
        }
        return out;
    }

    AgentRow agent(const std::string& name = "10.0.0.1")
    {
        AgentRow found = {};
        s().each_agent([&](const AgentRow& row) { found = row.who->agent == name ? row : found; });
        return found;
    }
};

} // namespace

TEST_F(MonState, a_join_and_a_leave_are_an_event_each)
{
    join(1000, A);
    EXPECT_EQ(groups(), "239.1.1.1 joined");
    leave(1000, A);
    EXPECT_EQ(groups(), "");
    EXPECT_EQ(events.lines,
              (std::vector<std::string>{"join 10.0.0.1 239.1.1.1", "leave 10.0.0.1 239.1.1.1"}));
    EXPECT_EQ(s().last_seq(), 2u);
    EXPECT_EQ(counters.events[0], 1u);
}

TEST_F(MonState, a_leave_of_what_nobody_holds_is_no_event_but_makes_the_agent_known)
{
    leave(1000, A);
    EXPECT_TRUE(events.lines.empty());
    EXPECT_EQ(agent().leaves, 1u);
    EXPECT_EQ(s().agent_count(), 1u);
}

TEST_F(MonState, one_address_on_two_listeners_is_two_agents)
{
    join(1000, A, "10.0.0.1", "lab");
    join(1000, A, "10.0.0.1", "hall");
    EXPECT_EQ(s().agent_count(), 2u);
    EXPECT_EQ(s().group_count(), 2u);
    EXPECT_EQ(agent("10.0.0.1").who->listener, "lab");
    EXPECT_EQ(agent("10.0.0.1-hall").who->listener, "hall");
}

TEST_F(MonState, a_new_flow_makes_the_groups_of_the_others_stale)
{
    join(1000, A);
    join(1000, B);
    join(2000, B);
    EXPECT_EQ(groups(), "239.1.1.1 stale 239.1.1.2 joined");
    EXPECT_EQ(agent().restarts, 1u);
    EXPECT_EQ(agent().flows, 1u);
    EXPECT_EQ(agent().stale, 1u);
    EXPECT_EQ(events.lines.size(), 2u); // B did not join twice
}

TEST_F(MonState, stale_groups_that_are_not_reported_again_expire)
{
    join(1000, A);
    join(1000, B);
    join(2000, B);
    pass(259);
    EXPECT_EQ(groups(), "239.1.1.1 stale 239.1.1.2 joined");
    pass(1);
    EXPECT_EQ(groups(), "239.1.1.2 joined");
    EXPECT_EQ(events.lines.back(), "expire 10.0.0.1 239.1.1.1");
}

TEST_F(MonState, a_stale_group_that_is_reported_again_stays)
{
    join(1000, A);
    join(2000, B);
    pass(200);
    join(2000, A);
    pass(100);
    EXPECT_EQ(groups(), "239.1.1.1 joined 239.1.1.2 joined");
}

TEST_F(MonState, stale_zero_never_expires)
{
    options.stale_s = 0;
    join(1000, A);
    join(2000, B);
    pass(1'000'000);
    EXPECT_EQ(groups(), "239.1.1.1 stale 239.1.1.2 joined");
}

TEST_F(MonState, a_flow_that_speaks_again_is_not_stale)
{
    join(1000, A);
    join(2000, B);
    join(1000, C);
    EXPECT_EQ(groups(), "239.1.1.1 joined 239.1.1.2 joined 239.1.1.3 joined");
    EXPECT_EQ(agent().flows, 2u);
    EXPECT_EQ(agent().restarts, 0u);
    pass(1000);
    EXPECT_EQ(s().group_count(), 3u);
}

TEST_F(MonState, two_flows_that_interleave_hold_the_union)
{
    join(1000, A);
    join(2000, B);
    join(1000, C);
    join(2000, A);
    leave(2000, A);
    EXPECT_EQ(groups(), "239.1.1.1 joined 239.1.1.2 joined 239.1.1.3 joined");
    leave(1000, A);
    EXPECT_EQ(groups(), "239.1.1.2 joined 239.1.1.3 joined");
    EXPECT_EQ(events.lines.size(), 4u);
}

TEST_F(MonState, a_leave_of_what_only_another_living_process_holds_changes_nothing)
{
    join(1000, A);
    join(2000, B);
    join(1000, C);
    leave(2000, A);
    EXPECT_EQ(s().group_count(), 3u);
}

TEST_F(MonState, a_join_of_a_held_group_is_a_restart_on_the_same_port)
{
    join(1000, A);
    join(1000, B);
    join(1000, C);
    join(1000, A);
    EXPECT_EQ(groups(), "239.1.1.1 joined 239.1.1.2 stale 239.1.1.3 stale");
    EXPECT_EQ(agent().restarts, 1u);
    EXPECT_EQ(agent().flows, 1u);
    join(1000, B);
    EXPECT_EQ(groups(), "239.1.1.1 joined 239.1.1.2 joined 239.1.1.3 stale");
    pass(260);
    EXPECT_EQ(groups(), "239.1.1.1 joined 239.1.1.2 joined");
}

TEST_F(MonState, the_restarted_process_leaves_what_its_earlier_life_held_too)
{
    join(1000, A);
    join(2000, A);
    leave(2000, A);
    EXPECT_EQ(groups(), "");
}

TEST_F(MonState, a_leave_of_what_only_an_older_flow_holds_takes_its_groups_over)
{
    join(1000, A);
    join(1000, B);
    leave(2000, A); // the same process behind an address translation
    EXPECT_EQ(groups(), "239.1.1.2 joined");
    EXPECT_EQ(agent().restarts, 0u);
    EXPECT_EQ(agent().flows, 1u);
    pass(1000);
    EXPECT_EQ(groups(), "239.1.1.2 joined");
    leave(2000, B);
    EXPECT_EQ(groups(), "");
}

TEST_F(MonState, an_agent_restarted_while_stale_is_shown_as_it_is)
{
    join(1000, A);
    join(1000, B);
    join(2000, C);
    pass(100);
    join(3000, B);
    EXPECT_EQ(groups(), "239.1.1.1 stale 239.1.1.2 joined 239.1.1.3 stale");
    pass(160);
    EXPECT_EQ(groups(), "239.1.1.2 joined 239.1.1.3 stale");
    pass(100);
    EXPECT_EQ(groups(), "239.1.1.2 joined");
    EXPECT_EQ(agent().restarts, 2u);
}

TEST_F(MonState, the_end_of_a_stream_makes_all_of_it_stale)
{
    join(0, A, "stdin", "stdin");
    s().end_of_stream("stdin", "stdin", at);
    EXPECT_EQ(groups(), "239.1.1.1 stale");
    EXPECT_EQ(agent("stdin").flows, 0u);
    pass(260);
    EXPECT_EQ(groups(), "");
}

TEST_F(MonState, lingering_drops_a_leave_that_is_followed_by_a_join)
{
    options.linger_s = 8;
    join(1000, A);
    leave(1000, A);
    EXPECT_EQ(groups(), "239.1.1.1 linger");
    EXPECT_EQ(agent().linger, 1u);
    pass(7);
    join(1000, A);
    pass(100);
    EXPECT_EQ(groups(), "239.1.1.1 joined");
    EXPECT_EQ(events.lines.size(), 1u);
    EXPECT_EQ(agent().restarts, 0u);
}

TEST_F(MonState, lingering_ends_with_the_leave)
{
    options.linger_s = 8;
    join(1000, A);
    leave(1000, A);
    pass(4);
    leave(1000, A); // says nothing new
    pass(4);
    EXPECT_EQ(groups(), "");
    EXPECT_EQ(events.lines.back(), "leave 10.0.0.1 239.1.1.1");
    EXPECT_EQ(agent().linger, 0u);
}

TEST_F(MonState, lingering_costs_no_memory_where_a_group_goes_and_comes_back_again_and_again)
{
    options.linger_s = 3600;
    join(1, A);
    join(1, B);
    leave(1, B);
    const size_t before = mallinfo2().uordblks; // 0 under a sanitizer's allocator
    for (int i = 0; i < 200'000; ++i) {
        leave(1, A);
        join(1, A);
        at.mono_ms += i % 10 == 0 ? 1 : 0;
        at.wall_ms += i % 10 == 0 ? 1 : 0;
    }
    leave(1, A);
    EXPECT_LT(mallinfo2().uordblks, before + 2'000'000) << "a record of each LEAVE is kept";
    EXPECT_EQ(groups(), "239.1.1.1 linger 239.1.1.2 linger");
    pass(3581); // B's time is over, A was left 20 s later
    EXPECT_EQ(groups(), "239.1.1.1 linger");
    pass(20);
    EXPECT_EQ(groups(), "");
    EXPECT_EQ(events.lines,
              (std::vector<std::string>{"join 10.0.0.1 239.1.1.1", "join 10.0.0.1 239.1.1.2",
                                        "leave 10.0.0.1 239.1.1.2", "leave 10.0.0.1 239.1.1.1"}));
}

TEST_F(MonState, a_group_is_found_among_those_of_large_agents)
{
    for (uint32_t i = 0; i < 25'000; ++i) { // more than a walk looks at
        join(1, A + i, "10.0.0.1");
        join(1, A + i, "10.0.0.2");
    }
    leave(1, B, "10.0.0.2");
    GroupRow row;
    for (const char* name : {"10.0.0.1", "10.0.0.2"}) {
        ASSERT_TRUE(s().find_group(name, A + 24'999, row)) << name;
        EXPECT_EQ(row.group, A + 24'999);
        EXPECT_EQ(row.who->agent, name);
    }
    EXPECT_FALSE(s().find_group("10.0.0.2", B, row)) << "it was left";
    EXPECT_FALSE(s().find_group("10.0.0.2", A + 25'000, row));
    EXPECT_FALSE(s().find_group("10.0.0.3", A, row));
}

TEST_F(MonState, lingering_counts_from_the_last_leave)
{
    options.linger_s = 8;
    join(1000, A);
    leave(1000, A);
    pass(5);
    join(1000, A);
    leave(1000, A);
    pass(5);
    EXPECT_EQ(groups(), "239.1.1.1 linger");
    pass(3);
    EXPECT_EQ(groups(), "");
}

TEST_F(MonState, an_agent_that_is_not_heard_is_forgotten)
{
    options.forget_s = 600;
    join(1000, A);
    join(1000, B);
    leave(1000, B);
    join(1000, A, "10.0.0.2");
    pass(300);
    leave(1000, C, "10.0.0.2");
    const uint64_t before = s().generation();
    pass(300);
    EXPECT_EQ(s().agent_count(), 1u);
    EXPECT_NE(s().generation(), before);
    EXPECT_EQ(groups(), "239.1.1.1 joined");
    EXPECT_EQ(events.lines.back(), "expire 10.0.0.1 239.1.1.1");
    join(1000, C);
    EXPECT_EQ(agent().joins, 1u);
}

TEST_F(MonState, more_agents_than_the_limit_are_counted_and_dropped)
{
    options.limits.agents = 2;
    join(1, A, "10.0.0.1");
    join(1, A, "10.0.0.2");
    join(1, A, "10.0.0.3");
    EXPECT_EQ(s().agent_count(), 2u);
    EXPECT_EQ(counters.limit_dropped[Limit::agents], 1u);
}

TEST_F(MonState, the_sixty_fifth_process_is_counted_and_dropped)
{
    for (uint16_t port = 1; port <= 64; ++port) {
        join(port, 0xef020000u + port);
        for (uint16_t again = 1; again < port; ++again) {
            leave(again, A); // all of them are alive
        }
    }
    EXPECT_EQ(agent().flows, 64u);
    join(65, A);
    EXPECT_EQ(counters.limit_dropped[Limit::flows], 1u);
    EXPECT_EQ(s().group_count(), 64u);
}

TEST_F(MonState, a_process_that_restarts_for_ever_is_never_dropped)
{
    options.stale_s = 0;
    for (uint16_t port = 1; port <= 300; ++port) {
        join(port, 0xef020000u + port % 100);
        pass(2);
    }
    EXPECT_EQ(counters.limit_dropped[Limit::flows], 0u);
    EXPECT_EQ(s().group_count(), 100u);
    EXPECT_EQ(agent().restarts, 299u);
}

TEST_F(MonState, more_groups_than_the_limit_are_counted_and_dropped)
{
    options.limits.groups = 3;
    join(1, A);
    join(1, B);
    join(1, C);
    join(1, A + 9);
    EXPECT_EQ(counters.limit_dropped[Limit::groups], 1u);
    leave(1, B);
    join(1, A + 9); // what was left makes room
    EXPECT_EQ(groups(), "239.1.1.1 joined 239.1.1.3 joined 239.1.1.10 joined");
}

TEST_F(MonState, names_are_given_by_address_and_given_again)
{
    options.names = {{"10.0.0.1", "hall"}};
    join(1, A);
    join(1, A, "10.0.0.2");
    EXPECT_EQ(events.lines[0], "join hall 239.1.1.1");
    s().rename({{"10.0.0.1", "zulu"}, {"10.0.0.2", "alpha"}});
    s().rename({{"10.0.0.1", "zulu"}, {"10.0.0.2", "alpha"}, {"10.0.0.9", "not heard"}});
    EXPECT_EQ(events.renames, 1); // the second one changes nothing that is shown
    EXPECT_EQ(s().last_seq(), 3u) << "two events and a number for the rename";
    GroupCursor cursor;
    std::vector<std::string> names;
    s().walk_groups(cursor, 10, [&](const GroupRow& row) { return names.push_back(row.who->agent), true; });
    EXPECT_EQ(names, (std::vector<std::string>{"alpha", "zulu"}));
    leave(1, A);
    EXPECT_EQ(events.lines.back(), "leave zulu 239.1.1.1");
}

TEST_F(MonState, restored_groups_belong_to_whoever_speaks_first)
{
    ASSERT_TRUE(s().restore({A, "10.0.0.1", "10.0.0.1", "lab", 1'600'000'000'000}, at));
    ASSERT_TRUE(s().restore({B, "10.0.0.1", "10.0.0.1", "lab", 1'600'000'000'000}, at));
    EXPECT_TRUE(events.lines.empty());
    join(1000, C);
    EXPECT_EQ(groups(), "239.1.1.1 joined 239.1.1.2 joined 239.1.1.3 joined");
    leave(1000, A);
    EXPECT_EQ(groups(), "239.1.1.2 joined 239.1.1.3 joined");
    EXPECT_EQ(agent().restarts, 0u);
}

TEST_F(MonState, a_join_of_a_restored_group_is_a_restart)
{
    s().restore({A, "10.0.0.1", "10.0.0.1", "lab", 1'600'000'000'000}, at);
    s().restore({B, "10.0.0.1", "10.0.0.1", "lab", 1'600'000'000'000}, at);
    join(1000, A);
    EXPECT_EQ(groups(), "239.1.1.1 joined 239.1.1.2 stale");
}

TEST_F(MonState, restored_groups_go_whichever_process_leaves_them)
{
    s().restore({A, "10.0.0.1", "10.0.0.1", "lab", 1'600'000'000'000}, at);
    s().restore({B, "10.0.0.1", "10.0.0.1", "lab", 1'600'000'000'000}, at);
    join(1000, C);
    join(2000, C + 1);
    join(1000, C + 2);
    leave(2000, B);
    EXPECT_EQ(s().group_count(), 4u);
    EXPECT_EQ(events.lines.back(), "leave 10.0.0.1 239.1.1.2");
}

TEST_F(MonState, a_row_counts_its_lines_over_several_lives)
{
    for (int i = 0; i < 3; ++i) {
        join(1, A);
        leave(1, A);
    }
    pass(1);
    join(1, A);
    GroupCursor cursor;
    s().walk_groups(cursor, 1, [&](const GroupRow& row) {
        EXPECT_EQ(row.joins, 4u);
        EXPECT_EQ(row.leaves, 3u);
        EXPECT_EQ(row.since_ms, at.wall_ms);
        return true;
    });
}

TEST_F(MonState, groups_come_in_the_order_of_group_and_agent_and_resume_behind_a_cursor)
{
    join(1, B, "10.0.0.2");
    join(1, A, "10.0.0.2");
    join(1, A, "10.0.0.10");
    join(1, A, "10.0.0.1");
    std::vector<std::string> seen;
    GroupCursor cursor;
    const auto visit = [&](const GroupRow& row) {
        return seen.push_back(row.who->agent), seen.size() % 2 != 0;
    };
    EXPECT_TRUE(s().walk_groups(cursor, 100, visit));
    EXPECT_EQ(cursor.group, A);
    EXPECT_EQ(cursor.agent, "10.0.0.10");
    s().walk_groups(cursor, 100, visit);
    EXPECT_EQ(seen, (std::vector<std::string>{"10.0.0.1", "10.0.0.10", "10.0.0.2", "10.0.0.2"}));
    GroupCursor unknown = {A, "10.0.0.11"};
    std::vector<std::string> rest;
    s().walk_groups(unknown, 100, [&](const GroupRow& row) { return rest.push_back(row.who->agent), true; });
    EXPECT_EQ(rest, (std::vector<std::string>{"10.0.0.2", "10.0.0.2"}));
}

TEST_F(MonState, the_groups_of_one_agent_come_in_pieces)
{
    for (uint32_t i = 10; i > 0; --i) {
        join(1, A + i, "10.0.0.2");
        join(1, A + i, "10.0.0.3");
    }
    std::vector<uint32_t> seen;
    GroupCursor cursor;
    while (s().walk_groups_of("10.0.0.2", cursor, 3,
                              [&](const GroupRow& row) { return seen.push_back(row.group), true; })) {
    }
    EXPECT_EQ(seen.size(), 10u);
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    // A cursor behind another agent's row is a place in the order of all rows.
    const auto rest = [&](const std::string& cursor_agent, uint32_t group = A + 4) {
        size_t count = 0;
        GroupCursor behind = {group, cursor_agent};
        s().walk_groups_of("10.0.0.2", behind, 100, [&](const GroupRow&) { return ++count > 0; });
        return count;
    };
    EXPECT_EQ(rest("10.0.0.1"), 7u);
    EXPECT_EQ(rest("10.0.0.2"), 6u);
    EXPECT_EQ(rest("10.0.0.3"), 6u);
    EXPECT_EQ(rest("10.0.0.2", UINT32_MAX), 0u);
    GroupCursor nobody;
    EXPECT_FALSE(s().walk_groups_of("nobody", nobody, 3, [](const GroupRow&) { return true; }));
}

// Random lines of one process a host beside a plain set of what is joined.
TEST_F(MonState, random_lines_agree_with_a_plain_model)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::map<std::string, std::set<uint32_t>> model;
    for (int i = 0; i < 60'000; ++i) {
        const std::string address = "10.0.0." + std::to_string(random() % 30);
        const uint32_t group = 0xef000000u + random() % 500;
        if (model[address].insert(group).second) {
            join(7, group, address);
        } else {
            model[address].erase(group);
            leave(7, group, address);
        }
    }
    size_t total = 0;
    for (const auto& [address, groups] : model) {
        total += groups.size();
    }
    EXPECT_EQ(s().group_count(), total);
    GroupCursor cursor;
    uint32_t last = 0;
    while (s().walk_groups(cursor, 100, [&](const GroupRow& row) {
        EXPECT_GE(row.group, last);
        last = row.group;
        EXPECT_EQ(model[row.who->address].erase(row.group), 1u);
        --total;
        return true;
    })) {
    }
    EXPECT_EQ(total, 0u);
}
