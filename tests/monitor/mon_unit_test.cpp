// What is shipped beside the program: the units, and the manual page.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "child.h"
#include "match.h"
#include "options.h"
#include "paths.h"
#include "tempdir.h"

using namespace support;

namespace {

const std::string kService = support::source_path("packaging/systemd/zentmon.service");
const std::string kSocket = support::source_path("packaging/systemd/zentmon.socket");

std::string content(const std::string& path)
{
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

bool has_program(const std::string& name)
{
    return run_program({"sh", "-c", "command -v " + name}).exit_code == 0;
}

} // namespace

TEST(MonUnit, its_exposure_is_at_most_1_2)
{
    if (!has_program("systemd-analyze")) {
        GTEST_SKIP() << "skipped: systemd-analyze is not installed";
    }
    const ChildResult result =
        run_program({"systemd-analyze", "security", "--offline=true", "--no-pager", kService});
    const support::Match level = support::search(result.out, "Overall exposure level for [^:]*: ([0-9.]+)");
    ASSERT_FALSE(level.empty()) << result.out << result.err;
    EXPECT_LE(std::stod(level[1]), 1.2) << result.out;
}

TEST(MonUnit, has_no_setting_that_systemd_does_not_know)
{
    if (!has_program("systemd-analyze")) {
        GTEST_SKIP() << "skipped: systemd-analyze is not installed";
    }
    // The service names the socket: both must stand in one directory that systemd searches.
    const ChildResult result =
        run_program({"env", "SYSTEMD_UNIT_PATH=" + support::source_path("packaging/systemd:"),
                     "systemd-analyze", "verify", "--man=no", "--recursive-errors=no", kService, kSocket});
    std::istringstream lines(result.err);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_NE(line.find("Command zentmon is not executable"), std::string::npos) << line;
    }
}

TEST(MonUnit, the_socket_has_a_large_buffer_and_the_service_no_right)
{
    const std::string service = content(kService);
    const std::string socket = content(kSocket);
    EXPECT_NE(socket.find("\nReceiveBuffer=64M\n"), std::string::npos);
    EXPECT_NE(socket.find("\nListenDatagram=127.0.0.1:4554\n"), std::string::npos);
    EXPECT_NE(service.find("\nType=notify\n"), std::string::npos);
    EXPECT_NE(service.find("\nDynamicUser=yes\n"), std::string::npos);
    EXPECT_NE(service.find("\nStateDirectory=zentmon\n"), std::string::npos);
    EXPECT_NE(service.find("\nCapabilityBoundingSet=\n"), std::string::npos);
}

// The options of the unit's own command are ones that the program takes.
TEST(MonUnit, starts_the_program_with_options_that_it_has)
{
    const support::Match command =
        support::search(content(kService), "ExecStart=zentmon ([^\n]*) \\$ZENTMON_ARGS\n");
    ASSERT_FALSE(command.empty());
    std::istringstream words(command[1]);
    const std::vector<std::string> arguments{std::istream_iterator<std::string>(words), {}};
    EXPECT_NO_THROW(zentmon::read_options(arguments));
}

TEST(MonManual, is_clean_and_names_every_option)
{
    const std::string path = support::source_path("man/zentmon.8");
    const std::string page = content(path);
    const std::string help = zentmon::help_text();
    const std::vector<support::Match> options = support::search_all(help, "\n  --([a-z-]+)");
    EXPECT_GT(options.size(), 20U);
    for (const support::Match& option : options) {
        EXPECT_TRUE(page.find("Fl -" + option[1]) != std::string::npos ||
                    page.find(", -" + option[1]) != std::string::npos)
            << "--" << option[1];
    }
    if (!has_program("mandoc")) {
        GTEST_SKIP() << "skipped: mandoc is not installed";
    }
    const ChildResult lint = run_program({"mandoc", "-T", "lint", "-W", "warning", path});
    EXPECT_EQ(lint.exit_code, 0) << lint.out;
}
