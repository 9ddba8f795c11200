// The last events, and the streams of server-sent events that draw from them.
#ifndef ZENTMON_EVENTS_H
#define ZENTMON_EVENTS_H

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "event.h"
#include "http.h"
#include "loop.h"

namespace zentmon {

struct StreamLimits {
    size_t ring = 10'000;       // events from which a stream can be resumed
    uint64_t per_flush = 2'000; // more of them at once become one reset
    int64_t flush_ms = 50;      // between two flushes
    int64_t reset_ms = 2'000;   // between two resets of one stream
    int64_t ping_ms = 10'000;
};

// How many joins, leaves and expiries each of the last slots of time had.
class Activity {
  public:
    static constexpr int64_t kStepMs = 5'000;
    static constexpr size_t kSlots = 120; // ten minutes

    void add(EventKind kind, int64_t time_ms);

    // Of one kind, oldest first, up to the slot of now; kSlots numbers.
    std::vector<uint32_t> counts(EventKind kind, int64_t now_ms) const;

  private:
    struct Slot {
        int64_t number = -1; // of the step since 1970
        std::array<uint32_t, 3> of{};
    };

    std::array<Slot, kSlots> slots_;
};

// The ring of the last events.
class EventRing : public Sink {
  public:
    explicit EventRing(const StreamLimits& limits = {});

    void on_event(const Event& event) override;

    // Rows that a client shows have other names: each stream is reset, and none resumes from before.
    void on_rename(uint64_t seq) override;

    // Called when events have come, at most once in flush_ms.
    void on_news(std::function<void()> call) { news_ = std::move(call); }

    uint64_t last_seq() const { return last_seq_; }

    uint64_t first_seq() const { return last_seq_ - count_ + 1; }

    const Event& at(uint64_t seq) const { return ring_[seq % ring_.size()]; }

    const StreamLimits& limits() const { return limits_; }

    const Activity& activity() const { return activity_; }

    // The number in an id of this life of the process from which the stream can go on; nothing where it is
    // another's, malformed, unknown or too old.
    std::optional<uint64_t> resume_point(std::string_view id) const;

    // The events behind `from`, as a stream shows them. One text serves all streams that stand at one place.
    const std::string& batch(uint64_t from);

  private:
    void expect_flush();
    void tell_news();

    StreamLimits limits_;
    std::vector<Event> ring_;
    uint64_t last_seq_ = 0;
    uint64_t count_ = 0;
    Activity activity_;
    std::function<void()> news_;
    int64_t flushed_ms_ = 0;
    Timer flush_;
    uint64_t batch_from_ = 0;
    uint64_t batch_to_ = 0;
    std::string batch_;
};

// The body of /events. `since` is the id that the client has, empty for none.
std::unique_ptr<Body> make_event_stream(EventRing& ring, std::string_view since);

} // namespace zentmon

#endif
