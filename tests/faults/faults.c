/* faults: a library that stands in front of a program's others (LD_PRELOAD) and makes calls of one kind fail.
 *
 *   FAULTS_KIND    the kind: first argument of a wrapper below; none fails where it is missing
 *   FAULTS_STACK   only calls whose "stack" (see below) begins so are counted
 *   FAULTS_NTH     which of them fails first, counted from 1 in each line of forked processes
 *   FAULTS_ON      set: all that follow fail too
 *   FAULTS_CODE    errno of the failure; a result of its own for getaddrinfo, getnameinfo and activation
 *   FAULTS_REPORT  file for what is to be known afterwards, a line each:
 *
 *     hit PID CALL OBJECT OFFSET   a call failed; the return address, in its object
 *     within OBJECT:OFFSET ...     after one of the first hits: its return addresses, as of "stack"
 *     stack KIND CALL OBJECT:OFFSET ...
 *                                  where FAULTS_KIND is "sites": a call, and its return addresses from within
 *                                  outwards, without those of the system's libraries; each such line once
 *     child PID CHILD              a fork
 *     signal SIGNO                 sigaction failed for that signal
 *     waits PID                    the first call that waits for packets or events
 *     call KIND                    a call that did not fail, where FAULTS_KIND is "count"
 *     end PID FD TARGET            a descriptor that is open at the exit
 *
 * Calls of the program and of its libraries count; those within the C library do not, but for the
 * allocations. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <unwind.h>

enum { STACK_ROOM = 2048 };

static struct {
    bool ready; /* main is near: what ran before it does not count */
    bool on;
    bool counts;
    bool shows_sites;
    const char* kind;
    const char* report;
    const char* stack;
    long nth;
    int code;
} g;

static atomic_long g_calls; /* of that kind */
static atomic_int g_waits;
static atomic_int g_told;

/* ---- the report, by system calls alone ---------------------------------------------------------- */

__attribute__((format(printf, 1, 2))) static void tell(const char* format, ...)
{
    if (g.report == NULL) {
        return;
    }
    const int saved = errno;
    char text[STACK_ROOM];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    const long fd = syscall(SYS_openat, AT_FDCWD, g.report, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) {
        syscall(SYS_write, fd, text, (size_t)length < sizeof text ? (size_t)length : sizeof text);
        syscall(SYS_close, fd);
    }
    errno = saved;
}

static void tell_hit(const char* call, void* caller)
{
    Dl_info info = {0};
    if (dladdr(caller, &info) == 0 || info.dli_fname == NULL) {
        info.dli_fname = "?";
    }
    tell("hit %ld %s %s %lx\n", syscall(SYS_getpid), call, info.dli_fname,
         (unsigned long)((char*)caller - (char*)info.dli_fbase));
}

/* Of the program and of the library beside it, not of the system's libraries and of this one. */
static bool is_ours(const char* object)
{
    return object != NULL && strncmp(object, "/lib", 4) != 0 && strncmp(object, "/usr", 4) != 0 &&
           strstr(object, "linux-vdso") == NULL && strstr(object, "libzent_faults") == NULL;
}

enum { FRAMES = 48, ADDRESS_ROOM = 300 };

struct stack {
    char* frames[FRAMES]; /* return addresses, innermost first */
    size_t count;
};

static _Unwind_Reason_Code take_frame(struct _Unwind_Context* context, void* argument)
{
    struct stack* const stack = argument;
    if (stack->count == FRAMES) {
        return _URC_NORMAL_STOP;
    }
    stack->frames[stack->count++] = (char*)_Unwind_GetIP(context);
    return _URC_NO_REASON;
}

/* The innermost of the return addresses, behind what stands there. */
static void write_frames(char* line, size_t room, size_t used, const struct stack* stack)
{
    for (size_t i = 0; i < stack->count && used + ADDRESS_ROOM < room; ++i) {
        Dl_info info = {0};
        if (dladdr(stack->frames[i], &info) != 0 && is_ours(info.dli_fname)) {
            used += (size_t)snprintf(line + used, ADDRESS_ROOM, " %.250s:%lx", info.dli_fname,
                                     (unsigned long)(stack->frames[i] - (char*)info.dli_fbase));
        }
    }
    snprintf(line + used, room - used, "\n");
}

