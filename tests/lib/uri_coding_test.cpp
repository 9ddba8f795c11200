// Percent coding, and queries read into a table.
#include "uri.h"

#include <clocale>
#include <cstring>
#include <map>
#include <random>

#include <gtest/gtest.h>

#include "fixtures.h"
#include "logcap.h"
#include "oom.h"
#include "text.h"

using support::FailAllocation;
using support::Lines;
using support::LogCapture;

namespace {

// Decodes a text of a block that is exactly bound bytes long, with a terminator where there is room.
std::string decoded(const std::string& text, size_t bound)
{
    std::vector<char> block(bound, '\0');
    memcpy(block.data(), text.data(), std::min(bound, text.size()));
    char* result = uri_decode(block.data(), bound);
    EXPECT_TRUE(result == nullptr || result == block.data());
    return result == nullptr ? "(null)" : std::string(result, strnlen(result, bound));
}

std::string decoded(const std::string& text)
{
    return decoded(text, text.size() + 1);
}

std::string encoded(const std::string& text, size_t size = 256)
{
    std::vector<char> block(size, '\0');
    memcpy(block.data(), text.data(), std::min(size, text.size()));
    EXPECT_EQ(uri_encode(block.data(), size), block.data());
    return {block.data(), strnlen(block.data(), size)};
}

// A query with one more zero byte, in a block of its exact size.
int parse_query(const std::string& query, skht_t* ht)
{
    std::vector<char> block(query.begin(), query.end());
    block.resize(block.size() + 2);
    return uri_query_parse(block.data(), ht);
}

std::map<std::string, std::string> contents(skht_t table)
{
    std::map<std::string, std::string> result;
    skht_iter(
        table,
        [](const void* key, void* data, void* arg) {
            auto& map = *static_cast<std::map<std::string, std::string>*>(arg);
            map[static_cast<const char*>(key)] = data != nullptr ? static_cast<const char*>(data) : "(null)";
        },
        &result);
    return result;
}

// The pairs of a good query; a failure of the call shows as one.
std::map<std::string, std::string> pairs(const std::string& query)
{
    skht_t table = 1;
    const int rc = parse_query(query, &table);
    if (rc != 0) {
        EXPECT_EQ(table, 0U);
        return {{"rc", std::to_string(rc)}};
    }
    auto result = contents(table);
    skht_destroy(table, free);
    return result;
}

using Pairs = std::map<std::string, std::string>;

} // namespace

TEST(UriDecode, plain_text_stays_and_plus_is_a_blank)
{
    EXPECT_EQ(decoded(""), "");
    EXPECT_EQ(decoded("abc"), "abc");
    EXPECT_EQ(decoded("a+b+"), "a b ");
}

TEST(UriDecode, escapes_become_their_bytes)
{
    EXPECT_EQ(decoded("100%25"), "100%");
    EXPECT_EQ(decoded("%41%42%43"), "ABC");
    EXPECT_EQ(decoded("a%20b"), "a b");
    EXPECT_EQ(decoded("%2F%3A%7E"), "/:~");
    EXPECT_EQ(decoded("%2525"), "%25");
}

TEST(UriDecode, kept_lower_case_digits_count_as_42_to_47)
{
    EXPECT_EQ(decoded("%2f"), "O"); // 2 * 16 + 47
    EXPECT_EQ(decoded("%2F"), "/");
    EXPECT_EQ(decoded("%1a"), ":"); // 16 + 42
    EXPECT_EQ(decoded("%af"), "?"); // 42 * 16 + 47, cut to 207
    EXPECT_EQ(decoded("%b1"), "?"); // 43 * 16 + 1, cut to 177
    EXPECT_EQ(decoded("%e5"), "?"); // 46 * 16 + 5, cut to 229
    EXPECT_EQ(decoded("%Cd"), "?"); // 12 * 16 + 45 is 237
    EXPECT_EQ(decoded("%0c"), ","); // 44
    EXPECT_EQ(decoded("%Fe"), "?"); // 15 * 16 + 46, cut to 30
}

TEST(UriDecode, bad_escapes_are_dropped)
{
    EXPECT_EQ(decoded("a%zzb"), "ab");
    EXPECT_EQ(decoded("a%1zb"), "ab");
    EXPECT_EQ(decoded("a%z1b"), "ab");
    EXPECT_EQ(decoded("a%%%b"), "ab");
    EXPECT_EQ(decoded("%GG%@@%``%::"), "");
}

