// Receiving descriptors: messages with 0 to 8 of them, in stream and datagram sockets. Whatever comes, no
// more than one descriptor is handed out, and none is left over.
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fdio.h"
#include "log.h"

namespace {

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

} // namespace

// Two bytes a message: type of socket, number of descriptors and verbosity; length.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_log.fp = nullptr;
    const size_t before = open_descriptors();
    for (size_t at = 0; at + 2 <= size && at < 64; at += 2) {
        int ends[2];
        if (socketpair(AF_UNIX, ((data[at] & 0x80) != 0 ? SOCK_DGRAM : SOCK_STREAM) | SOCK_NONBLOCK, 0,
                       ends) != 0) {
            abort();
        }
        const size_t bytes = data[at + 1] < size ? data[at + 1] : size;
        send_message(ends[0], data, bytes, (data[at] & 0x0f) % 9U);
        void* block = malloc(16);
        int fd = -1;
        const ssize_t n = recv_fd(ends[1], block, 16, &fd, (data[at] & 0x40) != 0 ? FDIO_VERBOSE : 0);
        if (fd != -1 && (n <= 0 || close(fd) != 0)) {
            abort();
        }
        free(block);
        close(ends[0]);
        close(ends[1]);
    }
    if (open_descriptors() != before) {
        abort();
    }
    return 0;
}
