// A block of groups as a text names it.
#ifndef ZENTCTL_EXPAND_H
#define ZENTCTL_EXPAND_H

#include <cstdint>
#include <optional>
#include <string>

namespace zentctl {

// Addresses from first to last, both in host byte order and both included.
struct Span {
    uint32_t first = 0;
    uint32_t last = 0;
    bool has_host_bits = false; // a prefix whose address was not its first one
};

// "239.1.1.1", "239.1.0.0/24" or "239.1.1.1-239.1.1.50"; nothing for any other text. Whether it is multicast
// is not asked.
std::optional<Span> parse_span(const std::string& text);

} // namespace zentctl

#endif
