// The HTTP server as strangers meet it: raw bytes, limits, slow and silent clients.
#include "http_site.h"

#include <algorithm>
#include <fcntl.h>
#include <list>
#include <sys/resource.h>

#include <nlohmann/json.hpp>

using namespace support;

TEST(MonHttp, answers_a_request)
{
    const HttpSite site;
    const HttpAnswer answer = http_get(site, "/healthz");
    EXPECT_EQ(answer.code, 200);
    EXPECT_EQ(answer.body, "ok\n");
    EXPECT_EQ(answer.field("Content-Length"), "3");
}

TEST(MonHttp, every_answer_carries_the_security_fields)
{
    const HttpSite site;
    for (const char* target :
         {"/", "/healthz", "/nothing", "/groups.json", "/groups.json?limit=x", "/events"}) {
        RawClient client(site.port());
        client.get(target);
        const HttpAnswer answer = client.answer(true);
        EXPECT_NE(answer.field("Content-Security-Policy").find("default-src 'none'"), std::string::npos)
            << target;
        EXPECT_EQ(answer.field("X-Content-Type-Options"), "nosniff") << target;
        EXPECT_FALSE(answer.field("Cache-Control").empty()) << target;
        EXPECT_FALSE(answer.field("Content-Type").empty()) << target;
    }
}

TEST(MonHttp, the_page_and_its_files_are_compiled_in)
{
    const HttpSite site;
    EXPECT_EQ(http_get(site, "/").field("Content-Type"), "text/html; charset=utf-8");
    EXPECT_EQ(http_get(site, "/app.js").field("Content-Type"), "text/javascript; charset=utf-8");
    EXPECT_EQ(http_get(site, "/icon.svg").field("Content-Type"), "image/svg+xml");
    const std::string style = http_get(site, "/style.css").body;
    EXPECT_EQ(style.substr(0, 2), "/*");
    EXPECT_EQ(style.substr(style.size() - 2), "}\n");
}

TEST(MonHttp, the_page_names_no_other_host)
{
    const HttpSite site;
    for (const char* path : {"/", "/app.js", "/style.css"}) {
        const std::string body = http_get(site, path).body;
        EXPECT_EQ(body.find("http://"), std::string::npos) << path;
        EXPECT_EQ(body.find("https://"), std::string::npos) << path;
        EXPECT_EQ(body.find("ref=\"/"), std::string::npos)
            << path << ": an absolute path breaks behind a proxy's path";
    }
}

