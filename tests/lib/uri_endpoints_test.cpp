// Segments between slashes, the endpoints of a request path, aliases with queries.
#include "uri.h"

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

namespace {

constexpr size_t kSize = 64;

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

// Both buffers start as "#", so that an untouched one shows; they are blocks of their exact size.
Endpoints endpoints(const char* path, size_t slength = kSize, size_t dlength = kSize)
{
    std::vector<char> src(std::max<size_t>(slength, 1), '\0');
    std::vector<char> dst(std::max<size_t>(dlength, 1), '\0');
    src.front() = '#';
    dst.front() = '#';
    const int rc = uri_extract_endpts(path, src.data(), slength, dst.data(), dlength);
    return {rc, std::string(src.data(), strnlen(src.data(), slength)),
            std::string(dst.data(), strnlen(dst.data(), dlength))};
}

std::vector<std::string> segments(const char* text)
{
    std::vector<std::string> result;
    const char* seg = nullptr;
    size_t length = 0;
    const char* end = text + strlen(text);
    while (uri_xseg(text, "//", &seg, &length) != nullptr) {
        result.emplace_back(seg, length);
        EXPECT_GT(seg + length, text); // each step advances
        EXPECT_LE(seg + length, end);
        text = seg + length;
    }
    return result;
}

} // namespace

TEST(UriXseg, empty_text_gives_null_and_stores_nothing)
{
    const char* seg = "before";
    size_t length = 77;
    EXPECT_EQ(uri_xseg("", "//", &seg, &length), nullptr);
    EXPECT_STREQ(seg, "before");
    EXPECT_EQ(length, 77U);
}

TEST(UriXseg, length_counts_the_closing_delimiter)
{
    const char* text = "/ab/c";
    const char* seg = nullptr;
    size_t length = 0;
    EXPECT_EQ(uri_xseg(text, "//", &seg, &length), text + 1);
    EXPECT_EQ(seg, text + 1);
    EXPECT_EQ(length, 3U);
    EXPECT_EQ(uri_xseg(text + 4, "//", &seg, &length), text + 4);
    EXPECT_EQ(length, 1U);
}

TEST(UriXseg, opening_delimiter_alone_is_a_segment_of_nothing)
{
    const char* text = "/";
    const char* seg = nullptr;
    size_t length = 77;
    EXPECT_EQ(uri_xseg(text, "//", &seg, &length), text + 1);
    EXPECT_EQ(length, 0U);
}

TEST(UriXseg, delimiters_may_differ)
{
    const char* seg = nullptr;
    size_t length = 0;
    EXPECT_NE(uri_xseg("<a>b", "<>", &seg, &length), nullptr);
    EXPECT_EQ(std::string(seg, length), "a>");
}

TEST(UriXseg, walk_covers_the_text)
{
    EXPECT_EQ(segments("/src/a/b"), (std::vector<std::string>{"src/", "a/", "b"}));
    EXPECT_EQ(segments("udp://h/x/"), (std::vector<std::string>{"udp:/", "h/", "x/"}));
    EXPECT_EQ(segments("//"), (std::vector<std::string>{"/"}));
    EXPECT_EQ(segments("///"), (std::vector<std::string>{"/", ""}));
}

TEST(UriEndpoints, alias_without_slash_is_the_whole_text)
{
    EXPECT_EQ(endpoints("$name"), (Endpoints{0, "$name", "#"}));
    EXPECT_EQ(endpoints("~n"), (Endpoints{0, "~n", "#"}));
    EXPECT_EQ(endpoints("^"), (Endpoints{0, "^", "#"}));
}

TEST(UriEndpoints, kept_whole_text_alias_that_fills_the_buffer_has_no_terminator)
{
    char src[6] = {'#', '#', '#', '#', '#', '#'};
    char dst[2] = "#";
    EXPECT_EQ(uri_extract_endpts("$name", src, 5, dst, 2), 0);
    EXPECT_EQ(std::string(src, 6), "$name#");
    EXPECT_EQ(uri_extract_endpts("$longer", src, 5, dst, 2), 0);
    EXPECT_EQ(std::string(src, 6), "$long#");
    EXPECT_EQ(uri_extract_endpts("$n", src, 0, dst, 0), 0);
}

TEST(UriEndpoints, alias_in_the_first_segment)
{
    EXPECT_EQ(endpoints("/$name/more"), (Endpoints{0, "$name", "#"}));
    EXPECT_EQ(endpoints("$name/more"), (Endpoints{0, "$name", "#"}));
    EXPECT_EQ(endpoints("/~name"), (Endpoints{0, "~name", "#"}));
    EXPECT_EQ(endpoints("/$name/", 6).rc, 0);
    EXPECT_EQ(endpoints("/$name/", 5), (Endpoints{E2BIG, "#", "#"}));
    EXPECT_EQ(endpoints("/a/$name").rc, -1);
}

