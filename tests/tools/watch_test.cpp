// zentctl groups and watch: against a real zentmon, against servers that misbehave, and under a pseudo
// terminal.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <pty.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "command.h"
#include "fault.h"
#include "feed.h"
#include "scripted_server.h"
#include "udp.h"
#include "wait.h"
#include "zentctl_run.h"

using namespace support;

namespace {

// A zentmon on loopback with ports of its own.
class WatchTest : public testing::Test {
  protected:
    void SetUp() override
    {
        if (access(build_path("zentmon").c_str(), X_OK) != 0) {
            GTEST_SKIP() << "skipped: zentmon is not built here";
        }
        lines_ = free_port(SOCK_DGRAM);
        http_ = free_port(SOCK_STREAM);
        sender_ = std::make_unique<UdpSender>(lines_);
        start_zentmon();
    }

    void start_zentmon()
    {
        zentmon_ = Process({build_path("zentmon"), "--listen", "127.0.0.1:" + std::to_string(lines_),
                            "--http", "127.0.0.1:" + std::to_string(http_)});
        EXPECT_TRUE(wait_until([&] { return run_zentctl({"groups", url()}).exit_code == 0; }));
    }

    void stop_zentmon()
    {
        zentmon_.kill(SIGTERM);
        zentmon_.wait();
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(http_); }

    // Sends a line; true when the table shows that it was taken.
    bool say(const std::string& line, const std::string& in_table)
    {
        EXPECT_TRUE(sender_->send(line + "\n"));
        return wait_until([&] {
            return run_zentctl({"groups", url()}).out.find(in_table) != std::string::npos;
        });
    }

    int lines_ = 0;
    int http_ = 0;
    std::unique_ptr<UdpSender> sender_;
    Process zentmon_;
};

// A program on a pseudo terminal of its own.
class OnTerminal {
  public:
    explicit OnTerminal(const std::vector<std::string>& argv)
    {
        pid_ = forkpty(&fd_, nullptr, nullptr, nullptr);
        if (pid_ == 0) {
            std::vector<char*> words;
            for (const std::string& word : argv) {
                words.push_back(const_cast<char*>(word.c_str()));
            }
            words.push_back(nullptr);
            execv(words[0], words.data());
            _exit(127);
        }
        fcntl(fd_, F_SETFL, O_NONBLOCK);
    }

    OnTerminal(const OnTerminal&) = delete;
    OnTerminal& operator=(const OnTerminal&) = delete;

    ~OnTerminal()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(fd_);
    }

    bool shows(const std::string& text)
    {
        return wait_until([&] {
            char block[4096];
            for (ssize_t n = 0; (n = read(fd_, block, sizeof block)) > 0;) {
                screen_.append(block, static_cast<size_t>(n));
            }
            return screen_.find(text) != std::string::npos;
        });
    }

    void type(char key) const { EXPECT_EQ(write(fd_, &key, 1), 1); }

