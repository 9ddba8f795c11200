// The features on real input: hosts as they come, IGMPv3 by default, and the agent's binary.
#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <fstream>
#include <linux/if_packet.h>
#include <map>
#include <net/if.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

#include "agent_run.h"
#include "fixtures.h"
#include "frames_v3.h"
#include "paths.h"
#include "relay_lines.h"

using support::count;
using support::join_line;
using support::leave_line;
using support::NetnsPair;
using support::Process;

namespace {

const std::string kUnit = support::source_path("packaging/systemd/zent@.service");

// Memberships of one socket in namespace b, on "vb", as any program there would have them.
class Member {
  public:
    explicit Member(const NetnsPair& pair)
    {
        support::inside(pair, &NetnsPair::enter_b, [&] {
            std::ofstream("/proc/sys/net/ipv4/igmp_max_memberships") << 2000;
            std::ofstream("/proc/sys/net/ipv4/igmp_max_msf") << 200;
            index_ = if_nametoindex("vb");
            fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            return 0;
        });
    }

    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    ~Member() { close(fd_); }

    void join(const std::string& group) const { ask(IP_ADD_MEMBERSHIP, group); }

    void leave(const std::string& group) const { ask(IP_DROP_MEMBERSHIP, group); }

    void join_source(const std::string& group, const std::string& source) const
    {
        ask_source(MCAST_JOIN_SOURCE_GROUP, group, source);
    }

    void leave_source(const std::string& group, const std::string& source) const
    {
        ask_source(MCAST_LEAVE_SOURCE_GROUP, group, source);
    }

    void leave_all()
    {
        close(fd_);
        fd_ = -1;
    }

  private:
    void ask(int option, const std::string& group) const
    {
        ip_mreqn request = {};
        inet_pton(AF_INET, group.c_str(), &request.imr_multiaddr);
        request.imr_ifindex = static_cast<int>(index_);
        ASSERT_EQ(setsockopt(fd_, IPPROTO_IP, option, &request, sizeof request), 0)
            << group << ": " << strerror(errno);
    }

    void ask_source(int option, const std::string& group, const std::string& source) const
    {
        group_source_req request = {};
        request.gsr_interface = index_;
        auto* to = reinterpret_cast<sockaddr_in*>(&request.gsr_group);
        to->sin_family = AF_INET;
        inet_pton(AF_INET, group.c_str(), &to->sin_addr);
        auto* from = reinterpret_cast<sockaddr_in*>(&request.gsr_source);
        from->sin_family = AF_INET;
        inet_pton(AF_INET, source.c_str(), &from->sin_addr);
        ASSERT_EQ(setsockopt(fd_, IPPROTO_IP, option, &request, sizeof request), 0)
            << group << ": " << strerror(errno);
    }

    unsigned index_ = 0;
    int fd_ = -1;
};

// The agent in the foreground with features, on "va" unless told otherwise, with its log in a file.
class FeaturedAgent {
  public:
    FeaturedAgent(const NetnsPair& pair, const std::string& features, const std::string& interface = "va",
                  const std::string& level = "info")
    {
        process_ = start_in_a(pair, {"env", "ZENT_FEATURES=" + features, support::zent_path(), "-T", "-i",
                                     interface, "-l", log_path(), "-L", level});
        EXPECT_TRUE(support::wait_for_file(log_path(), "is running as UID=")) << process_.err();
    }

    std::string log_path() const { return dir_.path("zent.log"); }

    std::string log() const { return support::read_file(log_path()); }

    Process& process() { return process_; }

    std::string stop()
    {
        process_.kill(SIGTERM);
        const auto result = process_.wait();
        EXPECT_EQ(result.exit_code, 0);
        return result.out;
    }

  private:
    support::TempDir dir_;
    Process process_;
};

class FeaturesOnSegment : public support::SegmentTest {
  protected:
    void SetUp() override { NEEDS_SEGMENT(); }
};

constexpr const char* kAll = "exact,immediate,igmpv3";

// The unit's command for "va" with the unit's own environment, and how its user is made.
struct UnitCommand {
    std::vector<std::string> argv;
    std::map<std::string, std::string> environment;
};

std::vector<std::string> words(const std::string& text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

UnitCommand unit_command()
{
    UnitCommand unit;
    std::istringstream lines(support::read_file(kUnit));
    std::string start;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("Environment=")) {
            line = line.substr(12);
            std::erase(line, '"');
            unit.environment[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
        } else if (line.starts_with("ExecStart=")) {
            start = line.substr(10);
        }
    }
    unit.argv = {"env"};
    for (const auto& [name, value] : unit.environment) {
        unit.argv.push_back(name + "=" + value);
    }
    for (const char* word :
         {"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", "--inh-caps", "-all,+net_raw",
          "--ambient-caps", "-all,+net_raw", "--bounding-set", "-all,+net_raw", "--no-new-privs"}) {
        unit.argv.emplace_back(word);
    }
    for (const std::string& word : words(start)) {
        if (word == "zent" || word.ends_with("/zent")) {
            unit.argv.emplace_back(support::zent_path());
        } else if (word == "%i" || word == "%I") {
            unit.argv.emplace_back("va");
        } else if (word[0] == '$') {
            const std::vector<std::string> parts = words(unit.environment[word.substr(1)]);
            unit.argv.insert(unit.argv.end(), parts.begin(), parts.end());
        } else {
            unit.argv.push_back(word);
        }
    }
    return unit;
}

} // namespace

