// zentctl lint: each rule of a list, and its agreement with the agent's own loader.
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "command.h"
#include "fault.h"
#include "list_file.h"
#include "log.h"
#include "oom.h"
#include "tempdir.h"
#include "zent.h"
#include "zentctl_run.h"

using namespace support;

extern "C" [[gnu::weak]] void __gcov_dump();

namespace {

class Lint : public testing::Test {
  protected:
    ChildResult lint(const std::string& text, std::vector<std::string> options = {})
    {
        dir_.write("list", text);
        options.insert(options.begin(), "lint");
        options.push_back(dir_.path("list"));
        return run_zentctl(options);
    }

    // The line without the path before it.
    std::string told(const std::string& text, const std::vector<std::string>& options = {})
    {
        std::string out = lint(text, options).out;
        const std::string path = dir_.path("list") + ":";
        for (size_t at = 0; (at = out.find(path, at)) != std::string::npos;) {
            out.erase(at, path.size());
        }
        return out;
    }

    TempDir dir_;
};

} // namespace

TEST_F(Lint, a_good_list_is_good)
{
    const ChildResult result = lint("239.1.1.1\n239.1.1.2\n");
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, dir_.path("list") + ": ok: 2 entries, all good [good-list]\n");
}

TEST_F(Lint, an_empty_file_loads_and_lets_nothing_through)
{
    const ChildResult result = lint("");
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_NE(result.out.find("[empty-list]"), std::string::npos) << result.out;
    EXPECT_EQ(lint("", {"--strict"}).exit_code, 1);
}

TEST_F(Lint, a_comment_is_an_error_with_line_and_column)
{
    EXPECT_EQ(told("239.1.1.1\n  # mine\n"),
              "2:3: error: the agent knows no comments: \"  # mine\" [comment]\n");
    EXPECT_EQ(lint("# mine\n").exit_code, 1);
}

TEST_F(Lint, an_empty_line_is_an_error)
{
    EXPECT_EQ(told("239.1.1.1\n\n239.1.1.2\n"), "2:1: error: the line is empty [empty-line]\n");
    EXPECT_EQ(told("239.1.1.1\n \t\n"), "2:1: error: the line is empty [empty-line]\n");
    EXPECT_EQ(lint("239.1.1.1\n\n").exit_code, 1);
}

TEST_F(Lint, what_is_no_address_is_an_error_at_the_odd_character)
{
    EXPECT_EQ(told("239.1.1.1/24\n"), "1:10: error: \"239.1.1.1/24\" is no IPv4 address [not-an-address]\n");
    EXPECT_EQ(told("group\n"), "1:1: error: \"group\" is no IPv4 address [not-an-address]\n");
    EXPECT_EQ(told(" 239.1.1.1\n"), "1:1: error: \" 239.1.1.1\" begins with a blank [not-an-address]\n");
    EXPECT_EQ(told("239.1.1.256\n"), "1:1: error: \"239.1.1.256\" is no IPv4 address [not-an-address]\n");
}

TEST_F(Lint, what_is_not_multicast_is_an_error)
{
    EXPECT_EQ(told("10.0.0.1\n"),
              "1:1: error: \"10.0.0.1\" is 10.0.0.1, no multicast address [not-multicast]\n");
    EXPECT_EQ(lint("240.0.0.0\n").exit_code, 1);
    EXPECT_EQ(lint("223.255.255.255\n").exit_code, 1);
}

TEST_F(Lint, the_same_address_in_any_notation_is_a_duplicate)
{
    EXPECT_EQ(told("239.1.1.1\n0xef010101\n"),
              "2:1: error: 239.1.1.1 stands in line 1 already [duplicate]\n");
    EXPECT_EQ(lint("239.1.1.1\n239.1.257\n").exit_code, 1);
}

TEST_F(Lint, a_line_above_62_characters_is_an_error)
{
    EXPECT_EQ(
        told("239.1.1.1 " + std::string(60, 'x') + "\n"),
        "1:63: error: a line of 70 characters: behind the first 62 the agent reads another entry [long-line]\n");
}

