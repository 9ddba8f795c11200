#include "prfm.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "child.h"
#include "rusage_ops.h"
#include "wrap.h"

using support::expect_abort;

namespace {

// What the clock and getrusage say; the real ones where nothing is set.
const timespec* g_clock = nullptr;
const rusage* g_usage = nullptr;
int g_usage_who = -1;
int g_clock_calls = 0;
int g_usage_calls = 0;
bool g_fail_clock = false;
bool g_fail_usage = false;

constexpr long rusage::*kCounters[] = {
    &rusage::ru_maxrss, &rusage::ru_ixrss,    &rusage::ru_idrss,   &rusage::ru_isrss,   &rusage::ru_minflt,
    &rusage::ru_majflt, &rusage::ru_nswap,    &rusage::ru_inblock, &rusage::ru_oublock, &rusage::ru_msgsnd,
    &rusage::ru_msgrcv, &rusage::ru_nsignals, &rusage::ru_nvcsw,   &rusage::ru_nivcsw};

// Counter i is first + i * step.
rusage usage(timeval user, timeval sys, long first, long step)
{
    rusage ru{};
    ru.ru_utime = user;
    ru.ru_stime = sys;
    for (long rusage::*field : kCounters) {
        ru.*field = first;
        first += step;
    }
    return ru;
}

bool all_zero(const rusage& ru)
{
    const rusage zero{};
    return memcmp(&ru, &zero, sizeof ru) == 0;
}

std::string dump(const prfm& r, const char* heading)
{
    char* text = nullptr;
    size_t length = 0;
    FILE* fp = open_memstream(&text, &length);
    if (heading != nullptr) {
        prfm_dump(fp, &r, "%s %d\n", heading, 7);
    } else {
        prfm_dump(fp, &r, nullptr);
    }
    fclose(fp);
    std::string result{text, length};
    free(text);
    return result;
}

class Prfm : public testing::Test {
  protected:
    void SetUp() override
    {
        g_clock = nullptr;
        g_usage = nullptr;
        g_clock_calls = 0;
        g_usage_calls = 0;
    }
};

void expect_time(const timespec& tm, time_t sec, long nsec)
{
    EXPECT_EQ(tm.tv_sec, sec);
    EXPECT_EQ(tm.tv_nsec, nsec);
}

} // namespace

WRAPPED(int, clock_gettime, (clockid_t id, timespec* tm));
WRAPPED(int, getrusage, (int who, rusage* ru));

extern "C" {
int __wrap_clock_gettime(clockid_t id, timespec* tm)
{
    ++g_clock_calls;
    if (g_fail_clock) {
        errno = EINVAL;
        return -1;
    }
    if (g_clock == nullptr) {
        return __real_clock_gettime(id, tm);
    }
    EXPECT_EQ(id, CLOCK_MONOTONIC);
    *tm = *g_clock;
    return 0;
}

int __wrap_getrusage(int who, rusage* ru)
{
    ++g_usage_calls;
    g_usage_who = who;
    if (g_fail_usage) {
        errno = EINVAL;
        return -1;
    }
    if (g_usage == nullptr) {
        return __real_getrusage(who, ru);
    }
    *ru = *g_usage;
    return 0;
}
}

TEST(RusageOps, clear_zeroes_all_sixteen_fields)
{
    rusage ru = usage({1, 2}, {3, 4}, 5, 1);
    rusage_clear(&ru);
    EXPECT_TRUE(all_zero(ru));
}

TEST(RusageOps, sub_takes_each_field_and_borrows_in_the_times)
{
    const rusage a = usage({5, 100}, {9, 999999}, 100, 10);
    const rusage b = usage({3, 200}, {9, 999998}, 1, 1);
    rusage r{};
    rusage_sub(&a, &b, &r);
    EXPECT_EQ(r.ru_utime.tv_sec, 1);
    EXPECT_EQ(r.ru_utime.tv_usec, 999900);
    EXPECT_EQ(r.ru_stime.tv_sec, 0);
    EXPECT_EQ(r.ru_stime.tv_usec, 1);
    long expected = 99;
    for (long rusage::*field : kCounters) {
        EXPECT_EQ(r.*field, expected);
        expected += 9;
    }
}

TEST(RusageOps, add_takes_each_field_and_carries_in_the_times)
{
    const rusage a = usage({5, 999999}, {1, 1}, 100, 10);
    const rusage b = usage({3, 1}, {2, 2}, 1, 1);
    rusage r{};
    rusage_add(&a, &b, &r);
    EXPECT_EQ(r.ru_utime.tv_sec, 9);
    EXPECT_EQ(r.ru_utime.tv_usec, 0);
    EXPECT_EQ(r.ru_stime.tv_sec, 3);
    EXPECT_EQ(r.ru_stime.tv_usec, 3);
    long expected = 101;
    for (long rusage::*field : kCounters) {
        EXPECT_EQ(r.*field, expected);
        expected += 11;
    }
}

