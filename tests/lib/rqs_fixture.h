// The loop as a test drives it: callbacks are functions of the test, and everything that happens is a word in
// a trace.
#ifndef TESTS_LIB_RQS_FIXTURE_H
#define TESTS_LIB_RQS_FIXTURE_H

#include "rqs.h"

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "detail/owned.h"
#include "fds.h"
#include "fixtures.h"
#include "oom.h"
#include "psensor.h"
#include "util.h"

namespace loop {

using support::PipePair;
using support::SocketPair;
using Words = std::vector<std::string>;

// What a callback of the loop does in a test; empty: nothing, and 0.
struct Hooks {
    std::function<void(timespec*)> update_tmout;
    std::function<int()> on_idle;
    std::function<int(int, int, void*)> read;
    std::function<int(int, int, void*)> write;
    std::function<int(int, int, void*)> error;
    std::function<int(int)> post_process; // gets the stage
    std::function<int(int, int, void*)> on_file_modified;
    std::function<int()> time_out;
    std::function<bool()> is_dormant;
    std::vector<std::string> trace;
};

inline Hooks* g_hooks = nullptr;

inline void note(const std::string& word)
{
    g_hooks->trace.push_back(word);
}

inline int stage()
{
    return static_cast<int>(reinterpret_cast<intptr_t>(rqs_ctx(GET_LOOP_STAGE, nullptr)));
}

inline int call_event(const char* word, const std::function<int(int, int, void*)>& hook, int fd, int fd_err,
                      void* udata)
{
    note(word);
    return hook ? hook(fd, fd_err, udata) : 0;
}

inline rqs_callbacks all_callbacks()
{
    rqs_callbacks cb = {};
    cb.update_tmout = [](timespec* tmout) {
        note("update_tmout");
        if (g_hooks->update_tmout) {
            g_hooks->update_tmout(tmout);
        }
    };
    cb.on_idle = [] {
        note("on_idle");
        return g_hooks->on_idle ? g_hooks->on_idle() : 0;
    };
    cb.read = [](int fd, int fd_err, void* udata, void* aux) {
        EXPECT_EQ(aux, nullptr);
        return call_event("read", g_hooks->read, fd, fd_err, udata);
    };
    cb.write = [](int fd, int fd_err, void* udata, void* aux) {
        EXPECT_EQ(aux, nullptr);
        return call_event("write", g_hooks->write, fd, fd_err, udata);
    };
    cb.error = [](int fd, int fd_err, void* udata, void* aux) {
        EXPECT_EQ(aux, nullptr);
        return call_event("error", g_hooks->error, fd, fd_err, udata);
    };
    cb.post_process = [] {
        note("post_process@" + std::to_string(stage()));
        return g_hooks->post_process ? g_hooks->post_process(stage()) : 0;
    };
    cb.on_file_modified = [](int wd, int flags, void* udata, void* aux) {
        EXPECT_EQ(aux, nullptr);
        return call_event("on_file_modified", g_hooks->on_file_modified, wd, flags, udata);
    };
    cb.time_out = [] {
        note("time_out");
        return g_hooks->time_out ? g_hooks->time_out() : 0;
    };
    cb.is_dormant = [] {
        note("is_dormant");
        return g_hooks->is_dormant ? g_hooks->is_dormant() : true;
    };
    return cb;
}

// The three that may not be null.
inline rqs_callbacks fewest_callbacks()
{
    const rqs_callbacks all = all_callbacks();
    rqs_callbacks cb = {};
    cb.read = all.read;
    cb.write = all.write;
    cb.error = all.error;
    return cb;
}

// A daemon's record: it begins with a tag.
struct Record {
    n32_tag tag = {{'t', 's', 't', 0}};
    int fd = -1;
};

// What all tests of the loop hold is non-blocking.
inline PipePair make_pipe()
{
    return PipePair(O_NONBLOCK | O_CLOEXEC);
}

inline SocketPair make_socketpair()
{
    return SocketPair(SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC);
}

inline void put(int fd, const std::string& text)
{
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

inline std::string drain(int fd)
{
    char buf[4096];
    const ssize_t n = read(fd, buf, sizeof buf);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

class Loop : public support::GuardedTest {
  protected:
    Loop()
    {
        g_hooks = &hooks;
        log.set_level(DEBUG_level);
    }

    ~Loop() override
    {
        rqs_destroy();
        g_hooks = nullptr;
        g_quit = 0;
    }

    void init(const rqs_callbacks& cb, bool quit_on_zero_fds = false)
    {
        rqs_config cfg = {};
        cfg.cb = cb;
        cfg.quit_on_zero_fds = quit_on_zero_fds ? 1 : 0;
        ASSERT_EQ(rqs_init(&cfg), 0);
    }

    void init(bool quit_on_zero_fds = false) { init(all_callbacks(), quit_on_zero_fds); }

    // on_idle ends the loop, with 100, at the n-th cycle.
    void stop_after(int cycles)
    {
        left_ = cycles;
        hooks.on_idle = [this] { return --left_ == 0 ? 100 : 0; };
    }

    // on_idle ends the loop, with 100, when the condition holds or the time is up; waits are short meanwhile.
    void stop_when(const std::function<bool()>& condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + support::kLimit;
        hooks.update_tmout = [](timespec* tmout) { *tmout = {0, 20'000'000}; };
        hooks.on_idle = [condition, deadline] {
            return condition() || std::chrono::steady_clock::now() > deadline ? 100 : 0;
        };
    }

    static void no_wait(timespec* tmout) { *tmout = {0, 0}; }

    // A pipe with a byte in it, registered as a reader.
    static PipePair add_ready_reader(Record& record)
    {
        PipePair p = make_pipe();
        EXPECT_EQ(rqs_add_reader(p.in, &record), 0);
        put(p.out, "x");
        return p;
    }

    // A reader that is never ready, so that the loop has room for events and something to wait on.
    void add_idle_reader()
    {
        idle_ = make_pipe();
        ASSERT_EQ(rqs_add_reader(idle_->in, &idle_record_), 0);
    }

    void remove_idle_reader()
    {
        ASSERT_EQ(rqs_rm_fd(idle_->in, true, false), 0);
        idle_.reset();
    }

    size_t count(const std::string& word) const
    {
        size_t n = 0;
        for (const std::string& w : hooks.trace) {
            n += w == word ? 1 : 0;
        }
        return n;
    }

    // Lines that hold the text.
    std::vector<std::string> lines_with(const std::string& text)
    {
        std::vector<std::string> found;
        for (const std::string& line : log.lines()) {
            if (line.find(text) != std::string::npos) {
                found.push_back(line);
            }
        }
        return found;
    }

    Hooks hooks;

  private:
    int left_ = 0;
    std::optional<PipePair> idle_;
    Record idle_record_;
};

} // namespace loop

#endif
