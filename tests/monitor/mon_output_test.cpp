// --json, --exec and --forward: what goes out to a reader, to programs and to another receiver.
#include "forward.h"
#include "hooks.h"
#include "output.h"
#include "sinks_support.h"
#include "worker.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "fds.h"
#include "rqs.h"
#include "tempdir.h"
#include "wrap.h"

using namespace sinks;
using support::PipePair;

namespace {
bool g_polls_are_interrupted = false;
bool g_removals_fail = false; // of descriptors from the loop

// A descriptor that takes so many bytes more, and then none until there is room again.
std::atomic<int> g_full_fd = -1;
std::atomic<size_t> g_room = 0;
} // namespace

WRAPPED(int, poll, (struct pollfd * fds, nfds_t count, int limit));

int __wrap_poll(struct pollfd* fds, nfds_t count, int limit)
{
    if (g_polls_are_interrupted) {
        errno = EINTR;
        return -1;
    }
    return __real_poll(fds, count, limit);
}

WRAPPED(int, epoll_ctl, (int loop, int operation, int fd, struct epoll_event* event));

int __wrap_epoll_ctl(int loop, int operation, int fd, struct epoll_event* event)
{
    if (g_removals_fail && operation == EPOLL_CTL_DEL) {
        errno = ENOENT;
        return -1;
    }
    return __real_epoll_ctl(loop, operation, fd, event);
}

WRAPPED(ssize_t, write, (int fd, const void* buf, size_t size));

ssize_t __wrap_write(int fd, const void* buf, size_t size)
{
    if (fd != g_full_fd) {
        return __real_write(fd, buf, size);
    }
    if (g_room == 0) {
        errno = ENOSPC;
        return -1;
    }
    const size_t taken = std::min<size_t>(size, g_room);
    g_room -= taken;
    return __real_write(fd, buf, taken);
}

namespace {

// Everything up to the end of the writers.
std::string read_all(const PipePair& pipe)
{
    std::string text;
    char block[65536];
    for (ssize_t n = read(pipe.in, block, sizeof block); n > 0; n = read(pipe.in, block, sizeof block)) {
        text.append(block, static_cast<size_t>(n));
    }
    return text;
}

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// Whether a process has ended, be it that nobody has fetched its end yet.
bool is_gone(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    return !std::getline(status, text) || text.find(") Z ") != std::string::npos;
}

// A receiver of datagrams on loopback.
class Receiver {
  public:
    explicit Receiver(uint16_t port = 0) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_in at = {};
        at.sin_family = AF_INET;
        at.sin_port = htons(port);
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
        socklen_t length = sizeof at;
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&at), &length), 0);
        port_ = ntohs(at.sin_port);
    }

    ~Receiver() { close(fd_); }

    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    uint16_t port() const { return port_; }

    // What has arrived, each datagram once.
    std::vector<std::string>& take()
    {
        char text[512];
        for (ssize_t n = recv(fd_, text, sizeof text, 0); n >= 0; n = recv(fd_, text, sizeof text, 0)) {
            got_.emplace_back(text, static_cast<size_t>(n));
        }
        return got_;
    }

  private:
    int fd_;
    uint16_t port_ = 0;
    std::vector<std::string> got_;
};

Endpoint endpoint(const std::string& address, uint16_t port)
{
    Endpoint e;
    if (address.find(':') == std::string::npos) {
        auto& in = reinterpret_cast<sockaddr_in&>(e.ss);
        in.sin_family = AF_INET;
        in.sin_port = htons(port);
        e.len = sizeof in;
        EXPECT_EQ(inet_pton(AF_INET, address.c_str(), &in.sin_addr), 1);
    } else {
        auto& in6 = reinterpret_cast<sockaddr_in6&>(e.ss);
        in6.sin6_family = AF_INET6;
        in6.sin6_port = htons(port);
        e.len = sizeof in6;
        EXPECT_EQ(inet_pton(AF_INET6, address.c_str(), &in6.sin6_addr), 1);
    }
    return e;
}

} // namespace

