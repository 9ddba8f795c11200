// Heads of requests: texts in read-only memory, the source and destination that a path names.
#include "webops.h"

#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fixtures.h"
#include "logcap.h"
#include "oom.h"
#include "text.h"

using support::FailAllocation;
using support::Lines;
using support::LogCapture;

namespace {

// A text that ends at the end of a page which can only be read; behind it lies one that cannot even be that.
class ReadOnlyText {
  public:
    explicit ReadOnlyText(const std::string& text) : size_(text.size())
    {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t room = (text.size() + page) / page * page;
        length_ = room + page;
        base_ = static_cast<char*>(
            mmap(nullptr, length_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (base_ == MAP_FAILED) {
            abort();
        }
        text_ = base_ + room - text.size() - 1;
        memcpy(base_ + room - text.size() - 1, text.c_str(), text.size() + 1);
        mprotect(base_, room, PROT_READ);
        mprotect(base_ + room, page, PROT_NONE);
    }

    ReadOnlyText(const ReadOnlyText&) = delete;
    ReadOnlyText& operator=(const ReadOnlyText&) = delete;

    ~ReadOnlyText() { munmap(base_, length_); }

    const char* text() const { return text_; }

    size_t size() const { return size_; }

  private:
    char* base_;
    size_t length_ = 0;
    const char* text_;
    size_t size_;
};

struct Parsed {
    int rc;
    std::string path;
    std::string query;
    struct http_header hdr;
};

Parsed parsed(const std::string& request, char* urlbuf = nullptr, size_t urlen = 0)
{
    const ReadOnlyText text(request);
    Parsed p = {};
    memset(&p.hdr, 0x55, sizeof p.hdr);
    p.rc = parse_http_header(text.text(), text.size(), &p.hdr, urlbuf, urlen);
    if (p.rc == 0) {
        p.path.assign(p.hdr.uri.path != nullptr ? p.hdr.uri.path : "", p.hdr.uri.p_len);
        p.query.assign(p.hdr.uri.query != nullptr ? p.hdr.uri.query : "", p.hdr.uri.q_len);
    }
    return p;
}

Parsed with_header(const std::string& lines)
{
    return parsed("GET /a HTTP/1.1\r\n" + lines + "\r\n");
}

// The endpoints of a request; both buffers are blocks of exactly ulen bytes.
struct Endpoints {
    int rc;
    std::string src;
    std::string dst;

    bool operator==(const Endpoints&) const = default;
};

void PrintTo(const Endpoints& e, std::ostream* out)
{
    *out << "{" << e.rc << ", [" << e.src << "], [" << e.dst << "]}";
}

Endpoints endpoints(const std::string& request, size_t ulen = 256, struct http_header* hdr = nullptr)
{
    std::vector<char> http(request.begin(), request.end());
    http.push_back('\0');
    std::vector<char> src(ulen, '\0');
    std::vector<char> dst(ulen, '\0');
    const int rc = web_parse_urq(http.data(), request.size(), src.data(), dst.data(), ulen, hdr);
    return {rc, {src.data(), strnlen(src.data(), ulen)}, {dst.data(), strnlen(dst.data(), ulen)}};
}

const std::string kEnd = " HTTP/1.1\r\nHost: h\r\n\r\n";

} // namespace

class WebRequest : public support::GuardedTest {};

TEST_F(WebRequest, browser_head_in_read_only_memory)
{
    const Parsed p = parsed("GET /udp/224.0.2.1:5056/?a=1 HTTP/1.1\r\nHost: box:8080\r\nUser-Agent: "
                            "Player/1.0 (X)\r\nAccept: */*\r\n\r\n");
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.hdr.type, RQTYPE_GET);
    EXPECT_EQ(p.path, "udp/224.0.2.1:5056/");
    EXPECT_EQ(p.query, "a=1");
    EXPECT_STREQ(p.hdr.host, "box:8080");
    EXPECT_STREQ(p.hdr.user_agent, "Player%2F1.0%20(X)");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(WebRequest, segments_point_into_the_request)
{
    static const char request[] = "GET /a?b HTTP/1.1\r\n\r\n";
    struct http_header hdr;
    ASSERT_EQ(parse_http_header(request, sizeof request - 1, &hdr, nullptr, 0), 0);
    EXPECT_EQ(hdr.uri.path, request + 5);
    EXPECT_EQ(hdr.uri.query, request + 7);
}

TEST_F(WebRequest, head_parses_like_get)
{
    for (const char* word : {"HEAD", "head", "GET", "gEt"}) {
        const Parsed p = parsed(std::string(word) + " /udp/224.0.2.1:5056/ HTTP/1.0\r\n\r\n");
        EXPECT_EQ(p.rc, 0);
        EXPECT_EQ(p.path, "udp/224.0.2.1:5056/");
        EXPECT_EQ(p.hdr.type, strlen(word) == 4 ? RQTYPE_HEAD : RQTYPE_GET);
    }
}

TEST_F(WebRequest, methods_that_are_not_served)
{
    for (const char* word : {"POST", "PUT", "GETS", "OPTIONS", "HEA"}) {
        log.clear();
        EXPECT_EQ(parsed(std::string(word) + " / HTTP/1.1\r\n\r\n").rc, EINVAL) << word;
        EXPECT_EQ(log.lines(), (Lines{"(ERR)  HTTP [" + std::string(word) + "] is NOT supported"}));
    }
}

TEST_F(WebRequest, method_of_the_wrong_length_gives_minus_one)
{
    for (const char* text : {"", "GE /", " GET /", "PROPFIND /", "GETGETGET"}) {
        log.clear();
        char expected[128];
        snprintf(expected, sizeof expected, "(ERR)  parse_http_header: failed to get HTTP method from %7s",
                 text);
        EXPECT_EQ(parsed(text).rc, -1) << text;
        EXPECT_EQ(log.lines(), (Lines{expected}));
    }
}

TEST_F(WebRequest, ping_with_nothing_else)
{
    const Parsed p = parsed("GET /ping");
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.path, "ping");
    EXPECT_STREQ(p.hdr.host, "");
    EXPECT_STREQ(p.hdr.user_agent, "");
    EXPECT_EQ(log.lines(), (Lines{"(WRN)  parse_http_header: no header sections found"}));
    EXPECT_EQ(endpoints("GET /ping").rc, RC_PING);
}

TEST_F(WebRequest, request_line_alone_is_served)
{
    for (const char* text : {"GET /a HTTP/1.1", "GET /a HTTP/1.1\r\n", "GET /a HTTP/1.", "GET\t/a", "GET"}) {
        log.clear();
        const Parsed p = parsed(text);
        EXPECT_EQ(p.rc, 0) << text;
        EXPECT_EQ(p.path, strchr(text, 'a') != nullptr ? "a" : "");
        EXPECT_EQ(log.lines(), (Lines{"(WRN)  parse_http_header: no header sections found"}));
    }
}

TEST_F(WebRequest, other_versions_are_refused)
{
    for (const char* version : {"HTTP/2.0", "http/1.1", "HTTP/1", "x"}) {
        log.clear();
        EXPECT_EQ(parsed(std::string("GET /a ") + version).rc, -1) << version;
        EXPECT_EQ(log.lines(),
                  (Lines{"(ERR)  parse_http_header: expected [HTTP/1.] to follow the URI path, got [" +
                         std::string(version) + "]"}));
    }
    EXPECT_EQ(parsed("GET /a HTTP/1.x\r\n\r\n").rc, 0); // the rest is not looked at
}

TEST_F(WebRequest, target_that_is_no_uri)
{
    EXPECT_EQ(parsed("GET http:// HTTP/1.1\r\n\r\n").rc, -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  parse_http_header: failed to parse URL"}));
}

TEST_F(WebRequest, absolute_target_keeps_its_host_in_the_path)
{
    EXPECT_EQ(parsed("GET http://h:1/a HTTP/1.1\r\n\r\n").path, "h:1/a");
}

TEST_F(WebRequest, zero_byte_ends_the_target)
{
    const Parsed p = parsed(std::string("GET /ab\0cd HTTP/1.1\r\n\r\n", 23));
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.path, "ab");
}

TEST_F(WebRequest, target_goes_to_the_buffer_if_it_fits)
{
    char url[8];
    memset(url, '#', sizeof url);
    EXPECT_EQ(parsed("GET /abc HTTP/1.1\r\n\r\n", url, 5).rc, 0);
    EXPECT_EQ(std::string(url, 6), std::string("/abc\0#", 6));
    EXPECT_EQ(parsed("GET /xyz HTTP/1.1\r\n\r\n", url, 4).rc, 0); // of the very size: cut for the terminator
    EXPECT_EQ(std::string(url, 6), std::string("/xy\0\0#", 6));
    EXPECT_EQ(parsed("GET /longer HTTP/1.1\r\n\r\n", url, 5).rc, 0); // passed over
    EXPECT_STREQ(url, "/xy");
    EXPECT_EQ(parsed("GET", url, 0).rc, 0);
    EXPECT_STREQ(url, "/xy");
}

TEST_F(WebRequest, host_has_limits)
{
    EXPECT_EQ(with_header("Host: " + std::string(62, 'h') + "\r\n").hdr.host, std::string(62, 'h'));
    EXPECT_EQ(log.lines(), Lines{});
    const Parsed p = with_header("Host: " + std::string(64, 'h') + "\r\nUser-Agent: u\r\n");
    EXPECT_EQ(p.rc, 0);
    EXPECT_STREQ(p.hdr.host, "");
    EXPECT_STREQ(p.hdr.user_agent, "u");
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  parse_http_header: Host length is too long: 64"}));
}

TEST_F(WebRequest, kept_host_of_63_characters_is_cut_to_62)
{
    EXPECT_EQ(with_header("Host: " + std::string(63, 'h') + "\r\n").hdr.host, std::string(62, 'h'));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(WebRequest, user_agent_has_limits)
{
    EXPECT_EQ(with_header("User-Agent: " + std::string(126, 'u') + "\r\n").hdr.user_agent,
              std::string(126, 'u'));
    EXPECT_EQ(with_header("User-Agent: " + std::string(127, 'u') + "\r\n").hdr.user_agent,
              std::string(126, 'u'));
    EXPECT_EQ(log.lines(), Lines{});
    const Parsed p = with_header("User-Agent: " + std::string(128, 'u') + "\r\n");
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.hdr.user_agent, std::string(126, 'u'));
    EXPECT_EQ(log.lines(), (Lines{"(WRN)  parse_http_header: User-Agent length is too long: 128"}));
}

TEST_F(WebRequest, user_agent_is_encoded_and_cut)
{
    EXPECT_STREQ(with_header("User-Agent: a b c\r\n").hdr.user_agent, "a%20b%20c");
    std::string blanks;
    std::string expected;
    for (int i = 0; i < 60; ++i) {
        blanks += "x ";
        expected += i < 31 ? "x%20" : "";
    }
    EXPECT_EQ(with_header("User-Agent: " + blanks + "x\r\n").hdr.user_agent, expected + "x");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(WebRequest, encoded_user_agent_has_126_characters)
{
    std::string escapes;
    for (int i = 0; i < 42; ++i) {
        escapes += "%2C";
    }
    EXPECT_EQ(with_header("User-Agent: " + std::string(42, ',') + "y\r\n").hdr.user_agent, escapes);
    log.set_level(DEBUG_level);
    with_header("User-Agent: " + std::string(127, 'u') + "\r\n");
    EXPECT_EQ(log.lines().back(), "(DBG)  parse_http_header: User-Agent: " + std::string(126, 'u'));
}

TEST_F(WebRequest, debug_lines_show_the_request)
{
    log.set_level(DEBUG_level);
    const std::string request = "HEAD /a?b HTTP/1.1\r\nHost: h\r\nUser-Agent: u v\r\n\r\n";
    char url[16];
    EXPECT_EQ(parsed(request, url, sizeof url).rc, 0);
    EXPECT_EQ(log.text(), "(DBG)  parse_http_header: " + std::to_string(request.size()) + " bytes [" +
                              request +
                              "]\n"
                              "(DBG)  parse_http_header: identified as HEAD\n"
                              "(DBG)  parse_http_header: HEAD request\n"
                              "(DBG)  parse_http_header: full URL=[/a?b]\n"
                              "(DBG)  parse_http_header: url=[/a?b], p_len=1, q_len=1, rc=0\n"
                              "(DBG)  parse_http_header: p=[Host: h\r\nUser-Agent: u v\r\n\r\n]\n"
                              "(DBG)  parse_http_header: Host: h\n"
                              "(DBG)  parse_http_header: User-Agent: u v\n");
}

TEST(WebFullUrl, host_and_path)
{
    Parsed p = with_header("Host: h:1\r\n");
    static const char path[] = "a/bXX";
    p.hdr.uri.path = path;
    p.hdr.uri.p_len = 3;
    char buf[16];
    EXPECT_EQ(mk_full_url(&p.hdr, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "h:1/a/b");
    EXPECT_EQ(mk_full_url(&p.hdr, buf, 9), 0);
    EXPECT_STREQ(buf, "h:1/a/b");
    EXPECT_EQ(mk_full_url(&p.hdr, buf, 8), 0);
    EXPECT_STREQ(buf, "h:1/a/");
    EXPECT_EQ(mk_full_url(&p.hdr, buf, 1), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(mk_full_url(&p.hdr, buf, 0), EINVAL);
}

TEST(WebFullUrl, missing_parts_give_22)
{
    struct http_header hdr = {};
    char buf[16] = "#";
    strcpy(hdr.host, "h");
    EXPECT_EQ(mk_full_url(&hdr, buf, sizeof buf), EINVAL);
    hdr.uri.path = "x";
    EXPECT_EQ(mk_full_url(&hdr, buf, sizeof buf), EINVAL);
    hdr.uri.p_len = 1;
    hdr.host[0] = '\0';
    EXPECT_EQ(mk_full_url(&hdr, buf, sizeof buf), EINVAL);
    EXPECT_STREQ(buf, "#");
}

TEST(WebPathQuery, path_and_query_are_copied)
{
    char path[4];
    char query[4];
    const ReadOnlyText text("GET /abc?def" + kEnd);
    EXPECT_EQ(extract_http_request_path_query(text.text(), text.size(), path, 4, query, 3), 0);
    EXPECT_STREQ(path, "abc");
    EXPECT_STREQ(query, "def"); // as long as qlen: its terminator stands behind
    const ReadOnlyText plain("GET /abc" + kEnd);
    EXPECT_EQ(extract_http_request_path_query(plain.text(), plain.size(), path, 4, query, 3), 0);
    EXPECT_STREQ(query, "");
}

TEST(WebPathQuery, failures_of_path_and_query_are_told)
{
    char path[4] = "#";
    char query[4] = "#";
    const auto extract = [&](const std::string& request, size_t plen, size_t qlen) {
        const ReadOnlyText text(request);
        return extract_http_request_path_query(text.text(), text.size(), path, plen, query, qlen);
    };
    LogCapture log;
    EXPECT_EQ(extract("POST /abc" + kEnd, 4, 3), EINVAL);
    EXPECT_EQ(extract("G", 4, 3), -1);
    EXPECT_STREQ(path, "#");
    log.clear();
    EXPECT_EQ(extract("GET / HTTP/1.1\n\n", 4, 3), -1);
    EXPECT_EQ(log.text(),
              "(ERR)  extract_http_request_path_query: no URI path found in [GET / HTTP/1.1\n\n]\n");
    log.clear();
    path[0] = '#';
    EXPECT_EQ(extract("GET /abcd", 4, 3), -1);
    EXPECT_STREQ(path, "");
    EXPECT_EQ(log.lines()[1],
              "(ERR)  extract_http_request_path_query: path is too long [4 chars, allowed: 4]: " +
                  std::string(76, ' ') + "abcd...");
    EXPECT_EQ(extract("GET /a", 0, 3), -1);
    log.clear();
    EXPECT_EQ(extract("GET /abc?defg", 4, 3), -1);
    EXPECT_STREQ(path, "abc");
    EXPECT_STREQ(query, "");
    EXPECT_EQ(log.lines()[1],
              "(ERR)  extract_http_request_path_query: query is too long [4 chars, allowed: 3]: " +
                  std::string(76, ' ') + "defg...");
}

class WebUrq : public support::GuardedTest {};

TEST_F(WebUrq, source_and_destination)
{
    EXPECT_EQ(endpoints("GET /udp/224.0.2.1:5056/" + kEnd), (Endpoints{0, "udp://224.0.2.1:5056", ""}));
    EXPECT_EQ(endpoints("GET /src/a/dst/b/" + kEnd), (Endpoints{0, "a", "b/"}));
    EXPECT_EQ(endpoints("GET /$alias" + kEnd), (Endpoints{0, "$alias", ""}));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(WebUrq, parts_are_decoded_after_the_split)
{
    EXPECT_EQ(endpoints("GET /src/a%2Fb+c/dst/d%20e" + kEnd), (Endpoints{0, "a/b c", "d e"}));
}

TEST_F(WebUrq, query_goes_to_the_source)
{
    EXPECT_EQ(endpoints("GET /udp/224.0.2.1:5056/?a=1" + kEnd),
              (Endpoints{0, "udp://224.0.2.1:5056?a=1", ""}));
    EXPECT_EQ(endpoints("GET /src/s/dst/d?a=%41" + kEnd), (Endpoints{0, "s?a=%41", "d"}));
}

TEST_F(WebUrq, source_that_ends_in_a_slash_has_no_query)
{
    EXPECT_EQ(endpoints("GET /udp/a:1/?x=/" + kEnd), (Endpoints{0, "udp://a:1", ""}));
}

TEST_F(WebUrq, kept_bytes_that_decoding_leaves_stand_in_front_of_the_query)
{
    // "a%20b" shrinks to "a b", and "b" of the old text stays behind its terminator.
    EXPECT_EQ(endpoints("GET /src/a%20b/dst/d?q=1" + kEnd), (Endpoints{0, "a b?bq=1", "d"}));
}

TEST_F(WebUrq, user_header_is_filled_whatever_follows)
{
    struct http_header hdr = {};
    EXPECT_EQ(endpoints("HEAD /tcp/x HTTP/1.1\r\nHost: box\r\n\r\n", 64, &hdr).rc, -1);
    EXPECT_EQ(hdr.type, RQTYPE_HEAD);
    EXPECT_STREQ(hdr.host, "box");
    memset(&hdr, 0, sizeof hdr);
    EXPECT_EQ(endpoints("POST /tcp/x HTTP/1.1\r\nHost: box\r\n\r\n", 64, &hdr).rc, EINVAL);
    EXPECT_STREQ(hdr.host, "");
}

TEST_F(WebUrq, root_is_refused)
{
    EXPECT_EQ(endpoints("GET / HTTP/1.1\n\n").rc, -1);
    EXPECT_EQ(log.text(), "(ERR)  web_parse_urq: no path in URL [GET / HTTP/1.1\n\n]\n");
    EXPECT_EQ(endpoints("GET /?x=1" + kEnd).rc, -1);
}

TEST_F(WebUrq, favicon_drops_its_query)
{
    log.set_level(DEBUG_level);
    EXPECT_EQ(endpoints("GET /favicon.ico?x=1" + kEnd).rc, RC_FAVICON);
    EXPECT_EQ(log.lines().back(), "(DBG)  web_parse_urq: favicon request received.");
    EXPECT_EQ(endpoints("GET /FavIcon.ICO" + kEnd).rc, RC_FAVICON);
    EXPECT_EQ(endpoints("GET /favicon.icon" + kEnd).rc, -1);
}

TEST_F(WebUrq, ping_is_told_and_leaks_no_query)
{
    log.set_level(INFO_level);
    EXPECT_EQ(endpoints("GET /ping?x=1" + kEnd), (Endpoints{RC_PING, "", ""}));
    EXPECT_EQ(log.lines(), (Lines{"(INF)  Handling user-side PING request"}));
}

TEST_F(WebUrq, query_has_limits)
{
    const std::string query(255, 'q');
    EXPECT_EQ(endpoints("GET /udp/a:1/?" + query + kEnd, 1024), (Endpoints{0, "udp://a:1?" + query, ""}));
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(endpoints("GET /udp/a:1/?q" + query + kEnd, 1024).rc, -7);
    EXPECT_EQ(log.lines(),
              (Lines{"(ERR)  web_parse_urq: URI query length (256 bytes) is beyond the limit: 256"}));
}

TEST_F(WebUrq, room_for_the_query)
{
    // "udp://a:1" is 9, the mark and the query 4, the terminator 1.
    EXPECT_EQ(endpoints("GET /udp/a:1/?q=1" + kEnd, 14), (Endpoints{0, "udp://a:1?q=1", ""}));
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(endpoints("GET /udp/a:1/?q=1" + kEnd, 13).rc, 7);
    EXPECT_EQ(endpoints("GET /udp/a:1/?q=1" + kEnd, 10).rc, 7);
    EXPECT_EQ(log.lines(),
              (Lines{"(ERR)  web_parse_urq: URI query is too long (3 bytes), max allowed=2 bytes, "
                     "discarding request",
                     "(ERR)  web_parse_urq: URI query is too long (3 bytes), max allowed=0 bytes, "
                     "discarding request"}));
}

TEST_F(WebUrq, old_bytes_up_to_the_end_of_the_buffer_leave_no_room_for_a_query)
{
    // The alias fills the buffer without a terminator; decoding shortens it, and no zero byte is left behind.
    EXPECT_EQ(endpoints("GET /$%41bcdefgh?q=1" + kEnd, 11).rc, 7);
    EXPECT_EQ(endpoints("GET /$%41bcdefgh" + kEnd, 11).rc, 0);
}

TEST_F(WebUrq, paths_without_endpoints_are_refused)
{
    struct Case {
        const char* path;
        int rc;
    };

    for (const Case& c : {Case{"tcp/x", -1}, Case{"udp/", 22}, Case{"src/a/", 1}, Case{"name", 3}}) {
        log.clear();
        EXPECT_EQ(endpoints(std::string("GET /") + c.path + kEnd).rc, -1);
        EXPECT_EQ(log.lines(), (Lines{"(ERR)  web_parse_urq: error(" + std::to_string(c.rc) +
                                      ") parsing request data [" + c.path + "]"}));
    }
}

TEST_F(WebUrq, decoding_that_fails)
{
    EXPECT_EQ(endpoints("GET /$abc%" + kEnd, 5).rc, -1); // the bare '%' is the last byte of the buffer
    EXPECT_EQ(endpoints("GET /src/a/dst/abcd%" + kEnd, 8), (Endpoints{0, "a", "abcd"}));
    EXPECT_EQ(endpoints("GET /src/a/dst/abc%" + kEnd, 4).rc, -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  web_parse_urq: error URI-decoding",
                                  "(ERR)  web_parse_urq: error URI-decoding"}));
}

TEST_F(WebUrq, buffers_of_nothing_are_refused)
{
    char http[] = "GET /udp/a:1/?q=1 HTTP/1.1\r\n\r\n";
    char src[1] = {'#'};
    EXPECT_EQ(web_parse_urq(http, sizeof http - 1, src, src, 0, nullptr), -1);
    EXPECT_EQ(src[0], '#');
    char alias[] = "GET /$a?q=1 HTTP/1.1\r\n\r\n";
    EXPECT_EQ(web_parse_urq(alias, sizeof alias - 1, src, src, 0, nullptr), 7);
    EXPECT_EQ(src[0], '#');
}

TEST_F(WebUrq, without_memory_for_the_query)
{
    char http[] = "GET /udp/a:1/?q=1";
    char src[64] = {};
    char dst[64] = {};
    int rc = 0;
    {
        FailAllocation fail(1);
        rc = web_parse_urq(http, sizeof http - 1, src, dst, sizeof src, nullptr);
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(log.lines().size(), 2U); // of the missing headers, and of the allocation
}

TEST_F(WebUrq, the_terminator_behind_the_path_stays)
{
    char http[] = "GET /udp/a:1/?q=1 HTTP/1.1\r\n\r\n";
    const std::string before(http, sizeof http);
    char src[64] = {};
    char dst[64] = {};
    EXPECT_EQ(web_parse_urq(http, sizeof http - 1, src, dst, sizeof src, nullptr), 0);
    std::string expected = before;
    expected[strlen("GET /udp/a:1/")] = '\0';
    EXPECT_EQ(std::string(http, sizeof http), expected);
    char bad[] = "GET http:// HTTP/1.1\r\n\r\n";
    EXPECT_EQ(web_parse_urq(bad, sizeof bad - 1, src, dst, sizeof src, nullptr), -1);
    EXPECT_STREQ(bad, "GET http:// HTTP/1.1\r\n\r\n");
}

TEST(WebPing, paths_of_a_ping)
{
    for (const char* path : {"ping", "/ping", "ping/", "/ping/", "PING", "/Ping/"}) {
        EXPECT_TRUE(is_ping_request(path)) << path;
    }
    for (const char* path : {"", "/", "/ping//", "//ping", "pin", "pinga", "ping/a", "/ping/a"}) {
        EXPECT_FALSE(is_ping_request(path)) << path;
    }
}
