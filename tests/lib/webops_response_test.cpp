// Heads of responses, as text and as curl sees them; texts for HTML and playlists.
#include "webops.h"

#include <arpa/inet.h>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <random>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "child.h"
#include "fixtures.h"
#include "text.h"

using support::expect_abort;
using support::expect_assertion;
using support::Lines;

namespace {

struct http_response plain(int code)
{
    return {code, nullptr, -1, "Reason", "srv", nullptr, nullptr, nullptr};
}

// The head, composed in a block of its exact size; "(-1)" for a failure.
std::string composed(const struct http_response& r, size_t size = 4096)
{
    std::vector<char> buf(std::max<size_t>(size, 1), '\x55');
    const ssize_t n = mk_http_response(&r, buf.data(), size);
    if (n < 0) {
        return "(" + std::to_string(n) + ")";
    }
    EXPECT_EQ(buf[static_cast<size_t>(n)], '\0');
    return {buf.data(), static_cast<size_t>(n)};
}

struct Canned {
    struct http_response* record;
    int code;
    const char* reason;
    long content_length;
    const char* connection;
};

const Canned kCanned[] = {
    {&g_resp_ok, 200, "OK", -1, nullptr},
    {&g_resp_tmoved, 302, "Moved Temporarily", 0, "close"},
    {&g_resp_bad, 400, "Bad request", 0, nullptr},
    {&g_resp_denied, 403, "Forbidden", 0, "close"},
    {&g_resp_nfound, 404, "Not Found", 0, "close"},
    {&g_resp_timeout, 408, "Request Timeout", 0, "close"},
    {&g_resp_err, 500, "Service error", 0, "close"},
};

std::string expected_head(const Canned& c)
{
    return "HTTP/1.1 " + std::to_string(c.code) + " " + c.reason + "\r\nServer: test\r\n" +
           (c.content_length == 0 ? "Content-Length: 0\r\n" : "") +
           (c.connection != nullptr ? "Connection: close\r\n" : "") + "\r\n";
}

struct Escaped {
    int count;
    std::string text;

    bool operator==(const Escaped&) const = default;
};

void PrintTo(const Escaped& e, std::ostream* out)
{
    *out << "{" << e.count << ", [" << e.text << "]}";
}

Escaped escaped(const std::string& text, size_t size = 64)
{
    std::vector<char> dst(std::max<size_t>(size, 1), '#');
    const int count = web_escape(text.c_str(), dst.data(), size);
    return {count, std::string(dst.data(), strnlen(dst.data(), dst.size()))};
}

struct Item {
    int rc;
    std::string url;

    bool operator==(const Item&) const = default;
};

void PrintTo(const Item& i, std::ostream* out)
{
    *out << "{" << i.rc << ", [" << i.url << "]}";
}

Item item_url(const char* m3u, const char* path, size_t size = 64)
{
    std::vector<char> buf(std::max<size_t>(size, 1), '#');
    const int rc = mk_hls_item_url(m3u, path, buf.data(), size);
    return {rc, std::string(buf.data(), strnlen(buf.data(), buf.size()))};
}

} // namespace

TEST(WebResponse, all_headers_in_their_order)
{
    const struct http_response r = {200,     "video/mp2t",       12,         "OK", "srv",
                                    "close", "X-A: 1\r\nX-B: 2", "http://h/"};
    EXPECT_EQ(composed(r),
              "HTTP/1.1 200 OK\r\nServer: srv\r\nContent-Type: video/mp2t\r\nContent-Length: 12\r\n"
              "Connection: close\r\nLocation: http://h/\r\nX-A: 1\r\nX-B: 2\r\n\r\n");
}

