// Receiving descriptors: messages with 0 to 8 of them, in stream and datagram sockets, from a peer that may
// be gone, or with a control message of another kind. Whatever comes, no more than one descriptor is handed
// out, and none is left over.
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fdio.h"
#include "log.h"
#include "wrap.h"

WRAPPED(ssize_t, recvmsg, (int fd, msghdr* msg, int flags));

namespace {

bool g_other_kind = false; // what comes is to be no descriptor, but as long

size_t open_descriptors()
{
    size_t count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) {
        ++count;
    }
    closedir(dir);
    return count;
}

void send_message(int fd, const uint8_t* data, size_t bytes, size_t count)
{
    if (count == 1 && bytes > 0) {
        if (send_fd(fd, const_cast<uint8_t*>(data), bytes, fd) != static_cast<ssize_t>(bytes)) {
            abort();
        }
        return;
    }
    iovec part{const_cast<uint8_t*>(data), bytes};
    alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))] = {};
    msghdr msg{};
    msg.msg_iov = &part;
    msg.msg_iovlen = 1;
    if (count > 0) {
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(count * sizeof(int));
        cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(count * sizeof(int));
        for (size_t i = 0; i < count; ++i) {
            memcpy(CMSG_DATA(cmsg) + i * sizeof(int), &fd, sizeof fd);
        }
    }
    sendmsg(fd, &msg, MSG_DONTWAIT | MSG_NOSIGNAL);
}

// Closes the descriptors of a message and makes the credentials of nobody of it.
void make_other_kind(msghdr* msg)
{
    cmsghdr* cmsg = CMSG_FIRSTHDR(msg);
    if (cmsg == nullptr || cmsg->cmsg_type != SCM_RIGHTS) {
        return;
    }
    for (size_t at = CMSG_LEN(0); at + sizeof(int) <= cmsg->cmsg_len; at += sizeof(int)) {
        int fd = -1;
        memcpy(&fd, reinterpret_cast<const char*>(cmsg) + at, sizeof fd);
        close(fd);
    }
    cmsg->cmsg_type = SCM_CREDENTIALS;
}

} // namespace

extern "C" ssize_t __wrap_recvmsg(int fd, msghdr* msg, int flags)
{
    const ssize_t n = __real_recvmsg(fd, msg, flags);
    if (n >= 0 && g_other_kind) {
        make_other_kind(msg);
    }
    return n;
}

// Two bytes a message: type of socket, verbosity, another kind (0x20), a peer that is gone (0x10), number of
// descriptors; length.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_log.fp = nullptr;
    (void)signal(SIGPIPE, SIG_IGN);
    const size_t before = open_descriptors();
    for (size_t at = 0; at + 2 <= size && at < 64; at += 2) {
        int ends[2];
        if (socketpair(AF_UNIX, ((data[at] & 0x80) != 0 ? SOCK_DGRAM : SOCK_STREAM) | SOCK_NONBLOCK, 0,
                       ends) != 0) {
            abort();
        }
        const size_t bytes = data[at + 1] < size ? data[at + 1] : size;
        send_message(ends[0], data, bytes, (data[at] & 0x0f) % 9U);
        if ((data[at] & 0x10) != 0) {
            shutdown(ends[0], SHUT_RDWR);
        }
        g_other_kind = (data[at] & 0x20) != 0;
        void* block = malloc(16);
        int fd = -1;
        const ssize_t n = recv_fd(ends[1], block, 16, &fd, (data[at] & 0x40) != 0 ? FDIO_VERBOSE : 0);
        if (fd != -1 && (n <= 0 || close(fd) != 0)) {
            abort();
        }
        free(block);
        test_read_fd(ends[1], 0);
        if ((data[at] & 0x10) != 0 && send_fd(ends[0], &fd, sizeof fd, ends[0]) != -1) {
            abort();
        }
        close(ends[0]);
        close(ends[1]);
    }
    if (open_descriptors() != before) {
        abort();
    }
    return 0;
}
