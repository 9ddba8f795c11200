// All that events are handed on to: history, lines, programs, another receiver, a broker.
#ifndef ZENTMON_SINKS_H
#define ZENTMON_SINKS_H

#include <memory>
#include <optional>
#include <vector>

#include "config.h"
#include "counters.h"
#include "forward.h"
#include "history.h"
#include "hooks.h"
#include "loop.h"
#include "mqtt.h"
#include "notices.h"
#include "output.h"
#include "state.h"

namespace zentmon {

class Sinks {
  public:
    // All is borrowed.
    Sinks(const Config& config, State& state, Counters& counters);
    ~Sinks();
    Sinks(const Sinks&) = delete;
    Sinks& operator=(const Sinks&) = delete;

    // Restores the state and starts the history. A file that is away is no failure: it is tried again. 0, or
    // -1 with a line.
    int start_history();

    // Starts the rest; what is joined by then is told to whoever needs it. 0, or -1 with a line.
    int start_others();

    // NULL without --db.
    HistoryReader* history() { return history_ ? &*history_ : nullptr; }

    // Hands over what waits, for a few seconds at most, and ends all threads.
    void stop();

  private:
    int start_json();
    int start_hooks();
    int start_forward();
    int start_mqtt();
    void publish_counters();

    const Config& config_;
    State& state_;
    Counters& counters_;
    std::shared_ptr<Notices> notices_ = std::make_shared<Notices>();
    std::optional<History> history_;
    std::optional<JsonOutput> json_;
    std::optional<Hooks> hooks_;
    std::optional<Forward> forward_;
    std::optional<Mqtt> mqtt_;
    Timer counting_;
};

} // namespace zentmon

#endif
