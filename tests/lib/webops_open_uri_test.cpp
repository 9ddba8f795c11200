// URLs opened into records of descriptors.
#include "webops.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fdrec.h"
#include "fixtures.h"
#include "netns.h"
#include "netops.h"
#include "oom.h"
#include "tempdir.h"
#include "text.h"
#include "uri.h"
#include "wrap.h"

using support::FailAllocation;
using support::inside;
using support::Lines;
using support::NetnsPair;
using support::TempDir;

namespace {

int g_forced_kind = 0; // what uri_extract answers; 0: its own result

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
            EXPECT_EQ(listen(fd, 16), 0);
        }
    }

    Local(const Local&) = delete;
    Local& operator=(const Local&) = delete;

    ~Local() { close(fd); }

    int fd;
    std::string port;
};

bool is_ready(int fd, short events)
{
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, 120'000) == 1;
}

std::string proc_net(const char* name)
{
    std::ostringstream text;
    text << std::ifstream(std::string("/proc/thread-self/net/") + name).rdbuf();
    return text.str();
}

} // namespace

WRAPPED(int, uri_extract, (const char* uri, char* scheme, char* authority, char* path, char* query));

extern "C" {
int __wrap_uri_extract(const char* uri, char* scheme, char* authority, char* path, char* query)
{
    const int kind = __real_uri_extract(uri, scheme, authority, path, query);
    return g_forced_kind != 0 ? g_forced_kind : kind;
}
}

class WebopsOpenUri : public support::GuardedTest {};

TEST_F(WebopsOpenUri, a_source_file_is_opened_for_reading)
{
    const TempDir dir;
    dir.write("file", "content");
    int kind = 77;
    fdrec* const r = open_uri_src(("file://" + dir.path("file")).c_str(), nullptr, &kind);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(kind, URI_FILE);
    EXPECT_EQ(r->path, dir.path("file"));
    EXPECT_TRUE(S_ISREG(r->mode));
    EXPECT_EQ(r->sspec, nullptr);
    EXPECT_EQ(r->mifc, nullptr);
    EXPECT_EQ(r->wd, -1);
    EXPECT_EQ(fcntl(r->fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    free_fdrec(r);
    EXPECT_EQ(log.text(), "");
}

TEST_F(WebopsOpenUri, a_destination_file_is_made_and_must_not_exist)
{
    const TempDir dir;
    const std::string url = "file://" + dir.path("new");
    fdrec* const r = open_uri_dst(url.c_str(), nullptr);
    ASSERT_NE(r, nullptr);
    EXPECT_TRUE(S_ISREG(r->mode));
    EXPECT_EQ(write(r->fd, "abc", 3), 3);
    free_fdrec(r);
    EXPECT_EQ(dir.read("new"), "abc");
    int kind = 77;
    EXPECT_EQ(open_uri_dst(url.c_str(), &kind), nullptr);
    EXPECT_EQ(kind, 77);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_NE(log.text().find("ERROR(17): File exists"), std::string::npos) << log.text();
}

TEST_F(WebopsOpenUri, a_source_file_that_is_missing_gives_null)
{
    int kind = 77;
    EXPECT_EQ(open_uri_src("file:///nonexistent/file", nullptr, &kind), nullptr);
    EXPECT_EQ(kind, 77);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  open_src_file: open('/nonexistent/file', 0, 0x0) ERROR(2): No such "
                                  "file or directory"}));
}

