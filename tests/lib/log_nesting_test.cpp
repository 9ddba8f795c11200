// Lines within lines: what a log writes while another one rotates, and what a handler writes while the line
// that it interrupts goes to syslog.
#include "log.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <string>
#include <syslog.h>

#include <gtest/gtest.h>

#include "tempdir.h"
#include "util.h"
#include "wrap.h"

namespace {

bool g_interrupt_syslog = false;
bool g_move_to_next_minute = false;
int g_conversions = 0; // calls of localtime_r

} // namespace

WRAPPED(void, vsyslog, (int priority, const char* fmt, va_list args));
WRAPPED(void, __vsyslog_chk, (int priority, int flag, const char* fmt, va_list args));
WRAPPED(time_t, time, (time_t * seconds));
WRAPPED(int, clock_gettime, (clockid_t clk, struct timespec* tms));
WRAPPED(struct tm*, localtime_r, (const time_t* time, struct tm* parts));

extern "C" {
void __wrap_vsyslog(int /*priority*/, const char* /*fmt*/, va_list /*args*/)
{
    if (g_interrupt_syslog) {
        raise(SIGUSR1);
    }
}

void __wrap___vsyslog_chk(int priority, int /*flag*/, const char* fmt, va_list args)
{
    __wrap_vsyslog(priority, fmt, args);
}

time_t __wrap_time(time_t* seconds)
{
    if (seconds != nullptr) {
        *seconds = 1700000000;
    }
    return 1700000000;
}

// 2023-11-14 22:13:20.123456 UTC, or a minute later.
int __wrap_clock_gettime(clockid_t /*clk*/, struct timespec* tms)
{
    *tms = {g_move_to_next_minute ? 1700000060 : 1700000000, 123456789};
    return 0;
}

struct tm* __wrap_localtime_r(const time_t* time, struct tm* parts)
{
    ++g_conversions;
    return __real_localtime_r(time, parts);
}
}

namespace {

void log_in_handler(int /*signo*/)
{
    g_sigctx = 1;
    log_write(&g_log, NORM_level, "from the handler\n");
    g_sigctx = 0;
}

// The application's log on a file, with times of a zone that stands still, and syslog that a signal
// interrupts.
class InterruptedSyslog : public testing::Test {
  protected:
    void SetUp() override
    {
        setenv("TZ", "XYZ-1", 1);
        tzset();
        glog_init("tester");
        ASSERT_EQ(log_open(&g_log, dir.path("log").c_str()), 0);
        g_log.use_syslog = -1;
        struct sigaction action = {};
        action.sa_handler = log_in_handler;
        sigaction(SIGUSR1, &action, nullptr);
        g_interrupt_syslog = true;
    }

    void TearDown() override { log_close(&g_log); }

    support::TempDir dir;
};

} // namespace

TEST_F(InterruptedSyslog, handler_takes_its_stamp_from_the_kept_minute)
{
    testing::internal::CaptureStderr();
    log_write(&g_log, ERR_level, "interrupted\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(dir.read("log"), "2023-11-14 23:13:20.123456 XYZ (ERR)  interrupted\n"
                               "2023-11-14 23:13:20.123456 XYZ (NRM)  from the handler\n");
}

TEST_F(InterruptedSyslog, handler_is_refused_where_libc_would_be_called)
{
    log_write(&g_log, NORM_level, "not for syslog\n");
    const int before = g_conversions;
    log_timefmt(&g_log, f_NO_TIME); // the interrupted line itself keeps no minute
    struct sigaction action = {};
    action.sa_handler = [](int signo) {
        log_timefmt(&g_log, 0);
        g_move_to_next_minute = true;
        log_in_handler(signo);
    };
    sigaction(SIGUSR1, &action, nullptr);
    testing::internal::CaptureStderr();
    log_write(&g_log, ERR_level, "interrupted\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "log_write: time buffer error (n=-35)\n");
    EXPECT_EQ(g_conversions, before);
    g_interrupt_syslog = false;
    log_write(&g_log, ERR_level, "later\n");
    EXPECT_EQ(dir.read("log"), "2023-11-14 23:13:20.123456 XYZ (NRM)  not for syslog\n"
                               "(ERR)  interrupted\n"
                               "2023-11-14 23:14:20.123456 XYZ (ERR)  later\n");
    g_move_to_next_minute = false;
}

TEST_F(InterruptedSyslog, handler_is_refused_while_the_zone_is_unknown)
{
    if (g_conversions != 0) {
        GTEST_SKIP() << "skipped: another test of this process has asked for the zone";
    }
    log_timefmt(&g_log, f_NO_TIME);
    struct sigaction action = {};
    action.sa_handler = [](int signo) {
        log_timefmt(&g_log, 0);
        log_in_handler(signo);
    };
    sigaction(SIGUSR1, &action, nullptr);
    testing::internal::CaptureStderr();
    log_write(&g_log, ERR_level, "interrupted\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "log_write: time buffer error (n=-35)\n");
    EXPECT_EQ(g_conversions, 0);
}

TEST_F(InterruptedSyslog, handler_needs_no_zone_for_a_raw_time)
{
    log_timefmt(&g_log, f_RAW_TIME);
    log_write(&g_log, ERR_level, "interrupted\n");
    EXPECT_EQ(dir.read("log"), "1700000000.123456 (ERR)  interrupted\n"
                               "1700000000.123456 (NRM)  from the handler\n");
}

TEST(NestedRotation, message_that_fills_the_application_log_while_another_log_rotates_rotates_it_at_once)
{
    const support::TempDir dir;
    glog_init("tester");
    struct log_ctx log = ZERO_LOG;
    for (struct log_ctx* each : {&log, &g_log}) {
        each->time_format = f_NO_TIME;
        ASSERT_EQ(log_open(each, dir.path(each == &log ? "other" : "app").c_str()), 0);
    }
    log_set_rota(&log, 10, 4);
    log_set_rota(&g_log, 10, 4);
    log_write(&log, NORM_level, "full enough\n");
    EXPECT_EQ(dir.read("other.1700000000"), "(NRM)  full enough\n");
    EXPECT_EQ(dir.read("app.1700000000"), "(NRM)  [tester]: previous log rotated to [" + dir.path("other") +
                                              ".1700000000] tm=1700000000, idx=0\n");
    EXPECT_EQ(dir.read("app"), "(NRM)  [tester]: previous log rotated to [" + dir.path("app") +
                                   ".1700000000] tm=1700000000, idx=0\n");
    log_close(&log);
    log_close(&g_log);
    g_log = ZERO_LOG;
}
