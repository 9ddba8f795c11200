// --db: the file, the worker before it, and what happens when the file cannot be written to.
#include "history.h"
#include "sinks_support.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "child.h"
#include "tempdir.h"

using namespace sinks;
using nlohmann::json;

namespace {

// What sqlite3(1) prints for a statement.
std::string sql(const std::string& path, const std::string& statement)
{
    return support::run_program({"/usr/bin/sqlite3", path, statement}).out;
}

} // namespace

class MonHistory : public SinkTest {
  protected:
    // Restores and starts the history and lets it hear the state's events.
    void begin(HistoryOptions options = {})
    {
        if (options.path.empty()) {
            options.path = path;
        }
        options.commit_ms = std::min<int64_t>(options.commit_ms, 50);
        history.emplace(options, notices, state);
        restored = history->restore();
        ASSERT_EQ(history->start(), 0);
        if (!std::exchange(hears, true)) {
            state.add_sink(&*history); // a second one stands in the same place
        }
    }

    const Counters& counted()
    {
        history->publish_counters(counters);
        return counters;
    }

    bool written()
    {
        return run_until([this] { return counted().history_queue == 0 && counted().history_up; });
    }

    json ask(const HistoryReader::Parameters& parameters)
    {
        std::optional<HistoryAnswer> answer;
        EXPECT_TRUE(history->ask(parameters, [&answer](HistoryAnswer a) { answer = std::move(a); }));
        EXPECT_TRUE(run_until([&answer] { return answer.has_value(); }));
        return answer && !answer->away ? json::parse(answer->json) : json("away");
    }

    void join(uint32_t number, const std::string& address = "10.0.0.1")
    {
        line(LineKind::join, group(number), address);
    }

    void leave(uint32_t number, const std::string& address = "10.0.0.1")
    {
        line(LineKind::leave, group(number), address);
    }

    support::TempDir dir;
    std::string path = dir.path("history.db");
    std::optional<History> history;
    bool restored = false;
    bool hears = false;
};

TEST_F(MonHistory, sqlite_reads_events_and_joined_groups)
{
    begin();
    join(1);
    join(2);
    leave(1);
    ASSERT_TRUE(written());
    EXPECT_EQ(sql(path, "SELECT event, agent, address, listener, \"group\" FROM event ORDER BY n"),
              "join|10.0.0.1|10.0.0.1|lan|239.0.0.1\njoin|10.0.0.1|10.0.0.1|lan|239.0.0.2\n"
              "leave|10.0.0.1|10.0.0.1|lan|239.0.0.1\n");
    EXPECT_EQ(sql(path, "SELECT agent, address, listener, \"group\" FROM joined"),
              "10.0.0.1|10.0.0.1|lan|239.0.0.2\n");
    EXPECT_EQ(sql(path, "SELECT id FROM history ORDER BY id"),
              event_id(1) + "\n" + event_id(2) + "\n" + event_id(3) + "\n");
    EXPECT_EQ(sql(path, "PRAGMA journal_mode; PRAGMA user_version; PRAGMA integrity_check"), "wal\n1\nok\n");
}

TEST_F(MonHistory, what_was_joined_is_joined_again_after_a_restart_without_an_event)
{
    begin();
    join(1);
    join(2, "10.0.0.2");
    leave(2, "10.0.0.2");
    history->stop();

    State next({}, counters);
    History again({path}, notices, next);
    ASSERT_TRUE(again.restore());
    EXPECT_EQ(next.group_count(), 1u);
    EXPECT_EQ(next.last_seq(), 0u);
    GroupCursor at;
    next.walk_groups(at, 10, [](const GroupRow& row) {
        EXPECT_EQ(row.group, group(1));
        EXPECT_EQ(row.who->address, "10.0.0.1");
        EXPECT_GT(row.since_ms, 1'700'000'000'000);
        return true;
    });
}

