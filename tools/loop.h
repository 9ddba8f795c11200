// The library's event loop for one command: descriptors to read, timers, an end by signal or by choice.
#ifndef ZENTCTL_LOOP_H
#define ZENTCTL_LOOP_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>

#include "mvtypes.h"
#include "tmr.h"

namespace zentctl {

using Milliseconds = std::chrono::milliseconds;

// One at a time. SIGINT, SIGTERM and SIGQUIT end run(). What a callback throws ends run() and comes out of
// it.
class Loop {
  public:
    Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    ~Loop();

    // Calls on_read when fd can be read, until forget(fd).
    void watch(int fd, std::function<void()> on_read);
    void forget(int fd);

    // Calls fn once, after a span from now. Timers are never taken back: fn looks whether it still matters.
    void after(Milliseconds span, std::function<void()> fn);

    // Until stop() or a signal.
    void run();
    void stop();

    // Whether a signal has asked for the end.
    static bool is_interrupted();

    // Milliseconds of the monotonic clock.
    static int64_t now_ms();

  private:
    struct Watched {
        n32_tag tag; // what the loop reads of a record
        int fd;
        std::function<void()> on_read;
        bool is_dead;
    };

    struct Timer {
        tmr timer;
        std::function<void()> fn;
        Loop* loop;
    };

    static int on_read(int fd, int error, void* record, void* aux);
    static int on_idle();
    static int bury_dead();
    static void on_timer(tmr* timer, void* record);
    void guarded(const std::function<void()>& fn);

    std::list<Watched> watched_;
    std::list<Timer> timers_;
    bool is_stopped_ = false;
    std::exception_ptr thrown_;
};

} // namespace zentctl

#endif
