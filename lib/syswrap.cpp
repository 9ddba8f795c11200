// The checked calls: one written-out function per call, each the pattern of detail/checked.h with its own
// test and its own line.
#include "syswrap.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include "detail/checked.h"
#include "detail/kept_errno.h"
#include "detail/shown.h"
#include "detail/shown_realloc.h"
#include "log.h"

// A level of their own: an application can silence the lines of the calls and keep those of the modules.
DECLARE_MLL(MLL_SYSWRAP);

namespace {

using mv::checked;
using mv::is_eagain;
using mv::KeptErrno;
using mv::shown;

// What Open() without a mode creates files with: mode 0 would make one that nobody may open again.
constexpr mode_t kDefaultMode = 0644;

// Generic, since the results are of many types: int, ssize_t, off_t, pid_t.
constexpr auto is_minus_one = [](auto result) { return result == -1; };
constexpr auto is_nonzero = [](int result) { return result != 0; };
constexpr auto is_null = [](const void* result) { return result == nullptr; };
// Kept: of W_sendto and W_recvfrom. Nothing sent and nothing received are failures to their callers, unlike
// in W_write_f and W_read_f.
constexpr auto is_not_positive = [](ssize_t result) { return result <= 0; };

// A length for %ld where the call takes a null pointer: it is read after the call, as the kernel left it.
long length_shown(const socklen_t* length)
{
    return length != nullptr ? static_cast<long>(*length) : 0L;
}

} // namespace

// Not for a size of 0: glibc frees the block then and gives NULL, which would read as a failure with the
// block still there.
void* mv::shown_realloc(const char* caller, void* ptr, size_t size, size_t shown_size)
{
    const void* const old = ptr; // only its value is shown, a failed realloc() has left the block alone
    return checked([&] { return realloc(ptr, size); }, is_null,
                   [&](const KeptErrno& e) {
                       log_err("%s: realloc(%p, %ld) ERROR(%d): %s\n", caller, old,
                               static_cast<long>(shown_size), e.number(), e.text());
                   });
}

int no_fault(int err, u_int32_t guilty)
{
    // Before the number is looked at: a caller that wants to hear of everything hears of EAGAIN too.
    if (guilty != 0) {
        return 0;
    }
    return is_eagain(err) || err == EPIPE || err == EINTR || err == ECONNRESET ? 1 : 0;
}

int W_open(const char* caller, const char* pathname, int flags, mode_t mode)
{
    // The mode goes along without O_CREAT too: the kernel does not look at it then.
    return checked([&] { return open(pathname, flags, mode != 0 ? mode : kDefaultMode); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       log_err("%s: open('%s', %d, 0x%lx) ERROR(%d): %s\n", caller, pathname, flags,
                               static_cast<unsigned long>(mode), e.number(), e.text());
                   });
}

int W_close(const char* caller, int fd)
{
    // Never repeated, EINTR included: Linux has given the descriptor up whatever close() says, and a second
    // call would close somebody else's.
    const int rc = checked([&] { return close(fd); }, is_nonzero,
                           [&](const KeptErrno& e) {
                               log_err("%s: close(fd%d) ERROR(%d): %s\n", caller, fd, e.number(), e.text());
                           });
    // Told, as each opening of a socket is: the two lines are how a lost descriptor is found in a debug log.
    if (rc == 0) {
        log_dbg("%s: CLOSED(fd%d)\n", caller, fd);
    }
    return rc;
}

void* W_calloc(const char* caller, size_t nmemb, size_t size)
{
    return checked([&] { return calloc(nmemb, size); }, is_null,
                   [&](const KeptErrno& e) {
                       log_err("%s: calloc(%ld, %ld) ERROR(%d): %s\n", caller, static_cast<long>(nmemb),
                               static_cast<long>(size), e.number(), e.text());
                   });
}

// The plain form of it; who adds room of its own calls the other one.
void* W_realloc(const char* caller, void* ptr, size_t size)
{
    return mv::shown_realloc(caller, ptr, size, size);
}

off_t W_lseek(const char* caller, int fd, off_t offset, int whence)
{
    return checked([&] { return lseek(fd, offset, whence); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       log_err("%s: lseek(%d, %ld, %d) ERROR(%d): %s\n", caller, fd,
                               static_cast<long>(offset), whence, e.number(), e.text());
                   });
}

int W_unlink(const char* caller, const char* pathname)
{
    return checked([&] { return unlink(pathname); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       log_err("%s: unlink(%s) ERROR(%d): %s\n", caller, pathname, e.number(), e.text());
                   });
}

int W_ftruncate(const char* caller, int fd, off_t length)
{
    return checked([&] { return ftruncate(fd, length); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       log_err("%s: ftruncate(%d, %ld) ERROR(%d): %s\n", caller, fd,
                               static_cast<long>(length), e.number(), e.text());
                   });
}

