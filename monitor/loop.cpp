// Handlers and timers on the event loop of libmorvane.
#include "loop.h"

#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

#include "log.h"
#include "mvtypes.h"
#include "rqs.h"
#include "sigsafe.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

// What rqs gets as udata: it begins with a tag, and lives until the batch is over in which it was removed, or
// for good where rqs could not remove it.
struct WatchRecord {
    n32_tag tag;
    Handler* handler; // NULL: removed
};

namespace {

constexpr n32_tag kWatchTag = {{'w', 't', 'c', 'h'}};

std::vector<WatchRecord*> g_removed;
std::vector<std::unique_ptr<WatchRecord>> g_kept;
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
    if (sigsafe_is_wakeup(udata)) {
        return 0;
    }
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

void limit_wait(struct timespec* tmout)
{
    tmr_update_tmout(tmout);
    if (g_stopped) {
        *tmout = {0, 0};
    }
}

int end_of_turn()
{
    if (g_on_turn != nullptr) {
        (*g_on_turn)();
    }
    return g_stopped ? 1 : 0;
}

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
    record_->handler = nullptr;
    if (rqs_rm_fd(fd_, true, true) == 0) {
        g_removed.push_back(record_);
    } else {
        g_kept.emplace_back(record_);
    }
    record_ = nullptr;
    fd_ = -1;
    direction_ = none;
}

// ---- timers -----------------------------------------------------------------------------------

Timer::Timer(std::function<void()> on_due) : on_due_(std::move(on_due)) {}

Timer::~Timer()
{
    stop();
}

void Timer::start_ms(int64_t delay)
{
    stop();
    const struct timespec after = {delay / 1000, delay % 1000 * 1'000'000};
    const auto run = [](struct tmr*, void* self) {
        const std::function<void()> on_due = static_cast<Timer*>(self)->on_due_; // it may end its timer
        on_due();
    };
    const int rc = tmr_add(&tmr_, &after, nullptr, run, this);
    if (rc != 0) {
        log_panic("%s: a timer of %lld ms: %s\n", __func__, static_cast<long long>(delay), strerror(rc));
    }
}

void Timer::stop()
{
    if (tmr_pending(&tmr_)) {
        tmr_cancel(&tmr_);
    }
}

bool Timer::runs() const
{
    return tmr_pending(&tmr_);
}

// ---- the loop ---------------------------------------------------------------------------------

int Loop::init()
{
    struct rqs_config cfg = {};
    cfg.cb.update_tmout = limit_wait;
    cfg.cb.time_out = tmr_time_out;
    cfg.cb.on_idle = end_of_turn;
    cfg.cb.read = on_read;
    cfg.cb.write = on_write;
    cfg.cb.error = on_error;
    cfg.cb.post_process = free_removed;
    g_stopped = false;
    return rqs_init(&cfg) == 0 && sigsafe_open() == 0 ? 0 : -1;
}

int Loop::run(const std::function<void()>& on_turn)
{
    g_on_turn = &on_turn;
    const int rc = rqs_event_loop();
    g_on_turn = nullptr;
    const bool stopped = std::exchange(g_stopped, false); // it may be run again
    return stopped ? 0 : rc;
}

void Loop::stop()
{
    g_stopped = true;
}

void Loop::destroy()
{
    free_removed();
    tmr_reset();
    sigsafe_close();
    rqs_destroy();
}

} // namespace zentmon
