// Pid files under their lock.
#include "util.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "asserted.h"
#include "child.h"
#include "fds.h"
#include "fixtures.h"
#include "logcap.h"
#include "tempdir.h"
#include "text.h"
#include "wrap.h"

using support::asserted_in;
using support::expect_abort;
using support::Lines;
using support::LogCapture;
using support::open_fds;
using support::run_in_child;
using support::TempDir;

namespace {

int g_fail_fcntl = 0; // errno of the lock
bool g_fail_fstat = false;

// Makes the pid file in a child of its own and prints result, errno, whether a descriptor was left, and the
// log.
std::string outcome(const std::string& path, pid_t pid, uint32_t flags, ino_t* inode = nullptr)
{
    return run_in_child([&] {
               LogCapture log(INFO_level);
               const size_t before = open_fds().size();
               errno = 0;
               const int rc = create_pidfile_extra(path.c_str(), pid, inode, flags);
               const int err = errno;
               printf("%d;%d;%zu;%s", rc, rc != 0 ? err : 0, open_fds().size() - before, log.text().c_str());
               return 0;
           })
        .out;
}

// Holds the pid file in this process for its lifetime.
class Holder {
  public:
    explicit Holder(const std::string& path) : before_(open_fds())
    {
        EXPECT_EQ(create_pidfile_extra(path.c_str(), 4242, nullptr, CPFX_HUSH), 0);
    }

    ~Holder()
    {
        for (const int fd : open_fds()) {
            if (before_.count(fd) == 0) {
                close(fd);
            }
        }
    }

    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

  private:
    std::set<int> before_;
};

} // namespace

WRAPPED(int, fcntl, (int fd, int command, void* arg));
WRAPPED(int, fstat, (int fd, struct stat* st));

extern "C" {
int __wrap_fcntl(int fd, int command, void* arg)
{
    if (g_fail_fcntl != 0 && command == F_SETLK) {
        errno = g_fail_fcntl;
        return -1;
    }
    return __real_fcntl(fd, command, arg);
}

int __wrap_fstat(int fd, struct stat* st)
{
    if (g_fail_fstat) {
        errno = EIO;
        return -1;
    }
    return __real_fstat(fd, st);
}
}

class UtilPidfile : public support::GuardedTest {};

TEST_F(UtilPidfile, holds_the_pid_in_decimal_without_a_line_end)
{
    TempDir dir;
    const std::string path = dir.path("p.pid");
    EXPECT_EQ(outcome(path, 12345, 0), "0;0;1;(INF)  Created pidfile [" + path + "] with pid=12345.\n");
    EXPECT_EQ(dir.read("p.pid"), "12345");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 07777, 0644 & ~mask);
}

TEST_F(UtilPidfile, an_old_file_is_replaced_as_a_whole)
{
    TempDir dir;
    dir.write("p.pid", "1234567890");
    EXPECT_EQ(outcome(dir.path("p.pid"), 42, CPFX_HUSH), "0;0;1;");
    EXPECT_EQ(dir.read("p.pid"), "42");
}

TEST_F(UtilPidfile, tells_the_inode)
{
    TempDir dir;
    ino_t inode = 0;
    {
        const auto before = open_fds();
        ASSERT_EQ(create_pidfile_extra(dir.path("p.pid").c_str(), 1, &inode, CPFX_HUSH), 0);
        for (const int fd : open_fds()) {
            if (before.count(fd) == 0) {
                close(fd);
            }
        }
    }
    struct stat st;
    ASSERT_EQ(stat(dir.path("p.pid").c_str(), &st), 0);
    EXPECT_EQ(inode, st.st_ino);
}

TEST_F(UtilPidfile, a_second_instance_fails_at_the_lock_and_leaves_the_file)
{
    TempDir dir;
    const std::string path = dir.path("p.pid");
    const Holder holder(path);
    const std::string seen = outcome(path, 99, 0);
    EXPECT_EQ(seen, "-1;11;0;(ERR)  write_lock: file [" + path +
                        "] is locked (another instance of daemon must be running)\n"
                        "(ERR)  create_pidfile_extra: failed to create pidfile [" +
                        path + "] with pid=99.\n");
    EXPECT_EQ(dir.read("p.pid"), "4242");
}

TEST_F(UtilPidfile, hushed_the_lock_message_is_short)
{
    TempDir dir;
    const Holder holder(dir.path("p.pid"));
    EXPECT_EQ(outcome(dir.path("p.pid"), 99, CPFX_HUSH),
              "-1;11;0;(ERR)  Another instance is already running\n");
}

TEST_F(UtilPidfile, the_lock_ends_with_its_process)
{
    TempDir dir;
    const std::string path = dir.path("p.pid");
    {
        const Holder holder(path);
    }
    EXPECT_EQ(outcome(path, 7, CPFX_HUSH), "0;0;1;");
    EXPECT_EQ(outcome(path, 8, CPFX_HUSH), "0;0;1;");
    EXPECT_EQ(dir.read("p.pid"), "8");
}

TEST_F(UtilPidfile, another_lock_error_is_told_as_it_is)
{
    TempDir dir;
    dir.write("p.pid", "old");
    g_fail_fcntl = ENOLCK;
    EXPECT_EQ(outcome(dir.path("p.pid"), 7, CPFX_HUSH),
              "-1;37;0;(ERR)  fcntl write-lock ERROR(37): No locks available\n");
    g_fail_fcntl = 0;
    EXPECT_EQ(dir.read("p.pid"), "old");
}

