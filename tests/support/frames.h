// Ethernet frames with IGMP in them, byte by byte.
#ifndef TESTS_SUPPORT_FRAMES_H
#define TESTS_SUPPORT_FRAMES_H

#include <arpa/inet.h>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace support {

// What stands in a frame; the defaults make a sound IGMPv2 report from 10.0.0.2.
struct FrameSpec {
    uint8_t type = 22;
    std::string group = "239.1.2.3";
    uint16_t ether_type = 0x0800;
    uint8_t version = 4;
    uint8_t ihl = 5; // in words; options are filled with zeros
    uint8_t protocol = 2;
    size_t cut = 0;    // bytes to keep; 0: all
    size_t padded = 0; // length to fill up to with zeros; 0: none
};

inline uint16_t checksum(const uint8_t* at, size_t count)
{
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < count; i += 2) {
        sum += static_cast<uint32_t>(at[i] << 8 | at[i + 1]);
    }
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

inline std::vector<uint8_t> igmp_frame(const FrameSpec& spec)
{
    // The IP header takes at least its fixed part, whatever the length field claims.
    const size_t ip_length = spec.ihl >= 5 ? spec.ihl * 4U : 20;
    std::vector<uint8_t> frame(14 + ip_length + 8, 0);
    const uint8_t ether[] = {0x01, 0x00, 0x5e, 0x01, 0x02, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
    memcpy(frame.data(), ether, sizeof ether);
    frame[12] = static_cast<uint8_t>(spec.ether_type >> 8);
    frame[13] = static_cast<uint8_t>(spec.ether_type);
    uint8_t* ip = frame.data() + 14;
    ip[0] = static_cast<uint8_t>(spec.version << 4 | spec.ihl);
    ip[3] = static_cast<uint8_t>(ip_length + 8);
    ip[8] = 1;
    ip[9] = spec.protocol;
    inet_pton(AF_INET, "10.0.0.2", ip + 12);
    inet_pton(AF_INET, spec.group.c_str(), ip + 16);
    const uint16_t ip_sum = checksum(ip, ip_length);
    ip[10] = static_cast<uint8_t>(ip_sum >> 8);
    ip[11] = static_cast<uint8_t>(ip_sum);
    uint8_t* igmp = ip + ip_length;
    igmp[0] = spec.type;
    inet_pton(AF_INET, spec.group.c_str(), igmp + 4);
    const uint16_t igmp_sum = checksum(igmp, 8);
    igmp[2] = static_cast<uint8_t>(igmp_sum >> 8);
    igmp[3] = static_cast<uint8_t>(igmp_sum);
    if (spec.cut != 0 && spec.cut < frame.size()) {
        frame.resize(spec.cut);
    }
    if (spec.padded > frame.size()) {
        frame.resize(spec.padded, 0);
    }
    return frame;
}

inline std::vector<uint8_t> report_frame(const std::string& group)
{
    return igmp_frame({.group = group});
}

inline std::vector<uint8_t> leave_frame(const std::string& group)
{
    return igmp_frame({.type = 23, .group = group});
}

} // namespace support

#endif
