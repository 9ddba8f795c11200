// The parts of the HTTP side, and who tells whom.
#include "site.h"

#include "log.h"
#include "options.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

namespace {

ApiSources make_sources(const State& state, EventRing& ring, const Counters& counters, HistoryReader* history)
{
    ApiSources sources;
    sources.state = &state;
    sources.ring = &ring;
    sources.counters = &counters;
    sources.history = history;
    sources.version = kVersion;
    return sources;
}

} // namespace

Site::Site(State& state, Counters& counters, HistoryReader* history, std::vector<std::string> hosts)
    : api_(make_sources(state, ring_, counters, history)), server_(api_, std::move(hosts), counters)
{
    state.add_sink(&ring_);
    api_.bind(&server_);
}

int Site::listen(const Endpoint& at)
{
    if (server_.listen(at) != 0) {
        return -1;
    }
    log_norm("the page is served at http://%s/\n", endpoint_text(server_.address()).c_str());
    return 0;
}

int Site::adopt(int fd)
{
    if (server_.adopt(fd) != 0) {
        return -1;
    }
    log_norm("the page is served at http://%s/\n", endpoint_text(server_.address()).c_str());
    return 0;
}

} // namespace zentmon
