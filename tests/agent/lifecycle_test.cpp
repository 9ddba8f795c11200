// The order of set-up and shutdown: each step is a call that is recorded in place of being made.
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "log.h"
#include "logcap.h"
#include "util.h"
#include "wrap.h"
#include "zent.h"

namespace {

using Steps = std::vector<std::string>;

bool g_recording = false;
Steps g_steps;
std::map<std::string, int> g_results; // of calls that are to fail
uid_t g_euid = 0;

pcap_t* const kCapture = reinterpret_cast<pcap_t*>(0x10);
constexpr nkht_t kTable = 0x20;

int step(const std::string& call, const std::string& argument = "")
{
    g_steps.push_back(argument.empty() ? call : call + " " + argument);
    const auto found = g_results.find(call);
    return found == g_results.end() ? 0 : found->second;
}

std::string stream_name(FILE* fp)
{
    return fp == stderr ? "stderr" : fp == stdout ? "stdout" : "other";
}

} // namespace

// What takes the place of the calls: recorded while a test records, the real ones otherwise.
#define WRAPPED_STEP(type, name, args, call, record)                                                         \
    WRAPPED(type, name, args);                                                                               \
    type __wrap_##name args                                                                                  \
    {                                                                                                        \
        if (!g_recording) {                                                                                  \
            return __real_##name call;                                                                       \
        }                                                                                                    \
        record;                                                                                              \
    }

extern "C" {
WRAPPED_STEP(int, close, (int fd), (fd), return step("close", std::to_string(fd)))
WRAPPED_STEP(int, create_pidfile_extra, (const char* path, pid_t pid, ino_t* inode, uint32_t flags),
             (path, pid, inode, flags), {
                 EXPECT_EQ(pid, getpid());
                 EXPECT_EQ(inode, nullptr);
                 EXPECT_EQ(flags, 0U);
                 return step("create_pidfile_extra", path);
             })
WRAPPED_STEP(int, daemonize, (void), (), return step("daemonize"))
WRAPPED_STEP(int, fclose, (FILE * fp), (fp), return step("fclose", stream_name(fp)))
WRAPPED_STEP(char*, getcwd, (char* buf, size_t size), (buf, size), {
    EXPECT_EQ(size, 256U);
    if (step("getcwd") != 0) {
        errno = ERANGE;
        return nullptr;
    }
    return strcpy(buf, "/start");
})
WRAPPED_STEP(uid_t, geteuid, (void), (), return g_euid)
WRAPPED_STEP(void, glog_enable_syslog, (const char* app), (app), step("glog_enable_syslog", app))
WRAPPED_STEP(int, goto_runtime_dir, (const char* dir), (dir), return step("goto_runtime_dir", dir))
WRAPPED_STEP(void, log_default, (struct log_ctx * log, FILE* fp), (log, fp), {
    EXPECT_EQ(log, &g_log);
    step("log_default", stream_name(fp));
})
WRAPPED_STEP(void, log_mirror, (struct log_ctx * log, FILE* fp), (log, fp), {
    EXPECT_EQ(log, &g_log);
    step("log_mirror", stream_name(fp));
})
WRAPPED_STEP(int, log_open, (struct log_ctx * log, const char* path), (log, path), {
    EXPECT_EQ(log, &g_log);
    return step("log_open", std::string(path) + " at level " + std::to_string(g_mod_ll[MLL_COMMON]));
})
WRAPPED_STEP(void, log_set_pid, (struct log_ctx * log, pid_t pid), (log, pid), {
    EXPECT_EQ(pid, getpid());
    step("log_set_pid", "at level " + std::to_string(g_mod_ll[MLL_COMMON]));
})
WRAPPED_STEP(int, nkht_create, (nkht_t * table, size_t capacity, khash_t hash), (table, capacity, hash), {
    EXPECT_TRUE(table == &g_ctx.wgrp_ht || g_cfg.features.exact);
    EXPECT_EQ(hash, tw_shift);
    const int rc = step("nkht_create", std::to_string(capacity));
    *table = rc == 0 ? kTable : 0;
    return rc;
})
WRAPPED_STEP(void, nkht_destroy, (nkht_t table, gkfree_t release), (table, release), {
    EXPECT_EQ(table, kTable);
    EXPECT_EQ(release, nullptr);
    step("nkht_destroy");
})
WRAPPED_STEP(void, pcap_close, (pcap_t * capture), (capture), {
    EXPECT_EQ(capture, kCapture);
    step("pcap_close");
})
WRAPPED_STEP(int, run_as_user, (const char* user), (user), {
    const int rc = step("run_as_user", user);
    g_euid = rc == 0 && strcmp(user, "root") != 0 ? 1000 : g_euid;
    return rc;
})
WRAPPED_STEP(int, unlink, (const char* path), (path), {
    errno = ENOENT;
    return step("unlink", path);
})
WRAPPED_STEP(void, usock_close, (int fd, struct usock_ctx* uc), (fd, uc), {
    EXPECT_EQ(uc, &g_ctx.rep.usock);
    step("usock_close", std::to_string(fd));
})

// The agent's own steps.
WRAPPED(int, pcap_setup, (const char* ifc_name));
WRAPPED(int, reporter_setup, (void));
WRAPPED(int, load_group_list, (const char* path));

int __wrap_pcap_setup(const char* ifc_name)
{
    g_ctx.handle = kCapture; // a failure, too, may leave it open
    return step("pcap_setup", ifc_name);
}

int __wrap_reporter_setup(void)
{
    return step("reporter_setup");
}

int __wrap_load_group_list(const char* path)
{
    return step("load_group_list", path);
}
}

