// zentctl check: a private namespace for each fault, and the verdict that names it. Exit code 1 in all of
// them.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "agent_run.h"
#include "check.h"
#include "command.h"
#include "fixtures.h"
#include "frames.h"
#include "interface.h"
#include "netns.h"
#include "paths.h"
#include "text.h"
#include "wait.h"
#include "wrap.h"
#include "zentctl_run.h"

using namespace support;

namespace {
bool g_sockets_are_refused = false;
} // namespace

WRAPPED(int, socket, (int domain, int type, int protocol));

int __wrap_socket(int domain, int type, int protocol)
{
    if (g_sockets_are_refused) {
        errno = EMFILE;
        return -1;
    }
    return __real_socket(domain, type, protocol);
}

namespace {

class CheckTest : public SegmentTest {
  protected:
    void SetUp() override
    {
        NEEDS_SEGMENT();
        host_ = std::make_unique<SegmentHost>(segment());
        systemctl("exit 1"); // the machine's own systemd is no part of these tests
    }

    // What the program systemctl does in a test.
    void systemctl(const std::string& body) const
    {
        const std::string path = dir_.path("systemctl");
        write_text(path, "#!/bin/sh\n" + body + "\n");
        chmod(path.c_str(), 0755);
    }

    static void write_text(const std::string& path, const std::string& text)
    {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
    }

    Process start(std::vector<std::string> args, const std::vector<std::string>& environment = {}) const
    {
        std::vector<std::string> argv{"env", "PATH=" + dir_.path() + ":" + getenv("PATH")};
        argv.insert(argv.end(), environment.begin(), environment.end());
        args.insert(args.begin(), {"check", "--json"});
        const auto command = zentctl_command(args);
        argv.insert(argv.end(), command.begin(), command.end());
        return start_in_a(segment(), argv);
    }

    // Without listening.
    ChildResult check(std::vector<std::string> args, const std::vector<std::string>& environment = {}) const
    {
        args.insert(args.end(), {"--watch", "0"});
        return start(std::move(args), environment).wait();
    }

    // While these frames come from the host, again and again.
    ChildResult check_hearing(const std::vector<std::vector<uint8_t>>& frames, const std::string& seconds,
                              std::vector<std::string> args = {},
                              const std::vector<std::string>& environment = {})
    {
        args.insert(args.begin(), {"va", "--watch", seconds});
        Process process = start(std::move(args), environment);
        EXPECT_TRUE(wait_until([&] {
            for (const auto& frame : frames) {
                host_->send(frame);
            }
            const timespec pause{0, 50'000'000};
            nanosleep(&pause, nullptr);
            return !process.out().empty();
        }));
        return process.wait();
    }

    void in_a(const std::string& command) const
    {
        inside(segment(), &NetnsPair::enter_a, [&] {
            must_run(command);
            return 0;
        });
    }

    void in_b(const std::string& command) const
    {
        inside(segment(), &NetnsPair::enter_b, [&] {
            must_run(command);
            return 0;
        });
    }

    // The agent in the foreground, once it captures.
    Process agent(std::vector<std::string> args) const
    {
        args.insert(args.begin(), {zent_path(), "-T", "-i", "va", "-l", "/dev/null"});
        Process process = start_in_a(segment(), args);
        EXPECT_TRUE(wait_for_capture(process.pid()));
        return process;
    }

    TempDir dir_;
    std::unique_ptr<SegmentHost> host_;
};

// The verdict is there, comes first, has a cure, and the exit code is 1.
void expect_fault(const ChildResult& result, const std::string& level, const std::string& code)
{
    EXPECT_EQ(result.exit_code, 1) << result.out << result.err;
    EXPECT_TRUE(has_finding(result.out, level, code)) << result.out;
    const size_t at = result.out.find("\"code\":\"" + code + '"');
    const size_t end = result.out.find('}', at);
    EXPECT_NE(result.out.substr(at, end - at).find("\"cure\":\""), std::string::npos) << result.out;
}

std::vector<uint8_t> general_query()
{
    return igmp_frame({.type = 17, .group = "0.0.0.0"});
}

// A version 3 report of one group, CHANGE_TO_EXCLUDE without sources.
std::vector<uint8_t> version3_report()
{
    std::vector<uint8_t> frame = igmp_frame({.type = 0x22, .group = "0.0.0.1"});
    frame.insert(frame.end(), {4, 0, 0, 0, 239, 1, 2, 3});
    frame[17] = 36;
    uint8_t* igmp = frame.data() + 34;
    igmp[2] = igmp[3] = 0;
    const uint16_t sum = checksum(igmp, 16);
    igmp[2] = static_cast<uint8_t>(sum >> 8);
    igmp[3] = static_cast<uint8_t>(sum);
    return frame;
}

} // namespace

