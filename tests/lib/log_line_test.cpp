// The line: layout, limits, destinations, and what a signal handler may do in between.
#include "log.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "fds.h"
#include "match.h"
#include "oom.h"
#include "tempdir.h"
#include "timeop.h"
#include "util.h"
#include "wrap.h"

namespace {

struct timespec g_clock = {0, 0}; // what the clock says; 0: the real time
clockid_t g_clock_asked = -1;
int g_clock_error = 0;
int g_backtrace_count = -1; // -1: the real one
int g_backtrace_errno = 0;
bool g_no_symbols = false;
void (*g_in_format)() = nullptr;    // runs once, when the next message has just been formatted
void (*g_in_localtime)() = nullptr; // runs once, inside the next localtime_r

void run_once(void (*&what)())
{
    if (what != nullptr) {
        void (*const now)() = what;
        what = nullptr;
        now();
    }
}

} // namespace

WRAPPED(int, clock_gettime, (clockid_t clk, struct timespec* tms));
WRAPPED(int, vsnprintf, (char* buf, size_t size, const char* fmt, va_list args));
WRAPPED(int, __vsnprintf_chk, (char* buf, size_t size, int flag, size_t room, const char* fmt, va_list args));
WRAPPED(int, backtrace, (void** frames, int size));
WRAPPED(char**, backtrace_symbols, (void* const* frames, int size));
WRAPPED(struct tm*, localtime_r, (const time_t* time, struct tm* parts));

extern "C" {
int __wrap_clock_gettime(clockid_t clk, struct timespec* tms)
{
    g_clock_asked = clk;
    if (g_clock_error != 0) {
        errno = g_clock_error;
        return -1;
    }
    if (g_clock.tv_sec == 0) {
        return __real_clock_gettime(clk, tms);
    }
    *tms = g_clock;
    return 0;
}

int __wrap_vsnprintf(char* buf, size_t size, const char* fmt, va_list args)
{
    const int n = __real_vsnprintf(buf, size, fmt, args);
    run_once(g_in_format);
    return n;
}

int __wrap___vsnprintf_chk(char* buf, size_t size, int flag, size_t room, const char* fmt, va_list args)
{
    const int n = __real___vsnprintf_chk(buf, size, flag, room, fmt, args);
    run_once(g_in_format);
    return n;
}

int __wrap_backtrace(void** frames, int size)
{
    if (g_backtrace_count >= 0) {
        errno = g_backtrace_errno;
        return g_backtrace_count;
    }
    return __real_backtrace(frames, size);
}

char** __wrap_backtrace_symbols(void* const* frames, int size)
{
    if (g_no_symbols) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_backtrace_symbols(frames, size);
}

struct tm* __wrap_localtime_r(const time_t* time, struct tm* parts)
{
    run_once(g_in_localtime);
    return __real_localtime_r(time, parts);
}
}

namespace {

using support::expect_abort;
using support::FdGuard;
using support::run_in_child;

// A log on a file of its own.
class FileLog {
  public:
    FileLog() : file_(tmpfile())
    {
        setvbuf(file_, nullptr, _IONBF, 0);
        log.time_format = f_NO_TIME;
        log_default(&log, file_);
    }

    FileLog(const FileLog&) = delete;
    FileLog& operator=(const FileLog&) = delete;

    ~FileLog() { fclose(file_); }

    std::string text()
    {
        const auto length = static_cast<size_t>(lseek(fileno(file_), 0, SEEK_END));
        std::string result(length, 0);
        EXPECT_EQ(pread(fileno(file_), result.data(), length, 0), static_cast<ssize_t>(length));
        return result;
    }

    void clear()
    {
        EXPECT_EQ(ftruncate(fileno(file_), 0), 0);
        rewind(file_);
        log.total_out = 0;
    }

    struct log_ctx log = ZERO_LOG;

  private:
    FILE* file_;
};

class Stderr {
  public:
    Stderr() { testing::internal::CaptureStderr(); }

    std::string text()
    {
        fflush(stderr);
        return testing::internal::GetCapturedStderr();
    }
};

uint64_t group_of(const char* text)
{
    union n64_tag tag = {};
    strncpy(tag.sym8, text, 7);
    return tag.num64;
}

// 2023-11-14 22:13:20.123456 UTC, in the zone of the test.
void stop_clock()
{
    setenv("TZ", "XYZ-1", 1);
    tzset();
    g_clock = {1700000000, 123456789};
}

} // namespace

// ---- layout ------------------------------------------------------------------------------------

TEST(LogLine, closed_log_drops_the_line)
{
    struct log_ctx log = ZERO_LOG;
    Stderr err;
    log_write(&log, ERR_level, "lost\n");
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(log.total_out, 0U);
}

