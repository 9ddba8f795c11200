// No-poll events: called on every cycle, removed at once or at the next purge.
#include <cerrno>

#include "child.h"
#include "rqs_fixture.h"

namespace {

using loop::make_pipe;
using loop::PipePair;
using loop::put;
using loop::Record;
using loop::Words;
using support::expect_abort;

constexpr int kStopped = 100;

class RqsNopoll : public loop::Loop {
  protected:
    // A no-poll reader whose calls are counted by its number.
    struct Event {
        ssize_t index = -7;
        int calls = 0;
    };

    void add(Event& event, int fd = 3) { ASSERT_EQ(rqs_add_nopoll_reader(fd, &event.index, &event), 0); }

    void count_calls()
    {
        hooks.read = [](int, int, void* udata) {
            ++static_cast<Event*>(udata)->calls;
            return 0;
        };
    }
};

TEST_F(RqsNopoll, readers_and_writers_are_called_in_slot_order_with_descriptor_and_udata)
{
    init();
    std::vector<std::string> calls;
    const auto keep = [&](const std::string& what, int fd, int fd_err, void* udata) {
        EXPECT_EQ(fd_err, 0);
        EXPECT_EQ(loop::stage(), ELOOP_START);
        calls.push_back(what + std::to_string(fd) + static_cast<const char*>(udata));
        return 0;
    };
    hooks.read = [&](int fd, int fd_err, void* udata) { return keep("r", fd, fd_err, udata); };
    hooks.write = [&](int fd, int fd_err, void* udata) { return keep("w", fd, fd_err, udata); };
    char a[] = "a";
    char b[] = "b";
    char c[] = "c";
    ssize_t index[3] = {-7, -7, -7};
    ASSERT_EQ(rqs_add_nopoll_reader(10, &index[0], a), 0);
    ASSERT_EQ(rqs_add_nopoll_writer(11, &index[1], b), 0);
    ASSERT_EQ(rqs_add_nopoll_reader(-1, &index[2], c), 0);
    EXPECT_EQ(index[0], 0);
    EXPECT_EQ(index[1], 1);
    EXPECT_EQ(index[2], 2);
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(calls, (Words{"r10a", "w11b", "r-1c"}));
    calls.clear();
    ASSERT_EQ(rqs_rm_nopoll(0), 0);
    ASSERT_EQ(rqs_add_nopoll_writer(12, nullptr, b), 0);
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(calls, (Words{"w12b", "w11b", "r-1c"})) << "a free slot is taken again";
}

TEST_F(RqsNopoll, with_nopoll_events_alone_there_is_no_wait_and_time_stands_still)
{
    init();
    Event event;
    add(event);
    count_calls();
    const timespec before = rqs_now();
    stop_after(5);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(event.calls, 5);
    EXPECT_EQ(count("update_tmout"), 1U) << "on entry to the loop";
    EXPECT_EQ(count("time_out"), 0U);
    EXPECT_EQ(count("is_dormant"), 0U);
    EXPECT_EQ(rqs_now().tv_sec, before.tv_sec);
    EXPECT_EQ(rqs_now().tv_nsec, before.tv_nsec);
    EXPECT_TRUE(lines_with("(ERR)").empty());
}

TEST_F(RqsNopoll, with_both_kinds_the_nopoll_callbacks_run_before_the_events_of_the_wait)
{
    init();
    const PipePair p = make_pipe();
    Record record;
    Event event;
    ASSERT_EQ(rqs_add_reader(p.in, &record), 0);
    add(event, 77);
    put(p.out, "x");
    Words order;
    hooks.read = [&](int fd, int, void* udata) {
        order.push_back(udata == &record ? "polled" : "nopoll" + std::to_string(fd));
        return 0;
    };
    hooks.update_tmout = [](timespec* tmout) { *tmout = {3600, 0}; };
    stop_after(2);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(order, (Words{"nopoll77", "polled", "nopoll77", "polled"}));
    EXPECT_EQ(count("time_out"), 2U);
    EXPECT_EQ(lines_with("(DBG)  wait4events: no-poll events present: changing to 0 timeout").size(), 2U);
}

TEST_F(RqsNopoll, with_both_kinds_and_nothing_ready_the_wait_does_not_wait)
{
    init();
    add_idle_reader();
    Event event;
    add(event);
    count_calls();
    hooks.update_tmout = [](timespec* tmout) { tmout->tv_sec = -1; };
    stop_after(10);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(event.calls, 10);
}

TEST_F(RqsNopoll, kept_only_the_result_of_the_last_event_counts)
{
    init();
    Event events[3];
    for (Event& e : events) {
        add(e);
    }
    Event* failing = &events[0];
    hooks.read = [&](int, int, void* udata) {
        ++static_cast<Event*>(udata)->calls;
        return udata == failing ? 5 : 0;
    };
    stop_after(2);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_TRUE(lines_with("FAILED").empty());
    failing = &events[2];
    hooks.trace.clear();
    EXPECT_EQ(rqs_event_loop(), 5);
    EXPECT_EQ(hooks.trace, (Words{"update_tmout", "read", "read", "read"}))
        << "the rest of the cycle is left out";
    EXPECT_EQ(lines_with("(ERR)  rqs_event_loop: FAILED(5)").size(), 1U);
    EXPECT_EQ(events[0].calls, 3);
}

TEST_F(RqsNopoll, more_events_than_were_reserved)
{
    init();
    Event events[75];
    for (Event& e : events) {
        add(e);
    }
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 75U);
    count_calls();
    stop_after(2);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    for (size_t i = 0; i < 75; ++i) {
        EXPECT_EQ(events[i].index, static_cast<ssize_t>(i));
        EXPECT_EQ(events[i].calls, 2);
    }
}

