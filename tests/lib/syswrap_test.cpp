// The checked calls on the real kernel: result, errno, number of lines and their text, for each call both
// ways.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child.h"
#include "fds.h"
#include "fixtures.h"
#include "netns.h"
#include "oom.h"
#include "syswrap.h"
#include "tempdir.h"
#include "text.h"
#include "wrap.h"

using support::FailAllocation;
using support::format;
using support::Lines;
using support::SocketPair;
using support::TempDir;

namespace {

bool g_fail_fork = false;
int g_pread_errno = 0; // fails with it

sockaddr_in loopback(uint16_t port = 0)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

const sockaddr* raw(const sockaddr_in& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

// A bound socket on loopback and its address.
struct Bound {
    explicit Bound(int type, bool listening = false) : fd(socket(AF_INET, type, 0)), address(loopback())
    {
        EXPECT_EQ(bind(fd, raw(address), sizeof address), 0);
        socklen_t length = sizeof address;
        EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
        if (listening) {
            EXPECT_EQ(listen(fd, 8), 0);
        }
    }

    Bound(const Bound&) = delete;
    Bound& operator=(const Bound&) = delete;

    ~Bound() { close(fd); }

    int fd;
    sockaddr_in address;
};

// Sends SIGALRM every few milliseconds to a handler that does not restart calls.
class Interrupts {
  public:
    Interrupts()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        const itimerval every{{0, 5000}, {0, 5000}};
        setitimer(ITIMER_REAL, &every, nullptr);
    }

    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    ~Interrupts()
    {
        const itimerval none{};
        setitimer(ITIMER_REAL, &none, nullptr);
    }
};

constexpr int kBadFd = 999;

} // namespace

WRAPPED(pid_t, fork, ());

extern "C" {
pid_t __wrap_fork()
{
    if (g_fail_fork) {
        errno = EAGAIN;
        return -1;
    }
    return __real_fork();
}

WRAPPED(ssize_t, pread, (int fd, void* buf, size_t count, off_t offset));

ssize_t __wrap_pread(int fd, void* buf, size_t count, off_t offset)
{
    if (g_pread_errno != 0) {
        errno = g_pread_errno;
        return -1;
    }
    return __real_pread(fd, buf, count, offset);
}
}

// ---- no_fault ------------------------------------------------------------------------------------

class Syswrap : public support::GuardedTest {};

TEST_F(Syswrap, no_fault_knows_four_ordinary_errors_of_a_stream)
{
    for (int err = -1; err < 140; ++err) {
        const bool ordinary = err == 11 || err == 32 || err == 4 || err == 104;
        EXPECT_EQ(no_fault(err, 0), ordinary ? 1 : 0) << err;
    }
}

TEST_F(Syswrap, no_fault_excuses_nothing_for_the_guilty)
{
    for (const u_int32_t guilty : {1U, 4096U, 0x80000000U, 0xffffffffU}) {
        for (int err = -1; err < 140; ++err) {
            EXPECT_EQ(no_fault(err, guilty), 0) << err;
        }
    }
}

// ---- files and memory ------------------------------------------------------------------------------

TEST_F(Syswrap, open_creates_with_mode_644)
{
    const TempDir dir;
    umask(0);
    const int fd = Open(dir.path("file").c_str(), O_CREAT | O_WRONLY);
    ASSERT_GE(fd, 0);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644U);
    EXPECT_EQ(log.text(), "");
    close(fd);
}

TEST_F(Syswrap, open3_creates_with_the_mode_given)
{
    const TempDir dir;
    umask(0);
    const int fd = Open3(dir.path("file").c_str(), O_CREAT | O_WRONLY, 0751);
    ASSERT_GE(fd, 0);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0751U);
    close(fd);
}