TEST(LogLine, time_pid_tag_group_and_message_stand_in_this_order)
{
    stop_clock();
    FileLog file;
    log_timefmt(&file.log, 0);
    log_set_pid(&file.log, 4711);
    log_set_group(&file.log, group_of("grp"));
    log_write(&file.log, INFO_level, "%s [%d]\n", "message", 5);
    const std::string line = "2023-11-14 23:13:20.123456 XYZ 4711  (INF)  grp  message [5]\n";
    EXPECT_EQ(file.text(), line);
    EXPECT_EQ(file.log.total_out, line.size());
    log_write(&file.log, INFO_level, "no line end");
    EXPECT_EQ(file.text(), line + "2023-11-14 23:13:20.123456 XYZ 4711  (INF)  grp  no line end");
    EXPECT_EQ(file.log.total_out, file.text().size());
}

TEST(LogLine, each_field_is_optional)
{
    stop_clock();
    FileLog file;
    const auto line = [&](uint32_t flags, pid_t pid, int level, const char* group) {
        file.clear();
        log_timefmt(&file.log, flags);
        log_set_pid(&file.log, pid);
        log_set_group(&file.log, group_of(group));
        log_write(&file.log, level, "m\n");
        return file.text();
    };
    EXPECT_EQ(line(f_NO_TIME, 0, MIN_level, ""), "m\n");
    EXPECT_EQ(line(f_NO_TIME, 4711, MIN_level, ""), "m\n") << "no time: no process id either";
    EXPECT_EQ(line(f_NO_TIME, 0, WARN_level, ""), "(WRN)  m\n");
    EXPECT_EQ(line(f_NO_TIME, 0, MIN_level, "seventh"), "seventh  m\n");
    EXPECT_EQ(line(f_FMT_SECONDS, 0, MIN_level, ""), "2023-11-14 23:13:20 XYZ m\n");
    EXPECT_EQ(line(f_FMT_SECONDS, -5, MIN_level, ""), "2023-11-14 23:13:20 XYZ m\n");
    EXPECT_EQ(line(f_FMT_SECONDS, 1, MIN_level, ""), "2023-11-14 23:13:20 XYZ 1  m\n");
    EXPECT_EQ(line(f_FMT_SECONDS, 2147483647, MIN_level, ""), "2023-11-14 23:13:20 XYZ 2147483647  m\n");
    EXPECT_EQ(line(f_RAW_TIME, 0, NORM_level, "g"), "1700000000.123456 (NRM)  g  m\n");
    EXPECT_EQ(line(f_RAW_TIME | f_FMT_SECONDS, 0, NORM_level, ""), "1700000000.123456 (NRM)  m\n");
}

TEST(LogLine, kept_gmt_time_is_followed_by_the_local_zones_name)
{
    stop_clock();
    FileLog file;
    log_timefmt(&file.log, f_GMT_TIME);
    log_write(&file.log, NORM_level, "m\n");
    EXPECT_EQ(file.text(), "2023-11-14 22:13:20.123456 XYZ (NRM)  m\n");
}

TEST(LogLine, clock_is_chosen_by_the_flags)
{
    FileLog file;
    log_timefmt(&file.log, f_RAW_TIME);
    log_write(&file.log, NORM_level, "m\n");
    EXPECT_EQ(g_clock_asked, CLOCK_REALTIME);
    log_timefmt(&file.log, f_RAW_TIME | f_MONOTONIC_TIMER);
    log_write(&file.log, NORM_level, "m\n");
    EXPECT_EQ(g_clock_asked, CLOCK_MONOTONIC);
}

TEST(LogLine, clocks_two_and_three_lose_each_line_with_a_complaint)
{
    FileLog file;
    for (const uint32_t bits : {2U, 3U}) {
        log_timefmt(&file.log, bits);
        Stderr err;
        log_write(&file.log, ERR_level, "m\n");
        log_write(&file.log, ERR_level, "m\n");
        const std::string one = "flags2clock: unsupported timer value: " + std::to_string(bits) + "\n";
        EXPECT_EQ(err.text(), one + one);
    }
    EXPECT_EQ(file.text(), "");
    log_timefmt(&file.log, f_NO_TIME | 3);
    log_write(&file.log, MIN_level, "m\n");
    EXPECT_EQ(file.text(), "m\n") << "no clock is asked without a time";
}

TEST(LogLine, clock_that_fails_loses_the_line)
{
    FileLog file;
    log_timefmt(&file.log, 0);
    g_clock_error = EINVAL;
    Stderr err;
    log_write(&file.log, ERR_level, "m\n");
    EXPECT_EQ(err.text(), "clock_gettime: Invalid argument\n");
    g_clock_error = 0;
    EXPECT_EQ(file.text(), "");
    EXPECT_EQ(file.log.total_out, 0U);
}