// ---- --json -----------------------------------------------------------------------------------

class MonOutput : public SinkTest {
  protected:
    MonOutput() { signal(SIGPIPE, SIG_IGN); }

    uint64_t dropped(const JsonOutput& output)
    {
        output.publish_counters(counters);
        return counters.output_dropped[Output::json];
    }

    Events events;
    std::shared_ptr<const AgentName> who = name_of("enc");
};

TEST_F(MonOutput, each_event_is_a_line_with_the_event_object)
{
    PipePair pipe(O_CLOEXEC);
    JsonOutput output(pipe.out, notices);
    ASSERT_EQ(output.start(), 0);
    std::string expected;
    for (const EventKind kind : {EventKind::join, EventKind::leave, EventKind::expire}) {
        const Event event = events.next(kind, group(1), who);
        append_json(expected, event);
        expected += '\n';
        output.on_event(event);
    }
    output.stop();
    pipe.out.reset();
    EXPECT_EQ(read_all(pipe), expected);
    EXPECT_EQ(dropped(output), 0u);
}

TEST_F(MonOutput, a_reader_that_does_not_read_costs_whole_lines_and_they_are_counted)
{
    PipePair pipe(O_CLOEXEC);
    JsonOutput output(pipe.out, notices);
    ASSERT_EQ(output.start(), 0);
    uint64_t sent = 0;
    while (dropped(output) < 1000) { // ends only if nothing here waits for the reader
        output.on_event(events.next(EventKind::join, group(1), who));
        ++sent;
    }
    std::string text;
    std::thread reader([&] { text = read_all(pipe); });
    output.stop(30'000);
    pipe.out.reset();
    reader.join();
    const std::vector<std::string> lines = lines_of(text);
    EXPECT_EQ(lines.size() + dropped(output), sent);
    for (const std::string& text_line : {lines.front(), lines.back()}) {
        EXPECT_TRUE(nlohmann::json::accept(text_line)) << text_line;
    }
    EXPECT_EQ(text.back(), '\n');
}

TEST_F(MonOutput, a_reader_that_hangs_does_not_hold_up_the_end)
{
    PipePair pipe(O_CLOEXEC);
    {
        JsonOutput output(pipe.out, notices);
        ASSERT_EQ(output.start(), 0);
        while (dropped(output) == 0) {
            output.on_event(events.next(EventKind::join, group(1), who));
        }
        output.stop(10);
    }
    pipe.in.reset(); // the writer that was left behind ends with this
    EXPECT_TRUE(run_until_logged("json: no more lines go out: Broken pipe"));
}

TEST_F(MonOutput, a_reader_that_is_gone_is_told_once_and_every_line_is_counted)
{
    PipePair pipe(O_CLOEXEC);
    pipe.in.reset();
    JsonOutput output(pipe.out, notices);
    ASSERT_EQ(output.start(), 0);
    for (int i = 0; i < 100; ++i) {
        output.on_event(events.next(EventKind::join, group(1), who));
    }
    ASSERT_TRUE(run_until([&] { return dropped(output) == 100; }));
    ASSERT_TRUE(run_until_logged("no more lines go out"));
    output.on_event(events.next(EventKind::join, group(1), who));
    EXPECT_EQ(dropped(output), 101u);
    EXPECT_EQ(times_logged("no more lines go out"), 1u);
}

TEST_F(MonOutput, a_full_disk_costs_lines_and_those_behind_go_out_when_there_is_room)
{
    PipePair pipe(O_CLOEXEC);
    JsonOutput output(pipe.out, notices);
    g_room = 10;
    g_full_fd = pipe.out;
    ASSERT_EQ(output.start(), 0);
    output.on_event(events.next(EventKind::join, group(1), who));
    ASSERT_TRUE(run_until([&] { return dropped(output) == 1; }));
    output.on_event(events.next(EventKind::join, group(2), who));
    ASSERT_TRUE(run_until([&] { return dropped(output) == 2; }));
    g_room = 1; // for the end of the line that was cut
    output.on_event(events.next(EventKind::join, group(3), who));
    ASSERT_TRUE(run_until([&] { return dropped(output) == 3; }));
    g_room = 100'000;
    output.on_event(events.next(EventKind::leave, group(4), who));
    ASSERT_TRUE(run_until_logged("json: lines go out again, 3 were lost"));
    output.stop();
    g_full_fd = -1;
    pipe.out.reset();
    const std::vector<std::string> lines = lines_of(read_all(pipe));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].size(), 10u);
    EXPECT_EQ(nlohmann::json::parse(lines[1])["group"], "239.0.0.4");
    EXPECT_EQ(times_logged("json: lines are lost: No space left on device"), 1u) << log.text();
    EXPECT_EQ(dropped(output), 3u);
}

