// A thread that can be left behind.
#include "worker.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <pthread.h>
#include <thread>

#include "log.h"

DECLARE_MLL(MLL_COMMON);

namespace zentmon {

struct Worker::Life {
    std::mutex mutex;
    std::condition_variable ended_changed;
    bool ended = false;
    std::thread thread;
};

Worker::Worker() = default;

Worker::~Worker()
{
    ASSERT(life_ == nullptr);
}

void Worker::start(const char* name, std::function<void()> body)
{
    life_ = std::make_shared<Life>();
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    life_->thread = std::thread([life = life_, body = std::move(body)]() mutable {
        body();
        body = nullptr; // what it holds ends here, before the end is told
        const std::lock_guard lock(life->mutex);
        life->ended = true;
        life->ended_changed.notify_all();
    });
    pthread_setname_np(life_->thread.native_handle(), name);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

bool Worker::join_within(int64_t ms)
{
    if (life_ == nullptr) {
        return true;
    }
    bool ended;
    {
        std::unique_lock lock(life_->mutex);
        const auto limit = std::chrono::system_clock::now() + std::chrono::milliseconds(ms);
        ended = life_->ended_changed.wait_until(lock, limit, [this] { return life_->ended; });
    }
    if (ended) {
        life_->thread.join();
    } else {
        life_->thread.detach();
    }
    life_ = nullptr;
    return ended;
}

} // namespace zentmon