TEST_F(MonHistory, what_was_stale_is_stale_after_a_restart_and_what_lingered_is_not_joined_for_ever)
{
    begin();
    for (const uint32_t number : {1, 2, 3}) {
        line(LineKind::join, group(number), "10.0.0.1", 4000);
    }
    line(LineKind::join, group(1), "10.0.0.1", 5000); // its process was started anew
    history->stop();
    EXPECT_EQ(sql(path, "SELECT \"group\", fading FROM joined ORDER BY k"),
              "239.0.0.1|0\n239.0.0.2|1\n239.0.0.3|1\n");

    State next({}, counters);
    History again({path}, notices, next);
    ASSERT_TRUE(again.restore());
    const auto states = [&next] {
        std::string text;
        GroupCursor at;
        next.walk_groups(at, 10, [&text](const GroupRow& row) {
            text += std::string(group_state_name(row.state)) + ' ';
            return true;
        });
        return text;
    };
    EXPECT_EQ(states(), "joined stale stale ");
    next.apply("lan", "10.0.0.1", 5000, LineKind::join, group(4), now()); // it speaks on
    next.apply("lan", "10.0.0.1", 5000, LineKind::join, group(2), now());
    EXPECT_EQ(states(), "joined joined stale joined ");
    Now later = now();
    later.mono_ms += 261'000;
    next.tick(later);
    EXPECT_EQ(states(), "joined joined joined ");
}

TEST_F(MonHistory, the_last_group_of_a_large_agent_is_stored_as_stale_and_as_joined_again)
{
    HistoryOptions options;
    options.mark_ms = 20;
    begin(options);
    constexpr uint32_t kGroups = 52'000;
    for (uint32_t i = 0; i < kGroups; ++i) {
        line(LineKind::join, group(i), "10.0.0.1", 4000);
    }
    line(LineKind::join, group(0), "10.0.0.1", 5000); // its process was started anew
    const auto stores = [this](const std::string& of_last, const std::string& counts) {
        return run_until([&] { // all are counted only when the last one is as it should be
            return sql(path, "SELECT fading FROM joined ORDER BY k DESC LIMIT 1") == of_last &&
                   sql(path, "SELECT fading, count(*) FROM joined GROUP BY fading") == counts;
        });
    };
    EXPECT_TRUE(stores("1\n", "0|1\n1|51999\n"));
    line(LineKind::join, group(kGroups - 1), "10.0.0.1", 5000);
    EXPECT_TRUE(stores("0\n", "0|2\n1|51998\n"));
    // A file that is made anew has it all, and what it has is known.
    for (const char* end : {"", "-wal", "-shm"}) {
        std::filesystem::remove(path + end);
    }
    line(LineKind::leave, group(0), "10.0.0.1", 5000);
    EXPECT_TRUE(stores("0\n", "0|1\n1|51998\n"));
    line(LineKind::leave, group(kGroups - 1), "10.0.0.1", 5000);
    EXPECT_TRUE(stores("1\n", "1|51998\n"));
    line(LineKind::leave, group(1), "10.0.0.1", 5000); // it was the same process all the time
    EXPECT_TRUE(stores("0\n", "0|51997\n"));
}

TEST_F(MonHistory, the_end_writes_what_waits)
{
    begin();
    for (uint32_t i = 0; i < 5000; ++i) {
        join(i);
    }
    history->stop();
    EXPECT_EQ(sql(path, "SELECT count(*), (SELECT count(*) FROM joined) FROM event"), "5000|5000\n");
}

TEST_F(MonHistory, an_answer_has_the_newest_first_and_says_where_to_go_on)
{
    begin();
    for (uint32_t i = 1; i <= 10; ++i) {
        join(i);
    }
    ASSERT_TRUE(written());
    const json first = ask({{"limit", "4"}});
    ASSERT_EQ(first["events"].size(), 4u);
    EXPECT_EQ(first["events"][0]["id"], event_id(10));
    EXPECT_EQ(first["events"][0]["group"], "239.0.0.10");
    EXPECT_EQ(first["next"], event_id(7));
    const json second = ask({{"limit", "4"}, {"before", event_id(7)}});
    EXPECT_EQ(second["events"][0]["id"], event_id(6));
    const json last = ask({{"limit", "4"}, {"before", event_id(3)}});
    EXPECT_EQ(last["events"].size(), 2u);
    EXPECT_EQ(last["next"], nullptr);
    EXPECT_EQ(ask({{"limit", "2"}, {"before", event_id(3)}})["next"], nullptr)
        << "exactly full, nothing behind";
    EXPECT_EQ(ask({{"before", event_id(1)}})["events"].size(), 0u);
    EXPECT_EQ(ask({{"before", event_id(1000)}})["events"].size(), 10u) << "not written yet: all is older";
    EXPECT_EQ(ask({{"before", "0123456789abcdef-5"}})["events"].size(), 0u) << "a life nobody knows";
}

