// The time text of a log line. Each test runs in a process of its own: the zone's name is looked up once.
#include "timeop.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <sys/time.h>
#include <vector>

#include <gtest/gtest.h>

#include "detail/tmlock.h"
#include "log.h"
#include "oom.h"
#include "wrap.h"

namespace {

void (*g_in_call)() = nullptr; // runs once, inside the next call of libc's conversions
bool g_no_localtime = false;
bool g_no_gmtime = false;
bool g_no_strftime = false;
int g_conversions = 0;

void run_once()
{
    if (g_in_call != nullptr) {
        void (*const now)() = g_in_call;
        g_in_call = nullptr;
        now();
    }
}

} // namespace

WRAPPED(time_t, time, (time_t * tm));
WRAPPED(struct tm*, localtime_r, (const time_t* time, struct tm* parts));
WRAPPED(struct tm*, gmtime_r, (const time_t* time, struct tm* parts));
WRAPPED(size_t, strftime, (char* buf, size_t size, const char* fmt, const struct tm* parts));

extern "C" {
time_t __wrap_time(time_t* tm)
{
    if (tm != nullptr) {
        *tm = 1700000000; // in winter
    }
    return 1700000000;
}

struct tm* __wrap_localtime_r(const time_t* time, struct tm* parts)
{
    ++g_conversions;
    run_once();
    if (g_no_localtime) {
        errno = EOVERFLOW;
        return nullptr;
    }
    return __real_localtime_r(time, parts);
}

struct tm* __wrap_gmtime_r(const time_t* time, struct tm* parts)
{
    ++g_conversions;
    run_once();
    if (g_no_gmtime) {
        errno = EOVERFLOW;
        return nullptr;
    }
    return __real_gmtime_r(time, parts);
}

size_t __wrap_strftime(char* buf, size_t size, const char* fmt, const struct tm* parts)
{
    run_once();
    if (g_no_strftime) {
        errno = ERANGE;
        return 0;
    }
    return __real_strftime(buf, size, fmt, parts);
}
}

namespace {

constexpr struct timespec kTime = {1700000000, 123456789}; // 2023-11-14 22:13:20 UTC

void set_zone(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

std::string text_of(const struct timespec& tms, uint32_t flags)
{
    char buf[200];
    const ssize_t n = mk_timestr(&tms, flags, buf, sizeof buf);
    if (n < 0) {
        return "failed: " + std::to_string(n);
    }
    EXPECT_EQ(strlen(buf), static_cast<size_t>(n));
    return buf;
}

std::string text_of(time_t seconds, uint32_t flags)
{
    return text_of({seconds, 987654321}, flags);
}

// The text by libc alone.
std::string expected(time_t seconds, uint32_t flags, const char* zone)
{
    struct tm parts;
    (flags & f_GMT_TIME) != 0 ? __real_gmtime_r(&seconds, &parts) : __real_localtime_r(&seconds, &parts);
    char buf[200];
    if ((flags & f_FMT_SECONDS) != 0) {
        snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d%s", parts.tm_year + 1900, parts.tm_mon + 1,
                 parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, zone);
    } else {
        snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%06ld%s", parts.tm_year + 1900,
                 parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, 987654L, zone);
    }
    return buf;
}

class Stderr {
  public:
    Stderr() { testing::internal::CaptureStderr(); }

    std::string text() { return testing::internal::GetCapturedStderr(); }
};

} // namespace

TEST(Timestr, forms_of_the_text)
{
    set_zone("XYZ-1");
    EXPECT_EQ(text_of(kTime, 0), "2023-11-14 23:13:20.123456 XYZ");
    EXPECT_EQ(text_of(kTime, f_FMT_SECONDS), "2023-11-14 23:13:20 XYZ");
    EXPECT_EQ(text_of(kTime, f_GMT_TIME), "2023-11-14 22:13:20.123456 XYZ") << "the zone's name stays local";
    EXPECT_EQ(text_of(kTime, f_GMT_TIME | f_FMT_SECONDS), "2023-11-14 22:13:20 XYZ");
    EXPECT_EQ(text_of(kTime, f_RAW_TIME), "1700000000.123456");
    EXPECT_EQ(text_of(kTime, f_RAW_TIME | f_FMT_SECONDS | f_GMT_TIME), "1700000000.123456");
    EXPECT_EQ(text_of(kTime, f_BAD_TIME | f_NO_TIME | f_MONOTONIC_TIMER), "2023-11-14 23:13:20.123456 XYZ");
    EXPECT_EQ(text_of({1700000000, 999}, 0), "2023-11-14 23:13:20.000000 XYZ");
    EXPECT_EQ(text_of({1700000039, 999999999}, 0), "2023-11-14 23:13:59.999999 XYZ");
    EXPECT_EQ(text_of({5, 7000}, f_RAW_TIME), "5.000007");
    EXPECT_EQ(text_of({0, 0}, f_GMT_TIME), "1970-01-01 00:00:00.000000 XYZ");
}

