// The segments of a URL text, its kind, and the address and port of its path.
#include "uri.h"

#include <cstring>
#include <optional>
#include <random>

#include <gtest/gtest.h>

#include "fixtures.h"
#include "logcap.h"

using support::LogCapture;

namespace {

// The segments as texts; "-" for an absent one.
struct Segments {
    std::string scheme;
    std::string authority;
    std::string path;
    std::string query;

    bool operator==(const Segments&) const = default;
};

void PrintTo(const Segments& s, std::ostream* out)
{
    *out << "{" << s.scheme << " | " << s.authority << " | " << s.path << " | " << s.query << "}";
}

std::string segment(const char* text, size_t length)
{
    EXPECT_EQ(text == nullptr, length == 0);
    return text == nullptr ? "-" : std::string(text, length);
}

Segments parsed(const char* uri)
{
    struct uri_layout layout;
    memset(&layout, 0x55, sizeof layout);
    if (uri_parse(uri, &layout) != 0) {
        return {"refused", "", "", ""};
    }
    return {segment(layout.scheme, layout.s_len), segment(layout.authority, layout.a_len),
            segment(layout.path, layout.p_len), segment(layout.query, layout.q_len)};
}

struct Extracted {
    char scheme[URI_SCHEME_MAX] = "#";
    char authority[URI_AUTH_MAX] = "#";
    char path[URI_PATH_MAX] = "#";
    char query[URI_QUERY_MAX] = "#";
    int kind; // the last, for it fills the others

    explicit Extracted(const std::string& uri)
        : kind(uri_extract(uri.c_str(), scheme, authority, path, query))
    {
    }
};

struct AddrPort {
    char addr[64] = "#";
    char port[16] = "#";
    std::optional<std::string> tail;

    explicit AddrPort(const char* path, size_t path_len = URI_PATH_MAX)
    {
        const char* rest = uri_path_addrport(path, path_len, addr, sizeof addr, port, sizeof port);
        if (rest != nullptr) {
            EXPECT_TRUE(rest >= path && rest <= path + strlen(path));
            tail = rest;
        }
    }
};

const std::vector<std::string> kNoLines;

} // namespace

TEST(UriKind, words_of_the_table_in_any_case)
{
    EXPECT_EQ(uri_scheme_kind("file"), URI_FILE);
    EXPECT_EQ(uri_scheme_kind("TCP"), URI_TCP);
    EXPECT_EQ(uri_scheme_kind("uDp"), URI_UDP);
    EXPECT_EQ(uri_scheme_kind("rtp"), URI_RTP);
    EXPECT_EQ(uri_scheme_kind("Http"), URI_HTTP);
}

TEST(UriKind, other_words_are_bad)
{
    for (const char* word : {"", "f", "fil", "files", "https", "udp ", "rtsp"}) {
        EXPECT_EQ(uri_scheme_kind(word), URI_BAD) << word;
    }
}

TEST(UriKind, table_is_indexed_by_kind_and_ends)
{
    EXPECT_STREQ(URI_KIND_STR[URI_FILE], "file");
    EXPECT_STREQ(URI_KIND_STR[URI_TCP], "tcp");
    EXPECT_STREQ(URI_KIND_STR[URI_UDP], "udp");
    EXPECT_STREQ(URI_KIND_STR[URI_RTP], "rtp");
    EXPECT_STREQ(URI_KIND_STR[URI_HTTP], "http");
    EXPECT_EQ(URI_KIND_STR[URI_HTTP + 1], nullptr);
}

TEST(UriParse, blanks_alone_give_an_empty_layout_and_extract_fails_at_the_scheme)
{
    for (const char* text : {"", " ", " \t \t"}) {
        EXPECT_EQ(parsed(text), (Segments{"-", "-", "-", "-"}));
        LogCapture log;
        EXPECT_EQ(Extracted(text).kind, -1);
        EXPECT_EQ(log.lines(), (std::vector<std::string>{
                                   "(ERR)  extract: uri_get_scheme ERROR",
                                   std::string("(ERR)  uri_extract: error parsing URI: [") + text + "]"}));
    }
}

