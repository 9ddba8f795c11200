// Lines of events on standard output.
#include "output.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <unistd.h>
#include <utility>

#include "log.h"

namespace zentmon {

struct JsonOutput::Shared {
    explicit Shared(int descriptor) : fd(descriptor) {}

    const int fd;
    std::mutex mutex;
    std::condition_variable changed;
    std::string waiting; // whole lines
    bool stopping = false;
    bool closed = false; // the reader is gone
    uint64_t dropped = 0;
};

namespace {

// Lines that follow each other closely go out by one write, and wake this thread once.
constexpr useconds_t kGatherUs = 1000;

// Lines of a text that was not written, the broken one counted.
uint64_t lines_in(const std::string& text, size_t from)
{
    uint64_t lines = 0;
    for (size_t at = text.find('\n', from); at != std::string::npos; at = text.find('\n', at + 1)) {
        ++lines;
    }
    return lines;
}

// How much of the text went out: all of it, or less with errno.
size_t write_text(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EAGAIN) { // whoever shares the descriptor has made it so
            struct pollfd wait = {fd, POLLOUT, 0};
            poll(&wait, 1, -1);
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    return done;
}

// Writes lines, and tells when some are lost and when they go out again.
class Pen {
  public:
    Pen(int fd, Notices& notices) : fd_(fd), notices_(notices) {}

    // How many lines of the text are lost. A broken line gets its end before the next one.
    uint64_t write(std::string& text);

    bool reader_is_gone() const { return failure_ == EPIPE; }

  private:
    void tell(int failure);

    int fd_;
    Notices& notices_;
    int failure_ = 0;        // errno, while nothing goes out
    uint64_t lost_ = 0;      // lines, meanwhile
    bool is_broken_ = false; // the last line that went out
};

uint64_t Pen::write(std::string& text)
{
    const size_t start = is_broken_ ? 1 : 0;
    text.insert(0, start, '\n');
    const size_t done = write_text(fd_, text);
    const int failure = done < text.size() ? errno : 0;
    if (done > 0) {
        is_broken_ = text[done - 1] != '\n';
    }
    const uint64_t lost = lines_in(text, std::max(done, start));
    lost_ += lost;
    tell(failure);
    return lost;
}

// Once for each reason.
void Pen::tell(int failure)
{
    if (failure == std::exchange(failure_, failure)) {
        return;
    }
    if (failure == 0) {
        notices_.post(NORM_level, "json: lines go out again, %llu were lost",
                      static_cast<unsigned long long>(std::exchange(lost_, 0)));
    } else {
        notices_.post(WARN_level, "json: %s: %s",
                      reader_is_gone() ? "no more lines go out" : "lines are lost", strerror(failure));
    }
}

} // namespace

JsonOutput::JsonOutput(int fd, std::shared_ptr<Notices> notices)
    : shared_(std::make_shared<Shared>(fd)), notices_(std::move(notices))
{
}

JsonOutput::~JsonOutput()
{
    stop();
}

int JsonOutput::start()
{
    return worker_.start("zentmon-json",
                         [shared = shared_, notices = notices_] { write_all(*shared, *notices); });
}

void JsonOutput::on_event(const Event& event)
{
    line_.clear();
    append_json(line_, event);
    line_ += '\n';
    const std::lock_guard lock(shared_->mutex);
    if (shared_->closed || shared_->waiting.size() + line_.size() > kMaxWaiting) {
        ++shared_->dropped;
        return;
    }
    const bool was_empty = shared_->waiting.empty();
    shared_->waiting += line_;
    if (was_empty) {
        shared_->changed.notify_one();
    }
}

void JsonOutput::publish_counters(Counters& counters) const
{
    const std::lock_guard lock(shared_->mutex);
    counters.output_dropped[Output::json] = shared_->dropped;
}

void JsonOutput::stop(int64_t limit_ms)
{
    {
        const std::lock_guard lock(shared_->mutex);
        shared_->stopping = true;
        shared_->changed.notify_one();
    }
    worker_.join_within(limit_ms);
}

// Body of the thread.
void JsonOutput::write_all(Shared& shared, Notices& notices)
{
    Pen pen(shared.fd, notices);
    std::string text;
    std::unique_lock lock(shared.mutex);
    while (true) {
        shared.changed.wait(lock, [&shared] { return shared.stopping || !shared.waiting.empty(); });
        if (shared.waiting.empty()) {
            return;
        }
        lock.unlock();
        usleep(kGatherUs);
        lock.lock();
        text.clear();
        text.swap(shared.waiting);
        lock.unlock();
        const uint64_t lost = pen.write(text);
        lock.lock();
        shared.dropped += lost;
        if (pen.reader_is_gone()) {
            shared.closed = true;
            shared.dropped += lines_in(shared.waiting, 0);
            shared.waiting.clear();
        }
    }
}

} // namespace zentmon
