// IGMP as it is heard on a segment: one frame read into a message (RFC 1112, RFC 2236, RFC 3376).
#ifndef ZENTCTL_SEGMENT_H
#define ZENTCTL_SEGMENT_H

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace zentctl {

enum class Kind { query, report, leave };

// What one message says of one group. Of a version 3 report each record is one.
struct Saying {
    Kind kind = Kind::report; // report or leave
    uint32_t group = 0;       // host byte order
};

struct Message {
    Kind kind = Kind::query;
    int version = 0;      // 1, 2 or 3
    uint32_t source = 0;  // IPv4 address of the sender, host byte order
    uint32_t group = 0;   // of a query; 0: a general one
    unsigned seconds = 0; // of a version 3 query: the querier's interval; 0: not said
    bool is_tagged = false;
    std::vector<Saying> sayings; // of a report or a leave
};

// Nothing for a frame that is no sound IGMP message: cut, a fragment, a wrong checksum, another type.
std::optional<Message> read_frame(std::span<const uint8_t> frame);

// The checksum of RFC 1071 over bytes in network byte order; 0 over bytes that include their right checksum.
uint16_t checksum(std::span<const uint8_t> bytes);

} // namespace zentctl

#endif
