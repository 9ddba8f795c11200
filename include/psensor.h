/*
 * psensor.h: named stopwatches in one static table, g_psensor: the library's own at fixed slots, PRF_*, and
 * up to 64 of the application behind them. A sensor is off until it is enabled, and the macros cost one test
 * of a bit while it is off, so they stand permanently in hot paths. One thread. Nothing is logged.
 *
 * A sensor is disabled, or enabled and stopped, or enabled and running. Starts of a running sensor do
 * nothing, and the first stop ends the span, so pairs may nest. Disabling a running sensor loses its span
 * unless it is enabled again: the next stop then closes the span from the old start.
 */
#ifndef MORVANE_PSENSOR_H
#define MORVANE_PSENSOR_H

#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

#include "mvtypes.h"
#include "prfm.h"

MV_BEGIN_DECLS

/* Slots of the library's sensors and what they measure. */
enum {
    PRF_APP = 0,     /* "app": the application's own use; the library never starts it */
    PRF_EVLOOP = 1,  /* "ev_loop": a cycle of the event loop from after the wait to its end */
    PRF_EVREAD = 2,  /* "ev_read": dispatch of readers, file watches included */
    PRF_EVWRITE = 3, /* "ev_write": dispatch of writers */
    PRF_EVERR = 4,   /* "ev_err": dispatch of errors */
    PRF_EVPP = 5,    /* "ev_pp": each post-processing call of the event loop */
    PRF_EVIDLE = 6,  /* "ev_idle": the time in epoll_wait, and in poll_on_socket */
    PRF_DATAIN = 7,  /* "data_in": the read calls of nread, npread and recv_fd */
    PRF_DATAOUT = 8, /* "data_out": the write calls of nwrite, nsendfile and transfer */
    PRF_SYS_COUNT = 9
};

/* USENSOR_FIRST: first slot of the application. MAX_PSENSORS: slots of the table. */
enum { USENSOR_FIRST = PRF_SYS_COUNT, MAX_PSENSORS = 73 };

/* psensor: one slot. Zeros before psensors_init: disabled. */
struct psensor {
    const char* nametag; /* borrowed */
    struct prfm sensor;
    unsigned int enabled : 1;
    unsigned int started : 1;
};

/* app_psensor_ctx: the application's part of the table. */
struct app_psensor_ctx {
    size_t ucount; /* sensors of the application */
};

/* g_psensor: the table. Written by the calls and macros below alone. */
extern struct psensor g_psensor[MAX_PSENSORS];

/* g_app_psensor: how many of its slots are the application's. */
extern struct app_psensor_ctx g_app_psensor;

/* g_libsensor_tag: names of the library's sensors in the order of their slots, ended by NULL. */
extern const char* g_libsensor_tag[PRF_SYS_COUNT + 1];

/*
 * psensors_init: sets up the whole table: the library's sensors, then the application's in the order of utag,
 * a list ended by NULL (NULL: none); names beyond the 64th are ignored. All measure time and the process's
 * resources; enable_all other than 0 enables them. Names are kept by pointer: they must outlive the table.
 * Always 0.
 */
int psensors_init(const char** utag, int enable_all);

/* psensors_destroy: prfm_destroy on the slots in use. The enabled bits stay. */
void psensors_destroy(void);

/* psensors_dump: prints each enabled sensor in use that has run, as "P-Sensor [NAME]" and its accumulator. */
void psensors_dump(FILE* fp);

/* libptag_index: slot of a library sensor by name, ignoring case; -1 for an unknown name. */
off_t libptag_index(const char* name);

/* psensor_at: the slot's record, or NULL for a slot below 0 or above the table. The guard of the macros; it
 * costs nothing where the slot is a constant. */
static inline struct psensor* psensor_at(off_t slot)
{
    return slot >= 0 && slot < MAX_PSENSORS ? &g_psensor[slot] : NULL;
}

/* psensor_enable, psensor_disable: set and clear the enabled bit of slot i. */
#define psensor_enable(i) psensor_set_enabled_((i), 1U)
#define psensor_disable(i) psensor_set_enabled_((i), 0U)

/* psensor_start: begins a span if the sensor is enabled and not running. */
#define psensor_start(i) psensor_start_(i)

/* psensor_stop: ends and adds the span if the sensor is enabled and running. */
#define psensor_stop(i) psensor_stop_(i)

/* psensor_probe: prfm_probe if the sensor is enabled. */
#define psensor_probe(i) psensor_probe_(i)

/* Bodies of the macros, functions so that a slot is evaluated once. */
static inline void psensor_set_enabled_(off_t slot, unsigned int enabled)
{
    struct psensor* ps = psensor_at(slot);
    if (ps != NULL) {
        ps->enabled = enabled & 1U;
    }
}

static inline void psensor_start_(off_t slot)
{
    struct psensor* ps = psensor_at(slot);
    if (__builtin_expect(ps != NULL && ps->enabled && !ps->started, 0)) {
        prfm_start(&ps->sensor);
        ps->started = 1;
    }
}

static inline void psensor_stop_(off_t slot)
{
    struct psensor* ps = psensor_at(slot);
    if (__builtin_expect(ps != NULL && ps->enabled && ps->started, 0)) {
        ps->started = 0;
        prfm_stop(&ps->sensor);
    }
}

static inline void psensor_probe_(off_t slot)
{
    struct psensor* ps = psensor_at(slot);
    if (__builtin_expect(ps != NULL && ps->enabled, 0)) {
        prfm_probe(&ps->sensor);
    }
}

MV_END_DECLS

#endif
