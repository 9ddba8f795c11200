/*
 * uri.h: URL texts: their segments, their kind, the endpoints that a request path names, percent coding.
 *
 * No state and no I/O: every call works on texts and buffers of the caller and is re-entrant. In this model
 * the authority is only what stands before an '@'; host and port lie in the path, and uri_path_addrport takes
 * them apart. A '#' is an ordinary character. What RFC 3986 says beyond that is not looked at.
 *
 * Texts are NUL-terminated; sizes of buffers count the terminator. Conventions of results differ from call
 * to call. Only uri_extract, uri_path_addrport and uri_query_parse log, at ERR_level, and uri_encode where
 * memory is out.
 */
#ifndef MORVANE_URI_H
#define MORVANE_URI_H

#include <stddef.h>

#include "gkh.h"
#include "mvtypes.h"

MV_BEGIN_DECLS

/* uri_kind: kinds of URLs, by the word of the scheme. */
enum uri_kind { URI_BAD = -1, URI_FILE = 0, URI_TCP = 1, URI_UDP = 2, URI_RTP = 3, URI_HTTP = 4 };

/* Sizes of the buffers that uri_extract fills; the longest segment is one less. */
enum { URI_SCHEME_MAX = 8, URI_AUTH_MAX = 64, URI_PATH_MAX = 128, URI_QUERY_MAX = 512 };

/* URI_KIND_STR: the scheme words, indexed by kind; the last entry is NULL. */
extern const char* const URI_KIND_STR[];

/*
 * uri_layout: the segments of a parsed text. It owns nothing: the pointers point into the text and live as
 * long as that does. A segment that is absent is NULL with a length of 0.
 */
struct uri_layout {
    const char* scheme;
    const char* authority; /* what stands before the '@' */
    const char* path;      /* with the host and port of a network URL */
    const char* query;     /* behind the '?' */
    size_t s_len;
    size_t a_len;
    size_t p_len;
    size_t q_len;
};

/* uri_scheme_kind: the kind of a scheme word, case ignored; -1 for any other word. */
int uri_scheme_kind(const char* scheme);

/*
 * uri_parse: finds the segments of a text. 0; -1 for a text that ends right behind "://" or behind the '@',
 * and *layout is then as it was. With a NULL layout the text is only judged.
 *
 * A scheme has two letters or more and "://" behind it. Without one, the text is a path (which loses one
 * leading slash) and a query. Behind a scheme the first '@' of the whole rest ends the authority, be it in
 * the path or the query. The query begins at the last '?', but a text that ends in '/' has none.
 */
int uri_parse(const char* uri, struct uri_layout* layout);

/*
 * uri_get_scheme, uri_get_authority, uri_get_path, uri_get_query: copy one segment to dest of len bytes.
 * Result: dest; NULL with an empty dest if the segment is absent; NULL with dest as it was if it is too long.
 */
const char* uri_get_scheme(struct uri_layout* layout, char* dest, size_t len);
const char* uri_get_authority(struct uri_layout* layout, char* dest, size_t len);
const char* uri_get_path(struct uri_layout* layout, char* dest, size_t len);
const char* uri_get_query(struct uri_layout* layout, char* dest, size_t len);

/*
 * uri_extract: parses and copies the segments into buffers of URI_SCHEME_MAX, URI_AUTH_MAX, URI_PATH_MAX and
 * URI_QUERY_MAX bytes; each may be NULL for a segment that is not wanted. Result: the kind, or -1 with one or
 * two lines logged: no or too long a scheme, a wanted path that is absent, a wanted segment that is too long,
 * a scheme of no kind. Where the text has no authority or no query, that buffer stays as it was.
 */
int uri_extract(const char* uri, char* scheme, char* authority, char* path, char* query);

/*
 * uri_path_addrport: splits the path of a network URL, "addr", "addr:port" or "[addr]:port", into address and
 * port (addr, port: NULL if not wanted) and returns what follows them in path, or NULL with one line logged:
 * an open bracket, a part that does not fit, or an end beyond path_len. The scan itself ends at the text's
 * terminator, so path_len may be more than its length. An empty part leaves its buffer as it was. The tail of
 * a bracketed address without port begins with the bracket that closes it.
 */