TEST_F(MonHistory, an_event_of_an_answer_is_the_event_object)
{
    begin();
    std::string text;

    struct Note : Sink {
        explicit Note(std::string& out) : text(out) {}

        void on_event(const Event& event) override { append_json(text, event); }

        std::string& text;
    } note(text);

    state.add_sink(&note);
    join(1, "fe80::1%eth0");
    ASSERT_TRUE(written());
    EXPECT_EQ(ask({})["events"][0], json::parse(text));
}

TEST_F(MonHistory, group_agent_and_time_narrow_an_answer)
{
    begin();
    for (uint32_t i = 1; i <= 3; ++i) {
        join(i, "10.0.0.1");
        join(i, "10.0.0.2");
    }
    ASSERT_TRUE(written());
    EXPECT_EQ(ask({{"group", "239.0.0.2"}})["events"].size(), 2u);
    EXPECT_EQ(ask({{"agent", "10.0.0.2"}})["events"].size(), 3u);
    EXPECT_EQ(ask({{"agent", "10.0.0.2"}, {"group", "239.0.0.2"}})["events"].size(), 1u);
    EXPECT_EQ(ask({{"group", ""}, {"agent", ""}, {"limit", ""}})["events"].size(), 6u);
    const json all = ask({})["events"];
    const double oldest = all[5]["time"];
    const double newest = all[0]["time"];
    EXPECT_EQ(
        ask({{"from", std::to_string(oldest - 1)}, {"to", std::to_string(newest + 1)}})["events"].size(), 6u);
    EXPECT_EQ(ask({{"from", std::to_string(newest + 1)}})["events"].size(), 0u);
    EXPECT_EQ(ask({{"to", std::to_string(oldest - 1)}})["events"].size(), 0u);
}

TEST_F(MonHistory, a_bad_parameter_is_refused)
{
    begin();
    const HistoryReader::Parameters bad = {{"group", "239.0.0"},
                                           {"group", "10.0.0.1"},
                                           {"group", "239.0.0.01"},
                                           {"agent", "a b"},
                                           {"agent", std::string(65, 'a')},
                                           {"from", "yesterday"},
                                           {"from", "nan"},
                                           {"to", "1e300"},
                                           {"to", "1x"},
                                           {"limit", "0"},
                                           {"limit", "100001"},
                                           {"limit", "-1"},
                                           {"limit", "ten"},
                                           {"before", "x"},
                                           {"before", "0123456789abcdef"},
                                           {"before", "0123456789ABCDEF-1"},
                                           {"before", "0123456789abcdef-"},
                                           {"before", "0123456789abcdef-99999999999999999999"},
                                           {"colour", "red"},
                                           {"colour", ""},
                                           {"", "1"}};
    for (const auto& [name, value] : bad) {
        EXPECT_FALSE(history->ask({{name, value}}, [](const HistoryAnswer&) { ADD_FAILURE(); }))
            << name << '=' << value;
    }
    EXPECT_TRUE(history->ask({{"limit", "100000"}}, [](const HistoryAnswer&) {}));
    EXPECT_TRUE(history->ask({{"from", "1.5"}, {"to", "1700000000"}}, [](const HistoryAnswer&) {}));
}

