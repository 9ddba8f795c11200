// Daemon mode, users, directories, priorities and signals, each on real processes.
#include "util.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <getopt.h>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "child.h"
#include "fixtures.h"
#include "tempdir.h"
#include "text.h"
#include "wrap.h"

using support::ChildResult;
using support::Lines;
using support::run_in_child;
using support::TempDir;

namespace {

// Countdowns: the n-th call from now fails with the errno given; 0: none.
int g_fail_fork = 0;
int g_fail_setsid = 0;
int g_fail_chdir = 0;
int g_fail_sigaction = 0;
int g_errno = EPERM;
int g_setgid_calls = 0;
bool g_fail_getpwnam = false;
bool g_no_user = false; // getpwnam finds nobody, and says nothing in errno
const passwd* g_pwuid = nullptr;

bool must_fail(int& countdown)
{
    if (countdown > 0 && --countdown == 0) {
        errno = g_errno;
        return true;
    }
    return false;
}

// Runs the body in a child that may turn into a daemon, and collects what it writes to the descriptor that it
// gets, until the last process that holds it has ended. *direct is how the child itself ended.
std::string report_of(const std::function<void(int)>& body, ChildResult* direct = nullptr)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        abort();
    }
    ChildResult result = run_in_child([&] {
        close(ends[0]);
        body(ends[1]);
        return 77;
    });
    close(ends[1]);
    std::string text;
    char block[1024];
    for (ssize_t n = 0; (n = read(ends[0], block, sizeof block)) > 0;) {
        text.append(block, static_cast<size_t>(n));
    }
    close(ends[0]);
    if (direct != nullptr) {
        *direct = result;
    }
    return text;
}

bool is_root()
{
    return geteuid() == 0;
}

std::string own_cwd()
{
    char text[PATH_MAX];
    return getcwd(text, sizeof text) != nullptr ? text : "?";
}

cpu_set_t* g_asked_cpus = nullptr; // where it stands, takes the set, and the system is not asked

volatile sig_atomic_t g_seen = 0;

void note(int signo)
{
    g_seen = signo;
}

} // namespace

WRAPPED(pid_t, fork, ());
WRAPPED(pid_t, setsid, ());
WRAPPED(int, chdir, (const char* path));
WRAPPED(int, sigaction, (int signo, const struct sigaction* act, struct sigaction* old));
WRAPPED(passwd*, getpwnam, (const char* name));
WRAPPED(passwd*, getpwuid, (uid_t uid));
WRAPPED(int, setgid, (gid_t gid));
WRAPPED(int, sched_setaffinity, (pid_t pid, size_t size, const cpu_set_t* set));

extern "C" {
pid_t __wrap_fork()
{
    return must_fail(g_fail_fork) ? -1 : __real_fork();
}

pid_t __wrap_setsid()
{
    return must_fail(g_fail_setsid) ? -1 : __real_setsid();
}

int __wrap_chdir(const char* path)
{
    return must_fail(g_fail_chdir) ? -1 : __real_chdir(path);
}

int __wrap_sigaction(int signo, const struct sigaction* act, struct sigaction* old)
{
    return must_fail(g_fail_sigaction) ? -1 : __real_sigaction(signo, act, old);
}

passwd* __wrap_getpwnam(const char* name)
{
    if (g_fail_getpwnam) {
        errno = EIO;
        return nullptr;
    }
    return g_no_user ? nullptr : __real_getpwnam(name);
}

passwd* __wrap_getpwuid(uid_t uid)
{
    return g_pwuid != nullptr ? const_cast<passwd*>(g_pwuid) : __real_getpwuid(uid);
}

int __wrap_setgid(gid_t gid)
{
    ++g_setgid_calls;
    return __real_setgid(gid);
}

int __wrap_sched_setaffinity(pid_t pid, size_t size, const cpu_set_t* set)
{
    if (g_asked_cpus == nullptr) {
        return __real_sched_setaffinity(pid, size, set);
    }
    EXPECT_EQ(size, sizeof *set);
    *g_asked_cpus = *set;
    return 0;
}
}

class UtilDaemon : public support::GuardedTest {};