namespace {

class Lifecycle : public testing::Test {
  protected:
    void SetUp() override
    {
        g_appname = "zent";
        strcpy(g_cfg.mifc, "eth7");
        g_cfg.logfile = "zent.log";
        g_cfg.log_level = INFO_level;
        strcpy(g_cfg.pidfile, "zent.pid");
    }

    // Runs app_setup() and returns its result; the steps are in g_steps.
    static int set_up()
    {
        g_recording = true;
        const int rc = app_setup();
        g_recording = false;
        return rc;
    }

    static void shut_down()
    {
        g_recording = true;
        app_shutdown();
        g_recording = false;
    }

    // A step fails with a result: the steps that follow it, up to the end, and the log's lines.
    void expect_stop(const std::string& call, int result, const Steps& after, const std::string& text = "")
    {
        g_results[call] = result;
        EXPECT_EQ(set_up(), result);
        size_t at = 0;
        while (at < g_steps.size() && g_steps[at].substr(0, g_steps[at].find(' ')) != call) {
            ++at;
        }
        ASSERT_LT(at, g_steps.size()) << call << " was not called";
        EXPECT_EQ(Steps(g_steps.begin() + static_cast<std::ptrdiff_t>(at) + 1, g_steps.end()), after);
        EXPECT_EQ(log_.text(), text);
    }

    const Steps shutdown_{"pcap_close", "nkht_destroy", "unlink zent.pid"};
    support::LogCapture log_{DEBUG_level};
};

} // namespace

TEST_F(Lifecycle, set_up_of_a_daemon_that_stays_root_is_in_this_order)
{
    EXPECT_EQ(set_up(), 0);
    EXPECT_EQ(g_steps, (Steps{"pcap_setup eth7", "nkht_create 512", "getcwd", "daemonize",
                              "log_open zent.log at level 2", "log_set_pid at level 1", "close 2",
                              "create_pidfile_extra zent.pid", "glog_enable_syslog zent", "reporter_setup"}));
    EXPECT_EQ(log_.text(), "");
}

TEST_F(Lifecycle, with_exact_a_table_of_more_room_takes_the_place_of_the_usual_one)
{
    g_cfg.features.exact = true;
    EXPECT_EQ(set_up(), 0);
    ASSERT_GE(g_steps.size(), 3U);
    EXPECT_EQ(Steps(g_steps.end() - 3, g_steps.end()),
              (Steps{"nkht_create 4096", "nkht_destroy", "reporter_setup"}));
}

