// Lines of events on standard output.
#include "output.h"

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
        const size_t done = write_text(shared.fd, text);
        const int failure = errno;
        if (done < text.size()) {
            notices.post(WARN_level, "json: no more lines go out: %s", strerror(failure));
        }
        lock.lock();
        if (done < text.size()) {
            shared.closed = true;
            shared.dropped += lines_in(text, done) + lines_in(shared.waiting, 0);
            shared.waiting.clear();
        }
    }
}

} // namespace zentmon
