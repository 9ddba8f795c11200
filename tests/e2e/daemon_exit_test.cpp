// Every exit code, from the binary.
#include <filesystem>
#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

#include "daemon.h"

using namespace support;

namespace {

void become_nobody()
{
    if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) {
        _exit(126);
    }
}

// The opening and the end of the usage text; usage_test has it to the byte.
constexpr const char* kUsageHead = "zent (Tavrel IGMP agent) 0.1-6.0 (master) regular [";
constexpr const char* kUsageTail = "zent belongs to the Tavrel family of IP multicast relay programs.\n\n";

} // namespace

class DaemonExit : public DaemonTest {
  protected:
    // The agent in the foreground, to its end.
    ChildResult result_of(const std::vector<std::string>& args,
                          const std::function<void()>& in_child = {}) const
    {
        return foreground(args, in_child).wait();
    }

    void expect_usage(const std::vector<std::string>& args, const std::string& complaint = "") const
    {
        const ChildResult result = result_of(args);
        EXPECT_EQ(result.exit_code, 1);
        EXPECT_TRUE(result.err.starts_with(complaint + kUsageHead)) << result.err;
        EXPECT_TRUE(result.err.ends_with(kUsageTail)) << result.err;
        EXPECT_EQ(result.out, "");
    }

    void expect_refused(const std::vector<std::string>& args, const std::string& complaint) const
    {
        const ChildResult result = result_of(args);
        EXPECT_EQ(result.exit_code, 2);
        EXPECT_NE(result.err.find(complaint), std::string::npos) << result.err;
        EXPECT_NE(result.err.find("zent is exiting with rc=2\n"), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }
};

TEST_F(DaemonExit, without_arguments_is_1_with_the_usage_text)
{
    expect_usage({});
}

TEST_F(DaemonExit, code_of_the_question_mark_is_1_with_the_usage_text)
{
    expect_usage({"-?"});
}

TEST_F(DaemonExit, code_of_an_unknown_option_is_1_with_the_usage_text)
{
    expect_usage({"-x"}, binary() + ": invalid option -- 'x'\n");
}

TEST_F(DaemonExit, code_of_an_option_without_its_argument_is_1_with_the_usage_text)
{
    expect_usage({"-T", "-i"}, binary() + ": option requires an argument -- 'i'\n");
}

TEST_F(DaemonExit, without_an_interface_is_1_with_the_usage_text)
{
    expect_usage({"-T"}, "zent: interface must be specified\n");
}

TEST_F(DaemonExit, code_of_a_range_that_ends_before_it_begins_is_1)
{
    const ChildResult result = result_of({"-T", "-i", "va", "-g", "239.0.0.2", "-G", "239.0.0.1"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.err, "zent: BAD g/G: min (0xef000002) > max (0xef000001) for group addresses\n");
}

TEST_F(DaemonExit, code_of_an_unknown_interface_is_2)
{
    expect_refused({"-T", "-i", "nosuch"}, "Invalid interface name: nosuch\n");
}

TEST_F(DaemonExit, code_of_a_least_group_that_is_no_address_is_2)
{
    expect_refused({"-T", "-i", "va", "-g", "somewhere"}, "Invalid address: somewhere\n");
}

TEST_F(DaemonExit, code_of_a_greatest_group_that_is_not_multicast_is_2)
{
    expect_refused({"-T", "-i", "va", "-G", "10.0.0.1"}, "Non-multicast address: 10.0.0.1 (0x100000a)\n");
}

TEST_F(DaemonExit, code_of_a_user_without_capture_rights_is_2_with_the_reason_before_any_fork)
{
    const ChildResult result = result_of({"-i", "va", "-l", "/dev/null", "-p", path("pid")}, become_nobody);
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_NE(result.err.find("pcap_setup: pcap_open_live(va, ...): FAILED: "), std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("ermission"), std::string::npos) << result.err;
}

TEST_F(DaemonExit, code_of_a_list_that_cannot_be_read_is_2)
{
    EXPECT_EQ(result_of({"-T", "-i", "va", "-l", path("log"), "-F", path("no-list")}).exit_code, 2);
    EXPECT_NE(log().find("(ERR)  load_group_list: failed to open ["), std::string::npos);
    EXPECT_NE(log().find("(INF)  zent is exiting with rc=2\n"), std::string::npos);
}

TEST_F(DaemonExit, code_of_a_log_that_cannot_be_opened_is_2)
{
    const ChildResult result = result_of({"-T", "-i", "va", "-l", path("missing/log")});
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_NE(result.err.find("do_open: uid/gig=0/0 fopen("), std::string::npos) << result.err;
}

TEST_F(DaemonExit, code_of_a_signal_is_0)
{
    Process zent = foreground({"-T", "-i", "va", "-l", path("log")});
    ASSERT_TRUE(wait_for_log(" is running as UID="));
    zent.kill(SIGTERM);
    EXPECT_EQ(zent.wait().exit_code, 0);
}

TEST_F(DaemonExit, a_user_with_the_right_to_capture_alone_runs_in_the_foreground_with_the_log_on_stderr)
{
    Process zent = run({"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", "--inh-caps",
                        "-all,+net_raw", "--ambient-caps", "-all,+net_raw", "--bounding-set", "-all,+net_raw",
                        binary(), "-i", "va", "-l", "/dev/null", "-L", "norm"});
    ASSERT_TRUE(wait_for_capture(zent.pid()));
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("239.1.2.3");
    EXPECT_TRUE(zent.wait_for_err("(NRM)  relay_msg: 21 bytes output: JOIN UDP://239.1.2.3\n")) << zent.err();
    EXPECT_EQ(zent.out(), "JOIN UDP://239.1.2.3\n");
    EXPECT_EQ(proc_status(zent.pid(), "CapEff"), "0000000000002000");
    zent.kill(SIGTERM);
    EXPECT_EQ(zent.wait().exit_code, 0);
}

TEST_F(DaemonExit, under_another_name_is_told_under_that_name)
{
    std::filesystem::copy_file(binary(), path("watcher"));
    const ChildResult result = run({path("watcher"), "-T"}).wait();
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_TRUE(result.err.starts_with("watcher: interface must be specified\nwatcher (#error#) 0.1-6.0 "))
        << result.err;
}
