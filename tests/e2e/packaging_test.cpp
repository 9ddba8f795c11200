// The systemd unit and the logrotate settings that are shipped.
#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <sys/stat.h>

#include "daemon.h"
#include "match.h"
#include "wait.h"

using namespace support;

namespace {

const std::string kUnit = source_path("packaging/systemd/zent@.service");
const std::string kEnvironment = source_path("packaging/systemd/zent.env");
const std::string kLogrotate = source_path("packaging/logrotate/zent");

bool has_program(const std::string& name)
{
    return run_program({"sh", "-c", "command -v " + name}).exit_code == 0;
}

// The value of a setting "NAME=VALUE"; the first one of that name.
std::string setting(const std::string& file, const std::string& name)
{
    std::istringstream lines(read_file(file));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(name + "=")) {
            return line.substr(name.size() + 1);
        }
    }
    return "";
}

std::vector<std::string> words(const std::string& text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
        text.replace(at, what.size(), by);
    }
    return text;
}

// A build that counts coverage complains of each file of counters that the unit's user may not write.
std::string without_counters(const std::string& err)
{
    std::istringstream in(err);
    std::string kept;
    for (std::string line; std::getline(in, line);) {
        kept += line.starts_with("profiling:") ? "" : line + "\n";
    }
    return kept;
}

// A user other than root with the right to capture, as the unit makes one.
std::vector<std::string> as_unit_user(const std::vector<std::string>& command)
{
    std::vector<std::string> argv{"setpriv",        "--reuid",        "65534",          "--regid",
                                  "65534",          "--clear-groups", "--inh-caps",     "-all,+net_raw",
                                  "--ambient-caps", "-all,+net_raw",  "--bounding-set", "-all,+net_raw",
                                  "--no-new-privs"};
    argv.insert(argv.end(), command.begin(), command.end());
    return argv;
}

} // namespace

TEST(Unit, is_rated_1_6_or_better)
{
    if (!has_program("systemd-analyze")) {
        GTEST_SKIP() << "skipped: systemd-analyze is not installed";
    }
    const ChildResult result =
        run_program({"systemd-analyze", "security", "--offline=true", "--no-pager", kUnit});
    const Match level = search(result.out, "Overall exposure level for [^:]*: ([0-9.]+)");
    ASSERT_FALSE(level.empty()) << result.out << result.err;
    EXPECT_LE(std::stod(level[1]), 1.6) << result.out;
    EXPECT_NE(read_file(source_path("SECURITY.md")).find("\nrates it 1.6 "), std::string::npos);
}

TEST(Unit, has_no_setting_that_systemd_does_not_know)
{
    if (!has_program("systemd-analyze")) {
        GTEST_SKIP() << "skipped: systemd-analyze is not installed";
    }
    const ChildResult result =
        run_program({"systemd-analyze", "verify", "--man=no", "--recursive-errors=no", kUnit});
    std::istringstream lines(result.err);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_NE(line.find("Command zent is not executable"), std::string::npos)
            << line; // it is not installed
    }
}

TEST(Unit, never_runs_as_root_and_has_the_right_to_capture_alone)
{
    EXPECT_EQ(setting(kUnit, "Type"), "exec");
    EXPECT_EQ(setting(kUnit, "DynamicUser"), "yes");
    EXPECT_EQ(setting(kUnit, "AmbientCapabilities"), "CAP_NET_RAW");
    EXPECT_EQ(setting(kUnit, "CapabilityBoundingSet"), "CAP_NET_RAW");
    EXPECT_EQ(setting(kUnit, "NoNewPrivileges"), "yes");
    EXPECT_EQ(read_file(kUnit).find("\nUser="), std::string::npos);
}

TEST(Unit, starts_the_agent_with_a_lower_bound_and_the_options_of_the_environment_file)
{
    EXPECT_EQ(setting(kUnit, "ExecStart"), "zent -i %i $ZENT_SCOPE -L warn -l /dev/null $ZENT_ARGS");
    EXPECT_EQ(setting(kUnit, "EnvironmentFile"), "-/etc/default/zent-%i");
    EXPECT_NE(read_file(kUnit).find("\nEnvironment=\"ZENT_SCOPE=-g 224.0.1.0\"\n"), std::string::npos);
}