TEST_F(MonHistory, identifiers_of_earlier_lives_stay_valid)
{
    // Two earlier lives, as they would have left the file.
    begin();
    history->stop();
    const std::string yesterday = std::to_string(now().wall_ms - 86'400'000);
    sql(path, "INSERT INTO boot VALUES(1, '00000000000000aa', 1), (4, '00000000000000bb', 11);"
              "INSERT INTO event SELECT value, " +
                  yesterday +
                  ", 'join', 'a', '10.0.0.9', 'lan', '239.9.9.9' FROM generate_series(1, 5);"
                  "INSERT INTO block VALUES(0, " +
                  yesterday + ", " + yesterday + ")");
    history.reset();
    begin();
    join(1);
    ASSERT_TRUE(written());
    const json all = ask({})["events"];
    ASSERT_EQ(all.size(), 6u);
    EXPECT_EQ(all[0]["id"], event_id(1));
    EXPECT_EQ(all[1]["id"], "00000000000000bb-12");
    EXPECT_EQ(all[5]["id"], "00000000000000aa-1");
    EXPECT_EQ(ask({{"before", "00000000000000bb-12"}})["events"].size(), 4u);
    EXPECT_EQ(ask({{"before", "00000000000000bb-11"}})["events"][0]["id"], "00000000000000aa-3");
    EXPECT_EQ(ask({{"before", "00000000000000aa-900"}})["events"].size(), 3u) << "no further than its life";
}

TEST_F(MonHistory, many_blocks_are_read_in_one_answer_and_pruned_by_age)
{
    Store store;
    ASSERT_TRUE(store.open(path));
    const auto who = name_of("a");
    const int64_t day = 86'400'000;
    const int64_t today = now().wall_ms;
    StoreItems items(1);
    constexpr uint64_t kEvents = 20'000; // five blocks: the oldest half is 100 days old
    for (uint64_t seq = 1; seq <= kEvents; ++seq) {
        const int64_t age = seq <= kEvents / 2 ? 100 * day : day;
        items[0].push_back(
            {StoreItem::happened,
             {seq, today - age, EventKind::join, group(static_cast<uint32_t>(seq % 100)), who}});
    }
    ASSERT_TRUE(store.write(items)) << store.error();
    HistoryQuery query;
    query.limit = 100'000;
    Store::Reading reading(store, query);
    while (!reading.advance(0)) { // a block at a time
    }
    ASSERT_TRUE(reading.ok);
    EXPECT_EQ(json::parse(reading.body)["events"].size(), kEvents);
    ASSERT_TRUE(query.set("group", "239.0.0.7"));
    Store::Reading some(store, query);
    while (!some.advance(0)) {
    }
    EXPECT_EQ(json::parse(some.body)["events"].size(), kEvents / 100);

    EXPECT_EQ(store.prune(today - 90 * day, 64), 3);
    EXPECT_EQ(store.prune(today - 90 * day, 64), 0) << "nothing is left to do";
    EXPECT_EQ(sql(path, "SELECT count(*), min(n) FROM event"), "10000|10001\n");
    EXPECT_EQ(sql(path, "SELECT count(*) FROM boot"), "1\n") << "its life is not over";
    EXPECT_EQ(store.prune(today, 64), 3);
    EXPECT_EQ(sql(path, "SELECT (SELECT count(*) FROM event), (SELECT count(*) FROM block)"), "0|0\n");
}

TEST_F(MonHistory, an_answer_that_takes_too_long_ends_where_it_is_and_goes_on_from_there)
{
    Store store;
    ASSERT_TRUE(store.open(path));
    StoreItems items(1);
    for (uint64_t seq = 1; seq <= 10'000; ++seq) {
        items[0].push_back(
            {StoreItem::happened, {seq, 1000, EventKind::join, group(seq == 1 ? 9 : 1), name_of("a")}});
    }
    ASSERT_TRUE(store.write(items));
    HistoryQuery query;
    ASSERT_TRUE(query.set("group", "239.0.0.9"));
    Store::Reading first(store, query);
    ASSERT_FALSE(first.advance(0));
    first.finish();
    const json part = json::parse(first.body);
    EXPECT_EQ(part["events"].size(), 0u);
    ASSERT_TRUE(query.set("before", part["next"].get<std::string>()));
    Store::Reading rest(store, query);
    while (!rest.advance(0)) {
    }
    EXPECT_EQ(json::parse(rest.body)["events"][0]["id"], event_id(1));
}

