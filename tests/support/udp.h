// UDP and TCP ports on loopback for tests that start programs.
#ifndef TESTS_SUPPORT_UDP_H
#define TESTS_SUPPORT_UDP_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace support {

inline sockaddr_in loopback(int port)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    return addr;
}

// A port that nothing uses at the moment, for sockets of a type.
inline int free_port(int type)
{
    const int fd = socket(AF_INET, type, 0);
    sockaddr_in addr = loopback(0);
    socklen_t length = sizeof addr;
    const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) == 0;
    close(fd);
    return ok ? ntohs(addr.sin_port) : 0;
}

// Sends datagrams to a port on loopback.
class UdpSender {
  public:
    explicit UdpSender(int port) : fd_(socket(AF_INET, SOCK_DGRAM, 0)), to_(loopback(port)) {}

    ~UdpSender() { close(fd_); }

    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;

    bool send(const std::string& data) const
    {
        return sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to_),
                      sizeof to_) == static_cast<ssize_t>(data.size());
    }

  private:
    int fd_;
    sockaddr_in to_;
};

} // namespace support

#endif
