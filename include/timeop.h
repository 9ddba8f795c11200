/*
 * timeop.h: time texts, clock readings that cannot fail, time-outs against a cached or a fresh clock, and
 * spans that count either time or ticks. struct timespec is the unit of time throughout.
 *
 * Time-outs are meant to run against the event loop's cached clock (rqs_now_ref() of rqs.h), so that a loop
 * reads the clock once a round; without a running loop that clock stands at zero.
 *
 * State: the zone's name, the broken-down minutes of the latest texts, and the mark that a signal handler's
 * mk_timestr() minds. The other functions keep none.
 */
#ifndef MORVANE_TIMEOP_H
#define MORVANE_TIMEOP_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/* Modes of a tspan. */
enum { TSPAN_NONE = 0, TSPAN_TIME = 1, TSPAN_TICKS = 2 };

/* EOD_HOUR, EOD_MIN: hour and minute at which get_endofday_utime() ends a day; the second is 59. */
enum { EOD_HOUR = 23, EOD_MIN = 59 };

/* tspan: a point or a length of time, measured in time or in the ticks of some 32-bit counter. */
struct tspan {
    int mode; /* TSPAN_TIME or TSPAN_TICKS: which member of val counts */

    union {
        struct timespec tms;
        uint32_t ticks; /* as a point: 0 is a span that never started */
    } val;
};

/* set_clk_now: reads clock clk_id into *tms. A clock that fails ends the process by abort(), with the reason
 * on stderr. */
void set_clk_now(struct timespec* tms, clockid_t clk_id);

/* timed_out: 1 if more than tmout has passed since last_tm by the event loop's cached clock, else 0. Exactly
 * tmout is not yet a time-out. */
int timed_out(const struct timespec* last_tm, const struct timespec* tmout);

/* timed_out_ext: timed_out() by the time *clknow; a NULL clknow stands for the event loop's cached clock. */
int timed_out_ext(const struct timespec* last_tm, const struct timespec* tmout,
                  const struct timespec* clknow);

/* timed_out_real: timed_out() by a fresh reading of CLOCK_REALTIME. */
int timed_out_real(const struct timespec* last_tm, const struct timespec* tmout);

/* calc_timespan: *span = till - from. A negative span has negative seconds and nanoseconds from 0 to
 * 999999999. span may be one of the others. */
void calc_timespan(const struct timespec* from, const struct timespec* till, struct timespec* span);

/*
 * mk_timestr: the time text of a log line, by the f_ flags of log.h, with the local zone's name behind a
 * blank. Returns its length; -1 if the buffer is too small or the time cannot be broken down (told on
 * stderr); -35 (the negated EDEADLK) in a signal handler that interrupted a conversion or, where the minute
 * is not the last text's, a line to syslog. A length equal to buflen is a text cut by one. No allocation.
 */
ssize_t mk_timestr(const struct timespec* tms, const uint32_t flags, char* buf, size_t buflen);

/*
 * scan_log_time: reads back what mk_timestr() wrote with the same flags; of them f_RAW_TIME and f_FMT_SECONDS
 * count. The text is taken as local time without daylight saving, whatever its zone name says and also where
 * f_GMT_TIME was set. Returns the numbers read: 2 of a raw time, 6 of whole seconds, else 7; -1 if the text
 * has fewer or is no time (logged).
 */
int scan_log_time(const char* s, struct timespec* tms, uint32_t flags);

/* mk_gmt_date: the date of ut by GMT as "YYYY-MM-DD". 0, or -1 if the buffer is shorter than the text
 * (logged) or ut cannot be broken down (told on stderr). A buffer of the text's length gives it without its
 * last character. */
int mk_gmt_date(time_t ut, char* buf, size_t buflen);

/* mk_timespan: a duration in seconds as "01d 02h:03m:04s"; below one day the part of the days is left out. A
 * negative duration loses its days, and its other fields are negative. 0, or -1 if the buffer is shorter than
 * a part of the text; a part that ends where the buffer ends loses its last character. */
int mk_timespan(long int total_sec, char* buf, size_t buflen);

/*
 * tspan_timed_out: whether tmout has passed since last, by now (as timed_out_ext() takes it) or by ticks_now.
 * Ticks, unlike times, have run out when the limit is reached; the counter may have wrapped once, past its 0;
 * a last of 0 ticks has always run out. REQUIRES: TSPAN_TIME or TSPAN_TICKS, the same mode in both.
 */
bool tspan_timed_out(const struct tspan* last, const struct tspan* tmout, const struct timespec* now,
                     uint32_t ticks_now);

/* set_tspan: stores *tm or ticks, by the mode that spn has. REQUIRES: TSPAN_TIME or TSPAN_TICKS. */
void set_tspan(struct tspan* spn, struct timespec* tm, uint32_t ticks);

/* get_endofday_utime: the last second of tstamp's day by local time; -1 if it cannot be computed (logged if
 * tstamp cannot be broken down). */
time_t get_endofday_utime(time_t tstamp);

MV_END_DECLS

#endif