TEST(WebResponse, absent_and_empty_fields_leave_their_headers_out)
{
    struct http_response r = plain(404);
    EXPECT_EQ(composed(r), "HTTP/1.1 404 Reason\r\nServer: srv\r\n\r\n");
    r.content_type = r.connection = r.location = r.ok_suffix = "";
    EXPECT_EQ(composed(r), "HTTP/1.1 404 Reason\r\nServer: srv\r\n\r\n");
    r.content_length = 0;
    EXPECT_EQ(composed(r), "HTTP/1.1 404 Reason\r\nServer: srv\r\nContent-Length: 0\r\n\r\n");
    r.content_length = LONG_MAX;
    EXPECT_EQ(composed(r),
              "HTTP/1.1 404 Reason\r\nServer: srv\r\nContent-Length: 9223372036854775807\r\n\r\n");
    r.reason = r.server = "";
    r.content_length = LONG_MIN;
    r.code = -5;
    EXPECT_EQ(composed(r), "HTTP/1.1 -5 \r\nServer: \r\n\r\n");
}

TEST(WebResponse, suffix_goes_with_code_200_alone)
{
    struct http_response r = plain(200);
    r.ok_suffix = "X-A: 1";
    EXPECT_EQ(composed(r), "HTTP/1.1 200 Reason\r\nServer: srv\r\nX-A: 1\r\n\r\n");
    for (const int code : {199, 201, 206, 299, 404}) {
        r.code = code;
        EXPECT_EQ(composed(r), "HTTP/1.1 " + std::to_string(code) + " Reason\r\nServer: srv\r\n\r\n");
    }
}

TEST(WebResponse, head_needs_two_bytes_more_than_its_length)
{
    struct http_response r = {200, "t/t", 12, "OK", "srv", "close", "X-A: 1", "http://h/"};
    for (const char* suffix : {"X-A: 1", static_cast<const char*>(nullptr)}) {
        r.ok_suffix = suffix;
        const std::string whole = composed(r);
        for (size_t size = 0; size < whole.size() + 2; ++size) {
            ASSERT_EQ(composed(r, size), "(-1)") << size;
        }
        EXPECT_EQ(composed(r, whole.size() + 2), whole);
    }
}

TEST(WebResponse, kept_line_of_128_characters_is_left_out)
{
    struct http_response r = plain(200);
    const std::string type(127 - strlen("Content-Type: \r\n"), 't');
    r.content_type = type.c_str();
    EXPECT_EQ(composed(r), "HTTP/1.1 200 Reason\r\nServer: srv\r\nContent-Type: " + type + "\r\n\r\n");
    const std::string longer = type + "t";
    r.content_type = longer.c_str();
    r.connection = "close";
    EXPECT_EQ(composed(r), "HTTP/1.1 200 Reason\r\nServer: srv\r\nConnection: close\r\n\r\n");
    // It still has to have room.
    EXPECT_EQ(composed(r, 34 + 128), "(-1)");
    const std::string rest = composed(r);
    EXPECT_LT(rest.size() + 2, 34U + 128);
}

TEST(WebResponse, server_and_reason_may_be_long)
{
    struct http_response r = plain(200);
    const std::string text(500, 's');
    r.server = r.reason = text.c_str();
    EXPECT_EQ(composed(r), "HTTP/1.1 200 " + text + "\r\nServer: " + text + "\r\n\r\n");
}

TEST(WebResponse, missing_fields_end_the_process)
{
    for (int missing = 0; missing < 3; ++missing) {
        expect_assertion("mk_http_response", [missing] {
            struct http_response r = plain(missing == 0 ? 0 : 200);
            r.reason = missing == 1 ? nullptr : r.reason;
            r.server = missing == 2 ? nullptr : r.server;
            char buf[256];
            return static_cast<int>(mk_http_response(&r, buf, sizeof buf));
        });
    }
}

class WebCanned : public support::GuardedTest {};

TEST_F(WebCanned, records_and_their_codes)
{
    for (const Canned& c : kCanned) {
        SCOPED_TRACE(c.code);
        EXPECT_EQ(match_http_response(c.code), c.record);
        EXPECT_EQ(c.record->code, c.code);
        EXPECT_STREQ(c.record->reason, c.reason);
        EXPECT_EQ(c.record->content_length, c.content_length);
        EXPECT_STREQ(c.record->connection, c.connection);
        EXPECT_EQ(c.record->server, nullptr);
        EXPECT_EQ(c.record->content_type, nullptr);
        EXPECT_EQ(c.record->ok_suffix, nullptr);
        EXPECT_EQ(c.record->location, nullptr);
    }
    for (const int code : {0, -1, 199, 201, 301, 401, 501, int{RC_PING}}) {
        EXPECT_EQ(match_http_response(code), nullptr) << code;
    }
}

