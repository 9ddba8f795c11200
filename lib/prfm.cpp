// Stopwatches over the monotonic clock and getrusage().
#include "prfm.h"

#include <cstdarg>
#include <cstdlib>
#include <ctime>

#include "ktime.h"
#include "rusage_ops.h"

namespace {

// A stopwatch without a clock would tell wrong times for good, and its callers look at no result: the end.
// Told on stderr: this module stands beside the log and does not use it.
[[noreturn]] void give_up(const char* call)
{
    perror(call);
    abort();
}

// Reads what the flags ask for and nothing else: getrusage() costs several times what the clock does. The
// monotonic clock, so that a span does not change with the time of day.
void capture(const struct prfm* r, struct prfm_metrics* m)
{
    if ((r->flags & prfm_TIME) != 0 && clock_gettime(CLOCK_MONOTONIC, &m->tm) != 0) {
        give_up("clock_gettime");
    }
    if ((r->flags & prfm_RUSAGE) != 0 && getrusage(r->who, &m->ru) != 0) {
        give_up("getrusage");
    }
}

// By the flags too: of a metric that is not measured the caller's record stays as it was.
void clear(const struct prfm* r, struct prfm_metrics* m)
{
    if ((r->flags & prfm_TIME) != 0) {
        timespecclear(&m->tm);
    }
    if ((r->flags & prfm_RUSAGE) != 0) {
        rusage_clear(&m->ru);
    }
}

// All fields that struct rusage has, those that Linux leaves at 0 included: scripts read the lines by place.
// Times are seconds and microseconds, maxrss is in kilobytes, and the rest are counts (getrusage(2)).
void dump_rusage(FILE* fp, const struct rusage& ru)
{
    fputs("== resource usage:\n", fp);
    fprintf(fp, "  user_time: %ld.%06ld, sys_time: %ld.%06ld\n", static_cast<long>(ru.ru_utime.tv_sec),
            static_cast<long>(ru.ru_utime.tv_usec), static_cast<long>(ru.ru_stime.tv_sec),
            static_cast<long>(ru.ru_stime.tv_usec));
    fprintf(fp, "  maxrss: %ld, ixrss: %ld, idrss: %ld, isrss: %ld\n", ru.ru_maxrss, ru.ru_ixrss, ru.ru_idrss,
            ru.ru_isrss);
    fprintf(fp, "  minflt: %ld, majflt: %ld, nswap=%ld\n", ru.ru_minflt, ru.ru_majflt, ru.ru_nswap);
    fprintf(fp, "  inblock: %ld, outblock: %ld, msgsnd: %ld, msgrcv: %ld\n", ru.ru_inblock, ru.ru_oublock,
            ru.ru_msgsnd, ru.ru_msgrcv);
    fprintf(fp, "  nsignals: %ld, nvcsw: %ld, nivcsw: %ld\n", ru.ru_nsignals, ru.ru_nvcsw, ru.ru_nivcsw);
    fputs("==\n", fp);
}

} // namespace

void prfm_xinit(struct prfm* r, int32_t flags, int rusage_who)
{
    r->flags = flags; // before the clearing, which goes by them
    clear(r, &r->start);
    clear(r, &r->accum);
    r->who = rusage_who;
}

void prfm_destroy(struct prfm* r)
{
    clear(r, &r->start);
    clear(r, &r->accum);
    r->flags = 0; // from here on a start or a stop measures nothing
}

void prfm_start(struct prfm* r)
{
    capture(r, &r->start);
}

void prfm_stop(struct prfm* r)
{
    // Not cleared: what the flags leave unread here is not looked at below.
    struct prfm_metrics now;
    capture(r, &now); // first of all: what follows is not to be part of the span
    if ((r->flags & prfm_TIME) != 0) {
        timespecsub(&now.tm, &r->start.tm);
        timespecadd(&r->accum.tm, &now.tm);
    }
    if ((r->flags & prfm_RUSAGE) != 0) {
        // Of maxrss, a high-water mark, that is the growth within the span: it never falls.
        rusage_sub(&now.ru, &r->start.ru, &now.ru);
        rusage_add(&r->accum.ru, &now.ru, &r->accum.ru);
    }
}

void prfm_probe(struct prfm* r)
{
    // A probe shows resources as they are since the process began; a time since then would be the clock's.
    capture(r, &r->accum);
    timespecclear(&r->accum.tm);
}

void prfm_dump(FILE* fp, const struct prfm* r, const char* fmt, ...)
{
    if (fmt != nullptr) {
        va_list args;
        va_start(args, fmt);
        vfprintf(fp, fmt, args);
        va_end(args);
    }
    if ((r->flags & prfm_TIME) != 0) {
        // Nanoseconds, where the lines of the resources have microseconds: each shows what its call gives.
        fprintf(fp, "== time:\t%ld.%09ld\n", static_cast<long>(r->accum.tm.tv_sec), r->accum.tm.tv_nsec);
    }
    if ((r->flags & prfm_RUSAGE) != 0) {
        dump_rusage(fp, r->accum.ru);
    }
}
