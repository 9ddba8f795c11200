// The library's own identity.
#include "libmeta.h"

#include <cstddef>
#include <cstdio>

#define VERSION "1.0"
#define BUILDNUM 2
#define PATCH 25

namespace {

// Constants, not what the build finds: two builds of one source give one library.
constexpr const char* g_LIB_CKSUM = "d15a4342";
constexpr unsigned int g_LIB_UTIME = 1557583422; // time of the build, seconds since the epoch

char g_libtag[64];

} // namespace

const char* lbmvn_info(void)
{
    // The text has 38 characters: the limit is there for whoever changes the constants.
    constexpr size_t kLimit = sizeof g_libtag - 1;
    if (g_libtag[0] != 0) {
        return g_libtag;
    }
    const int n = snprintf(g_libtag, kLimit, "libmvn/%s-%d.%d (%s) @%u", VERSION, BUILDNUM, PATCH,
                           g_LIB_CKSUM, g_LIB_UTIME);
    if (n < 1 || static_cast<size_t>(n) > kLimit) {
        snprintf(g_libtag, kLimit, "%s", "#error#");
    }
    return g_libtag;
}
