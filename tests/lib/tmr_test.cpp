// Timers: order, periods, changes from inside callbacks, limits of the wait, and a plain model beside the
// heap.
#include "tmr.h"

#include <cerrno>
#include <climits>
#include <list>
#include <map>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "ktime.h"
#include "oom.h"
#include "rqs.h"
#include "wrap.h"

namespace {

timespec g_clock; // what a fresh reading of the monotonic clock says

void step_to(timespec now)
{
    *const_cast<timespec*>(rqs_now_ref()) = now;
    g_clock = now;
}

timespec ms(long count)
{
    return {count / 1000, count % 1000 * 1'000'000};
}

struct Named {
    tmr timer = NULL_tmr;
    std::string name;
};

std::vector<std::string> g_ran;

void note(tmr*, void* udata)
{
    g_ran.push_back(static_cast<Named*>(udata)->name);
}

int start(Named& n, timespec after)
{
    return tmr_add(&n.timer, &after, nullptr, note, &n);
}

int start(Named& n, timespec after, timespec every)
{
    return tmr_add(&n.timer, &after, &every, note, &n);
}

class Timers : public testing::Test {
  protected:
    Timers()
    {
        g_ran.clear();
        step_to({1000, 0});
    }

    ~Timers() override
    {
        tmr_reset();
        step_to({0, 0});
    }

    using Names = std::vector<std::string>;
    Named a{NULL_tmr, "a"}, b{NULL_tmr, "b"}, c{NULL_tmr, "c"};
};

} // namespace

WRAPPED(int, clock_gettime, (clockid_t, timespec* ts));

extern "C" int __wrap_clock_gettime(clockid_t, timespec* ts)
{
    *ts = g_clock;
    return 0;
}

TEST_F(Timers, run_in_the_order_of_their_times_and_once)
{
    ASSERT_EQ(0, start(a, ms(30)));
    ASSERT_EQ(0, start(b, ms(10)));
    ASSERT_EQ(0, start(c, ms(20)));
    EXPECT_EQ(3U, tmr_count());
    EXPECT_EQ(0, tmr_time_out());
    step_to({1000, 20'000'000});
    EXPECT_EQ(2, tmr_time_out());
    EXPECT_EQ((Names{"b", "c"}), g_ran);
    EXPECT_FALSE(tmr_pending(&b.timer));
    EXPECT_TRUE(tmr_pending(&a.timer));
    step_to({1001, 0});
    EXPECT_EQ(1, tmr_time_out());
    EXPECT_EQ(0, tmr_time_out());
    EXPECT_EQ((Names{"b", "c", "a"}), g_ran);
    EXPECT_EQ(0U, tmr_count());
}

TEST_F(Timers, of_one_time_run_in_the_order_in_which_they_were_started)
{
    std::list<Named> many;
    Names expected;
    for (int i = 0; i < 100; ++i) {
        many.push_back({NULL_tmr, std::to_string(i)});
        expected.push_back(many.back().name);
        ASSERT_EQ(0, start(many.back(), ms(5)));
    }
    step_to({1000, 5'000'000});
    EXPECT_EQ(100, tmr_time_out());
    EXPECT_EQ(expected, g_ran);
}

TEST_F(Timers, are_not_run_a_nanosecond_before_their_time)
{
    ASSERT_EQ(0, start(a, {1, 1}));
    step_to({1001, 0});
    EXPECT_EQ(0, tmr_time_out());
    step_to({1001, 1});
    EXPECT_EQ(1, tmr_time_out());
}

TEST_F(Timers, with_a_period_run_again_and_keep_their_phase_when_turns_were_missed)
{
    ASSERT_EQ(0, start(a, ms(10), ms(100)));
    step_to({1000, 10'000'000});
    EXPECT_EQ(1, tmr_time_out());
    step_to({1000, 375'000'000}); // 110, 210 and 310 are due: one run
    EXPECT_EQ(1, tmr_time_out());
    timespec left = {};
    ASSERT_EQ(0, tmr_left(&a.timer, &left));
    EXPECT_EQ(0, left.tv_sec);
    EXPECT_EQ(35'000'000, left.tv_nsec); // 410
    step_to({1000, 410'000'000});
    EXPECT_EQ(1, tmr_time_out());
    EXPECT_TRUE(tmr_pending(&a.timer));
}

TEST_F(Timers, that_are_pending_cannot_be_added_again)
{
    ASSERT_EQ(0, start(a, ms(10)));
    EXPECT_EQ(EBUSY, start(a, ms(1)));
    timespec left = {};
    ASSERT_EQ(0, tmr_left(&a.timer, &left));
    EXPECT_EQ(10'000'000, left.tv_nsec);
}

TEST_F(Timers, that_are_not_pending_have_no_time_left)
{
    timespec left = {7, 7};
    EXPECT_EQ(ESRCH, tmr_left(&a.timer, &left));
    EXPECT_EQ(7, left.tv_sec);
}

