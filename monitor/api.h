// What is served by HTTP: the page, groups, agents, history, events, metrics. Reads the state, changes
// nothing.
#ifndef ZENTMON_API_H
#define ZENTMON_API_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "counters.h"
#include "events.h"
#include "history_reader.h"
#include "http.h"
#include "metrics.h"
#include "state.h"

namespace zentmon {

// What the answers are made from; borrowed for the life of the Api.
struct ApiSources {
    const State* state = nullptr;
    EventRing* ring = nullptr;
    const Counters* counters = nullptr;
    HistoryReader* history = nullptr; // NULL: no --db
    std::string version;
};

class Api : public HttpHandler {
  public:
    explicit Api(ApiSources sources);

    // Where deferred answers go, and who is told of news. To be called once, before the loop runs.
    void bind(HttpServer* server);

    Reply answer(const Request& request, ClientId client) override;

  private:
    Reply groups(const Query& query) const;
    Reply agents() const;
    Reply activity() const;
    Reply events(const Request& request, const Query& query);
    Reply history(const Query& query, ClientId client);
    Reply history_reply(HistoryAnswer answer) const;
    Reply metrics() const;

    ApiSources sources_;
    HttpServer* server_ = nullptr;
    size_t history_pending_ = 0;
    std::shared_ptr<size_t> history_unsent_ = std::make_shared<size_t>(0); // bytes of answers under way
};

} // namespace zentmon

#endif
