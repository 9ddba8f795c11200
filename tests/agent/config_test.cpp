// The command line, as app_getcfg reads it. Each reading happens in a child, whose exit code says what came
// out.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include "child.h"
#include "log.h"
#include "zent.h"

DECLARE_MLL(MLL_COMMON);

using support::ChildResult;

namespace {

constexpr int kOk = 50;      // app_getcfg gave 0 and the check held
constexpr int kWrong = 51;   // the check did not hold
constexpr int kRefused = 52; // app_getcfg gave -1

uint32_t host(const char* text)
{
    in_addr addr;
    inet_aton(text, &addr);
    return ntohl(addr.s_addr);
}

// Reads a command line and then asks the check about g_cfg.
ChildResult read_options(
    std::vector<std::string> args, const std::function<bool()>& check = [] { return true; })
{
    args.insert(args.begin(), "zent");
    return support::run_in_child([&] {
        std::vector<const char*> argv;
        for (const std::string& arg : args) {
            argv.push_back(arg.c_str());
        }
        argv.push_back(nullptr);
        g_appname = "zent";
        log_default(&g_log, stderr);
        if (app_getcfg(static_cast<int>(args.size()), argv.data()) != 0) {
            return kRefused;
        }
        return check() ? kOk : kWrong;
    });
}

void expect_usage(const ChildResult& result)
{
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.err.find("Usage: zent OPTIONS\nOptions:\n"), std::string::npos) << result.err;
    EXPECT_EQ(result.out, "");
}

} // namespace

TEST(Config, interface_alone_takes_the_defaults)
{
    const auto result = read_options({"-i", "lo"}, [] {
        return std::string(g_cfg.mifc) == "lo" && g_cfg.report_url[0] == 0 && g_cfg.min_group == 0 &&
               g_cfg.max_group == 0 && g_cfg.grp_list_file == nullptr &&
               std::string(g_cfg.logfile) == "/dev/null" && g_cfg.log_level == INFO_level &&
               g_cfg.non_daemon == (geteuid() != 0) && g_cfg.rt_user[0] == 0 && g_cfg.pidfile[0] == 0;
    });
    EXPECT_EQ(result.exit_code, kOk);
    EXPECT_EQ(result.err, "zent: logging to /dev/null\n");
}

TEST(Config, every_option_is_stored)
{
    const auto result = read_options(
        {"-T", "-i", "lo", "-R", "relay:4000", "-g", "239.0.0.0", "-G", "239.1.0.0", "-F", "/etc/groups.list",
         "-l", "/tmp/zent.log", "-L", "warn", "-u", "nobody", "-p", "/run/zent.pid"},
        [] {
            return g_cfg.non_daemon && std::string(g_cfg.mifc) == "lo" &&
                   std::string(g_cfg.report_url) == "udp://relay:4000" &&
                   g_cfg.min_group == host("239.0.0.0") && g_cfg.max_group == host("239.1.0.0") &&
                   std::string(g_cfg.grp_list_file) == "/etc/groups.list" &&
                   std::string(g_cfg.logfile) == "/tmp/zent.log" && g_cfg.log_level == WARN_level &&
                   std::string(g_cfg.rt_user) == "nobody" && std::string(g_cfg.pidfile) == "/run/zent.pid";
        });
    EXPECT_EQ(result.exit_code, kOk);
    EXPECT_EQ(result.err, "");
}

TEST(Config, shorter_repeated_option_leaves_no_tail)
{
    const auto result =
        read_options({"-i", "lo", "-u", "somebody-long", "-u", "me", "-p", "/run/long/name.pid", "-p", "/p",
                      "-R", "host.example:4000", "-R", "h:1"},
                     [] {
                         return std::string(g_cfg.rt_user, sizeof g_cfg.rt_user) ==
                                    std::string("me") + std::string(30, '\0') &&
                                std::string(g_cfg.pidfile, sizeof g_cfg.pidfile) ==
                                    std::string("/p") + std::string(126, '\0') &&
                                std::string(g_cfg.report_url) == "udp://h:1";
                     });
    EXPECT_EQ(result.exit_code, kOk);
}

TEST(Config, long_texts_are_cut)
{
    const auto result = read_options(
        {"-i", "lo", "-u", std::string(40, 'u'), "-p", std::string(200, 'p'), "-R", std::string(200, 'r')},
        [] {
            return g_cfg.rt_user == std::string(31, 'u') && g_cfg.pidfile == std::string(127, 'p') &&
                   g_cfg.report_url == "udp://" + std::string(120, 'r');
        });
    EXPECT_EQ(result.exit_code, kOk);
}

TEST(Config, dash_as_target_is_the_same_run_as_none)
{
    for (const std::vector<std::string>& args : {std::vector<std::string>{"-i", "lo", "-R", "-"},
                                                 {"-i", "lo", "-R", "h:1", "-R", "-"},
                                                 {"-i", "lo"}}) {
        const auto result = read_options(args, [] {
            return g_cfg.report_url[0] == 0 && reporter_setup() == 0 && g_ctx.rep.fp == stdout &&
                   g_ctx.rep.sockfd == -1;
        });
        EXPECT_EQ(result.exit_code, kOk);
    }
}

