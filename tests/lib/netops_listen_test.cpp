// Listeners, local domain sockets and socket options.
#include "netops_support.h"

#include <csignal>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>

#include "fixtures.h"
#include "udp.h"
#include "util.h"
#include "wrap.h"

using namespace net_test;

namespace {

int g_backlog = -1;
int g_setfl_errno = 0;      // F_SETFL fails with it
int g_connects = 0;         // attempts made
int g_connect_works_at = 0; // the attempt, counted from 1, that works
int g_sleeps = 0;           // pauses made, none of which takes time
timespec g_last_sleep = {};
int g_sleep_errno_at = 0;     // the pause, counted from 1, that a signal ends
bool g_quit_in_sleep = false; // a pause sets g_quit

} // namespace

WRAPPED(int, listen, (int, int));
WRAPPED(int, fcntl, (int, int, ...));
WRAPPED(int, connect, (int, const sockaddr*, socklen_t));
WRAPPED(int, nanosleep, (const timespec*, timespec*));

extern "C" {
int __wrap_listen(int fd, int backlog)
{
    g_backlog = backlog;
    return __real_listen(fd, backlog);
}

int __wrap_fcntl(int fd, int cmd, ...)
{
    va_list args;
    va_start(args, cmd);
    const long arg = va_arg(args, long);
    va_end(args);
    if (cmd == F_SETFL && g_setfl_errno != 0) {
        errno = g_setfl_errno;
        return -1;
    }
    return __real_fcntl(fd, cmd, arg);
}

int __wrap_connect(int fd, const sockaddr* to, socklen_t length)
{
    ++g_connects;
    return g_connects == g_connect_works_at ? 0 : __real_connect(fd, to, length);
}

int __wrap_nanosleep(const timespec* pause, timespec*)
{
    ++g_sleeps;
    g_last_sleep = *pause;
    g_quit = g_quit_in_sleep ? 1 : 0;
    if (g_sleeps == g_sleep_errno_at) {
        errno = EINTR;
        return -1;
    }
    return 0;
}
}

namespace {

bool is_listening(int fd)
{
    return int_option(fd, SOL_SOCKET, SO_ACCEPTCONN) == 1;
}

timeval time_option(int fd, int name)
{
    timeval value{-1, -1};
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, name, &value, &length), 0);
    return value;
}

// A path of the given length in an existing directory.
std::string path_of_length(const TempDir& dir, size_t length)
{
    std::string path = dir.path() + "/";
    return path + std::string(length - path.size(), 'p');
}

} // namespace

class NetopsListener : public support::GuardedTest {};

class NetopsAnyListener : public support::GuardedTest {};

class NetopsDomain : public support::GuardedTest {};

class NetopsOptions : public support::GuardedTest {};

class NetopsError : public support::GuardedTest {};

TEST_F(NetopsListener, tcp_listens_non_blocking_on_the_port)
{
    for (const char* host : {"127.0.0.1", "::1"}) {
        sockaddr_storage ss = addr(host);
        const uint16_t port = support::free_port(SOCK_STREAM);
        const Fd fd(open_listener(&ss, std::to_string(port).c_str(), 0));
        ASSERT_GE(fd, 0);
        EXPECT_EQ(str(bound_to(fd)), str(addr(host, port)));
        EXPECT_TRUE(is_nonblocking(fd));
        EXPECT_TRUE(is_listening(fd));
        EXPECT_EQ(g_backlog, 128);
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsListener, kept_record_declared_const_takes_the_port)
{
    sockaddr_storage ss = addr("127.0.0.1", 1);
    const uint16_t port = support::free_port(SOCK_DGRAM);
    const Fd fd(open_udp_listener(&ss, std::to_string(port).c_str()));
    EXPECT_EQ(port_of(ss), port);
}

TEST_F(NetopsListener, kept_text_that_is_no_port_lets_the_kernel_choose)
{
    sockaddr_storage ss = addr("127.0.0.1", 1);
    const Fd tcp(open_listener(&ss, "abc", 0));
    ASSERT_GE(tcp, 0);
    EXPECT_EQ(port_of(ss), 0);
    EXPECT_NE(port_of(bound_to(tcp)), 0);
    const Fd udp(open_udp_listener(&ss, "0"));
    ASSERT_GE(udp, 0);
    EXPECT_NE(port_of(bound_to(udp)), 0);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  open_listener: invalid port number: abc",
                                  "(ERR)  open_udp_listener: invalid port number: 0"}));
}

