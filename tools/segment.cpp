// Frames with IGMP in them, read within what was captured and what the IP header claims.
#include "segment.h"

#include "igmp.h"

namespace zentctl {

namespace {

constexpr size_t kEther = 14;
constexpr size_t kVlanTag = 4;
constexpr size_t kRecord = 8;
constexpr uint8_t kIgmp3Report = 0x22;

// Record types of RFC 3376, 4.2.12.
enum : uint8_t { kIsInclude = 1, kIsExclude = 2, kToInclude = 3, kToExclude = 4, kAllow = 5 };

uint16_t word(std::span<const uint8_t> bytes, size_t at)
{
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

uint32_t address(std::span<const uint8_t> bytes, size_t at)
{
    return uint32_t{word(bytes, at)} << 16 | word(bytes, at + 2);
}

// Removes up to two VLAN tags and the Ethernet header; nothing if no IPv4 follows.
std::optional<std::span<const uint8_t>> ip_of(std::span<const uint8_t> frame, bool& is_tagged)
{
    size_t at = kEther;
    for (int tags = 0; tags < 2 && frame.size() >= at + kVlanTag; ++tags) {
        const uint16_t type = word(frame, at - 2);
        if (type != 0x8100 && type != 0x88a8) {
            break;
        }
        is_tagged = true;
        at += kVlanTag;
    }
    if (frame.size() < at || word(frame, at - 2) != 0x0800) {
        return {};
    }
    return frame.subspan(at);
}

// The IGMP message behind the IP header; nothing unless all of it is there.
std::optional<std::span<const uint8_t>> igmp_of(std::span<const uint8_t> ip)
{
    if (ip.size() < 20 || ip[0] >> 4 != 4 || ip[9] != 2) {
        return {};
    }
    const size_t header = size_t{4} * (ip[0] & 15);
    const size_t total = word(ip, 2);
    const bool is_later_fragment = (word(ip, 6) & 0x1fff) != 0;
    if (header < 20 || total < header + 8 || total > ip.size() || is_later_fragment) {
        return {};
    }
    const auto igmp = ip.subspan(header, total - header);
    return checksum(igmp) == 0 ? std::optional(igmp) : std::nullopt;
}

// The code of RFC 3376, 4.1.7: a number below 128, or mantissa and exponent.
unsigned seconds_of(uint8_t code)
{
    return code < 128 ? code : ((code & 15U) | 16U) << ((code >> 4 & 7U) + 3U);
}

void read_query(std::span<const uint8_t> igmp, Message& message)
{
    message.kind = Kind::query;
    message.group = address(igmp, 4);
    if (igmp.size() >= 12) {
        message.version = 3;
        message.seconds = seconds_of(igmp[9]);
    } else {
        message.version = igmp[1] == 0 ? 1 : 2;
    }
}

// What a record of a version 3 report means for its group; nothing where it changes nothing.
std::optional<Kind> meaning(uint8_t type, unsigned sources)
{
    switch (type) {
    case kIsExclude:
    case kToExclude: return Kind::report;
    case kIsInclude:
    case kAllow: return sources > 0 ? std::optional(Kind::report) : std::nullopt;
    case kToInclude: return sources > 0 ? Kind::report : Kind::leave;
    default: return {};
    }
}

void read_version3_report(std::span<const uint8_t> igmp, Message& message)
{
    message.kind = Kind::report;
    message.version = 3;
    size_t at = 8;
    for (unsigned count = word(igmp, 6); count > 0 && igmp.size() >= at + kRecord; --count) {
        const unsigned sources = word(igmp, at + 2);
        const size_t length = kRecord + size_t{4} * sources + size_t{4} * igmp[at + 1];
        if (igmp.size() < at + length) {
            return; // cut: what stood in front of it counts
        }
        if (const auto kind = meaning(igmp[at], sources)) {
            message.sayings.push_back({*kind, address(igmp, at + 4)});
        }
        at += length;
    }
}

bool read_igmp(std::span<const uint8_t> igmp, Message& message)
{
    switch (igmp[0]) {
    case IGMP_QRY: read_query(igmp, message); return true;
    case IGMP1_RPT:
    case IGMP2_RPT:
        message.kind = Kind::report;
        message.version = igmp[0] == IGMP1_RPT ? 1 : 2;
        break;
    case IGMP2_LEAVE:
        message.kind = Kind::leave;
        message.version = 2;
        break;
    case kIgmp3Report: read_version3_report(igmp, message); return true;
    default: return false;
    }
    message.sayings.push_back({message.kind, address(igmp, 4)});
    return true;
}

} // namespace

uint16_t checksum(std::span<const uint8_t> bytes)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        sum += i % 2 == 0 ? uint32_t{bytes[i]} << 8 : bytes[i];
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

std::optional<Message> read_frame(std::span<const uint8_t> frame)
{
    Message message;
    const auto ip = ip_of(frame, message.is_tagged);
    const auto igmp = ip ? igmp_of(*ip) : std::nullopt;
    if (!igmp || !read_igmp(*igmp, message)) {
        return {};
    }
    message.source = address(*ip, 12);
    return message;
}

} // namespace zentctl
