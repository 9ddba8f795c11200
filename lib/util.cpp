// A process's own affairs: daemon mode, user, signals, pid files, limits, paths and small files.
#include "util.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <pwd.h>
#include <sched.h>
#include <string_view>
#include <strings.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "detail/app_flags.h"
#include "detail/kept_errno.h"
#include "detail/owned.h"
#include "netops.h"
#include "syswrap.h"

DECLARE_MLL(MLL_COMMON);

MV_APP_FLAG(g_quit);
MV_APP_FLAG(g_hup);
MV_APP_FLAG(g_usr1);
MV_APP_FLAG(g_goodbye);
MV_APP_FLAG(g_sigctx);

namespace {

using mv::KeptErrno;

// Under these the steps of the calls report.
constexpr char kDaemonize[] = "daemonize";
constexpr char kPidfile[] = "create_pidfile_extra";
constexpr char kSetUnlimitedCore[] = "set_unlimited_core";

constexpr mode_t kPidfileMode = 0644;
// A long in decimal with its sign, and the terminator.
constexpr size_t kPidTextMax = 21;
constexpr size_t kDatagramMax = 1400;
// -E2BIG, written out: callers and documents know the number.
constexpr ssize_t kTooBig = -7;

// A new session in "/" with a clean umask and without stdin and stdout. 0, or the result of the step that
// failed. In "/" the daemon keeps no file system from being unmounted; stderr stays for what goes wrong
// before there is a log. The first failure ends it, with umask and descriptors untouched.
int leave_terminal()
{
    const char* step = "setsid";
    int rc = setsid() == -1 ? -1 : 0;
    if (rc == 0) {
        step = "chdir";
        rc = chdir("/");
    }
    if (rc != 0) {
        const KeptErrno e;
        log_err("%s: failed at %s, ERROR(%d): %s\n", kDaemonize, step, e.number(), e.text());
        return -1;
    }
    umask(0); // each file of the daemon says its own mode
    FILE* fp = log_fp(&g_log);
    const int log_fd = fp != nullptr ? fileno(fp) : -1;
    // A log on one of the three is a log on what the lines below close, or on a terminal that is left.
    if (log_fd >= 0 && log_fd <= STDERR_FILENO) {
        log_default(&g_log, stderr);
    }
    // Kept: nothing is opened in their place; the daemon's own files may get the numbers.
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    return 0;
}

// Forks; the parent ends here, by exit(), not _exit(): what it has in its streams is written, and its
// handlers run. 0 in the child, -1 if there is none.
int continue_in_child()
{
    const pid_t pid = fork();
    if (pid > 0) {
        exit(0);
    }
    return pid == 0 ? 0 : -1;
}

// Without SA_RESTART: the loops of the family wait in calls that a signal has to end.
int set_handler(int signum, void (*handler)(int))
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    return sigaction(signum, &action, nullptr);
}

// While it lives, the log knows that a handler runs; errno is put back at the end.
class SignalContext {
  public:
    SignalContext() { g_sigctx = 1; }

    SignalContext(const SignalContext&) = delete;
    SignalContext& operator=(const SignalContext&) = delete;

    ~SignalContext() { g_sigctx = 0; }

  private:
    KeptErrno kept_;
};

// Of the whole file, on the descriptor that stays open: the lock goes with the process, however it ends. A
// lock by fcntl is the process's own: a child does not inherit it, so it is taken after daemonize(), and the
// close of any descriptor of the file, in any part of the process, gives it up. Length 0 reaches to the end
// of the file wherever that is.
int write_lock(int fd, const char* fpath, uint32_t flags)
{
    struct flock lock;
    memset(&lock, 0, sizeof lock);
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const int rc = fcntl(fd, F_SETLK, &lock);
    if (rc == -1) {
        const KeptErrno e;
        if (e.number() != EACCES && e.number() != EAGAIN) {
            log_err("fcntl write-lock ERROR(%d): %s\n", e.number(), e.text());
        } else if ((flags & CPFX_HUSH) != 0) {
            log_err("Another instance is already running\n");
        } else {
            log_err("%s: file [%s] is locked (another instance of daemon must be running)\n", __func__,
                    fpath);
        }
    }
    return rc;
}