TEST_F(Timers, refuse_spans_that_are_none)
{
    EXPECT_EQ(EINVAL, start(a, {-1, 0}));
    EXPECT_EQ(EINVAL, start(a, {0, -1}));
    EXPECT_EQ(EINVAL, start(a, {0, 1'000'000'000}));
    EXPECT_EQ(EINVAL, start(a, {0, 0}, {-1, 0}));
    EXPECT_FALSE(tmr_pending(&a.timer));
    ASSERT_EQ(0, start(a, ms(10)));
    const timespec wrong = {0, 1'000'000'000};
    EXPECT_EQ(EINVAL, tmr_change(&a.timer, &wrong));
    EXPECT_TRUE(tmr_pending(&a.timer));
}

TEST_F(Timers, abort_without_what_they_need)
{
    const auto nothing = [](struct tmr*, void*) {};
    const timespec span = ms(10);
    timespec left = {};
    support::expect_abort([&] { tmr_add(nullptr, &span, nullptr, nothing, nullptr); });
    support::expect_abort([&] { tmr_add(&a.timer, nullptr, nullptr, nothing, nullptr); });
    support::expect_abort([&] { tmr_add(&a.timer, &span, nullptr, nullptr, nullptr); });
    support::expect_abort([&] { tmr_change(nullptr, &span); });
    support::expect_abort([&] { tmr_change(&a.timer, nullptr); });
    support::expect_abort([] { tmr_cancel(nullptr); });
    support::expect_abort([&] { tmr_left(nullptr, &left); });
    support::expect_abort([&] { tmr_left(&a.timer, nullptr); });
}

TEST_F(Timers, with_a_span_beyond_counting_never_run)
{
    ASSERT_EQ(0, start(a, {LONG_MAX, 999'999'999}, {LONG_MAX, 0}));
    step_to({LONG_MAX / 1'000'000'000 - 1, 0});
    EXPECT_EQ(0, tmr_time_out());
    timespec tmout = {};
    tmr_update_tmout(&tmout);
    EXPECT_GE(tmout.tv_sec, 0);
    EXPECT_LE(tmout.tv_sec, 86400);
}

TEST_F(Timers, that_are_cancelled_do_not_run_and_may_be_added_again)
{
    EXPECT_EQ(ESRCH, tmr_cancel(&a.timer));
    ASSERT_EQ(0, start(a, ms(10)));
    ASSERT_EQ(0, start(b, ms(20)));
    EXPECT_EQ(0, tmr_cancel(&a.timer));
    EXPECT_EQ(ESRCH, tmr_cancel(&a.timer));
    step_to({1001, 0});
    EXPECT_EQ(1, tmr_time_out());
    EXPECT_EQ((Names{"b"}), g_ran);
    EXPECT_EQ(0, start(a, ms(10)));
}

TEST_F(Timers, that_are_changed_run_at_their_new_time)
{
    timespec span = ms(50);
    EXPECT_EQ(ESRCH, tmr_change(&a.timer, &span));
    ASSERT_EQ(0, start(a, ms(10)));
    ASSERT_EQ(0, start(b, ms(20)));
    ASSERT_EQ(0, tmr_change(&a.timer, &span)); // later
    span = ms(5);
    ASSERT_EQ(0, tmr_change(&b.timer, &span)); // sooner
    step_to({1000, 49'000'000});
    EXPECT_EQ(1, tmr_time_out());
    EXPECT_EQ((Names{"b"}), g_ran);
    step_to({1000, 50'000'000});
    EXPECT_EQ(1, tmr_time_out());
}

TEST_F(Timers, keep_their_period_when_their_next_turn_is_changed)
{
    ASSERT_EQ(0, start(a, ms(10), ms(100)));
    const timespec span = ms(30);
    ASSERT_EQ(0, tmr_change(&a.timer, &span));
    step_to({1000, 30'000'000});
    EXPECT_EQ(1, tmr_time_out());
    timespec left = {};
    ASSERT_EQ(0, tmr_left(&a.timer, &left));
    EXPECT_EQ(100'000'000, left.tv_nsec);
}

TEST_F(Timers, that_start_themselves_anew_wait_for_the_next_round)
{
    const auto again = [](tmr* t, void* udata) {
        note(t, udata);
        const timespec zero = {};
        ASSERT_EQ(0, tmr_add(t, &zero, nullptr, note, udata));
    };
    const timespec zero = {};
    ASSERT_EQ(0, tmr_add(&a.timer, &zero, nullptr, again, &a));
    EXPECT_EQ(1, tmr_time_out());
    EXPECT_EQ(1, tmr_time_out());
    EXPECT_EQ((Names{"a", "a"}), g_ran);
}

TEST_F(Timers, may_cancel_others_that_are_due_and_themselves)
{
    struct Pair {
        tmr* self;
        tmr* other;
    } pair = {&a.timer, &b.timer};

    const auto cancel_both = [](tmr*, void* udata) {
        auto* p = static_cast<Pair*>(udata);
        EXPECT_EQ(0, tmr_cancel(p->self));
        EXPECT_EQ(0, tmr_cancel(p->other));
    };
    const timespec span = ms(10);
    ASSERT_EQ(0, tmr_add(&a.timer, &span, &span, cancel_both, &pair));
    ASSERT_EQ(0, start(b, ms(10)));
    ASSERT_EQ(0, start(c, ms(10)));
    step_to({1000, 10'000'000});
    EXPECT_EQ(2, tmr_time_out());
    EXPECT_EQ((Names{"c"}), g_ran);
    EXPECT_EQ(0U, tmr_count());
}

TEST_F(Timers, may_free_their_own_record)
{
    auto* own = new Named{NULL_tmr, "own"};
    const timespec span = ms(1);
    const auto free_own = [](tmr*, void* udata) { delete static_cast<Named*>(udata); };
    ASSERT_EQ(0, tmr_add(&own->timer, &span, nullptr, free_own, own));
    step_to({1001, 0});
    EXPECT_EQ(1, tmr_time_out());
}

TEST_F(Timers, that_are_all_forgotten_can_be_started_again)
{
    ASSERT_EQ(0, start(a, ms(10)));
    ASSERT_EQ(0, start(b, ms(10)));
    tmr_reset();
    EXPECT_EQ(0U, tmr_count());
    EXPECT_FALSE(tmr_pending(&a.timer));
    step_to({1001, 0});
    EXPECT_EQ(0, tmr_time_out());
    EXPECT_EQ(0, start(a, ms(10)));
}

TEST_F(Timers, that_find_no_memory_are_not_started)
{
    tmr_reset();
    support::FailAllocation fail(1);
    EXPECT_EQ(ENOMEM, start(a, ms(10)));
    EXPECT_FALSE(tmr_pending(&a.timer));
    EXPECT_EQ(0U, tmr_count());
}

TEST_F(Timers, give_the_wait_its_limit_rounded_up_to_milliseconds)
{
    timespec tmout = {7, 7};
    tmr_update_tmout(&tmout);
    EXPECT_EQ(-1, tmout.tv_sec);
    ASSERT_EQ(0, start(a, {2, 1}));
    tmr_update_tmout(&tmout);
    EXPECT_EQ(2, tmout.tv_sec);
    EXPECT_EQ(1'000'000, tmout.tv_nsec);
    ASSERT_EQ(0, start(b, ms(30)));
    g_clock = {1000, 10'000'000}; // callbacks took 10 ms since the last wait
    tmr_update_tmout(&tmout);
    EXPECT_EQ(0, tmout.tv_sec);
    EXPECT_EQ(20'000'000, tmout.tv_nsec);
    g_clock = {1005, 0};
    tmr_update_tmout(&tmout);
    EXPECT_EQ(0, tmout.tv_sec);
    EXPECT_EQ(0, tmout.tv_nsec);
}

TEST_F(Timers, agree_with_a_sorted_list_in_a_long_run_of_random_changes)
{
    constexpr size_t count = 300;
    const auto seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<Named> timers(count);
    std::map<std::pair<long, uint64_t>, Named*> model; // by time in ms and order of start
    std::vector<std::pair<long, uint64_t>> place(count);
    uint64_t order = 0;
    long now = 1'000'000;
    for (size_t i = 0; i < count; ++i) {
        timers[i].name = std::to_string(i);
    }
    for (int step = 0; step < 40'000; ++step) {
        const size_t i = random() % count;
        Named& n = timers[i];
        const long span = static_cast<long>(random() % 500);
        const timespec after = ms(span);
        const bool pending = model.count(place[i]) != 0 && model[place[i]] == &n;
        switch (random() % 4) {
        case 0:
            ASSERT_EQ(pending ? EBUSY : 0, start(n, after));
            if (!pending) {
                model[place[i] = {now + span, ++order}] = &n;
            }
            break;
        case 1:
            ASSERT_EQ(pending ? 0 : ESRCH, tmr_change(&n.timer, &after));
            if (pending) {
                model.erase(place[i]);
                model[place[i] = {now + span, ++order}] = &n;
            }
            break;
        case 2:
            ASSERT_EQ(pending ? 0 : ESRCH, tmr_cancel(&n.timer));
            model.erase(pending ? place[i] : std::pair<long, uint64_t>{-1, 0});
            break;
        default:
            now += static_cast<long>(random() % 4);
            step_to({now / 1000, now % 1000 * 1'000'000});
            g_ran.clear();
            std::vector<std::string> expected;
            while (!model.empty() && model.begin()->first.first <= now) {
                expected.push_back(model.begin()->second->name);
                model.erase(model.begin());
            }
            ASSERT_EQ(static_cast<int>(expected.size()), tmr_time_out());
            ASSERT_EQ(expected, g_ran);
        }
        ASSERT_EQ(model.size(), tmr_count());
    }
    tmr_reset(); // while the timers that are left still live
}
