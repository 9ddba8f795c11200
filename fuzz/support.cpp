// What every application owes the library: the flags its loops and handlers read.
#include <csignal>

extern "C" {
volatile sig_atomic_t g_quit __attribute__((visibility("default"))) = 0;
volatile sig_atomic_t g_hup __attribute__((visibility("default"))) = 0;
volatile sig_atomic_t g_usr1 __attribute__((visibility("default"))) = 0;
volatile sig_atomic_t g_sigctx __attribute__((visibility("default"))) = 0;
volatile sig_atomic_t g_goodbye __attribute__((visibility("default"))) = 0;
}
