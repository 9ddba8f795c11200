// The words of ZENT_FEATURES, and the list of groups with exact keys.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <sys/stat.h>
#include <thread>

#include "agent_test.h"
#include "child.h"
#include "log.h"
#include "tempdir.h"
#include "text.h"

using support::Lines;

namespace {

constexpr const char* kKnown = "; known are exact, immediate, igmpv3 and expire=S with 10 to 86400 seconds";

// What a text turns on, or its complaint without what it always says.
std::string parsed(const char* text)
{
    app_features features = {};
    char complaint[256] = "";
    if (parse_features(text, &features, complaint, sizeof complaint) == 0) {
        EXPECT_STREQ(complaint, "");
        EXPECT_EQ(features.any, features_text(&features)[0] != 0);
        return features_text(&features);
    }
    EXPECT_FALSE(features.any || features.exact || features.immediate || features.igmpv3 ||
                 features.expire != 0)
        << text;
    std::string reason = complaint;
    EXPECT_TRUE(reason.starts_with("ZENT_FEATURES: ") && reason.ends_with(kKnown)) << reason;
    return reason.substr(15, reason.size() - 15 - strlen(kKnown));
}

in_addr_t net(const std::string& text)
{
    in_addr addr;
    inet_aton(text.c_str(), &addr);
    return addr.s_addr;
}

class ExactList : public support::AgentTest {
  protected:
    void SetUp() override
    {
        g_cfg.features = {.any = true, .exact = true, .immediate = false, .igmpv3 = false, .expire = 0};
    }

    void TearDown() override
    {
        if (g_ctx.scope_ht != 0) {
            nkht_destroy(g_ctx.scope_ht, nullptr);
        }
    }

    void write(const std::string& text) const { dir_.write("list", text); }

    static size_t slots() { return reinterpret_cast<const size_t*>(g_ctx.scope_ht)[2]; }

    const support::TempDir dir_;
    const std::string path_ = dir_.path("list");
};

} // namespace

TEST(Features, unset_empty_or_blank_turns_nothing_on)
{
    for (const char* text : {static_cast<const char*>(nullptr), "", " ", " \t  "}) {
        EXPECT_EQ(parsed(text), "");
    }
}

TEST(Features, each_word_turns_its_own_on)
{
    for (const char* text : {"exact", "immediate", "igmpv3", "expire=10", "expire=260", "expire=86400"}) {
        EXPECT_EQ(parsed(text), text);
    }
}

TEST(Features, words_stand_in_any_order_with_blanks_around_commas)
{
    EXPECT_EQ(parsed("exact,immediate,igmpv3,expire=260"), "exact,immediate,igmpv3,expire=260");
    EXPECT_EQ(parsed("  expire=11 ,\tigmpv3, exact\t"), "exact,igmpv3,expire=11");
}

TEST(Features, unknown_words_are_named)
{
    for (const std::string word :
         {"Exact", "exactly", "exact=1", "igmp", "expires=260", "exact immediate", "-"}) {
        const std::string words = std::string("immediate,").append(word);
        EXPECT_EQ(parsed(words.c_str()), std::string("this word is unknown: \"").append(word).append("\""));
    }
}

TEST(Features, empty_words_are_refused)
{
    for (const char* text : {",", "exact,", ",exact", "exact,,igmpv3", "exact, ,igmpv3"}) {
        EXPECT_EQ(parsed(text), "this word is empty: \"\"") << text;
    }
}

TEST(Features, words_that_stand_twice_are_named)
{
    for (const std::string word : {"exact", "immediate", "igmpv3"}) {
        const std::string twice = std::string(word).append(",").append(word);
        EXPECT_EQ(parsed(twice.c_str()), std::string("this word stands twice: \"").append(word).append("\""));
    }
    EXPECT_EQ(parsed("expire=10,expire=11"), "this word stands twice: \"expire=11\"");
}

TEST(Features, numbers_outside_their_bounds_or_that_are_none_are_named)
{
    for (const char* number : {"", "9", "0", "86401", "-260", "+260", "260s", "2 60", "1e3", "0x20",
                               "4294967556", "99999999999999999999"}) {
        EXPECT_EQ(parsed((std::string("expire=") + number).c_str()),
                  std::string("the number is missing or bad: \"expire=") + number + '"');
    }
    EXPECT_EQ(parsed("expire"), "the number is missing or bad: \"expire\"");
}

