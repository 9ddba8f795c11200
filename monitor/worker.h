// A thread beside the loop, for what may wait: disk, a slow reader, a name look-up, the start of a program.
#ifndef ZENTMON_WORKER_H
#define ZENTMON_WORKER_H

#include <functional>
#include <memory>

namespace zentmon {

class Worker {
  public:
    Worker();
    ~Worker(); // REQUIRES: join_within was called where start was
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Runs body in a thread of that name (15 characters) with all signals blocked: they are the loop's. What
    // body uses must live as long as the thread may, since it may be left behind: hold it by shared_ptr. 0,
    // or -1 with errno and a line where the system gives no thread.
    int start(const char* name, std::function<void()> body);

    // Waits for the end of body. False where the time is over: the thread hangs in the kernel and is left
    // behind, to end with the process.
    bool join_within(int64_t ms);

  private:
    struct Life;
    std::shared_ptr<Life> life_;
};

} // namespace zentmon

#endif