TEST_F(CheckTest, a_healthy_segment_has_nothing_but_good_verdicts)
{
    systemctl(
        "cat <<'END'\nLoadState=loaded\nUnitFileState=enabled\nActiveState=active\nExecMainStatus=0\nEND");
    const ChildResult result =
        check_hearing({general_query(), report_frame("239.1.2.3")}, "1", {"-g", "224.0.1.0"});
    EXPECT_EQ(result.exit_code, 0) << result.out;
    for (const char* code :
         {"link-up", "address", "right", "no-agent", "scope", "querier", "reports", "unit-enabled"}) {
        EXPECT_TRUE(has_finding(result.out, "ok", code)) << code << result.out;
    }
    EXPECT_NE(result.out.find(R"("groups":1,)"), std::string::npos) << result.out;
}

TEST_F(CheckTest, an_interface_that_does_not_exist)
{
    expect_fault(check({"vx"}), "error", "no-interface");
}

TEST_F(CheckTest, an_interface_that_is_down)
{
    in_a("ip link set va down");
    expect_fault(check({"va"}), "error", "link-down");
}

TEST_F(CheckTest, an_interface_without_carrier)
{
    in_b("ip link set vb down");
    // The kernel may put the news off for a second.
    EXPECT_TRUE(wait_until([&] { return check({"va"}).out.find("no-carrier") != std::string::npos; }));
    expect_fault(check({"va"}), "error", "no-carrier");
}

TEST_F(CheckTest, an_interface_without_an_ipv4_address)
{
    in_a("ip -4 addr flush dev va");
    expect_fault(check({"va"}), "error", "no-ipv4");
}

TEST_F(CheckTest, the_interface_any)
{
    expect_fault(check({"any"}), "error", "any-interface");
}

TEST_F(CheckTest, an_interface_that_is_no_ethernet)
{
    if (access("/dev/net/tun", R_OK | W_OK) != 0) {
        GTEST_SKIP() << "skipped: no /dev/net/tun";
    }
    in_a("ip tuntap add tun9 mode tun && ip addr add 10.9.0.1/24 dev tun9 && ip link set tun9 up");
    expect_fault(check({"tun9"}), "error", "not-ethernet");
}

TEST_F(CheckTest, the_loopback)
{
    expect_fault(check({"lo"}), "warning", "loopback");
}

TEST_F(CheckTest, a_port_of_a_bridge)
{
    in_a("ip link add br0 type bridge && ip link set va master br0");
    const ChildResult result = check({"va"});
    expect_fault(result, "warning", "bridge-port");
    EXPECT_NE(result.out.find("watch br0"), std::string::npos);
}

TEST_F(CheckTest, vlans_above_the_interface)
{
    const bool has_vlans = inside(segment(), &NetnsPair::enter_a, [] {
        return run_program({"ip", "link", "add", "link", "va", "name", "va.5", "type", "vlan", "id", "5"})
                   .exit_code == 0;
    });
    if (!has_vlans) {
        GTEST_SKIP() << "skipped: this kernel has no VLAN interfaces";
    }
    const ChildResult result = check({"va"});
    expect_fault(result, "warning", "vlans-above");
    EXPECT_NE(result.out.find("watch va.5"), std::string::npos);
}

