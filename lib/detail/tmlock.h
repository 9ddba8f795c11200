// Marks around the calls that take libc's time zone lock, for which a signal handler that logs in between
// would wait for good. Defined in timeop.cpp, whose mk_timestr minds them.
#ifndef MORVANE_DETAIL_TMLOCK_H
#define MORVANE_DETAIL_TMLOCK_H

#include <csignal>

namespace mv {

extern volatile sig_atomic_t g_tmlock __asm__("mv_tmlock"); // a time is being broken down: mk_timestr refuses
extern volatile sig_atomic_t
    g_in_syslog __asm__("mv_in_syslog"); // libc writes to syslog: mk_timestr makes what it can without libc

// Sets one of the marks for its lifetime. The fences hold the compiler alone: a handler runs in the same
// thread, but must not find the calls moved out from between the two writes.
class HandlerMark {
  public:
    explicit HandlerMark(volatile sig_atomic_t& mark) : mark_(mark)
    {
        mark_ = 1;
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
    }

    HandlerMark(const HandlerMark&) = delete;
    HandlerMark& operator=(const HandlerMark&) = delete;

    ~HandlerMark()
    {
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        mark_ = 0;
    }

  private:
    volatile sig_atomic_t& mark_;
};

class TimeLock : HandlerMark {
  public:
    TimeLock() : HandlerMark(g_tmlock) {}
};

class SyslogMark : HandlerMark {
  public:
    SyslogMark() : HandlerMark(g_in_syslog) {}
};

} // namespace mv

#endif
