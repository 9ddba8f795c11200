// The interface that the agent is to watch.
#include <algorithm>
#include <net/if_arp.h>

#include "check.h"
#include "listen.h"

namespace zentctl {

namespace {

const Interface* by_name(const std::vector<Interface>& all, const std::string& name)
{
    const auto found = std::ranges::find(all, name, &Interface::name);
    return found == all.end() ? nullptr : &*found;
}

std::string name_of(const std::vector<Interface>& all, int index)
{
    const auto found = std::ranges::find(all, index, &Interface::index);
    return found == all.end() ? "number " + std::to_string(index) : found->name;
}

void check_neighbours(const std::vector<Interface>& all, const Interface& link, Report& report)
{
    if (link.master != 0) {
        const std::string master = name_of(all, link.master);
        const bool is_bridge = link.member_kind == "bridge";
        report.warn(is_bridge ? "bridge-port" : "bond-port",
                    link.name + " is a port of " + (is_bridge ? "the bridge " : "") + master +
                        ": it sees what passes through this port alone",
                    "watch " + master);
    }
    std::string above;
    for (const Interface& other : all) {
        if (other.kind == "vlan" && other.lower == link.index) {
            above += (above.empty() ? "" : ", ") + other.name;
        }
    }
    if (!above.empty()) {
        report.warn("vlans-above",
                    "VLANs stand above " + link.name + ", whose hosts the agent does not read there",
                    "watch " + above);
    }
}

// 10.0.0.1 and so on; false without one.
bool check_address(const std::string& name, Report& report)
{
    const auto address = ipv4_of(name);
    if (!address) {
        report.error("no-ipv4", name + " has no IPv4 address: the agent does not start",
                     "ip address add ADDRESS/LENGTH dev " + name);
        return false;
    }
    report.data.set("address", address_text(*address));
    report.ok("address", name + " has " + address_text(*address));
    return true;
}

bool check_state(const Interface& link, Report& report)
{
    if (!link.is_up) {
        report.error("link-down", link.name + " is down", "ip link set " + link.name + " up");
        return false;
    }
    if (!link.has_carrier) {
        report.error("no-carrier", link.name + " is up but has no carrier",
                     "cable, peer port, or the other end of a pair");
        return false;
    }
    report.ok("link-up", link.name + " is up and has a carrier");
    return true;
}

bool check_kind(const Interface& link, Report& report)
{
    if (link.type == ARPHRD_LOOPBACK) {
        report.warn("loopback", link.name + " is the loopback: no host reports there",
                    "watch the segment's interface");
        return true;
    }
    if (link.type != ARPHRD_ETHER) {
        report.error("not-ethernet",
                     link.name + " is no Ethernet interface (type " + std::to_string(link.type) +
                         "): the agent reads Ethernet frames alone",
                     "watch the interface that the hosts are on");
        return false;
    }
    return true;
}

bool check_right(const std::string& name, Report& report)
{
    try {
        const Listener listener(name);
        report.ok("right", "this user may capture on " + name);
        return true;
    } catch (const CannotLook& error) {
        report.error(error.code, error.what(),
                     error.code == "no-right"
                         ? "sudo zentctl check " + name + "; for the agent: root, zent@" + name +
                               ".service, or setcap cap_net_raw+ep /usr/sbin/zent"
                         : error.cure);
        return false;
    }
}

} // namespace

bool check_link(const std::string& name, Report& report)
{
    if (name == "any") {
        report.error("any-interface",
                     "\"any\" is no interface: its frames are not Ethernet and it has no address",
                     "one agent for each interface");
        return false;
    }
    const std::vector<Interface> all = all_interfaces();
    const Interface* link = by_name(all, name);
    if (link == nullptr) {
        std::string others;
        for (const Interface& other : all) {
            others += (others.empty() ? "" : ", ") + other.name;
        }
        report.error("no-interface", "there is no interface " + name, "one of " + others);
        return false;
    }
    const bool is_alive = check_state(*link, report);
    const bool is_ethernet = check_kind(*link, report);
    check_address(name, report);
    check_neighbours(all, *link, report);
    return link->is_up && check_right(name, report) && is_alive && is_ethernet;
}

} // namespace zentctl