TEST_F(WebopsOpenUri, kept_a_shared_memory_name_is_removed_by_a_failed_opening)
{
    const std::string name = "/shm.open_uri_test." + std::to_string(getpid());
    const int fd = shm_open(name.c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(open_uri_src(("file://" + name).c_str(), nullptr, nullptr), nullptr);
    EXPECT_EQ(shm_open(name.c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(WebopsOpenUri, tcp_and_http_connect_without_blocking_and_send_nothing)
{
    const Local server(SOCK_STREAM);
    for (const char* scheme : {"tcp", "http"}) {
        for (const bool inbound : {false, true}) {
            const std::string url = std::string(scheme) + "://127.0.0.1:" + server.port + "/x";
            int kind = 77;
            fdrec* const r =
                inbound ? open_uri_src(url.c_str(), nullptr, &kind) : open_uri_dst(url.c_str(), &kind);
            ASSERT_NE(r, nullptr) << url;
            EXPECT_EQ(kind, std::string(scheme) == "tcp" ? URI_TCP : URI_HTTP);
            EXPECT_EQ(r->path, "127.0.0.1:" + server.port + "/x");
            EXPECT_TRUE(S_ISSOCK(r->mode));
            ASSERT_NE(r->sspec, nullptr);
            EXPECT_EQ(r->sspec->writer, inbound ? 0U : 1U);
            EXPECT_EQ(r->sspec->non_blocking, 1U);
            EXPECT_EQ(r->sspec->async_connect, 1U);
            EXPECT_EQ(r->sspec->socktype, SOCK_STREAM);
            EXPECT_EQ(r->mifc, nullptr);
            EXPECT_NE(fcntl(r->fd, F_GETFL) & O_NONBLOCK, 0);
            EXPECT_TRUE(is_ready(r->fd, POLLOUT));
            ASSERT_TRUE(is_ready(server.fd, POLLIN));
            const int peer = accept(server.fd, nullptr, nullptr);
            free_fdrec(r);
            char byte;
            EXPECT_TRUE(is_ready(peer, POLLIN));
            EXPECT_EQ(recv(peer, &byte, 1, 0), 0);
            close(peer);
        }
    }
}

TEST_F(WebopsOpenUri, no_port_is_assumed)
{
    for (const char* scheme : {"tcp", "udp", "rtp", "http"}) {
        log.clear();
        EXPECT_EQ(open_uri_src((std::string(scheme) + "://127.0.0.1").c_str(), nullptr, nullptr), nullptr);
        EXPECT_EQ(log.lines(), (Lines{"(ERR)  open_socket: empty or invalid port []"})) << scheme;
    }
}

TEST_F(WebopsOpenUri, datagrams_go_from_a_destination_to_a_source)
{
    for (const char* scheme : {"udp", "rtp"}) {
        std::string port;
        {
            const Local probe(SOCK_DGRAM);
            port = probe.port;
        }
        const std::string url = std::string(scheme) + "://127.0.0.1:" + port;
        int kind = 77;
        fdrec* const in = open_uri_src(url.c_str(), nullptr, &kind);
        ASSERT_NE(in, nullptr);
        EXPECT_EQ(kind, std::string(scheme) == "udp" ? URI_UDP : URI_RTP);
        EXPECT_EQ(in->sspec->socktype, SOCK_DGRAM);
        fdrec* const out = open_uri_dst(url.c_str(), &kind);
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(sendto(out->fd, "abc", 3, 0, reinterpret_cast<sockaddr*>(&out->sspec->addr_ss),
                         out->sspec->addr_len),
                  3);
        char block[8];
        EXPECT_TRUE(is_ready(in->fd, POLLIN));
        EXPECT_EQ(recv(in->fd, block, sizeof block, 0), 3);
        free_fdrec(in);
        free_fdrec(out);
    }
}

TEST_F(WebopsOpenUri, an_authority_is_the_source_of_an_inbound_datagram_url_alone)
{
    const Local relay(SOCK_DGRAM);
    const Local server(SOCK_STREAM);
    log.set_level(DEBUG_level);
    fdrec* r = open_uri_dst(("udp://10.1.2.3@127.0.0.1:" + relay.port).c_str(), nullptr);
    ASSERT_NE(r, nullptr);
    EXPECT_FALSE(r->sspec->is_ssm);
    free_fdrec(r);
    r = open_uri_src(("tcp://10.1.2.3@127.0.0.1:" + server.port).c_str(), nullptr, nullptr);
    ASSERT_NE(r, nullptr);
    free_fdrec(r);
    EXPECT_EQ(log.text().find("SSM source"), std::string::npos);
}

TEST_F(WebopsOpenUri, a_source_of_a_group_joins_it_for_one_sender)
{
    if (const std::string why = support::netns_missing(); !why.empty()) {
        GTEST_SKIP() << "skipped: " << why;
    }
    const NetnsPair pair;
    log.set_level(DEBUG_level);
    fdrec* const r = inside(pair, &NetnsPair::enter_a,
                            [] { return open_uri_src("udp://10.0.0.2@239.1.2.9:5001", "va", nullptr); });
    ASSERT_NE(r, nullptr);
    EXPECT_NE(log.text().find("(DBG)  open_uri: SSM source=[10.0.0.2]\n"), std::string::npos);
    EXPECT_TRUE(r->sspec->is_ssm);
    EXPECT_EQ(r->sspec->multicast, 1U);
    ASSERT_NE(r->mifc, nullptr);
    EXPECT_STREQ(r->mifc->name, "va");
    const std::string filter = inside(pair, &NetnsPair::enter_a, [] { return proc_net("mcfilter"); });
    EXPECT_NE(filter.find("0xef010209 0x0a000002"), std::string::npos) << filter;
    free_fdrec(r);
    EXPECT_EQ(inside(pair, &NetnsPair::enter_a, [] { return proc_net("mcfilter"); }).find("0xef010209"),
              std::string::npos);
}

TEST_F(WebopsOpenUri, texts_that_are_no_url_give_null)
{
    for (const char* url : {"", "127.0.0.1:80", "ftp://127.0.0.1:80", "tcp://[::1"}) {
        log.clear();
        int kind = 77;
        EXPECT_EQ(open_uri_src(url, nullptr, &kind), nullptr) << url;
        EXPECT_EQ(open_uri_dst(url, &kind), nullptr) << url;
        EXPECT_EQ(kind, 77);
        EXPECT_NE(log.text(), "");
    }
}

TEST_F(WebopsOpenUri, a_kind_that_is_none_is_logged_without_line_end)
{
    g_forced_kind = 7;
    EXPECT_EQ(open_uri_src("udp://127.0.0.1:9", nullptr, nullptr), nullptr);
    g_forced_kind = 0;
    EXPECT_EQ(log.text(), "(ERR)  open_uri: unsupported type of URI [udp://127.0.0.1:9]");
}

TEST_F(WebopsOpenUri, each_allocation_may_fail)
{
    const Local relay(SOCK_DGRAM);
    for (size_t n = 1; n <= 2; ++n) {
        log.clear();
        const FailAllocation failure(n);
        EXPECT_EQ(open_uri_dst(("udp://127.0.0.1:" + relay.port).c_str(), nullptr), nullptr) << n;
        EXPECT_TRUE(failure.happened());
        ASSERT_EQ(log.lines().size(), 1U);
        EXPECT_NE(log.text().find(n == 1 ? "(ERR)  alloc_fdrec: calloc(1, " : "(ERR)  open_uri: calloc(1, "),
                  std::string::npos)
            << log.text();
    }
}
