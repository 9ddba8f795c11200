// Limits on memory and core dumps.
#include "util.h"

#include <cerrno>
#include <cstdarg>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include "child.h"
#include "fixtures.h"
#include "wrap.h"

using support::ChildResult;
using support::run_in_child;

namespace {

// A kernel of our own: while fake is set, limits and the dumpable flag live here.
struct {
    bool fake = false;
    int set_calls = 0;
    int last_resource = -1;
    rlimit limit{};
    int dumpable = 1;
    int fail_get = 0; // errno of the call, 0: it succeeds
    int fail_set = 0;
    int fail_prctl = 0;
} g_kernel;

class UtilLimits : public support::GuardedTest {
  protected:
    void SetUp() override
    {
        g_kernel = {};
        g_kernel.fake = true;
    }

    void TearDown() override { g_kernel.fake = false; }
};

int failing(int err)
{
    errno = err;
    return -1;
}

} // namespace

WRAPPED(int, getrlimit, (int resource, rlimit* limit));
WRAPPED(int, setrlimit, (int resource, const rlimit* limit));
WRAPPED(int, prctl, (int option, ...));

extern "C" {
int __wrap_getrlimit(int resource, rlimit* limit)
{
    if (!g_kernel.fake) {
        return __real_getrlimit(resource, limit);
    }
    *limit = g_kernel.limit;
    return g_kernel.fail_get != 0 ? failing(g_kernel.fail_get) : 0;
}

int __wrap_setrlimit(int resource, const rlimit* limit)
{
    if (!g_kernel.fake) {
        return __real_setrlimit(resource, limit);
    }
    ++g_kernel.set_calls;
    g_kernel.last_resource = resource;
    if (g_kernel.fail_set != 0) {
        return failing(g_kernel.fail_set);
    }
    g_kernel.limit = *limit;
    return 0;
}

int __wrap_prctl(int option, ...)
{
    va_list args;
    va_start(args, option);
    const auto value = va_arg(args, unsigned long);
    va_end(args);
    if (!g_kernel.fake) {
        return __real_prctl(option, value, 0UL, 0UL, 0UL);
    }
    if (option == PR_GET_DUMPABLE) {
        return g_kernel.dumpable;
    }
    if (g_kernel.fail_prctl != 0) {
        return failing(g_kernel.fail_prctl);
    }
    g_kernel.dumpable = static_cast<int>(value & 0xff);
    return 0;
}
}

TEST_F(UtilLimits, set_vmem_limit_changes_the_soft_limit_alone)
{
    log.set_level(INFO_level);
    g_kernel.limit = {RLIM_INFINITY, 1000};
    EXPECT_EQ(set_vmem_limit(500), 0);
    EXPECT_EQ(g_kernel.last_resource, RLIMIT_AS);
    EXPECT_EQ(g_kernel.limit.rlim_cur, 500U);
    EXPECT_EQ(g_kernel.limit.rlim_max, 1000U);
    EXPECT_EQ(log.text(), "(INF)  set_limit(vmem/9): 500 bytes\n");
}

TEST_F(UtilLimits, kept_set_rss_limit_sets_the_same_resource)
{
    log.set_level(INFO_level);
    EXPECT_EQ(MEM_LIMIT, RLIMIT_AS);
    EXPECT_EQ(set_rss_limit(700), 0);
    EXPECT_EQ(g_kernel.last_resource, RLIMIT_AS);
    EXPECT_EQ(g_kernel.limit.rlim_cur, 700U);
    EXPECT_EQ(log.text(), "(INF)  set_limit(rss/9): 700 bytes\n");
}

TEST_F(UtilLimits, set_mem_limits_sets_only_the_first_value)
{
    log.set_level(INFO_level);
    EXPECT_EQ(set_mem_limits(1, 2), 0);
    EXPECT_EQ(g_kernel.set_calls, 1);
    EXPECT_EQ(g_kernel.limit.rlim_cur, 1U);
    EXPECT_EQ(log.text(), "(INF)  set_limit(rss/9): 1 bytes\n");
}

TEST_F(UtilLimits, set_mem_limits_takes_the_second_where_the_first_is_zero)
{
    log.set_level(INFO_level);
    EXPECT_EQ(set_mem_limits(0, 2), 0);
    EXPECT_EQ(g_kernel.set_calls, 1);
    EXPECT_EQ(g_kernel.limit.rlim_cur, 2U);
    EXPECT_EQ(log.text(), "(INF)  set_limit(vmem/9): 2 bytes\n");
    EXPECT_EQ(set_mem_limits(0, 0), 0);
    EXPECT_EQ(g_kernel.set_calls, 1);
}

