// --forward: the union of all agents goes on as lines to one more receiver: JOIN when the first agent joins a
// group, LEAVE when the last one leaves it, one line a datagram.
#ifndef ZENTMON_FORWARD_H
#define ZENTMON_FORWARD_H

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "config.h"
#include "counters.h"
#include "event.h"
#include "loop.h"
#include "state.h"

namespace zentmon {

// Whether lines to that address would come in at one of these listeners again: same port, and the same
// address, or any address of this machine where the listener takes them all.
bool is_own_listener(const Endpoint& target, const std::vector<Endpoint>& listeners);

class Forward : public Sink {
  public:
    Forward();
    ~Forward() override;
    Forward(const Forward&) = delete;
    Forward& operator=(const Forward&) = delete;

    // Opens the socket. 0, or -1 with a line.
    int start(const Endpoint& target);

    // Takes over what is joined at the start. Its JOINs go out a piece at a time: the receiver's buffer is
    // not ours.
    void seed(const State& state);

    void on_event(const Event& event) override;
    void publish_counters(Counters& counters) const;

    // Sends what is due: for the timer, and for tests. Milliseconds until it wants to be called again, -1
    // where nothing is left.
    int64_t flush();

  private:
    struct Group {
        uint32_t agents = 0; // that have joined it
        bool told = false;   // the receiver was told JOIN last
        bool due = false;    // waits in due_
    };

    void put_off(uint32_t group, Group& entry);
    bool bring_up_to_date(uint32_t group, Group& entry);
    bool send_line(const char* word, uint32_t group);

    int fd_ = -1;
    std::unordered_map<uint32_t, Group> groups_;
    std::deque<uint32_t> due_; // groups whose last word could not be sent yet
    Timer timer_;
    uint64_t dropped_ = 0;
    bool broken_ = false; // no way to the receiver, told already
    std::string line_;
};

} // namespace zentmon

#endif
