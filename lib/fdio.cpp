// Descriptor I/O that survives signals, passing of descriptors, and the transfer engine.
#include "fdio.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "detail/app_flags.h"
#include "detail/kept_errno.h"
#include "detail/shown_realloc.h"
#include "log.h"
#include "psensor.h"
#include "syswrap.h"

DECLARE_MLL(MLL_FDIO);

MV_APP_FLAG(g_quit);

namespace {

using mv::KeptErrno;

constexpr char kTransfer[] = "transfer"; // whose steps report under its name
constexpr char kRecvFd[] = "recv_fd";

constexpr size_t kScratchMax = 512;
constexpr mode_t kDstMode = 0644;
constexpr size_t kControlMax = 24; // CMSG_SPACE of one descriptor, and CMSG_LEN of two

static_assert(CMSG_LEN(sizeof(int)) == 20 && CMSG_SPACE(sizeof(int)) == kControlMax);

// A message of one block of data with room for one descriptor, aligned as the header of a control message is.
struct Message {
    struct iovec data;
    alignas(struct cmsghdr) char control[kControlMax] = {};
    struct msghdr header = {};

    Message(void* ptr, size_t nbytes) : data{ptr, nbytes}
    {
        header.msg_iov = &data;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
    }

    Message(const Message&) = delete; // the header points into it
    Message& operator=(const Message&) = delete;
};

// The buffer of all transfers between descriptors; nothing in it survives a call. The I/O goes to the first
// page boundary in buf, behind which buflen bytes follow: a block that straight from the allocator starts 16
// bytes into a page is read into at a fifth of the speed.
struct trfbuf {
    char* buf;
    size_t buflen;
};

constexpr size_t kPage = 4096;
// The caller's half of a flag word; the results of a step stand above it.
constexpr uint32_t kOptionBits = 0xffff;

trfbuf g_trf;

// What one step has moved, and how it went.
struct Step {
    ssize_t read = 0;
    ssize_t written = 0;
    ssize_t total = 0; // what goes to the caller
    int error = 0;
};

// What a result of 0 says: to a read the end of the file, to a write that errno has to be looked at.
enum class Zero { Ends, IsFailure };

// The one loop of nread, nwrite, npread and nsendfile: io(caller) moves up to count bytes; only EINTR makes
// it go round. Kept: a short count ends it, the rest is the caller's business. The sensor is a template
// argument: its slot is checked when this is compiled. A g_quit that ends the loop leaves an errno of 0,
// since nothing has failed.
template <off_t sensor, Zero zero, class Io>
ssize_t until_moved(const char* caller, size_t count, Io io)
{
    if (count == 0) {
        return 0;
    }
    for (;;) {
        psensor_start(sensor);
        const ssize_t moved = io(caller);
        // Before the sensor, whose clock may change it.
        const int err = errno;
        psensor_stop(sensor);
        if (moved > 0 || (moved == 0 && zero == Zero::Ends) || err != EINTR) {
            return moved;
        }
        errno = 0;
        if (g_quit != 0) {
            return moved;
        }
    }
}

// Kept: npread and nsendfile tell a failure by 0 and errno.
ssize_t zero_if_failed(ssize_t result)
{
    return result < 0 ? 0 : result;
}

// A descriptor that is not open (POLLNVAL) is "not ready" too, 1.
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

// Closes what came and is not handed out: a peer could exhaust our table otherwise. There are two at most:
// the kernel installs as many as the room takes, and drops the rest itself.
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
        log_err("%s: invalid control message level/type=%ld/%ld\n", kRecvFd,
                static_cast<long>(cmsg->cmsg_level), static_cast<long>(cmsg->cmsg_type));
    } else {
        log_err("%s: invalid control message structure: cmsg=%p, clen=%ld\n", kRecvFd,
                static_cast<void*>(cmsg), cmsg != nullptr ? static_cast<long>(cmsg->cmsg_len) : -1L);
    }
    return -1;
}

char* io_buffer()
{
    const auto address = reinterpret_cast<uintptr_t>(g_trf.buf);
    return g_trf.buf + (kPage - address % kPage) % kPage;
}

// The block's address plus a position. The position may lie anywhere, and the block may be none: what comes
// out is only an address to hand to inproc, so it is reckoned as a number.
void* address_at(const struct transfer_spec* tsp, off_t position)
{
    return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(tsp->mmem) + static_cast<uintptr_t>(position));
}

