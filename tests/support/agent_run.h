// The agent's binary in one namespace of a pair, hosts and frames in the other.
#ifndef TESTS_SUPPORT_AGENT_RUN_H
#define TESTS_SUPPORT_AGENT_RUN_H

#include <cstdint>
#include <string>
#include <vector>

#include "child.h"
#include "netns.h"
#include "tempdir.h"

namespace support {

// A host in namespace b of the pair: a member of groups by the kernel's own IGMP, and a sender of raw frames.
class SegmentHost {
  public:
    explicit SegmentHost(const NetnsPair& pair);
    SegmentHost(const SegmentHost&) = delete;
    SegmentHost& operator=(const SegmentHost&) = delete;
    ~SegmentHost();

    void use_igmp(int version) const; // 1, 2 or 3: force_igmp_version of every interface
    void join(const std::string& group);
    void leave(const std::string& group);
    void send(const std::vector<uint8_t>& frame) const;

  private:
    struct Membership {
        std::string group;
        int fd;
    };

    const NetnsPair& pair_;
    std::vector<Membership> members_;
    int raw_ = -1;
};

// Starts a program in namespace a of the pair.
Process start_in_a(const NetnsPair& pair, const std::vector<std::string>& argv);

// Waits until a process that captures waits for its first packet: what is sent from then on is captured. The
// packet socket alone (/proc/net/packet) tells too little: while libpcap sets the filter, it drops what has
// come.
bool wait_for_capture(pid_t pid);

// Waits until a file holds a text.
bool wait_for_file(const std::string& path, const std::string& text);

} // namespace support

#endif
