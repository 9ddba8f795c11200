// The program: exit codes, signals, standard input, what it has of the service manager.
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "child.h"
#include "fault.h"
#include "paths.h"
#include "tempdir.h"
#include "udp.h"
#include "wait.h"

using namespace support;

extern "C" [[gnu::weak]] void __gcov_dump();

namespace {

// zentmon without a page, at a port of the kernel's choice.
struct Zentmon {
    Process process;
    int port = 0;

    Zentmon() = default;

    explicit Zentmon(std::vector<std::string> more, const std::function<void()>& in_child = {})
    {
        std::vector<std::string> argv = {support::build_path("zentmon"), "--http", "none", "--loglevel",
                                         "debug"};
        argv.insert(argv.end(), more.begin(), more.end());
        process = Process(argv, in_child);
    }

    // With a listener "lab".
    static Zentmon listening(std::vector<std::string> more = {})
    {
        more.insert(more.end(), {"--listen", "127.0.0.1:0=lab"});
        Zentmon z(more);
        z.wait_for_port("lab: lines are taken at 127.0.0.1:");
        return z;
    }

    void wait_for_port(const std::string& text)
    {
        ASSERT_TRUE(process.wait_for_err(text)) << process.err();
        const std::string& log = process.err();
        port = atoi(log.c_str() + log.find(text) + text.size());
        ASSERT_TRUE(process.wait_for_err("Entering event loop")) << process.err();
    }

    void send(const std::string& datagram) const { ASSERT_TRUE(UdpSender(port).send(datagram)); }

    bool says(const std::string& text) { return process.wait_for_err(text); }

    // Ends it; the state at its end is in the log.
    std::string end(int expected = 0)
    {
        process.kill(SIGTERM);
        const ChildResult result = process.wait();
        EXPECT_EQ(result.exit_code, expected) << result.err;
        const size_t at = process.err().find("zentmon ends: ");
        return at == std::string::npos
                   ? result.err.substr(std::min(result.err.size(), result.err.find("zentmon ends: ")))
                   : process.err().substr(at);
    }
};

int exit_code(const std::vector<std::string>& more)
{
    std::vector<std::string> argv = {support::build_path("zentmon"), "--http", "none"};
    argv.insert(argv.end(), more.begin(), more.end());
    return run_program(argv).exit_code;
}

// A datagram socket on loopback, to be passed or taken.
int bound_socket(int& port)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in at = loopback(0);
    socklen_t length = sizeof at;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&at), &length), 0);
    port = ntohs(at.sin_port);
    return fd;
}

// What the service manager does between fork and exec: sockets from 3 on.
std::function<void()> pass(std::vector<int> fds, const std::string& names)
{
    return [fds, names] {
        std::vector<int> high;
        for (const int fd : fds) {
            high.push_back(fcntl(fd, F_DUPFD, 50));
        }
        for (size_t i = 0; i < high.size(); ++i) {
            dup2(high[i], static_cast<int>(i) + 3);
            close(high[i]);
        }
        setenv("LISTEN_FDS", std::to_string(fds.size()).c_str(), 1);
        setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
        setenv("LISTEN_FDNAMES", names.c_str(), 1);
    };
}

} // namespace

TEST(MonDaemon, exit_codes)
{
    EXPECT_EQ(exit_code({"--help"}), 0);
    EXPECT_EQ(exit_code({"--version"}), 0);
    EXPECT_EQ(exit_code({"--bogus"}), 64);
    EXPECT_EQ(exit_code({"--config", "/nonexistent"}), 64);
    EXPECT_EQ(exit_code({"--listen", "192.0.2.1:4554"}), 69);
    EXPECT_EQ(exit_code({"--stdin", "--log", "/nonexistent/log"}), 71);
    int port = 0;
    const int taken = bound_socket(port);
    EXPECT_EQ(exit_code({"--listen", "127.0.0.1:" + std::to_string(port)}), 69);
    close(taken);
}

TEST(MonDaemon, without_the_right_to_a_port_it_ends_with_77)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: needs root, to give rights up";
    }
    Process process({support::build_path("zentmon"), "--http", "none", "--listen", "127.0.0.1:99"}, [] {
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            _exit(1);
        }
    });
    const ChildResult result = process.wait();
    if (result.exit_code == 1 || result.exit_code == 126 || result.exit_code == 127) {
        GTEST_SKIP() << "skipped: another user may not run the program here";
    }
    EXPECT_EQ(result.exit_code, 77) << result.err;
}

