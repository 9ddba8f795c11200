// The cycle of the event loop on real descriptors: stages, results, time, dormant loops, signals.
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>

#include "child.h"
#include "rqs_fixture.h"

namespace {

using loop::all_callbacks;
using loop::drain;
using loop::fewest_callbacks;
using loop::make_pipe;
using loop::make_socketpair;
using loop::PipePair;
using loop::put;
using loop::Record;
using loop::SocketPair;
using loop::Words;
using support::expect_abort;

constexpr int kStopped = 100; // what ends the loop in these tests

class RqsLoop : public loop::Loop {};

// ---- constants, clock, counts -----------------------------------------------------------------------

TEST_F(RqsLoop, the_values_of_the_constants)
{
    EXPECT_EQ(RQS_EVENT_READ, 1);
    EXPECT_EQ(RQS_EVENT_WRITE, 4);
    EXPECT_EQ(RQS_READ, 1);
    EXPECT_EQ(RQS_WRITE, 2);
    EXPECT_EQ(GET_TOTALFDS, 0);
    EXPECT_EQ(GET_POLLFDS, 1);
    EXPECT_EQ(GET_NOPOLLFDS, 2);
    EXPECT_EQ(GET_LOOP_STAGE, 1);
    EXPECT_EQ(ELOOP_START, 0);
    EXPECT_EQ(ELOOP_EV, 1);
    EXPECT_EQ(ELOOP_POSTEV, 2);
    EXPECT_EQ(ELOOP_ENDPP, 3);
    EXPECT_EQ(RQS_SOCKERR, 1);
    EXPECT_EQ(RQS_SOCKHUP, 2);
    EXPECT_EQ(RQS_RMV, 4);
    EXPECT_EQ(RQS_FMOVED, 65536);
    EXPECT_EQ(RQS_FDELETED, 131072);
    EXPECT_EQ(RQS_ATTR, 262144);
}

// What is static is fresh where each test has a process of its own.
bool is_fresh()
{
    return rqs_now_ref()->tv_sec == 0 && rqs_now_ref()->tv_nsec == 0;
}

TEST_F(RqsLoop, the_time_is_zero_until_the_loop_is_set_up)
{
    if (!is_fresh()) {
        GTEST_SKIP() << "skipped: another test of this process has set the loop up";
    }
    EXPECT_EQ(rqs_now_ref()->tv_sec, 0);
    EXPECT_EQ(rqs_now_ref()->tv_nsec, 0);
    timespec before;
    clock_gettime(CLOCK_MONOTONIC, &before);
    const timespec* ref = rqs_now_ref();
    init();
    timespec after;
    clock_gettime(CLOCK_MONOTONIC, &after);
    const auto ns = [](const timespec& t) { return t.tv_sec * 1'000'000'000L + t.tv_nsec; };
    EXPECT_EQ(rqs_now_ref(), ref);
    EXPECT_GE(ns(rqs_now()), ns(before));
    EXPECT_LE(ns(rqs_now()), ns(after));
    EXPECT_EQ(ns(rqs_now()), ns(*ref));
}

TEST_F(RqsLoop, the_time_is_read_after_each_wait_and_stays_for_the_cycle)
{
    init();
    add_idle_reader();
    hooks.update_tmout = [](timespec* tmout) { *tmout = {0, 5'000'000}; };
    const timespec at_init = rqs_now();
    timespec at_time_out = {};
    hooks.time_out = [&] {
        at_time_out = rqs_now();
        return 0;
    };
    hooks.on_idle = [&] {
        EXPECT_EQ(rqs_now().tv_nsec, at_time_out.tv_nsec);
        return kStopped;
    };
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_TRUE(at_time_out.tv_sec != at_init.tv_sec || at_time_out.tv_nsec != at_init.tv_nsec);
}

TEST_F(RqsLoop, descriptors_and_nopoll_events_are_counted)
{
    init();
    EXPECT_EQ(rqs_fd_count(GET_TOTALFDS), 0U);
    add_idle_reader();
    ssize_t index = -7;
    ASSERT_EQ(rqs_add_nopoll_reader(0, &index, nullptr), 0);
    ASSERT_EQ(rqs_add_nopoll_writer(1, nullptr, nullptr), 0);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1U);
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 2U);
    EXPECT_EQ(rqs_fd_count(GET_TOTALFDS), 3U);
    ASSERT_EQ(rqs_rm_nopoll(0), 0);
    EXPECT_EQ(index, 0) << "the owner's variable is left alone";
    EXPECT_EQ(rqs_fd_count(GET_TOTALFDS), 2U);
    remove_idle_reader();
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0U);
}

