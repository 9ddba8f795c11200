// The flags that the application defines, for the sources that read or set them. log.h and util.h declare
// them for everybody else.
#ifndef MORVANE_DETAIL_APP_FLAGS_H
#define MORVANE_DETAIL_APP_FLAGS_H

#include <csignal>

extern "C" {
extern volatile sig_atomic_t g_quit;
extern volatile sig_atomic_t g_hup;
extern volatile sig_atomic_t g_usr1;
extern volatile sig_atomic_t g_goodbye;
extern volatile sig_atomic_t g_sigctx;
}

#endif
