// The change of user, and where relative paths lead after it.
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon.h"

using namespace support;

namespace {

constexpr const char* kNobody = "65534\t65534\t65534\t65534";

} // namespace

class DaemonUser : public DaemonTest {
  protected:
    static uid_t owner_of(const std::string& file)
    {
        struct stat st = {};
        EXPECT_EQ(stat(file.c_str(), &st), 0) << file;
        return st.st_uid;
    }
};

TEST_F(DaemonUser, is_changed_after_the_capture_is_open)
{
    const Daemon daemon = start_usual({"-u", "nobody"});
    EXPECT_EQ(proc_status(daemon.pid(), "Uid"), kNobody);
    EXPECT_EQ(proc_status(daemon.pid(), "Gid"), kNobody);
    EXPECT_EQ(proc_status(daemon.pid(), "CapEff"), "0000000000000000");
    EXPECT_NE(log().find("(INF)  Running as user [nobody]\n"), std::string::npos);
    EXPECT_NE(log().find("zent is running as UID=65534, pid="), std::string::npos);
}

TEST_F(DaemonUser, owns_the_log_and_the_pid_file)
{
    const Daemon daemon = start_usual({"-u", "nobody"});
    EXPECT_EQ(owner_of(path("log")), 65534U);
    EXPECT_EQ(owner_of(path("pid")), 65534U);
}

TEST_F(DaemonUser, goes_back_to_the_directory_of_the_start_and_relative_paths_with_him)
{
    const Daemon daemon = start({"-i", "va", "-l", "log", "-p", "pid", "-u", "nobody"});
    ASSERT_TRUE(wait_for_log(" is running as UID=65534"));
    EXPECT_EQ(proc_link(daemon.pid(), "cwd") + "/log", path("log"));
    EXPECT_EQ(daemon.fd(0), path("log"));
    EXPECT_EQ(daemon.fd(1), path("pid"));
    EXPECT_EQ(read_file(path("pid")), std::to_string(daemon.pid()));
}

TEST_F(DaemonUser, root_by_name_stays_in_the_root_directory)
{
    const Daemon daemon = start_usual({"-u", "root"});
    EXPECT_EQ(proc_link(daemon.pid(), "cwd"), "/");
    EXPECT_NE(log().find("Running as user [root]\n"), std::string::npos);
}

TEST_F(DaemonUser, without_one_a_relative_log_lands_in_the_root_directory)
{
    const std::string name = std::filesystem::path(path("log")).parent_path().filename().string() + ".log";
    const Daemon daemon = start({"-i", "va", "-l", name, "-p", path("pid")});
    EXPECT_TRUE(wait_for_file("/" + name, " is running as UID=0"));
    EXPECT_EQ(daemon.fd(0), "/" + name);
    unlink(("/" + name).c_str());
}

TEST_F(DaemonUser, that_may_not_enter_the_directory_of_the_start_ends_with_2)
{
    ASSERT_EQ(mkdir(path("closed").c_str(), 0700), 0);
    Daemon daemon = start({"-i", "va", "-l", path("log"), "-p", path("pid"), "-u", "nobody"},
                          [&] { EXPECT_EQ(chdir(path("closed").c_str()), 0); });
    EXPECT_EQ(daemon.starter.exit_code, 0);
    EXPECT_EQ(daemon.wait().exit_code, 2);
    const std::string errors = read_file(path("stderr"));
    EXPECT_NE(errors.find("(ERR)  chdir(" + path("closed") + ") ERROR(13): Permission denied\n"),
              std::string::npos)
        << errors;
    EXPECT_NE(errors.find("(INF)  zent is exiting with rc=2\n"), std::string::npos) << errors;
    EXPECT_FALSE(file_exists(path("log")));
}

TEST_F(DaemonUser, that_is_unknown_ends_it_after_the_fork)
{
    Daemon daemon = start({"-i", "va", "-l", path("log"), "-p", path("pid"), "-u", "no-such-user"});
    EXPECT_EQ(daemon.starter.exit_code, 0);
    EXPECT_EQ(daemon.forerunner_code, 0);
    EXPECT_EQ(daemon.wait().exit_code, 2);
    const std::string errors = read_file(path("stderr"));
    EXPECT_NE(errors.find("run_as_user: getpwnam: user no-such-user not found\n"), std::string::npos)
        << errors;
    EXPECT_FALSE(file_exists(path("log")));
    EXPECT_FALSE(file_exists(path("pid")));
}

TEST_F(DaemonUser, that_may_not_write_the_log_ends_it_with_2_and_the_reason_on_stderr)
{
    ASSERT_EQ(mkdir(path("logs").c_str(), 0755), 0);
    Daemon daemon = start({"-i", "va", "-l", path("logs/log"), "-p", path("pid"), "-u", "nobody"});
    EXPECT_EQ(daemon.starter.exit_code, 0);
    EXPECT_EQ(daemon.wait().exit_code, 2);
    const std::string errors = read_file(path("stderr"));
    EXPECT_NE(errors.find("do_open: uid/gig=65534/65534 fopen(" + path("logs/log") + ") ERROR(13): "),
              std::string::npos)
        << errors;
}
