// URL texts: segments, kinds, endpoints of request paths, percent coding.
#include "uri.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "detail/owned.h"
#include "detail/uri_text.h"
#include "log.h"
#include "syswrap.h"

DECLARE_MLL(MLL_COMMON);

const char* const URI_KIND_STR[] = {"file", "tcp", "udp", "rtp", "http", nullptr};

namespace {

constexpr unsigned NO_UNPRINTABLE = 1; // of uri_decode_opt: '?' for what cannot be printed

constexpr long kMaxPairs = 128;
constexpr size_t kKeySize = 32;   // with its terminator
constexpr size_t kValueMax = 32;  // characters; the block of a value has one byte more
constexpr size_t kEscapeSize = 3; // '%' and two digits

constexpr char kSchemeEnd[] = "://";
constexpr size_t kSchemeEndSize = sizeof kSchemeEnd - 1;

constexpr char kHexDigits[] = "0123456789ABCDEF";

using ByteTable = std::array<int8_t, 256>;

constexpr ByteTable make_hex_table()
{
    ByteTable table{};
    for (int c = 0; c < 256; ++c) {
        const bool digit = c >= '0' && c <= '9';
        const bool letter = (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
        // Kept: lower-case letters go through the subtraction of the upper-case ones and give 42 to 47.
        table[static_cast<size_t>(c)] = static_cast<int8_t>(digit ? c - '0' : letter ? c - 55 : -1);
    }
    return table;
}

// 1: an ASCII character that stands for itself in an encoded text.
constexpr ByteTable make_safe_table()
{
    ByteTable table{};
    for (size_t c = ' '; c < 0x7f; ++c) {
        table[c] = 1;
    }
    for (const char reserved : ";/?:@&=+$,* ") {
        table[static_cast<unsigned char>(reserved)] = 0;
    }
    return table;
}

// What a character of an encoded text stands for by itself; 0: the end, or an escape.
constexpr ByteTable make_plain_table()
{
    ByteTable table{};
    for (int c = 0; c < 256; ++c) {
        table[static_cast<size_t>(c)] = static_cast<int8_t>(c == '%' ? 0 : c == '+' ? ' ' : c);
    }
    return table;
}

constexpr ByteTable kHexTable = make_hex_table();
constexpr ByteTable kPlainTable = make_plain_table();
constexpr ByteTable kSafeTable = make_safe_table();

// A segment as a text, whole or not at all. NULL for an empty one too, which empties the buffer.
const char* cpyseg(const char* seg, size_t seg_len, char* buf, size_t buflen)
{
    if (seg == nullptr || seg_len == 0) {
        if (buflen > 0) {
            buf[0] = '\0';
        }
        return nullptr;
    }
    if (seg_len >= buflen) {
        return nullptr;
    }
    memcpy(buf, seg, seg_len);
    buf[seg_len] = '\0';
    return buf;
}

// The segments into the buffers that are given, each within the limit of its kind. A buffer whose segment the
// URI lacks is left as it was.
int extract(const char* uri, char* scheme, char* authority, char* path, char* query)
{
    // The scheme is always read, since it decides on the result.
    char own_scheme[URI_SCHEME_MAX];
    if (scheme == nullptr) {
        scheme = own_scheme;
    }
    struct uri_layout layout;
    if (uri_parse(uri, &layout) != 0) {
        log_err("%s: uri_parse ERROR\n", __func__);
        return URI_BAD;
    }
    if (uri_get_scheme(&layout, scheme, URI_SCHEME_MAX) == nullptr) {
        log_err("%s: uri_get_scheme ERROR\n", __func__);
        return URI_BAD;
    }
    if (authority != nullptr && layout.authority != nullptr &&
        uri_get_authority(&layout, authority, URI_AUTH_MAX) == nullptr) {
        log_err("%s: uri_get_authority ERROR\n", __func__);
        return URI_BAD;
    }
    if (path != nullptr && uri_get_path(&layout, path, URI_PATH_MAX) == nullptr) {
        log_err("%s: uri_get_path ERROR\n", __func__);
        return URI_BAD;
    }
    if (query != nullptr && layout.query != nullptr &&
        uri_get_query(&layout, query, URI_QUERY_MAX) == nullptr) {
        log_err("%s: uri_get_query ERROR\n", __func__);
        return URI_BAD;
    }
    return uri_scheme_kind(scheme);
}

// A part of the path that goes to a buffer of the caller; an empty one leaves that as it was.
bool copy_part(const char* part, size_t length, char* buf, size_t buflen)
{
    return length == 0 || buf == nullptr || cpyseg(part, length, buf, buflen) != nullptr;
}

const char* path_parse(const char* path, size_t path_len, char* addr, size_t addr_len, char* port,
                       size_t port_len)
{
    size_t at = strspn(path, " \t/");
    if (at >= path_len) {
        return nullptr;
    }
    // An IPv6 address, whose colons are none of a port.
    const bool bracket = path[at] == '[';
    at += bracket ? 1 : 0;
    const char* host = path + at;
    const size_t host_len = strcspn(host, bracket ? "]?/" : ":?/");
    const size_t host_end = at + host_len;
    if (bracket && path[host_end] != ']') {
        return nullptr;
    }
    at = host_end + (bracket ? 1 : 0);
    if (at > path_len) {
        return nullptr;
    }
    const bool has_port = path[at] == ':';
    const char* service = path + at + (has_port ? 1 : 0);
    const size_t service_len = has_port ? strcspn(service, "?/") : 0;
    if (has_port && at + 1 + service_len > path_len) {
        return nullptr;
    }
    if (!copy_part(host, host_len, addr, addr_len) || !copy_part(service, service_len, port, port_len)) {
        return nullptr;
    }
    // Kept: without a port the tail of a bracketed address begins with the bracket.
    return has_port ? service + service_len : path + host_end;
}

// A stretch without a leading opening and a trailing closing delimiter. skipped may count one character twice
// where the stretch has only that one.
struct Stripped {
    size_t leading;
    size_t skipped;

    Stripped(const char* s, size_t len, const char* dlm)
        : leading(len > 0 && s[0] == dlm[0] ? 1 : 0),
          skipped(leading + (len > 0 && s[len - 1] == dlm[1] ? 1 : 0))
    {
    }
};

int xseg_scmp(const char* s, const char* seg, size_t seglen, const char* dlm)
{
    const Stripped strip(seg, seglen, dlm);
    const size_t length = strlen(s);
    if (seglen < strip.skipped || seglen - strip.skipped != length) {
        return -1;
    }
    return strncasecmp(s, seg + strip.leading, length);
}

int xseg_cpy(const char* s, size_t len, char* dst, size_t dstlen, const char* dlm)
{
    const Stripped strip(s, len, dlm);
    if (strip.skipped >= len || len - strip.skipped >= dstlen) {
        return E2BIG;
    }
    memcpy(dst, s + strip.leading, len - strip.skipped);
    dst[len - strip.skipped] = '\0';
    return 0;
}

bool uri_is_alias(const char* s)
{
    return *s == '$' || *s == '~' || *s == '^';
}

// "udp" or "rtp", which seg is, and the address behind it.
int extract_stream(const char* seg, size_t seglen, char* src, size_t slength, char* dst, size_t dlength)
{
    if (xseg_cpy(seg, seglen, src, slength, "//") != 0) {
        return -EINVAL;
    }
    // The word that is in src already, and "://" behind it.
    const size_t prefix = strlen(src) + kSchemeEndSize;
    if (prefix >= slength) {
        return -EINVAL;
    }
    memcpy(src + prefix - kSchemeEndSize, kSchemeEnd, sizeof kSchemeEnd);
    const char* address = nullptr;
    size_t length = 0;
    if (uri_xseg(seg + seglen, "//", &address, &length) == nullptr) {
        return EINVAL;
    }
    if (dlength > 0) {
        dst[0] = '\0';
    }
    return xseg_cpy(address, length, src + prefix, slength - prefix, "//");
}

// The text behind the first "src": up to the "dst" that belongs to it, and what follows that.
int extract_pair(const char* start, char* src, size_t slength, char* dst, size_t dlength)
{
    int open = 1;
    const char* at = start;
    const char* seg = nullptr;
    size_t seglen = 0;
    while (uri_xseg(at, "//", &seg, &seglen) != nullptr) {
        if (open == 0) {
            strncpy(dst, at, dlength); // Kept: no terminator where it fills dst; nor does an alias in src.
            break;
        }
        if (xseg_scmp("src", seg, seglen, "//") == 0) {
            ++open;
        } else if (xseg_scmp("dst", seg, seglen, "//") == 0) {
            --open;
            if (open == 0 && xseg_cpy(start, static_cast<size_t>(seg - start), src, slength, "//") != 0) {
                return -1;
            }
        }
        at = seg + seglen;
    }
    return open;
}

int hex2dec(char c)
{
    return kHexTable[static_cast<unsigned char>(c)];
}

char plain_char(char c)
{
    return static_cast<char>(kPlainTable[static_cast<unsigned char>(c)]);
}

// isprint() of the character as a signed char, without the index below the table: 0xFF is EOF and does not
// print. Above ASCII it goes by the locale of the program, which the library never sets.
bool is_printable(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
        return byte >= ' ' && byte < 0x7f;
    }
    return byte != 0xff && isprint(byte) != 0;
}

bool is_safe(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return kSafeTable[byte] != 0 || (byte >= 0x80 && is_printable(c));
}

char* uri_decode_opt(char* s, size_t len, unsigned options)
{
    // In place: a decoded text is never longer, so the write stays at or behind the read.
    size_t in = 0;
    size_t out = 0;
    while (in < len) {
        if (const char plain = plain_char(s[in]); plain != '\0') {
            s[out++] = plain;
            ++in;
            continue;
        }
        if (s[in] == '\0') {
            break;
        }
        if (len - in <= 2) {
            return nullptr;
        }
        const int high = hex2dec(s[in + 1]);
        const int low = hex2dec(s[in + 2]);
        // Kept: a bad escape is dropped with the text's terminator if that is one of its three characters,
        // and the walk goes on behind it.
        in += kEscapeSize;
        if (high < 0 || low < 0) {
            continue;
        }
        const char byte = static_cast<char>(static_cast<unsigned char>(high * 16 + low));
        s[out++] = (options & NO_UNPRINTABLE) != 0 && !is_printable(byte) ? '?' : byte;
    }
    if (len > 0) {
        s[std::min(out, len - 1)] = '\0';
    }
    return s;
}

// The digits of an escape.
void put_escape(char* dest, char c)
{
    const auto byte = static_cast<unsigned char>(c);
    dest[0] = '%';
    // Kept: the high digit of a byte of 128 and above is a zero byte, which ends the text.
    dest[1] = byte < 0x80 ? kHexDigits[byte >> 4] : '\0';
    dest[2] = kHexDigits[byte & 15];
}

constexpr char kQueryParse[] = "uri_query_parse"; // whose steps the helpers below are

// Adds the pair that a query begins with; end becomes the first character behind it. Kept: no separator is
// looked for in front of the key.
int add_pair(const char* query, skht_t tbl, bool decode, const char*& end)
{
    // Bounds before copies: a query comes from a stranger, and the key has a fixed room.
    const char* mark = strchr(query, '=');
    if (mark == nullptr || mark == query || mark - query >= static_cast<ptrdiff_t>(kKeySize)) {
        return -1;
    }
    char key[kKeySize] = {};
    memcpy(key, query, static_cast<size_t>(mark - query));
    const size_t length = strcspn(mark + 1, "&");
    if (length > kValueMax) {
        log_err("%s: argument for query parameter [%s] is too long [%ld]\n", kQueryParse, key,
                static_cast<long>(length));
        return -1;
    }
    mv::OwnedBlock<char> value;
    if (length > 0) {
        value.reset(W_calloc(kQueryParse, kValueMax + 1, 1));
        if (!value) {
            return ENOMEM;
        }
        memcpy(value.get(), mark + 1, length);
    }
    if (decode) {
        uri_decode(key, kKeySize);
        if (value) {
            uri_decode(value.get(), kValueMax); // Kept: a value of the greatest length loses its last byte.
        }
    }
    void* data = value.get();
    const int rc = skht_add(tbl, key, &data);
    if (rc == EBUSY) {
        // data is now the value that the table has and will release; ours goes with its owner.
        log_err("%s: duplicate query parameter [%s]\n", kQueryParse, key);
    }
    if (rc == 0) {
        value.release();
    }
    end = mark + 1 + length;
    return rc;
}

} // namespace