TEST_F(WebCanned, what_a_user_writes_stays)
{
    match_http_response(302)->location = "http://h/";
    EXPECT_STREQ(match_http_response(302)->location, "http://h/");
    g_resp_tmoved.location = nullptr;
}

TEST_F(WebCanned, a_code_that_a_user_writes_does_not_change_which_record_is_matched)
{
    g_resp_err.code = 503;
    EXPECT_EQ(match_http_response(500), &g_resp_err);
    EXPECT_EQ(match_http_response(503), nullptr);
    g_resp_err.code = 500;
}

TEST_F(WebCanned, without_server_the_process_ends)
{
    expect_abort("", [] { return send_http_response(1, &g_resp_ok); });
}

TEST_F(WebCanned, each_is_sent_as_composed)
{
    for (const Canned& c : kCanned) {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        struct http_response* r = match_http_response(c.code);
        r->server = "test";
        log.clear();
        EXPECT_EQ(send_http_response(pair[0], r), 0);
        EXPECT_EQ(log.lines(), Lines{});
        close(pair[0]);
        char buf[4096];
        const ssize_t n = read(pair[1], buf, sizeof buf);
        EXPECT_EQ(std::string(buf, n > 0 ? static_cast<size_t>(n) : 0), expected_head(c));
        close(pair[1]);
    }
}

TEST_F(WebCanned, curl_understands_each)
{
    if (access("/usr/bin/curl", X_OK) != 0) {
        GTEST_SKIP() << "skipped: no curl here";
    }
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), length), 0);
    ASSERT_EQ(listen(listener, 4), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &length), 0);
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/";
    for (const Canned& c : kCanned) {
        for (const char* option : {"-i", "-I"}) {
            support::Process curl({"/usr/bin/curl", "-s", "-S", "--noproxy", "*", "--max-time", "120", option,
                                   url + std::to_string(c.code)});
            const int fd = accept(listener, nullptr, nullptr);
            ASSERT_GE(fd, 0);
            char request[4096];
            const ssize_t n = read(fd, request, sizeof request - 1);
            ASSERT_GT(n, 0);
            request[n] = '\0';
            char path[16];
            char query[16];
            ASSERT_EQ(extract_http_request_path_query(request, static_cast<size_t>(n), path, sizeof path,
                                                      query, sizeof query - 1),
                      0);
            struct http_response* r = match_http_response(atoi(path));
            ASSERT_NE(r, nullptr);
            r->server = "test";
            EXPECT_EQ(send_http_response(fd, r), 0);
            close(fd);
            const auto result = curl.wait();
            EXPECT_EQ(result.exit_code, 0) << result.err;
            EXPECT_EQ(result.out, expected_head(c));
        }
    }
    close(listener);
}

class WebSendResponse : public support::GuardedTest {};