TEST(UriEndpoints, text_without_slash_that_is_no_alias)
{
    EXPECT_EQ(endpoints("udp"), (Endpoints{ESRCH, "#", "#"}));
    EXPECT_EQ(endpoints(""), (Endpoints{ESRCH, "#", "#"}));
    EXPECT_EQ(endpoints("a$"), (Endpoints{ESRCH, "#", "#"}));
}

TEST(UriEndpoints, stream_gives_source_and_empty_destination)
{
    EXPECT_EQ(endpoints("/udp/224.0.2.1:5056/"), (Endpoints{0, "udp://224.0.2.1:5056", ""}));
    EXPECT_EQ(endpoints("/rtp/h:1"), (Endpoints{0, "rtp://h:1", ""}));
    EXPECT_EQ(endpoints("udp/h:1/rest/of/it"), (Endpoints{0, "udp://h:1", ""}));
}

TEST(UriEndpoints, stream_word_stays_as_it_is_written)
{
    EXPECT_EQ(endpoints("/UdP/h:1/"), (Endpoints{0, "UdP://h:1", ""}));
}

TEST(UriEndpoints, stream_without_address_gives_22)
{
    EXPECT_EQ(endpoints("/udp/"), (Endpoints{EINVAL, "udp://", "#"}));
    EXPECT_EQ(endpoints("/udp"), (Endpoints{EINVAL, "udp://", "#"}));
    EXPECT_EQ(endpoints("rtp/"), (Endpoints{EINVAL, "rtp://", "#"}));
}

TEST(UriEndpoints, stream_address_of_delimiters_alone_counts_as_too_big)
{
    EXPECT_EQ(endpoints("/udp//"), (Endpoints{E2BIG, "udp://", ""}));
    EXPECT_EQ(endpoints("/udp///"), (Endpoints{E2BIG, "udp://", ""}));
}

TEST(UriEndpoints, stream_that_does_not_fit)
{
    // "udp://h:1" and its terminator are ten bytes, the word with "://" seven, the word alone four.
    EXPECT_EQ(endpoints("/udp/h:1/", 10), (Endpoints{0, "udp://h:1", ""}));
    EXPECT_EQ(endpoints("/udp/h:1/", 9), (Endpoints{E2BIG, "udp://", ""}));
    EXPECT_EQ(endpoints("/udp/h:1/", 7), (Endpoints{E2BIG, "udp://", ""}));
    EXPECT_EQ(endpoints("/udp/h:1/", 6), (Endpoints{-EINVAL, "udp", "#"}));
    EXPECT_EQ(endpoints("/udp/h:1/", 4), (Endpoints{-EINVAL, "udp", "#"}));
    EXPECT_EQ(endpoints("/udp/h:1/", 3), (Endpoints{-EINVAL, "#", "#"}));
    EXPECT_EQ(endpoints("/udp/h:1/", 0).rc, -EINVAL);
    EXPECT_EQ(endpoints("/udp/h:1/", kSize, 0), (Endpoints{0, "udp://h:1", ""}));
}

TEST(UriEndpoints, other_first_words_give_minus_one)
{
    for (const char* path : {"/tcp/x", "/", "//", "//udp/h:1", "/udpx/h", "/ud/h", "/dst/a", "x/y"}) {
        EXPECT_EQ(endpoints(path), (Endpoints{-1, "#", "#"})) << path;
    }
}

TEST(UriEndpoints, pair_gives_source_and_destination)
{
    EXPECT_EQ(endpoints("/src/a/b/dst/c/d/"), (Endpoints{0, "a/b", "c/d/"}));
    EXPECT_EQ(endpoints("SRC/a/DST/c"), (Endpoints{0, "a", "c"}));
}

TEST(UriEndpoints, pairs_nest)
{
    EXPECT_EQ(endpoints("/src/src/a/dst/b/dst/c"), (Endpoints{0, "src/a/dst/b", "c"}));
    EXPECT_EQ(endpoints("/src/src/src/a/dst/b/dst/c/dst/d"), (Endpoints{0, "src/src/a/dst/b/dst/c", "d"}));
    EXPECT_EQ(endpoints("/src/a/dst/src/b/dst/c"), (Endpoints{0, "a", "src/b/dst/c"}));
}

TEST(UriEndpoints, source_without_destination_gives_the_count)
{
    EXPECT_EQ(endpoints("/src/a/"), (Endpoints{1, "#", "#"}));
    EXPECT_EQ(endpoints("/src/"), (Endpoints{1, "#", "#"}));
    EXPECT_EQ(endpoints("/src"), (Endpoints{1, "#", "#"}));
    EXPECT_EQ(endpoints("/src/src/a/dst/b"), (Endpoints{1, "#", "#"}));
    EXPECT_EQ(endpoints("/src/src/src/a"), (Endpoints{3, "#", "#"}));
}

