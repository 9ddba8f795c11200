// A small HTTP: the client's request and the head of its response, the head of a request to a server, and
// the heads that answer it.
#include "webops.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <strings.h>

#include "detail/http_head.h"
#include "detail/kept_errno.h"
#include "detail/net_url.h"
#include "detail/owned.h"
#include "detail/uri_text.h"
#include "fdio.h"
#include "fdrec.h"
#include "log.h"
#include "netops.h"
#include "syswrap.h"
#include "uri.h"
#include "util.h"

DECLARE_MLL(MLL_COMMON);

namespace {

// The codes of the canned responses, HTTP_OK_CODE aside (RFC 9110, section 15).
enum {
    kMovedCode = 302,
    kBadRequestCode = 400,
    kDeniedCode = 403,
    kNotFoundCode = 404,
    kTimedOutCode = 408,
    kServiceErrorCode = 500,
};

constexpr struct http_response canned(int code, ssize_t content_length, const char* reason,
                                      const char* connection)
{
    return {code, nullptr, content_length, reason, nullptr, connection, nullptr, nullptr};
}

} // namespace

struct http_response g_resp_ok = canned(HTTP_OK_CODE, -1, HTTP_OK, nullptr);
struct http_response g_resp_tmoved = canned(kMovedCode, 0, HTTP_MOVED_TEMP, "close");
struct http_response g_resp_bad = canned(kBadRequestCode, 0, HTTP_BAD_REQUEST, nullptr);
struct http_response g_resp_denied = canned(kDeniedCode, 0, HTTP_DENIED, "close");
struct http_response g_resp_nfound = canned(kNotFoundCode, 0, HTTP_NOT_FOUND, "close");
struct http_response g_resp_timeout = canned(kTimedOutCode, 0, HTTP_TIMED_OUT, "close");
struct http_response g_resp_err = canned(kServiceErrorCode, 0, HTTP_SERVICE_ERROR, "close");

const char* const web_SEQ[web_SEQ_COUNT] = {"&amp;", "&gt;", "&lt;", "&apos;", "&quot;", nullptr};

namespace {

using mv::Digits;
using mv::is_white;
using mv::KeptErrno;
using mv::ResponseHead;

constexpr char kOpenUri[] = "open_uri"; // under which both ways of opening report
constexpr size_t kHostSize = 128;       // of a request's Host text
constexpr size_t kRequestSize = 2048;   // of a whole request
constexpr size_t kResponseSize = 4096;  // of a response's head
constexpr size_t kGetSize = 640;        // of path and query of a request
constexpr size_t kReasonSize = 64;
constexpr size_t kLocationMax = 2048;
constexpr size_t kLengthDigits = 15;
constexpr size_t kNumberSize = 32;
constexpr size_t kQueryMax = 256; // of a request to a server, with its terminator
constexpr size_t kMethodMin = 3;
constexpr size_t kMethodMax = 7;
constexpr char kHttpPrefix[] = "http://";
constexpr size_t kHttpPrefixSize = sizeof kHttpPrefix - 1;
constexpr char kVersion[] = "HTTP/1.";

enum { OUTBOUND_URI = 0, INBOUND_URI = 1 };

// A terminated copy of a text inside a larger one, for a log line. A line is shorter than the copy may
// become, so what is cut here could not have been logged anyway.
class LogText {
  public:
    explicit LogText(std::string_view text)
    {
        const size_t length = std::min(text.size(), sizeof text_ - 1);
        memcpy(text_, text.data(), length);
        text_[length] = '\0';
    }

    const char* c_str() const { return text_; }