const char* uri_path_addrport(const char* path, size_t path_len, char* addr, size_t addr_len, char* port,
                              size_t port_len);

/*
 * uri_xseg: the first segment of a text whose segments end in dlm[1] and may begin with dlm[0]; every user
 * passes "//". *pbuf and the result are its start, behind an opening delimiter; *buflen is its length with
 * the closing one, 0 for an opening delimiter alone. NULL, and nothing stored, for an empty text. The next
 * segment begins at *pbuf + *buflen.
 */
const char* uri_xseg(const char* s, const char* dlm, const char** pbuf, size_t* buflen);

/*
 * uri_extract_endpts: the source and destination that the path of a request names. Words in any case; the
 * first slash may be left out where more follow.
 *
 *   alias (it begins with '$', '~' or '^')   src: the alias; what follows a slash is ignored
 *   /udp/addr:port/, /rtp/addr:port/         src: "udp://addr:port", "rtp://addr:port"; dst: empty
 *   /src/SOURCE/dst/DESTINATION              src: SOURCE; dst: DESTINATION with its last slash
 *
 * SOURCE may itself hold src and dst segments in pairs. src and dst have slength and dlength bytes. Results:
 *
 *   0               both are there
 *   ESRCH (3)       neither a slash nor an alias
 *   EINVAL (22)     nothing behind udp or rtp
 *   -EINVAL (-22)   no room for that word and "://"
 *   E2BIG (7)       an address or alias that is empty or does not fit
 *   -1              another first word, or a SOURCE that is empty or does not fit
 *   above 0         so many src without dst
 *
 * A count may be one of the numbers above. An alias that is the whole text, and a DESTINATION, are cut to the
 * buffer, and a cut one has no terminator.
 */
int uri_extract_endpts(const char* s, char* src, size_t slength, char* dst, size_t dlength);

/*
 * uri_decode: percent decoding in place, up to a terminator or len bytes. '+' becomes a blank, an escape
 * whose character is not printable becomes '?', a '%' without two digits behind it is dropped with the two
 * characters that follow it. Result: s, always terminated inside len; NULL for a '%' with fewer than two
 * bytes behind it inside len: the text is then partly rewritten and not terminated. Lower-case digits a to f
 * count as 42 to 47.
 */
char* uri_decode(char* s, size_t len);

/*
 * uri_encode: percent encoding in place, in a buffer of len bytes that holds a text. Encoded are what is not
 * printable and ";/?:@&=+$,* "; not '%', '#' and '"'. Result: s, always terminated, and cut in front of the
 * first character that has no room; NULL if memory is out (logged), with the text as it was. A byte of 128 or
 * above is written as '%', a zero byte and one digit, which ends the text.
 */
char* uri_encode(char* s, size_t len);

/*
 * uri_query_parse: reads "key=value&key=value" into a new table of decoded texts. 0 and the table in *ht, to
 * be destroyed with skht_destroy(*ht, free); the value of a key without one is NULL. An empty query gives 0
 * and leaves *ht. Otherwise *ht is 0 and the result is -1 (no '=', an empty key or one above 31 characters,
 * a value above 32, more than 128 pairs), 16 (EBUSY: a key twice) or 12 (ENOMEM). With a NULL ht the query is
 * only judged, undecoded. Too long a value, too many pairs, a key twice and a failed allocation are logged.
 * Of a value of 32 characters the first 31 stay.
 */
int uri_query_parse(const char* query, skht_t* ht);

/*
 * uri_split_alias: copies src up to a '?' or alen - 1 characters to alias; *pquery is what follows the '?',
 * or NULL if there is none or the alias filled the buffer. Always 0. The caller zeroes alias: the terminator
 * is written at twice the length of the copied text, where that lies inside alen.
 */
int uri_split_alias(const char* src, char* alias, size_t alen, const char** pquery);

/*
 * uri_ensure_schema: a text with a prefix such as "udp://". Result: str if it begins with schema, case
 * ignored; else buf of len bytes with both joined; NULL with errno E2BIG if they do not fit.
 */
const char* uri_ensure_schema(const char* schema, const char* str, char* buf, size_t len);

MV_END_DECLS

#endif
