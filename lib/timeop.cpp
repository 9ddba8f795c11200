// Clock readings, time-outs, and the texts of dates and durations.
#include "timeop.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "clk.h"
#include "detail/assertions.h"
#include "detail/loop_clock.h"
#include "detail/tmlock.h"
#include "ktime.h"
#include "log.h"

DECLARE_MLL(MLL_COMMON);

namespace mv {

volatile sig_atomic_t g_tmlock = 0;
volatile sig_atomic_t g_in_syslog = 0;
struct timespec g_loop_now = {};

} // namespace mv

namespace {

using mv::g_in_syslog;
using mv::g_tmlock;
using mv::TimeLock;

// The text of one local or GMT minute, "YYYY-MM-DD HH:MM:". The zone's variables tell a tzset().
struct MinuteText {
    time_t start = 0;  // first second; valid for 60
    size_t length = 0; // 0: nothing kept
    char text[24] = {};
    long zone = 0;
    const char* names[2] = {};
};

constexpr size_t kZoneMax = 16;

MinuteText g_minutes[2]; // local, GMT
char g_zone[kZoneMax];   // what get_timezone found

constexpr size_t kTextMax = 96;

// Without a sign: a second before the start gives a great number.
bool minute_holds(const MinuteText& minute, time_t second)
{
    return static_cast<uint64_t>(second) - static_cast<uint64_t>(minute.start) < 60 && minute.length != 0 &&
           minute.zone == timezone && minute.names[0] == tzname[0] && minute.names[1] == tzname[1];
}

int full_year(const struct tm& parts)
{
    return static_cast<int>(1900U + static_cast<unsigned>(parts.tm_year)); // wraps beyond the last years
}

bool break_down(time_t second, bool gmt, struct tm& parts)
{
    return (gmt ? gmtime_r(&second, &parts) : localtime_r(&second, &parts)) != nullptr;
}

// Whether one offset, of whole minutes, holds for the whole minute: a rule may change it at any second.
bool is_even_minute(const struct tm& parts, time_t start, bool gmt)
{
    struct tm first;
    struct tm last;
    return parts.tm_gmtoff % 60 == 0 && parts.tm_sec <= 59 && break_down(start, gmt, first) &&
           break_down(start + 59, gmt, last) && first.tm_min == parts.tm_min && last.tm_min == parts.tm_min &&
           first.tm_gmtoff == parts.tm_gmtoff && last.tm_gmtoff == parts.tm_gmtoff;
}

// False if the minute is none that can be kept.
bool keep_minute(MinuteText& minute, const struct tm& parts, time_t second, bool gmt)
{
    constexpr time_t kLastSecond = 253402300799; // of the years that have four digits
    minute.length = 0;
    if (second < 0 || second > kLastSecond || !is_even_minute(parts, second - parts.tm_sec, gmt)) {
        return false;
    }
    const int n = snprintf(minute.text, sizeof minute.text, "%04d-%02d-%02d %02d:%02d:", full_year(parts),
                           parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min);
    minute.start = second - parts.tm_sec;
    minute.length = static_cast<size_t>(n);
    minute.zone = timezone;
    minute.names[0] = tzname[0];
    minute.names[1] = tzname[1];
    return true;
}

// The texts of 0 to 99, side by side: one load for two digits.
constexpr std::array<char, 200> make_pairs()
{
    std::array<char, 200> pairs{};
    for (size_t i = 0; i < pairs.size(); i += 2) {
        pairs[i] = static_cast<char>('0' + i / 20);
        pairs[i + 1] = static_cast<char>('0' + i / 2 % 10);
    }
    return pairs;
}

constexpr std::array<char, 200> kPairs = make_pairs();

char* put_two(char* at, unsigned value)
{
    memcpy(at, kPairs.data() + size_t{2} * value, 2);
    return at + 2;
}

// Name of the local zone behind a blank, looked up once; NULL where that fails.
const char* get_timezone(int refresh)
{
    if (g_zone[0] != 0 && refresh == 0) {
        return g_zone;
    }
    const TimeLock lock;
    const time_t now = time(nullptr);
    struct tm parts;
    if (localtime_r(&now, &parts) == nullptr) {
        perror("localtime_r");
        return nullptr;
    }
    const size_t n = strftime(g_zone, kZoneMax - 1, " %Z", &parts);
    if (n == 0 || n > kZoneMax - 1) {
        perror("strftime");
        strcpy(g_zone, "#ERR#"); // Kept: what later calls then get
        return nullptr;
    }
    return g_zone;
}

// A time whose minute is not kept: formatted afresh.
ssize_t format_parts(const struct tm& parts, long nsec, uint32_t flags, const char* zone, char* buf,
                     size_t buflen)
{
    const int year = full_year(parts);
    if ((flags & f_FMT_SECONDS) != 0) {
        return snprintf(buf, buflen, "%04d-%02d-%02d %02d:%02d:%02d%s", year, parts.tm_mon + 1, parts.tm_mday,
                        parts.tm_hour, parts.tm_min, parts.tm_sec, zone);
    }
    return snprintf(buf, buflen, "%04d-%02d-%02d %02d:%02d:%02d.%06ld%s", year, parts.tm_mon + 1,
                    parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, nsec / 1000, zone);
}

// A time of a kept minute: seconds, fraction and zone put behind it. The room is kTextMax or more.
ssize_t put_kept(const MinuteText& minute, const struct timespec* tms, uint32_t flags, const char* zone,
                 char* buf)
{
    // The whole array: a copy of fixed length is a few moves, one of the text's length a call.
    memcpy(buf, minute.text, sizeof minute.text);
    char* at = put_two(buf + minute.length, static_cast<unsigned>(tms->tv_sec - minute.start));
    if ((flags & f_FMT_SECONDS) == 0) {
        const auto micros = static_cast<unsigned>(tms->tv_nsec / 1000);
        *at = '.';
        at = put_two(at + 1, micros / 10000);
        at = put_two(at, micros / 100 % 100);
        at = put_two(at, micros % 100);
    }
    const size_t zone_length = strlen(zone);
    memcpy(at, zone, zone_length + 1);
    return at - buf + static_cast<ssize_t>(zone_length);
}

// The same into any room, in snprintf's way: what fits, and the full length as the result.
ssize_t format_kept(const MinuteText& minute, const struct timespec* tms, uint32_t flags, const char* zone,
                    char* buf, size_t buflen)
{
    if (buflen >= kTextMax) {
        return put_kept(minute, tms, flags, zone, buf);
    }
    char text[kTextMax];
    const auto length = static_cast<size_t>(put_kept(minute, tms, flags, zone, text));
    if (buflen > 0) {
        const size_t fits = length < buflen ? length : buflen - 1;
        memcpy(buf, text, fits);
        buf[fits] = 0;
    }
    return static_cast<ssize_t>(length);
}

bool has_six_digits(long nsec)
{
    return nsec >= 0 && nsec < 1'000'000'000;
}

// The text at the buffer; -1 if the time cannot be broken down, -EDEADLK if that would take libc's lock while
// syslog may hold it. What is kept is copied under the lock: a handler that logs may put another minute there
// at any time afterwards.
ssize_t format_time(const struct timespec* tms, uint32_t flags, char* buf, size_t buflen)
{
    const bool gmt = (flags & f_GMT_TIME) != 0;
    MinuteText minute;
    struct tm parts;
    bool is_kept = false;
    {
        const TimeLock lock;
        MinuteText& kept = g_minutes[gmt ? 1 : 0];
        const bool may_keep = has_six_digits(tms->tv_nsec);
        is_kept = may_keep && minute_holds(kept, tms->tv_sec);
        if (g_in_syslog != 0 && (!is_kept || g_zone[0] == 0)) {
            return -EDEADLK;
        }
        if (!is_kept) {
            if (!break_down(tms->tv_sec, gmt, parts)) {
                perror("gmtime_r/localtime_r");
                return -1;
            }
            is_kept = may_keep && keep_minute(kept, parts, tms->tv_sec, gmt);
        }
        minute.start = kept.start;
        minute.length = kept.length;
        memcpy(minute.text, kept.text, sizeof minute.text);
    }
    const char* found = get_timezone(0);
    const char* zone = found != nullptr ? found : "(null)";
    return is_kept ? format_kept(minute, tms, flags, zone, buf, buflen)
                   : format_parts(parts, tms->tv_nsec, flags, zone, buf, buflen);
}

void set_real_now(struct timespec* tms)
{
    set_clk_now(tms, FAST_REALTIME_CLOCK);
}

// The core of the time-outs: clknow, or else the clock that in_real_time chooses, against last_tm + tmout.
// The sum needs more than time_t has where a caller means "never" by a great number.
int timed_out_as(const struct timespec* last_tm, const struct timespec* tmout, bool in_real_time,
                 const struct timespec* clknow)
{
    using Wide = __int128;
    struct timespec now;
    if (clknow != nullptr) {
        now = *clknow;
    } else if (in_real_time) {
        set_real_now(&now);
    } else {
        now = mv::g_loop_now;
    }
    Wide sec = static_cast<Wide>(last_tm->tv_sec) + tmout->tv_sec;
    Wide nsec = static_cast<Wide>(last_tm->tv_nsec) + tmout->tv_nsec;
    if (nsec > 999'999'999) {
        sec += 1;
        nsec -= 1'000'000'000;
    }
    return now.tv_sec == sec ? now.tv_nsec > nsec : now.tv_sec > sec;
}

// Unlike time, at the limit and not behind it: a tick is the span itself, not a point within.
bool ticks_run_out(uint32_t last, uint32_t tmout, uint32_t ticks_now)
{
    if (last == 0) {
        return true;
    }
    if (last > ticks_now) {
        return ticks_now - last - 1 >= tmout; // the counter went through 0, which is no tick
    }
    // Kept: the sum wraps, so that a span which reaches beyond the counter's end has run out at once.
    return last + tmout <= ticks_now;
}

// Seconds of a local time; -1 if there are none.
time_t local_seconds(struct tm* parts)
{
    const TimeLock lock;
    return mktime(parts);
}

// Whether what snprintf gave for a room is taken for a text that fits. Kept: one of just the room passes,
// and has lost its last character to the terminator.
bool text_fits(int n, size_t room)
{
    return n > 0 && static_cast<size_t>(n) <= room;
}

} // namespace

