// zentctl groups: the joined groups of a zentmon as a table.
#include <algorithm>
#include <cstdio>

#include "command.h"
#include "feed.h"

namespace zentctl {

namespace {

// What a terminal must not get from a server: control characters.
std::string plain(std::string text)
{
    std::ranges::replace_if(
        text, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
    return text;
}

void print(const GroupTable& table)
{
    size_t width = 5;
    for (const GroupRow& row : table.rows) {
        width = std::max(width, row.agent.size());
    }
    const auto column = static_cast<int>(std::min<size_t>(width, 64));
    printf("%-15s  %-*s  %-19s  %6s  %6s  %s\n", "GROUP", column, "AGENT", "SINCE", "JOINS", "LEAVES",
           "STATE");
    for (const GroupRow& row : table.rows) {
        printf("%-15s  %-*s  %-19s  %6ld  %6ld  %s\n", plain(row.group).c_str(), column,
               plain(row.agent).c_str(), row.since > 0 ? time_text(row.since).c_str() : "-", row.joins,
               row.leaves, plain(row.state).c_str());
    }
}

std::vector<Data> as_data(const GroupTable& table)
{
    std::vector<Data> rows;
    for (const GroupRow& row : table.rows) {
        Data& data = rows.emplace_back();
        data.set("group", row.group);
        data.set("agent", row.agent);
        data.set("address", row.address);
        data.set("listener", row.listener);
        data.set("since", row.since);
        data.set("last", row.last);
        data.set("joins", row.joins);
        data.set("leaves", row.leaves);
        data.set("state", row.state);
    }
    return rows;
}

} // namespace

void run_groups(const Arguments& arguments, Report& report)
{
    const std::string url = arguments.operands.empty() ? kDefaultUrl : arguments.operands[0];
    std::string target = "/groups.json";
    for (const char* name : {"filter", "agent"}) {
        if (arguments.has(std::string("--") + name)) {
            target += std::string(target.ends_with("json") ? "?" : "&") + name + "=" +
                      percent_encoded(arguments.value(std::string("--") + name));
        }
    }
    HttpGet get(url, target);
    std::string body;
    while (get.read(body)) {
    }
    const GroupTable table = parse_groups(body);
    report.data.set("url", url);
    report.data.set("now", table.now);
    report.data.set("groups", as_data(table));
    report.ok("groups", std::to_string(table.rows.size()) + " groups");
    if (!report.wants_json) {
        print(table);
    }
}

} // namespace zentctl
