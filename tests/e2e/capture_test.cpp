// The binary on real input: kernel hosts that join and leave, frames of our own, exact lines and exit codes.
// Packets can take up to 5 s to arrive: each test makes all its changes first and waits once or twice.
#include <gtest/gtest.h>

#include <csignal>

#include "agent_run.h"
#include "fixtures.h"
#include "frames.h"
#include "paths.h"
#include "relay_lines.h"

using support::count;
using support::igmp_frame;
using support::join_line;
using support::leave_line;
using support::NetnsPair;
using support::Process;
using support::SegmentHost;

namespace {

// The agent in the foreground on "va", with its log in a file; it captures when the constructor returns.
class ForegroundAgent {
  public:
    explicit ForegroundAgent(const NetnsPair& pair, std::vector<std::string> options = {})
    {
        std::vector<std::string> argv = {support::zent_path(), "-T", "-i", "va", "-l", log_path()};
        argv.insert(argv.end(), options.begin(), options.end());
        process_ = start_in_a(pair, argv);
        is_running = support::wait_for_file(log_path(), "is running as UID=");
        EXPECT_TRUE(is_running) << process_.err();
    }

    std::string log_path() const { return dir_.path("zent.log"); }

    std::string log() const { return support::read_file(log_path()); }

    // Waits until a line has come and gives all that came.
    std::string out_with(const std::string& line)
    {
        EXPECT_TRUE(process_.wait_for_out(line)) << process_.out();
        return process_.out();
    }

    support::ChildResult stop(int signo = SIGTERM)
    {
        process_.kill(signo);
        return process_.wait();
    }

    Process& process() { return process_; }

    bool is_running = false;

  private:
    support::TempDir dir_;
    Process process_;
};

class Capture : public support::SegmentTest {
  protected:
    void SetUp() override { NEEDS_SEGMENT(); }
};

constexpr const char* kLastGroup = "239.9.9.9"; // its line tells that everything before it has been seen

void send_last(const SegmentHost& host)
{
    host.send(support::report_frame(kLastGroup));
}

} // namespace

TEST_F(Capture, kernel_hosts_join_and_leave_by_version_2)
{
    SegmentHost host(segment());
    host.use_igmp(2);
    ForegroundAgent agent(segment());
    host.join("239.1.1.1");
    host.join("239.1.1.1");
    host.join("239.1.1.2");
    EXPECT_TRUE(agent.process().wait_for_out(join_line("239.1.1.1")));
    EXPECT_TRUE(agent.process().wait_for_out(join_line("239.1.1.2")));
    host.leave("239.1.1.1");
    const std::string out = agent.out_with(leave_line("239.1.1.1"));
    EXPECT_EQ(count(out, join_line("239.1.1.1")), 1U);
    EXPECT_EQ(count(out, "\n"), 3U) << out;
    const auto result = agent.stop();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_NE(result.err.find("\nSIG(15)\n"), std::string::npos);
    EXPECT_NE(agent.log().find("zent is exiting with rc=0\n"), std::string::npos) << agent.log();
}

TEST_F(Capture, version_1_hosts_join_and_never_leave)
{
    SegmentHost host(segment());
    host.use_igmp(1);
    ForegroundAgent agent(segment());
    host.join("239.1.1.1");
    host.leave("239.1.1.1");
    host.join("239.1.1.2");
    send_last(host);
    const std::string out = agent.out_with(join_line(kLastGroup));
    EXPECT_EQ(count(out, join_line("239.1.1.2")), 1U) << out;
    EXPECT_EQ(count(out, "LEAVE"), 0U) << out;
    EXPECT_EQ(agent.stop(SIGINT).exit_code, 0);
}

TEST_F(Capture, version_3_hosts_are_not_seen)
{
    SegmentHost host(segment());
    host.use_igmp(3);
    ForegroundAgent agent(segment(), {"-L", "debug"});
    host.join("239.1.1.1");
    send_last(host);
    EXPECT_EQ(agent.out_with(join_line(kLastGroup)), join_line(kLastGroup));
    // The version 3 report was there, and its dump says so. Its group field holds the count of records.
    EXPECT_TRUE(support::wait_for_file(agent.log_path(), "?\?/22 ")) << agent.log();
    EXPECT_EQ(agent.stop(SIGQUIT).exit_code, 0);
}