TEST_F(NetopsListener, kept_port_is_cut_to_sixteen_bits)
{
    const uint16_t port = support::free_port(SOCK_DGRAM);
    const std::string above = std::to_string(port + 65536);
    const std::string below = std::to_string(port - 65536);
    const std::pair<std::string, uint16_t> cases[] = {
        {"65536", 0}, {above, port}, {below, port}, {"65535", 65535}, {"99999999999999999999", 65535}};
    for (const auto& [given, used] : cases) {
        sockaddr_storage ss = addr("127.0.0.1");
        const Fd fd(open_udp_listener(&ss, given.c_str()));
        EXPECT_GE(fd, 0) << given;
        EXPECT_EQ(port_of(ss), used) << given;
    }
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  open_udp_listener: invalid port number: 65536",
                                  "(ERR)  open_udp_listener: invalid port number: " + above,
                                  "(ERR)  open_udp_listener: invalid port number: " + below,
                                  "(ERR)  open_udp_listener: invalid port number: 99999999999999999999"}));
}

TEST_F(NetopsListener, udp_without_a_port_text_keeps_the_one_in_the_record)
{
    const uint16_t port = support::free_port(SOCK_DGRAM);
    sockaddr_storage ss = addr("127.0.0.1", port);
    const Fd fd(open_udp_listener(&ss, nullptr));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(str(bound_to(fd)), "127.0.0.1:" + std::to_string(port));
    EXPECT_TRUE(is_nonblocking(fd));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsListener, deferred_listener_is_bound_and_does_not_listen)
{
    sockaddr_storage ss = addr("127.0.0.1");
    const std::string port = std::to_string(support::free_port(SOCK_STREAM));
    const Fd fd(open_listener(&ss, port.c_str(), 1));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(std::to_string(port_of(bound_to(fd))), port);
    EXPECT_TRUE(is_nonblocking(fd));
    EXPECT_FALSE(is_listening(fd));
    EXPECT_EQ(g_backlog, -1);
}

TEST_F(NetopsListener, other_family_is_told_and_the_system_decides)
{
    sockaddr_storage ss = of_family(AF_UNIX);
    EXPECT_EQ(open_listener(&ss, "80", 0), -1);
    EXPECT_EQ(open_udp_listener(&ss, "80"), -1);
    EXPECT_EQ(log.lines(),
              (Lines{"(ERR)  open_listener: invalid network family: 1",
                     "(ERR)  open_listener: socket(1, 1, 6) ERROR(93): Protocol not supported",
                     "(ERR)  open_udp_listener: invalid network family: 1",
                     "(ERR)  open_udp_listener: socket(1, 2, 17) ERROR(93): Protocol not supported"}));
}