TEST(RusageOps, the_result_may_be_an_operand)
{
    rusage a = usage({5, 0}, {1, 0}, 10, 0);
    const rusage b = usage({0, 1}, {0, 1}, 3, 0);
    rusage_sub(&a, &b, &a);
    EXPECT_EQ(a.ru_utime.tv_sec, 4);
    EXPECT_EQ(a.ru_utime.tv_usec, 999999);
    EXPECT_EQ(a.ru_nivcsw, 7);
    rusage_add(&a, &b, &a);
    EXPECT_EQ(a.ru_utime.tv_sec, 5);
    EXPECT_EQ(a.ru_utime.tv_usec, 0);
    EXPECT_EQ(a.ru_nivcsw, 10);
}

TEST_F(Prfm, xinit_clears_only_the_parts_that_its_flags_name)
{
    prfm r;
    memset(&r, 0x5a, sizeof r);
    prfm_tm_init(&r);
    EXPECT_EQ(r.flags, 1);
    EXPECT_EQ(r.who, RUSAGE_SELF);
    expect_time(r.start.tm, 0, 0);
    expect_time(r.accum.tm, 0, 0);
    EXPECT_EQ(r.accum.ru.ru_minflt, 0x5a5a5a5a5a5a5a5a);

    memset(&r, 0x5a, sizeof r);
    prfm_xinit(&r, prfm_RUSAGE, RUSAGE_THREAD);
    EXPECT_EQ(r.flags, 2);
    EXPECT_EQ(r.who, RUSAGE_THREAD);
    EXPECT_TRUE(all_zero(r.start.ru));
    EXPECT_TRUE(all_zero(r.accum.ru));
    EXPECT_EQ(r.accum.tm.tv_sec, 0x5a5a5a5a5a5a5a5a);
}

TEST_F(Prfm, short_forms_name_their_parts_and_selector)
{
    prfm r;
    prfm_init(&r);
    EXPECT_EQ(r.flags, prfm_TIME | prfm_RUSAGE);
    EXPECT_EQ(r.who, RUSAGE_SELF);
    prfm_init_thr(&r);
    EXPECT_EQ(r.flags, prfm_TIME | prfm_RUSAGE);
    EXPECT_EQ(r.who, RUSAGE_THREAD);
}

TEST_F(Prfm, destroy_clears_the_parts_in_use_and_then_the_flags)
{
    prfm r;
    memset(&r, 0x5a, sizeof r);
    r.flags = prfm_RUSAGE;
    prfm_destroy(&r);
    EXPECT_EQ(r.flags, 0);
    EXPECT_TRUE(all_zero(r.start.ru));
    EXPECT_TRUE(all_zero(r.accum.ru));
    EXPECT_EQ(r.start.tm.tv_sec, 0x5a5a5a5a5a5a5a5a);
}

TEST_F(Prfm, measures_only_what_its_flags_name)
{
    prfm r;
    prfm_xinit(&r, 0, RUSAGE_SELF);
    prfm_start(&r);
    prfm_stop(&r);
    EXPECT_EQ(g_clock_calls, 0);
    EXPECT_EQ(g_usage_calls, 0);
    prfm_tm_init(&r);
    prfm_start(&r);
    EXPECT_EQ(g_clock_calls, 1);
    EXPECT_EQ(g_usage_calls, 0);
    prfm_xinit(&r, prfm_RUSAGE, RUSAGE_THREAD);
    prfm_start(&r);
    EXPECT_EQ(g_clock_calls, 1);
    EXPECT_EQ(g_usage_calls, 1);
    EXPECT_EQ(g_usage_who, RUSAGE_THREAD);
}

TEST_F(Prfm, stop_adds_the_span_with_borrow_and_carry)
{
    prfm r;
    prfm_tm_init(&r);
    timespec now = {10, 999999999};
    g_clock = &now;
    prfm_start(&r);
    now = {12, 999999998};
    prfm_stop(&r); // 1.999999999
    expect_time(r.accum.tm, 1, 999999999);
    now = {20, 0};
    prfm_start(&r);
    now = {20, 1};
    prfm_stop(&r); // carries at 1000000000 exactly
    expect_time(r.accum.tm, 2, 0);
}

TEST_F(Prfm, stop_adds_the_usage_of_the_span)
{
    prfm r;
    prfm_xinit(&r, prfm_RUSAGE, RUSAGE_SELF);
    rusage now = usage({1, 900000}, {1, 0}, 100, 1);
    g_usage = &now;
    prfm_start(&r);
    now = usage({2, 100000}, {1, 5}, 110, 2);
    prfm_stop(&r);
    prfm_stop(&r); // start stays: the same span again
    EXPECT_EQ(r.accum.ru.ru_utime.tv_sec, 0);
    EXPECT_EQ(r.accum.ru.ru_utime.tv_usec, 400000);
    EXPECT_EQ(r.accum.ru.ru_stime.tv_usec, 10);
    long expected = 20;
    for (long rusage::*field : kCounters) {
        EXPECT_EQ(r.accum.ru.*field, expected);
        expected += 2;
    }
}

