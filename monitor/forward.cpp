// The union of all agents, as lines to one more receiver.
#include "forward.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log.h"
#include "syswrap.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

namespace {

// What waits goes out in pieces of this size at this pace: 20,000 lines a second, which a receiver takes with
// the smallest usual buffer.
constexpr size_t kPiece = 200;
constexpr int64_t kPauseMs = 10;

// Between attempts where there is no way to the receiver.
constexpr int64_t kBrokenMs = 1000;

uint16_t port_of(const Endpoint& e)
{
    return e.ss.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(e.ss).sin6_port
                                      : reinterpret_cast<const sockaddr_in&>(e.ss).sin_port;
}

// The 16 bytes of an address; an IPv4 address as an IPv4-mapped one, "any" of both families as zeros.
in6_addr address_of(const Endpoint& e)
{
    if (e.ss.ss_family == AF_INET6) {
        return reinterpret_cast<const sockaddr_in6&>(e.ss).sin6_addr;
    }
    const in_addr v4 = reinterpret_cast<const sockaddr_in&>(e.ss).sin_addr;
    in6_addr mapped = {};
    if (v4.s_addr != 0) {
        mapped.s6_addr[10] = mapped.s6_addr[11] = 0xff;
        memcpy(&mapped.s6_addr[12], &v4, sizeof v4);
    }
    return mapped;
}

// An address of this machine is one that can be bound.
bool is_of_this_machine(const Endpoint& e)
{
    sockaddr_storage ss = e.ss;
    (e.ss.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(ss).sin6_port
                                : reinterpret_cast<sockaddr_in&>(ss).sin_port) = 0;
    const int fd = socket(ss.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    const bool bound = bind(fd, reinterpret_cast<const sockaddr*>(&ss), e.len) == 0;
    close(fd);
    return bound;
}

} // namespace

bool is_own_listener(const Endpoint& target, const std::vector<Endpoint>& listeners)
{
    const in6_addr to = address_of(target);
    for (const Endpoint& listener : listeners) {
        if (port_of(listener) != port_of(target)) {
            continue;
        }
        const in6_addr at = address_of(listener);
        if (IN6_ARE_ADDR_EQUAL(&at, &to)) {
            return true;
        }
        // Sending to "any" reaches the machine itself, and a listener at "any" takes all of its addresses.
        if (IN6_IS_ADDR_UNSPECIFIED(&to) || (IN6_IS_ADDR_UNSPECIFIED(&at) && is_of_this_machine(target))) {
            return true;
        }
    }
    return false;
}

Forward::Forward()
    : timer_([this] {
          const int64_t wait = flush();
          if (wait >= 0) {
              timer_.start_ms(wait);
          }
      })
{
}

Forward::~Forward()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

int Forward::start(const Endpoint& target)
{
    fd_ = W_socket("forward", target.ss.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) {
        return -1;
    }
    if (W_connect("forward", fd_, reinterpret_cast<const sockaddr*>(&target.ss), target.len) != 0) {
        return -1;
    }
    return 0;
}

void Forward::seed(const State& state)
{
    GroupCursor at;
    while (state.walk_groups(at, SIZE_MAX, [this](const GroupRow& row) {
        Group& entry = groups_[row.group];
        if (entry.agents++ == 0) {
            put_off(row.group, entry);
        }
        return true;
    })) {
    }
}

void Forward::on_event(const Event& event)
{
    Group& entry = groups_[event.group];
    if (event.kind == EventKind::join) {
        ++entry.agents;
    } else if (entry.agents > 0) {
        --entry.agents;
    }
    if (entry.due) {
        return;
    }
    // What waits goes first: the receiver's buffer is full, or ours.
    if (!due_.empty() || !bring_up_to_date(event.group, entry)) {
        put_off(event.group, entry);
    } else if (entry.agents == 0) {
        groups_.erase(event.group);
    }
}

void Forward::publish_counters(Counters& counters) const
{
    counters.output_dropped[Output::forward] = dropped_;
}

int64_t Forward::flush()
{
    for (size_t sent = 0; sent < kPiece && !due_.empty(); ++sent) {
        const uint32_t group = due_.front();
        Group& entry = groups_[group];
        if (!bring_up_to_date(group, entry)) {
            return broken_ ? kBrokenMs : kPauseMs;
        }
        due_.pop_front();
        entry.due = false;
        if (entry.agents == 0) {
            groups_.erase(group);
        }
    }
    return due_.empty() ? -1 : kPauseMs;
}

void Forward::put_off(uint32_t group, Group& entry)
{
    entry.due = true;
    due_.push_back(group);
    if (!timer_.runs()) {
        timer_.start_ms(kPauseMs);
    }
}

// False where the line must wait.
bool Forward::bring_up_to_date(uint32_t group, Group& entry)
{
    const bool joined = entry.agents > 0;
    if (joined == entry.told) {
        return true;
    }
    if (!send_line(joined ? "JOIN" : "LEAVE", group)) {
        return false;
    }
    entry.told = joined;
    return true;
}

// False where the line must wait: the socket's buffer is full, or there is no way to the receiver just now. A
// line that is refused is gone, as any datagram to nobody is, and counted.
bool Forward::send_line(const char* word, uint32_t group)
{
    line_ = word;
    line_ += " UDP://";
    append_group(line_, group);
    line_ += '\n';
    // A refusal tells of an earlier datagram, and this one was not sent: hence the second attempt.
    int failure = 0;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (send(fd_, line_.data(), line_.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            broken_ = false;
            return true;
        }
        failure = errno;
        if (failure != ECONNREFUSED) {
            break;
        }
    }
    if (failure == ECONNREFUSED) {
        ++dropped_;
        return true;
    }
    if (failure != EAGAIN && failure != ENOBUFS && !broken_) {
        broken_ = true;
        log_warn("forward: %s: the lines wait until that is over\n", strerror(failure));
    }
    return false;
}

} // namespace zentmon
