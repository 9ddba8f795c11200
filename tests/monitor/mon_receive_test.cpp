// The intake: sockets, sources, what is counted. The loop is not needed: a listener reads when it is told to.
#include "receive.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

#include "options.h"
#include "udp.h"

using namespace zentmon;

namespace {

SourceAddress source(const std::string& text)
{
    const bool v6 = text.find(':') != std::string::npos;
    return source_address(parse_endpoint((v6 ? "[" + text + "]" : text) + ":1").ss);
}

struct MonReceive : testing::Test {
    Counters counters;
    State state{StateOptions(), counters};
    std::vector<Cidr> allow;
    std::unique_ptr<Listener> listener;
    int port = 0;

    void open(const std::string& at = "127.0.0.1:0", size_t buffer = 0)
    {
        const int fd = open_datagram_socket(parse_endpoint(at), buffer);
        ASSERT_GE(fd, 0);
        listener = std::make_unique<Listener>(fd, "lab", allow, state, counters);
        struct sockaddr_in in = {};
        socklen_t length = sizeof in;
        getsockname(fd, reinterpret_cast<struct sockaddr*>(&in), &length);
        port = ntohs(in.sin_port);
    }

    void send(const std::vector<std::string>& datagrams)
    {
        const support::UdpSender sender(port);
        for (const std::string& datagram : datagrams) {
            ASSERT_TRUE(sender.send(datagram));
        }
        listener->on_readable(); // on loopback a datagram has arrived when it has been sent
    }

    std::string agents()
    {
        std::string out;
        state.each_agent([&](const AgentRow& row) {
            out += row.who->agent + " " + row.who->address + " " + row.who->listener + " " +
                   std::to_string(row.groups) + "\n";
        });
        return out;
    }
};

} // namespace

TEST_F(MonReceive, a_datagram_holds_several_lines)
{
    open();
    send({"JOIN UDP://239.1.1.1\nJOIN UDP://239.1.1.2", "LEAVE UDP://239.1.1.1\n"});
    EXPECT_EQ(agents(), "127.0.0.1 127.0.0.1 lab 1\n");
    EXPECT_EQ(counters.listeners[0].name, "lab");
    EXPECT_EQ(counters.listeners[0].datagrams, 2u);
}

TEST_F(MonReceive, bad_lines_are_counted_by_reason_and_make_no_agent)
{
    open();
    send({"hello", "JOIN UDP://10.0.0.1\n\n", ""});
    EXPECT_EQ(counters.bad_lines[BadLine::word], 1u);
    EXPECT_EQ(counters.bad_lines[BadLine::group], 1u);
    EXPECT_EQ(counters.bad_lines[BadLine::empty], 1u);
    EXPECT_EQ(counters.empty_datagrams, 1u);
    EXPECT_EQ(counters.listeners[0].datagrams, 3u);
    EXPECT_EQ(agents(), "");
}

TEST_F(MonReceive, of_a_datagram_above_9000_bytes_the_whole_lines_count)
{
    open();
    std::string longest;
    while (longest.size() + 21 <= 9000) {
        longest += "JOIN UDP://239.1." + std::to_string(longest.size() / 21 % 10) + ".1\n";
    }
    longest += "JOIN UDP://239.9.9.9\nJOIN UDP://239.9.9.8\n";
    ASSERT_GT(longest.size(), 9000u);
    send({longest});
    EXPECT_EQ(agents(), "127.0.0.1 127.0.0.1 lab 10\n");
    EXPECT_EQ(counters.bad_lines[BadLine::truncated], 1u);
}

TEST_F(MonReceive, who_is_not_allowed_is_counted_and_dropped)
{
    allow = {parse_cidr("10.0.0.0/8"), parse_cidr("fd00::/8")};
    open();
    send({"JOIN UDP://239.1.1.1"});
    EXPECT_EQ(agents(), "");
    EXPECT_EQ(counters.denied, 1u);
    allow.push_back(parse_cidr("127.0.0.0/8"));
    send({"JOIN UDP://239.1.1.1"});
    EXPECT_EQ(agents(), "127.0.0.1 127.0.0.1 lab 1\n");
}