TEST_F(RqsNopoll, the_first_twenty_events_allocate_nothing)
{
    init();
    Event events[21];
    const size_t before = support::allocation_count();
    for (size_t i = 0; i < 20; ++i) {
        add(events[i]);
    }
    EXPECT_EQ(support::allocation_count(), before);
    add(events[20]);
    EXPECT_EQ(support::allocation_count(), before + 2);
}

TEST_F(RqsNopoll, a_cycle_allocates_only_when_events_outgrow_the_queue_of_removals)
{
    init();
    std::vector<Event> events(30);
    count_calls();
    for (size_t i = 0; i < 30; ++i) {
        add(events[i]);
        stop_after(2);
        const size_t before = support::allocation_count();
        EXPECT_EQ(rqs_event_loop(), kStopped);
        EXPECT_EQ(support::allocation_count() - before, i >= 20 ? 1U : 0U) << i;
    }
}

TEST_F(RqsNopoll, a_callback_may_add_events_and_the_walk_goes_on)
{
    init();
    std::vector<std::unique_ptr<Event>> events;
    hooks.read = [&](int, int, void* udata) {
        ++static_cast<Event*>(udata)->calls;
        if (events.size() < 60) {
            events.push_back(std::make_unique<Event>());
            add(*events.back());
        }
        return 0;
    };
    events.push_back(std::make_unique<Event>());
    add(*events.back());
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(events.size(), 2U) << "what is added above the last slot waits for the next cycle";
    stop_after(8);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(events.size(), 60U);
}

TEST_F(RqsNopoll, a_callback_may_remove_events_at_once)
{
    init();
    Event events[3];
    for (Event& e : events) {
        add(e);
    }
    hooks.read = [&](int, int, void* udata) {
        auto* e = static_cast<Event*>(udata);
        if (++e->calls == 1 && e == &events[0]) {
            EXPECT_EQ(rqs_rm_nopoll(events[1].index), 0);
        }
        return 0;
    };
    stop_after(2);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(events[0].calls, 2);
    EXPECT_EQ(events[1].calls, 0);
    EXPECT_EQ(events[1].index, 1) << "left alone";
    EXPECT_EQ(events[2].calls, 2);
}

