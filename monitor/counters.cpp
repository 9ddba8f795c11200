// Labels of the counters.
#include "counters.h"

namespace zentmon {

const char* bad_line_name(BadLine reason)
{
    switch (reason) {
    case BadLine::empty: return "empty";
    case BadLine::word: return "word";
    case BadLine::scheme: return "scheme";
    case BadLine::address: return "address";
    case BadLine::group: return "group";
    case BadLine::trailing: return "trailing";
    default: return "truncated";
    }
}

const char* limit_name(Limit what)
{
    switch (what) {
    case Limit::agents: return "agents";
    case Limit::flows: return "flows";
    default: return "groups";
    }
}

const char* output_name(Output sink)
{
    switch (sink) {
    case Output::json: return "json";
    case Output::forward: return "forward";
    case Output::exec: return "exec";
    case Output::mqtt: return "mqtt";
    default: return "log";
    }
}

} // namespace zentmon
