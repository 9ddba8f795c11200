// Every word that names a finding, with its meaning: zentctl(1) lists the same ones.
#include "report.h"

namespace zentctl {

namespace {

constexpr Code kCodes[] = {
    // any command
    {"usage", "the command line makes no sense"},
    {"unreadable", "a file cannot be read"},
    {"internal", "something failed inside zentctl, memory for instance"},

    // lint
    {"good-list", "the agent takes the list and every entry counts"},
    {"empty-list", "the list has no entry: it lets nothing through"},
    {"comment", "a comment: the agent knows none and refuses the list"},
    {"empty-line", "an empty line: the agent refuses the list"},
    {"not-an-address", "a line that is no IPv4 address: the agent refuses the list"},
    {"not-multicast", "an address outside 224.0.0.0/4: the agent refuses the list"},
    {"duplicate", "an address that stands in the list already: the agent refuses it"},
    {"long-line", "a line above 62 characters, of which the agent makes several entries"},
    {"unmatched",
     "an entry without effect, as a rule for a last octet of 128 or more: see the feature exact"},
    {"odd-notation", "octal, hexadecimal or fewer than four parts: shown as what it means"},
    {"ignored-text", "text behind a blank: the agent does not read it"},
    {"crlf", "lines that end in CR LF"},
    {"in-range", "an entry that the range lets through anyway"},

    // expand
    {"not-a-group", "something that is no group, prefix, range or readable list"},
    {"too-many", "more groups than are allowed"},
    {"host-bits", "a prefix with bits behind its length: they are dropped"},
    {"one-range", "the groups are one range: a pair of -g and -G says the same"},

    // query, and check where it captures
    {"no-interface", "there is no interface of that name"},
    {"no-ipv4", "the interface has no IPv4 address"},
    {"no-right", "no right to capture or to send: neither root nor CAP_NET_RAW"},
    {"capture-failed", "libpcap cannot capture on the interface"},
    {"send-failed", "a query cannot be sent"},
    {"lock-held", "another zentctl query runs on the interface"},
    {"version3-querier", "a version 3 querier was heard, which a version 2 one would disturb"},
    {"no-answer", "no host answered the query"},
    {"answers", "hosts answered the query"},
    {"version2-now", "Linux hosts speak version 2 for about 260 s from here"},
    {"ended", "a signal ended the command"},

    // groups and watch
    {"groups", "how many groups the zentmon has"},
    {"unreachable", "no HTTP server answers at the URL"},
    {"refused", "the server refuses the request"},
    {"bad-answer", "the answer is not a zentmon's"},

    // check: the interface
    {"any-interface", "any is no interface that the agent can watch"},
    {"link-down", "the interface is down"},
    {"no-carrier", "the interface has no carrier"},
    {"link-up", "the interface is up and has a carrier"},
    {"loopback", "the interface is the loopback"},
    {"not-ethernet", "the interface is not Ethernet: tun and ppp for instance"},
    {"address", "the interface's IPv4 address"},
    {"bridge-port", "the interface is a port of a bridge: watch the bridge"},
    {"bond-port", "the interface is a member of a bond or the like: watch that"},
    {"vlans-above", "VLAN interfaces stand above the interface: watch those"},
    {"right", "this user has the right to capture"},

    // check: the agent and its unit
    {"agent-runs", "an agent runs on the interface"},
    {"no-agent", "no agent runs on the interface"},
    {"two-agents", "more than one agent runs on the interface"},
    {"pidfile-locked", "a running daemon holds the pid file"},
    {"no-unit", "zent@.service is not installed"},
    {"unit-enabled", "the unit is enabled"},
    {"unit-disabled", "the unit is not enabled"},
    {"unit-failed", "the unit's agent ended with an error"},
    {"unit-command", "what the unit starts, with its features"},
    {"features", "the features that are on"},
    {"bad-features", "ZENT_FEATURES holds a word that the agent refuses"},

    // check: scope and target
    {"scope", "the groups that the agent reports, in words"},
    {"bad-range", "-g or -G of an agent or a unit is wrong: the agent does not start"},
    {"no-lower-bound", "group 0.0.0.0 is in scope, a report of which ends the agent"},
    {"list-refused", "the agent refuses the list"},
    {"list-adds-nothing", "the range holds every entry of the list"},
    {"bad-target", "the target is no ADDRESS:PORT that the agent can open"},
    {"port-wraps", "the port is above 65535: the agent sends elsewhere"},
    {"no-address", "the target's name does not resolve"},
    {"no-route", "there is no route to the target"},
    {"port-closed", "nobody listens at the target"},
    {"port-open", "the target is open, or a filter drops what is sent there"},

    // check: the segment
    {"querier", "a querier was heard"},
    {"no-querier", "no querier was heard"},
    {"reports", "reports were heard, by version"},
    {"no-report", "queries were heard but no report"},
    {"version3-unseen", "version 3 reports, and the feature igmpv3 is off"},
    {"tagged-frames", "messages with a VLAN tag, which the agent refuses"},
    {"out-of-scope", "groups are reported, but none that is in scope"},
    {"group-zero", "a report of group 0.0.0.0, which ends the agent"},
    {"hidden-groups", "groups that hide one another in the plain tables"},
};

} // namespace

std::span<const Code> all_codes()
{
    return kCodes;
}

} // namespace zentctl
