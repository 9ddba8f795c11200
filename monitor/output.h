// --json: each event as a line on standard output. A thread of its own writes, since a reader may not read:
// that costs lines, which are counted, and no time of the loop.
#ifndef ZENTMON_OUTPUT_H
#define ZENTMON_OUTPUT_H

#include <cstdint>
#include <memory>

#include "counters.h"
#include "event.h"
#include "notices.h"
#include "worker.h"

namespace zentmon {

class JsonOutput : public Sink {
  public:
    // Bytes of lines that wait for the reader at most.
    static constexpr size_t kMaxWaiting = 8u << 20;

    // Writes to fd, which is borrowed and stays as it is. REQUIRES: SIGPIPE is ignored.
    JsonOutput(int fd, std::shared_ptr<Notices> notices);
    ~JsonOutput() override;

    // Starts the thread. 0, or -1 with a line.
    int start();

    void on_event(const Event& event) override;
    void publish_counters(Counters& counters) const;

    // Writes what waits, for at most limit_ms, and ends.
    void stop(int64_t limit_ms = 1000);

  private:
    struct Shared;
    static void write_all(Shared& shared, Notices& notices);

    std::shared_ptr<Shared> shared_;
    std::shared_ptr<Notices> notices_;
    Worker worker_;
    std::string line_; // kept for its memory
};

} // namespace zentmon

#endif
