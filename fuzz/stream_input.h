// What the fuzz targets of the stream modules share: an input that is consumed from its front, blocks of
// exact size, and a log that formats every line and shows none.
#ifndef FUZZ_STREAM_INPUT_H
#define FUZZ_STREAM_INPUT_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "log.h"

namespace fuzz {

class Input {
  public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    size_t left() const { return size_; }

    // The next number of that type; zeros follow the end.
    template <class T>
    T take()
    {
        T value = {};
        const size_t n = std::min(sizeof(T), size_);
        if (n > 0) {
            memcpy(&value, data_, n);
        }
        data_ += n;
        size_ -= n;
        return value;
    }

    // The next n bytes, at most what is left, in a heap block of their number.
    std::unique_ptr<uint8_t[]> block(size_t& n)
    {
        n = std::min(n, size_);
        auto result = std::make_unique<uint8_t[]>(n);
        if (n > 0) {
            memcpy(result.get(), data_, n);
        }
        data_ += n;
        size_ -= n;
        return result;
    }

    std::unique_ptr<uint8_t[]> rest(size_t& n)
    {
        n = size_;
        return block(n);
    }

  private:
    const uint8_t* data_;
    size_t size_;
};

// Sends the lines of all levels, or none, to nowhere.
inline void hide_log(bool format_all)
{
    static FILE* nowhere = fopen("/dev/null", "w");
    log_default(&g_log, nowhere);
    log_timefmt(&g_log, f_NO_TIME);
    log_set_modules(&g_log, format_all ? DEBUG_level : PANIC_level);
}

// A statement about the code under test that does not hold is a crash.
inline void demand(bool holds)
{
    if (!holds) {
        __builtin_trap();
    }
}

} // namespace fuzz

#endif
