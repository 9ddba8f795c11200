// The unit of the querier.
#include <string>

#include <gtest/gtest.h>

#include "agent_run.h"
#include "child.h"
#include "match.h"
#include "paths.h"

using namespace support;

namespace {

const std::string kUnit = source_path("packaging/systemd/zent-querier@.service");

bool has_systemd_analyze()
{
    return run_program({"sh", "-c", "command -v systemd-analyze"}).exit_code == 0;
}

// The line "NAME=..." of a unit.
std::string setting_line(const std::string& unit, const std::string& name)
{
    const size_t at = unit.find("\n" + name + "=");
    return at == std::string::npos ? "" : unit.substr(at + 1, unit.find('\n', at + 1) - at);
}

} // namespace

TEST(QuerierUnit, is_rated_1_7_or_better)
{
    if (!has_systemd_analyze()) {
        GTEST_SKIP() << "skipped: systemd-analyze is not installed";
    }
    const ChildResult result =
        run_program({"systemd-analyze", "security", "--offline=true", "--no-pager", kUnit});
    const Match level = search(result.out, "Overall exposure level for [^:]*: ([0-9.]+)");
    ASSERT_FALSE(level.empty()) << result.out << result.err;
    EXPECT_LE(std::stod(level[1]), 1.7) << result.out;
}

TEST(QuerierUnit, has_no_setting_that_systemd_does_not_know)
{
    if (!has_systemd_analyze()) {
        GTEST_SKIP() << "skipped: systemd-analyze is not installed";
    }
    const std::string err =
        run_program({"systemd-analyze", "verify", "--man=no", "--recursive-errors=no", kUnit}).err;
    EXPECT_TRUE(matches(err, "([^\n]*Command zentctl is not executable[^\n]*\n)?")) << err;
}

TEST(QuerierUnit, waits_for_its_interface_as_the_agent_does_and_gives_up_on_a_wrong_value)
{
    const std::string unit = read_file(kUnit);
    const std::string agent = read_file(source_path("packaging/systemd/zent@.service"));
    for (const char* name : {"After", "ExecStartPre", "TimeoutStartSec", "StartLimitIntervalSec",
                             "StartLimitBurst", "Restart", "RestartSec"}) {
        EXPECT_NE(setting_line(unit, name), "");
        EXPECT_EQ(setting_line(unit, name), setting_line(agent, name));
    }
}

TEST(QuerierUnit, has_the_right_to_capture_alone)
{
    const std::string unit = read_file(kUnit);
    EXPECT_NE(unit.find("\nAmbientCapabilities=CAP_NET_RAW\nCapabilityBoundingSet=CAP_NET_RAW\n"),
              std::string::npos);
    EXPECT_NE(unit.find("\nDynamicUser=yes\n"), std::string::npos);
    EXPECT_EQ(unit.find("\nUser="), std::string::npos);
}
