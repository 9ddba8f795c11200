/*
 * webops.h: a small HTTP/1.x (RFC 9112): the client sends one GET and reads the head of the response; the
 * server side reads the head of a request, learns from its path what is asked for, and composes heads of
 * responses. Bodies, chunked coding, redirects and the closing of sockets are the caller's.
 *
 * State: static buffers of send_http_request and send_http_response, which are therefore not re-entrant, and
 * the canned responses g_resp_*, which are shared and writable. One thread.
 *
 * Failures are logged, each once where it happens, unless said otherwise. errno is what the failed call left.
 */
#ifndef MORVANE_WEBOPS_H
#define MORVANE_WEBOPS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "mvtypes.h"
#include "uri.h"

MV_BEGIN_DECLS

struct fdrec;

/* Types of requests. */
enum { RQTYPE_GET = 0, RQTYPE_HEAD = 1 };

/* Flags of a request: version 1.0 in place of 1.1; "keep-alive" in place of "close". */
enum { RQFLAG_HTTP10_GET = 1, RQFLAG_KEEPALIVE = 2 };

/* Bounds of the good status codes, and results of web_parse_urq that lie above any status code. */
enum { HTTP_OK_CODE = 200, HTTP_OK_END = 299, RC_FAVICON = 1028, RC_PING = 1029 };

/* Sizes of the fields for Content-Type, Host and User-Agent, each with a terminator. */
enum { MAX_HTTP_CTYPE = 64, MAX_HOST_LEN = 64, MAX_UAG_LEN = 128 };

/* LOCALHOST_ADDR: Host of a request that names none. */
#define LOCALHOST_ADDR "localhost"

/* HTTP_FAVICON_RQ: the path that browsers ask for on their own account. */
#define HTTP_FAVICON_RQ "favicon.ico"

/* Reasons of the canned responses. */
#define HTTP_OK "OK"
#define HTTP_MOVED_TEMP "Moved Temporarily"
#define HTTP_BAD_REQUEST "Bad request"
#define HTTP_DENIED "Forbidden"
#define HTTP_NOT_FOUND "Not Found"
#define HTTP_TIMED_OUT "Request Timeout"
#define HTTP_SERVICE_ERROR "Service error"

/* is_HTTP_OK: whether a status code is one of 200 to 299. */
#define is_HTTP_OK(c) ((c) >= HTTP_OK_CODE && (c) <= HTTP_OK_END)

/* need_resp_headers: whether the headers of a response with this status code are read: 301 and 302. */
#define need_resp_headers(c) ((c) == 301 || (c) == 302)

/* http_request: one request to send. The texts are the caller's. */
struct http_request {
    unsigned type : 4;     /* RQTYPE_ */
    uint32_t flags;        /* RQFLAG_ */
    const char* request;   /* path and query; a leading slash is added where there is none */
    const char* server;    /* User-Agent */
    const char* host_addr; /* host of the Host header; NULL or empty: LOCALHOST_ADDR */
    const char* host_port; /* port of the Host header; NULL or blank: none */
};

/* http_resp_ctx: a response head that is being read. It lives across calls, so that the head may come in
 * pieces. */
struct http_resp_ctx {
    int code;      /* of the status line */
    ssize_t total; /* bytes in the caller's buffer */
    ssize_t tail;  /* length of the head with its end marker, 0 until that is found; total - tail bytes of the
                      body stand there */
    char content_type[MAX_HTTP_CTYPE]; /* empty if absent */
    long int content_length;           /* -1 if absent or invalid */
    char* location;                    /* owned: reset_resp_ctx releases it; NULL if absent */
};

/* NULL_http_ctx: initial value of a http_resp_ctx. */
#define NULL_http_ctx                                                                                        \
    {                                                                                                        \
        0, 0, 0, "", 0, NULL                                                                                 \
    }

/* http_resp_buf: a context with the caller's buffer of len bytes. */
struct http_resp_buf {
    char* buf;
    size_t len;
    struct http_resp_ctx ctx;
};

/* http_body_buf: a block for a body, in one allocation with its data. */
struct http_body_buf {
    size_t buf_size; /* bytes of data[] */
    size_t data_len; /* bytes held */
    _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wpedantic\"") char data[];
    _Pragma("GCC diagnostic pop")
};

/*
 * send_http_request: sends a GET in one write. 0 or -1: another type, a Host above 127 characters, a request
 * above 2047, a failed or short write. A Host of exactly 127 and a request of exactly 2047 characters go out
 * with the last character cut. REQUIRES: request, server.
 */
int send_http_request(int sockfd, struct http_request* r);

