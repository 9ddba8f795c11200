// The flags that an application defines for the library.
#ifndef TESTS_SUPPORT_APP_FLAGS_H
#define TESTS_SUPPORT_APP_FLAGS_H

#include <csignal>

#pragma GCC visibility push(default)
extern "C" {
extern volatile sig_atomic_t g_quit;
extern volatile sig_atomic_t g_hup;
extern volatile sig_atomic_t g_usr1;
extern volatile sig_atomic_t g_sigctx;
extern volatile sig_atomic_t g_goodbye;
}
#pragma GCC visibility pop

#endif
