// The ring of events, and the body of /events.
#include "events.h"

#include <algorithm>
#include <charconv>

namespace zentmon {

namespace {

constexpr std::string_view kRetry = "retry: 1000\n\n";

// One stream: the place in the ring up to which it has been told. A stream that cannot be told all of it is
// told once to begin anew.
class EventStream : public Body {
  public:
    EventStream(EventRing& ring, std::string_view since) : ring_(ring), seq_(ring.last_seq())
    {
        if (!since.empty()) {
            const std::optional<uint64_t> point = ring.resume_point(since);
            lost_ = !point;
            seq_ = point.value_or(seq_);
        }
    }

    Step next(std::string& out) override
    {
        const Now at = now();
        if (!begun_) {
            begun_ = true;
            out += kRetry;
            ping(out, at);
        }
        const StreamLimits& limits = ring_.limits();
        if (lost_ || ring_.last_seq() - seq_ > limits.per_flush || seq_ + 1 < ring_.first_seq()) {
            lost_ = true; // also where it has to be told later: what it missed does not come back
            if (reset_ms_ < 0 || at.mono_ms - reset_ms_ >= limits.reset_ms) {
                reset(out, at);
            }
        } else if (ring_.last_seq() != seq_) {
            out += ring_.batch(seq_);
            seq_ = ring_.last_seq();
        }
        if (at.mono_ms - pinged_ms_ >= limits.ping_ms) {
            ping(out, at);
        }
        return Step::idle;
    }

  private:
    // A named event and no comment: a script sees it, and knows that the connection lives.
    void ping(std::string& out, const Now& at)
    {
        pinged_ms_ = at.mono_ms;
        out += "event: ping\ndata: {\"now\":";
        append_time(out, at.wall_ms);
        out += "}\n\n";
    }

    void reset(std::string& out, const Now& at)
    {
        lost_ = false;
        reset_ms_ = at.mono_ms;
        seq_ = ring_.last_seq();
        out += "event: reset\nid: ";
        out += event_id(seq_);
        out += "\ndata: {\"now\":";
        append_time(out, at.wall_ms);
        out += "}\n\n";
    }

    EventRing& ring_;
    uint64_t seq_;
    bool begun_ = false;
    bool lost_ = false;
    int64_t reset_ms_ = -1;
    int64_t pinged_ms_ = 0;
};

} // namespace

// ---- activity ---------------------------------------------------------------------------------------

void Activity::add(EventKind kind, int64_t time_ms)
{
    const int64_t number = time_ms / kStepMs;
    Slot& slot = slots_[static_cast<size_t>(number) % kSlots];
    if (slot.number != number) {
        slot = {};
        slot.number = number;
    }
    ++slot.of[static_cast<size_t>(kind)];
}

std::vector<uint32_t> Activity::counts(EventKind kind, int64_t now_ms) const
{
    std::vector<uint32_t> counts(kSlots);
    const int64_t last = now_ms / kStepMs;
    for (const Slot& slot : slots_) {
        const int64_t age = last - slot.number;
        if (slot.number >= 0 && age >= 0 && age < static_cast<int64_t>(kSlots)) {
            counts[kSlots - 1 - static_cast<size_t>(age)] = slot.of[static_cast<size_t>(kind)];
        }
    }
    return counts;
}

// ---- the ring ---------------------------------------------------------------------------------------

EventRing::EventRing(const StreamLimits& limits)
    : limits_(limits), ring_(limits.ring), flush_([this] { tell_news(); })
{
}

void EventRing::on_event(const Event& event)
{
    last_seq_ = event.seq;
    count_ = std::min<uint64_t>(count_ + 1, ring_.size());
    ring_[event.seq % ring_.size()] = event;
    activity_.add(event.kind, event.time_ms);
    expect_flush();
}

void EventRing::on_rename(uint64_t seq)
{
    last_seq_ = seq;
    count_ = 0; // nobody goes on from before
    expect_flush();
}

void EventRing::expect_flush()
{
    if (news_ && !flush_.runs()) {
        const int64_t due_ms = flushed_ms_ + limits_.flush_ms;
        flush_.start_ms(std::max<int64_t>(0, due_ms - now().mono_ms)); // at once after a pause
    }
}

void EventRing::tell_news()
{
    flushed_ms_ = now().mono_ms;
    news_();
}

std::optional<uint64_t> EventRing::resume_point(std::string_view id) const
{
    const std::string& boot = boot_id();
    if (!id.starts_with(boot) || id.size() < boot.size() + 2 || id[boot.size()] != '-') {
        return std::nullopt;
    }
    const std::string_view digits = id.substr(boot.size() + 1);
    uint64_t seq = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), seq);
    if (error != std::errc() || end != digits.data() + digits.size() || seq > last_seq_ ||
        seq + 1 < first_seq()) {
        return std::nullopt;
    }
    return seq;
}

const std::string& EventRing::batch(uint64_t from)
{
    if (batch_from_ != from || batch_to_ != last_seq_) {
        batch_.clear();
        for (uint64_t seq = from + 1; seq <= last_seq_; ++seq) {
            const Event& event = at(seq);
            batch_ += "id: ";
            batch_ += event_id(seq);
            batch_ += "\ndata: ";
            append_json(batch_, event);
            batch_ += "\n\n";
        }
        batch_from_ = from;
        batch_to_ = last_seq_;
    }
    return batch_;
}

std::unique_ptr<Body> make_event_stream(EventRing& ring, std::string_view since)
{
    return std::make_unique<EventStream>(ring, since);
}

} // namespace zentmon
