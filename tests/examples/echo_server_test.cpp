// The echo server as its users run it: real clients on the loopback address.
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "detail/owned.h"
#include "fault.h"
#include "fds.h"
#include "paths.h"

namespace {

const std::string kServer = support::build_path("examples/echo_server");

class EchoServer : public testing::Test {
  protected:
    void start(const std::vector<std::string>& options = {})
    {
        std::vector<std::string> argv = {kServer};
        argv.insert(argv.end(), options.begin(), options.end());
        server = support::Process(argv);
        const std::string hello = "listening on 127.0.0.1:";
        ASSERT_TRUE(server.wait_for_out(hello)) << server.err();
        ASSERT_TRUE(server.wait_for_out("\n"));
        port = static_cast<uint16_t>(std::stoi(server.out().substr(hello.size())));
    }

    mv::OwnedFd connect_client() const
    {
        mv::OwnedFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            fd.reset();
        }
        return fd;
    }

    // What comes within the time limit, up to count bytes or the end.
    static std::string receive(const mv::OwnedFd& fd, size_t count)
    {
        std::string text;
        while (text.size() < count) {
            pollfd p = {fd.get(), POLLIN, 0};
            char buf[65536];
            if (poll(&p, 1, 120'000) != 1) {
                break;
            }
            const ssize_t n = read(fd.get(), buf, std::min(sizeof buf, count - text.size()));
            if (n <= 0) {
                break;
            }
            text.append(buf, static_cast<size_t>(n));
        }
        return text;
    }

    // Whether the server has closed the connection: nothing comes any more.
    static bool is_closed(const mv::OwnedFd& fd)
    {
        pollfd p = {fd.get(), POLLIN, 0};
        char c = 0;
        return poll(&p, 1, 120'000) == 1 && read(fd.get(), &c, 1) <= 0;
    }

    bool has_ended() const
    {
        siginfo_t end = {};
        waitid(P_PID, static_cast<id_t>(server.pid()), &end, WEXITED | WNOHANG | WNOWAIT);
        return end.si_pid != 0;
    }

    support::FdGuard guard_;
    support::Process server;
    uint16_t port = 0;
};

TEST_F(EchoServer, what_is_sent_comes_back)
{
    start();
    const mv::OwnedFd client = connect_client();
    ASSERT_TRUE(client);
    for (const std::string text : {"hello", "again"}) {
        ASSERT_EQ(write(client.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
        EXPECT_EQ(receive(client, text.size()), text);
    }
    server.kill(SIGTERM);
    EXPECT_EQ(server.wait().exit_code, 0);
}

TEST_F(EchoServer, many_clients_at_once)
{
    start();
    std::vector<mv::OwnedFd> clients;
    for (int i = 0; i < 150; ++i) {
        clients.push_back(connect_client());
        ASSERT_TRUE(clients.back());
    }
    for (const mv::OwnedFd& c : clients) {
        const std::string text = "from " + std::to_string(c.get());
        ASSERT_EQ(write(c.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    for (const mv::OwnedFd& c : clients) {
        const std::string text = "from " + std::to_string(c.get());
        EXPECT_EQ(receive(c, text.size()), text);
    }
    clients.clear();
    server.kill(SIGTERM);
    const support::ChildResult end = server.wait();
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_EQ(end.err.find("ERROR"), std::string::npos) << end.err;
}

TEST_F(EchoServer, a_client_that_does_not_read_holds_up_nobody_and_loses_nothing)
{
    start();
    const mv::OwnedFd slow = connect_client();
    ASSERT_TRUE(slow);
    const std::string text(8 << 20, 's');
    const pid_t sender = fork();
    if (sender == 0) {
        size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t n = write(slow.get(), text.data() + sent, text.size() - sent);
            if (n <= 0) {
                _exit(1);
            }
            sent += static_cast<size_t>(n);
        }
        _exit(0);
    }
    const mv::OwnedFd other = connect_client();
    ASSERT_EQ(write(other.get(), "quick", 5), 5);
    EXPECT_EQ(receive(other, 5), "quick");
    EXPECT_EQ(receive(slow, text.size()), text);
    int status = -1;
    EXPECT_EQ(waitpid(sender, &status, 0), sender);
    EXPECT_EQ(status, 0);
    server.kill(SIGTERM);
    EXPECT_EQ(server.wait().exit_code, 0);
}

TEST_F(EchoServer, idle_clients_are_shut_out_and_busy_ones_are_not)
{
    start({"-i", "3000"});
    const mv::OwnedFd idle = connect_client();
    const mv::OwnedFd busy = connect_client();
    const auto deadline = std::chrono::steady_clock::now() + support::kLimit;
    pollfd p = {idle.get(), POLLIN, 0};
    while (poll(&p, 1, 50) == 0 && std::chrono::steady_clock::now() < deadline) {
        ASSERT_EQ(write(busy.get(), "x", 1), 1);
        ASSERT_EQ(receive(busy, 1), "x");
    }
    EXPECT_TRUE(is_closed(idle));
    ASSERT_EQ(write(busy.get(), "y", 1), 1);
    EXPECT_EQ(receive(busy, 1), "y");
    EXPECT_TRUE(server.wait_for_err("is idle"));
    server.kill(SIGTERM);
    EXPECT_EQ(server.wait().exit_code, 0);
}

TEST_F(EchoServer, stopping_lets_a_client_have_its_answer_and_takes_no_new_ones)
{
    start({"-g", "60000"});
    const mv::OwnedFd slow = connect_client();
    const mv::OwnedFd served = connect_client();
    ASSERT_EQ(write(served.get(), "x", 1), 1);
    ASSERT_EQ(receive(served, 1), "x");
    // So much that the server cannot get rid of it before somebody reads.
    size_t sent = 0;
    const std::string block(65536, 's');
    pollfd p = {slow.get(), POLLOUT, 0};
    while (poll(&p, 1, 300) == 1) {
        const ssize_t n = send(slow.get(), block.data(), block.size(), MSG_DONTWAIT);
        ASSERT_GT(n, 0);
        sent += static_cast<size_t>(n);
    }
    server.kill(SIGTERM);
    EXPECT_TRUE(server.wait_for_err("stopping, 2 clients"));
    EXPECT_TRUE(is_closed(served));
    EXPECT_FALSE(connect_client());
    const std::string answer = receive(slow, sent);
    EXPECT_EQ(answer.size(), sent);
    EXPECT_EQ(answer.find_first_not_of('s'), std::string::npos);
    EXPECT_TRUE(is_closed(slow));
    EXPECT_EQ(server.wait().exit_code, 0);
}

TEST_F(EchoServer, the_grace_has_an_end)
{
    start({"-g", "200"});
    const mv::OwnedFd slow = connect_client();
    const std::string block(65536, 's');
    pollfd p = {slow.get(), POLLOUT, 0};
    while (poll(&p, 1, 300) == 1) {
        ASSERT_GT(send(slow.get(), block.data(), block.size(), MSG_DONTWAIT), 0);
    }
    server.kill(SIGTERM);
    EXPECT_EQ(server.wait().exit_code, 0) << "though nobody reads";
}

TEST_F(EchoServer, a_port_in_use_and_wrong_options)
{
    start();
    const support::ChildResult second = support::run_program({kServer, "-p", std::to_string(port)});
    EXPECT_EQ(second.exit_code, 1);
    EXPECT_NE(second.err.find("Address already in use"), std::string::npos) << second.err;
    EXPECT_EQ(support::run_program({kServer, "-x"}).exit_code, 2);
    server.kill(SIGINT);
    EXPECT_EQ(server.wait().exit_code, 0);
}

// Once it was one that the list of clients wanted: then nobody was served any more.
TEST_F(EchoServer, one_refusal_of_memory_costs_one_client_at_most)
{
    for (int nth = 1; nth <= 16; ++nth) {
        server = support::Process(support::with_fault({"alloc", nth, ENOMEM}, {kServer}));
        ASSERT_TRUE(
            support::wait_until([&] { return has_ended() || server.out().find('\n') != std::string::npos; }));
        int served = 0;
        for (int client = 0; client < 3 && !has_ended(); ++client) {
            port = static_cast<uint16_t>(std::stoi(server.out().substr(strlen("listening on 127.0.0.1:"))));
            const mv::OwnedFd fd = connect_client();
            send(fd.get(), "text\n", 5, MSG_NOSIGNAL);
            served += fd && receive(fd, 5) == "text\n" ? 1 : 0;
        }
        EXPECT_TRUE(served >= 2 || support::wait_until([&] { return has_ended(); }))
            << nth << ": " << server.err();
    }
}

} // namespace
