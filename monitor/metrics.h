// /metrics: the figures of the process in the text format of Prometheus, 0.0.4.
#ifndef ZENTMON_METRICS_H
#define ZENTMON_METRICS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "counters.h"
#include "http.h"
#include "state.h"

namespace zentmon {

// What the intake tells of a listener.
struct ListenerFigures {
    std::string name;
    uint64_t datagrams = 0;
    uint64_t dropped = 0; // by the kernel, for want of room in the buffer
};

// The body of /metrics: a family of figures a piece.
std::unique_ptr<Body> make_metrics(const State& state, const Counters& counters,
                                   std::vector<ListenerFigures> listeners, std::string version);

} // namespace zentmon

#endif
