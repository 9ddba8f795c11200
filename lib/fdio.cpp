// Descriptor I/O that survives signals, passing of descriptors, and the transfer engine.
#include "fdio.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "log.h"
#include "psensor.h"
#include "syswrap.h"
#include "util.h"

DECLARE_MLL(MLL_FDIO);

namespace {

constexpr size_t kScratchMax = 512;
constexpr mode_t kDstMode = 0644;
constexpr size_t kControlMax = 24; // CMSG_SPACE of one descriptor, and CMSG_LEN of two

static_assert(CMSG_LEN(sizeof(int)) == 20 && CMSG_SPACE(sizeof(int)) == kControlMax);

// A control message of one descriptor, aligned as its header wants it.
struct Control {
    alignas(struct cmsghdr) char bytes[kControlMax];
};

enum class Zero { Ends, IsFailure };

bool is_eagain(int err)
{
#if EAGAIN == EWOULDBLOCK
    return err == EAGAIN;
#else
    return err == EAGAIN || err == EWOULDBLOCK;
#endif
}

// The one loop of nread, nwrite, npread and nsendfile: io() moves up to count bytes; only EINTR makes it go
// round. Kept: a short count ends it, the rest is the caller's business.
template <off_t sensor, Zero zero, class Io>
ssize_t until_moved(size_t count, Io io)
{
    ssize_t last = 0;
    while (count > 0) {
        psensor_start(sensor);
        last = io();
        const int err = errno;
        psensor_stop(sensor);
        if (last > 0 || (last == 0 && zero == Zero::Ends) || err != EINTR) {
            break;
        }
        errno = 0;
        if (g_quit != 0) {
            break;
        }
    }
    return last;
}

// Kept: npread and nsendfile tell a failure by 0 and errno.
ssize_t zero_if_failed(ssize_t result)
{
    return result < 0 ? 0 : result;
}

short int wait_for(int sockfd, short int event, int tmout)
{
    const short int revents = poll_on_socket(sockfd, event, tmout);
    if (revents == -1 || (revents & POLLERR) != 0) {
        return -1;
    }
    return (revents & event) != 0 ? 0 : 1;
}

// First control message of a received message, or NULL.
struct cmsghdr* first_header(struct msghdr* msg)
{
    return msg->msg_controllen < sizeof(struct cmsghdr) ? nullptr : CMSG_FIRSTHDR(msg);
}

bool carries_descriptors(const struct cmsghdr* cmsg)
{
    return cmsg->cmsg_level == SOL_SOCKET && cmsg->cmsg_type == SCM_RIGHTS;
}

// Closes what came and is not handed out: a peer could exhaust our table otherwise.
void drop_descriptors(struct cmsghdr* cmsg)
{
    if (cmsg == nullptr || !carries_descriptors(cmsg)) {
        return;
    }
    for (size_t at = CMSG_LEN(0); at + sizeof(int) <= cmsg->cmsg_len && at + sizeof(int) <= kControlMax;
         at += sizeof(int)) {
        int fd = -1;
        memcpy(&fd, reinterpret_cast<const char*>(cmsg) + at, sizeof fd);
        close(fd);
    }
}

// The descriptor of a message with exactly one, else -1; what else came is closed.
int take_descriptor(struct cmsghdr* cmsg, uint32_t fdio_flags)
{
    const bool right_length = cmsg != nullptr && cmsg->cmsg_len == CMSG_LEN(sizeof(int));
    if (right_length && carries_descriptors(cmsg)) {
        int fd = -1;
        memcpy(&fd, CMSG_DATA(cmsg), sizeof fd);
        return fd;
    }
    drop_descriptors(cmsg);
    if ((fdio_flags & FDIO_VERBOSE) == 0) {
        return -1;
    }
    if (right_length) {
        log_err("%s: invalid control message level/type=%ld/%ld\n", "recv_fd",
                static_cast<long>(cmsg->cmsg_level), static_cast<long>(cmsg->cmsg_type));
    } else {
        log_err("%s: invalid control message structure: cmsg=%p, clen=%ld\n", "recv_fd",
                static_cast<void*>(cmsg), cmsg != nullptr ? static_cast<long>(cmsg->cmsg_len) : -1L);
    }
    return -1;
}

} // namespace

ssize_t nread(int fd, char* buf, size_t count, u_int32_t flags)
{
    return until_moved<PRF_DATAIN, Zero::Ends>(count,
                                               [=] { return W_read_f("nread", fd, buf, count, flags); });
}

ssize_t nwrite(int fd, const char* buf, size_t count, u_int32_t flags)
{
    return until_moved<PRF_DATAOUT, Zero::IsFailure>(
        count, [=] { return W_write_f("nwrite", fd, buf, count, flags); });
}

ssize_t npread(int fd, char* buf, size_t count, off_t offset, u_int32_t flags)
{
    return zero_if_failed(until_moved<PRF_DATAIN, Zero::Ends>(
        count, [=] { return W_pread_f("npread", fd, buf, count, offset, flags & FDIO_VERBOSE); }));
}