TEST_F(RqsLoop, a_count_of_nothing_known_is_an_assertion)
{
    expect_abort("rqs_fd_count: invalid specifier: 3\n", [] { rqs_fd_count(3); });
    expect_abort("invalid specifier: -1\n", [] { rqs_fd_count(-1); });
}

TEST_F(RqsLoop, a_request_of_nothing_known_gives_null)
{
    EXPECT_EQ(rqs_ctx(GET_LOOP_STAGE, this), nullptr) << "stage 0";
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(rqs_ctx(2, nullptr), nullptr);
    EXPECT_EQ(log.lines(), Words{"(ERR)  rqs_ctx: invalid request type: 2"});
}

// ---- set-up and end ---------------------------------------------------------------------------------

TEST_F(RqsLoop, set_up_needs_a_configuration)
{
    expect_abort([] { rqs_init(nullptr); });
}

TEST_F(RqsLoop, the_configuration_is_copied)
{
    rqs_config cfg = {};
    cfg.cb = all_callbacks();
    ASSERT_EQ(rqs_init(&cfg), 0);
    cfg = {};
    add_idle_reader();
    hooks.update_tmout = no_wait;
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
}

TEST_F(RqsLoop, the_end_closes_everything_and_may_come_twice)
{
    const auto before = support::open_fds();
    init();
    EXPECT_EQ(support::open_fds().size(), before.size() + 2);
    rqs_destroy();
    EXPECT_EQ(support::open_fds(), before);
    rqs_destroy();
    EXPECT_EQ(rqs_fd_count(GET_TOTALFDS), 0U);
    EXPECT_TRUE(lines_with("ERROR").empty());
    init();
    EXPECT_EQ(support::open_fds().size(), before.size() + 2);
}

TEST_F(RqsLoop, after_the_end_a_removal_does_nothing_and_an_add_is_an_assertion)
{
    init();
    const PipePair p = make_pipe();
    Record record;
    ASSERT_EQ(rqs_add_reader(p.in, &record), 0);
    rqs_destroy();
    log.clear();
    EXPECT_EQ(rqs_rm_fd(p.in, true, false), 0);
    EXPECT_TRUE(log.lines().empty());
    expect_abort([&] { rqs_add_reader(p.in, &record); });
}

TEST_F(RqsLoop, the_loop_before_set_up_is_an_assertion)
{
    if (!is_fresh()) {
        GTEST_SKIP() << "skipped: another test of this process has set the loop up";
    }
    expect_abort([] { rqs_event_loop(); });
}

TEST_F(RqsLoop, kept_an_epoll_descriptor_of_zero_stops_the_loop_and_is_not_closed)
{
    expect_abort([this] {
        close(0);
        init();
        EXPECT_NE(fcntl(0, F_GETFD), -1);
        rqs_event_loop();
    });
    const support::ChildResult result = support::run_in_child([this] {
        close(0);
        init();
        rqs_destroy();
        return fcntl(0, F_GETFD) != -1 ? 5 : 1;
    });
    EXPECT_EQ(result.exit_code, 5) << result.err;
}

// ---- registration ---------------------------------------------------------------------------------------

TEST_F(RqsLoop, a_descriptor_is_added_once)
{
    init();
    const PipePair p = make_pipe();
    Record record;
    ASSERT_EQ(rqs_add_reader(p.in, &record), 0);
    log.clear();
    errno = 0;
    EXPECT_EQ(rqs_add_writer(p.in, &record), -1);
    EXPECT_EQ(errno, EEXIST);
    ASSERT_EQ(log.lines().size(), 1U);
    char want[256];
    snprintf(want, sizeof want, "EPOLL_CTL_ADD, %d, {0x4, %p}) ERROR(17): File exists", p.in.get(),
             static_cast<void*>(&record));
    EXPECT_EQ(lines_with(want).size(), 1U) << log.text();
    EXPECT_EQ(lines_with("(ERR)  ").size(), 1U);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1U);
}

