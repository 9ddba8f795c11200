// The event loop of one thread, its clock and its file watches.
#include "rqs.h"

namespace {

struct rqs_context {
    struct timespec itime; // CLOCK_MONOTONIC, read after each wait
};

struct rqs_context g_rqs;

} // namespace

const struct timespec* rqs_now_ref(void)
{
    return &g_rqs.itime;
}

struct timespec rqs_now(void)
{
    return g_rqs.itime;
}