TEST_F(Lint, a_line_of_62_characters_needs_a_file_that_ends_there)
{
    const std::string line = "239.1.1.1" + std::string(53, ' ');
    EXPECT_EQ(lint(line).exit_code, 0);
    EXPECT_EQ(lint(line + "\n").exit_code, 1); // the line's end is another entry to the agent
    EXPECT_EQ(lint(line.substr(1 - 1, 61) + "\n").exit_code, 0);
}

TEST_F(Lint, a_long_line_of_good_pieces_is_a_warning)
{
    const std::string line = "239.1.1.1" + std::string(53, ' ') + "239.1.1.2\n";
    EXPECT_EQ(told(line),
              "1:63: warning: a line of 71 characters, which the agent reads as 2 entries [long-line]\n");
    EXPECT_EQ(lint(line, {"--fix"}).out, "239.1.1.1\n239.1.1.2\n");
}

TEST_F(Lint, an_entry_that_never_matches_is_a_warning)
{
    const ChildResult result = lint("239.1.1.1\n239.1.1.200\n");
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_NE(result.out.find(
                  ":2:1: warning: 239.1.1.200 has no effect: its last octet is 128 or more [unmatched]"),
              std::string::npos)
        << result.out;
    EXPECT_EQ(lint("239.1.1.200\n", {"--strict"}).exit_code, 1);
}

TEST_F(Lint, odd_notations_are_shown_as_what_they_mean)
{
    EXPECT_EQ(told("0357.1.1.010\n"), "1:1: warning: \"0357.1.1.010\" means 239.1.1.8 [odd-notation]\n");
    EXPECT_EQ(told("0xef.1.1.1\n"), "1:1: warning: \"0xef.1.1.1\" means 239.1.1.1 [odd-notation]\n");
    EXPECT_EQ(told("239.1.1\n"), "1:1: warning: \"239.1.1\" means 239.1.0.1 [odd-notation]\n");
    EXPECT_EQ(told("4009820417\n"), "1:1: warning: \"4009820417\" means 239.1.1.1 [odd-notation]\n");
}

TEST_F(Lint, text_behind_a_blank_is_ignored_and_told)
{
    EXPECT_EQ(told("239.1.1.1  # news\n"),
              "1:12: warning: the agent does not read \"# news\" [ignored-text]\n");
    EXPECT_EQ(lint("239.1.1.1  \n").out, dir_.path("list") + ": ok: 1 entries, all good [good-list]\n");
}

TEST_F(Lint, crlf_is_told_once)
{
    EXPECT_EQ(told("239.1.1.1\n239.1.1.2\r\n239.1.1.3\r\n"), "2:1: warning: 2 lines end in CR LF [crlf]\n");
}

TEST_F(Lint, what_the_range_holds_anyway_is_told)
{
    EXPECT_EQ(told("239.1.1.1\n239.2.1.1\n", {"-g", "239.2.0.0", "-G239.2.255.255"}),
              "2:1: warning: 239.2.1.1 is let through by the range anyway [in-range]\n");
    EXPECT_EQ(told("239.1.1.1\n", {"-g", "224.0.1.0"}),
              "1:1: warning: 239.1.1.1 is let through by the range anyway [in-range]\n");
}

TEST_F(Lint, a_zero_byte_ends_what_the_agent_reads_of_a_line)
{
    EXPECT_EQ(lint(std::string("239.1.1.1\0junk\n239.1.1.2\n", 25)).exit_code, 0);
    EXPECT_EQ(lint(std::string("\0\n", 2)).exit_code, 1);
}

TEST_F(Lint, fix_prints_the_list_that_the_agent_takes)
{
    const ChildResult result =
        lint("# head\r\n239.9.1.1 # a\n\n0xef010101\n239.1.1.1\n 239.3.1.1\n10.0.0.1\n239.2.1.1\t" +
                 std::string(80, 'x') + "\n",
             {"--fix"});
    EXPECT_EQ(result.out, "239.9.1.1\n239.1.1.1\n239.3.1.1\n239.2.1.1\n");
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.err.find("[comment]"), std::string::npos);
    EXPECT_EQ(told(result.out), " ok: 4 entries, all good [good-list]\n");
}