TEST_F(UtilDaemon, lives_in_a_session_of_its_own_that_it_does_not_lead)
{
    const pid_t session = getsid(0);
    ChildResult direct;
    const std::string report = report_of(
        [&](int fd) {
            const pid_t first = getpid();
            const int rc = daemonize();
            dprintf(fd, "%d;%d;%d;%d;%d", rc, getpid() != first, getsid(0) != session, getsid(0) != getpid(),
                    getppid() != first);
            _exit(0);
        },
        &direct);
    EXPECT_EQ(report, "0;1;1;1;1");
    EXPECT_EQ(direct.exit_code, 0); // the parent ends well, and does not come back
}

TEST_F(UtilDaemon, kept_works_in_the_root_with_a_clean_umask_and_without_stdin_and_stdout)
{
    const std::string report = report_of([](int fd) {
        umask(077);
        daemonize();
        dprintf(fd, "%s;%o;%d;%d;%d", own_cwd().c_str(), umask(0), fcntl(0, F_GETFD), fcntl(1, F_GETFD),
                fcntl(2, F_GETFD));
        _exit(0);
    });
    EXPECT_EQ(report, "/;0;-1;-1;0");
}

TEST_F(UtilDaemon, a_log_on_stdout_moves_to_stderr)
{
    const std::string report = report_of([](int fd) {
        log_default(&g_log, stdout);
        daemonize();
        dprintf(fd, "%d", log_fp(&g_log) == stderr);
        _exit(0);
    });
    EXPECT_EQ(report, "1");
}

TEST_F(UtilDaemon, a_log_on_any_stream_of_descriptor_2_moves_to_stderr)
{
    const std::string report = report_of([](int fd) {
        log_default(&g_log, fdopen(STDERR_FILENO, "w"));
        daemonize();
        dprintf(fd, "%d", log_fp(&g_log) == stderr);
        _exit(0);
    });
    EXPECT_EQ(report, "1");
}

TEST_F(UtilDaemon, a_log_on_a_file_stays)
{
    TempDir dir;
    const std::string report = report_of([&](int fd) {
        log_append_old(&g_log);
        const int rc = log_open(&g_log, dir.path("log").c_str());
        FILE* before = log_fp(&g_log);
        daemonize();
        dprintf(fd, "%d;%d", rc, log_fp(&g_log) == before);
        _exit(0);
    });
    EXPECT_EQ(report, "0;1");
}

TEST_F(UtilDaemon, a_closed_log_and_a_log_without_descriptor_stay)
{
    EXPECT_EQ(report_of([](int fd) {
                  g_log.fp = nullptr;
                  const int rc = daemonize();
                  dprintf(fd, "%d;%d", rc, log_fp(&g_log) == nullptr);
                  _exit(0);
              }),
              "0;1");
    EXPECT_EQ(report_of([this](int fd) {
                  log.clear();
                  FILE* before = log_fp(&g_log);
                  const int rc = daemonize();
                  dprintf(fd, "%d;%d", rc, log_fp(&g_log) == before);
                  _exit(0);
              }),
              "0;1");
}

TEST_F(UtilDaemon, a_failed_fork_is_the_result)
{
    ChildResult direct;
    const std::string report = report_of(
        [this](int fd) {
            log.clear();
            g_fail_fork = 1;
            g_errno = EAGAIN;
            const int rc = daemonize();
            dprintf(fd, "%d;%d;%zu", rc, errno, log.lines().size());
        },
        &direct);
    EXPECT_EQ(report, "-1;11;0");
    EXPECT_EQ(direct.exit_code, 77); // no process was left behind
    EXPECT_EQ(report_of([this](int fd) {
                  log.clear();
                  g_fail_fork = 2;
                  const int rc = daemonize();
                  dprintf(fd, "%d;%zu", rc, log.lines().size());
                  _exit(0);
              }),
              "-1;0");
}

TEST_F(UtilDaemon, a_failed_session_or_directory_is_logged_with_its_step)
{
    EXPECT_EQ(report_of([this](int fd) {
                  log.clear();
                  g_fail_setsid = 1;
                  const int rc = daemonize();
                  dprintf(fd, "%d;%d;%s", rc, errno, log.text().c_str());
                  _exit(0);
              }),
              "-1;1;(ERR)  daemonize: failed at setsid, ERROR(1): Operation not permitted\n");
    EXPECT_EQ(report_of([this](int fd) {
                  log.clear();
                  g_fail_chdir = 1;
                  g_errno = ENOENT;
                  const int rc = daemonize();
                  dprintf(fd, "%d;%d;%s", rc, errno, log.text().c_str());
                  _exit(0);
              }),
              "-1;2;(ERR)  daemonize: failed at chdir, ERROR(2): No such file or directory\n");
}

