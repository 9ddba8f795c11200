#include "log.h"
#include <csignal>
extern "C" {
__attribute__((visibility("default"))) volatile sig_atomic_t g_sigctx = 0;
}

int main() {}