TEST(LogLine, time_that_cannot_be_broken_down_loses_the_line)
{
    FileLog file;
    log_timefmt(&file.log, 0);
    g_clock = {INT64_MAX, 0};
    Stderr err;
    log_write(&file.log, ERR_level, "m\n");
    EXPECT_EQ(err.text(), "gmtime_r/localtime_r: Value too large for defined data type\n"
                          "log_write: time buffer error (n=-1)\n");
    EXPECT_EQ(file.text(), "");
}

TEST(LogLine, group_of_eight_characters_aborts)
{
    expect_abort("Assertion `log->group.sym8[7] == 0' failed.", [] {
        FileLog file;
        union n64_tag tag = {};
        memcpy(tag.sym8, "eightchr", 8);
        log_set_group(&file.log, tag.num64);
        log_write(&file.log, NORM_level, "m\n");
    });
}

TEST(LogLine, group_that_opens_with_a_zero_byte_is_an_empty_field)
{
    FileLog file;
    union n64_tag tag = {};
    tag.sym8[3] = 'x';
    log_set_group(&file.log, tag.num64);
    log_write(&file.log, MIN_level, "m\n");
    EXPECT_EQ(file.text(), "  m\n");
}

TEST(LogLine, access_and_statistics_have_no_tag_and_no_gate)
{
    FileLog access;
    FileLog stats;
    g_access_log = access.log;
    g_stats_log = stats.log;
    log_set_modules(&g_log, -5);
    log_access("a %d\n", 1);
    log_stats("s %d\n", 2);
    EXPECT_EQ(access.text(), "a 1\n");
    EXPECT_EQ(stats.text(), "s 2\n");
}

TEST(LogLine, accessors_return_what_was_set)
{
    struct log_ctx log = ZERO_LOG;
    EXPECT_EQ(log_fp(&log), nullptr);
    EXPECT_EQ(log_mirror_fp(&log), nullptr);
    log_default(&log, stdout);
    log_mirror(&log, stderr);
    log_set_pid(&log, 12);
    log_set_group(&log, 34);
    log_timefmt(&log, f_RAW_TIME);
    EXPECT_EQ(log_fp(&log), stdout);
    EXPECT_EQ(log_mirror_fp(&log), stderr);
    EXPECT_EQ(log_get_pid(&log), 12);
    EXPECT_EQ(log_get_group(&log), 34U);
    EXPECT_EQ(log.time_format, static_cast<uint32_t>(f_RAW_TIME));
    EXPECT_STREQ(log.name, "");
    log_mirror(&log, nullptr);
    EXPECT_EQ(log_mirror_fp(&log), nullptr);
}

// ---- limits ------------------------------------------------------------------------------------

TEST(LogLimits, line_of_2046_characters_is_written_and_longer_ones_are_dropped_with_every_header)
{
    stop_clock();
    FileLog file;
    const uint32_t times[] = {f_NO_TIME, 0, f_FMT_SECONDS, f_RAW_TIME, f_GMT_TIME};
    for (const uint32_t time : times) {
        for (const pid_t pid : {0, 7, 4194304}) {
            for (const int level : {int{MIN_level}, int{ERR_level}, 33}) {
                for (const char* group : {"", "g", "seventh"}) {
                    log_timefmt(&file.log, time);
                    log_set_pid(&file.log, pid);
                    log_set_group(&file.log, group_of(group));
                    file.clear();
                    log_write(&file.log, level, "x");
                    const std::string header = file.text().substr(0, file.text().size() - 1);
                    for (const size_t total : {size_t{2046}, size_t{2047}, size_t{2048}, size_t{4000}}) {
                        file.clear();
                        const std::string message(total - header.size(), 'm');
                        Stderr err;
                        log_write(&file.log, level, "%s", message.c_str());
                        const std::string complaint = err.text();
                        if (total == 2046) {
                            EXPECT_EQ(file.text(), header + message);
                            EXPECT_EQ(complaint, "");
                            EXPECT_EQ(file.log.total_out, total);
                        } else {
                            EXPECT_EQ(file.text(), "") << total;
                            EXPECT_EQ(complaint.rfind("fprintf/vfprintf: ", 0), 0U) << complaint;
                            EXPECT_EQ(file.log.total_out, 0U);
                        }
                    }
                }
            }
        }
    }
}

