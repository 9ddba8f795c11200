#include "child.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <sstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include "asserted.h"
#include "log.h"
#include "paths.h"

namespace support {

namespace {

void read_available(int fd, std::string& into)
{
    char block[4096];
    for (ssize_t n = 0; fd >= 0 && (n = read(fd, block, sizeof block)) > 0;) {
        into.append(block, static_cast<size_t>(n));
    }
}

void set_status(ChildResult& result, int status)
{
    if (WIFEXITED(status)) {
        result.exit_code = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
}

// Forks with stdout and stderr on pipes whose read ends do not block.
pid_t fork_with_pipes(int& out_fd, int& err_fd)
{
    int out[2];
    int err[2];
    fflush(nullptr);
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        abort();
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        const rlimit no_core{0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        close(out[0]);
        close(out[1]);
        close(err[0]);
        close(err[1]);
        return 0;
    }
    close(out[1]);
    close(err[1]);
    fcntl(out[0], F_SETFL, O_NONBLOCK);
    fcntl(err[0], F_SETFL, O_NONBLOCK);
    out_fd = out[0];
    err_fd = err[0];
    return pid;
}

ChildResult collect(pid_t pid, int out_fd, int err_fd, std::string out, std::string err,
                    std::chrono::seconds limit)
{
    ChildResult result;
    int status = 0;
    const bool ended = wait_until(
        [&] {
            read_available(out_fd, out);
            read_available(err_fd, err);
            return waitpid(pid, &status, WNOHANG) == pid;
        },
        limit);
    if (!ended) {
        result.timed_out = true;
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    read_available(out_fd, out);
    read_available(err_fd, err);
    set_status(result, status);
    result.out = std::move(out);
    result.err = std::move(err);
    return result;
}

// Where EXAMPLES_UNDER is set, an example runs by the command in it: scripts/valgrind.
std::vector<std::string> runner_of(const std::string& program)
{
    std::vector<std::string> words;
    const char* const command = getenv("EXAMPLES_UNDER");
    if (command != nullptr && program.starts_with(build_path("examples/"))) {
        std::istringstream text(command);
        words.assign(std::istream_iterator<std::string>(text), {});
    }
    return words;
}

[[noreturn]] void exec(const std::vector<std::string>& argv)
{
    const std::vector<std::string> runner = runner_of(argv[0]);
    std::vector<char*> args;
    for (const std::string& word : runner) {
        args.push_back(const_cast<char*>(word.c_str()));
    }
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    execvp(args[0], args.data());
    perror(args[0]);
    _exit(127);
}

} // namespace

ChildResult run_in_child(const std::function<int()>& body, std::chrono::seconds limit)
{
    int out_fd = -1;
    int err_fd = -1;
    const pid_t pid = fork_with_pipes(out_fd, err_fd);
    if (pid == 0) {
        const int code = body();
        fflush(nullptr);
        _exit(code);
    }
    ChildResult result = collect(pid, out_fd, err_fd, {}, {}, limit);
    close(out_fd);
    close(err_fd);
    return result;
}

std::string expect_abort(const std::string& text, const std::function<void()>& body)
{
    const ChildResult child = run_in_child([&] {
        log_default(&g_log, stderr);
        body();
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT) << "exit code " << child.exit_code << ", stderr: " << child.err;
    EXPECT_NE(child.err.find(text), std::string::npos) << child.err;
    return child.err;
}

void expect_assertion(const std::string& function, const std::function<void()>& body)
{
    const std::string text = expect_abort(body);
    EXPECT_TRUE(asserted_in(text, function)) << text;
}

void expect_assertion(const std::string& function, const std::string& expression,
                      const std::function<void()>& body)
{
    const std::string text = expect_abort("Assertion `" + expression + "' failed", body);
    EXPECT_NE(text.find(function), std::string::npos) << text;
}

ChildResult run_program(const std::vector<std::string>& argv, std::chrono::seconds limit)
{
    return Process(argv).wait(limit);
}

Process::Process(const std::vector<std::string>& argv, const std::function<void()>& in_child)
{
    pid_ = fork_with_pipes(out_fd_, err_fd_);
    if (pid_ == 0) {
        if (in_child) {
            in_child();
        }
        exec(argv);
    }
}

Process::Process(Process&& other) noexcept
{
    *this = std::move(other);
}

Process& Process::operator=(Process&& other) noexcept
{
    std::swap(pid_, other.pid_);
    std::swap(out_fd_, other.out_fd_);
    std::swap(err_fd_, other.err_fd_);
    std::swap(out_, other.out_);
    std::swap(err_, other.err_);
    return *this;
}

Process::~Process()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close_all();
}

void Process::close_all()
{
    for (int* fd : {&out_fd_, &err_fd_}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
}

void Process::drain()
{
    read_available(out_fd_, out_);
    read_available(err_fd_, err_);
}

const std::string& Process::out()
{
    drain();
    return out_;
}

const std::string& Process::err()
{
    drain();
    return err_;
}

bool Process::wait_for_out(const std::string& text, std::chrono::milliseconds limit)
{
    return wait_until([&] { return out().find(text) != std::string::npos; }, limit);
}

bool Process::wait_for_err(const std::string& text, std::chrono::milliseconds limit)
{
    return wait_until([&] { return err().find(text) != std::string::npos; }, limit);
}

void Process::kill(int signo) const
{
    ::kill(pid_, signo);
}

ChildResult Process::wait(std::chrono::seconds limit)
{
    ChildResult result = collect(pid_, out_fd_, err_fd_, std::move(out_), std::move(err_), limit);
    pid_ = -1;
    close_all();
    return result;
}

} // namespace support