int write_pid(int fd, pid_t pid)
{
    char text[kPidTextMax];
    const int n = snprintf(text, sizeof text, "%ld", static_cast<long>(pid));
    if (n < 1 || static_cast<size_t>(n) >= sizeof text) {
        const KeptErrno e;
        log_err("%s: ERROR(%d) or not enough space for pid\n", kPidfile, e.number());
        return -1;
    }
    return W_write_f(kPidfile, fd, text, static_cast<size_t>(n), 1) == n ? 0 : -1;
}

// By which the caller knows, at its end, whether the file at the path is still its own.
int get_inode(int fd, ino_t* inode)
{
    struct stat st;
    if (fstat(fd, &st) != 0) {
        const KeptErrno e;
        log_err("%s: fstat(fd%d,..) ERROR(%d): %s\n", kPidfile, fd, e.number(), e.text());
        return -1;
    }
    *inode = st.st_ino;
    return 0;
}

// Kept: the file is emptied only under the lock, or a second instance would wipe the first one's pid.
int fill_pidfile(int fd, const char* fpath, pid_t pid, ino_t* inode, uint32_t flags)
{
    int rc = write_lock(fd, fpath, flags);
    if (rc == 0) {
        rc = W_ftruncate(kPidfile, fd, 0);
    }
    if (rc == 0) {
        rc = write_pid(fd, pid);
    }
    if (rc == 0 && inode != nullptr) {
        rc = get_inode(fd, inode);
    }
    return rc;
}

// The soft limit alone: the hard one is the administrator's, and once lowered does not come back. In bytes.
int set_limit(int lid, u_long new_lim, const char* tag)
{
    // glibc declares the two calls with this enumeration, which C++ does not make of an int by itself.
    const auto resource = static_cast<__rlimit_resource>(lid);
    struct rlimit limit;
    if (getrlimit(resource, &limit) != 0) {
        const KeptErrno e;
        log_err("%s: getrlimit(%d) ERROR(%d): %s\n", __func__, lid, e.number(), e.text());
        return -1;
    }
    limit.rlim_cur = new_lim;
    if (setrlimit(resource, &limit) != 0) {
        const KeptErrno e;
        log_err("%s: setrlimit(%d, %lu) ERROR(%d): %s\n", __func__, lid, new_lim, e.number(), e.text());
        return -1;
    }
    log_info("%s(%s/%d): %lu bytes\n", __func__, tag, lid, new_lim);
    return 0;
}

// A process that changed its user is not dumpable any more, and a core limit alone would bring no core. The
// state 2, whose core only root may read, counts as dumpable.
int ensure_dumpable()
{
    if (prctl(PR_GET_DUMPABLE) != 0) {
        return 0;
    }
    log_info("%s: process is currently NOT core-dumpable; will enforce\n", kSetUnlimitedCore);
    if (prctl(PR_SET_DUMPABLE, 1) != 0) {
        const KeptErrno e;
        log_err("%s: prctl(PR_SET_DUMPABLE, 1) ERROR(%d): %s\n", kSetUnlimitedCore, e.number(), e.text());
        return -1;
    }
    return 0;
}

// Whether the result of a snprintf with room for size bytes is a whole text. A size of 0 fits nothing.
bool fits(int n, size_t size)
{
    return n >= 0 && static_cast<size_t>(n) < size;
}

} // namespace

int daemonize(void)
{
    // Twice: the first child leads a session, and as its leader could still get a terminal; the second
    // cannot.
    if (continue_in_child() != 0) {
        return -1;
    }
    const int rc = leave_terminal();
    return rc == 0 ? continue_in_child() : rc;
}

int run_as_user(const char* user)
{
    errno = 0; // tells a user that is not there from a look-up that failed
    const struct passwd* pw = getpwnam(user);
    if (pw == nullptr) {
        const KeptErrno e;
        if (e.number() != 0) {
            log_err("%s: getpwnam(%s): %s\n", __func__, user, e.text());
        } else {
            log_err("%s: getpwnam: user %s not found\n", __func__, user);
        }
        return -1;
    }
    // pw is libc's own record, which the next look-up overwrites: both numbers go out by value.
    return run_as_user_id(pw->pw_uid, pw->pw_gid);
}

int run_as_user_id(uid_t uid, gid_t gid)
{
    // Kept: the supplementary groups stay; daemons rely on them for their devices. The group first: without
    // root's rights, which setuid() takes away, no group could be set.
    return setgid(gid) == 0 && setuid(uid) == 0 ? 0 : -1;
}