int W_connect(const char* caller, int sockfd, const struct sockaddr* addr, socklen_t addrlen)
{
    // Taken out here: inside the lambda __func__ is "operator()".
    const char* const self = __func__;
    return checked([&] { return connect(sockfd, addr, addrlen); }, is_nonzero,
                   [&](const KeptErrno& e) {
                       if (e.number() == EINPROGRESS) {
                           // Kept: this line names the wrapper, whoever called it.
                           log_info("%s: non-blocking connect in progress for fd%d\n", self, sockfd);
                           return;
                       }
                       log_err("%s: connect(%d, %p, %ld) ERROR(%d): %s\n", caller, sockfd,
                               static_cast<const void*>(addr), static_cast<long>(addrlen), e.number(),
                               e.text());
                   });
}

// Of these four a non-zero flags asks for every error. They stand in the paths of streams, where a peer that
// goes or has to be waited for is nothing to tell of.
ssize_t W_write_f(const char* caller, int fd, const void* buf, size_t count, u_int32_t flags)
{
    return checked([&] { return write(fd, buf, count); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       if (no_fault(e.number(), flags) == 0) {
                           log_err("%s: write(%d, %p, %ld) ERROR(%d): %s\n", caller, fd, buf,
                                   static_cast<long>(count), e.number(), e.text());
                       }
                   });
}

ssize_t W_read_f(const char* caller, int fd, void* buf, size_t count, u_int32_t flags)
{
    return checked([&] { return read(fd, buf, count); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       if (no_fault(e.number(), flags) == 0) {
                           log_err("%s: read(%d, %p, %ld) ERROR(%d): %s\n", caller, fd, buf,
                                   static_cast<long>(count), e.number(), e.text());
                       }
                   });
}

ssize_t W_pread_f(const char* caller, int fd, void* buf, size_t count, off_t offset, u_int32_t flags)
{
    return checked([&] { return pread(fd, buf, count, offset); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       if (no_fault(e.number(), flags) == 0) {
                           log_err("%s: pread(%d, %p, %ld, %ld) ERROR(%d): %s\n", caller, fd, buf,
                                   static_cast<long>(count), static_cast<long>(offset), e.number(), e.text());
                       }
                   });
}

ssize_t W_sendfile_f(const char* caller, int out_fd, int in_fd, off_t* offset, size_t count, u_int32_t fflags)
{
    // offset is not NULL: the line shows where the kernel left it.
    return checked([&] { return sendfile(out_fd, in_fd, offset, count); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       if (no_fault(e.number(), fflags) == 0) {
                           // Kept: no line end, so the next line of the log follows on the same line.
                           log_err("%s: LNX sendfile(%d<-%d, %ld, %ld) ERROR(%d): %s", caller, out_fd, in_fd,
                                   static_cast<long>(*offset), static_cast<long>(count), e.number(),
                                   e.text());
                       }
                   });
}

int W_socket(const char* caller, int domain, int type, int protocol)
{
    const int fd = checked([&] { return socket(domain, type, protocol); }, is_minus_one,
                           [&](const KeptErrno& e) {
                               log_err("%s: socket(%d, %d, %d) ERROR(%d): %s\n", caller, domain, type,
                                       protocol, e.number(), e.text());
                           });
    if (fd != -1) {
        log_dbg("%s opened socket fd=%d (%d, %d, %d)\n", caller, fd, domain, type, protocol);
    }
    return fd;
}

int W_getsockopt(const char* caller, int sockfd, int level, int optname, void* optval, socklen_t* optlen)
{
    return checked([&] { return getsockopt(sockfd, level, optname, optval, optlen); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       log_err("%s: getsockopt(%d, %d, %d, %p, %ld) ERROR(%d): %s\n", caller, sockfd, level,
                               optname, optval, length_shown(optlen), e.number(), e.text());
                   });
}

int W_setsockopt(const char* caller, int sockfd, int level, int optname, const void* optval, socklen_t optlen)
{
    return checked([&] { return setsockopt(sockfd, level, optname, optval, optlen); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       log_err("%s: setsockopt(%d, %d, %d, %p, %ld) ERROR(%d): %s\n", caller, sockfd, level,
                               optname, optval, static_cast<long>(optlen), e.number(), e.text());
                   });
}

int W_bind(const char* caller, int sockfd, const struct sockaddr* addr, socklen_t addrlen)
{
    return checked([&] { return bind(sockfd, addr, addrlen); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       log_err("%s: bind(%d, %p, %ld): ERROR(%d): %s\n", caller, sockfd,
                               static_cast<const void*>(addr), static_cast<long>(addrlen), e.number(),
                               e.text());
                   });
}

int W_listen(const char* caller, int sockfd, int backlog)
{
    return checked([&] { return listen(sockfd, backlog); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       log_err("%s: listen(%d, %d) ERROR(%d): %s\n", caller, sockfd, backlog, e.number(),
                               e.text());
                   });
}