/* The kind of a call, its name and the innermost of its return addresses: what makes its site. */
static void write_stack(char* line, size_t room, const char* kind, const char* call,
                        const struct stack* stack)
{
    write_frames(line, room, (size_t)snprintf(line, room, "stack %s %s", kind, call), stack);
}

/* Whether these addresses were never asked for. Two stacks that come to one number hide one another. */
static bool is_new(const struct stack* stack)
{
    enum { KNOWN = 1 << 16 };

    static unsigned long known[KNOWN];
    unsigned long number = 14695981039346656037UL; /* FNV-1a, by address */
    for (size_t i = 0; i < stack->count; ++i) {
        number = (number ^ (unsigned long)stack->frames[i]) * 1099511628211UL;
    }
    for (size_t step = 0; step < KNOWN; ++step) {
        unsigned long* const place = &known[((number >> 32) + step) % KNOWN];
        if (*place == number) {
            return false;
        }
        if (*place == 0) {
            *place = number;
            return true;
        }
    }
    return true;
}

static void tell_wait(void)
{
    if (g.ready && atomic_exchange(&g_waits, 1) == 0) {
        tell("waits %ld\n", syscall(SYS_getpid));
    }
}

/* libpcap's steps call each other: only those count that the program takes. */
static bool within_libpcap(const char* kind, void* caller)
{
    Dl_info info;
    return strncmp(kind, "pcap", 4) == 0 && dladdr(caller, &info) != 0 &&
           strstr(info.dli_fname, "/libpcap.") != NULL;
}

static void tell_site(const char* kind, const char* call)
{
    const int saved = errno;
    struct stack stack = {.count = 0};
    _Unwind_Backtrace(take_frame, &stack);
    if (is_new(&stack)) {
        char line[STACK_ROOM];
        write_stack(line, sizeof line, kind, call, &stack);
        tell("%s", line);
    }
    errno = saved;
}

static void tell_within(void)
{
    char line[STACK_ROOM];
    struct stack stack = {.count = 0};
    _Unwind_Backtrace(take_frame, &stack);
    write_frames(line, sizeof line, (size_t)snprintf(line, sizeof line, "within"), &stack);
    tell("%s", line);
}

static bool is_at_site(const char* kind, const char* call)
{
    char line[STACK_ROOM];
    const size_t length = (size_t)snprintf(line, sizeof line, "stack %s %s ", kind, call);
    if (g.stack == NULL || strncmp(g.stack, line, length) != 0) {
        return g.stack == NULL;
    }
    const int saved = errno;
    struct stack stack = {.count = 0};
    _Unwind_Backtrace(take_frame, &stack);
    write_stack(line, sizeof line, kind, call, &stack);
    errno = saved;
    const size_t wanted = strlen(g.stack);
    return strncmp(line, g.stack, wanted) == 0 && (line[wanted] == ' ' || line[wanted] == '\n');
}

static bool must_fail(const char* kind, const char* call, void* caller)
{
    if (!g.ready || within_libpcap(kind, caller)) {
        return false;
    }
    if (g.counts) {
        tell("call %s\n", kind);
        return false;
    }
    if (g.shows_sites) {
        tell_site(kind, call);
        return false;
    }
    if (g.kind == NULL || strcmp(kind, g.kind) != 0 || !is_at_site(kind, call)) {
        return false;
    }
    const long n = atomic_fetch_add(&g_calls, 1) + 1;
    if (n < g.nth || (n > g.nth && !g.on)) {
        return false;
    }
    const int told = atomic_fetch_add(&g_told, 1);
    if (told < 1000) { /* a loop may ask for ever */
        tell_hit(call, caller);
    }
    if (told < 10) {
        tell_within();
    }
    errno = g.code;
    return true;
}

__attribute__((constructor)) static void begin(void)
{
    g.kind = getenv("FAULTS_KIND");
    g.report = getenv("FAULTS_REPORT");
    g.counts = g.kind != NULL && strcmp(g.kind, "count") == 0;
    g.shows_sites = g.kind != NULL && strcmp(g.kind, "sites") == 0;
    g.on = getenv("FAULTS_ON") != NULL;
    g.stack = getenv("FAULTS_STACK");
    const char* nth = getenv("FAULTS_NTH");
    const char* code = getenv("FAULTS_CODE");
    g.nth = nth != NULL ? atol(nth) : 1;
    g.code = code != NULL ? atoi(code) : 0;
    g.ready = true;
}

