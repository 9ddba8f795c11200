// The event loop of rqs.h with its timers and its wake-up, behind functions of C++.
#include "loop.h"

#include <algorithm>
#include <cassert>
#include <csignal>
#include <cstring>
#include <ctime>
#include <utility>

#include "command.h"
#include "rqs.h"
#include "sigsafe.h"
#include "util.h"

namespace zentctl {

namespace {

Loop* g_loop = nullptr; // the library's callbacks carry no word of ours

void on_signal(int)
{
    g_quit = 1;
    sigsafe_wake();
}

timespec as_timespec(Milliseconds span)
{
    const int64_t ms = std::max<int64_t>(span.count(), 0);
    return {ms / 1000, ms % 1000 * 1'000'000};
}

} // namespace

Loop::Loop()
{
    assert(g_loop == nullptr);
    g_loop = this;
    rqs_config config = {};
    config.cb.update_tmout = tmr_update_tmout;
    config.cb.time_out = [] {
        tmr_time_out();
        return 0;
    };
    config.cb.read = on_read;
    config.cb.write = on_read;
    config.cb.error = on_read;
    config.cb.on_idle = on_idle;
    config.cb.post_process = bury_dead;
    if (rqs_init(&config) != 0 || sigsafe_open() != 0) {
        rqs_destroy();
        g_loop = nullptr;
        throw CannotLook("internal", "no event loop: too many open files, or no memory");
    }
    g_quit = 0;
    handle_quit_signals(on_signal);
}

Loop::~Loop()
{
    handle_quit_signals(SIG_DFL);
    for (Timer& timer : timers_) {
        tmr_cancel(&timer.timer);
    }
    sigsafe_close();
    rqs_destroy();
    g_loop = nullptr;
}

void Loop::watch(int fd, std::function<void()> on_read)
{
    watched_.push_back({{{'z', 'c', 't', 0}}, fd, std::move(on_read), false});
    if (rqs_add_reader(fd, &watched_.back()) != 0) {
        watched_.pop_back();
        throw CannotLook("internal", "a descriptor that cannot be watched");
    }
}

void Loop::forget(int fd)
{
    for (Watched& record : watched_) {
        if (record.fd == fd && !record.is_dead) {
            rqs_rm_fd(fd, true, false);
            record.is_dead = true; // an event of this batch may still name it: freed in bury_dead
        }
    }
}

void Loop::after(Milliseconds span, std::function<void()> fn)
{
    timers_.push_back({NULL_tmr, std::move(fn), this});
    Timer& timer = timers_.back();
    const timespec limit = as_timespec(span);
    if (tmr_add(&timer.timer, &limit, nullptr, on_timer, &timer) != 0) {
        timers_.pop_back();
        throw CannotLook("internal", "no memory for a timer");
    }
}

void Loop::run()
{
    is_stopped_ = false;
    rqs_event_loop(); // its result is on_idle's, or a failed wait's: nothing is left to do in either case
    if (thrown_) {
        std::rethrow_exception(std::exchange(thrown_, nullptr));
    }
}

void Loop::stop()
{
    is_stopped_ = true;
    sigsafe_wake();
}

bool Loop::is_interrupted()
{
    return g_quit != 0;
}

int64_t Loop::now_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// No exception may pass through the library: it is kept until the loop has come back.
void Loop::guarded(const std::function<void()>& fn)
{
    try {
        fn();
    } catch (...) {
        thrown_ = std::current_exception();
        stop();
    }
}

int Loop::on_read(int, int, void* record, void*)
{
    if (sigsafe_is_wakeup(record)) {
        return 0;
    }
    Watched& watched = *static_cast<Watched*>(record);
    if (!watched.is_dead && g_loop != nullptr) {
        g_loop->guarded(watched.on_read);
    }
    return 0;
}

int Loop::on_idle()
{
    return g_loop->is_stopped_ ? 1 : 0;
}

int Loop::bury_dead()
{
    g_loop->watched_.remove_if([](const Watched& record) { return record.is_dead; });
    return 0;
}

void Loop::on_timer(tmr*, void* record)
{
    Timer& timer = *static_cast<Timer*>(record);
    Loop& loop = *timer.loop;
    const std::function<void()> fn = std::move(timer.fn);
    loop.timers_.remove_if([&](const Timer& other) { return &other == &timer; });
    loop.guarded(fn);
}

} // namespace zentctl