TEST(MonHttp, head_is_get_without_a_body)
{
    const HttpSite site;
    RawClient client(site.port());
    client.send(
        "HEAD /healthz HTTP/1.1\r\nHost: localhost\r\n\r\nHEAD /groups.json HTTP/1.1\r\nHost: localhost\r\n\r\n"
        "HEAD /events HTTP/1.1\r\nHost: localhost\r\n\r\nGET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_EQ(client.answer(true).field("Content-Length"), "3");
    EXPECT_EQ(client.answer(true).field("Content-Type"), "application/json");
    EXPECT_EQ(client.answer(true).field("Content-Type"), "text/event-stream");
    EXPECT_EQ(client.answer().body, "ok\n");
}

TEST(MonHttp, errors_have_their_code_and_a_json_text)
{
    const HttpSite site;
    const std::pair<const char*, int> cases[] = {
        {"GET /nothing HTTP/1.1\r\nHost: localhost\r\n\r\n", 404},
        {"GET /index.html/.. HTTP/1.1\r\nHost: localhost\r\n\r\n", 404},
        {"GET /%2e%2e/etc/passwd HTTP/1.1\r\nHost: localhost\r\n\r\n", 404},
        {"POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 0\r\n\r\n", 405},
        {"GET / HTTP/1.1\r\nHost: evil.example\r\n\r\n", 421},
        {"GET / HTTP/1.1\r\n\r\n", 400},
        {"GET / HTTP/1.1\r\nHost: a\r\nHost: a\r\n\r\n", 400},
        {"GET / HTTP/1.1\nHost: localhost\n\n", 400},
        {"\x16\x03\x01\x02\x01\xfc\x03\x03\r\n\r\n", 400}, // as of TLS
        {"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 400},
        {"GET /groups.json?filter=%zz HTTP/1.1\r\nHost: localhost\r\n\r\n", 400},
        {"GET /history.json HTTP/1.1\r\nHost: localhost\r\n\r\n", 404},
    };
    for (const auto& [bytes, code] : cases) {
        RawClient client(site.port());
        client.send(bytes);
        const HttpAnswer answer = client.answer();
        EXPECT_EQ(answer.code, code) << bytes;
        EXPECT_TRUE(nlohmann::json::parse(answer.body)["error"].is_string()) << bytes;
        EXPECT_EQ(answer.field("Allow"), code == 405 ? "GET, HEAD" : "") << bytes;
    }
}

TEST(MonHttp, hosts_of_the_configuration_are_served)
{
    SiteOptions options;
    options.hosts = {"mon.example.org"};
    const HttpSite site(options);
    RawClient client(site.port());
    client.send("GET /healthz HTTP/1.1\r\nHost: mon.example.org:443\r\n\r\n");
    EXPECT_EQ(client.answer().code, 200);
}

TEST(MonHttp, a_head_may_come_byte_by_byte)
{
    const HttpSite site;
    RawClient client(site.port());
    for (const char c : std::string("\r\nGET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n")) {
        ASSERT_TRUE(client.send(std::string(1, c)));
    }
    EXPECT_EQ(client.answer().body, "ok\n");
}

TEST(MonHttp, empty_lines_in_front_of_a_request_may_come_in_pieces)
{
    const HttpSite site;
    RawClient client(site.port());
    for (const char* piece : {"\r", "\n\r\n\r", "\nGET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n"}) {
        ASSERT_TRUE(client.send(piece));
        RawClient next(site.port()); // it is answered when the piece has been read
        next.get("/healthz");
        ASSERT_EQ(next.answer().body, "ok\n");
    }
    EXPECT_EQ(client.answer().body, "ok\n");
}

TEST(MonHttp, requests_on_one_connection_are_answered_in_order)
{
    const HttpSite site;
    RawClient client(site.port());
    std::string train;
    for (int i = 0; i < 50; ++i) {
        train += i % 2 == 0 ? "GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n"
                            : "GET /agents.json HTTP/1.1\r\nHost: localhost\r\n\r\n";
    }
    client.send(train);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(client.answer().body == "ok\n", i % 2 == 0) << i;
    }
}

TEST(MonHttp, http_1_0_gets_its_answer_and_an_end)
{
    const HttpSite site;
    RawClient client(site.port());
    client.send("GET /groups.json HTTP/1.0\r\n\r\n");
    const HttpAnswer answer = client.answer();
    EXPECT_EQ(answer.field("Transfer-Encoding"), "");
    EXPECT_EQ(answer.field("Connection"), "close");
    EXPECT_EQ(nlohmann::json::parse(answer.body)["total"], 0);
}

TEST(MonHttp, a_half_closed_client_gets_its_answer)
{
    const HttpSite site;
    RawClient client(site.port());
    client.get("/groups.json", "Connection: close\r\n");
    client.end_of_requests();
    EXPECT_EQ(client.answer().code, 200);
    EXPECT_TRUE(client.ends());
}

TEST(MonHttp, a_head_of_ten_mebibytes_is_431)
{
    const HttpSite site;
    RawClient client(site.port());
    const std::string line = "X-Filler: " + std::string(1013, 'x') + "\r\n";
    client.send("GET / HTTP/1.1\r\nHost: localhost\r\n");
    for (int i = 0; i < 10 * 1024; ++i) {
        if (!client.send(line)) {
            break;
        }
    }
    EXPECT_EQ(client.answer().code, 431);
}

TEST(MonHttp, a_head_of_8192_bytes_is_served_and_one_more_is_not)
{
    const HttpSite site;
    const std::string start = "GET /healthz HTTP/1.1\r\nHost: localhost\r\nX: ";
    for (const size_t size : {size_t{8192}, size_t{8193}}) {
        RawClient client(site.port());
        client.send(start + std::string(size - start.size() - 4, 'x') + "\r\n\r\n");
        EXPECT_EQ(client.answer().code, size == 8192 ? 200 : 431);
    }
}

TEST(MonHttp, a_silent_client_is_closed_when_its_time_is_over)
{
    SiteOptions options;
    options.http.head_ms = 2'000;
    const HttpSite site(options);
    RawClient silent(site.port());
    RawClient half(site.port());
    RawClient kept(site.port());
    half.send("GET / HTTP/1.1\r\nHost: local");
    kept.get("/healthz");
    EXPECT_EQ(kept.answer().code, 200);
    EXPECT_TRUE(silent.ends());
    EXPECT_TRUE(half.ends());
    EXPECT_TRUE(kept.ends());
}

TEST(MonHttp, a_thousand_silent_clients_keep_nobody_out)
{
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max; // a thousand sockets on this side too
    setrlimit(RLIMIT_NOFILE, &limit);
    const HttpSite site;
    std::vector<std::unique_ptr<RawClient>> silent;
    for (int i = 0; i < 1000; ++i) {
        silent.push_back(std::make_unique<RawClient>(site.port()));
        if (i % 100 == 99) {
            EXPECT_EQ(http_get(site, "/healthz").code, 200) << i;
        }
    }
    EXPECT_EQ(http_get(site, "/healthz").code, 200);
    const std::string metrics = http_get(site, "/metrics").body;
    const size_t at = metrics.find("zentmon_http_clients{kind=\"plain\"} ");
    ASSERT_NE(at, std::string::npos);
    EXPECT_LE(atoi(metrics.c_str() + at + 35), 256 + 64);
    EXPECT_TRUE(silent.front()->ends()); // the oldest had to go
}

TEST(MonHttp, the_oldest_unfinished_head_makes_room)
{
    SiteOptions options;
    options.http.clients = 3;
    const HttpSite site(options);
    RawClient first(site.port());
    first.send("GET ");
    RawClient stream(site.port());
    stream.get("/events");
    EXPECT_EQ(stream.answer(true).code, 200);
    RawClient second(site.port());
    second.send("GET /healthz HTTP/1.1\r\n");
    RawClient third(site.port());
    third.get("/healthz");
    EXPECT_EQ(third.answer().code, 200);
    EXPECT_TRUE(first.ends());
    second.send("Host: localhost\r\n\r\n");
    EXPECT_EQ(second.answer().code, 200);
}

TEST(MonHttp, where_all_are_served_the_next_is_told_503)
{
    SiteOptions options;
    options.http.clients = 2;
    const HttpSite site(options);
    RawClient one(site.port());
    RawClient two(site.port());
    for (RawClient* stream : {&one, &two}) {
        stream->get("/events");
        EXPECT_EQ(stream->answer(true).code, 200);
    }
    RawClient three(site.port());
    const HttpAnswer answer = three.answer();
    EXPECT_EQ(answer.code, 503);
    EXPECT_EQ(nlohmann::json::parse(answer.body)["error"], "too many clients");
}

TEST(MonHttp, who_does_not_read_costs_the_others_nothing_and_is_closed)
{
    SiteOptions options;
    options.http.stall_ms = 3'000;
    HttpSite site(options);
    site.tell("MANY 60000 10.0.0.1");
    std::vector<std::unique_ptr<RawClient>> slow;
    for (int i = 0; i < 20; ++i) {
        slow.push_back(std::make_unique<RawClient>(site.port(), 4096));
        slow.back()->get("/groups.json");
    }
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(http_get(site, "/healthz").code, 200);
    }
    EXPECT_EQ(nlohmann::json::parse(http_get(site, "/groups.json").body)["groups"].size(), 60000U);
    // All but this client are closed in the end, though they never read.
    EXPECT_TRUE(wait_until([&site] {
        return http_get(site, "/metrics").body.find("zentmon_http_clients{kind=\"plain\"} 1\n") !=
               std::string::npos;
    }));
}