ssize_t nsendfile(int out_fd, int in_fd, off_t* offset, size_t count, int bsd_flags, u_int32_t flags)
{
    (void)bsd_flags;
    ASSERT(offset != nullptr);
    return zero_if_failed(until_moved<PRF_DATAOUT, Zero::IsFailure>(count, [=] {
        return W_sendfile_f("nsendfile", out_fd, in_fd, offset, count, flags & FDIO_VERBOSE);
    }));
}

short int poll_on_socket(int sockfd, short int events, int tmout)
{
    struct pollfd pfd = {sockfd, events, 0};
    psensor_start(PRF_EVIDLE);
    const int rc = Poll(&pfd, 1, tmout);
    psensor_stop(PRF_EVIDLE);
    return static_cast<short int>(rc == -1 ? -1 : pfd.revents);
}

short int wait_to_read(int sockfd, int tmout)
{
    return wait_for(sockfd, POLLIN, tmout);
}

short int wait_to_write(int sockfd, int tmout)
{
    return wait_for(sockfd, POLLOUT, tmout);
}

int test_read_fd(int fd, int tmout)
{
    static char scratch[kScratchMax];
    int rc = wait_to_read(fd, tmout);
    ssize_t nrd = -1;
    if (rc == 0) {
        nrd = nread(fd, scratch, sizeof scratch, 0);
        if (nrd < 1) {
            rc = -1;
        }
    }
    if (rc != 0) {
        const int err = errno;
        log_err("%s: cannot read from fd=%d, nrd=%ld\n", __func__, fd, static_cast<long>(nrd));
        errno = err;
    } else {
        log_dbg("%s: fd=%d is readable [%ld bytes]\n", __func__, fd, static_cast<long>(nrd));
    }
    return rc;
}

ssize_t send_fd(int dst_fd, void* ptr, size_t nbytes, int sendfd)
{
    struct iovec data = {ptr, nbytes};
    struct Control control = {};
    struct msghdr msg = {};
    msg.msg_iov = &data;
    msg.msg_iovlen = 1;
    msg.msg_control = control.bytes;
    msg.msg_controllen = sizeof control.bytes;
    struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_len = CMSG_LEN(sizeof sendfd);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    memcpy(CMSG_DATA(cmsg), &sendfd, sizeof sendfd);

    const ssize_t sent = sendmsg(dst_fd, &msg, 0);
    if (sent == -1) {
        const int err = errno;
        log_err("%s: sendmsg(%d, %p, 0) ERROR(%d): %s\n", __func__, dst_fd, static_cast<void*>(&msg), err,
                strerror(err));
        errno = err;
    }
    return sent;
}

ssize_t recv_fd(int src_fd, void* ptr, size_t nbytes, int* recvfd, uint32_t fdio_flags)
{
    struct iovec data = {ptr, nbytes};
    struct Control control = {};
    struct msghdr msg = {};
    msg.msg_iov = &data;
    msg.msg_iovlen = 1;
    msg.msg_control = control.bytes;
    msg.msg_controllen = sizeof control.bytes;

    psensor_start(PRF_DATAIN);
    const ssize_t received = recvmsg(src_fd, &msg, 0);
    const int err = errno;
    psensor_stop(PRF_DATAIN);
    if (received > 0) {
        *recvfd = take_descriptor(first_header(&msg), fdio_flags);
        return received;
    }
    if (received == 0) {
        drop_descriptors(first_header(&msg)); // an empty datagram may carry some
    }
    if (received == 0 || !is_eagain(err) || (fdio_flags & FDIO_VERBOSE) != 0) {
        log_err("%s: recvmsg(%d, %p, 0) ERROR(%d): %s\n", __func__, src_fd, static_cast<void*>(&msg), err,
                received == 0 ? "connection has been closed by peer" : strerror(err));
    }
    errno = err;
    return received;
}

int open_src_file(const char* fpath)
{
    return Open(fpath, O_RDONLY);
}

int open_dst_file(const char* fpath, uint32_t flags)
{
    const int fd = Open3(fpath, O_WRONLY | O_CREAT | O_EXCL | O_TRUNC, kDstMode);
    if (fd != -1 && (flags & FDIO_UNLINK_DST) != 0 && Unlink(fpath) != 0) {
        // Kept: the descriptor stays open. The file is there, and somebody else may be at work on it.
        return -1;
    }
    return fd;
}

int check_can_sendfile(mode_t src_mode, mode_t dst_mode, int dst_socktype, u_int32_t* flags)
{
    if (!S_ISREG(src_mode)) {
        return 1;
    }
    if (!S_ISSOCK(dst_mode)) {
        return 2;
    }
    if (dst_socktype != SOCK_STREAM) {
        return 3;
    }
    *flags |= FDIO_SENDFILE;
    return 0;
}