TEST(Unit, takes_the_name_of_the_interface_as_it_is_typed)
{
    EXPECT_EQ(read_file(kUnit).find("%I"), std::string::npos) << "which would make br/lan of br-lan";
}

TEST(Unit, gives_up_on_a_wrong_value_but_waits_for_an_interface_without_limit)
{
    EXPECT_EQ(setting(kUnit, "Restart"), "on-failure");
    EXPECT_EQ(setting(kUnit, "StartLimitIntervalSec"), "60");
    EXPECT_EQ(setting(kUnit, "StartLimitBurst"), "5");
    EXPECT_EQ(setting(kUnit, "TimeoutStartSec"), "infinity");
    EXPECT_EQ(read_file(kUnit).find("BindsTo"), std::string::npos);
}

TEST(Unit, its_example_has_three_cases_of_which_the_first_is_active)
{
    EXPECT_EQ(setting(kEnvironment, "ZENT_ARGS"), "-R 10.0.0.5:4554");
    EXPECT_EQ(setting(kEnvironment, "ZENT_SCOPE"), "");
    EXPECT_EQ(setting(kEnvironment, "#ZENT_SCOPE"), "-F /etc/zent/groups");
    EXPECT_NE(read_file(kEnvironment).find("-g 239.1.0.0 -G 239.1.255.255 -F /etc/zent/groups"),
              std::string::npos);
}

TEST(Profiles, are_ones_that_apparmor_takes)
{
    if (!has_program("apparmor_parser")) {
        GTEST_SKIP() << "skipped: apparmor_parser is not installed";
    }
    size_t count = 0;
    for (const auto& profile : std::filesystem::directory_iterator(source_path("packaging/apparmor"))) {
        const ChildResult result = run_program({"apparmor_parser", "-Q", "-K", profile.path()});
        EXPECT_EQ(result.exit_code, 0) << profile.path() << result.err;
        ++count;
    }
    EXPECT_GE(count, 3U);
}

TEST(Profiles, take_the_rule_that_a_program_of_exec_is_told_to_need)
{
    if (!has_program("apparmor_parser")) {
        GTEST_SKIP() << "skipped: apparmor_parser is not installed";
    }
    const Match rule = search(read_file(source_path("docs/receivers.md")), "\n`(/run/groups/[^`]*,)` ");
    ASSERT_FALSE(rule.empty());
    const std::string profile = read_file(source_path("packaging/apparmor/usr.sbin.zentmon"));
    const std::string local = "include if exists <local/usr.sbin.zentmon>";
    ASSERT_NE(profile.find(local), std::string::npos);
    const TempDir dir;
    write_file(dir.path("profile"), replaced(profile, local, rule[1]));
    const ChildResult result = run_program({"apparmor_parser", "-Q", "-K", dir.path("profile")});
    EXPECT_EQ(result.exit_code, 0) << result.err;
}

class Packaging : public DaemonTest {
  protected:
    // The command of the unit, for the test's interface.
    std::vector<std::string> unit_command(const std::string& args,
                                          const std::string& scope = "-g 224.0.1.0") const
    {
        std::string line = replaced(setting(kUnit, "ExecStart"), "%i", "va");
        line = replaced(line, "$ZENT_SCOPE", scope);
        std::vector<std::string> command = words(replaced(line, "$ZENT_ARGS", args));
        command[0] = binary();
        return as_unit_user(command);
    }
};

