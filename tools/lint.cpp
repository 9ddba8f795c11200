// zentctl lint: a list of groups held against the agent's own loader.
#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>

#include "command.h"
#include "list_file.h"
#include "zent.h"

namespace zentctl {

namespace {

void add_unmatched(Report& report, const ListReading& list)
{
    for (const ListEntry& entry : list.entries) {
        if (entry.matches) {
            continue;
        }
        const char* reason = (entry.group & 0x80) != 0 ? "its last octet is 128 or more"
                                                       : "another entry hides it in the agent's table";
        Finding& finding = report.warn("unmatched", address_text(entry.group) + " has no effect: " + reason,
                                       "ZENT_FEATURES=exact, or the range -g -G");
        finding.line = entry.line;
        finding.column = 1;
    }
}

void add_in_range(Report& report, const ListReading& list, const Range& range)
{
    if (!range.is_set()) {
        return;
    }
    set_agent_range(range);
    for (const ListEntry& entry : list.entries) {
        if (in_scope(static_cast<int32_t>(htonl(entry.group)))) {
            Finding& finding =
                report.warn("in-range", address_text(entry.group) + " is let through by the range anyway");
            finding.line = entry.line;
            finding.column = 1;
        }
    }
}

void add_verdict(Report& report, const ListReading& list, bool strict)
{
    if (list.entries.empty() && !list.refused) {
        report.warn("empty-list", "no entry: the list lets nothing through",
                    "leave -F out, or fill the list");
    }
    if (report.findings.empty()) {
        report.ok("good-list", std::to_string(list.entries.size()) + " entries, all good");
    }
    const Level worst = report.worst();
    report.exit = worst == Level::error || (strict && worst == Level::warning) ? kFindings : kGood;
}

void print(const Report& report, const std::string& file, const std::string* fixed)
{
    if (report.wants_json) {
        return;
    }
    for (const Finding& finding : report.findings) {
        fprintf(fixed != nullptr ? stderr : stdout, "%s\n", file_line(file, finding).c_str());
    }
    if (fixed != nullptr) {
        fputs(fixed->c_str(), stdout);
    }
}

void sort_by_line(std::vector<Finding>& findings)
{
    std::ranges::stable_sort(findings, [](const Finding& a, const Finding& b) {
        return a.line != b.line ? a.line < b.line : a.column < b.column;
    });
}

} // namespace

void run_lint(const Arguments& arguments, Report& report)
{
    const std::string& file = arguments.operands[0];
    const Range range = range_of(arguments);
    use_agent_features();
    const std::string text = read_whole_file(file);
    const ListReading list = judge_list(text);
    if (list.taken == list.refused) {
        throw CannotLook("internal", file + ": zentctl and the agent's loader disagree on this list");
    }
    report.findings = list.findings;
    add_unmatched(report, list);
    add_in_range(report, list, range);
    sort_by_line(report.findings);
    add_verdict(report, list, arguments.has("--strict"));
    const std::string fixed = fixed_text(list);
    report.data.set("file", file);
    report.data.set("accepted", list.taken);
    report.data.set("entries", list.entries.size());
    report.data.set(
        "matched", std::ranges::count_if(list.entries, [](const ListEntry& entry) { return entry.matches; }));
    if (arguments.has("--fix")) {
        report.data.set("fixed", fixed);
    }
    print(report, file, arguments.has("--fix") ? &fixed : nullptr);
}

} // namespace zentctl