int uri_scheme_kind(const char* scheme)
{
    for (int kind = 0; URI_KIND_STR[kind] != nullptr; ++kind) {
        if (strcasecmp(URI_KIND_STR[kind], scheme) == 0) {
            return kind;
        }
    }
    return URI_BAD;
}

int uri_parse(const char* uri, struct uri_layout* layout)
{
    struct uri_layout judged;
    return mv::parse_uri(uri, layout != nullptr ? *layout : judged) ? 0 : -1;
}

const char* uri_get_scheme(struct uri_layout* layout, char* dest, size_t len)
{
    return cpyseg(layout->scheme, layout->s_len, dest, len);
}

const char* uri_get_authority(struct uri_layout* layout, char* dest, size_t len)
{
    return cpyseg(layout->authority, layout->a_len, dest, len);
}

const char* uri_get_path(struct uri_layout* layout, char* dest, size_t len)
{
    return cpyseg(layout->path, layout->p_len, dest, len);
}

const char* uri_get_query(struct uri_layout* layout, char* dest, size_t len)
{
    return cpyseg(layout->query, layout->q_len, dest, len);
}

int uri_extract(const char* uri, char* scheme, char* authority, char* path, char* query)
{
    const int kind = extract(uri, scheme, authority, path, query);
    if (kind == URI_BAD) {
        log_err("%s: error parsing URI: [%s]\n", __func__, uri);
    }
    return kind;
}

