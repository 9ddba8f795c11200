// How the HTTP side reads the history: asked in the thread of the loop, answered there later.
#ifndef ZENTMON_HISTORY_READER_H
#define ZENTMON_HISTORY_READER_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace zentmon {

struct HistoryAnswer {
    bool away = false; // the database is not there now
    std::string json;  // otherwise: {"events":[newest first],"next":id or null}
};

class HistoryReader {
  public:
    // Decoded names and values: group, agent, from, to, limit, before.
    using Parameters = std::vector<std::pair<std::string, std::string>>;

    virtual ~HistoryReader() = default;

    // False for a name or value that is none: nothing is asked then. Otherwise `done` is called once, in the
    // thread of the loop, maybe before this returns.
    virtual bool ask(const Parameters& parameters, std::function<void(HistoryAnswer)> done) = 0;
};

} // namespace zentmon

#endif