TEST(UriEndpoints, urls_in_a_pair_may_have_their_slashes)
{
    EXPECT_EQ(endpoints("/src/udp://h:1/dst/file:///tmp/a"), (Endpoints{0, "udp://h:1", "file:///tmp/a"}));
    EXPECT_EQ(endpoints("/src/udp://h:1/dst//tmp/a"), (Endpoints{0, "udp://h:1", "/tmp/a"}));
    EXPECT_EQ(endpoints("/src/udp://h:1/dst//"), (Endpoints{0, "udp://h:1", "/"}));
}

TEST(UriEndpoints, nothing_behind_the_destination_word_leaves_it)
{
    EXPECT_EQ(endpoints("/src/a/dst/"), (Endpoints{0, "a", "#"}));
    EXPECT_EQ(endpoints("/src/a/dst"), (Endpoints{0, "a", "#"}));
}

TEST(UriEndpoints, empty_source_gives_minus_one)
{
    EXPECT_EQ(endpoints("/src/dst/b"), (Endpoints{-1, "#", "#"}));
    EXPECT_EQ(endpoints("/src//dst/b"), (Endpoints{-1, "#", "#"}));
}

TEST(UriEndpoints, pair_that_does_not_fit)
{
    EXPECT_EQ(endpoints("/src/abc/dst/de", 4, 3), (Endpoints{0, "abc", "de"}));
    EXPECT_EQ(endpoints("/src/abc/dst/de", 3, 3), (Endpoints{-1, "#", "#"}));
    EXPECT_EQ(endpoints("/src/abc/dst/de", 0, 0).rc, -1);
}

TEST(UriEndpoints, kept_destination_that_fills_the_buffer_has_no_terminator)
{
    char src[8];
    char dst[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(uri_extract_endpts("/src/a/dst/bcd", src, sizeof src, dst, 3), 0);
    EXPECT_EQ(std::string(dst, 4), "bcd#");
    EXPECT_EQ(uri_extract_endpts("/src/a/dst/bcdef", src, sizeof src, dst, 3), 0);
    EXPECT_EQ(std::string(dst, 4), "bcd#");
}

TEST(UriSplitAlias, copies_up_to_the_mark)
{
    char alias[32] = {};
    const char* query = "before";
    const char* src = "$name?a=1";
    EXPECT_EQ(uri_split_alias(src, alias, sizeof alias, &query), 0);
    EXPECT_STREQ(alias, "$name");
    EXPECT_EQ(query, src + 6);
    EXPECT_STREQ(query, "a=1");
}

TEST(UriSplitAlias, without_mark_there_is_no_query)
{
    char alias[32] = {};
    const char* query = "before";
    EXPECT_EQ(uri_split_alias("$name", alias, sizeof alias, &query), 0);
    EXPECT_STREQ(alias, "$name");
    EXPECT_EQ(query, nullptr);
}

TEST(UriSplitAlias, empty_query_is_there)
{
    char alias[32] = {};
    const char* query = nullptr;
    EXPECT_EQ(uri_split_alias("?", alias, sizeof alias, &query), 0);
    EXPECT_STREQ(query, "");
}

TEST(UriSplitAlias, kept_terminator_stands_at_twice_the_length)
{
    char alias[16];
    memset(alias, '#', sizeof alias);
    const char* query = nullptr;
    uri_split_alias("abc?q", alias, sizeof alias, &query);
    EXPECT_EQ(std::string(alias, sizeof alias), std::string("abc###\0#########", 16));
}

TEST(UriSplitAlias, terminator_beyond_the_buffer_is_not_written)
{
    char alias[7];
    memset(alias, '#', sizeof alias);
    const char* query = nullptr;
    uri_split_alias("abc?q", alias, 6, &query); // twice the length is just behind the buffer
    EXPECT_EQ(std::string(alias, sizeof alias), "abc####");
    EXPECT_STREQ(query, "q");
    uri_split_alias("abc?q", alias, 7, &query);
    EXPECT_EQ(std::string(alias, sizeof alias), std::string("abc###\0", 7));
}

TEST(UriSplitAlias, kept_query_behind_an_alias_that_filled_the_buffer_is_lost)
{
    char alias[8] = {};
    const char* query = "before";
    uri_split_alias("abcd?q", alias, 5, &query);
    EXPECT_STREQ(alias, "abcd");
    EXPECT_EQ(query, nullptr);
    memset(alias, 0, sizeof alias);
    query = "before";
    uri_split_alias("abcd?q", alias, 4, &query);
    EXPECT_STREQ(alias, "abc");
    EXPECT_EQ(query, nullptr);
}

TEST(UriSplitAlias, buffers_of_nothing_are_refused)
{
    char alias[2] = "#";
    const char* query = "before";
    EXPECT_EQ(uri_split_alias("abc?q", alias, 0, &query), 0);
    EXPECT_STREQ(alias, "#");
    EXPECT_EQ(query, nullptr);
    EXPECT_EQ(uri_split_alias("abc?q", alias, 1, &query), 0);
    EXPECT_STREQ(alias, "");
}