static void tell_open(int dir, const char* name)
{
    const int fd = atoi(name); /* 0 for "." and ".." too, which are no links */
    char target[256] = "";
    if (fd != dir && syscall(SYS_readlinkat, dir, name, target, sizeof target - 1) > 0) {
        tell("end %ld %d %s\n", syscall(SYS_getpid), fd, target);
    }
}

__attribute__((destructor)) static void end(void)
{
    g.ready = false;
    const long dir = syscall(SYS_openat, AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    char entries[4096];
    long size = 0;
    while (dir >= 0 && (size = syscall(SYS_getdents64, dir, entries, sizeof entries)) > 0) {
        for (long at = 0; at < size; at += ((struct dirent64*)(entries + at))->d_reclen) {
            tell_open((int)dir, ((struct dirent64*)(entries + at))->d_name);
        }
    }
    syscall(SYS_close, dir);
    tell("end %ld\n", syscall(SYS_getpid));
}

/* ---- shapes of wrappers ------------------------------------------------------------------------- */

#define HERE __builtin_return_address(0)

/* The next definition of a call, found once. */
#define REAL(type, name, params)                                                                             \
    static type(*real) params;                                                                               \
    if (real == NULL) {                                                                                      \
        *(void**)&real = dlsym(RTLD_NEXT, #name);                                                            \
    }

#define CALL(type, failed, kind, name, params, args)                                                         \
    __attribute__((visibility("default"))) type name params                                                  \
    {                                                                                                        \
        REAL(type, name, params)                                                                             \
        return must_fail(kind, #name, HERE) ? (failed) : real args;                                          \
    }

/* What the C library does to a stream on which an operation has failed. NULL: all streams, none of which is
 * known here. */
static void mark_error(FILE* stream)
{
    if (stream != NULL) {
        stream->_flags |= _IO_ERR_SEEN;
    }
}

#define STREAM_CALL(type, failed, kind, name, params, args, stream)                                          \
    __attribute__((visibility("default"))) type name params                                                  \
    {                                                                                                        \
        REAL(type, name, params)                                                                             \
        if (must_fail(kind, #name, HERE)) {                                                                  \
            mark_error(stream);                                                                              \
            return failed;                                                                                   \
        }                                                                                                    \
        return real args;                                                                                    \
    }

/* The same for a call that gives up its argument whatever it returns. */
#define CLOSING_CALL(kind, name, params, args)                                                               \
    __attribute__((visibility("default"))) int name params                                                   \
    {                                                                                                        \
        REAL(int, name, params)                                                                              \
        const bool fails = must_fail(kind, #name, HERE);                                                     \
        const int code = errno;                                                                              \
        const int rc = real args;                                                                            \
        errno = fails ? code : errno;                                                                        \
        return fails ? -1 : rc;                                                                              \
    }

#define WAITING_CALL(name, params, args)                                                                     \
    __attribute__((visibility("default"))) int name params                                                   \
    {                                                                                                        \
        REAL(int, name, params)                                                                              \
        tell_wait();                                                                                         \
        return must_fail("wait", #name, HERE) ? -1 : real args;                                              \
    }

/* ---- memory ------------------------------------------------------------------------------------- */

CALL(void*, NULL, "alloc", malloc, (size_t size), (size))
CALL(void*, NULL, "alloc", calloc, (size_t count, size_t size), (count, size))
CALL(void*, NULL, "alloc", realloc, (void* block, size_t size), (block, size))
CALL(char*, NULL, "alloc", strdup, (const char* text), (text))
CALL(char*, NULL, "alloc", strndup, (const char* text, size_t size), (text, size))
CALL(void*, NULL, "alloc", aligned_alloc, (size_t align, size_t size), (align, size))
CALL(int, g.code, "alloc", posix_memalign, (void** block, size_t align, size_t size), (block, align, size))
CALL(void*, MAP_FAILED, "mmap", mmap, (void* at, size_t size, int prot, int flags, int fd, off_t offset),
     (at, size, prot, flags, fd, offset))
CALL(void*, MAP_FAILED, "mmap", mmap64, (void* at, size_t size, int prot, int flags, int fd, off_t offset),
     (at, size, prot, flags, fd, offset))
CALL(int, -1, "munmap", munmap, (void* at, size_t size), (at, size))

/* ---- files -------------------------------------------------------------------------------------- */

static mode_t mode_of(int flags, va_list args)
{
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
}

#define OPEN(name, first_params, first_args)                                                                 \
    __attribute__((visibility("default"))) int name first_params                                             \
    {                                                                                                        \
        REAL(int, name, first_params)                                                                        \
        va_list args;                                                                                        \
        va_start(args, flags);                                                                               \
        const mode_t mode = mode_of(flags, args);                                                            \
        va_end(args);                                                                                        \
        return must_fail("open", #name, HERE) ? -1 : real first_args;                                        \
    }

OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
OPEN(open64, (const char* path, int flags, ...), (path, flags, mode))
OPEN(openat, (int dir, const char* path, int flags, ...), (dir, path, flags, mode))
OPEN(openat64, (int dir, const char* path, int flags, ...), (dir, path, flags, mode))

int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
CALL(int, -1, "open", __open_2, (const char* path, int flags), (path, flags))
CALL(int, -1, "open", __open64_2, (const char* path, int flags), (path, flags))
CALL(int, -1, "open", creat, (const char* path, mode_t mode), (path, mode))
CALL(int, -1, "open", mkstemp, (char* path), (path))
CALL(FILE*, NULL, "fopen", fopen, (const char* path, const char* mode), (path, mode))
CALL(FILE*, NULL, "fopen", fopen64, (const char* path, const char* mode), (path, mode))
CALL(FILE*, NULL, "fopen", fdopen, (int fd, const char* mode), (fd, mode))
CALL(FILE*, NULL, "fopen", popen, (const char* command, const char* mode), (command, mode))
CALL(DIR*, NULL, "fopen", opendir, (const char* path), (path))
CALL(FILE*, NULL, "fopencookie", fopencookie, (void* cookie, const char* mode, cookie_io_functions_t calls),
     (cookie, mode, calls))
CALL(int, -1, "memfd", memfd_create, (const char* name, unsigned flags), (name, flags))
CALL(struct dirent*, NULL, "readdir", readdir, (DIR * dir), (dir))
CALL(struct dirent64*, NULL, "readdir", readdir64, (DIR * dir), (dir))

ssize_t __read_chk(int fd, void* buf, size_t size, size_t room);
char* __fgets_chk(char* text, size_t room, int size, FILE* file);
CALL(ssize_t, -1, "read", read, (int fd, void* buf, size_t size), (fd, buf, size))
CALL(ssize_t, -1, "read", __read_chk, (int fd, void* buf, size_t size, size_t room), (fd, buf, size, room))
CALL(ssize_t, -1, "read", pread, (int fd, void* buf, size_t size, off_t at), (fd, buf, size, at))
CALL(ssize_t, -1, "read", pread64, (int fd, void* buf, size_t size, off_t at), (fd, buf, size, at))
STREAM_CALL(char*, NULL, "fgets", fgets, (char* text, int size, FILE* file), (text, size, file), file)
STREAM_CALL(char*, NULL, "fgets", __fgets_chk, (char* text, size_t room, int size, FILE* file),
            (text, room, size, file), file)
STREAM_CALL(ssize_t, -1, "fgets", getline, (char** line, size_t* size, FILE* file), (line, size, file), file)
STREAM_CALL(size_t, 0, "fgets", fread, (void* buf, size_t size, size_t count, FILE* file),
            (buf, size, count, file), file)

CALL(ssize_t, -1, "write", write, (int fd, const void* buf, size_t size), (fd, buf, size))
CALL(ssize_t, -1, "write", pwrite, (int fd, const void* buf, size_t size, off_t at), (fd, buf, size, at))
CALL(ssize_t, -1, "write", pwrite64, (int fd, const void* buf, size_t size, off_t at), (fd, buf, size, at))
CALL(ssize_t, -1, "write", writev, (int fd, const struct iovec* parts, int count), (fd, parts, count))
CALL(ssize_t, -1, "write", sendfile, (int to, int from, off_t* at, size_t size), (to, from, at, size))
CALL(ssize_t, -1, "write", sendfile64, (int to, int from, off_t* at, size_t size), (to, from, at, size))

STREAM_CALL(int, EOF, "print", fputs, (const char* text, FILE* file), (text, file), file)
STREAM_CALL(int, EOF, "print", fputs_unlocked, (const char* text, FILE* file), (text, file), file)
STREAM_CALL(int, EOF, "print", fputc, (int c, FILE* file), (c, file), file)
STREAM_CALL(int, EOF, "print", putc, (int c, FILE* file), (c, file), file)
STREAM_CALL(int, EOF, "print", putchar, (int c), (c), stdout)
STREAM_CALL(int, EOF, "print", puts, (const char* text), (text), stdout)
STREAM_CALL(int, EOF, "print", fflush, (FILE * file), (file), file)
STREAM_CALL(size_t, 0, "print", fwrite, (const void* buf, size_t size, size_t count, FILE* file),
            (buf, size, count, file), file)
STREAM_CALL(int, -1, "print", vfprintf, (FILE * file, const char* format, va_list args), (file, format, args),
            file)

int __vfprintf_chk(FILE* file, int flag, const char* format, va_list args);
STREAM_CALL(int, -1, "print", __vfprintf_chk, (FILE * file, int flag, const char* format, va_list args),
            (file, flag, format, args), file)

#define PRINT(name, params, last, file)                                                                      \
    __attribute__((visibility("default"))) int name params                                                   \
    {                                                                                                        \
        static int (*real)(FILE*, const char*, va_list);                                                     \
        if (real == NULL) {                                                                                  \
            *(void**)&real = dlsym(RTLD_NEXT, "vfprintf");                                                   \
        }                                                                                                    \
        if (must_fail("print", #name, HERE)) {                                                               \
            mark_error(file);                                                                                \
            return -1;                                                                                       \
        }                                                                                                    \
        va_list args;                                                                                        \
        va_start(args, last);                                                                                \
        const int rc = real(file, last, args);                                                               \
        va_end(args);                                                                                        \
        return rc;                                                                                           \
    }

int __fprintf_chk(FILE* to, int flag, const char* format, ...);
int __printf_chk(int flag, const char* format, ...);
PRINT(fprintf, (FILE * to, const char* format, ...), format, to)
PRINT(__fprintf_chk, (FILE * to, __attribute__((unused)) int flag, const char* format, ...), format, to)
PRINT(printf, (const char* format, ...), format, stdout)
PRINT(__printf_chk, (__attribute__((unused)) int flag, const char* format, ...), format, stdout)

CLOSING_CALL("close", close, (int fd), (fd))
CLOSING_CALL("fclose", fclose, (FILE * file), (file))
CLOSING_CALL("fclose", pclose, (FILE * file), (file))

CALL(int, -1, "stat", stat, (const char* path, struct stat* st), (path, st))
CALL(int, -1, "stat", lstat, (const char* path, struct stat* st), (path, st))
CALL(int, -1, "stat", fstat, (int fd, struct stat* st), (fd, st))
CALL(int, -1, "stat", access, (const char* path, int mode), (path, mode))
CALL(ssize_t, -1, "readlink", readlink, (const char* path, char* buf, size_t size), (path, buf, size))
CALL(int, -1, "rename", rename, (const char* from, const char* to), (from, to))
CALL(int, -1, "unlink", unlink, (const char* path), (path))
CALL(int, -1, "unlink", shm_unlink, (const char* name), (name))
CALL(int, -1, "truncate", ftruncate, (int fd, off_t size), (fd, size))
CALL(int, -1, "fsync", fsync, (int fd), (fd))
CALL(off_t, -1, "seek", lseek, (int fd, off_t at, int from), (fd, at, from))
CALL(int, -1, "seek", fseek, (FILE * file, long at, int from), (file, at, from))
CALL(int, -1, "chdir", chdir, (const char* path), (path))
CALL(char*, NULL, "getcwd", getcwd, (char* buf, size_t size), (buf, size))
char* __getcwd_chk(char* buf, size_t size, size_t room);
CALL(char*, NULL, "getcwd", __getcwd_chk, (char* buf, size_t size, size_t room), (buf, size, room))

#define CONTROL(name, request_type)                                                                          \
    __attribute__((visibility("default"))) int name(int fd, request_type request, ...)                       \
    {                                                                                                        \
        REAL(int, name, (int, request_type, ...))                                                            \
        va_list args;                                                                                        \
        va_start(args, request);                                                                             \
        void* argument = va_arg(args, void*);                                                                \
        va_end(args);                                                                                        \
        return must_fail(#name, #name, HERE) ? -1 : real(fd, request, argument);                             \
    }

CONTROL(fcntl, int)
CONTROL(fcntl64, int)
CONTROL(ioctl, unsigned long)

CALL(int, -1, "dup", dup, (int fd), (fd))
CALL(int, -1, "dup", dup2, (int fd, int to), (fd, to))
CALL(int, -1, "pipe", pipe, (int fds[2]), (fds))
CALL(int, -1, "pipe", pipe2, (int fds[2], int flags), (fds, flags))

/* ---- sockets ------------------------------------------------------------------------------------ */

CALL(int, -1, "socket", socket, (int domain, int type, int protocol), (domain, type, protocol))
CALL(int, -1, "socket", socketpair, (int domain, int type, int protocol, int fds[2]),
     (domain, type, protocol, fds))
CALL(int, -1, "setsockopt", setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
     (fd, level, name, value, size))
CALL(int, -1, "getsockopt", getsockopt, (int fd, int level, int name, void* value, socklen_t* size),
     (fd, level, name, value, size))
CALL(int, -1, "bind", bind, (int fd, const struct sockaddr* to, socklen_t size), (fd, to, size))
CALL(int, -1, "connect", connect, (int fd, const struct sockaddr* to, socklen_t size), (fd, to, size))
CALL(int, -1, "listen", listen, (int fd, int backlog), (fd, backlog))
CALL(int, -1, "accept", accept, (int fd, struct sockaddr* from, socklen_t* size), (fd, from, size))
CALL(int, -1, "accept", accept4, (int fd, struct sockaddr* from, socklen_t* size, int flags),
     (fd, from, size, flags))
CALL(int, -1, "shutdown", shutdown, (int fd, int how), (fd, how))
CALL(int, -1, "sockname", getsockname, (int fd, struct sockaddr* own, socklen_t* size), (fd, own, size))
CALL(int, -1, "sockname", getpeername, (int fd, struct sockaddr* peer, socklen_t* size), (fd, peer, size))
CALL(ssize_t, -1, "send", send, (int fd, const void* buf, size_t size, int flags), (fd, buf, size, flags))
CALL(ssize_t, -1, "send", sendto,
     (int fd, const void* buf, size_t size, int flags, const struct sockaddr* to, socklen_t length),
     (fd, buf, size, flags, to, length))
CALL(ssize_t, -1, "send", sendmsg, (int fd, const struct msghdr* message, int flags), (fd, message, flags))
CALL(ssize_t, -1, "recv", recv, (int fd, void* buf, size_t size, int flags), (fd, buf, size, flags))
CALL(ssize_t, -1, "recv", recvfrom,
     (int fd, void* buf, size_t size, int flags, struct sockaddr* from, socklen_t* length),
     (fd, buf, size, flags, from, length))
CALL(ssize_t, -1, "recv", recvmsg, (int fd, struct msghdr* message, int flags), (fd, message, flags))
CALL(int, -1, "recv", recvmmsg,
     (int fd, struct mmsghdr* messages, unsigned count, int flags, struct timespec* limit),
     (fd, messages, count, flags, limit))
CALL(int, g.code, "getaddrinfo", getaddrinfo,
     (const char* host, const char* service, const struct addrinfo* hints, struct addrinfo** found),
     (host, service, hints, found))
CALL(int, g.code, "getnameinfo", getnameinfo,
     (const struct sockaddr* of, socklen_t size, char* host, socklen_t room, char* service, socklen_t room2,
      int flags),
     (of, size, host, room, service, room2, flags))
CALL(int, -1, "getifaddrs", getifaddrs, (struct ifaddrs * *list), (list))
CALL(unsigned, 0, "ifname", if_nametoindex, (const char* name), (name))
CALL(char*, NULL, "ifname", if_indextoname, (unsigned index, char name[IF_NAMESIZE]), (index, name))

/* ---- processes, users, signals, limits ---------------------------------------------------------- */

__attribute__((visibility("default"))) pid_t fork(void)
{
    REAL(pid_t, fork, (void))
    if (must_fail("fork", "fork", HERE)) {
        return -1;
    }
    const long parent = syscall(SYS_getpid);
    const pid_t pid = real();
    if (pid > 0) {
        tell("child %ld %d\n", parent, pid);
    }
    return pid;
}

CALL(int, g.code, "fork", posix_spawn,
     (pid_t * pid, const char* path, const posix_spawn_file_actions_t* acts, const posix_spawnattr_t* attr,
      char* const* argv, char* const* env),
     (pid, path, acts, attr, argv, env))
CALL(int, g.code, "fork", posix_spawnp,
     (pid_t * pid, const char* file, const posix_spawn_file_actions_t* acts, const posix_spawnattr_t* attr,
      char* const* argv, char* const* env),
     (pid, file, acts, attr, argv, env))
CALL(pid_t, -1, "waitpid", waitpid, (pid_t pid, int* status, int options), (pid, status, options))
CALL(int, g.code, "thread", pthread_create,
     (pthread_t * thread, const pthread_attr_t* attr, void* (*body)(void*), void* argument),
     (thread, attr, body, argument))

__attribute__((visibility("default"))) int prctl(int option, ...)
{
    REAL(int, prctl, (int, unsigned long, unsigned long, unsigned long, unsigned long))
    va_list args;
    va_start(args, option);
    unsigned long values[4];
    for (int i = 0; i < 4; ++i) {
        values[i] = va_arg(args, unsigned long);
    }
    va_end(args);
    return must_fail("process", "prctl", HERE) ? -1
                                               : real(option, values[0], values[1], values[2], values[3]);
}

CALL(pid_t, -1, "setsid", setsid, (void), ())
CALL(int, -1, "setuid", setuid, (uid_t uid), (uid))
CALL(int, -1, "setuid", setgid, (gid_t gid), (gid))
CALL(int, -1, "setuid", initgroups, (const char* user, gid_t gid), (user, gid))
CALL(int, -1, "setuid", setgroups, (size_t count, const gid_t* list), (count, list))
CALL(struct passwd*, NULL, "passwd", getpwnam, (const char* name), (name))
CALL(struct passwd*, NULL, "passwd", getpwuid, (uid_t uid), (uid))
CALL(struct group*, NULL, "passwd", getgrnam, (const char* name), (name))

__attribute__((visibility("default"))) int sigaction(int signo, const struct sigaction* act,
                                                     struct sigaction* old)
{
    REAL(int, sigaction, (int, const struct sigaction*, struct sigaction*))
    if (must_fail("sigaction", "sigaction", HERE)) {
        tell("signal %d\n", signo);
        return -1;
    }
    return real(signo, act, old);
}

CALL(int, -1, "setitimer", setitimer,
     (__itimer_which_t which, const struct itimerval* value, struct itimerval* old), (which, value, old))
CALL(int, -1, "process", sched_setaffinity, (pid_t pid, size_t size, const cpu_set_t* cpus),
     (pid, size, cpus))
CALL(int, -1, "process", nice, (int step), (step))
CALL(int, -1, "process", kill, (pid_t pid, int signo), (pid, signo))
CALL(int, -1, "process", uname, (struct utsname * of), (of))
CALL(int, -1, "gethostname", gethostname, (char* name, size_t size), (name, size))
CALL(ssize_t, -1, "getrandom", getrandom, (void* buf, size_t size, unsigned flags), (buf, size, flags))
CALL(int, -1, "process", nanosleep, (const struct timespec* span, struct timespec* rest), (span, rest))
CALL(int, -1, "rlimit", getrlimit, (__rlimit_resource_t resource, struct rlimit* limit), (resource, limit))
CALL(int, -1, "rlimit", setrlimit, (__rlimit_resource_t resource, const struct rlimit* limit),
     (resource, limit))
CALL(int, -1, "rlimit", getrusage, (__rusage_who_t who, struct rusage* usage), (who, usage))

/* ---- time and events ---------------------------------------------------------------------------- */

CALL(int, -1, "clock", clock_gettime, (clockid_t clock, struct timespec* now), (clock, now))
CALL(struct tm*, NULL, "localtime", localtime_r, (const time_t* at, struct tm* tm), (at, tm))
CALL(struct tm*, NULL, "localtime", gmtime_r, (const time_t* at, struct tm* tm), (at, tm))
CALL(time_t, -1, "localtime", mktime, (struct tm * tm), (tm))
CALL(int, -1, "epoll", epoll_create, (int size), (size))
CALL(int, -1, "epoll", epoll_create1, (int flags), (flags))
CALL(int, -1, "epoll_ctl", epoll_ctl, (int loop, int op, int fd, struct epoll_event* event),
     (loop, op, fd, event))
CALL(int, -1, "eventfd", eventfd, (unsigned count, int flags), (count, flags))
CALL(int, -1, "inotify", inotify_init, (void), ())
CALL(int, -1, "inotify", inotify_init1, (int flags), (flags))
CALL(int, -1, "inotify", inotify_add_watch, (int fd, const char* path, uint32_t mask), (fd, path, mask))
CALL(int, -1, "inotify", inotify_rm_watch, (int fd, int watch), (fd, watch))
WAITING_CALL(epoll_wait, (int loop, struct epoll_event* events, int room, int limit),
             (loop, events, room, limit))
WAITING_CALL(poll, (struct pollfd * fds, nfds_t count, int limit), (fds, count, limit))
WAITING_CALL(select, (int count, fd_set* in, fd_set* out, fd_set* bad, struct timeval* limit),
             (count, in, out, bad, limit))

/* ---- libpcap: each of its steps ----------------------------------------------------------------- */

static void* no_capture(char* text)
{
    snprintf(text, PCAP_ERRBUF_SIZE, "fault of libpcap");
    return NULL;
}

__attribute__((visibility("default"))) int pcap_lookupnet(const char* name, bpf_u_int32* net,
                                                          bpf_u_int32* mask, char* text)
{
    REAL(int, pcap_lookupnet, (const char*, bpf_u_int32*, bpf_u_int32*, char*))
    if (must_fail("pcap_lookupnet", "pcap_lookupnet", HERE)) {
        no_capture(text);
        return -1;
    }
    return real(name, net, mask, text);
}

CALL(pcap_t*, no_capture(text), "pcap_open", pcap_open_live,
     (const char* name, int length, int promiscuous, int limit, char* text),
     (name, length, promiscuous, limit, text))
CALL(pcap_t*, no_capture(text), "pcap_open", pcap_create, (const char* name, char* text), (name, text))
CALL(int, g.code, "pcap_set", pcap_set_snaplen, (pcap_t * handle, int value), (handle, value))
CALL(int, g.code, "pcap_set", pcap_set_promisc, (pcap_t * handle, int value), (handle, value))
CALL(int, g.code, "pcap_set", pcap_set_timeout, (pcap_t * handle, int value), (handle, value))
CALL(int, g.code, "pcap_set", pcap_set_immediate_mode, (pcap_t * handle, int value), (handle, value))
CALL(int, g.code, "pcap_set", pcap_set_buffer_size, (pcap_t * handle, int value), (handle, value))
CALL(int, g.code, "pcap_activate", pcap_activate, (pcap_t * handle), (handle))
CALL(int, (no_capture(text), -1), "pcap_setnonblock", pcap_setnonblock,
     (pcap_t * handle, int value, char* text), (handle, value, text))
CALL(int, -1, "pcap_fd", pcap_get_selectable_fd, (pcap_t * handle), (handle))
CALL(int, -1, "pcap_compile", pcap_compile,
     (pcap_t * handle, struct bpf_program* program, const char* text, int optimise, bpf_u_int32 mask),
     (handle, program, text, optimise, mask))
CALL(int, -1, "pcap_setfilter", pcap_setfilter, (pcap_t * handle, struct bpf_program* program),
     (handle, program))

__attribute__((visibility("default"))) int pcap_dispatch(pcap_t* handle, int count, pcap_handler take,
                                                         u_char* user)
{
    REAL(int, pcap_dispatch, (pcap_t*, int, pcap_handler, u_char*))
    tell_wait();
    return must_fail("pcap_dispatch", "pcap_dispatch", HERE) ? -1 : real(handle, count, take, user);
}