TEST_F(CheckTest, no_right_to_capture)
{
    std::vector<std::string> argv{"setpriv", "--bounding-set=-all", "--inh-caps=-all", "--no-new-privs"};
    const auto command = zentctl_command({"check", "--json", "--watch", "0", "va"});
    argv.insert(argv.end(), command.begin(), command.end());
    const ChildResult result = start_in_a(segment(), argv).wait();
    expect_fault(result, "error", "no-right");
    EXPECT_NE(result.out.find("setcap cap_net_raw+ep"), std::string::npos);
}

TEST_F(CheckTest, no_querier)
{
    expect_fault(check_hearing({report_frame("239.1.2.3")}, "1"), "warning", "no-querier");
}

TEST_F(CheckTest, queries_but_no_report)
{
    expect_fault(check_hearing({general_query()}, "1"), "warning", "no-report"); // too early to be sure
    expect_fault(check_hearing({general_query()}, "12"), "error", "no-report");
}

TEST_F(CheckTest, version_3_hosts_and_no_igmpv3)
{
    expect_fault(check_hearing({general_query(), version3_report()}, "1"), "error", "version3-unseen");
    const ChildResult cured =
        check_hearing({general_query(), version3_report()}, "1", {}, {"ZENT_FEATURES=igmpv3"});
    EXPECT_FALSE(has_finding(cured.out, "error", "version3-unseen"));
    EXPECT_EQ(cured.exit_code, 0) << cured.out;
}

TEST_F(CheckTest, version_3_hosts_of_the_kernel)
{
    Process process = start({"va", "--watch", "2"});
    EXPECT_TRUE(wait_until([&] {
        host_->join("239.1.2.3"); // reports, by default in version 3
        host_->leave("239.1.2.3");
        const timespec pause{0, 100'000'000};
        nanosleep(&pause, nullptr);
        return !process.out().empty();
    }));
    expect_fault(process.wait(), "error", "version3-unseen");
}

TEST_F(CheckTest, tagged_frames)
{
    auto frame = report_frame("239.1.2.3");
    frame.insert(frame.begin() + 12, {0x81, 0x00, 0x00, 0x05});
    expect_fault(check_hearing({frame, general_query()}, "1"), "warning", "tagged-frames");
}

TEST_F(CheckTest, groups_that_hide_one_another)
{
    std::vector<std::vector<uint8_t>> frames{general_query()};
    for (int i = 0; i < 600; ++i) {
        frames.push_back(
            report_frame("239.1." + std::to_string(i / 200) + "." + std::to_string(i % 200 + 50)));
    }
    expect_fault(check_hearing(frames, "2"), "warning", "hidden-groups");
    EXPECT_FALSE(
        has_finding(check_hearing(frames, "2", {}, {"ZENT_FEATURES=exact"}).out, "warning", "hidden-groups"));
}

TEST_F(CheckTest, groups_that_are_all_out_of_scope)
{
    expect_fault(check_hearing({general_query(), report_frame("239.1.2.3")}, "1", {"-g", "239.2.0.0"}),
                 "error", "out-of-scope");
}

TEST_F(CheckTest, a_report_of_group_0)
{
    expect_fault(check_hearing({general_query(), report_frame("0.0.0.0")}, "1"), "error", "group-zero");
}

TEST_F(CheckTest, a_target_whose_name_does_not_resolve)
{
    expect_fault(check({"va", "--target", "nosuchhost.invalid:4554"}), "error", "no-address");
}

TEST_F(CheckTest, a_port_above_65535)
{
    const ChildResult result = check({"va", "--target", "10.0.0.2:99999"});
    expect_fault(result, "error", "port-wraps");
    EXPECT_NE(result.out.find("34463"), std::string::npos);
    expect_fault(check({"va", "--target", "10.0.0.2:99999999999999"}), "error", "port-wraps");
}

TEST_F(CheckTest, a_target_without_a_usable_port)
{
    for (const char* target : {"10.0.0.2", "10.0.0.2:", "10.0.0.2:zent", "10.0.0.2:0", ":4554"}) {
        expect_fault(check({"va", "--target", target}), "error", "bad-target");
    }
}

TEST_F(CheckTest, a_target_without_a_route)
{
    in_a("ip route del default");
    expect_fault(check({"va", "--target", "192.0.2.1:4554"}), "error", "no-route");
}

