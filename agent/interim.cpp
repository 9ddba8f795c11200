// Stand-ins for calls of the library that are still being written; weak, so that the real ones win.
#include <cstring>

#include "strops.h"
#include "wopen.h"

#pragma GCC visibility push(default)
extern "C" {
#define STAND_IN __attribute__((weak))

STAND_IN void chomp(char* s)
{
    size_t length = strlen(s);
    for (int i = 0; i < 2 && length > 0 && (s[length - 1] == '\n' || s[length - 1] == '\r'); ++i) {
        s[--length] = 0;
    }
}

STAND_IN int usock_open(const char*, struct usock_ctx*)
{
    return -1;
}

STAND_IN void usock_close(int, struct usock_ctx*) {}
}
#pragma GCC visibility pop