TEST(Config, invalid_interface_fails_at_once_and_the_options_behind_it_are_not_read)
{
    const auto result = read_options({"-i", "nosuch0", "-g", "not-an-address", "-Z"});
    EXPECT_EQ(result.exit_code, kRefused);
    EXPECT_NE(result.err.find("Invalid interface name: nosuch0\n"), std::string::npos);
    EXPECT_EQ(result.err.find("Invalid address"), std::string::npos);
    EXPECT_EQ(result.err.find("Usage"), std::string::npos);
}

TEST(Config, group_bounds_must_be_multicast_addresses)
{
    for (const char* option : {"-g", "-G"}) {
        auto result = read_options({"-i", "lo", option, "239.1.2.x"});
        EXPECT_EQ(result.exit_code, kRefused);
        EXPECT_EQ(result.err, "Invalid address: 239.1.2.x\n");
        result = read_options({"-i", "lo", option, "10.1.2.3"});
        EXPECT_EQ(result.exit_code, kRefused);
        EXPECT_EQ(result.err, "Non-multicast address: 10.1.2.3 (0x302010a)\n");
        result = read_options({"-i", "lo", option, "223.255.255.255"});
        EXPECT_EQ(result.exit_code, kRefused);
        result = read_options({"-i", "lo", option, "240.0.0.0"});
        EXPECT_EQ(result.err, "Non-multicast address: 240.0.0.0 (0x00f0)\n");
        EXPECT_EQ(read_options({"-i", "lo", option, "224.0.0.0"}).exit_code, kOk);
        EXPECT_EQ(read_options({"-i", "lo", option, "239.255.255.255"}).exit_code, kOk);
    }
}

TEST(Config, bounds_may_be_equal_but_not_crossed)
{
    EXPECT_EQ(read_options({"-i", "lo", "-g", "239.1.1.1", "-G", "239.1.1.1"}).exit_code, kOk);
    const auto result = read_options({"-i", "lo", "-g", "239.1.1.2", "-G", "239.1.1.1"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.err, "zent: BAD g/G: min (0xef010102) > max (0xef010101) for group addresses\n");
}

TEST(Config, log_levels_are_known_by_name)
{
    const std::vector<std::pair<std::string, int>> levels = {
        {"err", -3}, {"ERROR", -3}, {"crit", -2}, {"warn", -1},   {"norm", 0},
        {"info", 1}, {"debug", 2},  {"dbg", 2},   {"section", 2}, {"sect", 2},
    };
    for (const auto& [word, level] : levels) {
        const auto result = read_options({"-i", "lo", "-l", "x", "-L", word},
                                         [wanted = level] { return g_cfg.log_level == wanted; });
        EXPECT_EQ(result.exit_code, kOk) << word;
        EXPECT_EQ(result.err, "");
    }
}

TEST(Config, unknown_level_complains_and_leaves_the_level)
{
    auto result =
        read_options({"-i", "lo", "-l", "x", "-L", "panic"}, [] { return g_cfg.log_level == INFO_level; });
    EXPECT_EQ(result.exit_code, kOk);
    EXPECT_EQ(result.err, "Invalid log level: panic\n");
    result = read_options({"-i", "lo", "-l", "x", "-L", "err", "-L", "loud"},
                          [] { return g_cfg.log_level == ERR_level; });
    EXPECT_EQ(result.exit_code, kOk);
}

TEST(Config, level_err_drops_critical_and_warning_lines)
{
    const auto result = read_options({"-i", "lo", "-l", "x", "-L", "err"}, [] {
        log_timefmt(&g_log, f_NO_TIME);
        set_myloglevel(g_cfg.log_level);
        log_entry(PANIC_level, "panic\n");
        log_err("error\n");
        log_crit("critical\n");
        log_warn("warning\n");
        log_norm("normal\n");
        return true;
    });
    EXPECT_EQ(result.exit_code, kOk);
    EXPECT_EQ(result.err, "(PNC)  panic\n(ERR)  error\n");
}

TEST(Config, missing_interface_gives_a_complaint_and_the_usage_text)
{
    const auto result = read_options({"-T"});
    expect_usage(result);
    EXPECT_EQ(result.err.find("zent: interface must be specified\n"), 0U) << result.err;
}

TEST(Config, question_mark_unknown_option_and_missing_argument_give_the_usage_text)
{
    expect_usage(read_options({"-?"}));
    expect_usage(read_options({"-i", "lo", "-Z"}));
    expect_usage(read_options({"-i"}));
    expect_usage(read_options({"-i", "lo", "-p"}));
}

TEST(Config, unprivileged_run_is_in_the_foreground_and_shows_its_log_on_stderr)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: needs root to give root away";
    }
    const auto result = support::run_in_child([] {
        if (setuid(65534) != 0) {
            return 1;
        }
        const char* argv[] = {"zent", "-i", "lo", "-l", "/dev/null", nullptr};
        g_appname = "zent";
        log_default(&g_log, stdout);
        return app_getcfg(5, argv) == 0 && g_cfg.non_daemon && log_mirror_fp(&g_log) == stderr ? kOk : kWrong;
    });
    EXPECT_EQ(result.exit_code, kOk);
}
