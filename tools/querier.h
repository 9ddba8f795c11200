// The querier of RFC 2236 as a machine without clock and socket: it is told what is heard and what time it
// is, and says what to send.
#ifndef ZENTCTL_QUERIER_H
#define ZENTCTL_QUERIER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "segment.h"

namespace zentctl {

// One query to send.
struct Query {
    uint32_t group = 0;    // host byte order; 0: a general one, to 224.0.0.1
    unsigned response = 0; // in tenths of a second
};

class Querier {
  public:
    // own: the address that queries are sent from. Times are milliseconds of one clock.
    Querier(uint32_t own, int64_t interval_ms, int64_t now_ms);

    // Takes note of another's message.
    void hear(const Message& message, int64_t now_ms);

    // What is due. To be sent in this order.
    std::vector<Query> due(int64_t now_ms);

    // When due() is to be asked next.
    int64_t next_ms() const;

    // What changed since the last call, for the operator, one text a line.
    std::vector<std::string> news();

    bool is_elected() const { return elected_; }

  private:
    struct Left {
        int queries;     // to be sent yet
        int64_t next_ms; // when
    };

    void hear_query(const Message& message, int64_t now_ms);
    void hear_leave(const Message& message, uint32_t group, int64_t now_ms);

    uint32_t own_;
    int64_t interval_ms_;
    bool elected_ = true;
    uint32_t other_ = 0; // the elected querier, if it is another
    int64_t other_until_ms_ = 0;
    int64_t next_general_ms_;
    int startup_left_ = 2; // general queries at start-up to be sent yet
    bool warned_of_version3_ = false;
    std::map<uint32_t, Left> left_;
    std::vector<std::string> news_;
};

} // namespace zentctl

#endif