TEST(UriParse, leading_blanks_and_tabs_are_skipped)
{
    EXPECT_EQ(parsed(" \tudp://h"), (Segments{"udp", "-", "h", "-"}));
    EXPECT_EQ(parsed(" \t/a"), (Segments{"-", "-", "a", "-"}));
    EXPECT_EQ(parsed("\nudp://h"), (Segments{"\nudp", "-", "h", "-"}));
}

TEST(UriParse, kept_file_path_loses_its_first_slash_and_extract_refuses_it)
{
    EXPECT_EQ(parsed("/tmp/a"), (Segments{"-", "-", "tmp/a", "-"}));
    EXPECT_EQ(parsed("//tmp/a"), (Segments{"-", "-", "/tmp/a", "-"}));
    EXPECT_EQ(parsed("/"), (Segments{"-", "-", "-", "-"}));
    LogCapture log;
    EXPECT_EQ(Extracted("/tmp/a").kind, -1);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"(ERR)  extract: uri_get_scheme ERROR",
                                                     "(ERR)  uri_extract: error parsing URI: [/tmp/a]"}));
}

TEST(UriParse, slash_text_has_no_scheme_and_no_authority)
{
    EXPECT_EQ(parsed("/udp://a@b?c"), (Segments{"-", "-", "udp://a@b", "c"}));
}

TEST(UriParse, kept_one_letter_is_no_scheme)
{
    EXPECT_EQ(parsed("x://host"), (Segments{"-", "-", "x://host", "-"}));
    EXPECT_EQ(parsed("://host"), (Segments{"-", "-", "://host", "-"}));
    EXPECT_EQ(parsed("xy://host"), (Segments{"xy", "-", "host", "-"}));
}

TEST(UriParse, scheme_needs_both_slashes)
{
    EXPECT_EQ(parsed("udp"), (Segments{"-", "-", "udp", "-"}));
    EXPECT_EQ(parsed("udp:"), (Segments{"-", "-", "udp:", "-"}));
    EXPECT_EQ(parsed("udp:/"), (Segments{"-", "-", "udp:/", "-"}));
    EXPECT_EQ(parsed("udp:/a//b"), (Segments{"-", "-", "udp:/a//b", "-"}));
    EXPECT_EQ(parsed("a:b://c"), (Segments{"-", "-", "a:b://c", "-"}));
    EXPECT_EQ(parsed("host:80/a@b?c"), (Segments{"-", "-", "host:80/a@b", "c"}));
}

TEST(UriParse, text_that_ends_behind_the_scheme_or_the_at_sign_is_refused)
{
    for (const char* text : {"udp://", "udp://@", "udp://user@", " udp://", "http://a/b@"}) {
        EXPECT_EQ(uri_parse(text, nullptr), -1) << text;
    }
    EXPECT_EQ(uri_parse("udp://h", nullptr), 0);
}

TEST(UriParse, refusal_leaves_the_layout)
{
    struct uri_layout layout;
    memset(&layout, 0x55, sizeof layout);
    struct uri_layout before = layout;
    EXPECT_EQ(uri_parse("udp://", &layout), -1);
    EXPECT_EQ(memcmp(&layout, &before, sizeof layout), 0);
}

TEST(UriParse, at_sign_right_behind_the_scheme_gives_no_authority)
{
    EXPECT_EQ(parsed("udp://@224.0.2.1:5056"), (Segments{"udp", "-", "224.0.2.1:5056", "-"}));
}

TEST(UriParse, authority_stands_in_front_of_the_first_at_sign)
{
    EXPECT_EQ(parsed("udp://10.0.0.1@232.0.2.1:5056"), (Segments{"udp", "10.0.0.1", "232.0.2.1:5056", "-"}));
    EXPECT_EQ(parsed("udp://a@b@c"), (Segments{"udp", "a", "b@c", "-"}));
    EXPECT_EQ(parsed("udp://@@c"), (Segments{"udp", "-", "@c", "-"}));
}

TEST(UriParse, kept_at_sign_in_path_or_query_divides_too)
{
    EXPECT_EQ(parsed("http://a/b@c"), (Segments{"http", "a/b", "c", "-"}));
    EXPECT_EQ(parsed("http://a/b?x=1@c?d"), (Segments{"http", "a/b?x=1", "c", "d"}));
}

