// URL sockets: descriptors from URL texts, with the HTTP exchange where the URL asks for one.
#include "wopen.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>

#include "clk.h"
#include "detail/assertions.h"
#include "detail/net_url.h"
#include "detail/owned.h"
#include "fdio.h"
#include "log.h"
#include "netops.h"
#include "syswrap.h"
#include "timeop.h"
#include "uri.h"
#include "webops.h"

DECLARE_MLL(MLL_COMMON);

struct usock_flags g_usock_flags = {false};
char g_apptag[USOCK_APPTAG_MAX] = "#ERR#";

namespace {

using mv::UrlParts;

constexpr char kUsockOpen[] = "usock_open"; // who the lines of its stages name
constexpr char kHttpPort[] = "80";
constexpr size_t kBufferSize = 2048;
// A longer head is refused. What of the body came along stands behind it.
constexpr size_t kHeadMax = 1024;
constexpr size_t kRequestMax = 128;
// Of reads whose data nobody wants: the size of one read, and no limit.
constexpr size_t kScratchSize = 2048;
constexpr struct timespec kHeadTimeout = {5, 0};

// How far an opening came: the descriptor, and whether all went well.
struct Opening {
    mv::OwnedFd fd;
    int rc = -1;
    bool out_of_memory = false; // no HTTP exchange is tried then
};

// A response head that is being read, with what its context owns.
struct ResponseText {
    char text[kHeadMax] = {};
    struct http_resp_ctx ctx = NULL_http_ctx;

    ResponseText() = default;
    ResponseText(const ResponseText&) = delete;
    ResponseText& operator=(const ResponseText&) = delete;