void set_clk_now(struct timespec* tms, clockid_t clk_id)
{
    if (clock_gettime(clk_id, tms) != 0) {
        perror("clock_gettime");
        abort();
    }
}

int timed_out(const struct timespec* last_tm, const struct timespec* tmout)
{
    return timed_out_as(last_tm, tmout, false, nullptr);
}

int timed_out_ext(const struct timespec* last_tm, const struct timespec* tmout, const struct timespec* clknow)
{
    return timed_out_as(last_tm, tmout, false, clknow);
}

int timed_out_real(const struct timespec* last_tm, const struct timespec* tmout)
{
    return timed_out_as(last_tm, tmout, true, nullptr);
}

void calc_timespan(const struct timespec* from, const struct timespec* till, struct timespec* span)
{
    struct timespec result = *till;
    timespecsub(&result, from);
    *span = result;
}

ssize_t mk_timestr(const struct timespec* tms, const uint32_t flags, char* buf, size_t buflen)
{
    if ((flags & f_RAW_TIME) != 0) {
        const int n = snprintf(buf, buflen > 0 ? buflen - 1 : 0, "%ld.%06ld", static_cast<long>(tms->tv_sec),
                               tms->tv_nsec / 1000);
        return n >= 0 && static_cast<size_t>(n) < buflen ? n : -1;
    }
    if (g_tmlock != 0) {
        return -EDEADLK;
    }
    const ssize_t n = format_time(tms, flags, buf, buflen);
    // Kept: a text of just the buffer's size passes, cut by one.
    if (n > 0 && static_cast<size_t>(n) > buflen) {
        fprintf(stderr, "%s: timestamp buffer needs %d bytes, only %ld provided\n", __func__,
                static_cast<int>(n), static_cast<long>(buflen));
        return -1;
    }
    return n;
}