int goto_runtime_dir(const char* saved)
{
    const char* dir = saved;
    if (dir != nullptr && chdir(dir) == 0) {
        return 0;
    }
    // Kept: EPERM alone leads to the home directory; a directory that may not be entered gives EACCES.
    if (dir == nullptr || errno == EPERM) {
        // The effective user, whose rights count for all that the daemon does there. An errno of 0 in the
        // line below tells a user who is not there from a look-up that failed.
        const uid_t uid = geteuid();
        errno = 0;
        const struct passwd* pw = getpwuid(uid);
        if (pw == nullptr) {
            const KeptErrno e;
            log_err("getpwuid(%ld) ERROR(%d): %s\n", static_cast<long>(uid), e.number(), e.text());
            return -1;
        }
        dir = pw->pw_dir;
        if (chdir(dir) == 0) {
            return 0;
        }
    }
    const KeptErrno e;
    log_err("chdir(%s) ERROR(%d): %s\n", dir, e.number(), e.text());
    return -1;
}

int set_nice(int niceval)
{
    const int rc = nice(niceval);
    const KeptErrno e;
    if (rc != 0) {
        // Kept: nice() returns the new nice value, so that a success other than 0 is logged as an error too.
        log_err("nice(%d) ERROR(%d): %s\n", niceval, e.number(), e.text());
    } else {
        log_info("nice value adjusted by %d.\n", niceval);
    }
    return rc;
}

int pin2cpu(int cpunum)
{
    // A number that is none leaves the set empty, which the kernel refuses: CPU_SET would write beside it.
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpunum >= 0 && cpunum < CPU_SETSIZE) {
        CPU_SET(cpunum, &set);
    }
    return sched_setaffinity(0, sizeof set, &set);
}

int handle_quit_signals(void (*handle_quit)(int))
{
    for (const int signum : {SIGTERM, SIGQUIT, SIGINT}) {
        if (set_handler(signum, handle_quit) != 0) {
            const KeptErrno e;
            log_err("%s: sigaction (quit) ERROR(%d): %s\n", __func__, e.number(), e.text());
            return -1;
        }
    }
    return 0;
}

int handle_sig(int signum, void (*handler)(int))
{
    if (set_handler(signum, handler) != 0) {
        const KeptErrno e;
        log_err("%s: sigaction (signo=%d) ERROR(%d): %s\n", __func__, signum, e.number(), e.text());
        return -1;
    }
    return 0;
}

int ignore_sigpipe(void)
{
    if (set_handler(SIGPIPE, SIG_IGN) != 0) {
        const KeptErrno e;
        log_err("%s: sigaction (SIGPIPE) ERROR(%d): %s\n", __func__, e.number(), e.text());
        return -1;
    }
    return 0;
}

void on_sighup(int signo)
{
    const SignalContext context;
    g_hup = 1;                      // before the line, which may take its time
    log_norm("SIGHUP(%d) ", signo); // Kept: no line end, the next line continues it
}

void on_sigusr1(int signo)
{
    const SignalContext context;
    g_usr1 = 1;
    log_norm("SIGUSR1(%d) ", signo);
}

void on_sigquit(int signo)
{
    const SignalContext context;
    g_quit = 1;
    if (signo == SIGTERM || signo == SIGINT) {
        g_goodbye = 1;
    }
    log_norm("QUIT-SIG(%d)\n", signo);
}

void reset_getopt_state(void)
{
    // glibc's way to begin anew: 1 would leave it inside a cluster of short options, and with the old order.
    optind = 0;
}

int create_pidfile_extra(const char* fpath, pid_t pid, ino_t* inode, uint32_t flags)
{
    ASSERT(fpath != nullptr && pid > 0);
    if (*fpath == '\0') {
        log_err("%s: no path specified\n", __func__);
        return -1;
    }
    // Not truncated here: the file may hold the pid of an instance that runs. O_NOCTTY: a path that leads to
    // a terminal must not make it the daemon's.
    mv::OwnedFd fd{Open3(fpath, O_WRONLY | O_CREAT | O_NOCTTY, kPidfileMode)};
    if (!fd) {
        return -1;
    }
    const int rc = fill_pidfile(fd.get(), fpath, pid, inode, flags);
    const KeptErrno kept;
    if (rc == 0) {
        fd.release(); // the lock lives in it
    } else {
        Close(fd.release());
    }
    if ((flags & CPFX_HUSH) == 0) {
        const auto number = static_cast<long>(pid);
        if (rc == 0) {
            log_info("Created pidfile [%s] with pid=%ld.\n", fpath, number);
        } else {
            log_err("%s: failed to create pidfile [%s] with pid=%ld.\n", __func__, fpath, number);
        }
    }
    return rc;
}

