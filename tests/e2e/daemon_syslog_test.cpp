// What a daemon sends to syslog, received at a /dev/log of its own.
#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "daemon.h"
#include "match.h"
#include "privns.h"

using namespace support;

class DaemonSyslog : public DaemonTest {
  protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        make_private_dev(path("dev"));
        struct sockaddr_un address = {AF_UNIX, "/dev/log"};
        socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    void TearDown() override
    {
        close(socket_);
        DaemonTest::TearDown();
    }

    // Everything that has come; to be asked when the sender has ended.
    std::vector<std::string> received() const
    {
        std::vector<std::string> messages;
        char block[4096];
        for (ssize_t n = 0; (n = recv(socket_, block, sizeof block, 0)) >= 0;) {
            messages.emplace_back(block, static_cast<size_t>(n));
        }
        return messages;
    }

    int socket_ = -1;
};

TEST_F(DaemonSyslog, errors_go_to_syslog_with_facility_local0_name_and_process_id)
{
    Daemon daemon = start({"-i", "va", "-l", path("log"), "-p", path("pid"), "-F", path("no-list")});
    const std::string pid = std::to_string(daemon.pid());
    EXPECT_EQ(daemon.wait().exit_code, 2);
    const std::vector<std::string> messages = received();
    ASSERT_EQ(messages.size(), 1U);
    // Priority 128 (local0) + 3 (error), and the bare message without the header of the log.
    const std::string form("<131>[A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} zent\\[" + pid +
                           "\\]: load_group_list: failed to open \\[" + path("no-list") + "\\]\n?");
    EXPECT_TRUE(matches(messages[0], form)) << messages[0];
    EXPECT_NE(log().find(" " + pid + "  (ERR)  load_group_list: failed to open [" + path("no-list") + "]\n"),
              std::string::npos)
        << log();
}

TEST_F(DaemonSyslog, a_run_without_errors_sends_nothing_to_syslog)
{
    Daemon daemon = start_usual();
    EXPECT_EQ(daemon.stop().exit_code, 0);
    EXPECT_EQ(received(), std::vector<std::string>{});
}

TEST_F(DaemonSyslog, what_fails_before_the_pid_file_stands_sends_nothing_to_syslog)
{
    Daemon daemon = start({"-i", "va", "-l", path("log")});
    EXPECT_EQ(daemon.wait().exit_code, 2);
    EXPECT_NE(log().find("(ERR)  create_pidfile_extra: no path specified\n"), std::string::npos);
    EXPECT_EQ(received(), std::vector<std::string>{});
}

TEST_F(DaemonSyslog, an_agent_in_the_foreground_sends_nothing_to_syslog)
{
    const ChildResult result =
        foreground({"-T", "-i", "va", "-l", path("log"), "-F", path("no-list")}).wait();
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_EQ(received(), std::vector<std::string>{});
}

TEST_F(DaemonSyslog, errors_go_to_syslog_whatever_the_level)
{
    Daemon daemon =
        start({"-i", "va", "-l", "/dev/null", "-p", path("pid"), "-L", "err", "-F", path("no-list")});
    EXPECT_EQ(daemon.wait().exit_code, 2);
    EXPECT_EQ(received().size(), 1U);
}

TEST_F(DaemonSyslog, kept_at_debug_its_socket_takes_descriptor_2_and_gets_the_mirrored_lines)
{
    Daemon daemon =
        start({"-i", "va", "-l", path("log"), "-p", path("pid"), "-L", "debug", "-F", path("no-list")});
    EXPECT_EQ(daemon.wait().exit_code, 2);
    const std::vector<std::string> messages = received();
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].compare(0, 5, "<131>"), 0) << messages[0];
    // A line of the log as it is, from the mirror.
    EXPECT_NE(messages[1].find("(INF)  zent is exiting with rc=2\n"), std::string::npos) << messages[1];
    EXPECT_NE(messages[1][0], '<');
}

TEST_F(DaemonSyslog, that_is_not_there_costs_nothing)
{
    unlink("/dev/log");
    Daemon daemon = start({"-i", "va", "-l", path("log"), "-p", path("pid"), "-F", path("no-list")});
    EXPECT_EQ(daemon.wait().exit_code, 2);
    EXPECT_NE(log().find("(ERR)  load_group_list: failed to open"), std::string::npos);
}