TEST_F(RqsLoop, changing_a_descriptor_that_is_not_registered_fails)
{
    init();
    const PipePair p = make_pipe();
    EXPECT_EQ(rqs_mod_reader(p.in, nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(lines_with("EPOLL_CTL_MOD, " + std::to_string(p.in) + ", {0x1, (nil)}) ERROR(2)").size(), 1U)
        << log.text();
    EXPECT_EQ(rqs_mod(p.in, nullptr, RQS_READ | RQS_WRITE), -1);
    EXPECT_EQ(lines_with("{0x5, (nil)}) ERROR(2)").size(), 1U);
    EXPECT_EQ(rqs_mod(p.in, nullptr, RQS_WRITE), -1);
    EXPECT_EQ(lines_with("{0x4, (nil)}) ERROR(2)").size(), 1U);
    EXPECT_EQ(rqs_mod(p.in, nullptr, RQS_READ), -1);
    EXPECT_EQ(lines_with("{0x1, (nil)}) ERROR(2)").size(), 2U);
    EXPECT_EQ(rqs_mod(p.in, nullptr, 0), -1);
    EXPECT_EQ(lines_with("{0x10, (nil)}) ERROR(2)").size(), 1U);
    EXPECT_EQ(rqs_add_reader(999999, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0U);
}

TEST_F(RqsLoop, kept_a_failed_removal_prints_the_result_where_the_number_belongs)
{
    init();
    const PipePair p = make_pipe();
    errno = 0;
    EXPECT_EQ(rqs_rm_fd(p.in, true, true), -1);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(log.lines().size(), 1U);
    const std::string line = log.lines()[0];
    EXPECT_NE(line.find("(ERR)  rqs_rm_fd: epoll_ctl("), std::string::npos) << line;
    const std::string end =
        ", EPOLL_CTL_DEL, " + std::to_string(p.in) + ",..) ERROR(-1): No such file or directory";
    EXPECT_NE(line.find(end), std::string::npos) << line;
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0U);
}

TEST_F(RqsLoop, the_flags_of_a_removal_are_ignored)
{
    init();
    const PipePair p = make_pipe();
    ASSERT_EQ(rqs_add_writer(p.out, nullptr), 0);
    EXPECT_EQ(rqs_rm_fd(p.out, false, false), 0);
    ASSERT_EQ(rqs_add_writer(p.out, nullptr), 0);
    EXPECT_EQ(rqs_rm_fd(p.out, true, false), 0);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0U);
}

// ---- the cycle, stage by stage ------------------------------------------------------------------------

TEST_F(RqsLoop, a_cycle_runs_its_stages_in_order)
{
    init();
    Record record;
    const PipePair p = add_ready_reader(record);
    std::vector<int> stages;
    const auto keep = [&] { stages.push_back(loop::stage()); };
    hooks.update_tmout = [&](timespec*) { keep(); };
    hooks.time_out = [&] { return keep(), 0; };
    hooks.read = [&](int, int, void*) { return keep(), 0; };
    hooks.post_process = [&](int) { return keep(), 0; };
    int cycles = 0;
    hooks.on_idle = [&] { return keep(), ++cycles == 2 ? kStopped : 0; };
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(hooks.trace,
              (Words{"update_tmout", "update_tmout", "time_out", "read", "post_process@2", "on_idle",
                     "post_process@3", "update_tmout", "time_out", "read", "post_process@2", "on_idle"}));
    EXPECT_EQ(stages, (std::vector<int>{0, 0, 0, 1, 2, 2, 3, 0, 0, 1, 2, 2}));
    EXPECT_EQ(lines_with("(INF)  Entering event loop").size(), 1U);
    EXPECT_EQ(lines_with("(INF)  Exiting event loop, 0 failed, rc=100, quit=0").size(), 1U);
}

TEST_F(RqsLoop, each_result_that_ends_the_loop_is_its_result)
{
    init();
    add_idle_reader();
    hooks.update_tmout = no_wait;
    hooks.post_process = [](int at) { return at == ELOOP_POSTEV ? 11 : 0; };
    EXPECT_EQ(rqs_event_loop(), 11);
    EXPECT_EQ(hooks.trace, (Words{"update_tmout", "update_tmout", "time_out", "post_process@2"}));
    hooks.trace.clear();
    hooks.post_process = [](int at) { return at == ELOOP_ENDPP ? -12 : 0; };
    EXPECT_EQ(rqs_event_loop(), -12);
    EXPECT_EQ(hooks.trace.back(), "post_process@3");
    hooks.trace.clear();
    hooks.post_process = nullptr;
    hooks.on_idle = [] { return 13; };
    EXPECT_EQ(rqs_event_loop(), 13);
    EXPECT_EQ(hooks.trace.back(), "on_idle");
}

TEST_F(RqsLoop, the_result_of_time_out_is_ignored)
{
    init();
    add_idle_reader();
    hooks.update_tmout = no_wait;
    hooks.time_out = [] { return 77; };
    stop_after(3);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("time_out"), 3U);
}

TEST_F(RqsLoop, callbacks_that_may_be_null_may_all_be_null)
{
    init(fewest_callbacks());
    Record record;
    const PipePair p = add_ready_reader(record);
    int reads = 0;
    hooks.read = [&](int, int, void*) { return ++reads == 3 ? 1 : 0; };
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(hooks.trace, (Words{"read", "read", "read"}));
}

