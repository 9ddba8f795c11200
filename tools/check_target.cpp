// The relay: name, port, route, and whether anybody listens.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "check.h"
#include "wopen.h"

namespace zentctl {

namespace {

constexpr int kRefusalMs = 1000;
constexpr long kPortMax = 65535;

struct Target {
    std::string host;
    std::string port;
};

// "HOST:PORT" or "[HOST]:PORT"; nothing for a text without a port.
std::optional<Target> split(const std::string& text)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
        return {};
    }
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    return Target{host, text.substr(colon + 1)};
}

bool check_port(const std::string& text, Report& report)
{
    if (text.find_first_not_of("0123456789") != std::string::npos) {
        report.error("bad-target", "the port \"" + text + "\" is no number",
                     "--target ADDRESS:PORT, 10.0.0.5:4554 for instance");
        return false;
    }
    const long port = text.size() > 9 ? kPortMax + 1 : strtol(text.c_str(), nullptr, 10);
    if (port > kPortMax) {
        report.error("port-wraps",
                     "the port " + text + " is above 65535" +
                         (text.size() > 9 ? "" : ": the agent sends to " + std::to_string(port & kPortMax)),
                     "a port from 1 to 65535");
        return false;
    }
    if (port == 0) {
        report.error("bad-target", "nobody listens on port 0", "a port from 1 to 65535");
        return false;
    }
    return true;
}

using Addresses = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

Addresses resolve(const Target& target, Report& report)
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int code = getaddrinfo(target.host.c_str(), target.port.c_str(), &hints, &found);
    if (code != 0) {
        report.error("no-address", "the name " + target.host + " does not resolve: " + gai_strerror(code),
                     "an address in place of the name, or mend the name service");
        found = nullptr;
    }
    return {found, freeaddrinfo};
}

class Socket {
  public:
    explicit Socket(int family) : fd_(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}

    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    ~Socket()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    int get() const { return fd_; }

  private:
    int fd_;
};

// Sends one empty datagram and waits for the refusal. 0, or the error that came.
int knock(const Socket& knocker)
{
    if (send(knocker.get(), "", 0, 0) < 0) {
        return errno;
    }
    pollfd wait = {knocker.get(), POLLIN, 0};
    int error = 0;
    socklen_t length = sizeof error;
    if (poll(&wait, 1, kRefusalMs) > 0) {
        getsockopt(knocker.get(), SOL_SOCKET, SO_ERROR, &error, &length);
    }
    return error;
}

void check_road(const addrinfo& address, const std::string& target, Report& report)
{
    const Socket knocker(address.ai_family);
    const bool is_connected = connect(knocker.get(), address.ai_addr, address.ai_addrlen) == 0;
    const int error = is_connected ? knock(knocker) : errno;
    switch (error) {
    case 0:
        report.ok("port-open",
                  target + " is open or filtered: nothing refused an empty datagram within a second");
        break;
    case ECONNREFUSED:
        report.error("port-closed", target + " is closed: nobody listens there",
                     "start the receiver; to see the lines: socat -u UDP4-RECV:PORT STDOUT");
        break;
    default:
        report.error("no-route", "no way to " + target + ": " + strerror(error), "ip route get ADDRESS");
        break;
    }
}

// The agent's own way of opening the target has the last word.
void check_agents_word(const std::string& target, Report& report)
{
    usock_ctx context = {};
    context.non_blocking = true;
    const int fd = usock_open(("udp://" + target).c_str(), &context);
    usock_close(fd, &context);
    if (fd < 0) {
        report.error("bad-target", "the agent cannot open " + target,
                     "--target ADDRESS:PORT, 10.0.0.5:4554 for instance");
    }
}

} // namespace

void check_target(const std::string& text, Report& report)
{
    report.data.set("target", text);
    const auto target = split(text);
    if (!target) {
        report.error("bad-target", "\"" + text + "\" has no port: the agent does not start",
                     "ADDRESS:PORT, 10.0.0.5:4554 for instance");
        return;
    }
    if (!check_port(target->port, report)) {
        return;
    }
    const Addresses addresses = resolve(*target, report);
    if (addresses) {
        check_road(*addresses, text, report);
        check_agents_word(text, report);
    }
}

} // namespace zentctl
