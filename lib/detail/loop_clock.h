// The event loop's time, kept beside the clocks of timeop.cpp: time-outs read it there, and who measures one
// needs no loop. Defined in timeop.cpp, written by rqs.cpp, zero while no loop was set up.
#ifndef MORVANE_DETAIL_LOOP_CLOCK_H
#define MORVANE_DETAIL_LOOP_CLOCK_H

#include <ctime>

namespace mv {

extern struct timespec g_loop_now __asm__("mv_loop_now");

} // namespace mv

#endif