TEST_F(UtilLimits, failures_are_logged)
{
    log.set_level(INFO_level);
    g_kernel.fail_get = EINVAL;
    EXPECT_EQ(set_vmem_limit(5), -1);
    EXPECT_EQ(errno, EINVAL);
    g_kernel.fail_get = 0;
    g_kernel.fail_set = EPERM;
    EXPECT_EQ(set_mem_limits(6, 0), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(log.text(), "(ERR)  set_limit: getrlimit(9) ERROR(22): Invalid argument\n"
                          "(ERR)  set_limit: setrlimit(9, 6) ERROR(1): Operation not permitted\n");
}

TEST_F(UtilLimits, a_limited_process_gets_no_more_memory)
{
    g_kernel.fake = false;
    const ChildResult result = run_in_child([] {
        constexpr size_t kGiga = size_t{1} << 30;
        void* before = mmap(nullptr, kGiga, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (before == MAP_FAILED || munmap(before, kGiga) != 0 || set_vmem_limit(kGiga) != 0) {
            return 1;
        }
        void* block = mmap(nullptr, kGiga, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        return block == MAP_FAILED && errno == ENOMEM ? 0 : 2;
    });
    EXPECT_EQ(result.exit_code, 0);
}

TEST_F(UtilLimits, set_unlimited_core_lifts_both_limits)
{
    log.set_level(DEBUG_level);
    g_kernel.limit = {0, 4096};
    rlimit old{};
    EXPECT_EQ(set_unlimited_core(&old), 0);
    EXPECT_EQ(g_kernel.last_resource, RLIMIT_CORE);
    EXPECT_EQ(g_kernel.limit.rlim_cur, RLIM_INFINITY);
    EXPECT_EQ(g_kernel.limit.rlim_max, RLIM_INFINITY);
    EXPECT_EQ(old.rlim_cur, 0U);
    EXPECT_EQ(old.rlim_max, 4096U);
    EXPECT_EQ(log.text(), "(DBG)  set_unlimited_core: current=0/4096\n(DBG)  set_unlimited_core: OK\n");
}

TEST_F(UtilLimits, set_unlimited_core_leaves_what_is_unlimited)
{
    log.set_level(DEBUG_level);
    g_kernel.limit = {RLIM_INFINITY, RLIM_INFINITY};
    EXPECT_EQ(set_unlimited_core(nullptr), 0);
    EXPECT_EQ(g_kernel.set_calls, 0);
    EXPECT_EQ(log.text(), "(DBG)  set_unlimited_core: already set\n");
}

TEST_F(UtilLimits, set_unlimited_core_makes_the_process_dumpable)
{
    log.set_level(INFO_level);
    g_kernel.dumpable = 0;
    EXPECT_EQ(set_unlimited_core(nullptr), 0);
    EXPECT_EQ(g_kernel.dumpable, 1);
    EXPECT_EQ(log.text(),
              "(INF)  set_unlimited_core: process is currently NOT core-dumpable; will enforce\n");
}

TEST_F(UtilLimits, set_unlimited_core_tells_what_failed)
{
    g_kernel.fail_set = EPERM;
    EXPECT_EQ(set_unlimited_core(nullptr), -1);
    EXPECT_EQ(errno, EPERM);
    g_kernel.fail_get = EINVAL;
    EXPECT_EQ(set_unlimited_core(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    g_kernel.dumpable = 0;
    g_kernel.fail_prctl = EPERM;
    EXPECT_EQ(set_unlimited_core(nullptr), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(log.text(),
              "(ERR)  set_unlimited_core: setrlimit ERROR(1): Operation not permitted\n"
              "(ERR)  set_unlimited_core: getrlimit ERROR(22): Invalid argument\n"
              "(ERR)  set_unlimited_core: prctl(PR_SET_DUMPABLE, 1) ERROR(1): Operation not permitted\n");
}

TEST_F(UtilLimits, a_real_process_becomes_dumpable_without_a_limit)
{
    g_kernel.fake = false;
    const ChildResult result = run_in_child([] {
        if (__real_prctl(PR_SET_DUMPABLE, 0UL, 0UL, 0UL, 0UL) != 0) {
            return 1;
        }
        const int rc = set_unlimited_core(nullptr);
        if (rc != 0) {
            return errno == EPERM ? 2 : 3;
        }
        rlimit now{};
        __real_getrlimit(RLIMIT_CORE, &now);
        return now.rlim_cur == RLIM_INFINITY && now.rlim_max == RLIM_INFINITY &&
                       __real_prctl(PR_GET_DUMPABLE, 0UL, 0UL, 0UL, 0UL) == 1
                   ? 0
                   : 4;
    });
    if (result.exit_code == 2) {
        GTEST_SKIP() << "skipped: the hard limit may not be raised here";
    }
    EXPECT_EQ(result.exit_code, 0);
}