TEST_F(RqsLoop, the_loop_can_be_left_and_entered_again)
{
    init();
    const PipePair p = make_pipe();
    Record record;
    ASSERT_EQ(rqs_add_reader(p.in, &record), 0);
    for (int i = 0; i < 3; ++i) {
        put(p.out, "x");
        hooks.read = [&](int, int, void*) { return drain(p.in).empty() ? 1 : 0; };
        stop_after(1);
        EXPECT_EQ(rqs_event_loop(), kStopped);
    }
    EXPECT_EQ(count("read"), 3U);
}

// ---- events of descriptors ------------------------------------------------------------------------------

TEST_F(RqsLoop, kept_the_data_word_has_two_views)
{
    init();
    const PipePair with = make_pipe();
    const SocketPair without = make_socketpair();
    Record record;
    ASSERT_EQ(rqs_add_reader(with.in, &record), 0);
    ASSERT_EQ(rqs_add_reader(without.ours, nullptr), 0);
    put(with.out, "x");
    put(without.peer, "x");
    std::map<void*, int> seen;
    hooks.read = [&](int fd, int fd_err, void* udata) {
        EXPECT_EQ(fd_err, 0);
        seen[udata] = fd;
        return 0;
    };
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    const std::map<void*, int> want = {
        {&record, static_cast<int>(reinterpret_cast<uintptr_t>(&record))},
        {reinterpret_cast<void*>(static_cast<intptr_t>(without.ours)), without.ours}};
    EXPECT_EQ(seen, want);
}

TEST_F(RqsLoop, a_writer_owes_no_tag_and_its_word_is_not_read)
{
    init();
    const PipePair p = make_pipe();
    void* word = reinterpret_cast<void*>(uintptr_t{8} << 40); // no address at all
    ASSERT_EQ(rqs_add_writer(p.out, word), 0);
    hooks.write = [&](int, int, void* udata) {
        EXPECT_EQ(udata, word);
        return 0;
    };
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("write"), 1U);
}

TEST_F(RqsLoop, a_record_with_the_tag_of_the_file_watches_is_an_assertion)
{
    init();
    const PipePair p = make_pipe();
    Record record;
    memcpy(record.tag.sym, "ino", 4);
    ASSERT_EQ(rqs_add_reader(p.in, &record), 0);
    put(p.out, "x");
    stop_after(1);
    expect_abort([] { rqs_event_loop(); });
}

TEST_F(RqsLoop, a_record_may_stand_at_any_address)
{
    init();
    const PipePair p = make_pipe();
    char bytes[8] = "xtst";
    ASSERT_EQ(rqs_add_reader(p.in, bytes + 1), 0);
    put(p.out, "x");
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("read"), 1U);
}

TEST_F(RqsLoop, of_both_directions_the_read_goes_first_and_the_write_comes_again)
{
    init();
    const SocketPair s = make_socketpair();
    Record record;
    ASSERT_EQ(rqs_add_reader(s.ours, &record), 0);
    ASSERT_EQ(rqs_mod(s.ours, &record, RQS_READ | RQS_WRITE), 0);
    put(s.peer, "x");
    hooks.read = [&](int, int, void*) { return drain(s.ours) == "x" ? 0 : 1; };
    stop_after(3);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("read"), 1U);
    EXPECT_EQ(count("write"), 2U);
    hooks.trace.clear();
    ASSERT_EQ(rqs_mod_reader(s.ours, &record), 0);
    hooks.update_tmout = no_wait;
    stop_after(2);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("read") + count("write"), 0U);
}

TEST_F(RqsLoop, a_hang_up_with_data_arrives_at_read)
{
    init();
    SocketPair s = make_socketpair();
    Record record;
    ASSERT_EQ(rqs_add_reader(s.ours, &record), 0);
    put(s.peer, "last");
    s.peer.reset();
    hooks.read = [&](int, int fd_err, void*) {
        EXPECT_EQ(fd_err, RQS_SOCKHUP);
        EXPECT_EQ(drain(s.ours), "last");
        return 0;
    };
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("read"), 1U);
    EXPECT_EQ(count("error"), 0U);
}

TEST_F(RqsLoop, a_hang_up_alone_goes_to_error)
{
    init();
    SocketPair s = make_socketpair();
    Record record;
    ASSERT_EQ(rqs_add_reader(s.ours, &record), 0);
    ASSERT_EQ(rqs_mod(s.ours, &record, 0), 0);
    put(s.peer, "unseen");
    s.peer.reset();
    hooks.error = [&](int, int fd_err, void* udata) {
        EXPECT_EQ(fd_err, RQS_SOCKHUP);
        EXPECT_EQ(udata, &record);
        return 9;
    };
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(count("error"), 1U);
    EXPECT_EQ(count("read"), 0U);
}