TEST_F(UtilDaemon, a_daemon_holds_its_pid_file_to_its_end)
{
    TempDir dir;
    const std::string path = dir.path("pid");
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const ChildResult direct = run_in_child([&] {
        close(gate[1]);
        close(ends[0]);
        daemonize();
        const int rc = create_pidfile(path.c_str(), getpid());
        dprintf(ends[1], "%d;%ld\n", rc, static_cast<long>(getpid()));
        char byte;
        _exit(read(gate[0], &byte, 1) == 0 ? 0 : 1); // until the test closes the gate
        return 0;
    });
    EXPECT_EQ(direct.exit_code, 0);
    close(gate[0]);
    close(ends[1]);
    char text[64] = {};
    ASSERT_GT(read(ends[0], text, sizeof text - 1), 0);
    EXPECT_EQ("0;" + dir.read("pid") + "\n", text);

    EXPECT_EQ(run_in_child([&] {
                  return create_pidfile_extra(path.c_str(), getpid(), nullptr, 0) == 0 ? 0 : 1;
              }).exit_code,
              1);
    EXPECT_EQ("0;" + dir.read("pid") + "\n", text); // the first one's number is still there

    close(gate[1]);
    char byte;
    EXPECT_EQ(read(ends[0], &byte, 1), 0); // the daemon has ended
    close(ends[0]);
    EXPECT_EQ(run_in_child([&] { return create_pidfile(path.c_str(), 1234); }).exit_code, 0);
    EXPECT_EQ(dir.read("pid"), "1234");
}

class UtilUser : public support::GuardedTest {};

TEST_F(UtilUser, run_as_user_becomes_the_user_and_his_group)
{
    if (!is_root()) {
        GTEST_SKIP() << "skipped: needs root";
    }
    const passwd* nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    const uid_t uid = nobody->pw_uid;
    const gid_t gid = nobody->pw_gid;
    const ChildResult result = run_in_child([&] {
        log.clear();
        uid_t real = 0;
        uid_t effective = 0;
        uid_t saved = 0;
        const int rc = run_as_user("nobody");
        getresuid(&real, &effective, &saved);
        printf("%d;%d;%d;%s", rc, real == uid && effective == uid && saved == uid,
               getgid() == gid && getegid() == gid, log.text().c_str());
        return 0;
    });
    EXPECT_EQ(result.out, "0;1;1;");
}

TEST_F(UtilUser, kept_run_as_user_leaves_supplementary_groups)
{
    if (!is_root()) {
        GTEST_SKIP() << "skipped: needs root";
    }
    const ChildResult result = run_in_child([] {
        const gid_t wanted[] = {11, 22};
        gid_t found[8] = {};
        setgroups(2, wanted);
        const int rc = run_as_user("nobody");
        const int count = getgroups(8, found);
        printf("%d;%d;%u;%u", rc, count, found[0], found[1]);
        return 0;
    });
    EXPECT_EQ(result.out, "0;2;11;22");
}

TEST_F(UtilUser, an_unknown_user_is_logged)
{
    EXPECT_EQ(run_as_user("no-such-user-here"), -1);
    EXPECT_EQ(log.lines(), Lines{"(ERR)  run_as_user: getpwnam: user no-such-user-here not found"});
}

TEST_F(UtilUser, an_error_from_before_is_not_taken_for_one_of_the_look_up)
{
    g_no_user = true;
    errno = EXDEV;
    EXPECT_EQ(run_as_user("somebody"), -1);
    g_no_user = false;
    EXPECT_EQ(log.text(), "(ERR)  run_as_user: getpwnam: user somebody not found\n");
}

TEST_F(UtilUser, a_failed_look_up_is_logged_with_its_error)
{
    g_fail_getpwnam = true;
    EXPECT_EQ(run_as_user("somebody"), -1);
    g_fail_getpwnam = false;
    EXPECT_EQ(log.lines(), Lines{"(ERR)  run_as_user: getpwnam(somebody): Input/output error"});
}

TEST_F(UtilUser, run_as_user_id_fails_without_a_line)
{
    if (!is_root()) {
        GTEST_SKIP() << "skipped: needs root";
    }
    const ChildResult result = run_in_child([this] {
        log.clear();
        const int first = run_as_user_id(65534, 65533);
        const int group = run_as_user_id(0, 0); // setgid fails already
        const bool still = getuid() == 65534;
        const int user = run_as_user_id(0, 65533); // setuid fails
        printf("%d;%d;%d;%d;%d;%s", first, group, still, user, g_setgid_calls, log.text().c_str());
        return 0;
    });
    EXPECT_EQ(result.out, "0;-1;1;-1;3;");
}

