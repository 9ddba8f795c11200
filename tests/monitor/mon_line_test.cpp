// The exact form of a line.
#include "line.h"

#include <gtest/gtest.h>

using namespace zentmon;

namespace {

std::string verdict(std::string_view text)
{
    BadLine why = BadLine::truncated;
    const std::optional<Line> line = parse_line(text, &why);
    if (!line) {
        return bad_line_name(why);
    }
    std::string out = line->kind == LineKind::join ? "join " : "leave ";
    append_group(out, line->group);
    return out;
}

std::vector<std::string> lines(std::string_view data, bool cut = false)
{
    std::vector<std::string> out;
    each_line(
        data, cut, [&](Line line) { out.push_back(line.kind == LineKind::join ? "join" : "leave"); },
        [&](BadLine why, std::string_view) { out.push_back(bad_line_name(why)); });
    return out;
}

} // namespace

TEST(MonLine, the_two_lines)
{
    EXPECT_EQ(verdict("JOIN UDP://239.1.2.3"), "join 239.1.2.3");
    EXPECT_EQ(verdict("LEAVE UDP://224.0.0.0"), "leave 224.0.0.0");
    EXPECT_EQ(verdict("JOIN UDP://239.255.255.255"), "join 239.255.255.255");
}

TEST(MonLine, everything_else_is_bad_for_its_reason)
{
    EXPECT_EQ(verdict(""), "empty");
    EXPECT_EQ(verdict("join UDP://239.1.2.3"), "word");
    EXPECT_EQ(verdict(" JOIN UDP://239.1.2.3"), "word");
    EXPECT_EQ(verdict("JOINED UDP://239.1.2.3"), "word");
    EXPECT_EQ(verdict("JOIN"), "word");
    EXPECT_EQ(verdict("JOIN\tUDP://239.1.2.3"), "word");
    EXPECT_EQ(verdict("JOIN  UDP://239.1.2.3"), "scheme");
    EXPECT_EQ(verdict("JOIN udp://239.1.2.3"), "scheme");
    EXPECT_EQ(verdict("JOIN "), "scheme");
    EXPECT_EQ(verdict("JOIN UDP://"), "address");
    EXPECT_EQ(verdict("JOIN UDP://239.1.2"), "address");
    EXPECT_EQ(verdict("JOIN UDP://239.01.2.3"), "address");
    EXPECT_EQ(verdict("JOIN UDP://239.1.2.00"), "address");
    EXPECT_EQ(verdict("JOIN UDP://239.1.2.256"), "address");
    EXPECT_EQ(verdict("JOIN UDP://239.1.2.1234"), "address");
    EXPECT_EQ(verdict("JOIN UDP://0239.1.2.1"), "address");
    EXPECT_EQ(verdict("JOIN UDP://239.1..1"), "address");
    EXPECT_EQ(verdict("JOIN UDP://-39.1.2.1"), "address");
    EXPECT_EQ(verdict("JOIN UDP://223.255.255.255"), "group");
    EXPECT_EQ(verdict("JOIN UDP://240.0.0.0"), "group");
    EXPECT_EQ(verdict("JOIN UDP://10.0.0.1"), "group");
    EXPECT_EQ(verdict("JOIN UDP://239.1.2.3 "), "trailing");
    EXPECT_EQ(verdict("JOIN UDP://239.1.2.3\r"), "trailing");
    EXPECT_EQ(verdict("JOIN UDP://239.1.2.3:5000"), "trailing");
    EXPECT_EQ(verdict(std::string_view("JOIN UDP://239.1.2.3\0", 21)), "trailing");
}

TEST(MonLine, a_datagram_holds_lines_with_and_without_a_last_line_feed)
{
    EXPECT_EQ(lines("JOIN UDP://239.1.2.3"), (std::vector<std::string>{"join"}));
    EXPECT_EQ(lines("JOIN UDP://239.1.2.3\n"), (std::vector<std::string>{"join"}));
    EXPECT_EQ(lines("JOIN UDP://239.1.2.3\nLEAVE UDP://239.1.2.3"),
              (std::vector<std::string>{"join", "leave"}));
    EXPECT_EQ(lines("\n\nJOIN UDP://239.1.2.3\nx"),
              (std::vector<std::string>{"empty", "empty", "join", "word"}));
    EXPECT_EQ(lines(""), (std::vector<std::string>{}));
}

TEST(MonLine, of_a_datagram_that_was_cut_the_whole_lines_count)
{
    EXPECT_EQ(lines("JOIN UDP://239.1.2.3\nJOIN UDP://239.1.2.3", true),
              (std::vector<std::string>{"join", "truncated"}));
    EXPECT_EQ(lines("JOIN UDP://239.1.2.3\n", true), (std::vector<std::string>{"truncated", "join"}));
    EXPECT_EQ(lines("JOIN UDP://239.1.2.3", true), (std::vector<std::string>{"truncated"}));
}
