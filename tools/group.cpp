// Groups as text, and the agent's range.
#include "group.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstdlib>
#include <netinet/in.h>

#include "command.h"
#include "zent.h"

namespace zentctl {

namespace {

uint32_t bound_of(const Arguments& arguments, const char* option)
{
    if (!arguments.has(option)) {
        return 0;
    }
    const std::string text = arguments.value(option);
    in_addr address = {};
    if (inet_aton(text.c_str(), &address) == 0) {
        throw UsageError(std::string(option) + " " + text + ": not an address");
    }
    if (!is_group(ntohl(address.s_addr))) {
        throw UsageError(std::string(option) + " " + text + ": not a multicast address");
    }
    return ntohl(address.s_addr);
}

} // namespace

std::string address_text(uint32_t address)
{
    return group_text(static_cast<int32_t>(htonl(address)));
}

std::optional<uint32_t> parse_address(std::string_view text)
{
    uint32_t address = 0;
    const char* at = text.data();
    const char* const end = at + text.size();
    for (int part = 0; part < 4; ++part) {
        unsigned octet = 0;
        const auto [rest, error] = std::from_chars(at, end, octet);
        const auto length = rest - at;
        if (error != std::errc() || octet > 255 || length > 3 || (length > 1 && *at == '0')) {
            return {};
        }
        address = address << 8 | octet;
        at = rest;
        if (part < 3 && (at == end || *at++ != '.')) {
            return {};
        }
    }
    return at == end ? std::optional(address) : std::nullopt;
}

Range range_of(const Arguments& arguments)
{
    const Range range{bound_of(arguments, "-g"), bound_of(arguments, "-G")};
    if (range.least != 0 && range.most != 0 && range.least > range.most) {
        throw UsageError("-g " + address_text(range.least) + " is above -G " + address_text(range.most));
    }
    return range;
}

void set_agent_range(const Range& range)
{
    g_cfg.min_group = range.least;
    g_cfg.max_group = range.most;
    if (g_ctx.scope_ht != 0) {
        nkht_destroy(g_ctx.scope_ht, nullptr);
        g_ctx.scope_ht = 0;
    }
}

void use_agent_features()
{
    char complaint[256] = "";
    if (parse_features(getenv("ZENT_FEATURES"), &g_cfg.features, complaint, sizeof complaint) != 0) {
        throw UsageError(complaint);
    }
}

} // namespace zentctl