TEST(FeaturesAtStart, unknown_word_is_one_line_and_2_before_anything_is_touched)
{
    const support::TempDir dir;
    const std::string pid = dir.path("pid");
    std::ofstream(pid) << "4711";
    const auto result = support::run_program({"env", "ZENT_FEATURES=exact,what", support::zent_path(), "-T",
                                              "-i", "nosuch", "-l", dir.path("log"), "-p", pid});
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(
        result.err,
        "zent: ZENT_FEATURES: this word is unknown: \"what\"; known are exact, immediate, igmpv3 and expire=S with 10 to "
        "86400 seconds\n");
    EXPECT_EQ(support::read_file(pid), "4711");
    EXPECT_NE(access(dir.path("log").c_str(), F_OK), 0);
}

TEST(FeaturesAtStart, usage_text_for_want_of_arguments_comes_first)
{
    const auto result = support::run_program({"env", "ZENT_FEATURES=what", support::zent_path()});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.err.find("ZENT_FEATURES"), std::string::npos) << result.err;
}

TEST_F(FeaturesOnSegment, stock_host_is_seen_at_once_by_the_command_of_the_unit)
{
    const Member host(segment());
    const UnitCommand unit = unit_command();
    EXPECT_EQ(unit.environment.at("ZENT_FEATURES"), kAll);
    Process zent = start_in_a(segment(), unit.argv);
    // It shows no line when it is ready; a group that is joined anew until it is seen tells.
    ASSERT_TRUE(support::wait_until([&] {
        host.join("239.0.0.1");
        const bool seen = zent.wait_for_out(join_line("239.0.0.1"), std::chrono::milliseconds(200));
        host.leave("239.0.0.1");
        return seen;
    })) << zent.err();
    // The plain capture would keep the line back for five seconds.
    host.join("239.1.1.1");
    EXPECT_TRUE(zent.wait_for_out(join_line("239.1.1.1"), std::chrono::seconds(4))) << zent.err();
    host.leave("239.1.1.1");
    EXPECT_TRUE(zent.wait_for_out(leave_line("239.1.1.1"), std::chrono::seconds(4))) << zent.err();
    zent.kill(SIGTERM);
    EXPECT_EQ(zent.wait().exit_code, 0);
}

TEST_F(FeaturesOnSegment, immediate_capture_without_the_right_to_it_ends_with_2_and_the_reason)
{
    Process zent = start_in_a(segment(), {"env", "ZENT_FEATURES=immediate", "setpriv", "--reuid", "65534",
                                          "--regid", "65534", "--clear-groups", "--bounding-set", "-all",
                                          support::zent_path(), "-i", "va", "-l", "/dev/null"});
    const auto result = zent.wait();
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_NE(result.err.find("(ERR)  pcap_setup: pcap_activate(va): FAILED: "), std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("ermission"), std::string::npos) << result.err;
}

TEST_F(FeaturesOnSegment, interface_that_goes_away_ends_an_immediate_capture_with_2)
{
    FeaturedAgent agent(segment(), std::string(kAll) + ",expire=10");
    support::inside(segment(), &NetnsPair::enter_a, [] {
        support::must_run("ip link del va");
        return 0;
    });
    EXPECT_EQ(agent.process().wait().exit_code, 2);
    EXPECT_NE(agent.log().find("(ERR)  app_run: pcap_dispatch() ERROR: "), std::string::npos) << agent.log();
}

TEST_F(FeaturesOnSegment, info_tells_what_is_on)
{
    FeaturedAgent agent(segment(), " igmpv3 , exact,expire=260");
    EXPECT_TRUE(support::wait_for_file(agent.log_path(),
                                       "expiry of groups is suspended: no general query within 260 s\n"));
    EXPECT_NE(agent.log().find("(INF)  app_run: features on: exact,igmpv3,expire=260\n"), std::string::npos)
        << agent.log();
    agent.stop();
}