TEST_F(WebSendResponse, head_that_does_not_fit)
{
    const std::string text(4096, 's');
    struct http_response r = plain(200);
    r.server = text.c_str();
    EXPECT_EQ(send_http_response(1, &r), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  send_http_response: error compiling HTTP response for fd=1"}));
}

TEST_F(WebSendResponse, kept_failed_write_logs_the_line_of_a_short_one_too)
{
    const struct http_response r = plain(200);
    const std::string length = std::to_string(composed(r).size());
    EXPECT_EQ(send_http_response(-1, &r), -1);
    EXPECT_EQ(errno, EBADF);
    ASSERT_EQ(log.lines().size(), 4U); // the first is that of the call itself
    EXPECT_EQ(log.lines()[1], "(ERR)  send_http_response: error sending HTTP response to fd=-1");
    EXPECT_EQ(log.lines()[2], "(WRN)  send_http_response: only -1 out of " + length + " bytes sent to fd=-1");
    EXPECT_EQ(log.lines()[3], "(ERR)  send_http_response: error compiling HTTP response for fd=-1");
}

TEST_F(WebSendResponse, kept_short_write_is_a_success)
{
    char name[] = "/tmp/webops_short_XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    unlink(name);
    const struct http_response r = plain(200);
    // A file that may not grow beyond a limit takes a part of the write.
    const auto result = support::run_in_child([fd, &r] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{10, 10};
        setrlimit(RLIMIT_FSIZE, &limit);
        log_default(&g_log, stderr);
        log_timefmt(&g_log, f_NO_TIME);
        return send_http_response(fd, &r);
    });
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err, "(WRN)  send_http_response: only 10 out of " + std::to_string(composed(r).size()) +
                              " bytes sent to fd=" + std::to_string(fd) + "\n");
    close(fd);
}

TEST_F(WebSendResponse, success_is_shown_at_debug_level)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const struct http_response r = plain(200);
    const std::string head = composed(r);
    log.set_level(DEBUG_level);
    EXPECT_EQ(send_http_response(pair[0], &r), 0);
    EXPECT_EQ(log.text(), "(DBG)  send_http_response: sent HTTP response (" + std::to_string(head.size()) +
                              " bytes) to fd=" + std::to_string(pair[0]) + ":\n" + head + "\n");
    close(pair[0]);
    close(pair[1]);
}

TEST(WebEscape, counts_stretches)
{
    EXPECT_EQ(escaped("a&b"), (Escaped{2, "a&amp;b"}));
    EXPECT_EQ(escaped("a&"), (Escaped{1, "a&amp;"}));
    EXPECT_EQ(escaped("&"), (Escaped{1, "&amp;"}));
    EXPECT_EQ(escaped("<a href='x'>\""), (Escaped{5, "&lt;a href=&apos;x&apos;&gt;&quot;"}));
}

TEST(WebEscape, nothing_to_escape_leaves_the_buffer)
{
    EXPECT_EQ(escaped("ab").count, 0);
    EXPECT_EQ(escaped("ab").text, std::string(64, '#'));
    EXPECT_EQ(escaped("").count, 0);
}

TEST(WebEscape, without_buffer_it_only_counts)
{
    EXPECT_EQ(web_escape("a&b<c", nullptr, 0), 3);
    EXPECT_EQ(web_escape("abc", nullptr, 0), 0);
}

TEST(WebEscape, rest_of_the_buffer_becomes_zero)
{
    char dst[16];
    memset(dst, '#', sizeof dst);
    EXPECT_EQ(web_escape("a&b", dst, sizeof dst), 2);
    EXPECT_EQ(std::string(dst, sizeof dst), "a&amp;b" + std::string(9, '\0'));
}

TEST(WebEscape, text_must_fit_and_behind_a_sequence_a_terminator_too)
{
    for (const char* text : {"a&b", "a&", "&", "<<<>>>", "abc&defghij", "a&b&c"}) {
        const Escaped whole = escaped(text);
        const bool ends_in_sequence = whole.text.back() == ';';
        const size_t needed = whole.text.size() + (ends_in_sequence ? 1 : 0);
        for (size_t size = 0; size < needed; ++size) {
            ASSERT_EQ(escaped(text, size).count, -ERANGE) << text << " " << size;
        }
        EXPECT_EQ(escaped(text, needed), whole);
        EXPECT_EQ(escaped(text, needed + 1), whole);
    }
}

TEST(WebEscape, kept_last_stretch_that_fills_the_buffer_has_no_terminator)
{
    char dst[8];
    memset(dst, '#', sizeof dst);
    EXPECT_EQ(web_escape("a&b", dst, 7), 2);
    EXPECT_EQ(std::string(dst, 8), "a&amp;b#");
    EXPECT_EQ(web_escape("a&bc", dst, 7), -ERANGE);
}

