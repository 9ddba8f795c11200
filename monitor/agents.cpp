// Flows of an agent.
#include "agents.h"

namespace zentmon {

int Agent::find_flow(uint16_t port)
{
    const auto is_it = [&](int flow) {
        const Flow& f = flows[static_cast<size_t>(flow)];
        return (used & bit(flow)) != 0 && f.port == port && !f.ended && !f.restored;
    };
    if (last_flow != kNoFlow && is_it(last_flow)) {
        return last_flow;
    }
    for (uint64_t left = used; left != 0; left &= left - 1) {
        if (is_it(std::countr_zero(left))) {
            return std::countr_zero(left);
        }
    }
    return kNoFlow;
}

int Agent::free_flow(size_t limit) const
{
    const bool full = static_cast<size_t>(std::popcount(used)) >= limit;
    return full ? kNoFlow : std::countr_one(used);
}

int Agent::oldest_of(uint64_t mask) const
{
    int oldest = kNoFlow;
    each_bit(mask, [&](int flow) {
        if (oldest == kNoFlow ||
            flows[static_cast<size_t>(flow)].order < flows[static_cast<size_t>(oldest)].order) {
            oldest = flow;
        }
    });
    return oldest;
}

int Agent::youngest_of(uint64_t mask) const
{
    int youngest = kNoFlow;
    each_bit(mask, [&](int flow) {
        if (youngest == kNoFlow ||
            flows[static_cast<size_t>(flow)].order > flows[static_cast<size_t>(youngest)].order) {
            youngest = flow;
        }
    });
    return youngest;
}

int Agent::flow_of_order(uint64_t order) const
{
    int found = kNoFlow;
    each_bit(used, [&](int flow) { found = flows[static_cast<size_t>(flow)].order == order ? flow : found; });
    return found;
}

} // namespace zentmon