TEST(Features, long_word_is_cut_to_the_room_of_the_complaint)
{
    app_features features = {};
    char complaint[256];
    EXPECT_EQ(parse_features(std::string(5000, 'x').c_str(), &features, complaint, sizeof complaint), -1);
    EXPECT_EQ(strlen(complaint), 255U);
}

TEST(Features, environment_is_read_into_the_configuration)
{
    setenv("ZENT_FEATURES", "igmpv3, expire=30", 1);
    EXPECT_EQ(read_features(), 0);
    EXPECT_TRUE(g_cfg.features.any && g_cfg.features.igmpv3 && g_cfg.features.expire == 30);
    unsetenv("ZENT_FEATURES");
    EXPECT_EQ(read_features(), 0);
    EXPECT_FALSE(g_cfg.features.any);
}

TEST(Features, bad_words_of_the_environment_are_told_on_stderr_and_refused)
{
    g_appname = "zent";
    const auto refused = [](const std::string& words) {
        setenv("ZENT_FEATURES", words.c_str(), 1);
        const auto result = support::run_in_child([] { return read_features() == -1 ? 0 : 1; });
        unsetenv("ZENT_FEATURES");
        EXPECT_EQ(result.exit_code, 0);
        return result.err;
    };
    EXPECT_EQ(refused("exakt"),
              std::string("zent: ZENT_FEATURES: this word is unknown: \"exakt\"") + kKnown + "\n");
    EXPECT_EQ(refused(std::string(5000, 'x')).size(), 6 + 255 + 1U) << "cut to 255 characters";
}

TEST_F(ExactList, every_entry_matches_and_nothing_else_does)
{
    std::string text;
    for (int octet = 0; octet < 256; octet += 2) {
        text += "239.1.1." + std::to_string(octet) + "\n";
    }
    write(text);
    ASSERT_EQ(load_group_list(path_.c_str()), 0);
    for (int octet = 0; octet < 256; ++octet) {
        const std::string group = "239.1.1." + std::to_string(octet);
        EXPECT_EQ(in_scope(static_cast<int32_t>(net(group))), octet % 2 == 0) << group;
    }
}

TEST_F(ExactList, table_has_room_for_a_list_that_was_counted_first)
{
    std::string text;
    for (int n = 0; n < 6000; ++n) {
        text += "239.2." + std::to_string(n / 250) + "." + std::to_string(n % 250) + "\n";
    }
    write(text);
    ASSERT_EQ(load_group_list(path_.c_str()), 0);
    EXPECT_EQ(nkht_count(g_ctx.scope_ht), 6000U);
    EXPECT_EQ(slots(), 8192U);
    write("239.1.1.1\n");
    ASSERT_EQ(load_group_list(path_.c_str()), 0);
    EXPECT_EQ(slots(), 512U);
    g_cfg.features = {};
    write(text);
    ASSERT_EQ(load_group_list(path_.c_str()), 0);
    EXPECT_EQ(slots(), 512U);
}

TEST_F(ExactList, list_from_a_pipe_is_read_once_and_whole)
{
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    std::thread writer([&] { write("239.1.1.1\n239.1.1.200\n"); });
    EXPECT_EQ(load_group_list(path_.c_str()), 0);
    writer.join();
    EXPECT_EQ(nkht_count(g_ctx.scope_ht), 2U);
}

TEST_F(ExactList, duplicates_are_always_found_and_lines_print_the_key_as_ever)
{
    std::string text;
    for (int octet = 0; octet < 256; ++octet) {
        text += "239.1." + std::to_string(octet) + ".200\n";
    }
    write(text + "239.1.255.200\n");
    EXPECT_EQ(load_group_list(path_.c_str()), -1);
    EXPECT_EQ(log.lines(), Lines{"(ERR)  load_group_list: [" + path_ + "] duplicate at line 257: (" +
                                 std::to_string(net("239.1.255.200")) + ") 239.1.255.200"});
}
