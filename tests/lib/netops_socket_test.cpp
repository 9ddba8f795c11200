// Sockets from one description: what is refused and in which order, what each kind comes back as, and
// datagrams that really travel between two namespaces.
#include "fixtures.h"
#include "netops_support.h"
#include "wrap.h"

#include <algorithm>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>

using namespace net_test;
using support::FdGuard;
using support::LogCapture;
using support::NetnsPair;

namespace {

int g_socket_calls = 0;
int g_no_socket_family = -1;             // EAFNOSUPPORT for it
bool g_plain_tcp = false;                // makes every socket a TCP one
int g_setfl_errno = 0;                   // F_SETFL fails with it
int g_connect_errno = 0;                 // connect fails with it
bool g_connect_works = false;            // connect works at once
int g_freeaddrinfo_errno = 0;            // freeing the results leaves it
std::vector<sockaddr_storage> g_answers; // what every look-up gives

} // namespace

WRAPPED(int, socket, (int, int, int));
WRAPPED(int, fcntl, (int, int, ...));
WRAPPED(int, connect, (int, const sockaddr*, socklen_t));
WRAPPED(int, getaddrinfo, (const char*, const char*, const addrinfo*, addrinfo**));
WRAPPED(void, freeaddrinfo, (addrinfo*));

extern "C" {
int __wrap_socket(int family, int type, int protocol)
{
    ++g_socket_calls;
    if (family == g_no_socket_family) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    return g_plain_tcp ? __real_socket(family, SOCK_STREAM, 0) : __real_socket(family, type, protocol);
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
    if (g_connect_works) {
        return 0;
    }
    if (g_connect_errno != 0) {
        errno = g_connect_errno;
        return -1;
    }
    return __real_connect(fd, to, length);
}

int __wrap_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result)
{
    if (g_answers.empty()) {
        return __real_getaddrinfo(node, service, hints, result);
    }
    *result = nullptr;
    for (size_t i = g_answers.size(); i-- > 0;) {
        auto* ai = new addrinfo{};
        ai->ai_family = g_answers[i].ss_family;
        ai->ai_socktype = hints->ai_socktype;
        ai->ai_addr = raw(g_answers[i]);
        ai->ai_addrlen = size_of(g_answers[i]);
        ai->ai_next = *result;
        *result = ai;
    }
    return 0;
}

void __wrap_freeaddrinfo(addrinfo* list)
{
    errno = g_freeaddrinfo_errno != 0 ? g_freeaddrinfo_errno : errno;
    if (g_answers.empty()) {
        __real_freeaddrinfo(list);
        return;
    }
    while (list != nullptr) {
        addrinfo* next = list->ai_next;
        delete list;
        list = next;
    }
}
}

namespace {

struct InfoDeleter {
    void operator()(ifc_info* info) const { free(info); }
};

using Info = std::unique_ptr<ifc_info, InfoDeleter>;

// A call of open_socket with what it needs.
struct Opened {
    socket_spec spec{};
    int fd = -1;
    ifc_info* info = reinterpret_cast<ifc_info*>(this); // must be overwritten on success
    int error = 0;

    Opened() = default;
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;

    ~Opened()
    {
        if (fd >= 0) {
            close(fd);
            free(info);
        }
    }

    int open(const char* host, const char* port, const char* auth = nullptr, const char* ifc = nullptr)
    {
        errno = 0;
        fd = open_socket(host, port, auth, &spec, ifc, &info);
        error = errno;
        return fd;
    }
};

struct TcpServer {
    Fd fd;
    std::string port;

    explicit TcpServer(const char* host = "127.0.0.1") : fd(socket(addr(host).ss_family, SOCK_STREAM, 0))
    {
        sockaddr_storage ss = addr(host);
        EXPECT_EQ(bind(fd, raw(ss), size_of(ss)), 0) << strerror(errno);
        EXPECT_EQ(listen(fd, 8), 0);
        port = std::to_string(port_of(bound_to(fd)));
    }
};

// A port of 127.0.0.1 where nobody listens.
std::string closed_port()
{
    const TcpServer server;
    return server.port;
}

bool readable(int fd)
{
    pollfd wait{fd, POLLIN, 0};
    return poll(&wait, 1, 120'000) == 1;
}

std::string receive(int fd)
{
    char buf[64];
    if (!readable(fd)) {
        return "(nothing)";
    }
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    return n >= 0 ? std::string(buf, static_cast<size_t>(n)) : strerror(errno);
}

bool send_to_spec(const Opened& writer, const std::string& message)
{
    return sendto(writer.fd, message.data(), message.size(), 0,
                  reinterpret_cast<const sockaddr*>(&writer.spec.addr_ss),
                  writer.spec.addr_len) == static_cast<ssize_t>(message.size());
}

// Sends until the reader has it: a link that has just come up loses what is sent at first.
std::string deliver(const Opened& writer, const Opened& reader, const std::string& message)
{
    const bool arrived = support::wait_until([&] {
        EXPECT_TRUE(send_to_spec(writer, message));
        pollfd wait{reader.fd, POLLIN, 0};
        return poll(&wait, 1, 20) == 1;
    });
    return arrived ? receive(reader.fd) : "(nothing)";
}

bool has_line(LogCapture& log, const std::string& line)
{
    const Lines lines = log.lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

constexpr char kGroupPort[] = "5004";

} // namespace

class NetopsPort : public support::GuardedTest {};

class NetopsOpen : public support::GuardedTest {};

class NetopsClient : public support::GuardedTest {};

class NetopsListen : public support::GuardedTest {};

class NetopsSource : public support::GuardedTest {};

class NetopsGroup : public support::GuardedTest {};

class NetopsMkSockaddr : public support::GuardedTest {};

TEST_F(NetopsPort, zero_asks_the_kernel_for_a_port)
{
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    ASSERT_GE(opened.open("127.0.0.1", "0"), 0);
    EXPECT_NE(port_of(bound_to(opened.fd)), 0);
    EXPECT_EQ(opened.info, nullptr);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsPort, texts_that_are_no_port_are_refused)
{
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        for (const char* port : {"", "00", "abc", "http", " 0", "+0", "4294967296"}) {
            Opened opened;
            opened.spec.socktype = type;
            log.clear();
            EXPECT_EQ(opened.open("127.0.0.1", port), -1) << port;
            EXPECT_EQ(log.lines(), (Lines{format("(ERR)  open_socket: empty or invalid port [%s]", port)}));
        }
    }
}

TEST_F(NetopsPort, digits_with_a_tail_fail_in_the_look_up_without_a_line)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    log.set_level(NORM_level);
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    g_socket_calls = 0;
    EXPECT_EQ(opened.open("127.0.0.1", "80x"), -1);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsPort, negative_number_is_left_to_the_look_up)
{
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    opened.spec.writer = 1;
    opened.open("127.0.0.1", "-1");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsPort, missing_port_ends_by_assertion_but_for_other_types)
{
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        expect_abort([type] {
            Opened opened;
            opened.spec.socktype = type;
            opened.open("127.0.0.1", nullptr);
        });
    }
    Opened raw_socket;
    raw_socket.spec.socktype = SOCK_RAW;
    EXPECT_EQ(raw_socket.open("127.0.0.1", nullptr), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  open_socket: socket(2, 3, 0) ERROR(93): Protocol not supported"}));
}