// ---- the queue of removals -----------------------------------------------------------------------------

TEST_F(RqsNopoll, a_removal_queued_by_a_nopoll_callback_takes_effect_before_the_events)
{
    init();
    Event event;
    add(event);
    hooks.read = [&](int, int, void*) { return rqs_pprm_nopoll(event.index); };
    hooks.post_process = [&](int) {
        EXPECT_EQ(event.index, -1);
        return 55;
    };
    EXPECT_EQ(rqs_event_loop(), 55);
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 0U);
}

TEST_F(RqsNopoll, a_removal_queued_by_a_descriptors_callback_takes_effect_after_post_process)
{
    init();
    Record record;
    const PipePair p = add_ready_reader(record);
    Event event;
    add(event);
    hooks.read = [&](int, int, void* udata) {
        return udata == &record && event.index >= 0 ? rqs_pprm_nopoll(event.index) : 0;
    };
    std::vector<ssize_t> seen;
    hooks.post_process = [&](int) {
        seen.push_back(event.index);
        return 0;
    };
    hooks.on_idle = [&] {
        seen.push_back(event.index);
        return kStopped;
    };
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(seen, (std::vector<ssize_t>{0, -1}));
}

TEST_F(RqsNopoll, a_removal_queued_by_the_first_post_process_takes_effect_before_on_idle)
{
    init();
    Event event;
    add(event);
    count_calls();
    hooks.post_process = [&](int at) { return at == ELOOP_POSTEV ? rqs_pprm_nopoll(event.index) : 0; };
    hooks.on_idle = [&] {
        EXPECT_EQ(event.index, -1);
        EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 0U);
        return kStopped;
    };
    EXPECT_EQ(rqs_event_loop(), kStopped);
}

TEST_F(RqsNopoll, kept_a_removal_queued_anywhere_else_is_lost)
{
    enum { before_loop, by_update_tmout, by_time_out, by_on_idle, by_second_post_process, places };

    for (int place = 0; place < places; ++place) {
        init();
        add_idle_reader();
        Event event;
        add(event);
        count_calls();
        int queued = 0;
        const auto queue_at = [&](int at) {
            if (at == place && queued < 2) {
                ++queued;
                EXPECT_EQ(rqs_pprm_nopoll(event.index), 0);
            }
            return 0;
        };
        queue_at(before_loop);
        hooks.update_tmout = [&](timespec*) { queue_at(by_update_tmout); };
        hooks.time_out = [&] { return queue_at(by_time_out); };
        hooks.post_process = [&](int at) { return at == ELOOP_ENDPP ? queue_at(by_second_post_process) : 0; };
        int cycles = 0;
        hooks.on_idle = [&] {
            queue_at(by_on_idle);
            return ++cycles == 5 ? kStopped : 0;
        };
        EXPECT_EQ(rqs_event_loop(), kStopped);
        EXPECT_EQ(event.calls, 5) << place;
        EXPECT_EQ(event.index, 0) << place;
        EXPECT_GE(queued, 1) << place;
        remove_idle_reader();
        rqs_destroy();
    }
}

TEST_F(RqsNopoll, a_nopoll_failure_leaves_the_queue_and_the_next_run_empties_it)
{
    init();
    Event event;
    add(event);
    hooks.read = [&](int, int, void*) {
        EXPECT_EQ(rqs_pprm_nopoll(event.index), 0);
        return 3;
    };
    EXPECT_EQ(rqs_event_loop(), 3);
    EXPECT_EQ(event.index, 0);
    count_calls();
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(event.calls, 1);
}

TEST_F(RqsNopoll, the_queue_is_applied_in_its_order)
{
    init();
    Event events[3];
    for (Event& e : events) {
        add(e);
    }
    ASSERT_EQ(rqs_pprm_nopoll(2), 0);
    ASSERT_EQ(rqs_pprm_nopoll(0), 0);
    EXPECT_EQ(rqs_purge_nopoll_rm(), 0);
    EXPECT_EQ(events[0].index, -1);
    EXPECT_EQ(events[1].index, 1);
    EXPECT_EQ(events[2].index, -1);
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 1U);
    EXPECT_EQ(rqs_purge_nopoll_rm(), 0) << "the queue is empty";
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 1U);
}