    // Exit code, -1 where it did not end by itself.
    int end()
    {
        int status = -1;
        if (!wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
            return -1;
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    const std::string& screen() const { return screen_; }

  private:
    int fd_ = -1;
    pid_t pid_ = -1;
    std::string screen_;
};

constexpr char kCtrlC = 3;

} // namespace

TEST_F(WatchTest, groups_is_a_table_of_what_is_joined)
{
    ASSERT_TRUE(say("JOIN UDP://239.1.2.3", "239.1.2.3"));
    ASSERT_TRUE(say("JOIN UDP://239.2.2.3", "239.2.2.3"));
    const ChildResult all = run_zentctl({"groups", url()});
    EXPECT_EQ(all.exit_code, 0);
    EXPECT_TRUE(all.out.starts_with(
        "GROUP            AGENT      SINCE                 JOINS  LEAVES  STATE\n239.1.2.3 "))
        << all.out;
    EXPECT_NE(all.out.find("1       0  joined\n"), std::string::npos) << all.out;
    const ChildResult some = run_zentctl({"groups", "--filter", "239.2.0.0/16", url() + "/"});
    EXPECT_EQ(some.out.find("239.1.2.3"), std::string::npos);
    EXPECT_NE(some.out.find("239.2.2.3"), std::string::npos);
    EXPECT_EQ(run_zentctl({"groups", "--agent", "nobody here", url()}).out.find("239."), std::string::npos);
    const ChildResult json = run_zentctl({"groups", "--json", url()});
    EXPECT_NE(json.out.find(R"("group":"239.1.2.3","agent":"127.0.0.1")"), std::string::npos) << json.out;
}

TEST_F(WatchTest, watch_follows_on_a_terminal_reconnects_and_sums_up_at_ctrl_c)
{
    OnTerminal watch(zentctl_command({"watch", url()}));
    ASSERT_TRUE(watch.shows("watching " + url() + "\r\n"));
    ASSERT_TRUE(sender_->send("JOIN UDP://239.1.2.3\n"));
    EXPECT_TRUE(watch.shows("  join    239.1.2.3  127.0.0.1\r\n")) << watch.screen();
    ASSERT_TRUE(sender_->send("LEAVE UDP://239.1.2.3\n"));
    EXPECT_TRUE(watch.shows("  leave   239.1.2.3  127.0.0.1\r\n")) << watch.screen();
    stop_zentmon();
    EXPECT_TRUE(watch.shows("connection lost: the server closed it; trying again\r\n"));
    start_zentmon();
    EXPECT_TRUE(watch.shows("connected again\r\n"));
    ASSERT_TRUE(sender_->send("JOIN UDP://239.1.2.4\n"));
    EXPECT_TRUE(watch.shows("  join    239.1.2.4  127.0.0.1\r\n")) << watch.screen();
    watch.type(kCtrlC);
    EXPECT_TRUE(watch.shows("2 joins, 1 leaves, 0 expired in ")) << watch.screen();
    EXPECT_TRUE(watch.shows("; connected 2 times\r\n")) << watch.screen();
    EXPECT_EQ(watch.end(), 0);
}

TEST_F(WatchTest, watch_as_json_is_one_object_at_the_end)
{
    Process watch(zentctl_command({"watch", "--json", url()}));
    // It is connected when the server counts a client of its stream.
    ASSERT_TRUE(wait_until([&] {
        return run_program({"curl", "-s", url() + "/metrics"})
                   .out.find("zentmon_http_clients{kind=\"stream\"} 1") != std::string::npos;
    }));
    ASSERT_TRUE(say("JOIN UDP://239.1.2.3", "239.1.2.3"));
    watch.kill(SIGINT);
    const ChildResult end = watch.wait();
    EXPECT_EQ(end.exit_code, 0);
    EXPECT_TRUE(
        end.out.starts_with(R"({"command":"watch","exit":0,"findings":[{"level":"ok","code":"ended")"))
        << end.out;
    EXPECT_NE(end.out.find(R"("connects":1)"), std::string::npos) << end.out;
}

TEST(Feed, nobody_at_the_url_is_told)
{
    const std::string url = "http://127.0.0.1:" + std::to_string(free_port(SOCK_STREAM));
    for (const char* command : {"groups", "watch"}) {
        const ChildResult result = run_zentctl({command, "--json", url});
        EXPECT_EQ(result.exit_code, 2);
        EXPECT_TRUE(has_finding(result.out, "error", "unreachable")) << result.out;
    }
    EXPECT_EQ(run_zentctl({"groups", "ftp://127.0.0.1"}).exit_code, 2);
}

// SIGPIPE ended it without a word.
TEST(Feed, a_server_that_is_gone_when_it_is_asked_is_told)
{
    const ChildResult result = run_program(
        with_fault({"connect", 1, EINPROGRESS}, {zentctl_path(), "groups", "http://127.0.0.1:9"}));
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_NE(result.err.find("http://127.0.0.1:9: no answer of an HTTP server"), std::string::npos)
        << result.err;
}

// It waited for ever.
TEST(Feed, a_server_that_answers_half_a_head_is_given_up)
{
    ScriptedServer server("HTTP/1.0 200 OK\r\nConnec");
    const ChildResult result = run_zentctl({"groups", "--json", "http://" + server.address()});
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_TRUE(has_finding(result.out, "error", "unreachable")) << result.out;
    EXPECT_NE(result.out.find("no answer of an HTTP server"), std::string::npos) << result.out;
}

TEST(Feed, the_servers_own_words_are_shown_when_it_refuses)
{
    ScriptedServer server("HTTP/1.0 400 Bad request\r\nConnection: close\r\nContent-Length: 22\r\n\r\n"
                          "{\"error\":\"bad filter\"}\n");
    Process groups(zentctl_command({"groups", "--json", "http://" + server.address()}));
    EXPECT_TRUE(server.request().starts_with("GET /groups.json HTTP/1.0\r\n")) << server.request();
    server.hang_up();
    const ChildResult result = groups.wait();
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_TRUE(has_finding(result.out, "error", "refused")) << result.out;
    EXPECT_NE(result.out.find("answers 400: bad filter"), std::string::npos) << result.out;
}

TEST(Feed, another_servers_page_is_no_table)
{
    ScriptedServer server("HTTP/1.0 200 OK\r\nConnection: close\r\n\r\n<html></html>");
    Process groups(zentctl_command({"groups", "--json", "http://" + server.address()}));
    server.hang_up();
    EXPECT_TRUE(has_finding(groups.wait().out, "error", "bad-answer"));
}

TEST(Feed, a_stream_is_read_in_pieces_of_any_size)
{
    const std::string stream =
        "retry: 1000\r\n\r\nevent: ping\ndata: {\"now\":1}\n\n: comment\nid: B-7\ndata: {\"event\":"
        "\"join\",\ndata: \"group\":\"239.1.2.3\"}\n\nevent: reset\nid: B-9\ndata:{}\n\nid: B-10\n\n";
    for (size_t size = 1; size <= stream.size(); ++size) {
        zentctl::EventReader reader;
        std::vector<zentctl::Sent> all;
        for (size_t at = 0; at < stream.size(); at += size) {
            for (auto& sent : reader.take(stream.substr(at, size))) {
                all.push_back(std::move(sent));
            }
        }
        ASSERT_EQ(all.size(), 3U) << size;
        EXPECT_EQ(all[0].type, "ping");
        EXPECT_EQ(all[1].id, "B-7");
        EXPECT_EQ(zentctl::parse_event(all[1].data)->group, "239.1.2.3");
        EXPECT_EQ(all[2].type, "reset");
        EXPECT_EQ(all[2].data, "{}");
    }
}

TEST(Feed, a_line_without_end_is_refused)
{
    zentctl::EventReader reader;
    EXPECT_THROW(reader.take(std::string((1 << 20) + 1, 'x')), zentctl::CannotLook);
}

TEST(Feed, odd_json_is_no_event_and_a_table_with_gaps_is_read)
{
    for (const char* text : {"", "{", "[]", "{}", "{\"now\":1}", "null"}) {
        EXPECT_FALSE(zentctl::parse_event(text)) << text;
    }
    const auto table =
        zentctl::parse_groups(R"({"groups":[{"group":"239.1.1.1","since":null,"joins":"x"},5]})");
    ASSERT_EQ(table.rows.size(), 1U);
    EXPECT_EQ(table.rows[0].joins, 0);
    EXPECT_THROW(zentctl::parse_groups("{}"), zentctl::CannotLook);
}

TEST(Feed, what_stands_in_a_query_is_encoded)
{
    EXPECT_EQ(zentctl::percent_encoded("a b/239.1&\xc3\xa4"), "a%20b%2F239.1%26%C3%A4");
}
