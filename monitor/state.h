// Who has joined what: agents, the lives of their processes (flows), their groups; what is stale, what
// lingers, what is forgotten.
//
// An agent is a listener and a source address. A flow is one source port of an agent, which is one life of
// its process; an agent's groups are the union of its flows' groups.
#ifndef ZENTMON_STATE_H
#define ZENTMON_STATE_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "counters.h"
#include "event.h"
#include "loop.h"

namespace zentmon {

enum class LineKind : uint8_t { join, leave };

enum class GroupState : uint8_t { joined, stale, linger };

// "joined", "stale", "linger". Static text.
const char* group_state_name(GroupState state);

// A joined group of an agent.
struct GroupRow {
    uint32_t group; // host byte order
    const AgentName* who;
    int64_t since_ms; // Unix time of the JOIN that began it
    int64_t last_ms;  // of the last line about it
    uint32_t joins;   // JOIN lines since the agent is known
    uint32_t leaves;
    GroupState state;
};

struct AgentRow {
    const AgentName* who;
    int64_t first_ms; // Unix time of its first and of its last valid line
    int64_t last_ms;
    uint32_t flows;    // processes that are taken to be alive
    uint32_t groups;   // all that are shown
    uint32_t stale;    // of these
    uint32_t linger;   // of these
    uint64_t joins;    // JOIN lines
    uint64_t leaves;   // LEAVE lines
    uint64_t restarts; // of its process
};

// A place in the order of groups: behind the group of that agent. The default is the beginning.
struct GroupCursor {
    uint32_t group = 0;
    std::string agent;
};

// A row of the history's table of joined groups.
struct RestoredRow {
    uint32_t group;
    std::string agent; // its name when it was stored
    std::string address;
    std::string listener;
    int64_t since_ms;
    bool fading = false; // it was stale, or lingered: expires unless it is reported again
};

struct StateLimits {
    size_t agents = 4096;
    size_t flows = 64; // of one agent; no more than 64
    size_t groups = 1'000'000;
};

struct StateOptions {
    int64_t stale_s = 260; // 0: never
    int64_t forget_s = 0;  // 0: never
    int64_t linger_s = 0;
    std::map<std::string, std::string> names; // numeric address to text
    StateLimits limits;
};

class State {
  public:
    State(StateOptions options, Counters& counters);
    ~State();
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    // Told of every event from now on, in the order of registration. Borrowed.
    void add_sink(Sink* sink);

    // A valid line from a source. listener: the listener's name; address: the numeric source address in its
    // one text form; port: the flow.
    void apply(const std::string& listener, const std::string& address, uint16_t port, LineKind kind,
               uint32_t group, Now now);

    // The same for the road of a datagram, which looks its agent up once: find_agent gives its number, or -1
    // where the limit is reached (counted). The number holds until generation() changes.
    int find_agent(const std::string& listener, const std::string& address, Now now);
    uint64_t generation() const;
    void apply(int agent, uint16_t port, LineKind kind, uint32_t group, Now now);

    // All groups of an agent become stale: its stream has ended.
    void end_of_stream(const std::string& listener, const std::string& address, Now now);

    // Expires, ends lingering, forgets: what is due, but no more than a bounded piece at a time. Milliseconds
    // until it wants to be called again: 0 where work is left.
    int64_t tick(Now now);

    // New names (SIGHUP): agents are shown under them from now on; sinks are told by
    // on_rename where that changes anything, which takes a number like an event.
    void rename(const std::map<std::string, std::string>& names);

    // Puts a stored row back without an event. False where a limit refuses it (counted).
    bool restore(const RestoredRow& row, Now now);

    // Calls visit for each shown group behind `at`, in the order (group, name of the agent), until it returns
    // false, and looks at no more than `budget` places of the order. `at` is then behind the last one looked
    // at. False at the end of the order.
    bool walk_groups(GroupCursor& at, size_t budget, const std::function<bool(const GroupRow&)>& visit) const;

    // The groups of one agent, in the order of the groups; otherwise the same.
    bool walk_groups_of(const std::string& agent, GroupCursor& at, size_t budget,
                        const std::function<bool(const GroupRow&)>& visit) const;

    // For the history, which must know which groups are stale or linger, though no event tells of that: calls
    // visit for each shown group for which this has changed since the last call about it, or with `all` for
    // each one, among `budget` records from the place `at` on, which moves behind them. The place of a group
    // stays the same as long as it is shown. False at the end.
    bool walk_fading(uint32_t& at, size_t budget, bool all,
                     const std::function<void(const GroupRow&)>& visit);
    bool may_have_fading() const; // else that walk visits nothing, unless all are asked for

    // One group of an agent. False where it is not shown.
    bool find_group(const std::string& agent, uint32_t group, GroupRow& row) const;

    // Each agent, in the order of the names.
    void each_agent(const std::function<void(const AgentRow&)>& visit) const;

    size_t agent_count() const;
    size_t group_count() const; // all that are shown
    uint64_t last_seq() const;  // of the last event or rename, 0 before the first

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace zentmon

#endif