TEST(UriParse, query_begins_at_the_last_mark)
{
    EXPECT_EQ(parsed("http://a/b?x=1"), (Segments{"http", "-", "a/b", "x=1"}));
    EXPECT_EQ(parsed("http://a/b?c?d"), (Segments{"http", "-", "a/b?c", "d"}));
    EXPECT_EQ(parsed("/?x"), (Segments{"-", "-", "-", "x"}));
    EXPECT_EQ(parsed("http://?x"), (Segments{"http", "-", "-", "x"}));
}

TEST(UriParse, mark_with_nothing_behind_gives_no_query)
{
    EXPECT_EQ(parsed("http://a/b?"), (Segments{"http", "-", "a/b", "-"}));
    EXPECT_EQ(parsed("?"), (Segments{"-", "-", "-", "-"}));
    EXPECT_EQ(parsed("a??"), (Segments{"-", "-", "a?", "-"}));
}

TEST(UriParse, kept_text_that_ends_in_a_slash_has_no_query)
{
    EXPECT_EQ(parsed("http://a/b?x=1/"), (Segments{"http", "-", "a/b?x=1/", "-"}));
    EXPECT_EQ(parsed("/a?b/"), (Segments{"-", "-", "a?b/", "-"}));
}

TEST(UriParse, hash_is_an_ordinary_character)
{
    EXPECT_EQ(parsed("http://a/b#c?d#e"), (Segments{"http", "-", "a/b#c", "d#e"}));
}

TEST(UriParse, file_url_keeps_the_slash_of_its_path)
{
    EXPECT_EQ(parsed("file:///tmp/a"), (Segments{"file", "-", "/tmp/a", "-"}));
}

TEST(UriParse, pointers_go_into_the_text)
{
    const char* text = "http://u@h:1/p?q";
    struct uri_layout layout;
    ASSERT_EQ(uri_parse(text, &layout), 0);
    EXPECT_EQ(layout.scheme, text);
    EXPECT_EQ(layout.authority, text + 7);
    EXPECT_EQ(layout.path, text + 9);
    EXPECT_EQ(layout.query, text + 15);
}

// Step by step, as a reader of the description would write it, on strings.
Segments model(std::string text)
{
    Segments s{"-", "-", "-", "-"};
    text.erase(0, std::min(text.find_first_not_of(" \t"), text.size()));
    if (text.rfind('/', 0) == 0) {
        text.erase(0, 1);
    } else {
        const size_t colon = text.find(':');
        if (colon != std::string::npos && colon > 1 && text.compare(colon, 3, "://") == 0) {
            s.scheme = text.substr(0, colon);
            text.erase(0, colon + 3);
            const size_t at = text.find('@');
            if (text.empty() || at + 1 == text.size()) {
                return {"refused", "", "", ""};
            }
            if (at != std::string::npos) {
                s.authority = at > 0 ? text.substr(0, at) : "-";
                text.erase(0, at + 1);
            }
        }
    }
    const bool slash = !text.empty() && text.back() == '/';
    const size_t mark = slash ? std::string::npos : text.rfind('?');
    const std::string path = text.substr(0, mark);
    s.path = path.empty() ? "-" : path;
    if (mark != std::string::npos && mark + 1 < text.size()) {
        s.query = text.substr(mark + 1);
    }
    return s;
}

TEST(UriParse, random_texts_agree_with_a_model)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::vector<std::string> pieces = {"a", "b", ":",  "/",   "//", "://", "@",
                                             "?", " ", "\t", "udp", "x",  "#"};
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (unsigned n = random() % 9; n > 0; --n) {
            text += pieces[random() % pieces.size()];
        }
        ASSERT_EQ(parsed(text.c_str()), model(text)) << "[" << text << "]";
    }
}