TEST_F(Lint, reads_the_standard_input)
{
    const ChildResult result =
        run_program({"sh", "-c", "printf '239.1.1.1\\n' | " + zentctl_path() + " lint --json -"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out,
              R"({"command":"lint","exit":0,"findings":[{"level":"ok","code":"good-list","text":)"
              R"("1 entries, all good"}],"data":{"file":"-","accepted":true,"entries":1,"matched":1}})"
              "\n");
}

TEST_F(Lint, what_cannot_be_read_is_no_verdict)
{
    const ChildResult result = run_zentctl({"lint", "--json", dir_.path("none")});
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_TRUE(has_finding(result.out, "error", "unreadable")) << result.out;
    EXPECT_EQ(run_zentctl({"lint", dir_.path()}).exit_code, 2);
}

TEST_F(Lint, a_wrong_bound_is_a_usage_error)
{
    EXPECT_EQ(lint("", {"-g", "10.0.0.1"}).exit_code, 2);
    EXPECT_EQ(lint("", {"-g", "here"}).exit_code, 2);
    EXPECT_EQ(lint("", {"-g", "239.2.0.0", "-G", "239.1.0.0"}).exit_code, 2);
    EXPECT_EQ(lint("", {"--nothing"}).exit_code, 2);
    EXPECT_TRUE(has_finding(run_zentctl({"lint", "--json"}).out, "error", "usage"));
}

namespace {

using zentctl::ListReading;

// Lists that are often good and often wrong in some way.
class ListMaker {
  public:
    explicit ListMaker(unsigned seed) : random_(seed) {}

    std::string list()
    {
        // One wrong line spoils a list: half of the lists have none of the odd lines.
        const bool only_good = number(2) == 0;
        std::string text;
        for (unsigned lines = number(12); lines > 0; --lines) {
            text += only_good || number(3) != 0 ? good_line() : odd_line();
            text += number(10) == 0 ? "\r\n" : lines == 1 && number(3) == 0 ? "" : "\n";
        }
        return text;
    }

    uint32_t group()
    {
        return 0xe0000000U | (number(3) == 0 ? random_() & 0x0fffffff : 0x0f010100 + number(256));
    }

    unsigned number(unsigned below) { return random_() % below; }

  private:
    std::string good_line()
    {
        const uint32_t address = group();
        char text[32];
        switch (number(8)) {
        case 0: snprintf(text, sizeof text, "0x%x", address); return text;
        case 1: snprintf(text, sizeof text, "0%o.%u", address >> 24, address & 0xffffff); return text;
        case 2: snprintf(text, sizeof text, "%u", address); return text;
        case 3: return zentctl::address_text(address) + " text " + std::string(number(20), 'x');
        default: return zentctl::address_text(address);
        }
    }

    std::string odd_line()
    {
        switch (number(9)) {
        case 0: return "";
        case 1: return "# comment";
        case 2: return " " + good_line();
        case 3: return zentctl::address_text(static_cast<uint32_t>(random_()));
        case 4: return good_line() + std::string(40 + number(120), " x"[number(2)]);
        case 5: return good_line() + std::string(53, ' ') + good_line();
        case 6: return good_line() + std::string(1, '\0') + "x";
        case 7: return good_line() + "/24";
        default: return noise();
        }
    }

    std::string noise()
    {
        static const std::string alphabet("0123456789.xX \t#239\r\0a", 22);
        std::string text;
        for (unsigned count = number(90); count > 0; --count) {
            text += alphabet[number(static_cast<unsigned>(alphabet.size()))];
        }
        return text;
    }

    std::mt19937 random_;
};

bool agent_lets_through(uint32_t group)
{
    return in_scope(static_cast<int32_t>(htonl(group)));
}

// Holds what zentctl says of a list against the agent's loader and its scope.
void expect_agreement(ListMaker& maker, const std::string& text)
{
    const ListReading list = zentctl::judge_list(text);
    std::set<uint32_t> matched;
    for (const zentctl::ListEntry& entry : list.entries) {
        if (entry.matches) {
            matched.insert(entry.group);
        }
    }
    zentctl::set_agent_range({});
    const std::string loaded = list.refused ? zentctl::fixed_text(list) : text;
    ASSERT_EQ(!list.refused, zentctl::load_into_agent(text)) << text;
    ASSERT_TRUE(zentctl::load_into_agent(loaded)) << text;
    for (int i = 0; i < 1000; ++i) {
        const uint32_t group = maker.group();
        ASSERT_EQ(matched.contains(group), agent_lets_through(group)) << zentctl::address_text(group) << "\n"
                                                                      << text;
    }
}

} // namespace

namespace {

void expect_agreement_on(int lists)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    log_set_modules(&g_log, MIN_level);
    ListMaker maker(seed);
    size_t refused = 0;
    for (int i = 0; i < lists && !testing::Test::HasFatalFailure(); ++i) {
        const std::string text = maker.list();
        refused += zentctl::read_list(text).refused ? 1 : 0;
        expect_agreement(maker, text);
    }
    const auto count = static_cast<size_t>(lists);
    EXPECT_GT(refused, count / 5); // both kinds were there
    EXPECT_LT(refused, count * 4 / 5);
}

} // namespace