int W_getaddrinfo(const char* caller, const char* node, const char* service, const struct addrinfo* hints,
                  struct addrinfo** res)
{
    // Kept: of all its codes -1, EAI_BADFLAGS, alone is a failure here. Callers test for non-zero, and look
    // up names that may be missing without filling the log. EAI_SYSTEM, the one code with an errno, is among
    // the silent ones.
    return checked([&] { return getaddrinfo(node, service, hints, res); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       log_err("%s: getaddrinfo(%s, %s, %p, %p): ERROR(%d:%d): %s\n", caller, shown(node),
                               shown(service), static_cast<const void*>(hints), static_cast<void*>(res),
                               EAI_BADFLAGS, e.number(), gai_strerror(EAI_BADFLAGS));
                   });
}

int W_select(const char* caller, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
             struct timeval* timeout)
{
    return checked([&] { return select(nfds, readfds, writefds, exceptfds, timeout); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       // A signal that ends a wait is how loops are told to stop: no error, but in a debug
                       // log.
                       if (e.number() == EINTR && !loglevel_is(DEBUG_level)) {
                           return;
                       }
                       log_err("%s: select(%d, %p, %p, %p, %p) ERROR(%d): %s\n", caller, nfds,
                               static_cast<void*>(readfds), static_cast<void*>(writefds),
                               static_cast<void*>(exceptfds), static_cast<void*>(timeout), e.number(),
                               e.text());
                   });
}

int W_accept(const char* caller, int sockfd, struct sockaddr* addr, socklen_t* addrlen)
{
    return checked([&] { return accept(sockfd, addr, addrlen); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       // A non-blocking listener is asked until nobody waits any more.
                       if (!is_eagain(e.number())) {
                           log_err("%s: accept(%d, %p, %ld) ERROR(%d): %s\n", caller, sockfd,
                                   static_cast<void*>(addr), length_shown(addrlen), e.number(), e.text());
                       }
                   });
}

int W_poll(const char* caller, struct pollfd* fds, nfds_t nfds, int timeout)
{
    const int rc =
        checked([&] { return poll(fds, nfds, timeout); }, is_minus_one,
                [&](const KeptErrno& e) {
                    log_err("%s: poll(%p, %ld, %d) ERROR(%d): %s\n", caller, static_cast<void*>(fds),
                            static_cast<long>(nfds), timeout, e.number(), e.text());
                });
    // Callers poll with a limit that they do not mean to reach.
    if (rc == 0) {
        log_warn("%s: poll() has timed out after %d ms\n", caller, timeout);
    }
    return rc;
}

int W_dup2(const char* caller, int oldfd, int newfd)
{
    return checked([&] { return dup2(oldfd, newfd); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       log_err("%s: dup2(%d, %d) ERROR(%d): %s\n", caller, oldfd, newfd, e.number(),
                               e.text());
                   });
}

int W_pipe(const char* caller, int pipefd[2])
{
    // A pipe() that fails leaves both numbers alone: the line shows what the caller had put there.
    return checked([&] { return pipe(pipefd); }, is_minus_one,
                   [&](const KeptErrno& e) {
                       log_err("%s: pipe([%d,%d]) ERROR(%d): %s\n", caller, pipefd[0], pipefd[1], e.number(),
                               e.text());
                   });
}

pid_t W_fork(const char* caller)
{
    return checked(
        [] { return fork(); }, is_minus_one,
        [&](const KeptErrno& e) { log_err("%s: fork() ERROR(%d): %s\n", caller, e.number(), e.text()); });
}

int W_kill(const char* caller, pid_t pid, int sig)
{
    return checked([&] { return kill(pid, sig); }, is_nonzero,
                   [&](const KeptErrno& e) {
                       log_err("%s: kill(%ld, %d) ERROR(%d): %s\n", caller, static_cast<long>(pid), sig,
                               e.number(), e.text());
                   });
}

ssize_t W_sendto(const char* caller, int sockfd, const void* buf, size_t len, int flags,
                 const struct sockaddr* dest_addr, socklen_t addrlen)
{
    return checked([&] { return sendto(sockfd, buf, len, flags, dest_addr, addrlen); }, is_not_positive,
                   [&](const KeptErrno& e) {
                       log_err("%s: sendto(%d, %p, %lu, %d, ...) ERROR(%d): %s\n", caller, sockfd, buf,
                               static_cast<unsigned long>(len), flags, e.number(), e.text());
                   });
}

ssize_t W_recvfrom(const char* caller, int sockfd, void* buf, size_t len, int flags,
                   struct sockaddr* src_addr, socklen_t* addrlen)
{
    return checked([&] { return recvfrom(sockfd, buf, len, flags, src_addr, addrlen); }, is_not_positive,
                   [&](const KeptErrno& e) {
                       log_err("%s: recvfrom(%d, %p, %lu, %d, ...) ERROR(%d): %s\n", caller, sockfd, buf,
                               static_cast<unsigned long>(len), flags, e.number(), e.text());
                   });
}
