/*
 * rusage_ops.h: arithmetic on struct rusage (getrusage(2)): clear, difference, sum. Macros without a source
 * and without state. All 16 fields are treated alike, the high-water mark ru_maxrss among them. Arguments are
 * pointers and are evaluated more than once; the result may be one of the operands.
 */
#ifndef MORVANE_RUSAGE_OPS_H
#define MORVANE_RUSAGE_OPS_H

#include <sys/resource.h>
#include <sys/time.h>

#include "mvtypes.h"

/* rusage_clear: all fields of *rp to 0. */
#define rusage_clear(rp)                                                                                     \
    do {                                                                                                     \
        timerclear(&(rp)->ru_utime);                                                                         \
        timerclear(&(rp)->ru_stime);                                                                         \
        (rp)->ru_maxrss = 0;                                                                                 \
        (rp)->ru_ixrss = 0;                                                                                  \
        (rp)->ru_idrss = 0;                                                                                  \
        (rp)->ru_isrss = 0;                                                                                  \
        (rp)->ru_minflt = 0;                                                                                 \
        (rp)->ru_majflt = 0;                                                                                 \
        (rp)->ru_nswap = 0;                                                                                  \
        (rp)->ru_inblock = 0;                                                                                \
        (rp)->ru_oublock = 0;                                                                                \
        (rp)->ru_msgsnd = 0;                                                                                 \
        (rp)->ru_msgrcv = 0;                                                                                 \
        (rp)->ru_nsignals = 0;                                                                               \
        (rp)->ru_nvcsw = 0;                                                                                  \
        (rp)->ru_nivcsw = 0;                                                                                 \
    } while (0)

/* rusage_sub: *rrp = *rap - *rbp; times with the borrow of timersub(3), counters by plain subtraction. */
#define rusage_sub(rap, rbp, rrp)                                                                            \
    do {                                                                                                     \
        timersub(&(rap)->ru_utime, &(rbp)->ru_utime, &(rrp)->ru_utime);                                      \
        timersub(&(rap)->ru_stime, &(rbp)->ru_stime, &(rrp)->ru_stime);                                      \
        (rrp)->ru_maxrss = (rap)->ru_maxrss - (rbp)->ru_maxrss;                                              \
        (rrp)->ru_ixrss = (rap)->ru_ixrss - (rbp)->ru_ixrss;                                                 \
        (rrp)->ru_idrss = (rap)->ru_idrss - (rbp)->ru_idrss;                                                 \
        (rrp)->ru_isrss = (rap)->ru_isrss - (rbp)->ru_isrss;                                                 \
        (rrp)->ru_minflt = (rap)->ru_minflt - (rbp)->ru_minflt;                                              \
        (rrp)->ru_majflt = (rap)->ru_majflt - (rbp)->ru_majflt;                                              \
        (rrp)->ru_nswap = (rap)->ru_nswap - (rbp)->ru_nswap;                                                 \
        (rrp)->ru_inblock = (rap)->ru_inblock - (rbp)->ru_inblock;                                           \
        (rrp)->ru_oublock = (rap)->ru_oublock - (rbp)->ru_oublock;                                           \
        (rrp)->ru_msgsnd = (rap)->ru_msgsnd - (rbp)->ru_msgsnd;                                              \
        (rrp)->ru_msgrcv = (rap)->ru_msgrcv - (rbp)->ru_msgrcv;                                              \
        (rrp)->ru_nsignals = (rap)->ru_nsignals - (rbp)->ru_nsignals;                                        \
        (rrp)->ru_nvcsw = (rap)->ru_nvcsw - (rbp)->ru_nvcsw;                                                 \
        (rrp)->ru_nivcsw = (rap)->ru_nivcsw - (rbp)->ru_nivcsw;                                              \
    } while (0)

/* rusage_add: *rrp = *rap + *rbp; times with the carry of timeradd(3), counters by plain addition. */
#define rusage_add(rap, rbp, rrp)                                                                            \
    do {                                                                                                     \
        timeradd(&(rap)->ru_utime, &(rbp)->ru_utime, &(rrp)->ru_utime);                                      \
        timeradd(&(rap)->ru_stime, &(rbp)->ru_stime, &(rrp)->ru_stime);                                      \
        (rrp)->ru_maxrss = (rap)->ru_maxrss + (rbp)->ru_maxrss;                                              \
        (rrp)->ru_ixrss = (rap)->ru_ixrss + (rbp)->ru_ixrss;                                                 \
        (rrp)->ru_idrss = (rap)->ru_idrss + (rbp)->ru_idrss;                                                 \
        (rrp)->ru_isrss = (rap)->ru_isrss + (rbp)->ru_isrss;                                                 \
        (rrp)->ru_minflt = (rap)->ru_minflt + (rbp)->ru_minflt;                                              \
        (rrp)->ru_majflt = (rap)->ru_majflt + (rbp)->ru_majflt;                                              \
        (rrp)->ru_nswap = (rap)->ru_nswap + (rbp)->ru_nswap;                                                 \
        (rrp)->ru_inblock = (rap)->ru_inblock + (rbp)->ru_inblock;                                           \
        (rrp)->ru_oublock = (rap)->ru_oublock + (rbp)->ru_oublock;                                           \
        (rrp)->ru_msgsnd = (rap)->ru_msgsnd + (rbp)->ru_msgsnd;                                              \
        (rrp)->ru_msgrcv = (rap)->ru_msgrcv + (rbp)->ru_msgrcv;                                              \
        (rrp)->ru_nsignals = (rap)->ru_nsignals + (rbp)->ru_nsignals;                                        \
        (rrp)->ru_nvcsw = (rap)->ru_nvcsw + (rbp)->ru_nvcsw;                                                 \
        (rrp)->ru_nivcsw = (rap)->ru_nivcsw + (rbp)->ru_nivcsw;                                              \
    } while (0)

#endif
