// zentctl query among real peers: kernel hosts, a bridge that is a querier too, frames on the wire.
#include <arpa/inet.h>
#include <cstring>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "agent_run.h"
#include "fixtures.h"
#include "frames.h"
#include "netns.h"
#include "paths.h"
#include "wait.h"
#include "zentctl_run.h"

using namespace support;

namespace {

// What is heard at the host's end of the pair: all frames with IGMP in them.
class Ear {
  public:
    explicit Ear(const NetnsPair& pair, const char* interface = "vb")
    {
        inside(pair, &NetnsPair::enter_b, [&] {
            // Frames that leave, those of a bridge for instance, are shown to listeners for all protocols
            // alone.
            fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_ALL));
            sockaddr_ll address = {};
            address.sll_family = AF_PACKET;
            address.sll_protocol = htons(ETH_P_ALL);
            address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
            EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
            return 0;
        });
    }

    Ear(const Ear&) = delete;
    Ear& operator=(const Ear&) = delete;

    ~Ear() { close(fd_); }

    // The next frame of an IGMP type from a source; empty after the limit.
    std::string next(uint8_t type, const char* source, std::chrono::milliseconds limit = kLimit)
    {
        std::string found;
        wait_until([&] { return !(found = read_one(type, source)).empty(); }, limit);
        return found;
    }

  private:
    std::string read_one(uint8_t type, const char* source)
    {
        char block[2048];
        ssize_t n = 0;
        while ((n = recv(fd_, block, sizeof block, 0)) > 0) {
            const std::string frame(block, static_cast<size_t>(n));
            const size_t header = frame.size() < 38 ? SIZE_MAX - 8 : 14 + size_t{4} * (frame[14] & 15);
            if (frame.size() >= header + 8 && frame.compare(12, 2, "\x08\0", 2) == 0 && frame[23] == 2 &&
                static_cast<uint8_t>(frame[header]) == type &&
                inet_addr(source) == *reinterpret_cast<const in_addr_t*>(frame.substr(26, 4).c_str())) {
                return frame;
            }
        }
        return "";
    }

    int fd_ = -1;
};

class QueryTest : public SegmentTest {
  protected:
    void SetUp() override { NEEDS_SEGMENT(); }

    Process query(std::vector<std::string> args) const
    {
        args.insert(args.begin(), {"query", "va"});
        return start_in_a(segment(), zentctl_command(args));
    }

    ChildResult query_to_its_end(const std::vector<std::string>& args) const { return query(args).wait(); }

    void in_b(const std::string& command) const
    {
        inside(segment(), &NetnsPair::enter_b, [&] {
            must_run(command);
            return 0;
        });
    }

    // The host's end becomes a bridge that queries each second, with the address 10.0.0.2.
    void make_bridge() const
    {
        in_b(
            "ip addr flush dev vb && ip link add br0 type bridge mcast_querier 0 mcast_query_use_ifaddr 1 "
            "mcast_query_interval 100 mcast_startup_query_interval 100 forward_delay 0 && ip link set vb master br0 && "
            "ip addr add 10.0.0.2/24 dev br0 && ip link set br0 up && ip link set br0 type bridge mcast_querier 1");
    }
};

std::string bytes(const std::string& frame, size_t at, size_t count)
{
    std::string text;
    char digits[4];
    for (size_t i = at; i < at + count; ++i) {
        snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(frame.at(i)));
        text += digits;
    }
    return text;
}

// Ethernet, IPv4 with Router Alert and IGMP, field by field.
void expect_query(const std::string& frame, const std::string& mac, const std::string& to,
                  const std::string& igmp)
{
    ASSERT_EQ(frame.size(), 14U + 24U + 8U);
    EXPECT_EQ(bytes(frame, 0, 6), mac);
    EXPECT_EQ(bytes(frame, 12, 2), "0800");
    EXPECT_EQ(bytes(frame, 14, 1), "46"); // version 4, six words
    EXPECT_EQ(bytes(frame, 15, 1), "c0"); // internetwork control
    EXPECT_EQ(bytes(frame, 16, 2), "0020");
    EXPECT_EQ(bytes(frame, 20, 2), "0000"); // no fragment, and may be one
    EXPECT_EQ(bytes(frame, 22, 2), "0102"); // TTL 1, IGMP
    EXPECT_EQ(bytes(frame, 26, 4), "0a000001");
    EXPECT_EQ(bytes(frame, 30, 4), to);
    EXPECT_EQ(bytes(frame, 34, 4), "94040000"); // Router Alert
    EXPECT_EQ(checksum(reinterpret_cast<const uint8_t*>(frame.data()) + 14, 24), 0);
    EXPECT_EQ(bytes(frame, 38, 8), igmp);
}

} // namespace

