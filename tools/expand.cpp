// zentctl expand: prefixes, ranges and commented lists become one plain list.
#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <vector>

#include "command.h"
#include "expand.h"
#include "list_file.h"
#include "zent.h"

namespace zentctl {

namespace {

constexpr long kMaxGroups = 1'000'000;
constexpr const char* kBlanks = " \t\r\v\f";

std::string trimmed(std::string_view text)
{
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return "";
    }
    return std::string(text.substr(first, text.find_last_not_of(kBlanks) - first + 1));
}

std::optional<Span> parse_range(const std::string& text, size_t dash)
{
    const auto first = parse_address(trimmed(text.substr(0, dash)));
    const auto last = parse_address(trimmed(text.substr(dash + 1)));
    return first && last && *first <= *last ? std::optional(Span{*first, *last}) : std::nullopt;
}

std::optional<Span> parse_prefix(const std::string& text, size_t slash)
{
    const auto address = parse_address(text.substr(0, slash));
    const std::string length = text.substr(slash + 1);
    if (!address || length.empty() || length.size() > 2 ||
        length.find_first_not_of("0123456789") != std::string::npos || std::stoi(length) > 32) {
        return {};
    }
    const uint32_t host_bits = std::stoi(length) == 0 ? ~0U : (uint64_t{1} << (32 - std::stoi(length))) - 1;
    return Span{*address & ~host_bits, *address | host_bits, (*address & host_bits) != 0};
}

// Collects what the operands name, within a limit that a wrong prefix must not exceed in memory either.
class Collector {
  public:
    Collector(Report& report, long limit) : report_(report), limit_(static_cast<size_t>(limit)) {}

    void operand(const std::string& text)
    {
        if (const auto span = parse_span(text)) {
            add(*span, text, text, 0);
        } else if (text == "-" || access(text.c_str(), F_OK) == 0) {
            file(text);
        } else {
            report_.error("not-a-group", text + ": neither a group, a prefix or a range nor a file",
                          "239.1.1.1, 239.1.0.0/24, 239.1.1.1-239.1.1.50, or the path of a list");
        }
    }

    // Sorted, without overlaps or neighbours.
    std::vector<Span> merged()
    {
        std::ranges::sort(spans_, {}, &Span::first);
        std::vector<Span> result;
        for (const Span& span : spans_) {
            if (!result.empty() && span.first <= result.back().last + 1) {
                result.back().last = std::max(result.back().last, span.last);
            } else {
                result.push_back(span);
            }
        }
        return result;
    }

    void judge_count(size_t count)
    {
        if (count > limit_) {
            report_.error("too-many", std::to_string(count) + " groups, at most " + std::to_string(limit_),
                          "name fewer, or use the agent's range: -g and -G");
        }
    }

  private:
    void file(const std::string& path)
    {
        const std::string whole = read_whole_file(path);
        std::string_view text = whole;
        for (size_t number = 1; !text.empty(); ++number) {
            const size_t end = text.find('\n');
            const std::string_view line = text.substr(0, end);
            const std::string entry = trimmed(line.substr(0, line.find('#')));
            if (const auto span = parse_span(entry)) {
                add(*span, entry, path, number);
            } else if (!entry.empty()) {
                Finding& finding = report_.error(
                    "not-a-group", std::string(path).append(": no group, prefix or range: ").append(entry));
                finding.line = number;
                finding.column = line.find_first_not_of(kBlanks) + 1;
            }
            text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        }
    }

    void add(const Span& span, const std::string& text, const std::string& where, size_t line)
    {
        if (!is_group(span.first) || !is_group(span.last)) {
            report_
                .error("not-a-group", (line != 0 ? where + ": " : "") + text + " is not within 224.0.0.0/4")
                .line = line;
            return;
        }
        if (span.has_host_bits) {
            report_.warn("host-bits", text + " is taken as the block from " + address_text(span.first)).line =
                line;
        }
        spans_.push_back(span);
    }

    Report& report_;
    size_t limit_;
    std::vector<Span> spans_;
};

size_t count_of(const std::vector<Span>& spans)
{
    size_t count = 0;
    for (const Span& span : spans) {
        count += size_t{span.last} - span.first + 1;
    }
    return count;
}

void tell_range(Report& report, const std::vector<Span>& spans)
{
    if (spans.size() != 1) {
        return;
    }
    const std::string least = address_text(spans[0].first);
    const std::string most = address_text(spans[0].last);
    report.ok("one-range", "the same as a range: -g " + least + " -G " + most);
    report.data.set("least", least);
    report.data.set("most", most);
}

void tell_unmatched(Report& report, const std::vector<Span>& spans)
{
    size_t count = 0;
    for (const Span& span : spans) {
        for (uint64_t group = span.first; group <= span.last; ++group) {
            count += (group & 0x80) != 0 ? 1 : 0;
        }
    }
    if (count > 0 && !g_cfg.features.exact) {
        report.warn("unmatched", std::to_string(count) + " groups have a last octet of 128 or more",
                    "in a list they take effect with ZENT_FEATURES=exact; a range needs nothing");
    }
}

void give_out(Report& report, const std::vector<Span>& spans)
{
    std::vector<std::string> groups;
    std::string text;
    for (const Span& span : spans) {
        for (uint64_t group = span.first; group <= span.last; ++group) {
            const std::string address = address_text(static_cast<uint32_t>(group));
            if (report.wants_json) {
                groups.push_back(address);
            } else {
                text += address + "\n";
            }
        }
    }
    report.data.set("groups", groups);
    fputs(text.c_str(), stdout);
}

} // namespace

std::optional<Span> parse_span(const std::string& text)
{
    if (const size_t dash = text.find('-'); dash != std::string::npos) {
        return parse_range(text, dash);
    }
    if (const size_t slash = text.find('/'); slash != std::string::npos) {
        return parse_prefix(text, slash);
    }
    const auto address = parse_address(text);
    return address ? std::optional(Span{*address, *address}) : std::nullopt;
}

void run_expand(const Arguments& arguments, Report& report)
{
    use_agent_features();
    Collector collector(report, arguments.number("--max", kMaxGroups, 1, kMaxGroups));
    for (const std::string& operand : arguments.operands) {
        collector.operand(operand);
    }
    const std::vector<Span> spans = collector.merged();
    const size_t count = count_of(spans);
    collector.judge_count(count);
    report.data.set("count", count);
    report.data.set("groups", std::vector<std::string>());
    report.exit = report.worst() == Level::error ? kFindings : kGood;
    if (report.exit == kGood) {
        tell_range(report, spans);
        tell_unmatched(report, spans);
        give_out(report, spans); // nothing at all where anything is wrong: no half a list
    }
    if (!report.wants_json) {
        for (const Finding& finding : report.findings) {
            fprintf(stderr, "zentctl expand: %s\n",
                    finding.line == 0
                        ? verdict_line(finding).c_str()
                        : (verdict_line(finding) + ", line " + std::to_string(finding.line)).c_str());
        }
    }
}

} // namespace zentctl
