// Signals to a running daemon, and to the agent in the foreground.
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include "daemon.h"

using namespace support;

class DaemonSignal : public DaemonTest {
  protected:
    void expect_clean_end(int signo)
    {
        Daemon daemon = start_usual();
        const DaemonEnd end = daemon.stop(signo);
        EXPECT_EQ(end.exit_code, 0) << "signal " << end.signal;
        EXPECT_FALSE(file_exists(path("pid")));
        EXPECT_NE(log().find("(INF)  app_run: ended with rc=0\n"), std::string::npos) << log();
        EXPECT_NE(log().find("(INF)  zent is exiting with rc=0\n"), std::string::npos) << log();
    }

    // No handler of the agent: the process ends where it stands and leaves its file.
    void expect_default_action(int signo)
    {
        Daemon daemon = start_usual();
        const std::string pid = std::to_string(daemon.pid());
        const std::string before = log();
        const DaemonEnd end = daemon.stop(signo);
        EXPECT_EQ(end.signal, signo) << "exit code " << end.exit_code;
        EXPECT_EQ(read_file(path("pid")), pid);
        EXPECT_EQ(log(), before);
    }
};

TEST_F(DaemonSignal, sigterm_stops_the_agent)
{
    expect_clean_end(SIGTERM);
}

TEST_F(DaemonSignal, sigint_stops_the_agent)
{
    expect_clean_end(SIGINT);
}

TEST_F(DaemonSignal, sigquit_stops_the_agent)
{
    expect_clean_end(SIGQUIT);
}

TEST_F(DaemonSignal, sighup_kills_it_without_shutdown)
{
    expect_default_action(SIGHUP);
}

TEST_F(DaemonSignal, sigusr1_kills_it_without_shutdown)
{
    expect_default_action(SIGUSR1);
}

TEST_F(DaemonSignal, sigpipe_kills_it_without_shutdown)
{
    expect_default_action(SIGPIPE);
}

TEST_F(DaemonSignal, sigterm_is_told_on_stderr_in_the_foreground)
{
    Process zent = foreground({"-T", "-i", "va", "-l", path("log")});
    ASSERT_TRUE(wait_for_log(" is running as UID="));
    zent.kill(SIGTERM);
    const ChildResult result = zent.wait();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_NE(result.err.find("\nSIG(15)\n"), std::string::npos) << result.err;
    EXPECT_EQ(result.out, "");
}

TEST_F(DaemonSignal, sigint_is_told_by_its_number)
{
    Process zent = foreground({"-T", "-i", "va", "-l", path("log")});
    ASSERT_TRUE(wait_for_log(" is running as UID="));
    zent.kill(SIGINT);
    const ChildResult result = zent.wait();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_NE(result.err.find("\nSIG(2)\n"), std::string::npos) << result.err;
}

TEST_F(DaemonSignal, groups_that_are_joined_at_the_end_are_not_left)
{
    Process zent = foreground({"-T", "-i", "va", "-l", path("log")});
    ASSERT_TRUE(wait_for_log(" is running as UID="));
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("239.1.2.3");
    EXPECT_TRUE(zent.wait_for_out("JOIN UDP://239.1.2.3\n"));
    zent.kill(SIGTERM);
    EXPECT_EQ(zent.wait().out, "JOIN UDP://239.1.2.3\n");
}

TEST_F(DaemonSignal, a_closed_pipe_on_stdout_kills_it_at_the_next_line)
{
    int pipe_fds[2];
    ASSERT_EQ(pipe2(pipe_fds, O_CLOEXEC), 0);
    Process zent =
        foreground({"-T", "-i", "va", "-l", path("log")}, [&] { dup2(pipe_fds[1], STDOUT_FILENO); });
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    ASSERT_TRUE(wait_for_log(" is running as UID="));
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("239.1.2.3");
    EXPECT_EQ(zent.wait().signal, SIGPIPE);
}