TEST(UriGet, copies_a_segment)
{
    struct uri_layout layout;
    ASSERT_EQ(uri_parse("http://u@h/p?q=1", &layout), 0);
    char buf[8];
    EXPECT_EQ(uri_get_scheme(&layout, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "http");
    EXPECT_EQ(uri_get_authority(&layout, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "u");
    EXPECT_EQ(uri_get_path(&layout, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "h/p");
    EXPECT_EQ(uri_get_query(&layout, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "q=1");
}

TEST(UriGet, absent_segment_empties_the_buffer)
{
    struct uri_layout layout;
    ASSERT_EQ(uri_parse("", &layout), 0);
    for (auto* get : {uri_get_scheme, uri_get_authority, uri_get_path, uri_get_query}) {
        char buf[4] = "#";
        EXPECT_EQ(get(&layout, buf, sizeof buf), nullptr);
        EXPECT_STREQ(buf, "");
        buf[0] = '#';
        EXPECT_EQ(get(&layout, buf, 0), nullptr);
        EXPECT_EQ(buf[0], '#');
    }
}

TEST(UriGet, segment_that_does_not_fit_leaves_the_buffer)
{
    struct uri_layout layout;
    ASSERT_EQ(uri_parse("http://h", &layout), 0);
    char buf[8] = "#";
    EXPECT_EQ(uri_get_scheme(&layout, buf, 4), nullptr);
    EXPECT_EQ(uri_get_scheme(&layout, buf, 0), nullptr);
    EXPECT_STREQ(buf, "#");
    EXPECT_EQ(uri_get_scheme(&layout, buf, 5), buf);
    EXPECT_STREQ(buf, "http");
}

TEST(UriGet, scheme_of_seven_characters_passes_and_one_of_eight_does_not)
{
    struct uri_layout layout;
    char buf[URI_SCHEME_MAX];
    ASSERT_EQ(uri_parse("seven77://h", &layout), 0);
    EXPECT_EQ(uri_get_scheme(&layout, buf, sizeof buf), buf);
    ASSERT_EQ(uri_parse("eight888://h", &layout), 0);
    EXPECT_EQ(uri_get_scheme(&layout, buf, sizeof buf), nullptr);

    LogCapture log;
    EXPECT_EQ(Extracted("seven77://h").kind, -1); // no word of the table
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"(ERR)  uri_extract: error parsing URI: [seven77://h]"}));
    log.clear();
    EXPECT_EQ(Extracted("eight888://h").kind, -1);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"(ERR)  extract: uri_get_scheme ERROR",
                                        "(ERR)  uri_extract: error parsing URI: [eight888://h]"}));
}

class UriExtract : public support::GuardedTest {};

TEST_F(UriExtract, gives_kind_and_segments)
{
    const Extracted e("RTP://10.0.0.1@232.0.2.1:5056/x?ttl=3");
    EXPECT_EQ(e.kind, URI_RTP);
    EXPECT_STREQ(e.scheme, "RTP");
    EXPECT_STREQ(e.authority, "10.0.0.1");
    EXPECT_STREQ(e.path, "232.0.2.1:5056/x");
    EXPECT_STREQ(e.query, "ttl=3");
    EXPECT_EQ(log.lines(), kNoLines);
}

TEST_F(UriExtract, absent_authority_and_query_leave_their_buffers)
{
    const Extracted e("file:///tmp/a");
    EXPECT_EQ(e.kind, URI_FILE);
    EXPECT_STREQ(e.path, "/tmp/a");
    EXPECT_STREQ(e.authority, "#");
    EXPECT_STREQ(e.query, "#");
}

TEST_F(UriExtract, any_buffer_may_be_null)
{
    EXPECT_EQ(uri_extract("udp://a@h?q", nullptr, nullptr, nullptr, nullptr), URI_UDP);
    // What is not wanted is not judged: neither an absent path nor a segment of any length.
    EXPECT_EQ(uri_extract("udp://?q", nullptr, nullptr, nullptr, nullptr), URI_UDP);
    const std::string endless(2UL * URI_QUERY_MAX, 'x');
    EXPECT_EQ(uri_extract(("tcp://" + endless + "@" + endless + "?" + endless).c_str(), nullptr, nullptr,
                          nullptr, nullptr),
              URI_TCP);
    EXPECT_EQ(log.lines(), kNoLines);
}

TEST_F(UriExtract, refused_text_is_logged_twice)
{
    EXPECT_EQ(Extracted("udp://").kind, -1);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"(ERR)  extract: uri_parse ERROR",
                                                     "(ERR)  uri_extract: error parsing URI: [udp://]"}));
}

TEST_F(UriExtract, absent_path_fails_if_it_is_wanted)
{
    EXPECT_EQ(Extracted("udp://?q").kind, -1);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"(ERR)  extract: uri_get_path ERROR",
                                                     "(ERR)  uri_extract: error parsing URI: [udp://?q]"}));
}