TEST_F(RqsLoop, an_error_alone_goes_to_error_and_with_a_direction_to_that_direction)
{
    init();
    PipePair p = make_pipe();
    Record record;
    ASSERT_EQ(rqs_add_writer(p.out, &record), 0);
    p.in.reset();
    hooks.write = [](int, int fd_err, void*) {
        EXPECT_EQ(fd_err, RQS_SOCKERR);
        return 0;
    };
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("write"), 1U);
    ASSERT_EQ(rqs_mod(p.out, &record, RQS_READ), 0);
    hooks.error = [](int, int fd_err, void*) {
        EXPECT_EQ(fd_err, RQS_SOCKERR);
        return 0;
    };
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("error"), 1U);
    EXPECT_EQ(count("read"), 0U);
}

TEST_F(RqsLoop, kept_a_failed_event_does_not_keep_the_rest_from_its_turn)
{
    init();
    Record records[3];
    std::vector<PipePair> pipes;
    for (Record& record : records) {
        pipes.push_back(add_ready_reader(record));
    }
    int calls = 0;
    hooks.read = [&](int, int, void*) { return ++calls == 1 ? 55 : 0; };
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(hooks.trace,
              (Words{"update_tmout", "update_tmout", "time_out", "read", "read", "read", "post_process@2"}));
    EXPECT_EQ(lines_with("(DBG)  rqs_event_loop: failed 1 events").size(), 1U);
    EXPECT_EQ(lines_with("Exiting event loop, 1 failed, rc=0, quit=0").size(), 1U);
    hooks.read = [](int, int, void*) { return -1; };
    EXPECT_EQ(rqs_event_loop(), 3);
}

TEST_F(RqsLoop, a_result_of_post_process_goes_before_the_count_of_failed_events)
{
    init();
    Record record;
    const PipePair p = add_ready_reader(record);
    hooks.read = [](int, int, void*) { return 1; };
    hooks.post_process = [](int) { return 42; };
    EXPECT_EQ(rqs_event_loop(), 42);
    EXPECT_EQ(lines_with("Exiting event loop, 1 failed, rc=42, quit=0").size(), 1U);
}

TEST_F(RqsLoop, kept_events_of_a_descriptor_that_was_removed_in_the_same_batch_are_dispatched)
{
    init();
    Record records[3];
    std::vector<PipePair> pipes;
    for (Record& record : records) {
        pipes.push_back(add_ready_reader(record));
    }
    std::vector<void*> seen;
    hooks.read = [&](int, int, void* udata) {
        if (seen.empty()) {
            for (const PipePair& p : pipes) {
                EXPECT_EQ(rqs_rm_fd(p.in, true, false), 0);
            }
            pipes.clear();
        }
        seen.push_back(udata);
        return 0;
    };
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(seen.size(), 3U);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0U);
}

TEST_F(RqsLoop, a_callback_may_register_further_descriptors)
{
    init();
    Record record;
    std::vector<PipePair> pipes;
    hooks.read = [&](int, int, void*) {
        if (pipes.size() < 35) {
            pipes.push_back(make_pipe());
            put(pipes.back().out, "x");
            EXPECT_EQ(rqs_add_reader(pipes.back().in, &record), 0);
        }
        return 0;
    };
    const PipePair first = make_pipe();
    put(first.out, "x");
    ASSERT_EQ(rqs_add_reader(first.in, &record), 0);
    stop_when([&] { return pipes.size() == 35; });
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(pipes.size(), 35U);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 36U);
}

TEST_F(RqsLoop, a_callback_that_ends_the_loops_life_ends_the_loop)
{
    init();
    const PipePair pipes[] = {make_pipe(), make_pipe()};
    Record record;
    for (const PipePair& p : pipes) {
        put(p.out, "x");
        ASSERT_EQ(rqs_add_reader(p.in, &record), 0);
    }
    hooks.read = [](int, int, void*) { return rqs_destroy(), 0; };
    EXPECT_NE(rqs_event_loop(), 0);
    EXPECT_EQ(count("read"), 1U) << "the events of the batch are gone with the loop";
}

// ---- the result array ------------------------------------------------------------------------------------

