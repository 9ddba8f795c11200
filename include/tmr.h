/*
 * tmr.h: timers on the event loop (rqs.h): any number of one-shot and periodic ones, run by the loop between
 * its wait and its events. The loop has one limit for its wait; this module turns the earliest timer into it:
 *
 *     cfg.cb.update_tmout = tmr_update_tmout;
 *     cfg.cb.time_out = tmr_time_out;
 *
 * A daemon that has a limit of its own calls tmr_update_tmout from its update_tmout and lowers the result.
 * The loop leaves both callbacks out while it has no-poll events and no descriptors; no timer runs then.
 *
 * Times are spans from the loop's time (rqs_now), as for timed_out() of timeop.h: no clock is read to start a
 * timer. A timer never runs before its time by that clock; it runs late by as much as callbacks take. Timers
 * that are due together run in the order of their times, those of one time in the order in which they were
 * started. A timer that is started while others run has its turn after the next wait at the earliest, so that
 * no callback keeps the loop from its descriptors.
 *
 * A timer is the caller's record (borrowed from tmr_add until it has run or is cancelled; it may stand inside
 * another record, and may not move meanwhile). A callback may add, change and cancel any timers, its own
 * included, and may free the record of its own timer if that is one-shot or was cancelled.
 *
 * State: one heap of pending timers a process. Adding to a heap that has grown allocates nothing. One thread;
 * nothing here may be called from a signal handler: see sigsafe.h. Nothing is logged.
 */
#ifndef MORVANE_TMR_H
#define MORVANE_TMR_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

struct tmr;

/* tmr_fn: what a timer runs; t is the timer, udata the caller's word. A one-shot timer is no longer pending
 * when it runs; a periodic one is pending again already. */
typedef void (*tmr_fn)(struct tmr* t, void* udata);

/* tmr: a timer. Zero it once (NULL_tmr) before its first use; the fields are the module's. */
struct tmr {
    size_t place;  /* in the heap, counted from 1; 0: not pending */
    int64_t every; /* period in nanoseconds; 0: one-shot */
    tmr_fn fn;
    void* udata;
};

/* NULL_tmr: initial value. */
#define NULL_tmr                                                                                             \
    {                                                                                                        \
        0, 0, NULL, NULL                                                                                     \
    }

/*
 * tmr_add: starts a timer: fn(t, udata) runs when the span after has passed (zero: after the next wait), and,
 * with a period, again each time that every has passed. A period keeps its phase: turns that were missed are
 * left out, not made up for. every NULL or zero: one-shot. Spans above 292 years count as "never".
 * 0; EBUSY if t is pending; EINVAL for a negative span or a fraction outside 0 to 999999999; ENOMEM. Nothing
 * is changed by a failure. REQUIRES: t, after, fn.
 */
int tmr_add(struct tmr* t, const struct timespec* after, const struct timespec* every, tmr_fn fn,
            void* udata);

/* tmr_change: moves the next turn of a pending timer to the span after from now; a period goes on from there.
 * 0; ESRCH if t is not pending; EINVAL as tmr_add. REQUIRES: t, after. */
int tmr_change(struct tmr* t, const struct timespec* after);

/* tmr_cancel: stops a timer. 0; ESRCH if it is not pending. REQUIRES: t. */
int tmr_cancel(struct tmr* t);

/* tmr_pending: whether t is started and has not run (a periodic one: was not cancelled). */
bool tmr_pending(const struct tmr* t);

/* tmr_left: the span until the next turn by the loop's time, zero where it is due. 0; ESRCH if t is not
 * pending, with *left as it was. REQUIRES: t, left. */
int tmr_left(const struct tmr* t, struct timespec* left);

/* tmr_count: how many timers are pending. */
size_t tmr_count(void);

/*
 * tmr_update_tmout: writes the time to the earliest timer into *tmout, in whole milliseconds rounded up,
 * since the wait drops fractions; {-1, 0}, no limit, if there is none. It reads the clock: what callbacks
 * took since the last wait shortens the next one. A clock that fails ends the process.
 */
void tmr_update_tmout(struct timespec* tmout);

/* tmr_time_out: runs the timers that are due by the loop's time. The number that ran. */
int tmr_time_out(void);

/* tmr_reset: forgets all timers, without running them, and gives the heap back. */
void tmr_reset(void);

MV_END_DECLS

#endif