TEST_F(MonOutput, a_descriptor_that_somebody_made_non_blocking_loses_nothing)
{
    PipePair pipe(O_CLOEXEC);
    fcntl(pipe.out, F_SETFL, O_NONBLOCK);
    JsonOutput output(pipe.out, notices);
    ASSERT_EQ(output.start(), 0);
    for (int i = 0; i < 2000; ++i) {
        output.on_event(events.next(EventKind::join, group(1), who));
    }
    std::string text;
    std::thread reader([&] { text = read_all(pipe); });
    output.stop(30'000);
    pipe.out.reset();
    reader.join();
    EXPECT_EQ(lines_of(text).size(), 2000u);
}

// ---- --exec -----------------------------------------------------------------------------------

class MonHooks : public SinkTest {
  protected:
    // A shell script; it runs in the daemon's directory with "$DIR" as the test's own.
    std::string script(const std::string& body)
    {
        const std::string path = dir.path("hook");
        dir.write("hook", "#!/bin/sh\nDIR=" + dir.path() + "\n" + body);
        chmod(path.c_str(), 0755);
        return path;
    }

    HookOptions options(const std::string& body)
    {
        HookOptions o;
        o.path = script(body);
        return o;
    }

    const Counters& counted(const Hooks& hooks)
    {
        hooks.publish_counters(counters);
        return counters;
    }

    support::TempDir dir;
    Events events;
    std::shared_ptr<const AgentName> who = name_of("enc", "fe80::1", "lan");
};

TEST_F(MonHooks, a_program_is_told_all_of_an_event_and_nothing_of_the_service)
{
    setenv("NOTIFY_SOCKET", "/run/x", 1);
    setenv("LISTEN_FDS", "2", 1);
    setenv("WATCHDOG_USEC", "1", 1);
    setenv("ZENT_LEFT_OVER", "1", 1);
    Hooks hooks(options("env | grep -E '^(ZENT|NOTIFY|LISTEN|WATCHDOG)' | sort >$DIR/env\n"
                        "cat >>$DIR/env\necho \"args $#\" >>$DIR/env\n"),
                notices);
    ASSERT_EQ(hooks.start(), 0);
    hooks.on_event({7, 1'700'000'000'042, EventKind::expire, group(0x10203), who});
    ASSERT_TRUE(run_until([&] { return counted(hooks).hook_ok == 1; }));
    EXPECT_EQ(dir.read("env"),
              "ZENT_ADDRESS=fe80::1\nZENT_AGENT=enc\nZENT_EVENT=expire\nZENT_GROUP=239.1.2.3\n"
              "ZENT_LISTENER=lan\nZENT_TIME=2023-11-14T22:13:20.042Z\nargs 0\n");
    EXPECT_TRUE(run_until_logged("for expire of 239.1.2.3 by enc ended with exit code 0"));
}

TEST_F(MonHooks, the_exit_code_and_the_signal_of_a_run_are_logged_and_counted)
{
    Hooks hooks(options("[ $ZENT_EVENT = join ] && exit 3\nkill -TERM $$\n"), notices);
    ASSERT_EQ(hooks.start(), 0);
    hooks.on_event(events.next(EventKind::join, group(1), who));
    ASSERT_TRUE(run_until_logged("for join of 239.0.0.1 by enc ended with exit code 3"));
    hooks.on_event(events.next(EventKind::leave, group(1), who));
    ASSERT_TRUE(run_until_logged("for leave of 239.0.0.1 by enc ended by signal 15"));
    EXPECT_EQ(counted(hooks).hook_failed, 2u);
}

TEST_F(MonHooks, events_of_a_group_run_one_after_another_in_their_order)
{
    HookOptions o = options("echo b $ZENT_TIME >>$DIR/$ZENT_GROUP\necho e $ZENT_TIME >>$DIR/$ZENT_GROUP\n");
    o.at_once = 8;
    Hooks hooks(o, notices);
    ASSERT_EQ(hooks.start(), 0);
    for (uint32_t i = 0; i < 40; ++i) {
        hooks.on_event(events.next(i % 2 == 0 ? EventKind::join : EventKind::leave, group(i / 2 % 2), who));
    }
    ASSERT_TRUE(run_until([&] { return counted(hooks).hook_ok == 40; }));
    for (const char* name : {"239.0.0.0", "239.0.0.1"}) {
        const std::vector<std::string> lines = lines_of(dir.read(name));
        ASSERT_EQ(lines.size(), 40u);
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(lines[i][0], i % 2 == 0 ? 'b' : 'e') << "runs of one group overlap";
            EXPECT_LE(lines[i == 0 ? 0 : i - 1].substr(2), lines[i].substr(2)) << "not in their order";
        }
    }
}

