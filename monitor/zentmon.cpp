// main(), and what the application owes the library.
#include <csignal>

#include "loop.h"

extern "C" {
volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_sigctx = 0;
volatile sig_atomic_t g_goodbye = 0;
}

int main()
{
    return zentmon::Loop::init() == 0 ? 0 : 71;
}