TEST_F(Lifecycle, set_up_of_a_daemon_with_everything_is_in_this_order)
{
    strcpy(g_cfg.rt_user, "operator");
    g_cfg.log_level = DEBUG_level;
    g_cfg.grp_list_file = "groups";
    EXPECT_EQ(set_up(), 0);
    EXPECT_EQ(g_steps,
              (Steps{"pcap_setup eth7", "nkht_create 512", "getcwd", "daemonize", "run_as_user operator",
                     "goto_runtime_dir /start", "log_open zent.log at level 2", "log_mirror stderr",
                     "log_set_pid at level 2", "close 2", "create_pidfile_extra zent.pid",
                     "glog_enable_syslog zent", "load_group_list groups", "reporter_setup"}));
    EXPECT_EQ(log_.text(), "(INF)  Running as user [operator]\n");
}

TEST_F(Lifecycle, set_up_in_the_foreground_has_none_of_the_daemon_steps)
{
    g_cfg.non_daemon = true;
    strcpy(g_cfg.rt_user, "operator");
    g_cfg.grp_list_file = "groups";
    EXPECT_EQ(set_up(), 0);
    EXPECT_EQ(g_steps, (Steps{"pcap_setup eth7", "nkht_create 512", "log_open zent.log at level 2",
                              "log_set_pid at level 1", "load_group_list groups", "reporter_setup"}));
    EXPECT_EQ(log_.text(), "");
}

TEST_F(Lifecycle, the_level_of_the_options_holds_from_the_log_on)
{
    g_cfg.log_level = ERR_level;
    EXPECT_EQ(set_up(), 0);
    EXPECT_EQ(g_mod_ll[MLL_COMMON], ERR_level);
}

TEST_F(Lifecycle, without_a_log_in_the_foreground_none_is_opened)
{
    g_cfg.non_daemon = true;
    g_cfg.logfile = nullptr;
    EXPECT_EQ(set_up(), 0);
    EXPECT_EQ(g_steps,
              (Steps{"pcap_setup eth7", "nkht_create 512", "log_set_pid at level 1", "reporter_setup"}));
}

TEST_F(Lifecycle, a_user_that_is_root_stays_where_the_daemon_is)
{
    strcpy(g_cfg.rt_user, "root");
    EXPECT_EQ(set_up(), 0);
    EXPECT_EQ(g_steps[4], "run_as_user root");
    EXPECT_EQ(g_steps[5], "log_open zent.log at level 2");
}

TEST_F(Lifecycle, a_capture_that_fails_stops_it_and_is_closed)
{
    expect_stop("pcap_setup", -1, {"pcap_close", "unlink zent.pid"});
}

TEST_F(Lifecycle, a_table_that_fails_stops_it_with_its_own_code)
{
    expect_stop("nkht_create", 12, {"pcap_close", "unlink zent.pid"},
                "(ERR)  app_setup: failed to create channel hastable\n");
}

TEST_F(Lifecycle, a_daemon_without_a_log_is_refused_with_1)
{
    g_cfg.logfile = nullptr;
    EXPECT_EQ(set_up(), 1);
    EXPECT_EQ(g_steps,
              (Steps{"pcap_setup eth7", "nkht_create 512", "pcap_close", "nkht_destroy", "unlink zent.pid"}));
    EXPECT_EQ(log_.text(), "(ERR)  Logfile must be specified to run as daemon\n");
}

TEST_F(Lifecycle, a_directory_without_a_name_stops_it)
{
    g_results["getcwd"] = -1;
    EXPECT_EQ(set_up(), -1);
    EXPECT_EQ(g_steps, (Steps{"pcap_setup eth7", "nkht_create 512", "getcwd", "pcap_close", "nkht_destroy",
                              "unlink zent.pid"}));
    EXPECT_EQ(log_.text(), "(ERR)  getcwd ERROR(34) : Numerical result out of range\n");
}

TEST_F(Lifecycle, a_failed_fork_is_told_on_stderr_and_stops_it)
{
    expect_stop("daemonize", -1, {"log_default stderr", "pcap_close", "nkht_destroy", "unlink zent.pid"},
                "(ERR)  Failed to make the process a daemon, quitting.\n");
}

