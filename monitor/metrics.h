// /metrics: the figures of the process in the text format of Prometheus, 0.0.4.
#ifndef ZENTMON_METRICS_H
#define ZENTMON_METRICS_H

#include <memory>
#include <string>

#include "counters.h"
#include "http.h"
#include "state.h"

namespace zentmon {

// The body of /metrics: a family of figures a piece.
std::unique_ptr<Body> make_metrics(const State& state, const Counters& counters, std::string version);

} // namespace zentmon

#endif
