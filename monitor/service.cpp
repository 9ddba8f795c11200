// The protocol of the service manager: datagrams to $NOTIFY_SOCKET, descriptors from 3 on.
#include "service.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "log.h"
#include "names.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

namespace {

constexpr int kFirstPassed = 3;
constexpr int kMostPassed = 64;
constexpr int64_t kStatusPauseMs = 5000;

// A number from the environment; -1 for none.
int64_t number_in(const char* variable)
{
    const char* text = getenv(variable);
    if (text == nullptr || *text == 0) {
        return -1;
    }
    char* end = nullptr;
    const long long value = strtoll(text, &end, 10);
    return *end == 0 && value >= 0 ? value : -1;
}

// Whether a variable is meant for this process: its companion with the process id says so, or is missing.
bool is_for_us(const char* pid_variable)
{
    const int64_t pid = number_in(pid_variable);
    return pid < 0 || pid == getpid();
}

std::vector<std::string> split(const char* text)
{
    std::vector<std::string> parts;
    for (std::string rest = text != nullptr ? text : ""; !rest.empty();) {
        const size_t colon = rest.find(':');
        parts.push_back(rest.substr(0, colon));
        rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    }
    return parts;
}

int socket_option(int fd, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

} // namespace

std::vector<PassedSocket> passed_sockets()
{
    std::vector<PassedSocket> sockets;
    const int64_t count = number_in("LISTEN_PID") == getpid() ? number_in("LISTEN_FDS") : 0;
    const std::vector<std::string> names = split(getenv("LISTEN_FDNAMES"));
    for (int i = 0; i < std::min<int64_t>(count, kMostPassed); ++i) {
        const int fd = kFirstPassed + i;
        fcntl(fd, F_SETFD, FD_CLOEXEC);
        const int type = socket_option(fd, SO_TYPE);
        const bool is_stream = type == SOCK_STREAM && socket_option(fd, SO_ACCEPTCONN) == 1;
        const int family = socket_option(fd, SO_DOMAIN);
        if ((type != SOCK_DGRAM && !is_stream) || (family != AF_INET && family != AF_INET6)) {
            log_warn("passed descriptor %d is neither a datagram socket nor a listening stream socket\n", fd);
            close(fd);
            continue;
        }
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        const auto place = static_cast<size_t>(i);
        const std::string name = place < names.size() ? names[place] : "fd-" + std::to_string(fd);
        sockets.push_back({fd, as_name(name), is_stream});
    }
    unsetenv("LISTEN_PID");
    unsetenv("LISTEN_FDS");
    unsetenv("LISTEN_FDNAMES");
    return sockets;
}

Service::Service(std::function<std::string()> status)
    : status_(std::move(status)),
      status_timer_([this] { tell_status(); }),
      watchdog_timer_([this] { feed_watchdog(); })
{
    const char* path = getenv("NOTIFY_SOCKET");
    if (path != nullptr && (path[0] == '/' || path[0] == '@')) {
        socket_ = path;
    }
    unsetenv("NOTIFY_SOCKET"); // a program of --exec has nothing to say to the service manager
    const int64_t limit = number_in("WATCHDOG_USEC");
    if (!socket_.empty() && limit > 0 && is_for_us("WATCHDOG_PID")) {
        watchdog_ms_ = std::max<int64_t>(limit / 3000, 1); // three signs in the time of one
    }
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
}

void Service::send(const std::string& message) const
{
    struct sockaddr_un to = {};
    if (socket_.empty() || socket_.size() >= sizeof to.sun_path) {
        return;
    }
    to.sun_family = AF_UNIX;
    memcpy(to.sun_path, socket_.data(), socket_.size());
    if (to.sun_path[0] == '@') {
        to.sun_path[0] = 0; // the abstract name space
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    const auto length = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + socket_.size());
    sendto(fd, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<const struct sockaddr*>(&to), length);
    close(fd);
}

void Service::ready()
{
    send("READY=1\nSTATUS=" + status_());
    if (!socket_.empty()) {
        status_timer_.start_ms(kStatusPauseMs);
    }
    feed_watchdog();
}

void Service::reloading()
{
    struct timespec t = {};
    clock_gettime(CLOCK_MONOTONIC, &t);
    send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(t.tv_sec * 1'000'000 + t.tv_nsec / 1000));
}

void Service::reloaded()
{
    send("READY=1");
}

void Service::stopping()
{
    send("STOPPING=1");
}

void Service::tell_status()
{
    send("STATUS=" + status_());
    status_timer_.start_ms(kStatusPauseMs);
}

void Service::feed_watchdog()
{
    if (watchdog_ms_ > 0) {
        send("WATCHDOG=1");
        watchdog_timer_.start_ms(watchdog_ms_);
    }
}

} // namespace zentmon