TEST_F(RqsLoop, a_full_result_array_is_told_from_sixteen_events_on)
{
    init();
    std::vector<PipePair> pipes;
    Record record;
    const auto add = [&](size_t total) {
        while (pipes.size() < total) {
            pipes.push_back(make_pipe());
            put(pipes.back().out, "x");
            ASSERT_EQ(rqs_add_reader(pipes.back().in, &record), 0);
        }
    };
    const std::string warning = "(WRN)  wait4events: all event slots populated, might need more";
    const auto run = [&](size_t total) {
        add(total);
        log.clear();
        hooks.trace.clear();
        stop_after(1);
        EXPECT_EQ(rqs_event_loop(), kStopped);
        EXPECT_EQ(count("read"), total);
        return lines_with(warning).size();
    };
    EXPECT_EQ(run(10), 0U) << "ten of ten";
    EXPECT_EQ(run(15), 0U) << "fifteen of twenty";
    EXPECT_EQ(run(16), 0U);
    EXPECT_EQ(run(20), 1U) << "twenty of twenty";
    EXPECT_EQ(run(21), 0U);
    EXPECT_EQ(run(30), 1U);
}

TEST_F(RqsLoop, room_for_events_allocates_only_when_descriptors_outgrow_it)
{
    init();
    std::vector<PipePair> pipes;
    Record record;
    for (size_t total = 1; total <= 30; ++total) {
        pipes.push_back(make_pipe());
        ASSERT_EQ(rqs_add_reader(pipes.back().in, &record), 0);
        hooks.update_tmout = no_wait;
        stop_after(2);
        const size_t before = support::allocation_count();
        EXPECT_EQ(rqs_event_loop(), kStopped);
        EXPECT_EQ(support::allocation_count() - before, total % 10 == 1 ? 1U : 0U) << total;
    }
}

TEST_F(RqsLoop, no_memory_for_events_ends_the_process)
{
    init();
    add_idle_reader();
    stop_after(1);
    expect_abort("wait4events: xvec_reserve failed\n", [] {
        const support::FailAllocation fail(1);
        rqs_event_loop();
    });
}

TEST_F(RqsLoop, ten_thousand_descriptors)
{
    constexpr size_t kMany = 10'000;
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit before = limit;
    if (limit.rlim_cur < kMany + 100) {
        limit.rlim_cur = kMany + 100;
        limit.rlim_max = std::max(limit.rlim_max, limit.rlim_cur);
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            GTEST_SKIP() << "skipped: the limit of descriptors cannot be raised to " << limit.rlim_cur;
        }
    }
    init(true);

    struct Counter {
        n32_tag tag = {{'c', 'n', 't', 0}};
        mv::OwnedFd fd;
        int reads = 0;
    };

    {
        std::vector<Counter> counters(kMany);
        for (Counter& c : counters) {
            c.fd.reset(eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC));
            ASSERT_TRUE(c.fd);
            ASSERT_EQ(rqs_add_reader(c.fd.get(), &c), 0);
        }
        EXPECT_EQ(rqs_fd_count(GET_POLLFDS), kMany);
        hooks.read = [&](int, int, void* udata) {
            auto* c = static_cast<Counter*>(udata);
            ++c->reads;
            EXPECT_FALSE(drain(c->fd.get()).empty());
            return rqs_rm_fd(c->fd.get(), true, false);
        };
        EXPECT_EQ(rqs_event_loop(), 0);
        EXPECT_EQ(count("on_idle"), 1U) << "one wait takes them all";
        for (const Counter& c : counters) {
            ASSERT_EQ(c.reads, 1);
        }
    }
    EXPECT_EQ(lines_with("(WRN)").size(), 1U);
    EXPECT_EQ(lines_with("(CRI)  rqs_event_loop: no fd's, no activity, quitting now.").size(), 1U);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

// ---- dormant loops
// -----------------------------------------------------------------------------------------

TEST_F(RqsLoop, kept_before_the_first_descriptor_a_wait_ends_the_loop)
{
    init();
    hooks.is_dormant = [] { return true; };
    EXPECT_EQ(rqs_event_loop(), EINVAL);
    EXPECT_EQ(hooks.trace, (Words{"update_tmout", "is_dormant", "update_tmout"}));
    const auto lines = lines_with("ERROR(22): Invalid argument");
    ASSERT_EQ(lines.size(), 1U) << log.text();
    EXPECT_EQ(lines[0].find("(ERR)  wait4events: epoll_wait("), 0U) << lines[0];
    EXPECT_EQ(lines_with("Exiting event loop, 0 failed, rc=22, quit=0").size(), 1U);
}

TEST_F(RqsLoop, once_there_was_a_descriptor_an_empty_loop_sleeps_to_its_time_out)
{
    init();
    add_idle_reader();
    hooks.update_tmout = [](timespec* tmout) { *tmout = {0, 3'000'000}; };
    stop_after(1);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    remove_idle_reader();
    hooks.trace.clear();
    stop_after(3);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("time_out"), 3U);
    EXPECT_EQ(count("is_dormant"), 3U);
    EXPECT_TRUE(lines_with("(ERR)").empty());
}

