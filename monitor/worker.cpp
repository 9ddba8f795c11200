// A thread that can be left behind.
#include "worker.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <system_error>
#include <thread>

#include "log.h"
#include "loop.h"
#include "notices.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

struct Worker::Life {
    Bell ended;
    std::thread thread;
};

Worker::Worker() = default;

Worker::~Worker()
{
    ASSERT(life_ == nullptr);
}

int Worker::start(const char* name, std::function<void()> body)
{
    std::shared_ptr<Life> life;
    int error = 0;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        life = std::make_shared<Life>();
        life->thread = std::thread([life, body = std::move(body)]() mutable {
            body();
            body = nullptr; // what it holds ends here, before the end is told
            life->ended.ring();
        });
    } catch (const std::system_error& failure) {
        error = failure.code().value();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) {
        log_err("%s: no thread: %s\n", name, strerror(error));
        errno = error;
        return -1;
    }
    pthread_setname_np(life->thread.native_handle(), name);
    life_ = life;
    return 0;
}

bool Worker::join_within(int64_t ms)
{
    if (life_ == nullptr) {
        return true;
    }
    const int64_t until = now().mono_ms + ms;
    struct pollfd bell = {life_->ended.fd(), POLLIN, 0};
    int rung;
    do {
        rung = poll(&bell, 1, static_cast<int>(std::max<int64_t>(until - now().mono_ms, 0)));
    } while (rung < 0 && errno == EINTR && now().mono_ms < until);
    if (rung == 1) {
        life_->thread.join();
    } else {
        life_->thread.detach();
    }
    life_ = nullptr;
    return rung == 1;
}

} // namespace zentmon
