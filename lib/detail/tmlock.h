// The mark around every call that takes libc's time zone lock: a signal handler that logs in between would
// wait for that lock for good, so mk_timestr refuses while the mark is set.
#ifndef MORVANE_DETAIL_TMLOCK_H
#define MORVANE_DETAIL_TMLOCK_H

#include <csignal>

namespace mv {

extern volatile sig_atomic_t g_tmlock;

class TimeLock {
  public:
    TimeLock()
    {
        g_tmlock = 1;
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
    }

    ~TimeLock()
    {
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        g_tmlock = 0;
    }

    TimeLock(const TimeLock&) = delete;
    TimeLock& operator=(const TimeLock&) = delete;
};

} // namespace mv

#endif
