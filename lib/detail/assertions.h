// Plain assert(), active in every build: the library's behaviour includes its assertions.
#ifndef MORVANE_DETAIL_ASSERTIONS_H
#define MORVANE_DETAIL_ASSERTIONS_H

#ifdef NDEBUG
#error "assertions are part of the behaviour: build without NDEBUG"
#endif

#include <cassert>

#endif
