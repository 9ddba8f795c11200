// The head of a request: where it ends, what is refused with which code, the rules for Host, the query; and
// the filter of groups.
#include "filter.h"
#include "http_head.h"

#include <gtest/gtest.h>

using namespace zentmon;

namespace {

const std::vector<std::string> kHosts = {"mon.example.org"};

int status_of(const std::string& head)
{
    return read_request(head, kHosts).status;
}

std::string get_of_host(const std::string& host)
{
    return "GET / HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
}

bool passes(const std::string& filter, uint32_t group, const AgentName& who = {"hall-1", "10.0.0.5", "lab"})
{
    return Filter(filter).matches(group, who);
}

} // namespace

TEST(MonHttpHead, ends_at_the_empty_line_whatever_its_pieces_were)
{
    const std::string head = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
    EXPECT_EQ(find_head_end(head + "more", 0).length, head.size());
    for (size_t cut = 0; cut < head.size(); ++cut) {
        EXPECT_EQ(find_head_end(head.substr(0, cut), 0).length, 0U) << cut;
        EXPECT_EQ(find_head_end(head, cut).length, head.size()) << cut;
    }
}

TEST(MonHttpHead, a_line_feed_alone_is_no_end_of_a_line)
{
    EXPECT_TRUE(find_head_end("GET / HTTP/1.1\n", 0).broken);
    EXPECT_TRUE(find_head_end("\n", 0).broken);
    EXPECT_FALSE(find_head_end("GET / HTTP/1.1\r\n", 0).broken);
}

TEST(MonHttpHead, path_query_and_version_are_taken)
{
    const Request request = read_request("GET /groups.json?limit=1&x=%20 HTTP/1.1\r\nHost: localhost\r\n"
                                         "Last-Event-ID: ab-7\r\n\r\n",
                                         {});
    EXPECT_EQ(request.status, 0);
    EXPECT_EQ(request.path, "/groups.json");
    EXPECT_EQ(request.query, "limit=1&x=%20");
    EXPECT_EQ(request.last_event_id, "ab-7");
    EXPECT_TRUE(request.keep_alive);
    EXPECT_FALSE(request.head_only);
    EXPECT_TRUE(read_request("HEAD / HTTP/1.0\r\n\r\n", {}).head_only);
}

TEST(MonHttpHead, the_connection_is_kept_as_version_and_field_say)
{
    EXPECT_FALSE(read_request("GET / HTTP/1.0\r\n\r\n", {}).keep_alive);
    EXPECT_TRUE(read_request("GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", {}).keep_alive);
    EXPECT_FALSE(
        read_request("GET / HTTP/1.1\r\nHost: localhost\r\nConnection: te, Close\r\n\r\n", {}).keep_alive);
}

TEST(MonHttpHead, other_methods_are_405_and_no_methods_400)
{
    EXPECT_EQ(status_of("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 3\r\n\r\n"), 405);
    EXPECT_EQ(status_of("OPTIONS * HTTP/1.1\r\nHost: localhost\r\n\r\n"), 405);
    EXPECT_EQ(status_of("CONNECT a:1 HTTP/1.1\r\nHost: localhost\r\n\r\n"), 405);
    EXPECT_EQ(status_of("get / HTTP/1.1\r\nHost: localhost\r\n\r\n"), 405); // methods have a case
    EXPECT_EQ(status_of("GET / HTTP/2.0\r\nHost: localhost\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET /\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET  / HTTP/1.1\r\nHost: localhost\r\n\r\n"), 400);
}

TEST(MonHttpHead, a_target_is_a_path_or_a_url_of_ours)
{
    EXPECT_EQ(status_of("GET http://localhost/healthz HTTP/1.1\r\nHost: localhost\r\n\r\n"), 0);
    EXPECT_EQ(status_of("GET http://evil.example/ HTTP/1.1\r\nHost: localhost\r\n\r\n"), 421);
    EXPECT_EQ(status_of("GET http:/// HTTP/1.1\r\nHost: localhost\r\n\r\n"), 421);
    EXPECT_EQ(status_of("GET http://localhost HTTP/1.1\r\nHost: localhost\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET * HTTP/1.1\r\nHost: localhost\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET healthz HTTP/1.1\r\nHost: localhost\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET /#a HTTP/1.1\r\nHost: localhost\r\n\r\n"), 400);
    EXPECT_EQ(read_request("GET HTTP://localhost/healthz HTTP/1.1\r\nHost: x\r\n\r\n", {}).path, "/healthz");
}

TEST(MonHttpHead, a_body_is_refused)
{
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 0\r\n\r\n"), 0);
}

TEST(MonHttpHead, one_host_is_owed_by_http_1_1)
{
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\nHost: localhost\r\nhost: localhost\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET / HTTP/1.0\r\n\r\n"), 0);
    EXPECT_EQ(status_of("GET / HTTP/1.0\r\nHost: evil.example\r\n\r\n"), 421);
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\nHost : localhost\r\n\r\n"), 400);
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\nX: a\r\n Host: localhost\r\n\r\n"), 400);
}

