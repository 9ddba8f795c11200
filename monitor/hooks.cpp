// Runs of the program of --exec.
#include "hooks.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <list>
#include <map>
#include <mutex>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "log.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

struct Hooks::Shared {
    explicit Shared(HookOptions o) : options(std::move(o)) {}

    const HookOptions options;
    Bell bell;
    std::mutex mutex;
    std::deque<Event> fresh; // not yet taken over by the thread
    size_t waiting = 0;      // events that are not yet run, those in fresh included
    bool stopping = false;
    int64_t stop_ms = 0; // how long runs may take then
    bool dropping = false;
    uint64_t dropped = 0;
    std::atomic<uint64_t> ok{0}, failed{0}, killed{0}, not_started{0};
};

namespace {

// What tells a service's process about its own service is not for the programs it runs.
bool is_private(const char* variable)
{
    static constexpr const char* kPrefixes[] = {"NOTIFY_SOCKET=", "LISTEN_", "WATCHDOG_", "ZENT_"};
    return std::any_of(std::begin(kPrefixes), std::end(kPrefixes),
                       [variable](const char* p) { return strncmp(variable, p, strlen(p)) == 0; });
}

// RFC 3339, UTC, with milliseconds.
std::string rfc3339(int64_t time_ms)
{
    const time_t seconds = static_cast<time_t>(time_ms / 1000);
    struct tm parts = {};
    gmtime_r(&seconds, &parts);
    char text[48];
    const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(time_ms % 1000));
    return text;
}

std::string group_name(uint32_t group)
{
    std::string text;
    append_group(text, group);
    return text;
}

std::vector<std::string> variables(const Event& event)
{
    return {std::string("ZENT_EVENT=") + event_name(event.kind),
            "ZENT_GROUP=" + group_name(event.group),
            "ZENT_AGENT=" + event.who->agent,
            "ZENT_ADDRESS=" + event.who->address,
            "ZENT_LISTENER=" + event.who->listener,
            "ZENT_TIME=" + rfc3339(event.time_ms)};
}

// Standard input is empty; standard output and error are the daemon's standard error, since its standard
// output may carry events. A session of signals as at a shell; a process group of its own.
class Spawner {
  public:
    Spawner()
    {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_addopen(&actions_, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions_, 2, 1);
        posix_spawn_file_actions_addclosefrom_np(&actions_, 3);
        posix_spawnattr_init(&attributes_);
        sigset_t none;
        sigset_t usual;
        sigemptyset(&none);
        sigfillset(&usual);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setsigdefault(&attributes_, &usual);
        posix_spawnattr_setflags(&attributes_,
                                 POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }

    Spawner(const Spawner&) = delete;
    Spawner& operator=(const Spawner&) = delete;

    ~Spawner()
    {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }

    // 0 or an errno number.
    int start(const std::string& path, const Event& event, pid_t* pid)
    {
        std::vector<std::string> own = variables(event);
        std::vector<char*> env;
        for (char** variable = environ; *variable != nullptr; ++variable) {
            if (!is_private(*variable)) {
                env.push_back(*variable);
            }
        }
        for (std::string& variable : own) {
            env.push_back(variable.data());
        }
        env.push_back(nullptr);
        char* argv[] = {const_cast<char*>(path.c_str()), nullptr};
        return posix_spawn(pid, path.c_str(), &actions_, &attributes_, argv, env.data());
    }

  private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

int64_t monotonic_ms()
{
    struct timespec t = {};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1'000'000;
}

} // namespace

// The thread's side: which events wait for which group, and what runs.
class Hooks::Runner {
  public:
    Runner(Shared& shared, Notices& notices) : shared_(shared), notices_(notices) {}

    void run();

  private:
    struct Run {
        pid_t pid;
        int pidfd;
        int64_t start_ms; // monotonic
        int64_t due_ms;   // monotonic: then it is killed
        bool killed;
        Event event;
    };

    bool take_over();
    void start_what_may();
    void start(const Event& event);
    void wait_for_something();
    void end_runs();
    void finish(const Run& run, int status);
    void kill_late();
    void group_is_free(uint32_t group);
    void tell(const Event& event, int level, const char* how, const char* what, int number);

    Shared& shared_;
    Notices& notices_;
    Spawner spawner_;
    std::map<uint32_t, std::deque<Event>> groups_; // the events of a group that waits or runs
    std::deque<uint32_t> ready_;                   // groups whose next event may run
    std::list<Run> running_;
    bool stopping_ = false;
};

void Hooks::Runner::run()
{
    while (take_over() || !running_.empty()) {
        if (!stopping_) {
            start_what_may();
        }
        wait_for_something();
        end_runs();
        kill_late();
    }
}

// False when no more runs are to be started.
bool Hooks::Runner::take_over()
{
    std::deque<Event> fresh;
    int64_t stop_ms = 0;
    bool stop_now = false;
    {
        const std::lock_guard lock(shared_.mutex);
        fresh.swap(shared_.fresh);
        stop_now = shared_.stopping && !stopping_;
        stop_ms = shared_.stop_ms;
    }
    for (Event& event : fresh) {
        auto& waiting = groups_[event.group];
        if (waiting.empty() && std::none_of(running_.begin(), running_.end(), [&event](const Run& run) {
                return run.event.group == event.group;
            })) {
            ready_.push_back(event.group);
        }
        waiting.push_back(std::move(event));
    }
    if (stop_now) {
        stopping_ = true;
        for (Run& run : running_) {
            run.due_ms = std::min(run.due_ms, monotonic_ms() + stop_ms);
        }
    }
    return !stopping_;
}

void Hooks::Runner::start_what_may()
{
    while (running_.size() < shared_.options.at_once && !ready_.empty()) {
        const uint32_t group = ready_.front();
        ready_.pop_front();
        auto& waiting = groups_[group];
        const Event event = std::move(waiting.front());
        waiting.pop_front();
        {
            const std::lock_guard lock(shared_.mutex);
            --shared_.waiting;
        }
        start(event);
    }
}

void Hooks::Runner::start(const Event& event)
{
    pid_t pid = -1;
    const int failure = spawner_.start(shared_.options.path, event, &pid);
    if (failure != 0) {
        ++shared_.not_started;
        notices_.post(WARN_level, "exec: %s: %s", shared_.options.path.c_str(), strerror(failure));
        group_is_free(event.group);
        return;
    }
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd < 0) { // no descriptors left: it runs unlimited, but in its turn
        notices_.post(WARN_level, "exec: pidfd_open: %s", strerror(errno));
    }
    const int64_t at = monotonic_ms();
    running_.push_back({pid, pidfd, at, at + shared_.options.limit_ms, false, event});
}

