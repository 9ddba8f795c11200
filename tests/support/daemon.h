// The agent's binary under test: as a daemon whose end is seen, in the foreground, and the segment it
// watches.
#ifndef TESTS_SUPPORT_DAEMON_H
#define TESTS_SUPPORT_DAEMON_H

#include <csignal>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include <gtest/gtest.h>

#include "agent_run.h"
#include "child.h"
#include "fds.h"
#include "netns.h"
#include "paths.h"

namespace support {

void write_file(const std::string& path, const std::string& text);
bool file_exists(const std::string& path);

// What a link of /proc names, for instance "fd/2" of a process; empty where there is none.
std::string proc_link(pid_t pid, const std::string& name);

// A field of /proc/PID/status, without the blanks before it.
std::string proc_status(pid_t pid, const std::string& field);

// A line of /proc/PID/stat.
struct ProcStat {
    pid_t pid = -1;
    std::string name;
    char state = 0; // 'Z' for one that has ended
    pid_t parent = -1;
    pid_t session = -1;
    int terminal = 0;
};

// How a daemon ended.
struct DaemonEnd {
    bool timed_out = false;
    int exit_code = -1;
    int signal = 0;
};

// A daemon that was started, with the way it became one. Killed at the end of its life.
class Daemon {
  public:
    Daemon() = default;
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    Daemon(Daemon&& other) noexcept;
    Daemon& operator=(Daemon&& other) noexcept;
    ~Daemon();

    ChildResult starter;      // what the process that was started came to
    pid_t forerunner = -1;    // the one between starter and daemon
    int forerunner_code = -1; // its exit code

    pid_t pid() const { return pid_; }

    bool is_running() const;
    ProcStat stat() const;
    std::string fd(int number) const; // what the descriptor is open on; empty: closed
    void kill(int signo) const;
    DaemonEnd wait(); // for its end
    DaemonEnd stop(int signo = SIGTERM);

  private:
    friend class DaemonTest;
    pid_t pid_ = -1;
};

// Tests of the binary, as root, in process, mount and network namespaces of their own. The agent's interface
// is "va", 10.0.0.1; a host can be played on "vb", 10.0.0.2. A test that cannot have the namespaces is
// skipped.
class DaemonTest : public testing::Test {
  protected:
    static void SetUpTestSuite();
    void SetUp() override;
    void TearDown() override;

    // A path in the test's own directory, which everybody may write to.
    std::string path(const std::string& name) const { return dir_->path(name); }

    // The agent's binary, as a copy there.
    std::string binary() const { return path("zent"); }

    // Starts the agent as a daemon, in that directory, and waits until it is one (or was one: it may have
    // ended). Its stdout and stderr are the files "stdout" and "stderr" there. in_child runs before the exec.
    Daemon start(const std::vector<std::string>& args, const std::function<void()>& in_child = {}) const;

    // The same with -i va, -l log, -p pid and the given ones; waits until it captures.
    Daemon start_usual(const std::vector<std::string>& more = {}) const;

    // Starts the agent in the foreground (the arguments must make it stay there).
    Process foreground(const std::vector<std::string>& args,
                       const std::function<void()>& in_child = {}) const;

    // Any program, in the agent's namespace and the test's directory.
    Process run(const std::vector<std::string>& argv, const std::function<void()>& in_child = {}) const;

    const NetnsPair& segment() const { return *pair_; }

    std::string log() const { return read_file(path("log")); }

    bool wait_for_log(const std::string& text) const { return wait_for_file(path("log"), text); }

  private:
    std::optional<FdGuard> guard_; // outlives the two below
    std::optional<NetnsPair> pair_;
    std::optional<TempDir> dir_;
};

} // namespace support

#endif