TEST_F(Syswrap, open_failure_shows_mode_0x0_and_open3_its_own)
{
    EXPECT_EQ(Open("/nonexistent/file", O_CREAT | O_WRONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(Open3("/nonexistent/file", O_RDONLY, 0640), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(
        log.lines(),
        (Lines{"(ERR)  TestBody: open('/nonexistent/file', 65, 0x0) ERROR(2): No such file or directory",
               "(ERR)  TestBody: open('/nonexistent/file', 0, 0x1a0) ERROR(2): No such file or "
               "directory"}));
}

TEST_F(Syswrap, close_of_a_bad_descriptor_is_logged)
{
    EXPECT_EQ(Close(kBadFd), -1);
    EXPECT_EQ(errno, 9);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  TestBody: close(fd999) ERROR(9): Bad file descriptor"}));
}

TEST_F(Syswrap, close_tells_success_at_debug_level_only)
{
    for (const int level : {NORM_level, INFO_level, DEBUG_level}) {
        log.clear();
        log.set_level(level);
        const int fd = dup(0);
        EXPECT_EQ(Close(fd), 0);
        EXPECT_EQ(log.lines(),
                  level < DEBUG_level ? Lines{} : Lines{format("(DBG)  TestBody: CLOSED(fd%d)", fd)});
    }
}

TEST_F(Syswrap, calloc_gives_zeroed_memory)
{
    log.set_level(DEBUG_level);
    auto* block = static_cast<unsigned char*>(Calloc(7, 3));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 21; ++i) {
        EXPECT_EQ(block[i], 0);
    }
    EXPECT_EQ(log.text(), "");
    free(block);
}

TEST_F(Syswrap, calloc_without_memory_is_logged)
{
    const FailAllocation failure(1);
    EXPECT_EQ(Calloc(7, 3), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  TestBody: calloc(7, 3) ERROR(12): Cannot allocate memory"}));
}

TEST_F(Syswrap, realloc_keeps_what_the_block_holds)
{
    log.set_level(DEBUG_level);
    auto* block = static_cast<char*>(malloc(4));
    memcpy(block, "abc", 4);
    block = static_cast<char*>(Realloc(block, 4000));
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block, "abc");
    EXPECT_EQ(log.text(), "");
    free(block);
}

TEST_F(Syswrap, realloc_without_memory_is_logged_and_leaves_the_block)
{
    auto* block = static_cast<char*>(malloc(4));
    memcpy(block, "abc", 4);
    {
        const FailAllocation failure(1);
        EXPECT_EQ(Realloc(block, 4000), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
    EXPECT_STREQ(block, "abc");
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  TestBody: realloc(%p, 4000) ERROR(12): Cannot allocate memory",
                            static_cast<void*>(block))}));
    free(block);
}

