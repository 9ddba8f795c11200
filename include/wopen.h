/*
 * wopen.h: URL sockets: a descriptor from the text of a URL. A file, a TCP or UDP socket, a multicast group,
 * or an HTTP connection with its request sent and the head of the response consumed.
 *
 * The caller zeroes a usock_ctx, sets its input fields and opens; usock_close() undoes all of it and leaves
 * the record fit for another open. Everything is logged in the slot MLL_COMMON.
 *
 * Length and type of an HTTP body: usock_open consumes the head and keeps neither. To learn them, open with
 * skip_http, send usock_http_get, and read the head with usock_http_get_response: it stands as a text in
 * resp->buf, where extract_num_hdr finds "Content-Length:" and find_http_header "Content-Type:" (webops.h).
 * The context has them for a redirection alone.
 *
 * State: g_apptag and g_usock_flags.
 */
#ifndef MORVANE_WOPEN_H
#define MORVANE_WOPEN_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "mvtypes.h"
#include "netops.h"
#include "webops.h"

MV_BEGIN_DECLS

/* usock_ctx: one URL socket. What is marked "owned" is released by usock_close(). */
struct usock_ctx {
    bool inbound;             /* in: it is read from; otherwise written to */
    bool non_blocking;        /* in: non-blocking from the start; no time-out is set then */
    bool skip_http;           /* in: an http URL is only connected, no request is sent */
    bool non_pollable;        /* out: a file, which cannot be polled */
    uint32_t http_flags;      /* in: RQFLAG_ bits of the request (webops.h) */
    ssize_t nopoll_idx;       /* for the event loop's user; nothing here touches it */
    const char* ifc_tag;      /* in: interface, by name or address (netops.h); NULL: any */
    int timeout_ms;           /* in: send or receive time-out in milliseconds; 0: none */
    int url_kind;             /* out: kind of the URL (URI_ of uri.h), -1 if it is no URL */
    struct socket_spec sspec; /* in and out: the socket (netops.h); to be zeroed before another kind of URL */
    char* url_path;           /* out, owned: path of the URL; must be NULL when opening */
    struct ifc_info* mifc;    /* out, owned: interface of a multicast socket, or NULL */
    char* buf;                /* out, owned: buffer of a TCP or HTTP socket, else NULL */
    size_t bufcap;            /* out: capacity of buf, 2048 */
    size_t buflen;            /* out: bytes in buf: the beginning of the body, to be used before any read */
};

/* usock_flags: settings of all URL sockets. */
struct usock_flags {
    bool use_http10_get; /* only a line of the log tells it; the version goes by usock_ctx.http_flags */
};

/* g_usock_flags: their one instance. */
extern struct usock_flags g_usock_flags;

/* USOCK_APPTAG_MAX: bytes of g_apptag. */
enum { USOCK_APPTAG_MAX = 128 };

/* g_apptag: the User-Agent of every request from here, "#ERR#" until usock_set_apptag() is called. */
extern char g_apptag[USOCK_APPTAG_MAX];

/*
 * usock_open: opens a URL as *uc asks. Returns the descriptor, or -1 with the reason in the log; url_kind
 * tells how far it came.
 *
 * file: read-only, for both directions. tcp, udp, rtp: a port is needed; a reader of udp or rtp takes what
 * stands before an "@" as the source of a source-specific group. http: port 80 by default; unless skip_http
 * is set, a GET is sent and a response with code 200 awaited, for as long as the socket blocks. A failure of
 * that exchange, an unfinished response on a non-blocking socket included, leaves url_path and buf in *uc for
 * usock_close(-1, uc), and the connected descriptor is lost. REQUIRES: a NULL url_path, unless the text is no
 * URL; memory for a copy of the path.
 */
int usock_open(const char* url, struct usock_ctx* uc);

/* usock_close: leaves the multicast group of a reader, releases what *uc owns (uc may be NULL) and closes fd,
 * unless it is negative. */
void usock_close(int fd, struct usock_ctx* uc);

/* usock_set_apptag: sets g_apptag, at most 127 characters of it. REQUIRES: apptag. */
void usock_set_apptag(const char* apptag);

/* usock_http_get: sends the GET request for a URL on a connected socket; flags are RQFLAG_ bits of webops.h.
 * 0, or -1 (logged). */
int usock_http_get(int sockfd, const char* uri, uint32_t flags);

/*
 * usock_http_get_response: reads the head of a response on a non-blocking socket that has become readable. 0:
 * the head is there, its code from 200 to 299; resp->ctx.tail is where the body begins in resp->buf. 11
 * (EAGAIN): call again; a head that comes in pieces is not put together in one place (docs/kept-quirks.md). 7
 * (E2BIG): the buffer is full. 13 (EACCES): another code. -1: an error. All but 0 are logged. REQUIRES:
 * resp->buf; resp->len above 0.
 */
int usock_http_get_response(int sockfd, struct http_resp_buf* resp);

/*
 * usock_http_get_body: 0 for a block that is complete, with data_len equal to buf_size. What a block claims
 * to hold beyond buf_size is read once more and dropped, with data_len growing: 11 (EAGAIN): call again; -1:
 * the peer closed; otherwise the errno value of the failed read. REQUIRES: data_len is not below buf_size,
 * nor above it once all of that is read.
 */
int usock_http_get_body(int sockfd, struct http_body_buf* bb);

MV_END_DECLS

#endif