TEST_F(Packaging, the_command_of_the_unit_runs_and_shows_its_log_on_stderr)
{
    Process zent = run(unit_command("-L norm"));
    ASSERT_TRUE(wait_for_capture(zent.pid()));
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("224.0.1.77");
    EXPECT_TRUE(zent.wait_for_err("(NRM)  relay_msg: 22 bytes output: JOIN UDP://224.0.1.77\n"))
        << zent.err();
    EXPECT_EQ(proc_status(zent.pid(), "Uid"), "65534\t65534\t65534\t65534");
    EXPECT_EQ(proc_status(zent.pid(), "CapEff"), "0000000000002000");
    zent.kill(SIGTERM);
    const ChildResult result = zent.wait();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "JOIN UDP://224.0.1.77\n");
}

TEST_F(Packaging, the_command_of_the_unit_tells_each_change_once)
{
    Process zent = run(unit_command(""));
    ASSERT_TRUE(wait_for_capture(zent.pid()));
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("224.0.1.78");
    EXPECT_TRUE(zent.wait_for_out("JOIN UDP://224.0.1.78\n")) << zent.err();
    zent.kill(SIGTERM);
    const ChildResult result = zent.wait();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(without_counters(result.err), "\nSIG(15)\n") << "the handler's word alone";
}

TEST_F(Packaging, a_list_in_place_of_the_bound_restricts_the_instance)
{
    write_file(path("groups"), "239.1.1.1\n");
    Process zent = run(unit_command("", "-F " + path("groups")));
    ASSERT_TRUE(wait_for_capture(zent.pid()));
    SegmentHost host(segment());
    host.use_igmp(2);
    host.join("239.9.9.9");
    host.join("239.1.1.1");
    EXPECT_TRUE(zent.wait_for_out("JOIN UDP://239.1.1.1\n")) << zent.err();
    zent.kill(SIGTERM);
    EXPECT_EQ(zent.wait().out, "JOIN UDP://239.1.1.1\n");
}

// The shell command of the unit that waits for the interface, as systemd hands it to sh.
TEST_F(Packaging, the_unit_waits_until_the_interface_is_up_and_has_an_address)
{
    std::string line = setting(kUnit, "ExecStartPre");
    const Match parts = search(line, "^sh -c '([^']*)' %i$");
    ASSERT_FALSE(parts.empty()) << line;
    const std::string script = replaced(parts[1], "$$", "$");
    const auto in_a = [&](const std::string& command) {
        inside(segment(), &NetnsPair::enter_a, [&] { must_run(command); });
    };
    EXPECT_EQ(run({"sh", "-c", script, "va"}).wait().out, "");

    Process wait = run({"sh", "-c", script, "br-lan"});
    ASSERT_TRUE(wait.wait_for_out("waiting until br-lan is up and has an IPv4 address\n"));
    in_a("ip link add br-lan type veth peer name lan0");
    in_a("ip address add 10.5.0.1/24 dev br-lan");
    in_a("ip link set br-lan up");
    EXPECT_EQ(wait.wait().exit_code, 0);
}

TEST_F(Packaging, logrotate_copies_and_cuts_the_log_of_a_running_daemon)
{
    if (!has_program("logrotate")) {
        GTEST_SKIP() << "skipped: logrotate is not installed";
    }
    ASSERT_EQ(chmod(path("").c_str(), 0755), 0); // logrotate refuses directories that others may write to
    write_file(path("settings"), replaced(read_file(kLogrotate), "/var/log/zent/*.log", path("log")));
    ASSERT_EQ(chmod(path("settings").c_str(), 0644), 0);

    Daemon daemon = start_usual();
    const std::string before = log();
    const ChildResult result = run_program({"logrotate", "-f", "-s", path("state"), path("settings")});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(read_file(path("log.1")), before);
    EXPECT_EQ(log(), "");
    EXPECT_TRUE(daemon.is_running());

    const std::string pid = std::to_string(daemon.pid());
    EXPECT_EQ(daemon.stop().exit_code, 0);
    const std::string after = log();
    EXPECT_EQ(after.find('\0'), std::string::npos) << "the daemon goes on at the start of the file";
    EXPECT_NE(after.find(" " + pid + "  (INF)  zent is exiting with rc=0\n"), std::string::npos) << after;
}
