// The records of agents and their flows.
#ifndef ZENTMON_AGENTS_H
#define ZENTMON_AGENTS_H

#include <array>
#include <bit>
#include <cstdint>
#include <memory>

#include "entries.h"
#include "event.h"

namespace zentmon {

constexpr int kFlows = 64; // a bit each in Entry::holders
constexpr int kNoFlow = -1;

// One life of an agent's process.
struct Flow {
    uint16_t port = 0;
    bool ended = false;         // an earlier life on the same port: nothing that arrives is its own
    bool restored = false;      // from the history: whoever speaks first is this flow
    bool restarted = false;     // its appearance was counted as a restart
    uint64_t order = 0;         // of appearance
    uint64_t made_stale_by = 0; // order of the flow whose appearance did it; 0: none
    int64_t stale_since = 0;    // monotonic, milliseconds
    uint32_t groups = 0;        // that it holds
};

struct Agent {
    std::shared_ptr<const AgentName> name;
    std::array<Flow, kFlows> flows{};
    uint64_t used = 0;  // a bit for each flow there is
    uint64_t stale = 0; // and for each whose process is taken to be gone
    uint64_t next_order = 0;
    int8_t last_flow = kNoFlow; // that spoke
    bool warned = false;        // about two processes on one listener
    int64_t merged_at = INT64_MIN / 2;

    uint32_t first_entry = kNoEntry;
    uint32_t sweep = kNoEntry; // where expiring or forgetting goes on; kNoEntry: at the beginning
    uint32_t entries = 0;      // in its list
    uint32_t shown = 0;        // groups that are held or linger
    uint32_t lingering = 0;
    mutable uint32_t stale_groups = 0; // as counted last
    mutable bool recount = false;

    int64_t first_ms = 0; // Unix time
    int64_t last_ms = 0;
    int64_t heard_mono_ms = 0;
    uint64_t joins = 0;
    uint64_t leaves = 0;
    uint64_t restarts = 0;

    static uint64_t bit(int flow) { return uint64_t{1} << flow; }

    bool is_stale(int flow) const { return (stale & bit(flow)) != 0; }

    // The flow of a port, or kNoFlow.
    int find_flow(uint16_t port);

    // A free place for a flow, or kNoFlow; at most limit of them are used.
    int free_flow(size_t limit) const;

    // The flow of a mask that appeared first, or last; kNoFlow for none.
    int oldest_of(uint64_t mask) const;
    int youngest_of(uint64_t mask) const;

    // The flow of that order, or kNoFlow.
    int flow_of_order(uint64_t order) const;
};

// Calls visit for the number of each bit of a mask.
template <typename Visit>
void each_bit(uint64_t mask, Visit visit)
{
    for (; mask != 0; mask &= mask - 1) {
        visit(std::countr_zero(mask));
    }
}

} // namespace zentmon

#endif