TEST_F(CheckTest, a_target_where_nobody_listens)
{
    expect_fault(check({"va", "--target", "10.0.0.2:4554"}), "error", "port-closed");
}

TEST_F(CheckTest, a_target_that_takes_lines)
{
    const int fd = inside(segment(), &NetnsPair::enter_b, [] {
        const int receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(4554);
        EXPECT_EQ(bind(receiver, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return receiver;
    });
    const ChildResult result = check({"va", "--target", "10.0.0.2:4554", "-g", "224.0.1.0"});
    EXPECT_TRUE(has_finding(result.out, "ok", "port-open")) << result.out;
    EXPECT_EQ(result.exit_code, 0);
    char block[16];
    EXPECT_EQ(recv(fd, block, sizeof block, MSG_DONTWAIT), 0); // one empty datagram
    close(fd);
}

TEST_F(CheckTest, a_list_that_the_agent_refuses)
{
    write_text(dir_.path("list"), "239.1.1.1\n\n");
    const ChildResult result = check({"va", "--list", dir_.path("list")});
    expect_fault(result, "error", "list-refused");
    EXPECT_NE(result.out.find("zentctl lint"), std::string::npos);
}

TEST_F(CheckTest, a_list_that_is_not_there)
{
    expect_fault(check({"va", "--list", dir_.path("none")}), "error", "unreadable");
}

TEST_F(CheckTest, a_list_that_the_range_holds_already)
{
    write_text(dir_.path("list"), "239.1.1.1\n");
    const ChildResult result = check({"va", "--list", dir_.path("list"), "-g", "224.0.1.0"});
    expect_fault(result, "warning", "list-adds-nothing");
    EXPECT_NE(
        result.out.find("range and list are a union: everything from 224.0.1.0 up, the list adds nothing"),
        std::string::npos)
        << result.out;
}

TEST_F(CheckTest, a_list_that_is_empty)
{
    write_text(dir_.path("list"), "");
    expect_fault(check({"va", "--list", dir_.path("list")}), "warning", "empty-list");
}

TEST_F(CheckTest, a_list_with_entries_without_effect)
{
    write_text(dir_.path("list"), "239.1.1.1\n239.1.1.200\n");
    expect_fault(check({"va", "--list", dir_.path("list")}), "warning", "unmatched");
    EXPECT_EQ(check({"va", "--list", dir_.path("list")}, {"ZENT_FEATURES=exact"}).exit_code, 0);
}

TEST_F(CheckTest, a_scope_that_lets_group_0_through)
{
    expect_fault(check({"va", "-G", "239.255.255.255"}), "warning", "no-lower-bound");
}

TEST_F(CheckTest, features_that_the_agent_refuses)
{
    expect_fault(check({"va"}, {"ZENT_FEATURES=exact,fast"}), "error", "bad-features");
}

TEST_F(CheckTest, a_unit_that_is_not_enabled)
{
    systemctl(
        "printf 'LoadState=loaded\\nUnitFileState=disabled\\nActiveState=inactive\\nExecMainStatus=0\\n'");
    expect_fault(check({"va"}), "warning", "unit-disabled");
}

TEST_F(CheckTest, a_unit_that_is_not_installed)
{
    systemctl("printf 'LoadState=not-found\\nUnitFileState=\\nActiveState=inactive\\n'");
    expect_fault(check({"va"}), "warning", "no-unit");
}

TEST_F(CheckTest, a_unit_whose_agent_ended_with_an_error)
{
    systemctl("printf 'LoadState=loaded\\nUnitFileState=enabled\\nActiveState=failed\\nExecMainStatus=2\\n'");
    const ChildResult result = check({"va"});
    expect_fault(result, "error", "unit-failed");
    EXPECT_NE(result.out.find("journalctl -u zent@va"), std::string::npos);
}

TEST_F(CheckTest, the_unit_tells_its_arguments_and_features_which_are_checked)
{
    write_text(dir_.path("env"),
               "# mine\nZENT_ARGS=-R 10.0.0.2:99999 -G \"239.255.255.255\"\nZENT_FEATURES=exact\n");
    systemctl("cat <<'END'\nLoadState=loaded\nUnitFileState=enabled\nActiveState=active\nExecMainStatus=0\n"
              "Environment=\"ZENT_SCOPE=-g 224.0.1.0\" ZENT_FEATURES=exact,immediate\n"
              "EnvironmentFiles=" +
              dir_.path("env") +
              " (ignore_errors=yes)\n"
              "ExecStart={ path=/usr/sbin/zent ; argv[]=zent -i va $ZENT_SCOPE -L warn $ZENT_ARGS ; "
              "ignore_errors=no ; start_time=[n/a] }\nEND");
    const ChildResult result = check({"va"});
    expect_fault(result, "error", "port-wraps");
    EXPECT_NE(result.out.find("zent -i va -g 224.0.1.0 -L warn -R 10.0.0.2:99999 -G 239.255.255.255 with "
                              "ZENT_FEATURES=exact"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("the agent reports 224.0.1.0 to 239.255.255.255"), std::string::npos)
        << result.out;
}

TEST_F(CheckTest, an_agent_that_runs_is_seen_with_its_options)
{
    Process running = agent({"-g", "239.0.0.0", "-R", "10.0.0.2:99999"});
    const ChildResult result = check({"va"});
    EXPECT_TRUE(has_finding(result.out, "ok", "agent-runs")) << result.out;
    EXPECT_NE(result.out.find("pid " + std::to_string(running.pid()) + ", and captures"), std::string::npos);
    expect_fault(result, "error", "port-wraps");
}

TEST_F(CheckTest, two_agents_on_one_interface)
{
    Process first = agent({"-g", "239.0.0.0"});
    Process second = agent({"-g", "239.0.0.0"});
    EXPECT_TRUE(wait_until([&] { return check({"va"}).out.find("two-agents") != std::string::npos; }));
    expect_fault(check({"va"}), "warning", "two-agents");
}

TEST_F(CheckTest, a_pid_file_that_a_daemon_holds)
{
    const std::string path = dir_.path("zent.pid");
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
    Process running = agent({"-g", "239.0.0.0", "-p", path});
    const ChildResult result = check({"va"});
    expect_fault(result, "warning", "pidfile-locked");
    EXPECT_NE(result.out.find("daemon " + std::to_string(getpid())), std::string::npos) << result.out;
    close(fd);
}

TEST_F(CheckTest, worst_first_one_verdict_a_line_each_with_its_cure)
{
    std::vector<std::string> argv{"env", "PATH=" + dir_.path() + ":" + getenv("PATH")};
    const auto command = zentctl_command(
        {"check", "va", "--watch", "0", "-G", "239.255.255.255", "--target", "10.0.0.2:4554"});
    argv.insert(argv.end(), command.begin(), command.end());
    const std::string out = start_in_a(segment(), argv).wait().out;
    EXPECT_EQ(out.find("error   port-closed: 10.0.0.2:4554 is closed: nobody listens there. Cure: "), 0U)
        << out;
    const size_t warning = out.find("\nwarning no-lower-bound: ");
    ASSERT_NE(warning, std::string::npos) << out;
    EXPECT_LT(warning, out.find("\nok      ")) << out;
}

TEST_F(CheckTest, a_wrong_bound_of_its_own_is_a_usage_error)
{
    EXPECT_EQ(check({"va", "-g", "10.0.0.1"}).exit_code, 2);
    EXPECT_EQ(run_zentctl({"check", "va", "--watch", "3601"}).exit_code, 2);
}

TEST(SplitWords, are_those_of_systemd)
{
    EXPECT_EQ(zentctl::split_words("  a \"b c\" 'd \"e' f\\ g \"\" "),
              (Lines{"a", "b c", "d \"e", "f g", ""}));
    EXPECT_EQ(zentctl::split_words(""), Lines{});
}

TEST(Interfaces, without_a_descriptor_for_the_kernel_the_reason_is_told)
{
    std::string told;
    g_sockets_are_refused = true;
    try {
        zentctl::all_interfaces();
    } catch (const zentctl::CannotLook& error) {
        told = error.what();
    }
    g_sockets_are_refused = false;
    EXPECT_EQ(told, std::string("the list of interfaces: ") + strerror(EMFILE));
}
