// zentctl expand, beside a plain model, and the parts that all commands share: help, codes, the JSON form.
#include <cerrno>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "command.h"
#include "expand.h"
#include "fault.h"
#include "group.h"
#include "tempdir.h"
#include "zentctl_run.h"

using namespace support;

TEST(Expand, a_prefix_a_range_and_a_group_become_one_sorted_list)
{
    const ChildResult result =
        run_zentctl({"expand", "239.1.2.0/30", "239.1.1.9-239.1.1.10", "239.1.2.1", "224.0.1.1"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "224.0.1.1\n239.1.1.9\n239.1.1.10\n239.1.2.0\n239.1.2.1\n239.1.2.2\n239.1.2.3\n");
    EXPECT_EQ(result.err, "");
}

TEST(Expand, one_range_is_told_as_the_options_of_the_agent)
{
    const ChildResult result = run_zentctl({"expand", "239.1.1.0/30", "239.1.1.4"});
    EXPECT_EQ(result.err,
              "zentctl expand: ok      one-range: the same as a range: -g 239.1.1.0 -G 239.1.1.4\n");
    EXPECT_EQ(result.exit_code, 0);
}

TEST(Expand, a_list_may_have_comments_empty_lines_and_any_of_the_forms)
{
    const TempDir dir;
    dir.write("list", "# head\r\n\n239.1.1.1 # one\n 239.1.2.0/31\n239.1.3.1 - 239.1.3.2\n");
    EXPECT_EQ(run_zentctl({"expand", dir.path("list")}).out,
              "239.1.1.1\n239.1.2.0\n239.1.2.1\n239.1.3.1\n239.1.3.2\n");
}

TEST(Expand, what_is_no_group_is_an_error_and_nothing_is_printed)
{
    for (const char* text :
         {"10.0.0.0/24", "239.0.0.0/3", "240.0.0.1", "239.1.1.2-239.1.1.1", "239.255.255.0-240.0.0.1",
          "nosuchfile", "239.1.1.1/33", "239.1.1.1/", "239.1.1", "0xef010101", ""}) {
        const ChildResult result = run_zentctl({"expand", "239.1.1.1", text});
        EXPECT_EQ(result.exit_code, 1) << text;
        EXPECT_EQ(result.out, "") << text;
        EXPECT_NE(result.err.find("not-a-group"), std::string::npos) << text;
    }
    const TempDir dir;
    dir.write("list", "239.1.1.1\n  10.0.0.1\n");
    EXPECT_NE(
        run_zentctl({"expand", dir.path("list")}).err.find("10.0.0.1 is not within 224.0.0.0/4, line 2"),
        std::string::npos);
}

TEST(Expand, at_most_a_million_groups_or_fewer_by_option)
{
    EXPECT_EQ(run_zentctl({"expand", "239.0.0.0/12"}).exit_code, 1); // 1,048,576
    EXPECT_EQ(run_zentctl({"expand", "224.0.0.0/4"}).exit_code, 1);
    EXPECT_EQ(run_zentctl({"expand", "--max", "4", "239.1.1.0/30"}).exit_code, 0);
    EXPECT_EQ(run_zentctl({"expand", "--max", "3", "239.1.1.0/30"}).exit_code, 1);
    EXPECT_EQ(run_zentctl({"expand", "--max=1000001", "239.1.1.0/30"}).exit_code, 2);
    EXPECT_EQ(run_zentctl({"expand", "--max", "0", "239.1.1.0/30"}).exit_code, 2);
}

TEST(Expand, a_million_groups_come_out_whole)
{
    const ChildResult result = run_zentctl({"expand", "239.0.0.0-239.15.66.63"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1'000'000);
    EXPECT_TRUE(result.out.ends_with("\n239.15.66.63\n"));
}

TEST(Expand, bits_behind_a_prefix_are_dropped_with_a_warning)
{
    const ChildResult result = run_zentctl({"expand", "239.1.1.5/31"});
    EXPECT_EQ(result.out, "239.1.1.4\n239.1.1.5\n");
    EXPECT_NE(result.err.find("host-bits"), std::string::npos);
    EXPECT_EQ(result.exit_code, 0);
}

TEST(Expand, last_octets_that_need_the_feature_exact_are_counted)
{
    EXPECT_NE(run_zentctl({"expand", "239.1.1.0/24"}).err.find("unmatched: 128 groups"), std::string::npos);
}

TEST(Expand, json_holds_groups_and_range)
{
    EXPECT_EQ(run_zentctl({"expand", "--json", "239.1.1.0/31"}).out,
              R"({"command":"expand","exit":0,"findings":[{"level":"ok","code":"one-range","text":)"
              R"("the same as a range: -g 239.1.1.0 -G 239.1.1.1"}],"data":{"count":2,)"
              R"("groups":["239.1.1.0","239.1.1.1"],"least":"239.1.1.0","most":"239.1.1.1"}})"
              "\n");
}

namespace {

// One random operand, and what it stands for.
std::string random_operand(std::mt19937& random, std::set<uint32_t>& model)
{
    const uint32_t base = 0xef010000 + random() % 2000;
    if (random() % 2 == 0) {
        const unsigned length = 24 + random() % 9;
        const uint32_t size = 1U << (32 - length);
        for (uint32_t i = 0; i < size; ++i) {
            model.insert(base / size * size + i);
        }
        return zentctl::address_text(base) + "/" + std::to_string(length);
    }
    const uint32_t last = base + random() % 300;
    for (uint32_t group = base; group <= last; ++group) {
        model.insert(group);
    }
    return zentctl::address_text(base) + "-" + zentctl::address_text(last);
}

} // namespace

TEST(Expand, random_operands_give_what_a_plain_set_gives)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 40; ++round) {
        std::set<uint32_t> model;
        std::vector<std::string> args{"expand"};
        for (unsigned count = 1 + random() % 6; count > 0; --count) {
            args.push_back(random_operand(random, model));
        }
        std::string expected;
        for (const uint32_t group : model) {
            expected += zentctl::address_text(group) + "\n";
        }
        const ChildResult result = run_zentctl(args);
        ASSERT_EQ(result.out, expected) << testing::PrintToString(args);
        const bool is_range = *model.rbegin() - *model.begin() + 1 == model.size();
        ASSERT_EQ(result.err.find("one-range") != std::string::npos, is_range)
            << testing::PrintToString(args);
    }
}

