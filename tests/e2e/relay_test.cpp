// Relay lines as datagrams, received by a real socket at the other end of the segment.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <cstring>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent_run.h"
#include "fixtures.h"
#include "frames.h"
#include "paths.h"

using support::NetnsPair;
using support::Process;
using support::SegmentHost;

namespace {

constexpr uint16_t kPort = 4554;

// The relay in namespace b, on 10.0.0.2 or as a member of a group.
class Relay {
  public:
    explicit Relay(const NetnsPair& pair, const char* group = nullptr)
    {
        support::inside(pair, &NetnsPair::enter_b, [&] {
            fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            sockaddr_in address = {};
            address.sin_family = AF_INET;
            address.sin_port = htons(kPort);
            EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
            if (group != nullptr) {
                ip_mreqn request = {};
                inet_pton(AF_INET, group, &request.imr_multiaddr);
                request.imr_ifindex = static_cast<int>(if_nametoindex("vb"));
                EXPECT_EQ(setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request), 0);
            }
            const timeval limit{support::kLimit.count(), 0};
            setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
            return 0;
        });
    }

    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    ~Relay() { close(fd_); }

    std::string receive() const
    {
        char datagram[256];
        const ssize_t n = recv(fd_, datagram, sizeof datagram, 0);
        return n < 0 ? "nothing" : std::string(datagram, static_cast<size_t>(n));
    }

  private:
    int fd_ = -1;
};

class RelayRun : public support::SegmentTest {
  protected:
    void SetUp() override { NEEDS_SEGMENT(); }

    Process start(const std::string& target)
    {
        Process agent =
            start_in_a(segment(), {support::zent_path(), "-T", "-i", "va", "-l", log_path(), "-R", target});
        EXPECT_TRUE(support::wait_for_file(log_path(), "is running as UID=")) << agent.err();
        return agent;
    }

    std::string log_path() const { return dir_.path("zent.log"); }

  private:
    support::TempDir dir_;
};

void stop(Process& agent)
{
    agent.kill(SIGTERM);
    const auto result = agent.wait();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, ""); // with a target nothing goes to stdout
}

} // namespace

TEST_F(RelayRun, kernel_joins_and_leaves_arrive_as_exact_datagrams)
{
    const Relay relay(segment());
    SegmentHost host(segment());
    host.use_igmp(2);
    Process agent = start("10.0.0.2:4554");
    host.join("239.1.1.1");
    EXPECT_EQ(relay.receive(), "JOIN UDP://239.1.1.1\n");
    host.leave("239.1.1.1");
    EXPECT_EQ(relay.receive(), "LEAVE UDP://239.1.1.1\n");
    stop(agent);
}

TEST_F(RelayRun, multicast_target_reaches_its_members)
{
    const Relay relay(segment(), "239.200.1.1");
    const SegmentHost host(segment());
    Process agent = start("239.200.1.1:4554");
    host.send(support::report_frame("239.1.1.1"));
    host.send(support::leave_frame("239.1.1.1"));
    EXPECT_EQ(relay.receive(), "JOIN UDP://239.1.1.1\n");
    EXPECT_EQ(relay.receive(), "LEAVE UDP://239.1.1.1\n");
    stop(agent);
}

TEST_F(RelayRun, relay_that_is_down_loses_its_lines_and_gets_the_next_ones_when_it_is_back)
{
    const SegmentHost host(segment());
    Process agent = start("10.0.0.2:4554");
    host.send(support::report_frame("239.1.1.1"));
    // The line has been handed to the system, where nobody takes it.
    EXPECT_TRUE(support::wait_for_file(log_path(), "JOIN UDP://239.1.1.1"));
    const Relay relay(segment());
    host.send(support::report_frame("239.1.1.1")); // known: no second line
    host.send(support::report_frame("239.1.1.2"));
    EXPECT_EQ(relay.receive(), "JOIN UDP://239.1.1.2\n");
    stop(agent);
}

TEST_F(RelayRun, kept_unreachable_relay_costs_a_line_in_the_log_and_the_group_stays_joined)
{
    const SegmentHost host(segment());
    support::inside(segment(), &NetnsPair::enter_a, [] {
        support::must_run("ip route add blackhole 10.77.0.0/16");
        return 0;
    });
    Process agent = start("10.77.0.1:4554");
    host.send(support::report_frame("239.1.1.1"));
    host.send(support::report_frame("239.1.1.1"));
    host.send(support::report_frame("239.1.1.2"));
    EXPECT_TRUE(support::wait_for_file(log_path(), "relay_msg: failed to relay: JOIN UDP://239.1.1.2\n"));
    const std::string written = support::read_file(log_path());
    EXPECT_EQ(written.find("failed to relay: JOIN UDP://239.1.1.1"),
              written.rfind("failed to relay: JOIN UDP://239.1.1.1"));
    stop(agent);
}

TEST_F(RelayRun, target_that_cannot_be_opened_ends_the_start_with_2)
{
    const auto result = start_in_a(segment(), {support::zent_path(), "-T", "-i", "va", "-l", log_path(), "-R",
                                               "no.such.host.invalid:1"})
                            .wait();
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_NE(
        support::read_file(log_path()).find("reporter_setup: failed to open [udp://no.such.host.invalid:1]"),
        std::string::npos);
}
