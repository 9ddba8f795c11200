// The way out: lines to a stream and datagrams to a relay, on loopback.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent_test.h"
#include "child.h"
#include "fds.h"
#include "log.h"
#include "text.h"
#include "uri.h"

using support::Lines;

namespace {

// A relay's socket on loopback.
class Relay {
  public:
    Relay()
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        const timeval limit{support::kLimit.count(), 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }

    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    ~Relay() { close(fd_); }

    std::string port() const { return std::to_string(port_); }

    std::string receive() const
    {
        char datagram[256];
        const ssize_t n = recv(fd_, datagram, sizeof datagram, 0);
        return n < 0 ? "nothing" : std::string(datagram, static_cast<size_t>(n));
    }

    bool is_empty() const
    {
        char byte;
        return recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0;
    }

  private:
    int fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    uint16_t port_ = 0;
};

class Reporter : public support::AgentTest {
  protected:
    static int report_to(const std::string& target)
    {
        snprintf(g_cfg.report_url, sizeof g_cfg.report_url, "udp://%s", target.c_str());
        return reporter_setup();
    }

    // The writes to stdout, in immediate mode: each write to such a socket is a datagram of its own. The
    // first is that of a line with which the test program's own use of the stream ends.
    static Lines writes_of(void (*relay)())
    {
        const support::SocketPair pair(SOCK_DGRAM);
        const auto result = support::run_in_child([&] {
            dup2(pair.peer, STDOUT_FILENO);
            g_cfg.features.immediate = true;
            reporter_setup();
            relay_msg("first\n");
            relay_flush();
            relay();
            _exit(0); // without a flush
            return 0;
        });
        EXPECT_EQ(result.exit_code, 0);
        Lines writes;
        char part[8192];
        for (ssize_t n; (n = recv(pair.ours, part, sizeof part, MSG_DONTWAIT)) > 0;) {
            writes.emplace_back(part, static_cast<size_t>(n));
        }
        return writes;
    }
};

} // namespace

TEST_F(Reporter, without_a_target_lines_go_to_stdout)
{
    log.set_level(DEBUG_level);
    g_ctx.rep.fp = stderr;
    g_ctx.rep.sockfd = 7;
    EXPECT_EQ(reporter_setup(), 0);
    EXPECT_EQ(g_ctx.rep.fp, stdout);
    EXPECT_EQ(g_ctx.rep.sockfd, -1);
    EXPECT_EQ(log.lines(), Lines{"(DBG)  reporter_setup: reporting to STDOUT"});
}

TEST_F(Reporter, lines_to_stdout_leave_at_once)
{
    const auto result = support::run_in_child([] {
        reporter_setup();
        relay_msg("JOIN UDP://%s\n", "239.1.2.3");
        _exit(0); // without a flush
        return 0;
    });
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "JOIN UDP://239.1.2.3\n");
}

TEST_F(Reporter, in_immediate_mode_lines_are_gathered_into_writes_of_whole_lines)
{
    const Lines writes = writes_of([] {
        for (int n = 0; n < 200; ++n) {
            relay_msg("JOIN UDP://239.1.2.%d\n", n);
        }
        relay_flush();
        relay_flush();
        relay_msg("LEAVE UDP://%s\n", "239.1.2.3"); // not flushed: it does not leave
    });
    std::string expected;
    for (int n = 0; n < 200; ++n) {
        expected += "JOIN UDP://239.1.2." + std::to_string(n) + "\n";
    }
    ASSERT_EQ(writes.size(), 3U);
    EXPECT_EQ(writes[0], "first\n");
    EXPECT_EQ(writes[1] + writes[2], expected);
    EXPECT_LE(writes[1].size(), 4096U);
    EXPECT_GT(writes[1].size(), 4096U - 23);
    EXPECT_EQ(writes[1].back(), '\n');
}

TEST_F(Reporter, in_immediate_mode_4096_bytes_are_one_write)
{
    const Lines writes = writes_of([] {
        for (int n = 0; n < 64; ++n) {
            relay_msg("%063d\n", n);
        }
        relay_flush();
    });
    ASSERT_EQ(writes.size(), 2U);
    EXPECT_EQ(writes[1].size(), 4096U);
}

TEST_F(Reporter, in_immediate_mode_a_write_that_fails_costs_its_lines_alone)
{
    const auto result = support::run_in_child([] {
        g_cfg.features.immediate = true;
        reporter_setup();
        const int out = dup(STDOUT_FILENO);
        const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
        dup2(full, STDOUT_FILENO);
        relay_msg("JOIN UDP://%s\n", "239.1.2.3");
        relay_flush();
        dup2(out, STDOUT_FILENO);
        relay_msg("LEAVE UDP://%s\n", "239.1.2.3");
        relay_flush();
        _exit(0);
        return 0;
    });
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "LEAVE UDP://239.1.2.3\n");
}

TEST_F(Reporter, in_immediate_mode_each_line_to_a_relay_is_a_datagram_at_once)
{
    const Relay relay;
    g_cfg.features.immediate = true;
    ASSERT_EQ(report_to("127.0.0.1:" + relay.port()), 0);
    relay_msg("JOIN UDP://%s\n", "239.1.2.3");
    relay_msg("LEAVE UDP://%s\n", "239.1.2.3");
    EXPECT_EQ(relay.receive(), "JOIN UDP://239.1.2.3\n");
    EXPECT_EQ(relay.receive(), "LEAVE UDP://239.1.2.3\n");
    app_shutdown();
}