TEST(LogLimits, messages_of_2046_2047_and_2048_characters_behind_a_header_are_dropped)
{
    FileLog file;
    for (const size_t length : {size_t{2046}, size_t{2047}, size_t{2048}}) {
        Stderr err;
        log_write(&file.log, ERR_level, "%s", std::string(length, 'm').c_str());
        EXPECT_EQ(err.text().rfind("fprintf/vfprintf: ", 0), 0U);
    }
    EXPECT_EQ(file.text(), "");
}

TEST(LogLimits, empty_message_is_dropped_with_every_header)
{
    stop_clock();
    FileLog file;
    const char* empty = "";
    for (const uint32_t time : {uint32_t{f_NO_TIME}, 0U, uint32_t{f_RAW_TIME}}) {
        for (const int level : {int{MIN_level}, int{ERR_level}}) {
            for (const char* group : {"", "g"}) {
                log_timefmt(&file.log, time);
                log_set_group(&file.log, group_of(group));
                Stderr err;
                log_write(&file.log, level, "%s", empty);
                EXPECT_EQ(err.text().rfind("fprintf/vfprintf: ", 0), 0U);
            }
        }
    }
    EXPECT_EQ(file.text(), "");
    EXPECT_EQ(file.log.total_out, 0U);
}

TEST(LogLimits, line_after_a_dropped_one_is_whole)
{
    FileLog file;
    Stderr err;
    log_write(&file.log, ERR_level, "%s", std::string(3000, 'm').c_str());
    log_write(&file.log, ERR_level, "short\n");
    EXPECT_FALSE(err.text().empty());
    EXPECT_EQ(file.text(), "(ERR)  short\n");
}

TEST(LogLimits, kept_zero_byte_in_a_message_ends_what_is_written_but_not_what_is_counted)
{
    FileLog file;
    log_write(&file.log, ERR_level, "ab%ccd\n", 0);
    EXPECT_EQ(file.text(), "(ERR)  ab");
    EXPECT_EQ(file.log.total_out, 13U);
}

TEST(LogLimits, full_disk_goes_unnoticed_and_is_counted)
{
    const FdGuard guard;
    FILE* full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    setvbuf(full, nullptr, _IONBF, 0);
    struct log_ctx log = ZERO_LOG;
    log.time_format = f_NO_TIME;
    log_default(&log, full);
    Stderr err;
    log_write(&log, ERR_level, "lost\n");
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(log.total_out, 12U);
    fclose(full);
}

TEST(LogLimits, a_line_allocates_nothing)
{
    stop_clock();
    FileLog file;
    log_timefmt(&file.log, 0);
    log_set_pid(&file.log, 12);
    log_write(&file.log, ERR_level, "first %d\n", 1);
    const size_t before = support::allocation_count();
    log_write(&file.log, ERR_level, "second %s %d\n", "text", 2);
    EXPECT_EQ(support::allocation_count(), before);
}

namespace {

// The line by libc alone beside the one of the log.
template <class... Args>
void expect_as_printf(const char* fmt, Args... args)
{
    using Print = int (*)(char*, size_t, const char*, ...); // without the check of the format
    using Write = void (*)(struct log_ctx*, int, const char*, ...);
    const Print print = snprintf;
    const Write write = log_write;
    char expected[4096];
    print(expected, sizeof expected, fmt, args...);
    FileLog file;
    write(&file.log, MIN_level, fmt, args...);
    EXPECT_EQ(file.text(), expected) << fmt;
    EXPECT_EQ(file.log.total_out, strlen(expected)) << fmt;
}

} // namespace

TEST(LogMessage, is_formatted_as_by_printf)
{
    expect_as_printf("plain");
    expect_as_printf("%s", "text");
    expect_as_printf("%s%s|%s\n", "", "a", "b");
    expect_as_printf("[%s]\n", static_cast<const char*>(nullptr));
    for (const int number : {0, 1, -1, 9, 10, 99, 100, 2147483647, -2147483647 - 1}) {
        expect_as_printf("%d %u %s\n", number, static_cast<unsigned>(number), "end");
        expect_as_printf("%i %x %5d %-5d| %05d %+d % d\n", number, static_cast<unsigned>(number), number,
                         number, number, number, number);
    }
    for (const long number : {0L, -1L, 1234567890123L, INT64_MAX, INT64_MIN}) {
        expect_as_printf("%ld %lu %s\n", number, static_cast<unsigned long>(number), "end");
        expect_as_printf("%lx %20ld %lld %zu %s\n", static_cast<unsigned long>(number), number,
                         static_cast<long long>(number), static_cast<size_t>(number), "end");
    }
    expect_as_printf("100%% %d %%%s%%\n", 5, "x");
    expect_as_printf("%d %s %c %p\n", 5, "x", 'y', nullptr);
    expect_as_printf("%s %5s %-5s| %.2s %s\n", "first", "a", "b", "cut", "last");
    expect_as_printf("%d %f %.3e %s\n", 1, 2.5, 3.25, "last");
    expect_as_printf("%d %*d %hhd %hd %s\n", 1, 5, 2, 300, 70000, "last");
    expect_as_printf("%lu%ld%u%d%s", 1UL, -2L, 3U, -4, "5");
    expect_as_printf("%ls|%lc\n", L"wide", L'w');
}

