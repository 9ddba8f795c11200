// The recipes of docs/receivers.md and docs/scaling.md, run as they stand there.
#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "child.h"
#include "paths.h"
#include "tempdir.h"
#include "udp.h"

using support::free_port;
using support::Process;

namespace {

std::string recipe(const std::string& name)
{
    return support::source_path("examples/receivers/" + name);
}

void send_line(uint16_t port, const std::string& text)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(port);
    EXPECT_GT(sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    close(fd);
}

} // namespace

class MonRecipes : public testing::Test {
  protected:
    Process zentmon(uint16_t port, std::vector<std::string> more)
    {
        more.insert(more.begin(),
                    {support::build_path("zentmon"), "--listen", "127.0.0.1:" + std::to_string(port) + "=lan",
                     "--http", "none", "--name", "127.0.0.1=enc"});
        Process process(more, [this] { setenv("GROUP_FILES", dir.path().c_str(), 1); });
        EXPECT_TRUE(process.wait_for_err("lines are taken at")) << process.err();
        return process;
    }

    support::TempDir dir;
};

TEST_F(MonRecipes, the_hook_keeps_a_file_for_each_joined_group)
{
    const uint16_t port = free_port(SOCK_DGRAM);
    Process daemon = zentmon(port, {"--exec", recipe("group-files.sh")});
    send_line(port, "JOIN UDP://239.1.1.1\nJOIN UDP://239.1.1.2\nLEAVE UDP://239.1.1.2\n");
    ASSERT_TRUE(support::wait_until([&] {
        return daemon.err().find("for leave of 239.1.1.2") != std::string::npos &&
               daemon.err().find("for join of 239.1.1.1") != std::string::npos;
    })) << daemon.err();
    EXPECT_EQ(dir.names(), std::vector<std::string>{"239.1.1.1@enc"});
    EXPECT_NE(dir.read("239.1.1.1@enc").find("Z 127.0.0.1\n"), std::string::npos);
    daemon.kill(SIGTERM);
    EXPECT_EQ(daemon.wait().exit_code, 0);
}

TEST_F(MonRecipes, two_zentmon_feed_one_broker_and_a_subscriber_sees_all_groups)
{
    if (access("/usr/sbin/mosquitto", X_OK) != 0 || access("/usr/bin/mosquitto_sub", X_OK) != 0) {
        GTEST_SKIP() << "mosquitto and mosquitto-clients are not installed";
    }
    const std::string broker_port = std::to_string(free_port(SOCK_STREAM));
    Process broker({"/usr/sbin/mosquitto", "-p", broker_port});
    ASSERT_TRUE(broker.wait_for_err("running")) << broker.err();
    const uint16_t north_port = free_port(SOCK_DGRAM);
    Process north = zentmon(north_port, {"--mqtt", "127.0.0.1:" + broker_port, "--instance", "north"});
    const uint16_t south_port = free_port(SOCK_DGRAM);
    Process south = zentmon(south_port, {"--mqtt", "127.0.0.1:" + broker_port, "--instance", "south"});
    send_line(north_port, "JOIN UDP://239.1.1.1\n");
    send_line(south_port, "JOIN UDP://239.1.1.1\nJOIN UDP://239.1.1.2\n");
    std::string all;
    EXPECT_TRUE(support::wait_until([&] {
        all = support::run_program({recipe("all-groups.sh"), "127.0.0.1", broker_port}).out;
        return std::count(all.begin(), all.end(), '\n') == 3;
    })) << all;
    for (const char* topic :
         {"zent/north/enc/239.1.1.1\n", "zent/south/enc/239.1.1.1\n", "zent/south/enc/239.1.1.2\n"}) {
        EXPECT_NE(all.find(topic), std::string::npos) << all;
    }
}

TEST_F(MonRecipes, zentmon_forwards_to_zentmon_and_its_lines_are_read_from_standard_output)
{
    const uint16_t upper_port = free_port(SOCK_DGRAM);
    Process upper = zentmon(upper_port, {"--json"});
    const uint16_t port = free_port(SOCK_DGRAM);
    Process lower = zentmon(port, {"--forward", "127.0.0.1:" + std::to_string(upper_port)});
    send_line(port, "JOIN UDP://239.1.1.1\n");
    ASSERT_TRUE(upper.wait_for_out("239.1.1.1\"}\n")) << upper.out();
    const auto event = nlohmann::json::parse(upper.out());
    EXPECT_EQ(event["event"], "join");
    EXPECT_EQ(event["agent"], "enc");
}

TEST_F(MonRecipes, forwarding_to_an_own_listener_is_refused)
{
    const std::string own = "127.0.0.1:" + std::to_string(free_port(SOCK_DGRAM));
    const auto ended = support::run_program(
        {support::build_path("zentmon"), "--listen", own, "--http", "none", "--forward", own});
    EXPECT_EQ(ended.exit_code, 64);
    EXPECT_NE(ended.err.find("--forward " + own + " is a listener of this zentmon"), std::string::npos)
        << ended.err;
}

TEST_F(MonRecipes, a_kill_loses_no_joined_group_that_is_a_second_old)
{
    const uint16_t port = free_port(SOCK_DGRAM);
    const std::vector<std::string> history = {"--db", dir.path("history.db")};
    Process first = zentmon(port, history);
    send_line(port, "JOIN UDP://239.1.1.1\n");
    ASSERT_TRUE(support::wait_until([&] {
        return support::run_program(
                   {"/usr/bin/sqlite3", dir.path("history.db"), "SELECT \"group\" FROM joined"})
                   .out == "239.1.1.1\n";
    }));
    first.kill(SIGKILL);
    first.wait();
    Process second = zentmon(port, history);
    EXPECT_TRUE(second.wait_for_err("1 joined groups restored")) << second.err();
}