// ---- misuse and exhausted memory -------------------------------------------------------------------------

TEST_F(RqsNopoll, removing_what_is_not_there_ends_the_process)
{
    init();
    expect_abort("rqs_rm_nopoll: failed to remove j=0\n", [] { rqs_rm_nopoll(0); });
    Event events[2];
    add(events[0]);
    add(events[1]);
    expect_abort("rqs_rm_nopoll: failed to remove j=7\n", [] { rqs_rm_nopoll(7); });
    expect_abort("rqs_rm_nopoll: failed to remove j=500\n", [] { rqs_rm_nopoll(500); });
    expect_abort("rqs_rm_nopoll: failed to remove j=-1\n", [] { rqs_rm_nopoll(-1); });
    expect_abort("rqs_rm_nopoll: failed to remove j=1\n", [] {
        rqs_rm_nopoll(1);
        rqs_rm_nopoll(1);
    });
}

TEST_F(RqsNopoll, a_removal_that_was_queued_twice_ends_the_process_and_writes_no_index_twice)
{
    init();
    Event event;
    add(event);
    expect_abort("rqs_purge_nopoll_rm: failed to remove j=0\n", [] {
        rqs_pprm_nopoll(0);
        rqs_pprm_nopoll(0);
        rqs_purge_nopoll_rm();
    });
    expect_abort("rqs_purge_nopoll_rm: failed to remove j=4711\n", [] {
        rqs_pprm_nopoll(4711);
        rqs_purge_nopoll_rm();
    });
}

TEST_F(RqsNopoll, queueing_a_negative_index_is_an_assertion)
{
    init();
    expect_abort([] { rqs_pprm_nopoll(-1); });
}

TEST_F(RqsNopoll, purging_an_event_without_an_index_is_an_assertion)
{
    init();
    ASSERT_EQ(rqs_add_nopoll_reader(0, nullptr, nullptr), 0);
    expect_abort([] {
        rqs_pprm_nopoll(0);
        rqs_purge_nopoll_rm();
    });
}

TEST_F(RqsNopoll, an_add_without_memory_fails_and_writes_nothing)
{
    init();
    Event events[21];
    for (size_t i = 0; i < 20; ++i) {
        add(events[i]);
    }
    log.clear();
    {
        const support::FailAllocation fail(1);
        EXPECT_EQ(rqs_add_nopoll_writer(9, &events[20].index, &events[20]), -1);
        EXPECT_TRUE(fail.happened());
    }
    EXPECT_EQ(events[20].index, -7);
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 20U);
    EXPECT_EQ(log.lines(),
              Words{"(ERR)  add_nopoll: cannot add a no-poll event for fd9: Cannot allocate memory"});
    add(events[20]);
    EXPECT_EQ(events[20].index, 20);
}

TEST_F(RqsNopoll, no_memory_for_the_queue_of_removals_ends_the_process)
{
    init();
    Event events[21];
    for (Event& e : events) {
        add(e);
    }
    count_calls();
    stop_after(1);
    expect_abort("Failed to reserve 21 elements for nopoll_rm container.\n", [] {
        const support::FailAllocation fail(1);
        rqs_event_loop();
    });
    expect_abort("rqs_pprm_nopoll: cannot add an item to nopoll_rm\n", [] {
        const support::FailAllocation fail(1, true);
        for (ssize_t i = 0; i < 21; ++i) {
            rqs_pprm_nopoll(i);
        }
    });
}

TEST_F(RqsNopoll, no_memory_at_set_up_ends_the_process)
{
    for (const size_t n : {1U, 2U, 3U}) {
        expect_abort("rqs_init: cannot reserve memory for g_rqs.nopoll/rm\n", [this, n] {
            const support::FailAllocation fail(n);
            init();
        });
    }
}

} // namespace
