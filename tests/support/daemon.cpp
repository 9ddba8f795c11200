#include "daemon.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "privns.h"
#include "wait.h"

namespace support {

namespace {

std::string g_missing = "not set up"; // why these tests cannot run here

std::string proc_path(pid_t pid, const std::string& name)
{
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// A file of a process; empty if the process is gone, or goes while it is read.
std::string read_proc(pid_t pid, const std::string& name)
{
    char block[8192];
    const int fd = open(proc_path(pid, name).c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t n = fd < 0 ? -1 : read(fd, block, sizeof block);
    close(fd);
    return n < 0 ? "" : std::string(block, static_cast<size_t>(n));
}

// A process's line; nothing if there is none of that number.
std::optional<ProcStat> proc_stat(pid_t pid)
{
    const std::string text = read_proc(pid, "stat");
    const size_t open = text.find('(');
    const size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos) {
        return {};
    }
    ProcStat stat;
    stat.pid = pid;
    stat.name = text.substr(open + 1, close - open - 1);
    std::istringstream rest(text.substr(close + 1));
    pid_t group = 0;
    rest >> stat.state >> stat.parent >> group >> stat.session >> stat.terminal;
    return stat;
}

// Our children, those included that came to us when their parent ended.
std::vector<ProcStat> own_children()
{
    std::vector<ProcStat> result;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const pid_t pid = atoi(entry.path().filename().c_str());
        if (const auto stat = pid > 0 ? proc_stat(pid) : std::nullopt; stat && stat->parent == getpid()) {
            result.push_back(*stat);
        }
    }
    return result;
}

void send_to(int fd, const char* path)
{
    const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    dup2(file, fd);
}

} // namespace

void write_file(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text;
}

bool file_exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

std::string proc_link(pid_t pid, const std::string& name)
{
    char target[4096];
    const ssize_t n = readlink(proc_path(pid, name).c_str(), target, sizeof target);
    return n < 0 ? "" : std::string(target, static_cast<size_t>(n));
}

std::string proc_status(pid_t pid, const std::string& field)
{
    std::istringstream lines(read_proc(pid, "status"));
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, field.size() + 1, field + ":") == 0) {
            return line.substr(line.find_first_not_of(" \t", field.size() + 1));
        }
    }
    return "";
}

Daemon::Daemon(Daemon&& other) noexcept
{
    *this = std::move(other);
}

Daemon& Daemon::operator=(Daemon&& other) noexcept
{
    std::swap(starter, other.starter);
    std::swap(forerunner, other.forerunner);
    std::swap(forerunner_code, other.forerunner_code);
    std::swap(pid_, other.pid_);
    return *this;
}

Daemon::~Daemon()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool Daemon::is_running() const
{
    const auto found = proc_stat(pid_);
    return found && found->state != 'Z';
}

ProcStat Daemon::stat() const
{
    return proc_stat(pid_).value_or(ProcStat{});
}

std::string Daemon::fd(int number) const
{
    return proc_link(pid_, "fd/" + std::to_string(number));
}

void Daemon::kill(int signo) const
{
    ::kill(pid_, signo);
}

DaemonEnd Daemon::wait()
{
    DaemonEnd end;
    int status = 0;
    end.timed_out = !wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; });
    if (end.timed_out) {
        return end;
    }
    pid_ = -1;
    if (WIFEXITED(status)) {
        end.exit_code = WEXITSTATUS(status);
    } else {
        end.signal = WTERMSIG(status);
    }
    return end;
}

DaemonEnd Daemon::stop(int signo)
{
    kill(signo);
    return wait();
}

void DaemonTest::SetUpTestSuite()
{
    g_missing = netns_missing();
    if (g_missing.empty()) {
        g_missing = enter_private_namespaces();
    }
}

void DaemonTest::SetUp()
{
    if (!g_missing.empty()) {
        GTEST_SKIP() << "skipped: " << g_missing;
    }
    guard_.emplace();
    dir_.emplace();
    ASSERT_EQ(chmod(dir_->path().c_str(), 0777), 0);
    std::filesystem::copy_file(zent_path(), binary()); // where any user may run it
    pair_.emplace();
}

void DaemonTest::TearDown()
{
    for (const char* name : {"stdout", "stderr", "log", "pid"}) {
        if (dir_ && HasFailure()) {
            fprintf(stderr, "---- %s:\n%s", name, read_file(path(name)).c_str());
        }
    }
}

Process DaemonTest::foreground(const std::vector<std::string>& args,
                               const std::function<void()>& in_child) const
{
    std::vector<std::string> argv{binary()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, in_child);
}

Process DaemonTest::run(const std::vector<std::string>& argv, const std::function<void()>& in_child) const
{
    return Process(argv, [&] {
        pair_->enter_a();
        if (chdir(dir_->path().c_str()) != 0) {
            _exit(126);
        }
        if (in_child) {
            in_child();
        }
    });
}

Daemon DaemonTest::start(const std::vector<std::string>& args, const std::function<void()>& in_child) const
{
    std::vector<pid_t> before;
    for (const ProcStat& child : own_children()) {
        before.push_back(child.pid);
    }
    const auto is_new = [&](const ProcStat& child) {
        return std::find(before.begin(), before.end(), child.pid) == before.end();
    };

    Daemon daemon;
    Process starter = foreground(args, [&] {
        umask(0022);
        send_to(STDOUT_FILENO, "stdout");
        send_to(STDERR_FILENO, "stderr");
        if (in_child) {
            in_child();
        }
    });
    daemon.starter = starter.wait();
    // The process between starter and daemon leads their session; both come to us.
    const bool both = wait_until([&] {
        for (const ProcStat& child : own_children()) {
            if (is_new(child) && child.session == child.pid) {
                daemon.forerunner = child.pid;
            } else if (is_new(child) && child.session == daemon.forerunner) {
                daemon.pid_ = child.pid;
            }
        }
        return daemon.forerunner > 0 && daemon.pid_ > 0;
    });
    EXPECT_TRUE(both) << "no daemon came of it";
    if (daemon.forerunner > 0) {
        int status = -1;
        waitpid(daemon.forerunner, &status, 0);
        daemon.forerunner_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return daemon;
}

Daemon DaemonTest::start_usual(const std::vector<std::string>& more) const
{
    std::vector<std::string> args{"-i", "va", "-l", path("log"), "-p", path("pid")};
    args.insert(args.end(), more.begin(), more.end());
    Daemon daemon = start(args);
    const std::string last_words =
        ", pid=" + std::to_string(daemon.pid()) + "\n"; // of "zent is running as ..."
    const auto captures = [&] { return log().find(last_words) != std::string::npos; };
    wait_until([&] { return captures() || !daemon.is_running(); });
    EXPECT_TRUE(captures()) << "the daemon did not come up";
    return daemon;
}

} // namespace support
