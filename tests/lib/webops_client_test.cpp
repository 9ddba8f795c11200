// The client's half of HTTP: the request's text, the response's head in pieces of any size, real servers.
#include "webops.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "child.h"
#include "fds.h"
#include "fixtures.h"
#include "logcap.h"
#include "oom.h"
#include "text.h"
#include "udp.h"
#include "wait.h"
#include "wrap.h"

using support::FailAllocation;
using support::FdGuard;
using support::Lines;
using support::LogCapture;
using support::SocketPair;

namespace {

int g_read_error = 0; // what read() fails with; 0: nothing

// Ours is the client's socket, peer plays the server.
struct Wire : SocketPair {
    explicit Wire(int flags = 0) : SocketPair(SOCK_STREAM | flags) {}

    void say(const std::string& text) const
    {
        ASSERT_EQ(write(peer, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    std::string heard() const
    {
        char block[8192];
        const ssize_t n = recv(peer, block, sizeof block, MSG_DONTWAIT);
        return {block, n > 0 ? static_cast<size_t>(n) : 0};
    }
};

// A response being read into a block of its exact size.
struct Reading {
    explicit Reading(size_t size = 1024) : buf(size, '\x55') {}

    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    ~Reading() { reset_resp_ctx(&ctx); }

    int from(int fd) { return recv_http_response(fd, buf.data(), buf.size(), &ctx); }

    std::string body() const { return {buf.data() + ctx.tail, static_cast<size_t>(ctx.total - ctx.tail)}; }

    std::vector<char> buf;
    struct http_resp_ctx ctx = NULL_http_ctx;
};

struct Answer {
    int rc;
    int code;
    std::string location;
    std::string type;
    long length;
};

Answer answer_to(const std::string& head)
{
    Wire wire;
    wire.say(head);
    wire.peer.reset();
    Reading reading;
    reading.ctx.content_length = 77;
    const int rc = reading.from(wire.ours);
    return {rc, reading.ctx.code, reading.ctx.location != nullptr ? reading.ctx.location : "(null)",
            reading.ctx.content_type, reading.ctx.content_length};
}

const std::string kPlain = "HTTP/1.1 200 OK\r\nServer: x\r\n\r\n";

std::string request_text(const char* line, const char* host, const char* connection, const char* agent)
{
    return std::string("GET ") + line + "\r\nHost: " + host + "\r\nConnection: " + connection +
           "\r\nUser-Agent: " + agent +
           "\r\nAccept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
           "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n";
}

std::string sent_by(struct http_request request)
{
    Wire wire;
    EXPECT_EQ(send_http_request(wire.ours, &request), 0);
    return wire.heard();
}

} // namespace

WRAPPED(ssize_t, read, (int fd, void* buf, size_t count));

extern "C" {
ssize_t __wrap_read(int fd, void* buf, size_t count)
{
    if (g_read_error != 0) {
        errno = g_read_error;
        return -1;
    }
    return __real_read(fd, buf, count);
}
}

class WebSend : public support::GuardedTest {};

TEST_F(WebSend, request_word_for_word)
{
    EXPECT_EQ(sent_by({RQTYPE_GET, 0, "/a?b", "agent/1", "host", "8080"}),
              request_text("/a?b HTTP/1.1", "host:8080", "close", "agent/1"));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(WebSend, flags_choose_version_and_connection)
{
    EXPECT_EQ(sent_by({RQTYPE_GET, RQFLAG_HTTP10_GET, "/", "t", "h", nullptr}),
              request_text("/ HTTP/1.0", "h", "close", "t"));
    EXPECT_EQ(sent_by({RQTYPE_GET, RQFLAG_KEEPALIVE, "/", "t", "h", nullptr}),
              request_text("/ HTTP/1.1", "h", "keep-alive", "t"));
    EXPECT_EQ(sent_by({RQTYPE_GET, RQFLAG_HTTP10_GET | RQFLAG_KEEPALIVE, "/", "t", "h", nullptr}),
              request_text("/ HTTP/1.0", "h", "keep-alive", "t"));
}

TEST_F(WebSend, leading_slash_is_added_where_there_is_none)
{
    EXPECT_EQ(sent_by({RQTYPE_GET, 0, "a", "t", "h", nullptr}),
              request_text("/a HTTP/1.1", "h", "close", "t"));
    EXPECT_EQ(sent_by({RQTYPE_GET, 0, "", "t", "h", nullptr}), request_text("/ HTTP/1.1", "h", "close", "t"));
    EXPECT_EQ(sent_by({RQTYPE_GET, 0, "//a", "t", "h", nullptr}),
              request_text("//a HTTP/1.1", "h", "close", "t"));
}

TEST_F(WebSend, host_without_name_is_localhost)
{
    EXPECT_EQ(sent_by({RQTYPE_GET, 0, "/", "t", nullptr, nullptr}),
              request_text("/ HTTP/1.1", "localhost", "close", "t"));
    EXPECT_EQ(sent_by({RQTYPE_GET, 0, "/", "t", "", "81"}),
              request_text("/ HTTP/1.1", "localhost:81", "close", "t"));
}

TEST_F(WebSend, blank_port_is_no_port)
{
    for (const char* port : {"", " ", "\t80", "\r", "\n"}) {
        EXPECT_EQ(sent_by({RQTYPE_GET, 0, "/", "t", "h", port}),
                  request_text("/ HTTP/1.1", "h", "close", "t"));
    }
}

TEST_F(WebSend, only_get_is_sent)
{
    Wire wire;
    struct http_request request = {RQTYPE_HEAD, 0, "/", "t", "h", nullptr};
    EXPECT_EQ(send_http_request(wire.ours, &request), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  send_http_request: only GET requests are currently supported."}));
    EXPECT_EQ(wire.heard(), "");
}

TEST_F(WebSend, host_has_a_limit)
{
    const std::string host126(126, 'h');
    EXPECT_NE(sent_by({RQTYPE_GET, 0, "/", "t", host126.c_str(), nullptr}).find("Host: " + host126 + "\r\n"),
              std::string::npos);
    EXPECT_EQ(log.lines(), Lines{});
    Wire wire;
    const std::string host128(128, 'h');
    struct http_request request = {RQTYPE_GET, 0, "/", "t", host128.c_str(), nullptr};
    EXPECT_EQ(send_http_request(wire.ours, &request), -1);
    const std::string host125(125, 'h');
    request.host_addr = host125.c_str();
    request.host_port = "80";
    EXPECT_EQ(send_http_request(wire.ours, &request), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  send_http_request: host buffer is too small, 128 bytes needed",
                                  "(ERR)  send_http_request: host buffer is too small, 128 bytes needed"}));
    EXPECT_EQ(wire.heard(), "");
}

TEST_F(WebSend, kept_host_of_exactly_127_characters_loses_its_last)
{
    const std::string host(127, 'h');
    EXPECT_NE(sent_by({RQTYPE_GET, 0, "/", "t", host.c_str(), nullptr})
                  .find("Host: " + host.substr(0, 126) + "\r\n"),
              std::string::npos);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(WebSend, request_has_a_limit)
{
    const size_t frame = request_text("/ HTTP/1.1", "h", "close", "t").size() - 1;
    const std::string fits = "/" + std::string(2046 - frame - 1, 'x');
    EXPECT_EQ(sent_by({RQTYPE_GET, 0, fits.c_str(), "t", "h", nullptr}),
              request_text((fits + " HTTP/1.1").c_str(), "h", "close", "t"));
    EXPECT_EQ(log.lines(), Lines{});
    Wire wire;
    const std::string over = fits + "xx";
    struct http_request request = {RQTYPE_GET, 0, over.c_str(), "t", "h", nullptr};
    EXPECT_EQ(send_http_request(wire.ours, &request), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  send_http_request: buffer is too small, 2048 bytes required."}));
    EXPECT_EQ(wire.heard(), "");
}

TEST_F(WebSend, kept_request_of_exactly_2047_characters_goes_out_with_a_zero_byte_at_its_end)
{
    const size_t frame = request_text("/ HTTP/1.1", "h", "close", "t").size() - 1;
    const std::string path = "/" + std::string(2047 - frame - 1, 'x');
    std::string expected = request_text((path + " HTTP/1.1").c_str(), "h", "close", "t");
    ASSERT_EQ(expected.size(), 2047U);
    expected.back() = '\0';
    EXPECT_EQ(sent_by({RQTYPE_GET, 0, path.c_str(), "t", "h", nullptr}), expected);
}

TEST_F(WebSend, failed_writes_are_told)
{
    struct http_request request = {RQTYPE_GET, 0, "/", "t", "h", nullptr};
    EXPECT_EQ(send_http_request(-1, &request), -1);
    EXPECT_EQ(errno, EBADF);
    ASSERT_EQ(log.lines().size(), 2U); // of the write itself, and of this layer
    EXPECT_EQ(log.lines()[1], "(ERR)  send_http_request: error sending HTTP request to fd=-1");

    // A pipe with less room than the request refuses it.
    int pipe_fds[2];
    ASSERT_EQ(pipe2(pipe_fds, O_NONBLOCK), 0);
    const int capacity = fcntl(pipe_fds[1], F_SETPIPE_SZ, 4096);
    ASSERT_EQ(capacity, 4096);
    const std::string path = "/" + std::string(1500, 'x');
    request.request = path.c_str();
    log.clear();
    int sent = 0;
    while (send_http_request(pipe_fds[1], &request) == 0) {
        ASSERT_LT(++sent, 4);
    }
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    EXPECT_GT(sent, 0);
    EXPECT_EQ(log.lines().back(),
              "(ERR)  send_http_request: error sending HTTP request to fd=" + std::to_string(pipe_fds[1]));
}

TEST_F(WebSend, short_write_is_a_warning_and_a_failure)
{
    // A regular file that may not grow beyond a limit takes a part of a write.
    char name[] = "/tmp/webops_short_XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    unlink(name);
    const auto result = support::run_in_child([fd] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{100, 100};
        setrlimit(RLIMIT_FSIZE, &limit);
        log_default(&g_log, stderr);
        log_timefmt(&g_log, f_NO_TIME);
        struct http_request request = {RQTYPE_GET, 0, "/", "t", "h", nullptr};
        return send_http_request(fd, &request) == -1 ? 0 : 1;
    });
    EXPECT_EQ(result.exit_code, 0);
    const size_t whole = request_text("/ HTTP/1.1", "h", "close", "t").size();
    EXPECT_EQ(result.err, "(WRN)  send_http_request: only 100 out of " + std::to_string(whole) +
                              " bytes sent to fd=" + std::to_string(fd) + "\n");
    close(fd);
}

TEST_F(WebSend, full_write_is_shown_at_debug_level)
{
    Wire wire;
    log.set_level(DEBUG_level);
    struct http_request request = {RQTYPE_GET, 0, "/", "t", "h", nullptr};
    EXPECT_EQ(send_http_request(wire.ours, &request), 0);
    const std::string text = request_text("/ HTTP/1.1", "h", "close", "t");
    EXPECT_EQ(log.text(), "(DBG)  send_http_request: sent " + std::to_string(text.size()) +
                              " bytes to fd=" + std::to_string(wire.ours) + ":\n" + text);
}

class WebGet : public support::GuardedTest {};

TEST_F(WebGet, url_becomes_a_request)
{
    struct Case {
        const char* url;
        const char* line;
        const char* host;
    };

    for (const Case& c : {
             Case{"http://h/a", "/a HTTP/1.1", "h"},
             Case{"http://h", "/ HTTP/1.1", "h"},
             Case{"http://h?", "/ HTTP/1.1", "h"},
             Case{"http://h:8080/a/b?c=d", "/a/b?c=d HTTP/1.1", "h:8080"},
             Case{"http://h:8080?c=d", "/?c=d HTTP/1.1", "h:8080"},
             Case{"http://[::1]:80/x", "/x HTTP/1.1", "::1:80"},
             Case{"http://u@h/x", "/x HTTP/1.1", "h"},
             Case{"udp://h:1/x", "/x HTTP/1.1", "h:1"}, // the scheme is the caller's business
             Case{"http://:81/x", "/x HTTP/1.1", "localhost:81"},
         }) {
        Wire wire;
        EXPECT_EQ(send_http_get(wire.ours, c.url, "tag", false), 0);
        EXPECT_EQ(wire.heard(), request_text(c.line, c.host, "close", "tag")) << c.url;
    }
}

TEST_F(WebGet, kept_bracketed_host_without_port_asks_for_its_bracket)
{
    Wire wire;
    EXPECT_EQ(send_http_get(wire.ours, "http://[::1]/x", "tag", false), 0);
    EXPECT_EQ(wire.heard(), request_text("/]/x HTTP/1.1", "::1", "close", "tag"));
}

TEST_F(WebGet, version_1_0_on_demand)
{
    Wire wire;
    log.set_level(DEBUG_level);
    EXPECT_EQ(send_http_get(wire.ours, "http://h/a", "tag", true), 0);
    EXPECT_EQ(wire.heard(), request_text("/a HTTP/1.0", "h", "close", "tag"));
    EXPECT_EQ(log.lines()[0], "(DBG)  send_http_get: Using HTTP/1.0 request");
}

TEST_F(WebGet, longest_query_arrives_whole)
{
    Wire wire;
    const std::string query(URI_QUERY_MAX - 1, 'q');
    EXPECT_EQ(send_http_get(wire.ours, ("http://h/a?" + query).c_str(), "tag", false), 0);
    EXPECT_EQ(wire.heard(), request_text(("/a?" + query + " HTTP/1.1").c_str(), "h", "close", "tag"));
}

TEST_F(WebGet, refused_urls_send_nothing)
{
    Wire wire;
    EXPECT_EQ(send_http_get(wire.ours, "no url", "tag", false), -1);
    log.clear();
    EXPECT_EQ(send_http_get(wire.ours, "http://[::1/x", "tag", false), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  uri_path_addrport: ERROR parsing path=[[::1/x]",
                                  "(ERR)  send_http_get: URI has no path tail: http://[::1/x"}));
    EXPECT_EQ(wire.heard(), "");
}

class WebRead : public support::GuardedTest {};

TEST_F(WebRead, ok_with_body_bytes_behind_the_head)
{
    Wire wire;
    wire.say(kPlain + "body");
    Reading reading;
    EXPECT_EQ(reading.from(wire.ours), 0);
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(reading.ctx.code, 200);
    EXPECT_EQ(reading.ctx.tail, static_cast<ssize_t>(kPlain.size()));
    EXPECT_EQ(reading.body(), "body");
    // The head is one text: the marker's last byte became its terminator.
    EXPECT_EQ(std::string(reading.buf.data()), kPlain.substr(0, kPlain.size() - 1));
}

TEST_F(WebRead, versions_are_served_alike)
{
    for (const char* head : {"HTTP/1.0 200 OK\r\n\r\n", "HTTP/1.1 200 OK\r\n\r\n", "HTTP/2.0 200 OK\r\n\r\n",
                             "HTTP/1.1 200 OK\n\n"}) {
        EXPECT_EQ(answer_to(head).rc, 0) << head;
        EXPECT_EQ(answer_to(head).code, 200) << head;
    }
}

TEST_F(WebRead, status_lines_that_are_refused)
{
    struct Case {
        const char* line;
        int parsed;
    };

    for (const Case& c : {Case{"HTTP/11.0 200 OK", 1}, Case{"HTTP/1.1 200", 3}, Case{"HTTP/1.1 200 ", 3},
                          Case{"HTTP/1.1 OK", 2}, Case{"http/1.1 200 OK", 0}, Case{"HTTP/1.11 200 OK", 3},
                          Case{"ICY 200 OK", 0}, Case{"", -1}}) {
        log.clear();
        const Answer answer = answer_to(std::string(c.line) + "\r\n\r\n");
        if (std::string(c.line) == "HTTP/1.11 200 OK") {
            EXPECT_EQ(answer.rc, 0); // the second digit is taken for the code
            EXPECT_EQ(answer.code, 1);
            continue;
        }
        EXPECT_EQ(answer.rc, -1) << c.line;
        EXPECT_EQ(log.lines(), (Lines{"(ERR)  recv_http_response: parsed " + std::to_string(c.parsed) +
                                      " < 4 elements (expected to be parsed)"}))
            << c.line;
    }
}

TEST_F(WebRead, status_lines_of_unusual_form)
{
    struct Case {
        const char* line;
        int code;
        const char* shown;
    };

    for (const Case& c : {Case{"HTTP/1.1 404 Not Found", 404, "HTTP/1.1 404 [Not Found]"},
                          Case{"HTTP/1.1  404 \tNot", 404, "HTTP/1.1 404 [Not]"},
                          Case{"HTTP/ 1. 1 404 Not", 404, "HTTP/1.1 404 [Not]"},
                          Case{"HTTP/1.1 +404 Not", 404, "HTTP/1.1 404 [Not]"},
                          Case{"HTTP/1.1 0404 Not", 404, "HTTP/1.1 404 [Not]"},
                          Case{"HTTP/1.1 4040 Not", 4040, "HTTP/1.1 4040 [Not]"},
                          Case{"HTTP/1.1 404Not", 404, "HTTP/1.1 404 [Not]"},
                          Case{"HTTP/1.1 40 4Not", 40, "HTTP/1.1 40 [4Not]"}}) {
        log.clear();
        log.set_level(DEBUG_level);
        EXPECT_EQ(answer_to(std::string(c.line) + "\r\n\r\n").code, c.code) << c.line;
        EXPECT_NE(log.text().find(std::string("received: ") + c.shown + "\n"), std::string::npos)
            << log.text();
    }
}

TEST_F(WebRead, reason_may_be_long)
{
    log.set_level(DEBUG_level);
    EXPECT_EQ(answer_to("HTTP/1.1 404 " + std::string(70, 'r') + "\r\n\r\n").code, 404);
    EXPECT_NE(log.text().find("received: HTTP/1.1 404 [" + std::string(63, 'r') + "]\n"), std::string::npos);
}

TEST_F(WebRead, head_split_at_every_byte)
{
    const std::string head = "HTTP/1.1 302 Moved\r\nLocation: http://h/x\r\nContent-Type: a/b\r\n"
                             "Content-Length: 5\r\n\r\n";
    for (const std::string& text : {head, std::string("HTTP/1.1 200 OK\nA: b\n\n")}) {
        for (size_t at = 1; at < text.size(); ++at) {
            SCOPED_TRACE(at);
            Wire wire(SOCK_NONBLOCK);
            Reading reading;
            log.clear();
            wire.say(text.substr(0, at));
            ASSERT_EQ(reading.from(wire.ours), EAGAIN);
            EXPECT_EQ(reading.ctx.total, static_cast<ssize_t>(at));
            EXPECT_EQ(reading.ctx.tail, 0);
            wire.say(text.substr(at));
            ASSERT_EQ(reading.from(wire.ours), 0);
            EXPECT_EQ(reading.ctx.tail, static_cast<ssize_t>(text.size()));
            EXPECT_EQ(log.lines(),
                      (Lines{"(WRN)  read_http: fd=" + std::to_string(wire.ours) +
                             ", no HTTP EOD marker found, " + std::to_string(at) + " bytes read."}));
            if (reading.ctx.code == 302) {
                EXPECT_STREQ(reading.ctx.location, "http://h/x");
            }
        }
    }
}

TEST_F(WebRead, head_byte_by_byte)
{
    Wire wire(SOCK_NONBLOCK);
    Reading reading;
    for (size_t i = 0; i < kPlain.size(); ++i) {
        wire.say(kPlain.substr(i, 1));
        ASSERT_EQ(reading.from(wire.ours), i + 1 < kPlain.size() ? EAGAIN : 0);
    }
    EXPECT_EQ(reading.ctx.code, 200);
}

TEST_F(WebRead, markers_that_end_a_head)
{
    struct Case {
        const char* text;
        ssize_t tail;
    };

    for (const Case& c : {
             Case{"a\n\nb", 3},
             Case{"a\r\n\r\nb", 5},
             Case{"\n\n", 2},
             Case{"\r\n\r\n", 4},
             Case{"a\r\n\nbcd", 4}, // by the rule of LF, once it is not near the end
             Case{"a\r\n\n", 0},
             Case{"a\n\r\nbcd", 0},
             Case{"a\r\r\n\r\n", 6},
             Case{"a\n", 0},
             Case{"a\r\n\r", 0},
             Case{"a\rb\n\n", 5}, // three bytes stand behind the CR
             Case{"a\r\n\nb", 4},
             Case{"\r\n\n", 0},
             Case{"abc", 0},
         }) {
        Wire wire;
        wire.say(c.text);
        char buf[64];
        ssize_t tail = 0;
        log.clear();
        EXPECT_EQ(read_http(wire.ours, buf, sizeof buf, 0, &tail), static_cast<ssize_t>(strlen(c.text)));
        EXPECT_EQ(tail, c.tail) << testing::PrintToString(c.text);
    }
}

TEST_F(WebRead, cr_near_the_end_hides_a_marker_until_more_comes)
{
    Wire wire;
    char buf[64];
    ssize_t tail = 0;
    wire.say("\rx\n");
    EXPECT_EQ(read_http(wire.ours, buf, sizeof buf, 0, &tail), 3);
    wire.say("\n");
    EXPECT_EQ(read_http(wire.ours, buf, sizeof buf, 3, &tail), 1);
    EXPECT_EQ(tail, 4);
}

TEST_F(WebRead, read_http_lines_and_bounds)
{
    Wire wire;
    char buf[8];
    log.set_level(DEBUG_level);
    const std::string fd = std::to_string(wire.ours);
    wire.say("a\n\n");
    EXPECT_EQ(read_http(wire.ours, buf, sizeof buf, 0, nullptr), 3);
    EXPECT_EQ(log.lines(), (Lines{"(DBG)  read_http: HTTP EOD marker found at pos=3",
                                  "(DBG)  read_http: 3 bytes read from fd" + fd}));
    log.clear();
    wire.say("b");
    ssize_t tail = 77;
    EXPECT_EQ(read_http(wire.ours, buf, 1, 0, &tail), 1);
    EXPECT_EQ(tail, 77); // stored only where the marker is found
    EXPECT_EQ(log.lines(), (Lines{"(WRN)  read_http: fd=" + fd + ", no HTTP EOD marker found, 1 bytes read.",
                                  "(DBG)  read_http: 1 bytes read from fd" + fd}));
    log.clear();
    wire.say("more");
    for (const ssize_t offset : {ssize_t{8}, ssize_t{9}, ssize_t{-1}}) {
        EXPECT_EQ(read_http(wire.ours, buf, sizeof buf, offset, &tail), 0) << offset;
    }
    wire.peer.reset();
    EXPECT_EQ(read_http(wire.ours, buf, sizeof buf, 0, &tail), 4);
    log.clear();
    EXPECT_EQ(read_http(wire.ours, buf, sizeof buf, 0, &tail), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(WebRead, head_that_just_fits_and_one_that_does_not)
{
    for (const bool fits : {true, false}) {
        Wire wire;
        wire.say(kPlain);
        Reading reading(kPlain.size() + (fits ? 1 : 0));
        log.clear();
        EXPECT_EQ(reading.from(wire.ours), fits ? 0 : -1);
        if (!fits) {
            EXPECT_EQ(log.lines().back(), "(WRN)  recv_http_response: buffer already full, yet no HTTP EOD");
            EXPECT_EQ(std::string(reading.buf.data(), kPlain.size() - 1),
                      kPlain.substr(0, kPlain.size() - 1));
        }
    }
}

TEST_F(WebRead, buffer_of_one_byte_is_full)
{
    Wire wire;
    Reading reading(1);
    EXPECT_EQ(reading.from(wire.ours), -1);
    EXPECT_EQ(log.lines(), (Lines{"(WRN)  recv_http_response: buffer already full, yet no HTTP EOD"}));
}

TEST_F(WebRead, context_of_a_larger_buffer_is_refused)
{
    Wire wire;
    Reading reading(8);
    reading.ctx.total = 100;
    reading.ctx.tail = 90;
    EXPECT_EQ(reading.from(wire.ours), -1);
    reading.ctx.total = -5; // compared as signed numbers, it asks for no byte
    reading.ctx.tail = 0;
    EXPECT_EQ(reading.from(wire.ours), -1);
    EXPECT_EQ(reading.buf, std::vector<char>(8, '\x55'));
}

TEST_F(WebRead, no_buffer_ends_the_process)
{
    for (const bool null : {true, false}) {
        support::expect_assertion("recv_http_response", [null] {
            char buf[8];
            struct http_resp_ctx ctx = NULL_http_ctx;
            return recv_http_response(0, null ? nullptr : buf, null ? 8 : 0, &ctx);
        });
    }
}

TEST_F(WebRead, peer_that_closes_before_the_marker)
{
    for (const char* text : {"", "HTTP/1.1 200 OK\r\n"}) {
        Wire wire;
        wire.say(text);
        wire.peer.reset();
        Reading reading;
        log.clear();
        EXPECT_EQ(reading.from(wire.ours), -1);
        EXPECT_EQ(log.lines().back(), "(ERR)  recv_http_response: client [fd=" + std::to_string(wire.ours) +
                                          "] connection broken");
    }
}

TEST_F(WebRead, peer_that_resets)
{
    Wire wire;
    ASSERT_EQ(write(wire.ours, "x", 1), 1); // unread at the close: a reset for us
    wire.peer.reset();
    Reading reading;
    EXPECT_EQ(reading.from(wire.ours), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  recv_http_response: client [fd=" + std::to_string(wire.ours) +
                                  "] connection broken"}));
}

TEST_F(WebRead, connection_that_is_aborted)
{
    Wire wire;
    Reading reading;
    g_read_error = ECONNABORTED;
    const int rc = reading.from(wire.ours);
    const int err = errno;
    g_read_error = 0;
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(err, ECONNABORTED);
    EXPECT_EQ(log.lines().back(),
              "(ERR)  recv_http_response: client [fd=" + std::to_string(wire.ours) + "] connection broken");
}

TEST_F(WebRead, other_errors_have_no_line_of_this_layer)
{
    Reading reading;
    EXPECT_EQ(reading.from(-1), -1);
    EXPECT_EQ(errno, EBADF);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.text().find("recv_http_response"), std::string::npos) << log.text();
}

TEST_F(WebRead, more_to_come_is_told_at_debug_level)
{
    Wire wire(SOCK_NONBLOCK);
    Reading reading;
    log.set_level(DEBUG_level);
    EXPECT_EQ(reading.from(wire.ours), EAGAIN);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.lines(),
              (Lines{"(DBG)  recv_http_response: expecting more data from fd=" + std::to_string(wire.ours)}));
}

TEST_F(WebRead, debug_lines_of_a_whole_head)
{
    Wire wire;
    wire.say("HTTP/1.1 ");
    Reading reading;
    log.set_level(DEBUG_level);
    const std::string fd = std::to_string(wire.ours);
    wire.say("200 OK\n\n");
    EXPECT_EQ(reading.from(wire.ours), 0);
    EXPECT_EQ(log.text(), "(DBG)  read_http: HTTP EOD marker found at pos=17\n"
                          "(DBG)  read_http: 17 bytes read from fd" +
                              fd +
                              "\n"
                              "(DBG)  recv_http_response: read 17 bytes from fd=" +
                              fd +
                              "\n"
                              "(DBG)  recv_http_response: total=17, tail=17; buf=[HTTP/1.1 200 OK\n]\n"
                              "(DBG)  recv_http_response: fd=" +
                              fd + " received: HTTP/1.1 200 [OK]\n");
}

TEST_F(WebRead, blanks_before_the_reason_do_not_belong_to_it)
{
    for (const char* blanks : {" ", "  ", " \t "}) {
        log.clear();
        log.set_level(DEBUG_level);
        answer_to(std::string("HTTP/1.1 200").append(blanks).append("OK\r\n\r\n"));
        EXPECT_NE(log.text().find(" received: HTTP/1.1 200 [OK]\n"), std::string::npos) << log.text();
    }
}

TEST_F(WebRead, kept_headers_are_looked_at_for_redirects_alone)
{
    for (const int code : {200, 204, 300, 303, 307, 404}) {
        const Answer a = answer_to("HTTP/1.1 " + std::to_string(code) +
                                   " R\r\nLocation: x\r\nContent-Type: y\r\nContent-Length: bad\r\n\r\n");
        EXPECT_EQ(a.rc, 0);
        EXPECT_EQ(a.code, code);
        EXPECT_EQ(a.location, "(null)");
        EXPECT_EQ(a.type, "");
        EXPECT_EQ(a.length, 77);
    }
    EXPECT_EQ(answer_to("HTTP/1.1 200 OK\r\nLocation:x\r\n\r\n").rc, 0);
}

TEST_F(WebRead, redirects_give_their_headers)
{
    for (const int code : {301, 302}) {
        log.clear();
        const Answer a =
            answer_to("HTTP/1.1 " + std::to_string(code) +
                      " Moved\r\nlocation: http://h/x\r\nCONTENT-TYPE: text/html\r\nContent-Length: "
                      "12\r\n\r\n");
        EXPECT_EQ(a.rc, 0);
        EXPECT_EQ(a.code, code);
        EXPECT_EQ(a.location, "http://h/x");
        EXPECT_EQ(a.type, "text/html");
        EXPECT_EQ(a.length, 12);
        EXPECT_EQ(log.lines(), Lines{});
    }
}

TEST_F(WebRead, redirect_without_length_stores_the_location_and_succeeds)
{
    const Answer a = answer_to("HTTP/1.1 302 Moved\r\nLocation: http://h/x\r\n\r\n");
    EXPECT_EQ(a.rc, 0);
    EXPECT_EQ(a.location, "http://h/x");
    EXPECT_EQ(a.length, -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  parse_resp_headers: invalid Content-Length value: "}));
}

TEST_F(WebRead, redirect_without_location)
{
    const Answer a = answer_to("HTTP/1.1 301 Moved\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(a.rc, 0);
    EXPECT_EQ(a.location, "(null)");
    EXPECT_EQ(a.length, 0);
}

TEST_F(WebRead, kept_redirect_without_any_cr_is_refused)
{
    EXPECT_EQ(answer_to("HTTP/1.1 302 Moved\nLocation: http://h/x\n\n").rc, -1);
    EXPECT_EQ(log.text(), "(ERR)  recv_http_response: cannot find LF at the end of response, broken? -- "
                          "HTTP/1.1 302 Moved\nLocation: http://h/x\n\n");
}

TEST_F(WebRead, other_byte_behind_the_first_cr_is_a_warning)
{
    const Answer a = answer_to("HTTP/1.1 302 Moved\rLocation: http://h/x\r\nContent-Length: 1\r\n\r\n");
    EXPECT_EQ(a.rc, 0);
    EXPECT_EQ(a.location, "http://h/x");
    EXPECT_EQ(log.lines(), (Lines{"(WRN)  recv_http_response: got 0x4c in place of CR(0x0a)"}));
    log.clear();
    EXPECT_EQ(answer_to("HTTP/1.1 302 Moved\nA: \xff\r\xffz\n\nbody").rc, 0);
    EXPECT_EQ(log.lines()[0], "(WRN)  recv_http_response: got 0xff in place of CR(0x0a)");
}

TEST_F(WebRead, location_has_a_limit)
{
    for (const size_t length : {2047U, 2048U}) {
        log.clear();
        Wire wire;
        const std::string location(length, 'l');
        wire.say("HTTP/1.1 302 M\r\nContent-Length: 3\r\nContent-Type: t\r\nLocation: " + location +
                 "\r\n\r\n");
        Reading reading(4096);
        EXPECT_EQ(reading.from(wire.ours), 0);
        if (length < 2048) {
            EXPECT_EQ(reading.ctx.location, location);
            EXPECT_EQ(reading.ctx.content_length, 3);
        } else {
            EXPECT_EQ(reading.ctx.location, nullptr);
            EXPECT_STREQ(reading.ctx.content_type, ""); // the headers behind it are not read
            EXPECT_EQ(log.lines(),
                      (Lines{"(WRN)  parse_resp_headers: location size=2048 is over the limit (2048)"}));
        }
    }
}

TEST_F(WebRead, second_location_ends_the_process)
{
    support::expect_assertion("store_location", [] {
        Wire wire;
        Reading reading;
        wire.say("HTTP/1.1 302 M\r\nLocation: a\r\n\r\n");
        reading.from(wire.ours);
        reading.ctx.total = reading.ctx.tail = 0; // in place of the reset
        wire.say("HTTP/1.1 302 M\r\nLocation: b\r\n\r\n");
        return reading.from(wire.ours);
    });
}

TEST_F(WebRead, location_without_memory_is_passed_over)
{
    Wire wire;
    wire.say("HTTP/1.1 302 M\r\nLocation: a\r\nContent-Length: 9\r\n\r\n");
    Reading reading;
    int rc = -1;
    {
        FailAllocation fail(1);
        rc = reading.from(wire.ours);
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(reading.ctx.location, nullptr);
    EXPECT_EQ(reading.ctx.content_length, 9);
}

TEST_F(WebRead, content_type_is_cut_to_63_characters)
{
    for (const size_t length : {63U, 64U}) {
        log.clear();
        const Answer a = answer_to("HTTP/1.1 302 M\r\nContent-Type: " + std::string(length, 't') +
                                   "\r\nContent-Length: 1\r\n\r\n");
        EXPECT_EQ(a.type, std::string(63, 't'));
        EXPECT_EQ(a.length, 1);
        EXPECT_EQ(log.lines(),
                  length == 63
                      ? Lines{}
                      : (Lines{"(WRN)  parse_resp_headers: Content-Type length=64, too big, max=63"}));
    }
}

TEST_F(WebRead, content_length_values)
{
    struct Case {
        const char* value;
        long length;
        const char* line;
    };

    for (const Case& c : {
             Case{"0", 0, ""},
             Case{"999999999999999", 999999999999999, ""},
             Case{"12abc", 12, ""},
             Case{"1000000000000000", -1,
                  "(ERR)  parse_resp_headers: Content-Length length=16, too big, max=15"},
             Case{"00", -1, "(ERR)  parse_resp_headers: invalid Content-Length value: 00"},
             Case{"-1", -1, "(ERR)  parse_resp_headers: invalid Content-Length value: -1"},
             Case{"abc", -1, "(ERR)  parse_resp_headers: invalid Content-Length value: abc"},
         }) {
        log.clear();
        const Answer a = answer_to(std::string("HTTP/1.1 302 M\r\nContent-Length: ") + c.value + "\r\n\r\n");
        EXPECT_EQ(a.rc, 0);
        EXPECT_EQ(a.length, c.length) << c.value;
        EXPECT_EQ(log.lines(), *c.line == '\0' ? Lines{} : Lines{c.line});
    }
}

TEST(WebHeader, finds_a_value)
{
    const char* text = "Host: h\r\nUser-Agent:  a b \r\nX:y\r\nEnd: z\n";
    size_t length = 77;
    EXPECT_EQ(find_http_header("host:", text, &length), text + 6);
    EXPECT_EQ(length, 1U);
    EXPECT_EQ(find_http_header("User-Agent", text, &length), text + 22); // the colon may be left out
    EXPECT_EQ(length, 4U);
    EXPECT_STREQ(find_http_header("End:", text, nullptr), "z\n");
}

TEST(WebHeader, absent_or_broken_headers_give_null)
{
    for (const char* text :
         {"", "Hos: x\n", "Host:x\n", "Host", "Host: x", "Host: x\ty\n", "Host: ", "ost: x\n"}) {
        size_t length = 77;
        EXPECT_EQ(find_http_header("Host:", text, &length), nullptr) << text;
        EXPECT_EQ(length, 0U);
    }
}

TEST(WebHeader, value_ends_at_the_first_control_character_wherever_that_stands)
{
    for (size_t at = 1; at < 20; ++at) {
        for (const char end : {'\r', '\n', '\t', '\x7f', '\x1f', '\0'}) {
            std::string text = "Host: " + std::string(20, 'v') + "\r\n";
            text[6 + at] = end;
            text[6 + at - 1] = '\xe9'; // none of ASCII, and no control character
            size_t length = 99;
            const char* value = find_http_header("Host:", text.c_str(), &length);
            const bool ends_line = end == '\r' || end == '\n';
            EXPECT_EQ(value, ends_line ? text.c_str() + 6 : nullptr) << at << " " << static_cast<int>(end);
            EXPECT_EQ(length, ends_line ? at : 0) << at << " " << static_cast<int>(end);
        }
    }
}

TEST(WebHeader, kept_title_matches_anywhere)
{
    size_t length = 0;
    const char* text = "X-Host: a\r\nHost: b\r\n";
    EXPECT_EQ(find_http_header("Host:", text, &length), text + 8);
    const char* inside = "A: say Host: c\r\nHost: b\r\n";
    EXPECT_EQ(find_http_header("Host:", inside, &length), inside + 13);
}

TEST(WebHeader, kept_empty_value_gives_the_next_line)
{
    size_t length = 0;
    const char* text = "Location: \r\nServer: x\r\n";
    EXPECT_EQ(find_http_header("Location:", text, &length), text + 12);
    EXPECT_EQ(length, 9U);
}

TEST(WebHeader, first_match_decides_even_if_it_is_broken)
{
    size_t length = 0;
    EXPECT_EQ(find_http_header("Host:", "Host:x\r\nHost: y\r\n", &length), nullptr);
}

TEST(WebHeader, titles_of_any_form_are_found)
{
    size_t length = 0;
    const char* text = "a:b:: v\n";
    EXPECT_EQ(find_http_header("a:b:", text, &length), text + 6); // one more colon is stepped over
    EXPECT_EQ(find_http_header("b:", text, &length), text + 6);
    EXPECT_EQ(find_http_header("", " v\n", &length) != nullptr, true);
}

TEST(WebHeader, numbers_of_a_header)
{
    EXPECT_EQ(extract_num_hdr("N:", "N: 42\r\n", 0), 42);
    EXPECT_EQ(extract_num_hdr("N", "N: -7x\r\n", 99), -7);
    EXPECT_EQ(extract_num_hdr("N:", "N: x\r\n", 0), 0);
    EXPECT_EQ(extract_num_hdr("N:", "M: 1\r\n", 0), -1);
    LogCapture log;
    EXPECT_EQ(extract_num_hdr("N:", ("N: " + std::string(31, '0') + "\r\n").c_str(), 0), 0);
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(extract_num_hdr("N:", ("N: " + std::string(30, '0') + "12\r\n").c_str(), 0), 1);
    EXPECT_EQ(log.lines(), (Lines{"(WRN)  extract_num_hdr: header [N:] value length is too big: 32 bytes"}));
    EXPECT_EQ(extract_num_hdr("N:", ("N: " + std::string(31, '9') + "\r\n").c_str(), 0), LONG_MAX);
}

TEST(WebReset, a_reset_releases_the_location_and_zeroes_the_rest)
{
    struct http_resp_ctx ctx = {302, 10, 5, "type", 7, strdup("loc")};
    LogCapture log(DEBUG_level);
    reset_resp_ctx(&ctx);
    EXPECT_EQ(ctx.code, 0);
    EXPECT_EQ(ctx.total, 0);
    EXPECT_EQ(ctx.tail, 0);
    EXPECT_STREQ(ctx.content_type, "");
    EXPECT_EQ(ctx.content_length, 0);
    EXPECT_EQ(ctx.location, nullptr);
    char line[128];
    snprintf(line, sizeof line, "(DBG)  reset_resp_ctx: resetting %p [loc]\n", static_cast<void*>(&ctx));
    EXPECT_EQ(log.text(), line);
    log.clear();
    reset_resp_ctx(&ctx);
    EXPECT_NE(log.text().find(" [-]\n"), std::string::npos);
}

TEST(WebStatus, ranges_of_codes)
{
    EXPECT_FALSE(is_HTTP_OK(199));
    EXPECT_TRUE(is_HTTP_OK(200));
    EXPECT_TRUE(is_HTTP_OK(299));
    EXPECT_FALSE(is_HTTP_OK(300));
    for (const int code : {300, 301, 302, 303}) {
        EXPECT_EQ(need_resp_headers(code), code == 301 || code == 302);
    }
}

static int connect_to(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

TEST(WebPeer, nginx_serves_a_file_and_a_redirect)
{
    if (access("/usr/sbin/nginx", X_OK) != 0) {
        GTEST_SKIP() << "skipped: no nginx here";
    }
    const FdGuard fds;
    char dir[] = "/tmp/webops_nginx_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    chmod(dir, 0755);
    const std::string root = dir;
    const int port = support::free_port(SOCK_STREAM);
    std::ofstream(root + "/file.txt") << "sixteen bytes...";
    chmod((root + "/file.txt").c_str(), 0644);
    std::ofstream(root + "/nginx.conf")
        << "daemon off; master_process off; pid " << root << "/pid; error_log stderr;\nevents {}\nhttp {\n"
        << "access_log off; client_body_temp_path " << root << "/b; proxy_temp_path " << root
        << "/p; fastcgi_temp_path " << root << "/f; uwsgi_temp_path " << root << "/u; scgi_temp_path " << root
        << "/s;\nserver { listen 127.0.0.1:" << port << "; root " << root
        << "; location = /old { return 302 http://127.0.0.1/new; } }\n}\n";
    {
        support::Process nginx({"/usr/sbin/nginx", "-e", "stderr", "-p", root, "-c", root + "/nginx.conf"});
        int fd = -1;
        ASSERT_TRUE(support::wait_until([&] { return (fd = connect_to(port)) >= 0; })) << nginx.err();
        const std::string base = "http://127.0.0.1:" + std::to_string(port);
        for (const bool http10 : {true, false}) {
            Reading reading(2048);
            ASSERT_EQ(send_http_get(fd, (base + "/file.txt").c_str(), "test", http10), 0);
            EXPECT_EQ(reading.from(fd), 0);
            EXPECT_EQ(reading.ctx.code, 200);
            EXPECT_EQ(extract_num_hdr("Content-Length:", reading.buf.data(), 0), 16);
            std::string body = reading.body();
            char block[64];
            for (ssize_t n = 0; (n = read(fd, block, sizeof block)) > 0;) {
                body.append(block, static_cast<size_t>(n));
            }
            EXPECT_EQ(body, "sixteen bytes...");
            close(fd);
            fd = connect_to(port);
        }
        Reading reading(2048);
        ASSERT_EQ(send_http_get(fd, (base + "/old").c_str(), "test", false), 0);
        EXPECT_EQ(reading.from(fd), 0);
        EXPECT_EQ(reading.ctx.code, 302);
        EXPECT_STREQ(reading.ctx.location, "http://127.0.0.1/new");
        EXPECT_STREQ(reading.ctx.content_type, "text/html");
        EXPECT_GT(reading.ctx.content_length, 0);
        close(fd);
        fd = connect_to(port);
        Reading missing(2048);
        ASSERT_EQ(send_http_get(fd, (base + "/missing").c_str(), "test", false), 0);
        EXPECT_EQ(missing.from(fd), 0);
        EXPECT_EQ(missing.ctx.code, 404);
        close(fd);
        nginx.kill(SIGTERM);
        nginx.wait();
    }
    support::run_program({"/bin/rm", "-rf", root});
}
