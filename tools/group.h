// IPv4 groups as numbers in host byte order and as text.
#ifndef ZENTCTL_GROUP_H
#define ZENTCTL_GROUP_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zentctl {

class Arguments;

inline constexpr uint32_t kFirstGroup = 0xe0000000; // 224.0.0.0
inline constexpr uint32_t kLastGroup = 0xefffffff;  // 239.255.255.255

constexpr bool is_group(uint32_t address)
{
    return address >= kFirstGroup && address <= kLastGroup;
}

// Dotted decimal.
std::string address_text(uint32_t address);

// Four decimal numbers and nothing else; nothing for any other text.
std::optional<uint32_t> parse_address(std::string_view text);

// The agent's range of groups, 0 for a bound that is not set.
struct Range {
    uint32_t least = 0;
    uint32_t most = 0;

    bool is_set() const { return least != 0 || most != 0; }
};

// -g and -G, read and refused as the agent does; throws UsageError.
Range range_of(const Arguments& arguments);

// Gives the agent's own scope this range and no list: in_scope() then answers for the range alone.
void set_agent_range(const Range& range);

// Turns on what the environment variable ZENT_FEATURES says, as the agent does; throws UsageError for a text
// that the agent refuses.
void use_agent_features();

} // namespace zentctl

#endif