TEST_F(MonHooks, no_more_run_at_once_than_are_allowed)
{
    HookOptions o = options("touch $DIR/run.$ZENT_GROUP\nwhile [ ! -e $DIR/go ]; do sleep 0.02; done\n");
    o.at_once = 3;
    Hooks hooks(o, notices);
    ASSERT_EQ(hooks.start(), 0);
    for (uint32_t i = 0; i < 10; ++i) {
        hooks.on_event(events.next(EventKind::join, group(i), who));
    }
    const auto running = [&] {
        const std::vector<std::string> names = dir.names();
        return std::count_if(names.begin(), names.end(),
                             [](const auto& n) { return n.rfind("run.", 0) == 0; });
    };
    ASSERT_TRUE(run_until([&] { return running() == 3; }));
    EXPECT_FALSE(run_until([&] { return running() > 3; }, std::chrono::milliseconds(200)));
    dir.write("go", "");
    EXPECT_TRUE(run_until([&] { return counted(hooks).hook_ok == 10; }));
}

TEST_F(MonHooks, a_run_that_takes_too_long_is_killed_with_what_it_started)
{
    HookOptions o = options("sleep 1000 & echo $! >$DIR/child\nmv $DIR/child $DIR/pid\nwait\n");
    o.limit_ms = 300;
    Hooks hooks(o, notices);
    ASSERT_EQ(hooks.start(), 0);
    hooks.on_event(events.next(EventKind::join, group(1), who));
    ASSERT_TRUE(run_until([&] { return counted(hooks).hook_killed == 1; }));
    if (dir.has("pid")) { // the machine may be too slow for the script to come so far
        const pid_t child = std::stoi(dir.read("pid"));
        EXPECT_TRUE(run_until([&] { return is_gone(child); }));
    }
    EXPECT_TRUE(run_until_logged("was killed: its time is over after ms"));
}

TEST_F(MonHooks, a_program_that_is_not_there_is_told_and_the_next_event_is_tried)
{
    HookOptions o;
    o.path = dir.path("absent");
    Hooks hooks(o, notices);
    ASSERT_EQ(hooks.start(), 0);
    hooks.on_event(events.next(EventKind::join, group(1), who));
    hooks.on_event(events.next(EventKind::leave, group(1), who));
    ASSERT_TRUE(run_until([&] { return counted(hooks).hook_not_started == 2; }));
    EXPECT_TRUE(run_until_logged("absent: No such file or directory"));
}