// Kept: memory wins over sendfile, whatever the flags say.
bool prefer_sendfile(uint32_t flags)
{
    (void)flags;
    return false;
}

ssize_t transfer_in(struct transfer_spec* tsp, off_t offset, char* dst, size_t count)
{
    const ssize_t n = offset < 0 ? nread(tsp->in_fd, dst, count, *tsp->flags)
                                 : npread(tsp->in_fd, dst, count, offset, *tsp->flags);
    if (n <= 0) {
        *tsp->flags |= FDIO_ERR_READ; // Kept: at the end of the file too
    }
    return n;
}

// No wrapper and no retry: a datagram goes or it does not.
ssize_t send_datagram(const struct transfer_spec* tsp, const char* src, size_t count)
{
    psensor_start(PRF_DATAOUT);
    const ssize_t n =
        sendto(tsp->out_fd, src, count, MSG_NOSIGNAL, static_cast<const struct sockaddr*>(tsp->aux),
               static_cast<socklen_t>(tsp->aux_len));
    const KeptErrno kept;
    psensor_stop(PRF_DATAOUT);
    return n;
}

ssize_t transfer_out(struct transfer_spec* tsp, const char* src, size_t count)
{
    // nwrite() of nothing gives 0 without a call, and the step would be taken for the end of the stream.
    ASSERT(count != 0);
    const bool to_address = (*tsp->flags & FDIO_SENDTO) != 0;
    const ssize_t n =
        to_address ? send_datagram(tsp, src, count) : nwrite(tsp->out_fd, src, count, *tsp->flags);
    if (n == -1) {
        *tsp->flags |= FDIO_ERR_WRITE;
    } else {
        const KeptErrno kept;
        log_dbg("%s: [%p] +%lu -> fd%d\n", __func__, static_cast<void*>(tsp), static_cast<unsigned long>(n),
                tsp->out_fd);
    }
    return n;
}

void overflow_warning(const char* origin, const struct transfer_spec* tsp, size_t count, off_t new_count)
{
    const KeptErrno kept;
    log_warn(
        "%s: attempt to reach over the end of buffer: buf=%p, len=%ld, offset=%ld, count=%ld - new_count=%ld\n",
        origin, tsp->mmem, static_cast<long>(tsp->mmlen), static_cast<long>(*tsp->offset),
        static_cast<long>(count), static_cast<long>(new_count));
}

// Cuts *count, with a warning, to what the block has from the position on. False if that is nothing, and for
// a position before the block, where a failed step may have put it.
bool cut_to_block(const char* origin, const struct transfer_spec* tsp, size_t* count)
{
    const off_t position = *tsp->offset;
    const off_t left = position < 0 ? 0 : static_cast<off_t>(tsp->mmlen) - position;
    if (position >= 0 && left >= 0 && *count <= static_cast<size_t>(left)) {
        return true;
    }
    overflow_warning(origin, tsp, *count, left);
    *count = left < 1 ? 0 : static_cast<size_t>(left);
    return *count > 0;
}

// Kept: a plain read, whatever the position.
ssize_t mm_in(struct transfer_spec* tsp, size_t count)
{
    if (!cut_to_block(__func__, tsp, &count)) {
        return 0;
    }
    return transfer_in(tsp, -1, static_cast<char*>(tsp->mmem) + *tsp->offset, count);
}

ssize_t mm_out(struct transfer_spec* tsp, size_t count)
{
    if (!cut_to_block(__func__, tsp, &count)) {
        return 0;
    }
    return transfer_out(tsp, static_cast<const char*>(tsp->mmem) + *tsp->offset, count);
}

void memory_step(struct transfer_spec* tsp, size_t portion, Step* step)
{
    ASSERT(tsp->offset != nullptr);
    if (tsp->mmem_out != 0) {
        step->read = static_cast<ssize_t>(portion);
        step->total = mm_out(tsp, portion); // Kept: a -1 stands, and moves the position back by one
    } else {
        step->read = mm_in(tsp, portion);
        if (tsp->inproc == nullptr) {
            step->total = step->read;
        } else {
            step->error = tsp->inproc(address_at(tsp, *tsp->offset), step->read, &step->total);
            if (step->error != 0) {
                return;
            }
        }
    }
    step->written = step->total;
    // 0 unless a call below has failed: transfer() has cleared it, and lines of the log keep it.
    step->error = errno;
}

