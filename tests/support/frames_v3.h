// Ethernet frames with IGMPv3 reports in them (RFC 3376 section 4.2), byte by byte.
#ifndef TESTS_SUPPORT_FRAMES_V3_H
#define TESTS_SUPPORT_FRAMES_V3_H

#include "frames.h"

namespace support {

struct V3Record {
    uint8_t type;
    std::string group;
    unsigned sources = 0; // how many are in it
    uint8_t aux = 0;      // words of auxiliary data
};

inline void put16(std::vector<uint8_t>& bytes, size_t at, size_t value)
{
    bytes[at] = static_cast<uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<uint8_t>(value);
}

inline std::vector<uint8_t> v3_record(const V3Record& record)
{
    std::vector<uint8_t> bytes(8 + 4 * size_t{record.sources} + 4 * size_t{record.aux}, 0xee);
    bytes[0] = record.type;
    bytes[1] = record.aux;
    put16(bytes, 2, record.sources);
    inet_pton(AF_INET, record.group.c_str(), &bytes[4]);
    return bytes;
}

// Where the IGMP message begins in the frames made here: behind the router alert that hosts send.
constexpr size_t kV3Message = 14 + 24;

// The frame of a report with these records; count is what its header says, -1 for how many there are.
inline std::vector<uint8_t> v3_frame(const std::vector<V3Record>& records, int count = -1)
{
    std::vector<uint8_t> frame = igmp_frame({.type = 34, .group = "0.0.0.0", .ihl = 6});
    put16(frame, kV3Message + 6, count < 0 ? records.size() : static_cast<size_t>(count));
    for (const V3Record& record : records) {
        const std::vector<uint8_t> bytes = v3_record(record);
        frame.insert(frame.end(), bytes.begin(), bytes.end());
    }
    put16(frame, 14 + 2, frame.size() - 14);
    return frame;
}

inline std::vector<uint8_t> general_query_frame()
{
    return igmp_frame({.type = 17, .group = "0.0.0.0"});
}

// A general query of version 3 as a querier at 10.0.0.1 sends it, answered within a second.
inline std::vector<uint8_t> v3_query_frame()
{
    std::vector<uint8_t> frame = general_query_frame();
    const uint8_t all_hosts[] = {0x01, 0x00, 0x5e, 0x00, 0x00, 0x01};
    memcpy(frame.data(), all_hosts, sizeof all_hosts);
    frame.resize(frame.size() + 4);
    uint8_t* ip = frame.data() + 14;
    ip[3] = 32;
    inet_pton(AF_INET, "10.0.0.1", ip + 12);
    inet_pton(AF_INET, "224.0.0.1", ip + 16);
    put16(frame, 14 + 10, 0);
    put16(frame, 14 + 10, checksum(ip, 20));
    uint8_t* igmp = ip + 20;
    igmp[1] = 10;  // tenths of a second
    igmp[8] = 2;   // robustness
    igmp[9] = 125; // interval
    put16(frame, 34 + 2, 0);
    put16(frame, 34 + 2, checksum(igmp, 12));
    return frame;
}

} // namespace support

#endif
