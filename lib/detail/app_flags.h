// The application's flags, as each source that reads or sets one has them: a weak definition, so that a
// program need not define any, and its own definition wins where it does. log.h and util.h declare them for
// everybody else. Not all in one source, which everything that reads a flag would then be linked with.
#ifndef MORVANE_DETAIL_APP_FLAGS_H
#define MORVANE_DETAIL_APP_FLAGS_H

#include <csignal>

// Visible by itself: a source need not include the header that declares the flag.
#define MV_APP_FLAG(name)                                                                                    \
    extern "C" {                                                                                             \
    [[gnu::weak, gnu::visibility("default")]] volatile sig_atomic_t name = 0;                                \
    }                                                                                                        \
    static_assert(true)

#endif