TEST_F(MonHooks, what_the_queue_cannot_hold_is_dropped_counted_and_told_once)
{
    HookOptions o = options("while [ ! -e $DIR/go ]; do sleep 0.02; done\n");
    o.at_once = 1;
    o.queue = 5;
    Hooks hooks(o, notices);
    ASSERT_EQ(hooks.start(), 0);
    for (uint32_t i = 0; i < 50; ++i) {
        hooks.on_event(events.next(EventKind::join, group(i), who));
    }
    const uint64_t dropped = counted(hooks).output_dropped[Output::exec];
    EXPECT_GE(dropped, 44u);
    EXPECT_EQ(times_logged("more are left out"), 1u);
    dir.write("go", "");
    EXPECT_TRUE(run_until([&] { return counted(hooks).hook_ok + dropped == 50; }));
}

TEST_F(MonHooks, the_end_waits_for_a_run_and_then_kills_it)
{
    HookOptions o = options("touch $DIR/runs\nwhile :; do sleep 0.02; done\n");
    Hooks hooks(o, notices);
    ASSERT_EQ(hooks.start(), 0);
    hooks.on_event(events.next(EventKind::join, group(1), who));
    ASSERT_TRUE(run_until([&] { return dir.has("runs"); }));
    hooks.stop(50);
    EXPECT_EQ(counted(hooks).hook_killed, 1u);
}

// ---- --forward --------------------------------------------------------------------------------

class MonForward : public SinkTest {
  protected:
    // Lines have arrived, in any number of turns of the loop.
    bool arrived(std::vector<std::string> expected)
    {
        return run_until([&] { return receiver.take() == expected; });
    }

    void join_by(const std::string& address, uint32_t number)
    {
        line(LineKind::join, group(number), address);
    }

    void leave_by(const std::string& address, uint32_t number)
    {
        line(LineKind::leave, group(number), address);
    }

    Receiver receiver;
};

TEST_F(MonForward, the_first_join_and_the_last_leave_of_a_group_go_on)
{
    Forward forward;
    ASSERT_EQ(forward.start(endpoint("127.0.0.1", receiver.port())), 0);
    state.add_sink(&forward);
    join_by("10.0.0.1", 1);
    join_by("10.0.0.2", 1);
    leave_by("10.0.0.1", 1);
    EXPECT_TRUE(arrived({"JOIN UDP://239.0.0.1\n"}));
    join_by("10.0.0.2", 2);
    leave_by("10.0.0.2", 1);
    EXPECT_TRUE(arrived({"JOIN UDP://239.0.0.1\n", "JOIN UDP://239.0.0.2\n", "LEAVE UDP://239.0.0.1\n"}));
}

TEST_F(MonForward, what_is_joined_at_the_start_is_told_and_left_later)
{
    join_by("10.0.0.1", 1);
    join_by("10.0.0.2", 1);
    join_by("10.0.0.2", 2);
    Forward forward;
    ASSERT_EQ(forward.start(endpoint("127.0.0.1", receiver.port())), 0);
    forward.seed(state);
    state.add_sink(&forward);
    EXPECT_TRUE(arrived({"JOIN UDP://239.0.0.1\n", "JOIN UDP://239.0.0.2\n"}));
    leave_by("10.0.0.1", 1);
    leave_by("10.0.0.2", 2);
    EXPECT_TRUE(arrived({"JOIN UDP://239.0.0.1\n", "JOIN UDP://239.0.0.2\n", "LEAVE UDP://239.0.0.2\n"}));
}

TEST_F(MonForward, a_receiver_with_a_small_buffer_gets_all_groups_of_the_start)
{
    for (uint32_t i = 0; i < 1000; ++i) {
        join_by("10.0.0.1", i);
    }
    Forward forward;
    ASSERT_EQ(forward.start(endpoint("127.0.0.1", receiver.port())), 0);
    forward.seed(state);
    EXPECT_TRUE(run_until([&] {
        const auto& lines = receiver.take();
        return std::set<std::string>(lines.begin(), lines.end()).size() == 1000;
    }));
}