    ~ResponseText() { free(ctx.location); }
};

void set_now(struct timespec* tms)
{
    set_clk_now(tms, FAST_MONOTONIC_CLOCK);
}

// ---- the HTTP exchange ---------------------------------------------------------------------------

// Sends the GET request for a URL. 0 or -1.
int fwd_http_rq(int sockfd, const char* uri, const char* apptag, uint32_t flags)
{
    UrlParts url;
    const char* const tail = mv::take_apart(__func__, uri, url);
    if (tail == nullptr) {
        return -1;
    }
    if (g_usock_flags.use_http10_get) {
        log_dbg("%s: Using HTTP/1.0 request\n", __func__);
    }
    char request[kRequestMax];
    struct http_request r = {};
    r.type = RQTYPE_GET;
    r.flags = flags; // Kept: the caller's flags alone decide on the version, whatever the line says.
    r.request = mv::with_query(__func__, tail, url.query, request, sizeof request);
    r.server = apptag;
    r.host_addr = url.addr;
    r.host_port = url.port;
    return send_http_request(sockfd, &r);
}

// Reads until the head is there, or no more is to be expected: the result of recv_http_response.
int read_head(const char* caller, int sockfd, ResponseText& head)
{
    struct timespec start;
    int rc = -1;
    set_now(&start);
    // A descriptor whose flags cannot be read (-1) counts as impatient: a broken one must not be waited for.
    const bool is_patient = is_non_blocking(sockfd) == 0;
    // Kept: the timer starts anew right before each test, so the limit never runs out between two reads.
    while (timed_out(&start, &kHeadTimeout) == 0) {
        rc = recv_http_response(sockfd, head.text, sizeof head.text, &head.ctx);
        if (rc != EAGAIN) {
            break;
        }
        log_dbg("%s: expecting more data from fd%d\n", caller, sockfd);
        // On a blocking socket EAGAIN is a receive time-out (SO_RCVTIMEO) that ran out: worth another try.
        if (!is_patient) {
            break;
        }
        set_now(&start);
    }
    return rc;
}

// Hands out the part of the body that came with the head.
void take_tail(const char* caller, int sockfd, const ResponseText& head, char* tail, size_t tail_cap,
               size_t* tail_size)
{
    // The marker ends inside what was read, so tail is never above total.
    size_t n = static_cast<size_t>(head.ctx.total - head.ctx.tail);
    if (tail != nullptr && tail_size != nullptr) {
        if (n > tail_cap) {
            log_err("%s: tail for fd%d is too big: %ld bytes, skipping\n", caller, sockfd,
                    static_cast<long>(n));
            n = 0;
        } else {
            memcpy(tail, head.text + head.ctx.tail, n);
        }
        *tail_size = n;
    }
    if (n > 0) {
        log_dbg("%s: response for fd%d has a tail of %lu bytes\n", caller, sockfd,
                static_cast<unsigned long>(n));
    }
}

// Reads a response head that must have the code 200. 0, 11 (EAGAIN) on a non-blocking socket, or -1.
int get_http_response(int sockfd, char* tail, size_t tail_cap, size_t* tail_size)
{
    ResponseText head;
    log_dbg("%s: reading HTTP response from fd=%d\n", __func__, sockfd);
    const int rc = read_head(__func__, sockfd, head);
    if (rc == EAGAIN) {
        return rc;
    }
    // Kept: 200 alone; a redirect is not followed, and the other codes of success count as failures.
    if (rc == 0 && head.ctx.code != HTTP_OK_CODE) {
        log_err("%s: expected HTTP %d, got HTTP %d\n", __func__, HTTP_OK_CODE, head.ctx.code);
        return -1;
    }
    // Kept: it is the head's length that is held against the room for the tail.
    if (head.ctx.tail > 0 && static_cast<size_t>(head.ctx.tail) < tail_cap) {
        take_tail(__func__, sockfd, head, tail, tail_cap, tail_size);
    }
    return rc == 0 ? 0 : -1;
}

// ---- opening -----------------------------------------------------------------------------------

Opening open_file(struct usock_ctx* uc)
{
    Opening opening;
    // Kept: for reading, also where the URL is to be written to: such a one fails at its first write.
    opening.fd.reset(W_open(kUsockOpen, uc->url_path, O_RDONLY, 0));
    opening.rc = 0;
    uc->non_pollable = true;
    log_dbg("%s: fd%d FILE [%s]\n", kUsockOpen, opening.fd.get(), uc->url_path);
    return opening;
}

// The buffer that goes with a TCP or HTTP socket. It outlives the opening: the beginning of the body stands
// in it until usock_close().
bool make_buffer(struct usock_ctx* uc)
{
    uc->buf = static_cast<char*>(W_calloc(kUsockOpen, 1, kBufferSize));
    if (uc->buf == nullptr) {
        return false;
    }
    uc->bufcap = kBufferSize;
    uc->buflen = 0;
    return true;
}

// What the kind of the URL means for the socket: its type, the buffer, the source of a group. False without
// memory for the buffer. The default is not reached: open_by_kind() lets no other kind come here.
bool set_by_kind(const UrlParts& url, struct usock_ctx* uc, const char** source)
{
    switch (uc->url_kind) {
    case URI_TCP:
    case URI_HTTP: uc->sspec.socktype = SOCK_STREAM; return make_buffer(uc);
    case URI_UDP:
    case URI_RTP:
        uc->sspec.socktype = SOCK_DGRAM;
        *source = mv::wanted_source(kUsockOpen, url.authority, uc->inbound);
        return true;
    default: log_err("%s: unsupported URI type: %d\n", kUsockOpen, uc->url_kind); return true;
    }
}

// Opens a socket as the kind of URL wants it. A descriptor that is open goes back with a code of its own: the
// caller decides what a failed timeout means for it.
Opening open_net(const char* text, UrlParts& url, struct usock_ctx* uc)
{
    Opening opening;
    if (url.divide_path() == nullptr) {
        return opening;
    }
    if (uc->url_kind == URI_HTTP && url.port[0] == 0) {
        memcpy(url.port, kHttpPort, sizeof kHttpPort);
        log_dbg("%s: assuming HTTP port %s for [%s]\n", kUsockOpen, url.port, text);
    }
    uc->sspec.writer = uc->inbound ? 0 : 1;
    uc->sspec.non_blocking = uc->non_blocking ? 1 : 0;
    const char* source = nullptr;
    if (!set_by_kind(url, uc, &source)) {
        opening.out_of_memory = true;
        return opening;
    }
    opening.fd.reset(open_socket(url.addr, url.port, source, &uc->sspec, uc->ifc_tag, &uc->mifc));
    if (!opening.fd) {
        return opening;
    }
    opening.rc = 0;
    // A non-blocking socket never waits: a timeout would say something that does not happen.
    if (!uc->non_blocking && uc->timeout_ms != 0) {
        opening.rc = uc->inbound ? set_rcv_timeout(opening.fd.get(), uc->timeout_ms)
                                 : set_send_timeout(opening.fd.get(), uc->timeout_ms);
    }
    return opening;
}

// By the order of the kinds in uri.h: the file first, those of the network side by side behind it.
Opening open_by_kind(const char* text, UrlParts& url, struct usock_ctx* uc)
{
    if (uc->url_kind == URI_FILE) {
        return open_file(uc);
    }
    if (uc->url_kind >= URI_TCP && uc->url_kind <= URI_HTTP) {
        return open_net(text, url, uc);
    }
    log_err("%s: unsupported type of URI [%s]", kUsockOpen, text);
    return {};
}

} // namespace

