// Clock readings, time-outs, and the texts of dates and durations.
#include "timeop.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log.h"

DECLARE_MLL(MLL_COMMON);

namespace {

// Guards every break-down of a time: a signal handler that logs would deadlock in libc's zone lock.
volatile int g_tmlock = 0;

class TimeLock {
  public:
    TimeLock() { g_tmlock = 1; }

    ~TimeLock() { g_tmlock = 0; }

    TimeLock(const TimeLock&) = delete;
    TimeLock& operator=(const TimeLock&) = delete;
};

// The text of one local or GMT minute, "YYYY-MM-DD HH:MM:". A minute is kept only where the zone's offset is
// a whole number of minutes, so that no change of offset can fall inside it; the zone's variables tell a
// tzset().
struct MinuteText {
    time_t start = 0;  // first second; valid for 60
    size_t length = 0; // 0: nothing kept
    long zone = 0;
    const char* zone_name = nullptr;
    char text[40] = {};
};

MinuteText g_minutes[2]; // local, GMT

constexpr size_t kZoneMax = 16;
constexpr size_t kTextMax = 96;

bool minute_holds(const MinuteText& minute, time_t second)
{
    return minute.length != 0 && second >= minute.start && second - minute.start < 60 &&
           minute.zone == timezone && minute.zone_name == tzname[0];
}

void keep_minute(MinuteText& minute, const struct tm& parts, time_t second)
{
    minute.length = 0;
    if (parts.tm_gmtoff % 60 != 0 || parts.tm_sec > 59) {
        return;
    }
    minute.start = second - parts.tm_sec;
    minute.zone = timezone;
    minute.zone_name = tzname[0];
    const int n =
        snprintf(minute.text, sizeof minute.text,
                 "%04d-%02d-%02d %02d:%02d:", static_cast<int>(1900U + static_cast<unsigned>(parts.tm_year)),
                 parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min);
    minute.length = static_cast<size_t>(n);
}

char* put_digits(char* at, unsigned value, int count)
{
    for (int i = count - 1; i >= 0; --i) {
        at[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return at + count;
}

// Name of the local zone behind a blank, looked up once; NULL where that fails.
const char* get_timezone(int refresh)
{
    static char timezone_text[kZoneMax] = "";
    if (timezone_text[0] != 0 && refresh == 0) {
        return timezone_text;
    }
    const TimeLock lock;
    const time_t now = time(nullptr);
    struct tm parts;
    if (localtime_r(&now, &parts) == nullptr) {
        perror("localtime_r");
        return nullptr;
    }
    const size_t n = strftime(timezone_text, kZoneMax - 1, " %Z", &parts);
    if (n == 0 || n > kZoneMax - 1) {
        perror("strftime");
        strcpy(timezone_text, "#ERR#");
        return nullptr;
    }
    return timezone_text;
}

// snprintf's way with a text that is already made: what fits, and the full length as the result.
ssize_t put_text(char* buf, size_t buflen, const char* text, size_t length)
{
    if (buflen > 0) {
        const size_t fits = length < buflen ? length : buflen - 1;
        memcpy(buf, text, fits);
        buf[fits] = 0;
    }
    return static_cast<ssize_t>(length);
}

// A time whose minute is not kept: broken down and formatted afresh.
ssize_t format_parts(const struct tm& parts, long nsec, uint32_t flags, const char* zone, char* buf,
                     size_t buflen)
{
    const int year = static_cast<int>(1900U + static_cast<unsigned>(parts.tm_year));
    if ((flags & f_FMT_SECONDS) != 0) {
        return snprintf(buf, buflen, "%04d-%02d-%02d %02d:%02d:%02d%s", year, parts.tm_mon + 1, parts.tm_mday,
                        parts.tm_hour, parts.tm_min, parts.tm_sec, zone);
    }
    return snprintf(buf, buflen, "%04d-%02d-%02d %02d:%02d:%02d.%06ld%s", year, parts.tm_mon + 1,
                    parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, nsec / 1000, zone);
}

// A time whose minute is kept: seconds and fraction put behind it.
ssize_t format_kept(const MinuteText& minute, const struct timespec* tms, uint32_t flags, const char* zone,
                    char* buf, size_t buflen)
{
    char text[kTextMax];
    memcpy(text, minute.text, sizeof minute.text);
    char* at = put_digits(text + minute.length, static_cast<unsigned>(tms->tv_sec - minute.start), 2);
    if ((flags & f_FMT_SECONDS) == 0) {
        *at++ = '.';
        at = put_digits(at, static_cast<unsigned>(tms->tv_nsec / 1000), 6);
    }
    const size_t zone_length = strlen(zone);
    memcpy(at, zone, zone_length);
    return put_text(buf, buflen, text, static_cast<size_t>(at - text) + zone_length);
}

bool has_six_digits(long nsec)
{
    return nsec >= 0 && nsec < 1'000'000'000;
}

// The text at the buffer; -1 if the time cannot be broken down.
ssize_t format_time(const struct timespec* tms, uint32_t flags, char* buf, size_t buflen)
{
    const bool gmt = (flags & f_GMT_TIME) != 0;
    MinuteText& minute = g_minutes[gmt ? 1 : 0];
    struct tm parts;
    bool kept = false;
    {
        const TimeLock lock;
        kept = has_six_digits(tms->tv_nsec) && minute_holds(minute, tms->tv_sec);
        if (!kept) {
            if ((gmt ? gmtime_r(&tms->tv_sec, &parts) : localtime_r(&tms->tv_sec, &parts)) == nullptr) {
                perror("gmtime_r/localtime_r");
                return -1;
            }
            keep_minute(minute, parts, tms->tv_sec);
        }
    }
    const char* found = get_timezone(0);
    const char* zone = found != nullptr ? found : "(null)";
    const TimeLock lock; // a handler must not put another minute into what is read here
    return kept ? format_kept(minute, tms, flags, zone, buf, buflen)
                : format_parts(parts, tms->tv_nsec, flags, zone, buf, buflen);
}

} // namespace

ssize_t mk_timestr(const struct timespec* tms, const uint32_t flags, char* buf, size_t buflen)
{
    if ((flags & f_RAW_TIME) != 0) {
        const int n =
            snprintf(buf, buflen - 1, "%ld.%06ld", static_cast<long>(tms->tv_sec), tms->tv_nsec / 1000);
        return n >= 0 && static_cast<size_t>(n) < buflen ? n : -1;
    }
    if (g_tmlock != 0) {
        return -EDEADLK;
    }
    const ssize_t n = format_time(tms, flags, buf, buflen);
    if (n > 0 && static_cast<size_t>(n) > buflen) {
        fprintf(stderr, "%s: timestamp buffer needs %d bytes, only %ld provided\n", __func__,
                static_cast<int>(n), static_cast<long>(buflen));
        return -1;
    }
    return n;
}
