// Lines for the log from the threads beside the loop: the log belongs to the loop's thread, so they are
// handed over to it.
#ifndef ZENTMON_NOTICES_H
#define ZENTMON_NOTICES_H

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "loop.h"
#include "mvtypes.h"

namespace zentmon {

// An eventfd: rung in one thread, heard in another. std::system_error where there is none to be had.
class Bell {
  public:
    Bell();
    ~Bell();
    Bell(const Bell&) = delete;
    Bell& operator=(const Bell&) = delete;

    void ring() const;  // any thread
    void quiet() const; // forgets the rings so far

    int fd() const { return fd_; }

  private:
    int fd_;
};

// The lines under way. post() serves any thread, also one that is left behind at the end (so it is shared);
// the rest belongs to the loop's.
class Notices : public Handler {
  public:
    // Lines that wait at most; what is beyond is counted, and the count told.
    static constexpr size_t kMaxWaiting = 1000;

    // Hears the bell from now on. 0, or -1 with a line.
    int start();
    void stop(); // writes what waits, and hears no more

    // A line of a level of log.h, without its line end.
    void post(int level, const char* fmt, ...) MV_PRINTF(3, 4);

    void on_readable() override;

    // Writes what waits to the log.
    void drain();

  private:
    struct Line {
        int level;
        std::string text;
    };

    Bell bell_;
    Watch watch_;
    std::mutex mutex_;
    std::vector<Line> waiting_;
    uint64_t left_out_ = 0;
};

} // namespace zentmon

#endif
