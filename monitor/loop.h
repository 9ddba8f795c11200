// The event loop of libmorvane (rqs.h) for objects: handlers of descriptors and timers, in one thread. All
// calls of rqs stand in loop.cpp.
#ifndef ZENTMON_LOOP_H
#define ZENTMON_LOOP_H

#include "tmr.h"
#include <cstdint>
#include <functional>
#include <memory>

namespace zentmon {

// Both clocks at the same moment: what is shown is Unix time, what is waited for is monotonic.
struct Now {
    int64_t wall_ms;
    int64_t mono_ms;
};

Now now();

// Whoever waits for a descriptor. Level-triggered: what is left is reported again. A handler may remove, and
// destroy, any watch and timer, its own too.
class Handler {
  public:
    virtual ~Handler() = default;
    virtual void on_readable() = 0; // readable, or closed by the peer; the descriptor may be writable too

    virtual void on_writable() // writable, and not readable
    {
    }

    virtual void on_error() // error or hang-up alone
    {
        on_readable();
    }
};

struct WatchRecord;

// The registration of a descriptor: ends with the object. The descriptor stays the owner's, who closes it
// after the watch has ended.
class Watch {
  public:
    enum Direction { none = 0, read = 1, write = 2, both = 3 };

    Watch() = default;
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // 0, or -1 with a line in the log. The handler is borrowed until stop().
    int start(int fd, Handler* handler, Direction direction = read);
    int change(Direction direction);
    void stop();

  private:
    int fd_ = -1;
    Direction direction_ = none;
    WatchRecord* record_ = nullptr;
};

// A timer: one call a start. Ends with the object. on_due may start it again, and may destroy it.
class Timer {
  public:
    explicit Timer(std::function<void()> on_due);
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    void start_ms(int64_t delay); // anew where it runs already; 0: in the next turn of the loop
    void stop();
    bool runs() const;

  private:
    struct tmr tmr_ = NULL_tmr;
    std::function<void()> on_due_;
};

// The loop: one a process.
class Loop {
  public:
    // Sets the loop up: 0, or -1 with a line. Signals are the caller's: their handlers set flags, g_quit
    // among them, and call sigsafe_wake().
    static int init();

    // Runs until stop() or g_quit: 0, else as rqs_event_loop. on_turn is called after each batch of events.
    static int run(const std::function<void()>& on_turn);

    static void stop();
    static void destroy();
};

} // namespace zentmon

#endif
