// Build identity: constants of this build, and the texts made from them.
#include "meta.h"

#include <cstddef>
#include <strings.h>
#include <sys/utsname.h>

#include "libmeta.h"
#include "mvtypes.h"

#define VERSION "0.1"
#define BUILDNUM 6
#define PATCH 0
#define BUILD_TYPE "master"
#define BUILD_MODE "regular"
#define BUILD_TIME "2019-05-11"
#define OPTMODEL_STR "-ggdb3"
#define SYSTAG "CentOS 7 Linux (amd64)"

const char* const g_APP_CKSUM = "f61e0a7b";

namespace {

char g_appinfo[256];
char g_apptag[128];
char g_sysinfo[256];

constexpr const char* kError = "#error#";

// The text of a buffer that was just formatted: n is snprintf's result, limit the size it was given and the
// most that n may be. Kept: a text of exactly limit characters passes, without its last one.
const char* checked(char* buffer, int n, size_t limit)
{
    if (n < 1 || static_cast<size_t>(n) > limit) {
        snprintf(buffer, limit, "%s", kError);
    }
    return buffer;
}

// The family shares this file: a program that is not listed shows that by the error text.
const char* app_description(const char* app)
{
    static constexpr struct {
        const char* name;
        const char* description;
    } kPrograms[] = {
        {"zent", "Tavrel IGMP agent"},
        {"tvd", "Tavrel relay daemon"},
    };

    for (const auto& program : kPrograms) {
        if (strcasecmp(app, program.name) == 0) {
            return program.description;
        }
    }
    return kError;
}

bool using_fast_clocks()
{
    return false;
}

} // namespace

// Made once: later calls, with whatever arguments, give the first text.
const char* get_app_info(const char* appname, const char* cksum)
{
    constexpr size_t kLimit = sizeof g_appinfo - 1;
    if (g_appinfo[0] != 0) {
        return g_appinfo;
    }
    const char* system = get_sysinfo();
    const int n =
        snprintf(g_appinfo, kLimit, "%s (%s) %s-%d.%d (%s) %s [%s] %s; built on %s", appname,
                 app_description(appname), VERSION, BUILDNUM, PATCH, BUILD_TYPE, BUILD_MODE,
                 system != nullptr ? system : "(null)", cksum != nullptr ? cksum : g_APP_CKSUM, BUILD_TIME);
    return checked(g_appinfo, n, kLimit);
}

const char* get_app_tag(const char* appname)
{
    constexpr size_t kLimit = sizeof g_apptag - 1;
    if (g_apptag[0] != 0) {
        return g_apptag;
    }
    const int n =
        snprintf(g_apptag, kLimit, "%s/%s-%d.%d (%s)", appname, VERSION, BUILDNUM, PATCH, BUILD_TYPE);
    return checked(g_apptag, n, kLimit);
}

void dump_build_info(FILE* fp)
{
    fputs("----\n", fp);
    fprintf(fp, "%s ", lbmvn_info());
    if (using_fast_clocks()) {
        fputs("[fast-clocks] ", fp);
    }
    fprintf(fp, "[%s]", OPTMODEL_STR);
    fputs("\n", fp);
    fputs("----\n\n", fp);
}

const char* get_sysinfo()
{
    if (g_sysinfo[0] != 0) {
        return g_sysinfo;
    }
    struct utsname system;
    if (uname(&system) != 0) {
        return nullptr;
    }
    snprintf(g_sysinfo, sizeof g_sysinfo - 1, "%s - %s/%s", SYSTAG, system.release, system.machine);
    return g_sysinfo;
}