TEST(LogMessage, limit_is_the_same_for_each_conversion_that_ends_it)
{
    const std::string filler(2046 - 10, 'f');
    FileLog file;
    const auto written = [&](auto... args) {
        file.clear();
        Stderr err;
        using Write = void (*)(struct log_ctx*, int, const char*, ...);
        const Write write = log_write;
        write(&file.log, MIN_level, args...);
        EXPECT_EQ(err.text().empty(), !file.text().empty());
        return file.text().size();
    };
    EXPECT_EQ(written("%s%d", filler.c_str(), 1234567890), 2046U);
    EXPECT_EQ(written("%s%d", filler.c_str(), -1234567890), 0U);
    EXPECT_EQ(written("%s%lu", filler.c_str(), 1234567890UL), 2046U);
    EXPECT_EQ(written("%s%lu", filler.c_str(), 12345678901UL), 0U);
    EXPECT_EQ(written("%s%s", filler.c_str(), "1234567890"), 2046U);
    EXPECT_EQ(written("%s%s", filler.c_str(), "12345678901"), 0U);
    EXPECT_EQ(written("%s1234567890", filler.c_str()), 2046U);
    EXPECT_EQ(written("%s12345678901", filler.c_str()), 0U);
    EXPECT_EQ(written("%s%10d", filler.c_str(), 1), 2046U);
    EXPECT_EQ(written("%s%11d", filler.c_str(), 1), 0U);
    EXPECT_EQ(written("%s1234%s", filler.c_str(), static_cast<const char*>(nullptr)), 2046U);
}

// ---- mirror and hook ---------------------------------------------------------------------------

TEST(LogMirror, stream_on_another_descriptor_gets_the_same_line)
{
    const FdGuard guard;
    const support::TempDir dir;
    FILE* file = fopen(dir.path("log").c_str(), "w");
    setvbuf(file, nullptr, _IONBF, 0);
    FILE* copy = fdopen(dup(fileno(file)), "w");
    FILE* other = fopen(dir.path("other").c_str(), "w");
    struct log_ctx log = ZERO_LOG;
    log.time_format = f_NO_TIME;
    log_default(&log, file);
    log_mirror(&log, file);
    log_write(&log, ERR_level, "same stream\n");
    FILE* twin = fdopen(fileno(file), "w");
    log_mirror(&log, twin);
    log_write(&log, ERR_level, "same descriptor\n");
    log_mirror(&log, copy);
    log_write(&log, ERR_level, "dup\n");
    log_mirror(&log, other);
    log_write(&log, DEBUG_level, "other\n");
    EXPECT_EQ(dir.read("log"),
              "(ERR)  same stream\n(ERR)  same descriptor\n(ERR)  dup\n(ERR)  dup\n(DBG)  other\n");
    EXPECT_EQ(dir.read("other"), "(DBG)  other\n") << "by line, without a flush";
    EXPECT_EQ(log.total_out, 19U + 23U + 11U + 13U) << "the mirror is not counted";
    fclose(file);
    fclose(twin); // its descriptor is closed already
    fclose(copy);
    fclose(other);
}

namespace {

struct Seen {
    std::vector<std::string> lines;
    struct log_ctx* again = nullptr; // where the hook logs a line of its own
};

void note_line(void* udata, const char* line)
{
    auto* seen = static_cast<Seen*>(udata);
    seen->lines.emplace_back(line);
    if (seen->again != nullptr) {
        struct log_ctx* log = std::exchange(seen->again, nullptr);
        log_write(log, NORM_level, "from the hook\n");
    }
}

} // namespace

TEST(LogHook, gets_whole_lines_up_to_info)
{
    FileLog file;
    Seen seen;
    log_set_hook(&file.log, &seen, note_line);
    log_set_group(&file.log, group_of("g"));
    for (const int level :
         {int{MIN_level}, int{ERR_level}, int{INFO_level}, int{DEBUG_level}, int{SECTION_level}}) {
        log_write(&file.log, level, "level %d\n", level);
    }
    EXPECT_EQ(seen.lines,
              (std::vector<std::string>{"g  level -127\n", "(ERR)  g  level -3\n", "(INF)  g  level 1\n"}));
    log_set_hook(&file.log, nullptr, nullptr);
    log_write(&file.log, ERR_level, "unhooked\n");
    EXPECT_EQ(seen.lines.size(), 3U);
}

