// --exec: a program that is run for each event. A thread of its own starts the runs and waits for them, so
// that the loop never waits for an exec. Events of one group are run one after another, in their order.
#ifndef ZENTMON_HOOKS_H
#define ZENTMON_HOOKS_H

#include <cstdint>
#include <memory>
#include <string>

#include "counters.h"
#include "event.h"
#include "notices.h"
#include "worker.h"

namespace zentmon {

struct HookOptions {
    std::string path;          // of the program: no arguments, no shell
    size_t at_once = 4;        // runs at the same time
    size_t queue = 10'000;     // events that wait at most; what is beyond is dropped and counted
    int64_t limit_ms = 30'000; // of a run: then it is killed, with all that it started in its process group
};

class Hooks : public Sink {
  public:
    Hooks(HookOptions options, std::shared_ptr<Notices> notices);
    ~Hooks() override;

    // Starts the thread. 0, or -1 with a line.
    int start();

    void on_event(const Event& event) override;
    void publish_counters(Counters& counters) const;

    // Starts no more runs; kills those that do not end within limit_ms.
    void stop(int64_t limit_ms = 2000);

  private:
    struct Shared;
    class Runner;

    std::shared_ptr<Shared> shared_;
    std::shared_ptr<Notices> notices_;
    Worker worker_;
};

} // namespace zentmon

#endif