TEST_F(MonHistory, joined_follows_the_last_word_of_a_transaction_and_a_synchronisation)
{
    Store store;
    ASSERT_TRUE(store.open(path));
    const auto a = name_of("a", "10.0.0.1");
    const auto b = name_of("b", "10.0.0.2");
    Events events;
    const auto item = [&](EventKind kind, uint32_t number, const auto& who) {
        return StoreItem{StoreItem::happened, events.next(kind, group(number), who)};
    };
    ASSERT_TRUE(store.write(
        {{item(EventKind::join, 1, a), item(EventKind::leave, 1, a), item(EventKind::join, 1, a),
          item(EventKind::join, 2, a), item(EventKind::join, 2, b), item(EventKind::expire, 2, a)}}));
    const std::string joined = "SELECT agent, \"group\" FROM joined ORDER BY k";
    EXPECT_EQ(sql(path, joined), "a|239.0.0.1\nb|239.0.0.2\n");

    // What was lost: a left 1, b joined 3. While the rows come, b leaves 3 and a joins 4.
    const auto row = [](uint32_t number, const auto& who) {
        return StoreItem{StoreItem::row, {0, 5, EventKind::join, group(number), who}};
    };
    ASSERT_TRUE(
        store.write({{item(EventKind::join, 5, a), {StoreItem::sync_begin, {}}, row(2, b), row(3, b)}}));
    ASSERT_TRUE(store.write({{item(EventKind::leave, 3, b),
                              item(EventKind::join, 4, a),
                              row(4, a),
                              {StoreItem::sync_end, {}},
                              item(EventKind::join, 6, a)}}));
    EXPECT_EQ(sql(path, joined), "a|239.0.0.4\na|239.0.0.6\nb|239.0.0.2\n");

    // The numbers of sources go on where they were.
    store.close();
    ASSERT_TRUE(store.open(path));
    const auto c = name_of("c", "10.0.0.3");
    ASSERT_TRUE(store.write({{item(EventKind::join, 7, c), item(EventKind::leave, 4, a)}}));
    EXPECT_EQ(sql(path, joined), "a|239.0.0.6\nb|239.0.0.2\nc|239.0.0.7\n");
}

// ---- faults -----------------------------------------------------------------------------------

TEST_F(MonHistory, a_damaged_file_is_told_once_and_history_goes_on_when_it_is_taken_away)
{
    dir.write("history.db", std::string(8192, 'x'));
    begin();
    EXPECT_FALSE(restored);
    EXPECT_EQ(times_logged("file is not a database: going on without history, trying again"), 1u);
    join(1);
    EXPECT_EQ(ask({}), json("away"));
    EXPECT_FALSE(counted().history_up);
    std::filesystem::remove(path);
    ASSERT_TRUE(written());
    EXPECT_EQ(times_logged("going on without history"), 1u);
    EXPECT_TRUE(run_until_logged("works again, 0 events were lost meanwhile"));
    EXPECT_EQ(sql(path, "SELECT \"group\" FROM joined"), "239.0.0.1\n");
    EXPECT_EQ(ask({})["events"].size(), 1u);
}

TEST_F(MonHistory, another_programs_database_is_left_alone)
{
    sql(path, "CREATE TABLE mine(a); INSERT INTO mine VALUES(1)");
    begin();
    EXPECT_FALSE(restored);
    EXPECT_TRUE(run_until_logged("is another program's database"));
    history->stop();
    EXPECT_EQ(sql(path, "SELECT name FROM sqlite_master; PRAGMA journal_mode"), "mine\ndelete\n");
}

TEST_F(MonHistory, a_file_of_a_newer_schema_is_left_alone)
{
    begin();
    history->stop();
    sql(path, "PRAGMA user_version = 2");
    Store store;
    EXPECT_FALSE(store.open(path));
    EXPECT_EQ(store.error(), "has schema version 2: this program knows 1");
}