TEST(LogHook, may_log_itself)
{
    FileLog file;
    Seen seen;
    seen.again = &file.log;
    log_set_hook(&file.log, &seen, note_line);
    log_write(&file.log, NORM_level, "outer\n");
    EXPECT_EQ(file.text(), "(NRM)  outer\n(NRM)  from the hook\n");
    EXPECT_EQ(seen.lines, (std::vector<std::string>{"(NRM)  outer\n", "(NRM)  from the hook\n"}));
}

TEST(LogHook, dropped_line_does_not_reach_it)
{
    FileLog file;
    Seen seen;
    log_set_hook(&file.log, &seen, note_line);
    Stderr err;
    log_write(&file.log, ERR_level, "%s", std::string(3000, 'm').c_str());
    EXPECT_FALSE(err.text().empty());
    EXPECT_TRUE(seen.lines.empty());
}

// ---- signal handlers ---------------------------------------------------------------------------

namespace {

struct log_ctx* g_handler_log = nullptr;
const std::string g_handler_tail(300, 'h');

void logging_handler(int signo)
{
    g_sigctx = 1;
    log_write(g_handler_log, ERR_level, "caught %d, %s\n", signo, g_handler_tail.c_str());
    g_sigctx = 0;
}

void interrupt()
{
    raise(SIGUSR1);
}

void handle_usr1(struct log_ctx* log)
{
    g_handler_log = log;
    struct sigaction action = {};
    action.sa_handler = logging_handler;
    sigaction(SIGUSR1, &action, nullptr);
}

const std::string kHandlerLine = "caught " + std::to_string(SIGUSR1) + ", " + g_handler_tail + "\n";

ssize_t interrupted_write(void* cookie, const char* bytes, size_t size)
{
    auto* text = static_cast<std::string*>(cookie);
    run_once(g_in_format);
    text->append(bytes, size);
    return static_cast<ssize_t>(size);
}

} // namespace

TEST(LogHandler, line_of_a_handler_does_not_disturb_the_line_it_interrupts)
{
    FileLog file;
    handle_usr1(&file.log);
    g_in_format = interrupt;
    log_write(&file.log, NORM_level, "interrupted %3d %s\n", 42, std::string(200, 'i').c_str());
    EXPECT_EQ(file.text(),
              "(ERR)  " + kHandlerLine + "(NRM)  interrupted  42 " + std::string(200, 'i') + "\n");
    EXPECT_EQ(file.log.total_out, file.text().size());
}

TEST(LogHandler, line_that_is_being_written_is_not_disturbed_either)
{
    FileLog file;
    handle_usr1(&file.log);
    std::string text;
    FILE* stream = fopencookie(&text, "w", {nullptr, interrupted_write, nullptr, nullptr});
    setvbuf(stream, nullptr, _IONBF, 0);
    struct log_ctx log = ZERO_LOG;
    log.time_format = f_NO_TIME;
    log_default(&log, stream);
    Seen seen;
    log_set_hook(&log, &seen, note_line);
    g_in_format = nullptr;
    run_once(g_in_format);
    // The first call goes to the formatter: it sets up the one inside the write.
    g_in_format = [] { g_in_format = interrupt; };
    log_write(&log, NORM_level, "%-11s\n", "interrupted");
    EXPECT_EQ(file.text(), "(ERR)  " + kHandlerLine);
    EXPECT_EQ(text, "(NRM)  interrupted\n");
    EXPECT_EQ(seen.lines, std::vector<std::string>{"(NRM)  interrupted\n"});
    fclose(stream);
}

TEST(LogHandler, has_neither_hook_nor_rotation_but_the_mirror)
{
    const FdGuard guard;
    const support::TempDir dir;
    FILE* other = fopen(dir.path("other").c_str(), "w");
    FileLog file;
    Seen seen;
    log_set_hook(&file.log, &seen, note_line);
    log_mirror(&file.log, other);
    strcpy(file.log.name, "/nonexistent/log");
    log_set_rota(&file.log, 1, 1);
    handle_usr1(&file.log);
    Stderr err;
    raise(SIGUSR1);
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(file.text(), "(ERR)  " + kHandlerLine);
    EXPECT_TRUE(seen.lines.empty());
    EXPECT_EQ(dir.read("other"), "(ERR)  " + kHandlerLine);
    fclose(other);
}