/*
 * send_http_get: send_http_request for a URL, whose scheme is not looked at; srvtag is the User-Agent. 0 or
 * -1. The Host header has a port only if the URL has one.
 */
int send_http_get(int sockfd, const char* uri, const char* srvtag, bool use_http10);

/*
 * recv_http_response: reads the head of a response into buf and judges its status line. 0: the head is read,
 * resp->code is set, and for 301 and 302 the headers too (an invalid one shows in its field alone); the text
 * in buf ends where the marker's last byte was. 11 (EAGAIN): call again with the same arguments. -1: the peer
 * closed or failed, the head does not fit in buflen - 1 bytes, or there is no status line with a reason.
 * Before resp is used for another response: reset_resp_ctx. REQUIRES: buf; buflen above 0; no location in
 * resp when the response brings one.
 */
int recv_http_response(int sockfd, char* buf, size_t buflen, struct http_resp_ctx* resp);

/*
 * read_http: one nread (fdio.h) to offset in buf, and a look for the end of the head in all bytes from buf
 * on. Its result and errno; *tail (if given) becomes the head's length with its marker where that is found.
 */
ssize_t read_http(int sockfd, char* buf, size_t buflen, ssize_t offset, ssize_t* tail);

/*
 * find_http_header: the value of a header; *hdr_len (if given) is its length, 0 without one. title may end in
 * a colon. The title is found anywhere in the text, in any case, also inside another header. NULL: not found,
 * no blank behind the colon, or a value that does not end in CR or LF. An empty value gives the next line.
 * Nothing is logged.
 */
const char* find_http_header(const char* title, const char* buf, size_t* hdr_len);

/* extract_num_hdr: the number that find_http_header finds, by its first 31 characters; -1 if there is none.
 * len has no effect. */
ssize_t extract_num_hdr(const char* title, const char* buf, size_t len);

/* reset_resp_ctx: releases location and zeroes the record. */
void reset_resp_ctx(struct http_resp_ctx* r);

/* http_header: a parsed request head. */
struct http_header {
    int type;                     /* RQTYPE_ */
    struct uri_layout uri;        /* of the target; it points into the text of the request */
    char host[MAX_HOST_LEN];      /* empty if absent or too long */
    char user_agent[MAX_UAG_LEN]; /* percent-encoded (uri_encode); empty if absent */
};

/* http_response: the head of a response. The texts are the caller's; a header is left out if its text is NULL
 * or empty, Content-Length if it is negative. */
struct http_response {
    int code; /* not 0 */
    const char* content_type;
    long int content_length;
    const char* reason; /* not NULL */
    const char* server; /* not NULL */
    const char* connection;
    const char* ok_suffix; /* further header lines without the last line end; with code 200 only */
    const char* location;
};

/* g_resp_*: canned responses. They have no server until a user sets it. What is written there stays for the
 * next user. */
extern struct http_response g_resp_ok;      /* 200, no Content-Length */
extern struct http_response g_resp_tmoved;  /* 302 */
extern struct http_response g_resp_bad;     /* 400 */
extern struct http_response g_resp_denied;  /* 403 */
extern struct http_response g_resp_nfound;  /* 404 */
extern struct http_response g_resp_timeout; /* 408 */
extern struct http_response g_resp_err;     /* 500 */

/* web_ESC, web_SEQ: the characters that web_escape replaces, and their sequences in the same order, NULL at
 * the end. */
#define web_ESC "&><'\""

enum { web_SEQ_COUNT = 6 };

extern const char* const web_SEQ[web_SEQ_COUNT];

/*
 * parse_http_header: reads the head of a request, rqlen bytes with a terminator behind them, which it does
 * not write to. 0; 22 (EINVAL): a method other than GET and HEAD; -1: no method, a target that is no URI, or
 * a version other than HTTP/1.x (none at all is taken). urlbuf, if given, has urlen bytes and gets the
 * target, unless that is longer than urlen. hdr->uri drops a leading slash of the target (uri_parse).
 */
int parse_http_header(const char* http_rq, size_t rqlen, struct http_header* hdr, char* urlbuf, size_t urlen);

/* mk_full_url: "host/path" of a request, cut to buflen - 2 characters. 0, or 22 (EINVAL) without host, path
 * or room for a terminator; nothing is logged then. */
int mk_full_url(const struct http_header* hdr, char* buf, size_t buflen);

/*
 * extract_http_request_path_query: parse_http_header, then copies of path and query. 0, its result, or -1: no
 * path, a path of plen characters or more, a query of more than qlen. path has plen bytes, query qlen + 1.
 */
