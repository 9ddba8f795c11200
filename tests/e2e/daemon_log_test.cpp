// The daemon's log file: where it is, what happens to an old one, what the levels let through.
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon.h"

using namespace support;

class DaemonLog : public DaemonTest {
  protected:
    static struct stat stat_of(const std::string& file)
    {
        struct stat st = {};
        EXPECT_EQ(stat(file.c_str(), &st), 0) << file;
        return st;
    }

    static void set_mtime(const std::string& file, time_t seconds)
    {
        const timespec times[2] = {{seconds, 0}, {seconds, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0) << file;
    }
};

TEST_F(DaemonLog, that_stands_there_is_moved_aside_under_its_modification_time)
{
    write_file(path("log"), "old\n");
    set_mtime(path("log"), 1000000000);
    const Daemon daemon = start_usual();
    EXPECT_EQ(read_file(path("log.1000000000")), "old\n");
    EXPECT_EQ(log().find("old"), std::string::npos);
}

TEST_F(DaemonLog, log_of_each_run_is_kept_by_the_next)
{
    Daemon first = start_usual();
    first.stop();
    const std::string text = log();
    set_mtime(path("log"), 1000000001);
    const Daemon second = start_usual();
    EXPECT_EQ(read_file(path("log.1000000001")), text);
}

TEST_F(DaemonLog, that_is_empty_is_kept_and_used)
{
    write_file(path("log"), "");
    const ino_t inode = stat_of(path("log")).st_ino;
    const Daemon daemon = start_usual();
    EXPECT_EQ(stat_of(path("log")).st_ino, inode);
}

TEST_F(DaemonLog, kept_is_writable_for_all_since_a_daemon_has_umask_0)
{
    const Daemon daemon = start_usual();
    EXPECT_EQ(stat_of(path("log")).st_mode & 0777U, 0666U);
}

TEST_F(DaemonLog, is_written_through_a_symbolic_link)
{
    ASSERT_EQ(symlink(path("target").c_str(), path("log").c_str()), 0);
    const Daemon daemon = start_usual();
    EXPECT_EQ(daemon.fd(0), path("target"));
}

TEST_F(DaemonLog, kept_a_link_to_an_old_log_is_itself_moved_aside)
{
    write_file(path("target"), "old\n");
    set_mtime(path("target"), 1000000002);
    ASSERT_EQ(symlink(path("target").c_str(), path("log").c_str()), 0);
    const Daemon daemon = start_usual();
    EXPECT_TRUE(std::filesystem::is_symlink(path("log.1000000002")));
    EXPECT_EQ(read_file(path("target")), "old\n");
    EXPECT_EQ(daemon.fd(0), path("log"));
}

TEST_F(DaemonLog, that_is_not_named_is_dev_null_which_is_told_on_stderr)
{
    const Daemon daemon = start({"-i", "va", "-p", path("pid")});
    ASSERT_TRUE(wait_until([&] { return file_exists(path("pid")); }));
    EXPECT_NE(read_file(path("stderr")).find("zent: logging to /dev/null\n"), std::string::npos);
    EXPECT_EQ(daemon.fd(0), "/dev/null");
    EXPECT_TRUE(daemon.is_running());
}

TEST_F(DaemonLog, that_cannot_be_opened_ends_the_daemon_with_2_and_the_reason_on_stderr)
{
    Daemon daemon = start({"-i", "va", "-l", path("missing/log"), "-p", path("pid")});
    EXPECT_EQ(daemon.starter.exit_code, 0);
    EXPECT_EQ(daemon.wait().exit_code, 2);
    EXPECT_NE(read_file(path("stderr"))
                  .find("do_open: uid/gig=0/0 fopen(" + path("missing/log") + ") ERROR(2): No such file"),
              std::string::npos)
        << read_file(path("stderr"));
}

TEST_F(DaemonLog, log_path_above_128_characters_is_refused)
{
    const std::string name(129, 'l');
    Daemon daemon = start({"-i", "va", "-l", name, "-p", path("pid")});
    EXPECT_EQ(daemon.wait().exit_code, 2);
    EXPECT_NE(read_file(path("stderr")).find("Log pathname/command is too long, 128 bytes allowed\n"),
              std::string::npos);
}

TEST_F(DaemonLog, log_at_info_shows_the_start_and_the_end)
{
    Daemon daemon = start_usual();
    daemon.stop();
    size_t at = 0;
    for (const char* text : {"(INF)  Created pidfile [", "(INF)  zent is running as UID=0, pid=",
                             "(INF)  app_run: ended with rc=0\n", "(INF)  zent is exiting with rc=0\n"}) {
        at = log().find(text, at);
        ASSERT_NE(at, std::string::npos) << text;
    }
    EXPECT_EQ(log().find("(DBG)"), std::string::npos);
}

TEST_F(DaemonLog, log_at_norm_has_the_relay_lines_alone)
{
    Daemon daemon = start({"-i", "va", "-l", path("log"), "-p", path("pid"), "-L", "norm"});
    ASSERT_TRUE(wait_until([&] { return file_exists(path("pid")); }));
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("239.1.2.3");
    ASSERT_TRUE(wait_for_log("(NRM)  relay_msg: 21 bytes output: JOIN UDP://239.1.2.3\n"));
    daemon.stop();
    EXPECT_EQ(log().find("(INF)"), std::string::npos) << log();
}

TEST_F(DaemonLog, kept_at_debug_a_daemon_mirrors_to_a_closed_stderr_and_runs_on)
{
    Daemon daemon = start({"-i", "va", "-l", path("log"), "-p", path("pid"), "-L", "debug"});
    ASSERT_TRUE(wait_for_log("(DBG)  app_run: waiting for packets\n"));
    EXPECT_EQ(daemon.fd(0), path("log"));
    EXPECT_EQ(daemon.fd(1), path("pid"));
    EXPECT_EQ(daemon.fd(2), "");
    EXPECT_EQ(read_file(path("stderr")).find("waiting for packets"), std::string::npos);
    EXPECT_EQ(read_file(path("pid")), std::to_string(daemon.pid())) << "no mirrored line ended here";
    EXPECT_EQ(daemon.stop().exit_code, 0);
    EXPECT_NE(log().find("(DBG)  reporter_setup: reporting to STDOUT\n"), std::string::npos) << log();
}

TEST_F(DaemonLog, log_at_debug_in_the_foreground_goes_to_stderr_too)
{
    Process zent = foreground({"-T", "-i", "va", "-l", path("log"), "-L", "section"});
    EXPECT_TRUE(zent.wait_for_err("(DBG)  app_run: waiting for packets\n"));
    EXPECT_NE(log().find("(DBG)  app_run: waiting for packets\n"), std::string::npos);
}
