// --mqtt: what is joined, as retained topics of a broker, and what happens, as messages.
//
//   PREFIX/INSTANCE/$status      "online" or "offline", retained, QoS 1; the will
//   PREFIX/INSTANCE/AGENT/GROUP  retained, QoS 1: since when, and by whom; emptied at the end
//   PREFIX/INSTANCE/$events      each event, QoS 0
//
// A thread of its own looks names up, connects and does all that libmosquitto does. Nothing is queued for a
// broker that is away: at each connection, and where events had to be dropped, the retained topics are made
// equal to the state: those that the broker has are read, those that are not held any more are emptied, those
// that are missing are published, at most 1,000 unsent at a time.
#ifndef ZENTMON_MQTT_H
#define ZENTMON_MQTT_H

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>

#include "counters.h"
#include "event.h"
#include "loop.h"
#include "notices.h"
#include "state.h"
#include "worker.h"

namespace zentmon {

struct MqttOptions {
    std::string host;
    uint16_t port = 1883;
    std::string prefix = "zent";
    std::string instance;
    std::string user;
    std::string password_file; // its first line; read at each connection
    bool tls = false;          // with the system's authorities, unless ca names others
    std::string ca;
    std::string cert;
    std::string key;
    size_t queue = 100'000;        // events that wait for a slow broker at most
    int64_t quiet_ms = 1000;       // without a retained message: the broker has told all
    int64_t first_retry_ms = 1000; // doubled up to 30 times that
};

class Mqtt : public Sink, public Handler {
  public:
    Mqtt(MqttOptions options, std::shared_ptr<Notices> notices, const State& state);
    ~Mqtt() override;

    // Starts the thread. 0, or -1 with a line.
    int start();

    void on_event(const Event& event) override;
    void on_rename(uint64_t seq) override; // topics have other names: all anew
    void on_readable() override;
    void publish_counters(Counters& counters) const;

    // Says "offline" and ends; gives up after limit_ms.
    void stop(int64_t limit_ms = 3000);

  private:
    // away: no connection, or none that is known yet. collect: the broker tells what it retains. publish: the
    // rest goes out. live: broker and state are equal.
    enum class Phase : uint8_t { away, collect, publish, live };

    struct Shared;
    class Link;

    void begin_collecting();
    void on_retained(const std::string& topic, const std::string& payload);
    bool find_row(const std::string& agent, uint32_t group, std::string& payload) const;
    void end_collecting();
    void publish_piece();
    void on_timer();

    std::shared_ptr<Shared> shared_;
    std::shared_ptr<Notices> notices_;
    const State& state_;
    Worker worker_;
    Watch watch_;
    Timer timer_;
    Phase phase_ = Phase::away;
    uint64_t epoch_ = 0; // of the connection that is known here
    bool subscribed_ = false;
    int64_t last_told_ms_ = 0;                // monotonic: when the broker told something last
    std::unordered_set<std::string> present_; // "AGENT/GROUP" that the broker has as they should be
    GroupCursor at_;
    bool behind_ = false; // events were dropped: all anew, once there is room
    uint64_t dropped_ = 0;
};

} // namespace zentmon

#endif
