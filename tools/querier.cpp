// RFC 2236, section 3 and 7, with the defaults of section 8 and the interval as a parameter.
#include "querier.h"

#include <algorithm>
#include <utility>

#include "group.h"

namespace zentctl {

namespace {

constexpr unsigned kResponse = 100;  // tenths of a second: query response interval
constexpr unsigned kLastMember = 10; // tenths of a second: last member query interval
constexpr int kLastMemberCount = 2;  // queries after a leave
constexpr int64_t kLastMemberMs = 1000;
constexpr int kStartupDivisor = 4; // start-up query interval: a quarter
constexpr int64_t kHalfResponseMs = 5000;
constexpr size_t kMostLeft = 1000; // groups that are asked for at once: leaves can be forged

// Groups of the link itself (224.0.0.0/24) are never asked for: their members do not report.
bool is_asked_for(uint32_t group)
{
    return is_group(group) && group > 0xe00000ff;
}

} // namespace

Querier::Querier(uint32_t own, int64_t interval_ms, int64_t now_ms)
    : own_(own), interval_ms_(interval_ms), next_general_ms_(now_ms)
{
}

void Querier::hear(const Message& message, int64_t now_ms)
{
    if (message.source == own_ || message.is_tagged) {
        return; // our own frame, or another segment's
    }
    if (message.kind == Kind::query) {
        hear_query(message, now_ms);
        return;
    }
    for (const Saying& saying : message.sayings) {
        if (saying.kind == Kind::leave) {
            hear_leave(message, saying.group, now_ms);
        }
    }
}

void Querier::hear_query(const Message& message, int64_t now_ms)
{
    if (message.source == 0) {
        return; // a switch that asks on behalf of others takes no part in the election (RFC 4541, 2.1.1)
    }
    if (message.version == 3 && !warned_of_version3_) {
        warned_of_version3_ = true;
        news_.push_back(address_text(message.source) +
                        " queries with version 3: two versions on one segment");
    }
    if (message.source > own_) {
        return; // it is for him to be quiet
    }
    if (elected_ || other_ != message.source) {
        news_.push_back("quiet: " + address_text(message.source) + " queries and has the lower address");
    }
    elected_ = false;
    other_ = message.source;
    other_until_ms_ = now_ms + 2 * interval_ms_ + kHalfResponseMs;
    left_.clear();
}

void Querier::hear_leave(const Message& message, uint32_t group, int64_t now_ms)
{
    if (!elected_ || !is_asked_for(group) || left_.contains(group) || left_.size() >= kMostLeft) {
        return;
    }
    left_[group] = {kLastMemberCount, now_ms};
    news_.push_back(address_text(message.source) + " leaves " + address_text(group) +
                    ": asking for other members");
}

std::vector<Query> Querier::due(int64_t now_ms)
{
    std::vector<Query> queries;
    if (!elected_ && now_ms >= other_until_ms_) {
        news_.push_back("querier again: nothing was heard of " + address_text(other_));
        elected_ = true;
        next_general_ms_ = now_ms;
    }
    if (elected_ && now_ms >= next_general_ms_) {
        startup_left_ = std::max(0, startup_left_ - 1);
        next_general_ms_ = now_ms + (startup_left_ > 0 ? interval_ms_ / kStartupDivisor : interval_ms_);
        queries.push_back({0, kResponse});
    }
    for (auto& [group, left] : left_) {
        if (now_ms >= left.next_ms) {
            queries.push_back({group, kLastMember});
            --left.queries;
            left.next_ms = now_ms + kLastMemberMs;
        }
    }
    std::erase_if(left_, [](const auto& entry) { return entry.second.queries == 0; });
    return queries;
}

int64_t Querier::next_ms() const
{
    int64_t next = elected_ ? next_general_ms_ : other_until_ms_;
    for (const auto& [group, left] : left_) {
        next = std::min(next, left.next_ms);
    }
    return next;
}

std::vector<std::string> Querier::news()
{
    return std::exchange(news_, {});
}

} // namespace zentctl