int usock_open(const char* url, struct usock_ctx* uc)
{
    UrlParts segments;
    uc->url_kind = uri_extract(url, nullptr, segments.authority, segments.path, segments.query);
    if (uc->url_kind == URI_BAD) {
        return -1;
    }
    // The text of the assertion is told to callers as it stands here, blanks included.
    // clang-format off
    assert(((void *)0) == uc->url_path);
    // clang-format on
    uc->url_path = strdup(segments.path);
    assert(uc->url_path);
    uc->non_pollable = false;
    Opening opening = open_by_kind(url, segments, uc);
    if (uc->url_kind == URI_HTTP && !uc->skip_http && !opening.out_of_memory) {
        // Kept: the exchange is tried after a failed connect too, and a failed exchange cleans up nothing:
        // the descriptor stays open as well.
        if (fwd_http_rq(opening.fd.get(), url, g_apptag, uc->http_flags) != 0 ||
            get_http_response(opening.fd.get(), uc->buf, uc->bufcap, &uc->buflen) != 0) {
            opening.fd.release();
            return -1;
        }
    }
    if (opening.rc == 0 && opening.fd) {
        return opening.fd.release();
    }
    usock_close(opening.fd.release(), uc); // who leaves the group before it closes
    return -1;
}

void usock_close(int fd, struct usock_ctx* uc)
{
    if (uc != nullptr) {
        // While the descriptor is open: a group is left through the socket that joined it. The record's own
        // address says which group, as open_socket() left it there.
        if (uc->sspec.multicast != 0 && uc->sspec.writer == 0) {
            mcast_leave(fd, &uc->sspec.addr_ss, uc->mifc);
        }
        free(uc->url_path);
        uc->url_path = nullptr;
        free(uc->mifc);
        uc->mifc = nullptr;
        if (uc->buf != nullptr) {
            free(uc->buf);
            uc->buf = nullptr;
            uc->buflen = 0;
        }
    }
    if (fd >= 0) {
        Close(fd);
    }
}

void usock_set_apptag(const char* apptag)
{
    assert(apptag != nullptr);
    strncpy(g_apptag, apptag, sizeof g_apptag - 1);
    g_apptag[sizeof g_apptag - 1] = 0;
}

int usock_http_get(int sockfd, const char* uri, uint32_t flags)
{
    return fwd_http_rq(sockfd, uri, g_apptag, flags);
}

int usock_http_get_response(int sockfd, struct http_resp_buf* resp)
{
    assert(resp->buf && resp->len > 0);
    struct http_resp_ctx* const ctx = &resp->ctx;
    log_dbg("%s: reading HTTP response from fd=%d\n", __func__, sockfd);
    // Tested before the read: a full buffer would otherwise look like a peer that sends nothing.
    const size_t total = static_cast<size_t>(ctx->total);
    if (total >= resp->len) {
        log_err("%s: buffer is full, size=%ld\n", __func__, static_cast<long>(resp->len));
        return E2BIG;
    }
    // Kept: recv_http_response goes to ctx->total in what it is given, so a second piece of a head lands at
    // twice the count, and the room left for it shrinks by the same.
    const int rc = recv_http_response(sockfd, resp->buf + total, resp->len - total, ctx);
    if (rc == EAGAIN) {
        log_dbg("%s: [%ld bytes] in, expecting more data from fd%d\n", __func__,
                static_cast<long>(ctx->total), sockfd);
        return rc;
    }
    if (rc != 0) {
        log_err("%s: err=%d getting HTTP response from fd%d\n", __func__, rc, sockfd);
        return rc;
    }
    if (!is_HTTP_OK(ctx->code)) {
        log_warn("%s: expected HTTP %d-%d, got HTTP %d\n", __func__, HTTP_OK_CODE, HTTP_OK_END, ctx->code);
        return EACCES;
    }
    if (ctx->total - ctx->tail > 0) {
        log_dbg("%s: got HTTP tail of %ld bytes from fd%d\n", __func__,
                static_cast<long>(ctx->total - ctx->tail), sockfd);
    }
    return 0;
}

int usock_http_get_body(int sockfd, struct http_body_buf* bb)
{
    // Kept: it counts the bytes that are held beyond the block's size, not the ones that it lacks. What is
    // read for them has no place in the block.
    ssize_t left = static_cast<ssize_t>(bb->data_len) - static_cast<ssize_t>(bb->buf_size);
    while (left > 0) {
        char scratch[kScratchSize];
        const size_t wanted = static_cast<size_t>(left);
        // Tells the peer's end, which sets no number, from a read that failed.
        errno = 0;
        const ssize_t n = nread(sockfd, scratch, wanted < kScratchSize ? wanted : kScratchSize, 0);
        if (n < 1) {
            const int err = errno;
            return err != 0 ? err : -1;
        }
        bb->data_len += static_cast<size_t>(n);
        left -= n;
        log_dbg("%s: read(fd%d..) %ld bytes, %ld left to read\n", __func__, sockfd, static_cast<long>(n),
                static_cast<long>(left));
    }
    ASSERT(left == 0);
    log_dbg("%s: complete at %lu bytes\n", __func__, static_cast<unsigned long>(bb->data_len));
    ASSERT(bb->data_len == bb->buf_size);
    return 0;
}
