// Handlers and timers on the event loop of libmorvane.
#include "loop.h"

#include <algorithm>
#include <ctime>

#include "mvtypes.h"
#include "rqs.h"
#include "util.h"

namespace zentmon {

// What rqs gets as udata: it begins with a tag, and lives until the batch is over in which it was removed.
struct WatchRecord {
    n32_tag tag;
    Handler* handler; // NULL: removed
};

namespace {

constexpr n32_tag kWatchTag = {{'w', 't', 'c', 'h'}};
constexpr int64_t kLongestWaitMs = 1000;

std::vector<WatchRecord*> g_removed;
std::vector<Timer*> g_timers;
bool g_stopped = false;
const std::function<void()>* g_on_turn = nullptr;

int64_t in_ms(clockid_t clock)
{
    struct timespec t = {};
    clock_gettime(clock, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1'000'000;
}

Handler* handler_of(void* udata)
{
    return static_cast<WatchRecord*>(udata)->handler;
}

int on_read(int, int, void* udata, void*)
{
    if (Handler* handler = handler_of(udata)) {
        handler->on_readable();
    }
    return 0;
}

int on_write(int, int, void* udata, void*)
{
    if (Handler* handler = handler_of(udata)) {
        handler->on_writable();
    }
    return 0;
}

int on_error(int, int, void* udata, void*)
{
    if (Handler* handler = handler_of(udata)) {
        handler->on_error();
    }
    return 0;
}

int free_removed()
{
    for (WatchRecord* record : g_removed) {
        delete record;
    }
    g_removed.clear();
    return 0;
}

void limit_wait(struct timespec* tmout);
int end_of_turn();

} // namespace

Now now()
{
    return {in_ms(CLOCK_REALTIME), in_ms(CLOCK_MONOTONIC)};
}

// ---- watches ----------------------------------------------------------------------------------

Watch::~Watch()
{
    stop();
}

int Watch::start(int fd, Handler* handler, Direction direction)
{
    stop();
    auto* record = new WatchRecord{kWatchTag, handler};
    if (rqs_add_reader(fd, record) != 0) {
        delete record;
        return -1;
    }
    fd_ = fd;
    record_ = record;
    direction_ = read;
    return change(direction);
}

int Watch::change(Direction direction)
{
    if (record_ == nullptr || direction == direction_) {
        return 0;
    }
    direction_ = direction;
    return rqs_mod(fd_, record_, direction);
}

void Watch::stop()
{
    if (record_ == nullptr) {
        return;
    }
    rqs_rm_fd(fd_, true, true);
    record_->handler = nullptr;
    g_removed.push_back(record_);
    record_ = nullptr;
    fd_ = -1;
    direction_ = none;
}

// ---- timers -----------------------------------------------------------------------------------

Timer::Timer(std::function<void()> on_due) : on_due_(std::move(on_due))
{
    g_timers.push_back(this);
}

Timer::~Timer()
{
    // A place, not an element, is what a walk through the timers holds: it stays, empty.
    std::replace(g_timers.begin(), g_timers.end(), this, static_cast<Timer*>(nullptr));
}

void Timer::start_ms(int64_t delay)
{
    due_ms_ = in_ms(CLOCK_MONOTONIC) + std::max<int64_t>(delay, 0);
}

void Timer::stop()
{
    due_ms_ = -1;
}

bool Timer::runs() const
{
    return due_ms_ >= 0;
}

// ---- the loop ---------------------------------------------------------------------------------

int Loop::init()
{
    struct rqs_config cfg = {};
    cfg.cb.update_tmout = limit_wait;
    cfg.cb.on_idle = end_of_turn;
    cfg.cb.read = on_read;
    cfg.cb.write = on_write;
    cfg.cb.error = on_error;
    cfg.cb.post_process = free_removed;
    g_stopped = false;
    return rqs_init(&cfg);
}

int Loop::run(const std::function<void()>& on_turn)
{
    g_on_turn = &on_turn;
    const int rc = rqs_event_loop();
    g_on_turn = nullptr;
    return g_stopped ? 0 : rc;
}

void Loop::stop()
{
    g_stopped = true;
}

void Loop::destroy()
{
    free_removed();
    rqs_destroy();
}

namespace {

void limit_wait(struct timespec* tmout)
{
    const int64_t at = in_ms(CLOCK_MONOTONIC);
    int64_t wait = g_stopped ? 0 : kLongestWaitMs;
    for (const Timer* timer : g_timers) {
        if (timer != nullptr && timer->runs()) {
            wait = std::clamp<int64_t>(Loop::due_of(*timer) - at, 0, wait);
        }
    }
    *tmout = {wait / 1000, wait % 1000 * 1'000'000};
}

int end_of_turn()
{
    Loop::run_due(in_ms(CLOCK_MONOTONIC));
    if (g_on_turn != nullptr) {
        (*g_on_turn)();
    }
    return g_stopped ? 1 : 0;
}

} // namespace

int64_t Loop::due_of(const Timer& timer)
{
    return timer.due_ms_;
}

void Loop::run_due(int64_t at_ms)
{
    for (size_t i = 0; i < g_timers.size(); ++i) { // a call may add timers
        Timer* timer = g_timers[i];
        if (timer != nullptr && timer->runs() && timer->due_ms_ <= at_ms) {
            timer->due_ms_ = -1;
            timer->on_due_();
        }
    }
    std::erase(g_timers, nullptr);
}

} // namespace zentmon