void Hooks::Runner::wait_for_something()
{
    constexpr int64_t kBlindMs = 100; // between looks at runs without a descriptor
    std::vector<struct pollfd> fds = {{shared_.bell.fd(), POLLIN, 0}};
    const int64_t at = monotonic_ms();
    int64_t wait = -1;
    for (const Run& run : running_) {
        const int64_t due = std::max<int64_t>(run.due_ms - at, 0);
        const int64_t limit = run.pidfd < 0 ? kBlindMs : due;
        if (!run.killed || run.pidfd < 0) {
            wait = wait < 0 ? limit : std::min(wait, limit);
        }
        fds.push_back({run.pidfd, POLLIN, 0}); // poll passes over descriptors below 0
    }
    poll(fds.data(), fds.size(), static_cast<int>(wait));
    shared_.bell.quiet();
}

void Hooks::Runner::end_runs()
{
    for (auto run = running_.begin(); run != running_.end();) {
        int status = 0;
        if (waitpid(run->pid, &status, WNOHANG) == 0) {
            ++run;
            continue;
        }
        finish(*run, status);
        const uint32_t group = run->event.group;
        run = running_.erase(run);
        group_is_free(group);
    }
}

void Hooks::Runner::finish(const Run& run, int status)
{
    if (run.pidfd >= 0) {
        close(run.pidfd);
    }
    if (run.killed) {
        ++shared_.killed;
        tell(run.event, WARN_level, "was killed: its time is over", "after ms",
             static_cast<int>(monotonic_ms() - run.start_ms));
    } else if (WIFSIGNALED(status)) {
        ++shared_.failed;
        tell(run.event, WARN_level, "ended", "by signal", WTERMSIG(status));
    } else {
        const int code = WEXITSTATUS(status);
        ++(code == 0 ? shared_.ok : shared_.failed);
        tell(run.event, code == 0 ? INFO_level : WARN_level, "ended", "with exit code", code);
    }
}

void Hooks::Runner::kill_late()
{
    const int64_t at = monotonic_ms();
    for (Run& run : running_) {
        if (!run.killed && run.due_ms <= at) {
            run.killed = true;
            kill(-run.pid, SIGKILL);
        }
    }
}

void Hooks::Runner::group_is_free(uint32_t group)
{
    const auto found = groups_.find(group);
    if (found->second.empty()) {
        groups_.erase(found);
    } else {
        ready_.push_back(group);
    }
}

void Hooks::Runner::tell(const Event& event, int level, const char* how, const char* what, int number)
{
    notices_.post(level, "exec: %s for %s of %s by %s %s %s %d", shared_.options.path.c_str(),
                  event_name(event.kind), group_name(event.group).c_str(), event.who->agent.c_str(), how,
                  what, number);
}

Hooks::Hooks(HookOptions options, std::shared_ptr<Notices> notices)
    : shared_(std::make_shared<Shared>(std::move(options))), notices_(std::move(notices))
{
}

Hooks::~Hooks()
{
    stop();
}

int Hooks::start()
{
    return worker_.start("zentmon-exec",
                         [shared = shared_, notices = notices_] { Runner(*shared, *notices).run(); });
}

void Hooks::on_event(const Event& event)
{
    const std::lock_guard lock(shared_->mutex);
    if (shared_->waiting >= shared_->options.queue) {
        if (!shared_->dropping) {
            log_warn("exec: %zu events wait for their runs: more are left out\n", shared_->waiting);
        }
        shared_->dropping = true;
        ++shared_->dropped;
        return;
    }
    shared_->dropping = shared_->dropping && shared_->waiting > 0;
    ++shared_->waiting;
    shared_->fresh.push_back(event);
    if (shared_->fresh.size() == 1) {
        shared_->bell.ring();
    }
}

void Hooks::publish_counters(Counters& counters) const
{
    counters.hook_ok = shared_->ok;
    counters.hook_failed = shared_->failed;
    counters.hook_killed = shared_->killed;
    counters.hook_not_started = shared_->not_started;
    const std::lock_guard lock(shared_->mutex);
    counters.output_dropped[Output::exec] = shared_->dropped;
}

void Hooks::stop(int64_t limit_ms)
{
    {
        const std::lock_guard lock(shared_->mutex);
        shared_->stopping = true;
        shared_->stop_ms = limit_ms;
    }
    shared_->bell.ring();
    worker_.join_within(limit_ms + 3000);
    const std::lock_guard lock(shared_->mutex);
    if (shared_->waiting > 0) {
        log_warn("exec: %zu events were not run\n", std::exchange(shared_->waiting, 0));
    }
}

} // namespace zentmon