char* mk_pidfile_name(const char* dir, const char* app, const char* strid, long int numid, char* buf,
                      size_t buflen)
{
    // By the real user's rights, as access() asks: in a program that runs under another effective user the
    // creation of the file may go otherwise.
    if (access(dir, W_OK) != 0) {
        const KeptErrno e;
        log_err("%s: directory [%s] is not writable: ERROR(%d): %s\n", __func__, dir, e.number(), e.text());
        return nullptr;
    }
    int n = -1;
    if (strid != nullptr && numid < 0) {
        n = snprintf(buf, buflen, "%s/%s-%s.pid", dir, app, strid);
    } else if (strid != nullptr) {
        n = snprintf(buf, buflen, "%s/%s-%s%ld.pid", dir, app, strid, numid);
    } else {
        n = snprintf(buf, buflen, "%s/%s-%ld.pid", dir, app, numid);
    }
    if (!fits(n, buflen)) {
        log_err("%s: %d bytes needed for filename, only %ld available.\n", __func__, n,
                static_cast<long>(buflen));
        return nullptr;
    }
    return buf;
}

int set_unlimited_core(struct rlimit* old)
{
    if (ensure_dumpable() != 0) {
        return -1;
    }
    struct rlimit local;
    // Filled before anything is changed: a caller whose limit stands already gets it too.
    struct rlimit* current = old != nullptr ? old : &local;
    if (getrlimit(RLIMIT_CORE, current) != 0) {
        const KeptErrno e;
        log_err("%s: getrlimit ERROR(%d): %s\n", __func__, e.number(), e.text());
        return -1;
    }
    if (current->rlim_cur == RLIM_INFINITY) {
        log_dbg("%s: already set\n", __func__);
        return 0;
    }
    log_dbg("%s: current=%ld/%ld\n", __func__, static_cast<long>(current->rlim_cur),
            static_cast<long>(current->rlim_max));
    // The hard limit too: where that is lower, a process without CAP_SYS_RESOURCE is refused, and both stay.
    const struct rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_CORE, &unlimited) != 0) {
        const KeptErrno e;
        log_err("%s: setrlimit ERROR(%d): %s\n", __func__, e.number(), e.text());
        return -1;
    }
    log_dbg("%s: OK\n", __func__);
    return 0;
}

int set_vmem_limit(u_long new_lim)
{
    return set_limit(MEM_LIMIT, new_lim, "vmem");
}

int set_rss_limit(u_long new_lim)
{
    // Kept: the address space again; Linux enforces no limit on the resident set.
    return set_limit(MEM_LIMIT, new_lim, "rss");
}

int set_mem_limits(u_long rss, u_long vmem)
{
    // One of the two: both set the same resource, and the second would undo the first. 0 sets none.
    if (rss != 0) {
        return set_rss_limit(rss);
    }
    return vmem != 0 ? set_vmem_limit(vmem) : 0;
}

const char* get_base(const char* path)
{
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

char* replace_dir(const char* path, const char* new_dir, char* buf, size_t buflen)
{
    const char* base = get_base(path);
    const bool has_dir = new_dir != nullptr && *new_dir != '\0';
    const int n = has_dir ? snprintf(buf, buflen, "%s/%s", new_dir, base) : snprintf(buf, buflen, "%s", base);
    if (!fits(n, buflen)) {
        log_err("%s: %d characters required, %ld afforded\n", __func__, n, static_cast<long>(buflen));
        return nullptr;
    }
    return buf;
}

void get_stat_mode(int fd, mode_t* st_mode)
{
    struct stat st;
    if (fstat(fd, &st) != 0) {
        const KeptErrno e;
        log_err("%s: FAILED to retrieve mode for fd=%d: %s\n", __func__, fd, e.text());
        // Callers pass what they have just opened: a failure is an error of the program.
        abort();
    }
    *st_mode = st.st_mode;
}

const char* fmode_str(mode_t m)
{
    switch (m & S_IFMT) {
    case S_IFREG: return "FILE";
    case S_IFSOCK: return "SOCK";
    case S_IFDIR: return "DIR";
    case S_IFCHR: return "CHR";
    case S_IFBLK: return "BLK";
    case S_IFIFO: return "FIFO";
    case S_IFLNK: return "LINK";
    default: return "{???}";
    }
}

FILE* fopen_any(const char* base, const char* mode, size_t ndirs, const char** dirs, char* path,
                size_t pathlen)
{
    FILE* fp = nullptr;
    for (size_t i = 0; fp == nullptr && i < ndirs && dirs[i] != nullptr; ++i) {
        const int n = std::string_view(dirs[i]).ends_with('/')
                          ? snprintf(path, pathlen, "%s%s", dirs[i], base)
                          : snprintf(path, pathlen, "%s/%s", dirs[i], base);
        // The places behind it are not tried: a later one might be opened under a name that was not meant.
        if (!fits(n, pathlen)) {
            errno = E2BIG;
            break;
        }
        log_dbg("%s: trying to open [%s]\n", __func__, path);
        fp = fopen(path, mode);
    }
    if (fp != nullptr) {
        log_dbg("%s: opened [%s]\n", __func__, path);
    } else if (pathlen > 0) {
        *path = '\0';
    }
    return fp;
}

const char* pick_first_file(const char** path, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        if (access(path[i], F_OK) == 0) {
            return path[i];
        }
    }
    return nullptr;
}