TEST_F(UtilPidfile, both_errors_of_a_locked_file_mean_another_instance)
{
    TempDir dir;
    dir.write("p.pid", "old");
    for (const int error : {EACCES, EAGAIN}) {
        g_fail_fcntl = error;
        EXPECT_EQ(outcome(dir.path("p.pid"), 7, CPFX_HUSH),
                  "-1;" + std::to_string(error) + ";0;(ERR)  Another instance is already running\n");
    }
    g_fail_fcntl = 0;
    EXPECT_EQ(dir.read("p.pid"), "old");
}

TEST_F(UtilPidfile, an_empty_path_fails_without_touching_a_file)
{
    TempDir dir;
    const std::string seen = run_in_child([&] {
                                 log.clear();
                                 log.set_level(INFO_level);
                                 const int moved = chdir(dir.path().c_str());
                                 const int rc = create_pidfile_extra("", 7, nullptr, 0);
                                 printf("%d;%d;%s", moved, rc, log.text().c_str());
                                 return 0;
                             }).out;
    EXPECT_EQ(seen, "0;-1;(ERR)  create_pidfile_extra: no path specified\n");
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    EXPECT_EQ(outcome("", 7, CPFX_HUSH), "-1;0;0;(ERR)  create_pidfile_extra: no path specified\n");
}

TEST_F(UtilPidfile, a_path_that_cannot_be_opened_is_logged_by_the_open)
{
    EXPECT_EQ(outcome("/nonexistent/p.pid", 7, 0),
              "-1;2;0;(ERR)  create_pidfile_extra: open('/nonexistent/p.pid', 321, 0x1a4) ERROR(2): "
              "No such file or directory\n");
}

TEST_F(UtilPidfile, a_file_that_cannot_be_emptied_fails)
{
    const std::string seen = outcome("/dev/null", 7, 0);
    EXPECT_EQ(seen.substr(0, 7), "-1;22;0") << seen;
    EXPECT_NE(seen.find("create_pidfile_extra: ftruncate("), std::string::npos) << seen;
    EXPECT_NE(seen.find("failed to create pidfile [/dev/null] with pid=7.\n"), std::string::npos) << seen;
}

TEST_F(UtilPidfile, a_failed_or_short_write_fails)
{
    TempDir dir;
    const std::string path = dir.path("p.pid");
    for (const rlim_t room : {rlim_t{0}, rlim_t{2}}) {
        const std::string seen = run_in_child([&] {
                                     log.clear();
                                     log.set_level(INFO_level);
                                     signal(SIGXFSZ, SIG_IGN);
                                     const rlimit limit{room, room};
                                     setrlimit(RLIMIT_FSIZE, &limit);
                                     const size_t before = open_fds().size();
                                     const int rc = create_pidfile(path.c_str(), 12345);
                                     printf("%d;%zu;%zu", rc, open_fds().size() - before, log.lines().size());
                                     return 0;
                                 }).out;
        EXPECT_EQ(seen, room == 0 ? "-1;0;2" : "-1;0;1");
    }
    EXPECT_EQ(dir.read("p.pid"), "12");
}

TEST_F(UtilPidfile, a_failed_fstat_is_logged_and_fails)
{
    TempDir dir;
    ino_t inode = 0;
    g_fail_fstat = true;
    const std::string seen = outcome(dir.path("p.pid"), 7, CPFX_HUSH, &inode);
    g_fail_fstat = false;
    EXPECT_EQ(seen.substr(0, 7), "-1;5;0;") << seen;
    EXPECT_NE(seen.find("(ERR)  create_pidfile_extra: fstat(fd"), std::string::npos) << seen;
    EXPECT_NE(seen.find(",..) ERROR(5): Input/output error\n"), std::string::npos) << seen;
}

TEST_F(UtilPidfile, no_path_or_no_pid_is_an_assertion)
{
    for (const pid_t pid : {0, -1, 1}) {
        const std::string text = expect_abort("ASSERT at:\n", [&] {
            return create_pidfile_extra(pid == 1 ? nullptr : "/dev/null", pid, nullptr, 0);
        });
        EXPECT_TRUE(asserted_in(text, "create_pidfile_extra")) << text;
    }
}

class UtilPidfileName : public support::GuardedTest {};

TEST_F(UtilPidfileName, the_form_depends_on_the_id)
{
    char buf[128];
    EXPECT_EQ(mk_pidfile_name("/tmp", "app", "eth0", -1, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "/tmp/app-eth0.pid");
    EXPECT_EQ(mk_pidfile_name("/tmp", "app", "eth", 0, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "/tmp/app-eth0.pid");
    EXPECT_EQ(mk_pidfile_name("/tmp", "app", nullptr, 17, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "/tmp/app-17.pid");
    EXPECT_EQ(mk_pidfile_name("/tmp", "app", nullptr, -1, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "/tmp/app--1.pid");
}

TEST_F(UtilPidfileName, fits_with_its_terminator_or_gives_null)
{
    char buf[18];
    EXPECT_EQ(mk_pidfile_name("/tmp", "app", "eth0", -1, buf, 18), buf);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(mk_pidfile_name("/tmp", "app", "eth0", -1, buf, 17), nullptr);
    EXPECT_EQ(mk_pidfile_name("/tmp", "app", "eth0", -1, buf, 0), nullptr);
    EXPECT_EQ(log.lines(),
              (Lines{"(ERR)  mk_pidfile_name: 17 bytes needed for filename, only 17 available.",
                     "(ERR)  mk_pidfile_name: 17 bytes needed for filename, only 0 available."}));
}

TEST_F(UtilPidfileName, a_directory_that_is_not_writable_gives_null)
{
    char buf[64];
    EXPECT_EQ(mk_pidfile_name("/nonexistent", "app", "x", -1, buf, sizeof buf), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.lines(), Lines{"(ERR)  mk_pidfile_name: directory [/nonexistent] is not writable: "
                                 "ERROR(2): No such file or directory"});
}
