// The usage text.
#include <cstdlib>

#include "meta.h"
#include "zent.h"

void usage()
{
    static constexpr const char* kOptions =
        "Options:\n"
        "  -?                   = output this option guide\n"
        "  -i {ifc}             = network interface to listen on\n"
        "  -R {address:port}    = address:port of tvd to report to\n"
        "  -g {min-group}       = minimal m-cast address to relay\n"
        "  -G {max-group}       = maximum m-cast address to relay\n"
        "  -F {path}            = path to group-list file\n"
        "  -l {path}            = log file\n"
        "  -L {level}           = log level: crit|err|norm|warn|info|debug\n"
        "  -p {path}            = pid file\n"
        "  -u {username}        = run as user\n"
        "  -T                   = run as a non-daemon application\n";

    fprintf(stderr, "%s\n", get_app_info(g_appname, nullptr));
    fprintf(stderr, "Usage: %s OPTIONS\n", g_appname);
    fputs(kOptions, stderr);
    fputs("\n", stderr);
    dump_build_info(stderr);
    fprintf(stderr, "%s %s\n\n", g_appname, "belongs to the Tavrel family of IP multicast relay programs.");
    exit(1);
}