TEST(LintAndAgent, agree_on_ten_thousand_random_lists)
{
    expect_agreement_on(10000);
}

TEST(LintAndAgent, agree_on_ten_thousand_random_lists_with_exact)
{
    g_cfg.features.exact = true;
    expect_agreement_on(10000);
}

TEST_F(Lint, with_exact_every_entry_has_an_effect)
{
    dir_.write("list", "239.1.1.1\n239.1.1.200\n");
    const ChildResult result =
        run_program({"env", "ZENT_FEATURES=exact", zentctl_path(), "lint", "--strict", dir_.path("list")});
    EXPECT_EQ(result.exit_code, 0) << result.out;
    EXPECT_EQ(
        run_program({"env", "ZENT_FEATURES=exactly", zentctl_path(), "lint", dir_.path("list")}).exit_code,
        2);
}

TEST(LintAndAgent, a_loader_without_memory_is_no_verdict)
{
    log_set_modules(&g_log, MIN_level);
    const std::string no_memory = strerror(ENOMEM);
    for (const std::string& text : {std::string("239.1.1.1\n239.1.1.2\n"), std::string("239.1.1.1\n#\n")}) {
        size_t refused = 0;
        for (bool failed = true; failed && refused < 20; refused += failed ? 1 : 0) {
            const FailAllocation fail(refused + 1);
            std::string told;
            try {
                zentctl::judge_list(text);
            } catch (const zentctl::CannotLook& error) {
                told = error.what();
            }
            failed = fail.happened();
            EXPECT_EQ(told.find(no_memory) != std::string::npos, failed) << refused << ": " << told;
        }
        EXPECT_GT(refused, 3U) << text; // the table, its slots, the entries
        EXPECT_LT(refused, 20U) << text;
    }
}

TEST_F(Lint, wherever_memory_runs_out_for_good_it_says_so_and_ends_with_2)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer has a new of its own, which does not fail";
#endif
    if (__gcov_dump != nullptr) {
        GTEST_SKIP() << "a build that counts coverage dies of memory that its counters do not get";
    }
    dir_.write("list", "239.1.1.1\n239.1.1.2\n");
    int failed = 0;
    ChildResult result;
    for (; result.exit_code != 0 && failed < 1000; ++failed) {
        result = run_program(
            with_fault({"alloc", failed + 1, ENOMEM, true}, {zentctl_path(), "lint", dir_.path("list")}));
        if (result.exit_code != 0) {
            EXPECT_EQ(result.exit_code, 2) << failed << ": " << result.err;
            EXPECT_EQ(result.err.find("zentctl"), 0U) << failed << ": " << result.err;
        }
    }
    EXPECT_GT(failed, 10);
    EXPECT_LT(failed, 1000);
}
