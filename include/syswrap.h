/*
 * syswrap.h: the checked calls: every call of the operating system that can fail, with its failure logged in
 * one form.
 *
 * W_NAME makes the call NAME once and returns its result. On failure it writes one line at ERR_level under
 * module slot MLL_SYSWRAP, with the caller's name, the arguments, errno and its text, and leaves errno as the
 * call set it: callers read it afterwards. Nothing is retried, mapped or aborted; EINTR is a failure like any
 * other. On success nothing is logged (except where stated) and errno is not defined. Nothing is allocated.
 *
 * Modules call through the macros, which put the name of the calling function in front. Each takes the
 * arguments of the underlying call, in its order, types, units, byte order and ownership, and gives its
 * result; where a comment below says nothing, nothing differs.
 *
 * State: none. Safe in the one thread; not in a signal handler, for a line may be written.
 */
#ifndef MORVANE_SYSWRAP_H
#define MORVANE_SYSWRAP_H

#include <netdb.h>
#include <poll.h>
#include <stddef.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

struct addrinfo; /* of <netdb.h>, which hides it in strict C */

/*
 * no_fault: whether an errno value is part of normal life on a stream and not to be logged: 1 for EAGAIN,
 * EWOULDBLOCK, EPIPE, EINTR and ECONNRESET, 0 for all others. A non-zero guilty gives 0 for every value.
 */
int no_fault(int err, u_int32_t guilty);

/* W_open: open(). A mode of 0 creates with 0644; the line shows the mode as it was given. */
int W_open(const char* caller, const char* pathname, int flags, mode_t mode);
#define Open3(p, f, m) W_open(__func__, (p), (f), (m))
#define Open(p, f) W_open(__func__, (p), (f), 0)

/* W_close: close(). Success is logged at DEBUG_level. */
int W_close(const char* caller, int fd);
#define Close(fd) W_close(__func__, (fd))

/* W_calloc, W_realloc: calloc() and realloc(); the block is malloc memory and the caller's. NULL is the
 * failure. */
void* W_calloc(const char* caller, size_t nmemb, size_t size);
#define Calloc(n, size) W_calloc(__func__, (n), (size))
void* W_realloc(const char* caller, void* ptr, size_t size);
#define Realloc(p, size) W_realloc(__func__, (p), (size))

/* W_lseek: lseek(). */
off_t W_lseek(const char* caller, int fd, off_t offset, int whence);
#define Lseek(fd, o, w) W_lseek(__func__, (fd), (o), (w))

/* W_unlink: unlink(). */
int W_unlink(const char* caller, const char* pathname);
#define Unlink(p) W_unlink(__func__, (p))

/* W_ftruncate: ftruncate(). */
int W_ftruncate(const char* caller, int fd, off_t length);
#define Ftruncate(fd, l) W_ftruncate(__func__, (fd), (l))

/* W_connect: connect(). EINPROGRESS fails like any error, but its line stands at INFO_level and names
 * "W_connect". */
int W_connect(const char* caller, int sockfd, const struct sockaddr* addr, socklen_t addrlen);
#define Connect(s, a, l) W_connect(__func__, (s), (a), (l))

/*
 * W_write_f, W_read_f, W_pread_f, W_sendfile_f: write(), read(), pread() and sendfile(). With flags of 0 the
 * errors that no_fault() names are returned without a line; with any other value every error is logged.
 * W_sendfile_f: offset is not NULL (the line shows it), and its line has no line end.
 */
ssize_t W_write_f(const char* caller, int fd, const void* buf, size_t count, u_int32_t flags);
#define Write_f(fd, b, c, f) W_write_f(__func__, (fd), (b), (c), (f))
ssize_t W_read_f(const char* caller, int fd, void* buf, size_t count, u_int32_t flags);
#define Read_f(fd, b, c, f) W_read_f(__func__, (fd), (b), (c), (f))
ssize_t W_pread_f(const char* caller, int fd, void* buf, size_t count, off_t offset, u_int32_t flags);
#define Pread_f(fd, b, c, o, f) W_pread_f(__func__, (fd), (b), (c), (o), (f))
ssize_t W_sendfile_f(const char* caller, int out_fd, int in_fd, off_t* offset, size_t count,
                     u_int32_t fflags);
