// What is heard on the segment: queriers, reports by version, leaves, groups, tags.
#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <unistd.h>

#include "check.h"
#include "listen.h"
#include "loop.h"
#include "zent.h"

namespace zentctl {

namespace {

constexpr long kSureSeconds = 130;      // a querier's usual interval and its answers
constexpr int64_t kAnswerMs = 11'000;   // the usual response time and a second
constexpr size_t kMostGroups = 100'000; // forged reports must not eat the memory
constexpr size_t kMostQueriers = 1000;
constexpr uintptr_t kMark = 1;

struct HeardQuerier {
    int version = 0;
    unsigned seconds = 0; // its interval: said, or seen between two queries; 0: not known
    int64_t last_ms = 0;
};

struct Heard {
    std::map<uint32_t, HeardQuerier> queriers;
    std::set<uint32_t> groups; // reported
    uint64_t reports[4] = {};  // by version
    uint64_t leaves = 0;
    uint64_t tagged = 0;
    uint64_t messages = 0;
    int64_t first_query_ms = 0;
};

void note_query(const Message& message, int64_t now_ms, Heard& heard)
{
    if (message.group != 0) {
        return; // asks for one group: not every host answers
    }
    if (heard.first_query_ms == 0) {
        heard.first_query_ms = now_ms;
    }
    if (heard.queriers.size() >= kMostQueriers && !heard.queriers.contains(message.source)) {
        return;
    }
    HeardQuerier& querier = heard.queriers[message.source];
    if (message.seconds != 0) {
        querier.seconds = message.seconds;
    } else if (querier.last_ms != 0) {
        querier.seconds = static_cast<unsigned>((now_ms - querier.last_ms + 500) / 1000);
    }
    querier.version = message.version;
    querier.last_ms = now_ms;
}

void note(const Message& message, int64_t now_ms, Heard& heard)
{
    ++heard.messages;
    if (message.is_tagged) {
        ++heard.tagged;
        return;
    }
    if (message.kind == Kind::query) {
        note_query(message, now_ms, heard);
        return;
    }
    if (message.kind == Kind::report) {
        ++heard.reports[message.version];
    }
    for (const Saying& saying : message.sayings) {
        if (saying.kind == Kind::leave) {
            ++heard.leaves;
        } else if (heard.groups.size() < kMostGroups) {
            heard.groups.insert(saying.group);
        }
    }
}

Heard listen(const std::string& name, long seconds, bool shows_progress)
{
    Heard heard;
    Listener listener(name);
    Loop loop;
    const int64_t end_ms = Loop::now_ms() + seconds * 1000;
    loop.watch(listener.fd(), [&] {
        listener.drain([&](const Message& message) { note(message, Loop::now_ms(), heard); });
    });
    loop.after(Milliseconds(seconds * 1000), [&] { loop.stop(); });
    const std::function<void()> tick = [&] {
        fprintf(stderr, "\rlistening on %s: %lld s left, %llu messages ", name.c_str(),
                static_cast<long long>((end_ms - Loop::now_ms() + 999) / 1000),
                static_cast<unsigned long long>(heard.messages));
        loop.after(Milliseconds(1000), tick);
    };
    if (shows_progress) {
        tick();
    }
    loop.run();
    loop.forget(listener.fd());
    if (shows_progress) {
        fputs("\r\033[K", stderr);
    }
    return heard;
}

// Whether the kernel, as a host on this interface, still remembers a version 2 query (for about 260 s). Of
// version 3 its table says nothing: that is what it shows without any querier.
bool kernel_remembers_querier(const std::string& name)
{
    std::ifstream table("/proc/thread-self/net/igmp");
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string index, device, rest;
        if (words >> index >> device && device == name) {
            std::getline(words, rest);
            return rest.find("V2") != std::string::npos || rest.find("V1") != std::string::npos;
        }
    }
    return false;
}

std::string in_seconds(long seconds)
{
    return "in " + std::to_string(seconds) + " s";
}

void judge_queriers(const std::string& name, long seconds, const Heard& heard, Report& report)
{
    for (const auto& [address, querier] : heard.queriers) {
        report.ok("querier",
                  "querier " + address_text(address) + ", version " + std::to_string(querier.version) +
                      (querier.seconds != 0 ? ", every " + std::to_string(querier.seconds) + " s" : ""));
    }
    if (!heard.queriers.empty()) {
        return;
    }
    if (kernel_remembers_querier(name)) {
        report.ok("querier", "a querier was heard in the last 260 s, as this host's kernel remembers");
        return;
    }
    const bool is_sure = seconds >= kSureSeconds;
    report.warn("no-querier",
                "no query was heard " + in_seconds(seconds) +
                    ": without a querier expire is suspended, and a restarted "
                    "agent learns nothing of groups that are joined already",
                (is_sure ? "" : "zentctl check --watch 130 " + name + " to be sure, then ") +
                    std::string("a querier in the switch or router, or zentctl query ") + name);
}

void judge_reports(const std::string& name, long seconds, const Heard& heard, Report& report)
{
    const uint64_t total = heard.reports[1] + heard.reports[2] + heard.reports[3];
    if (total > 0) {
        report.ok("reports", std::to_string(heard.groups.size()) +
                                 " groups in reports of version 1: " + std::to_string(heard.reports[1]) +
                                 ", 2: " + std::to_string(heard.reports[2]) +
                                 ", 3: " + std::to_string(heard.reports[3]) +
                                 "; leaves: " + std::to_string(heard.leaves));
    } else if (heard.first_query_ms != 0) {
        const bool is_sure = seconds >= kSureSeconds || Loop::now_ms() - heard.first_query_ms >= kAnswerMs;
        report.add(
            is_sure ? Level::error : Level::warning, "no-report",
            "queries but no report " + in_seconds(seconds) +
                ": no host is a member, or a snooping switch keeps the reports from this port",
            "make the port a multicast router port of the switch, mirror a host's port, or run zentctl query " +
                name);
    }
    if (heard.reports[3] > 0 && !g_cfg.features.igmpv3) {
        report.error("version3-unseen",
                     std::to_string(heard.reports[3]) +
                         " reports of version 3, which the agent does not read",
                     "ZENT_FEATURES=igmpv3 for the agent, or zentctl query " + name +
                         " so that hosts speak version 2");
    }
    if (heard.tagged > 0) {
        report.warn("tagged-frames",
                    std::to_string(heard.tagged) + " messages with a VLAN tag, which the agent refuses",
                    "watch the VLAN's own interface: ip link add link " + name + " name " + name +
                        ".ID type vlan id ID");
    }
}

// How many groups the agent's plain table would not find again if all of them were joined.
size_t count_hidden(const std::set<uint32_t>& groups)
{
    nkht_t table = 0;
    if (nkht_create(&table, MAX_ZENT_CHANNELS, tw_shift) != 0) {
        return 0;
    }
    size_t hidden = 0;
    for (const uint32_t group : groups) {
        void* value = reinterpret_cast<void*>(kMark);
        if (group != 0) {
            nkht_add(table, static_cast<int32_t>(htonl(group)), &value);
        }
    }
    for (const uint32_t group : groups) {
        void* value = nullptr;
        hidden += group != 0 && nkht_get(table, static_cast<int32_t>(htonl(group)), &value) != 0 ? 1 : 0;
    }
    nkht_destroy(table, nullptr);
    return hidden;
}

void judge_groups(const Heard& heard, Report& report)
{
    std::set<uint32_t> reported;
    for (const uint32_t group : heard.groups) {
        if (in_scope(static_cast<int32_t>(htonl(group)))) {
            reported.insert(group);
        }
    }
    if (reported.empty() && !heard.groups.empty()) {
        report.error("out-of-scope",
                     "none of the " + std::to_string(heard.groups.size()) + " groups heard is in scope, " +
                         address_text(*heard.groups.rbegin()) + " for instance",
                     "widen -g and -G, or add the groups to the list");
    }
    if (reported.contains(0) && !g_cfg.features.exact && !g_cfg.features.igmpv3) {
        report.error("group-zero", "a report of group 0.0.0.0 was heard, which ends the agent",
                     "-g 224.0.1.0");
    }
    const size_t hidden = g_cfg.features.exact ? 0 : count_hidden(reported);
    if (hidden > 0) {
        report.warn("hidden-groups",
                    std::to_string(hidden) + " of " + std::to_string(reported.size()) +
                        " groups hide behind others in the plain tables",
                    "ZENT_FEATURES=exact");
    }
    report.data.set("groups", heard.groups.size());
    report.data.set("groups_in_scope", reported.size());
}

} // namespace

void check_segment(const std::string& name, long seconds, Report& report)
{
    const Heard heard = listen(name, seconds, !report.wants_json && isatty(STDERR_FILENO) != 0);
    judge_queriers(name, seconds, heard, report);
    judge_reports(name, seconds, heard, report);
    judge_groups(heard, report);
    report.data.set("messages", heard.messages);
    report.data.set("leaves", heard.leaves);
    for (const int version : {1, 2, 3}) {
        report.data.set("reports_version" + std::to_string(version), heard.reports[version]);
    }
}

} // namespace zentctl
