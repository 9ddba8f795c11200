// What the paths give: groups in pieces, agents, activity, metrics, the stream of events.
#include "http_site.h"

#include <nlohmann/json.hpp>

#include "child.h"
#include "tempdir.h"

using namespace support;
using nlohmann::json;

namespace {

json get_json(const HttpSite& site, const std::string& target)
{
    const HttpAnswer answer = http_get(site, target);
    EXPECT_EQ(answer.code, 200) << target;
    return json::parse(answer.body);
}

// The groups of an answer as "GROUP,AGENT".
std::vector<std::string> names(const json& answer)
{
    std::vector<std::string> names;
    for (const json& row : answer["groups"]) {
        names.push_back(row["group"].get<std::string>() + "," + row["agent"].get<std::string>());
    }
    return names;
}

// Three groups of two agents; 239.1.0.10 of both.
void tell_some(HttpSite& site)
{
    site.tell("JOIN lab 10.0.0.2 700 239.1.0.10");
    site.tell("JOIN lab 10.0.0.1 700 239.1.0.10");
    site.tell("JOIN lab 10.0.0.1 700 239.1.0.2");
    site.tell("JOIN lab 10.0.0.1 700 239.200.0.1");
}

struct StreamEvent {
    std::string name; // of "event:", empty for a plain one
    std::string id;
    json data;
};

// A client of /events that takes the stream apart.
class Stream {
  public:
    Stream(const HttpSite& site, const std::string& query = {}, const std::string& fields = {})
        : client_(site.port())
    {
        client_.get("/events" + query, fields);
        const HttpAnswer head = client_.answer(true);
        EXPECT_EQ(head.code, 200);
        EXPECT_EQ(head.field("Content-Type"), "text/event-stream");
        EXPECT_EQ(head.field("X-Accel-Buffering"), "no");
    }

    // The next event that is no ping. An empty name and id at the end.
    StreamEvent next()
    {
        StreamEvent event;
        do {
            event = any();
        } while (event.name == "ping");
        return event;
    }

    StreamEvent any()
    {
        StreamEvent event;
        std::string block;
        while (event.data.is_null() && take_block(block)) {
            retry_ = retry_ || block == "retry: 1000\n\n";
            event.name = value_of(block, "event: ");
            event.id = value_of(block, "id: ");
            const std::string data = value_of(block, "data: ");
            event.data = data.empty() ? json() : json::parse(data);
        }
        return event;
    }

    bool said_retry() const { return retry_; }

  private:
    bool take_block(std::string& block)
    {
        size_t end = text_.find("\n\n");
        while (end == std::string::npos) {
            if (!client_.take_chunk(text_)) {
                return false;
            }
            end = text_.find("\n\n");
        }
        block = text_.substr(0, end + 2);
        text_.erase(0, end + 2);
        return true;
    }

    static std::string value_of(const std::string& block, const std::string& name)
    {
        const size_t at = ("\n" + block).find("\n" + name);
        return at == std::string::npos
                   ? ""
                   : block.substr(at + name.size(), block.find('\n', at) - at - name.size());
    }

    RawClient client_;
    std::string text_;
    bool retry_ = false;
};

std::string last_id(const HttpSite& site)
{
    return get_json(site, "/groups.json?limit=0")["last_id"];
}

} // namespace

TEST(MonApi, groups_have_their_fields)
{
    HttpSite site;
    tell_some(site);
    const json answer = get_json(site, "/groups.json");
    EXPECT_EQ(answer["total"], 4);
    EXPECT_GT(answer["now"], 1.7e9);
    EXPECT_EQ(names(answer), (std::vector<std::string>{"239.1.0.2,10.0.0.1", "239.1.0.10,10.0.0.1",
                                                       "239.1.0.10,10.0.0.2", "239.200.0.1,10.0.0.1"}));
    const json& row = answer["groups"][0];
    EXPECT_EQ(row.size(), 9U);
    EXPECT_EQ(row["address"], "10.0.0.1");
    EXPECT_EQ(row["listener"], "lab");
    EXPECT_EQ(row["joins"], 1);
    EXPECT_EQ(row["leaves"], 0);
    EXPECT_EQ(row["state"], "joined");
    EXPECT_LE(row["since"], row["last"]);
    EXPECT_TRUE(answer["last_id"].get<std::string>().ends_with("-4"));
}

