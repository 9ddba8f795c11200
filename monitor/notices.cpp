// The bell between threads, and the lines that the other threads have for the log.
#include "notices.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

#include "log.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

Bell::Bell() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (fd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

Bell::~Bell()
{
    close(fd_);
}

void Bell::ring() const
{
    const uint64_t one = 1;
    (void)!write(fd_, &one, sizeof one); // full is rung
}

void Bell::quiet() const
{
    uint64_t rings;
    (void)!read(fd_, &rings, sizeof rings);
}

int Notices::start()
{
    return watch_.start(bell_.fd(), this);
}

void Notices::stop()
{
    watch_.stop();
    drain();
}

// NOLINTNEXTLINE(cert-dcl50-cpp): the log's own form, whose arguments the compiler checks.
void Notices::post(int level, const char* fmt, ...)
{
    char text[1024];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    {
        const std::lock_guard lock(mutex_);
        if (waiting_.size() >= kMaxWaiting) {
            ++left_out_;
            return;
        }
        waiting_.push_back({level, text});
    }
    bell_.ring();
}

void Notices::on_readable()
{
    bell_.quiet();
    drain();
}

void Notices::drain()
{
    std::vector<Line> lines;
    uint64_t left_out = 0;
    {
        const std::lock_guard lock(mutex_);
        lines.swap(waiting_);
        std::swap(left_out, left_out_);
    }
    for (const Line& line : lines) {
        log_entry(line.level, "%s\n", line.text.c_str());
    }
    if (left_out > 0) {
        log_warn("%llu more lines were left out\n", static_cast<unsigned long long>(left_out));
    }
}

} // namespace zentmon