TEST_F(MonHistory, a_locked_file_costs_nothing_but_time)
{
    begin();
    join(1);
    ASSERT_TRUE(written());
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    join(2);
    EXPECT_TRUE(run_until_logged("database is locked: going on without history"));
    join(3);
    EXPECT_EQ(counted().history_queue, 2u);
    sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    ASSERT_TRUE(written());
    EXPECT_EQ(sql(path, "SELECT \"group\" FROM event ORDER BY n"), "239.0.0.1\n239.0.0.2\n239.0.0.3\n");
}

TEST_F(MonHistory, a_file_that_is_deleted_meanwhile_is_made_anew_with_all_that_is_joined)
{
    begin();
    join(1);
    ASSERT_TRUE(written());
    for (const char* end : {"", "-wal", "-shm"}) {
        std::filesystem::remove(path + end);
    }
    join(2);
    EXPECT_TRUE(run_until_logged("was moved or deleted"));
    ASSERT_TRUE(run_until([this] {
        return std::filesystem::exists(path) &&
               sql(path, "SELECT \"group\" FROM joined ORDER BY k") == "239.0.0.1\n239.0.0.2\n";
    }));
    EXPECT_EQ(sql(path, "SELECT \"group\" FROM event"), "239.0.0.2\n");
}

TEST_F(MonHistory, what_the_queue_cannot_hold_is_lost_counted_told_and_joined_is_put_right)
{
    begin();
    join(1);
    ASSERT_TRUE(written());
    history->stop();
    history.reset();
    counters = {};

    dir.write("locked", "");
    HistoryOptions options;
    options.path = dir.path("locked/history.db"); // a file where a directory should be
    options.queue = 100;
    State fresh({}, counters);
    history.emplace(options, notices, fresh);
    EXPECT_FALSE(history->restore());
    ASSERT_EQ(history->start(), 0);
    fresh.add_sink(&*history);
    for (uint32_t i = 0; i < 300; ++i) {
        fresh.apply("lan", "10.0.0.1", 4000, LineKind::join, group(i), now());
    }
    EXPECT_EQ(counted().history_lost, 200u);
    EXPECT_EQ(times_logged("100 events wait: more are lost"), 1u);
    std::filesystem::remove(dir.path("locked"));
    dir.make_dir("locked");
    ASSERT_TRUE(run_until([&] { return sql(options.path, "SELECT count(*) FROM joined") == "300\n"; }));
    EXPECT_EQ(sql(options.path, "SELECT count(*) FROM event"), "100\n");
    EXPECT_TRUE(run_until_logged("works again, 200 events were lost meanwhile"));
    history->stop(); // before its state ends
}

TEST_F(MonHistory, a_file_that_comes_late_restores_the_agents_that_have_not_spoken)
{
    begin();
    join(1, "10.0.0.1");
    join(2, "10.0.0.2");
    history->stop();
    history.reset();
    std::filesystem::rename(path, path + ".away");
    dir.make_dir("history.db"); // in its place

    State fresh({}, counters);
    history.emplace(HistoryOptions{path, 90, 1'000'000, 50}, notices, fresh);
    EXPECT_FALSE(history->restore());
    ASSERT_EQ(history->start(), 0);
    fresh.add_sink(&*history);
    fresh.apply("lan", "10.0.0.1", 4000, LineKind::join, group(3), now());
    std::filesystem::remove(path);
    std::filesystem::rename(path + ".away", path);
    ASSERT_TRUE(run_until([&] { return fresh.group_count() == 2; }));
    ASSERT_TRUE(run_until([&] {
        return sql(path, "SELECT \"group\" FROM joined ORDER BY \"group\"") == "239.0.0.2\n239.0.0.3\n";
    }));
    history->stop();
}

// Faults of a file system need one of their own, which ends with this process: each test has one to itself.
#define REQUIRE_MOUNTS()                                                                                     \
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {      \
        GTEST_SKIP() << "no mount namespace to be had";                                                      \
    }