TEST(MonApi, a_group_that_was_left_is_gone)
{
    HttpSite site;
    tell_some(site);
    site.tell("LEAVE lab 10.0.0.1 700 239.1.0.10");
    EXPECT_EQ(names(get_json(site, "/groups.json?filter=239.1.0.10")),
              (std::vector<std::string>{"239.1.0.10,10.0.0.2"}));
}

TEST(MonApi, groups_are_filtered_by_text_and_agent)
{
    HttpSite site;
    tell_some(site);
    EXPECT_EQ(get_json(site, "/groups.json?filter=239.1.")["total"], 3);
    EXPECT_EQ(names(get_json(site, "/groups.json?filter=239.200.0.0%2F16")).size(), 1U);
    EXPECT_EQ(get_json(site, "/groups.json?filter=10.0.0.2")["total"], 1);
    EXPECT_EQ(get_json(site, "/groups.json?agent=10.0.0.1")["total"], 3);
    EXPECT_EQ(names(get_json(site, "/groups.json?agent=10.0.0.1&filter=239.1.&limit=1")),
              (std::vector<std::string>{"239.1.0.2,10.0.0.1"}));
    EXPECT_EQ(get_json(site, "/groups.json?agent=nobody")["total"], 0);
}

TEST(MonApi, pieces_are_all_of_it_once)
{
    HttpSite site;
    site.tell("MANY 5000 10.0.0.1");
    site.tell("MANY 5000 10.0.0.2");
    std::vector<std::string> all;
    std::string after;
    for (json piece = get_json(site, "/groups.json?limit=700"); !piece["groups"].empty();
         piece = get_json(site, "/groups.json?limit=700&after=" + all.back())) {
        EXPECT_EQ(piece["total"], 10000);
        EXPECT_LE(piece["groups"].size(), 700U);
        for (const std::string& name : names(piece)) {
            all.push_back(name);
        }
    }
    EXPECT_EQ(all, names(get_json(site, "/groups.json")));
    EXPECT_EQ(all.size(), 10000U);
}

TEST(MonApi, bad_parameters_are_told)
{
    const HttpSite site;
    for (const char* query : {"limit=x", "limit=-1", "limit=99999999999", "after=x", "after=239.1.1.1",
                              "after=1,", "after=239.1.1.1,", "colour=red", "filter=%"}) {
        EXPECT_EQ(http_get(site, std::string("/groups.json?") + query).code, 400) << query;
    }
    for (const char* query : {"limit=", "after=", "filter=&agent=&limit=5"}) {
        EXPECT_EQ(http_get(site, std::string("/groups.json?") + query).code, 200) << query;
    }
}

TEST(MonApi, agents_have_their_fields)
{
    HttpSite site;
    tell_some(site);
    const json answer = get_json(site, "/agents.json");
    ASSERT_EQ(answer["agents"].size(), 2U);
    const json& row = answer["agents"][0];
    EXPECT_EQ(row.size(), 11U);
    EXPECT_EQ(row["agent"], "10.0.0.1");
    EXPECT_EQ(row["groups"], 3);
    EXPECT_EQ(row["stale"], 0);
    EXPECT_EQ(row["flows"], 1);
    EXPECT_EQ(row["joins"], 3);
    EXPECT_EQ(row["leaves"], 0);
    EXPECT_EQ(row["restarts"], 0);
    EXPECT_EQ(get_json(site, "/agents.json")["agents"][1]["address"], "10.0.0.2");
}

TEST(MonApi, many_agents_come_in_pieces_once_each)
{
    HttpSite site;
    for (int i = 0; i < 900; ++i) {
        site.tell("JOIN lab 10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250) +
                  " 1 239.1.1.1");
    }
    const json answer = get_json(site, "/agents.json");
    std::set<std::string> seen;
    for (const json& row : answer["agents"]) {
        seen.insert(row["agent"].get<std::string>());
    }
    EXPECT_EQ(answer["agents"].size(), 900U);
    EXPECT_EQ(seen.size(), 900U);
}

TEST(MonApi, activity_counts_and_tells_the_last_events)
{
    HttpSite site;
    tell_some(site);
    site.tell("LEAVE lab 10.0.0.1 700 239.1.0.10");
    const json answer = get_json(site, "/activity.json");
    EXPECT_EQ(answer["version"], "1.2.3");
    ASSERT_EQ(answer["joins"].size(), 120U);
    int joins = 0;
    int leaves = 0;
    for (size_t i = 0; i < 120; ++i) {
        joins += answer["joins"][i].get<int>();
        leaves += answer["leaves"][i].get<int>();
    }
    EXPECT_EQ(joins, 4);
    EXPECT_EQ(leaves, 1);
    ASSERT_EQ(answer["events"].size(), 5U);
    EXPECT_EQ(answer["events"][0]["event"], "leave");
    EXPECT_EQ(answer["last_id"], answer["events"][0]["id"]);
}

