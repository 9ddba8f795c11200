/*
 * sigsafe.h: a wake-up for the event loop (rqs.h) that signal handlers may call. The loop looks at g_quit and
 * the like between two waits; a signal that arrives after that look and before the wait would be seen only
 * when the wait ends by itself, which a wait without a limit never does. A handler that sets its flag and
 * then calls sigsafe_wake() ends the wait, whether it has begun or not: nothing is lost, and no wait has to
 * be short.
 *
 *     static void on_signal(int signo) { g_quit = 1; sigsafe_wake(); }
 *
 *     static int on_read(int fd, int fd_err, void* udata, void* aux)
 *     {
 *         if (sigsafe_is_wakeup(udata)) {
 *             return 0;  // flags are looked at in on_idle, which follows
 *         }
 *         ...
 *
 * State: one descriptor a process (eventfd(2)), which is a reader of the loop like any other: it counts in
 * rqs_fd_count, and a loop with it is never dormant.
 */
#ifndef MORVANE_SIGSAFE_H
#define MORVANE_SIGSAFE_H

#include <stdbool.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/* sigsafe_open: makes the wake-up and registers it with the loop. 0, also where it is open already; -1 with
 * errno and a line at ERR_level. REQUIRES: rqs_init. */
int sigsafe_open(void);

/* sigsafe_wake: ends the loop's wait, or the next one. For signal handlers and any other code; errno is kept.
 * Without sigsafe_open nothing happens. */
void sigsafe_wake(void);

/* sigsafe_is_wakeup: whether the udata of a read is the wake-up's; then it has been emptied, and the callback
 * returns 0. */
bool sigsafe_is_wakeup(const void* udata);

/* sigsafe_close: removes the wake-up from the loop and closes it; before rqs_destroy or after it. Nothing
 * happens where it is not open. No handler that calls sigsafe_wake may come in between. */
void sigsafe_close(void);

MV_END_DECLS

#endif
