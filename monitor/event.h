// What happens to a group: the one event that page, history, broker, hooks and streams are told.
#ifndef ZENTMON_EVENT_H
#define ZENTMON_EVENT_H

#include <cstdint>
#include <memory>
#include <string>

namespace zentmon {

enum class EventKind : uint8_t { join, leave, expire };

// "join", "leave", "expire". Static text.
const char* event_name(EventKind kind);

// What is shown of an agent; never changed once made: a new name is a new record.
struct AgentName {
    std::string agent;    // its name, unique among the agents
    std::string address;  // its numeric source address
    std::string listener; // where its lines arrive
};

struct Event {
    uint64_t seq;    // counts from 1 since the start of the process
    int64_t time_ms; // Unix time in milliseconds
    EventKind kind;
    uint32_t group; // host byte order
    std::shared_ptr<const AgentName> who;
};

// The 16 hexadecimal digits that this life of the process puts in front of its sequence numbers: random at
// each start, so that an identifier of an earlier life is never taken for one of this.
const std::string& boot_id();

// "BOOT-SEQ".
std::string event_id(uint64_t seq);

// Dotted decimal of a group in host byte order, appended.
void append_group(std::string& out, uint32_t group);

// A time in Unix seconds with three decimals, appended.
void append_time(std::string& out, int64_t time_ms);

// A JSON string with its quotes, appended; bytes that are no UTF-8 must not come here (names are ASCII).
void append_quoted(std::string& out, const std::string& text);

// The one event object, without a line feed, appended.
void append_json(std::string& out, const Event& event);

// Whoever is told of events, in the order in which they happen, in the thread of the loop. Must not wait and
// must not change the state.
class Sink {
  public:
    virtual ~Sink() = default;
    virtual void on_event(const Event& event) = 0;

    // Agents are shown under other names from now on. There is no event for it, but it has taken a number of
    // its own, so that who has seen what is told by the last number alone.
    virtual void on_rename(uint64_t seq) { (void)seq; }
};

} // namespace zentmon

#endif