TEST_F(Lifecycle, a_user_that_cannot_be_had_stops_it)
{
    strcpy(g_cfg.rt_user, "operator");
    expect_stop("run_as_user", -1, shutdown_);
}

TEST_F(Lifecycle, a_directory_that_is_refused_stops_it)
{
    strcpy(g_cfg.rt_user, "operator");
    expect_stop("goto_runtime_dir", -1, shutdown_);
}

TEST_F(Lifecycle, a_log_that_is_refused_stops_it_before_the_level_changes)
{
    expect_stop("log_open", -1, shutdown_);
    EXPECT_EQ(g_mod_ll[MLL_COMMON], DEBUG_level);
}

TEST_F(Lifecycle, a_pid_file_that_is_refused_stops_it_before_syslog)
{
    expect_stop("create_pidfile_extra", -1, shutdown_);
}

TEST_F(Lifecycle, a_list_that_is_refused_stops_it)
{
    g_cfg.grp_list_file = "groups";
    expect_stop("load_group_list", -1, shutdown_);
}

TEST_F(Lifecycle, a_positive_code_of_the_list_is_passed_on)
{
    g_cfg.grp_list_file = "groups";
    expect_stop("load_group_list", 12, shutdown_);
}

TEST_F(Lifecycle, a_sink_that_is_refused_stops_it)
{
    expect_stop("reporter_setup", -1, shutdown_);
}

TEST_F(Lifecycle, after_a_failed_set_up_a_second_shutdown_only_repeats_the_unlink)
{
    g_results["reporter_setup"] = -1;
    EXPECT_EQ(set_up(), -1);
    g_steps.clear();
    shut_down();
    EXPECT_EQ(g_steps, Steps{"unlink zent.pid"});
}

TEST_F(Lifecycle, shutdown_takes_everything_down_in_this_order)
{
    FILE* sink = tmpfile();
    g_ctx.handle = kCapture;
    g_ctx.wgrp_ht = kTable;
    g_ctx.rep.sockfd = 7;
    g_ctx.rep.usock.url_kind = 3;
    g_ctx.rep.fp = sink;
    shut_down();
    EXPECT_EQ(g_steps,
              (Steps{"pcap_close", "nkht_destroy", "usock_close 7", "fclose other", "unlink zent.pid"}));
    EXPECT_EQ(g_ctx.handle, nullptr);
    EXPECT_EQ(g_ctx.wgrp_ht, 0);
    EXPECT_EQ(g_ctx.rep.sockfd, -1);
    EXPECT_EQ(g_ctx.rep.fp, nullptr);
    EXPECT_EQ(log_.text(), "");
    fclose(sink);

    g_steps.clear();
    shut_down();
    EXPECT_EQ(g_steps, Steps{"unlink zent.pid"});
}

TEST_F(Lifecycle, shutdown_of_nothing_does_nothing)
{
    g_cfg.pidfile[0] = 0;
    shut_down();
    EXPECT_EQ(g_steps, Steps{});
}

TEST_F(Lifecycle, shutdown_leaves_a_socket_of_no_kind_alone)
{
    g_ctx.rep.sockfd = 0; // as it stands before the sink is set up
    shut_down();
    EXPECT_EQ(g_steps, Steps{"unlink zent.pid"});
    EXPECT_EQ(g_ctx.rep.sockfd, 0);
}

TEST_F(Lifecycle, shutdown_closes_a_socket_with_descriptor_0)
{
    g_ctx.rep.sockfd = 0;
    g_ctx.rep.usock.url_kind = 3;
    shut_down();
    EXPECT_EQ(g_steps, (Steps{"usock_close 0", "unlink zent.pid"}));
}

TEST_F(Lifecycle, shutdown_does_not_close_the_standard_streams)
{
    for (FILE* fp : {stdout, stderr}) {
        g_steps.clear();
        g_ctx.rep.fp = fp;
        shut_down();
        EXPECT_EQ(g_steps, Steps{"unlink zent.pid"});
    }
}

TEST_F(Lifecycle, kept_shutdown_removes_the_pid_file_whoever_made_it)
{
    shut_down();
    EXPECT_EQ(g_steps, Steps{"unlink zent.pid"});
}