TEST_F(UriExtract, each_segment_passes_up_to_its_limit)
{
    struct Case {
        const char* name;
        size_t longest;
        std::string (*uri)(const std::string& text);
    };

    const Case cases[] = {
        {"authority", URI_AUTH_MAX - 1, [](const std::string& t) { return "udp://" + t + "@h"; }},
        {"path", URI_PATH_MAX - 1, [](const std::string& t) { return "udp://" + t; }},
        {"query", URI_QUERY_MAX - 1, [](const std::string& t) { return "udp://h?" + t; }},
    };
    for (const Case& c : cases) {
        log.clear();
        EXPECT_EQ(Extracted(c.uri(std::string(c.longest - 1, 'x'))).kind, URI_UDP) << c.name;
        EXPECT_EQ(Extracted(c.uri(std::string(c.longest, 'x'))).kind, URI_UDP) << c.name;
        EXPECT_EQ(log.lines(), kNoLines);
        const std::string over = c.uri(std::string(c.longest + 1, 'x'));
        const Extracted e(over);
        EXPECT_EQ(e.kind, -1) << c.name;
        EXPECT_EQ(log.lines(),
                  (std::vector<std::string>{std::string("(ERR)  extract: uri_get_") + c.name + " ERROR",
                                            "(ERR)  uri_extract: error parsing URI: [" + over + "]"}));
    }
}

TEST_F(UriExtract, longest_segments_arrive_whole)
{
    const std::string a(URI_AUTH_MAX - 1, 'a');
    const std::string p(URI_PATH_MAX - 1, 'p');
    const std::string q(URI_QUERY_MAX - 1, 'q');
    const Extracted e("http://" + a + "@" + p + "?" + q);
    EXPECT_EQ(e.kind, URI_HTTP);
    EXPECT_EQ(e.authority, a);
    EXPECT_EQ(e.path, p);
    EXPECT_EQ(e.query, q);
}

TEST(UriAddrPort, splits_name_and_port)
{
    const AddrPort a("host.example:5056/x?y");
    EXPECT_STREQ(a.addr, "host.example");
    EXPECT_STREQ(a.port, "5056");
    EXPECT_EQ(a.tail, "/x?y");
}

TEST(UriAddrPort, question_mark_ends_the_port)
{
    const AddrPort a("h:80?x/y");
    EXPECT_STREQ(a.port, "80");
    EXPECT_EQ(a.tail, "?x/y");
}

TEST(UriAddrPort, leading_blanks_and_slashes_are_skipped)
{
    const AddrPort a(" \t//h:1");
    EXPECT_STREQ(a.addr, "h");
    EXPECT_STREQ(a.port, "1");
    EXPECT_EQ(a.tail, "");
}

TEST(UriAddrPort, without_port_its_buffer_stays)
{
    for (const char* path : {"h", "h/x", "h?x"}) {
        const AddrPort a(path);
        EXPECT_STREQ(a.addr, "h");
        EXPECT_STREQ(a.port, "#");
        EXPECT_EQ(a.tail, path + 1);
    }
}

TEST(UriAddrPort, colon_without_port)
{
    const AddrPort a("host:");
    EXPECT_STREQ(a.addr, "host");
    EXPECT_STREQ(a.port, "#");
    EXPECT_EQ(a.tail, "");
    const AddrPort b("host:/x");
    EXPECT_STREQ(b.port, "#");
    EXPECT_EQ(b.tail, "/x");
}

TEST(UriAddrPort, empty_address_leaves_its_buffer)
{
    const AddrPort a(":80/x");
    EXPECT_STREQ(a.addr, "#");
    EXPECT_STREQ(a.port, "80");
    EXPECT_EQ(a.tail, "/x");
    const AddrPort b("[]:80");
    EXPECT_STREQ(b.addr, "#");
    EXPECT_STREQ(b.port, "80");
}

TEST(UriAddrPort, bracketed_address_with_port)
{
    const AddrPort a("[::1]:8080/x");
    EXPECT_STREQ(a.addr, "::1");
    EXPECT_STREQ(a.port, "8080");
    EXPECT_EQ(a.tail, "/x");
}

