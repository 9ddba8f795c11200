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

// Whether nothing is bound to a port of loopback now.
inline bool is_free_port(int port, int type)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const sockaddr_in addr = loopback(port);
    const int reuse = type == SOCK_STREAM ? 1 : 0; // a connection that is over does not hold its port
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    const bool is_free = bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return is_free;
}

// A port that nothing uses at the moment, for sockets of a type. Each process has ports of its own to choose
// from, below those that the system gives out: a port of the system's choice could be another test's before
// it is used.
inline uint16_t free_port(int type)
{
    constexpr int first = 10'000;
    constexpr int owners = 2'500;
    constexpr int each = 8;
    static int turn = 0;
    for (int i = 0; i < each; ++i) {
        const int port = first + getpid() % owners * each + turn++ % each;
        if (is_free_port(port, type)) {
            return static_cast<uint16_t>(port);
        }
    }
    return 0;
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