void sendfile_step(struct transfer_spec* tsp, size_t count, Step* step)
{
    step->total = nsendfile(tsp->out_fd, tsp->in_fd, tsp->offset, count, 0, *tsp->flags);
    step->read = step->total;
    step->written = step->total;
    if (step->read == 0) {
        *tsp->flags |= FDIO_EOF; // Kept: whatever the reason was
    }
    const KeptErrno kept;
    log_dbg("%s: using sendfile\n", kTransfer);
}

void buffer_step(struct transfer_spec* tsp, size_t portion, Step* step)
{
    step->read = transfer_in(tsp, tsp->offset != nullptr ? *tsp->offset : -1, io_buffer(), portion);
    if (step->read <= 0) {
        step->error = errno;
        return;
    }
    if (tsp->inproc != nullptr) {
        ASSERT(tsp->offset != nullptr);
        // Kept: the block's address, which is not where the data is.
        step->error = tsp->inproc(address_at(tsp, *tsp->offset), step->read, &step->total);
        if (step->error != 0) {
            return;
        }
        // A total beyond the buffer would send what stands behind it in memory.
        ASSERT(step->total >= 0 && static_cast<size_t>(step->total) <= g_trf.buflen);
        // What goes on, not what came: FDIO_TRF_RWEQ compares the write with this.
        step->read = step->total;
    }
    step->written = transfer_out(tsp, io_buffer(), static_cast<size_t>(step->read));
    if (step->written <= 0) {
        step->error = errno;
    }
    step->total = step->written < 0 ? 0 : step->written;
}

int trf_err_summary(int err, int dfd, int sfd, size_t count, uint32_t flags)
{
    const char* side = "???";
    if ((flags & FDIO_EOF) != 0) {
        log_dbg("transfer [%lu bytes] (%d<-%d) end of stream\n", static_cast<unsigned long>(count), dfd, sfd);
    } else if ((flags & FDIO_ERR_READ) != 0) {
        side = "read";
    } else if ((flags & FDIO_ERR_WRITE) != 0) {
        side = "write";
    }
    log_err("transfer (%d->%d, %ld bytes) %s ERROR(%d): %s\n", sfd, dfd, static_cast<long>(count), side, err,
            strerror(err));
    return err;
}

// What need not count as failure becomes 0.
int trf_err_correct(int err, uint32_t flags)
{
    if (err == EAGAIN) {
        return 0;
    }
    // EBUSY is what sendfile() of other systems gives where the data would have to come from the disk first.
    const bool lost_reader = err == EPIPE || (err == EBUSY && (flags & FDIO_SENDFILE) != 0);
    return (flags & FDIO_ERR_WRITE) != 0 && lost_reader ? 0 : err;
}

// A position moved by what a step has moved, without the undefined overflow of a wild total from inproc.
off_t advanced(off_t position, ssize_t by)
{
    return static_cast<off_t>(static_cast<uint64_t>(position) + static_cast<uint64_t>(by));
}

// Logs how a step ended, sets FDIO_EOF and errno. The error that is left for the caller, or 0.
int judge(const struct transfer_spec* tsp, size_t count, const Step& step)
{
    int error = step.error;
    if (error == 0 && (*tsp->flags & FDIO_TRF_RWEQ) != 0 && step.written != step.read) {
        log_err("%s: fd in/out=[%d/%d] mismatch: read/write=[%ld/%ld]\n", kTransfer, tsp->in_fd, tsp->out_fd,
                static_cast<long>(step.read), static_cast<long>(step.written));
    }
    if (error == 0 && step.read == 0) {
        *tsp->flags |= FDIO_EOF;
    }
    if (error != 0 && no_fault(error, *tsp->flags & FDIO_VERBOSE) == 0) {
        const KeptErrno kept;
        error =
            trf_err_correct(trf_err_summary(error, tsp->out_fd, tsp->in_fd, count, *tsp->flags), *tsp->flags);
    } else {
        errno = error;
    }
    const KeptErrno kept;
    log_dbg("%s: %d->%d [r%ld/w%ld  %ld bytes], flags=0x%lx\n", kTransfer, tsp->in_fd, tsp->out_fd,
            static_cast<long>(step.read), static_cast<long>(step.written), static_cast<long>(step.total),
            static_cast<unsigned long>(*tsp->flags));
    return error;
}

} // namespace