TEST_F(QueryTest, its_frames_are_those_of_rfc_2236)
{
    Ear ear(segment());
    SegmentHost host(segment());
    Process querier = query({"--force", "--interval", "11"});
    expect_query(ear.next(0x11, "10.0.0.1"), "01005e000001", "e0000001", "1164ee9b00000000");
    host.use_igmp(2);
    host.join("239.1.2.3");
    ASSERT_NE(ear.next(22, "10.0.0.2"), ""); // who has not reported yet leaves in silence
    host.leave("239.1.2.3");
    std::string specific = ear.next(0x11, "10.0.0.1");
    if (bytes(specific, 42, 4) == "00000000") { // the second general one, a quarter of the interval later
        specific = ear.next(0x11, "10.0.0.1");
    }
    expect_query(specific, "01005e010203", "ef010203", "110afdf0ef010203");
    EXPECT_TRUE(querier.wait_for_out("10.0.0.2 leaves 239.1.2.3: asking for other members\n"));
    querier.kill(SIGINT);
    const ChildResult end = querier.wait();
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_NE(end.out.find("(RFC 4541, 2.1.1)"), std::string::npos);
    EXPECT_NE(end.out.find("querier on va as 10.0.0.1, every 11 s\n"), std::string::npos);
}

TEST_F(QueryTest, once_shows_who_reports_and_makes_kernel_hosts_speak_version_2)
{
    Ear ear(segment());
    SegmentHost host(segment());
    host.join("239.1.2.3");
    host.join("239.1.2.200");
    const ChildResult result = query_to_its_end({"--once"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_NE(result.out.find("GROUP            REPORTED BY      VERSION\n"
                              "239.1.2.3        10.0.0.2         2\n"
                              "239.1.2.200      10.0.0.2         2\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("Linux hosts now speak version 2 for about 260 s"), std::string::npos);
    expect_query(ear.next(0x11, "10.0.0.1"), "01005e000001", "e0000001", "1132eecd00000000");
    EXPECT_EQ(ear.next(0x11, "10.0.0.1", std::chrono::milliseconds(0)), ""); // one, and no second
    const std::string kernel =
        inside(segment(), &NetnsPair::enter_b, [] { return read_file("/proc/thread-self/net/igmp"); });
    EXPECT_NE(kernel.find("V2\n", kernel.find("vb")), std::string::npos) << kernel;
}

TEST_F(QueryTest, once_without_an_answer_is_a_finding)
{
    const ChildResult result = query_to_its_end({"--once", "--json"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_TRUE(has_finding(result.out, "warning", "no-answer")) << result.out;
    EXPECT_NE(result.out.find(R"("reports":[])"), std::string::npos) << result.out;
}

TEST_F(QueryTest, a_bridge_with_the_higher_address_goes_quiet)
{
    make_bridge();
    Ear ear(segment(), "vb");
    ASSERT_NE(ear.next(0x11, "10.0.0.2"), ""); // it queries, each second
    Process querier = query({"--force"});
    ASSERT_TRUE(querier.wait_for_out("querier on va"));
    ASSERT_NE(ear.next(0x11, "10.0.0.1"), "");
    // Quiet for three of its intervals: a condition that never comes true while it goes on.
    EXPECT_TRUE(wait_until([&] { return ear.next(0x11, "10.0.0.2", std::chrono::seconds(3)).empty(); }));
    EXPECT_EQ(querier.out().find("quiet:"), std::string::npos) << querier.out();
}

TEST_F(QueryTest, is_quiet_where_a_bridge_has_the_lower_address)
{
    inside(segment(), &NetnsPair::enter_a, [] {
        must_run("ip addr flush dev va scope global && ip addr add 10.0.0.9/24 dev va");
        return 0;
    });
    make_bridge();
    Ear ear(segment(), "vb");
    Process querier = query({"--force", "--interval", "11"});
    EXPECT_TRUE(querier.wait_for_out("quiet: 10.0.0.2 queries and has the lower address\n")) << querier.out();
    ASSERT_NE(ear.next(0x11, "10.0.0.2"), ""); // the bridge goes on
    in_b("ip link set br0 type bridge mcast_querier 0");
    EXPECT_TRUE(querier.wait_for_out("querier again: nothing was heard of 10.0.0.2\n"));
    EXPECT_NE(ear.next(0x11, "10.0.0.9"), "");
}

TEST_F(QueryTest, refuses_beside_a_version_3_querier_unless_forced)
{
    in_b("ip addr flush dev vb && ip link add br0 type bridge mcast_querier 0 mcast_query_use_ifaddr 1 "
         "mcast_igmp_version 3 mcast_query_interval 50 mcast_startup_query_interval 50 forward_delay 0 && "
         "ip link set vb master br0 && ip addr add 10.0.0.2/24 dev br0 && ip link set br0 up && "
         "ip link set br0 type bridge mcast_querier 1");
    Ear ear(segment(), "vb");
    ASSERT_NE(ear.next(0x11, "10.0.0.2"), "");
    const ChildResult refused = query_to_its_end({"--json"});
    EXPECT_EQ(refused.exit_code, 2);
    EXPECT_TRUE(has_finding(refused.out, "error", "version3-querier")) << refused.out;
    EXPECT_EQ(query_to_its_end({"--once"}).exit_code, 2);
    Process forced = query({"--force"});
    EXPECT_NE(ear.next(0x11, "10.0.0.1"), "");
}

TEST_F(QueryTest, is_refused_without_an_ipv4_address)
{
    inside(segment(), &NetnsPair::enter_a, [] {
        must_run("ip -4 addr flush dev va");
        return 0;
    });
    const ChildResult result = query_to_its_end({"--json"});
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_TRUE(has_finding(result.out, "error", "no-ipv4")) << result.out;
}

TEST_F(QueryTest, is_refused_on_an_interface_that_is_none)
{
    const ChildResult result = run_zentctl({"query", "--json", "nosuch0"});
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_TRUE(has_finding(result.out, "error", "no-interface")) << result.out;
}

TEST_F(QueryTest, is_refused_while_another_holds_the_lock_and_goes_when_that_ends)
{
    Process first = query({"--force"});
    ASSERT_TRUE(first.wait_for_out("querier on va"));
    const ChildResult second = query_to_its_end({"--force", "--json"});
    EXPECT_EQ(second.exit_code, 2);
    EXPECT_TRUE(has_finding(second.out, "error", "lock-held")) << second.out;
    first.kill(SIGKILL);
    first.wait();
    Process third = query({"--force"});
    EXPECT_TRUE(third.wait_for_out("querier on va"));
}

TEST_F(QueryTest, is_refused_without_the_right_to_capture)
{
    std::vector<std::string> argv{"setpriv", "--bounding-set=-all", "--inh-caps=-all", "--no-new-privs"};
    const auto command = zentctl_command({"query", "--json", "va"});
    argv.insert(argv.end(), command.begin(), command.end());
    const ChildResult result = start_in_a(segment(), argv).wait();
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_TRUE(has_finding(result.out, "error", "no-right")) << result.out << result.err;
}

TEST_F(QueryTest, needs_nothing_but_the_right_to_capture)
{
    Ear ear(segment());
    std::vector<std::string> argv{"setpriv",        "--reuid",        "65534",          "--regid",
                                  "65534",          "--clear-groups", "--inh-caps",     "-all,+net_raw",
                                  "--ambient-caps", "-all,+net_raw",  "--bounding-set", "-all,+net_raw",
                                  "--no-new-privs"};
    const auto command = zentctl_command({"query", "--force", "va"});
    argv.insert(argv.end(), command.begin(), command.end());
    Process querier = start_in_a(segment(), argv);
    EXPECT_NE(ear.next(0x11, "10.0.0.1"), "") << querier.err();
    querier.kill(SIGTERM);
    EXPECT_EQ(querier.wait().exit_code, 0);
}

TEST_F(QueryTest, ends_when_the_interface_does)
{
    Process querier = query({"--force"});
    ASSERT_TRUE(querier.wait_for_out("querier on va"));
    in_b("ip link del vb");
    EXPECT_EQ(querier.wait().exit_code, 2);
}

TEST_F(QueryTest, an_interval_at_or_below_the_response_time_is_a_usage_error)
{
    EXPECT_EQ(run_zentctl({"query", "lo", "--interval", "10"}).exit_code, 2);
    EXPECT_TRUE(
        has_finding(run_zentctl({"query", "lo", "--interval", "10", "--json"}).out, "error", "usage"));
    EXPECT_TRUE(has_finding(run_zentctl({"query", "lo", "--once", "--interval", "20", "--json"}).out, "error",
                            "usage"));
}

namespace {

// What the drop-in does: an agent starts behind the hosts' reports, and one query follows. Prints how long it
// took until both groups were known, which is up to 7 s with immediate and 12 s without; only the lines are
// asked for.
void expect_groups_after_one_query(const NetnsPair& pair, const std::string& features)
{
    SegmentHost host(pair);
    host.join("239.1.2.3");
    host.join("239.1.2.4");
    const auto start = std::chrono::steady_clock::now();
    Process agent = start_in_a(pair, {"env", "ZENT_FEATURES=" + features, zent_path(), "-T", "-i", "va", "-g",
                                      "224.0.1.0", "-l", "/dev/null"});
    ASSERT_TRUE(wait_for_capture(agent.pid()));
    Process query = start_in_a(pair, zentctl_command({"query", "va", "--once"}));
    EXPECT_TRUE(agent.wait_for_out("JOIN UDP://239.1.2.3\n"));
    EXPECT_TRUE(agent.wait_for_out("JOIN UDP://239.1.2.4\n"));
    const auto took = std::chrono::steady_clock::now() - start;
    printf("features \"%s\": both groups after %lld ms\n", features.c_str(),
           static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()));
    EXPECT_EQ(query.wait().exit_code, 0);
}

} // namespace

TEST_F(QueryTest, a_restarted_agent_knows_its_groups_after_one_query)
{
    expect_groups_after_one_query(segment(), "");
}

TEST_F(QueryTest, a_restarted_agent_with_immediate_knows_its_groups_after_one_query)
{
    expect_groups_after_one_query(segment(), "immediate");
}
