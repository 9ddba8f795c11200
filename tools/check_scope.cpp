// What range, list and features together let through.
#include "check.h"
#include "list_file.h"
#include "zent.h"

namespace zentctl {

namespace {

std::string range_in_words(const Range& range)
{
    if (range.least != 0 && range.most != 0) {
        return address_text(range.least) + " to " + address_text(range.most);
    }
    return range.least != 0 ? "everything from " + address_text(range.least) + " up"
                            : "everything up to " + address_text(range.most);
}

bool holds(const Range& range, uint32_t group)
{
    return range.is_set() && (range.least == 0 || group >= range.least) &&
           (range.most == 0 || group <= range.most);
}

std::string count_of(size_t count, const char* what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// The verdict on a list, beside the range.
std::string check_list(const std::string& path, const Range& range, Report& report)
{
    const ListReading list = judge_list(read_whole_file(path));
    size_t without_effect = 0;
    size_t added = 0;
    for (const ListEntry& entry : list.entries) {
        without_effect += entry.matches ? 0 : 1;
        added += holds(range, entry.group) ? 0 : 1;
    }
    if (!list.taken) {
        report.error("list-refused", "the agent refuses the list " + path + " and does not start",
                     "zentctl lint " + path);
    } else if (list.entries.empty()) {
        report.warn("empty-list", "the list " + path + " is empty: it lets nothing through",
                    "fill it, or leave -F out");
    } else if (range.is_set() && added == 0) {
        report.warn("list-adds-nothing",
                    "range and list are a union: " + range_in_words(range) + ", the list adds nothing",
                    "to let the list alone decide, leave -g and -G out");
    }
    if (without_effect > 0) {
        report.warn("unmatched", count_of(without_effect, "entry of the list has") + " no effect",
                    "ZENT_FEATURES=exact; zentctl lint " + path + " tells which");
    }
    return count_of(list.entries.size(), "group") + " of " + path;
}

void tell_scope(const Range& range, const std::string& list, Report& report)
{
    std::string text = "everything";
    if (range.is_set() || !list.empty()) {
        text = range.is_set() ? range_in_words(range) : "";
        text += range.is_set() && !list.empty() ? ", and " : "";
        text += list;
    }
    report.data.set("scope", text);
    report.ok("scope", "the agent reports " + text);
}

std::optional<Range> read_range(const AgentSetup& setup, Report& report)
{
    Arguments bounds;
    if (!setup.least.empty()) {
        bounds.set("-g", setup.least);
    }
    if (!setup.most.empty()) {
        bounds.set("-G", setup.most);
    }
    try {
        return range_of(bounds);
    } catch (const UsageError& error) {
        report.error("bad-range", setup.origin + ": " + error.what(),
                     "-g and -G take multicast addresses, -g the lower");
        return {};
    }
}

} // namespace

void check_features(const AgentSetup& setup, Report& report)
{
    char complaint[256] = "";
    if (parse_features(setup.features.c_str(), &g_cfg.features, complaint, sizeof complaint) != 0) {
        report.error("bad-features", std::string(complaint) + ": the agent does not start",
                     "ZENT_FEATURES=exact,immediate,igmpv3");
        return;
    }
    const std::string text = features_text(&g_cfg.features);
    report.data.set("features", text);
    report.ok("features", text.empty() ? "no feature is on" : "features: " + text);
}

void check_scope(const AgentSetup& setup, Report& report)
{
    const std::optional<Range> range = read_range(setup, report);
    if (!range) {
        set_agent_range({});
        return;
    }
    std::string list;
    try {
        list = setup.list.empty() ? "" : check_list(setup.list, *range, report);
    } catch (const CannotLook& error) {
        report.error("unreadable", error.what(), "the path of -F, and who may read it");
    }
    g_cfg.min_group = range->least; // beside the list that check_list has left there
    g_cfg.max_group = range->most;
    tell_scope(*range, list, report);
    if (setup.is_known && in_scope(0) && !g_cfg.features.exact) {
        report.warn("no-lower-bound", "a report of group 0.0.0.0 would end the agent", "-g 224.0.1.0");
    }
}

} // namespace zentctl
