/*
 * timeop.h: time texts, clock readings that cannot fail, time-outs against a cached or a fresh clock, and
 * spans that count either time or ticks. struct timespec is the unit of time throughout.
 */
#ifndef MORVANE_TIMEOP_H
#define MORVANE_TIMEOP_H

#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

/*
 * mk_timestr: the time text of a log line, by the f_ flags of log.h, with the local zone's name behind a
 * blank. Returns its length; -1 if the buffer is too small or the time cannot be broken down (told on
 * stderr); -35 (the negated EDEADLK) if it was called from a signal handler that interrupted a conversion. A
 * length equal to buflen is a text cut by one. No allocation.
 */
ssize_t mk_timestr(const struct timespec* tms, const uint32_t flags, char* buf, size_t buflen);

MV_END_DECLS

#endif