class UtilDir : public support::GuardedTest {};

TEST_F(UtilDir, goto_runtime_dir_takes_the_saved_directory)
{
    TempDir dir;
    const ChildResult result = run_in_child([&] {
        const int rc = goto_runtime_dir(dir.path().c_str());
        printf("%d;%s", rc, own_cwd().c_str());
        return 0;
    });
    EXPECT_EQ(result.out, "0;" + dir.path());
}

TEST_F(UtilDir, without_a_saved_directory_the_home_serves)
{
    TempDir dir;
    const std::string home = dir.path();
    const ChildResult result = run_in_child([&] {
        passwd pw{};
        pw.pw_dir = const_cast<char*>(home.c_str());
        g_pwuid = &pw;
        const int rc = goto_runtime_dir(nullptr);
        printf("%d;%s", rc, own_cwd().c_str());
        return 0;
    });
    EXPECT_EQ(result.out, "0;" + home);
}

TEST_F(UtilDir, kept_only_eperm_falls_back_to_the_home)
{
    TempDir dir;
    const std::string home = dir.path();
    for (const int err : {EPERM, EACCES, ENOENT}) {
        const ChildResult result = run_in_child([&] {
            log.clear();
            passwd pw{};
            pw.pw_dir = const_cast<char*>(home.c_str());
            g_pwuid = &pw;
            g_fail_chdir = 1;
            g_errno = err;
            const int rc = goto_runtime_dir("/saved");
            const int after = errno;
            printf("%d;%d;%d;%s", rc, own_cwd() == home, rc == 0 ? 0 : after, log.text().c_str());
            return 0;
        });
        EXPECT_EQ(result.out, err == EPERM ? std::string("0;1;0;")
                                           : "-1;0;" + std::to_string(err) + ";(ERR)  chdir(/saved) ERROR(" +
                                                 std::to_string(err) + "): " + strerror(err) + "\n");
    }
}

TEST_F(UtilDir, a_directory_that_may_not_be_entered_is_no_fall_back)
{
    if (!is_root()) {
        GTEST_SKIP() << "skipped: needs root";
    }
    TempDir dir;
    dir.make_dir("closed");
    chmod(dir.path("closed").c_str(), 0700);
    chmod(dir.path().c_str(), 0711);
    const ChildResult result = run_in_child([&] {
        log.clear();
        run_as_user_id(65534, 65534);
        const int rc = goto_runtime_dir(dir.path("closed").c_str());
        printf("%d;%s", rc, log.text().c_str());
        return 0;
    });
    EXPECT_EQ(result.out, "-1;(ERR)  chdir(" + dir.path("closed") + ") ERROR(13): Permission denied\n");
}

TEST_F(UtilDir, an_unknown_user_has_no_home)
{
    if (!is_root()) {
        GTEST_SKIP() << "skipped: needs root";
    }
    const ChildResult result = run_in_child([this] {
        log.clear();
        if (seteuid(54321) != 0) {
            return 1;
        }
        const int rc = goto_runtime_dir(nullptr);
        printf("%d;%s", rc, log.text().c_str());
        return 0;
    });
    EXPECT_EQ(result.out, "-1;(ERR)  getpwuid(54321) ERROR(0): Success\n");
}

TEST_F(UtilDir, a_home_that_is_missing_is_logged)
{
    const ChildResult result = run_in_child([this] {
        log.clear();
        char home[] = "/nonexistent/home";
        passwd pw{};
        pw.pw_dir = home;
        g_pwuid = &pw;
        const int rc = goto_runtime_dir(nullptr);
        printf("%d;%s", rc, log.text().c_str());
        return 0;
    });
    EXPECT_EQ(result.out, "-1;(ERR)  chdir(/nonexistent/home) ERROR(2): No such file or directory\n");
}

class UtilPriority : public support::GuardedTest {};