TEST(Timestr, local_time_is_utc_without_a_zone)
{
    set_zone("");
    EXPECT_EQ(text_of(kTime, 0), "2023-11-14 22:13:20.123456 UTC");
}

TEST(Timestr, odd_fractions_and_far_years_are_printed_as_numbers)
{
    set_zone("XYZ0");
    EXPECT_EQ(text_of({1700000000, -5000}, 0), "2023-11-14 22:13:20.-00005 XYZ");
    EXPECT_EQ(text_of({1700000000, 5000000000}, 0), "2023-11-14 22:13:20.5000000 XYZ");
    EXPECT_EQ(text_of({-1, 0}, 0), "1969-12-31 23:59:59.000000 XYZ");
    EXPECT_EQ(text_of({253402300799, 0}, 0), "9999-12-31 23:59:59.000000 XYZ");
    EXPECT_EQ(text_of({253402300800, 0}, 0), "10000-01-01 00:00:00.000000 XYZ");
    EXPECT_EQ(text_of({-62167219201, 0}, 0), "-001-12-31 23:59:59.000000 XYZ");
}

TEST(Timestr, every_second_of_two_days_around_a_change_is_libcs)
{
    for (const char* zone : {"CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0/2:00:30,M11.1.0/1:59:29",
                             "IST-5:30", "ABC-0:19:32", "LHS-10:30LHD-11,M10.1.0,M4.1.0"}) {
        set_zone(zone);
        char name[20];
        EXPECT_EQ(text_of(kTime, f_FMT_SECONDS).size(), 23U);
        snprintf(name, sizeof name, "%s", text_of(kTime, f_FMT_SECONDS).c_str() + 19);
        // The ends of March and October, the starts of March, April, October and November 2024.
        for (const time_t middle :
             {1711846800L, 1730016000L, 1710054000L, 1712415600L, 1728144000L, 1730613600L}) {
            for (time_t second = middle - 50000; second < middle + 50000; second += 7) {
                for (const uint32_t flags : {0U, static_cast<uint32_t>(f_GMT_TIME | f_FMT_SECONDS)}) {
                    ASSERT_EQ(text_of(second, flags), expected(second, flags, name)) << zone << " " << second;
                }
            }
        }
    }
}

TEST(Timestr, seconds_just_around_a_change_inside_a_minute_are_libcs_in_any_order)
{
    set_zone("EST5EDT,M3.2.0/2:00:30,M11.1.0/1:59:29");
    std::mt19937 random(11);
    for (const time_t change : {1710054030L, 1730613569L}) {
        for (int i = 0; i < 20000; ++i) {
            const time_t second = change - 100 + static_cast<time_t>(random() % 200);
            ASSERT_EQ(text_of(second, 0), expected(second, 0, " EST")) << second;
        }
    }
}

TEST(Timestr, random_seconds_of_all_times_are_libcs)
{
    set_zone("XYZ-3");
    std::mt19937_64 random(12);
    for (int i = 0; i < 50000; ++i) {
        const auto second = static_cast<time_t>(random() % 300000000000ULL) - 100000000000;
        ASSERT_EQ(text_of(second, 0), expected(second, 0, " XYZ")) << second;
        ASSERT_EQ(text_of(second + 1, f_GMT_TIME), expected(second + 1, f_GMT_TIME, " XYZ")) << second;
    }
}

TEST(Timestr, change_of_zone_moves_the_hour_but_not_the_name)
{
    set_zone("ONE-1");
    EXPECT_EQ(text_of(kTime, f_FMT_SECONDS), "2023-11-14 23:13:20 ONE");
    set_zone("TWO-2");
    EXPECT_EQ(text_of(kTime, f_FMT_SECONDS), "2023-11-15 00:13:20 ONE") << "kept: never refreshed";
    set_zone("EST5EDT,M3.2.0,M11.1.0");
    EXPECT_EQ(text_of({1720000000, 0}, f_FMT_SECONDS), "2024-07-03 05:46:40 ONE");
    set_zone("EST5");
    EXPECT_EQ(text_of({1720000000, 0}, f_FMT_SECONDS), "2024-07-03 04:46:40 ONE");
}

