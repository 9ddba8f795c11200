// Destinations: files, files that were there before, pipes, stderr; and their end.
#include "log.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "child.h"
#include "fds.h"
#include "logcap.h"
#include "logfaults.h"
#include "tempdir.h"
#include "util.h"
#include "wrap.h"

namespace {

using support::FdGuard;
using support::TempDir;

class LogOpen : public testing::Test {
  protected:
    void SetUp() override
    {
        glog_init("tester");
        log.time_format = f_NO_TIME;
    }

    // Sets a file's modification time.
    void set_mtime(const std::string& name, time_t seconds)
    {
        const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, dir.path(name).c_str(), times, 0), 0);
    }

    // The directory's path, made so that a file "x..." in it has a path of the length given.
    std::string path_of_length(size_t length) const
    {
        return dir.path(std::string(length - dir.path("").size(), 'x'));
    }

    TempDir dir;
    struct log_ctx log = ZERO_LOG;
};

using Names = std::vector<std::string>;

class Stderr {
  public:
    Stderr() { testing::internal::CaptureStderr(); }

    std::string text() { return testing::internal::GetCapturedStderr(); }
};

using LogPipe = LogOpen;
using LogClose = LogOpen;

// What openlog was last called with.
std::string g_ident;
int g_option = -1;
int g_facility = -1;

} // namespace

WRAPPED(void, openlog, (const char* ident, int option, int facility));

extern "C" {
void __wrap_openlog(const char* ident, int option, int facility)
{
    g_ident = ident;
    g_option = option;
    g_facility = facility;
    __real_openlog(ident, option, facility);
}
}

TEST(LogSyslogSettings, name_process_id_console_and_facility)
{
    glog_enable_syslog("tester");
    EXPECT_EQ(g_ident, "tester");
    EXPECT_EQ(g_option, 3); // LOG_PID | LOG_CONS
    EXPECT_EQ(g_facility, 128);
    EXPECT_NE(g_log.use_syslog, 0);
    EXPECT_EQ(g_access_log.use_syslog, 0);
    glog_disable_syslog();
    EXPECT_EQ(g_log.use_syslog, 0);
}

// ---- files -------------------------------------------------------------------------------------

TEST_F(LogOpen, file_is_made_and_written_without_buffer)
{
    const FdGuard guard;
    const std::string path = dir.path("log");
    Stderr err;
    ASSERT_EQ(log_open(&log, path.c_str()), 0);
    EXPECT_EQ(faults::mode, "a+");
    EXPECT_EQ(faults::buffering, _IONBF);
    EXPECT_STREQ(log.name, path.c_str());
    EXPECT_EQ(log.is_pipe, 0);
    EXPECT_EQ(log.total_out, 0U);
    log_write(&log, ERR_level, "line\n");
    EXPECT_EQ(dir.read("log"), "(ERR)  line\n");
    EXPECT_EQ(log.total_out, 12U);
    log_close(&log);
    EXPECT_EQ(err.text(), "");
}

TEST_F(LogOpen, no_path_means_stderr)
{
    log.total_out = 55;
    ASSERT_EQ(log_open(&log, nullptr), 0);
    EXPECT_EQ(log_fp(&log), stderr);
    EXPECT_EQ(log.total_out, 0U);
    EXPECT_STREQ(log.name, "");
    Stderr err;
    log_write(&log, ERR_level, "line\n");
    log_close(&log);
    EXPECT_EQ(err.text(), "(ERR)  line\n");
}

TEST_F(LogOpen, file_of_some_length_is_moved_aside_under_its_modification_time)
{
    dir.write("log", "old\n");
    set_mtime("log", 1234567890);
    ASSERT_EQ(log_open(&log, dir.path("log").c_str()), 0);
    EXPECT_EQ(log.total_out, 0U);
    log_write(&log, ERR_level, "new\n");
    log_close(&log);
    EXPECT_EQ(dir.names(), (Names{"log", "log.1234567890"}));
    EXPECT_EQ(dir.read("log"), "(ERR)  new\n");
    EXPECT_EQ(dir.read("log.1234567890"), "old\n");
    for (const time_t tm : log.rota.tm) {
        EXPECT_EQ(tm, 0) << "what is moved aside is not in the ring";
    }
}

TEST_F(LogOpen, file_of_some_length_is_continued_on_demand)
{
    dir.write("log", "old\n");
    log_append_old(&log);
    EXPECT_TRUE(log.append_old);
    ASSERT_EQ(log_open(&log, dir.path("log").c_str()), 0);
    EXPECT_EQ(log.total_out, 4U);
    log_write(&log, ERR_level, "new\n");
    EXPECT_EQ(log.total_out, 15U);
    log_close(&log);
    EXPECT_EQ(dir.names(), Names{"log"});
    EXPECT_EQ(dir.read("log"), "old\n(ERR)  new\n");
}