// Of the first thread, that of the log, and of the second one, whichever that is.
TEST(MonDaemon, without_a_thread_it_ends_with_71)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: needs root, to become a user without other processes";
    }
    const std::vector<std::vector<std::string>> kinds = {
        {}, {"--db", "/nonexistent/h.db"}, {"--json"}, {"--exec", "/bin/true"}, {"--mqtt", "127.0.0.1:1"}};
    for (const std::vector<std::string>& kind : kinds) {
        std::vector<std::string> argv = {support::build_path("zentmon"), "--http", "none", "--listen", "0"};
        argv.insert(argv.end(), kind.begin(), kind.end());
        Process process(argv, [&kind] {
            const rlim_t threads = kind.empty() ? 1 : 2; // of this user, the first thread among them
            const rlimit limit = {threads, threads};
            const auto user = static_cast<uid_t>(100'000 + getpid());
            if (setgid(user) != 0 || setuid(user) != 0 || setrlimit(RLIMIT_NPROC, &limit) != 0) {
                _exit(1);
            }
        });
        const ChildResult result = process.wait();
        if (result.exit_code == 1 || result.exit_code == 126 || result.exit_code == 127) {
            GTEST_SKIP() << "skipped: another user may not run the program here";
        }
        EXPECT_EQ(result.exit_code, 71) << result.err;
        EXPECT_NE(result.err.find(": Resource temporarily unavailable\n"), std::string::npos) << result.err;
    }
}

// Every thread has a descriptor to be rung by, and the loop has some: whichever is refused, it says so and
// ends.
TEST(MonDaemon, with_too_few_descriptors_it_ends_with_71_or_does_without)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "skipped: the sanitizer asks about memory through pipes of its own";
#endif
    constexpr int kNotLoaded = 127; // the dynamic linker had too few for the libraries
    const TempDir dir;
    int code = kNotLoaded;
    for (rlim_t limit = 4; code != 0; ++limit) {
        ASSERT_LT(limit, 64u) << "it never gets through";
        const int before = code;
        Process process({support::build_path("zentmon"), "--http", "none", "--stdin", "--json", "--exec",
                         "/bin/true", "--db", dir.path("h.db"), "--mqtt", "127.0.0.1:1"},
                        [limit] {
                            const rlimit descriptors = {limit, limit};
                            dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
                            setrlimit(RLIMIT_NOFILE, &descriptors);
                        });
        const ChildResult result = process.wait();
        code = result.exit_code;
        EXPECT_TRUE(code == 0 || code == 71 || (code == kNotLoaded && before == kNotLoaded))
            << limit << " descriptors: " << code << " " << result.err;
        EXPECT_NE(result.err, "") << limit << " descriptors";
    }
}

// Every so many-th place: all of them are for scripts/faults.
TEST(MonDaemon, where_memory_runs_out_for_good_it_says_so_and_ends_with_71)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "skipped: the sanitizer has a new of its own, which does not fail";
#endif
    if (__gcov_dump != nullptr) {
        GTEST_SKIP() << "skipped: a build that counts coverage dies of memory that its counters do not get";
    }
    TempDir dir;
    dir.write("lines", "JOIN UDP://239.1.1.1\nJOIN UDP://239.1.1.2\n");
    int refused = 0;
    ChildResult result;
    for (int place = 1; result.exit_code != 0 && place < 10'000; place += 7) {
        Process process(with_fault({"alloc", place, ENOMEM, true},
                                   {build_path("zentmon"), "--http", "none", "--stdin", "--json"}),
                        [&dir] { dup2(open(dir.path("lines").c_str(), O_RDONLY), STDIN_FILENO); });
        result = process.wait();
        if (result.exit_code != 0) {
            ++refused;
            EXPECT_EQ(result.exit_code, 71) << place << ": " << result.err;
            EXPECT_NE(result.err, "") << place;
        }
    }
    EXPECT_GT(refused, 5);
    EXPECT_EQ(result.exit_code, 0);
}

