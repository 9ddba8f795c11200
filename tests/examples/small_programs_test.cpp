// The small programs in C, run as a reader of them would run them.
#include <arpa/inet.h>
#include <csignal>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "netns.h"
#include "paths.h"
#include "scripted_server.h"
#include "tempdir.h"
#include "udp.h"

using support::ChildResult;
using support::Process;
using support::run_program;
using support::TempDir;

namespace {

std::string program(const std::string& name)
{
    return support::build_path("examples/") + name;
}

// A client of a program's TCP port.
class Client {
  public:
    explicit Client(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_in to = support::loopback(port);
        EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
        const timeval limit = {support::kLimit.count(), 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }

    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    ~Client() { close(fd_); }

    void send(const std::string& text) const
    {
        EXPECT_EQ(::send(fd_, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }

    // Reads until the text stands in what came, or the peer has closed.
    bool receive(const std::string& text)
    {
        char block[512];
        while (received_.find(text) == std::string::npos) {
            const ssize_t got = recv(fd_, block, sizeof block, 0);
            if (got <= 0) {
                return false;
            }
            received_.append(block, static_cast<size_t>(got));
        }
        return true;
    }

    const std::string& received() const { return received_; }

  private:
    int fd_;
    std::string received_;
};

int port_in(const std::string& text)
{
    return std::stoi(text.substr(text.rfind(':') + 1));
}

// With nothing given, all of them say how they are used, and end with 2.
TEST(SmallPrograms, say_how_they_are_used)
{
    for (const char* name :
         {"fetch", "mcast_receive", "watch_rotate", "fd_pass", "index_query", "guide_daemon"}) {
        const ChildResult result = run_program({program(name)});
        EXPECT_EQ(2, result.exit_code) << name;
        EXPECT_EQ(0U, result.err.find("usage: " + std::string(name))) << result.err;
    }
}

TEST(LineServer, numbers_lines_and_ticks_for_everybody)
{
    Process server({program("line_server"), "-t", "20"});
    ASSERT_TRUE(server.wait_for_out("\n"));
    Client one(port_in(server.out()));
    Client two(port_in(server.out()));
    one.send("first\nsec");
    EXPECT_TRUE(one.receive("1: first\n"));
    one.send("ond\n\n");
    EXPECT_TRUE(one.receive("2: second\n"));
    EXPECT_TRUE(one.receive("3: \n"));
    EXPECT_TRUE(two.receive("tick "));
    EXPECT_EQ(std::string::npos, two.received().find("first"));
    server.kill(SIGTERM);
    EXPECT_EQ(0, server.wait().exit_code);
}

TEST(LineServer, shuts_out_who_is_idle_or_sends_no_line_end)
{
    Process server({program("line_server"), "-t", "3600000", "-i", "50"});
    ASSERT_TRUE(server.wait_for_out("\n"));
    Client idle(port_in(server.out()));
    EXPECT_TRUE(idle.receive("bye\n"));
    Client endless(port_in(server.out()));
    endless.send(std::string(1024, 'x'));
    EXPECT_TRUE(endless.receive("too long\n") || endless.receive("bye\n"));
    EXPECT_FALSE(endless.receive("never"));
    server.kill(SIGTERM);
    EXPECT_EQ(0, server.wait().exit_code);
}

TEST(Fetch, writes_the_body_to_a_file)
{
    const std::string body(70'000, 'b');
    support::ScriptedServer server("HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n" + body);
    const TempDir dir;
    Process fetch({program("fetch"), "-o", dir.path("body"),
                   "http://127.0.0.1:" + std::to_string(server.port()) + "/x"});
    EXPECT_TRUE(support::wait_until([&] { return dir.read("body").size() >= 65'536; }));
    server.hang_up();
    const ChildResult end = fetch.wait();
    EXPECT_EQ(0, end.exit_code) << end.err;
    EXPECT_EQ(body, dir.read("body"));
    EXPECT_NE(std::string::npos, end.err.find("fetch: 70000 bytes"));
}

TEST(Fetch, fails_where_the_server_refuses_or_is_not_there)
{
    support::ScriptedServer server("HTTP/1.0 404 Not Found\r\n\r\n");
    EXPECT_EQ(
        1,
        run_program({program("fetch"), "http://127.0.0.1:" + std::to_string(server.port()) + "/"}).exit_code);
    const int port = support::free_port(SOCK_STREAM);
    EXPECT_EQ(1, run_program({program("fetch"), "http://127.0.0.1:" + std::to_string(port) + "/"}).exit_code);
    EXPECT_EQ(1, run_program({program("fetch"), "-o", "/nowhere/file", "http://127.0.0.1/"}).exit_code);
}

TEST(Fetch, fails_where_its_output_takes_nothing)
{
    support::ScriptedServer server("HTTP/1.0 200 OK\r\nContent-Length: 4\r\n\r\nbody");
    Process fetch({"sh", "-c", "exec \"$@\" > /dev/full", "sh", program("fetch"),
                   "http://127.0.0.1:" + std::to_string(server.port()) + "/"});
    server.hang_up();
    const ChildResult end = fetch.wait();
    EXPECT_EQ(1, end.exit_code);
    EXPECT_NE(std::string::npos, end.err.find("fetch: stdout: No space left on device")) << end.err;
}

TEST(McastReceive, joins_the_group_and_tells_of_datagrams)
{
    if (const std::string why = support::netns_missing(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    const support::NetnsPair pair;
    pair.enter_a();
    Process receiver({program("mcast_receive"), "-i", "va", "-n", "2", "udp://239.7.7.7:5007"});
    pair.leave();
    ASSERT_TRUE(receiver.wait_for_out("receiving udp://239.7.7.7:5007\n")) << receiver.err();
    inside(pair, &support::NetnsPair::enter_b, [] {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in to = support::loopback(5007);
        inet_pton(AF_INET, "239.7.7.7", &to.sin_addr);
        for (const char* text : {"one", "three"}) {
            EXPECT_GT(sendto(fd, text, strlen(text), 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
        }
        close(fd);
    });
    const ChildResult end = receiver.wait();
    EXPECT_EQ(0, end.exit_code) << end.err;
    EXPECT_NE(std::string::npos, end.out.find("3 bytes from 10.0.0.2:")) << end.out;
    EXPECT_NE(std::string::npos, end.out.find("5 bytes from 10.0.0.2:")) << end.out;
}

TEST(WatchRotate, logs_changes_and_ends_with_the_file)
{
    const TempDir dir;
    dir.write("file", "");
    Process watch({program("watch_rotate"), "-s", "200", "-k", "2", dir.path("log"), dir.path("file")});
    ASSERT_TRUE(watch.wait_for_out("watching")) << watch.err();
    dir.write("file", "seven!\n");
    EXPECT_TRUE(support::wait_until([&] {
        for (const std::string& name : dir.names()) {
            if (name.rfind("log", 0) == 0 && dir.read(name).find("file has 7 bytes") != std::string::npos) {
                return true;
            }
        }
        return false;
    }));
    unlink(dir.path("file").c_str());
    EXPECT_EQ(0, watch.wait().exit_code);
}

TEST(FdPass, prints_in_the_child_what_the_parent_opened)
{
    const TempDir dir;
    dir.write("file", "through another process\n");
    const ChildResult result = run_program({program("fd_pass"), dir.path("file")});
    EXPECT_EQ(0, result.exit_code) << result.err;
    EXPECT_NE(std::string::npos, result.out.find("got " + dir.path("file")));
    EXPECT_NE(std::string::npos, result.out.find("\nthrough another process\n"));
    EXPECT_EQ(1, run_program({program("fd_pass"), dir.path("missing")}).exit_code);
}

TEST(IndexQuery, finds_runs_and_times_and_refuses_what_is_no_index)
{
    const TempDir dir;
    dir.write("idx", "0 3 100 10.000 12.000\n300 1 7 20.500 20.500\n");
    const ChildResult result =
        run_program({program("index_query"), dir.path("idx"), "0", "150", "299", "300", "307"});
    EXPECT_EQ(1, result.exit_code);
    EXPECT_EQ("0: datagram 1 of 3 in the run from 0, arrived at 10.000\n"
              "150: datagram 2 of 3 in the run from 0, arrived at 11.000\n"
              "299: datagram 3 of 3 in the run from 0, arrived at 12.000\n"
              "300: datagram 1 of 1 in the run from 300, arrived at 20.500\n"
              "307: not in the index\n",
              result.out);
    dir.write("bad", "0 3 100 10.000 12.000\nnonsense\n");
    const ChildResult bad = run_program({program("index_query"), dir.path("bad"), "0"});
    EXPECT_EQ(2, bad.exit_code);
    EXPECT_NE(std::string::npos, bad.err.find("line 2 is none of an index: nonsense")) << bad.err;
    EXPECT_EQ(2, run_program({program("index_query"), dir.path("none"), "0"}).exit_code);
}

TEST(IndexQuery, tells_what_it_could_not_read_or_write)
{
    const TempDir dir;
    dir.write("idx", "0 3 100 10.000 12.000\n");
    const ChildResult full = run_program(
        {"sh", "-c", "exec \"$@\" > /dev/full", "sh", program("index_query"), dir.path("idx"), "0"});
    EXPECT_EQ(2, full.exit_code);
    EXPECT_NE(std::string::npos, full.err.find("stdout: No space left on device")) << full.err;
    const ChildResult folder = run_program({program("index_query"), dir.path("."), "0"});
    EXPECT_EQ(2, folder.exit_code);
    EXPECT_NE(std::string::npos, folder.err.find("Is a directory")) << folder.err;
}

TEST(GuideDaemon, answers_rotates_and_stops_cleanly)
{
    const TempDir dir;
    const int port = support::free_port(SOCK_STREAM);
    Process daemon(
        {program("guide_daemon"), "-T", "-p", dir.path("pid"), "-l", dir.path("log"), std::to_string(port)});
    ASSERT_TRUE(support::wait_until([&] { return dir.read("log").find("listening") != std::string::npos; }))
        << daemon.err();
    EXPECT_EQ(std::to_string(daemon.pid()), dir.read("pid"));
    for (const auto& [request, status] :
         std::vector<std::pair<std::string, std::string>>{{"GET /ping HTTP/1.1\r\n\r\n", "HTTP/1.1 200 "},
                                                          {"GET /other HTTP/1.1\r\n\r\n", "HTTP/1.1 404 "},
                                                          {"POST /ping HTTP/1.1\r\n\r\n", "HTTP/1.1 400 "}}) {
        Client client(port);
        client.send(request);
        EXPECT_TRUE(client.receive(status)) << client.received();
    }
    daemon.kill(SIGHUP);
    EXPECT_TRUE(
        support::wait_until([&] { return dir.read("log").find("rotated at SIGHUP") != std::string::npos; }));
    daemon.kill(SIGTERM);
    const ChildResult end = daemon.wait();
    EXPECT_EQ(0, end.exit_code) << end.err;
    EXPECT_NE(std::string::npos, end.out.find("P-Sensor [ev_loop]")) << end.out;
    EXPECT_NE(std::string::npos, dir.read("log").find("ending after 3 requests, rc=0"));
    EXPECT_FALSE(dir.has("pid"));
}

} // namespace