TEST(Zentctl, helps_with_each_command)
{
    const std::string all = run_zentctl({"help"}).out;
    for (const zentctl::Command& command : zentctl::all_commands()) {
        EXPECT_NE(all.find(std::string("  ") + command.name + " "), std::string::npos) << command.name;
        const ChildResult result = run_zentctl({"help", command.name});
        EXPECT_EQ(result.exit_code, 0);
        EXPECT_NE(result.out.find(std::string("Usage: zentctl ") + command.name), std::string::npos);
        EXPECT_EQ(run_zentctl({command.name, "--help"}).out, result.out);
    }
}

TEST(Zentctl, a_command_that_is_none_is_2)
{
    EXPECT_EQ(run_zentctl({"doctor"}).exit_code, 2);
    EXPECT_EQ(run_zentctl({}).exit_code, 2);
    EXPECT_EQ(run_zentctl({"help", "doctor"}).exit_code, 2);
}

TEST(Zentctl, its_codes_are_words_each_told_once)
{
    std::set<std::string> words;
    for (const zentctl::Code& code : zentctl::all_codes()) {
        EXPECT_TRUE(words.insert(code.word).second) << code.word;
        EXPECT_EQ(std::string(code.word).find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-"),
                  std::string::npos);
        EXPECT_NE(std::string(code.meaning), "");
    }
    EXPECT_EQ(run_zentctl({"help", "codes"}).exit_code, 0);
}

TEST(Zentctl, a_full_disk_is_no_success)
{
    EXPECT_EQ(run_program({"sh", "-c", zentctl_path() + " expand 239.1.1.1 >/dev/full"}).exit_code, 2);
}

TEST(Zentctl, an_output_that_refused_once_is_no_success)
{
    const ChildResult result =
        run_program(with_fault({"print", 1, ENOSPC}, {zentctl_path(), "expand", "239.1.1.1"}));
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_NE(result.err.find("zentctl: stdout: a write before failed\n"), std::string::npos) << result.err;
}