TEST(MonHttp, a_reader_of_ten_bytes_at_a_time_gets_it_all)
{
    HttpSite site;
    site.tell("MANY 300 10.0.0.1");
    RawClient client(site.port(), 1024);
    client.get("/groups.json", "Connection: close\r\n");
    std::string all;
    char buffer[10];
    for (ssize_t got = 0; (got = recv(client.fd(), buffer, sizeof buffer, 0)) > 0;) {
        all.append(buffer, static_cast<size_t>(got));
    }
    EXPECT_EQ(all.substr(all.size() - 7), "\r\n0\r\n\r\n");
}

TEST(MonHttp, who_talks_into_a_stream_is_closed)
{
    const HttpSite site;
    RawClient client(site.port());
    client.get("/events");
    EXPECT_EQ(client.answer(true).code, 200);
    client.send(std::string(64UL * 1024, 'x'));
    EXPECT_TRUE(client.ends());
}

TEST(MonHttp, the_history_answers_later_or_says_why_not)
{
    SiteOptions options;
    options.history = true;
    const HttpSite site(options);
    EXPECT_EQ(http_get(site, "/history.json").body, R"({"events":[],"next":null})");
    EXPECT_EQ(http_get(site, "/history.json?agent=later").body, R"({"events":[{"id":"x-1"}],"next":"x-1"})");
    EXPECT_EQ(http_get(site, "/history.json?limit=0").code, 400);
    EXPECT_EQ(http_get(site, "/history.json?agent=away").code, 503);
    {
        RawClient gone(site.port());
        gone.get("/history.json?agent=later"); // and does not wait
    }
    EXPECT_EQ(http_get(site, "/history.json?agent=later").code, 200);
}

TEST(MonHttp, answers_of_the_history_that_nobody_reads_have_an_end)
{
    SiteOptions options;
    options.history = true;
    options.http.stall_ms = 600'000; // on a loaded machine the requests take longer than its 30 s
    const HttpSite site(options);
    {
        std::list<RawClient> slow;
        for (int i = 0; i < 4; ++i) {
            slow.emplace_back(site.port(), 4096).get("/history.json?agent=large");
            ASSERT_TRUE(slow.back().read_until("\r\n\r\n"));
        }
        EXPECT_EQ(http_get(site, "/history.json").code, 503);
        EXPECT_EQ(http_get(site, "/healthz").code, 200) << "all else is served";
    }
    int code = 0;
    for (int i = 0; i < 10'000 && code != 200; ++i) {
        code = http_get(site, "/history.json").code;
    }
    EXPECT_EQ(code, 200) << "they have gone";
    for (int i = 0; i < 5; ++i) {
        const HttpAnswer answer = http_get(site, "/history.json?agent=large");
        EXPECT_EQ(answer.code, 200) << "the answers before were read";
        EXPECT_EQ(answer.body.size(), HistoryStub::kLargeAnswer);
    }
}
