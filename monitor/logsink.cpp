// The thread that writes the log.
#include "logsink.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "log.h"

namespace zentmon {

namespace {

constexpr size_t kRing = size_t{1} << 18; // bytes that wait
constexpr int64_t kLastWordsMs = 1000;    // for what is left at the end

// All of a text, as far as the file takes it.
void write_all(int fd, const std::string& text)
{
    for (size_t at = 0; at < text.size();) {
        const ssize_t done = write(fd, text.data() + at, text.size() - at);
        if (done > 0) {
            at += static_cast<size_t>(done);
        } else if (done < 0 && errno == EAGAIN) {
            usleep(10'000); // somebody made it non-blocking
        } else if (done < 0 && errno != EINTR) {
            return;
        }
    }
}

} // namespace

LogSink::LogSink(std::string path) : path_(std::move(path)) {}

int LogSink::open_file() const
{
    return path_.empty() ? STDERR_FILENO
                         : open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
}

void LogSink::close_file()
{
    if (!path_.empty()) {
        close(fd_);
    }
}

int LogSink::start()
{
    fd_ = open_file();
    if (fd_ < 0) {
        return -1;
    }
    const int error = start_stream();
    if (error != 0) {
        close_file();
        errno = error;
        return -1;
    }
    log_default(&g_log, stream_);
    return 0;
}

// 0 or an errno number.
int LogSink::start_stream()
{
    cookie_io_functions_t calls = {};
    calls.write = [](void* sink, const char* text, size_t length) {
        static_cast<LogSink*>(sink)->put(text, length);
        return static_cast<ssize_t>(length);
    };
    stream_ = fopencookie(this, "w", calls);
    if (stream_ == nullptr) {
        return errno;
    }
    setvbuf(stream_, nullptr, _IOLBF, 4096);
    if (worker_.start("zentmon-log", [this] { work(); }) != 0) {
        const int error = errno;
        fclose(std::exchange(stream_, nullptr));
        return error;
    }
    return 0;
}

LogSink::~LogSink()
{
    stop();
}

bool LogSink::stop()
{
    if (stream_ == nullptr) {
        return true;
    }
    log_default(&g_log, stderr);
    fclose(stream_);
    stream_ = nullptr;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ends_ = true;
        fresh_.notify_one();
    }
    if (!worker_.join_within(kLastWordsMs)) {
        return false;
    }
    close_file();
    return true;
}

void LogSink::reopen()
{
    reopen_ = !path_.empty();
}

void LogSink::put(const char* text, size_t length)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ring_.size() + length > kRing) {
        ++dropped_;
        return;
    }
    ring_.append(text, length);
    fresh_.notify_one();
}

void LogSink::work()
{
    std::string piece;
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        fresh_.wait(lock, [this] { return !ring_.empty() || ends_; });
        if (ring_.empty()) {
            return;
        }
        piece.clear();
        piece.swap(ring_);
        lock.unlock();
        if (reopen_.exchange(false)) {
            const int fresh = open_file();
            if (fresh >= 0) {
                close(fd_.exchange(fresh));
            }
        }
        write_all(fd_, piece);
        lock.lock();
    }
}

} // namespace zentmon