TEST(WebEscape, random_texts_agree_with_a_model)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 2000; ++round) {
        std::string text;
        std::string expected;
        int count = 0;
        for (unsigned n = random() % 12; n > 0; --n) {
            const char c = "&><'\"ab"[random() % 7];
            text += c;
            const char* place = c >= 'a' ? nullptr : strchr(web_ESC, c);
            expected += place != nullptr ? web_SEQ[std::string(web_ESC).find(c)] : std::string(1, c);
            count += place != nullptr ? 1 : 0;
        }
        if (count > 0 && text.back() >= 'a') {
            ++count;
        }
        const Escaped got = escaped(text, 128);
        ASSERT_EQ(got.count, count) << text;
        if (count > 0) {
            ASSERT_EQ(got.text, expected);
        }
    }
}

TEST(WebEscape, table_of_sequences)
{
    EXPECT_EQ(strlen(web_ESC) + 1, static_cast<size_t>(web_SEQ_COUNT));
    EXPECT_EQ(web_SEQ[web_SEQ_COUNT - 1], nullptr);
}

class WebHls : public support::GuardedTest {};

TEST_F(WebHls, relative_items_are_joined)
{
    EXPECT_EQ(item_url("http://h/a/l.m3u8", "s1.ts"), (Item{0, "http://h/a/s1.ts"}));
    EXPECT_EQ(item_url("HTTP://h/l.m3u8", "b/s1.ts"), (Item{0, "HTTP://h/b/s1.ts"}));
    EXPECT_EQ(item_url("http://h/", ""), (Item{0, "http://h/"}));
}

TEST_F(WebHls, rest_of_the_buffer_becomes_zero)
{
    char buf[16];
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(mk_hls_item_url("http://h/l", "s", buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf, sizeof buf), "http://h/s" + std::string(6, '\0'));
}

TEST_F(WebHls, kept_root_path_and_other_schemes_are_joined_like_any_other)
{
    EXPECT_EQ(item_url("http://h/a/l.m3u8", "/s1.ts"), (Item{0, "http://h/a//s1.ts"}));
    EXPECT_EQ(item_url("http://h/a/l.m3u8", "https://x/y"), (Item{0, "http://h/a/https://x/y"}));
}

TEST_F(WebHls, kept_absolute_item_that_fills_the_buffer_has_no_terminator)
{
    EXPECT_EQ(item_url("anything", "Http://x/y"), (Item{0, "Http://x/y"}));
    EXPECT_EQ(item_url("anything", "http://x/y", 10).url, "http://x/y"); // fills the buffer: no terminator
    EXPECT_EQ(item_url("anything", "http://x/y", 8).url, "http://x");
    EXPECT_EQ(item_url("anything", "http://x/y", 0), (Item{0, "#"}));
}

TEST_F(WebHls, playlists_that_are_none)
{
    EXPECT_EQ(item_url("https://h/a", "s").rc, EINVAL);
    EXPECT_EQ(item_url("", "s").rc, EINVAL);
    EXPECT_EQ(item_url("http://h", "s").rc, EINVAL);
    EXPECT_EQ(item_url("http:///x", "s").rc, EINVAL);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  mk_hls_item_url: non-http M3U url: https://h/a",
                                  "(ERR)  mk_hls_item_url: non-http M3U url: ",
                                  "(ERR)  mk_hls_item_url: pfx-len=6 bad m3u URL: http://h",
                                  "(ERR)  mk_hls_item_url: pfx-len=7 bad m3u URL: http:///x"}));
}

TEST_F(WebHls, room_for_the_url)
{
    EXPECT_EQ(item_url("http://h/l", "s", 11), (Item{0, "http://h/s"}));
    EXPECT_EQ(item_url("http://h/l", "s", 10), (Item{EINVAL, "##########"}));
    EXPECT_EQ(item_url("http://h/l", "s", 0), (Item{EINVAL, "#"}));
    EXPECT_EQ(log.lines().size(), 2U);
}