TEST(MonHttpHead, a_host_is_a_literal_localhost_or_a_name_of_ours)
{
    for (const char* host :
         {"localhost", "LOCALHOST:8580", "localhost.", "127.0.0.1", "10.9.8.7:80", "[::1]", "[::1]:8580",
          "[fe80::1]", "mon.example.org", "Mon.Example.Org:443", "mon.example.org.", "localhost:"}) {
        EXPECT_EQ(status_of(get_of_host(host)), 0) << host;
    }
    for (const char* host :
         {"evil.example", "localhost.evil.example", "xlocalhost", "127.0.0.1.evil.example", "127.1",
          "1.2.3.4.5", "mon.example.org.evil.example", "", "256.1.1.1", "0x7f000001"}) {
        EXPECT_EQ(status_of(get_of_host(host)), 421) << host;
    }
    for (const char* host : {"a b", "[::1", "[::1]x", "[127.0.0.1]", "[]", "localhost:80x",
                             "localhost:123456", "user@localhost", "localhost/", "a,b", "[::1]:8:0"}) {
        EXPECT_EQ(status_of(get_of_host(host)), 400) << host;
    }
}

TEST(MonHttpQuery, values_are_decoded)
{
    const auto query = Query::parse("filter=239.1.0.0%2f16+a%20b&limit=&after=1%2C2&&flag");
    ASSERT_TRUE(query);
    EXPECT_EQ(query->get("filter"), "239.1.0.0/16 a b");
    EXPECT_EQ(query->get("limit"), "");
    EXPECT_EQ(query->get("after"), "1,2");
    EXPECT_EQ(query->get("flag"), "");
    EXPECT_FALSE(query->get("other"));
    EXPECT_TRUE(query->only({"filter", "limit", "after", "flag"}));
    EXPECT_FALSE(query->only({"filter", "limit", "after"}));
    EXPECT_EQ(Query::parse("a=1&a=2")->get("a"), "1");
}

TEST(MonHttpQuery, broken_escapes_and_floods_are_refused)
{
    EXPECT_FALSE(Query::parse("a=%"));
    EXPECT_FALSE(Query::parse("a=%1"));
    EXPECT_FALSE(Query::parse("a=%zz"));
    EXPECT_FALSE(Query::parse("a=%00"));
    EXPECT_TRUE(Query::parse(""));
    std::string many;
    for (int i = 0; i < 33; ++i) {
        many += "a=1&";
    }
    EXPECT_FALSE(Query::parse(many));
    EXPECT_TRUE(Query::parse(many.substr(4)));
}

TEST(MonFilter, digits_are_the_beginning_of_an_address)
{
    EXPECT_TRUE(passes("239.1.", 0xef010203));
    EXPECT_FALSE(passes("239.1.", 0xef0b0203)); // 239.11.2.3
    EXPECT_TRUE(passes("239.1", 0xef0b0203));
    EXPECT_TRUE(passes("10.0.", 0xef010203)); // the agent's
    EXPECT_TRUE(passes("", 0xef010203));
}

TEST(MonFilter, a_whole_address_is_that_one_alone)
{
    EXPECT_TRUE(passes("239.1.0.1", 0xef010001));
    EXPECT_FALSE(passes("239.1.0.1", 0xef01000a)); // 239.1.0.10
    EXPECT_TRUE(passes("10.0.0.5", 0xef01000a));
}

TEST(MonFilter, a_network_holds_groups_and_agents)
{
    EXPECT_TRUE(passes("239.1.0.0/16", 0xef01ffff));
    EXPECT_FALSE(passes("239.1.0.0/16", 0xef020000));
    EXPECT_TRUE(passes("239.1.77.0/16", 0xef010000)); // bits behind the prefix do not matter
    EXPECT_TRUE(passes("0.0.0.0/0", 0xe0000001));
    EXPECT_TRUE(passes("239.1.0.1/32", 0xef010001));
    EXPECT_TRUE(passes("10.0.0.0/8", 0xef020000));
    EXPECT_FALSE(passes("239.1.0.0/33", 0xef010000));
    EXPECT_FALSE(passes("239.1.0.0/", 0xef010000));
}

TEST(MonFilter, words_are_parts_of_names_and_all_must_match)
{
    EXPECT_TRUE(passes("HALL", 0xef010001));
    EXPECT_TRUE(passes("lab", 0xef010001));
    EXPECT_FALSE(passes("hall-2", 0xef010001));
    EXPECT_TRUE(passes(" hall\t239.1. ", 0xef010001));
    EXPECT_FALSE(passes("hall 239.2.", 0xef010001));
    EXPECT_TRUE(passes("fe80", 0xef010001, {"x", "fe80::1", "lab"}));
}
