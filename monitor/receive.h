// The intake: datagrams in batches from any number of sockets, and a stream of lines on standard input.
#ifndef ZENTMON_RECEIVE_H
#define ZENTMON_RECEIVE_H

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "config.h"
#include "counters.h"
#include "line.h"
#include "loop.h"
#include "state.h"

namespace zentmon {

// An IPv6 address, or an IPv4 address as an IPv4-mapped one.
struct SourceAddress {
    std::array<uint8_t, 16> bytes;
    uint32_t scope; // interface of a link-local address, else 0

    bool operator==(const SourceAddress&) const = default;
};

// Of AF_INET and AF_INET6; another family gives "::".
SourceAddress source_address(const struct sockaddr_storage& ss);

// "10.0.0.1", "2001:db8::1", "fe80::1%eth0".
std::string address_text(const SourceAddress& source);

bool matches(const Cidr& cidr, const SourceAddress& source);

// Counts and warns about one bad line at debug level.
void count_bad_line(Counters& counters, BadLine why, const std::string& from, std::string_view text);

// One socket that takes lines; it owns the descriptor.
class Listener : public Handler {
  public:
    Listener(int fd, std::string name, const std::vector<Cidr>& allow, State& state, Counters& counters);
    ~Listener() override;

    // 0, or -1 with a line in the log.
    int start();

    void on_readable() override;

    // Reads the kernel's count of lost datagrams.
    void read_drops();

    const std::string& name() const { return own_.name; }

    int fd() const { return fd_; }

  private:
    struct SourceHash {
        size_t operator()(const SourceAddress& source) const;
    };

    struct Datagram {
        const struct sockaddr_storage* from;
        std::string_view data;
        bool cut;
    };

    bool allowed(const SourceAddress& source) const;
    int agent_of(const SourceAddress& source, Now at);
    void take(const Datagram& datagram, Now at);

    int fd_;
    const std::vector<Cidr>& allow_;
    State& state_;
    Counters& counters_;
    ListenerCounters& own_;
    Watch watch_;
    uint32_t kernel_drops_ = 0;
    std::unordered_map<SourceAddress, int, SourceHash>
        agents_; // of this listener, while generation_ is right
    uint64_t generation_ = 0;
};

// Opens a datagram socket on a numeric address. The descriptor, or -1 with errno and a line in the log.
// buffer: wanted size of the receive buffer in bytes, 0 for the kernel's default.
int open_datagram_socket(const Endpoint& at, size_t buffer);

// Lines on a descriptor: agent "stdin" of the listener "stdin".
class StreamIntake : public Handler {
  public:
    StreamIntake(int fd, State& state, Counters& counters, std::function<void()> on_end);

    int start();
    void on_readable() override;

  private:
    void take(size_t fresh);
    void take_line(std::string_view text, BadLine why);
    void end();

    int fd_;
    State& state_;
    Counters& counters_;
    std::function<void()> on_end_;
    Watch watch_;
    Timer again_; // for a file, which no loop can wait for
    bool is_file_ = false;
    bool skipping_ = false; // the rest of a line that is too long
    std::string rest_;
};

} // namespace zentmon

#endif