TEST_F(UtilPriority, kept_a_new_nice_value_is_logged_as_an_error)
{
    const ChildResult result = run_in_child([this] {
        log.clear();
        log.set_level(INFO_level);
        if (setpriority(PRIO_PROCESS, 0, 0) != 0) {
            return 1;
        }
        errno = 0;
        const int none = set_nice(0);
        const int five = set_nice(5);
        printf("%d;%d;%d;%d;%s", none, five, getpriority(PRIO_PROCESS, 0), errno, log.text().c_str());
        return 0;
    });
    if (result.exit_code != 0) {
        GTEST_SKIP() << "skipped: the nice value cannot be set to 0 here";
    }
    EXPECT_EQ(result.out, "0;5;5;0;(INF)  nice value adjusted by 0.\n(ERR)  nice(5) ERROR(0): Success\n");
}

TEST_F(UtilPriority, a_refused_nice_value_keeps_errno)
{
    if (!is_root()) {
        GTEST_SKIP() << "skipped: needs root";
    }
    const ChildResult result = run_in_child([this] {
        log.clear();
        log.set_level(INFO_level);
        run_as_user_id(65534, 65534);
        const int rc = set_nice(-1);
        printf("%d;%d;%s", rc, errno, log.text().c_str());
        return 0;
    });
    EXPECT_EQ(result.out, "-1;1;(ERR)  nice(-1) ERROR(1): Operation not permitted\n");
}

TEST_F(UtilPriority, pin2cpu_binds_to_one_cpu)
{
    const ChildResult result = run_in_child([] {
        cpu_set_t allowed;
        sched_getaffinity(0, sizeof allowed, &allowed);
        int last = -1;
        for (int i = 0; i < CPU_SETSIZE; ++i) {
            last = CPU_ISSET(i, &allowed) ? i : last;
        }
        const int rc = pin2cpu(last);
        cpu_set_t now;
        sched_getaffinity(0, sizeof now, &now);
        printf("%d;%d;%d", rc, CPU_COUNT(&now), CPU_ISSET(last, &now) ? 1 : 0);
        return 0;
    });
    EXPECT_EQ(result.out, "0;1;1");
}

TEST_F(UtilPriority, pin2cpu_asks_for_the_first_and_the_last_cpu_that_there_can_be)
{
    for (const int number : {0, 1, CPU_SETSIZE - 1}) {
        cpu_set_t asked;
        CPU_ZERO(&asked);
        g_asked_cpus = &asked;
        EXPECT_EQ(pin2cpu(number), 0);
        g_asked_cpus = nullptr;
        EXPECT_EQ(CPU_COUNT(&asked), 1);
        EXPECT_TRUE(CPU_ISSET(number, &asked)) << number;
    }
}

TEST_F(UtilPriority, pin2cpu_of_a_number_outside_the_set_is_refused)
{
    const ChildResult result = run_in_child([] {
        for (const int number : {1024, 1023, -1, INT_MAX}) {
            errno = 0;
            const int rc = pin2cpu(number);
            printf("%d;%d ", rc, errno);
        }
        return 0;
    });
    EXPECT_EQ(result.out, "-1;22 -1;22 -1;22 -1;22 ");
}

class UtilSignal : public support::GuardedTest {};

TEST_F(UtilSignal, handle_quit_signals_installs_for_all_three)
{
    const ChildResult result = run_in_child([this] {
        log.clear();
        printf("%d;", handle_quit_signals(note));
        for (const int signo : {SIGTERM, SIGQUIT, SIGINT}) {
            kill(getpid(), signo);
            struct sigaction now;
            sigaction(signo, nullptr, &now);
            constexpr int kRestorer = 0x04000000; // set by the C library
            printf("%d,%d,%d;", g_seen == signo, now.sa_flags & ~kRestorer, sigisemptyset(&now.sa_mask));
        }
        printf("%s", log.text().c_str());
        return 0;
    });
    EXPECT_EQ(result.out, "0;1,0,1;1,0,1;1,0,1;");
}

TEST_F(UtilSignal, handle_quit_signals_stops_at_the_first_failure)
{
    const ChildResult result = run_in_child([this] {
        log.clear();
        g_fail_sigaction = 2;
        g_errno = EINVAL;
        const int rc = handle_quit_signals(note);
        const int err = errno;
        struct sigaction term;
        struct sigaction interrupt;
        sigaction(SIGTERM, nullptr, &term);
        sigaction(SIGINT, nullptr, &interrupt);
        printf("%d;%d;%d;%d;%s", rc, err, term.sa_handler == note, interrupt.sa_handler == note,
               log.text().c_str());
        return 0;
    });
    EXPECT_EQ(result.out,
              "-1;22;1;0;(ERR)  handle_quit_signals: sigaction (quit) ERROR(22): Invalid argument\n");
}

