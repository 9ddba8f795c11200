// The table of named stopwatches.
#include "psensor.h"

#include <cstring>

#include "ktime.h"
#include "util.h"

struct psensor g_psensor[MAX_PSENSORS];
struct app_psensor_ctx g_app_psensor;

const char* g_libsensor_tag[PRF_SYS_COUNT + 1] = {"app",   "ev_loop", "ev_read", "ev_write", "ev_err",
                                                  "ev_pp", "ev_idle", "data_in", "data_out", nullptr};

namespace {

// Names the slots from first up to limit after a list ended by NULL. How many it named.
size_t name_slots(size_t first, size_t limit, const char** tags, bool enable)
{
    size_t named = 0;
    for (; first + named < limit && tags[named] != nullptr; ++named) {
        struct psensor& ps = g_psensor[first + named];
        ps.nametag = tags[named];
        prfm_init(&ps.sensor);
        ps.enabled = enable ? 1U : 0U;
    }
    return named;
}

// The library's own slots, named or not, with the application's behind them: only the latter have a count.
size_t slots_in_use()
{
    return USENSOR_FIRST + g_app_psensor.ucount;
}

} // namespace

int psensors_init(const char** utag, int enable_all)
{
    // A second set-up starts from nothing: slots beyond the new names must not keep an old one.
    memset(g_psensor, 0, sizeof g_psensor);
    const bool enable = enable_all != 0;
    name_slots(0, USENSOR_FIRST, g_libsensor_tag, enable);
    g_app_psensor.ucount = utag == nullptr ? 0 : name_slots(USENSOR_FIRST, MAX_PSENSORS, utag, enable);
    return 0;
}

void psensors_destroy(void)
{
    for (size_t i = 0; i < slots_in_use(); ++i) {
        prfm_destroy(&g_psensor[i].sensor);
    }
}

void psensors_dump(FILE* fp)
{
    for (size_t i = 0; i < slots_in_use(); ++i) {
        const struct psensor& ps = g_psensor[i];
        // A sensor that never ran has nothing to say, and there are many of them. One that was only probed
        // has no time either, and is left out.
        if (ps.enabled != 0 && timespecisset(&ps.sensor.accum.tm)) {
            prfm_dump(fp, &ps.sensor, "P-Sensor [%s]\n", ps.nametag);
        }
    }
}

// The place in the list is the slot: the names stand in the order of the PRF_ numbers.
off_t libptag_index(const char* name)
{
    return tag_index(name, g_libsensor_tag);
}
