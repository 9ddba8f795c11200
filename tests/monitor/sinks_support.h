// What the tests of the sinks share: events, and the loop run until something has come true.
#ifndef TESTS_MONITOR_SINKS_SUPPORT_H
#define TESTS_MONITOR_SINKS_SUPPORT_H

#include <chrono>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "event.h"
#include "logcap.h"
#include "loop.h"
#include "notices.h"
#include "state.h"
#include "wait.h"

namespace sinks {

using namespace zentmon;

inline std::shared_ptr<const AgentName> name_of(const std::string& agent,
                                                const std::string& address = "10.0.0.1",
                                                const std::string& listener = "lan")
{
    return std::make_shared<AgentName>(AgentName{agent, address, listener});
}

// Events with running numbers, a millisecond apart.
class Events {
  public:
    explicit Events(int64_t from_ms = 1'700'000'000'000) : from_ms_(from_ms) {}

    Event next(EventKind kind, uint32_t group, const std::shared_ptr<const AgentName>& who)
    {
        ++seq_;
        return {seq_, from_ms_ + static_cast<int64_t>(seq_), kind, group, who};
    }

    uint64_t last() const { return seq_; }

  private:
    int64_t from_ms_;
    uint64_t seq_ = 0;
};

// A group by its last bits: 239.0.0.0 and more.
constexpr uint32_t group(uint32_t number)
{
    return 0xef000000u + number;
}

// The loop with the lines of the other threads, and a state.
class SinkTest : public testing::Test {
  protected:
    SinkTest() : log(INFO_level), state({}, counters)
    {
        EXPECT_EQ(Loop::init(), 0);
        EXPECT_EQ(notices->start(), 0);
    }

    ~SinkTest() override
    {
        notices->stop();
        Loop::destroy();
    }

    // Runs the loop until the condition holds. False when the limit has passed.
    template <class Condition>
    bool run_until(Condition condition, std::chrono::milliseconds limit = support::kLimit)
    {
        const int64_t end = now().mono_ms + limit.count();
        bool held = false;
        std::unique_ptr<Timer> timer;
        timer = std::make_unique<Timer>([&] {
            held = condition();
            if (held || now().mono_ms >= end) {
                Loop::stop();
            } else {
                timer->start_ms(2);
            }
        });
        timer->start_ms(0);
        Loop::run([] {});
        return held;
    }

    bool run_until_logged(const std::string& text)
    {
        return run_until([&] { return log.text().find(text) != std::string::npos; });
    }

    size_t times_logged(const std::string& text)
    {
        size_t times = 0;
        const std::string all = log.text();
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
            ++times;
        }
        return times;
    }

    // A line of an agent, as the intake would hand it over.
    void line(LineKind kind, uint32_t group, const std::string& address = "10.0.0.1", uint16_t port = 4000)
    {
        state.apply("lan", address, port, kind, group, now());
    }

    support::LogCapture log;
    Counters counters;
    State state;
    std::shared_ptr<Notices> notices = std::make_shared<Notices>();
};

} // namespace sinks

#endif
