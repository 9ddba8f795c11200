// The command line.
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <unistd.h>

#include "log.h"
#include "netops.h"
#include "zent.h"

DECLARE_MLL(MLL_COMMON);

namespace {

// A text option: cut to its field, with nothing left of an earlier value.
template <size_t N>
void set_text(char (&field)[N], const char* text)
{
    strncpy(field, text, N - 1);
}

// Refuses an interface that does not exist, and one without an IPv4 address.
int set_interface(const char* name)
{
    struct sockaddr_in addr;
    if (ifc_addr_lookup(AF_INET, name, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
        fprintf(stderr, "Invalid interface name: %s\n", name);
        return -1;
    }
    set_text(g_cfg.mifc, name);
    return 0;
}

void set_report_target(const char* target)
{
    if (strcmp(target, "-") == 0) {
        g_cfg.report_url[0] = 0;
        g_ctx.rep.fp = stdout;
        return;
    }
    snprintf(g_cfg.report_url, MAX_RURL_LEN - 1, "udp://%s", target);
}

int set_group_bound(const char* text, uint32_t& bound)
{
    struct in_addr addr;
    if (inet_aton(text, &addr) == 0) {
        fprintf(stderr, "Invalid address: %s\n", text);
        return -1;
    }
    if (!is_multicast_addr(addr.s_addr)) {
        fprintf(stderr, "Non-multicast address: %s (0x%04x)\n", text, addr.s_addr);
        return -1;
    }
    bound = ntohl(addr.s_addr);
    return 0;
}

// A level that is unknown is told and changes nothing: the agent starts all the same.
void set_log_level(const char* text)
{
    if (match_log_level(text, &g_cfg.log_level) != 0) {
        fprintf(stderr, "Invalid log level: %s\n", text);
    }
}

int set_option(int option, const char* value)
{
    switch (option) {
    case '?': usage();
    case 'i': return set_interface(value);
    case 'R': set_report_target(value); break;
    case 'g': return set_group_bound(value, g_cfg.min_group);
    case 'G': return set_group_bound(value, g_cfg.max_group);
    case 'F': g_cfg.grp_list_file = value; break;
    case 'l': g_cfg.logfile = value; break;
    case 'L': set_log_level(value); break;
    case 'u': set_text(g_cfg.rt_user, value); break;
    case 'p': set_text(g_cfg.pidfile, value); break;
    case 'T': g_cfg.non_daemon = true; break;
    default: fprintf(stderr, "Invalid argument: %c\n", option); break;
    }
    return 0;
}

// What can only be judged when all options are read.
int complete_cfg()
{
    if (geteuid() != 0) {
        g_cfg.non_daemon = true;
        log_mirror(&g_log, stderr);
    }
    if (g_cfg.log_level > DEBUG_level) {
        g_cfg.log_level = DEBUG_level;
    }
    if (g_cfg.mifc[0] == 0) {
        fprintf(stderr, "%s: interface must be specified\n", g_appname);
        usage();
    }
    if (g_cfg.min_group != 0 && g_cfg.max_group != 0 && g_cfg.min_group > g_cfg.max_group) {
        fprintf(stderr, "%s: BAD g/G: min (0x%08x) > max (0x%08x) for group addresses\n", g_appname,
                g_cfg.min_group, g_cfg.max_group);
        exit(1);
    }
    if (g_cfg.logfile == nullptr) {
        g_cfg.logfile = "/dev/null";
        fprintf(stderr, "%s: logging to %s\n", g_appname, g_cfg.logfile);
    }
    return 0;
}

} // namespace

int app_getcfg(int argc, const char** argv)
{
    g_cfg.log_level = INFO_level;
    for (int option = 0; (option = getopt(argc, const_cast<char**>(argv), "?Ti:R:g:G:F:l:L:u:p:")) != -1;) {
        if (set_option(option, optarg) != 0) {
            return -1;
        }
    }
    return complete_cfg();
}
