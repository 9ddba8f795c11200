// A daemon with a relay to report to.
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "daemon.h"

using namespace support;

namespace {

// A relay on the loopback of the agent's namespace.
class Relay {
  public:
    explicit Relay(const NetnsPair& segment)
    {
        inside(segment, &NetnsPair::enter_a, [this] {
            struct sockaddr_in address = {};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            socklen_t length = sizeof address;
            socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), length), 0);
            EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length), 0);
            target_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        });
    }

    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    ~Relay() { close(socket_); }

    const std::string& target() const { return target_; }

    // The next datagram; empty at the limit.
    std::string next() const
    {
        char block[256];
        ssize_t n = -1;
        wait_until([&] { return (n = recv(socket_, block, sizeof block, 0)) >= 0; });
        return n < 0 ? "" : std::string(block, static_cast<size_t>(n));
    }

    // Whether nothing more has come; to be asked when the sender has ended.
    bool is_empty() const
    {
        char block[256];
        return recv(socket_, block, sizeof block, 0) < 0;
    }

  private:
    int socket_ = -1;
    std::string target_;
};

} // namespace

class DaemonRelay : public DaemonTest {};

TEST_F(DaemonRelay, kept_its_socket_takes_the_place_of_stderr)
{
    const Relay relay(segment());
    const Daemon daemon = start_usual({"-R", relay.target()});
    EXPECT_EQ(daemon.fd(0), path("log"));
    EXPECT_EQ(daemon.fd(1), path("pid"));
    EXPECT_TRUE(daemon.fd(2).starts_with("socket:[")) << daemon.fd(2);
}

TEST_F(DaemonRelay, relay_gets_one_datagram_for_each_change_and_the_pid_file_none)
{
    const Relay relay(segment());
    Daemon daemon = start_usual({"-R", relay.target(), "-g", "239.0.0.0"});
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("239.1.2.3");
    EXPECT_EQ(relay.next(), "JOIN UDP://239.1.2.3\n");
    EXPECT_TRUE(wait_for_log("(NRM)  relay_msg: 21 bytes sent: JOIN UDP://239.1.2.3\n")) << log();
    host.leave("239.1.2.3");
    EXPECT_EQ(relay.next(), "LEAVE UDP://239.1.2.3\n");
    EXPECT_EQ(read_file(path("pid")), std::to_string(daemon.pid()));
    EXPECT_EQ(daemon.stop().exit_code, 0);
    EXPECT_TRUE(relay.is_empty());
}

TEST_F(DaemonRelay, relay_gets_nothing_of_the_text_of_the_signal_handler)
{
    const Relay relay(segment());
    Daemon daemon = start_usual({"-R", relay.target(), "-L", "debug"});
    EXPECT_EQ(daemon.stop().exit_code, 0);
    EXPECT_TRUE(relay.is_empty());
}

TEST_F(DaemonRelay, that_cannot_be_looked_up_ends_the_daemon_with_2)
{
    Daemon daemon = start({"-i", "va", "-l", path("log"), "-p", path("pid"), "-R", "127.0.0.1"});
    EXPECT_EQ(daemon.starter.exit_code, 0);
    EXPECT_EQ(daemon.wait().exit_code, 2);
    EXPECT_NE(log().find("(ERR)  reporter_setup: failed to open [udp://127.0.0.1]\n"), std::string::npos)
        << log();
    EXPECT_FALSE(file_exists(path("pid")));
}

TEST_F(DaemonRelay, that_goes_away_costs_lines_and_not_the_daemon)
{
    std::optional<Relay> relay(std::in_place, segment());
    Daemon daemon = start_usual({"-R", relay->target()});
    relay.reset();
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("239.1.2.3");
    EXPECT_TRUE(wait_for_log("JOIN UDP://239.1.2.3\n"));
    EXPECT_TRUE(daemon.is_running());
    EXPECT_EQ(daemon.stop().exit_code, 0);
}
