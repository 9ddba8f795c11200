#include "privns.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {

namespace {

void must(bool done, const char* what)
{
    if (!done) {
        perror(what);
        abort();
    }
}

// Waits for the child that goes on with the program, and ends as it ends.
[[noreturn]] void end_like(pid_t child)
{
    int status = 0;
    for (pid_t pid = 0; pid != child;) {
        pid = waitpid(-1, &status, 0);
        must(pid > 0 || errno == EINTR, "waitpid");
    }
    if (WIFSIGNALED(status) && getpid() != 1) { // the first process of a namespace cannot end by a signal
        const rlimit no_core{0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        signal(WTERMSIG(status), SIG_DFL);
        raise(WTERMSIG(status));
    }
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

void go_on_in_child()
{
    fflush(nullptr);
    const pid_t pid = fork();
    must(pid >= 0, "fork");
    if (pid > 0) {
        end_like(pid);
    }
}

void bind_file(const std::string& from, const std::string& to)
{
    const int fd = open(to.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666);
    must(fd >= 0, to.c_str());
    close(fd);
    must(mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) == 0, "bind mount");
}

} // namespace

std::string enter_private_namespaces()
{
    static bool done = false;
    if (done) {
        return "";
    }
    if (geteuid() != 0) {
        return "this needs root";
    }
    if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) {
        return "private process and mount namespaces are not allowed here";
    }
    go_on_in_child();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    must(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount /");
    must(mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0, "mount /proc");
    go_on_in_child();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    must(prctl(PR_SET_CHILD_SUBREAPER, 1) == 0, "prctl");
    done = true;
    return "";
}

void make_private_dev(const std::string& dir)
{
    must(mkdir(dir.c_str(), 0755) == 0, dir.c_str());
    must(mount("tmpfs", dir.c_str(), "tmpfs", 0, "mode=755") == 0, "mount tmpfs");
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
        const std::string leaf = std::string("/") + name;
        bind_file("/dev" + leaf, dir + leaf);
    }
    must(mount(dir.c_str(), "/dev", nullptr, MS_MOVE, nullptr) == 0, "move mount");
}

} // namespace support