TEST(MonDaemon, takes_lines_until_sigterm)
{
    Zentmon z = Zentmon::listening();
    z.send("JOIN UDP://239.1.1.1\nJOIN UDP://239.1.1.2\n");
    z.send("nonsense");
    EXPECT_TRUE(z.says("bad line (word) from 127.0.0.1: nonsense"));
    EXPECT_EQ(z.end().rfind("zentmon ends: 1 agents, 2 groups, 2 events, 0 datagrams lost", 0), 0u);
}

TEST(MonDaemon, reads_names_and_allow_again_at_sighup_without_losing_state)
{
    const TempDir dir;
    dir.write("conf", "name 127.0.0.1=one\n");
    Zentmon z = Zentmon::listening({"--config", dir.path("conf")});
    z.send("JOIN UDP://239.1.1.1");
    ASSERT_TRUE(z.says("agent one: "));
    dir.write("conf", "name 127.0.0.1=two\nallow 10.0.0.0/8\n");
    z.process.kill(SIGHUP);
    ASSERT_TRUE(z.says("settings read again: 1 names, 1 networks allowed"));
    z.send("nonsense that is not even looked at");
    dir.write("conf", "name one\n");
    z.process.kill(SIGHUP);
    ASSERT_TRUE(z.says("the settings stay as they were: " + dir.path("conf") + ":1: "));
    const std::string end = z.end();
    EXPECT_EQ(end.rfind("zentmon ends: 1 agents, 1 groups, 1 events", 0), 0u) << end;
    EXPECT_EQ(z.process.err().find("bad line"), std::string::npos);
}

TEST(MonDaemon, the_log_goes_to_a_file_that_is_opened_again_at_sighup)
{
    const TempDir dir;
    Process z(
        {support::build_path("zentmon"), "--http", "none", "--listen", "0=lab", "--log", dir.path("log")});
    ASSERT_TRUE(wait_until(
        [&] { return dir.has("log") && dir.read("log").find("lines are taken") != std::string::npos; }));
    rename(dir.path("log").c_str(), dir.path("log.1").c_str());
    z.kill(SIGHUP);
    EXPECT_TRUE(wait_until(
        [&] { return dir.has("log") && dir.read("log").find("settings read again") != std::string::npos; }));
    z.kill(SIGTERM);
    EXPECT_EQ(z.wait().exit_code, 0);
}