TEST(UriAddrPort, kept_tail_of_a_bracketed_address_without_port_begins_with_the_bracket)
{
    const AddrPort a("[::1]/a");
    EXPECT_STREQ(a.addr, "::1");
    EXPECT_STREQ(a.port, "#");
    EXPECT_EQ(a.tail, "]/a");
    EXPECT_EQ(AddrPort("[::1]").tail, "]");
}

TEST(UriAddrPort, open_bracket_is_refused)
{
    for (const char* path : {"[::1/x", "[::1", "[", "[?]", "[/]"}) {
        LogCapture log;
        EXPECT_EQ(AddrPort(path).tail, std::nullopt) << path;
        EXPECT_EQ(log.lines(), (std::vector<std::string>{"(ERR)  uri_path_addrport: ERROR parsing path=[" +
                                                         std::string(path) + "]"}));
    }
}

TEST(UriAddrPort, nothing_but_slashes_up_to_the_bound_is_refused)
{
    LogCapture log;
    EXPECT_EQ(AddrPort("///", 3).tail, std::nullopt);
    EXPECT_EQ(AddrPort("///a", 3).tail, std::nullopt);
    EXPECT_EQ(AddrPort("", 0).tail, std::nullopt);
    EXPECT_EQ(log.lines().size(), 3U);
    EXPECT_EQ(AddrPort("///a", 4).tail, "");
    EXPECT_EQ(AddrPort("").tail, ""); // the bound lies behind the text
}

TEST(UriAddrPort, ends_beyond_the_bound_are_refused)
{
    LogCapture log;
    EXPECT_EQ(AddrPort("host", 4).tail, "");
    EXPECT_EQ(AddrPort("host", 3).tail, std::nullopt);
    EXPECT_EQ(AddrPort("host:80", 7).tail, "");
    EXPECT_EQ(AddrPort("host:80", 6).tail, std::nullopt);
    EXPECT_EQ(AddrPort("[::1]", 5).tail, "]");
    EXPECT_EQ(AddrPort("[::1]", 4).tail, std::nullopt);
    EXPECT_EQ(log.lines().size(), 3U);
}

TEST(UriAddrPort, parts_that_do_not_fit_are_refused)
{
    char addr[5] = "#";
    char port[3] = "#";
    EXPECT_NE(uri_path_addrport("host:80", URI_PATH_MAX, addr, 5, port, 3), nullptr);
    EXPECT_STREQ(addr, "host");
    EXPECT_STREQ(port, "80");
    EXPECT_EQ(uri_path_addrport("host:80", URI_PATH_MAX, addr, 4, port, 3), nullptr);
    EXPECT_EQ(uri_path_addrport("host:80", URI_PATH_MAX, addr, 5, port, 2), nullptr);
    EXPECT_EQ(uri_path_addrport("host:80", URI_PATH_MAX, addr, 0, port, 0), nullptr);
}

TEST(UriAddrPort, buffers_may_be_null)
{
    EXPECT_STREQ(uri_path_addrport("host:80/x", URI_PATH_MAX, nullptr, 0, nullptr, 0), "/x");
}

TEST(UriSchema, text_that_has_the_prefix_is_given_back)
{
    char buf[32] = "#";
    const char* text = "UDP://h";
    EXPECT_EQ(uri_ensure_schema("udp://", text, buf, sizeof buf), text);
    EXPECT_EQ(uri_ensure_schema("", text, buf, sizeof buf), text);
    EXPECT_STREQ(buf, "#");
}

TEST(UriSchema, prefix_is_put_in_front)
{
    char buf[32];
    EXPECT_EQ(uri_ensure_schema("udp://", "h:1", buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "udp://h:1");
    EXPECT_EQ(uri_ensure_schema("udp://", "ud", buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "udp://ud");
}

TEST(UriSchema, no_room_gives_e2big)
{
    char buf[10] = "#";
    EXPECT_EQ(uri_ensure_schema("udp://", "h:1", buf, 10), buf);
    EXPECT_STREQ(buf, "udp://h:1");
    buf[0] = '#';
    errno = 0;
    EXPECT_EQ(uri_ensure_schema("udp://", "h:1", buf, 9), nullptr);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(buf[0], '#');
    errno = 0;
    EXPECT_EQ(uri_ensure_schema("udp://", "", buf, 0), nullptr);
    EXPECT_EQ(errno, E2BIG);
}
