// The pid file: its text, its lock, and what a second instance does to it.
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon.h"

using namespace support;

class DaemonPidFile : public DaemonTest {
  protected:
    // Who holds the write lock on a file; 0: nobody.
    static pid_t lock_holder(const std::string& file)
    {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_GE(fd, 0) << file;
        EXPECT_EQ(fcntl(fd, F_GETLK, &lock), 0);
        close(fd);
        return lock.l_type == F_UNLCK ? 0 : lock.l_pid;
    }
};

TEST_F(DaemonPidFile, holds_the_number_and_no_line_end)
{
    const Daemon daemon = start_usual();
    EXPECT_EQ(read_file(path("pid")), std::to_string(daemon.pid()));
    EXPECT_NE(
        log().find("(INF)  Created pidfile [" + path("pid") + "] with pid=" + std::to_string(daemon.pid())),
        std::string::npos);
}

TEST_F(DaemonPidFile, is_readable_for_all_and_writable_for_its_owner)
{
    const Daemon daemon = start_usual();
    struct stat st = {};
    ASSERT_EQ(stat(path("pid").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777U, 0644U);
}

TEST_F(DaemonPidFile, is_locked_as_long_as_the_daemon_lives)
{
    Daemon daemon = start_usual();
    EXPECT_EQ(lock_holder(path("pid")), daemon.pid());
    daemon.stop(SIGKILL);
    EXPECT_EQ(lock_holder(path("pid")), 0);
}

TEST_F(DaemonPidFile, left_behind_by_a_killed_daemon_is_taken_over_and_emptied_first)
{
    write_file(path("pid"), "99999999999999999999");
    const Daemon daemon = start_usual();
    EXPECT_EQ(read_file(path("pid")), std::to_string(daemon.pid()));
}

TEST_F(DaemonPidFile, is_removed_at_a_normal_end)
{
    Daemon daemon = start_usual();
    EXPECT_EQ(daemon.stop().exit_code, 0);
    EXPECT_FALSE(file_exists(path("pid")));
}

TEST_F(DaemonPidFile, that_is_locked_ends_a_second_daemon_with_2)
{
    const Daemon first = start_usual();
    Daemon second = start({"-i", "va", "-l", path("log2"), "-p", path("pid")});
    EXPECT_EQ(second.starter.exit_code, 0);
    EXPECT_EQ(second.wait().exit_code, 2);
    const std::string text = read_file(path("log2"));
    EXPECT_NE(text.find("(ERR)  write_lock: file [" + path("pid") +
                        "] is locked (another instance of daemon must be running)\n"),
              std::string::npos)
        << text;
    EXPECT_NE(
        text.find("(ERR)  create_pidfile_extra: failed to create pidfile [" + path("pid") + "] with pid="),
        std::string::npos)
        << text;
    EXPECT_NE(text.find("(INF)  zent is exiting with rc=2\n"), std::string::npos) << text;
}

TEST_F(DaemonPidFile, kept_a_second_daemon_takes_the_file_of_the_first_away_but_not_its_lock)
{
    Daemon first = start_usual();
    Daemon second = start({"-i", "va", "-l", path("log2"), "-p", path("pid")});
    EXPECT_EQ(second.wait().exit_code, 2);
    EXPECT_FALSE(file_exists(path("pid")));
    EXPECT_TRUE(first.is_running());
    EXPECT_EQ(first.fd(1), path("pid") + " (deleted)");
    const std::string held = "/proc/" + std::to_string(first.pid()) + "/fd/1";
    EXPECT_EQ(read_file(held), std::to_string(first.pid())) << "and it was not emptied";
    EXPECT_EQ(lock_holder(held), first.pid());
    EXPECT_EQ(first.stop().exit_code, 0);
}

TEST_F(DaemonPidFile, kept_after_that_a_third_daemon_runs_beside_the_first)
{
    Daemon first = start_usual();
    Daemon second = start({"-i", "va", "-l", path("log2"), "-p", path("pid")});
    EXPECT_EQ(second.wait().exit_code, 2);
    Daemon third = start({"-i", "va", "-l", path("log3"), "-p", path("pid")});
    EXPECT_TRUE(wait_for_file(path("log3"), " is running as UID=0"));
    EXPECT_TRUE(first.is_running());
    EXPECT_TRUE(third.is_running());
    EXPECT_EQ(read_file(path("pid")), std::to_string(third.pid()));
}

TEST_F(DaemonPidFile, kept_is_required_of_a_daemon_which_the_starter_does_not_learn)
{
    Daemon daemon = start({"-i", "va", "-l", path("log")});
    EXPECT_EQ(daemon.starter.exit_code, 0);
    EXPECT_EQ(daemon.wait().exit_code, 2);
    EXPECT_NE(log().find("(ERR)  create_pidfile_extra: no path specified\n"), std::string::npos) << log();
    EXPECT_NE(log().find("(INF)  zent is exiting with rc=2\n"), std::string::npos) << log();
}

TEST_F(DaemonPidFile, pid_file_in_a_missing_directory_ends_the_agent_with_2)
{
    Daemon daemon = start({"-i", "va", "-l", path("log"), "-p", path("missing/pid")});
    EXPECT_EQ(daemon.starter.exit_code, 0);
    EXPECT_EQ(daemon.wait().exit_code, 2);
    EXPECT_NE(log().find("(ERR)  create_pidfile_extra: open('" + path("missing/pid") + "', "),
              std::string::npos)
        << log();
    EXPECT_NE(log().find("(INF)  zent is exiting with rc=2\n"), std::string::npos) << log();
}

TEST_F(DaemonPidFile, that_is_a_symbolic_link_is_written_through_it_and_the_link_removed)
{
    ASSERT_EQ(symlink("target", path("pid").c_str()), 0);
    Daemon daemon = start_usual();
    EXPECT_EQ(read_file(path("target")), std::to_string(daemon.pid()));
    EXPECT_EQ(daemon.stop().exit_code, 0);
    struct stat st = {};
    EXPECT_EQ(lstat(path("pid").c_str(), &st), -1);
    EXPECT_TRUE(file_exists(path("target")));
}

TEST_F(DaemonPidFile, kept_without_a_relay_the_lines_end_in_it)
{
    Daemon daemon = start_usual();
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("239.1.2.3");
    const std::string expected = std::to_string(daemon.pid()) + "JOIN UDP://239.1.2.3\n";
    EXPECT_TRUE(wait_until([&] { return read_file(path("pid")) == expected; })) << read_file(path("pid"));
    EXPECT_TRUE(wait_for_log("(NRM)  relay_msg: 21 bytes output: JOIN UDP://239.1.2.3\n")) << log();
}

TEST_F(DaemonPidFile, kept_in_the_foreground_is_not_made_but_removed_at_the_end)
{
    write_file(path("pid"), "not ours");
    Process zent = foreground({"-T", "-i", "va", "-l", path("log"), "-p", path("pid")});
    ASSERT_TRUE(wait_for_log(" is running as UID="));
    EXPECT_EQ(read_file(path("pid")), "not ours");
    zent.kill(SIGTERM);
    EXPECT_EQ(zent.wait().exit_code, 0);
    EXPECT_FALSE(file_exists(path("pid")));
}

TEST_F(DaemonPidFile, kept_is_removed_even_when_the_options_are_refused)
{
    write_file(path("pid"), "of a running daemon");
    EXPECT_EQ(foreground({"-p", path("pid"), "-i", "no-such-ifc"}).wait().exit_code, 2);
    EXPECT_FALSE(file_exists(path("pid")));
}