TEST_F(FeaturesOnSegment, source_specific_membership_gets_a_join_and_no_leave)
{
    const Member host(segment());
    FeaturedAgent agent(segment(), kAll);
    host.join_source("232.1.1.1", "10.0.0.1");
    EXPECT_TRUE(agent.process().wait_for_out(join_line("232.1.1.1")));
    host.join_source("232.1.1.1", "10.0.0.7");
    host.leave_source("232.1.1.1", "10.0.0.7");
    host.leave_source("232.1.1.1", "10.0.0.1");
    host.join("239.9.9.9");
    EXPECT_TRUE(agent.process().wait_for_out(join_line("239.9.9.9")));
    host.leave("239.9.9.9");
    EXPECT_TRUE(agent.process().wait_for_out(leave_line("239.9.9.9")));
    EXPECT_EQ(agent.stop(), join_line("232.1.1.1") + join_line("239.9.9.9") + leave_line("239.9.9.9"));
}

TEST_F(FeaturesOnSegment, thousand_groups_of_a_stock_host_give_a_thousand_joins_and_leaves)
{
    Member host(segment());
    FeaturedAgent agent(segment(), kAll, "va", "debug");
    const auto lines = [&](const std::string& part) { return count(agent.process().out(), part); };
    for (int n = 0; n < 1000; ++n) {
        host.join("239." + std::to_string(n % 4) + "." + std::to_string(n / 250) + "." +
                  std::to_string(n * 41 % 256));
    }
    EXPECT_TRUE(support::wait_until([&] { return lines("JOIN UDP://") >= 1000; })) << lines("JOIN");
    // All are reported again, as after each query of a querier; nothing is new.
    const std::string again = ": type=2 sources=0\n";
    EXPECT_EQ(count(agent.log(), again), 0U);
    support::inside(segment(), &NetnsPair::enter_a, [&] {
        const int raw = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
        sockaddr_ll to = {};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = static_cast<int>(if_nametoindex("va"));
        const auto query = support::v3_query_frame();
        EXPECT_EQ(sendto(raw, query.data(), query.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(query.size()));
        close(raw);
        return 0;
    });
    EXPECT_TRUE(support::wait_until([&] {
        agent.process().err(); // the mirrored log: a full pipe would stop the agent
        return count(agent.log(), again) >= 1000;
    })) << count(agent.log(), again);
    host.leave_all();
    EXPECT_TRUE(support::wait_until([&] { return lines("LEAVE UDP://") >= 1000; })) << lines("LEAVE");
    const std::string out = agent.stop();
    EXPECT_EQ(count(out, "JOIN UDP://"), 1000U);
    EXPECT_EQ(count(out, "LEAVE UDP://"), 1000U);
    const std::vector<std::string> all = words(out);
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), 1002U)
        << "each group once, and the two words";
}

// A bridge asks every second; the host's cable is pulled, so that it can say no goodbye.
TEST_F(FeaturesOnSegment, group_of_a_host_that_is_gone_expires_while_a_querier_asks)
{
    support::inside(segment(), &NetnsPair::enter_a, [] {
        support::must_run(
            "ip link add br0 type bridge mcast_snooping 1 mcast_router 2 mcast_querier 1 mcast_igmp_version 3 "
            "mcast_query_use_ifaddr 1 mcast_query_interval 200 mcast_query_response_interval 100 "
            "mcast_startup_query_count 2 mcast_startup_query_interval 100");
        support::must_run(
            "ip addr del 10.0.0.1/24 dev va && ip link set va master br0 && ip addr add 10.0.0.1/24 dev br0");
        support::must_run("ip link set br0 up");
        return 0;
    });
    const Member host(segment());
    host.join("239.1.1.1");
    host.join_source("232.1.1.1", "10.0.0.1");
    FeaturedAgent agent(segment(), std::string(kAll) + ",expire=10", "br0");
    EXPECT_TRUE(support::wait_for_file(agent.log_path(), "expiry of groups is running")) << agent.log();
    EXPECT_TRUE(agent.process().wait_for_out(join_line("239.1.1.1"))) << agent.log();
    EXPECT_TRUE(agent.process().wait_for_out(join_line("232.1.1.1"))) << agent.log();
    host.leave_source("232.1.1.1", "10.0.0.1"); // no LEAVE comes of it: silence does it
    EXPECT_TRUE(agent.process().wait_for_out(leave_line("232.1.1.1"))) << agent.log();
    EXPECT_EQ(agent.process().out().find(leave_line("239.1.1.1")), std::string::npos)
        << "it is reported every second";
    support::inside(segment(), &NetnsPair::enter_a, [] {
        support::must_run("ip link set va nomaster");
        return 0;
    });
    EXPECT_TRUE(agent.process().wait_for_out(leave_line("239.1.1.1"))) << agent.log();
    const std::string out = agent.stop();
    for (const char* group : {"239.1.1.1", "232.1.1.1"}) { // the bridge has memberships of its own
        EXPECT_EQ(count(out, join_line(group)), 1U) << out;
        EXPECT_EQ(count(out, leave_line(group)), 1U) << out;
    }
}
