// The interface changes under a running agent.
#include "daemon.h"

using namespace support;

class DaemonInterface : public DaemonTest {
  protected:
    void on_agent_side(const std::string& command) const
    {
        inside(segment(), &NetnsPair::enter_a, [&] { must_run(command); });
    }

    // Whether both ends of the pair pass frames.
    void wait_for_carrier() const
    {
        EXPECT_TRUE(wait_until([&] {
            return inside(segment(), &NetnsPair::enter_b,
                          [] { return system("ip -o link show vb | grep -q 'state UP'") == 0; });
        }));
    }
};

TEST_F(DaemonInterface, may_go_down_and_come_up_again)
{
    Process zent = foreground({"-T", "-i", "va", "-l", path("log"), "-L", "debug"});
    ASSERT_TRUE(wait_for_log(" is running as UID="));
    on_agent_side("ip link set va down");
    on_agent_side("ip link set va up");
    wait_for_carrier();
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("239.1.2.3");
    EXPECT_TRUE(zent.wait_for_out("JOIN UDP://239.1.2.3\n")) << zent.err();
    zent.kill(SIGTERM);
    EXPECT_EQ(zent.wait().exit_code, 0);
}

TEST_F(DaemonInterface, that_is_deleted_ends_the_daemon_with_2_and_removes_the_pid_file)
{
    Daemon daemon = start_usual();
    on_agent_side("ip link del va");
    const DaemonEnd end = daemon.wait();
    EXPECT_FALSE(end.timed_out);
    EXPECT_EQ(end.exit_code, 2);
    EXPECT_NE(log().find("(ERR)  app_run: pcap_dispatch() ERROR: "), std::string::npos) << log();
    EXPECT_NE(log().find("(INF)  app_run: ended with rc=-1\n"), std::string::npos) << log();
    EXPECT_NE(log().find("(INF)  zent is exiting with rc=2\n"), std::string::npos) << log();
    EXPECT_FALSE(file_exists(path("pid")));
}

TEST_F(DaemonInterface, that_is_deleted_while_down_ends_the_agent_with_2)
{
    Process zent = foreground({"-T", "-i", "va", "-l", path("log")});
    ASSERT_TRUE(wait_for_log(" is running as UID="));
    on_agent_side("ip link set va down");
    on_agent_side("ip link del va");
    EXPECT_EQ(zent.wait().exit_code, 2);
}

TEST_F(DaemonInterface, without_an_address_stops_the_start)
{
    on_agent_side("ip link add bare type veth peer name other");
    on_agent_side("ip link set bare up");
    const ChildResult result = foreground({"-T", "-i", "bare", "-l", path("log")}).wait();
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_NE(result.err.find("Invalid interface name: bare\n"), std::string::npos) << result.err;
}
