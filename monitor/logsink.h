// The way of a log line to its file or to standard error: through a ring of its own and a thread that writes,
// so that neither a full disk nor a slow reader holds up the thread that takes lines. What does not fit is
// dropped and counted.
#ifndef ZENTMON_LOGSINK_H
#define ZENTMON_LOGSINK_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "worker.h"

namespace zentmon {

class LogSink {
  public:
    // path: empty for standard error.
    explicit LogSink(std::string path);

    ~LogSink();
    LogSink(const LogSink&) = delete;
    LogSink& operator=(const LogSink&) = delete;

    // Opens the file and makes the log go here: 0, or -1 with errno.
    int start();

    // Writes what is left, for at most a second, and ends the thread. False where the thread is stuck: nobody
    // reads the log. The object must then live as long as the process.
    bool stop();

    // Opens the path again: another file may stand there since (logrotate). The old one is kept where that
    // fails.
    void reopen();

    uint64_t dropped() const { return dropped_; }

    // Of the stream: takes a piece of text.
    void put(const char* text, size_t length);

  private:
    void work();
    int open_file() const;
    void close_file();
    int start_stream();

    std::string path_;
    std::atomic<int> fd_{-1};
    FILE* stream_ = nullptr;
    std::mutex mutex_;
    std::condition_variable fresh_;
    std::string ring_; // what is not written yet
    bool ends_ = false;
    std::atomic<bool> reopen_{false};
    std::atomic<uint64_t> dropped_{0};
    Worker worker_;
};

} // namespace zentmon

#endif
