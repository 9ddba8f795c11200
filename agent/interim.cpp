// Stand-ins for calls of the library that are still being written; weak, so that the real ones win.
#include <cstring>
#include <ifaddrs.h>
#include <initializer_list>

#include "netops.h"
#include "strops.h"
#include "util.h"
#include "wopen.h"

#pragma GCC visibility push(default)
extern "C" {
#define STAND_IN __attribute__((weak))

STAND_IN const char* get_base(const char* path)
{
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

STAND_IN int handle_quit_signals(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    for (const int signo : {SIGTERM, SIGQUIT, SIGINT}) {
        if (sigaction(signo, &action, nullptr) != 0) {
            return -1;
        }
    }
    return 0;
}

STAND_IN void chomp(char* s)
{
    size_t length = strlen(s);
    for (int i = 0; i < 2 && length > 0 && (s[length - 1] == '\n' || s[length - 1] == '\r'); ++i) {
        s[--length] = 0;
    }
}

STAND_IN int ifc_addr_lookup(int family, const char* ifc, struct sockaddr*, socklen_t)
{
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return -1;
    }
    int rc = -1;
    for (const struct ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == family &&
            strcmp(entry->ifa_name, ifc) == 0) {
            rc = 0;
        }
    }
    freeifaddrs(list);
    return rc;
}

STAND_IN int daemonize(void)
{
    return -1;
}

STAND_IN int run_as_user(const char*)
{
    return -1;
}

STAND_IN int goto_runtime_dir(const char*)
{
    return -1;
}

STAND_IN int create_pidfile_extra(const char*, pid_t, ino_t*, uint32_t)
{
    return -1;
}

STAND_IN int usock_open(const char*, struct usock_ctx*)
{
    return -1;
}

STAND_IN void usock_close(int, struct usock_ctx*) {}
}
#pragma GCC visibility pop
