// Descriptors over domain sockets.
#include "fdio.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "child.h"
#include "fds.h"
#include "fixtures.h"
#include "psensor.h"
#include "text.h"

using support::Lines;
using support::open_fds;
using support::run_in_child;
using support::SocketPair;

namespace {

constexpr int kUntouched = -77;

// Sends bytes with count copies of a descriptor in one control message.
ssize_t send_many(int dst, size_t bytes, size_t count)
{
    char text[] = "0123456789";
    iovec data{text, bytes};
    alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))] = {};
    msghdr msg{};
    msg.msg_iov = &data;
    msg.msg_iovlen = 1;
    if (count > 0) {
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(count * sizeof(int));
        cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(count * sizeof(int));
        for (size_t i = 0; i < count; ++i) {
            memcpy(CMSG_DATA(cmsg) + i * sizeof(int), &dst, sizeof dst);
        }
    }
    return sendmsg(dst, &msg, 0);
}

} // namespace

class FdioPass : public support::GuardedTest {};

TEST_F(FdioPass, a_descriptor_arrives_in_another_process)
{
    SocketPair pair;
    const auto result = run_in_child([&] {
        const int file = memfd_create("passed", 0);
        if (write(file, "content", 7) != 7) {
            return 1;
        }
        char text[] = "abc";
        return send_fd(pair.peer, text, 3, file) == 3 ? 0 : 2;
    });
    ASSERT_EQ(result.exit_code, 0);
    char buf[8] = {};
    int fd = kUntouched;
    EXPECT_EQ(recv_fd(pair.ours, buf, sizeof buf, &fd, FDIO_VERBOSE), 3);
    EXPECT_STREQ(buf, "abc");
    ASSERT_GE(fd, 0);
    char content[8] = {};
    EXPECT_EQ(pread(fd, content, sizeof content, 0), 7);
    EXPECT_STREQ(content, "content");
    close(fd);
    EXPECT_EQ(log.text(), "");
}

TEST_F(FdioPass, a_plain_message_stores_minus_one)
{
    SocketPair pair;
    char buf[8];
    int fd = kUntouched;
    ASSERT_EQ(write(pair.peer, "abcd", 4), 4);
    EXPECT_EQ(recv_fd(pair.ours, buf, sizeof buf, &fd, 0), 4);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(log.text(), "");
    ASSERT_EQ(write(pair.peer, "abcd", 4), 4);
    EXPECT_EQ(recv_fd(pair.ours, buf, sizeof buf, &fd, FDIO_VERBOSE), 4);
    EXPECT_EQ(log.lines(), Lines{"(ERR)  recv_fd: invalid control message structure: cmsg=(nil), clen=-1"});
}

TEST_F(FdioPass, a_closed_peer_gives_zero_and_its_own_text)
{
    SocketPair pair;
    pair.peer.reset();
    char buf[8];
    int fd = kUntouched;
    for (const int err : {0, EAGAIN}) {
        log.clear();
        errno = err;
        EXPECT_EQ(recv_fd(pair.ours, buf, sizeof buf, &fd, 0), 0);
        EXPECT_EQ(errno, err);
        ASSERT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.text().find("(ERR)  recv_fd: recvmsg(" + std::to_string(pair.ours) + ", "), 0U);
        EXPECT_NE(
            log.text().find(", 0) ERROR(" + std::to_string(err) + "): connection has been closed by peer\n"),
            std::string::npos)
            << log.text();
    }
    EXPECT_EQ(fd, kUntouched);
}

TEST_F(FdioPass, an_empty_socket_is_silent_unless_verbose)
{
    SocketPair pair;
    fcntl(pair.ours, F_SETFL, O_NONBLOCK);
    char buf[8];
    int fd = kUntouched;
    EXPECT_EQ(recv_fd(pair.ours, buf, sizeof buf, &fd, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(recv_fd(pair.ours, buf, sizeof buf, &fd, FDIO_VERBOSE), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_NE(log.text().find("ERROR(11): Resource temporarily unavailable"), std::string::npos);
    EXPECT_EQ(fd, kUntouched);
}

TEST_F(FdioPass, any_other_failure_is_logged)
{
    char buf[8];
    int fd = kUntouched;
    EXPECT_EQ(recv_fd(-1, buf, sizeof buf, &fd, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(fd, kUntouched);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(FdioPass, more_than_one_descriptor_is_closed)
{
    for (size_t count = 2; count <= 8; ++count) {
        SocketPair pair;
        log.clear();
        ASSERT_EQ(send_many(pair.peer, 5, count), 5);
        const auto before = open_fds();
        char buf[8];
        int fd = kUntouched;
        EXPECT_EQ(recv_fd(pair.ours, buf, sizeof buf, &fd, count == 2 ? 0 : FDIO_VERBOSE), 5);
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(open_fds(), before) << count;
        if (count == 2) {
            EXPECT_EQ(log.text(), "");
        } else {
            ASSERT_EQ(log.lines().size(), 1U);
            EXPECT_NE(log.text().find(", clen=24\n"), std::string::npos) << log.text();
        }
    }
}

TEST_F(FdioPass, descriptors_of_an_empty_datagram_are_closed)
{
    for (const size_t count : {1, 2, 5}) {
        SocketPair pair(SOCK_DGRAM);
        log.clear();
        ASSERT_EQ(send_many(pair.peer, 0, count), 0);
        const auto before = open_fds();
        char buf[8];
        int fd = kUntouched;
        EXPECT_EQ(recv_fd(pair.ours, buf, sizeof buf, &fd, 0), 0);
        EXPECT_EQ(fd, kUntouched);
        EXPECT_EQ(open_fds(), before) << count;
    }
}

TEST_F(FdioPass, another_control_message_of_that_length_is_refused)
{
    const int rx = socket(AF_INET, SOCK_DGRAM, 0);
    const int tx = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    ASSERT_EQ(bind(rx, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(getsockname(rx, reinterpret_cast<sockaddr*>(&addr), &length), 0);
    const int on = 1;
    ASSERT_EQ(setsockopt(rx, IPPROTO_IP, IP_RECVTTL, &on, sizeof on), 0); // an int, like a descriptor
    ASSERT_EQ(sendto(tx, "abc", 3, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 3);
    char buf[8];
    int fd = kUntouched;
    EXPECT_EQ(recv_fd(rx, buf, sizeof buf, &fd, FDIO_VERBOSE), 3);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(log.lines(), Lines{"(ERR)  recv_fd: invalid control message level/type=0/2"});
    close(rx);
    close(tx);
}

TEST_F(FdioPass, a_bad_descriptor_cannot_be_sent)
{
    SocketPair pair;
    char text[] = "abc";
    EXPECT_EQ(send_fd(pair.ours, text, 3, -1), -1);
    EXPECT_EQ(errno, EBADF);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.text().find("(ERR)  send_fd: sendmsg(" + std::to_string(pair.ours) + ", "), 0U);
    EXPECT_NE(log.text().find(", 0) ERROR(9): Bad file descriptor\n"), std::string::npos) << log.text();
}

TEST_F(FdioPass, receiving_counts_as_input)
{
    SocketPair pair;
    psensors_init(nullptr, 1);
    ASSERT_EQ(send_many(pair.peer, 1, 1), 1);
    char buf[8];
    int fd = -1;
    EXPECT_EQ(recv_fd(pair.ours, buf, sizeof buf, &fd, 0), 1);
    close(fd);
    const timespec& tm = g_psensor[PRF_DATAIN].sensor.accum.tm;
    EXPECT_TRUE(tm.tv_sec > 0 || tm.tv_nsec > 0);
}