TEST(MonApi, metrics_pass_promtool)
{
    HttpSite site;
    tell_some(site);
    http_get(site, "/nothing");
    const HttpAnswer answer = http_get(site, "/metrics");
    EXPECT_EQ(answer.field("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
    for (const char* line :
         {"zentmon_build_info{version=\"1.2.3\"} 1", "zentmon_datagrams_total{listener=\"site\"} 3",
          "zentmon_lines_total{agent=\"10.0.0.1\",kind=\"join\"} 3", "zentmon_bad_lines_total{reason=",
          "zentmon_denied_total 0", "zentmon_receive_dropped_total{listener=\"site\"} 0",
          "zentmon_limit_dropped_total{what=", "zentmon_agents 2",
          "zentmon_groups{agent=\"10.0.0.1\",state=\"joined\"} 3",
          "zentmon_agent_last_line_timestamp_seconds{agent=\"10.0.0.2\"} 1",
          "zentmon_agent_flows{agent=\"10.0.0.1\"} 1", "zentmon_events_total{event=\"join\"} 4",
          "zentmon_http_clients{kind=\"plain\"} 1", "zentmon_http_requests_total{code=\"404\"} 1",
          "zentmon_hook_runs_total{result=\"ok\"} 0", "zentmon_output_dropped_total{sink=",
          "process_cpu_seconds_total ", "process_open_fds ", "process_start_time_seconds 1"}) {
        EXPECT_NE(answer.body.find(std::string("\n") + line), std::string::npos) << line;
    }
    EXPECT_NE(answer.body.find("\nzentmon_empty_datagrams_total 0\n"), std::string::npos);
    EXPECT_EQ(answer.body.find("group=\""), std::string::npos);
    if (access("/usr/bin/promtool", X_OK) != 0) {
        GTEST_SKIP() << "promtool (package prometheus) is not installed";
    }
    const TempDir dir;
    const std::string file = dir.path() + "/metrics";
    FILE* out = fopen(file.c_str(), "we");
    ASSERT_NE(out, nullptr);
    fputs(answer.body.c_str(), out);
    fclose(out);
    const ChildResult check = run_program({"/bin/sh", "-c", "exec promtool check metrics < " + file});
    EXPECT_EQ(check.exit_code, 0) << check.err << check.out;
    EXPECT_EQ(check.err + check.out, "");
}

TEST(MonStream, begins_with_retry_and_a_ping)
{
    const HttpSite site;
    Stream stream(site);
    const StreamEvent ping = stream.any();
    EXPECT_EQ(ping.name, "ping");
    EXPECT_GT(ping.data["now"], 1.7e9);
    EXPECT_TRUE(stream.said_retry());
}

TEST(MonStream, pings_again_and_again)
{
    SiteOptions options;
    options.stream.ping_ms = 300;
    const HttpSite site(options);
    Stream stream(site);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(stream.any().name, "ping");
    }
}

TEST(MonStream, tells_what_happens_from_now_on)
{
    HttpSite site;
    tell_some(site);
    Stream stream(site);
    EXPECT_EQ(stream.any().name, "ping");
    site.tell("LEAVE lab 10.0.0.1 700 239.1.0.10");
    const StreamEvent event = stream.next();
    EXPECT_EQ(event.name, "");
    EXPECT_EQ(event.id, last_id(site));
    EXPECT_EQ(event.data["id"], event.id);
    EXPECT_EQ(event.data["event"], "leave");
    EXPECT_EQ(event.data["group"], "239.1.0.10");
    EXPECT_EQ(event.data["agent"], "10.0.0.1");
    EXPECT_EQ(event.data.size(), 7U);
}

TEST(MonStream, resumes_behind_an_id)
{
    HttpSite site;
    tell_some(site);
    const std::string id = last_id(site);
    site.tell("LEAVE lab 10.0.0.1 700 239.1.0.2");
    site.tell("LEAVE lab 10.0.0.1 700 239.1.0.10");
    Stream since(site, "?since=" + id);
    EXPECT_EQ(since.next().data["group"], "239.1.0.2");
    const StreamEvent second = since.next();
    EXPECT_EQ(second.data["group"], "239.1.0.10");
    Stream header(site, "?since=" + second.id, "Last-Event-ID: " + id + "\r\n"); // as a browser reconnects
    EXPECT_EQ(header.next().data["group"], "239.1.0.2");
    Stream all(site, "?since=" + id.substr(0, id.find('-')) + "-0");
    EXPECT_EQ(all.next().data["event"], "join");
}

TEST(MonStream, an_id_of_another_life_gives_reset_and_the_stream_goes_on)
{
    HttpSite site;
    tell_some(site);
    Stream stream(site, "?since=0123456789abcdef-1");
    const StreamEvent reset = stream.next();
    EXPECT_EQ(reset.name, "reset");
    EXPECT_EQ(reset.id, last_id(site));
    site.tell("JOIN lab 10.0.0.3 1 239.9.9.9");
    EXPECT_EQ(stream.next().data["event"], "join");
}

TEST(MonStream, an_id_that_is_unknown_or_too_old_gives_reset)
{
    SiteOptions options;
    options.stream.ring = 10;
    HttpSite site(options);
    site.tell("MANY 30 10.0.0.1");
    const std::string id = last_id(site);
    const std::string boot = id.substr(0, id.find('-'));
    for (const std::string& bad : {boot + "-19", boot + "-31", boot + "-", boot + "-1x", boot, boot + "--1",
                                   boot + "-99999999999999999999999", std::string("x")}) {
        EXPECT_EQ(Stream(site, "?since=" + bad).next().name, "reset") << bad;
    }
    EXPECT_EQ(Stream(site, "?since=" + boot + "-20").next().id, boot + "-21");
    EXPECT_EQ(Stream(site, "?since=" + boot + "-29").next().id, boot + "-30");
}

TEST(MonStream, a_rename_gives_one_reset_to_who_listens_and_to_who_comes_back)
{
    HttpSite site;
    tell_some(site);
    const std::string before = last_id(site);
    Stream stream(site);
    EXPECT_EQ(stream.any().name, "ping");
    site.tell("NAME 10.0.0.1 hall");
    EXPECT_EQ(stream.next().name, "reset");
    Stream away(site, "?since=" + before); // was away meanwhile, and missed no event
    const StreamEvent reset = away.next();
    EXPECT_EQ(reset.name, "reset");
    EXPECT_EQ(reset.id, last_id(site));
    EXPECT_EQ(get_json(site, "/groups.json?agent=hall")["total"], 3);
    Stream back(site, "?since=" + reset.id);
    site.tell("JOIN lab 10.0.0.1 700 239.9.9.9");
    for (Stream* each : {&stream, &away, &back}) {
        EXPECT_EQ(each->next().data["agent"], "hall");
    }
}

TEST(MonStream, a_flood_becomes_one_reset)
{
    SiteOptions options;
    options.stream.reset_ms = 60'000;
    HttpSite site(options);
    Stream stream(site);
    EXPECT_EQ(stream.any().name, "ping");
    site.tell("MANY 2001 10.0.0.1");
    const StreamEvent reset = stream.next();
    EXPECT_EQ(reset.name, "reset");
    EXPECT_EQ(reset.id, last_id(site));
    site.tell("JOIN lab 10.0.0.2 1 239.9.9.9"); // and it goes on
    EXPECT_EQ(stream.next().data["group"], "239.9.9.9");
}

TEST(MonStream, two_thousand_events_at_once_are_told)
{
    HttpSite site;
    Stream stream(site);
    EXPECT_EQ(stream.any().name, "ping");
    site.tell("MANY 2000 10.0.0.1");
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(stream.next().data["event"], "join") << i;
    }
}

TEST(MonStream, resets_come_no_faster_than_they_may)
{
    SiteOptions options;
    options.stream.reset_ms = 1'500;
    options.stream.per_flush = 10;
    HttpSite site(options);
    Stream stream(site);
    EXPECT_EQ(stream.any().name, "ping");
    site.tell("MANY 100 10.0.0.1");
    const double first = stream.next().data["now"];
    site.tell("MANY 100 10.0.0.2");
    const StreamEvent second = stream.next(); // nothing in between, though it had to wait
    EXPECT_EQ(second.name, "reset");
    EXPECT_GE(second.data["now"].get<double>() - first, 1.4);
}