const char* uri_path_addrport(const char* path, size_t path_len, char* addr, size_t addr_len, char* port,
                              size_t port_len)
{
    const char* tail = path_parse(path, path_len, addr, addr_len, port, port_len);
    if (tail == nullptr) {
        log_err("%s: ERROR parsing path=[%s]\n", __func__, path);
    }
    return tail;
}

const char* uri_xseg(const char* s, const char* dlm, const char** pbuf, size_t* buflen)
{
    if (*s == '\0') {
        return nullptr;
    }
    const char* start = s + (*s == dlm[0] ? 1 : 0);
    const char* end = strchrnul(start, dlm[1]);
    *pbuf = start;
    *buflen = static_cast<size_t>(end - start) + (*end != '\0' ? 1 : 0);
    return start;
}

int uri_extract_endpts(const char* s, char* src, size_t slength, char* dst, size_t dlength)
{
    if (strchr(s, '/') == nullptr) {
        if (!uri_is_alias(s)) {
            return ESRCH;
        }
        strncpy(src, s, slength);
        return 0;
    }
    const char* seg = nullptr;
    size_t seglen = 0;
    if (uri_xseg(s, "//", &seg, &seglen) == nullptr) {
        return -ESRCH;
    }
    if (uri_is_alias(seg)) {
        return xseg_cpy(seg, seglen, src, slength, "//");
    }
    if (xseg_scmp("udp", seg, seglen, "//") == 0 || xseg_scmp("rtp", seg, seglen, "//") == 0) {
        return extract_stream(seg, seglen, src, slength, dst, dlength);
    }
    if (xseg_scmp("src", seg, seglen, "//") != 0) {
        return -1;
    }
    return extract_pair(seg + seglen, src, slength, dst, dlength);
}

