/*
 * prfm.h: a stopwatch over time and resources. Between prfm_start() and prfm_stop() it takes the difference
 * of the monotonic clock and of getrusage(2) and adds it to an accumulator. A record belongs to its caller;
 * the module keeps no state and logs nothing. A clock or getrusage call that fails is told on stderr by
 * perror(3) and ends the process by abort(3).
 */
#ifndef MORVANE_PRFM_H
#define MORVANE_PRFM_H

#include <stdint.h>
#include <stdio.h>
#include <sys/resource.h>
#include <time.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/* prfm_TIME, prfm_RUSAGE: what a prfm measures: CLOCK_MONOTONIC; getrusage of its selector. */
enum { prfm_TIME = 1, prfm_RUSAGE = 2 };

/* prfm_metrics: one reading, or a sum of spans. */
struct prfm_metrics {
    struct timespec tm;
    struct rusage ru;
};

/* prfm: one stopwatch. prfm_xinit() or one of its short forms comes first. */
struct prfm {
    int who;                   /* selector of getrusage: RUSAGE_SELF or RUSAGE_THREAD */
    int32_t flags;             /* prfm_TIME, prfm_RUSAGE */
    struct prfm_metrics start; /* reading of the last start */
    struct prfm_metrics accum; /* sum of all spans */
};

/* prfm_xinit: stores flags and selector and clears start and accum of the parts that flags names. */
void prfm_xinit(struct prfm* r, int32_t flags, int rusage_who);

/* prfm_init: time and resources of the process. */
#define prfm_init(r) prfm_xinit((r), prfm_TIME | prfm_RUSAGE, RUSAGE_SELF)

/* prfm_tm_init: time alone. */
#define prfm_tm_init(r) prfm_xinit((r), prfm_TIME, RUSAGE_SELF)

/* prfm_init_thr: time, and resources of the calling thread. RUSAGE_THREAD needs _GNU_SOURCE. */
#define prfm_init_thr(r) prfm_xinit((r), prfm_TIME | prfm_RUSAGE, RUSAGE_THREAD)

/* prfm_destroy: clears what prfm_xinit cleared, and the flags. Nothing is freed: there is nothing to free. */
void prfm_destroy(struct prfm* r);

/* prfm_start: takes the reading that a span begins with. */
void prfm_start(struct prfm* r);

/* prfm_stop: adds the span since the last start to accum. start stays, so that a second stop measures from it
 * again; without any start it measures from zero. */
void prfm_stop(struct prfm* r);

/* prfm_probe: accum becomes the totals that getrusage reports, not a span, with a time of zero. */
void prfm_probe(struct prfm* r);

/* prfm_dump: prints a heading (none for a NULL fmt) and the accumulator to fp. Results of output calls are
 * not looked at. */
void prfm_dump(FILE* fp, const struct prfm* r, const char* fmt, ...) MV_PRINTF(3, 4);

MV_END_DECLS

#endif