TEST(UriDecode, unprintable_bytes_become_question_marks)
{
    EXPECT_EQ(decoded("%00"), "?");
    EXPECT_EQ(decoded("%1F%7F%80%FF"), "????");
    EXPECT_EQ(decoded("\x01\xff"), "\x01\xff"); // as they stand they pass
}

TEST(UriDecode, byte_that_the_locale_prints_stays_unless_it_is_end_of_file)
{
    if (setlocale(LC_CTYPE, "en_US.ISO-8859-1") == nullptr) {
        GTEST_SKIP() << "skipped: no Latin-1 locale here";
    }
    EXPECT_EQ(decoded("%E9%FF"), "\xe9?");
}

TEST(UriDecode, bare_escape_at_the_bound_gives_null)
{
    EXPECT_EQ(decoded("abc%", 4), "(null)");
    EXPECT_EQ(decoded("abc%4", 5), "(null)");
    EXPECT_EQ(decoded("abc%41", 6), "abcA");
    EXPECT_EQ(decoded("%", 1), "(null)");
    EXPECT_EQ(decoded("%4", 2), "(null)");
    EXPECT_EQ(decoded("%4", 3), "");
}

TEST(UriDecode, refused_text_is_partly_rewritten)
{
    char text[] = "%41%42%";
    EXPECT_EQ(uri_decode(text, 7), nullptr);
    EXPECT_STREQ(text, "AB1%42%");
}

TEST(UriDecode, kept_bad_escape_steps_over_the_terminator)
{
    char text[] = "a%\0\0bc\0d";
    EXPECT_EQ(uri_decode(text, sizeof text), text);
    EXPECT_STREQ(text, "abc");
    char other[] = "a%4\0bc\0d";
    EXPECT_EQ(uri_decode(other, sizeof other), other);
    EXPECT_STREQ(other, "abc");
    char bounded[] = "a%4\0bc";
    EXPECT_EQ(uri_decode(bounded, 4), bounded);
    EXPECT_STREQ(bounded, "a");
}

TEST(UriDecode, terminator_at_the_bound_takes_the_last_byte)
{
    char text[] = "abcdef";
    EXPECT_EQ(uri_decode(text, 4), text);
    EXPECT_EQ(std::string(text, 6), std::string("abc\0ef", 6));
    char nothing[] = "ab";
    EXPECT_EQ(uri_decode(nothing, 0), nothing);
    EXPECT_STREQ(nothing, "ab");
}

TEST(UriEncode, safe_characters_stay)
{
    const std::string safe = "AZaz09-_.!~'()#%\"<>[]{}|\\^`";
    EXPECT_EQ(encoded(safe), safe);
}

TEST(UriEncode, reserved_and_unprintable_characters_are_escaped)
{
    EXPECT_EQ(encoded(";/?:@&=+$,* "), "%3B%2F%3F%3A%40%26%3D%2B%24%2C%2A%20");
    EXPECT_EQ(encoded("\x01\t\x1f\x7f"), "%01%09%1F%7F");
    EXPECT_EQ(encoded(""), "");
}

TEST(UriEncode, kept_byte_from_128_up_ends_the_text)
{
    char text[16] = "a\xe9z";
    EXPECT_EQ(uri_encode(text, sizeof text), text);
    EXPECT_EQ(std::string(text, 6), std::string("a%\0"
                                                "9z\0",
                                                6));
}

TEST(UriEncode, escape_without_room_cuts_the_text)
{
    EXPECT_EQ(encoded("ab cd", 8), "ab%20cd");
    EXPECT_EQ(encoded("ab cd", 7), "ab%20c");
    EXPECT_EQ(encoded("ab cd", 6), "ab%20");
    EXPECT_EQ(encoded("ab", 5), "ab");
    EXPECT_EQ(encoded("a b", 4), "a"); // three places, of which one is the terminator's
    EXPECT_EQ(encoded("    ", 8), "%20%20");
}

