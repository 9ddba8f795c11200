// URL sockets without HTTP: files, TCP, UDP and RTP, groups in private namespaces, and their end.
#include "wopen.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <sys/time.h>

#include "child.h"
#include "fds.h"
#include "fixtures.h"
#include "log.h"
#include "logcap.h"
#include "netns.h"
#include "oom.h"
#include "tempdir.h"
#include "text.h"
#include "uri.h"
#include "wait.h"
#include "wrap.h"

using support::expect_abort;
using support::FailAllocation;
using support::FdGuard;
using support::inside;
using support::Lines;
using support::LogCapture;
using support::NetnsPair;
using support::TempDir;

namespace {

bool g_fail_strdup = false;
int g_forced_kind = 0; // what uri_extract answers; 0: its own result

bool has_line(LogCapture& log, const std::string& line)
{
    for (const std::string& each : log.lines()) {
        if (each == line) {
            return true;
        }
    }
    return false;
}

// A socket on 127.0.0.1 and the port that the kernel chose for it.
struct Local {
    explicit Local(int type) : fd(socket(AF_INET, type | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
        port = std::to_string(ntohs(address.sin_port));
        if (type == SOCK_STREAM) {
            EXPECT_EQ(listen(fd, 64), 0);
        }
    }

    Local(const Local&) = delete;
    Local& operator=(const Local&) = delete;

    ~Local() { close(fd); }

    std::string receive() const
    {
        char block[256];
        pollfd entry{fd, POLLIN, 0};
        EXPECT_EQ(poll(&entry, 1, 120'000), 1);
        const ssize_t n = recv(fd, block, sizeof block, 0);
        return n < 0 ? "failed" : std::string(block, static_cast<size_t>(n));
    }

    int fd;
    std::string port;
};

std::string received(int fd)
{
    char block[256];
    pollfd entry{fd, POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 120'000), 1);
    const ssize_t n = recv(fd, block, sizeof block, 0);
    return n < 0 ? "failed" : std::string(block, static_cast<size_t>(n));
}

void send_to_target(int fd, const usock_ctx& uc, const std::string& text)
{
    EXPECT_EQ(sendto(fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&uc.sspec.addr_ss),
                     uc.sspec.addr_len),
              static_cast<ssize_t>(text.size()));
}

long timeout_us(int fd, int option)
{
    timeval tv{-1, -1};
    socklen_t length = sizeof tv;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, option, &tv, &length), 0);
    return tv.tv_sec * 1'000'000 + tv.tv_usec;
}

// Nothing of an earlier opening is left.
void expect_closed(const usock_ctx& uc)
{
    EXPECT_EQ(uc.url_path, nullptr);
    EXPECT_EQ(uc.mifc, nullptr);
    EXPECT_EQ(uc.buf, nullptr);
    EXPECT_EQ(uc.buflen, 0U);
}

void expect_refused(const std::string& url, usock_ctx uc = {})
{
    const FdGuard guard;
    EXPECT_EQ(usock_open(url.c_str(), &uc), -1) << url;
    expect_closed(uc);
}

std::string proc_net(const char* name)
{
    std::ostringstream text;
    text << std::ifstream(std::string("/proc/thread-self/net/") + name).rdbuf();
    return text.str();
}

// Whether a group, as /proc/net/igmp shows it, is joined in this namespace.
bool is_joined(const char* group)
{
    return proc_net("igmp").find(group) != std::string::npos;
}

#define SKIP_WITHOUT_NAMESPACES()                                                                            \
    if (const std::string why = support::netns_missing(); !why.empty()) {                                    \
        GTEST_SKIP() << "skipped: " << why;                                                                  \
    }

} // namespace

WRAPPED(char*, strdup, (const char* s));
WRAPPED(int, uri_extract, (const char* uri, char* scheme, char* authority, char* path, char* query));

extern "C" {
char* __wrap_strdup(const char* s)
{
    if (g_fail_strdup) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_strdup(s);
}

int __wrap_uri_extract(const char* uri, char* scheme, char* authority, char* path, char* query)
{
    const int kind = __real_uri_extract(uri, scheme, authority, path, query);
    return g_forced_kind != 0 ? g_forced_kind : kind;
}
}

// ---- files -----------------------------------------------------------------------------------------

class Wopen : public support::GuardedTest {};

TEST_F(Wopen, a_file_url_opens_its_absolute_path)
{
    const TempDir dir;
    dir.write("file", "content");
    log.set_level(DEBUG_level);
    usock_ctx uc = {};
    uc.inbound = true;
    const int fd = usock_open(("file://" + dir.path("file")).c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(uc.url_kind, URI_FILE);
    EXPECT_EQ(uc.url_path, dir.path("file"));
    EXPECT_TRUE(uc.non_pollable);
    EXPECT_EQ(uc.buf, nullptr);
    EXPECT_TRUE(
        has_line(log, "(DBG)  usock_open: fd" + std::to_string(fd) + " FILE [" + dir.path("file") + "]"));
    char block[16];
    EXPECT_EQ(read(fd, block, sizeof block), 7);
    usock_close(fd, &uc);
    expect_closed(uc);
    EXPECT_TRUE(has_line(log, "(DBG)  usock_close: CLOSED(fd" + std::to_string(fd) + ")"));
}

TEST_F(Wopen, kept_a_file_is_opened_for_reading_in_both_directions)
{
    const TempDir dir;
    dir.write("file", "content");
    usock_ctx uc = {};
    const int fd = usock_open(("file://" + dir.path("file")).c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(write(fd, "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
    usock_close(fd, &uc);
}

TEST_F(Wopen, a_file_that_is_missing_is_logged_and_leaves_nothing)
{
    usock_ctx uc = {};
    EXPECT_EQ(usock_open("file:///nonexistent/file", &uc), -1);
    EXPECT_EQ(uc.url_kind, URI_FILE);
    expect_closed(uc);
    EXPECT_EQ(log.lines(),
              (Lines{"(ERR)  usock_open: open('/nonexistent/file', 0, 0x0) ERROR(2): No such file "
                     "or directory"}));
}

TEST_F(Wopen, every_other_kind_can_be_polled)
{
    const Local peer(SOCK_DGRAM);
    usock_ctx uc = {};
    uc.non_pollable = true;
    const int fd = usock_open(("udp://127.0.0.1:" + peer.port).c_str(), &uc);
    EXPECT_GE(fd, 0);
    EXPECT_FALSE(uc.non_pollable);
    usock_close(fd, &uc);
}

// ---- refusals ----------------------------------------------------------------------------------------

TEST_F(Wopen, a_text_that_is_no_url_gives_kind_minus_1_and_allocates_nothing)
{
    usock_ctx uc = {};
    for (const char* url : {"", "127.0.0.1:80", "ftp://127.0.0.1:80", "udp://"}) {
        log.clear();
        uc.url_kind = 5;
        EXPECT_EQ(usock_open(url, &uc), -1) << url;
        EXPECT_EQ(uc.url_kind, -1) << url;
        EXPECT_NE(log.text(), "");
        expect_closed(uc);
    }
}

TEST_F(Wopen, a_bad_url_is_refused_before_the_record_is_looked_at)
{
    usock_ctx uc = {};
    char path[] = "still set";
    uc.url_path = path;
    EXPECT_EQ(usock_open("no url", &uc), -1);
    EXPECT_EQ(uc.url_path, path);
}

TEST_F(Wopen, a_record_that_is_still_open_is_asserted)
{
    expect_abort("Assertion `((void *)0) == uc->url_path' failed", [] {
        usock_ctx uc = {};
        char path[] = "still set";
        uc.url_path = path;
        usock_open("udp://127.0.0.1:9", &uc);
    });
}

TEST_F(Wopen, a_path_without_memory_for_its_copy_is_asserted)
{
    expect_abort("Assertion `uc->url_path' failed", [] {
        usock_ctx uc = {};
        g_fail_strdup = true;
        usock_open("udp://127.0.0.1:9", &uc);
    });
}

TEST_F(Wopen, a_kind_that_is_none_is_logged_without_line_end)
{
    g_forced_kind = 7;
    usock_ctx uc = {};
    EXPECT_EQ(usock_open("udp://127.0.0.1:9", &uc), -1);
    g_forced_kind = 0;
    EXPECT_EQ(log.text(), "(ERR)  usock_open: unsupported type of URI [udp://127.0.0.1:9]");
    expect_closed(uc);
}

TEST_F(Wopen, only_http_has_a_port_by_default)
{
    for (const char* scheme : {"tcp", "udp", "rtp"}) {
        log.clear();
        expect_refused(std::string(scheme) + "://127.0.0.1");
        EXPECT_EQ(log.lines(), (Lines{"(ERR)  open_socket: empty or invalid port []"}));
    }
}

TEST_F(Wopen, a_path_that_cannot_be_split_is_refused)
{
    expect_refused("tcp://[::1");
    EXPECT_EQ(log.lines().size(), 1U);
}

// ---- TCP -----------------------------------------------------------------------------------------------

TEST_F(Wopen, a_tcp_url_connects_and_has_a_buffer)
{
    const Local server(SOCK_STREAM);
    for (const bool inbound : {false, true}) {
        usock_ctx uc = {};
        uc.inbound = inbound;
        uc.buflen = 5;
        const int fd = usock_open(("tcp://127.0.0.1:" + server.port + "/tail").c_str(), &uc);
        ASSERT_GE(fd, 0);
        const int peer = accept(server.fd, nullptr, nullptr);
        EXPECT_EQ(uc.url_kind, URI_TCP);
        EXPECT_EQ(uc.url_path, "127.0.0.1:" + server.port + "/tail");
        EXPECT_EQ(uc.sspec.socktype, SOCK_STREAM);
        EXPECT_EQ(uc.sspec.writer, inbound ? 0U : 1U);
        EXPECT_EQ(uc.sspec.family, AF_INET);
        EXPECT_EQ(uc.sspec.non_blocking, 0U);
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
        ASSERT_NE(uc.buf, nullptr);
        EXPECT_EQ(uc.bufcap, 2048U);
        EXPECT_EQ(uc.buflen, 0U);
        EXPECT_EQ(send(peer, "ping", 4, 0), 4);
        EXPECT_EQ(received(fd), "ping");
        EXPECT_EQ(send(fd, "pong", 4, 0), 4);
        EXPECT_EQ(received(peer), "pong");
        close(peer);
        uc.buflen = 3;
        usock_close(fd, &uc);
        expect_closed(uc);
        EXPECT_EQ(uc.bufcap, 2048U);
    }
}

TEST_F(Wopen, a_tcp_url_may_connect_without_blocking)
{
    const Local server(SOCK_STREAM);
    usock_ctx uc = {};
    uc.non_blocking = true;
    const int fd = usock_open(("tcp://127.0.0.1:" + server.port).c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(uc.sspec.async_connect, 1U);
    pollfd entry{fd, POLLOUT, 0};
    EXPECT_EQ(poll(&entry, 1, 120'000), 1);
    close(accept(server.fd, nullptr, nullptr));
    usock_close(fd, &uc);
}

TEST_F(Wopen, a_tcp_url_without_memory_for_its_buffer_is_refused)
{
    const Local server(SOCK_STREAM);
    usock_ctx uc = {};
    const FailAllocation failure(1);
    EXPECT_EQ(usock_open(("tcp://127.0.0.1:" + server.port).c_str(), &uc), -1);
    EXPECT_TRUE(failure.happened());
    expect_closed(uc);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  usock_open: calloc(1, 2048) ERROR(12): Cannot allocate memory"}));
}

TEST_F(Wopen, a_tcp_url_without_a_server_is_refused)
{
    std::string port;
    {
        const Local server(SOCK_STREAM);
        port = server.port;
    }
    expect_refused("tcp://127.0.0.1:" + port);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_NE(log.text().find("ERROR(111): Connection refused"), std::string::npos);
}

TEST_F(Wopen, names_of_the_hosts_file_resolve)
{
    if (std::ostringstream hosts; (hosts << std::ifstream("/etc/hosts").rdbuf()),
                                  hosts.str().find("127.0.0.1") == std::string::npos ||
                                      hosts.str().find("localhost") == std::string::npos) {
        GTEST_SKIP() << "skipped: /etc/hosts does not know localhost";
    }
    const Local server(SOCK_STREAM);
    usock_ctx uc = {};
    const int fd = usock_open(("tcp://localhost:" + server.port).c_str(), &uc);
    ASSERT_GE(fd, 0);
    close(accept(server.fd, nullptr, nullptr));
    usock_close(fd, &uc);
}

// ---- UDP and RTP ---------------------------------------------------------------------------------------

TEST_F(Wopen, a_report_target_is_a_non_blocking_sender_of_datagrams)
{
    const Local relay(SOCK_DGRAM);
    usock_ctx uc = {};
    uc.non_blocking = true;
    const int fd = usock_open(("udp://127.0.0.1:" + relay.port).c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(uc.url_kind, URI_UDP);
    EXPECT_EQ(uc.url_path, "127.0.0.1:" + relay.port);
    EXPECT_EQ(uc.sspec.writer, 1U);
    EXPECT_EQ(uc.sspec.non_blocking, 1U);
    EXPECT_EQ(uc.sspec.multicast, 0U);
    EXPECT_EQ(uc.sspec.socktype, SOCK_DGRAM);
    EXPECT_FALSE(uc.sspec.is_ssm);
    EXPECT_EQ(uc.buf, nullptr);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    send_to_target(fd, uc, "JOIN UDP://239.1.2.3\n");
    EXPECT_EQ(relay.receive(), "JOIN UDP://239.1.2.3\n");
    usock_close(fd, &uc);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Wopen, udp_and_rtp_readers_receive_what_is_sent_to_them)
{
    for (const char* scheme : {"udp", "rtp"}) {
        std::string port;
        {
            const Local probe(SOCK_DGRAM);
            port = probe.port;
        }
        usock_ctx reader = {};
        reader.inbound = true;
        const std::string url = std::string(scheme) + "://127.0.0.1:" + port;
        const int in = usock_open(url.c_str(), &reader);
        ASSERT_GE(in, 0);
        EXPECT_EQ(reader.url_kind, std::string(scheme) == "udp" ? URI_UDP : URI_RTP);
        EXPECT_EQ(reader.sspec.writer, 0U);
        usock_ctx writer = {};
        const int out = usock_open(url.c_str(), &writer);
        ASSERT_GE(out, 0);
        send_to_target(out, writer, "datagram");
        EXPECT_EQ(received(in), "datagram");
        usock_close(in, &reader);
        usock_close(out, &writer);
    }
}

TEST_F(Wopen, an_authority_is_ignored_by_a_writer)
{
    const Local relay(SOCK_DGRAM);
    log.set_level(DEBUG_level);
    usock_ctx uc = {};
    const int fd = usock_open(("udp://10.1.2.3@127.0.0.1:" + relay.port).c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(uc.sspec.is_ssm);
    EXPECT_EQ(log.text().find("SSM source"), std::string::npos);
    usock_close(fd, &uc);
}

TEST_F(Wopen, an_authority_is_the_source_of_a_reader)
{
    log.set_level(DEBUG_level);
    expect_refused("udp://nonsense@127.0.0.1:5000", [] {
        usock_ctx uc = {};
        uc.inbound = true;
        uc.sspec.family = AF_INET6; // of which no such source is
        return uc;
    }());
    EXPECT_TRUE(has_line(log, "(DBG)  usock_open: SSM source=[nonsense]"));
}

TEST_F(Wopen, a_timeout_is_set_by_direction_on_blocking_sockets_alone)
{
    const Local peer(SOCK_DGRAM);
    const Local server(SOCK_STREAM);
    for (const std::string& url : {"udp://127.0.0.1:" + peer.port, "tcp://127.0.0.1:" + server.port}) {
        for (const bool inbound : {false, true}) {
            if (inbound && url[0] == 'u') {
                continue; // the port is taken
            }
            for (const bool non_blocking : {false, true}) {
                for (const int ms : {0, 1500}) {
                    usock_ctx uc = {};
                    uc.inbound = inbound;
                    uc.non_blocking = non_blocking;
                    uc.timeout_ms = ms;
                    const int fd = usock_open(url.c_str(), &uc);
                    ASSERT_GE(fd, 0) << url;
                    const long expected = non_blocking ? 0 : ms * 1000L;
                    EXPECT_EQ(timeout_us(fd, SO_RCVTIMEO), inbound ? expected : 0) << url;
                    EXPECT_EQ(timeout_us(fd, SO_SNDTIMEO), inbound ? 0 : expected) << url;
                    usock_close(fd, &uc);
                }
            }
        }
    }
}

TEST_F(Wopen, a_udp_reader_has_a_receive_timeout)
{
    usock_ctx uc = {};
    uc.inbound = true;
    uc.timeout_ms = 20;
    const int fd = usock_open("udp://127.0.0.1:0", &uc);
    ASSERT_GE(fd, 0);
    char byte;
    EXPECT_EQ(recv(fd, &byte, 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    usock_close(fd, &uc);
}

TEST_F(Wopen, a_timeout_that_the_kernel_refuses_fails_the_opening)
{
    const Local peer(SOCK_DGRAM);
    usock_ctx uc = {};
    uc.timeout_ms = -5;
    expect_refused("udp://127.0.0.1:" + peer.port, uc);
    EXPECT_NE(log.text().find("ERROR(33)"), std::string::npos) << log.text();
}

// ---- groups --------------------------------------------------------------------------------------------

TEST_F(Wopen, a_reader_of_a_group_joins_it_and_leaves_it_when_closed)
{
    SKIP_WITHOUT_NAMESPACES();
    const NetnsPair pair;
    usock_ctx reader = {};
    reader.inbound = true;
    reader.ifc_tag = "va";
    const int in =
        inside(pair, &NetnsPair::enter_a, [&] { return usock_open("udp://239.1.2.3:5000", &reader); });
    ASSERT_GE(in, 0);
    EXPECT_EQ(reader.sspec.multicast, 1U);
    ASSERT_NE(reader.mifc, nullptr);
    EXPECT_STREQ(reader.mifc->name, "va");
    EXPECT_TRUE(inside(pair, &NetnsPair::enter_a, [] { return is_joined("030201EF"); }));

    usock_ctx writer = {};
    writer.ifc_tag = "vb";
    const int out =
        inside(pair, &NetnsPair::enter_b, [&] { return usock_open("udp://239.1.2.3:5000", &writer); });
    ASSERT_GE(out, 0);
    EXPECT_EQ(writer.sspec.multicast, 1U);
    send_to_target(out, writer, "to the group");
    EXPECT_EQ(received(in), "to the group");

    const int kept = dup(in); // the membership must end by the leave, not by the close
    usock_close(in, &reader);
    EXPECT_FALSE(inside(pair, &NetnsPair::enter_a, [] { return is_joined("030201EF"); }));
    EXPECT_EQ(log.text(), "");
    expect_closed(reader);
    usock_close(out, &writer);
    EXPECT_EQ(log.text(), "");
    close(kept);
}

TEST_F(Wopen, a_reader_of_an_ipv6_group_joins_it)
{
    SKIP_WITHOUT_NAMESPACES();
    const NetnsPair pair;
    usock_ctx reader = {};
    reader.inbound = true;
    reader.ifc_tag = "va";
    const int in =
        inside(pair, &NetnsPair::enter_a, [&] { return usock_open("rtp://[ff15::5]:5002", &reader); });
    ASSERT_GE(in, 0);
    EXPECT_EQ(reader.sspec.family, AF_INET6);
    EXPECT_NE(inside(pair, &NetnsPair::enter_a, [] { return proc_net("igmp6"); })
                  .find("ff150000000000000000000000000005"),
              std::string::npos);
    usock_ctx writer = {};
    writer.ifc_tag = "vb";
    const int out =
        inside(pair, &NetnsPair::enter_b, [&] { return usock_open("rtp://[ff15::5]:5002", &writer); });
    ASSERT_GE(out, 0);
    send_to_target(out, writer, "over IPv6");
    EXPECT_EQ(received(in), "over IPv6");
    usock_close(in, &reader);
    usock_close(out, &writer);
}

TEST_F(Wopen, a_source_specific_reader_hears_its_source)
{
    SKIP_WITHOUT_NAMESPACES();
    const NetnsPair pair;
    log.set_level(DEBUG_level);
    usock_ctx reader = {};
    reader.inbound = true;
    reader.ifc_tag = "va";
    const int in = inside(pair, &NetnsPair::enter_a,
                          [&] { return usock_open("udp://10.0.0.2@239.1.2.4:5001", &reader); });
    ASSERT_GE(in, 0);
    EXPECT_TRUE(reader.sspec.is_ssm);
    EXPECT_TRUE(has_line(log, "(DBG)  usock_open: SSM source=[10.0.0.2]"));
    const std::string filter = inside(pair, &NetnsPair::enter_a, [] { return proc_net("mcfilter"); });
    EXPECT_NE(filter.find("0xef010204 0x0a000002"), std::string::npos) << filter;
    usock_ctx writer = {};
    writer.ifc_tag = "vb";
    const int out =
        inside(pair, &NetnsPair::enter_b, [&] { return usock_open("udp://239.1.2.4:5001", &writer); });
    ASSERT_GE(out, 0);
    send_to_target(out, writer, "from the source");
    EXPECT_EQ(received(in), "from the source");
    usock_close(in, &reader);
    usock_close(out, &writer);
    EXPECT_FALSE(inside(pair, &NetnsPair::enter_a, [] { return is_joined("040201EF"); }));
}

// ---- closing -------------------------------------------------------------------------------------------

TEST_F(Wopen, closing_takes_a_descriptor_without_a_record_and_a_record_without_a_descriptor)
{
    usock_close(dup(0), nullptr);
    usock_close(-1, nullptr);
    usock_ctx uc = {};
    uc.url_path = strdup("path");
    uc.mifc = static_cast<ifc_info*>(calloc(1, sizeof(ifc_info)));
    uc.buf = static_cast<char*>(malloc(10));
    uc.buflen = 7;
    uc.bufcap = 10;
    usock_close(-1, &uc);
    expect_closed(uc);
    EXPECT_EQ(uc.bufcap, 10U);
    usock_close(-1, &uc);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Wopen, kept_a_reader_of_a_group_without_a_descriptor_is_left_too_with_two_lines)
{
    usock_ctx uc = {};
    uc.sspec.multicast = 1;
    auto* const group = reinterpret_cast<sockaddr_in*>(&uc.sspec.addr_ss);
    group->sin_family = AF_INET;
    group->sin_addr.s_addr = htonl(0xef010203);
    usock_close(-1, &uc);
    EXPECT_EQ(log.lines().size(), 2U);
    EXPECT_NE(log.text().find("Bad file descriptor"), std::string::npos) << log.text();
    log.clear();
    uc.sspec.writer = 1; // which has joined nothing
    usock_close(-1, &uc);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Wopen, a_length_without_a_buffer_stays)
{
    usock_ctx uc = {};
    uc.buflen = 7;
    usock_close(-1, &uc);
    EXPECT_EQ(uc.buflen, 7U);
}

TEST_F(Wopen, a_closed_record_can_be_opened_again)
{
    const Local relay(SOCK_DGRAM);
    const Local server(SOCK_STREAM);
    usock_ctx uc = {};
    for (const std::string& url : {"udp://127.0.0.1:" + relay.port, "tcp://127.0.0.1:" + server.port,
                                   "udp://127.0.0.1:" + relay.port}) {
        const int fd = usock_open(url.c_str(), &uc);
        EXPECT_GE(fd, 0) << url;
        usock_close(fd, &uc);
        expect_closed(uc);
    }
}

TEST_F(Wopen, the_index_of_the_loop_is_left_alone)
{
    const Local relay(SOCK_DGRAM);
    usock_ctx uc = {};
    uc.nopoll_idx = 77;
    const int fd = usock_open(("udp://127.0.0.1:" + relay.port).c_str(), &uc);
    usock_close(fd, &uc);
    EXPECT_EQ(uc.nopoll_idx, 77);
}
