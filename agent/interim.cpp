// Stand-ins for calls of the library that are still being written; weak, so that the real ones win.
#include "wopen.h"

#pragma GCC visibility push(default)
extern "C" {
#define STAND_IN __attribute__((weak))

STAND_IN int usock_open(const char*, struct usock_ctx*)
{
    return -1;
}

STAND_IN void usock_close(int, struct usock_ctx*) {}
}
#pragma GCC visibility pop