TEST(MonDaemon, standard_input_is_an_agent_and_its_end_the_end)
{
    const TempDir dir;
    dir.write("lines", "JOIN UDP://239.1.1.1\nnonsense\nJOIN UDP://239.1.1.2");
    const auto from = [&](const std::string& path) {
        return [path] { dup2(open(path.c_str(), O_RDONLY), 0); };
    };
    Zentmon file({"--stdin"}, from(dir.path("lines")));
    ChildResult result = file.process.wait();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_NE(result.err.find("zentmon ends: 1 agents, 2 groups, 2 events"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("bad line (word) from stdin: nonsense"), std::string::npos);

    Zentmon nothing({"--stdin"}, from("/dev/null"));
    EXPECT_EQ(nothing.process.wait().exit_code, 0);
}

TEST(MonDaemon, a_stream_in_pieces_and_a_line_without_an_end)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    Zentmon z({"--stdin"}, [&] { dup2(ends[0], 0); });
    close(ends[0]);
    const auto say = [&](const std::string& text) {
        ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    };
    say("JOIN UDP:");
    say("//239.1.1.1\nJO");
    say("IN UDP://239.1.1.2\n" + std::string(20'000, 'x'));
    ASSERT_TRUE(z.says("bad line (truncated) from stdin"));
    say("xxx\nJOIN UDP://239.1.1.3\n");
    close(ends[1]);
    const ChildResult result = z.process.wait();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_NE(result.err.find("1 agents, 3 groups, 3 events"), std::string::npos) << result.err;
}

TEST(MonDaemon, standard_input_beside_a_socket_does_not_end_it)
{
    Zentmon z({"--stdin", "--listen", "127.0.0.1:0=lab"}, [] { dup2(open("/dev/null", O_RDONLY), 0); });
    ASSERT_TRUE(z.says("stdin: the stream has ended"));
    z.end();
}

TEST(MonDaemon, passed_sockets_take_the_place_of_the_default_under_their_names)
{
    int one = 0;
    int two = 0;
    const int first = bound_socket(one);
    const int second = bound_socket(two);
    Zentmon z({}, pass({first, second}, "hall:hall"));
    ASSERT_TRUE(z.says("hall: lines are taken at 127.0.0.1:" + std::to_string(one)));
    const std::string second_name = "hall-" + std::to_string(two);
    ASSERT_TRUE(z.says("hall: another listener is called so: that at 127.0.0.1:" + std::to_string(two) +
                       " is " + second_name + "\n"));
    ASSERT_TRUE(z.says(second_name + ": lines are taken at 127.0.0.1:" + std::to_string(two)));
    ASSERT_TRUE(z.says("Entering event loop"));
    EXPECT_EQ(z.process.err().find("4554"), std::string::npos);
    EXPECT_TRUE(UdpSender(one).send("JOIN UDP://239.1.1.1"));
    EXPECT_TRUE(UdpSender(two).send("JOIN UDP://239.1.1.1"));
    ASSERT_TRUE(z.says("listener hall\n"));
    ASSERT_TRUE(z.says("listener " + second_name + "\n"));
    EXPECT_EQ(z.end().rfind("zentmon ends: 2 agents, 2 groups", 0), 0u);
    close(first);
    close(second);
}

TEST(MonDaemon, a_listener_of_the_command_line_gives_way_to_a_passed_one_of_its_name)
{
    int port = 0;
    const int held = bound_socket(port);
    Zentmon z({"--listen", "127.0.0.1:0=hall"}, pass({held}, "hall"));
    EXPECT_TRUE(z.says("hall: lines are taken at 127.0.0.1:" + std::to_string(port)));
    EXPECT_TRUE(z.says("hall: another listener is called so: that at 127.0.0.1:"));
    z.end();
    close(held);
}

// Under load: the socket is held as the service manager holds it, zentmon is stopped and started ten times.
TEST(MonDaemon, stopped_and_started_with_the_socket_held_it_loses_no_line)
{
    int port = 0;
    const int held = bound_socket(port);
    const int size = 32 << 20;
    setsockopt(held, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    int obtained = 0;
    socklen_t length = sizeof obtained;
    getsockopt(held, SOL_SOCKET, SO_RCVBUF, &obtained, &length);
    const int per_life = obtained / 2 / 1024 > 2000 ? 2000 : obtained / 2 / 1024;
    const UdpSender agent(port);
    int sent = 0;
    uint64_t taken = 0;
    for (int life = 0; life < 10; ++life) {
        // Half of the lines come while nobody reads.
        for (int i = 0; i < per_life / 2; ++i, ++sent) {
            ASSERT_TRUE(agent.send("JOIN UDP://239.1." + std::to_string(sent / 250 % 250) + "." +
                                   std::to_string(sent % 250)));
        }
        Zentmon z({}, pass({held}, "lab"));
        for (int i = 0; i < per_life / 2; ++i, ++sent) {
            ASSERT_TRUE(agent.send("JOIN UDP://239.1." + std::to_string(sent / 250 % 250) + "." +
                                   std::to_string(sent % 250)));
        }
        ASSERT_TRUE(z.says("agent 127.0.0.1: "));
        // Ended somewhere in the middle: what it has not taken stays in the socket for the next one.
        const std::string end = z.end();
        int groups = 0;
        ASSERT_EQ(sscanf(end.c_str(), "zentmon ends: %*d agents, %d groups", &groups), 1) << end;
        EXPECT_NE(end.find(" 0 datagrams lost"), std::string::npos) << end;
        taken += static_cast<uint64_t>(groups);
    }
    char rest[64];
    while (recv(held, rest, sizeof rest, MSG_DONTWAIT) > 0) {
        ++taken;
    }
    EXPECT_EQ(taken, static_cast<uint64_t>(sent));
    close(held);
}

// Lines, questions, history, a rename and the end: no invalid access, no leak.
TEST(MonDaemon, valgrind_finds_nothing_in_a_whole_life)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "skipped: valgrind cannot run a program with a sanitizer";
#endif
    if (run_program({"sh", "-c", "command -v valgrind"}).exit_code != 0) {
        GTEST_SKIP() << "skipped: valgrind is not installed";
    }
    const std::string program = support::build_path("zentmon");
    if (run_program({"valgrind", program, "--version"}).err.find("unhandled dwarf2") != std::string::npos) {
        GTEST_SKIP() << "skipped: this valgrind cannot read the debug information of this compiler";
    }
    const TempDir dir;
    dir.write("conf", "name 127.0.0.1=one\n");
    const std::string http = "127.0.0.1:" + std::to_string(free_port(SOCK_STREAM));
    const auto get = [&http](const std::string& path) {
        return run_program({"curl", "-s", "--max-time", "60", "http://" + http + path}).out;
    };
    Zentmon z;
    z.process = Process({"valgrind", "--leak-check=full", "--errors-for-leak-kinds=definite,possible",
                         "--error-exitcode=99", "--log-file=" + dir.path("valgrind"), program, "--listen",
                         "127.0.0.1:0=lab", "--http", http, "--db", dir.path("history.db"), "--config",
                         dir.path("conf"), "--exec", "/bin/true", "--json", "--stale", "1"});
    z.wait_for_port("lab: lines are taken at 127.0.0.1:");
    z.send("JOIN UDP://239.1.1.1\nJOIN UDP://239.1.1.2\nLEAVE UDP://239.1.1.1\nnonsense\n");
    z.send("JOIN UDP://239.1.1.3\n"); // a second process: 239.1.1.2 expires
    EXPECT_TRUE(wait_until([&] { return get("/history.json").find("expire") != std::string::npos; }));
    for (const char* path : {"/", "/app.js", "/agents.json", "/activity.json", "/metrics", "/nothing"}) {
        EXPECT_NE(get(path), "") << path;
    }
    Process stream({"curl", "-sN", "http://" + http + "/events"});
    EXPECT_TRUE(stream.wait_for_out("event: ping"));
    dir.write("conf", "name 127.0.0.1=two\n");
    z.process.kill(SIGHUP);
    EXPECT_TRUE(stream.wait_for_out("event: reset"));
    EXPECT_NE(get("/groups.json").find("\"agent\":\"two\""), std::string::npos);
    z.end();
    const std::string report = dir.read("valgrind");
    EXPECT_NE(report.find("ERROR SUMMARY: 0 errors"), std::string::npos) << report;
}

TEST(MonDaemon, tells_the_service_manager_ready_status_watchdog_and_stopping)
{
    const TempDir dir;
    const std::string path = dir.path("notify");
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_un at = {};
    at.sun_family = AF_UNIX;
    path.copy(at.sun_path, sizeof at.sun_path - 1);
    ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
    std::string heard;
    const auto hears = [&](const std::string& text) {
        return wait_until([&] {
            char message[512];
            for (ssize_t n = 0; (n = recv(manager, message, sizeof message, 0)) > 0;) {
                heard += std::string(message, static_cast<size_t>(n)) + "\n";
            }
            return heard.find(text) != std::string::npos;
        });
    };
    Zentmon z({"--listen", "0=lab"}, [&] {
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        setenv("WATCHDOG_USEC", "300000", 1);
    });
    EXPECT_TRUE(hears("READY=1\nSTATUS=0 agents, 0 groups, 0 events, 0 datagrams lost"));
    EXPECT_TRUE(hears("WATCHDOG=1"));
    heard.clear();
    EXPECT_TRUE(hears("WATCHDOG=1")); // and again
    z.process.kill(SIGHUP);
    EXPECT_TRUE(hears("RELOADING=1\nMONOTONIC_USEC="));
    EXPECT_TRUE(hears("READY=1"));
    z.end();
    EXPECT_TRUE(hears("STOPPING=1"));
    close(manager);
}

TEST(MonDaemon, a_log_that_nobody_reads_costs_lines_of_the_log_and_no_line_of_an_agent)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    int port = 0;
    const int held = bound_socket(port);
    const auto hand_over = pass({held}, "lab");
    Zentmon z({}, [&] {
        dup2(ends[1], 2);
        hand_over();
    });
    close(ends[1]);
    const UdpSender agent(port);
    for (int i = 0; i < 20'000; ++i) { // about 1.6 MB of log
        ASSERT_TRUE(agent.send("nonsense"));
        if (i % 50 == 49) {
            int waiting = 1;
            ASSERT_TRUE(wait_until([&] { // all is taken, though nobody reads the log
                char peek;
                waiting = recv(held, &peek, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 ? 1 : 0;
                return waiting == 0;
            }));
        }
    }
    z.process.kill(SIGTERM);
    EXPECT_EQ(z.process.wait().exit_code, 0);
    close(ends[0]);
    close(held);
}