int redirect_output(const char* dst_path)
{
    const int fd = Open(dst_path, O_WRONLY);
    if (fd == -1) {
        return -1;
    }
    int rc = 0;
    // Both get the one opening and so one position in the file: neither writes over the other.
    if (Dup2(fd, STDOUT_FILENO) == -1) {
        rc = -2;
    } else if (Dup2(fd, STDERR_FILENO) == -1) {
        rc = -3;
    }
    const KeptErrno kept;
    // Where stdout or stderr was closed, the file itself may have got that number.
    if (fd != STDOUT_FILENO && fd != STDERR_FILENO) {
        Close(fd);
    }
    return rc;
}

ssize_t read_file_buf(const char* fpath, char* buf, size_t buflen)
{
    const mv::OwnedFd fd{Open(fpath, O_RDONLY)};
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0) {
        return -1;
    }
    // By the size first: a file is read whole or not at all, and never in part. What has no size of its own
    // (a pipe, a file of /proc) tells 0 and counts as empty.
    const auto size = static_cast<size_t>(st.st_size);
    if (size > buflen) {
        log_err("%s: file size (%ld bytes) is too big for buffer (%ld bytes)\n", __func__,
                static_cast<long>(size), static_cast<long>(buflen));
        return kTooBig;
    }
    const ssize_t got = Read_f(fd.get(), buf, size, 1);
    if (got >= 0 && got < st.st_size) {
        log_err("%s: [%s] under-read: %ld/%ld\n", __func__, fpath, static_cast<long>(got),
                static_cast<long>(size));
        return -1;
    }
    return got;
}

int file_to_dest(const char* addr, const char* port, const char* fpath)
{
    char buf[kDatagramMax]; // what goes through an Ethernet in one piece
    const ssize_t size = read_file_buf(fpath, buf, sizeof buf);
    if (size < 1) {
        return -1;
    }
    struct socket_spec spec;
    memset(&spec, 0, sizeof spec);
    spec.writer = 1;
    // The look-up of the name may wait; the datagram goes at once or not at all.
    spec.non_blocking = 1;
    spec.socktype = SOCK_DGRAM;
    const int fd = open_socket(addr, port, nullptr, &spec, nullptr, nullptr);
    if (fd == -1) {
        return -1;
    }
    const ssize_t sent = Sendto(fd, buf, static_cast<size_t>(size), 0,
                                reinterpret_cast<const struct sockaddr*>(&spec.addr_ss), spec.addr_len);
    const int rc = Close(fd);
    return sent == size && rc == 0 ? 0 : -1;
}

off_t tag_index(const char* name, const char** tags)
{
    for (off_t i = 0; tags[i] != nullptr; ++i) {
        if (strcasecmp(name, tags[i]) == 0) {
            return i;
        }
    }
    return -1;
}

const char* cpy_till(const char* s, const char* delim, char* buf, size_t buflen)
{
    if (buflen > 0) {
        const size_t length = strcspn(s, delim);
        const size_t copied = length < buflen ? length : buflen - 1;
        memcpy(buf, s, copied);
        buf[copied] = '\0';
    }
    return buf;
}

int close_pipe(int* pipefd)
{
    // A failure leaves the other end open for the caller to see to.
    for (int i = 0; i < 2; ++i) {
        const int rc = pipefd[i] >= 0 ? Close(pipefd[i]) : 0;
        if (rc != 0) {
            return rc;
        }
    }
    return 0;
}