TEST_F(LogOpen, empty_file_is_kept_and_used)
{
    dir.write("log", "");
    struct stat before;
    struct stat after;
    ASSERT_EQ(stat(dir.path("log").c_str(), &before), 0);
    ASSERT_EQ(log_open(&log, dir.path("log").c_str()), 0);
    log_close(&log);
    ASSERT_EQ(stat(dir.path("log").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(dir.names(), Names{"log"});
}

TEST_F(LogOpen, device_is_never_moved)
{
    Stderr err;
    ASSERT_EQ(log_open(&log, "/dev/null"), 0);
    log_write(&log, ERR_level, "x\n");
    log_close(&log);
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
    EXPECT_EQ(err.text(), "");
}

TEST_F(LogOpen, path_of_128_characters_is_opened_whole_and_stored_cut)
{
    const FdGuard guard;
    const std::string path = path_of_length(128);
    ASSERT_EQ(log_open(&log, path.c_str()), 0);
    EXPECT_EQ(std::string(log.name), path.substr(0, 127));
    log_close(&log);
    EXPECT_TRUE(std::filesystem::exists(path));
    const std::string fits = path_of_length(127);
    ASSERT_EQ(log_open(&log, fits.c_str()), 0);
    EXPECT_EQ(std::string(log.name), fits);
    log_close(&log);
}

TEST_F(LogOpen, path_of_129_characters_is_refused)
{
    const std::string path = path_of_length(129);
    Stderr err;
    EXPECT_EQ(log_open(&log, path.c_str()), -1);
    EXPECT_EQ(err.text(), "Log pathname/command is too long, 128 bytes allowed\n");
    EXPECT_EQ(log_fp(&log), nullptr);
    EXPECT_FALSE(std::filesystem::exists(path));
    log_default(&log, stdout);
    EXPECT_EQ(log_open(&log, path.c_str()), -1);
    EXPECT_EQ(log_fp(&log), stdout); // an open log stays as it was
}

TEST_F(LogOpen, file_that_cannot_be_opened_is_told_and_leaves_the_log_closed)
{
    const std::string path = dir.path("missing/log");
    Stderr err;
    log_default(&log, stdout);
    EXPECT_EQ(log_open(&log, path.c_str()), -1);
    EXPECT_EQ(err.text(), "do_open: uid/gig=" + std::to_string(geteuid()) + "/" + std::to_string(getegid()) +
                              " fopen(" + path + ") ERROR(2): No such file or directory\n");
    EXPECT_EQ(log.fp, nullptr);
    EXPECT_STREQ(log.name, "");
    log_write(&log, ERR_level, "dropped\n");
}

TEST_F(LogOpen, size_that_cannot_be_asked_is_logged_and_taken_for_zero)
{
    support::LogCapture lines;
    dir.write("log", "old\n");
    log_append_old(&log);
    faults::on_fstat = EIO;
    EXPECT_EQ(log_open(&log, dir.path("log").c_str()), 0);
    EXPECT_EQ(log.total_out, 0U);
    EXPECT_EQ(lines.text(), "(ERR)  do_open: fstat(" + dir.path("log") + ") ERROR(5): Input/output error\n");
    log_close(&log);
}

// ---- moving aside ------------------------------------------------------------------------------

TEST_F(LogOpen, file_that_cannot_be_looked_at_is_told_and_stays)
{
    dir.write("log", "old\n");
    faults::on_stat = EACCES;
    Stderr err;
    ASSERT_EQ(log_open(&log, dir.path("log").c_str()), 0) << "the result is not looked at";
    EXPECT_EQ(err.text(), "stat(" + dir.path("log") + ") ERROR(13): Permission denied\n");
    EXPECT_EQ(log.total_out, 4U);
    log_close(&log);
    EXPECT_EQ(dir.names(), Names{"log"});
}

TEST_F(LogOpen, file_that_cannot_be_moved_is_told_and_continued)
{
    dir.write("log", "old\n");
    set_mtime("log", 1000000000);
    faults::on_rename = EPERM;
    Stderr err;
    ASSERT_EQ(log_open(&log, dir.path("log").c_str()), 0);
    const std::string path = dir.path("log");
    EXPECT_EQ(err.text(),
              "Cannot rename(" + path + ", " + path + ".1000000000): ERROR(1): Operation not permitted\n");
    EXPECT_EQ(log.total_out, 4U);
    log_close(&log);
}

TEST_F(LogOpen, kept_name_of_127_characters_loses_its_last_one)
{
    const std::string path = path_of_length(127 - 11);
    const std::string name = path.substr(dir.path("").size());
    dir.write(name, "old\n");
    set_mtime(name, 1234567899);
    ASSERT_EQ(log_open(&log, path.c_str()), 0);
    log_close(&log);
    EXPECT_EQ(dir.names(), (Names{name, name + ".123456789"}));
}

TEST_F(LogOpen, name_of_128_characters_is_not_moved_and_the_file_is_continued)
{
    const std::string path = path_of_length(128 - 11);
    const std::string name = path.substr(dir.path("").size());
    dir.write(name, "old\n");
    set_mtime(name, 1234567890);
    Stderr err;
    ASSERT_EQ(log_open(&log, path.c_str()), 0);
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(log.total_out, 4U);
    log_close(&log);
    EXPECT_EQ(dir.names(), Names{name});
}

// ---- pipes -------------------------------------------------------------------------------------

TEST_F(LogPipe, lines_go_to_the_command)
{
    const FdGuard guard;
    const std::string command = "cat > " + dir.path("out");
    ASSERT_EQ(log_popen(&log, command.c_str()), 0);
    EXPECT_EQ(faults::mode, "w");
    EXPECT_EQ(faults::buffering, _IOLBF);
    EXPECT_STREQ(log.name, command.c_str());
    EXPECT_NE(log.is_pipe, 0);
    EXPECT_EQ(log.total_out, 0U);
    log_write(&log, ERR_level, "one\n");
    EXPECT_TRUE(support::wait_until([&] { return dir.read("out") == "(ERR)  one\n"; })) << "by line";
    log_write(&log, ERR_level, "two\n");
    EXPECT_EQ(log.total_out, 22U);
    Stderr err;
    log_close(&log);
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(dir.read("out"), "(ERR)  one\n(ERR)  two\n");
}

TEST_F(LogPipe, is_never_rotated)
{
    const std::string command = "cat > " + dir.path("out");
    ASSERT_EQ(log_popen(&log, command.c_str()), 0);
    Stderr err;
    EXPECT_EQ(log_rotate(&log), -1);
    EXPECT_EQ(err.text(), "log_rotate: not supported for pipe-based streams.\n");
    log_write(&log, ERR_level, "still open\n");
    log_close(&log);
    EXPECT_EQ(dir.read("out"), "(ERR)  still open\n");
}

TEST_F(LogPipe, that_cannot_be_opened_is_told)
{
    faults::on_popen = EMFILE;
    Stderr err;
    EXPECT_EQ(log_popen(&log, "cat"), -1);
    EXPECT_EQ(err.text(), "do_open: uid/gig=" + std::to_string(geteuid()) + "/" + std::to_string(getegid()) +
                              " popen(cat) ERROR(24): Too many open files\n");
    EXPECT_EQ(log.fp, nullptr);
}

TEST_F(LogPipe, command_of_129_characters_is_refused)
{
    Stderr err;
    EXPECT_EQ(log_popen(&log, std::string(129, 'x').c_str()), -1);
    EXPECT_EQ(err.text(), "Log pathname/command is too long, 128 bytes allowed\n");
}

TEST_F(LogPipe, log_that_becomes_a_file_is_none_any_more)
{
    ASSERT_EQ(log_popen(&log, "cat > /dev/null"), 0);
    log_close(&log);
    ASSERT_EQ(log_open(&log, dir.path("log").c_str()), 0);
    EXPECT_EQ(log.is_pipe, 0);
    log_close(&log);
}

// ---- closing -----------------------------------------------------------------------------------

TEST_F(LogClose, closed_logs_and_standard_streams_are_left_alone)
{
    Stderr err;
    faults::on_fclose = EIO;
    faults::on_pclose = EIO;
    log_close(&log);
    log_default(&log, stdout);
    log_close(&log);
    log_default(&log, stderr);
    log_close(&log);
    EXPECT_EQ(faults::on_fclose, EIO);
    EXPECT_EQ(faults::on_pclose, EIO);
    faults::on_fclose = 0;
    EXPECT_EQ(err.text(), "");
}

TEST_F(LogClose, failures_are_told)
{
    {
        ASSERT_EQ(log_open(&log, dir.path("log").c_str()), 0);
        Stderr err;
        faults::on_fclose = EIO;
        log_close(&log);
        EXPECT_EQ(err.text(), "log_close: fclose error(5) for the application log: Input/output error\n");
    }
    {
        ASSERT_EQ(log_popen(&log, "true"), 0);
        Stderr err;
        faults::on_pclose = EINVAL;
        log_close(&log);
        EXPECT_EQ(err.text(), "log_close: pclose error(22) for the application log: Invalid argument\n");
    }
}

TEST_F(LogClose, command_that_someone_else_waited_for_is_no_failure)
{
    ASSERT_EQ(log_popen(&log, "true"), 0);
    Stderr err;
    faults::on_pclose = ECHILD;
    log_close(&log);
    EXPECT_EQ(err.text(), "");
    ASSERT_EQ(log_open(&log, dir.path("log").c_str()), 0);
    Stderr again;
    faults::on_fclose = ECHILD;
    log_close(&log);
    EXPECT_EQ(again.text(), "log_close: fclose error(10) for the application log: No child processes\n")
        << "of a pipe alone";
}

TEST_F(LogClose, exit_status_of_the_command_is_no_failure)
{
    ASSERT_EQ(log_popen(&log, "exit 3"), 0);
    Stderr err;
    log_close(&log);
    EXPECT_EQ(err.text(), "");
}

TEST_F(LogClose, kept_stream_stays_in_the_record)
{
    ASSERT_EQ(log_open(&log, dir.path("log").c_str()), 0);
    FILE* const fp = log.fp;
    log_close(&log);
    EXPECT_EQ(log.fp, fp);
}
