// Child processes of tests: a function in a fork whose end is the result, and programs that run beside a
// test.
#ifndef TESTS_SUPPORT_CHILD_H
#define TESTS_SUPPORT_CHILD_H

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "wait.h"

namespace support {

// How a child ended and what it wrote.
struct ChildResult {
    bool timed_out = false; // it was killed at the limit
    int exit_code = -1;     // of a normal end, else -1
    int signal = 0;         // that ended it, else 0
    std::string out;        // its stdout
    std::string err;        // its stderr
};

// Runs a function in a forked child, which then exits with the function's result. Core dumps are off.
ChildResult run_in_child(const std::function<int()>& body, std::chrono::seconds limit = kLimit);

// Expects that the body ends the process by abort(), as an assertion does, and that its stderr holds the
// text; what it logs goes there too. Gives all of that stderr.
std::string expect_abort(const std::string& text, const std::function<void()>& body);

inline std::string expect_abort(const std::function<void()>& body)
{
    return expect_abort("Assertion", body);
}

// The same, by an ASSERT of the library in that function.
void expect_assertion(const std::string& function, const std::function<void()>& body);

// The same, by an assert() of that expression.
void expect_assertion(const std::string& function, const std::string& expression,
                      const std::function<void()>& body);

// Runs a program to its end. An element of argv is passed as it is; no shell.
ChildResult run_program(const std::vector<std::string>& argv, std::chrono::seconds limit = kLimit);

// A program that runs beside the test. Killed, and waited for, at the end of its life.
class Process {
  public:
    Process() = default;
    // in_child runs in the child before the exec, for instance to enter a namespace.
    explicit Process(const std::vector<std::string>& argv, const std::function<void()>& in_child = {});
    Process(Process&& other) noexcept;
    Process& operator=(Process&& other) noexcept;
    ~Process();

    pid_t pid() const { return pid_; }

    const std::string& out(); // what it has written to stdout so far
    const std::string& err(); // what it has written to stderr so far
    bool wait_for_out(const std::string& text, std::chrono::milliseconds limit = kLimit);
    bool wait_for_err(const std::string& text, std::chrono::milliseconds limit = kLimit);
    void kill(int signo) const;
    ChildResult wait(std::chrono::seconds limit = kLimit); // for its end

  private:
    void drain();
    void close_all();

    pid_t pid_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
    std::string out_;
    std::string err_;
};

} // namespace support

#endif
