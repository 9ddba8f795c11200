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
};

} // namespace

std::span<const Code> all_codes()
{
    return kCodes;
}

} // namespace zentctl