TEST(LogHandler, that_interrupts_a_conversion_of_time_loses_its_line_and_does_not_deadlock)
{
    stop_clock();
    FileLog file;
    log_timefmt(&file.log, 0);
    handle_usr1(&file.log);
    g_in_localtime = interrupt;
    Stderr err;
    log_write(&file.log, NORM_level, "interrupted\n");
    EXPECT_EQ(err.text(), "log_write: time buffer error (n=-35)\n");
    EXPECT_EQ(file.text(), "2023-11-14 23:13:20.123456 XYZ (NRM)  interrupted\n");
    raise(SIGUSR1);
    EXPECT_EQ(file.text(), "2023-11-14 23:13:20.123456 XYZ (NRM)  interrupted\n"
                           "2023-11-14 23:13:20.123456 XYZ (ERR)  " +
                               kHandlerLine);
}

// ---- syslog ------------------------------------------------------------------------------------

namespace {

// Enters a mount namespace whose /dev holds nothing but a datagram socket "log". The socket; -1 where
// that is not allowed.
int private_dev_log()
{
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return -1;
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/dev", "tmpfs", 0, nullptr) != 0) {
        return -1;
    }
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    return bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0 ? fd : -1;
}

std::string receive(int fd)
{
    char text[4096];
    const ssize_t n = recv(fd, text, sizeof text, 0);
    return n < 0 ? "nothing" : std::string(text, static_cast<size_t>(n));
}

constexpr int kSkipped = 77;

// Compares what a datagram holds; tells the difference on stdout, which the test shows.
bool is_like(const std::string& text, const std::string& pattern)
{
    const bool same = support::matches(text, pattern);
    if (!same) {
        printf("[%s] is not [%s]\n", text.c_str(), pattern.c_str());
    }
    return same;
}

int syslog_child(int fd)
{
    const std::string head =
        "[A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} tester\\[" + std::to_string(getpid()) + "\\]: ";
    FileLog file;
    g_log = file.log;
    bool ok = true;
    log_write(&g_log, ERR_level, "before %d\n", 1);
    ok = is_like(receive(fd), "nothing") && ok;
    glog_enable_syslog("tester");
    const std::pair<int, int> rows[] = {{PANIC_level, 129}, {ERR_level, 131}, {CRIT_level, 130},
                                        {WARN_level, 132},  {-5, 135},        {MIN_level, 135}};
    for (const auto& [level, pri] : rows) {
        log_write(&g_log, level, "%s number %d\n", "message", level);
        ok = is_like(receive(fd), "<" + std::to_string(pri) + ">" + head + "message number " +
                                      std::to_string(level) + "\n?") &&
             ok;
    }
    for (const int level : {int{NORM_level}, int{INFO_level}, int{DEBUG_level}, int{SECTION_level}}) {
        log_write(&g_log, level, "quiet\n");
        ok = is_like(receive(fd), "nothing") && ok;
    }
    g_sigctx = 1;
    log_write(&g_log, ERR_level, "from a handler\n");
    g_sigctx = 0;
    ok = is_like(receive(fd), "nothing") && ok;
    log_write(&file.log, ERR_level, "another log\n");
    ok = is_like(receive(fd), "nothing") && ok;
    glog_disable_syslog();
    log_write(&g_log, ERR_level, "after\n");
    ok = is_like(receive(fd), "nothing") && g_log.use_syslog == 0 && ok;
    glog_enable_syslog("again");
    log_write(&g_log, ERR_level, "on again\n");
    return is_like(receive(fd), "<131>.* again\\[[0-9]+\\]: on again\n?") && ok ? 0 : 1;
}

} // namespace

TEST(LogSyslog, levels_below_zero_go_there_without_the_header)
{
    const support::ChildResult child = run_in_child([] {
        const int fd = private_dev_log();
        return fd < 0 ? kSkipped : syslog_child(fd);
    });
    if (child.exit_code == kSkipped) {
        GTEST_SKIP() << "skipped: private mount namespaces are not allowed here";
    }
    EXPECT_EQ(child.exit_code, 0) << child.out << child.err;
}

