/*
 * clk.h: the names of the clocks that the library reads. Every reading goes to the kernel's own clocks; a
 * platform with cheaper ones would name them here. No state, no source.
 */
#ifndef MORVANE_CLK_H
#define MORVANE_CLK_H

#include <time.h>

/* FAST_MONOTONIC_CLOCK: the clock of time-outs and sensors, a clockid_t. It does not jump when the time of
 * day is set. */
#define FAST_MONOTONIC_CLOCK CLOCK_MONOTONIC

/* FAST_REALTIME_CLOCK: the clock of time stamps, a clockid_t: the time of day since the epoch. */
#define FAST_REALTIME_CLOCK CLOCK_REALTIME

#endif