int scan_log_time(const char* s, struct timespec* tms, uint32_t flags)
{
    // Zeros where the text has none, tm_isdst among them: 0 there takes the time as one without daylight
    // saving.
    struct tm parts = {};
    long seconds = 0;
    long microseconds = 0;
    timespecclear(tms);
    if ((flags & f_RAW_TIME) != 0) {
        if (sscanf(s, "%ld.%06ld ", &seconds, &microseconds) != 2) {
            return -1;
        }
        *tms = {seconds, microseconds * 1000};
        return 2;
    }
    const bool whole = (flags & f_FMT_SECONDS) != 0;
    const int wanted = whole ? 6 : 7;
    const int n = whole ? sscanf(s, "%04d-%02d-%02d %02d:%02d:%02d ", &parts.tm_year, &parts.tm_mon,
                                 &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec)
                        : sscanf(s, "%04d-%02d-%02d %02d:%02d:%02d.%06ld ", &parts.tm_year, &parts.tm_mon,
                                 &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &microseconds);
    if (n != wanted) {
        return -1;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    seconds = local_seconds(&parts); // Kept: as local time without daylight saving, whatever wrote the text
    if (seconds == -1) {
        log_err("%s: cannot make time from [%s]\n", __func__, s);
        return -1;
    }
    *tms = {seconds, microseconds * 1000};
    return n;
}

int mk_gmt_date(time_t ut, char* buf, size_t buflen)
{
    struct tm parts;
    {
        const TimeLock lock;
        if (gmtime_r(&ut, &parts) == nullptr) {
            perror("gmtime");
            return -1;
        }
    }

    const int n = snprintf(buf, buflen, "%04d-%02d-%02d", full_year(parts), parts.tm_mon + 1, parts.tm_mday);
    if (text_fits(n, buflen)) {
        buf[buflen - 1] = 0;
        return 0;
    }
    log_err("%s: timestamp buffer needs %d bytes, only %ld provided\n", __func__, n,
            static_cast<long>(buflen));
    return -1;
}

int mk_timespan(long int total_sec, char* buf, size_t buflen)
{
    const long days = total_sec / 86400;
    const long hours = total_sec % 86400 / 3600;
    const long minutes = total_sec % 3600 / 60;
    const long seconds = total_sec % 60;
    size_t used = 0;
    if (days > 0) {
        const int n = snprintf(buf, buflen, "%02ldd ", days);
        if (!text_fits(n, buflen)) {
            return -1;
        }
        used = static_cast<size_t>(n);
    }
    const size_t room = buflen - used;
    const int n = snprintf(buf + used, room, "%02ldh:%02ldm:%02lds", hours, minutes, seconds);
    return text_fits(n, room) ? 0 : -1;
}

bool tspan_timed_out(const struct tspan* last, const struct tspan* tmout, const struct timespec* now,
                     uint32_t ticks_now)
{
    assert(last->mode == tmout->mode);
    assert(last->mode == TSPAN_TIME || last->mode == TSPAN_TICKS);
    if (last->mode == TSPAN_TIME) {
        return timed_out_ext(&last->val.tms, &tmout->val.tms, now) != 0;
    }
    return ticks_run_out(last->val.ticks, tmout->val.ticks, ticks_now);
}

void set_tspan(struct tspan* spn, struct timespec* tm, uint32_t ticks)
{
    assert(spn->mode == TSPAN_TIME || spn->mode == TSPAN_TICKS);
    if (spn->mode == TSPAN_TIME) {
        spn->val.tms = *tm;
    } else {
        spn->val.ticks = ticks;
    }
}

time_t get_endofday_utime(time_t tstamp)
{
    struct tm parts;
    bool known = false;
    {
        const TimeLock lock;
        known = localtime_r(&tstamp, &parts) != nullptr;
    }
    if (!known) {
        log_err("%s: localtime_r() FAILED\n", __func__);
        return -1;
    }
    parts.tm_hour = EOD_HOUR;
    parts.tm_min = EOD_MIN;
    parts.tm_sec = 59;
    // Kept: tm_isdst stays that of tstamp, so on a day of change the end may lie one hour off.
    return local_seconds(&parts);
}