ssize_t nread(int fd, char* buf, size_t count, u_int32_t flags)
{
    return until_moved<PRF_DATAIN, Zero::Ends>(
        __func__, count, [=](const char* caller) { return W_read_f(caller, fd, buf, count, flags); });
}

ssize_t nwrite(int fd, const char* buf, size_t count, u_int32_t flags)
{
    return until_moved<PRF_DATAOUT, Zero::IsFailure>(
        __func__, count, [=](const char* caller) { return W_write_f(caller, fd, buf, count, flags); });
}

ssize_t npread(int fd, char* buf, size_t count, off_t offset, u_int32_t flags)
{
    return zero_if_failed(until_moved<PRF_DATAIN, Zero::Ends>(__func__, count, [=](const char* caller) {
        return W_pread_f(caller, fd, buf, count, offset, flags & FDIO_VERBOSE);
    }));
}

ssize_t nsendfile(int out_fd, int in_fd, off_t* offset, size_t count, int bsd_flags, u_int32_t flags)
{
    (void)bsd_flags;
    ASSERT(offset != nullptr);
    return zero_if_failed(until_moved<PRF_DATAOUT, Zero::IsFailure>(__func__, count, [=](const char* caller) {
        return W_sendfile_f(caller, out_fd, in_fd, offset, count, flags & FDIO_VERBOSE);
    }));
}

short int poll_on_socket(int sockfd, short int events, int tmout)
{
    struct pollfd pfd = {sockfd, events, 0}; // one descriptor: who waits for more has the loop
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
    int rc = wait_to_read(fd, tmout);
    ssize_t nrd = -1;
    if (rc == 0) {
        static char scratch[kScratchMax];
        nrd = nread(fd, scratch, sizeof scratch, 0);
        if (nrd < 1) {
            rc = -1;
        }
    }
    if (rc != 0) {
        const KeptErrno kept;
        log_err("%s: cannot read from fd=%d, nrd=%ld\n", __func__, fd, static_cast<long>(nrd));
    } else {
        log_dbg("%s: fd=%d is readable [%ld bytes]\n", __func__, fd, static_cast<long>(nrd));
    }
    return rc;
}

ssize_t send_fd(int dst_fd, void* ptr, size_t nbytes, int sendfd)
{
    Message message(ptr, nbytes);
    struct msghdr& msg = message.header;
    // A stream socket wants at least one byte of data to carry the descriptor (unix(7)). A peer that is gone
    // raises SIGPIPE: see ignore_sigpipe().
    struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_len = CMSG_LEN(sizeof sendfd);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    memcpy(CMSG_DATA(cmsg), &sendfd, sizeof sendfd);

    const ssize_t sent = sendmsg(dst_fd, &msg, 0);
    if (sent == -1) {
        const KeptErrno e;
        log_err("%s: sendmsg(%d, %p, 0) ERROR(%d): %s\n", __func__, dst_fd, static_cast<void*>(&msg),
                e.number(), e.text());
    }
    return sent;
}

ssize_t recv_fd(int src_fd, void* ptr, size_t nbytes, int* recvfd, uint32_t fdio_flags)
{
    Message message(ptr, nbytes);
    struct msghdr& msg = message.header;
    psensor_start(PRF_DATAIN);
    const ssize_t received = recvmsg(src_fd, &msg, 0);
    const KeptErrno e;
    psensor_stop(PRF_DATAIN);
    if (received > 0) {
        *recvfd = take_descriptor(first_header(&msg), fdio_flags);
        return received;
    }
    if (received == 0) {
        drop_descriptors(first_header(&msg)); // an empty datagram may carry some
    }
    if (received == 0 || !mv::is_eagain(e.number()) || (fdio_flags & FDIO_VERBOSE) != 0) {
        log_err("%s: recvmsg(%d, %p, 0) ERROR(%d): %s\n", __func__, src_fd, static_cast<void*>(&msg),
                e.number(), received == 0 ? "connection has been closed by peer" : e.text());
    }
    return received;
}

int open_src_file(const char* fpath)
{
    return Open(fpath, O_RDONLY);
}

