/*
 * ktime.h: arithmetic on struct timespec and struct timeval, as macros over pointers. An argument may be
 * evaluated more than once. Fractions are taken to lie from 0 to one second less one unit. Seconds wrap at
 * the limits of time_t. No state, no source.
 */
#ifndef MORVANE_KTIME_H
#define MORVANE_KTIME_H

#include <sys/time.h>
#include <time.h>

#include "mvtypes.h"

/* timespecclear: sets *tvp to zero. */
#define timespecclear(tvp) ((void)((tvp)->tv_sec = 0, (tvp)->tv_nsec = 0))

/* timespecisset: whether *tvp is not zero. */
#define timespecisset(tvp) ((tvp)->tv_sec != 0 || (tvp)->tv_nsec != 0)

/* timespeccmp: *tvp against *uvp by the operator cmp (<, <=, ==, !=, >=, >); the nanoseconds count where the
 * seconds are equal. */
#define timespeccmp(tvp, uvp, cmp)                                                                           \
    ((tvp)->tv_sec == (uvp)->tv_sec ? ((tvp)->tv_nsec cmp(uvp)->tv_nsec) : ((tvp)->tv_sec cmp(uvp)->tv_sec))

/* timespecadd: adds *uvp to *vvp; nanoseconds of a second or more carry one second. */
#define timespecadd(vvp, uvp)                                                                                \
    do {                                                                                                     \
        (void)__builtin_add_overflow((vvp)->tv_sec, (uvp)->tv_sec, &(vvp)->tv_sec);                          \
        (vvp)->tv_nsec += (uvp)->tv_nsec;                                                                    \
        if ((vvp)->tv_nsec >= 1000000000L) {                                                                 \
            (void)__builtin_add_overflow((vvp)->tv_sec, 1, &(vvp)->tv_sec);                                  \
            (vvp)->tv_nsec -= 1000000000L;                                                                   \
        }                                                                                                    \
    } while (0)

/* timespecsub: subtracts *uvp from *vvp; negative nanoseconds borrow one second. A negative difference has
 * negative seconds and a fraction that counts upwards. */
#define timespecsub(vvp, uvp)                                                                                \
    do {                                                                                                     \
        (void)__builtin_sub_overflow((vvp)->tv_sec, (uvp)->tv_sec, &(vvp)->tv_sec);                          \
        (vvp)->tv_nsec -= (uvp)->tv_nsec;                                                                    \
        if ((vvp)->tv_nsec < 0) {                                                                            \
            (void)__builtin_sub_overflow((vvp)->tv_sec, 1, &(vvp)->tv_sec);                                  \
            (vvp)->tv_nsec += 1000000000L;                                                                   \
        }                                                                                                    \
    } while (0)

/* timevalclear, timevalisset, timevalcmp: the same as timespecclear, timespecisset and timespeccmp for a
 * struct timeval. */
#define timevalclear(tvp) ((void)((tvp)->tv_sec = 0, (tvp)->tv_usec = 0))
#define timevalisset(tvp) ((tvp)->tv_sec != 0 || (tvp)->tv_usec != 0)
#define timevalcmp(tvp, uvp, cmp)                                                                            \
    ((tvp)->tv_sec == (uvp)->tv_sec ? ((tvp)->tv_usec cmp(uvp)->tv_usec) : ((tvp)->tv_sec cmp(uvp)->tv_sec))

#endif
