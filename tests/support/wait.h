// Waiting for a condition with a generous limit: no test depends on how fast the machine is.
#ifndef TESTS_SUPPORT_WAIT_H
#define TESTS_SUPPORT_WAIT_H

#include <chrono>
#include <ctime>

namespace support {

inline constexpr std::chrono::seconds kLimit{240};

// Asks until the condition holds; false when the limit has passed.
template <class Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit = kLimit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        const timespec pause{0, 2'000'000};
        nanosleep(&pause, nullptr);
    }
    return true;
}

} // namespace support

#endif
