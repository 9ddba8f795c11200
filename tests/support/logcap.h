// LogCapture: the lines that the library writes to g_log, as a test sees them.
#ifndef TESTS_SUPPORT_LOGCAP_H
#define TESTS_SUPPORT_LOGCAP_H

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "log.h"

namespace support {

// Takes over g_log for its lifetime: lines go to memory, without time and process id, so that a line reads
// "(ERR)  message\n". All modules are set to one level. Log and levels are put back at the end.
class LogCapture {
  public:
    explicit LogCapture(int level = NORM_level) : saved_(g_log)
    {
        for (int i = 0; i < LL_MAX_MODULES; ++i) {
            saved_levels_[i] = g_mod_ll[i];
        }
        set_level(level);
        g_log = {};
        g_log.time_format = f_NO_TIME;
        stream_ = open_memstream(&text_, &length_);
        log_default(&g_log, stream_);
    }

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    ~LogCapture()
    {
        g_log = saved_;
        for (int i = 0; i < LL_MAX_MODULES; ++i) {
            g_mod_ll[i] = saved_levels_[i];
        }
        fclose(stream_);
        free(text_);
    }

    // Sets all modules to a level, till the end.
    static void set_level(int level)
    {
        for (int& one : g_mod_ll) {
            one = level;
        }
    }

    // Everything written so far.
    std::string text()
    {
        fflush(stream_);
        return {text_ + start_, length_ - start_};
    }

    // The lines written so far, each with its tag and without its line end.
    std::vector<std::string> lines()
    {
        std::vector<std::string> result;
        std::string rest = text();
        while (!rest.empty()) {
            const size_t end = rest.find('\n');
            result.push_back(rest.substr(0, end));
            rest.erase(0, end == std::string::npos ? end : end + 1);
        }
        return result;
    }

    // Forgets what was written so far.
    void clear()
    {
        fflush(stream_);
        start_ = length_;
    }

  private:
    log_ctx saved_;
    int saved_levels_[LL_MAX_MODULES];
    char* text_ = nullptr;
    size_t length_ = 0;
    size_t start_ = 0;
    FILE* stream_ = nullptr;
};

} // namespace support

#endif
