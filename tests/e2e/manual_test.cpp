// The agent's manual page: whole, and clean.
#include <cctype>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "agent_run.h"
#include "child.h"
#include "match.h"
#include "paths.h"

using namespace support;

namespace {

const std::string kPage = source_path("man/zent.8");

std::string page()
{
    return read_file(kPage);
}

// The option letters of the agent's own table, and those of them that take an argument.
struct Options {
    std::set<char> all;
    std::set<char> with_argument;
};

Options options_of_the_agent()
{
    Options options;
    const Match found = search(read_file(source_path("agent/config.cpp")), "getopt\\([^\n]*\"([^\"]+)\"\\)");
    EXPECT_FALSE(found.empty()) << "no option table";
    const std::string table = found.empty() ? "" : found[1];
    for (size_t i = 0; i < table.size(); ++i) {
        if (table[i] == ':') {
            options.with_argument.insert(table[i - 1]);
        } else {
            options.all.insert(table[i]);
        }
    }
    return options;
}

// The text of one section.
std::string section(const std::string& name)
{
    const std::string text = page();
    const size_t start = text.find(".Sh " + name + "\n");
    EXPECT_NE(start, std::string::npos) << "no section " << name;
    return text.substr(start, text.find("\n.Sh ", start + 1) - start);
}

std::string flag(char option)
{
    return std::string("Fl ") + (option == '?' ? "\\&" : "") + option;
}

} // namespace

TEST(Manual, is_clean_for_mandoc)
{
    if (run_program({"sh", "-c", "command -v mandoc"}).exit_code != 0) {
        GTEST_SKIP() << "skipped: mandoc is not installed";
    }
    const ChildResult result = run_program({"mandoc", "-T", "lint", "-W", "warning", kPage});
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.exit_code, 0);
}

TEST(Manual, has_an_entry_for_every_option_of_the_agent)
{
    const Options options = options_of_the_agent();
    EXPECT_EQ(options.all.size(), 11U);
    const std::string text = section("OPTIONS");
    for (const char option : options.all) {
        const std::string entry =
            "\n.It " + flag(option) + (options.with_argument.count(option) != 0 ? " Ar " : "\n");
        EXPECT_NE(text.find(entry), std::string::npos) << entry;
    }
}

TEST(Manual, has_no_option_that_the_agent_does_not_take)
{
    const Options options = options_of_the_agent();
    std::istringstream lines(section("OPTIONS"));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(".It Fl ")) {
            const char option = line[7] == '\\' ? line[9] : line[7];
            EXPECT_EQ(options.all.count(option), 1U) << line;
        }
    }
}

TEST(Manual, shows_every_option_in_its_synopsis)
{
    const std::string text = section("SYNOPSIS");
    for (const char option : options_of_the_agent().all) {
        EXPECT_NE(text.find(flag(option)), std::string::npos) << option;
    }
}

TEST(Manual, has_the_sections_that_an_operator_looks_for)
{
    for (const char* name :
         {"SYNOPSIS", "DESCRIPTION", "OPTIONS", "OUTPUT", "LATENCY", "EXIT STATUS", "SIGNALS", "ENVIRONMENT",
          "FILES", "LOG MESSAGES", "SECURITY", "EXAMPLES", "BUGS"}) {
        EXPECT_GT(section(name).size(), 60U) << name;
    }
}

TEST(Manual, tells_the_remedy_for_group_0)
{
    const std::string text = section("BUGS");
    EXPECT_NE(text.find("0.0.0.0"), std::string::npos);
    EXPECT_NE(text.find(".Fl g Cm 224.0.1.0"), std::string::npos);
}

// Each error of the agent's own sources is explained: the page has the words of the message between its
// fields.
TEST(Manual, explains_every_error_line_of_the_agent)
{
    std::string text = section("LOG MESSAGES");
    for (const char* name :
         {"capture", "packet", "expire", "features", "lifecycle", "reporter", "scope", "zent"}) {
        const std::string source = read_file(source_path("agent/") + name + ".cpp");
        for (const Match& call : search_all(source, "log_err\\(\"([^\"]*)\"")) {
            const std::string& message = call[1];
            std::string longest;
            for (const Match& part : search_all(message, "(^|%[0-9a-z]+|\\\\n)(([^%\\]|%%)+)")) {
                longest = part[2].size() > longest.size() ? part[2] : longest;
            }
            EXPECT_NE(text.find(longest), std::string::npos) << message << ": \"" << longest << '"';
        }
    }
}