TEST_F(Syswrap, lseek_both_ways)
{
    const TempDir dir;
    const int fd = open(dir.path("file").c_str(), O_CREAT | O_RDWR, 0600);
    EXPECT_EQ(Lseek(fd, 5'000'000'000, SEEK_SET), 5'000'000'000);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Lseek(fd, -5'000'000'001, SEEK_CUR), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  TestBody: lseek(%d, -5000000001, 1) ERROR(22): Invalid argument", fd)}));
    close(fd);
}

TEST_F(Syswrap, unlink_both_ways)
{
    const TempDir dir;
    close(open(dir.path("file").c_str(), O_CREAT | O_WRONLY, 0600));
    EXPECT_EQ(Unlink(dir.path("file").c_str()), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Unlink(dir.path("file").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  TestBody: unlink(" + dir.path("file") +
                                  ") ERROR(2): No such file or directory"}));
}

TEST_F(Syswrap, ftruncate_both_ways)
{
    const TempDir dir;
    const int fd = open(dir.path("file").c_str(), O_CREAT | O_RDWR, 0600);
    EXPECT_EQ(Ftruncate(fd, 77), 0);
    struct stat st;
    fstat(fd, &st);
    EXPECT_EQ(st.st_size, 77);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Ftruncate(fd, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  TestBody: ftruncate(%d, -1) ERROR(22): Invalid argument", fd)}));
    close(fd);
}

// ---- streams -----------------------------------------------------------------------------------------

TEST_F(Syswrap, write_to_a_peer_that_has_gone_is_silent_without_flags)
{
    signal(SIGPIPE, SIG_IGN);
    SocketPair pair;
    pair.peer.reset();
    EXPECT_EQ(Write_f(pair.ours, "x", 1, 0), -1);
    EXPECT_EQ(errno, 32);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Syswrap, write_to_a_peer_that_has_gone_is_logged_with_flags)
{
    signal(SIGPIPE, SIG_IGN);
    SocketPair pair;
    pair.peer.reset();
    const char byte = 'x';
    EXPECT_EQ(Write_f(pair.ours, &byte, 1, 1), -1);
    EXPECT_EQ(errno, 32);
    EXPECT_EQ(log.lines(), (Lines{format("(ERR)  TestBody: write(%d, %p, 1) ERROR(32): Broken pipe",
                                         pair.ours.get(), static_cast<const void*>(&byte))}));
}

TEST_F(Syswrap, write_and_read_give_counts_in_silence)
{
    log.set_level(DEBUG_level);
    const SocketPair pair;
    char buf[8] = {};
    EXPECT_EQ(Write_f(pair.ours, "abc", 3, 1), 3);
    EXPECT_EQ(Read_f(pair.peer, buf, sizeof buf, 1), 3);
    EXPECT_STREQ(buf, "abc");
    shutdown(pair.ours, SHUT_WR);
    EXPECT_EQ(Read_f(pair.peer, buf, sizeof buf, 1), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Syswrap, read_of_an_empty_non_blocking_socket_is_logged_only_with_flags)
{
    const SocketPair pair;
    fcntl(pair.ours, F_SETFL, O_NONBLOCK);
    char buf[8];
    EXPECT_EQ(Read_f(pair.ours, buf, sizeof buf, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Read_f(pair.ours, buf, sizeof buf, 0x80000000), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  TestBody: read(%d, %p, 8) ERROR(11): Resource temporarily unavailable",
                            pair.ours.get(), static_cast<void*>(buf))}));
}

TEST_F(Syswrap, read_after_a_reset_is_silent_without_flags)
{
    const Bound listener(SOCK_STREAM, true);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(client, raw(listener.address), sizeof listener.address), 0);
    const int server = accept(listener.fd, nullptr, nullptr);
    const linger reset{1, 0};
    setsockopt(server, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(server);
    char byte;
    EXPECT_EQ(Read_f(client, &byte, 1, 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(log.text(), "");
    close(client);
}

TEST_F(Syswrap, read_that_a_signal_interrupts_is_silent_without_flags)
{
    const SocketPair pair;
    const Interrupts interrupts;
    char byte;
    EXPECT_EQ(Read_f(pair.ours, &byte, 1, 0), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Syswrap, pread_is_silent_about_ordinary_errors_without_flags)
{
    char byte = 0;
    for (const int err : {EAGAIN, EPIPE, EINTR, ECONNRESET}) {
        g_pread_errno = err;
        log.clear();
        EXPECT_EQ(Pread_f(0, &byte, 1, 7, 0), -1);
        EXPECT_EQ(errno, err);
        EXPECT_EQ(log.text(), "");
        EXPECT_EQ(Pread_f(0, &byte, 1, 7, 1), -1);
        EXPECT_EQ(errno, err);
        EXPECT_EQ(log.lines(), (Lines{format("(ERR)  TestBody: pread(0, %p, 1, 7) ERROR(%d): %s",
                                             static_cast<void*>(&byte), err, strerror(err))}));
    }
    g_pread_errno = 0;
}

TEST_F(Syswrap, sendfile_to_a_peer_that_has_gone_is_logged_with_flags)
{
    signal(SIGPIPE, SIG_IGN);
    const TempDir dir;
    SocketPair pair;
    pair.peer.reset();
    const int fd = open(dir.path("file").c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_EQ(write(fd, "0123456789", 10), 10);
    off_t offset = 2;
    EXPECT_EQ(Sendfile_f(pair.ours, fd, &offset, 3, 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(log.text(), format("(ERR)  TestBody: LNX sendfile(%d<-%d, 2, 3) ERROR(32): Broken pipe",
                                 pair.ours.get(), fd));
    close(fd);
}

TEST_F(Syswrap, faults_of_a_stream_are_logged_without_flags_too)
{
    char byte = 0;
    off_t offset = 12;
    void* const at = &byte;
    EXPECT_EQ(Write_f(kBadFd, &byte, 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(Read_f(kBadFd, &byte, 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(Pread_f(kBadFd, &byte, 1, 5'000'000'000, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(Sendfile_f(kBadFd, 998, &offset, 34, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(
        log.lines(),
        (Lines{format("(ERR)  TestBody: write(999, %p, 1) ERROR(9): Bad file descriptor", at),
               format("(ERR)  TestBody: read(999, %p, 1) ERROR(9): Bad file descriptor", at),
               format("(ERR)  TestBody: pread(999, %p, 1, 5000000000) ERROR(9): Bad file descriptor", at),
               "(ERR)  TestBody: LNX sendfile(999<-998, 12, 34) ERROR(9): Bad file descriptor"}));
}

TEST_F(Syswrap, pread_and_sendfile_succeed_in_silence)
{
    const TempDir dir;
    log.set_level(DEBUG_level);
    const SocketPair pair;
    const int fd = open(dir.path("file").c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_EQ(write(fd, "0123456789", 10), 10);
    char buf[8] = {};
    EXPECT_EQ(Pread_f(fd, buf, 4, 3, 1), 4);
    EXPECT_STREQ(buf, "3456");
    off_t offset = 6;
    EXPECT_EQ(Sendfile_f(pair.ours, fd, &offset, 3, 1), 3);
    EXPECT_EQ(offset, 9);
    EXPECT_EQ(read(pair.peer, buf, sizeof buf), 3);
    EXPECT_EQ(std::string(buf, 3), "678");
    EXPECT_EQ(log.text(), "");
    close(fd);
}

TEST_F(Syswrap, sendfile_to_a_peer_that_has_gone_is_silent_without_flags)
{
    signal(SIGPIPE, SIG_IGN);
    const TempDir dir;
    SocketPair pair;
    pair.peer.reset();
    const int fd = open(dir.path("file").c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_EQ(write(fd, "0123456789", 10), 10);
    off_t offset = 2;
    EXPECT_EQ(Sendfile_f(pair.ours, fd, &offset, 3, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(log.text(), "");
    close(fd);
}

TEST_F(Syswrap, kept_the_line_of_sendfile_has_no_line_end)
{
    off_t offset = 12;
    EXPECT_EQ(Sendfile_f(kBadFd, kBadFd, &offset, 34, 1), -1);
    EXPECT_EQ(Close(kBadFd), -1);
    EXPECT_EQ(log.text(), "(ERR)  TestBody: LNX sendfile(999<-999, 12, 34) ERROR(9): Bad file descriptor"
                          "(ERR)  TestBody: close(fd999) ERROR(9): Bad file descriptor\n");
}

// ---- sockets -----------------------------------------------------------------------------------------

TEST_F(Syswrap, socket_tells_success_at_debug_level_only)
{
    for (const int level : {INFO_level, DEBUG_level}) {
        log.clear();
        log.set_level(level);
        const int fd = Socket(AF_INET, SOCK_DGRAM, 17);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(log.lines(), level < DEBUG_level
                                   ? Lines{}
                                   : Lines{format("(DBG)  TestBody opened socket fd=%d (2, 2, 17)", fd)});
        close(fd);
    }
}

TEST_F(Syswrap, socket_of_an_unknown_family_is_logged)
{
    log.set_level(DEBUG_level);
    EXPECT_EQ(Socket(250, SOCK_STREAM, 6), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  TestBody: socket(250, 1, 6) ERROR(97): Address family not "
                                  "supported by protocol"}));
}

TEST_F(Syswrap, socket_options_both_ways)
{
    const SocketPair pair;
    int on = 1;
    int got = 0;
    socklen_t length = sizeof got;
    EXPECT_EQ(Setsockopt(pair.ours, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on), 0);
    EXPECT_EQ(Getsockopt(pair.ours, SOL_SOCKET, SO_KEEPALIVE, &got, &length), 0);
    EXPECT_EQ(got, 1);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Setsockopt(kBadFd, SOL_SOCKET, SO_KEEPALIVE, &on, 3), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(Getsockopt(kBadFd, SOL_SOCKET, SO_KEEPALIVE, &got, &length), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(Getsockopt(kBadFd, SOL_SOCKET, SO_KEEPALIVE, &got, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  TestBody: setsockopt(999, 1, 9, %p, 3) ERROR(9): Bad file descriptor",
                            static_cast<void*>(&on)),
                     format("(ERR)  TestBody: getsockopt(999, 1, 9, %p, 4) ERROR(9): Bad file descriptor",
                            static_cast<void*>(&got)),
                     format("(ERR)  TestBody: getsockopt(999, 1, 9, %p, 0) ERROR(9): Bad file descriptor",
                            static_cast<void*>(&got))}));
}

TEST_F(Syswrap, bind_of_a_taken_port_is_logged)
{
    const Bound taken(SOCK_STREAM, true);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(Bind(fd, raw(taken.address), sizeof taken.address), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  TestBody: bind(%d, %p, 16): ERROR(98): Address already in use", fd,
                            static_cast<const void*>(&taken.address))}));
    log.clear();
    const sockaddr_in any_port = loopback();
    EXPECT_EQ(Bind(fd, raw(any_port), sizeof any_port), 0);
    EXPECT_EQ(log.text(), "");
    close(fd);
}

TEST_F(Syswrap, listen_both_ways)
{
    const Bound stream(SOCK_STREAM);
    EXPECT_EQ(Listen(stream.fd, 5), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Listen(kBadFd, 5), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  TestBody: listen(999, 5) ERROR(9): Bad file descriptor"}));
}

TEST_F(Syswrap, connect_blocking_both_ways)
{
    log.set_level(INFO_level);
    sockaddr_in gone;
    {
        const Bound listener(SOCK_STREAM, true);
        gone = listener.address;
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(Connect(fd, raw(listener.address), sizeof listener.address), 0);
        EXPECT_EQ(log.text(), "");
        const linger reset{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        close(fd);
    }
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(Connect(fd, raw(gone), sizeof gone), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  TestBody: connect(%d, %p, 16) ERROR(111): Connection refused", fd,
                            static_cast<void*>(&gone))}));
    close(fd);
}

TEST_F(Syswrap, kept_connect_in_progress_names_the_wrapper_at_info_level)
{
    const Bound listener(SOCK_STREAM, true);
    for (const int level : {NORM_level, INFO_level}) {
        log.clear();
        log.set_level(level);
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        EXPECT_EQ(Connect(fd, raw(listener.address), sizeof listener.address), -1);
        EXPECT_EQ(errno, 115);
        EXPECT_EQ(log.lines(),
                  level < INFO_level
                      ? Lines{}
                      : Lines{format("(INF)  W_connect: non-blocking connect in progress for fd%d", fd)});
        close(fd);
    }
}

TEST_F(Syswrap, accept_gives_the_client_and_its_address)
{
    log.set_level(DEBUG_level);
    const Bound listener(SOCK_STREAM, true);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(client, raw(listener.address), sizeof listener.address), 0);
    sockaddr_in peer;
    socklen_t length = sizeof peer;
    const int server = Accept(listener.fd, reinterpret_cast<sockaddr*>(&peer), &length);
    EXPECT_GE(server, 0);
    EXPECT_EQ(length, sizeof peer);
    EXPECT_EQ(peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(log.text(), "");
    close(server);
    close(client);
}

TEST_F(Syswrap, accept_without_a_client_is_silent)
{
    log.set_level(DEBUG_level);
    const Bound listener(SOCK_STREAM, true);
    fcntl(listener.fd, F_SETFL, O_NONBLOCK);
    EXPECT_EQ(Accept(listener.fd, nullptr, nullptr), -1);
    EXPECT_EQ(errno, 11);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Syswrap, accept_that_a_signal_interrupts_is_logged)
{
    const Bound listener(SOCK_STREAM, true);
    sockaddr_in peer;
    socklen_t length = sizeof peer;
    {
        const Interrupts interrupts;
        EXPECT_EQ(Accept(listener.fd, reinterpret_cast<sockaddr*>(&peer), &length), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(Accept(listener.fd, nullptr, nullptr), -1);
        EXPECT_EQ(errno, EINTR);
    }
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  TestBody: accept(%d, %p, 16) ERROR(4): Interrupted system call",
                            listener.fd, static_cast<void*>(&peer)),
                     format("(ERR)  TestBody: accept(%d, %p, 0) ERROR(4): Interrupted system call",
                            listener.fd, static_cast<void*>(nullptr))}));
}

TEST_F(Syswrap, sendto_and_recvfrom_exchange_a_datagram_in_silence)
{
    log.set_level(DEBUG_level);
    const Bound from(SOCK_DGRAM);
    const Bound to(SOCK_DGRAM);
    char buf[8] = {};
    sockaddr_in peer;
    socklen_t length = sizeof peer;
    EXPECT_EQ(Sendto(from.fd, "hey", 3, 0, raw(to.address), sizeof to.address), 3);
    EXPECT_EQ(Recvfrom(to.fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&peer), &length), 3);
    EXPECT_STREQ(buf, "hey");
    EXPECT_EQ(peer.sin_port, from.address.sin_port);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Syswrap, sendto_and_recvfrom_tolerate_no_error)
{
    const SocketPair pair;
    char buf[8] = {};
    while (send(pair.ours, buf, sizeof buf, MSG_DONTWAIT) > 0) {
    }
    EXPECT_EQ(Sendto(pair.ours, buf, 8, MSG_DONTWAIT, nullptr, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(Recvfrom(pair.ours, buf, 8, MSG_DONTWAIT, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(
        log.lines(),
        (Lines{
            format("(ERR)  TestBody: sendto(%d, %p, 8, 64, ...) ERROR(11): Resource temporarily unavailable",
                   pair.ours.get(), static_cast<void*>(buf)),
            format(
                "(ERR)  TestBody: recvfrom(%d, %p, 8, 64, ...) ERROR(11): Resource temporarily unavailable",
                pair.ours.get(), static_cast<void*>(buf))}));
}

TEST_F(Syswrap, kept_sendto_of_nothing_logs_an_error_and_returns_0)
{
    const Bound from(SOCK_DGRAM);
    const Bound to(SOCK_DGRAM);
    const char byte = 'x';
    errno = 0;
    EXPECT_EQ(Sendto(from.fd, &byte, 0, 0, raw(to.address), sizeof to.address), 0);
    EXPECT_EQ(errno, 0);
    errno = ENOTTY;
    EXPECT_EQ(Sendto(from.fd, &byte, 0, 0, raw(to.address), sizeof to.address), 0);
    EXPECT_EQ(errno, ENOTTY);
    const void* const at = &byte;
    EXPECT_EQ(
        log.lines(),
        (Lines{format("(ERR)  TestBody: sendto(%d, %p, 0, 0, ...) ERROR(0): Success", from.fd, at),
               format("(ERR)  TestBody: sendto(%d, %p, 0, 0, ...) ERROR(25): Inappropriate ioctl for device",
                      from.fd, at)}));
}

TEST_F(Syswrap, kept_recvfrom_of_nothing_logs_an_error_and_returns_0)
{
    const Bound to(SOCK_DGRAM);
    SocketPair pair;
    pair.peer.reset();
    char buf[8];
    ASSERT_EQ(sendto(to.fd, buf, 0, 0, raw(to.address), sizeof to.address), 0);
    errno = 0;
    EXPECT_EQ(Recvfrom(to.fd, buf, sizeof buf, 0, nullptr, nullptr), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(Recvfrom(pair.ours, buf, sizeof buf, 0, nullptr, nullptr), 0);
    void* const at = buf;
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  TestBody: recvfrom(%d, %p, 8, 0, ...) ERROR(0): Success", to.fd, at),
                     format("(ERR)  TestBody: recvfrom(%d, %p, 8, 0, ...) ERROR(0): Success", pair.ours.get(),
                            at)}));
}

// ---- names -------------------------------------------------------------------------------------------

TEST_F(Syswrap, getaddrinfo_resolves_a_numeric_address)
{
    log.set_level(DEBUG_level);
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* res = nullptr;
    ASSERT_EQ(Getaddrinfo("127.0.0.1", "80", &hints, &res), 0);
    EXPECT_EQ(res->ai_family, AF_INET);
    freeaddrinfo(res);
    EXPECT_EQ(log.text(), "");
}

// Its name is the reporter of a line, if there is one.
static int look_up_an_unknown_name(addrinfo** res)
{
    return Getaddrinfo("no.such.name.invalid", nullptr, nullptr, res);
}

TEST_F(Syswrap, kept_getaddrinfo_of_an_unknown_name_is_silent)
{
    if (const std::string why = support::netns_missing(); !why.empty()) {
        GTEST_SKIP() << "skipped: " << why;
    }
    log.set_level(DEBUG_level);
    const support::NetnsPair pair;
    addrinfo* res = nullptr;
    const int code = support::inside(pair, &support::NetnsPair::enter_a, [&] {
        support::must_run("ip link set va down"); // no resolver can be reached, nor waited for
        return look_up_an_unknown_name(&res);
    });
    EXPECT_LT(code, 0);
    EXPECT_NE(code, EAI_BADFLAGS);
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    EXPECT_EQ(Getaddrinfo("localhost", nullptr, &hints, &res), EAI_NONAME);
    EXPECT_EQ(Getaddrinfo("127.0.0.1", "no-such-service", nullptr, &res), EAI_SERVICE);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Syswrap, getaddrinfo_with_bad_flags_is_logged)
{
    addrinfo hints{};
    hints.ai_flags = 0x40000000;
    addrinfo* res = nullptr;
    errno = ENOTTY;
    EXPECT_EQ(Getaddrinfo("localhost", "80", &hints, &res), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(Getaddrinfo("localhost", nullptr, &hints, &res), -1);
    EXPECT_EQ(
        log.lines(),
        (Lines{format("(ERR)  TestBody: getaddrinfo(localhost, 80, %p, %p): ERROR(-1:25): Bad value for "
                      "ai_flags",
                      static_cast<void*>(&hints), static_cast<void*>(&res)),
               format("(ERR)  TestBody: getaddrinfo(localhost, (null), %p, %p): ERROR(-1:25): Bad value "
                      "for ai_flags",
                      static_cast<void*>(&hints), static_cast<void*>(&res))}));
}

// ---- waiting -----------------------------------------------------------------------------------------

TEST_F(Syswrap, select_both_ways)
{
    log.set_level(DEBUG_level);
    const SocketPair pair;
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(pair.ours, &writable);
    timeval none{0, 0};
    EXPECT_EQ(Select(pair.ours + 1, nullptr, &writable, nullptr, nullptr), 1);
    EXPECT_EQ(Select(0, nullptr, nullptr, nullptr, &none), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Select(-1, nullptr, &writable, nullptr, &none), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.lines(),
              (Lines{format("(ERR)  TestBody: select(-1, (nil), %p, (nil), %p) ERROR(22): Invalid argument",
                            static_cast<void*>(&writable), static_cast<void*>(&none))}));
}

TEST_F(Syswrap, select_that_a_signal_interrupts_is_logged_only_at_debug_level)
{
    for (const int level : {NORM_level, INFO_level, DEBUG_level}) {
        log.clear();
        log.set_level(level);
        {
            const Interrupts interrupts;
            EXPECT_EQ(Select(0, nullptr, nullptr, nullptr, nullptr), -1);
            EXPECT_EQ(errno, 4);
        }
        EXPECT_EQ(log.lines(), level < DEBUG_level
                                   ? Lines{}
                                   : Lines{"(ERR)  TestBody: select(0, (nil), (nil), (nil), (nil)) ERROR(4): "
                                           "Interrupted system call"});
    }
}

TEST_F(Syswrap, poll_that_times_out_warns_with_the_milliseconds)
{
    const SocketPair pair;
    pollfd entry{pair.ours, POLLIN, 0};
    EXPECT_EQ(Poll(&entry, 1, 7), 0);
    EXPECT_EQ(log.lines(), (Lines{"(WRN)  TestBody: poll() has timed out after 7 ms"}));
}

TEST_F(Syswrap, poll_both_ways)
{
    const SocketPair pair;
    pollfd entry{pair.ours, POLLOUT, 0};
    EXPECT_EQ(Poll(&entry, 1, -1), 1);
    EXPECT_EQ(entry.revents, POLLOUT);
    EXPECT_EQ(log.text(), "");
    entry.events = POLLIN;
    {
        const Interrupts interrupts;
        EXPECT_EQ(Poll(&entry, 1, -1), -1);
        EXPECT_EQ(errno, EINTR);
    }
    EXPECT_EQ(log.lines(), (Lines{format("(ERR)  TestBody: poll(%p, 1, -1) ERROR(4): Interrupted system call",
                                         static_cast<void*>(&entry))}));
}

// ---- processes ---------------------------------------------------------------------------------------

TEST_F(Syswrap, dup2_both_ways)
{
    log.set_level(DEBUG_level);
    EXPECT_EQ(Dup2(0, 77), 77);
    close(77);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Dup2(kBadFd, 77), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  TestBody: dup2(999, 77) ERROR(9): Bad file descriptor"}));
}

TEST_F(Syswrap, pipe_both_ways)
{
    log.set_level(DEBUG_level);
    int ends[2] = {-1, -1};
    EXPECT_EQ(Pipe(ends), 0);
    char byte = 0;
    EXPECT_EQ(write(ends[1], "p", 1), 1);
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'p');
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(log.text(), "");

    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit nothing{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &nothing);
    int as_they_stand[2] = {-5, 8};
    EXPECT_EQ(Pipe(as_they_stand), -1);
    EXPECT_EQ(errno, EMFILE);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  TestBody: pipe([-5,8]) ERROR(24): Too many open files"}));
}

TEST_F(Syswrap, fork_makes_a_child)
{
    log.set_level(DEBUG_level);
    const pid_t pid = Fork();
    if (pid == 0) {
        _exit(41);
    }
    ASSERT_GT(pid, 0);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 41);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Syswrap, fork_that_fails_is_logged)
{
    g_fail_fork = true;
    EXPECT_EQ(Fork(), -1);
    EXPECT_EQ(errno, EAGAIN);
    g_fail_fork = false;
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  TestBody: fork() ERROR(11): Resource temporarily unavailable"}));
}

TEST_F(Syswrap, kill_both_ways)
{
    log.set_level(DEBUG_level);
    EXPECT_EQ(Kill(getpid(), 0), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Kill(getpid(), 999), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.lines(), (Lines{format("(ERR)  TestBody: kill(%ld, 999) ERROR(22): Invalid argument",
                                         static_cast<long>(getpid()))}));
}

// ---- the pattern ---------------------------------------------------------------------------------------

TEST_F(Syswrap, errno_survives_a_log_that_disturbs_it)
{
    log_set_hook(&g_log, nullptr, [](void*, const char*) { errno = ENOTTY; });
    EXPECT_EQ(Close(kBadFd), -1);
    EXPECT_EQ(errno, EBADF);
    off_t offset = 0;
    EXPECT_EQ(Sendfile_f(kBadFd, kBadFd, &offset, 1, 1), -1);
    EXPECT_EQ(errno, EBADF);
    const FailAllocation failure(1);
    EXPECT_EQ(Calloc(1, 1), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(log.lines().size(), 2U); // the line of sendfile goes on into the next
}

TEST_F(Syswrap, a_module_level_below_error_silences_the_line_and_keeps_errno)
{
    set_loglevel(MLL_SYSWRAP, PANIC_level);
    EXPECT_EQ(Close(kBadFd), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(log.text(), "");
    set_loglevel(MLL_SYSWRAP, ERR_level);
    EXPECT_EQ(Close(kBadFd), -1);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(Syswrap, the_slot_of_the_wrappers_is_their_own)
{
    set_loglevel(MLL_SYSWRAP, DEBUG_level);
    const int fd = Socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(Close(fd), 0);
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(Syswrap, the_line_names_whoever_is_given_as_caller)
{
    EXPECT_EQ(W_close("somebody", kBadFd), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  somebody: close(fd999) ERROR(9): Bad file descriptor"}));
}

TEST_F(Syswrap, nothing_is_allocated_by_a_call_or_its_line)
{
    g_log = {};
    FILE* null = fopen("/dev/null", "w");
    setvbuf(null, nullptr, _IONBF, 0);
    log_default(&g_log, null);
    EXPECT_EQ(Close(kBadFd),
              -1); // the first line looks the zone up, the first text of an error its catalogue
    const size_t before = support::allocation_count();
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(Close(kBadFd), -1);
        EXPECT_EQ(Kill(getpid(), 0), 0);
    }
    EXPECT_EQ(support::allocation_count(), before);
    log_default(&g_log, stderr);
    fclose(null);
}