#define Sendfile_f(ouf, inf, o, c, ff) W_sendfile_f(__func__, (ouf), (inf), (o), (c), (ff))

/* W_socket: socket(). Success is logged at DEBUG_level. */
int W_socket(const char* caller, int domain, int type, int protocol);
#define Socket(d, t, p) W_socket(__func__, (d), (t), (p))

/* W_getsockopt, W_setsockopt: getsockopt() and setsockopt(). */
int W_getsockopt(const char* caller, int sockfd, int level, int optname, void* optval, socklen_t* optlen);
#define Getsockopt(fd, lv, n, v, ln) W_getsockopt(__func__, (fd), (lv), (n), (v), (ln))
int W_setsockopt(const char* caller, int sockfd, int level, int optname, const void* optval,
                 socklen_t optlen);
#define Setsockopt(fd, lv, n, v, ln) W_setsockopt(__func__, (fd), (lv), (n), (v), (ln))

/* W_bind, W_listen: bind() and listen(). */
int W_bind(const char* caller, int sockfd, const struct sockaddr* addr, socklen_t addrlen);
#define Bind(fd, a, l) W_bind(__func__, (fd), (a), (l))
int W_listen(const char* caller, int sockfd, int backlog);
#define Listen(fd, b) W_listen(__func__, (fd), (b))

/*
 * W_getaddrinfo: getaddrinfo(). Only the code -1 (EAI_BADFLAGS) is logged; every other code, such as that of
 * a name that does not resolve, passes without a line: test the result for non-zero. *res is the caller's,
 * for freeaddrinfo().
 */
int W_getaddrinfo(const char* caller, const char* node, const char* service, const struct addrinfo* hints,
                  struct addrinfo** res);
#define Getaddrinfo(n, s, h, r) W_getaddrinfo(__func__, (n), (s), (h), (r))

/* W_select: select(). EINTR is logged only where the module's or section's level is DEBUG_level or above. */
int W_select(const char* caller, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
             struct timeval* timeout);
#define Select(n, r, w, e, t) W_select(__func__, (n), (r), (w), (e), (t))

/* W_accept: accept(). EAGAIN and EWOULDBLOCK are never logged. */
int W_accept(const char* caller, int sockfd, struct sockaddr* addr, socklen_t* addrlen);
#define Accept(s, a, n) W_accept(__func__, (s), (a), (n))

/* W_poll: poll(), timeout in milliseconds. A time-out (result 0) is logged at WARN_level. */
int W_poll(const char* caller, struct pollfd* fds, nfds_t nfds, int timeout);
#define Poll(f, n, t) W_poll(__func__, (f), (n), (t))

/* W_dup2, W_pipe, W_fork, W_kill: dup2(), pipe(), fork() and kill(). */
int W_dup2(const char* caller, int oldfd, int newfd);
#define Dup2(o, n) W_dup2(__func__, (o), (n))
int W_pipe(const char* caller, int pipefd[2]);
#define Pipe(pfd) W_pipe(__func__, (pfd))
pid_t W_fork(const char* caller);
#define Fork() W_fork(__func__)
int W_kill(const char* caller, pid_t pid, int sig);
#define Kill(p, s) W_kill(__func__, (p), (s))

/*
 * W_sendto, W_recvfrom: sendto() and recvfrom(). A result of 0 counts as a failure too: it is logged, with
 * whatever value errno holds, and returned as 0. No error is tolerated, EAGAIN included.
 */
ssize_t W_sendto(const char* caller, int sockfd, const void* buf, size_t len, int flags,
                 const struct sockaddr* dest_addr, socklen_t addrlen);
#define Sendto(s, b, l, f, a, n) W_sendto(__func__, (s), (b), (l), (f), (a), (n))
ssize_t W_recvfrom(const char* caller, int sockfd, void* buf, size_t len, int flags,
                   struct sockaddr* src_addr, socklen_t* addrlen);
#define Recvfrom(s, b, l, f, a, n) W_recvfrom(__func__, (s), (b), (l), (f), (a), (n))

MV_END_DECLS

#endif
