// The network interfaces of this machine, as the kernel lists them (rtnetlink).
#ifndef ZENTCTL_INTERFACE_H
#define ZENTCTL_INTERFACE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zentctl {

struct Interface {
    int index = 0;
    std::string name;
    bool is_up = false; // by the administrator
    bool has_carrier = false;
    uint16_t type = 0;       // ARPHRD_ number
    std::string kind;        // "bridge", "vlan", "veth"; empty for hardware
    int master = 0;          // index of the bridge or bond that it belongs to; 0: none
    std::string member_kind; // kind of that master
    int lower = 0;           // index of the interface it stands on; 0: none, or one of another namespace
};

// Throws CannotLook.
std::vector<Interface> all_interfaces();

// Its first IPv4 address in host byte order, as the agent looks it up.
std::optional<uint32_t> ipv4_of(const std::string& name);

} // namespace zentctl

#endif
