// The HTTP side as a whole: the ring of events, what is answered, the server.
#ifndef ZENTMON_SITE_H
#define ZENTMON_SITE_H

#include "api.h"
#include "config.h"
#include "counters.h"
#include "events.h"
#include "http.h"
#include "state.h"

namespace zentmon {

class Site {
  public:
    // Registers with the state. history: NULL without one. All is borrowed.
    Site(State& state, Counters& counters, HistoryReader* history, std::vector<std::string> hosts);

    // Listens at an address: 0, or -1 with errno and a line.
    int listen(const Endpoint& at);

    // Takes over a listening stream socket. 0, or -1 with a line.
    int adopt(int fd);

    void set_hosts(std::vector<std::string> hosts) { server_.set_hosts(std::move(hosts)); }

  private:
    EventRing ring_;
    Api api_;
    HttpServer server_;
};

} // namespace zentmon

#endif