TEST_F(NetopsListener, failures_leave_no_descriptor)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    sockaddr_storage foreign = addr("192.0.2.1");
    EXPECT_EQ(open_listener(&foreign, "4000", 0), -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
    EXPECT_EQ(open_udp_listener(&foreign, "4000"), -1);
    EXPECT_EQ(log.lines().size(), 2U);
    log.clear();
    g_setfl_errno = EPERM;
    sockaddr_storage ss = addr("127.0.0.1");
    EXPECT_EQ(open_listener(&ss, "4001", 0), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(log.lines().size(), 1U);
    g_setfl_errno = 0;
    EXPECT_EQ(g_backlog, -1);
}

TEST_F(NetopsListener, missing_port_text_ends_by_assertion)
{
    expect_abort([] {
        sockaddr_storage ss = addr("127.0.0.1");
        open_listener(&ss, nullptr, 0);
    });
}

TEST_F(NetopsAnyListener, ipv6_listener_takes_ipv4_clients)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    const Fd fd(open_anyaddr_listener(AF_INET6, "4100", 0));
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(is_nonblocking(fd));
    EXPECT_TRUE(is_listening(fd));
    EXPECT_EQ(g_backlog, 128);
    for (const char* host : {"127.0.0.1", "::1"}) {
        sockaddr_storage to = addr(host, 4100);
        const Fd client(socket(to.ss_family, SOCK_STREAM, 0));
        EXPECT_EQ(connect(client, raw(to), size_of(to)), 0) << host;
        const Fd accepted(accept(fd, nullptr, nullptr));
        EXPECT_GE(accepted, 0) << host;
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsAnyListener, socket_that_was_ipv6_only_warns)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    support::must_run("echo 1 > /proc/sys/net/ipv6/bindv6only");
    const Fd fd(open_anyaddr_listener(AF_INET6, "4101", 0));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(int_option(fd, IPPROTO_IPV6, IPV6_V6ONLY), 0);
    EXPECT_EQ(log.lines(), (Lines{"(WRN)  set_ipv6only: server will not accept IPv4 requests"}));
}