TEST_F(Prfm, stop_without_start_measures_from_the_last_start_or_from_zero)
{
    prfm r;
    prfm_tm_init(&r);
    timespec now = {5, 7};
    g_clock = &now;
    prfm_stop(&r);
    expect_time(r.accum.tm, 5, 7);
    now = {6, 0};
    prfm_start(&r);
    now = {7, 0};
    prfm_stop(&r);
    now = {8, 0};
    prfm_stop(&r);
    expect_time(r.accum.tm, 8, 7);
    expect_time(r.start.tm, 6, 0);
}

TEST_F(Prfm, probe_takes_totals_and_no_time)
{
    prfm r;
    prfm_init(&r);
    timespec now = {5, 7};
    const rusage totals = usage({1, 2}, {3, 4}, 5, 1);
    g_clock = &now;
    g_usage = &totals;
    prfm_start(&r);
    now = {6, 0};
    prfm_stop(&r);
    prfm_probe(&r);
    expect_time(r.accum.tm, 0, 0);
    EXPECT_EQ(memcmp(&r.accum.ru, &totals, sizeof totals), 0);
    expect_time(r.start.tm, 5, 7);
}

TEST_F(Prfm, probe_of_time_alone_takes_no_usage_and_still_clears_the_time)
{
    prfm r;
    prfm_tm_init(&r);
    r.accum.tm = {3, 4};
    prfm_probe(&r);
    EXPECT_EQ(g_usage_calls, 0);
    expect_time(r.accum.tm, 0, 0);
}

TEST_F(Prfm, dump_prints_heading_time_and_usage)
{
    prfm r;
    prfm_init(&r);
    r.accum.tm = {12, 34};
    r.accum.ru = usage({1, 2}, {3, 4}, 11, 1);
    EXPECT_EQ(dump(r, "head"), "head 7\n"
                               "== time:\t12.000000034\n"
                               "== resource usage:\n"
                               "  user_time: 1.000002, sys_time: 3.000004\n"
                               "  maxrss: 11, ixrss: 12, idrss: 13, isrss: 14\n"
                               "  minflt: 15, majflt: 16, nswap=17\n"
                               "  inblock: 18, outblock: 19, msgsnd: 20, msgrcv: 21\n"
                               "  nsignals: 22, nvcsw: 23, nivcsw: 24\n"
                               "==\n");
}

TEST_F(Prfm, dump_leaves_out_what_is_not_measured)
{
    prfm r;
    prfm_tm_init(&r);
    EXPECT_EQ(dump(r, nullptr), "== time:\t0.000000000\n");
    prfm_xinit(&r, prfm_RUSAGE, RUSAGE_SELF);
    EXPECT_EQ(dump(r, nullptr).substr(0, 19), "== resource usage:\n");
    prfm_destroy(&r);
    EXPECT_EQ(dump(r, nullptr), "");
}

TEST_F(Prfm, real_readings_cover_what_the_span_did)
{
    prfm r;
    prfm_init(&r);
    prfm_start(&r);
    constexpr size_t kPages = 64;
    const size_t page = static_cast<size_t>(getpagesize());
    void* block = mmap(nullptr, kPages * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(block, MAP_FAILED);
    madvise(block, kPages * page, MADV_NOHUGEPAGE);
    memset(block, 1, kPages * page);
    raise(SIGURG); // ignored, and a system call
    prfm_stop(&r);
    munmap(block, kPages * page);
    EXPECT_GE(r.accum.ru.ru_minflt, static_cast<long>(kPages));
    EXPECT_TRUE(r.accum.tm.tv_sec > 0 || r.accum.tm.tv_nsec > 0);
    EXPECT_LT(r.accum.tm.tv_nsec, 1000000000);
}

TEST_F(Prfm, a_failing_clock_ends_the_process)
{
    const std::string text = expect_abort("", [] {
        prfm r;
        prfm_init(&r);
        g_fail_clock = true;
        prfm_start(&r);
    });
    EXPECT_EQ(text, "clock_gettime: Invalid argument\n");
}

TEST_F(Prfm, a_failing_getrusage_ends_the_process)
{
    const std::string text = expect_abort("", [] {
        prfm r;
        prfm_init(&r);
        prfm_start(&r);
        g_fail_usage = true;
        prfm_stop(&r);
    });
    EXPECT_EQ(text, "getrusage: Invalid argument\n");
}