TEST_F(MonReceive, more_than_a_batch_is_taken_in_one_turn)
{
    open("127.0.0.1:0", 4u << 20);
    std::vector<std::string> datagrams;
    for (int i = 0; i < 500; ++i) {
        datagrams.push_back("JOIN UDP://239.1." + std::to_string(i / 250) + "." + std::to_string(i % 250));
    }
    const support::UdpSender sender(port);
    for (const std::string& datagram : datagrams) {
        ASSERT_TRUE(sender.send(datagram));
    }
    listener->on_readable();
    EXPECT_EQ(agents(), "127.0.0.1 127.0.0.1 lab 500\n");
}

TEST_F(MonReceive, what_the_kernel_drops_is_counted)
{
    open("127.0.0.1:0", 1); // the least that the kernel gives
    const support::UdpSender sender(port);
    for (int i = 0; i < 500; ++i) {
        sender.send("JOIN UDP://239.1.1.1");
    }
    listener->on_readable();
    listener->read_drops();
    EXPECT_GT(counters.listeners[0].dropped, 0u);
    EXPECT_EQ(counters.listeners[0].dropped + counters.listeners[0].datagrams, 500u);
    const uint64_t before = counters.listeners[0].dropped;
    listener->read_drops();
    EXPECT_EQ(counters.listeners[0].dropped, before);
}

TEST_F(MonReceive, an_ipv6_source_is_an_agent_of_its_own)
{
    open("[::1]:0");
    const int fd = socket(AF_INET6, SOCK_DGRAM, 0);
    struct sockaddr_in6 to = {};
    socklen_t length = sizeof to;
    getsockname(listener->fd(), reinterpret_cast<struct sockaddr*>(&to), &length);
    ASSERT_GT(sendto(fd, "JOIN UDP://239.1.1.1", 20, 0, reinterpret_cast<struct sockaddr*>(&to), length), 0);
    listener->on_readable();
    EXPECT_EQ(agents(), "::1 ::1 lab 1\n");
    close(fd);
}

TEST_F(MonReceive, a_forgotten_agent_is_looked_up_anew)
{
    StateOptions options;
    options.forget_s = 1;
    State short_lived(options, counters);
    const int fd = open_datagram_socket(parse_endpoint("127.0.0.1:0"), 0);
    Listener other(fd, "hall", allow, short_lived, counters);
    struct sockaddr_in in = {};
    socklen_t length = sizeof in;
    getsockname(fd, reinterpret_cast<struct sockaddr*>(&in), &length);
    const support::UdpSender sender(ntohs(in.sin_port));
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(sender.send("JOIN UDP://239.1.1.1"));
        other.on_readable();
        EXPECT_EQ(short_lived.agent_count(), 1u);
        Now later = now();
        later.mono_ms += 5000;
        short_lived.tick(later);
        EXPECT_EQ(short_lived.agent_count(), 0u);
    }
}

TEST(MonAddress, texts_and_networks)
{
    EXPECT_EQ(address_text(source("10.1.2.3")), "10.1.2.3");
    EXPECT_EQ(address_text(source("2001:db8:0:0::1")), "2001:db8::1");
    EXPECT_EQ(address_text(source("fe80::1%lo")), "fe80::1%lo");
    EXPECT_TRUE(matches(parse_cidr("10.0.0.0/8"), source("10.255.0.1")));
    EXPECT_FALSE(matches(parse_cidr("10.0.0.0/8"), source("11.0.0.1")));
    EXPECT_TRUE(matches(parse_cidr("10.0.0.128/25"), source("10.0.0.129")));
    EXPECT_FALSE(matches(parse_cidr("10.0.0.128/25"), source("10.0.0.127")));
    EXPECT_TRUE(matches(parse_cidr("0.0.0.0/0"), source("1.2.3.4")));
    EXPECT_FALSE(matches(parse_cidr("0.0.0.0/0"), source("2001:db8::1")));
    EXPECT_TRUE(matches(parse_cidr("::/0"), source("2001:db8::1")));
    EXPECT_TRUE(matches(parse_cidr("192.0.2.1"), source("192.0.2.1")));
    EXPECT_FALSE(matches(parse_cidr("192.0.2.1"), source("192.0.2.2")));
    EXPECT_TRUE(matches(parse_cidr("10.0.0.0/8"), source("::ffff:10.0.0.1")));
}