TEST(Timestr, second_of_a_known_minute_needs_no_conversion_and_no_allocation)
{
    set_zone("XYZ-1");
    text_of(kTime, 0);
    const int before = g_conversions;
    const size_t allocations = support::allocation_count();
    char buf[64];
    const struct timespec next = {kTime.tv_sec + 1, 5000};
    EXPECT_EQ(mk_timestr(&next, 0, buf, sizeof buf), 30);
    EXPECT_STREQ(buf, "2023-11-14 23:13:21.000005 XYZ");
    EXPECT_EQ(g_conversions, before);
    EXPECT_EQ(support::allocation_count(), allocations);
}

TEST(Timestr, inside_of_syslog_only_a_known_minute_is_given)
{
    set_zone("XYZ-1");
    text_of(kTime, 0);
    const mv::SyslogMark inside;
    char buf[64];
    const struct timespec other = {1000000000, 0};
    EXPECT_EQ(mk_timestr(&other, 0, buf, sizeof buf), -EDEADLK);
    EXPECT_EQ(mk_timestr(&kTime, 0, buf, sizeof buf), 30);
}

// ---- buffers -----------------------------------------------------------------------------------

namespace {

// Result, text and complaint for a buffer of exactly that size, on the heap.
void expect_in_room(size_t room, uint32_t flags, ssize_t result, const std::string& text,
                    const std::string& complaint)
{
    std::vector<char> buf(room, '#');
    Stderr err;
    EXPECT_EQ(mk_timestr(&kTime, flags, buf.data(), room), result) << room;
    EXPECT_EQ(err.text(), complaint) << room;
    if (room > 0) {
        EXPECT_STREQ(buf.data(), text.c_str()) << room;
    }
}

void expect_rooms_of(const std::string& whole, uint32_t flags)
{
    for (const size_t room : {size_t{0}, size_t{1}, size_t{10}, whole.size() - 1}) {
        expect_in_room(room, flags, -1, whole.substr(0, room > 0 ? room - 1 : 0),
                       "mk_timestr: timestamp buffer needs " + std::to_string(whole.size()) +
                           " bytes, only " + std::to_string(room) + " provided\n");
    }
    const auto length = static_cast<ssize_t>(whole.size());
    expect_in_room(whole.size(), flags, length, whole.substr(0, whole.size() - 1), "");
    expect_in_room(whole.size() + 1, flags, length, whole, "");
    expect_in_room(whole.size() + 2, flags, length, whole, "");
    expect_in_room(95, flags, length, whole, "");
    expect_in_room(96, flags, length, whole, "");
}

} // namespace

TEST(Timestr, kept_buffer_of_just_the_texts_length_cuts_its_last_character)
{
    set_zone("XYZ-1");
    text_of(kTime, 0); // the minute is known
    expect_rooms_of("2023-11-14 23:13:20.123456 XYZ", 0);
    expect_rooms_of("2023-11-14 23:13:20 XYZ", f_FMT_SECONDS);
}

TEST(Timestr, kept_buffers_of_a_minute_that_is_not_known_are_treated_alike)
{
    set_zone("XYZ-0:00:30"); // an offset of half a minute
    expect_rooms_of("2023-11-14 22:13:50.123456 XYZ", 0);
    expect_rooms_of("2023-11-14 22:13:50 XYZ", f_FMT_SECONDS);
}

TEST(Timestr, kept_raw_text_has_one_byte_less)
{
    const std::string whole = "1700000000.123456";
    const auto length = static_cast<ssize_t>(whole.size());
    expect_in_room(0, f_RAW_TIME, -1, "", "");
    expect_in_room(2, f_RAW_TIME, -1, "", "");
    expect_in_room(whole.size(), f_RAW_TIME, -1, whole.substr(0, whole.size() - 2), "");
    expect_in_room(whole.size() + 1, f_RAW_TIME, length, whole.substr(0, whole.size() - 1), "");
    expect_in_room(whole.size() + 2, f_RAW_TIME, length, whole, "");
}

// ---- failures ----------------------------------------------------------------------------------

TEST(Timestr, time_that_cannot_be_broken_down_fails)
{
    for (const uint32_t flags : {0U, static_cast<uint32_t>(f_GMT_TIME)}) {
        Stderr err;
        EXPECT_EQ(text_of({INT64_MAX, 0}, flags), "failed: -1");
        EXPECT_EQ(err.text(), "gmtime_r/localtime_r: Value too large for defined data type\n");
    }
    EXPECT_EQ(text_of({INT64_MAX, 0}, f_RAW_TIME), "9223372036854775807.000000");
    set_zone("XYZ0");
    EXPECT_EQ(text_of({1, 0}, 0), "1970-01-01 00:00:01.000000 XYZ") << "the lock is released";
}