int extract_http_request_path_query(const char* http_rq, size_t hlen, char* path, size_t plen, char* query,
                                    size_t qlen);

/*
 * web_parse_urq: source and destination of a request (uri_extract_endpts), decoded, with the query appended
 * to the source.
 *
 *   0             both are there
 *   RC_FAVICON    the request is for /favicon.ico
 *   RC_PING       the request is a ping
 *   EINVAL (22)   a method that is not served
 *   E2BIG (7)     no room in uri_src for the query
 *   -E2BIG (-7)   a query above 255 characters
 *   -1            all else
 *
 * http has hlen bytes and a terminator; a zero byte is written behind its path. uri_src and uri_dst have ulen
 * bytes, zeroed by the caller, and are texts only after 0: bytes that decoding leaves behind in uri_src stay
 * between the '?' and the query. user_hdr, if given, receives the head as soon as it is parsed.
 */
int web_parse_urq(char* http, size_t hlen, char* uri_src, char* uri_dst, size_t ulen,
                  struct http_header* user_hdr);

/* is_ping_request: whether a path is "ping" in any case, with or without a slash at either end. */
bool is_ping_request(const char* path);

/* web_request_line: a request line as it stands in a head; the texts point into it and have no terminator. */
struct web_request_line {
    const char* method;
    size_t method_len;
    const char* target;
    size_t target_len;
    int minor; /* of the version HTTP/1.x */
};

/* web_field: a header field as it stands in a head, its value without the blanks around it. */
struct web_field {
    const char* name;
    size_t name_len;
    const char* value;
    size_t value_len;
};

/*
 * web_read_request_line, web_read_field: the strict reading of a request's head, line by line, for a server
 * that faces strangers: *at moves from the line's first byte behind its CR LF, and end is the end of the
 * data. What RFC 9112 (3, 5) and RFC 9110 (5.5) do not allow is refused: a bare LF or CR, a control
 * character, a blank in front of a colon, a folded line, another version than HTTP/1.x. 0; 1 (fields alone):
 * the empty line that ends the head; -1: refused, or cut off, with *at as it was. Nothing is logged, no text
 * is copied.
 */
int web_read_request_line(const char** at, const char* end, struct web_request_line* line);
int web_read_field(const char** at, const char* end, struct web_field* field);

/*
 * mk_http_response: composes the head of a response, with the empty line. Result: its length, or -1 (not
 * logged) if buf has less than two bytes more than that. A header line of 128 characters or more is left out.
 * REQUIRES: code, reason, server.
 */
ssize_t mk_http_response(const struct http_response* r, char* buf, size_t buflen);

/* send_http_response: composes a head of at most 4094 bytes and sends it in one write. 0, also for a short
 * write (logged), or -1. REQUIRES: code, reason, server. */
int send_http_response(int sockfd, const struct http_response* r);

/* match_http_response: the canned response of a status code (shared, writable), or NULL. */
struct http_response* match_http_response(int http_code);

/*
 * web_escape: a text for HTML, into dst of dstlen bytes; dst may be NULL to count only. Result: 0 if there is
 * nothing to escape, and dst is then not written; the number of stretches that end in an escaped character,
 * plus one if text follows the last of them; -34 (-ERANGE) if the text does not fit in dst, or a terminator
 * behind an escaped character does not. Text behind the last escaped character that fills dst has no
 * terminator. Nothing is logged.
 */
int web_escape(const char* src, char* dst, size_t dstlen);

/*
 * mk_hls_item_url: the URL of an item of a playlist: path itself if it begins with "http://", otherwise path
 * behind the last slash of m3u_url, also if it begins with a slash. 0, or 22 (EINVAL). A path that is a URL
 * is cut to buflen, and a cut one has no terminator.
 */
int mk_hls_item_url(const char* m3u_url, const char* path, char* buf, size_t buflen);

/*
 * open_uri_src, open_uri_dst: open a URL into a new record (fdrec.h), for reading and for writing; the caller
 * releases it with free_fdrec. A file is opened, or for writing made anew (it must not exist); a socket does
 * not block (a connect may be in progress), needs a port even for http, and is sent no request. A source
 * reads udp and rtp groups on the interface ifc_tag (NULL: any), and takes what stands before an '@' as the
 * one source of the group. The record has path, mode and descriptor, and of a socket its specification and
 * interface. *uri_kind, if given, becomes the kind of the URL (uri.h). NULL, logged, on any failure.
 */
struct fdrec* open_uri_src(const char* uri, const char* ifc_tag, int* uri_kind);
struct fdrec* open_uri_dst(const char* uri, int* uri_kind);

MV_END_DECLS

#endif