TEST_F(NetopsOpen, plain_number_is_no_address)
{
    for (const char* host : {"1234", "-1", " 7", "0"}) {
        Opened opened;
        opened.spec.socktype = SOCK_DGRAM;
        log.clear();
        EXPECT_EQ(opened.open(host, "80"), -1);
        EXPECT_EQ(log.lines(),
                  (Lines{format("(ERR)  open_socket: cannot accept plain number [%s] as IP address", host)}));
    }
}

TEST_F(NetopsOpen, refusals_stand_in_a_fixed_order)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    g_socket_calls = 0;
    const auto first_line = [&](const char* host, const char* port, const char* auth) {
        Opened opened;
        opened.spec.socktype = SOCK_DGRAM;
        opened.spec.family = AF_INET6;
        log.clear();
        EXPECT_EQ(opened.open(host, port, auth), -1);
        return log.lines().empty() ? std::string() : log.lines()[0];
    };
    EXPECT_EQ(first_line("1234", "x", "1.2.3.4"), "(ERR)  open_socket: empty or invalid port [x]");
    EXPECT_EQ(first_line("1234", "1", "1.2"),
              "(ERR)  open_socket: cannot accept plain number [1234] as IP address");
    EXPECT_EQ(first_line("no.such.name", "1", "1.2"),
              "(ERR)  mk_sockaddr: cannot accept plain number [1.2] as IP address");
    EXPECT_EQ(first_line("no.such.name", "1", "10.0.0.2"),
              "(ERR)  open_socket: SMM src/addr family mismatch: 2/10");
    const int before_resolution = g_socket_calls;
    EXPECT_EQ(first_line("no.such.name", "1", nullptr), "");
    EXPECT_EQ(g_socket_calls, before_resolution);
}

TEST_F(NetopsOpen, names_resolve_from_the_hosts_file)
{
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    opened.spec.family = AF_INET;
    opened.spec.writer = 1;
    ASSERT_GE(opened.open("localhost", "99"), 0);
    EXPECT_EQ(str(opened.spec.addr_ss), "127.0.0.1:99");
}

TEST_F(NetopsOpen, no_address_is_the_any_address_of_the_family)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    for (const int family : {0, AF_INET}) {
        Opened v4;
        v4.spec.socktype = SOCK_STREAM;
        v4.spec.passive = 1;
        v4.spec.family = family;
        ASSERT_GE(v4.open(nullptr, "4001"), 0);
        EXPECT_EQ(v4.spec.family, AF_INET);
        EXPECT_EQ(str(bound_to(v4.fd)), "0.0.0.0:4001");
    }
    Opened v6;
    v6.spec.socktype = SOCK_STREAM;
    v6.spec.passive = 1;
    v6.spec.family = AF_INET6;
    ASSERT_GE(v6.open(nullptr, "4002"), 0);
    EXPECT_EQ(str(bound_to(v6.fd)), "[::]:4002");
    EXPECT_EQ(int_option(v6.fd, IPPROTO_IPV6, IPV6_V6ONLY), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsOpen, lines_of_an_opening)
{
    log.set_level(DEBUG_level);
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    opened.spec.writer = 1;
    ASSERT_GE(opened.open("127.0.0.1", "9"), 0);
    EXPECT_EQ(log.lines(),
              (Lines{"(DBG)  open_socket: UDP CLIENT [UNSPEC (0)] socket for [127.0.0.1:9], ifc=none",
                     "(DBG)  af=IPv4 (2), proto = 17",
                     format("(DBG)  open_socket opened socket fd=%d (2, 2, 17)", opened.fd),
                     "PF_INET = 2, PF_INET6 = 10, SOCK_STREAM = 1, SOCK_DGRAM = 2", "ai_flags    =\t0x00",
                     "ai_family   =\t2", "ai_socktype =\t2", "ai_protocol =\t17", "ai_addrlen  =\t16",
                     "ai_addr     =\t127.0.0.1:9", "ai_canonname=\tNULL",
                     format("(DBG)  open_socket: CLIENT unicast socket fd=[%d]", opened.fd)}));
}