TEST(Timestr, zone_that_cannot_be_found_prints_null)
{
    set_zone("XYZ0");
    g_no_localtime = true;
    Stderr err;
    EXPECT_EQ(text_of(kTime, f_GMT_TIME | f_FMT_SECONDS), "2023-11-14 22:13:20(null)");
    EXPECT_EQ(err.text(), "localtime_r: Value too large for defined data type\n");
    g_no_localtime = false;
    EXPECT_EQ(text_of(kTime, f_FMT_SECONDS), "2023-11-14 22:13:20 XYZ") << "it is asked for again";
}

TEST(Timestr, kept_zone_whose_name_failed_prints_null_once_and_then_the_mark)
{
    set_zone("XYZ0");
    g_no_strftime = true;
    Stderr err;
    EXPECT_EQ(text_of(kTime, f_FMT_SECONDS), "2023-11-14 22:13:20(null)");
    EXPECT_EQ(err.text(), "strftime: Numerical result out of range\n");
    g_no_strftime = false;
    EXPECT_EQ(text_of(kTime, f_FMT_SECONDS), "2023-11-14 22:13:20#ERR#");
}

TEST(Timestr, zone_names_of_13_characters_fit_and_longer_ones_fail)
{
    set_zone("ABCDEFGHIJKLM0");
    EXPECT_EQ(text_of(kTime, f_FMT_SECONDS), "2023-11-14 22:13:20 ABCDEFGHIJKLM");
}

TEST(Timestr, zone_name_of_14_characters_fails)
{
    set_zone("ABCDEFGHIJKLMN0");
    Stderr err;
    EXPECT_EQ(text_of(kTime, f_FMT_SECONDS), "2023-11-14 22:13:20(null)");
    EXPECT_EQ(err.text().rfind("strftime: ", 0), 0U);
}

// ---- signal handlers ---------------------------------------------------------------------------

namespace {

std::string g_inner;

void convert_inside()
{
    g_inner = text_of(kTime, 0);
    g_inner += "|" + text_of(kTime, f_RAW_TIME);
}

} // namespace

TEST(Timestr, interrupted_conversion_is_in_use)
{
    set_zone("XYZ-1");
    g_in_call = convert_inside;
    EXPECT_EQ(text_of(kTime, 0), "2023-11-14 23:13:20.123456 XYZ");
    EXPECT_EQ(g_inner, "failed: -35|1700000000.123456") << "inside localtime_r";
    g_inner.clear();
    g_in_call = convert_inside;
    EXPECT_EQ(text_of(kTime, f_GMT_TIME), "2023-11-14 22:13:20.123456 XYZ");
    EXPECT_EQ(g_inner, "failed: -35|1700000000.123456") << "inside gmtime_r";
}

TEST(Timestr, interrupted_look_up_of_the_zone_is_in_use)
{
    set_zone("XYZ-1");
    text_of(kTime, f_RAW_TIME);
    // The first text breaks the minute down and then looks the zone up: reach into the latter.
    g_in_call = [] {
        g_in_call = [] { g_in_call = [] { g_in_call = [] { g_in_call = convert_inside; }; }; };
    };
    EXPECT_EQ(text_of(kTime, 0), "2023-11-14 23:13:20.123456 XYZ");
    EXPECT_EQ(g_inner, "failed: -35|1700000000.123456");
}

namespace {

volatile sig_atomic_t g_storms = 0;
volatile sig_atomic_t g_bad = 0;
char g_other_text[] = "2001-09-09 02:46:40.000000 XYZ";

// Another minute in each round, so that it keeps taking the place of the one that was kept.
void storm(int /*signo*/)
{
    const struct timespec other = {1000000000, 0};
    char buf[200];
    const ssize_t n = mk_timestr(&other, 0, buf, sizeof buf);
    if (n != -35 && strcmp(buf, g_other_text) != 0) {
        g_bad = g_bad + 1;
    }
    g_storms = g_storms + 1;
}

} // namespace

TEST(Timestr, texts_stay_whole_while_a_handler_converts_another_minute)
{
    set_zone("XYZ-1");
    text_of(kTime, 0);
    struct sigaction action = {};
    action.sa_handler = storm;
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    const struct itimerval often = {{0, 50}, {0, 50}};
    setitimer(ITIMER_REAL, &often, nullptr);
    int bad = 0;
    for (long i = 0; (g_storms < 2000 || i < 200000) && i < 100000000; ++i) {
        char buf[200];
        if (mk_timestr(&kTime, 0, buf, sizeof buf) != 30 ||
            strcmp(buf, "2023-11-14 23:13:20.123456 XYZ") != 0) {
            ++bad;
        }
    }
    const struct itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(g_bad, 0);
    EXPECT_GE(g_storms, 2000);
}