TEST_F(RqsLoop, a_dormant_loop_quits_where_the_configuration_says_so)
{
    init(true);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(hooks.trace, (Words{"update_tmout", "is_dormant"}));
    EXPECT_EQ(lines_with("(CRI)  rqs_event_loop: no fd's, no activity, quitting now.").size(), 1U);
    rqs_destroy();
    log.clear();
    init(fewest_callbacks(), true);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(lines_with("quitting now").size(), 1U);
}

TEST_F(RqsLoop, is_dormant_is_asked_of_an_empty_loop_alone_and_may_keep_it_alive)
{
    init(true);
    add_idle_reader();
    hooks.update_tmout = no_wait;
    hooks.is_dormant = [] { return false; };
    stop_after(2);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("is_dormant"), 0U);
    remove_idle_reader();
    stop_after(3);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(count("is_dormant"), 3U);
    hooks.is_dormant = [] { return true; };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(count("is_dormant"), 4U);
}

TEST_F(RqsLoop, is_dormant_returning_false_before_the_first_descriptor_leads_to_the_failing_wait)
{
    init(true);
    hooks.is_dormant = [] { return false; };
    EXPECT_EQ(rqs_event_loop(), EINVAL);
}

// ---- signals and g_quit
// ---------------------------------------------------------------------------------------

volatile sig_atomic_t g_may_quit = 0;

void set_quit(int)
{
    g_quit = g_may_quit;
}

void ignore_signal(int) {}

// Every few milliseconds, so that one of them meets the wait however slow the machine is.
class Alarm {
  public:
    explicit Alarm(void (*handler)(int))
    {
        struct sigaction action = {};
        action.sa_handler = handler;
        sigaction(SIGALRM, &action, &before_);
        const itimerval every = {{0, 5000}, {0, 5000}};
        setitimer(ITIMER_REAL, &every, nullptr);
    }

    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;

    ~Alarm()
    {
        const itimerval off = {};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &before_, nullptr);
    }

  private:
    struct sigaction before_;
};

TEST_F(RqsLoop, g_quit_at_the_top_of_a_cycle_ends_the_loop)
{
    init();
    add_idle_reader();
    g_quit = 1;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(hooks.trace, Words{"update_tmout"});
    EXPECT_EQ(lines_with("Exiting event loop, 0 failed, rc=0, quit=1").size(), 1U);
}