TEST_F(MonHistory, a_full_disk_is_told_once_and_written_to_when_there_is_room)
{
    REQUIRE_MOUNTS();
    dir.make_dir("small");
    const std::string small = dir.path("small");
    ASSERT_EQ(mount("tmpfs", small.c_str(), "tmpfs", 0, "size=1m"), 0);
    HistoryOptions options;
    options.path = small + "/history.db";
    begin(options);
    ASSERT_TRUE(restored);
    uint32_t number = 0;
    ASSERT_TRUE(run_until([&] {
        for (int i = 0; i < 2000; ++i) {
            join(++number);
        }
        return times_logged("disk is full") + times_logged("disk I/O error") > 0;
    }));
    EXPECT_TRUE(run_until([this] { return !counted().history_up; }));
    ASSERT_EQ(mount("tmpfs", small.c_str(), "tmpfs", MS_REMOUNT, "size=256m"), 0);
    ASSERT_TRUE(written());
    EXPECT_EQ(counted().history_lost, 0u);
    EXPECT_EQ(sql(options.path, "SELECT count(*), (SELECT count(*) FROM joined) FROM event"),
              std::to_string(number) + "|" + std::to_string(number) + "\n");
    EXPECT_EQ(sql(options.path, "PRAGMA integrity_check"), "ok\n");
    history->stop();
    umount2(small.c_str(), MNT_DETACH);
}

TEST_F(MonHistory, a_read_only_file_system_is_told_and_tried_again)
{
    REQUIRE_MOUNTS();
    dir.make_dir("disk");
    const std::string disk = dir.path("disk");
    ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=16m"), 0);
    Store store;
    ASSERT_TRUE(store.open(disk + "/history.db"));
    store.close();
    ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "size=16m"), 0);
    HistoryOptions options;
    options.path = disk + "/history.db";
    begin(options);
    EXPECT_FALSE(restored);
    EXPECT_EQ(times_logged("going on without history, trying again"), 1u);
    join(1);
    ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", MS_REMOUNT, "size=16m"), 0);
    ASSERT_TRUE(written());
    EXPECT_EQ(sql(options.path, "SELECT \"group\" FROM event"), "239.0.0.1\n");
    history->stop();
    umount2(disk.c_str(), MNT_DETACH);
}

// A child writes without a pause and says what is known to be in the file. It is killed at any moment: all of
// that is there, and `joined` is what the events say.
TEST_F(MonHistory, a_kill_at_any_moment_leaves_a_file_that_opens_and_is_not_behind)
{
    const auto write_until_killed = [this](int report_to) {
        HistoryOptions options;
        options.commit_ms = 2;
        begin(options);
        for (uint32_t turn = 0;; ++turn) {
            for (uint32_t i = 0; i < 50; ++i) {
                join((turn * 50 + i) % 1000);
                leave((turn * 50 + i + 500) % 1000);
            }
            const uint64_t seen = state.last_seq();
            while (counted().history_queue > 50) {
                usleep(100);
            }
            const uint64_t sure = seen > 50 ? seen - 50 : 0;
            (void)!write(report_to, &sure, sizeof sure);
        }
    };
    for (int round = 0; round < 100; ++round) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        const pid_t child = fork();
        if (child == 0) {
            write_until_killed(ends[1]);
        }
        close(ends[1]);
        uint64_t sure = 0;
        for (int i = 0; i <= round % 5; ++i) {
            ASSERT_EQ(read(ends[0], &sure, sizeof sure), static_cast<ssize_t>(sizeof sure));
        }
        usleep(static_cast<useconds_t>(round * 137 % 5000));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        for (uint64_t more; read(ends[0], &more, sizeof more) == static_cast<ssize_t>(sizeof more);) {
            sure = more;
        }
        close(ends[0]);
        // In this order: is it sound, how many groups are wrong in `joined`, the last event.
        const std::string found =
            sql(path, "PRAGMA integrity_check;"
                      "WITH said AS (SELECT \"group\", event, max(n) FROM event GROUP BY \"group\")"
                      " SELECT count(*) FROM said LEFT JOIN joined USING(\"group\")"
                      " WHERE (event = 'join') != (k IS NOT NULL);"
                      "SELECT coalesce(max(n), 0) FROM event");
        ASSERT_EQ(found.substr(0, 5), "ok\n0\n") << found;
        EXPECT_GE(std::stoull(found.substr(5)), sure);
        for (const char* end : {"", "-wal", "-shm"}) {
            std::filesystem::remove(path + end);
        }
    }
}