TEST_F(MonForward, lines_that_nobody_takes_are_counted_and_the_next_receiver_is_served)
{
    const uint16_t port = Receiver().port();
    Forward forward;
    ASSERT_EQ(forward.start(endpoint("127.0.0.1", port)), 0);
    state.add_sink(&forward);
    uint32_t number = 0;
    // The refusal of one datagram is told by the next.
    ASSERT_TRUE(run_until([&] {
        join_by("10.0.0.1", ++number);
        forward.publish_counters(counters);
        return counters.output_dropped[Output::forward] > 0 || number > 100;
    }));
    const Receiver late(port);
    EXPECT_TRUE(run_until([&] {
        join_by("10.0.0.1", ++number);
        return !const_cast<Receiver&>(late).take().empty();
    }));
}

TEST_F(MonForward, an_own_listener_is_known_in_every_guise)
{
    const std::vector<Endpoint> listeners = {endpoint("127.0.0.1", 4554), endpoint("0.0.0.0", 4555),
                                             endpoint("::", 4556), endpoint("::1", 4557)};
    EXPECT_TRUE(is_own_listener(endpoint("127.0.0.1", 4554), listeners));
    EXPECT_TRUE(is_own_listener(endpoint("::ffff:127.0.0.1", 4554), listeners));
    EXPECT_TRUE(is_own_listener(endpoint("0.0.0.0", 4554), listeners)) << "reaches the machine itself";
    EXPECT_TRUE(is_own_listener(endpoint("127.0.0.1", 4555), listeners))
        << "taken by the one for all addresses";
    EXPECT_TRUE(is_own_listener(endpoint("::1", 4556), listeners));
    EXPECT_TRUE(is_own_listener(endpoint("127.0.0.1", 4556), listeners));
    EXPECT_FALSE(is_own_listener(endpoint("127.0.0.1", 4558), listeners));
    EXPECT_FALSE(is_own_listener(endpoint("127.0.0.2", 4554), listeners));
    EXPECT_FALSE(is_own_listener(endpoint("192.0.2.1", 4555), listeners)) << "not of this machine";
    EXPECT_FALSE(is_own_listener(endpoint("192.0.2.1", 4554), {}));
}

TEST(MonWorker, who_hangs_is_waited_for_as_long_as_allowed_though_each_wait_is_interrupted)
{
    const auto pipe = std::make_shared<PipePair>();
    zentmon::Worker worker;
    ASSERT_EQ(worker.start("hangs",
                           [pipe] {
                               char byte;
                               (void)!read(pipe->in, &byte, 1);
                           }),
              0);
    g_polls_are_interrupted = true;
    EXPECT_FALSE(worker.join_within(20));
    g_polls_are_interrupted = false;
    EXPECT_EQ(write(pipe->out, "x", 1), 1);
}

// ---- the loop ---------------------------------------------------------------------------------

class MonLoop : public SinkTest {};

TEST_F(MonLoop, a_watch_that_could_not_be_removed_reports_nothing_any_more)
{
    struct Counting : Handler {
        void on_readable() override { ++count; }

        int count = 0;
    } handler;

    PipePair pipe(O_CLOEXEC);
    Watch watch;
    ASSERT_EQ(watch.start(pipe.in, &handler), 0);
    g_removals_fail = true;
    watch.stop();
    g_removals_fail = false;
    run_until([] { return true; }); // the batch is over
    ASSERT_EQ(write(pipe.out, "x", 1), 1);
    int turns = 0;
    run_until([&turns] { return ++turns == 3; });
    EXPECT_EQ(handler.count, 0);
    EXPECT_EQ(times_logged("EPOLL_CTL_DEL"), 1u) << log.text();
    EXPECT_EQ(rqs_rm_fd(pipe.in, true, true), 0);
}
