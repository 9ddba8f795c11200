// The HTTP side of URL sockets: the exchange on opening, and the operations for sockets that do not block.
#include "wopen.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "child.h"
#include "fds.h"
#include "fixtures.h"
#include "log.h"
#include "logcap.h"
#include "netns.h"
#include "oom.h"
#include "scripted_server.h"
#include "tempdir.h"
#include "text.h"
#include "uri.h"
#include "wait.h"
#include "webops.h"
#include "wrap.h"

using support::expect_abort;
using support::FailAllocation;
using support::Lines;
using support::LogCapture;
using support::ScriptedServer;
using support::SocketPair;
using support::TempDir;
using support::wait_until;

namespace {

std::atomic<int> g_waits = 0; // how often recv_http_response wanted more data

const char kRest[] = "Accept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
                     "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n";

bool has_line(LogCapture& log, const std::string& line)
{
    const Lines lines = log.lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string request_text(const std::string& path, const std::string& host, const std::string& version = "1.1",
                         const std::string& connection = "close", const std::string& agent = "#ERR#")
{
    return "GET " + path + " HTTP/" + version + "\r\nHost: " + host + "\r\nConnection: " + connection +
           "\r\nUser-Agent: " + agent + "\r\n" + kRest;
}

// A response head of a given length, with its end marker.
std::string head_of(size_t length, const std::string& status = "200 OK")
{
    std::string head = "HTTP/1.1 " + status + "\r\nX-Fill: ";
    head.append(length - head.size() - 4, 'x');
    return head + "\r\n\r\n";
}

std::string url_of(const ScriptedServer& server, const std::string& tail = "")
{
    return "http://" + server.address() + tail;
}

void expect_closed(const usock_ctx& uc)
{
    EXPECT_EQ(uc.url_path, nullptr);
    EXPECT_EQ(uc.buf, nullptr);
    EXPECT_EQ(uc.buflen, 0U);
}

// The descriptor that an opening has left behind, which is closed; -1 for none.
int close_lost_descriptor(const std::set<int>& before)
{
    for (const int fd : support::open_fds()) {
        if (before.count(fd) == 0) {
            close(fd);
            return fd;
        }
    }
    return -1;
}

struct Pair : SocketPair {
    void feed(const std::string& text) const
    {
        EXPECT_EQ(send(peer, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }

    void do_not_block() const { fcntl(ours, F_SETFL, O_NONBLOCK); }
};

// A response buffer of a given size.
struct Response {
    explicit Response(size_t size) : block(new char[size]())
    {
        resp = {};
        resp.buf = block.get();
        resp.len = size;
    }

    Response(const Response&) = delete;
    Response& operator=(const Response&) = delete;

    ~Response() { free(resp.ctx.location); }

    std::unique_ptr<char[]> block;
    http_resp_buf resp;
};

// A body block in an allocation of its exact size.
struct Body {
    Body(size_t size, size_t held) : block(static_cast<http_body_buf*>(malloc(sizeof(http_body_buf) + size)))
    {
        block->buf_size = size;
        block->data_len = held;
        memset(block->data, 'b', size);
    }

    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;

    ~Body() { free(block); }

    bool is_untouched() const
    {
        return std::count(block->data, block->data + block->buf_size, 'b') ==
               static_cast<std::ptrdiff_t>(block->buf_size);
    }

    http_body_buf* block;
};

} // namespace

WRAPPED(int, recv_http_response, (int sockfd, char* buf, size_t buflen, http_resp_ctx* resp));

extern "C" {
int __wrap_recv_http_response(int sockfd, char* buf, size_t buflen, http_resp_ctx* resp)
{
    const int rc = __real_recv_http_response(sockfd, buf, buflen, resp);
    if (rc == EAGAIN) {
        ++g_waits;
    }
    return rc;
}
}

// ---- the exchange on opening ---------------------------------------------------------------------------

class WopenHttp : public support::GuardedTest {};

TEST_F(WopenHttp, a_body_that_came_with_the_head_stands_in_the_buffer)
{
    ScriptedServer server("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nbody, ");
    usock_ctx uc = {};
    uc.inbound = true;
    const int fd = usock_open(url_of(server, "/path?a=b").c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(uc.url_kind, URI_HTTP);
    EXPECT_FALSE(uc.non_pollable);
    EXPECT_EQ(uc.bufcap, 2048U);
    EXPECT_EQ(std::string(uc.buf, uc.buflen), "body, ");
    EXPECT_EQ(server.request(), request_text("/path?a=b", server.address()));
    server.send_more("end");
    char block[8];
    EXPECT_EQ(recv(fd, block, 3, MSG_WAITALL), 3);
    EXPECT_EQ(std::string(block, 3), "end");
    usock_close(fd, &uc);
    expect_closed(uc);
}

TEST_F(WopenHttp, a_head_alone_leaves_the_buffer_empty)
{
    log.set_level(DEBUG_level);
    ScriptedServer server("HTTP/1.0 200 OK\r\n\r\n");
    usock_ctx uc = {};
    const int fd = usock_open(url_of(server).c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(uc.buflen, 0U);
    EXPECT_EQ(log.text().find("has a tail"), std::string::npos);
    EXPECT_TRUE(
        has_line(log, "(DBG)  get_http_response: reading HTTP response from fd=" + std::to_string(fd)));
    EXPECT_EQ(server.request(), request_text("/", server.address()));
    usock_close(fd, &uc);
}

TEST_F(WopenHttp, the_tail_is_told_at_debug_level)
{
    log.set_level(DEBUG_level);
    const ScriptedServer server("HTTP/1.1 200 OK\r\n\r\n12345");
    usock_ctx uc = {};
    const int fd = usock_open(url_of(server).c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(has_line(log, "(DBG)  get_http_response: response for fd" + std::to_string(fd) +
                                  " has a tail of 5 bytes"));
    usock_close(fd, &uc);
}

TEST_F(WopenHttp, flags_of_the_request_choose_version_and_connection)
{
    ScriptedServer server("HTTP/1.1 200 OK\r\n\r\n");
    usock_ctx uc = {};
    uc.http_flags = RQFLAG_HTTP10_GET | RQFLAG_KEEPALIVE;
    const int fd = usock_open(url_of(server).c_str(), &uc);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(server.request(), request_text("/", server.address(), "1.0", "keep-alive"));
    usock_close(fd, &uc);
}

TEST_F(WopenHttp, kept_the_global_setting_of_version_1_0_is_told_and_has_no_effect)
{
    log.set_level(DEBUG_level);
    ScriptedServer server("HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_FALSE(g_usock_flags.use_http10_get);
    g_usock_flags.use_http10_get = true;
    usock_ctx uc = {};
    const int fd = usock_open(url_of(server).c_str(), &uc);
    g_usock_flags.use_http10_get = false;
    EXPECT_GE(fd, 0);
    EXPECT_TRUE(has_line(log, "(DBG)  fwd_http_rq: Using HTTP/1.0 request"));
    EXPECT_EQ(server.request(), request_text("/", server.address()));
    usock_close(fd, &uc);
}

TEST_F(WopenHttp, a_url_without_a_port_goes_to_port_80_and_its_host_header_has_none)
{
    if (const std::string why = support::netns_missing(); !why.empty()) {
        GTEST_SKIP() << "skipped: " << why;
    }
    const support::NetnsPair pair;
    log.set_level(DEBUG_level);
    support::inside(pair, &support::NetnsPair::enter_a, [&] {
        ScriptedServer server("HTTP/1.1 200 OK\r\n\r\n", 80);
        usock_ctx uc = {};
        const int fd = usock_open("http://127.0.0.1/x", &uc);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(server.request(), request_text("/x", "127.0.0.1"));
        usock_close(fd, &uc);
    });
    EXPECT_TRUE(has_line(log, "(DBG)  usock_open: assuming HTTP port 80 for [http://127.0.0.1/x]"));
}

TEST_F(WopenHttp, an_authority_is_no_source_of_a_group)
{
    log.set_level(DEBUG_level);
    ScriptedServer server("HTTP/1.1 200 OK\r\n\r\n");
    usock_ctx uc = {};
    uc.inbound = true;
    const int fd = usock_open(("http://10.0.0.1@" + server.address() + "/y").c_str(), &uc);
    EXPECT_GE(fd, 0);
    EXPECT_FALSE(uc.sspec.is_ssm);
    EXPECT_EQ(log.text().find("SSM source"), std::string::npos);
    EXPECT_EQ(server.request(), request_text("/y", server.address()));
    usock_close(fd, &uc);
}

TEST_F(WopenHttp, skip_http_only_connects)
{
    ScriptedServer server("");
    usock_ctx uc = {};
    uc.skip_http = true;
    const int fd = usock_open(url_of(server).c_str(), &uc);
    ASSERT_GE(fd, 0);
    ASSERT_NE(uc.buf, nullptr);
    EXPECT_EQ(uc.bufcap, 2048U);
    EXPECT_EQ(usock_http_get(fd, url_of(server, "/later").c_str(), 0), 0);
    EXPECT_EQ(server.request(), request_text("/later", server.address()));
    usock_close(fd, &uc);
}

TEST_F(WopenHttp, kept_every_code_but_200_fails_and_the_connection_is_lost_open)
{
    for (const char* status : {"302 Found\r\nLocation: /other\r\nContent-Length: 0", "301 Moved",
                               "201 Created", "206 Partial", "404 Not Found"}) {
        const auto before = support::open_fds();
        log.clear();
        ScriptedServer server("HTTP/1.1 " + std::string(status) + "\r\n\r\n");
        const auto with_server = support::open_fds();
        usock_ctx uc = {};
        EXPECT_EQ(usock_open(url_of(server, "/z").c_str(), &uc), -1) << status;
        EXPECT_TRUE(has_line(log, "(ERR)  get_http_response: expected HTTP 200, got HTTP " +
                                      std::string(status).substr(0, 3)))
            << log.text();
        EXPECT_EQ(server.request(), request_text("/z", server.address()));
        EXPECT_FALSE(server.client_is_gone());
        EXPECT_NE(uc.buf, nullptr);
        ASSERT_NE(uc.url_path, nullptr);
        usock_close(-1, &uc);
        expect_closed(uc);
        EXPECT_FALSE(server.client_is_gone());
        std::set<int> known = with_server;
        for (const int fd : support::open_fds()) {
            sockaddr_in peer{};
            socklen_t length = sizeof peer;
            if (with_server.count(fd) == 0 &&
                getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
                ntohs(peer.sin_port) != server.port()) {
                known.insert(fd); // the server's own end
            }
        }
        EXPECT_GE(close_lost_descriptor(known), 0);
        EXPECT_TRUE(wait_until([&] { return server.client_is_gone(); }));
        server.hang_up();
    }
}

TEST_F(WopenHttp, a_head_of_1023_bytes_passes_and_one_of_1024_does_not)
{
    for (const size_t length : {size_t{1022}, size_t{1023}, size_t{1024}}) {
        log.clear();
        ScriptedServer server(head_of(length));
        const auto before = support::open_fds();
        usock_ctx uc = {};
        const int fd = usock_open(url_of(server).c_str(), &uc);
        if (length < 1024) {
            EXPECT_GE(fd, 0) << length;
        } else {
            EXPECT_EQ(fd, -1);
            EXPECT_TRUE(has_line(log, "(WRN)  recv_http_response: buffer already full, yet no HTTP EOD"));
        }
        server.request();
        usock_close(fd, &uc);
        expect_closed(uc);
        if (fd == -1) {
            server.hang_up();
            close_lost_descriptor(before);
        }
    }
}

TEST_F(WopenHttp, a_head_of_1024_bytes_without_an_end_fails)
{
    ScriptedServer server("HTTP/1.1 200 OK\r\nX: " + std::string(1003, 'x'));
    const auto before = support::open_fds();
    usock_ctx uc = {};
    EXPECT_EQ(usock_open(url_of(server).c_str(), &uc), -1);
    EXPECT_TRUE(has_line(log, "(WRN)  recv_http_response: buffer already full, yet no HTTP EOD"));
    usock_close(-1, &uc);
    server.hang_up();
    close_lost_descriptor(before);
}

TEST_F(WopenHttp, a_peer_that_closes_early_fails_the_opening)
{
    const auto before = support::open_fds();
    log.set_level(DEBUG_level);
    {
        auto server = std::make_unique<ScriptedServer>("HTTP/1.1 200 OK\r\n");
        usock_ctx uc = {};
        std::thread closer([&] { server->hang_up(); });
        EXPECT_EQ(usock_open(url_of(*server).c_str(), &uc), -1);
        closer.join();
        usock_close(-1, &uc);
    }
    EXPECT_NE(log.text().find("connection broken"), std::string::npos) << log.text();
    EXPECT_EQ(log.text().find("has a tail"), std::string::npos) << "a part of a head is no tail";
    EXPECT_EQ(log.text().find("expected HTTP"), std::string::npos) << "no code has come";
    close_lost_descriptor(before);
}

TEST_F(WopenHttp, kept_the_exchange_is_tried_after_a_failed_connect)
{
    std::string url;
    {
        const ScriptedServer server("");
        url = url_of(server);
    }
    usock_ctx uc = {};
    EXPECT_EQ(usock_open(url.c_str(), &uc), -1);
    EXPECT_NE(log.text().find("Connection refused"), std::string::npos) << log.text();
    EXPECT_NE(log.text().find("nwrite: write(-1, "), std::string::npos) << log.text();
    EXPECT_TRUE(has_line(log, "(ERR)  send_http_request: error sending HTTP request to fd=-1"));
    EXPECT_NE(uc.url_path, nullptr);
    EXPECT_NE(uc.buf, nullptr);
    usock_close(-1, &uc);
    expect_closed(uc);
}

TEST_F(WopenHttp, a_path_that_cannot_be_split_fails_twice)
{
    usock_ctx uc = {};
    EXPECT_EQ(usock_open("http://[::1", &uc), -1);
    EXPECT_TRUE(has_line(log, "(ERR)  fwd_http_rq: URI has no path tail: http://[::1"));
    usock_close(-1, &uc);
    expect_closed(uc);
}

TEST_F(WopenHttp, without_memory_for_the_buffer_no_exchange_is_tried)
{
    usock_ctx uc = {};
    const FailAllocation failure(1);
    EXPECT_EQ(usock_open("http://127.0.0.1:9/x", &uc), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  usock_open: calloc(1, 2048) ERROR(12): Cannot allocate memory"}));
    expect_closed(uc);
}

TEST_F(WopenHttp, an_unfinished_response_fails_a_non_blocking_opening)
{
    const auto before = support::open_fds();
    auto server = std::make_unique<ScriptedServer>("HTTP/1.1 200 OK\r\n");
    usock_ctx uc = {};
    uc.non_blocking = true;
    EXPECT_EQ(usock_open(url_of(*server).c_str(), &uc), -1);
    EXPECT_NE(uc.url_path, nullptr);
    usock_close(-1, &uc);
    expect_closed(uc);
    for (const int fd : support::open_fds()) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        if (before.count(fd) == 0 && getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            ntohs(peer.sin_port) == server->port()) {
            close(fd);
        }
    }
    server.reset();
    EXPECT_EQ(support::open_fds(), before);
}

TEST_F(WopenHttp, kept_a_blocking_socket_waits_through_its_receive_timeouts)
{
    log.set_level(DEBUG_level);
    g_waits = 0;
    ScriptedServer server("HTTP/1.1 200 OK\r\n\r\n", 0, [] { wait_until([] { return g_waits >= 3; }); });
    usock_ctx uc = {};
    uc.inbound = true;
    uc.timeout_ms = 10;
    const int fd = usock_open(url_of(server).c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_GE(g_waits, 3);
    EXPECT_TRUE(has_line(log, "(DBG)  get_http_response: expecting more data from fd" + std::to_string(fd)));
    usock_close(fd, &uc);
}

TEST_F(WopenHttp, a_file_of_a_real_server_arrives_whole)
{
    if (access("/usr/sbin/nginx", X_OK) != 0) {
        GTEST_SKIP() << "skipped: nginx is not installed";
    }
    const TempDir dir;
    std::string content;
    for (int i = 0; content.size() < 50000; ++i) {
        content += "line " + std::to_string(i) + "\n";
    }
    dir.write("file.txt", content);
    std::string port;
    {
        const ScriptedServer probe("");
        port = std::to_string(probe.port());
    }
    dir.write("conf", "daemon off; master_process off; pid " + dir.path("pid") + "; error_log " +
                          dir.path("error") + ";\nevents {}\nhttp { access_log off; client_body_temp_path " +
                          dir.path("t1") + "; proxy_temp_path " + dir.path("t2") + "; fastcgi_temp_path " +
                          dir.path("t3") + "; uwsgi_temp_path " + dir.path("t4") + "; scgi_temp_path " +
                          dir.path("t5") + "; server { listen 127.0.0.1:" + port + "; root " + dir.path() +
                          "; } }\n");
    const support::Process nginx({"/usr/sbin/nginx", "-c", dir.path("conf"), "-e", dir.path("error")});
    usock_ctx uc = {};
    uc.inbound = true;
    int fd = -1;
    ASSERT_TRUE(wait_until([&] {
        const LogCapture silent;
        fd = usock_open(("http://127.0.0.1:" + port + "/file.txt").c_str(), &uc);
        if (fd < 0) {
            usock_close(-1, &uc);
        }
        return fd >= 0;
    })) << dir.read("error");
    std::string body(uc.buf, uc.buflen);
    char block[8192];
    for (ssize_t n = 0; (n = recv(fd, block, sizeof block, 0)) > 0;) {
        body.append(block, static_cast<size_t>(n));
    }
    EXPECT_TRUE(body == content) << body.size() << " bytes of " << content.size();
    usock_close(fd, &uc);
}

// ---- requests ------------------------------------------------------------------------------------------

TEST_F(WopenHttp, the_agent_tag_is_sent_and_cut_to_127_characters)
{
    EXPECT_STREQ(g_apptag, "#ERR#");
    usock_set_apptag("player/1.0");
    {
        ScriptedServer server("HTTP/1.1 200 OK\r\n\r\n");
        usock_ctx uc = {};
        const int fd = usock_open(url_of(server).c_str(), &uc);
        EXPECT_EQ(server.request(), request_text("/", server.address(), "1.1", "close", "player/1.0"));
        usock_close(fd, &uc);
    }
    usock_set_apptag(std::string(127, 'a').c_str());
    EXPECT_EQ(strlen(g_apptag), 127U);
    usock_set_apptag(std::string(128, 'b').c_str());
    EXPECT_EQ(g_apptag, std::string(127, 'b'));
    usock_set_apptag("");
    EXPECT_STREQ(g_apptag, "");
    usock_set_apptag("#ERR#");
}

TEST_F(WopenHttp, a_null_agent_tag_is_asserted)
{
    expect_abort("apptag", [] { usock_set_apptag(nullptr); });
}

TEST_F(WopenHttp, kept_a_query_beyond_126_characters_is_sent_cut)
{
    // "/p?" and the query; snprintf has room for 126 characters.
    for (const size_t length : {size_t{126}, size_t{127}, size_t{128}, size_t{300}}) {
        log.clear();
        const Pair pair;
        const std::string request = "/p?" + std::string(length - 3, 'q');
        EXPECT_EQ(usock_http_get(pair.ours, ("http://host" + request).c_str(), 0), 0) << length;
        char block[4096];
        const ssize_t n = recv(pair.peer, block, sizeof block, 0);
        ASSERT_GT(n, 0);
        EXPECT_EQ(std::string(block, static_cast<size_t>(n)), request_text(request.substr(0, 126), "host"));
        EXPECT_EQ(log.lines(), length <= 127 ? Lines{}
                                             : Lines{"(WRN)  fwd_http_rq: GET query is too long [" +
                                                     std::to_string(length) + " bytes], max=127 bytes."});
    }
}

TEST_F(WopenHttp, a_request_for_a_text_that_is_no_url_is_refused)
{
    const Pair pair;
    EXPECT_EQ(usock_http_get(pair.ours, "no url", 0), -1);
    EXPECT_EQ(usock_http_get(pair.ours, "http://[::1", 0), -1);
    EXPECT_TRUE(has_line(log, "(ERR)  fwd_http_rq: URI has no path tail: http://[::1"));
    char byte;
    EXPECT_EQ(recv(pair.peer, &byte, 1, MSG_DONTWAIT), -1);
}

// ---- responses on sockets that do not block -----------------------------------------------------------

TEST_F(WopenHttp, get_response_takes_the_codes_from_200_to_299)
{
    for (const int code : {199, 200, 204, 299, 300, 404}) {
        log.clear();
        log.set_level(INFO_level);
        const Pair pair;
        Response response(512);
        pair.feed("HTTP/1.1 " + std::to_string(code) + " Reason\r\n\r\ntail");
        const bool good = code >= 200 && code <= 299;
        EXPECT_EQ(usock_http_get_response(pair.ours, &response.resp), good ? 0 : 13) << code;
        EXPECT_EQ(response.resp.ctx.code, code);
        EXPECT_STREQ(response.resp.buf + response.resp.ctx.tail, "tail");
        EXPECT_EQ(log.lines(),
                  good ? Lines{}
                       : Lines{"(WRN)  usock_http_get_response: expected HTTP 200-299, got HTTP " +
                               std::to_string(code)});
    }
}

TEST_F(WopenHttp, get_response_tells_a_tail_at_debug_level)
{
    log.set_level(DEBUG_level);
    const Pair pair;
    Response response(512);
    pair.feed("HTTP/1.1 200 OK\r\n\r\ntail");
    EXPECT_EQ(usock_http_get_response(pair.ours, &response.resp), 0);
    const std::string fd = std::to_string(pair.ours);
    EXPECT_TRUE(has_line(log, "(DBG)  usock_http_get_response: reading HTTP response from fd=" + fd));
    EXPECT_TRUE(has_line(log, "(DBG)  usock_http_get_response: got HTTP tail of 4 bytes from fd" + fd));
}

TEST_F(WopenHttp, get_response_leaves_the_head_as_a_text_from_which_length_and_type_are_read)
{
    const Pair pair;
    Response response(512);
    pair.feed("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 4\r\n\r\ntail");
    ASSERT_EQ(usock_http_get_response(pair.ours, &response.resp), 0);
    EXPECT_EQ(extract_num_hdr("Content-Length:", response.resp.buf, 0), 4);
    size_t length = 0;
    const char* type = find_http_header("Content-Type:", response.resp.buf, &length);
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(std::string(type, length), "text/plain");
    EXPECT_EQ(response.resp.ctx.content_length, 0) << "which the context has of a redirection alone";
}

TEST_F(WopenHttp, get_response_without_data_gives_11)
{
    log.set_level(DEBUG_level);
    const Pair pair;
    pair.do_not_block();
    Response response(512);
    EXPECT_EQ(usock_http_get_response(pair.ours, &response.resp), 11);
    EXPECT_TRUE(has_line(log, "(DBG)  usock_http_get_response: [0 bytes] in, expecting more data from fd" +
                                  std::to_string(pair.ours)));
    pair.feed("HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(usock_http_get_response(pair.ours, &response.resp), 0);
    EXPECT_EQ(log.text().find("got HTTP tail"), std::string::npos) << "a head alone has none";
}

TEST_F(WopenHttp, kept_a_second_piece_of_a_head_lands_at_twice_the_count)
{
    log.set_level(DEBUG_level);
    const Pair pair;
    pair.do_not_block();
    Response response(512);
    const std::string first = "HTTP/1.1 200 OK\r\n";
    pair.feed(first);
    EXPECT_EQ(usock_http_get_response(pair.ours, &response.resp), 11);
    EXPECT_EQ(response.resp.ctx.total, 17);
    EXPECT_TRUE(has_line(log, "(DBG)  usock_http_get_response: [17 bytes] in, expecting more data from fd" +
                                  std::to_string(pair.ours)));
    pair.feed("X: y\r\n\r\n");
    EXPECT_EQ(usock_http_get_response(pair.ours, &response.resp), -1); // no status line where it looks
    EXPECT_EQ(std::string(response.resp.buf, 17), first);
    EXPECT_EQ(std::string(response.resp.buf + 34, 7), "X: y\r\n\r");
    EXPECT_TRUE(has_line(log, "(ERR)  usock_http_get_response: err=-1 getting HTTP response from fd" +
                                  std::to_string(pair.ours)));
}

TEST_F(WopenHttp, pieces_of_a_head_never_leave_the_buffer)
{
    for (size_t size = 1; size < 60; ++size) {
        const Pair pair;
        pair.do_not_block();
        Response response(size);
        int rc = 11;
        for (int i = 0; i < 200 && rc == 11; ++i) {
            pair.feed("HTTP");
            rc = usock_http_get_response(pair.ours, &response.resp);
        }
        EXPECT_TRUE(rc == -1 || rc == 7) << size << " " << rc;
    }
}

TEST_F(WopenHttp, get_response_with_a_full_buffer_gives_7)
{
    const Pair pair;
    Response response(32);
    response.resp.ctx.total = 32;
    EXPECT_EQ(usock_http_get_response(pair.ours, &response.resp), 7);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  usock_http_get_response: buffer is full, size=32"}));
    response.resp.ctx.total = 33;
    EXPECT_EQ(usock_http_get_response(pair.ours, &response.resp), 7);
}

TEST_F(WopenHttp, get_response_of_a_closed_peer_gives_minus_1)
{
    Pair pair;
    pair.peer.reset();
    Response response(512);
    EXPECT_EQ(usock_http_get_response(pair.ours, &response.resp), -1);
    EXPECT_TRUE(has_line(log, "(ERR)  usock_http_get_response: err=-1 getting HTTP response from fd" +
                                  std::to_string(pair.ours)));
}

TEST_F(WopenHttp, get_response_without_a_buffer_is_asserted)
{
    char byte = 0;
    const http_resp_buf cases[] = {{nullptr, 5, {}}, {&byte, 0, {}}};
    for (const http_resp_buf& each : cases) {
        expect_abort("Assertion `resp->buf && resp->len > 0' failed", [&] {
            http_resp_buf resp = each;
            usock_http_get_response(-1, &resp);
        });
    }
}

// ---- bodies --------------------------------------------------------------------------------------------

TEST_F(WopenHttp, a_full_block_is_complete_at_once)
{
    log.set_level(DEBUG_level);
    const Body body(100, 100);
    EXPECT_EQ(usock_http_get_body(-1, body.block), 0);
    EXPECT_EQ(log.lines(), (Lines{"(DBG)  usock_http_get_body: complete at 100 bytes"}));
    EXPECT_TRUE(body.is_untouched());
    const Body nothing(0, 0);
    EXPECT_EQ(usock_http_get_body(-1, nothing.block), 0);
}

TEST_F(WopenHttp, kept_a_block_that_lacks_bytes_is_asserted)
{
    const std::string text = expect_abort("ASSERT at:", [] {
        set_loglevel(MLL_COMMON, DEBUG_level);
        const Body body(100, 99);
        usock_http_get_body(-1, body.block);
    });
    EXPECT_EQ(text.find("complete at"), std::string::npos) << text;
}

TEST_F(WopenHttp, kept_a_block_that_holds_too_much_reads_as_much_again_and_is_asserted)
{
    const char* line = " 0 left to read\n(DBG)  usock_http_get_body: complete at 10100 bytes\n";
    expect_abort(line, [] {
        log_timefmt(&g_log, f_NO_TIME);
        set_loglevel(MLL_COMMON, DEBUG_level);
        const Pair pair;
        pair.feed(std::string(5000, 'x'));
        const Body body(100, 5100);
        usock_http_get_body(pair.ours, body.block);
    });
}

TEST_F(WopenHttp, what_is_read_for_a_body_never_lands_in_the_block)
{
    log.set_level(DEBUG_level);
    const Pair pair;
    pair.do_not_block();
    const Body body(100, 103);
    pair.feed("xy");
    EXPECT_EQ(usock_http_get_body(pair.ours, body.block), 11);
    EXPECT_EQ(body.block->data_len, 105U);
    EXPECT_TRUE(body.is_untouched());
    EXPECT_TRUE(has_line(log, "(DBG)  usock_http_get_body: read(fd" + std::to_string(pair.ours) +
                                  "..) 2 bytes, 1 left to read"));
}

TEST_F(WopenHttp, a_body_of_a_peer_that_closed_gives_minus_1_and_an_error_its_number)
{
    Pair pair;
    pair.peer.reset();
    const Body body(100, 101);
    errno = ENOTTY;
    EXPECT_EQ(usock_http_get_body(pair.ours, body.block), -1);
    EXPECT_EQ(usock_http_get_body(-1, body.block), EBADF);
    EXPECT_EQ(body.block->data_len, 101U);
}