TEST_F(Reporter, socket_does_not_block)
{
    const Relay relay;
    ASSERT_EQ(report_to("127.0.0.1:" + relay.port()), 0);
    EXPECT_NE(fcntl(g_ctx.rep.sockfd, F_GETFL) & O_NONBLOCK, 0);
    app_shutdown();
}

TEST_F(Reporter, full_buffer_costs_a_line_and_no_time)
{
    const support::SocketPair pair(SOCK_DGRAM); // its buffer can be filled, and unlike the relay's it blocks
    while (send(pair.ours, "x", 1, MSG_DONTWAIT) == 1) {
    }
    g_ctx.rep.sockfd = pair.ours;
    relay_msg("JOIN UDP://%s\n", "239.1.2.3");
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 3U) << log.text();
    EXPECT_NE(lines[0].find(", 21, 64, ...) ERROR(11): "), std::string::npos) << lines[0];
    EXPECT_EQ(lines[1], "(ERR)  relay_msg: failed to relay: JOIN UDP://239.1.2.3");
}

TEST_F(Reporter, datagram_is_the_line_with_its_newline_and_nothing_else)
{
    const Relay relay;
    ASSERT_EQ(report_to("127.0.0.1:" + relay.port()), 0);
    relay_msg("JOIN UDP://%s\n", "239.1.2.3");
    relay_msg("LEAVE UDP://%s\n", "239.1.2.3");
    EXPECT_EQ(relay.receive(), "JOIN UDP://239.1.2.3\n");
    EXPECT_EQ(relay.receive(), "LEAVE UDP://239.1.2.3\n");
    EXPECT_EQ(log.lines(), (Lines{"(NRM)  relay_msg: 21 bytes sent: JOIN UDP://239.1.2.3",
                                  "(NRM)  relay_msg: 22 bytes sent: LEAVE UDP://239.1.2.3"}));
    app_shutdown();
    EXPECT_EQ(g_ctx.rep.sockfd, -1);
}

TEST_F(Reporter, target_drops_the_stream_that_was_set)
{
    const Relay relay;
    g_ctx.rep.fp = stdout;
    log.set_level(DEBUG_level);
    ASSERT_EQ(report_to("127.0.0.1:" + relay.port()), 0);
    EXPECT_EQ(g_ctx.rep.fp, nullptr);
    EXPECT_GT(g_ctx.rep.sockfd, 0);
    EXPECT_EQ(g_ctx.rep.usock.url_kind, URI_UDP);
    EXPECT_EQ(log.lines().back(), "(DBG)  reporter_setup: reporting to udp://127.0.0.1:" + relay.port());
    app_shutdown();
}

TEST_F(Reporter, host_names_are_resolved_once)
{
    const Relay relay;
    ASSERT_EQ(report_to("localhost:" + relay.port()), 0);
    if (g_ctx.rep.usock.sspec.family == AF_INET) {
        relay_msg("JOIN UDP://%s\n", "239.1.2.3");
        EXPECT_EQ(relay.receive(), "JOIN UDP://239.1.2.3\n");
    }
    app_shutdown();
}

TEST_F(Reporter, refused_targets_fail_with_a_line_that_names_them)
{
    for (const char* target : {"127.0.0.1", "no.such.host.invalid:4554", ":4554x"}) {
        log.clear();
        EXPECT_EQ(report_to(target), -1) << target;
        EXPECT_EQ(log.lines().back(),
                  "(ERR)  reporter_setup: failed to open [udp://" + std::string(target) + "]");
        app_shutdown();
    }
}

TEST_F(Reporter, relay_that_is_down_costs_at_most_a_line_an_event_and_may_come_back)
{
    std::string port;
    {
        const Relay gone;
        port = gone.port();
    }
    ASSERT_EQ(report_to("127.0.0.1:" + port), 0);
    for (int i = 0; i < 3; ++i) {
        relay_msg("JOIN UDP://%s\n", "239.1.2.3");
    }
    EXPECT_LE(log.lines().size(), 9U);
    app_shutdown();
}

TEST_F(Reporter, failed_send_is_reported_with_the_line)
{
    const Relay relay;
    ASSERT_EQ(report_to("127.0.0.1:" + relay.port()), 0);
    const int fd = g_ctx.rep.sockfd;
    g_ctx.rep.sockfd = 999; // no such descriptor
    relay_msg("JOIN UDP://%s\n", "239.1.2.3");
    g_ctx.rep.sockfd = fd;
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 3U) << log.text(); // the text's own newline makes an empty one
    EXPECT_EQ(lines[0].find("(ERR)  relay_msg: sendto(999, 0x"), 0U) << lines[0];
    EXPECT_NE(lines[0].find(", 21, 64, ...) ERROR(9): Bad file descriptor"), std::string::npos) << lines[0];
    EXPECT_EQ(lines[1], "(ERR)  relay_msg: failed to relay: JOIN UDP://239.1.2.3");
    EXPECT_EQ(lines[2], "");
    EXPECT_TRUE(relay.is_empty());
    app_shutdown();
}

TEST_F(Reporter, shutdown_twice_closes_once)
{
    const Relay relay;
    ASSERT_EQ(report_to("127.0.0.1:" + relay.port()), 0);
    app_shutdown();
    app_shutdown();
    EXPECT_EQ(log.text(), "");
}