TEST_F(NetopsAnyListener, deferred_and_refused)
{
    const Fd fd(open_anyaddr_listener(AF_INET, "0", 2));
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(is_listening(fd));
    EXPECT_EQ(open_anyaddr_listener(AF_INET, "abc", 0), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  open_socket: empty or invalid port [abc]"}));
}

TEST_F(NetopsDomain, client_and_listener_meet)
{
    const TempDir dir;
    log.set_level(DEBUG_level);
    const std::string path = dir.path("sock");
    const Fd listener(open_domain_listener(path.c_str()));
    ASSERT_GE(listener, 0);
    EXPECT_TRUE(is_nonblocking(listener));
    EXPECT_EQ(g_backlog, 128);
    EXPECT_EQ(log.lines().back(),
              format("(DBG)  open_domain_listener: fd=%d is listening on [%s]", int{listener}, path.c_str()));
    log.clear();
    const Fd client(open_domain_client(path.c_str(), 3, 1000));
    ASSERT_GE(client, 0);
    EXPECT_FALSE(is_nonblocking(client));
    EXPECT_EQ(g_connects, 1);
    EXPECT_EQ(g_sleeps, 0);
    const Fd accepted(accept(listener, nullptr, nullptr));
    EXPECT_EQ(write(client, "x", 1), 1);
    char byte = 0;
    EXPECT_EQ(read(accepted, &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(
        log.lines(),
        (Lines{format("(DBG)  open_domain_client opened socket fd=%d (1, 1, 0)", int{client}),
               format("(DBG)  open_domain_client: attempt 1 out of 3 to connect to [%s]", path.c_str()),
               format("(INF)  open_domain_client: fd=%d connected to [%s]", int{client}, path.c_str())}));
}

TEST_F(NetopsDomain, listener_takes_over_a_path_left_behind)
{
    const TempDir dir;
    const std::string path = dir.path("sock");
    {
        const Fd first(open_domain_listener(path.c_str()));
        ASSERT_GE(first, 0);
    }
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    const Fd second(open_domain_listener(path.c_str()));
    ASSERT_GE(second, 0);
    const Fd client(open_domain_client(path.c_str(), 1, 0));
    EXPECT_GE(client, 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsDomain, directory_without_write_permission_fails_with_two_lines)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: needs root, to give a directory to somebody else";
    }
    const TempDir dir;
    const std::string fresh = dir.path("fresh");
    const std::string left = dir.path("left");
    support::must_run("touch " + left + "; chmod 755 " + dir.path());
    const auto child = support::run_in_child([&] {
        if (setuid(65534) != 0) {
            return 2;
        }
        EXPECT_EQ(open_domain_listener(left.c_str()), -1);
        EXPECT_EQ(log.lines(), (Lines{"(ERR)  open_domain_listener: unlink ERROR(13): Permission denied",
                                      "(ERR)  open_domain_listener: failed for path=[" + left + "]"}));
        log.clear();
        EXPECT_EQ(open_domain_listener(fresh.c_str()), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(log.lines().size(), 2U);
        EXPECT_EQ(log.lines()[0].find("(ERR)  open_domain_listener: bind("), 0U);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.exit_code, 0) << child.out;
}

TEST_F(NetopsDomain, listener_does_not_take_the_place_of_a_directory)
{
    const TempDir dir;
    const std::string path = dir.path();
    EXPECT_EQ(open_domain_listener(path.c_str()), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  open_domain_listener: unlink ERROR(21): Is a directory",
                                  "(ERR)  open_domain_listener: failed for path=[" + path + "]"}));
}

TEST_F(NetopsDomain, no_descriptor_is_left_for_listener_or_client)
{
    const TempDir dir;
    const std::string path = dir.path("sock");
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int listener = open_domain_listener(path.c_str());
    const int listener_error = errno;
    const int client = open_domain_client(path.c_str(), 1, 0);
    const int client_error = errno;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(listener, -1);
    EXPECT_EQ(listener_error, EMFILE);
    EXPECT_EQ(client, -1);
    EXPECT_EQ(client_error, EMFILE);
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(NetopsDomain, listener_that_cannot_leave_blocking_mode_fails)
{
    const TempDir dir;
    g_setfl_errno = EPERM;
    EXPECT_EQ(open_domain_listener(dir.path("sock").c_str()), -1);
    g_setfl_errno = 0;
    EXPECT_EQ(errno, EPERM);
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(log.lines()[1], "(ERR)  open_domain_listener: failed for path=[" + dir.path("sock") + "]");
    EXPECT_NE(access(dir.path("sock").c_str(), F_OK), 0);
}

TEST_F(NetopsDomain, long_path_is_cut_by_the_listener_and_refused_by_the_client)
{
    const TempDir dir;
    for (const size_t length : {107U, 108U, 200U}) {
        const std::string path = path_of_length(dir, length);
        const Fd fd(open_domain_listener(path.c_str()));
        ASSERT_GE(fd, 0);
        EXPECT_EQ(access(path.substr(0, 107).c_str(), F_OK), 0);
        unlink(path.substr(0, 107).c_str());
    }
    expect_abort([&] { open_domain_client(path_of_length(dir, 108).c_str(), 1, 0); });
    EXPECT_EQ(open_domain_client(path_of_length(dir, 107).c_str(), 1, 0), -1);
}

TEST_F(NetopsDomain, listener_removes_what_stands_at_the_whole_of_a_long_path)
{
    const TempDir dir;
    const std::string path = path_of_length(dir, 110);
    const std::string cut = path.substr(0, 107);
    support::must_run("touch " + path + " " + cut);
    EXPECT_EQ(open_domain_listener(path.c_str()), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(access(cut.c_str(), F_OK), 0);
    EXPECT_EQ(log.lines().back(), "(ERR)  open_domain_listener: failed for path=[" + path + "]");
}

TEST_F(NetopsDomain, kept_failure_counts_one_attempt_too_many)
{
    const TempDir dir;
    log.set_level(NORM_level);
    const std::string path = dir.path("nobody");
    EXPECT_EQ(open_domain_client(path.c_str(), 3, 2500), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(g_connects, 3);
    EXPECT_EQ(g_sleeps, 3);
    EXPECT_EQ(g_last_sleep.tv_sec, 2);
    EXPECT_EQ(g_last_sleep.tv_nsec, 500000000);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0].find("(ERR)  open_domain_client: connect("), 0U) << lines[0];
    EXPECT_EQ(lines[3], "(ERR)  open_domain_client: failed to connect to [" + path + "] after 4 attempt(s)");
}

TEST_F(NetopsDomain, no_pause_for_zero_or_less)
{
    const TempDir dir;
    log.set_level(PANIC_level);
    EXPECT_EQ(open_domain_client(dir.path("nobody").c_str(), 2, 0), -1);
    EXPECT_EQ(open_domain_client(dir.path("nobody").c_str(), 2, -1), -1);
    EXPECT_EQ(g_connects, 4);
    EXPECT_EQ(g_sleeps, 0);
}

TEST_F(NetopsDomain, no_attempts_fail_at_once)
{
    const TempDir dir;
    const std::string path = dir.path("nobody");
    EXPECT_EQ(open_domain_client(path.c_str(), 0, 1000), -1);
    EXPECT_EQ(g_connects, 0);
    EXPECT_EQ(log.lines(),
              (Lines{"(ERR)  open_domain_client: failed to connect to [" + path + "] after 1 attempt(s)"}));
}

TEST_F(NetopsDomain, later_attempt_that_works_ends_the_loop)
{
    const TempDir dir;
    log.set_level(NORM_level);
    g_connect_works_at = 3;
    const Fd fd(open_domain_client(dir.path("late").c_str(), 5, 1));
    EXPECT_GE(fd, 0);
    EXPECT_EQ(g_connects, 3);
    EXPECT_EQ(g_sleeps, 2);
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(NetopsDomain, signal_in_the_pause_ends_the_loop)
{
    const TempDir dir;
    g_sleep_errno_at = 2;
    const std::string path = dir.path("nobody");
    EXPECT_EQ(open_domain_client(path.c_str(), 9, 1), -1);
    EXPECT_EQ(g_connects, 2);
    EXPECT_EQ(log.lines().back(),
              "(ERR)  open_domain_client: failed to connect to [" + path + "] after 2 attempt(s)");
}

TEST_F(NetopsDomain, kept_quit_is_told_as_connected)
{
    const TempDir dir;
    log.set_level(INFO_level);
    const std::string path = dir.path("nobody");
    g_quit = 1;
    EXPECT_EQ(open_domain_client(path.c_str(), 3, 1000), -1);
    EXPECT_EQ(g_connects, 0);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].find("(INF)  open_domain_client: fd="), 0U) << lines[0];
    EXPECT_NE(lines[0].find(" connected to [" + path + "]"), std::string::npos) << lines[0];
    // Also where it is set while the loop waits.
    g_quit = 0;
    g_quit_in_sleep = true;
    log.clear();
    EXPECT_EQ(open_domain_client(path.c_str(), 3, 1000), -1);
    EXPECT_EQ(g_connects, 1);
    EXPECT_EQ(log.lines().size(), 2U);
    g_quit = 0;
}

TEST_F(NetopsOptions, nodelay_and_cork_are_turned_on_and_off)
{
    log.set_level(INFO_level);
    const Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(set_tcp_nodelay(fd, 1), 0);
    EXPECT_EQ(int_option(fd, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(set_tcp_nodelay(fd, 0), 0);
    EXPECT_EQ(int_option(fd, IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_EQ(set_tcp_cork(fd, 2), 0);
    EXPECT_EQ(int_option(fd, IPPROTO_TCP, TCP_CORK), 1);
    EXPECT_EQ(set_tcp_cork(fd, 0), 0);
    EXPECT_EQ(int_option(fd, IPPROTO_TCP, TCP_CORK), 0);
    EXPECT_EQ(log.lines(), (Lines{format("(INF)  TCP_NODELAY turned ON for [fd=%d]", int{fd}),
                                  format("(INF)  TCP_NODELAY turned OFF for [fd=%d]", int{fd}),
                                  format("(INF)  TCP_CORK turned ON for [fd=%d]", int{fd}),
                                  format("(INF)  TCP_CORK turned OFF for [fd=%d]", int{fd})}));
}

TEST_F(NetopsOptions, failures_are_logged_once_by_the_checked_call)
{
    const auto fails = [&](int rc, const char* caller) {
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(errno, EBADF);
        const Lines lines = log.lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].find(format("(ERR)  %s: setsockopt(999, ", caller)), 0U) << lines[0];
        log.clear();
    };
    fails(set_tcp_nodelay(999, 1), "set_tcp_nodelay");
    fails(set_tcp_cork(999, 1), "set_tcp_cork");
    fails(set_socket_sendbuf(999, 1), "set_socket_buflen");
    fails(set_socket_rcvbuf(999, 1), "set_socket_buflen");
    fails(set_rcv_timeout(999, 1), "set_socket_timeout");
    fails(set_send_timeout(999, 1), "set_socket_timeout");
}

TEST_F(NetopsOptions, keepalive_is_turned_on_and_off)
{
    log.set_level(DEBUG_level);
    const Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(set_keepalive_on(fd), 0);
    EXPECT_EQ(int_option(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(set_keepalive_off(fd), 0);
    EXPECT_EQ(int_option(fd, SOL_SOCKET, SO_KEEPALIVE), 0);
    EXPECT_EQ(set_keepalive(999, 7), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(log.lines(),
              (Lines{format("(DBG)  set_keepalive: [ON] for fd%d", int{fd}),
                     format("(DBG)  set_keepalive: [OFF] for fd%d", int{fd}),
                     "(ERR)  set_keepalive: setsockopt(fd999, SOL_SOCKET, SO_KEEPALIVE, 7,..) ERROR(9): Bad "
                     "file descriptor"}));
}

TEST_F(NetopsOptions, kept_buffer_sizes_are_eight_bytes_of_which_four_count)
{
    const Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(set_socket_sendbuf(fd, 30000), 0);
    EXPECT_EQ(int_option(fd, SOL_SOCKET, SO_SNDBUF), 60000); // the kernel doubles it
    EXPECT_EQ(set_socket_rcvbuf(fd, (size_t{1} << 32) + 40000), 0);
    EXPECT_EQ(int_option(fd, SOL_SOCKET, SO_RCVBUF), 80000);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsOptions, timeouts_are_seconds_and_microseconds)
{
    const Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(set_rcv_timeout(fd, 1500), 0);
    EXPECT_EQ(set_send_timeout(fd, 2040), 0);
    EXPECT_EQ(time_option(fd, SO_RCVTIMEO).tv_sec, 1);
    EXPECT_EQ(time_option(fd, SO_RCVTIMEO).tv_usec, 500000);
    EXPECT_EQ(time_option(fd, SO_SNDTIMEO).tv_sec, 2);
    EXPECT_EQ(time_option(fd, SO_SNDTIMEO).tv_usec, 40000);
    EXPECT_EQ(set_rcv_timeout(fd, 0), 0);
    EXPECT_EQ(time_option(fd, SO_RCVTIMEO).tv_sec, 0);
    EXPECT_EQ(time_option(fd, SO_RCVTIMEO).tv_usec, 0);
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(set_rcv_timeout(fd, -1), -1);
    EXPECT_EQ(errno, EDOM);
}

TEST_F(NetopsOptions, timeouts_really_expire)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const Fd a(ends[0]);
    const Fd b(ends[1]);
    char block[65536] = {};
    EXPECT_EQ(set_rcv_timeout(a, 30), 0);
    EXPECT_EQ(recv(a, block, 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(set_send_timeout(a, 30), 0);
    ssize_t n = 0;
    while (n >= 0) {
        n = send(a, block, sizeof block, MSG_NOSIGNAL); // until the peer's buffer is full
    }
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(NetopsError, healthy_socket_has_none)
{
    log.set_level(DEBUG_level);
    const Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(socket_error(fd), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsError, pending_error_is_told_once)
{
    sockaddr_storage ss = addr("127.0.0.1");
    uint16_t port = 0;
    {
        const Fd closed(open_udp_listener(&ss, nullptr));
        port = port_of(bound_to(closed));
    }
    const Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_storage to = addr("127.0.0.1", port);
    ASSERT_EQ(connect(fd, raw(to), 16), 0);
    ASSERT_EQ(send(fd, "x", 1, 0), 1);
    errno = 0;
    EXPECT_EQ(socket_error(fd), ECONNREFUSED);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(socket_error(fd), 0);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  socket_error(fd%d) ERROR(111): Connection refused", int{fd})}));
}

TEST_F(NetopsError, failed_query_is_its_own_error)
{
    EXPECT_EQ(socket_error(999), EBADF);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  socket_error(fd999) ERROR(9): Bad file descriptor"}));
}

TEST_F(NetopsError, errno_survives_a_log_that_disturbs_it)
{
    const TempDir dir;
    log.set_level(DEBUG_level);
    log_set_hook(&g_log, nullptr, [](void*, const char*) { errno = ENOTTY; });
    const Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_storage group = addr("10.0.0.9");
    sockaddr_storage source = addr("10.0.0.2");
    sockaddr_storage foreign = addr("192.0.2.1");
    char buf[64];
    const auto left = [](bool failed) { return failed ? errno : 0; };
    EXPECT_EQ(left(set_nblock(999, 0) == -1), EBADF);
    EXPECT_EQ(left(set_keepalive(999, 1) == -1), EBADF);
    EXPECT_EQ(left(set_tcp_cork(999, 1) == -1), EBADF);
    EXPECT_EQ(left(socket_error(999) == EBADF), EBADF);
    EXPECT_EQ(left(get_peer_ipaddr(fd, buf, sizeof buf) == nullptr), ENOTCONN);
    EXPECT_EQ(left(mcast_join(fd, &group, nullptr) == -1), EINVAL);
    EXPECT_EQ(left(ssm_join(fd, &source, &group, nullptr) == -1), EINVAL);
    EXPECT_EQ(left(open_listener(&foreign, "4000", 0) == -1), EADDRNOTAVAIL);
    EXPECT_EQ(left(open_domain_listener(dir.path("none/sock").c_str()) == -1), ENOENT);
    EXPECT_EQ(left(open_domain_client(dir.path("nobody").c_str(), 1, 0) == -1), ENOENT);
}

class NetopsPeer : public support::GuardedTest {};

TEST_F(NetopsPeer, text_of_the_peer_with_its_port)
{
    char buf[64];
    const Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_storage to = addr("127.0.0.1", 4999);
    ASSERT_EQ(connect(fd, raw(to), 16), 0);
    EXPECT_EQ(get_peer_ipaddr(fd, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "127.0.0.1:4999");
    const Fd fd6(socket(AF_INET6, SOCK_DGRAM, 0));
    to = addr("::1", 4998);
    ASSERT_EQ(connect(fd6, raw(to), 28), 0);
    EXPECT_EQ(get_peer_ipaddr(fd6, buf, sizeof buf), buf);
    EXPECT_STREQ(buf, "[::1]:4998");
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const Fd a(ends[0]);
    const Fd b(ends[1]);
    EXPECT_STREQ(get_peer_ipaddr(a, buf, sizeof buf), "DOMAIN localhost:");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsPeer, unconnected_socket_has_none)
{
    char buf[64];
    const Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(get_peer_ipaddr(fd, buf, sizeof buf), nullptr);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  get_peer_ipaddr: getpeername(fd%d,...) ERROR(107): Transport endpoint is "
                            "not connected",
                            int{fd})}));
}