  private:
    char text_[2048];
};

// ---- client ----------------------------------------------------------------------------------------

// Whether a text of the user says nothing: not there, empty, or a blank first.
bool is_blank_null(const char* s)
{
    return s == nullptr || *s == '\0' || strchr("\t\r\n ", *s) != nullptr;
}

// The peer is gone, and the descriptor good for nothing but closing.
bool is_aborted(int err)
{
    return err == ECONNRESET || err == ECONNABORTED;
}

bool store_location(std::string_view value, struct http_resp_ctx* resp, const char* caller)
{
    // Not there, unlike an empty one, which is told below.
    if (value.data() == nullptr) {
        return true;
    }
    if (value.size() >= kLocationMax) {
        log_warn("%s: location size=%zu is over the limit (%u)\n", caller, value.size(),
                 static_cast<unsigned>(kLocationMax));
        return false;
    }
    ASSERT(resp->location == nullptr);
    if (value.empty()) {
        log_warn("%s: re-direction with empty location!\n", caller);
        return true;
    }
    resp->location = static_cast<char*>(W_calloc(caller, value.size() + 1, 1));
    if (resp->location != nullptr) {
        memcpy(resp->location, value.data(), value.size());
        log_dbg("%s: got location=[%s]\n", caller, resp->location);
    }
    return true;
}

void store_content_type(std::string_view value, struct http_resp_ctx* resp, const char* caller)
{
    constexpr size_t longest = MAX_HTTP_CTYPE - 1;
    if (value.size() > longest) {
        log_warn("%s: Content-Type length=%zu, too big, max=%zu\n", caller, value.size(), longest);
        value = value.substr(0, longest);
    }
    std::copy(value.begin(), value.end(), resp->content_type);
    resp->content_type[value.size()] = '\0';
    log_dbg("%s: Content-Type: %s\n", caller, resp->content_type);
}

// -1 unless the value is a whole length: who trusts a wrong one reads the next response as a body.
bool store_content_length(std::string_view value, struct http_resp_ctx* resp, const char* caller)
{
    resp->content_length = -1;
    if (value.size() > kLengthDigits) {
        log_err("%s: Content-Length length=%zu, too big, max=%zu\n", caller, value.size(), kLengthDigits);
        return false;
    }
    char text[kLengthDigits + 1] = {};
    std::copy(value.begin(), value.end(), text);
    const long length = strtol(text, nullptr, 10);
    if (length < 0 || (length == 0 && strcmp(text, "0") != 0)) {
        log_err("%s: invalid Content-Length value: %s\n", caller, text);
        return false;
    }
    resp->content_length = length;
    log_dbg("%s: Content-Length: %ld\n", caller, length);
    return true;
}

int parse_resp_headers(const char* buf, struct http_resp_ctx* resp)
{
    mv::WantedTitle wanted[] = {{"Location:"}, {"Content-Type:"}, {"Content-Length:"}};
    mv::find_titles(buf, wanted);
    if (!store_location(mv::value_behind(wanted[0].end), resp, __func__)) {
        return -1;
    }
    store_content_type(mv::value_behind(wanted[1].end), resp, __func__);
    return store_content_length(mv::value_behind(wanted[2].end), resp, __func__) ? 0 : -1;
}

constexpr char kRecv[] = "recv_http_response"; // whose steps the helpers below are

// Reads until the head's marker is there. 0, 11 or -1.
int read_head(int sockfd, char* buf, size_t buflen, struct http_resp_ctx* resp)
{
    const size_t room = buflen - 1;
    while (resp->total < static_cast<ssize_t>(room)) {
        const ssize_t count = read_http(sockfd, buf, room, resp->total, &resp->tail);
        const KeptErrno e;
        if (count == 0 || (count < 0 && is_aborted(e.number()))) {
            log_err("%s: client [fd=%d] connection broken\n", kRecv, sockfd);
            return -1;
        }
        if (count < 0 && mv::is_eagain(e.number())) {
            log_dbg("%s: expecting more data from fd=%d\n", kRecv, sockfd);
            return EAGAIN;
        }
        if (count < 0) {
            return -1;
        }
        resp->total += count;
        log_dbg("%s: read %ld bytes from fd=%d\n", kRecv, static_cast<long>(count), sockfd);
        if (resp->tail > 0) {
            break;
        }
        log_dbg("%s: reading more from fd%d\n", kRecv, sockfd);
    }
    // A marker beyond this buffer is one of a context that was not reset.
    if (resp->tail < 1 || static_cast<size_t>(resp->tail) > room) {
        log_warn("%s: buffer already full, yet no HTTP EOD\n", kRecv);
        return -1;
    }
    return 0;
}

struct StatusLine {
    int major = 0;
    int minor = 0;
    int code = 0;
    char reason[kReasonSize] = {}; // %63c writes no terminator
};

// Reads what nearly every server sends, as sscanf would, in a tenth of its time. False: it is another form.
bool read_usual_status(std::string_view line, StatusLine& status)
{
    constexpr std::string_view form = "HTTP/d.d ddd ";
    if (line.size() <= form.size() || is_white(line[form.size()])) {
        return false;
    }
    for (size_t i = 0; i < form.size(); ++i) {
        if (form[i] == 'd' ? line[i] < '0' || line[i] > '9' : line[i] != form[i]) {
            return false;
        }
    }
    const auto digit = [line](size_t i) { return line[i] - '0'; };
    status.major = digit(5);
    status.minor = digit(7);
    status.code = 100 * digit(9) + 10 * digit(10) + digit(11);
    memcpy(status.reason, line.data() + form.size(), std::min(line.size() - form.size(), kReasonSize - 1));
    return true;
}

bool parse_status_line(int sockfd, char* head, struct http_resp_ctx* resp)
{
    StatusLine status;
    char* line_end = head + strcspn(head, "\r\n");
    if (!read_usual_status({head, static_cast<size_t>(line_end - head)}, status)) {
        // sscanf gets the line alone: its %63c would read on over the line's end.
        const char cut = *line_end;
        *line_end = '\0';
        const int parsed =
            sscanf(head, "HTTP/%1d.%1d %d %63c", &status.major, &status.minor, &status.code, status.reason);
        *line_end = cut;
        if (parsed < 4) {
            log_err("%s: parsed %d < 4 elements (expected to be parsed)\n", kRecv, parsed);
            return false;
        }
    }
    resp->code = status.code;
    log_dbg("%s: fd=%d received: HTTP/%d.%d %d [%s]\n", kRecv, sockfd, status.major, status.minor,
            status.code, status.reason);
    return true;
}

// ---- server side ----------------------------------------------------------------------------------

constexpr char kParseHeader[] = "parse_http_header"; // whose steps the helpers below are

// Whether a text is that word, in any case. In place: a copy that is read at once is waited for.
bool is_word(const char* text, size_t length, std::string_view word)
{
    return length == word.size() && strncasecmp(text, word.data(), length) == 0;
}

// The method of a request line, and where it ends. 0, 22 or -1.
int parse_method(const char* http_rq, struct http_header* hdr, size_t& end)
{
    end = strcspn(http_rq, "\t ");
    if (end < kMethodMin || end > kMethodMax) {
        log_err("%s: failed to get HTTP method from %7s\n", kParseHeader, http_rq);
        return -1;
    }
    const auto length = static_cast<int>(end);
    if (is_word(http_rq, end, "GET")) {
        hdr->type = RQTYPE_GET;
    } else if (is_word(http_rq, end, "HEAD")) {
        hdr->type = RQTYPE_HEAD;
        log_dbg("%s: identified as HEAD\n", kParseHeader);
    } else {
        log_err("HTTP [%.*s] is NOT supported\n", length, http_rq);
        return EINVAL;
    }
    log_dbg("%s: %.*s request\n", kParseHeader, length, http_rq);
    return 0;
}

int parse_target(std::string_view target, struct http_header* hdr, char* urlbuf, size_t urlen)
{
    if (urlbuf != nullptr && urlen > 0 && target.size() <= urlen) {
        const size_t length = std::min(target.size(), urlen - 1);
        memcpy(urlbuf, target.data(), length);
        urlbuf[length] = '\0';
        log_dbg("%s: full URL=[%s]\n", kParseHeader, urlbuf);
    }
    // The text's own end counts for the parse, also where a zero byte stands inside the data.
    const std::string_view text = target.substr(0, strnlen(target.data(), target.size()));
    const int rc = mv::parse_uri(text, hdr->uri) ? 0 : -1;
    log_dbg("%s: url=[%s], p_len=%u, q_len=%u, rc=%d\n", kParseHeader, LogText(text).c_str(),
            static_cast<unsigned>(hdr->uri.p_len), static_cast<unsigned>(hdr->uri.q_len), rc);
    if (rc != 0) {
        log_err("%s: failed to parse URL\n", kParseHeader);
    }
    return rc;
}

// Copies what a "%.*s" with that size would: one character less.
void copy_cut(std::string_view value, char* field, size_t size)
{
    const size_t length = std::min(value.size(), size - 1);
    memcpy(field, value.data(), length);
    field[length] = '\0';
}

void take_host(std::string_view value, struct http_header* hdr)
{
    if (value.size() >= MAX_HOST_LEN) {
        log_err("%s: Host length is too long: %lu\n", kParseHeader, static_cast<unsigned long>(value.size()));
    } else if (!value.empty()) {
        copy_cut(value, hdr->host, MAX_HOST_LEN - 1);
        log_dbg("%s: Host: %s\n", kParseHeader, hdr->host);
    }
}

void take_user_agent(std::string_view value, struct http_header* hdr)
{
    if (value.empty()) {
        return;
    }
    if (value.size() >= MAX_UAG_LEN) {
        log_warn("%s: User-Agent length is too long: %lu\n", kParseHeader,
                 static_cast<unsigned long>(value.size()));
    }
    copy_cut(value, hdr->user_agent, MAX_UAG_LEN - 1);
    log_dbg("%s: User-Agent: %s\n", kParseHeader, hdr->user_agent);
    uri_encode(hdr->user_agent, MAX_UAG_LEN - 1);
}

// Whether a path is that word, in any case, with or without a slash behind it.
bool slash_match(const char* haystack, const char* needle)
{
    const size_t length = strlen(needle);
    return strncasecmp(haystack, needle, length) == 0 &&
           (haystack[length] == '\0' || (haystack[length] == '/' && haystack[length + 1] == '\0'));
}

constexpr char kParseUrq[] = "web_parse_urq"; // whose steps the helpers below are

// The first half: the head is parsed, its query copied and its path terminated in place. 0 with the path, or
// what web_parse_urq returns.
int take_request(char* http, size_t hlen, struct http_header* user_hdr, mv::OwnedBlock<char>& query,
                 char*& path)
{
    struct http_header hdr = {};
    const int rc = parse_http_header(http, hlen, &hdr, nullptr, 0);
    if (rc != 0) {
        return rc;
    }
    if (user_hdr != nullptr) {
        *user_hdr = hdr;
    }
    if (hdr.uri.path == nullptr || hdr.uri.p_len == 0) {
        log_err("%s: no path in URL [%s]\n", kParseUrq, http);
        return -1;
    }
    if (hdr.uri.query != nullptr) {
        if (hdr.uri.q_len >= kQueryMax) {
            log_err("%s: URI query length (%lu bytes) is beyond the limit: %lu\n", kParseUrq,
                    static_cast<unsigned long>(hdr.uri.q_len), static_cast<unsigned long>(kQueryMax));
            return -E2BIG;
        }
        query.reset(W_calloc(kParseUrq, hdr.uri.q_len + 1, 1));
        if (!query) {
            return -1;
        }
        memcpy(query.get(), hdr.uri.query, hdr.uri.q_len);
    }
    // From the segment, which is const, back to the caller's own text.
    path = http + (hdr.uri.path - http);
    path[hdr.uri.p_len] = '\0'; // on the question mark, so that the query was copied before
    log_dbg("%s: URI path=[%s], query=[%s]\n", kParseUrq, path, query ? query.get() : "");
    return 0;
}

// The second half: the endpoints of the path, decoded.
bool parse_endpoints(const char* path, char* uri_src, char* uri_dst, size_t ulen)
{
    const int rc = uri_extract_endpts(path, uri_src, ulen, uri_dst, ulen);
    if (rc != 0) {
        log_err("%s: error(%d) parsing request data [%s]\n", kParseUrq, rc, path);
        return false;
    }
    if (uri_decode(uri_src, ulen) == nullptr || uri_decode(uri_dst, ulen) == nullptr) {
        log_err("%s: error URI-decoding\n", kParseUrq);
        return false;
    }
    return true;
}

// Kept: the query goes behind whatever decoding left over behind the source's terminator.
bool append_query(const char* query, char* uri_src, size_t ulen)
{
    const size_t q_len = strlen(query);
    const size_t mark = strnlen(uri_src, ulen);
    size_t end = ulen;
    if (mark + 1 < ulen) {
        uri_src[mark] = '?';
        end = mark + 1 + strnlen(uri_src + mark + 1, ulen - mark - 1);
    }
    if (ulen - end <= q_len) {
        const size_t allowed = ulen > end ? ulen - end - 1 : 0;
        log_err("%s: URI query is too long (%lu bytes), max allowed=%ld bytes, discarding request\n",
                kParseUrq, static_cast<unsigned long>(q_len), static_cast<long>(allowed));
        return false;
    }
    memcpy(uri_src + end, query, q_len + 1);
    log_dbg("%s: query [%s] appended to source\n", kParseUrq, query);
    return true;
}

// The two lines that every response has, whole or not at all: their length is known before a byte is written.
bool status_lines(const struct http_response* r, ResponseHead& head)
{
    const Digits<int> code(r->code);
    const std::string_view pieces[] = {"HTTP/1.1 ", code.text(), " ",       r->reason,
                                       "\r\n",      "Server: ",  r->server, "\r\n"};
    size_t length = 0;
    for (const std::string_view piece : pieces) {
        length += piece.size();
    }
    if (length >= head.room()) {
        return false;
    }
    for (const std::string_view piece : pieces) {
        head.append(piece);
    }
    return true;
}

bool content_length_line(const struct http_response* r, ResponseHead& head)
{
    return r->content_length < 0 || head.line("Content-Length: ", Digits<long>(r->content_length).text());
}

// Further headers of the user, only with 200: the canned failures are sent from the same records.
bool suffix_line(const struct http_response* r, ResponseHead& head)
{
    if (r->code != HTTP_OK_CODE || r->ok_suffix == nullptr || *r->ok_suffix == '\0') {
        return true;
    }
    const std::string_view suffix = r->ok_suffix;
    if (suffix.size() + 2 > head.room()) {
        return false;
    }
    head.append(suffix);
    head.append("\r\n");
    return true;
}

const char* get_web_seq(char c)
{
    const size_t place = std::string_view(web_ESC).find(c);
    return place != std::string_view::npos ? web_SEQ[place] : nullptr;
}

// ---- URLs as records of descriptors ------------------------------------------------------------------

// A destination must not exist yet: a URL from a request must not overwrite.
int open_file_uri(struct fdrec* r, int inbound)
{
    return inbound == INBOUND_URI ? open_src_file(r->path) : open_dst_file(r->path, 0);
}

// Opens the socket of a network URL into the record. No request is sent, and no port assumed. The descriptor,
// or -1.
int open_net_uri(struct fdrec* r, int kind, int inbound, mv::UrlParts& url, const char* ifc_tag)
{
    if (url.divide_path() == nullptr) {
        return -1;
    }
    r->sspec = static_cast<struct socket_spec*>(W_calloc(kOpenUri, 1, sizeof(struct socket_spec)));
    if (r->sspec == nullptr) {
        return -1;
    }
    const bool is_stream = kind == URI_TCP || kind == URI_HTTP;
    r->sspec->writer = inbound == INBOUND_URI ? 0 : 1;
    r->sspec->non_blocking = 1;
    r->sspec->socktype = is_stream ? SOCK_STREAM : SOCK_DGRAM;
    const char* source =
        is_stream ? nullptr : mv::wanted_source(kOpenUri, url.authority, inbound == INBOUND_URI);
    return open_socket(url.addr, url.port, source, r->sspec, ifc_tag, &r->mifc);
}

// Opens what a URI names and makes its record. Whatever was opened hangs on the record from the start, so
// that one free_fdrec undoes a failure at any stage.
struct fdrec* open_uri(int inbound, const char* uri, const char* ifc_tag, int* uri_kind)
{
    mv::UrlParts url;
    const int kind = uri_extract(uri, nullptr, url.authority, url.path, url.query);
    if (kind == URI_BAD) {
        return nullptr;
    }
    struct fdrec* const r = alloc_fdrec();
    if (r == nullptr) {
        return nullptr;
    }
    snprintf(r->path, sizeof r->path, "%s", url.path);
    if (kind == URI_FILE) {
        r->fd = open_file_uri(r, inbound);
    } else if (kind >= URI_TCP && kind <= URI_HTTP) {
        r->fd = open_net_uri(r, kind, inbound, url, ifc_tag);
    } else {
        log_err("%s: unsupported type of URI [%s]", __func__, uri);
    }
    if (r->fd < 0) {
        free_fdrec(r);
        return nullptr;
    }
    get_stat_mode(r->fd, &r->mode);
    if (uri_kind != nullptr) {
        *uri_kind = kind;
    }
    return r;
}

// ---- the strict reading of a head ---------------------------------------------------------------

// tchar of RFC 9110, 5.6.2: what methods and field names are made of.
bool is_token_char(char c)
{
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    return letter || (c >= '0' && c <= '9') || (c != '\0' && strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

bool is_target_char(char c)
{
    return c > ' ' && c < 0x7f;
}

// Blanks, visible characters, and what is not ASCII.
bool is_value_char(char c)
{
    return c == '\t' || !(static_cast<unsigned char>(c) < ' ' || c == 0x7f);
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

// Takes characters of one kind from the front of a text.
std::string_view take_while(std::string_view& text, bool (*kind)(char))
{
    const auto* const end = std::find_if_not(text.begin(), text.end(), kind);
    const std::string_view taken = text.substr(0, static_cast<size_t>(end - text.begin()));
    text.remove_prefix(taken.size());
    return taken;
}

bool take_text(std::string_view& text, std::string_view what)
{
    if (!text.starts_with(what)) {
        return false;
    }
    text.remove_prefix(what.size());
    return true;
}

std::string_view trim_end(std::string_view text)
{
    while (!text.empty() && is_blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

} // namespace

const char* mv::take_apart(const char* caller, const char* uri, UrlParts& url)
{
    if (uri_extract(uri, nullptr, nullptr, url.path, url.query) == URI_BAD) {
        return nullptr;
    }
    const char* tail = url.divide_path();
    if (tail == nullptr) {
        log_err("%s: URI has no path tail: %s\n", caller, uri);
    }
    return tail;
}

const char* mv::with_query(const char* caller, const char* tail, const char* query, char* room, size_t size)
{
    if (query[0] == '\0') {
        return tail;
    }
    const int limit = static_cast<int>(size) - 1;
    const int length = snprintf(room, static_cast<size_t>(limit), "%s?%s", tail, query);
    if (length > limit) {
        log_warn("%s: GET query is too long [%d bytes], max=%ld bytes.\n", caller, length,
                 static_cast<long>(limit));
    }
    return room;
}

const char* mv::wanted_source(const char* caller, const char* authority, bool is_inbound)
{
    if (!is_inbound || authority[0] == '\0') {
        return nullptr;
    }
    log_dbg("%s: SSM source=[%s]\n", caller, authority);
    return authority;
}

int send_http_request(int sockfd, struct http_request* r)
{
    // Static: the loop's one thread sends one request at a time, and the stack need not hold it.
    static char host[kHostSize];
    static char buf[kRequestSize];
    if (r->type != RQTYPE_GET) {
        log_err("%s: only GET requests are currently supported.\n", __func__);
        return -1;
    }
    const char* addr = r->host_addr != nullptr && *r->host_addr != '\0' ? r->host_addr : LOCALHOST_ADDR;
    constexpr int host_limit = kHostSize - 1;
    const int host_len = is_blank_null(r->host_port)
                             ? snprintf(host, host_limit, "%s", addr)
                             : snprintf(host, host_limit, "%s:%s", addr, r->host_port);
    // Kept: a text of exactly the limit passes, here and below, though its last character is cut.
    if (host_len < 0 || host_len > host_limit) {
        log_err("%s: host buffer is too small, %d bytes needed\n", __func__, host_len);
        return -1;
    }
    constexpr int limit = kRequestSize - 1;
    const int length = snprintf(
        buf, limit,
        "GET %s%s HTTP/%s\r\nHost: %s\r\nConnection: %s\r\nUser-Agent: %s\r\nAccept: text/html,video/*, "
        "application/*\r\nAccept-Language: en-US,en,ru\r\nAccept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: "
        "no-cache\r\n\r\n",
        r->request[0] == '/' ? "" : "/", r->request, (r->flags & RQFLAG_HTTP10_GET) != 0 ? "1.0" : "1.1",
        host, (r->flags & RQFLAG_KEEPALIVE) != 0 ? "keep-alive" : "close", r->server);
    if (length < 0 || length > limit) {
        log_err("%s: buffer is too small, %d bytes required.\n", __func__, length);
        return -1;
    }
    // One write: a request of this size fits any socket's buffer, and a short count is a peer in trouble.
    const ssize_t sent = nwrite(sockfd, buf, static_cast<size_t>(length), FDIO_VERBOSE);
    if (sent <= 0) {
        const KeptErrno kept;
        log_err("%s: error sending HTTP request to fd=%d\n", __func__, sockfd);
        return -1;
    }
    if (sent != length) {
        log_warn("%s: only %ld out of %d bytes sent to fd=%d\n", __func__, static_cast<long>(sent), length,
                 sockfd);
        return -1;
    }
    log_dbg("%s: sent %ld bytes to fd=%d:\n%s", __func__, static_cast<long>(sent), sockfd, buf);
    return 0;
}

int send_http_get(int sockfd, const char* uri, const char* srvtag, bool use_http10)
{
    mv::UrlParts url;
    const char* tail = mv::take_apart(__func__, uri, url);
    if (tail == nullptr) {
        return -1;
    }
    struct http_request request = {RQTYPE_GET, 0, tail, srvtag, url.addr, url.port};
    if (use_http10) {
        request.flags |= RQFLAG_HTTP10_GET;
        log_dbg("%s: Using HTTP/1.0 request\n", __func__);
    }
    char joined[kGetSize];
    request.request = mv::with_query(__func__, tail, url.query, joined, sizeof joined);
    return send_http_request(sockfd, &request);
}

int recv_http_response(int sockfd, char* buf, size_t buflen, struct http_resp_ctx* resp)
{
    ASSERT(buf != nullptr && buflen > 0);
    const int rc = read_head(sockfd, buf, buflen, resp);
    if (rc != 0) {
        return rc;
    }
    // On the last byte of the marker: the head becomes a text, and the body behind it stays whole.
    buf[resp->tail - 1] = '\0';
    log_dbg("%s: total=%lu, tail=%lu; buf=[%s]\n", __func__, static_cast<unsigned long>(resp->total),
            static_cast<unsigned long>(resp->tail), buf);
    if (!parse_status_line(sockfd, buf, resp)) {
        return -1;
    }
    // Of a redirection alone, which says there where to go; whoever wants a header of another code finds it
    // in buf.
    if (!need_resp_headers(resp->code)) {
        return 0;
    }
    const char* headers = strchr(buf, '\r');
    if (headers == nullptr) {
        log_err("%s: cannot find LF at the end of response, broken? -- %s\n", __func__, buf);
        return -1;
    }
    ++headers;
    if (*headers == '\n') {
        ++headers;
    } else {
        log_warn("%s: got 0x%02x in place of CR(0x%02x)\n", __func__,
                 static_cast<unsigned>(static_cast<unsigned char>(*headers)), static_cast<unsigned>('\n'));
    }
    // Kept: an invalid header shows in its field alone, not in the result.
    parse_resp_headers(headers, resp);
    return 0;
}

ssize_t read_http(int sockfd, char* buf, size_t buflen, ssize_t offset, ssize_t* tail)
{
    const bool inside = offset >= 0 && static_cast<size_t>(offset) <= buflen;
    const size_t start = inside ? static_cast<size_t>(offset) : buflen;
    const ssize_t count = nread(sockfd, buf + start, buflen - start, 0);
    if (count <= 0) {
        return count;
    }
    const size_t head = mv::head_eod(buf, start + static_cast<size_t>(count));
    if (head > 0) {
        if (tail != nullptr) {
            *tail = static_cast<ssize_t>(head);
        }
        log_dbg("%s: HTTP EOD marker found at pos=%ld\n", __func__, static_cast<long>(head));
    } else {
        log_warn("%s: fd=%d, no HTTP EOD marker found, %ld bytes read.\n", __func__, sockfd,
                 static_cast<long>(count));
    }
    log_dbg("%s: %ld bytes read from fd%d\n", __func__, static_cast<long>(count), sockfd);
    return count;
}

const char* find_http_header(const char* title, const char* buf, size_t* hdr_len)
{
    const std::string_view value = mv::value_behind(mv::find_title(title, buf));
    if (hdr_len != nullptr) {
        *hdr_len = value.size();
    }
    return value.data();
}

ssize_t extract_num_hdr(const char* title, const char* buf, size_t len)
{
    const char* value = find_http_header(title, buf, &len);
    if (value == nullptr || len == 0) {
        return -1;
    }
    if (len >= kNumberSize) {
        log_warn("%s: header [%s] value length is too big: %lu bytes\n", __func__, title,
                 static_cast<unsigned long>(len));
        len = kNumberSize - 1;
    }
    char text[kNumberSize] = {};
    memcpy(text, value, len);
    return strtol(text, nullptr, 10);
}

void reset_resp_ctx(struct http_resp_ctx* r)
{
    log_dbg("%s: resetting %p [%s]\n", __func__, static_cast<void*>(r),
            r->location != nullptr ? r->location : "-");
    free(r->location);
    *r = NULL_http_ctx;
}

int parse_http_header(const char* http_rq, size_t rqlen, struct http_header* hdr, char* urlbuf, size_t urlen)
{
    log_dbg("%s: %lu bytes [%s]\n", __func__, static_cast<unsigned long>(rqlen), http_rq);
    // Cleared first: a head that is refused in the middle leaves no field of an earlier one.
    hdr->uri = {};
    hdr->host[0] = '\0';
    hdr->user_agent[0] = '\0';
    // The four walks stop at rqlen as well as at the text's own end: the data comes from a stranger.
    size_t at = 0;
    int rc = parse_method(http_rq, hdr, at);
    if (rc != 0) {
        return rc;
    }
    while (at < rqlen && is_white(http_rq[at])) {
        ++at;
    }
    const size_t target = at;
    while (at < rqlen && !is_white(http_rq[at])) {
        ++at;
    }
    rc = parse_target({http_rq + target, at - target}, hdr, urlbuf, urlen);
    if (rc != 0) {
        return rc;
    }
    while (at < rqlen && is_white(http_rq[at])) {
        ++at;
    }
    if (at < rqlen && strncmp(http_rq + at, kVersion, sizeof kVersion - 1) != 0) {
        log_err("%s: expected [%s] to follow the URI path, got [%s]\n", __func__, kVersion, http_rq + at);
        return -1;
    }
    const char* end = http_rq + std::max(at, rqlen);
    const void* line_end = memchr(http_rq + at, '\n', static_cast<size_t>(end - (http_rq + at)));
    const char* headers = line_end != nullptr ? static_cast<const char*>(line_end) + 1 : end;
    if (headers == end) {
        log_warn("%s: no header sections found\n", __func__);
        return 0;
    }
    log_dbg("%s: p=[%s]\n", __func__, headers);
    mv::WantedTitle wanted[] = {{"Host:"}, {"User-Agent:"}};
    mv::find_titles(headers, wanted);
    take_host(mv::value_behind(wanted[0].end), hdr);
    take_user_agent(mv::value_behind(wanted[1].end), hdr);
    return 0;
}

int mk_full_url(const struct http_header* hdr, char* buf, size_t buflen)
{
    if (hdr->host[0] == '\0' || hdr->uri.path == nullptr || hdr->uri.p_len == 0 || buflen == 0) {
        return EINVAL;
    }
    buf[0] = '\0'; // a limit of 0 writes nothing
    snprintf(buf, buflen - 1, "%s/%.*s", hdr->host,
             static_cast<int>(std::min(hdr->uri.p_len, static_cast<size_t>(INT_MAX))), hdr->uri.path);
    log_dbg("%s: %s\n", __func__, buf);
    return 0;
}

int extract_http_request_path_query(const char* http_rq, size_t hlen, char* path, size_t plen, char* query,
                                    size_t qlen)
{
    // A record of its own: its segments point into http_rq, and what the caller gets may outlive that.
    struct http_header hdr = {};
    const int rc = parse_http_header(http_rq, hlen, &hdr, nullptr, 0);
    if (rc != 0) {
        return rc;
    }
    if (plen > 0) {
        path[0] = '\0';
    }
    if (hdr.uri.path == nullptr) {
        log_err("%s: no URI path found in [%s]\n", __func__, http_rq);
        return -1;
    }
    if (hdr.uri.p_len >= plen) {
        log_err("%s: path is too long [%ld chars, allowed: %ld]: %80s...\n", __func__,
                static_cast<long>(hdr.uri.p_len), static_cast<long>(plen), hdr.uri.path);
        return -1;
    }
    memcpy(path, hdr.uri.path, hdr.uri.p_len);
    path[hdr.uri.p_len] = '\0';
    query[0] = '\0';
    if (hdr.uri.q_len > qlen) {
        log_err("%s: query is too long [%ld chars, allowed: %ld]: %80s...\n", __func__,
                static_cast<long>(hdr.uri.q_len), static_cast<long>(qlen), hdr.uri.query);
        return -1;
    }
    if (hdr.uri.query != nullptr) {
        memcpy(query, hdr.uri.query, hdr.uri.q_len);
        query[hdr.uri.q_len] = '\0';
    }
    return 0;
}

int web_parse_urq(char* http, size_t hlen, char* uri_src, char* uri_dst, size_t ulen,
                  struct http_header* user_hdr)
{
    mv::OwnedBlock<char> query;
    char* path = nullptr;
    if (const int rc = take_request(http, hlen, user_hdr, query, path); rc != 0) {
        return rc;
    }
    if (strcasecmp(path, HTTP_FAVICON_RQ) == 0) {
        log_dbg("%s: favicon request received.\n", __func__);
        return RC_FAVICON;
    }
    // A ping, or a path that is refused, leaves no endpoints of an earlier request. The answers above leave
    // them alone.
    if (ulen > 0) {
        uri_src[0] = '\0';
        uri_dst[0] = '\0';
    }
    if (is_ping_request(path)) {
        log_info("Handling user-side PING request\n");
        return RC_PING;
    }
    if (!parse_endpoints(path, uri_src, uri_dst, ulen)) {
        return -1;
    }
    if (query && !append_query(query.get(), uri_src, ulen)) {
        return E2BIG;
    }
    log_dbg("%s: URI=[%s] - src=[%s], dst=[%s]\n", __func__, path, uri_src, uri_dst);
    return 0;
}

bool is_ping_request(const char* path)
{
    return slash_match(path + (*path == '/' ? 1 : 0), "ping");
}

int web_read_request_line(const char** at, const char* end, struct web_request_line* line)
{
    std::string_view rest(*at, static_cast<size_t>(end - *at));
    const std::string_view method = take_while(rest, is_token_char);
    const bool one_blank = take_text(rest, " ");
    const std::string_view target = take_while(rest, is_target_char);
    if (method.empty() || !one_blank || target.empty() || !take_text(rest, " HTTP/1.") || rest.empty() ||
        rest[0] < '0' || rest[0] > '9') {
        return -1;
    }
    const int minor = rest[0] - '0';
    rest.remove_prefix(1);
    if (!take_text(rest, "\r\n")) {
        return -1;
    }
    *line = {method.data(), method.size(), target.data(), target.size(), minor};
    *at = rest.data();
    return 0;
}

int web_read_field(const char** at, const char* end, struct web_field* field)
{
    std::string_view rest(*at, static_cast<size_t>(end - *at));
    if (take_text(rest, "\r\n")) {
        *at = rest.data();
        return 1;
    }
    const std::string_view name = take_while(rest, is_token_char);
    if (name.empty() || !take_text(rest, ":")) {
        return -1;
    }
    take_while(rest, is_blank);
    const std::string_view value = trim_end(take_while(rest, is_value_char));
    if (!take_text(rest, "\r\n")) {
        return -1;
    }
    *field = {name.data(), name.size(), value.data(), value.size()};
    *at = rest.data();
    return 0;
}

ssize_t mk_http_response(const struct http_response* r, char* buf, size_t buflen)
{
    ASSERT(r->code != 0 && r->reason != nullptr && r->server != nullptr);
    ResponseHead head(buf, buflen);
    const bool whole = status_lines(r, head) && head.text_line("Content-Type: ", r->content_type) &&
                       content_length_line(r, head) && head.text_line("Connection: ", r->connection) &&
                       head.text_line("Location: ", r->location) && suffix_line(r, head);
    if (!whole || head.room() <= 3) {
        return -1;
    }
    // With a terminator, for the line of the log; the length leaves it out.
    head.append({"\r\n\0", 3});
    return static_cast<ssize_t>(head.length() - 1);
}

int send_http_response(int sockfd, const struct http_response* r)
{
    static char buf[kResponseSize];
    const ssize_t length = mk_http_response(r, buf, sizeof buf);
    const ssize_t sent = length < 0 ? -1 : nwrite(sockfd, buf, static_cast<size_t>(length), FDIO_VERBOSE);
    const KeptErrno kept;
    if (length >= 0 && sent <= 0) {
        log_err("%s: error sending HTTP response to fd=%d\n", __func__, sockfd);
    }
    // Kept: a failed write logs this line too, and a short one is no failure.
    if (length >= 0 && sent != length) {
        log_warn("%s: only %ld out of %ld bytes sent to fd=%d\n", __func__, static_cast<long>(sent),
                 static_cast<long>(length), sockfd);
    }
    if (sent <= 0) {
        log_err("%s: error compiling HTTP response for fd=%d\n", __func__, sockfd);
        return -1;
    }
    log_dbg("%s: sent HTTP response (%ld bytes) to fd=%d:\n%s\n", __func__, static_cast<long>(length), sockfd,
            buf);
    return 0;
}

struct http_response* match_http_response(int http_code)
{
    // By the codes as they are given, not by the records, whose fields their users may write.
    switch (http_code) {
    case HTTP_OK_CODE: return &g_resp_ok;
    case kMovedCode: return &g_resp_tmoved;
    case kBadRequestCode: return &g_resp_bad;
    case kDeniedCode: return &g_resp_denied;
    case kNotFoundCode: return &g_resp_nfound;
    case kTimedOutCode: return &g_resp_timeout;
    case kServiceErrorCode: return &g_resp_err;
    default: return nullptr;
    }
}

int web_escape(const char* src, char* dst, size_t dstlen)
{
    size_t at = 0;
    int stretches = 0;
    while (*src != '\0') {
        const size_t length = strcspn(src, web_ESC);
        const char* seq = get_web_seq(src[length]);
        if (seq == nullptr && stretches == 0) {
            return 0;
        }
        ++stretches;
        if (dst != nullptr) {
            // Kept: the last stretch brings no terminator, and has none where it fills dst.
            if (length > dstlen - at) {
                return -ERANGE;
            }
            memcpy(dst + at, src, length);
            at += length;
            if (seq != nullptr) {
                const size_t seq_len = strlen(seq);
                if (seq_len >= dstlen - at) {
                    return -ERANGE;
                }
                strncpy(dst + at, seq, dstlen - at); // what follows becomes zero and ends the last stretch
                at += seq_len;
            }
        }
        src += length + (seq != nullptr ? 1 : 0);
    }
    return stretches;
}

int mk_hls_item_url(const char* m3u_url, const char* path, char* buf, size_t buflen)
{
    if (strncasecmp(path, kHttpPrefix, kHttpPrefixSize) == 0) {
        strncpy(buf, path, buflen); // Kept: no terminator where it fills buf.
        return 0;
    }
    if (strncasecmp(m3u_url, kHttpPrefix, kHttpPrefixSize) != 0) {
        log_err("%s: non-http M3U url: %s\n", __func__, m3u_url);
        return EINVAL;
    }
    // There is a slash, in the prefix at least; a URL that has only those is refused below.
    const size_t prefix = static_cast<size_t>(strrchr(m3u_url, '/') - m3u_url);
    const size_t length = strlen(path);
    if (prefix <= kHttpPrefixSize || prefix + length + 1 >= buflen) {
        log_err("%s: pfx-len=%ld bad m3u URL: %s\n", __func__, static_cast<long>(prefix), m3u_url);
        return EINVAL;
    }
    memset(buf, 0, buflen);
    memcpy(buf, m3u_url, prefix + 1);
    memcpy(buf + prefix + 1, path, length + 1);
    return 0;
}

struct fdrec* open_uri_src(const char* uri, const char* ifc_tag, int* uri_kind)
{
    return open_uri(INBOUND_URI, uri, ifc_tag, uri_kind);
}

struct fdrec* open_uri_dst(const char* uri, int* uri_kind)
{
    return open_uri(OUTBOUND_URI, uri, nullptr, uri_kind);
}