TEST_F(RqsLoop, g_quit_that_is_set_during_a_cycle_lets_the_cycle_finish)
{
    init();
    add_idle_reader();
    hooks.update_tmout = no_wait;
    hooks.time_out = [] {
        g_quit = 1;
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(hooks.trace, (Words{"update_tmout", "update_tmout", "time_out", "post_process@2", "on_idle",
                                  "post_process@3"}));
}

TEST_F(RqsLoop, an_interrupted_wait_without_g_quit_goes_on_with_no_events)
{
    init();
    add_idle_reader();
    stop_after(1);
    const Alarm alarm(ignore_signal);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    EXPECT_EQ(hooks.trace, (Words{"update_tmout", "update_tmout", "time_out", "post_process@2", "on_idle"}));
    EXPECT_EQ(lines_with("(INF)  wait4events interrupted, quit=0").size(), 1U);
}

TEST_F(RqsLoop, an_interrupted_wait_with_g_quit_ends_the_loop_with_0)
{
    init();
    add_idle_reader();
    const Alarm alarm(set_quit);
    // Only from the call before the wait on may the flag be set, so that the wait and not the top of the
    // cycle sees it.
    hooks.update_tmout = [calls = 0](timespec*) mutable { g_may_quit = ++calls > 1 ? 1 : 0; };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(count("time_out"), 0U);
    EXPECT_EQ(count("post_process@2"), 0U);
    EXPECT_EQ(lines_with("(INF)  wait4events interrupted, quit=1").size(), 1U) << log.text();
    EXPECT_EQ(lines_with("Exiting event loop, 0 failed, rc=0, quit=1").size(), 1U);
}

TEST_F(RqsLoop, a_callbacks_result_of_4_is_an_interruption_only_with_g_quit)
{
    init();
    add_idle_reader();
    hooks.update_tmout = no_wait;
    hooks.on_idle = [] { return EINTR; };
    EXPECT_EQ(rqs_event_loop(), EINTR);
    hooks.on_idle = [] {
        g_quit = 1;
        return EINTR;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
}

// ---- sensors
// -------------------------------------------------------------------------------------------------------

bool has_run(int slot)
{
    const timespec& tm = g_psensor[slot].sensor.accum.tm;
    return tm.tv_sec != 0 || tm.tv_nsec != 0;
}

TEST_F(RqsLoop, sensors_measure_the_stages)
{
    ASSERT_EQ(psensors_init(nullptr, 1), 0);
    init();
    PipePair in = make_pipe();
    PipePair out = make_pipe();
    PipePair gone = make_pipe();
    Record records[3];
    ASSERT_EQ(rqs_add_reader(in.in, &records[0]), 0);
    ASSERT_EQ(rqs_add_writer(out.out, &records[1]), 0);
    ASSERT_EQ(rqs_add_reader(gone.out, &records[2]), 0);
    gone.in.reset();
    put(in.out, "x");
    const auto started = [](int slot) { return g_psensor[slot].started != 0; };
    hooks.read = [&](int, int, void*) { return started(PRF_EVREAD) && started(PRF_EVLOOP) ? 0 : 1; };
    hooks.write = [&](int, int, void*) { return started(PRF_EVWRITE) ? 0 : 1; };
    hooks.error = [&](int, int, void*) { return started(PRF_EVERR) ? 0 : 1; };
    hooks.post_process = [&](int) { return started(PRF_EVPP) ? 0 : 1; };
    hooks.time_out = [&] {
        EXPECT_FALSE(started(PRF_EVLOOP));
        EXPECT_FALSE(started(PRF_EVIDLE));
        return 0;
    };
    stop_after(2);
    EXPECT_EQ(rqs_event_loop(), kStopped);
    for (const int slot : {PRF_EVLOOP, PRF_EVREAD, PRF_EVWRITE, PRF_EVERR, PRF_EVPP, PRF_EVIDLE}) {
        EXPECT_TRUE(has_run(slot)) << slot;
        EXPECT_EQ(g_psensor[slot].started, 0U) << slot;
    }
    EXPECT_FALSE(has_run(PRF_APP));
    // However the loop is left, no sensor is left running.
    hooks.post_process = [](int at) { return at == ELOOP_POSTEV ? 1 : 0; };
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(g_psensor[PRF_EVLOOP].started, 0U);
    ASSERT_EQ(rqs_add_nopoll_reader(0, nullptr, nullptr), 0);
    hooks.read = [](int, int, void*) { return 6; };
    EXPECT_EQ(rqs_event_loop(), 6);
    EXPECT_EQ(g_psensor[PRF_EVLOOP].started, 0U);
    psensors_destroy();
    for (psensor& ps : g_psensor) {
        ps = {};
    }
}

// ---- a server with real clients
// --------------------------------------------------------------------------------

struct Connection {
    n32_tag tag = {{'c', 'o', 'n', 0}};
    mv::OwnedFd fd;
    bool is_listener = false;
    bool dead = false;
};

TEST_F(RqsLoop, a_listener_serves_real_clients_until_they_are_gone)
{
    init();
    Connection listener;
    listener.is_listener = true;
    listener.fd.reset(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(listener.fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener.fd.get(), 100), 0);
    ASSERT_EQ(getsockname(listener.fd.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    ASSERT_EQ(rqs_add_reader(listener.fd.get(), &listener), 0);

    std::vector<std::unique_ptr<Connection>> connections;
    size_t served = 0;
    hooks.read = [&](int, int, void* udata) {
        auto* c = static_cast<Connection*>(udata);
        if (c->is_listener) {
            auto fresh = std::make_unique<Connection>();
            fresh->fd.reset(accept4(c->fd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            EXPECT_EQ(rqs_add_reader(fresh->fd.get(), fresh.get()), 0);
            connections.push_back(std::move(fresh));
            return 0;
        }
        const std::string text = drain(c->fd.get());
        if (text.empty()) {
            EXPECT_EQ(rqs_rm_fd(c->fd.get(), true, false), 0);
            c->dead = true;
            ++served;
            return 0;
        }
        return write(c->fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
    };
    hooks.post_process = [&](int) {
        std::erase_if(connections, [](const auto& c) { return c->dead; });
        return 0;
    };
    constexpr size_t kClients = 40;
    const uint16_t port = address.sin_port;
    const pid_t child = fork();
    if (child == 0) {
        int failures = 0;
        for (size_t i = 0; i < kClients; ++i) {
            const int fd = socket(AF_INET, SOCK_STREAM, 0);
            address.sin_port = port;
            char answer[8] = "";
            failures += connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? 0 : 1;
            failures += write(fd, "hello", 5) == 5 && read(fd, answer, 5) == 5 && strcmp(answer, "hello") == 0
                            ? 0
                            : 1;
            close(fd);
        }
        _exit(failures);
    }
    stop_when([&] { return served == kClients; });
    EXPECT_EQ(rqs_event_loop(), kStopped);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(served, kClients);
    EXPECT_TRUE(connections.empty());
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1U);
}

} // namespace