TEST_F(Capture, frames_of_every_kind_give_their_lines_and_no_others)
{
    SegmentHost host(segment());
    ForegroundAgent agent(segment());
    std::string expected;
    for (uint8_t ihl = 5; ihl <= 15; ++ihl) {
        const std::string group = "239.2.0." + std::to_string(ihl);
        host.send(igmp_frame({.group = group, .ihl = ihl}));
        host.send(igmp_frame({.group = group, .ihl = ihl, .padded = 90}));
        expected += join_line(group);
    }
    for (size_t length = 42; length <= 90; length += 6) {
        const std::string group = "239.3.0." + std::to_string(length);
        host.send(igmp_frame({.type = 18, .group = group, .padded = length}));
        host.send(igmp_frame({.type = 23, .group = group, .padded = length}));
        expected += join_line(group) + leave_line(group);
    }
    for (size_t length = 14; length < 42; ++length) {
        host.send(igmp_frame({.type = 23, .group = "239.4.0.1", .cut = length}));
    }
    for (uint8_t ihl = 0; ihl < 5; ++ihl) {
        host.send(igmp_frame({.group = "239.5.0.1", .ihl = ihl}));
    }
    host.send(igmp_frame({.type = 17, .group = "0.0.0.0"}));
    host.send(igmp_frame({.type = 34}));
    host.send(igmp_frame({.ether_type = 0x86dd}));
    host.send(igmp_frame({.version = 6}));
    host.send(igmp_frame({.protocol = 17}));
    host.send(support::leave_frame("0.0.0.0"));
    host.send(support::leave_frame("239.6.0.1"));
    send_last(host);
    expected += join_line(kLastGroup);
    EXPECT_EQ(agent.out_with(join_line(kLastGroup)), expected);
    EXPECT_EQ(agent.stop().exit_code, 0);
}

TEST_F(Capture, range_and_list_decide_what_is_reported)
{
    SegmentHost host(segment());
    const support::TempDir dir;
    const std::string list = dir.path("groups");
    FILE* fp = fopen(list.c_str(), "w");
    fputs("224.5.5.5\r\n232.1.1.200\n", fp);
    fclose(fp);
    ForegroundAgent agent(segment(), {"-g", "239.1.0.0", "-G", "239.9.255.255", "-F", list});
    for (const char* group :
         {"239.0.0.1", "239.1.0.0", "239.10.0.0", "224.5.5.5", "232.1.1.200", "0.0.0.0"}) {
        host.send(support::report_frame(group));
    }
    send_last(host);
    EXPECT_EQ(agent.out_with(join_line(kLastGroup)),
              join_line("239.1.0.0") + join_line("224.5.5.5") + join_line(kLastGroup));
    EXPECT_EQ(agent.stop().exit_code, 0);
}

TEST_F(Capture, kept_report_of_the_zero_group_ends_the_process)
{
    SegmentHost host(segment());
    ForegroundAgent agent(segment());
    host.send(support::report_frame("239.1.1.1"));
    host.send(support::report_frame("0.0.0.0"));
    const auto result = agent.process().wait();
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.out, join_line("239.1.1.1"));
}

TEST_F(Capture, bad_options_end_with_their_codes)
{
    const auto run = [&](std::vector<std::string> options) {
        options.insert(options.begin(), support::zent_path());
        return start_in_a(segment(), options).wait();
    };
    EXPECT_EQ(run({}).exit_code, 1);
    EXPECT_EQ(run({"-?"}).exit_code, 1);
    EXPECT_EQ(run({"-T"}).exit_code, 1);
    EXPECT_EQ(run({"-i", "va", "-g", "239.1.1.2", "-G", "239.1.1.1"}).exit_code, 1);
    const auto bad = run({"-T", "-i", "nosuch0"});
    EXPECT_EQ(bad.exit_code, 2);
    EXPECT_NE(bad.err.find("Invalid interface name: nosuch0\n"), std::string::npos);
    EXPECT_NE(bad.err.find("(INF)  zent is exiting with rc=2\n"), std::string::npos);
    EXPECT_EQ(run({"-T", "-i", "va", "-g", "10.0.0.1"}).exit_code, 2);
    const auto no_list = run({"-T", "-i", "va", "-l", "/dev/null", "-F", "/nonexistent"});
    EXPECT_EQ(no_list.exit_code, 2);
    const auto no_log = run({"-T", "-i", "va", "-l", "/nonexistent/zent.log"});
    EXPECT_EQ(no_log.exit_code, 2);
    EXPECT_NE(no_log.err.find("do_open: uid/gig="), std::string::npos) << no_log.err;
}

TEST_F(Capture, interface_that_goes_away_ends_the_run_with_2)
{
    ForegroundAgent agent(segment());
    support::inside(segment(), &NetnsPair::enter_a, [] {
        support::must_run("ip link del va");
        return 0;
    });
    const auto result = agent.process().wait();
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_NE(agent.log().find("(ERR)  app_run: pcap_dispatch() ERROR: "), std::string::npos) << agent.log();
}

TEST_F(Capture, runs_in_one_thread)
{
    ForegroundAgent agent(segment());
    const std::string dir = "/proc/" + std::to_string(agent.process().pid());
    EXPECT_NE(support::read_file(dir + "/status").find("Threads:\t1\n"), std::string::npos);
    EXPECT_EQ(agent.stop().exit_code, 0);
}