int open_dst_file(const char* fpath, uint32_t flags)
{
    // O_EXCL refuses a symbolic link as well, so that nobody can lead the file elsewhere.
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

int fdio_init(ssize_t bufsize)
{
    if (bufsize == -1) {
        return set_trf_bufsize(DEFAULT_TRF_BUFSIZE);
    }
    return bufsize < 1 ? 0 : set_trf_bufsize(static_cast<size_t>(bufsize));
}

void fdio_destroy(void)
{
    ASSERT(g_trf.buf == nullptr || g_trf.buflen != 0);
    free(g_trf.buf);
    g_trf = {};
}

size_t get_trf_bufsize(void)
{
    return g_trf.buflen;
}

int set_trf_bufsize(size_t newsize)
{
    const auto shown = static_cast<long>(newsize);
    if (newsize == g_trf.buflen) {
        log_warn("%s: transfer buffer size remains %ld bytes.\n", __func__, shown);
        return 0;
    }
    if (newsize < MIN_TRF_BUFSIZE) {
        log_err("%s: transfer buffer size cannot be less than %ld bytes.\n", __func__,
                static_cast<long>(MIN_TRF_BUFSIZE));
        return -1;
    }
    // A page more, so that the I/O can begin at a page boundary wherever the block starts. A size without
    // room for it becomes one that realloc() refuses.
    const size_t with_page = newsize <= SIZE_MAX - kPage ? newsize + kPage : SIZE_MAX;
    // Kept: without memory the old block is lost, and buflen still tells its size.
    g_trf.buf = static_cast<char*>(mv::shown_realloc(__func__, g_trf.buf, with_page, newsize));
    if (g_trf.buf == nullptr) {
        log_err("%s: failed to allocate %ld bytes for transfer buffer.\n", __func__, shown);
        return -1;
    }
    g_trf.buflen = newsize;
    log_dbg("%s: FDIO internal buffer size = %ld bytes.\n", __func__, shown);
    return 0;
}

struct transfer_spec* new_transfer_spec(int in_fd, int out_fd, off_t* offset, uint32_t* flags, void* aux,
                                        ssize_t aux_len)
{
    auto* tsp = static_cast<struct transfer_spec*>(Calloc(1, sizeof(struct transfer_spec)));
    // flags is the caller's word, not a copy: steps report in it, and its owner reads them there.
    ASSERT(tsp != nullptr && flags != nullptr);
    tsp->in_fd = in_fd;
    tsp->out_fd = out_fd;
    tsp->offset = offset;
    tsp->flags = flags;
    tsp->aux = aux;
    tsp->aux_len = aux_len;
    if (use_sendfile(*tsp->flags, nullptr) != 0) {
        log_info("%s(%p): SENDFILE on for fd%d<-fd%d\n", __func__, static_cast<void*>(tsp), out_fd, in_fd);
    }
    return tsp;
}

int transfer(struct transfer_spec* tsp, size_t count, ssize_t* tbytes)
{
    *tsp->flags &= kOptionBits; // what the last step reported must not be taken for this one's
    errno = 0;
    Step step;
    // Of the buffer's size at most, in memory too; sendfile needs no buffer and gets count as it is.
    const size_t portion = count == 0 || count > g_trf.buflen ? g_trf.buflen : count;
    bool position_moved = false; // by the system
    if (tsp->mmem != nullptr && !prefer_sendfile(*tsp->flags)) {
        memory_step(tsp, portion, &step);
    } else {
        ASSERT(g_trf.buf != nullptr && g_trf.buflen != 0);
        position_moved = use_sendfile(*tsp->flags, nullptr) != 0;
        if (position_moved) {
            sendfile_step(tsp, count, &step);
        } else {
            buffer_step(tsp, portion, &step);
        }
    }
    if (tsp->offset != nullptr && !position_moved) {
        *tsp->offset = advanced(*tsp->offset, step.total);
    }
    const int error = judge(tsp, count, step);
    if (tbytes != nullptr) {
        *tbytes = step.total;
    }
    return error != 0 ? -1 : 0;
}

int use_sendfile(u_int32_t fdio_flags, int* bsd_flags)
{
    (void)bsd_flags;
    return (fdio_flags & FDIO_SENDFILE) != 0 ? 1 : 0;
}