TEST(LogSyslog, handler_that_interrupts_the_stamp_of_syslog_does_not_deadlock)
{
    const support::ChildResult child = run_in_child([] {
        const int fd = private_dev_log();
        if (fd < 0) {
            return kSkipped;
        }
        FileLog file;
        log_timefmt(&file.log, 0);
        g_log = file.log;
        glog_enable_syslog("tester");
        handle_usr1(&g_log);
        struct sigaction action = {};
        action.sa_handler = logging_handler;
        action.sa_flags = SA_RESTART;
        sigaction(SIGALRM, &action, nullptr);
        const struct itimerval often = {{0, 200}, {0, 200}};
        setitimer(ITIMER_REAL, &often, nullptr);
        for (int i = 0; i < 3000; ++i) {
            log_write(&g_log, ERR_level, "line %d\n", i);
            receive(fd);
        }
        const struct itimerval off = {};
        setitimer(ITIMER_REAL, &off, nullptr);
        const std::string text = file.text();
        for (int i = 0; i < 3000; ++i) {
            if (text.find("(ERR)  line " + std::to_string(i) + "\n") == std::string::npos) {
                printf("line %d is lost\n", i);
                return 1;
            }
        }
        return 0;
    });
    if (child.exit_code == kSkipped) {
        GTEST_SKIP() << "skipped: private mount namespaces are not allowed here";
    }
    EXPECT_EQ(child.exit_code, 0) << child.out;
    EXPECT_FALSE(child.timed_out);
}

// ---- back-traces -------------------------------------------------------------------------------

TEST(LogBacktrace, frames_are_numbered_from_the_innermost)
{
    char text[4096];
    ASSERT_EQ(btrace_to_buf(text, sizeof text), 0);
    std::string rest = text;
    int count = 0;
    for (; !rest.empty(); ++count) {
        const std::string mark = "#" + std::to_string(count) + ": ";
        ASSERT_EQ(rest.compare(0, mark.size(), mark), 0) << rest;
        const size_t end = rest.find('\n');
        ASSERT_NE(end, std::string::npos);
        rest.erase(0, end + 1);
    }
    EXPECT_GT(count, 2);
    EXPECT_LE(count, 16);
}

TEST(LogBacktrace, that_overflows_its_buffer_ends_early_and_succeeds)
{
    char whole[4096];
    ASSERT_EQ(btrace_to_buf(whole, sizeof whole), 0);
    for (const size_t length : {size_t{1}, size_t{2}, size_t{30}, size_t{100}, size_t{200}}) {
        std::vector<char> text(length);
        EXPECT_EQ(btrace_to_buf(text.data(), length), 0) << length;
        EXPECT_EQ(strlen(text.data()), length - 1);
        EXPECT_EQ(text[0], length > 1 ? '#' : 0);
    }
    EXPECT_EQ(btrace_to_buf(nullptr, 0), 0);
}

TEST(LogBacktrace, without_frames_or_symbols_fails)
{
    char text[100];
    g_backtrace_count = 0;
    {
        Stderr err;
        EXPECT_EQ(btrace_to_buf(text, sizeof text), -1);
        EXPECT_EQ(err.text(), "");
    }
    g_backtrace_errno = ENOMEM;
    {
        Stderr err;
        EXPECT_EQ(btrace_to_buf(text, sizeof text), -1);
        EXPECT_EQ(err.text(), "backtrace: Cannot allocate memory\n");
    }
    g_backtrace_count = -1;
    g_no_symbols = true;
    Stderr err;
    EXPECT_EQ(btrace_to_buf(text, sizeof text), -1);
    EXPECT_EQ(err.text(), "backtrace_symbols: Cannot allocate memory\n");
    g_no_symbols = false;
}

TEST(LogBacktrace, panic_without_frames_writes_its_message_alone)
{
    const support::ChildResult child = run_in_child([] {
        static struct loglevel_ctx g_llctx = {0, -1, -1, {0}};
        g_log = {};
        g_log.time_format = f_NO_TIME;
        log_default(&g_log, stderr);
        g_no_symbols = true;
        log_panic("bad\n");
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.err, "(PNC)  bad\nbacktrace_symbols: Cannot allocate memory\n");
}

TEST(LogBacktrace, stands_behind_a_formatted_text)
{
    char text[4096];
    ASSERT_EQ(snprintf_btrace(text, sizeof text, "at %d:\n", 5), 0);
    EXPECT_EQ(std::string(text).rfind("at 5:\n#0: ", 0), 0U) << text;
    using Call = int (*)(char*, size_t, const char*, ...);
    const Call call = snprintf_btrace; // without the check of the format, which may be NULL here
    ASSERT_EQ(call(text, sizeof text, nullptr), 0);
    EXPECT_EQ(std::string(text).rfind("#0: ", 0), 0U) << text;
}

TEST(LogBacktrace, text_that_is_empty_or_does_not_fit_fails)
{
    char text[8];
    EXPECT_EQ(snprintf_btrace(text, sizeof text, "%s", ""), -1);
    EXPECT_EQ(snprintf_btrace(text, sizeof text, "%s", "12345678"), -1);
    EXPECT_EQ(snprintf_btrace(text, sizeof text, "%s", "1234567"), 0) << "room for the terminator alone";
    EXPECT_STREQ(text, "1234567");
}