char* uri_decode(char* s, size_t len)
{
    return uri_decode_opt(s, len, NO_UNPRINTABLE);
}

char* uri_encode(char* s, size_t len)
{
    if (len == 0) {
        return s;
    }
    const size_t last = len - 1;
    const size_t length = strnlen(s, last);
    // Encoded from a copy, since the text grows in its own buffer.
    const mv::OwnedBlock<char> copy(Calloc(length + 1, 1));
    if (!copy) {
        return nullptr;
    }
    memcpy(copy.get(), s, length);
    size_t out = 0;
    for (size_t in = 0; in < length && out < last; ++in) {
        const char c = copy.get()[in];
        if (is_safe(c)) {
            s[out++] = c;
        } else if (last - out < kEscapeSize) {
            // An escape that does not fit whole ends the text: a part of one would decode to something else.
            break;
        } else {
            put_escape(s + out, c);
            out += kEscapeSize;
        }
    }
    s[out] = '\0';
    return s;
}

int uri_query_parse(const char* query, skht_t* ht)
{
    if (*query == '\0') {
        return 0;
    }
    skht_t tbl = 0;
    int rc = skht_create(&tbl, kMaxPairs, plHash, nullptr, 0);
    // Without a table to give, all is parsed all the same: the result says whether the query would do.
    long count = 0;
    while (rc == 0 && *query != '\0') {
        if (count == kMaxPairs) {
            log_err("%s: too many query parameters: [%ld]\n", kQueryParse, count);
            rc = -1;
            break;
        }
        const char* end = query;
        rc = add_pair(query, tbl, ht != nullptr, end);
        query = end + (*end != '\0' ? 1 : 0);
        ++count;
    }
    const bool wanted = rc == 0 && ht != nullptr;
    // free() for every value, those that are NULL included.
    if (tbl != 0 && !wanted) {
        skht_destroy(tbl, free);
    }
    if (ht != nullptr) {
        *ht = wanted ? tbl : 0;
    }
    return rc;
}

int uri_split_alias(const char* src, char* alias, size_t alen, const char** pquery)
{
    const size_t room = alen > 0 ? alen - 1 : 0;
    const size_t length = strcspn(src, "?");
    const size_t copied = std::min(length, room);
    memcpy(alias, src, copied);
    *pquery = copied < room && src[copied] == '?' ? src + copied + 1 : nullptr;
    // Kept: the terminator stands at twice the length, so the caller's zeroes end the text.
    if (copied * 2 < alen) {
        alias[copied * 2] = '\0';
    }
    return 0;
}

const char* uri_ensure_schema(const char* schema, const char* str, char* buf, size_t len)
{
    const size_t prefix = strlen(schema);
    if (strncasecmp(str, schema, prefix) == 0) {
        return str;
    }
    if (prefix + strlen(str) >= len) {
        errno = E2BIG;
        return nullptr;
    }
    snprintf(buf, len, "%s%s", schema, str);
    return buf;
}
