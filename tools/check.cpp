// zentctl check: the doctor. Each part has its file; here they are put in order.
#include "check.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace zentctl {

namespace {

// What the command line says counts before what an agent or a unit was found to have.
AgentSetup merged(const Arguments& arguments, AgentSetup found)
{
    const bool is_asked =
        arguments.has("--target") || arguments.has("--list") || arguments.has("-g") || arguments.has("-G");
    if (is_asked) {
        found.target = arguments.value("--target");
        found.list = arguments.value("--list");
        found.least = arguments.value("-g");
        found.most = arguments.value("-G");
        found.is_known = true;
        found.origin = "the command line";
    }
    return found;
}

void print(const Report& report)
{
    if (report.wants_json) {
        return;
    }
    for (const Finding& finding : report.findings) {
        printf("%s\n", verdict_line(finding).c_str());
    }
}

} // namespace

void run_check(const Arguments& arguments, Report& report)
{
    const std::string& name = arguments.operands[0];
    const long seconds = arguments.number("--watch", 10, 0, 3600);
    range_of(arguments); // a wrong bound is the caller's own mistake, told before anything is looked at
    report.data.set("interface", name);
    AgentSetup setup;
    if (const char* features = getenv("ZENT_FEATURES"); features != nullptr) {
        setup.features = features;
    }
    const bool can_listen = check_link(name, report);
    check_agent(name, &setup, report);
    setup = merged(arguments, std::move(setup));
    check_features(setup, report);
    check_scope(setup, report);
    if (!setup.target.empty() && setup.target != "-") {
        check_target(setup.target, report);
    }
    if (can_listen && seconds > 0) {
        check_segment(name, seconds, report);
    }
    std::ranges::stable_sort(report.findings, std::greater(), &Finding::level);
    report.exit = report.worst() == Level::ok ? kGood : kFindings;
    print(report);
}

} // namespace zentctl
