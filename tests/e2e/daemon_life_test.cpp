// How the agent becomes a daemon, and what it is then.
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "daemon.h"

using namespace support;

class DaemonLife : public DaemonTest {};

TEST_F(DaemonLife, two_forks_lead_to_it_and_both_forerunners_end_with_0)
{
    const Daemon daemon = start_usual();
    EXPECT_EQ(daemon.starter.exit_code, 0);
    EXPECT_EQ(daemon.forerunner_code, 0);
    EXPECT_EQ(daemon.stat().parent, getpid()) << "an orphan, which the test adopts in place of init";
    EXPECT_EQ(daemon.stat().name, "zent");
}

TEST_F(DaemonLife, has_a_session_that_it_does_not_lead_and_no_terminal)
{
    const Daemon daemon = start_usual();
    EXPECT_EQ(daemon.stat().session, daemon.forerunner);
    EXPECT_NE(daemon.stat().session, daemon.pid());
    EXPECT_NE(daemon.stat().session, getsid(0));
    EXPECT_EQ(daemon.stat().terminal, 0);
}

TEST_F(DaemonLife, daemon_of_root_has_umask_0_and_stands_in_the_root_directory)
{
    const Daemon daemon = start_usual();
    EXPECT_EQ(proc_status(daemon.pid(), "Umask"), "0000");
    EXPECT_EQ(proc_link(daemon.pid(), "cwd"), "/");
    EXPECT_EQ(proc_status(daemon.pid(), "Uid"), "0\t0\t0\t0");
    EXPECT_NE(log().find("zent is running as UID=0, pid=" + std::to_string(daemon.pid()) + "\n"),
              std::string::npos);
}

TEST_F(DaemonLife, kept_without_a_relay_has_the_log_at_0_the_pid_file_at_1_and_nothing_at_2)
{
    const Daemon daemon = start_usual();
    EXPECT_EQ(daemon.fd(0), path("log"));
    EXPECT_EQ(daemon.fd(1), path("pid"));
    EXPECT_EQ(daemon.fd(2), "");
}

TEST_F(DaemonLife, a_group_list_is_closed_after_reading)
{
    write_file(path("list"), "239.1.2.3\n");
    const Daemon daemon = start_usual({"-F", path("list")});
    EXPECT_EQ(daemon.fd(0), path("log"));
    EXPECT_EQ(daemon.fd(1), path("pid"));
    EXPECT_EQ(daemon.fd(2), "");
}

TEST_F(DaemonLife, a_relative_group_list_is_looked_for_in_the_root_directory)
{
    write_file(path("list"), "239.1.2.3\n");
    Daemon daemon = start({"-i", "va", "-l", path("log"), "-p", path("pid"), "-F", "list"});
    EXPECT_EQ(daemon.starter.exit_code, 0);
    EXPECT_EQ(daemon.wait().exit_code, 2);
    EXPECT_NE(log().find("load_group_list: failed to open [list]\n"), std::string::npos);
}

TEST_F(DaemonLife, lines_of_the_log_carry_its_own_process_id)
{
    Daemon daemon = start_usual();
    const std::string pid = std::to_string(daemon.pid());
    daemon.stop();
    const std::string text = log();
    size_t lines = 0;
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1, ++lines) {
        EXPECT_NE(text.substr(at, text.find('\n', at) - at).find(" " + pid + "  ("), std::string::npos)
            << text;
    }
    EXPECT_GE(lines, 4U);
}

TEST_F(DaemonLife, says_on_stderr_what_happens_before_the_log_is_open_and_nothing_later)
{
    const Daemon daemon = start_usual();
    const std::string errors = read_file(path("stderr"));
    EXPECT_EQ(errors.find("is running as"), std::string::npos) << errors;
    EXPECT_EQ(read_file(path("stdout")), "");
}

TEST_F(DaemonLife, agent_in_the_foreground_keeps_parent_directory_and_descriptors)
{
    Process zent = foreground({"-T", "-i", "va", "-l", path("log")});
    ASSERT_TRUE(wait_for_log(" is running as UID=0, pid="));
    EXPECT_EQ(proc_link(zent.pid(), "cwd"), path("").substr(0, path("").size() - 1));
    EXPECT_EQ(proc_link(zent.pid(), "fd/0"), proc_link(getpid(), "fd/0"));
    EXPECT_EQ(proc_link(zent.pid(), "fd/1").compare(0, 5, "pipe:"), 0);
    EXPECT_EQ(proc_link(zent.pid(), "fd/2").compare(0, 5, "pipe:"), 0);
    EXPECT_NE(log().find(", pid=" + std::to_string(zent.pid()) + "\n"), std::string::npos);
    zent.kill(SIGTERM);
    EXPECT_EQ(zent.wait().exit_code, 0);
}

TEST_F(DaemonLife, agent_in_the_foreground_does_not_change_the_user)
{
    Process zent = foreground({"-T", "-i", "va", "-l", path("log"), "-u", "nobody"});
    ASSERT_TRUE(wait_for_log(" is running as UID=0, pid="));
    EXPECT_EQ(log().find("Running as user"), std::string::npos);
    EXPECT_EQ(proc_status(zent.pid(), "Uid"), "0\t0\t0\t0");
}