TEST_F(UtilSignal, handle_sig_installs_one_or_logs)
{
    const ChildResult result = run_in_child([this] {
        log.clear();
        const int rc = handle_sig(SIGUSR2, note);
        raise(SIGUSR2);
        const int refused = handle_sig(SIGKILL, note);
        printf("%d;%d;%d;%d;%s", rc, g_seen == SIGUSR2, refused, errno, log.text().c_str());
        return 0;
    });
    EXPECT_EQ(result.out, "0;1;-1;22;(ERR)  handle_sig: sigaction (signo=9) ERROR(22): Invalid argument\n");
}

TEST_F(UtilSignal, ignore_sigpipe_turns_the_signal_into_an_error)
{
    const ChildResult result = run_in_child([this] {
        log.clear();
        int ends[2];
        const int rc = ignore_sigpipe();
        if (pipe(ends) != 0) {
            return 1;
        }
        close(ends[0]);
        const ssize_t n = write(ends[1], "x", 1);
        printf("%d;%zd;%d;", rc, n, errno);
        g_fail_sigaction = 1;
        g_errno = EINVAL;
        const int refused = ignore_sigpipe();
        printf("%d;%s", refused, log.text().c_str());
        return 0;
    });
    EXPECT_EQ(result.out,
              "0;-1;32;-1;(ERR)  ignore_sigpipe: sigaction (SIGPIPE) ERROR(22): Invalid argument\n");
}

TEST_F(UtilSignal, kept_the_handlers_set_their_flags_and_log)
{
    const ChildResult result = run_in_child([this] {
        log.clear();
        handle_sig(SIGHUP, on_sighup);
        handle_sig(SIGUSR1, on_sigusr1);
        handle_quit_signals(on_sigquit);
        raise(SIGHUP);
        printf("%d%d%d%d ", g_hup != 0, g_usr1 != 0, g_quit != 0, g_goodbye != 0);
        raise(SIGUSR1);
        printf("%d%d%d%d ", g_hup != 0, g_usr1 != 0, g_quit != 0, g_goodbye != 0);
        raise(SIGQUIT);
        printf("%d%d%d%d ", g_hup != 0, g_usr1 != 0, g_quit != 0, g_goodbye != 0);
        for (const int signo : {SIGTERM, SIGINT}) {
            g_goodbye = 0;
            raise(signo);
            printf("%d", g_goodbye != 0);
        }
        printf("\n%s", log.text().c_str());
        return 0;
    });
    // The first two messages have no line end: the next line continues them.
    EXPECT_EQ(result.out, "1000 1100 1110 11\n"
                          "(NRM)  SIGHUP(1) (NRM)  SIGUSR1(10) (NRM)  QUIT-SIG(3)\n"
                          "(NRM)  QUIT-SIG(15)\n(NRM)  QUIT-SIG(2)\n");
}

TEST_F(UtilSignal, the_handlers_log_in_signal_context_and_keep_errno)
{
    const ChildResult result = run_in_child([] {
        static std::string contexts;
        cookie_io_functions_t io{};
        io.write = [](void*, const char*, size_t size) -> ssize_t {
            contexts += g_sigctx != 0 ? '1' : '0';
            errno = EIO; // as an output call may
            return static_cast<ssize_t>(size);
        };
        FILE* fp = fopencookie(nullptr, "w", io);
        setvbuf(fp, nullptr, _IONBF, 0);
        log_default(&g_log, fp);
        for (void (*handler)(int) : {on_sighup, on_sigusr1, on_sigquit}) {
            errno = ENOTTY;
            contexts.clear();
            handler(SIGTERM);
            printf("%d%d%d ", contexts.find('0') == std::string::npos && !contexts.empty(), g_sigctx != 0,
                   errno == ENOTTY);
        }
        return 0;
    });
    EXPECT_EQ(result.out, "101 101 101 ");
}

TEST(UtilGetopt, reset_lets_getopt_start_anew)
{
    char program[] = "p";
    char first[] = "-a";
    char second[] = "-b";
    char* argv[] = {program, first, second, nullptr};
    EXPECT_EQ(getopt(3, argv, "ab"), 'a');
    EXPECT_EQ(getopt(3, argv, "ab"), 'b');
    EXPECT_EQ(getopt(3, argv, "ab"), -1);
    reset_getopt_state();
    EXPECT_EQ(optind, 0);
    EXPECT_EQ(getopt(3, argv, "ab"), 'a');
}
