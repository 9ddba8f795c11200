#include "agent_run.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "wait.h"

namespace support {

namespace {

[[noreturn]] void fail(const char* what)
{
    perror(what);
    abort();
}

ip_mreqn membership(const std::string& group)
{
    ip_mreqn request = {};
    inet_pton(AF_INET, group.c_str(), &request.imr_multiaddr);
    request.imr_ifindex = static_cast<int>(if_nametoindex("vb"));
    return request;
}

// "socket:[INODE]" of each socket of a process, among its other files.
std::set<std::string> files_of(pid_t pid)
{
    std::set<std::string> files;
    std::error_code failure; // a process that ends meanwhile has none
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd", failure);
    for (const auto& entry : all) {
        files.insert(std::filesystem::read_symlink(entry.path(), failure).string());
    }
    return files;
}

// Whether a process has a packet socket that is bound; in its kind, column 4, an unbound one has 0000.
bool has_bound_packet_socket(pid_t pid)
{
    const std::set<std::string> files = files_of(pid);
    std::istringstream sockets(read_file("/proc/" + std::to_string(pid) + "/net/packet"));
    for (std::string line; std::getline(sockets, line);) {
        std::istringstream fields(line);
        std::string address, references, type, protocol, interface, running, memory, user, inode;
        fields >> address >> references >> type >> protocol >> interface >> running >> memory >> user >>
            inode;
        if (protocol == "0003" && files.contains("socket:[" + inode + "]")) { // ETH_P_ALL
            return true;
        }
    }
    return false;
}

// Whether the process is in poll(); true, too, where the kernel does not tell.
bool is_polling(pid_t pid)
{
    const std::string call = read_file("/proc/" + std::to_string(pid) + "/syscall");
    bool polls = call.empty() || call.starts_with(std::to_string(SYS_ppoll) + " ");
#ifdef SYS_poll
    polls = polls || call.starts_with(std::to_string(SYS_poll) + " ");
#endif
    return polls;
}

} // namespace

SegmentHost::SegmentHost(const NetnsPair& pair) : pair_(pair)
{
    pair_.enter_b();
    raw_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex("vb"));
    if (raw_ < 0 || bind(raw_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("packet socket");
    }
    pair_.leave();
}

SegmentHost::~SegmentHost()
{
    for (const Membership& member : members_) {
        close(member.fd);
    }
    close(raw_);
}

void SegmentHost::use_igmp(int version) const
{
    inside(pair_, &NetnsPair::enter_b, [&] {
        for (const char* place : {"all", "vb"}) {
            std::ofstream("/proc/sys/net/ipv4/conf/" + std::string(place) + "/force_igmp_version") << version;
        }
        return 0;
    });
}

void SegmentHost::join(const std::string& group)
{
    inside(pair_, &NetnsPair::enter_b, [&] {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const ip_mreqn request = membership(group);
        if (fd < 0 || setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) != 0) {
            fail("IP_ADD_MEMBERSHIP");
        }
        members_.push_back({group, fd});
        return 0;
    });
}

void SegmentHost::leave(const std::string& group)
{
    std::erase_if(members_, [&](const Membership& member) {
        if (member.group != group) {
            return false;
        }
        close(member.fd);
        return true;
    });
}

void SegmentHost::send(const std::vector<uint8_t>& frame) const
{
    if (::send(raw_, frame.data(), frame.size(), 0) != static_cast<ssize_t>(frame.size())) {
        fail("send");
    }
}

Process start_in_a(const NetnsPair& pair, const std::vector<std::string>& argv)
{
    return Process(argv, [&] { pair.enter_a(); });
}

bool wait_for_capture(pid_t pid)
{
    return wait_until([&] { return has_bound_packet_socket(pid) && is_polling(pid); });
}

bool wait_for_file(const std::string& path, const std::string& text)
{
    return wait_until([&] { return read_file(path).find(text) != std::string::npos; });
}

} // namespace support