TEST(UriEncode, text_without_terminator_is_cut_to_the_buffer)
{
    EXPECT_EQ(encoded("abcd", 4), "abc");
    EXPECT_EQ(encoded("a", 1), "");
    char nothing[] = "ab";
    EXPECT_EQ(uri_encode(nothing, 0), nothing);
    EXPECT_STREQ(nothing, "ab");
}

TEST(UriEncode, without_memory_the_text_stays)
{
    char text[16] = "a b";
    LogCapture log;
    {
        FailAllocation fail(1);
        EXPECT_EQ(uri_encode(text, sizeof text), nullptr);
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_STREQ(text, "a b");
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].rfind("(ERR)  uri_encode: calloc(", 0), 0U) << log.lines()[0];
}

TEST(UriCoding, encoded_texts_without_percent_decode_to_themselves)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 5000; ++round) {
        std::string text;
        for (unsigned n = random() % 40; n > 0; --n) {
            char c = static_cast<char>(' ' + random() % 95);
            text += c == '%' ? 'x' : c;
        }
        ASSERT_EQ(decoded(encoded(text)), text);
    }
}

class UriQuery : public support::GuardedTest {};

TEST_F(UriQuery, reads_pairs)
{
    EXPECT_EQ(pairs("a=1"), (Pairs{{"a", "1"}}));
    EXPECT_EQ(pairs("a=1&b=2&c=3"), (Pairs{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
    EXPECT_EQ(pairs("a=b=c"), (Pairs{{"a", "b=c"}}));
}

TEST_F(UriQuery, empty_value_is_a_null_pointer)
{
    EXPECT_EQ(pairs("a=&b=2"), (Pairs{{"a", "(null)"}, {"b", "2"}}));
    EXPECT_EQ(pairs("a="), (Pairs{{"a", "(null)"}}));
}

TEST_F(UriQuery, separator_at_the_end_is_stepped_over)
{
    EXPECT_EQ(pairs("a=1&"), (Pairs{{"a", "1"}}));
}

TEST_F(UriQuery, kept_separator_in_front_of_a_key_belongs_to_it)
{
    EXPECT_EQ(pairs("a=1&&b=2"), (Pairs{{"a", "1"}, {"&b", "2"}}));
}

TEST_F(UriQuery, keys_and_values_are_decoded)
{
    EXPECT_EQ(pairs("a+b=c%20d"), (Pairs{{"a b", "c d"}}));
    EXPECT_EQ(pairs("%zz=1"), (Pairs{{"", "1"}}));
    EXPECT_EQ(pairs("a=%zz"), (Pairs{{"a", ""}}));
}

TEST_F(UriQuery, walk_ends_at_the_first_zero_byte)
{
    const char text[] = "a=1\0b=2";
    skht_t table = 0;
    ASSERT_EQ(uri_query_parse(text, &table), 0);
    EXPECT_EQ(contents(table), (Pairs{{"a", "1"}}));
    skht_destroy(table, free);
}

TEST_F(UriQuery, empty_text_leaves_the_handle)
{
    skht_t table = 77;
    EXPECT_EQ(parse_query("", &table), 0);
    EXPECT_EQ(table, 77U);
    EXPECT_EQ(parse_query("", nullptr), 0);
}

TEST_F(UriQuery, pairs_without_key_or_mark_fail_silently)
{
    for (const char* query : {"=1", "a", "a=1&b", "&", "a=1&=2", "=", "a=1&&"}) {
        skht_t table = 77;
        EXPECT_EQ(parse_query(query, &table), -1) << query;
        EXPECT_EQ(table, 0U) << query;
        EXPECT_EQ(parse_query(query, nullptr), -1) << query;
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(UriQuery, keys_have_limits)
{
    const std::string key31(31, 'k');
    EXPECT_EQ(pairs(key31 + "=1"), (Pairs{{key31, "1"}}));
    skht_t table = 77;
    EXPECT_EQ(parse_query(key31 + "k=1", &table), -1);
    EXPECT_EQ(table, 0U);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(UriQuery, values_have_limits)
{
    const std::string value31(31, 'v');
    EXPECT_EQ(pairs("a=" + value31), (Pairs{{"a", value31}}));
    skht_t table = 77;
    EXPECT_EQ(parse_query("a=" + value31 + "vv", &table), -1);
    EXPECT_EQ(table, 0U);
    EXPECT_EQ(log.lines(),
              (Lines{"(ERR)  uri_query_parse: argument for query parameter [a] is too long [33]"}));
}

TEST_F(UriQuery, kept_value_of_32_characters_loses_its_last_in_decoding)
{
    EXPECT_EQ(pairs("a=" + std::string(32, 'v')), (Pairs{{"a", std::string(31, 'v')}}));
    EXPECT_EQ(pairs("a=" + std::string(31, 'v') + "%&b=1"),
              (Pairs{{"a", std::string(31, 'v') + "%"}, {"b", "1"}})); // refused by the decoding, so kept
    EXPECT_EQ(parse_query("a=" + std::string(32, 'v'), nullptr), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(UriQuery, duplicate_key_ends_with_16)
{
    for (const char* query : {"a=1&b=2&a=3&c=4", "a=&a=3", "a=1&a=", "a=1&%61=0&a=2"}) {
        SCOPED_TRACE(query);
        log.clear();
        skht_t table = 77;
        EXPECT_EQ(parse_query(query, &table), EBUSY);
        EXPECT_EQ(table, 0U);
        EXPECT_EQ(log.lines(), (Lines{"(ERR)  uri_query_parse: duplicate query parameter [a]"}));
    }
}

TEST_F(UriQuery, duplicate_may_arise_from_decoding)
{
    skht_t table = 77;
    EXPECT_EQ(parse_query("A=1&%41=2", &table), EBUSY);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  uri_query_parse: duplicate query parameter [A]"}));
    EXPECT_EQ(parse_query("A=1&%41=2", nullptr), 0); // what is only judged is not decoded
}

TEST_F(UriQuery, at_129_pairs_the_count_is_shown)
{
    std::string query;
    for (int i = 0; i < 128; ++i) {
        query += (i > 0 ? "&k" : "k") + std::to_string(i) + "=" + std::to_string(i);
    }
    const auto all = pairs(query);
    EXPECT_EQ(all.size(), 128U);
    EXPECT_EQ(all.at("k127"), "127");
    EXPECT_EQ(pairs(query + "&").size(), 128U);
    EXPECT_EQ(log.lines(), Lines{});
    for (skht_t other = 77; skht_t * table : {&other, static_cast<skht_t*>(nullptr)}) {
        log.clear();
        EXPECT_EQ(parse_query(query + "&one=more", table), -1);
        EXPECT_EQ(log.lines(), (Lines{"(ERR)  uri_query_parse: too many query parameters: [128]"}));
        EXPECT_EQ(other, 0U);
        other = 0;
    }
}

TEST_F(UriQuery, pairs_are_judged_alone)
{
    EXPECT_EQ(parse_query("a=1&b=2", nullptr), 0);
    EXPECT_EQ(parse_query("a=1&a=2", nullptr), EBUSY);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(UriQuery, each_failed_allocation_gives_12_and_leaves_nothing)
{
    // Table, slots, then a value and a record for each of the two pairs.
    for (size_t n = 1; n <= 6; ++n) {
        SCOPED_TRACE(n);
        log.clear();
        skht_t table = 77;
        int rc = 0;
        {
            FailAllocation fail(n);
            static const char query[] = "a=1&b=2\0";
            rc = uri_query_parse(query, &table);
            EXPECT_TRUE(fail.happened());
        }
        EXPECT_EQ(rc, ENOMEM);
        EXPECT_EQ(table, 0U);
        const bool of_a_value = n == 3 || n == 5;
        ASSERT_EQ(log.lines().size(), of_a_value ? 1U : 0U);
        if (of_a_value) {
            EXPECT_EQ(log.lines()[0].rfind("(ERR)  uri_query_parse: calloc(", 0), 0U) << log.lines()[0];
        }
    }
}

TEST_F(UriQuery, random_queries_agree_with_a_model)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 3000; ++round) {
        Pairs expected;
        std::string query;
        for (unsigned n = 1 + random() % 20; n > 0; --n) {
            std::string key(1, static_cast<char>('a' + random() % 26));
            key += std::to_string(random() % 1000);
            const std::string value(random() % 32, static_cast<char>('0' + random() % 10));
            if (expected.emplace(key, value.empty() ? "(null)" : value).second) {
                query += (query.empty() ? "" : "&") + key + "=" + value;
            }
        }
        ASSERT_EQ(pairs(query), expected) << query;
    }
}