TEST_F(NetopsOpen, lines_of_a_listener)
{
    log.set_level(DEBUG_level);
    Opened opened;
    opened.spec.socktype = SOCK_STREAM;
    opened.spec.passive = 1;
    opened.spec.family = AF_INET;
    ASSERT_GE(opened.open(nullptr, "0", "not read", "eth9"), 0);
    EXPECT_FALSE(opened.spec.is_ssm);
    EXPECT_EQ(log.lines()[0], "(DBG)  open_socket: TCP LISTENER [IPv4 (2)] socket for [all:0], ifc=eth9");
    EXPECT_TRUE(has_line(log, format("(DBG)  reuse_and_bind: fd=%d 0.0.0.0:0 OK", opened.fd)));
    EXPECT_TRUE(has_line(log, "reuse_and_bind IPv4 0.0.0.0:0"));
    EXPECT_TRUE(has_line(log, format("(DBG)  open_socket: SERVER unicast socket fd=[%d]", opened.fd)));
}

TEST_F(NetopsOpen, closed_log_at_debug_level_is_no_harm)
{
    log.set_level(DEBUG_level);
    log_default(&g_log, nullptr);
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    EXPECT_GE(opened.open("127.0.0.1", "0"), 0);
}

TEST_F(NetopsClient, datagram_writer_is_neither_bound_nor_connected)
{
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    opened.spec.writer = 1;
    opened.spec.non_blocking = 1;
    ASSERT_GE(opened.open("127.0.0.1", "4999"), 0);
    EXPECT_EQ(port_of(bound_to(opened.fd)), 0);
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    EXPECT_EQ(getpeername(opened.fd, raw(peer), &length), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_TRUE(is_nonblocking(opened.fd));
    EXPECT_EQ(str(opened.spec.addr_ss), "127.0.0.1:4999");
    EXPECT_EQ(opened.spec.addr_len, 16U);
    EXPECT_EQ(opened.spec.family, AF_INET);
    EXPECT_EQ(opened.spec.multicast, 0U);
    EXPECT_EQ(opened.info, nullptr);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsClient, datagram_reader_is_bound_and_hears_the_writer)
{
    NEEDS_NAMESPACES();
    const NetnsPair pair;
    for (const char* host : {"10.0.0.2", "fd00::2"}) {
        Opened reader;
        reader.spec.socktype = SOCK_DGRAM;
        Opened writer;
        writer.spec.socktype = SOCK_DGRAM;
        writer.spec.writer = 1;
        inside(pair, &NetnsPair::enter_b, [&] { ASSERT_GE(reader.open(host, "4000"), 0); });
        inside(pair, &NetnsPair::enter_a, [&] { ASSERT_GE(writer.open(host, "4000"), 0); });
        EXPECT_EQ(str(bound_to(reader.fd)), str(addr(host, 4000)));
        EXPECT_EQ(deliver(writer, reader, "hello"), "hello");
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsClient, datagram_reader_of_an_address_that_is_not_here_fails)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    EXPECT_EQ(opened.open("192.0.2.1", "4000"), -1);
    EXPECT_EQ(opened.error, EADDRNOTAVAIL);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(NetopsClient, blocking_stream_connects_at_once)
{
    log.set_level(INFO_level);
    const TcpServer server;
    Opened opened;
    opened.spec.socktype = SOCK_STREAM;
    ASSERT_GE(opened.open("127.0.0.1", server.port.c_str()), 0);
    EXPECT_EQ(opened.spec.async_connect, 0U);
    EXPECT_FALSE(is_nonblocking(opened.fd));
    EXPECT_EQ(log.lines(), (Lines{format("(INF)  setup_client: IMMEDIATE CONNECT [fd%d]", opened.fd)}));
}

TEST_F(NetopsClient, non_blocking_stream_is_in_progress_and_then_works)
{
    log.set_level(DEBUG_level);
    const TcpServer server;
    Opened opened;
    opened.spec.socktype = SOCK_STREAM;
    opened.spec.non_blocking = 1;
    ASSERT_GE(opened.open("127.0.0.1", server.port.c_str()), 0);
    EXPECT_EQ(opened.spec.async_connect, 1U);
    EXPECT_TRUE(has_line(log, format("(DBG)  setup_client: non-blocking CONNECT on fd%d", opened.fd)));
    EXPECT_TRUE(has_line(log, format("(INF)  setup_client: ASYNC CONNECT [fd%d]", opened.fd)));
    pollfd wait{opened.fd, POLLOUT, 0};
    ASSERT_EQ(poll(&wait, 1, 120'000), 1);
    EXPECT_EQ(socket_error(opened.fd), 0);
}

TEST_F(NetopsClient, non_blocking_stream_that_fails_later_tells_by_socket_error)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    support::must_run("ip addr add 10.9.9.9/24 dev lo");
    support::must_run("ip route add default dev lo");
    Opened opened;
    opened.spec.socktype = SOCK_STREAM;
    opened.spec.non_blocking = 1;
    ASSERT_GE(opened.open("127.0.0.1", "4003"), 0);
    EXPECT_EQ(opened.spec.async_connect, 1U);
    pollfd wait{opened.fd, POLLOUT, 0};
    ASSERT_EQ(poll(&wait, 1, 120'000), 1);
    EXPECT_EQ(socket_error(opened.fd), ECONNREFUSED);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  socket_error(fd%d) ERROR(111): Connection refused", opened.fd)}));
}

TEST_F(NetopsClient, non_blocking_stream_that_connects_at_once_is_immediate)
{
    log.set_level(INFO_level);
    g_connect_works = true;
    Opened opened;
    opened.spec.socktype = SOCK_STREAM;
    opened.spec.non_blocking = 1;
    ASSERT_GE(opened.open("127.0.0.1", "9"), 0);
    EXPECT_EQ(opened.spec.async_connect, 0U);
    EXPECT_EQ(log.lines(), (Lines{format("(INF)  setup_client: IMMEDIATE CONNECT [fd%d]", opened.fd)}));
}

TEST_F(NetopsClient, refused_stream_leaves_no_descriptor)
{
    Opened opened;
    opened.spec.socktype = SOCK_STREAM;
    EXPECT_EQ(opened.open("127.0.0.1", closed_port().c_str()), -1);
    EXPECT_EQ(opened.error, ECONNREFUSED);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].find("(ERR)  setup_client: connect("), 0U) << lines[0];
}

class NetopsWalk : public support::GuardedTest {};

TEST_F(NetopsWalk, later_entry_serves_where_the_first_fails)
{
    const TcpServer server;
    const auto port = static_cast<uint16_t>(std::stoi(server.port));
    const auto closed = static_cast<uint16_t>(std::stoi(closed_port()));
    // Refused, then one that listens.
    g_answers = {addr("127.0.0.1", closed), addr("127.0.0.1", port)};
    Opened opened;
    opened.spec.socktype = SOCK_STREAM;
    ASSERT_GE(opened.open("name", "1"), 0);
    EXPECT_EQ(port_of(opened.spec.addr_ss), port);
    EXPECT_EQ(log.lines().size(), 1U);
    // No socket of the family, then one.
    g_no_socket_family = AF_INET6;
    g_answers = {addr("::1", port), addr("127.0.0.1", port)};
    Opened second;
    second.spec.socktype = SOCK_STREAM;
    EXPECT_GE(second.open("name", "1"), 0);
    // The other way round nothing stands.
    g_answers = {addr("127.0.0.1", closed), addr("::1", port)};
    Opened third;
    third.spec.socktype = SOCK_STREAM;
    EXPECT_EQ(third.open("name", "1"), -1);
    EXPECT_EQ(third.spec.family, AF_INET);
    g_answers.clear();
}

TEST_F(NetopsWalk, failure_to_leave_blocking_mode_ends_the_walk)
{
    g_answers = {addr("127.0.0.1", 9), addr("127.0.0.2", 9)};
    g_setfl_errno = EPERM;
    g_socket_calls = 0;
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    opened.spec.non_blocking = 1;
    EXPECT_EQ(opened.open("name", "9"), -1);
    g_answers.clear();
    EXPECT_EQ(g_socket_calls, 1);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[1].find("(ERR)  open_socket: failed to make fd="), 0U) << lines[1];
    EXPECT_NE(lines[1].find("non-blocking ERROR(1): Operation not permitted"), std::string::npos) << lines[1];
}

TEST_F(NetopsListen, stream_listens_unless_it_is_deferred)
{
    for (const unsigned int defer : {0U, 1U}) {
        Opened opened;
        opened.spec.socktype = SOCK_STREAM;
        opened.spec.passive = 1;
        opened.spec.defer_listen = defer;
        ASSERT_GE(opened.open("127.0.0.1", "0"), 0);
        EXPECT_NE(port_of(bound_to(opened.fd)), 0);
        EXPECT_EQ(int_option(opened.fd, SOL_SOCKET, SO_ACCEPTCONN), defer == 0 ? 1 : 0);
    }
    Opened udp;
    udp.spec.socktype = SOCK_DGRAM;
    udp.spec.passive = 1;
    ASSERT_GE(udp.open("127.0.0.1", "0"), 0);
    EXPECT_NE(port_of(bound_to(udp.fd)), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsListen, address_that_is_not_here_fails)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    Opened opened;
    opened.spec.socktype = SOCK_STREAM;
    opened.spec.passive = 1;
    EXPECT_EQ(opened.open("192.0.2.1", "4000"), -1);
    EXPECT_EQ(opened.error, EADDRNOTAVAIL);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(NetopsListen, other_socket_types_connect)
{
    log.set_level(DEBUG_level);
    g_plain_tcp = true;
    g_connect_works = true;
    Opened opened;
    opened.spec.socktype = SOCK_SEQPACKET;
    opened.spec.passive = 1;
    ASSERT_GE(opened.open("127.0.0.1", "0"), 0);
    EXPECT_TRUE(has_line(log, format("(DBG)  setup_listener: CONNECT [%d]", opened.fd)));
}

TEST_F(NetopsListen, kept_connect_in_progress_of_a_listener_is_a_failure)
{
    log.set_level(DEBUG_level);
    g_plain_tcp = true;
    g_connect_errno = EINPROGRESS;
    Opened opened;
    opened.spec.socktype = SOCK_SEQPACKET;
    opened.spec.passive = 1;
    EXPECT_EQ(opened.open("127.0.0.1", "0"), -1);
    EXPECT_EQ(opened.error, EINPROGRESS);
    EXPECT_EQ(opened.spec.async_connect, 0U);
    EXPECT_TRUE(has_line(log, "(DBG)  open_socket: connection in progress for fd-1"));
    EXPECT_TRUE(has_line(log, "(DBG)  open_socket: SERVER unicast socket fd=[-1]"));
    log_set_hook(&g_log, nullptr, [](void*, const char*) { errno = ENOTTY; });
    EXPECT_EQ(opened.open("127.0.0.1", "0"), -1);
    EXPECT_EQ(opened.error, EINPROGRESS);
}

TEST_F(NetopsListen, errno_of_a_failed_open_is_not_that_of_freeing_the_results)
{
    g_plain_tcp = true;
    g_connect_errno = EINPROGRESS;
    g_freeaddrinfo_errno = ENOTTY;
    Opened opened;
    opened.spec.socktype = SOCK_SEQPACKET;
    opened.spec.passive = 1;
    EXPECT_EQ(opened.open("127.0.0.1", "0"), -1);
    EXPECT_EQ(opened.error, EINPROGRESS);
    g_connect_errno = ECONNREFUSED;
    EXPECT_EQ(opened.open("127.0.0.1", "0"), -1);
    EXPECT_EQ(opened.error, ECONNREFUSED);
}

TEST_F(NetopsGroup, passive_group_ends_by_assertion)
{
    expect_abort([] {
        Opened opened;
        opened.spec.socktype = SOCK_DGRAM;
        opened.spec.passive = 1;
        opened.open("239.1.1.1", "5000");
    });
}

// A reader in the second namespace and a writer in the first, on one group.
void exchange(const char* group, const char* auth, const char* reader_ifc, const char* writer_ifc)
{
    SCOPED_TRACE(group);
    FdGuard guard;
    const NetnsPair pair;
    LogCapture log;
    Opened reader;
    reader.spec.socktype = SOCK_DGRAM;
    Opened writer;
    writer.spec.socktype = SOCK_DGRAM;
    writer.spec.writer = 1;
    inside(pair, &NetnsPair::enter_b, [&] {
        ASSERT_GE(reader.open(group, kGroupPort, auth, reader_ifc), 0);
        EXPECT_TRUE(is_member("vb", addr(group)));
        ASSERT_NE(reader.info, nullptr);
        EXPECT_EQ(reader.info->idx, reader_ifc != nullptr ? if_nametoindex("vb") : 0U);
    });
    inside(pair, &NetnsPair::enter_a,
           [&] { ASSERT_GE(writer.open(group, kGroupPort, nullptr, writer_ifc), 0); });
    EXPECT_EQ(reader.spec.multicast, 1U);
    EXPECT_EQ(writer.spec.multicast, 1U);
    EXPECT_EQ(str(bound_to(reader.fd)), str(addr(group, 5004)));
    EXPECT_EQ(deliver(writer, reader, "to the group"), "to the group");
    inside(pair, &NetnsPair::enter_b, [&] {
        if (auth == nullptr) {
            EXPECT_EQ(mcast_leave(reader.fd, &reader.spec.addr_ss, reader.info), 0);
            EXPECT_FALSE(is_member("vb", addr(group)));
        }
    });
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsGroup, datagrams_travel_by_ipv4_and_named_interfaces)
{
    NEEDS_NAMESPACES();
    exchange("239.1.1.1", nullptr, "vb", "va");
}

TEST_F(NetopsGroup, datagrams_travel_by_ipv4_and_interface_addresses)
{
    NEEDS_NAMESPACES();
    exchange("239.1.1.2", nullptr, "10.0.0.2", "10.0.0.1");
}

TEST_F(NetopsGroup, datagrams_travel_by_ipv4_without_an_interface)
{
    NEEDS_NAMESPACES();
    exchange("239.1.1.3", nullptr, nullptr, "any");
}

TEST_F(NetopsGroup, datagrams_travel_by_ipv6)
{
    NEEDS_NAMESPACES();
    exchange("ff15::77", nullptr, "vb", "va");
}

TEST_F(NetopsGroup, datagrams_travel_from_one_ipv4_source)
{
    NEEDS_NAMESPACES();
    exchange("232.1.1.4", "10.0.0.1", "vb", "va");
}

TEST_F(NetopsGroup, datagrams_travel_from_one_ipv6_source)
{
    NEEDS_NAMESPACES();
    exchange("ff35::78", "fd00::1:111", "vb", "va");
}

TEST_F(NetopsGroup, datagrams_of_another_source_do_not_arrive)
{
    NEEDS_NAMESPACES();
    const NetnsPair pair;
    Opened strict;
    strict.spec.socktype = SOCK_DGRAM;
    Opened open_to_all; // on a port of its own, so that the kernel shares nothing out between the two
    open_to_all.spec.socktype = SOCK_DGRAM;
    inside(pair, &NetnsPair::enter_b, [&] {
        ASSERT_GE(strict.open("232.1.1.5", "5004", "10.0.0.99", "vb"), 0);
        EXPECT_TRUE(has_source_filter("vb", "232.1.1.5", "10.0.0.99"));
        ASSERT_GE(open_to_all.open("232.1.1.5", "5006", nullptr, "vb"), 0);
    });
    EXPECT_TRUE(strict.spec.is_ssm);
    EXPECT_EQ(str(strict.spec.src_ss), "10.0.0.99:111");
    EXPECT_EQ(strict.spec.src_len, 16U);
    Opened to_strict;
    Opened to_all;
    char byte;
    for (Opened* writer : {&to_strict, &to_all}) {
        writer->spec.socktype = SOCK_DGRAM;
        writer->spec.writer = 1;
        inside(pair, &NetnsPair::enter_a, [&] {
            ASSERT_GE(writer->open("232.1.1.5", writer == &to_strict ? "5004" : "5006", nullptr, "va"), 0);
        });
    }
    EXPECT_EQ(deliver(to_all, open_to_all, "the link is up"), "the link is up");
    EXPECT_TRUE(send_to_spec(to_strict, "from another source"));
    // What was sent later has come, so the datagram before it would be here.
    while (recv(open_to_all.fd, &byte, 1, MSG_DONTWAIT) > 0) {
    }
    EXPECT_EQ(deliver(to_all, open_to_all, "later"), "later");
    EXPECT_EQ(recv(strict.fd, &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(NetopsGroup, kept_unknown_interface_leaves_the_reader_on_the_default_one)
{
    NEEDS_NAMESPACES();
    const NetnsPair pair;
    Opened reader;
    reader.spec.socktype = SOCK_DGRAM;
    Opened writer;
    writer.spec.socktype = SOCK_DGRAM;
    writer.spec.writer = 1;
    inside(pair, &NetnsPair::enter_a, [&] {
        ASSERT_GE(reader.open("239.1.1.6", kGroupPort, nullptr, "nosuchif"), 0);
        EXPECT_TRUE(is_member("va", addr("239.1.1.6")));
        ASSERT_GE(writer.open("239.1.1.6", kGroupPort, nullptr, "nosuchif"), 0);
    });
    EXPECT_EQ(reader.info, nullptr);
    EXPECT_EQ(writer.info, nullptr);
    const std::string line = "(ERR)  [nosuchif] is not a valid IPv4 interface address.";
    EXPECT_EQ(log.lines(), (Lines{line, line}));
}

TEST_F(NetopsGroup, link_local_group_takes_the_scope_of_the_interface)
{
    NEEDS_NAMESPACES();
    const NetnsPair pair;
    Opened reader;
    reader.spec.socktype = SOCK_DGRAM;
    Opened writer;
    writer.spec.socktype = SOCK_DGRAM;
    writer.spec.writer = 1;
    inside(pair, &NetnsPair::enter_b, [&] {
        support::must_run("ip -6 addr flush dev vb scope global");
        ASSERT_GE(reader.open("ff02::7777", kGroupPort, nullptr, "vb"), 0);
        EXPECT_TRUE(is_member("vb", addr("ff02::7777")));
        EXPECT_EQ(scope_of(reader.spec.addr_ss), if_nametoindex("vb"));
        EXPECT_EQ(log.lines(),
                  (Lines{format("(ERR)  updated IPv6 address scope ID to %u", if_nametoindex("vb"))}));
    });
    inside(pair, &NetnsPair::enter_a,
           [&] { ASSERT_GE(writer.open("ff02::7777", kGroupPort, nullptr, "va"), 0); });
    EXPECT_EQ(deliver(writer, reader, "on the link"), "on the link");
}

TEST_F(NetopsGroup, link_local_group_without_an_interface_is_told_and_cannot_be_bound)
{
    NEEDS_NAMESPACES();
    const NetnsPair pair;
    Opened reader;
    reader.spec.socktype = SOCK_DGRAM;
    inside(pair, &NetnsPair::enter_a,
           [&] { EXPECT_EQ(reader.open("ff02::7777", kGroupPort, nullptr, "any"), -1); });
    EXPECT_EQ(reader.error, EINVAL);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(
        lines[0],
        "(ERR)  setup_mcast_reader: network interface must be specified to use link/local-scope multicast");
    EXPECT_EQ(lines[1].find("(ERR)  reuse_and_bind: bind("), 0U) << lines[1];
}

TEST_F(NetopsGroup, interface_whose_first_address_is_global_gives_no_scope)
{
    NEEDS_NAMESPACES();
    const NetnsPair pair;
    Opened reader;
    reader.spec.socktype = SOCK_DGRAM;
    inside(pair, &NetnsPair::enter_a,
           [&] { EXPECT_EQ(reader.open("ff02::7777", kGroupPort, nullptr, "va"), -1); });
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(log.lines()[0], "(ERR)  IPv6 address scope ID 0 left unchanged");
}

TEST_F(NetopsGroup, reader_of_a_forced_unicast_address_fails_to_join)
{
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    opened.spec.multicast = 1;
    EXPECT_EQ(opened.open("127.0.0.1", "0"), -1);
    EXPECT_EQ(opened.error, EINVAL);
    EXPECT_EQ(opened.spec.multicast, 1U);
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(NetopsGroup, record_may_be_left_to_the_library)
{
    NEEDS_NAMESPACES();
    const NetnsPair pair;
    inside(pair, &NetnsPair::enter_a, [&] {
        socket_spec spec{};
        spec.socktype = SOCK_DGRAM;
        const Fd fd(open_socket("239.1.1.7", kGroupPort, nullptr, &spec, "va", nullptr));
        EXPECT_GE(fd, 0);
        EXPECT_TRUE(is_member("va", addr("239.1.1.7")));
    });
}

TEST_F(NetopsGroup, ipv4_writer_on_an_ipv6_address_of_an_interface_ends_by_assertion)
{
    NEEDS_NAMESPACES();
    const NetnsPair pair;
    inside(pair, &NetnsPair::enter_a, [&] {
        expect_abort([] {
            Opened writer;
            writer.spec.socktype = SOCK_DGRAM;
            writer.spec.writer = 1;
            writer.open("239.1.1.8", kGroupPort, nullptr, "fd00::1");
        });
    });
}

TEST_F(NetopsSource, ipv6_literal_loses_its_last_group_to_the_port)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    EXPECT_EQ(opened.open("ff35::1", kGroupPort, "2001:db8::1"), -1);
    EXPECT_TRUE(opened.spec.is_ssm);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  open_socket: invalid SSM source: 2001:db8::1"}));
}

TEST_F(NetopsSource, long_text_is_cut_to_its_buffer)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    const std::string source(200, 'x');
    EXPECT_EQ(opened.open("232.1.1.1", kGroupPort, source.c_str()), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  mk_sockaddr: invalid address/port: " + source.substr(0, 79),
                                  "(ERR)  open_socket: invalid SSM source: " + source.substr(0, 79)}));
}

TEST_F(NetopsSource, other_family_is_refused_before_any_socket_of_ours)
{
    Opened opened;
    opened.spec.socktype = SOCK_DGRAM;
    opened.spec.family = AF_INET6;
    g_socket_calls = 0;
    EXPECT_EQ(opened.open("ff35::1", kGroupPort, "10.0.0.2:5000"), -1);
    EXPECT_EQ(g_socket_calls, 1); // the probe of mk_sockaddr
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  open_socket: SMM src/addr family mismatch: 2/10"}));
}

TEST_F(NetopsSource, other_family_than_the_group_ends_by_assertion)
{
    expect_abort([] {
        Opened opened;
        opened.spec.socktype = SOCK_DGRAM;
        opened.open("ff35::1", "0", "10.0.0.2");
    });
}

TEST_F(NetopsSource, is_not_read_for_a_stream)
{
    const TcpServer server;
    Opened opened;
    opened.spec.socktype = SOCK_STREAM;
    opened.spec.is_ssm = true;
    ASSERT_GE(opened.open("127.0.0.1", server.port.c_str(), "1234"), 0);
    EXPECT_FALSE(opened.spec.is_ssm);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsMkSockaddr, host_and_port)
{
    sockaddr_storage ss{};
    socklen_t length = 0;
    EXPECT_EQ(mk_sockaddr("1.2.3.4:5000", SOCK_DGRAM, 0, &ss, &length), 0);
    EXPECT_EQ(str(ss), "1.2.3.4:5000");
    EXPECT_EQ(length, 16U);
    EXPECT_EQ(mk_sockaddr("2001:db8::1:5000", SOCK_STREAM, IPPROTO_TCP, &ss, &length), 0);
    EXPECT_EQ(str(ss), "[2001:db8::1]:5000");
    EXPECT_EQ(length, 28U);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsMkSockaddr, protocol_that_is_not_of_the_type_does_not_resolve)
{
    sockaddr_storage ss{};
    socklen_t length = 0;
    EXPECT_EQ(mk_sockaddr("1.2.3.4:5000", SOCK_DGRAM, IPPROTO_TCP, &ss, &length), -1);
    EXPECT_EQ(mk_sockaddr("1.2.3.4:5000", SOCK_DGRAM, IPPROTO_UDP, &ss, &length), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsMkSockaddr, lines_of_a_success)
{
    log.set_level(DEBUG_level);
    sockaddr_storage ss{};
    socklen_t length = 0;
    EXPECT_EQ(mk_sockaddr("1.2.3.4:5000", SOCK_DGRAM, 0, &ss, &length), 0);
    EXPECT_EQ(log.lines()[0], "(DBG)  mk_sockaddr: DGRAM(2) address for [1.2.3.4:5000]");
    EXPECT_TRUE(has_line(log, "(DBG)  mk_sockaddr: OK af=IPv4 (2), proto = 17"));
    log.clear();
    EXPECT_EQ(mk_sockaddr("1.2.3.4:5000", SOCK_STREAM, 0, &ss, &length), 0);
    EXPECT_EQ(log.lines()[0], "(DBG)  mk_sockaddr: STREAM(1) address for [1.2.3.4:5000]");
}

TEST_F(NetopsMkSockaddr, kept_short_hosts_are_called_plain_numbers)
{
    sockaddr_storage ss{};
    socklen_t length = 0;
    for (const char* host : {"::1", "host", "sixsix", "1234", "12345678", ""}) {
        log.clear();
        EXPECT_EQ(mk_sockaddr((std::string(host) + ":5000").c_str(), SOCK_DGRAM, 0, &ss, &length), EINVAL);
        EXPECT_EQ(log.lines(),
                  (Lines{format("(ERR)  mk_sockaddr: cannot accept plain number [%s] as IP address", host)}));
    }
    EXPECT_EQ(ss.ss_family, 0);
}

TEST_F(NetopsMkSockaddr, name_of_seven_letters_passes)
{
    g_answers = {addr("10.0.0.1", 5000)};
    sockaddr_storage ss{};
    socklen_t length = 0;
    EXPECT_EQ(mk_sockaddr("sevenxx:5000", SOCK_DGRAM, 0, &ss, &length), 0);
    EXPECT_EQ(str(ss), "10.0.0.1:5000");
    g_answers.clear();
    EXPECT_EQ(mk_sockaddr("localhost:5001", SOCK_DGRAM, 0, &ss, &length), 0);
    EXPECT_EQ(port_of(ss), 5001);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsMkSockaddr, texts_without_colon_or_port_are_refused)
{
    sockaddr_storage ss{};
    socklen_t length = 0;
    EXPECT_EQ(mk_sockaddr("localhost", SOCK_DGRAM, 0, &ss, &length), EINVAL);
    EXPECT_EQ(mk_sockaddr("localhost:", SOCK_DGRAM, 0, &ss, &length), EINVAL);
    EXPECT_EQ(mk_sockaddr("localhost:http", SOCK_DGRAM, 0, &ss, &length), EINVAL);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  mk_sockaddr: invalid address/port: localhost",
                                  "(ERR)  mk_sockaddr: port must be plain decimal number []",
                                  "(ERR)  mk_sockaddr: port must be plain decimal number [http]"}));
}

TEST_F(NetopsMkSockaddr, text_is_cut_at_127_characters)
{
    sockaddr_storage ss{};
    socklen_t size = 0;
    const std::string long_text = std::string(127, 'h') + ":5000"; // the colon is cut off
    EXPECT_EQ(mk_sockaddr(long_text.c_str(), SOCK_DGRAM, 0, &ss, &size), EINVAL);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  mk_sockaddr: invalid address/port: " + long_text}));
    for (const auto& [length, port] : {std::pair<size_t, int>{127, 5000}, {128, 500}}) {
        const std::string host_and_port = "1.2.3.4:5000";
        const std::string padded = std::string(length - host_and_port.size(), '0') + host_and_port;
        EXPECT_EQ(mk_sockaddr(padded.c_str(), SOCK_DGRAM, 0, &ss, &size), 0) << padded;
        EXPECT_EQ(str(ss), "1.2.3.4:" + std::to_string(port));
    }
}

TEST_F(NetopsMkSockaddr, name_that_does_not_resolve_leaves_no_line)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    sockaddr_storage ss{};
    socklen_t length = 0;
    EXPECT_EQ(mk_sockaddr("no.such.name:5000", SOCK_DGRAM, 0, &ss, &length), -1);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(NetopsMkSockaddr, no_socket_of_the_family_fails)
{
    log.set_level(NORM_level);
    g_no_socket_family = AF_INET;
    sockaddr_storage ss{};
    socklen_t length = 0;
    EXPECT_EQ(mk_sockaddr("1.2.3.4:5000", SOCK_DGRAM, 0, &ss, &length), -1);
    EXPECT_EQ(
        log.lines(),
        (Lines{"(ERR)  mk_sockaddr: socket(2, 2, 17) ERROR(97): Address family not supported by protocol",
               "(ERR)  mk_sockaddr: failed for [1.2.3.4:5000]"}));
}

TEST_F(NetopsMkSockaddr, kept_entries_after_a_failed_one_are_not_accepted)
{
    log.set_level(NORM_level);
    g_no_socket_family = AF_INET6;
    g_answers = {addr("::1", 1), addr("10.0.0.1", 2), addr("10.0.0.2", 3)};
    sockaddr_storage ss{};
    socklen_t length = 0;
    const auto before = support::open_fds();
    EXPECT_EQ(mk_sockaddr("a.name.of.three:5000", SOCK_DGRAM, 0, &ss, &length), 0);
    EXPECT_EQ(ss.ss_family, 0);
    EXPECT_EQ(length, 0U);
    // The socket of the middle entry is still open.
    auto after = support::open_fds();
    for (const int fd : before) {
        after.erase(fd);
    }
    ASSERT_EQ(after.size(), 1U);
    close(*after.begin());
    g_answers.clear();
}

TEST_F(NetopsMkSockaddr, other_socket_types_end_by_assertion)
{
    expect_abort([] {
        sockaddr_storage ss{};
        socklen_t length = 0;
        mk_sockaddr("1.2.3.4:5", SOCK_RAW, 0, &ss, &length);
    });
}

TEST(NetopsEndsWithPort, texts)
{
    for (const char* yes : {"a:1", ":0", "a:b:22", "2001:db8::1", "10.0.0.1:5000", "::1"}) {
        EXPECT_TRUE(ends_with_port(yes)) << yes;
    }
    for (const char* no :
         {"", "a", "a:", ":", "a:1x", "a:x1", "a: 1", "a:+1", "1:2:", "fd00::a", "10.0.0.1"}) {
        EXPECT_FALSE(ends_with_port(no)) << no;
    }
}

class NetopsReuse : public support::GuardedTest {};

TEST_F(NetopsReuse, port_is_shared_and_failures_are_errors)
{
    const Fd first(socket(AF_INET, SOCK_DGRAM, 0));
    const Fd second(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_storage ss = addr("127.0.0.1");
    EXPECT_EQ(reuse_and_bind(first, raw(ss), 16), 0);
    ss = bound_to(first);
    EXPECT_EQ(reuse_and_bind(second, raw(ss), 16), 0);
    EXPECT_EQ(int_option(first, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(int_option(first, SOL_SOCKET, SO_REUSEPORT), 1);
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(reuse_and_bind(999, raw(ss), 16), EBADF);
    EXPECT_EQ(reuse_and_bind(first, raw(ss), 3), EINVAL);
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(NetopsReuse, long_text_is_cut_in_the_debug_line)
{
    NEEDS_NAMESPACES();
    const LoopbackNet net;
    support::must_run("ip -6 addr add fd00:1111:2222:3333:4444:5555:6666:7777/128 dev lo nodad");
    log.set_level(DEBUG_level);
    const Fd fd(socket(AF_INET6, SOCK_DGRAM, 0));
    sockaddr_storage ss = addr("fd00:1111:2222:3333:4444:5555:6666:7777", 60000);
    EXPECT_EQ(reuse_and_bind(fd, raw(ss), 28), 0);
    EXPECT_EQ(log.lines(),
              (Lines{format("(DBG)  reuse_and_bind: fd=%d [fd00:1111:2222:3333:4444:5555: OK", int{fd}),
                     "reuse_and_bind IPv6 fd00:1111:2222:3333:4444:5555:6666:7777:60000"}));
}
