// The text forms of an event.
#include "event.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace zentmon;

namespace {

std::string group_text(uint32_t group)
{
    std::string out;
    append_group(out, group);
    return out;
}

std::string time_text(int64_t ms)
{
    std::string out;
    append_time(out, ms);
    return out;
}

} // namespace

TEST(MonEvent, a_group_is_dotted_decimal)
{
    EXPECT_EQ(group_text(0xe0000001), "224.0.0.1");
    EXPECT_EQ(group_text(0xefffffff), "239.255.255.255");
}

TEST(MonEvent, a_time_has_three_decimals)
{
    EXPECT_EQ(time_text(1'700'000'000'007), "1700000000.007");
    EXPECT_EQ(time_text(1'700'000'000'120), "1700000000.120");
    EXPECT_EQ(time_text(999), "0.999");
}

TEST(MonEvent, an_identifier_is_boot_and_sequence)
{
    EXPECT_EQ(boot_id().size(), 16u);
    EXPECT_EQ(boot_id().find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(event_id(42), boot_id() + "-42");
}

TEST(MonEvent, the_object_is_json_with_its_seven_fields)
{
    Event event{7, 1'700'000'000'500, EventKind::expire, 0xef010203,
                std::make_shared<AgentName>(AgentName{"hall-1", "10.0.0.1", "lab"})};
    std::string text;
    append_json(text, event);
    const auto json = nlohmann::json::parse(text);
    EXPECT_EQ(json.size(), 7u);
    EXPECT_EQ(json["id"], event_id(7));
    EXPECT_EQ(json["time"], 1'700'000'000.5);
    EXPECT_EQ(json["event"], "expire");
    EXPECT_EQ(json["agent"], "hall-1");
    EXPECT_EQ(json["address"], "10.0.0.1");
    EXPECT_EQ(json["listener"], "lab");
    EXPECT_EQ(json["group"], "239.1.2.3");
}

TEST(MonEvent, a_text_with_quotes_and_control_characters_stays_json)
{
    std::string text;
    append_quoted(text, "a\"b\\c\n\x01");
    EXPECT_EQ(nlohmann::json::parse(text), "a\"b\\c\n\x01");
}
