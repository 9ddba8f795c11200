// A raw socket on one interface, and the lock of its querier.
#include "sender.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "command.h"
#include "igmp.h"

namespace zentctl {

namespace {

constexpr uint32_t kAllHosts = 0xe0000001;             // 224.0.0.1
constexpr uint8_t kRouterAlert[] = {0x94, 0x04, 0, 0}; // RFC 2113
constexpr int kInternetControl = 0xc0;                 // RFC 791, as routers send
constexpr int kNoFragmentBit = IP_PMTUDISC_DONT;

template <class Value>
bool set(int fd, int option, const Value& value)
{
    return setsockopt(fd, IPPROTO_IP, option, &value, sizeof value) == 0;
}

bool set_up(int fd, const std::string& interface, int index, uint32_t own)
{
    ip_mreqn out = {};
    out.imr_ifindex = index;
    out.imr_address.s_addr = htonl(own);
    sockaddr_in from = {};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = htonl(own);
    return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                      static_cast<socklen_t>(interface.size())) == 0 &&
           bind(fd, reinterpret_cast<const sockaddr*>(&from), sizeof from) == 0 &&
           set(fd, IP_MULTICAST_IF, out) && set(fd, IP_MULTICAST_TTL, 1) &&
           set(fd, IP_TOS, kInternetControl) && set(fd, IP_MTU_DISCOVER, kNoFragmentBit) &&
           set(fd, IP_OPTIONS, kRouterAlert);
}

} // namespace

std::array<uint8_t, 8> query_bytes(const Query& query)
{
    std::array<uint8_t, 8> bytes = {IGMP_QRY, static_cast<uint8_t>(query.response)};
    for (int i = 0; i < 4; ++i) {
        bytes[4U + static_cast<size_t>(i)] = static_cast<uint8_t>(query.group >> (24 - 8 * i));
    }
    const uint16_t sum = checksum(bytes);
    bytes[2] = static_cast<uint8_t>(sum >> 8);
    bytes[3] = static_cast<uint8_t>(sum);
    return bytes;
}

Sender::Sender(const std::string& interface, int index, uint32_t own)
    : fd_(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_IGMP))
{
    if (fd_ >= 0 && set_up(fd_, interface, index, own)) {
        return;
    }
    const int error = errno;
    if (fd_ >= 0) {
        close(fd_);
    }
    throw CannotLook(error == EPERM ? "no-right" : "send-failed",
                     interface + ": a socket to send queries: " + strerror(error),
                     error == EPERM ? "run it as root or with CAP_NET_RAW" : "");
}

Sender::~Sender()
{
    close(fd_);
}

bool Sender::send(const Query& query) const
{
    const auto bytes = query_bytes(query);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(query.group == 0 ? kAllHosts : query.group);
    return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) ==
           static_cast<ssize_t>(bytes.size());
}

QuerierLock::QuerierLock(int index) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    // An abstract name: no directory that an unprivileged user would have to write to, and nothing stays
    // behind.
    const std::string name = "zentctl-query-" + std::to_string(index);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, name.data(), name.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (fd_ < 0 || bind(fd_, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        const int error = errno;
        if (fd_ >= 0) {
            close(fd_);
        }
        if (error == EADDRINUSE) {
            throw CannotLook("lock-held", "another zentctl query runs on this interface",
                             "one is enough: systemctl status 'zent-querier@*'");
        }
        throw CannotLook("internal", std::string("the lock of the interface: ") + strerror(error));
    }
}

QuerierLock::~QuerierLock()
{
    close(fd_);
}

} // namespace zentctl
