// Clocks, time-outs, spans and the texts of dates and durations.
#include "timeop.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <random>

#include "child.h"
#include "clk.h"
#include "ktime.h"
#include "log.h"
#include "logcap.h"
#include "rqs.h"
#include "text.h"
#include "wrap.h"

using support::expect_abort;
using support::Lines;
using support::LogCapture;
using support::run_in_child;

namespace {

timespec g_fixed_time;        // what the clocks say
clockid_t g_fixed_clock = -1; // the clock that says it, -1 for the real ones
clockid_t g_clock_read = -1;  // the clock that was read last

constexpr long kMax = LONG_MAX;
constexpr long kMin = LONG_MIN;

void set_zone(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

// The event loop's cached clock, without a loop.
void set_cached_clock(timespec now)
{
    *const_cast<timespec*>(rqs_now_ref()) = now;
}

int ext(timespec last, timespec tmout, timespec now)
{
    return timed_out_ext(&last, &tmout, &now);
}

bool ticks(uint32_t last, uint32_t tmout, uint32_t now)
{
    tspan from{};
    tspan length{};
    from.mode = length.mode = TSPAN_TICKS;
    from.val.ticks = last;
    length.val.ticks = tmout;
    return tspan_timed_out(&from, &length, nullptr, now);
}

std::string gmt_date(time_t ut)
{
    char buf[64] = "";
    EXPECT_EQ(mk_gmt_date(ut, buf, sizeof buf), 0);
    return buf;
}

std::string duration(long seconds)
{
    char buf[96] = "";
    EXPECT_EQ(mk_timespan(seconds, buf, sizeof buf), 0);
    return buf;
}

} // namespace

WRAPPED(int, clock_gettime, (clockid_t clk, timespec* tms));

extern "C" {
int __wrap_clock_gettime(clockid_t clk, timespec* tms)
{
    g_clock_read = clk;
    if (clk == g_fixed_clock) {
        *tms = g_fixed_time;
        return 0;
    }
    return __real_clock_gettime(clk, tms);
}
}

// ---- ktime and clk -----------------------------------------------------------------------------

TEST(Ktime, clear_and_isset)
{
    timespec ts{3, 4};
    EXPECT_TRUE(timespecisset(&ts));
    timespecclear(&ts);
    EXPECT_EQ(ts.tv_sec, 0);
    EXPECT_EQ(ts.tv_nsec, 0);
    EXPECT_FALSE(timespecisset(&ts));
    ts.tv_nsec = 1;
    EXPECT_TRUE(timespecisset(&ts));
    timeval tv{3, 4};
    EXPECT_TRUE(timevalisset(&tv));
    timevalclear(&tv);
    EXPECT_EQ(tv.tv_sec, 0);
    EXPECT_EQ(tv.tv_usec, 0);
    EXPECT_FALSE(timevalisset(&tv));
    tv.tv_usec = 1;
    EXPECT_TRUE(timevalisset(&tv));
}

TEST(Ktime, cmp_looks_at_the_fraction_only_where_seconds_are_equal)
{
    const timespec a{1, 999999999};
    const timespec b{2, 0};
    const timespec c{2, 1};
    EXPECT_TRUE(timespeccmp(&a, &b, <));
    EXPECT_FALSE(timespeccmp(&a, &b, >=));
    EXPECT_TRUE(timespeccmp(&b, &c, <));
    EXPECT_TRUE(timespeccmp(&c, &b, >));
    EXPECT_TRUE(timespeccmp(&b, &b, ==));
    EXPECT_TRUE(timespeccmp(&b, &b, <=));
    EXPECT_TRUE(timespeccmp(&b, &c, !=));
    const timeval d{1, 999999};
    const timeval e{2, 0};
    EXPECT_TRUE(timevalcmp(&d, &e, <));
    EXPECT_TRUE(timevalcmp(&e, &d, >));
    EXPECT_TRUE(timevalcmp(&e, &e, ==));
}

TEST(Ktime, add_carries_from_a_whole_second_on)
{
    const timespec half{1, 500000000};
    const timespec less{0, 499999999};
    timespec sum{1, 500000000};
    timespecadd(&sum, &half);
    EXPECT_EQ(sum.tv_sec, 3);
    EXPECT_EQ(sum.tv_nsec, 0);
    sum = half;
    timespecadd(&sum, &less);
    EXPECT_EQ(sum.tv_sec, 1);
    EXPECT_EQ(sum.tv_nsec, 999999999);
}

TEST(Ktime, sub_borrows_below_zero)
{
    const timespec a{1, 500000000};
    const timespec b{0, 500000001};
    timespec rest = a;
    timespecsub(&rest, &b);
    EXPECT_EQ(rest.tv_sec, 0);
    EXPECT_EQ(rest.tv_nsec, 999999999);
    rest = b;
    timespecsub(&rest, &a);
    EXPECT_EQ(rest.tv_sec, -1);
    EXPECT_EQ(rest.tv_nsec, 1);
    rest = a;
    timespecsub(&rest, &a);
    EXPECT_FALSE(timespecisset(&rest));
}

TEST(Ktime, seconds_wrap_at_the_limits)
{
    const timespec one{0, 999999999};
    timespec sum{kMax, 1};
    timespecadd(&sum, &one);
    EXPECT_EQ(sum.tv_sec, kMin);
    EXPECT_EQ(sum.tv_nsec, 0);
    timespecsub(&sum, &one);
    EXPECT_EQ(sum.tv_sec, kMax);
    EXPECT_EQ(sum.tv_nsec, 1);
}

TEST(Clk, names_the_kernels_clocks)
{
    EXPECT_EQ(FAST_MONOTONIC_CLOCK, CLOCK_MONOTONIC);
    EXPECT_EQ(FAST_REALTIME_CLOCK, CLOCK_REALTIME);
}

// First of all: no test has set the cached clock yet.
TEST(Timeop, the_cached_clock_stands_at_zero_without_a_loop)
{
    const timespec last{0, 0};
    const timespec before{-1, 999999999};
    const timespec none{0, 0};
    EXPECT_EQ(timed_out(&last, &none), 0);
    EXPECT_EQ(timed_out(&before, &none), 1);
}

// ---- clocks --------------------------------------------------------------------------------------

TEST(Timeop, set_clk_now_reads_the_clock_given)
{
    g_fixed_clock = CLOCK_BOOTTIME;
    g_fixed_time = {12, 34};
    timespec now{};
    set_clk_now(&now, CLOCK_BOOTTIME);
    EXPECT_EQ(now.tv_sec, 12);
    EXPECT_EQ(now.tv_nsec, 34);
    set_clk_now(&now, CLOCK_REALTIME);
    EXPECT_GT(now.tv_sec, 1'600'000'000);
    EXPECT_EQ(g_clock_read, CLOCK_REALTIME);
}

TEST(Timeop, a_clock_that_fails_ends_the_process)
{
    const std::string text = expect_abort("", [] {
        timespec now;
        set_clk_now(&now, 999);
    });
    EXPECT_EQ(text, "clock_gettime: Invalid argument\n");
}

// ---- time-outs -----------------------------------------------------------------------------------

TEST(Timeop, timed_out_is_false_at_the_deadline_and_true_one_nanosecond_later)
{
    const timespec last{100, 600000000};
    const timespec tmout{5, 700000000};
    set_cached_clock({106, 299999999});
    EXPECT_EQ(timed_out(&last, &tmout), 0);
    set_cached_clock({106, 300000000});
    EXPECT_EQ(timed_out(&last, &tmout), 0);
    set_cached_clock({106, 300000001});
    EXPECT_EQ(timed_out(&last, &tmout), 1);
    set_cached_clock({107, 0});
    EXPECT_EQ(timed_out(&last, &tmout), 1);
    set_cached_clock({105, 999999999});
    EXPECT_EQ(timed_out(&last, &tmout), 0);
}

TEST(Timeop, a_timeout_of_zero_ends_as_soon_as_the_clock_has_moved)
{
    const timespec last{100, 5};
    const timespec none{0, 0};
    set_cached_clock(last);
    EXPECT_EQ(timed_out(&last, &none), 0);
    set_cached_clock({100, 6});
    EXPECT_EQ(timed_out(&last, &none), 1);
}

TEST(Timeop, timed_out_ext_goes_by_the_time_given_and_else_by_the_cached_clock)
{
    const timespec last{100, 0};
    const timespec tmout{10, 0};
    const timespec late{110, 1};
    set_cached_clock({0, 0});
    EXPECT_EQ(timed_out_ext(&last, &tmout, &late), 1);
    EXPECT_EQ(timed_out_ext(&last, &tmout, nullptr), 0);
    set_cached_clock(late);
    EXPECT_EQ(timed_out_ext(&last, &tmout, nullptr), 1);
    EXPECT_EQ(timed_out_ext(&last, &tmout, &last), 0);
}

TEST(Timeop, timed_out_real_reads_the_time_of_day)
{
    const timespec last{100, 0};
    const timespec tmout{10, 0};
    set_cached_clock({5000, 0});
    g_fixed_clock = CLOCK_REALTIME;
    g_fixed_time = {110, 0};
    EXPECT_EQ(timed_out_real(&last, &tmout), 0);
    g_fixed_time = {110, 1};
    EXPECT_EQ(timed_out_real(&last, &tmout), 1);
}

TEST(Timeop, a_sum_of_nanoseconds_carries_one_second)
{
    EXPECT_EQ(ext({1, 1}, {1, 999999999}, {3, 0}), 0);
    EXPECT_EQ(ext({1, 1}, {1, 999999999}, {3, 1}), 1);
    EXPECT_EQ(ext({1, 0}, {1, 999999999}, {2, 999999999}), 0);
    EXPECT_EQ(ext({1, 0}, {1, 999999999}, {3, 0}), 1);
}

TEST(Timeop, the_comparison_is_signed)
{
    EXPECT_EQ(ext({-5, 0}, {1, 0}, {-4, 0}), 0);
    EXPECT_EQ(ext({-5, 0}, {1, 0}, {-4, 1}), 1);
    EXPECT_EQ(ext({-5, 0}, {1, 0}, {3, 0}), 1);
    EXPECT_EQ(ext({5, 0}, {-3, 0}, {2, 1}), 1);
    EXPECT_EQ(ext({5, 0}, {1, 0}, {-7, 0}), 0);
}

TEST(Timeop, a_deadline_beyond_the_last_second_is_never_reached)
{
    EXPECT_EQ(ext({kMax, 999999999}, {kMax, 999999999}, {kMax, 999999999}), 0);
    EXPECT_EQ(ext({100, 0}, {kMax, 0}, {kMax, 999999999}), 0);
    EXPECT_EQ(ext({kMin, 0}, {-1, 0}, {kMin, 0}), 1);
    EXPECT_EQ(ext({kMin, 0}, {kMin, 0}, {kMin, 0}), 1);
}

TEST(Timeop, time_outs_agree_with_a_count_of_nanoseconds)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto draw = [&]() -> timespec {
        const long edge[] = {0, 1, 499999999, 500000000, 999999998, 999999999};
        return {static_cast<long>(random() % 7) - 3, edge[random() % 6]};
    };
    for (int i = 0; i < 20000; ++i) {
        const timespec last = draw();
        const timespec tmout = draw();
        const timespec now = draw();
        const auto count = [](timespec t) { return t.tv_sec * 1'000'000'000L + t.tv_nsec; };
        ASSERT_EQ(ext(last, tmout, now), count(now) > count(last) + count(tmout) ? 1 : 0)
            << count(last) << " " << count(tmout) << " " << count(now);
        timespec span;
        calc_timespan(&last, &now, &span);
        ASSERT_EQ(count(span), count(now) - count(last));
        ASSERT_GE(span.tv_nsec, 0);
        ASSERT_LT(span.tv_nsec, 1'000'000'000);
    }
}

TEST(Timeop, calc_timespan_may_write_over_its_arguments)
{
    timespec a{3, 100};
    timespec b{5, 50};
    calc_timespan(&a, &b, &b);
    EXPECT_EQ(b.tv_sec, 1);
    EXPECT_EQ(b.tv_nsec, 999999950);
    b = {5, 50};
    calc_timespan(&a, &b, &a);
    EXPECT_EQ(a.tv_sec, 1);
    EXPECT_EQ(a.tv_nsec, 999999950);
}

// ---- spans -----------------------------------------------------------------------------------------

TEST(Timeop, ticks_wrap_through_zero_with_one_extra_step)
{
    EXPECT_FALSE(ticks(0xFFFFFFFF, 2, 1));
    EXPECT_TRUE(ticks(0xFFFFFFFF, 2, 2));
    EXPECT_TRUE(ticks(0xFFFFFFFF, 1, 1));
    EXPECT_FALSE(ticks(0xFFFFFFFF, 1, 0));
    EXPECT_TRUE(ticks(0xFFFFFFFF, 2, 3));
    EXPECT_TRUE(ticks(0xFFFFFFFE, 1, 1));
}

TEST(Timeop, ticks_that_never_started_have_always_run_out)
{
    EXPECT_TRUE(ticks(0, 0, 0));
    EXPECT_TRUE(ticks(0, 0xFFFFFFFF, 0));
    EXPECT_TRUE(ticks(0, 5, 3));
}

TEST(Timeop, ticks_have_run_out_when_the_limit_is_reached)
{
    EXPECT_FALSE(ticks(10, 5, 14));
    EXPECT_TRUE(ticks(10, 5, 15));
    EXPECT_TRUE(ticks(10, 5, 16));
    EXPECT_TRUE(ticks(10, 0, 10));
}

TEST(Timeop, kept_a_limit_of_ticks_beyond_the_counter_has_run_out_at_once)
{
    EXPECT_TRUE(ticks(0xFFFFFFF0, 0x20, 0xFFFFFFF0));
    EXPECT_FALSE(ticks(0xFFFFFFF0, 0x0F, 0xFFFFFFF0));
}

TEST(Timeop, time_spans_are_exclusive_and_take_the_time_given_or_the_cached_one)
{
    tspan from{};
    tspan length{};
    from.mode = length.mode = TSPAN_TIME;
    from.val.tms = {10, 0};
    length.val.tms = {5, 0};
    const timespec at{15, 0};
    const timespec behind{15, 1};
    EXPECT_FALSE(tspan_timed_out(&from, &length, &at, 0xFFFFFFFF));
    EXPECT_TRUE(tspan_timed_out(&from, &length, &behind, 0));
    set_cached_clock(at);
    EXPECT_FALSE(tspan_timed_out(&from, &length, nullptr, 0));
    set_cached_clock(behind);
    EXPECT_TRUE(tspan_timed_out(&from, &length, nullptr, 0));
}

TEST(Timeop, set_tspan_stores_what_its_mode_counts)
{
    timespec now{7, 8};
    tspan span{};
    span.mode = TSPAN_TIME;
    set_tspan(&span, &now, 99);
    EXPECT_EQ(span.mode, TSPAN_TIME);
    EXPECT_EQ(span.val.tms.tv_sec, 7);
    EXPECT_EQ(span.val.tms.tv_nsec, 8);
    span = {};
    span.mode = TSPAN_TICKS;
    set_tspan(&span, nullptr, 99);
    EXPECT_EQ(span.mode, TSPAN_TICKS);
    EXPECT_EQ(span.val.ticks, 99U);
}

TEST(Timeop, modes_of_spans_are_asserted)
{
    const auto of_modes = [](int last, int tmout) {
        expect_abort("last->mode == ", [=] {
            tspan from{};
            tspan length{};
            from.mode = last;
            length.mode = tmout;
            tspan_timed_out(&from, &length, nullptr, 1);
        });
    };
    const int pairs[][2] = {
        {TSPAN_TIME, TSPAN_TICKS}, {TSPAN_NONE, TSPAN_NONE}, {3, 3}, {TSPAN_NONE, TSPAN_TICKS}};
    for (const auto& [last, tmout] : pairs) {
        of_modes(last, tmout);
    }
    for (const int mode : {0, 3, -1}) {
        expect_abort("spn->mode == ", [=] {
            timespec now{};
            tspan span{};
            span.mode = mode;
            set_tspan(&span, &now, 1);
        });
    }
}

// ---- reading stamps back -------------------------------------------------------------------------

TEST(Timeop, scan_log_time_reads_back_what_mk_timestr_wrote)
{
    set_zone("XST-5:30");
    const timespec stamp{1'700'000'000, 123'456'789};

    const struct {
        uint32_t flags;
        int count;
        long nsec;
    } cases[] = {{0, 7, 123'456'000}, {f_FMT_SECONDS, 6, 0}, {f_RAW_TIME, 2, 123'456'000}};

    for (const auto& each : cases) {
        char buf[64];
        ASSERT_GT(mk_timestr(&stamp, each.flags, buf, sizeof buf), 0);
        timespec back{1, 1};
        EXPECT_EQ(scan_log_time(buf, &back, each.flags), each.count) << buf;
        EXPECT_EQ(back.tv_sec, stamp.tv_sec) << buf;
        EXPECT_EQ(back.tv_nsec, each.nsec) << buf;
    }
}

TEST(Timeop, scan_log_time_refuses_a_short_scan)
{
    LogCapture log;

    const struct {
        const char* text;
        uint32_t flags;
    } cases[] = {{"", 0},
                 {"2023-11-14 22:13:20", 0},
                 {"2023-11-14 22:13:20.", 0},
                 {"2023/11/14 22:13:20.000001", 0},
                 {"2023-11-14 22:13", f_FMT_SECONDS},
                 {"", f_FMT_SECONDS},
                 {"1700000000", f_RAW_TIME},
                 {"1700000000.", f_RAW_TIME},
                 {"x.5", f_RAW_TIME}};

    for (const auto& each : cases) {
        timespec back{1, 1};
        EXPECT_EQ(scan_log_time(each.text, &back, each.flags), -1) << each.text;
        EXPECT_FALSE(timespecisset(&back)) << each.text;
    }
    EXPECT_EQ(log.text(), "");
}

TEST(Timeop, scan_log_time_reads_six_digits_of_a_fraction)
{
    timespec back;
    EXPECT_EQ(scan_log_time("5.1234567", &back, f_RAW_TIME), 2);
    EXPECT_EQ(back.tv_nsec, 123'456'000);
    EXPECT_EQ(scan_log_time("5.25 and more", &back, f_RAW_TIME), 2);
    EXPECT_EQ(back.tv_nsec, 25'000);
    EXPECT_EQ(scan_log_time("2023-11-14 22:13:20.1234567 GMT", &back, 0), 7);
    EXPECT_EQ(back.tv_nsec, 123'456'000);
}

TEST(Timeop, scan_log_time_of_a_time_that_cannot_be_made_is_logged)
{
    set_zone("GMT0");
    LogCapture log;
    timespec back;
    EXPECT_EQ(scan_log_time("1969-12-31 23:59:59 GMT", &back, f_FMT_SECONDS), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  scan_log_time: cannot make time from [1969-12-31 23:59:59 GMT]"}));
    EXPECT_EQ(scan_log_time("1969-12-31 23:59:58 GMT", &back, f_FMT_SECONDS), 6);
    EXPECT_EQ(back.tv_sec, -2);
}

TEST(Timeop, kept_scan_log_time_takes_every_stamp_as_local_standard_time)
{
    set_zone("CET-1CEST,M3.5.0,M10.5.0/3");
    timespec winter;
    timespec summer;
    timespec gmt;
    EXPECT_EQ(scan_log_time("2023-01-15 12:00:00 CET", &winter, f_FMT_SECONDS), 6);
    EXPECT_EQ(winter.tv_sec, 1673780400); // 11:00 by GMT
    EXPECT_EQ(scan_log_time("2023-07-15 12:00:00 CEST", &summer, f_FMT_SECONDS), 6);
    EXPECT_EQ(summer.tv_sec, 1689418800); // 11:00 by GMT, though the clocks showed 10:00
    EXPECT_EQ(scan_log_time("2023-01-15 12:00:00 GMT", &gmt, f_FMT_SECONDS | f_GMT_TIME), 6);
    EXPECT_EQ(gmt.tv_sec, winter.tv_sec);
}

// ---- dates and durations -----------------------------------------------------------------------------

TEST(Timeop, mk_gmt_date_gives_the_date_by_gmt)
{
    set_zone("XST-14");
    EXPECT_EQ(gmt_date(0), "1970-01-01");
    EXPECT_EQ(gmt_date(86399), "1970-01-01");
    EXPECT_EQ(gmt_date(86400), "1970-01-02");
    EXPECT_EQ(gmt_date(-1), "1969-12-31");
    EXPECT_EQ(gmt_date(951782400), "2000-02-29");
    EXPECT_EQ(gmt_date(253402300800), "10000-01-01");
}

TEST(Timeop, mk_gmt_date_with_room_to_spare_ends_with_a_zero_byte)
{
    char buf[16];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(mk_gmt_date(0, buf, 12), 0);
    EXPECT_STREQ(buf, "1970-01-01");
    EXPECT_EQ(buf[11], 0);
    EXPECT_EQ(buf[12], 'x');
}

TEST(Timeop, kept_mk_gmt_date_one_byte_short_succeeds_cut)
{
    LogCapture log;
    char buf[16];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(mk_gmt_date(0, buf, 11), 0);
    EXPECT_STREQ(buf, "1970-01-01");
    EXPECT_EQ(mk_gmt_date(0, buf, 10), 0);
    EXPECT_STREQ(buf, "1970-01-0");
    EXPECT_EQ(log.text(), "");
}

TEST(Timeop, mk_gmt_date_refuses_a_shorter_buffer)
{
    LogCapture log;
    char buf[16];
    EXPECT_EQ(mk_gmt_date(0, buf, 9), -1);
    EXPECT_EQ(mk_gmt_date(0, buf, 1), -1);
    EXPECT_EQ(mk_gmt_date(0, nullptr, 0), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  mk_gmt_date: timestamp buffer needs 10 bytes, only 9 provided",
                                  "(ERR)  mk_gmt_date: timestamp buffer needs 10 bytes, only 1 provided",
                                  "(ERR)  mk_gmt_date: timestamp buffer needs 10 bytes, only 0 provided"}));
}

TEST(Timeop, mk_gmt_date_of_a_year_beyond_int_fails)
{
    const auto result = run_in_child([] {
        char buf[64];
        return mk_gmt_date(kMax, buf, sizeof buf) == -1 ? 0 : 1;
    });
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err, "gmtime: Value too large for defined data type\n");
}

TEST(Timeop, mk_timespan_shows_days_only_from_one_day_on)
{
    EXPECT_EQ(duration(90061), "01d 01h:01m:01s");
    EXPECT_EQ(duration(59), "00h:00m:59s");
    EXPECT_EQ(duration(0), "00h:00m:00s");
    EXPECT_EQ(duration(86399), "23h:59m:59s");
    EXPECT_EQ(duration(86400), "01d 00h:00m:00s");
    EXPECT_EQ(duration(100 * 86400L), "100d 00h:00m:00s");
    EXPECT_EQ(duration(kMax), "106751991167300d 15h:30m:07s");
}

TEST(Timeop, mk_timespan_of_a_negative_duration_has_negative_fields_and_no_days)
{
    EXPECT_EQ(duration(-1), "00h:00m:-1s");
    EXPECT_EQ(duration(-3661), "-1h:-1m:-1s");
    EXPECT_EQ(duration(-90061), "-1h:-1m:-1s");
    EXPECT_EQ(duration(kMin), "-15h:-30m:-8s");
}

TEST(Timeop, mk_timespan_refuses_a_buffer_shorter_than_a_part)
{
    char buf[32];
    EXPECT_EQ(mk_timespan(59, buf, 12), 0);
    EXPECT_STREQ(buf, "00h:00m:59s");
    EXPECT_EQ(mk_timespan(59, buf, 11), 0);
    EXPECT_STREQ(buf, "00h:00m:59");
    EXPECT_EQ(mk_timespan(59, buf, 10), -1);
    EXPECT_EQ(mk_timespan(59, nullptr, 0), -1);
    EXPECT_EQ(mk_timespan(90061, buf, 16), 0);
    EXPECT_STREQ(buf, "01d 01h:01m:01s");
    EXPECT_EQ(mk_timespan(90061, buf, 15), 0);
    EXPECT_STREQ(buf, "01d 01h:01m:01");
    EXPECT_EQ(mk_timespan(90061, buf, 14), -1);
    EXPECT_EQ(mk_timespan(90061, buf, 4), -1);
    EXPECT_EQ(mk_timespan(90061, buf, 3), -1);
}

TEST(Timeop, get_endofday_utime_is_the_last_second_of_the_local_day)
{
    set_zone("XST-5:30");
    EXPECT_EQ(get_endofday_utime(1700000000),
              1700000000 + (23 * 3600 + 59 * 60 + 59) - (1700000000 + 19800) % 86400);
    set_zone("GMT0");
    EXPECT_EQ(get_endofday_utime(0), 86399);
    EXPECT_EQ(get_endofday_utime(86399), 86399);
    EXPECT_EQ(get_endofday_utime(86400), 172799);
    EXPECT_EQ(get_endofday_utime(-1), -1); // the last second of 1969, and no failure
}

TEST(Timeop, kept_the_end_of_a_day_of_change_goes_by_the_daylight_saving_of_the_stamp)
{
    set_zone("CET-1CEST,M3.5.0,M10.5.0/3");
    // 26 March 2023: 00:30 is standard time, and the day ends at 23:59:59 summer time, 21:59:59 by GMT.
    const time_t real_end = 1679867999;
    EXPECT_EQ(get_endofday_utime(real_end - 3600), real_end);
    EXPECT_EQ(get_endofday_utime(1679787000), real_end + 3600);
}

TEST(Timeop, get_endofday_utime_of_a_year_beyond_int_is_logged)
{
    LogCapture log;
    EXPECT_EQ(get_endofday_utime(kMax), -1);
    EXPECT_EQ(log.lines(), (Lines{"(ERR)  get_endofday_utime: localtime_r() FAILED"}));
}
