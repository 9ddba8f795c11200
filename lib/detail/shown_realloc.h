// The checked realloc for a caller that adds room of its own to what it was asked for. Defined in
// syswrap.cpp.
#ifndef MORVANE_DETAIL_SHOWN_REALLOC_H
#define MORVANE_DETAIL_SHOWN_REALLOC_H

#include <cstddef>

namespace mv {

// W_realloc of size bytes, whose line shows the size that the caller's own caller knows.
void* shown_realloc(const char* caller, void* ptr, size_t size,
                    size_t shown_size) __asm__("mv_shown_realloc");

} // namespace mv

#endif
